#include "Summary.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "WexOamBinLogXmlReader/Format.h"
#include "Writer.h"

namespace wexbl_decode {

namespace {

/// Row keys of the records counted by kind, not module.
constexpr std::uint32_t kSyslogRow = 0x10000 + 2;
constexpr std::uint32_t kCaptureRow = 0x10000 + 3;

/// The bucket widths in milliseconds, each a multiple of the one before,
/// so that a bucket always lies inside one bucket of the next width; after
/// the last one the width doubles.
const std::int64_t kWidthsMs[] = {1,       2,       10,       20,       100,     200,    1000,
                                  2000,    10000,   20000,    60000,    120000,  600000, 1200000,
                                  3600000, 7200000, 21600000, 43200000, 86400000};

std::int64_t nextWidth(std::int64_t width) {
    for (const std::int64_t ms : kWidthsMs) {
        if (ms * 1000 > width) {
            return ms * 1000;
        }
    }
    return width * 2;
}

std::int64_t floorTo(std::int64_t value, std::int64_t width) {
    return value / width * width;  // times are never negative
}

}  // namespace

RecordFacts Summary::factsOf(const Tav::Record& record) {
    RecordFacts facts{};
    facts.number = record.number;
    facts.seconds = record.seconds;
    facts.microseconds = record.microseconds;
    facts.seqNo = record.binLogHeader.seqNo;
    facts.logId = record.binLogHeader.logId;
    facts.packetType = record.binLogHeader.packetType;
    facts.level = record.level;
    facts.kind = record.kind;
    return facts;
}

RecordFacts Summary::factsOf(const Tav::ParallelStream::RecordHeaders& headers) {
    RecordFacts facts{};
    facts.number = headers.number;
    facts.seconds = headers.seconds;
    facts.microseconds = headers.pcap.tsUsec;
    facts.seqNo = headers.header.seqNo;
    facts.logId = headers.header.logId;
    facts.packetType = headers.header.packetType;
    facts.level = headers.header.logLevel;
    facts.kind = headers.kind;
    return facts;
}

void TimeSpan::add(const TimeSpan& other) {
    if (other.any) {
        add(other.first);
        add(other.last);
    }
}

std::map<std::uint16_t, std::uint64_t> ModuleRow::levels() const {
    std::map<std::uint16_t, std::uint64_t> all = highLevels;
    for (std::size_t level = 0; level < lowLevels.size(); ++level) {
        if (lowLevels[level] != 0) {
            all[static_cast<std::uint16_t>(level)] = lowLevels[level];
        }
    }
    return all;
}

void Counts::add(const Counts& other) {
    records += other.records;
    gaps += other.gaps;
    missing += other.missing;
    reorders += other.reorders;
    duplicates += other.duplicates;
    unknownIds += other.unknownIds;
    versionMismatches += other.versionMismatches;
    levelErrors += other.levelErrors;
    malformed += other.malformed;
}

Summary::Summary(const Tav::BinaryLogXmlReader& reader, long utcOffsetMinutes)
    : reader_(reader),
      utcOffset_(utcOffsetMinutes),
      criticalBuckets_(kBuckets, 0),
      errorBuckets_(kBuckets, 0) {}

std::string Summary::moduleName(std::uint16_t key) const {
    const auto found = reader_.moduleDetailsMap.find(key);
    if (found != reader_.moduleDetailsMap.end()) {
        return found->second.subsystemName + ":" + found->second.moduleName;
    }
    char hex[16];
    snprintf(hex, sizeof hex, "0x%04x", static_cast<unsigned>(key));
    return hex;
}

std::size_t Summary::rowFor(std::uint32_t key, std::string_view subsystem,
                            std::string_view module) {
    if (const std::size_t* cached = rowCache_.find(key)) {
        return *cached;
    }
    const auto found = rowIndex_.find(key);
    if (found != rowIndex_.end()) {
        rowCache_.put(key, &found->second);
        return found->second;
    }
    ModuleRow row;
    if (key == kSyslogRow) {
        row.name = "(syslog)";
    } else if (key == kCaptureRow) {
        row.name = "(capture)";
    } else if (!module.empty()) {
        row.name = std::string(subsystem) + ":" + std::string(module);
    } else {
        row.name = moduleName(static_cast<std::uint16_t>(key));
    }
    rows_.push_back(row);
    rowBuckets_.emplace_back(kBuckets, 0);
    rowIndex_[key] = rows_.size() - 1;
    return rows_.size() - 1;
}

std::size_t Summary::moduleRow(std::uint16_t key) {
    return rowFor(key, {}, {});
}

void Summary::startCapture(std::string_view name) {
    if (hasCapture_ && captures_[current_].name == name) {
        return;
    }
    // The sequence space cached is that of another capture's statistics.
    forgetSequences();
    const auto found = captureIndex_.find(name);
    if (found != captureIndex_.end()) {
        current_ = found->second;
    } else {
        CaptureRow row;
        row.name = std::string(name);
        captures_.push_back(row);
        captureNames_.push_back(row.name);
        current_ = captures_.size() - 1;
        captureIndex_.emplace(row.name, current_);
    }
    hasCapture_ = true;
}

Summary::Statistics& Summary::statistics() {
    const std::size_t index = separate_ ? current_ : 0;
    if (statistics_.size() <= index) {
        statistics_.resize(index + 1);
    }
    Statistics& stats = statistics_[index];
    if (stats.rowMissing.size() < rows_.size()) {
        stats.rowMissing.resize(rows_.size(), 0);
    }
    return stats;
}

void Summary::record(const Tav::Record& record) {
    startCapture(record.capture);
    recordOfCapture(record);
}

Summary::LogEntry& Summary::newLog(std::uint32_t id) {
    const auto [entry, added] = logs_.try_emplace(id);
    LogEntry& log = entry->second;
    if (added) {
        // The names the record showed: those of the dictionary's log.
        const std::uint16_t key = static_cast<std::uint16_t>(id >> 16);
        log.row = moduleRow(key);
        const auto module = reader_.logDetailsMap.find(key);
        if (module != reader_.logDetailsMap.end()) {
            const auto found = module->second.find(static_cast<std::uint16_t>(id & 0xFFFFu));
            if (found != module->second.end()) {
                log.name = found->second.logName;
            }
        }
    }
    logCache_.put(id, &log);
    return log;
}

void Summary::record(const RecordFacts& facts, std::string_view tag) {
    // Most records are of a dictionary log seen before, whose sequence
    // space is known, with no gap or reorder waiting: their log and its
    // module's last sequence number come from one look-up.
    LogEntry* log = nullptr;
    if (facts.kind != Tav::RecordKind::Syslog && facts.kind != Tav::RecordKind::Capture &&
        pending_.empty() && untimed_.empty()) {
        log = logCache_.find(facts.logId);
    }
    if (log == nullptr || log->sequence.generation != seqGeneration_ ||
        log->sequence.last == nullptr) {
        recordAny(facts, tag);
        return;
    }
    ++log->count;
    checkSequence(*log->sequence.last, facts.seqNo, log->row);
    tally(log->row, facts, tag);
}

void Summary::nameLevel(const RecordFacts& facts) {
    if (levelNames_.count(facts.level) == 0) {
        // The name the record showed: the dictionary's (a level it lacks
        // shows an empty one).
        std::string_view name;
        const auto found = reader_.logLevelNames.find(facts.level);
        if (found != reader_.logLevelNames.end()) {
            name = found->second;
        }
        while (!name.empty() && name.front() == ' ') {
            name.remove_prefix(1);
        }
        levelNames_[facts.level] = std::string(name);
    }
}

void Summary::recordAny(const RecordFacts& facts, std::string_view tag) {
    std::size_t row = 0;
    LogEntry* log = nullptr;
    switch (facts.kind) {
        case Tav::RecordKind::Syslog:
            row = rowFor(kSyslogRow, {}, {});
            break;
        case Tav::RecordKind::Capture:
            row = rowFor(kCaptureRow, {}, {});
            break;
        default: {
            // One look-up finds the log's count, its module's row and the
            // last sequence number of its module.
            log = logCache_.find(facts.logId);
            if (log == nullptr) {
                log = &newLog(facts.logId);
            }
            ++log->count;
            row = log->row;
            break;
        }
    }
    const ShownTime time{facts.seconds, facts.microseconds};
    resolvePending(facts.number, row, &time);
    // Gaps and reorders revealed by a record that was not shown: at the
    // time of the next record shown.
    for (const std::size_t i : untimed_) {
        marks_[i].time = time;
        marks_[i].timed = true;
    }
    untimed_.clear();
    if (log != nullptr && log->sequence.generation == seqGeneration_ &&
        log->sequence.last != nullptr) {
        checkSequence(*log->sequence.last, facts.seqNo, row);
    } else if (log != nullptr) {
        log->sequence.last = countSequence(facts.packetType, facts.logId, facts.seqNo, row);
        log->sequence.generation = seqGeneration_;
    } else {
        countSequence(facts.packetType, facts.logId, facts.seqNo, row);
    }
    tally(row, facts, tag);
}

void Summary::tally(std::size_t row, const RecordFacts& facts, std::string_view tag) {
    ModuleRow& module = rows_[row];
    CaptureRow& file = capture();
    ++module.counts.records;
    ++file.counts.records;
    const ShownTime time{facts.seconds, facts.microseconds};
    const std::int64_t at = time.micros();
    module.span.add(time, at);
    file.span.add(time, at);
    if (facts.kind != Tav::RecordKind::Capture) {
        bool first = false;
        if (facts.level < module.lowLevels.size()) {
            first = module.lowLevels[facts.level]++ == 0;
        } else {
            first = module.highLevels[facts.level]++ == 0;
        }
        if (first) {
            nameLevel(facts);
        }
        if (facts.kind == Tav::RecordKind::Syslog) {
            const auto found = tags_.find(tag);
            if (found != tags_.end()) {
                ++found->second;
            } else if (tags_.size() < kMaxLogs) {
                tags_.emplace(std::string(tag), 1);
            }
        }
    }
    addToBuckets(row, at, facts.kind == Tav::RecordKind::Capture ? 0 : facts.level);
}

std::uint32_t* Summary::countSequence(std::uint32_t packetType, std::uint32_t logId,
                                      std::uint32_t seqNo, std::size_t row) {
    // The statistics' rule: plain capture records and modules 0x8000 and
    // above are not checked; syslog numbers are a space of their own.
    const std::uint32_t module = logId >> 16;
    if (packetType == 3 || (module & 0x8000) != 0) {
        return nullptr;
    }
    const std::uint32_t key = module | (packetType == 2 ? 0x10000u : 0u);
    std::uint32_t* last = seqCache_.find(key);
    if (last == nullptr) {
        std::map<std::uint32_t, std::uint32_t>& lastSeq = statistics().lastSeq;
        const auto found = lastSeq.find(key);
        if (found == lastSeq.end()) {
            last = &lastSeq.emplace(key, seqNo).first->second;
            seqCache_.put(key, last);
            return last;
        }
        last = &found->second;
        seqCache_.put(key, last);
    }
    checkSequence(*last, seqNo, row);
    return last;
}

void Summary::forgetSequences() {
    seqCache_.clear();
    ++seqGeneration_;
}

void Summary::resolvePendingNow(std::uint64_t number, std::size_t row, const ShownTime* time) {
    std::vector<Pending> pending;
    pending.swap(pending_);
    for (const Pending& one : pending) {
        const bool here = time != nullptr && one.record == number;
        const std::size_t target = here ? row : moduleRow(one.module);
        ModuleRow& module = rows_[target];
        CaptureRow& file = capture();
        if (one.gap) {
            ++module.counts.gaps;
            ++file.counts.gaps;
            const std::uint64_t missing = static_cast<std::uint32_t>(one.missing);
            module.counts.missing += missing;
            file.counts.missing += missing;
            Statistics& stats = statistics();
            stats.rowMissing[target] += missing;
            stats.missing += missing;
        } else {
            ++module.counts.reorders;
            ++file.counts.reorders;
            // The statistics take a late record off the missing count (the
            // record was one of those counted missing): here off its own
            // module's, or, when that has none, off the module with the
            // most missing records of the same count.
            Statistics& stats = statistics();
            if (stats.missing > 0) {
                --stats.missing;
                std::vector<std::uint64_t>& rowMissing = stats.rowMissing;
                std::size_t from = target;
                if (rowMissing[from] == 0) {
                    from = static_cast<std::size_t>(
                        std::max_element(rowMissing.begin(), rowMissing.end()) -
                        rowMissing.begin());
                }
                --rowMissing[from];
                --rows_[from].counts.missing;
                if (file.counts.missing > 0) {
                    --file.counts.missing;
                }
            }
        }
        Mark mark;
        mark.gap = one.gap;
        mark.row = target;
        mark.lastSeqNo = one.lastSeqNo;
        mark.seqNo = one.seqNo;
        mark.missing = one.missing;
        if (here) {
            mark.time = *time;
            mark.timed = true;
        }
        addMark(mark);
    }
}

void Summary::addMark(const Mark& mark) {
    if (marksSeen_++ % marksStride_ != 0) {
        return;
    }
    if (marks_.size() == kMaxMarks) {
        // Every second one goes, and from now on every second one is kept.
        std::size_t kept = 0;
        for (std::size_t i = 0; i < marks_.size(); i += 2) {
            marks_[kept++] = marks_[i];
        }
        marks_.resize(kept);
        marksStride_ *= 2;
        untimed_.clear();
        for (std::size_t i = 0; i < marks_.size(); ++i) {
            if (!marks_[i].timed) {
                untimed_.push_back(i);
            }
        }
        if ((marksSeen_ - 1) % marksStride_ != 0) {
            return;
        }
    }
    marks_.push_back(mark);
    if (!mark.timed) {
        untimed_.push_back(marks_.size() - 1);
    }
}

void Summary::damaged(const char* what) {
    CaptureRow& file = capture();
    if (file.damage.find(what) != std::string::npos) {
        return;
    }
    if (!file.damage.empty()) {
        file.damage += ", ";
    }
    file.damage += what;
}

void Summary::captureFailed(std::string_view name, const char* why) {
    startCapture(name);
    damaged(why);
}

void Summary::event(const Tav::Event& event) {
    startCapture(event.capture);
    if (event.kind == Tav::EventKind::Gap || event.kind == Tav::EventKind::Reorder) {
        Pending one;
        one.gap = event.kind == Tav::EventKind::Gap;
        one.module = static_cast<std::uint16_t>(event.module);
        one.lastSeqNo = event.lastSeqNo;
        one.seqNo = event.seqNo;
        one.missing = event.missing;
        one.record = event.record;
        pending_.push_back(one);
        return;
    }
    const std::uint16_t key = static_cast<std::uint16_t>(event.binLogHeader.logId >> 16);
    // The records reported instead of printed carry their headers: a gap
    // they revealed is their module's, at their time.
    if (event.kind == Tav::EventKind::UnknownLogId ||
        event.kind == Tav::EventKind::VersionMismatch ||
        event.kind == Tav::EventKind::LevelOutOfRange ||
        event.kind == Tav::EventKind::InvalidPacketType) {
        const ShownTime time{event.pcapHeader.tsSec + 60u * static_cast<std::uint32_t>(utcOffset_),
                             event.pcapHeader.tsUsec};
        resolvePending(event.record, moduleRow(key), &time);
    } else {
        resolvePending(0, 0, nullptr);
    }
    switch (event.kind) {
        case Tav::EventKind::UnknownLogId: {
            const std::size_t row = moduleRow(key);
            ++rows_[row].counts.unknownIds;
            ++capture().counts.unknownIds;
            countSequence(event.binLogHeader.packetType, event.binLogHeader.logId,
                          event.binLogHeader.seqNo, row);
            auto found = unknownIds_.find(event.logId);
            if (found != unknownIds_.end()) {
                ++found->second.count;
            } else if (unknownIds_.size() < kMaxUnknownIds) {
                UnknownId id;
                id.count = 1;
                id.capture = std::string(event.capture);
                id.record = event.record;
                unknownIds_.emplace(event.logId, id);
            } else {
                ++unknownIdsDropped_;
            }
            break;
        }
        case Tav::EventKind::VersionMismatch: {
            const std::size_t row = moduleRow(key);
            ++rows_[row].counts.versionMismatches;
            ++capture().counts.versionMismatches;
            countSequence(event.binLogHeader.packetType, event.binLogHeader.logId,
                          event.binLogHeader.seqNo, row);
            break;
        }
        case Tav::EventKind::LevelOutOfRange: {
            const std::size_t row = moduleRow(key);
            ++rows_[row].counts.levelErrors;
            ++capture().counts.levelErrors;
            countSequence(event.binLogHeader.packetType, event.binLogHeader.logId,
                          event.binLogHeader.seqNo, row);
            break;
        }
        case Tav::EventKind::InvalidPacketType: {
            const std::size_t row = moduleRow(key);
            ++rows_[row].counts.malformed;
            ++capture().counts.malformed;
            countSequence(event.binLogHeader.packetType, event.binLogHeader.logId,
                          event.binLogHeader.seqNo, row);
            break;
        }
        case Tav::EventKind::SyslogTooShort: {
            ++rows_[rowFor(kSyslogRow, {}, {})].counts.malformed;
            ++capture().counts.malformed;
            break;
        }
        case Tav::EventKind::Summary:
            // The statistics start afresh after a capture's normal end.
            statistics() = Statistics();
            forgetSequences();
            break;
        case Tav::EventKind::Oversized:
            damaged("oversized record");
            break;
        case Tav::EventKind::Truncated:
            damaged("truncated");
            break;
        case Tav::EventKind::DataError:
            damaged("damaged compressed data");
            break;
        case Tav::EventKind::ReadError:
            damaged("read error");
            break;
        case Tav::EventKind::Resync:
            damaged("bytes skipped");
            break;
        case Tav::EventKind::OpenFailed:
        case Tav::EventKind::NoGlobalHeader:
        case Tav::EventKind::BadLinkType:
        case Tav::EventKind::NotACapture:
            damaged("not opened");
            break;
        default:
            break;
    }
}

void Summary::rescale(std::int64_t time) {
    const std::int64_t low = std::min(lowest_, time);
    const std::int64_t high = std::max(highest_, time);
    std::int64_t width = width_;
    while (high / width - low / width >= static_cast<std::int64_t>(kBuckets)) {
        width = nextWidth(width);
    }
    const std::int64_t origin = floorTo(low, width);
    if (width == width_ && origin == origin_) {
        return;
    }
    auto remap = [&](std::vector<std::uint64_t>& buckets) {
        std::vector<std::uint64_t> moved(kBuckets, 0);
        for (std::size_t i = 0; i < kBuckets; ++i) {
            if (buckets[i] != 0) {
                const std::int64_t start = origin_ + static_cast<std::int64_t>(i) * width_;
                moved[static_cast<std::size_t>((start - origin) / width)] += buckets[i];
            }
        }
        buckets.swap(moved);
    };
    for (auto& buckets : rowBuckets_) {
        remap(buckets);
    }
    remap(criticalBuckets_);
    remap(errorBuckets_);
    width_ = width;
    origin_ = origin;
}

void Summary::findBucket(std::int64_t at) {
    if (!bucketsStarted_) {
        bucketsStarted_ = true;
        lowest_ = highest_ = at;
        origin_ = floorTo(at, width_);
    }
    if (at < origin_ || at >= origin_ + static_cast<std::int64_t>(kBuckets) * width_) {
        rescale(at);
    }
    lowest_ = std::min(lowest_, at);
    highest_ = std::max(highest_, at);
    bucket_ = static_cast<std::size_t>((at - origin_) / width_);
    bucketStart_ = origin_ + static_cast<std::int64_t>(bucket_) * width_;
    bucketEnd_ = bucketStart_ + width_;
}

void Summary::appendTag(const Tav::Record& record, std::string& out) {
    // Tags are far shorter; a longer one is cut.
    const std::uint16_t size = static_cast<std::uint16_t>(
        std::min<std::size_t>(record.syslogTag.size(), std::numeric_limits<std::uint16_t>::max()));
    out.append(record.syslogTag.data(), size);
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
}

std::string_view Summary::takeTag(std::string_view rendered, std::string_view& tag) {
    std::uint16_t size = 0;
    if (rendered.size() < sizeof size) {
        tag = std::string_view();
        return rendered;
    }
    std::size_t end = rendered.size() - sizeof size;
    std::memcpy(&size, rendered.data() + end, sizeof size);
    const std::size_t length = std::min<std::size_t>(size, end);
    end -= length;
    tag = rendered.substr(end, length);
    return rendered.substr(0, end);
}

std::map<std::pair<std::size_t, std::string>, std::uint64_t> Summary::logs() const {
    std::map<std::pair<std::size_t, std::string>, std::uint64_t> logs;
    for (const auto& [id, log] : logs_) {
        logs[std::make_pair(log.row, log.name)] += log.count;
    }
    const auto syslog = rowIndex_.find(kSyslogRow);
    if (syslog != rowIndex_.end()) {
        for (const auto& [tag, count] : tags_) {
            logs[std::make_pair(syslog->second, tag)] += count;
        }
    }
    return logs;
}

Counts Summary::totals() const {
    Counts total;
    for (const ModuleRow& row : rows_) {
        total.add(row.counts);
    }
    return total;
}

TimeSpan Summary::span() const {
    TimeSpan span;
    for (const ModuleRow& row : rows_) {
        span.add(row.span);
    }
    return span;
}

std::vector<const ModuleRow*> Summary::sortedRows() const {
    std::vector<const ModuleRow*> sorted;
    for (const ModuleRow& row : rows_) {
        sorted.push_back(&row);
    }
    std::sort(sorted.begin(), sorted.end(),
              [](const ModuleRow* a, const ModuleRow* b) { return a->name < b->name; });
    return sorted;
}

std::string Summary::formatTime(ShownTime time) const {
    Tav::Record record;
    record.seconds = time.seconds;
    record.microseconds = time.microseconds;
    record.utcOffsetMinutes = static_cast<std::int32_t>(utcOffset_);
    std::string text;
    Tav::appendIsoTime(text, record);
    return text;
}

std::string Summary::table(Format format) const {
    struct Line {
        std::string name;
        const Counts* counts;
        const TimeSpan* span;
    };
    const Counts total = totals();
    const TimeSpan whole = span();
    std::vector<Line> lines;
    for (const ModuleRow* row : sortedRows()) {
        lines.push_back({row->name, &row->counts, &row->span});
    }
    lines.push_back({"(total)", &total, &whole});
    auto numbers = [](const Counts& c) {
        return std::vector<std::uint64_t>{c.records,           c.gaps,        c.missing,
                                          c.reorders,          c.duplicates,  c.unknownIds,
                                          c.versionMismatches, c.levelErrors, c.malformed};
    };
    static const char* const kNames[] = {"records",
                                         "gaps",
                                         "missing",
                                         "reorders",
                                         "duplicates",
                                         "unknown_ids",
                                         "version_mismatches",
                                         "level_errors",
                                         "malformed"};
    std::string out;
    switch (format) {
        case Format::Text: {
            // Columns: the module left-aligned, the times, then the counts
            // right-aligned under their names.
            std::vector<std::vector<std::string>> cells;
            cells.push_back({"module", "first", "last"});
            for (const char* name : kNames) {
                cells.back().push_back(name);
            }
            for (const Line& line : lines) {
                std::vector<std::string> row = {line.name,
                                                line.span->any ? formatTime(line.span->first) : "-",
                                                line.span->any ? formatTime(line.span->last) : "-"};
                for (const std::uint64_t n : numbers(*line.counts)) {
                    row.push_back(std::to_string(n));
                }
                cells.push_back(row);
            }
            std::vector<std::size_t> widths(cells[0].size(), 0);
            for (const auto& row : cells) {
                for (std::size_t i = 0; i < row.size(); ++i) {
                    widths[i] = std::max(widths[i], row[i].size());
                }
            }
            for (const auto& row : cells) {
                std::string text;
                for (std::size_t i = 0; i < row.size(); ++i) {
                    if (i != 0) {
                        text += "  ";
                    }
                    const std::string pad(widths[i] - row[i].size(), ' ');
                    text += i < 3 ? row[i] + pad : pad + row[i];
                }
                while (!text.empty() && text.back() == ' ') {
                    text.pop_back();
                }
                out += text + "\n";
            }
            break;
        }
        case Format::Json:
            for (const Line& line : lines) {
                const bool isTotal = line.counts == &total;
                out += isTotal ? "{\"summary\":\"total\"" : "{\"summary\":\"module\",\"module\":";
                if (!isTotal) {
                    Tav::appendJsonString(out, line.name);
                }
                out += ",\"first\":";
                out += line.span->any ? "\"" + formatTime(line.span->first) + "\"" : "null";
                out += ",\"last\":";
                out += line.span->any ? "\"" + formatTime(line.span->last) + "\"" : "null";
                const std::vector<std::uint64_t> values = numbers(*line.counts);
                for (std::size_t i = 0; i < values.size(); ++i) {
                    out += ",\"";
                    out += kNames[i];
                    out += "\":" + std::to_string(values[i]);
                }
                out += "}\n";
            }
            break;
        case Format::Csv:
            out += "module,first,last";
            for (const char* name : kNames) {
                out += ',';
                out += name;
            }
            out += "\r\n";
            for (const Line& line : lines) {
                appendCsvField(out, line.name);
                out += ',';
                out += line.span->any ? formatTime(line.span->first) : "";
                out += ',';
                out += line.span->any ? formatTime(line.span->last) : "";
                for (const std::uint64_t n : numbers(*line.counts)) {
                    out += ',' + std::to_string(n);
                }
                out += "\r\n";
            }
            break;
    }
    return out;
}

}  // namespace wexbl_decode
