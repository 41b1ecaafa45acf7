// JSON Lines and CSV output of records and events: the exact text of every
// record kind and of the events, read from hand-built captures through a
// capture stream; and every line checked by Python's strict JSON parser and
// its csv module, with strings of every kind of byte.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "TestSupport.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Format.h"

namespace {

using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

// ---- Building captures byte by byte ----------------------------------------------------------

void putU16(std::string& out, std::uint16_t v) {
    out.push_back(static_cast<char>(v & 0xFF));
    out.push_back(static_cast<char>(v >> 8));
}
void putU32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}
void putU64(std::string& out, std::uint64_t v) {
    putU32(out, static_cast<std::uint32_t>(v));
    putU32(out, static_cast<std::uint32_t>(v >> 32));
}

/// A pcap file header: little-endian microsecond magic, link type `link`.
std::string pcapHeader(std::uint32_t link = 150) {
    std::string out;
    putU32(out, 0xA1B2C3D4u);
    putU16(out, 2);
    putU16(out, 4);
    putU32(out, 0);
    putU32(out, 0);
    putU32(out, 65535);
    putU32(out, link);
    return out;
}

struct LogRecord {
    std::uint32_t tsSec = 1700000000;  // 2023-11-14T22:13:20Z
    std::uint32_t tsUsec = 0;
    std::uint32_t packetType = 0;
    std::uint32_t logId = 0;
    std::uint16_t level = 5;
    std::uint16_t version = 1;
    std::uint32_t seqNo = 0;
    std::string payload;
};

/// Appends a link type 150 record: pcap header, binary log header, payload.
void append(std::string& file, const LogRecord& r) {
    const auto size = static_cast<std::uint32_t>(16 + r.payload.size());
    putU32(file, r.tsSec);
    putU32(file, r.tsUsec);
    putU32(file, size);
    putU32(file, size);
    putU32(file, r.packetType);
    putU32(file, r.logId);
    putU16(file, r.level);
    putU16(file, r.version);
    putU32(file, r.seqNo);
    file += r.payload;
}

/// The payload of a Grant record: header cell 7, carrier 1 (and a padding
/// byte), u32 ue 17, bytes 1024, i16 rssi -1,5,2, u8 mcs 9, string "ok",
/// var binary `count` (3 bytes aa bb cc follow).
std::string grantPayload(std::uint16_t count = 3) {
    std::string p;
    putU16(p, 7);
    p.push_back(1);
    p.push_back(0);
    putU32(p, 17);
    putU32(p, 1024);
    putU16(p, 0xFFFF);
    putU16(p, 5);
    putU16(p, 2);
    p.push_back(9);
    p += std::string("ok\0\0\0\0", 6);
    putU16(p, count);
    p += "\xaa\xbb\xcc";
    return p;
}

LogRecord grant(std::uint32_t seqNo) {
    LogRecord r;
    r.tsUsec = 250000;
    r.logId = 0x01020001;
    r.version = 3;
    r.seqNo = seqNo;
    r.payload = grantPayload();
    return r;
}

/// A string of 16 bytes with a quote, a backslash, a comma, control
/// characters, a byte that is not UTF-8, an "é" and a line feed.
const std::string kOddString("a\"b\\,c\x01\x7f\xff\xc3\xa9\t\n\0\0\0", 16);

/// The payload of a Wide record: 64-bit extremes, negative values, a
/// binary string 00 ff 7f.
std::string widePayload() {
    std::string p;
    putU64(p, std::numeric_limits<std::uint64_t>::max());
    putU64(p, (std::uint64_t{1} << 53) - 1);
    putU64(p, std::uint64_t{1} << 53);
    putU64(p, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::min()));
    putU64(p, static_cast<std::uint64_t>(-((std::int64_t{1} << 53) - 1)));
    putU64(p, static_cast<std::uint64_t>(-(std::int64_t{1} << 53)));
    putU64(p, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
    putU32(p, 0x80000000u);  // i32 -2147483648
    p.push_back('\x80');     // i8 -128
    p += kOddString;
    p += std::string("\x00\xff\x7f", 3);
    return p;
}

// ---- Python's view of the output -------------------------------------------------------------

/// Parses every line of a JSON Lines file strictly (UTF-8 without
/// surrogates or overlong forms, no NaN or Infinity, no repeated keys, an
/// object per line) and compares chosen string members with the bytes they
/// were made from, decoded as UTF-8 with every byte that is not UTF-8 taken
/// as the character of its value. For CSV: reads the rows with the csv
/// module (strict), compares chosen fields with their bytes, and writes the
/// rows again with minimal quoting and CR LF, which must give the same
/// bytes. Prints "<lines> <checked>".
const char kChecker[] = R"PY(
import codecs, csv, io, json, sys

codecs.register_error('bytewise', lambda e: (chr(e.object[e.start]), e.start + 1))

def oracle(hexText):
    return bytes.fromhex(hexText).decode('utf-8', 'bytewise')

def noConstant(name):
    raise ValueError('not JSON: ' + name)

def pairs(items):
    keys = [key for key, _ in items]
    if len(set(keys)) != len(keys):
        raise ValueError('repeated key')
    return dict(items)

mode, dataPath, expectPath = sys.argv[1:4]
raw = open(dataPath, 'rb').read()
wanted = [line.split(' ') for line in open(expectPath).read().split('\n') if line]
checked = 0
if mode == 'json':
    lines = raw.split(b'\n')
    if lines[-1] != b'':
        raise ValueError('the last line has no line feed')
    objects = []
    for line in lines[:-1]:
        obj = json.loads(line.decode('utf-8'), parse_constant=noConstant, object_pairs_hook=pairs)
        if not isinstance(obj, dict):
            raise ValueError('not an object: ' + repr(line))
        objects.append(obj)
    for index, path, hexText in wanted:
        value = objects[int(index)]
        for part in path.split('/'):
            value = value[int(part)] if isinstance(value, list) else value[part]
        if value != oracle(hexText):
            raise ValueError('%s %s: %r != %r' % (index, path, value, oracle(hexText)))
        checked += 1
    print(len(objects), checked)
else:
    text = raw.decode('latin-1')
    rows = list(csv.reader(io.StringIO(text, newline=''), strict=True))
    for row in rows:
        if len(row) != 12:
            raise ValueError('%d fields: %r' % (len(row), row))
    for index, column, hexText in wanted:
        field = rows[int(index)][int(column)].encode('latin-1')
        if field != bytes.fromhex(hexText):
            raise ValueError('%s %s: %r' % (index, column, field))
        checked += 1
    again = io.StringIO(newline='')
    csv.writer(again, lineterminator='\r\n').writerows(rows)
    if again.getvalue() != text:
        raise ValueError('rows written again differ:\n%r\n%r' % (again.getvalue(), text))
    print(len(rows), checked)
)PY";

std::string hexOf(std::string_view bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        out.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
        out.push_back(kDigits[static_cast<unsigned char>(c) & 0xF]);
    }
    return out;
}

/// Lines to check with Python, and what chosen members must hold.
class PythonCheck {
  public:
    /// Member `path` ("message", "params/3/value") of line `line` (0-based)
    /// must decode to the string `bytes` stands for; for CSV `path` is the
    /// column.
    void expect(std::size_t line, const std::string& path, std::string_view bytes) {
        wanted_ += std::to_string(line) + " " + path + " " + hexOf(bytes) + "\n";
        ++expected_;
    }

    /// Runs the checker on `data` (JSON Lines or CSV) and fails the test
    /// unless Python read `lines` lines (rows) and checked every expectation.
    void run(const std::string& mode, const std::string& data, std::size_t lines) {
        TempDir dir;
        const std::string script = dir.writeFile("check.py", kChecker);
        const std::string dataPath = dir.writeFile("data", data);
        const std::string wantedPath = dir.writeFile("expect", wanted_);
        const std::string command =
            "python3 " + script + " " + mode + " " + dataPath + " " + wantedPath + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr) << std::strerror(errno);
        std::string output;
        char buf[4096];
        std::size_t got;
        while ((got = fread(buf, 1, sizeof buf, pipe)) != 0) {
            output.append(buf, got);
        }
        const int status = pclose(pipe);
        EXPECT_EQ(status, 0) << output;
        EXPECT_EQ(output, std::to_string(lines) + " " + std::to_string(expected_) + "\n");
    }

  private:
    std::string wanted_;
    std::size_t expected_ = 0;
};

// ---- The dictionary and the stream -----------------------------------------------------------

class FormatTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dict_.writeFile("core_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="CORE" subsystemId="1" module="sched" moduleid="2" binlogversion="3">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cell"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="Grant" logString="ue {ue} got {bytes} in {state}" category="SCHED,x">
    <p type="TavUint8_t" nameList="mcs" displayFormat="hex"/>
    <p type="TavUint32_t" nameList="ue,bytes"/>
    <p type="TavInt16_t" nameList="rssi" count="3" displayFormat="Colour"/>
    <p type="string" nameList="state" size="6"/>
    <p type="varbinarystring" nameList="raw" size="4"/>
  </LogId>
  <LogId name="Legacy" logString="Legacy text" category="CAT">
    <p type="TavUint32_t" nameList="p1,p2"/>
    <p type="TavUint8_t" nameList="cid"/>
    <p type="string" nameList="tag"/>
  </LogId>
</LoggingSubSystem>
)");
        dict_.writeFile("wide_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="WIDE" subsystemId="1" module="wide" moduleid="3" binlogversion="1">
  <LogId name="Wide" logString="w {u} {s} {str}" category="W">
    <p type="TavUint64_t" nameList="u,u2,u3"/>
    <p type="TavInt64_t" nameList="s,s2,s3,s4"/>
    <p type="TavInt32_t" nameList="i32"/>
    <p type="TavInt8_t" nameList="i8"/>
    <p type="string" nameList="str" size="16"/>
    <p type="binarystring" nameList="bin" size="3"/>
  </LogId>
  <LogId name="Disp" logString="d {d}" category="D">
    <p type="TavUint8_t" nameList="d" displayFormat="Missing"/>
  </LogId>
</LoggingSubSystem>
)");
        dict_.writeFile("colours_bindisplay.xml",
                        "<d><enum name=\"Colour\"><e value=\"-1\" text=\"MINUS\"/>"
                        "<e value=\"2\" text=\"TWO\"/></enum></d>");
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dict_.slash(), false, 0, 2);
        ASSERT_TRUE(reader_->isGood());
    }

    /// Reads `bytes` as the capture `name`, calling `each` for every record
    /// and event (views valid during the call).
    void read(const std::string& bytes, const std::string& name, Tav::StreamOptions options,
              const std::function<void(const Tav::Record*, const Tav::Event*)>& each) {
        options.maxVarBinaryBytes = 2;
        Tav::CaptureStream stream(*reader_, name,
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  bytes.size(), options);
        while (stream.next()) {
            each(stream.record(), stream.event());
        }
    }

    struct Output {
        std::vector<std::string> json;   // records and events, in stream order
        std::vector<std::string> csv;    // records only
        std::vector<std::string> lines;  // the records' text lines
    };

    Output readAll(const std::string& bytes, const std::string& name,
                   const Tav::StreamOptions& options = Tav::StreamOptions()) {
        Output out;
        read(bytes, name, options, [&](const Tav::Record* record, const Tav::Event* event) {
            std::string json;
            if (record != nullptr) {
                Tav::appendJson(json, *record);
                std::string csv;
                Tav::appendCsv(csv, *record);
                out.csv.push_back(csv);
                out.lines.emplace_back(record->text);
            } else {
                Tav::appendJson(json, *event);
            }
            out.json.push_back(json);
        });
        return out;
    }

    /// Checks every JSON line and every CSV row (after the header) with
    /// Python.
    static void validate(const Output& out) {
        std::string jsonLines;
        for (const std::string& line : out.json) {
            EXPECT_EQ(line.find('\n'), std::string::npos) << line;
            jsonLines += line + "\n";
        }
        PythonCheck().run("json", jsonLines, out.json.size());
        std::string csv = Tav::csvHeader();
        for (const std::string& row : out.csv) {
            EXPECT_EQ(row.substr(row.size() - 2), "\r\n");
            csv += row;
        }
        PythonCheck().run("csv", csv, out.csv.size() + 1);
    }

    TempDir dict_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

// ---- Records ---------------------------------------------------------------------------------

const char kGrantLine[] =
    "[2023-11-14T23:13:20.250Z] [CORE:sched] [                    Grant] [    INFO] "
    "[     SCHED] [41] [cell=7 carrier=1 ] [ue ue=17 got bytes=1024 in state=ok] ";

TEST_F(FormatTest, ABinaryLogRecordWithItsValues) {
    std::string file = pcapHeader();
    append(file, grant(41));
    Tav::StreamOptions options;
    options.utcOffsetMinutes = 60;
    const Output out = readAll(file, "mem.pcap", options);
    ASSERT_EQ(out.json.size(), 1u);
    EXPECT_EQ(out.lines[0], std::string(kGrantLine) + "\n");
    // The shown time is the sender's 22:13:20.250 plus an hour; epoch_us is
    // the sender's own. rssi[1] (5) is not in the enumeration: its text is
    // the element's before it and no enumeration gave it.
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"mem.pcap\",\"record\":1,\"kind\":\"binlog\","
              "\"time\":\"2023-11-14T23:13:20.250+01:00\",\"epoch_us\":1700000000250000,"
              "\"subsystem\":\"CORE\",\"module\":\"sched\",\"log\":\"Grant\",\"level\":\"INFO\","
              "\"level_no\":5,\"category\":\"SCHED\",\"seq\":41,"
              "\"header\":[{\"name\":\"cell\",\"type\":\"TavUint16_t\",\"value\":7,\"text\":\"7\"},"
              "{\"name\":\"carrier\",\"type\":\"TavUint8_t\",\"value\":1,\"text\":\"1\"}],"
              "\"params\":[{\"name\":\"mcs\",\"type\":\"TavUint8_t\",\"value\":9,\"text\":\"0x9\"},"
              "{\"name\":\"ue\",\"type\":\"TavUint32_t\",\"value\":17,\"text\":\"17\"},"
              "{\"name\":\"bytes\",\"type\":\"TavUint32_t\",\"value\":1024,\"text\":\"1024\"},"
              "{\"name\":\"rssi\",\"index\":0,\"type\":\"TavInt16_t\",\"value\":-1,"
              "\"text\":\"MINUS\",\"enum\":\"Colour\"},"
              "{\"name\":\"rssi\",\"index\":1,\"type\":\"TavInt16_t\",\"value\":5,"
              "\"text\":\"MINUS\"},"
              "{\"name\":\"rssi\",\"index\":2,\"type\":\"TavInt16_t\",\"value\":2,"
              "\"text\":\"TWO\",\"enum\":\"Colour\"},"
              "{\"name\":\"state\",\"type\":\"string\",\"value\":\"ok\",\"text\":\"ok\"},"
              "{\"name\":\"raw\",\"type\":\"varbinarystring\",\"value\":\"aabbcc\","
              "\"text\":\"payload size:3 aa:bb\"}],"
              "\"text\":\"" +
                  std::string(kGrantLine) + "\"}");
    EXPECT_EQ(out.csv[0],
              "mem.pcap,1,binlog,2023-11-14T23:13:20.250+01:00,CORE,sched,Grant,INFO,SCHED,41,"
              "ue ue=17 got bytes=1024 in state=ok,cell=7 carrier=1 mcs=0x9 ue=17 bytes=1024 "
              "rssi[0]=MINUS rssi[1]=MINUS rssi[2]=TWO state=ok raw=payload size:3 aa:bb\r\n");
    validate(out);

    // The functions append to what the string holds.
    read(file, "mem.pcap", options, [&](const Tav::Record* record, const Tav::Event*) {
        ASSERT_NE(record, nullptr);
        std::string both = "held\n";
        Tav::appendJson(both, *record);
        Tav::appendCsv(both, *record);
        Tav::appendIsoTime(both, *record);
        EXPECT_EQ(both, "held\n" + out.json[0] + out.csv[0] + "2023-11-14T23:13:20.250+01:00");
    });
}

TEST(FormatFields, HeaderTextsStayValidWhenTheLogsTextsAreLong) {
    // The header's texts go into the decoder's text store first; a long
    // byte string of the log then makes the store grow. The header fields
    // must still show their own texts, on the first record (the store at
    // its smallest) and after records that needed less.
    TempDir dict;
    dict.writeFile("big_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="BIG" subsystemId="1" module="big" moduleid="4" binlogversion="1">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cell"/>
    <p type="TavUint32_t" nameList="flags" displayFormat="hex"/>
  </ModuleHeader>
  <LogId name="Small" logString="small" category="S">
    <p type="TavUint8_t" nameList="v"/>
  </LogId>
  <LogId name="Blob" logString="blob" category="B">
    <p type="binarystring" nameList="blob" size="3000"/>
  </LogId>
</LoggingSubSystem>
)");
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), false, 0, 2);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    // The header's payload: grouped by type (u32, then u16), padded to 4.
    std::string header;
    putU32(header, 0x1909778au);
    putU16(header, 586);
    header += std::string(2, '\0');
    std::string file = pcapHeader();
    LogRecord blob;
    blob.logId = 0x01040002;  // log indexes count from 1
    blob.payload = header + std::string(3000, '\xab');
    LogRecord small;
    small.logId = 0x01040001;
    small.payload = header + std::string(1, '\x07');
    for (const LogRecord& record : {blob, small, blob, small, small, blob}) {
        append(file, record);
    }
    const std::string blobText = "ab" + [] {
        std::string rest;
        for (int i = 1; i < 3000; ++i) {
            rest += ":ab";
        }
        return rest;
    }();
    Tav::CaptureStream stream(reader, "big.pcap",
                              reinterpret_cast<const unsigned char*>(file.data()), file.size(),
                              Tav::StreamOptions());
    int records = 0;
    while (stream.next()) {
        const Tav::Record* record = stream.record();
        ASSERT_NE(record, nullptr) << stream.event()->text;
        ++records;
        const Tav::View<Tav::ParamField> fields = record->header();
        ASSERT_EQ(fields.size(), 2u);
        EXPECT_EQ(fields[0].text, "586") << "record " << records;
        EXPECT_EQ(fields[1].text, "0x1909778a") << "record " << records;
        const Tav::View<Tav::ParamField> params = record->params();
        ASSERT_EQ(params.size(), 1u);
        EXPECT_EQ(params[0].text, record->log == "Blob" ? blobText : "7") << "record " << records;
        std::string csv;
        Tav::appendCsv(csv, *record);
        EXPECT_NE(csv.find(",cell=586 flags=0x1909778a "), std::string::npos) << csv.substr(0, 120);
    }
    EXPECT_EQ(records, 6);
}

TEST_F(FormatTest, WideIntegersNegativeValuesAndOddBytes) {
    LogRecord r;
    r.logId = 0x01030001;
    r.seqNo = 7;
    r.payload = widePayload();
    std::string file = pcapHeader();
    append(file, r);
    const Output out = readAll(file, "wide");
    ASSERT_EQ(out.json.size(), 1u);
    const std::string odd = "a\"b\\,c\x01\x7f\xff\xc3\xa9\t\n";
    const std::string message = "w u=18446744073709551615 s=-9223372036854775808 str=" + odd;
    const std::string line =
        "[2023-11-14T22:13:20.000Z] [ WIDE:wide] [                     Wide] "
        "[    INFO] [         W] [7] [" +
        message + "] ";
    EXPECT_EQ(out.lines[0], line + "\n");
    // The string as JSON: quote and backslash escaped, control characters
    // and DEL as \u00XX (tab and line feed short), the stray byte ff as
    // \u00ff, the "é" (c3 a9) as it is.
    const std::string oddJson = "a\\\"b\\\\,c\\u0001\\u007f\\u00ff\xc3\xa9\\t\\n";
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"wide\",\"record\":1,\"kind\":\"binlog\","
              "\"time\":\"2023-11-14T22:13:20.000Z\",\"epoch_us\":1700000000000000,"
              "\"subsystem\":\"WIDE\",\"module\":\"wide\",\"log\":\"Wide\",\"level\":\"INFO\","
              "\"level_no\":5,\"category\":\"W\",\"seq\":7,\"header\":[],\"params\":["
              "{\"name\":\"u\",\"type\":\"TavUint64_t\",\"value\":\"18446744073709551615\","
              "\"text\":\"18446744073709551615\"},"
              "{\"name\":\"u2\",\"type\":\"TavUint64_t\",\"value\":9007199254740991,"
              "\"text\":\"9007199254740991\"},"
              "{\"name\":\"u3\",\"type\":\"TavUint64_t\",\"value\":\"9007199254740992\","
              "\"text\":\"9007199254740992\"},"
              "{\"name\":\"s\",\"type\":\"TavInt64_t\",\"value\":\"-9223372036854775808\","
              "\"text\":\"-9223372036854775808\"},"
              "{\"name\":\"s2\",\"type\":\"TavInt64_t\",\"value\":-9007199254740991,"
              "\"text\":\"-9007199254740991\"},"
              "{\"name\":\"s3\",\"type\":\"TavInt64_t\",\"value\":\"-9007199254740992\","
              "\"text\":\"-9007199254740992\"},"
              "{\"name\":\"s4\",\"type\":\"TavInt64_t\",\"value\":\"9223372036854775807\","
              "\"text\":\"9223372036854775807\"},"
              "{\"name\":\"i32\",\"type\":\"TavInt32_t\",\"value\":-2147483648,"
              "\"text\":\"-2147483648\"},"
              "{\"name\":\"i8\",\"type\":\"TavInt8_t\",\"value\":-128,\"text\":\"-128\"},"
              "{\"name\":\"str\",\"type\":\"string\",\"value\":\"" +
                  oddJson + "\",\"text\":\"" + oddJson +
                  "\"},"
                  "{\"name\":\"bin\",\"type\":\"binarystring\",\"value\":\"00ff7f\","
                  "\"text\":\"00:ff:7f\"}],"
                  "\"text\":\"[2023-11-14T22:13:20.000Z] [ WIDE:wide] [                     "
                  "Wide] [    INFO] [         W] [7] [w u=18446744073709551615 "
                  "s=-9223372036854775808 str=" +
                  oddJson + "] \"}");
    // The message holds a quote, a comma and a line feed: quoted, the quote
    // doubled; so is the params field.
    const std::string oddCsv = "a\"\"b\\,c\x01\x7f\xff\xc3\xa9\t\n";
    EXPECT_EQ(out.csv[0],
              "wide,1,binlog,2023-11-14T22:13:20.000Z,WIDE,wide,Wide,INFO,W,7,"
              "\"w u=18446744073709551615 s=-9223372036854775808 str=" +
                  oddCsv +
                  "\",\"u=18446744073709551615 u2=9007199254740991 u3=9007199254740992 "
                  "s=-9223372036854775808 s2=-9007199254740991 s3=-9007199254740992 "
                  "s4=9223372036854775807 i32=-2147483648 i8=-128 str=" +
                  oddCsv + " bin=00:ff:7f\"\r\n");

    // Python reads the values back as the numbers and strings they are.
    PythonCheck json;
    json.expect(0, "params/9/value", odd);
    json.expect(0, "params/9/text", odd);
    json.expect(0, "text", line);
    json.run("json", out.json[0] + "\n", 1);
    PythonCheck csv;
    csv.expect(1, "10", message);
    csv.expect(1, "0", "wide");
    csv.run("csv", std::string(Tav::csvHeader()) + out.csv[0], 2);
    validate(out);
}

TEST_F(FormatTest, ALegacyRecord) {
    LogRecord r;
    r.tsUsec = 20999;  // 20 ms, truncated
    r.packetType = 1;
    r.logId = 0x01020002;
    r.level = 4;
    r.version = 3;
    r.seqNo = 1;
    putU32(r.payload, 10243);  // frame 1024 (wraps to 0), subframe 3
    putU32(r.payload, 1);
    putU32(r.payload, 0xFFFFFFFFu);
    r.payload.append(12, '\0');
    r.payload.push_back(12);  // cid
    r.payload.append(3, '\0');
    r.payload += std::string("a,b\"c\0\0\0\0\0\0\0\0\0", 14);
    r.payload += std::string("zz\0\0\0\0\0\0\0\0\0\0\0\0", 14);
    std::string file = pcapHeader();
    append(file, r);
    Tav::StreamOptions options;
    options.utcOffsetMinutes = 120;
    const Output out = readAll(file, "leg", options);
    ASSERT_EQ(out.json.size(), 1u);
    const std::string line =
        "[2023-11-15T00:13:20.020Z] [CORE:sched] [                   Legacy] [  NOTICE] "
        "[       CAT] [1] [0000-03] [         a,b\"c]  [CID=12] Legacy text p1=1 p2=4294967295 ";
    EXPECT_EQ(out.lines[0], line + "\n");
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"leg\",\"record\":1,\"kind\":\"legacy\","
              "\"time\":\"2023-11-15T00:13:20.020+02:00\",\"epoch_us\":1700000000020999,"
              "\"subsystem\":\"CORE\",\"module\":\"sched\",\"log\":\"Legacy\",\"level\":\"NOTICE\","
              "\"level_no\":4,\"category\":\"CAT\",\"seq\":1,\"frame\":\"0000-03\",\"params\":["
              "{\"name\":\"p1\",\"type\":\"TavUint32_t\",\"value\":1,\"text\":\"1\"},"
              "{\"name\":\"p2\",\"type\":\"TavUint32_t\",\"value\":4294967295,"
              "\"text\":\"4294967295\"},"
              "{\"name\":\"cid\",\"type\":\"TavUint8_t\",\"value\":12,\"text\":\"12\"},"
              "{\"name\":\"tag\",\"type\":\"string\",\"value\":\"a,b\\\"c\","
              "\"text\":\"a,b\\\"c\"}],"
              "\"text\":\"[2023-11-15T00:13:20.020Z] [CORE:sched] [                   Legacy] "
              "[  NOTICE] [       CAT] [1] [0000-03] [         a,b\\\"c]  [CID=12] Legacy text "
              "p1=1 p2=4294967295 \"}");
    EXPECT_EQ(out.csv[0],
              "leg,1,legacy,2023-11-15T00:13:20.020+02:00,CORE,sched,Legacy,NOTICE,CAT,1,"
              "Legacy text p1=1 p2=4294967295 ,\"p1=1 p2=4294967295 cid=12 tag=a,b\"\"c\"\r\n");
    validate(out);
}

TEST_F(FormatTest, ASyslogRecordWithBytesThatAreNotUtf8) {
    LogRecord r;
    r.tsUsec = 999999;
    r.packetType = 2;
    r.level = 3;
    r.seqNo = 7;
    const std::string tag = "tg\xfe\x80\"x";
    // A line feed, an overlong NUL (c0 80), a surrogate (ed a0 80), a code
    // point above U+10FFFF (f4 90 80 80), a four-byte and a three-byte
    // character, ESC, DEL, a backslash, and a sequence cut short (e2 82).
    const std::string message =
        "line1\nl2 \xc0\x80 \xed\xa0\x80 \xf4\x90\x80\x80 \xf0\x9f\x98\x80 \xe2\x82\xac "
        "\x1b\x7f\\ \xe2\x82";
    r.payload = tag + std::string(16 - tag.size(), '\0') + message;
    std::string file = pcapHeader();
    append(file, r);
    const Output out = readAll(file, "sys");
    ASSERT_EQ(out.json.size(), 1u);
    // The line shows the line feed as "\n".
    const std::string shown =
        "line1\\nl2 \xc0\x80 \xed\xa0\x80 \xf4\x90\x80\x80 \xf0\x9f\x98\x80 \xe2\x82\xac "
        "\x1b\x7f\\ \xe2\x82";
    const std::string line = "[2023-11-14T22:13:20.999Z] [syslog] [          " + tag +
                             "] [    WARN] [7] [" + shown + "]";
    EXPECT_EQ(out.lines[0], line + "\n");
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"sys\",\"record\":1,\"kind\":\"syslog\","
              "\"time\":\"2023-11-14T22:13:20.999Z\",\"epoch_us\":1700000000999999,"
              "\"level\":\"WARN\",\"level_no\":3,\"tag\":\"tg\\u00fe\\u0080\\\"x\","
              "\"message\":\"line1\\nl2 \\u00c0\\u0080 \\u00ed\\u00a0\\u0080 "
              "\\u00f4\\u0090\\u0080\\u0080 \xf0\x9f\x98\x80 \xe2\x82\xac "
              "\\u001b\\u007f\\\\ \\u00e2\\u0082\","
              "\"seq\":7,"
              "\"text\":\"[2023-11-14T22:13:20.999Z] [syslog] [          tg\\u00fe\\u0080\\\"x] "
              "[    WARN] [7] [line1\\\\nl2 \\u00c0\\u0080 \\u00ed\\u00a0\\u0080 "
              "\\u00f4\\u0090\\u0080\\u0080 \xf0\x9f\x98\x80 \xe2\x82\xac "
              "\\u001b\\u007f\\\\ \\u00e2\\u0082]\"}");
    // CSV: the tag in the log column, the message as the line shows it.
    EXPECT_EQ(out.csv[0], "sys,1,syslog,2023-11-14T22:13:20.999Z,,,\"tg\xfe\x80\"\"x\",WARN,,7," +
                              shown + ",\r\n");
    PythonCheck json;
    json.expect(0, "tag", tag);
    json.expect(0, "message", message);
    json.expect(0, "text", line);
    json.run("json", out.json[0] + "\n", 1);
    PythonCheck csv;
    csv.expect(1, "6", tag);
    csv.expect(1, "10", shown);
    csv.run("csv", std::string(Tav::csvHeader()) + out.csv[0], 2);
    validate(out);
}

TEST_F(FormatTest, ACaptureRecordAndAnOutOfRangeMicrosecondCount) {
    LogRecord r;
    r.tsUsec = 1500000;  // shows as 1500 milliseconds, as the line does
    r.packetType = 3;
    r.seqNo = 12;
    r.payload = "abcd";
    std::string file = pcapHeader();
    append(file, r);
    Tav::StreamOptions options;
    options.utcOffsetMinutes = -330;
    const Output out = readAll(file, "cap", options);
    ASSERT_EQ(out.json.size(), 1u);
    // 22:13:20 less five and a half hours.
    const std::string line =
        "[2023-11-14T16:43:20.1500Z] [wireshark] [length=20] [seqNo=        12]";
    EXPECT_EQ(out.lines[0], line + "\n");
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"cap\",\"record\":1,\"kind\":\"capture\","
              "\"time\":\"2023-11-14T16:43:20.1500-05:30\",\"epoch_us\":1700000001500000,"
              "\"seq\":12,\"length\":20,\"text\":\"" +
                  line + "\"}");
    EXPECT_EQ(out.csv[0], "cap,1,capture,2023-11-14T16:43:20.1500-05:30,,,,,,12,,\r\n");
    validate(out);
}

TEST_F(FormatTest, WithoutTextsRecordsCarryValuesOnly) {
    std::string file = pcapHeader();
    append(file, grant(41));
    Tav::StreamOptions options;
    options.texts = false;
    const Output bare = readAll(file, "mem", options);
    ASSERT_EQ(bare.json.size(), 1u);
    EXPECT_EQ(bare.json[0],
              "{\"capture\":\"mem\",\"record\":1,\"kind\":\"binlog\","
              "\"time\":\"2023-11-14T22:13:20.250Z\",\"epoch_us\":1700000000250000,"
              "\"subsystem\":\"CORE\",\"module\":\"sched\",\"log\":\"Grant\",\"level\":\"INFO\","
              "\"level_no\":5,\"category\":\"SCHED\",\"seq\":41,"
              "\"header\":[{\"name\":\"cell\",\"type\":\"TavUint16_t\",\"value\":7},"
              "{\"name\":\"carrier\",\"type\":\"TavUint8_t\",\"value\":1}],"
              "\"params\":[{\"name\":\"mcs\",\"type\":\"TavUint8_t\",\"value\":9},"
              "{\"name\":\"ue\",\"type\":\"TavUint32_t\",\"value\":17},"
              "{\"name\":\"bytes\",\"type\":\"TavUint32_t\",\"value\":1024},"
              "{\"name\":\"rssi\",\"index\":0,\"type\":\"TavInt16_t\",\"value\":-1,"
              "\"enum\":\"Colour\"},"
              "{\"name\":\"rssi\",\"index\":1,\"type\":\"TavInt16_t\",\"value\":5},"
              "{\"name\":\"rssi\",\"index\":2,\"type\":\"TavInt16_t\",\"value\":2,"
              "\"enum\":\"Colour\"},"
              "{\"name\":\"state\",\"type\":\"string\",\"value\":\"ok\"},"
              "{\"name\":\"raw\",\"type\":\"varbinarystring\",\"value\":\"aabbcc\"}]}");
    // No message; the values as numbers, signed, and bytes in hex.
    EXPECT_EQ(bare.csv[0],
              "mem,1,binlog,2023-11-14T22:13:20.250Z,CORE,sched,Grant,INFO,SCHED,41,,"
              "cell=7 carrier=1 mcs=9 ue=17 bytes=1024 rssi[0]=-1 rssi[1]=5 rssi[2]=2 state=ok "
              "raw=aabbcc\r\n");
    validate(bare);
}

TEST_F(FormatTest, WithoutValuesRecordsCarryTheirLine) {
    std::string file = pcapHeader();
    append(file, grant(41));
    Tav::StreamOptions options;
    options.values = false;
    options.utcOffsetMinutes = 60;
    const Output out = readAll(file, "mem", options);
    ASSERT_EQ(out.json.size(), 1u);
    EXPECT_EQ(out.json[0],
              "{\"capture\":\"mem\",\"record\":1,\"kind\":\"binlog\","
              "\"time\":\"2023-11-14T23:13:20.250+01:00\",\"epoch_us\":1700000000250000,"
              "\"subsystem\":\"CORE\",\"module\":\"sched\",\"log\":\"Grant\",\"level\":\"INFO\","
              "\"level_no\":5,\"category\":\"SCHED\",\"seq\":41,\"header\":[],\"params\":[],"
              "\"text\":\"" +
                  std::string(kGrantLine) + "\"}");
    EXPECT_EQ(out.csv[0],
              "mem,1,binlog,2023-11-14T23:13:20.250+01:00,CORE,sched,Grant,INFO,SCHED,41,"
              "ue ue=17 got bytes=1024 in state=ok,\r\n");
    validate(out);
}

TEST_F(FormatTest, CaptureNamesThatAreNotUtf8) {
    std::string file = pcapHeader();
    append(file, grant(41));
    const std::string name = "dir,\"x\"/caf\xe9\x01\r\n\xc3\xa9.pcap";
    const Output out = readAll(file, name);
    ASSERT_EQ(out.json.size(), 1u);
    const std::string jsonStart =
        "{\"capture\":\"dir,\\\"x\\\"/caf\\u00e9\\u0001\\r\\n\xc3\xa9.pcap\",\"record\":1,";
    EXPECT_EQ(out.json[0].compare(0, jsonStart.size(), jsonStart), 0) << out.json[0];
    const std::string csvStart = "\"dir,\"\"x\"\"/caf\xe9\x01\r\n\xc3\xa9.pcap\",1,binlog,";
    EXPECT_EQ(out.csv[0].compare(0, csvStart.size(), csvStart), 0) << out.csv[0];
    // Quoted exactly when a field holds a comma, a quote, a line feed or a
    // carriage return.
    const std::pair<std::string, std::string> quoting[] = {
        {"a,b", "\"a,b\""}, {"a\nb", "\"a\nb\""},   {"a\rb", "\"a\rb\""},
        {"\"", "\"\"\"\""}, {"a b;c\t", "a b;c\t"}, {"", ""},
    };
    for (const auto& q : quoting) {
        const Output quoted = readAll(file, q.first);
        ASSERT_EQ(quoted.csv.size(), 1u);
        EXPECT_EQ(quoted.csv[0].compare(0, q.second.size() + 10, q.second + ",1,binlog,"), 0)
            << quoted.csv[0];
    }
    PythonCheck json;
    json.expect(0, "capture", name);
    json.run("json", out.json[0] + "\n", 1);
    PythonCheck csv;
    csv.expect(1, "0", name);
    csv.run("csv", std::string(Tav::csvHeader()) + out.csv[0], 2);
}

// ---- Times -----------------------------------------------------------------------------------

TEST(FormatTime, IsoTimesAgreeWithTheCalendarOfTheCLibrary) {
    // Days across leap years, centuries (2000 is a leap year, 2100 is not)
    // and the last second of the unsigned 32-bit range.
    std::vector<std::uint32_t> seconds = {0u,          59u,         86399u,      86400u,
                                          951782400u,  951868800u,  1709164800u, 1709251199u,
                                          4102444800u, 4107542400u, 4294967295u};
    for (std::uint64_t s = 0; s <= 0xFFFFFFFFu; s += 86400u * 7 + 3607u) {
        seconds.push_back(static_cast<std::uint32_t>(s));
    }
    for (const std::uint32_t s : seconds) {
        Tav::Record record;
        record.seconds = s;
        record.microseconds = 123999;
        std::string iso;
        Tav::appendIsoTime(iso, record);
        const std::time_t when = static_cast<std::time_t>(s);
        struct tm parts;
        ASSERT_NE(gmtime_r(&when, &parts), nullptr);
        char expected[40];
        std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%S.123Z", &parts);
        ASSERT_EQ(iso, expected) << s;
    }
}

TEST(FormatTime, OffsetsAndMilliseconds) {
    struct Case {
        std::int32_t offset;
        std::uint32_t microseconds;
        const char* expected;
    };
    const Case cases[] = {
        {0, 0, "2023-11-14T22:13:20.000Z"},
        {120, 20999, "2023-11-14T22:13:20.020+02:00"},
        {-330, 999999, "2023-11-14T22:13:20.999-05:30"},
        {-1, 1000, "2023-11-14T22:13:20.001-00:01"},
        {59, 0, "2023-11-14T22:13:20.000+00:59"},
        {6000, 0, "2023-11-14T22:13:20.000+100:00"},
        {-6000, 0, "2023-11-14T22:13:20.000-100:00"},
        {std::numeric_limits<std::int32_t>::min(), 0, "2023-11-14T22:13:20.000-35791394:08"},
        // Microseconds of a million or more show as the line shows them
        // (read as a signed 32-bit count).
        {0, 1000000, "2023-11-14T22:13:20.1000Z"},
        {0, 0x80000000u, "2023-11-14T22:13:20.-2147483Z"},
        {0, 0xFFFFFFFFu, "2023-11-14T22:13:20.000Z"},
        {0, 0xFFFFF000u, "2023-11-14T22:13:20.-04Z"},
    };
    for (const Case& c : cases) {
        Tav::Record record;
        record.seconds = 1700000000u;
        record.microseconds = c.microseconds;
        record.utcOffsetMinutes = c.offset;
        std::string iso = "x";
        Tav::appendIsoTime(iso, record);
        EXPECT_EQ(iso, std::string("x") + c.expected) << c.offset << " " << c.microseconds;
    }
}

// ---- Events ----------------------------------------------------------------------------------

TEST_F(FormatTest, EventsOfRecords) {
    std::string file = pcapHeader();
    // 1 (offset 24, 32 bytes): an unknown log id, module 0x102 seq 1.
    LogRecord unknown;
    unknown.logId = 0x01020009;
    unknown.version = 3;
    unknown.seqNo = 1;
    append(file, unknown);
    // 2 (offset 56, 62 bytes): seq 41, a gap; a var binary count 9 above
    // its size 4.
    LogRecord counted = grant(41);
    counted.payload = grantPayload(9);
    append(file, counted);
    // 3 (offset 118): a version the module does not have.
    LogRecord version = grant(42);
    version.version = 9;
    append(file, version);
    // 4 (offset 180): a level above the level table.
    LogRecord level = grant(43);
    level.level = 200;
    append(file, level);
    // 5 (offset 242): packet type 7.
    LogRecord packet = grant(44);
    packet.packetType = 7;
    append(file, packet);
    // 6 (offset 304, 36 bytes): a syslog record shorter than its headers.
    LogRecord shortSyslog;
    shortSyslog.packetType = 2;
    shortSyslog.logId = 0x01020000;
    shortSyslog.seqNo = 45;
    shortSyslog.payload = "abcd";
    append(file, shortSyslog);
    // 7 (offset 340): seq 40 after 44 (syslog records have sequence numbers
    // of their own).
    append(file, grant(40));
    // 8 (offset 402): a display format that names no enumeration.
    LogRecord disp;
    disp.logId = 0x01030002;
    disp.seqNo = 1;
    disp.payload = "\x05";
    append(file, disp);

    Tav::StreamOptions options;
    options.stats = true;
    std::vector<std::string> events;
    Output all;
    read(file, "ev", options, [&](const Tav::Record* record, const Tav::Event* event) {
        std::string json;
        if (record != nullptr) {
            Tav::appendJson(json, *record);
            std::string csv;
            Tav::appendCsv(csv, *record);
            all.csv.push_back(csv);
        } else {
            Tav::appendJson(json, *event);
            if (event->kind != Tav::EventKind::Summary) {
                events.push_back(json);
            }
        }
        all.json.push_back(json);
    });
    const std::vector<std::string> expected = {
        "{\"event\":\"unknown-log-id\",\"capture\":\"ev\",\"record\":1,\"offset\":24,"
        "\"log_id\":\"0x1020009\",\"packet_type\":0,\"epoch_us\":1700000000000000,"
        "\"level_no\":5,\"seq\":1,\"payload\":\"\",\"message\":\"Log id :1020009 not valid\"}",
        "{\"event\":\"gap\",\"capture\":\"ev\",\"record\":2,\"offset\":56,\"module\":\"0x102\","
        "\"last_seq\":1,\"seq\":41,\"missing\":39,\"missing_before\":0,"
        "\"message\":\">>possibly missing packets: module=0x102,lastSeqNo=1,curSeqNo=41: "
        "diff=39,missingRecords_=0\"}",
        "{\"event\":\"var-binary-too-long\",\"capture\":\"ev\",\"record\":2,\"offset\":56,"
        "\"size\":4,\"count\":9,"
        "\"message\":\"Variable length:9 in payload is greater thanthe definition 4\"}",
        "{\"event\":\"version-mismatch\",\"capture\":\"ev\",\"record\":3,\"offset\":118,"
        "\"log_id\":\"0x1020001\",\"log\":\"Grant\",\"version\":9,\"expected_version\":3,"
        "\"message\":\"Mismatch in version for log [Grant] logVersion [9] xmlVersion [3] \"}",
        "{\"event\":\"level-out-of-range\",\"capture\":\"ev\",\"record\":4,\"offset\":180,"
        "\"log_id\":\"0x1020001\",\"log\":\"Grant\",\"level_no\":200,"
        "\"message\":\"Invalig log level [200] for log [Grant] \"}",
        "{\"event\":\"invalid-packet-type\",\"capture\":\"ev\",\"record\":5,\"offset\":242,"
        "\"log_id\":\"0x1020001\",\"packet_type\":7,\"epoch_us\":1700000000250000,"
        "\"level_no\":5,\"seq\":44,"
        "\"payload\":\"070001001100000000040000ffff05000200096f6b000000000300aabbcc\","
        "\"message\":\"Invalid packetType passed :7\"}",
        "{\"event\":\"syslog-too-short\",\"capture\":\"ev\",\"record\":6,\"offset\":304,"
        "\"length\":20,\"message\":\"Syslog record skipped: storageLength 20 is shorter than "
        "its 32 header bytes\"}",
        "{\"event\":\"reorder\",\"capture\":\"ev\",\"record\":7,\"offset\":340,"
        "\"module\":\"0x102\",\"last_seq\":44,\"seq\":40,"
        "\"message\":\">>out of order packets: module=0x102, lastSeqNo=44,curSeqNo=40\"}",
        "{\"event\":\"display-not-found\",\"capture\":\"ev\",\"record\":8,\"offset\":402,"
        "\"display\":\"Missing\",\"message\":\"Displayformat Missing not found\"}",
    };
    EXPECT_EQ(events, expected);
    // The records of 2, 7 and 8, the events, and the summary.
    EXPECT_EQ(all.csv.size(), 3u);
    EXPECT_EQ(all.json.size(), expected.size() + 4);
    validate(all);
}

TEST_F(FormatTest, TheSummary) {
    // Two records of 46 bytes (binary log header and payload) half a second
    // apart: 2 / 500 ms received and generated.
    std::string file = pcapHeader();
    append(file, grant(1));
    LogRecord second = grant(2);
    second.tsUsec = 750000;
    append(file, second);
    Tav::StreamOptions options;
    options.stats = true;
    Output out = readAll(file, "st", options);
    ASSERT_EQ(out.json.size(), 3u);
    EXPECT_EQ(out.json[2],
              "{\"event\":\"summary\",\"capture\":\"st\",\"record\":2,\"offset\":148,"
              "\"total\":2,\"missing\":0,\"out_of_order\":0,\"bytes\":92,"
              "\"received_per_ms\":0.004,\"generated_per_ms\":0.004,"
              "\"message\":\">>totalRecords =  2\\n>>missingRecords =  0 (0.000000%)\\n"
              ">>outOfOrderRecords =  0\\n>>records received/msec = 0.00\\n"
              ">>records generated at source/msec = 0.00\\n>>records received/sec = 4.00\\n"
              ">>records generated at source/sec = 4.00\\n>>total log record size = 92\\n"
              ">>average log record size = 46\"}");
    // No records: no rates.
    const Output empty = readAll(pcapHeader(), "empty", options);
    ASSERT_EQ(empty.json.size(), 1u);
    EXPECT_EQ(empty.json[0],
              "{\"event\":\"summary\",\"capture\":\"empty\",\"record\":0,\"offset\":24,"
              "\"total\":0,\"missing\":0,\"out_of_order\":0,\"bytes\":0,"
              "\"message\":\">>totalRecords =  0\"}");
    out.json.push_back(empty.json[0]);
    validate(out);
}

TEST_F(FormatTest, EventsOfTheCapture) {
    Output all;
    // The events of a capture read strictly, with where the stream stood
    // (which is the stream's to say; the test checks that it is written).
    struct Seen {
        std::string json;
        std::uint64_t record;
        std::uint64_t offset;
    };
    auto eventsOf = [&](const std::string& bytes, const std::string& name) {
        std::vector<Seen> seen;
        Tav::StreamOptions options;
        options.strict = true;
        read(bytes, name, options, [&](const Tav::Record* record, const Tav::Event* event) {
            ASSERT_EQ(record, nullptr);
            std::string line;
            Tav::appendJson(line, *event);
            all.json.push_back(line);
            seen.push_back({line, event->record, event->offset});
        });
        return seen;
    };
    auto at = [](std::uint64_t record, std::uint64_t offset) {
        return ",\"record\":" + std::to_string(record) + ",\"offset\":" + std::to_string(offset);
    };

    const std::vector<Seen> empty = eventsOf("", "e");
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0].json, "{\"event\":\"no-global-header\",\"capture\":\"e\"" + at(0, 0) +
                                 ",\"message\":\"No global header found\"}");
    const std::vector<Seen> link = eventsOf(pcapHeader(7), "l");
    ASSERT_EQ(link.size(), 1u);
    EXPECT_EQ(link[0].json, "{\"event\":\"bad-link-type\",\"capture\":\"l\"" + at(0, 24) +
                                ",\"link_type\":7,\"message\":\"Invalid link type 7 found. Not "
                                "a valid log pcap file\"}");

    // The record has 46 bytes after its pcap header; 41 are there.
    std::string whole = pcapHeader();
    append(whole, grant(1));
    const std::vector<Seen> cut = eventsOf(whole.substr(0, whole.size() - 5), "t");
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].json, "{\"event\":\"truncated\",\"capture\":\"t\"" +
                               at(cut[0].record, cut[0].offset) +
                               ",\"expected\":46,\"present\":41,\"message\":\"Warning: "
                               "Possibly truncated file. Actual payloadBytes :41 Expected "
                               "payloadBytes :46\"}");

    std::string oversized = pcapHeader();
    putU32(oversized, 0);
    putU32(oversized, 0);
    putU32(oversized, 25001);
    putU32(oversized, 25001);
    const std::vector<Seen> big = eventsOf(oversized, "o");
    ASSERT_EQ(big.size(), 1u);
    EXPECT_EQ(big[0].json, "{\"event\":\"oversized\",\"capture\":\"o\"" +
                               at(big[0].record, big[0].offset) +
                               ",\"length\":25001,\"message\":\"pHdr storageLength 25001 is "
                               "more thanMAX_BINLOG_LENGTH\"}");

    // A file that cannot be opened, its name not UTF-8.
    TempDir dir;
    const std::string path = dir.path() + "/none\xff\x01.pcap";
    Tav::CaptureStream missing(*reader_, path, Tav::StreamOptions());
    ASSERT_TRUE(missing.next());
    ASSERT_NE(missing.event(), nullptr);
    std::string json;
    Tav::appendJson(json, *missing.event());
    const std::string shownPath = dir.path() + "/none\\u00ff\\u0001.pcap";
    EXPECT_EQ(json, "{\"event\":\"open-failed\",\"capture\":\"" + shownPath + "\"" + at(0, 0) +
                        ",\"error\":\"" + std::strerror(ENOENT) +
                        "\",\"message\":\"File open failed [" + shownPath + "]\"}");
    all.json.push_back(json);
    validate(all);
}

TEST(FormatEvents, EventsOfEveryKind) {
    // Every kind has its own name.
    const Tav::EventKind kinds[] = {
        Tav::EventKind::OpenFailed,
        Tav::EventKind::NoGlobalHeader,
        Tav::EventKind::BadLinkType,
        Tav::EventKind::NotACapture,
        Tav::EventKind::Oversized,
        Tav::EventKind::Truncated,
        Tav::EventKind::DataError,
        Tav::EventKind::ReadError,
        Tav::EventKind::UnknownLogId,
        Tav::EventKind::VersionMismatch,
        Tav::EventKind::LevelOutOfRange,
        Tav::EventKind::InvalidPacketType,
        Tav::EventKind::SyslogTooShort,
        Tav::EventKind::VarBinaryTooLong,
        Tav::EventKind::DisplayNotFound,
        Tav::EventKind::DisplayUnavailable,
        Tav::EventKind::TimestampFailed,
        Tav::EventKind::Gap,
        Tav::EventKind::Reorder,
        Tav::EventKind::Summary,
        Tav::EventKind::Note,
        Tav::EventKind::Resync,
    };
    const char* const names[] = {
        "open-failed",
        "no-global-header",
        "bad-link-type",
        "not-a-capture",
        "oversized",
        "truncated",
        "data-error",
        "read-error",
        "unknown-log-id",
        "version-mismatch",
        "level-out-of-range",
        "invalid-packet-type",
        "syslog-too-short",
        "var-binary-too-long",
        "display-not-found",
        "display-unavailable",
        "timestamp-failed",
        "gap",
        "reorder",
        "summary",
        "note",
        "resync",
    };
    static_assert(sizeof kinds / sizeof kinds[0] == sizeof names / sizeof names[0], "");
    for (std::size_t i = 0; i < sizeof kinds / sizeof kinds[0]; ++i) {
        EXPECT_STREQ(Tav::eventName(kinds[i]), names[i]);
    }

    // Events as the library makes them, filled by hand for the cases a
    // capture does not easily give.
    auto make = [](Tav::EventKind kind, const char* text) {
        Tav::Event event;
        event.kind = kind;
        event.capture = "c";
        event.record = 3;
        event.offset = 99;
        event.text = text;
        return event;
    };
    std::vector<std::string> lines;
    auto json = [&lines](const Tav::Event& event) {
        std::string out;
        Tav::appendJson(out, event);
        lines.push_back(out);
        return out;
    };
    const std::string head = "\"capture\":\"c\",\"record\":3,\"offset\":99,";

    Tav::Event dataError = make(Tav::EventKind::DataError, "Warning: capture data error: x\n");
    dataError.name = "invalid \"block\" \xff";
    dataError.count = 5000000000;
    EXPECT_EQ(json(dataError), "{\"event\":\"data-error\"," + head +
                                   "\"error\":\"invalid \\\"block\\\" \\u00ff\","
                                   "\"uncompressed_bytes\":5000000000,"
                                   "\"message\":\"Warning: capture data error: x\"}");
    Tav::Event readError = make(Tav::EventKind::ReadError, "r\n");
    readError.name = "Input/output error";
    EXPECT_EQ(json(readError), "{\"event\":\"read-error\"," + head +
                                   "\"error\":\"Input/output error\",\"message\":\"r\"}");
    // A damaged pcapng block: no record length.
    EXPECT_EQ(json(make(Tav::EventKind::Truncated, "Warning: damaged\n")),
              "{\"event\":\"truncated\"," + head + "\"message\":\"Warning: damaged\"}");
    Tav::Event afterReadError = make(Tav::EventKind::Truncated, "t\n");
    afterReadError.length = 100;
    afterReadError.count = -1;
    EXPECT_EQ(json(afterReadError), "{\"event\":\"truncated\"," + head +
                                        "\"expected\":100,\"present\":-1,\"message\":\"t\"}");
    EXPECT_EQ(json(make(Tav::EventKind::NotACapture, "Not a pcap\n")),
              "{\"event\":\"not-a-capture\"," + head + "\"message\":\"Not a pcap\"}");
    EXPECT_EQ(json(make(Tav::EventKind::DisplayUnavailable, "d\n")),
              "{\"event\":\"display-unavailable\"," + head + "\"message\":\"d\"}");
    EXPECT_EQ(
        json(make(Tav::EventKind::TimestampFailed, "timestamp decoding failed\n")),
        "{\"event\":\"timestamp-failed\"," + head + "\"message\":\"timestamp decoding failed\"}");
    // Only the last line feed goes; a text without one stays whole.
    EXPECT_EQ(json(make(Tav::EventKind::Note, "Note: a\n\n")),
              "{\"event\":\"note\"," + head + "\"message\":\"Note: a\\n\"}");
    EXPECT_EQ(json(make(Tav::EventKind::Note, "")),
              "{\"event\":\"note\"," + head + "\"message\":\"\"}");
    Tav::Event gap = make(Tav::EventKind::Gap, "g\n");
    gap.module = 0xFFFF;
    gap.lastSeqNo = std::numeric_limits<std::int32_t>::max();
    gap.seqNo = std::numeric_limits<std::int32_t>::min();
    gap.missing = -5;
    gap.missingBefore = 7;
    EXPECT_EQ(json(gap), "{\"event\":\"gap\"," + head +
                             "\"module\":\"0xffff\",\"last_seq\":2147483647,"
                             "\"seq\":-2147483648,\"missing\":-5,\"missing_before\":7,"
                             "\"message\":\"g\"}");
    Tav::Event unknown = make(Tav::EventKind::UnknownLogId, "u\n");
    unknown.logId = 0xFFFFFFFFu;
    unknown.packetType = 0xFFFFFFFFu;
    unknown.pcapHeader.tsSec = 0xFFFFFFFFu;
    unknown.pcapHeader.tsUsec = 999999;
    unknown.binLogHeader.logLevel = 0xFFFF;
    unknown.binLogHeader.seqNo = 0xFFFFFFFFu;
    unknown.payload = std::string_view("\x00\xff\x10", 3);
    EXPECT_EQ(json(unknown), "{\"event\":\"unknown-log-id\"," + head +
                                 "\"log_id\":\"0xffffffff\",\"packet_type\":4294967295,"
                                 "\"epoch_us\":4294967295999999,\"level_no\":65535,"
                                 "\"seq\":4294967295,\"payload\":\"00ff10\","
                                 "\"message\":\"u\"}");
    Tav::Event resync = make(Tav::EventKind::Resync, "r\n");
    resync.count = 4096;
    resync.compressedSkipped = 77;
    resync.length = 1;
    EXPECT_EQ(json(resync), "{\"event\":\"resync\"," + head +
                                "\"skipped\":4096,\"compressed_skipped\":77,\"found\":true,"
                                "\"message\":\"r\"}");
    resync.length = 0;
    resync.compressedSkipped = 0;
    EXPECT_EQ(json(resync), "{\"event\":\"resync\"," + head +
                                "\"skipped\":4096,\"compressed_skipped\":0,\"found\":false,"
                                "\"message\":\"r\"}");
    Tav::Event zero = make(Tav::EventKind::UnknownLogId, "u\n");
    EXPECT_EQ(json(zero), "{\"event\":\"unknown-log-id\"," + head +
                              "\"log_id\":\"0x0\",\"packet_type\":0,\"epoch_us\":0,"
                              "\"level_no\":0,\"seq\":0,\"payload\":\"\",\"message\":\"u\"}");
    // Rates as the shortest decimal that reads back the same double; a
    // value JSON cannot hold as null.
    Tav::Event summary = make(Tav::EventKind::Summary, ">>totalRecords =  3\n>>x\n");
    summary.summary.totalRecords = 4294967295u;
    summary.summary.missingRecords = 1;
    summary.summary.outOfOrderRecords = 2;
    summary.summary.totalRecordBytes = 18446744073709551615ull;
    summary.summary.ratesShown = true;
    summary.summary.receivedPerMs = 0.1;
    summary.summary.generatedPerMs = 1e300 * 1e300;
    EXPECT_EQ(json(summary), "{\"event\":\"summary\"," + head +
                                 "\"total\":4294967295,\"missing\":1,\"out_of_order\":2,"
                                 "\"bytes\":18446744073709551615,\"received_per_ms\":0.1,"
                                 "\"generated_per_ms\":null,"
                                 "\"message\":\">>totalRecords =  3\\n>>x\"}");
    summary.summary.receivedPerMs = 1234.5;
    summary.summary.generatedPerMs = 2.0 / 3.0;
    EXPECT_EQ(json(summary), "{\"event\":\"summary\"," + head +
                                 "\"total\":4294967295,\"missing\":1,\"out_of_order\":2,"
                                 "\"bytes\":18446744073709551615,\"received_per_ms\":1234.5,"
                                 "\"generated_per_ms\":0.6666666666666666,"
                                 "\"message\":\">>totalRecords =  3\\n>>x\"}");

    std::string all;
    for (const std::string& line : lines) {
        all += line + "\n";
    }
    PythonCheck check;
    check.expect(0, "error", "invalid \"block\" \xff");
    check.run("json", all, lines.size());
}

// ---- Any bytes -------------------------------------------------------------------------------

/// A small deterministic generator (splitmix64).
struct Random {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(next() % n); }
};

/// Bytes that are mostly the interesting ones: UTF-8 lead and continuation
/// bytes at the edges of their ranges, control characters, quotes.
std::string randomBytes(Random& random, std::size_t size) {
    static const unsigned char kEdges[] = {
        0x00, 0x01, 0x09, 0x0A, 0x0D, 0x1F, 0x20, '"',  '\\', ',',  0x7E, 0x7F, 0x80,
        0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xED, 0xEF, 0xF0,
        0xF4, 0xF5, 0xFF, 'a',  0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80};
    std::string out;
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(static_cast<char>(
            random.below(3) == 0 ? random.next() : kEdges[random.below(sizeof kEdges)]));
    }
    return out;
}

TEST_F(FormatTest, AnyBytesGiveValidJsonAndCsv) {
    Random random{20261124};
    std::string file = pcapHeader();
    struct Expected {
        std::string tag;
        std::string message;
    };
    std::vector<Expected> syslogs;
    for (int i = 0; i < 400; ++i) {
        LogRecord r;
        r.tsUsec = random.below(1000000);
        r.seqNo = static_cast<std::uint32_t>(random.next());
        r.level = static_cast<std::uint16_t>(random.below(12));
        const std::uint32_t kind = random.below(4);
        if (kind == 0) {
            r.packetType = 2;
            r.payload = randomBytes(random, 16 + random.below(80));
        } else if (kind == 1) {
            r.logId = 0x01030001;
            r.payload = widePayload();
            for (std::size_t b = 0; b < r.payload.size(); ++b) {
                if (random.below(3) == 0) {
                    r.payload[b] = randomBytes(random, 1)[0];
                }
            }
        } else if (kind == 2) {
            r.packetType = 1;
            r.logId = 0x01020002;
            r.version = 3;
            r.level = static_cast<std::uint16_t>(random.below(9));
            r.payload = randomBytes(random, 56);
        } else {
            r = grant(static_cast<std::uint32_t>(random.next()));
            r.payload.resize(random.below(static_cast<std::uint32_t>(r.payload.size() + 1)));
        }
        append(file, r);
    }
    // Messages longer than the blocks a string is escaped in, with
    // sequences across the block ends.
    for (int i = 0; i < 4; ++i) {
        LogRecord r;
        r.packetType = 2;
        r.payload = std::string(16, 'T') + randomBytes(random, 20000);
        append(file, r);
    }
    PythonCheck json;
    PythonCheck csv;
    Output out;
    read(file, randomBytes(random, 40), Tav::StreamOptions(),
         [&](const Tav::Record* record, const Tav::Event* event) {
             std::string line;
             if (record != nullptr) {
                 Tav::appendJson(line, *record);
                 std::string row;
                 Tav::appendCsv(row, *record);
                 const std::size_t index = out.json.size();
                 json.expect(index, "capture", record->capture);
                 json.expect(index, "text", record->text.substr(0, record->text.size() - 1));
                 csv.expect(out.csv.size() + 1, "0", record->capture);
                 csv.expect(out.csv.size() + 1, "10", record->message);
                 if (record->kind == Tav::RecordKind::Syslog) {
                     json.expect(index, "tag", record->syslogTag);
                     json.expect(index, "message", record->syslogMessage);
                     csv.expect(out.csv.size() + 1, "6", record->syslogTag);
                 }
                 if (record->kind == Tav::RecordKind::BinLog) {
                     const Tav::View<Tav::ParamField> params = record->params();
                     for (std::size_t p = 0; p < params.size(); ++p) {
                         const std::string at = "params/" + std::to_string(p) + "/";
                         json.expect(index, at + "text", params[p].text);
                         if (params[p].type == Tav::ParamType::String) {
                             json.expect(index, at + "value", params[p].bytes);
                         }
                     }
                 }
                 out.csv.push_back(row);
             } else {
                 Tav::appendJson(line, *event);
             }
             out.json.push_back(line);
         });
    ASSERT_GT(out.csv.size(), 300u);
    std::string lines;
    for (const std::string& line : out.json) {
        lines += line + "\n";
    }
    json.run("json", lines, out.json.size());
    std::string rows = Tav::csvHeader();
    for (const std::string& row : out.csv) {
        rows += row;
    }
    csv.run("csv", rows, out.csv.size() + 1);
}

TEST_F(FormatTest, EveryShortByteSequence) {
    // Every lead byte from 0x80 on, followed by every three of a set of
    // bytes at the edges of the continuation ranges, each sequence ended
    // by a blank: as syslog messages, 64 sequences a record.
    static const unsigned char kFollow[] = {0x41, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0};
    std::vector<std::string> messages;
    std::string message;
    for (unsigned lead = 0x80; lead <= 0xFF; ++lead) {
        for (const unsigned char a : kFollow) {
            for (const unsigned char b : kFollow) {
                for (const unsigned char c : kFollow) {
                    message.push_back(static_cast<char>(lead));
                    message.push_back(static_cast<char>(a));
                    message.push_back(static_cast<char>(b));
                    message.push_back(static_cast<char>(c));
                    message.push_back(' ');
                }
                if (message.size() >= 64 * 5) {
                    messages.push_back(message);
                    message.clear();
                }
            }
        }
    }
    std::string file = pcapHeader();
    for (const std::string& m : messages) {
        LogRecord r;
        r.packetType = 2;
        r.payload = std::string(16, 'T') + m;
        append(file, r);
    }
    PythonCheck check;
    std::string lines;
    std::size_t count = 0;
    read(file, "utf8", Tav::StreamOptions(), [&](const Tav::Record* record, const Tav::Event*) {
        ASSERT_NE(record, nullptr);
        std::string line;
        Tav::appendJson(line, *record);
        check.expect(count, "message", record->syslogMessage);
        lines += line + "\n";
        ++count;
    });
    EXPECT_EQ(count, messages.size());
    check.run("json", lines, count);
}

}  // namespace

namespace {

/// The escaping rules one byte at a time: printable ASCII but the quote and
/// the backslash as they are; \" \\ \n \r \t; other control characters and
/// DEL as \u00xx; a well-formed UTF-8 sequence as it is, any other byte from
/// 0x80 up as \u00xx.
std::string referenceJsonString(const std::string& text) {
    static const char hex[] = "0123456789abcdef";
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        auto cont = [&](std::size_t k) {
            return i + k < text.size() && (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
        };
        auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
        std::size_t sequence = 0;
        if (c >= 0xC2 && c <= 0xDF && cont(1)) {
            sequence = 2;
        } else if (c >= 0xE0 && c <= 0xEF && cont(1) && cont(2) &&
                   byte(1) >= (c == 0xE0 ? 0xA0 : 0x80) && byte(1) <= (c == 0xED ? 0x9F : 0xBF)) {
            sequence = 3;
        } else if (c >= 0xF0 && c <= 0xF4 && cont(1) && cont(2) && cont(3) &&
                   byte(1) >= (c == 0xF0 ? 0x90 : 0x80) && byte(1) <= (c == 0xF4 ? 0x8F : 0xBF)) {
            sequence = 4;
        }
        if (sequence != 0) {
            out.append(text, i, sequence);
            i += sequence;
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c >= 0x7F) {
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 0xF];
        } else {
            out += static_cast<char>(c);
        }
        ++i;
    }
    return out + "\"";
}

}  // namespace

// Strings are checked in whole words where they can be (sixteen or eight
// bytes, the last word overlapping): a byte to escape at any place of a
// string of any length up to past two words must be found.
TEST(JsonStringTest, EveryLengthWithAnEscapeAtEveryPlace) {
    const std::string specials[] = {"\"",
                                    "\\",
                                    "\n",
                                    "\x01",
                                    "\x1f",
                                    "\x7f",
                                    "\x80",
                                    "\xff",
                                    "\xc3\xa9",
                                    "\xe2\x82\xac",
                                    "\xf0\x9f\x98\x80",
                                    "\xed\xa0\x80"};
    for (std::size_t length = 0; length <= 40; ++length) {
        std::string plain;
        for (std::size_t i = 0; i < length; ++i) {
            plain += static_cast<char>('a' + i % 26);
        }
        std::string out;
        Tav::appendJsonString(out, plain);
        EXPECT_EQ(out, "\"" + plain + "\"") << length;
        for (std::size_t at = 0; at < length; ++at) {
            for (const std::string& special : specials) {
                std::string text = plain;
                text.replace(at, 1, special);
                out = "prefix";
                Tav::appendJsonString(out, text);
                EXPECT_EQ(out, "prefix" + referenceJsonString(text))
                    << "length " << length << ", at " << at;
            }
        }
    }
    // Space and tilde are the ends of the plain range.
    std::string out;
    Tav::appendJsonString(out, std::string(20, ' ') + std::string(20, '~'));
    EXPECT_EQ(out, "\"" + std::string(20, ' ') + std::string(20, '~') + "\"");
}
