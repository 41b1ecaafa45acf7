// Per-file record statistics: record and byte totals, time span and rates,
// and per-module sequence checking that reports gaps and reordering.
#include "BinaryLogStatsCollector.h"

#include <charconv>
#include <cstdio>
#include <string>

#include "stats/StatsCore.h"

namespace Tav {
namespace detail {

namespace {
/// Record times before 2000-01-01T05:00:00Z make the rates meaningless.
constexpr std::uint32_t kFirstUsableTime = 946702800u;

/// `value` with `decimals` digits after the point, as printf's "%.*f" and
/// "%.*Lf" print it in the "C" locale: the decimal point stays a point
/// whatever locale the calling program has set.
template <typename Float>
std::string fixedText(Float value, int decimals) {
    // Wide enough for any finite double with its decimals.
    char text[400];
    const auto result =
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals);
    return result.ec == std::errc() ? std::string(text, result.ptr) : std::string("nan");
}

std::string decimalText(long long value) {
    char text[24];
    return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

std::string hexText(unsigned long long value) {
    char text[24];
    return std::string(text, std::to_chars(text, text + sizeof text, value, 16).ptr);
}

}  // namespace

void countRecord(BinaryLogStatsCollector& stats, const PcapRecHeader& pcapHeader, int module,
                 unsigned int packetType, int seqNo, unsigned int length, SequenceReport& report,
                 SequenceSlots* slots) {
    // While the stored first time has no microsecond part, each record takes
    // its place.
    if (stats.firstTsUsec == 0) {
        stats.firstTsSec = pcapHeader.tsSec;
        stats.firstTsUsec = pcapHeader.tsUsec;
    }
    if (pcapHeader.tsSec < kFirstUsableTime) {
        stats.timestampsUnusable = true;
    }
    stats.lastTsSec = pcapHeader.tsSec;
    stats.lastTsUsec = pcapHeader.tsUsec;
    ++stats.totalRecords;
    stats.totalRecordBytes += length;

    // Plain captures and the modules from 0x8000 up carry no sequence numbers.
    if (packetType == PcapCapture || (module & 0x8000) != 0) {
        return;
    }
    const std::uint32_t key = static_cast<std::uint32_t>(module);
    const std::uint32_t current = static_cast<std::uint32_t>(seqNo);
    const std::uint32_t slotKey = key | (packetType == Syslog ? 0x10000u : 0u);
    std::uint32_t* lastSeqNo = slots != nullptr ? slots->find(slotKey) : nullptr;
    if (lastSeqNo == nullptr) {
        auto& lastByModule =
            packetType == Syslog ? stats.lastSyslogSeqNoByModule : stats.lastSeqNoByModule;
        const auto [found, added] = lastByModule.try_emplace(key, current);
        if (slots != nullptr) {
            slots->put(slotKey, &found->second);
        }
        if (added) {
            return;  // the module's first record
        }
        lastSeqNo = &found->second;
    }
    const std::uint32_t last = *lastSeqNo;
    const std::int32_t diff = static_cast<std::int32_t>(current - last);
    if (diff == INT32_MIN) {
        // Half the number range away: neither ahead nor behind.
        return;
    }
    if (diff < 0) {
        report.reorder(key, static_cast<std::int32_t>(last), seqNo);
        // The late record was one of those counted as missing.
        if (stats.missingRecords > 0) {
            --stats.missingRecords;
        }
        ++stats.outOfOrderRecords;
    } else if (diff == 1) {
        *lastSeqNo = current;
    } else if (diff >= 2) {
        report.gap(key, static_cast<std::int32_t>(last), seqNo, diff - 1,
                   static_cast<std::int32_t>(stats.missingRecords));
        stats.missingRecords += static_cast<std::uint32_t>(diff - 1);
        *lastSeqNo = current;
    }
}

std::string gapText(std::uint32_t module, std::int32_t last, std::int32_t current,
                    std::int32_t missing, std::int32_t missingBefore) {
    return ">>possibly missing packets: module=0x" + hexText(module) +
           ",lastSeqNo=" + decimalText(last) + ",curSeqNo=" + decimalText(current) +
           ": diff=" + decimalText(missing) + ",missingRecords_=" + decimalText(missingBefore) +
           "\n";
}

std::string reorderText(std::uint32_t module, std::int32_t last, std::int32_t current) {
    return ">>out of order packets: module=0x" + hexText(module) +
           ", lastSeqNo=" + decimalText(last) + ",curSeqNo=" + decimalText(current) + "\n";
}

std::string summaryText(const BinaryLogStatsCollector& stats, StatsSummary& summary) {
    summary = StatsSummary();
    summary.totalRecords = stats.totalRecords;
    summary.missingRecords = stats.missingRecords;
    summary.outOfOrderRecords = stats.outOfOrderRecords;
    summary.totalRecordBytes = stats.totalRecordBytes;
    std::string text =
        ">>totalRecords =  " + decimalText(static_cast<int>(stats.totalRecords)) + "\n";
    if (stats.totalRecords == 0) {
        return text;
    }
    const std::uint32_t generatedRecords = stats.missingRecords + stats.totalRecords;
    const double percent =
        static_cast<double>(stats.missingRecords) * 100.0 / static_cast<double>(generatedRecords);
    text += ">>missingRecords =  " + decimalText(static_cast<int>(stats.missingRecords)) + " (" +
            fixedText(percent, 6) + "%)\n";
    text +=
        ">>outOfOrderRecords =  " + decimalText(static_cast<int>(stats.outOfOrderRecords)) + "\n";
    if (stats.timestampsUnusable) {
        text += ">>per second record stats not provided for this file\n";
    } else {
        const std::uint64_t spanUs = (static_cast<std::uint64_t>(stats.lastTsSec) * 1000000u -
                                      stats.firstTsUsec + stats.lastTsUsec) -
                                     static_cast<std::uint64_t>(stats.firstTsSec) * 1000000u;
        const double spanMs = static_cast<double>(spanUs) / 1000.0;
        double received = stats.totalRecords;
        double generated = generatedRecords;
        if (spanMs > 0) {
            received = stats.totalRecords / spanMs;
            generated = generatedRecords / spanMs;
        }
        summary.ratesShown = true;
        summary.receivedPerMs = received;
        summary.generatedPerMs = generated;
        text +=
            ">>records received/msec = " + fixedText(static_cast<long double>(received), 2) + "\n";
        text += ">>records generated at source/msec = " +
                fixedText(static_cast<long double>(generated), 2) + "\n";
        text += ">>records received/sec = " +
                fixedText(static_cast<long double>(received * 1000.0), 2) + "\n";
        text += ">>records generated at source/sec = " +
                fixedText(static_cast<long double>(generated * 1000.0), 2) + "\n";
    }
    text += ">>total log record size = " +
            std::to_string(static_cast<unsigned long long>(stats.totalRecordBytes)) + "\n";
    text += ">>average log record size = " +
            std::to_string(
                static_cast<unsigned long long>(stats.totalRecordBytes / stats.totalRecords)) +
            "\n";
    return text;
}

}  // namespace detail

namespace {

/// Prints the findings on a stream.
class PrintedReport : public detail::SequenceReport {
  public:
    explicit PrintedReport(FILE* out) : out_(out) {}
    void gap(std::uint32_t module, std::int32_t last, std::int32_t current, std::int32_t missing,
             std::int32_t missingBefore) override {
        fputs(detail::gapText(module, last, current, missing, missingBefore).c_str(), out_);
    }
    void reorder(std::uint32_t module, std::int32_t last, std::int32_t current) override {
        fputs(detail::reorderText(module, last, current).c_str(), out_);
    }

  private:
    FILE* out_;
};

}  // namespace

void BinaryLogStatsCollector::processStats(FILE* out, const PcapRecHeader& pcapHeader, int module,
                                           unsigned int packetType, int seqNo,
                                           unsigned int length) {
    PrintedReport report(out);
    detail::countRecord(*this, pcapHeader, module, packetType, seqNo, length, report);
}

void BinaryLogStatsCollector::printStats(FILE* out) {
    StatsSummary summary;
    fputs(detail::summaryText(*this, summary).c_str(), out);
    clearStats();
}

void BinaryLogStatsCollector::clearStats() {
    missingRecords = 0;
    totalRecords = 0;
    outOfOrderRecords = 0;
    firstTsSec = 0;
    firstTsUsec = 0;
    lastTsSec = 0;
    lastTsUsec = 0;
    totalRecordBytes = 0;
    lastSeqNoByModule.clear();
    lastSyslogSeqNoByModule.clear();
}

}  // namespace Tav
