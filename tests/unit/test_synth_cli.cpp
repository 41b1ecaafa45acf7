// The binlog-synth command line: help and version, usage errors (status 2),
// failures (status 1, an existing output left as it was), the output it
// writes, and its refusal to write to a terminal. The tool is started as a
// program, which a cross build (tests under an emulator) cannot do: there
// this file holds no test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
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

    /// The argument vector of the tool with `args`.
    static std::vector<std::string> command(const std::vector<std::string>& args) {
        std::vector<std::string> all = {BINLOG_SYNTH_EXE};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }

    /// Starts the tool with `args`: standard input from `input`, standard
    /// output to the descriptor `out` (or the file stdout.txt when it is
    /// negative), standard error to the file stderr.txt.
    pid_t start(const std::vector<std::string>& args, const std::string& input = "", int out = -1) {
        const std::string inPath = dir_.writeFile("stdin.txt", input);
        const std::string outPath = dir_.path() + "/stdout.txt";
        const std::string errPath = dir_.path() + "/stderr.txt";
        std::vector<std::string> all = command(args);
        std::vector<char*> argv;
        for (std::string& a : all) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int in = open(inPath.c_str(), O_RDONLY);
            const int to =
                out >= 0 ? out : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (in < 0 || to < 0 || err < 0) {
                _exit(126);
            }
            dup2(in, 0);
            dup2(to, 1);
            dup2(err, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        EXPECT_GT(pid, 0);
        return pid;
    }

    /// Waits for the tool started as `pid`; `r.status` is its exit status
    /// (-1 when a signal ended it).
    Result finish(pid_t pid, bool outputToFile = true) {
        Result r;
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        signal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        if (outputToFile) {
            r.out = wexbl_test::readFile(dir_.path() + "/stdout.txt");
        }
        r.err = wexbl_test::readFile(dir_.path() + "/stderr.txt");
        return r;
    }

    /// Runs the tool with `args`, standard input from `input`.
    Result run(const std::vector<std::string>& args, const std::string& input = "") {
        return finish(start(args, input));
    }

    /// Runs the tool with `args` and standard output on a terminal (the
    /// slave side of a pseudo-terminal in raw mode, so that the bytes pass
    /// unchanged); `r.out` is what arrived on the terminal.
    Result runOnTerminal(const std::vector<std::string>& args) {
        Result r;
        const int master = posix_openpt(O_RDWR | O_NOCTTY);
        EXPECT_GE(master, 0) << std::strerror(errno);
        if (master < 0) {
            return r;
        }
        EXPECT_EQ(grantpt(master), 0);
        EXPECT_EQ(unlockpt(master), 0);
        const char* name = ptsname(master);
        const int slave = name != nullptr ? open(name, O_RDWR | O_NOCTTY) : -1;
        EXPECT_GE(slave, 0) << std::strerror(errno);
        if (slave < 0) {
            close(master);
            return r;
        }
        EXPECT_EQ(isatty(slave), 1);
        termios mode;
        EXPECT_EQ(tcgetattr(slave, &mode), 0);
        cfmakeraw(&mode);
        EXPECT_EQ(tcsetattr(slave, TCSANOW, &mode), 0);
        const pid_t pid = start(args, "", slave);
        close(slave);
        // Read until the last holder of the slave side (the tool) is gone:
        // then the master side reads EIO (or end of file).
        std::string arrived;
        for (int rounds = 0; rounds < 200; ++rounds) {  // at most 20 s
            pollfd p{master, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) {
                continue;
            }
            char buf[4096];
            const ssize_t n = read(master, buf, sizeof buf);
            if (n <= 0) {
                break;
            }
            arrived.append(buf, static_cast<std::size_t>(n));
        }
        close(master);
        r = finish(pid, false);
        r.out = arrived;
        return r;
    }

    /// The names in the test directory that start with `prefix`.
    std::vector<std::string> entries(const std::string& prefix) const {
        std::vector<std::string> names;
        for (const std::string& n : wexbl_test::listDirectory(dir_.path())) {
            if (n.compare(0, prefix.size(), prefix) == 0) {
                names.push_back(n);
            }
        }
        return names;
    }

    /// The permission bits of `name` in the test directory.
    unsigned modeOf(const std::string& name) const {
        struct stat info;
        EXPECT_EQ(stat(path(name).c_str(), &info), 0) << name;
        return info.st_mode & 07777;
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
    int signal_ = 0;  // the signal that ended the last run, 0 if none
};

TEST_F(SynthCli, Help) {
    const Result r = run({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage: binlog-synth --dict DIR --output FILE --records N", 0), 0u)
        << r.out;
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
        {{"--output", out, "--records"}, "option '--records' needs an argument"},
        {{"--records", "x"}, "--records needs a whole number, not 'x'"},
        {{"--records", "5", "--script", "s"}, "--script and --records exclude each other"},
        {{"--records", "5", "--dict", dict_}, "--output FILE is required"},
        {{"--records", "5", "-o", out}, "random mode needs --dict DIR"},
        {{"--script", "s", "-o", out, "--seed", "3"}, "--seed applies to random mode only"},
        // --script has no short form (-s means --stats to binlog-decode), and
        // -f is not --force (binlog-decode's -f is --follow).
        {{"-s", "s", "-o", out}, "unknown option '-s'"},
        {{"-f", "--records", "5"}, "unknown option '-f'"},
        {{"--max-var-bytes", "3"}, "--max-var-bytes is now called --max-var-length"},
        {{"--max-var-length", "70000"},
         "--max-var-length needs a number from 0 to 65535, not '70000'"},
        {{"--script", "s", "-o", out, "--max-var-length", "3"},
         "--max-var-length applies to random mode only"},
        {{"--link", "ipx"},
         "--link takes 150, ipv4, ipv6, 228, 229 or LAYER:ipv4|ipv6 (LAYER ethernet, sll, sll2, "
         "raw or null), not 'ipx'"},
        {{"--udp-port", "70000"}, "--udp-port needs a port number (0-65535), not '70000'"},
        {{"--records", "5", "--dict", dict_, "-o", out, "--link", "150", "--udp-port", "1"},
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
    const Result r = run({"--dict", empty, "-o", path("x.pcap"), "--records", "3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "binlog-synth: the dictionary in " + empty + " did not load: no binlog file in it\n");
    EXPECT_FALSE(exists("x.pcap"));
}

TEST_F(SynthCli, ScriptErrorsExitWith1AndLeaveNoFile) {
    dir_.writeFile("bad.synth", "binlog OAM:sys Boot count=1\nbinlog OAM:sys Nope\n");
    Result r = run({"--dict", dict_, "-o", path("x.pcap"), "--script", path("bad.synth")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "binlog-synth: " + path("bad.synth") + ":2: module OAM:sys has no log named Nope\n");
    EXPECT_FALSE(exists("x.pcap"));
    EXPECT_EQ(entries(".x.pcap."), std::vector<std::string>());  // no temporary file left

    r = run({"-o", path("x.pcap"), "--script", "-"}, "syslog tag=a\nnope\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: <stdin>:2: unknown command nope\n");

    r = run({"-o", path("x.pcap"), "--script", path("missing.synth")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: cannot read " + path("missing.synth") +
                         ": No such file or directory\n");
}

TEST_F(SynthCli, UnwritableOutputExitsWith1) {
    const Result r = run({"--dict", dict_, "-o", "/nonexistent-dir/x.pcap", "--records", "3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "binlog-synth: cannot open /nonexistent-dir/x.pcap: No such file or "
              "directory\n");
}

TEST_F(SynthCli, RandomModeWritesGzipByNameAndIsReproducible) {
    Result r =
        run({"--dict", dict_, "-o", path("a.pcap.gz"), "--records", "100", "--seed", "4", "-v"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.rfind("binlog-synth: wrote 100 records to " + path("a.pcap.gz") + ": ", 0), 0u)
        << r.err;
    EXPECT_EQ(wexbl_test::readFile(path("a.pcap.gz")).substr(0, 2), "\x1f\x8b");
    EXPECT_EQ(decodedLines(path("a.pcap.gz")), 100u);

    r = run({"--dict", dict_, "-o", path("b.pcap.gz"), "--records", "100", "--seed", "4"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(wexbl_test::readFile(path("a.pcap.gz")), wexbl_test::readFile(path("b.pcap.gz")));

    r = run({"--dict", dict_, "-o", path("c.pcap.gz"), "--records", "10", "--plain"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(binlog_synth::toHex(wexbl_test::readFile(path("c.pcap.gz")).substr(0, 4)),
              "d4c3b2a1");
}

TEST_F(SynthCli, UdpPortAloneSelectsIpv4) {
    const Result r = run({"--dict", dict_, "-o", path("e.pcap"), "--records", "20", "--udp-port",
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
        run({"--dict", dict_, "-o", "-", "--script", "-", "--start", "2024-05-01T12:00:00Z"},
            "binlog OAM:sys Boot count=3\n");
    EXPECT_EQ(r.status, 0) << r.err;
    // Global header, record header, BinLogHeader, one u32.
    ASSERT_EQ(r.out.size(), 24u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(r.out.substr(24, 4)), "c02e3266");  // 1714564800 = 0x66322ec0
    EXPECT_EQ(binlog_synth::toHex(r.out.substr(56)), "03000000");
}

TEST_F(SynthCli, CommandLineFramingWinsOverTheScript) {
    dir_.writeFile("s.synth", "link ipv6 port=1\ngzip\nbinlog OAM:sys Boot\n");
    const Result r = run({"--dict", dict_, "-o", path("f.pcap"), "--script", path("s.synth"),
                          "--link", "ipv4", "--udp-port", "7000", "--plain"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(decodedLines(path("f.pcap"), 7000), 1u);
    const std::string bytes = wexbl_test::readFile(path("f.pcap"));
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 12, 2)), "0800");
}

TEST_F(SynthCli, OutputSpellingsAgree) {
    dir_.writeFile("s.synth", "binlog OAM:sys Boot count=3\n");
    const std::vector<std::vector<std::string>> spellings = {
        {"-o", path("a.pcap")},
        {"--output", path("b.pcap")},
        {"--output=" + path("c.pcap")},
        {"--out", path("d.pcap")},  // the older name
    };
    for (const auto& spelling : spellings) {
        std::vector<std::string> args = {"--dict", dict_, "--script", path("s.synth")};
        args.insert(args.end(), spelling.begin(), spelling.end());
        const Result r = run(args);
        EXPECT_EQ(r.status, 0) << spelling[0] << ": " << r.err;
        EXPECT_EQ(r.out, "");
    }
    const std::string a = wexbl_test::readFile(path("a.pcap"));
    ASSERT_EQ(a.size(), 24u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(a.substr(56)), "03000000");
    for (const char* name : {"b.pcap", "c.pcap", "d.pcap"}) {
        EXPECT_EQ(wexbl_test::readFile(path(name)), a) << name;
    }
}

TEST_F(SynthCli, AFailingRunLeavesAnExistingFileAsItWas) {
    // Bytes no capture starts with, a NUL among them.
    const std::string before("precious\0bytes\xff\n", 16);
    for (const char* name : {"x.pcap", "x.pcap.gz"}) {
        dir_.writeFile(name, before);
        ASSERT_EQ(chmod(path(name).c_str(), 0640), 0);
        // The first line's record is written before the second line fails.
        dir_.writeFile("bad.synth", "binlog OAM:sys Boot count=1\nbinlog OAM:sys Boot count=x\n");
        Result r = run({"--dict", dict_, "-o", path(name), "--script", path("bad.synth")});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, "binlog-synth: " + path("bad.synth") +
                             ":2: bad value \"x\" for TavUint32_t parameter count\n");
        EXPECT_EQ(wexbl_test::readFile(path(name)), before) << name;
        EXPECT_EQ(modeOf(name), 0640u);
        EXPECT_EQ(entries("." + std::string(name) + "."), std::vector<std::string>());

        // A run that succeeds replaces the file whole and keeps its mode.
        dir_.writeFile("good.synth", "binlog OAM:sys Boot count=1\n");
        r = run({"--dict", dict_, "-o", path(name), "--script", path("good.synth"), "--plain"});
        EXPECT_EQ(r.status, 0) << r.err;
        const std::string after = wexbl_test::readFile(path(name));
        ASSERT_EQ(after.size(), 24u + 16u + 16u + 4u);
        EXPECT_EQ(binlog_synth::toHex(after.substr(0, 4)), "d4c3b2a1");
        EXPECT_EQ(modeOf(name), 0640u);
        EXPECT_EQ(entries("." + std::string(name) + "."), std::vector<std::string>());
    }
}

TEST_F(SynthCli, ANewFileGetsTheModeOfTheUmask) {
    const mode_t mask = umask(0);
    umask(mask);
    const Result r = run({"--dict", dict_, "-o", path("new.pcap"), "--records", "3"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(modeOf("new.pcap"), 0666u & ~static_cast<unsigned>(mask));
}

TEST_F(SynthCli, ALinkToTheOutputStaysALink) {
    const std::string before = "old contents";
    dir_.writeFile("real.pcap", before);
    ASSERT_EQ(symlink("real.pcap", path("link.pcap").c_str()), 0);
    dir_.writeFile("bad.synth", "nope\n");
    Result r = run({"-o", path("link.pcap"), "--script", path("bad.synth")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(wexbl_test::readFile(path("real.pcap")), before);

    r = run({"--dict", dict_, "-o", path("link.pcap"), "--records", "3", "--plain"});
    EXPECT_EQ(r.status, 0) << r.err;
    struct stat info;
    ASSERT_EQ(lstat(path("link.pcap").c_str(), &info), 0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
    EXPECT_EQ(decodedLines(path("real.pcap")), 3u);
    EXPECT_EQ(entries(".real.pcap."), std::vector<std::string>());
}

TEST_F(SynthCli, APipeIsWrittenAsItIs) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const pid_t pid = start({"--dict", dict_, "-o", path("pipe"), "--script", "-", "--plain"},
                            "binlog OAM:sys Boot count=3\n");
    const int in = open(path("pipe").c_str(), O_RDONLY);
    ASSERT_GE(in, 0) << std::strerror(errno);
    std::string got;
    char buf[4096];
    ssize_t n = 0;
    while ((n = read(in, buf, sizeof buf)) > 0) {
        got.append(buf, static_cast<std::size_t>(n));
    }
    close(in);
    const Result r = finish(pid);
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(got.size(), 24u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(got.substr(56)), "03000000");
    struct stat info;
    ASSERT_EQ(lstat(path("pipe").c_str(), &info), 0);
    EXPECT_TRUE(S_ISFIFO(info.st_mode));
    EXPECT_EQ(entries(".pipe."), std::vector<std::string>());
}

TEST_F(SynthCli, WaitingForAPipeReaderCanBeInterrupted) {
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const pid_t pid = start({"-o", path("pipe"), "--script", "-"}, "syslog tag=a\n");
    usleep(300000);  // the tool is then waiting in open() for a reader
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    bool ended = false;
    for (int i = 0; i < 500 && !ended; ++i) {  // at most 5 s
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        ended = done == pid;
        if (ended) {
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
        } else {
            usleep(10000);
        }
    }
    EXPECT_TRUE(ended) << "SIGTERM did not end the tool while it waited for a reader";
    if (!ended) {
        const int in = open(path("pipe").c_str(), O_RDONLY);  // let it go
        close(in);
        finish(pid);
    }
}

TEST_F(SynthCli, AFullDeviceIsAFailure) {
    const Result r =
        run({"-o", "/dev/full", "--script", "-", "--plain"}, "syslog tag=a text=hello\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: closing /dev/full failed: No space left on device\n");
}

TEST_F(SynthCli, AnEndingSignalRemovesTheTemporaryFile) {
    const std::string before = "precious";
    dir_.writeFile("x.pcap", before);
    const pid_t pid =
        start({"--dict", dict_, "-o", path("x.pcap"), "--records", "4000000000", "--plain"});
    // Wait until the temporary file has grown: the tool is then well past
    // setting up its signal handlers.
    std::string temporary;
    for (int i = 0; i < 1000 && temporary.empty(); ++i) {  // at most 10 s
        for (const std::string& name : entries(".x.pcap.")) {
            struct stat info;
            if (stat(path(name).c_str(), &info) == 0 && info.st_size > 0) {
                temporary = name;
            }
        }
        if (temporary.empty()) {
            usleep(10000);
        }
    }
    EXPECT_FALSE(temporary.empty());
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    const Result r = finish(pid);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(signal_, SIGTERM);
    EXPECT_EQ(entries(".x.pcap."), std::vector<std::string>());
    EXPECT_EQ(wexbl_test::readFile(path("x.pcap")), before);
}

TEST_F(SynthCli, RefusesToWriteACaptureToATerminal) {
    dir_.writeFile("s.synth", "binlog OAM:sys Boot count=3\n");
    const std::vector<std::string> args = {"--dict", dict_, "--script", path("s.synth"), "-o", "-"};
    Result r = runOnTerminal(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "binlog-synth: will not write a capture to a terminal: redirect standard output "
              "or give --force\n" +
                  kTry);

    // A file is written as usual while standard output is a terminal.
    r = runOnTerminal({"--dict", dict_, "--script", path("s.synth"), "-o", path("t.pcap")});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    const std::string file = wexbl_test::readFile(path("t.pcap"));
    ASSERT_EQ(file.size(), 24u + 16u + 16u + 4u);

    // --force writes to the terminal all the same: the very bytes of the file.
    std::vector<std::string> forced = args;
    forced.push_back("--force");
    r = runOnTerminal(forced);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(binlog_synth::toHex(r.out), binlog_synth::toHex(file));
}

TEST_F(SynthCli, UdpPortMakesALinkType150ScriptEthernet) {
    // --udp-port wins over "link 150" as the command line wins over every
    // script setting: the capture becomes IPv4 Ethernet to that port.
    dir_.writeFile("s150.synth", "link 150\nbinlog OAM:sys Boot count=3\n");
    Result r = run({"--dict", dict_, "-o", path("a.pcap"), "--script", path("s150.synth"),
                    "--udp-port", "6000"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::string bytes = wexbl_test::readFile(path("a.pcap"));
    ASSERT_EQ(bytes.size(), 24u + 16u + 42u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(20, 4)), "01000000");        // Ethernet
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 12, 2)), "0800");  // IPv4
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 36, 2)), "1770");  // port 6000
    EXPECT_EQ(decodedLines(path("a.pcap"), 6000), 1u);

    // An Ethernet script keeps its IP version; only the port changes.
    dir_.writeFile("s6.synth", "link ipv6 port=1\nbinlog OAM:sys Boot count=3\n");
    r = run({"--dict", dict_, "-o", path("b.pcap"), "--script", path("s6.synth"), "-p", "7000"});
    EXPECT_EQ(r.status, 0) << r.err;
    bytes = wexbl_test::readFile(path("b.pcap"));
    ASSERT_EQ(bytes.size(), 24u + 16u + 62u + 16u + 16u + 4u);
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 12, 2)), "86dd");  // IPv6
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(24 + 16 + 56, 2)), "1b58");  // port 7000
    EXPECT_EQ(decodedLines(path("b.pcap"), 7000), 1u);
}

TEST_F(SynthCli, FormatByteOrderAndFramingOptions) {
    dir_.writeFile("one.synth", "binlog OAM:sys Boot count=3\n");
    Result r = run({"--dict", dict_, "-o", path("a.pcapng"), "--script", path("one.synth"),
                    "--format", "pcapng", "--link", "sll:ipv6"});
    EXPECT_EQ(r.status, 0) << r.err;
    std::string bytes = wexbl_test::readFile(path("a.pcapng"));
    ASSERT_GT(bytes.size(), 48u);
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(0, 4)), "0a0d0d0a");   // section header
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(28, 4)), "01000000");  // interface block
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(36, 2)), "7100");      // link type 113

    r = run({"--dict", dict_, "-o", path("b.pcap"), "--script", path("one.synth"), "-F", "pcap-ns",
             "--big-endian", "--link", "228"});
    EXPECT_EQ(r.status, 0) << r.err;
    bytes = wexbl_test::readFile(path("b.pcap"));
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(0, 4)), "a1b23c4d");   // big-endian, ns
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(20, 4)), "000000e4");  // link type 228

    r = run({"--dict", dict_, "-o", path("c.pcap"), "--records", "1", "--format", "pcapx"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "binlog-synth: --format takes pcap, pcap-ns or pcapng, not 'pcapx'\n" + kTry);

    // A script's gzip damage needs a gzip file.
    dir_.writeFile("bad.synth", "gzip crc=bad\nbinlog OAM:sys Boot count=3\n");
    r = run({"--dict", dict_, "-o", path("d.pcap"), "--script", path("bad.synth"), "--plain"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "binlog-synth: " + path("bad.synth") +
                         ": the script's gzip damage needs a gzip file (it says gzip; --plain "
                         "was given)\n");
    EXPECT_FALSE(exists("d.pcap"));
    r = run({"--dict", dict_, "-o", path("d.pcap"), "--script", path("bad.synth")});
    EXPECT_EQ(r.status, 0) << r.err;
    bytes = wexbl_test::readFile(path("d.pcap"));
    EXPECT_EQ(binlog_synth::toHex(bytes.substr(0, 2)), "1f8b");  // gzip, whatever the name
}

#endif

}  // namespace
