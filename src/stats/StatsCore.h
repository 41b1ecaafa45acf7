// The statistics algorithm, shared by BinaryLogStatsCollector's own members
// (which print) and the capture streams (which report events).
#ifndef WEXBL_SRC_STATS_STATS_CORE_H
#define WEXBL_SRC_STATS_STATS_CORE_H

#include <cstddef>
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

/// Where the last sequence numbers of a few recent modules lie in a
/// collector's maps, so that a record finds its module's without a walk down
/// the tree (records come from a handful of modules at a time). The entries
/// of a std::map never move; their addresses stay good for as long as the
/// maps keep them: only a collector that nothing but countRecord() changes
/// between two forget() calls may be counted with slots.
class SequenceSlots {
  public:
    SequenceSlots() { forget(); }
    /// The last number of `key` (a module, 0x10000 added for syslog), or null.
    std::uint32_t* find(std::uint32_t key) const {
        const std::size_t slot = slotOf(key);
        return keys_[slot] == key ? last_[slot] : nullptr;
    }
    void put(std::uint32_t key, std::uint32_t* last) {
        const std::size_t slot = slotOf(key);
        keys_[slot] = key;
        last_[slot] = last;
    }
    /// To be called whenever the collector's maps may have lost entries.
    void forget() {
        for (std::size_t i = 0; i < kSlots; ++i) {
            keys_[i] = kNone;
            last_[i] = nullptr;
        }
    }

  private:
    static constexpr std::size_t kSlots = 64;
    /// No key: keys are below 0x20000.
    static constexpr std::uint32_t kNone = 0xFFFFFFFFu;
    static std::size_t slotOf(std::uint32_t key) { return (key * 0x9E3779B1u) >> 26; }
    std::uint32_t keys_[kSlots];
    std::uint32_t* last_[kSlots];
};

/// Counts one record and checks its sequence number against its module's;
/// `slots`, when given, remember where the modules' numbers lie.
void countRecord(BinaryLogStatsCollector& stats, const PcapRecHeader& pcapHeader, int module,
                 unsigned int packetType, int seqNo, unsigned int length, SequenceReport& report,
                 SequenceSlots* slots = nullptr);

/// The texts of the two findings.
std::string gapText(std::uint32_t module, std::int32_t last, std::int32_t current,
                    std::int32_t missing, std::int32_t missingBefore);
std::string reorderText(std::uint32_t module, std::int32_t last, std::int32_t current);

/// The end-of-file summary lines and figures of `stats` (not cleared).
std::string summaryText(const BinaryLogStatsCollector& stats, StatsSummary& summary);

}  // namespace detail
}  // namespace Tav

#endif
