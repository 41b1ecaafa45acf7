// The decoded lines' way out: a buffer written in large pieces, emptied
// before anything is written to standard error, so that lines and messages
// keep their order when both go to the same file.
#ifndef WEXBL_TOOLS_DECODE_OUTPUT_H
#define WEXBL_TOOLS_DECODE_OUTPUT_H

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
                put(text.data(), text.size());
                return;
            }
        }
        std::copy(text.begin(), text.end(), buffer_.data() + size_);
        size_ += text.size();
    }
    /// Hands what is buffered to the file.
    void flush();
    /// False once a write failed; errno was kept.
    bool good() const { return good_; }

  private:
    void put(const char* data, std::size_t size);

    FILE* file_;
    std::string* text_ = nullptr;
    std::vector<char> buffer_;
    std::size_t size_ = 0;
    bool good_ = true;
};

}  // namespace wexbl_decode

#endif
