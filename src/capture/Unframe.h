// One step from a record to the binary log inside it.
//
// Link type 150: the record is the BinLogHeader and the log payload.
// UDP framings: the UDP payload is the sender's PcapRecHeader, the
// BinLogHeader and the log payload; the sender's header replaces the file's.
//
// Strict mode knows link types 150 and 1 only, and for 1 the fixed framing of
// Framing.h: the EtherType at 12 (no VLAN tag), the IPv4 header length not
// read, the IPv6 next header taken as the transport protocol. Reads past the
// record's end give zero bytes (ByteReader), exactly as the original loop:
// a short record still yields its fields, zero-filled, and is never TooShort.
//
// Not strict, in addition:
//   Ethernet (1)        802.1Q / 802.1ad / 0x9100 tags, stacked, before the
//                       EtherType; the IPv4 header length from IHL; IPv6
//                       extension headers hop-by-hop (0), routing (43),
//                       destination options (60) and fragment (44; a fragment
//                       other than the first is NotUdp), at most 8 of them
//   Linux cooked v1 (113)   protocol at 14, network header at 16
//   Linux cooked v2 (276)   protocol at 0, network header at 20
//   raw IP (101)        IPv4 or IPv6 by the version nibble of the first byte
//   raw IPv4 (228), raw IPv6 (229)
//   BSD loopback (0)    4-byte address family, in either byte order: 2 is
//                       IPv4; 10, 24, 28 and 30 are IPv6
// (tags may follow the cooked headers' protocol field as well).
// An untagged Ethernet frame whose IPv4 IHL is 5 or less (or absent: a short
// record) or whose IPv6 next header is not an extension header followed here
// (or absent) is read with the fixed framing, exactly as in strict mode: for
// those frames both modes give identical results. Every other frame is
// checked: TooShort when the record ends before the end of the link header,
// the IPv4 header (20 bytes), the IPv6 header or an extension header, or the
// UDP header; an IHL below 5 there is NotIp, and an IPv4 fragment other than
// the first (fragment offset not 0) is NotUdp. The UDP payload runs to the end of
// the record in every framing (Ethernet padding or a frame check sequence, if
// captured, is part of it, as in the original loop).
#ifndef WEXBL_SRC_CAPTURE_UNFRAME_H
#define WEXBL_SRC_CAPTURE_UNFRAME_H

#include <cstdint>

#include "BinLogRecordHeaders.h"
#include "WexOamBinLogXmlReader/ByteReader.h"

namespace Tav {
namespace capture {

enum class FrameStatus {
    Ok,               // a binary log record
    NotIp,            // the link layer carries something other than IPv4/IPv6
    NotUdp,           // an IP packet of another protocol (or a later fragment)
    OtherPort,        // a UDP datagram to another destination port
    TooShort,         // not strict: the record ends inside the headers
    UnknownLinkType,  // a link type this mode does not read
};

/// The log record found in a capture record. Unless `status` is Ok only
/// `status`, `pcapHeader` (the file's), `udpPort` (for OtherPort) and
/// `udpPayloadOffset` (the offset of the UDP payload, for OtherPort) are set;
/// the rest is zero or empty.
struct Unframed {
    FrameStatus status = FrameStatus::UnknownLinkType;
    PcapRecHeader pcapHeader;  // link 150: the file's; UDP framings: the sender's
    BinLogHeader binLogHeader;
    ByteReader payload;                  // the log payload after the BinLogHeader (may be empty)
    std::uint32_t statsLength = 0;       // link 150: storageLength; UDP: the file's storageLength
                                         // + 16 - udpPayloadOffset, unsigned 32-bit (wraps as in
                                         // the original loop)
    std::uint32_t udpPayloadOffset = 0;  // offset of the UDP payload in the record; 0 for 150
    std::uint16_t udpPort = 0;           // UDP destination port seen
};

/// Finds the binary log in a record of link type `linkType` whose file header
/// is `header` and bytes `data`; UDP framings accept datagrams to `udpPort`.
Unframed unframe(std::uint32_t linkType, const PcapRecHeader& header, const ByteReader& data,
                 std::uint16_t udpPort, bool strict);

/// A UDP payload received live, without any capture framing: the same result
/// as an Ethernet record carrying it in the fixed framing (status Ok,
/// statsLength = datagram size + 16), with offsets counted in `datagram`
/// (udpPayloadOffset 0) and udpPort 0 (the receiver chose the port). The
/// receive time plays no part, as the file's time plays none for a framed
/// record: the sender's embedded header gives the time.
Unframed unframeDatagram(const ByteReader& datagram);

}  // namespace capture
}  // namespace Tav

#endif
