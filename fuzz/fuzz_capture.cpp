// Fuzzes the capture loop: a whole capture file, plain or gzip-compressed,
// framed on link type 150 or Ethernet, decoded against the example dictionary.
//
// Input: one control byte, then the file body. Control bit 0: gzip the file;
// bit 1: prepend a global header with link type 1 (else 150); bit 2: the body
// is a whole file including its own global header; bit 3: statistics on.
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"

namespace {

std::string tempPath() {
    static std::string path = [] {
        char templ[] = "/tmp/wexbl-fuzz-capture-XXXXXX";
        const int fd = mkstemp(templ);
        if (fd >= 0) {
            close(fd);
        }
        return std::string(templ);
    }();
    return path;
}

void writeFile(const std::string& path, const std::string& bytes, bool compress) {
    if (compress) {
        gzFile file = gzopen(path.c_str(), "wb1");
        if (file != nullptr) {
            gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
            gzclose(file);
        }
        return;
    }
    FILE* file = fopen(path.c_str(), "wb");
    if (file != nullptr) {
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t control = data[0];
    std::string bytes;
    if ((control & 4) == 0) {
        const uint32_t linkType = (control & 2) ? 1 : 150;
        unsigned char global[24] = {0xd4, 0xc3, 0xb2, 0xa1, 2, 0, 4, 0};
        global[16] = 0xff;
        global[17] = 0xff;
        global[20] = static_cast<unsigned char>(linkType);
        bytes.assign(reinterpret_cast<const char*>(global), sizeof global);
    }
    bytes.append(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string path = tempPath();
    writeFile(path, bytes, (control & 1) != 0);
    wexbl_fuzz::exampleReader((control & 8) != 0).readBinaryFiledata(path, 0, wexbl_fuzz::sink());
    return 0;
}
