// Tests of BinaryLogDisplayFormatter: loading "bindisplay" enumeration files,
// the walk that finds "enum" elements anywhere in a document, last-one-wins
// tables, the look-up with its fallbacks, and every loading message.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "BinaryLogDisplayFormatter.h"
#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using wexbl_test::parseXml;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

using Table = std::map<std::string, std::string>;
using Files = std::vector<std::pair<std::string, std::string>>;

const char kNotInitialized[] = "BinaryLogDisplayFormatter not initialized correctly\n";

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::size_t occurrences(const std::string& text, const std::string& word) {
    std::size_t n = 0;
    for (std::size_t pos = text.find(word); pos != std::string::npos;
         pos = text.find(word, pos + word.size())) {
        ++n;
    }
    return n;
}

// The outcome of one getDisplay call.
struct Lookup {
    int rc;
    std::string out;
    std::string err;
};

Lookup lookup(const Tav::BinaryLogDisplayFormatter& fmt, const std::string& format,
              const std::string& value, const std::string& initialOut = "keep") {
    Lookup r;
    r.out = initialOut;
    StderrCapture err;
    r.rc = fmt.getDisplay(format, value, r.out);
    r.err = err.stop();
    return r;
}

class DisplayTest : public ::testing::Test {
  protected:
    // Writes the files into a fresh directory and loads them in the given
    // order; the text written to standard error is kept in err_.
    int load(const Files& files) {
        paths_.clear();
        for (const auto& file : files) {
            paths_.push_back(dir_.writeFile(file.first, file.second));
        }
        StderrCapture err;
        const int rc = fmt_.readDisplayXml(paths_);
        err_ = err.stop();
        return rc;
    }
    int loadOne(const std::string& content) { return load({{"a_bindisplay.xml", content}}); }

    bool has(const std::string& format) const { return fmt_.displayFormats.count(format) == 1; }
    const Table& table(const std::string& format) const { return fmt_.displayFormats.at(format); }

    TempDir dir_;
    std::vector<std::string> paths_;
    Tav::BinaryLogDisplayFormatter fmt_;
    std::string err_;
};

// ---- Construction and look-up before loading ---------------------------------

TEST_F(DisplayTest, NewFormatterIsNotInitialized) {
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_FALSE(fmt_.isGood());
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, LookupBeforeLoadingFallsBackToTheValue) {
    const Lookup r = lookup(fmt_, "color", "42");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "42");
    EXPECT_EQ(r.err, kNotInitialized);
}

TEST_F(DisplayTest, LookupWhileNotInitializedIgnoresStoredTables) {
    fmt_.displayFormats["color"]["1"] = "red";
    const Lookup r = lookup(fmt_, "color", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, kNotInitialized);
}

// ---- Loading ----------------------------------------------------------------

TEST_F(DisplayTest, EmptyFileListSucceeds) {
    EXPECT_EQ(load({}), 0);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(fmt_.initialized);
    EXPECT_TRUE(fmt_.isGood());
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, WithoutFilesEveryFormatIsNotFound) {
    ASSERT_EQ(load({}), 0);
    Lookup r = lookup(fmt_, "color", "3");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "3");
    EXPECT_EQ(r.err, "Displayformat color not found\n");

    // "int" is an ordinary enumeration name here.
    r = lookup(fmt_, "int", "-17", "");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "-17");
    EXPECT_EQ(r.err, "Displayformat int not found\n");
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, KnownValueGivesItsText) {
    ASSERT_EQ(loadOne("<enums>\n"
                      "  <enum name=\"color\">\n"
                      "    <item value=\"1\" text=\"red\"/>\n"
                      "    <item value=\"2\" text=\"green\"/>\n"
                      "  </enum>\n"
                      "</enums>\n"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(fmt_.initialized);
    ASSERT_TRUE(has("color"));
    EXPECT_EQ(table("color"), (Table{{"1", "red"}, {"2", "green"}}));
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);

    Lookup r = lookup(fmt_, "color", "1");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "red");
    EXPECT_EQ(r.err, "");
    r = lookup(fmt_, "color", "2", "");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "green");
    EXPECT_EQ(r.err, "");
}

TEST_F(DisplayTest, UnknownValueOfKnownFormatLeavesOutAlone) {
    ASSERT_EQ(loadOne("<enum name=\"color\"><item value=\"1\" text=\"red\"/></enum>"), 0);
    Lookup r = lookup(fmt_, "color", "3", "keep");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "keep");
    EXPECT_EQ(r.err, "");
    r = lookup(fmt_, "color", "3", "");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");

    // Unknown format after a successful load: the decimal text and a message.
    r = lookup(fmt_, "colour", "1", "keep");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, "Displayformat colour not found\n");
}

TEST_F(DisplayTest, ValueTextIsComparedExactly) {
    ASSERT_EQ(loadOne("<enum name=\"n\"><e value=\"7\" text=\"seven\"/></enum>"), 0);
    EXPECT_EQ(lookup(fmt_, "n", "7").out, "seven");
    for (const char* other : {"07", "0x7", " 7", "7 ", "+7", "7.0"}) {
        const Lookup r = lookup(fmt_, "n", other);
        EXPECT_EQ(r.rc, -1) << other;
        EXPECT_EQ(r.out, "keep") << other;
        EXPECT_EQ(r.err, "") << other;
    }
}

TEST_F(DisplayTest, FormatNamesAreComparedExactly) {
    ASSERT_EQ(loadOne("<enum name=\"Color\"><e value=\"1\" text=\"red\"/></enum>"), 0);
    const Lookup r = lookup(fmt_, "color", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, "Displayformat color not found\n");
}

TEST_F(DisplayTest, EmptyEnumerationStoresAnEmptyTable) {
    ASSERT_EQ(loadOne("<enums><enum name=\"none\"/></enums>"), 0);
    EXPECT_EQ(err_, "");
    ASSERT_TRUE(has("none"));
    EXPECT_TRUE(table("none").empty());
    const Lookup r = lookup(fmt_, "none", "0");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "keep");
    EXPECT_EQ(r.err, "");
}

TEST_F(DisplayTest, EnumerationAsTheRootElement) {
    ASSERT_EQ(loadOne("<enum name=\"root\"><v value=\"0\" text=\"zero\"/></enum>"), 0);
    EXPECT_EQ(table("root"), (Table{{"0", "zero"}}));
}

TEST_F(DisplayTest, SiblingEnumerationsAreAllLoaded) {
    ASSERT_EQ(loadOne("<enums>"
                      "<enum name=\"a\"><v value=\"1\" text=\"A1\"/></enum>"
                      "<other/>"
                      "<enum name=\"b\"><v value=\"1\" text=\"B1\"/></enum>"
                      "<!-- note -->"
                      "<enum name=\"c\"><v value=\"1\" text=\"C1\"/></enum>"
                      "</enums>"),
              0);
    EXPECT_EQ(fmt_.displayFormats.size(), 3u);
    EXPECT_EQ(lookup(fmt_, "a", "1").out, "A1");
    EXPECT_EQ(lookup(fmt_, "b", "1").out, "B1");
    EXPECT_EQ(lookup(fmt_, "c", "1").out, "C1");
}

TEST_F(DisplayTest, EnumerationsAtAnyDepth) {
    ASSERT_EQ(loadOne("<top>"
                      "<a><b><c><d><enum name=\"deep\"><v value=\"4\" text=\"four\"/></enum>"
                      "</d></c></b></a>"
                      "<x><enum name=\"shallow\"><v value=\"1\" text=\"one\"/></enum></x>"
                      "</top>"),
              0);
    EXPECT_EQ(table("deep"), (Table{{"4", "four"}}));
    EXPECT_EQ(table("shallow"), (Table{{"1", "one"}}));
}

TEST_F(DisplayTest, OnlyElementsNamedExactlyEnum) {
    ASSERT_EQ(loadOne("<enums>"
                      "<Enum name=\"upper\"><v value=\"1\" text=\"x\"/></Enum>"
                      "<enums name=\"plural\"><v value=\"1\" text=\"x\"/></enums>"
                      "<ENUM name=\"caps\"><v value=\"1\" text=\"x\"/></ENUM>"
                      "<enum name=\"real\"><v value=\"1\" text=\"x\"/></enum>"
                      "</enums>"),
              0);
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);
    EXPECT_TRUE(has("real"));
}

TEST_F(DisplayTest, OtherAttributesAreIgnored) {
    ASSERT_EQ(loadOne("<enum id=\"9\" name=\"e\" kind=\"k\">"
                      "<item colour=\"blue\" value=\"1\" text=\"one\" value2=\"2\"/>"
                      "</enum>"),
              0);
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);
    EXPECT_EQ(table("e"), (Table{{"1", "one"}}));
}

TEST_F(DisplayTest, AttributeLessChildrenAddNothing) {
    ASSERT_EQ(loadOne("<enum name=\"e\">\n"
                      "  some text\n"
                      "  <!-- a comment -->\n"
                      "  <empty/>\n"
                      "  <withText>words</withText>\n"
                      "  <?pi data?>\n"
                      "</enum>"),
              0);
    ASSERT_TRUE(has("e"));
    EXPECT_TRUE(table("e").empty());
}

TEST_F(DisplayTest, EntryWithoutValueUsesTheEmptyKey) {
    ASSERT_EQ(loadOne("<enum name=\"e\"><item text=\"nothing\"/></enum>"), 0);
    EXPECT_EQ(table("e"), (Table{{"", "nothing"}}));
    const Lookup r = lookup(fmt_, "e", "");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "nothing");
    EXPECT_EQ(r.err, "");
}

TEST_F(DisplayTest, EntryWithoutTextMapsToEmptyText) {
    ASSERT_EQ(loadOne("<enum name=\"e\"><item value=\"3\"/></enum>"), 0);
    EXPECT_EQ(table("e"), (Table{{"3", ""}}));
    const Lookup r = lookup(fmt_, "e", "3", "keep");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST_F(DisplayTest, EntryWithNeitherValueNorText) {
    ASSERT_EQ(loadOne("<enum name=\"e\"><item other=\"1\"/></enum>"), 0);
    EXPECT_EQ(table("e"), (Table{{"", ""}}));
}

TEST_F(DisplayTest, RepeatedValueInsideOneEnumerationKeepsTheLaterText) {
    ASSERT_EQ(loadOne("<enum name=\"e\">"
                      "<v value=\"1\" text=\"first\"/>"
                      "<v value=\"2\" text=\"two\"/>"
                      "<v value=\"1\" text=\"second\"/>"
                      "</enum>"),
              0);
    EXPECT_EQ(table("e"), (Table{{"1", "second"}, {"2", "two"}}));
}

TEST_F(DisplayTest, SameNameTwiceInOneFileKeepsOnlyTheLater) {
    ASSERT_EQ(
        loadOne("<enums>"
                "<enum name=\"e\"><v value=\"1\" text=\"a\"/><v value=\"3\" text=\"c\"/></enum>"
                "<enum name=\"e\"><v value=\"2\" text=\"b\"/><v value=\"3\" text=\"C\"/></enum>"
                "</enums>"),
        0);
    EXPECT_EQ(table("e"), (Table{{"2", "b"}, {"3", "C"}}));
    const Lookup r = lookup(fmt_, "e", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "keep");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(lookup(fmt_, "e", "2").out, "b");
}

TEST_F(DisplayTest, SameNameInALaterFileReplacesTheTable) {
    ASSERT_EQ(load({{"one_bindisplay.xml", "<enum name=\"e\"><v value=\"1\" text=\"a\"/></enum>"},
                    {"two_bindisplay.xml", "<enum name=\"e\"><v value=\"2\" text=\"b\"/></enum>"}}),
              0);
    EXPECT_EQ(table("e"), (Table{{"2", "b"}}));
}

TEST_F(DisplayTest, LaterEmptyEnumerationEmptiesTheTable) {
    ASSERT_EQ(loadOne("<enums><enum name=\"e\"><v value=\"1\" text=\"a\"/></enum>"
                      "<enum name=\"e\"/></enums>"),
              0);
    ASSERT_TRUE(has("e"));
    EXPECT_TRUE(table("e").empty());
    const Lookup r = lookup(fmt_, "e", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "keep");
    EXPECT_EQ(r.err, "");
}

TEST_F(DisplayTest, SeveralFilesAllLoad) {
    ASSERT_EQ(load({{"a_bindisplay.xml", "<enum name=\"a\"><v value=\"1\" text=\"A\"/></enum>"},
                    {"b_bindisplay.xml", "<enum name=\"b\"><v value=\"1\" text=\"B\"/></enum>"}}),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(fmt_.initialized);
    EXPECT_EQ(lookup(fmt_, "a", "1").out, "A");
    EXPECT_EQ(lookup(fmt_, "b", "1").out, "B");
}

TEST_F(DisplayTest, NestedEnumerationIsAlsoAnEntryOfTheOuterOne) {
    ASSERT_EQ(loadOne("<enum name=\"outer\">"
                      "<v value=\"1\" text=\"one\"/>"
                      "<enum name=\"inner\"><v value=\"2\" text=\"two\"/></enum>"
                      "</enum>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(fmt_.displayFormats.size(), 2u);
    EXPECT_EQ(table("inner"), (Table{{"2", "two"}}));
    // The inner element has an attribute ("name") but neither "value" nor
    // "text": one entry with the empty key and the empty text.
    EXPECT_EQ(table("outer"), (Table{{"1", "one"}, {"", ""}}));
    const Lookup r = lookup(fmt_, "outer", "2");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "keep");
}

TEST_F(DisplayTest, NestedEnumerationWithValueAndTextAttributes) {
    ASSERT_EQ(loadOne("<enum name=\"outer\">"
                      "<enum name=\"inner\" value=\"9\" text=\"nine\">"
                      "<v value=\"2\" text=\"two\"/>"
                      "</enum>"
                      "</enum>"),
              0);
    EXPECT_EQ(table("outer"), (Table{{"9", "nine"}}));
    EXPECT_EQ(table("inner"), (Table{{"2", "two"}}));
}

TEST_F(DisplayTest, EnumerationInsideAnEntryElement) {
    ASSERT_EQ(loadOne("<enum name=\"outer\">"
                      "<v value=\"1\" text=\"one\">"
                      "<enum name=\"inner\"><v value=\"2\" text=\"two\"/></enum>"
                      "</v>"
                      "</enum>"),
              0);
    EXPECT_EQ(table("outer"), (Table{{"1", "one"}}));
    EXPECT_EQ(table("inner"), (Table{{"2", "two"}}));
}

TEST_F(DisplayTest, NestedEnumerationWithTheOuterName) {
    // The outer table is stored first, then the nested one replaces it.
    ASSERT_EQ(loadOne("<enum name=\"e\">"
                      "<v value=\"1\" text=\"one\"/>"
                      "<enum name=\"e\"><v value=\"2\" text=\"two\"/></enum>"
                      "</enum>"),
              0);
    EXPECT_EQ(table("e"), (Table{{"2", "two"}}));
}

TEST_F(DisplayTest, AttributeValuesAreTakenAsTheParserResolvesThem) {
    ASSERT_EQ(loadOne("<!DOCTYPE enums [<!ENTITY red \"Red colour\">]>\n"
                      "<enums><enum name=\"e\">"
                      "<v value=\"1\" text=\"a&amp;b&lt;c\"/>"
                      "<v value=\"&#50;\" text=\"&#65;&#x42;\"/>"
                      "<v value=\"3\" text=\"&red;\"/>"
                      "<v value=\" 4 \" text=\"  spaced  \"/>"
                      "</enum></enums>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(table("e"),
              (Table{{"1", "a&b<c"}, {"2", "AB"}, {"3", "Red colour"}, {" 4 ", "  spaced  "}}));
}

TEST_F(DisplayTest, ContentOfEntityReferencesIsNotWalked) {
    ASSERT_EQ(loadOne("<!DOCTYPE enums [\n"
                      "<!ENTITY more \"<v value='5' text='five'/>\">\n"
                      "<!ENTITY hidden \"<enum name='hidden'><v value='1' text='x'/></enum>\">\n"
                      "]>\n"
                      "<enums><enum name=\"e\"><v value=\"1\" text=\"one\"/>&more;</enum>"
                      "&hidden;</enums>"),
              0);
    EXPECT_EQ(err_, "");
    EXPECT_EQ(table("e"), (Table{{"1", "one"}}));
    EXPECT_FALSE(has("hidden"));
}

// ---- The walk called directly --------------------------------------------------

TEST_F(DisplayTest, WalkOfNullNodeSucceeds) {
    StderrCapture err;
    EXPECT_EQ(fmt_.parseDisplayXml(nullptr), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_TRUE(fmt_.displayFormats.empty());
    EXPECT_FALSE(fmt_.initialized);
}

TEST_F(DisplayTest, WalkCoversTheSiblingChainAndItsDescendants) {
    auto doc = parseXml(
        "<r><x/><enum name=\"a\"><v value=\"1\" text=\"A\"/></enum>"
        "<y><z><enum name=\"b\"/></z></y></r>");
    ASSERT_NE(doc, nullptr);
    xmlNode* first = xmlDocGetRootElement(doc.get())->children;
    StderrCapture err;
    EXPECT_EQ(fmt_.parseDisplayXml(first), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(table("a"), (Table{{"1", "A"}}));
    ASSERT_TRUE(has("b"));
    EXPECT_TRUE(table("b").empty());
    // Walking alone does not make the dictionary usable.
    EXPECT_FALSE(fmt_.initialized);
}

TEST_F(DisplayTest, EntryParserIgnoresNodesWithoutAttributes) {
    auto doc = parseXml("<enum name=\"e\">text<plain/><v value=\"1\" text=\"one\"/></enum>");
    ASSERT_NE(doc, nullptr);
    Table t{{"old", "kept"}};
    xmlNode* child = xmlDocGetRootElement(doc.get())->children;
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(child->type, XML_TEXT_NODE);
    EXPECT_EQ(fmt_.parseEnumNodeData(child, t), 0);
    EXPECT_EQ(t, (Table{{"old", "kept"}}));
    child = child->next;
    EXPECT_EQ(fmt_.parseEnumNodeData(child, t), 0);
    EXPECT_EQ(t, (Table{{"old", "kept"}}));
    child = child->next;
    EXPECT_EQ(fmt_.parseEnumNodeData(child, t), 0);
    EXPECT_EQ(t, (Table{{"old", "kept"}, {"1", "one"}}));
}

TEST_F(DisplayTest, EnumerationParserStoresOneTable) {
    auto doc = parseXml(
        "<enum name=\"e\"><v value=\"1\" text=\"one\"/>"
        "<enum name=\"inner\"/></enum>");
    ASSERT_NE(doc, nullptr);
    xmlNode* node = xmlDocGetRootElement(doc.get());
    StderrCapture err;
    EXPECT_EQ(fmt_.parseEnumNodes(node), 0);
    EXPECT_EQ(err.stop(), "");
    // Only the element itself: the nested one is an entry here, not a table.
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);
    EXPECT_EQ(table("e"), (Table{{"1", "one"}, {"", ""}}));
}

// ---- Failures -------------------------------------------------------------------

TEST_F(DisplayTest, MalformedFile) {
    EXPECT_EQ(loadOne("<enums><enum name=\"e\"><v value=\"1\" text=\"one\"/></enums>"), -1);
    // The parser may have reported details of its own before the message.
    const std::string message = "Error parsing file :" + paths_[0];
    EXPECT_TRUE(endsWith(err_, message)) << err_;
    EXPECT_EQ(occurrences(err_, "Error parsing file :"), 1u);
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_TRUE(fmt_.displayFormats.empty());

    const Lookup r = lookup(fmt_, "e", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, kNotInitialized);
    EXPECT_FALSE(fmt_.initialized);
}

TEST_F(DisplayTest, MissingFile) {
    const std::string path = dir_.slash() + "absent_bindisplay.xml";
    StderrCapture err;
    EXPECT_EQ(fmt_.readDisplayXml({path}), -1);
    const std::string text = err.stop();
    EXPECT_TRUE(endsWith(text, "Error parsing file :" + path)) << text;
    EXPECT_FALSE(fmt_.initialized);
}

TEST_F(DisplayTest, MalformedFileKeepsEarlierTablesAndSkipsLaterFiles) {
    EXPECT_EQ(load({{"a_bindisplay.xml", "<enum name=\"a\"><v value=\"1\" text=\"A\"/></enum>"},
                    {"b_bindisplay.xml", "<enum name=\"b\">"},
                    {"c_bindisplay.xml", "<enum name=\"c\"><v value=\"1\" text=\"C\"/></enum>"}}),
              -1);
    EXPECT_TRUE(endsWith(err_, "Error parsing file :" + paths_[1])) << err_;
    EXPECT_EQ(err_.find(paths_[2]), std::string::npos);
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);
    EXPECT_EQ(table("a"), (Table{{"1", "A"}}));
    EXPECT_FALSE(has("c"));

    // The table is there, but the dictionary is not usable.
    const Lookup r = lookup(fmt_, "a", "1");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "1");
    EXPECT_EQ(r.err, kNotInitialized);
}

TEST_F(DisplayTest, EnumerationWithoutNameAsRoot) {
    EXPECT_EQ(loadOne("<enum other=\"x\"><v value=\"1\" text=\"one\"/></enum>"), -1);
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, EnumerationWithEmptyNameCountsAsMissing) {
    EXPECT_EQ(loadOne("<enum name=\"\"><v value=\"1\" text=\"one\"/></enum>"), -1);
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, EnumerationWithoutNameTwoLevelsDown) {
    EXPECT_EQ(loadOne("<root>\n  <group>\n    <enum value=\"1\"/>\n  </group>\n</root>\n"), -1);
    // One "Error in parseDisplayXml" for each enclosing element (group, root).
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_FALSE(fmt_.initialized);
}

TEST_F(DisplayTest, EnumerationWithoutNameFourLevelsDown) {
    EXPECT_EQ(loadOne("<a><b><c><d><enum text=\"t\"/></d></c></b></a>"), -1);
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error in parseDisplayXml"
              "Error in parseDisplayXml"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
}

TEST_F(DisplayTest, EnumerationWithoutAttributes) {
    EXPECT_EQ(loadOne("<enums><enum><v value=\"1\" text=\"one\"/></enum></enums>"), -1);
    EXPECT_EQ(err_,
              "No attributes found on enum node\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_TRUE(fmt_.displayFormats.empty());
}

TEST_F(DisplayTest, FailureKeepsEarlierEnumerationsOfTheFile) {
    EXPECT_EQ(loadOne("<enums>"
                      "<enum name=\"a\"><v value=\"1\" text=\"A\"/></enum>"
                      "<enum/>"
                      "<enum name=\"c\"><v value=\"1\" text=\"C\"/></enum>"
                      "</enums>"),
              -1);
    EXPECT_EQ(err_,
              "No attributes found on enum node\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_EQ(fmt_.displayFormats.size(), 1u);
    EXPECT_EQ(table("a"), (Table{{"1", "A"}}));
    EXPECT_FALSE(has("c"));
}

TEST_F(DisplayTest, NamelessEnumerationNestedInANamedOne) {
    // The outer table is stored (with the nested element as an entry) before
    // the walk reaches the nested element and fails on it.
    EXPECT_EQ(
        loadOne("<enum name=\"outer\"><v value=\"1\" text=\"one\"/><enum value=\"2\"/></enum>"),
        -1);
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[0]);
    EXPECT_EQ(table("outer"), (Table{{"1", "one"}, {"2", ""}}));
}

TEST_F(DisplayTest, FailureInASecondFileKeepsTheFirstAndSkipsTheThird) {
    EXPECT_EQ(load({{"a_bindisplay.xml", "<enum name=\"a\"><v value=\"1\" text=\"A\"/></enum>"},
                    {"b_bindisplay.xml",
                     "<enums><enum name=\"b\"><v value=\"1\" text=\"B\"/></enum>"
                     "<enum id=\"x\"/><enum name=\"b2\"/></enums>"},
                    {"c_bindisplay.xml", "<enum name=\"c\"><v value=\"1\" text=\"C\"/></enum>"}}),
              -1);
    EXPECT_EQ(err_,
              "Mandatory params in the Enum node missing\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  paths_[1]);
    EXPECT_FALSE(fmt_.initialized);
    EXPECT_EQ(fmt_.displayFormats.size(), 2u);
    EXPECT_TRUE(has("a"));
    EXPECT_TRUE(has("b"));
    EXPECT_FALSE(has("b2"));
    EXPECT_FALSE(has("c"));
    EXPECT_EQ(lookup(fmt_, "b", "1").err, kNotInitialized);
}

TEST_F(DisplayTest, WalkReportsEveryLevelWhenCalledDirectly) {
    auto doc = parseXml("<r><s><enum/></s></r>");
    ASSERT_NE(doc, nullptr);
    StderrCapture err;
    EXPECT_EQ(fmt_.parseDisplayXml(xmlDocGetRootElement(doc.get())), -1);
    EXPECT_EQ(err.stop(),
              "No attributes found on enum node\n"
              "Error in parseEnumNodes"
              "Error in parseDisplayXml"
              "Error in parseDisplayXml");
}

// ---- Through the reader ----------------------------------------------------------

const char kBinlog[] =
    "<LoggingSubSystem subsystem=\"core\" subsystemId=\"1\" module=\"m\" moduleid=\"2\" "
    "binlogversion=\"1\"/>";

TEST(DisplayThroughReader, NoBindisplayFile) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlog);
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    EXPECT_TRUE(reader.isGood());
    EXPECT_TRUE(reader.binDisplayFiles.empty());
    EXPECT_TRUE(reader.displayFormatter.isGood());
    const Lookup r = lookup(reader.displayFormatter, "color", "3");
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.out, "3");
    EXPECT_EQ(r.err, "Displayformat color not found\n");
}

TEST(DisplayThroughReader, BindisplayFileIsLoaded) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlog);
    dir.writeFile("enums_bindisplay.xml",
                  "<enums><enum name=\"color\"><v value=\"1\" text=\"red\"/></enum></enums>");
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());
    EXPECT_TRUE(reader.displayFormatter.isGood());
    const Lookup r = lookup(reader.displayFormatter, "color", "1");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out, "red");
    EXPECT_EQ(r.err, "");
}

TEST(DisplayThroughReader, MalformedBindisplayFileLeavesTheFormatterUnusable) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlog);
    dir.writeFile("bad_bindisplay.xml", "<enums><enum name=\"color\">");
    StderrCapture err;
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    const std::string text = err.stop();
    EXPECT_TRUE(reader.isGood());
    EXPECT_TRUE(endsWith(text, "Error parsing file :" + dir.slash() + "bad_bindisplay.xml"))
        << text;
    EXPECT_FALSE(reader.displayFormatter.isGood());
    for (int i = 0; i < 2; ++i) {
        const Lookup r = lookup(reader.displayFormatter, "color", "5");
        EXPECT_EQ(r.rc, -1);
        EXPECT_EQ(r.out, "5");
        EXPECT_EQ(r.err, kNotInitialized);
    }
    EXPECT_FALSE(reader.displayFormatter.initialized);
}

}  // namespace
