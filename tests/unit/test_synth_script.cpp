// The capture writer's scripts: the small text parsers, the file settings,
// and the records a script produces (header fields, sequence numbers, time
// stamps, payloads, deliberate breakage) and its error messages.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Script.h"
#include "binlog_synth/Text.h"

using namespace binlog_synth;

namespace {

const char* const kRanCell = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="RAN" subsystemId="3" module="cell" moduleid="4" binlogversion="2">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cellId"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="First" category="A" logString="first"/>
  <LogId name="Second" category="B" logString="second {n}">
    <p type="TavUint32_t" nameList="n"/>
  </LogId>
  <LogId name="StateChange" category="DIAG,radio" logString="state {state} at {sfn}">
    <p type="TavUint16_t" nameList="state" displayFormat="CellState"/>
    <p type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>
  </LogId>
  <LogId name="Trace" category="LEGACY" logString="legacy trace">
    <p type="TavUint32_t" nameList="ueId,rnti"/>
    <p type="TavUint8_t" nameList="cid"/>
    <p type="string" nameList="tag,detail"/>
  </LogId>
  <LogId name="Clash" category="X" logString="clash">
    <p type="TavUint8_t" nameList="cellId"/>
  </LogId>
</LoggingSubSystem>
)";

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

unsigned byteAt(const std::string& s, std::size_t i) {
    return static_cast<unsigned char>(s.at(i));
}

std::uint32_t le32(const std::string& s, std::size_t i) {
    return byteAt(s, i) | (byteAt(s, i + 1) << 8) | (byteAt(s, i + 2) << 16) |
           (static_cast<std::uint32_t>(byteAt(s, i + 3)) << 24);
}

unsigned le16(const std::string& s, std::size_t i) {
    return byteAt(s, i) | (byteAt(s, i + 1) << 8);
}

/// A record of a link-type-150 capture as written.
struct Rec {
    std::uint32_t tsSec, tsUsec, storageLength;
    std::string data;
    std::uint32_t packetType() const { return le32(data, 0); }
    std::uint32_t logId() const { return le32(data, 4); }
    unsigned level() const { return le16(data, 8); }
    unsigned version() const { return le16(data, 10); }
    std::uint32_t seq() const { return le32(data, 12); }
    std::string payloadHex() const { return toHex(data.substr(16)); }
};

/// Splits a capture (24-byte global header, then records) into its records.
std::vector<Rec> splitRecords(const std::string& capture) {
    std::vector<Rec> out;
    std::size_t at = 24;
    while (at + 16 <= capture.size()) {
        Rec r{le32(capture, at), le32(capture, at + 4), le32(capture, at + 12), ""};
        r.data = capture.substr(at + 16, r.storageLength);
        at += 16 + r.storageLength;
        out.push_back(r);
    }
    return out;
}

class SynthScript : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("ran_cell_binlog.xml", kRanCell);
        dir_.writeFile("oam_sys_binlog.xml", kOamSys);
        dir_.writeFile("common_bindisplay.xml", kDisplay);
        std::string error;
        ASSERT_TRUE(dictionary_.load(dir_.path(), error)) << error;
    }

    /// Runs `text` into memory; false with `error` on a script error.
    bool run(const std::string& text, std::string& capture, std::string& error,
             bool withDictionary = true) {
        Script script;
        if (!parseScript(text, "s.synth", script, error)) {
            return false;
        }
        OutputSink sink;
        sink.openMemory();
        CaptureWriter writer(sink, script.settings.framing, script.settings.header);
        ScriptRunner runner(withDictionary ? &dictionary_ : nullptr);
        const bool ok = runner.run(script, writer, error) && writer.finish();
        std::string closeError;
        EXPECT_TRUE(sink.close(closeError)) << closeError;
        capture = sink.memory();
        return ok;
    }

    std::vector<Rec> records(const std::string& text) {
        std::string capture, error;
        EXPECT_TRUE(run(text, capture, error)) << error;
        return splitRecords(capture);
    }

    std::string errorOf(const std::string& text) {
        std::string capture, error;
        EXPECT_FALSE(run(text, capture, error));
        return error;
    }

    wexbl_test::TempDir dir_;
    Dictionary dictionary_;
};

TEST(SynthText, Tokens) {
    std::vector<Token> t;
    std::string error;
    ASSERT_TRUE(
        tokenizeLine("  binlog L1:phy Log a=1 s=\"x y\\n\\\"z\\x41\" b=  # note", t, error));
    ASSERT_EQ(t.size(), 6u);
    EXPECT_EQ(t[0].key, "binlog");
    EXPECT_FALSE(t[0].hasValue);
    EXPECT_EQ(t[3].key, "a");
    EXPECT_EQ(t[3].value, "1");
    EXPECT_EQ(t[4].key, "s");
    EXPECT_EQ(t[4].value, "x y\n\"zA");
    EXPECT_TRUE(t[4].quoted);
    EXPECT_TRUE(t[5].hasValue);
    EXPECT_EQ(t[5].value, "");
    ASSERT_TRUE(tokenizeLine("text=\"a=b # c\"", t, error));
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].value, "a=b # c");
    ASSERT_TRUE(tokenizeLine("# only a comment", t, error));
    EXPECT_TRUE(t.empty());
    EXPECT_FALSE(tokenizeLine("s=\"open", t, error));
    EXPECT_EQ(error, "unterminated quoted string");
    EXPECT_FALSE(tokenizeLine("s=\"\\q\"", t, error));
    EXPECT_EQ(error, "unknown escape \\q");
    EXPECT_FALSE(tokenizeLine("s=\"\\x4\"", t, error));
}

TEST(SynthText, Times) {
    std::uint32_t sec = 0, usec = 0;
    // 2024-05-01 is day 19844 after 1970-01-01: 19844 * 86400 = 1714521600.
    ASSERT_TRUE(parseTime("2024-05-01T12:00:00.250Z", sec, usec));
    EXPECT_EQ(sec, 1714521600u + 12 * 3600);
    EXPECT_EQ(usec, 250000u);
    ASSERT_TRUE(parseTime("2024-05-01T12:00:00", sec, usec));
    EXPECT_EQ(usec, 0u);
    ASSERT_TRUE(parseTime("1714564800.25", sec, usec));
    EXPECT_EQ(sec, 1714564800u);
    EXPECT_EQ(usec, 250000u);
    ASSERT_TRUE(parseTime("1970-01-01T00:00:00.000001Z", sec, usec));
    EXPECT_EQ(sec, 0u);
    EXPECT_EQ(usec, 1u);
    ASSERT_TRUE(parseTime("2106-02-07T06:28:15Z", sec, usec));
    EXPECT_EQ(sec, 4294967295u);
    EXPECT_FALSE(parseTime("2106-02-07T06:28:16Z", sec, usec));
    ASSERT_TRUE(parseTime("2024-02-29T00:00:00Z", sec, usec));
    EXPECT_FALSE(parseTime("2023-02-29T00:00:00Z", sec, usec));
    EXPECT_FALSE(parseTime("2024-04-31T00:00:00Z", sec, usec));
    EXPECT_FALSE(parseTime("2024-05-01T24:00:00Z", sec, usec));
    EXPECT_FALSE(parseTime("2024-05-01T12:00:00.1234567Z", sec, usec));
    EXPECT_FALSE(parseTime("4294967296", sec, usec));
    EXPECT_FALSE(parseTime("0x10", sec, usec));
    EXPECT_FALSE(parseTime("", sec, usec));
    EXPECT_EQ(formatTime(1714564800, 250000), "2024-05-01T12:00:00.250Z");
    EXPECT_EQ(formatTime(0, 999999), "1970-01-01T00:00:00.999Z");
}

TEST(SynthText, DurationsRatesAndHex) {
    std::uint64_t ns = 0;
    ASSERT_TRUE(parseDuration("1ms", ns));
    EXPECT_EQ(ns, 1000000u);
    ASSERT_TRUE(parseDuration("250us", ns));
    EXPECT_EQ(ns, 250000u);
    ASSERT_TRUE(parseDuration("1.5ms", ns));
    EXPECT_EQ(ns, 1500000u);
    ASSERT_TRUE(parseDuration("2s", ns));
    EXPECT_EQ(ns, 2000000000u);
    ASSERT_TRUE(parseDuration("7ns", ns));
    EXPECT_EQ(ns, 7u);
    ASSERT_TRUE(parseDuration("0", ns));
    EXPECT_EQ(ns, 0u);
    EXPECT_FALSE(parseDuration("5", ns));
    EXPECT_FALSE(parseDuration("1m", ns));
    EXPECT_FALSE(parseDuration("ms", ns));

    std::uint64_t num = 0, den = 0;
    ASSERT_TRUE(parseRate("2.5", num, den));
    EXPECT_EQ(num, 25u);
    EXPECT_EQ(den, 10u);
    ASSERT_TRUE(parseRate("1000", num, den));
    EXPECT_EQ(num, 1000u);
    EXPECT_EQ(den, 1u);
    EXPECT_FALSE(parseRate("0", num, den));
    EXPECT_FALSE(parseRate("0.0", num, den));
    EXPECT_FALSE(parseRate("-1", num, den));

    std::string bytes;
    ASSERT_TRUE(parseHexBytes("0a1b2cFF", bytes));
    EXPECT_EQ(bytes, std::string("\x0a\x1b\x2c\xff", 4));
    ASSERT_TRUE(parseHexBytes("0x0a:1b", bytes));
    EXPECT_EQ(bytes, std::string("\x0a\x1b", 2));
    ASSERT_TRUE(parseHexBytes("", bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(parseHexBytes("abc", bytes));
    EXPECT_FALSE(parseHexBytes("a:bc", bytes));
    EXPECT_FALSE(parseHexBytes("zz", bytes));
}

TEST_F(SynthScript, FileSettings) {
    Script script;
    std::string error;
    ASSERT_TRUE(
        parseScript("# settings\ngzip\nlink ipv4 port=6000 srcport=1 dst=198.51.100.7\n"
                    "globalheader short=10\nlinktype 7\nsnaplen 100\n",
                    "s.synth", script, error))
        << error;
    EXPECT_TRUE(script.settings.gzipSet);
    EXPECT_TRUE(script.settings.gzip);
    EXPECT_TRUE(script.settings.framingSet);
    EXPECT_EQ(script.settings.framing.kind, LinkKind::Ipv4);
    EXPECT_EQ(script.settings.framing.dstPort, 6000);
    EXPECT_EQ(script.settings.framing.srcPort, 1);
    EXPECT_EQ(script.settings.framing.ipv4Dst[0], 198);
    EXPECT_EQ(script.settings.framing.ipv4Dst[3], 7);
    EXPECT_EQ(script.settings.header.mode, GlobalHeaderSettings::Mode::Short);
    EXPECT_EQ(script.settings.header.shortLength, 10u);
    EXPECT_EQ(script.settings.header.linkType, 7);
    EXPECT_EQ(script.settings.header.snapLength, 100u);
    EXPECT_TRUE(script.lines.empty());

    ASSERT_TRUE(parseScript("link ipv6 port=1 src=2001:db8::9\nplain\n", "s.synth", script, error));
    EXPECT_EQ(script.settings.framing.kind, LinkKind::Ipv6);
    EXPECT_EQ(script.settings.framing.ipv6Src[15], 9);
    EXPECT_FALSE(script.settings.gzip);
}

TEST_F(SynthScript, SettingErrorsNameTheLine) {
    Script script;
    std::string error;
    EXPECT_FALSE(parseScript("syslog tag=a\n\nlink ipv4\n", "s.synth", script, error));
    EXPECT_EQ(error,
              "s.synth:3: link concerns the whole file and must come before the first record");
    EXPECT_FALSE(parseScript("frobnicate\n", "s.synth", script, error));
    EXPECT_EQ(error, "s.synth:1: unknown command frobnicate");
    EXPECT_FALSE(parseScript("link ipx\n", "s.synth", script, error));
    EXPECT_EQ(error,
              "s.synth:1: unknown framing ipx (150, ipv4, ipv6, or a link layer and an IP "
              "version: ethernet|sll|sll2|raw|null ipv4|ipv6, 228, 229; the layers also by link "
              "type number: 1, 113, 276, 101, 0)");
    EXPECT_FALSE(parseScript("link 150 port=5000\n", "s.synth", script, error));
    EXPECT_EQ(error, "s.synth:1: link 150 takes no options");
    EXPECT_FALSE(parseScript("link ipv4 dst=2001:db8::1\n", "s.synth", script, error));
    EXPECT_EQ(error, "s.synth:1: bad IPv4 address for dst=");
    EXPECT_FALSE(parseScript("globalheader short=24\n", "s.synth", script, error));
    EXPECT_FALSE(parseScript("gzip now\n", "s.synth", script, error));
    EXPECT_FALSE(parseScript("x=1\n", "s.synth", script, error));
    EXPECT_FALSE(parseScript("syslog text=\"open\n", "s.synth", script, error));
    EXPECT_EQ(error, "s.synth:1: unterminated quoted string");
}

TEST_F(SynthScript, HeaderFieldsSequenceNumbersAndTimes) {
    const std::vector<Rec> r = records(
        "start 1000\n"
        "step 250ms\n"
        "binlog RAN:cell Second n=1\n"
        "binlog RAN:cell Second n=2 seq=10\n"
        "binlog OAM:sys Boot count=3\n"
        "binlog RAN:cell First\n"
        "syslog tag=t text=x\n"
        "syslog tag=t text=y\n"
        "capture bytes=3\n"
        "repeat 2 binlog OAM:sys Boot seq=50\n"
        "legacy RAN:cell Trace\n");
    ASSERT_EQ(r.size(), 10u);
    // Numbers run per module; syslog and capture records have their own.
    const std::uint32_t seqs[] = {1, 10, 1, 11, 1, 2, 1, 50, 51, 12};
    for (std::size_t i = 0; i < r.size(); ++i) {
        EXPECT_EQ(r[i].seq(), seqs[i]) << "record " << i;
        EXPECT_EQ(r[i].tsSec, 1000u + i / 4) << "record " << i;
        EXPECT_EQ(r[i].tsUsec, 250000u * (i % 4)) << "record " << i;
    }
    EXPECT_EQ(r[0].packetType(), 0u);
    EXPECT_EQ(r[0].logId(), 0x03040002u);
    EXPECT_EQ(r[0].level(), 5u);
    EXPECT_EQ(r[0].version(), 2u);
    EXPECT_EQ(r[2].logId(), 0x05010001u);
    EXPECT_EQ(r[2].version(), 1u);
    EXPECT_EQ(r[4].packetType(), 2u);
    EXPECT_EQ(r[4].logId(), 0u);
    EXPECT_EQ(r[4].level(), 5u);
    EXPECT_EQ(r[6].packetType(), 3u);
    EXPECT_EQ(r[6].level(), 0u);
    EXPECT_EQ(r[9].packetType(), 1u);
    EXPECT_EQ(r[9].logId(), 0x03040004u);
}

TEST_F(SynthScript, BinLogPayloads) {
    const std::vector<Rec> r = records(
        "binlog RAN:cell StateChange cellId=0x0102 carrier=3 state=ACTIVE sfn=1023-9\n"
        "binlog RAN:cell Clash hdr.cellId=7 log.cellId=8\n"
        "binlog RAN:cell Second\n"
        "binlog OAM:sys Boot payload=0102 extra=03\n"
        "binlog OAM:sys Boot count=5 trim=1\n"
        "binlog OAM:sys Boot count=5 extra=ff\n");
    ASSERT_EQ(r.size(), 6u);
    // Header: cellId, carrier, one padding byte; then sfn (u32) before state (u16).
    EXPECT_EQ(r[0].payloadHex(),
              "0201"
              "03"
              "00"
              "ff270000"
              "0200");  // 10239 = 0x27ff
    EXPECT_EQ(r[1].payloadHex(),
              "0700"
              "00"
              "00"
              "08");
    EXPECT_EQ(r[2].payloadHex(),
              "0000"
              "00"
              "00"
              "00000000");
    EXPECT_EQ(r[3].payloadHex(), "010203");
    EXPECT_EQ(r[4].payloadHex(), "050000");
    EXPECT_EQ(r[5].payloadHex(), "05000000ff");
    EXPECT_EQ(r[3].storageLength, 19u);
}

TEST_F(SynthScript, HeaderOverrides) {
    const std::vector<Rec> r = records(
        "binlog OAM:sys Boot version=9 level=DEBUG logid=0x01020003 packettype=7 seq=4\n"
        "record packettype=5 logid=0x09090001 level=ALWAYS version=3 payload=aa\n"
        "record\n");
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].version(), 9u);
    EXPECT_EQ(r[0].level(), 6u);
    EXPECT_EQ(r[0].logId(), 0x01020003u);
    EXPECT_EQ(r[0].packetType(), 7u);
    EXPECT_EQ(r[0].seq(), 4u);
    EXPECT_EQ(r[1].packetType(), 5u);
    EXPECT_EQ(r[1].logId(), 0x09090001u);
    EXPECT_EQ(r[1].level(), 8u);
    EXPECT_EQ(r[1].version(), 3u);
    EXPECT_EQ(r[1].payloadHex(), "aa");
    EXPECT_EQ(r[2].data.size(), 16u);
    EXPECT_EQ(r[2].packetType(), 0u);
    EXPECT_EQ(r[2].logId(), 0u);
}

TEST_F(SynthScript, LegacyPayloadFromNamesAndSlots) {
    const std::vector<Rec> r = records(
        "legacy RAN:cell Trace frame=1023-3 ueId=1 rnti=2 cid=12 tag=abc detail=xyz\n"
        "legacy RAN:cell Trace frame=7 u32=1,2,3,4,5 u8=9,8,7,6 text1=\"a b\" "
        "text2=TRAILERTRAILER\n");
    ASSERT_EQ(r.size(), 2u);
    ASSERT_EQ(r[0].data.size(), 16u + 56u);
    EXPECT_EQ(r[0].payloadHex(),
              "f9270000"  // 10233
              "01000000"
              "02000000"
              "00000000"
              "00000000"
              "00000000"  // ueId, rnti
              "0c000000"  // cid
              "616263"
              "0000000000000000000000"  // abc
              "78797a"
              "0000000000000000000000");  // xyz
    EXPECT_EQ(r[1].payloadHex(),
              "07000000"
              "01000000"
              "02000000"
              "03000000"
              "04000000"
              "05000000"
              "09080706"
              "612062"
              "0000000000000000000000"
              "545241494c4552545241494c4552");
}

TEST_F(SynthScript, SyslogAndCapturePayloads) {
    const std::vector<Rec> r = records(
        "syslog tag=mytag text=\"hello\\nworld\"\n"
        "syslog tag=sixteen-chars-ok text=\n"
        "capture data=c0ffee\n"
        "capture bytes=4\n");
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0].payloadHex(),
              "6d79746167"
              "0000000000000000000000"
              "68656c6c6f0a776f726c64");
    EXPECT_EQ(r[0].storageLength, 16u + 16u + 11u);
    EXPECT_EQ(r[1].data.size(), 32u);
    EXPECT_EQ(r[2].payloadHex(), "c0ffee");
    EXPECT_EQ(r[3].payloadHex(), "00010203");
}

TEST_F(SynthScript, BrokenFiles) {
    std::string capture, error;
    ASSERT_TRUE(run("globalheader none\nrawfile d4c3b2a1 0200\n", capture, error)) << error;
    EXPECT_EQ(toHex(capture), "d4c3b2a10200");
    ASSERT_TRUE(run("globalheader short=5\n", capture, error)) << error;
    EXPECT_EQ(capture.size(), 5u);
    ASSERT_TRUE(run("linktype 105\nbinlog OAM:sys Boot\n", capture, error)) << error;
    EXPECT_EQ(le32(capture, 20), 105u);
    ASSERT_TRUE(run("binlog OAM:sys Boot storagelen=100 cut=10\n", capture, error)) << error;
    ASSERT_EQ(capture.size(), 24u + 16u + 10u);
    EXPECT_EQ(le32(capture, 24 + 8), 20u);
    EXPECT_EQ(le32(capture, 24 + 12), 100u);
    ASSERT_TRUE(run("binlog OAM:sys Boot tssec=5 tsusec=1500000\n", capture, error)) << error;
    EXPECT_EQ(le32(capture, 24), 5u);
    EXPECT_EQ(le32(capture, 28), 1500000u);
}

TEST_F(SynthScript, HeaderCutEndsTheFileInsideARecordHeader) {
    std::string capture, error;
    ASSERT_TRUE(
        run("binlog OAM:sys Boot\nbinlog OAM:sys Boot time=5 headercut=9\n", capture, error))
        << error;
    // The first record whole (16 + 20 bytes), then the second record's time
    // stamp (5 s, 0 us) and the low byte of its captured length (20).
    ASSERT_EQ(capture.size(), 24u + 36u + 9u);
    EXPECT_EQ(toHex(capture.substr(24 + 36)), "050000000000000014");

    // On Ethernet the cut applies to the file's record header as well.
    ASSERT_TRUE(run("link ipv6\nbinlog OAM:sys Boot time=7 headercut=4\n", capture, error))
        << error;
    EXPECT_EQ(toHex(capture.substr(24)), "07000000");
    ASSERT_TRUE(run("binlog OAM:sys Boot headercut=0\n", capture, error)) << error;
    EXPECT_EQ(capture.size(), 24u);

    EXPECT_EQ(errorOf("binlog OAM:sys Boot headercut=16\n"),
              "s.synth:1: bad value for headercut= (a number up to 15 expected)");
}

TEST_F(SynthScript, EthernetOptions) {
    std::string capture, error;
    ASSERT_TRUE(
        run("link ipv4 port=5000\n"
            "binlog OAM:sys Boot port=6000 ethertype=0x0806 proto=6 senderlen=3 "
            "filetime=2000 time=1000\n",
            capture, error))
        << error;
    const std::string data = capture.substr(24 + 16);
    EXPECT_EQ(le32(capture, 24), 2000u);  // the file's record time
    EXPECT_EQ(le32(data, 42), 1000u);     // the sender's time
    EXPECT_EQ(le32(data, 54), 3u);        // the sender's storage length
    EXPECT_EQ(byteAt(data, 12), 0x08u);
    EXPECT_EQ(byteAt(data, 13), 0x06u);
    EXPECT_EQ(byteAt(data, 23), 6u);
    EXPECT_EQ(byteAt(data, 36) * 256 + byteAt(data, 37), 6000u);
    EXPECT_EQ(errorOf("binlog OAM:sys Boot port=1\n"),
              "s.synth:1: port= needs a UDP framing (any link but 150)");
}

TEST_F(SynthScript, RandomFillFollowsTheSeed) {
    const std::string text = "seed 9\nrepeat 3 binlog RAN:cell StateChange fill=random cellId=4\n";
    const std::vector<Rec> a = records(text);
    const std::vector<Rec> b = records(text);
    const std::vector<Rec> c = records(
        "seed 10\nrepeat 3 binlog RAN:cell StateChange fill=random "
        "cellId=4\n");
    ASSERT_EQ(a.size(), 3u);
    std::string all, allC;
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(a[i].data, b[i].data);
        EXPECT_EQ(a[i].payloadHex().substr(0, 4), "0400");  // the given value stays
        all += a[i].data;
        allC += c[i].data;
    }
    EXPECT_NE(all, allC);
}

TEST_F(SynthScript, FrameStampsStayWithinWhatTheDecoderShows) {
    // SF-SFN values are FRAME * 10 + SUBFRAME, frames 0-1023 and subframes
    // 0-9; 0x numbers are written as the bits given.
    const std::vector<Rec> r = records(
        "binlog RAN:cell StateChange sfn=0-0\n"
        "binlog RAN:cell StateChange sfn=1023-9\n"
        "binlog RAN:cell StateChange sfn=10239\n"
        "binlog RAN:cell StateChange sfn=0x3039\n"
        "legacy RAN:cell Trace frame=512-3\n"
        "legacy RAN:cell Trace frame=10239\n"
        "legacy RAN:cell Trace frame=0x2803\n");
    ASSERT_EQ(r.size(), 7u);
    // Module header (4 bytes), then sfn.
    EXPECT_EQ(r[0].payloadHex().substr(8, 8), "00000000");
    EXPECT_EQ(r[1].payloadHex().substr(8, 8), "ff270000");  // 10239
    EXPECT_EQ(r[2].payloadHex().substr(8, 8), "ff270000");
    EXPECT_EQ(r[3].payloadHex().substr(8, 8), "39300000");  // 12345
    EXPECT_EQ(r[4].payloadHex().substr(0, 8), "03140000");  // 5123 = 0x1403
    EXPECT_EQ(r[5].payloadHex().substr(0, 8), "ff270000");
    EXPECT_EQ(r[6].payloadHex().substr(0, 8), "03280000");  // 10243

    const std::string what = "s.synth:3: bad value ";
    const std::string prefix = "syslog tag=a\nbinlog RAN:cell First\n";
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=1234-5\n"),
              what +
                  "\"1234-5\" for TavUint32_t parameter sfn: frame 1234 is above 1023 (it "
                  "would show as 0210-05; write 0x3039 to store it anyway)");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=1024-0\n"),
              what +
                  "\"1024-0\" for TavUint32_t parameter sfn: frame 1024 is above 1023 (it "
                  "would show as 0000-00; write 0x2800 to store it anyway)");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=5-10\n"),
              what + "\"5-10\" for TavUint32_t parameter sfn: subframe 10 is above 9");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=10240\n"),
              what +
                  "\"10240\" for TavUint32_t parameter sfn: 10240 is frame 1024, above 1023 "
                  "(it would show as 0000-00; write 0x2800 to store it anyway)");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=-1\n"),
              what + "\"-1\" for TavUint32_t parameter sfn: a frame stamp is not negative");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=5-0x1\n"),
              what +
                  "\"5-0x1\" for TavUint32_t parameter sfn (FRAME-SUBFRAME up to 1023-9, "
                  "FRAME*10+SUBFRAME up to 10239, or 0x bits)");
    EXPECT_EQ(errorOf(prefix + "binlog RAN:cell StateChange sfn=0x100000000\n"),
              what +
                  "\"0x100000000\" for TavUint32_t parameter sfn (FRAME-SUBFRAME up to "
                  "1023-9, FRAME*10+SUBFRAME up to 10239, or 0x bits)");
    // The legacy record's frame timing follows the same rules.
    EXPECT_EQ(errorOf(prefix + "legacy RAN:cell Trace frame=1024-3\n"),
              what +
                  "\"1024-3\" for frame=: frame 1024 is above 1023 (it would show as "
                  "0000-03; write 0x2803 to store it anyway)");
    EXPECT_EQ(errorOf(prefix + "legacy RAN:cell Trace frame=10243\n"),
              what +
                  "\"10243\" for frame=: 10243 is frame 1024, above 1023 (it would show as "
                  "0000-03; write 0x2803 to store it anyway)");
    EXPECT_EQ(errorOf(prefix + "legacy RAN:cell Trace frame=7-12\n"),
              what + "\"7-12\" for frame=: subframe 12 is above 9");
}

TEST_F(SynthScript, ALogByItsPositionNeedsNoQuotes) {
    // "@N" is the N-th log of the module's file; "#N" still works quoted
    // (unquoted, '#' starts a comment and the line lacks its log).
    const std::vector<Rec> r = records(
        "binlog RAN:cell @2 n=7  # Second\n"
        "binlog RAN:cell Second n=7\n"
        "binlog RAN:cell \"#2\" n=7\n"
        "legacy RAN:cell @4 ueId=3\n");
    ASSERT_EQ(r.size(), 4u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(r[i].logId(), 0x03040002u) << i;
        EXPECT_EQ(r[i].payloadHex(), r[1].payloadHex()) << i;
    }
    EXPECT_EQ(r[0].payloadHex(), "0000000007000000");
    EXPECT_EQ(r[3].logId(), 0x03040004u);
    EXPECT_EQ(r[3].packetType(), 1u);
    EXPECT_EQ(r[3].payloadHex().substr(0, 16), "0000000003000000");

    EXPECT_EQ(errorOf("binlog RAN:cell @9\n"),
              "s.synth:1: module RAN:cell has no log with index 9");
    EXPECT_EQ(errorOf("binlog RAN:cell @x\n"), "s.synth:1: bad log index @x");
    EXPECT_EQ(errorOf("binlog RAN:cell #2 n=7\n"),
              "s.synth:1: binlog needs a module and a log: binlog SUBSYSTEM:MODULE LOGNAME|@N ...");
}

TEST_F(SynthScript, RecordErrorsNameTheLine) {
    EXPECT_EQ(errorOf("\nbinlog RAN:nope X\n"),
              "s.synth:2: unknown module RAN:nope (known: RAN:cell, OAM:sys)");
    EXPECT_EQ(errorOf("binlog RAN:cell Third\n"),
              "s.synth:1: module RAN:cell has no log named Third");
    EXPECT_EQ(errorOf("binlog RAN:cell Second m=1\n"),
              "s.synth:1: log Second has no parameter m (known: cellId, carrier, n)");
    EXPECT_EQ(errorOf("binlog RAN:cell Clash cellId=1\n"),
              "s.synth:1: parameter cellId is in both the module header and the log; write "
              "hdr.cellId= or log.cellId=");
    EXPECT_EQ(errorOf("binlog RAN:cell Second n=1 payload=00\n"),
              "s.synth:1: payload= replaces the whole payload; it cannot be combined with "
              "parameter values");
    EXPECT_EQ(errorOf("binlog RAN:cell Second n=x\n"),
              "s.synth:1: bad value \"x\" for TavUint32_t parameter n");
    EXPECT_EQ(errorOf("binlog RAN:cell StateChange state=RUNNING\n"),
              "s.synth:1: bad value \"RUNNING\" for TavUint16_t parameter state (a number or a "
              "name of enumeration CellState)");
    EXPECT_EQ(errorOf("binlog RAN:cell\n"),
              "s.synth:1: binlog needs a module and a log: binlog SUBSYSTEM:MODULE LOGNAME|@N ...");
    EXPECT_EQ(errorOf("syslog tag=seventeen-chars-x\n"),
              "s.synth:1: a syslog tag holds at most 16 bytes");
    EXPECT_EQ(errorOf("legacy RAN:cell Trace tag=fifteen-chars-x\n"),
              "s.synth:1: string parameter tag holds at most 14 bytes in a legacy record");
    EXPECT_EQ(errorOf("syslog color=red\n"), "s.synth:1: unknown key color= for a syslog record");
    EXPECT_EQ(errorOf("binlog OAM:sys Boot trim=9\n"),
              "s.synth:1: trim=9 is more than the 4 payload bytes");
    EXPECT_EQ(errorOf("binlog OAM:sys Boot level=LOUD\n"),
              "s.synth:1: bad level LOUD (0-65535 or a level name such as INFO)");
    EXPECT_EQ(errorOf("binlog OAM:sys Boot count\n"),
              "s.synth:1: unexpected word count (values are written key=value)");

    std::string capture, error;
    EXPECT_FALSE(run("syslog tag=a\nbinlog OAM:sys Boot\n", capture, error, false));
    EXPECT_EQ(error, "s.synth:2: binlog records need a dictionary (--dict DIR)");
    // The records before the bad line are written.
    EXPECT_EQ(splitRecords(capture).size(), 1u);
}

TEST_F(SynthScript, CaptureFormsAndFramings) {
    Script script;
    std::string error;
    ASSERT_TRUE(
        parseScript("format pcapng interfaces=2 tsresol=9\nbyteorder big\n"
                    "link sll2 ipv6 port=7 vlan=10,20\n",
                    "s.synth", script, error))
        << error;
    EXPECT_EQ(script.settings.header.format, FileFormat::PcapNg);
    EXPECT_EQ(script.settings.header.interfaces, 2u);
    EXPECT_EQ(script.settings.header.tsResolution, 9);
    EXPECT_TRUE(script.settings.header.bigEndian);
    EXPECT_EQ(script.settings.framing.layer, LinkLayer::LinuxSll2);
    EXPECT_EQ(script.settings.framing.kind, LinkKind::Ipv6);
    EXPECT_EQ(script.settings.framing.vlans, (std::vector<std::uint16_t>{10, 20}));

    struct Form {
        const char* line;
        LinkLayer layer;
        LinkKind kind;
        std::uint32_t linkType;
    };
    const Form forms[] = {
        {"link ipv4", LinkLayer::Ethernet, LinkKind::Ipv4, 1},
        {"link ethernet ipv6", LinkLayer::Ethernet, LinkKind::Ipv6, 1},
        {"link 113 ipv4", LinkLayer::LinuxSll, LinkKind::Ipv4, 113},
        {"link sll2 ipv4", LinkLayer::LinuxSll2, LinkKind::Ipv4, 276},
        {"link raw ipv6", LinkLayer::RawIp, LinkKind::Ipv6, 101},
        {"link 228", LinkLayer::RawIpOnly, LinkKind::Ipv4, 228},
        {"link 229 ipv6", LinkLayer::RawIpOnly, LinkKind::Ipv6, 229},
        {"link null ipv4 family=2", LinkLayer::Loopback, LinkKind::Ipv4, 0},
        {"link 0 ipv6", LinkLayer::Loopback, LinkKind::Ipv6, 0},
    };
    for (const Form& f : forms) {
        ASSERT_TRUE(parseScript(std::string(f.line) + "\n", "s.synth", script, error))
            << f.line << ": " << error;
        EXPECT_EQ(script.settings.framing.layer, f.layer) << f.line;
        EXPECT_EQ(script.settings.framing.kind, f.kind) << f.line;
        EXPECT_EQ(linkTypeOf(script.settings.framing), f.linkType) << f.line;
    }
    ASSERT_TRUE(parseScript("gzip stored crc=bad length=bad corrupt-at=5 cut=9\n", "s.synth",
                            script, error))
        << error;
    const GzipDamage& d = script.settings.gzipDamage;
    EXPECT_TRUE(d.stored && d.badCrc && d.badLength);
    EXPECT_EQ(d.corruptAt, 5);
    EXPECT_EQ(d.cut, 9);

    const char* const bad[][2] = {
        {"link sll\n", "s.synth:1: link sll needs an IP version: ipv4 or ipv6"},
        {"link 228 ipv6\n", "s.synth:1: link 228 is IPv4 only"},
        {"link raw ipv4 vlan=3\n", "s.synth:1: vlan= needs Ethernet or a Linux cooked header"},
        {"link ipv4 vlan=4096\n",
         "s.synth:1: vlan= takes one to eight VLAN IDs (0-4095), outermost first"},
        {"link ipv6 ipoptions=4\n", "s.synth:1: ipoptions= applies to IPv4"},
        {"link ipv4 ipoptions=6\n",
         "s.synth:1: ipoptions= takes a number of option bytes: 4, 8, ... 40"},
        {"link ipv4 family=2\n", "s.synth:1: family= applies to link null"},
        {"format pcapng interfaces=0\n",
         "s.synth:1: format takes pcap, pcap-ns or pcapng [interfaces=N] [tsresol=6|9] "
         "(interfaces from 1 to 16)"},
        {"format pcap-us\n",
         "s.synth:1: format takes pcap, pcap-ns or pcapng [interfaces=N] [tsresol=6|9]"},
        {"byteorder middle\n", "s.synth:1: byteorder takes little or big"},
        {"gzip crc=good\n",
         "s.synth:1: gzip takes: stored, crc=bad, length=bad, corrupt-at=N, cut=N"},
    };
    for (const auto& b : bad) {
        EXPECT_FALSE(parseScript(b[0], "s.synth", script, error)) << b[0];
        EXPECT_EQ(error, b[1]);
    }
}

TEST_F(SynthScript, SectionsAndInterfaces) {
    std::string capture, error;
    ASSERT_TRUE(
        run("format pcapng interfaces=2\n"
            "binlog OAM:sys Boot count=1\n"
            "section\n"
            "binlog OAM:sys Boot count=2 interface=1\n",
            capture, error))
        << error;
    // Section header (28) and two interfaces (20 each), a packet block of
    // 28 + 20 (the 16-byte header and a 4-byte payload) + 4, then the same
    // again with the packet on interface 1.
    ASSERT_EQ(capture.size(), 2 * (28u + 40u + 52u));
    EXPECT_EQ(le32(capture, 68), 6u);            // enhanced packet block
    EXPECT_EQ(le32(capture, 68 + 8), 0u);        // interface 0
    EXPECT_EQ(le32(capture, 120), 0x0A0D0D0Au);  // the second section
    EXPECT_EQ(le32(capture, 120 + 68 + 8), 1u);  // interface 1
    EXPECT_EQ(errorOf("section\n"), "s.synth:1: section needs format pcapng");
    EXPECT_EQ(errorOf("binlog OAM:sys Boot interface=1\n"),
              "s.synth:1: interface= needs format pcapng");
    EXPECT_EQ(errorOf("link raw ipv4\nbinlog OAM:sys Boot ethertype=0x0806\n"),
              "s.synth:2: ethertype= needs Ethernet or a Linux cooked header");
}

TEST_F(SynthScript, NanosecondTimesFollowTheClock) {
    std::string capture, error;
    ASSERT_TRUE(
        run("format pcap-ns\nstart 1700000000\nstep 100ns\n"
            "binlog OAM:sys Boot\nbinlog OAM:sys Boot\n",
            capture, error))
        << error;
    EXPECT_EQ(le32(capture, 0), 0xA1B23C4Du);
    EXPECT_EQ(le32(capture, 24 + 4), 0u);
    EXPECT_EQ(le32(capture, 24 + 36 + 4), 100u);  // the second record, 100 ns later
}

}  // namespace
