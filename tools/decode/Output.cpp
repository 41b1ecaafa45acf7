#include "Output.h"

#include <cerrno>

namespace wexbl_decode {

namespace {
constexpr std::size_t kBufferSize = 1 << 16;
}  // namespace

Output::Output(FILE* file) : file_(file) {
    buffer_.reserve(kBufferSize);
    buffer_.resize(kBufferSize);
    setvbuf(file_, nullptr, _IONBF, 0);
}

Output::~Output() {
    flush();
}

void Output::flush() {
    if (size_ != 0 && file_ != nullptr) {
        put(buffer_.data(), size_);
        size_ = 0;
    }
}

void Output::put(const char* data, std::size_t size) {
    if (good_ && fwrite(data, 1, size, file_) != size) {
        good_ = false;
    }
}

}  // namespace wexbl_decode
