// The order in which a binary log payload carries its parameters, stated
// once: grouped by type (u64, i64, u32, i32, u16, i16, u8, i8, string,
// binarystring, varbinarystring), in declaration order within a group, with
// nothing aligned. The loader's header padding, the plans the decoder runs and
// the step-by-step decoding members all walk the typed lists through here.
#ifndef WEXBL_SRC_DICTIONARY_WIRE_ORDER_H
#define WEXBL_SRC_DICTIONARY_WIRE_ORDER_H

#include <cstdint>

#include "BinLogDictionary.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace Tav {
namespace detail {

/// Calls `visit(list, type)` for each typed list of `params` in wire order.
/// `Params` is FlexiParams or a const FlexiParams.
template <typename Params, typename Visit>
void forEachGroup(Params& params, Visit&& visit) {
    visit(params.uint64Params, ParamType::Uint64);
    visit(params.int64Params, ParamType::Int64);
    visit(params.uint32Params, ParamType::Uint32);
    visit(params.int32Params, ParamType::Int32);
    visit(params.uint16Params, ParamType::Uint16);
    visit(params.int16Params, ParamType::Int16);
    visit(params.uint8Params, ParamType::Uint8);
    visit(params.int8Params, ParamType::Int8);
    visit(params.stringParams, ParamType::String);
    visit(params.binaryStringParams, ParamType::BinaryString);
    visit(params.varBinaryStringParams, ParamType::VarBinaryString);
}

/// Bytes of one element of an integer type; 0 for the string kinds.
constexpr std::uint32_t elementSize(ParamType type) {
    switch (type) {
        case ParamType::Uint64:
        case ParamType::Int64:
            return 8;
        case ParamType::Uint32:
        case ParamType::Int32:
            return 4;
        case ParamType::Uint16:
        case ParamType::Int16:
            return 2;
        case ParamType::Uint8:
        case ParamType::Int8:
            return 1;
        default:
            return 0;
    }
}

/// Padding after a module header's declared fixed part, so that the log's
/// own parameters start on a multiple of 4 bytes, or of 8 when the header has
/// a 64-bit parameter. Var binary strings, whose size only the payload knows,
/// are not counted. Sums are unsigned 32-bit: their wrap keeps the remainder.
inline std::uint32_t headerPaddingOf(const FlexiParams& header) {
    std::uint32_t total = 0;
    forEachGroup(header, [&total](const auto& list, ParamType type) {
        if (type == ParamType::VarBinaryString) {
            return;
        }
        const std::uint32_t size = elementSize(type);
        for (const auto& param : list) {
            // A numeric count of 0 is a scalar; string kinds count bytes.
            total += size == 0 ? param.length : size * (param.length == 0 ? 1u : param.length);
        }
    });
    const std::uint32_t alignment =
        header.uint64Params.empty() && header.int64Params.empty() ? 4u : 8u;
    const std::uint32_t rest = total % alignment;
    return rest == 0 ? 0 : alignment - rest;
}

}  // namespace detail
}  // namespace Tav

#endif
