// Record dispatch: routing by packet type, dictionary look-up, version and
// level checks, statistics, module header offsets and the type-group order.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Values = std::map<std::string, std::string>;

// Module key 0x0102, version 3, no module header.
const char* const kModXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="Plain" logString="Hello" category="CAT"/>
  <LogId name="Order" logString="Order" category="CAT">
    <param type="TavUint8_t" nameList="a"/>
    <param type="TavUint16_t" nameList="b"/>
  </LogId>
  <LogId name="Colors" logString="C {c} {v}" category="CAT">
    <param type="TavUint8_t" nameList="c" displayFormat="Color"/>
    <param type="varbinarystring" nameList="v" size="8"/>
  </LogId>
  <LogId name="Dup" logString="{x}" category="CAT">
    <param type="TavUint8_t" nameList="x"/>
    <param type="TavUint32_t" nameList="x"/>
  </LogId>
  <LogId name="Legacy" logString="Legacy text" category="CAT">
    <param type="TavUint32_t" nameList="p1,p2"/>
    <param type="TavUint8_t" nameList="cid"/>
    <param type="string" nameList="tag"/>
  </LogId>
</Dictionary>
)";

// Module key 0x0103, version 1, a module header of one unsigned 8 parameter.
const char* const kHdrXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="HDR" moduleid="3" binlogversion="1"/>
  <ModuleHeader>
    <param type="TavUint8_t" nameList="h"/>
  </ModuleHeader>
  <LogId name="WithHdr" logString="P {p}" category="HC">
    <param type="TavUint8_t" nameList="p"/>
  </LogId>
</Dictionary>
)";

// Module key 0x0104, version 1, a module header of an unsigned 8 and an
// unsigned 64 parameter (declared in that order).
const char* const kWideXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="WIDE" moduleid="4" binlogversion="1"/>
  <ModuleHeader>
    <param type="TavUint8_t" nameList="h"/>
    <param type="TavUint64_t" nameList="g"/>
  </ModuleHeader>
  <LogId name="Wide" logString="Q" category="CAT">
    <param type="TavUint8_t" nameList="p"/>
  </LogId>
</Dictionary>
)";

const char* const kEnumXml = R"(<?xml version="1.0"?>
<Enums>
  <enum name="Color">
    <entry value="0" text="RED"/>
    <entry value="1" text="GREEN"/>
  </enum>
</Enums>
)";

const std::string kEpoch = "[1970-01-01T00:00:00.000Z] ";

std::string pad(const std::string& s, std::size_t width) {
    return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

Tav::PcapRecHeader makePcap(std::uint32_t storageLength = 0) {
    Tav::PcapRecHeader p;
    p.storageLength = storageLength;
    p.capturedLength = storageLength;
    return p;
}

Tav::BinLogHeader makeHeader(std::uint32_t type, std::uint32_t logId, std::uint16_t level,
                             std::uint16_t version, std::uint32_t seqNo) {
    Tav::BinLogHeader h;
    h.packetType = type;
    h.logId = logId;
    h.logLevel = level;
    h.logVersion = version;
    h.seqNo = seqNo;
    return h;
}

struct Dispatched {
    int rc = 0;
    std::string out;
    std::string err;
};

class DispatchTest : public ::testing::Test {
  protected:
    void SetUp() override { build(false); }

    void build(bool stats) {
        dir_ = std::make_unique<wexbl_test::TempDir>();
        dir_->writeFile("a_binlog.xml", kModXml);
        dir_->writeFile("b_binlog.xml", kHdrXml);
        dir_->writeFile("c_binlog.xml", kWideXml);
        dir_->writeFile("e_bindisplay.xml", kEnumXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_->slash(), stats, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        ASSERT_TRUE(reader_->displayFormatter.isGood());
        ASSERT_EQ(reader_->logLevelNames.size(), 9u);
    }

    Tav::BinaryLogXmlReader& reader() { return *reader_; }

    Dispatched dispatch(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                        const Bytes& payloadBytes, unsigned int length = 0) {
        // The payload lives on the heap with exactly its size, so any read
        // beyond it would be caught by AddressSanitizer.
        std::unique_ptr<unsigned char[]> heap(new unsigned char[payloadBytes.size()]);
        std::copy(payloadBytes.begin(), payloadBytes.end(), heap.get());
        Tav::ByteReader payload(heap.get(), payloadBytes.size());
        wexbl_test::MemoryStream out;
        wexbl_test::StderrCapture err;
        Dispatched d;
        d.rc = reader().getLogDetailsForLogId(pcap, header, payload, length, out.file(), 0);
        d.err = err.stop();
        d.out = out.text();
        return d;
    }

    std::string modLine(const std::string& logName, const std::string& level, std::uint32_t seq,
                        const std::string& message) {
        return kEpoch + "[" + pad("SYS:MOD", 10) + "] [" + pad(logName, 25) + "] [" +
               pad(level, 8) + "] [" + pad("CAT", 10) + "] [" + std::to_string(seq) + "] [" +
               message + "] \n";
    }

  private:
    std::unique_ptr<wexbl_test::TempDir> dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

Bytes syslogPayload(const std::string& tag, const std::string& message) {
    Bytes b(tag.begin(), tag.end());
    b.resize(16, 0);
    b.insert(b.end(), message.begin(), message.end());
    return b;
}

// ---- Routing by packet type --------------------------------------------------------------

TEST_F(DispatchTest, SyslogIsPrintedWithUnknownLogIdAndAnyVersionOrLevel) {
    auto d = dispatch(makePcap(32 + 5), makeHeader(Tav::Syslog, 0xdeadbeef, 3, 99, 5),
                      syslogPayload("tagA", "hello"));
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[syslog] [            tagA] [    WARN] [5] [hello]\n");
    EXPECT_EQ(d.err, "");

    // A level far above the table is not checked; the look-up adds it.
    auto high = dispatch(makePcap(32 + 2), makeHeader(Tav::Syslog, 0x01020001, 500, 3, 6),
                         syslogPayload("tagB", "hi"));
    EXPECT_EQ(high.rc, 0);
    EXPECT_EQ(high.out, kEpoch + "[syslog] [            tagB] [        ] [6] [hi]\n");
    EXPECT_EQ(reader().logLevelNames.size(), 10u);
    EXPECT_EQ(reader().logLevelNames.count(500), 1u);
}

TEST_F(DispatchTest, PlainCaptureIsPrintedWithUnknownLogIdWithoutReadingThePayload) {
    auto d =
        dispatch(makePcap(40), makeHeader(Tav::PcapCapture, 0xdeadbeef, 60000, 77, 9), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[wireshark] [length=40] [seqNo=         9]\n");
    EXPECT_EQ(d.err, "");
    EXPECT_EQ(reader().logLevelNames.size(), 9u);
}

TEST_F(DispatchTest, UnknownPacketTypeWithUnknownLogIdReportsTheLogId) {
    auto d = dispatch(makePcap(16), makeHeader(7, 0x00990001, 5, 3, 1), Bytes{});
    EXPECT_EQ(d.rc, -1);
    EXPECT_EQ(d.err, "Log id :990001 not valid\n");
    EXPECT_EQ(d.out, "");
}

TEST_F(DispatchTest, UnknownLogIdOfBinaryLogAndLegacyRecords) {
    // Known module, unknown log index.
    auto index = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020063, 5, 3, 1), Bytes{});
    EXPECT_EQ(index.rc, -1);
    EXPECT_EQ(index.err, "Log id :1020063 not valid\n");
    EXPECT_EQ(index.out, "");

    auto module = dispatch(makePcap(16), makeHeader(Tav::Legacy, 0xABCD0001, 5, 3, 1), Bytes{});
    EXPECT_EQ(module.rc, -1);
    EXPECT_EQ(module.err, "Log id :abcd0001 not valid\n");
    EXPECT_EQ(module.out, "");
}

TEST_F(DispatchTest, WrongVersionIsReportedOnTheOutputStream) {
    auto d = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 5, 4, 1), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, "Mismatch in version for log [Plain] logVersion [4] xmlVersion [3] \n");
    EXPECT_EQ(d.err, "");
}

TEST_F(DispatchTest, UnknownPacketTypeWithKnownLogIdAndWrongVersionGivesTheVersionMessage) {
    auto d = dispatch(makePcap(16), makeHeader(7, 0x01030001, 5, 2, 1), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, "Mismatch in version for log [WithHdr] logVersion [2] xmlVersion [1] \n");
    EXPECT_EQ(d.err, "");
}

TEST_F(DispatchTest, UnknownPacketTypeWithKnownLogIdPassingTheChecks) {
    auto d = dispatch(makePcap(16), makeHeader(7, 0x01020001, 5, 3, 1), Bytes{});
    EXPECT_EQ(d.rc, -1);
    EXPECT_EQ(d.err, "Invalid packetType passed :7");
    EXPECT_EQ(d.out, "");
}

// ---- Level check --------------------------------------------------------------------------------

TEST_F(DispatchTest, LevelNineIsAcceptedOnAFreshReader) {
    auto d = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 9, 3, 1), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, modLine("Plain", "", 1, "Hello "));
    EXPECT_EQ(d.err, "");
}

TEST_F(DispatchTest, LevelTenIsRejectedOnAFreshReader) {
    auto d = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 10, 3, 1), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, "Invalig log level [10] for log [Plain] \n");
    EXPECT_EQ(d.err, "");
    EXPECT_EQ(reader().logLevelNames.size(), 9u);

    auto legacy = dispatch(makePcap(16), makeHeader(Tav::Legacy, 0x01020005, 65535, 3, 2), Bytes{});
    EXPECT_EQ(legacy.rc, 0);
    EXPECT_EQ(legacy.out, "Invalig log level [65535] for log [Legacy] \n");
}

TEST_F(DispatchTest, LevelCheckComesBeforeThePacketTypeCheck) {
    auto d = dispatch(makePcap(16), makeHeader(42, 0x01020001, 10, 3, 1), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, "Invalig log level [10] for log [Plain] \n");
    EXPECT_EQ(d.err, "");
}

TEST_F(DispatchTest, RenderingAnUnknownLevelRaisesTheBound) {
    dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 9, 3, 1), Bytes{});
    EXPECT_EQ(reader().logLevelNames.size(), 10u);
    auto d = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 10, 3, 2), Bytes{});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, modLine("Plain", "", 2, "Hello "));
    auto twelve = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01020001, 12, 3, 3), Bytes{});
    EXPECT_EQ(twelve.out, "Invalig log level [12] for log [Plain] \n");
}

// ---- Statistics
// ------------------------------------------------------------------------------------

TEST_F(DispatchTest, StatisticsSeeEveryRecordFirst) {
    build(true);
    // Rejected by the version check, but sequence-checked before that.
    auto first = dispatch(makePcap(40), makeHeader(Tav::BinLog, 0x01020001, 5, 4, 10), Bytes{}, 40);
    EXPECT_EQ(first.out, "Mismatch in version for log [Plain] logVersion [4] xmlVersion [3] \n");
    auto gap = dispatch(makePcap(41), makeHeader(Tav::BinLog, 0x01020001, 5, 4, 13), Bytes{}, 41);
    EXPECT_EQ(gap.out,
              ">>possibly missing packets: module=0x102,lastSeqNo=10,curSeqNo=13: diff=2,"
              "missingRecords_=0\n"
              "Mismatch in version for log [Plain] logVersion [4] xmlVersion [3] \n");
    // Unknown log id: counted, then rejected.
    auto unknown =
        dispatch(makePcap(42), makeHeader(Tav::BinLog, 0x00990001, 5, 3, 1), Bytes{}, 42);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "Log id :990001 not valid\n");
    // Accepted record: the reorder report stands right above its line.
    auto late = dispatch(makePcap(43), makeHeader(Tav::BinLog, 0x01020001, 5, 3, 12), Bytes{}, 43);
    EXPECT_EQ(late.out, ">>out of order packets: module=0x102, lastSeqNo=13,curSeqNo=12\n" +
                            modLine("Plain", "INFO", 12, "Hello "));
    // Level and packet-type rejections are counted too.
    dispatch(makePcap(44), makeHeader(Tav::BinLog, 0x01020001, 10, 3, 14), Bytes{}, 44);
    auto badType = dispatch(makePcap(45), makeHeader(9, 0x01020001, 5, 3, 15), Bytes{}, 45);
    EXPECT_EQ(badType.err, "Invalid packetType passed :9");
    EXPECT_EQ(reader().statsCollector.totalRecords, 6u);
    EXPECT_EQ(reader().statsCollector.totalRecordBytes, 40u + 41 + 42 + 43 + 44 + 45);
    EXPECT_EQ(reader().statsCollector.missingRecords, 1u);
    EXPECT_EQ(reader().statsCollector.outOfOrderRecords, 1u);
}

TEST_F(DispatchTest, WithoutStatisticsNothingIsCounted) {
    dispatch(makePcap(40), makeHeader(Tav::BinLog, 0x01020001, 5, 3, 10), Bytes{}, 40);
    dispatch(makePcap(40), makeHeader(Tav::BinLog, 0x01020001, 5, 3, 20), Bytes{}, 40);
    EXPECT_EQ(reader().statsCollector.totalRecords, 0u);
    EXPECT_EQ(reader().statsCollector.totalRecordBytes, 0u);
}

// ---- Payload layout ----------------------------------------------------------------------------

TEST_F(DispatchTest, WithoutModuleHeaderParametersStartAtZeroInTypeGroupOrder) {
    // a (unsigned 8) is declared before b (unsigned 16), but b comes first.
    auto d = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01020002, 5, 3, 1), {0x02, 0x01, 0x07});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, modLine("Order", "INFO", 1, "Order a=7 b=258 "));
    EXPECT_EQ(d.err, "");
}

TEST_F(DispatchTest, OneByteModuleHeaderMovesTheParametersToOffsetFour) {
    ASSERT_EQ(reader().moduleDetailsMap.at(0x0103).headerPadding, 3u);
    auto d = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01030001, 5, 1, 1),
                      {0x05, 0xee, 0xee, 0xee, 0x09});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:HDR", 10) + "] [" + pad("WithHdr", 25) +
                         "] [    INFO] [" + pad("HC", 10) + "] [1] [h=5 ] [P p=9] \n");
}

TEST_F(DispatchTest, SixtyFourBitModuleHeaderMovesTheParametersToOffsetSixteen) {
    ASSERT_EQ(reader().moduleDetailsMap.at(0x0104).headerPadding, 7u);
    Bytes payload{0x01, 0, 0, 0, 0, 0, 0, 0, 0x02, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0x03};
    auto d = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01040001, 5, 1, 1), payload);
    EXPECT_EQ(d.rc, 0);
    // The header text follows the declaration order h, g.
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:WIDE", 10) + "] [" + pad("Wide", 25) +
                         "] [    INFO] [" + pad("CAT", 10) + "] [1] [h=2 g=1 ] [Q p=3 ] \n");
}

TEST_F(DispatchTest, DecodeModuleHeaderSetsTheStartOfTheLogParameters) {
    Bytes bytes{0x05, 0xee, 0xee, 0xee, 0x09};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    Tav::BinLogHeader header;
    Tav::ModuleDetails module = reader().moduleDetailsMap.at(0x0103);
    unsigned int offset = 1234;  // not read
    EXPECT_EQ(reader().decodeModuleHeaderFromPayLoad(module, header, payload, offset), 0);
    EXPECT_EQ(offset, 4u);
    EXPECT_EQ(module.decodedValues, (Values{{"h", "5"}}));

    Bytes wide{0x01, 0, 0, 0, 0, 0, 0, 0, 0x02};
    Tav::ByteReader widePayload(wide.data(), wide.size());
    Tav::ModuleDetails wideModule = reader().moduleDetailsMap.at(0x0104);
    offset = 0;
    EXPECT_EQ(reader().decodeModuleHeaderFromPayLoad(wideModule, header, widePayload, offset), 0);
    EXPECT_EQ(offset, 16u);
    EXPECT_EQ(wideModule.decodedValues, (Values{{"g", "1"}, {"h", "2"}}));
}

TEST_F(DispatchTest, ModuleHeaderDecodesStringsButNotVarBinaryStrings) {
    Tav::ModuleDetails module;
    module.hasModuleHeader = true;
    module.uint8Params.resize(1);
    module.uint8Params[0].name = "h";
    module.uint8Params[0].displayFormat = "DefaultDisplay";
    module.stringParams.resize(1);
    module.stringParams[0].name = "s";
    module.stringParams[0].length = 3;
    module.binaryStringParams.resize(1);
    module.binaryStringParams[0].name = "b";
    module.binaryStringParams[0].length = 2;
    module.varBinaryStringParams.resize(1);
    module.varBinaryStringParams[0].name = "vb";
    module.varBinaryStringParams[0].length = 4;
    module.headerPadding = 2;  // 1 + 3 + 2 bytes, padded to 8
    Bytes bytes{0x01, 'a', 'b', 0, 0x0c, 0x0d, 0xee, 0xee, 0x02, 0x00, 0xaa, 0xbb};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    Tav::BinLogHeader header;
    unsigned int offset = 0;
    EXPECT_EQ(reader().decodeModuleHeaderFromPayLoad(module, header, payload, offset), 0);
    EXPECT_EQ(offset, 8u);
    EXPECT_EQ(module.decodedValues, (Values{{"b", "0c:0d"}, {"h", "1"}, {"s", "ab"}}));
}

TEST_F(DispatchTest, DecodeBinLogPayLoadStartsAtTheGivenOffset) {
    Bytes bytes{0xff, 0x02, 0x01, 0x07};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    Tav::BinLogHeader header;
    Tav::LogDetails log = reader().logDetailsMap.at(0x0102).at(2);
    EXPECT_EQ(reader().decodeBinLogPayLoad(header, payload, log, 1), 0);
    EXPECT_EQ(log.decodedValues, (Values{{"a", "7"}, {"b", "258"}}));

    // The var binary strings come last.
    Bytes colors{0xee, 0x00, 0x02, 0x00, 0x0a, 0x0b};
    Tav::ByteReader colorPayload(colors.data(), colors.size());
    Tav::LogDetails colorLog = reader().logDetailsMap.at(0x0102).at(3);
    EXPECT_EQ(reader().decodeBinLogPayLoad(header, colorPayload, colorLog, 1), 0);
    EXPECT_EQ(colorLog.decodedValues, (Values{{"c", "RED"}, {"v", "payload size:2 0a:0b"}}));
}

TEST_F(DispatchTest, LaterGroupWinsForADuplicateName) {
    // x (unsigned 32) is decoded before x (unsigned 8), whose text wins.
    auto d = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01020004, 5, 3, 1),
                      {0xe8, 0x03, 0x00, 0x00, 0x07});
    EXPECT_EQ(d.out, modLine("Dup", "INFO", 1, "x=7"));
}

TEST_F(DispatchTest, LegacyRecordIsDecodedAndPrinted) {
    Bytes payload(56, 0);
    payload[0] = 0x03;  // 10243
    payload[1] = 0x28;
    payload[4] = 1;    // p1
    payload[8] = 2;    // p2
    payload[24] = 12;  // cid
    payload[28] = 'a';
    payload[29] = 'b';
    payload[30] = 'c';
    auto d = dispatch(makePcap(72), makeHeader(Tav::Legacy, 0x01020005, 4, 3, 1), payload);
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:MOD", 10) + "] [" + pad("Legacy", 25) +
                         "] [  NOTICE] [" + pad("CAT", 10) +
                         "] [1] [0000-03] [           abc]  [CID=12] Legacy text p1=1 p2=2 \n");
    EXPECT_EQ(d.err, "");
}

// ---- Per-record working copies
// -------------------------------------------------------------------

TEST_F(DispatchTest, DecodingOneRecordNeverChangesWhatTheNextStartsFrom) {
    auto first = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01020003, 5, 3, 1),
                          {0x01, 0x02, 0x00, 0xaa, 0xbb});
    EXPECT_EQ(first.out, modLine("Colors", "INFO", 1, "C c=GREEN v=payload size:2 aa:bb"));
    // An unknown enum value shows the empty text of a fresh copy, and the var
    // binary text starts afresh.
    auto second = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01020003, 5, 3, 2),
                           {0x09, 0x01, 0x00, 0xcc});
    EXPECT_EQ(second.out, modLine("Colors", "INFO", 2, "C c= v=payload size:1 cc"));

    auto header = dispatch(makePcap(), makeHeader(Tav::BinLog, 0x01030001, 5, 1, 3),
                           {0x05, 0xee, 0xee, 0xee, 0x09});
    EXPECT_EQ(header.rc, 0);

    const Tav::LogDetails& colors = reader().logDetailsMap.at(0x0102).at(3);
    EXPECT_TRUE(colors.decodedValues.empty());
    EXPECT_EQ(colors.uint8Params.at(0).displayValue, "");
    EXPECT_EQ(colors.varBinaryStringParams.at(0).displayValue, "");
    EXPECT_EQ(colors.varBinaryStringParams.at(0).value, "");
    EXPECT_EQ(colors.frameTiming, 0u);
    const Tav::ModuleDetails& hdr = reader().moduleDetailsMap.at(0x0103);
    EXPECT_TRUE(hdr.decodedValues.empty());
    EXPECT_EQ(hdr.uint8Params.at(0).displayValue, "");
    EXPECT_TRUE(reader().logDetailsMap.at(0x0103).at(1).decodedValues.empty());
}

TEST_F(DispatchTest, LegacyDecodingLeavesTheDictionaryAlone) {
    Bytes payload(56, 0);
    payload[0] = 0x03;
    payload[1] = 0x28;
    payload[4] = 9;
    dispatch(makePcap(72), makeHeader(Tav::Legacy, 0x01020005, 4, 3, 1), payload);
    const Tav::LogDetails& legacy = reader().logDetailsMap.at(0x0102).at(5);
    EXPECT_EQ(legacy.frameTiming, 0u);
    EXPECT_EQ(legacy.uint32Params.at(0).value, 0u);
    EXPECT_EQ(legacy.stringParams.at(0).value, "");
}

}  // namespace
