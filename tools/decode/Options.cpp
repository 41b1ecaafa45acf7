#include "Options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../common/CliMessage.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

#ifndef WEXBL_VERSION
#define WEXBL_VERSION "unknown"
#endif

namespace wexbl_decode {

namespace {

using wexbl_cli::kExitOk;
using wexbl_cli::kExitUsage;
using wexbl_cli::message;

const char* program() {
    return wexbl_cli::kProgramName;
}

void printUsage(FILE* to) {
    fprintf(to,
            "Usage: %s [options] -d DICTIONARY_DIR CAPTURE...\n"
            "   or: %s [options] DICTIONARY_DIR CAPTURE...\n"
            "   or: %s [options] --listen [ADDRESS:]PORT [-d] DICTIONARY_DIR\n"
            "Decode binary log captures into one text line per record, or into JSON or\n"
            "CSV records.\n"
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
            "\n"
            "Output:\n"
            "  -T, --format FORMAT      text (default), json (JSON Lines: one object per\n"
            "                           record and per event) or csv (one row per record)\n"
            "  -H, --with-filename      start every text line with its capture's name\n"
            "      --color[=WHEN]       colour the level field: auto (default: when the\n"
            "                           output is a terminal and NO_COLOR is unset),\n"
            "                           always or never\n"
            "      --tally              no records: a table of the records per module,\n"
            "                           log and level at the end, most frequent first\n"
            "      --unknown=hex        print a record of an unknown log id as a line of\n"
            "                           its own with its payload in hex (default: skip)\n"
            "\n"
            "Summary and report:\n"
            "      --summary            after the records, a table per module (see below)\n"
            "      --summary-only       the table alone: no records, no statistics lines\n"
            "      --report FILE        write an HTML report of the records kept (charts\n"
            "                           and tables in one self-contained page) to FILE;\n"
            "                           combines with any format, filter and --summary\n"
            "\n"
            "The summary has one row per module (\"SUBSYSTEM:module\", 0xKEY for a module\n"
            "the dictionary lacks, (syslog), (capture)), in byte order of the names, and\n"
            "a last row (total). Columns: module, first, last (the earliest and latest\n"
            "record time, as the JSON \"time\" field; - or empty or null for none),\n"
            "records (records shown), gaps, missing, reorders (the gap and reorder\n"
            "events of the --stats statistics, so missing and reorders add up to their\n"
            "missingRecords and outOfOrderRecords; a late record is taken off its own\n"
            "module's missing, or off the module with the most when its own has none),\n"
            "duplicates (a sequence number equal to the module's last one, which the\n"
            "statistics skip), unknown_ids, version_mismatches, level_errors and\n"
            "malformed (unknown packet types, syslog records too short). Text: aligned\n"
            "columns with a header line; json: one object per row,\n"
            "{\"summary\":\"module\",\"module\":...} and {\"summary\":\"total\",...}, keys\n"
            "in column order; csv: a header row and one row per line (CR LF), on\n"
            "standard error when records are written too. Gaps, missing and reorders\n"
            "count every record read; the other columns the records the filter keeps.\n"
            "\n"
            "Selecting:\n"
            "  -Y, --filter EXPR        only the records EXPR keeps, e.g.\n"
            "                           'level <= WARN && module == L2:mac && ueId == 17'\n"
            "                           (fields kind, subsystem, module, log, level,\n"
            "                           category, seq, time, capture and any parameter;\n"
            "                           == != < <= > >= ~ (glob) && || ! and parentheses)\n"
            "      --since TIME         only records at or after TIME\n"
            "                           (2024-05-01T12:00:00Z, offsets such as +02:00)\n"
            "      --until TIME         only records before TIME\n"
            "  -c, --count N            stop after N records\n"
            "      --merge              print the records of all captures as one stream in\n"
            "                           time order (statistics stay per capture)\n"
            "      --resync             after damage, look for the next plausible record\n"
            "                           and go on, reporting the bytes skipped\n"
            "\n"
            "Speed:\n"
            "  -j, --jobs N             decode with N threads (1-256; default: the online\n"
            "                           CPUs; 1 when the output is a terminal): the main\n"
            "                           thread, the inflating thread and N-2 workers; the\n"
            "                           output is the same for every N. Captures are\n"
            "                           decoded one after the other, each with N threads;\n"
            "                           standard input, pipes, --merge, --tally and\n"
            "                           --count use one\n"
            "      --inflater NAME      gzip inflater: auto (default: the fastest built in,\n"
            "                           see --version) or zlib\n"
            "\n"
            "Live decoding:\n"
            "  -f, --follow             decode one capture file (plain or gzip) as it\n"
            "                           grows, as tail -F does: a file that shrinks or is\n"
            "                           replaced is said so and read again from its start;\n"
            "                           ends on SIGINT or SIGTERM (status 0)\n"
            "  -l, --listen [ADDRESS:]PORT\n"
            "                           receive the records as UDP datagrams (each one\n"
            "                           record: sender's record header, binary log header,\n"
            "                           payload) on PORT of ADDRESS (127.0.0.1, [::1]...;\n"
            "                           default: every IPv6 and IPv4 address) and decode\n"
            "                           them as they come, named \"udp:PORT\"; no capture\n"
            "                           operands; ends on SIGINT or SIGTERM (status 0) or\n"
            "                           after --count records\n"
            "  -w, --write FILE         with --listen: also write every datagram decoded\n"
            "                           to the pcap capture FILE (gzip when it ends in\n"
            "                           .gz), Ethernet-framed with the sender's addresses\n"
            "                           and the listening port as UDP destination port;\n"
            "                           malformed datagrams are not written\n"
            "      --rotate-size MB     with -w: start a new file once one holds about MB\n"
            "                           megabytes (10^6 bytes, decimals allowed)\n"
            "      --rotate-seconds N   with -w: start a new file every N seconds (at the\n"
            "                           first datagram after that)\n"
            "                           With rotation the files are numbered from 1:\n"
            "                           live.pcap.gz is written as live-000001.pcap.gz,\n"
            "                           live-000002.pcap.gz...\n"
            "      --buffer-size BYTES  the socket's receive buffer (SO_RCVBUFFORCE where\n"
            "                           permitted, else SO_RCVBUF; default: 16 MiB as far\n"
            "                           as net.core.rmem_max allows; --verbose tells what\n"
            "                           the kernel granted)\n"
            "      --line-buffered      write every line as soon as it is decoded (the\n"
            "                           default when the output is a terminal or a pipe;\n"
            "                           files are otherwise written in large blocks)\n"
            "\n"
            "When listening, records are numbered by datagram and --stats prints the\n"
            "gaps and reorders as they come and the statistics at the end. A summary\n"
            "goes to standard error at the end and on SIGUSR1: 'binlog-decode: udp:PORT:\n"
            "N datagrams received, N malformed (N too short, N too long), N dropped by\n"
            "the kernel, N records' (records printed), then per module, by name,\n"
            "'binlog-decode: udp:PORT: module NAME: N records, N missing, N reordered'\n"
            "(NAME as SUBSYSTEM:module, 0xKEY when none is known, (syslog) and\n"
            "(capture) for those kinds). A datagram too short or too long is reported\n"
            "once, then at most once a second with a count. While nothing arrives,\n"
            "the -w capture is flushed (gzip: at most once a second), so that it can be\n"
            "followed.\n"
            "\n"
            "Messages:\n"
            "  -v, --verbose            show every repeated diagnostic (default: the first\n"
            "                           10 of a kind per capture, then a count)\n"
            "      --progress, --no-progress\n"
            "                           a progress line on standard error (default: when\n"
            "                           it is a terminal)\n"
            "      --no-lint            do not check the dictionary when it is loaded\n"
            "                           (default: every error binlog-lint finds is shown\n"
            "                           once, before decoding, as 'binlog-decode: warning:\n"
            "                           FILE:LINE: message [check]')\n"
            "  -h, --help               show this help and exit\n"
            "  -V, --version            show the version and exit\n"
            "\n"
            "Diagnostics name the capture and the record: 'binlog-decode: a.pcap.gz:\n"
            "record 12: log id 0x2010009 not valid'. SIGINT or SIGTERM ends the line\n"
            "being written, prints the statistics so far and exits with status 130\n"
            "(with --listen or --follow: status 0).\n"
            "\n"
            "Exit status: 0 when every capture was read; 1 when the dictionaries did\n"
            "not load, a capture could not be opened or read or is not a log capture\n"
            "(not a capture file, no global header, another link type, UDP framing\n"
            "without --udp-port), a capture is damaged (a truncated or oversized\n"
            "record, damaged compressed data), the output could not be written, or\n"
            "memory ran out; 2 on a usage error, a bad filter expression, or when the\n"
            "output is one of the captures; 130 after SIGINT or SIGTERM. Other\n"
            "problems inside a capture (an unknown log id, a version mismatch) are\n"
            "reported on standard error and do not change the exit status.\n",
            program(), program(), program());
}

void printTryHelp() {
    fprintf(stderr, "Try '%s --help' for more information.\n", program());
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

bool parseWhen(const char* text, When& when) {
    if (text == nullptr || strcmp(text, "auto") == 0) {
        when = When::Auto;
    } else if (strcmp(text, "always") == 0) {
        when = When::Always;
    } else if (strcmp(text, "never") == 0) {
        when = When::Never;
    } else {
        return false;
    }
    return true;
}

enum LongOnly {
    kColor = 1000,
    kTally,
    kUnknown,
    kSince,
    kUntil,
    kMerge,
    kResync,
    kProgress,
    kNoProgress,
    kInflater,
    kLineBuffered,
    kRotateSize,
    kRotateSeconds,
    kBufferSize,
    kNoLint,
    kSummary,
    kSummaryOnly,
    kReport,
};

/// Parses "PORT", "ADDRESS:PORT" or "[IPV6-ADDRESS]:PORT" (numeric
/// addresses only); false with `error` set when it is none of them.
bool parseListen(const std::string& text, Options& options, std::string& error) {
    std::string address;
    std::string port = text;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            error = "expected [IPV6-ADDRESS]:PORT";
            return false;
        }
        address = text.substr(1, close - 1);
        port = text.substr(close + 2);
        unsigned char bytes[16];
        if (inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
            error = "'" + address + "' is not an IPv6 address";
            return false;
        }
    } else if (text.find(':') != std::string::npos) {
        const std::size_t colon = text.rfind(':');
        address = text.substr(0, colon);
        port = text.substr(colon + 1);
        unsigned char bytes[4];
        if (address.find(':') != std::string::npos) {
            error = "write an IPv6 address in brackets: [ADDRESS]:PORT";
            return false;
        }
        if (inet_pton(AF_INET, address.c_str(), bytes) != 1) {
            error = "'" + address + "' is not an IPv4 address";
            return false;
        }
    }
    long number = 0;
    if (!parseNumber(port.c_str(), 1, 65535, number)) {
        error = "invalid port '" + port + "' (expected 1-65535)";
        return false;
    }
    options.listenAddress = address;
    options.listenPort = static_cast<std::uint16_t>(number);
    return true;
}

/// A positive number of megabytes (decimals allowed) in bytes.
bool parseMegabytes(const char* text, std::uint64_t& bytes) {
    if (text == nullptr || *text == '\0' || strspn(text, "0123456789.") != strlen(text)) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double value = strtod(text, &end);
    if (errno != 0 || *end != '\0' || !(value > 0) || value > 1e12) {
        return false;
    }
    bytes = static_cast<std::uint64_t>(value * 1e6);
    return bytes != 0;
}

}  // namespace

int parseCommandLine(int argc, char** argv, Options& options) {
    static const struct option kOptions[] = {
        {"dict", required_argument, nullptr, 'd'},
        {"stats", no_argument, nullptr, 's'},
        {"udp-port", required_argument, nullptr, 'p'},
        {"max-var-bytes", required_argument, nullptr, 'm'},
        {"utc-offset", required_argument, nullptr, 'u'},
        {"output", required_argument, nullptr, 'o'},
        {"format", required_argument, nullptr, 'T'},
        {"with-filename", no_argument, nullptr, 'H'},
        {"color", optional_argument, nullptr, kColor},
        {"colour", optional_argument, nullptr, kColor},
        {"tally", no_argument, nullptr, kTally},
        {"unknown", required_argument, nullptr, kUnknown},
        {"filter", required_argument, nullptr, 'Y'},
        {"since", required_argument, nullptr, kSince},
        {"until", required_argument, nullptr, kUntil},
        {"count", required_argument, nullptr, 'c'},
        {"merge", no_argument, nullptr, kMerge},
        {"resync", no_argument, nullptr, kResync},
        {"verbose", no_argument, nullptr, 'v'},
        {"progress", no_argument, nullptr, kProgress},
        {"no-progress", no_argument, nullptr, kNoProgress},
        {"jobs", required_argument, nullptr, 'j'},
        {"inflater", required_argument, nullptr, kInflater},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {"follow", no_argument, nullptr, 'f'},
        {"listen", required_argument, nullptr, 'l'},
        {"write", required_argument, nullptr, 'w'},
        {"rotate-size", required_argument, nullptr, kRotateSize},
        {"rotate-seconds", required_argument, nullptr, kRotateSeconds},
        {"buffer-size", required_argument, nullptr, kBufferSize},
        {"line-buffered", no_argument, nullptr, kLineBuffered},
        {"no-lint", no_argument, nullptr, kNoLint},
        {"summary", no_argument, nullptr, kSummary},
        {"summary-only", no_argument, nullptr, kSummaryOnly},
        {"report", required_argument, nullptr, kReport},
        {nullptr, 0, nullptr, 0},
    };
    // getopt_long names the program by argv[0] in its messages; name it as
    // our own messages do, whatever path it was started by.
    argv[0] = const_cast<char*>(program());
    int option;
    while ((option = getopt_long(argc, argv, "d:sp:m:u:o:T:HY:c:j:vhVfl:w:", kOptions, nullptr)) !=
           -1) {
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
            case 'T':
                if (strcmp(optarg, "text") == 0) {
                    options.format = Format::Text;
                } else if (strcmp(optarg, "json") == 0) {
                    options.format = Format::Json;
                } else if (strcmp(optarg, "csv") == 0) {
                    options.format = Format::Csv;
                } else {
                    message("invalid format '%s' (expected text, json or csv)", optarg);
                    return kExitUsage;
                }
                break;
            case 'H':
                options.withFilename = true;
                break;
            case kColor:
                if (!parseWhen(optarg, options.color)) {
                    message("invalid --color '%s' (expected auto, always or never)", optarg);
                    return kExitUsage;
                }
                break;
            case kTally:
                options.tally = true;
                break;
            case kUnknown:
                if (strcmp(optarg, "hex") == 0) {
                    options.unknownHex = true;
                } else if (strcmp(optarg, "skip") == 0) {
                    options.unknownHex = false;
                } else {
                    message("invalid --unknown '%s' (expected hex or skip)", optarg);
                    return kExitUsage;
                }
                break;
            case 'Y':
                options.filters.push_back(optarg);
                break;
            case kSince:
            case kUntil:
                // One time literal: nothing that the filter language would
                // read as more of an expression.
                if (*optarg == '\0' || strspn(optarg,
                                              "0123456789abcdefghijklmnopqrstuvwxyz"
                                              "ABCDEFGHIJKLMNOPQRSTUVWXYZ:.+-") != strlen(optarg)) {
                    message(
                        "invalid %s time '%s' (expected a time such as "
                        "2024-05-01T12:00:00Z or 2024-05-01T14:00:00.250+02:00)",
                        option == kSince ? "--since" : "--until", optarg);
                    return kExitUsage;
                }
                options.windows.push_back(std::string(option == kSince ? "time >= " : "time < ") +
                                          optarg);
                break;
            case 'c': {
                long count = 0;
                if (!parseNumber(optarg, 1, LONG_MAX, count)) {
                    message("invalid count '%s' (expected a positive number)", optarg);
                    return kExitUsage;
                }
                options.count = static_cast<std::uint64_t>(count);
                break;
            }
            case kMerge:
                options.merge = true;
                break;
            case kResync:
                options.resync = true;
                break;
            case 'v':
                options.verbose = true;
                break;
            case kProgress:
                options.progress = When::Always;
                break;
            case kNoProgress:
                options.progress = When::Never;
                break;
            case 'j': {
                long jobs = 0;
                if (!parseNumber(optarg, 1, 256, jobs)) {
                    message("invalid job count '%s' (expected 1-256)", optarg);
                    return kExitUsage;
                }
                options.jobs = static_cast<unsigned>(jobs);
                break;
            }
            case kInflater:
                if (strcmp(optarg, "auto") == 0) {
                    options.zlibOnly = false;
                } else if (strcmp(optarg, "zlib") == 0) {
                    options.zlibOnly = true;
                } else {
                    message("invalid --inflater '%s' (expected auto or zlib)", optarg);
                    return kExitUsage;
                }
                break;
            case 'f':
                options.follow = true;
                break;
            case 'l': {
                std::string error;
                if (!parseListen(optarg, options, error)) {
                    message("invalid --listen '%s': %s", optarg, error.c_str());
                    return kExitUsage;
                }
                options.listen = true;
                break;
            }
            case 'w':
                if (*optarg == '\0') {
                    message("invalid --write '': expected a file name");
                    return kExitUsage;
                }
                options.writePath = optarg;
                break;
            case kRotateSize:
                if (!parseMegabytes(optarg, options.rotateBytes)) {
                    message("invalid --rotate-size '%s' (expected megabytes, e.g. 100 or 0.5)",
                            optarg);
                    return kExitUsage;
                }
                break;
            case kRotateSeconds: {
                long seconds = 0;
                if (!parseNumber(optarg, 1, LONG_MAX, seconds)) {
                    message("invalid --rotate-seconds '%s' (expected a positive number)", optarg);
                    return kExitUsage;
                }
                options.rotateSeconds = static_cast<std::uint64_t>(seconds);
                break;
            }
            case kBufferSize: {
                long bytes = 0;
                if (!parseNumber(optarg, 1, INT_MAX, bytes)) {
                    message("invalid --buffer-size '%s' (expected 1-%d bytes)", optarg, INT_MAX);
                    return kExitUsage;
                }
                options.bufferSize = static_cast<std::uint64_t>(bytes);
                break;
            }
            case kLineBuffered:
                options.lineBuffered = true;
                break;
            case kNoLint:
                options.lint = false;
                break;
            case kSummary:
                options.summary = true;
                break;
            case kSummaryOnly:
                options.summary = true;
                options.summaryOnly = true;
                break;
            case kReport:
                if (*optarg == '\0') {
                    message("invalid --report '': expected a file name");
                    return kExitUsage;
                }
                options.reportPath = optarg;
                break;
            case 'h':
                printUsage(stdout);
                return kExitOk;
            case 'V':
                printf("%s %s\ngzip inflater: %s\n", program(), WEXBL_VERSION,
                       Tav::CaptureStream::inflaterName());
                return kExitOk;
            default:
                printTryHelp();
                return kExitUsage;
        }
    }
    int first = optind;
    // Combinations that mean nothing.
    auto usage = [](const char* text) {
        message("%s", text);
        printTryHelp();
        return kExitUsage;
    };
    if (options.writePath != nullptr && !options.listen) {
        return usage("-w (--write) writes what --listen receives: it needs --listen");
    }
    if ((options.rotateBytes != 0 || options.rotateSeconds != 0) && options.writePath == nullptr) {
        return usage("--rotate-size and --rotate-seconds rotate the capture of -w: they need -w");
    }
    if (options.bufferSize != 0 && !options.listen) {
        return usage("--buffer-size sets the receive buffer of --listen: it needs --listen");
    }
    if (options.listen && (options.follow || options.merge)) {
        return usage(options.follow ? "--follow reads captures: not with --listen"
                                    : "--merge reads captures: not with --listen");
    }
    if (options.listen && (options.summary || options.reportPath != nullptr)) {
        return usage(options.summary ? "--summary reads captures: not with --listen"
                                     : "--report reads captures: not with --listen");
    }
    if (options.follow && options.merge) {
        return usage("--follow and --merge cannot be combined");
    }
    if (options.listen) {
        // The only operand is the dictionary, when --dict is not given.
        if (options.dictionary == nullptr) {
            if (argc - first < 1) {
                return usage("expected a dictionary directory");
            }
            options.dictionary = argv[first++];
        }
        if (argc - first > 0) {
            message("--listen receives its records over UDP: no capture operands ('%s')",
                    argv[first]);
            printTryHelp();
            return kExitUsage;
        }
        return -1;
    }
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
    if (options.merge && std::count(options.captures.begin(), options.captures.end(), "-") > 0) {
        message("--merge reads its captures side by side: standard input cannot be one");
        printTryHelp();
        return kExitUsage;
    }
    if (options.follow && std::count(options.captures.begin(), options.captures.end(), "-") > 0) {
        return usage("--follow reads files as they grow: standard input cannot be one");
    }
    if (options.follow && options.captures.size() != 1) {
        return usage("--follow follows one capture file");
    }
    return -1;
}

}  // namespace wexbl_decode
