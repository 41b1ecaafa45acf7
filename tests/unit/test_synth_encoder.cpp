// The capture writer's payload encoder: the type-group order of a binary log
// payload, the module header and its padding, arrays, the string kinds, value
// parsing, and the fixed legacy and syslog layouts.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Encoder.h"
#include "binlog_synth/Text.h"

using namespace binlog_synth;

namespace {

/// One declared parameter: `length` is the count of an integer kind or the
/// size of a string kind.
ParamDecl decl(FieldKind kind, const std::string& name, std::uint32_t length = 0,
               const std::string& format = kFormatDefault) {
    ParamDecl p;
    p.kind = kind;
    p.name = name;
    (isIntegerKind(kind) ? p.count : p.size) = length;
    p.displayFormat = format;
    return p;
}

/// The field of `layout` named `name` (the test fails when there is none).
const Field& fieldOf(const LogLayout& layout, const std::string& name) {
    for (const Field& f : layout.fields) {
        if (f.name == name && f.kind != FieldKind::Padding) {
            return f;
        }
    }
    ADD_FAILURE() << "no field " << name;
    static const Field none;
    return none;
}

/// Parses `text` for the field `name` of `layout` into the log values.
void setValue(const LogLayout& layout, RecordValues& values, const std::string& name,
              const std::string& text, bool header = false) {
    ParamValue v;
    std::string error;
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, name), text, nullptr, v, error)) << error;
    (header ? values.header : values.log)[name] = v;
}

std::string encode(const LogLayout& layout, const RecordValues& values) {
    ByteBuffer out;
    encodeBinLogPayload(layout, values, out);
    return toHex(out.str());
}

TEST(SynthEncoder, LaterTypeGroupComesFirstWhateverTheDeclarationOrder) {
    // A log that declares an unsigned 8 parameter a and then an unsigned 32
    // parameter b carries the 4 bytes of b followed by the 1 byte of a.
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::U8, "a"));
    log.params.push_back(decl(FieldKind::U32, "b"));
    const LogLayout layout = layoutOf(module, log, nullptr);
    RecordValues values;
    setValue(layout, values, "a", "0x11");
    setValue(layout, values, "b", "0x44332211");
    EXPECT_EQ(encode(layout, values), "1122334411");
    EXPECT_EQ(layout.fixedSize, 5u);
}

TEST(SynthEncoder, EveryGroupInItsFixedOrder) {
    ModuleDecl module;
    LogDecl log;
    // The lists are filled in reverse group order; the wire order is fixed.
    log.params.push_back(decl(FieldKind::VarBinaryString, "vb", 8));
    log.params.push_back(decl(FieldKind::BinaryString, "bs", 3));
    log.params.push_back(decl(FieldKind::String, "s", 5));
    log.params.push_back(decl(FieldKind::I8, "i8"));
    log.params.push_back(decl(FieldKind::U8, "u8"));
    log.params.push_back(decl(FieldKind::I16, "i16"));
    log.params.push_back(decl(FieldKind::U16, "u16"));
    log.params.push_back(decl(FieldKind::I32, "i32"));
    log.params.push_back(decl(FieldKind::U32, "u32"));
    log.params.push_back(decl(FieldKind::I64, "i64"));
    log.params.push_back(decl(FieldKind::U64, "u64"));
    const LogLayout layout = layoutOf(module, log, nullptr);
    RecordValues values;
    setValue(layout, values, "u64", "0x0102030405060708");
    setValue(layout, values, "i64", "-2");
    setValue(layout, values, "u32", "0xa1b2c3d4");
    setValue(layout, values, "i32", "-3");
    setValue(layout, values, "u16", "4660");  // 0x1234
    setValue(layout, values, "i16", "-4");
    setValue(layout, values, "u8", "171");  // 0xab
    setValue(layout, values, "i8", "-5");
    setValue(layout, values, "s", "hi");
    setValue(layout, values, "bs", "0a1b");
    setValue(layout, values, "vb", "c0ffee");
    EXPECT_EQ(encode(layout, values),
              "0807060504030201"  // u64, little-endian
              "feffffffffffffff"  // i64 -2
              "d4c3b2a1"          // u32
              "fdffffff"          // i32 -3
              "3412"              // u16
              "fcff"              // i16 -4
              "ab"                // u8
              "fb"                // i8 -5
              "6869000000"        // string of size 5, NUL-padded
              "0a1b00"            // binary string of size 3, zero-padded
              "0300c0ffee");      // var binary: count 3, then the bytes
    // Everything but the var binary bytes: 8+8+4+4+2+2+1+1+5+3+2.
    EXPECT_EQ(layout.fixedSize, 40u);
}

TEST(SynthEncoder, ModuleHeaderThenPaddingThenLog) {
    ModuleDecl module;
    module.hasHeader = true;
    module.header.push_back(decl(FieldKind::U8, "carrier"));
    module.header.push_back(decl(FieldKind::U16, "cellId"));
    LogDecl log;
    log.params.push_back(decl(FieldKind::U8, "x"));
    const LogLayout layout = layoutOf(module, log, nullptr);
    ASSERT_EQ(layout.fields.size(), 4u);
    EXPECT_EQ(layout.fields[2].kind, FieldKind::Padding);
    RecordValues values;
    setValue(layout, values, "cellId", "0x0102", true);
    setValue(layout, values, "carrier", "3", true);
    setValue(layout, values, "x", "9");
    EXPECT_EQ(encode(layout, values),
              "0201"
              "03"
              "00"
              "09");
}

TEST(SynthEncoder, ModuleHeaderVarBinaryStringsAreNotWritten) {
    // The decoder never reads a module header's var binary strings, and they
    // do not count towards its padding.
    ModuleDecl module;
    module.hasHeader = true;
    module.header.push_back(decl(FieldKind::U8, "h"));
    module.header.push_back(decl(FieldKind::VarBinaryString, "hv", 4));
    LogDecl log;
    const LogLayout layout = layoutOf(module, log, nullptr);
    ASSERT_EQ(layout.fields.size(), 2u);
    EXPECT_EQ(layout.fields[0].name, "h");
    EXPECT_EQ(layout.fields[1].kind, FieldKind::Padding);
    EXPECT_EQ(layout.fields[1].length, 3u);
    RecordValues values;
    setValue(layout, values, "h", "255", true);
    EXPECT_EQ(encode(layout, values), "ff000000");
}

TEST(SynthEncoder, ArraysTakeConsecutiveElements) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::I16, "rssi", 3));
    log.params.push_back(decl(FieldKind::U8, "flags", 2));
    const LogLayout layout = layoutOf(module, log, nullptr);
    RecordValues values;
    setValue(layout, values, "rssi", "-1,2,-3");
    setValue(layout, values, "flags", "1,0xff");
    EXPECT_EQ(encode(layout, values),
              "ffff"
              "0200"
              "fdff"
              "01"
              "ff");
}

TEST(SynthEncoder, MissingValuesAreZeroAndVarBinaryEmpty) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::U32, "n"));
    log.params.push_back(decl(FieldKind::String, "s", 3));
    log.params.push_back(decl(FieldKind::VarBinaryString, "v", 16));
    const LogLayout layout = layoutOf(module, log, nullptr);
    EXPECT_EQ(encode(layout, RecordValues()),
              "00000000"
              "000000"
              "0000");
}

TEST(SynthEncoder, VarBinaryCountCanDisagreeWithItsBytes) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::VarBinaryString, "raw", 16));
    const LogLayout layout = layoutOf(module, log, nullptr);
    RecordValues values;
    setValue(layout, values, "raw", "300#0102");
    EXPECT_EQ(encode(layout, values),
              "2c01"
              "0102");  // 300 = 0x012c
}

TEST(SynthEncoder, StringOfExactlyItsSizeHasNoTerminator) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::String, "s", 3));
    const LogLayout layout = layoutOf(module, log, nullptr);
    RecordValues values;
    setValue(layout, values, "s", "abc");
    EXPECT_EQ(encode(layout, values), "616263");
}

TEST(SynthEncoder, RejectsValuesThatDoNotFit) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::U8, "u8"));
    log.params.push_back(decl(FieldKind::I8, "i8"));
    log.params.push_back(decl(FieldKind::I16, "arr", 2));
    log.params.push_back(decl(FieldKind::String, "s", 2));
    log.params.push_back(decl(FieldKind::BinaryString, "b", 2));
    log.params.push_back(decl(FieldKind::VarBinaryString, "v", 2));
    const LogLayout layout = layoutOf(module, log, nullptr);
    ParamValue v;
    std::string error;
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "u8"), "256", nullptr, v, error));
    EXPECT_NE(error.find("u8"), std::string::npos) << error;
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "i8"), "-129", nullptr, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "u8"), "seven", nullptr, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "arr"), "1,2,3", nullptr, v, error));
    EXPECT_EQ(error, "TavInt16_t parameter arr takes 2 comma-separated values, got 3");
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "s"), "abc", nullptr, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "b"), "010203", nullptr, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "b"), "0g", nullptr, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "v"), "010203", nullptr, v, error));
    // Both readings of one byte are accepted: -1 and 255 are the same bits.
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "u8"), "-1", nullptr, v, error)) << error;
    EXPECT_EQ(v.ints.at(0), 0xFFu);
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "i8"), "255", nullptr, v, error)) << error;
    EXPECT_EQ(v.ints.at(0), 0xFFu);
}

TEST(SynthEncoder, IntegerTextsOfEveryWidth) {
    std::uint64_t bits = 0;
    EXPECT_TRUE(parseIntegerBits("18446744073709551615", 8, bits));
    EXPECT_EQ(bits, UINT64_MAX);
    EXPECT_FALSE(parseIntegerBits("18446744073709551616", 8, bits));
    EXPECT_TRUE(parseIntegerBits("-9223372036854775808", 8, bits));
    EXPECT_EQ(bits, 0x8000000000000000ULL);
    EXPECT_FALSE(parseIntegerBits("-9223372036854775809", 8, bits));
    EXPECT_TRUE(parseIntegerBits("-32768", 2, bits));
    EXPECT_EQ(bits, 0x8000u);
    EXPECT_FALSE(parseIntegerBits("65536", 2, bits));
    EXPECT_TRUE(parseIntegerBits("0xFFFFFFFF", 4, bits));
    EXPECT_EQ(bits, 0xFFFFFFFFu);
    EXPECT_FALSE(parseIntegerBits("", 4, bits));
    EXPECT_FALSE(parseIntegerBits("0x", 4, bits));
    EXPECT_FALSE(parseIntegerBits("12a", 4, bits));
    EXPECT_FALSE(parseIntegerBits(" 1", 4, bits));
}

TEST(SynthEncoder, EnumerationNamesAndFrameNumbers) {
    Displays displays;
    // Only keys that are the exact decimal text of a value can ever match.
    displays.enums["CellState"] = {
        {"0", "IDLE"}, {"2", "ACTIVE"}, {"07", "ODD"}, {"x", "BAD"}, {"-1", "NEG"}};
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::U16, "state", 0, "CellState"));
    log.params.push_back(decl(FieldKind::I16, "signedState", 0, "CellState"));
    log.params.push_back(decl(FieldKind::U32, "sfn", 0, "SF-SFN"));
    log.params.push_back(decl(FieldKind::U16, "sfn16", 0, "SF-SFN"));
    const LogLayout layout = layoutOf(module, log, &displays);

    EXPECT_EQ(fieldOf(layout, "state").enumValues, (std::vector<std::uint64_t>{0, 2}));
    EXPECT_EQ(fieldOf(layout, "signedState").enumValues,
              (std::vector<std::uint64_t>{0, 2, 0xFFFF}));
    EXPECT_TRUE(fieldOf(layout, "sfn").enumValues.empty());

    ParamValue v;
    std::string error;
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "state"), "ACTIVE", &displays, v, error));
    EXPECT_EQ(v.ints.at(0), 2u);
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "state"), "ODD", &displays, v, error));
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "state"), "NEG", &displays, v, error));
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "signedState"), "NEG", &displays, v, error));
    EXPECT_EQ(v.ints.at(0), 0xFFFFu);
    // FRAME-SUBFRAME: frame x 10 + subframe, as the decoder prints it too.
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "sfn"), "1023-3", &displays, v, error));
    EXPECT_EQ(v.ints.at(0), 10233u);
    ASSERT_TRUE(parseFieldValue(fieldOf(layout, "sfn"), "0210-05", &displays, v, error));
    EXPECT_EQ(v.ints.at(0), 2105u);
    // Frame 1024 would show as frame 0.
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "sfn"), "1024-3", &displays, v, error));
    EXPECT_EQ(error,
              "bad value \"1024-3\" for TavUint32_t parameter sfn: frame 1024 is above 1023 (it "
              "would show as 0000-03; write 0x2803 to store it anyway)");
    EXPECT_FALSE(parseFieldValue(fieldOf(layout, "sfn16"), "1024-3", &displays, v, error));
}

TEST(SynthEncoder, RandomEnumerationValuesAreMostlyNamed) {
    Displays displays;
    displays.enums["Mode"] = {{"3", "A"}, {"5", "B"}, {"9", "C"}};
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::U32, "mode", 0, "Mode"));
    const LogLayout layout = layoutOf(module, log, &displays);
    SplitMix64 rng(42);
    RandomValueOptions options;
    int named = 0;
    for (int i = 0; i < 1000; ++i) {
        ParamValue v;
        randomValue(layout.fields[0], rng, options, v);
        const std::uint64_t x = v.ints.at(0);
        named += (x == 3 || x == 5 || x == 9) ? 1 : 0;
    }
    // 90% are drawn from the enumeration; the rest rarely hit it by chance.
    EXPECT_GE(named, 850);
    EXPECT_LT(named, 1000);
}

TEST(SynthEncoder, RandomFieldsKeepTheirDeclaredSizes) {
    ModuleDecl module;
    LogDecl log;
    log.params.push_back(decl(FieldKind::String, "s", 14));
    log.params.push_back(decl(FieldKind::BinaryString, "b", 4));
    log.params.push_back(decl(FieldKind::VarBinaryString, "v", 10));
    log.params.push_back(decl(FieldKind::I16, "a", 3));
    log.params.push_back(decl(FieldKind::U32, "sfn", 0, "SF-SFN"));
    const LogLayout layout = layoutOf(module, log, nullptr);
    SplitMix64 rng(5);
    RandomValueOptions options;
    for (int i = 0; i < 200; ++i) {
        ByteBuffer out;
        for (const Field& f : layout.fields) {
            appendRandomField(f, rng, options, out);
        }
        // 4 (sfn) + 6 (array) + 14 + 4 + 2 + at most 10.
        ASSERT_GE(out.size(), 30u);
        ASSERT_LE(out.size(), 40u);
        const auto* p = reinterpret_cast<const unsigned char*>(out.str().data());
        const std::uint32_t sfn = p[0] | (p[1] << 8) | (p[2] << 16) | (std::uint32_t{p[3]} << 24);
        EXPECT_LT(sfn, 10240u);  // frame below 1024, subframe below 10
        const std::uint16_t count = static_cast<std::uint16_t>(p[28] | (p[29] << 8));
        EXPECT_EQ(out.size(), 30u + count);
        EXPECT_NE(p[10], 0) << "a random string has at least one character";
    }
}

TEST(SynthEncoder, LegacyPayloadLayout) {
    LegacyValues v;
    v.frameTiming = 10243;
    v.u32 = {{11, 22, 33, 44, 55}};
    v.u8 = {{1, 2, 3, 4}};
    v.text[0] = "TAG";
    v.text[1] = "TRAILERTRAILER";  // 14 characters, no NUL
    ByteBuffer out;
    appendLegacyPayload(out, v);
    ASSERT_EQ(out.size(), 56u);
    EXPECT_EQ(toHex(out.str()),
              "03280000"  // 10243
              "0b000000"
              "16000000"
              "21000000"
              "2c000000"
              "37000000"  // 11 .. 55
              "01020304"
              "544147"
              "0000000000000000000000"          // TAG + 11 NULs
              "545241494c4552545241494c4552");  // TRAILERTRAILER
}

TEST(SynthEncoder, SyslogPayloadLayout) {
    ByteBuffer out;
    appendSyslogPayload(out, "mytag", "a\nb");
    ASSERT_EQ(out.size(), 19u);
    EXPECT_EQ(toHex(out.str()),
              "6d79746167"
              "0000000000000000000000"
              "610a62");
}

TEST(SynthEncoder, LayoutFromALoadedDictionary) {
    wexbl_test::TempDir dir;
    dir.writeFile("m_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="RAN" subsystemId="3" module="cell" moduleid="4" binlogversion="2">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cellId"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="First" category="A" logString="first"/>
  <LogId name="Second" category="B" logString="second {n}">
    <p type="TavUint32_t" nameList="n"/>
  </LogId>
</LoggingSubSystem>
)");
    Dictionary dictionary;
    std::string error;
    ASSERT_TRUE(dictionary.load(dir.path(), error)) << error;  // no trailing "/" needed
    std::uint16_t key = 0;
    ASSERT_TRUE(dictionary.findModule("RAN:cell", key, error)) << error;
    EXPECT_EQ(key, 0x0304);
    const LogLayout* second = dictionary.findLog(key, "Second", error);
    ASSERT_NE(second, nullptr) << error;
    EXPECT_EQ(second->logId, 0x03040002u);
    EXPECT_EQ(second->version, 2);
    EXPECT_EQ(second->moduleLabel, "RAN:cell");
    // Header: u16 cellId, u8 carrier, padding 4 - 3 = 1; then the log's n.
    ASSERT_EQ(second->fields.size(), 4u);
    EXPECT_EQ(second->fields[0].name, "cellId");
    EXPECT_EQ(second->fields[1].name, "carrier");
    EXPECT_EQ(second->fields[2].kind, FieldKind::Padding);
    EXPECT_EQ(second->fields[2].length, 1u);
    EXPECT_EQ(second->fields[3].name, "n");
    EXPECT_EQ(dictionary.findLog(key, "#1", error), dictionary.findLog(key, "First", error));

    ASSERT_TRUE(dictionary.findModule("0x0304", key, error));
    ASSERT_TRUE(dictionary.findModule("772", key, error));
    EXPECT_EQ(key, 0x0304);
    EXPECT_FALSE(dictionary.findModule("RAN:nope", key, error));
    EXPECT_EQ(error, "unknown module RAN:nope (known: RAN:cell)");
    EXPECT_FALSE(dictionary.findModule("0x0305", key, error));
    EXPECT_EQ(error, "no module has the key 0x0305");
    EXPECT_EQ(dictionary.findLog(0x0304, "Third", error), nullptr);
    EXPECT_EQ(error, "module RAN:cell has no log named Third");
}

TEST(SynthEncoder, DictionaryThatDoesNotLoad) {
    wexbl_test::TempDir dir;
    wexbl_test::StderrCapture capture;
    Dictionary dictionary;
    std::string error;
    EXPECT_FALSE(dictionary.load(dir.path(), error));
    capture.stop();
    EXPECT_EQ(error, "the dictionary in " + dir.path() + " did not load: no binlog file in it");
}

}  // namespace
