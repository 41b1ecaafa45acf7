// Checks a dictionary directory for the mistakes that the library's loader
// accepts without a word (or that make it fail), the way a compiler reports:
// each finding names a file, the line of the XML element concerned, a
// severity, a check name and a message.
//
//   std::vector<wexbl_lint::Finding> findings = wexbl_lint::lintDictionary("dict/");
//   for (const auto& f : findings) puts(wexbl_lint::formatText(f).c_str());
//
// The checker reads the files itself with libxml2 (never from the network),
// picking them exactly as the loader does, and never changes what the library
// loads or shows. Errors are mistakes that change what a record shows (wrong,
// shifted or missing values, or a dictionary that does not load); warnings
// are the rest.
#ifndef WEXBL_TOOLS_LINT_LINT_H
#define WEXBL_TOOLS_LINT_LINT_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tav {
class BinaryLogXmlReader;
}

namespace wexbl_lint {

enum class Severity { Warning, Error };

/// "warning" or "error".
const char* severityName(Severity severity);

struct Finding {
    /// The file as the directory and its entry name joined with one "/"
    /// (the directory itself for findings about the whole directory).
    std::string file;
    /// The line of the XML element concerned; 0 when the finding is about
    /// the whole file or directory.
    long line = 0;
    Severity severity = Severity::Error;
    /// The check's name, e.g. "unknown-type".
    std::string check;
    std::string message;
};

/// Lints the dictionary directory `dir` (with or without a trailing "/").
/// The findings come sorted by file name, then line, then the order the
/// checks made them.
std::vector<Finding> lintDictionary(const std::string& dir);

/// True when some finding is an error.
bool hasErrors(const std::vector<Finding>& findings);

/// "FILE:LINE: error: message [check]" (without ":LINE" when the line is 0),
/// no line feed.
std::string formatText(const Finding& finding);

/// One JSON object: {"file":..,"line":..,"severity":..,"check":..,"message":..},
/// no line feed.
std::string formatJson(const Finding& finding);

/// Appends `text` as a JSON string literal (quotes included) to `out`.
void appendJsonString(std::string& out, const std::string& text);

// ---- Coverage of captures --------------------------------------------------------------

/// How often each log of a loaded dictionary appeared in captures, and what
/// the captures held that the dictionary does not describe.
struct Coverage {
    struct LogCount {
        std::string name;
        std::uint64_t records = 0;
    };
    struct Module {
        std::string subsystem;
        std::string module;
        /// By log index.
        std::map<std::uint16_t, LogCount> logs;
    };
    /// A log id (or log and value) seen with a problem: how often, and where
    /// first.
    struct Seen {
        std::uint64_t count = 0;
        std::string firstCapture;
        std::uint64_t firstRecord = 0;
    };
    /// By module key.
    std::map<std::uint16_t, Module> modules;
    /// By log id.
    std::map<std::uint32_t, Seen> unknownLogIds;
    /// By log id, then the record's version.
    std::map<std::uint32_t, std::map<std::uint16_t, Seen>> versionMismatches;
    /// By log id, then the level.
    std::map<std::uint32_t, std::map<std::uint16_t, Seen>> levelsOutOfRange;
    /// Enumerated values their enumeration lacks: by log id, then the
    /// parameter's name, then the value (as the decimal text looked up).
    struct Missing {
        std::string enumName;
        std::map<std::string, Seen> values;
    };
    std::map<std::uint32_t, std::map<std::string, Missing>> missingEnumValues;
    /// Binary log and legacy records counted, over all captures.
    std::uint64_t records = 0;
    /// Captures that could not be read to their end, with the reason.
    std::vector<std::string> problems;
};

/// Reads every capture through the library's capture streams (UDP port as
/// given, 0 for none) and counts what `reader` (loaded) makes of them.
Coverage measureCoverage(const Tav::BinaryLogXmlReader& reader,
                         const std::vector<std::string>& captures, std::uint16_t udpPort);

/// The coverage as text lines (see binlog-lint --help) or as JSON Lines.
std::string formatCoverageText(const Coverage& coverage);
std::string formatCoverageJson(const Coverage& coverage);

/// The modules, logs and enumerations a loaded reader holds, one line each.
std::string formatSummary(const Tav::BinaryLogXmlReader& reader);

}  // namespace wexbl_lint

#endif
