// binlog-synth: writes binary log captures for a dictionary directory, either
// a random mix of records or the records a script lists, or sends such
// records (or those of a capture) live as UDP datagrams.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "../common/CliMessage.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/CaptureInput.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/RandomMix.h"
#include "binlog_synth/Script.h"
#include "binlog_synth/Sender.h"
#include "binlog_synth/Text.h"

#ifndef WEXBL_VERSION
#define WEXBL_VERSION "unknown"
#endif

const char* const wexbl_cli::kProgramName = "binlog-synth";

namespace {

using namespace binlog_synth;

const char* const kProgram = wexbl_cli::kProgramName;
using wexbl_cli::kExitFailure;
using wexbl_cli::kExitOk;
using wexbl_cli::kExitUsage;
using wexbl_cli::message;

void printUsage(FILE* to) {
    fprintf(to,
            "Usage: %s --dict DIR --output FILE --records N [options]   (random mode)\n"
            "       %s [--dict DIR] --output FILE --script FILE [options] (scripted mode)\n"
            "       %s --send HOST:PORT [--dict DIR] (--records N | --script FILE |\n"
            "                    --from CAPTURE) [options]                         (sending)\n"
            "Write a binary log capture (pcap, plain or gzip) for a dictionary directory,\n"
            "or send its records live, one UDP datagram per record.\n"
            "\n"
            "  -d, --dict DIR          dictionary directory (binlog and bindisplay XML files)\n"
            "  -o, --output FILE       capture to write; - for standard output (--out is\n"
            "                          the same)\n"
            "      --script FILE       scripted mode: write the records FILE lists\n"
            "                          (- for standard input; format in tools/synth/README.md)\n"
            "  -n, --records N         random mode: write N records\n"
            "\n"
            "Output:\n"
            "  -z, --gzip              gzip-compress (default when FILE ends in .gz)\n"
            "      --plain             do not compress\n"
            "      --gzip-level N      compression level 0-9 (default: 1 in random mode,\n"
            "                          zlib's default for scripts)\n"
            "      --force             write to standard output even when it is a terminal\n"
            "  -l, --link KIND         150 (default), ipv4 or ipv6 (Ethernet, UDP); 228 or\n"
            "                          229 (raw IPv4, IPv6); or LAYER:ipv4|ipv6 with LAYER\n"
            "                          ethernet, sll, sll2, raw or null\n"
            "  -F, --format FORMAT     pcap (default), pcap-ns (nanosecond time stamps) or\n"
            "                          pcapng\n"
            "      --big-endian        write the file's headers big-endian\n"
            "  -p, --udp-port P        UDP destination port (default 5000); without --link\n"
            "                          it makes the capture Ethernet: ipv4, or ipv6 when the\n"
            "                          script says link ipv6\n"
            "      --start TIME        first time stamp: 2024-05-01T12:00:00.250Z or\n"
            "                          seconds since 1970 (default 2024-05-01T12:00:00Z)\n"
            "\n"
            "Random mode:\n"
            "      --seed S            seed of the generator (default 1); the same seed\n"
            "                          gives the same file on every platform\n"
            "      --rate R            records per second (default 1000; decimals allowed)\n"
            "      --gap-every K       every K-th record skips 1-3 sequence numbers\n"
            "      --reorder-every K   every K-th record is sent before its predecessor\n"
            "      --repeat-every K    every K-th record repeats its predecessor's number\n"
            "      --mix LIST          weights, e.g. binlog=960,syslog=20,legacy=10,capture=10\n"
            "      --max-var-length N  longest random var binary string (default 48)\n"
            "  -v, --verbose           print what was written on standard error\n"
            "\n"
            "Sending:\n"
            "      --send HOST:PORT    send each record as one UDP datagram (the sender's\n"
            "                          16-byte record header, the log record) to HOST:PORT:\n"
            "                          127.0.0.1:5000, [::1]:5000 or name:5000; no --output\n"
            "      --from CAPTURE      send the log datagrams of a capture (pcap or pcapng,\n"
            "                          plain or gzip; - for standard input); with -p only\n"
            "                          the UDP datagrams to that port\n"
            "      --rate R            datagrams per second, paced evenly (default 1000; 0:\n"
            "                          as fast as possible); generated records also take\n"
            "                          their time stamps from it, as in a capture\n"
            "\n"
            "  -h, --help              show this help and exit\n"
            "  -V, --version           show the version and exit\n"
            "\n"
            "Command-line --gzip/--plain, --link and --udp-port win over a script's\n"
            "own settings; --start sets the clock before the script's first line.\n"
            "A file is written under a temporary name beside it and takes its place only\n"
            "when everything was written: on a failure an existing file is left as it was.\n"
            "\n"
            "A sent datagram is byte for byte the UDP payload the same options put in an\n"
            "Ethernet capture (--link ipv4 for an IPv4 destination, ipv6 for IPv6).\n"
            "\n"
            "Exit status: 0 on success, 1 when the dictionary, the script, the output or\n"
            "the sending fails, 2 on a usage error (also when standard output is a\n"
            "terminal and the output is -, unless --force), 130 when sending was stopped\n"
            "by SIGINT (Ctrl-C).\n",
            kProgram, kProgram, kProgram);
}

int usageError(const char* format, ...) __attribute__((format(printf, 1, 2)));
int usageError(const char* format, ...) {
    fprintf(stderr, "%s: ", kProgram);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fprintf(stderr, "\nTry '%s --help' for more information.\n", kProgram);
    return kExitUsage;
}

bool readAll(const std::string& path, std::string& text, std::string& error) {
    std::ostringstream buffer;
    if (path == "-") {
        buffer << std::cin.rdbuf();
    } else {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            error = "cannot read " + path + ": " + std::strerror(errno);
            return false;
        }
        buffer << in.rdbuf();
    }
    text = buffer.str();
    return true;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool parseMix(const std::string& text, RandomOptions& options) {
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string item = text.substr(start, comma - start);
        const std::size_t eq = item.find('=');
        std::uint64_t weight = 0;
        if (eq == std::string::npos || !parseUnsigned(item.substr(eq + 1), 1000000, weight)) {
            return false;
        }
        const std::string kind = item.substr(0, eq);
        const auto w = static_cast<std::uint32_t>(weight);
        if (kind == "binlog") {
            options.weightBinLog = w;
        } else if (kind == "syslog") {
            options.weightSyslog = w;
        } else if (kind == "legacy") {
            options.weightLegacy = w;
        } else if (kind == "capture") {
            options.weightCapture = w;
        } else {
            return false;
        }
        start = comma + 1;
    }
    return true;
}

/// --link: 150, ipv4, ipv6 (Ethernet), 228, 229, or LAYER:ipv4|ipv6.
bool parseLinkOption(const std::string& text, Framing& framing) {
    const std::string word = lower(text);
    if (word == "150" || word == "ipv4" || word == "ipv6" || word == "228" || word == "229") {
        framing.kind = word == "150"                     ? LinkKind::Raw150
                       : word == "ipv4" || word == "228" ? LinkKind::Ipv4
                                                         : LinkKind::Ipv6;
        framing.layer = word == "228" || word == "229" ? LinkLayer::RawIpOnly : LinkLayer::Ethernet;
        return true;
    }
    const std::size_t colon = word.find(':');
    if (colon == std::string::npos) {
        return false;
    }
    const std::string layer = word.substr(0, colon);
    const std::string ip = word.substr(colon + 1);
    if (ip != "ipv4" && ip != "ipv6") {
        return false;
    }
    framing.kind = ip == "ipv4" ? LinkKind::Ipv4 : LinkKind::Ipv6;
    if (layer == "ethernet" || layer == "1") {
        framing.layer = LinkLayer::Ethernet;
    } else if (layer == "sll" || layer == "113") {
        framing.layer = LinkLayer::LinuxSll;
    } else if (layer == "sll2" || layer == "276") {
        framing.layer = LinkLayer::LinuxSll2;
    } else if (layer == "raw" || layer == "101") {
        framing.layer = LinkLayer::RawIp;
    } else if (layer == "null" || layer == "0") {
        framing.layer = LinkLayer::Loopback;
    } else {
        return false;
    }
    return true;
}

enum OptionId {
    kOptPlain = 256,
    kOptGzipLevel,
    kOptStart,
    kOptSeed,
    kOptRate,
    kOptGapEvery,
    kOptReorderEvery,
    kOptRepeatEvery,
    kOptMix,
    kOptMaxVarLength,
    kOptOldMaxVarBytes,
    kOptScript,
    kOptForce,
    kOptBigEndian,
    kOptSend,
    kOptFrom,
};

/// The temporary file being written, removed by the handler of a signal
/// that ends the program (a NUL-terminated copy: the handler may only call
/// async-signal-safe functions).
char gTemporaryPath[4096];

void removeTemporaryAndDie(int sig) {
    if (gTemporaryPath[0] != '\0') {
        unlink(gTemporaryPath);
    }
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = SIG_DFL;
    sigaction(sig, &action, nullptr);
    raise(sig);
}

const int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

/// Removes the temporary file `sink` writes when the program is ended by
/// SIGINT, SIGTERM or SIGHUP.
void removeTemporaryOnSignals(const OutputSink& sink) {
    const std::string& path = sink.temporaryPath();
    if (path.empty() || path.size() >= sizeof gTemporaryPath) {
        return;
    }
    memcpy(gTemporaryPath, path.c_str(), path.size() + 1);
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = removeTemporaryAndDie;
    sigemptyset(&action.sa_mask);
    for (const int sig : kEndingSignals) {
        struct sigaction current;
        // A signal the program was started ignoring stays ignored.
        if (sigaction(sig, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) {
            sigaction(sig, &action, nullptr);
        }
    }
}

/// Set by SIGINT while sending: the sender stops after the datagram in hand.
volatile std::sig_atomic_t gStopSending = 0;

void stopSending(int) {
    gStopSending = 1;
}

constexpr int kExitInterrupted = 130;

void forgetTemporary() {
    sigset_t all, old;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &old);
    gTemporaryPath[0] = '\0';
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

/// What --send was asked to do.
struct SendRequest {
    std::string to;
    std::string fromPath;
    std::string dictDir;
    std::string scriptPath;
    bool haveRecords = false;
    bool outputGiven = false;
    const char* captureOnly = nullptr;
    const char* randomOnly = nullptr;
    bool startGiven = false;
    int port = -1;  // -p: the datagrams of --from to send; -1: all
    std::uint32_t startSec = kDefaultStartSec;
    std::uint32_t startUsec = 0;
    std::uint64_t rateNum = 1000;  // 0: as fast as possible
    std::uint64_t rateDen = 1;
    RandomOptions random;
    bool verbose = false;
};

/// --send: checks the options, then sends the records of a capture, a
/// script or the random mix, one datagram each.
int sendRecords(const SendRequest& request) {
    const bool fromCapture = !request.fromPath.empty();
    const bool scripted = !request.scriptPath.empty();
    if (request.outputGiven) {
        return usageError("--send and --output exclude each other");
    }
    if (request.captureOnly != nullptr) {
        return usageError("%s applies to a capture file, not to --send", request.captureOnly);
    }
    if (static_cast<int>(fromCapture) + static_cast<int>(scripted) +
            static_cast<int>(request.haveRecords) !=
        1) {
        return usageError(
            "--send needs one source: --records N (random), --script FILE or --from CAPTURE");
    }
    if (!request.haveRecords && request.randomOnly != nullptr) {
        return usageError("%s applies to random mode only", request.randomOnly);
    }
    if (fromCapture && (!request.dictDir.empty() || request.startGiven)) {
        return usageError("--from sends a capture's own records: --dict and --start do not apply");
    }
    if (!fromCapture && request.port >= 0) {
        return usageError(
            "--udp-port with --send selects the datagrams of --from; the destination port is "
            "the one of HOST:PORT");
    }
    if (request.haveRecords && request.dictDir.empty()) {
        return usageError("random mode needs --dict DIR");
    }
    std::string host, port, error;
    if (!parseSendAddress(request.to, host, port, error)) {
        return usageError("--send needs HOST:PORT, not '%s': %s", request.to.c_str(),
                          error.c_str());
    }

    // Everything that can fail before the first datagram is done first.
    Dictionary dictionary;
    if (!request.dictDir.empty() && !dictionary.load(request.dictDir, error)) {
        message("%s", error.c_str());
        return kExitFailure;
    }
    Script script;
    if (scripted) {
        std::string text;
        if (!readAll(request.scriptPath, text, error)) {
            message("%s", error.c_str());
            return kExitFailure;
        }
        const std::string name = request.scriptPath == "-" ? "<stdin>" : request.scriptPath;
        if (!parseScript(text, name, script, error)) {
            message("%s", error.c_str());
            return kExitFailure;
        }
    }
    CaptureInput input;
    if (fromCapture) {
        input.setPort(request.port);
        if (!input.open(request.fromPath)) {
            message("%s", input.error().c_str());
            return kExitFailure;
        }
    }
    UdpSender sender;
    if (!sender.open(host, port, error)) {
        message("cannot send to %s: %s", request.to.c_str(), error.c_str());
        return kExitFailure;
    }
    sender.setRate(request.rateNum, request.rateDen);
    sender.setStopFlag(&gStopSending);
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = stopSending;  // no SA_RESTART: a wait ends at once
    sigemptyset(&action.sa_mask);
    struct sigaction current;
    if (sigaction(SIGINT, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) {
        sigaction(SIGINT, &action, nullptr);
    }

    // The records are generated as for an Ethernet capture of the
    // destination's IP version, which decides the logs whose records fit.
    Framing framing = script.settings.framing;
    framing.kind = sender.family() == AF_INET6 ? LinkKind::Ipv6 : LinkKind::Ipv4;
    CaptureWriter writer(sender, framing, script.settings.header);
    bool ok = true;
    RandomSummary randomSummary;
    if (fromCapture) {
        std::string datagram;
        CaptureInput::Next next = CaptureInput::Next::End;
        while (ok && (next = input.next(datagram)) == CaptureInput::Next::Datagram) {
            ok = sender.sendDatagram(datagram);
        }
        if (ok && next == CaptureInput::Next::Failed) {
            ok = false;
            error = input.error();
        }
    } else if (scripted) {
        ScriptRunner runner(request.dictDir.empty() ? nullptr : &dictionary);
        runner.setStart(request.startSec, request.startUsec);
        ok = runner.run(script, writer, error);
    } else {
        RandomOptions random = request.random;
        random.startSec = request.startSec;
        random.startUsec = request.startUsec;
        ok = writeRandomCapture(dictionary, random, writer, error, &randomSummary);
    }
    ok = ok && sender.flush();
    const bool interrupted = sender.stopped();
    if (!ok && !interrupted) {
        if (!sender.failure().empty()) {
            message("cannot send to %s: %s", request.to.c_str(), sender.failure().c_str());
        } else {
            message("%s", error.c_str());
        }
    }
    if (request.verbose) {
        const SendSummary summary = sender.summary();
        std::string rate = "";
        if (summary.seconds > 0) {
            char text[64];
            snprintf(text, sizeof text, " in %.3f s (%.0f per second)", summary.seconds,
                     static_cast<double>(summary.sent - 1) / summary.seconds);
            rate = text;
        }
        std::string skipped = "";
        if (fromCapture) {
            skipped = "; " + std::to_string(input.skipped()) + " of " +
                      std::to_string(input.records()) + " records carried no log datagram";
        }
        message("%s%llu datagrams sent to %s%s; %llu sends refused (no listener)%s",
                interrupted ? "interrupted: " : "", static_cast<unsigned long long>(summary.sent),
                request.to.c_str(), rate.c_str(), static_cast<unsigned long long>(summary.refused),
                skipped.c_str());
    }
    if (interrupted) {
        return kExitInterrupted;
    }
    return ok ? kExitOk : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
    static const option kOptions[] = {
        {"dict", required_argument, nullptr, 'd'},
        {"output", required_argument, nullptr, 'o'},
        {"out", required_argument, nullptr, 'o'},
        {"script", required_argument, nullptr, kOptScript},
        {"records", required_argument, nullptr, 'n'},
        {"gzip", no_argument, nullptr, 'z'},
        {"plain", no_argument, nullptr, kOptPlain},
        {"gzip-level", required_argument, nullptr, kOptGzipLevel},
        {"link", required_argument, nullptr, 'l'},
        {"udp-port", required_argument, nullptr, 'p'},
        {"start", required_argument, nullptr, kOptStart},
        {"seed", required_argument, nullptr, kOptSeed},
        {"rate", required_argument, nullptr, kOptRate},
        {"gap-every", required_argument, nullptr, kOptGapEvery},
        {"reorder-every", required_argument, nullptr, kOptReorderEvery},
        {"repeat-every", required_argument, nullptr, kOptRepeatEvery},
        {"mix", required_argument, nullptr, kOptMix},
        {"max-var-length", required_argument, nullptr, kOptMaxVarLength},
        {"max-var-bytes", required_argument, nullptr, kOptOldMaxVarBytes},
        {"force", no_argument, nullptr, kOptForce},
        {"format", required_argument, nullptr, 'F'},
        {"big-endian", no_argument, nullptr, kOptBigEndian},
        {"send", required_argument, nullptr, kOptSend},
        {"from", required_argument, nullptr, kOptFrom},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };

    std::string dictDir, outPath, scriptPath;
    bool haveRecords = false, verbose = false, force = false;
    int gzipChoice = -1;  // -1: not given, 0: plain, 1: gzip
    int gzipLevel = -1;
    bool linkGiven = false, portGiven = false;
    Framing link;
    int formatChoice = -1;  // a FileFormat when given
    bool bigEndian = false;
    std::uint16_t port = 5000;
    std::uint32_t startSec = kDefaultStartSec, startUsec = 0;
    RandomOptions random;
    const char* randomOnly = nullptr;   // a random-mode option seen, for the usage check
    const char* captureOnly = nullptr;  // an option of capture files seen
    std::string sendTo, fromPath;
    std::string rateText;
    bool startGiven = false;

    opterr = 0;
    int c = 0;
    while ((c = getopt_long(argc, argv, ":d:o:n:zl:p:F:vhV", kOptions, nullptr)) != -1) {
        std::uint64_t n = 0;
        const std::string arg = optarg != nullptr ? optarg : "";
        switch (c) {
            case 'd':
                dictDir = arg;
                break;
            case 'o':
                outPath = arg;
                break;
            case kOptScript:
                scriptPath = arg;
                break;
            case kOptForce:
                force = true;
                captureOnly = "--force";
                break;
            case 'n':
                if (!parseUnsigned(arg, UINT64_MAX, n)) {
                    return usageError("--records needs a whole number, not '%s'", arg.c_str());
                }
                haveRecords = true;
                random.records = n;
                break;
            case 'z':
                gzipChoice = 1;
                captureOnly = "--gzip";
                break;
            case kOptPlain:
                gzipChoice = 0;
                captureOnly = "--plain";
                break;
            case kOptGzipLevel:
                if (!parseUnsigned(arg, 9, n)) {
                    return usageError("--gzip-level needs a number from 0 to 9, not '%s'",
                                      arg.c_str());
                }
                gzipLevel = static_cast<int>(n);
                captureOnly = "--gzip-level";
                break;
            case 'l':
                if (!parseLinkOption(arg, link)) {
                    return usageError(
                        "--link takes 150, ipv4, ipv6, 228, 229 or LAYER:ipv4|ipv6 (LAYER "
                        "ethernet, sll, sll2, raw or null), not '%s'",
                        arg.c_str());
                }
                linkGiven = true;
                captureOnly = "--link";
                break;
            case 'F':
                if (arg == "pcap") {
                    formatChoice = static_cast<int>(FileFormat::Pcap);
                } else if (arg == "pcap-ns") {
                    formatChoice = static_cast<int>(FileFormat::PcapNano);
                } else if (arg == "pcapng") {
                    formatChoice = static_cast<int>(FileFormat::PcapNg);
                } else {
                    return usageError("--format takes pcap, pcap-ns or pcapng, not '%s'",
                                      arg.c_str());
                }
                captureOnly = "--format";
                break;
            case kOptBigEndian:
                bigEndian = true;
                captureOnly = "--big-endian";
                break;
            case kOptSend:
                sendTo = arg;
                break;
            case kOptFrom:
                fromPath = arg;
                break;
            case 'p':
                if (!parseUnsigned(arg, 0xFFFF, n)) {
                    return usageError("--udp-port needs a port number (0-65535), not '%s'",
                                      arg.c_str());
                }
                port = static_cast<std::uint16_t>(n);
                portGiven = true;
                break;
            case kOptStart:
                if (!parseTime(arg, startSec, startUsec)) {
                    return usageError(
                        "--start needs a time such as 2024-05-01T12:00:00.250Z or seconds "
                        "since 1970, not '%s'",
                        arg.c_str());
                }
                startGiven = true;
                break;
            case kOptSeed:
                if (!parseUnsigned(arg, UINT64_MAX, n)) {
                    return usageError("--seed needs a whole number, not '%s'", arg.c_str());
                }
                random.seed = n;
                randomOnly = "--seed";
                break;
            case kOptRate:
                // Checked below: sending also takes 0.
                rateText = arg;
                break;
            case kOptGapEvery:
            case kOptReorderEvery:
            case kOptRepeatEvery: {
                const char* name = c == kOptGapEvery       ? "--gap-every"
                                   : c == kOptReorderEvery ? "--reorder-every"
                                                           : "--repeat-every";
                if (!parseUnsigned(arg, UINT64_MAX, n)) {
                    return usageError("%s needs a whole number, not '%s'", name, arg.c_str());
                }
                (c == kOptGapEvery       ? random.gapEvery
                 : c == kOptReorderEvery ? random.reorderEvery
                                         : random.repeatEvery) = n;
                randomOnly = name;
                break;
            }
            case kOptMix:
                if (!parseMix(arg, random)) {
                    return usageError(
                        "--mix takes KIND=WEIGHT,... with the kinds binlog, "
                        "syslog, legacy and capture, not '%s'",
                        arg.c_str());
                }
                randomOnly = "--mix";
                break;
            case kOptMaxVarLength:
                if (!parseUnsigned(arg, 0xFFFF, n)) {
                    return usageError("--max-var-length needs a number from 0 to 65535, not '%s'",
                                      arg.c_str());
                }
                random.values.maxVarBinaryBytes = static_cast<std::uint32_t>(n);
                randomOnly = "--max-var-length";
                break;
            case kOptOldMaxVarBytes:
                return usageError("--max-var-bytes is now called --max-var-length");
            case 'v':
                verbose = true;
                break;
            case 'h':
                printUsage(stdout);
                return kExitOk;
            case 'V':
                printf("%s %s\n", kProgram, WEXBL_VERSION);
                return kExitOk;
            case ':':
                return usageError("option '%s' needs an argument", argv[optind - 1]);
            default:
                if (optopt != 0) {
                    return usageError("unknown option '-%c'", optopt);
                }
                return usageError("unknown option '%s'", argv[optind - 1]);
        }
    }
    if (optind < argc) {
        return usageError("unexpected argument '%s'", argv[optind]);
    }
    const bool sending = !sendTo.empty();
    // Sending: --rate paces the datagrams (0: no pacing); a positive rate
    // also spaces the generated time stamps, as it does in a capture.
    std::uint64_t sendRateNum = 1000, sendRateDen = 1;
    if (!rateText.empty()) {
        std::uint64_t zero = 1;
        if (sending && parseUnsigned(rateText, 0, zero) && zero == 0) {
            sendRateNum = 0;
        } else if (!parseRate(rateText, random.rateNum, random.rateDen)) {
            return usageError(
                sending ? "--rate needs a number of datagrams per second (0: as fast as "
                          "possible), not '%s'"
                        : "--rate needs a positive number of records per second, not '%s'",
                rateText.c_str());
        } else {
            sendRateNum = random.rateNum;
            sendRateDen = random.rateDen;
        }
        if (!sending) {
            randomOnly = "--rate";
        }
    }
    if (!fromPath.empty() && !sending) {
        return usageError("--from needs --send HOST:PORT");
    }
    if (sending) {
        SendRequest request;
        request.to = sendTo;
        request.fromPath = fromPath;
        request.dictDir = dictDir;
        request.scriptPath = scriptPath;
        request.haveRecords = haveRecords;
        request.outputGiven = !outPath.empty();
        request.captureOnly = captureOnly;
        request.randomOnly = randomOnly;
        request.startGiven = startGiven;
        request.port = portGiven ? port : -1;
        request.startSec = startSec;
        request.startUsec = startUsec;
        request.rateNum = sendRateNum;
        request.rateDen = sendRateDen;
        request.random = random;
        request.verbose = verbose;
        return sendRecords(request);
    }
    const bool scripted = !scriptPath.empty();
    if (scripted && haveRecords) {
        return usageError("--script and --records exclude each other");
    }
    if (!scripted && !haveRecords) {
        return usageError("give --records N (random mode) or --script FILE (scripted mode)");
    }
    if (outPath.empty()) {
        return usageError("--output FILE is required");
    }
    if (!scripted && dictDir.empty()) {
        return usageError("random mode needs --dict DIR");
    }
    if (scripted && randomOnly != nullptr) {
        return usageError("%s applies to random mode only", randomOnly);
    }
    if (portGiven && linkGiven && link.kind == LinkKind::Raw150) {
        return usageError("--udp-port needs Ethernet framing (--link ipv4 or ipv6)");
    }
    if (outPath == "-" && !force && isatty(STDOUT_FILENO)) {
        // A capture is binary: on a terminal it is noise that can upset the
        // terminal itself.
        return usageError(
            "will not write a capture to a terminal: redirect standard output or give "
            "--force");
    }
    Dictionary dictionary;
    std::string error;
    if (!dictDir.empty() && !dictionary.load(dictDir, error)) {
        message("%s", error.c_str());
        return kExitFailure;
    }

    Script script;
    if (scripted) {
        std::string text;
        if (!readAll(scriptPath, text, error)) {
            message("%s", error.c_str());
            return kExitFailure;
        }
        if (!parseScript(text, scriptPath == "-" ? "<stdin>" : scriptPath, script, error)) {
            message("%s", error.c_str());
            return kExitFailure;
        }
    }

    // The command line wins over the script: --link sets the framing, and
    // --udp-port, which only Ethernet framing has, makes a capture that would
    // be link type 150 an IPv4 one.
    Framing framing = script.settings.framing;
    if (linkGiven) {
        framing.kind = link.kind;
        framing.layer = link.layer;
    } else if (portGiven && framing.kind == LinkKind::Raw150) {
        framing.kind = LinkKind::Ipv4;
    }
    if (portGiven) {
        framing.dstPort = port;
    }
    bool gzip = endsWith(outPath, ".gz");
    if (script.settings.gzipSet) {
        gzip = script.settings.gzip;
    }
    if (gzipChoice >= 0) {
        gzip = gzipChoice == 1;
    }

    GlobalHeaderSettings fileSettings = script.settings.header;
    if (formatChoice >= 0) {
        fileSettings.format = static_cast<FileFormat>(formatChoice);
    }
    if (bigEndian) {
        fileSettings.bigEndian = true;
    }
    // A gzip file damaged on purpose is compressed in memory, damaged, and
    // then written as it is.
    const GzipDamage& damage = script.settings.gzipDamage;
    if (damage.any() && !gzip) {
        message("%s: the script's gzip damage needs a gzip file (it says gzip; --plain was given)",
                scriptPath.c_str());
        return kExitFailure;
    }
    const bool damaged = damage.any();
    if (damaged) {
        gzip = false;
    }

    if (!scripted && gzipLevel < 0) {
        gzipLevel = 1;  // big random captures: fast compression, files ~10% larger
    }
    // While a temporary file is made, the signals that end the program wait
    // until the handler that removes it knows its name. Opening a pipe or a
    // device (written directly) may wait for a reader and stays interruptible.
    struct stat info;
    const bool direct =
        outPath == "-" || (stat(outPath.c_str(), &info) == 0 && !S_ISREG(info.st_mode));
    sigset_t ending, before;
    sigemptyset(&ending);
    for (const int sig : kEndingSignals) {
        if (!direct) {
            sigaddset(&ending, sig);
        }
    }
    sigprocmask(SIG_BLOCK, &ending, &before);
    OutputSink sink;
    const bool opened = sink.open(outPath, gzip, error, gzipLevel);
    if (opened) {
        removeTemporaryOnSignals(sink);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (!opened) {
        message("%s", error.c_str());
        return kExitFailure;
    }
    OutputSink memory;
    if (damaged) {
        memory.openMemory();
    }
    CaptureWriter writer(damaged ? memory : sink, framing, fileSettings);
    bool ok = true;
    RandomSummary summary;
    if (scripted) {
        ScriptRunner runner(dictDir.empty() ? nullptr : &dictionary);
        runner.setStart(startSec, startUsec);
        ok = runner.run(script, writer, error);
    } else {
        random.startSec = startSec;
        random.startUsec = startUsec;
        ok = writeRandomCapture(dictionary, random, writer, error, &summary);
    }
    ok = ok && writer.finish();
    if (ok && damaged) {
        std::string ignored, compressed;
        ok = memory.close(ignored) &&
             buildGzip(memory.memory(), memory.writeEnds(), gzipLevel, damage, compressed, error) &&
             sink.write(compressed);
    }
    if (!ok) {
        // Nothing of a failed run is kept: an existing file stays as it was.
        const std::string why = !sink.failure().empty() ? sink.failure() : error;
        sink.abandon();
        forgetTemporary();
        message("%s", why.c_str());
        return kExitFailure;
    }
    std::string closeError;
    const bool closed = sink.close(closeError);
    forgetTemporary();
    if (!closed) {
        message("%s", closeError.c_str());
        return kExitFailure;
    }
    if (verbose) {
        if (scripted) {
            message("wrote %llu records to %s",
                    static_cast<unsigned long long>(writer.recordsWritten()), outPath.c_str());
        } else {
            message(
                "wrote %llu records to %s: %llu binlog, %llu legacy, %llu syslog, %llu "
                "capture; %llu gaps (%llu numbers skipped), %llu reordered, %llu repeated",
                static_cast<unsigned long long>(writer.recordsWritten()), outPath.c_str(),
                static_cast<unsigned long long>(summary.binLog),
                static_cast<unsigned long long>(summary.legacy),
                static_cast<unsigned long long>(summary.syslog),
                static_cast<unsigned long long>(summary.capture),
                static_cast<unsigned long long>(summary.gaps),
                static_cast<unsigned long long>(summary.missing),
                static_cast<unsigned long long>(summary.reordered),
                static_cast<unsigned long long>(summary.repeated));
        }
    }
    return kExitOk;
}
