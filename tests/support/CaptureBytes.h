// Hand-built capture bytes for the capture layer's tests: a byte table
// builder, gzip through zlib's deflate (windowBits 31), the ways a gzip
// stream goes wrong, and a loop that drains a byte source.
#ifndef WEXBL_TEST_CAPTURE_BYTES_H
#define WEXBL_TEST_CAPTURE_BYTES_H

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "capture/Source.h"

namespace capture_test {

using Bytes = std::vector<unsigned char>;

/// Appends fields in a chosen byte order.
class ByteTable {
  public:
    ByteTable& u8(unsigned value) {
        bytes_.push_back(static_cast<unsigned char>(value));
        return *this;
    }
    ByteTable& u16le(unsigned value) { return u8(value & 0xFF).u8((value >> 8) & 0xFF); }
    ByteTable& u16be(unsigned value) { return u8((value >> 8) & 0xFF).u8(value & 0xFF); }
    ByteTable& u32le(std::uint32_t value) { return u16le(value & 0xFFFF).u16le(value >> 16); }
    ByteTable& u32be(std::uint32_t value) { return u16be(value >> 16).u16be(value & 0xFFFF); }
    ByteTable& u16(unsigned value, bool bigEndian) {
        return bigEndian ? u16be(value) : u16le(value);
    }
    ByteTable& u32(std::uint32_t value, bool bigEndian) {
        return bigEndian ? u32be(value) : u32le(value);
    }
    ByteTable& fill(std::size_t count, unsigned value) {
        bytes_.insert(bytes_.end(), count, static_cast<unsigned char>(value));
        return *this;
    }
    ByteTable& raw(const Bytes& more) {
        bytes_.insert(bytes_.end(), more.begin(), more.end());
        return *this;
    }
    ByteTable& text(const std::string& more) {
        bytes_.insert(bytes_.end(), more.begin(), more.end());
        return *this;
    }
    const Bytes& bytes() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }

  private:
    Bytes bytes_;
};

/// Deflates `parts` into one gzip member, each part followed by a sync flush
/// (so the compressed bytes so far end on a byte boundary and inflate to
/// exactly the parts so far); `finish` ends the member with its trailer.
inline Bytes gzipParts(const std::vector<Bytes>& parts, bool finish, int level = 6) {
    z_stream stream = z_stream();
    if (deflateInit2(&stream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    Bytes out;
    unsigned char chunk[65536];
    auto run = [&](const Bytes* part, int flush) {
        stream.next_in = part ? const_cast<unsigned char*>(part->data()) : nullptr;
        stream.avail_in = part ? static_cast<uInt>(part->size()) : 0;
        int ret;
        do {
            stream.next_out = chunk;
            stream.avail_out = sizeof chunk;
            ret = deflate(&stream, flush);
            out.insert(out.end(), chunk, chunk + (sizeof chunk - stream.avail_out));
        } while (stream.avail_out == 0 || (flush == Z_FINISH && ret != Z_STREAM_END));
    };
    for (const Bytes& part : parts) {
        run(&part, Z_SYNC_FLUSH);
    }
    if (finish) {
        run(nullptr, Z_FINISH);
    }
    deflateEnd(&stream);
    return out;
}

/// One complete gzip member holding `data`.
inline Bytes gzip(const Bytes& data, int level = 6) {
    return gzipParts({data}, true, level);
}

/// A member whose CRC-32 in the trailer is wrong.
inline Bytes withBadCrc(Bytes member) {
    member[member.size() - 8] ^= 0x01;
    return member;
}

/// A member whose length (ISIZE) in the trailer is wrong.
inline Bytes withBadLength(Bytes member) {
    member[member.size() - 4] ^= 0x01;
    return member;
}

/// Compressed bytes for `good`, then a deflate block of the reserved type 3
/// (zlib: "invalid block type"): inflate yields exactly `good`, then fails.
inline Bytes gzipThenBadBlock(const Bytes& good) {
    Bytes out = gzipParts({good}, false);
    out.push_back(0x06);  // BFINAL 0, BTYPE 11
    out.push_back(0x00);
    out.push_back(0x00);
    return out;
}

inline Bytes concat(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline Bytes truncated(Bytes bytes, std::size_t size) {
    bytes.resize(size);
    return bytes;
}

/// Reads a source to its end in steps of `step` bytes (ensure, then consume
/// what is there) and returns everything it delivered.
inline Bytes drain(Tav::capture::ByteSource& source, std::size_t step) {
    Bytes out;
    for (;;) {
        const std::size_t have = source.ensure(step);
        if (have == 0) {
            return out;
        }
        const std::size_t take = have < step ? have : step;
        out.insert(out.end(), source.data(), source.data() + take);
        source.consume(take);
    }
}

/// Bytes that compress only a little: a linear congruential sequence.
inline Bytes noise(std::size_t size, std::uint32_t seed) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        seed = seed * 1103515245u + 12345u;
        out[i] = static_cast<unsigned char>(seed >> 16);
    }
    return out;
}

}  // namespace capture_test

#endif
