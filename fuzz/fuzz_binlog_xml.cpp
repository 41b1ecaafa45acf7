// Fuzzes the binlog dictionary loader on arbitrary XML, then decodes records
// of every log it loaded on the production path and holds them to the
// step-by-step route, to the line rebuilt by the placeholder rule and to a
// capture stream.
//
// Input: the XML document, optionally followed by a NUL byte and record
// bytes (a document cannot hold a NUL, so whatever follows the first NUL is
// not XML). The record bytes are read as a sequence of
//   level (1 byte), payload length N (1 byte), N payload bytes
// (zeros where they run out). Records are made for the logs in index order,
// round after round (at most 4 rounds, at most kMaxRecords records, one
// round when the record bytes are used up), each with the log's module
// version, so that each is decoded as a binary log of its log.
//
// The loaded module replaces the dictionary of a reader of this target, as
// loading a directory with this one binlog file would; the records go to the
// dispatcher (getLogDetailsForLogId), the step-by-step route, and, written as
// a link type 150 capture in memory, to a CaptureStream whose output must be
// what the dispatcher printed for them.
//
// A dictionary may declare counts and sizes far beyond any record (count="-1"
// renders 25000 elements per array); a record whose text could grow beyond
// kMaxRenderedBytes is not decoded, so that every input takes bounded time.
#include <libxml/parser.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

namespace {

constexpr size_t kMaxRecords = 16;
constexpr int kMaxRounds = 4;
/// The most text (roughly) all decoded records of one input may render.
constexpr std::uint64_t kMaxRenderedBytes = 2 << 20;
/// As the library renders them.
constexpr std::uint64_t kMaxElements = 25000;
/// The reader's maxVarBinaryBytes.
constexpr std::uint16_t kMaxVarBytes = 16;

void putU16(std::string& out, std::uint16_t value) {
    out.push_back(static_cast<char>(value & 0xFF));
    out.push_back(static_cast<char>(value >> 8));
}

void putU32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

std::uint64_t capped(std::uint64_t count) {
    return count < kMaxElements ? count : kMaxElements;
}

/// An upper estimate of the text the values of `params` render.
template <typename T>
std::uint64_t intCost(const std::vector<Tav::TavLogParam<T>>& params) {
    std::uint64_t cost = 0;
    for (const auto& param : params) {
        // An element: its label "name[i]=" (index up to 5 digits), a value
        // of up to 20 characters (a number, or an enumeration text of the
        // example dictionary), a comma.
        const std::uint64_t perElement = param.name.size() + 32;
        cost += param.length == 0 ? perElement : capped(param.length) * perElement;
    }
    return cost;
}

std::uint64_t renderCost(const Tav::FlexiParams& params, size_t payloadSize) {
    std::uint64_t cost = intCost(params.uint64Params) + intCost(params.int64Params) +
                         intCost(params.uint32Params) + intCost(params.int32Params) +
                         intCost(params.uint16Params) + intCost(params.int16Params) +
                         intCost(params.uint8Params) + intCost(params.int8Params);
    for (const auto& param : params.stringParams) {
        cost += param.name.size() + 8 + (param.length < payloadSize ? param.length : payloadSize);
    }
    for (const auto& param : params.binaryStringParams) {
        cost += param.name.size() + 8 + 3 * capped(param.length);
    }
    for (const auto& param : params.varBinaryStringParams) {
        cost += param.name.size() + 32 + 3 * kMaxVarBytes;
    }
    return cost;
}

/// The reader whose dictionary every input replaces; its enumerations are
/// the example dictionary's.
Tav::BinaryLogXmlReader& dictionaryReader() {
    static Tav::BinaryLogXmlReader reader(wexbl_fuzz::dictionaryDir(), false, 0, kMaxVarBytes);
    return reader;
}

struct MadeRecord {
    Tav::PcapRecHeader pcapHeader;
    Tav::BinLogHeader header;
    std::string payload;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 1 << 20) {
        return 0;
    }
    const void* nul = memchr(data, '\0', size);
    const size_t xmlSize =
        nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - data) : size;
    const uint8_t* recordBytes = nul ? data + xmlSize + 1 : data + size;
    const size_t recordSize = static_cast<size_t>(data + size - recordBytes);

    xmlDoc* doc = xmlReadMemory(reinterpret_cast<const char*>(data), static_cast<int>(xmlSize),
                                "fuzz_binlog.xml", nullptr, 0);
    if (doc == nullptr) {
        return 0;
    }
    Tav::BinaryLogXmlReader& reader = dictionaryReader();
    reader.nextLogIndex = 1;
    std::uint16_t moduleKey = 0;
    Tav::ModuleDetails module;
    std::map<std::uint16_t, Tav::LogDetails> logs;
    const int result = reader.parseBinLogXml(xmlDocGetRootElement(doc), moduleKey, module, logs);
    xmlFreeDoc(doc);
    if (result < 0 || logs.empty()) {
        return 0;  // a reader loading this file would not be good
    }
    reader.logDetailsMap.clear();
    reader.moduleDetailsMap.clear();
    reader.logDetailsMap[moduleKey] = logs;
    reader.moduleDetailsMap[moduleKey] = module;
    reader.rebuildPlans();

    // The records, within the rendering budget.
    std::vector<MadeRecord> records;
    size_t next = 0;
    std::uint64_t budget = kMaxRenderedBytes;
    for (int round = 0; round < kMaxRounds && records.size() < kMaxRecords; ++round) {
        if (round > 0 && next >= recordSize) {
            break;
        }
        for (const auto& entry : logs) {
            if (records.size() >= kMaxRecords) {
                break;
            }
            MadeRecord record;
            const std::uint8_t level = next < recordSize ? recordBytes[next] : 5;
            const size_t length = next + 1 < recordSize ? recordBytes[next + 1] : 0;
            next += 2;
            for (size_t i = 0; i < length; ++i, ++next) {
                record.payload.push_back(next < recordSize ? static_cast<char>(recordBytes[next])
                                                           : '\0');
            }
            const std::uint64_t cost =
                (module.hasModuleHeader ? renderCost(module, record.payload.size()) : 0) +
                renderCost(entry.second, record.payload.size()) + 256;
            if (cost > budget) {
                continue;
            }
            budget -= cost;
            const std::uint32_t number = static_cast<std::uint32_t>(records.size());
            record.header.packetType = Tav::BinLog;
            record.header.logId = static_cast<std::uint32_t>(moduleKey) << 16 | entry.first;
            record.header.logLevel = static_cast<std::uint16_t>(level % 11);
            record.header.logVersion = module.binlogVersion;
            record.header.seqNo = number + 1;
            record.pcapHeader.tsSec = 1714564800 + number;
            record.pcapHeader.tsUsec = 1000 * number;
            record.pcapHeader.storageLength =
                static_cast<std::uint32_t>(sizeof(Tav::BinLogHeader) + record.payload.size());
            record.pcapHeader.capturedLength = record.pcapHeader.storageLength;
            records.push_back(std::move(record));
        }
    }

    // The dispatcher and the step-by-step route, record by record.
    const std::map<std::uint16_t, std::string> levels = reader.logLevelNames;
    wexbl_fuzz::MemoryFile dispatched;
    std::string dispatchedText;
    std::string capture;
    putU32(capture, 0xA1B2C3D4);
    putU16(capture, 2);
    putU16(capture, 4);
    putU32(capture, 0);
    putU32(capture, 0);
    putU32(capture, 65535);
    putU32(capture, 150);
    for (const MadeRecord& record : records) {
        // Exactly as many bytes as the payload has, so that a read past
        // them is caught.
        std::unique_ptr<unsigned char[]> bytes(new unsigned char[record.payload.size() + 1]);
        memcpy(bytes.get(), record.payload.data(), record.payload.size());
        const Tav::ByteReader payload(bytes.get(), record.payload.size());
        wexbl_fuzz::StepByStep decoded;
        const bool comparable = wexbl_fuzz::decodeStepByStep(reader, record.pcapHeader,
                                                             record.header, payload, 0, decoded);
        wexbl_fuzz::MemoryFile line;
        reader.getLogDetailsForLogId(record.pcapHeader, record.header, payload,
                                     record.pcapHeader.storageLength, line.file(), 0);
        const std::string text = line.text();
        if (comparable) {
            wexbl_fuzz::checkRecordLine(reader, record.header, decoded, text);
        }
        dispatchedText += text;

        putU32(capture, record.pcapHeader.tsSec);
        putU32(capture, record.pcapHeader.tsUsec);
        putU32(capture, record.pcapHeader.capturedLength);
        putU32(capture, record.pcapHeader.storageLength);
        putU32(capture, record.header.packetType);
        putU32(capture, record.header.logId);
        putU16(capture, record.header.logLevel);
        putU16(capture, record.header.logVersion);
        putU32(capture, record.header.seqNo);
        capture += record.payload;
    }
    // The stream starts from the level table the dispatcher started from.
    reader.logLevelNames = levels;

    // The same records through a capture stream.
    std::unique_ptr<unsigned char[]> captureBytes(new unsigned char[capture.size()]);
    memcpy(captureBytes.get(), capture.data(), capture.size());
    Tav::StreamOptions options;
    options.maxVarBinaryBytes = reader.maxVarBinaryBytes;
    Tav::CaptureStream stream(reader, "fuzz.pcap", captureBytes.get(), capture.size(), options);
    std::string streamed;
    while (stream.next()) {
        if (const Tav::Record* record = stream.record()) {
            streamed.append(record->text.data(), record->text.size());
        } else if (stream.event()->stream == Tav::EventStream::Output) {
            streamed.append(stream.event()->text.data(), stream.event()->text.size());
        }
    }
    if (streamed != dispatchedText) {
        wexbl_fuzz::mismatch("dispatcher and capture stream outputs", dispatchedText, streamed);
    }
    wexbl_fuzz::trimLevels(reader);
    return 0;
}
