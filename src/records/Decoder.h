// One decoder for every record: statistics, routing by packet type, the
// dictionary look-up with its version and level checks, decoding into typed
// values and rendering the line. Diagnostics and statistics become events
// handed to a sink, in the order they arise, before the record they belong
// to; the sink of readBinaryFiledata prints them, a capture stream queues
// them.
#ifndef WEXBL_SRC_RECORDS_DECODER_H
#define WEXBL_SRC_RECORDS_DECODER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BinaryLogStatsCollector.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "WexOamBinLogXmlReader/Record.h"
#include "dictionary/Plan.h"
#include "records/Placeholders.h"
#include "records/Text.h"
#include "stats/StatsCore.h"

namespace Tav {
namespace detail {

/// Receives events as they arise.
class EventSink {
  public:
    virtual ~EventSink() = default;
    /// `event.text` is valid during the call only.
    virtual void emit(const Event& event) = 0;
};

/// Per call settings of the decoder.
struct DecodeSettings {
    int utcOffsetMinutes = 0;
    std::uint16_t maxVarBinaryBytes = 0;
    bool stats = false;
    /// Fill the record's value fields (capture streams).
    bool fields = true;
    /// Build the line and the display texts.
    bool texts = true;
};

/// Where a record comes from.
struct RecordOrigin {
    std::string_view capture;
    std::uint64_t number = 0;
    std::uint64_t offset = 0;
};

/// The level-name table a stream reads and grows: the reader's own map, or
/// a private copy of it (which may keep pointers to its names, since nothing
/// else changes it).
class LevelTable {
  public:
    LevelTable(std::map<std::uint16_t, std::string>& names, bool own) : names_(&names), own_(own) {}
    std::size_t size() const { return names_->size(); }
    /// The name of `level`, adding an empty entry for an unknown level.
    const std::string& name(std::uint16_t level);

  private:
    std::map<std::uint16_t, std::string>* names_;
    bool own_;
    std::vector<const std::string*> cache_;
};

/// The decoded values and texts of one parameter table of a record.
struct DecodedTable {
    struct Ref {
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
    };
    /// Per parameter (wire order): its whole text in the arena, and whether
    /// it holds a brace.
    std::vector<Ref> text;
    std::vector<bool> brace;
    /// Per field (declaration order).
    std::vector<ParamField> fields;
    std::vector<Ref> fieldText;
    std::vector<Ref> fieldBytes;  // bytes copied into the arena (short records)
    std::vector<bool> bytesInArena;
};

class RecordDecoder : private SequenceReport {
  public:
    RecordDecoder(LevelTable& levels, BinaryLogStatsCollector& stats, EventSink& sink)
        : levels_(&levels), stats_(&stats), sink_(&sink) {}

    /// Decodes one record as the dispatcher does. Returns its result: 0 when
    /// the record was rendered or deliberately skipped with a version or
    /// level message, -1 when its log id or packet type is unknown or it
    /// cannot be decoded. produced() tells whether a record came out.
    int decode(const PlanSet& plans, const DecodeSettings& settings, const PcapRecHeader& pcap,
               const BinLogHeader& header, const ByteReader& payload, std::uint32_t statsLength,
               const RecordOrigin& origin);

    bool produced() const { return produced_; }
    /// The record decoded last (valid while produced()).
    const Record& record() const { return record_; }

    /// Emits an event whose text is `text`, filling in the origin fields.
    void emit(Event& event, std::string_view text);

  private:
    void gap(std::uint32_t module, std::int32_t last, std::int32_t current, std::int32_t missing,
             std::int32_t missingBefore) override;
    void reorder(std::uint32_t module, std::int32_t last, std::int32_t current) override;

    /// Starts the line with "[time] [" and sets the record's time.
    void startLine(const PcapRecHeader& pcap);
    void decodeBinLog(const LogPlan& plan, const ByteReader& payload);
    void decodeTable(const TablePlan& plan, const ByteReader& payload, unsigned int& offset,
                     DecodedTable& table);
    template <typename T>
    void decodeInts(const ParamPlan& param, const ByteReader& payload, unsigned int& offset,
                    DecodedTable& table, std::size_t index);
    void appendMessage(const LogPlan& plan);
    void decodeLegacy(const LogPlan& plan, const ByteReader& payload);
    int decodeSyslog(const ByteReader& payload);
    void decodeCapture();
    void finishFields(DecodedTable& table, View<ParamField>& out);

    LevelTable* levels_;
    BinaryLogStatsCollector* stats_;
    EventSink* sink_;
    DecodeSettings settings_;
    RecordOrigin origin_;
    PcapRecHeader pcap_;
    BinLogHeader header_;

    bool produced_ = false;
    Record record_;
    TextBuilder line_;
    TextBuilder arena_;
    TextBuilder message_;
    TimeTextCache time_;
    DecodedTable headerTable_;
    DecodedTable logTable_;
    PlaceholderScratch placeholders_;
    std::vector<ParamField> legacyFields_;
    std::string eventText_;
};

}  // namespace detail
}  // namespace Tav

#endif
