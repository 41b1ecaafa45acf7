// Decodes one capture through one of the library's routes, for end-to-end
// timing (scripts/bench-e2e.sh):
//
//   decode_capture reader DICT CAPTURE [UDP_PORT]   readBinaryFiledata to standard output
//   decode_capture reader-stats DICT CAPTURE [UDP_PORT]   the same, statistics on
//   decode_capture lines  DICT CAPTURE [UDP_PORT]   the pull API, lines to standard output
//   decode_capture values DICT CAPTURE [UDP_PORT]   the pull API, records and events only (no text)
//   decode_capture params DICT CAPTURE [UDP_PORT]   the same, every value of every record read too
//
// The pull API modes take modifiers: "+thread" inflates in a thread of its
// own, "+zlib" inflates with zlib even where a faster inflater is built in
// (lines+thread+zlib).
//
// Prints the number of records and events on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BinaryLogXmlReader.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr,
                     "usage: %s reader|reader-stats|lines|values|params DICT CAPTURE [UDP_PORT]\n",
                     argv[0]);
        return 2;
    }
    std::string mode = argv[1];
    bool inflateThread = false;
    bool zlibOnly = false;
    for (std::size_t plus; (plus = mode.rfind('+')) != std::string::npos; mode.resize(plus)) {
        const std::string modifier = mode.substr(plus + 1);
        inflateThread = inflateThread || modifier == "thread";
        zlibOnly = zlibOnly || modifier == "zlib";
    }
    std::string dictionary = argv[2];
    if (dictionary.back() != '/') {
        dictionary += '/';
    }
    const auto port = static_cast<unsigned short>(argc > 4 ? std::atoi(argv[4]) : 0);
    Tav::BinaryLogXmlReader reader(dictionary, mode == "reader-stats", port, 65535);
    if (!reader.isGood()) {
        return 1;
    }
    if (mode == "reader" || mode == "reader-stats") {
        reader.readBinaryFiledata(argv[3], 0, stdout);
        return 0;
    }
    Tav::StreamOptions options;
    options.udpPort = port;
    options.inflateThread = inflateThread;
    options.fastInflate = !zlibOnly;
    options.texts = mode == "lines";
    options.values = mode != "lines";
    const bool readParams = mode == "params";
    Tav::CaptureStream stream(reader, argv[3], options);
    unsigned long long records = 0;
    unsigned long long events = 0;
    unsigned long long sum = 0;
    while (stream.next()) {
        if (const Tav::Record* record = stream.record()) {
            ++records;
            if (options.texts) {
                std::fwrite(record->text.data(), 1, record->text.size(), stdout);
            } else if (readParams) {
                for (const Tav::ParamField& field : record->params()) {
                    sum += field.raw + field.bytes.size();
                }
            } else {
                // What a count by module, log and level reads.
                sum += record->moduleKey + record->level + record->log.size();
            }
        } else {
            ++events;
        }
    }
    std::fprintf(stderr, "%llu records, %llu events (%llu)\n", records, events, sum);
    return 0;
}
