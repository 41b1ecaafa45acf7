// pcapng: sections in either byte order, interfaces with their own link types
// and time resolutions, the three packet blocks, skipped blocks of any size,
// padding, option bounds, and the structure errors.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "CaptureBytes.h"
#include "capture/Framing.h"
#include "capture/PcapReader.h"

namespace {

using namespace capture_test;
using Tav::capture::CaptureFormat;
using Tav::capture::kMaxRecordLength;
using Tav::capture::openMemory;
using Tav::capture::PcapReader;
using Tav::capture::RawRecord;
using Tav::capture::ReadResult;

constexpr bool kLE = false;
constexpr bool kBE = true;

std::size_t padding(std::size_t size) {
    return (4 - size % 4) % 4;
}

Bytes block(std::uint32_t type, const Bytes& body, bool be) {
    const auto length = static_cast<std::uint32_t>(12 + body.size() + padding(body.size()));
    return ByteTable()
        .u32(type, be)
        .u32(length, be)
        .raw(body)
        .fill(padding(body.size()), 0)
        .u32(length, be)
        .bytes();
}

Bytes option(std::uint16_t code, const Bytes& value, bool be) {
    return ByteTable()
        .u16(code, be)
        .u16(static_cast<unsigned>(value.size()), be)
        .raw(value)
        .fill(padding(value.size()), 0)
        .bytes();
}

Bytes endOfOptions(bool be) {
    return ByteTable().u16(0, be).u16(0, be).bytes();
}

Bytes shb(bool be, std::uint16_t major = 1, std::uint32_t byteOrderMagic = 0x1A2B3C4D) {
    return block(0x0A0D0D0A,
                 ByteTable()
                     .u32(byteOrderMagic, be)
                     .u16(major, be)
                     .u16(0, be)
                     .fill(8, 0xFF)
                     .raw(option(4, ByteTable().text("test writer").bytes(), be))
                     .raw(endOfOptions(be))
                     .bytes(),
                 be);
}

Bytes idb(bool be, std::uint16_t linkType, std::uint32_t snapLength = 0,
          const Bytes& options = {}) {
    return block(
        1, ByteTable().u16(linkType, be).u16(0, be).u32(snapLength, be).raw(options).bytes(), be);
}

Bytes tsresol(std::uint8_t value, bool be) {
    return option(9, Bytes{value}, be);
}

Bytes epb(bool be, std::uint32_t interface, std::uint64_t stamp, const Bytes& data,
          std::uint32_t originalLength, const Bytes& options = {}) {
    return block(6,
                 ByteTable()
                     .u32(interface, be)
                     .u32(static_cast<std::uint32_t>(stamp >> 32), be)
                     .u32(static_cast<std::uint32_t>(stamp), be)
                     .u32(static_cast<std::uint32_t>(data.size()), be)
                     .u32(originalLength, be)
                     .raw(data)
                     .fill(padding(data.size()), 0)
                     .raw(options)
                     .bytes(),
                 be);
}

Bytes spb(bool be, std::uint32_t originalLength, const Bytes& data) {
    return block(3, ByteTable().u32(originalLength, be).raw(data).bytes(), be);
}

Bytes pb(bool be, std::uint16_t interface, std::uint64_t stamp, const Bytes& data,
         std::uint32_t originalLength) {
    return block(2,
                 ByteTable()
                     .u16(interface, be)
                     .u16(0, be)
                     .u32(static_cast<std::uint32_t>(stamp >> 32), be)
                     .u32(static_cast<std::uint32_t>(stamp), be)
                     .u32(static_cast<std::uint32_t>(data.size()), be)
                     .u32(originalLength, be)
                     .raw(data)
                     .bytes(),
                 be);
}

Bytes join(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

Bytes sequence(std::size_t size, unsigned first) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) {
        out[i] = static_cast<unsigned char>(first + 3 * i);
    }
    return out;
}

struct Seen {
    Tav::PcapRecHeader header;
    std::uint32_t linkType;
    Bytes data;
    std::uint64_t offset;
    std::uint64_t number;
};

/// A capture read to its end: the records and the result that ended it.
struct Reading {
    Bytes file;
    std::unique_ptr<Tav::capture::ByteSource> source;
    std::unique_ptr<PcapReader> reader;
    std::vector<Seen> seen;
    ReadResult last = ReadResult::End;
};

/// Opens `file` (not strict) and reads every record.
std::unique_ptr<Reading> readAll(Bytes file) {
    auto reading = std::unique_ptr<Reading>(new Reading);
    reading->file = std::move(file);
    reading->source = openMemory(reading->file.data(), reading->file.size());
    reading->reader.reset(new PcapReader(*reading->source, false));
    reading->last = reading->reader->open();
    if (reading->last != ReadResult::Ok) {
        return reading;
    }
    EXPECT_EQ(reading->reader->format(), CaptureFormat::PcapNg);
    RawRecord record;
    while ((reading->last = reading->reader->next(record)) == ReadResult::Record) {
        EXPECT_EQ(record.data.size(), record.header.storageLength);
        reading->seen.push_back({record.header, record.linkType,
                                 Bytes(record.data.data(), record.data.data() + record.data.size()),
                                 record.offset, record.number});
    }
    return reading;
}

TEST(PcapNgReader, OneSectionLittleEndian) {
    const auto r = readAll(
        join({shb(kLE), idb(kLE, 150), epb(kLE, 0, 1700000000123456ull, sequence(20, 1), 30)}));
    EXPECT_EQ(r->reader->linkType(), 150u);
    ASSERT_EQ(r->seen.size(), 1u);
    const Seen& seen = r->seen[0];
    EXPECT_EQ(seen.header.tsSec, 1700000000u);
    EXPECT_EQ(seen.header.tsUsec, 123456u);
    EXPECT_EQ(seen.header.capturedLength, 30u);
    EXPECT_EQ(seen.header.storageLength, 20u);
    EXPECT_TRUE(seen.data == sequence(20, 1));
    EXPECT_EQ(seen.linkType, 150u);
    EXPECT_EQ(seen.offset, shb(kLE).size() + idb(kLE, 150).size());
    EXPECT_EQ(seen.number, 1u);
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, OpenReadsAheadToTheFirstInterfaceOnly) {
    const Bytes file = join({shb(kLE), block(4, Bytes(8, 0), kLE), idb(kLE, 1), idb(kLE, 150),
                             epb(kLE, 1, 0, sequence(4, 0), 4)});
    auto source = openMemory(file.data(), file.size());
    PcapReader reader(*source, false);
    ASSERT_EQ(reader.open(), ReadResult::Ok);
    EXPECT_EQ(reader.linkType(), 1u);
    EXPECT_EQ(source->offset(), shb(kLE).size() + 20 + idb(kLE, 1).size());
    RawRecord record;
    ASSERT_EQ(reader.next(record), ReadResult::Record);
    EXPECT_EQ(record.linkType, 150u);

    // No interface before the first packet: link type 0, the packet untouched.
    const Bytes early = join({shb(kLE), epb(kLE, 0, 0, sequence(4, 0), 4)});
    auto earlySource = openMemory(early.data(), early.size());
    PcapReader earlyReader(*earlySource, false);
    ASSERT_EQ(earlyReader.open(), ReadResult::Ok);
    EXPECT_EQ(earlyReader.linkType(), 0u);
    EXPECT_EQ(earlySource->offset(), shb(kLE).size());
    EXPECT_EQ(earlyReader.next(record), ReadResult::BadBlock);

    // A section header alone.
    const auto bare = readAll(shb(kBE));
    EXPECT_TRUE(bare->seen.empty());
    EXPECT_EQ(bare->reader->linkType(), 0u);
    EXPECT_EQ(bare->last, ReadResult::End);
}

TEST(PcapNgReader, TwoSectionsOfDifferentByteOrder) {
    const auto r =
        readAll(join({shb(kLE), idb(kLE, 1), epb(kLE, 0, 5000001, sequence(8, 2), 8), shb(kBE),
                      idb(kBE, 150), idb(kBE, 1, 0, join({tsresol(9, kBE), endOfOptions(kBE)})),
                      epb(kBE, 1, 7000000123ull, sequence(6, 3), 60),
                      epb(kBE, 0, 9000002, sequence(16, 4), 16)}));
    EXPECT_EQ(r->reader->linkType(), 1u);
    ASSERT_EQ(r->seen.size(), 3u);
    const auto& seen = r->seen;
    EXPECT_EQ(seen[0].linkType, 1u);
    EXPECT_EQ(seen[0].header.tsSec, 5u);
    EXPECT_EQ(seen[0].header.tsUsec, 1u);
    EXPECT_TRUE(seen[0].data == sequence(8, 2));
    EXPECT_EQ(seen[1].linkType, 1u);
    EXPECT_EQ(seen[1].header.tsSec, 7u);
    EXPECT_EQ(seen[1].header.tsUsec, 0u);  // 123 ns
    EXPECT_EQ(seen[1].header.capturedLength, 60u);
    EXPECT_EQ(seen[1].header.storageLength, 6u);
    EXPECT_TRUE(seen[1].data == sequence(6, 3));
    EXPECT_EQ(seen[2].linkType, 150u);
    EXPECT_EQ(seen[2].header.tsSec, 9u);
    EXPECT_EQ(seen[2].header.tsUsec, 2u);
    EXPECT_TRUE(seen[2].data == sequence(16, 4));
    EXPECT_EQ(seen[2].number, 3u);
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, TimeResolutionsAndOffset) {
    struct Case {
        Bytes options;
        std::uint64_t stamp;
        std::uint32_t sec;
        std::uint32_t usec;
    };
    const std::vector<Case> cases = {
        {tsresol(9, kLE), 1700000000123456789ull, 1700000000, 123456},                // 10^-9
        {tsresol(0x94, kLE), (1700000000ull << 20) | 1048575, 1700000000, 999999},    // 2^-20
        {tsresol(0, kLE), 1700000000, 1700000000, 0},                                 // seconds
        {tsresol(3, kLE), 1700000000123ull, 1700000000, 123000},                      // 10^-3
        {tsresol(0x80, kLE), 7, 7, 0},                                                // 2^0
        {tsresol(0xBC, kLE), (1ull << 60) | (1ull << 59), 1, 500000},                 // 2^-60
        {tsresol(0xC0, kLE), 1ull << 63, 0, 500000},                                  // 2^-64
        {tsresol(19, kLE), 15000000000000000000ull, 1, 500000},                       // 10^-19
        {tsresol(25, kLE), 18446744073709551615ull, 0, 1},                            // 10^-25
        {option(14, ByteTable().u32le(100).u32le(0).bytes(), kLE), 5000001, 105, 1},  // +100 s
        {Bytes(), 5000001, 5, 1},                                                     // 10^-6
    };
    std::vector<Bytes> parts = {shb(kLE)};
    for (const Case& c : cases) {
        parts.push_back(idb(kLE, 150, 0, c.options));
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        parts.push_back(epb(kLE, static_cast<std::uint32_t>(i), cases[i].stamp, sequence(1, 0), 1));
    }
    const auto r = readAll(join(parts));
    ASSERT_EQ(r->seen.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(r->seen[i].header.tsSec, cases[i].sec) << "case " << i;
        EXPECT_EQ(r->seen[i].header.tsUsec, cases[i].usec) << "case " << i;
    }
    EXPECT_EQ(r->last, ReadResult::End);

    // if_tsoffset in a big-endian section: the high word first.
    const auto be = readAll(
        join({shb(kBE), idb(kBE, 1, 0, option(14, ByteTable().u32be(0).u32be(100).bytes(), kBE)),
              epb(kBE, 0, 5000001, sequence(1, 0), 1)}));
    ASSERT_EQ(be->seen.size(), 1u);
    EXPECT_EQ(be->seen[0].header.tsSec, 105u);
    EXPECT_EQ(be->seen[0].header.tsUsec, 1u);
}

TEST(PcapNgReader, SimplePacketBlocks) {
    const auto r = readAll(
        join({shb(kLE), idb(kLE, 150), spb(kLE, 5, sequence(5, 1)), spb(kLE, 100, sequence(8, 2)),
              shb(kBE), idb(kBE, 1, 4), spb(kBE, 5, sequence(5, 3))}));
    ASSERT_EQ(r->seen.size(), 3u);
    const auto& seen = r->seen;
    EXPECT_EQ(seen[0].header.tsSec, 0u);
    EXPECT_EQ(seen[0].header.tsUsec, 0u);
    EXPECT_EQ(seen[0].header.capturedLength, 5u);
    EXPECT_EQ(seen[0].header.storageLength, 5u);
    EXPECT_TRUE(seen[0].data == sequence(5, 1));
    EXPECT_EQ(seen[0].linkType, 150u);
    // The original length is larger than the block: the block's bytes.
    EXPECT_EQ(seen[1].header.capturedLength, 100u);
    EXPECT_EQ(seen[1].header.storageLength, 8u);
    EXPECT_TRUE(seen[1].data == sequence(8, 2));
    // The snap length cuts it.
    EXPECT_EQ(seen[2].linkType, 1u);
    EXPECT_EQ(seen[2].header.capturedLength, 5u);
    EXPECT_EQ(seen[2].header.storageLength, 4u);
    EXPECT_TRUE(seen[2].data == sequence(4, 3));
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, ObsoletePacketBlock) {
    const auto r = readAll(
        join({shb(kBE), idb(kBE, 101), idb(kBE, 150), pb(kBE, 1, 3000004, sequence(7, 5), 9)}));
    ASSERT_EQ(r->seen.size(), 1u);
    const Seen& seen = r->seen[0];
    EXPECT_EQ(seen.linkType, 150u);
    EXPECT_EQ(seen.header.tsSec, 3u);
    EXPECT_EQ(seen.header.tsUsec, 4u);
    EXPECT_EQ(seen.header.capturedLength, 9u);
    EXPECT_EQ(seen.header.storageLength, 7u);
    EXPECT_TRUE(seen.data == sequence(7, 5));
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, OtherBlocksAreSkippedWhateverTheirSize) {
    // A block larger than the window, also gzip-compressed, between packets.
    const Bytes big = block(0x40000BAD, noise(3 * 1024 * 1024, 1), kLE);
    const Bytes last = epb(kLE, 0, 2, sequence(5, 2), 5);
    const Bytes file = join({shb(kLE), block(4, Bytes(12, 0), kLE), idb(kLE, 150),
                             epb(kLE, 0, 1, sequence(3, 1), 3), block(5, Bytes(20, 1), kLE), big,
                             block(0x0A, Bytes(4, 2), kLE), last});
    for (const bool compress : {false, true}) {
        const auto r = readAll(compress ? gzip(file) : file);
        ASSERT_EQ(r->seen.size(), 2u);
        EXPECT_TRUE(r->seen[0].data == sequence(3, 1));
        EXPECT_TRUE(r->seen[1].data == sequence(5, 2));
        EXPECT_EQ(r->seen[1].number, 2u);
        EXPECT_EQ(r->seen[1].offset, file.size() - last.size());
        EXPECT_EQ(r->last, ReadResult::End);
    }
}

TEST(PcapNgReader, PaddingAndPacketOptions) {
    const Bytes comment =
        join({option(1, ByteTable().text("hello").bytes(), kLE), endOfOptions(kLE)});
    const auto r = readAll(join({shb(kLE), idb(kLE, 1), epb(kLE, 0, 1, sequence(5, 1), 5, comment),
                                 epb(kLE, 0, 2, sequence(3, 2), 3), epb(kLE, 0, 3, Bytes(), 0)}));
    ASSERT_EQ(r->seen.size(), 3u);
    EXPECT_TRUE(r->seen[0].data == sequence(5, 1));
    EXPECT_TRUE(r->seen[1].data == sequence(3, 2));
    EXPECT_TRUE(r->seen[2].data.empty());
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, OptionsAreReadWithinTheirBlock) {
    // A time stamp of 1234567 units: 1.234567 s in microseconds, 0.001234 s in
    // nanoseconds. An if_tsresol after an option that overruns the block, after
    // the end of options, or of the wrong length, is not applied.
    const std::vector<Bytes> ignored = {
        ByteTable().u16le(2).u16le(200).text("eth0").raw(tsresol(9, kLE)).bytes(),
        join({endOfOptions(kLE), tsresol(9, kLE)}),
        option(9, Bytes{9, 9}, kLE),
        ByteTable().u16le(9).u16le(0).bytes(),
        ByteTable().u16le(9).u16le(1).bytes(),  // its value would be the trailing length
    };
    for (std::size_t i = 0; i < ignored.size(); ++i) {
        const auto r = readAll(
            join({shb(kLE), idb(kLE, 1, 0, ignored[i]), epb(kLE, 0, 1234567, sequence(2, 0), 2)}));
        ASSERT_EQ(r->seen.size(), 1u) << i;
        EXPECT_EQ(r->seen[0].header.tsSec, 1u) << i;
        EXPECT_EQ(r->seen[0].header.tsUsec, 234567u) << i;
    }
    // Applied when well-formed, after another option.
    const auto r = readAll(join(
        {shb(kLE),
         idb(kLE, 1, 0, join({option(2, ByteTable().text("eth0").bytes(), kLE), tsresol(9, kLE)})),
         epb(kLE, 0, 1234567, sequence(2, 0), 2)}));
    ASSERT_EQ(r->seen.size(), 1u);
    EXPECT_EQ(r->seen[0].header.tsSec, 0u);
    EXPECT_EQ(r->seen[0].header.tsUsec, 1234u);
}

TEST(PcapNgReader, PacketLengthBound) {
    const auto r = readAll(join(
        {shb(kLE), idb(kLE, 150), epb(kLE, 0, 1, sequence(kMaxRecordLength, 0), kMaxRecordLength),
         epb(kLE, 0, 1, sequence(kMaxRecordLength + 1, 0), kMaxRecordLength + 1),
         epb(kLE, 0, 1, sequence(1, 0), 1)}));
    ASSERT_EQ(r->seen.size(), 1u);
    EXPECT_EQ(r->seen[0].data.size(), kMaxRecordLength);
    EXPECT_EQ(r->last, ReadResult::Oversized);
    EXPECT_EQ(r->reader->oversizedLength(), kMaxRecordLength + 1);
    RawRecord record;
    EXPECT_EQ(r->reader->next(record), ReadResult::Oversized);

    const auto simple =
        readAll(join({shb(kLE), idb(kLE, 150),
                      spb(kLE, kMaxRecordLength + 1, sequence(kMaxRecordLength + 1, 0))}));
    EXPECT_TRUE(simple->seen.empty());
    EXPECT_EQ(simple->last, ReadResult::Oversized);
    EXPECT_EQ(simple->reader->oversizedLength(), kMaxRecordLength + 1);
}

TEST(PcapNgReader, TruncatedBlocksAndPartialBlockHeaders) {
    const Bytes head = join({shb(kLE), idb(kLE, 150), epb(kLE, 0, 1, sequence(4, 0), 4)});
    const Bytes packet = epb(kLE, 0, 2, sequence(40, 0), 40);  // 32 + 40 bytes
    struct Case {
        Bytes tail;
        ReadResult last;
        long got;
        std::uint32_t expected;
    };
    const Bytes other = block(0x0BAD, Bytes(100, 7), kLE);
    const std::vector<Case> cases = {
        {truncated(packet, 50), ReadResult::Truncated, 50, 72},       // inside the data
        {truncated(packet, 20), ReadResult::Truncated, 20, 72},       // inside the fixed fields
        {truncated(packet, 5), ReadResult::End, 0, 0},                // a partial block header
        {truncated(other, 60), ReadResult::Truncated, 60, 112},       // a skipped block
        {truncated(idb(kLE, 1), 17), ReadResult::Truncated, 17, 20},  // an interface
        {truncated(shb(kBE), 10), ReadResult::Truncated, 10, 12},     // before the byte-order mark
        {truncated(shb(kBE), 30), ReadResult::Truncated, 30,
         static_cast<std::uint32_t>(shb(kBE).size())},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto r = readAll(concat(head, cases[i].tail));
        EXPECT_EQ(r->seen.size(), 1u) << i;
        EXPECT_EQ(r->last, cases[i].last) << i;
        if (cases[i].last == ReadResult::Truncated) {
            EXPECT_EQ(r->reader->truncatedGot(), cases[i].got) << i;
            EXPECT_EQ(r->reader->truncatedExpected(), cases[i].expected) << i;
        }
    }
}

TEST(PcapNgReader, ShortFirstSectionHeaderIsNoGlobalHeader) {
    const Bytes first = shb(kLE);
    for (const std::size_t size :
         {std::size_t(3), std::size_t(4), std::size_t(11), std::size_t(12), first.size() - 1}) {
        const auto r = readAll(truncated(first, size));
        EXPECT_TRUE(r->seen.empty());
        EXPECT_EQ(r->last, ReadResult::NoGlobalHeader) << size;
    }
}

TEST(PcapNgReader, StructureErrorsAreBadBlocks) {
    const Bytes head = join({shb(kLE), idb(kLE, 150)});
    Bytes badTrailer = epb(kLE, 0, 1, sequence(4, 0), 4);
    badTrailer[badTrailer.size() - 4] ^= 4;
    Bytes shortLength = epb(kLE, 0, 1, sequence(4, 0), 4);
    shortLength[20] = 100;  // captured length 100 in a 36-byte block
    const std::vector<Bytes> bad = {
        ByteTable().u32le(6).u32le(8).u32le(8).bytes(),          // length below 12
        ByteTable().u32le(0x0BAD).u32le(14).fill(6, 0).bytes(),  // not a multiple of 4
        badTrailer,
        shortLength,
        epb(kLE, 1, 1, sequence(4, 0), 4),                             // interface 1 unknown
        ByteTable().u32le(1).u32le(16).u32le(150).u32le(16).bytes(),   // IDB below 20
        ByteTable().u32le(6).u32le(28).fill(16, 0).u32le(28).bytes(),  // EPB below 32
        ByteTable().u32le(3).u32le(12).u32le(12).bytes(),              // SPB below 16
        shb(kBE, 2),                                                   // major version 2
        shb(kLE, 1, 0x11223344),                                       // no byte-order mark
        ByteTable()
            .u32le(0x0A0D0D0A)
            .u32le(24)
            .u32le(0x1A2B3C4D)
            .fill(8, 0)
            .u32le(24)
            .bytes(),  // SHB below 28
    };
    for (std::size_t i = 0; i < bad.size(); ++i) {
        const auto r = readAll(concat(head, bad[i]));
        EXPECT_TRUE(r->seen.empty()) << i;
        EXPECT_EQ(r->last, ReadResult::BadBlock) << i;
        RawRecord record;
        EXPECT_EQ(r->reader->next(record), ReadResult::BadBlock) << i;
    }
    // A malformed first section header.
    EXPECT_EQ(readAll(shb(kLE, 2))->last, ReadResult::BadBlock);
    EXPECT_EQ(readAll(shb(kLE, 1, 0x11223344))->last, ReadResult::BadBlock);
    // A simple packet block before any interface.
    EXPECT_EQ(readAll(concat(shb(kLE), spb(kLE, 4, sequence(4, 0))))->last, ReadResult::BadBlock);
}

TEST(PcapNgReader, InterfacesPerSectionAreBounded) {
    std::vector<Bytes> parts = {shb(kLE)};
    const Bytes one = idb(kLE, 1);
    for (std::size_t i = 0; i < PcapReader::kMaxInterfaces; ++i) {
        parts.push_back(one);
    }
    parts.push_back(epb(kLE, PcapReader::kMaxInterfaces - 1, 1, sequence(2, 0), 2));
    auto r = readAll(join(parts));
    EXPECT_EQ(r->seen.size(), 1u);
    EXPECT_EQ(r->last, ReadResult::End);
    parts.push_back(one);
    r = readAll(join(parts));
    EXPECT_EQ(r->seen.size(), 1u);
    EXPECT_EQ(r->last, ReadResult::BadBlock);
    // A new section starts counting again.
    parts.pop_back();
    parts.push_back(shb(kLE));
    parts.push_back(one);
    parts.push_back(epb(kLE, 0, 1, sequence(2, 0), 2));
    r = readAll(join(parts));
    EXPECT_EQ(r->seen.size(), 2u);
    EXPECT_EQ(r->last, ReadResult::End);
}

TEST(PcapNgReader, GzipDataErrorAfterPackets) {
    const Bytes file = join({shb(kLE), idb(kLE, 150), epb(kLE, 0, 1, sequence(4, 0), 4),
                             epb(kLE, 0, 2, sequence(8, 0), 8)});
    const auto r = readAll(gzipThenBadBlock(truncated(file, file.size() - 10)));
    EXPECT_EQ(r->seen.size(), 1u);
    EXPECT_EQ(r->last, ReadResult::DataError);
    EXPECT_EQ(r->source->error(), "invalid block type");
}

TEST(PcapNgReader, ResyncFindsTheNextSoundBlock) {
    // Four packets; the second one's trailer is damaged (a BadBlock), and
    // 0xFF bytes follow it before the third.
    Bytes damaged = epb(kLE, 0, 2000000, sequence(24, 2), 24);
    damaged[damaged.size() - 4] ^= 8;
    const Bytes first = join({shb(kLE), idb(kLE, 150), epb(kLE, 0, 1000000, sequence(24, 1), 24)});
    const Bytes middle = concat(damaged, Bytes(13, 0xFF));
    const Bytes rest = join(
        {epb(kLE, 0, 3000000, sequence(24, 3), 24), epb(kLE, 0, 4000000, sequence(24, 4), 24)});
    auto r = readAll(join({first, middle, rest}));
    ASSERT_EQ(r->last, ReadResult::BadBlock);
    ASSERT_EQ(r->seen.size(), 1u);
    ASSERT_TRUE(r->reader->resync(nullptr));
    RawRecord record;
    ASSERT_EQ(r->reader->next(record), ReadResult::Resynced);
    EXPECT_TRUE(r->reader->resyncFound());
    EXPECT_EQ(r->reader->resyncFrom(), first.size());
    EXPECT_EQ(r->reader->resyncTo(), first.size() + middle.size());
    ASSERT_EQ(r->reader->next(record), ReadResult::Record);
    EXPECT_EQ(record.header.tsSec, 3u);
    EXPECT_TRUE(Bytes(record.data.data(), record.data.data() + record.data.size()) ==
                sequence(24, 3));
    ASSERT_EQ(r->reader->next(record), ReadResult::Record);
    EXPECT_EQ(record.header.tsSec, 4u);
    EXPECT_EQ(record.number, 3u);
    EXPECT_EQ(r->reader->next(record), ReadResult::End);
}

TEST(PcapNgReader, ResyncNeedsAKnownInterfaceAndEndsAtTheEnd) {
    // After the damage only a packet of an interface never described.
    const Bytes first = join({shb(kLE), idb(kLE, 150), epb(kLE, 0, 1000000, sequence(8, 1), 8)});
    const Bytes tail = concat(ByteTable().u32le(6).u32le(9).bytes(),  // not a multiple of 4
                              epb(kLE, 3, 3000000, sequence(8, 3), 8));
    auto r = readAll(concat(first, tail));
    ASSERT_EQ(r->last, ReadResult::BadBlock);
    ASSERT_TRUE(r->reader->resync(nullptr));
    RawRecord record;
    ASSERT_EQ(r->reader->next(record), ReadResult::Resynced);
    EXPECT_FALSE(r->reader->resyncFound());
    EXPECT_EQ(r->reader->resyncTo(), first.size() + tail.size());
    EXPECT_EQ(r->reader->next(record), ReadResult::End);
}

}  // namespace
