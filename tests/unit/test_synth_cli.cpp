// The binlog-synth command line: help and version, usage errors (status 2),
// failures (status 1, partial output removed), and the output it writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "binlog_synth/Text.h"

namespace {

#ifdef BINLOG_SYNTH_EXE

const char* const kDictionary = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="OAM" subsystemId="5" module="sys" moduleid="1" binlogversion="1">
  <LogId name="Boot" category="BOOT" logString="Booted {count} times">
    <p type="TavUint32_t" nameList="count"/>
  </LogId>
</LoggingSubSystem>
)";

const std::string kTry = "Try 'binlog-synth --help' for more information.\n";

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

class SynthCli : public ::testing::Test {
  protected:
    void SetUp() override {
        dict_ = dir_.makeDir("dict");
        dir_.writeFile("dict/oam_binlog.xml", kDictionary);
    }

    /// Runs the tool with `args`, standard input from `input`.
    Result run(const std::vector<std::string>& args, const std::string& input = "") {
        const std::string inPath = dir_.writeFile("stdin.txt", input);
        const std::string outPath = dir_.path() + "/stdout.txt";
        const std::string errPath = dir_.path() + "/stderr.txt";
        std::vector<std::string> all = {BINLOG_SYNTH_EXE};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int in = open(inPath.c_str(), O_RDONLY);
            const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (in < 0 || out < 0 || err < 0) {
                _exit(126);
            }
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        Result r;
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = wexbl_test::readFile(outPath);
        r.err = wexbl_test::readFile(errPath);
        return r;
    }

    std::string path(const std::string& name) const { return dir_.path() + "/" + name; }

    bool exists(const std::string& name) const { return access(path(name).c_str(), F_OK) == 0; }

    std::size_t decodedLines(const std::string& capture, unsigned short port = 0) {
        Tav::BinaryLogXmlReader reader(dict_ + "/", false, port, 16);
        EXPECT_TRUE(reader.isGood());
        wexbl_test::MemoryStream out;
        reader.readBinaryFiledata(capture, 0, out.file());
        const std::string text = out.text();
        std::size_t n = 0;
        for (const char c : text) {
            n += c == '\n' ? 1 : 0;
        }
        return n;
    }

    wexbl_test::TempDir dir_;
    std::string dict_;
};

TEST_F(SynthCli, Help) {
    const Result r = run({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage: binlog-synth --dict DIR --out FILE --records N", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("Exit status: 0 on success, 1 when"), std::string::npos);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(run({"-h"}).out, r.out);
}

TEST_F(SynthCli, Version) {
    const Result r = run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string("binlog-synth ") + BINLOG_SYNTH_VERSION + "\n");
    EXPECT_EQ(run({"-V"}).out, r.out);
}

TEST_F(SynthCli, UsageErrorsExitWith2) {
    const std::string out = path("x.pcap");
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{}, "give --records N (random mode) or --script FILE (scripted mode)"},
        {{"--frob"}, "unknown option '--frob'"},
        {{"-q"}, "unknown option '-q'"},
        {{"--out", out, "--records"}, "option '--records' needs an argument"},
        {{"--records", "x"}, "--records needs a whole number, not 'x'"},
        {{"--records", "5", "--script", "s"}, "--script and --records exclude each other"},
        {{"--records", "5", "--dict", dict_}, "--out FILE is required"},
        {{"--records", "5", "--out", out}, "random mode needs --dict DIR"},
        {{"--script", "s", "--out", out, "--seed", "3"}, "--seed applies to random mode only"},
        {{"--link", "ipx"}, "--link takes 150, ipv4 or ipv6, not 'ipx'"},
        {{"--udp-port", "70000"}, "--udp-port needs a port number (0-65535), not '70000'"},
        {{"--records", "5", "--dict", dict_, "--out", out, "--link", "150", "--udp-port", "1"},
         "--udp-port needs Ethernet framing (--link ipv4 or ipv6)"},
        {{"--rate", "0"}, "--rate needs a positive number of records per second, not '0'"},
        {{"--mix", "binlog=1,noise=2"},
         "--mix takes KIND=WEIGHT,... with the kinds binlog, syslog, legacy and capture, not "
         "'binlog=1,noise=2'"},
        {{"--start", "yesterday"},
         "--start needs a time such as 2024-05-01T12:00:00.250Z or seconds since 1970, not "
         "'yesterday'"},
        {{"--records", "5", "extra"}, "unexpected argument 'extra'"},
    };
    for (const auto& c : cases) {
        const Result r = run(c.args);
        EXPECT_EQ(r.status, 2) << c.message;
        EXPECT_EQ(r.err, "binlog-synth: " + c.message + "\n" + kTry);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(exists("x.pcap"));
}

TEST_F(SynthCli, DictionaryThatDoesNotLoadExitsWith1) {
    const std::string empty = dir_.makeDir("empty");
    const Result r = run({"--dict", empty, "--out", path("x.pcap"), "--records", "3"});
    EXPECT_EQ(r.status, 1);
    const std::string tail = "binlog-synth: the dictionary in " + empty + " did not load\n";
    ASSERT_GE(r.err.size(), tail.size());
    EXPECT_EQ(r.err.substr(r.err.size() - tail.size()), tail) << r.err;
    EXPECT_FALSE(exists("x.pcap"));
}

TEST_F(SynthCli, ScriptErrorsExitWith1AndLeaveNoFile) {
    dir_.writeFile("bad.synth", "binlog OAM:sys Boot count=1\nbinlog OAM:sys Nope\n");
    Result r = run({"--dict", dict_, "--out", path("x.pcap"), "--script", path("bad.synth")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "binlog-synth: " + path("bad.synth") + ":2: module OAM:sys has no log named Nope\n");
    EXPECT_FALSE(exists("x.pcap"));

    r = run({"--out", path("x.pcap"), "--script", "-"}, "syslog tag=a\nnope\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: <stdin>:2: unknown command nope\n");

    r = run({"--out", path("x.pcap"), "--script", path("missing.synth")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: cannot read " + path("missing.synth") +
                         ": No such file or directory\n");
}

TEST_F(SynthCli, UnwritableOutputExitsWith1) {
    const Result r = run({"--dict", dict_, "--out", "/nonexistent-dir/x.pcap", "--records", "3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "binlog-synth: cannot open /nonexistent-dir/x.pcap: No such file or "
              "directory\n");
}

TEST_F(SynthCli, RandomModeWritesGzipByNameAndIsReproducible) {
    Result r =
        run({"--dict", dict_, "--out", path("a.pcap.gz"), "--records", "100", "--seed", "4", "-v"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.rfind("binlog-synth: wrote 100 records to " + path("a.pcap.gz") + ": ", 0), 0u)
        << r.err;
    EXPECT_EQ(wexbl_test::readFile(path("a.pcap.gz")).substr(0, 2), "\x1f\x8b");
    EXPECT_EQ(decodedLines(path("a.pcap.gz")), 100u);

    r = run({"--dict", dict_, "--out", path("b.pcap.gz"), "--records", "100", "--seed", "4"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(wexbl_test::readFile(path("a.pcap.gz")), wexbl_test::readFile(path("b.pcap.gz")));

    r = run({"--dict", dict_, "--out", path("c.pcap.gz"), "--records", "10", "--plain"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(binlog_synth::toHex(wexbl_test::readFile(path("c.pcap.gz")).substr(0, 4)),
              "d4c3b2a1");
}

TEST_F(SynthCli, UdpPortAloneSelectsIpv4) {
    const Result r = run({"--dict", dict_, "--out", path("e.pcap"), "--records", "20", "--udp-port",
                          "6000", "--mix", "binlog=1,syslog=0,legacy=0,capture=0"});
    EXPECT_EQ(r.status, 0) << r.err;
    const std::string bytes = wexbl_test::readFile(path("e.pcap"));
    ASSERT_GT(bytes.size(), 24u + 16u + 42u);
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(20, 4)), "01000000");        // Ethernet
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 36, 2)), "1770");  // port 6000
    EXPECT_EQ(decodedLines(path("e.pcap"), 6000), 20u);
    EXPECT_EQ(decodedLines(path("e.pcap"), 5000), 0u);
}

TEST_F(SynthCli, ScriptFromStandardInputToStandardOutput) {
    const Result r =
        run({"--dict", dict_, "--out", "-", "--script", "-", "--start", "2024-05-01T12:00:00Z"},
            "binlog OAM:sys Boot count=3\n");
    EXPECT_EQ(r.status, 0) << r.err;
    // Global header, record header, BinLogHeader, one u32.
    ASSERT_EQ(r.out.size(), 24u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(r.out.substr(24, 4)), "c02e3266");  // 1714564800 = 0x66322ec0
    EXPECT_EQ(binlog_synth::toHex(r.out.substr(56)), "03000000");
}

TEST_F(SynthCli, CommandLineFramingWinsOverTheScript) {
    dir_.writeFile("s.synth", "link ipv6 port=1\ngzip\nbinlog OAM:sys Boot\n");
    const Result r = run({"--dict", dict_, "--out", path("f.pcap"), "--script", path("s.synth"),
                          "--link", "ipv4", "--udp-port", "7000", "--plain"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(decodedLines(path("f.pcap"), 7000), 1u);
    const std::string bytes = wexbl_test::readFile(path("f.pcap"));
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 12, 2)), "0800");
}

#else

TEST(SynthCli, NotBuilt) {
    GTEST_SKIP() << "binlog-synth is not built (WEXBL_BUILD_TOOLS=OFF) or cannot be started "
                    "from a test (cross build)";
}

#endif

}  // namespace
