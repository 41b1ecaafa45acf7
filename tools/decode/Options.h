// The command line of binlog-decode.
#ifndef WEXBL_TOOLS_DECODE_OPTIONS_H
#define WEXBL_TOOLS_DECODE_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace wexbl_decode {

enum class Format { Text, Json, Csv };
enum class When { Auto, Always, Never };

struct Options {
    bool stats = false;
    long udpPort = -1;
    long maxVarBytes = 65535;
    long utcOffset = 0;
    const char* outputPath = nullptr;
    const char* dictionary = nullptr;
    std::vector<std::string> captures;

    Format format = Format::Text;
    /// The -Y expressions, and the time conditions of --since and --until
    /// ("time >= TIME"), all of which a record must meet.
    std::vector<std::string> filters;
    std::vector<std::string> windows;
    bool tally = false;
    /// Stop after this many records (0: no limit).
    std::uint64_t count = 0;
    bool merge = false;
    When color = When::Auto;
    When progress = When::Auto;
    /// Print records of unknown log ids as hex lines.
    bool unknownHex = false;
    /// Show every repeated diagnostic.
    bool verbose = false;
    /// Look for the next plausible record after damage.
    bool resync = false;
    /// Prefix text lines with the capture's name.
    bool withFilename = false;
    /// Decoding workers (-j); 0: the default (the online CPUs, less one for
    /// text, at least 1; 1 when the output is a terminal).
    unsigned jobs = 0;
    /// Inflate gzip with zlib only, not the fastest inflater built in.
    bool zlibOnly = false;

    /// Every line goes out as soon as it is decoded (--line-buffered, or
    /// standard output a terminal or a pipe).
    bool lineBuffered = false;
    /// --follow: decode captures as they grow.
    bool follow = false;

    /// --listen [ADDRESS:]PORT: receive the records over UDP.
    bool listen = false;
    /// The address to bind, empty for every address (IPv6 and IPv4), and
    /// the port.
    std::string listenAddress;
    std::uint16_t listenPort = 0;
    /// -w: the capture written of what is received (null: none), and when
    /// a new numbered file is started (0: never).
    const char* writePath = nullptr;
    std::uint64_t rotateBytes = 0;
    std::uint64_t rotateSeconds = 0;
    /// --buffer-size: the socket's receive buffer (0: the system's default).
    std::uint64_t bufferSize = 0;
    /// Check the dictionary when it is loaded and show its errors as
    /// warnings (--no-lint: not).
    bool lint = true;

    /// --summary: the per-module table at the end; --summary-only: the
    /// table and no records.
    bool summary = false;
    bool summaryOnly = false;
    /// --report FILE: the HTML report written there (null: none).
    const char* reportPath = nullptr;
};

/// Reads the command line into `options`. Returns -1 to go on, or the exit
/// status to end with at once (help, version, usage errors).
int parseCommandLine(int argc, char** argv, Options& options);

}  // namespace wexbl_decode

#endif
