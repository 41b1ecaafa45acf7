// Fuzzes the binlog dictionary loader on arbitrary XML, then decodes a fixed
// record against whatever it loaded.
#include <libxml/parser.h>

#include <cstdint>
#include <map>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return 0;
    }
    xmlDoc* doc = xmlReadMemory(reinterpret_cast<const char*>(data), static_cast<int>(size),
                                "fuzz_binlog.xml", nullptr, 0);
    if (doc == nullptr) {
        return 0;
    }
    static Tav::BinaryLogXmlReader reader(wexbl_fuzz::dictionaryDir(), false, 0, 16);
    reader.nextLogIndex = 1;
    std::uint16_t moduleKey = 0;
    Tav::ModuleDetails module;
    std::map<std::uint16_t, Tav::LogDetails> logs;
    const int result = reader.parseBinLogXml(xmlDocGetRootElement(doc), moduleKey, module, logs);
    xmlFreeDoc(doc);
    if (result < 0 || logs.empty()) {
        return 0;
    }
    // Decode a record of every loaded log from a fixed payload.
    static const unsigned char kPayload[64] = {1,  2,    3,    4, 5, 6, 7, 8,    9,    10,   11,
                                               12, 0x7b, 0x7d, 0, 0, 4, 0, 0xaa, 0xbb, 0xcc, 0xdd};
    const Tav::ByteReader payload(kPayload, sizeof kPayload);
    for (const auto& entry : logs) {
        Tav::LogDetails log(entry.second);
        Tav::ModuleDetails working(module);
        unsigned int offset = 0;
        Tav::BinLogHeader header;
        if (working.hasModuleHeader) {
            reader.decodeModuleHeaderFromPayLoad(working, header, payload, offset);
        }
        reader.decodeBinLogPayLoad(header, payload, log, offset);
        std::string moduleText;
        std::string messageText;
        reader.computeDisplayDataForLog(Tav::PcapRecHeader(), header, working, log, moduleText,
                                        messageText);
    }
    return 0;
}
