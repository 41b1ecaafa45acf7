// Shared pieces of the fuzz targets.
#ifndef WEXBL_FUZZ_SUPPORT_H
#define WEXBL_FUZZ_SUPPORT_H

#include <cstdio>
#include <string>

#include "BinaryLogXmlReader.h"

namespace wexbl_fuzz {

/// The example dictionary the capture and record targets decode against.
inline const std::string& dictionaryDir() {
    static const std::string dir = WEXBL_FUZZ_DICTIONARY_DIR "/";
    return dir;
}

/// A reader on the example dictionary, built once per process.
inline Tav::BinaryLogXmlReader& exampleReader(bool stats) {
    static Tav::BinaryLogXmlReader withStats(dictionaryDir(), true, 5000, 64);
    static Tav::BinaryLogXmlReader withoutStats(dictionaryDir(), false, 5000, 64);
    return stats ? withStats : withoutStats;
}

/// Where decoded lines go: nowhere.
inline FILE* sink() {
    static FILE* devNull = fopen("/dev/null", "w");
    return devNull;
}

}  // namespace wexbl_fuzz

#endif
