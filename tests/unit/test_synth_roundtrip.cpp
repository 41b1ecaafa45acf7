// Captures written by the capture writer and read back by the library: the
// decoded lines of every record kind, in every framing, plain and gzip, the
// statistics of a sequence gap, and the deliberately broken files.
#include <gtest/gtest.h>

#include <string>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Script.h"

using namespace binlog_synth;

namespace {

// RAN:cell: key (3 << 8) | 4 = 0x0304, version 2, a module header of a u16 and
// a u8 (padding 1). Logs 1 StateChange, 2 Trace, 3 AllKinds.
const char* const kRanCell = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="RAN" subsystemId="3" module="cell" moduleid="4" binlogversion="2">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cellId"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="StateChange" category="DIAG,radio" logString="state {state} at {sfn}">
    <p type="TavUint16_t" nameList="state" displayFormat="CellState"/>
    <p type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>
  </LogId>
  <LogId name="Trace" category="LEGACY" logString="legacy trace">
    <p type="TavUint32_t" nameList="ueId,rnti"/>
    <p type="TavUint8_t" nameList="cid"/>
    <p type="string" nameList="tag,detail"/>
  </LogId>
  <LogId name="AllKinds" category="TEST" logString="all kinds">
    <p type="varbinarystring" nameList="vb" size="8"/>
    <p type="string" nameList="s" size="6"/>
    <p type="binarystring" nameList="b" size="3"/>
    <p type="TavInt8_t" nameList="i8"/>
    <p type="TavUint8_t" nameList="u8" displayFormat="hex"/>
    <p type="TavInt16_t" nameList="i16" count="2"/>
    <p type="TavUint16_t" nameList="u16"/>
    <p type="TavInt32_t" nameList="i32"/>
    <p type="TavUint32_t" nameList="u32"/>
    <p type="TavInt64_t" nameList="i64"/>
    <p type="TavUint64_t" nameList="u64"/>
  </LogId>
</LoggingSubSystem>
)";

// OAM:sys: key 0x0501, version 1, no module header.
const char* const kOamSys = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="OAM" subsystemId="5" module="sys" moduleid="1" binlogversion="1">
  <LogId name="Boot" category="BOOT" logString="Booted {count} times">
    <p type="TavUint32_t" nameList="count"/>
  </LogId>
</LoggingSubSystem>
)";

const char* const kDisplay = R"(<?xml version="1.0"?>
<displays>
  <enum name="CellState">
    <e value="0" text="IDLE"/><e value="1" text="CONFIGURED"/>
    <e value="2" text="ACTIVE"/><e value="3" text="BLOCKED"/>
  </enum>
</displays>
)";

constexpr unsigned short kPort = 5000;
constexpr unsigned short kMaxVarBytes = 2;

// The frame stamps 12345, 10243 and 10240 (0x3039, 0x2803, 0x2800: frame
// numbers above 1023, written as bits since no sender writes them) show how
// the decoder keeps the frame number to 10 bits.
const char* const kRecords =
    "start 2024-05-01T12:00:00.250Z\n"
    "step 1ms\n"
    "binlog RAN:cell StateChange seq=5 cellId=7 carrier=1 state=ACTIVE sfn=0x3039\n"
    "binlog RAN:cell AllKinds level=DEBUG cellId=9 carrier=2 vb=01020304 s=abc b=0a1bff "
    "i8=-128 u8=255 i16=-1,2 u16=65535 i32=-100000 u32=4000000000 i64=-2 "
    "u64=18446744073709551615\n"
    "legacy RAN:cell Trace frame=0x2803 ueId=1 rnti=2 cid=12 tag=abc detail=xyz\n"
    "syslog seq=3 tag=mytag text=\"hello\\nworld\"\n"
    "capture seq=7 bytes=16\n"
    "binlog OAM:sys Boot level=NOTICE count=3\n"
    "binlog RAN:cell StateChange state=9 sfn=0x2800\n";

// Line layouts: "[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%s] [%s] \n" with a
// module header, the legacy, syslog and capture layouts; the message texts
// follow the placeholder and parameter-list rules.
const char* const kExpected =
    "[2024-05-01T12:00:00.250Z] [  RAN:cell] [              StateChange] [    INFO] "
    "[      DIAG] [5] [cellId=7 carrier=1 ] [state state=ACTIVE at sfn=0210-05] \n"
    "[2024-05-01T12:00:00.251Z] [  RAN:cell] [                 AllKinds] [   DEBUG] "
    "[      TEST] [6] [cellId=9 carrier=2 ] [all kinds vb=payload size:4 01:02 s=abc "
    "b=0a:1b:ff i8=-128 u8=0xff i16=[i16[0]=-1,i16[1]=2] u16=65535 i32=-100000 "
    "u32=4000000000 i64=-2 u64=18446744073709551615 ] \n"
    "[2024-05-01T12:00:00.252Z] [  RAN:cell] [                    Trace] [    INFO] "
    "[    LEGACY] [7] [0000-03] [           abc]  [CID=12] legacy trace ueId=1 rnti=2 "
    "detail=xyz \n"
    "[2024-05-01T12:00:00.253Z] [syslog] [           mytag] [    INFO] [3] [hello\\nworld]\n"
    "[2024-05-01T12:00:00.254Z] [wireshark] [length=32] [seqNo=         7]\n"
    "[2024-05-01T12:00:00.255Z] [   OAM:sys] [                     Boot] [  NOTICE] "
    "[      BOOT] [1] [Booted count=3 times] \n"
    "[2024-05-01T12:00:00.256Z] [  RAN:cell] [              StateChange] [    INFO] "
    "[      DIAG] [8] [cellId=0 carrier=0 ] [state state= at sfn=0000-00] \n";

class SynthRoundTrip : public ::testing::Test {
  protected:
    void SetUp() override {
        dictDir_.writeFile("ran_cell_binlog.xml", kRanCell);
        dictDir_.writeFile("oam_sys_binlog.xml", kOamSys);
        dictDir_.writeFile("common_bindisplay.xml", kDisplay);
    }

    /// Writes the capture that `text` describes into `name`; the test fails
    /// on a script error.
    std::string write(const std::string& text, const std::string& name) {
        Dictionary dictionary;
        std::string error;
        EXPECT_TRUE(dictionary.load(dictDir_.path(), error)) << error;
        Script script;
        EXPECT_TRUE(parseScript(text, name, script, error)) << error;
        const std::string path = out_.path() + "/" + name;
        OutputSink sink;
        EXPECT_TRUE(sink.open(path, script.settings.gzip, error)) << error;
        CaptureWriter writer(sink, script.settings.framing, script.settings.header);
        ScriptRunner runner(&dictionary);
        EXPECT_TRUE(runner.run(script, writer, error)) << error;
        EXPECT_TRUE(writer.finish());
        EXPECT_TRUE(sink.close(error)) << error;
        return path;
    }

    /// Decodes `path`; `err` receives what the library wrote on standard error.
    std::string decode(const std::string& path, bool stats, std::string* err = nullptr) {
        Tav::BinaryLogXmlReader reader(dictDir_.slash(), stats, kPort, kMaxVarBytes);
        EXPECT_TRUE(reader.isGood());
        wexbl_test::MemoryStream out;
        wexbl_test::StderrCapture capture;
        reader.readBinaryFiledata(path, 0, out.file());
        const std::string errText = capture.stop();
        if (err != nullptr) {
            *err = errText;
        } else {
            EXPECT_EQ(errText, "");
        }
        return out.text();
    }

    wexbl_test::TempDir dictDir_;
    wexbl_test::TempDir out_;
};

TEST_F(SynthRoundTrip, EveryRecordKindOnLinkType150) {
    EXPECT_EQ(decode(write(kRecords, "a.pcap"), false), kExpected);
}

TEST_F(SynthRoundTrip, EveryRecordKindOverIpv4Gzip) {
    const std::string path =
        write(std::string("gzip\nlink ipv4 port=5000\n") + kRecords, "b.pcap.gz");
    EXPECT_EQ(wexbl_test::readFile(path).substr(0, 2), "\x1f\x8b");
    EXPECT_EQ(decode(path, false), kExpected);
}

TEST_F(SynthRoundTrip, EveryRecordKindOverIpv6) {
    EXPECT_EQ(decode(write(std::string("link ipv6 port=5000\n") + kRecords, "c.pcap"), false),
              kExpected);
}

TEST_F(SynthRoundTrip, RecordsToAnotherPortOrProtocolAreSkipped) {
    const std::string path = write(
        "link ipv4 port=5000\nstart 1714564800\n"
        "binlog OAM:sys Boot count=1 port=6000\n"
        "binlog OAM:sys Boot count=2 proto=6\n"
        "binlog OAM:sys Boot count=3 ethertype=0x0806\n"
        "binlog OAM:sys Boot count=4\n",
        "d.pcap");
    EXPECT_EQ(decode(path, false),
              "[2024-05-01T12:00:00.003Z] [   OAM:sys] [                     Boot] [    INFO] "
              "[      BOOT] [4] [Booted count=4 times] \n");
}

TEST_F(SynthRoundTrip, EthernetLinesShowTheSendersTime) {
    const std::string path = write(
        "link ipv6 port=5000\n"
        "binlog OAM:sys Boot count=1 time=2024-05-01T12:00:00.250Z "
        "filetime=2020-09-13T12:26:40Z\n",
        "e.pcap");
    EXPECT_EQ(decode(path, false),
              "[2024-05-01T12:00:00.250Z] [   OAM:sys] [                     Boot] [    INFO] "
              "[      BOOT] [1] [Booted count=1 times] \n");
}

TEST_F(SynthRoundTrip, SequenceGapReorderAndRepeatInTheStatistics) {
    const std::string path = write(
        "start 1714564800.5\nstep 1ms\n"
        "binlog OAM:sys Boot count=1\n"
        "binlog OAM:sys Boot count=2\n"
        "binlog OAM:sys Boot count=3 seq=5\n"
        "binlog OAM:sys Boot count=4 seq=4\n"
        "binlog OAM:sys Boot count=5 seq=5\n",
        "f.pcap");
    const auto line = [](const char* ms, const char* seq, const char* count) {
        return std::string("[2024-05-01T12:00:00.") + ms +
               "Z] [   OAM:sys] [                     Boot] [    INFO] [      BOOT] [" + seq +
               "] [Booted count=" + count + " times] \n";
    };
    // 5 records over 4 ms; 1 missing after the late record 4 came in.
    EXPECT_EQ(decode(path, true),
              line("500", "1", "1") + line("501", "2", "2") +
                  ">>possibly missing packets: module=0x501,lastSeqNo=2,curSeqNo=5: "
                  "diff=2,missingRecords_=0\n" +
                  line("502", "5", "3") +
                  ">>out of order packets: module=0x501, lastSeqNo=5,curSeqNo=4\n" +
                  line("503", "4", "4") + line("504", "5", "5") +
                  ">>totalRecords =  5\n"
                  ">>missingRecords =  1 (16.666667%)\n"
                  ">>outOfOrderRecords =  1\n"
                  ">>records received/msec = 1.25\n"
                  ">>records generated at source/msec = 1.50\n"
                  ">>records received/sec = 1250.00\n"
                  ">>records generated at source/sec = 1500.00\n"
                  ">>total log record size = 100\n"
                  ">>average log record size = 20\n");
}

TEST_F(SynthRoundTrip, VersionAndLevelChecks) {
    const std::string path = write(
        "binlog OAM:sys Boot version=9\n"
        "binlog OAM:sys Boot level=10\n",
        "g.pcap");
    EXPECT_EQ(decode(path, false),
              "Mismatch in version for log [Boot] logVersion [9] xmlVersion [1] \n"
              "Invalig log level [10] for log [Boot] \n");
}

TEST_F(SynthRoundTrip, UnknownLogId) {
    std::string err;
    const std::string path = write("record logid=0x09090001 payload=00\n", "h.pcap");
    EXPECT_EQ(decode(path, false, &err), "");
    EXPECT_EQ(err, "Log id :9090001 not valid\n");
}

TEST_F(SynthRoundTrip, TruncatedLastRecord) {
    std::string err;
    const std::string path =
        write("start 1714564800\nbinlog OAM:sys Boot count=1\nbinlog OAM:sys Boot count=2 cut=10\n",
              "i.pcap");
    EXPECT_EQ(decode(path, true, &err),
              "[2024-05-01T12:00:00.000Z] [   OAM:sys] [                     Boot] [    INFO] "
              "[      BOOT] [1] [Booted count=1 times] \n");
    EXPECT_EQ(err,
              "Warning: Possibly truncated file. Actual payloadBytes :10 Expected payloadBytes "
              ":20\n");
}

TEST_F(SynthRoundTrip, OversizedRecordLength) {
    std::string err;
    const std::string path = write("binlog OAM:sys Boot storagelen=25001\n", "j.pcap");
    EXPECT_EQ(decode(path, false, &err), "");
    EXPECT_EQ(err, "pHdr storageLength 25001 is more thanMAX_BINLOG_LENGTH\n");
}

TEST_F(SynthRoundTrip, BrokenGlobalHeaders) {
    std::string err;
    EXPECT_EQ(decode(write("linktype 105\nbinlog OAM:sys Boot\n", "k.pcap"), false, &err), "");
    EXPECT_EQ(err, "Invalid link type 105 found. Not a valid log pcap file\n");
    EXPECT_EQ(decode(write("globalheader short=23\n", "l.pcap"), false, &err), "");
    EXPECT_EQ(err, "No global header found\n");
}

TEST_F(SynthRoundTrip, ShortSyslogRecordIsSkipped) {
    std::string err;
    // 16 header bytes and 1 payload byte: storageLength 17, below 32.
    EXPECT_EQ(decode(write("syslog payload=00\n", "m.pcap"), false, &err), "");
    EXPECT_NE(err.find("17"), std::string::npos) << err;
}

}  // namespace
