// The time text that opens every record line: 2024-05-01T12:00:00.123Z.
#include <cstdio>
#include <ctime>

#include "records/Text.h"

namespace Tav {
namespace detail {

// Record times are unsigned 32-bit seconds (to 2106); they only convert
// everywhere with a 64-bit time_t (on 32-bit targets: _TIME_BITS=64).
static_assert(sizeof(std::time_t) >= 8, "a 64-bit time_t is required");

bool convertSecond(TimeTextCache& cache, std::uint32_t seconds) {
    const std::time_t when = static_cast<std::time_t>(seconds);
    struct tm parts;
    if (gmtime_r(&when, &parts) == nullptr) {
        return false;
    }
    const int length = snprintf(cache.prefix, sizeof cache.prefix, "%04d-%02d-%02dT%02d:%02d:%02d",
                                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                                parts.tm_hour, parts.tm_min, parts.tm_sec);
    cache.prefixLength = length > 0 ? static_cast<std::size_t>(length) : 0;
    cache.second = seconds;
    cache.valid = true;
    return true;
}

void appendOddMillis(TextBuilder& out, std::int32_t millis) {
    char text[24];
    const int length = snprintf(text, sizeof text, ".%03dZ", millis);
    out.append(text, static_cast<std::size_t>(length));
}

}  // namespace detail
}  // namespace Tav
