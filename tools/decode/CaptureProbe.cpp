#include "CaptureProbe.h"

#include <zlib.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace wexbl_decode {
namespace {

struct GzClose {
    void operator()(gzFile_s* file) const { gzclose(file); }
};

/// The pcap magic numbers as they lie on disk (the first four bytes).
struct Magic {
    unsigned char bytes[4];
    const char* format;  // null for the one the library reads
};
constexpr Magic kMagics[] = {
    {{0xd4, 0xc3, 0xb2, 0xa1}, nullptr},
    {{0x4d, 0x3c, 0xb2, 0xa1}, "nanosecond pcap"},
    {{0xa1, 0xb2, 0xc3, 0xd4}, "big-endian pcap"},
    {{0xa1, 0xb2, 0x3c, 0x4d}, "big-endian nanosecond pcap"},
    {{0x0a, 0x0d, 0x0d, 0x0a}, "pcapng"},
};

/// "64 61 74 61": `count` bytes in hex, separated by blanks.
std::string hexBytes(const unsigned char* bytes, std::size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            text += ' ';
        }
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0f];
    }
    return text;
}

/// zlib's message for the file's last error, without the path that zlib
/// puts in front of it.
std::string gzErrorText(gzFile_s* file, const std::string& path) {
    int code = Z_OK;
    std::string text = gzerror(file, &code);
    const std::string prefix = path + ": ";
    if (text.compare(0, prefix.size(), prefix) == 0) {
        text.erase(0, prefix.size());
    }
    return text;
}

}  // namespace

CaptureProbe probeCapture(const std::string& path) {
    CaptureProbe probe;
    errno = 0;
    std::unique_ptr<gzFile_s, GzClose> file(gzopen(path.c_str(), "rb"));
    if (!file) {
        probe.kind = CaptureProbe::kOpenFailed;
        probe.error = errno != 0 ? strerror(errno) : "out of memory";
        return probe;
    }
    unsigned char bytes[kPcapGlobalHeaderSize];
    const int got = gzread(file.get(), bytes, sizeof bytes);
    if (got < 0) {
        probe.kind = CaptureProbe::kReadFailed;
        probe.error = gzErrorText(file.get(), path);
        return probe;
    }
    const std::size_t size = static_cast<std::size_t>(got);
    // gzread copies a file that is not gzip as it is; say which was seen.
    const bool compressed = gzdirect(file.get()) == 0;
    const std::string subject = compressed ? "its decompressed content" : "it";

    if (size < 4) {
        probe.kind = CaptureProbe::kNotPcap;
        if (size == 0) {
            probe.description = subject + " is empty";
        } else {
            probe.description = subject + (compressed ? " is only " : " holds only ") +
                                std::to_string(size) + (size == 1 ? " byte: " : " bytes: ") +
                                hexBytes(bytes, size);
        }
        return probe;
    }
    for (const Magic& magic : kMagics) {
        if (std::memcmp(bytes, magic.bytes, sizeof magic.bytes) != 0) {
            continue;
        }
        if (magic.format != nullptr) {
            probe.kind = CaptureProbe::kOtherFormat;
            probe.description = magic.format;
            return probe;
        }
        probe.kind = CaptureProbe::kPcap;
        probe.completeHeader = size == kPcapGlobalHeaderSize;
        if (probe.completeHeader) {
            probe.linkType = static_cast<std::uint32_t>(bytes[20]) |
                             static_cast<std::uint32_t>(bytes[21]) << 8 |
                             static_cast<std::uint32_t>(bytes[22]) << 16 |
                             static_cast<std::uint32_t>(bytes[23]) << 24;
        }
        return probe;
    }
    probe.kind = CaptureProbe::kNotPcap;
    probe.description = subject + " starts with " + hexBytes(bytes, 4);
    return probe;
}

}  // namespace wexbl_decode
