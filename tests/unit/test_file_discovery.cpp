// Discovery of the dictionary files in the reader's directory and expansion of
// capture directories into capture file lists.
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <algorithm>
#include <cstdio>
#include <memory>
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

// A valid binlog dictionary with one log.
std::string binlogXml(int subsystemId, int moduleId) {
    return "<?xml version=\"1.0\"?>\n<BinLog>\n  <LoggingSubSystem subsystem=\"S\" subsystemId=\"" +
           std::to_string(subsystemId) + "\" module=\"M\" moduleid=\"" + std::to_string(moduleId) +
           "\" binlogversion=\"1\"/>\n  <LogId name=\"L\" logString=\"text\" category=\"C\"/>\n"
           "</BinLog>\n";
}

const char kBindisplayXml[] =
    "<?xml version=\"1.0\"?>\n<displays><enum name=\"E\"><e value=\"1\" text=\"one\"/></enum>"
    "</displays>\n";

// What libxml2 itself prints on standard error when asked to read `path`.
std::string libxmlNoise(const std::string& path) {
    StderrCapture capture;
    xmlDoc* doc = xmlReadFile(path.c_str(), nullptr, 0);
    if (doc != nullptr) {
        xmlFreeDoc(doc);
    }
    xmlCleanupParser();
    return capture.stop();
}

// The entries of `dir` that `keep` accepts, in the order the directory yields them.
template <typename Pred>
std::vector<std::string> entriesInOrder(const std::string& dir, Pred keep) {
    std::vector<std::string> kept;
    for (const std::string& name : listDirectory(dir)) {
        if (keep(name)) {
            kept.push_back(name);
        }
    }
    return kept;
}

std::vector<std::string> prefixed(const std::string& prefix,
                                  const std::vector<std::string>& names) {
    std::vector<std::string> paths;
    for (const std::string& name : names) {
        paths.push_back(prefix + name);
    }
    return paths;
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

// A reader whose construction failed (empty dictionary path); getFileList
// does not depend on the dictionaries.
struct FailedReader {
    FailedReader() {
        StderrCapture capture;
        reader = std::make_unique<BinaryLogXmlReader>("", false, 0, 0);
        messages = capture.stop();
    }
    std::unique_ptr<BinaryLogXmlReader> reader;
    std::string messages;
};

}  // namespace

// ---- Dictionary discovery ---------------------------------------------------

TEST(DictionaryDiscovery, SortsBinlogAndBindisplayFilesAndIgnoresTheRest) {
    TempDir dir;
    dir.writeFile("core_BinLog.xml", binlogXml(1, 2));
    dir.writeFile("enums_bindisplay.xml", kBindisplayXml);
    dir.writeFile("readme.txt", "not a dictionary");

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles, std::vector<std::string>{dir.slash() + "core_BinLog.xml"});
    EXPECT_EQ(reader.binDisplayFiles,
              std::vector<std::string>{dir.slash() + "enums_bindisplay.xml"});
}

TEST(DictionaryDiscovery, PathWithoutTrailingSlashIsConcatenatedAsIs) {
    TempDir dir;
    dir.writeFile("core_BinLog.xml", binlogXml(1, 2));
    const std::string joined = dir.path() + "core_BinLog.xml";  // "/tmp/xcore_BinLog.xml"
    const std::string noise = libxmlNoise(joined);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.path(), false, 0, 0);
    EXPECT_EQ(capture.stop(), noise + "Error parsing file :" + joined);

    EXPECT_FALSE(reader.isGood());
    EXPECT_EQ(reader.xmlPath, dir.path());
    EXPECT_EQ(reader.binLogFiles, std::vector<std::string>{joined});
    EXPECT_TRUE(reader.logLevelNames.empty());
    EXPECT_TRUE(reader.moduleDetailsMap.empty());
}

TEST(DictionaryDiscovery, XmlSuffixIsCaseSensitive) {
    TempDir dir;
    dir.writeFile("BINLOG.XML", binlogXml(1, 1));
    dir.writeFile("x.BinLog.xml", binlogXml(1, 2));
    dir.writeFile("core_binlog.Xml", binlogXml(1, 3));
    dir.writeFile("ENUMS_BINDISPLAY.XML", kBindisplayXml);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles, std::vector<std::string>{dir.slash() + "x.BinLog.xml"});
    EXPECT_TRUE(reader.binDisplayFiles.empty());
    EXPECT_EQ(reader.moduleDetailsMap.size(), 1u);
    EXPECT_EQ(reader.moduleDetailsMap.count(0x0102), 1u);
}

TEST(DictionaryDiscovery, UpperCaseXmlSuffixAloneFindsNoBinlogFile) {
    TempDir dir;
    dir.writeFile("BINLOG.XML", binlogXml(1, 1));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "Error no xml files found for binary logging in" + kTwentyBlanks + dir.slash());
    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.binLogFiles.empty());
}

TEST(DictionaryDiscovery, KindWordsIgnoreCaseAndBinlogWinsOverBindisplay) {
    TempDir dir;
    dir.writeFile("mod_bInLoG.xml", binlogXml(1, 1));
    dir.writeFile("binlog_bindisplay.xml", binlogXml(1, 2));
    dir.writeFile("BINDISPLAY-BINLOG.xml", binlogXml(1, 3));
    dir.writeFile("core_binlog.xml.bak", binlogXml(1, 4));
    dir.writeFile("Colors_BinDisplay.xml", kBindisplayXml);
    dir.writeFile("states_BINDISPLAY.xml.old", kBindisplayXml);
    dir.writeFile("other.xml", "<unrelated/>");
    dir.writeFile("binlog.txt", "no xml suffix");
    dir.writeFile("bin_log.xml", "neither word");

    const std::vector<std::string> binlogNames = {"mod_bInLoG.xml", "binlog_bindisplay.xml",
                                                  "BINDISPLAY-BINLOG.xml", "core_binlog.xml.bak"};
    const std::vector<std::string> displayNames = {"Colors_BinDisplay.xml",
                                                   "states_BINDISPLAY.xml.old"};
    auto among = [](const std::vector<std::string>& set) {
        return [&set](const std::string& name) {
            return std::find(set.begin(), set.end(), name) != set.end();
        };
    };
    const std::vector<std::string> expectedBinlog =
        prefixed(dir.slash(), entriesInOrder(dir.path(), among(binlogNames)));
    const std::vector<std::string> expectedDisplay =
        prefixed(dir.slash(), entriesInOrder(dir.path(), among(displayNames)));

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles, expectedBinlog);
    EXPECT_EQ(reader.binDisplayFiles, expectedDisplay);
    EXPECT_EQ(reader.moduleDetailsMap.size(), 4u);
    EXPECT_TRUE(reader.displayFormatter.initialized);
}

TEST(DictionaryDiscovery, OnlyBindisplayFilesGiveTheTwentyBlankMessage) {
    TempDir dir;
    dir.writeFile("a_bindisplay.xml", kBindisplayXml);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "Error no xml files found for binary logging in                    " + dir.slash());

    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.binLogFiles.empty());
    // The scan itself completed; only the missing binlog file fails it.
    EXPECT_EQ(reader.binDisplayFiles, std::vector<std::string>{dir.slash() + "a_bindisplay.xml"});
    EXPECT_TRUE(reader.logLevelNames.empty());
}

TEST(DictionaryDiscovery, EmptyDirectoryFindsNoBinlogFile) {
    TempDir dir;

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(),
              "Error no xml files found for binary logging in" + kTwentyBlanks + dir.slash());
    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.binDisplayFiles.empty());
}

TEST(DictionaryDiscovery, EmptyPathIsRejected) {
    StderrCapture capture;
    BinaryLogXmlReader reader("", false, 0, 0);
    EXPECT_EQ(capture.stop(), "Invalid xmlPath provided as input\n");
    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.binLogFiles.empty());
    EXPECT_TRUE(reader.logLevelNames.empty());
}

TEST(DictionaryDiscovery, MissingDirectoryCannotBeOpened) {
    TempDir dir;
    const std::string missing = dir.slash() + "absent/";

    StderrCapture capture;
    BinaryLogXmlReader reader(missing, false, 0, 0);
    EXPECT_EQ(capture.stop(), "Error in opening directory " + missing + " ");
    EXPECT_FALSE(reader.isGood());
    EXPECT_TRUE(reader.binLogFiles.empty());
    EXPECT_TRUE(reader.logLevelNames.empty());
}

TEST(DictionaryDiscovery, PlainFileCannotBeOpenedAsDirectory) {
    TempDir dir;
    const std::string file = dir.writeFile("core_binlog.xml", binlogXml(1, 2));

    StderrCapture capture;
    BinaryLogXmlReader reader(file, false, 0, 0);
    EXPECT_EQ(capture.stop(), "Error in opening directory " + file + " ");
    EXPECT_FALSE(reader.isGood());
}

TEST(DictionaryDiscovery, FilesAreListedInDirectoryOrder) {
    TempDir dir;
    for (int i = 0; i < 12; ++i) {
        dir.writeFile("m" + std::to_string(i) + "_binlog.xml", binlogXml(2, i));
        dir.writeFile("e" + std::to_string(i) + "_bindisplay.xml", kBindisplayXml);
    }
    auto contains = [](const char* word) {
        return [word](const std::string& name) { return name.find(word) != std::string::npos; };
    };
    const std::vector<std::string> expectedBinlog =
        prefixed(dir.slash(), entriesInOrder(dir.path(), contains("_binlog.xml")));
    const std::vector<std::string> expectedDisplay =
        prefixed(dir.slash(), entriesInOrder(dir.path(), contains("_bindisplay.xml")));
    ASSERT_EQ(expectedBinlog.size(), 12u);
    ASSERT_EQ(expectedDisplay.size(), 12u);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_TRUE(reader.isGood());
    EXPECT_EQ(reader.binLogFiles, expectedBinlog);
    EXPECT_EQ(reader.binDisplayFiles, expectedDisplay);
}

TEST(DictionaryDiscovery, EntryTypeIsNotLookedAt) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", binlogXml(1, 2));
    dir.makeDir("nested_binlog.xml");
    const std::string nested = dir.slash() + "nested_binlog.xml";
    const std::vector<std::string> expected =
        prefixed(dir.slash(), entriesInOrder(dir.path(), [](const std::string& name) {
                     return name == "core_binlog.xml" || name == "nested_binlog.xml";
                 }));
    const std::string noise = libxmlNoise(nested);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    const std::string messages = capture.stop();

    // The subdirectory is taken by its name alone, and reading it fails.
    EXPECT_EQ(reader.binLogFiles, expected);
    EXPECT_FALSE(reader.isGood());
    EXPECT_EQ(messages, noise + "Error parsing file :" + nested);
}

TEST(DictionaryDiscovery, ScanAppendsToTheListsItFinds) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", binlogXml(1, 2));
    dir.writeFile("e_bindisplay.xml", kBindisplayXml);

    StderrCapture capture;
    BinaryLogXmlReader reader(dir.slash(), false, 0, 0);
    EXPECT_EQ(reader.getBinLogFilesFromDisk(), 0);
    EXPECT_EQ(capture.stop(), "");

    const std::string binlog = dir.slash() + "core_binlog.xml";
    const std::string display = dir.slash() + "e_bindisplay.xml";
    EXPECT_EQ(reader.binLogFiles, (std::vector<std::string>{binlog, binlog}));
    EXPECT_EQ(reader.binDisplayFiles, (std::vector<std::string>{display, display}));
}

// ---- Capture file lists -----------------------------------------------------

TEST(CaptureFileList, DirectoriesExpandToPcapGzEntriesAndFilesPassThrough) {
    TempDir caps;
    caps.writeFile("a.pcap.gz", "x");
    caps.writeFile("b.txt", "x");
    caps.writeFile("c.pcap.gz.old", "x");
    TempDir other;
    const std::string one = other.writeFile("one.pcap", "x");
    const std::vector<std::string> names = entriesInOrder(caps.path(), [](const std::string& name) {
        return name == "a.pcap.gz" || name == "c.pcap.gz.old";
    });
    ASSERT_EQ(names.size(), 2u);

    FailedReader failed;
    ASSERT_FALSE(failed.reader->isGood());
    std::vector<std::string> out;
    StderrCapture capture;
    EXPECT_EQ(failed.reader->getFileList({caps.path(), one}, out), 0);
    EXPECT_EQ(capture.stop(), "");

    EXPECT_EQ(out, (std::vector<std::string>{caps.path() + "/" + names[0],
                                             caps.path() + "/" + names[1], one}));
}

TEST(CaptureFileList, TrailingSlashGivesADoubledSeparator) {
    TempDir caps;
    caps.writeFile("a.pcap.gz", "x");

    FailedReader failed;
    std::vector<std::string> out;
    EXPECT_EQ(failed.reader->getFileList({caps.slash()}, out), 0);
    EXPECT_EQ(out, std::vector<std::string>{caps.path() + "//a.pcap.gz"});
}

TEST(CaptureFileList, NameTestIsACaseSensitiveSubstringAndSubdirectoriesAreNotEntered) {
    TempDir caps;
    caps.writeFile("plain.pcap.gz", "x");
    caps.writeFile("pcap.gz", "x");
    caps.writeFile("x.pcap.gz.part", "x");
    caps.writeFile("UPPER.PCAP.GZ", "x");
    caps.writeFile("mixed.Pcap.gz", "x");
    caps.writeFile("nodot.pcapgz", "x");
    caps.writeFile("raw.pcap", "x");
    caps.makeDir("sub.pcap.gz");
    const std::string inner = caps.makeDir("inner");
    {
        std::FILE* f = std::fopen((inner + "/deep.pcap.gz").c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fclose(f);
    }
    const std::vector<std::string> expected =
        prefixed(caps.slash(), entriesInOrder(caps.path(), [](const std::string& name) {
                     return name == "plain.pcap.gz" || name == "pcap.gz" ||
                            name == "x.pcap.gz.part" || name == "sub.pcap.gz";
                 }));
    ASSERT_EQ(expected.size(), 4u);

    FailedReader failed;
    std::vector<std::string> out;
    EXPECT_EQ(failed.reader->getFileList({caps.path()}, out), 0);
    EXPECT_EQ(out, expected);
}

TEST(CaptureFileList, MissingPathsAndPlainFilesPassThroughUnchanged) {
    TempDir dir;
    const std::string text = dir.writeFile("notes.txt", "x");
    const std::vector<std::string> inputs = {dir.slash() + "missing.pcap.gz", text,
                                             dir.slash() + "missing/dir/", "", "relative-missing"};

    FailedReader failed;
    std::vector<std::string> out;
    StderrCapture capture;
    EXPECT_EQ(failed.reader->getFileList(inputs, out), 0);
    EXPECT_EQ(capture.stop(), "");
    EXPECT_EQ(out, inputs);
}

TEST(CaptureFileList, EmptyInputLeavesTheOutputUntouched) {
    FailedReader failed;
    std::vector<std::string> out = {"kept", "/also/kept"};
    EXPECT_EQ(failed.reader->getFileList({}, out), 0);
    EXPECT_EQ(out, (std::vector<std::string>{"kept", "/also/kept"}));

    std::vector<std::string> none;
    EXPECT_EQ(failed.reader->getFileList({}, none), 0);
    EXPECT_TRUE(none.empty());
}

TEST(CaptureFileList, AppendsInInputOrderWithoutClearing) {
    TempDir first;
    first.writeFile("1.pcap.gz", "x");
    TempDir second;
    second.writeFile("2.pcap.gz", "x");
    second.writeFile("3.pcap.gz", "x");
    const std::vector<std::string> secondNames = entriesInOrder(
        second.path(), [](const std::string& name) { return name != "." && name != ".."; });
    ASSERT_EQ(secondNames.size(), 2u);

    FailedReader failed;
    std::vector<std::string> out = {"earlier"};
    EXPECT_EQ(failed.reader->getFileList({second.path(), "/no/such/file", first.path()}, out), 0);
    EXPECT_EQ(out, (std::vector<std::string>{"earlier", second.path() + "/" + secondNames[0],
                                             second.path() + "/" + secondNames[1], "/no/such/file",
                                             first.path() + "/1.pcap.gz"}));

    // A second call appends behind the first call's results.
    EXPECT_EQ(failed.reader->getFileList({first.path()}, out), 0);
    ASSERT_EQ(out.size(), 6u);
    EXPECT_EQ(out.front(), "earlier");
    EXPECT_EQ(out.back(), first.path() + "/1.pcap.gz");
}

TEST(CaptureFileList, WorksTheSameOnAGoodReader) {
    TempDir dicts;
    dicts.writeFile("core_binlog.xml", binlogXml(1, 2));
    TempDir caps;
    caps.writeFile("a.pcap.gz", "x");

    StderrCapture capture;
    BinaryLogXmlReader reader(dicts.slash(), false, 0, 0);
    EXPECT_EQ(capture.stop(), "");
    ASSERT_TRUE(reader.isGood());

    FailedReader failed;
    std::vector<std::string> fromGood;
    std::vector<std::string> fromFailed;
    EXPECT_EQ(reader.getFileList({caps.path(), "/x.pcap"}, fromGood), 0);
    EXPECT_EQ(failed.reader->getFileList({caps.path(), "/x.pcap"}, fromFailed), 0);
    EXPECT_EQ(fromGood, (std::vector<std::string>{caps.path() + "/a.pcap.gz", "/x.pcap"}));
    EXPECT_EQ(fromFailed, fromGood);
}

TEST(CaptureFileList, FailedReaderReportedItsScanFailure) {
    FailedReader failed;
    EXPECT_FALSE(failed.reader->isGood());
    EXPECT_EQ(failed.messages, "Invalid xmlPath provided as input\n");
}

TEST(CaptureFileList, NoDescriptorLeaksAfterManyExpansions) {
    TempDir caps;
    caps.writeFile("a.pcap.gz", "x");
    caps.writeFile("b.txt", "x");
    TempDir other;
    const std::string file = other.writeFile("one.pcap", "x");

    FailedReader failed;
    const int before = openDescriptorCount();
    std::size_t total = 0;
    for (int round = 0; round < 200; ++round) {
        std::vector<std::string> out;
        failed.reader->getFileList({caps.path(), file, other.slash() + "missing", caps.slash()},
                                   out);
        total += out.size();
    }
    EXPECT_EQ(openDescriptorCount(), before);
    EXPECT_EQ(total, 200u * 4u);
}
