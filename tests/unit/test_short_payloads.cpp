// Payloads shorter than their declaration. Every payload is allocated on the
// heap with exactly its size, so a read outside it is caught by
// AddressSanitizer; the bytes that are missing read as zero and the offsets
// advance as if they were there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Values = std::map<std::string, std::string>;

const char* const kModXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="Order" logString="Order" category="CAT">
    <param type="TavUint8_t" nameList="a"/>
    <param type="TavUint16_t" nameList="b"/>
  </LogId>
  <LogId name="Legacy" logString="Legacy text" category="CAT">
    <param type="TavUint32_t" nameList="p1,p2,p3"/>
    <param type="TavUint8_t" nameList="cid"/>
    <param type="string" nameList="tag,trailer"/>
  </LogId>
  <LogId name="Mixed" logString="M" category="CAT">
    <param type="TavInt16_t" nameList="arr" count="2"/>
    <param type="string" nameList="s" size="4"/>
    <param type="binarystring" nameList="bin" size="2"/>
    <param type="varbinarystring" nameList="vb" size="8"/>
  </LogId>
</Dictionary>
)";

const char* const kHdrXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="HDR" moduleid="3" binlogversion="1"/>
  <ModuleHeader>
    <param type="TavUint8_t" nameList="h"/>
  </ModuleHeader>
  <LogId name="WithHdr" logString="P {p}" category="HC">
    <param type="TavUint8_t" nameList="p"/>
  </LogId>
</Dictionary>
)";

const std::string kEpoch = "[1970-01-01T00:00:00.000Z] ";

std::string pad(const std::string& s, std::size_t width) {
    return s.size() >= width ? s : std::string(width - s.size(), ' ') + s;
}

// A copy of `bytes` on the heap, exactly as large as the bytes themselves.
class HeapPayload {
  public:
    explicit HeapPayload(const Bytes& bytes)
        : size_(bytes.size()), data_(new unsigned char[bytes.size()]) {
        std::copy(bytes.begin(), bytes.end(), data_.get());
    }
    Tav::ByteReader view() const { return Tav::ByteReader(data_.get(), size_); }

  private:
    std::size_t size_;
    std::unique_ptr<unsigned char[]> data_;
};

template <typename T>
Tav::TavLogParam<T> makeParam(const std::string& name, std::uint32_t length = 0,
                              const std::string& format = "DefaultDisplay") {
    Tav::TavLogParam<T> p;
    p.name = name;
    p.length = length;
    if (!std::is_same<T, std::string>::value) {
        p.displayFormat = format;
    }
    return p;
}

Tav::PcapRecHeader makePcap(std::uint32_t storageLength) {
    Tav::PcapRecHeader p;
    p.storageLength = storageLength;
    p.capturedLength = storageLength;
    return p;
}

Tav::BinLogHeader makeHeader(std::uint32_t type, std::uint32_t logId, std::uint16_t level,
                             std::uint16_t version, std::uint32_t seqNo) {
    Tav::BinLogHeader h;
    h.packetType = type;
    h.logId = logId;
    h.logLevel = level;
    h.logVersion = version;
    h.seqNo = seqNo;
    return h;
}

std::size_t countLineFeeds(const std::string& s) {
    return std::count(s.begin(), s.end(), '\n');
}

// Number of ":"-separated pieces of `text` that are one rendered byte (two
// lowercase hex digits); a trailing marker of omitted bytes is not counted.
std::size_t countHexBytes(const std::string& text) {
    std::size_t count = 0;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find(':', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string piece = text.substr(start, end - start);
        if (piece.size() == 2 && std::isxdigit(static_cast<unsigned char>(piece[0])) &&
            std::isxdigit(static_cast<unsigned char>(piece[1]))) {
            ++count;
        }
        start = end + 1;
    }
    return count;
}

class ShortPayloadsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("a_binlog.xml", kModXml);
        dir_.writeFile("b_binlog.xml", kHdrXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

    // Decodes a one-parameter integer list; returns the text, sets `offset`.
    template <typename T>
    std::string decodeInt(const Bytes& bytes, Tav::TavLogParam<T> param, unsigned int& offset) {
        HeapPayload heap(bytes);
        std::vector<Tav::TavLogParam<T>> params{param};
        Values values;
        EXPECT_EQ(reader().decodeIntParams(heap.view(), params, offset, values), 0);
        return values[param.name];
    }

    template <typename T>
    void expectScalar(const Bytes& bytes, unsigned int start, const std::string& text,
                      const std::string& format = "DefaultDisplay") {
        unsigned int offset = start;
        EXPECT_EQ(decodeInt<T>(bytes, makeParam<T>("v", 0, format), offset), text);
        EXPECT_EQ(offset, start + sizeof(T));
    }

    enum class Kind { String, Binary, VarBinary };
    std::string decodeString(Kind kind, const Bytes& bytes, std::uint32_t length,
                             unsigned int& offset, std::string* err = nullptr) {
        HeapPayload heap(bytes);
        std::vector<Tav::TavLogParam<std::string>> params{makeParam<std::string>("s", length)};
        Values values;
        wexbl_test::StderrCapture capture;
        int rc = -1;
        switch (kind) {
            case Kind::String:
                rc = reader().decodeStringParams(heap.view(), params, offset, values);
                break;
            case Kind::Binary:
                rc = reader().decodeBinaryStringParams(heap.view(), params, offset, values);
                break;
            case Kind::VarBinary:
                rc = reader().decodeVarBinaryStringParam(heap.view(), params, offset, values);
                break;
        }
        std::string captured = capture.stop();
        if (err != nullptr) {
            *err = captured;
        }
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(params[0].displayValue, values["s"]);
        return values["s"];
    }

    struct Dispatched {
        int rc = 0;
        std::string out;
        std::string err;
    };
    Dispatched dispatch(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                        const Bytes& bytes) {
        HeapPayload heap(bytes);
        wexbl_test::MemoryStream out;
        wexbl_test::StderrCapture err;
        Dispatched d;
        EXPECT_NO_THROW(d.rc = reader().getLogDetailsForLogId(pcap, header, heap.view(),
                                                              pcap.storageLength, out.file(), 0));
        d.err = err.stop();
        d.out = out.text();
        return d;
    }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- Integer parameters ------------------------------------------------------------------

TEST_F(ShortPayloadsTest, ScalarsRunningPastTheEndReadMissingBytesAsZero) {
    expectScalar<std::uint8_t>({0x01}, 0, "1");
    expectScalar<std::uint16_t>({0x01}, 0, "1");
    expectScalar<std::uint32_t>({0x01}, 0, "1");
    expectScalar<std::uint64_t>({0x01}, 0, "1");
    expectScalar<std::int8_t>({0xff}, 0, "-1");
    expectScalar<std::int16_t>({0xff}, 0, "255");
    expectScalar<std::int32_t>({0xff, 0xff, 0xff}, 0, "16777215");
    expectScalar<std::int64_t>({0xff, 0xff}, 0, "65535");
    expectScalar<std::uint32_t>({0x00, 0x34, 0x12}, 1, "4660");
}

TEST_F(ShortPayloadsTest, ScalarsWhollyBeyondTheEndAreZero) {
    const Bytes three{0x11, 0x22, 0x33};
    expectScalar<std::uint8_t>(three, 3, "0");
    expectScalar<std::int8_t>(three, 100, "0");
    expectScalar<std::uint16_t>(three, 100, "0x0", "hex");
    expectScalar<std::int16_t>(three, 100, "0");
    expectScalar<std::uint32_t>(three, 100, "0000-00", "SF-SFN");
    expectScalar<std::int32_t>(three, 100, "0");
    expectScalar<std::uint64_t>(three, 100, "0");
    expectScalar<std::int64_t>(three, 100, "0x0", "hex");
    expectScalar<std::uint8_t>(Bytes{}, 0, "0");
}

TEST_F(ShortPayloadsTest, ListRunningPastTheEndKeepsItsOffsets) {
    HeapPayload heap({0x01, 0x00, 0x00, 0x00, 0x02, 0x00});
    std::vector<Tav::TavLogParam<std::uint32_t>> params{makeParam<std::uint32_t>("a"),
                                                        makeParam<std::uint32_t>("b"),
                                                        makeParam<std::uint32_t>("c")};
    Values values;
    unsigned int offset = 0;
    reader().decodeIntParams(heap.view(), params, offset, values);
    EXPECT_EQ(values, (Values{{"a", "1"}, {"b", "2"}, {"c", "0"}}));
    EXPECT_EQ(offset, 12u);
}

TEST_F(ShortPayloadsTest, ArrayPartlyPresent) {
    unsigned int offset = 0;
    EXPECT_EQ(decodeInt<std::int16_t>({0x01, 0x02, 0x03}, makeParam<std::int16_t>("a", 3), offset),
              "[a[0]=513,a[1]=3,a[2]=0]");
    EXPECT_EQ(offset, 6u);
}

TEST_F(ShortPayloadsTest, ArrayWhollyBeyondTheEnd) {
    unsigned int offset = 0;
    EXPECT_EQ(decodeInt<std::uint64_t>(Bytes{}, makeParam<std::uint64_t>("q", 2), offset),
              "[q[0]=0,q[1]=0]");
    EXPECT_EQ(offset, 16u);
}

TEST_F(ShortPayloadsTest, HugeArrayCountRendersBoundedTextAndAdvancesTheWholeCount) {
    unsigned int offset = 0;
    std::string text =
        decodeInt<std::uint8_t>({1, 2, 3}, makeParam<std::uint8_t>("big", 4294967295u), offset);
    EXPECT_EQ(text.rfind("[big[0]=1,big[1]=2,big[2]=3,big[3]=0,", 0), 0u);
    EXPECT_EQ(text.find("big[25000]="), std::string::npos);
    // 4294967295 elements of one byte each.
    EXPECT_EQ(offset, 4294967295u);

    // Two bytes per element: the offset wraps around in 32 bits.
    offset = 0;
    text = decodeInt<std::uint16_t>({1, 0}, makeParam<std::uint16_t>("w", 4294967295u), offset);
    EXPECT_EQ(text.rfind("[w[0]=1,w[1]=0,", 0), 0u);
    EXPECT_EQ(text.find("w[25000]="), std::string::npos);
    EXPECT_EQ(offset, 4294967294u);
}

// ---- String parameters -----------------------------------------------------------------------

TEST_F(ShortPayloadsTest, StringRunningPastTheEnd) {
    unsigned int offset = 0;
    EXPECT_EQ(decodeString(Kind::String, {'a', 'b', 'c', 'd', 'e'}, 14, offset), "abcde");
    EXPECT_EQ(offset, 14u);

    offset = 9;
    EXPECT_EQ(decodeString(Kind::String, {'a', 'b'}, 14, offset), "");
    EXPECT_EQ(offset, 23u);

    // All fourteen bytes present and none of them NUL.
    offset = 0;
    Bytes exact{'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N'};
    EXPECT_EQ(decodeString(Kind::String, exact, 14, offset), "ABCDEFGHIJKLMN");
    EXPECT_EQ(offset, 14u);
}

TEST_F(ShortPayloadsTest, BinaryStringRunningPastTheEnd) {
    unsigned int offset = 0;
    EXPECT_EQ(decodeString(Kind::Binary, {0x0a, 0x1b}, 4, offset), "0a:1b:00:00");
    EXPECT_EQ(offset, 4u);

    offset = 2;
    EXPECT_EQ(decodeString(Kind::Binary, {0x0a, 0x1b}, 3, offset), "00:00:00");
    EXPECT_EQ(offset, 5u);
}

TEST_F(ShortPayloadsTest, HugeBinaryStringRendersAtMost25000Bytes) {
    unsigned int offset = 0;
    std::string text = decodeString(Kind::Binary, {0x0a, 0x1b}, 100000, offset);
    EXPECT_EQ(text.rfind("0a:1b:00:00:", 0), 0u);
    EXPECT_LE(countHexBytes(text), 25000u);
    EXPECT_LT(text.size(), 25000u * 3 + 16);
    EXPECT_EQ(offset, 100000u);

    // A size of -1 in the dictionary: the offset wraps around in 32 bits.
    offset = 1;
    text = decodeString(Kind::Binary, {0x0a, 0x1b}, 4294967295u, offset);
    EXPECT_EQ(text.rfind("1b:00:", 0), 0u);
    EXPECT_LE(countHexBytes(text), 25000u);
    EXPECT_LT(text.size(), 25000u * 3 + 16);
    EXPECT_EQ(offset, 0u);
}

TEST_F(ShortPayloadsTest, VarBinaryStringRunningPastTheEnd) {
    unsigned int offset = 0;
    std::string err;
    // Half of the count is present: count 5, all five bytes missing.
    EXPECT_EQ(decodeString(Kind::VarBinary, {0x05}, 16, offset, &err),
              "payload size:5 00:00:00:00:00");
    EXPECT_EQ(offset, 7u);
    EXPECT_EQ(err, "");

    offset = 0;
    EXPECT_EQ(decodeString(Kind::VarBinary, {0x03, 0x00, 0xaa}, 16, offset),
              "payload size:3 aa:00:00");
    EXPECT_EQ(offset, 5u);

    offset = 0;
    EXPECT_EQ(decodeString(Kind::VarBinary, Bytes{}, 16, offset), "payload size:0 ");
    EXPECT_EQ(offset, 2u);

    // A count above the declared size is still capped.
    offset = 0;
    EXPECT_EQ(decodeString(Kind::VarBinary, {0xff, 0xff, 0x01}, 4, offset, &err),
              "payload size:4 01:00:00:00");
    EXPECT_EQ(offset, 6u);
    EXPECT_EQ(err, "Variable length:65535 in payload is greater thanthe definition 4\n");
}

TEST_F(ShortPayloadsTest, BinaryLogRecordOfEveryKindCutShort) {
    // arr (two int16), s (4), bin (2), vb (8): only arr[0] and one byte of arr[1].
    auto d =
        dispatch(makePcap(19), makeHeader(Tav::BinLog, 0x01020003, 5, 3, 1), {0xfe, 0xff, 0x07});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:MOD", 10) + "] [" + pad("Mixed", 25) +
                         "] [    INFO] [" + pad("CAT", 10) +
                         "] [1] [M arr=[arr[0]=-2,arr[1]=7] s= bin=00:00 vb=payload size:0  ] \n");
    EXPECT_EQ(d.err, "");
}

TEST_F(ShortPayloadsTest, BinaryLogRecordWithModuleHeaderCutShort) {
    auto one = dispatch(makePcap(17), makeHeader(Tav::BinLog, 0x01030001, 5, 1, 1), {0x05});
    EXPECT_EQ(one.out, kEpoch + "[" + pad("SYS:HDR", 10) + "] [" + pad("WithHdr", 25) +
                           "] [    INFO] [" + pad("HC", 10) + "] [1] [h=5 ] [P p=0] \n");
    auto none = dispatch(makePcap(16), makeHeader(Tav::BinLog, 0x01030001, 5, 1, 2), Bytes{});
    EXPECT_EQ(none.out, kEpoch + "[" + pad("SYS:HDR", 10) + "] [" + pad("WithHdr", 25) +
                            "] [    INFO] [" + pad("HC", 10) + "] [2] [h=0 ] [P p=0] \n");
}

TEST_F(ShortPayloadsTest, BinaryLogRecordWithoutHeaderCutShort) {
    auto d = dispatch(makePcap(17), makeHeader(Tav::BinLog, 0x01020001, 5, 3, 1), {0x02});
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:MOD", 10) + "] [" + pad("Order", 25) +
                         "] [    INFO] [" + pad("CAT", 10) + "] [1] [Order a=0 b=2 ] \n");
}

// ---- Legacy ---------------------------------------------------------------------------------

TEST_F(ShortPayloadsTest, LegacyPayloadOfTenBytes) {
    Tav::LogDetails log = reader().logDetailsMap.at(0x0102).at(2);
    HeapPayload heap({0x03, 0x28, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x01, 0x02});
    Tav::BinLogHeader header;
    EXPECT_EQ(reader().decodeLegacyLogPayLoad(header, heap.view(), log), 0);
    EXPECT_EQ(log.frameTiming, 10243u);
    EXPECT_EQ(log.uint32Params.at(0).value, 7u);
    EXPECT_EQ(log.uint32Params.at(1).value, 0x0201u);
    EXPECT_EQ(log.uint32Params.at(2).value, 0u);
    EXPECT_EQ(log.uint8Params.at(0).value, 0);
    EXPECT_EQ(log.stringParams.at(0).value, "");
    EXPECT_EQ(log.stringParams.at(1).value, "");
}

TEST_F(ShortPayloadsTest, LegacyPayloadEndingInsideTheFirstText) {
    Bytes bytes(30, 0);
    bytes[24] = 12;
    bytes[28] = 'h';
    bytes[29] = 'i';
    Tav::LogDetails log = reader().logDetailsMap.at(0x0102).at(2);
    HeapPayload heap(bytes);
    Tav::BinLogHeader header;
    reader().decodeLegacyLogPayLoad(header, heap.view(), log);
    EXPECT_EQ(log.uint8Params.at(0).value, 12);
    EXPECT_EQ(log.stringParams.at(0).value, "hi");
    EXPECT_EQ(log.stringParams.at(1).value, "");
}

TEST_F(ShortPayloadsTest, EmptyAndExactLegacyPayloads) {
    Tav::BinLogHeader header;
    Tav::LogDetails empty = reader().logDetailsMap.at(0x0102).at(2);
    HeapPayload none(Bytes{});
    reader().decodeLegacyLogPayLoad(header, none.view(), empty);
    EXPECT_EQ(empty.frameTiming, 0u);
    EXPECT_EQ(empty.uint32Params.at(0).value, 0u);
    EXPECT_EQ(empty.stringParams.at(1).value, "");

    Bytes full(56, 'z');
    Tav::LogDetails exact = reader().logDetailsMap.at(0x0102).at(2);
    HeapPayload heap(full);
    reader().decodeLegacyLogPayLoad(header, heap.view(), exact);
    EXPECT_EQ(exact.stringParams.at(0).value, std::string(14, 'z'));
    EXPECT_EQ(exact.stringParams.at(1).value, std::string(14, 'z'));
}

TEST_F(ShortPayloadsTest, ShortLegacyRecordIsPrinted) {
    auto d = dispatch(makePcap(20), makeHeader(Tav::Legacy, 0x01020002, 4, 3, 1),
                      {0x03, 0x28, 0x00, 0x00});
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.out, kEpoch + "[" + pad("SYS:MOD", 10) + "] [" + pad("Legacy", 25) +
                         "] [  NOTICE] [" + pad("CAT", 10) + "] [1] [0000-03] [" +
                         std::string(14, ' ') + "]  Legacy text p1=0 p2=0 p3=0 trailer= \n");
}

// ---- Syslog ------------------------------------------------------------------------------------

TEST_F(ShortPayloadsTest, SyslogStorageLengthBelow32IsSkippedWithOneLine) {
    for (std::uint32_t length : {0u, 20u, 31u}) {
        SCOPED_TRACE(length);
        HeapPayload heap({'t', 'a', 'g'});
        std::string tag, message;
        wexbl_test::StderrCapture capture;
        int rc = 0;
        EXPECT_NO_THROW(rc = reader().decodeSyslogPayLoad(makePcap(length),
                                                          makeHeader(Tav::Syslog, 0, 3, 0, 1),
                                                          heap.view(), tag, message));
        std::string err = capture.stop();
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(countLineFeeds(err), 1u);
        EXPECT_EQ(err.back(), '\n');
        EXPECT_NE(err.find(std::to_string(length)), std::string::npos);
    }
}

TEST_F(ShortPayloadsTest, ShortSyslogRecordPrintsNothingOnTheOutputStream) {
    auto d = dispatch(makePcap(25), makeHeader(Tav::Syslog, 0x01020001, 3, 3, 1),
                      {'t', 'a', 'g', 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(d.out, "");
    EXPECT_EQ(countLineFeeds(d.err), 1u);
    EXPECT_NE(d.err.find("25"), std::string::npos);

    // The next record is decoded normally.
    auto next = dispatch(makePcap(33), makeHeader(Tav::Syslog, 0x01020001, 3, 3, 2),
                         {'t', 'a', 'g', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'm'});
    EXPECT_EQ(next.out, kEpoch + "[syslog] [" + pad("tag", 16) + "] [    WARN] [2] [m]\n");
    EXPECT_EQ(next.err, "");
}

TEST_F(ShortPayloadsTest, SyslogMessageIsCutToTheBytesPresent) {
    Bytes bytes{'t', 'a', 'g', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'};
    HeapPayload heap(bytes);
    std::string tag, message;
    EXPECT_EQ(reader().decodeSyslogPayLoad(makePcap(100), makeHeader(Tav::Syslog, 0, 3, 0, 1),
                                           heap.view(), tag, message),
              0);
    EXPECT_EQ(tag, std::string("tag\0\0\0\0\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(message, "hello");

    auto d = dispatch(makePcap(100), makeHeader(Tav::Syslog, 0, 3, 0, 7), bytes);
    EXPECT_EQ(d.out, kEpoch + "[syslog] [" + pad("tag", 16) + "] [    WARN] [7] [hello]\n");
    EXPECT_EQ(d.err, "");
}

TEST_F(ShortPayloadsTest, SyslogTagCutShortReadsZeros) {
    HeapPayload heap({'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j'});
    std::string tag = "old", message = "old";
    EXPECT_EQ(reader().decodeSyslogPayLoad(makePcap(60), makeHeader(Tav::Syslog, 0, 3, 0, 1),
                                           heap.view(), tag, message),
              0);
    EXPECT_EQ(tag, std::string("abcdefghij\0\0\0\0\0\0", 16));
    EXPECT_EQ(message, "");

    HeapPayload exact(
        {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'});
    EXPECT_EQ(reader().decodeSyslogPayLoad(makePcap(40), makeHeader(Tav::Syslog, 0, 3, 0, 1),
                                           exact.view(), tag, message),
              0);
    EXPECT_EQ(tag, "0123456789abcdef");
    EXPECT_EQ(message, "");
}

}  // namespace
