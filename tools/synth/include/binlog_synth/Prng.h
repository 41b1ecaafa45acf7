// A small deterministic random number generator.
//
// The random capture mode must produce the same bytes for the same seed on
// every platform and standard library, so it uses its own generator and its
// own range reduction instead of the standard distributions.
#ifndef BINLOG_SYNTH_PRNG_H
#define BINLOG_SYNTH_PRNG_H

#include <cstdint>

namespace binlog_synth {

/// SplitMix64: 64-bit state, full period, good enough statistical quality for
/// test data, and trivially reproducible.
class SplitMix64 {
  public:
    explicit SplitMix64(std::uint64_t seed = 0) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }

    /// A value in [0, n) (0 when n is 0), by multiply-and-shift of the high
    /// 32 bits: no division, no platform-dependent behaviour.
    std::uint32_t below(std::uint32_t n) {
        return static_cast<std::uint32_t>(((next() >> 32) * static_cast<std::uint64_t>(n)) >> 32);
    }

    /// A value in [low, high] (inclusive); low <= high.
    std::uint32_t between(std::uint32_t low, std::uint32_t high) {
        const std::uint64_t span = static_cast<std::uint64_t>(high) - low + 1;
        if (span > 0xFFFFFFFFULL) {
            return static_cast<std::uint32_t>(next());
        }
        return low + below(static_cast<std::uint32_t>(span));
    }

    /// True with probability num / den.
    bool chance(std::uint32_t num, std::uint32_t den) { return below(den) < num; }

    std::uint64_t state() const { return state_; }

  private:
    std::uint64_t state_;
};

}  // namespace binlog_synth

#endif
