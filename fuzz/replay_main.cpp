// Runs a fuzz target over saved inputs without libFuzzer, so the seed corpora
// and every regression input run as ordinary tests.
//
//   replay FILE_OR_DIRECTORY...
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int runFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat info;
        if (stat(argv[i], &info) == 0 && S_ISDIR(info.st_mode)) {
            DIR* dir = opendir(argv[i]);
            if (dir == nullptr) {
                ++failures;
                continue;
            }
            while (const struct dirent* entry = readdir(dir)) {
                const std::string name = entry->d_name;
                if (name != "." && name != "..") {
                    failures += runFile(std::string(argv[i]) + "/" + name);
                    ++count;
                }
            }
            closedir(dir);
        } else {
            failures += runFile(argv[i]);
            ++count;
        }
    }
    fprintf(stderr, "replay: %d input(s) run\n", count);
    return failures == 0 ? 0 : 1;
}
