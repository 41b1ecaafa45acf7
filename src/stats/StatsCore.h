// The statistics algorithm, shared by BinaryLogStatsCollector's own members
// (which print) and the capture streams (which report events).
#ifndef WEXBL_SRC_STATS_STATS_CORE_H
#define WEXBL_SRC_STATS_STATS_CORE_H

#include <cstdint>
#include <string>

#include "BinaryLogStatsCollector.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace Tav {
namespace detail {

/// Receives the gap and reorder findings of countRecord.
class SequenceReport {
  public:
    virtual ~SequenceReport() = default;
    /// `missingBefore` is the count of missing records before this gap.
    virtual void gap(std::uint32_t module, std::int32_t last, std::int32_t current,
                     std::int32_t missing, std::int32_t missingBefore) = 0;
    virtual void reorder(std::uint32_t module, std::int32_t last, std::int32_t current) = 0;
};

/// Counts one record and checks its sequence number against its module's.
void countRecord(BinaryLogStatsCollector& stats, const PcapRecHeader& pcapHeader, int module,
                 unsigned int packetType, int seqNo, unsigned int length, SequenceReport& report);

/// The texts of the two findings.
std::string gapText(std::uint32_t module, std::int32_t last, std::int32_t current,
                    std::int32_t missing, std::int32_t missingBefore);
std::string reorderText(std::uint32_t module, std::int32_t last, std::int32_t current);

/// The end-of-file summary lines and figures of `stats` (not cleared).
std::string summaryText(const BinaryLogStatsCollector& stats, StatsSummary& summary);

}  // namespace detail
}  // namespace Tav

#endif
