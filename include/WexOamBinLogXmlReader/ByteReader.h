// A bounded view of untrusted record bytes.
//
// Every read of record bytes goes through this one reader. A read that reaches
// at or beyond the end of the data yields zero bytes for the missing part, so
// decoders keep their exact offsets and texts and can never leave the buffer.
#ifndef WEX_OAM_BINLOG_BYTE_READER_H
#define WEX_OAM_BINLOG_BYTE_READER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tav {

/// A read-only window of `size` bytes. Offsets are taken as 64-bit values so
/// that the bounds check itself cannot wrap. Callers that walk a payload keep
/// 32-bit offsets and let them wrap on purpose (as the wire format's unsigned
/// arithmetic does); a wrapped offset is just another offset, checked here.
class ByteReader {
  public:
    ByteReader() = default;
    ByteReader(const unsigned char* data, std::size_t size) : data_(data), size_(data ? size : 0) {}

    const unsigned char* data() const { return data_; }
    std::size_t size() const { return size_; }

    /// Number of bytes that exist at and after `offset`.
    std::size_t available(std::uint64_t offset) const {
        return offset >= size_ ? 0 : static_cast<std::size_t>(size_ - offset);
    }

    /// Copies `n` bytes starting at `offset` into `dst`; the part that lies
    /// beyond the data is filled with zero bytes.
    void copy(std::uint64_t offset, void* dst, std::size_t n) const {
        if (offset <= size_ && size_ - offset >= n) {
            if (n != 0) {
                std::memcpy(dst, data_ + offset, n);
            }
            return;
        }
        const std::size_t have = available(offset);
        const std::size_t take = have < n ? have : n;
        if (take != 0) {
            std::memcpy(dst, data_ + offset, take);
        }
        if (take < n) {
            std::memset(static_cast<unsigned char*>(dst) + take, 0, n - take);
        }
    }

    /// The window that starts `offset` bytes in (empty when beyond the end).
    ByteReader from(std::uint64_t offset) const {
        const std::size_t have = available(offset);
        return have ? ByteReader(data_ + offset, have) : ByteReader();
    }

    std::uint8_t get_u8(std::uint64_t offset) const { return offset < size_ ? data_[offset] : 0; }
    std::uint16_t get_u16le(std::uint64_t offset) const {
        unsigned char b[2];
        copy(offset, b, sizeof b);
        return static_cast<std::uint16_t>(b[0] | (b[1] << 8));
    }
    std::uint16_t get_u16be(std::uint64_t offset) const {
        unsigned char b[2];
        copy(offset, b, sizeof b);
        return static_cast<std::uint16_t>((b[0] << 8) | b[1]);
    }
    std::uint32_t get_u32le(std::uint64_t offset) const {
        unsigned char b[4];
        copy(offset, b, sizeof b);
        return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
               (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
    }
    std::uint64_t get_u64le(std::uint64_t offset) const {
        return static_cast<std::uint64_t>(get_u32le(offset)) |
               (static_cast<std::uint64_t>(get_u32le(offset + 4)) << 32);
    }

  private:
    const unsigned char* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace Tav

#endif
