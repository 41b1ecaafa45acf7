// Integer parameters: values read little-endian from the payload and turned
// into text by their display format (decimal, hex, frame form, enumeration).
#include <charconv>
#include <cstdio>
#include <type_traits>

#include "BinaryLogXmlReader.h"
#include "decode/DecodeLimits.h"

namespace Tav {
namespace {

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

/// The bit pattern that "hex" shows: the value's own width, except that 8-bit
/// signed values are widened to 32 bits first.
template <typename T>
auto hexPattern(T value) {
    if constexpr (std::is_same<T, std::int8_t>::value) {
        return static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    } else {
        return static_cast<std::make_unsigned_t<T>>(value);
    }
}

template <typename T>
std::string decimalText(T value) {
    // 8-bit values are numbers, never characters.
    using Wide = std::conditional_t<std::is_signed<T>::value, long long, unsigned long long>;
    char buf[24];
    const auto result = std::to_chars(buf, buf + sizeof buf, static_cast<Wide>(value));
    return std::string(buf, result.ptr);
}

template <typename T>
std::string hexText(T value) {
    char buf[24] = {'0', 'x'};
    const auto result = std::to_chars(buf + 2, buf + sizeof buf,
                                      static_cast<unsigned long long>(hexPattern(value)), 16);
    return std::string(buf, result.ptr);
}

}  // namespace

template <typename T>
void BinaryLogXmlReader::convertType(const std::string& displayFormat, T value,
                                     const std::string& name, std::string& text,
                                     std::map<std::string, std::string>& values) {
    if (displayFormat == kFormatHex) {
        text = hexText(value);
    } else if (std::is_same<T, std::uint32_t>::value && displayFormat == kFormatSfSfn) {
        // Frame number x 10 + subframe; the frame number wraps at 1024.
        const auto stamp = static_cast<std::uint32_t>(value);
        char buf[14] = {};
        snprintf(buf, sizeof buf, "%04u-%02u", (stamp / 10) & 0x3FFu, stamp % 10);
        text = buf;
    } else if (displayFormat == kFormatDefault) {
        text = decimalText(value);
    } else {
        // Any other format names an enumeration of the display dictionary.
        displayFormatter.getDisplay(displayFormat, decimalText(value), text);
    }
    values[name] = text;
}

template <typename ParamT>
int BinaryLogXmlReader::decodeIntParams(const ByteReader& payload, std::vector<ParamT>& params,
                                        unsigned int& payloadOffset,
                                        std::map<std::string, std::string>& decodedValues) {
    using T = decltype(ParamT::value);
    constexpr unsigned int kSize = sizeof(T);
    for (ParamT& param : params) {
        if (param.length == 0) {
            param.value = readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += kSize;
            convertType<T>(param.displayFormat, param.value, param.name, param.displayValue,
                           decodedValues);
            continue;
        }
        // An array: one text "[name[0]=..,name[1]=..]". The element text and
        // the map are scratch shared by the whole array, so an element whose
        // enumeration lacks its value repeats the text of the one before.
        const std::uint32_t count = param.length;
        const std::uint32_t rendered =
            count < detail::kMaxRenderedElements ? count : detail::kMaxRenderedElements;
        std::string result = "[";
        std::string scratch;
        std::map<std::string, std::string> scratchMap;
        for (std::uint32_t i = 0; i < rendered; ++i) {
            param.value = readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += kSize;
            convertType<T>(param.displayFormat, param.value, param.name, scratch, scratchMap);
            char label[100] = {};
            snprintf(label, sizeof label, "%s[%d]=", param.name.c_str(), static_cast<int>(i));
            result += label;
            result += scratch;
            if (i + 1 < count) {
                result += ",";
            }
        }
        if (rendered < count) {
            // Everything past here lies beyond any record and reads as zero.
            const std::uint32_t skipped = count - rendered;
            payloadOffset += static_cast<unsigned int>(skipped * kSize - kSize);
            param.value = readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += kSize;
            result += "...";
        }
        result += "]";
        decodedValues[param.name] = result;
    }
    return 0;
}

#define WEXBL_INSTANTIATE_INT_DECODER(T)                                        \
    template WEXBL_API void BinaryLogXmlReader::convertType<T>(                 \
        const std::string&, T, const std::string&, std::string&,                \
        std::map<std::string, std::string>&);                                   \
    template WEXBL_API int BinaryLogXmlReader::decodeIntParams<TavLogParam<T>>( \
        const ByteReader&, std::vector<TavLogParam<T>>&, unsigned int&,         \
        std::map<std::string, std::string>&);

WEXBL_INSTANTIATE_INT_DECODER(std::uint64_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int64_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint32_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int32_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint16_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int16_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint8_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int8_t)

#undef WEXBL_INSTANTIATE_INT_DECODER

}  // namespace Tav
