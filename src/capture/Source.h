// Byte sources: the uncompressed bytes of a capture, read from a file, a
// descriptor or memory, gzip-compressed or not, seen through a window.
//
// A source hands out its bytes in place: ensure(n) makes at least n bytes
// contiguous at data() (refilling the window when needed), consume(n) moves
// past them. Readers build their record views straight on the window, so no
// record is copied on the way from the file to the decoder.
//
// gzip is recognised the way zlib's gzopen(path, "rb") recognises it: a
// stream whose first two bytes are 1f 8b is inflated (with zlib's inflate(),
// not gzread()), member after member; bytes after a complete member that do
// not start another member are ignored as trailing garbage; any other stream
// is passed through unchanged. gzread() is not used because it cannot tell a
// corrupt stream from a truncated one in its return value and withholds the
// bytes it inflated in the call that met the error. Here:
//   - a data error (corrupt deflate data, wrong CRC or length in a trailer,
//     bad member header) is state() DataError with zlib's message; every byte
//     inflated before the error is delivered first, and errorOffset() is the
//     number of uncompressed bytes produced;
//   - a stream that simply stops (a truncated file) is End after the bytes
//     inflated so far, as gzread treats it.
//
// Inflaters: where ISA-L is built in (WEXBL_HAVE_ISAL) and the input can be
// read again (memory, a regular file not being followed), gzip members are
// inflated with ISA-L's isal_inflate, several times faster than zlib. When
// ISA-L meets damaged data, or the input ends inside a member, the member is
// inflated again from its start with zlib, the bytes already delivered are
// passed over, and zlib goes on from there: the messages, the error offsets
// and the bytes delivered before an error or a cut are zlib's. Every other
// input is inflated with zlib alone, as is everything after a recovery.
//
// Window: up to kWindowLimit (1 MiB) bytes can be asked for at once; the
// window holds kWindowLimit plus 512 KiB, so every refill inflates or reads at
// least 512 KiB of output; compressed input is read 256 KiB at a time. A plain
// memory buffer is not copied at all: the window is the buffer itself.
//
// Errors never throw: they are states. Only std::bad_alloc escapes (the window
// allocation, or zlib reporting that it is out of memory).
#ifndef WEXBL_SRC_CAPTURE_SOURCE_H
#define WEXBL_SRC_CAPTURE_SOURCE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Tav {
namespace capture {

enum class SourceState {
    Ok,         // more bytes may follow
    End,        // the stream ended (cleanly or truncated)
    DataError,  // corrupt compressed data; error() has zlib's message
    ReadError,  // read() failed; error() has the system's message
};

/// A stream of uncompressed capture bytes seen through a window.
///
/// state() tells why ensure() came back short; while enough bytes are
/// available it is not consulted. A DataError or ReadError is set as soon as
/// it is met, while the bytes produced before it are still available, so a
/// reader asks for the state only when ensure() returns fewer bytes than it
/// needs.
class ByteSource {
  public:
    /// The largest `n` ensure() serves; larger requests are served as this.
    static constexpr std::size_t kWindowLimit = 1024 * 1024;

    virtual ~ByteSource();
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    /// Makes at least `n` bytes available at data() and returns the number
    /// available (which may be more than `n`). It is less than `n` only when
    /// the stream ended (state() End), failed (DataError, ReadError), or an
    /// incremental source has no more bytes yet (state() Ok, wouldBlock()).
    /// Pointers obtained from data() before the call are invalid after it.
    std::size_t ensure(std::size_t n) { return n <= available_ ? available_ : refill(n); }
    /// The first available byte (null while nothing was ever available).
    const unsigned char* data() const { return data_; }
    /// Bytes available at data() now.
    std::size_t available() const { return available_; }
    /// Moves past `n` available bytes (at most available()). The bytes stay
    /// where they are until the next ensure().
    void consume(std::size_t n) {
        if (n > available_) {
            n = available_;
        }
        data_ += n;
        available_ -= n;
        offset_ += n;
    }
    /// Uncompressed bytes consumed so far.
    std::uint64_t offset() const { return offset_; }
    SourceState state() const { return state_; }
    /// zlib's message for a DataError ("incorrect data check", ...) or the
    /// system's text for a ReadError; empty otherwise.
    const std::string& error() const { return error_; }
    /// Uncompressed bytes produced before a DataError or ReadError.
    std::uint64_t errorOffset() const { return errorOffset_; }
    /// A gzip member was found.
    bool compressed() const { return compressed_; }
    /// A read interrupted by a signal while `*stop` is set ends the stream
    /// instead of being tried again (a program stopping on SIGINT).
    void setStopFlag(const std::atomic<bool>* stop) { stop_ = stop; }
    /// Bytes of the file (or memory) read so far: compressed bytes for gzip,
    /// for progress reports.
    std::uint64_t inputBytes() const {
        const std::uint64_t seen = offset_ + available_;
        return inputRead_ > seen || compressed_ ? inputRead_ : seen;
    }
    /// After a DataError: looks in the compressed bytes after the error for a
    /// point from which inflating can start afresh (the next gzip member, or
    /// the block after a full flush point) and goes on from there, state() Ok
    /// again. The bytes inflated before the error stay available; the newly
    /// inflated bytes follow them, so the uncompressed stream simply jumps.
    /// Returns false (the DataError stays) when no such point follows.
    /// `skipped` is set to the compressed bytes passed over.
    virtual bool recover(std::uint64_t& skipped) {
        skipped = 0;
        return false;
    }
    /// The last ensure() came back short because an incremental source has no
    /// more bytes yet (a non-blocking descriptor, or end of file while
    /// following); a later ensure() may get more.
    bool wouldBlock() const { return wouldBlock_; }
    /// Work for a source that reads in a thread of its own (pipelined()) to do
    /// there while it holds all the bytes it may, and once its inner source
    /// stopped (the reader still has the last bytes before it): `work` is
    /// called again and again until it returns false (nothing to do now), and
    /// again after idleWorkQueued(). It must not throw. Returns whether the source takes
    /// such work (false: it has no thread of its own). Null withdraws the
    /// work; the call returns once the work is no longer running.
    virtual bool setIdleWork(std::function<bool()> work) {
        (void)work;
        return false;
    }
    /// Tells the source that its idle work has something to do again.
    virtual void idleWorkQueued() {}
    /// Moves up to `n` bytes to `to` and consumes them; fewer only when
    /// ensure() would come back short (see state() and wouldBlock()). A source
    /// that produces bytes (inflating, reading a descriptor) may write them
    /// to `to` itself rather than to its window and copy them from there.
    virtual std::size_t readInto(unsigned char* to, std::size_t n);

  protected:
    ByteSource() = default;
    /// Serves ensure(n) when fewer than `n` bytes are available.
    virtual std::size_t refill(std::size_t n) = 0;
    /// Enters DataError or ReadError with `message`; the bytes available now
    /// stay available.
    void fail(SourceState state, std::string message);

    const unsigned char* data_ = nullptr;
    std::size_t available_ = 0;
    std::uint64_t offset_ = 0;
    SourceState state_ = SourceState::Ok;
    std::string error_;
    std::uint64_t errorOffset_ = 0;
    bool compressed_ = false;
    bool wouldBlock_ = false;
    std::uint64_t inputRead_ = 0;
    const std::atomic<bool>* stop_ = nullptr;
    bool stopping() const { return stop_ != nullptr && stop_->load(std::memory_order_relaxed); }
};

/// Which inflater a source may use for gzip data.
enum class Inflater {
    Fastest,  // ISA-L where built in and the input can be read again, else zlib
    Zlib,     // zlib only
};

/// The inflaters built in, for a program's version text: "ISA-L 2.30.0 (zlib
/// 1.2.13 as the fallback)" or "zlib 1.2.13".
const char* inflaterDescription();

/// Opens `path` ("-" is standard input, not closed by the source) and reads it
/// as gzip or plain as described above. Returns null when open() fails, with
/// errno as open() left it.
std::unique_ptr<ByteSource> openFile(const std::string& path,
                                     Inflater inflater = Inflater::Fastest);

/// Opens `path` to read it while it grows: openDescriptor(fd, true, true) on
/// the file ("-" is standard input, read to its end as usual). Null when
/// open() fails, errno as open() left it.
std::unique_ptr<ByteSource> followFile(const std::string& path);

/// Reads an already open descriptor incrementally (pipes, sockets, growing
/// files): every refill is one read() of what is there. `own` closes the
/// descriptor when the source is destroyed. With `follow`, end of file is not
/// the end of the stream: ensure() comes back short with wouldBlock() and a
/// later call reads what was appended since. A non-blocking descriptor with
/// nothing to read also gives wouldBlock(). gzip is decided once two bytes are
/// there (or the stream ended with fewer).
std::unique_ptr<ByteSource> openDescriptor(int fd, bool own, bool follow = false,
                                           Inflater inflater = Inflater::Fastest);

/// Reads `size` bytes at `data` (not copied; they must outlive the source),
/// gzip or plain as a file would be.
std::unique_ptr<ByteSource> openMemory(const unsigned char* data, std::size_t size,
                                       Inflater inflater = Inflater::Fastest);

/// `inner` read by a thread of its own (Pipeline.cpp): inflating runs beside
/// the decoding that reads the returned source. The bytes, the end and the
/// errors come out as `inner` gives them; recover() is passed on. `inner`
/// must not be an incremental source that would block (wouldBlock()).
std::unique_ptr<ByteSource> pipelined(std::unique_ptr<ByteSource> inner);

}  // namespace capture
}  // namespace Tav

#endif
