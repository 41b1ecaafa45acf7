#include "Listen.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "../common/CliMessage.h"
#include "LiveCapture.h"
#include "WexOamBinLogXmlReader/DatagramStream.h"
#include "WexOamBinLogXmlReader/Filter.h"

namespace wexbl_decode {

namespace {

using wexbl_cli::kExitFailure;
using wexbl_cli::kExitOk;
using wexbl_cli::message;

/// Datagrams taken from the socket per system call.
constexpr unsigned kBatch = 64;
/// One byte more than the longest datagram decoded: a longer one shows as
/// such even where the kernel does not tell its real length.
constexpr std::size_t kSlotBytes = Tav::DatagramStream::kMaxDatagramBytes + 1;
/// Room for the receive time, the drop counter and the destination address.
constexpr std::size_t kControlBytes = 256;
/// The longest wait for a datagram before the held messages and the
/// capture are looked at again (a signal ends a wait at once).
constexpr int kWaitMs = 200;
/// The receive buffer asked for without --buffer-size.
constexpr int kDefaultBufferBytes = 16 << 20;
/// The summary's keys of records that are counted by kind, not module.
constexpr std::uint32_t kOtherKinds = 0x10000;

double monotonicSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// A socket descriptor and its one owner.
class Socket {
  public:
    Socket() = default;
    ~Socket() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    void reset(int fd) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }
    int get() const { return fd_; }

  private:
    int fd_ = -1;
};

void enable(int fd, int level, int option) {
    const int on = 1;
    setsockopt(fd, level, option, &on, sizeof on);
}

/// Binds the socket that --listen names; false with `error` set.
bool bindSocket(const Options& options, Socket& socket, bool& ipv6, std::string& error) {
    const std::string& address = options.listenAddress;
    const std::uint16_t port = options.listenPort;
    auto tryBind = [&](int family, const void* bytes) {
        socket.reset(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (socket.get() < 0) {
            return false;
        }
        if (family == AF_INET6) {
            // Both IPv6 and IPv4 (as mapped addresses) when no address is
            // given.
            const int only = address.empty() ? 0 : 1;
            setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
            struct sockaddr_in6 where;
            std::memset(&where, 0, sizeof where);
            where.sin6_family = AF_INET6;
            where.sin6_port = htons(port);
            std::memcpy(&where.sin6_addr, bytes, 16);
            return bind(socket.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
        }
        struct sockaddr_in where;
        std::memset(&where, 0, sizeof where);
        where.sin_family = AF_INET;
        where.sin_port = htons(port);
        std::memcpy(&where.sin_addr, bytes, 4);
        return bind(socket.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
    };
    unsigned char bytes[16] = {};
    bool bound = false;
    if (address.empty()) {
        ipv6 = true;
        bound = tryBind(AF_INET6, bytes);
        if (!bound && (errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL)) {
            // No IPv6 on this system: IPv4 alone.
            ipv6 = false;
            bound = tryBind(AF_INET, bytes);
        }
    } else if (inet_pton(AF_INET6, address.c_str(), bytes) == 1) {
        ipv6 = true;
        bound = tryBind(AF_INET6, bytes);
    } else if (inet_pton(AF_INET, address.c_str(), bytes) == 1) {
        ipv6 = false;
        bound = tryBind(AF_INET, bytes);
    } else {
        errno = EINVAL;
    }
    if (!bound) {
        const std::string shown = address.empty()                          ? std::string()
                                  : address.find(':') != std::string::npos ? "[" + address + "]:"
                                                                           : address + ":";
        error = "cannot listen on " + shown + std::to_string(port) + ": " + strerror(errno);
        return false;
    }
    // A receive that waits returns after this long without a datagram (a
    // signal ends it at once), for the rate-limited messages and the
    // capture's flushing.
    struct timeval timeout = {0, kWaitMs * 1000};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    enable(socket.get(), SOL_SOCKET, SO_TIMESTAMP);
    enable(socket.get(), SOL_SOCKET, SO_RXQ_OVFL);
    enable(socket.get(), IPPROTO_IP, IP_PKTINFO);
    if (ipv6) {
        enable(socket.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO);
    }
    return true;
}

/// The datagrams the kernel dropped at the socket with inode `inode`, as
/// /proc/net/udp and udp6 tell (the last column); false when neither does.
/// The counter that comes with each datagram (SO_RXQ_OVFL) is that at the
/// time it was queued: drops after the last datagram show only here.
bool procDrops(ino_t inode, std::uint32_t& drops) {
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(table, "re"), fclose);
        if (!file) {
            continue;
        }
        char line[512];
        if (fgets(line, sizeof line, file.get()) == nullptr) {
            continue;  // the heading
        }
        while (fgets(line, sizeof line, file.get()) != nullptr) {
            // sl local remote st queues tr:when retrnsmt uid timeout inode
            // ref pointer drops
            std::vector<std::string> words;
            char* rest = line;
            while (char* word = strtok_r(rest, " \t\n", &rest)) {
                words.emplace_back(word);
            }
            if (words.size() >= 13 && words[9] == std::to_string(inode)) {
                drops = static_cast<std::uint32_t>(strtoull(words[12].c_str(), nullptr, 10));
                return true;
            }
        }
    }
    return false;
}

/// What the summary counts per module.
struct ModuleCounts {
    std::uint64_t records = 0;
    std::uint64_t missing = 0;
    std::uint64_t reorders = 0;
};

class Listener {
  public:
    Listener(const Tav::BinaryLogXmlReader& reader, const Options& options,
             const Tav::Filter* filter, Output& out, Writer& writer, Diagnostics& diagnostics,
             ListenSignals signals)
        : options_(options),
          out_(out),
          writer_(writer),
          diagnostics_(diagnostics),
          signals_(signals),
          name_("udp:" + std::to_string(options.listenPort)),
          stream_(reader, name_, streamOptions(options, filter)) {}

    int run();

  private:
    static Tav::StreamOptions streamOptions(const Options& options, const Tav::Filter* filter) {
        Tav::StreamOptions stream;
        stream.maxVarBinaryBytes = static_cast<std::uint16_t>(options.maxVarBytes);
        // The gaps and reorders are always tracked, for the summary; they
        // are shown only with --stats.
        stream.stats = true;
        stream.utcOffsetMinutes = static_cast<int>(options.utcOffset);
        stream.texts = options.format != Format::Text || !options.tally ||
                       (filter != nullptr && filter->usesValues());
        stream.values = options.format != Format::Text;
        stream.filter = filter;
        return stream;
    }

    bool limitReached() const { return options_.count != 0 && records_ >= options_.count; }
    void receive(const mmsghdr& message, unsigned char* data);
    void handleItems();
    void malformed(const ReceivedDatagram& datagram, std::size_t size, bool tooShort);
    void reportMalformed(bool atEnd);
    void printSummary();
    void flushLines() {
        if (options_.lineBuffered) {
            out_.flush();
        }
    }

    const Options& options_;
    Output& out_;
    Writer& writer_;
    Diagnostics& diagnostics_;
    ListenSignals signals_;
    std::string name_;
    Tav::DatagramStream stream_;
    std::unique_ptr<LiveCapture> capture_;
    bool captureFailed_ = false;
    bool ipv6_ = false;
    int socketFd_ = -1;
    /// The bound address, for captures where the kernel does not tell the
    /// destination of a datagram.
    std::array<std::uint8_t, 16> boundAddress_{};

    std::uint64_t records_ = 0;
    std::uint64_t tooShort_ = 0;
    std::uint64_t tooLong_ = 0;
    std::uint32_t kernelDrops_ = 0;
    /// Malformed datagrams not reported one by one yet, and when the last
    /// report went out.
    std::uint64_t heldShort_ = 0;
    std::uint64_t heldLong_ = 0;
    double lastMalformedReport_ = 0;
    bool malformedReported_ = false;
    /// Per module key (syslog and capture records: kOtherKinds + kind).
    std::map<std::uint32_t, ModuleCounts> modules_;
    std::unordered_map<std::uint32_t, std::string> moduleNames_;
};

void Listener::handleItems() {
    // A datagram is one record: the gaps and reorders its events tell are
    // that record's module's (a syslog record's are counted with syslog).
    std::uint64_t missing = 0;
    std::uint64_t reorders = 0;
    std::uint32_t eventModule = 0;
    bool counted = false;
    while (stream_.next()) {
        if (const Tav::Record* record = stream_.record()) {
            writer_.record(*record);
            ++records_;
            std::uint32_t key = record->moduleKey;
            if (record->kind == Tav::RecordKind::Syslog ||
                record->kind == Tav::RecordKind::Capture) {
                key = kOtherKinds + static_cast<std::uint32_t>(record->kind);
            } else if (!record->module.empty() && moduleNames_.count(key) == 0) {
                moduleNames_[key] =
                    std::string(record->subsystem) + ":" + std::string(record->module);
            }
            ModuleCounts& counts = modules_[key];
            ++counts.records;
            counts.missing += missing;
            counts.reorders += reorders;
            counted = true;
            if (limitReached()) {
                return;
            }
            continue;
        }
        const Tav::Event& event = *stream_.event();
        if (event.kind == Tav::EventKind::Gap || event.kind == Tav::EventKind::Reorder) {
            eventModule = event.module;
            if (event.kind == Tav::EventKind::Gap) {
                missing += static_cast<std::uint32_t>(event.missing);
            } else {
                ++reorders;
            }
            if (!options_.stats) {
                continue;
            }
        }
        if (event.kind == Tav::EventKind::Summary && !options_.stats) {
            continue;
        }
        if (event.stream == Tav::EventStream::Output) {
            writer_.outputEvent(event);
            continue;
        }
        if (event.kind == Tav::EventKind::UnknownLogId && options_.unknownHex) {
            writer_.unknownRecord(event);
        } else {
            diagnostics_.report(event);
        }
        writer_.errorEvent(event);
    }
    if (!counted && missing + reorders != 0) {
        // The record was not printed (filtered out, or not decoded).
        ModuleCounts& counts = modules_[eventModule];
        counts.missing += missing;
        counts.reorders += reorders;
    }
}

std::string addressText(const ReceivedDatagram& datagram) {
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(datagram.ipv4 ? AF_INET : AF_INET6, datagram.source.data(), text, sizeof text);
    return datagram.ipv4 ? std::string(text) + ":" + std::to_string(datagram.sourcePort)
                         : "[" + std::string(text) + "]:" + std::to_string(datagram.sourcePort);
}

void Listener::malformed(const ReceivedDatagram& datagram, std::size_t size, bool tooShort) {
    (tooShort ? tooShort_ : tooLong_) += 1;
    if (!malformedReported_) {
        // The first one is told in full; the others at most once a second.
        malformedReported_ = true;
        lastMalformedReport_ = monotonicSeconds();
        out_.flush();
        message(
            "%s: datagram %llu from %s is too %s (%zu bytes; a record takes %zu to %zu): "
            "not decoded",
            name_.c_str(), static_cast<unsigned long long>(stream_.datagrams()),
            addressText(datagram).c_str(), tooShort ? "short" : "long", size,
            Tav::DatagramStream::kMinDatagramBytes, Tav::DatagramStream::kMaxDatagramBytes);
        return;
    }
    (tooShort ? heldShort_ : heldLong_) += 1;
    reportMalformed(false);
}

void Listener::reportMalformed(bool atEnd) {
    if (heldShort_ + heldLong_ == 0) {
        return;
    }
    const double now = monotonicSeconds();
    if (!atEnd && now - lastMalformedReport_ < 1.0) {
        return;
    }
    lastMalformedReport_ = now;
    out_.flush();
    const std::uint64_t held = heldShort_ + heldLong_;
    message("%s: %llu more malformed %s (%llu too short, %llu too long): not decoded",
            name_.c_str(), static_cast<unsigned long long>(held),
            held == 1 ? "datagram" : "datagrams", static_cast<unsigned long long>(heldShort_),
            static_cast<unsigned long long>(heldLong_));
    heldShort_ = 0;
    heldLong_ = 0;
}

void Listener::printSummary() {
    out_.flush();
    struct stat info;
    std::uint32_t drops = 0;
    if (socketFd_ >= 0 && fstat(socketFd_, &info) == 0 && procDrops(info.st_ino, drops)) {
        kernelDrops_ = std::max(kernelDrops_, drops);
    }
    message(
        "%s: %llu datagrams received, %llu malformed (%llu too short, %llu too long), %lu "
        "dropped by the kernel, %llu records",
        name_.c_str(), static_cast<unsigned long long>(stream_.datagrams()),
        static_cast<unsigned long long>(tooShort_ + tooLong_),
        static_cast<unsigned long long>(tooShort_), static_cast<unsigned long long>(tooLong_),
        static_cast<unsigned long>(kernelDrops_), static_cast<unsigned long long>(records_));
    std::vector<std::pair<std::string, const ModuleCounts*>> lines;
    for (const auto& [key, counts] : modules_) {
        std::string label;
        if (key == kOtherKinds + static_cast<std::uint32_t>(Tav::RecordKind::Syslog)) {
            label = "(syslog)";
        } else if (key == kOtherKinds + static_cast<std::uint32_t>(Tav::RecordKind::Capture)) {
            label = "(capture)";
        } else if (moduleNames_.count(key) != 0) {
            label = moduleNames_[key];
        } else {
            char hex[16];
            snprintf(hex, sizeof hex, "0x%04x", static_cast<unsigned>(key));
            label = hex;
        }
        lines.emplace_back(label, &counts);
    }
    std::sort(lines.begin(), lines.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [label, counts] : lines) {
        message("%s: module %s: %llu records, %llu missing, %llu reordered", name_.c_str(),
                label.c_str(), static_cast<unsigned long long>(counts->records),
                static_cast<unsigned long long>(counts->missing),
                static_cast<unsigned long long>(counts->reorders));
    }
    fflush(stderr);
}

void Listener::receive(const mmsghdr& received, unsigned char* data) {
    const msghdr& header = received.msg_hdr;
    ReceivedDatagram datagram;
    datagram.data = data;
    datagram.destinationPort = options_.listenPort;
    datagram.destination = boundAddress_;
    bool haveTime = false;
    bool haveDestination4 = false;
    for (cmsghdr* c = CMSG_FIRSTHDR(const_cast<msghdr*>(&header)); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&header), c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMP) {
            struct timeval when;
            std::memcpy(&when, CMSG_DATA(c), sizeof when);
            datagram.seconds = static_cast<std::uint32_t>(when.tv_sec);
            datagram.microseconds = static_cast<std::uint32_t>(when.tv_usec);
            haveTime = true;
        } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
            std::uint32_t drops = 0;
            std::memcpy(&drops, CMSG_DATA(c), sizeof drops);
            kernelDrops_ = std::max(kernelDrops_, drops);
        } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            struct in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            std::memcpy(datagram.destination.data(), &info.ipi_addr, 4);
            haveDestination4 = true;
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            struct in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            std::memcpy(datagram.destination.data(), &info.ipi6_addr, 16);
        }
    }
    if (!haveTime) {
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        datagram.seconds = static_cast<std::uint32_t>(now.tv_sec);
        datagram.microseconds = static_cast<std::uint32_t>(now.tv_nsec / 1000);
    }
    const sockaddr* from = static_cast<const sockaddr*>(header.msg_name);
    if (from->sa_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(from);
        datagram.ipv4 = true;
        std::memcpy(datagram.source.data(), &in->sin_addr, 4);
        datagram.sourcePort = ntohs(in->sin_port);
        if (!haveDestination4 && ipv6_) {
            datagram.destination = {};
        }
    } else {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(from);
        datagram.sourcePort = ntohs(in6->sin6_port);
        if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr)) {
            // An IPv4 sender on the socket of both: framed as IPv4.
            datagram.ipv4 = true;
            std::memcpy(datagram.source.data(), in6->sin6_addr.s6_addr + 12, 4);
            if (!haveDestination4) {
                std::array<std::uint8_t, 16> mapped = datagram.destination;
                datagram.destination = {};
                if (IN6_IS_ADDR_V4MAPPED(reinterpret_cast<const in6_addr*>(mapped.data()))) {
                    std::memcpy(datagram.destination.data(), mapped.data() + 12, 4);
                }
            }
        } else {
            datagram.ipv4 = false;
            std::memcpy(datagram.source.data(), &in6->sin6_addr, 16);
        }
    }
    // With MSG_TRUNC the kernel tells a longer datagram's real length.
    const std::size_t length = received.msg_len;
    const std::size_t size = std::min(length, kSlotBytes);
    datagram.size = size;
    switch (stream_.push(data, size)) {
        case Tav::DatagramStream::Result::TooShort:
            malformed(datagram, length, true);
            return;
        case Tav::DatagramStream::Result::TooLong:
            malformed(datagram, length, false);
            return;
        case Tav::DatagramStream::Result::Decoded:
            break;
    }
    if (capture_ && !captureFailed_) {
        std::string error;
        if (!capture_->write(datagram, error)) {
            out_.flush();
            message("%s", error.c_str());
            captureFailed_ = true;
        }
    }
    handleItems();
}

int Listener::run() {
    Socket socket;
    std::string error;
    if (!bindSocket(options_, socket, ipv6_, error)) {
        message("%s", error.c_str());
        return kExitFailure;
    }
    socketFd_ = socket.get();
    if (!options_.listenAddress.empty()) {
        inet_pton(ipv6_ ? AF_INET6 : AF_INET, options_.listenAddress.c_str(), boundAddress_.data());
    }
    {
        // Without --buffer-size a buffer for some milliseconds of a fast
        // sender, as far as the system's limit allows (net.core.rmem_max).
        const bool given = options_.bufferSize != 0;
        const int asked = given ? static_cast<int>(options_.bufferSize) : kDefaultBufferBytes;
        // The forcing variant passes over the system's limit where the
        // program may (CAP_NET_ADMIN); the other is capped by it.
        const bool forced = given && setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &asked,
                                                sizeof asked) == 0;
        if (!forced) {
            setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &asked, sizeof asked);
        }
        int granted = 0;
        socklen_t length = sizeof granted;
        getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &granted, &length);
        if (options_.verbose) {
            message("%s: receive buffer: %d bytes asked (%s), %d granted by the kernel",
                    name_.c_str(), asked, forced ? "SO_RCVBUFFORCE" : "SO_RCVBUF", granted);
        }
    }
    if (options_.writePath != nullptr) {
        capture_ = std::make_unique<LiveCapture>(options_.writePath, options_.rotateBytes,
                                                 options_.rotateSeconds);
        if (!capture_->open(error)) {
            message("%s", error.c_str());
            return kExitFailure;
        }
    }
    if (options_.verbose) {
        message("%s: listening", name_.c_str());
    }
    diagnostics_.startCapture(name_);

    std::vector<unsigned char> buffers(kBatch * kSlotBytes);
    std::vector<sockaddr_storage> addresses(kBatch);
    std::vector<std::array<char, kControlBytes>> controls(kBatch);
    std::vector<iovec> vectors(kBatch);
    std::vector<mmsghdr> messages(kBatch);
    int status = kExitOk;
    // After a batch that emptied the socket, the next receive waits for a
    // datagram (at most kWaitMs: the receive time-out).
    bool block = false;
    while (!signals_.stop.load() && !limitReached() && !captureFailed_) {
        if (signals_.summary.exchange(false)) {
            printSummary();
        }
        for (unsigned i = 0; i < kBatch; ++i) {
            vectors[i].iov_base = buffers.data() + i * kSlotBytes;
            vectors[i].iov_len = kSlotBytes;
            std::memset(&messages[i], 0, sizeof messages[i]);
            messages[i].msg_hdr.msg_name = &addresses[i];
            messages[i].msg_hdr.msg_namelen = sizeof addresses[i];
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_control = controls[i].data();
            messages[i].msg_hdr.msg_controllen = kControlBytes;
        }
        const int got = recvmmsg(socket.get(), messages.data(), kBatch,
                                 MSG_TRUNC | (block ? MSG_WAITFORONE : MSG_DONTWAIT), nullptr);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                out_.flush();
                message("%s: cannot receive: %s", name_.c_str(), strerror(errno));
                status = kExitFailure;
                break;
            }
            // Nothing there (or nothing came while waiting): everything
            // decoded goes out before the next wait.
            flushLines();
            reportMalformed(false);
            if (capture_ && !captureFailed_ && !capture_->idle(error)) {
                message("%s", error.c_str());
                captureFailed_ = true;
                break;
            }
            block = true;
            continue;
        }
        block = static_cast<unsigned>(got) < kBatch;
        for (int i = 0; i < got && !limitReached(); ++i) {
            receive(messages[static_cast<std::size_t>(i)],
                    buffers.data() + static_cast<std::size_t>(i) * kSlotBytes);
        }
        flushLines();
        if (!out_.good()) {
            break;
        }
    }
    // The end: the line being written is finished (no record is cut), then
    // the statistics, the summary and the capture.
    if (options_.stats) {
        out_.write(stream_.statisticsSoFar());
    }
    out_.flush();
    reportMalformed(true);
    diagnostics_.endCapture();
    printSummary();
    socketFd_ = -1;
    if (capture_ && !capture_->close(error)) {
        message("%s", error.c_str());
        status = kExitFailure;
    }
    if (captureFailed_) {
        status = kExitFailure;
    }
    return status;
}

}  // namespace

int listen(const Tav::BinaryLogXmlReader& reader, const Options& options, const Tav::Filter* filter,
           Output& out, Writer& writer, Diagnostics& diagnostics, ListenSignals signals) {
    Listener listener(reader, options, filter, out, writer, diagnostics, signals);
    return listener.run();
}

}  // namespace wexbl_decode
