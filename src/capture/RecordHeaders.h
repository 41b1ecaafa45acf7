// Decoding of the two 16-byte record headers from record bytes. Every field
// is little-endian on the wire and is read byte by byte, so the bytes need no
// alignment and the result is the same on any host.
#ifndef WEXBL_SRC_CAPTURE_RECORD_HEADERS_H
#define WEXBL_SRC_CAPTURE_RECORD_HEADERS_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "BinLogRecordHeaders.h"
#include "WexOamBinLogXmlReader/ByteReader.h"

namespace Tav {

/// Bounded copy: copies min(dstSize, srcSize) bytes and returns that count.
inline std::size_t memscpy(void* dst, std::size_t dstSize, const void* src, std::size_t srcSize) {
    const std::size_t n = dstSize < srcSize ? dstSize : srcSize;
    if (n != 0) {
        std::memcpy(dst, src, n);
    }
    return n;
}

namespace detail {

/// The PcapRecHeader at `offset`: tsSec, tsUsec, capturedLength,
/// storageLength.
inline PcapRecHeader readPcapRecHeader(const ByteReader& bytes, std::uint64_t offset) {
    PcapRecHeader header;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // The structure is the wire layout (see BinLogRecordHeaders.h).
    if (bytes.available(offset) >= sizeof header) {
        std::memcpy(&header, bytes.data() + offset, sizeof header);
        return header;
    }
#endif
    header.tsSec = bytes.get_u32le(offset);
    header.tsUsec = bytes.get_u32le(offset + 4);
    header.capturedLength = bytes.get_u32le(offset + 8);
    header.storageLength = bytes.get_u32le(offset + 12);
    return header;
}

/// The BinLogHeader at `offset`: packetType, logId, logLevel, logVersion,
/// seqNo.
inline BinLogHeader readBinLogHeader(const ByteReader& bytes, std::uint64_t offset) {
    BinLogHeader header;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (bytes.available(offset) >= sizeof header) {
        std::memcpy(&header, bytes.data() + offset, sizeof header);
        return header;
    }
#endif
    header.packetType = bytes.get_u32le(offset);
    header.logId = bytes.get_u32le(offset + 4);
    header.logLevel = bytes.get_u16le(offset + 8);
    header.logVersion = bytes.get_u16le(offset + 10);
    header.seqNo = bytes.get_u32le(offset + 12);
    return header;
}

}  // namespace detail
}  // namespace Tav

#endif
