// The byte sources: one stream class serves files, descriptors and memory.
//
// Input side: raw bytes come either from read() on a descriptor, into a
// 256 KiB input buffer, or straight from the caller's memory.
// Output side: a window of kWindowLimit + 512 KiB bytes into which inflate()
// writes (or read() reads, for plain descriptors). A refill first moves the
// not yet consumed bytes (fewer than were asked for, so at most 1 MiB and
// usually less than one record) to the start of the window, then fills the
// rest in as few calls as possible. Plain memory needs no window.
//
// The stream is in one of three modes, the same ones zlib's gzread() goes
// through:
//   Look  - at the start, and after each gzip member: two input bytes 1f 8b
//           start a member; anything else at the start is plain data, and
//           anything else after a member is trailing garbage, ignored.
//   Gzip  - inflating a member (inflateInit2 with 15 + 16: gzip only).
//   Copy  - plain data passed through.
#include "capture/Source.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace Tav {
namespace capture {

ByteSource::~ByteSource() = default;

void ByteSource::fail(SourceState state, std::string message) {
    state_ = state;
    error_ = std::move(message);
    errorOffset_ = offset_ + available_;
}

namespace {

constexpr std::size_t kWindowCapacity = ByteSource::kWindowLimit + 512 * 1024;
constexpr std::size_t kInputCapacity = 256 * 1024;
/// inflate() counts its input in uInt: memory input is handed over in pieces.
constexpr std::size_t kMaxInflateInput = std::size_t(1) << 30;

/// Owns a descriptor (or merely borrows it).
class Descriptor {
  public:
    Descriptor(int fd, bool own) : fd_(fd), own_(own) {}
    ~Descriptor() {
        if (own_ && fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    /// Takes the descriptor over (closes it at destruction) when `own`.
    void adopt(bool own) { own_ = own; }

  private:
    int fd_;
    bool own_;
};

/// Owns an inflate stream once initialised.
class Inflater {
  public:
    Inflater() = default;
    ~Inflater() {
        if (live_) {
            inflateEnd(&stream_);
        }
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    /// Prepares for a new gzip member.
    void start() {
        if (live_) {
            inflateReset(&stream_);
            return;
        }
        stream_ = z_stream();
        const int ret = inflateInit2(&stream_, 15 + 16);
        if (ret == Z_MEM_ERROR) {
            throw std::bad_alloc();
        }
        live_ = ret == Z_OK;
    }
    bool live() const { return live_; }
    z_stream& stream() { return stream_; }

  private:
    z_stream stream_ = z_stream();
    bool live_ = false;
};

class StreamSource final : public ByteSource {
  public:
    /// A descriptor.
    StreamSource(int fd, bool own, bool follow)
        : fd_(fd, false),
          fromMemory_(false),
          follow_(follow),
          input_(new unsigned char[kInputCapacity]) {
        inNext_ = input_.get();
        fd_.adopt(own);
    }
    /// Memory.
    StreamSource(const unsigned char* data, std::size_t size)
        : fd_(-1, false), fromMemory_(true), memory_(data), memorySize_(data ? size : 0) {
        inNext_ = memory_;
    }

  protected:
    std::size_t refill(std::size_t n) override;

  private:
    enum class Mode { Look, Gzip, Copy };
    enum class Pull { Data, Eof, Again, Error };

    bool fromMemory() const { return fromMemory_; }
    Pull pullInput();
    void handlePull(Pull pull);
    void look();
    void inflateStep();
    void copyStep();
    void useWindow();
    void end() { state_ = SourceState::End; }

    Descriptor fd_;
    bool fromMemory_ = false;
    bool follow_ = false;
    const unsigned char* memory_ = nullptr;
    std::size_t memorySize_ = 0;
    std::size_t memoryFed_ = 0;  // memory bytes handed to the input so far

    std::unique_ptr<unsigned char[]> input_;  // descriptor input buffer
    const unsigned char* inNext_ = nullptr;   // unconsumed input
    std::size_t inAvail_ = 0;
    bool inputEnded_ = false;

    std::unique_ptr<unsigned char[]> window_;
    Inflater inflater_;
    Mode mode_ = Mode::Look;
    bool hadMember_ = false;
};

/// Appends more raw input after the unconsumed bytes. Data: some arrived;
/// Eof: the input ended (never when following); Again: nothing there yet;
/// Error: read() failed (errno set).
StreamSource::Pull StreamSource::pullInput() {
    if (fromMemory()) {
        const std::size_t more = std::min(memorySize_ - memoryFed_, kMaxInflateInput - inAvail_);
        if (more == 0) {
            inputEnded_ = true;
            return Pull::Eof;
        }
        if (inAvail_ == 0) {
            inNext_ = memory_ + memoryFed_;
        }
        inAvail_ += more;
        memoryFed_ += more;
        return Pull::Data;
    }
    if (inNext_ != input_.get()) {
        std::memmove(input_.get(), inNext_, inAvail_);
        inNext_ = input_.get();
    }
    for (;;) {
        const ssize_t got = ::read(fd_.get(), input_.get() + inAvail_, kInputCapacity - inAvail_);
        if (got > 0) {
            inAvail_ += static_cast<std::size_t>(got);
            return Pull::Data;
        }
        if (got == 0) {
            if (follow_) {
                return Pull::Again;
            }
            inputEnded_ = true;
            return Pull::Eof;
        }
        if (errno == EINTR) {
            continue;
        }
        return errno == EAGAIN || errno == EWOULDBLOCK ? Pull::Again : Pull::Error;
    }
}

/// The outcome of a pull that brought no data, for the modes that need more.
void StreamSource::handlePull(Pull pull) {
    switch (pull) {
        case Pull::Data:
            break;
        case Pull::Eof:
            end();
            break;
        case Pull::Again:
            wouldBlock_ = true;
            break;
        case Pull::Error:
            fail(SourceState::ReadError, std::error_code(errno, std::generic_category()).message());
            break;
    }
}

/// Makes the window the home of the available bytes.
void StreamSource::useWindow() {
    if (!window_) {
        window_.reset(new unsigned char[kWindowCapacity]);
        data_ = window_.get();
    }
}

void StreamSource::look() {
    while (inAvail_ < 2 && !inputEnded_) {
        const Pull pull = pullInput();
        if (pull == Pull::Again || pull == Pull::Error) {
            handlePull(pull);
            return;
        }
    }
    if (inAvail_ >= 2 && inNext_[0] == 0x1f && inNext_[1] == 0x8b) {
        inflater_.start();
        if (!inflater_.live()) {
            fail(SourceState::DataError, "internal error: inflate stream corrupt");
            return;
        }
        useWindow();
        compressed_ = true;
        hadMember_ = true;
        mode_ = Mode::Gzip;
        return;
    }
    if (hadMember_ || inAvail_ == 0) {
        // Trailing garbage after a member (ignored), or an empty stream.
        inAvail_ = 0;
        end();
        return;
    }
    mode_ = Mode::Copy;
    if (fromMemory()) {
        // Plain memory: the buffer itself is the window, whole.
        data_ = inNext_;
        available_ = memorySize_ - static_cast<std::size_t>(inNext_ - memory_);
        inAvail_ = 0;
        memoryFed_ = memorySize_;
        return;
    }
    useWindow();
    std::memcpy(window_.get(), inNext_, inAvail_);
    data_ = window_.get();
    available_ = inAvail_;
    inAvail_ = 0;
}

void StreamSource::inflateStep() {
    if (inAvail_ == 0) {
        const Pull pull = pullInput();
        if (pull != Pull::Data) {
            // Eof inside a member: a truncated stream, which gzread reports
            // as a plain end too.
            handlePull(pull);
            return;
        }
    }
    z_stream& stream = inflater_.stream();
    unsigned char* out = window_.get() + available_;
    const std::size_t room = kWindowCapacity - available_;
    stream.next_in = const_cast<unsigned char*>(inNext_);
    stream.avail_in = static_cast<uInt>(inAvail_);
    stream.next_out = out;
    stream.avail_out = static_cast<uInt>(room);
    const int ret = inflate(&stream, Z_NO_FLUSH);
    const bool progress = stream.avail_out != room || stream.avail_in != inAvail_;
    available_ += room - stream.avail_out;
    inNext_ = stream.next_in;
    inAvail_ = stream.avail_in;
    switch (ret) {
        case Z_OK:
        case Z_BUF_ERROR:
            if (!progress) {
                // Input and room were there: inflate() cannot be stuck.
                fail(SourceState::DataError, "internal error: inflate stream corrupt");
            }
            break;
        case Z_STREAM_END:
            mode_ = Mode::Look;
            break;
        case Z_MEM_ERROR:
            throw std::bad_alloc();
        case Z_DATA_ERROR:
            fail(SourceState::DataError,
                 stream.msg != nullptr ? stream.msg : "compressed data error");
            break;
        default:
            fail(SourceState::DataError, "internal error: inflate stream corrupt");
            break;
    }
}

void StreamSource::copyStep() {
    if (fromMemory()) {
        end();
        return;
    }
    for (;;) {
        const ssize_t got =
            ::read(fd_.get(), window_.get() + available_, kWindowCapacity - available_);
        if (got > 0) {
            available_ += static_cast<std::size_t>(got);
            return;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got == 0) {
            handlePull(follow_ ? Pull::Again : Pull::Eof);
        } else {
            handlePull(errno == EAGAIN || errno == EWOULDBLOCK ? Pull::Again : Pull::Error);
        }
        return;
    }
}

std::size_t StreamSource::refill(std::size_t n) {
    n = std::min(n, kWindowLimit);
    wouldBlock_ = false;
    if (state_ != SourceState::Ok || n <= available_) {
        return available_;
    }
    if (window_ && data_ != window_.get()) {
        std::memmove(window_.get(), data_, available_);
        data_ = window_.get();
    }
    while (available_ < n && state_ == SourceState::Ok && !wouldBlock_) {
        switch (mode_) {
            case Mode::Look:
                look();
                break;
            case Mode::Gzip:
                inflateStep();
                break;
            case Mode::Copy:
                copyStep();
                break;
        }
    }
    return available_;
}

}  // namespace

std::unique_ptr<ByteSource> openFile(const std::string& path) {
    if (path == "-") {
        return openDescriptor(STDIN_FILENO, false, false);
    }
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return nullptr;
    }
    // Sequential reading: let the kernel read ahead generously. Advice only.
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return openDescriptor(fd, true, false);
}

std::unique_ptr<ByteSource> openDescriptor(int fd, bool own, bool follow) {
    try {
        return std::unique_ptr<ByteSource>(new StreamSource(fd, own, follow));
    } catch (...) {
        // The source never took the descriptor over.
        if (own && fd >= 0) {
            ::close(fd);
        }
        throw;
    }
}

std::unique_ptr<ByteSource> openMemory(const unsigned char* data, std::size_t size) {
    return std::unique_ptr<ByteSource>(new StreamSource(data, size));
}

}  // namespace capture
}  // namespace Tav
