// Per-file record statistics: record and byte totals, time span and rates,
// and per-module sequence checking that reports gaps and reordering.
#include "BinaryLogStatsCollector.h"

#include <charconv>
#include <string>

namespace Tav {

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

}  // namespace

void BinaryLogStatsCollector::processStats(FILE* out, const PcapRecHeader& pcapHeader, int module,
                                           unsigned int packetType, int seqNo,
                                           unsigned int length) {
    // While the stored first time has no microsecond part, each record takes
    // its place.
    if (firstTsUsec == 0) {
        firstTsSec = pcapHeader.tsSec;
        firstTsUsec = pcapHeader.tsUsec;
    }
    if (pcapHeader.tsSec < kFirstUsableTime) {
        timestampsUnusable = true;
    }
    lastTsSec = pcapHeader.tsSec;
    lastTsUsec = pcapHeader.tsUsec;
    ++totalRecords;
    totalRecordBytes += length;

    // Plain captures and the modules from 0x8000 up carry no sequence numbers.
    if (packetType == PcapCapture || (module & 0x8000) != 0) {
        return;
    }
    auto& lastByModule = packetType == Syslog ? lastSyslogSeqNoByModule : lastSeqNoByModule;
    const std::uint32_t key = static_cast<std::uint32_t>(module);
    const std::uint32_t current = static_cast<std::uint32_t>(seqNo);
    const auto found = lastByModule.find(key);
    if (found == lastByModule.end()) {
        lastByModule.emplace(key, current);
        return;
    }
    const std::uint32_t last = found->second;
    const std::int32_t diff = static_cast<std::int32_t>(current - last);
    if (diff == INT32_MIN) {
        // Half the number range away: neither ahead nor behind.
        return;
    }
    if (diff < 0) {
        fprintf(out, ">>out of order packets: module=0x%x, lastSeqNo=%d,curSeqNo=%d\n",
                static_cast<unsigned int>(module), static_cast<int>(last), seqNo);
        // The late record was one of those counted as missing.
        if (missingRecords > 0) {
            --missingRecords;
        }
        ++outOfOrderRecords;
    } else if (diff == 1) {
        found->second = current;
    } else if (diff >= 2) {
        fprintf(out,
                ">>possibly missing packets: module=0x%x,lastSeqNo=%d,curSeqNo=%d: "
                "diff=%d,missingRecords_=%d\n",
                static_cast<unsigned int>(module), static_cast<int>(last), seqNo, diff - 1,
                static_cast<int>(missingRecords));
        missingRecords += static_cast<std::uint32_t>(diff - 1);
        found->second = current;
    }
}

void BinaryLogStatsCollector::printStats(FILE* out) {
    fprintf(out, ">>totalRecords =  %d\n", static_cast<int>(totalRecords));
    if (totalRecords != 0) {
        const std::uint32_t generatedRecords = missingRecords + totalRecords;
        const double percent =
            static_cast<double>(missingRecords) * 100.0 / static_cast<double>(generatedRecords);
        fprintf(out, ">>missingRecords =  %d (%s%%)\n", static_cast<int>(missingRecords),
                fixedText(percent, 6).c_str());
        fprintf(out, ">>outOfOrderRecords =  %d\n", static_cast<int>(outOfOrderRecords));
        if (timestampsUnusable) {
            fprintf(out, ">>per second record stats not provided for this file\n");
        } else {
            const std::uint64_t spanUs =
                (static_cast<std::uint64_t>(lastTsSec) * 1000000u - firstTsUsec + lastTsUsec) -
                static_cast<std::uint64_t>(firstTsSec) * 1000000u;
            const double spanMs = static_cast<double>(spanUs) / 1000.0;
            double received = totalRecords;
            double generated = generatedRecords;
            if (spanMs > 0) {
                received = totalRecords / spanMs;
                generated = generatedRecords / spanMs;
            }
            const std::string rates[4] = {
                fixedText(static_cast<long double>(received), 2),
                fixedText(static_cast<long double>(generated), 2),
                fixedText(static_cast<long double>(received * 1000.0), 2),
                fixedText(static_cast<long double>(generated * 1000.0), 2)};
            fprintf(out, ">>records received/msec = %s\n", rates[0].c_str());
            fprintf(out, ">>records generated at source/msec = %s\n", rates[1].c_str());
            fprintf(out, ">>records received/sec = %s\n", rates[2].c_str());
            fprintf(out, ">>records generated at source/sec = %s\n", rates[3].c_str());
        }
        fprintf(out, ">>total log record size = %llu\n",
                static_cast<unsigned long long>(totalRecordBytes));
        fprintf(out, ">>average log record size = %llu\n",
                static_cast<unsigned long long>(totalRecordBytes / totalRecords));
    }
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
