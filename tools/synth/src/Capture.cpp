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
constexpr std::size_t kUdpHeaderLength = 8;

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

}  // namespace

std::uint32_t linkTypeOf(LinkKind kind) {
    return kind == LinkKind::Raw150 ? kLinkTypeBinLog : kLinkTypeEthernet;
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

void appendPcapRecHeader(ByteBuffer& out, const Tav::PcapRecHeader& header) {
    out.u32(header.tsSec).u32(header.tsUsec).u32(header.capturedLength).u32(header.storageLength);
}

void appendBinLogHeader(ByteBuffer& out, const Tav::BinLogHeader& header) {
    out.u32(header.packetType)
        .u32(header.logId)
        .u16(header.logLevel)
        .u16(header.logVersion)
        .u32(header.seqNo);
}

void appendGlobalHeader(ByteBuffer& out, std::uint32_t linkType, std::uint32_t snapLength) {
    out.u32(0xA1B2C3D4U).u16(2).u16(4).u32(0).u32(0).u32(snapLength).u32(linkType);
}

namespace {

/// The frame in front of a UDP payload made of two parts (the sender's header
/// and the log record), written straight into `out`.
void appendFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                 const char* part1, std::size_t size1, const char* part2, std::size_t size2,
                 std::uint16_t ipId) {
    const bool v6 = framing.kind == LinkKind::Ipv6;
    const std::uint16_t etherType = options.etherType >= 0
                                        ? static_cast<std::uint16_t>(options.etherType)
                                        : (v6 ? kEtherTypeIpv6 : kEtherTypeIpv4);
    const std::uint8_t protocol =
        options.protocol >= 0 ? static_cast<std::uint8_t>(options.protocol) : kProtocolUdp;
    const std::uint16_t dstPort =
        options.dstPort >= 0 ? static_cast<std::uint16_t>(options.dstPort) : framing.dstPort;
    const std::size_t udpLength = kUdpHeaderLength + size1 + size2;

    out.bytes(framing.macDst.data(), framing.macDst.size());
    out.bytes(framing.macSrc.data(), framing.macSrc.size());
    out.be16(etherType);

    std::string& s = out.str();
    const std::size_t ipStart = s.size();
    std::uint32_t pseudo = 0;
    if (!v6) {
        out.u8(0x45)  // version 4, header length 5 words
            .u8(0)    // type of service
            .be16(static_cast<std::uint16_t>(kIpv4HeaderLength + udpLength))
            .be16(ipId)
            .be16(0x4000)  // don't fragment
            .u8(64)        // time to live
            .u8(protocol)
            .be16(0);  // header checksum, filled in below
        out.bytes(framing.ipv4Src.data(), 4);
        out.bytes(framing.ipv4Dst.data(), 4);
        putBe16(s, ipStart + 10, finishChecksum(sumWords(bytesOf(s, ipStart), kIpv4HeaderLength)));
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

}  // namespace

void appendEthernetFrame(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                         const std::string& udpPayload, std::uint16_t ipId) {
    appendFrame(out, framing, options, udpPayload.data(), udpPayload.size(), nullptr, 0, ipId);
}

namespace {

/// The file's record header and the whole record data, before any header cut.
void appendWholeRecord(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                       const std::string& logRecord, std::uint16_t ipId) {
    Tav::PcapRecHeader fileHeader;
    fileHeader.tsSec = options.separateFileTime ? options.fileTsSec : options.tsSec;
    fileHeader.tsUsec = options.separateFileTime ? options.fileTsUsec : options.tsUsec;

    if (framing.kind == LinkKind::Raw150) {
        fileHeader.capturedLength = lengthOr(options.capturedLength, logRecord.size());
        fileHeader.storageLength = lengthOr(options.storageLength, logRecord.size());
        appendPcapRecHeader(out, fileHeader);
        const std::size_t n =
            options.cut >= 0 && static_cast<std::uint64_t>(options.cut) < logRecord.size()
                ? static_cast<std::size_t>(options.cut)
                : logRecord.size();
        out.bytes(logRecord.data(), n);
        return;
    }

    Tav::PcapRecHeader sender;
    sender.tsSec = options.tsSec;
    sender.tsUsec = options.tsUsec;
    sender.capturedLength = lengthOr(options.senderCapturedLength, logRecord.size());
    sender.storageLength = lengthOr(options.senderStorageLength, logRecord.size());
    ByteBuffer senderBytes;
    appendPcapRecHeader(senderBytes, sender);

    // The file's record header goes in front of the frame once the frame's
    // size is known.
    const std::size_t headerAt = out.size();
    out.zeros(16);
    const std::size_t frameAt = out.size();
    appendFrame(out, framing, options, senderBytes.str().data(), senderBytes.size(),
                logRecord.data(), logRecord.size(), ipId);
    const std::size_t frameSize = out.size() - frameAt;
    fileHeader.capturedLength = lengthOr(options.capturedLength, frameSize);
    fileHeader.storageLength = lengthOr(options.storageLength, frameSize);
    ByteBuffer headerBytes;
    appendPcapRecHeader(headerBytes, fileHeader);
    out.str().replace(headerAt, 16, headerBytes.str());
    if (options.cut >= 0 && static_cast<std::uint64_t>(options.cut) < frameSize) {
        out.str().resize(frameAt + static_cast<std::size_t>(options.cut));
    }
}

}  // namespace

void appendFramedRecord(ByteBuffer& out, const Framing& framing, const RecordOptions& options,
                        const std::string& logRecord, std::uint16_t ipId) {
    const std::size_t recordAt = out.size();
    appendWholeRecord(out, framing, options, logRecord, ipId);
    if (options.headerCut >= 0 && options.headerCut < 16) {
        out.str().resize(recordAt + static_cast<std::size_t>(options.headerCut));
    }
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

// ---- CaptureWriter -------------------------------------------------------

bool CaptureWriter::ensureGlobalHeader() {
    if (headerDone_) {
        return true;
    }
    headerDone_ = true;
    if (header_.mode == GlobalHeaderSettings::Mode::None) {
        return true;
    }
    ByteBuffer header;
    const std::uint32_t linkType = header_.linkType >= 0
                                       ? static_cast<std::uint32_t>(header_.linkType)
                                       : linkTypeOf(framing_.kind);
    appendGlobalHeader(header, linkType, header_.snapLength);
    std::size_t n = header.size();
    if (header_.mode == GlobalHeaderSettings::Mode::Short && header_.shortLength < n) {
        n = header_.shortLength;
    }
    return sink_.write(header.str().data(), n);
}

bool CaptureWriter::writeLogRecord(const RecordOptions& options, const std::string& logRecord) {
    if (!ensureGlobalHeader()) {
        return false;
    }
    scratch_.clear();
    appendFramedRecord(scratch_, framing_, options, logRecord, ipId_++);
    ++records_;
    return sink_.write(scratch_.str());
}

bool CaptureWriter::writeRaw(const std::string& bytes) {
    return ensureGlobalHeader() && sink_.write(bytes);
}

bool CaptureWriter::finish() {
    return ensureGlobalHeader();
}

}  // namespace binlog_synth
