// Constants of the capture layout shared by the capture reader, the capture
// writer, the fuzzers and the tests: the largest record, the link types and
// EtherTypes the reader knows, and the fixed Ethernet framing of the original
// capture format.
//
// Fixed framing (Ethernet, IPv4 without options or IPv6 without extension
// headers, no VLAN tag):
//                      IPv4 (0x0800)   IPv6 (0x86DD)
//   EtherType          12-13           12-13
//   protocol (17)      23              20
//   UDP dest port      36-37           56-57
//   PcapRecHeader      42-57           62-77   (the sender's, embedded)
//   BinLogHeader       58-73           78-93
//   log payload        74-             94-
#ifndef WEXBL_SRC_CAPTURE_FRAMING_H
#define WEXBL_SRC_CAPTURE_FRAMING_H

#include <cstdint>

namespace Tav {
namespace capture {

/// The largest record byte count (storageLength) a capture may carry.
constexpr std::uint32_t kMaxRecordLength = 25000;

/// Link types (pcap LINKTYPE_ values).
constexpr std::uint32_t kLinkNull = 0;         // BSD loopback: 4-byte address family
constexpr std::uint32_t kLinkEthernet = 1;     // Ethernet II
constexpr std::uint32_t kLinkRaw = 101;        // raw IP, version from the first nibble
constexpr std::uint32_t kLinkLinuxSll = 113;   // Linux cooked capture v1 (16-byte header)
constexpr std::uint32_t kLinkBinLog = 150;     // BinLogHeader + payload, no framing
constexpr std::uint32_t kLinkIpv4 = 228;       // raw IPv4
constexpr std::uint32_t kLinkIpv6 = 229;       // raw IPv6
constexpr std::uint32_t kLinkLinuxSll2 = 276;  // Linux cooked capture v2 (20-byte header)

/// EtherTypes.
constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr std::uint16_t kEtherTypeVlan = 0x8100;     // 802.1Q tag
constexpr std::uint16_t kEtherTypeQinQ = 0x88A8;     // 802.1ad service tag
constexpr std::uint16_t kEtherTypeQinQOld = 0x9100;  // pre-standard stacked tag

/// IP protocol number of UDP.
constexpr std::uint8_t kProtocolUdp = 17;

/// Where the fields of a UDP-framed record lie in the fixed Ethernet framing:
/// the IP protocol (IPv4) or next-header (IPv6) byte, the UDP destination
/// port, and the first byte of the UDP payload.
struct FixedUdpFraming {
    std::uint32_t protocolOffset;
    std::uint32_t destPortOffset;
    std::uint32_t udpPayloadOffset;
};
constexpr FixedUdpFraming kFixedIpv4 = {23, 36, 42};
constexpr FixedUdpFraming kFixedIpv6 = {20, 56, 62};

/// The UDP payload of a framed record starts with the sender's 16-byte
/// PcapRecHeader and the 16-byte BinLogHeader.
constexpr std::uint32_t kEmbeddedHeaderBytes = 32;

}  // namespace capture
}  // namespace Tav

#endif
