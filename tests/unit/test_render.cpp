// Record line rendering: time stamps, the message text of binary log records,
// and the binary log, legacy, syslog and plain capture lines.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using Values = std::map<std::string, std::string>;

const char* const kBinlogXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="L1" logString="hello" category="CAT"/>
</Dictionary>
)";

// Right-aligns `s` in a field of `width` characters (printf "%<width>s").
std::string pad(const std::string& s, std::size_t width) {
    return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

std::string repeat(const std::string& s, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) {
        out += s;
    }
    return out;
}

Tav::ModuleDetails makeModule() {
    Tav::ModuleDetails m;
    m.subsystemName = "SYS";
    m.moduleName = "MOD";
    m.binlogVersion = 3;
    return m;
}

Tav::LogDetails makeLog(const std::string& name, const std::string& logString,
                        const std::vector<std::string>& order = {}, const Values& values = {}) {
    Tav::LogDetails l;
    l.logName = name;
    l.category = "CAT";
    l.logString = logString;
    l.logIndex = 1;
    l.paramOrder = order;
    l.decodedValues = values;
    return l;
}

Tav::PcapRecHeader makePcap(std::uint32_t sec, std::uint32_t usec,
                            std::uint32_t storageLength = 0) {
    Tav::PcapRecHeader p;
    p.tsSec = sec;
    p.tsUsec = usec;
    p.capturedLength = storageLength;
    p.storageLength = storageLength;
    return p;
}

Tav::BinLogHeader makeHeader(std::uint32_t type, std::uint16_t level, std::uint32_t seqNo) {
    Tav::BinLogHeader h;
    h.packetType = type;
    h.logId = 0x01020001;
    h.logLevel = level;
    h.logVersion = 3;
    h.seqNo = seqNo;
    return h;
}

class RenderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("core_binlog.xml", kBinlogXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        ASSERT_EQ(reader_->logLevelNames.size(), 9u);
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

    std::string timeText(std::uint32_t sec, std::uint32_t usec) {
        std::string out;
        reader().outputTimeStamp(out, &sec, &usec);
        return out;
    }

    std::string message(const Tav::LogDetails& log) {
        std::string header, text;
        reader().computeDisplayDataForLog(makePcap(0, 0), makeHeader(0, 5, 1), makeModule(), log,
                                          header, text);
        EXPECT_EQ(header, "");
        return text;
    }

    std::string binLogLine(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                           int offset, const Tav::ModuleDetails& module,
                           const Tav::LogDetails& log) {
        wexbl_test::MemoryStream out;
        wexbl_test::StderrCapture err;
        EXPECT_EQ(reader().displayBinLog(pcap, header, out.file(), offset, module, log), 0);
        EXPECT_EQ(err.stop(), "");
        return out.text();
    }

    std::string legacyLine(Tav::ModuleDetails module, Tav::LogDetails log,
                           const Tav::BinLogHeader& header) {
        wexbl_test::MemoryStream out;
        reader().formatLegacyLogDetails(module, log, makePcap(0, 0), header, out.file(), 0);
        return out.text();
    }

    std::string syslogLine(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                           const std::string& tag, std::string& message, int offset = 0) {
        wexbl_test::MemoryStream out;
        reader().formatSyslogPayLoad(pcap, header, tag, message, out.file(), offset);
        return out.text();
    }

    std::string captureLine(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                            int offset) {
        wexbl_test::MemoryStream out;
        reader().formatPcapCapturePayLoad(pcap, header, out.file(), offset);
        return out.text();
    }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- Time stamps -------------------------------------------------------------------------

TEST_F(RenderTest, TimeStampOfKnownInstants) {
    EXPECT_EQ(timeText(0, 0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(timeText(1700000000u, 123456), "2023-11-14T22:13:20.123Z");
    EXPECT_EQ(timeText(951782400u, 0), "2000-02-29T00:00:00.000Z");
}

TEST_F(RenderTest, TimeStampAfter2038) {
    EXPECT_EQ(timeText(0x80000000u, 0), "2038-01-19T03:14:08.000Z");
    EXPECT_EQ(timeText(0xFFFFFFFFu, 0), "2106-02-07T06:28:15.000Z");
}

TEST_F(RenderTest, TimeStampMillisecondsTruncate) {
    EXPECT_EQ(timeText(0, 999999), "1970-01-01T00:00:00.999Z");
    EXPECT_EQ(timeText(0, 999), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(timeText(0, 1000), "1970-01-01T00:00:00.001Z");
    // Out of range: four digits.
    EXPECT_EQ(timeText(0, 1500000), "1970-01-01T00:00:00.1500Z");
}

TEST_F(RenderTest, TimeStampNegativeMicroseconds) {
    // The microseconds are a signed 32-bit value; division truncates toward 0
    // and "%03d" keeps the sign inside the width.
    EXPECT_EQ(timeText(0, static_cast<std::uint32_t>(-1500)), "1970-01-01T00:00:00.-01Z");
    EXPECT_EQ(timeText(0, static_cast<std::uint32_t>(-999)), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(timeText(0, static_cast<std::uint32_t>(-123456)), "1970-01-01T00:00:00.-123Z");
    EXPECT_EQ(timeText(0, 0x80000000u), "1970-01-01T00:00:00.-2147483Z");
}

TEST_F(RenderTest, TimeStampWithNullPointerLeavesTextUnchanged) {
    std::uint32_t sec = 0;
    std::uint32_t usec = 0;
    std::string out = "unchanged";
    reader().outputTimeStamp(out, nullptr, &usec);
    EXPECT_EQ(out, "unchanged");
    reader().outputTimeStamp(out, &sec, nullptr);
    EXPECT_EQ(out, "unchanged");
}

TEST_F(RenderTest, UtcOffsetShiftsTheClockButKeepsZ) {
    auto header = makeHeader(Tav::PcapCapture, 5, 5);
    EXPECT_EQ(captureLine(makePcap(1700000000u, 0, 60), header, 60),
              "[2023-11-14T23:13:20.000Z] [wireshark] [length=60] [seqNo=         5]\n");
    EXPECT_EQ(captureLine(makePcap(1700000000u, 0, 60), header, -60),
              "[2023-11-14T21:13:20.000Z] [wireshark] [length=60] [seqNo=         5]\n");
    EXPECT_EQ(captureLine(makePcap(1700000000u, 0, 60), header, -1440),
              "[2023-11-13T22:13:20.000Z] [wireshark] [length=60] [seqNo=         5]\n");
}

TEST_F(RenderTest, UtcOffsetWrapsAroundIn32Bits) {
    auto header = makeHeader(Tav::PcapCapture, 5, 5);
    // 4294967295 + 60 wraps to 59.
    EXPECT_EQ(captureLine(makePcap(0xFFFFFFFFu, 0, 1), header, 1),
              "[1970-01-01T00:00:59.000Z] [wireshark] [length=1] [seqNo=         5]\n");
    // 0 - 60 wraps to 4294967236, read as an unsigned count of seconds.
    EXPECT_EQ(captureLine(makePcap(0, 0, 1), header, -1),
              "[2106-02-07T06:27:16.000Z] [wireshark] [length=1] [seqNo=         5]\n");
    // 60 * 2147483647 is -60 modulo 2^32, so 60 seconds show as the epoch.
    EXPECT_EQ(captureLine(makePcap(60, 0, 1), header, 2147483647),
              "[1970-01-01T00:00:00.000Z] [wireshark] [length=1] [seqNo=         5]\n");
}

// ---- Plain capture line --------------------------------------------------------------------

TEST_F(RenderTest, CaptureLinePrintsLengthAndSeqNoSigned) {
    EXPECT_EQ(
        captureLine(makePcap(0, 0, 0x80000000u), makeHeader(Tav::PcapCapture, 5, 0xFFFFFFFFu), 0),
        "[1970-01-01T00:00:00.000Z] [wireshark] [length=-2147483648] [seqNo=        -1]\n");
    EXPECT_EQ(captureLine(makePcap(0, 2000, 44), makeHeader(Tav::PcapCapture, 5, 1234567890u), 0),
              "[1970-01-01T00:00:00.002Z] [wireshark] [length=44] [seqNo=1234567890]\n");
}

TEST_F(RenderTest, CaptureLineDoesNotLookUpTheLevel) {
    captureLine(makePcap(0, 0, 1), makeHeader(Tav::PcapCapture, 99, 1), 0);
    EXPECT_EQ(reader().logLevelNames.size(), 9u);
    EXPECT_EQ(reader().logLevelNames.count(99), 0u);
}

// ---- Message text -------------------------------------------------------------------------------

TEST_F(RenderTest, PlaceholderIsReplacedByNameEqualsValue) {
    EXPECT_EQ(message(makeLog("L", "Value {x} set", {"x"}, {{"x", "5"}})), "Value x=5 set");
}

TEST_F(RenderTest, SeveralPlaceholders) {
    EXPECT_EQ(message(makeLog("L", "{a} and {b}", {"a", "b"}, {{"a", "1"}, {"b", "2"}})),
              "a=1 and b=2");
    // Placeholders need not follow the declaration order, and a declared
    // parameter without a placeholder is not listed.
    EXPECT_EQ(message(makeLog("L", "b is {b}", {"a", "b"}, {{"a", "1"}, {"b", "2"}})), "b is b=2");
}

TEST_F(RenderTest, WithoutBracesTheParametersAreListedWithTrailingBlanks) {
    EXPECT_EQ(message(makeLog("L", "Started", {"a", "b"}, {{"a", "1"}, {"b", "2"}})),
              "Started a=1 b=2 ");
    // A listed name without a decoded value is skipped.
    EXPECT_EQ(message(makeLog("L", "Started", {"a", "q", "b"}, {{"a", "1"}, {"b", "2"}})),
              "Started a=1 b=2 ");
    EXPECT_EQ(message(makeLog("L", "Started")), "Started ");
    EXPECT_EQ(message(makeLog("L", "")), " ");
}

TEST_F(RenderTest, OpeningOrClosingBraceAloneMeansNoPlaceholders) {
    EXPECT_EQ(message(makeLog("L", "Value {x set", {"x"}, {{"x", "5"}})), "Value {x set x=5 ");
    EXPECT_EQ(message(makeLog("L", "Value x} set", {"x"}, {{"x", "5"}})), "Value x} set x=5 ");
}

TEST_F(RenderTest, DecodedTextHoldingAnotherPlaceholderIsSubstitutedToo) {
    EXPECT_EQ(message(makeLog("L", "{x}", {"x", "y"}, {{"x", "{y}"}, {"y", "2"}})), "x=y=2");
}

TEST_F(RenderTest, UnknownPlaceholderStopsTheSubstitution) {
    EXPECT_EQ(message(makeLog("L", "Value {z} set", {"x"}, {{"x", "5"}})), "Value {z} set");
    // Substitution runs until the first placeholder without a value ...
    EXPECT_EQ(message(makeLog("L", "{a} then {z} then {b}", {"a", "b"}, {{"a", "1"}, {"b", "2"}})),
              "a=1 then {z} then {b}");
    // ... so one standing first keeps the later ones too.
    EXPECT_EQ(message(makeLog("L", "{z} then {a}", {"a"}, {{"a", "1"}})), "{z} then {a}");
}

TEST_F(RenderTest, ClosingBraceBeforeOpeningBraceMakesTheKeyRunToTheEnd) {
    // The key is "z" (everything after the "{"), which has no value.
    EXPECT_EQ(message(makeLog("L", "x} then {z", {"x"}, {{"x", "5"}})), "x} then {z");
    // The key is "x}" here, which has no value either: the real placeholder stays.
    EXPECT_EQ(message(makeLog("L", "x} {x}", {"x"}, {{"x", "5"}})), "x} {x}");
    // The key "x" has a value: everything from the "{" to the end is replaced.
    EXPECT_EQ(message(makeLog("L", "} {x", {"x"}, {{"x", "5"}})), "} x=5");
}

TEST_F(RenderTest, ClosingBraceRightBeforeOpeningBraceInsertsWithoutRemoving) {
    // close = open - 1: the replaced length close - open + 1 is 0, so "b=3242"
    // is inserted before "{b"; the next round finds the "}" further before the
    // "{", its replaced length wraps and "{b" is replaced through the end.
    EXPECT_EQ(message(makeLog("L", "timer }{b", {"b"}, {{"b", "3242"}})), "timer }b=3242b=3242");
    EXPECT_EQ(message(makeLog("L", "}{x", {"x"}, {{"x", "5"}})), "}x=5x=5");
    // "}{" alone: the key is empty and has no value.
    EXPECT_EQ(message(makeLog("L", "}{", {"x"}, {{"x", "5"}})), "}{");
    // With a value for the empty key, the same two rounds happen.
    EXPECT_EQ(message(makeLog("L", "}{", {"x"}, {{"", "E"}})), "}=E=E");
    // The key runs from "{" to the end ("b}c"): no value, the text stays ...
    EXPECT_EQ(message(makeLog("L", "a}{b}c", {"b"}, {{"b", "7"}})), "a}{b}c");
    // ... and with a value for "b}c" it is inserted, then replaces "{b}c".
    EXPECT_EQ(message(makeLog("L", "a}{b}c", {"b"}, {{"b}c", "Z"}})), "a}b}c=Zb}c=Z");
    // A decoded text holding "}{": its "{y" is handled by the same two rounds.
    EXPECT_EQ(message(makeLog("L", "{x}", {"x", "y"}, {{"x", "}{y"}, {"y", "1"}})), "x=}y=1y=1");
}

// The placeholder rule written out literally, with 32-bit unsigned lengths as
// on the target: the first "{" and the first "}" of the whole text; the key is
// at most close - open - 1 characters after the "{"; a key with a value
// replaces close - open + 1 characters (clipped to the end of the text) by
// key=value; the search restarts at the beginning.
std::string referenceSubstitution(std::string text, const Values& values) {
    for (int round = 0; round < 1000; ++round) {
        const std::size_t open = text.find('{');
        const std::size_t close = text.find('}');
        if (open == std::string::npos || close == std::string::npos) {
            break;
        }
        const std::uint32_t keyLength =
            static_cast<std::uint32_t>(close) - static_cast<std::uint32_t>(open) - 1u;
        const std::string key = text.substr(open + 1, keyLength);
        const auto found = values.find(key);
        if (found == values.end()) {
            break;
        }
        const std::uint32_t replaced =
            static_cast<std::uint32_t>(close) - static_cast<std::uint32_t>(open) + 1u;
        text.replace(open, replaced, key + "=" + found->second);
    }
    return text;
}

TEST_F(RenderTest, PlaceholderLoopFollowsTheLiteralRuleOnRandomTexts) {
    // Short texts over an alphabet of braces and a few key letters, so that
    // every order of "{" and "}" occurs, also inside the decoded texts.
    std::uint64_t state = 7;
    auto next = [&state](std::uint32_t below) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<std::uint32_t>(state >> 33) % below;
    };
    const char kAlphabet[] = {'{', '}', 'a', 'b', ' '};
    auto randomText = [&](std::uint32_t longest) {
        std::string text(next(longest + 1), ' ');
        for (char& c : text) {
            c = kAlphabet[next(sizeof kAlphabet)];
        }
        return text;
    };
    int withBraceBeforeBrace = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string logString = randomText(8);
        if (logString.find('{') == std::string::npos || logString.find('}') == std::string::npos) {
            continue;  // the parameter list case, tested above
        }
        if (logString.find('}') < logString.find('{')) {
            ++withBraceBeforeBrace;
        }
        const Values values = {{"a", randomText(4)}, {"b", randomText(3)}, {"", randomText(2)}};
        ASSERT_EQ(message(makeLog("L", logString, {"a", "b"}, values)),
                  referenceSubstitution(logString, values))
            << "logString '" << logString << "' a='" << values.at("a") << "' b='" << values.at("b")
            << "'";
    }
    EXPECT_GT(withBraceBeforeBrace, 1000);
}

TEST_F(RenderTest, SelfRecreatingPlaceholderStopsAfter1000Substitutions) {
    EXPECT_EQ(message(makeLog("L", "{x}", {"x"}, {{"x", "{x}"}})), repeat("x=", 1000) + "{x}");
    EXPECT_EQ(message(makeLog("L", "A{x}B", {"x"}, {{"x", "{x}"}})),
              "A" + repeat("x=", 1000) + "{x}B");
    // Two texts recreating each other's placeholders alternate.
    EXPECT_EQ(message(makeLog("L", "{x}", {"x", "y"}, {{"x", "{y}"}, {"y", "{x}"}})),
              repeat("x=y=", 500) + "{x}");
}

TEST_F(RenderTest, ModuleHeaderTextListsDecodedHeaderValues) {
    auto module = makeModule();
    module.hasModuleHeader = true;
    module.paramOrder = {"h1", "missing", "h2"};
    module.decodedValues = {{"h1", "7"}, {"h2", "8"}};
    std::string header = "pre:";
    std::string text = "replaced";
    reader().computeDisplayDataForLog(makePcap(0, 0), makeHeader(0, 5, 1), module,
                                      makeLog("L", "m {a}", {"a"}, {{"a", "1"}}), header, text);
    EXPECT_EQ(header, "pre:h1=7 h2=8 ");
    EXPECT_EQ(text, "m a=1");
}

TEST_F(RenderTest, ModuleHeaderTextNeedsTheHeaderFlag) {
    auto module = makeModule();
    module.hasModuleHeader = false;
    module.paramOrder = {"h1"};
    module.decodedValues = {{"h1", "7"}};
    std::string header, text;
    reader().computeDisplayDataForLog(makePcap(0, 0), makeHeader(0, 5, 1), module,
                                      makeLog("L", "m"), header, text);
    EXPECT_EQ(header, "");
    EXPECT_EQ(text, "m ");
}

// ---- Binary log lines ------------------------------------------------------------------------

TEST_F(RenderTest, BinaryLogLineWithoutModuleHeaderHasSevenFields) {
    auto log = makeLog("Started", "Started", {"a", "b"}, {{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(binLogLine(makePcap(1700000000u, 123456), makeHeader(0, 5, 42), 0, makeModule(), log),
              "[2023-11-14T22:13:20.123Z] [   SYS:MOD] [                  Started] [    INFO] "
              "[       CAT] [42] [Started a=1 b=2 ] \n");
}

TEST_F(RenderTest, BinaryLogLineWithModuleHeaderHasEightFields) {
    auto module = makeModule();
    module.hasModuleHeader = true;
    module.paramOrder = {"h1", "h2"};
    module.decodedValues = {{"h1", "7"}, {"h2", "8"}};
    auto log = makeLog("Value", "Value {x} set", {"x"}, {{"x", "5"}});
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 2, 4294967295u), 0, module, log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Value", 25) +
                  "] [" + pad("ERROR", 8) + "] [" + pad("CAT", 10) +
                  "] [4294967295] [h1=7 h2=8 ] [Value x=5 set] \n");
}

TEST_F(RenderTest, HeaderThatDecodedNothingGivesTheSevenFieldLayout) {
    auto module = makeModule();
    module.hasModuleHeader = true;
    module.paramOrder = {"h1"};  // declared, but nothing decoded
    auto log = makeLog("Value", "Value {x} set", {"x"}, {{"x", "5"}});
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 1, 3), 0, module, log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Value", 25) +
                  "] [CRITICAL] [" + pad("CAT", 10) + "] [3] [Value x=5 set] \n");
}

TEST_F(RenderTest, BinaryLogFieldsAreMinimumWidths) {
    auto module = makeModule();
    module.subsystemName = "SUBSYSTEM";
    module.moduleName = "MODULE";
    auto log = makeLog(std::string(30, 'L'), "{x}", {"x"}, {{"x", "5"}});
    log.category = "CATEGORY_LONG";
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 8, 0), 120, module, log),
              "[1970-01-01T02:00:00.000Z] [SUBSYSTEM:MODULE] [" + std::string(30, 'L') +
                  "] [  ALWAYS] [CATEGORY_LONG] [0] [x=5] \n");
}

TEST_F(RenderTest, BinaryLogLineOfSelfRecreatingPlaceholderIsFinite) {
    auto log = makeLog("Loop", "v {x}", {"x"}, {{"x", "{x}"}});
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 5, 1), 0, makeModule(), log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Loop", 25) +
                  "] [    INFO] [" + pad("CAT", 10) + "] [1] [v " + repeat("x=", 1000) + "{x}] \n");
}

TEST_F(RenderTest, BinaryLogLineWithUnknownPlaceholderIsPrintedAsItStands) {
    auto log = makeLog("Unknown", "v {nope} {x}", {"x"}, {{"x", "5"}});
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 5, 1), 0, makeModule(), log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Unknown", 25) +
                  "] [    INFO] [" + pad("CAT", 10) + "] [1] [v {nope} {x}] \n");
}

TEST_F(RenderTest, UnknownLevelPrintsEightBlanksAndGrowsTheTable) {
    auto log = makeLog("Lvl", "m");
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 9, 1), 0, makeModule(), log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Lvl", 25) +
                  "] [        ] [" + pad("CAT", 10) + "] [1] [m ] \n");
    EXPECT_EQ(reader().logLevelNames.size(), 10u);
    ASSERT_EQ(reader().logLevelNames.count(9), 1u);
    EXPECT_EQ(reader().logLevelNames.at(9), "");
}

TEST_F(RenderTest, LevelZeroHasTheEmptyNameAlready) {
    auto log = makeLog("Lvl", "m");
    EXPECT_EQ(binLogLine(makePcap(0, 0), makeHeader(0, 0, 1), 0, makeModule(), log),
              "[1970-01-01T00:00:00.000Z] [" + pad("SYS:MOD", 10) + "] [" + pad("Lvl", 25) +
                  "] [        ] [" + pad("CAT", 10) + "] [1] [m ] \n");
    EXPECT_EQ(reader().logLevelNames.size(), 9u);
}

// ---- Legacy lines -------------------------------------------------------------------------------

class LegacyRenderTest : public RenderTest {
  protected:
    static Tav::LogDetails legacyLog() {
        Tav::LogDetails log = makeLog("LegacyLog", "Legacy {x} msg");
        log.frameTiming = 10243;
        log.uint32Params.resize(2);
        log.uint32Params[0].name = "p1";
        log.uint32Params[0].value = 1;
        log.uint32Params[1].name = "p2";
        log.uint32Params[1].value = 2;
        log.uint8Params.resize(2);
        log.uint8Params[0].name = "c0";
        log.uint8Params[0].value = 5;
        log.uint8Params[1].name = "cid";
        log.uint8Params[1].value = 12;
        return log;
    }
    static void addString(Tav::LogDetails& log, const std::string& name, const std::string& value) {
        Tav::TavLogParam<std::string> p;
        p.name = name;
        p.value = value;
        log.stringParams.push_back(p);
    }
    static std::string prefix(const std::string& frame = "0000-03") {
        return "[1970-01-01T00:00:00.000Z] [   SYS:MOD] [                LegacyLog] [   ERROR] "
               "[       CAT] [7] [" +
               frame + "] ";
    }
};

TEST_F(LegacyRenderTest, TagCidAndValues) {
    auto log = legacyLog();
    addString(log, "tag", "abc");
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + "[           abc]  [CID=12] Legacy {x} msg p1=1 p2=2 \n");
}

TEST_F(LegacyRenderTest, CidZeroInTheLastEightBitParameterOmitsTheCidPart) {
    auto log = legacyLog();
    log.uint8Params[0].value = 12;
    log.uint8Params[1].value = 0;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " Legacy {x} msg p1=1 p2=2 \n");
}

TEST_F(LegacyRenderTest, NoEightBitParameters) {
    auto log = legacyLog();
    log.uint8Params.clear();
    log.uint32Params.clear();
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " Legacy {x} msg \n");
}

TEST_F(LegacyRenderTest, CidIsAtLeastOneDigitWide) {
    auto log = legacyLog();
    log.uint8Params[1].value = 255;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " [CID=255] Legacy {x} msg p1=1 p2=2 \n");
    log.uint8Params[1].value = 3;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " [CID=3] Legacy {x} msg p1=1 p2=2 \n");
}

TEST_F(LegacyRenderTest, TwoStringParametersGiveTagAndTrailer) {
    auto log = legacyLog();
    addString(log, "tag", "abc");
    addString(log, "trl", "xyz");
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + "[           abc]  [CID=12] Legacy {x} msg p1=1 p2=2 trl=xyz \n");
}

TEST_F(LegacyRenderTest, ThreeStringParametersGiveNeitherTagNorTrailer) {
    auto log = legacyLog();
    addString(log, "tag", "abc");
    addString(log, "trl", "xyz");
    addString(log, "more", "q");
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " [CID=12] Legacy {x} msg p1=1 p2=2 \n");
}

TEST_F(LegacyRenderTest, UnnamedTagOrTrailerIsNotPrinted) {
    auto log = legacyLog();
    addString(log, "", "abc");
    addString(log, "trl", "");
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + " [CID=12] Legacy {x} msg p1=1 p2=2 trl= \n");

    auto unnamedTrailer = legacyLog();
    addString(unnamedTrailer, "tag", "fourteen chars");
    addString(unnamedTrailer, "", "xyz");
    EXPECT_EQ(legacyLine(makeModule(), unnamedTrailer, makeHeader(Tav::Legacy, 2, 7)),
              prefix() + "[fourteen chars]  [CID=12] Legacy {x} msg p1=1 p2=2 \n");
}

TEST_F(LegacyRenderTest, FrameField) {
    auto log = legacyLog();
    log.uint8Params.clear();
    log.uint32Params.clear();
    log.frameTiming = 12345;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix("0210-05") + " Legacy {x} msg \n");
    log.frameTiming = 0;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix("0000-00") + " Legacy {x} msg \n");
    log.frameTiming = 10239;
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 2, 7)),
              prefix("1023-09") + " Legacy {x} msg \n");
}

TEST_F(LegacyRenderTest, UnknownLevelGrowsTheTable) {
    auto log = legacyLog();
    log.uint8Params.clear();
    log.uint32Params.clear();
    EXPECT_EQ(legacyLine(makeModule(), log, makeHeader(Tav::Legacy, 11, 4294967295u)),
              "[1970-01-01T00:00:00.000Z] [   SYS:MOD] [                LegacyLog] [        ] "
              "[       CAT] [4294967295] [0000-03]  Legacy {x} msg \n");
    EXPECT_EQ(reader().logLevelNames.size(), 10u);
    EXPECT_EQ(reader().logLevelNames.count(11), 1u);
}

// ---- Syslog lines ---------------------------------------------------------------------------

TEST_F(RenderTest, SyslogLineEscapesLineFeeds) {
    std::string tag("myTag\0\0\0\0\0\0\0\0\0\0\0", 16);
    std::string message = "a\nb";
    EXPECT_EQ(syslogLine(makePcap(0, 0), makeHeader(Tav::Syslog, 3, 5), tag, message),
              "[1970-01-01T00:00:00.000Z] [syslog] [           myTag] [    WARN] [5] [a\\nb]\n");
    EXPECT_EQ(message, "a\\nb");  // the caller's string is changed
}

TEST_F(RenderTest, SyslogLineEndsTextsAtTheirFirstNul) {
    std::string tag = "0123456789abcdef";
    std::string message("ab\0cd", 5);
    EXPECT_EQ(syslogLine(makePcap(3600, 0), makeHeader(Tav::Syslog, 6, 0), tag, message, 60),
              "[1970-01-01T02:00:00.000Z] [syslog] [0123456789abcdef] [   DEBUG] [0] [ab]\n");
}

TEST_F(RenderTest, SyslogLineWithManyLineFeeds) {
    std::string tag(16, '\0');
    std::string message = "\nx\n\n";
    EXPECT_EQ(syslogLine(makePcap(0, 0), makeHeader(Tav::Syslog, 7, 1), tag, message),
              "[1970-01-01T00:00:00.000Z] [syslog] [" + std::string(16, ' ') +
                  "] [   DEVEL] [1] [\\nx\\n\\n]\n");
}

TEST_F(RenderTest, SyslogLineWithUnknownLevelGrowsTheTable) {
    std::string tag = "t";
    std::string message = "m";
    EXPECT_EQ(
        syslogLine(makePcap(0, 0), makeHeader(Tav::Syslog, 20, 4294967295u), tag, message),
        "[1970-01-01T00:00:00.000Z] [syslog] [" + pad("t", 16) + "] [        ] [4294967295] [m]\n");
    EXPECT_EQ(reader().logLevelNames.size(), 10u);
    EXPECT_EQ(reader().logLevelNames.count(20), 1u);
}

// ---- replaceString ----------------------------------------------------------------------------

TEST_F(RenderTest, ReplaceStringReplacesEveryOccurrence) {
    std::string text = "line1\nline2\n";
    reader().replaceString(text, "\n", "\\n");
    EXPECT_EQ(text, "line1\\nline2\\n");

    std::string none = "nothing here";
    reader().replaceString(none, "\n", "\\n");
    EXPECT_EQ(none, "nothing here");

    std::string empty;
    reader().replaceString(empty, "\n", "\\n");
    EXPECT_EQ(empty, "");
}

TEST_F(RenderTest, ReplaceStringResumesAfterTheInsertedText) {
    std::string text = "axbx";
    reader().replaceString(text, "x", "xx");
    EXPECT_EQ(text, "axxbxx");

    std::string shrink = "aaaa";
    reader().replaceString(shrink, "aa", "a");
    EXPECT_EQ(shrink, "aa");
}

}  // namespace
