// Per-file record statistics: totals, sequence gaps and reordering per module.
#ifndef WEX_OAM_BINLOG_STATS_COLLECTOR_H
#define WEX_OAM_BINLOG_STATS_COLLECTOR_H

#include <cstdint>
#include <cstdio>
#include <map>

#include "BinLogRecordHeaders.h"
#include "WexOamBinLogXmlReaderExport.h"

namespace Tav {

class WEXBL_API BinaryLogStatsCollector {
  public:
    std::map<std::uint32_t, std::uint32_t> lastSeqNoByModule;
    std::map<std::uint32_t, std::uint32_t> lastSyslogSeqNoByModule;
    std::uint32_t missingRecords = 0;
    std::uint32_t totalRecords = 0;
    std::uint32_t outOfOrderRecords = 0;
    std::uint32_t firstTsSec = 0;
    std::uint32_t firstTsUsec = 0;
    std::uint32_t lastTsSec = 0;
    std::uint32_t lastTsUsec = 0;
    std::uint64_t totalRecordBytes = 0;
    /// Set once a record time before 2000-01-01T05:00:00Z was seen; survives
    /// clearStats.
    bool timestampsUnusable = false;

    BinaryLogStatsCollector() = default;

    /// Counts one record and checks its sequence number; reports gaps and
    /// reordering on `out`.
    void processStats(FILE* out, const PcapRecHeader& pcapHeader, int module,
                      unsigned int packetType, int seqNo, unsigned int length);
    /// Prints the end-of-file summary on `out`, then clears the statistics.
    void printStats(FILE* out);
    /// Resets counters, time stamps and sequence maps (not timestampsUnusable).
    void clearStats();
};

}  // namespace Tav

#endif
