// Discovery of dictionary files and capture files. Neither scan recurses nor
// sorts: entries come in the order the directory yields them.
#include <dirent.h>

#include <cstdio>
#include <memory>
#include <string>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace {

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};
/// Owns an open directory stream; closed on every exit path.
using DirOwner = std::unique_ptr<DIR, DirClose>;

/// Upper-cases the ASCII letters a-z and nothing else: the same in every
/// locale the calling program may have set.
char asciiUpper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// Case-insensitive substring test: each pair of characters is compared after
/// upper-casing both.
bool containsIgnoringCase(const std::string& text, const std::string& word) {
    if (word.size() > text.size()) {
        return false;
    }
    for (std::size_t start = 0; start + word.size() <= text.size(); ++start) {
        std::size_t i = 0;
        while (i < word.size() && asciiUpper(text[start + i]) == asciiUpper(word[i])) {
            ++i;
        }
        if (i == word.size()) {
            return true;
        }
    }
    return false;
}

}  // namespace

int BinaryLogXmlReader::getBinLogFilesFromDisk() {
    if (xmlPath.empty()) {
        fprintf(stderr, "Invalid xmlPath provided as input\n");
        return -1;
    }
    {
        DirOwner dir(opendir(xmlPath.c_str()));
        if (!dir) {
            fprintf(stderr, "Error in opening directory %s ", xmlPath.c_str());
            return -1;
        }
        while (const struct dirent* entry = readdir(dir.get())) {
            const std::string name = entry->d_name;
            if (name.find(".xml") == std::string::npos) {
                continue;
            }
            if (containsIgnoringCase(name, "binlog")) {
                binLogFiles.push_back(xmlPath + name);
            } else if (containsIgnoringCase(name, "bindisplay")) {
                binDisplayFiles.push_back(xmlPath + name);
            }
        }
    }
    if (binLogFiles.empty()) {
        fprintf(stderr, "Error no xml files found for binary logging in                    %s",
                xmlPath.c_str());
        return -1;
    }
    return 0;
}

int BinaryLogXmlReader::getFileList(const std::vector<std::string>& inputs,
                                    std::vector<std::string>& files) {
    for (const std::string& input : inputs) {
        DirOwner dir(opendir(input.c_str()));
        if (!dir) {
            files.push_back(input);
            continue;
        }
        while (const struct dirent* entry = readdir(dir.get())) {
            const std::string name = entry->d_name;
            if (name.find("pcap.gz") != std::string::npos) {
                files.push_back(input + "/" + name);
            }
        }
    }
    return 0;
}

}  // namespace Tav
