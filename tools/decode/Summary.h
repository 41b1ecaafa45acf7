// What binlog-decode counts for --summary and --report: per module the
// records, their time span, sequence gaps, missing and reordered records,
// repeated sequence numbers and the records that were not shown (unknown
// log ids, version mismatches, levels out of range, malformed records);
// per capture the same and whether it was damaged; and, for the report,
// records over time in a fixed number of time buckets, the levels, the most
// frequent logs and the unknown log ids. Memory does not grow with the
// number of records: only with the modules, logs and levels seen.
//
// Fed in capture order from the thread that writes the output: records
// (or the facts a worker thread appended to a record's rendering) and
// events.
#ifndef WEXBL_TOOLS_DECODE_SUMMARY_H
#define WEXBL_TOOLS_DECODE_SUMMARY_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "Options.h"
#include "WexOamBinLogXmlReader/ParallelStream.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace wexbl_decode {

/// What the summary takes of a record: what its headers say. The names of
/// its log and level are looked up in the dictionary when first seen; a
/// syslog record's tag goes beside the facts (record() takes it as a
/// parameter). (No initial values: RecordFacts{} is all zeros.)
struct RecordFacts {
    std::uint64_t number;
    /// The shown time.
    std::uint32_t seconds;
    std::uint32_t microseconds;
    std::uint32_t seqNo;
    /// The module key in the high half, the log's index in the low one.
    std::uint32_t logId;
    std::uint32_t packetType;
    std::uint16_t level;
    Tav::RecordKind kind;
};

/// A time as the JSON "time" field shows it: shown seconds and microseconds.
struct ShownTime {
    std::uint32_t seconds = 0;
    std::uint32_t microseconds = 0;
    std::int64_t micros() const {
        return static_cast<std::int64_t>(seconds) * 1000000 + microseconds;
    }
};

/// The earliest and the latest record time.
struct TimeSpan {
    bool any = false;
    ShownTime first;
    ShownTime last;
    void add(ShownTime time) { add(time, time.micros()); }
    /// `at`: time.micros().
    void add(ShownTime time, std::int64_t at) {
        // Called for every record: kept inline.
        if (!any) {
            any = true;
            first = last = time;
            firstAt_ = lastAt_ = at;
        } else if (at < firstAt_) {
            first = time;
            firstAt_ = at;
        } else if (at > lastAt_) {
            last = time;
            lastAt_ = at;
        }
    }
    void add(const TimeSpan& other);

  private:
    std::int64_t firstAt_ = 0;
    std::int64_t lastAt_ = 0;
};

struct Counts {
    std::uint64_t records = 0;
    std::uint64_t gaps = 0;
    std::uint64_t missing = 0;
    std::uint64_t reorders = 0;
    std::uint64_t duplicates = 0;
    std::uint64_t unknownIds = 0;
    std::uint64_t versionMismatches = 0;
    std::uint64_t levelErrors = 0;
    std::uint64_t malformed = 0;
    void add(const Counts& other);
};

/// One row of the module table.
struct ModuleRow {
    std::string name;
    Counts counts;
    TimeSpan span;
    /// Records per level number: levels 0 to 15 in an array (counted for
    /// every record), the others in a map.
    std::array<std::uint64_t, 16> lowLevels{};
    std::map<std::uint16_t, std::uint64_t> highLevels;
    /// Records per level number, the levels that have any.
    std::map<std::uint16_t, std::uint64_t> levels() const;
};

/// One row of the capture table.
struct CaptureRow {
    std::string name;
    Counts counts;
    TimeSpan span;
    /// Empty, or what damaged the capture ("truncated", "oversized record",
    /// "damaged compressed data", "read error", "bytes skipped",
    /// "not opened", "not decoded: no --udp-port"), separated by ", ".
    std::string damage;
};

/// A gap or a reorder, where it happened.
struct Mark {
    bool gap = true;
    std::size_t row = 0;
    std::int32_t lastSeqNo = 0;
    std::int32_t seqNo = 0;
    std::int32_t missing = 0;
    ShownTime time;
    bool timed = false;
};

/// An unknown log id: how often, and where first.
struct UnknownId {
    std::uint64_t count = 0;
    std::string capture;
    std::uint64_t record = 0;
};

class Summary {
  public:
    /// Buckets of the time charts.
    static constexpr std::size_t kBuckets = 120;
    /// Gaps and reorders kept for the timeline: when there are more, every
    /// second one is dropped and from then on only every second one kept
    /// (and so on), an even sample over the whole run.
    static constexpr std::size_t kMaxMarks = 500;
    /// Distinct syslog tags and unknown log ids kept (more are not listed).
    static constexpr std::size_t kMaxLogs = 20000;
    static constexpr std::size_t kMaxUnknownIds = 20000;

    Summary(const Tav::BinaryLogXmlReader& reader, long utcOffsetMinutes);

    /// --merge: every capture has statistics of its own (else one run of
    /// statistics goes from one capture to the next, as the stream
    /// session's).
    void separateStatistics() { separate_ = true; }
    void startCapture(std::string_view name);
    /// A record of any capture (--merge).
    void record(const Tav::Record& record);
    /// A record of the capture started last; `tag`: a syslog record's tag.
    void record(const RecordFacts& facts, std::string_view tag);
    void recordOfCapture(const Tav::Record& record) {
        this->record(factsOf(record), record.kind == Tav::RecordKind::Syslog ? record.syslogTag
                                                                             : std::string_view());
    }
    void event(const Tav::Event& event);
    /// A capture that could not be opened or decoded at all, and why.
    void captureFailed(std::string_view name, const char* why);

    static RecordFacts factsOf(const Tav::Record& record);
    /// The facts of a record decoded by a worker thread, from its headers.
    static RecordFacts factsOf(const Tav::ParallelStream::RecordHeaders& headers);
    /// Appends a syslog record's tag to `out` (in a worker thread, after its
    /// rendering), which lies in a buffer the next record reuses; takeTag()
    /// takes it off again.
    static void appendTag(const Tav::Record& record, std::string& out);
    /// Splits `rendered` into the rendering and the tag after it.
    static std::string_view takeTag(std::string_view rendered, std::string_view& tag);

    /// The table in a format (layouts in the README and --help).
    std::string table(Format format) const;

    /// The rows in table order (by name, bytewise).
    std::vector<const ModuleRow*> sortedRows() const;
    const std::vector<ModuleRow>& rows() const { return rows_; }
    const std::vector<CaptureRow>& captures() const { return captures_; }
    Counts totals() const;
    TimeSpan span() const;
    long utcOffset() const { return utcOffset_; }

    /// Time buckets: the first bucket's start and the width, in shown
    /// microseconds; per row its records per bucket.
    std::int64_t bucketOrigin() const { return origin_; }
    std::int64_t bucketWidth() const { return width_; }
    const std::vector<std::vector<std::uint64_t>>& rowBuckets() const { return rowBuckets_; }
    /// Records of levels 1 (CRITICAL) and 2 (ERROR) per bucket.
    const std::vector<std::uint64_t>& criticalBuckets() const { return criticalBuckets_; }
    const std::vector<std::uint64_t>& errorBuckets() const { return errorBuckets_; }
    const std::vector<Mark>& marks() const { return marks_; }
    /// Gaps and reorders in all, and the sample's step (1: all kept).
    std::uint64_t marksSeen() const { return marksSeen_; }
    std::uint64_t marksStride() const { return marksStride_; }
    /// Records per (row, log name); a syslog record's tag is its log.
    std::map<std::pair<std::size_t, std::string>, std::uint64_t> logs() const;
    const std::map<std::uint32_t, UnknownId>& unknownIds() const { return unknownIds_; }
    std::uint64_t unknownIdsDropped() const { return unknownIdsDropped_; }
    /// Whether a record of the dictionary log id (module key << 16 | log
    /// index) was counted.
    bool seenLogId(std::uint32_t id) const { return logs_.count(id) != 0; }
    /// The level names seen, by number.
    const std::map<std::uint16_t, std::string>& levelNames() const { return levelNames_; }
    const std::vector<std::string>& captureNames() const { return captureNames_; }

    /// "2024-05-01T14:00:00.020+02:00": a time as the JSON "time" field.
    std::string formatTime(ShownTime time) const;
    /// The row name of a module key: "SUBSYSTEM:module", or "0x0707".
    std::string moduleName(std::uint16_t key) const;

  private:
    std::size_t rowFor(std::uint32_t key, std::string_view subsystem, std::string_view module);
    std::size_t moduleRow(std::uint16_t key);
    CaptureRow& capture() {
        if (!hasCapture_) {
            startCapture("-");
        }
        return captures_[current_];
    }
    /// A dictionary log: its records, row and name.
    struct LogEntry {
        std::uint64_t count = 0;
        std::size_t row = 0;
        std::string name;
        /// The last number of its sequence space (its module's), while
        /// `generation` is the summary's.
        struct {
            std::uint32_t* last = nullptr;
            std::uint64_t generation = 0;
        } sequence;
    };
    /// The entry of a dictionary log, made at its first record.
    LogEntry& newLog(std::uint32_t id);
    /// record() for any record.
    void recordAny(const RecordFacts& facts, std::string_view tag);
    /// Counts a record in `row` and its capture: records, time span, level,
    /// syslog tag, time bucket.
    void tally(std::size_t row, const RecordFacts& facts, std::string_view tag);
    /// Keeps the name of a level seen for the first time.
    void nameLevel(const RecordFacts& facts);
    /// Counts the waiting gaps and reorders: those of record `number` in
    /// `row` at `time`, the others in their module's row.
    /// Settles the gaps and reorders that wait for the record `number`
    /// (most records find none: kept inline).
    void resolvePending(std::uint64_t number, std::size_t row, const ShownTime* time) {
        if (!pending_.empty()) {
            resolvePendingNow(number, row, time);
        }
    }
    void resolvePendingNow(std::uint64_t number, std::size_t row, const ShownTime* time);
    void addMark(const Mark& mark);
    void rescale(std::int64_t time);
    /// Counts a repeated sequence number; returns the last number of the
    /// record's sequence space (null: its numbers are not checked).
    std::uint32_t* countSequence(std::uint32_t packetType, std::uint32_t logId, std::uint32_t seqNo,
                                 std::size_t row);
    void checkSequence(std::uint32_t& last, std::uint32_t seqNo, std::size_t row) {
        const std::uint32_t diff = seqNo - last;
        if (diff == 0) {
            ++rows_[row].counts.duplicates;
            ++capture().counts.duplicates;
        } else if (diff < 0x80000000u) {
            last = seqNo;  // ahead: a step or a gap
        }
    }
    /// The sequence numbers cached are of statistics that ended, or of
    /// another capture's.
    void forgetSequences();
    void addToBuckets(std::size_t row, std::int64_t at, std::uint16_t level) {
        // Records come in time order, mostly: most fall into the bucket of
        // the one before.
        if (at < bucketStart_ || at >= bucketEnd_) {
            findBucket(at);
        }
        ++rowBuckets_[row][bucket_];
        if (level == 1) {
            ++criticalBuckets_[bucket_];
        } else if (level == 2) {
            ++errorBuckets_[bucket_];
        }
    }
    /// Makes the bucket of `at` the current one, widening the buckets when
    /// it lies outside them.
    void findBucket(std::int64_t at);
    void damaged(const char* what);

    const Tav::BinaryLogXmlReader& reader_;
    long utcOffset_;
    std::vector<ModuleRow> rows_;
    std::map<std::uint32_t, std::size_t> rowIndex_;
    /// A few recent entries of a map, found again by their key without a
    /// walk down the tree: records come from a handful of modules and logs
    /// at a time, interleaved. The entries of a std::map never move, so
    /// holding their addresses is safe for as long as the map lives.
    template <typename T>
    class EntryCache {
      public:
        EntryCache() { clear(); }
        T* find(std::uint32_t key) const {
            const std::size_t slot = slotOf(key);
            return keys_[slot] == key ? entries_[slot] : nullptr;
        }
        void put(std::uint32_t key, T* entry) {
            const std::size_t slot = slotOf(key);
            keys_[slot] = key;
            entries_[slot] = entry;
        }
        void clear() {
            keys_.fill(kNoKey);
            entries_.fill(nullptr);
        }

      private:
        static constexpr std::size_t kSlots = 256;
        /// Fibonacci hashing: the key's bits all play a part in the slot
        /// (log ids of one module differ in their low bits, modules in
        /// their high bits).
        static std::size_t slotOf(std::uint32_t key) { return (key * 0x9E3779B1u) >> 24; }
        static constexpr std::uint32_t kNoKey = 0xffffffff;
        std::array<std::uint32_t, kSlots> keys_;
        std::array<T*, kSlots> entries_;
    };
    /// Of rowIndex_ by module key, logs_ by log id, and the sequence
    /// numbers of the current statistics by sequence space.
    EntryCache<std::size_t> rowCache_;
    EntryCache<LogEntry> logCache_;
    EntryCache<std::uint32_t> seqCache_;
    /// Counts forgetSequences().
    std::uint64_t seqGeneration_ = 1;
    std::vector<CaptureRow> captures_;
    std::vector<std::string> captureNames_;
    std::map<std::string, std::size_t, std::less<>> captureIndex_;
    std::size_t current_ = 0;
    bool hasCapture_ = false;
    /// The earliest and latest bucketed times (but for those that fell
    /// into the bucket of the record before: widening the buckets comes to
    /// the same without them).
    std::int64_t lowest_ = 0;
    std::int64_t highest_ = 0;
    /// The bucket of the last record, and its start and end (empty at
    /// first, and after the buckets were widened).
    std::size_t bucket_ = 0;
    std::int64_t bucketStart_ = 0;
    std::int64_t bucketEnd_ = 0;

    /// What the summary follows of one run of statistics.
    struct Statistics {
        /// Their count of missing records (one for all modules, as theirs),
        /// and per row the missing records of it attributed to the row.
        std::uint64_t missing = 0;
        std::vector<std::uint64_t> rowMissing;
        /// The last sequence number per sequence space, by the statistics'
        /// rule, to tell repeated numbers.
        std::map<std::uint32_t, std::uint32_t> lastSeq;
    };
    Statistics& statistics();
    bool separate_ = false;
    /// One, or with separate statistics one per capture.
    std::vector<Statistics> statistics_;
    /// Gaps and reorders waiting for the record that revealed them.
    struct Pending {
        bool gap = true;
        std::uint16_t module = 0;
        std::int32_t lastSeqNo = 0;
        std::int32_t seqNo = 0;
        std::int32_t missing = 0;
        std::uint64_t record = 0;
    };
    std::vector<Pending> pending_;

    std::int64_t origin_ = 0;
    std::int64_t width_ = 1000;
    bool bucketsStarted_ = false;
    std::vector<std::vector<std::uint64_t>> rowBuckets_;
    std::vector<std::uint64_t> criticalBuckets_;
    std::vector<std::uint64_t> errorBuckets_;
    std::vector<Mark> marks_;
    std::uint64_t marksSeen_ = 0;
    std::uint64_t marksStride_ = 1;
    /// Marks waiting for a time: that of the next record.
    std::vector<std::size_t> untimed_;
    /// Syslog records per tag (at most kMaxLogs tags), and the names of
    /// the logs seen.
    std::map<std::string, std::uint64_t, std::less<>> tags_;
    /// By dictionary log id.
    std::map<std::uint32_t, LogEntry> logs_;
    std::map<std::uint32_t, UnknownId> unknownIds_;
    std::uint64_t unknownIdsDropped_ = 0;
    std::map<std::uint16_t, std::string> levelNames_;
};

}  // namespace wexbl_decode

#endif
