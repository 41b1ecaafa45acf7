// The placeholder substitution of a log string, in general form.
//
// The rule: find the first "{" and the first "}" of the whole text; the key
// is at most close - open - 1 characters after the "{" (an unsigned
// difference: a "}" before the "{" makes the key run to the end of the
// text); when the key names a value, key=value replaces close - open + 1
// characters from the "{" (0 when the "}" stands right before the "{", so
// the text is inserted; through the end of the text when it stands further
// before); then the search restarts at the beginning. It stops when a brace
// is missing, a key names no value, or after 1000 substitutions.
//
// Restarting at the beginning would copy the whole text again for every
// substitution; a value that recreates placeholders then costs quadratic
// time. This loop gives the same result in time proportional to its output:
// the text before the first "{" never changes again, so it is moved to the
// output once, and the rest is kept as a stack of pieces of the log string
// and of the values (nothing is copied until it is output). A key longer
// than the longest name cannot name a value, so no search looks further.
#ifndef WEXBL_SRC_RECORDS_PLACEHOLDERS_H
#define WEXBL_SRC_RECORDS_PLACEHOLDERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tav {
namespace detail {

/// At most this many substitutions are made in one message: decoded texts
/// come from the record and may recreate placeholders.
constexpr int kMaxSubstitutions = 1000;

/// Scratch of the general loop, kept between records.
struct PlaceholderScratch {
    std::vector<std::string_view> pending;  // the rest of the text, last piece first
    std::string key;
};

/// Appends the substituted `text` to `out`. `lookup(key, name, value)`
/// returns true when `key` names a value, and sets `name` to a copy of the
/// key and `value` to the value that stay valid during the call;
/// `longestKey` is the longest key it can find.
template <typename Out, typename Lookup>
void substitutePlaceholders(Out& out, std::string_view text, Lookup&& lookup,
                            std::size_t longestKey, PlaceholderScratch& scratch,
                            int budget = kMaxSubstitutions) {
    constexpr std::size_t npos = std::string_view::npos;
    std::vector<std::string_view>& pending = scratch.pending;
    pending.clear();
    pending.push_back(text);
    std::size_t pendingSize = text.size();
    // Characters moved to `out` so far, and, once a "}" stands before every
    // "{", its position in the whole text (it then stays the first "}").
    std::size_t done = 0;
    bool closeIsBehind = false;
    std::size_t closeAt = 0;

    // Moves the first `n` pending characters to the output, or drops them.
    auto take = [&](std::size_t n, bool output) {
        pendingSize -= n;
        if (output) {
            done += n;
        }
        while (n != 0) {
            std::string_view& piece = pending.back();
            const std::size_t count = n < piece.size() ? n : piece.size();
            if (output) {
                out.append(piece.data(), count);
            }
            piece.remove_prefix(count);
            n -= count;
            if (piece.empty()) {
                pending.pop_back();
            }
        }
    };
    // The position of the first `wanted` character at or after `from` and
    // before `limit` in the pending text, or npos. With `stopAtOpen`, a "{"
    // met first ends the search too (its position goes to `open`).
    auto find = [&](char wanted, std::size_t from, std::size_t limit, bool stopAtOpen,
                    std::size_t& open) {
        std::size_t position = 0;
        for (std::size_t i = pending.size(); i-- > 0 && position < limit;) {
            const std::string_view piece = pending[i];
            std::size_t j = from > position ? from - position : 0;
            for (; j < piece.size() && position + j < limit; ++j) {
                const char c = piece[j];
                if (c == wanted) {
                    return position + j;
                }
                if (stopAtOpen && c == '{') {
                    open = position + j;
                    return npos;
                }
            }
            position += piece.size();
        }
        return npos;
    };
    // Copies `n` pending characters from `from` on into the scratch key.
    auto copyKey = [&](std::size_t from, std::size_t n) {
        scratch.key.clear();
        std::size_t position = 0;
        for (std::size_t i = pending.size(); i-- > 0 && scratch.key.size() < n;) {
            const std::string_view piece = pending[i];
            if (from < position + piece.size()) {
                const std::size_t start = from > position ? from - position : 0;
                const std::size_t want = n - scratch.key.size();
                const std::size_t have = piece.size() - start;
                scratch.key.append(piece.data() + start, want < have ? want : have);
            }
            position += piece.size();
        }
    };

    for (int substitutions = 0; substitutions < budget; ++substitutions) {
        std::size_t open = npos;
        std::size_t close = npos;
        if (closeIsBehind) {
            std::size_t unused = npos;
            open = find('{', 0, pendingSize, false, unused);
        } else {
            // A "}" met before the first "{" stands before every "{".
            close = find('}', 0, pendingSize, true, open);
            if (close != npos) {
                open = find('{', close + 1, pendingSize, false, open);
                closeIsBehind = open != npos;
                closeAt = done + close;
            }
        }
        if (open == npos) {
            break;  // no "{"
        }
        std::size_t keyLength;
        if (closeIsBehind) {
            keyLength = pendingSize - open - 1;  // through the end of the text
        } else {
            // The "}" after the "{", looked for no further than a name can
            // reach: a longer key names nothing (and no "}" at all stops too).
            const std::size_t limit = open + 2 + longestKey;
            std::size_t unused = npos;
            close = find('}', open + 1, limit < pendingSize ? limit : pendingSize, false, unused);
            if (close == npos) {
                break;
            }
            keyLength = close - open - 1;
        }
        if (keyLength > longestKey) {
            break;
        }
        copyKey(open + 1, keyLength);
        std::string_view name;
        std::string_view value;
        if (!lookup(std::string_view(scratch.key), name, value)) {
            break;
        }
        const std::size_t openAt = done + open;
        take(open, true);
        if (!closeIsBehind) {
            take(close - open + 1, false);  // "{key}"
        } else if (closeAt + 1 != openAt) {
            take(pendingSize, false);  // through the end
        }
        // (A "}" right before the "{": nothing is replaced, key=value is
        // inserted before the "{".)
        pending.push_back(value);
        pending.push_back(std::string_view("=", 1));
        pending.push_back(name);
        pendingSize += name.size() + 1 + value.size();
    }
    // Whatever is left stays as it is.
    take(pendingSize, true);
}

}  // namespace detail
}  // namespace Tav

#endif
