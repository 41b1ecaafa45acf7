#include "Output.h"

#include <unistd.h>

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
    if (file_ == nullptr) {
        return;
    }
    // The pieces in one system call as far as it takes them; a short write
    // goes on from where it stopped.
    std::size_t first = 0;
    while (good_ && first < pieces_.size()) {
        const ssize_t written = ::writev(fileno(file_), pieces_.data() + first,
                                         static_cast<int>(pieces_.size() - first));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            good_ = false;
            break;
        }
        std::size_t left = static_cast<std::size_t>(written);
        while (first < pieces_.size() && left >= pieces_[first].iov_len) {
            left -= pieces_[first].iov_len;
            ++first;
        }
        if (left != 0) {
            pieces_[first].iov_base = static_cast<char*>(pieces_[first].iov_base) + left;
            pieces_[first].iov_len -= left;
        }
    }
    pieces_.clear();
    size_ = 0;
}

}  // namespace wexbl_decode
