// The capture writer's own reading of the dictionary format (it does not use
// the decoding library): numbers, name lists, module keys, log numbering,
// declarations it drops, the header padding, enumerations and file names.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "binlog_synth/Dictionary.h"

using namespace binlog_synth;

namespace {

ModuleDecl readModule(const std::string& xml) {
    ModuleDecl module;
    std::string error;
    EXPECT_TRUE(readBinlogXml(xml, "t_binlog.xml", module, error)) << error;
    return module;
}

std::string wrap(const std::string& body,
                 const std::string& ids = R"(subsystemId="1" moduleid="2")") {
    return "<?xml version=\"1.0\"?>\n<LoggingSubSystem subsystem=\"S\" " + ids +
           " module=\"m\" binlogversion=\"3\">" + body + "</LoggingSubSystem>\n";
}

std::vector<std::string> namesOf(const std::vector<ParamDecl>& params) {
    std::vector<std::string> names;
    for (const ParamDecl& p : params) {
        names.push_back(p.name);
    }
    return names;
}

TEST(SynthDictionary, NumbersReadLikeStrtolWithA32BitLong) {
    EXPECT_EQ(dictionaryNumber("42"), 42);
    EXPECT_EQ(dictionaryNumber("  \t+42x"), 42);
    EXPECT_EQ(dictionaryNumber("010"), 10);
    EXPECT_EQ(dictionaryNumber("0x10"), 0);
    EXPECT_EQ(dictionaryNumber("abc"), 0);
    EXPECT_EQ(dictionaryNumber(""), 0);
    EXPECT_EQ(dictionaryNumber("-7"), -7);
    EXPECT_EQ(dictionaryNumber("2147483647"), 2147483647);
    EXPECT_EQ(dictionaryNumber("2147483648"), 2147483647);
    EXPECT_EQ(dictionaryNumber("99999999999999999999"), 2147483647);
    EXPECT_EQ(dictionaryNumber("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(dictionaryNumber("-99999999999999999999"), -2147483647 - 1);
}

TEST(SynthDictionary, ModuleKeyVersionAndNames) {
    ModuleDecl m = readModule(wrap(""));
    EXPECT_EQ(m.key, 0x0102);
    EXPECT_EQ(m.version, 3);
    EXPECT_EQ(m.subsystem, "S");
    EXPECT_EQ(m.module, "m");
    EXPECT_FALSE(m.hasHeader);
    // Only the low 8 bits of the subsystem id survive the shift; the module id
    // is not masked and its high bits mix into the subsystem byte.
    EXPECT_EQ(readModule(wrap("", R"(subsystemId="1" moduleid="300")")).key, 0x012C);
    EXPECT_EQ(readModule(wrap("", R"(subsystemId="256" moduleid="5")")).key, 0x0005);
    EXPECT_EQ(readModule(wrap("", R"(subsystemId="1" moduleid="-1")")).key, 0xFFFF);
    // The version is cut to 16 bits: 70000 is 4464.
    const std::string v =
        "<?xml version=\"1.0\"?><LoggingSubSystem subsystem=\"S\" subsystemId=\"1\" "
        "moduleid=\"2\" module=\"m\" binlogversion=\"70000\"/>";
    EXPECT_EQ(readModule(v).version, 4464);
}

TEST(SynthDictionary, LogsAreNumberedInDocumentOrderWherever) {
    const ModuleDecl m = readModule(wrap(R"(
  <LogId name="A" category="c" logString="a"/>
  <group><LogId name="B" category="c" logString="b"/></group>
  <LogId name="C" category="c" logString="c"/>)"));
    ASSERT_EQ(m.logs.size(), 3u);
    EXPECT_EQ(m.logs[0].name, "A");
    EXPECT_EQ(m.logs[1].name, "B");
    EXPECT_EQ(m.logs[1].index, 2);
    EXPECT_EQ(m.logs[2].name, "C");
    EXPECT_EQ(m.logs[2].index, 3);
}

TEST(SynthDictionary, Declarations) {
    const ModuleDecl m = readModule(wrap(R"(
  <LogId name="L" category="c" logString="l">
    <p type="TavUint8_t" nameList=",a,,b,"/>
    <p type="TavUint16_t" nameList="c, d" count="-1" displayFormat=""/>
    <p type="TavUInt32_t" nameList="unknownType"/>
    <p nameList="noType"/>
    <p type="string" nameList="s"/>
    <p type="string" nameList="s0" size=""/>
    <p type="binarystring" nameList="noSize"/>
    <p type="varbinarystring" nameList="v" size="6"/>
    <p type="TavUint32_t"/>
    <empty/>
  </LogId>)"));
    ASSERT_EQ(m.logs.size(), 1u);
    const std::vector<ParamDecl>& p = m.logs[0].params;
    EXPECT_EQ(namesOf(p), (std::vector<std::string>{"a", "b", "c", " d", "s", "s0", "v"}));
    EXPECT_EQ(p[2].count, 4294967295u);
    EXPECT_EQ(p[2].displayFormat, "DefaultDisplay");
    EXPECT_EQ(p[4].size, 14u);
    EXPECT_EQ(p[5].size, 14u);
    EXPECT_EQ(p[6].kind, FieldKind::VarBinaryString);
    EXPECT_EQ(p[6].size, 6u);
}

TEST(SynthDictionary, MissingMandatoryAttributesFailTheFile) {
    ModuleDecl m;
    std::string error;
    EXPECT_FALSE(readBinlogXml(wrap(R"(<LogId name="L" logString="x"/>)"), "f", m, error));
    EXPECT_EQ(error, "f: line 2: a LogId needs name, logString and category");
    EXPECT_FALSE(readBinlogXml(
        "<LoggingSubSystem subsystem=\"S\" subsystemId=\"1\" module=\"m\" binlogversion=\"1\"/>",
        "g", m, error));
    EXPECT_EQ(error,
              "g: line 1: LoggingSubSystem needs subsystem, subsystemId, module, moduleid and "
              "binlogversion");
    EXPECT_FALSE(readBinlogXml(wrap("\n<LogId name=\"A\" category=\"C\" logString=\"a\"/>\n\n"
                                    "<LogId name=\"B\" category=\"\" logString=\"b\"/>"),
                               "k", m, error));
    EXPECT_EQ(error, "k: line 5: a LogId needs name, logString and category");
    EXPECT_FALSE(readBinlogXml("<LoggingSubSystem", "h", m, error));
    EXPECT_EQ(error, "h is not well-formed XML");
}

TEST(SynthDictionary, HeaderPadding) {
    auto padding = [](const std::string& header) {
        return headerPadding(
            readModule(wrap("<ModuleHeader>" + header + "</ModuleHeader>")).header);
    };
    // 2 + 1 bytes, padded to 4.
    EXPECT_EQ(padding(R"(<p type="TavUint16_t" nameList="a"/><p type="TavUint8_t" nameList="b"/>)"),
              1u);
    // 1 + 8 bytes with a 64-bit parameter: padded to 16.
    EXPECT_EQ(padding(R"(<p type="TavUint8_t" nameList="a"/><p type="TavInt64_t" nameList="b"/>)"),
              7u);
    EXPECT_EQ(padding(R"(<p type="TavUint32_t" nameList="a"/>)"), 0u);
    EXPECT_EQ(padding(R"(<p type="string" nameList="a"/>)"), 2u);
    // A var binary string takes no bytes in a header.
    EXPECT_EQ(
        padding(
            R"(<p type="TavUint8_t" nameList="a"/><p type="varbinarystring" nameList="v" size="9"/>)"),
        3u);
    EXPECT_EQ(padding(""), 0u);
}

TEST(SynthDictionary, HeaderLayoutLeavesVarBinaryStringsOut) {
    Dictionary dictionary;
    std::vector<ModuleDecl> modules;
    modules.push_back(readModule(wrap(R"(
  <ModuleHeader><p type="varbinarystring" nameList="v" size="9"/><p type="TavUint8_t" nameList="h"/></ModuleHeader>
  <LogId name="L" category="c" logString="l"><p type="TavUint8_t" nameList="x"/></LogId>)")));
    dictionary.assign(std::move(modules), Displays());
    ASSERT_EQ(dictionary.layouts().size(), 1u);
    const LogLayout& layout = dictionary.layouts()[0];
    ASSERT_EQ(layout.fields.size(), 3u);
    EXPECT_EQ(layout.fields[0].name, "h");
    EXPECT_EQ(layout.fields[1].kind, FieldKind::Padding);
    EXPECT_EQ(layout.fields[1].length, 3u);
    EXPECT_EQ(layout.fields[2].name, "x");
    EXPECT_EQ(layout.logId, 0x01020001u);
    EXPECT_EQ(layout.fixedSize, 5u);
}

TEST(SynthDictionary, Enumerations) {
    Displays d;
    std::string error;
    ASSERT_TRUE(readDisplayXml(R"(<?xml version="1.0"?>
<displays>
  <enum name="A"><e value="1" text="one"/><e value="1" text="uno"/><e text="novalue"/></enum>
  <deep><enum name="B"><e value="2" text="two"/></enum></deep>
  <enum name="B"><e value="3" text="three"/></enum>
</displays>)",
                               "x_bindisplay.xml", d, error))
        << error;
    EXPECT_EQ(d.enums["A"], (std::map<std::string, std::string>{{"1", "uno"}, {"", "novalue"}}));
    // Defined again: replaced whole, not merged.
    EXPECT_EQ(d.enums["B"], (std::map<std::string, std::string>{{"3", "three"}}));
    EXPECT_FALSE(readDisplayXml("<displays><enum/></displays>", "y", d, error));
    EXPECT_EQ(error, "y: line 1: an enum needs a name");
    // The line is the element's own, wherever it stands.
    EXPECT_FALSE(
        readDisplayXml("<displays>\n<enum name=\"A\"/>\n\n  <enum/>\n</displays>", "z", d, error));
    EXPECT_EQ(error, "z: line 4: an enum needs a name");
}

TEST(SynthDictionary, FileNames) {
    EXPECT_EQ(dictionaryFileKind("l1_phy_binlog.xml"), DictionaryFile::Binlog);
    EXPECT_EQ(dictionaryFileKind("Core_BinLog.xml"), DictionaryFile::Binlog);
    EXPECT_EQ(dictionaryFileKind("States_BINDISPLAY.xml"), DictionaryFile::Bindisplay);
    EXPECT_EQ(dictionaryFileKind("x_binlog_bindisplay.xml"), DictionaryFile::Binlog);
    EXPECT_EQ(dictionaryFileKind("phy_binlog.XML"), DictionaryFile::Other);
    EXPECT_EQ(dictionaryFileKind("phy_binlog.xml.orig"), DictionaryFile::Binlog);
    EXPECT_EQ(dictionaryFileKind("notes.xml"), DictionaryFile::Other);
}

TEST(SynthDictionary, ABrokenBindisplayFileSwitchesEnumerationsOff) {
    wexbl_test::TempDir dir;
    dir.writeFile("m_binlog.xml", wrap(R"(<LogId name="L" category="c" logString="l">
      <p type="TavUint8_t" nameList="s" displayFormat="E"/></LogId>)"));
    dir.writeFile("a_bindisplay.xml", R"(<enum name="E"><e value="1" text="ON"/></enum>)");
    Dictionary dictionary;
    std::string error;
    ASSERT_TRUE(dictionary.load(dir.path(), error)) << error;
    EXPECT_EQ(dictionary.layouts().at(0).fields.at(0).enumValues, std::vector<std::uint64_t>{1});

    dir.writeFile("b_bindisplay.xml", "<enum>");
    wexbl_test::StderrCapture quiet;  // libxml2's own messages
    Dictionary again;
    ASSERT_TRUE(again.load(dir.path(), error)) << error;
    quiet.stop();
    EXPECT_TRUE(again.displays().enums.empty());
    EXPECT_TRUE(again.layouts().at(0).fields.at(0).enumValues.empty());
}

}  // namespace
