// The zlib floor: the fastest a one-thread zlib reader can go. Inflates a
// capture with gzopen/gzread in 128 KiB pieces and throws the bytes away;
// prints the number of bytes on standard error.
//
//   zlib_floor FILE
#include <zlib.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    gzFile file = gzopen(argv[1], "rb");
    if (file == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    gzbuffer(file, 128 * 1024);
    std::vector<char> buffer(128 * 1024);
    unsigned long long total = 0;
    int got;
    while ((got = gzread(file, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0) {
        total += static_cast<unsigned long long>(got);
    }
    gzclose(file);
    std::fprintf(stderr, "%llu bytes\n", total);
    return got < 0 ? 1 : 0;
}
