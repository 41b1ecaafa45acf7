// Little-endian and network-order field appenders over a binary-safe string.
#ifndef BINLOG_SYNTH_BYTES_H
#define BINLOG_SYNTH_BYTES_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace binlog_synth {

/// A growing byte string. Integers are appended little-endian unless the
/// appender's name says big-endian (be16, be32).
class ByteBuffer {
  public:
    ByteBuffer() = default;
    explicit ByteBuffer(std::string initial) : data_(std::move(initial)) {}

    ByteBuffer& u8(std::uint8_t v) {
        data_.push_back(static_cast<char>(v));
        return *this;
    }
    ByteBuffer& u16(std::uint16_t v) {
        const char b[2] = {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8)};
        data_.append(b, 2);
        return *this;
    }
    ByteBuffer& u32(std::uint32_t v) {
        char b[4];
        for (int i = 0; i < 4; ++i) {
            b[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
        }
        data_.append(b, 4);
        return *this;
    }
    ByteBuffer& u64(std::uint64_t v) {
        char b[8];
        for (int i = 0; i < 8; ++i) {
            b[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
        }
        data_.append(b, 8);
        return *this;
    }
    /// The low `width` bytes (1, 2, 4 or 8) of `v`, little-endian.
    ByteBuffer& uintN(std::uint64_t v, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i) {
            data_.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
        }
        return *this;
    }
    ByteBuffer& be16(std::uint16_t v) {
        const char b[2] = {static_cast<char>(v >> 8), static_cast<char>(v & 0xFF)};
        data_.append(b, 2);
        return *this;
    }
    ByteBuffer& be32(std::uint32_t v) {
        return be16(static_cast<std::uint16_t>(v >> 16)).be16(static_cast<std::uint16_t>(v));
    }
    ByteBuffer& bytes(const std::string& raw) {
        data_.append(raw);
        return *this;
    }
    ByteBuffer& bytes(const void* raw, std::size_t n) {
        data_.append(static_cast<const char*>(raw), n);
        return *this;
    }
    ByteBuffer& fill(std::size_t n, std::uint8_t byte) {
        data_.append(n, static_cast<char>(byte));
        return *this;
    }
    ByteBuffer& zeros(std::size_t n) { return fill(n, 0); }
    /// `text` cut or padded with NUL bytes to exactly `size` bytes.
    ByteBuffer& fixed(const std::string& text, std::size_t size) {
        if (text.size() >= size) {
            data_.append(text, 0, size);
        } else {
            data_.append(text);
            data_.append(size - text.size(), '\0');
        }
        return *this;
    }

    void clear() { data_.clear(); }
    std::size_t size() const { return data_.size(); }
    const std::string& str() const { return data_; }
    std::string& str() { return data_; }

  private:
    std::string data_;
};

}  // namespace binlog_synth

#endif
