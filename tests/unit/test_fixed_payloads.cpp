// Legacy and syslog payloads: the fixed 56-byte legacy layout spread over the
// first declared parameters, and the syslog tag and message.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;

const char* const kBinlogXml = R"(<?xml version="1.0"?>
<Dictionary>
  <LoggingSubSystem subsystem="SYS" subsystemId="1" module="MOD" moduleid="2" binlogversion="3"/>
  <LogId name="L1" logString="hello" category="CAT"/>
</Dictionary>
)";

void put32(Bytes& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        b[at + i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

void putText(Bytes& b, std::size_t at, const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        b[at + i] = static_cast<unsigned char>(text[i]);
    }
}

// frameTiming 10243; u32 values 11, 22, 33, 44, 55; u8 values 1, 2, 3, 4;
// texts "TAGTEXT" (NUL padded) and "TRAILERTRAILER" (14 characters, no NUL).
Bytes legacyPayload() {
    Bytes b(56, 0);
    put32(b, 0, 10243);
    put32(b, 4, 11);
    put32(b, 8, 22);
    put32(b, 12, 33);
    put32(b, 16, 44);
    put32(b, 20, 55);
    b[24] = 1;
    b[25] = 2;
    b[26] = 3;
    b[27] = 4;
    putText(b, 28, "TAGTEXT");
    putText(b, 42, "TRAILERTRAILER");
    return b;
}

template <typename T>
Tav::TavLogParam<T> makeParam(const std::string& name, T value = T{}) {
    Tav::TavLogParam<T> p;
    p.name = name;
    p.value = value;
    return p;
}

class FixedPayloadsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("core_binlog.xml", kBinlogXml);
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dir_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());
    }
    Tav::BinaryLogXmlReader& reader() { return *reader_; }

    int decodeLegacy(const Bytes& bytes, Tav::LogDetails& log) {
        Tav::BinLogHeader header;
        header.packetType = Tav::Legacy;
        Tav::ByteReader payload(bytes.data(), bytes.size());
        return reader().decodeLegacyLogPayLoad(header, payload, log);
    }

    int decodeSyslog(std::uint32_t storageLength, const Bytes& bytes, std::string& tag,
                     std::string& message) {
        Tav::PcapRecHeader pcap;
        pcap.storageLength = storageLength;
        pcap.capturedLength = storageLength;
        Tav::BinLogHeader header;
        header.packetType = Tav::Syslog;
        Tav::ByteReader payload(bytes.data(), bytes.size());
        return reader().decodeSyslogPayLoad(pcap, header, payload, tag, message);
    }

  private:
    wexbl_test::TempDir dir_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- Legacy ---------------------------------------------------------------------------

TEST_F(FixedPayloadsTest, LegacyWithTwoUint32ParametersSetsOnlyThoseTwo) {
    Tav::LogDetails log;
    log.uint32Params = {makeParam<std::uint32_t>("p1"), makeParam<std::uint32_t>("p2")};
    EXPECT_EQ(decodeLegacy(legacyPayload(), log), 0);
    EXPECT_EQ(log.frameTiming, 10243u);
    ASSERT_EQ(log.uint32Params.size(), 2u);
    EXPECT_EQ(log.uint32Params[0].value, 11u);
    EXPECT_EQ(log.uint32Params[1].value, 22u);
    // Nothing goes into the display texts or the decoded-values map.
    EXPECT_EQ(log.uint32Params[0].displayValue, "");
    EXPECT_TRUE(log.decodedValues.empty());
}

TEST_F(FixedPayloadsTest, LegacyParametersBeyondTheFixedSlotsKeepTheirValues) {
    Tav::LogDetails log;
    for (int i = 1; i <= 6; ++i) {
        log.uint32Params.push_back(makeParam<std::uint32_t>("p" + std::to_string(i), 700 + i));
    }
    for (int i = 1; i <= 5; ++i) {
        log.uint8Params.push_back(
            makeParam<std::uint8_t>("c" + std::to_string(i), static_cast<std::uint8_t>(90 + i)));
    }
    log.stringParams = {makeParam<std::string>("s1", "x"), makeParam<std::string>("s2", "y"),
                        makeParam<std::string>("s3", "keep")};
    EXPECT_EQ(decodeLegacy(legacyPayload(), log), 0);

    EXPECT_EQ(log.uint32Params[0].value, 11u);
    EXPECT_EQ(log.uint32Params[1].value, 22u);
    EXPECT_EQ(log.uint32Params[2].value, 33u);
    EXPECT_EQ(log.uint32Params[3].value, 44u);
    EXPECT_EQ(log.uint32Params[4].value, 55u);
    EXPECT_EQ(log.uint32Params[5].value, 706u);

    EXPECT_EQ(log.uint8Params[0].value, 1);
    EXPECT_EQ(log.uint8Params[1].value, 2);
    EXPECT_EQ(log.uint8Params[2].value, 3);
    EXPECT_EQ(log.uint8Params[3].value, 4);
    EXPECT_EQ(log.uint8Params[4].value, 95);

    EXPECT_EQ(log.stringParams[0].value, "TAGTEXT");
    EXPECT_EQ(log.stringParams[1].value, "TRAILERTRAILER");
    EXPECT_EQ(log.stringParams[2].value, "keep");
    for (const auto& p : log.stringParams) {
        EXPECT_EQ(p.displayValue, "");
    }
    EXPECT_TRUE(log.decodedValues.empty());
}

TEST_F(FixedPayloadsTest, LegacyFourteenByteTextWithoutNulYieldsAllFourteenCharacters) {
    Tav::LogDetails log;
    log.stringParams = {makeParam<std::string>("tag"), makeParam<std::string>("trailer")};
    Bytes bytes = legacyPayload();
    putText(bytes, 28, "ABCDEFGHIJKLMN");
    decodeLegacy(bytes, log);
    EXPECT_EQ(log.stringParams[0].value, "ABCDEFGHIJKLMN");
    EXPECT_EQ(log.stringParams[1].value, "TRAILERTRAILER");
    EXPECT_EQ(log.stringParams[1].value.size(), 14u);
}

TEST_F(FixedPayloadsTest, LegacyWithOneStringParameterTakesTheFirstText) {
    Tav::LogDetails log;
    log.stringParams = {makeParam<std::string>("tag", "old")};
    decodeLegacy(legacyPayload(), log);
    ASSERT_EQ(log.stringParams.size(), 1u);
    EXPECT_EQ(log.stringParams[0].value, "TAGTEXT");
}

TEST_F(FixedPayloadsTest, LegacyWithoutStringParametersIgnoresTheTexts) {
    Tav::LogDetails log;
    log.uint32Params = {makeParam<std::uint32_t>("p1")};
    log.int32Params = {makeParam<std::int32_t>("other", -5)};
    log.uint16Params = {makeParam<std::uint16_t>("w", 9)};
    log.binaryStringParams = {makeParam<std::string>("b", "bin")};
    decodeLegacy(legacyPayload(), log);
    EXPECT_EQ(log.uint32Params[0].value, 11u);
    EXPECT_TRUE(log.stringParams.empty());
    // Lists outside the fixed layout are left alone.
    EXPECT_EQ(log.int32Params[0].value, -5);
    EXPECT_EQ(log.uint16Params[0].value, 9);
    EXPECT_EQ(log.binaryStringParams[0].value, "bin");
    EXPECT_TRUE(log.decodedValues.empty());
}

TEST_F(FixedPayloadsTest, LegacyPayloadNeedsNoAlignment) {
    Bytes shifted(1, 0xee);
    Bytes body = legacyPayload();
    shifted.insert(shifted.end(), body.begin(), body.end());
    Tav::LogDetails log;
    log.uint32Params = {makeParam<std::uint32_t>("p1")};
    Tav::BinLogHeader header;
    Tav::ByteReader payload(shifted.data() + 1, body.size());
    EXPECT_EQ(reader().decodeLegacyLogPayLoad(header, payload, log), 0);
    EXPECT_EQ(log.frameTiming, 10243u);
    EXPECT_EQ(log.uint32Params[0].value, 11u);
}

// ---- Syslog ---------------------------------------------------------------------------

Bytes syslogPayload(const std::string& tag16, const std::string& message) {
    Bytes b(tag16.begin(), tag16.end());
    b.resize(16, 0);
    b.insert(b.end(), message.begin(), message.end());
    return b;
}

TEST_F(FixedPayloadsTest, SyslogSplitsTagAndMessage) {
    std::string tag = "old tag";
    std::string message = "old message";
    EXPECT_EQ(decodeSyslog(32 + 5, syslogPayload("myTag", "hello"), tag, message), 0);
    EXPECT_EQ(tag, std::string("myTag\0\0\0\0\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(message, "hello");
}

TEST_F(FixedPayloadsTest, SyslogTagShorterThanSixteenKeepsItsNulBytes) {
    std::string tag, message;
    decodeSyslog(32 + 3, syslogPayload("ab", "xyz"), tag, message);
    EXPECT_EQ(tag.size(), 16u);
    EXPECT_EQ(tag.substr(0, 2), "ab");
    EXPECT_EQ(tag.substr(2), std::string(14, '\0'));
}

TEST_F(FixedPayloadsTest, SyslogTagOfSixteenCharacters) {
    std::string tag, message;
    decodeSyslog(32 + 1, syslogPayload("0123456789abcdef", "m"), tag, message);
    EXPECT_EQ(tag, "0123456789abcdef");
    EXPECT_EQ(message, "m");
}

TEST_F(FixedPayloadsTest, SyslogStorageLengthOf32GivesAnEmptyMessage) {
    std::string tag, message = "previous";
    EXPECT_EQ(decodeSyslog(32, syslogPayload("t", ""), tag, message), 0);
    EXPECT_EQ(message, "");
    EXPECT_EQ(tag.size(), 16u);
}

TEST_F(FixedPayloadsTest, SyslogMessageKeepsExactlyStorageLengthMinus32Bytes) {
    std::string tag, message;
    // The record holds more bytes than storageLength covers: only 4 are taken.
    decodeSyslog(32 + 4, syslogPayload("t", "abcdefgh"), tag, message);
    EXPECT_EQ(message, "abcd");

    // NUL bytes inside the message stay part of the string.
    decodeSyslog(32 + 3, syslogPayload("t", std::string("a\0b", 3)), tag, message);
    EXPECT_EQ(message, std::string("a\0b", 3));
    EXPECT_EQ(message.size(), 3u);

    // Line feeds are not touched by the decoder.
    decodeSyslog(32 + 3, syslogPayload("t", "a\nb"), tag, message);
    EXPECT_EQ(message, "a\nb");
}

}  // namespace
