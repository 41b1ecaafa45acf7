// Parsing helpers for the command line and the scripts.
#include "binlog_synth/Text.h"

#include <cstdio>

namespace binlog_synth {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool hasHexPrefix(const std::string& text, std::size_t at) {
    return text.size() > at + 1 && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X');
}

/// Reads the magnitude of a decimal or 0x number starting at `at` (the whole
/// rest of the text); false on an empty or malformed text or a value above
/// 2^64 - 1.
bool parseMagnitude(const std::string& text, std::size_t at, std::uint64_t& value) {
    value = 0;
    if (hasHexPrefix(text, at)) {
        at += 2;
        if (at >= text.size()) {
            return false;
        }
        for (; at < text.size(); ++at) {
            const int d = hexValue(text[at]);
            if (d < 0 || value > (UINT64_MAX >> 4)) {
                return false;
            }
            value = (value << 4) | static_cast<std::uint64_t>(d);
        }
        return true;
    }
    if (at >= text.size()) {
        return false;
    }
    for (; at < text.size(); ++at) {
        if (!isDigit(text[at])) {
            return false;
        }
        const std::uint64_t d = static_cast<std::uint64_t>(text[at] - '0');
        if (value > (UINT64_MAX - d) / 10) {
            return false;
        }
        value = value * 10 + d;
    }
    return true;
}

/// Reads exactly `count` decimal digits at `at`.
bool readDigits(const std::string& text, std::size_t& at, std::size_t count, unsigned& value) {
    value = 0;
    for (std::size_t i = 0; i < count; ++i, ++at) {
        if (at >= text.size() || !isDigit(text[at])) {
            return false;
        }
        value = value * 10 + static_cast<unsigned>(text[at] - '0');
    }
    return true;
}

bool expect(const std::string& text, std::size_t& at, char c) {
    if (at < text.size() && text[at] == c) {
        ++at;
        return true;
    }
    return false;
}

/// Reads up to six fraction digits (at least one) as microseconds.
bool readMicros(const std::string& text, std::size_t& at, std::uint32_t& usec) {
    std::size_t digits = 0;
    usec = 0;
    while (at < text.size() && isDigit(text[at])) {
        if (digits == 6) {
            return false;
        }
        usec = usec * 10 + static_cast<std::uint32_t>(text[at] - '0');
        ++digits;
        ++at;
    }
    if (digits == 0) {
        return false;
    }
    for (; digits < 6; ++digits) {
        usec *= 10;
    }
    return true;
}

/// Inverse of daysFromCivil.
void civilFromDays(std::int64_t z, std::int64_t& year, unsigned& month, unsigned& day) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t y = static_cast<std::int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = y + (month <= 2 ? 1 : 0);
}

}  // namespace

bool parseUnsigned(const std::string& text, std::uint64_t max, std::uint64_t& value) {
    std::uint64_t v = 0;
    if (!parseMagnitude(text, 0, v) || v > max) {
        return false;
    }
    value = v;
    return true;
}

bool parseIntegerBits(const std::string& text, unsigned widthBytes, std::uint64_t& bits) {
    if (widthBytes != 1 && widthBytes != 2 && widthBytes != 4 && widthBytes != 8) {
        return false;
    }
    const bool negative = !text.empty() && text[0] == '-';
    std::uint64_t magnitude = 0;
    if (!parseMagnitude(text, negative ? 1 : 0, magnitude)) {
        return false;
    }
    const unsigned width = widthBytes * 8;
    const std::uint64_t mask = width == 64 ? UINT64_MAX : ((std::uint64_t{1} << width) - 1);
    if (negative) {
        const std::uint64_t limit = std::uint64_t{1} << (width - 1);  // |signed minimum|
        if (magnitude > limit) {
            return false;
        }
        bits = (~magnitude + 1) & mask;
    } else {
        if (magnitude > mask) {
            return false;
        }
        bits = magnitude;
    }
    return true;
}

bool parseHexBytes(const std::string& text, std::string& bytes) {
    std::string out;
    std::size_t at = hasHexPrefix(text, 0) ? 2 : 0;
    int high = -1;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (c == ':') {
            if (high >= 0) {
                return false;  // a separator inside a byte
            }
            continue;
        }
        const int d = hexValue(c);
        if (d < 0) {
            return false;
        }
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<char>((high << 4) | d));
            high = -1;
        }
    }
    if (high >= 0) {
        return false;  // an odd number of digits
    }
    bytes.swap(out);
    return true;
}

std::string toHex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 0xF]);
    }
    return out;
}

std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(year - era * 400);
    const unsigned doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

bool parseTime(const std::string& text, std::uint32_t& sec, std::uint32_t& usec) {
    if (text.size() >= 10 && text[4] == '-') {
        std::size_t at = 0;
        unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
        if (!readDigits(text, at, 4, year) || !expect(text, at, '-') ||
            !readDigits(text, at, 2, month) || !expect(text, at, '-') ||
            !readDigits(text, at, 2, day) || !expect(text, at, 'T') ||
            !readDigits(text, at, 2, hour) || !expect(text, at, ':') ||
            !readDigits(text, at, 2, minute) || !expect(text, at, ':') ||
            !readDigits(text, at, 2, second)) {
            return false;
        }
        std::uint32_t micros = 0;
        if (expect(text, at, '.') && !readMicros(text, at, micros)) {
            return false;
        }
        expect(text, at, 'Z');
        if (at != text.size()) {
            return false;
        }
        static const unsigned kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        if (month < 1 || month > 12 || day < 1 || day > kMonthDays[month - 1] || hour > 23 ||
            minute > 59 || second > 59) {
            return false;
        }
        const std::int64_t days = daysFromCivil(year, month, day);
        std::int64_t checkYear = 0;
        unsigned checkMonth = 0, checkDay = 0;
        civilFromDays(days, checkYear, checkMonth, checkDay);
        if (checkMonth != month || checkDay != day) {
            return false;  // 29 February of a common year
        }
        const std::int64_t total = days * 86400 + hour * 3600 + minute * 60 + second;
        if (total < 0 || total > 0xFFFFFFFFLL) {
            return false;
        }
        sec = static_cast<std::uint32_t>(total);
        usec = micros;
        return true;
    }
    const std::size_t dot = text.find('.');
    std::uint64_t whole = 0;
    if (!parseMagnitude(text.substr(0, dot), 0, whole) || whole > 0xFFFFFFFFULL ||
        hasHexPrefix(text, 0)) {
        return false;
    }
    std::uint32_t micros = 0;
    if (dot != std::string::npos) {
        std::size_t at = dot + 1;
        if (!readMicros(text, at, micros) || at != text.size()) {
            return false;
        }
    }
    sec = static_cast<std::uint32_t>(whole);
    usec = micros;
    return true;
}

std::string formatTime(std::uint32_t sec, std::uint32_t usec) {
    const std::int64_t days = sec / 86400;
    const unsigned rest = sec % 86400;
    std::int64_t year = 0;
    unsigned month = 0, day = 0;
    civilFromDays(days, year, month, day);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02u:%02u:%02u.%03dZ", static_cast<int>(year), month,
             day, rest / 3600, rest / 60 % 60, rest % 60, static_cast<std::int32_t>(usec) / 1000);
    return buf;
}

bool parseDuration(const std::string& text, std::uint64_t& nanoseconds) {
    if (text == "0") {
        nanoseconds = 0;
        return true;
    }
    std::size_t unitAt = 0;
    while (unitAt < text.size() && (isDigit(text[unitAt]) || text[unitAt] == '.')) {
        ++unitAt;
    }
    const std::string number = text.substr(0, unitAt);
    const std::string unit = text.substr(unitAt);
    std::uint64_t scale = 0;
    if (unit == "s") {
        scale = 1000000000ULL;
    } else if (unit == "ms") {
        scale = 1000000ULL;
    } else if (unit == "us") {
        scale = 1000ULL;
    } else if (unit == "ns") {
        scale = 1ULL;
    } else {
        return false;
    }
    const std::size_t dot = number.find('.');
    std::uint64_t whole = 0;
    if (!parseMagnitude(number.substr(0, dot), 0, whole) || hasHexPrefix(number, 0) ||
        whole > 4000000000ULL) {
        return false;
    }
    std::uint64_t result = whole * scale;
    if (dot != std::string::npos) {
        const std::string fraction = number.substr(dot + 1);
        if (fraction.empty() || fraction.size() > 9) {
            return false;
        }
        std::uint64_t digits = 0, divisor = 1;
        for (const char c : fraction) {
            if (!isDigit(c)) {
                return false;
            }
            digits = digits * 10 + static_cast<std::uint64_t>(c - '0');
            divisor *= 10;
        }
        result += digits * scale / divisor;
    }
    nanoseconds = result;
    return true;
}

bool parseRate(const std::string& text, std::uint64_t& num, std::uint64_t& den) {
    const std::size_t dot = text.find('.');
    std::uint64_t whole = 0;
    if (!parseMagnitude(text.substr(0, dot), 0, whole) || hasHexPrefix(text, 0) ||
        whole > 1000000000ULL) {
        return false;
    }
    std::uint64_t n = whole, d = 1;
    if (dot != std::string::npos) {
        const std::string fraction = text.substr(dot + 1);
        if (fraction.empty() || fraction.size() > 6) {
            return false;
        }
        for (const char c : fraction) {
            if (!isDigit(c)) {
                return false;
            }
            n = n * 10 + static_cast<std::uint64_t>(c - '0');
            d *= 10;
        }
    }
    if (n == 0) {
        return false;
    }
    num = n;
    den = d;
    return true;
}

bool tokenizeLine(const std::string& line, std::vector<Token>& tokens, std::string& error) {
    tokens.clear();
    std::size_t at = 0;
    const std::size_t n = line.size();
    while (true) {
        while (at < n && (line[at] == ' ' || line[at] == '\t' || line[at] == '\r')) {
            ++at;
        }
        if (at >= n || line[at] == '#') {
            return true;
        }
        Token token;
        std::string* part = &token.key;
        while (at < n && line[at] != ' ' && line[at] != '\t' && line[at] != '\r') {
            const char c = line[at];
            if (c == '=' && !token.hasValue) {
                token.hasValue = true;
                part = &token.value;
                ++at;
                continue;
            }
            if (c != '"') {
                part->push_back(c);
                ++at;
                continue;
            }
            token.quoted = true;
            ++at;
            bool closed = false;
            while (at < n) {
                const char q = line[at++];
                if (q == '"') {
                    closed = true;
                    break;
                }
                if (q != '\\') {
                    part->push_back(q);
                    continue;
                }
                if (at >= n) {
                    break;
                }
                const char e = line[at++];
                switch (e) {
                    case 'n':
                        part->push_back('\n');
                        break;
                    case 'r':
                        part->push_back('\r');
                        break;
                    case 't':
                        part->push_back('\t');
                        break;
                    case '0':
                        part->push_back('\0');
                        break;
                    case '\\':
                        part->push_back('\\');
                        break;
                    case '"':
                        part->push_back('"');
                        break;
                    case 'x': {
                        const int h = at < n ? hexValue(line[at]) : -1;
                        const int l = at + 1 < n ? hexValue(line[at + 1]) : -1;
                        if (h < 0 || l < 0) {
                            error = "bad \\x escape (two hex digits expected)";
                            return false;
                        }
                        part->push_back(static_cast<char>((h << 4) | l));
                        at += 2;
                        break;
                    }
                    default:
                        error = std::string("unknown escape \\") + e;
                        return false;
                }
            }
            if (!closed) {
                error = "unterminated quoted string";
                return false;
            }
        }
        tokens.push_back(std::move(token));
    }
}

std::string lower(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

}  // namespace binlog_synth
