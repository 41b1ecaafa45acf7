// The reader's loading sequence: which dictionaries end up in the maps, what a
// failing file leaves behind, the level-name table, the log numbering and the
// moment the display enumerations are loaded.
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

using Tav::BinaryLogXmlReader;
using wexbl_test::listDirectory;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

namespace {

const std::string kTwentyBlanks(20, ' ');

// A binlog dictionary: one "LoggingSubSystem" element followed by `body`.
std::string binlogXml(int subsystemId, int moduleId, const std::string& subsystem,
                      const std::string& module, int version, const std::string& body) {
    return "<?xml version=\"1.0\"?>\n<BinLog>\n  <LoggingSubSystem subsystem=\"" + subsystem +
           "\" subsystemId=\"" + std::to_string(subsystemId) + "\" module=\"" + module +
           "\" moduleid=\"" + std::to_string(moduleId) + "\" binlogversion=\"" +
           std::to_string(version) + "\"/>\n" + body + "</BinLog>\n";
}

// One "LogId" element with one unsigned 8-bit parameter "p".
std::string logIdXml(const std::string& name, const std::string& logString) {
    return "  <LogId name=\"" + name + "\" logString=\"" + logString +
           "\" category=\"DIAG\">\n    <Param type=\"TavUint8_t\" nameList=\"p\"/>\n  </LogId>\n";
}

const char kBindisplayXml[] =
    "<?xml version=\"1.0\"?>\n<displays>\n  <enum name=\"Colors\">\n"
    "    <entry value=\"1\" text=\"RED\"/>\n    <entry value=\"2\" text=\"GREEN\"/>\n"
    "  </enum>\n</displays>\n";

const char kMalformedXml[] = "<?xml version=\"1.0\"?>\n<BinLog>\n  <LoggingSubSystem\n";

// What libxml2 itself prints on standard error when it is asked to read
// `path` (its own diagnostics of a broken or missing file precede ours).
std::string libxmlNoise(const std::string& path) {
    StderrCapture capture;
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, 0);
    if (doc != nullptr) {
        xmlFreeDoc(doc);
    }
    xmlCleanupParser();
    return capture.stop();
}

// `names` (entries of `dir`) rearranged into the order the directory yields them.
std::vector<std::string> inDirectoryOrder(const TempDir& dir, std::vector<std::string> names) {
    const std::vector<std::string> listing = listDirectory(dir.path());
    auto position = [&listing](const std::string& name) {
        return std::find(listing.begin(), listing.end(), name) - listing.begin();
    };
    std::sort(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
        return position(a) < position(b);
    });
    return names;
}

int openDescriptorCount() {
    int count = 0;
    for (const std::string& name : listDirectory("/proc/self/fd")) {
        if (name != "." && name != "..") {
            ++count;
        }
    }
    return count;
}

const std::map<std::uint16_t, std::string> kLevelNames = {
    {0, ""},     {1, "CRITICAL"}, {2, "ERROR"}, {3, "WARN"},  {4, "NOTICE"},
    {5, "INFO"}, {6, "DEBUG"},    {7, "DEVEL"}, {8, "ALWAYS"}};

}  // namespace

TEST(ReaderLoading, SuccessfulConstructionStoresOptionsAndLoadsEverything) {
    TempDir dir;
    dir.writeFile(
        "core_binlog.xml",
        binlogXml(1, 2, "Core", "Sched", 7,
                  "  <ModuleHeader>\n    <Field type=\"TavUint16_t\" nameList=\"cell\"/>\n"
                  "  </ModuleHeader>\n" +
                      logIdXml("First", "one {p}") + logIdXml("Second", "two {p}")));
    dir.writeFile("colors_bindisplay.xml", kBindisplayXml);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), true, 4321, 77);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.xmlPath, dir.slash());
    EXPECT_TRUE(reader.statsEnabled);
    EXPECT_EQ(reader.udpPort, 4321);
    EXPECT_EQ(reader.maxVarBinaryBytes, 77);
    EXPECT_EQ(reader.nextLogIndex, 1);
    EXPECT_EQ(reader.binLogFiles, std::vector<std::string>{dir.slash() + "core_binlog.xml"});
    EXPECT_EQ(reader.binDisplayFiles,
              std::vector<std::string>{dir.slash() + "colors_bindisplay.xml"});

    // Subsystem 1, module 2: the file is filed under key 0x0102.
    ASSERT_EQ(reader.moduleDetailsMap.size(), 1u);
    ASSERT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
    const Tav::ModuleDetails& module = reader.moduleDetailsMap.at(0x0102);
    EXPECT_EQ(module.subsystemName, "Core");
    EXPECT_EQ(module.moduleName, "Sched");
    EXPECT_EQ(module.binlogVersion, 7);
    EXPECT_TRUE(module.hasModuleHeader);
    ASSERT_EQ(module.uint16Params.size(), 1u);
    EXPECT_EQ(module.uint16Params[0].name, "cell");
    EXPECT_EQ(module.headerPadding, 2u);  // two header bytes, padded to four
    EXPECT_EQ(module.paramOrder, std::vector<std::string>{"cell"});

    ASSERT_EQ(reader.logDetailsMap.size(), 1u);
    ASSERT_EQ(reader.logDetailsMap.count(0x0102), 1u);
    const auto& logs = reader.logDetailsMap.at(0x0102);
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs.at(1).logName, "First");
    EXPECT_EQ(logs.at(1).logString, "one {p}");
    EXPECT_EQ(logs.at(1).category, "DIAG");
    EXPECT_EQ(logs.at(1).logIndex, 1);
    EXPECT_EQ(logs.at(2).logName, "Second");
    EXPECT_EQ(logs.at(2).logIndex, 2);

    EXPECT_TRUE(reader.displayFormatter.initialized);
    ASSERT_EQ(reader.displayFormatter.displayFormats.count("Colors"), 1u);
    EXPECT_EQ(reader.displayFormatter.displayFormats.at("Colors"),
              (std::map<std::string, std::string>{{"1", "RED"}, {"2", "GREEN"}}));

    EXPECT_EQ(reader.logLevelNames, kLevelNames);
}

TEST(ReaderLoading, LevelNameTableHasExactlyNineEntriesAfterSuccess) {
    TempDir dir;
    dir.writeFile("m_binlog.xml", binlogXml(3, 4, "S", "M", 1, logIdXml("L", "text")));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    ASSERT_TRUE(reader.isGood());
    ASSERT_EQ(reader.logLevelNames.size(), 9u);
    ASSERT_EQ(reader.logLevelNames.count(0), 1u);
    EXPECT_EQ(reader.logLevelNames.at(0), "");
    EXPECT_EQ(reader.logLevelNames.at(1), "CRITICAL");
    EXPECT_EQ(reader.logLevelNames.at(2), "ERROR");
    EXPECT_EQ(reader.logLevelNames.at(3), "WARN");
    EXPECT_EQ(reader.logLevelNames.at(4), "NOTICE");
    EXPECT_EQ(reader.logLevelNames.at(5), "INFO");
    EXPECT_EQ(reader.logLevelNames.at(6), "DEBUG");
    EXPECT_EQ(reader.logLevelNames.at(7), "DEVEL");
    EXPECT_EQ(reader.logLevelNames.at(8), "ALWAYS");
    EXPECT_EQ(reader.logLevelNames.count(9), 0u);
}

TEST(ReaderLoading, OnlyBindisplayFilesFailTheScanAndLeaveTheLevelTableEmpty) {
    TempDir dir;
    dir.writeFile("a_bindisplay.xml", kBindisplayXml);
    dir.writeFile("b_BinDisplay.xml", kBindisplayXml);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "Error no xml files found for binary logging in" + kTwentyBlanks + dir.slash());

    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.logLevelNames.empty());
    EXPECT_TRUE(reader.binLogFiles.empty());
    EXPECT_TRUE(reader.moduleDetailsMap.empty());
    EXPECT_TRUE(reader.logDetailsMap.empty());
    // The scan stops the construction before anything is loaded.
    EXPECT_FALSE(reader.displayFormatter.initialized);
    EXPECT_TRUE(reader.displayFormatter.displayFormats.empty());
}

TEST(ReaderLoading, SecondFileWithTheSameModuleKeyReplacesTheFirst) {
    TempDir dir;
    dir.writeFile("one_binlog.xml", "");
    dir.writeFile("two_binlog.xml", "");
    const std::vector<std::string> order =
        inDirectoryOrder(dir, {"one_binlog.xml", "two_binlog.xml"});
    // The file read first has a module header and two logs; the one read
    // second (same subsystem and module ids) has neither header nor second log.
    dir.writeFile(
        order[0],
        binlogXml(1, 2, "Alpha", "ModA", 3,
                  "  <ModuleHeader>\n    <Field type=\"TavUint16_t\" nameList=\"cell\"/>\n"
                  "  </ModuleHeader>\n" +
                      logIdXml("A1", "alpha one") + logIdXml("A2", "alpha two")));
    dir.writeFile(order[1], binlogXml(1, 2, "Beta", "ModB", 4, logIdXml("B1", "beta one")));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    ASSERT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles,
              (std::vector<std::string>{dir.slash() + order[0], dir.slash() + order[1]}));

    ASSERT_EQ(reader.moduleDetailsMap.size(), 1u);
    ASSERT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
    const Tav::ModuleDetails& module = reader.moduleDetailsMap.at(0x0102);
    EXPECT_EQ(module.subsystemName, "Beta");
    EXPECT_EQ(module.moduleName, "ModB");
    EXPECT_EQ(module.binlogVersion, 4);
    EXPECT_FALSE(module.hasModuleHeader);
    EXPECT_TRUE(module.uint16Params.empty());
    EXPECT_TRUE(module.paramOrder.empty());
    EXPECT_EQ(module.headerPadding, 0u);

    ASSERT_EQ(reader.logDetailsMap.size(), 1u);
    const auto& logs = reader.logDetailsMap.at(0x0102);
    ASSERT_EQ(logs.size(), 1u);  // replaced, not merged: the first file's log 2 is gone
    EXPECT_EQ(logs.at(1).logName, "B1");
    EXPECT_EQ(logs.at(1).logString, "beta one");
    EXPECT_EQ(logs.at(1).logIndex, 1);
}

TEST(ReaderLoading, UnparsableSecondBinlogFileFailsAndKeepsTheFirstFilesEntries) {
    TempDir dir;
    dir.writeFile("p_binlog.xml", "");
    dir.writeFile("q_binlog.xml", "");
    dir.writeFile("colors_bindisplay.xml", kBindisplayXml);
    const std::vector<std::string> order = inDirectoryOrder(dir, {"p_binlog.xml", "q_binlog.xml"});
    dir.writeFile(order[0], binlogXml(1, 2, "Core", "Sched", 1,
                                      logIdXml("First", "one") + logIdXml("Second", "two")));
    dir.writeFile(order[1], kMalformedXml);
    const std::string broken = dir.slash() + order[1];
    const std::string noise = libxmlNoise(broken);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), noise + "Error parsing file :" + broken);

    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.logLevelNames.empty());
    ASSERT_EQ(reader.moduleDetailsMap.size(), 1u);
    ASSERT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
    EXPECT_EQ(reader.moduleDetailsMap.at(0x0102).subsystemName, "Core");
    EXPECT_EQ(reader.moduleDetailsMap.at(0x0102).moduleName, "Sched");
    ASSERT_EQ(reader.logDetailsMap.size(), 1u);
    const auto& logs = reader.logDetailsMap.at(0x0102);
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs.at(1).logName, "First");
    EXPECT_EQ(logs.at(2).logName, "Second");
    // The index was reset after the first file and the second never got parsed.
    EXPECT_EQ(reader.nextLogIndex, 1);
    // A binlog failure stops the loading before the display enumerations.
    EXPECT_FALSE(reader.displayFormatter.initialized);
    EXPECT_TRUE(reader.displayFormatter.displayFormats.empty());
}

TEST(ReaderLoading, RejectedSecondBinlogFileFailsAndKeepsTheFirstFilesEntries) {
    TempDir dir;
    dir.writeFile("p_binlog.xml", "");
    dir.writeFile("q_binlog.xml", "");
    dir.writeFile("colors_bindisplay.xml", kBindisplayXml);
    const std::vector<std::string> order = inDirectoryOrder(dir, {"p_binlog.xml", "q_binlog.xml"});
    dir.writeFile(order[0], binlogXml(1, 2, "Core", "Sched", 1, logIdXml("First", "one")));
    // Well-formed, but its second log lacks the mandatory "category"; the log
    // before it parsed and advanced the running index.
    dir.writeFile(order[1], binlogXml(5, 6, "Other", "Mod", 1,
                                      logIdXml("Good", "fine") +
                                          "  <LogId name=\"Bad\" logString=\"no category\"/>\n"));
    const std::string rejected = dir.slash() + order[1];

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "Mandatory params in the LogId node missing\nError in parseLogId"
              "Error in parseBinLogXmlError parseBinLogXml failed for :" +
                  rejected);

    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.logLevelNames.empty());
    // Only the first file was filed; the second file's partial results are dropped.
    ASSERT_EQ(reader.moduleDetailsMap.size(), 1u);
    ASSERT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
    EXPECT_EQ(reader.moduleDetailsMap.count(0x0506), 0u);
    ASSERT_EQ(reader.logDetailsMap.size(), 1u);
    ASSERT_EQ(reader.logDetailsMap.at(0x0102).size(), 1u);
    EXPECT_EQ(reader.logDetailsMap.at(0x0102).at(1).logName, "First");
    // The failing file returned before the index was reset: its one good log
    // moved it from 1 to 2.
    EXPECT_EQ(reader.nextLogIndex, 2);
    EXPECT_FALSE(reader.displayFormatter.initialized);
    EXPECT_TRUE(reader.displayFormatter.displayFormats.empty());
}

TEST(ReaderLoading, UnparsableBindisplayFileKeepsTheReaderGood) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", binlogXml(1, 2, "Core", "Sched", 1, logIdXml("L", "x")));
    const std::string broken =
        dir.writeFile("broken_bindisplay.xml", "<displays><enum name=\"a\">");
    const std::string noise = libxmlNoise(broken);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), noise + "Error parsing file :" + broken);

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.logLevelNames, kLevelNames);
    EXPECT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
    EXPECT_FALSE(reader.displayFormatter.initialized);
}

TEST(ReaderLoading, RejectedBindisplayFileKeepsTheReaderGood) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", binlogXml(1, 2, "Core", "Sched", 1, logIdXml("L", "x")));
    // Well-formed, but the enumeration has no attributes at all.
    const std::string rejected = dir.writeFile(
        "bad_bindisplay.xml", "<?xml version=\"1.0\"?>\n<displays><enum/></displays>\n");

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "No attributes found on enum node\nError in parseEnumNodesError in parseDisplayXml"
              "Error parseDisplayXml failed for :" +
                  rejected);

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.logLevelNames, kLevelNames);
    EXPECT_FALSE(reader.displayFormatter.initialized);
}

TEST(ReaderLoading, NoBindisplayFileStillInitialisesTheEnumerations) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", binlogXml(1, 2, "Core", "Sched", 1, logIdXml("L", "x")));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_TRUE(reader.binDisplayFiles.empty());
    EXPECT_TRUE(reader.displayFormatter.initialized);
    EXPECT_TRUE(reader.displayFormatter.displayFormats.empty());
}

TEST(ReaderLoading, LevelNameTableIsEmptyAfterEveryKindOfFailure) {
    TempDir missingParent;
    TempDir onlyDisplay;
    onlyDisplay.writeFile("x_bindisplay.xml", kBindisplayXml);
    TempDir unparsable;
    unparsable.writeFile("x_binlog.xml", kMalformedXml);
    TempDir rejected;
    rejected.writeFile("x_binlog.xml", binlogXml(1, 2, "S", "M", 1, "  <LogId/>\n"));

    const std::vector<std::string> paths = {"", missingParent.slash() + "absent/",
                                            onlyDisplay.slash(), unparsable.slash(),
                                            rejected.slash()};
    for (const std::string& path : paths) {
        StderrCapture capture;
        BinaryLogXmlReader reader(path, false, 0, 0);
        const std::string messages = capture.stop();
        EXPECT_FALSE(reader.isGood()) << "xmlPath [" << path << "]";
        EXPECT_TRUE(reader.logLevelNames.empty()) << "xmlPath [" << path << "]";
        EXPECT_FALSE(messages.empty()) << "xmlPath [" << path << "]";
    }
}

TEST(ReaderLoading, LogIndicesRestartAtOneInEachBinlogFile) {
    TempDir dir;
    dir.writeFile("a_binlog.xml",
                  binlogXml(1, 1, "S", "A", 1,
                            logIdXml("A1", "a1") + "  <Group>\n" + logIdXml("A2", "a2") +
                                "  </Group>\n" + logIdXml("A3", "a3")));
    dir.writeFile("b_binlog.xml",
                  binlogXml(2, 1, "S", "B", 1, logIdXml("B1", "b1") + logIdXml("B2", "b2")));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    ASSERT_TRUE(reader.isGood());
    EXPECT_EQ(reader.nextLogIndex, 1);
    ASSERT_EQ(reader.logDetailsMap.size(), 2u);
    ASSERT_EQ(reader.logDetailsMap.count(0x0101), 1u);
    ASSERT_EQ(reader.logDetailsMap.count(0x0201), 1u);

    const auto& a = reader.logDetailsMap.at(0x0101);
    ASSERT_EQ(a.size(), 3u);
    const std::vector<std::string> aNames = {"A1", "A2", "A3"};
    std::uint16_t expected = 1;
    for (const auto& entry : a) {
        EXPECT_EQ(entry.first, expected);
        EXPECT_EQ(entry.second.logIndex, expected);
        EXPECT_EQ(entry.second.logName, aNames[expected - 1]);
        ++expected;
    }

    const auto& b = reader.logDetailsMap.at(0x0201);
    ASSERT_EQ(b.size(), 2u);
    EXPECT_EQ(b.at(1).logName, "B1");
    EXPECT_EQ(b.at(1).logIndex, 1);
    EXPECT_EQ(b.at(2).logName, "B2");
    EXPECT_EQ(b.at(2).logIndex, 2);
}

TEST(ReaderLoading, EveryBinlogFileIsLoadedInDirectoryOrder) {
    TempDir dir;
    std::vector<std::string> names;
    for (int i = 1; i <= 6; ++i) {
        const std::string name = "mod" + std::to_string(i) + "_binlog.xml";
        dir.writeFile(name, binlogXml(9, i, "Sub", "Mod" + std::to_string(i), i,
                                      logIdXml("L" + std::to_string(i), "text")));
        names.push_back(name);
    }
    std::vector<std::string> expectedFiles;
    for (const std::string& name : inDirectoryOrder(dir, names)) {
        expectedFiles.push_back(dir.slash() + name);
    }

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    ASSERT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles, expectedFiles);
    ASSERT_EQ(reader.moduleDetailsMap.size(), 6u);
    for (int i = 1; i <= 6; ++i) {
        const std::uint16_t key = static_cast<std::uint16_t>((9 << 8) | i);
        ASSERT_EQ(reader.moduleDetailsMap.count(key), 1u) << i;
        EXPECT_EQ(reader.moduleDetailsMap.at(key).moduleName, "Mod" + std::to_string(i));
        EXPECT_EQ(reader.moduleDetailsMap.at(key).binlogVersion, i);
        ASSERT_EQ(reader.logDetailsMap.at(key).size(), 1u);
        EXPECT_EQ(reader.logDetailsMap.at(key).at(1).logName, "L" + std::to_string(i));
    }
}

TEST(ReaderLoading, NoDescriptorLeaksAfterManyConstructions) {
    TempDir missingParent;
    TempDir good;
    good.writeFile("core_binlog.xml", binlogXml(1, 2, "Core", "Sched", 1, logIdXml("L", "x")));
    good.writeFile("colors_bindisplay.xml", kBindisplayXml);
    TempDir onlyDisplay;
    onlyDisplay.writeFile("x_bindisplay.xml", kBindisplayXml);
    TempDir unparsable;
    unparsable.writeFile("a_binlog.xml", binlogXml(1, 2, "S", "M", 1, logIdXml("L", "x")));
    unparsable.writeFile("b_binlog.xml", kMalformedXml);
    TempDir rejected;
    rejected.writeFile("x_binlog.xml", binlogXml(1, 2, "S", "M", 1, "  <LogId name=\"n\"/>\n"));
    TempDir badDisplay;
    badDisplay.writeFile("core_binlog.xml", binlogXml(1, 2, "S", "M", 1, logIdXml("L", "x")));
    badDisplay.writeFile("x_bindisplay.xml", "<displays>");

    const std::vector<std::string> paths = {"",
                                            missingParent.slash() + "absent/",
                                            good.slash(),
                                            onlyDisplay.slash(),
                                            unparsable.slash(),
                                            rejected.slash(),
                                            badDisplay.slash(),
                                            good.path()};

    const int before = openDescriptorCount();
    int goodCount = 0;
    {
        StderrCapture capture;
        for (int round = 0; round < 200; ++round) {
            for (const std::string& path : paths) {
                BinaryLogXmlReader reader(path, false, 0, 0);
                goodCount += reader.isGood() ? 1 : 0;
            }
        }
        capture.stop();
    }
    EXPECT_EQ(openDescriptorCount(), before);
    // The good directory and the one with a broken enumeration file succeed.
    EXPECT_EQ(goodCount, 400);
}

namespace {

// An input scheme of a program that uses libxml2 itself: "mem:" documents
// served from memory through its own input callbacks.
const char kMemDocument[] = "<note>kept</note>";
std::size_t memRead = 0;
int memMatch(const char* uri) {
    return std::string(uri).compare(0, 4, "mem:") == 0 ? 1 : 0;
}
void* memOpen(const char*) {
    memRead = 0;
    return &memRead;
}
int memReadBytes(void*, char* buffer, int length) {
    const std::size_t left = sizeof kMemDocument - 1 - memRead;
    const std::size_t take = std::min(left, static_cast<std::size_t>(length));
    std::copy(kMemDocument + memRead, kMemDocument + memRead + take, buffer);
    memRead += take;
    return static_cast<int>(take);
}
int memClose(void*) {
    return 0;
}

}  // namespace

TEST(ReaderLoading, LoadingLeavesLibxml2sGlobalStateToTheProgram) {
    // A program initialises libxml2 and registers its own input callbacks;
    // constructing a reader in between must not tear them down (which
    // xmlCleanupParser would do).
    xmlInitParser();
    ASSERT_GE(xmlRegisterInputCallbacks(memMatch, memOpen, memReadBytes, memClose), 0);
    struct Unregister {
        ~Unregister() { xmlPopInputCallbacks(); }
    } unregister;
    xmlDoc* before = xmlReadFile("mem:first", nullptr, 0);
    ASSERT_NE(before, nullptr);
    xmlFreeDoc(before);

    TempDir dir;
    dir.writeFile("a_binlog.xml", binlogXml(1, 2, "SYS", "mod", 1, logIdXml("L1", "x")));
    dir.writeFile("b_bindisplay.xml", kBindisplayXml);
    BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());

    xmlDoc* after = xmlReadFile("mem:second", nullptr, 0);
    ASSERT_NE(after, nullptr) << "the program's input callbacks are gone";
    xmlNode* root = xmlDocGetRootElement(after);
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(reinterpret_cast<const char*>(root->name), "note");
    xmlFreeDoc(after);
}

TEST(ReaderLoading, RebuildPlansAfterChangingTheDictionary) {
    TempDir dir;
    dir.writeFile("a_binlog.xml",
                  binlogXml(1, 2, "SYS", "mod", 1, logIdXml("L1", "value {p} here")));
    BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());
    Tav::PcapRecHeader pcap;
    pcap.tsSec = 1700000000;
    Tav::BinLogHeader header;
    header.logId = 0x01020001;
    header.logVersion = 1;
    header.logLevel = 5;
    header.seqNo = 3;
    const unsigned char payload[1] = {42};
    auto line = [&] {
        wexbl_test::MemoryStream out;
        reader.getLogDetailsForLogId(pcap, header, Tav::ByteReader(payload, 1), 17, out.file(), 0);
        return out.text();
    };
    const std::string start =
        "[2023-11-14T22:13:20.000Z] [   SYS:mod] [                       L1] "
        "[    INFO] [      DIAG] [3] [";
    EXPECT_EQ(line(), start + "value p=42 here] \n");
    // A program changes a log string and a log name, and says so.
    reader.logDetailsMap[0x0102][1].logString = "now {p}!";
    reader.logDetailsMap[0x0102][1].logName = "Renamed";
    reader.rebuildPlans();
    EXPECT_EQ(line(),
              "[2023-11-14T22:13:20.000Z] [   SYS:mod] [                  Renamed] "
              "[    INFO] [      DIAG] [3] [now p=42!] \n");
    // A log added by hand is decoded too.
    Tav::LogDetails added = reader.logDetailsMap[0x0102][1];
    added.logName = "Added";
    added.logString = "plain";
    reader.logDetailsMap[0x0102][7] = added;
    reader.rebuildPlans();
    header.logId = 0x01020007;
    EXPECT_EQ(line(),
              "[2023-11-14T22:13:20.000Z] [   SYS:mod] [                    Added] "
              "[    INFO] [      DIAG] [3] [plain p=42 ] \n");
}
