// Loads a dictionary directory and prints a summary of what it describes:
// one line per module and per log, and the display enumerations.
//
//   dictionary-summary DICTIONARY_DIR/
#include <cstdio>
#include <string>

#include "BinaryLogXmlReader.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DICTIONARY_DIR/\n", argv[0]);
        return 2;
    }
    std::string dir = argv[1];
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    Tav::BinaryLogXmlReader reader(dir, false, 0, 0);
    if (!reader.isGood()) {
        fprintf(stderr, "\n%s: the dictionaries in %s did not load\n", argv[0], dir.c_str());
        return 1;
    }
    printf("%zu binlog file(s), %zu bindisplay file(s)\n", reader.binLogFiles.size(),
           reader.binDisplayFiles.size());
    for (const auto& [key, module] : reader.moduleDetailsMap) {
        const auto logs = reader.logDetailsMap.find(key);
        const std::size_t logCount = logs == reader.logDetailsMap.end() ? 0 : logs->second.size();
        printf("module 0x%04x %s:%s version %u, %zu log(s)%s\n", key, module.subsystemName.c_str(),
               module.moduleName.c_str(), module.binlogVersion, logCount,
               module.hasModuleHeader ? ", with module header" : "");
        if (logs == reader.logDetailsMap.end()) {
            continue;
        }
        for (const auto& [index, log] : logs->second) {
            printf("  log id 0x%04x%04x %-28s %-10s %zu parameter(s)\n", key, index,
                   log.logName.c_str(), log.category.c_str(), log.paramOrder.size());
        }
    }
    for (const auto& [name, table] : reader.displayFormatter.displayFormats) {
        printf("enum %s: %zu value(s)\n", name.c_str(), table.size());
    }
    return 0;
}
