// Runs one reader over capture files the way a host tool does:
//
//   golden_driver [--filter EXPRESSION] ROUTE DICTIONARY_DIR STATS UDP_PORT MAX_VAR_BYTES
//                 UTC_OFFSET CAPTURE...
//
// STATS is 0 or 1. The reader is constructed once. ROUTE says how each
// capture is read, in order:
//   read    readBinaryFiledata with standard output as the stream;
//   stream  the pull API: one capture stream per capture, all of them in one
//           session (which carries the statistics and the level table from
//           one capture to the next, as readBinaryFiledata does on one
//           reader); each record's line goes to standard output, each event's
//           text to the stream the reader prints it on;
//   json    as stream, but standard output holds one JSON object per line
//           (appendJson) for every record and every event, in the order the
//           stream hands them out, whichever stream the reader prints the
//           event on; the texts of the events the reader prints on standard
//           error also go to standard error as they are, so that standard
//           error reads as on the stream route;
//   csv     as stream, but standard output holds the CSV header row and one
//           row per record (appendCsv); the texts of the events the reader
//           prints on standard error go to standard error as they are, those
//           it prints on standard output (statistics, version and level
//           messages) nowhere, as CSV has rows for records only.
// --filter compiles EXPRESSION (Tav::Filter) and gives it to every capture
// stream (not with the read route): only the records it keeps come out. A
// bad expression prints
//   golden_driver: bad filter: MESSAGE
//     EXPRESSION
//     ^ (under the byte the message is about)
// on standard error and exits with 2.
// Nothing else is printed, so standard output and standard error hold exactly
// what the library wrote or handed out.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "BinaryLogXmlReader.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "WexOamBinLogXmlReader/Format.h"

namespace {

enum class Route { Read, Stream, Json, Csv };

bool parseRoute(const char* word, Route& route) {
    if (std::strcmp(word, "read") == 0) {
        route = Route::Read;
    } else if (std::strcmp(word, "stream") == 0) {
        route = Route::Stream;
    } else if (std::strcmp(word, "json") == 0) {
        route = Route::Json;
    } else if (std::strcmp(word, "csv") == 0) {
        route = Route::Csv;
    } else {
        return false;
    }
    return true;
}

void write(std::FILE* to, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), to);
}

int usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [--filter EXPRESSION] read|stream|json|csv DICTIONARY_DIR STATS "
                 "UDP_PORT MAX_VAR_BYTES UTC_OFFSET CAPTURE...\n",
                 program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    const char* filterExpression = nullptr;
    if (argc > 2 && std::strcmp(argv[1], "--filter") == 0) {
        filterExpression = argv[2];
        first = 3;
    }
    Route route = Route::Read;
    if (argc < first + 6 || !parseRoute(argv[first], route) ||
        (filterExpression != nullptr && route == Route::Read)) {
        return usage(argv[0]);
    }
    const std::string dictionary = argv[first + 1];
    const bool stats = std::atoi(argv[first + 2]) != 0;
    const auto udpPort = static_cast<unsigned short>(std::atoi(argv[first + 3]));
    const auto maxVarBytes = static_cast<unsigned short>(std::atoi(argv[first + 4]));
    const int utcOffsetMinutes = std::atoi(argv[first + 5]);
    const int firstCapture = first + 6;

    std::unique_ptr<Tav::Filter> filter;
    if (filterExpression != nullptr) {
        std::string error;
        std::size_t position = 0;
        filter = Tav::Filter::compile(filterExpression, error, position);
        if (!filter) {
            std::fprintf(stderr, "golden_driver: bad filter: %s\n  %s\n  %s^\n", error.c_str(),
                         filterExpression, std::string(position, ' ').c_str());
            return 2;
        }
    }

    Tav::BinaryLogXmlReader reader(dictionary, stats, udpPort, maxVarBytes);
    if (route == Route::Read) {
        for (int i = firstCapture; i < argc; ++i) {
            reader.readBinaryFiledata(argv[i], utcOffsetMinutes, stdout);
        }
        std::fflush(stdout);
        return 0;
    }
#if WEXBL_HAVE_STREAM_SESSION
    Tav::StreamSession session(reader);
#endif
    std::string line;
    if (route == Route::Csv) {
        write(stdout, Tav::csvHeader());
    }
    for (int i = firstCapture; i < argc; ++i) {
        Tav::StreamOptions options;
        options.udpPort = udpPort;
        options.maxVarBinaryBytes = maxVarBytes;
        options.stats = stats;
        options.utcOffsetMinutes = utcOffsetMinutes;
        options.filter = filter.get();
#if WEXBL_HAVE_STREAM_SESSION
        options.session = &session;
#endif
        Tav::CaptureStream captureStream(reader, argv[i], options);
        while (captureStream.next()) {
            line.clear();
            if (const Tav::Record* record = captureStream.record()) {
                switch (route) {
                    case Route::Json:
                        Tav::appendJson(line, *record);
                        line += '\n';
                        break;
                    case Route::Csv:
                        Tav::appendCsv(line, *record);
                        break;
                    default:
                        line.assign(record->text.data(), record->text.size());
                        break;
                }
                write(stdout, line);
            } else if (const Tav::Event* event = captureStream.event()) {
                const bool toOutput = event->stream == Tav::EventStream::Output;
                if (route == Route::Json) {
                    Tav::appendJson(line, *event);
                    line += '\n';
                    write(stdout, line);
                }
                if (!toOutput) {
                    write(stderr, event->text);
                } else if (route == Route::Stream) {
                    write(stdout, event->text);
                }
            }
        }
    }
    std::fflush(stdout);
    return 0;
}
