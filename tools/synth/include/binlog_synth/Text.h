// Parsing of the small texts the capture writer reads from its command line
// and its scripts: numbers, hexadecimal byte strings, time stamps, durations,
// rates and quoted strings.
#ifndef BINLOG_SYNTH_TEXT_H
#define BINLOG_SYNTH_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace binlog_synth {

/// An unsigned number: decimal or 0x hexadecimal, the whole text, at most
/// `max`.
bool parseUnsigned(const std::string& text, std::uint64_t max, std::uint64_t& value);

/// An integer of `widthBytes` (1, 2, 4 or 8): decimal (optionally negative)
/// or 0x hexadecimal. Any value that fits the width either as a signed or as
/// an unsigned number is accepted (so -1 and 255 both give 0xff for one
/// byte); the result is the two's-complement bit pattern in the low bytes.
bool parseIntegerBits(const std::string& text, unsigned widthBytes, std::uint64_t& bits);

/// Hexadecimal bytes: pairs of hex digits, optionally separated by ':' and
/// optionally preceded by 0x. An empty text gives no bytes.
bool parseHexBytes(const std::string& text, std::string& bytes);

/// Lowercase hex of every byte, no separators.
std::string toHex(const std::string& bytes);

/// A point in time: "2024-05-01T12:00:00Z", "2024-05-01T12:00:00.250Z" (the
/// fraction has 1 to 6 digits, the Z may be left out; the date is UTC), or
/// seconds since 1970 with an optional fraction ("1714564800.25"). Seconds must
/// fit 32 bits unsigned.
bool parseTime(const std::string& text, std::uint32_t& sec, std::uint32_t& usec);

/// The time text the decoder prints for (sec, usec):
/// "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ" in UTC.
std::string formatTime(std::uint32_t sec, std::uint32_t usec);

/// Days since 1970-01-01 of a proleptic Gregorian date.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day);

/// A duration: a number with an optional fraction and a unit "s", "ms",
/// "us" or "ns" ("0" alone is allowed). The result is in nanoseconds.
bool parseDuration(const std::string& text, std::uint64_t& nanoseconds);

/// A positive decimal rate such as "1000" or "2.5", as the exact fraction
/// num / den (den a power of ten up to 10^6).
bool parseRate(const std::string& text, std::uint64_t& num, std::uint64_t& den);

/// One token of a script line: a bare word, or key=value where the value may
/// be a double-quoted string with escapes.
struct Token {
    std::string key;    // the text before the first '=' (the whole word if none)
    std::string value;  // the text after '=', unquoted and unescaped
    bool hasValue = false;
    bool quoted = false;  // the value (or the bare word) was written in quotes
};

/// Splits a script line into tokens. Blanks and tabs separate tokens; a '#'
/// outside quotes starts a comment. Inside quotes the escapes \n, \r, \t, \0,
/// backslash-backslash, backslash-quote and \xHH are understood. False with a message on an
/// unterminated quote or a bad escape.
bool tokenizeLine(const std::string& line, std::vector<Token>& tokens, std::string& error);

/// Lowercase copy (ASCII).
std::string lower(const std::string& text);

}  // namespace binlog_synth

#endif
