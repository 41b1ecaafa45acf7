// The three string kinds of parameter.
//
//   "string"          exactly `length` bytes of text, NUL-padded
//   "binarystring"    exactly `length` raw bytes, shown as 0a:1b:2c
//   "varbinarystring" u16 little-endian count L, then L raw bytes
#include "BinaryLogXmlReader.h"
#include "decode/ValueText.h"

namespace Tav {

int BinaryLogXmlReader::decodeStringParams(const ByteReader& payload,
                                           std::vector<TavLogParam<std::string>>& params,
                                           unsigned int& payloadOffset,
                                           std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        detail::decodeStringText(payload, payloadOffset, param.length, param.value);
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
        detail::appendVarBinary(payload, payloadOffset, param.length, maxVarBinaryBytes,
                                param.displayValue);
        param.value = param.displayValue;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

}  // namespace Tav
