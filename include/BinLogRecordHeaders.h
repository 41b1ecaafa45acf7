// The fixed record headers of a binary log capture.
//
// Every record of a capture is seen through two 16-byte headers: the pcap
// record header that precedes it in the file and the binary log header at the
// start of the log data. Both are little-endian wire layouts without padding;
// the reader copies them out of the record bytes, so they never need to be
// aligned inside a record.
#ifndef WEX_OAM_BINLOG_RECORD_HEADERS_H
#define WEX_OAM_BINLOG_RECORD_HEADERS_H

#include <cstddef>
#include <cstdint>

namespace Tav {

///  0               4               8               12              16
///  +---------------+---------------+---------------+---------------+
///  | tsSec         | tsUsec        | capturedLength| storageLength |
///  +---------------+---------------+---------------+---------------+
/// The pcap record header. `storageLength` (not `capturedLength`) is the number
/// of record data bytes that follow the header in the file.
struct PcapRecHeader {
    std::uint32_t tsSec = 0;
    std::uint32_t tsUsec = 0;
    std::uint32_t capturedLength = 0;
    std::uint32_t storageLength = 0;
};

///  0               4               8       10      12              16
///  +---------------+---------------+-------+-------+---------------+
///  | packetType    | logId         | level |version| seqNo         |
///  +---------------+---------------+-------+-------+---------------+
/// The binary log header at the start of every record's log data.
/// `logId` holds the module key in bits 31-16 and the 1-based log index in
/// bits 15-0.
struct BinLogHeader {
    std::uint32_t packetType = 0;
    std::uint32_t logId = 0;
    std::uint16_t logLevel = 0;
    std::uint16_t logVersion = 0;
    std::uint32_t seqNo = 0;
};

/// Kinds of record, from `BinLogHeader::packetType`.
enum PacketType : std::uint32_t {
    BinLog = 0,
    Legacy = 1,
    Syslog = 2,
    PcapCapture = 3,
};

/// The standard 24-byte pcap file header. Only `linkType` is examined.
struct PcapGlobalHeader {
    std::uint32_t magicNumber = 0;
    std::uint16_t versionMajor = 0;
    std::uint16_t versionMinor = 0;
    std::int32_t thisZone = 0;
    std::uint32_t sigFigs = 0;
    std::uint32_t snapLen = 0;
    std::uint32_t linkType = 0;
};

static_assert(sizeof(PcapRecHeader) == 16, "PcapRecHeader is a 16-byte wire layout");
static_assert(offsetof(PcapRecHeader, tsSec) == 0, "tsSec at offset 0");
static_assert(offsetof(PcapRecHeader, tsUsec) == 4, "tsUsec at offset 4");
static_assert(offsetof(PcapRecHeader, capturedLength) == 8, "capturedLength at offset 8");
static_assert(offsetof(PcapRecHeader, storageLength) == 12, "storageLength at offset 12");

static_assert(sizeof(BinLogHeader) == 16, "BinLogHeader is a 16-byte wire layout");
static_assert(offsetof(BinLogHeader, packetType) == 0, "packetType at offset 0");
static_assert(offsetof(BinLogHeader, logId) == 4, "logId at offset 4");
static_assert(offsetof(BinLogHeader, logLevel) == 8, "logLevel at offset 8");
static_assert(offsetof(BinLogHeader, logVersion) == 10, "logVersion at offset 10");
static_assert(offsetof(BinLogHeader, seqNo) == 12, "seqNo at offset 12");

static_assert(sizeof(PcapGlobalHeader) == 24, "PcapGlobalHeader is a 24-byte wire layout");
static_assert(offsetof(PcapGlobalHeader, linkType) == 20, "linkType at offset 20");

}  // namespace Tav

#endif
