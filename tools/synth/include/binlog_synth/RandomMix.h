// Random captures: a realistic, reproducible mix of records for demos and
// benchmarks, streamed to the writer with constant memory.
#ifndef BINLOG_SYNTH_RANDOM_MIX_H
#define BINLOG_SYNTH_RANDOM_MIX_H

#include <cstdint>
#include <string>

#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Encoder.h"
#include "binlog_synth/Script.h"

namespace binlog_synth {

struct RandomOptions {
    std::uint64_t records = 1000;
    std::uint64_t seed = 1;
    std::uint32_t startSec = kDefaultStartSec;
    std::uint32_t startUsec = 0;
    /// Records per second, as the fraction rateNum / rateDen.
    std::uint64_t rateNum = 1000;
    std::uint64_t rateDen = 1;
    /// Every K-th record (0: never) skips 1 to 3 sequence numbers of its
    /// module, is sent before the record that precedes it in its module's
    /// numbering, or repeats its module's previous number.
    std::uint64_t gapEvery = 0;
    std::uint64_t reorderEvery = 0;
    std::uint64_t repeatEvery = 0;
    /// Relative weights of the record kinds.
    std::uint32_t weightBinLog = 960;
    std::uint32_t weightSyslog = 20;
    std::uint32_t weightLegacy = 10;
    std::uint32_t weightCapture = 10;
    RandomValueOptions values;
};

/// What a random run wrote.
struct RandomSummary {
    std::uint64_t binLog = 0;
    std::uint64_t legacy = 0;
    std::uint64_t syslog = 0;
    std::uint64_t capture = 0;
    std::uint64_t gaps = 0;       // records written after a skip
    std::uint64_t missing = 0;    // sequence numbers skipped in all
    std::uint64_t reordered = 0;  // records sent after a higher number
    std::uint64_t repeated = 0;   // records that repeat a number
};

/// Writes `options.records` records. Binary log records are spread evenly
/// over every log of the dictionary whose largest record fits the decoder's
/// limit; legacy records use the logs whose name or category says "legacy"
/// (any log when none does). False with `error` when the dictionary has no
/// usable log or a write fails.
bool writeRandomCapture(const Dictionary& dictionary, const RandomOptions& options,
                        CaptureWriter& writer, std::string& error,
                        RandomSummary* summary = nullptr);

}  // namespace binlog_synth

#endif
