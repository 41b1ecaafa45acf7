#include "decode/ValueText.h"

#include <cstdio>
#include <cstring>

namespace Tav {
namespace detail {

void appendFrameStamp(std::string& out, std::uint32_t stamp) {
    // "%04u-%02u": the frame number has at most four digits, the subframe one.
    const std::uint32_t frame = (stamp / 10) & 0x3FFu;
    const char text[7] = {static_cast<char>('0' + frame / 1000),
                          static_cast<char>('0' + frame / 100 % 10),
                          static_cast<char>('0' + frame / 10 % 10),
                          static_cast<char>('0' + frame % 10),
                          '-',
                          '0',
                          static_cast<char>('0' + stamp % 10)};
    out.append(text, sizeof text);
}

namespace {

/// Appends the label "name[i]=" as a 100-byte buffer would hold it: cut at
/// 99 characters.
void appendLabel(std::string& out, const std::string& name, std::uint32_t index) {
    constexpr std::size_t kLabelMax = 99;
    char digits[16];
    const char* end = std::to_chars(digits, digits + sizeof digits, static_cast<int>(index)).ptr;
    const std::size_t start = out.size();
    const std::size_t length = name.size() + static_cast<std::size_t>(end - digits) + 3;
    out.resize(start + length);
    char* dst = &out[start];
    std::memcpy(dst, name.data(), name.size());
    dst += name.size();
    *dst++ = '[';
    std::memcpy(dst, digits, static_cast<std::size_t>(end - digits));
    dst += end - digits;
    dst[0] = ']';
    dst[1] = '=';
    if (length > kLabelMax) {
        out.resize(start + kLabelMax);
    }
}

}  // namespace

template <typename T>
T appendIntArray(const BinaryLogDisplayFormatter& formatter, const TavLogParam<T>& param,
                 const ByteReader& payload, unsigned int& payloadOffset, std::string& out,
                 std::string& element, std::string& decimal) {
    constexpr unsigned int kSize = sizeof(T);
    const std::uint32_t count = param.length;
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    T value{};
    element.clear();
    out += '[';
    for (std::uint32_t i = 0; i < rendered; ++i) {
        value = readLittleEndian<T>(payload, payloadOffset);
        payloadOffset += kSize;
        formatIntValue(formatter, param.displayFormat, value, element, decimal);
        appendLabel(out, param.name, i);
        out += element;
        if (i + 1 < count) {
            out += ',';
        }
    }
    if (rendered < count) {
        // Everything past here lies beyond any record and reads as zero.
        payloadOffset += static_cast<unsigned int>((count - rendered) * kSize - kSize);
        value = readLittleEndian<T>(payload, payloadOffset);
        payloadOffset += kSize;
        out += "...";
    }
    out += ']';
    return value;
}

#define WEXBL_INSTANTIATE_ARRAY(T)                                                             \
    template T appendIntArray<T>(const BinaryLogDisplayFormatter&, const TavLogParam<T>&,      \
                                 const ByteReader&, unsigned int&, std::string&, std::string&, \
                                 std::string&);
WEXBL_INSTANTIATE_ARRAY(std::uint64_t)
WEXBL_INSTANTIATE_ARRAY(std::int64_t)
WEXBL_INSTANTIATE_ARRAY(std::uint32_t)
WEXBL_INSTANTIATE_ARRAY(std::int32_t)
WEXBL_INSTANTIATE_ARRAY(std::uint16_t)
WEXBL_INSTANTIATE_ARRAY(std::int16_t)
WEXBL_INSTANTIATE_ARRAY(std::uint8_t)
WEXBL_INSTANTIATE_ARRAY(std::int8_t)
#undef WEXBL_INSTANTIATE_ARRAY

void decodeStringText(const ByteReader& payload, std::uint64_t offset, std::uint32_t length,
                      std::string& out) {
    // Bytes beyond the record read as NUL, so the text ends there at the latest.
    const std::size_t have = payload.available(offset);
    const std::size_t span = length < have ? length : have;
    if (span == 0) {
        out.clear();
        return;
    }
    const char* start = reinterpret_cast<const char*>(payload.data()) + offset;
    const void* nul = std::memchr(start, '\0', span);
    out.assign(start, nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - start) : span);
}

void appendHexBytes(std::string& text, const ByteReader& bytes, std::uint64_t offset,
                    std::uint32_t count) {
    static const char kDigits[] = "0123456789abcdef";
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    if (rendered != 0) {
        const std::size_t start = text.size();
        text.resize(start + rendered * 3u - 1);
        char* dst = &text[start];
        for (std::uint32_t i = 0; i < rendered; ++i) {
            if (i != 0) {
                *dst++ = ':';
            }
            const std::uint8_t byte = bytes.get_u8(offset + i);
            *dst++ = kDigits[byte >> 4];
            *dst++ = kDigits[byte & 0x0F];
        }
    }
    if (rendered < count) {
        text += ":...";
    }
}

void appendVarBinary(const ByteReader& payload, unsigned int& payloadOffset, std::uint32_t length,
                     std::uint16_t maxShown, std::string& out) {
    std::uint16_t count = payload.get_u16le(payloadOffset);
    payloadOffset += 2;
    if (count > length) {
        fprintf(stderr, "Variable length:%d in payload is greater thanthe definition %d\n",
                static_cast<int>(count), static_cast<int>(length));
        count = static_cast<std::uint16_t>(length);
    }
    out += "payload size:";
    appendDecimal(out, static_cast<unsigned int>(count));
    out += ' ';
    appendHexBytes(out, payload, payloadOffset, count < maxShown ? count : maxShown);
    // The capped count: bytes the payload's own count still covers are read
    // as the following parameters.
    payloadOffset += count;
}

}  // namespace detail
}  // namespace Tav
