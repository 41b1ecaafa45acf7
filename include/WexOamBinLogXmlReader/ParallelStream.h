// Decoding one capture on several cores, with every item in capture order.
//
//   Tav::ParallelStream stream(capture, 2, [](const Tav::Record& record, std::string& out) {
//       out.append(record.text);  // runs in a worker thread
//   });
//   while (stream.next()) {
//       if (stream.isRecord()) { fwrite(stream.rendered().data(), 1, stream.rendered().size(),
//       out); } if (const Tav::Event* event = stream.event()) { ... }
//   }
//
// The capture stream reads the capture in the calling thread and decides in
// record order what the record headers decide: the statistics (gaps,
// reorders), unknown log ids, version and level checks, damage, the summary.
// The records that pass are cut into batches; worker threads decode their
// payloads with texts and values, apply the stream's filter, report what the
// payloads hold (display formats not found, ...) and hand each record kept to
// `render`, which appends what the program prints for it; next() then hands
// out the events and the renderings in capture order. So a program that
// prints the renderings and the events in the order next() gives prints
// byte for byte what it prints from the capture stream alone. The calling
// thread renders batches too while it waits for the next one, and so does
// the capture's reading thread, when it reads in a thread of its own
// (StreamOptions::inflateThread), while it holds all the bytes it may: on
// two cores, no worker thread at all (jobs 0) keeps both busy.
//
// The capture stream (not following a file) must outlive this object and is
// not used otherwise while it is; its texts and values settings play no part.
// Memory stays bounded: at most 2 x jobs + 3 batches of at most 2048 items
// (records and events) or 1 MiB of records and event texts are under way.
#ifndef WEX_OAM_BINLOG_PARALLEL_STREAM_H
#define WEX_OAM_BINLOG_PARALLEL_STREAM_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "../WexOamBinLogXmlReaderExport.h"
#include "CaptureStream.h"
#include "Record.h"

namespace Tav {

class WEXBL_API ParallelStream {
  public:
    /// Appends to `out` what the program prints for `record`. Called in the
    /// worker threads, for different records at the same time: it must only
    /// read shared state. The record and its values are valid during the call.
    using Render = std::function<void(const Record& record, std::string& out)>;

    /// Decodes `stream`'s records with `jobs` worker threads beside the
    /// calling thread and the capture's reading thread (0: none).
    /// Without a `render` (an empty function), a record's rendering is its
    /// line, Record::text, which the worker writes where rendered() hands it
    /// out from: no copy.
    ParallelStream(CaptureStream& stream, unsigned jobs, Render render);
    /// Stops the workers (what they have not handed out is dropped).
    ~ParallelStream();
    ParallelStream(const ParallelStream&) = delete;
    ParallelStream& operator=(const ParallelStream&) = delete;

    /// Moves to the next item; false at the end of the capture or once the
    /// capture stream was asked to stop.
    bool next();
    /// Whether the current item is a record; rendered() holds what render
    /// appended for it (valid until the next call of next()).
    bool isRecord() const;
    std::string_view rendered() const;
    /// After a record whose rendering is its line (no `render`): moves past
    /// the records that follow it in its run up to the next event, as far as
    /// their lines lie one after another right behind its own, and returns
    /// those lines in one piece; `count` is set to how many records that is
    /// (0, with nothing returned, when there is none). The current item is
    /// then the last of them. A program that prints every line at once so
    /// hands out a run's records with a call or two instead of one each.
    std::string_view moreLines(std::uint64_t& count);
    /// Whether the current item ends a run: the items are handed out in
    /// runs, and the renderings of a run stay in place until the call of
    /// next() after the one that handed out its last item (the item for
    /// which this is true). A program can so write a run's renderings
    /// without copying them, once its last item is out; they lie one after
    /// another in memory, but for what separates them (the bytes `render`
    /// appended that the program left out).
    bool runEnds() const;
    /// A record's headers as the capture stream read them, its number in
    /// the capture, and what they make of it: its kind and its shown time
    /// (Record::kind and Record::seconds; the microseconds are pcap.tsUsec).
    struct RecordHeaders {
        PcapRecHeader pcap;
        BinLogHeader header;
        std::uint64_t number = 0;
        std::uint32_t seconds = 0;
        RecordKind kind = RecordKind::BinLog;
    };
    /// The current record's: what a program that counts records needs
    /// without handing anything on from `render`. Null when the current item
    /// is an event; valid until the next call of next().
    const RecordHeaders* headers() const;
    /// The current event, or null when the current item is a record.
    const Event* event() const;
    /// Records handed out so far.
    std::uint64_t records() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tav

#endif
