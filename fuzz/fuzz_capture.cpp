// Fuzzes the capture loop: a whole capture file, plain or gzip-compressed,
// framed on link type 150 or Ethernet, decoded against the example dictionary.
//
// Input: one control byte, then the file body.
//   bit 4: the body is written as it is: it is the whole file, and the reader
//          meets whatever it holds, a plain capture or a gzip stream, valid,
//          truncated or corrupt. Bits 0 to 2 are then ignored.
//   bit 0: gzip the file (a valid stream around the body).
//   bit 1: prepend a global header with link type 1 (else 150);
//   bit 2: the body is a whole file including its own global header.
//   bit 3: statistics on.
//   Bits 5 to 7 are ignored.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"

namespace {

constexpr std::uint8_t kGzip = 1;
constexpr std::uint8_t kEthernet = 2;
constexpr std::uint8_t kWholeFile = 4;
constexpr std::uint8_t kStats = 8;
constexpr std::uint8_t kAsIs = 16;

/// The file each input is written to before the reader opens it by name.
///
/// Preferably an anonymous in-memory file reached through /proc/self/fd: it has
/// no name in any directory, so nothing is left behind however the run ends
/// (a crash or a timeout ends the process without running destructors). Where
/// that is not available, a named temporary file, removed by the destructor.
class CaptureFile {
  public:
    CaptureFile() {
        fd_ = memfd_create("wexbl-fuzz-capture", MFD_CLOEXEC);
        if (fd_ >= 0) {
            path_ = "/proc/self/fd/" + std::to_string(fd_);
            if (access(path_.c_str(), R_OK) == 0) {
                return;
            }
            close(fd_);
        }
        const char* tmp = getenv("TMPDIR");
        std::string templ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                            "/wexbl-fuzz-capture-XXXXXX";
        fd_ = mkstemp(&templ[0]);
        path_ = fd_ >= 0 ? templ : std::string();
        name_ = path_;
    }
    ~CaptureFile() {
        if (!name_.empty()) {
            unlink(name_.c_str());
        }
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    const std::string& path() const { return path_; }

    /// Replaces the file's contents with `bytes`, gzip-compressed or as they are.
    bool write(const std::string& bytes, bool compress) {
        if (fd_ < 0 || ftruncate(fd_, 0) != 0 || lseek(fd_, 0, SEEK_SET) != 0) {
            return false;
        }
        if (!compress) {
            return writeAll(bytes.data(), bytes.size());
        }
        // gzclose closes the descriptor gzdopen was given: hand it a copy.
        const int copy = dup(fd_);
        if (copy < 0) {
            return false;
        }
        gzFile file = gzdopen(copy, "wb1");
        if (file == nullptr) {
            close(copy);
            return false;
        }
        const bool written =
            bytes.empty() || gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size())) > 0;
        return gzclose(file) == Z_OK && written;
    }

  private:
    bool writeAll(const char* data, size_t size) {
        while (size != 0) {
            const ssize_t done = ::write(fd_, data, size);
            if (done <= 0) {
                return false;
            }
            data += done;
            size -= static_cast<size_t>(done);
        }
        return true;
    }

    int fd_ = -1;
    std::string path_;
    std::string name_;  // set only for a named file, which the destructor removes
};

CaptureFile& captureFile() {
    static CaptureFile file;
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t control = data[0];
    const bool asIs = (control & kAsIs) != 0;
    std::string bytes;
    if (!asIs && (control & kWholeFile) == 0) {
        const uint32_t linkType = (control & kEthernet) ? 1 : 150;
        unsigned char global[24] = {0xd4, 0xc3, 0xb2, 0xa1, 2, 0, 4, 0};
        global[16] = 0xff;
        global[17] = 0xff;
        global[20] = static_cast<unsigned char>(linkType);
        bytes.assign(reinterpret_cast<const char*>(global), sizeof global);
    }
    bytes.append(reinterpret_cast<const char*>(data + 1), size - 1);
    CaptureFile& file = captureFile();
    if (!file.write(bytes, !asIs && (control & kGzip) != 0)) {
        fprintf(stderr, "fuzz_capture: cannot write the capture file\n");
        abort();
    }
    wexbl_fuzz::exampleReader((control & kStats) != 0)
        .readBinaryFiledata(file.path(), 0, wexbl_fuzz::sink());
    return 0;
}
