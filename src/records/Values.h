// Values read from a payload and the texts they show as. Shared by the
// plan-driven decoder and the step-by-step decoding members, so that both
// always produce the same characters.
#ifndef WEXBL_SRC_RECORDS_VALUES_H
#define WEXBL_SRC_RECORDS_VALUES_H

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "WexOamBinLogXmlReader/ByteReader.h"
#include "dictionary/Plan.h"
#include "records/Text.h"

namespace Tav {
namespace detail {

/// The little-endian value of type T at `offset` when part of it lies past
/// the end of the payload (that part reads as zero).
template <typename T>
__attribute__((noinline)) T readLittleEndianSlow(const ByteReader& payload, std::uint64_t offset) {
    unsigned char bytes[sizeof(T)];
    payload.copy(offset, bytes, sizeof bytes);
    std::uint64_t raw = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        raw |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    }
    return static_cast<T>(raw);
}

/// The little-endian value of type T at `offset`; bytes past the end of the
/// payload read as zero.
template <typename T>
inline __attribute__((always_inline)) T readLittleEndian(const ByteReader& payload,
                                                         std::uint64_t offset) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (offset <= payload.size() && payload.size() - offset >= sizeof(T)) {
        T value;
        std::memcpy(&value, payload.data() + offset, sizeof value);
        return value;
    }
#endif
    return readLittleEndianSlow<T>(payload, offset);
}

/// Calls `f` with a zero of the C++ integer type that `type` names (only its
/// type counts) and returns true; false, without a call, for the string
/// kinds. The one place where a parameter's type becomes code for its C++
/// type.
template <typename F>
inline bool withIntegerType(ParamType type, F&& f) {
    switch (type) {
        case ParamType::Uint64:
            f(std::uint64_t{});
            return true;
        case ParamType::Int64:
            f(std::int64_t{});
            return true;
        case ParamType::Uint32:
            f(std::uint32_t{});
            return true;
        case ParamType::Int32:
            f(std::int32_t{});
            return true;
        case ParamType::Uint16:
            f(std::uint16_t{});
            return true;
        case ParamType::Int16:
            f(std::int16_t{});
            return true;
        case ParamType::Uint8:
            f(std::uint8_t{});
            return true;
        case ParamType::Int8:
            f(std::int8_t{});
            return true;
        default:
            return false;
    }
}

/// The text of a string parameter of `length` bytes at `offset`: up to its
/// first NUL; bytes past the record are NULs. An empty text may have no
/// data pointer at all.
inline std::string_view payloadString(const ByteReader& payload, std::uint64_t offset,
                                      std::uint32_t length) {
    const std::size_t have = payload.available(offset);
    const std::size_t span = length < have ? length : have;
    if (span == 0) {
        return std::string_view();
    }
    const char* at = reinterpret_cast<const char*>(payload.data()) + offset;
    const void* nul = std::memchr(at, '\0', span);
    return std::string_view(
        at, nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - at) : span);
}

/// The eight hex digits (lowercase) of `value` as characters, the most
/// significant in the lowest byte (first in memory): its nibbles spread one
/// to a byte, then made digits all at once.
inline std::uint64_t hexCharacters(std::uint32_t value) {
    std::uint64_t nibbles = value;
    nibbles = (nibbles | nibbles << 16) & 0x0000FFFF0000FFFFull;
    nibbles = (nibbles | nibbles << 8) & 0x00FF00FF00FF00FFull;
    nibbles = (nibbles | nibbles << 4) & 0x0F0F0F0F0F0F0F0Full;  // the last nibble first
    const std::uint64_t letters = (nibbles + 0x0606060606060606ull) >> 4 & 0x0101010101010101ull;
    return __builtin_bswap64(nibbles + 0x3030303030303030ull + letters * ('a' - '0' - 10));
}

/// Writes "0x" and the bit pattern of `value` in lowercase hex without
/// leading zeros (the value's own width, except that 8-bit signed values are
/// widened to 32 bits first) at `at`, which has room for 18 characters (what
/// lies past the text's end may be overwritten), and returns where it ends.
/// The same work whatever the number of digits, as writeDigits32() does.
template <typename T>
char* writeHex(char* at, T value) {
    std::uint64_t pattern;
    if constexpr (std::is_same<T, std::int8_t>::value) {
        pattern = static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    } else {
        pattern = static_cast<std::make_unsigned_t<T>>(value);
    }
    const unsigned digits = static_cast<unsigned>((67 - __builtin_clzll(pattern | 1u)) / 4);
    at[0] = '0';
    at[1] = 'x';
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const unsigned first = digits > 8 ? digits - 8 : 0;  // digits before the last eight
    const unsigned lastShown = digits - first;           // of the last eight
    // (In two shifts: one of 64 bits would be undefined.)
    const unsigned headShift = 4 * (8 - first);
    const std::uint64_t head =
        hexCharacters(static_cast<std::uint32_t>(pattern >> 32)) >> headShift >> headShift;
    const std::uint64_t tail =
        hexCharacters(static_cast<std::uint32_t>(pattern)) >> (8 * (8 - lastShown));
    std::memcpy(at + 2, &head, 8);
    std::memcpy(at + 2 + first, &tail, 8);
#else
    static const char kDigits[] = "0123456789abcdef";
    for (unsigned i = digits; i > 0; --i) {
        at[1 + i] = kDigits[pattern & 0x0F];
        pattern >>= 4;
    }
#endif
    return at + 2 + digits;
}

/// Appends the text writeHex() writes.
template <typename Out, typename T>
void appendHex(Out& out, T value) {
    char text[24];
    const char* const end = writeHex(text, value);
    out.append(text, static_cast<std::size_t>(end - text));
}

/// appendHex into a TextBuilder: the digits are written in place.
template <typename T>
void appendHex(TextBuilder& out, T value) {
    char* const at = out.reserveTail(18);
    out.commit(static_cast<std::size_t>(writeHex(at, value) - at));
}

/// The sign and magnitude of a value, as an enumeration look-up needs them.
template <typename T>
void signAndMagnitude(T value, bool& negative, std::uint64_t& magnitude) {
    if constexpr (std::is_signed<T>::value) {
        negative = value < 0;
        magnitude = negative ? static_cast<std::uint64_t>(0) - static_cast<std::uint64_t>(value)
                             : static_cast<std::uint64_t>(value);
    } else {
        negative = false;
        magnitude = value;
    }
}

/// Appends the text of one integer value of display kind Decimal, Hex or
/// FrameStamp (the kinds that need no enumeration and no message).
template <typename Out, typename T>
void appendPlainInt(Out& out, DisplayKind display, T value) {
    switch (display) {
        case DisplayKind::Hex:
            appendHex(out, value);
            break;
        case DisplayKind::FrameStamp:
            appendFrameStamp(out, static_cast<std::uint32_t>(value));
            break;
        default:
            appendDecimal(out, value);
            break;
    }
}

/// Appends `count` bytes at `offset` as two lowercase hex digits each,
/// separated by ":"; after kMaxRenderedElements bytes ":..." ends the text.
template <typename Out>
void appendHexBytes(Out& out, const ByteReader& bytes, std::uint64_t offset, std::uint32_t count) {
    static const char kDigits[] = "0123456789abcdef";
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    for (std::uint32_t i = 0; i < rendered; ++i) {
        const std::uint8_t byte = bytes.get_u8(offset + i);
        const char text[3] = {':', kDigits[byte >> 4], kDigits[byte & 0x0F]};
        if (i == 0) {
            out.append(text + 1, 2);
        } else {
            out.append(text, 3);
        }
    }
    if (rendered < count) {
        appendLiteral(out, ":...");
    }
}

/// Writes `count` (> 0) bytes at `offset` as appendHexBytes() does, without
/// its ":..." cut, at `at`, which has room for 3 x `count` characters (the
/// separator after the last byte is written too), and returns where the
/// text ends (before that separator). Bytes past the payload show as zero.
inline char* writeHexBytes(char* at, const ByteReader& bytes, std::uint64_t offset,
                           std::uint32_t count) {
    static const char kDigits[] = "0123456789abcdef";
    const std::size_t have = bytes.available(offset);
    const unsigned char* from = have != 0 ? bytes.data() + offset : nullptr;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t byte = i < have ? from[i] : 0;
        at[0] = kDigits[byte >> 4];
        at[1] = kDigits[byte & 0x0F];
        at[2] = ':';
        at += 3;
    }
    return at - 1;
}

/// appendHexBytes into a TextBuilder: the digits are written in place.
inline void appendHexBytes(TextBuilder& out, const ByteReader& bytes, std::uint64_t offset,
                           std::uint32_t count) {
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    if (rendered != 0) {
        const std::size_t length = static_cast<std::size_t>(rendered) * 3 - 1;
        char* at = out.reserveTail(length + 1);
        writeHexBytes(at, bytes, offset, rendered);
        out.commit(length);
    }
    if (rendered < count) {
        appendLiteral(out, ":...");
    }
}

/// Appends the label "name[i]=" as a 100-byte buffer holds it: cut at 99
/// characters.
template <typename Out>
void appendLabel(Out& out, std::string_view name, std::uint32_t index) {
    constexpr std::size_t kLabelMax = 99;
    char tail[24] = {'['};
    char* end = std::to_chars(tail + 1, tail + sizeof tail - 2, static_cast<int>(index)).ptr;
    *end++ = ']';
    *end++ = '=';
    const std::size_t tailLength = static_cast<std::size_t>(end - tail);
    if (name.size() + tailLength <= kLabelMax) {
        out.append(name.data(), name.size());
        out.append(tail, tailLength);
    } else if (name.size() >= kLabelMax) {
        out.append(name.data(), kLabelMax);
    } else {
        out.append(name.data(), name.size());
        out.append(tail, kLabelMax - name.size());
    }
}

/// The count of a var binary string capped by its declared size, as the
/// decoder uses it.
inline std::uint16_t cappedVarCount(std::uint16_t count, std::uint32_t declared) {
    return count > declared ? static_cast<std::uint16_t>(declared) : count;
}

}  // namespace detail
}  // namespace Tav

#endif
