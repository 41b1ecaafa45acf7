// One parameter declaration ("nameList", "type", "count", "size",
// "displayFormat") turned into typed parameter entries.
#include <cstdio>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace {

template <typename T>
void appendNumeric(std::vector<TavLogParam<T>>& list, const std::string& name,
                   const std::string& count, const std::string& displayFormat) {
    TavLogParam<T> param;
    param.name = name;
    param.length = static_cast<std::uint32_t>(parseDecimal32(count));
    param.displayFormat = displayFormat;
    list.push_back(std::move(param));
}

void appendString(std::vector<TavLogParam<std::string>>& list, const std::string& name,
                  std::uint32_t length) {
    TavLogParam<std::string> param;
    param.name = name;
    param.length = length;
    list.push_back(std::move(param));
}

/// Splits at every "," the way strtok_r does: empty pieces are dropped, no
/// white space is trimmed.
std::vector<std::string> splitNames(const std::string& nameList) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start <= nameList.size()) {
        std::size_t comma = nameList.find(',', start);
        if (comma == std::string::npos) {
            comma = nameList.size();
        }
        if (comma > start) {
            names.emplace_back(nameList, start, comma - start);
        }
        start = comma + 1;
    }
    return names;
}

}  // namespace

int BinaryLogXmlReader::tokenizeAndPushToList(const std::string& nameList, const std::string& type,
                                              const std::string& count, const std::string& size,
                                              const std::string& displayFormat, FlexiParams& params,
                                              std::vector<std::string>& paramOrder) {
    const std::string& format = displayFormat.empty() ? kFormatDefault : displayFormat;

    for (const std::string& name : splitNames(nameList)) {
        if (type == kTypeUint8) {
            appendNumeric(params.uint8Params, name, count, format);
        } else if (type == kTypeInt8) {
            appendNumeric(params.int8Params, name, count, format);
        } else if (type == kTypeUint16) {
            appendNumeric(params.uint16Params, name, count, format);
        } else if (type == kTypeInt16) {
            appendNumeric(params.int16Params, name, count, format);
        } else if (type == kTypeUint32) {
            appendNumeric(params.uint32Params, name, count, format);
        } else if (type == kTypeInt32) {
            appendNumeric(params.int32Params, name, count, format);
        } else if (type == kTypeUint64) {
            appendNumeric(params.uint64Params, name, count, format);
        } else if (type == kTypeInt64) {
            appendNumeric(params.int64Params, name, count, format);
        } else if (type == kTypeString) {
            const std::uint32_t length =
                size.empty() ? 14u : static_cast<std::uint32_t>(parseDecimal32(size));
            appendString(params.stringParams, name, length);
        } else if (type == kTypeBinaryString) {
            if (size.empty()) {
                fprintf(stderr, "Size cannot be empty for binary string\n");
                return -1;
            }
            appendString(params.binaryStringParams, name,
                         static_cast<std::uint32_t>(parseDecimal32(size)));
        } else if (type == kTypeVarBinaryString) {
            if (size.empty()) {
                fprintf(stderr, "Size cannot be empty for var binary string\n");
                return -1;
            }
            appendString(params.varBinaryStringParams, name,
                         static_cast<std::uint32_t>(parseDecimal32(size)));
        }
        // The declaration order is kept for every name, known type or not.
        paramOrder.push_back(name);
    }
    return 0;
}

}  // namespace Tav
