// Fuzzes the capture path: a whole capture, plain or gzip-compressed, in any
// format and framing the capture layer reads, decoded against the example
// dictionary, all in memory.
//
// Every input is read by readBinaryFiledata, by a strict CaptureStream and
// by a CaptureStream that reads every format, and the readings that must
// agree are compared (a difference aborts):
//   - readBinaryFiledata, through an anonymous in-memory file opened by its
//     /proc/self/fd name, printing to a memory stream; what it writes to
//     stderr is collected by swapping the stdio stream stderr for a memory
//     stream around the call (descriptor 2 is left alone);
//   - a strict CaptureStream over the same bytes in memory: its record texts
//     and Output event texts must be exactly what readBinaryFiledata printed
//     to its stream, its Error event texts exactly what it printed to stderr;
//   - the JSON of every record of a capture stream, as its decoder writes it
//     from the payload, must equal the JSON written from the fields of a
//     copy of the record;
//   - the same stream read by two workers (ParallelStream), their lines
//     written in place (and taken with those that follow them in one piece)
//     or, for inputs of odd length, appended by a render function: the same
//     records and events in the same order as the stream read alone (the
//     statistics summary too: the whole capture is read);
//   - a CaptureStream that reads every format (not strict). Where the harness
//     knows what the capture holds, it must give what a strict stream gives
//     for the same records written as a little-endian microsecond pcap
//     (without its Note events, which only tell what readBinaryFiledata
//     would not read): for pcapng, nanosecond or big-endian captures the
//     harness made, for the framings it converted the Ethernet frames to,
//     for records it put behind a little-endian microsecond header when both
//     read their framing alike, and for any little-endian microsecond pcap
//     of link type 150.
//
// Input: one control byte, then the file body.
//   bit 4: the body is written as it is: it is the whole file, and the reader
//          meets whatever it holds, a plain capture or a gzip stream, valid,
//          truncated or corrupt. Bits 0 to 2 and 5 to 7 are then ignored.
//   bit 0: gzip the file (a valid stream around the body).
//   bit 1: link type 1 (else 150) for the global header the harness writes;
//   bit 2: the body is a whole file including its own global header (bits 5
//          to 7 are then ignored).
//   bit 3: statistics on.
//   bits 5 to 7: 0 for a little-endian microsecond pcap header before the
//          body. Otherwise an extension byte follows the control byte, and
//          the body is read as little-endian pcap records (16-byte header,
//          storageLength bytes) that the harness writes again as
//            1 pcap, nanoseconds          5 pcapng, big-endian
//            2 pcap, big-endian           6 pcap (as with 0, but with the
//            3 pcap, nanoseconds, big-      extension byte's framings)
//              endian                     7 pcapng, time stamps in units of
//            4 pcapng, little-endian        2^-20 s
// Extension byte:
//   bits 0 to 2: framing. 0: as the records are, link type by bit 1. Else each
//          record is taken as an Ethernet frame and rewritten:
//            1 Ethernet with an 802.1Q tag     5 raw IP (101)
//            2 Ethernet with two tags          6 raw IPv4 (228); with bit 3
//            3 Linux cooked v1 (113)             raw IPv6 (229)
//            4 Linux cooked v2 (276)           7 BSD loopback (0)
//   bit 3: framing 2: an outer tag 0x9100 (else 0x88a8); 6: link type 229;
//          7: the address family in big-endian order.
//   bits 4 and 5 (pcapng): 0 enhanced packet blocks, 1 simple packet blocks,
//          2 obsolete packet blocks, 3 enhanced packet blocks, each after a
//          block of an unknown type that the reader skips.
//   bit 6 (pcapng): the interface has a time offset of 3600 s.
//   bit 7 (pcapng formats 4 and 5): time stamps in nanoseconds.
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Format.h"
#include "WexOamBinLogXmlReader/ParallelStream.h"

namespace {

constexpr std::uint8_t kGzip = 1;
constexpr std::uint8_t kEthernet = 2;
constexpr std::uint8_t kWholeFile = 4;
constexpr std::uint8_t kStats = 8;
constexpr std::uint8_t kAsIs = 16;
constexpr unsigned kFormatShift = 5;

enum Format : unsigned {
    kPcapAsBody = 0,
    kPcapNano = 1,
    kPcapBigEndian = 2,
    kPcapNanoBigEndian = 3,
    kPcapNg = 4,
    kPcapNgBigEndian = 5,
    kPcapMicro = 6,
    kPcapNgBinary = 7,
};

enum Framing : unsigned {
    kAsRecorded = 0,
    kVlan = 1,
    kTwoTags = 2,
    kLinuxSll = 3,
    kLinuxSll2 = 4,
    kRawIp = 5,
    kRawIpVersion = 6,
    kLoopback = 7,
};

constexpr std::uint8_t kExtensionVariant = 8;
constexpr unsigned kBlockKindShift = 4;
constexpr std::uint8_t kTimeOffset = 64;
constexpr std::uint8_t kNanoseconds = 128;
constexpr std::uint32_t kMaxRecordLength = 25000;

// ---- Byte helpers ------------------------------------------------------------------------

void putU16(std::string& out, std::uint16_t value, bool bigEndian) {
    const char bytes[2] = {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
    if (bigEndian) {
        out.push_back(bytes[1]);
        out.push_back(bytes[0]);
    } else {
        out.append(bytes, 2);
    }
}

void putU32(std::string& out, std::uint32_t value, bool bigEndian) {
    for (int i = 0; i < 4; ++i) {
        const int shift = 8 * (bigEndian ? 3 - i : i);
        out.push_back(static_cast<char>((value >> shift) & 0xFF));
    }
}

std::uint32_t getU32(const std::string& bytes, size_t at) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes[at + i]);
    }
    return value;
}

unsigned byteAt(const std::string& bytes, size_t at) {
    return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

unsigned u16be(const std::string& bytes, size_t at) {
    return byteAt(bytes, at) << 8 | byteAt(bytes, at + 1);
}

/// A pcap file header: magic `magic` in the file's byte order, link type `link`.
std::string pcapHeader(std::uint32_t magic, std::uint32_t link, bool bigEndian) {
    std::string out;
    putU32(out, magic, bigEndian);
    putU16(out, 2, bigEndian);
    putU16(out, 4, bigEndian);
    putU32(out, 0, bigEndian);
    putU32(out, 0, bigEndian);
    putU32(out, 65535, bigEndian);
    putU32(out, link, bigEndian);
    return out;
}

std::string gzipped(const std::string& bytes) {
    uLongf size = compressBound(static_cast<uLong>(bytes.size())) + 64;
    std::string out(size, '\0');
    z_stream stream{};
    // windowBits 15 + 16: a gzip wrapper.
    if (deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        abort();
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        fprintf(stderr, "fuzz_capture: gzip failed\n");
        abort();
    }
    return out;
}

// ---- The records of a body ---------------------------------------------------------------

struct BodyRecord {
    std::uint32_t tsSec = 0;
    std::uint32_t tsFraction = 0;  // microseconds or nanoseconds, as the format says
    std::uint32_t capturedLength = 0;
    std::uint32_t storageLength = 0;
    std::string data;  // the record bytes present (all of them when complete)
    bool complete = false;
};

/// The body read as little-endian pcap records; `tail` gets the bytes after
/// the last complete record when they are too few for a record header.
/// True when every record is complete and within the largest record length.
bool parseRecords(const std::string& body, std::vector<BodyRecord>& records, std::string& tail) {
    size_t pos = 0;
    bool clean = true;
    while (body.size() - pos >= 16) {
        BodyRecord record;
        record.tsSec = getU32(body, pos);
        record.tsFraction = getU32(body, pos + 4);
        record.capturedLength = getU32(body, pos + 8);
        record.storageLength = getU32(body, pos + 12);
        const size_t available = body.size() - pos - 16;
        const size_t taken = record.storageLength < available ? record.storageLength : available;
        record.data = body.substr(pos + 16, taken);
        record.complete = taken == record.storageLength;
        clean = clean && record.complete && record.storageLength <= kMaxRecordLength;
        records.push_back(record);
        pos += 16 + taken;
        if (!record.complete) {
            return false;
        }
    }
    tail = body.substr(pos);
    return clean;
}

bool isVlanTag(unsigned etherType) {
    return etherType == 0x8100 || etherType == 0x88A8 || etherType == 0x9100;
}

bool isIpv6Extension(unsigned nextHeader) {
    return nextHeader == 0 || nextHeader == 43 || nextHeader == 44 || nextHeader == 60;
}

/// An Ethernet frame that a reader of every framing reads at the fixed
/// offsets of the original loop (so both modes give the same record).
bool sameInBothModes(const std::string& frame) {
    const unsigned etherType = u16be(frame, 12);
    if (isVlanTag(etherType)) {
        return false;
    }
    if (etherType == 0x0800 && (byteAt(frame, 14) & 0x0F) > 5) {
        return false;
    }
    return !(etherType == 0x86DD && frame.size() > 20 && isIpv6Extension(byteAt(frame, 20)));
}

/// True when every Ethernet frame of the body's records that a reader gets
/// to (up to a record cut short or too long, where reading stops) is read
/// alike by a strict reader and a reader of every framing.
bool readAlikeInBothModes(const std::string& body) {
    std::vector<BodyRecord> records;
    std::string tail;
    parseRecords(body, records, tail);
    for (const BodyRecord& record : records) {
        if (!record.complete || record.storageLength > kMaxRecordLength) {
            break;
        }
        if (!sameInBothModes(record.data)) {
            return false;
        }
    }
    return true;
}

/// An Ethernet frame whose IP datagram is read alike behind any link
/// header: IPv4 with a 20-byte header and no fragment offset, or IPv6
/// without extension headers, with the whole UDP header present (the fixed
/// framing reads missing bytes as zero, the others call the record short).
/// `ipv4Only` / `ipv6Only`: the link type carries one IP version only.
bool plainFrame(const std::string& frame, bool ipv4Only, bool ipv6Only) {
    const unsigned etherType = u16be(frame, 12);
    if (etherType == 0x0800) {
        return !ipv6Only && frame.size() >= 42 && byteAt(frame, 14) == 0x45 &&
               (u16be(frame, 20) & 0x1FFF) == 0;
    }
    if (etherType == 0x86DD) {
        return !ipv4Only && frame.size() >= 62 && (byteAt(frame, 14) >> 4) == 6 &&
               !isIpv6Extension(byteAt(frame, 20));
    }
    return false;
}

/// The file a variant input describes, and the little-endian microsecond
/// pcap of the same records that a strict stream must read alike (empty when
/// the harness cannot tell).
struct Variant {
    std::string file;
    std::string reference;
};

/// An Ethernet frame rewritten in the framing `framing` (frames too short for
/// an Ethernet header stay as they are).
std::string reframe(const std::string& frame, unsigned framing, std::uint8_t extension,
                    size_t index) {
    if (framing == kAsRecorded || frame.size() < 14) {
        return frame;
    }
    const std::string macs = frame.substr(0, 12);
    const std::string etherType = frame.substr(12, 2);
    const std::string ip = frame.substr(14);
    std::string out;
    switch (framing) {
        case kVlan:
            return macs + std::string("\x81\x00\x00\x05", 4) + etherType + ip;
        case kTwoTags:
            out = macs;
            out += (extension & kExtensionVariant) ? std::string("\x91\x00", 2)
                                                   : std::string("\x88\xa8", 2);
            out += std::string("\x00\x07\x81\x00\x00\x05", 6);
            return out + etherType + ip;
        case kLinuxSll:
            // Packet type, ARPHRD_ETHER, address length, address (8), protocol.
            out = std::string("\x00\x00\x00\x01\x00\x06", 6) + frame.substr(6, 6);
            out += std::string(2, '\0');
            return out + etherType + ip;
        case kLinuxSll2:
            // Protocol, reserved, interface index, ARPHRD_ETHER, packet type,
            // address length, address (8).
            out = etherType + std::string("\x00\x00\x00\x00\x00\x01\x00\x01\x00\x06", 10);
            out += frame.substr(6, 6) + std::string(2, '\0');
            return out + ip;
        case kRawIp:
        case kRawIpVersion:
            return ip;
        case kLoopback: {
            // AF_INET 2; for IPv6 the families of several systems, in turn.
            static const std::uint32_t kIpv6Families[] = {10, 24, 28, 30};
            const std::uint32_t family = u16be(frame, 12) == 0x0800 ? 2 : kIpv6Families[index % 4];
            putU32(out, family, (extension & kExtensionVariant) != 0);
            return out + ip;
        }
        default:
            return frame;
    }
}

std::uint32_t linkTypeOf(unsigned framing, std::uint8_t control, std::uint8_t extension) {
    switch (framing) {
        case kAsRecorded:
            return (control & kEthernet) ? 1 : 150;
        case kLinuxSll:
            return 113;
        case kLinuxSll2:
            return 276;
        case kRawIp:
            return 101;
        case kRawIpVersion:
            return (extension & kExtensionVariant) ? 229 : 228;
        case kLoopback:
            return 0;
        default:
            return 1;
    }
}

void putBlock(std::string& out, std::uint32_t type, const std::string& body, bool bigEndian) {
    const std::uint32_t length = static_cast<std::uint32_t>(12 + body.size());
    putU32(out, type, bigEndian);
    putU32(out, length, bigEndian);
    out += body;
    putU32(out, length, bigEndian);
}

std::string padded4(std::string bytes) {
    bytes.append((4 - bytes.size() % 4) % 4, '\0');
    return bytes;
}

Variant makeVariant(std::uint8_t control, std::uint8_t extension, const std::string& body) {
    const unsigned format = control >> kFormatShift;
    const unsigned framing = extension & 7u;
    const bool pcapng = format == kPcapNg || format == kPcapNgBigEndian || format == kPcapNgBinary;
    const bool bigEndian =
        format == kPcapBigEndian || format == kPcapNanoBigEndian || format == kPcapNgBigEndian;
    const std::uint32_t link = linkTypeOf(framing, control, extension);

    std::vector<BodyRecord> records;
    std::string tail;
    bool comparable = parseRecords(body, records, tail);
    std::vector<std::string> frames;
    for (size_t i = 0; i < records.size(); ++i) {
        const std::string& frame = records[i].data;
        if (framing == kAsRecorded) {
            comparable = comparable && (link == 150 || sameInBothModes(frame));
        } else {
            const bool ipv4Only = framing == kRawIpVersion && link == 228;
            const bool ipv6Only = framing == kRawIpVersion && link == 229;
            comparable = comparable && plainFrame(frame, ipv4Only, ipv6Only);
        }
        frames.push_back(records[i].complete ? reframe(frame, framing, extension, i) : frame);
        // A link header longer than Ethernet's may push a record over the
        // largest record length.
        comparable = comparable && frames.back().size() <= kMaxRecordLength;
    }

    // pcapng time stamps: resolution and offset of the interface.
    const unsigned blockKind = (extension >> kBlockKindShift) & 3u;
    const bool nanoseconds =
        format == kPcapNano || format == kPcapNanoBigEndian ||
        ((format == kPcapNg || format == kPcapNgBigEndian) && (extension & kNanoseconds) != 0);
    const std::uint32_t timeOffset = pcapng && (extension & kTimeOffset) != 0 ? 3600 : 0;

    Variant variant;
    std::string& out = variant.file;
    std::string reference = pcapHeader(0xA1B2C3D4, framing == kAsRecorded ? link : 1, false);
    if (!pcapng) {
        out = pcapHeader(nanoseconds ? 0xA1B23C4D : 0xA1B2C3D4, link, bigEndian);
    } else {
        std::string section;
        putU32(section, 0x1A2B3C4D, bigEndian);
        putU16(section, 1, bigEndian);
        putU16(section, 0, bigEndian);
        putU32(section, 0xFFFFFFFF, bigEndian);
        putU32(section, 0xFFFFFFFF, bigEndian);
        putBlock(out, 0x0A0D0D0A, section, bigEndian);
        std::string interface;
        putU16(interface, static_cast<std::uint16_t>(link), bigEndian);
        putU16(interface, 0, bigEndian);
        putU32(interface, 0, bigEndian);  // no snap length
        if (nanoseconds || format == kPcapNgBinary) {
            putU16(interface, 9, bigEndian);  // if_tsresol
            putU16(interface, 1, bigEndian);
            interface += padded4(std::string(1, nanoseconds ? '\x09' : '\x94'));
        }
        if (timeOffset != 0) {
            putU16(interface, 14, bigEndian);  // if_tsoffset
            putU16(interface, 8, bigEndian);
            putU32(interface, bigEndian ? 0 : timeOffset, bigEndian);
            putU32(interface, bigEndian ? timeOffset : 0, bigEndian);
        }
        putU32(interface, 0, bigEndian);  // opt_endofopt
        putBlock(out, 1, interface, bigEndian);
    }

    for (size_t i = 0; i < records.size(); ++i) {
        const BodyRecord& record = records[i];
        const std::string& frame = frames[i];
        const std::uint32_t length = static_cast<std::uint32_t>(frame.size());
        // What a reader of every format makes of the record's header.
        std::uint32_t seconds = record.tsSec;
        std::uint32_t micros = record.tsFraction;
        std::uint32_t captured = record.capturedLength;
        if (!pcapng) {
            putU32(out, record.tsSec, bigEndian);
            putU32(out, record.tsFraction, bigEndian);
            putU32(out, record.capturedLength, bigEndian);
            putU32(out, record.complete ? length : record.storageLength, bigEndian);
            out += frame;
            micros = nanoseconds ? record.tsFraction / 1000 : record.tsFraction;
        } else {
            std::uint64_t stamp;
            if (format == kPcapNgBinary) {
                stamp =
                    static_cast<std::uint64_t>(record.tsSec) << 20 | (record.tsFraction & 0xFFFFFu);
                seconds = record.tsSec + timeOffset;
                micros = static_cast<std::uint32_t>(
                    (static_cast<std::uint64_t>(record.tsFraction & 0xFFFFFu) * 1000000) >> 20);
            } else if (nanoseconds) {
                stamp = static_cast<std::uint64_t>(record.tsSec) * 1000000000 + record.tsFraction;
                seconds = static_cast<std::uint32_t>(record.tsSec +
                                                     record.tsFraction / 1000000000u + timeOffset);
                micros = record.tsFraction % 1000000000u / 1000;
            } else {
                stamp = static_cast<std::uint64_t>(record.tsSec) * 1000000 + record.tsFraction;
                seconds = static_cast<std::uint32_t>(record.tsSec + record.tsFraction / 1000000u +
                                                     timeOffset);
                micros = record.tsFraction % 1000000u;
            }
            // A record cut short keeps the length it claims: the block ends
            // early.
            const std::uint32_t claimed = record.complete ? length : record.storageLength;
            std::string packet;
            std::uint32_t type = 6;
            if (blockKind == 1) {
                type = 3;
                putU32(packet, claimed, bigEndian);
                seconds = 0;
                micros = 0;
                captured = length;
            } else {
                type = blockKind == 2 ? 2 : 6;
                if (type == 2) {
                    putU16(packet, 0, bigEndian);
                    putU16(packet, 0, bigEndian);
                } else {
                    putU32(packet, 0, bigEndian);
                }
                putU32(packet, static_cast<std::uint32_t>(stamp >> 32), bigEndian);
                putU32(packet, static_cast<std::uint32_t>(stamp), bigEndian);
                putU32(packet, claimed, bigEndian);
                putU32(packet, record.capturedLength, bigEndian);
            }
            if (blockKind == 3) {
                putBlock(out, 0x00000BAD, std::string("skip", 4), bigEndian);
            }
            if (record.complete) {
                putBlock(out, type, packet + padded4(frame), bigEndian);
            } else {
                const std::uint32_t blockLength =
                    static_cast<std::uint32_t>(12 + packet.size() + ((claimed + 3ull) & ~3ull));
                putU32(out, type, bigEndian);
                putU32(out, blockLength, bigEndian);
                out += packet + frame;
            }
        }
        putU32(reference, seconds, false);
        putU32(reference, micros, false);
        putU32(reference, captured, false);
        putU32(reference, static_cast<std::uint32_t>(record.data.size()), false);
        reference += record.data;
    }
    if (!pcapng) {
        out += tail;
    }
    if (comparable) {
        variant.reference = reference;
    }
    return variant;
}

// ---- The routes ---------------------------------------------------------------------------

/// The anonymous in-memory file readBinaryFiledata reads, by its
/// /proc/self/fd name. It has no name in any directory, so nothing is left
/// behind however the run ends.
class MemoryCaptureFile {
  public:
    MemoryCaptureFile() : fd_(memfd_create("wexbl-fuzz-capture", MFD_CLOEXEC)) {
        if (fd_ < 0) {
            perror("fuzz_capture: memfd_create");
            abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~MemoryCaptureFile() { close(fd_); }
    MemoryCaptureFile(const MemoryCaptureFile&) = delete;
    MemoryCaptureFile& operator=(const MemoryCaptureFile&) = delete;

    const std::string& path() const { return path_; }

    void write(const std::string& bytes) {
        if (ftruncate(fd_, 0) != 0 ||
            pwrite(fd_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            perror("fuzz_capture: writing the capture");
            abort();
        }
    }

  private:
    int fd_;
    std::string path_;
};

struct Printed {
    std::string out;
    std::string err;
    Tav::CaptureFormat format = Tav::CaptureFormat::Unknown;
    std::uint32_t linkType = 0;
};

Printed readWithReader(Tav::BinaryLogXmlReader& reader, const std::string& bytes) {
    static MemoryCaptureFile file;
    file.write(bytes);
    // Statistics of a capture that ended on damage carry over into the next
    // one; every input starts afresh, as a stream does.
    reader.statsCollector = Tav::BinaryLogStatsCollector();
    Printed printed;
    wexbl_fuzz::MemoryFile out;
    {
        wexbl_fuzz::StderrToMemory err;
        reader.readBinaryFiledata(file.path(), 0, out.file());
        printed.err = err.stop();
    }
    printed.out = out.text();
    wexbl_fuzz::trimLevels(reader);
    return printed;
}

Tav::StreamOptions streamOptions(const Tav::BinaryLogXmlReader& reader, bool strict,
                                 bool fastInflate) {
    Tav::StreamOptions options;
    options.udpPort = reader.udpPort;
    options.maxVarBinaryBytes = reader.maxVarBinaryBytes;
    options.stats = reader.statsEnabled;
    options.strict = strict;
    options.fastInflate = fastInflate;
    return options;
}

/// A copy of `bytes` of exactly their size, so that a read past them is
/// caught.
std::unique_ptr<unsigned char[]> exactCopy(const std::string& bytes) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[bytes.size()]);
    memcpy(copy.get(), bytes.data(), bytes.size());
    return copy;
}

/// Reads `bytes` with a capture stream; Note events are left out with
/// `withoutNotes`.
Printed readWithStream(const Tav::BinaryLogXmlReader& reader, const std::string& bytes, bool strict,
                       bool withoutNotes, bool fastInflate = false) {
    const std::unique_ptr<unsigned char[]> copy = exactCopy(bytes);
    Tav::CaptureStream stream(reader, "fuzz.pcap", copy.get(), bytes.size(),
                              streamOptions(reader, strict, fastInflate));
    Printed printed;
    while (stream.next()) {
        if (const Tav::Record* record = stream.record()) {
            printed.out.append(record->text.data(), record->text.size());
            // The record's JSON as its decoder writes it from the payload,
            // and as written from the fields of a copy: the same.
            std::string own;
            Tav::appendJson(own, *record);
            const Tav::Record copied = *record;
            std::string fromFields;
            Tav::appendJson(fromFields, copied);
            if (own != fromFields) {
                wexbl_fuzz::mismatch("JSON from the payload and from the fields", fromFields, own);
            }
            continue;
        }
        const Tav::Event* event = stream.event();
        if (withoutNotes && event->kind == Tav::EventKind::Note) {
            continue;
        }
        (event->stream == Tav::EventStream::Output ? printed.out : printed.err)
            .append(event->text.data(), event->text.size());
    }
    printed.format = stream.format();
    printed.linkType = stream.linkType();
    return printed;
}

/// Reads `bytes` with a strict capture stream whose records two workers
/// decode: their lines written in place, or appended by `render`.
Printed readInParallel(const Tav::BinaryLogXmlReader& reader, const std::string& bytes,
                       bool withRender) {
    const std::unique_ptr<unsigned char[]> copy = exactCopy(bytes);
    Tav::CaptureStream stream(reader, "fuzz.pcap", copy.get(), bytes.size(),
                              streamOptions(reader, true, false));
    Tav::ParallelStream::Render render;
    if (withRender) {
        render = [](const Tav::Record& record, std::string& out) { out.append(record.text); };
    }
    Tav::ParallelStream workers(stream, 2, std::move(render));
    Printed printed;
    while (workers.next()) {
        if (workers.isRecord()) {
            const std::string_view line = workers.rendered();
            printed.out.append(line.data(), line.size());
            // Lines in place: those that follow it, in one piece.
            std::uint64_t following = 0;
            const std::string_view lines = workers.moreLines(following);
            if (lines.size() != 0 && (withRender || lines.data() != line.data() + line.size())) {
                wexbl_fuzz::mismatch("more lines", std::string(line), std::string(lines));
            }
            printed.out.append(lines.data(), lines.size());
            continue;
        }
        const Tav::Event* event = workers.event();
        (event->stream == Tav::EventStream::Output ? printed.out : printed.err)
            .append(event->text.data(), event->text.size());
    }
    return printed;
}

void expectSame(const char* what, const Printed& expected, const Printed& actual) {
    if (expected.out != actual.out) {
        wexbl_fuzz::mismatch(what, expected.out, actual.out);
    }
    if (expected.err != actual.err) {
        wexbl_fuzz::mismatch(what, expected.err, actual.err);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t control = data[0];
    const bool asIs = (control & kAsIs) != 0;
    const bool wholeFile = !asIs && (control & kWholeFile) != 0;
    const unsigned format = control >> kFormatShift;
    const bool variant = !asIs && !wholeFile && format != kPcapAsBody;
    size_t bodyStart = 1;
    std::uint8_t extension = 0;
    if (variant) {
        extension = size > 1 ? data[1] : 0;
        bodyStart = size > 1 ? 2 : 1;
    }
    const std::string body(reinterpret_cast<const char*>(data + bodyStart), size - bodyStart);

    std::string bytes;
    // What the stream that reads every format is held to: nothing, the
    // strict stream of the same bytes, or a strict stream of `reference`.
    enum class Compare { Nothing, Strict, Reference } compare = Compare::Nothing;
    std::string reference;
    if (asIs || wholeFile) {
        bytes = body;
    } else if (!variant) {
        const bool ethernet = (control & kEthernet) != 0;
        bytes = pcapHeader(0xA1B2C3D4, ethernet ? 1 : 150, false) + body;
        if (!ethernet || readAlikeInBothModes(body)) {
            compare = Compare::Strict;
        }
    } else {
        Variant made = makeVariant(control, extension, body);
        bytes = std::move(made.file);
        reference = std::move(made.reference);
        compare = reference.empty() ? Compare::Nothing : Compare::Reference;
    }
    if (!asIs && (control & kGzip) != 0) {
        bytes = gzipped(bytes);
    }

    Tav::BinaryLogXmlReader& reader = wexbl_fuzz::exampleReader((control & kStats) != 0);
    const Printed printed = readWithReader(reader, bytes);
    const Printed strict = readWithStream(reader, bytes, true, false);
    expectSame("readBinaryFiledata and strict stream outputs", printed, strict);
    // The fastest inflater reads intact compressed data as zlib does. It
    // checks corrupt deflate data less strictly (some streams zlib rejects,
    // it inflates to other bytes), so there it is only held to staying in
    // bounds.
    const Printed fast = readWithStream(reader, bytes, true, false, true);
    if (strict.err.find("capture data error") == std::string::npos) {
        expectSame("zlib and fastest inflater outputs", strict, fast);
    }
    expectSame("stream and parallel outputs", strict, readInParallel(reader, bytes, size % 2 == 1));

    const Printed everyFormat = readWithStream(reader, bytes, false, true);
    if (compare == Compare::Nothing && everyFormat.format == Tav::CaptureFormat::Pcap &&
        everyFormat.linkType == 150) {
        compare = Compare::Strict;
    }
    if (compare == Compare::Strict) {
        expectSame("strict stream and stream of every format outputs", strict, everyFormat);
    } else if (compare == Compare::Reference) {
        expectSame("strict stream of the records as pcap and stream of every format outputs",
                   readWithStream(reader, reference, true, false), everyFormat);
    }
    return 0;
}
