// Capture file framing and output.
#include "binlog_synth/Capture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace binlog_synth {

namespace {

constexpr std::size_t kFlushThreshold = 256 * 1024;
constexpr std::size_t kIpv4HeaderLength = 20;
constexpr std::size_t kIpv6HeaderLength = 40;
constexpr std::size_t kUdpHeaderLength = 8;
constexpr std::size_t kEthernetHeaderLength = 14;
constexpr std::size_t kVlanTagLength = 4;
constexpr std::size_t kLinuxSllLength = 16;
constexpr std::size_t kLinuxSll2Length = 20;
constexpr std::size_t kLoopbackLength = 4;
constexpr std::size_t kSenderHeaderLength = 16;

// pcapng block types and the byte-order mark.
constexpr std::uint32_t kBlockSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kBlockInterface = 1;
constexpr std::uint32_t kBlockEnhancedPacket = 6;
constexpr std::uint32_t kByteOrderMark = 0x1A2B3C4D;
constexpr std::uint16_t kOptionEnd = 0;
constexpr std::uint16_t kOptionTsResolution = 9;
// An enhanced packet block before its packet data: type, length, interface,
// time stamp (two words), captured and original length.
constexpr std::size_t kEnhancedPacketFixed = 28;

/// One's-complement sum of 16-bit big-endian words (an odd last byte is
/// padded with zero), folded to 16 bits.
std::uint32_t sumWords(const unsigned char* data, std::size_t n, std::uint32_t sum = 0) {
    std::uint64_t wide = sum;
    std::size_t i = 0;
    for (; i + 1 < n; i += 2) {
        wide += static_cast<std::uint32_t>((data[i] << 8) | data[i + 1]);
    }
    if (i < n) {
        wide += static_cast<std::uint32_t>(data[i] << 8);
    }
    while (wide > 0xFFFF) {
        wide = (wide & 0xFFFF) + (wide >> 16);
    }
    return static_cast<std::uint32_t>(wide);
}

std::uint16_t finishChecksum(std::uint32_t sum) {
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

void putBe16(std::string& s, std::size_t at, std::uint16_t v) {
    s[at] = static_cast<char>(v >> 8);
    s[at + 1] = static_cast<char>(v & 0xFF);
}

const unsigned char* bytesOf(const std::string& s, std::size_t at) {
    return reinterpret_cast<const unsigned char*>(s.data()) + at;
}

std::uint32_t lengthOr(std::int64_t given, std::size_t computed) {
    return given >= 0 ? static_cast<std::uint32_t>(given) : static_cast<std::uint32_t>(computed);
}

/// Appends 16- and 32-bit fields in a file's byte order.
struct Ordered {
    ByteBuffer& out;
    bool big;
    Ordered& u16(std::uint16_t v) {
        big ? out.be16(v) : out.u16(v);
        return *this;
    }
    Ordered& u32(std::uint32_t v) {
        big ? out.be32(v) : out.u32(v);
        return *this;
    }
};

bool isUdp(const Framing& framing) {
    return framing.kind != LinkKind::Raw150;
}

std::size_t linkHeaderLength(const Framing& framing) {
    const std::size_t tags = framing.vlans.size() * kVlanTagLength;
    switch (framing.layer) {
        case LinkLayer::Ethernet:
            return kEthernetHeaderLength + tags;
        case LinkLayer::LinuxSll:
            return kLinuxSllLength + tags;
        case LinkLayer::LinuxSll2:
            return kLinuxSll2Length + tags;
        case LinkLayer::Loopback:
            return kLoopbackLength;
        case LinkLayer::RawIp:
        case LinkLayer::RawIpOnly:
            break;
    }
    return 0;
}

/// The VLAN tags and the EtherType that follow them.
void appendTagsAndType(ByteBuffer& out, const Framing& framing, std::uint16_t etherType) {
    for (std::size_t i = 0; i < framing.vlans.size(); ++i) {
        const bool inner = i + 1 == framing.vlans.size();
        out.be16(inner ? kEtherTypeVlan : kEtherTypeQinQ);
        out.be16(static_cast<std::uint16_t>(framing.vlans[i] & 0x0FFF));  // priority 0, ID
    }
    out.be16(etherType);
}

}  // namespace

std::uint32_t linkTypeOf(LinkKind kind) {
    return kind == LinkKind::Raw150 ? kLinkTypeBinLog : kLinkTypeEthernet;
}

std::uint32_t linkTypeOf(const Framing& framing) {
    if (!isUdp(framing)) {
        return kLinkTypeBinLog;
    }
    switch (framing.layer) {
        case LinkLayer::Ethernet:
            return kLinkTypeEthernet;
        case LinkLayer::LinuxSll:
            return kLinkTypeLinuxSll;
        case LinkLayer::LinuxSll2:
            return kLinkTypeLinuxSll2;
        case LinkLayer::RawIp:
            return kLinkTypeRaw;
        case LinkLayer::RawIpOnly:
            return framing.kind == LinkKind::Ipv6 ? kLinkTypeIpv6 : kLinkTypeIpv4;
        case LinkLayer::Loopback:
            return kLinkTypeNull;
    }
    return kLinkTypeEthernet;
}

std::size_t udpPayloadOffsetOf(LinkKind kind) {
    switch (kind) {
        case LinkKind::Ipv4:
            return kIpv4UdpPayloadOffset;
        case LinkKind::Ipv6:
            return kIpv6UdpPayloadOffset;
        case LinkKind::Raw150:
            break;
    }
    return 0;
}

std::size_t udpPayloadOffsetOf(const Framing& framing) {
    if (!isUdp(framing)) {
        return 0;
    }
    const std::size_t ip = framing.kind == LinkKind::Ipv6
                               ? kIpv6HeaderLength
                               : kIpv4HeaderLength + 4U * framing.ipv4OptionWords;
    return linkHeaderLength(framing) + ip + kUdpHeaderLength;
}

void appendPcapRecHeader(ByteBuffer& out, const PcapRecordHeader& header) {
    out.u32(header.tsSec).u32(header.tsUsec).u32(header.capturedLength).u32(header.storageLength);
}

void appendBinLogHeader(ByteBuffer& out, const LogHeader& header) {
    out.u32(header.packetType)
        .u32(header.logId)
        .u16(header.logLevel)
        .u16(header.logVersion)
        .u32(header.seqNo);
}

void appendGlobalHeader(ByteBuffer& out, std::uint32_t linkType, std::uint32_t snapLength) {
    GlobalHeaderSettings settings;
    settings.snapLength = snapLength;
    appendFileHeader(out, settings, linkType);
}

namespace {

/// The frame in front of a UDP payload made of two parts (the sender's header
/// and the log record), written straight into `out`.
void appendFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                 const char* part1, std::size_t size1, const char* part2, std::size_t size2,
                 std::uint16_t ipId, bool bigEndianFile) {
    const bool v6 = framing.kind == LinkKind::Ipv6;
    const std::uint16_t etherType = options.etherType >= 0
                                        ? static_cast<std::uint16_t>(options.etherType)
                                        : (v6 ? kEtherTypeIpv6 : kEtherTypeIpv4);
    const std::uint8_t protocol =
        options.protocol >= 0 ? static_cast<std::uint8_t>(options.protocol) : kProtocolUdp;
    const std::uint16_t dstPort =
        options.dstPort >= 0 ? static_cast<std::uint16_t>(options.dstPort) : framing.dstPort;
    const std::size_t udpLength = kUdpHeaderLength + size1 + size2;

    switch (framing.layer) {
        case LinkLayer::Ethernet:
            out.bytes(framing.macDst.data(), framing.macDst.size());
            out.bytes(framing.macSrc.data(), framing.macSrc.size());
            appendTagsAndType(out, framing, etherType);
            break;
        case LinkLayer::LinuxSll:
            out.be16(0)    // packet type: sent to this host
                .be16(1)   // ARPHRD_ETHER
                .be16(6);  // link-layer address length
            out.bytes(framing.macSrc.data(), framing.macSrc.size()).zeros(2);
            appendTagsAndType(out, framing, etherType);
            break;
        case LinkLayer::LinuxSll2: {
            // The protocol comes first; with tags it is the first tag's TPID.
            ByteBuffer tags;
            appendTagsAndType(tags, framing, etherType);
            out.bytes(tags.str().data(), 2)
                .be16(0)  // reserved
                .be32(1)  // interface index
                .be16(1)  // ARPHRD_ETHER
                .u8(0)    // packet type: sent to this host
                .u8(6);   // link-layer address length
            out.bytes(framing.macSrc.data(), framing.macSrc.size()).zeros(2);
            out.bytes(tags.str().substr(2));
            break;
        }
        case LinkLayer::Loopback: {
            const std::uint32_t family = framing.loopbackFamily >= 0
                                             ? static_cast<std::uint32_t>(framing.loopbackFamily)
                                             : (v6 ? 24U : 2U);
            bigEndianFile ? out.be32(family) : out.u32(family);
            break;
        }
        case LinkLayer::RawIp:
        case LinkLayer::RawIpOnly:
            break;
    }

    std::string& s = out.str();
    const std::size_t ipStart = s.size();
    std::uint32_t pseudo = 0;
    if (!v6) {
        const std::size_t headerLength = kIpv4HeaderLength + 4U * framing.ipv4OptionWords;
        out.u8(static_cast<std::uint8_t>(0x40 | (headerLength / 4)))  // version 4, IHL
            .u8(0)                                                    // type of service
            .be16(static_cast<std::uint16_t>(headerLength + udpLength))
            .be16(ipId)
            .be16(0x4000)  // don't fragment
            .u8(64)        // time to live
            .u8(protocol)
            .be16(0);  // header checksum, filled in below
        out.bytes(framing.ipv4Src.data(), 4);
        out.bytes(framing.ipv4Dst.data(), 4);
        for (unsigned word = 0; word < framing.ipv4OptionWords; ++word) {
            if (word == 0) {
                out.u8(0x94).u8(4).u8(0).u8(0);  // router alert
            } else {
                out.fill(4, 0x01);  // no-operation
            }
        }
        putBe16(s, ipStart + 10, finishChecksum(sumWords(bytesOf(s, ipStart), headerLength)));
        pseudo = sumWords(framing.ipv4Src.data(), 4);
        pseudo = sumWords(framing.ipv4Dst.data(), 4, pseudo);
        pseudo += protocol;
        pseudo += static_cast<std::uint32_t>(udpLength & 0xFFFF);
    } else {
        out.be32(0x60000000U)  // version 6, no traffic class, no flow label
            .be16(static_cast<std::uint16_t>(udpLength))
            .u8(protocol)
            .u8(64);  // hop limit
        out.bytes(framing.ipv6Src.data(), 16);
        out.bytes(framing.ipv6Dst.data(), 16);
        pseudo = sumWords(framing.ipv6Src.data(), 16);
        pseudo = sumWords(framing.ipv6Dst.data(), 16, pseudo);
        pseudo += static_cast<std::uint32_t>(udpLength >> 16);
        pseudo += static_cast<std::uint32_t>(udpLength & 0xFFFF);
        pseudo += protocol;
    }

    const std::size_t udpStart = s.size();
    out.be16(framing.srcPort).be16(dstPort).be16(static_cast<std::uint16_t>(udpLength)).be16(0);
    out.bytes(part1, size1);
    out.bytes(part2, size2);
    std::uint16_t checksum = finishChecksum(sumWords(bytesOf(s, udpStart), udpLength, pseudo));
    if (checksum == 0) {
        checksum = 0xFFFF;  // zero means "no checksum" on the wire
    }
    putBe16(s, udpStart + 6, checksum);
}

/// The sender's record header in front of a log record of `size` bytes (the
/// sender's own: always little-endian).
void appendSenderHeader(ByteBuffer& out, const RecordOptions& options, std::size_t size) {
    PcapRecordHeader sender;
    sender.tsSec = options.tsSec;
    sender.tsUsec = options.tsUsec;
    sender.capturedLength = lengthOr(options.senderCapturedLength, size);
    sender.storageLength = lengthOr(options.senderStorageLength, size);
    appendPcapRecHeader(out, sender);
}

/// The record data: the log record itself (link type 150), or the frame of
/// a UDP framing around the sender's header and the log record.
void appendRecordData(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                      const std::string& logRecord, std::uint16_t ipId, bool bigEndianFile) {
    if (!isUdp(framing)) {
        out.bytes(logRecord);
        return;
    }
    ByteBuffer senderBytes;
    appendSenderHeader(senderBytes, options, logRecord.size());
    appendFrame(out, framing, options, senderBytes.str().data(), senderBytes.size(),
                logRecord.data(), logRecord.size(), ipId, bigEndianFile);
}

/// The record's time in the file: seconds and the fraction in the file's
/// unit.
void fileTime(const Framing& framing, const RecordOptions& options, bool nano, std::uint32_t& sec,
              std::uint64_t& fraction) {
    const bool own = options.separateFileTime && isUdp(framing);
    sec = own ? options.fileTsSec : options.tsSec;
    const std::uint32_t usec = own ? options.fileTsUsec : options.tsUsec;
    if (!nano) {
        fraction = usec;
    } else if (!own && options.tsNsec >= 0) {
        fraction = static_cast<std::uint64_t>(options.tsNsec);
    } else {
        fraction = static_cast<std::uint64_t>(usec) * 1000U;
    }
}

void appendPcapRecord(ByteBuffer& out, const GlobalHeaderSettings& settings, const Framing& framing,
                      const RecordOptions& options, const std::string& logRecord,
                      std::uint16_t ipId) {
    const std::size_t recordAt = out.size();
    ByteBuffer data;
    appendRecordData(data, framing, options, logRecord, ipId, settings.bigEndian);
    std::uint32_t sec = 0;
    std::uint64_t fraction = 0;
    fileTime(framing, options, settings.format == FileFormat::PcapNano, sec, fraction);
    Ordered o{out, settings.bigEndian};
    o.u32(sec)
        .u32(static_cast<std::uint32_t>(fraction))
        .u32(lengthOr(options.capturedLength, data.size()))
        .u32(lengthOr(options.storageLength, data.size()));
    const std::size_t n = options.cut >= 0 && static_cast<std::uint64_t>(options.cut) < data.size()
                              ? static_cast<std::size_t>(options.cut)
                              : data.size();
    out.bytes(data.str().data(), n);
    if (options.headerCut >= 0 && options.headerCut < 16) {
        out.str().resize(recordAt + static_cast<std::size_t>(options.headerCut));
    }
}

void appendEnhancedPacket(ByteBuffer& out, const GlobalHeaderSettings& settings,
                          const Framing& framing, const RecordOptions& options,
                          const std::string& logRecord, std::uint16_t ipId) {
    const std::size_t blockAt = out.size();
    ByteBuffer data;
    appendRecordData(data, framing, options, logRecord, ipId, settings.bigEndian);
    std::uint32_t sec = 0;
    std::uint64_t fraction = 0;
    const bool nano = settings.tsResolution == 9;
    fileTime(framing, options, nano, sec, fraction);
    const std::uint64_t stamp =
        static_cast<std::uint64_t>(sec) * (nano ? 1000000000U : 1000000U) + fraction;
    const std::size_t padded = (data.size() + 3) / 4 * 4;
    const auto total = static_cast<std::uint32_t>(kEnhancedPacketFixed + padded + 4);
    Ordered o{out, settings.bigEndian};
    o.u32(kBlockEnhancedPacket)
        .u32(total)
        .u32(options.interfaceId)
        .u32(static_cast<std::uint32_t>(stamp >> 32))
        .u32(static_cast<std::uint32_t>(stamp))
        .u32(lengthOr(options.storageLength, data.size()))    // captured length
        .u32(lengthOr(options.capturedLength, data.size()));  // original length
    out.bytes(data.str()).zeros(padded - data.size());
    o.u32(total);
    if (options.cut >= 0 && static_cast<std::uint64_t>(options.cut) < data.size()) {
        out.str().resize(blockAt + kEnhancedPacketFixed + static_cast<std::size_t>(options.cut));
    }
    if (options.headerCut >= 0 && options.headerCut < 16) {
        out.str().resize(blockAt + static_cast<std::size_t>(options.headerCut));
    }
}

}  // namespace

void appendFileHeader(ByteBuffer& out, const GlobalHeaderSettings& settings,
                      std::uint32_t linkType) {
    Ordered o{out, settings.bigEndian};
    if (settings.format != FileFormat::PcapNg) {
        o.u32(settings.format == FileFormat::PcapNano ? 0xA1B23C4DU : 0xA1B2C3D4U)
            .u16(2)  // version 2.4
            .u16(4)
            .u32(0)  // time zone
            .u32(0)  // time stamp accuracy
            .u32(settings.snapLength)
            .u32(linkType);
        return;
    }
    // Section header block: no options, section length unknown (-1).
    o.u32(kBlockSectionHeader).u32(28).u32(kByteOrderMark).u16(1).u16(0);
    o.u32(0xFFFFFFFFU).u32(0xFFFFFFFFU).u32(28);
    for (std::uint32_t i = 0; i < settings.interfaces; ++i) {
        // Interface description block; if_tsresol when it is not the default.
        const bool resolution = settings.tsResolution != 6;
        const std::uint32_t total = 20 + (resolution ? 12 : 0);
        o.u32(kBlockInterface).u32(total).u16(static_cast<std::uint16_t>(linkType)).u16(0);
        o.u32(settings.snapLength);
        if (resolution) {
            o.u16(kOptionTsResolution).u16(1);
            out.u8(settings.tsResolution).zeros(3);
            o.u16(kOptionEnd).u16(0);
        }
        o.u32(total);
    }
}

void appendRecord(ByteBuffer& out, const GlobalHeaderSettings& settings, const Framing& framing,
                  const RecordOptions& options, const std::string& logRecord, std::uint16_t ipId) {
    if (settings.format == FileFormat::PcapNg) {
        appendEnhancedPacket(out, settings, framing, options, logRecord, ipId);
    } else {
        appendPcapRecord(out, settings, framing, options, logRecord, ipId);
    }
}

void appendEthernetFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                         const std::string& udpPayload, std::uint16_t ipId, bool bigEndianFile) {
    appendFrame(out, framing, options, udpPayload.data(), udpPayload.size(), nullptr, 0, ipId,
                bigEndianFile);
}

void appendSenderDatagram(ByteBuffer& out, const RecordOptions& options,
                          const std::string& logRecord) {
    appendSenderHeader(out, options, logRecord.size());
    out.bytes(logRecord);
}

void appendFramedRecord(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                        const std::string& logRecord, std::uint16_t ipId) {
    appendPcapRecord(out, GlobalHeaderSettings(), framing, options, logRecord, ipId);
}

// ---- OutputSink ----------------------------------------------------------

OutputSink::~OutputSink() {
    abandon();
}

bool OutputSink::openTemporary(const std::string& path, std::string& error, int& fd) {
    // The file a symbolic link names is the one replaced (renaming over the
    // link would replace the link itself). A dangling link keeps its path.
    std::string target = path;
    struct stat info;
    if (lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        char* resolved = realpath(path.c_str(), nullptr);
        if (resolved != nullptr) {
            target = resolved;
            free(resolved);
        }
    }
    const bool exists = stat(target.c_str(), &info) == 0;
    const std::size_t slash = target.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : target.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
    std::string name = directory + "." + base + ".XXXXXX";
    fd = mkstemp(&name[0]);
    if (fd < 0) {
        error = "cannot open " + path_ + ": " + std::strerror(errno);
        return false;
    }
    // mkstemp creates the file for its owner only: give it the mode the
    // replaced file had, or the one a new file gets.
    mode_t mode = 0;
    if (exists) {
        mode = info.st_mode & 07777;
    } else {
        // Reading the umask means setting it for a moment: the writer is used
        // by single-threaded programs only.
        const mode_t mask = umask(0);
        umask(mask);
        mode = 0666 & ~mask;
    }
    if (fchmod(fd, mode) != 0 || (exists && (syncFd_ = dup(fd)) < 0)) {
        error = "cannot open " + path_ + ": " + std::strerror(errno);
        ::close(fd);
        unlink(name.c_str());
        return false;
    }
    temporary_ = name;
    target_ = target;
    return true;
}

bool OutputSink::open(const std::string& path, bool gzip, std::string& error, int gzipLevel) {
    if (mode_ != Mode::Closed) {
        error = "output already open";
        return false;
    }
    path_ = path == "-" ? "standard output" : path;
    failed_ = false;
    failure_.clear();
    buffer_.clear();

    int fd = -1;
    bool direct = path == "-";
    struct stat info;
    if (!direct && stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        direct = true;  // a device or a pipe: written as it is
    }
    if (path == "-") {
        fd = gzip ? dup(fileno(stdout)) : -1;
        if (gzip && fd < 0) {
            error = "cannot open " + path_ + ": " + std::strerror(errno);
            return false;
        }
    } else if (!direct && !openTemporary(path, error, fd)) {
        return false;
    }

    if (gzip) {
        std::string mode = "wb";
        if (gzipLevel >= 0 && gzipLevel <= 9) {
            mode.push_back(static_cast<char>('0' + gzipLevel));
        }
        errno = 0;
        gz_ = fd >= 0 ? gzdopen(fd, mode.c_str()) : gzopen(path.c_str(), mode.c_str());
        if (gz_ == nullptr) {
            error =
                "cannot open " + path_ + ": " + (errno ? std::strerror(errno) : "gzopen failed");
            if (fd >= 0) {
                ::close(fd);
            }
            removeTemporary();
            return false;
        }
        mode_ = Mode::Gzip;
        return true;
    }
    if (path == "-") {
        file_ = stdout;
        ownsFile_ = false;
    } else {
        file_ = fd >= 0 ? fdopen(fd, "wb") : fopen(path.c_str(), "wb");
        ownsFile_ = true;
        if (file_ == nullptr) {
            error = "cannot open " + path_ + ": " + std::strerror(errno);
            if (fd >= 0) {
                ::close(fd);
            }
            removeTemporary();
            return false;
        }
    }
    mode_ = Mode::Plain;
    return true;
}

void OutputSink::openMemory() {
    mode_ = Mode::Memory;
    memory_.clear();
    writeEnds_.clear();
    buffer_.clear();
    failed_ = false;
    failure_.clear();
}

bool OutputSink::flush() {
    if (buffer_.empty() || failed_) {
        buffer_.clear();
        return !failed_;
    }
    switch (mode_) {
        case Mode::Memory:
            memory_.append(buffer_);
            break;
        case Mode::Plain:
            if (fwrite(buffer_.data(), 1, buffer_.size(), file_) != buffer_.size()) {
                failed_ = true;
                failure_ = "write to " + path_ + " failed: " + std::strerror(errno);
            }
            break;
        case Mode::Gzip: {
            std::size_t done = 0;
            while (done < buffer_.size()) {
                const std::size_t chunk =
                    buffer_.size() - done > (1U << 30) ? (1U << 30) : buffer_.size() - done;
                const int written =
                    gzwrite(gz_, buffer_.data() + done, static_cast<unsigned>(chunk));
                if (written <= 0) {
                    int code = 0;
                    const char* text = gzerror(gz_, &code);
                    failed_ = true;
                    failure_ = "write to " + path_ +
                               " failed: " + (code == Z_ERRNO ? std::strerror(errno) : text);
                    break;
                }
                done += static_cast<std::size_t>(written);
            }
            break;
        }
        case Mode::Closed:
            failed_ = true;
            failure_ = "output is not open";
            break;
    }
    buffer_.clear();
    return !failed_;
}

bool OutputSink::write(const void* data, std::size_t n) {
    if (mode_ == Mode::Closed || failed_) {
        return false;
    }
    buffer_.append(static_cast<const char*>(data), n);
    if (mode_ == Mode::Memory) {
        writeEnds_.push_back(memory_.size() + buffer_.size());
    }
    if (buffer_.size() >= kFlushThreshold) {
        return flush();
    }
    return true;
}

bool OutputSink::closeStream() {
    bool ok = true;
    switch (mode_) {
        case Mode::Gzip: {
            const int rc = gzclose(gz_);
            gz_ = nullptr;
            if (rc != Z_OK) {
                ok = false;
                failure_ = "closing " + path_ + " failed (zlib error " + std::to_string(rc) + ")";
            }
            break;
        }
        case Mode::Plain:
            if (ownsFile_) {
                if (fclose(file_) != 0) {
                    ok = false;
                    failure_ = "closing " + path_ + " failed: " + std::strerror(errno);
                }
            } else if (fflush(file_) != 0 || ferror(file_)) {
                ok = false;
                failure_ = "write to " + path_ + " failed";
            }
            file_ = nullptr;
            break;
        case Mode::Memory:
        case Mode::Closed:
            break;
    }
    mode_ = Mode::Closed;
    return ok;
}

void OutputSink::removeTemporary() {
    if (syncFd_ >= 0) {
        ::close(syncFd_);
        syncFd_ = -1;
    }
    if (!temporary_.empty()) {
        unlink(temporary_.c_str());
        temporary_.clear();
    }
    target_.clear();
}

bool OutputSink::close(std::string& error) {
    if (mode_ == Mode::Closed) {
        return true;
    }
    const bool flushed = flush();
    const std::string flushFailure = failure_;
    bool ok = closeStream() && flushed;
    if (!flushed) {
        failure_ = flushFailure;  // the first failure is the one reported
    }
    if (ok && syncFd_ >= 0 && fsync(syncFd_) != 0) {
        // An existing file is replaced only by bytes that are on the disk.
        ok = false;
        failure_ = "write to " + path_ + " failed: " + std::strerror(errno);
    }
    if (ok && !temporary_.empty() && rename(temporary_.c_str(), target_.c_str()) != 0) {
        ok = false;
        failure_ = "cannot replace " + path_ + ": " + std::strerror(errno);
    }
    if (ok && !temporary_.empty()) {
        temporary_.clear();  // it is the output now
    }
    removeTemporary();
    if (!ok) {
        error = failure_;
    }
    return ok;
}

void OutputSink::abandon() {
    if (mode_ != Mode::Closed) {
        buffer_.clear();
        closeStream();
    }
    removeTemporary();
}

// ---- Damaged gzip files --------------------------------------------------

namespace {

constexpr std::size_t kGzipHeaderLength = 10;
constexpr std::size_t kStoredBlockMost = 65535;

/// Owns a deflate stream.
class Deflater {
  public:
    explicit Deflater(int level) {
        // 15 + 16: a gzip wrapper around the deflate data.
        live_ = deflateInit2(&stream_, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (live_) {
            deflateEnd(&stream_);
        }
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    bool run(const std::string& data, std::string& out) {
        if (!live_) {
            return false;
        }
        out.resize(deflateBound(&stream_, static_cast<uLong>(data.size())) + 64);
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
        stream_.avail_in = static_cast<uInt>(data.size());
        stream_.next_out = reinterpret_cast<Bytef*>(&out[0]);
        stream_.avail_out = static_cast<uInt>(out.size());
        if (deflate(&stream_, Z_FINISH) != Z_STREAM_END) {
            return false;
        }
        out.resize(stream_.total_out);
        return true;
    }

  private:
    z_stream stream_ = z_stream();
    bool live_ = false;
};

void appendStoredBlock(std::string& out, const char* data, std::size_t n, bool last) {
    ByteBuffer block;
    block
        .u8(last ? 1 : 0)  // BFINAL, BTYPE 00 (stored), the rest of the byte unused
        .u16(static_cast<std::uint16_t>(n))
        .u16(static_cast<std::uint16_t>(~n & 0xFFFF));
    out += block.str();
    out.append(data, n);
}

}  // namespace

bool buildGzip(const std::string& data, const std::vector<std::size_t>& writeEnds, int level,
               const GzipDamage& damage, std::string& out, std::string& error) {
    out.clear();
    // A variable, not the expression: on 32-bit targets size_t cannot exceed
    // the limit, and the compiler would call the test always false.
    const std::uint64_t size = data.size();
    if (size > 0xFFFFFFFFULL) {
        error = "a damaged gzip capture is limited to 4 GiB";
        return false;
    }
    if (!damage.stored) {
        Deflater deflater(level < 0 ? Z_DEFAULT_COMPRESSION : level);
        if (!deflater.run(data, out)) {
            error = "compression failed";
            return false;
        }
    } else {
        // ID1 ID2, deflate, no flags, no time, no extra flags, OS Unix.
        out.assign("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\x03", kGzipHeaderLength);
        std::size_t start = 0;
        std::vector<std::size_t> ends = writeEnds;
        if (ends.empty() || ends.back() != data.size()) {
            ends.push_back(data.size());
        }
        for (const std::size_t end : ends) {
            for (; start < end;) {
                const std::size_t n =
                    end - start < kStoredBlockMost ? end - start : kStoredBlockMost;
                appendStoredBlock(out, data.data() + start, n, false);
                start += n;
            }
        }
        appendStoredBlock(out, nullptr, 0, true);
        ByteBuffer trailer;
        trailer
            .u32(static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(data.data()),
                                                  static_cast<uInt>(data.size()))))
            .u32(static_cast<std::uint32_t>(data.size()));
        out += trailer.str();
    }
    const std::size_t trailerAt = out.size() - 8;
    if (damage.badCrc) {
        for (std::size_t i = 0; i < 4; ++i) {
            out[trailerAt + i] = static_cast<char>(~out[trailerAt + i]);
        }
    }
    if (damage.badLength) {
        ByteBuffer length;
        length.u32(static_cast<std::uint32_t>(data.size() + 1));
        out.replace(trailerAt + 4, 4, length.str());
    }
    if (damage.corruptAt >= 0) {
        const std::size_t at = kGzipHeaderLength + static_cast<std::size_t>(damage.corruptAt);
        if (at >= trailerAt) {
            error = "corrupt-at=" + std::to_string(damage.corruptAt) +
                    " is past the deflate data (" + std::to_string(trailerAt - kGzipHeaderLength) +
                    " bytes)";
            return false;
        }
        out[at] = static_cast<char>(~out[at]);
    }
    if (damage.cut >= 0) {
        if (static_cast<std::uint64_t>(damage.cut) > out.size()) {
            error = "cut=" + std::to_string(damage.cut) + " is past the end of the " +
                    std::to_string(out.size()) + "-byte gzip file";
            return false;
        }
        out.resize(static_cast<std::size_t>(damage.cut));
    }
    return true;
}

// ---- CaptureWriter -------------------------------------------------------

bool CaptureWriter::ensureGlobalHeader() {
    if (headerDone_) {
        return true;
    }
    headerDone_ = true;
    if (header_.mode == GlobalHeaderSettings::Mode::None || sink_ == nullptr) {
        return true;
    }
    ByteBuffer header;
    const std::uint32_t linkType =
        header_.linkType >= 0 ? static_cast<std::uint32_t>(header_.linkType) : linkTypeOf(framing_);
    appendFileHeader(header, header_, linkType);
    std::size_t n = header.size();
    if (header_.mode == GlobalHeaderSettings::Mode::Short && header_.shortLength < n) {
        n = header_.shortLength;
    }
    return sink_->write(header.str().data(), n);
}

bool CaptureWriter::writeLogRecord(const RecordOptions& options, const std::string& logRecord) {
    scratch_.clear();
    if (datagrams_ != nullptr) {
        appendSenderDatagram(scratch_, options, logRecord);
        ++ipId_;
        ++records_;
        return datagrams_->sendDatagram(scratch_.str());
    }
    if (!ensureGlobalHeader()) {
        return false;
    }
    appendRecord(scratch_, header_, framing_, options, logRecord, ipId_++);
    ++records_;
    return sink_->write(scratch_.str());
}

bool CaptureWriter::writeRaw(const std::string& bytes) {
    if (datagrams_ != nullptr) {
        return true;  // bytes of a file: nothing to send
    }
    return ensureGlobalHeader() && sink_->write(bytes);
}

bool CaptureWriter::startSection() {
    if (header_.format != FileFormat::PcapNg || !ensureGlobalHeader()) {
        return false;
    }
    if (datagrams_ != nullptr) {
        return true;
    }
    ByteBuffer header;
    const std::uint32_t linkType =
        header_.linkType >= 0 ? static_cast<std::uint32_t>(header_.linkType) : linkTypeOf(framing_);
    appendFileHeader(header, header_, linkType);
    return sink_->write(header.str());
}

bool CaptureWriter::finish() {
    return ensureGlobalHeader();
}

}  // namespace binlog_synth
