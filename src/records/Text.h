// Building blocks of the record lines: a growable text buffer and the small
// pieces every line is made of.
#ifndef WEXBL_SRC_RECORDS_TEXT_H
#define WEXBL_SRC_RECORDS_TEXT_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Tav {
namespace detail {

/// A growable text whose appends stay inline; it keeps its storage between
/// records, so a warm buffer never allocates. (Its own buffer and capacity
/// rather than a vector's: every append checks the room left, and one member
/// is read where a vector has two pointers.)
class TextBuilder {
  public:
    TextBuilder() = default;
    TextBuilder(const TextBuilder&) = delete;
    TextBuilder& operator=(const TextBuilder&) = delete;
    void clear() { size_ = 0; }
    const char* data() const { return storage_.get(); }
    char* data() { return storage_.get(); }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    std::string_view view() const { return std::string_view(storage_.get(), size_); }
    std::string_view view(std::size_t start, std::size_t length) const {
        return std::string_view(storage_.get() + start, length);
    }
    void truncate(std::size_t size) { size_ = size < size_ ? size : size_; }
    void append(const char* text, std::size_t length) {
        if (length <= 16 && length <= capacity_ - size_) {
            // Most pieces of a line are short: copied inline, not by a call.
            copySmall(storage_.get() + size_, text, length);
            size_ += length;
        } else if (length != 0) {
            std::memcpy(grow(length), text, length);
        }
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void push_back(char c) { *grow(1) = c; }
    void append(std::size_t count, char c) {
        if (count != 0) {
            std::memset(grow(count), c, count);
        }
    }
    /// Makes room for `length` more characters without adding them: they are
    /// written at the returned place and counted with commit().
    char* reserveTail(std::size_t length) {
        if (length > capacity_ - size_) {
            grow(length);
            size_ -= length;
        }
        return storage_.get() + size_;
    }
    void commit(std::size_t length) { size_ += length; }
    /// Makes room for `length` more characters and returns where they go.
    /// Throws std::length_error rather than wrapping the size.
    char* grow(std::size_t length) {
        if (length > capacity_ - size_) {
            enlarge(length);
        }
        char* at = storage_.get() + size_;
        size_ += length;
        return at;
    }

  private:
    /// Copies `n` <= 16 bytes with fixed-size moves that stay inside both
    /// ranges (two overlapping halves).
    static void copySmall(char* to, const char* from, std::size_t n) {
        if (n >= 8) {
            std::uint64_t head;
            std::uint64_t tail;
            std::memcpy(&head, from, 8);
            std::memcpy(&tail, from + n - 8, 8);
            std::memcpy(to, &head, 8);
            std::memcpy(to + n - 8, &tail, 8);
        } else if (n >= 4) {
            std::uint32_t head;
            std::uint32_t tail;
            std::memcpy(&head, from, 4);
            std::memcpy(&tail, from + n - 4, 4);
            std::memcpy(to, &head, 4);
            std::memcpy(to + n - 4, &tail, 4);
        } else if (n != 0) {
            to[0] = from[0];
            to[n / 2] = from[n / 2];
            to[n - 1] = from[n - 1];
        }
    }

    /// Room for `length` more characters: at least twice the size needed,
    /// at least 256.
    void enlarge(std::size_t length) {
        constexpr std::size_t kLimit = std::numeric_limits<std::ptrdiff_t>::max();
        if (length > kLimit - size_) {
            throw std::length_error("text too long");
        }
        const std::size_t needed = size_ + length;
        const std::size_t capacity = needed > kLimit / 2 ? kLimit
                                     : needed * 2 < 256  ? 256
                                                         : needed * 2;
        std::unique_ptr<char[]> larger(new char[capacity]);
        if (size_ != 0) {
            std::memcpy(larger.get(), storage_.get(), size_);
        }
        storage_ = std::move(larger);
        capacity_ = capacity;
    }

    std::unique_ptr<char[]> storage_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

template <typename Out, std::size_t N>
void appendLiteral(Out& out, const char (&text)[N]) {
    out.append(text, N - 1);
}

/// A text as "%s" prints it: up to its first NUL.
inline std::string_view printed(std::string_view text) {
    const void* nul = std::memchr(text.data(), '\0', text.size());
    return nul ? text.substr(0,
                             static_cast<std::size_t>(static_cast<const char*>(nul) - text.data()))
               : text;
}

/// Appends `text` as "%*s" prints it: blank-padded on the left to `width`.
template <typename Out>
void appendPadded(Out& out, std::string_view text, std::size_t width) {
    if (text.size() < width) {
        out.append(width - text.size(), ' ');
    }
    out.append(text.data(), text.size());
}

/// The two-digit texts "00" to "99", one after the other.
inline constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

/// Writes the decimal digits of `value` ending just before `end` and
/// returns where they start (two digits per step).
template <typename U>
char* writeDigitsBackwards(char* end, U value) {
    char* at = end;
    while (value >= 100) {
        const unsigned pair = static_cast<unsigned>(value % 100);
        value /= 100;
        at -= 2;
        std::memcpy(at, kDigitPairs + 2 * pair, 2);
    }
    if (value >= 10) {
        at -= 2;
        std::memcpy(at, kDigitPairs + 2 * static_cast<unsigned>(value), 2);
    } else {
        *--at = static_cast<char>('0' + static_cast<unsigned>(value));
    }
    return at;
}

/// Number of decimal digits of `value` (1 for zero): from its bit length
/// (times log10(2) ~ 1233/4096), less one when below that power of ten.
inline unsigned decimalDigits(std::uint64_t value) {
    static constexpr std::uint64_t kPowers[20] = {1ull,
                                                  10ull,
                                                  100ull,
                                                  1000ull,
                                                  10000ull,
                                                  100000ull,
                                                  1000000ull,
                                                  10000000ull,
                                                  100000000ull,
                                                  1000000000ull,
                                                  10000000000ull,
                                                  100000000000ull,
                                                  1000000000000ull,
                                                  10000000000000ull,
                                                  100000000000000ull,
                                                  1000000000000000ull,
                                                  10000000000000000ull,
                                                  100000000000000000ull,
                                                  1000000000000000000ull,
                                                  10000000000000000000ull};
    // Zero counts as one (a digit); setting the lowest bit moves no value
    // across a power of ten, as those are even.
    const std::uint64_t odd = value | 1u;
    const unsigned bits = 64u - static_cast<unsigned>(__builtin_clzll(odd));
    const unsigned guess = bits * 1233u >> 12;
    return guess + 1u - (odd < kPowers[guess] ? 1u : 0u);
}

/// Writes `value` (below 2^32) in decimal at `at`, which has room for 16
/// characters, and returns where the digits end. The same work whatever the
/// number of digits: all ten are worked out, in registers, and stored with
/// the leading zeros shifted out. Numbers of varying widths (most values a
/// log shows) would otherwise make the processor guess wrong about the
/// branches that pick the width, which costs more than the digits
/// themselves; and digits stored piece by piece and loaded again at once
/// would wait for the stores.
inline __attribute__((always_inline)) char* writeDigits32(char* at, std::uint32_t value) {
    const unsigned digits = decimalDigits(value);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const auto pair = [](std::uint32_t twoDigits) {
        std::uint16_t text;
        std::memcpy(&text, kDigitPairs + 2 * twoDigits, 2);
        return std::uint64_t{text};
    };
    const std::uint32_t high = value / 100000000u;  // 0 to 42: the first two digits
    const std::uint32_t low = value % 100000000u;   // the last eight
    const std::uint32_t upper = low / 10000u;
    const std::uint32_t lower = low % 10000u;
    // The last eight digits as characters, the first in the lowest byte.
    const std::uint64_t last = pair(upper / 100u) | pair(upper % 100u) << 16 |
                               pair(lower / 100u) << 32 | pair(lower % 100u) << 48;
    const unsigned first = digits > 8 ? digits - 8 : 0;  // digits before the last eight
    const unsigned lastShown = digits - first;           // of the last eight
    const auto head = static_cast<std::uint16_t>(pair(high) >> (8 * (2 - first)));
    const std::uint64_t tail = last >> (8 * (8 - lastShown));
    std::memcpy(at, &head, 2);
    std::memcpy(at + first, &tail, 8);
#else
    writeDigitsBackwards(at + digits, value);
#endif
    return at + digits;
}

/// Writes `value` in decimal ("%u", "%d", "%llu" ...; 8-bit values as
/// numbers) at `at`, which has room for 21 characters (a sign and 20
/// digits; what lies past the text's end may be overwritten), and returns
/// where the text ends. Values below 2^32 take no branch on their width.
template <typename T>
inline __attribute__((always_inline)) char* writeDecimal(char* at, T value) {
    using Unsigned = std::conditional_t<(sizeof(T) > 4), std::uint64_t, std::uint32_t>;
    Unsigned magnitude = static_cast<Unsigned>(value);
    if constexpr (std::is_signed<T>::value) {
        // The sign is written always and kept for a negative value only; the
        // magnitude of the most negative value fits the unsigned type.
        const bool negative = value < 0;
        *at = '-';
        at += negative ? 1 : 0;
        magnitude = negative ? static_cast<Unsigned>(Unsigned{0} - magnitude) : magnitude;
    }
    if constexpr (sizeof(Unsigned) > 4) {
        if (magnitude > 0xFFFFFFFFu) {
            char* const end = at + decimalDigits(magnitude);
            writeDigitsBackwards(end, magnitude);
            return end;
        }
    }
    return writeDigits32(at, static_cast<std::uint32_t>(magnitude));
}

/// Appends `value` in decimal ("%u", "%d", "%llu" ...); 8-bit values as
/// numbers, never characters.
template <typename Out, typename T>
void appendDecimal(Out& out, T value) {
    char text[32];
    const char* const end = writeDecimal(text, value);
    out.append(text, static_cast<std::size_t>(end - text));
}

/// appendDecimal into a TextBuilder: the digits are written in place, with
/// one room check for the longest text.
template <typename T>
inline __attribute__((always_inline)) void appendDecimal(TextBuilder& out, T value) {
    char* const at = out.reserveTail(21);
    out.commit(static_cast<std::size_t>(writeDecimal(at, value) - at));
}

/// Appends `value` in decimal right-aligned in `width` ("%10d").
template <typename Out, typename T>
void appendDecimalPadded(Out& out, T value, std::size_t width) {
    using Wide = std::conditional_t<std::is_signed<T>::value, long long, unsigned long long>;
    char buf[24];
    const auto result = std::to_chars(buf, buf + sizeof buf, static_cast<Wide>(value));
    appendPadded(out, std::string_view(buf, static_cast<std::size_t>(result.ptr - buf)), width);
}

/// Writes a frame stamp (frame number x 10 + subframe) as "%04u-%02u" of
/// (stamp / 10) & 0x3FF and stamp % 10 (the frame number wraps at 1024) at
/// `at`, which has room for its 7 characters; returns where it ends.
inline char* writeFrameStamp(char* at, std::uint32_t stamp) {
    const std::uint32_t frame = (stamp / 10) & 0x3FFu;
    at[0] = static_cast<char>('0' + frame / 1000);
    at[1] = static_cast<char>('0' + frame / 100 % 10);
    at[2] = static_cast<char>('0' + frame / 10 % 10);
    at[3] = static_cast<char>('0' + frame % 10);
    at[4] = '-';
    at[5] = '0';
    at[6] = static_cast<char>('0' + stamp % 10);
    return at + 7;
}

/// Appends a frame stamp as writeFrameStamp() writes it.
template <typename Out>
void appendFrameStamp(Out& out, std::uint32_t stamp) {
    char text[7];
    writeFrameStamp(text, stamp);
    out.append(text, sizeof text);
}

/// The time text of the last second shown, so that records of the same
/// second skip the calendar conversion.
struct TimeTextCache {
    std::uint32_t second = 0;
    bool valid = false;
    char prefix[64] = {};
    std::size_t prefixLength = 0;
};

/// Makes `cache` hold the date and clock text of `seconds` (since 1970,
/// unsigned): the calendar conversion runs on a new second only. Returns
/// false, leaving the cache as it was, when the conversion fails.
bool convertSecond(TimeTextCache& cache, std::uint32_t seconds);

inline bool prepareTimeText(TimeTextCache& cache, std::uint32_t seconds) {
    return (cache.valid && cache.second == seconds) || convertSecond(cache, seconds);
}

/// Appends ".mmmZ" for `usec / 1000` (truncated toward zero, so an
/// out-of-range value shows as it is, "%03d").
void appendOddMillis(TextBuilder& out, std::int32_t millis);

/// Appends the time text "YYYY-MM-DDTHH:MM:SS.mmmZ" held by a prepared
/// cache, with the milliseconds of `usec`.
inline void appendPreparedTimeText(TextBuilder& out, const TimeTextCache& cache,
                                   std::int32_t usec) {
    // The "Z" stays even when an offset was added: the offset shifts the
    // shown clock only.
    const std::int32_t millis = usec / 1000;
    if (millis >= 0 && millis < 1000 && cache.prefixLength <= 32) {
        // The date and clock copied 32 bytes at once (the cache holds 64),
        // the milliseconds written over what lies past them.
        char* at = out.reserveTail(37);
        std::memcpy(at, cache.prefix, 32);
        at += cache.prefixLength;
        at[0] = '.';
        at[1] = static_cast<char>('0' + millis / 100);
        std::memcpy(at + 2, kDigitPairs + 2 * (millis % 100), 2);
        at[4] = 'Z';
        out.commit(cache.prefixLength + 5);
        return;
    }
    out.append(cache.prefix, cache.prefixLength);
    appendOddMillis(out, millis);
}

/// Appends the time text "YYYY-MM-DDTHH:MM:SS.mmmZ" of `seconds` (since
/// 1970, unsigned) with the milliseconds `usec / 1000`. Returns false,
/// appending nothing, when the calendar conversion fails.
inline bool appendTimeText(TextBuilder& out, TimeTextCache& cache, std::uint32_t seconds,
                           std::int32_t usec) {
    if (!prepareTimeText(cache, seconds)) {
        return false;
    }
    appendPreparedTimeText(out, cache, usec);
    return true;
}

}  // namespace detail
}  // namespace Tav

#endif
