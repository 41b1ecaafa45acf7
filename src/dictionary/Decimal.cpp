// Decimal numbers of the XML dictionaries.
//
// The dictionaries were always read with strtol(text, NULL, 10) on a target
// whose long is 32 bits wide. Reading them here by hand gives the same result
// on 64-bit hosts, where strtol would saturate much later.
#include <cstdint>
#include <string>

#include "BinLogDictionary.h"

namespace Tav {

std::int32_t parseDecimal32(const std::string& text) {
    std::size_t i = 0;
    const std::size_t n = text.size();
    // strtol skips white space as isspace() sees it in the "C" locale.
    while (i < n && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) {
        ++i;
    }
    bool negative = false;
    if (i < n && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Accumulate the magnitude, saturating just past the 32-bit range.
    const std::int64_t limit = negative ? 2147483648LL : 2147483647LL;
    std::int64_t magnitude = 0;
    for (; i < n && text[i] >= '0' && text[i] <= '9'; ++i) {
        magnitude = magnitude * 10 + (text[i] - '0');
        if (magnitude > limit) {
            magnitude = limit;
        }
    }
    return static_cast<std::int32_t>(negative ? -magnitude : magnitude);
}

}  // namespace Tav
