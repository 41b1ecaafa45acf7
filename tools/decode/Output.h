// The decoded lines' way out: a buffer written in large pieces, emptied
// before anything is written to standard error, so that lines and messages
// keep their order when both go to the same file. Texts that stay in place
// until the next flush (the renderings of parallel decoding) are written
// from where they lie, in order with what was copied.
#ifndef WEXBL_TOOLS_DECODE_OUTPUT_H
#define WEXBL_TOOLS_DECODE_OUTPUT_H

#include <sys/uio.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace wexbl_decode {

class Output {
  public:
    /// Writes to `file`, which this object then writes unbuffered (the
    /// buffering is its own).
    explicit Output(FILE* file);
    /// Collects what is written in `text` instead (flush() does nothing).
    explicit Output(std::string* text) : file_(nullptr), text_(text) {}
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(std::string_view text) {
        if (text_ != nullptr) {
            text_->append(text.data(), text.size());
            return;
        }
        if (text.size() > buffer_.capacity() - size_) {
            flush();
            if (text.size() > buffer_.capacity()) {
                // Larger than the buffer: written from where it lies.
                addPiece(text.data(), text.size());
                flush();
                return;
            }
        }
        char* const at = buffer_.data() + size_;
        std::copy(text.begin(), text.end(), at);
        size_ += text.size();
        addPiece(at, text.size());
    }
    /// Writes `text` without copying it: its bytes must stay in place until
    /// the next flush().
    void writeInPlace(std::string_view text) {
        if (text_ != nullptr) {
            text_->append(text.data(), text.size());
            return;
        }
        addPiece(text.data(), text.size());
        if (pieces_.size() >= kMaxPieces) {
            flush();
        }
    }
    /// Hands what is buffered and what waits in place to the file.
    void flush();
    /// False once a write failed; errno was kept.
    bool good() const { return good_; }

  private:
    /// Pieces written at once (well below any system's IOV_MAX).
    static constexpr std::size_t kMaxPieces = 256;

    /// Adds `size` bytes at `data` to what waits, as part of the last piece
    /// when they follow it in memory.
    void addPiece(const char* data, std::size_t size) {
        if (size == 0) {
            return;
        }
        if (!pieces_.empty()) {
            iovec& last = pieces_.back();
            if (static_cast<const char*>(last.iov_base) + last.iov_len == data) {
                last.iov_len += size;
                return;
            }
        }
        pieces_.push_back(iovec{const_cast<char*>(data), size});
    }

    FILE* file_;
    std::string* text_ = nullptr;
    std::vector<char> buffer_;
    std::size_t size_ = 0;
    /// What waits to be written, in order: parts of the buffer and texts
    /// in place.
    std::vector<iovec> pieces_;
    bool good_ = true;
};

}  // namespace wexbl_decode

#endif
