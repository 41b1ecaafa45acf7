// The live UDP sender.
#include "binlog_synth/Sender.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "binlog_synth/Text.h"

namespace binlog_synth {

namespace {

constexpr std::uint64_t kNsPerSecond = 1000000000ULL;
/// A sender later than this behind its schedule starts the schedule again
/// instead of catching up.
constexpr std::uint64_t kMostLagNs = 20000000ULL;  // 20 ms
/// ENOBUFS / EAGAIN: tries, a millisecond apart, before giving up.
constexpr int kBusyTries = 1000;
/// ECONNREFUSED answers in a row before giving up (each one stands for an
/// earlier datagram, so they cannot outnumber the datagrams sent).
constexpr std::uint64_t kMostRefusalsInRow = 100000;

std::uint64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * kNsPerSecond +
           static_cast<std::uint64_t>(now.tv_nsec);
}

struct AddrInfoFree {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

/// A socket descriptor closed when it goes out of scope unless released.
class SocketOwner {
  public:
    explicit SocketOwner(int fd) : fd_(fd) {}
    ~SocketOwner() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    SocketOwner(const SocketOwner&) = delete;
    SocketOwner& operator=(const SocketOwner&) = delete;
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

  private:
    int fd_;
};

}  // namespace

bool parseSendAddress(const std::string& text, std::string& host, std::string& port,
                      std::string& error) {
    std::size_t portAt = 0;
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            error = "an address in brackets is written [ADDRESS]:PORT";
            return false;
        }
        host = text.substr(1, close - 1);
        portAt = close + 2;
    } else {
        const std::size_t colon = text.rfind(':');
        if (colon == std::string::npos) {
            error = "the destination is written HOST:PORT";
            return false;
        }
        host = text.substr(0, colon);
        if (host.find(':') != std::string::npos) {
            error = "an IPv6 address goes in brackets: [ADDRESS]:PORT";
            return false;
        }
        portAt = colon + 1;
    }
    if (host.empty()) {
        error = "the destination has no host";
        return false;
    }
    port = text.substr(portAt);
    std::uint64_t number = 0;
    if (!parseUnsigned(port, 0xFFFF, number) || number == 0) {
        error = "the port must be a number from 1 to 65535, not '" + port + "'";
        return false;
    }
    port = std::to_string(number);
    return true;
}

UdpSender::~UdpSender() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool UdpSender::open(const std::string& host, const std::string& port, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0) {
        error = rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc);
        return false;
    }
    const std::unique_ptr<addrinfo, AddrInfoFree> list(found);
    error = "no usable address";
    for (const addrinfo* a = list.get(); a != nullptr; a = a->ai_next) {
        SocketOwner candidate(socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
        if (candidate.get() < 0) {
            error = std::strerror(errno);
            continue;
        }
        // Connecting checks the route now and lets send() report a refused
        // earlier datagram (which is counted, not fatal).
        if (connect(candidate.get(), a->ai_addr, a->ai_addrlen) != 0) {
            error = std::strerror(errno);
            continue;
        }
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = candidate.release();
        family_ = a->ai_family;
        error.clear();
        batch_.assign(kMaxBatch, std::string());
        return true;
    }
    return false;
}

void UdpSender::setRate(std::uint64_t num, std::uint64_t den) {
    rateNum_ = num;
    rateDen_ = den == 0 ? 1 : den;
    if (rateNum_ == 0) {
        batchLimit_ = kMaxBatch;
        return;
    }
    // Datagrams due within a millisecond, rounded up: rate / 1000.
    const std::uint64_t perMs = (rateNum_ + 1000 * rateDen_ - 1) / (1000 * rateDen_);
    batchLimit_ = perMs < 1 ? 1 : perMs > kMaxBatch ? kMaxBatch : static_cast<std::size_t>(perMs);
}

std::uint64_t UdpSender::dueNs(std::uint64_t index) const {
    const double period = static_cast<double>(kNsPerSecond) * static_cast<double>(rateDen_) /
                          static_cast<double>(rateNum_);
    return baseNs_ + static_cast<std::uint64_t>(static_cast<double>(index - baseIndex_) * period);
}

bool UdpSender::waitFor(std::uint64_t index) {
    const std::uint64_t due = dueNs(index);
    std::uint64_t now = monotonicNs();
    if (now > due + kMostLagNs) {
        baseIndex_ = index;
        baseNs_ = now;
        return !stopped();
    }
    while (now < due && !stopped()) {
        timespec until{};
        until.tv_sec = static_cast<time_t>(due / kNsPerSecond);
        until.tv_nsec = static_cast<long>(due % kNsPerSecond);
        // EINTR (a signal) comes back here to look at the stop flag.
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        now = monotonicNs();
    }
    return !stopped();
}

bool UdpSender::sendDatagram(const std::string& datagram) {
    if (fd_ < 0 || stopped() || !failure_.empty()) {
        return false;
    }
    if (!started_) {
        started_ = true;
        baseIndex_ = 0;
        baseNs_ = monotonicNs();
    }
    batch_[queued_++].assign(datagram);
    ++submitted_;
    return queued_ < batchLimit_ || sendBatch();
}

bool UdpSender::flush() {
    if (fd_ < 0 || !failure_.empty()) {
        return false;
    }
    return sendBatch();
}

bool UdpSender::sendBatch() {
    if (queued_ == 0) {
        return true;
    }
    if (rateNum_ != 0 && !waitFor(submitted_ - 1)) {
        queued_ = 0;
        return false;
    }
    iovec vectors[kMaxBatch];
    mmsghdr messages[kMaxBatch];
    memset(messages, 0, sizeof messages);
    for (std::size_t i = 0; i < queued_; ++i) {
        vectors[i].iov_base = &batch_[i][0];
        vectors[i].iov_len = batch_[i].size();
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    std::size_t done = 0;
    int busy = 0;
    std::uint64_t refusedInRow = 0;
    while (done < queued_) {
        if (stopped()) {
            queued_ = 0;
            return false;
        }
        const int n = sendmmsg(fd_, messages + done, static_cast<unsigned>(queued_ - done), 0);
        if (n > 0) {
            const std::uint64_t now = monotonicNs();
            if (sent_ == 0) {
                firstNs_ = now;
            }
            lastNs_ = now;
            done += static_cast<std::size_t>(n);
            sent_ += static_cast<std::uint64_t>(n);
            busy = 0;
            refusedInRow = 0;
            continue;
        }
        const int why = n == 0 ? EAGAIN : errno;
        if (why == EINTR) {
            continue;
        }
        if (why == ECONNREFUSED && ++refusedInRow <= kMostRefusalsInRow) {
            // An earlier datagram found no listener; this one was not sent
            // and is tried again.
            ++refused_;
            continue;
        }
        if ((why == ENOBUFS || why == EAGAIN || why == EWOULDBLOCK) && ++busy <= kBusyTries) {
            const timespec pause{0, 1000000L};
            nanosleep(&pause, nullptr);
            continue;
        }
        failure_ = std::strerror(why);
        queued_ = 0;
        return false;
    }
    queued_ = 0;
    return true;
}

SendSummary UdpSender::summary() const {
    SendSummary s;
    s.sent = sent_;
    s.refused = refused_;
    s.seconds = sent_ > 1 ? static_cast<double>(lastNs_ - firstNs_) / 1e9 : 0.0;
    return s;
}

}  // namespace binlog_synth
