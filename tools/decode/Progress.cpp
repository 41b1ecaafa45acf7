#include "Progress.h"

#include <cstdio>
#include <ctime>

namespace wexbl_decode {

namespace {

double now() {
    struct timespec at;
    clock_gettime(CLOCK_MONOTONIC, &at);
    return static_cast<double>(at.tv_sec) + static_cast<double>(at.tv_nsec) / 1e9;
}

}  // namespace

void Progress::startCapture(const std::string& name, std::uint64_t size) {
    name_ = name;
    size_ = size;
    started_ = now();
    lastDrawn_ = started_;
}

void Progress::draw(std::uint64_t bytesRead, std::uint64_t records) {
    const double at = now();
    if (at - lastDrawn_ < 0.25) {
        return;
    }
    lastDrawn_ = at;
    const double elapsed = at - started_;
    const double rate = elapsed > 0 ? static_cast<double>(records) / elapsed : 0;
    char line[512];
    if (size_ != 0 && bytesRead <= size_) {
        const double done = static_cast<double>(bytesRead) / static_cast<double>(size_);
        const double left = done > 0 ? elapsed * (1 - done) / done : 0;
        snprintf(line, sizeof line,
                 "\r%s: %.1f of %.1f MiB, %llu records, %.0f records/s, %.0f s left", name_.c_str(),
                 static_cast<double>(bytesRead) / 1048576.0, static_cast<double>(size_) / 1048576.0,
                 static_cast<unsigned long long>(records), rate, left);
    } else {
        snprintf(line, sizeof line, "\r%s: %.1f MiB, %llu records, %.0f records/s", name_.c_str(),
                 static_cast<double>(bytesRead) / 1048576.0,
                 static_cast<unsigned long long>(records), rate);
    }
    fputs(line, stderr);
    fputs("\033[K", stderr);
    shown_ = true;
}

void Progress::erase() {
    if (shown_) {
        fputs("\r\033[K", stderr);
        shown_ = false;
    }
}

}  // namespace wexbl_decode
