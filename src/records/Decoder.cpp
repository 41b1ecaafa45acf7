// The dispatcher: statistics first, then routing by packet type, the
// dictionary look-up and the version and level checks.
#include "records/Decoder.h"

#include <cstdio>

#include "format/Json.h"

namespace Tav {
namespace detail {

const LevelTable::Level& LevelTable::fill(std::uint16_t level) {
    if (cache_.size() <= level) {
        cache_.resize(static_cast<std::size_t>(level) + 1);
    }
    Level& entry = cache_[level];
    // An unknown level gets an empty name, and the table keeps it.
    entry.name = &(*names_)[level];
    entry.padded.clear();
    appendPadded(entry.padded, printed(*entry.name), 8);
    entry.json.clear();
    appendJsonString(entry.json, *entry.name);
    entry.json += ",\"level_no\":";
    entry.json += std::to_string(level);
    return entry;
}

View<ParamField> RecordDecoder::headerFields() const {
    const_cast<RecordDecoder*>(this)->fillValues();
    return headerView_;
}

View<ParamField> RecordDecoder::paramFields() const {
    const_cast<RecordDecoder*>(this)->fillValues();
    return paramsView_;
}

void RecordDecoder::emit(Event& event, std::string_view text) {
    if (silent_) {
        return;  // decoding again what was reported already
    }
    event.capture = origin_.capture;
    event.record = origin_.number;
    event.offset = origin_.offset;
    event.text = text;
    if (event.kind == EventKind::UnknownLogId || event.kind == EventKind::VersionMismatch ||
        event.kind == EventKind::LevelOutOfRange || event.kind == EventKind::InvalidPacketType) {
        event.pcapHeader = record_.pcapHeader;
        event.binLogHeader = record_.binLogHeader;
        event.payload = std::string_view(
            payload_.size() != 0 ? reinterpret_cast<const char*>(payload_.data()) : "",
            payload_.size());
    }
    sink_->emit(event);
}

void RecordDecoder::gap(std::uint32_t module, std::int32_t last, std::int32_t current,
                        std::int32_t missing, std::int32_t missingBefore) {
    Event event;
    event.kind = EventKind::Gap;
    event.stream = EventStream::Output;
    event.module = module;
    event.lastSeqNo = last;
    event.seqNo = current;
    event.missing = missing;
    event.missingBefore = missingBefore;
    eventText_ = gapText(module, last, current, missing, missingBefore);
    emit(event, eventText_);
}

void RecordDecoder::reorder(std::uint32_t module, std::int32_t last, std::int32_t current) {
    Event event;
    event.kind = EventKind::Reorder;
    event.stream = EventStream::Output;
    event.module = module;
    event.lastSeqNo = last;
    event.seqNo = current;
    eventText_ = reorderText(module, last, current);
    emit(event, eventText_);
}

bool RecordDecoder::headerPasses(Filter::Verdict& verdict) {
    verdict = settings_.filter != nullptr ? settings_.filter->checkHeader(record_)
                                          : Filter::Verdict::Accept;
    return verdict != Filter::Verdict::Reject;
}

bool RecordDecoder::filterKeeps() {
    Filter::Verdict verdict;
    if (!headerPasses(verdict)) {
        return false;
    }
    return verdict != Filter::Verdict::Values || settings_.filter->matches(record_);
}

void RecordDecoder::startLine(const PcapRecHeader& pcap) {
    // A conversion failure is reported before any of the line is written;
    // the line then has no time text.
    const bool timeShown = prepareTimeText(time_, record_.seconds);
    if (!timeShown) {
        Event event;
        event.kind = EventKind::TimestampFailed;
        emit(event, "timestamp decoding failed\n");
    }
    if (line_ == &ownLine_) {
        ownLine_.clear();
    }
    lineStart_ = line_->size();
    line_->push_back('[');
    if (timeShown) {
        appendPreparedTimeText(*line_, time_, static_cast<std::int32_t>(pcap.tsUsec));
    }
}

int RecordDecoder::decode(const PlanSet& plans, const DecodeSettings& settings,
                          const PcapRecHeader& pcap, const BinLogHeader& header,
                          const ByteReader& payload, std::uint32_t statsLength,
                          const RecordOrigin& origin, const LogPlan* checked) {
    // Without statistics, a header-only decoding needs the prologue below
    // only for a record that has something to report.
    if (settings.headerOnly && !settings.stats && passesQuietly(plans, settings, header)) {
        return 0;
    }
    settings_ = settings;
    origin_ = origin;
    record_.pcapHeader = pcap;
    record_.binLogHeader = header;
    produced_ = false;

    // Every record is counted first, also those rejected below.
    if (settings.stats) {
        countRecord(*stats_, pcap, static_cast<int>(header.logId >> 16), header.packetType,
                    static_cast<int>(header.seqNo), statsLength, *this,
                    cacheSequences_ ? &sequenceSlots_ : nullptr);
    }
    if (settings.headerOnly) {
        return decodeHeaderOnly(plans, settings, pcap, header, payload);
    }

    // Every field a record kind does not set is reset here.
    record_.kind = RecordKind::Capture;
    record_.subsystem = std::string_view();
    record_.module = std::string_view();
    record_.log = std::string_view();
    record_.levelName = std::string_view();
    record_.category = std::string_view();
    record_.source = this;
    valuesPlan_ = nullptr;
    decoded_ = false;
    valuesFilled_ = false;
    headerView_ = View<ParamField>();
    paramsView_ = View<ParamField>();
    record_.frameTiming = 0;
    record_.syslogTag = std::string_view();
    record_.syslogMessage = std::string_view();
    record_.text = std::string_view();
    record_.message = std::string_view();
    record_.utcOffsetMinutes = settings.utcOffsetMinutes;
    payload_ = payload;
    record_.capture = origin.capture;
    record_.number = origin.number;
    record_.offset = origin.offset;
    record_.moduleKey = static_cast<std::uint16_t>(header.logId >> 16);
    record_.logIndex = static_cast<std::uint16_t>(header.logId & 0xFFFFu);
    record_.level = header.logLevel;
    record_.seqNo = header.seqNo;
    // The shown time: the record time plus the offset, in 32-bit wrap-around.
    record_.seconds = shownSeconds(pcap, settings.utcOffsetMinutes);
    record_.microseconds = pcap.tsUsec;

    if (header.packetType == Syslog) {
        return decodeSyslog(payload);
    }
    if (header.packetType == PcapCapture) {
        decodeCapture();
        return 0;
    }
    const LogPlan* plan = checked;
    if (plan == nullptr) {
        const int result = checkLog(plans, settings, header, plan);
        if (result != 1) {
            return result;
        }
    }
    if (header.packetType == Legacy) {
        decodeLegacy(*plan, payload);
        return 0;
    }
    if (header.packetType == BinLog) {
        decodeBinLog(*plan, payload);
        return 0;
    }
    return invalidPacketType(header);
}

int RecordDecoder::decodeHeaderOnly(const PlanSet& plans, const DecodeSettings& settings,
                                    const PcapRecHeader& pcap, const BinLogHeader& header,
                                    const ByteReader& payload) {
    // The record itself is not filled: its second decoding does that. What
    // the events below carry is set: the origin, the headers and the payload.
    payload_ = payload;
    checkedPlan_ = nullptr;
    if (header.packetType == Syslog || header.packetType == PcapCapture) {
        // A syslog record long enough for its tag shows its level: the
        // table grows as when it is decoded.
        if (header.packetType == Syslog && pcap.storageLength >= kSyslogHeaderBytes) {
            levels_->get(header.logLevel);
        }
        produced_ = true;
        return 0;
    }
    const LogPlan* plan = nullptr;
    const int checked = checkLog(plans, settings, header, plan);
    if (checked != 1) {
        return checked;
    }
    if (header.packetType == Legacy || header.packetType == BinLog) {
        levels_->get(header.logLevel);
        checkedPlan_ = plan;
        produced_ = true;
        return 0;
    }
    return invalidPacketType(header);
}

bool RecordDecoder::passesQuietly(const PlanSet& plans, const DecodeSettings& settings,
                                  const BinLogHeader& header) {
    if (header.packetType != BinLog && header.packetType != Legacy) {
        return false;
    }
    // checkLog()'s checks, in its order, without its reports.
    const LogPlan* plan = plans.find(header.logId);
    if (plan == nullptr || header.logVersion != plan->binlogVersion ||
        (!settings.levelChecked && header.logLevel > levels_->size())) {
        return false;
    }
    levels_->get(header.logLevel);
    checkedPlan_ = plan;
    produced_ = true;
    return true;
}

int RecordDecoder::checkLog(const PlanSet& plans, const DecodeSettings& settings,
                            const BinLogHeader& header, const LogPlan*& plan) {
    plan = plans.find(header.logId);
    if (plan == nullptr) {
        Event event;
        event.kind = EventKind::UnknownLogId;
        event.logId = header.logId;
        event.packetType = header.packetType;
        char text[48];
        const int length = snprintf(text, sizeof text, "Log id :%x not valid\n", header.logId);
        emit(event, std::string_view(text, static_cast<std::size_t>(length)));
        return -1;
    }
    const std::uint16_t expected = plan->binlogVersion;
    if (header.logVersion != expected) {
        Event event;
        event.kind = EventKind::VersionMismatch;
        event.stream = EventStream::Output;
        event.logId = header.logId;
        event.version = header.logVersion;
        event.expectedVersion = expected;
        event.name = plan->name;
        eventText_ = "Mismatch in version for log [";
        eventText_.append(plan->name.data(), plan->name.size());
        eventText_ += "] logVersion [" + std::to_string(header.logVersion) + "] xmlVersion [" +
                      std::to_string(expected) + "] \n";
        emit(event, eventText_);
        return 0;
    }
    // The bound is the level table's current entry count, not its largest key.
    if (!settings.levelChecked && header.logLevel > levels_->size()) {
        Event event;
        event.kind = EventKind::LevelOutOfRange;
        event.stream = EventStream::Output;
        event.logId = header.logId;
        event.level = header.logLevel;
        event.name = plan->name;
        eventText_ = "Invalig log level [" + std::to_string(header.logLevel) + "] for log [";
        eventText_.append(plan->name.data(), plan->name.size());
        eventText_ += "] \n";
        emit(event, eventText_);
        return 0;
    }
    return 1;
}

int RecordDecoder::invalidPacketType(const BinLogHeader& header) {
    Event event;
    event.kind = EventKind::InvalidPacketType;
    event.logId = header.logId;
    event.packetType = header.packetType;
    eventText_ =
        "Invalid packetType passed :" + std::to_string(static_cast<int>(header.packetType));
    emit(event, eventText_);
    return -1;
}

}  // namespace detail

View<ParamField> Record::header() const {
    return source != nullptr ? source->headerFields() : View<ParamField>();
}

View<ParamField> Record::params() const {
    return source != nullptr ? source->paramFields() : View<ParamField>();
}

}  // namespace Tav
