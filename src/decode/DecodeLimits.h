// Limits that keep decoding bounded whatever a dictionary declares.
#ifndef WEXBL_SRC_DECODE_DECODE_LIMITS_H
#define WEXBL_SRC_DECODE_DECODE_LIMITS_H

#include <cstdint>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace detail {

/// No record holds more than MAX_BINLOG_LENGTH bytes, so an integer array or
/// binary string declared longer than that can only run past the end of the
/// record, where every element reads as zero. Rendering stops after this many
/// elements (the text then ends in "..."); offsets still advance by the
/// declared size.
constexpr std::uint32_t kMaxRenderedElements = MAX_BINLOG_LENGTH;

/// Appends the bytes of `bytes` as two lowercase hex digits each, separated by
/// ":", rendering at most `count` bytes starting at `offset`.
void appendHexBytes(std::string& text, const ByteReader& bytes, std::uint64_t offset,
                    std::uint32_t count);

}  // namespace detail
}  // namespace Tav

#endif
