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
//
// Recovery after a data error (recover()) looks at the compressed bytes after
// the point where inflate() failed for a place to start again: a gzip member
// header (1f 8b 08 and no reserved flag), or an empty stored block
// (00 00 ff ff), which is how a flush point looks; after a full flush the
// data that follows refers to nothing before it (pigz --independent writes
// one every 128 KiB), so a raw inflate can start there. A candidate is taken
// when a trial inflate of up to kTrialOutput bytes from it meets no error;
// otherwise the search goes on one byte further. A raw stream is followed by
// its member's 8-byte trailer, which is skipped without being checked.
#include "capture/Source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#ifdef WEXBL_HAVE_ISAL
#include <isa-l/igzip_lib.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace Tav {
namespace capture {

ByteSource::~ByteSource() = default;

std::size_t ByteSource::readInto(unsigned char* to, std::size_t n) {
    std::size_t done = 0;
    while (done < n) {
        const std::size_t want = std::min(n - done, kWindowLimit);
        const std::size_t take = std::min(ensure(want), want);
        if (take != 0) {
            std::memcpy(to + done, data_, take);
            consume(take);
            done += take;
        }
        if (take < want) {
            break;
        }
    }
    return done;
}

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
/// Bytes a recovery candidate must inflate without error to be taken.
constexpr std::size_t kTrialOutput = 32 * 1024;
/// Compressed bytes gathered before a candidate is tried.
constexpr std::size_t kTrialInput = 64 * 1024;
constexpr int kGzipWindowBits = 15 + 16;
constexpr int kRawWindowBits = -15;

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
class ZlibInflater {
  public:
    ZlibInflater() = default;
    ~ZlibInflater() {
        if (live_) {
            inflateEnd(&stream_);
        }
    }
    ZlibInflater(const ZlibInflater&) = delete;
    ZlibInflater& operator=(const ZlibInflater&) = delete;

    /// Prepares for a new gzip member, or with kRawWindowBits for raw
    /// deflate data.
    void start(int windowBits = kGzipWindowBits) {
        if (live_) {
            inflateReset2(&stream_, windowBits);
            return;
        }
        stream_ = z_stream();
        const int ret = inflateInit2(&stream_, windowBits);
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

#ifdef WEXBL_HAVE_ISAL
/// ISA-L's inflate state (some 40 KiB, so it lives on the heap).
class IsalInflater {
  public:
    IsalInflater() : state_(new inflate_state) { isal_inflate_init(state_.get()); }
    /// Prepares for a new gzip member.
    void start() {
        isal_inflate_reset(state_.get());
        state_->crc_flag = ISAL_GZIP;
    }
    inflate_state& state() { return *state_; }

  private:
    std::unique_ptr<inflate_state> state_;
};
#else
/// Without ISA-L: never used.
class IsalInflater {
  public:
    void start() {}
};
#endif

class StreamSource final : public ByteSource {
  public:
    /// A descriptor.
    StreamSource(int fd, bool own, bool follow, Inflater inflater)
        : fd_(fd, false),
          fromMemory_(false),
          follow_(follow),
          input_(new unsigned char[kInputCapacity]) {
        inNext_ = input_.get();
        fd_.adopt(own);
        // A regular file can be read again from a member's start: ISA-L may
        // inflate it.
        struct stat info;
        if (inflater == Inflater::Fastest && !follow && ::fstat(fd, &info) == 0 &&
            S_ISREG(info.st_mode)) {
            const off_t position = ::lseek(fd, 0, SEEK_CUR);
            if (position >= 0) {
                startPosition_ = static_cast<std::uint64_t>(position);
                useIsal_ = kHaveIsal;
            }
        }
    }
    /// Memory.
    StreamSource(const unsigned char* data, std::size_t size, Inflater inflater)
        : fd_(-1, false), fromMemory_(true), memory_(data), memorySize_(data ? size : 0) {
        inNext_ = memory_;
        useIsal_ = kHaveIsal && inflater == Inflater::Fastest;
    }

    bool recover(std::uint64_t& skipped) override;

    std::size_t readInto(unsigned char* to, std::size_t n) override;

  protected:
    std::size_t refill(std::size_t n) override;

  private:
    enum class Mode { Look, Gzip, Copy };
    /// Runs the steps of the current mode until `n` bytes are available or
    /// the stream stops (or would block).
    void produce(std::size_t n);
    enum class Pull { Data, Eof, Again, Error };

    bool fromMemory() const { return fromMemory_; }
    Pull pullInput();
    void handlePull(Pull pull);
    void look();
    void inflateStep();
    void isalStep();
    /// Inflates the current member again from its start with zlib, passing
    /// over the bytes already delivered, and goes on with zlib.
#ifdef WEXBL_HAVE_ISAL
    void replayWithZlib();
#endif
    /// Offset in the compressed input of its first unconsumed byte.
    std::uint64_t inputOffset() const {
        return (fromMemory() ? memoryFed_ : inputRead_) - inAvail_;
    }
    void copyStep();
    void useWindow();
    /// Drops `n` (at most inAvail_) unconsumed input bytes.
    void dropInput(std::size_t n) {
        inNext_ += n;
        inAvail_ -= n;
    }
    /// Inflates a trial from the candidate at the start of the input.
    bool tryResume(bool raw);
    void end() {
        state_ = SourceState::End;
    }

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
    /// Where inflating and reading write the bytes they produce, available_
    /// bytes in: the window, or the buffer of a readInto() call.
    unsigned char* out_ = nullptr;
    std::size_t outCapacity_ = 0;
    ZlibInflater inflater_;
    Mode mode_ = Mode::Look;
    bool hadMember_ = false;
    bool raw_ = false;             // inflating raw deflate data (after a recovery)
    std::size_t skipTrailer_ = 0;  // input bytes to drop before looking for a member

#ifdef WEXBL_HAVE_ISAL
    static constexpr bool kHaveIsal = true;
#else
    static constexpr bool kHaveIsal = false;
#endif
    bool useIsal_ = false;  // members are inflated with ISA-L
    std::unique_ptr<IsalInflater> isal_;
    std::uint64_t startPosition_ = 0;  // file position of the first byte read
    std::uint64_t memberStart_ = 0;    // input offset of the current member
    std::uint64_t memberOut_ = 0;      // bytes the current member delivered
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
        inputRead_ += more;
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
            inputRead_ += static_cast<std::uint64_t>(got);
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
            if (stopping()) {
                inputEnded_ = true;
                return Pull::Eof;
            }
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
        out_ = window_.get();
        outCapacity_ = kWindowCapacity;
    }
}

void StreamSource::look() {
    while (skipTrailer_ > 0) {
        if (inAvail_ == 0) {
            const Pull pull = pullInput();
            if (pull != Pull::Data) {
                handlePull(pull);
                return;
            }
        }
        const std::size_t drop = std::min(skipTrailer_, inAvail_);
        dropInput(drop);
        skipTrailer_ -= drop;
    }
    while (inAvail_ < 2 && !inputEnded_) {
        const Pull pull = pullInput();
        if (pull == Pull::Again || pull == Pull::Error) {
            handlePull(pull);
            return;
        }
    }
    if (inAvail_ >= 2 && inNext_[0] == 0x1f && inNext_[1] == 0x8b) {
        memberStart_ = inputOffset();
        memberOut_ = 0;
        if (useIsal_) {
            if (!isal_) {
                isal_.reset(new IsalInflater);
            }
            isal_->start();
        } else {
            inflater_.start();
            if (!inflater_.live()) {
                fail(SourceState::DataError, "internal error: inflate stream corrupt");
                return;
            }
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
    // Eof inside a member: a truncated stream, which gzread reports as a
    // plain end too. zlib may still hold output of the input it has read (a
    // match the room left cut short, after a replay's pass-over or a full
    // window), so it is asked once more; the stream ends when it gives
    // nothing.
    bool inputEnded = false;
    if (inAvail_ == 0) {
        const Pull pull = pullInput();
        if (pull == Pull::Eof) {
            inputEnded = true;
        } else if (pull != Pull::Data) {
            handlePull(pull);
            return;
        }
    }
    z_stream& stream = inflater_.stream();
    unsigned char* out = out_ + available_;
    const std::size_t room = outCapacity_ - available_;
    stream.next_in = const_cast<unsigned char*>(inNext_);
    stream.avail_in = static_cast<uInt>(inAvail_);
    stream.next_out = out;
    stream.avail_out = static_cast<uInt>(room);
    const int ret = inflate(&stream, Z_NO_FLUSH);
    const bool progress = stream.avail_out != room || stream.avail_in != inAvail_;
    available_ += room - stream.avail_out;
    inNext_ = stream.next_in;
    inAvail_ = stream.avail_in;
    if (inputEnded && (ret == Z_OK || ret == Z_BUF_ERROR)) {
        if (!progress) {
            handlePull(Pull::Eof);
        }
        return;
    }
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
            if (raw_) {
                raw_ = false;
                skipTrailer_ = 8;
            }
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
        const ssize_t got = ::read(fd_.get(), out_ + available_, outCapacity_ - available_);
        if (got > 0) {
            available_ += static_cast<std::size_t>(got);
            inputRead_ += static_cast<std::uint64_t>(got);
            return;
        }
        if (got < 0 && errno == EINTR && !stopping()) {
            continue;
        }
        if (got < 0 && errno == EINTR) {
            handlePull(Pull::Eof);
            return;
        }
        if (got == 0) {
            handlePull(follow_ ? Pull::Again : Pull::Eof);
        } else {
            handlePull(errno == EAGAIN || errno == EWOULDBLOCK ? Pull::Again : Pull::Error);
        }
        return;
    }
}

void StreamSource::isalStep() {
#ifdef WEXBL_HAVE_ISAL
    if (inAvail_ == 0) {
        const Pull pull = pullInput();
        if (pull == Pull::Eof) {
            // A member cut short: zlib decides what of it is delivered.
            replayWithZlib();
            return;
        }
        if (pull != Pull::Data) {
            handlePull(pull);
            return;
        }
    }
    inflate_state& state = isal_->state();
    const std::size_t room = std::min<std::size_t>(outCapacity_ - available_, UINT32_MAX);
    const std::size_t offered = std::min<std::size_t>(inAvail_, UINT32_MAX);
    state.next_in = const_cast<unsigned char*>(inNext_);
    state.avail_in = static_cast<std::uint32_t>(offered);
    state.next_out = out_ + available_;
    state.avail_out = static_cast<std::uint32_t>(room);
    const int ret = isal_inflate(&state);
    if (state.avail_out > room) {
        replayWithZlib();  // an impossible count: zlib reads the member
        return;
    }
    const std::size_t produced = room - state.avail_out;
    available_ += produced;
    memberOut_ += produced;
    const unsigned char* const before = inNext_;
    if (state.next_in < inNext_) {
        // At the end of a stream ISA-L gives back the whole bytes left in
        // its bit buffer, which may reach before this call's input: fine
        // while they are still in the buffer, else zlib reads the member.
        const unsigned char* const first = fromMemory() ? memory_ : input_.get();
        const std::size_t back = static_cast<std::size_t>(inNext_ - state.next_in);
        if (back > static_cast<std::size_t>(inNext_ - first)) {
            replayWithZlib();
            return;
        }
        inNext_ -= back;
        inAvail_ += back;
    } else {
        // On some damaged streams ISA-L's count of input left runs below
        // zero: what it says it consumed must be what it moved over, within
        // what it was given, or zlib reads the member.
        const std::size_t moved = static_cast<std::size_t>(state.next_in - inNext_);
        if (state.avail_in > offered || moved != offered - state.avail_in) {
            replayWithZlib();
            return;
        }
        inNext_ += moved;
        inAvail_ -= moved;
    }
    if (ret != ISAL_DECOMP_OK) {
        // Damaged data: zlib finds and words the damage.
        replayWithZlib();
        return;
    }
    if (state.block_state == ISAL_BLOCK_FINISH) {
        mode_ = Mode::Look;
        return;
    }
    if (produced == 0 && inNext_ == before) {
        replayWithZlib();  // cannot be stuck with input and room: let zlib say why
    }
#endif
}

#ifdef WEXBL_HAVE_ISAL
void StreamSource::replayWithZlib() {
    useIsal_ = false;
    // What of the member the reader has not consumed yet is dropped and
    // inflated again: ISA-L may have decoded a little past the point where
    // zlib finds the damage. Only the bytes consumed are passed over.
    const std::uint64_t unconsumed = std::min<std::uint64_t>(available_, memberOut_);
    available_ -= static_cast<std::size_t>(unconsumed);
    const std::uint64_t delivered = memberOut_ - unconsumed;
    // The input again from the member's start.
    inAvail_ = 0;
    inputEnded_ = false;
    if (fromMemory()) {
        memoryFed_ = static_cast<std::size_t>(memberStart_);
    } else {
        const off_t target = static_cast<off_t>(startPosition_ + memberStart_);
        if (::lseek(fd_.get(), target, SEEK_SET) != target) {
            fail(SourceState::ReadError, std::error_code(errno, std::generic_category()).message());
            return;
        }
        inNext_ = input_.get();
        inputRead_ = memberStart_;
    }
    inflater_.start();
    if (!inflater_.live()) {
        fail(SourceState::DataError, "internal error: inflate stream corrupt");
        return;
    }
    mode_ = Mode::Gzip;
    // Pass over what the member delivered already.
    std::uint64_t left = delivered;
    unsigned char scratch[16384];
    z_stream& stream = inflater_.stream();
    while (left > 0) {
        if (inAvail_ == 0) {
            const Pull pull = pullInput();
            if (pull != Pull::Data) {
                handlePull(pull);
                return;
            }
        }
        const std::size_t room =
            static_cast<std::size_t>(std::min<std::uint64_t>(left, sizeof scratch));
        stream.next_in = const_cast<unsigned char*>(inNext_);
        stream.avail_in = static_cast<uInt>(std::min<std::size_t>(inAvail_, kMaxInflateInput));
        const std::size_t offered = stream.avail_in;
        stream.next_out = scratch;
        stream.avail_out = static_cast<uInt>(room);
        const int ret = inflate(&stream, Z_NO_FLUSH);
        const std::size_t consumed = offered - stream.avail_in;
        inNext_ += consumed;
        inAvail_ -= consumed;
        left -= room - stream.avail_out;
        if (ret == Z_STREAM_END) {
            mode_ = Mode::Look;
            return;
        }
        if (ret == Z_MEM_ERROR) {
            throw std::bad_alloc();
        }
        if (ret != Z_OK && ret != Z_BUF_ERROR) {
            fail(SourceState::DataError,
                 stream.msg != nullptr ? stream.msg : "compressed data error");
            return;
        }
        if (consumed == 0 && room == stream.avail_out) {
            fail(SourceState::DataError, "internal error: inflate stream corrupt");
            return;
        }
    }
}
#endif

bool StreamSource::tryResume(bool raw) {
    const std::size_t skip = raw ? 4 : 0;
    inflater_.start(raw ? kRawWindowBits : kGzipWindowBits);
    if (!inflater_.live()) {
        return false;
    }
    z_stream& stream = inflater_.stream();
    const std::size_t room = std::min(kWindowCapacity - available_, kTrialOutput);
    stream.next_in = const_cast<unsigned char*>(inNext_ + skip);
    stream.avail_in = static_cast<uInt>(inAvail_ - skip);
    stream.next_out = window_.get() + available_;
    stream.avail_out = static_cast<uInt>(room);
    const int ret = inflate(&stream, Z_NO_FLUSH);
    if (ret == Z_MEM_ERROR) {
        throw std::bad_alloc();
    }
    const std::size_t produced = room - stream.avail_out;
    if ((ret != Z_OK && ret != Z_STREAM_END) || produced == 0) {
        return false;
    }
    available_ += produced;
    inNext_ = stream.next_in;
    inAvail_ = stream.avail_in;
    raw_ = raw;
    mode_ = Mode::Gzip;
    if (ret == Z_STREAM_END) {
        mode_ = Mode::Look;
        if (raw_) {
            raw_ = false;
            skipTrailer_ = 8;
        }
    }
    return true;
}

bool StreamSource::recover(std::uint64_t& skipped) {
    skipped = 0;
    if (state_ != SourceState::DataError || mode_ != Mode::Gzip || !window_) {
        return false;
    }
    useIsal_ = false;  // what follows a recovery is inflated with zlib
    if (data_ != window_.get()) {
        std::memmove(window_.get(), data_, available_);
        data_ = window_.get();
    }
    // inflate() stopped at the byte where the error showed: look from there.
    for (;;) {
        while (inAvail_ < kTrialInput && !inputEnded_) {
            if (pullInput() != Pull::Data) {
                break;
            }
        }
        std::size_t at = 0;
        bool raw = false;
        bool found = false;
        for (; at + 4 <= inAvail_; ++at) {
            const unsigned char* p = inNext_ + at;
            if (p[0] == 0x1f && p[1] == 0x8b && p[2] == 8 && (p[3] & 0xE0) == 0) {
                found = true;
                break;
            }
            if (p[0] == 0 && p[1] == 0 && p[2] == 0xff && p[3] == 0xff) {
                found = raw = true;
                break;
            }
        }
        if (!found) {
            // Keep the last three bytes: a candidate may start in them.
            const std::size_t drop = inAvail_ < 3 ? inAvail_ : inAvail_ - 3;
            skipped += drop;
            dropInput(drop);
            if (inputEnded_ || drop == 0) {
                skipped += inAvail_;
                dropInput(inAvail_);
                return false;
            }
            continue;
        }
        skipped += at;
        dropInput(at);
        const std::string error = error_;
        state_ = SourceState::Ok;
        if (tryResume(raw)) {
            return true;
        }
        state_ = SourceState::DataError;
        error_ = error;
        skipped += 1;
        dropInput(1);
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
    produce(n);
    return available_;
}

std::size_t StreamSource::readInto(unsigned char* to, std::size_t n) {
    // Once the kind of stream is known, the bytes in the window are copied
    // and the rest is inflated or read straight into `to` (an inflated
    // stream only ever looks for further members, which uses the window for
    // nothing); before, everything goes through the window, as does a
    // request larger than the window (the inflaters count room in 32 bits).
    if (state_ != SourceState::Ok || !window_ || (mode_ != Mode::Gzip && mode_ != Mode::Copy) ||
        n > kWindowCapacity) {
        return ByteSource::readInto(to, n);
    }
    const std::size_t copied = std::min(available_, n);
    if (copied != 0) {
        std::memcpy(to, data_, copied);
        consume(copied);
    }
    if (copied == n) {
        return n;
    }
    wouldBlock_ = false;
    struct Restore {
        StreamSource& source;
        ~Restore() {
            source.out_ = source.window_.get();
            source.outCapacity_ = kWindowCapacity;
            source.data_ = source.window_.get();
            source.available_ = 0;
        }
    } restore{*this};
    out_ = to + copied;
    outCapacity_ = n - copied;
    data_ = out_;
    produce(outCapacity_);
    const std::size_t produced = available_;
    consume(produced);
    return copied + produced;
}

void StreamSource::produce(std::size_t n) {
    while (available_ < n && state_ == SourceState::Ok && !wouldBlock_) {
        switch (mode_) {
            case Mode::Look:
                look();
                break;
            case Mode::Gzip:
                if (useIsal_) {
                    isalStep();
                } else {
                    inflateStep();
                }
                break;
            case Mode::Copy:
                copyStep();
                break;
        }
    }
}

}  // namespace

const char* inflaterDescription() {
#ifdef WEXBL_HAVE_ISAL
    static const std::string text =
        std::string("ISA-L (zlib ") + zlibVersion() + " as the fallback)";
#else
    static const std::string text = std::string("zlib ") + zlibVersion();
#endif
    return text.c_str();
}

std::unique_ptr<ByteSource> openFile(const std::string& path, Inflater inflater) {
    if (path == "-") {
        return openDescriptor(STDIN_FILENO, false, false, inflater);
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
    return openDescriptor(fd, true, false, inflater);
}

std::unique_ptr<ByteSource> followFile(const std::string& path) {
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
    return openDescriptor(fd, true, true);
}

std::unique_ptr<ByteSource> openDescriptor(int fd, bool own, bool follow, Inflater inflater) {
    try {
        return std::unique_ptr<ByteSource>(new StreamSource(fd, own, follow, inflater));
    } catch (...) {
        // The source never took the descriptor over.
        if (own && fd >= 0) {
            ::close(fd);
        }
        throw;
    }
}

std::unique_ptr<ByteSource> openMemory(const unsigned char* data, std::size_t size,
                                       Inflater inflater) {
    return std::unique_ptr<ByteSource>(new StreamSource(data, size, inflater));
}

}  // namespace capture
}  // namespace Tav
