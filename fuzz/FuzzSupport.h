// Shared pieces of the fuzz targets: the example reader, in-memory output
// streams, and the two routes every binary log record is held to:
//
//   - the step-by-step route: copies of the dictionary records decoded with
//     decodeModuleHeaderFromPayLoad / decodeBinLogPayLoad and printed with
//     displayBinLog; the dispatcher must print the same line;
//   - an independent rendering of the line from those copies' decodedValues,
//     with the placeholder rule written out here literally (positions as
//     32-bit unsigned numbers, a fresh search from position 0 after every
//     substitution), so that the library's own substitution loop is checked
//     against the rule rather than against itself.
#ifndef WEXBL_FUZZ_SUPPORT_H
#define WEXBL_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BinaryLogXmlReader.h"

namespace wexbl_fuzz {

/// The example dictionary the capture and record targets decode against.
inline const std::string& dictionaryDir() {
    static const std::string dir = WEXBL_FUZZ_DICTIONARY_DIR "/";
    return dir;
}

/// A reader on the example dictionary, built once per process.
inline Tav::BinaryLogXmlReader& exampleReader(bool stats) {
    static Tav::BinaryLogXmlReader withStats(dictionaryDir(), true, 5000, 64);
    static Tav::BinaryLogXmlReader withoutStats(dictionaryDir(), false, 5000, 64);
    return stats ? withStats : withoutStats;
}

/// Where decoded lines go: nowhere.
inline FILE* sink() {
    static FILE* devNull = fopen("/dev/null", "w");
    return devNull;
}

/// The level table a reader starts with; rendering unknown levels grows it,
/// so harnesses cut it back after every input to keep runs independent.
inline void trimLevels(Tav::BinaryLogXmlReader& reader) {
    while (reader.logLevelNames.size() > 9) {
        reader.logLevelNames.erase(std::prev(reader.logLevelNames.end()));
    }
}

/// A FILE* into memory.
class MemoryFile {
  public:
    MemoryFile() : file_(open_memstream(&data_, &size_)) {
        if (file_ == nullptr) {
            fprintf(stderr, "fuzz: open_memstream failed\n");
            abort();
        }
    }
    ~MemoryFile() {
        fclose(file_);
        free(data_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    FILE* file() const { return file_; }
    std::string text() {
        fflush(file_);
        return std::string(data_, size_);
    }

  private:
    char* data_ = nullptr;
    size_t size_ = 0;
    FILE* file_;
};

/// Sends what the library writes to the C stream stderr into memory while it
/// exists. Only the stdio stream is swapped, not descriptor 2: sanitizer and
/// libFuzzer reports, which write to the descriptor (or to their own copy of
/// it), still reach the terminal if the library crashes meanwhile.
class StderrToMemory {
  public:
    StderrToMemory() : saved_(stderr) { stderr = memory_.file(); }
    ~StderrToMemory() { stop(); }
    StderrToMemory(const StderrToMemory&) = delete;
    StderrToMemory& operator=(const StderrToMemory&) = delete;

    /// Restores stderr (once) and returns what was written meanwhile.
    std::string stop() {
        if (!stopped_) {
            stopped_ = true;
            stderr = saved_;
            text_ = memory_.text();
        }
        return text_;
    }

  private:
    MemoryFile memory_;
    FILE* saved_;
    bool stopped_ = false;
    std::string text_;
};

/// Reports two texts that should have been equal and stops the run.
[[noreturn]] inline void mismatch(const char* what, const std::string& expected,
                                  const std::string& actual) {
    fprintf(stderr, "%s differ\n--- expected (%zu bytes)\n%s\n--- actual (%zu bytes)\n%s\n", what,
            expected.size(), expected.c_str(), actual.size(), actual.c_str());
    abort();
}

inline bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// ---- The step-by-step route ------------------------------------------------------------------

/// The copies a record was decoded into the step-by-step way, and the line
/// displayBinLog printed from them.
struct StepByStep {
    Tav::ModuleDetails module;
    Tav::LogDetails log;
    std::string line;
};

/// Decodes and prints the record the step-by-step way, when the dispatcher
/// would print it as a binary log record (a known log of its module's
/// version, at a level the table allows); false otherwise.
inline bool decodeStepByStep(Tav::BinaryLogXmlReader& reader, const Tav::PcapRecHeader& pcapHeader,
                             const Tav::BinLogHeader& header, const Tav::ByteReader& payload,
                             int utcOffsetMinutes, StepByStep& result) {
    if (header.packetType != Tav::BinLog) {
        return false;
    }
    const std::uint16_t key = static_cast<std::uint16_t>(header.logId >> 16);
    const auto module = reader.moduleDetailsMap.find(key);
    const auto logs = reader.logDetailsMap.find(key);
    if (module == reader.moduleDetailsMap.end() || logs == reader.logDetailsMap.end()) {
        return false;
    }
    const auto log = logs->second.find(static_cast<std::uint16_t>(header.logId & 0xFFFF));
    if (log == logs->second.end() || header.logVersion != module->second.binlogVersion ||
        header.logLevel > reader.logLevelNames.size()) {
        return false;
    }
    result.log = log->second;
    result.module = module->second;
    unsigned int payloadOffset = 0;
    if (result.module.hasModuleHeader) {
        reader.decodeModuleHeaderFromPayLoad(result.module, header, payload, payloadOffset);
    }
    reader.decodeBinLogPayLoad(header, payload, result.log, payloadOffset);
    MemoryFile out;
    reader.displayBinLog(pcapHeader, header, out.file(), utcOffsetMinutes, result.module,
                         result.log);
    result.line = out.text();
    return true;
}

// ---- The line rebuilt from the rule -----------------------------------------------------------

/// The most characters a rebuilt message may reach, and the most characters
/// its substitutions may copy in all; beyond them the record is not rebuilt
/// (restarting from position 0 copies the whole text for every substitution,
/// so a message that keeps growing costs quadratic time).
constexpr std::size_t kMaxRebuiltMessage = 1 << 20;
constexpr std::size_t kMaxRebuildWork = 32 << 20;

/// The message of a log string: each placeholder replaced by the rule, or,
/// when the string has no "{" or no "}", the string, a blank and every named
/// value. False when the text outgrew kMaxRebuiltMessage or kMaxRebuildWork.
inline bool ruleMessage(const std::string& logString,
                        const std::map<std::string, std::string>& values,
                        const std::vector<std::string>& paramOrder, std::string& message) {
    constexpr std::size_t npos = std::string::npos;
    if (logString.find('{') == npos || logString.find('}') == npos) {
        message = logString + " ";
        for (const std::string& name : paramOrder) {
            const auto found = values.find(name);
            if (found != values.end()) {
                message += name + "=" + found->second + " ";
            }
        }
        return true;
    }
    message = logString;
    std::size_t work = 0;
    for (int substitutions = 0; substitutions < 1000; ++substitutions) {
        const std::size_t openAt = message.find('{');
        const std::size_t closeAt = message.find('}');
        if (openAt == npos || closeAt == npos) {
            break;
        }
        const std::uint32_t open = static_cast<std::uint32_t>(openAt);
        const std::uint32_t close = static_cast<std::uint32_t>(closeAt);
        const std::uint32_t keyLength = close - open - 1u;
        const std::string key = message.substr(open + 1u, keyLength);
        const auto found = values.find(key);
        if (found == values.end()) {
            break;
        }
        // std::string::replace clips the count to the end of the text.
        const std::uint32_t replaced = close - open + 1u;
        message.replace(open, replaced, key + "=" + found->second);
        work += message.size();
        if (message.size() > kMaxRebuiltMessage || work > kMaxRebuildWork) {
            return false;
        }
    }
    return true;
}

/// `text` as "%s" prints it: up to its first NUL.
inline std::string cString(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

/// `text` as "%*s" prints it with `width`.
inline std::string padded(const std::string& text, std::size_t width) {
    const std::string shown = cString(text);
    return std::string(shown.size() < width ? width - shown.size() : 0, ' ') + shown;
}

/// The whole line of a decoded record, rebuilt from the step-by-step copies:
/// the time field is taken from `printed` (the line it is compared with), the
/// rest from the copies, the level table and the header. False when the
/// message could not be rebuilt within its bound.
inline bool ruleLine(const Tav::BinaryLogXmlReader& reader, const Tav::BinLogHeader& header,
                     const StepByStep& decoded, const std::string& printed, std::string& line) {
    if (printed.empty() || printed[0] != '[' || printed.find(']') == std::string::npos) {
        line = "(a line starting with a time field)";
        return true;
    }
    const std::string time = printed.substr(1, printed.find(']') - 1);
    std::string message;
    if (!ruleMessage(decoded.log.logString, decoded.log.decodedValues, decoded.log.paramOrder,
                     message)) {
        return false;
    }
    std::string moduleHeader;
    if (decoded.module.hasModuleHeader) {
        for (const std::string& name : decoded.module.paramOrder) {
            const auto found = decoded.module.decodedValues.find(name);
            if (found != decoded.module.decodedValues.end()) {
                moduleHeader += name + "=" + found->second + " ";
            }
        }
    }
    const auto level = reader.logLevelNames.find(header.logLevel);
    line = "[" + time + "] [" +
           padded(decoded.module.subsystemName + ":" + decoded.module.moduleName, 10) + "] [" +
           padded(decoded.log.logName, 25) + "] [" +
           padded(level != reader.logLevelNames.end() ? level->second : std::string(), 8) + "] [" +
           padded(decoded.log.category, 10) + "] [" + std::to_string(header.seqNo) + "] [";
    if (!moduleHeader.empty()) {
        line += cString(moduleHeader) + "] [";
    }
    line += cString(message) + "] \n";
    return true;
}

/// Holds the dispatcher's output for one record to the step-by-step line and
/// to the rebuilt line; aborts on a difference. With statistics on, gap
/// reports precede the line, so the line is compared with the output's end.
inline void checkRecordLine(const Tav::BinaryLogXmlReader& reader, const Tav::BinLogHeader& header,
                            const StepByStep& decoded, const std::string& dispatched) {
    if (!endsWith(dispatched, decoded.line)) {
        mismatch("dispatcher and step-by-step lines", decoded.line, dispatched);
    }
    std::string rebuilt;
    if (ruleLine(reader, header, decoded, decoded.line, rebuilt) &&
        !endsWith(dispatched, rebuilt)) {
        mismatch("line rebuilt by the placeholder rule and dispatcher line", rebuilt, dispatched);
    }
}

}  // namespace wexbl_fuzz

#endif
