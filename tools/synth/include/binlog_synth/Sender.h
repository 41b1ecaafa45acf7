// Sending log records live: one UDP datagram per record, paced to a rate
// with a monotonic clock and handed to the kernel in batches (sendmmsg).
#ifndef BINLOG_SYNTH_SENDER_H
#define BINLOG_SYNTH_SENDER_H

#include <sys/socket.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "binlog_synth/Capture.h"

namespace binlog_synth {

/// HOST:PORT of --send: "127.0.0.1:5000", "[::1]:5000" or "name:5000". The
/// host is returned without brackets. False with `error` when the text is
/// not of that form or the port is not 1 to 65535.
bool parseSendAddress(const std::string& text, std::string& host, std::string& port,
                      std::string& error);

/// What a sender did.
struct SendSummary {
    std::uint64_t sent = 0;
    /// Send calls refused because an earlier datagram found no listener
    /// (ICMP port unreachable); sending went on.
    std::uint64_t refused = 0;
    /// Seconds from the first datagram to the last.
    double seconds = 0;
};

/// A connected UDP socket that sends datagrams at a steady rate.
///
/// Datagram i (from 0) is due at start + i / rate. Datagrams are collected
/// into a batch of at most the number due within about a millisecond (at
/// least 1, at most kMaxBatch); a full batch is sent with one sendmmsg call
/// once its last datagram is due. Rate 0 sends full batches as fast as the
/// kernel takes them. A sender that fell behind by more than a few batches
/// (a slow machine) does not catch up with a burst: its schedule restarts.
class UdpSender : public DatagramSink {
  public:
    static constexpr std::size_t kMaxBatch = 64;

    UdpSender() = default;
    ~UdpSender() override;
    UdpSender(const UdpSender&) = delete;
    UdpSender& operator=(const UdpSender&) = delete;

    /// Resolves `host` (getaddrinfo; the first address a socket can be
    /// connected to is used) and connects a UDP socket to it. False with
    /// `error` (the reason only) on failure.
    bool open(const std::string& host, const std::string& port, std::string& error);
    /// Datagrams per second as the fraction num / den; num 0: no pacing.
    void setRate(std::uint64_t num, std::uint64_t den);
    /// A flag (set by a signal handler) that stops the sending when set.
    void setStopFlag(const volatile std::sig_atomic_t* stop) { stop_ = stop; }
    /// The address family connected to (AF_INET or AF_INET6).
    int family() const { return family_; }

    /// Queues one datagram; sends the batch when it is full.
    bool sendDatagram(const std::string& datagram) override;
    /// Sends what is still queued.
    bool flush();

    /// Why sending failed (the reason only), empty when it did not.
    const std::string& failure() const { return failure_; }
    bool stopped() const { return stop_ != nullptr && *stop_ != 0; }
    SendSummary summary() const;

  private:
    bool sendBatch();
    /// Waits until datagram `index` is due; false when stopped.
    bool waitFor(std::uint64_t index);
    std::uint64_t dueNs(std::uint64_t index) const;

    int fd_ = -1;
    int family_ = 0;
    std::uint64_t rateNum_ = 1000;
    std::uint64_t rateDen_ = 1;
    std::size_t batchLimit_ = 1;
    const volatile std::sig_atomic_t* stop_ = nullptr;
    std::vector<std::string> batch_;
    std::size_t queued_ = 0;
    /// Datagrams handed to the batch so far (the index of the next one).
    std::uint64_t submitted_ = 0;
    /// The schedule: datagram `baseIndex_` is due at `baseNs_`.
    std::uint64_t baseIndex_ = 0;
    std::uint64_t baseNs_ = 0;
    bool started_ = false;
    std::uint64_t firstNs_ = 0;
    std::uint64_t lastNs_ = 0;
    std::uint64_t sent_ = 0;
    std::uint64_t refused_ = 0;
    std::string failure_;
};

}  // namespace binlog_synth

#endif
