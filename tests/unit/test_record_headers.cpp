// Tests of the two 16-byte record headers: their wire layout, the packet-type
// values, and how the log id and sequence number of a header are read by the
// dictionary look-up and the statistics.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "BinLogRecordHeaders.h"
#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "capture/RecordHeaders.h"

namespace {

using wexbl_test::MemoryStream;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

static_assert(sizeof(Tav::PcapRecHeader) == 16, "PcapRecHeader size");
static_assert(offsetof(Tav::PcapRecHeader, tsSec) == 0, "tsSec offset");
static_assert(offsetof(Tav::PcapRecHeader, tsUsec) == 4, "tsUsec offset");
static_assert(offsetof(Tav::PcapRecHeader, capturedLength) == 8, "capturedLength offset");
static_assert(offsetof(Tav::PcapRecHeader, storageLength) == 12, "storageLength offset");
static_assert(sizeof(Tav::BinLogHeader) == 16, "BinLogHeader size");
static_assert(offsetof(Tav::BinLogHeader, packetType) == 0, "packetType offset");
static_assert(offsetof(Tav::BinLogHeader, logId) == 4, "logId offset");
static_assert(offsetof(Tav::BinLogHeader, logLevel) == 8, "logLevel offset");
static_assert(offsetof(Tav::BinLogHeader, logVersion) == 10, "logVersion offset");
static_assert(offsetof(Tav::BinLogHeader, seqNo) == 12, "seqNo offset");
static_assert(std::is_trivially_copyable<Tav::PcapRecHeader>::value, "copied as bytes");
static_assert(std::is_trivially_copyable<Tav::BinLogHeader>::value, "copied as bytes");

TEST(RecordHeaders, FieldWidths) {
    Tav::PcapRecHeader p;
    Tav::BinLogHeader b;
    EXPECT_EQ(sizeof p.tsSec, 4u);
    EXPECT_EQ(sizeof p.tsUsec, 4u);
    EXPECT_EQ(sizeof p.capturedLength, 4u);
    EXPECT_EQ(sizeof p.storageLength, 4u);
    EXPECT_EQ(sizeof b.packetType, 4u);
    EXPECT_EQ(sizeof b.logId, 4u);
    EXPECT_EQ(sizeof b.logLevel, 2u);
    EXPECT_EQ(sizeof b.logVersion, 2u);
    EXPECT_EQ(sizeof b.seqNo, 4u);
    EXPECT_TRUE(std::is_unsigned<decltype(b.seqNo)>::value);
    EXPECT_TRUE(std::is_unsigned<decltype(b.logId)>::value);
}

TEST(RecordHeaders, ValueInitialisedHeadersAreZero) {
    const Tav::PcapRecHeader p{};
    const Tav::BinLogHeader b{};
    const unsigned char zeros[16] = {};
    EXPECT_EQ(std::memcmp(&p, zeros, 16), 0);
    EXPECT_EQ(std::memcmp(&b, zeros, 16), 0);
}

TEST(RecordHeaders, PacketTypeValues) {
    EXPECT_EQ(static_cast<std::uint32_t>(Tav::BinLog), 0u);
    EXPECT_EQ(static_cast<std::uint32_t>(Tav::Legacy), 1u);
    EXPECT_EQ(static_cast<std::uint32_t>(Tav::Syslog), 2u);
    EXPECT_EQ(static_cast<std::uint32_t>(Tav::PcapCapture), 3u);
}

TEST(RecordHeaders, PcapRecordHeaderDecodesLittleEndian) {
    // One byte of padding in front: the decoder needs no alignment.
    const unsigned char bytes[17] = {
        0xEE,                    // not part of the header
        0x00, 0x10, 0x5E, 0x5F,  // tsSec 0x5F5E1000 = 1600000000
        0x40, 0x42, 0x0F, 0x00,  // tsUsec 0x000F4240 = 1000000
        0x34, 0x12, 0x00, 0x00,  // capturedLength 0x1234
        0xA8, 0x61, 0x00, 0x00,  // storageLength 0x61A8 = 25000
    };
    const Tav::PcapRecHeader h = Tav::detail::readPcapRecHeader(Tav::ByteReader(bytes, 17), 1);
    EXPECT_EQ(h.tsSec, 1600000000u);
    EXPECT_EQ(h.tsUsec, 1000000u);
    EXPECT_EQ(h.capturedLength, 0x1234u);
    EXPECT_EQ(h.storageLength, 25000u);
}

TEST(RecordHeaders, PcapRecordHeaderCutShortReadsZeros) {
    // Only tsSec and two bytes of tsUsec exist.
    const unsigned char bytes[6] = {0x01, 0x00, 0x00, 0x80, 0x02, 0x01};
    const Tav::PcapRecHeader h = Tav::detail::readPcapRecHeader(Tav::ByteReader(bytes, 6), 0);
    EXPECT_EQ(h.tsSec, 0x80000001u);
    EXPECT_EQ(h.tsUsec, 0x0102u);
    EXPECT_EQ(h.capturedLength, 0u);
    EXPECT_EQ(h.storageLength, 0u);
}

TEST(RecordHeaders, BinLogHeaderDecodesLittleEndian) {
    const unsigned char bytes[19] = {
        0xAA, 0xBB, 0xCC,        // not part of the header
        0x02, 0x00, 0x00, 0x00,  // packetType 2 (syslog)
        0x02, 0x00, 0x01, 0x00,  // logId 0x00010002
        0x05, 0x00,              // logLevel 5
        0x07, 0x01,              // logVersion 0x0107
        0xFF, 0xFF, 0xFF, 0xFF,  // seqNo 0xFFFFFFFF
    };
    const Tav::BinLogHeader h = Tav::detail::readBinLogHeader(Tav::ByteReader(bytes, 19), 3);
    EXPECT_EQ(h.packetType, static_cast<std::uint32_t>(Tav::Syslog));
    EXPECT_EQ(h.logId, 0x00010002u);
    EXPECT_EQ(h.logLevel, 5u);
    EXPECT_EQ(h.logVersion, 0x0107u);
    EXPECT_EQ(h.seqNo, 0xFFFFFFFFu);

    // The log id splits into the module key (high half) and the 1-based log
    // index (low half).
    EXPECT_EQ(static_cast<std::uint16_t>(h.logId >> 16), 1u);
    EXPECT_EQ(static_cast<std::uint16_t>(h.logId & 0xFFFFu), 2u);

    // Taken as a signed 32-bit number the sequence number is -1.
    std::int32_t asInt;
    std::memcpy(&asInt, &h.seqNo, sizeof asInt);
    EXPECT_EQ(asInt, -1);
}

TEST(RecordHeaders, HeaderCopiedFromAnUnalignedPosition) {
    unsigned char record[1 + 16 + 4] = {};
    const unsigned char header[16] = {0x01, 0,    0,    0,    0x03, 0x00, 0x02, 0x01,
                                      0x08, 0x00, 0x01, 0x00, 0x10, 0x00, 0x00, 0x80};
    std::memcpy(record + 1, header, sizeof header);
    Tav::BinLogHeader h;
    Tav::memscpy(&h, sizeof h, record + 1, 16);
    EXPECT_EQ(h.packetType, static_cast<std::uint32_t>(Tav::Legacy));
    EXPECT_EQ(h.logId, 0x01020003u);
    EXPECT_EQ(h.logLevel, 8u);
    EXPECT_EQ(h.logVersion, 1u);
    EXPECT_EQ(h.seqNo, 0x80000010u);
}

// ---- Through the reader ------------------------------------------------------

// Subsystem 0, module 1: the module key is (0 << 8) | 1 = 1. The two logs are
// numbered 1 and 2 in document order.
const char kModuleKeyOne[] =
    "<LoggingSubSystem subsystem=\"core\" subsystemId=\"0\" module=\"m\" moduleid=\"1\" "
    "binlogversion=\"3\">"
    "<LogId name=\"first\" logString=\"a\" category=\"C\"/>"
    "<LogId name=\"second\" logString=\"b\" category=\"C\"/>"
    "</LoggingSubSystem>";

TEST(RecordHeadersThroughReader, LogIdNamesModuleKeyAndLogIndex) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kModuleKeyOne);
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());

    const std::uint32_t logId = 0x00010002u;
    const auto key = static_cast<std::uint16_t>(logId >> 16);
    const auto index = static_cast<std::uint16_t>(logId & 0xFFFFu);
    ASSERT_EQ(reader.logDetailsMap.count(key), 1u);
    ASSERT_EQ(reader.logDetailsMap.at(key).count(index), 1u);
    EXPECT_EQ(reader.logDetailsMap.at(key).at(index).logName, "second");

    // The dispatcher finds the same log: a version mismatch names it.
    Tav::PcapRecHeader p;
    p.tsSec = 1600000000u;
    Tav::BinLogHeader b;
    b.packetType = Tav::BinLog;
    b.logId = logId;
    b.logVersion = 9;
    MemoryStream out;
    StderrCapture err;
    EXPECT_EQ(reader.getLogDetailsForLogId(p, b, Tav::ByteReader(), 16, out.file(), 0), 0);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(out.text(), "Mismatch in version for log [second] logVersion [9] xmlVersion [3] \n");
}

TEST(RecordHeadersThroughReader, LowHalfIsNotTheModule) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kModuleKeyOne);
    Tav::BinaryLogXmlReader reader(dir.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());

    // 0x00020001 would be log 1 of module key 2, which does not exist.
    Tav::BinLogHeader b;
    b.packetType = Tav::BinLog;
    b.logId = 0x00020001u;
    b.logVersion = 3;
    MemoryStream out;
    StderrCapture err;
    EXPECT_EQ(
        reader.getLogDetailsForLogId(Tav::PcapRecHeader{}, b, Tav::ByteReader(), 16, out.file(), 0),
        -1);
    EXPECT_EQ(err.stop(), "Log id :20001 not valid\n");
    EXPECT_EQ(out.text(), "");
}

TEST(RecordHeadersThroughReader, SeqNoAllOnesReachesTheStatisticsAsMinusOne) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kModuleKeyOne);
    Tav::BinaryLogXmlReader reader(dir.slash(), true, 0, 64);
    ASSERT_TRUE(reader.isGood());

    Tav::PcapRecHeader p;
    p.tsSec = 1600000000u;
    p.tsUsec = 1;
    Tav::BinLogHeader b;
    b.packetType = Tav::BinLog;
    b.logId = 0x00070001u;  // not in the dictionary: counted, then rejected
    b.seqNo = 0xFFFFFFFFu;
    MemoryStream out;
    StderrCapture err;
    reader.getLogDetailsForLogId(p, b, Tav::ByteReader(), 16, out.file(), 0);
    // A late record: the stored last number shows as -1 ...
    b.seqNo = 0xFFFFFFFEu;
    reader.getLogDetailsForLogId(p, b, Tav::ByteReader(), 16, out.file(), 0);
    // ... and the next number after it is 0, a normal step.
    b.seqNo = 0;
    reader.getLogDetailsForLogId(p, b, Tav::ByteReader(), 16, out.file(), 0);
    err.stop();
    EXPECT_EQ(out.text(), ">>out of order packets: module=0x7, lastSeqNo=-1,curSeqNo=-2\n");
    EXPECT_EQ(reader.statsCollector.outOfOrderRecords, 1u);
    EXPECT_EQ(reader.statsCollector.missingRecords, 0u);
    EXPECT_EQ(reader.statsCollector.lastSeqNoByModule.at(7u), 0u);
}

}  // namespace
