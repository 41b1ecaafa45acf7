// The reader object: construction loads every dictionary of one directory.
#include "BinaryLogXmlReader.h"

#include <cstdio>

#include "dictionary/XmlUtil.h"

namespace Tav {

BinaryLogXmlReader::BinaryLogXmlReader(const std::string& xmlPath_, bool statsEnabled_,
                                       unsigned short udpPort_, unsigned short maxVarBinaryBytes_)
    : good(true),
      xmlPath(xmlPath_),
      statsEnabled(statsEnabled_),
      udpPort(udpPort_),
      maxVarBinaryBytes(maxVarBinaryBytes_),
      nextLogIndex(1) {
    if (getBinLogFilesFromDisk() < 0) {
        good = false;
        return;
    }
    if (readBinLogFileAndLoadData() < 0) {
        good = false;
        return;
    }
    static const char* const kLevelNames[] = {"",     "CRITICAL", "ERROR", "WARN",  "NOTICE",
                                              "INFO", "DEBUG",    "DEVEL", "ALWAYS"};
    for (std::uint16_t level = 0; level < 9; ++level) {
        logLevelNames[level] = kLevelNames[level];
    }
}

int BinaryLogXmlReader::readBinLogFileAndLoadData() {
    for (const std::string& path : binLogFiles) {
        detail::XmlDocOwner doc(xmlReadFile(path.c_str(), nullptr, 0));
        if (!doc) {
            fprintf(stderr, "Error parsing file :%s", path.c_str());
            xmlCleanupParser();
            return -1;
        }
        xmlNode* root = xmlDocGetRootElement(doc.get());
        std::uint16_t moduleKey = 0;
        ModuleDetails module;
        std::map<std::uint16_t, LogDetails> logs;
        if (parseBinLogXml(root, moduleKey, module, logs) < 0) {
            fprintf(stderr, "Error parseBinLogXml failed for :%s", path.c_str());
            doc.reset();
            xmlCleanupParser();
            return -1;
        }
        // A later file with the same key replaces the earlier one whole.
        logDetailsMap[moduleKey] = std::move(logs);
        moduleDetailsMap[moduleKey] = std::move(module);
        nextLogIndex = 1;
        doc.reset();
        // The parser's global state is reset after every file.
        xmlCleanupParser();
    }
    // Broken enumerations never fail the reader: their values show as numbers.
    displayFormatter.readDisplayXml(binDisplayFiles);
    return 0;
}

}  // namespace Tav
