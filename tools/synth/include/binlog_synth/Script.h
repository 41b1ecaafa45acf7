// Scripted captures: a small line-oriented text that lists records by
// module, log name and parameter values (the format is described in
// tools/synth/README.md).
#ifndef BINLOG_SYNTH_SCRIPT_H
#define BINLOG_SYNTH_SCRIPT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Prng.h"
#include "binlog_synth/Text.h"

namespace binlog_synth {

/// The settings that concern the whole file. They must come before the first
/// record of a script.
struct ScriptSettings {
    bool gzipSet = false;
    bool gzip = false;
    bool framingSet = false;
    Framing framing;
    GlobalHeaderSettings header;
    GzipDamage gzipDamage;
};

/// One line that acts when the script runs (a record, "start", "step",
/// "seed", "rawfile").
struct ScriptLine {
    int number = 0;
    std::vector<Token> tokens;
};

struct Script {
    std::string name;
    ScriptSettings settings;
    std::vector<ScriptLine> lines;
};

/// Reads the script text: the file settings are checked and taken into
/// `script.settings`, the other lines are tokenized and kept in order. On
/// failure `error` is "NAME:LINE: message".
bool parseScript(const std::string& text, const std::string& name, Script& script,
                 std::string& error);

/// The first time stamp of a capture unless "start" or --start says
/// otherwise: 2024-05-01T12:00:00Z.
constexpr std::uint32_t kDefaultStartSec = 1714564800U;

/// Runs the lines of a script against a dictionary (may be null when the
/// script names no module) and writes the records.
class ScriptRunner {
  public:
    explicit ScriptRunner(const Dictionary* dictionary) : dictionary_(dictionary) {}

    /// The clock's start when the script has no "start" line.
    void setStart(std::uint32_t sec, std::uint32_t usec);

    /// False with "NAME:LINE: message" in `error` at the first bad line or
    /// write failure (records before it are already written).
    bool run(const Script& script, CaptureWriter& writer, std::string& error);

  private:
    bool runLine(const ScriptLine& line, CaptureWriter& writer, std::string& error);
    bool runRecord(const std::string& kind, const std::vector<Token>& tokens, std::size_t first,
                   bool firstRepeat, CaptureWriter& writer, std::string& error);

    const Dictionary* dictionary_;
    std::uint64_t clockNs_ = static_cast<std::uint64_t>(kDefaultStartSec) * 1000000000ULL;
    std::uint64_t stepNs_ = 1000000ULL;  // 1 ms
    SplitMix64 rng_{1};
    std::map<std::uint64_t, std::uint32_t> nextSeq_;
};

}  // namespace binlog_synth

#endif
