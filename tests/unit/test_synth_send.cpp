// binlog-synth --send: the datagrams that arrive on a loopback socket are the
// UDP payloads of the capture the same options write (random mode, IPv4 and
// IPv6), the records of an existing capture (--from), paced to --rate; and
// the usage errors, a missing listener and SIGINT. The tool is started as a
// program, which a cross build (tests under an emulator) cannot do: there
// this file holds no test.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

#ifdef BINLOG_SYNTH_EXE

using Clock = std::chrono::steady_clock;

const std::string kDictionary = std::string(WEXBL_EXAMPLES_DIR) + "/dictionary";
const std::string kTry = "Try 'binlog-synth --help' for more information.\n";

/// Every wait of these tests ends after this long at the latest.
constexpr auto kDeadline = std::chrono::seconds(60);

std::uint32_t le32(const std::string& s, std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(s[at])) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24);
}

std::uint16_t be16(const std::string& s, std::size_t at) {
    return static_cast<std::uint16_t>((static_cast<unsigned char>(s[at]) << 8) |
                                      static_cast<unsigned char>(s[at + 1]));
}

std::string le32Bytes(std::uint32_t v) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) {
        s[static_cast<std::size_t>(i)] = static_cast<char>((v >> (8 * i)) & 0xFF);
    }
    return s;
}

/// One record of a pcap file: its header fields and data.
struct PcapRecord {
    std::uint32_t sec = 0, usec = 0, captured = 0, original = 0;
    std::string data;
};

/// The records of a little-endian microsecond pcap file (the tool's
/// default); `linkType` is the file's link type.
std::vector<PcapRecord> readPcap(const std::string& file, std::uint32_t& linkType) {
    std::vector<PcapRecord> records;
    EXPECT_GE(file.size(), 24U);
    if (file.size() < 24) {
        return records;
    }
    EXPECT_EQ(le32(file, 0), 0xA1B2C3D4U);
    linkType = le32(file, 20);
    std::size_t at = 24;
    while (at + 16 <= file.size()) {
        PcapRecord r;
        r.sec = le32(file, at);
        r.usec = le32(file, at + 4);
        r.captured = le32(file, at + 8);
        r.original = le32(file, at + 12);
        at += 16;
        EXPECT_LE(at + r.captured, file.size());
        if (at + r.captured > file.size()) {
            break;
        }
        r.data = file.substr(at, r.captured);
        at += r.captured;
        records.push_back(r);
    }
    EXPECT_EQ(at, file.size());
    return records;
}

/// The UDP payload of an Ethernet record without VLAN tags or IP options,
/// after checking the EtherType, the IP protocol and the destination port:
/// it starts at 14 + 20 + 8 = 42 (IPv4) or 14 + 40 + 8 = 62 (IPv6).
std::string udpPayload(const PcapRecord& r, bool v6, std::uint16_t port = 5000) {
    const std::size_t ip = 14;
    const std::size_t udp = ip + (v6 ? 40 : 20);
    EXPECT_GE(r.data.size(), udp + 8);
    if (r.data.size() < udp + 8) {
        return std::string();
    }
    EXPECT_EQ(be16(r.data, 12), v6 ? 0x86DD : 0x0800);
    EXPECT_EQ(static_cast<unsigned char>(r.data[ip + (v6 ? 6 : 9)]), 17);  // UDP
    EXPECT_EQ(be16(r.data, udp + 2), port);
    EXPECT_EQ(be16(r.data, udp + 4), r.data.size() - udp);  // UDP length
    return r.data.substr(udp + 8);
}

/// A datagram as the sender lays it out: a 16-byte record header whose
/// lengths are the log record's size, then a log record of at least the
/// 16-byte binary log header.
void expectSenderLayout(const std::string& datagram) {
    ASSERT_GE(datagram.size(), 32U);
    EXPECT_EQ(le32(datagram, 8), datagram.size() - 16);
    EXPECT_EQ(le32(datagram, 12), datagram.size() - 16);
}

/// A UDP socket bound to an ephemeral port on a loopback address.
class Receiver {
  public:
    explicit Receiver(int family) : family_(family) {
        fd_ = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) {
            return;
        }
        // Room for the datagrams of a while when the test is not scheduled:
        // beyond the system's limit when allowed (as root), else up to it.
        const int size = 4 << 20;
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        }
        sockaddr_storage address{};
        socklen_t length = 0;
        if (family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&address);
            in->sin_family = AF_INET;
            in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *in;
        } else {
            auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
            in6->sin6_family = AF_INET6;
            in6->sin6_addr = in6addr_loopback;
            length = sizeof *in6;
        }
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            close(fd_);
            fd_ = -1;
            return;
        }
        port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                        : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    }
    ~Receiver() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    /// HOST:PORT of the socket for --send.
    std::string address() const {
        return (family_ == AF_INET ? "127.0.0.1:" : "[::1]:") + std::to_string(port_);
    }

    /// Reads every datagram waiting, without blocking.
    void drain(std::vector<std::string>& into) {
        std::string buffer(70000, '\0');
        for (;;) {
            const ssize_t n = recv(fd_, &buffer[0], buffer.size(), MSG_DONTWAIT);
            if (n < 0) {
                return;
            }
            into.push_back(buffer.substr(0, static_cast<std::size_t>(n)));
        }
    }

  private:
    int family_;
    int fd_ = -1;
    std::uint16_t port_ = 0;
};

struct Result {
    int status = -1;  // exit status; -1 when it did not exit
    std::string err;
    double seconds = 0;
    std::vector<std::string> datagrams;
};

class SynthSend : public ::testing::Test {
  protected:
    /// Starts the tool with `args`, standard error to a file.
    pid_t start(const std::vector<std::string>& args) {
        std::vector<std::string> all = {BINLOG_SYNTH_EXE};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        const std::string errPath = dir_.path() + "/stderr.txt";
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int null = open("/dev/null", O_RDWR);
            if (err < 0 || null < 0) {
                _exit(126);
            }
            dup2(null, 0);
            dup2(null, 1);
            dup2(err, 2);
            signal(SIGINT, SIG_DFL);  // whatever the test runner was started with
            execv(argv[0], argv.data());
            _exit(127);
        }
        EXPECT_GT(pid, 0);
        return pid;
    }

    /// Waits (at most until the deadline, then kills it) for `pid`,
    /// receiving on `receiver` (when not null) meanwhile and for a moment
    /// after the end.
    Result finish(pid_t pid, Receiver* receiver) {
        Result r;
        const auto begin = Clock::now();
        bool exited = false;
        int status = 0;
        auto endedAt = begin;
        while (Clock::now() - begin < kDeadline) {
            if (receiver != nullptr) {
                pollfd p{receiver->fd(), POLLIN, 0};
                poll(&p, 1, 20);
                receiver->drain(r.datagrams);
            } else {
                usleep(5000);
            }
            if (!exited) {
                const pid_t done = waitpid(pid, &status, WNOHANG);
                if (done == pid) {
                    exited = true;
                    endedAt = Clock::now();
                    r.seconds = std::chrono::duration<double>(endedAt - begin).count();
                }
            } else if (receiver == nullptr ||
                       Clock::now() - endedAt > std::chrono::milliseconds(300)) {
                break;
            }
        }
        if (!exited) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "binlog-synth did not end in time";
        }
        r.status = exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.err = wexbl_test::readFile(dir_.path() + "/stderr.txt");
        return r;
    }

    Result run(const std::vector<std::string>& args, Receiver* receiver = nullptr) {
        return finish(start(args), receiver);
    }

    /// Writes a capture with `args` and returns its records.
    std::vector<PcapRecord> capture(std::vector<std::string> args, const std::string& name,
                                    std::uint32_t& linkType) {
        const std::string path = dir_.path() + "/" + name;
        args.push_back("--output");
        args.push_back(path);
        const Result r = run(args);
        EXPECT_EQ(r.status, 0) << r.err;
        return readPcap(wexbl_test::readFile(path), linkType);
    }

    /// Sends with the random options `options` over `family` and checks
    /// that the datagrams are the UDP payloads of the Ethernet capture
    /// (`link`) the same options write, in order.
    void expectSameAsCapture(int family, const std::vector<std::string>& options,
                             std::size_t records) {
        Receiver receiver(family);
        ASSERT_TRUE(receiver.ok()) << std::strerror(errno);
        std::vector<std::string> args = {"--send", receiver.address()};
        args.insert(args.end(), options.begin(), options.end());
        const Result sent = run(args, &receiver);
        EXPECT_EQ(sent.status, 0) << sent.err;
        EXPECT_EQ(sent.err, "");

        const bool v6 = family == AF_INET6;
        std::vector<std::string> captureArgs = options;
        captureArgs.push_back("--link");
        captureArgs.push_back(v6 ? "ipv6" : "ipv4");
        std::uint32_t linkType = 0;
        const std::vector<PcapRecord> written = capture(captureArgs, "same.pcap", linkType);
        EXPECT_EQ(linkType, 1U);  // Ethernet
        ASSERT_EQ(written.size(), records);
        ASSERT_EQ(sent.datagrams.size(), records);
        for (std::size_t i = 0; i < records; ++i) {
            SCOPED_TRACE("datagram " + std::to_string(i));
            expectSenderLayout(sent.datagrams[i]);
            // The sender's header carries the record's time, as the file's
            // record header does.
            EXPECT_EQ(le32(sent.datagrams[i], 0), written[i].sec);
            EXPECT_EQ(le32(sent.datagrams[i], 4), written[i].usec);
            ASSERT_EQ(sent.datagrams[i], udpPayload(written[i], v6));
        }
    }

    /// Whether ::1 can be bound here.
    static bool haveIpv6Loopback() {
        Receiver probe(AF_INET6);
        return probe.ok();
    }

    wexbl_test::TempDir dir_;
};

TEST_F(SynthSend, RandomRecordsOverIpv4AreTheCapturesUdpPayloads) {
    expectSameAsCapture(
        AF_INET,
        {"--dict", kDictionary, "--records", "2000", "--rate", "20000", "--seed", "11",
         "--gap-every", "50", "--mix", "binlog=90,syslog=4,legacy=3,capture=3"},
        2000);
}

TEST_F(SynthSend, RandomRecordsOverIpv6AreTheCapturesUdpPayloads) {
    if (!haveIpv6Loopback()) {
        GTEST_SKIP() << "no IPv6 loopback address (::1) on this machine";
    }
    expectSameAsCapture(AF_INET6,
                        {"--dict", kDictionary, "--records", "2000", "--rate", "20000", "--seed",
                         "5", "--reorder-every", "40"},
                        2000);
}

TEST_F(SynthSend, ScriptedRecordsAreTheCapturesUdpPayloads) {
    // File settings (format, gzip) and raw file bytes have no datagram; the
    // sender's lengths given by the script are sent as they are.
    const std::string script = dir_.writeFile("s.synth",
                                              "format pcapng\n"
                                              "link ipv4 port=6000\n"
                                              "start 2024-05-01T12:00:00.5Z\n"
                                              "syslog tag=one text=first\n"
                                              "rawfile 00112233\n"
                                              "capture bytes=5 senderlen=99\n");
    Receiver receiver(AF_INET);
    ASSERT_TRUE(receiver.ok()) << std::strerror(errno);
    const Result sent =
        run({"--send", receiver.address(), "--script", script, "--rate", "0"}, &receiver);
    EXPECT_EQ(sent.status, 0) << sent.err;
    ASSERT_EQ(sent.datagrams.size(), 2U);
    // syslog: sender header (12:00:00.5 = 1714564800 s + 500000 us; 16 +
    // 16 + 16 + 5 bytes of log record), log header (type 2, id 0, level 5,
    // version 0, seq 1), tag padded to 16 bytes, text.
    const std::string syslogRecord = le32Bytes(2) + le32Bytes(0) +
                                     std::string("\x05\x00\x00\x00", 4) + le32Bytes(1) +
                                     std::string("one") + std::string(13, '\0') + "first";
    EXPECT_EQ(sent.datagrams[0], le32Bytes(1714564800U) + le32Bytes(500000) +
                                     le32Bytes(static_cast<std::uint32_t>(syslogRecord.size())) +
                                     le32Bytes(static_cast<std::uint32_t>(syslogRecord.size())) +
                                     syslogRecord);
    // capture: 1 ms later; the storage length (4th field) 99 as written,
    // the captured length the real 21; log header type 3, seq 1; 00 .. 04.
    const std::string captureRecord = le32Bytes(3) + le32Bytes(0) + std::string(4, '\0') +
                                      le32Bytes(1) + std::string("\x00\x01\x02\x03\x04", 5);
    EXPECT_EQ(sent.datagrams[1], le32Bytes(1714564800U) + le32Bytes(501000) + le32Bytes(21) +
                                     le32Bytes(99) + captureRecord);
}

TEST_F(SynthSend, FromAnIpv4CaptureSendsItsUdpPayloads) {
    std::uint32_t linkType = 0;
    const std::vector<PcapRecord> written =
        capture({"--dict", kDictionary, "--records", "300", "--seed", "3", "--link", "ipv4"},
                "v4.pcap", linkType);
    ASSERT_EQ(written.size(), 300U);
    // The same records as pcapng, gzip-compressed: the same datagrams.
    const Result ng =
        run({"--dict", kDictionary, "--records", "300", "--seed", "3", "--link", "ipv4", "--format",
             "pcapng", "--output", dir_.path() + "/v4.pcapng.gz"});
    ASSERT_EQ(ng.status, 0) << ng.err;
    for (const char* name : {"v4.pcap", "v4.pcapng.gz"}) {
        SCOPED_TRACE(name);
        Receiver receiver(AF_INET);
        ASSERT_TRUE(receiver.ok()) << std::strerror(errno);
        const Result sent =
            run({"--send", receiver.address(), "--from", dir_.path() + "/" + name, "--rate", "0"},
                &receiver);
        EXPECT_EQ(sent.status, 0) << sent.err;
        ASSERT_EQ(sent.datagrams.size(), written.size());
        for (std::size_t i = 0; i < written.size(); ++i) {
            ASSERT_EQ(sent.datagrams[i], udpPayload(written[i], false)) << "datagram " << i;
        }
    }
}

TEST_F(SynthSend, FromALink150CaptureSendsEachRecordBehindItsHeader) {
    std::uint32_t linkType = 0;
    const std::vector<PcapRecord> written =
        capture({"--dict", kDictionary, "--records", "200", "--seed", "9"}, "l150.pcap", linkType);
    EXPECT_EQ(linkType, 150U);
    ASSERT_EQ(written.size(), 200U);
    Receiver receiver(AF_INET);
    ASSERT_TRUE(receiver.ok()) << std::strerror(errno);
    const Result sent =
        run({"--send", receiver.address(), "--from", dir_.path() + "/l150.pcap", "--rate", "0"},
            &receiver);
    EXPECT_EQ(sent.status, 0) << sent.err;
    ASSERT_EQ(sent.datagrams.size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) {
        SCOPED_TRACE("datagram " + std::to_string(i));
        const PcapRecord& r = written[i];
        EXPECT_EQ(sent.datagrams[i], le32Bytes(r.sec) + le32Bytes(r.usec) + le32Bytes(r.captured) +
                                         le32Bytes(r.original) + r.data);
        expectSenderLayout(sent.datagrams[i]);
    }
}

TEST_F(SynthSend, FromCapturesOfEveryFormatSendsTheScriptsDatagrams) {
    // One script's records sent directly, and written as link type 150 in
    // pcap, big-endian nanosecond pcap and nanosecond pcapng (gzip), then
    // sent --from each file: the same datagrams every time.
    const std::string records =
        "start 2024-05-01T12:00:00.123456Z\n"
        "step 250us\n"
        "syslog tag=one text=first\n"
        "capture bytes=7\n"
        "syslog tag=two text=second\n";
    const std::string base = dir_.writeFile("base.synth", records);
    Receiver direct(AF_INET);
    ASSERT_TRUE(direct.ok());
    const Result expected = run({"--send", direct.address(), "--script", base}, &direct);
    ASSERT_EQ(expected.status, 0) << expected.err;
    ASSERT_EQ(expected.datagrams.size(), 3U);
    // The first: 12:00:00.123456, a syslog record of 16 + 16 + 5 bytes.
    EXPECT_EQ(expected.datagrams[0].substr(0, 16),
              le32Bytes(1714564800U) + le32Bytes(123456) + le32Bytes(37) + le32Bytes(37));
    EXPECT_EQ(le32(expected.datagrams[2], 4), 123956U);  // 2 x 250 us later

    const std::vector<std::pair<std::string, std::string>> files = {
        {"f.pcap", ""},
        {"f-ns.pcap", "format pcap-ns\nbyteorder big\n"},
        {"f.pcapng.gz", "format pcapng tsresol=9\n"},
    };
    for (const auto& f : files) {
        SCOPED_TRACE(f.first);
        const std::string script = dir_.writeFile(f.first + ".synth", f.second + records);
        const Result written = run({"--script", script, "--output", dir_.path() + "/" + f.first});
        ASSERT_EQ(written.status, 0) << written.err;
        Receiver receiver(AF_INET);
        ASSERT_TRUE(receiver.ok());
        const Result sent =
            run({"--send", receiver.address(), "--from", dir_.path() + "/" + f.first}, &receiver);
        EXPECT_EQ(sent.status, 0) << sent.err;
        EXPECT_EQ(sent.datagrams, expected.datagrams);
    }
}

TEST_F(SynthSend, FromSkipsRecordsWithoutALogDatagram) {
    // Record 3 is TCP, record 2 goes to port 6000: with -p 5000 only records
    // 1 and 4 are sent, without -p also record 2.
    const std::string script = dir_.writeFile("mixed.synth",
                                              "link ipv4\n"
                                              "syslog tag=a text=one\n"
                                              "syslog tag=b text=two port=6000\n"
                                              "syslog tag=c text=three proto=6\n"
                                              "capture bytes=4\n");
    std::uint32_t linkType = 0;
    const std::vector<PcapRecord> written = capture({"--script", script}, "mixed.pcap", linkType);
    ASSERT_EQ(written.size(), 4U);
    const std::string from = dir_.path() + "/mixed.pcap";
    {
        Receiver receiver(AF_INET);
        ASSERT_TRUE(receiver.ok());
        const Result sent = run({"--send", receiver.address(), "--from", from, "-v"}, &receiver);
        EXPECT_EQ(sent.status, 0) << sent.err;
        ASSERT_EQ(sent.datagrams.size(), 3U);
        EXPECT_EQ(sent.datagrams[0], udpPayload(written[0], false));
        EXPECT_EQ(sent.datagrams[1], udpPayload(written[1], false, 6000));
        EXPECT_EQ(sent.datagrams[2], udpPayload(written[3], false));
        EXPECT_NE(sent.err.find("3 datagrams sent to " + receiver.address()), std::string::npos)
            << sent.err;
        EXPECT_NE(sent.err.find("; 1 of 4 records carried no log datagram\n"), std::string::npos)
            << sent.err;
    }
    {
        Receiver receiver(AF_INET);
        ASSERT_TRUE(receiver.ok());
        const Result sent =
            run({"--send", receiver.address(), "--from", from, "-p", "5000"}, &receiver);
        EXPECT_EQ(sent.status, 0) << sent.err;
        ASSERT_EQ(sent.datagrams.size(), 2U);
        EXPECT_EQ(sent.datagrams[0], udpPayload(written[0], false));
        EXPECT_EQ(sent.datagrams[1], udpPayload(written[3], false));
    }
}

TEST_F(SynthSend, RateSpreadsTheDatagramsOverTime) {
    // 2000 datagrams at 4000 per second: the last is due 1999/4000 s after
    // the first, so the run takes at least that (a little less is allowed
    // for the first batch). No upper bound: the machine may be busy.
    Receiver receiver(AF_INET);
    ASSERT_TRUE(receiver.ok());
    const Result sent = run({"--send", receiver.address(), "--dict", kDictionary, "--records",
                             "2000", "--rate", "4000", "-v"},
                            &receiver);
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_GE(sent.seconds, 0.4);
    EXPECT_EQ(sent.datagrams.size(), 2000U);
    EXPECT_EQ(
        sent.err.rfind("binlog-synth: 2000 datagrams sent to " + receiver.address() + " in ", 0),
        0U)
        << sent.err;
}

TEST_F(SynthSend, NoListenerDoesNotStopTheSending) {
    // A port nobody listens on: loopback answers each datagram with "port
    // unreachable", which the next send reports; the sender goes on.
    std::string address;
    {
        Receiver closed(AF_INET);
        ASSERT_TRUE(closed.ok());
        address = closed.address();
    }
    const Result sent = run(
        {"--send", address, "--dict", kDictionary, "--records", "300", "--rate", "10000", "-v"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.err.rfind("binlog-synth: 300 datagrams sent to " + address + " in ", 0), 0U)
        << sent.err;
    EXPECT_NE(sent.err.find(" sends refused (no listener)\n"), std::string::npos) << sent.err;
    // At least one refusal was seen (and survived).
    EXPECT_EQ(sent.err.find("; 0 sends refused"), std::string::npos) << sent.err;
}

TEST_F(SynthSend, SigintStopsTheSendingWithStatus130) {
    Receiver receiver(AF_INET);
    ASSERT_TRUE(receiver.ok());
    const pid_t pid = start({"--send", receiver.address(), "--dict", kDictionary, "--records",
                             "1000000", "--rate", "1000", "-v"});
    // Once datagrams arrive the tool is sending: interrupt it.
    std::vector<std::string> before;
    const auto begin = Clock::now();
    while (before.empty() && Clock::now() - begin < kDeadline) {
        pollfd p{receiver.fd(), POLLIN, 0};
        poll(&p, 1, 50);
        receiver.drain(before);
    }
    EXPECT_FALSE(before.empty());
    kill(pid, SIGINT);
    const Result r = finish(pid, &receiver);
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_EQ(r.err.rfind("binlog-synth: interrupted: ", 0), 0U) << r.err;
    EXPECT_LT(before.size() + r.datagrams.size(), 1000000U);
}

TEST_F(SynthSend, BadDestinationsAreUsageErrors) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"127.0.0.1", "the destination is written HOST:PORT"},
        {"127.0.0.1:0", "the port must be a number from 1 to 65535, not '0'"},
        {"127.0.0.1:65536", "the port must be a number from 1 to 65535, not '65536'"},
        {"127.0.0.1:http", "the port must be a number from 1 to 65535, not 'http'"},
        {"::1:5000", "an IPv6 address goes in brackets: [ADDRESS]:PORT"},
        {"[::1]5000", "an address in brackets is written [ADDRESS]:PORT"},
        {":5000", "the destination has no host"},
    };
    for (const auto& c : cases) {
        const Result r = run({"--send", c.first, "--dict", kDictionary, "--records", "1"});
        EXPECT_EQ(r.status, 2) << c.first;
        EXPECT_EQ(r.err, "binlog-synth: --send needs HOST:PORT, not '" + c.first +
                             "': " + c.second + "\n" + kTry);
    }
}

TEST_F(SynthSend, OptionsThatDoNotFitSendingAreUsageErrors) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--records", "1", "--output", dir_.path() + "/x.pcap"},
         "--send and --output exclude each other"},
        {{"--records", "1", "--gzip"}, "--gzip applies to a capture file, not to --send"},
        {{"--records", "1", "--link", "ipv6"}, "--link applies to a capture file, not to --send"},
        {{}, "--send needs one source: --records N (random), --script FILE or --from CAPTURE"},
        {{"--records", "1", "--rate", "-3"},
         "--rate needs a number of datagrams per second (0: as fast as possible), not '-3'"},
        {{"--records", "1", "-p", "5000"},
         "--udp-port with --send selects the datagrams of --from; the destination port is the "
         "one of HOST:PORT"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = {"--send", "127.0.0.1:5000", "--dict", kDictionary};
        args.insert(args.end(), c.first.begin(), c.first.end());
        const Result r = run(args);
        EXPECT_EQ(r.status, 2) << c.second;
        EXPECT_EQ(r.err, "binlog-synth: " + c.second + "\n" + kTry);
    }
    const Result from =
        run({"--from", dir_.path() + "/x.pcap", "--output", dir_.path() + "/y.pcap"});
    EXPECT_EQ(from.status, 2);
    EXPECT_EQ(from.err, "binlog-synth: --from needs --send HOST:PORT\n" + kTry);
}

TEST_F(SynthSend, AnAddressThatCannotBeReachedFails) {
    // A link-local IPv6 address without an interface cannot be connected
    // to: a failure (status 1), found before anything is sent.
    const Result r = run({"--send", "[fe80::1]:5000", "--dict", kDictionary, "--records", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind("binlog-synth: cannot send to [fe80::1]:5000: ", 0), 0U) << r.err;
    const Result missing =
        run({"--send", "127.0.0.1:5000", "--from", dir_.path() + "/missing.pcap"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "binlog-synth: cannot read " + dir_.path() +
                               "/missing.pcap: No such file or directory\n");
}

#endif

}  // namespace
