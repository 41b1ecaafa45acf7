// Fuzzes the dispatcher with one record: arbitrary headers and payload, and
// optionally an arbitrary log string for the record's log.
//
// Input: 16 bytes of pcap record header, 16 bytes of binary log header, then
// the payload (exactly as long as the rest of the input, on the heap, so any
// read past it is caught). In the pcap header's capturedLength, bit 0 turns
// statistics on, the high 16 bits are the UTC offset in minutes, and bit 1
// says that the record's log gets a log string of the input's choosing: the
// first payload byte is then its length N, the next N bytes (as many as there
// are) are the string, and the payload is what follows.
//
// A binary log record that the dispatcher prints is also decoded step by step
// into copies and printed with displayBinLog, and its line is rebuilt from
// those copies with the placeholder rule written out in FuzzSupport.h; the
// dispatcher's line must equal both.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"

namespace {

constexpr std::uint32_t kStats = 1;
constexpr std::uint32_t kOwnLogString = 2;

/// The reader of this target: a log string of the input's choosing is
/// written into its dictionary, so it is not shared with other code.
Tav::BinaryLogXmlReader& recordReader() {
    static Tav::BinaryLogXmlReader reader(wexbl_fuzz::dictionaryDir(), false, 5000, 64);
    return reader;
}

/// Gives a log of the reader a new log string, and puts the original back
/// before the next input changes anything.
class LogStringOverride {
  public:
    /// Restores the log string changed last, if any.
    void restore(Tav::BinaryLogXmlReader& reader) {
        if (log_ != nullptr) {
            log_->logString = original_;
            log_ = nullptr;
            reader.rebuildPlans();
        }
    }
    /// Sets the log string of the log `logId` names, if there is one.
    void set(Tav::BinaryLogXmlReader& reader, std::uint32_t logId, const std::string& text) {
        const auto logs = reader.logDetailsMap.find(static_cast<std::uint16_t>(logId >> 16));
        if (logs == reader.logDetailsMap.end()) {
            return;
        }
        const auto log = logs->second.find(static_cast<std::uint16_t>(logId & 0xFFFF));
        if (log == logs->second.end()) {
            return;
        }
        log_ = &log->second;
        original_ = log_->logString;
        log_->logString = text;
        reader.rebuildPlans();
    }

  private:
    Tav::LogDetails* log_ = nullptr;
    std::string original_;
};

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

    Tav::BinaryLogXmlReader& reader = recordReader();
    static LogStringOverride logString;
    logString.restore(reader);
    size_t payloadStart = size > 32 ? 32 : size;
    if ((pcapHeader.capturedLength & kOwnLogString) != 0 && payloadStart < size) {
        const size_t length = data[payloadStart];
        const size_t available = size - payloadStart - 1;
        const size_t taken = length < available ? length : available;
        logString.set(reader, binLogHeader.logId,
                      std::string(reinterpret_cast<const char*>(data + payloadStart + 1), taken));
        payloadStart += 1 + taken;
    }
    reader.statsEnabled = (pcapHeader.capturedLength & kStats) != 0;

    const size_t payloadSize = size - payloadStart;
    std::unique_ptr<unsigned char[]> bytes(new unsigned char[payloadSize + 1]);
    if (payloadSize != 0) {
        memcpy(bytes.get(), data + payloadStart, payloadSize);
    }
    const Tav::ByteReader payload(bytes.get(), payloadSize);
    const int offset = static_cast<int16_t>(pcapHeader.capturedLength >> 16);

    wexbl_fuzz::StepByStep decoded;
    const bool comparable =
        wexbl_fuzz::decodeStepByStep(reader, pcapHeader, binLogHeader, payload, offset, decoded);
    wexbl_fuzz::MemoryFile actual;
    reader.getLogDetailsForLogId(pcapHeader, binLogHeader, payload, static_cast<unsigned>(size),
                                 actual.file(), offset);
    if (comparable) {
        wexbl_fuzz::checkRecordLine(reader, binLogHeader, decoded, actual.text());
    }
    wexbl_fuzz::trimLevels(reader);
    return 0;
}
