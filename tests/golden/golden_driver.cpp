// Runs one reader over capture files the way a host tool does:
//
//   golden_driver ROUTE DICTIONARY_DIR STATS UDP_PORT MAX_VAR_BYTES UTC_OFFSET CAPTURE...
//
// STATS is 0 or 1. The reader is constructed once. ROUTE says how each
// capture is read, in order:
//   read    readBinaryFiledata with standard output as the stream;
//   stream  the pull API: one capture stream per capture, all of them in one
//           session (which carries the statistics and the level table from
//           one capture to the next, as readBinaryFiledata does on one
//           reader); each record's line goes to standard output, each event's
//           text to the stream the reader prints it on.
// Nothing else is printed, so standard output and standard error hold exactly
// what the library wrote or handed out.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BinaryLogXmlReader.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

int main(int argc, char** argv) {
    if (argc < 7 || (std::strcmp(argv[1], "read") != 0 && std::strcmp(argv[1], "stream") != 0)) {
        std::fprintf(stderr,
                     "usage: %s read|stream DICTIONARY_DIR STATS UDP_PORT MAX_VAR_BYTES "
                     "UTC_OFFSET CAPTURE...\n",
                     argv[0]);
        return 2;
    }
    const bool stream = std::strcmp(argv[1], "stream") == 0;
    const std::string dictionary = argv[2];
    const bool stats = std::atoi(argv[3]) != 0;
    const auto udpPort = static_cast<unsigned short>(std::atoi(argv[4]));
    const auto maxVarBytes = static_cast<unsigned short>(std::atoi(argv[5]));
    const int utcOffsetMinutes = std::atoi(argv[6]);

    Tav::BinaryLogXmlReader reader(dictionary, stats, udpPort, maxVarBytes);
    if (!stream) {
        for (int i = 7; i < argc; ++i) {
            reader.readBinaryFiledata(argv[i], utcOffsetMinutes, stdout);
        }
        std::fflush(stdout);
        return 0;
    }
#if WEXBL_HAVE_STREAM_SESSION
    Tav::StreamSession session(reader);
#endif
    for (int i = 7; i < argc; ++i) {
        Tav::StreamOptions options;
        options.udpPort = udpPort;
        options.maxVarBinaryBytes = maxVarBytes;
        options.stats = stats;
        options.utcOffsetMinutes = utcOffsetMinutes;
#if WEXBL_HAVE_STREAM_SESSION
        options.session = &session;
#endif
        Tav::CaptureStream captureStream(reader, argv[i], options);
        while (captureStream.next()) {
            if (const Tav::Record* record = captureStream.record()) {
                std::fwrite(record->text.data(), 1, record->text.size(), stdout);
            } else if (const Tav::Event* event = captureStream.event()) {
                std::FILE* to = event->stream == Tav::EventStream::Output ? stdout : stderr;
                std::fwrite(event->text.data(), 1, event->text.size(), to);
            }
        }
    }
    std::fflush(stdout);
    return 0;
}
