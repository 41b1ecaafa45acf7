// Writing capture files: the file header (pcap in either byte order, with
// microsecond or nanosecond time stamps, or pcapng), record headers, the
// framings of a log record (link type 150, or a UDP datagram over IPv4 or
// IPv6 behind Ethernet with or without VLAN tags, a Linux cooked header,
// nothing (raw IP) or a BSD loopback header), and a buffered output that is
// plain, gzip-compressed or in memory.
//
// The byte layouts are written out here from the capture formats themselves;
// only the constants of capture/Framing.h (link types, EtherTypes, the
// fixed offsets, the record limit) are shared with the decoding library.
#ifndef BINLOG_SYNTH_CAPTURE_H
#define BINLOG_SYNTH_CAPTURE_H

#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "binlog_synth/Bytes.h"
#include "capture/Framing.h"

namespace binlog_synth {

constexpr std::uint32_t kLinkTypeNull = Tav::capture::kLinkNull;
constexpr std::uint32_t kLinkTypeEthernet = Tav::capture::kLinkEthernet;
constexpr std::uint32_t kLinkTypeRaw = Tav::capture::kLinkRaw;
constexpr std::uint32_t kLinkTypeLinuxSll = Tav::capture::kLinkLinuxSll;
constexpr std::uint32_t kLinkTypeBinLog = Tav::capture::kLinkBinLog;
constexpr std::uint32_t kLinkTypeIpv4 = Tav::capture::kLinkIpv4;
constexpr std::uint32_t kLinkTypeIpv6 = Tav::capture::kLinkIpv6;
constexpr std::uint32_t kLinkTypeLinuxSll2 = Tav::capture::kLinkLinuxSll2;

/// Offsets from the start of an Ethernet record's data (no VLAN tag, no IPv4
/// options).
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kIpv4ProtocolOffset = Tav::capture::kFixedIpv4.protocolOffset;
constexpr std::size_t kIpv4UdpDstPortOffset = Tav::capture::kFixedIpv4.destPortOffset;
constexpr std::size_t kIpv4UdpPayloadOffset = Tav::capture::kFixedIpv4.udpPayloadOffset;
constexpr std::size_t kIpv6NextHeaderOffset = Tav::capture::kFixedIpv6.protocolOffset;
constexpr std::size_t kIpv6UdpDstPortOffset = Tav::capture::kFixedIpv6.destPortOffset;
constexpr std::size_t kIpv6UdpPayloadOffset = Tav::capture::kFixedIpv6.udpPayloadOffset;
constexpr std::uint16_t kEtherTypeIpv4 = Tav::capture::kEtherTypeIpv4;
constexpr std::uint16_t kEtherTypeIpv6 = Tav::capture::kEtherTypeIpv6;
constexpr std::uint16_t kEtherTypeVlan = Tav::capture::kEtherTypeVlan;
constexpr std::uint16_t kEtherTypeQinQ = Tav::capture::kEtherTypeQinQ;
constexpr std::uint8_t kProtocolUdp = Tav::capture::kProtocolUdp;

/// The largest record the decoder accepts.
constexpr std::uint32_t kMaxRecordLength = Tav::capture::kMaxRecordLength;

/// The 16-byte record header of a pcap file, as the sender also embeds it in
/// front of a log record in a UDP datagram. The 4th field is the byte count
/// of the record data.
struct PcapRecordHeader {
    std::uint32_t tsSec = 0;
    std::uint32_t tsUsec = 0;
    std::uint32_t capturedLength = 0;
    std::uint32_t storageLength = 0;
};

/// The 16-byte binary log header in front of every log payload.
struct LogHeader {
    std::uint32_t packetType = 0;
    std::uint32_t logId = 0;
    std::uint16_t logLevel = 0;
    std::uint16_t logVersion = 0;
    std::uint32_t seqNo = 0;
};

/// Packet types of the binary log header.
constexpr std::uint32_t kPacketBinLog = 0;
constexpr std::uint32_t kPacketLegacy = 1;
constexpr std::uint32_t kPacketSyslog = 2;
constexpr std::uint32_t kPacketCapture = 3;

/// Link type 150, or the IP version of a UDP framing.
enum class LinkKind { Raw150, Ipv4, Ipv6 };

/// What stands in front of the IP header of a UDP framing.
enum class LinkLayer {
    Ethernet,   // link type 1: MAC addresses, VLAN tags, EtherType
    LinuxSll,   // 113: the 16-byte Linux cooked header
    LinuxSll2,  // 276: the 20-byte Linux cooked header, version 2
    RawIp,      // 101: nothing, the IP version in the first nibble
    RawIpOnly,  // 228 (IPv4) or 229 (IPv6): nothing
    Loopback,   // 0: the 4-byte address family in the file's byte order
};

/// How log records are framed in the capture.
struct Framing {
    LinkKind kind = LinkKind::Raw150;
    LinkLayer layer = LinkLayer::Ethernet;
    std::uint16_t dstPort = 5000;
    std::uint16_t srcPort = 40000;
    std::array<std::uint8_t, 6> macDst{{0x02, 0x00, 0x00, 0x00, 0x00, 0x02}};
    std::array<std::uint8_t, 6> macSrc{{0x02, 0x00, 0x00, 0x00, 0x00, 0x01}};
    // Addresses reserved for examples: 192.0.2.1 -> 192.0.2.2, 2001:db8::1 -> 2001:db8::2.
    std::array<std::uint8_t, 4> ipv4Src{{192, 0, 2, 1}};
    std::array<std::uint8_t, 4> ipv4Dst{{192, 0, 2, 2}};
    std::array<std::uint8_t, 16> ipv6Src{
        {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    std::array<std::uint8_t, 16> ipv6Dst{
        {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}};
    /// VLAN IDs, outermost first (Ethernet and Linux cooked headers). The
    /// innermost tag is 802.1Q (TPID 0x8100), every outer one 802.1ad
    /// (0x88A8).
    std::vector<std::uint16_t> vlans;
    /// IPv4: 32-bit words of options after the 20-byte header (0 to 10), so
    /// that the header length field (IHL) is 5 + this.
    std::uint8_t ipv4OptionWords = 0;
    /// BSD loopback: the address family (default 2 for IPv4, 24 for IPv6).
    std::int64_t loopbackFamily = -1;
};

/// The pcap link type of a framing.
std::uint32_t linkTypeOf(const Framing& framing);
std::uint32_t linkTypeOf(LinkKind kind);

/// Bytes a framing puts in front of the UDP payload; 0 for link type 150.
std::size_t udpPayloadOffsetOf(const Framing& framing);
/// The same for Ethernet without tags or options (42 or 62).
std::size_t udpPayloadOffsetOf(LinkKind kind);

/// Per-record deviations from a well-formed record. A negative number means
/// "as computed".
struct RecordOptions {
    std::uint32_t tsSec = 0;
    std::uint32_t tsUsec = 0;
    /// The nanoseconds within the second for nanosecond formats (default
    /// tsUsec * 1000).
    std::int64_t tsNsec = -1;
    /// UDP framings only: the time of the file's record header when it
    /// differs from the sender's (the decoder shows the sender's).
    bool separateFileTime = false;
    std::uint32_t fileTsSec = 0;
    std::uint32_t fileTsUsec = 0;
    /// The file's record header lengths (default: the record data size). In
    /// pcapng: the captured and the original length of the packet block.
    std::int64_t storageLength = -1;
    std::int64_t capturedLength = -1;
    /// UDP framings only: the sender's embedded header lengths (default: the
    /// log record size).
    std::int64_t senderStorageLength = -1;
    std::int64_t senderCapturedLength = -1;
    /// Write only this many bytes of the record data (a cut record).
    std::int64_t cut = -1;
    /// Write only this many bytes (0 to 15) of the file's record header (or
    /// pcapng block) and nothing after it (a file that ends inside it).
    std::int64_t headerCut = -1;
    /// UDP framings only: EtherType (Ethernet, Linux cooked), IP protocol
    /// byte and UDP destination port.
    std::int32_t etherType = -1;
    std::int32_t protocol = -1;
    std::int32_t dstPort = -1;
    /// pcapng: the interface the packet was captured on.
    std::uint32_t interfaceId = 0;
};

/// The 16-byte encodings of the two record headers and the 24-byte pcap
/// global header (microsecond magic, version 2.4, little-endian).
void appendPcapRecHeader(ByteBuffer& out, const PcapRecordHeader& header);
void appendBinLogHeader(ByteBuffer& out, const LogHeader& header);
void appendGlobalHeader(ByteBuffer& out, std::uint32_t linkType, std::uint32_t snapLength = 65535);

/// The record data of a UDP framing (link header, IP, UDP) in front of
/// `udpPayload`, with real lengths and checksums. `ipId` is the IPv4
/// identification; `bigEndianFile` only matters for the loopback family.
void appendEthernetFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                         const std::string& udpPayload, std::uint16_t ipId,
                         bool bigEndianFile = false);

/// The UDP payload of a log record in a UDP framing: the sender's record
/// header (time stamp and lengths of `options`, little-endian) followed by
/// `logRecord`. It is also what a network element sends as one datagram.
void appendSenderDatagram(ByteBuffer& out, const RecordOptions& options,
                          const std::string& logRecord);

/// One whole record as it stands in a little-endian microsecond pcap file:
/// the file's record header and the record data carrying `logRecord`
/// (BinLogHeader + payload) framed as `framing` says.
void appendFramedRecord(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                        const std::string& logRecord, std::uint16_t ipId);

/// A buffered destination: a file (plain or gzip), standard output ("-"), or
/// memory.
///
/// A file is never written in place: the bytes go to a temporary file beside
/// it (same directory, so that the final rename stays on one file system),
/// which close() renames over the file only when every write succeeded. An
/// existing file is therefore either replaced whole or left as it was. A
/// path that exists and is not a regular file (a device, a pipe) is written
/// directly, as there is nothing there to keep; a symbolic link is followed
/// and the file it names is replaced.
class OutputSink {
  public:
    OutputSink() = default;
    /// Abandons an output still open: a temporary file is removed.
    ~OutputSink();
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    /// Opens `path` ("-": standard output). gzip: zlib's gzdopen "wb" (with
    /// `gzipLevel` 0-9 appended when it is not negative).
    bool open(const std::string& path, bool gzip, std::string& error, int gzipLevel = -1);
    /// Collects everything in memory (memory()).
    void openMemory();
    bool write(const void* data, std::size_t n);
    bool write(const std::string& data) { return write(data.data(), data.size()); }
    /// Flushes and closes, then puts a temporary file in the place of the
    /// output; false (with `error`) when any write, the close or the rename
    /// failed, in which case the temporary file is removed.
    bool close(std::string& error);
    /// Closes without keeping anything: a temporary file is removed and the
    /// output path is left as it was.
    void abandon();

    const std::string& memory() const { return memory_; }
    /// Memory: where each write ended (offsets into memory()).
    const std::vector<std::size_t>& writeEnds() const { return writeEnds_; }
    bool isOpen() const { return mode_ != Mode::Closed; }
    /// Why a write failed, empty when none did.
    const std::string& failure() const { return failure_; }
    /// The temporary file being written, empty when there is none.
    const std::string& temporaryPath() const { return temporary_; }

  private:
    enum class Mode { Closed, Plain, Gzip, Memory };
    bool flush();
    /// Closes the stream; false (with failure_ set) when that fails.
    bool closeStream();
    bool openTemporary(const std::string& path, std::string& error, int& fd);
    void removeTemporary();

    Mode mode_ = Mode::Closed;
    FILE* file_ = nullptr;
    bool ownsFile_ = false;
    gzFile gz_ = nullptr;
    std::string buffer_;
    std::string memory_;
    std::vector<std::size_t> writeEnds_;
    std::string path_;
    bool failed_ = false;
    std::string failure_;
    /// The temporary file and the file it replaces on success.
    std::string temporary_;
    std::string target_;
    /// A second descriptor of the temporary file, to sync it after the
    /// stream is closed when it replaces an existing file (-1 otherwise).
    int syncFd_ = -1;
};

/// The capture file format.
enum class FileFormat { Pcap, PcapNano, PcapNg };

/// How the file header is written.
struct GlobalHeaderSettings {
    enum class Mode { Full, None, Short };
    Mode mode = Mode::Full;
    std::size_t shortLength = 0;  // bytes written in Short mode
    std::int64_t linkType = -1;   // default: the framing's link type
    std::uint32_t snapLength = 65535;
    FileFormat format = FileFormat::Pcap;
    /// Every header field big-endian (pcap: the magic a1 b2 c3 d4; pcapng:
    /// the sections' byte order).
    bool bigEndian = false;
    /// pcapng: interfaces described in each section (all of the framing's
    /// link type), and the time stamp resolution, 10^-6 or 10^-9 seconds.
    std::uint32_t interfaces = 1;
    std::uint8_t tsResolution = 6;
};

/// The bytes of a file header: the pcap global header, or a pcapng section
/// header block followed by the interface description blocks.
void appendFileHeader(ByteBuffer& out, const GlobalHeaderSettings& settings,
                      std::uint32_t linkType);

/// One record as it stands in a file of `settings`' format: the pcap record
/// header and the record data, or a pcapng enhanced packet block.
void appendRecord(ByteBuffer& out, const GlobalHeaderSettings& settings, const Framing& framing,
                  const RecordOptions& options, const std::string& logRecord, std::uint16_t ipId);

/// A gzip file written on purpose with damage in it (a gzip line's words).
struct GzipDamage {
    /// Deflate data written as stored blocks, one (or more, above 65535
    /// bytes) per write of the capture writer: the file header, each record,
    /// each rawfile line; then an empty final block. Every byte's place in
    /// the compressed file can so be worked out by hand.
    bool stored = false;
    /// The CRC or the length in the trailer off by all bits / by one.
    bool badCrc = false;
    bool badLength = false;
    /// The byte at this offset of the deflate data (after the 10-byte gzip
    /// header) inverted (XOR 0xff).
    std::int64_t corruptAt = -1;
    /// Only the first N bytes of the compressed file written.
    std::int64_t cut = -1;
    bool any() const { return stored || badCrc || badLength || corruptAt >= 0 || cut >= 0; }
};

/// The gzip file of `data`: deflated at `level` (zlib's default when
/// negative), or as stored blocks that end where `writeEnds` (offsets into
/// `data`, ascending) say, with `damage` done to it.
/// False with `error` when an offset of the damage lies outside the file.
bool buildGzip(const std::string& data, const std::vector<std::size_t>& writeEnds, int level,
               const GzipDamage& damage, std::string& out, std::string& error);

/// Takes the log records of a CaptureWriter as datagrams instead of a file.
class DatagramSink {
  public:
    virtual ~DatagramSink() = default;
    /// One datagram (sender's record header + log record); false stops the
    /// writer.
    virtual bool sendDatagram(const std::string& datagram) = 0;
};

/// Writes a capture: the file header first (once, before the first record or
/// raw bytes, or at finish), then records.
///
/// Built on a DatagramSink, it hands each log record over as the UDP payload
/// a UDP framing would carry (appendSenderDatagram), whatever the framing;
/// what only concerns a file (its header, raw bytes, pcapng sections, the
/// file's record header and frame) is left out.
class CaptureWriter {
  public:
    CaptureWriter(OutputSink& sink, const Framing& framing,
                  const GlobalHeaderSettings& header = GlobalHeaderSettings())
        : sink_(&sink), framing_(framing), header_(header) {}
    CaptureWriter(DatagramSink& datagrams, const Framing& framing,
                  const GlobalHeaderSettings& header = GlobalHeaderSettings())
        : datagrams_(&datagrams), framing_(framing), header_(header) {}

    const Framing& framing() const { return framing_; }
    const GlobalHeaderSettings& settings() const { return header_; }

    /// Writes one log record (BinLogHeader + payload bytes).
    bool writeLogRecord(const RecordOptions& options, const std::string& logRecord);
    /// Appends bytes to the file as they are.
    bool writeRaw(const std::string& bytes);
    /// pcapng: starts a new section (section header and interface blocks
    /// again); false for the pcap formats.
    bool startSection();
    /// Writes the file header if nothing was written yet.
    bool finish();

    std::uint64_t recordsWritten() const { return records_; }

  private:
    bool ensureGlobalHeader();

    OutputSink* sink_ = nullptr;
    DatagramSink* datagrams_ = nullptr;
    Framing framing_;
    GlobalHeaderSettings header_;
    bool headerDone_ = false;
    std::uint64_t records_ = 0;
    std::uint16_t ipId_ = 1;
    ByteBuffer scratch_;
};

}  // namespace binlog_synth

#endif
