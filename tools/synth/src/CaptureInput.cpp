// Reading an existing capture for --send --from.
#include "binlog_synth/CaptureInput.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "binlog_synth/Bytes.h"
#include "binlog_synth/Capture.h"

namespace binlog_synth {

namespace {

constexpr std::size_t kPcapHeaderLength = 24;
constexpr std::size_t kPcapRecordHeaderLength = 16;
constexpr std::size_t kSenderHeaderLength = 16;
constexpr std::size_t kLogHeaderLength = 16;
constexpr std::uint32_t kBlockSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kBlockInterface = 1;
constexpr std::uint32_t kBlockEnhancedPacket = 6;
constexpr std::uint32_t kByteOrderMark = 0x1A2B3C4D;
constexpr std::uint16_t kOptionTsResolution = 9;
constexpr std::size_t kMostVlanTags = 8;

std::uint16_t be16(const std::string& s, std::size_t at) {
    return static_cast<std::uint16_t>((static_cast<unsigned char>(s[at]) << 8) |
                                      static_cast<unsigned char>(s[at + 1]));
}

bool isVlanTpid(std::uint16_t type) {
    return type == kEtherTypeVlan || type == kEtherTypeQinQ || type == 0x9100;
}

}  // namespace

bool linkTypeCarriesLogs(std::uint32_t linkType) {
    switch (linkType) {
        case kLinkTypeBinLog:
        case kLinkTypeEthernet:
        case kLinkTypeLinuxSll:
        case kLinkTypeLinuxSll2:
        case kLinkTypeRaw:
        case kLinkTypeIpv4:
        case kLinkTypeIpv6:
        case kLinkTypeNull:
            return true;
        default:
            return false;
    }
}

bool udpPayloadOf(std::uint32_t linkType, const std::string& data, int port, std::string& payload) {
    const std::size_t size = data.size();
    std::size_t at = 0;
    int version = 0;  // 4 or 6; 0: from the first nibble of the IP header
    bool etherTypeKnown = false;
    std::uint16_t type = 0;
    switch (linkType) {
        case kLinkTypeEthernet:
            if (size < 14) {
                return false;
            }
            type = be16(data, 12);
            at = 14;
            etherTypeKnown = true;
            break;
        case kLinkTypeLinuxSll:
            if (size < 16) {
                return false;
            }
            type = be16(data, 14);
            at = 16;
            etherTypeKnown = true;
            break;
        case kLinkTypeLinuxSll2:
            if (size < 20) {
                return false;
            }
            type = be16(data, 0);
            at = 20;
            etherTypeKnown = true;
            break;
        case kLinkTypeRaw:
            break;
        case kLinkTypeIpv4:
            version = 4;
            break;
        case kLinkTypeIpv6:
            version = 6;
            break;
        case kLinkTypeNull:
            at = 4;  // the address family; the IP header says its version
            break;
        default:
            return false;
    }
    if (etherTypeKnown) {
        // Each tag: the TPID just read, 2 bytes of tag control, the next type.
        for (std::size_t tags = 0; isVlanTpid(type); ++tags) {
            if (tags == kMostVlanTags || at + 4 > size) {
                return false;
            }
            type = be16(data, at + 2);
            at += 4;
        }
        if (type == kEtherTypeIpv4) {
            version = 4;
        } else if (type == kEtherTypeIpv6) {
            version = 6;
        } else {
            return false;
        }
    }
    if (at >= size) {
        return false;
    }
    const int nibble = static_cast<unsigned char>(data[at]) >> 4;
    if (version == 0) {
        version = nibble;
    }
    if (version != nibble) {
        return false;
    }
    std::size_t udp = 0;
    std::size_t ipEnd = 0;
    if (version == 4) {
        if (at + 20 > size) {
            return false;
        }
        const std::size_t headerLength = 4U * (static_cast<unsigned char>(data[at]) & 0x0F);
        const std::size_t total = be16(data, at + 2);
        const std::uint16_t fragment = be16(data, at + 6);
        if (headerLength < 20 || static_cast<unsigned char>(data[at + 9]) != kProtocolUdp ||
            (fragment & 0x3FFF) != 0 || total < headerLength + 8) {
            return false;
        }
        udp = at + headerLength;
        ipEnd = at + total;
    } else if (version == 6) {
        if (at + 40 > size || static_cast<unsigned char>(data[at + 6]) != kProtocolUdp) {
            return false;
        }
        udp = at + 40;
        ipEnd = udp + be16(data, at + 4);
    } else {
        return false;
    }
    if (udp + 8 > size || udp + 8 > ipEnd) {
        return false;
    }
    const std::size_t udpLength = be16(data, udp + 4);
    if (udpLength < 8 || udp + udpLength > ipEnd || udp + udpLength > size) {
        return false;  // not a whole datagram (a cut record)
    }
    if (port >= 0 && be16(data, udp + 2) != port) {
        return false;
    }
    payload.assign(data, udp + 8, udpLength - 8);
    return true;
}

CaptureInput::~CaptureInput() {
    if (gz_ != nullptr) {
        gzclose(gz_);
    }
}

std::uint32_t CaptureInput::u32(const unsigned char* p) const {
    return big_ ? (static_cast<std::uint32_t>(p[0]) << 24) |
                      (static_cast<std::uint32_t>(p[1]) << 16) |
                      (static_cast<std::uint32_t>(p[2]) << 8) | p[3]
                : (static_cast<std::uint32_t>(p[3]) << 24) |
                      (static_cast<std::uint32_t>(p[2]) << 16) |
                      (static_cast<std::uint32_t>(p[1]) << 8) | p[0];
}

std::uint16_t CaptureInput::u16(const unsigned char* p) const {
    return static_cast<std::uint16_t>(big_ ? (p[0] << 8) | p[1] : (p[1] << 8) | p[0]);
}

int CaptureInput::read(void* into, std::size_t n, const char* what) {
    std::size_t done = 0;
    while (done < n) {
        const int got =
            gzread(gz_, static_cast<char*>(into) + done, static_cast<unsigned>(n - done));
        if (got < 0) {
            int code = 0;
            const char* text = gzerror(gz_, &code);
            error_ = name_ + ": cannot read: " + (code == Z_ERRNO ? std::strerror(errno) : text);
            return -1;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    if (done == n) {
        return 1;
    }
    if (done == 0) {
        return 0;
    }
    error_ = name_ + ": the capture ends inside " + what;
    return -1;
}

bool CaptureInput::open(const std::string& path) {
    name_ = path == "-" ? "standard input" : path;
    if (path == "-") {
        const int fd = dup(STDIN_FILENO);
        gz_ = fd >= 0 ? gzdopen(fd, "rb") : nullptr;
        if (gz_ == nullptr && fd >= 0) {
            ::close(fd);
        }
    } else {
        errno = 0;
        gz_ = gzopen(path.c_str(), "rb");
    }
    if (gz_ == nullptr) {
        error_ =
            "cannot read " + name_ + ": " + (errno != 0 ? std::strerror(errno) : "out of memory");
        return false;
    }
    unsigned char magic[4];
    const int got = read(magic, sizeof magic, "the file header");
    if (got <= 0) {
        if (got == 0) {
            error_ = name_ + ": the file is empty";
        }
        return false;
    }
    const std::uint32_t le =
        static_cast<std::uint32_t>(magic[0]) | (static_cast<std::uint32_t>(magic[1]) << 8) |
        (static_cast<std::uint32_t>(magic[2]) << 16) | (static_cast<std::uint32_t>(magic[3]) << 24);
    if (le == kBlockSectionHeader) {
        ng_ = true;
        unsigned char length[4];
        std::string body;
        if (read(length, sizeof length, "a block header") <= 0 || !readSection(length, body)) {
            if (error_.empty()) {
                error_ = name_ + ": the capture ends inside a block header";
            }
            return false;
        }
        return startSection(body);
    }
    if (le == 0xA1B2C3D4U || le == 0xA1B23C4DU) {
        big_ = false;
        nano_ = le == 0xA1B23C4DU;
    } else if (le == 0xD4C3B2A1U || le == 0x4D3CB2A1U) {
        big_ = true;
        nano_ = le == 0x4D3CB2A1U;
    } else {
        error_ = name_ + ": not a pcap or pcapng capture";
        return false;
    }
    unsigned char header[kPcapHeaderLength - 4];
    if (read(header, sizeof header, "the file header") <= 0) {
        if (error_.empty()) {
            error_ = name_ + ": the capture ends inside the file header";
        }
        return false;
    }
    linkType_ = u32(header + 16) & 0x0FFFFFFFU;
    if (!linkTypeCarriesLogs(linkType_)) {
        error_ = name_ + ": link type " + std::to_string(linkType_) + " carries no log datagrams";
        return false;
    }
    return true;
}

bool CaptureInput::startSection(const std::string& body) {
    // body: byte-order mark, version, section length, options, total length.
    const auto* p = reinterpret_cast<const unsigned char*>(body.data());
    if (body.size() < 4 || u32(p) != kByteOrderMark) {
        error_ = name_ + ": bad pcapng byte-order mark";
        return false;
    }
    interfaces_.clear();  // a section's packets name its own interfaces
    return true;
}

bool CaptureInput::readSection(const unsigned char* lengthBytes, std::string& body) {
    // The section's byte order (its mark) follows the block length, which is
    // read in that order.
    unsigned char bom[4];
    if (read(bom, sizeof bom, "a section header") <= 0) {
        if (error_.empty()) {
            error_ = name_ + ": the capture ends inside a section header";
        }
        return false;
    }
    if (bom[0] == 0x1A && bom[1] == 0x2B && bom[2] == 0x3C && bom[3] == 0x4D) {
        big_ = true;
    } else if (bom[0] == 0x4D && bom[1] == 0x3C && bom[2] == 0x2B && bom[3] == 0x1A) {
        big_ = false;
    } else {
        error_ = name_ + ": bad pcapng byte-order mark";
        return false;
    }
    const std::uint32_t length = u32(lengthBytes);
    if (length < 28 || length % 4 != 0 || length > kMostRecordBytes) {
        error_ = name_ + ": bad pcapng section header length";
        return false;
    }
    body.assign(reinterpret_cast<const char*>(bom), sizeof bom);
    std::string rest(length - 12, '\0');
    if (read(&rest[0], rest.size(), "a section header") <= 0) {
        if (error_.empty()) {
            error_ = name_ + ": the capture ends inside a section header";
        }
        return false;
    }
    body += rest;
    return true;
}

bool CaptureInput::readPcapNgBlock(std::uint32_t& type, std::string& body, bool& end) {
    end = false;
    unsigned char head[8];
    const int got = read(head, sizeof head, "a block header");
    if (got <= 0) {
        end = got == 0;
        return false;
    }
    type = u32(head);
    if (type == kBlockSectionHeader) {
        return readSection(head + 4, body);
    }
    const std::uint32_t length = u32(head + 4);
    if (length < 12 || length % 4 != 0 || length > kMostRecordBytes + 64) {
        error_ = name_ + ": bad pcapng block length " + std::to_string(length);
        return false;
    }
    body.assign(length - 8, '\0');
    if (read(&body[0], body.size(), "a block") <= 0) {
        if (error_.empty()) {
            error_ = name_ + ": the capture ends inside a block";
        }
        return false;
    }
    body.resize(length - 12);  // without the trailing length
    return true;
}

CaptureInput::Next CaptureInput::fromRecord(std::uint32_t linkType, std::uint32_t sec,
                                            std::uint32_t usec, std::uint32_t captured,
                                            std::uint32_t original, std::string& datagram) {
    ++records_;
    if (linkType == kLinkTypeBinLog) {
        if (data_.size() < kLogHeaderLength) {
            ++skipped_;
            return Next::End;  // nothing to send; the caller reads on
        }
        ByteBuffer out;
        out.u32(sec).u32(usec).u32(captured).u32(original);
        out.bytes(data_);
        datagram = out.str();
        return Next::Datagram;
    }
    if (!udpPayloadOf(linkType, data_, port_, datagram) ||
        datagram.size() < kSenderHeaderLength + kLogHeaderLength) {
        ++skipped_;
        return Next::End;
    }
    return Next::Datagram;
}

CaptureInput::Next CaptureInput::next(std::string& datagram) {
    if (gz_ == nullptr || !error_.empty()) {
        return Next::Failed;
    }
    for (;;) {
        if (!ng_) {
            unsigned char head[kPcapRecordHeaderLength];
            const int got = read(head, sizeof head, "a record header");
            if (got <= 0) {
                return got == 0 ? Next::End : Next::Failed;
            }
            const std::uint32_t sec = u32(head);
            const std::uint32_t fraction = u32(head + 4);
            const std::uint32_t captured = u32(head + 8);
            const std::uint32_t original = u32(head + 12);
            if (captured > kMostRecordBytes) {
                error_ = name_ + ": record " + std::to_string(records_ + 1) + " is too long (" +
                         std::to_string(captured) + " bytes)";
                return Next::Failed;
            }
            data_.assign(captured, '\0');
            if (captured > 0 && read(&data_[0], captured, "a record") <= 0) {
                if (error_.empty()) {
                    error_ = name_ + ": the capture ends inside a record";
                }
                return Next::Failed;
            }
            const std::uint32_t usec = nano_ ? fraction / 1000U : fraction;
            if (fromRecord(linkType_, sec, usec, captured, original, datagram) == Next::Datagram) {
                return Next::Datagram;
            }
            continue;
        }
        std::uint32_t type = 0;
        std::string body;
        bool end = false;
        if (!readPcapNgBlock(type, body, end)) {
            return end ? Next::End : Next::Failed;
        }
        const auto* p = reinterpret_cast<const unsigned char*>(body.data());
        if (type == kBlockSectionHeader) {
            if (!startSection(body)) {
                return Next::Failed;
            }
        } else if (type == kBlockInterface) {
            if (body.size() < 8) {
                error_ = name_ + ": interface block too short";
                return Next::Failed;
            }
            Interface iface;
            iface.linkType = u16(p);
            // Options: code, length, value padded to 4 bytes.
            for (std::size_t at = 8; at + 4 <= body.size();) {
                const std::uint16_t code = u16(p + at);
                const std::uint16_t length = u16(p + at + 2);
                if (code == 0 || at + 4 + length > body.size()) {
                    break;
                }
                if (code == kOptionTsResolution && length >= 1) {
                    const unsigned char r = p[at + 4];
                    const unsigned exponent = r & 0x7F;
                    std::uint64_t units = 1;
                    for (unsigned i = 0; i < exponent && units <= UINT64_MAX / 10; ++i) {
                        units *= (r & 0x80) != 0 ? 2 : 10;
                    }
                    iface.unitsPerSecond = units;
                }
                at += 4 + (length + 3U) / 4U * 4U;
            }
            interfaces_.push_back(iface);
        } else if (type == kBlockEnhancedPacket) {
            if (body.size() < 20) {
                error_ = name_ + ": packet block too short";
                return Next::Failed;
            }
            const std::uint32_t id = u32(p);
            const std::uint64_t stamp = (static_cast<std::uint64_t>(u32(p + 4)) << 32) | u32(p + 8);
            const std::uint32_t captured = u32(p + 12);
            const std::uint32_t original = u32(p + 16);
            if (id >= interfaces_.size() || captured > body.size() - 20) {
                error_ = name_ + ": bad packet block (interface " + std::to_string(id) + ", " +
                         std::to_string(captured) + " bytes)";
                return Next::Failed;
            }
            const Interface& iface = interfaces_[id];
            data_.assign(body, 20, captured);
            const std::uint64_t units = iface.unitsPerSecond;
            const std::uint64_t whole = stamp / units;
            const std::uint64_t rest = stamp % units;
            const auto usec = static_cast<std::uint32_t>(static_cast<long double>(rest) * 1e6L /
                                                         static_cast<long double>(units));
            if (linkTypeCarriesLogs(iface.linkType) &&
                fromRecord(iface.linkType, static_cast<std::uint32_t>(whole), usec, captured,
                           original, datagram) == Next::Datagram) {
                return Next::Datagram;
            }
            if (!linkTypeCarriesLogs(iface.linkType)) {
                ++records_;
                ++skipped_;
            }
        }
        // Other blocks carry no packets.
    }
}

}  // namespace binlog_synth
