// Tests of BinaryLogStatsCollector: record counting, per-module sequence
// checks with their gap and reordering reports, the end-of-file summary and
// the reset between capture files.
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BinaryLogStatsCollector.h"
#include "BinaryLogXmlReader.h"
#include "TestSupport.h"

namespace {

using wexbl_test::MemoryStream;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

// A record time well after 2000-01-01T05:00:00Z.
constexpr std::uint32_t kSec = 1600000000u;

Tav::PcapRecHeader stamp(std::uint32_t sec, std::uint32_t usec) {
    Tav::PcapRecHeader h;
    h.tsSec = sec;
    h.tsUsec = usec;
    return h;
}

// Sequence numbers travel as signed ints; this keeps the unsigned wire value readable.
int seq(std::uint32_t wire) {
    int v;
    std::memcpy(&v, &wire, sizeof v);
    return v;
}

class StatsTest : public ::testing::Test {
  protected:
    // One record of `module` with the given packet type and number.
    void record(int module, unsigned int packetType, std::uint32_t seqNo, unsigned int length = 20,
                std::uint32_t usec = 1) {
        stats_.processStats(out_.file(), stamp(kSec, usec), module, packetType, seq(seqNo), length);
    }

    Tav::BinaryLogStatsCollector stats_;
    MemoryStream out_;
};

// ---- Construction and counting ----------------------------------------------

TEST_F(StatsTest, StartsEmpty) {
    EXPECT_TRUE(stats_.lastSeqNoByModule.empty());
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.totalRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
    EXPECT_EQ(stats_.firstTsSec, 0u);
    EXPECT_EQ(stats_.firstTsUsec, 0u);
    EXPECT_EQ(stats_.lastTsSec, 0u);
    EXPECT_EQ(stats_.lastTsUsec, 0u);
    EXPECT_EQ(stats_.totalRecordBytes, 0u);
    EXPECT_FALSE(stats_.timestampsUnusable);
}

TEST_F(StatsTest, FirstRecordOfAModuleIsStoredSilently) {
    StderrCapture err;
    stats_.processStats(out_.file(), stamp(kSec, 250), 3, 0, 42, 77);
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.totalRecords, 1u);
    EXPECT_EQ(stats_.totalRecordBytes, 77u);
    EXPECT_EQ(stats_.firstTsSec, kSec);
    EXPECT_EQ(stats_.firstTsUsec, 250u);
    EXPECT_EQ(stats_.lastTsSec, kSec);
    EXPECT_EQ(stats_.lastTsUsec, 250u);
    ASSERT_EQ(stats_.lastSeqNoByModule.count(3u), 1u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(3u), 42u);
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
}

TEST_F(StatsTest, LastTimeStampFollowsEveryRecord) {
    stats_.processStats(out_.file(), stamp(kSec, 10), 1, 0, 1, 20);
    stats_.processStats(out_.file(), stamp(kSec + 5, 99), 1, 0, 2, 20);
    stats_.processStats(out_.file(), stamp(kSec + 2, 7), 1, 0, 3, 20);
    EXPECT_EQ(stats_.firstTsSec, kSec);
    EXPECT_EQ(stats_.firstTsUsec, 10u);
    EXPECT_EQ(stats_.lastTsSec, kSec + 2);
    EXPECT_EQ(stats_.lastTsUsec, 7u);
    EXPECT_EQ(out_.text(), "");
}

// While the stored first time has a microsecond part of 0, each following
// record takes its place.
TEST_F(StatsTest, FirstTimeStampWithZeroMicrosecondsIsReplaced) {
    stats_.processStats(out_.file(), stamp(kSec, 0), 0x10, 3, 0, 20);
    EXPECT_EQ(stats_.firstTsSec, kSec);
    EXPECT_EQ(stats_.firstTsUsec, 0u);
    stats_.processStats(out_.file(), stamp(kSec + 1, 5), 0x10, 3, 0, 20);
    EXPECT_EQ(stats_.firstTsSec, kSec + 1);
    EXPECT_EQ(stats_.firstTsUsec, 5u);
    // Once the microseconds are non-zero the first time stays.
    stats_.processStats(out_.file(), stamp(kSec + 2, 0), 0x10, 3, 0, 20);
    EXPECT_EQ(stats_.firstTsSec, kSec + 1);
    EXPECT_EQ(stats_.firstTsUsec, 5u);
    EXPECT_EQ(stats_.lastTsSec, kSec + 2);
    EXPECT_EQ(stats_.lastTsUsec, 0u);

    // Span: (kSec+2)*1e6 - 5 + 0 - (kSec+1)*1e6 = 999995 us = 999.995 ms.
    // received = 3 / 999.995 = 0.0030000... /msec, 3.000015 /sec.
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  3\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 0.00\n"
              ">>records generated at source/msec = 0.00\n"
              ">>records received/sec = 3.00\n"
              ">>records generated at source/sec = 3.00\n"
              ">>total log record size = 60\n"
              ">>average log record size = 20\n");
}

TEST_F(StatsTest, AllFirstTimesWithZeroMicrosecondsLeaveAZeroSpan) {
    // Every record replaces the first time, so first and last are the same.
    stats_.processStats(out_.file(), stamp(kSec, 0), 1, 3, 0, 10);
    stats_.processStats(out_.file(), stamp(kSec + 10, 0), 1, 3, 0, 10);
    EXPECT_EQ(stats_.firstTsSec, kSec + 10);
    EXPECT_EQ(stats_.firstTsUsec, 0u);
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 2.00\n"
              ">>records generated at source/msec = 2.00\n"
              ">>records received/sec = 2000.00\n"
              ">>records generated at source/sec = 2000.00\n"
              ">>total log record size = 20\n"
              ">>average log record size = 10\n");
}

TEST_F(StatsTest, TimesBefore2000MarkTheTimeStampsUnusable) {
    stats_.processStats(out_.file(), stamp(946702800u, 1), 1, 0, 1, 20);
    EXPECT_FALSE(stats_.timestampsUnusable);
    stats_.processStats(out_.file(), stamp(946702799u, 1), 1, 0, 2, 20);
    EXPECT_TRUE(stats_.timestampsUnusable);
    // A later good time does not undo it.
    stats_.processStats(out_.file(), stamp(kSec, 1), 1, 0, 3, 20);
    EXPECT_TRUE(stats_.timestampsUnusable);
    EXPECT_EQ(out_.text(), "");
}

TEST_F(StatsTest, RecordBytesAreSummedIn64Bits) {
    record(0x8000, 0, 1, 4294967295u);
    record(0x8000, 0, 2, 4294967295u);
    EXPECT_EQ(stats_.totalRecordBytes, 8589934590ull);
    stats_.timestampsUnusable = true;
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 8589934590\n"
              ">>average log record size = 4294967295\n");
}

// ---- Sequence checks --------------------------------------------------------

TEST_F(StatsTest, GapThenLateRecord) {
    record(1, 0, 10);
    record(1, 0, 13);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=10,curSeqNo=13: "
              "diff=2,missingRecords_=0\n");
    EXPECT_EQ(stats_.missingRecords, 2u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 13u);

    record(1, 0, 12);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=10,curSeqNo=13: "
              "diff=2,missingRecords_=0\n"
              ">>out of order packets: module=0x1, lastSeqNo=13,curSeqNo=12\n");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 13u);
    EXPECT_EQ(stats_.missingRecords, 1u);
    EXPECT_EQ(stats_.outOfOrderRecords, 1u);
    EXPECT_EQ(stats_.totalRecords, 3u);
}

TEST_F(StatsTest, MissingCountBeforeTheUpdateIsPrinted) {
    record(0x1234, 1, 1);
    record(0x1234, 1, 4);
    record(0x1234, 1, 10);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1234,lastSeqNo=1,curSeqNo=4: "
              "diff=2,missingRecords_=0\n"
              ">>possibly missing packets: module=0x1234,lastSeqNo=4,curSeqNo=10: "
              "diff=5,missingRecords_=2\n");
    EXPECT_EQ(stats_.missingRecords, 7u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(0x1234u), 10u);
}

TEST_F(StatsTest, LateRecordWithoutMissingOnesKeepsMissingAtZero) {
    record(2, 0, 20);
    record(2, 0, 19);
    EXPECT_EQ(out_.text(), ">>out of order packets: module=0x2, lastSeqNo=20,curSeqNo=19\n");
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 1u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(2u), 20u);
}

TEST_F(StatsTest, RepeatedNumberIsNeitherCountedNorReported) {
    record(5, 0, 7);
    record(5, 0, 7);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(5u), 7u);
    EXPECT_EQ(stats_.totalRecords, 2u);
}

TEST_F(StatsTest, NextNumberAdvancesTheEntry) {
    record(5, 0, 7);
    record(5, 0, 8);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(5u), 8u);
}

TEST_F(StatsTest, WrapFromLargestNumberToZeroIsANormalStep) {
    record(1, 0, 4294967295u);
    record(1, 0, 0);
    record(1, 0, 1);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 1u);
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
}

TEST_F(StatsTest, NumbersArePrintedAsSignedInts) {
    record(1, 0, 0xFFFFFFFFu);
    record(1, 0, 2);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=-1,curSeqNo=2: "
              "diff=2,missingRecords_=0\n");
    EXPECT_EQ(stats_.missingRecords, 2u);
}

TEST_F(StatsTest, HalfRangeJumpChangesNothing) {
    record(1, 0, 0);
    record(1, 0, 0x80000000u);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 0u);
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
    EXPECT_EQ(stats_.totalRecords, 2u);

    // The same from a non-zero last number, for the syslog map too.
    record(9, 2, 5);
    record(9, 2, 0x80000005u);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSyslogSeqNoByModule.at(9u), 5u);

    // The entry kept its number: the next one is a normal step.
    record(1, 0, 1);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 1u);
}

TEST_F(StatsTest, JustBelowHalfRangeIsAGap) {
    record(1, 0, 0);
    record(1, 0, 0x7FFFFFFFu);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=0,curSeqNo=2147483647: "
              "diff=2147483646,missingRecords_=0\n");
    EXPECT_EQ(stats_.missingRecords, 2147483646u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 0x7FFFFFFFu);
}

TEST_F(StatsTest, JustAboveHalfRangeIsLate) {
    record(1, 0, 0);
    record(1, 0, 0x80000001u);
    EXPECT_EQ(out_.text(),
              ">>out of order packets: module=0x1, lastSeqNo=0,curSeqNo=-2147483647\n");
    EXPECT_EQ(stats_.outOfOrderRecords, 1u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 0u);
}

TEST_F(StatsTest, SyslogAndBinaryLogNumbersAreSeparate) {
    record(1, 0, 100);
    record(1, 2, 5);
    record(1, 0, 101);
    record(1, 2, 6);
    record(1, 0, 102);
    record(1, 2, 7);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 102u);
    EXPECT_EQ(stats_.lastSyslogSeqNoByModule.at(1u), 7u);
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);

    // A gap in the syslog numbers is reported against the syslog entry.
    record(1, 2, 9);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=7,curSeqNo=9: "
              "diff=1,missingRecords_=0\n");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 102u);
}

TEST_F(StatsTest, LegacyAndUnknownTypesShareTheBinaryLogMap) {
    record(4, 0, 1);
    record(4, 1, 2);
    record(4, 9, 3);
    record(4, 0xFFFFFFFFu, 4);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(4u), 4u);
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());

    record(4, 1, 2);
    EXPECT_EQ(out_.text(), ">>out of order packets: module=0x4, lastSeqNo=4,curSeqNo=2\n");
}

TEST_F(StatsTest, PlainCaptureRecordsAreNeverSequenceChecked) {
    record(1, 3, 1, 30);
    record(1, 3, 10, 30);
    record(1, 3, 5, 30);
    EXPECT_EQ(out_.text(), "");
    EXPECT_TRUE(stats_.lastSeqNoByModule.empty());
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.totalRecords, 3u);
    EXPECT_EQ(stats_.totalRecordBytes, 90u);
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);

    // The module's first binary log record afterwards starts its entry.
    record(1, 0, 20, 30);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 20u);
}

TEST_F(StatsTest, HighModulesAreNeverSequenceChecked) {
    for (int module : {0x8000, 0x8001, 0xFFFF}) {
        record(module, 0, 1, 11);
        record(module, 0, 9, 11);
        record(module, 2, 1, 11);
        record(module, 2, 0, 11);
    }
    EXPECT_EQ(out_.text(), "");
    EXPECT_TRUE(stats_.lastSeqNoByModule.empty());
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.totalRecords, 12u);
    EXPECT_EQ(stats_.totalRecordBytes, 132u);
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);

    // 0x7FFF is below the limit and is checked.
    record(0x7FFF, 0, 1);
    record(0x7FFF, 0, 3);
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x7fff,lastSeqNo=1,curSeqNo=3: "
              "diff=1,missingRecords_=0\n");
}

TEST_F(StatsTest, ModulesAreTrackedIndependently) {
    record(1, 0, 10);
    record(2, 0, 500);
    record(1, 0, 11);
    record(2, 0, 501);
    EXPECT_EQ(out_.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.size(), 2u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 11u);
    EXPECT_EQ(stats_.lastSeqNoByModule.at(2u), 501u);
}

// ---- End-of-file summary ----------------------------------------------------

TEST_F(StatsTest, NoRecordsPrintsOnlyTheTotal) {
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(), ">>totalRecords =  0\n");
}

TEST_F(StatsTest, OneMissingOfFourAndEqualTimeStamps) {
    // Sequence 1, 3, 4 all with the same time: 3 received, 1 missing.
    stats_.processStats(out_.file(), stamp(kSec, 500), 1, 0, 1, 10);
    stats_.processStats(out_.file(), stamp(kSec, 500), 1, 0, 3, 20);
    stats_.processStats(out_.file(), stamp(kSec, 500), 1, 0, 4, 30);
    stats_.printStats(out_.file());
    // percent = 1 * 100 / 4; span 0 counts as 1 ms, so the per-msec rates
    // are the counts (3 and 4) and the per-sec rates 1000 times those.
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=1,curSeqNo=3: "
              "diff=1,missingRecords_=0\n"
              ">>totalRecords =  3\n"
              ">>missingRecords =  1 (25.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 3.00\n"
              ">>records generated at source/msec = 4.00\n"
              ">>records received/sec = 3000.00\n"
              ">>records generated at source/sec = 4000.00\n"
              ">>total log record size = 60\n"
              ">>average log record size = 20\n");
}

TEST_F(StatsTest, RatesOverARealSpan) {
    // First (kSec, 999000), last (kSec+1, 2000):
    // span = (kSec+1)*1e6 - 999000 + 2000 - kSec*1e6 = 3000 us = 3 ms.
    // Sequence 1, 2, 3, 5, 6: 5 received, 1 missing.
    stats_.processStats(out_.file(), stamp(kSec, 999000), 1, 0, 1, 100);
    stats_.processStats(out_.file(), stamp(kSec, 999500), 1, 0, 2, 200);
    stats_.processStats(out_.file(), stamp(kSec + 1, 0), 1, 0, 3, 50);
    stats_.processStats(out_.file(), stamp(kSec + 1, 1000), 1, 0, 5, 31);
    stats_.processStats(out_.file(), stamp(kSec + 1, 2000), 1, 0, 6, 20);
    stats_.printStats(out_.file());
    // percent = 100 / 6 = 16.666666...; received = 5 / 3 = 1.666...,
    // generated = 6 / 3 = 2; per sec 1666.666... and 2000.
    // Sizes 100 + 200 + 50 + 31 + 20 = 401, average 401 / 5 = 80 (truncated).
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=3,curSeqNo=5: "
              "diff=1,missingRecords_=0\n"
              ">>totalRecords =  5\n"
              ">>missingRecords =  1 (16.666667%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 1.67\n"
              ">>records generated at source/msec = 2.00\n"
              ">>records received/sec = 1666.67\n"
              ">>records generated at source/sec = 2000.00\n"
              ">>total log record size = 401\n"
              ">>average log record size = 80\n");
}

// The summary is the same text whatever locale the calling program has set:
// a locale with a decimal comma must not turn "16.666667" into "16,666667".
TEST_F(StatsTest, SummaryIgnoresTheProgramsLocale) {
    // A German locale, compiled into a temporary directory so that the test
    // does not depend on the locales the system has generated.
    TempDir dir;
    const std::string command =
        "localedef -i de_DE -f UTF-8 '" + dir.path() + "/de_DE.UTF-8' >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        GTEST_SKIP() << "localedef cannot build de_DE.UTF-8 (Debian package locales)";
    }
    setenv("LOCPATH", dir.path().c_str(), 1);
    const char* set = setlocale(LC_ALL, "de_DE.UTF-8");
    ASSERT_NE(set, nullptr);
    char probe[16];
    snprintf(probe, sizeof probe, "%.1f", 1.5);
    ASSERT_STREQ(probe, "1,5") << "the locale should print a decimal comma";

    stats_.processStats(out_.file(), stamp(kSec, 999000), 1, 0, 1, 100);
    stats_.processStats(out_.file(), stamp(kSec + 1, 2000), 1, 0, 6, 20);
    stats_.printStats(out_.file());
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
    // span 3 ms; 2 received, 4 missing: 4 * 100 / 6 = 66.666...%, received
    // 2 / 3 = 0.666... per msec, generated 6 / 3 = 2.
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x1,lastSeqNo=1,curSeqNo=6: "
              "diff=4,missingRecords_=0\n"
              ">>totalRecords =  2\n"
              ">>missingRecords =  4 (66.666667%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 0.67\n"
              ">>records generated at source/msec = 2.00\n"
              ">>records received/sec = 666.67\n"
              ">>records generated at source/sec = 2000.00\n"
              ">>total log record size = 120\n"
              ">>average log record size = 60\n");
}

// The figures round exactly as printf's "%lf" and "%.2Lf" do, also on ties
// and on long spans: compared with printf in the "C" locale over many
// counts and spans.
TEST_F(StatsTest, FiguresRoundAsPrintfDoes) {
    std::uint64_t state = 99;
    auto next = [&state](std::uint32_t below) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<std::uint32_t>(state >> 33) % below;
    };
    for (int round = 0; round < 2000; ++round) {
        const std::uint32_t received = 2 + next(5000);
        const std::uint32_t missing = next(3) == 0 ? 0 : next(100000);
        const std::uint32_t spanUs = next(4) == 0 ? next(8) * 125 : next(2000000000);
        MemoryStream out;
        Tav::BinaryLogStatsCollector stats;
        stats.missingRecords = missing;
        stats.totalRecords = received;
        stats.firstTsSec = kSec;
        stats.firstTsUsec = 1;
        stats.lastTsSec = kSec + spanUs / 1000000u;
        stats.lastTsUsec = 1 + spanUs % 1000000u;
        stats.totalRecordBytes = 7;
        stats.printStats(out.file());

        const double percent = missing * 100.0 / static_cast<double>(missing + received);
        const double spanMs = spanUs / 1000.0;
        const double perMs = spanMs > 0 ? received / spanMs : received;
        const double generatedPerMs =
            spanMs > 0 ? static_cast<double>(missing + received) / spanMs : missing + received;
        char want[1024];
        snprintf(want, sizeof want,
                 ">>totalRecords =  %d\n>>missingRecords =  %d (%lf%%)\n"
                 ">>outOfOrderRecords =  0\n>>records received/msec = %.2Lf\n"
                 ">>records generated at source/msec = %.2Lf\n"
                 ">>records received/sec = %.2Lf\n"
                 ">>records generated at source/sec = %.2Lf\n"
                 ">>total log record size = 7\n>>average log record size = %u\n",
                 static_cast<int>(received), static_cast<int>(missing), percent,
                 static_cast<long double>(perMs), static_cast<long double>(generatedPerMs),
                 static_cast<long double>(perMs * 1000.0),
                 static_cast<long double>(generatedPerMs * 1000.0), 7u / received);
        ASSERT_EQ(out.text(), want) << "round " << round;
    }
}

TEST_F(StatsTest, RatesOverSeveralSeconds) {
    // span = 2.5 s = 2500 ms; 10 received, 2 missing, 1 late.
    stats_.processStats(out_.file(), stamp(kSec, 250000), 7, 0, 1, 40);
    for (std::uint32_t s : {2u, 3u, 6u, 7u, 8u, 9u, 10u, 11u}) {
        stats_.processStats(out_.file(), stamp(kSec + 1, 1), 7, 0, s, 40);
    }
    stats_.processStats(out_.file(), stamp(kSec + 2, 750000), 7, 0, 5, 40);
    stats_.printStats(out_.file());
    // Gap 3 -> 6: 2 missing; 5 arrives late: missing 1, out of order 1.
    // percent = 1 * 100 / 11 = 9.090909...
    // received = 10 / 2500 = 0.004, generated = 11 / 2500 = 0.0044;
    // per sec 4.00 and 4.40.
    EXPECT_EQ(out_.text(),
              ">>possibly missing packets: module=0x7,lastSeqNo=3,curSeqNo=6: "
              "diff=2,missingRecords_=0\n"
              ">>out of order packets: module=0x7, lastSeqNo=11,curSeqNo=5\n"
              ">>totalRecords =  10\n"
              ">>missingRecords =  1 (9.090909%)\n"
              ">>outOfOrderRecords =  1\n"
              ">>records received/msec = 0.00\n"
              ">>records generated at source/msec = 0.00\n"
              ">>records received/sec = 4.00\n"
              ">>records generated at source/sec = 4.40\n"
              ">>total log record size = 400\n"
              ">>average log record size = 40\n");
}

TEST_F(StatsTest, LastTimeBeforeFirstWrapsTheSpan) {
    stats_.processStats(out_.file(), stamp(kSec + 10, 1), 1, 3, 0, 8);
    stats_.processStats(out_.file(), stamp(kSec, 1), 1, 3, 0, 8);
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>records received/msec = 0.00\n"
              ">>records generated at source/msec = 0.00\n"
              ">>records received/sec = 0.00\n"
              ">>records generated at source/sec = 0.00\n"
              ">>total log record size = 16\n"
              ">>average log record size = 8\n");
}

TEST_F(StatsTest, MissingPlusTotalIsSummedIn32Bits) {
    // 4294967295 + 1 wraps to 0, so the percentage divides by zero.
    stats_.missingRecords = 4294967295u;
    stats_.totalRecords = 1;
    stats_.timestampsUnusable = true;
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  1\n"
              ">>missingRecords =  -1 (inf%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 0\n"
              ">>average log record size = 0\n");
}

TEST_F(StatsTest, EarlyTimesReplaceTheRateLines) {
    stats_.processStats(out_.file(), stamp(0, 1), 1, 0, 1, 20);
    stats_.processStats(out_.file(), stamp(5, 2), 1, 0, 2, 30);
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 50\n"
              ">>average log record size = 25\n");
}

TEST_F(StatsTest, NotProvidedLineSurvivesForLaterFiles) {
    stats_.processStats(out_.file(), stamp(100, 1), 1, 0, 1, 20);
    stats_.printStats(out_.file());
    EXPECT_TRUE(stats_.timestampsUnusable);

    // A later "file" with good times still gets the replacement line.
    MemoryStream second;
    stats_.processStats(second.file(), stamp(kSec, 1), 1, 0, 1, 20);
    stats_.processStats(second.file(), stamp(kSec, 2), 1, 0, 2, 20);
    stats_.printStats(second.file());
    EXPECT_EQ(second.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 40\n"
              ">>average log record size = 20\n");
}

TEST_F(StatsTest, NotProvidedWithoutRecordsPrintsOnlyTheTotal) {
    stats_.timestampsUnusable = true;
    stats_.printStats(out_.file());
    EXPECT_EQ(out_.text(), ">>totalRecords =  0\n");
    EXPECT_TRUE(stats_.timestampsUnusable);
}

// ---- Reset --------------------------------------------------------------------

TEST_F(StatsTest, PrintStatsResetsEverythingButTheTimeFlag) {
    stats_.processStats(out_.file(), stamp(10, 3), 1, 0, 10, 20);
    stats_.processStats(out_.file(), stamp(kSec, 4), 1, 0, 13, 20);
    stats_.processStats(out_.file(), stamp(kSec, 5), 1, 0, 12, 20);
    stats_.processStats(out_.file(), stamp(kSec, 6), 2, 2, 1, 20);
    stats_.printStats(out_.file());

    EXPECT_TRUE(stats_.lastSeqNoByModule.empty());
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.totalRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
    EXPECT_EQ(stats_.firstTsSec, 0u);
    EXPECT_EQ(stats_.firstTsUsec, 0u);
    EXPECT_EQ(stats_.lastTsSec, 0u);
    EXPECT_EQ(stats_.lastTsUsec, 0u);
    EXPECT_EQ(stats_.totalRecordBytes, 0u);
    EXPECT_TRUE(stats_.timestampsUnusable);

    // A second summary right away has nothing to report.
    MemoryStream again;
    stats_.printStats(again.file());
    EXPECT_EQ(again.text(), ">>totalRecords =  0\n");
}

TEST_F(StatsTest, ClearStatsResetsCountersTimesAndMaps) {
    stats_.processStats(out_.file(), stamp(kSec, 3), 1, 0, 10, 20);
    stats_.processStats(out_.file(), stamp(kSec + 1, 4), 1, 0, 13, 20);
    stats_.processStats(out_.file(), stamp(kSec + 1, 5), 1, 0, 12, 20);
    stats_.processStats(out_.file(), stamp(kSec + 2, 6), 2, 2, 1, 20);
    ASSERT_EQ(stats_.missingRecords, 1u);
    ASSERT_EQ(stats_.outOfOrderRecords, 1u);
    ASSERT_FALSE(stats_.lastSyslogSeqNoByModule.empty());

    stats_.clearStats();
    EXPECT_TRUE(stats_.lastSeqNoByModule.empty());
    EXPECT_TRUE(stats_.lastSyslogSeqNoByModule.empty());
    EXPECT_EQ(stats_.missingRecords, 0u);
    EXPECT_EQ(stats_.totalRecords, 0u);
    EXPECT_EQ(stats_.outOfOrderRecords, 0u);
    EXPECT_EQ(stats_.firstTsSec, 0u);
    EXPECT_EQ(stats_.firstTsUsec, 0u);
    EXPECT_EQ(stats_.lastTsSec, 0u);
    EXPECT_EQ(stats_.lastTsUsec, 0u);
    EXPECT_EQ(stats_.totalRecordBytes, 0u);
    EXPECT_FALSE(stats_.timestampsUnusable);

    // Every module starts fresh: no gap against the old number.
    MemoryStream after;
    stats_.processStats(after.file(), stamp(kSec + 3, 7), 1, 0, 50, 20);
    EXPECT_EQ(after.text(), "");
    EXPECT_EQ(stats_.lastSeqNoByModule.at(1u), 50u);
    EXPECT_EQ(stats_.firstTsSec, kSec + 3);
    EXPECT_EQ(stats_.firstTsUsec, 7u);
}

TEST_F(StatsTest, ClearStatsKeepsTheTimeFlag) {
    stats_.processStats(out_.file(), stamp(1, 1), 1, 0, 1, 20);
    ASSERT_TRUE(stats_.timestampsUnusable);
    stats_.clearStats();
    EXPECT_TRUE(stats_.timestampsUnusable);
    EXPECT_EQ(stats_.totalRecords, 0u);
}

// ---- Through the reader --------------------------------------------------------

// A binlog dictionary whose only module has the key 0x0001; records that name
// other modules are rejected by the dispatcher after being counted, so the
// output stream holds only statistics lines.
const char kBinlog[] =
    "<LoggingSubSystem subsystem=\"core\" subsystemId=\"0\" module=\"m\" moduleid=\"1\" "
    "binlogversion=\"1\"><LogId name=\"one\" logString=\"x\" category=\"C\"/>"
    "</LoggingSubSystem>";

void putU32(std::string& s, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}

void putU16(std::string& s, std::uint16_t v) {
    s.push_back(static_cast<char>(v & 0xFF));
    s.push_back(static_cast<char>(v >> 8));
}

std::string pcapGlobalHeader() {
    std::string s;
    putU32(s, 0xA1B2C3D4u);
    putU16(s, 2);
    putU16(s, 4);
    putU32(s, 0);
    putU32(s, 0);
    putU32(s, 65535);
    putU32(s, 150);
    return s;
}

// One link-type-150 record: the 16-byte record header, then 20 bytes of record
// data (16-byte log header and a 4-byte payload), so its storageLength is 20.
std::string pcapRecord(std::uint32_t sec, std::uint32_t usec, std::uint32_t logId,
                       std::uint32_t seqNo) {
    std::string s;
    putU32(s, sec);
    putU32(s, usec);
    putU32(s, 20);
    putU32(s, 20);
    putU32(s, 0);  // packet type BinLog
    putU32(s, logId);
    putU16(s, 1);  // level
    putU16(s, 1);  // version
    putU32(s, seqNo);
    putU32(s, 0);
    return s;
}

TEST(StatsThroughReader, EmptyCapturePrintsOnlyTheTotal) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlog);
    Tav::BinaryLogXmlReader reader(dir.slash(), true, 0, 64);
    ASSERT_TRUE(reader.isGood());
    const std::string capture = dir.writeFile("empty.pcap", pcapGlobalHeader());
    MemoryStream out;
    StderrCapture err;
    reader.readBinaryFiledata(capture, 0, out.file());
    EXPECT_EQ(err.stop(), "");
    EXPECT_EQ(out.text(), ">>totalRecords =  0\n");
}

TEST(StatsThroughReader, EarlyTimesAffectEveryLaterFile) {
    TempDir dir;
    dir.writeFile("core_binlog.xml", kBinlog);
    Tav::BinaryLogXmlReader reader(dir.slash(), true, 0, 64);
    ASSERT_TRUE(reader.isGood());
    const std::string early =
        dir.writeFile("early.pcap", pcapGlobalHeader() + pcapRecord(0, 1, 0x00050001u, 1) +
                                        pcapRecord(0, 2, 0x00050001u, 3));
    const std::string late =
        dir.writeFile("late.pcap", pcapGlobalHeader() + pcapRecord(kSec, 1, 0x00050001u, 7) +
                                       pcapRecord(kSec, 2, 0x00050001u, 8));

    MemoryStream out1;
    {
        StderrCapture err;
        reader.readBinaryFiledata(early, 0, out1.file());
    }
    // The record length handed to the statistics is the whole record data (20).
    EXPECT_EQ(out1.text(),
              ">>possibly missing packets: module=0x5,lastSeqNo=1,curSeqNo=3: "
              "diff=1,missingRecords_=0\n"
              ">>totalRecords =  2\n"
              ">>missingRecords =  1 (33.333333%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 40\n"
              ">>average log record size = 20\n");

    // Module 5 starts fresh in the next file (7 after 3 is no gap), but the
    // rate lines stay replaced.
    MemoryStream out2;
    {
        StderrCapture err;
        reader.readBinaryFiledata(late, 0, out2.file());
    }
    EXPECT_EQ(out2.text(),
              ">>totalRecords =  2\n"
              ">>missingRecords =  0 (0.000000%)\n"
              ">>outOfOrderRecords =  0\n"
              ">>per second record stats not provided for this file\n"
              ">>total log record size = 40\n"
              ">>average log record size = 20\n");
}

}  // namespace
