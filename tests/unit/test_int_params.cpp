// Integer parameter decoding: the eight integer kinds, their display formats
// (decimal, hex, frame number form, display enumerations), arrays and labels.
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

const char* const kBinlogXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="L1" logString="hello" category="CAT"/>
</Dictionary>
)";

const char* const kEnumXml = R"(<?xml version="1.0"?>
<Enums>
  <enum name="Color">
    <entry value="0" text="RED"/>
    <entry value="1" text="GREEN"/>
    <entry value="-1" text="NEGATIVE"/>
  </enum>
  <enum name="SF-SFN">
    <entry value="7" text="seven"/>
  </enum>
</Enums>
)";

Bytes le16(std::uint16_t v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
}

Bytes le32(std::uint32_t v) {
    Bytes b;
    for (int i = 0; i < 4; ++i) {
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    return b;
}

Bytes le64(std::uint64_t v) {
    Bytes b;
    for (int i = 0; i < 8; ++i) {
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
    return b;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

template <typename T>
Tav::TavLogParam<T> makeParam(const std::string& name, std::uint32_t length = 0,
                              const std::string& format = "DefaultDisplay") {
    Tav::TavLogParam<T> p;
    p.name = name;
    p.length = length;
    p.displayFormat = format;
    return p;
}

// What one decodeIntParams call over a one-parameter list produced.
template <typename T>
struct IntResult {
    int rc = -1;
    std::string text;  // the decodedValues entry of the parameter
    bool hasEntry = false;
    std::size_t entries = 0;
    std::string displayValue;
    T value{};
    unsigned int offset = 0;
    std::string err;
};

template <typename T>
IntResult<T> decodeOne(Tav::BinaryLogXmlReader& reader, const Bytes& bytes,
                       Tav::TavLogParam<T> param, unsigned int start = 0) {
    std::vector<Tav::TavLogParam<T>> params{param};
    Values values;
    IntResult<T> r;
    r.offset = start;
    Tav::ByteReader payload(bytes.data(), bytes.size());
    wexbl_test::StderrCapture capture;
    r.rc = reader.decodeIntParams(payload, params, r.offset, values);
    r.err = capture.stop();
    auto it = values.find(param.name);
    r.hasEntry = it != values.end();
    if (r.hasEntry) {
        r.text = it->second;
    }
    r.entries = values.size();
    r.displayValue = params[0].displayValue;
    r.value = params[0].value;
    return r;
}

template <typename T>
IntResult<T> decodeScalar(Tav::BinaryLogXmlReader& reader, const Bytes& bytes,
                          const std::string& format = "DefaultDisplay") {
    return decodeOne<T>(reader, bytes, makeParam<T>("v", 0, format));
}

// A reader over a dictionary directory without any display enumeration.
class IntParamsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("core_binlog.xml", kBinlogXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// A reader whose dictionary directory also holds display enumerations.
class IntParamsEnumTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("core_binlog.xml", kBinlogXml);
        dir_.writeFile("enums_bindisplay.xml", kEnumXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        ASSERT_TRUE(reader_->displayFormatter.isGood());
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- Decimal texts of the eight kinds ----------------------------------------

TEST_F(IntParamsTest, Uint8PrintsAsNumberNeverAsCharacter) {
    auto r = decodeScalar<std::uint8_t>(reader(), {0xff});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, "255");
    EXPECT_EQ(r.displayValue, "255");
    EXPECT_EQ(r.value, 255);
    EXPECT_EQ(r.offset, 1u);
    EXPECT_EQ(r.err, "");

    auto letter = decodeScalar<std::uint8_t>(reader(), {0x41});
    EXPECT_EQ(letter.text, "65");
    auto zero = decodeScalar<std::uint8_t>(reader(), {0x00});
    EXPECT_EQ(zero.text, "0");
}

TEST_F(IntParamsTest, Int8PrintsSignedNumber) {
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0xff}).text, "-1");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0x80}).text, "-128");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0x7f}).text, "127");
    auto r = decodeScalar<std::int8_t>(reader(), {0x41});
    EXPECT_EQ(r.text, "65");
    EXPECT_EQ(r.displayValue, "65");
    EXPECT_EQ(r.value, 65);
    EXPECT_EQ(r.offset, 1u);
}

TEST_F(IntParamsTest, Uint16IsLittleEndianUnsigned) {
    auto r = decodeScalar<std::uint16_t>(reader(), {0x34, 0x12});
    EXPECT_EQ(r.text, "4660");
    EXPECT_EQ(r.value, 0x1234);
    EXPECT_EQ(r.offset, 2u);
    EXPECT_EQ(decodeScalar<std::uint16_t>(reader(), le16(65535)).text, "65535");
}

TEST_F(IntParamsTest, Int16IsSigned) {
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0xfffe)).text, "-2");
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0x8000)).text, "-32768");
    auto r = decodeScalar<std::int16_t>(reader(), le16(0x7fff));
    EXPECT_EQ(r.text, "32767");
    EXPECT_EQ(r.offset, 2u);
}

TEST_F(IntParamsTest, Uint32IsUnsigned) {
    auto r = decodeScalar<std::uint32_t>(reader(), le32(0xffffffffu));
    EXPECT_EQ(r.text, "4294967295");
    EXPECT_EQ(r.value, 0xffffffffu);
    EXPECT_EQ(r.offset, 4u);
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), {0x78, 0x56, 0x34, 0x12}).text, "305419896");
}

TEST_F(IntParamsTest, Int32IsSigned) {
    EXPECT_EQ(decodeScalar<std::int32_t>(reader(), le32(0x80000000u)).text, "-2147483648");
    EXPECT_EQ(decodeScalar<std::int32_t>(reader(), le32(0xffffffffu)).text, "-1");
    auto r = decodeScalar<std::int32_t>(reader(), le32(2147483647u));
    EXPECT_EQ(r.text, "2147483647");
    EXPECT_EQ(r.offset, 4u);
}

TEST_F(IntParamsTest, Uint64IsUnsigned) {
    auto r = decodeScalar<std::uint64_t>(reader(), le64(0xffffffffffffffffull));
    EXPECT_EQ(r.text, "18446744073709551615");
    EXPECT_EQ(r.offset, 8u);
    EXPECT_EQ(decodeScalar<std::uint64_t>(reader(), le64(0x0102030405060708ull)).text,
              "72623859790382856");
}

TEST_F(IntParamsTest, Int64IsSigned) {
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(0x8000000000000000ull)).text,
              "-9223372036854775808");
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(0xffffffffffffffffull)).text, "-1");
    auto r = decodeScalar<std::int64_t>(reader(), le64(0x7fffffffffffffffull));
    EXPECT_EQ(r.text, "9223372036854775807");
    EXPECT_EQ(r.value, INT64_MAX);
    EXPECT_EQ(r.offset, 8u);
}

// ---- Hexadecimal texts ---------------------------------------------------------

TEST_F(IntParamsTest, HexOfZeroIsZeroXZeroForEveryKind) {
    EXPECT_EQ(decodeScalar<std::uint8_t>(reader(), {0}, "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0}, "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::uint16_t>(reader(), le16(0), "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0), "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(0), "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::int32_t>(reader(), le32(0), "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::uint64_t>(reader(), le64(0), "hex").text, "0x0");
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(0), "hex").text, "0x0");
}

TEST_F(IntParamsTest, HexOfUnsignedValuesIsLowercaseWithoutLeadingZeros) {
    auto r = decodeScalar<std::uint8_t>(reader(), {0xff}, "hex");
    EXPECT_EQ(r.text, "0xff");
    EXPECT_EQ(r.displayValue, "0xff");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(decodeScalar<std::uint8_t>(reader(), {0x0a}, "hex").text, "0xa");
    EXPECT_EQ(decodeScalar<std::uint16_t>(reader(), le16(0xabcd), "hex").text, "0xabcd");
    EXPECT_EQ(decodeScalar<std::uint16_t>(reader(), le16(0x0012), "hex").text, "0x12");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(0xdeadbeefu), "hex").text, "0xdeadbeef");
    EXPECT_EQ(decodeScalar<std::uint64_t>(reader(), le64(0x100000000ull), "hex").text,
              "0x100000000");
    EXPECT_EQ(decodeScalar<std::uint64_t>(reader(), le64(0xffffffffffffffffull), "hex").text,
              "0xffffffffffffffff");
}

TEST_F(IntParamsTest, HexOfNegativeValuesUsesTheKindsWidth) {
    // 8-bit values are widened to 32 bits first.
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0xff}, "hex").text, "0xffffffff");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0x80}, "hex").text, "0xffffff80");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {0x10}, "hex").text, "0x10");
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0xffff), "hex").text, "0xffff");
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0x8000), "hex").text, "0x8000");
    EXPECT_EQ(decodeScalar<std::int32_t>(reader(), le32(0xffffffffu), "hex").text, "0xffffffff");
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(0xffffffffffffffffull), "hex").text,
              "0xffffffffffffffff");
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(0x8000000000000000ull), "hex").text,
              "0x8000000000000000");
}

// ---- Frame number form ------------------------------------------------------------

TEST_F(IntParamsTest, SfSfnOnUint32GivesFrameAndSubframe) {
    auto a = decodeScalar<std::uint32_t>(reader(), le32(12345), "SF-SFN");
    EXPECT_EQ(a.text, "0210-05");
    EXPECT_EQ(a.displayValue, "0210-05");
    EXPECT_EQ(a.err, "");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(10239), "SF-SFN").text, "1023-09");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(10240), "SF-SFN").text, "0000-00");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(0), "SF-SFN").text, "0000-00");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(37), "SF-SFN").text, "0003-07");
    // 4294967295 / 10 = 429496729, whose low 10 bits are 409; the subframe is 5.
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(0xffffffffu), "SF-SFN").text, "0409-05");
}

TEST_F(IntParamsTest, SfSfnOnOtherKindsWithoutSuchEnumShowsDecimalAndReportsFormat) {
    const std::string msg = "Displayformat SF-SFN not found\n";

    auto u16 = decodeScalar<std::uint16_t>(reader(), le16(1234), "SF-SFN");
    EXPECT_EQ(u16.text, "1234");
    EXPECT_EQ(u16.displayValue, "1234");
    EXPECT_EQ(u16.err, msg);

    auto i16 = decodeScalar<std::int16_t>(reader(), le16(0xfffb), "SF-SFN");
    EXPECT_EQ(i16.text, "-5");
    EXPECT_EQ(i16.err, msg);

    auto i32 = decodeScalar<std::int32_t>(reader(), le32(12345), "SF-SFN");
    EXPECT_EQ(i32.text, "12345");
    EXPECT_EQ(i32.err, msg);

    auto u8 = decodeScalar<std::uint8_t>(reader(), {200}, "SF-SFN");
    EXPECT_EQ(u8.text, "200");
    EXPECT_EQ(u8.err, msg);

    auto i8 = decodeScalar<std::int8_t>(reader(), {0xfd}, "SF-SFN");
    EXPECT_EQ(i8.text, "-3");
    EXPECT_EQ(i8.err, msg);

    auto u64 = decodeScalar<std::uint64_t>(reader(), le64(12345), "SF-SFN");
    EXPECT_EQ(u64.text, "12345");
    EXPECT_EQ(u64.err, msg);

    auto i64 = decodeScalar<std::int64_t>(reader(), le64(0xfffffffffffffff7ull), "SF-SFN");
    EXPECT_EQ(i64.text, "-9");
    EXPECT_EQ(i64.err, msg);
}

TEST_F(IntParamsEnumTest, SfSfnOnOtherKindsIsLookedUpAsEnum) {
    auto u16 = decodeScalar<std::uint16_t>(reader(), le16(7), "SF-SFN");
    EXPECT_EQ(u16.text, "seven");
    EXPECT_EQ(u16.displayValue, "seven");
    EXPECT_EQ(u16.err, "");
    EXPECT_EQ(decodeScalar<std::uint64_t>(reader(), le64(7), "SF-SFN").text, "seven");
    EXPECT_EQ(decodeScalar<std::int64_t>(reader(), le64(7), "SF-SFN").text, "seven");
    EXPECT_EQ(decodeScalar<std::int32_t>(reader(), le32(7), "SF-SFN").text, "seven");
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(7), "SF-SFN").text, "seven");
    EXPECT_EQ(decodeScalar<std::uint8_t>(reader(), {7}, "SF-SFN").text, "seven");
    EXPECT_EQ(decodeScalar<std::int8_t>(reader(), {7}, "SF-SFN").text, "seven");

    // The unsigned 32-bit kind keeps its own frame form even with such an enum.
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(7), "SF-SFN").text, "0000-07");

    // A value missing from the enum leaves the (empty) display text.
    auto missing = decodeScalar<std::int32_t>(reader(), le32(8), "SF-SFN");
    EXPECT_TRUE(missing.hasEntry);
    EXPECT_EQ(missing.text, "");
    EXPECT_EQ(missing.err, "");
}

// ---- Display enumerations -------------------------------------------------------------

TEST_F(IntParamsEnumTest, KnownEnumValueShowsItsName) {
    auto r = decodeScalar<std::uint8_t>(reader(), {1}, "Color");
    EXPECT_EQ(r.text, "GREEN");
    EXPECT_EQ(r.displayValue, "GREEN");
    EXPECT_EQ(r.value, 1);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(decodeScalar<std::uint32_t>(reader(), le32(0), "Color").text, "RED");
}

TEST_F(IntParamsEnumTest, NegativeValueIsLookedUpByItsSignedDecimalText) {
    EXPECT_EQ(decodeScalar<std::int16_t>(reader(), le16(0xffff), "Color").text, "NEGATIVE");
    // The unsigned reading of the same bits is a different key.
    auto u16 = decodeScalar<std::uint16_t>(reader(), le16(0xffff), "Color");
    EXPECT_TRUE(u16.hasEntry);
    EXPECT_EQ(u16.text, "");
}

TEST_F(IntParamsEnumTest, UnknownEnumValueOfSingleParameterGivesEmptyText) {
    auto r = decodeScalar<std::uint8_t>(reader(), {9}, "Color");
    EXPECT_TRUE(r.hasEntry);
    EXPECT_EQ(r.entries, 1u);
    EXPECT_EQ(r.text, "");
    EXPECT_EQ(r.displayValue, "");
    EXPECT_EQ(r.value, 9);
    EXPECT_EQ(r.offset, 1u);
    EXPECT_EQ(r.err, "");
}

TEST_F(IntParamsTest, UnknownFormatNameShowsDecimalWithMessage) {
    auto r = decodeScalar<std::uint16_t>(reader(), le16(42), "int");
    EXPECT_EQ(r.text, "42");
    EXPECT_EQ(r.displayValue, "42");
    EXPECT_EQ(r.err, "Displayformat int not found\n");

    auto neg = decodeScalar<std::int32_t>(reader(), le32(0xffffffd6u), "Color");
    EXPECT_EQ(neg.text, "-42");
    EXPECT_EQ(neg.err, "Displayformat Color not found\n");
}

TEST(IntParamsUnloadedEnumsTest, BrokenEnumFileShowsDecimalWithNotInitializedMessage) {
    wexbl_test::TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlogXml);
    dir.writeFile("broken_bindisplay.xml", "<enum name=\"Color\"><entry value=\"1\"");
    std::unique_ptr<Tav::BinaryLogXmlReader> reader;
    {
        wexbl_test::StderrCapture quiet;  // the loader reports the broken file
        reader = std::make_unique<Tav::BinaryLogXmlReader>(dir.slash(), false, 0, 64);
    }
    ASSERT_TRUE(reader->isGood());
    ASSERT_FALSE(reader->displayFormatter.isGood());

    auto r = decodeScalar<std::uint8_t>(*reader, {1}, "Color");
    EXPECT_EQ(r.text, "1");
    EXPECT_EQ(r.displayValue, "1");
    EXPECT_EQ(r.err, "BinaryLogDisplayFormatter not initialized correctly\n");
    // hex and decimal never consult the enumerations.
    auto hex = decodeScalar<std::uint8_t>(*reader, {1}, "hex");
    EXPECT_EQ(hex.text, "0x1");
    EXPECT_EQ(hex.err, "");
}

// ---- Arrays ------------------------------------------------------------------------------------

TEST_F(IntParamsTest, ArrayOfThreeUint16) {
    auto p = makeParam<std::uint16_t>("rssi", 3);
    p.displayValue = "untouched";
    auto r = decodeOne<std::uint16_t>(reader(), concat({le16(1), le16(2), le16(3)}), p);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, "[rssi[0]=1,rssi[1]=2,rssi[2]=3]");
    EXPECT_EQ(r.entries, 1u);
    EXPECT_EQ(r.offset, 6u);
    EXPECT_EQ(r.value, 3);                   // the last element
    EXPECT_EQ(r.displayValue, "untouched");  // arrays never write displayValue
    EXPECT_EQ(r.err, "");
}

TEST_F(IntParamsTest, ArrayOfLengthOneHasNoComma) {
    auto r = decodeOne<std::uint8_t>(reader(), {7}, makeParam<std::uint8_t>("x", 1));
    EXPECT_EQ(r.text, "[x[0]=7]");
    EXPECT_EQ(r.offset, 1u);
}

TEST_F(IntParamsTest, ArraysOfSignedAndWideKinds) {
    auto i8 = decodeOne<std::int8_t>(reader(), {0xff, 0x05}, makeParam<std::int8_t>("s", 2));
    EXPECT_EQ(i8.text, "[s[0]=-1,s[1]=5]");
    EXPECT_EQ(i8.offset, 2u);

    auto i64 = decodeOne<std::int64_t>(reader(), concat({le64(0xfffffffffffffffeull), le64(3)}),
                                       makeParam<std::int64_t>("w", 2));
    EXPECT_EQ(i64.text, "[w[0]=-2,w[1]=3]");
    EXPECT_EQ(i64.offset, 16u);
    EXPECT_EQ(i64.value, 3);

    auto u32 = decodeOne<std::uint32_t>(reader(), concat({le32(10), le32(20)}),
                                        makeParam<std::uint32_t>("u", 2), 0);
    EXPECT_EQ(u32.text, "[u[0]=10,u[1]=20]");
    EXPECT_EQ(u32.offset, 8u);
}

TEST_F(IntParamsTest, ArrayElementsUseTheDisplayFormat) {
    auto hex =
        decodeOne<std::int8_t>(reader(), {0xff, 0x10}, makeParam<std::int8_t>("a", 2, "hex"));
    EXPECT_EQ(hex.text, "[a[0]=0xffffffff,a[1]=0x10]");

    auto sfn = decodeOne<std::uint32_t>(reader(), concat({le32(12345), le32(10240)}),
                                        makeParam<std::uint32_t>("f", 2, "SF-SFN"));
    EXPECT_EQ(sfn.text, "[f[0]=0210-05,f[1]=0000-00]");
    EXPECT_EQ(sfn.offset, 8u);
}

TEST_F(IntParamsTest, ArrayWithUnknownFormatReportsEveryElement) {
    auto r = decodeOne<std::uint8_t>(reader(), {3, 4}, makeParam<std::uint8_t>("c", 2, "Color"));
    EXPECT_EQ(r.text, "[c[0]=3,c[1]=4]");
    EXPECT_EQ(r.err, "Displayformat Color not found\nDisplayformat Color not found\n");
}

TEST_F(IntParamsEnumTest, ArrayElementWithUnknownEnumValueRepeatsThePreviousText) {
    auto r =
        decodeOne<std::uint8_t>(reader(), {1, 5, 0, 6}, makeParam<std::uint8_t>("c", 4, "Color"));
    EXPECT_EQ(r.text, "[c[0]=GREEN,c[1]=GREEN,c[2]=RED,c[3]=RED]");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.offset, 4u);
}

TEST_F(IntParamsEnumTest, FirstArrayElementWithUnknownEnumValueIsEmpty) {
    auto r = decodeOne<std::uint16_t>(reader(), concat({le16(5), le16(0)}),
                                      makeParam<std::uint16_t>("c", 2, "Color"));
    EXPECT_EQ(r.text, "[c[0]=,c[1]=RED]");
    EXPECT_EQ(r.err, "");
}

TEST_F(IntParamsTest, LongNameCutsArrayLabelAt99Characters) {
    const std::string longName(120, 'n');
    auto r = decodeOne<std::uint8_t>(reader(), {5, 6}, makeParam<std::uint8_t>(longName, 2));
    EXPECT_EQ(r.text, "[" + std::string(99, 'n') + "5," + std::string(99, 'n') + "6]");
    EXPECT_TRUE(r.hasEntry);  // the map key is the whole name

    // 95 characters plus "[0]=" is exactly 99: the label is complete.
    const std::string name95(95, 'm');
    auto full = decodeOne<std::uint8_t>(reader(), {5}, makeParam<std::uint8_t>(name95, 1));
    EXPECT_EQ(full.text, "[" + name95 + "[0]=5]");

    // 96 characters plus "[0]=" is 100: the "=" is cut off.
    const std::string name96(96, 'k');
    auto cut = decodeOne<std::uint8_t>(reader(), {5}, makeParam<std::uint8_t>(name96, 1));
    EXPECT_EQ(cut.text, "[" + name96 + "[0]5]");
}

// ---- Lists and offsets ------------------------------------------------------------------

TEST_F(IntParamsTest, ListContinuesFromTheGivenOffset) {
    std::vector<Tav::TavLogParam<std::uint16_t>> params{makeParam<std::uint16_t>("a"),
                                                        makeParam<std::uint16_t>("b", 2),
                                                        makeParam<std::uint16_t>("c", 0, "hex")};
    Bytes bytes{0xaa, 0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0xff, 0x00};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    Values values;
    unsigned int offset = 1;
    EXPECT_EQ(reader().decodeIntParams(payload, params, offset, values), 0);
    EXPECT_EQ(offset, 9u);
    EXPECT_EQ(values, (Values{{"a", "1"}, {"b", "[b[0]=2,b[1]=3]"}, {"c", "0xff"}}));
    EXPECT_EQ(params[0].displayValue, "1");
    EXPECT_EQ(params[2].displayValue, "0xff");
}

TEST_F(IntParamsTest, LaterParameterWithSameNameReplacesTheMapEntry) {
    Bytes bytes = concat({le32(1000), Bytes{7}});
    Tav::ByteReader payload(bytes.data(), bytes.size());
    std::vector<Tav::TavLogParam<std::uint32_t>> wide{makeParam<std::uint32_t>("x")};
    std::vector<Tav::TavLogParam<std::uint8_t>> narrow{makeParam<std::uint8_t>("x")};
    Values values;
    unsigned int offset = 0;
    reader().decodeIntParams(payload, wide, offset, values);
    EXPECT_EQ(values.at("x"), "1000");
    reader().decodeIntParams(payload, narrow, offset, values);
    EXPECT_EQ(offset, 5u);
    EXPECT_EQ(values, (Values{{"x", "7"}}));
}

TEST_F(IntParamsTest, EmptyListConsumesNothing) {
    std::vector<Tav::TavLogParam<std::int64_t>> none;
    Bytes bytes{1, 2, 3};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    Values values;
    unsigned int offset = 2;
    EXPECT_EQ(reader().decodeIntParams(payload, none, offset, values), 0);
    EXPECT_EQ(offset, 2u);
    EXPECT_TRUE(values.empty());
}

// ---- convertType on its own -------------------------------------------------------------

TEST_F(IntParamsTest, ConvertTypeReplacesTheTextAndFillsTheMap) {
    std::string text = "old";
    Values values;
    reader().convertType<std::uint32_t>("SF-SFN", 12345u, "f", text, values);
    EXPECT_EQ(text, "0210-05");

    text = "old";
    reader().convertType<std::int8_t>("DefaultDisplay", static_cast<std::int8_t>(-5), "d", text,
                                      values);
    EXPECT_EQ(text, "-5");

    text = "old";
    reader().convertType<std::uint16_t>("hex", static_cast<std::uint16_t>(31), "h", text, values);
    EXPECT_EQ(text, "0x1f");

    EXPECT_EQ(values, (Values{{"d", "-5"}, {"f", "0210-05"}, {"h", "0x1f"}}));
}

TEST_F(IntParamsEnumTest, ConvertTypeWithUnknownEnumValueKeepsThePreviousText) {
    std::string text = "previous";
    Values values;
    wexbl_test::StderrCapture capture;
    reader().convertType<std::uint8_t>("Color", static_cast<std::uint8_t>(9), "c", text, values);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_EQ(text, "previous");
    EXPECT_EQ(values, (Values{{"c", "previous"}}));

    reader().convertType<std::uint8_t>("Color", static_cast<std::uint8_t>(0), "c", text, values);
    EXPECT_EQ(text, "RED");
    EXPECT_EQ(values, (Values{{"c", "RED"}}));
}

}  // namespace
