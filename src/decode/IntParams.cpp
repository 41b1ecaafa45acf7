// Integer parameters: values read little-endian from the payload and turned
// into text by their display format (decimal, hex, frame form, enumeration).
#include "BinaryLogXmlReader.h"
#include "decode/ValueText.h"

namespace Tav {

template <typename T>
void BinaryLogXmlReader::convertType(const std::string& displayFormat, T value,
                                     const std::string& name, std::string& text,
                                     std::map<std::string, std::string>& values) {
    std::string decimal;
    detail::formatIntValue(displayFormatter, displayFormat, value, text, decimal);
    values[name] = text;
}

template <typename ParamT>
int BinaryLogXmlReader::decodeIntParams(const ByteReader& payload, std::vector<ParamT>& params,
                                        unsigned int& payloadOffset,
                                        std::map<std::string, std::string>& decodedValues) {
    using T = decltype(ParamT::value);
    for (ParamT& param : params) {
        if (param.length == 0) {
            param.value = detail::readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += sizeof(T);
            convertType<T>(param.displayFormat, param.value, param.name, param.displayValue,
                           decodedValues);
            continue;
        }
        // An array: `value` ends up holding the last element, `displayValue`
        // is left alone.
        std::string text;
        std::string element;
        std::string decimal;
        param.value = detail::appendIntArray(displayFormatter, param, payload, payloadOffset, text,
                                             element, decimal);
        decodedValues[param.name] = text;
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
