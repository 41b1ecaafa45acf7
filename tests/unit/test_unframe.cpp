// From a record to the binary log inside it: link type 150, the fixed
// Ethernet framing (strict mode and the other mode alike, short records
// zero-filled as the original loop), and in the other mode VLAN tags, IPv4
// options, IPv6 extension headers, Linux cooked captures, raw IP and BSD
// loopback. Every prefix of every frame is unframed from an exactly sized
// buffer, so a read past the end shows under AddressSanitizer.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "CaptureBytes.h"
#include "capture/Framing.h"
#include "capture/Unframe.h"

namespace {

using namespace capture_test;
using Tav::ByteReader;
using Tav::PcapRecHeader;
using Tav::capture::FrameStatus;
using Tav::capture::unframe;
using Tav::capture::Unframed;
using Tav::capture::unframeDatagram;

constexpr std::uint16_t kPort = 4000;

/// The UDP payload: the sender's record header, the binary log header and a
/// 6-byte log payload.
Bytes logDatagram() {
    return ByteTable()
        .u32le(1700000000)  // sender tsSec
        .u32le(654321)      // tsUsec
        .u32le(38)          // capturedLength
        .u32le(22)          // storageLength
        .u32le(0)           // packetType
        .u32le(0x01020001)  // logId
        .u16le(5)           // logLevel
        .u16le(3)           // logVersion
        .u32le(77)          // seqNo
        .text("abcdef")
        .bytes();
}

void expectLog(const Unframed& result, std::uint32_t payloadOffset) {
    EXPECT_EQ(result.status, FrameStatus::Ok);
    EXPECT_EQ(result.pcapHeader.tsSec, 1700000000u);
    EXPECT_EQ(result.pcapHeader.tsUsec, 654321u);
    EXPECT_EQ(result.pcapHeader.capturedLength, 38u);
    EXPECT_EQ(result.pcapHeader.storageLength, 22u);
    EXPECT_EQ(result.binLogHeader.packetType, 0u);
    EXPECT_EQ(result.binLogHeader.logId, 0x01020001u);
    EXPECT_EQ(result.binLogHeader.logLevel, 5u);
    EXPECT_EQ(result.binLogHeader.logVersion, 3u);
    EXPECT_EQ(result.binLogHeader.seqNo, 77u);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char*>(result.payload.data()), result.payload.size()),
        "abcdef");
    EXPECT_EQ(result.udpPayloadOffset, payloadOffset);
    EXPECT_EQ(result.udpPort, kPort);
}

Bytes udp(const Bytes& payload, std::uint16_t port = kPort) {
    return ByteTable()
        .u16be(50000)
        .u16be(port)
        .u16be(static_cast<unsigned>(8 + payload.size()))
        .u16be(0)
        .raw(payload)
        .bytes();
}

/// An IPv4 header with `optionWords` 4-byte option words, then `rest`.
Bytes ipv4(const Bytes& rest, unsigned optionWords = 0, unsigned protocol = 17,
           unsigned fragment = 0) {
    ByteTable table;
    table.u8(0x40 | (5 + optionWords))
        .u8(0)
        .u16be(static_cast<unsigned>(20 + 4 * optionWords + rest.size()))
        .u16be(1)
        .u16be(fragment)
        .u8(64)
        .u8(protocol)
        .u16be(0)
        .u32be(0x0A000001)
        .u32be(0x0A000002);
    for (unsigned i = 0; i < optionWords; ++i) {
        table.u32be(0x01010101);  // no-operation options
    }
    return table.raw(rest).bytes();
}

Bytes ipv6(const Bytes& rest, unsigned nextHeader = 17) {
    return ByteTable()
        .u32be(0x60000000)
        .u16be(static_cast<unsigned>(rest.size()))
        .u8(nextHeader)
        .u8(64)
        .fill(15, 0)
        .u8(1)
        .fill(15, 0)
        .u8(2)
        .raw(rest)
        .bytes();
}

/// An Ethernet header with `tags` (TPIDs) before `etherType`.
Bytes ethernet(std::uint16_t etherType, const Bytes& rest, const std::vector<unsigned>& tags = {}) {
    ByteTable table;
    table.fill(6, 0xAA).fill(6, 0xBB);
    for (const unsigned tpid : tags) {
        table.u16be(tpid).u16be(100);
    }
    return table.u16be(etherType).raw(rest).bytes();
}

PcapRecHeader fileHeader(std::size_t size) {
    PcapRecHeader header;
    header.tsSec = 1600000000;
    header.tsUsec = 1;
    header.capturedLength = static_cast<std::uint32_t>(size);
    header.storageLength = static_cast<std::uint32_t>(size);
    return header;
}

/// What unframing a copy of a frame's first bytes gave. The copy is gone, so
/// the payload view is kept as its place in the record.
struct Exact {
    Unframed result;  // payload emptied
    std::size_t payloadStart = 0;
    std::size_t payloadSize = 0;
};

/// Unframes the first `size` bytes of `frame` from a buffer of exactly that
/// size (a read past it shows under AddressSanitizer); checks that the
/// payload view lies within it.
Exact unframeExact(std::uint32_t linkType, const Bytes& frame, std::size_t size, bool strict,
                   std::uint16_t port = kPort) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size == 0 ? 1 : size]);
    std::copy(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(size), copy.get());
    Exact exact;
    exact.result = unframe(linkType, fileHeader(size), ByteReader(copy.get(), size), port, strict);
    exact.payloadSize = exact.result.payload.size();
    if (exact.payloadSize != 0) {
        EXPECT_GE(exact.result.payload.data(), copy.get());
        EXPECT_LE(exact.result.payload.data() + exact.payloadSize, copy.get() + size);
        exact.payloadStart = static_cast<std::size_t>(exact.result.payload.data() - copy.get());
    }
    exact.result.payload = ByteReader();
    return exact;
}

Unframed unframeAll(std::uint32_t linkType, const Bytes& frame, bool strict = false) {
    return unframe(linkType, fileHeader(frame.size()), ByteReader(frame.data(), frame.size()),
                   kPort, strict);
}

void expectSame(const Exact& a, const Exact& b, const std::string& what) {
    EXPECT_EQ(a.result.status, b.result.status) << what;
    EXPECT_EQ(a.result.pcapHeader.tsSec, b.result.pcapHeader.tsSec) << what;
    EXPECT_EQ(a.result.pcapHeader.tsUsec, b.result.pcapHeader.tsUsec) << what;
    EXPECT_EQ(a.result.pcapHeader.capturedLength, b.result.pcapHeader.capturedLength) << what;
    EXPECT_EQ(a.result.pcapHeader.storageLength, b.result.pcapHeader.storageLength) << what;
    EXPECT_EQ(a.result.binLogHeader.packetType, b.result.binLogHeader.packetType) << what;
    EXPECT_EQ(a.result.binLogHeader.logId, b.result.binLogHeader.logId) << what;
    EXPECT_EQ(a.result.binLogHeader.logLevel, b.result.binLogHeader.logLevel) << what;
    EXPECT_EQ(a.result.binLogHeader.logVersion, b.result.binLogHeader.logVersion) << what;
    EXPECT_EQ(a.result.binLogHeader.seqNo, b.result.binLogHeader.seqNo) << what;
    EXPECT_EQ(a.payloadStart, b.payloadStart) << what;
    EXPECT_EQ(a.payloadSize, b.payloadSize) << what;
    EXPECT_EQ(a.result.statsLength, b.result.statsLength) << what;
    EXPECT_EQ(a.result.udpPayloadOffset, b.result.udpPayloadOffset) << what;
    EXPECT_EQ(a.result.udpPort, b.result.udpPort) << what;
}

TEST(Unframe, BinLogRecords) {
    const Bytes record =
        ByteTable().u32le(2).u32le(0x00050002).u16le(4).u16le(1).u32le(9).text("xyz").bytes();
    for (const bool strict : {true, false}) {
        const Unframed result = unframeAll(150, record, strict);
        EXPECT_EQ(result.status, FrameStatus::Ok);
        EXPECT_EQ(result.pcapHeader.tsSec, 1600000000u);
        EXPECT_EQ(result.binLogHeader.packetType, 2u);
        EXPECT_EQ(result.binLogHeader.logId, 0x00050002u);
        EXPECT_EQ(result.binLogHeader.logLevel, 4u);
        EXPECT_EQ(result.binLogHeader.logVersion, 1u);
        EXPECT_EQ(result.binLogHeader.seqNo, 9u);
        EXPECT_EQ(result.payload.size(), 3u);
        EXPECT_EQ(result.payload.data(), record.data() + 16);
        EXPECT_EQ(result.statsLength, record.size());
        EXPECT_EQ(result.udpPayloadOffset, 0u);

        // A short record: the missing bytes read as zero, no payload.
        const Unframed shortRecord = unframeExact(150, record, 10, strict).result;
        EXPECT_EQ(shortRecord.status, FrameStatus::Ok);
        EXPECT_EQ(shortRecord.binLogHeader.logId, 0x00050002u);
        EXPECT_EQ(shortRecord.binLogHeader.logLevel, 0x0004u);  // byte 8 present, byte 9 is 0
        EXPECT_EQ(shortRecord.binLogHeader.logVersion, 0u);
        EXPECT_EQ(shortRecord.binLogHeader.seqNo, 0u);
        EXPECT_EQ(shortRecord.payload.size(), 0u);
        EXPECT_EQ(shortRecord.statsLength, 10u);
    }
}

TEST(Unframe, FixedEthernetFramingInBothModes) {
    const Bytes v4 = ethernet(0x0800, ipv4(udp(logDatagram())));
    const Bytes v6 = ethernet(0x86DD, ipv6(udp(logDatagram())));
    for (const bool strict : {true, false}) {
        const Unframed a = unframeAll(1, v4, strict);
        expectLog(a, 42);
        EXPECT_EQ(a.payload.data(), v4.data() + 74);
        EXPECT_EQ(a.statsLength, v4.size() + 16 - 42);
        const Unframed b = unframeAll(1, v6, strict);
        expectLog(b, 62);
        EXPECT_EQ(b.payload.data(), v6.data() + 94);
        EXPECT_EQ(b.statsLength, v6.size() + 16 - 62);
    }
}

TEST(Unframe, OtherTrafficIsToldApart) {
    const Bytes arp = ethernet(0x0806, Bytes(28, 1));
    const Bytes tcp = ethernet(0x0800, ipv4(Bytes(40, 0), 0, 6));
    const Bytes tcp6 = ethernet(0x86DD, ipv6(Bytes(40, 0), 6));
    const Bytes otherPort = ethernet(0x0800, ipv4(udp(logDatagram(), 53)));
    for (const bool strict : {true, false}) {
        EXPECT_EQ(unframeAll(1, arp, strict).status, FrameStatus::NotIp);
        EXPECT_EQ(unframeAll(1, tcp, strict).status, FrameStatus::NotUdp);
        EXPECT_EQ(unframeAll(1, tcp6, strict).status, FrameStatus::NotUdp);
        const Unframed other = unframeAll(1, otherPort, strict);
        EXPECT_EQ(other.status, FrameStatus::OtherPort);
        EXPECT_EQ(other.udpPort, 53u);
        EXPECT_EQ(other.udpPayloadOffset, 42u);
        EXPECT_EQ(other.payload.size(), 0u);
        EXPECT_EQ(other.pcapHeader.tsSec, 1600000000u);
    }
}

TEST(Unframe, ShortFixedFramesAreZeroFilledAlikeInBothModes) {
    // Every prefix of an IPv4 and an IPv6 frame, and IPv4 frames whose IHL is
    // 0 to 5: the fixed framing applies, strict mode and the other agree.
    std::vector<Bytes> frames = {ethernet(0x0800, ipv4(udp(logDatagram()))),
                                 ethernet(0x86DD, ipv6(udp(logDatagram())))};
    for (unsigned ihl = 0; ihl < 5; ++ihl) {
        Bytes frame = frames[0];
        frame[14] = static_cast<unsigned char>(0x40 | ihl);
        frames.push_back(frame);
    }
    for (std::size_t f = 0; f < frames.size(); ++f) {
        for (std::size_t size = 0; size <= frames[f].size(); ++size) {
            for (const std::uint16_t port : {kPort, std::uint16_t(0)}) {
                const Exact strict = unframeExact(1, frames[f], size, true, port);
                const Exact loose = unframeExact(1, frames[f], size, false, port);
                expectSame(strict, loose,
                           "frame " + std::to_string(f) + " size " + std::to_string(size));
            }
        }
    }
    // One in detail: cut right after the UDP header. The headers read as zero
    // and the statistics length wraps as the original unsigned arithmetic.
    const Unframed cut = unframeExact(1, frames[0], 42, true).result;
    EXPECT_EQ(cut.status, FrameStatus::Ok);
    EXPECT_EQ(cut.pcapHeader.tsSec, 0u);
    EXPECT_EQ(cut.binLogHeader.logId, 0u);
    EXPECT_EQ(cut.payload.size(), 0u);
    EXPECT_EQ(cut.statsLength, 16u);
    const Unframed wrapped = unframeExact(1, frames[0], 20, true, 0).result;
    EXPECT_EQ(wrapped.status, FrameStatus::NotUdp);  // protocol byte 23 missing
    const Unframed wrappedOk = unframeExact(1, frames[0], 24, true, 0).result;
    EXPECT_EQ(wrappedOk.status, FrameStatus::Ok);  // port bytes missing: 0
    EXPECT_EQ(wrappedOk.statsLength, static_cast<std::uint32_t>(24 + 16 - 42));
    EXPECT_EQ(wrappedOk.statsLength, 0xFFFFFFFEu);
}

TEST(Unframe, VlanTags) {
    const Bytes datagram = udp(logDatagram());
    struct Case {
        std::vector<unsigned> tags;
        std::uint32_t offset;
    };
    for (const Case& c : {Case{{0x8100}, 46}, Case{{0x88A8, 0x8100}, 50}, Case{{0x9100}, 46},
                          Case{{0x88A8, 0x8100, 0x8100}, 54}}) {
        const Bytes v4 = ethernet(0x0800, ipv4(datagram), c.tags);
        expectLog(unframeAll(1, v4), c.offset);
        EXPECT_EQ(unframeAll(1, v4).statsLength, v4.size() + 16 - c.offset);
        EXPECT_EQ(unframeAll(1, v4, true).status, FrameStatus::NotIp);
        const Bytes v6 = ethernet(0x86DD, ipv6(datagram), c.tags);
        expectLog(unframeAll(1, v6), c.offset + 20);
        // Cut inside the tags, the IP header or the UDP header.
        const std::size_t tagEnd = 14 + 4 * c.tags.size();
        for (const std::size_t size :
             {tagEnd - 3, tagEnd - 1, tagEnd + 19, std::size_t(c.offset) - 1}) {
            EXPECT_EQ(unframeExact(1, v4, size, false).result.status, FrameStatus::TooShort)
                << size;
        }
    }
    // A tag before something that is not IP.
    EXPECT_EQ(unframeAll(1, ethernet(0x0806, Bytes(28, 0), {0x8100})).status, FrameStatus::NotIp);
}

TEST(Unframe, Ipv4HeaderLengthFromIhl) {
    for (unsigned words = 1; words <= 10; ++words) {
        const Bytes frame = ethernet(0x0800, ipv4(udp(logDatagram()), words));
        const std::uint32_t offset = 14 + 20 + 4 * words + 8;
        expectLog(unframeAll(1, frame), offset);
        EXPECT_EQ(unframeAll(1, frame).payload.data(), frame.data() + offset + 32);
        EXPECT_EQ(unframeExact(1, frame, offset - 1, false).result.status, FrameStatus::TooShort);
        EXPECT_EQ(unframeExact(1, frame, offset, false).result.status, FrameStatus::Ok);
    }
    // A later fragment holds no UDP header; the first one does.
    EXPECT_EQ(unframeAll(1, ethernet(0x0800, ipv4(udp(logDatagram()), 1, 17, 0x0010))).status,
              FrameStatus::NotUdp);
    expectLog(unframeAll(1, ethernet(0x0800, ipv4(udp(logDatagram()), 1, 17, 0x2000))), 46);
}

TEST(Unframe, Ipv6ExtensionHeaders) {
    const Bytes datagram = udp(logDatagram());
    // Hop-by-hop (8 bytes), then destination options (16 bytes), then UDP.
    const Bytes chain =
        ByteTable().u8(60).u8(0).fill(6, 0).u8(17).u8(1).fill(14, 0).raw(datagram).bytes();
    const Bytes frame = ethernet(0x86DD, ipv6(chain, 0));
    expectLog(unframeAll(1, frame), 14 + 40 + 8 + 16 + 8);
    EXPECT_EQ(unframeAll(1, frame, true).status, FrameStatus::NotUdp);
    for (std::size_t size = 0; size < 14 + 40 + 8 + 16 + 8; ++size) {
        const FrameStatus status = unframeExact(1, frame, size, false).result.status;
        if (size < 14) {
            EXPECT_EQ(status, FrameStatus::NotIp) << size;  // no EtherType
        } else if (size <= 20) {
            // No next-header byte: the fixed framing, which finds no UDP.
            EXPECT_EQ(status, FrameStatus::NotUdp) << size;
        } else {
            EXPECT_EQ(status, FrameStatus::TooShort) << size;
        }
    }
    // A first fragment carries the UDP header; a later one does not.
    const Bytes first = ByteTable().u8(17).u8(0).u16be(0x0001).u32be(7).raw(datagram).bytes();
    expectLog(unframeAll(1, ethernet(0x86DD, ipv6(first, 44))), 14 + 40 + 8 + 8);
    const Bytes later = ByteTable().u8(17).u8(0).u16be(0x0008).u32be(7).raw(datagram).bytes();
    EXPECT_EQ(unframeAll(1, ethernet(0x86DD, ipv6(later, 44))).status, FrameStatus::NotUdp);
    // More than eight extension headers are not followed.
    ByteTable nine;
    for (int i = 0; i < 9; ++i) {
        nine.u8(i < 8 ? 0 : 17).u8(0).fill(6, 0);
    }
    EXPECT_EQ(unframeAll(1, ethernet(0x86DD, ipv6(nine.raw(datagram).bytes(), 0))).status,
              FrameStatus::NotUdp);
    // A routing header whose length runs past the record.
    const Bytes runaway = ByteTable().u8(17).u8(200).fill(6, 0).raw(datagram).bytes();
    EXPECT_EQ(unframeAll(1, ethernet(0x86DD, ipv6(runaway, 43))).status, FrameStatus::TooShort);
}

TEST(Unframe, LinuxCookedCaptures) {
    const Bytes packet = ipv4(udp(logDatagram()));
    const Bytes v1 =
        ByteTable().u16be(0).u16be(1).u16be(6).fill(8, 0xCC).u16be(0x0800).raw(packet).bytes();
    expectLog(unframeAll(113, v1), 16 + 28);
    EXPECT_EQ(unframeAll(113, v1).statsLength, v1.size() + 16 - 44);
    const Bytes v2 = ByteTable()
                         .u16be(0x86DD)
                         .u16be(0)
                         .u32be(3)
                         .u16be(1)
                         .u8(0)
                         .u8(6)
                         .fill(8, 0xCC)
                         .raw(ipv6(udp(logDatagram())))
                         .bytes();
    expectLog(unframeAll(276, v2), 20 + 48);
    // A tag after the cooked header.
    const Bytes tagged = ByteTable()
                             .u16be(0)
                             .u16be(1)
                             .u16be(6)
                             .fill(8, 0xCC)
                             .u16be(0x8100)
                             .u16be(5)
                             .u16be(0x0800)
                             .raw(packet)
                             .bytes();
    expectLog(unframeAll(113, tagged), 20 + 28);
    EXPECT_EQ(unframeExact(113, v1, 15, false).result.status, FrameStatus::TooShort);
    EXPECT_EQ(unframeExact(276, v2, 19, false).result.status, FrameStatus::TooShort);
    const Bytes arp =
        ByteTable().u16be(0).u16be(1).u16be(6).fill(8, 0xCC).u16be(0x0806).fill(28, 0).bytes();
    EXPECT_EQ(unframeAll(113, arp).status, FrameStatus::NotIp);
    EXPECT_EQ(unframeAll(113, v1, true).status, FrameStatus::UnknownLinkType);
    EXPECT_EQ(unframeAll(276, v2, true).status, FrameStatus::UnknownLinkType);
}

TEST(Unframe, RawIp) {
    const Bytes v4 = ipv4(udp(logDatagram()));
    const Bytes v6 = ipv6(udp(logDatagram()));
    expectLog(unframeAll(101, v4), 28);
    expectLog(unframeAll(101, v6), 48);
    expectLog(unframeAll(228, v4), 28);
    expectLog(unframeAll(229, v6), 48);
    EXPECT_EQ(unframeAll(228, v4).statsLength, v4.size() + 16 - 28);
    Bytes v5 = v4;
    v5[0] = 0x55;
    EXPECT_EQ(unframeAll(101, v5).status, FrameStatus::NotIp);
    EXPECT_EQ(unframeExact(101, v4, 0, false).result.status, FrameStatus::TooShort);
    EXPECT_EQ(unframeExact(228, v4, 19, false).result.status, FrameStatus::TooShort);
    EXPECT_EQ(unframeExact(229, v6, 39, false).result.status, FrameStatus::TooShort);
    for (const std::uint32_t linkType : {101u, 228u, 229u}) {
        EXPECT_EQ(unframeAll(linkType, v4, true).status, FrameStatus::UnknownLinkType);
    }
}

TEST(Unframe, BsdLoopbackInEitherByteOrder) {
    const Bytes v4 = ipv4(udp(logDatagram()));
    const Bytes v6 = ipv6(udp(logDatagram()));
    expectLog(unframeAll(0, concat(ByteTable().u32le(2).bytes(), v4)), 32);
    expectLog(unframeAll(0, concat(ByteTable().u32be(2).bytes(), v4)), 32);
    for (const std::uint32_t family : {10u, 24u, 28u, 30u}) {
        expectLog(unframeAll(0, concat(ByteTable().u32le(family).bytes(), v6)), 52);
        expectLog(unframeAll(0, concat(ByteTable().u32be(family).bytes(), v6)), 52);
    }
    EXPECT_EQ(unframeAll(0, concat(ByteTable().u32le(7).bytes(), v4)).status, FrameStatus::NotIp);
    EXPECT_EQ(unframeExact(0, concat(ByteTable().u32le(2).bytes(), v4), 3, false).result.status,
              FrameStatus::TooShort);
    EXPECT_EQ(unframeAll(0, concat(ByteTable().u32le(2).bytes(), v4), true).status,
              FrameStatus::UnknownLinkType);
}

TEST(Unframe, UnknownLinkTypes) {
    const Bytes frame = ethernet(0x0800, ipv4(udp(logDatagram())));
    EXPECT_EQ(unframeAll(147, frame).status, FrameStatus::UnknownLinkType);
    EXPECT_EQ(unframeAll(147, frame, true).status, FrameStatus::UnknownLinkType);
    EXPECT_EQ(unframeAll(147, frame).pcapHeader.tsSec, 1600000000u);
}

TEST(Unframe, EveryPrefixOfEveryFramingStaysInItsBuffer) {
    const Bytes datagram = udp(logDatagram());
    const Bytes hop = ByteTable().u8(17).u8(0).fill(6, 0).raw(datagram).bytes();
    const std::vector<std::pair<std::uint32_t, Bytes>> frames = {
        {150, logDatagram()},
        {1, ethernet(0x0800, ipv4(datagram, 3), {0x88A8, 0x8100})},
        {1, ethernet(0x86DD, ipv6(hop, 0), {0x8100})},
        {113, ByteTable().fill(14, 0).u16be(0x0800).raw(ipv4(datagram)).bytes()},
        {276, ByteTable().u16be(0x86DD).fill(18, 0).raw(ipv6(datagram)).bytes()},
        {101, ipv4(datagram, 2)},
        {229, ipv6(hop, 0)},
        {0, concat(ByteTable().u32be(30).bytes(), ipv6(datagram))},
    };
    for (const auto& frame : frames) {
        for (std::size_t size = 0; size <= frame.second.size(); ++size) {
            for (const bool strict : {true, false}) {
                const Unframed result =
                    unframeExact(frame.first, frame.second, size, strict).result;
                if (size == frame.second.size() && (!strict || frame.first == 150)) {
                    EXPECT_EQ(result.status, FrameStatus::Ok) << frame.first;
                }
            }
        }
    }
}

TEST(Unframe, LiveDatagramsAsFixedEthernetFrames) {
    const Bytes datagram = logDatagram();
    const Bytes frame = ethernet(0x0800, ipv4(udp(datagram)));
    const Unframed live = unframeDatagram(ByteReader(datagram.data(), datagram.size()));
    const Unframed framed = unframeAll(1, frame, true);
    EXPECT_EQ(live.status, FrameStatus::Ok);
    EXPECT_EQ(live.statsLength, framed.statsLength);
    EXPECT_EQ(live.statsLength, datagram.size() + 16);
    EXPECT_EQ(live.pcapHeader.tsUsec, framed.pcapHeader.tsUsec);
    EXPECT_EQ(live.pcapHeader.storageLength, framed.pcapHeader.storageLength);
    EXPECT_EQ(live.binLogHeader.seqNo, framed.binLogHeader.seqNo);
    EXPECT_EQ(live.binLogHeader.logId, framed.binLogHeader.logId);
    EXPECT_EQ(live.payload.data(), datagram.data() + 32);
    EXPECT_EQ(live.payload.size(), framed.payload.size());
    EXPECT_EQ(live.udpPayloadOffset, 0u);
    EXPECT_EQ(live.udpPort, 0u);
    // Short datagrams are zero-filled, as short frames are.
    const Unframed tiny = unframeDatagram(ByteReader(datagram.data(), 5));
    EXPECT_EQ(tiny.status, FrameStatus::Ok);
    EXPECT_EQ(tiny.pcapHeader.tsSec, 1700000000u);
    EXPECT_EQ(tiny.pcapHeader.tsUsec, 654321u & 0xFFu);
    EXPECT_EQ(tiny.binLogHeader.logId, 0u);
    EXPECT_EQ(tiny.payload.size(), 0u);
    EXPECT_EQ(tiny.statsLength, 21u);
}

}  // namespace
