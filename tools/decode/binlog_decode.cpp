// binlog-decode: decodes binary log captures into text lines.
//
//   binlog-decode [options] -d DICTIONARY_DIR CAPTURE...
//   binlog-decode [options] DICTIONARY_DIR CAPTURE...
//
// Each CAPTURE is a pcap or pcap.gz file, a directory whose captures are
// decoded in name order, or "-" for standard input. Lines go to standard
// output (or --output), diagnostics to standard error.
//
// Every capture is looked at before the library decodes it: its first bytes
// must be those of a little-endian microsecond pcap file, and an Ethernet
// capture needs --udp-port. A capture that is not a regular file (standard
// input, a pipe, a device) can be read only once, so it is copied into a
// temporary file first and decoded from there.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

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
#include "CaptureProbe.h"
#include "TempFile.h"

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
using wexbl_decode::CaptureProbe;
using wexbl_decode::TempFile;

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
            "captures that are not regular files (pipes, /dev/stdin) are read once into\n"
            "a temporary file in $TMPDIR (default /tmp), removed on exit. Only\n"
            "little-endian microsecond pcap is read (not nanosecond, big-endian or\n"
            "pcapng), plain or gzip-compressed.\n"
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
            "not load, a capture could not be opened or is not a log capture (not a\n"
            "pcap file, a pcap format not read, no global header, another link type,\n"
            "Ethernet without --udp-port), the output could not be written, or memory\n"
            "ran out; 2 on a usage error, or when the output is one of the captures.\n"
            "Problems inside a capture are reported on standard error and do not\n"
            "change the exit status.\n",
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
    return -1;
}

/// Owns a file descriptor.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

/// Decodes the captures one after the other into one output stream and
/// keeps the exit status.
class CaptureDecoder {
  public:
    CaptureDecoder(Tav::BinaryLogXmlReader& reader, const Options& options, FILE* out,
                   std::string& activity)
        : reader_(reader), options_(options), out_(out), activity_(activity) {}

    void decode(const CaptureInput& input) {
        switch (input.kind) {
            case CaptureInput::kNote:
                message("%s", input.text.c_str());
                return;
            case CaptureInput::kError:
                message("%s", input.text.c_str());
                status_ = kExitFailure;
                return;
            case CaptureInput::kStandardInput:
                activity_ = "decoding standard input";
                decodeStandardInput();
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
        fprintf(stderr, "%s: ", kProgram);
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
        fputc('\n', stderr);
        status_ = kExitFailure;
    }

    void decodeStandardInput() {
        // Standard input is read once; a second "-" decodes the same copy.
        if (!stdinRead_) {
            stdinRead_ = true;
            stdinCopy_.copyFrom(STDIN_FILENO, "standard input", stdinError_);
        }
        if (stdinCopy_.path().empty()) {
            fail("%s", stdinError_.c_str());
            return;
        }
        decodePath(stdinCopy_.path(), "-");
    }

    void decodeFile(const CaptureInput& input) {
        if (input.statError != 0) {
            fail("cannot open '%s': %s", input.name.c_str(), strerror(input.statError));
            return;
        }
        if (input.regular) {
            decodePath(input.name, input.name);
            return;
        }
        // A pipe or a device gives its bytes once: copy them, then decode
        // the copy, which goes away with this capture's turn.
        Descriptor fd(open(input.name.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.get() < 0) {
            fail("cannot open '%s': %s", input.name.c_str(), strerror(errno));
            return;
        }
        TempFile copy;
        std::string error;
        if (!copy.copyFrom(fd.get(), "'" + input.name + "'", error)) {
            fail("%s", error.c_str());
            return;
        }
        decodePath(copy.path(), input.name);
    }

    /// Decodes the file at `path`, which the user calls `name`.
    void decodePath(const std::string& path, const std::string& name) {
        const CaptureProbe probe = wexbl_decode::probeCapture(path);
        switch (probe.kind) {
            case CaptureProbe::kOpenFailed:
                fail("cannot open '%s': %s", name.c_str(), probe.error.c_str());
                return;
            case CaptureProbe::kReadFailed:
                fail("cannot read '%s': %s", name.c_str(), probe.error.c_str());
                return;
            case CaptureProbe::kNotPcap:
                fail("'%s' is not a pcap file (%s)", name.c_str(), probe.description.c_str());
                return;
            case CaptureProbe::kOtherFormat:
                fail(
                    "'%s' is a %s capture: this format is not read yet (only little-endian "
                    "microsecond pcap is)",
                    name.c_str(), probe.description.c_str());
                return;
            case CaptureProbe::kPcap:
                break;
        }
        if (!probe.completeHeader) {
            // The library reports the cut global header.
            status_ = kExitFailure;
        } else if (probe.linkType == kLinkTypeEthernet && options_.udpPort < 0) {
            fail(
                "'%s' is Ethernet-framed: choose the UDP port of its log datagrams with --udp-port",
                name.c_str());
            return;
        } else if (probe.linkType != kLinkTypeEthernet && probe.linkType != kLinkTypeBinLog) {
            // The library reports the link type.
            status_ = kExitFailure;
        }
        reader_.readBinaryFiledata(path, static_cast<int>(options_.utcOffset), out_);
    }

    Tav::BinaryLogXmlReader& reader_;
    const Options& options_;
    FILE* out_;
    std::string& activity_;
    int status_ = kExitOk;
    TempFile stdinCopy_;
    bool stdinRead_ = false;
    std::string stdinError_;
};

int run(int argc, char** argv, std::string& activity) {
    Options options;
    const int parsed = parseCommandLine(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    wexbl_decode::installCleanupHandlers();

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

    // Whole blocks rather than lines: decoded output is large.
    static char outputBuffer[1 << 16];
    setvbuf(out, outputBuffer, _IOFBF, sizeof outputBuffer);

    CaptureDecoder decoder(reader, options, out, activity);
    for (const CaptureInput& input : inputs) {
        decoder.decode(input);
    }

    activity = "writing the output";
    if (fflush(out) != 0 || ferror(out)) {
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
        // memory. By now every temporary file is gone with its owner.
        message("out of memory while %s; stopping", activity.c_str());
    } catch (const std::length_error&) {
        message("a text grew longer than a string can hold while %s; stopping", activity.c_str());
    } catch (const std::exception& error) {
        message("unexpected error while %s: %s; stopping", activity.c_str(), error.what());
    }
    return kExitFailure;
}
