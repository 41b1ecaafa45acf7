// Records and events as JSON Lines and CSV (see Format.h for the layouts).
//
// Everything is written straight into the caller's string through a cursor
// (Sink) that grows it a chunk at a time: strings are copied in runs of
// characters that need no escape, numbers are written in place, and nothing
// else is allocated.
#include "WexOamBinLogXmlReader/Format.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "format/Json.h"
#include "records/Decoder.h"
#include "records/Text.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Tav {

namespace {

using detail::appendLiteral;
using detail::appendSigned;
using detail::appendUnsigned;
using detail::kMaxSafeInteger;
using detail::Sink;
using detail::writeDigitsBackwards;

// ---- Numbers ---------------------------------------------------------------------------------

/// `digits` decimal digits of `value`, zero-padded on the left, at `to`.
void writeFixed(char* to, unsigned value, int digits) {
    for (int i = digits - 1; i >= 0; --i) {
        to[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

const char kHexDigits[] = "0123456789abcdef";

/// "0x" and the value in lower-case hex without leading zeros.
void appendHexNumber(Sink& out, std::uint32_t value) {
    char buf[10];
    char* const end = buf + sizeof buf;
    char* at = end;
    do {
        *--at = kHexDigits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    *--at = 'x';
    *--at = '0';
    out.append(at, static_cast<std::size_t>(end - at));
}

/// A double as the shortest text that reads back as the same value; null
/// for values JSON cannot hold.
void appendDouble(Sink& out, double value) {
    if (!std::isfinite(value)) {
        appendLiteral(out, "null");
        return;
    }
    char buf[64];
    const auto result = std::to_chars(buf, buf + sizeof buf, value);
    out.append(buf, static_cast<std::size_t>(result.ptr - buf));
}

// ---- Time ------------------------------------------------------------------------------------

/// Writes "YYYY-MM-DDTHH:MM:SS" of seconds since 1970 (UTC calendar, days
/// to civil date by the era arithmetic of the proleptic Gregorian calendar).
void writeDateTime(char (&text)[19], std::uint32_t seconds) {
    const std::uint32_t days = seconds / 86400u;
    const std::uint32_t secondOfDay = seconds % 86400u;
    // Days since 0000-03-01; the 400-year era repeats exactly.
    const std::uint32_t z = days + 719468u;
    const std::uint32_t era = z / 146097u;
    const std::uint32_t dayOfEra = z - era * 146097u;
    const std::uint32_t yearOfEra =
        (dayOfEra - dayOfEra / 1460u + dayOfEra / 36524u - dayOfEra / 146096u) / 365u;
    const std::uint32_t dayOfYear =
        dayOfEra - (365u * yearOfEra + yearOfEra / 4u - yearOfEra / 100u);
    const std::uint32_t monthIndex = (5u * dayOfYear + 2u) / 153u;  // March = 0
    const std::uint32_t day = dayOfYear - (153u * monthIndex + 2u) / 5u + 1u;
    const std::uint32_t month = monthIndex < 10u ? monthIndex + 3u : monthIndex - 9u;
    const std::uint32_t year = yearOfEra + era * 400u + (month <= 2u ? 1u : 0u);
    writeFixed(text, year, 4);
    text[4] = '-';
    writeFixed(text + 5, month, 2);
    text[7] = '-';
    writeFixed(text + 8, day, 2);
    text[10] = 'T';
    writeFixed(text + 11, secondOfDay / 3600u, 2);
    text[13] = ':';
    writeFixed(text + 14, secondOfDay / 60u % 60u, 2);
    text[16] = ':';
    writeFixed(text + 17, secondOfDay % 60u, 2);
}

/// What a thread wrote last, to be written again as it is: the texts of
/// the last second (records come in time order, many in the same second),
/// and the last capture's name.
struct ThreadTexts {
    bool dateValid = false;
    std::uint32_t dateSeconds = 0;
    char date[19] = {};
    bool epochValid = false;
    std::uint32_t epochSeconds = 0;
    unsigned epochDigits = 0;
    char epoch[16] = {};
    std::string captureName;
    std::string captureJson;
};

ThreadTexts& threadTexts() {
    static thread_local ThreadTexts last;
    return last;
}

/// Appends a capture's name as a JSON string.
void appendCaptureName(Sink& out, std::string_view name, ThreadTexts& last) {
    if (last.captureJson.empty() || last.captureName != name) {
        last.captureName.assign(name.data(), name.size());
        last.captureJson.clear();
        detail::appendJsonString(last.captureJson, name);
    }
    detail::appendPiece(out, last.captureJson);
}

/// Appends "YYYY-MM-DDTHH:MM:SS" of seconds since 1970.
void appendDateTime(Sink& out, std::uint32_t seconds, ThreadTexts& last) {
    if (!last.dateValid || last.dateSeconds != seconds) {
        writeDateTime(last.date, seconds);
        last.dateSeconds = seconds;
        last.dateValid = true;
    }
    out.append(last.date, sizeof last.date);
}

/// Appends the sender's time in microseconds since 1970:
/// pcapHeader.tsSec * 1000000 + pcapHeader.tsUsec.
void appendEpochMicroseconds(Sink& out, const PcapRecHeader& pcap, ThreadTexts& last) {
    if (pcap.tsSec == 0 || pcap.tsUsec >= 1000000u) {
        appendUnsigned(out, std::uint64_t{pcap.tsSec} * 1000000u + pcap.tsUsec);
        return;
    }
    // The digits of the seconds, then the microseconds in six.
    if (!last.epochValid || last.epochSeconds != pcap.tsSec) {
        last.epochDigits = detail::decimalDigits(pcap.tsSec);
        detail::writeDigitsBackwards(last.epoch + last.epochDigits, pcap.tsSec);
        last.epochSeconds = pcap.tsSec;
        last.epochValid = true;
    }
    const unsigned digits = last.epochDigits;
    char* const at = out.room(sizeof last.epoch + 6);
    std::memcpy(at, last.epoch, sizeof last.epoch);
    writeFixed(at + digits, pcap.tsUsec, 6);
    out.advance(digits + 6);
}

// ---- JSON strings ----------------------------------------------------------------------------

/// Bytes copied into a JSON string as they are: printable ASCII other than
/// the quote and the backslash.
struct PlainBytes {
    bool plain[256];
    constexpr PlainBytes() : plain() {
        for (int c = 0x20; c < 0x7F; ++c) {
            plain[c] = c != '"' && c != '\\';
        }
    }
};
constexpr PlainBytes kPlain;

// Eight bytes at a time: the high bit of a byte of the result is set where
// the condition holds; the test "any byte" is exact (a borrow only ever
// runs from a byte that holds).
constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kHighs = 0x8080808080808080ull;

/// High bits where a byte of `word` equals `c` (and possibly above one).
std::uint64_t equalBytes(std::uint64_t word, unsigned char c) {
    const std::uint64_t x = word ^ (kOnes * c);
    return (x - kOnes) & ~x;
}

/// High bits of the bytes of `word` that need more than a copy (a control
/// character, DEL, a quote, a backslash or a byte from 0x80 up); the lowest
/// one set is exact.
std::uint64_t careBytes(std::uint64_t word) {
    // A byte below 0x20 or from 0x80 up; then bytes equal to one of three.
    const std::uint64_t low = (word - kOnes * 0x20) & ~word;
    return (low | word | equalBytes(word, 0x7F) | equalBytes(word, '"') | equalBytes(word, '\\')) &
           kHighs;
}

/// The end of the run of plain bytes that starts at `p`: eight at a time,
/// then one by one.
const unsigned char* plainRunEnd(const unsigned char* p, const unsigned char* end) {
    while (end - p >= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, sizeof word);
        const std::uint64_t care = careBytes(word);
        if (care != 0) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            // The first byte in memory is the lowest.
            return p + (__builtin_ctzll(care) >> 3);
#else
            break;
#endif
        }
        p += 8;
    }
    while (p < end && kPlain.plain[*p]) {
        ++p;
    }
    return p;
}

/// Eight bytes at `p`, in memory order.
std::uint64_t loadWord(const unsigned char* p) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

/// Whether the `n` bytes at `p` are all plain. Most strings are (names,
/// numbers as text, the line): they are checked in whole words, the last
/// word overlapping the one before rather than going byte by byte.
bool allPlain(const unsigned char* p, std::size_t n) {
#if defined(__SSE2__)
    if (n >= 16) {
        // Sixteen at a time: a signed compare with 0x20 takes the control
        // characters and the bytes from 0x80 up at once.
        const __m128i space = _mm_set1_epi8(0x20);
        const __m128i del = _mm_set1_epi8(0x7F);
        const __m128i quote = _mm_set1_epi8('"');
        const __m128i backslash = _mm_set1_epi8('\\');
        auto care = [&](const unsigned char* at) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
            const __m128i bad =
                _mm_or_si128(_mm_or_si128(_mm_cmplt_epi8(v, space), _mm_cmpeq_epi8(v, del)),
                             _mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)));
            return _mm_movemask_epi8(bad) != 0;
        };
        std::size_t i = 0;
        for (; i + 16 <= n; i += 16) {
            if (care(p + i)) {
                return false;
            }
        }
        return i == n || !care(p + n - 16);
    }
#endif
    if (n >= 8) {
        std::size_t i = 0;
        for (; i + 8 <= n; i += 8) {
            if (careBytes(loadWord(p + i)) != 0) {
                return false;
            }
        }
        return i == n || careBytes(loadWord(p + n - 8)) == 0;
    }
    for (std::size_t i = 0; i < n; ++i) {
        if (!kPlain.plain[p[i]]) {
            return false;
        }
    }
    return true;
}

/// Copies `n` bytes, sizeof(Word) <= n <= 2 * sizeof(Word), as two words
/// that overlap when n is less than two.
template <typename Word>
void copyTwoWords(char* to, const unsigned char* from, std::size_t n) {
    Word first;
    Word last;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&last, from + n - sizeof last, sizeof last);
    std::memcpy(to, &first, sizeof first);
    std::memcpy(to + n - sizeof last, &last, sizeof last);
}

/// Copies `n` bytes; up to sixteen without a call.
void copyBytes(char* to, const unsigned char* from, std::size_t n) {
    if (n >= 8 && n <= 16) {
        copyTwoWords<std::uint64_t>(to, from, n);
    } else if (n >= 4 && n < 8) {
        copyTwoWords<std::uint32_t>(to, from, n);
    } else if (n < 4) {
        for (std::size_t i = 0; i < n; ++i) {
            to[i] = static_cast<char>(from[i]);
        }
    } else {
        std::memcpy(to, from, n);
    }
}

/// Length of the well-formed UTF-8 sequence at `p` (2 to 4), or 0 when the
/// byte at `p` (at least 0x80) does not start one: a stray continuation
/// byte, an overlong form, a surrogate, a code point above U+10FFFF, or a
/// sequence cut short.
std::size_t utf8Sequence(const unsigned char* p, const unsigned char* end) {
    const unsigned char lead = p[0];
    const std::size_t left = static_cast<std::size_t>(end - p);
    auto continuation = [](unsigned char c) { return (c & 0xC0u) == 0x80u; };
    if (lead >= 0xC2 && lead <= 0xDF) {
        return left >= 2 && continuation(p[1]) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (left < 3 || !continuation(p[2])) {
            return 0;
        }
        // E0 needs A0..BF (no overlong form), ED needs 80..9F (no surrogate).
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return p[1] >= low && p[1] <= high ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (left < 4 || !continuation(p[2]) || !continuation(p[3])) {
            return 0;
        }
        // F0 needs 90..BF (no overlong form), F4 needs 80..8F (up to U+10FFFF).
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return p[1] >= low && p[1] <= high ? 4 : 0;
    }
    return 0;
}

/// Writes "\u00XX" of a byte at `to`.
char* writeByteEscape(char* to, unsigned char c) {
    to[0] = '\\';
    to[1] = 'u';
    to[2] = '0';
    to[3] = '0';
    to[4] = kHexDigits[c >> 4];
    to[5] = kHexDigits[c & 0xF];
    return to + 6;
}

/// Writes a backslash and `c` at `to`.
char* writeShortEscape(char* to, char c) {
    to[0] = '\\';
    to[1] = c;
    return to + 2;
}

}  // namespace

/// The text goes in blocks, each written into room for its worst case
/// (every byte a six-character escape), so that the characters are written
/// without a bounds check each.
void detail::appendJsonString(Sink& out, std::string_view text) {
    constexpr std::size_t kBlock = 4096;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + text.size();
    if (allPlain(p, text.size())) {
        // Nothing to escape: the quotes and one copy.
        const std::size_t n = text.size();
        char* const to = out.room(n + 2);
        to[0] = '"';
        copyBytes(to + 1, p, n);
        to[n + 1] = '"';
        out.advance(n + 2);
        return;
    }
    out.push_back('"');
    for (;;) {
        const std::size_t left = static_cast<std::size_t>(end - p);
        const unsigned char* const stop = p + (left < kBlock ? left : kBlock);
        // A UTF-8 sequence may run three bytes past the block; then the
        // closing quote.
        char* const start = out.room(6 * (static_cast<std::size_t>(stop - p) + 3) + 1);
        char* to = start;
        while (p < stop) {
            const unsigned char* const run = p;
            p = plainRunEnd(p, stop);
            if (p != run) {
                std::memcpy(to, run, static_cast<std::size_t>(p - run));
                to += p - run;
                if (p == stop) {
                    break;
                }
            }
            const unsigned char c = *p;
            if (c >= 0x80) {
                const std::size_t length = utf8Sequence(p, end);
                if (length != 0) {
                    std::memcpy(to, p, length);
                    to += length;
                    p += length;
                } else {
                    // Not UTF-8: the byte stands for the character of its value.
                    to = writeByteEscape(to, c);
                    ++p;
                }
                continue;
            }
            switch (c) {
                case '"':
                case '\\':
                    to = writeShortEscape(to, static_cast<char>(c));
                    break;
                case '\n':
                    to = writeShortEscape(to, 'n');
                    break;
                case '\r':
                    to = writeShortEscape(to, 'r');
                    break;
                case '\t':
                    to = writeShortEscape(to, 't');
                    break;
                default:  // other control characters and DEL
                    to = writeByteEscape(to, c);
                    break;
            }
            ++p;
        }
        if (p >= end) {
            *to++ = '"';
            out.advance(static_cast<std::size_t>(to - start));
            return;
        }
        out.advance(static_cast<std::size_t>(to - start));
    }
}

namespace {

using detail::appendJsonString;

/// Bytes as lower-case hex digits, two a byte.
void appendHexDigits(Sink& out, std::string_view bytes) {
    char* at = out.room(2 * bytes.size());
    for (const char byte : bytes) {
        const unsigned char c = static_cast<unsigned char>(byte);
        at[0] = kHexDigits[c >> 4];
        at[1] = kHexDigits[c & 0xF];
        at += 2;
    }
    out.advance(2 * bytes.size());
}

/// Bytes as a JSON string of lower-case hex digits.
void appendHexBytes(Sink& out, std::string_view bytes) {
    out.push_back('"');
    appendHexDigits(out, bytes);
    out.push_back('"');
}

// ---- JSON records ----------------------------------------------------------------------------

/// The dictionary's name of a type, its length known.
std::string_view typeName(ParamType type) {
    struct Names {
        std::string_view names[static_cast<std::size_t>(ParamType::VarBinaryString) + 1];
        Names() {
            for (std::size_t i = 0; i < sizeof names / sizeof names[0]; ++i) {
                names[i] = paramTypeName(static_cast<ParamType>(i));
            }
        }
    };
    static const Names table;
    const auto index = static_cast<std::size_t>(type);
    return index < sizeof table.names / sizeof table.names[0] ? table.names[index]
                                                              : std::string_view();
}

}  // namespace

std::string_view detail::jsonTypeAndValueKeys(ParamType type) {
    struct Keys {
        std::string keys[static_cast<std::size_t>(ParamType::VarBinaryString) + 2];
        Keys() {
            for (std::size_t i = 0; i < sizeof keys / sizeof keys[0]; ++i) {
                keys[i] = ",\"type\":\"";
                keys[i] += typeName(static_cast<ParamType>(i));
                keys[i] += "\",\"value\":";
            }
        }
    };
    static const Keys table;
    const auto index = static_cast<std::size_t>(type);
    const std::size_t last = sizeof table.keys / sizeof table.keys[0] - 1;  // no such type
    return table.keys[index < last ? index : last];
}

namespace {

std::string_view kindName(RecordKind kind) {
    switch (kind) {
        case RecordKind::BinLog:
            return "binlog";
        case RecordKind::Legacy:
            return "legacy";
        case RecordKind::Syslog:
            return "syslog";
        case RecordKind::Capture:
            return "capture";
    }
    return "";
}

/// An integer value: a number while a double holds it exactly, else a
/// string of its digits.
void appendIntegerValue(Sink& out, const ParamField& field) {
    if (field.isSigned()) {
        const std::int64_t value = field.asSigned();
        const bool safe = value >= -static_cast<std::int64_t>(kMaxSafeInteger) &&
                          value <= static_cast<std::int64_t>(kMaxSafeInteger);
        if (!safe) {
            out.push_back('"');
        }
        appendSigned(out, value);
        if (!safe) {
            out.push_back('"');
        }
    } else {
        const bool safe = field.raw <= kMaxSafeInteger;
        if (!safe) {
            out.push_back('"');
        }
        appendUnsigned(out, field.raw);
        if (!safe) {
            out.push_back('"');
        }
    }
}

void appendJsonValue(Sink& out, const ParamField& field) {
    if (field.isInteger()) {
        appendIntegerValue(out, field);
    } else if (field.type == ParamType::String) {
        appendJsonString(out, field.bytes);
    } else {
        appendHexBytes(out, field.bytes);
    }
}

void appendJsonFields(Sink& out, View<ParamField> fields, bool texts) {
    out.push_back('[');
    bool first = true;
    for (const ParamField& field : fields) {
        if (!first) {
            out.push_back(',');
        }
        first = false;
        appendLiteral(out, "{\"name\":");
        appendJsonString(out, field.name);
        if (field.index >= 0) {
            appendLiteral(out, ",\"index\":");
            appendSigned(out, field.index);
        }
        out.append(detail::jsonTypeAndValueKeys(field.type));
        appendJsonValue(out, field);
        if (texts) {
            appendLiteral(out, ",\"text\":");
            appendJsonString(out, field.text);
        }
        if (!field.enumName.empty()) {
            appendLiteral(out, ",\"enum\":");
            appendJsonString(out, field.enumName);
        }
        out.push_back('}');
    }
    out.push_back(']');
}

/// The line the text format prints for the record, without its line feed.
std::string_view lineOf(const Record& record) {
    std::string_view line = record.text;
    if (!line.empty() && line.back() == '\n') {
        line.remove_suffix(1);
    }
    return line;
}

// ---- CSV -------------------------------------------------------------------------------------

/// Quotes the field that starts at `start` (the end of `out`) when it holds
/// a comma, a quote, a line feed or a carriage return: in place, quotes
/// doubled.
void quoteCsvTail(Sink& out, std::size_t start) {
    const std::size_t end = out.size();
    const char* const text = out.at(0);
    auto special = [](char c) { return c == '"' || c == ',' || c == '\n' || c == '\r'; };
    std::size_t i = start;
    for (; end - i >= 8; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text + i, sizeof word);
        if (((equalBytes(word, '"') | equalBytes(word, ',') | equalBytes(word, '\n') |
              equalBytes(word, '\r')) &
             kHighs) != 0) {
            break;
        }
    }
    while (i < end && !special(text[i])) {
        ++i;
    }
    if (i == end) {
        return;
    }
    std::size_t quotes = 0;
    for (; i < end; ++i) {
        quotes += text[i] == '"' ? 1 : 0;
    }
    out.room(quotes + 2);
    out.advance(quotes + 2);
    char* const field = out.at(0);
    // Moved back to front, each quote written twice.
    std::size_t from = end;
    std::size_t to = out.size();
    field[--to] = '"';
    while (from > start) {
        const char c = field[--from];
        field[--to] = c;
        if (c == '"') {
            field[--to] = '"';
        }
    }
    field[--to] = '"';
}

void appendCsvField(Sink& out, std::string_view text) {
    const std::size_t start = out.size();
    out.append(text.data(), text.size());
    quoteCsvTail(out, start);
}

/// A value as text for a stream without texts: integers in decimal (signed
/// per type), binary strings in hex, strings as they are.
void appendPlainValue(Sink& out, const ParamField& field) {
    if (field.isInteger()) {
        if (field.isSigned()) {
            appendSigned(out, field.asSigned());
        } else {
            appendUnsigned(out, field.raw);
        }
    } else if (field.type == ParamType::String) {
        out.append(field.bytes.data(), field.bytes.size());
    } else {
        appendHexDigits(out, field.bytes);
    }
}

void appendCsvParams(Sink& out, View<ParamField> fields, bool texts, bool& first) {
    for (const ParamField& field : fields) {
        if (!first) {
            out.push_back(' ');
        }
        first = false;
        out.append(field.name.data(), field.name.size());
        if (field.index >= 0) {
            out.push_back('[');
            appendSigned(out, field.index);
            out.push_back(']');
        }
        out.push_back('=');
        if (texts) {
            out.append(field.text.data(), field.text.size());
        } else {
            appendPlainValue(out, field);
        }
    }
}

void writeIsoTime(Sink& out, const Record& record, ThreadTexts& last) {
    appendDateTime(out, record.seconds, last);
    // Milliseconds as the line shows them: the microseconds read as a signed
    // 32-bit value, divided by 1000 and truncated.
    const std::int32_t millis = static_cast<std::int32_t>(record.microseconds) / 1000;
    if (millis >= 0 && millis < 1000) {
        char text[4] = {'.'};
        writeFixed(text + 1, static_cast<unsigned>(millis), 3);
        out.append(text, sizeof text);
    } else {
        char text[24];
        const int length = snprintf(text, sizeof text, ".%03d", static_cast<int>(millis));
        out.append(text, static_cast<std::size_t>(length));
    }
    const std::int64_t offset = record.utcOffsetMinutes;
    if (offset == 0) {
        out.push_back('Z');
        return;
    }
    out.push_back(offset < 0 ? '-' : '+');
    const std::uint64_t magnitude = static_cast<std::uint64_t>(offset < 0 ? -offset : offset);
    const std::uint64_t hours = magnitude / 60u;
    if (hours < 10) {
        out.push_back('0');
    }
    appendUnsigned(out, hours);
    const char minutes[3] = {':', static_cast<char>('0' + magnitude % 60u / 10u),
                             static_cast<char>('0' + magnitude % 10u)};
    out.append(minutes, sizeof minutes);
}

void writeRecord(Sink& out, const Record& record) {
    const bool texts = !record.text.empty();
    // A binary log record its decoder can write from the payload: the
    // names come ready from its plan, the values straight from its bytes.
    const detail::LogPlan* const direct =
        record.source != nullptr ? record.source->directValues(record) : nullptr;
    ThreadTexts& last = threadTexts();
    appendLiteral(out, "{\"capture\":");
    appendCaptureName(out, record.capture, last);
    appendLiteral(out, ",\"record\":");
    appendUnsigned(out, record.number);
    appendLiteral(out, ",\"kind\":\"");
    out.append(kindName(record.kind));
    appendLiteral(out, "\",\"time\":\"");
    writeIsoTime(out, record, last);
    appendLiteral(out, "\",\"epoch_us\":");
    appendEpochMicroseconds(out, record.pcapHeader, last);
    switch (record.kind) {
        case RecordKind::BinLog:
        case RecordKind::Legacy:
            if (direct != nullptr) {
                detail::appendPiece(out, direct->jsonNames);
                detail::appendPiece(out, record.source->levelJson());
                detail::appendPiece(out, direct->jsonCategory);
                break;
            }
            appendLiteral(out, ",\"subsystem\":");
            appendJsonString(out, record.subsystem);
            appendLiteral(out, ",\"module\":");
            appendJsonString(out, record.module);
            appendLiteral(out, ",\"log\":");
            appendJsonString(out, record.log);
            appendLiteral(out, ",\"level\":");
            appendJsonString(out, record.levelName);
            appendLiteral(out, ",\"level_no\":");
            appendUnsigned(out, record.level);
            appendLiteral(out, ",\"category\":");
            appendJsonString(out, record.category);
            break;
        case RecordKind::Syslog:
            appendLiteral(out, ",\"level\":");
            appendJsonString(out, record.levelName);
            appendLiteral(out, ",\"level_no\":");
            appendUnsigned(out, record.level);
            appendLiteral(out, ",\"tag\":");
            appendJsonString(out, record.syslogTag);
            appendLiteral(out, ",\"message\":");
            appendJsonString(out, record.syslogMessage);
            break;
        case RecordKind::Capture:
            break;
    }
    appendLiteral(out, ",\"seq\":");
    appendUnsigned(out, record.seqNo);
    switch (record.kind) {
        case RecordKind::BinLog:
            if (direct != nullptr) {
                record.source->appendJsonValues(out, texts);
                break;
            }
            appendLiteral(out, ",\"header\":");
            appendJsonFields(out, record.header(), texts);
            appendLiteral(out, ",\"params\":");
            appendJsonFields(out, record.params(), texts);
            break;
        case RecordKind::Legacy:
            appendLiteral(out, ",\"frame\":\"");
            detail::appendFrameStamp(out, record.frameTiming);
            appendLiteral(out, "\",\"params\":");
            appendJsonFields(out, record.params(), texts);
            break;
        case RecordKind::Syslog:
            break;
        case RecordKind::Capture:
            appendLiteral(out, ",\"length\":");
            appendUnsigned(out, record.pcapHeader.storageLength);
            break;
    }
    if (texts) {
        appendLiteral(out, ",\"text\":");
        appendJsonString(out, lineOf(record));
    }
    out.push_back('}');
}

}  // namespace

const char* eventName(EventKind kind) {
    switch (kind) {
        case EventKind::OpenFailed:
            return "open-failed";
        case EventKind::NoGlobalHeader:
            return "no-global-header";
        case EventKind::BadLinkType:
            return "bad-link-type";
        case EventKind::NotACapture:
            return "not-a-capture";
        case EventKind::Oversized:
            return "oversized";
        case EventKind::Truncated:
            return "truncated";
        case EventKind::DataError:
            return "data-error";
        case EventKind::ReadError:
            return "read-error";
        case EventKind::UnknownLogId:
            return "unknown-log-id";
        case EventKind::VersionMismatch:
            return "version-mismatch";
        case EventKind::LevelOutOfRange:
            return "level-out-of-range";
        case EventKind::InvalidPacketType:
            return "invalid-packet-type";
        case EventKind::SyslogTooShort:
            return "syslog-too-short";
        case EventKind::VarBinaryTooLong:
            return "var-binary-too-long";
        case EventKind::DisplayNotFound:
            return "display-not-found";
        case EventKind::DisplayUnavailable:
            return "display-unavailable";
        case EventKind::TimestampFailed:
            return "timestamp-failed";
        case EventKind::Gap:
            return "gap";
        case EventKind::Reorder:
            return "reorder";
        case EventKind::Summary:
            return "summary";
        case EventKind::Note:
            return "note";
        case EventKind::Resync:
            return "resync";
    }
    return "";
}

namespace {

void writeEvent(Sink& out, const Event& event) {
    appendLiteral(out, "{\"event\":\"");
    out.append(eventName(event.kind));
    appendLiteral(out, "\",\"capture\":");
    appendJsonString(out, event.capture);
    appendLiteral(out, ",\"record\":");
    appendUnsigned(out, event.record);
    appendLiteral(out, ",\"offset\":");
    appendUnsigned(out, event.offset);
    switch (event.kind) {
        case EventKind::OpenFailed:
        case EventKind::ReadError:
            appendLiteral(out, ",\"error\":");
            appendJsonString(out, event.name);
            break;
        case EventKind::DataError:
            appendLiteral(out, ",\"error\":");
            appendJsonString(out, event.name);
            appendLiteral(out, ",\"uncompressed_bytes\":");
            appendSigned(out, event.count);
            break;
        case EventKind::BadLinkType:
            appendLiteral(out, ",\"link_type\":");
            appendUnsigned(out, event.length);
            break;
        case EventKind::Oversized:
        case EventKind::SyslogTooShort:
            appendLiteral(out, ",\"length\":");
            appendUnsigned(out, event.length);
            break;
        case EventKind::Truncated:
            // A damaged pcapng block ends the capture between records: no
            // record length to tell.
            if (event.length != 0) {
                appendLiteral(out, ",\"expected\":");
                appendUnsigned(out, event.length);
                appendLiteral(out, ",\"present\":");
                appendSigned(out, event.count);
            }
            break;
        case EventKind::UnknownLogId:
        case EventKind::InvalidPacketType:
            appendLiteral(out, ",\"log_id\":\"");
            appendHexNumber(out, event.logId);
            appendLiteral(out, "\",\"packet_type\":");
            appendUnsigned(out, event.packetType);
            // What a reader of an incomplete dictionary needs to place the
            // record: its time, level, number and bytes.
            appendLiteral(out, ",\"epoch_us\":");
            appendUnsigned(
                out, std::uint64_t(event.pcapHeader.tsSec) * 1000000u + event.pcapHeader.tsUsec);
            appendLiteral(out, ",\"level_no\":");
            appendUnsigned(out, event.binLogHeader.logLevel);
            appendLiteral(out, ",\"seq\":");
            appendUnsigned(out, event.binLogHeader.seqNo);
            appendLiteral(out, ",\"payload\":");
            appendHexBytes(out, event.payload);
            break;
        case EventKind::Resync:
            appendLiteral(out, ",\"skipped\":");
            appendSigned(out, event.count);
            appendLiteral(out, ",\"compressed_skipped\":");
            appendUnsigned(out, event.compressedSkipped);
            if (event.length != 0) {
                appendLiteral(out, ",\"found\":true");
            } else {
                appendLiteral(out, ",\"found\":false");
            }
            break;
        case EventKind::VersionMismatch:
            appendLiteral(out, ",\"log_id\":\"");
            appendHexNumber(out, event.logId);
            appendLiteral(out, "\",\"log\":");
            appendJsonString(out, event.name);
            appendLiteral(out, ",\"version\":");
            appendUnsigned(out, event.version);
            appendLiteral(out, ",\"expected_version\":");
            appendUnsigned(out, event.expectedVersion);
            break;
        case EventKind::LevelOutOfRange:
            appendLiteral(out, ",\"log_id\":\"");
            appendHexNumber(out, event.logId);
            appendLiteral(out, "\",\"log\":");
            appendJsonString(out, event.name);
            appendLiteral(out, ",\"level_no\":");
            appendUnsigned(out, event.level);
            break;
        case EventKind::VarBinaryTooLong:
            appendLiteral(out, ",\"size\":");
            appendUnsigned(out, event.length);
            appendLiteral(out, ",\"count\":");
            appendSigned(out, event.count);
            break;
        case EventKind::DisplayNotFound:
            appendLiteral(out, ",\"display\":");
            appendJsonString(out, event.name);
            break;
        case EventKind::Gap:
        case EventKind::Reorder:
            appendLiteral(out, ",\"module\":\"");
            appendHexNumber(out, event.module);
            appendLiteral(out, "\",\"last_seq\":");
            appendSigned(out, event.lastSeqNo);
            appendLiteral(out, ",\"seq\":");
            appendSigned(out, event.seqNo);
            if (event.kind == EventKind::Gap) {
                appendLiteral(out, ",\"missing\":");
                appendSigned(out, event.missing);
                appendLiteral(out, ",\"missing_before\":");
                appendSigned(out, event.missingBefore);
            }
            break;
        case EventKind::Summary:
            appendLiteral(out, ",\"total\":");
            appendUnsigned(out, event.summary.totalRecords);
            appendLiteral(out, ",\"missing\":");
            appendUnsigned(out, event.summary.missingRecords);
            appendLiteral(out, ",\"out_of_order\":");
            appendUnsigned(out, event.summary.outOfOrderRecords);
            appendLiteral(out, ",\"bytes\":");
            appendUnsigned(out, event.summary.totalRecordBytes);
            if (event.summary.ratesShown) {
                appendLiteral(out, ",\"received_per_ms\":");
                appendDouble(out, event.summary.receivedPerMs);
                appendLiteral(out, ",\"generated_per_ms\":");
                appendDouble(out, event.summary.generatedPerMs);
            }
            break;
        case EventKind::NoGlobalHeader:
        case EventKind::NotACapture:
        case EventKind::DisplayUnavailable:
        case EventKind::TimestampFailed:
        case EventKind::Note:
            break;
    }
    std::string_view message = event.text;
    if (!message.empty() && message.back() == '\n') {
        message.remove_suffix(1);
    }
    appendLiteral(out, ",\"message\":");
    appendJsonString(out, message);
    out.push_back('}');
}

void writeCsv(Sink& out, const Record& record) {
    const bool texts = !record.text.empty();
    appendCsvField(out, record.capture);
    out.push_back(',');
    appendUnsigned(out, record.number);
    out.push_back(',');
    out.append(kindName(record.kind));
    out.push_back(',');
    writeIsoTime(out, record, threadTexts());
    out.push_back(',');
    appendCsvField(out, record.subsystem);
    out.push_back(',');
    appendCsvField(out, record.module);
    out.push_back(',');
    // A syslog record's tag stands where the line shows it: in place of the
    // log name.
    appendCsvField(out, record.kind == RecordKind::Syslog ? record.syslogTag : record.log);
    out.push_back(',');
    if (record.kind != RecordKind::Capture) {
        appendCsvField(out, record.levelName);
    }
    out.push_back(',');
    appendCsvField(out, record.category);
    out.push_back(',');
    appendUnsigned(out, record.seqNo);
    out.push_back(',');
    appendCsvField(out, record.message);
    out.push_back(',');
    if (record.kind == RecordKind::BinLog || record.kind == RecordKind::Legacy) {
        const std::size_t start = out.size();
        bool first = true;
        appendCsvParams(out, record.header(), texts, first);
        appendCsvParams(out, record.params(), texts, first);
        quoteCsvTail(out, start);
    }
    appendLiteral(out, "\r\n");
}

}  // namespace

const char* csvHeader() {
    return "capture,record,kind,time,subsystem,module,log,level,category,seq,message,params\r\n";
}

void appendIsoTime(std::string& out, const Record& record) {
    Sink sink(out);
    writeIsoTime(sink, record, threadTexts());
    sink.finish();
}

void appendJson(std::string& out, const Record& record) {
    Sink sink(out);
    writeRecord(sink, record);
    sink.finish();
}

void appendJsonString(std::string& out, std::string_view text) {
    Sink sink(out);
    appendJsonString(sink, text);
    sink.finish();
}

void appendJson(std::string& out, const Event& event) {
    Sink sink(out);
    writeEvent(sink, event);
    sink.finish();
}

void appendCsv(std::string& out, const Record& record) {
    Sink sink(out);
    writeCsv(sink, record);
    sink.finish();
}

}  // namespace Tav
