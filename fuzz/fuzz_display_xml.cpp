// Fuzzes the bindisplay enumeration loader on arbitrary XML, then looks up a
// few values in whatever it loaded.
#include <libxml/parser.h>

#include <cstdint>

#include "BinaryLogDisplayFormatter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return 0;
    }
    xmlDoc* doc = xmlReadMemory(reinterpret_cast<const char*>(data), static_cast<int>(size),
                                "fuzz_bindisplay.xml", nullptr, 0);
    if (doc == nullptr) {
        return 0;
    }
    Tav::BinaryLogDisplayFormatter formatter;
    const int result = formatter.parseDisplayXml(xmlDocGetRootElement(doc));
    xmlFreeDoc(doc);
    formatter.initialized = result == 0;
    std::string out;
    for (const auto& table : formatter.displayFormats) {
        formatter.getDisplay(table.first, "0", out);
        formatter.getDisplay(table.first, "1", out);
    }
    return 0;
}
