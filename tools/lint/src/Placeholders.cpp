// The log strings: placeholders that name no parameter, parameters that no
// placeholder shows, and braces that switch the substitution off.
#include <set>
#include <string>

#include "Model.h"

namespace wexbl_lint {
namespace detail {
namespace {

void checkLog(Sink& sink, const std::string& path, const Log& log,
              const std::set<std::string>& headerNames) {
    const std::string text = log.element.value("logString");
    const long line = log.element.line;
    const std::size_t open = text.find('{');
    const std::size_t close = text.find('}');
    if (open == std::string::npos && close == std::string::npos) {
        return;
    }
    if (open == std::string::npos || close == std::string::npos) {
        sink.add(path, line, Severity::Warning, "unbalanced-braces",
                 std::string("the log string has a \"") + (open == std::string::npos ? "}" : "{") +
                     "\" but no \"" + (open == std::string::npos ? "{" : "}") +
                     "\": it has no placeholders, and the parameter list is appended instead");
        return;
    }
    if (close < open) {
        sink.add(
            path, line, Severity::Warning, "unbalanced-braces",
            "the log string has a \"}\" before its first \"{\": the text from that \"{\" to the "
            "end is taken as one placeholder name");
        return;
    }
    std::set<std::string> names;
    for (const Declaration& declaration : log.declarations) {
        names.insert(declaration.names.begin(), declaration.names.end());
    }
    // Every {key} of the text, in order, for the parameters shown.
    std::set<std::string> mentioned;
    for (std::size_t pos = text.find('{'); pos != std::string::npos;) {
        const std::size_t end = text.find('}', pos);
        if (end == std::string::npos) {
            break;
        }
        mentioned.insert(text.substr(pos + 1, end - pos - 1));
        pos = text.find('{', end);
    }
    // The substitution as the decoder runs it: it stops at the first
    // placeholder that names no parameter, or at a "}" before a "{".
    std::size_t pos = 0;
    for (;;) {
        const std::size_t nextOpen = text.find('{', pos);
        const std::size_t nextClose = text.find('}', pos);
        if (nextOpen == std::string::npos) {
            break;
        }
        if (nextClose < nextOpen) {
            sink.add(path, line, Severity::Warning, "unbalanced-braces",
                     "the log string has a \"}\" at offset " + std::to_string(nextClose) +
                         " before the next \"{\": from that \"{\" the text to the end is taken "
                         "as one placeholder name");
            break;
        }
        if (nextClose == std::string::npos) {
            sink.add(path, line, Severity::Warning, "unbalanced-braces",
                     "the log string has a \"{\" at offset " + std::to_string(nextOpen) +
                         " without a \"}\" after it: it is shown as written");
            break;
        }
        const std::string key = text.substr(nextOpen + 1, nextClose - nextOpen - 1);
        if (names.count(key) == 0) {
            std::string message = "placeholder \"{" + key + "}\" names no parameter of this log";
            if (headerNames.count(key) != 0) {
                message += " (placeholders do not see the module header's parameters)";
            }
            message += ": it and every placeholder after it are shown as written";
            sink.add(path, line, Severity::Error, "unknown-placeholder", std::move(message));
            break;
        }
        pos = nextClose + 1;
    }
    for (const Declaration& declaration : log.declarations) {
        if (!knownType(declaration.element.value("type"))) {
            continue;
        }
        for (const std::string& name : declaration.names) {
            if (mentioned.count(name) == 0) {
                sink.add(path, declaration.element.line, Severity::Warning, "unshown-parameter",
                         "parameter \"" + name +
                             "\" is never shown: the log string has placeholders and none names "
                             "it");
            }
        }
    }
}

}  // namespace

void checkPlaceholders(const Dictionary& dict, Sink& sink) {
    for (const BinlogFile& file : dict.binlogs) {
        std::set<std::string> headerNames;
        for (const Declaration& declaration : file.headerDeclarations) {
            headerNames.insert(declaration.names.begin(), declaration.names.end());
        }
        for (const Log& log : file.logs) {
            checkLog(sink, file.path, log, headerNames);
        }
    }
}

}  // namespace detail
}  // namespace wexbl_lint
