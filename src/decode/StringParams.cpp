// The three string kinds of parameter.
//
//   "string"          exactly `length` bytes of text, NUL-padded
//   "binarystring"    exactly `length` raw bytes, shown as 0a:1b:2c
//   "varbinarystring" u16 little-endian count L, then L raw bytes
#include <cstdio>
#include <cstring>

#include "BinaryLogXmlReader.h"
#include "decode/DecodeLimits.h"

namespace Tav {

namespace detail {

void appendHexBytes(std::string& text, const ByteReader& bytes, std::uint64_t offset,
                    std::uint32_t count) {
    static const char kDigits[] = "0123456789abcdef";
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    text.reserve(text.size() + rendered * 3u);
    for (std::uint32_t i = 0; i < rendered; ++i) {
        if (i != 0) {
            text += ':';
        }
        const std::uint8_t byte = bytes.get_u8(offset + i);
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    if (rendered < count) {
        text += ":...";
    }
}

}  // namespace detail

int BinaryLogXmlReader::decodeStringParams(const ByteReader& payload,
                                           std::vector<TavLogParam<std::string>>& params,
                                           unsigned int& payloadOffset,
                                           std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        // The text ends at its first NUL; bytes beyond the record read as NUL.
        const std::size_t have = payload.available(payloadOffset);
        const std::size_t span = param.length < have ? param.length : have;
        if (span == 0) {
            param.value.clear();
        } else {
            const char* start = reinterpret_cast<const char*>(payload.data()) + payloadOffset;
            const void* nul = std::memchr(start, '\0', span);
            param.value.assign(start, nul ? static_cast<const char*>(nul) - start : span);
        }
        param.displayValue = param.value;
        payloadOffset += param.length;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

int BinaryLogXmlReader::decodeBinaryStringParams(
    const ByteReader& payload, std::vector<TavLogParam<std::string>>& params,
    unsigned int& payloadOffset, std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        detail::appendHexBytes(param.displayValue, payload, payloadOffset, param.length);
        param.value = param.displayValue;
        payloadOffset += param.length;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

int BinaryLogXmlReader::decodeVarBinaryStringParam(
    const ByteReader& payload, std::vector<TavLogParam<std::string>>& params,
    unsigned int& payloadOffset, std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        std::uint16_t count = payload.get_u16le(payloadOffset);
        payloadOffset += 2;
        if (count > param.length) {
            fprintf(stderr, "Variable length:%d in payload is greater thanthe definition %d\n",
                    static_cast<int>(count), static_cast<int>(param.length));
            count = static_cast<std::uint16_t>(param.length);
        }
        char prefix[32];
        snprintf(prefix, sizeof prefix, "payload size:%u ", static_cast<unsigned int>(count));
        param.displayValue += prefix;
        const std::uint32_t shown = count < maxVarBinaryBytes ? count : maxVarBinaryBytes;
        detail::appendHexBytes(param.displayValue, payload, payloadOffset, shown);
        param.value = param.displayValue;
        payloadOffset += count;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

}  // namespace Tav
