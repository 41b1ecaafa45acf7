// The random capture mode.
#include "binlog_synth/RandomMix.h"

#include <cstdio>
#include <vector>

#include "binlog_synth/Text.h"

namespace binlog_synth {

namespace {

/// Level numbers with their weights: mostly INFO and DEBUG.
const std::uint16_t kLevels[] = {1, 2, 3, 4, 5, 6, 7, 8};
const std::uint32_t kLevelWeights[] = {1, 3, 6, 10, 50, 25, 4, 1};  // sums to 100

std::uint16_t randomLevel(SplitMix64& rng) {
    std::uint32_t pick = rng.below(100);
    for (std::size_t i = 0; i < sizeof kLevels / sizeof kLevels[0]; ++i) {
        if (pick < kLevelWeights[i]) {
            return kLevels[i];
        }
        pick -= kLevelWeights[i];
    }
    return 5;
}

const char* const kSyslogTags[] = {"kernel", "oamd", "sshd", "watchdog", "ntpd", "dhcpc"};
const char* const kLegacyWords[] = {"attach", "detach", "handover", "paging",
                                    "rach",   "rlf",    "reconfig", "release"};

std::string syslogMessage(SplitMix64& rng) {
    char buf[128];
    const std::uint32_t a = rng.below(8);
    const std::uint32_t b = rng.below(100000);
    switch (rng.below(6)) {
        case 0:
            snprintf(buf, sizeof buf, "interface eth%u link up", a);
            break;
        case 1:
            snprintf(buf, sizeof buf, "temperature sensor %u reads %u C", a, 30 + b % 60);
            break;
        case 2:
            snprintf(buf, sizeof buf, "process oamd restarted (pid %u)", 100 + b);
            break;
        case 3:
            snprintf(buf, sizeof buf, "clock offset %u us", b % 5000);
            break;
        case 4:
            snprintf(buf, sizeof buf, "heartbeat %u missed\nrecovery started", b % 100);
            break;
        default:
            snprintf(buf, sizeof buf, "login from 192.0.2.%u accepted", 1 + b % 254);
            break;
    }
    return buf;
}

/// The largest var binary string a random record of `field` may carry.
std::uint64_t varBound(const Field& field, const RandomValueOptions& options) {
    std::uint64_t most =
        field.length < options.maxVarBinaryBytes ? field.length : options.maxVarBinaryBytes;
    return most > 0xFFFF ? 0xFFFF : most;
}

/// Keeps a clock that advances by exactly 1/rate seconds per record, in
/// integer nanoseconds with the remainder carried (no drift, no floating
/// point).
class RecordClock {
  public:
    RecordClock(std::uint32_t sec, std::uint32_t usec, std::uint64_t num, std::uint64_t den)
        : ns_(static_cast<std::uint64_t>(sec) * 1000000000ULL +
              static_cast<std::uint64_t>(usec) * 1000ULL),
          num_(num),
          stepNs_(1000000000ULL * den / num),
          stepRem_(1000000000ULL * den % num) {}

    void stamp(RecordOptions& options) const {
        options.tsSec = static_cast<std::uint32_t>(ns_ / 1000000000ULL);
        options.tsUsec = static_cast<std::uint32_t>(ns_ % 1000000000ULL / 1000ULL);
    }
    void advance() {
        ns_ += stepNs_;
        rem_ += stepRem_;
        if (rem_ >= num_) {
            rem_ -= num_;
            ++ns_;
        }
    }

  private:
    std::uint64_t ns_;
    std::uint64_t num_;
    std::uint64_t stepNs_;
    std::uint64_t stepRem_;
    std::uint64_t rem_ = 0;
};

}  // namespace

bool writeRandomCapture(const Dictionary& dictionary, const RandomOptions& options,
                        CaptureWriter& writer, std::string& error, RandomSummary* summary) {
    RandomSummary counts;
    const RandomValueOptions& valueOptions = options.values;
    if (options.rateNum == 0 || options.rateDen == 0) {
        error = "the rate must be above 0";
        return false;
    }

    // Logs whose largest random record still fits the decoder's record limit.
    const std::uint64_t overhead = 16 + (writer.framing().kind == LinkKind::Raw150
                                             ? 0
                                             : udpPayloadOffsetOf(writer.framing().kind) + 16);
    std::vector<const LogLayout*> binLogs;
    std::vector<const LogLayout*> legacyLogs;
    for (const LogLayout& layout : dictionary.layouts()) {
        std::uint64_t worst = overhead + layout.fixedSize;
        for (const Field& f : layout.fields) {
            if (f.kind == FieldKind::VarBinaryString) {
                worst += varBound(f, valueOptions);
            }
        }
        if (worst <= kMaxRecordLength) {
            binLogs.push_back(&layout);
        }
        const std::string name = lower(layout.logName + " " + layout.category);
        if (name.find("legacy") != std::string::npos) {
            legacyLogs.push_back(&layout);
        }
    }
    if (legacyLogs.empty()) {
        for (const LogLayout& layout : dictionary.layouts()) {
            legacyLogs.push_back(&layout);
        }
    }
    const std::uint32_t wBin = binLogs.empty() ? 0 : options.weightBinLog;
    const std::uint32_t wLegacy = legacyLogs.empty() ? 0 : options.weightLegacy;
    const std::uint64_t totalWeight =
        static_cast<std::uint64_t>(wBin) + wLegacy + options.weightSyslog + options.weightCapture;
    if (options.records > 0 && options.weightBinLog > 0 && binLogs.empty()) {
        error = dictionary.layouts().empty()
                    ? "the dictionary declares no logs"
                    : "no log of the dictionary fits in a record of at most 25000 bytes";
        return false;
    }
    if (options.records > 0 && (totalWeight == 0 || totalWeight > 0xFFFFFFFFULL)) {
        error = "the record mix has no weight";
        return false;
    }

    SplitMix64 rng(options.seed);
    RecordClock clock(options.startSec, options.startUsec, options.rateNum, options.rateDen);
    // Next sequence number per module key: binary log and legacy records share
    // one numbering, syslog records have their own, capture records one more.
    std::vector<std::uint32_t> nextSeq(65536, 1);
    std::vector<std::uint32_t> nextSyslogSeq(65536, 1);
    std::uint32_t nextCaptureSeq = 1;

    ByteBuffer record;
    ByteBuffer held;  // the first record of a reordered pair
    RecordOptions recordOptions;

    auto buildBinLog = [&](const LogLayout& layout, std::uint32_t seq, std::uint16_t level,
                           ByteBuffer& out) {
        out.clear();
        LogHeader h;
        h.packetType = kPacketBinLog;
        h.logId = layout.logId;
        h.logLevel = level;
        h.logVersion = layout.version;
        h.seqNo = seq;
        appendBinLogHeader(out, h);
        for (const Field& f : layout.fields) {
            appendRandomField(f, rng, valueOptions, out);
        }
    };

    auto emit = [&](const ByteBuffer& out) -> bool {
        clock.stamp(recordOptions);
        clock.advance();
        if (!writer.writeLogRecord(recordOptions, out.str())) {
            error = "write failed";
            return false;
        }
        return true;
    };

    for (std::uint64_t i = 0; i < options.records; ++i) {
        const std::uint64_t ordinal = i + 1;
        std::uint32_t pick = rng.below(static_cast<std::uint32_t>(totalWeight));
        LogHeader h;
        if (pick < wBin) {
            const LogLayout& layout =
                *binLogs[rng.below(static_cast<std::uint32_t>(binLogs.size()))];
            std::uint32_t& next = nextSeq[layout.moduleKey];
            const std::uint16_t level = randomLevel(rng);
            if (options.reorderEvery != 0 && ordinal % options.reorderEvery == 0 &&
                i + 1 < options.records) {
                // Two records of one log, the higher number sent first.
                buildBinLog(layout, next, level, held);
                buildBinLog(layout, next + 1, level, record);
                next += 2;
                if (!emit(record) || !emit(held)) {
                    return false;
                }
                counts.binLog += 2;
                ++counts.reordered;
                ++i;
                continue;
            }
            std::uint32_t seq = next;
            if (options.gapEvery != 0 && ordinal % options.gapEvery == 0) {
                const std::uint32_t skip = 1 + rng.below(3);
                seq += skip;
                counts.missing += skip;
                ++counts.gaps;
                next = seq + 1;
            } else if (options.repeatEvery != 0 && ordinal % options.repeatEvery == 0 && next > 1) {
                seq = next - 1;
                ++counts.repeated;
            } else {
                ++next;
            }
            buildBinLog(layout, seq, level, record);
            ++counts.binLog;
        } else if ((pick -= wBin) < wLegacy) {
            const LogLayout& layout =
                *legacyLogs[rng.below(static_cast<std::uint32_t>(legacyLogs.size()))];
            h.packetType = kPacketLegacy;
            h.logId = layout.logId;
            h.logLevel = randomLevel(rng);
            h.logVersion = layout.version;
            h.seqNo = nextSeq[layout.moduleKey]++;
            LegacyValues v;
            v.frameTiming = rng.below(1024) * 10 + rng.below(10);
            for (auto& x : v.u32) {
                x = rng.below(100000);
            }
            for (auto& x : v.u8) {
                x = static_cast<std::uint8_t>(rng.below(16));
            }
            for (auto& x : v.text) {
                x = kLegacyWords[rng.below(sizeof kLegacyWords / sizeof kLegacyWords[0])];
            }
            record.clear();
            appendBinLogHeader(record, h);
            appendLegacyPayload(record, v);
            ++counts.legacy;
        } else if ((pick -= wLegacy) < options.weightSyslog) {
            h.packetType = kPacketSyslog;
            h.logId = 0;
            h.logLevel = static_cast<std::uint16_t>(rng.between(3, 6));
            h.logVersion = 0;
            h.seqNo = nextSyslogSeq[0]++;
            record.clear();
            appendBinLogHeader(record, h);
            appendSyslogPayload(record,
                                kSyslogTags[rng.below(sizeof kSyslogTags / sizeof kSyslogTags[0])],
                                syslogMessage(rng));
            ++counts.syslog;
        } else {
            h.packetType = kPacketCapture;
            h.logId = 0;
            h.seqNo = nextCaptureSeq++;
            record.clear();
            appendBinLogHeader(record, h);
            const std::uint32_t n = rng.between(20, 120);
            for (std::uint32_t k = 0; k < n; ++k) {
                record.u8(static_cast<std::uint8_t>(rng.below(256)));
            }
            ++counts.capture;
        }
        if (!emit(record)) {
            return false;
        }
    }
    if (summary != nullptr) {
        *summary = counts;
    }
    return true;
}

}  // namespace binlog_synth
