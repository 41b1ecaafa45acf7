// Helpers of the dictionary tests: the names in a parameter list, the number
// of typed entries of a record, and the smallest binlog file that loads.
#ifndef WEXBL_TEST_DICTIONARY_HELPERS_H
#define WEXBL_TEST_DICTIONARY_HELPERS_H

#include <cstddef>
#include <string>
#include <vector>

#include "BinLogDictionary.h"

namespace wexbl_test {

using Names = std::vector<std::string>;

/// A binlog file with a LoggingSubSystem element and nothing else.
inline constexpr char kMinimalBinlog[] =
    "<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" moduleid=\"2\" "
    "binlogversion=\"1\"/>";

/// The `name`s of a parameter list, in order.
template <typename P>
Names namesOf(const std::vector<P>& list) {
    Names names;
    for (const auto& p : list) {
        names.push_back(p.name);
    }
    return names;
}

/// The number of entries in all eleven typed lists.
inline std::size_t totalEntries(const Tav::FlexiParams& f) {
    return f.uint64Params.size() + f.int64Params.size() + f.uint32Params.size() +
           f.int32Params.size() + f.uint16Params.size() + f.int16Params.size() +
           f.uint8Params.size() + f.int8Params.size() + f.stringParams.size() +
           f.binaryStringParams.size() + f.varBinaryStringParams.size();
}

}  // namespace wexbl_test

#endif
