#include "PcapWriter.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>

namespace wexbl_test {

// ---- ByteBuilder -------------------------------------------------------------

ByteBuilder& ByteBuilder::u8(std::uint8_t v) {
    data_.push_back(static_cast<char>(v));
    return *this;
}

ByteBuilder& ByteBuilder::u16(std::uint16_t v) {
    u8(static_cast<std::uint8_t>(v & 0xFF));
    return u8(static_cast<std::uint8_t>(v >> 8));
}

ByteBuilder& ByteBuilder::u32(std::uint32_t v) {
    u16(static_cast<std::uint16_t>(v & 0xFFFF));
    return u16(static_cast<std::uint16_t>(v >> 16));
}

ByteBuilder& ByteBuilder::u64(std::uint64_t v) {
    u32(static_cast<std::uint32_t>(v & 0xFFFFFFFFu));
    return u32(static_cast<std::uint32_t>(v >> 32));
}

ByteBuilder& ByteBuilder::be16(std::uint16_t v) {
    u8(static_cast<std::uint8_t>(v >> 8));
    return u8(static_cast<std::uint8_t>(v & 0xFF));
}

ByteBuilder& ByteBuilder::be32(std::uint32_t v) {
    be16(static_cast<std::uint16_t>(v >> 16));
    return be16(static_cast<std::uint16_t>(v & 0xFFFF));
}

ByteBuilder& ByteBuilder::fixedString(const std::string& text, std::size_t size) {
    std::string field = text.substr(0, size);
    field.resize(size, '\0');
    data_ += field;
    return *this;
}

ByteBuilder& ByteBuilder::varBinary(const std::string& bytes) {
    return varBinary(static_cast<std::uint16_t>(bytes.size()), bytes);
}

ByteBuilder& ByteBuilder::varBinary(std::uint16_t count, const std::string& bytes) {
    u16(count);
    data_ += bytes;
    return *this;
}

ByteBuilder& ByteBuilder::bytes(const std::string& raw) {
    data_ += raw;
    return *this;
}

ByteBuilder& ByteBuilder::bytes(std::initializer_list<std::uint8_t> raw) {
    for (std::uint8_t b : raw) {
        u8(b);
    }
    return *this;
}

ByteBuilder& ByteBuilder::fill(std::size_t n, std::uint8_t byte) {
    data_.append(n, static_cast<char>(byte));
    return *this;
}

// ---- Record headers ------------------------------------------------------------

Tav::BinLogHeader makeBinLogHeader(std::uint32_t packetType, std::uint32_t logId,
                                   std::uint16_t logLevel, std::uint16_t logVersion,
                                   std::uint32_t seqNo) {
    Tav::BinLogHeader header;
    header.packetType = packetType;
    header.logId = logId;
    header.logLevel = logLevel;
    header.logVersion = logVersion;
    header.seqNo = seqNo;
    return header;
}

std::string encodeBinLogHeader(const Tav::BinLogHeader& header) {
    return ByteBuilder()
        .u32(header.packetType)
        .u32(header.logId)
        .u16(header.logLevel)
        .u16(header.logVersion)
        .u32(header.seqNo)
        .str();
}

std::string encodePcapRecHeader(const Tav::PcapRecHeader& header) {
    return ByteBuilder()
        .u32(header.tsSec)
        .u32(header.tsUsec)
        .u32(header.capturedLength)
        .u32(header.storageLength)
        .str();
}

std::string encodeGlobalHeader(std::uint32_t linkType, std::uint32_t snapLength) {
    return ByteBuilder()
        .u32(0xA1B2C3D4u)  // microsecond time stamps, written in host (little-endian) order
        .u16(2)
        .u16(4)
        .i32(0)
        .u32(0)
        .u32(snapLength)
        .u32(linkType)
        .str();
}

std::string makeLogRecord(const Tav::BinLogHeader& header, const std::string& payload) {
    return encodeBinLogHeader(header) + payload;
}

// ---- Ethernet framing ------------------------------------------------------------

namespace {

// One's-complement sum of 16-bit big-endian words, as used by IP and UDP.
std::uint32_t addWords(std::uint32_t sum, const std::string& bytes) {
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        std::uint32_t word = static_cast<std::uint8_t>(bytes[i]) << 8;
        if (i + 1 < bytes.size()) {
            word |= static_cast<std::uint8_t>(bytes[i + 1]);
        }
        sum += word;
    }
    return sum;
}

std::uint16_t foldChecksum(std::uint32_t sum) {
    while ((sum >> 16) != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

const std::string kIpv4Source("\xC0\x00\x02\x01", 4);       // 192.0.2.1
const std::string kIpv4Destination("\xC0\x00\x02\x02", 4);  // 192.0.2.2
const std::string kIpv6Source("\x20\x01\x0D\xB8\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x01",
                              16);  // 2001:db8::1
const std::string kIpv6Destination(
    "\x20\x01\x0D\xB8\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02", 16);  // 2001:db8::2

}  // namespace

Tav::PcapRecHeader makeSenderHeader(std::uint32_t tsSec, std::uint32_t tsUsec,
                                    const std::string& logRecord) {
    Tav::PcapRecHeader header;
    header.tsSec = tsSec;
    header.tsUsec = tsUsec;
    header.capturedLength = static_cast<std::uint32_t>(logRecord.size());
    header.storageLength = static_cast<std::uint32_t>(logRecord.size());
    return header;
}

std::string makeEthernetFrame(const UdpFraming& framing, const std::string& udpPayload) {
    const bool v4 = framing.ip == IpVersion::V4;
    const std::uint16_t etherType =
        framing.etherType != 0 ? framing.etherType : (v4 ? kEtherTypeIpv4 : kEtherTypeIpv6);
    const std::uint16_t udpLength = static_cast<std::uint16_t>(8 + udpPayload.size());

    // UDP checksum over the pseudo-header, the UDP header and the payload.
    const std::string& source = v4 ? kIpv4Source : kIpv6Source;
    const std::string& destination = v4 ? kIpv4Destination : kIpv6Destination;
    std::uint32_t sum = addWords(0, source);
    sum = addWords(sum, destination);
    sum += framing.protocol;
    sum += udpLength;
    const std::string udpHeaderNoSum =
        ByteBuilder().be16(framing.srcPort).be16(framing.dstPort).be16(udpLength).be16(0).str();
    sum = addWords(sum, udpHeaderNoSum);
    sum = addWords(sum, udpPayload);
    std::uint16_t udpChecksum = foldChecksum(sum);
    if (udpChecksum == 0) {
        udpChecksum = 0xFFFF;
    }

    ByteBuilder frame;
    frame.bytes({0x02, 0x00, 0x00, 0x00, 0x00, 0x02});  // destination MAC
    frame.bytes({0x02, 0x00, 0x00, 0x00, 0x00, 0x01});  // source MAC
    frame.be16(etherType);
    if (v4) {
        ByteBuilder ip;
        ip.u8(0x45).u8(0).be16(static_cast<std::uint16_t>(20 + udpLength));
        ip.be16(0).be16(0x4000).u8(64).u8(framing.protocol);
        const std::size_t checksumAt = ip.size();
        ip.be16(0).bytes(source).bytes(destination);
        std::string ipHeader = ip.str();
        const std::uint16_t ipChecksum = foldChecksum(addWords(0, ipHeader));
        ipHeader[checksumAt] = static_cast<char>(ipChecksum >> 8);
        ipHeader[checksumAt + 1] = static_cast<char>(ipChecksum & 0xFF);
        frame.bytes(ipHeader);
    } else {
        frame.be32(0x60000000u).be16(udpLength).u8(framing.protocol).u8(64);
        frame.bytes(source).bytes(destination);
    }
    frame.be16(framing.srcPort).be16(framing.dstPort).be16(udpLength).be16(udpChecksum);
    frame.bytes(udpPayload);
    return frame.str();
}

std::string makeEthernetLogFrame(const UdpFraming& framing, const Tav::PcapRecHeader& sender,
                                 const std::string& logRecord) {
    return makeEthernetFrame(framing, encodePcapRecHeader(sender) + logRecord);
}

// ---- PcapWriter ------------------------------------------------------------------

PcapWriter::PcapWriter(std::uint32_t linkType, UdpFraming framing)
    : linkType_(linkType), framing_(framing), bytes_(encodeGlobalHeader(linkType)) {}

PcapWriter PcapWriter::headerless() {
    return PcapWriter(Headerless{});
}

PcapWriter& PcapWriter::setFraming(const UdpFraming& framing) {
    framing_ = framing;
    return *this;
}

PcapWriter& PcapWriter::record(std::uint32_t tsSec, std::uint32_t tsUsec, const std::string& data) {
    Tav::PcapRecHeader header;
    header.tsSec = tsSec;
    header.tsUsec = tsUsec;
    header.capturedLength = static_cast<std::uint32_t>(data.size());
    header.storageLength = static_cast<std::uint32_t>(data.size());
    return record(header, data);
}

PcapWriter& PcapWriter::record(const Tav::PcapRecHeader& header, const std::string& data) {
    bytes_ += encodePcapRecHeader(header);
    bytes_ += data;
    return *this;
}

PcapWriter& PcapWriter::log(std::uint32_t tsSec, std::uint32_t tsUsec,
                            const Tav::BinLogHeader& header, const std::string& payload) {
    const std::string logRecord = makeLogRecord(header, payload);
    if (linkType_ == kLinkTypeEthernet) {
        return ethernetLog(tsSec, tsUsec, framing_, makeSenderHeader(tsSec, tsUsec, logRecord),
                           logRecord);
    }
    return record(tsSec, tsUsec, logRecord);
}

PcapWriter& PcapWriter::ethernetLog(std::uint32_t captureSec, std::uint32_t captureUsec,
                                    const UdpFraming& framing, const Tav::PcapRecHeader& sender,
                                    const std::string& logRecord) {
    return record(captureSec, captureUsec, makeEthernetLogFrame(framing, sender, logRecord));
}

PcapWriter& PcapWriter::raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
}

bool PcapWriter::writePlain(const std::string& path) const {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    const bool written =
        bytes_.empty() || std::fwrite(bytes_.data(), 1, bytes_.size(), file) == bytes_.size();
    const bool closed = std::fclose(file) == 0;
    return written && closed;
}

bool PcapWriter::writeGzip(const std::string& path) const {
    gzFile file = gzopen(path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    bool written = true;
    std::size_t done = 0;
    while (written && done < bytes_.size()) {
        const std::size_t chunk = std::min<std::size_t>(bytes_.size() - done, 1u << 20);
        const int n = gzwrite(file, bytes_.data() + done, static_cast<unsigned>(chunk));
        written = n > 0 && static_cast<std::size_t>(n) == chunk;
        done += chunk;
    }
    const bool closed = gzclose(file) == Z_OK;
    return written && closed;
}

bool PcapWriter::write(const std::string& path) const {
    const std::string suffix = ".gz";
    const bool gz = path.size() >= suffix.size() &&
                    path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
    return gz ? writeGzip(path) : writePlain(path);
}

}  // namespace wexbl_test
