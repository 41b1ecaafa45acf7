// Micro-benchmarks of the record path and of dictionary loading, through the
// public interface of Tav::BinaryLogXmlReader.
//
// Every dictionary is written as XML into a temporary directory the first
// time a benchmark needs it; record payloads are encoded with the capture
// writer library against the loaded dictionary, so they are laid out exactly
// as the decoder reads them. Output goes to /dev/null.
//
// Set WEXBL_BENCH_LARGE=1 to also decode a capture of 1,000,000 records
// (writing it takes a few seconds before the benchmark starts).
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "BinaryLogXmlReader.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Encoder.h"

namespace {

using wexbl_bench::TempDir;

constexpr std::uint32_t kStartSec = 1714564800U;  // 2024-05-01T12:00:00Z
constexpr std::uint16_t kMaxVarBinaryBytes = 64;

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "wexbl_bench: %s\n", what.c_str());
    std::abort();
}

FILE* openDevNull() {
    FILE* out = fopen("/dev/null", "w");
    if (out == nullptr) {
        fail("cannot open /dev/null");
    }
    return out;
}

/// One record as the capture loop hands it to the dispatcher.
struct Record {
    std::string label;
    Tav::PcapRecHeader pcap;
    Tav::BinLogHeader header;
    std::string payload;

    Tav::ByteReader bytes() const {
        return Tav::ByteReader(reinterpret_cast<const unsigned char*>(payload.data()),
                               payload.size());
    }
    std::uint16_t moduleKey() const { return static_cast<std::uint16_t>(header.logId >> 16); }
    std::uint16_t logIndex() const { return static_cast<std::uint16_t>(header.logId & 0xFFFFu); }
};

Record makeRecord(std::string label, std::uint32_t packetType, std::uint32_t logId,
                  std::uint16_t level, std::uint16_t version, std::string payload) {
    Record record;
    record.label = std::move(label);
    record.header.packetType = packetType;
    record.header.logId = logId;
    record.header.logLevel = level;
    record.header.logVersion = version;
    record.header.seqNo = 1;
    record.payload = std::move(payload);
    record.pcap.tsSec = kStartSec;
    record.pcap.tsUsec = 250000;
    record.pcap.storageLength = static_cast<std::uint32_t>(16 + record.payload.size());
    record.pcap.capturedLength = record.pcap.storageLength;
    return record;
}

/// A binary log record of `moduleName` / `logName` with the given parameter
/// values (script notation: enumeration names, FRAME-SUBFRAME, hex bytes).
Record binLogRecord(const binlog_synth::Dictionary& dictionary, const std::string& moduleName,
                    const std::string& logName,
                    const std::vector<std::pair<std::string, std::string>>& values) {
    std::string error;
    std::uint16_t key = 0;
    if (!dictionary.findModule(moduleName, key, error)) {
        fail(error);
    }
    const binlog_synth::LogLayout* layout = dictionary.findLog(key, logName, error);
    if (layout == nullptr) {
        fail(error);
    }
    binlog_synth::RecordValues recordValues;
    for (const auto& nameAndText : values) {
        const binlog_synth::Field* field = nullptr;
        for (const binlog_synth::Field& candidate : layout->fields) {
            if (candidate.name == nameAndText.first) {
                field = &candidate;
            }
        }
        if (field == nullptr) {
            fail(logName + " has no parameter " + nameAndText.first);
        }
        binlog_synth::ParamValue value;
        if (!binlog_synth::parseFieldValue(*field, nameAndText.second, &dictionary.displays(),
                                           value, error)) {
            fail(error);
        }
        (field->header ? recordValues.header : recordValues.log)[field->name] = value;
    }
    binlog_synth::ByteBuffer payload;
    binlog_synth::encodeBinLogPayload(*layout, recordValues, payload);
    return makeRecord(moduleName + " " + logName, Tav::BinLog, layout->logId, 5, layout->version,
                      payload.str());
}

/// The per-record benchmarks' reader, loaded from the hand-written
/// dictionary, and their records.
struct RecordFixture {
    TempDir dir{"records"};
    std::unique_ptr<Tav::BinaryLogXmlReader> reader;
    FILE* out = nullptr;
    /// 0: every parameter kind, module header, placeholders; 1: module
    /// header, no placeholders; 2: no module header, placeholders.
    std::vector<Record> binLog;
    Record legacy;
    Record syslog;
    Record capture;

    RecordFixture() {
        wexbl_bench::writeRecordDictionary(dir);
        reader.reset(
            new Tav::BinaryLogXmlReader(dir.dictionaryPath(), false, 5000, kMaxVarBinaryBytes));
        if (!reader->isGood()) {
            fail("the record dictionary did not load");
        }
        out = openDevNull();

        // The records are written by the capture writer from its own reading
        // of the same dictionary.
        binlog_synth::Dictionary dictionary;
        std::string loadError;
        if (!dictionary.load(dir.dictionaryPath(), loadError)) {
            fail(loadError);
        }
        binLog.push_back(binLogRecord(
            dictionary, "L1:cell", "CellReport",
            {{"cellId", "7"},
             {"carrier", "1"},
             {"state", "ACTIVE"},
             {"imsi", "310150123456789"},
             {"delayNs", "-125000"},
             {"ueId", "17"},
             {"sfn", "0x3039"},
             {"offset", "-42"},
             {"rnti", "4660"},
             {"rssi", "-71,-69,-80,-75"},
             {"cause", "mo-Data"},
             {"power", "-3"},
             {"tag", "eNB-0042-cell-7"},
             {"pdu", "0a1b2c3d4e5f6071"},
             {"raw", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"}}));
        binLog.push_back(binLogRecord(dictionary, "L1:cell", "CellStats",
                                      {{"cellId", "7"},
                                       {"carrier", "1"},
                                       {"state", "ACTIVE"},
                                       {"rxBytes", "123456789"},
                                       {"txBytes", "987654321"},
                                       {"rxPackets", "100000"},
                                       {"txPackets", "200000"},
                                       {"users", "42"},
                                       {"bearers", "96"}}));
        binLog.push_back(binLogRecord(dictionary, "OAM:sys", "FanAlarm",
                                      {{"fan", "2"}, {"rpm", "1250"}, {"severity", "MAJOR"}}));
        binLog[0].label = "all kinds, module header, placeholders";
        binLog[1].label = "module header, parameter list";
        binLog[2].label = "no module header, placeholders";

        std::string error;
        std::uint16_t key = 0;
        dictionary.findModule("L1:cell", key, error);
        const binlog_synth::LogLayout* legacyLayout = dictionary.findLog(key, "LegacyTrace", error);
        if (legacyLayout == nullptr) {
            fail(error);
        }
        binlog_synth::LegacyValues legacyValues;
        legacyValues.frameTiming = 5123;
        legacyValues.u32 = {{17, 4660, 3, 1500, 25}};
        legacyValues.u8 = {{9, 2, 1, 12}};
        legacyValues.text = {{"sched", "dl-grant"}};
        binlog_synth::ByteBuffer legacyPayload;
        binlog_synth::appendLegacyPayload(legacyPayload, legacyValues);
        legacy = makeRecord("legacy", Tav::Legacy, legacyLayout->logId, 5, legacyLayout->version,
                            legacyPayload.str());

        binlog_synth::ByteBuffer syslogPayload;
        binlog_synth::appendSyslogPayload(syslogPayload, "fanctl",
                                          "fan 2 speed low\nretrying in 5 s");
        syslog = makeRecord("syslog", Tav::Syslog, 0, 4, 0, syslogPayload.str());

        std::string captureBytes(64, '\0');
        for (std::size_t i = 0; i < captureBytes.size(); ++i) {
            captureBytes[i] = static_cast<char>(i);
        }
        capture = makeRecord("capture", Tav::PcapCapture, 0, 0, 0, captureBytes);

        checkRecords();
    }

    ~RecordFixture() {
        if (out != nullptr) {
            fclose(out);
        }
    }
    RecordFixture(const RecordFixture&) = delete;
    RecordFixture& operator=(const RecordFixture&) = delete;

    /// Makes sure that every record is rendered (not rejected), so that the
    /// benchmarks time the real path.
    void checkRecords() {
        std::vector<const Record*> all;
        for (const Record& record : binLog) {
            all.push_back(&record);
        }
        all.push_back(&legacy);
        all.push_back(&syslog);
        all.push_back(&capture);
        for (const Record* record : all) {
            char* text = nullptr;
            size_t size = 0;
            FILE* memory = open_memstream(&text, &size);
            if (memory == nullptr) {
                fail("open_memstream failed");
            }
            const int result =
                reader->getLogDetailsForLogId(record->pcap, record->header, record->bytes(),
                                              record->pcap.storageLength, memory, 0);
            fclose(memory);
            const std::string line(text, size);
            free(text);
            if (result != 0 || line.rfind("[2024-05-01T12:00:00.250Z] ", 0) != 0 ||
                line.find('\n') + 1 != line.size()) {
                fail("record \"" + record->label + "\" was not rendered as one line: " + line);
            }
        }
    }
};

RecordFixture& records() {
    static RecordFixture fixture;
    return fixture;
}

/// Working copies of a binary log record's descriptions, decoded step by
/// step.
struct Working {
    Tav::ModuleDetails module;
    Tav::LogDetails log;
};

Working decodeWorking(Tav::BinaryLogXmlReader& reader, const Record& record) {
    Working working{reader.moduleDetailsMap.at(record.moduleKey()),
                    reader.logDetailsMap.at(record.moduleKey()).at(record.logIndex())};
    unsigned int offset = 0;
    if (working.module.hasModuleHeader) {
        reader.decodeModuleHeaderFromPayLoad(working.module, record.header, record.bytes(), offset);
    }
    reader.decodeBinLogPayLoad(record.header, record.bytes(), working.log, offset);
    return working;
}

const Record& binLogArg(benchmark::State& state) {
    const Record& record = records().binLog.at(static_cast<std::size_t>(state.range(0)));
    state.SetLabel(record.label);
    return record;
}

// ---- Dispatch ----------------------------------------------------------------

/// The record path as the capture loop drives it.
void BM_Dispatch_BinLog(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = binLogArg(state);
    const Tav::ByteReader bytes = record.bytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.reader->getLogDetailsForLogId(
            record.pcap, record.header, bytes, record.pcap.storageLength, f.out, 0));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Dispatch_BinLog)->DenseRange(0, 2);

/// The same with statistics enabled: every record is counted and its
/// sequence number checked (one step ahead each time).
void BM_Dispatch_BinLog_Stats(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = binLogArg(state);
    const Tav::ByteReader bytes = record.bytes();
    Tav::BinLogHeader header = record.header;
    f.reader->statsEnabled = true;
    for (auto _ : state) {
        ++header.seqNo;
        benchmark::DoNotOptimize(f.reader->getLogDetailsForLogId(
            record.pcap, header, bytes, record.pcap.storageLength, f.out, 0));
    }
    f.reader->statsEnabled = false;
    f.reader->statsCollector.clearStats();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Dispatch_BinLog_Stats)->Arg(0);

void dispatchFixed(benchmark::State& state, const Record& record) {
    RecordFixture& f = records();
    const Tav::ByteReader bytes = record.bytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.reader->getLogDetailsForLogId(
            record.pcap, record.header, bytes, record.pcap.storageLength, f.out, 0));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Dispatch_Legacy(benchmark::State& state) {
    dispatchFixed(state, records().legacy);
}
BENCHMARK(BM_Dispatch_Legacy);

void BM_Dispatch_Syslog(benchmark::State& state) {
    dispatchFixed(state, records().syslog);
}
BENCHMARK(BM_Dispatch_Syslog);

void BM_Dispatch_PcapCapture(benchmark::State& state) {
    dispatchFixed(state, records().capture);
}
BENCHMARK(BM_Dispatch_PcapCapture);

// ---- The step-by-step route, for comparison --------------------------------------

/// Look-ups, working copies, decodeModuleHeaderFromPayLoad,
/// decodeBinLogPayLoad and displayBinLog: what the dispatcher's output is
/// defined by.
void BM_StepByStep_BinLog(benchmark::State& state) {
    RecordFixture& f = records();
    Tav::BinaryLogXmlReader& reader = *f.reader;
    const Record& record = binLogArg(state);
    const Tav::ByteReader bytes = record.bytes();
    for (auto _ : state) {
        const auto module = reader.moduleDetailsMap.find(record.moduleKey());
        const auto log =
            reader.logDetailsMap.find(record.moduleKey())->second.find(record.logIndex());
        Tav::LogDetails workingLog(log->second);
        Tav::ModuleDetails workingModule(module->second);
        unsigned int offset = 0;
        if (workingModule.hasModuleHeader) {
            reader.decodeModuleHeaderFromPayLoad(workingModule, record.header, bytes, offset);
        }
        reader.decodeBinLogPayLoad(record.header, bytes, workingLog, offset);
        reader.displayBinLog(record.pcap, record.header, f.out, 0, workingModule, workingLog);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StepByStep_BinLog)->DenseRange(0, 2);

/// Only the two working copies.
void BM_Step_CopyDetails(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const Record& record = binLogArg(state);
    const Tav::ModuleDetails& module = reader.moduleDetailsMap.at(record.moduleKey());
    const Tav::LogDetails& log = reader.logDetailsMap.at(record.moduleKey()).at(record.logIndex());
    for (auto _ : state) {
        Tav::LogDetails workingLog(log);
        Tav::ModuleDetails workingModule(module);
        benchmark::DoNotOptimize(workingLog.paramOrder.data());
        benchmark::DoNotOptimize(workingModule.paramOrder.data());
    }
}
BENCHMARK(BM_Step_CopyDetails)->DenseRange(0, 2);

/// The working copies and both decoders (no rendering).
void BM_Step_CopyAndDecode(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const Record& record = binLogArg(state);
    for (auto _ : state) {
        Working working = decodeWorking(reader, record);
        benchmark::DoNotOptimize(working.log.decodedValues.size());
    }
}
BENCHMARK(BM_Step_CopyAndDecode)->DenseRange(0, 2);

// ---- Integer decoders ------------------------------------------------------------

template <typename T>
std::string bytesOfValues(std::size_t count) {
    // Values of every magnitude and sign: a few small ones, then wide ones.
    std::string bytes;
    std::uint64_t state = 0x9E3779B97F4A7C15ULL;
    for (std::size_t i = 0; i < count; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        const std::uint64_t value = (i % 3 == 0) ? (i * 7) : (state >> (i % 4) * 8);
        for (std::size_t b = 0; b < sizeof(T); ++b) {
            bytes.push_back(static_cast<char>((value >> (8 * b)) & 0xFF));
        }
    }
    return bytes;
}

/// decodeIntParams<TavLogParam<T>> over four scalars (array:0) or one array
/// of sixteen elements (array:1), default display.
template <typename T>
void BM_DecodeIntParams(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const bool array = state.range(0) != 0;
    const std::size_t elements = array ? 16 : 4;
    std::vector<Tav::TavLogParam<T>> params;
    if (array) {
        Tav::TavLogParam<T> param;
        param.name = "samples";
        param.length = 16;
        param.displayFormat = "DefaultDisplay";
        params.push_back(param);
    } else {
        for (const char* name : {"ueId", "rnti", "bytes", "delta"}) {
            Tav::TavLogParam<T> param;
            param.name = name;
            param.displayFormat = "DefaultDisplay";
            params.push_back(param);
        }
    }
    const std::string payload = bytesOfValues<T>(elements);
    const Tav::ByteReader bytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                payload.size());
    std::map<std::string, std::string> values;
    for (auto _ : state) {
        unsigned int offset = 0;
        reader.decodeIntParams(bytes, params, offset, values);
        benchmark::DoNotOptimize(offset);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(elements));
}
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::uint64_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::int64_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::uint32_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::int32_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::uint16_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::int16_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::uint8_t)->ArgName("array")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_DecodeIntParams, std::int8_t)->ArgName("array")->Arg(0)->Arg(1);

// ---- convertType per display format --------------------------------------------

enum FormatCase { kDefault = 0, kHex = 1, kSfSfn = 2, kEnumFound = 3, kEnumMissing = 4 };

const char* const kFormatLabels[] = {"DefaultDisplay", "hex", "SF-SFN", "enum, value found",
                                     "enum, value missing"};

/// A wide value of T (negative for the signed kinds).
template <typename T>
T wideValue() {
    if (static_cast<T>(-1) < static_cast<T>(0)) {
        return static_cast<T>(-static_cast<T>(std::numeric_limits<T>::max() / 3));
    }
    return static_cast<T>(std::numeric_limits<T>::max() - 58);
}

template <typename T>
void BM_ConvertType(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const auto format = static_cast<FormatCase>(state.range(0));
    const std::string displayFormat = format == kDefault ? "DefaultDisplay"
                                      : format == kHex   ? "hex"
                                      : format == kSfSfn ? "SF-SFN"
                                                         : "Cause";
    const T value = format == kSfSfn         ? static_cast<T>(12345)
                    : format == kEnumFound   ? static_cast<T>(4)
                    : format == kEnumMissing ? static_cast<T>(99)
                                             : wideValue<T>();
    state.SetLabel(kFormatLabels[format]);
    const std::string name = "cause";
    std::string text;
    std::map<std::string, std::string> values;
    for (auto _ : state) {
        reader.convertType<T>(displayFormat, value, name, text, values);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations());
}
// "SF-SFN" has its frame form only for unsigned 32-bit values; elsewhere it
// is an enumeration name that the dictionary lacks (a message per value).
BENCHMARK_TEMPLATE(BM_ConvertType, std::uint32_t)
    ->ArgName("format")
    ->DenseRange(kDefault, kEnumMissing);

void otherFormats(benchmark::internal::Benchmark* b) {
    b->ArgName("format")->Arg(kDefault)->Arg(kHex)->Arg(kEnumFound)->Arg(kEnumMissing);
}
BENCHMARK_TEMPLATE(BM_ConvertType, std::uint64_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::int64_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::int32_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::uint16_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::int16_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::uint8_t)->Apply(otherFormats);
BENCHMARK_TEMPLATE(BM_ConvertType, std::int8_t)->Apply(otherFormats);

// ---- Strings ------------------------------------------------------------------------

Tav::TavLogParam<std::string> stringParam(const char* name, std::uint32_t length) {
    Tav::TavLogParam<std::string> param;
    param.name = name;
    param.length = length;
    return param;
}

/// Two "string" parameters: 16 bytes holding a shorter text, 14 bytes
/// without a NUL.
void BM_DecodeStringParams(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    std::vector<Tav::TavLogParam<std::string>> params = {stringParam("tag", 16),
                                                         stringParam("detail", 14)};
    std::string payload("fan speed low");
    payload.resize(16, '\0');
    payload += "dl-grant-00042";
    const Tav::ByteReader bytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                payload.size());
    std::map<std::string, std::string> values;
    for (auto _ : state) {
        unsigned int offset = 0;
        reader.decodeStringParams(bytes, params, offset, values);
        benchmark::DoNotOptimize(offset);
    }
    state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(BM_DecodeStringParams);

std::string countingBytes(std::size_t n) {
    std::string bytes(n, '\0');
    for (std::size_t i = 0; i < n; ++i) {
        bytes[i] = static_cast<char>(i * 37 + 11);
    }
    return bytes;
}

/// One "binarystring" of range(0) bytes.
void BM_DecodeBinaryStringParams(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const auto size = static_cast<std::uint32_t>(state.range(0));
    std::vector<Tav::TavLogParam<std::string>> params = {stringParam("pdu", size)};
    const std::string payload = countingBytes(size);
    const Tav::ByteReader bytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                payload.size());
    std::map<std::string, std::string> values;
    for (auto _ : state) {
        // The text is appended to the parameter's own, which a working copy
        // brings in empty.
        params[0].displayValue.clear();
        unsigned int offset = 0;
        reader.decodeBinaryStringParams(bytes, params, offset, values);
        benchmark::DoNotOptimize(offset);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeBinaryStringParams)->ArgName("bytes")->Arg(8)->Arg(64);

/// One "varbinarystring" declared with 64 bytes, carrying range(0) bytes
/// (all shown: the reader shows up to 64).
void BM_DecodeVarBinaryStringParam(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const auto count = static_cast<std::uint16_t>(state.range(0));
    std::vector<Tav::TavLogParam<std::string>> params = {stringParam("raw", 64)};
    std::string payload;
    payload.push_back(static_cast<char>(count & 0xFF));
    payload.push_back(static_cast<char>(count >> 8));
    payload += countingBytes(count);
    const Tav::ByteReader bytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                payload.size());
    std::map<std::string, std::string> values;
    for (auto _ : state) {
        params[0].displayValue.clear();
        unsigned int offset = 0;
        reader.decodeVarBinaryStringParam(bytes, params, offset, values);
        benchmark::DoNotOptimize(offset);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeVarBinaryStringParam)->ArgName("bytes")->Arg(0)->Arg(32)->Arg(64);

// ---- Message text and line layouts -------------------------------------------------

/// computeDisplayDataForLog on decoded working copies: placeholder
/// substitution (0, 2) or the appended parameter list (1).
void BM_ComputeDisplayDataForLog(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const Record& record = binLogArg(state);
    const Working working = decodeWorking(reader, record);
    std::string moduleHeaderText;
    std::string messageText;
    for (auto _ : state) {
        moduleHeaderText.clear();
        messageText.clear();
        reader.computeDisplayDataForLog(record.pcap, record.header, working.module, working.log,
                                        moduleHeaderText, messageText);
        benchmark::DoNotOptimize(messageText.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ComputeDisplayDataForLog)->DenseRange(0, 2);

/// displayBinLog: the eight-field layout with a module header (0, 1) and the
/// seven-field layout without (2).
void BM_DisplayBinLog(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = binLogArg(state);
    const Working working = decodeWorking(*f.reader, record);
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.reader->displayBinLog(record.pcap, record.header, f.out, 0,
                                                         working.module, working.log));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DisplayBinLog)->DenseRange(0, 2);

void BM_FormatLegacyLogDetails(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = f.legacy;
    Tav::ModuleDetails module = f.reader->moduleDetailsMap.at(record.moduleKey());
    Tav::LogDetails log = f.reader->logDetailsMap.at(record.moduleKey()).at(record.logIndex());
    f.reader->decodeLegacyLogPayLoad(record.header, record.bytes(), log);
    for (auto _ : state) {
        f.reader->formatLegacyLogDetails(module, log, record.pcap, record.header, f.out, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FormatLegacyLogDetails);

void BM_FormatSyslogPayLoad(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = f.syslog;
    std::string tag;
    std::string decoded;
    f.reader->decodeSyslogPayLoad(record.pcap, record.header, record.bytes(), tag, decoded);
    std::string message;
    for (auto _ : state) {
        // The line feeds are replaced in place, so each call starts again
        // from the decoded text.
        message = decoded;
        f.reader->formatSyslogPayLoad(record.pcap, record.header, tag, message, f.out, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FormatSyslogPayLoad);

void BM_FormatPcapCapturePayLoad(benchmark::State& state) {
    RecordFixture& f = records();
    const Record& record = f.capture;
    for (auto _ : state) {
        f.reader->formatPcapCapturePayLoad(record.pcap, record.header, f.out, 0);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FormatPcapCapturePayLoad);

/// outputTimeStamp for the same second every time (0) or a new second each
/// call (1).
void BM_OutputTimeStamp(benchmark::State& state) {
    Tav::BinaryLogXmlReader& reader = *records().reader;
    const bool advance = state.range(0) != 0;
    std::uint32_t seconds = kStartSec;
    std::int32_t microseconds = 250000;
    std::string text;
    for (auto _ : state) {
        if (advance) {
            ++seconds;
        }
        reader.outputTimeStamp(text, &seconds, &microseconds);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OutputTimeStamp)->ArgName("new_second")->Arg(0)->Arg(1);

// ---- Statistics ------------------------------------------------------------------------

/// processStats for binary log records of 16 modules in turn, each one step
/// ahead of its last number (0), or plain capture records, which are only
/// counted (1).
void BM_ProcessStats(benchmark::State& state) {
    FILE* out = records().out;
    const bool captureRecords = state.range(0) != 0;
    Tav::BinaryLogStatsCollector stats;
    Tav::PcapRecHeader pcap;
    pcap.tsSec = kStartSec;
    pcap.tsUsec = 1000;
    std::uint32_t seqNo[16] = {};
    unsigned int i = 0;
    for (auto _ : state) {
        const unsigned int module = i & 15u;
        stats.processStats(out, pcap, static_cast<int>(0x0100 + module),
                           captureRecords ? Tav::PcapCapture : Tav::BinLog,
                           static_cast<int>(++seqNo[module]), 120);
        ++i;
    }
    benchmark::DoNotOptimize(stats.totalRecords);
    state.SetLabel(captureRecords ? "capture records" : "binary log records, in sequence");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProcessStats)->Arg(0)->Arg(1);

// ---- Dictionary loading -------------------------------------------------------------

/// A generated dictionary, written once.
struct DictionaryFixture {
    TempDir dir;
    wexbl_bench::DictionaryShape shape;

    DictionaryFixture(const char* tag, const wexbl_bench::DictionaryShape& s) : dir(tag), shape(s) {
        wexbl_bench::writeGeneratedDictionary(dir, shape);
    }
};

const DictionaryFixture& largeDictionary() {
    // 200 modules, 4,000 logs, 50 enumerations of 1,000 values.
    static const DictionaryFixture fixture("large", {200, 20, 50, 1000});
    return fixture;
}

const DictionaryFixture& tenThousandLogs() {
    // 100 modules of 100 logs, 10 enumerations of 100 values.
    static const DictionaryFixture fixture("10k", {100, 100, 10, 100});
    return fixture;
}

void loadDictionary(benchmark::State& state, const DictionaryFixture& fixture) {
    std::size_t logs = 0;
    std::size_t enumEntries = 0;
    for (auto _ : state) {
        std::unique_ptr<Tav::BinaryLogXmlReader> reader(
            new Tav::BinaryLogXmlReader(fixture.dir.dictionaryPath(), false, 0, 64));
        state.PauseTiming();
        if (!reader->isGood() || !reader->displayFormatter.isGood()) {
            state.SkipWithError("the generated dictionary did not load");
            break;
        }
        logs = wexbl_bench::countLogs(*reader);
        enumEntries = 0;
        for (const auto& table : reader->displayFormatter.displayFormats) {
            enumEntries += table.second.size();
        }
        reader.reset();  // freeing the dictionary is not part of loading it
        state.ResumeTiming();
    }
    const std::size_t expected = fixture.shape.modules * fixture.shape.logsPerModule;
    if (logs != expected) {
        state.SkipWithError("the reader holds another number of logs than was written");
    }
    state.counters["modules"] = static_cast<double>(fixture.shape.modules);
    state.counters["logs"] = static_cast<double>(logs);
    state.counters["enum_values"] = static_cast<double>(enumEntries);
}

void BM_LoadLargeDictionary(benchmark::State& state) {
    loadDictionary(state, largeDictionary());
}
BENCHMARK(BM_LoadLargeDictionary)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Load10000Logs(benchmark::State& state) {
    loadDictionary(state, tenThousandLogs());
}
BENCHMARK(BM_Load10000Logs)->Unit(benchmark::kMillisecond)->UseRealTime();

/// Compiling the plans of a loaded 10,000-log dictionary again, as a program
/// does after changing the dictionary's maps.
void BM_RebuildPlans10000Logs(benchmark::State& state) {
    const DictionaryFixture& fixture = tenThousandLogs();
    Tav::BinaryLogXmlReader reader(fixture.dir.dictionaryPath(), false, 0, 64);
    if (!reader.isGood()) {
        state.SkipWithError("the generated dictionary did not load");
        return;
    }
    for (auto _ : state) {
        reader.rebuildPlans();
    }
    state.counters["logs"] = static_cast<double>(wexbl_bench::countLogs(reader));
}
BENCHMARK(BM_RebuildPlans10000Logs)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- Placeholders that recreate themselves ---------------------------------------------

/// The worst case of placeholder substitution: a text value "{text}{text}..."
/// fills a log string "{text}" (32 or 256 bytes, as Arg says), so every
/// substitution brings back placeholders until the limit of 1000. The text
/// written grows by the value each time; the work must grow with the text,
/// not with its square.
void BM_Dispatch_SelfRecreatingPlaceholder(benchmark::State& state) {
    const std::size_t size = static_cast<std::size_t>(state.range(0));
    static TempDir dir("recreate");
    static bool written = false;
    if (!written) {
        dir.writeFile(
            "r_binlog.xml",
            "<?xml version=\"1.0\"?>\n<LoggingSubSystem subsystem=\"S\" subsystemId=\"1\" "
            "module=\"m\" moduleid=\"1\" binlogversion=\"1\">\n"
            "<LogId name=\"Small\" logString=\"{text}\" category=\"C\">"
            "<p type=\"string\" nameList=\"text\" size=\"32\"/></LogId>\n"
            "<LogId name=\"Large\" logString=\"{text}\" category=\"C\">"
            "<p type=\"string\" nameList=\"text\" size=\"256\"/></LogId>\n"
            "</LoggingSubSystem>\n");
        written = true;
    }
    Tav::BinaryLogXmlReader reader(dir.dictionaryPath(), false, 0, 64);
    if (!reader.isGood()) {
        state.SkipWithError("the dictionary did not load");
        return;
    }
    std::string payload;
    while (payload.size() + 6 <= size) {
        payload += "{text}";
    }
    payload.resize(size, '\0');
    Tav::PcapRecHeader pcap;
    pcap.tsSec = 1700000000;
    pcap.storageLength = static_cast<std::uint32_t>(16 + size);
    Tav::BinLogHeader header;
    header.logId = size <= 32 ? 0x01010001u : 0x01010002u;
    header.logVersion = 1;
    header.logLevel = 5;
    const Tav::ByteReader bytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                payload.size());
    // The line's length, once.
    char* text = nullptr;
    std::size_t length = 0;
    FILE* memory = open_memstream(&text, &length);
    reader.getLogDetailsForLogId(pcap, header, bytes, pcap.storageLength, memory, 0);
    fclose(memory);
    free(text);
    FILE* out = fopen("/dev/null", "w");
    for (auto _ : state) {
        reader.getLogDetailsForLogId(pcap, header, bytes, pcap.storageLength, out, 0);
    }
    fclose(out);
    state.SetItemsProcessed(state.iterations());
    state.counters["line_bytes"] = static_cast<double>(length);
}
BENCHMARK(BM_Dispatch_SelfRecreatingPlaceholder)->Arg(32)->Arg(256);

// ---- Whole captures ------------------------------------------------------------------

/// A capture of a given number of records for a dictionary of 50 logs
/// (10 modules, 8 enumerations of 32 values).
struct CaptureFixture {
    TempDir dir;
    TempDir dictionary{"capture-dict"};
    std::string path;
    long fileBytes = 0;

    explicit CaptureFixture(std::uint64_t records) : dir("capture") {
        wexbl_bench::writeGeneratedDictionary(dictionary, {10, 5, 8, 32});
        path = dir.path() + "/random.pcap.gz";
        std::string error;
        if (!wexbl_bench::writeRandomCaptureFile(dictionary.path(), path, records, error)) {
            fail("cannot write the capture: " + error);
        }
        FILE* f = fopen(path.c_str(), "rb");
        if (f != nullptr) {
            fseek(f, 0, SEEK_END);
            fileBytes = ftell(f);
            fclose(f);
        }
    }
};

const CaptureFixture& captureOf(std::uint64_t records) {
    static std::map<std::uint64_t, std::unique_ptr<CaptureFixture>> captures;
    std::unique_ptr<CaptureFixture>& slot = captures[records];
    if (!slot) {
        slot.reset(new CaptureFixture(records));
    }
    return *slot;
}

/// readBinaryFiledata of a gzip-compressed capture of range(0) records, with
/// statistics off (stats:0) or on (stats:1).
void BM_DecodeCapture(benchmark::State& state) {
    const auto count = static_cast<std::uint64_t>(state.range(0));
    const bool stats = state.range(1) != 0;
    const CaptureFixture& capture = captureOf(count);
    FILE* out = records().out;
    Tav::BinaryLogXmlReader reader(capture.dictionary.dictionaryPath(), stats, 5000,
                                   kMaxVarBinaryBytes);
    if (!reader.isGood()) {
        state.SkipWithError("the capture's dictionary did not load");
        return;
    }
    for (auto _ : state) {
        reader.readBinaryFiledata(capture.path, 0, out);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
    state.SetBytesProcessed(state.iterations() * capture.fileBytes);
}
BENCHMARK(BM_DecodeCapture)
    ->ArgNames({"records", "stats"})
    ->Args({1000, 0})
    ->Args({1000, 1})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

void registerLargeCaptures() {
    const char* large = getenv("WEXBL_BENCH_LARGE");
    if (large == nullptr || *large == '\0' || std::string(large) == "0") {
        return;
    }
    benchmark::RegisterBenchmark("BM_DecodeCapture", BM_DecodeCapture)
        ->ArgNames({"records", "stats"})
        ->Args({1000000, 0})
        ->Args({1000000, 1})
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    registerLargeCaptures();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
