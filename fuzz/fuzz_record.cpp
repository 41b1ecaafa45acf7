// Fuzzes the dispatcher with one record: arbitrary headers and payload.
//
// Input: 16 bytes of pcap record header, 16 bytes of binary log header, then
// the payload (exactly as long as the rest of the input, on the heap, so any
// read past it is caught). A binary log record that the dispatcher prints is
// also decoded step by step into copies and printed with displayBinLog; the
// two lines must be the same.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "FuzzSupport.h"

namespace {

/// A FILE* into memory.
struct MemoryFile {
    char* data = nullptr;
    size_t size = 0;
    FILE* file = open_memstream(&data, &size);
    ~MemoryFile() {
        if (file != nullptr) {
            fclose(file);
        }
        free(data);
    }
    std::string text() {
        fflush(file);
        return std::string(data, size);
    }
};

/// Prints the record the step-by-step way, when the dispatcher would print it
/// as a binary log record.
bool printStepByStep(Tav::BinaryLogXmlReader& reader, const Tav::PcapRecHeader& pcapHeader,
                     const Tav::BinLogHeader& header, const Tav::ByteReader& payload, int offset,
                     FILE* out) {
    if (header.packetType != Tav::BinLog) {
        return false;
    }
    const std::uint16_t key = static_cast<std::uint16_t>(header.logId >> 16);
    const auto module = reader.moduleDetailsMap.find(key);
    const auto logs = reader.logDetailsMap.find(key);
    if (module == reader.moduleDetailsMap.end() || logs == reader.logDetailsMap.end()) {
        return false;
    }
    const auto log = logs->second.find(static_cast<std::uint16_t>(header.logId & 0xFFFF));
    if (log == logs->second.end() || header.logVersion != module->second.binlogVersion ||
        header.logLevel > reader.logLevelNames.size()) {
        return false;
    }
    Tav::LogDetails workingLog(log->second);
    Tav::ModuleDetails workingModule(module->second);
    unsigned int payloadOffset = 0;
    if (workingModule.hasModuleHeader) {
        reader.decodeModuleHeaderFromPayLoad(workingModule, header, payload, payloadOffset);
    }
    reader.decodeBinLogPayLoad(header, payload, workingLog, payloadOffset);
    reader.displayBinLog(pcapHeader, header, out, offset, workingModule, workingLog);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Tav::ByteReader input(data, size);
    Tav::PcapRecHeader pcapHeader;
    pcapHeader.tsSec = input.get_u32le(0);
    pcapHeader.tsUsec = input.get_u32le(4);
    pcapHeader.capturedLength = input.get_u32le(8);
    pcapHeader.storageLength = input.get_u32le(12);
    Tav::BinLogHeader binLogHeader;
    binLogHeader.packetType = input.get_u32le(16);
    binLogHeader.logId = input.get_u32le(20);
    binLogHeader.logLevel = input.get_u16le(24);
    binLogHeader.logVersion = input.get_u16le(26);
    binLogHeader.seqNo = input.get_u32le(28);

    const size_t payloadSize = size > 32 ? size - 32 : 0;
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[payloadSize + 1]);
    if (payloadSize != 0) {
        memcpy(bytes.get(), data + 32, payloadSize);
    }
    const Tav::ByteReader payload(bytes.get(), payloadSize);
    const int offset = static_cast<int16_t>(pcapHeader.capturedLength >> 16);
    Tav::BinaryLogXmlReader& reader =
        wexbl_fuzz::exampleReader((pcapHeader.capturedLength & 1) != 0);

    MemoryFile expected;
    const bool comparable =
        printStepByStep(reader, pcapHeader, binLogHeader, payload, offset, expected.file);
    MemoryFile actual;
    reader.getLogDetailsForLogId(pcapHeader, binLogHeader, payload, static_cast<unsigned>(size),
                                 actual.file, offset);
    if (comparable) {
        // With statistics on, gap reports precede the line.
        const std::string line = actual.text();
        const std::string want = expected.text();
        if (line.size() < want.size() ||
            line.compare(line.size() - want.size(), want.size(), want) != 0) {
            fprintf(stderr, "record path printed\n%s\nstep by step\n%s\n", line.c_str(),
                    want.c_str());
            abort();
        }
    }
    // Rendering unknown levels grows the level table; keep runs independent.
    while (reader.logLevelNames.size() > 9) {
        reader.logLevelNames.erase(std::prev(reader.logLevelNames.end()));
    }
    return 0;
}
