// The dispatcher prints binary log records without copying the dictionary
// entries. These tests hold its lines and messages to what the step-by-step
// route prints for the same records: copy the descriptions, decode the module
// header and the log's parameters into the copies, and call displayBinLog.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using wexbl_test::MemoryStream;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

// Module 0x0102 has a header; module 0x0103 has none. Between them the logs
// use every parameter kind, arrays, enumerations with and without the value,
// names declared twice, names of unknown types, names shared with the module
// header, and message texts with every placeholder shape.
const char* const kHeaderModule = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="SYS" subsystemId="1" module="hdr" moduleid="2" binlogversion="4">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cell"/>
    <p type="TavUint8_t" nameList="carrier,dup"/>
    <p type="TavInt32_t" nameList="dup" displayFormat="hex"/>
    <p type="string" nameList="tag" size="5"/>
    <p type="varbinarystring" nameList="notDecoded" size="4"/>
    <p type="float" nameList="unknownType"/>
  </ModuleHeader>
  <LogId name="Everything" logString="All of it" category="A,b">
    <p type="TavUint64_t" nameList="u64" displayFormat="hex"/>
    <p type="TavInt64_t" nameList="i64"/>
    <p type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>
    <p type="TavInt32_t" nameList="i32" count="2" displayFormat="State"/>
    <p type="TavUint16_t" nameList="state" displayFormat="State"/>
    <p type="TavInt16_t" nameList="i16" count="3" displayFormat="hex"/>
    <p type="TavUint8_t" nameList="u8,cell" displayFormat="Missing"/>
    <p type="TavInt8_t" nameList="i8" count="1"/>
    <p type="string" nameList="text"/>
    <p type="binarystring" nameList="bin" size="3"/>
    <p type="varbinarystring" nameList="var" size="6"/>
    <p type="double" nameList="ghost"/>
  </LogId>
  <LogId name="Placeholders" logString="s={text} then {state} and {cell} {nothing} {state}" category="P">
    <p type="TavUint16_t" nameList="state" displayFormat="State"/>
    <p type="string" nameList="text" size="8"/>
    <p type="TavUint8_t" nameList="cell"/>
  </LogId>
  <LogId name="SelfMade" logString="{x} and {y}" category="P">
    <p type="string" nameList="x,y" size="6"/>
  </LogId>
  <LogId name="CloseFirst" logString="} odd {x" category="P">
    <p type="TavUint8_t" nameList="x"/>
  </LogId>
  <LogId name="CloseRightBefore" logString="t }{x and {y" category="P">
    <p type="string" nameList="x,y" size="4"/>
  </LogId>
  <LogId name="Twice" logString="{v}" category="P">
    <p type="TavUint32_t" nameList="v"/>
    <p type="TavUint8_t" nameList="v" count="2"/>
  </LogId>
</LoggingSubSystem>
)";

const char* const kPlainModule = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="S2" subsystemId="1" module="plain" moduleid="3" binlogversion="1">
  <LogId name="Bare" logString="no params" category="Z"/>
  <LogId name="Var" logString="var {v} end" category="Z">
    <p type="varbinarystring" nameList="v" size="300"/>
    <p type="TavUint8_t" nameList="after"/>
  </LogId>
</LoggingSubSystem>
)";

const char* const kDisplay = R"(<?xml version="1.0"?>
<d><enum name="State"><e value="0" text="IDLE"/><e value="1" text="UP"/><e value="2" text="{text}"/></enum></d>
)";

class RecordPathTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = new TempDir();
        dir_->writeFile("hdr_binlog.xml", kHeaderModule);
        dir_->writeFile("plain_binlog.xml", kPlainModule);
        dir_->writeFile("state_bindisplay.xml", kDisplay);
        reader_ = new Tav::BinaryLogXmlReader(dir_->slash(), false, 0, 4);
        ASSERT_TRUE(reader_->isGood());
    }
    static void TearDownTestSuite() {
        delete reader_;
        delete dir_;
    }

    struct Printed {
        std::string out;
        std::string err;
    };

    /// What the dispatcher prints for the record.
    static Printed dispatch(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                            const std::vector<unsigned char>& payload) {
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[payload.size() + 1]);
        std::copy(payload.begin(), payload.end(), bytes.get());
        MemoryStream out;
        StderrCapture err;
        reader_->getLogDetailsForLogId(pcap, header, Tav::ByteReader(bytes.get(), payload.size()),
                                       0, out.file(), 0);
        return {out.text(), err.stop()};
    }

    /// What the step-by-step route prints for the same record.
    static Printed stepByStep(const Tav::PcapRecHeader& pcap, const Tav::BinLogHeader& header,
                              const std::vector<unsigned char>& payload) {
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[payload.size() + 1]);
        std::copy(payload.begin(), payload.end(), bytes.get());
        const Tav::ByteReader reader(bytes.get(), payload.size());
        const std::uint16_t key = static_cast<std::uint16_t>(header.logId >> 16);
        Tav::LogDetails log(reader_->logDetailsMap.at(key).at(header.logId & 0xFFFF));
        Tav::ModuleDetails module(reader_->moduleDetailsMap.at(key));
        MemoryStream out;
        StderrCapture err;
        unsigned int offset = 0;
        if (module.hasModuleHeader) {
            reader_->decodeModuleHeaderFromPayLoad(module, header, reader, offset);
        }
        reader_->decodeBinLogPayLoad(header, reader, log, offset);
        reader_->displayBinLog(pcap, header, out.file(), 0, module, log);
        return {out.text(), err.stop()};
    }

    static TempDir* dir_;
    static Tav::BinaryLogXmlReader* reader_;
};

TempDir* RecordPathTest::dir_ = nullptr;
Tav::BinaryLogXmlReader* RecordPathTest::reader_ = nullptr;

/// A small deterministic generator (splitmix64).
struct Random {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    unsigned below(unsigned n) { return static_cast<unsigned>(next() % n); }
};

TEST_F(RecordPathTest, RandomRecordsPrintAsStepByStep) {
    struct Log {
        std::uint32_t logId;
        std::uint16_t version;
    };
    const Log logs[] = {{0x01020001, 4}, {0x01020002, 4}, {0x01020003, 4}, {0x01020004, 4},
                        {0x01020005, 4}, {0x01020006, 4}, {0x01030001, 1}, {0x01030002, 1}};
    Random random{42};
    int compared = 0;
    for (int round = 0; round < 3000; ++round) {
        const Log& log = logs[random.below(sizeof logs / sizeof logs[0])];
        Tav::PcapRecHeader pcap;
        pcap.tsSec = static_cast<std::uint32_t>(random.next());
        pcap.tsUsec = static_cast<std::uint32_t>(random.next());
        Tav::BinLogHeader header;
        header.logId = log.logId;
        header.logVersion = log.version;
        header.logLevel = static_cast<std::uint16_t>(random.below(9));
        header.seqNo = static_cast<std::uint32_t>(random.next());
        // Short, exact and long payloads; bytes biased towards small values,
        // braces and NULs so that enumerations, placeholders and texts vary.
        std::vector<unsigned char> payload(random.below(120));
        static const unsigned char kSpecial[] = {0, 1, 2, 3, '{', '}', 'x', 'y', 't', 0xff};
        for (unsigned char& byte : payload) {
            byte = random.below(3) == 0 ? static_cast<unsigned char>(random.next())
                                        : kSpecial[random.below(sizeof kSpecial)];
        }
        const Printed expected = stepByStep(pcap, header, payload);
        const Printed actual = dispatch(pcap, header, payload);
        ASSERT_EQ(actual.out, expected.out) << "round " << round;
        ASSERT_EQ(actual.err, expected.err) << "round " << round;
        ++compared;
    }
    EXPECT_EQ(compared, 3000);
}

TEST_F(RecordPathTest, PlaceholderTextsAreSubstitutedAgain) {
    // state 2 shows as "{text}", which the loop substitutes in turn.
    Tav::PcapRecHeader pcap;
    pcap.tsSec = 1700000000;
    Tav::BinLogHeader header;
    header.logId = 0x01020002;
    header.logVersion = 4;
    header.logLevel = 5;
    header.seqNo = 9;
    // Module header by type groups: dup(i32)=-1, cell(u16)=7, carrier(u8)=1,
    // dup(u8)=2 (which replaces the i32 text), tag(5)="hdr", then the padding
    // (4+2+1+1+5=13 -> 3). The log: state(u16)=2, cell(u8)=3, text(8)="ab".
    std::vector<unsigned char> payload = {0xff, 0xff, 0xff, 0xff, 7, 0, 1, 2, 'h',
                                          'd',  'r',  0,    0,    0, 0, 0, 2, 0,
                                          3,    'a',  'b',  0,    0, 0, 0, 0, 0};
    const Printed actual = dispatch(pcap, header, payload);
    EXPECT_EQ(actual.out,
              "[2023-11-14T22:13:20.000Z] [   SYS:hdr] [             Placeholders] [    INFO] [  "
              "       P] [9] [cell=7 carrier=1 dup=2 dup=2 tag=hdr ] [s=text=ab then "
              "state=text=ab and cell=3 {nothing} {state}] \n");
    EXPECT_EQ(actual.out, stepByStep(pcap, header, payload).out);
}

}  // namespace
