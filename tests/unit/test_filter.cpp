// Filter expressions: which records they keep, on header fields (records
// built here) and on values (records of a capture decoded with a small
// dictionary); what checkHeader says before the values are decoded; and the
// messages and positions of expressions that do not compile.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Filter.h"

namespace {

using wexbl_test::TempDir;
using Verdict = Tav::Filter::Verdict;

std::unique_ptr<Tav::Filter> compiled(const std::string& expression) {
    std::string error;
    std::size_t position = 99;
    std::unique_ptr<Tav::Filter> filter = Tav::Filter::compile(expression, error, position);
    EXPECT_NE(filter, nullptr) << expression << ": " << error << " at " << position;
    return filter;
}

const char* verdictName(Verdict verdict) {
    switch (verdict) {
        case Verdict::Reject:
            return "Reject";
        case Verdict::Accept:
            return "Accept";
        case Verdict::Values:
            return "Values";
    }
    return "?";
}

// ---- Header fields -----------------------------------------------------------------------------

struct NamedRecord {
    const char* name;
    Tav::Record record;
};

Tav::Record headerRecord(Tav::RecordKind kind, const char* subsystem, const char* module,
                         const char* log, std::uint16_t level, const char* category,
                         std::uint32_t seq, std::uint32_t tsSec, std::uint32_t tsUsec,
                         const char* capture) {
    Tav::Record r;
    r.kind = kind;
    r.subsystem = subsystem;
    r.module = module;
    r.log = log;
    r.level = level;
    r.category = category;
    r.seqNo = seq;
    r.pcapHeader.tsSec = tsSec;
    r.pcapHeader.tsUsec = tsUsec;
    r.seconds = tsSec;
    r.microseconds = tsUsec;
    r.capture = capture;
    return r;
}

// 1714564800 is 2024-05-01T12:00:00Z.
std::vector<NamedRecord> headerRecords() {
    std::vector<NamedRecord> records = {
        {"A", headerRecord(Tav::RecordKind::BinLog, "L2", "mac", "Grant", 3, "SCHED", 10,
                           1714564800, 0, "a.pcap.gz")},
        {"B", headerRecord(Tav::RecordKind::BinLog, "L1", "phy", "Sync", 5, "PHY", 4294967295u,
                           1714564800, 500000, "b.pcap")},
        {"C", headerRecord(Tav::RecordKind::Legacy, "L2", "rlc", "Old", 1, "", 0, 1714568400, 0,
                           "a.pcap.gz")},
        // Syslog and plain capture records have no subsystem, module, log or
        // category; a plain capture record has no level either, whatever its
        // header says.
        {"D",
         headerRecord(Tav::RecordKind::Syslog, "", "", "", 6, "", 7, 1714561200, 0, "sys.pcap")},
        {"E", headerRecord(Tav::RecordKind::Capture, "", "", "", 3, "", 20, 1714564799, 999999,
                           "c.pcap")},
    };
    // A shows its time an hour later: `time` is the sender's time all the same.
    records[0].record.utcOffsetMinutes = 60;
    records[0].record.seconds += 3600;
    return records;
}

struct KeepCase {
    const char* expression;
    const char* kept;
};

TEST(FilterHeaderFields, ExpressionsKeepTheRecordsTheyDescribe) {
    const KeepCase cases[] = {
        // kind
        {"kind == binlog", "A B"},
        {"kind == LEGACY", "C"},
        {"kind != syslog", "A B C E"},
        {"kind == capture", "E"},
        {"capture == kind", ""},
        // subsystem, module (with and without its subsystem), log, category
        {"subsystem == L2", "A C"},
        {"module == mac", "A"},
        {"module == L2:mac", "A"},
        {"module == L1:mac", ""},
        {"module == \"L2:rlc\"", "C"},
        {"module ~ L2:*", "A C"},
        {"module ~ \"r?c\"", "C"},
        {"module ~ L*", ""},
        {"module != mac", "B C"},
        {"module < n", "A"},
        {"module >= L2:n", "C"},
        {"log == Grant", "A"},
        {"\"Grant\" == log", "A"},
        {"log != Grant", "B C"},
        {"!(log == Grant)", "B C D E"},
        {"log < \xc3\xa9", "A B C"},
        {"category == \"\"", "C"},
        {"category < Q", "B C"},
        // level by name (any case) and number; never on a plain capture record
        {"level == WARN", "A"},
        {"level == 3", "A"},
        {"level == \"warn\"", "A"},
        {"level <= warn", "A C"},
        {"level > 4", "B D"},
        {"level >= 0", "A B C D"},
        {"WARN >= level", "A C"},
        {"level == critical && subsystem == L2 && category == \"\"", "C"},
        // seq, unsigned 32-bit
        {"seq == 4294967295", "B"},
        {"seq >= 0xFFFFFFFF", "B"},
        {"seq < 10", "C D"},
        {"seq <= 0x0", "C"},
        {"seq > -1", "A B C D E"},
        {"10 <= seq", "A B E"},
        {"seq > 4294967295", ""},
        // time, to the nanosecond, with offsets
        {"time >= 2024-05-01T12:00:00Z", "A B C"},
        {"time == 2024-05-01T12:00:00Z", "A"},
        {"time < 2024-05-01T12:00:00.5Z", "A D E"},
        {"time == 2024-05-01T12:00:00.500000000Z", "B"},
        {"time == 2024-05-01T14:00:00+02:00", "A"},
        {"time > 2024-05-01T06:30:00-05:00", "A B C E"},
        {"time > 2024-05-01T11:59:59.9999995Z", "A B C"},
        {"time >= 2024-05-01T11:59:59.999999Z && time < 2024-05-01T12:00:00Z", "E"},
        {"2024-05-01T12:30:00Z < time", "C"},
        {"time == \"2024-05-01T11:00:00Z\"", "D"},
        // capture name
        {"capture == a.pcap.gz", "A C"},
        {"capture ~ *.pcap", "B D E"},
        {"capture ~ \"?.pcap*\"", "A B C E"},
        {"capture > b", "B D E"},
        // precedence: ! > comparisons > && > ||, and parentheses
        {"kind == syslog || kind == legacy && level == 1", "C D"},
        {"(kind == syslog || kind == legacy) && level == 1", "C"},
        {"!kind == binlog && seq < 10", "C D"},
        {"!(kind == binlog && seq < 20)", "B C D E"},
        {"!!(level == 5)", "B"},
        {"! ! ! (level == 5)", "A C D E"},
        {"module == L2:mac || seq == 7 || capture == c.pcap", "A D E"},
        {"subsystem ~ \"L*\" && !(subsystem == L1)", "A C"},
        {"((((seq == 10))))", "A"},
        {"level == 3 && (seq == 0 || seq == 10) || kind == syslog && seq == 7", "A D"},
    };
    const std::vector<NamedRecord> records = headerRecords();
    for (const KeepCase& c : cases) {
        const std::unique_ptr<Tav::Filter> filter = compiled(c.expression);
        ASSERT_NE(filter, nullptr);
        EXPECT_FALSE(filter->usesValues()) << c.expression;
        EXPECT_EQ(filter->expression(), c.expression);
        std::string kept;
        for (const NamedRecord& named : records) {
            const bool match = filter->matches(named.record);
            if (match) {
                kept += kept.empty() ? "" : " ";
                kept += named.name;
            }
            // Header fields alone decide, and decide the same.
            EXPECT_EQ(filter->checkHeader(named.record), match ? Verdict::Accept : Verdict::Reject)
                << c.expression << " on " << named.name;
        }
        EXPECT_EQ(kept, c.kept) << c.expression;
    }
}

TEST(FilterHeaderFields, ParametersOfARecordWithoutValuesAreMissing) {
    // A record built here has no decoder behind it: no values.
    const std::vector<NamedRecord> records = headerRecords();
    const Tav::Record& binlog = records[0].record;
    const Tav::Record& syslog = records[3].record;
    const std::unique_ptr<Tav::Filter> filter = compiled("cellId == 7");
    ASSERT_NE(filter, nullptr);
    EXPECT_TRUE(filter->usesValues());
    EXPECT_EQ(filter->checkHeader(binlog), Verdict::Values);
    EXPECT_FALSE(filter->matches(binlog));
    // Syslog and plain capture records never have values.
    EXPECT_EQ(filter->checkHeader(syslog), Verdict::Reject);
    const std::unique_ptr<Tav::Filter> negated = compiled("!(cellId == 7)");
    ASSERT_NE(negated, nullptr);
    EXPECT_TRUE(negated->matches(binlog));
    EXPECT_EQ(negated->checkHeader(syslog), Verdict::Accept);
}

TEST(FilterHeaderFields, LongChainsAndDeepNestingCompileAndRun) {
    std::string chain = "seq == 0";
    for (int i = 1; i < 20000; ++i) {
        chain += " || seq == " + std::to_string(i);
    }
    const std::unique_ptr<Tav::Filter> filter = compiled(chain);
    ASSERT_NE(filter, nullptr);
    const std::vector<NamedRecord> records = headerRecords();
    EXPECT_TRUE(filter->matches(records[0].record));   // seq 10
    EXPECT_FALSE(filter->matches(records[1].record));  // seq 4294967295

    const std::string nots(100001, '!');
    const std::unique_ptr<Tav::Filter> odd = compiled(nots + "(seq == 10)");
    ASSERT_NE(odd, nullptr);
    EXPECT_FALSE(odd->matches(records[0].record));
    EXPECT_TRUE(odd->matches(records[1].record));

    const std::string nested = std::string(256, '(') + "seq == 10" + std::string(256, ')');
    const std::unique_ptr<Tav::Filter> deep = compiled(nested);
    ASSERT_NE(deep, nullptr);
    EXPECT_TRUE(deep->matches(records[0].record));
}

TEST(FilterHeaderFields, GlobsBacktrack) {
    Tav::Record r = headerRecords()[0].record;
    const std::string long_log(5000, 'a');
    r.log = long_log;
    const struct {
        const char* pattern;
        bool match;
    } cases[] = {
        {"*", true},   {"a*a", true},   {"*a*a*a*a*a*a*b", false},
        {"?*", true},  {"*?", true},    {"a?a*", true},
        {"b*", false}, {"**a**", true}, {"*aaaaaaaab", false},
    };
    for (const auto& c : cases) {
        const std::unique_ptr<Tav::Filter> filter =
            compiled(std::string("log ~ \"") + c.pattern + "\"");
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->matches(r), c.match) << c.pattern;
    }
    r.log = "x*y";
    const struct {
        const char* pattern;
        bool match;
    } small[] = {
        {"x*y", true}, {"x?y", true}, {"x??y", false}, {"*", true},  {"", false},
        {"x", false},  {"?*?", true}, {"x*y*", true},  {"*y", true}, {"y*", false},
    };
    for (const auto& c : small) {
        const std::unique_ptr<Tav::Filter> filter =
            compiled(std::string("log ~ \"") + c.pattern + "\"");
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->matches(r), c.match) << c.pattern;
    }
}

/// A small deterministic generator (splitmix64).
struct Random {
    std::uint64_t state;
    std::uint64_t below(std::uint64_t n) {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return (z ^ (z >> 31)) % n;
    }
    template <typename T, std::size_t N>
    const T& pick(const T (&items)[N]) {
        return items[below(N)];
    }
};

/// A random expression of the language's pieces; not always a valid one.
std::string randomExpression(Random& random, int depth) {
    static const char* const fields[] = {"level", "seq",     "time",   "kind",   "module",
                                         "log",   "capture", "cellId", "rssi[1]"};
    static const char* const ops[] = {"==", "!=", "<", "<=", ">", ">=", "~"};
    static const char* const literals[] = {
        "WARN",
        "3",
        "-1",
        "0x10",
        "binlog",
        "L2:*",
        "mac",
        "\"a.pcap.gz\"",
        "syslog",
        "2024-05-01T12:00:00Z",
        "2024-05-01T12:00:00.5+01:00",
        "\"\"",
        "4294967295",
    };
    const std::uint64_t shape = depth > 3 ? 0 : random.below(6);
    if (shape == 0 || shape == 1) {
        std::string field = random.pick(fields);
        std::string literal = random.pick(literals);
        if (random.below(4) == 0) {
            std::swap(field, literal);
        }
        return field + " " + random.pick(ops) + " " + literal;
    }
    if (shape == 2) {
        return "!" + randomExpression(random, depth + 1);
    }
    if (shape == 3) {
        return "(" + randomExpression(random, depth + 1) + ")";
    }
    return randomExpression(random, depth + 1) + (shape == 4 ? " && " : " || ") +
           randomExpression(random, depth + 1);
}

TEST(FilterHeaderFields, RandomExpressionsCompileOrSayWhereAndHeadersAgreeWithMatches) {
    // Whatever compiles: its header verdict never contradicts matches, and
    // leaves a record to its values only when a parameter is compared.
    // Whatever does not (also after a random cut or insertion): it says why
    // and points inside the expression.
    static const char* const damage[] = {"(", ")", "\"", "=", "&", "|", "#", "!", "rssi[", ""};
    Random random{20240501};
    const std::vector<NamedRecord> records = headerRecords();
    int compiledCount = 0;
    int failedCount = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string expression = randomExpression(random, 0);
        if (random.below(3) == 0) {
            const std::size_t at = random.below(expression.size() + 1);
            const std::size_t cut = random.below(expression.size() - at + 1);
            expression.replace(at, cut, random.pick(damage));
        }
        std::string error;
        std::size_t position = 0;
        const std::unique_ptr<Tav::Filter> filter =
            Tav::Filter::compile(expression, error, position);
        if (!filter) {
            ++failedCount;
            EXPECT_FALSE(error.empty()) << expression;
            EXPECT_LE(position, expression.size()) << expression;
            continue;
        }
        ++compiledCount;
        for (const NamedRecord& named : records) {
            const Verdict verdict = filter->checkHeader(named.record);
            const bool match = filter->matches(named.record);
            if (verdict == Verdict::Values) {
                EXPECT_TRUE(filter->usesValues()) << expression << " on " << named.name;
            } else {
                EXPECT_EQ(verdict, match ? Verdict::Accept : Verdict::Reject)
                    << expression << " on " << named.name;
            }
        }
    }
    EXPECT_GT(compiledCount, 1000);
    EXPECT_GT(failedCount, 1000);
}

// ---- Expressions that do not compile -----------------------------------------------------------

TEST(FilterErrors, MessagesSayWhatWasExpectedAndWhere) {
    const struct {
        std::string expression;
        const char* error;
        std::size_t position;
    } cases[] = {
        {"", "expected a field name, found the end", 0},
        {"   ", "expected a field name, found the end", 3},
        {"level", "expected an operator after 'level'", 5},
        {"level 3", "expected an operator after 'level'", 6},
        {"\"quoted\" 5", "expected an operator after '\"quoted\"'", 9},
        {"level ==", "expected a value after '=='", 8},
        {"level == && seq == 1", "expected a value after '=='", 9},
        {"level == WARNING", "unknown level name 'WARNING'", 9},
        {"level <= \"Warning!\"", "unknown level name 'Warning!'", 9},
        {"module == \"L2", "unterminated string", 10},
        {"module == \"L2\\\"", "unterminated string", 10},
        {"module == \"a\\nb\"", "unknown escape '\\n'", 12},
        {"(level == 3", "expected ')'", 11},
        {"(level == 3 seq == 4)", "expected ')'", 12},
        {"level == 3 )", "unmatched ')'", 11},
        {"level == 3 seq == 1", "expected '&&' or '||', found 'seq'", 11},
        {"level == 3 && ", "expected a field name, found the end", 14},
        {"level == 3 && !", "expected a field name, found the end", 15},
        {"== 3", "expected a field name, found '=='", 0},
        {"()", "expected a field name, found ')'", 1},
        {"5 == 6", "expected a field name, found '5'", 0},
        {"time > 5", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-05-01T12:00:00", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-02-30T12:00:00Z", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2023-02-29T12:00:00Z", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-05-01T24:00:00Z", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-05-01T12:00:00.1234567891Z",
         "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-05-01T12:00:00.Z", "time needs a time literal like 2024-05-01T12:00:00Z", 7},
        {"time > 2024-05-01T12:00:00+0200", "time needs a time literal like 2024-05-01T12:00:00Z",
         7},
        {"time > 2024-05-01T12:00:00Zulu", "time needs a time literal like 2024-05-01T12:00:00Z",
         7},
        {"time == WARN", "time needs a time literal like 2024-05-01T12:00:00Z", 8},
        {"time ~ 2024*", "'~' does not apply to time", 5},
        {"seq == abc", "seq needs a number, found 'abc'", 7},
        {"seq == \"x y\"", "seq needs a number, found '\"x y\"'", 7},
        {"seq == 18446744073709551616", "number out of range '18446744073709551616'", 7},
        {"seq ~ 1*", "'~' does not apply to seq", 4},
        {"level ~ W*", "'~' does not apply to level", 6},
        {"level == 99999999999999999999", "number out of range '99999999999999999999'", 9},
        {"kind == foo", "unknown kind 'foo'", 8},
        {"kind < binlog", "kind compares with == or != only", 5},
        {"kind ~ bin*", "kind compares with == or != only", 5},
        {"level = 3", "expected '==', found '='", 6},
        {"level == 3 & seq == 1", "expected '&&', found '&'", 11},
        {"level == 3 | seq == 1", "expected '||', found '|'", 11},
        {"level # 3", "unexpected character '#'", 6},
        {std::string("level\x01"), "unexpected character '\\x01'", 5},
        {"rssi[x] == 1", "bad array index in 'rssi[x]'", 0},
        {"rssi[2 == 1", "bad array index in 'rssi[2'", 0},
        {"rssi[] == 1", "bad array index in 'rssi[]'", 0},
        {"rssi[2147483648] == 1", "bad array index in 'rssi[2147483648]'", 0},
        {"1 == rssi[-1]", "bad array index in 'rssi[-1]'", 5},
        {"level[1] == 3", "level has no elements", 0},
        {"cellId == 99999999999999999999", "number out of range '99999999999999999999'", 10},
        {"cellId == -9223372036854775809", "number out of range '-9223372036854775809'", 10},
        {"level == WARN && (seq == 1 || time > x)",
         "time needs a time literal like "
         "2024-05-01T12:00:00Z",
         37},
        // The first error in reading order counts.
        {"level foo \"abc", "expected an operator after 'level'", 6},
        {"level == \"abc", "unterminated string", 9},
        {std::string(257, '(') + "seq == 1" + std::string(257, ')'), "too many nested parentheses",
         256},
    };
    for (const auto& c : cases) {
        std::string error = "stale";
        std::size_t position = 12345;
        const std::unique_ptr<Tav::Filter> filter =
            Tav::Filter::compile(c.expression, error, position);
        EXPECT_EQ(filter, nullptr) << c.expression;
        EXPECT_EQ(error, c.error) << c.expression;
        EXPECT_EQ(position, c.position) << c.expression;
    }
}

TEST(FilterErrors, ACompiledExpressionLeavesNoError) {
    std::string error = "stale";
    std::size_t position = 7;
    const std::unique_ptr<Tav::Filter> filter =
        Tav::Filter::compile("  level<=3&&seq>-5||!(x.y-z:w[0]!=\"\\\"\\\\\")", error, position);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(error, "");
    EXPECT_EQ(position, 0u);
    EXPECT_TRUE(filter->usesValues());
    EXPECT_EQ(filter->expression(), "  level<=3&&seq>-5||!(x.y-z:w[0]!=\"\\\"\\\\\")");
}

// ---- Values ------------------------------------------------------------------------------------

void putU16(std::string& out, std::uint16_t v) {
    out.push_back(static_cast<char>(v & 0xFF));
    out.push_back(static_cast<char>(v >> 8));
}
void putU32(std::string& out, std::uint32_t v) {
    putU16(out, static_cast<std::uint16_t>(v & 0xFFFF));
    putU16(out, static_cast<std::uint16_t>(v >> 16));
}
void putU64(std::string& out, std::uint64_t v) {
    putU32(out, static_cast<std::uint32_t>(v & 0xFFFFFFFFu));
    putU32(out, static_cast<std::uint32_t>(v >> 32));
}

/// A link type 150 record: pcap header, binary log header, payload.
void appendRecord(std::string& file, std::uint32_t packetType, std::uint32_t logId,
                  std::uint16_t level, std::uint32_t seq, const std::string& payload) {
    std::string data;
    putU32(data, packetType);
    putU32(data, logId);
    putU16(data, level);
    putU16(data, 3);  // the module's version
    putU32(data, seq);
    data += payload;
    putU32(file, 1714564800);
    putU32(file, 0);
    putU32(file, static_cast<std::uint32_t>(data.size()));
    putU32(file, static_cast<std::uint32_t>(data.size()));
    file += data;
}

struct Grant {
    std::uint16_t cellId;
    std::uint64_t big;
    std::int64_t delta;
    std::uint32_t ueId;
    std::int16_t rssi[3];
    std::uint8_t mode;
    const char* state;
};

/// The payload in wire order: the header (cellId and 2 bytes of padding to
/// 4), then u64 big, i64 delta, u32 ueId, i16 rssi[3], u8 mode, string
/// state (8 bytes).
std::string grantPayload(const Grant& g) {
    std::string p;
    putU16(p, g.cellId);
    putU16(p, 0);
    putU64(p, g.big);
    putU64(p, static_cast<std::uint64_t>(g.delta));
    putU32(p, g.ueId);
    for (const std::int16_t rssi : g.rssi) {
        putU16(p, static_cast<std::uint16_t>(rssi));
    }
    p.push_back(static_cast<char>(g.mode));
    std::string state(g.state);
    state.resize(8, '\0');
    return p + state;
}

class FilterValuesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dict_.writeFile("mac_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="L2" subsystemId="1" module="mac" moduleid="2" binlogversion="3">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cellId"/>
  </ModuleHeader>
  <LogId name="Grant" logString="ue {ueId} in {state}" category="SCHED">
    <p type="TavUint32_t" nameList="ueId" displayFormat="hex"/>
    <p type="TavInt16_t" nameList="rssi" count="3"/>
    <p type="TavUint8_t" nameList="mode" displayFormat="Mode"/>
    <p type="TavInt64_t" nameList="delta"/>
    <p type="TavUint64_t" nameList="big"/>
    <p type="string" nameList="state" size="8"/>
  </LogId>
  <LogId name="Drop" logString="dropped: {cause}" category="SCHED">
    <p type="TavUint32_t" nameList="cause"/>
  </LogId>
</LoggingSubSystem>
)");
        dict_.writeFile("modes_bindisplay.xml",
                        "<d><enum name=\"Mode\"><e value=\"0\" text=\"IDLE\"/>"
                        "<e value=\"1\" text=\"ACTIVE\"/></enum></d>");
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dict_.slash(), false, 0, 64);
        ASSERT_TRUE(reader_->isGood());

        // 1: Grant, level 3, seq 1. 2: Grant, level 5, seq 2. 3: syslog,
        // level 6, seq 3. 4: Drop, level 2, seq 4.
        capture_ = std::string("\xD4\xC3\xB2\xA1\x02\x00\x04\x00", 8);
        capture_ += std::string(8, '\0');
        putU32(capture_, 65535);
        putU32(capture_, 150);
        appendRecord(capture_, 0, 0x01020001, 3, 1,
                     grantPayload({7, UINT64_MAX, -5, 17, {-70, -60, -50}, 1, "RUN"}));
        appendRecord(capture_, 0, 0x01020001, 5, 2,
                     grantPayload({8, 1, INT64_MIN, 18, {-90, -80, -75}, 0, "IDLE"}));
        appendRecord(capture_, 2, 0, 6, 3, std::string("tag\0\0\0\0\0\0\0\0\0\0\0\0\0", 16) + "up");
        std::string drop;
        putU16(drop, 7);
        putU16(drop, 0);
        putU32(drop, 2);
        appendRecord(capture_, 0, 0x01020002, 2, 4, drop);
    }

    /// The numbers of the records `expression` keeps; checks on the way
    /// that checkHeader never contradicts matches.
    std::string kept(const std::string& expression, bool texts = true) {
        const std::unique_ptr<Tav::Filter> filter = compiled(expression);
        if (!filter) {
            return "(does not compile)";
        }
        Tav::StreamOptions options;
        options.texts = texts;
        Tav::CaptureStream stream(*reader_, "values.pcap",
                                  reinterpret_cast<const unsigned char*>(capture_.data()),
                                  capture_.size(), options);
        std::string numbers;
        int records = 0;
        while (stream.next()) {
            const Tav::Record* record = stream.record();
            if (record == nullptr) {
                ADD_FAILURE() << "an event: " << stream.event()->text;
                continue;
            }
            ++records;
            const Verdict verdict = filter->checkHeader(*record);
            const bool match = filter->matches(*record);
            if (verdict != Verdict::Values) {
                EXPECT_EQ(match, verdict == Verdict::Accept)
                    << expression << " on record " << record->number;
            }
            if (match) {
                numbers += numbers.empty() ? "" : " ";
                numbers += std::to_string(record->number);
            }
        }
        EXPECT_EQ(records, 4);
        return numbers;
    }

    /// checkHeader's verdict for each record, in order.
    std::string verdicts(const std::string& expression) {
        const std::unique_ptr<Tav::Filter> filter = compiled(expression);
        if (!filter) {
            return "(does not compile)";
        }
        Tav::CaptureStream stream(*reader_, "values.pcap",
                                  reinterpret_cast<const unsigned char*>(capture_.data()),
                                  capture_.size(), Tav::StreamOptions());
        std::string out;
        while (stream.next()) {
            if (const Tav::Record* record = stream.record()) {
                out += out.empty() ? "" : " ";
                out += verdictName(filter->checkHeader(*record));
            }
        }
        return out;
    }

    TempDir dict_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
    std::string capture_;
};

TEST_F(FilterValuesTest, TheCaptureDecodesAsTheTablesAssume) {
    Tav::CaptureStream stream(*reader_, "values.pcap",
                              reinterpret_cast<const unsigned char*>(capture_.data()),
                              capture_.size(), Tav::StreamOptions());
    ASSERT_TRUE(stream.next());
    const Tav::Record* record = stream.record();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->text,
              "[2024-05-01T12:00:00.000Z] [    L2:mac] [                    Grant] [    WARN] "
              "[     SCHED] [1] [cellId=7 ] [ue ueId=0x11 in state=RUN] \n");
    ASSERT_EQ(record->params().size(), 8u);
    EXPECT_EQ(record->params()[4].name, "mode");
    EXPECT_EQ(record->params()[4].text, "ACTIVE");
    EXPECT_EQ(record->params()[4].enumName, "Mode");
    EXPECT_EQ(record->params()[5].asSigned(), -5);
    EXPECT_EQ(record->params()[6].raw, UINT64_MAX);
    ASSERT_TRUE(stream.next());
    ASSERT_TRUE(stream.next());
    ASSERT_NE(stream.record(), nullptr);
    EXPECT_EQ(stream.record()->kind, Tav::RecordKind::Syslog);
    ASSERT_TRUE(stream.next());
    ASSERT_NE(stream.record(), nullptr);
    EXPECT_EQ(stream.record()->log, "Drop");
    EXPECT_FALSE(stream.next());
}

TEST_F(FilterValuesTest, ParametersCompareTheirValues) {
    const KeepCase cases[] = {
        // a number compares the raw value; a string the text the line shows
        {"ueId == 17", "1"},
        {"ueId == 0x12", "2"},
        {"17 == ueId", "1"},
        {"ueId == \"0x11\"", "1"},
        {"ueId == \"17\"", ""},
        {"ueId ~ 0x1*", "1 2"},
        {"ueId ~ 17", ""},
        {"ueId != 17", "2"},
        {"!(ueId == 17)", "2 3 4"},
        {"ueId >= 17 && ueId < 18", "1"},
        // enumeration names, case-sensitive, and their values
        {"mode == ACTIVE", "1"},
        {"mode == \"IDLE\"", "2"},
        {"mode == active", ""},
        {"mode == 0", "2"},
        {"mode ~ A*", "1"},
        {"mode > B", "2"},
        // arrays: any element, or the element at an index
        {"rssi == -60", "1"},
        {"rssi[1] == -60", "1"},
        {"rssi[0] == -60", ""},
        {"rssi[3] == -70", ""},
        {"rssi < -85", "2"},
        {"rssi[2] >= -75", "1 2"},
        {"rssi != -70", "1 2"},
        {"!(rssi == -70)", "2 3 4"},
        {"rssi ~ \"-7*\"", "1 2"},
        {"rssi[0] ~ \"-7*\"", "1"},
        // 64-bit values, signed and unsigned by their type
        {"big == 18446744073709551615", "1"},
        {"big == 0xFFFFFFFFFFFFFFFF", "1"},
        {"big > 9223372036854775807", "1"},
        {"big == -1", ""},
        {"big < 0", ""},
        {"big >= 1", "1 2"},
        {"delta == -9223372036854775808", "2"},
        {"delta == -0x8000000000000000", "2"},
        {"delta < 0", "1 2"},
        {"delta < -5", "2"},
        {"delta == 18446744073709551611", ""},
        {"delta > -6", "1"},
        // the module header's values, and values only some logs have
        {"cellId == 7", "1 4"},
        {"cellId == 7 && cause == 2", "4"},
        {"cause != 2", ""},
        {"cause == 2 || ueId == 18", "2 4"},
        // strings
        {"state == RUN", "1"},
        {"state ~ \"I*\"", "2"},
        {"state > IDLE", "1"},
        {"state == \"\"", ""},
        // with header fields
        {"level == WARN && ueId < 100", "1"},
        {"kind == syslog || ueId == 18", "2 3"},
        {"module == L2:mac && !(mode == ACTIVE)", "2 4"},
    };
    for (const KeepCase& c : cases) {
        EXPECT_EQ(kept(c.expression), c.kept) << c.expression;
    }
}

TEST_F(FilterValuesTest, StringComparisonsOnNumbersNeedTexts) {
    // Without texts: numbers still compare, strings still have their bytes,
    // but a number or enumeration has no text to compare.
    EXPECT_EQ(kept("ueId == 17", false), "1");
    EXPECT_EQ(kept("state == RUN", false), "1");
    EXPECT_EQ(kept("mode == 1", false), "1");
    EXPECT_EQ(kept("mode == ACTIVE", false), "");
    EXPECT_EQ(kept("mode != ACTIVE", false), "");
    EXPECT_EQ(kept("mode < ZZZ", false), "");
    EXPECT_EQ(kept("ueId == \"0x11\"", false), "");
    EXPECT_EQ(kept("!(mode == ACTIVE)", false), "1 2 3 4");
}

TEST_F(FilterValuesTest, CheckHeaderLeavesToTheValuesOnlyWhatTheyDecide) {
    // Records: 1 Grant level 3 seq 1, 2 Grant level 5 seq 2, 3 syslog level
    // 6 seq 3, 4 Drop level 2 seq 4.
    const struct {
        const char* expression;
        const char* verdicts;
    } cases[] = {
        {"ueId == 17", "Values Values Reject Values"},
        {"level == WARN && ueId == 17", "Values Reject Reject Reject"},
        {"level == WARN || ueId == 17", "Accept Values Reject Values"},
        {"!(ueId == 17)", "Values Values Accept Values"},
        {"!(level == WARN && ueId == 17)", "Values Accept Accept Accept"},
        {"kind == syslog || seq > 1 && mode == IDLE", "Reject Values Accept Values"},
        {"(kind == syslog || seq > 1) && mode == IDLE", "Reject Values Reject Values"},
        {"ueId == 17 && seq == 99", "Reject Reject Reject Reject"},
        {"ueId == 17 || seq > 0", "Accept Accept Accept Accept"},
        {"level <= 3", "Accept Reject Reject Accept"},
        {"!(level <= 3) && kind == binlog", "Reject Accept Reject Reject"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(verdicts(c.expression), c.verdicts) << c.expression;
    }
}

}  // namespace
