// binlog-decode: decodes binary log captures into text lines.
//
//   binlog-decode [options] DICTIONARY_DIR CAPTURE...
//
// Each CAPTURE is a pcap or pcap.gz file, a directory whose "pcap.gz" entries
// are decoded, or "-" for standard input. Lines go to standard output (or
// --output), diagnostics to standard error.
#include <getopt.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "../common/CliMessage.h"
#include "BinaryLogXmlReader.h"

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

void printUsage(FILE* to) {
    fprintf(to,
            "Usage: %s [options] DICTIONARY_DIR CAPTURE...\n"
            "Decode binary log captures into one text line per record.\n"
            "\n"
            "DICTIONARY_DIR holds the binlog and bindisplay XML dictionaries.\n"
            "Each CAPTURE is a pcap or pcap.gz file, a directory (its \"pcap.gz\"\n"
            "entries are decoded, in directory order), or - for standard input.\n"
            "\n"
            "Options:\n"
            "  -s, --stats              report sequence gaps and reordering, and print\n"
            "                           statistics at the end of each capture\n"
            "  -p, --udp-port PORT      UDP destination port of the log datagrams in\n"
            "                           Ethernet-framed captures (default: none; needed\n"
            "                           for Ethernet captures)\n"
            "  -m, --max-var-bytes N    most bytes of a var binary string shown\n"
            "                           (0-65535, default 65535: all)\n"
            "  -u, --utc-offset MINUTES minutes added to every record time (default 0)\n"
            "  -o, --output FILE        write the decoded lines to FILE\n"
            "  -h, --help               show this help and exit\n"
            "  -V, --version            show the version and exit\n"
            "\n"
            "Exit status: 0 when every capture was read; 1 when the dictionaries did\n"
            "not load or a capture could not be opened or is not a log capture (no\n"
            "global header, another link type, Ethernet without --udp-port); 2 on a\n"
            "usage error. Problems inside a capture are reported on standard error\n"
            "and do not change the exit status.\n",
            kProgram);
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

struct GzClose {
    void operator()(gzFile_s* file) const { gzclose(file); }
};

/// The link type of a capture file, or -1 when it has no complete header.
long captureLinkType(const std::string& path) {
    std::unique_ptr<gzFile_s, GzClose> file(gzopen(path.c_str(), "rb"));
    if (!file) {
        return -1;
    }
    unsigned char header[24];
    if (gzread(file.get(), header, sizeof header) != static_cast<int>(sizeof header)) {
        return -1;
    }
    return static_cast<long>(Tav::ByteReader(header, sizeof header).get_u32le(20));
}

/// Standard input copied to a temporary file, removed on destruction.
class StdinCopy {
  public:
    ~StdinCopy() {
        if (!path_.empty()) {
            unlink(path_.c_str());
        }
    }
    bool make() {
        char templ[] = "/tmp/binlog-decode-stdin-XXXXXX";
        const int fd = mkstemp(templ);
        if (fd < 0) {
            return false;
        }
        path_ = templ;
        std::unique_ptr<FILE, int (*)(FILE*)> out(fdopen(fd, "wb"), fclose);
        if (!out) {
            close(fd);
            return false;
        }
        char buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, stdin)) > 0) {
            if (fwrite(buf, 1, n, out.get()) != n) {
                return false;
            }
        }
        return !ferror(stdin) && fclose(out.release()) == 0;
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace

int main(int argc, char** argv) {
    bool stats = false;
    long udpPort = -1;
    long maxVarBytes = 65535;
    long utcOffset = 0;
    const char* outputPath = nullptr;

    static const struct option kOptions[] = {
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
    while ((option = getopt_long(argc, argv, "sp:m:u:o:hV", kOptions, nullptr)) != -1) {
        switch (option) {
            case 's':
                stats = true;
                break;
            case 'p':
                if (!parseNumber(optarg, 0, 65535, udpPort)) {
                    message("invalid UDP port '%s' (expected 0-65535)", optarg);
                    return kExitUsage;
                }
                break;
            case 'm':
                if (!parseNumber(optarg, 0, 65535, maxVarBytes)) {
                    message("invalid byte count '%s' (expected 0-65535)", optarg);
                    return kExitUsage;
                }
                break;
            case 'u':
                if (!parseNumber(optarg, INT_MIN / 60, INT_MAX / 60, utcOffset)) {
                    message("invalid UTC offset '%s' (expected minutes, e.g. 60 or -300)", optarg);
                    return kExitUsage;
                }
                break;
            case 'o':
                outputPath = optarg;
                break;
            case 'h':
                printUsage(stdout);
                return kExitOk;
            case 'V':
                printf("%s %s\n", kProgram, WEXBL_VERSION);
                return kExitOk;
            default:
                fprintf(stderr, "Try '%s --help' for more information.\n", kProgram);
                return kExitUsage;
        }
    }
    if (argc - optind < 2) {
        message("expected a dictionary directory and at least one capture");
        fprintf(stderr, "Try '%s --help' for more information.\n", kProgram);
        return kExitUsage;
    }

    // The library takes the directory as a literal path prefix.
    std::string dictionary = argv[optind];
    if (!dictionary.empty() && dictionary.back() != '/') {
        dictionary += '/';
    }
    std::vector<std::string> inputs(argv + optind + 1, argv + argc);

    StdinCopy stdinCopy;
    for (std::string& input : inputs) {
        if (input == "-") {
            if (stdinCopy.path().empty() && !stdinCopy.make()) {
                message("cannot read standard input: %s", strerror(errno));
                return kExitFailure;
            }
            input = stdinCopy.path();
        }
    }

    Tav::BinaryLogXmlReader reader(dictionary, stats,
                                   static_cast<unsigned short>(udpPort < 0 ? 0 : udpPort),
                                   static_cast<unsigned short>(maxVarBytes));
    if (!reader.isGood()) {
        // The library's own messages may not end their line.
        fputc('\n', stderr);
        message("cannot load the dictionaries in '%s'", argv[optind]);
        return kExitFailure;
    }

    std::unique_ptr<FILE, int (*)(FILE*)> outputFile(nullptr, fclose);
    FILE* out = stdout;
    if (outputPath != nullptr) {
        outputFile.reset(fopen(outputPath, "w"));
        if (!outputFile) {
            message("cannot write '%s': %s", outputPath, strerror(errno));
            return kExitFailure;
        }
        out = outputFile.get();
    }

    // Whole blocks rather than lines: decoded output is large.
    static char outputBuffer[1 << 16];
    setvbuf(out, outputBuffer, _IOFBF, sizeof outputBuffer);

    std::vector<std::string> captures;
    reader.getFileList(inputs, captures);
    int status = kExitOk;
    for (const std::string& capture : captures) {
        const long linkType = captureLinkType(capture);
        if (linkType == 1 && udpPort < 0) {
            // Standard input is read through a temporary copy: name it "-".
            const bool fromStdin = !stdinCopy.path().empty() && capture == stdinCopy.path();
            message(
                "'%s' is Ethernet-framed: choose the UDP port of its log datagrams with "
                "--udp-port",
                fromStdin ? "-" : capture.c_str());
            status = kExitFailure;
            continue;
        }
        if (linkType != 1 && linkType != 150) {
            // The library reports what is wrong with the file.
            status = kExitFailure;
        }
        reader.readBinaryFiledata(capture, static_cast<int>(utcOffset), out);
    }

    if (fflush(out) != 0 || ferror(out)) {
        message("error writing the output: %s", strerror(errno));
        return kExitFailure;
    }
    if (outputFile && fclose(outputFile.release()) != 0) {
        message("error closing '%s': %s", outputPath, strerror(errno));
        return kExitFailure;
    }
    return status;
}
