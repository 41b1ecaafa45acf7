// From a capture record to the binary log record inside it, for every framing
// the reader knows (see Unframe.h).
#include "capture/Unframe.h"

#include <initializer_list>

#include "capture/Framing.h"
#include "capture/RecordHeaders.h"

namespace Tav {
namespace capture {

namespace {

constexpr std::uint64_t kEthernetHeaderBytes = 14;
constexpr std::uint64_t kVlanTagBytes = 4;
constexpr std::uint64_t kIpv4MinHeaderBytes = 20;
constexpr std::uint64_t kIpv6HeaderBytes = 40;
constexpr std::uint64_t kUdpHeaderBytes = 8;
constexpr std::uint64_t kLinuxSllBytes = 16;
constexpr std::uint64_t kLinuxSll2Bytes = 20;
constexpr std::uint64_t kLoopbackBytes = 4;
constexpr unsigned kMaxIpv6ExtensionHeaders = 8;

constexpr std::uint8_t kIpv6HopByHop = 0;
constexpr std::uint8_t kIpv6Routing = 43;
constexpr std::uint8_t kIpv6Fragment = 44;
constexpr std::uint8_t kIpv6DestinationOptions = 60;

bool isVlanTag(std::uint16_t etherType) {
    return etherType == kEtherTypeVlan || etherType == kEtherTypeQinQ ||
           etherType == kEtherTypeQinQOld;
}

bool isIpv6Extension(std::uint8_t nextHeader) {
    return nextHeader == kIpv6HopByHop || nextHeader == kIpv6Routing ||
           nextHeader == kIpv6Fragment || nextHeader == kIpv6DestinationOptions;
}

Unframed notLog(FrameStatus status, const PcapRecHeader& header) {
    Unframed result;
    result.status = status;
    result.pcapHeader = header;
    return result;
}

Unframed otherPort(const PcapRecHeader& header, std::uint64_t payloadOffset, std::uint16_t port) {
    Unframed result = notLog(FrameStatus::OtherPort, header);
    result.udpPayloadOffset = static_cast<std::uint32_t>(payloadOffset);
    result.udpPort = port;
    return result;
}

/// The log in a UDP payload at `payloadOffset`: the sender's header replaces
/// the file's; the statistics length is formed with the file's storageLength.
Unframed udpLog(const PcapRecHeader& header, const ByteReader& data, std::uint64_t payloadOffset,
                std::uint16_t port) {
    Unframed result;
    result.status = FrameStatus::Ok;
    result.pcapHeader = detail::readPcapRecHeader(data, payloadOffset);
    result.binLogHeader = detail::readBinLogHeader(data, payloadOffset + sizeof(PcapRecHeader));
    result.payload = data.from(payloadOffset + kEmbeddedHeaderBytes);
    result.udpPayloadOffset = static_cast<std::uint32_t>(payloadOffset);
    result.statsLength = header.storageLength + 16 - result.udpPayloadOffset;
    result.udpPort = port;
    return result;
}

/// The original loop's Ethernet rules: fixed offsets, zero bytes past the end.
Unframed fixedEthernet(const PcapRecHeader& header, const ByteReader& data, std::uint16_t udpPort) {
    const std::uint16_t etherType = data.get_u16be(12);
    const FixedUdpFraming* framing = etherType == kEtherTypeIpv4   ? &kFixedIpv4
                                     : etherType == kEtherTypeIpv6 ? &kFixedIpv6
                                                                   : nullptr;
    if (framing == nullptr) {
        return notLog(FrameStatus::NotIp, header);
    }
    if (data.get_u8(framing->protocolOffset) != kProtocolUdp) {
        return notLog(FrameStatus::NotUdp, header);
    }
    const std::uint16_t port = data.get_u16be(framing->destPortOffset);
    if (port != udpPort) {
        return otherPort(header, framing->udpPayloadOffset, port);
    }
    return udpLog(header, data, framing->udpPayloadOffset, port);
}

/// The UDP header at `offset` (checked to be present).
Unframed udpAt(const PcapRecHeader& header, const ByteReader& data, std::uint64_t offset,
               std::uint16_t udpPort) {
    if (data.size() < offset + kUdpHeaderBytes) {
        return notLog(FrameStatus::TooShort, header);
    }
    const std::uint16_t port = data.get_u16be(offset + 2);
    if (port != udpPort) {
        return otherPort(header, offset + kUdpHeaderBytes, port);
    }
    return udpLog(header, data, offset + kUdpHeaderBytes, port);
}

/// An IPv4 header at `offset`, its length from IHL.
Unframed ipv4At(const PcapRecHeader& header, const ByteReader& data, std::uint64_t offset,
                std::uint16_t udpPort) {
    if (data.size() < offset + kIpv4MinHeaderBytes) {
        return notLog(FrameStatus::TooShort, header);
    }
    const unsigned words = data.get_u8(offset) & 0x0Fu;
    if (words < 5) {
        return notLog(FrameStatus::NotIp, header);
    }
    // Only the first fragment holds the UDP header.
    if (data.get_u8(offset + 9) != kProtocolUdp || (data.get_u16be(offset + 6) & 0x1FFFu) != 0) {
        return notLog(FrameStatus::NotUdp, header);
    }
    return udpAt(header, data, offset + 4 * words, udpPort);
}

/// An IPv6 header at `offset`, then its extension headers.
Unframed ipv6At(const PcapRecHeader& header, const ByteReader& data, std::uint64_t offset,
                std::uint16_t udpPort) {
    if (data.size() < offset + kIpv6HeaderBytes) {
        return notLog(FrameStatus::TooShort, header);
    }
    std::uint8_t nextHeader = data.get_u8(offset + 6);
    std::uint64_t pos = offset + kIpv6HeaderBytes;
    for (unsigned count = 0; count < kMaxIpv6ExtensionHeaders && isIpv6Extension(nextHeader);
         ++count) {
        if (nextHeader == kIpv6Fragment) {
            if (data.size() < pos + 8) {
                return notLog(FrameStatus::TooShort, header);
            }
            if ((data.get_u16be(pos + 2) & 0xFFF8u) != 0) {
                return notLog(FrameStatus::NotUdp, header);
            }
            nextHeader = data.get_u8(pos);
            pos += 8;
        } else {
            if (data.size() < pos + 2) {
                return notLog(FrameStatus::TooShort, header);
            }
            nextHeader = data.get_u8(pos);
            pos += (static_cast<std::uint64_t>(data.get_u8(pos + 1)) + 1) * 8;
        }
    }
    if (nextHeader != kProtocolUdp) {
        return notLog(FrameStatus::NotUdp, header);
    }
    return udpAt(header, data, pos, udpPort);
}

/// The network header after a link header whose protocol field (an
/// EtherType) is `etherType` and which ends at `offset`; VLAN tags followed.
Unframed afterEtherType(const PcapRecHeader& header, const ByteReader& data,
                        std::uint16_t etherType, std::uint64_t offset, std::uint16_t udpPort) {
    while (isVlanTag(etherType)) {
        if (data.size() < offset + kVlanTagBytes) {
            return notLog(FrameStatus::TooShort, header);
        }
        etherType = data.get_u16be(offset + 2);
        offset += kVlanTagBytes;
    }
    if (etherType == kEtherTypeIpv4) {
        return ipv4At(header, data, offset, udpPort);
    }
    if (etherType == kEtherTypeIpv6) {
        return ipv6At(header, data, offset, udpPort);
    }
    return notLog(FrameStatus::NotIp, header);
}

Unframed ethernet(const PcapRecHeader& header, const ByteReader& data, std::uint16_t udpPort) {
    const std::uint16_t etherType = data.get_u16be(12);
    if (isVlanTag(etherType)) {
        return afterEtherType(header, data, etherType, kEthernetHeaderBytes, udpPort);
    }
    if (etherType == kEtherTypeIpv4 && (data.get_u8(kEthernetHeaderBytes) & 0x0Fu) > 5) {
        return ipv4At(header, data, kEthernetHeaderBytes, udpPort);
    }
    if (etherType == kEtherTypeIpv6 && data.size() > kFixedIpv6.protocolOffset &&
        isIpv6Extension(data.get_u8(kFixedIpv6.protocolOffset))) {
        return ipv6At(header, data, kEthernetHeaderBytes, udpPort);
    }
    return fixedEthernet(header, data, udpPort);
}

Unframed loopback(const PcapRecHeader& header, const ByteReader& data, std::uint16_t udpPort) {
    if (data.size() < kLoopbackBytes) {
        return notLog(FrameStatus::TooShort, header);
    }
    // The capturing host's byte order: the known families are small numbers,
    // so at most one order names one.
    const std::uint32_t little = data.get_u32le(0);
    const std::uint32_t big =
        (static_cast<std::uint32_t>(data.get_u16be(0)) << 16) | data.get_u16be(2);
    for (const std::uint32_t family : {little, big}) {
        if (family == 2) {
            return ipv4At(header, data, kLoopbackBytes, udpPort);
        }
        if (family == 10 || family == 24 || family == 28 || family == 30) {
            return ipv6At(header, data, kLoopbackBytes, udpPort);
        }
    }
    return notLog(FrameStatus::NotIp, header);
}

}  // namespace

Unframed unframe(std::uint32_t linkType, const PcapRecHeader& header, const ByteReader& data,
                 std::uint16_t udpPort, bool strict) {
    if (linkType == kLinkBinLog) {
        Unframed result;
        result.status = FrameStatus::Ok;
        result.pcapHeader = header;
        result.binLogHeader = detail::readBinLogHeader(data, 0);
        result.payload = data.from(sizeof(BinLogHeader));
        result.statsLength = header.storageLength;
        return result;
    }
    if (linkType == kLinkEthernet) {
        return strict ? fixedEthernet(header, data, udpPort) : ethernet(header, data, udpPort);
    }
    if (strict) {
        return notLog(FrameStatus::UnknownLinkType, header);
    }
    switch (linkType) {
        case kLinkNull:
            return loopback(header, data, udpPort);
        case kLinkRaw: {
            if (data.size() == 0) {
                return notLog(FrameStatus::TooShort, header);
            }
            const unsigned version = data.get_u8(0) >> 4;
            if (version == 4) {
                return ipv4At(header, data, 0, udpPort);
            }
            if (version == 6) {
                return ipv6At(header, data, 0, udpPort);
            }
            return notLog(FrameStatus::NotIp, header);
        }
        case kLinkIpv4:
            return ipv4At(header, data, 0, udpPort);
        case kLinkIpv6:
            return ipv6At(header, data, 0, udpPort);
        case kLinkLinuxSll:
            if (data.size() < kLinuxSllBytes) {
                return notLog(FrameStatus::TooShort, header);
            }
            return afterEtherType(header, data, data.get_u16be(14), kLinuxSllBytes, udpPort);
        case kLinkLinuxSll2:
            if (data.size() < kLinuxSll2Bytes) {
                return notLog(FrameStatus::TooShort, header);
            }
            return afterEtherType(header, data, data.get_u16be(0), kLinuxSll2Bytes, udpPort);
        default:
            return notLog(FrameStatus::UnknownLinkType, header);
    }
}

Unframed unframeDatagram(const ByteReader& datagram) {
    Unframed result;
    result.status = FrameStatus::Ok;
    result.pcapHeader = detail::readPcapRecHeader(datagram, 0);
    result.binLogHeader = detail::readBinLogHeader(datagram, sizeof(PcapRecHeader));
    result.payload = datagram.from(kEmbeddedHeaderBytes);
    result.statsLength = static_cast<std::uint32_t>(datagram.size()) + 16;
    return result;
}

}  // namespace capture
}  // namespace Tav
