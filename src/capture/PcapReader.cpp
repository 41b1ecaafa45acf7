// The file header and the pcap records, strict and not (pcapng is read in
// PcapNgReader.cpp).
#include "capture/PcapReader.h"

#include "capture/Framing.h"
#include "capture/RecordHeaders.h"

namespace Tav {
namespace capture {

namespace {

constexpr std::size_t kPcapHeaderBytes = 24;
constexpr std::size_t kPcapRecordHeaderBytes = 16;

/// The format named by the first four bytes (read little-endian).
CaptureFormat classify(std::uint32_t magic) {
    switch (magic) {
        case 0xA1B2C3D4:
            return CaptureFormat::PcapMicro;
        case 0xA1B23C4D:
            return CaptureFormat::PcapNano;
        case 0xD4C3B2A1:
            return CaptureFormat::PcapMicroSwapped;
        case 0x4D3CB2A1:
            return CaptureFormat::PcapNanoSwapped;
        case 0x0A0D0D0A:
            return CaptureFormat::PcapNg;
        default:
            return CaptureFormat::Unknown;
    }
}

}  // namespace

PcapReader::PcapReader(ByteSource& source, bool strict) : source_(source), strict_(strict) {}

std::uint32_t PcapReader::u32(const ByteReader& bytes, std::uint64_t offset) const {
    if (!bigEndian_) {
        return bytes.get_u32le(offset);
    }
    return (static_cast<std::uint32_t>(bytes.get_u16be(offset)) << 16) |
           bytes.get_u16be(offset + 2);
}

std::uint16_t PcapReader::u16(const ByteReader& bytes, std::uint64_t offset) const {
    return bigEndian_ ? bytes.get_u16be(offset) : bytes.get_u16le(offset);
}

ReadResult PcapReader::shortResult(ReadResult otherwise) const {
    switch (source_.state()) {
        case SourceState::DataError:
            return ReadResult::DataError;
        case SourceState::ReadError:
            return ReadResult::ReadError;
        case SourceState::Ok:
            return source_.wouldBlock() ? ReadResult::Pending : otherwise;
        case SourceState::End:
            break;
    }
    return otherwise;
}

ReadResult PcapReader::open() {
    if (opened_) {
        return ReadResult::Ok;
    }
    ReadResult result;
    if (strict_) {
        result = openPcap();
    } else {
        const std::size_t have = source_.ensure(4);
        if (have < 4) {
            result = shortResult(ReadResult::NoGlobalHeader);
        } else {
            format_ = classify(ByteReader(source_.data(), 4).get_u32le(0));
            bigEndian_ = format_ == CaptureFormat::PcapMicroSwapped ||
                         format_ == CaptureFormat::PcapNanoSwapped;
            nanoseconds_ =
                format_ == CaptureFormat::PcapNano || format_ == CaptureFormat::PcapNanoSwapped;
            if (format_ == CaptureFormat::Unknown) {
                result = ReadResult::NotACapture;
            } else if (format_ == CaptureFormat::PcapNg) {
                result = openNg();
            } else {
                result = openPcap();
            }
        }
    }
    openResult_ = result;
    opened_ = result == ReadResult::Ok;
    return result;
}

ReadResult PcapReader::openPcap() {
    if (source_.ensure(kPcapHeaderBytes) < kPcapHeaderBytes) {
        return shortResult(ReadResult::NoGlobalHeader);
    }
    const ByteReader header(source_.data(), kPcapHeaderBytes);
    if (strict_) {
        format_ = classify(header.get_u32le(0));
        linkType_ = header.get_u32le(20);
    } else {
        linkType_ = u32(header, 20);
    }
    source_.consume(kPcapHeaderBytes);
    return ReadResult::Ok;
}

ReadResult PcapReader::next(RawRecord& record) {
    if (!opened_) {
        return openResult_;
    }
    if (scanning_) {
        return scan();
    }
    if (finished_) {
        return finalResult_;
    }
    const ReadResult result =
        !strict_ && format_ == CaptureFormat::PcapNg ? nextNg(record) : nextPcap(record);
    if (result != ReadResult::Record && result != ReadResult::Pending) {
        finished_ = true;
        finalResult_ = result;
    }
    return result;
}

ReadResult PcapReader::nextPcap(RawRecord& record) {
    if (source_.ensure(kPcapRecordHeaderBytes) < kPcapRecordHeaderBytes) {
        // Nothing more, or a partial record header: the end of the capture.
        return shortResult(ReadResult::End);
    }
    const ByteReader headerBytes(source_.data(), kPcapRecordHeaderBytes);
    PcapRecHeader header;
    if (bigEndian_) {
        header.tsSec = u32(headerBytes, 0);
        header.tsUsec = u32(headerBytes, 4);
        header.capturedLength = u32(headerBytes, 8);
        header.storageLength = u32(headerBytes, 12);
    } else {
        header = detail::readPcapRecHeader(headerBytes, 0);
    }
    if (nanoseconds_) {
        header.tsUsec /= 1000;
    }
    const std::uint32_t length = header.storageLength;
    if (length > kMaxRecordLength) {
        oversizedLength_ = length;
        return ReadResult::Oversized;
    }
    const std::size_t need = kPcapRecordHeaderBytes + length;
    const std::size_t have = source_.ensure(need);
    if (have < need) {
        const ReadResult result = shortResult(ReadResult::Truncated);
        if (result == ReadResult::Pending) {
            return result;
        }
        truncatedExpected_ = length;
        truncatedGot_ =
            result == ReadResult::Truncated ? static_cast<long>(have - kPcapRecordHeaderBytes) : -1;
        return result;
    }
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if (!bigEndian_ && !nanoseconds_) {
        // The header as it lies, in one copy: a reader that loads two of its
        // fields at once then finds them in one store, not in two it cannot
        // combine (which stalls the load until both are written).
        std::memcpy(&record.header, source_.data(), sizeof record.header);
    } else {
        record.header = header;
    }
#else
    record.header = header;
#endif
    record.linkType = linkType_;
    record.data = ByteReader(source_.data() + kPcapRecordHeaderBytes, length);
    record.offset = source_.offset();
    record.number = ++records_;
    lastSeconds_ = header.tsSec;
    haveLastSeconds_ = true;
    source_.consume(need);
    return ReadResult::Record;
}

bool PcapReader::resync(std::function<bool(const RawRecord&)> plausible) {
    if (!opened_ || scanning_ || !finished_) {
        return false;
    }
    switch (finalResult_) {
        case ReadResult::Oversized:
        case ReadResult::Truncated:
        case ReadResult::DataError:
        case ReadResult::BadBlock:
            break;
        default:
            return false;
    }
    plausible_ = std::move(plausible);
    scanning_ = true;
    finished_ = false;
    skipRemaining_ = 0;
    resyncFound_ = false;
    resyncFrom_ = source_.offset();
    resyncTo_ = resyncFrom_;
    resyncCompressed_ = 0;
    return true;
}

bool PcapReader::pcapHeaderPlausible(const unsigned char* bytes, PcapRecHeader& header) const {
    const ByteReader headerBytes(bytes, kPcapRecordHeaderBytes);
    header.tsSec = u32(headerBytes, 0);
    header.tsUsec = u32(headerBytes, 4);
    header.capturedLength = u32(headerBytes, 8);
    header.storageLength = u32(headerBytes, 12);
    if (header.tsUsec >= (nanoseconds_ ? 1000000000u : 1000000u) ||
        header.capturedLength > kMaxRecordLength || header.storageLength > kMaxRecordLength) {
        return false;
    }
    if (nanoseconds_) {
        header.tsUsec /= 1000;
    }
    return true;
}

ReadResult PcapReader::scan() {
    const bool ng = !strict_ && format_ == CaptureFormat::PcapNg;
    const std::size_t headBytes = ng ? 8 : kPcapRecordHeaderBytes;
    for (;;) {
        std::size_t have = source_.ensure(headBytes);
        if (have < headBytes) {
            if (source_.state() == SourceState::DataError) {
                std::uint64_t skipped = 0;
                const bool resumed = source_.recover(skipped);
                resyncCompressed_ += skipped;
                if (resumed) {
                    continue;
                }
            }
            if (source_.state() == SourceState::Ok && source_.wouldBlock()) {
                return ReadResult::Pending;
            }
            // The capture ends without another plausible record.
            source_.consume(have);
            scanning_ = false;
            finished_ = true;
            finalResult_ = ReadResult::End;
            resyncTo_ = source_.offset();
            return ReadResult::Resynced;
        }
        bool found = false;
        if (ng) {
            bool needMore = false;
            found = ngBlockPlausible(source_.data(), have, false, needMore);
            if (needMore) {
                have = source_.ensure(ByteSource::kWindowLimit);
                if (source_.state() == SourceState::Ok && source_.wouldBlock()) {
                    return ReadResult::Pending;
                }
                found = ngBlockPlausible(source_.data(), have, source_.state() == SourceState::End,
                                         needMore);
            }
        } else {
            PcapRecHeader header;
            if (pcapHeaderPlausible(source_.data(), header) &&
                (!haveLastSeconds_ ||
                 (header.tsSec >= lastSeconds_
                      ? header.tsSec - lastSeconds_
                      : lastSeconds_ - header.tsSec) <= kResyncWindowSeconds)) {
                const std::size_t body = kPcapRecordHeaderBytes + header.storageLength;
                have = source_.ensure(body + kPcapRecordHeaderBytes);
                if (have < body + kPcapRecordHeaderBytes && source_.state() == SourceState::Ok &&
                    source_.wouldBlock()) {
                    return ReadResult::Pending;
                }
                PcapRecHeader following;
                const bool chained = have >= body + kPcapRecordHeaderBytes
                                         ? pcapHeaderPlausible(source_.data() + body, following)
                                         : have >= body && source_.state() == SourceState::End;
                if (chained) {
                    RawRecord record;
                    record.header = header;
                    record.linkType = linkType_;
                    record.data =
                        ByteReader(source_.data() + kPcapRecordHeaderBytes, header.storageLength);
                    record.offset = source_.offset();
                    found = !plausible_ || plausible_(record);
                }
            }
        }
        if (found) {
            scanning_ = false;
            resyncFound_ = true;
            resyncTo_ = source_.offset();
            return ReadResult::Resynced;
        }
        source_.consume(1);
    }
}

}  // namespace capture
}  // namespace Tav
