// The time text that opens every record line: 2024-05-01T12:00:00.123Z.
#include <cstdio>
#include <cstring>
#include <ctime>

#include "BinaryLogXmlReader.h"
#include "render/LineText.h"

namespace Tav {

// Record times are unsigned 32-bit seconds (to 2106); they only convert
// everywhere with a 64-bit time_t (on 32-bit targets: _TIME_BITS=64).
static_assert(sizeof(std::time_t) >= 8, "a 64-bit time_t is required");

namespace detail {

bool appendTimeText(std::string& out, TimeTextCache& cache, std::uint32_t seconds,
                    std::int32_t usec) {
    if (!cache.valid || cache.second != seconds) {
        const std::time_t when = static_cast<std::time_t>(seconds);
        struct tm parts;
        if (gmtime_r(&when, &parts) == nullptr) {
            return false;
        }
        snprintf(cache.prefix, sizeof cache.prefix, "%04d-%02d-%02dT%02d:%02d:%02d",
                 parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                 parts.tm_sec);
        cache.second = seconds;
        cache.valid = true;
    }
    out += cache.prefix;
    // The "Z" stays even when an offset was added: the offset shifts the
    // shown clock only.
    const std::int32_t millis = usec / 1000;
    if (millis >= 0 && millis < 1000) {
        const char text[6] = {'.',
                              static_cast<char>('0' + millis / 100),
                              static_cast<char>('0' + millis / 10 % 10),
                              static_cast<char>('0' + millis % 10),
                              'Z',
                              '\0'};
        out.append(text, 5);
    } else {
        char text[24];
        snprintf(text, sizeof text, ".%03dZ", millis);
        out += text;
    }
    return true;
}

}  // namespace detail

void BinaryLogXmlReader::outputTimeStamp(std::string& out, void* seconds, void* microseconds) {
    if (seconds == nullptr || microseconds == nullptr) {
        return;
    }
    std::uint32_t shown;
    std::int32_t usec;
    std::memcpy(&shown, seconds, sizeof shown);
    std::memcpy(&usec, microseconds, sizeof usec);
    std::string text;
    if (!detail::appendTimeText(text, scratch.time, shown, usec)) {
        fprintf(stderr, "timestamp decoding failed\n");
        return;
    }
    out = text;
}

}  // namespace Tav
