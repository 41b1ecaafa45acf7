// Peak memory of decoding captures of different sizes.
//
//   memory_probe [RECORDS...]        (default: 1000 1000000)
//
// For each count it writes a random gzip-compressed capture (link type 150)
// for a generated dictionary of 50 logs, then decodes it in a fresh process
// of its own, once with statistics off and once on, writing the text to a
// counting sink instead of a file. Each decoding process reports its peak
// resident set size (getrusage ru_maxrss) after loading the dictionary and
// after decoding, so the figures of different counts can be compared: a
// decoder that streams its input needs the same memory for 1,000,000 records
// as for 1,000.
//
// Internal mode, used for the child processes:
//   memory_probe --decode DICTIONARY_DIR CAPTURE STATS(0|1) RECORDS
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "BinaryLogXmlReader.h"

extern char** environ;

namespace {

/// What the decoder wrote: bytes and lines.
struct OutputCount {
    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
};

ssize_t countWrite(void* cookie, const char* data, size_t size) {
    auto* count = static_cast<OutputCount*>(cookie);
    count->bytes += size;
    count->lines += static_cast<std::uint64_t>(std::count(data, data + size, '\n'));
    return static_cast<ssize_t>(size);
}

int decodeMode(const std::string& dictionary, const std::string& capture, bool stats,
               const std::string& records) {
    OutputCount count;
    cookie_io_functions_t functions{};
    functions.write = countWrite;
    FILE* out = fopencookie(&count, "w", functions);
    if (out == nullptr) {
        perror("fopencookie");
        return 1;
    }
    Tav::BinaryLogXmlReader reader(dictionary, stats, 5000, 64);
    if (!reader.isGood()) {
        fprintf(stderr, "memory_probe: the dictionary did not load\n");
        return 1;
    }
    const long afterLoad = wexbl_bench::peakRssKib();
    const auto start = std::chrono::steady_clock::now();
    reader.readBinaryFiledata(capture, 0, out);
    fflush(out);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const long afterDecode = wexbl_bench::peakRssKib();
    fclose(out);
    const double expected = std::strtod(records.c_str(), nullptr);
    printf("| %9s | %-5s | %10llu | %8.3f | %10.0f | %12ld | %14ld |\n", records.c_str(),
           stats ? "on" : "off", static_cast<unsigned long long>(count.lines), seconds,
           seconds > 0 ? expected / seconds : 0.0, afterLoad, afterDecode);
    fflush(stdout);
    return static_cast<double>(count.lines) >= expected ? 0 : 2;
}

/// Runs this program in decode mode in a new process and waits for it.
bool runChild(const std::string& dictionary, const std::string& capture, bool stats,
              const std::string& records) {
    std::vector<std::string> args = {"memory_probe", "--decode",        dictionary,
                                     capture,        stats ? "1" : "0", records};
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        fprintf(stderr, "memory_probe: cannot start the decoding process: %s\n", strerror(error));
        return false;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        perror("waitpid");
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr,
                "memory_probe: decoding %s records failed (status %d): fewer lines than "
                "records, or the dictionary did not load\n",
                records.c_str(), status);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && std::strcmp(argv[1], "--decode") == 0) {
        return decodeMode(argv[2], argv[3], std::strcmp(argv[4], "1") == 0, argv[5]);
    }
    std::vector<std::string> counts;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.empty() || arg.find_first_not_of("0123456789") != std::string::npos) {
            fprintf(stderr, "usage: memory_probe [RECORDS...]   (default: 1000 1000000)\n");
            return 2;
        }
        counts.push_back(arg);
    }
    if (counts.empty()) {
        counts = {"1000", "1000000"};
    }

    wexbl_bench::TempDir dictionary("probe-dict");
    wexbl_bench::writeGeneratedDictionary(dictionary, {10, 5, 8, 32});
    wexbl_bench::TempDir captures("probe-capture");

    printf(
        "| records   | stats | lines      | seconds  | records/s  | peak RSS KiB | peak RSS KiB   "
        "|\n");
    printf(
        "|           |       |            |          |            | after load   | after decoding "
        "|\n");
    printf(
        "|-----------|-------|------------|----------|------------|--------------|----------------|"
        "\n");
    fflush(stdout);
    bool ok = true;
    for (const std::string& records : counts) {
        const std::string capture = captures.path() + "/capture_" + records + ".pcap.gz";
        std::string error;
        if (!wexbl_bench::writeRandomCaptureFile(
                dictionary.path(), capture, std::strtoull(records.c_str(), nullptr, 10), error)) {
            fprintf(stderr, "memory_probe: cannot write the capture: %s\n", error.c_str());
            return 1;
        }
        for (const bool stats : {false, true}) {
            ok = runChild(dictionary.dictionaryPath(), capture, stats, records) && ok;
        }
        remove(capture.c_str());
    }
    return ok ? 0 : 1;
}
