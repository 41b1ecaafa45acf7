// binlog-decode: decodes binary log captures into text lines.
//
//   binlog-decode [options] -d DICTIONARY_DIR CAPTURE...
//   binlog-decode [options] DICTIONARY_DIR CAPTURE...
//
// Each CAPTURE is a pcap, pcapng or pcap.gz file, a directory whose captures
// are decoded in name order, or "-" for standard input. Lines go to standard
// output (or --output), diagnostics to standard error.
//
// Every capture is read once, as its bytes arrive, through the library's
// capture streams; one stream session carries the statistics and the level
// table from one capture to the next, as one reader's readBinaryFiledata
// calls do, so the lines are the ones readBinaryFiledata prints.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "../common/CliMessage.h"
#include "BinaryLogXmlReader.h"
#include "CaptureInputs.h"
#include "Output.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

#ifndef WEXBL_VERSION
#define WEXBL_VERSION "unknown"
#endif

const char* const wexbl_cli::kProgramName = "binlog-decode";

namespace {

const char* const kProgram = wexbl_cli::kProgramName;
using wexbl_cli::kExitFailure;
using wexbl_cli::kExitOk;
using wexbl_cli::kExitUsage;
using wexbl_cli::message;
using wexbl_decode::CaptureInput;
using wexbl_decode::Output;

constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;

void printUsage(FILE* to) {
    fprintf(to,
            "Usage: %s [options] -d DICTIONARY_DIR CAPTURE...\n"
            "   or: %s [options] DICTIONARY_DIR CAPTURE...\n"
            "Decode binary log captures into one text line per record.\n"
            "\n"
            "DICTIONARY_DIR holds the binlog and bindisplay XML dictionaries; without\n"
            "--dict it is the first operand. Each CAPTURE is a pcap or pcap.gz file, a\n"
            "directory, or - for standard input. Of a directory, the regular files whose\n"
            "names end in \".pcap\" or contain \"pcap.gz\" are decoded, in byte order of\n"
            "their names; standard error tells how many other entries were skipped and\n"
            "why, or that it held no capture (a warning only). Standard input and other\n"
            "captures that are not regular files (pipes, /dev/stdin) are decoded as\n"
            "their bytes arrive. pcap (microsecond or nanosecond, either byte order) and\n"
            "pcapng are read, plain or gzip-compressed; besides link type 150 and\n"
            "Ethernet, records may come over Linux cooked captures, raw IP and BSD\n"
            "loopback, with VLAN tags and IPv4 options. Where a capture is in a form\n"
            "the library's own capture loop does not read, a note on standard error\n"
            "says so.\n"
            "\n"
            "Options:\n"
            "  -d, --dict DIR           the dictionary directory\n"
            "  -s, --stats              report sequence gaps and reordering, and print\n"
            "                           statistics at the end of each capture\n"
            "  -p, --udp-port PORT      UDP destination port of the log datagrams in\n"
            "                           Ethernet-framed captures (default: none; needed\n"
            "                           for Ethernet captures)\n"
            "  -m, --max-var-bytes N    most bytes of a var binary string shown\n"
            "                           (0-65535, default 65535: all)\n"
            "  -u, --utc-offset MINUTES minutes added to every record time (default 0)\n"
            "  -o, --output FILE        write the decoded lines to FILE (- for standard\n"
            "                           output); the output, also standard output, may\n"
            "                           not be one of the captures\n"
            "  -h, --help               show this help and exit\n"
            "  -V, --version            show the version and exit\n"
            "\n"
            "Exit status: 0 when every capture was read; 1 when the dictionaries did\n"
            "not load, a capture could not be opened or read or is not a log capture\n"
            "(not a capture file, no global header, another link type, UDP framing\n"
            "without --udp-port), its compressed data is damaged, the output could not\n"
            "be written, or memory ran out; 2 on a usage error, or when the output is\n"
            "one of the captures. Other problems inside a capture (a truncated or\n"
            "oversized record, an unknown log id) are reported on standard error and\n"
            "do not change the exit status.\n",
            kProgram, kProgram);
}

void printTryHelp() {
    fprintf(stderr, "Try '%s --help' for more information.\n", kProgram);
}

/// Parses a whole decimal number within [low, high].
bool parseNumber(const char* text, long low, long high, long& value) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long parsed = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

struct Options {
    bool stats = false;
    long udpPort = -1;
    long maxVarBytes = 65535;
    long utcOffset = 0;
    const char* outputPath = nullptr;
    const char* dictionary = nullptr;
    std::vector<std::string> captures;
};

/// Reads the command line into `options`. Returns -1 to go on, or the exit
/// status to end with at once (help, version, usage errors).
int parseCommandLine(int argc, char** argv, Options& options) {
    static const struct option kOptions[] = {
        {"dict", required_argument, nullptr, 'd'},
        {"stats", no_argument, nullptr, 's'},
        {"udp-port", required_argument, nullptr, 'p'},
        {"max-var-bytes", required_argument, nullptr, 'm'},
        {"utc-offset", required_argument, nullptr, 'u'},
        {"output", required_argument, nullptr, 'o'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    // getopt_long names the program by argv[0] in its messages; name it as
    // our own messages do, whatever path it was started by.
    argv[0] = const_cast<char*>(kProgram);
    int option;
    while ((option = getopt_long(argc, argv, "d:sp:m:u:o:hV", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'd':
                options.dictionary = optarg;
                break;
            case 's':
                options.stats = true;
                break;
            case 'p':
                if (!parseNumber(optarg, 0, 65535, options.udpPort)) {
                    message("invalid UDP port '%s' (expected 0-65535)", optarg);
                    return kExitUsage;
                }
                break;
            case 'm':
                if (!parseNumber(optarg, 0, 65535, options.maxVarBytes)) {
                    message("invalid byte count '%s' (expected 0-65535)", optarg);
                    return kExitUsage;
                }
                break;
            case 'u':
                if (!parseNumber(optarg, INT_MIN / 60, INT_MAX / 60, options.utcOffset)) {
                    message("invalid UTC offset '%s' (expected minutes, e.g. 60 or -300)", optarg);
                    return kExitUsage;
                }
                break;
            case 'o':
                options.outputPath = optarg;
                break;
            case 'h':
                printUsage(stdout);
                return kExitOk;
            case 'V':
                printf("%s %s\n", kProgram, WEXBL_VERSION);
                return kExitOk;
            default:
                printTryHelp();
                return kExitUsage;
        }
    }
    int first = optind;
    if (options.dictionary == nullptr) {
        // The older form: the dictionary is the first operand.
        if (argc - first < 2) {
            message("expected a dictionary directory and at least one capture");
            printTryHelp();
            return kExitUsage;
        }
        options.dictionary = argv[first++];
    } else if (argc - first < 1) {
        message("expected at least one capture");
        printTryHelp();
        return kExitUsage;
    }
    options.captures.assign(argv + first, argv + argc);
    // Standard input is decoded as it arrives, so it can be read only once.
    if (std::count(options.captures.begin(), options.captures.end(), "-") > 1) {
        message("standard input ('-') can be given only once");
        printTryHelp();
        return kExitUsage;
    }
    return -1;
}

/// "64 61 74 61": `bytes` in hex, separated by blanks.
std::string hexBytes(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        if (i != 0) {
            text += ' ';
        }
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    return text;
}

/// Whether `bytes` start with the magic of a capture format.
bool isCaptureMagic(const std::string& bytes) {
    static const unsigned char kMagics[][4] = {{0xd4, 0xc3, 0xb2, 0xa1},
                                               {0x4d, 0x3c, 0xb2, 0xa1},
                                               {0xa1, 0xb2, 0xc3, 0xd4},
                                               {0xa1, 0xb2, 0x3c, 0x4d},
                                               {0x0a, 0x0d, 0x0d, 0x0a}};
    for (const auto& magic : kMagics) {
        if (bytes.size() >= 4 && std::memcmp(bytes.data(), magic, 4) == 0) {
            return true;
        }
    }
    return false;
}

/// What a file that is no capture holds: "it starts with 64 61 74 61",
/// "its decompressed content is empty" and the like.
std::string describeContent(const std::string& bytes, bool compressed) {
    const std::string subject = compressed ? "its decompressed content" : "it";
    if (bytes.empty()) {
        return subject + " is empty";
    }
    if (bytes.size() < 4) {
        return subject + (compressed ? " is only " : " holds only ") +
               std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte: " : " bytes: ") +
               hexBytes(bytes);
    }
    return subject + " starts with " + hexBytes(bytes);
}

/// Decodes the captures one after the other into one output and keeps the
/// exit status.
class CaptureDecoder {
  public:
    CaptureDecoder(const Tav::BinaryLogXmlReader& reader, const Options& options, Output& out,
                   std::string& activity)
        : reader_(reader), options_(options), out_(out), activity_(activity), session_(reader) {}

    void decode(const CaptureInput& input) {
        switch (input.kind) {
            case CaptureInput::kNote:
                out_.flush();
                message("%s", input.text.c_str());
                return;
            case CaptureInput::kError:
                out_.flush();
                message("%s", input.text.c_str());
                status_ = kExitFailure;
                return;
            case CaptureInput::kStandardInput:
                activity_ = "decoding standard input";
                decodeDescriptor(STDIN_FILENO, false, "-");
                return;
            case CaptureInput::kCapture:
                activity_ = "decoding '" + input.name + "'";
                decodeFile(input);
                return;
        }
    }

    int status() const { return status_; }

  private:
    /// Reports a capture that is not decoded: "program: 'NAME' ..." or the
    /// like on standard error, and exit status 1.
    __attribute__((format(printf, 2, 3))) void fail(const char* format, ...) {
        out_.flush();
        fprintf(stderr, "%s: ", kProgram);
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
        fputc('\n', stderr);
        status_ = kExitFailure;
    }

    Tav::StreamOptions streamOptions() {
        Tav::StreamOptions options;
        options.udpPort = static_cast<std::uint16_t>(options_.udpPort < 0 ? 0 : options_.udpPort);
        options.maxVarBinaryBytes = static_cast<std::uint16_t>(options_.maxVarBytes);
        options.stats = options_.stats;
        options.utcOffsetMinutes = static_cast<int>(options_.utcOffset);
        options.values = false;
        options.session = &session_;
        return options;
    }

    void decodeFile(const CaptureInput& input) {
        if (input.statError != 0) {
            fail("cannot open '%s': %s", input.name.c_str(), strerror(input.statError));
            return;
        }
        if (input.regular) {
            Tav::CaptureStream stream(reader_, input.name, streamOptions());
            decodeStream(stream, input.name);
            return;
        }
        // A pipe or a device gives its bytes once: they are decoded as they
        // arrive.
        const int fd = open(input.name.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            fail("cannot open '%s': %s", input.name.c_str(), strerror(errno));
            return;
        }
        decodeDescriptor(fd, true, input.name);
    }

    void decodeDescriptor(int fd, bool own, const std::string& name) {
        Tav::CaptureStream stream(reader_, name, fd, own, streamOptions());
        decodeStream(stream, name);
    }

    /// Prints a message of the library as it is.
    void printEvent(const Tav::Event& event) {
        if (event.stream == Tav::EventStream::Output) {
            out_.write(event.text);
            return;
        }
        out_.flush();
        fwrite(event.text.data(), 1, event.text.size(), stderr);
    }

    /// Says why a capture that did not open is not decoded.
    void reportUnopened(Tav::CaptureStream& stream, const std::string& name) {
        while (stream.next()) {
            const Tav::Event* event = stream.event();
            if (event == nullptr) {
                continue;
            }
            switch (event->kind) {
                case Tav::EventKind::OpenFailed:
                    fail("cannot open '%s': %s", name.c_str(), std::string(event->name).c_str());
                    break;
                case Tav::EventKind::DataError:
                case Tav::EventKind::ReadError:
                    fail("cannot read '%s': %s", name.c_str(), std::string(event->name).c_str());
                    break;
                case Tav::EventKind::NoGlobalHeader:
                case Tav::EventKind::NotACapture:
                    if (isCaptureMagic(stream.firstBytes())) {
                        printEvent(*event);  // a capture cut inside its header
                        status_ = kExitFailure;
                    } else {
                        fail("'%s' is not a pcap file (%s)", name.c_str(),
                             describeContent(stream.firstBytes(), stream.compressed()).c_str());
                    }
                    break;
                default:
                    printEvent(*event);
                    status_ = kExitFailure;
                    break;
            }
        }
    }

    void decodeStream(Tav::CaptureStream& stream, const std::string& name) {
        if (!stream.open()) {
            reportUnopened(stream, name);
            return;
        }
        // Records inside UDP datagrams need the port they were sent to (a
        // pcapng capture that describes no interface yet has no link type).
        const std::uint32_t linkType = stream.linkType();
        const bool noInterface = stream.format() == Tav::CaptureFormat::PcapNg && linkType == 0;
        if (options_.udpPort < 0 && linkType != kLinkTypeBinLog && !noInterface) {
            if (linkType == kLinkTypeEthernet) {
                fail(
                    "'%s' is Ethernet-framed: choose the UDP port of its log datagrams with "
                    "--udp-port",
                    name.c_str());
            } else {
                fail(
                    "'%s' carries its logs in UDP datagrams (link type %u): choose their UDP "
                    "port with --udp-port",
                    name.c_str(), static_cast<unsigned>(linkType));
            }
            return;
        }
        while (stream.next()) {
            if (const Tav::Record* record = stream.record()) {
                out_.write(record->text);
                continue;
            }
            const Tav::Event& event = *stream.event();
            switch (event.kind) {
                case Tav::EventKind::Note: {
                    // "Note: ..." of the library, said of this capture.
                    std::string_view text = event.text;
                    if (text.substr(0, 6) == "Note: ") {
                        text.remove_prefix(6);
                    }
                    if (!text.empty() && text.back() == '\n') {
                        text.remove_suffix(1);
                    }
                    out_.flush();
                    message("'%s': %.*s", name.c_str(), static_cast<int>(text.size()), text.data());
                    break;
                }
                case Tav::EventKind::DataError:
                case Tav::EventKind::ReadError:
                case Tav::EventKind::NotACapture:
                case Tav::EventKind::BadLinkType:
                case Tav::EventKind::NoGlobalHeader:
                    printEvent(event);
                    status_ = kExitFailure;
                    break;
                default:
                    printEvent(event);
                    break;
            }
        }
    }

    const Tav::BinaryLogXmlReader& reader_;
    const Options& options_;
    Output& out_;
    std::string& activity_;
    Tav::StreamSession session_;
    int status_ = kExitOk;
};

int run(int argc, char** argv, std::string& activity) {
    Options options;
    const int parsed = parseCommandLine(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    activity = "listing the captures";
    const std::vector<CaptureInput> inputs = wexbl_decode::expandOperands(options.captures);
    const bool toStdout = options.outputPath == nullptr || strcmp(options.outputPath, "-") == 0;
    // Opening the output truncates it, and writing a capture while it is
    // read garbles it: never when the output is one of the captures.
    if (toStdout) {
        if (const CaptureInput* same = wexbl_decode::findSameFile(inputs, STDOUT_FILENO, "")) {
            message("standard output is the capture '%s': refusing to write into it",
                    same->name.c_str());
            return kExitUsage;
        }
    } else if (const CaptureInput* same =
                   wexbl_decode::findSameFile(inputs, -1, options.outputPath)) {
        message("the output '%s' is the capture '%s': refusing to overwrite it", options.outputPath,
                same->name.c_str());
        return kExitUsage;
    }

    // The library takes the directory as a literal path prefix.
    std::string dictionary = options.dictionary;
    if (!dictionary.empty() && dictionary.back() != '/') {
        dictionary += '/';
    }
    activity = std::string("loading the dictionaries in '") + options.dictionary + "'";
    Tav::BinaryLogXmlReader reader(
        dictionary, options.stats,
        static_cast<unsigned short>(options.udpPort < 0 ? 0 : options.udpPort),
        static_cast<unsigned short>(options.maxVarBytes));
    if (!reader.isGood()) {
        // The library's own messages may not end their line.
        fputc('\n', stderr);
        message("cannot load the dictionaries in '%s'", options.dictionary);
        return kExitFailure;
    }

    std::unique_ptr<FILE, int (*)(FILE*)> outputFile(nullptr, fclose);
    FILE* out = stdout;
    if (!toStdout) {
        outputFile.reset(fopen(options.outputPath, "w"));
        if (!outputFile) {
            message("cannot write '%s': %s", options.outputPath, strerror(errno));
            return kExitFailure;
        }
        out = outputFile.get();
    }

    Output output(out);
    CaptureDecoder decoder(reader, options, output, activity);
    for (const CaptureInput& input : inputs) {
        decoder.decode(input);
    }

    activity = "writing the output";
    output.flush();
    if (!output.good() || fflush(out) != 0 || ferror(out)) {
        message("error writing the output: %s", strerror(errno));
        return kExitFailure;
    }
    if (outputFile && fclose(outputFile.release()) != 0) {
        message("error closing '%s': %s", options.outputPath, strerror(errno));
        return kExitFailure;
    }
    return decoder.status();
}

}  // namespace

int main(int argc, char** argv) {
    // What the program is doing, for the message when it has to stop.
    std::string activity = "starting";
    try {
        return run(argc, argv, activity);
    } catch (const std::bad_alloc&) {
        // A pathological dictionary can make one record's text larger than
        // memory.
        message("out of memory while %s; stopping", activity.c_str());
    } catch (const std::length_error&) {
        message("a text grew longer than a string can hold while %s; stopping", activity.c_str());
    } catch (const std::exception& error) {
        message("unexpected error while %s: %s; stopping", activity.c_str(), error.what());
    }
    return kExitFailure;
}
