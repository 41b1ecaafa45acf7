// Building blocks of the record lines, shared by the step-by-step renderers
// and the dispatcher's record path.
#ifndef WEXBL_SRC_RENDER_LINE_TEXT_H
#define WEXBL_SRC_RENDER_LINE_TEXT_H

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace detail {

/// Appends all pieces with one growth of `out`.
inline void appendAll(std::string& out, std::initializer_list<std::string_view> pieces) {
    std::size_t total = 0;
    for (const std::string_view piece : pieces) {
        total += piece.size();
    }
    const std::size_t at = out.size();
    out.resize(at + total);
    char* dst = &out[at];
    for (const std::string_view piece : pieces) {
        if (!piece.empty()) {
            std::memcpy(dst, piece.data(), piece.size());
            dst += piece.size();
        }
    }
}

/// A text as "%s" prints it: up to its first NUL.
inline std::string_view printed(const std::string& text) {
    const void* nul = std::memchr(text.data(), '\0', text.size());
    return std::string_view(
        text.data(),
        nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - text.data()) : text.size());
}

/// Appends the time text "YYYY-MM-DDTHH:MM:SS.mmmZ" of `seconds` (since 1970,
/// unsigned) and `usec` (milliseconds by truncating division). Returns false,
/// appending nothing, when the calendar conversion fails.
bool appendTimeText(std::string& out, TimeTextCache& cache, std::uint32_t seconds,
                    std::int32_t usec);

/// The shown seconds: the record time plus the offset, in 32-bit wrap-around.
inline std::uint32_t shownSeconds(const PcapRecHeader& pcapHeader, int utcOffsetMinutes) {
    return pcapHeader.tsSec + 60u * static_cast<std::uint32_t>(utcOffsetMinutes);
}

/// Appends "name=text " for every name of `order` that `lookup` finds.
template <typename Out, typename Lookup>
void appendParamList(Out& out, const std::vector<std::string>& order, Lookup lookup) {
    for (const std::string& name : order) {
        if (const std::string* text = lookup(name.data(), name.size())) {
            out.append(name.data(), name.size());
            out.push_back('=');
            out.append(text->data(), text->size());
            out.push_back(' ');
        }
    }
}

/// A placeholder loop substitutes at most this often in one message: decoded
/// texts come from the record and may contain braces themselves.
constexpr int kMaxSubstitutions = 1000;

/// The placeholder loop over `message`, with at most `budget` substitutions:
/// the first "{" and the first "}" of the whole text delimit a key; when the
/// key has a value, key=value replaces the characters from "{" through "}"
/// and the search restarts at the beginning, so decoded texts that hold
/// placeholders are substituted too. It stops when a brace is missing or a key
/// has no value.
///
/// Key and replaced lengths are unsigned differences, so a "}" before the "{"
/// makes the key run to the end of the text; the replaced length
/// close - open + 1 is then 0 when the "}" stands right before the "{" (the
/// text is inserted, nothing removed) and wraps, running to the end of the
/// text, when it stands further before. `work` is scratch.
template <typename Lookup>
void substitutePlaceholders(std::string& message, Lookup lookup, std::string& work, int budget) {
    for (int substitutions = 0; substitutions < budget; ++substitutions) {
        const std::size_t open = message.find('{');
        const std::size_t close = message.find('}');
        if (open == std::string::npos || close == std::string::npos) {
            break;
        }
        const std::size_t keyLength = std::min(close - open - 1, message.size() - open - 1);
        const std::string* text = lookup(message.data() + open + 1, keyLength);
        if (text == nullptr) {
            break;
        }
        const std::string_view whole(message);
        const std::size_t after = open + std::min(close - open + 1, message.size() - open);
        work.clear();
        appendAll(work, {whole.substr(0, open), whole.substr(open + 1, keyLength), "=", *text,
                         whole.substr(after)});
        message.swap(work);
    }
}

/// Sets `message` to the message text of a log: `logString` with its
/// placeholders {key} replaced by key=text, or, when it has no "{" or no "}",
/// followed by a blank and the parameter list.
template <typename Lookup>
void buildMessageText(const std::string& logString, const std::vector<std::string>& order,
                      Lookup lookup, std::string& message, std::string& work) {
    message = logString;
    if (message.find('{') == std::string::npos || message.find('}') == std::string::npos) {
        message += ' ';
        appendParamList(message, order, lookup);
        return;
    }
    substitutePlaceholders(message, lookup, work, kMaxSubstitutions);
}

template <typename Out, std::size_t N>
void appendLiteral(Out& out, const char (&text)[N]) {
    out.append(text, N - 1);
}

/// Appends `text` as "%*s" prints it: blank-padded on the left to `width`.
template <typename Out>
void appendPadded(Out& out, std::string_view text, std::size_t width) {
    if (text.size() < width) {
        out.append(width - text.size(), ' ');
    }
    out.append(text.data(), text.size());
}

/// The line of a binary log record is
///   "[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s] [%s] \n" with module header text
///   "[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s] \n"       without
/// (time, subsystem:module, log name, level, category, sequence number, module
/// header text, message text). This appends everything up to the "[" that
/// opens the module header text or the message text.
template <typename Out>
void appendBinLogLineStart(Out& line, const std::string& timeText, const ModuleDetails& module,
                           const LogDetails& log, const std::string& level, std::uint32_t seqNo) {
    const std::string_view subsystem = printed(module.subsystemName);
    const std::string_view moduleName = printed(module.moduleName);
    // The time text is built here and holds no NUL.
    appendLiteral(line, "[");
    line.append(timeText.data(), timeText.size());
    appendLiteral(line, "] [");
    const std::size_t sourceLength = subsystem.size() + 1 + moduleName.size();
    if (sourceLength < 10) {
        line.append(10 - sourceLength, ' ');
    }
    line.append(subsystem.data(), subsystem.size());
    appendLiteral(line, ":");
    line.append(moduleName.data(), moduleName.size());
    appendLiteral(line, "] [");
    appendPadded(line, printed(log.logName), 25);
    appendLiteral(line, "] [");
    appendPadded(line, printed(level), 8);
    appendLiteral(line, "] [");
    appendPadded(line, printed(log.category), 10);
    appendLiteral(line, "] [");
    char seq[16];
    line.append(seq,
                static_cast<std::size_t>(std::to_chars(seq, seq + sizeof seq, seqNo).ptr - seq));
    appendLiteral(line, "] [");
}

}  // namespace detail
}  // namespace Tav

#endif
