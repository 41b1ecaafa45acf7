// Captures assembled byte by byte in this file from the record layouts
// (docs/dictionary-format.md and the pcap format), without any of the
// project's own code: neither the capture writer nor the library makes these
// bytes. The library decodes them with readBinaryFiledata, and the lines are
// compared with lines worked out by hand. This keeps the writer and the
// reader honest together: both could agree on a wrong layout, but not with
// these bytes.
//
// The dictionary: four modules of subsystem HAND (id 1), version 1, whose
// module headers need 1, 2, 3 and 7 bytes of padding; module "one" also has a
// log with a parameter of every type group, an array and a var binary string.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

const char* const kModuleOne = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="HAND" subsystemId="1" module="one" moduleid="1" binlogversion="1">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cell"/>
    <p type="TavUint8_t" nameList="car"/>
  </ModuleHeader>
  <LogId name="Tick" category="T" logString="tick {x}">
    <p type="TavUint8_t" nameList="x"/>
  </LogId>
  <LogId name="Every" category="ALL" logString="every">
    <p type="TavInt8_t" nameList="a"/>
    <p type="string" nameList="s" size="3"/>
    <p type="TavUint64_t" nameList="b"/>
    <p type="binarystring" nameList="bs" size="2"/>
    <p type="TavInt16_t" nameList="c"/>
    <p type="TavUint32_t" nameList="d" displayFormat="hex"/>
    <p type="varbinarystring" nameList="v" size="4"/>
    <p type="TavUint8_t" nameList="e"/>
    <p type="TavInt64_t" nameList="f"/>
    <p type="TavUint16_t" nameList="arr" count="2"/>
    <p type="TavInt32_t" nameList="h"/>
  </LogId>
</LoggingSubSystem>
)";

// Header of one u16: 2 bytes, 2 of padding.
const char* const kModuleTwo = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="HAND" subsystemId="1" module="two" moduleid="2" binlogversion="1">
  <ModuleHeader><p type="TavUint16_t" nameList="cell"/></ModuleHeader>
  <LogId name="Tick" category="T" logString="tick {x}"><p type="TavUint8_t" nameList="x"/></LogId>
</LoggingSubSystem>
)";

// Header of one u8: 1 byte, 3 of padding.
const char* const kModuleThree = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="HAND" subsystemId="1" module="three" moduleid="3" binlogversion="1">
  <ModuleHeader><p type="TavUint8_t" nameList="car"/></ModuleHeader>
  <LogId name="Tick" category="T" logString="tick {x}"><p type="TavUint8_t" nameList="x"/></LogId>
</LoggingSubSystem>
)";

// Header of a u8 and a u64: 9 bytes with a 64-bit parameter, padded to 16.
const char* const kModuleFour = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="HAND" subsystemId="1" module="four" moduleid="4" binlogversion="1">
  <ModuleHeader>
    <p type="TavUint8_t" nameList="car"/>
    <p type="TavUint64_t" nameList="imsi"/>
  </ModuleHeader>
  <LogId name="Tick" category="T" logString="tick {x}"><p type="TavUint8_t" nameList="x"/></LogId>
</LoggingSubSystem>
)";

using Bytes = std::vector<unsigned char>;

// Link type 150: five records at 1700000000 s (2023-11-14T22:13:20Z, bytes
// 00 f1 53 65) and 1 to 5 ms.
const Bytes kLink150 = {
    // ---- pcap global header (24 bytes)
    0xd4, 0xc3, 0xb2, 0xa1,  // magic: microseconds, little-endian
    0x02, 0x00, 0x04, 0x00,  // version 2.4
    0x00, 0x00, 0x00, 0x00,  // time zone
    0x00, 0x00, 0x00, 0x00,  // accuracy
    0xff, 0xff, 0x00, 0x00,  // snapshot length 65535
    0x96, 0x00, 0x00, 0x00,  // link type 150

    // ---- record 1: HAND:one Tick (header padding 1)
    0x00, 0xf1, 0x53, 0x65,  // seconds 1700000000
    0xe8, 0x03, 0x00, 0x00,  // microseconds 1000
    0x15, 0x00, 0x00, 0x00,  // captured length 21
    0x15, 0x00, 0x00, 0x00,  // storage length 21 (16 + 5)
    0x00, 0x00, 0x00, 0x00,  // BinLogHeader: packet type 0 (binary log)
    0x01, 0x00, 0x01, 0x01,  // log id 0x01010001: module 0x0101, log 1
    0x05, 0x00,              // level 5 (INFO)
    0x01, 0x00,              // version 1
    0x01, 0x00, 0x00, 0x00,  // sequence number 1
    0x02, 0x01,              // header u16 cell = 0x0102 = 258
    0x03,                    // header u8 car = 3
    0x00,                    // padding: 3 header bytes up to 4
    0x09,                    // u8 x = 9

    // ---- record 2: HAND:two Tick (header padding 2)
    0x00, 0xf1, 0x53, 0x65,  // seconds
    0xd0, 0x07, 0x00, 0x00,  // microseconds 2000
    0x15, 0x00, 0x00, 0x00,  // captured length 21
    0x15, 0x00, 0x00, 0x00,  // storage length 21
    0x00, 0x00, 0x00, 0x00,  // packet type 0
    0x01, 0x00, 0x02, 0x01,  // log id 0x01020001
    0x05, 0x00,              // level 5
    0x01, 0x00,              // version 1
    0x02, 0x00, 0x00, 0x00,  // sequence number 2
    0x04, 0x03,              // header u16 cell = 0x0304 = 772
    0x00, 0x00,              // padding: 2 header bytes up to 4
    0x08,                    // u8 x = 8

    // ---- record 3: HAND:three Tick (header padding 3)
    0x00, 0xf1, 0x53, 0x65,  // seconds
    0xb8, 0x0b, 0x00, 0x00,  // microseconds 3000
    0x15, 0x00, 0x00, 0x00,  // captured length 21
    0x15, 0x00, 0x00, 0x00,  // storage length 21
    0x00, 0x00, 0x00, 0x00,  // packet type 0
    0x01, 0x00, 0x03, 0x01,  // log id 0x01030001
    0x05, 0x00,              // level 5
    0x01, 0x00,              // version 1
    0x03, 0x00, 0x00, 0x00,  // sequence number 3
    0x07,                    // header u8 car = 7
    0x00, 0x00, 0x00,        // padding: 1 header byte up to 4
    0x06,                    // u8 x = 6

    // ---- record 4: HAND:four Tick (a 64-bit header parameter: padding to 8)
    0x00, 0xf1, 0x53, 0x65,  // seconds
    0xa0, 0x0f, 0x00, 0x00,  // microseconds 4000
    0x21, 0x00, 0x00, 0x00,  // captured length 33
    0x21, 0x00, 0x00, 0x00,  // storage length 33 (16 + 17)
    0x00, 0x00, 0x00, 0x00,  // packet type 0
    0x01, 0x00, 0x04, 0x01,  // log id 0x01040001
    0x05, 0x00,              // level 5
    0x01, 0x00,              // version 1
    0x04, 0x00, 0x00, 0x00,  // sequence number 4
    // header u64 imsi first (its group comes before u8, whatever the
    // declaration order): 0x0102030405060708 = 72623859790382856
    0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,
    0x05,                                      // header u8 car = 5
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // padding: 9 header bytes up to 16
    0x04,                                      // u8 x = 4

    // ---- record 5: HAND:one Every, every type group in wire order
    0x00, 0xf1, 0x53, 0x65,                          // seconds
    0x88, 0x13, 0x00, 0x00,                          // microseconds 5000
    0x3e, 0x00, 0x00, 0x00,                          // captured length 62
    0x3e, 0x00, 0x00, 0x00,                          // storage length 62 (16 + 46)
    0x00, 0x00, 0x00, 0x00,                          // packet type 0
    0x02, 0x00, 0x01, 0x01,                          // log id 0x01010002: module 0x0101, log 2
    0x06, 0x00,                                      // level 6 (DEBUG)
    0x01, 0x00,                                      // version 1
    0x05, 0x00, 0x00, 0x00,                          // sequence number 5
    0x01, 0x00,                                      // header u16 cell = 1
    0x02,                                            // header u8 car = 2
    0x00,                                            // padding
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // u64 b = 18446744073709551615
    0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // i64 f = -2
    0xef, 0xbe, 0xad, 0xde,                          // u32 d = 0xdeadbeef (hex)
    0x60, 0x79, 0xfe, 0xff,                          // i32 h = 0xfffe7960 = -100000
    0x01, 0x00, 0xff, 0xff,                          // u16 arr[2] = 1, 65535
    0xfe, 0xff,                                      // i16 c = -2
    0xc8,                                            // u8 e = 200
    0x80,                                            // i8 a = -128
    0x61, 0x62, 0x00,                                // string s (size 3) = "ab"
    0x0a, 0x1b,                                      // binarystring bs (size 2)
    0x03, 0x00, 0xde, 0xad, 0xbe,                    // varbinarystring v: count 3, bytes
};

// Link type 1: one Ethernet frame, IPv4, UDP 40000 -> 5000, captured at
// 1600000000 s (2020-09-13T12:26:40Z); the sender's own header inside says
// 1700000000 s and 6 ms, which is the time shown.
const Bytes kEthernet = {
    // ---- pcap global header
    0xd4, 0xc3, 0xb2, 0xa1, 0x02, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0xff, 0xff, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,  // link type 1 (Ethernet)

    // ---- record header
    0x00, 0x10, 0x5e, 0x5f,  // seconds 1600000000
    0x00, 0x00, 0x00, 0x00,  // microseconds 0
    0x4f, 0x00, 0x00, 0x00,  // captured length 79 (14 + 20 + 8 + 16 + 21)
    0x4f, 0x00, 0x00, 0x00,  // storage length 79

    // ---- Ethernet (offsets 0-13)
    0x02, 0x00, 0x00, 0x00, 0x00, 0x02,  // destination MAC
    0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // source MAC
    0x08, 0x00,                          // EtherType IPv4
    // ---- IPv4 (14-33)
    0x45, 0x00,              // version 4, header length 5 words; type of service
    0x00, 0x41,              // total length 65 (20 + 45)
    0x00, 0x01,              // identification
    0x40, 0x00,              // don't fragment, offset 0
    0x40, 0x11,              // time to live 64, protocol 17 (UDP) at offset 23
    0xb6, 0xa7,              // header checksum
    0xc0, 0x00, 0x02, 0x01,  // 192.0.2.1
    0xc0, 0x00, 0x02, 0x02,  // 192.0.2.2
    // ---- UDP (34-41)
    0x9c, 0x40,  // source port 40000
    0x13, 0x88,  // destination port 5000 (offsets 36-37)
    0x00, 0x2d,  // length 45 (8 + 16 + 21)
    0x00, 0x00,  // no checksum
    // ---- UDP payload (42-): the sender's record header, then the log record
    0x00, 0xf1, 0x53, 0x65,  // seconds 1700000000
    0x70, 0x17, 0x00, 0x00,  // microseconds 6000
    0x15, 0x00, 0x00, 0x00,  // captured length 21
    0x15, 0x00, 0x00, 0x00,  // storage length 21
    0x00, 0x00, 0x00, 0x00,  // packet type 0
    0x01, 0x00, 0x02, 0x01,  // log id 0x01020001: HAND:two Tick
    0x05, 0x00,              // level 5
    0x01, 0x00,              // version 1
    0x06, 0x00, 0x00, 0x00,  // sequence number 6
    0x06, 0x05,              // header u16 cell = 0x0506 = 1286
    0x00, 0x00,              // padding
    0x2a,                    // u8 x = 42
};

std::string asString(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

class HandAssembled : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("one_binlog.xml", kModuleOne);
        dir_.writeFile("two_binlog.xml", kModuleTwo);
        dir_.writeFile("three_binlog.xml", kModuleThree);
        dir_.writeFile("four_binlog.xml", kModuleFour);
    }

    /// What readBinaryFiledata prints for `capture` (standard output; standard
    /// error must stay empty).
    std::string decode(const Bytes& capture) {
        const std::string path = dir_.writeFile("capture.pcap", asString(capture));
        wexbl_test::StderrCapture err;
        Tav::BinaryLogXmlReader reader(dir_.slash(), false, 5000, 64);
        EXPECT_TRUE(reader.isGood());
        wexbl_test::MemoryStream out;
        reader.readBinaryFiledata(path, 0, out.file());
        EXPECT_EQ(err.stop(), "");
        return out.text();
    }

    wexbl_test::TempDir dir_;
};

TEST_F(HandAssembled, ModuleHeaderPaddingAndEveryTypeGroupOnLinkType150) {
    EXPECT_EQ(decode(kLink150),
              "[2023-11-14T22:13:20.001Z] [  HAND:one] [                     Tick] [    INFO] "
              "[         T] [1] [cell=258 car=3 ] [tick x=9] \n"
              "[2023-11-14T22:13:20.002Z] [  HAND:two] [                     Tick] [    INFO] "
              "[         T] [2] [cell=772 ] [tick x=8] \n"
              "[2023-11-14T22:13:20.003Z] [HAND:three] [                     Tick] [    INFO] "
              "[         T] [3] [car=7 ] [tick x=6] \n"
              "[2023-11-14T22:13:20.004Z] [ HAND:four] [                     Tick] [    INFO] "
              "[         T] [4] [car=5 imsi=72623859790382856 ] [tick x=4] \n"
              // No placeholders: every parameter in declaration order.
              "[2023-11-14T22:13:20.005Z] [  HAND:one] [                    Every] [   DEBUG] "
              "[       ALL] [5] [cell=1 car=2 ] [every a=-128 s=ab b=18446744073709551615 "
              "bs=0a:1b c=-2 d=0xdeadbeef v=payload size:3 de:ad:be e=200 f=-2 "
              "arr=[arr[0]=1,arr[1]=65535] h=-100000 ] \n");
}

TEST_F(HandAssembled, OneEthernetIpv4Frame) {
    EXPECT_EQ(decode(kEthernet),
              "[2023-11-14T22:13:20.006Z] [  HAND:two] [                     Tick] [    INFO] "
              "[         T] [6] [cell=1286 ] [tick x=42] \n");
}

}  // namespace
