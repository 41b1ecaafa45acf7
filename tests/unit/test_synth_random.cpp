// The capture writer's random mode: its generator, reproducibility, the
// record mix, time stamps at a chosen rate, sequence gaps, reorders and
// repeats, and that the library decodes every record it writes.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Prng.h"
#include "binlog_synth/RandomMix.h"

using namespace binlog_synth;

namespace {

const char* const kRanCell = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="RAN" subsystemId="3" module="cell" moduleid="4" binlogversion="2">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cellId"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="StateChange" category="DIAG" logString="state {state} at {sfn}">
    <p type="TavUint16_t" nameList="state" displayFormat="CellState"/>
    <p type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>
  </LogId>
  <LogId name="Trace" category="LEGACY" logString="legacy trace">
    <p type="TavUint32_t" nameList="ueId,rnti"/>
    <p type="TavUint8_t" nameList="cid"/>
    <p type="string" nameList="tag,detail"/>
  </LogId>
  <LogId name="AllKinds" category="TEST" logString="all kinds">
    <p type="varbinarystring" nameList="vb" size="300"/>
    <p type="string" nameList="s" size="6"/>
    <p type="binarystring" nameList="b" size="3"/>
    <p type="TavInt8_t" nameList="i8"/>
    <p type="TavUint8_t" nameList="u8" displayFormat="hex"/>
    <p type="TavInt16_t" nameList="i16" count="2"/>
    <p type="TavUint16_t" nameList="u16"/>
    <p type="TavInt32_t" nameList="i32"/>
    <p type="TavUint32_t" nameList="u32"/>
    <p type="TavInt64_t" nameList="i64"/>
    <p type="TavUint64_t" nameList="u64"/>
  </LogId>
</LoggingSubSystem>
)";

const char* const kOamSys = R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="OAM" subsystemId="5" module="sys" moduleid="1" binlogversion="1">
  <LogId name="Boot" category="BOOT" logString="Booted {count} times">
    <p type="TavUint32_t" nameList="count"/>
  </LogId>
  <LogId name="Huge" category="BIG" logString="too big for any record">
    <p type="string" nameList="blob" size="30000"/>
  </LogId>
</LoggingSubSystem>
)";

const char* const kDisplay = R"(<?xml version="1.0"?>
<displays>
  <enum name="CellState">
    <e value="0" text="IDLE"/><e value="1" text="CONFIGURED"/>
    <e value="2" text="ACTIVE"/><e value="3" text="BLOCKED"/>
  </enum>
</displays>
)";

unsigned byteAt(const std::string& s, std::size_t i) {
    return static_cast<unsigned char>(s.at(i));
}

std::uint32_t le32(const std::string& s, std::size_t i) {
    return byteAt(s, i) | (byteAt(s, i + 1) << 8) | (byteAt(s, i + 2) << 16) |
           (static_cast<std::uint32_t>(byteAt(s, i + 3)) << 24);
}

struct Rec {
    std::uint32_t tsSec, tsUsec;
    std::string data;  // BinLogHeader + payload (link type 150)
};

std::vector<Rec> splitRecords(const std::string& capture) {
    std::vector<Rec> out;
    std::size_t at = 24;
    while (at + 16 <= capture.size()) {
        const std::uint32_t n = le32(capture, at + 12);
        out.push_back({le32(capture, at), le32(capture, at + 4), capture.substr(at + 16, n)});
        at += 16 + n;
    }
    EXPECT_EQ(at, capture.size());
    return out;
}

class SynthRandom : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_.writeFile("ran_cell_binlog.xml", kRanCell);
        dir_.writeFile("oam_sys_binlog.xml", kOamSys);
        dir_.writeFile("common_bindisplay.xml", kDisplay);
        std::string error;
        ASSERT_TRUE(dictionary_.load(dir_.path(), error)) << error;
    }

    std::string generate(const RandomOptions& options, RandomSummary* summary = nullptr,
                         LinkKind link = LinkKind::Raw150) {
        OutputSink sink;
        sink.openMemory();
        Framing framing;
        framing.kind = link;
        CaptureWriter writer(sink, framing);
        std::string error;
        EXPECT_TRUE(writeRandomCapture(dictionary_, options, writer, error, summary)) << error;
        EXPECT_TRUE(writer.finish());
        EXPECT_TRUE(sink.close(error)) << error;
        return sink.memory();
    }

    wexbl_test::TempDir dir_;
    Dictionary dictionary_;
};

TEST(SynthPrng, MatchesTheReferenceSequence) {
    // The first outputs of the published SplitMix64 for seed 0.
    SplitMix64 rng(0);
    EXPECT_EQ(rng.next(), 0xE220A8397B1DCDAFULL);
    EXPECT_EQ(rng.next(), 0x6E789E6AA1B965F4ULL);
    EXPECT_EQ(rng.next(), 0x06C45D188009454FULL);
}

TEST(SynthPrng, RangesStayInBounds) {
    SplitMix64 rng(3);
    std::set<std::uint32_t> seen;
    for (int i = 0; i < 10000; ++i) {
        const std::uint32_t v = rng.below(7);
        ASSERT_LT(v, 7u);
        seen.insert(v);
        const std::uint32_t w = rng.between(20, 22);
        ASSERT_GE(w, 20u);
        ASSERT_LE(w, 22u);
    }
    EXPECT_EQ(seen.size(), 7u);
    EXPECT_EQ(rng.below(0), 0u);
}

TEST_F(SynthRandom, SameSeedSameBytes) {
    RandomOptions options;
    options.records = 3000;
    options.seed = 11;
    options.gapEvery = 50;
    options.reorderEvery = 70;
    options.repeatEvery = 90;
    const std::string a = generate(options);
    const std::string b = generate(options);
    EXPECT_EQ(a, b);
    options.seed = 12;
    EXPECT_NE(generate(options), a);
}

TEST_F(SynthRandom, RecordCountAndMix) {
    RandomOptions options;
    options.records = 20000;
    RandomSummary summary;
    const std::vector<Rec> records = splitRecords(generate(options, &summary));
    ASSERT_EQ(records.size(), 20000u);
    std::uint64_t byType[4] = {0, 0, 0, 0};
    std::set<std::uint32_t> logIds;
    for (const Rec& r : records) {
        const std::uint32_t type = le32(r.data, 0);
        ASSERT_LT(type, 4u);
        ++byType[type];
        if (type == 0) {
            logIds.insert(le32(r.data, 4));
        }
    }
    EXPECT_EQ(byType[0], summary.binLog);
    EXPECT_EQ(byType[1], summary.legacy);
    EXPECT_EQ(byType[2], summary.syslog);
    EXPECT_EQ(byType[3], summary.capture);
    // 960 : 20 : 10 : 10 out of 1000.
    EXPECT_GT(byType[0], 18800u);
    EXPECT_GT(byType[1], 100u);
    EXPECT_GT(byType[2], 250u);
    EXPECT_GT(byType[3], 100u);
    // Every log that fits is used, the 30000-byte one never.
    EXPECT_EQ(logIds, (std::set<std::uint32_t>{0x03040001, 0x03040002, 0x03040003, 0x05010001}));
    for (const Rec& r : records) {
        if (le32(r.data, 0) == 1) {
            // Legacy records use the log whose category says LEGACY.
            EXPECT_EQ(le32(r.data, 4), 0x03040002u);
            EXPECT_EQ(r.data.size(), 16u + 56u);
        }
    }
}

TEST_F(SynthRandom, ChosenMix) {
    RandomOptions options;
    options.records = 500;
    options.weightBinLog = 0;
    options.weightLegacy = 0;
    options.weightSyslog = 1;
    options.weightCapture = 0;
    for (const Rec& r : splitRecords(generate(options))) {
        EXPECT_EQ(le32(r.data, 0), 2u);
    }
}

TEST_F(SynthRandom, TimeStampsFollowTheRateExactly) {
    RandomOptions options;
    options.records = 1000;
    options.startSec = 1714564800;
    options.startUsec = 250000;
    for (const auto& rate : {std::make_pair(3u, 1u), std::make_pair(7u, 1u),
                             std::make_pair(25u, 10u), std::make_pair(1000000u, 1u)}) {
        options.rateNum = rate.first;
        options.rateDen = rate.second;
        const std::vector<Rec> records = splitRecords(generate(options));
        ASSERT_EQ(records.size(), 1000u);
        for (std::size_t i = 0; i < records.size(); ++i) {
            // Record i is i / rate seconds after the start, truncated to the
            // microsecond.
            const std::uint64_t ns = 1714564800ULL * 1000000000ULL + 250000000ULL +
                                     i * 1000000000ULL * rate.second / rate.first;
            ASSERT_EQ(records[i].tsSec, ns / 1000000000ULL) << i;
            ASSERT_EQ(records[i].tsUsec, ns % 1000000000ULL / 1000) << i;
        }
    }
}

TEST_F(SynthRandom, SequenceNumbersRunPerModuleWithoutOptions) {
    RandomOptions options;
    options.records = 5000;
    std::map<std::uint64_t, std::uint32_t> last;
    for (const Rec& r : splitRecords(generate(options))) {
        const std::uint32_t type = le32(r.data, 0);
        const std::uint64_t key = (std::uint64_t{type == 2   ? 1u
                                                 : type == 3 ? 2u
                                                             : 0u}
                                   << 32) |
                                  (le32(r.data, 4) >> 16);
        const std::uint32_t seq = le32(r.data, 12);
        const auto found = last.find(key);
        EXPECT_EQ(seq, found == last.end() ? 1u : found->second + 1);
        last[key] = seq;
    }
}

TEST_F(SynthRandom, EveryRecordDecodesAndTheStatisticsSeeTheGaps) {
    RandomOptions options;
    options.records = 4000;
    options.seed = 5;
    options.gapEvery = 37;
    options.reorderEvery = 101;
    options.repeatEvery = 53;
    for (const LinkKind link : {LinkKind::Raw150, LinkKind::Ipv4, LinkKind::Ipv6}) {
        RandomSummary summary;
        const std::string path = dir_.path() + "/random.pcap";
        {
            const std::string bytes = generate(options, &summary, link);
            FILE* f = fopen(path.c_str(), "wb");
            ASSERT_NE(f, nullptr);
            ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
            fclose(f);
        }
        EXPECT_GT(summary.gaps, 0u);
        EXPECT_GT(summary.reordered, 0u);
        EXPECT_GT(summary.repeated, 0u);

        Tav::BinaryLogXmlReader reader(dir_.slash(), true, 5000, 16);
        ASSERT_TRUE(reader.isGood());
        wexbl_test::MemoryStream out;
        wexbl_test::StderrCapture err;
        reader.readBinaryFiledata(path, 0, out.file());
        EXPECT_EQ(err.stop(), "");
        const std::string text = out.text();
        std::size_t lines = 0, missingLines = 0, lateLines = 0;
        std::size_t start = 0;
        while (start < text.size()) {
            const std::size_t end = text.find('\n', start);
            const std::string line = text.substr(start, end - start);
            start = end + 1;
            if (line.rfind(">>possibly missing", 0) == 0) {
                ++missingLines;
            } else if (line.rfind(">>out of order", 0) == 0) {
                ++lateLines;
            } else if (line.rfind(">>", 0) != 0) {
                ++lines;
                EXPECT_EQ(line.find("Mismatch"), std::string::npos) << line;
                EXPECT_EQ(line.find("Invalig"), std::string::npos) << line;
            }
        }
        EXPECT_EQ(lines, 4000u);
        // A reordered pair shows as a jump of 2 and then a late record; a
        // repeated number shows nothing.
        EXPECT_EQ(missingLines, summary.gaps + summary.reordered);
        EXPECT_EQ(lateLines, summary.reordered);
        EXPECT_NE(text.find(">>totalRecords =  4000\n"), std::string::npos);
        EXPECT_NE(text.find(">>missingRecords =  " + std::to_string(summary.missing) + " ("),
                  std::string::npos);
        EXPECT_NE(text.find(">>outOfOrderRecords =  " + std::to_string(summary.reordered) + "\n"),
                  std::string::npos);
    }
}

TEST_F(SynthRandom, DictionaryWithoutAUsableLog) {
    wexbl_test::TempDir dir;
    dir.writeFile("big_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="S" subsystemId="1" module="m" moduleid="1" binlogversion="1">
  <LogId name="Huge" category="BIG" logString="too big">
    <p type="binarystring" nameList="blob" size="25000"/>
  </LogId>
</LoggingSubSystem>
)");
    Dictionary dictionary;
    std::string error;
    ASSERT_TRUE(dictionary.load(dir.path(), error)) << error;
    OutputSink sink;
    sink.openMemory();
    CaptureWriter writer(sink, Framing());
    RandomOptions options;
    EXPECT_FALSE(writeRandomCapture(dictionary, options, writer, error));
    EXPECT_EQ(error, "no log of the dictionary fits in a record of at most 25000 bytes");
}

}  // namespace
