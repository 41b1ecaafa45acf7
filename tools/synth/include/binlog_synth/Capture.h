// Writing capture files: the pcap global header, record headers, the two
// framings of a log record (link type 150, or UDP in Ethernet over IPv4 or
// IPv6), and a buffered output that is plain, gzip-compressed or in memory.
#ifndef BINLOG_SYNTH_CAPTURE_H
#define BINLOG_SYNTH_CAPTURE_H

#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "BinLogRecordHeaders.h"
#include "binlog_synth/Bytes.h"

namespace binlog_synth {

constexpr std::uint32_t kLinkTypeEthernet = 1;
constexpr std::uint32_t kLinkTypeBinLog = 150;

/// Offsets from the start of an Ethernet record's data.
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kIpv4ProtocolOffset = 23;
constexpr std::size_t kIpv4UdpDstPortOffset = 36;
constexpr std::size_t kIpv4UdpPayloadOffset = 42;
constexpr std::size_t kIpv6NextHeaderOffset = 20;
constexpr std::size_t kIpv6UdpDstPortOffset = 56;
constexpr std::size_t kIpv6UdpPayloadOffset = 62;
constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
constexpr std::uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr std::uint8_t kProtocolUdp = 17;

/// The largest record the decoder accepts.
constexpr std::uint32_t kMaxRecordLength = 25000;

enum class LinkKind { Raw150, Ipv4, Ipv6 };

/// How log records are framed in the capture.
struct Framing {
    LinkKind kind = LinkKind::Raw150;
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
};

/// The pcap link type of a framing: 150 or 1.
std::uint32_t linkTypeOf(LinkKind kind);

/// Bytes an Ethernet framing puts in front of the UDP payload (42 or 62); 0
/// for link type 150.
std::size_t udpPayloadOffsetOf(LinkKind kind);

/// Per-record deviations from a well-formed record. A negative number means
/// "as computed".
struct RecordOptions {
    std::uint32_t tsSec = 0;
    std::uint32_t tsUsec = 0;
    /// Ethernet only: the time of the file's record header when it differs
    /// from the sender's (the decoder shows the sender's).
    bool separateFileTime = false;
    std::uint32_t fileTsSec = 0;
    std::uint32_t fileTsUsec = 0;
    /// The file's record header lengths (default: the record data size).
    std::int64_t storageLength = -1;
    std::int64_t capturedLength = -1;
    /// Ethernet only: the sender's embedded header lengths (default: the log
    /// record size).
    std::int64_t senderStorageLength = -1;
    std::int64_t senderCapturedLength = -1;
    /// Write only this many bytes of the record data (a cut record).
    std::int64_t cut = -1;
    /// Write only this many bytes (0 to 15) of the file's record header and
    /// nothing after it (a file that ends inside a record header).
    std::int64_t headerCut = -1;
    /// Ethernet only: EtherType, IP protocol byte and UDP destination port.
    std::int32_t etherType = -1;
    std::int32_t protocol = -1;
    std::int32_t dstPort = -1;
};

/// The 16-byte encodings of the two record headers and the 24-byte global
/// header (microsecond magic, version 2.4).
void appendPcapRecHeader(ByteBuffer& out, const Tav::PcapRecHeader& header);
void appendBinLogHeader(ByteBuffer& out, const Tav::BinLogHeader& header);
void appendGlobalHeader(ByteBuffer& out, std::uint32_t linkType, std::uint32_t snapLength = 65535);

/// An Ethernet frame (IPv4 or IPv6 with UDP) in front of `udpPayload`, with
/// real lengths and checksums. `ipId` is the IPv4 identification.
void appendEthernetFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                         const std::string& udpPayload, std::uint16_t ipId);

/// One whole record as it stands in the file: the file's record header and
/// the record data carrying `logRecord` (BinLogHeader + payload) framed as
/// `framing` says.
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

/// How the global header is written.
struct GlobalHeaderSettings {
    enum class Mode { Full, None, Short };
    Mode mode = Mode::Full;
    std::size_t shortLength = 0;  // bytes written in Short mode
    std::int64_t linkType = -1;   // default: the framing's link type
    std::uint32_t snapLength = 65535;
};

/// Writes a capture: global header first (once, before the first record or
/// raw bytes, or at finish), then records.
class CaptureWriter {
  public:
    CaptureWriter(OutputSink& sink, const Framing& framing,
                  const GlobalHeaderSettings& header = GlobalHeaderSettings())
        : sink_(sink), framing_(framing), header_(header) {}

    const Framing& framing() const { return framing_; }

    /// Writes one log record (BinLogHeader + payload bytes).
    bool writeLogRecord(const RecordOptions& options, const std::string& logRecord);
    /// Appends bytes to the file as they are.
    bool writeRaw(const std::string& bytes);
    /// Writes the global header if nothing was written yet.
    bool finish();

    std::uint64_t recordsWritten() const { return records_; }

  private:
    bool ensureGlobalHeader();

    OutputSink& sink_;
    Framing framing_;
    GlobalHeaderSettings header_;
    bool headerDone_ = false;
    std::uint64_t records_ = 0;
    std::uint16_t ipId_ = 1;
    ByteBuffer scratch_;
};

}  // namespace binlog_synth

#endif
