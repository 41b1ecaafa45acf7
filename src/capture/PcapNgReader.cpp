// pcapng: sections, interfaces and packets.
//
// Every block is  type (4) | total length (4) | body | total length (4),  in
// the byte order of its section, which the byte-order mark of the section
// header block sets. The blocks read here:
//   SHB 0x0A0D0D0A  byte-order mark 1A2B3C4D (8), major (12), minor (14),
//                   section length (16, ignored), options
//   IDB 1           link type u16 (8), reserved (10), snap length (12), options
//                   from 16: if_tsresol (9, 1 byte), if_tsoffset (14, 8 bytes)
//   EPB 6           interface (8), time high (12), low (16), captured length
//                   (20), original length (24), data (28), padding, options
//   PB  2           as EPB but interface u16 (8) and drop count u16 (10)
//   SPB 3           original length (8), data (12), padding; interface 0,
//                   captured length = min(original, block room, snap length)
// Other blocks are skipped without being held in the window, whatever their
// size.
#include <algorithm>

#include "capture/Framing.h"
#include "capture/PcapReader.h"

namespace Tav {
namespace capture {

namespace {

constexpr std::uint32_t kBlockSection = 0x0A0D0D0A;
constexpr std::uint32_t kBlockInterface = 1;
constexpr std::uint32_t kBlockPacket = 2;
constexpr std::uint32_t kBlockSimplePacket = 3;
constexpr std::uint32_t kBlockNameResolution = 4;
constexpr std::uint32_t kBlockInterfaceStatistics = 5;
constexpr std::uint32_t kBlockEnhancedPacket = 6;

constexpr std::uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr std::uint32_t kByteOrderMagicSwapped = 0x4D3C2B1A;

constexpr std::uint32_t kMinSectionBlock = 28;
constexpr std::uint32_t kMinInterfaceBlock = 20;
constexpr std::uint32_t kMinBlock = 12;

constexpr std::uint16_t kOptionEnd = 0;
constexpr std::uint16_t kOptionTsResolution = 9;
constexpr std::uint16_t kOptionTsOffset = 14;

constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;

constexpr std::uint64_t padded(std::uint64_t length) {
    return (length + 3) & ~std::uint64_t(3);
}

/// 10^exponent for exponent <= 19 (the largest power of 10 in 64 bits).
std::uint64_t powerOf10(unsigned exponent) {
    std::uint64_t value = 1;
    while (exponent-- > 0) {
        value *= 10;
    }
    return value;
}

/// floor(value * 10^6 / 2^shift) for any shift up to 127, without overflow:
/// the 84-bit product is formed from 32-bit halves.
std::uint64_t microsecondsOfBinaryFraction(std::uint64_t value, unsigned shift) {
    const std::uint64_t lowProduct = (value & 0xFFFFFFFFu) * kMicrosecondsPerSecond;
    const std::uint64_t highProduct = (value >> 32) * kMicrosecondsPerSecond;
    const std::uint64_t low = lowProduct + (highProduct << 32);
    const std::uint64_t high = (highProduct >> 32) + (low < lowProduct ? 1 : 0);
    if (shift == 0) {
        return low;
    }
    if (shift < 64) {
        return (low >> shift) | (high << (64 - shift));
    }
    return high >> (shift - 64);
}

/// Splits a pcapng time stamp in units of the interface's resolution into
/// seconds and microseconds (truncated), and adds the interface's offset.
void setTime(std::uint64_t stamp, std::uint8_t resolution, std::int64_t offsetSeconds,
             PcapRecHeader& header) {
    std::uint64_t seconds = 0;
    std::uint64_t micros = 0;
    const unsigned exponent = resolution & 0x7Fu;
    if ((resolution & 0x80u) != 0) {
        // 2^-exponent seconds.
        seconds = exponent < 64 ? stamp >> exponent : 0;
        const std::uint64_t fraction =
            exponent < 64 ? stamp & ((std::uint64_t(1) << exponent) - 1) : stamp;
        micros = microsecondsOfBinaryFraction(fraction, exponent);
    } else if (exponent <= 19) {
        // 10^-exponent seconds.
        const std::uint64_t unitsPerSecond = powerOf10(exponent);
        seconds = stamp / unitsPerSecond;
        const std::uint64_t fraction = stamp % unitsPerSecond;
        micros =
            exponent <= 6 ? fraction * powerOf10(6 - exponent) : fraction / powerOf10(exponent - 6);
    } else {
        // Units below 10^-19 s: every 64-bit stamp is less than a second.
        micros = exponent - 6 <= 19 ? stamp / powerOf10(exponent - 6) : 0;
    }
    header.tsSec = static_cast<std::uint32_t>(seconds + static_cast<std::uint64_t>(offsetSeconds));
    header.tsUsec = static_cast<std::uint32_t>(micros);
}

}  // namespace

ReadResult PcapReader::openNg() {
    const ReadResult result = ngSectionHeader(true);
    if (result != ReadResult::Ok) {
        return result;
    }
    // Read on to the first interface description, so that linkType() tells
    // it; stop without consuming at a packet, the end or any failure, which
    // next() then meets again.
    while (!sawInterface_) {
        if (ngBlock(nullptr) != ReadResult::Ok) {
            break;
        }
    }
    return ReadResult::Ok;
}

ReadResult PcapReader::nextNg(RawRecord& record) {
    for (;;) {
        const ReadResult result = ngBlock(&record);
        if (result != ReadResult::Ok) {
            return result;
        }
    }
}

ReadResult PcapReader::ngShort(std::size_t have, std::uint32_t expected) {
    const ReadResult result = shortResult(ReadResult::Truncated);
    if (result != ReadResult::Pending) {
        truncatedExpected_ = expected;
        truncatedGot_ = result == ReadResult::Truncated ? static_cast<long>(have) : -1;
    }
    return result;
}

ReadResult PcapReader::ngSectionHeader(bool first) {
    const std::size_t headerBytes = 12;
    std::size_t have = source_.ensure(headerBytes);
    if (have < headerBytes) {
        return first ? shortResult(ReadResult::NoGlobalHeader) : ngShort(have, headerBytes);
    }
    const ByteReader head(source_.data(), headerBytes);
    const std::uint32_t byteOrder = head.get_u32le(8);
    if (byteOrder != kByteOrderMagic && byteOrder != kByteOrderMagicSwapped) {
        return ReadResult::BadBlock;
    }
    bigEndian_ = byteOrder == kByteOrderMagicSwapped;
    const std::uint32_t length = u32(head, 4);
    if (length < kMinSectionBlock || length % 4 != 0 || length > ByteSource::kWindowLimit) {
        return ReadResult::BadBlock;
    }
    have = source_.ensure(length);
    if (have < length) {
        return first ? shortResult(ReadResult::NoGlobalHeader) : ngShort(have, length);
    }
    const ByteReader block(source_.data(), length);
    if (u32(block, length - 4) != length || u16(block, 12) != 1) {
        return ReadResult::BadBlock;
    }
    interfaces_.clear();
    source_.consume(length);
    return ReadResult::Ok;
}

ReadResult PcapReader::ngBlock(RawRecord* record) {
    if (skipRemaining_ > 0) {
        return ngSkip();
    }
    const std::size_t have = source_.ensure(8);
    if (have < 8) {
        // Nothing more, or a partial block header: the end of the capture.
        return shortResult(ReadResult::End);
    }
    const ByteReader head(source_.data(), 8);
    const std::uint32_t type = u32(head, 0);
    if (type == kBlockSection) {
        return ngSectionHeader(false);
    }
    const std::uint32_t length = u32(head, 4);
    if (length < kMinBlock || length % 4 != 0) {
        return ReadResult::BadBlock;
    }
    switch (type) {
        case kBlockInterface: {
            if (length < kMinInterfaceBlock || length > ByteSource::kWindowLimit) {
                return ReadResult::BadBlock;
            }
            const std::size_t got = source_.ensure(length);
            if (got < length) {
                return ngShort(got, length);
            }
            const ByteReader block(source_.data(), length);
            if (u32(block, length - 4) != length) {
                return ReadResult::BadBlock;
            }
            const ReadResult result = ngInterface(block);
            if (result == ReadResult::Ok) {
                source_.consume(length);
            }
            return result;
        }
        case kBlockEnhancedPacket:
        case kBlockPacket:
        case kBlockSimplePacket:
            if (record == nullptr) {
                // Looking ahead: a packet comes next; leave it for next().
                return ReadResult::Record;
            }
            return ngPacket(type, length, *record);
        default:
            skipLength_ = length;
            skipRemaining_ = length;
            return ngSkip();
    }
}

ReadResult PcapReader::ngSkip() {
    while (skipRemaining_ > 0) {
        const std::size_t have = source_.ensure(1);
        if (have == 0) {
            return ngShort(static_cast<std::size_t>(skipLength_ - skipRemaining_), skipLength_);
        }
        const std::size_t step =
            static_cast<std::size_t>(std::min<std::uint64_t>(have, skipRemaining_));
        source_.consume(step);
        skipRemaining_ -= step;
    }
    return ReadResult::Ok;
}

ReadResult PcapReader::ngInterface(const ByteReader& block) {
    if (interfaces_.size() >= kMaxInterfaces) {
        return ReadResult::BadBlock;
    }
    Interface interface;
    interface.linkType = u16(block, 8);
    interface.snapLength = u32(block, 12);
    // Options lie between the fixed fields and the trailing length.
    const std::uint64_t end = block.size() - 4;
    std::uint64_t pos = 16;
    while (pos + 4 <= end) {
        const std::uint16_t code = u16(block, pos);
        const std::uint16_t length = u16(block, pos + 2);
        if (code == kOptionEnd || length > end - pos - 4) {
            break;
        }
        const std::uint64_t value = pos + 4;
        if (code == kOptionTsResolution && length == 1) {
            interface.tsResolution = block.get_u8(value);
        } else if (code == kOptionTsOffset && length == 8) {
            const std::uint64_t first = u32(block, value);
            const std::uint64_t second = u32(block, value + 4);
            const std::uint64_t offset =
                bigEndian_ ? (first << 32) | second : (second << 32) | first;
            interface.tsOffset = static_cast<std::int64_t>(offset);
        }
        pos = value + padded(length);
    }
    interfaces_.push_back(interface);
    if (!sawInterface_) {
        sawInterface_ = true;
        linkType_ = interface.linkType;
    }
    return ReadResult::Ok;
}

ReadResult PcapReader::ngPacket(std::uint32_t type, std::uint32_t length, RawRecord& record) {
    const bool simple = type == kBlockSimplePacket;
    const std::uint32_t fixedBytes = simple ? 12 : 28;
    if (length < fixedBytes + 4) {
        return ReadResult::BadBlock;
    }
    std::size_t have = source_.ensure(fixedBytes);
    if (have < fixedBytes) {
        return ngShort(have, length);
    }
    const ByteReader head(source_.data(), fixedBytes);
    std::uint32_t interfaceId = 0;
    std::uint32_t capturedLength = 0;
    std::uint32_t originalLength = 0;
    std::uint64_t stamp = 0;
    if (simple) {
        originalLength = u32(head, 8);
        if (interfaces_.empty()) {
            return ReadResult::BadBlock;
        }
        capturedLength = std::min(originalLength, length - fixedBytes - 4);
        const std::uint32_t snapLength = interfaces_[0].snapLength;
        if (snapLength != 0) {
            capturedLength = std::min(capturedLength, snapLength);
        }
    } else {
        interfaceId = type == kBlockEnhancedPacket ? u32(head, 8) : u16(head, 8);
        stamp = (static_cast<std::uint64_t>(u32(head, 12)) << 32) | u32(head, 16);
        capturedLength = u32(head, 20);
        originalLength = u32(head, 24);
        if (interfaceId >= interfaces_.size()) {
            return ReadResult::BadBlock;
        }
    }
    if (capturedLength > kMaxRecordLength) {
        oversizedLength_ = capturedLength;
        return ReadResult::Oversized;
    }
    if (fixedBytes + padded(capturedLength) + 4 > length || length > ByteSource::kWindowLimit) {
        return ReadResult::BadBlock;
    }
    have = source_.ensure(length);
    if (have < length) {
        return ngShort(have, length);
    }
    const ByteReader block(source_.data(), length);
    if (u32(block, length - 4) != length) {
        return ReadResult::BadBlock;
    }
    const Interface& interface = interfaces_[interfaceId];
    record.header = PcapRecHeader();
    if (!simple) {
        setTime(stamp, interface.tsResolution, interface.tsOffset, record.header);
    }
    record.header.capturedLength = originalLength;
    record.header.storageLength = capturedLength;
    record.linkType = interface.linkType;
    record.data = ByteReader(source_.data() + fixedBytes, capturedLength);
    record.offset = source_.offset();
    record.number = ++records_;
    lastSeconds_ = record.header.tsSec;
    haveLastSeconds_ = true;
    source_.consume(length);
    return ReadResult::Record;
}

namespace {

/// The smallest length of a block of `type`, 0 for a type a resync scan does
/// not accept.
std::uint32_t minimumBlock(std::uint32_t type) {
    switch (type) {
        case kBlockSection:
            return kMinSectionBlock;
        case kBlockInterface:
            return kMinInterfaceBlock;
        case kBlockPacket:
        case kBlockEnhancedPacket:
            return 32;
        case kBlockSimplePacket:
            return 16;
        case kBlockNameResolution:
        case kBlockInterfaceStatistics:
            return kMinBlock;
        default:
            return 0;
    }
}

}  // namespace

bool PcapReader::ngBlockPlausible(const unsigned char* bytes, std::size_t have, bool atEnd,
                                  bool& needMore) const {
    needMore = false;
    const ByteReader head(bytes, have);
    bool bigEndian = bigEndian_;
    const auto word = [&](std::uint64_t offset) {
        if (!bigEndian) {
            return head.get_u32le(offset);
        }
        return (static_cast<std::uint32_t>(head.get_u16be(offset)) << 16) |
               head.get_u16be(offset + 2);
    };
    const std::uint32_t type = word(0);
    if (type == kBlockSection) {
        if (have < 12) {
            needMore = !atEnd;
            return false;
        }
        const std::uint32_t byteOrder = head.get_u32le(8);
        if (byteOrder != kByteOrderMagic && byteOrder != kByteOrderMagicSwapped) {
            return false;
        }
        bigEndian = byteOrder == kByteOrderMagicSwapped;
    }
    const std::uint32_t minimum = minimumBlock(type);
    const std::uint32_t length = word(4);
    if (minimum == 0 || length < minimum || length % 4 != 0 || length > ByteSource::kWindowLimit) {
        return false;
    }
    if (type != kBlockSection) {
        // A packet must name an interface described before the damage.
        if ((type == kBlockEnhancedPacket && word(8) >= interfaces_.size()) ||
            (type == kBlockPacket &&
             ((word(8) >> (bigEndian ? 16 : 0)) & 0xFFFF) >= interfaces_.size()) ||
            (type == kBlockSimplePacket && interfaces_.empty())) {
            return false;
        }
    }
    if (have < std::size_t(length) + 8) {
        if (!atEnd) {
            needMore = true;
            return false;
        }
        return have == length && word(length - 4) == length;
    }
    if (word(length - 4) != length) {
        return false;
    }
    // The block after it: a known type and a sound length.
    const std::uint32_t nextType = word(length);
    const std::uint32_t nextMinimum = minimumBlock(nextType);
    const std::uint32_t nextLength = word(length + 4);
    return nextMinimum != 0 && nextLength >= nextMinimum && nextLength % 4 == 0 &&
           nextLength <= ByteSource::kWindowLimit;
}

}  // namespace capture
}  // namespace Tav
