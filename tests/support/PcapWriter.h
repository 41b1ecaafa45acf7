// Builds binary log capture files in memory and writes them, plain or
// gzip-compressed, for the tests.
//
// Three layers, each usable on its own:
//   - ByteBuilder: little-endian field appenders for log payloads (integers,
//     NUL-padded strings, var binary strings, raw bytes);
//   - record helpers: the 16-byte BinLogHeader and PcapRecHeader encodings, a
//     log record (BinLogHeader + payload), and the Ethernet/IPv4/IPv6/UDP frame
//     that carries a log record behind the sender's embedded record header;
//   - PcapWriter: a whole capture file (global header, record headers, record
//     data), with escape hatches for broken files: no or short global header,
//     any link type, record lengths that do not match the data, raw bytes.
#ifndef WEXBL_TEST_PCAP_WRITER_H
#define WEXBL_TEST_PCAP_WRITER_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>

#include "BinLogRecordHeaders.h"

namespace wexbl_test {

/// Appends fields to a byte string; every integer is little-endian unless the
/// appender says otherwise. Bytes are held in a std::string (binary-safe).
class ByteBuilder {
  public:
    ByteBuilder() = default;
    explicit ByteBuilder(std::string initial) : data_(std::move(initial)) {}

    ByteBuilder& u8(std::uint8_t v);
    ByteBuilder& u16(std::uint16_t v);
    ByteBuilder& u32(std::uint32_t v);
    ByteBuilder& u64(std::uint64_t v);
    ByteBuilder& i8(std::int8_t v) { return u8(static_cast<std::uint8_t>(v)); }
    ByteBuilder& i16(std::int16_t v) { return u16(static_cast<std::uint16_t>(v)); }
    ByteBuilder& i32(std::int32_t v) { return u32(static_cast<std::uint32_t>(v)); }
    ByteBuilder& i64(std::int64_t v) { return u64(static_cast<std::uint64_t>(v)); }
    /// Big-endian (network order) fields, for the IP and UDP headers.
    ByteBuilder& be16(std::uint16_t v);
    ByteBuilder& be32(std::uint32_t v);
    /// `text` cut or padded with NUL bytes to exactly `size` bytes.
    ByteBuilder& fixedString(const std::string& text, std::size_t size);
    /// A var binary string: its unsigned 16 byte count, then the bytes.
    ByteBuilder& varBinary(const std::string& bytes);
    /// A var binary string whose count says `count`, whatever bytes follow
    /// (for counts that disagree with the declaration or the data).
    ByteBuilder& varBinary(std::uint16_t count, const std::string& bytes);
    ByteBuilder& bytes(const std::string& raw);
    ByteBuilder& bytes(std::initializer_list<std::uint8_t> raw);
    /// `n` copies of `byte`.
    ByteBuilder& fill(std::size_t n, std::uint8_t byte);
    ByteBuilder& zeros(std::size_t n) { return fill(n, 0); }

    const std::string& str() const { return data_; }
    std::size_t size() const { return data_.size(); }

  private:
    std::string data_;
};

/// Standard pcap link types used by the captures.
constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;

/// Offsets inside an Ethernet frame that carries a log record over UDP.
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kIpv4ProtocolOffset = 23;
constexpr std::size_t kIpv4UdpDstPortOffset = 36;
constexpr std::size_t kIpv4UdpPayloadOffset = 42;
constexpr std::size_t kIpv6NextHeaderOffset = 20;
constexpr std::size_t kIpv6UdpDstPortOffset = 56;
constexpr std::size_t kIpv6UdpPayloadOffset = 62;
constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr std::uint16_t kEtherTypeArp = 0x0806;
constexpr std::uint8_t kProtocolTcp = 6;
constexpr std::uint8_t kProtocolUdp = 17;

/// A BinLogHeader from its five fields.
Tav::BinLogHeader makeBinLogHeader(std::uint32_t packetType, std::uint32_t logId,
                                   std::uint16_t logLevel, std::uint16_t logVersion,
                                   std::uint32_t seqNo);

/// The 16-byte encodings of the two record headers.
std::string encodeBinLogHeader(const Tav::BinLogHeader& header);
std::string encodePcapRecHeader(const Tav::PcapRecHeader& header);
/// The standard 24-byte pcap global header (microsecond magic, version 2.4).
std::string encodeGlobalHeader(std::uint32_t linkType, std::uint32_t snapLength = 65535);

/// A log record: the 16-byte BinLogHeader followed by the payload bytes.
std::string makeLogRecord(const Tav::BinLogHeader& header, const std::string& payload);

/// How an Ethernet frame carries its UDP payload.
enum class IpVersion { V4, V6 };
struct UdpFraming {
    IpVersion ip = IpVersion::V4;
    std::uint16_t dstPort = 0;
    std::uint16_t srcPort = 50000;
    /// The transport protocol byte (IPv4 protocol, IPv6 next header).
    std::uint8_t protocol = kProtocolUdp;
    /// 0: the EtherType that matches `ip`; anything else is written as given.
    std::uint16_t etherType = 0;
};

/// The record header a sender puts in front of a log record inside its UDP
/// datagram: its own time stamp and both lengths equal to the record's size.
Tav::PcapRecHeader makeSenderHeader(std::uint32_t tsSec, std::uint32_t tsUsec,
                                    const std::string& logRecord);

/// An Ethernet frame with an IPv4 or IPv6 header (no options, no extension
/// headers, no VLAN tag) and a UDP header in front of `udpPayload`; lengths and
/// checksums are filled in. The UDP header is written whatever `protocol` says.
std::string makeEthernetFrame(const UdpFraming& framing, const std::string& udpPayload);

/// The frame that carries `logRecord` behind the sender's embedded header.
std::string makeEthernetLogFrame(const UdpFraming& framing, const Tav::PcapRecHeader& sender,
                                 const std::string& logRecord);

/// A capture file built in memory.
class PcapWriter {
  public:
    /// A capture that starts with the standard global header of `linkType`.
    /// Ethernet captures frame their log records with `framing`.
    explicit PcapWriter(std::uint32_t linkType = kLinkTypeBinLog, UdpFraming framing = {});

    /// A file without any global header: build it with raw().
    static PcapWriter headerless();

    std::uint32_t linkType() const { return linkType_; }
    const UdpFraming& framing() const { return framing_; }
    PcapWriter& setFraming(const UdpFraming& framing);

    /// A record header whose two length fields hold data.size(), then data.
    PcapWriter& record(std::uint32_t tsSec, std::uint32_t tsUsec, const std::string& data);
    /// The record header exactly as given (its lengths need not match the
    /// data), then data.
    PcapWriter& record(const Tav::PcapRecHeader& header, const std::string& data);

    /// A log record framed for the capture's link type. Link type 1: the frame
    /// uses framing(), and the sender's embedded header and the file's record
    /// header both carry the given time.
    PcapWriter& log(std::uint32_t tsSec, std::uint32_t tsUsec, const Tav::BinLogHeader& header,
                    const std::string& payload);
    /// An Ethernet record with separate times: the file's record header gets
    /// (captureSec, captureUsec), the sender's embedded header `sender`.
    PcapWriter& ethernetLog(std::uint32_t captureSec, std::uint32_t captureUsec,
                            const UdpFraming& framing, const Tav::PcapRecHeader& sender,
                            const std::string& logRecord);

    /// Appends bytes as they are (truncated headers, cut records, junk).
    PcapWriter& raw(const std::string& bytes);

    const std::string& bytes() const { return bytes_; }

    /// Writes the bytes uncompressed; false on any failure.
    bool writePlain(const std::string& path) const;
    /// Writes the bytes gzip-compressed; false on any failure.
    bool writeGzip(const std::string& path) const;
    /// Gzip when `path` ends in ".gz", plain otherwise.
    bool write(const std::string& path) const;

  private:
    struct Headerless {};
    explicit PcapWriter(Headerless) : linkType_(0) {}

    std::uint32_t linkType_;
    UdpFraming framing_;
    std::string bytes_;
};

}  // namespace wexbl_test

#endif
