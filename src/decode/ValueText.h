// Text of decoded values, shared by the step-by-step decoders and the
// dispatcher's record path, so that both always produce the same characters.
#ifndef WEXBL_SRC_DECODE_VALUE_TEXT_H
#define WEXBL_SRC_DECODE_VALUE_TEXT_H

#include <charconv>
#include <cstdint>
#include <string>
#include <type_traits>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace detail {

/// No record holds more than MAX_BINLOG_LENGTH bytes, so an integer array or
/// binary string declared longer than that can only run past the end of the
/// record, where every element reads as zero. Rendering stops after this many
/// elements (the text then ends in "..."); offsets still advance by the
/// declared size.
constexpr std::uint32_t kMaxRenderedElements = MAX_BINLOG_LENGTH;

template <typename T>
T readLittleEndian(const ByteReader& payload, std::uint64_t offset) {
    unsigned char bytes[sizeof(T)];
    payload.copy(offset, bytes, sizeof bytes);
    std::uint64_t raw = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        raw |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    }
    return static_cast<T>(raw);
}

/// Appends `value` in decimal; 8-bit values are numbers, never characters.
template <typename T>
void appendDecimal(std::string& out, T value) {
    using Wide = std::conditional_t<std::is_signed<T>::value, long long, unsigned long long>;
    char buf[24];
    const auto result = std::to_chars(buf, buf + sizeof buf, static_cast<Wide>(value));
    out.append(buf, static_cast<std::size_t>(result.ptr - buf));
}

/// Appends "0x" and the bit pattern in lowercase hex without leading zeros:
/// the value's own width, except that 8-bit signed values are widened to 32
/// bits first.
template <typename T>
void appendHex(std::string& out, T value) {
    unsigned long long pattern;
    if constexpr (std::is_same<T, std::int8_t>::value) {
        pattern = static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    } else {
        pattern = static_cast<std::make_unsigned_t<T>>(value);
    }
    char buf[24] = {'0', 'x'};
    const auto result = std::to_chars(buf + 2, buf + sizeof buf, pattern, 16);
    out.append(buf, static_cast<std::size_t>(result.ptr - buf));
}

/// Appends a frame stamp (frame number x 10 + subframe) as "%04u-%02u"; the
/// frame number wraps at 1024.
void appendFrameStamp(std::string& out, std::uint32_t stamp);

/// Sets `text` to the display text of one integer value: "hex", "SF-SFN"
/// (unsigned 32-bit only), "DefaultDisplay", or else the enumeration named by
/// the format (through getDisplay, which may leave `text` as it was).
/// `decimal` is scratch for the enumeration look-up.
template <typename T>
void formatIntValue(const BinaryLogDisplayFormatter& formatter, const std::string& format, T value,
                    std::string& text, std::string& decimal) {
    if (format == kFormatHex) {
        text.clear();
        appendHex(text, value);
    } else if (std::is_same<T, std::uint32_t>::value && format == kFormatSfSfn) {
        text.clear();
        appendFrameStamp(text, static_cast<std::uint32_t>(value));
    } else if (format == kFormatDefault) {
        text.clear();
        appendDecimal(text, value);
    } else {
        decimal.clear();
        appendDecimal(decimal, value);
        formatter.getDisplay(format, decimal, text);
    }
}

/// Appends the text of an integer array parameter, "[name[0]=..,name[1]=..]",
/// reading its elements from `payloadOffset` on and advancing it. `element` is
/// the element text shared by the whole array (an element whose enumeration
/// lacks its value repeats the text before it); it is cleared first. Returns
/// the last element read.
template <typename T>
T appendIntArray(const BinaryLogDisplayFormatter& formatter, const TavLogParam<T>& param,
                 const ByteReader& payload, unsigned int& payloadOffset, std::string& out,
                 std::string& element, std::string& decimal);

/// Sets `out` to a "string" parameter of `length` bytes at `offset`: its text
/// up to the first NUL byte.
void decodeStringText(const ByteReader& payload, std::uint64_t offset, std::uint32_t length,
                      std::string& out);

/// Appends `count` bytes at `offset` as two lowercase hex digits each,
/// separated by ":".
void appendHexBytes(std::string& text, const ByteReader& bytes, std::uint64_t offset,
                    std::uint32_t count);

/// Appends the text of a "varbinarystring" parameter declared with `length`
/// and advances `payloadOffset` past it (by the capped count).
void appendVarBinary(const ByteReader& payload, unsigned int& payloadOffset, std::uint32_t length,
                     std::uint16_t maxShown, std::string& out);

}  // namespace detail
}  // namespace Tav

#endif
