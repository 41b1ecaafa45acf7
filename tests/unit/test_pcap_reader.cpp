// pcap records: strict mode reproduces the original loop (header magic not
// examined, link type from offset 20, length bound, truncation, a partial
// record header as the end, gzip data errors never taken for the end); the
// other mode reads pcap in both byte orders and both time units.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "CaptureBytes.h"
#include "capture/Framing.h"
#include "capture/PcapReader.h"

namespace {

using namespace capture_test;
using Tav::capture::CaptureFormat;
using Tav::capture::kMaxRecordLength;
using Tav::capture::openDescriptor;
using Tav::capture::openMemory;
using Tav::capture::PcapReader;
using Tav::capture::RawRecord;
using Tav::capture::ReadResult;

constexpr std::uint32_t kMagicMicro = 0xA1B2C3D4;
constexpr std::uint32_t kMagicNano = 0xA1B23C4D;

Bytes pcapHeader(std::uint32_t magic, std::uint32_t linkType, bool bigEndian = false) {
    return ByteTable()
        .u32(magic, bigEndian)
        .u16(2, bigEndian)
        .u16(4, bigEndian)
        .u32(0, bigEndian)
        .u32(0, bigEndian)
        .u32(65535, bigEndian)
        .u32(linkType, bigEndian)
        .bytes();
}

Bytes pcapRecord(std::uint32_t sec, std::uint32_t frac, std::uint32_t captured,
                 std::uint32_t storage, const Bytes& data, bool bigEndian = false) {
    return ByteTable()
        .u32(sec, bigEndian)
        .u32(frac, bigEndian)
        .u32(captured, bigEndian)
        .u32(storage, bigEndian)
        .raw(data)
        .bytes();
}

/// A record whose storageLength matches its data.
Bytes pcapRecord(std::uint32_t sec, std::uint32_t usec, const Bytes& data, bool bigEndian = false) {
    const auto size = static_cast<std::uint32_t>(data.size());
    return pcapRecord(sec, usec, size + 1000, size, data, bigEndian);
}

struct Seen {
    Tav::PcapRecHeader header;
    std::uint32_t linkType;
    Bytes data;
    std::uint64_t offset;
    std::uint64_t number;
};

/// Reads every record; returns them and the result that ended the reading.
std::vector<Seen> readAll(PcapReader& reader, ReadResult& last) {
    std::vector<Seen> seen;
    RawRecord record;
    while ((last = reader.next(record)) == ReadResult::Record) {
        seen.push_back({record.header, record.linkType,
                        Bytes(record.data.data(), record.data.data() + record.data.size()),
                        record.offset, record.number});
    }
    return seen;
}

Bytes sequence(std::size_t size, unsigned first) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<unsigned char>(first + i);
    }
    return out;
}

/// Three records of 20, 0 and 25000 bytes after a link type 150 header.
Bytes threeRecords() {
    return concat(concat(concat(pcapHeader(kMagicMicro, 150), pcapRecord(10, 11, sequence(20, 1))),
                         pcapRecord(12, 13, Bytes())),
                  pcapRecord(14, 15, sequence(kMaxRecordLength, 7)));
}

void expectThreeRecords(const std::vector<Seen>& seen) {
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].header.tsSec, 10u);
    EXPECT_EQ(seen[0].header.tsUsec, 11u);
    EXPECT_EQ(seen[0].header.capturedLength, 1020u);
    EXPECT_EQ(seen[0].header.storageLength, 20u);
    EXPECT_TRUE(seen[0].data == sequence(20, 1));
    EXPECT_EQ(seen[0].linkType, 150u);
    EXPECT_EQ(seen[0].offset, 24u);
    EXPECT_EQ(seen[0].number, 1u);
    EXPECT_EQ(seen[1].header.tsSec, 12u);
    EXPECT_EQ(seen[1].header.storageLength, 0u);
    EXPECT_TRUE(seen[1].data.empty());
    EXPECT_EQ(seen[1].offset, 24u + 16 + 20);
    EXPECT_EQ(seen[1].number, 2u);
    EXPECT_EQ(seen[2].header.tsUsec, 15u);
    EXPECT_EQ(seen[2].header.storageLength, kMaxRecordLength);
    EXPECT_TRUE(seen[2].data == sequence(kMaxRecordLength, 7));
    EXPECT_EQ(seen[2].offset, 24u + 16 + 20 + 16);
    EXPECT_EQ(seen[2].number, 3u);
}

TEST(PcapReader, StrictReadsRecordsUpToTheLengthBound) {
    for (const bool compress : {false, true}) {
        const Bytes file = compress ? gzip(threeRecords()) : threeRecords();
        auto source = openMemory(file.data(), file.size());
        PcapReader reader(*source, true);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        EXPECT_EQ(reader.linkType(), 150u);
        EXPECT_EQ(reader.format(), CaptureFormat::PcapMicro);
        ReadResult last;
        expectThreeRecords(readAll(reader, last));
        EXPECT_EQ(last, ReadResult::End);
        RawRecord record;
        EXPECT_EQ(reader.next(record), ReadResult::End);
        EXPECT_EQ(reader.records(), 3u);
    }
}

TEST(PcapReader, RecordsAreViewsIntoTheWindow) {
    const Bytes file = gzip(threeRecords());
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Record);
    // The record ends where the source's next bytes begin.
    EXPECT_EQ(record.data.data() + record.data.size(), source->data());
    EXPECT_EQ(source->offset(), 24u + 16 + 20);
}

TEST(PcapReader, OversizedStopsTheReading) {
    const Bytes file = concat(concat(pcapHeader(kMagicMicro, 1), pcapRecord(1, 2, sequence(3, 0))),
                              pcapRecord(1, 2, 5, kMaxRecordLength + 1, sequence(30000, 0)));
    for (const bool strict : {true, false}) {
        auto source = openMemory(file.data(), file.size());
        PcapReader reader(*source, strict);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        ReadResult last;
        EXPECT_EQ(readAll(reader, last).size(), 1u);
        EXPECT_EQ(last, ReadResult::Oversized);
        EXPECT_EQ(reader.oversizedLength(), kMaxRecordLength + 1);
        RawRecord record;
        EXPECT_EQ(reader.next(record), ReadResult::Oversized);
    }
}

TEST(PcapReader, ShortDataIsTruncated) {
    const Bytes file =
        concat(pcapHeader(kMagicMicro, 150), pcapRecord(1, 2, 100, 100, sequence(40, 0)));
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    RawRecord record;
    EXPECT_EQ(reader.next(record), ReadResult::Truncated);
    EXPECT_EQ(reader.truncatedGot(), 40);
    EXPECT_EQ(reader.truncatedExpected(), 100u);
    EXPECT_EQ(reader.next(record), ReadResult::Truncated);
}

TEST(PcapReader, APartialRecordHeaderIsTheEnd) {
    for (const std::size_t partial : {std::size_t(1), std::size_t(10), std::size_t(15)}) {
        const Bytes file =
            concat(concat(pcapHeader(kMagicMicro, 150), pcapRecord(1, 2, sequence(4, 0))),
                   sequence(partial, 0x80));
        for (const bool strict : {true, false}) {
            auto source = openMemory(file.data(), file.size());
            PcapReader reader(*source, strict);
            ASSERT_EQ(reader.open(), ReadResult::Ok);
            ReadResult last;
            EXPECT_EQ(readAll(reader, last).size(), 1u);
            EXPECT_EQ(last, ReadResult::End) << partial;
        }
    }
}

TEST(PcapReader, ShortFilesHaveNoGlobalHeader) {
    const Bytes full = pcapHeader(kMagicMicro, 150);
    for (const std::size_t size :
         {std::size_t(0), std::size_t(3), std::size_t(4), std::size_t(23)}) {
        for (const bool strict : {true, false}) {
            auto source = openMemory(full.data(), size);
            PcapReader reader(*source, strict);
            EXPECT_EQ(reader.open(), ReadResult::NoGlobalHeader) << size;
            RawRecord record;
            EXPECT_EQ(reader.next(record), ReadResult::NoGlobalHeader);
        }
    }
    // Exactly the header: no records.
    auto source = openMemory(full.data(), full.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    RawRecord record;
    EXPECT_EQ(reader.next(record), ReadResult::End);
}

TEST(PcapReader, NextBeforeOpenIsTheEnd) {
    const Bytes file = threeRecords();
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, true);
    RawRecord record;
    EXPECT_EQ(reader.next(record), ReadResult::End);
    EXPECT_EQ(source->offset(), 0u);
}

TEST(PcapReader, StrictModeIgnoresTheMagic) {
    // Big-endian pcap: the link type 1 reads as 0x01000000, the first
    // record's big-endian length 5 as 0x05000000.
    const Bytes bigEndian =
        concat(pcapHeader(kMagicMicro, 1, true), pcapRecord(1, 2, sequence(5, 0), true));
    {
        auto source = openMemory(bigEndian.data(), bigEndian.size());
        PcapReader reader(*source, true);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        EXPECT_EQ(reader.format(), CaptureFormat::PcapMicroSwapped);
        EXPECT_EQ(reader.linkType(), 0x01000000u);
        RawRecord record;
        EXPECT_EQ(reader.next(record), ReadResult::Oversized);
        EXPECT_EQ(reader.oversizedLength(), 0x05000000u);
    }
    // pcapng: the section header's section length -1 lies at 16-23.
    const Bytes pcapng = ByteTable()
                             .u32le(0x0A0D0D0A)
                             .u32le(28)
                             .u32le(0x1A2B3C4D)
                             .u16le(1)
                             .u16le(0)
                             .fill(8, 0xFF)
                             .u32le(28)
                             .bytes();
    {
        auto source = openMemory(pcapng.data(), pcapng.size());
        PcapReader reader(*source, true);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        EXPECT_EQ(reader.format(), CaptureFormat::PcapNg);
        EXPECT_EQ(reader.linkType(), 0xFFFFFFFFu);
        RawRecord record;
        EXPECT_EQ(reader.next(record), ReadResult::End);  // 4 bytes left: a partial header
    }
    // No magic at all.
    const Bytes other = concat(ByteTable().text("ABCD").fill(16, 0).u32le(150).bytes(),
                               pcapRecord(1, 2, sequence(3, 0)));
    {
        auto source = openMemory(other.data(), other.size());
        PcapReader reader(*source, true);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        EXPECT_EQ(reader.format(), CaptureFormat::Unknown);
        EXPECT_EQ(reader.linkType(), 150u);
        ReadResult last;
        EXPECT_EQ(readAll(reader, last).size(), 1u);
        EXPECT_EQ(last, ReadResult::End);
    }
    // The other mode refuses it.
    auto source = openMemory(other.data(), other.size());
    PcapReader reader(*source, false);
    EXPECT_EQ(reader.open(), ReadResult::NotACapture);
}

TEST(PcapReader, GzipDataErrorIsNeverTheEnd) {
    const Bytes plain = threeRecords();
    const std::size_t firstTwo = 24 + 16 + 20 + 16;
    struct Case {
        std::size_t goodBytes;  // inflated before the error
        std::size_t records;
        long got;
    };
    // The error right after a record, inside a record header, inside data.
    for (const Case& c : {Case{firstTwo, 2, 0}, Case{firstTwo + 7, 2, 0},
                          Case{firstTwo + 16 + 300, 2, -1}, Case{24, 0, 0}, Case{10, 0, 0}}) {
        const Bytes stream =
            gzipThenBadBlock(Bytes(plain.begin(), plain.begin() + static_cast<long>(c.goodBytes)));
        auto source = openMemory(stream.data(), stream.size());
        PcapReader reader(*source, true);
        const ReadResult opened = reader.open();
        if (c.goodBytes < 24) {
            EXPECT_EQ(opened, ReadResult::DataError);
            continue;
        }
        ASSERT_EQ(opened, ReadResult::Ok);
        ReadResult last;
        EXPECT_EQ(readAll(reader, last).size(), c.records) << c.goodBytes;
        EXPECT_EQ(last, ReadResult::DataError) << c.goodBytes;
        EXPECT_EQ(source->error(), "invalid block type");
        EXPECT_EQ(source->errorOffset(), c.goodBytes);
        if (c.got < 0) {
            EXPECT_EQ(reader.truncatedGot(), -1);
            EXPECT_EQ(reader.truncatedExpected(), kMaxRecordLength);
        }
    }
    // A wrong CRC: every record, then DataError instead of End.
    const Bytes badCrc = withBadCrc(gzip(plain));
    auto source = openMemory(badCrc.data(), badCrc.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    expectThreeRecords(readAll(reader, last));
    EXPECT_EQ(last, ReadResult::DataError);
    EXPECT_EQ(source->error(), "incorrect data check");
}

TEST(PcapReader, TruncatedGzipIsTheEndOrATruncatedRecord) {
    const Bytes plain = threeRecords();
    const std::size_t firstTwo = 24 + 16 + 20 + 16;
    const Bytes atRecord = gzipParts({Bytes(plain.begin(), plain.begin() + firstTwo)}, false);
    auto source = openMemory(atRecord.data(), atRecord.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    EXPECT_EQ(readAll(reader, last).size(), 2u);
    EXPECT_EQ(last, ReadResult::End);

    const Bytes inData =
        gzipParts({Bytes(plain.begin(), plain.begin() + firstTwo + 16 + 99)}, false);
    auto cut = openMemory(inData.data(), inData.size());
    PcapReader cutReader(*cut, true);
    ASSERT_EQ(cutReader.open(), ReadResult::Ok);
    EXPECT_EQ(readAll(cutReader, last).size(), 2u);
    EXPECT_EQ(last, ReadResult::Truncated);
    EXPECT_EQ(cutReader.truncatedGot(), 99);
    EXPECT_EQ(cutReader.truncatedExpected(), kMaxRecordLength);
}

TEST(PcapReader, NanosecondsBecomeMicroseconds) {
    const Bytes file =
        concat(concat(pcapHeader(kMagicNano, 1), pcapRecord(100, 123456789, sequence(6, 0))),
               pcapRecord(101, 999, sequence(2, 0)));
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    EXPECT_EQ(reader.format(), CaptureFormat::PcapNano);
    EXPECT_EQ(reader.linkType(), 1u);
    ReadResult last;
    const auto seen = readAll(reader, last);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].header.tsSec, 100u);
    EXPECT_EQ(seen[0].header.tsUsec, 123456u);
    EXPECT_EQ(seen[1].header.tsUsec, 0u);
    EXPECT_EQ(last, ReadResult::End);
}

TEST(PcapReader, BigEndianPcap) {
    for (const std::uint32_t magic : {kMagicMicro, kMagicNano}) {
        const Bytes file =
            concat(concat(pcapHeader(magic, 150, true),
                          pcapRecord(0x01020304, 500000, 77, 6, sequence(6, 9), true)),
                   pcapRecord(7, 8, 0, 25001, Bytes(), true));
        auto source = openMemory(file.data(), file.size());
        PcapReader reader(*source, false);
        ASSERT_EQ(reader.open(), ReadResult::Ok);
        const bool nano = magic == kMagicNano;
        EXPECT_EQ(reader.format(),
                  nano ? CaptureFormat::PcapNanoSwapped : CaptureFormat::PcapMicroSwapped);
        EXPECT_EQ(reader.linkType(), 150u);
        ReadResult last;
        const auto seen = readAll(reader, last);
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].header.tsSec, 0x01020304u);
        EXPECT_EQ(seen[0].header.tsUsec, nano ? 500u : 500000u);
        EXPECT_EQ(seen[0].header.capturedLength, 77u);
        EXPECT_EQ(seen[0].header.storageLength, 6u);
        EXPECT_TRUE(seen[0].data == sequence(6, 9));
        EXPECT_EQ(last, ReadResult::Oversized);
        EXPECT_EQ(reader.oversizedLength(), 25001u);
    }
}

TEST(PcapReader, LittleEndianMicrosecondsReadAlikeInBothModes) {
    const Bytes file = threeRecords();
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    EXPECT_EQ(reader.format(), CaptureFormat::PcapMicro);
    ReadResult last;
    expectThreeRecords(readAll(reader, last));
    EXPECT_EQ(last, ReadResult::End);
}

TEST(PcapReader, AnIncrementalSourceIsPending) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::fcntl(fds[0], F_SETFL, O_NONBLOCK), 0);
    auto source = openDescriptor(fds[0], true);
    PcapReader reader(*source, true);
    const Bytes file = threeRecords();
    RawRecord record;
    EXPECT_EQ(reader.open(), ReadResult::Pending);
    EXPECT_EQ(reader.next(record), ReadResult::Pending);  // open() is still to finish
    ASSERT_EQ(::write(fds[1], file.data(), 30), 30);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    EXPECT_EQ(reader.next(record), ReadResult::Pending);  // 6 header bytes
    ASSERT_EQ(::write(fds[1], file.data() + 30, 20), 20);
    EXPECT_EQ(reader.next(record), ReadResult::Pending);  // 10 data bytes of 20
    ASSERT_EQ(::write(fds[1], file.data() + 50, 10), 10);
    ASSERT_EQ(reader.next(record), ReadResult::Record);
    EXPECT_TRUE(Bytes(record.data.data(), record.data.data() + record.data.size()) ==
                sequence(20, 1));
    EXPECT_EQ(record.offset, 24u);
    ::close(fds[1]);
    EXPECT_EQ(reader.next(record), ReadResult::End);
}

TEST(PcapReader, AMillionRecordsFromMemory) {
    // Link type 150 records of 16 + 4 bytes whose sequence numbers count up.
    constexpr std::uint32_t kRecords = 1000000;
    constexpr std::size_t kRecordBytes = 16 + 20;
    Bytes plain = pcapHeader(kMagicMicro, 150);
    plain.resize(24 + kRecords * kRecordBytes);
    // One record as a byte table; the times and sequence numbers patched in.
    const Bytes shape = pcapRecord(
        0, 0, 20, 20, ByteTable().u32le(0).u32le(0x01020001).u16le(5).u16le(3).fill(8, 0).bytes());
    auto put32 = [](unsigned char* at, std::uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            at[i] = static_cast<unsigned char>(value >> (8 * i));
        }
    };
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        unsigned char* at = plain.data() + 24 + i * kRecordBytes;
        std::memcpy(at, shape.data(), kRecordBytes);
        put32(at, 1700000000 + i / 1000);
        put32(at + 4, i % 1000);
        put32(at + 16 + 12, i);
        put32(at + 16 + 16, ~i);
    }
    const Bytes file = gzip(plain, 1);
    plain.clear();
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, true);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    RawRecord record;
    std::uint64_t count = 0;
    std::uint64_t seqSum = 0;
    ReadResult result;
    while ((result = reader.next(record)) == ReadResult::Record) {
        ++count;
        seqSum += record.data.get_u32le(12);
        if (record.data.get_u32le(16) != ~record.data.get_u32le(12)) {
            ADD_FAILURE() << "record " << record.number;
            break;
        }
    }
    EXPECT_EQ(result, ReadResult::End);
    EXPECT_EQ(count, kRecords);
    EXPECT_EQ(reader.records(), kRecords);
    EXPECT_EQ(seqSum, std::uint64_t(kRecords) * (kRecords - 1) / 2);
    EXPECT_EQ(source->offset(), 24 + std::uint64_t(kRecords) * kRecordBytes);
}

// ---- Resynchronisation after damage ---------------------------------------------------------

/// A link type 150 capture: records at seconds 1000, 1001, ... of `size`
/// bytes each, with `damage` put in place of record `damaged` (0-based).
struct DamagedCapture {
    Bytes bytes;
    std::vector<std::uint64_t> offsets;  // of every record header, damage included
};

DamagedCapture damagedCapture(std::size_t records, std::size_t damaged, const Bytes& damage) {
    DamagedCapture capture;
    capture.bytes = pcapHeader(kMagicMicro, 150);
    for (std::size_t i = 0; i < records; ++i) {
        capture.offsets.push_back(capture.bytes.size());
        const Bytes record = i == damaged ? damage
                                          : pcapRecord(1000 + static_cast<std::uint32_t>(i), 5, 40,
                                                       40, sequence(40, static_cast<unsigned>(i)));
        capture.bytes = concat(capture.bytes, record);
    }
    return capture;
}

/// A record header claiming 30000 bytes, then 40 bytes that cannot start a
/// record header (their microseconds would be 0xFFFFFFFF).
Bytes oversizedDamage() {
    return concat(ByteTable().u32le(1001).u32le(0).u32le(30000).u32le(30000).bytes(),
                  Bytes(40, 0xFF));
}

TEST(PcapReaderResync, AfterAnOversizedRecordTheNextPlausibleRecordIsRead) {
    const DamagedCapture capture = damagedCapture(5, 1, oversizedDamage());
    auto source = openMemory(capture.bytes.data(), capture.bytes.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    std::vector<Seen> seen = readAll(reader, last);
    ASSERT_EQ(last, ReadResult::Oversized);
    ASSERT_EQ(seen.size(), 1u);
    ASSERT_TRUE(reader.resync(nullptr));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_TRUE(reader.resyncFound());
    EXPECT_EQ(reader.resyncFrom(), capture.offsets[1]);
    EXPECT_EQ(reader.resyncTo(), capture.offsets[2]);
    EXPECT_EQ(reader.resyncCompressedSkipped(), 0u);
    seen = readAll(reader, last);
    EXPECT_EQ(last, ReadResult::End);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].header.tsSec, 1002u);
    EXPECT_EQ(seen[0].offset, capture.offsets[2]);
    EXPECT_TRUE(seen[0].data == sequence(40, 2));
    EXPECT_EQ(seen[2].header.tsSec, 1004u);
    // Numbering goes on from the records read before the damage.
    EXPECT_EQ(seen[0].number, 2u);
    EXPECT_EQ(reader.next(record), ReadResult::End);
}

TEST(PcapReaderResync, OnlyAFailureCanBeResynchronised) {
    const DamagedCapture capture = damagedCapture(2, 9, Bytes());
    auto source = openMemory(capture.bytes.data(), capture.bytes.size());
    PcapReader reader(*source, false);
    EXPECT_FALSE(reader.resync(nullptr));  // not opened
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    EXPECT_FALSE(reader.resync(nullptr));  // nothing failed
    ReadResult last;
    EXPECT_EQ(readAll(reader, last).size(), 2u);
    EXPECT_EQ(last, ReadResult::End);
    EXPECT_FALSE(reader.resync(nullptr));  // a clean end
    RawRecord record;
    EXPECT_EQ(reader.next(record), ReadResult::End);
}

TEST(PcapReaderResync, ACandidateMustBeFollowedByAPlausibleHeaderOrTheEnd) {
    // The damage holds a sound record header and 8 data bytes, then 0xFF
    // bytes: what follows that "record" is no record header, so it is no
    // candidate. The last record of the capture is one: the capture ends
    // right after it.
    Bytes damage = oversizedDamage();
    damage = concat(concat(damage, ByteTable().u32le(1001).u32le(7).u32le(8).u32le(8).bytes()),
                    Bytes(8 + 24, 0xFF));
    const DamagedCapture capture = damagedCapture(3, 1, damage);
    auto source = openMemory(capture.bytes.data(), capture.bytes.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    readAll(reader, last);
    ASSERT_EQ(last, ReadResult::Oversized);
    ASSERT_TRUE(reader.resync(nullptr));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_EQ(reader.resyncTo(), capture.offsets[2]);
    const std::vector<Seen> seen = readAll(reader, last);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].header.tsSec, 1002u);
}

TEST(PcapReaderResync, TimesFarFromTheLastRecordAndRejectedRecordsAreNoCandidates) {
    // Two sound records inside the damage: one more than a day after the
    // last good record, one that the caller's check rejects.
    const Bytes far = pcapRecord(1000 + 86401, 0, 8, 8, sequence(8, 0x50));
    const Bytes rejected = pcapRecord(1001, 0, 8, 8, sequence(8, 0xEE));
    const Bytes damage = concat(concat(oversizedDamage(), far), rejected);
    const DamagedCapture capture = damagedCapture(3, 1, damage);
    auto source = openMemory(capture.bytes.data(), capture.bytes.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    readAll(reader, last);
    ASSERT_EQ(last, ReadResult::Oversized);
    int asked = 0;
    ASSERT_TRUE(reader.resync([&](const RawRecord& candidate) {
        ++asked;
        return candidate.data.get_u8(0) != 0xEE;
    }));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_EQ(reader.resyncTo(), capture.offsets[2]);
    EXPECT_EQ(asked, 2);  // the rejected record, then the good one
    EXPECT_EQ(readAll(reader, last).size(), 1u);
}

TEST(PcapReaderResync, NothingPlausibleAfterTheDamageEndsTheCapture) {
    Bytes bytes = concat(pcapHeader(kMagicMicro, 150), pcapRecord(1000, 0, 4, 4, sequence(4, 1)));
    const std::uint64_t damageAt = bytes.size();
    bytes = concat(bytes, oversizedDamage());
    auto source = openMemory(bytes.data(), bytes.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    readAll(reader, last);
    ASSERT_EQ(last, ReadResult::Oversized);
    ASSERT_TRUE(reader.resync(nullptr));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_FALSE(reader.resyncFound());
    EXPECT_EQ(reader.resyncFrom(), damageAt);
    EXPECT_EQ(reader.resyncTo(), bytes.size());
    EXPECT_EQ(reader.next(record), ReadResult::End);
}

TEST(PcapReaderResync, ATruncatedRecordWithAWrongLengthIsPassedOver) {
    // A length field damaged to 20000 runs past the end of the capture.
    const Bytes damage = pcapRecord(1001, 0, 20000, 20000, sequence(40, 9));
    const DamagedCapture capture = damagedCapture(4, 1, damage);
    auto source = openMemory(capture.bytes.data(), capture.bytes.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    readAll(reader, last);
    ASSERT_EQ(last, ReadResult::Truncated);
    ASSERT_TRUE(reader.resync(nullptr));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_EQ(reader.resyncTo(), capture.offsets[2]);
    EXPECT_EQ(readAll(reader, last).size(), 2u);
}

TEST(PcapReaderResync, CorruptCompressedDataResumesAtTheNextMember) {
    // Records 0-9 in plain bytes; the first member holds the bytes up to the
    // middle of record 3 and then corrupt data, the second member the bytes
    // from the middle of record 5 on.
    const DamagedCapture capture = damagedCapture(10, 99, Bytes());
    const std::size_t cut = capture.offsets[3] + 20;
    const std::size_t resume = capture.offsets[5] + 30;
    const Bytes first = gzipThenBadBlock(Bytes(capture.bytes.begin(), capture.bytes.begin() + cut));
    const Bytes second = gzip(Bytes(capture.bytes.begin() + resume, capture.bytes.end()));
    const Bytes file = concat(first, second);
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    ReadResult last;
    EXPECT_EQ(readAll(reader, last).size(), 3u);
    ASSERT_EQ(last, ReadResult::DataError);
    ASSERT_TRUE(reader.resync(nullptr));
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Resynced);
    EXPECT_TRUE(reader.resyncFound());
    EXPECT_EQ(reader.resyncFrom(), capture.offsets[3]);
    // The uncompressed stream jumps from `cut` to `resume`: record 6 starts
    // (offsets[6] - resume) bytes after the jump.
    EXPECT_EQ(reader.resyncTo(), cut + (capture.offsets[6] - resume));
    EXPECT_GT(reader.resyncCompressedSkipped(), 0u);
    const std::vector<Seen> seen = readAll(reader, last);
    EXPECT_EQ(last, ReadResult::End);
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].header.tsSec, 1006u);
    EXPECT_TRUE(seen[3].data == sequence(40, 9));
}

}  // namespace
