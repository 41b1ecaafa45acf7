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

}  // namespace
