// Tests of the dictionary records: TavLogParam, FlexiParams, ModuleDetails and
// LogDetails. They are plain values: default construction, deep copies, and
// the declaration order kept beside the per-type lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "BinLogDictionary.h"
#include "BinaryLogXmlReader.h"
#include "DictionaryHelpers.h"
#include "TestSupport.h"

namespace {

using wexbl_test::kMinimalBinlog;
using wexbl_test::Names;
using wexbl_test::namesOf;
using wexbl_test::parseXml;
using wexbl_test::TempDir;
using wexbl_test::totalEntries;

// ---- Shape of the types ------------------------------------------------------

static_assert(std::is_base_of<Tav::FlexiParams, Tav::ModuleDetails>::value,
              "ModuleDetails holds its parameters in a FlexiParams");
static_assert(std::is_base_of<Tav::FlexiParams, Tav::LogDetails>::value,
              "LogDetails holds its parameters in a FlexiParams");
static_assert(!std::is_polymorphic<Tav::FlexiParams>::value, "no virtual operations");
static_assert(!std::is_polymorphic<Tav::ModuleDetails>::value, "no virtual operations");
static_assert(!std::is_polymorphic<Tav::LogDetails>::value, "no virtual operations");
static_assert(std::is_copy_constructible<Tav::LogDetails>::value &&
                  std::is_copy_assignable<Tav::LogDetails>::value,
              "records are values");
static_assert(std::is_copy_constructible<Tav::ModuleDetails>::value &&
                  std::is_copy_assignable<Tav::ModuleDetails>::value,
              "records are values");
static_assert(std::is_same<decltype(Tav::TavLogParam<std::uint8_t>::length), std::uint32_t>::value,
              "length is unsigned 32-bit");
static_assert(std::is_same<decltype(Tav::ModuleDetails::headerPadding), std::uint32_t>::value,
              "headerPadding is unsigned 32-bit");
static_assert(std::is_same<decltype(Tav::ModuleDetails::binlogVersion), std::uint16_t>::value,
              "binlogVersion is unsigned 16-bit");
static_assert(std::is_same<decltype(Tav::LogDetails::logIndex), std::uint16_t>::value,
              "logIndex is unsigned 16-bit");
static_assert(std::is_same<decltype(Tav::LogDetails::frameTiming), std::uint32_t>::value,
              "frameTiming is unsigned 32-bit");

std::uintptr_t addressOf(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

TEST(FlexiParamsLayout, ListsAreInPayloadOrder) {
    Tav::FlexiParams f;
    const std::uintptr_t order[] = {
        addressOf(&f.uint64Params),         addressOf(&f.int64Params),
        addressOf(&f.uint32Params),         addressOf(&f.int32Params),
        addressOf(&f.uint16Params),         addressOf(&f.int16Params),
        addressOf(&f.uint8Params),          addressOf(&f.int8Params),
        addressOf(&f.stringParams),         addressOf(&f.binaryStringParams),
        addressOf(&f.varBinaryStringParams)};
    for (std::size_t i = 1; i < sizeof order / sizeof order[0]; ++i) {
        EXPECT_LT(order[i - 1], order[i]) << "list " << i;
    }
}

TEST(XmlNames, ConstantsHoldTheDictionaryNames) {
    EXPECT_EQ(Tav::kElemLoggingSubSystem, "LoggingSubSystem");
    EXPECT_EQ(Tav::kElemModuleHeader, "ModuleHeader");
    EXPECT_EQ(Tav::kElemLogId, "LogId");
    EXPECT_EQ(Tav::kElemEnum, "enum");
    EXPECT_EQ(Tav::kAttrSubsystem, "subsystem");
    EXPECT_EQ(Tav::kAttrSubsystemId, "subsystemId");
    EXPECT_EQ(Tav::kAttrModule, "module");
    EXPECT_EQ(Tav::kAttrModuleId, "moduleid");
    EXPECT_EQ(Tav::kAttrBinlogVersion, "binlogversion");
    EXPECT_EQ(Tav::kAttrName, "name");
    EXPECT_EQ(Tav::kAttrLogString, "logString");
    EXPECT_EQ(Tav::kAttrCategory, "category");
    EXPECT_EQ(Tav::kAttrType, "type");
    EXPECT_EQ(Tav::kAttrNameList, "nameList");
    EXPECT_EQ(Tav::kAttrSize, "size");
    EXPECT_EQ(Tav::kAttrCount, "count");
    EXPECT_EQ(Tav::kAttrDisplayFormat, "displayFormat");
    EXPECT_EQ(Tav::kAttrValue, "value");
    EXPECT_EQ(Tav::kAttrText, "text");
    EXPECT_EQ(Tav::kFormatDefault, "DefaultDisplay");
    EXPECT_EQ(Tav::kFormatHex, "hex");
    EXPECT_EQ(Tav::kFormatSfSfn, "SF-SFN");
    EXPECT_EQ(Tav::kTypeUint64, "TavUint64_t");
    EXPECT_EQ(Tav::kTypeInt64, "TavInt64_t");
    EXPECT_EQ(Tav::kTypeUint32, "TavUint32_t");
    EXPECT_EQ(Tav::kTypeInt32, "TavInt32_t");
    EXPECT_EQ(Tav::kTypeUint16, "TavUint16_t");
    EXPECT_EQ(Tav::kTypeInt16, "TavInt16_t");
    EXPECT_EQ(Tav::kTypeUint8, "TavUint8_t");
    EXPECT_EQ(Tav::kTypeInt8, "TavInt8_t");
    EXPECT_EQ(Tav::kTypeString, "string");
    EXPECT_EQ(Tav::kTypeBinaryString, "binarystring");
    EXPECT_EQ(Tav::kTypeVarBinaryString, "varbinarystring");
}

// ---- Default construction ------------------------------------------------------

TEST(RecordDefaults, TavLogParamStartsEmptyAndZero) {
    Tav::TavLogParam<std::uint32_t> n;
    EXPECT_EQ(n.name, "");
    EXPECT_EQ(n.value, 0u);
    EXPECT_EQ(n.length, 0u);
    EXPECT_EQ(n.displayFormat, "");
    EXPECT_EQ(n.displayValue, "");
    Tav::TavLogParam<std::int64_t> s64;
    EXPECT_EQ(s64.value, 0);
    Tav::TavLogParam<std::string> s;
    EXPECT_EQ(s.value, "");
    EXPECT_EQ(s.length, 0u);
}

TEST(RecordDefaults, ModuleDetailsStartsEmpty) {
    Tav::ModuleDetails m;
    EXPECT_EQ(totalEntries(m), 0u);
    EXPECT_EQ(m.headerPadding, 0u);
    EXPECT_FALSE(m.hasModuleHeader);
    EXPECT_TRUE(m.paramOrder.empty());
    EXPECT_TRUE(m.decodedValues.empty());
    EXPECT_EQ(m.subsystemName, "");
    EXPECT_EQ(m.moduleName, "");
    EXPECT_EQ(m.binlogVersion, 0);
}

TEST(RecordDefaults, LogDetailsStartsEmpty) {
    Tav::LogDetails l;
    EXPECT_EQ(totalEntries(l), 0u);
    EXPECT_EQ(l.frameTiming, 0u);
    EXPECT_EQ(l.logIndex, 0);
    EXPECT_EQ(l.logName, "");
    EXPECT_EQ(l.category, "");
    EXPECT_EQ(l.logString, "");
    EXPECT_TRUE(l.paramOrder.empty());
    EXPECT_TRUE(l.decodedValues.empty());
}

TEST(RecordDefaults, NewMapEntryIsZeroed) {
    std::map<std::uint16_t, Tav::LogDetails> logs;
    EXPECT_EQ(logs[7].frameTiming, 0u);
    EXPECT_EQ(logs[7].logIndex, 0);
    std::map<std::uint16_t, Tav::ModuleDetails> modules;
    EXPECT_EQ(modules[3].headerPadding, 0u);
    EXPECT_EQ(modules[3].binlogVersion, 0);
    EXPECT_FALSE(modules[3].hasModuleHeader);
}

// ---- Value semantics ---------------------------------------------------------------

Tav::LogDetails sampleLog() {
    Tav::LogDetails l;
    l.uint64Params.push_back({"u64", 0, 0, "DefaultDisplay", ""});
    l.int64Params.push_back({"i64", 0, 2, "hex", ""});
    l.uint32Params.push_back({"u32", 0, 0, "SF-SFN", ""});
    l.int32Params.push_back({"i32", 0, 0, "DefaultDisplay", ""});
    l.uint16Params.push_back({"u16", 0, 3, "SomeEnum", ""});
    l.int16Params.push_back({"i16", 0, 0, "DefaultDisplay", ""});
    l.uint8Params.push_back({"u8", 0, 0, "hex", ""});
    l.int8Params.push_back({"i8", 0, 0, "DefaultDisplay", ""});
    l.stringParams.push_back({"s", "", 14, "", ""});
    l.binaryStringParams.push_back({"b", "", 8, "", ""});
    l.varBinaryStringParams.push_back({"v", "", 100, "", ""});
    l.logIndex = 5;
    l.logName = "LOG_NAME";
    l.category = "DIAG";
    l.logString = "value {u8} and {s}";
    l.paramOrder = {"u64", "i64", "u32", "i32", "u16", "i16", "u8", "i8", "s", "b", "v"};
    return l;
}

void expectPristine(const Tav::LogDetails& l) {
    const Tav::LogDetails ref = sampleLog();
    EXPECT_EQ(totalEntries(l), 11u);
    ASSERT_EQ(l.uint8Params.size(), 1u);
    EXPECT_EQ(l.uint8Params[0].name, "u8");
    EXPECT_EQ(l.uint8Params[0].value, 0u);
    EXPECT_EQ(l.uint8Params[0].length, 0u);
    EXPECT_EQ(l.uint8Params[0].displayFormat, "hex");
    EXPECT_EQ(l.uint8Params[0].displayValue, "");
    ASSERT_EQ(l.int64Params.size(), 1u);
    EXPECT_EQ(l.int64Params[0].value, 0);
    EXPECT_EQ(l.int64Params[0].displayValue, "");
    ASSERT_EQ(l.uint16Params.size(), 1u);
    EXPECT_EQ(l.uint16Params[0].displayValue, "");
    ASSERT_EQ(l.stringParams.size(), 1u);
    EXPECT_EQ(l.stringParams[0].value, "");
    EXPECT_EQ(l.stringParams[0].displayValue, "");
    ASSERT_EQ(l.binaryStringParams.size(), 1u);
    EXPECT_EQ(l.binaryStringParams[0].value, "");
    ASSERT_EQ(l.varBinaryStringParams.size(), 1u);
    EXPECT_EQ(l.varBinaryStringParams[0].displayValue, "");
    EXPECT_EQ(l.frameTiming, 0u);
    EXPECT_EQ(l.logIndex, 5);
    EXPECT_EQ(l.logName, ref.logName);
    EXPECT_EQ(l.category, ref.category);
    EXPECT_EQ(l.logString, ref.logString);
    EXPECT_EQ(l.paramOrder, ref.paramOrder);
    EXPECT_TRUE(l.decodedValues.empty());
}

void fillAsDecoder(Tav::LogDetails& l) {
    l.uint8Params[0].value = 0xAB;
    l.uint8Params[0].displayValue = "0xab";
    l.int64Params[0].value = -5;
    l.int64Params[0].displayValue = "-5";
    l.uint16Params[0].displayValue = "ENUM_NAME";
    l.stringParams[0].value = "text";
    l.stringParams[0].displayValue = "text";
    l.binaryStringParams[0].value = "0102";
    l.varBinaryStringParams[0].displayValue = "ff";
    l.decodedValues["u8"] = "0xab";
    l.decodedValues["s"] = "text";
    l.frameTiming = 1234;
    l.uint32Params.push_back({"extra", 9, 0, "DefaultDisplay", "9"});
    l.paramOrder.push_back("extra");
    l.logName = "changed";
}

TEST(RecordValueSemantics, FillingACopiedLogLeavesTheOriginal) {
    const Tav::LogDetails original = sampleLog();
    Tav::LogDetails copy(original);
    fillAsDecoder(copy);
    expectPristine(original);
    EXPECT_EQ(copy.decodedValues.size(), 2u);
    EXPECT_EQ(copy.uint8Params[0].displayValue, "0xab");
}

TEST(RecordValueSemantics, FillingAnAssignedLogLeavesTheOriginal) {
    const Tav::LogDetails original = sampleLog();
    Tav::LogDetails copy;
    copy.logName = "to be replaced";
    copy.decodedValues["stale"] = "x";
    copy = original;
    EXPECT_TRUE(copy.decodedValues.empty());
    EXPECT_EQ(copy.logName, "LOG_NAME");
    fillAsDecoder(copy);
    expectPristine(original);
}

TEST(RecordValueSemantics, CopyKeepsEveryField) {
    Tav::LogDetails original = sampleLog();
    fillAsDecoder(original);
    const Tav::LogDetails copy(original);
    ASSERT_EQ(copy.uint8Params.size(), 1u);
    EXPECT_EQ(copy.uint8Params[0].name, "u8");
    EXPECT_EQ(copy.uint8Params[0].value, 0xAB);
    EXPECT_EQ(copy.uint8Params[0].length, 0u);
    EXPECT_EQ(copy.uint8Params[0].displayFormat, "hex");
    EXPECT_EQ(copy.uint8Params[0].displayValue, "0xab");
    ASSERT_EQ(copy.int64Params.size(), 1u);
    EXPECT_EQ(copy.int64Params[0].value, -5);
    EXPECT_EQ(copy.int64Params[0].length, 2u);
    ASSERT_EQ(copy.uint32Params.size(), 2u);
    EXPECT_EQ(copy.uint32Params[1].name, "extra");
    EXPECT_EQ(copy.uint32Params[1].value, 9u);
    ASSERT_EQ(copy.stringParams.size(), 1u);
    EXPECT_EQ(copy.stringParams[0].value, "text");
    EXPECT_EQ(copy.stringParams[0].length, 14u);
    ASSERT_EQ(copy.varBinaryStringParams.size(), 1u);
    EXPECT_EQ(copy.varBinaryStringParams[0].length, 100u);
    EXPECT_EQ(copy.frameTiming, 1234u);
    EXPECT_EQ(copy.logIndex, 5);
    EXPECT_EQ(copy.logName, "changed");
    EXPECT_EQ(copy.category, "DIAG");
    EXPECT_EQ(copy.logString, "value {u8} and {s}");
    EXPECT_EQ(copy.paramOrder, original.paramOrder);
    EXPECT_EQ(copy.decodedValues, original.decodedValues);
}

TEST(RecordValueSemantics, FillingACopiedModuleLeavesTheOriginal) {
    Tav::ModuleDetails original;
    original.uint16Params.push_back({"cell", 0, 0, "DefaultDisplay", ""});
    original.stringParams.push_back({"tag", "", 14, "", ""});
    original.headerPadding = 2;
    original.hasModuleHeader = true;
    original.paramOrder = {"cell", "tag"};
    original.subsystemName = "sub";
    original.moduleName = "mod";
    original.binlogVersion = 3;

    Tav::ModuleDetails copy(original);
    copy.uint16Params[0].value = 77;
    copy.uint16Params[0].displayValue = "77";
    copy.stringParams[0].value = "abc";
    copy.stringParams[0].displayValue = "abc";
    copy.decodedValues["cell"] = "77";
    copy.decodedValues["tag"] = "abc";
    copy.int8Params.push_back({"x", 1, 0, "DefaultDisplay", "1"});
    copy.paramOrder.push_back("x");

    EXPECT_EQ(totalEntries(original), 2u);
    EXPECT_EQ(original.uint16Params[0].value, 0);
    EXPECT_EQ(original.uint16Params[0].displayValue, "");
    EXPECT_EQ(original.stringParams[0].value, "");
    EXPECT_EQ(original.stringParams[0].displayValue, "");
    EXPECT_TRUE(original.decodedValues.empty());
    EXPECT_EQ(original.paramOrder, (Names{"cell", "tag"}));
    EXPECT_EQ(copy.headerPadding, 2u);
    EXPECT_TRUE(copy.hasModuleHeader);
    EXPECT_EQ(copy.subsystemName, "sub");
    EXPECT_EQ(copy.moduleName, "mod");
    EXPECT_EQ(copy.binlogVersion, 3);

    Tav::ModuleDetails assigned;
    assigned = original;
    assigned.decodedValues["cell"] = "1";
    assigned.uint16Params[0].displayValue = "1";
    EXPECT_TRUE(original.decodedValues.empty());
    EXPECT_EQ(original.uint16Params[0].displayValue, "");
    EXPECT_EQ(assigned.paramOrder, (Names{"cell", "tag"}));
    EXPECT_TRUE(assigned.hasModuleHeader);
}

TEST(RecordValueSemantics, FlexiParamsAssignmentCopiesEveryList) {
    const Tav::LogDetails source = sampleLog();
    Tav::FlexiParams lists;
    lists = source;
    EXPECT_EQ(totalEntries(lists), 11u);
    EXPECT_EQ(namesOf(lists.uint64Params), (Names{"u64"}));
    EXPECT_EQ(namesOf(lists.varBinaryStringParams), (Names{"v"}));
    lists.uint64Params[0].displayValue = "1";
    EXPECT_EQ(source.uint64Params[0].displayValue, "");
}

// ---- Records built from declarations ---------------------------------------------

class RecordsFromDeclarations : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("a_binlog.xml", kMinimalBinlog);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        reader_->nextLogIndex = 1;
    }

    // Parses one LogId element (given as its children) and returns its record.
    Tav::LogDetails parseLog(const std::string& declarations) {
        const std::string xml =
            "<LogId name=\"L\" logString=\"text\" category=\"C\">" + declarations + "</LogId>";
        auto doc = parseXml(xml);
        EXPECT_NE(doc, nullptr);
        if (!doc) {
            return {};
        }
        xmlNode* node = xmlDocGetRootElement(doc.get());
        std::map<std::uint16_t, Tav::LogDetails> logs;
        const std::uint16_t key = 0;
        EXPECT_EQ(reader_->parseLogIdNode(node, key, logs), 0);
        EXPECT_EQ(logs.size(), 1u);
        return logs.empty() ? Tav::LogDetails{} : logs.begin()->second;
    }

    TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

TEST_F(RecordsFromDeclarations, ListsKeepDeclarationOrderAndParamOrderIsOverall) {
    const Tav::LogDetails log = parseLog(
        "<p type=\"TavUint8_t\" nameList=\"p1\"/>"
        "<p type=\"TavUint32_t\" nameList=\"p2,p3\"/>"
        "<p type=\"TavUint8_t\" nameList=\"p4\"/>");
    EXPECT_EQ(namesOf(log.uint8Params), (Names{"p1", "p4"}));
    EXPECT_EQ(namesOf(log.uint32Params), (Names{"p2", "p3"}));
    EXPECT_EQ(totalEntries(log), 4u);
    EXPECT_EQ(log.paramOrder, (Names{"p1", "p2", "p3", "p4"}));
}

TEST_F(RecordsFromDeclarations, CountAbsentIsScalarAndCountThreeIsArray) {
    const Tav::LogDetails log = parseLog(
        "<p type=\"TavInt16_t\" nameList=\"scalar\"/>"
        "<p type=\"TavInt16_t\" nameList=\"array\" count=\"3\"/>");
    ASSERT_EQ(log.int16Params.size(), 2u);
    EXPECT_EQ(log.int16Params[0].name, "scalar");
    EXPECT_EQ(log.int16Params[0].length, 0u);
    EXPECT_EQ(log.int16Params[1].name, "array");
    EXPECT_EQ(log.int16Params[1].length, 3u);
}

TEST_F(RecordsFromDeclarations, DisplayFormatDefaultsAndStringIgnoresIt) {
    const Tav::LogDetails log = parseLog(
        "<p type=\"TavUint32_t\" nameList=\"n\"/>"
        "<p type=\"TavUint32_t\" nameList=\"e\" displayFormat=\"\"/>"
        "<p type=\"string\" nameList=\"s\" displayFormat=\"hex\"/>");
    ASSERT_EQ(log.uint32Params.size(), 2u);
    EXPECT_EQ(log.uint32Params[0].displayFormat, "DefaultDisplay");
    EXPECT_EQ(log.uint32Params[1].displayFormat, "DefaultDisplay");
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].displayFormat, "");
}

TEST_F(RecordsFromDeclarations, StringWithoutSizeIsFourteen) {
    const Tav::LogDetails log = parseLog("<p type=\"string\" nameList=\"s\"/>");
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].length, 14u);
    EXPECT_EQ(log.stringParams[0].value, "");
}

TEST_F(RecordsFromDeclarations, UnknownTypeOnlyEntersParamOrder) {
    const Tav::LogDetails log = parseLog("<p type=\"float\" nameList=\"x\"/>");
    EXPECT_EQ(totalEntries(log), 0u);
    EXPECT_EQ(log.paramOrder, (Names{"x"}));
}

TEST_F(RecordsFromDeclarations, DictionaryRecordsHaveNoDecodedState) {
    const Tav::LogDetails log = parseLog(
        "<p type=\"TavUint8_t\" nameList=\"a\"/>"
        "<p type=\"string\" nameList=\"s\" size=\"4\"/>");
    EXPECT_TRUE(log.decodedValues.empty());
    ASSERT_EQ(log.uint8Params.size(), 1u);
    EXPECT_EQ(log.uint8Params[0].value, 0u);
    EXPECT_EQ(log.uint8Params[0].displayValue, "");
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].displayValue, "");
    EXPECT_EQ(log.frameTiming, 0u);
}

TEST_F(RecordsFromDeclarations, CopyOfALoadedDictionaryEntryIsIndependent) {
    TempDir dir;
    dir.writeFile("m_binlog.xml",
                  "<r><LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                  "moduleid=\"3\" binlogversion=\"1\"/>"
                  "<ModuleHeader><h type=\"TavUint16_t\" nameList=\"cell\"/></ModuleHeader>"
                  "<LogId name=\"L\" logString=\"v={v}\" category=\"C\">"
                  "<p type=\"TavUint32_t\" nameList=\"v\"/></LogId></r>");
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());
    ASSERT_EQ(reader.logDetailsMap.count(0x0103), 1u);
    ASSERT_EQ(reader.logDetailsMap[0x0103].count(1), 1u);
    ASSERT_EQ(reader.moduleDetailsMap.count(0x0103), 1u);

    Tav::LogDetails log = reader.logDetailsMap[0x0103][1];
    Tav::ModuleDetails module = reader.moduleDetailsMap[0x0103];
    ASSERT_EQ(log.uint32Params.size(), 1u);
    ASSERT_EQ(module.uint16Params.size(), 1u);
    log.uint32Params[0].value = 42;
    log.uint32Params[0].displayValue = "42";
    log.decodedValues["v"] = "42";
    module.uint16Params[0].displayValue = "7";
    module.decodedValues["cell"] = "7";

    const Tav::LogDetails& stored = reader.logDetailsMap[0x0103][1];
    EXPECT_TRUE(stored.decodedValues.empty());
    EXPECT_EQ(stored.uint32Params[0].value, 0u);
    EXPECT_EQ(stored.uint32Params[0].displayValue, "");
    const Tav::ModuleDetails& storedModule = reader.moduleDetailsMap[0x0103];
    EXPECT_TRUE(storedModule.decodedValues.empty());
    EXPECT_EQ(storedModule.uint16Params[0].displayValue, "");
    EXPECT_TRUE(storedModule.hasModuleHeader);
    EXPECT_EQ(storedModule.headerPadding, 2u);
}

}  // namespace
