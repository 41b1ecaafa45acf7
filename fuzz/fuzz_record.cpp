// Fuzzes the dispatcher with one record: arbitrary headers and payload.
//
// Input: 16 bytes of pcap record header, 16 bytes of binary log header, then
// the payload (exactly as long as the rest of the input, on the heap, so any
// read past it is caught).
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzSupport.h"

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
    std::unique_ptr<unsigned char[]> payload(new unsigned char[payloadSize + 1]);
    if (payloadSize != 0) {
        memcpy(payload.get(), data + 32, payloadSize);
    }
    Tav::BinaryLogXmlReader& reader =
        wexbl_fuzz::exampleReader((pcapHeader.capturedLength & 1) != 0);
    reader.getLogDetailsForLogId(
        pcapHeader, binLogHeader, Tav::ByteReader(payload.get(), payloadSize),
        static_cast<unsigned>(size), wexbl_fuzz::sink(),
        static_cast<int>(static_cast<int16_t>(pcapHeader.capturedLength >> 16)));
    // Rendering unknown levels grows the level table; keep runs independent.
    while (reader.logLevelNames.size() > 9) {
        reader.logLevelNames.erase(std::prev(reader.logLevelNames.end()));
    }
    return 0;
}
