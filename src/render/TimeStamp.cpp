// The time text that opens every record line: 2024-05-01T12:00:00.123Z.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "BinaryLogXmlReader.h"

namespace Tav {

// Record times are unsigned 32-bit seconds (to 2106); they only convert
// everywhere with a 64-bit time_t (on 32-bit targets: _TIME_BITS=64).
static_assert(sizeof(std::time_t) >= 8, "a 64-bit time_t is required");

void BinaryLogXmlReader::outputTimeStamp(std::string& out, void* seconds, void* microseconds) {
    if (seconds == nullptr || microseconds == nullptr) {
        return;
    }
    std::uint32_t shownSeconds;
    std::int32_t usec;
    std::memcpy(&shownSeconds, seconds, sizeof shownSeconds);
    std::memcpy(&usec, microseconds, sizeof usec);

    const std::time_t when = static_cast<std::time_t>(shownSeconds);
    struct tm parts;
    if (gmtime_r(&when, &parts) == nullptr) {
        fprintf(stderr, "timestamp decoding failed\n");
        return;
    }
    // The "Z" stays even when an offset was added: the offset shifts the
    // shown clock only.
    char buf[50] = {};
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
             parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
             usec / 1000);
    out = buf;
}

}  // namespace Tav
