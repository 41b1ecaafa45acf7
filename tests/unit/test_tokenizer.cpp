// Tests of tokenizeAndPushToList: one parameter declaration (name list, type,
// count, size, display format) turned into typed entries and declaration order.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "DictionaryHelpers.h"
#include "TestSupport.h"

namespace {

using wexbl_test::kMinimalBinlog;
using wexbl_test::Names;
using wexbl_test::namesOf;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;
using wexbl_test::totalEntries;

class TokenizerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("a_binlog.xml", kMinimalBinlog);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        reader_->nextLogIndex = 1;
    }

    // Runs one declaration against log_ and returns the tokenizer's result.
    int declare(const std::string& nameList, const std::string& type,
                const std::string& count = "0", const std::string& size = "",
                const std::string& displayFormat = "") {
        return reader_->tokenizeAndPushToList(nameList, type, count, size, displayFormat, log_,
                                              log_.paramOrder);
    }

    TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
    Tav::LogDetails log_;
};

TEST_F(TokenizerTest, DoubleCommaIsSkipped) {
    StderrCapture err;
    EXPECT_EQ(declare("a,,b", "TavUint8_t"), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"a", "b"}));
    EXPECT_EQ(log_.paramOrder, (Names{"a", "b"}));
    EXPECT_EQ(totalEntries(log_), 2u);
    for (const auto& p : log_.uint8Params) {
        EXPECT_EQ(p.value, 0u);
        EXPECT_EQ(p.length, 0u);
        EXPECT_EQ(p.displayFormat, "DefaultDisplay");
        EXPECT_EQ(p.displayValue, "");
    }
}

TEST_F(TokenizerTest, LeadingAndTrailingCommasAreSkipped) {
    EXPECT_EQ(declare(",a,", "TavUint8_t"), 0);
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"a"}));
    EXPECT_EQ(log_.paramOrder, (Names{"a"}));
}

TEST_F(TokenizerTest, EmptyNameListDeclaresNothing) {
    StderrCapture err;
    EXPECT_EQ(declare("", "TavUint8_t"), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_TRUE(log_.paramOrder.empty());
}

TEST_F(TokenizerTest, OnlyCommasDeclareNothing) {
    EXPECT_EQ(declare(",,,", "TavUint32_t"), 0);
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_TRUE(log_.paramOrder.empty());
}

TEST_F(TokenizerTest, BlankAfterCommaBelongsToTheName) {
    EXPECT_EQ(declare("a, b", "TavUint8_t"), 0);
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"a", " b"}));
    EXPECT_EQ(log_.paramOrder, (Names{"a", " b"}));
}

TEST_F(TokenizerTest, BlankBeforeCommaIsKept) {
    EXPECT_EQ(declare(" a ,b ", "TavInt8_t"), 0);
    EXPECT_EQ(namesOf(log_.int8Params), (Names{" a ", "b "}));
    EXPECT_EQ(log_.paramOrder, (Names{" a ", "b "}));
}

TEST_F(TokenizerTest, CountAppliesToEveryName) {
    EXPECT_EQ(declare("x,y", "TavUint16_t", "2"), 0);
    ASSERT_EQ(log_.uint16Params.size(), 2u);
    EXPECT_EQ(log_.uint16Params[0].name, "x");
    EXPECT_EQ(log_.uint16Params[0].length, 2u);
    EXPECT_EQ(log_.uint16Params[1].name, "y");
    EXPECT_EQ(log_.uint16Params[1].length, 2u);
    EXPECT_EQ(totalEntries(log_), 2u);
    EXPECT_EQ(log_.paramOrder, (Names{"x", "y"}));
}

TEST_F(TokenizerTest, HexFormatIsKeptForSignedType) {
    EXPECT_EQ(declare("h", "TavInt32_t", "0", "", "hex"), 0);
    ASSERT_EQ(log_.int32Params.size(), 1u);
    EXPECT_EQ(log_.int32Params[0].displayFormat, "hex");
}

TEST_F(TokenizerTest, MissingFormatBecomesDefaultDisplay) {
    EXPECT_EQ(declare("d", "TavInt32_t"), 0);
    ASSERT_EQ(log_.int32Params.size(), 1u);
    EXPECT_EQ(log_.int32Params[0].displayFormat, "DefaultDisplay");
}

TEST_F(TokenizerTest, AnyFormatIsKeptUnchecked) {
    EXPECT_EQ(declare("s", "TavInt8_t", "0", "", "SF-SFN"), 0);
    EXPECT_EQ(declare("e", "TavUint64_t", "0", "", "SomeEnum"), 0);
    ASSERT_EQ(log_.int8Params.size(), 1u);
    EXPECT_EQ(log_.int8Params[0].displayFormat, "SF-SFN");
    ASSERT_EQ(log_.uint64Params.size(), 1u);
    EXPECT_EQ(log_.uint64Params[0].displayFormat, "SomeEnum");
}

TEST_F(TokenizerTest, StringWithoutSizeIsFourteenBytes) {
    EXPECT_EQ(declare("s", "string"), 0);
    ASSERT_EQ(log_.stringParams.size(), 1u);
    EXPECT_EQ(log_.stringParams[0].name, "s");
    EXPECT_EQ(log_.stringParams[0].length, 14u);
    EXPECT_EQ(log_.stringParams[0].value, "");
    EXPECT_EQ(log_.stringParams[0].displayFormat, "");
    EXPECT_EQ(log_.stringParams[0].displayValue, "");
    EXPECT_EQ(log_.paramOrder, (Names{"s"}));
}

TEST_F(TokenizerTest, StringWithSize) {
    EXPECT_EQ(declare("s", "string", "0", "32"), 0);
    ASSERT_EQ(log_.stringParams.size(), 1u);
    EXPECT_EQ(log_.stringParams[0].length, 32u);
}

TEST_F(TokenizerTest, StringIgnoresFormatAndCount) {
    EXPECT_EQ(declare("s", "string", "5", "", "hex"), 0);
    ASSERT_EQ(log_.stringParams.size(), 1u);
    EXPECT_EQ(log_.stringParams[0].displayFormat, "");
    EXPECT_EQ(log_.stringParams[0].length, 14u);
}

TEST_F(TokenizerTest, BinaryStringWithoutSizeFailsAndChangesNothing) {
    StderrCapture err;
    EXPECT_EQ(declare("a,b", "binarystring"), -1);
    EXPECT_EQ(err.stop(), "Size cannot be empty for binary string\n");
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_TRUE(log_.paramOrder.empty());
}

TEST_F(TokenizerTest, VarBinaryStringWithoutSizeFailsAndChangesNothing) {
    StderrCapture err;
    EXPECT_EQ(declare("v", "varbinarystring", "0", "", "hex"), -1);
    EXPECT_EQ(err.stop(), "Size cannot be empty for var binary string\n");
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_TRUE(log_.paramOrder.empty());
}

TEST_F(TokenizerTest, FailingDeclarationKeepsEarlierDeclarations) {
    ASSERT_EQ(declare("p", "TavUint8_t"), 0);
    StderrCapture err;
    EXPECT_EQ(declare("q", "binarystring"), -1);
    EXPECT_EQ(err.stop(), "Size cannot be empty for binary string\n");
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"p"}));
    EXPECT_EQ(totalEntries(log_), 1u);
    EXPECT_EQ(log_.paramOrder, (Names{"p"}));
}

TEST_F(TokenizerTest, BinaryStringWithSize) {
    StderrCapture err;
    EXPECT_EQ(declare("b1,b2", "binarystring", "3", "8", "hex"), 0);
    EXPECT_EQ(err.stop(), "");
    ASSERT_EQ(log_.binaryStringParams.size(), 2u);
    for (const auto& p : log_.binaryStringParams) {
        EXPECT_EQ(p.length, 8u);
        EXPECT_EQ(p.displayFormat, "");
        EXPECT_EQ(p.value, "");
        EXPECT_EQ(p.displayValue, "");
    }
    EXPECT_EQ(namesOf(log_.binaryStringParams), (Names{"b1", "b2"}));
    EXPECT_EQ(totalEntries(log_), 2u);
    EXPECT_EQ(log_.paramOrder, (Names{"b1", "b2"}));
}

TEST_F(TokenizerTest, VarBinaryStringWithSize) {
    EXPECT_EQ(declare("v", "varbinarystring", "0", "100"), 0);
    ASSERT_EQ(log_.varBinaryStringParams.size(), 1u);
    EXPECT_EQ(log_.varBinaryStringParams[0].name, "v");
    EXPECT_EQ(log_.varBinaryStringParams[0].length, 100u);
    EXPECT_EQ(log_.varBinaryStringParams[0].displayFormat, "");
    EXPECT_EQ(totalEntries(log_), 1u);
    EXPECT_EQ(log_.paramOrder, (Names{"v"}));
}

TEST_F(TokenizerTest, UnknownTypeOnlyRecordsTheName) {
    StderrCapture err;
    EXPECT_EQ(declare("p", "float"), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_EQ(log_.paramOrder, (Names{"p"}));
}

TEST_F(TokenizerTest, EmptyTypeOnlyRecordsTheNames) {
    EXPECT_EQ(declare("p,q", ""), 0);
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_EQ(log_.paramOrder, (Names{"p", "q"}));
}

TEST_F(TokenizerTest, TypeNamesAreComparedExactly) {
    EXPECT_EQ(declare("a", "tavuint8_t"), 0);
    EXPECT_EQ(declare("b", "TavUint8_t "), 0);
    EXPECT_EQ(declare("c", "String"), 0);
    EXPECT_EQ(declare("d", "TavUint8"), 0);
    EXPECT_EQ(declare("e", "BinaryString"), 0);
    EXPECT_EQ(totalEntries(log_), 0u);
    EXPECT_EQ(log_.paramOrder, (Names{"a", "b", "c", "d", "e"}));
}

TEST_F(TokenizerTest, EachNumericTypeFillsItsOwnList) {
    EXPECT_EQ(declare("u64", "TavUint64_t"), 0);
    EXPECT_EQ(declare("i64", "TavInt64_t"), 0);
    EXPECT_EQ(declare("u32", "TavUint32_t"), 0);
    EXPECT_EQ(declare("i32", "TavInt32_t"), 0);
    EXPECT_EQ(declare("u16", "TavUint16_t"), 0);
    EXPECT_EQ(declare("i16", "TavInt16_t"), 0);
    EXPECT_EQ(declare("u8", "TavUint8_t"), 0);
    EXPECT_EQ(declare("i8", "TavInt8_t"), 0);
    EXPECT_EQ(namesOf(log_.uint64Params), (Names{"u64"}));
    EXPECT_EQ(namesOf(log_.int64Params), (Names{"i64"}));
    EXPECT_EQ(namesOf(log_.uint32Params), (Names{"u32"}));
    EXPECT_EQ(namesOf(log_.int32Params), (Names{"i32"}));
    EXPECT_EQ(namesOf(log_.uint16Params), (Names{"u16"}));
    EXPECT_EQ(namesOf(log_.int16Params), (Names{"i16"}));
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"u8"}));
    EXPECT_EQ(namesOf(log_.int8Params), (Names{"i8"}));
    EXPECT_EQ(totalEntries(log_), 8u);
    EXPECT_EQ(log_.paramOrder, (Names{"u64", "i64", "u32", "i32", "u16", "i16", "u8", "i8"}));
}

TEST_F(TokenizerTest, NumericTypeIgnoresSize) {
    EXPECT_EQ(declare("n", "TavUint32_t", "0", "7"), 0);
    ASSERT_EQ(log_.uint32Params.size(), 1u);
    EXPECT_EQ(log_.uint32Params[0].length, 0u);
}

TEST_F(TokenizerTest, CountIsReadAsDecimal) {
    EXPECT_EQ(declare("a", "TavUint8_t", "abc"), 0);
    EXPECT_EQ(declare("b", "TavUint8_t", " 3"), 0);
    EXPECT_EQ(declare("c", "TavUint8_t", "4x"), 0);
    EXPECT_EQ(declare("d", "TavUint8_t", "010"), 0);
    EXPECT_EQ(declare("e", "TavUint8_t", ""), 0);
    ASSERT_EQ(log_.uint8Params.size(), 5u);
    EXPECT_EQ(log_.uint8Params[0].length, 0u);
    EXPECT_EQ(log_.uint8Params[1].length, 3u);
    EXPECT_EQ(log_.uint8Params[2].length, 4u);
    EXPECT_EQ(log_.uint8Params[3].length, 10u);
    EXPECT_EQ(log_.uint8Params[4].length, 0u);
}

TEST_F(TokenizerTest, NegativeCountWraps) {
    EXPECT_EQ(declare("a", "TavInt16_t", "-1"), 0);
    ASSERT_EQ(log_.int16Params.size(), 1u);
    EXPECT_EQ(log_.int16Params[0].length, 4294967295u);
}

TEST_F(TokenizerTest, NonNumericAndNegativeSize) {
    EXPECT_EQ(declare("a", "string", "0", "abc"), 0);
    EXPECT_EQ(declare("b", "binarystring", "0", "-1"), 0);
    ASSERT_EQ(log_.stringParams.size(), 1u);
    EXPECT_EQ(log_.stringParams[0].length, 0u);
    ASSERT_EQ(log_.binaryStringParams.size(), 1u);
    EXPECT_EQ(log_.binaryStringParams[0].length, 4294967295u);
}

TEST_F(TokenizerTest, DuplicateNamesAreNotDetected) {
    EXPECT_EQ(declare("a,a", "TavUint8_t"), 0);
    EXPECT_EQ(declare("a", "TavUint32_t"), 0);
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"a", "a"}));
    EXPECT_EQ(namesOf(log_.uint32Params), (Names{"a"}));
    EXPECT_EQ(log_.paramOrder, (Names{"a", "a", "a"}));
}

TEST_F(TokenizerTest, AppendsToExistingEntriesAndOrder) {
    log_.uint8Params.push_back({"old", 0, 0, "DefaultDisplay", ""});
    log_.paramOrder.push_back("old");
    EXPECT_EQ(declare("new", "TavUint8_t"), 0);
    EXPECT_EQ(namesOf(log_.uint8Params), (Names{"old", "new"}));
    EXPECT_EQ(log_.paramOrder, (Names{"old", "new"}));
}

TEST_F(TokenizerTest, WorksOnModuleDetailsToo) {
    Tav::ModuleDetails module;
    EXPECT_EQ(reader_->tokenizeAndPushToList("h1,h2", "TavUint16_t", "0", "", "", module,
                                             module.paramOrder),
              0);
    EXPECT_EQ(namesOf(module.uint16Params), (Names{"h1", "h2"}));
    EXPECT_EQ(module.paramOrder, (Names{"h1", "h2"}));
}

TEST_F(TokenizerTest, CallerTextsAreNotChanged) {
    const std::string nameList = "a,b,c";
    const std::string type = "TavUint8_t";
    EXPECT_EQ(declare(nameList, type), 0);
    EXPECT_EQ(nameList, "a,b,c");
    EXPECT_EQ(log_.paramOrder, (Names{"a", "b", "c"}));
}

}  // namespace
