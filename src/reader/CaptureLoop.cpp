// The capture file loop: a pcap file, gzip-compressed or not, read record by
// record and handed to the dispatcher.
//
// Link type 150: the record data is the binary log itself.
//   +----------------+---------------------------------+
//   | BinLogHeader 16| log payload                     |
//   +----------------+---------------------------------+
//
// Link type 1: an Ethernet frame carrying the log in a UDP datagram whose
// payload starts with the sender's own 16-byte record header.
//                      IPv4 (0x0800)   IPv6 (0x86DD)
//   EtherType          12-13           12-13
//   protocol (17)      23              20
//   UDP dest port      36-37           56-57
//   PcapRecHeader      42-57           62-77
//   BinLogHeader       58-73           78-93
//   log payload        74-             94-
#include <zlib.h>

#include <cstdio>
#include <memory>
#include <new>

#include "BinaryLogXmlReader.h"
#include "capture/RecordHeaders.h"
#include "reader/ReaderCore.h"

namespace Tav {
namespace {

struct GzClose {
    void operator()(gzFile_s* file) const { gzclose(file); }
};
/// Owns an open capture file; closed on every exit path.
using GzOwner = std::unique_ptr<gzFile_s, GzClose>;

constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;
constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr std::uint8_t kProtocolUdp = 17;

/// Where the fields of a UDP-framed record lie for one IP version.
struct UdpFraming {
    std::uint32_t protocolOffset;
    std::uint32_t destPortOffset;
    std::uint32_t udpPayloadOffset;
};
constexpr UdpFraming kIpv4Framing = {23, 36, 42};
constexpr UdpFraming kIpv6Framing = {20, 56, 62};

}  // namespace

int BinaryLogXmlReader::getLogDetailsForLogId(const PcapRecHeader& pcapHeader,
                                              const BinLogHeader& binLogHeader,
                                              const ByteReader& payload, unsigned int length,
                                              FILE* out, int utcOffsetMinutes) {
    const int result = core_->dispatch(pcapHeader, binLogHeader, payload, length, out,
                                       utcOffsetMinutes, detail::RecordOrigin());
    core_->printer.flush();
    return result;
}

void BinaryLogXmlReader::readBinaryFiledata(const std::string& path, int utcOffsetMinutes,
                                            FILE* out) {
    detail::ReaderCore& core = *core_;
    GzOwner file(gzopen(path.c_str(), "rb"));
    if (!file) {
        fprintf(stderr, "File open failed [%s]\n", path.c_str());
        return;
    }
    // Larger reads than zlib's default 8 KiB: fewer system calls.
    gzbuffer(file.get(), 128 * 1024);

    unsigned char globalBytes[sizeof(PcapGlobalHeader)];
    if (gzread(file.get(), globalBytes, sizeof globalBytes) <
        static_cast<int>(sizeof globalBytes)) {
        fprintf(stderr, "No global header found\n");
        return;
    }
    const std::uint32_t linkType = ByteReader(globalBytes, sizeof globalBytes).get_u32le(20);
    if (linkType != kLinkTypeEthernet && linkType != kLinkTypeBinLog) {
        fprintf(stderr, "Invalid link type %d found. Not a valid log pcap file\n",
                static_cast<int>(linkType));
        return;
    }

    std::unique_ptr<unsigned char[]> buffer(new unsigned char[MAX_BINLOG_LENGTH]);
    for (;;) {
        unsigned char headerBytes[sizeof(PcapRecHeader)] = {};
        if (gzread(file.get(), headerBytes, sizeof headerBytes) !=
            static_cast<int>(sizeof headerBytes)) {
            // No further complete record header: the normal end of the file.
            file.reset();
            core.printer.flush();
            if (statsEnabled) {
                statsCollector.printStats(out);
            }
            return;
        }
        PcapRecHeader recHeader =
            detail::readPcapRecHeader(ByteReader(headerBytes, sizeof headerBytes), 0);
        const std::uint32_t storageLength = recHeader.storageLength;
        if (storageLength > MAX_BINLOG_LENGTH) {
            core.printer.flush();
            fprintf(stderr, "pHdr storageLength %d is more thanMAX_BINLOG_LENGTH\n",
                    static_cast<int>(storageLength));
            return;
        }
        const int got = gzread(file.get(), buffer.get(), storageLength);
        if (got != static_cast<int>(storageLength)) {
            core.printer.flush();
            fprintf(stderr,
                    "Warning: Possibly truncated file. Actual payloadBytes :%d Expected "
                    "payloadBytes :%d\n",
                    got, static_cast<int>(storageLength));
            return;
        }
        const ByteReader record(buffer.get(), storageLength);

        if (linkType == kLinkTypeBinLog) {
            const BinLogHeader binLogHeader = detail::readBinLogHeader(record, 0);
            core.dispatch(recHeader, binLogHeader, record.from(sizeof(BinLogHeader)), storageLength,
                          out, utcOffsetMinutes, detail::RecordOrigin());
            continue;
        }

        const std::uint16_t etherType = record.get_u16be(12);
        const UdpFraming* framing = etherType == kEtherTypeIpv4   ? &kIpv4Framing
                                    : etherType == kEtherTypeIpv6 ? &kIpv6Framing
                                                                  : nullptr;
        if (framing == nullptr || record.get_u8(framing->protocolOffset) != kProtocolUdp ||
            record.get_u16be(framing->destPortOffset) != udpPort) {
            continue;
        }
        const std::uint32_t payloadOffset = framing->udpPayloadOffset;
        recHeader = detail::readPcapRecHeader(record, payloadOffset);
        const BinLogHeader binLogHeader = detail::readBinLogHeader(record, payloadOffset + 16);
        core.dispatch(recHeader, binLogHeader, record.from(payloadOffset + 32),
                      storageLength + 16 - payloadOffset, out, utcOffsetMinutes,
                      detail::RecordOrigin());
    }
}

}  // namespace Tav
