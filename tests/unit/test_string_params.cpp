// String parameter decoding: NUL-padded texts, binary strings and variable
// length binary strings with their count cap and display limit.
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
using StringParam = Tav::TavLogParam<std::string>;

const char* const kBinlogXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="L1" logString="hello" category="CAT"/>
</Dictionary>
)";

StringParam makeParam(const std::string& name, std::uint32_t length) {
    StringParam p;
    p.name = name;
    p.length = length;
    return p;
}

Bytes textBytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

enum class Kind { String, Binary, VarBinary };

struct StringResult {
    int rc = -1;
    Values values;
    std::vector<StringParam> params;
    unsigned int offset = 0;
    std::string err;
};

class StringParamsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("core_binlog.xml", kBinlogXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 2);
        ASSERT_TRUE(reader_->isGood());
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

    StringResult decode(Kind kind, const Bytes& bytes, std::vector<StringParam> params,
                        unsigned int start = 0) {
        StringResult r;
        r.params = std::move(params);
        r.offset = start;
        Tav::ByteReader payload(bytes.data(), bytes.size());
        wexbl_test::StderrCapture capture;
        switch (kind) {
            case Kind::String:
                r.rc = reader().decodeStringParams(payload, r.params, r.offset, r.values);
                break;
            case Kind::Binary:
                r.rc = reader().decodeBinaryStringParams(payload, r.params, r.offset, r.values);
                break;
            case Kind::VarBinary:
                r.rc = reader().decodeVarBinaryStringParam(payload, r.params, r.offset, r.values);
                break;
        }
        r.err = capture.stop();
        return r;
    }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- "string" --------------------------------------------------------------------

TEST_F(StringParamsTest, StringPaddedWithNulBytesEndsAtTheFirstNul) {
    Bytes bytes = textBytes("abc");
    bytes.resize(14, 0);
    auto r = decode(Kind::String, bytes, {makeParam("s", 14)});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.values, (Values{{"s", "abc"}}));
    EXPECT_EQ(r.params[0].value, "abc");
    EXPECT_EQ(r.params[0].displayValue, "abc");
    EXPECT_EQ(r.offset, 14u);
    EXPECT_EQ(r.err, "");
}

TEST_F(StringParamsTest, StringOfFourteenNonNulBytesKeepsAllOfThem) {
    auto r = decode(Kind::String, textBytes("ABCDEFGHIJKLMN"), {makeParam("s", 14)});
    EXPECT_EQ(r.values.at("s"), "ABCDEFGHIJKLMN");
    EXPECT_EQ(r.params[0].value.size(), 14u);
    EXPECT_EQ(r.offset, 14u);
}

TEST_F(StringParamsTest, StringStopsAtAnInnerNul) {
    Bytes bytes{'a', 'b', 0, 'c', 'd', 'e'};
    auto r = decode(Kind::String, bytes, {makeParam("s", 6)});
    EXPECT_EQ(r.values.at("s"), "ab");
    EXPECT_EQ(r.params[0].value, "ab");
    EXPECT_EQ(r.offset, 6u);
}

TEST_F(StringParamsTest, ConsecutiveStringsConsumeTheirDeclaredSizes) {
    Bytes bytes{0xee, 'h', 'i', 0, 0, 'x', 'y', 'z', 0, 0, 0, 0};
    auto r = decode(Kind::String, bytes, {makeParam("first", 4), makeParam("second", 7)}, 1);
    EXPECT_EQ(r.values, (Values{{"first", "hi"}, {"second", "xyz"}}));
    EXPECT_EQ(r.offset, 12u);
}

TEST_F(StringParamsTest, StringOfSizeZeroIsEmptyAndConsumesNothing) {
    auto r = decode(Kind::String, textBytes("abc"), {makeParam("s", 0)}, 1);
    EXPECT_EQ(r.values, (Values{{"s", ""}}));
    EXPECT_EQ(r.offset, 1u);
}

// ---- "binarystring" -------------------------------------------------------------------

TEST_F(StringParamsTest, BinaryStringIsColonSeparatedLowercaseHex) {
    auto r = decode(Kind::Binary, {0x0a, 0x1b, 0x2c, 0xff}, {makeParam("b", 4)});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.values, (Values{{"b", "0a:1b:2c:ff"}}));
    EXPECT_EQ(r.params[0].value, "0a:1b:2c:ff");
    EXPECT_EQ(r.params[0].displayValue, "0a:1b:2c:ff");
    EXPECT_EQ(r.offset, 4u);
    EXPECT_EQ(r.err, "");
}

TEST_F(StringParamsTest, BinaryStringOfSizeZeroConsumesNothingAndIsEmpty) {
    auto r = decode(Kind::Binary, {0x0a, 0x1b}, {makeParam("b", 0)}, 1);
    EXPECT_EQ(r.values, (Values{{"b", ""}}));
    EXPECT_EQ(r.params[0].value, "");
    EXPECT_EQ(r.offset, 1u);
}

TEST_F(StringParamsTest, BinaryStringsFollowOneAnother) {
    auto r =
        decode(Kind::Binary, {0x01, 0x00, 0x7f, 0x80}, {makeParam("one", 1), makeParam("two", 3)});
    EXPECT_EQ(r.values, (Values{{"one", "01"}, {"two", "00:7f:80"}}));
    EXPECT_EQ(r.offset, 4u);
}

// ---- "varbinarystring" (the reader shows at most 2 bytes) -------------------------------

TEST_F(StringParamsTest, VarBinaryStringShowsAtMostMaxVarBinaryBytes) {
    ASSERT_EQ(reader().maxVarBinaryBytes, 2);
    auto r = decode(Kind::VarBinary, {0x05, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0xee},
                    {makeParam("v", 16)});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.values, (Values{{"v", "payload size:5 01:02"}}));
    EXPECT_EQ(r.params[0].value, "payload size:5 01:02");
    EXPECT_EQ(r.params[0].displayValue, "payload size:5 01:02");
    EXPECT_EQ(r.offset, 7u);
    EXPECT_EQ(r.err, "");
}

TEST_F(StringParamsTest, VarBinaryStringWithCountZero) {
    auto r = decode(Kind::VarBinary, {0x00, 0x00, 0xaa}, {makeParam("v", 16)});
    EXPECT_EQ(r.values, (Values{{"v", "payload size:0 "}}));
    EXPECT_EQ(r.offset, 2u);
    EXPECT_EQ(r.err, "");
}

TEST_F(StringParamsTest, VarBinaryStringShorterThanTheLimitShowsAllItsBytes) {
    reader().maxVarBinaryBytes = 64;
    auto r = decode(Kind::VarBinary, {0x03, 0x00, 0xde, 0xad, 0x0f}, {makeParam("v", 16)});
    EXPECT_EQ(r.values.at("v"), "payload size:3 de:ad:0f");
    EXPECT_EQ(r.offset, 5u);
}

TEST_F(StringParamsTest, VarBinaryStringWithLimitZeroShowsNoBytes) {
    reader().maxVarBinaryBytes = 0;
    auto r =
        decode(Kind::VarBinary, {0x05, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}, {makeParam("v", 16)});
    EXPECT_EQ(r.values.at("v"), "payload size:5 ");
    EXPECT_EQ(r.offset, 7u);
}

TEST_F(StringParamsTest, VarBinaryCountAboveTheDeclaredSizeIsCapped) {
    reader().maxVarBinaryBytes = 4;
    // Count 300 followed by 300 bytes 00 01 02 ... (each byte its index mod 256).
    Bytes bytes{0x2c, 0x01};
    for (int i = 0; i < 300; ++i) {
        bytes.push_back(static_cast<unsigned char>(i));
    }
    auto r = decode(Kind::VarBinary, bytes, {makeParam("v", 16)});
    EXPECT_EQ(r.values.at("v"), "payload size:16 00:01:02:03");
    EXPECT_EQ(r.offset, 18u);
    EXPECT_EQ(r.err, "Variable length:300 in payload is greater thanthe definition 16\n");
}

TEST_F(StringParamsTest, BytesStillCoveredByACappedCountAreReadAsTheNextParameter) {
    reader().maxVarBinaryBytes = 4;
    Bytes bytes{0x2c, 0x01};
    for (int i = 0; i < 300; ++i) {
        bytes.push_back(static_cast<unsigned char>(i));
    }
    // The second parameter's count comes from offset 18: the bytes 0x10 0x11,
    // that is 4368, again above 16.
    auto r = decode(Kind::VarBinary, bytes, {makeParam("v", 16), makeParam("w", 16)});
    EXPECT_EQ(r.values,
              (Values{{"v", "payload size:16 00:01:02:03"}, {"w", "payload size:16 12:13:14:15"}}));
    EXPECT_EQ(r.offset, 36u);
    EXPECT_EQ(r.err,
              "Variable length:300 in payload is greater thanthe definition 16\n"
              "Variable length:4368 in payload is greater thanthe definition 16\n");
}

TEST_F(StringParamsTest, VarBinaryDeclaredWithSizeZero) {
    auto r = decode(Kind::VarBinary, {0x01, 0x00, 0x99}, {makeParam("v", 0)});
    EXPECT_EQ(r.values.at("v"), "payload size:0 ");
    EXPECT_EQ(r.offset, 2u);
    EXPECT_EQ(r.err, "Variable length:1 in payload is greater thanthe definition 0\n");
}

TEST_F(StringParamsTest, VarBinaryCountEqualToTheSizeIsNotCapped) {
    auto r = decode(Kind::VarBinary, {0x02, 0x00, 0xab, 0xcd}, {makeParam("v", 2)});
    EXPECT_EQ(r.values.at("v"), "payload size:2 ab:cd");
    EXPECT_EQ(r.offset, 4u);
    EXPECT_EQ(r.err, "");
}

TEST(StringParamsConstructorTest, MaxVarBinaryBytesComesFromTheConstructor) {
    wexbl_test::TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlogXml);
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 3);
    ASSERT_TRUE(reader.isGood());
    Bytes bytes{0x05, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05};
    Tav::ByteReader payload(bytes.data(), bytes.size());
    std::vector<StringParam> params{makeParam("v", 8)};
    Values values;
    unsigned int offset = 0;
    EXPECT_EQ(reader.decodeVarBinaryStringParam(payload, params, offset, values), 0);
    EXPECT_EQ(values.at("v"), "payload size:5 01:02:03");
    EXPECT_EQ(offset, 7u);
}

}  // namespace
