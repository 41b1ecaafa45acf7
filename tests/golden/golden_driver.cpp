// Runs one reader over capture files the way a host tool does:
//
//   golden_driver DICTIONARY_DIR STATS UDP_PORT MAX_VAR_BYTES UTC_OFFSET CAPTURE...
//
// STATS is 0 or 1. The reader is constructed once; readBinaryFiledata is called
// for each capture in order with standard output as the stream. Nothing else
// is printed, so standard output and standard error hold exactly what the
// library wrote.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "BinaryLogXmlReader.h"

int main(int argc, char** argv) {
    if (argc < 6) {
        std::fprintf(stderr,
                     "usage: %s DICTIONARY_DIR STATS UDP_PORT MAX_VAR_BYTES UTC_OFFSET "
                     "CAPTURE...\n",
                     argv[0]);
        return 2;
    }
    const std::string dictionary = argv[1];
    const bool stats = std::atoi(argv[2]) != 0;
    const auto udpPort = static_cast<unsigned short>(std::atoi(argv[3]));
    const auto maxVarBytes = static_cast<unsigned short>(std::atoi(argv[4]));
    const int utcOffsetMinutes = std::atoi(argv[5]);

    Tav::BinaryLogXmlReader reader(dictionary, stats, udpPort, maxVarBytes);
    for (int i = 6; i < argc; ++i) {
        reader.readBinaryFiledata(argv[i], utcOffsetMinutes, stdout);
    }
    std::fflush(stdout);
    return 0;
}
