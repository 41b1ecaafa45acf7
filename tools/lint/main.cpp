// binlog-lint: checks a dictionary directory for mistakes, the way a
// compiler reports them; summarises it; or measures how well it covers
// captures.
//
//   binlog-lint [--format text|json] DICT_DIR
//   binlog-lint --summary DICT_DIR
//   binlog-lint --coverage [--format text|json] [-p PORT] DICT_DIR CAPTURE...
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../common/CliMessage.h"
#include "BinaryLogXmlReader.h"
#include "Lint.h"

const char* const wexbl_cli::kProgramName = "binlog-lint";

namespace {

using wexbl_cli::kExitFailure;
using wexbl_cli::kExitOk;
using wexbl_cli::kExitUsage;
using wexbl_cli::message;

void printHelp() {
    printf(
        "Usage: binlog-lint [--format text|json] DICT_DIR\n"
        "       binlog-lint --summary DICT_DIR\n"
        "       binlog-lint --coverage [--format text|json] [-p PORT] DICT_DIR CAPTURE...\n"
        "\n"
        "Checks the dictionary files of DICT_DIR for mistakes the loader accepts\n"
        "silently (or that make it fail), one finding per line:\n"
        "  FILE:LINE: error: message [check]    (or warning:)\n"
        "LINE is the line of the XML element concerned (left out for findings about\n"
        "a whole file). Errors change what a record shows; warnings are the rest.\n"
        "\n"
        "Options:\n"
        "  -d, --dict DIR      the dictionary directory (instead of the operand)\n"
        "  -T, --format FORMAT text (default) or json (JSON Lines with file, line,\n"
        "                      severity, check and message)\n"
        "      --summary       load the dictionary and list its modules, logs and\n"
        "                      enumerations instead of checking it\n"
        "      --coverage      decode the CAPTUREs and tell, per module and log, how\n"
        "                      often each log appeared and which never did, unknown\n"
        "                      log ids, version mismatches, levels out of range and\n"
        "                      enumerated values their enumeration lacks\n"
        "  -p, --udp-port PORT UDP destination port of Ethernet-framed captures\n"
        "  -h, --help          show this help and exit\n"
        "  -V, --version       show the version and exit\n"
        "\n"
        "Exit status: 0 when no error was found (--coverage, --summary: the\n"
        "dictionary loaded and every capture was read), 1 otherwise, 2 on a usage\n"
        "error.\n");
}

int usage(const char* text) {
    message("%s", text);
    fprintf(stderr, "Try 'binlog-lint --help' for more information.\n");
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    static const struct option kOptions[] = {
        {"dict", required_argument, nullptr, 'd'},     {"format", required_argument, nullptr, 'T'},
        {"summary", no_argument, nullptr, 'S'},        {"coverage", no_argument, nullptr, 'C'},
        {"udp-port", required_argument, nullptr, 'p'}, {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},        {nullptr, 0, nullptr, 0},
    };
    argv[0] = const_cast<char*>(wexbl_cli::kProgramName);
    const char* dict = nullptr;
    bool json = false;
    bool summary = false;
    bool coverage = false;
    long port = 0;
    int option;
    while ((option = getopt_long(argc, argv, "d:T:p:hV", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'd':
                dict = optarg;
                break;
            case 'T':
                if (strcmp(optarg, "text") == 0) {
                    json = false;
                } else if (strcmp(optarg, "json") == 0) {
                    json = true;
                } else {
                    message("invalid --format '%s' (expected text or json)", optarg);
                    return kExitUsage;
                }
                break;
            case 'S':
                summary = true;
                break;
            case 'C':
                coverage = true;
                break;
            case 'p': {
                char* end = nullptr;
                port = strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || port < 0 || port > 65535) {
                    message("invalid --udp-port '%s' (expected 0-65535)", optarg);
                    return kExitUsage;
                }
                break;
            }
            case 'h':
                printHelp();
                return kExitOk;
            case 'V':
                printf("binlog-lint %s\n", WEXBL_VERSION);
                return kExitOk;
            default:
                fprintf(stderr, "Try 'binlog-lint --help' for more information.\n");
                return kExitUsage;
        }
    }
    std::vector<std::string> operands(argv + optind, argv + argc);
    if (dict == nullptr) {
        if (operands.empty()) {
            return usage("expected a dictionary directory");
        }
        dict = argv[optind];
        operands.erase(operands.begin());
    }
    if (summary && coverage) {
        return usage("--summary and --coverage cannot be combined");
    }
    if (coverage ? operands.empty() : !operands.empty()) {
        return usage(coverage ? "--coverage needs at least one capture"
                              : "too many operands (captures go with --coverage)");
    }

    if (!summary && !coverage) {
        const std::vector<wexbl_lint::Finding> findings = wexbl_lint::lintDictionary(dict);
        for (const wexbl_lint::Finding& finding : findings) {
            const std::string line =
                json ? wexbl_lint::formatJson(finding) : wexbl_lint::formatText(finding);
            printf("%s\n", line.c_str());
        }
        if (fflush(stdout) != 0 || ferror(stdout)) {
            message("cannot write the output");
            return kExitFailure;
        }
        return wexbl_lint::hasErrors(findings) ? kExitFailure : kExitOk;
    }

    std::string dir = dict;
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    Tav::BinaryLogXmlReader reader(dir, false, 0, 0);
    if (!reader.isGood()) {
        fprintf(stderr, "\n");
        message("cannot load the dictionaries in '%s'", dict);
        return kExitFailure;
    }
    int status = kExitOk;
    std::string out;
    if (summary) {
        out = wexbl_lint::formatSummary(reader);
    } else {
        const wexbl_lint::Coverage result =
            wexbl_lint::measureCoverage(reader, operands, static_cast<std::uint16_t>(port));
        out =
            json ? wexbl_lint::formatCoverageJson(result) : wexbl_lint::formatCoverageText(result);
        if (!result.problems.empty()) {
            status = kExitFailure;
        }
    }
    fwrite(out.data(), 1, out.size(), stdout);
    if (fflush(stdout) != 0 || ferror(stdout)) {
        message("cannot write the output");
        return kExitFailure;
    }
    return status;
}
