// The capture reading loop: file and global header checks, the record loop and
// its length bound, both framings, the bounded reads of short records, and when
// the statistics are printed.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Encoder.h"

using namespace wexbl_test;
using binlog_synth::appendBinLogHeader;
using binlog_synth::appendFramedRecord;
using binlog_synth::appendGlobalHeader;
using binlog_synth::ByteBuffer;
using binlog_synth::Framing;
using binlog_synth::kLinkTypeBinLog;
using binlog_synth::kLinkTypeEthernet;
using binlog_synth::LinkKind;
using binlog_synth::OutputSink;
using binlog_synth::RecordOptions;

namespace {

// One module (key 0x0102, version 3) with one log: "Ping {count}".
const char* const kDictionary = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="CORE" subsystemId="1" module="SCHED" moduleid="2" binlogversion="3">
  <LogId name="Ping" logString="Ping {count}" category="DIAG">
    <Param type="TavUint32_t" nameList="count"/>
  </LogId>
</LoggingSubSystem>
)";

constexpr std::uint32_t kPingLogId = 0x01020001;
constexpr std::uint16_t kVersion = 3;
constexpr std::uint16_t kInfo = 5;
constexpr std::uint16_t kPort = 4000;
constexpr std::uint16_t kEtherTypeArp = 0x0806;
constexpr std::uint8_t kProtocolTcp = 6;

// 1700000000 is 2023-11-14T22:13:20Z; 1600000000 is 2020-09-13T12:26:40Z.
constexpr std::uint32_t kT0 = 1700000000;
const std::string kT0Text = "2023-11-14T22:13:20";
constexpr std::uint32_t kCaptureHostTime = 1600000000;

std::string padLeft(const std::string& text, std::size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

binlog_synth::LogHeader logHeader(std::uint32_t packetType, std::uint32_t logId,
                                  std::uint16_t level, std::uint16_t version, std::uint32_t seqNo) {
    binlog_synth::LogHeader header;
    header.packetType = packetType;
    header.logId = logId;
    header.logLevel = level;
    header.logVersion = version;
    header.seqNo = seqNo;
    return header;
}

binlog_synth::LogHeader ping(std::uint32_t seqNo) {
    return logHeader(Tav::BinLog, kPingLogId, kInfo, kVersion, seqNo);
}

std::string pingPayload(std::uint32_t count) {
    return ByteBuffer().u32(count).str();
}

// A log record: the 16-byte binary log header, then the payload.
std::string logRecord(const binlog_synth::LogHeader& header, const std::string& payload) {
    ByteBuffer record;
    appendBinLogHeader(record, header);
    return record.bytes(payload).str();
}

// A record stamped (sec, usec). On Ethernet this is the sender's time, which the
// file's record header also carries unless hostTime() says otherwise.
RecordOptions at(std::uint32_t sec, std::uint32_t usec) {
    RecordOptions options;
    options.tsSec = sec;
    options.tsUsec = usec;
    return options;
}

// The capturing host's time in the file's record header of an Ethernet record.
RecordOptions hostTime(RecordOptions options, std::uint32_t sec, std::uint32_t usec) {
    options.separateFileTime = true;
    options.fileTsSec = sec;
    options.fileTsUsec = usec;
    return options;
}

// The file holds only the first `n` bytes of the record data, and its record
// header says so (both lengths are n).
RecordOptions cutTo(RecordOptions options, std::size_t n) {
    options.cut = static_cast<std::int64_t>(n);
    options.capturedLength = options.cut;
    options.storageLength = options.cut;
    return options;
}

// UDP to `port` over Ethernet and IPv4 or IPv6.
Framing udp(LinkKind ip, std::uint16_t port) {
    Framing framing;
    framing.kind = ip;
    framing.dstPort = port;
    return framing;
}

// A capture file built in memory with the capture writer's encoders.
class Capture {
  public:
    // A file that starts with the standard global header of `linkType`.
    explicit Capture(std::uint32_t linkType = kLinkTypeBinLog) {
        appendGlobalHeader(bytes_, linkType);
    }
    // A file without any global header: build it with raw().
    static Capture headerless() { return Capture(ByteBuffer()); }

    // A link type 150 record: the record header (both lengths the size of
    // `data` unless `options` say otherwise), then `data` as it is.
    Capture& record(const RecordOptions& options, const std::string& data) {
        appendFramedRecord(bytes_, Framing(), options, data, 0);
        return *this;
    }
    Capture& log(const RecordOptions& options, const binlog_synth::LogHeader& header,
                 const std::string& payload) {
        return record(options, logRecord(header, payload));
    }
    // An Ethernet record carrying `record` behind the sender's embedded record
    // header (its time from `options`, both lengths the record's size unless
    // `options` say otherwise).
    Capture& ethernet(const Framing& framing, const RecordOptions& options,
                      const std::string& record) {
        appendFramedRecord(bytes_, framing, options, record, ++ipId_);
        return *this;
    }
    // Bytes appended as they are.
    Capture& raw(const std::string& bytes) {
        bytes_.bytes(bytes);
        return *this;
    }

    const std::string& bytes() const { return bytes_.str(); }

  private:
    explicit Capture(ByteBuffer empty) : bytes_(std::move(empty)) {}

    ByteBuffer bytes_;
    std::uint16_t ipId_ = 0;
};

// The line "[time] [CORE:SCHED] [Ping] [INFO] [DIAG] [seq] [Ping count=N] " with
// the widths 10, 25, 8 and 10 of the binary log layout.
std::string pingLine(const std::string& time, std::uint32_t seqNo, std::uint32_t count) {
    return "[" + time + "] [CORE:SCHED] [" + padLeft("Ping", 25) + "] [" + padLeft("INFO", 8) +
           "] [" + padLeft("DIAG", 10) + "] [" + std::to_string(seqNo) +
           "] [Ping count=" + std::to_string(count) + "] \n";
}

// A plain capture record's line.
std::string captureLine(const std::string& time, long long length, long long seqNo) {
    return "[" + time + "] [wireshark] [length=" + std::to_string(length) +
           "] [seqNo=" + padLeft(std::to_string(seqNo), 10) + "]\n";
}

struct Stats {
    unsigned total;
    unsigned missing;
    std::string percent;
    unsigned outOfOrder;
    std::string receivedPerMsec;
    std::string generatedPerMsec;
    std::string receivedPerSec;
    std::string generatedPerSec;
    unsigned long long totalBytes;
    unsigned long long averageBytes;
};

std::string statsBlock(const Stats& s) {
    return ">>totalRecords =  " + std::to_string(s.total) + "\n" +
           ">>missingRecords =  " + std::to_string(s.missing) + " (" + s.percent + "%)\n" +
           ">>outOfOrderRecords =  " + std::to_string(s.outOfOrder) + "\n" +
           ">>records received/msec = " + s.receivedPerMsec + "\n" +
           ">>records generated at source/msec = " + s.generatedPerMsec + "\n" +
           ">>records received/sec = " + s.receivedPerSec + "\n" +
           ">>records generated at source/sec = " + s.generatedPerSec + "\n" +
           ">>total log record size = " + std::to_string(s.totalBytes) + "\n" +
           ">>average log record size = " + std::to_string(s.averageBytes) + "\n";
}

// One record on its own: the first and last time stamps are equal, so the span
// counts as 1 ms and the rates equal the count.
std::string singleRecordStats(unsigned long long bytes) {
    return statsBlock({1, 0, "0.000000", 0, "1.00", "1.00", "1000.00", "1000.00", bytes, bytes});
}

struct Output {
    std::string out;
    std::string err;
};

class CaptureReaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.makeDir("dict");
        dir_.writeFile("dict/core_binlog.xml", kDictionary);
    }

    std::unique_ptr<Tav::BinaryLogXmlReader> makeReader(bool stats, std::uint16_t port = kPort) {
        StderrCapture err;
        auto reader =
            std::make_unique<Tav::BinaryLogXmlReader>(dir_.path() + "/dict/", stats, port, 16);
        EXPECT_EQ(err.stop(), "");
        EXPECT_TRUE(reader->isGood());
        return reader;
    }

    // Writes the capture as `name` in the test directory, gzip-compressed when
    // the name ends in ".gz"; returns its path.
    std::string save(const std::string& name, const Capture& capture) {
        const std::string path = dir_.path() + "/" + name;
        const std::string gz = ".gz";
        const bool gzip =
            name.size() > gz.size() && name.compare(name.size() - gz.size(), gz.size(), gz) == 0;
        OutputSink sink;
        std::string error;
        EXPECT_TRUE(sink.open(path, gzip, error)) << error;
        EXPECT_TRUE(sink.write(capture.bytes()));
        EXPECT_TRUE(sink.close(error)) << error;
        return path;
    }

    static Output read(Tav::BinaryLogXmlReader& reader, const std::vector<std::string>& paths,
                       int utcOffsetMinutes = 0) {
        MemoryStream out;
        StderrCapture err;
        for (const auto& path : paths) {
            reader.readBinaryFiledata(path, utcOffsetMinutes, out.file());
        }
        Output result;
        result.err = err.stop();
        result.out = out.text();
        return result;
    }

    TempDir dir_;
};

// ---- Opening the file and its global header ------------------------------------

TEST_F(CaptureReaderTest, MissingFileReportsOpenFailure) {
    auto reader = makeReader(true);
    const std::string path = dir_.path() + "/absent.pcap.gz";
    const Output result = read(*reader, {path});
    EXPECT_EQ(result.err, "File open failed [" + path + "]\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(CaptureReaderTest, EmptyFilePrintsOnlyNoGlobalHeader) {
    auto reader = makeReader(true);
    const std::string plain = save("empty.pcap", Capture::headerless());
    const std::string gz = save("empty.pcap.gz", Capture::headerless());
    for (const auto& path : {plain, gz}) {
        const Output result = read(*reader, {path});
        EXPECT_EQ(result.err, "No global header found\n") << path;
        EXPECT_EQ(result.out, "") << path;
    }
}

TEST_F(CaptureReaderTest, GlobalHeaderShorterThan24BytesPrintsOnlyNoGlobalHeader) {
    auto reader = makeReader(true);
    const std::string header = Capture(kLinkTypeBinLog).bytes();
    ASSERT_EQ(header.size(), 24u);
    const std::string oneByte = save("one.pcap", Capture::headerless().raw(header.substr(0, 1)));
    const std::string short23 =
        save("short.pcap.gz", Capture::headerless().raw(header.substr(0, 23)));
    for (const auto& path : {oneByte, short23}) {
        const Output result = read(*reader, {path});
        EXPECT_EQ(result.err, "No global header found\n") << path;
        EXPECT_EQ(result.out, "") << path;
    }
}

TEST_F(CaptureReaderTest, WrongLinkTypeIsRejectedWithoutStatistics) {
    auto reader = makeReader(true);
    Capture capture(105);
    capture.log(at(kT0, 1000), ping(1), pingPayload(1));
    const Output result = read(*reader, {save("wifi.pcap.gz", capture)});
    EXPECT_EQ(result.err, "Invalid link type 105 found. Not a valid log pcap file\n");
    EXPECT_EQ(result.out, "");

    const Output zero = read(*reader, {save("null.pcap", Capture(0))});
    EXPECT_EQ(zero.err, "Invalid link type 0 found. Not a valid log pcap file\n");
    EXPECT_EQ(zero.out, "");
}

TEST_F(CaptureReaderTest, ByteSwappedFileIsRejectedThroughItsLinkType) {
    auto reader = makeReader(false);
    // A big-endian writer's link type 150: 00 00 00 96, read as 0x96000000.
    const std::string swapped = ByteBuffer()
                                    .be32(0xA1B2C3D4u)
                                    .be16(2)
                                    .be16(4)
                                    .be32(0)
                                    .be32(0)
                                    .be32(65535)
                                    .be32(kLinkTypeBinLog)
                                    .str();
    const Output result = read(*reader, {save("swapped.pcap", Capture::headerless().raw(swapped))});
    EXPECT_EQ(result.err, "Invalid link type -1778384896 found. Not a valid log pcap file\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(CaptureReaderTest, GlobalHeaderOnlyEndsNormally) {
    const std::string path = save("nothing.pcap.gz", Capture(kLinkTypeBinLog));
    auto withStats = makeReader(true);
    const Output counted = read(*withStats, {path});
    EXPECT_EQ(counted.out, ">>totalRecords =  0\n");
    EXPECT_EQ(counted.err, "");

    auto withoutStats = makeReader(false);
    const Output silent = read(*withoutStats, {path});
    EXPECT_EQ(silent.out, "");
    EXPECT_EQ(silent.err, "");
}

// ---- Link type 150 ---------------------------------------------------------------

TEST_F(CaptureReaderTest, Link150RecordsAreDecodedFromPlainAndCompressedFiles) {
    auto reader = makeReader(false);
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(7), pingPayload(42));
    capture.log(at(kT0 + 1, 999999), ping(8), pingPayload(4294967295u));
    const std::string expected =
        pingLine(kT0Text + ".001Z", 7, 42) + pingLine("2023-11-14T22:13:21.999Z", 8, 4294967295u);
    for (const auto& name : {"two.pcap", "two.pcap.gz"}) {
        const Output result = read(*reader, {save(name, capture)});
        EXPECT_EQ(result.out, expected) << name;
        EXPECT_EQ(result.err, "") << name;
    }
}

TEST_F(CaptureReaderTest, RecordLengthComesFromStorageLengthNotCapturedLength) {
    auto reader = makeReader(false);
    RecordOptions noCapturedLength = at(kT0, 1000);
    noCapturedLength.capturedLength = 0;  // the storage length stays the record's size
    Capture capture(kLinkTypeBinLog);
    capture.log(noCapturedLength, ping(3), pingPayload(9));
    capture.log(at(kT0, 2000), ping(4), pingPayload(10));
    const Output result = read(*reader, {save("captured.pcap", capture)});
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 3, 9) + pingLine(kT0Text + ".002Z", 4, 10));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, UtcOffsetReachesTheRenderers) {
    auto reader = makeReader(false);
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(1), pingPayload(5));
    const std::string path = save("offset.pcap.gz", capture);
    EXPECT_EQ(read(*reader, {path}, 60).out, pingLine("2023-11-14T23:13:20.001Z", 1, 5));
    EXPECT_EQ(read(*reader, {path}, -90).out, pingLine("2023-11-14T20:43:20.001Z", 1, 5));
}

TEST_F(CaptureReaderTest, Link150LengthIncludesTheBinLogHeader) {
    auto reader = makeReader(true);
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(1), pingPayload(1));                             // 20 bytes
    capture.log(at(kT0, 5000), ping(2), ByteBuffer().u32(2).u32(0xDEADBEEF).str());  // 24 bytes
    const Output result = read(*reader, {save("sizes.pcap.gz", capture)});
    // Two records over 4 ms: 0.5 per msec; 44 bytes in all, 22 on average.
    EXPECT_EQ(result.out,
              pingLine(kT0Text + ".001Z", 1, 1) + pingLine(kT0Text + ".005Z", 2, 2) +
                  statsBlock({2, 0, "0.000000", 0, "0.50", "0.50", "500.00", "500.00", 44, 22}));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, StorageLengthOf25000IsAccepted) {
    auto reader = makeReader(true);
    const std::string big =
        logRecord(logHeader(Tav::PcapCapture, 0, 0, 0, 9), std::string(25000 - 16, 'x'));
    ASSERT_EQ(big.size(), Tav::MAX_BINLOG_LENGTH);
    Capture capture(kLinkTypeBinLog);
    capture.record(at(kT0, 1000), big);
    capture.log(at(kT0, 1000), ping(10), pingPayload(3));
    const Output result = read(*reader, {save("max.pcap.gz", capture)});
    const std::string time = kT0Text + ".001Z";
    EXPECT_EQ(result.out, captureLine(time, 25000, 9) + pingLine(time, 10, 3) +
                              statsBlock({2, 0, "0.000000", 0, "2.00", "2.00", "2000.00", "2000.00",
                                          25020, 12510}));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, StorageLengthOf25001StopsTheFile) {
    auto reader = makeReader(true);
    const std::string tooBig =
        logRecord(logHeader(Tav::PcapCapture, 0, 0, 0, 9), std::string(25001 - 16, 'x'));
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(1), pingPayload(1));
    capture.record(at(kT0, 2000), tooBig);
    capture.log(at(kT0, 3000), ping(2), pingPayload(2));
    const Output result = read(*reader, {save("over.pcap", capture)});
    EXPECT_EQ(result.err, "pHdr storageLength 25001 is more thanMAX_BINLOG_LENGTH\n");
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1));
}

TEST_F(CaptureReaderTest, HugeStorageLengthIsComparedUnsignedAndPrintedSigned) {
    auto reader = makeReader(false);
    RecordOptions huge = at(kT0, 0);
    huge.capturedLength = 0;
    huge.storageLength = 0xFFFFFFFFu;
    Capture capture(kLinkTypeBinLog);
    capture.record(huge, "");
    const Output result = read(*reader, {save("huge.pcap.gz", capture)});
    EXPECT_EQ(result.err, "pHdr storageLength -1 is more thanMAX_BINLOG_LENGTH\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(CaptureReaderTest, TruncatedRecordDataWarnsAndPrintsNoStatistics) {
    RecordOptions cut = at(kT0, 2000);
    cut.capturedLength = 100;
    cut.storageLength = 100;
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(1), pingPayload(1));
    capture.log(cut, ping(2), pingPayload(2));  // 20 of the announced 100 bytes
    for (const auto& name : {"cut.pcap", "cut.pcap.gz"}) {
        auto fresh = makeReader(true);
        const Output result = read(*fresh, {save(name, capture)});
        EXPECT_EQ(result.err,
                  "Warning: Possibly truncated file. Actual payloadBytes :20 Expected "
                  "payloadBytes :100\n")
            << name;
        EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1)) << name;
    }
}

TEST_F(CaptureReaderTest, TruncatedRecordHeaderEndsTheFileNormally) {
    auto reader = makeReader(true);
    RecordOptions headerCut = at(kT0, 2000);
    headerCut.headerCut = 10;  // the file ends 10 bytes into this record's header
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), ping(1), pingPayload(1));
    capture.record(headerCut, "0123456789");
    ASSERT_EQ(capture.bytes().size(), 24u + 16u + 20u + 10u);
    const Output result = read(*reader, {save("tail.pcap.gz", capture)});
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1) + singleRecordStats(20));
    EXPECT_EQ(result.err, "");
}

// ---- Records shorter than their framing ---------------------------------------------

TEST_F(CaptureReaderTest, Link150RecordShorterThanItsHeaderReadsZeros) {
    auto reader = makeReader(true);
    Capture capture(kLinkTypeBinLog);
    // Two bytes 03 00: packet type 3 once the missing bytes read as zero; the
    // sequence number is missing entirely and reads as 0.
    capture.record(at(kT0, 1000), ByteBuffer().u16(Tav::PcapCapture).str());
    const Output result = read(*reader, {save("tiny.pcap", capture)});
    EXPECT_EQ(result.out, captureLine(kT0Text + ".001Z", 2, 0) + singleRecordStats(2));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, EmptyLink150RecordHasAnAllZeroHeader) {
    auto reader = makeReader(false);
    Capture capture(kLinkTypeBinLog);
    capture.record(at(kT0, 1000), "");
    capture.log(at(kT0, 2000), ping(5), pingPayload(6));
    const Output result = read(*reader, {save("zero.pcap.gz", capture)});
    EXPECT_EQ(result.err, "Log id :0 not valid\n");
    EXPECT_EQ(result.out, pingLine(kT0Text + ".002Z", 5, 6));
}

TEST_F(CaptureReaderTest, EthernetRecordCutBeforeItsPortIsSkippedForAnotherPort) {
    auto reader = makeReader(false, kPort);
    const std::string record = logRecord(ping(1), pingPayload(1));
    const RecordOptions sent = hostTime(at(kT0, 1000), kT0, 0);
    Capture capture(kLinkTypeEthernet);
    // EtherType and protocol, no ports.
    capture.ethernet(udp(LinkKind::Ipv4, kPort), cutTo(sent, 24), record);
    capture.ethernet(udp(LinkKind::Ipv4, kPort), sent, record);
    const Output result = read(*reader, {save("cut-port.pcap.gz", capture)});
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, EthernetRecordCutBeforeItsPortReadsPortZero) {
    // With port 0 configured, the missing port bytes read as zero and match; the
    // missing embedded headers read as zero too, so log id 0 is looked up.
    auto reader = makeReader(false, 0);
    const std::string record = logRecord(ping(1), pingPayload(1));
    Capture capture(kLinkTypeEthernet);
    capture.ethernet(udp(LinkKind::Ipv4, 0), cutTo(hostTime(at(kT0, 1000), kT0, 0), 24), record);
    const Output result = read(*reader, {save("cut-port0.pcap", capture)});
    EXPECT_EQ(result.err, "Log id :0 not valid\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(CaptureReaderTest, EthernetRecordCutInsideItsBinLogHeaderReadsZeros) {
    auto reader = makeReader(false);
    const std::string record = logRecord(logHeader(Tav::PcapCapture, 0, 0, 0, 77), "");
    for (LinkKind ip : {LinkKind::Ipv4, LinkKind::Ipv6}) {
        const std::size_t payloadAt = binlog_synth::udpPayloadOffsetOf(ip);
        ASSERT_EQ(payloadAt, ip == LinkKind::Ipv4 ? 42u : 62u);
        Capture capture(kLinkTypeEthernet);
        // The sender's header whole, and only the packet type of the log header.
        capture.ethernet(udp(ip, kPort),
                         cutTo(hostTime(at(kT0, 250000), kCaptureHostTime, 0), payloadAt + 16 + 4),
                         record);
        const Output result = read(*reader, {save("cut-header.pcap.gz", capture)});
        // Time and length are the sender's; the sequence number reads as zero.
        EXPECT_EQ(result.out, captureLine(kT0Text + ".250Z", 16, 0));
        EXPECT_EQ(result.err, "");
    }
}

// ---- Link type 1 ---------------------------------------------------------------------

TEST_F(CaptureReaderTest, EthernetIpv4AndIpv6RecordsUseTheEmbeddedHeader) {
    auto reader = makeReader(false);
    for (LinkKind ip : {LinkKind::Ipv4, LinkKind::Ipv6}) {
        Capture capture(kLinkTypeEthernet);
        capture.ethernet(udp(ip, kPort), hostTime(at(kT0, 250000), kCaptureHostTime, 500),
                         logRecord(ping(12), pingPayload(34)));
        const Output result = read(*reader, {save("eth.pcap.gz", capture)});
        EXPECT_EQ(result.out, pingLine(kT0Text + ".250Z", 12, 34));
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(CaptureReaderTest, EthernetSkipsOtherFramesSilentlyAndStaysInStep) {
    auto reader = makeReader(false);
    const std::string record = logRecord(ping(1), pingPayload(1));
    const RecordOptions sent = hostTime(at(kT0, 1000), kT0, 0);
    RecordOptions arp = sent;
    arp.etherType = kEtherTypeArp;
    RecordOptions tcp = sent;
    tcp.protocol = kProtocolTcp;

    Capture capture(kLinkTypeEthernet);
    capture.ethernet(udp(LinkKind::Ipv4, kPort), arp, record);
    capture.ethernet(udp(LinkKind::Ipv4, kPort), tcp, record);
    capture.ethernet(udp(LinkKind::Ipv6, kPort), tcp, record);
    capture.ethernet(udp(LinkKind::Ipv4, kPort + 1), sent, record);
    capture.ethernet(udp(LinkKind::Ipv6, 53), sent, record);
    capture.ethernet(udp(LinkKind::Ipv4, kPort), sent, record);
    capture.ethernet(udp(LinkKind::Ipv6, kPort), hostTime(at(kT0, 2000), kT0, 0),
                     logRecord(ping(2), pingPayload(2)));
    const Output result = read(*reader, {save("mixed.pcap", capture)});
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1) + pingLine(kT0Text + ".002Z", 2, 2));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, EthernetLengthAndTimesInTheStatisticsAreTheSenders) {
    auto reader = makeReader(true);
    Capture capture(kLinkTypeEthernet);
    // The file's record times are equal; the sender's are 2 ms apart. Each log
    // record is 20 bytes.
    capture.ethernet(udp(LinkKind::Ipv4, kPort), hostTime(at(kT0, 1000), kCaptureHostTime, 500),
                     logRecord(ping(1), pingPayload(1)));
    capture.ethernet(udp(LinkKind::Ipv6, kPort), hostTime(at(kT0, 3000), kCaptureHostTime, 500),
                     logRecord(ping(2), pingPayload(2)));
    const Output result = read(*reader, {save("eth-stats.pcap.gz", capture)});
    // IPv4: 78-byte frame, 78 + 16 - 42 = 52; IPv6: 98-byte frame, 98 + 16 - 62 = 52.
    EXPECT_EQ(result.out,
              pingLine(kT0Text + ".001Z", 1, 1) + pingLine(kT0Text + ".003Z", 2, 2) +
                  statsBlock({2, 0, "0.000000", 0, "1.00", "1.00", "1000.00", "1000.00", 104, 52}));
    EXPECT_EQ(result.err, "");
}

TEST_F(CaptureReaderTest, EthernetLaterStagesSeeTheSendersStorageLength) {
    auto reader = makeReader(false);
    ByteBuffer payload;
    binlog_synth::appendSyslogPayload(payload, "app", "abcdef");
    RecordOptions sent = hostTime(at(kT0, 1000), kCaptureHostTime, 0);
    sent.senderStorageLength = 16 + 16 + 3;  // the sender counts only "abc"
    Capture capture(kLinkTypeEthernet);
    capture.ethernet(udp(LinkKind::Ipv4, kPort), sent,
                     logRecord(logHeader(Tav::Syslog, 0, kInfo, 0, 4), payload.str()));
    const Output result = read(*reader, {save("syslog.pcap", capture)});
    EXPECT_EQ(result.out, "[" + kT0Text + ".001Z] [syslog] [" + padLeft("app", 16) + "] [" +
                              padLeft("INFO", 8) + "] [4] [abc]\n");
    EXPECT_EQ(result.err, "");
}

// ---- Statistics across files -----------------------------------------------------------

TEST_F(CaptureReaderTest, StatisticsCarryOverAfterAnAbandonedFileAndResetAfterANormalEnd) {
    auto reader = makeReader(true);

    RecordOptions cut = at(kT0, 2000);
    cut.capturedLength = 0;
    cut.storageLength = 20;
    Capture abandoned(kLinkTypeBinLog);
    abandoned.log(at(kT0, 1000), ping(5), pingPayload(1));
    abandoned.record(cut, "012345");

    Capture next(kLinkTypeBinLog);
    next.log(at(kT0, 3000), ping(8), pingPayload(2));

    Capture last(kLinkTypeBinLog);
    last.log(at(kT0, 9000), ping(20), pingPayload(3));

    const Output first = read(*reader, {save("a.pcap.gz", abandoned)});
    EXPECT_EQ(first.out, pingLine(kT0Text + ".001Z", 5, 1));
    EXPECT_EQ(first.err,
              "Warning: Possibly truncated file. Actual payloadBytes :6 Expected payloadBytes "
              ":20\n");

    // The sequence state of the abandoned file is still there (5 -> 8), and its
    // record is counted with this file's: 2 received, 2 missing, over 2 ms.
    const Output second = read(*reader, {save("b.pcap.gz", next)});
    EXPECT_EQ(second.out,
              ">>possibly missing packets: module=0x102,lastSeqNo=5,curSeqNo=8: "
              "diff=2,missingRecords_=0\n" +
                  pingLine(kT0Text + ".003Z", 8, 2) +
                  statsBlock({2, 2, "50.000000", 0, "1.00", "2.00", "1000.00", "2000.00", 40, 20}));
    EXPECT_EQ(second.err, "");

    // After a normal end everything starts afresh: no gap from 8 to 20.
    const Output third = read(*reader, {save("c.pcap", last)});
    EXPECT_EQ(third.out, pingLine(kT0Text + ".009Z", 20, 3) + singleRecordStats(20));
    EXPECT_EQ(third.err, "");
}

TEST_F(CaptureReaderTest, StatisticsCarryOverAfterAnOversizedRecord) {
    auto reader = makeReader(true);
    RecordOptions oversized = at(kT0, 0);
    oversized.capturedLength = 0;
    oversized.storageLength = 25001;
    Capture abandoned(kLinkTypeBinLog);
    abandoned.log(at(kT0, 1000), ping(1), pingPayload(1));
    abandoned.record(oversized, "");
    const std::string headerOnly = save("empty.pcap.gz", Capture(kLinkTypeBinLog));

    const Output result = read(*reader, {save("big.pcap.gz", abandoned), headerOnly, headerOnly});
    EXPECT_EQ(result.err, "pHdr storageLength 25001 is more thanMAX_BINLOG_LENGTH\n");
    EXPECT_EQ(result.out,
              pingLine(kT0Text + ".001Z", 1, 1) + singleRecordStats(20) + ">>totalRecords =  0\n");
}

TEST_F(CaptureReaderTest, FilesThatFailBeforeTheirRecordsLeaveTheStatisticsAlone) {
    auto reader = makeReader(true);
    RecordOptions cut;
    cut.capturedLength = 0;
    cut.storageLength = 20;
    Capture one(kLinkTypeBinLog);
    one.log(at(kT0, 1000), ping(1), pingPayload(1));
    one.record(cut, "");
    const std::string missing = dir_.path() + "/missing.pcap";
    const Output result =
        read(*reader, {save("one.pcap", one), missing, save("none.pcap", Capture::headerless()),
                       save("bad.pcap", Capture(2)), save("end.pcap.gz", Capture())});
    EXPECT_EQ(result.err,
              "Warning: Possibly truncated file. Actual payloadBytes :0 Expected payloadBytes "
              ":20\n"
              "File open failed [" +
                  missing +
                  "]\n"
                  "No global header found\n"
                  "Invalid link type 2 found. Not a valid log pcap file\n");
    EXPECT_EQ(result.out, pingLine(kT0Text + ".001Z", 1, 1) + singleRecordStats(20));
}

TEST_F(CaptureReaderTest, AReaderWhoseDictionaryFailedStillReadsCaptures) {
    StderrCapture constructionMessages;
    Tav::BinaryLogXmlReader reader(dir_.path() + "/no-such-dir/", false, kPort, 16);
    constructionMessages.stop();
    ASSERT_FALSE(reader.isGood());
    Capture capture(kLinkTypeBinLog);
    capture.log(at(kT0, 1000), logHeader(Tav::PcapCapture, 0, 0, 0, 3), "");
    const Output result = read(reader, {save("plain.pcap.gz", capture)});
    EXPECT_EQ(result.out, captureLine(kT0Text + ".001Z", 16, 3));
    EXPECT_EQ(result.err, "");
}

}  // namespace
