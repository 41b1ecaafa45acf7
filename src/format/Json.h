// Writing JSON into a caller's string: the write cursor, numbers and
// strings. Shared by the record formats, the plans (which keep the constant
// parts of a record's JSON ready) and the decoder's writing of values
// straight from a payload, so that all of them escape and number alike.
#ifndef WEXBL_SRC_FORMAT_JSON_H
#define WEXBL_SRC_FORMAT_JSON_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "WexOamBinLogXmlReader/Record.h"
#include "records/Text.h"

namespace Tav {
namespace detail {

/// A write cursor at the end of a string. The string is grown a chunk at a
/// time ahead of the cursor, so that most writes are a bounds check and a
/// copy. finish() cuts it back to what was written; a write left unfinished
/// (out of memory) leaves the string as it was.
class Sink {
  public:
    explicit Sink(std::string& out) : out_(out), start_(out.size()) { reset(start_); }
    ~Sink() {
        if (!finished_) {
            out_.resize(start_);
        }
    }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    /// Room for `n` more characters at the cursor; they count once
    /// advance() is called.
    char* room(std::size_t n) {
        if (static_cast<std::size_t>(limit_ - cursor_) < n) {
            grow(n);
        }
        return cursor_;
    }
    void advance(std::size_t n) { cursor_ += n; }
    void append(const char* text, std::size_t n) {
        if (n != 0) {  // an empty view may have no data at all
            std::memcpy(room(n), text, n);
            cursor_ += n;
        }
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void push_back(char c) {
        *room(1) = c;
        ++cursor_;
    }
    /// The write is complete: the string ends where the cursor stands.
    void finish() {
        out_.resize(size());
        finished_ = true;
    }
    /// Characters in the string so far.
    std::size_t size() const { return static_cast<std::size_t>(cursor_ - base_); }
    char* at(std::size_t offset) { return base_ + offset; }

  private:
    void grow(std::size_t n) {
        // The string doubles its capacity as it needs; only the new chunk
        // is filled.
        constexpr std::size_t kChunk = 1024;
        const std::size_t used = size();
        out_.resize(used + (n > kChunk ? n : kChunk));
        reset(used);
    }
    void reset(std::size_t used) {
        base_ = &out_[0];
        cursor_ = base_ + used;
        limit_ = base_ + out_.size();
    }

    std::string& out_;
    const std::size_t start_;
    bool finished_ = false;
    char* base_ = nullptr;
    char* cursor_ = nullptr;
    char* limit_ = nullptr;
};

/// Copies a constant piece of a plan (a key, a name, a type): sixteen
/// bytes at a time, the last block overlapping the one before, without a
/// call for the pieces most are (a few dozen characters).
inline void copyPiece(char* to, std::string_view text) {
    const std::size_t n = text.size();
    if (n < 16) {
        if (n != 0) {  // an empty view may have no data at all
            std::memcpy(to, text.data(), n);
        }
    } else {
        std::size_t i = 0;
        for (; i + 16 < n; i += 16) {
            std::memcpy(to + i, text.data() + i, 16);
        }
        std::memcpy(to + n - 16, text.data() + n - 16, 16);
    }
}

inline void appendPiece(Sink& out, std::string_view text) {
    copyPiece(out.room(text.size()), text);
    out.advance(text.size());
}

/// The largest magnitude a JSON number keeps exactly in a double (2^53 - 1).
constexpr std::uint64_t kMaxSafeInteger = (std::uint64_t{1} << 53) - 1;

inline void appendUnsigned(Sink& out, std::uint64_t value) {
    const unsigned digits = decimalDigits(value);
    char* const at = out.room(digits);
    writeDigitsBackwards(at + digits, value);
    out.advance(digits);
}

inline void appendSigned(Sink& out, std::int64_t value) {
    if (value < 0) {
        // The magnitude of the most negative value fits the unsigned type.
        const std::uint64_t magnitude = std::uint64_t{0} - static_cast<std::uint64_t>(value);
        const unsigned digits = decimalDigits(magnitude);
        char* const at = out.room(digits + 1);
        *at = '-';
        writeDigitsBackwards(at + 1 + digits, magnitude);
        out.advance(digits + 1);
    } else {
        appendUnsigned(out, static_cast<std::uint64_t>(value));
    }
}

/// A JSON string of any bytes (see Format.h for the escapes).
void appendJsonString(Sink& out, std::string_view text);

/// The same, appended to a string.
inline void appendJsonString(std::string& out, std::string_view text) {
    Sink sink(out);
    appendJsonString(sink, text);
    sink.finish();
}

/// `,"type":"TYPE","value":` of a field of the type.
std::string_view jsonTypeAndValueKeys(ParamType type);

}  // namespace detail
}  // namespace Tav

#endif
