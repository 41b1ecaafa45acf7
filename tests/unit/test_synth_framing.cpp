// The capture writer's framing: the global header, link-type-150 records,
// Ethernet frames over IPv4 and IPv6 with the decoder's fixed offsets, the
// deliberate deviations, and the plain, gzip and memory outputs.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <string>

#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Text.h"

using namespace binlog_synth;

namespace {

unsigned byteAt(const std::string& s, std::size_t i) {
    return static_cast<unsigned char>(s.at(i));
}

std::uint32_t le32(const std::string& s, std::size_t i) {
    return byteAt(s, i) | (byteAt(s, i + 1) << 8) | (byteAt(s, i + 2) << 16) |
           (static_cast<std::uint32_t>(byteAt(s, i + 3)) << 24);
}

unsigned be16(const std::string& s, std::size_t i) {
    return (byteAt(s, i) << 8) | byteAt(s, i + 1);
}

/// One's-complement sum over `n` bytes at `at`, folded (0xffff when a
/// checksum field inside is right).
unsigned checksumSum(const std::string& s, std::size_t at, std::size_t n, std::uint32_t sum = 0) {
    for (std::size_t i = 0; i < n; i += 2) {
        sum += (byteAt(s, at + i) << 8) | (i + 1 < n ? byteAt(s, at + i + 1) : 0);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum;
}

/// A log record: BinLogHeader (packet type 0, log id 0x01020003, level 5,
/// version 3, seqNo 9) and four payload bytes.
std::string sampleLogRecord() {
    ByteBuffer b;
    LogHeader h;
    h.packetType = 0;
    h.logId = 0x01020003;
    h.logLevel = 5;
    h.logVersion = 3;
    h.seqNo = 9;
    appendBinLogHeader(b, h);
    b.bytes(std::string("\xde\xad\xbe\xef", 4));
    return b.str();
}

RecordOptions at(std::uint32_t sec, std::uint32_t usec) {
    RecordOptions o;
    o.tsSec = sec;
    o.tsUsec = usec;
    return o;
}

TEST(SynthFraming, GlobalHeader) {
    ByteBuffer b;
    appendGlobalHeader(b, 150);
    EXPECT_EQ(toHex(b.str()),
              "d4c3b2a1"    // microsecond magic
              "02000400"    // version 2.4
              "00000000"    // time zone
              "00000000"    // accuracy
              "ffff0000"    // snapshot length 65535
              "96000000");  // link type 150
}

TEST(SynthFraming, BinLogHeaderLayout) {
    EXPECT_EQ(toHex(sampleLogRecord()),
              "00000000"
              "03000201"
              "0500"
              "0300"
              "09000000"
              "deadbeef");
}

TEST(SynthFraming, LinkType150RecordIsTheLogRecord) {
    Framing framing;
    ByteBuffer out;
    const std::string record = sampleLogRecord();
    appendFramedRecord(out, framing, at(1714564800, 250000), record, 1);
    const std::string& s = out.str();
    ASSERT_EQ(s.size(), 16u + record.size());
    EXPECT_EQ(le32(s, 0), 1714564800u);
    EXPECT_EQ(le32(s, 4), 250000u);
    EXPECT_EQ(le32(s, 8), 20u);   // captured length
    EXPECT_EQ(le32(s, 12), 20u);  // storage length: the data that follows
    EXPECT_EQ(s.substr(16), record);
}

TEST(SynthFraming, Ipv4FrameOffsets) {
    Framing framing;
    framing.kind = LinkKind::Ipv4;
    framing.dstPort = 5000;
    framing.srcPort = 40001;
    ByteBuffer out;
    const std::string record = sampleLogRecord();
    appendFramedRecord(out, framing, at(100, 7), record, 0x1234);
    const std::string& s = out.str();
    const std::string data = s.substr(16);
    ASSERT_EQ(data.size(), 42u + 16u + record.size());
    EXPECT_EQ(le32(s, 12), data.size());
    EXPECT_EQ(be16(data, 12), 0x0800u);               // EtherType
    EXPECT_EQ(byteAt(data, 14), 0x45u);               // IPv4, 20-byte header
    EXPECT_EQ(be16(data, 16), 20u + 8u + 16u + 20u);  // IP total length
    EXPECT_EQ(be16(data, 18), 0x1234u);               // identification
    EXPECT_EQ(byteAt(data, 23), 17u);                 // UDP
    EXPECT_EQ(checksumSum(data, 14, 20), 0xFFFFu);    // header checksum is right
    EXPECT_EQ(be16(data, 34), 40001u);                // UDP source port
    EXPECT_EQ(be16(data, 36), 5000u);                 // UDP destination port
    EXPECT_EQ(be16(data, 38), 8u + 16u + 20u);        // UDP length
    // The sender's embedded record header, then the log record at 58.
    EXPECT_EQ(le32(data, 42), 100u);
    EXPECT_EQ(le32(data, 46), 7u);
    EXPECT_EQ(le32(data, 50), 20u);
    EXPECT_EQ(le32(data, 54), 20u);
    EXPECT_EQ(data.substr(58), record);
    EXPECT_EQ(toHex(data.substr(74)), "deadbeef");  // log payload at 74
    // UDP checksum over the pseudo header (addresses, protocol, length).
    std::uint32_t pseudo = checksumSum(data, 26, 8);
    pseudo += 17 + be16(data, 38);
    EXPECT_EQ(checksumSum(data, 34, 8 + 16 + record.size(), pseudo), 0xFFFFu);
}

TEST(SynthFraming, Ipv6FrameOffsets) {
    Framing framing;
    framing.kind = LinkKind::Ipv6;
    framing.dstPort = 0xABCD;
    ByteBuffer out;
    const std::string record = sampleLogRecord();
    appendFramedRecord(out, framing, at(100, 7), record, 1);
    const std::string data = out.str().substr(16);
    ASSERT_EQ(data.size(), 62u + 16u + record.size());
    EXPECT_EQ(be16(data, 12), 0x86DDu);
    EXPECT_EQ(byteAt(data, 14) >> 4, 6u);
    EXPECT_EQ(be16(data, 18), 8u + 16u + 20u);  // payload length
    EXPECT_EQ(byteAt(data, 20), 17u);           // next header: UDP
    EXPECT_EQ(be16(data, 56), 0xABCDu);
    EXPECT_EQ(be16(data, 58), 8u + 16u + 20u);
    EXPECT_EQ(le32(data, 62), 100u);
    EXPECT_EQ(le32(data, 74), 20u);
    EXPECT_EQ(data.substr(78), record);
    EXPECT_EQ(toHex(data.substr(94)), "deadbeef");
    std::uint32_t pseudo = checksumSum(data, 22, 32);
    pseudo += 17 + be16(data, 58);
    EXPECT_EQ(checksumSum(data, 54, 8 + 16 + record.size(), pseudo), 0xFFFFu);
}

TEST(SynthFraming, DeviationsForBrokenRecords) {
    Framing framing;
    framing.kind = LinkKind::Ipv4;
    RecordOptions o = at(200, 0);
    o.separateFileTime = true;
    o.fileTsSec = 300;
    o.fileTsUsec = 5;
    o.senderStorageLength = 99;
    o.etherType = 0x0806;
    o.protocol = 6;
    o.dstPort = 6000;
    o.storageLength = 1000;
    o.cut = 30;
    ByteBuffer out;
    appendFramedRecord(out, framing, o, sampleLogRecord(), 1);
    const std::string& s = out.str();
    ASSERT_EQ(s.size(), 16u + 30u);  // the data is cut, the header still says 1000
    EXPECT_EQ(le32(s, 0), 300u);
    EXPECT_EQ(le32(s, 4), 5u);
    EXPECT_EQ(le32(s, 8), 78u);  // captured length: the whole frame
    EXPECT_EQ(le32(s, 12), 1000u);
    EXPECT_EQ(be16(s, 16 + 12), 0x0806u);
    EXPECT_EQ(byteAt(s, 16 + 23), 6u);

    ByteBuffer whole;
    o.cut = -1;
    appendFramedRecord(whole, framing, o, sampleLogRecord(), 1);
    const std::string data = whole.str().substr(16);
    EXPECT_EQ(be16(data, 36), 6000u);
    EXPECT_EQ(le32(data, 42), 200u);  // the sender's time
    EXPECT_EQ(le32(data, 54), 99u);   // the sender's storage length
}

TEST(SynthFraming, WriterPutsTheGlobalHeaderFirstAndOnce) {
    OutputSink sink;
    sink.openMemory();
    Framing framing;
    framing.kind = LinkKind::Ipv6;
    CaptureWriter writer(sink, framing);
    ASSERT_TRUE(writer.writeLogRecord(at(1, 0), sampleLogRecord()));
    ASSERT_TRUE(writer.writeRaw("\x01\x02"));
    ASSERT_TRUE(writer.finish());
    std::string error;
    ASSERT_TRUE(sink.close(error)) << error;
    const std::string& s = sink.memory();
    ASSERT_EQ(s.size(), 24u + 16u + 62u + 16u + 20u + 2u);
    EXPECT_EQ(le32(s, 20), 1u);  // Ethernet
    EXPECT_EQ(writer.recordsWritten(), 1u);
}

TEST(SynthFraming, GlobalHeaderCanBeShortMissingOrWrong) {
    const auto write = [](const GlobalHeaderSettings& settings) {
        OutputSink sink;
        sink.openMemory();
        CaptureWriter writer(sink, Framing(), settings);
        EXPECT_TRUE(writer.finish());
        std::string error;
        EXPECT_TRUE(sink.close(error));
        return sink.memory();
    };
    GlobalHeaderSettings settings;
    EXPECT_EQ(write(settings).size(), 24u);
    settings.mode = GlobalHeaderSettings::Mode::Short;
    settings.shortLength = 10;
    EXPECT_EQ(write(settings).size(), 10u);
    settings.mode = GlobalHeaderSettings::Mode::None;
    EXPECT_EQ(write(settings).size(), 0u);
    settings.mode = GlobalHeaderSettings::Mode::Full;
    settings.linkType = 105;
    const std::string wrong = write(settings);
    ASSERT_EQ(wrong.size(), 24u);
    EXPECT_EQ(le32(wrong, 20), 105u);
}

TEST(SynthFraming, GzipAndPlainFilesHoldTheSameBytes) {
    wexbl_test::TempDir dir;
    std::string expected;
    for (const bool gzip : {false, true}) {
        const std::string path = dir.path() + (gzip ? "/c.pcap.gz" : "/c.pcap");
        OutputSink sink;
        std::string error;
        ASSERT_TRUE(sink.open(path, gzip, error)) << error;
        CaptureWriter writer(sink, Framing());
        for (std::uint32_t i = 0; i < 20000; ++i) {  // more than one buffer's worth
            ASSERT_TRUE(writer.writeLogRecord(at(i, i), sampleLogRecord()));
        }
        ASSERT_TRUE(writer.finish());
        ASSERT_TRUE(sink.close(error)) << error;
        const std::string raw = wexbl_test::readFile(path);
        if (!gzip) {
            expected = raw;
            ASSERT_EQ(raw.size(), 24u + 20000u * 36u);
            continue;
        }
        ASSERT_GE(raw.size(), 2u);
        EXPECT_EQ(toHex(raw.substr(0, 2)), "1f8b");  // gzip magic
        gzFile in = gzopen(path.c_str(), "rb");
        ASSERT_NE(in, nullptr);
        std::string back;
        char buf[65536];
        int n = 0;
        while ((n = gzread(in, buf, sizeof buf)) > 0) {
            back.append(buf, static_cast<std::size_t>(n));
        }
        EXPECT_EQ(gzclose(in), Z_OK);
        EXPECT_EQ(back, expected);
    }
}

TEST(SynthFraming, OpenFailureIsReported) {
    OutputSink sink;
    std::string error;
    EXPECT_FALSE(sink.open("/nonexistent-dir/x.pcap", false, error));
    EXPECT_EQ(error.rfind("cannot open /nonexistent-dir/x.pcap: ", 0), 0u) << error;
    EXPECT_FALSE(sink.open("/nonexistent-dir/x.pcap.gz", true, error));
    EXPECT_EQ(error.rfind("cannot open /nonexistent-dir/x.pcap.gz", 0), 0u) << error;
}

// ---- Other capture formats and framings -------------------------------------

/// The record data of `framing` carrying the sample log record.
std::string frameOf(const Framing& framing, bool bigEndianFile = false) {
    ByteBuffer out;
    appendEthernetFrame(out, framing, RecordOptions(), std::string(16, 's') + sampleLogRecord(), 1,
                        bigEndianFile);
    return out.str();
}

Framing udpFraming(LinkLayer layer, LinkKind ip) {
    Framing framing;
    framing.kind = ip;
    framing.layer = layer;
    return framing;
}

TEST(SynthFraming, NanosecondAndBigEndianPcapHeaders) {
    GlobalHeaderSettings nano;
    nano.format = FileFormat::PcapNano;
    ByteBuffer b;
    appendFileHeader(b, nano, 150);
    EXPECT_EQ(toHex(b.str()), "4d3cb2a1020004000000000000000000ffff000096000000");

    GlobalHeaderSettings big;
    big.bigEndian = true;
    b.clear();
    appendFileHeader(b, big, 1);
    EXPECT_EQ(toHex(b.str()),
              "a1b2c3d4"    // magic, big-endian
              "00020004"    // version 2.4
              "00000000"    // time zone
              "00000000"    // accuracy
              "0000ffff"    // snapshot length 65535
              "00000001");  // link type 1

    // Records: the fraction in nanoseconds, the fields in the file's order;
    // the log record itself stays as it is.
    RecordOptions options = at(0x01020304, 250000);
    options.tsNsec = 250000123;
    big.format = FileFormat::PcapNano;
    b.clear();
    appendRecord(b, big, Framing(), options, sampleLogRecord(), 0);
    EXPECT_EQ(toHex(b.str()),
              "01020304"  // seconds
              "0ee6b2fb"  // 250000123 ns = 0x0ee6b2fb
              "00000014"  // captured length 20
              "00000014"  // storage length 20
              "00000000030002010500030009000000deadbeef");
    // Without a nanosecond value: the microseconds times 1000.
    options.tsNsec = -1;
    b.clear();
    appendRecord(b, nano, Framing(), options, sampleLogRecord(), 0);
    EXPECT_EQ(toHex(b.str().substr(4, 4)), "80b2e60e");  // 250000000
}

TEST(SynthFraming, PcapngBlocks) {
    GlobalHeaderSettings ng;
    ng.format = FileFormat::PcapNg;
    ng.interfaces = 2;
    ng.tsResolution = 9;
    ByteBuffer b;
    appendFileHeader(b, ng, 150);
    EXPECT_EQ(toHex(b.str()),
              // section header block: type, length 28, byte-order mark,
              // version 1.0, section length -1, length again
              "0a0d0d0a1c0000004d3c2b1a01000000ffffffffffffffff1c000000"
              // interface 0: type 1, length 32, link type 150, reserved,
              // snapshot length, if_tsresol 9 (padded), end of options
              "0100000020000000960000"
              "00ffff0000"
              "0900010009000000"
              "00000000"
              "20000000"
              // interface 1: the same
              "0100000020000000960000"
              "00ffff0000"
              "0900010009000000"
              "00000000"
              "20000000");

    RecordOptions options = at(1, 2);
    options.tsNsec = 3;
    options.interfaceId = 1;
    b.clear();
    appendRecord(b, ng, Framing(), options, sampleLogRecord(), 0);
    // 1 s + 3 ns in nanoseconds = 1000000003 = 0x3b9aca03.
    EXPECT_EQ(toHex(b.str()),
              "06000000"  // enhanced packet block
              "34000000"  // length 52: 28 + 20 bytes of data + 4
              "01000000"  // interface 1
              "00000000"  // time stamp, high word
              "03ca9a3b"  // low word
              "14000000"  // captured length 20
              "14000000"  // original length 20
              "00000000030002010500030009000000deadbeef"
              "34000000");
    // Microsecond resolution (the default: no option) and data padded to 4.
    ng.tsResolution = 6;
    ng.interfaces = 1;
    b.clear();
    appendFileHeader(b, ng, 1);
    EXPECT_EQ(toHex(b.str().substr(28)),
              "01000000140000000100"
              "0000ffff000014000000");
    b.clear();
    appendRecord(b, ng, Framing(), at(1, 2), sampleLogRecord() + "x", 0);
    EXPECT_EQ(le32(b.str(), 4), 28u + 24u + 4u);
    EXPECT_EQ(toHex(b.str().substr(12, 8)), "0000000042420f00");  // 1000002 us
    EXPECT_EQ(toHex(b.str().substr(48, 8)), "7800000038000000");  // "x", padding, length
}

TEST(SynthFraming, VlanTags) {
    Framing one = udpFraming(LinkLayer::Ethernet, LinkKind::Ipv4);
    one.vlans = {100};
    std::string data = frameOf(one);
    EXPECT_EQ(toHex(data.substr(12, 6)),
              "8100"
              "0064"
              "0800");  // 802.1Q, VLAN 100, IPv4
    EXPECT_EQ(byteAt(data, 18), 0x45u);
    EXPECT_EQ(udpPayloadOffsetOf(one), 46u);
    EXPECT_EQ(be16(data, 18 + 22), 5000u);  // UDP destination port

    Framing two = udpFraming(LinkLayer::Ethernet, LinkKind::Ipv6);
    two.vlans = {200, 100};
    data = frameOf(two);
    // 802.1ad service tag, VLAN 200; 802.1Q tag, VLAN 100; IPv6.
    EXPECT_EQ(toHex(data.substr(12, 10)),
              "88a8"
              "00c8"
              "8100"
              "0064"
              "86dd");
    EXPECT_EQ(byteAt(data, 22) >> 4, 6u);
    EXPECT_EQ(udpPayloadOffsetOf(two), 70u);
    EXPECT_EQ(linkTypeOf(two), 1u);
}

TEST(SynthFraming, Ipv4Options) {
    Framing framing = udpFraming(LinkLayer::Ethernet, LinkKind::Ipv4);
    framing.ipv4OptionWords = 2;
    const std::string data = frameOf(framing);
    EXPECT_EQ(byteAt(data, 14), 0x47u);                        // IHL 7
    EXPECT_EQ(be16(data, 16), 28u + 8u + 16u + 20u);           // total length
    EXPECT_EQ(toHex(data.substr(34, 8)), "9404000001010101");  // router alert, no-ops
    EXPECT_EQ(checksumSum(data, 14, 28), 0xFFFFu);             // checksum over 28 bytes
    EXPECT_EQ(be16(data, 44), 5000u);                          // UDP at 42
    EXPECT_EQ(udpPayloadOffsetOf(framing), 50u);
}

TEST(SynthFraming, LinuxCookedHeaders) {
    Framing v1 = udpFraming(LinkLayer::LinuxSll, LinkKind::Ipv4);
    std::string data = frameOf(v1);
    EXPECT_EQ(toHex(data.substr(0, 16)),
              "0000"              // packet type: to this host
              "0001"              // ARPHRD_ETHER
              "0006"              // address length
              "0200000000010000"  // source MAC, padded to 8
              "0800");            // protocol: IPv4
    EXPECT_EQ(byteAt(data, 16), 0x45u);
    EXPECT_EQ(linkTypeOf(v1), 113u);
    EXPECT_EQ(udpPayloadOffsetOf(v1), 44u);

    Framing v2 = udpFraming(LinkLayer::LinuxSll2, LinkKind::Ipv6);
    v2.vlans = {7};
    data = frameOf(v2);
    EXPECT_EQ(toHex(data.substr(0, 24)),
              "8100"              // protocol: a VLAN tag follows the header
              "0000"              // reserved
              "00000001"          // interface index
              "0001"              // ARPHRD_ETHER
              "00"                // packet type
              "06"                // address length
              "0200000000010000"  // source MAC
              "0007"
              "86dd");  // the tag: VLAN 7, then IPv6
    EXPECT_EQ(linkTypeOf(v2), 276u);
    EXPECT_EQ(udpPayloadOffsetOf(v2), 20u + 4u + 40u + 8u);
}

TEST(SynthFraming, RawIpAndLoopback) {
    const Framing raw = udpFraming(LinkLayer::RawIp, LinkKind::Ipv6);
    EXPECT_EQ(byteAt(frameOf(raw), 0), 0x60u);
    EXPECT_EQ(linkTypeOf(raw), 101u);
    EXPECT_EQ(udpPayloadOffsetOf(raw), 48u);
    const Framing raw4 = udpFraming(LinkLayer::RawIpOnly, LinkKind::Ipv4);
    EXPECT_EQ(byteAt(frameOf(raw4), 0), 0x45u);
    EXPECT_EQ(linkTypeOf(raw4), 228u);
    EXPECT_EQ(linkTypeOf(udpFraming(LinkLayer::RawIpOnly, LinkKind::Ipv6)), 229u);

    // The address family in the file's byte order: 2 for IPv4, 24 for IPv6.
    const Framing null4 = udpFraming(LinkLayer::Loopback, LinkKind::Ipv4);
    EXPECT_EQ(toHex(frameOf(null4).substr(0, 5)), "0200000045");
    const Framing null6 = udpFraming(LinkLayer::Loopback, LinkKind::Ipv6);
    EXPECT_EQ(toHex(frameOf(null6, true).substr(0, 5)), "0000001860");
    Framing family = null6;
    family.loopbackFamily = 30;
    EXPECT_EQ(toHex(frameOf(family).substr(0, 4)), "1e000000");
    EXPECT_EQ(linkTypeOf(null4), 0u);
    EXPECT_EQ(udpPayloadOffsetOf(null4), 32u);
}

TEST(SynthFraming, StoredGzipAndItsDamage) {
    // Two writes: 3 bytes and 2 bytes.
    const std::string data = "abcde";
    std::string gz, error;
    GzipDamage stored;
    stored.stored = true;
    ASSERT_TRUE(buildGzip(data, {3, 5}, -1, stored, gz, error)) << error;
    const std::uint32_t crc = static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
    ByteBuffer trailer;
    trailer.u32(crc).u32(5);
    EXPECT_EQ(toHex(gz),
              "1f8b0800000000000003"  // gzip header: deflate, no flags, OS Unix
              "000300fcff616263"      // stored block: 3 bytes
              "000200fdff6465"        // stored block: 2 bytes
              "010000ffff"            // empty final block
                  + toHex(trailer.str()));

    GzipDamage damage = stored;
    damage.badCrc = true;
    damage.badLength = true;
    damage.corruptAt = 0;
    ASSERT_TRUE(buildGzip(data, {3, 5}, -1, damage, gz, error)) << error;
    ByteBuffer bad;
    bad.u32(~crc).u32(6);
    EXPECT_EQ(toHex(gz.substr(10, 1)), "ff");
    EXPECT_EQ(toHex(gz.substr(gz.size() - 8)), toHex(bad.str()));

    damage = stored;
    damage.cut = 12;
    ASSERT_TRUE(buildGzip(data, {3, 5}, -1, damage, gz, error)) << error;
    EXPECT_EQ(gz.size(), 12u);
    damage.cut = 100;
    EXPECT_FALSE(buildGzip(data, {3, 5}, -1, damage, gz, error));
    EXPECT_EQ(error, "cut=100 is past the end of the 38-byte gzip file");
    damage = stored;
    damage.corruptAt = 20;
    EXPECT_FALSE(buildGzip(data, {3, 5}, -1, damage, gz, error));
    EXPECT_EQ(error, "corrupt-at=20 is past the deflate data (20 bytes)");

    // Deflated (not stored): zlib inflates it back.
    ASSERT_TRUE(buildGzip(data, {}, 9, GzipDamage(), gz, error)) << error;
    char back[16] = {};
    z_stream in = z_stream();
    ASSERT_EQ(inflateInit2(&in, 31), Z_OK);
    in.next_in = reinterpret_cast<Bytef*>(&gz[0]);
    in.avail_in = static_cast<uInt>(gz.size());
    in.next_out = reinterpret_cast<Bytef*>(back);
    in.avail_out = sizeof back;
    EXPECT_EQ(inflate(&in, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(std::string(back, in.total_out), data);
    inflateEnd(&in);
}

}  // namespace
