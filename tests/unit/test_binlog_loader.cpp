// Tests of the binlog loader: parseBinLogXml and the five node parsers it
// calls, driven directly on XML documents, and the message chains they print.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
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
using wexbl_test::parseXml;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;
using wexbl_test::totalEntries;
using wexbl_test::XmlDocPtr;

std::string subsystem(const std::string& sub, const std::string& subId, const std::string& mod,
                      const std::string& modId, const std::string& version) {
    return "<LoggingSubSystem subsystem=\"" + sub + "\" subsystemId=\"" + subId + "\" module=\"" +
           mod + "\" moduleid=\"" + modId + "\" binlogversion=\"" + version + "\"/>";
}

class BinlogLoaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("a_binlog.xml", kMinimalBinlog);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
        reader_->nextLogIndex = 1;
    }

    // Parses `xml` and keeps the document alive for the rest of the test.
    xmlNode* root(const std::string& xml) {
        docs_.push_back(parseXml(xml));
        EXPECT_NE(docs_.back(), nullptr) << xml;
        return docs_.back() ? xmlDocGetRootElement(docs_.back().get()) : nullptr;
    }

    int parse(const std::string& xml) {
        xmlNode* node = root(xml);
        if (node == nullptr) {
            return -2;
        }
        return reader_->parseBinLogXml(node, key_, module_, logs_);
    }

    // Parses `xml` with standard error captured; returns the result and fills err_.
    int parseCapturing(const std::string& xml) {
        StderrCapture capture;
        const int result = parse(xml);
        err_ = capture.stop();
        return result;
    }

    TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
    std::vector<XmlDocPtr> docs_;
    std::uint16_t key_ = 0;
    Tav::ModuleDetails module_;
    std::map<std::uint16_t, Tav::LogDetails> logs_;
    std::string err_;
};

// ---- parseBinLogXml: the walk ------------------------------------------------------

TEST_F(BinlogLoaderTest, NullNodeIsSuccess) {
    EXPECT_EQ(reader_->parseBinLogXml(nullptr, key_, module_, logs_), 0);
    EXPECT_EQ(key_, 0);
    EXPECT_TRUE(logs_.empty());
}

TEST_F(BinlogLoaderTest, FileWithoutLoggingSubSystemKeepsKeyZero) {
    EXPECT_EQ(parseCapturing("<r><LogId name=\"n\" logString=\"s\" category=\"c\"/></r>"), 0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0);
    EXPECT_EQ(module_.subsystemName, "");
    EXPECT_EQ(module_.moduleName, "");
    EXPECT_EQ(module_.binlogVersion, 0);
    EXPECT_FALSE(module_.hasModuleHeader);
    EXPECT_EQ(logs_.size(), 1u);
}

TEST_F(BinlogLoaderTest, EmptyDocumentElementParses) {
    EXPECT_EQ(parseCapturing("<dictionary/>"), 0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0);
    EXPECT_TRUE(logs_.empty());
    EXPECT_EQ(totalEntries(module_), 0u);
}

TEST_F(BinlogLoaderTest, LoggingSubSystemFillsModule) {
    EXPECT_EQ(parseCapturing("<r>" + subsystem("CORE", "1", "SCHED", "2", "3") + "</r>"), 0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0x0102);
    EXPECT_EQ(module_.subsystemName, "CORE");
    EXPECT_EQ(module_.moduleName, "SCHED");
    EXPECT_EQ(module_.binlogVersion, 3);
    EXPECT_FALSE(module_.hasModuleHeader);
}

TEST_F(BinlogLoaderTest, LoggingSubSystemAsRootElement) {
    EXPECT_EQ(parse(subsystem("a", "4", "b", "5", "6")), 0);
    EXPECT_EQ(key_, 0x0405);
}

TEST_F(BinlogLoaderTest, ModuleKeyOneTwo) {
    EXPECT_EQ(parse(subsystem("s", "1", "m", "2", "1")), 0);
    EXPECT_EQ(key_, 0x0102);
}

TEST_F(BinlogLoaderTest, ModuleIdBitsOverlapSubsystemBits) {
    EXPECT_EQ(parse(subsystem("s", "1", "m", "300", "1")), 0);
    EXPECT_EQ(key_, 0x012C);
}

TEST_F(BinlogLoaderTest, SubsystemIdHighBitsAreLost) {
    EXPECT_EQ(parse(subsystem("s", "256", "m", "0", "1")), 0);
    EXPECT_EQ(key_, 0);
}

TEST_F(BinlogLoaderTest, SubsystemIdAboveByteKeepsLowByte) {
    // ((257 & 0xFFFF) << 8) | 1 = 0x10101, narrowed to 0x0101.
    EXPECT_EQ(parse(subsystem("s", "257", "m", "1", "1")), 0);
    EXPECT_EQ(key_, 0x0101);
}

TEST_F(BinlogLoaderTest, NegativeModuleIdFillsTheKey) {
    EXPECT_EQ(parse(subsystem("s", "1", "m", "-1", "1")), 0);
    EXPECT_EQ(key_, 0xFFFF);
}

TEST_F(BinlogLoaderTest, VersionSeventyThousandIsNarrowed) {
    EXPECT_EQ(parse(subsystem("s", "1", "m", "2", "70000")), 0);
    EXPECT_EQ(module_.binlogVersion, 4464);
}

TEST_F(BinlogLoaderTest, SecondLoggingSubSystemOverrides) {
    EXPECT_EQ(parse("<r>" + subsystem("s1", "1", "m1", "2", "3") + "<x>" +
                    subsystem("s2", "4", "m2", "5", "6") + "</x></r>"),
              0);
    EXPECT_EQ(key_, 0x0405);
    EXPECT_EQ(module_.subsystemName, "s2");
    EXPECT_EQ(module_.moduleName, "m2");
    EXPECT_EQ(module_.binlogVersion, 6);
}

TEST_F(BinlogLoaderTest, EarlierSubsystemNameSatisfiesALaterElement) {
    // The names go straight into the module, so the second element, lacking
    // "subsystem" and "module", passes the emptiness test.
    EXPECT_EQ(parseCapturing("<r>" + subsystem("s1", "1", "m1", "2", "3") +
                             "<LoggingSubSystem subsystemId=\"7\" moduleid=\"8\" "
                             "binlogversion=\"9\"/></r>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0x0708);
    EXPECT_EQ(module_.subsystemName, "s1");
    EXPECT_EQ(module_.moduleName, "m1");
    EXPECT_EQ(module_.binlogVersion, 9);
}

TEST_F(BinlogLoaderTest, ExtraAttributesAreIgnored) {
    EXPECT_EQ(parseCapturing("<LoggingSubSystem extra=\"x\" subsystem=\"s\" subsystemId=\"1\" "
                             "module=\"m\" moduleid=\"2\" binlogversion=\"1\" other=\"y\"/>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0x0102);
}

TEST_F(BinlogLoaderTest, ThreeLogIdsNumberedInDocumentOrder) {
    EXPECT_EQ(parse("<r>"
                    "<LogId name=\"first\" logString=\"1\" category=\"c\"/>"
                    "<group><inner><LogId name=\"second\" logString=\"2\" category=\"c\"/>"
                    "</inner></group>"
                    "<LogId name=\"third\" logString=\"3\" category=\"c\"/>"
                    "</r>"),
              0);
    ASSERT_EQ(logs_.size(), 3u);
    EXPECT_EQ(logs_[1].logName, "first");
    EXPECT_EQ(logs_[1].logIndex, 1);
    EXPECT_EQ(logs_[2].logName, "second");
    EXPECT_EQ(logs_[2].logIndex, 2);
    EXPECT_EQ(logs_[3].logName, "third");
    EXPECT_EQ(logs_[3].logIndex, 3);
    EXPECT_EQ(reader_->nextLogIndex, 4);
}

TEST_F(BinlogLoaderTest, WalkCoversFollowingSiblings) {
    xmlNode* node = root(
        "<r><LogId name=\"a\" logString=\"1\" category=\"c\"/>"
        "<LogId name=\"b\" logString=\"2\" category=\"c\"/></r>");
    ASSERT_NE(node, nullptr);
    ASSERT_NE(node->children, nullptr);
    EXPECT_EQ(reader_->parseBinLogXml(node->children, key_, module_, logs_), 0);
    ASSERT_EQ(logs_.size(), 2u);
    EXPECT_EQ(logs_[1].logName, "a");
    EXPECT_EQ(logs_[2].logName, "b");
}

TEST_F(BinlogLoaderTest, ElementNamesAreCaseSensitive) {
    EXPECT_EQ(parseCapturing("<r><logid name=\"n\" logString=\"s\" category=\"c\"/>"
                             "<LOGID/><loggingsubsystem/><moduleheader>"
                             "<p type=\"TavUint8_t\" nameList=\"a\"/></moduleheader></r>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(logs_.empty());
    EXPECT_EQ(key_, 0);
    EXPECT_FALSE(module_.hasModuleHeader);
    EXPECT_EQ(totalEntries(module_), 0u);
}

TEST_F(BinlogLoaderTest, CommentsAndTextAreWalkedOver) {
    EXPECT_EQ(parseCapturing("<r>\n  <!-- comment -->\n  text\n  <![CDATA[<LogId/>]]>"
                             "<?pi data?>\n" +
                             subsystem("s", "1", "m", "2", "1") + "</r>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(key_, 0x0102);
    EXPECT_TRUE(logs_.empty());
}

TEST_F(BinlogLoaderTest, EntityReferencesAreNotEntered) {
    const std::string xml =
        "<!DOCTYPE r [<!ENTITY e \"<LogId name='n' logString='s' category='c'/>\">]>"
        "<r>&e;</r>";
    xmlNode* node = root(xml);
    ASSERT_NE(node, nullptr);
    // The reference node exists and leads to the entity's content.
    ASSERT_NE(node->children, nullptr);
    ASSERT_EQ(node->children->type, XML_ENTITY_REF_NODE);
    ASSERT_NE(node->children->children, nullptr);
    StderrCapture capture;
    EXPECT_EQ(reader_->parseBinLogXml(node, key_, module_, logs_), 0);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_TRUE(logs_.empty());
    EXPECT_EQ(reader_->nextLogIndex, 1);
}

// ---- LogId --------------------------------------------------------------------------

TEST_F(BinlogLoaderTest, LogIdFieldsAreStored) {
    EXPECT_EQ(parse("<LogId name=\"SCHED_START\" logString=\"cell {c} started\" "
                    "category=\"DIAG\"/>"),
              0);
    ASSERT_EQ(logs_.count(1), 1u);
    const Tav::LogDetails& log = logs_[1];
    EXPECT_EQ(log.logName, "SCHED_START");
    EXPECT_EQ(log.logString, "cell {c} started");
    EXPECT_EQ(log.category, "DIAG");
    EXPECT_EQ(log.logIndex, 1);
    EXPECT_EQ(log.frameTiming, 0u);
    EXPECT_TRUE(log.paramOrder.empty());
    EXPECT_TRUE(log.decodedValues.empty());
    EXPECT_EQ(totalEntries(log), 0u);
}

TEST_F(BinlogLoaderTest, CategoryIsCutAtFirstComma) {
    EXPECT_EQ(parse("<r><LogId name=\"a\" logString=\"s\" category=\"DIAG,extra\"/>"
                    "<LogId name=\"b\" logString=\"s\" category=\"A,B,C\"/></r>"),
              0);
    EXPECT_EQ(logs_[1].category, "DIAG");
    EXPECT_EQ(logs_[2].category, "A");
}

TEST_F(BinlogLoaderTest, CategoryStartingWithCommaIsAcceptedAndEmpty) {
    EXPECT_EQ(parseCapturing("<r><LogId name=\"a\" logString=\"s\" category=\",x\"/>"
                             "<LogId name=\"b\" logString=\"s\" category=\",\"/></r>"),
              0);
    EXPECT_EQ(err_, "");
    ASSERT_EQ(logs_.size(), 2u);
    EXPECT_EQ(logs_[1].category, "");
    EXPECT_EQ(logs_[2].category, "");
}

TEST_F(BinlogLoaderTest, LogIdWithoutAttributesFails) {
    EXPECT_EQ(parseCapturing("<LogId/>"), -1);
    EXPECT_EQ(err_, "No attributes found on LogId node\nError in parseLogId");
    EXPECT_TRUE(logs_.empty());
    EXPECT_EQ(reader_->nextLogIndex, 1);
}

TEST_F(BinlogLoaderTest, LogIdWithOnlyOtherAttributesFails) {
    EXPECT_EQ(parseCapturing("<LogId other=\"x\"/>"), -1);
    EXPECT_EQ(err_, "Mandatory params in the LogId node missing\nError in parseLogId");
}

TEST_F(BinlogLoaderTest, LogIdWithEmptyNameFails) {
    EXPECT_EQ(parseCapturing("<LogId name=\"\" logString=\"s\" category=\"c\"/>"), -1);
    EXPECT_EQ(err_, "Mandatory params in the LogId node missing\nError in parseLogId");
    EXPECT_TRUE(logs_.empty());
}

TEST_F(BinlogLoaderTest, LogIdWithoutLogStringFails) {
    EXPECT_EQ(parseCapturing("<LogId name=\"n\" category=\"c\"/>"), -1);
    EXPECT_EQ(err_, "Mandatory params in the LogId node missing\nError in parseLogId");
}

TEST_F(BinlogLoaderTest, LogIdAtDepthTwoWithoutCategoryPrintsTheChain) {
    EXPECT_EQ(parseCapturing("<r><a><LogId name=\"n\" logString=\"s\"/></a></r>"), -1);
    EXPECT_EQ(err_,
              "Mandatory params in the LogId node missing\n"
              "Error in parseLogIdError in parseBinLogXmlError in parseBinLogXml");
    EXPECT_TRUE(logs_.empty());
    EXPECT_EQ(reader_->nextLogIndex, 1);
}

TEST_F(BinlogLoaderTest, FailureStopsTheWalkAndKeepsEarlierLogs) {
    EXPECT_EQ(parseCapturing("<r><LogId name=\"ok\" logString=\"s\" category=\"c\"/>"
                             "<LogId name=\"bad\" logString=\"s\"/>"
                             "<LogId name=\"later\" logString=\"s\" category=\"c\"/></r>"),
              -1);
    EXPECT_EQ(err_,
              "Mandatory params in the LogId node missing\n"
              "Error in parseLogIdError in parseBinLogXml");
    ASSERT_EQ(logs_.size(), 1u);
    EXPECT_EQ(logs_[1].logName, "ok");
    EXPECT_EQ(reader_->nextLogIndex, 2);
}

TEST_F(BinlogLoaderTest, LogIdOverwritesAnExistingEntry) {
    Tav::LogDetails old;
    old.logName = "old";
    old.paramOrder = {"zz"};
    old.decodedValues["zz"] = "1";
    old.uint8Params.push_back({"zz", 0, 0, "DefaultDisplay", ""});
    old.frameTiming = 99;
    logs_[1] = old;
    EXPECT_EQ(parse("<LogId name=\"new\" logString=\"s\" category=\"c\">"
                    "<p type=\"TavUint16_t\" nameList=\"v\"/></LogId>"),
              0);
    ASSERT_EQ(logs_.size(), 1u);
    const Tav::LogDetails& log = logs_[1];
    EXPECT_EQ(log.logName, "new");
    EXPECT_EQ(log.paramOrder, (Names{"v"}));
    EXPECT_TRUE(log.decodedValues.empty());
    EXPECT_TRUE(log.uint8Params.empty());
    EXPECT_EQ(namesOf(log.uint16Params), (Names{"v"}));
    EXPECT_EQ(log.frameTiming, 0u);
}

TEST_F(BinlogLoaderTest, LogIndexWrapsAtSixteenBits) {
    reader_->nextLogIndex = 65535;
    EXPECT_EQ(parse("<LogId name=\"n\" logString=\"s\" category=\"c\"/>"), 0);
    ASSERT_EQ(logs_.count(65535), 1u);
    EXPECT_EQ(logs_[65535].logIndex, 65535);
    EXPECT_EQ(reader_->nextLogIndex, 0);
}

TEST_F(BinlogLoaderTest, LogIdParametersInDeclarationOrder) {
    EXPECT_EQ(parse("<LogId name=\"n\" logString=\"s\" category=\"c\">\n"
                    "  <!-- parameters -->\n"
                    "  <param type=\"TavUint8_t\" nameList=\"p1\"/>\n"
                    "  <anything type=\"TavUint32_t\" nameList=\"p2,p3\" count=\"2\" "
                    "displayFormat=\"hex\"/>\n"
                    "  <empty/>\n"
                    "  <param type=\"string\" nameList=\"s\" size=\"20\"/>\n"
                    "</LogId>"),
              0);
    const Tav::LogDetails& log = logs_[1];
    EXPECT_EQ(namesOf(log.uint8Params), (Names{"p1"}));
    ASSERT_EQ(log.uint32Params.size(), 2u);
    EXPECT_EQ(log.uint32Params[0].length, 2u);
    EXPECT_EQ(log.uint32Params[0].displayFormat, "hex");
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].length, 20u);
    EXPECT_EQ(log.paramOrder, (Names{"p1", "p2", "p3", "s"}));
}

TEST_F(BinlogLoaderTest, DeclarationWithoutNameListDeclaresNothing) {
    EXPECT_EQ(parseCapturing("<r><LogId name=\"n\" logString=\"s\" category=\"c\">"
                             "<p type=\"TavUint8_t\" count=\"2\"/></LogId>"
                             "<ModuleHeader><h type=\"string\" size=\"3\"/></ModuleHeader></r>"),
              0);
    EXPECT_EQ(err_, "");
    ASSERT_EQ(logs_.count(1), 1u);
    EXPECT_EQ(totalEntries(logs_[1]), 0u);
    EXPECT_TRUE(logs_[1].paramOrder.empty());
    EXPECT_EQ(totalEntries(module_), 0u);
    EXPECT_TRUE(module_.paramOrder.empty());
    EXPECT_TRUE(module_.hasModuleHeader);
    EXPECT_EQ(module_.headerPadding, 0u);
}

TEST_F(BinlogLoaderTest, BinaryStringWithoutSizeDoesNotFailTheFile) {
    EXPECT_EQ(parseCapturing("<r>" + subsystem("s", "1", "m", "2", "1") +
                             "<LogId name=\"n\" logString=\"s\" category=\"c\">"
                             "<p type=\"TavUint8_t\" nameList=\"a\"/>"
                             "<p type=\"binarystring\" nameList=\"b\"/>"
                             "<p type=\"TavUint8_t\" nameList=\"c\"/>"
                             "</LogId>"
                             "<LogId name=\"next\" logString=\"s\" category=\"c\"/></r>"),
              0);
    EXPECT_EQ(err_, "Size cannot be empty for binary string\n");
    ASSERT_EQ(logs_.size(), 2u);
    EXPECT_EQ(namesOf(logs_[1].uint8Params), (Names{"a", "c"}));
    EXPECT_TRUE(logs_[1].binaryStringParams.empty());
    EXPECT_EQ(logs_[1].paramOrder, (Names{"a", "c"}));
    EXPECT_EQ(logs_[2].logName, "next");
    EXPECT_EQ(key_, 0x0102);
}

TEST_F(BinlogLoaderTest, VarBinaryStringWithoutSizeInModuleHeaderDoesNotFail) {
    EXPECT_EQ(parseCapturing("<ModuleHeader>"
                             "<h type=\"varbinarystring\" nameList=\"v\"/>"
                             "<h type=\"TavUint8_t\" nameList=\"u\"/>"
                             "</ModuleHeader>"),
              0);
    EXPECT_EQ(err_, "Size cannot be empty for var binary string\n");
    EXPECT_TRUE(module_.varBinaryStringParams.empty());
    EXPECT_EQ(namesOf(module_.uint8Params), (Names{"u"}));
    EXPECT_EQ(module_.paramOrder, (Names{"u"}));
    EXPECT_TRUE(module_.hasModuleHeader);
    EXPECT_EQ(module_.headerPadding, 3u);
}

TEST_F(BinlogLoaderTest, LogIdInsideLogIdIsHandledTwice) {
    // The inner element is a declaration of the outer log (it declares "a")
    // and, found again by the walk, a log of its own.
    EXPECT_EQ(parse("<LogId name=\"outer\" logString=\"s\" category=\"c\">"
                    "<LogId name=\"inner\" logString=\"t\" category=\"d\" type=\"TavUint8_t\" "
                    "nameList=\"a\"/></LogId>"),
              0);
    ASSERT_EQ(logs_.size(), 2u);
    EXPECT_EQ(logs_[1].logName, "outer");
    EXPECT_EQ(namesOf(logs_[1].uint8Params), (Names{"a"}));
    EXPECT_EQ(logs_[1].paramOrder, (Names{"a"}));
    EXPECT_EQ(logs_[2].logName, "inner");
    EXPECT_EQ(logs_[2].logIndex, 2);
    EXPECT_EQ(totalEntries(logs_[2]), 0u);
}

// ---- LoggingSubSystem failures ---------------------------------------------------

TEST_F(BinlogLoaderTest, LoggingSubSystemMissingVersionFails) {
    EXPECT_EQ(parseCapturing("<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                             "moduleid=\"2\"/>"),
              -1);
    EXPECT_EQ(err_, "Mandatory params empty\nError in parseLoggingSubsystem");
}

TEST_F(BinlogLoaderTest, LoggingSubSystemWithEmptyModuleFailsAtDepthOne) {
    EXPECT_EQ(parseCapturing("<r>" + subsystem("s", "1", "", "2", "1") + "</r>"), -1);
    EXPECT_EQ(err_,
              "Mandatory params empty\nError in parseLoggingSubsystemError in parseBinLogXml");
}

TEST_F(BinlogLoaderTest, LoggingSubSystemAttributeNamesAreCaseSensitive) {
    EXPECT_EQ(parseCapturing("<LoggingSubSystem subsystem=\"s\" subsystemid=\"1\" module=\"m\" "
                             "moduleid=\"2\" binlogversion=\"1\"/>"),
              -1);
    EXPECT_EQ(err_, "Mandatory params empty\nError in parseLoggingSubsystem");
    EXPECT_EQ(parseCapturing("<LoggingSubSystem subsystem=\"s\" subsystemId=\"1\" module=\"m\" "
                             "moduleId=\"2\" binlogversion=\"1\"/>"),
              -1);
    EXPECT_EQ(err_, "Mandatory params empty\nError in parseLoggingSubsystem");
}

TEST_F(BinlogLoaderTest, LoggingSubSystemWithoutAttributesFails) {
    EXPECT_EQ(parseCapturing("<LoggingSubSystem/>"), -1);
    EXPECT_EQ(err_, "Mandatory params empty\nError in parseLoggingSubsystem");
}

TEST_F(BinlogLoaderTest, ParseLoggingSubsystemNodeDirectly) {
    xmlNode* node = root(subsystem("sub", "2", "mod", "3", "70000"));
    ASSERT_NE(node, nullptr);
    std::uint16_t key = 0;
    std::string subName;
    std::string modName;
    std::uint16_t version = 0;
    StderrCapture capture;
    EXPECT_EQ(reader_->parseLoggingSubsystemNode(node, key, subName, modName, version), 0);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_EQ(key, 0x0203);
    EXPECT_EQ(subName, "sub");
    EXPECT_EQ(modName, "mod");
    EXPECT_EQ(version, 4464);
}

TEST_F(BinlogLoaderTest, ParseLoggingSubsystemNodeFailureHasOneMessage) {
    xmlNode* node = root("<LoggingSubSystem subsystem=\"sub\" subsystemId=\"2\"/>");
    ASSERT_NE(node, nullptr);
    std::uint16_t key = 0;
    std::string subName;
    std::string modName;
    std::uint16_t version = 0;
    StderrCapture capture;
    EXPECT_EQ(reader_->parseLoggingSubsystemNode(node, key, subName, modName, version), -1);
    EXPECT_EQ(capture.stop(), "Mandatory params empty\n");
    // The name was written before the emptiness test.
    EXPECT_EQ(subName, "sub");
}

// ---- ModuleHeader and headerPadding ---------------------------------------------------

TEST_F(BinlogLoaderTest, HeaderPaddingEightAndSixteenBitScalars) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"TavUint8_t\" nameList=\"a\"/>"
                    "<h type=\"TavUint16_t\" nameList=\"b\"/></ModuleHeader>"),
              0);
    EXPECT_TRUE(module_.hasModuleHeader);
    EXPECT_EQ(module_.headerPadding, 1u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingWithSixtyFourBitScalar) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"TavUint8_t\" nameList=\"a\"/>"
                    "<h type=\"TavUint16_t\" nameList=\"b\"/>"
                    "<h type=\"TavUint64_t\" nameList=\"c\"/></ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 5u);
    EXPECT_EQ(module_.paramOrder, (Names{"a", "b", "c"}));
}

TEST_F(BinlogLoaderTest, HeaderPaddingStringOfFourteen) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"string\" nameList=\"s\" size=\"14\"/>"
                    "</ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 2u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingDefaultStringSize) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"string\" nameList=\"s\"/></ModuleHeader>"), 0);
    EXPECT_EQ(module_.headerPadding, 2u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingVarBinaryStringAlone) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"varbinarystring\" nameList=\"v\" size=\"5\"/>"
                    "</ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 0u);
    EXPECT_EQ(module_.varBinaryStringParams.size(), 1u);
    EXPECT_TRUE(module_.hasModuleHeader);
}

TEST_F(BinlogLoaderTest, HeaderWithoutChildren) {
    EXPECT_EQ(parseCapturing("<r><ModuleHeader/></r>"), 0);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(module_.hasModuleHeader);
    EXPECT_EQ(module_.headerPadding, 0u);
    EXPECT_TRUE(module_.paramOrder.empty());
}

TEST_F(BinlogLoaderTest, HeaderPaddingThirtyTwoBitsOnlyCountWithSixtyFourBits) {
    EXPECT_EQ(parse("<ModuleHeader><h type=\"TavInt32_t\" nameList=\"a\"/></ModuleHeader>"), 0);
    EXPECT_EQ(module_.headerPadding, 0u);
    Tav::ModuleDetails wide;
    std::uint16_t key = 0;
    xmlNode* node = root(
        "<ModuleHeader><h type=\"TavInt32_t\" nameList=\"a\"/>"
        "<h type=\"TavInt64_t\" nameList=\"b\"/></ModuleHeader>");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(reader_->parseModuleHeaderNode(node, key, wide), 0);
    EXPECT_EQ(wide.headerPadding, 4u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingCountsArrayElements) {
    // Three 16-bit elements and three 8-bit elements: 6 + 3 = 9, padding 3.
    EXPECT_EQ(parse("<ModuleHeader><h type=\"TavInt16_t\" nameList=\"a\" count=\"3\"/>"
                    "<h type=\"TavInt8_t\" nameList=\"b\" count=\"3\"/></ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 3u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingStringsAndBinaryStringsAdd) {
    // 14 + 5 = 19, padding 1.
    EXPECT_EQ(parse("<ModuleHeader><h type=\"string\" nameList=\"s\"/>"
                    "<h type=\"binarystring\" nameList=\"b\" size=\"5\"/>"
                    "<h type=\"varbinarystring\" nameList=\"v\" size=\"3\"/></ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 1u);
}

TEST_F(BinlogLoaderTest, HeaderPaddingSixtyFourBitAlignment) {
    // 4 + 2*2 + 1 + 14 = 23, modulo 8 is 7, padding 1.
    EXPECT_EQ(parse("<ModuleHeader><h type=\"TavUint32_t\" nameList=\"a\"/>"
                    "<h type=\"TavInt16_t\" nameList=\"b\" count=\"2\"/>"
                    "<h type=\"TavUint8_t\" nameList=\"c\"/>"
                    "<h type=\"string\" nameList=\"s\"/>"
                    "<h type=\"TavInt64_t\" nameList=\"d\" count=\"3\"/></ModuleHeader>"),
              0);
    EXPECT_EQ(module_.headerPadding, 1u);
}

TEST_F(BinlogLoaderTest, SecondModuleHeaderAppendsAndRecomputes) {
    EXPECT_EQ(parse("<r><ModuleHeader><h type=\"TavUint8_t\" nameList=\"a\"/></ModuleHeader>"
                    "<ModuleHeader><h type=\"TavUint16_t\" nameList=\"b\"/></ModuleHeader></r>"),
              0);
    EXPECT_EQ(namesOf(module_.uint8Params), (Names{"a"}));
    EXPECT_EQ(namesOf(module_.uint16Params), (Names{"b"}));
    EXPECT_EQ(module_.paramOrder, (Names{"a", "b"}));
    EXPECT_EQ(module_.headerPadding, 1u);
}

TEST_F(BinlogLoaderTest, ModuleHeaderUnknownTypeAddsNameOnly) {
    EXPECT_EQ(parseCapturing("<ModuleHeader><h type=\"float\" nameList=\"x\"/></ModuleHeader>"), 0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(totalEntries(module_), 0u);
    EXPECT_EQ(module_.paramOrder, (Names{"x"}));
    EXPECT_EQ(module_.headerPadding, 0u);
}

TEST_F(BinlogLoaderTest, ParseModuleHeaderParamNodeDirectly) {
    xmlNode* node =
        root("<h type=\"TavUint32_t\" nameList=\"x,y\" count=\"4\" displayFormat=\"hex\"/>");
    ASSERT_NE(node, nullptr);
    Tav::ModuleDetails module;
    EXPECT_EQ(reader_->parseModuleHeaderParamNode(node, module), 0);
    ASSERT_EQ(module.uint32Params.size(), 2u);
    EXPECT_EQ(module.uint32Params[0].length, 4u);
    EXPECT_EQ(module.uint32Params[1].displayFormat, "hex");
    EXPECT_EQ(module.paramOrder, (Names{"x", "y"}));
    // A declaration alone sets no header flag; only the ModuleHeader element does.
    EXPECT_FALSE(module.hasModuleHeader);
}

TEST_F(BinlogLoaderTest, ParamNodeWithoutAttributesDeclaresNothing) {
    xmlNode* node = root("<h>text<inner type=\"TavUint8_t\" nameList=\"z\"/></h>");
    ASSERT_NE(node, nullptr);
    Tav::ModuleDetails module;
    Tav::LogDetails log;
    EXPECT_EQ(reader_->parseModuleHeaderParamNode(node, module), 0);
    EXPECT_EQ(reader_->parseLogParamNode(node, log), 0);
    xmlNode* text = node->children;
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(reader_->parseLogParamNode(text, log), 0);
    EXPECT_EQ(totalEntries(module), 0u);
    EXPECT_TRUE(module.paramOrder.empty());
    EXPECT_EQ(totalEntries(log), 0u);
    EXPECT_TRUE(log.paramOrder.empty());
}

TEST_F(BinlogLoaderTest, ParseLogParamNodeIgnoresResultOfTokenizer) {
    xmlNode* node = root("<p type=\"binarystring\" nameList=\"b\"/>");
    ASSERT_NE(node, nullptr);
    Tav::LogDetails log;
    StderrCapture capture;
    EXPECT_EQ(reader_->parseLogParamNode(node, log), 0);
    EXPECT_EQ(capture.stop(), "Size cannot be empty for binary string\n");
    EXPECT_EQ(totalEntries(log), 0u);
    EXPECT_TRUE(log.paramOrder.empty());
}

TEST_F(BinlogLoaderTest, ParseLogIdNodeDirectly) {
    xmlNode* node = root(
        "<LogId name=\"n\" logString=\"s\" category=\"K,L\">"
        "<p type=\"TavInt8_t\" nameList=\"q\"/></LogId>");
    ASSERT_NE(node, nullptr);
    reader_->nextLogIndex = 9;
    const std::uint16_t key = 0x0102;
    std::map<std::uint16_t, Tav::LogDetails> logs;
    EXPECT_EQ(reader_->parseLogIdNode(node, key, logs), 0);
    ASSERT_EQ(logs.count(9), 1u);
    EXPECT_EQ(logs[9].logIndex, 9);
    EXPECT_EQ(logs[9].category, "K");
    EXPECT_EQ(namesOf(logs[9].int8Params), (Names{"q"}));
    EXPECT_EQ(reader_->nextLogIndex, 10);
}

TEST_F(BinlogLoaderTest, ParseLogIdNodeFailureHasOneMessage) {
    xmlNode* node = root("<LogId/>");
    ASSERT_NE(node, nullptr);
    const std::uint16_t key = 0;
    std::map<std::uint16_t, Tav::LogDetails> logs;
    StderrCapture capture;
    EXPECT_EQ(reader_->parseLogIdNode(node, key, logs), -1);
    EXPECT_EQ(capture.stop(), "No attributes found on LogId node\n");
    EXPECT_TRUE(logs.empty());
    EXPECT_EQ(reader_->nextLogIndex, 1);
}

// ---- Through the reader's loading sequence ---------------------------------------------

TEST(BinlogLoading, NestedFailureEndsWithTheLoaderMessage) {
    TempDir dir;
    dir.writeFile("x_binlog.xml", "<r><a><LogId name=\"n\" logString=\"s\"/></a></r>");
    StderrCapture capture;
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    const std::string err = capture.stop();
    EXPECT_FALSE(reader.isGood());
    EXPECT_EQ(err,
              "Mandatory params in the LogId node missing\n"
              "Error in parseLogIdError in parseBinLogXmlError in parseBinLogXml"
              "Error parseBinLogXml failed for :" +
                  dir.slash() + "x_binlog.xml");
    EXPECT_TRUE(reader.logLevelNames.empty());
}

TEST(BinlogLoading, BinaryStringWithoutSizeStillLoads) {
    TempDir dir;
    dir.writeFile("x_binlog.xml", "<r>" + subsystem("s", "1", "m", "2", "1") +
                                      "<LogId name=\"n\" logString=\"s\" category=\"c\">"
                                      "<p type=\"binarystring\" nameList=\"b\"/>"
                                      "<p type=\"TavUint8_t\" nameList=\"u\"/></LogId></r>");
    StderrCapture capture;
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    const std::string err = capture.stop();
    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(err, "Size cannot be empty for binary string\n");
    ASSERT_EQ(reader.logDetailsMap.count(0x0102), 1u);
    ASSERT_EQ(reader.logDetailsMap[0x0102].count(1), 1u);
    EXPECT_EQ(reader.logDetailsMap[0x0102][1].paramOrder, (Names{"u"}));
}

TEST(BinlogLoading, FileWithoutLoggingSubSystemIsFiledUnderZero) {
    TempDir dir;
    dir.writeFile("x_binlog.xml", "<r><LogId name=\"n\" logString=\"s\" category=\"c\"/></r>");
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.moduleDetailsMap.count(0), 1u);
    ASSERT_EQ(reader.logDetailsMap.count(0), 1u);
    EXPECT_EQ(reader.logDetailsMap[0].count(1), 1u);
}

}  // namespace
