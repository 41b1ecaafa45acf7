#include "TempFile.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace wexbl_decode {
namespace {

constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGPIPE, SIGHUP};

// The paths of the temporary files that exist, where a signal handler can
// reach them: fixed storage, and a flag per slot that is set only once its
// path is complete. Standard input and one other capture are copied at a
// time, so two slots would do.
constexpr int kSlots = 4;
char gPaths[kSlots][PATH_MAX];
volatile sig_atomic_t gInUse[kSlots];

void removeTempFilesAndReraise(int signalNumber) {
    // Only async-signal-safe calls here.
    for (int i = 0; i < kSlots; ++i) {
        if (gInUse[i] != 0) {
            unlink(gPaths[i]);
        }
    }
    // The signal stays blocked until the handler returns; it is then
    // delivered again with its default action, which ends the process.
    signal(signalNumber, SIG_DFL);
    raise(signalNumber);
}

/// Keeps the cleanup signals blocked while the slots change, so that a
/// handler never sees a file that exists but is not listed yet.
class CleanupSignalsBlocked {
  public:
    CleanupSignalsBlocked() {
        sigset_t set;
        sigemptyset(&set);
        for (int signalNumber : kCleanupSignals) {
            sigaddset(&set, signalNumber);
        }
        sigprocmask(SIG_BLOCK, &set, &saved_);
    }
    ~CleanupSignalsBlocked() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }
    CleanupSignalsBlocked(const CleanupSignalsBlocked&) = delete;
    CleanupSignalsBlocked& operator=(const CleanupSignalsBlocked&) = delete;

  private:
    sigset_t saved_;
};

/// Owns a file descriptor.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    /// Closes the descriptor and returns close's result.
    int closeNow() {
        const int result = close(fd_);
        fd_ = -1;
        return result;
    }

  private:
    int fd_;
};

/// "TEXT: REASON", with the reason for the error number `code`.
std::string withReason(const std::string& text, int code) {
    return text + ": " + strerror(code);
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

void installCleanupHandlers() {
    for (int signalNumber : kCleanupSignals) {
        struct sigaction previous;
        if (sigaction(signalNumber, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) {
            continue;
        }
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = removeTempFilesAndReraise;
        sigemptyset(&action.sa_mask);
        for (int other : kCleanupSignals) {
            sigaddset(&action.sa_mask, other);
        }
        sigaction(signalNumber, &action, nullptr);
    }
}

TempFile::~TempFile() {
    remove();
}

void TempFile::remove() {
    if (slot_ < 0) {
        return;
    }
    CleanupSignalsBlocked blocked;
    unlink(gPaths[slot_]);
    gInUse[slot_] = 0;
    slot_ = -1;
    path_.clear();
}

int TempFile::create(std::string& error) {
    remove();
    const char* directory = getenv("TMPDIR");
    if (directory == nullptr || *directory == '\0') {
        directory = "/tmp";
    }
    std::string pattern = directory;
    if (pattern.back() != '/') {
        pattern += '/';
    }
    pattern += "binlog-decode-XXXXXX";
    if (pattern.size() >= PATH_MAX) {
        error = withReason(std::string("cannot create a temporary file in '") + directory + "'",
                           ENAMETOOLONG);
        return -1;
    }
    CleanupSignalsBlocked blocked;
    int slot = 0;
    while (slot < kSlots && gInUse[slot] != 0) {
        ++slot;
    }
    if (slot == kSlots) {
        error = "too many temporary files at once";
        return -1;
    }
    std::memcpy(gPaths[slot], pattern.c_str(), pattern.size() + 1);
    const int fd = mkstemp(gPaths[slot]);
    if (fd < 0) {
        const int code = errno;
        error =
            withReason(std::string("cannot create a temporary file in '") + directory + "'", code);
        return -1;
    }
    gInUse[slot] = 1;
    slot_ = slot;
    path_ = gPaths[slot];
    return fd;
}

bool TempFile::copyFrom(int fd, const std::string& source, std::string& error) {
    Descriptor out(create(error));
    if (out.get() < 0) {
        return false;
    }
    static char buffer[1 << 16];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0) {
            break;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int code = errno;
            error = withReason("cannot read " + source, code);
            remove();
            return false;
        }
        if (!writeAll(out.get(), buffer, static_cast<size_t>(got))) {
            const int code = errno;
            error = withReason("cannot write the temporary file '" + path_ + "'", code);
            remove();
            return false;
        }
    }
    if (out.closeNow() != 0) {
        const int code = errno;
        error = withReason("cannot write the temporary file '" + path_ + "'", code);
        remove();
        return false;
    }
    return true;
}

}  // namespace wexbl_decode
