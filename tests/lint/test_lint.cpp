// The dictionary checker: one test dictionary per check (tests/lint/CHECK/)
// gives exactly the findings of its expected.txt, all of that check; the
// dictionary with every mistake at once gives all of them in file and line
// order; the typing mistakes a new user makes each give an error.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Lint.h"

namespace {

const std::string kLintDir = std::string(WEXBL_TEST_SOURCE_DIR) + "/lint";

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

/// The findings as text, with the directory left out of the file names
/// ("." for the directory itself).
std::vector<std::string> lintRelative(const std::string& dir) {
    std::vector<std::string> lines;
    for (wexbl_lint::Finding finding : wexbl_lint::lintDictionary(dir)) {
        if (finding.file == dir) {
            finding.file = ".";
        } else if (finding.file.compare(0, dir.size() + 1, dir + "/") == 0) {
            finding.file.erase(0, dir.size() + 1);
        }
        lines.push_back(wexbl_lint::formatText(finding));
    }
    return lines;
}

class CheckDictionary : public ::testing::TestWithParam<const char*> {};

TEST_P(CheckDictionary, GivesExactlyItsExpectedFindings) {
    const std::string check = GetParam();
    const std::string dir = kLintDir + "/" + check;
    const std::vector<std::string> expected = readLines(dir + "/expected.txt");
    ASSERT_FALSE(expected.empty()) << dir;
    EXPECT_EQ(lintRelative(dir), expected);
    for (const wexbl_lint::Finding& finding : wexbl_lint::lintDictionary(dir)) {
        EXPECT_EQ(finding.check, check) << wexbl_lint::formatText(finding);
    }
}

INSTANTIATE_TEST_SUITE_P(Lint, CheckDictionary,
                         ::testing::Values("xml-not-well-formed", "unreadable-file", "missing-file",
                                           "missing-element", "missing-attribute", "unknown-type",
                                           "bad-number", "unknown-display-format",
                                           "unknown-placeholder", "duplicate-parameter",
                                           "duplicate-subsystem", "record-too-large", "huge-count",
                                           "ignored-file", "leftover-file", "unshown-parameter",
                                           "unbalanced-braces", "duplicate-log-name",
                                           "enum-duplicate", "duplicate-module-header"),
                         [](const ::testing::TestParamInfo<const char*>& param) {
                             std::string name = param.param;
                             for (char& c : name) {
                                 if (c == '-') {
                                     c = '_';
                                 }
                             }
                             return name;
                         });

TEST(Lint, SeveritiesSplitAsDocumented) {
    const char* const errors[] = {
        "xml-not-well-formed", "unreadable-file",        "missing-file",
        "missing-element",     "missing-attribute",      "unknown-type",
        "bad-number",          "unknown-display-format", "unknown-placeholder",
        "duplicate-parameter", "duplicate-subsystem",    "record-too-large",
        "huge-count"};
    for (const char* check : errors) {
        const auto findings = wexbl_lint::lintDictionary(kLintDir + "/" + check);
        ASSERT_FALSE(findings.empty()) << check;
        EXPECT_TRUE(wexbl_lint::hasErrors(findings)) << check;
    }
    const char* const warnings[] = {
        "ignored-file",       "leftover-file",  "unshown-parameter",      "unbalanced-braces",
        "duplicate-log-name", "enum-duplicate", "duplicate-module-header"};
    for (const char* check : warnings) {
        const auto findings = wexbl_lint::lintDictionary(kLintDir + "/" + check);
        ASSERT_FALSE(findings.empty()) << check;
        EXPECT_FALSE(wexbl_lint::hasErrors(findings)) << check;
    }
}

TEST(Lint, EveryMistakeAtOnceInFileAndLineOrder) {
    const std::string dir = kLintDir + "/all-mistakes";
    const std::vector<std::string> expected = readLines(dir + "/expected.txt");
    ASSERT_EQ(expected.size(), 21u);
    EXPECT_EQ(lintRelative(dir), expected);
}

TEST(Lint, ReadmeExample) {
    const std::string dir = kLintDir + "/readme-example";
    EXPECT_EQ(lintRelative(dir), readLines(dir + "/expected.txt"));
}

/// The entry names of `dir` in the order the directory yields them.
std::vector<std::string> directoryOrder(const std::string& dir) {
    std::vector<std::string> names;
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
        return names;
    }
    while (const struct dirent* entry = readdir(handle)) {
        names.push_back(entry->d_name);
    }
    closedir(handle);
    return names;
}

TEST(Lint, DuplicateModuleKeyNamesTheFileReadLast) {
    // Which file wins depends on the directory order, as in the loader.
    const std::string dir = kLintDir + "/duplicate-module-key";
    std::vector<std::string> binlogs;
    for (const std::string& name : directoryOrder(dir)) {
        if (name == "a_binlog.xml" || name == "b_binlog.xml") {
            binlogs.push_back(name);
        }
    }
    ASSERT_EQ(binlogs.size(), 2u);
    std::vector<std::string> expected = readLines(dir + "/expected.txt");
    ASSERT_EQ(expected.size(), 1u);
    expected[0].replace(expected[0].find("@SECOND@"), 8, binlogs[1]);
    expected[0].replace(expected[0].find("@FIRST@"), 7, binlogs[0]);
    EXPECT_EQ(lintRelative(dir), expected);
}

/// A temporary dictionary directory with one binlog file, removed after.
class TempDictionary {
  public:
    explicit TempDictionary(const std::string& binlog) {
        char name[] = "/tmp/wexbl-lint-XXXXXX";
        dir_ = mkdtemp(name);
        std::ofstream(dir_ + "/t_binlog.xml") << binlog;
    }
    ~TempDictionary() {
        unlink((dir_ + "/t_binlog.xml").c_str());
        rmdir(dir_.c_str());
    }
    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

std::string binlog(const std::string& subsystemId, const std::string& version,
                   const std::string& param) {
    return "<LoggingSubSystem subsystem=\"L2\" subsystemId=\"" + subsystemId +
           "\" module=\"mac\" moduleid=\"1\" binlogversion=\"" + version +
           "\">\n  <LogId name=\"A\" category=\"C\" logString=\"a\">\n    " + param +
           "\n  </LogId>\n</LoggingSubSystem>\n";
}

/// The (check, line) pairs of the findings.
std::vector<std::string> checksOf(const std::string& dir) {
    std::vector<std::string> checks;
    for (const auto& finding : wexbl_lint::lintDictionary(dir)) {
        checks.push_back(std::string(wexbl_lint::severityName(finding.severity)) + " " +
                         finding.check + " " + std::to_string(finding.line));
    }
    return checks;
}

TEST(Lint, NewUsersTyposAreErrors) {
    const std::string good = "<param type=\"TavUint64_t\" nameList=\"imsi\" count=\"6\"/>";
    {
        TempDictionary dict(binlog("12", "2", good));
        EXPECT_TRUE(checksOf(dict.dir()).empty());
    }
    {
        TempDictionary dict(binlog("12", "2", "<param type=\"TavUInt64_t\" nameList=\"imsi\"/>"));
        EXPECT_EQ(checksOf(dict.dir()), std::vector<std::string>{"error unknown-type 3"});
    }
    {
        TempDictionary dict(
            binlog("12", "2", "<param type=\"TavUint64_t\" nameList=\"imsi\" count=\"six\"/>"));
        EXPECT_EQ(checksOf(dict.dir()), std::vector<std::string>{"error bad-number 3"});
    }
    {
        TempDictionary dict(binlog("12", "2", "<param type=\"TavUint64_t\" namelist=\"imsi\"/>"));
        EXPECT_EQ(checksOf(dict.dir()), std::vector<std::string>{"error missing-attribute 3"});
    }
    {
        TempDictionary dict(binlog("0x0c", "2", good));
        EXPECT_EQ(checksOf(dict.dir()), std::vector<std::string>{"error bad-number 1"});
    }
    {
        TempDictionary dict(binlog("12", "two", good));
        EXPECT_EQ(checksOf(dict.dir()), std::vector<std::string>{"error bad-number 1"});
    }
}

TEST(Lint, TheExampleDictionaryLintsClean) {
    const auto findings =
        wexbl_lint::lintDictionary(std::string(WEXBL_TEST_SOURCE_DIR) + "/../examples/dictionary");
    for (const auto& finding : findings) {
        ADD_FAILURE() << wexbl_lint::formatText(finding);
    }
    EXPECT_TRUE(findings.empty());
}

TEST(Lint, TextAndJsonForms) {
    wexbl_lint::Finding finding;
    finding.file = "d/a_binlog.xml";
    finding.line = 7;
    finding.severity = wexbl_lint::Severity::Warning;
    finding.check = "unshown-parameter";
    finding.message = "parameter \"x\" is never shown\\";
    EXPECT_EQ(wexbl_lint::formatText(finding),
              "d/a_binlog.xml:7: warning: parameter \"x\" is never shown\\ [unshown-parameter]");
    EXPECT_EQ(wexbl_lint::formatJson(finding),
              "{\"file\":\"d/a_binlog.xml\",\"line\":7,\"severity\":\"warning\","
              "\"check\":\"unshown-parameter\",\"message\":\"parameter \\\"x\\\" is never "
              "shown\\\\\"}");
    finding.line = 0;
    finding.severity = wexbl_lint::Severity::Error;
    finding.message = "tab\there";
    EXPECT_EQ(wexbl_lint::formatText(finding),
              "d/a_binlog.xml: error: tab\there [unshown-parameter]");
    std::string json;
    wexbl_lint::appendJsonString(json, std::string("a\x01") + "b\n");
    EXPECT_EQ(json, "\"a\\u0001b\\n\"");
}

TEST(Lint, AMissingDirectoryIsOneError) {
    const auto findings = wexbl_lint::lintDictionary("/nonexistent/wexbl-lint-dictionary/");
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(wexbl_lint::formatText(findings[0]),
              "/nonexistent/wexbl-lint-dictionary: error: cannot open the dictionary directory: "
              "No such file or directory [unreadable-file]");
}

}  // namespace
