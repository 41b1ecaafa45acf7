// Tests of the decimal reading used for every number of a binlog dictionary:
// strtol base 10 with a 32-bit long (blanks, sign, stop at the first
// non-digit, saturation), then narrowing to the field.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using wexbl_test::parseXml;
using wexbl_test::TempDir;

constexpr std::int32_t kMax = 2147483647;
constexpr std::int32_t kMin = -2147483647 - 1;

TEST(ParseDecimal32, PlainNumbers) {
    EXPECT_EQ(Tav::parseDecimal32("0"), 0);
    EXPECT_EQ(Tav::parseDecimal32("42"), 42);
    EXPECT_EQ(Tav::parseDecimal32("70000"), 70000);
    EXPECT_EQ(Tav::parseDecimal32("-17"), -17);
    EXPECT_EQ(Tav::parseDecimal32("+17"), 17);
}

TEST(ParseDecimal32, LeadingWhiteSpaceIsSkipped) {
    EXPECT_EQ(Tav::parseDecimal32("   42"), 42);
    EXPECT_EQ(Tav::parseDecimal32("\t\n\v\f\r 7"), 7);
    EXPECT_EQ(Tav::parseDecimal32("  -3"), -3);
}

TEST(ParseDecimal32, ReadingStopsAtFirstNonDigit) {
    EXPECT_EQ(Tav::parseDecimal32("12abc"), 12);
    EXPECT_EQ(Tav::parseDecimal32("3.9"), 3);
    EXPECT_EQ(Tav::parseDecimal32("1e5"), 1);
    EXPECT_EQ(Tav::parseDecimal32("12 34"), 12);
    EXPECT_EQ(Tav::parseDecimal32("-8,5"), -8);
}

TEST(ParseDecimal32, TextWithoutDigitsGivesZero) {
    EXPECT_EQ(Tav::parseDecimal32(""), 0);
    EXPECT_EQ(Tav::parseDecimal32("abc"), 0);
    EXPECT_EQ(Tav::parseDecimal32("   "), 0);
    EXPECT_EQ(Tav::parseDecimal32("-"), 0);
    EXPECT_EQ(Tav::parseDecimal32("+"), 0);
    EXPECT_EQ(Tav::parseDecimal32("- 5"), 0);
    EXPECT_EQ(Tav::parseDecimal32("--5"), 0);
    EXPECT_EQ(Tav::parseDecimal32("+-5"), 0);
}

TEST(ParseDecimal32, BaseIsAlwaysTen) {
    EXPECT_EQ(Tav::parseDecimal32("0x10"), 0);
    EXPECT_EQ(Tav::parseDecimal32("010"), 10);
    EXPECT_EQ(Tav::parseDecimal32("0007"), 7);
}

TEST(ParseDecimal32, LimitsAreExact) {
    EXPECT_EQ(Tav::parseDecimal32("2147483647"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("-2147483648"), kMin);
    EXPECT_EQ(Tav::parseDecimal32("-2147483647"), -2147483647);
}

TEST(ParseDecimal32, SaturatesAtThirtyTwoBitLimits) {
    EXPECT_EQ(Tav::parseDecimal32("2147483648"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("-2147483649"), kMin);
    EXPECT_EQ(Tav::parseDecimal32("5000000000"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("-5000000000"), kMin);
    // 2^32 - 1 would read back as -1 if a wider result were merely truncated.
    EXPECT_EQ(Tav::parseDecimal32("4294967295"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("4294967296"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("99999999999999999999999999"), kMax);
    EXPECT_EQ(Tav::parseDecimal32("-99999999999999999999999999"), kMin);
    EXPECT_EQ(Tav::parseDecimal32("  +5000000000xyz"), kMax);
}

const char kMinimalBinlog[] =
    "<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" moduleid=\"2\" "
    "binlogversion=\"1\"/>";

// Numbers read through the dictionary loader: a reader built on a directory
// holding one minimal binlog file, then the parse steps called directly.
class DecimalFieldsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("a_binlog.xml", kMinimalBinlog);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        reader_->nextLogIndex = 1;
    }

    int parse(const std::string& xml) {
        auto doc = parseXml(xml);
        EXPECT_NE(doc, nullptr);
        if (!doc) {
            return -2;
        }
        return reader_->parseBinLogXml(xmlDocGetRootElement(doc.get()), key_, module_, logs_);
    }

    TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
    std::uint16_t key_ = 0;
    Tav::ModuleDetails module_;
    std::map<std::uint16_t, Tav::LogDetails> logs_;
};

TEST_F(DecimalFieldsTest, CountOfFiveBillionSaturates) {
    Tav::LogDetails log;
    EXPECT_EQ(reader_->tokenizeAndPushToList("a", "TavUint8_t", "5000000000", "", "", log,
                                             log.paramOrder),
              0);
    ASSERT_EQ(log.uint8Params.size(), 1u);
    EXPECT_EQ(log.uint8Params[0].length, 2147483647u);
}

TEST_F(DecimalFieldsTest, CountOfMinusOneWraps) {
    Tav::LogDetails log;
    EXPECT_EQ(reader_->tokenizeAndPushToList("a", "TavUint32_t", "-1", "", "", log, log.paramOrder),
              0);
    ASSERT_EQ(log.uint32Params.size(), 1u);
    EXPECT_EQ(log.uint32Params[0].length, 4294967295u);
}

TEST_F(DecimalFieldsTest, CountBelowLongMinimumSaturatesThenWraps) {
    Tav::LogDetails log;
    EXPECT_EQ(reader_->tokenizeAndPushToList("a", "TavInt64_t", "-5000000000", "", "", log,
                                             log.paramOrder),
              0);
    ASSERT_EQ(log.int64Params.size(), 1u);
    // -2147483648 stored as unsigned 32-bit.
    EXPECT_EQ(log.int64Params[0].length, 2147483648u);
}

TEST_F(DecimalFieldsTest, SizeOfFiveBillionSaturates) {
    Tav::LogDetails log;
    EXPECT_EQ(
        reader_->tokenizeAndPushToList("s", "string", "0", "5000000000", "", log, log.paramOrder),
        0);
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].length, 2147483647u);
}

TEST_F(DecimalFieldsTest, DeclarationCountInDocumentSaturates) {
    ASSERT_EQ(parse("<LogId name=\"n\" logString=\"s\" category=\"c\">"
                    "<p type=\"TavUint16_t\" nameList=\"big\" count=\"5000000000\"/>"
                    "<p type=\"TavUint16_t\" nameList=\"neg\" count=\"-1\"/>"
                    "</LogId>"),
              0);
    ASSERT_EQ(logs_.count(1), 1u);
    ASSERT_EQ(logs_[1].uint16Params.size(), 2u);
    EXPECT_EQ(logs_[1].uint16Params[0].length, 2147483647u);
    EXPECT_EQ(logs_[1].uint16Params[1].length, 4294967295u);
}

TEST_F(DecimalFieldsTest, VersionIsNarrowedAfterSaturation) {
    // 2147483647 & 0xFFFF = 65535.
    ASSERT_EQ(parse("<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                    "moduleid=\"2\" binlogversion=\"5000000000\"/>"),
              0);
    EXPECT_EQ(module_.binlogVersion, 65535);
}

TEST_F(DecimalFieldsTest, NegativeVersionIsNarrowed) {
    ASSERT_EQ(parse("<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                    "moduleid=\"2\" binlogversion=\"-1\"/>"),
              0);
    EXPECT_EQ(module_.binlogVersion, 65535);
}

TEST_F(DecimalFieldsTest, NonNumericVersionIsZero) {
    ASSERT_EQ(parse("<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                    "moduleid=\"2\" binlogversion=\"0x10\"/>"),
              0);
    EXPECT_EQ(module_.binlogVersion, 0);
}

TEST_F(DecimalFieldsTest, SaturatedSubsystemIdKeepsItsLowBits) {
    // ((2147483647 & 0xFFFF) << 8) | 0 = 0xFFFF00, narrowed to 0xFF00.
    ASSERT_EQ(parse("<LoggingSubSystem subsystem=\"s\" subsystemId=\"5000000000\" module=\"m\" "
                    "moduleid=\"0\" binlogversion=\"1\"/>"),
              0);
    EXPECT_EQ(key_, 0xFF00);
}

TEST_F(DecimalFieldsTest, NumbersWithBlanksAndSigns) {
    ASSERT_EQ(parse("<LoggingSubSystem subsystem=\"s\" subsystemId=\" +1\" module=\"m\" "
                    "moduleid=\"2abc\" binlogversion=\"  7 \"/>"),
              0);
    EXPECT_EQ(key_, 0x0102);
    EXPECT_EQ(module_.binlogVersion, 7);
}

}  // namespace
