// The private side of BinaryLogXmlReader: the plans compiled from its
// dictionary, and the decoding state of the reader's own stream, whose
// lines and messages readBinaryFiledata and getLogDetailsForLogId print.
#ifndef WEXBL_SRC_READER_READER_CORE_H
#define WEXBL_SRC_READER_READER_CORE_H

#include <cstdio>

#include "BinaryLogXmlReader.h"
#include "dictionary/Plan.h"
#include "records/Decoder.h"
#include "records/Text.h"

namespace Tav {
namespace detail {

/// Prints what the reader's own stream produces: lines and statistics to the
/// caller's stream, through a buffer written in large pieces; messages to
/// standard error, after the buffer, so that a caller who passes stderr as
/// the output sees everything in order.
class Printer : public EventSink {
  public:
    /// Every caller flushes before it returns, so nothing is left at the end.
    void setOutput(FILE* out);
    void emit(const Event& event) override;
    void line(std::string_view text);
    /// Hands the buffered text to the output stream.
    void flush();
    void flushIfFull();
    /// The buffer, for appending lines in place.
    TextBuilder& buffer() { return buffer_; }

  private:
    FILE* out_ = nullptr;
    TextBuilder buffer_;
};

class ReaderCore {
  public:
    explicit ReaderCore(BinaryLogXmlReader& reader);

    /// The plans of `reader`, for streams that decode against it.
    static const PlanSet& plansOf(const BinaryLogXmlReader& reader) { return reader.core_->plans; }

    /// The dispatcher on the reader's own stream; lines stay buffered in the
    /// printer until it is flushed.
    int dispatch(const PcapRecHeader& pcap, const BinLogHeader& header, const ByteReader& payload,
                 std::uint32_t length, FILE* out, int utcOffsetMinutes, const RecordOrigin& origin);

    BinaryLogXmlReader& reader;
    PlanSet plans;
    Printer printer;
    LevelTable levels;
    RecordDecoder decoder;
    /// The time text cache of outputTimeStamp.
    TimeTextCache time;
};

}  // namespace detail
}  // namespace Tav

#endif
