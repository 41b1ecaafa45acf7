// Reading the log datagrams of an existing capture, to send them again: a
// small reader of pcap (either byte order, micro- or nanosecond time stamps)
// and pcapng (enhanced packet blocks), plain or gzip-compressed, for the
// framings binlog-synth writes. Memory is bounded by the largest record it
// accepts.
#ifndef BINLOG_SYNTH_CAPTURE_INPUT_H
#define BINLOG_SYNTH_CAPTURE_INPUT_H

#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace binlog_synth {

class CaptureInput {
  public:
    /// The largest record (pcap) or block (pcapng) read; a larger one is an
    /// error.
    static constexpr std::uint32_t kMostRecordBytes = 262144;

    enum class Next { Datagram, End, Failed };

    CaptureInput() = default;
    ~CaptureInput();
    CaptureInput(const CaptureInput&) = delete;
    CaptureInput& operator=(const CaptureInput&) = delete;

    /// Opens `path` ("-": standard input) and reads its file header. False
    /// with error() on failure.
    bool open(const std::string& path);
    /// Only UDP datagrams to this destination port (UDP framings); -1: any.
    void setPort(int port) { port_ = port; }

    /// The next log datagram as a sender sends it: the UDP payload of a UDP
    /// framing, or, for link type 150, the sender's record header (the
    /// record's time in microseconds and its two lengths, little-endian)
    /// followed by the record. Records that carry none are skipped.
    Next next(std::string& datagram);

    const std::string& error() const { return error_; }
    std::uint64_t records() const { return records_; }
    std::uint64_t skipped() const { return skipped_; }

  private:
    /// Reads exactly `n` bytes; 0 at the end of the file before any byte,
    /// -1 on a failure or a file that ends within them (error_ set).
    int read(void* into, std::size_t n, const char* what);
    /// The rest of a section header block whose length field is
    /// `lengthBytes`: sets the byte order; `body` from the mark on.
    bool readSection(const unsigned char* lengthBytes, std::string& body);
    bool readPcapNgBlock(std::uint32_t& type, std::string& body, bool& end);
    bool startSection(const std::string& body);
    Next fromRecord(std::uint32_t linkType, std::uint32_t sec, std::uint32_t usec,
                    std::uint32_t captured, std::uint32_t original, std::string& datagram);
    std::uint32_t u32(const unsigned char* p) const;
    std::uint16_t u16(const unsigned char* p) const;

    gzFile gz_ = nullptr;
    std::string name_;
    std::string error_;
    int port_ = -1;
    bool ng_ = false;
    bool big_ = false;
    bool nano_ = false;
    std::uint32_t linkType_ = 0;
    /// pcapng: link type and time stamp units per second of each interface.
    struct Interface {
        std::uint32_t linkType = 0;
        std::uint64_t unitsPerSecond = 1000000;
    };
    std::vector<Interface> interfaces_;
    std::string data_;
    std::uint64_t records_ = 0;
    std::uint64_t skipped_ = 0;
};

/// The UDP payload carried by `data`, a record of link type `linkType`
/// (Ethernet with VLAN tags, Linux cooked v1/v2, raw IP, IPv4, IPv6, BSD
/// loopback): false when it carries no whole UDP datagram to `port` (-1:
/// any), or the link type has no IP in it.
bool udpPayloadOf(std::uint32_t linkType, const std::string& data, int port, std::string& payload);

/// Whether records of the link type can carry log datagrams.
bool linkTypeCarriesLogs(std::uint32_t linkType);

}  // namespace binlog_synth

#endif
