// A byte source whose inflating runs in a thread of its own.
//
// The producer thread has the inner source write its bytes straight into
// chunks of up to kChunkBytes (readInto()) and hands them over through a
// queue of at most kQueuedChunks chunks (so at most about 2 MiB are ever in
// flight). The reader's thread reads a chunk where it lies: the few bytes
// left of the one before (a record cut by the chunk's start) are put in
// front of it, in room every chunk keeps there; a request larger than that
// is served from a window of the reader's own, the chunks copied into it.
// The inner source's end, data error or read error travels through the
// queue behind the last bytes before it, so the reader sees exactly what the
// inner source would have shown it, in the same order: the bytes, then the
// state with its message and offset. A recovery after a data error is asked
// of the producer, which calls the inner source's recover() and goes on.
// While the queue is full, and after the inner source stopped, the producer
// does the idle work its reader gave it (rendering decoded records) instead
// of waiting idle.
#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "capture/Source.h"

namespace Tav {
namespace capture {

namespace {

constexpr std::size_t kChunkBytes = 256 * 1024;
constexpr std::size_t kQueuedChunks = 8;
/// Room before a chunk's bytes for the bytes left of the chunk before.
constexpr std::size_t kHeadroom = 64 * 1024;
constexpr std::size_t kWindowCapacity = ByteSource::kWindowLimit + kChunkBytes;

/// Bytes from the inner source, or how it stopped.
struct Chunk {
    /// kHeadroom bytes of room, then `size` bytes (null: no bytes).
    std::unique_ptr<unsigned char[]> storage;
    std::size_t size = 0;
    bool last = false;  // the inner source stopped after these bytes
    SourceState state = SourceState::Ok;
    std::string error;
    std::uint64_t errorOffset = 0;

    unsigned char* bytes() const { return storage.get() + kHeadroom; }
};

class PipelinedSource final : public ByteSource {
  public:
    explicit PipelinedSource(std::unique_ptr<ByteSource> inner)
        : inner_(std::move(inner)), window_(new unsigned char[kWindowCapacity]) {
        data_ = window_.get();
        producer_ = std::thread([this] { produce(); });
    }

    ~PipelinedSource() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        changed_.notify_all();
        producer_.join();
    }

    bool recover(std::uint64_t& skipped) override {
        skipped = 0;
        if (state_ != SourceState::DataError) {
            return false;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        recoverAsked_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !recoverAsked_; });
        skipped = recoverSkipped_;
        if (!recovered_) {
            return false;
        }
        state_ = SourceState::Ok;
        return true;
    }

    bool setIdleWork(std::function<bool()> work) override {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !idleRunning_; });
            idleWork_ = std::move(work);
            idlePending_ = static_cast<bool>(idleWork_);
        }
        // The producer may be waiting for room already.
        changed_.notify_all();
        return true;
    }

    void idleWorkQueued() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!idleWork_) {
                return;
            }
            ++idleRequests_;
            idlePending_ = true;
        }
        changed_.notify_all();
    }

  protected:
    std::size_t refill(std::size_t n) override {
        n = std::min(n, kWindowLimit);
        wouldBlock_ = false;
        if (state_ != SourceState::Ok || n <= available_) {
            return available_;
        }
        Chunk chunk = take();
        if (chunk.size == 0) {
            // The last chunk, without bytes: the bytes stay where they are.
            settle(chunk);
            return available_;
        }
        if (available_ <= kHeadroom && (available_ + chunk.size >= n || chunk.last)) {
            // The bytes left go in front of the chunk, which becomes the
            // window; the chunk read before goes back to the producer.
            unsigned char* const start = chunk.bytes() - available_;
            if (available_ != 0) {
                std::memcpy(start, data_, available_);
            }
            data_ = start;
            available_ += chunk.size;
            settle(chunk);
            recycle(std::move(current_.storage));
            current_ = std::move(chunk);
            return available_;
        }
        // More than fits in front of a chunk, or than one chunk brings: the
        // reader's own window, the chunks copied into it.
        if (data_ != window_.get()) {
            std::memmove(window_.get(), data_, available_);
            data_ = window_.get();
        }
        recycle(std::move(current_.storage));
        for (;;) {
            // A chunk fits: fewer than n <= kWindowLimit bytes are there.
            if (chunk.size != 0) {
                std::memcpy(window_.get() + available_, chunk.bytes(), chunk.size);
                available_ += chunk.size;
            }
            settle(chunk);
            recycle(std::move(chunk.storage));
            if (available_ >= n || state_ != SourceState::Ok) {
                return available_;
            }
            chunk = take();
        }
    }

  private:
    /// The next chunk of the queue, waited for.
    Chunk take() {
        Chunk chunk;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !queue_.empty(); });
            chunk = std::move(queue_.front());
            queue_.pop_front();
            compressed_ = innerCompressed_;
            inputRead_ = innerInput_;
        }
        changed_.notify_all();
        return chunk;
    }

    /// Takes over how the inner source stopped, after the last chunk.
    void settle(Chunk& chunk) {
        if (chunk.last) {
            state_ = chunk.state;
            error_ = std::move(chunk.error);
            errorOffset_ = chunk.errorOffset;
        }
    }

    /// Keeps a chunk's storage for the producer.
    void recycle(std::unique_ptr<unsigned char[]> storage) {
        if (!storage) {
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (spare_.size() < kQueuedChunks) {
            spare_.push_back(std::move(storage));
        }
    }

    /// The producer thread.
    void produce() {
        try {
            for (;;) {
                Chunk chunk;
                {
                    std::unique_lock<std::mutex> lock(mutex_);
                    waitForRoom(lock);
                    if (quit_) {
                        return;
                    }
                    if (!spare_.empty()) {
                        chunk.storage = std::move(spare_.back());
                        spare_.pop_back();
                    }
                }
                if (!chunk.storage) {
                    chunk.storage.reset(new unsigned char[kHeadroom + kChunkBytes]);
                }
                chunk.size = inner_->readInto(chunk.bytes(), kChunkBytes);
                if (chunk.size < kChunkBytes) {
                    // Fewer bytes than asked for: the inner source stopped.
                    chunk.last = true;
                    chunk.state = inner_->state();
                    chunk.error = inner_->error();
                    chunk.errorOffset = inner_->errorOffset();
                }
                const bool last = chunk.last;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    queue_.push_back(std::move(chunk));
                    innerCompressed_ = inner_->compressed();
                    innerInput_ = inner_->inputBytes();
                }
                changed_.notify_all();
                if (last && !awaitRecovery()) {
                    return;
                }
            }
        } catch (...) {
            // Out of memory in the producer: the reader sees a read error.
            Chunk chunk;
            chunk.last = true;
            chunk.state = SourceState::ReadError;
            chunk.error = "out of memory";
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(std::move(chunk));
            changed_.notify_all();
        }
    }

    /// Waits until the queue has room (or the source goes away), doing the
    /// idle work meanwhile.
    void waitForRoom(std::unique_lock<std::mutex>& lock) {
        waitWorking(lock, [this] { return quit_ || queue_.size() < kQueuedChunks; });
    }

    /// Waits until `done` holds, doing the idle work while there is some.
    template <typename Done>
    void waitWorking(std::unique_lock<std::mutex>& lock, Done done) {
        while (!done()) {
            if (!idlePending_) {
                changed_.wait(lock);
                continue;
            }
            // setIdleWork() waits while the work runs: it stays in place.
            idleRunning_ = true;
            const std::uint64_t requests = idleRequests_;
            lock.unlock();
            const bool did = idleWork_();
            lock.lock();
            idleRunning_ = false;
            // Nothing to do, and nothing new since the work looked.
            if (!did && idleRequests_ == requests) {
                idlePending_ = false;
            }
            changed_.notify_all();
        }
    }

    /// After the inner source stopped: waits until the reader asks for a
    /// recovery (true when it succeeded: produce on) or the source goes away.
    /// Meanwhile the idle work goes on: the reader still has the bytes of the
    /// queue before it.
    bool awaitRecovery() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (inner_->state() != SourceState::DataError) {
            // An end or a read error is final; wait only to be destroyed.
            waitWorking(lock, [this] { return quit_; });
            return false;
        }
        waitWorking(lock, [this] { return quit_ || recoverAsked_; });
        if (quit_) {
            return false;
        }
        std::uint64_t skipped = 0;
        recovered_ = inner_->recover(skipped);
        recoverSkipped_ = skipped;
        recoverAsked_ = false;
        lock.unlock();
        changed_.notify_all();
        return recovered_;
    }

    std::unique_ptr<ByteSource> inner_;  // used by the producer thread only
    std::unique_ptr<unsigned char[]> window_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Chunk> queue_;
    std::vector<std::unique_ptr<unsigned char[]>> spare_;
    Chunk current_;  // the chunk the available bytes lie in, if any (reader's)
    bool quit_ = false;
    bool recoverAsked_ = false;
    bool recovered_ = false;
    std::uint64_t recoverSkipped_ = 0;
    bool innerCompressed_ = false;
    std::uint64_t innerInput_ = 0;
    std::function<bool()> idleWork_;
    bool idlePending_ = false;        // idleWork_ may have something to do
    std::uint64_t idleRequests_ = 0;  // idleWorkQueued() calls
    bool idleRunning_ = false;
    std::thread producer_;  // last: started once everything else exists
};

}  // namespace

std::unique_ptr<ByteSource> pipelined(std::unique_ptr<ByteSource> inner) {
    if (!inner) {
        return inner;
    }
    return std::unique_ptr<ByteSource>(new PipelinedSource(std::move(inner)));
}

}  // namespace capture
}  // namespace Tav
