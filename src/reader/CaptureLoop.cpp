// readBinaryFiledata: one capture file read record by record through the
// capture layer in its strict mode (the original pcap format, link types 150
// and 1 with the fixed Ethernet framing), each record handed to the
// dispatcher, the statistics printed at the normal end of the file.
//
// A damaged compressed stream is not the end of the file: every complete
// record inflated before the damage is decoded, then the data error is
// reported with the number of uncompressed bytes before it, and the file
// ends as it does on a truncated record (no statistics).
#include <cstdio>

#include "BinaryLogXmlReader.h"
#include "capture/Framing.h"
#include "capture/PcapReader.h"
#include "capture/RecordHeaders.h"
#include "capture/Source.h"
#include "capture/Unframe.h"
#include "reader/ReaderCore.h"

namespace Tav {

int BinaryLogXmlReader::getLogDetailsForLogId(const PcapRecHeader& pcapHeader,
                                              const BinLogHeader& binLogHeader,
                                              const ByteReader& payload, unsigned int length,
                                              FILE* out, int utcOffsetMinutes) {
    // The caller may have changed the level table since the last call.
    core_->decoder.forgetLevels();
    const int result = core_->dispatch(pcapHeader, binLogHeader, payload, length, out,
                                       utcOffsetMinutes, detail::RecordOrigin());
    core_->printer.flush();
    return result;
}

void BinaryLogXmlReader::readBinaryFiledata(const std::string& path, int utcOffsetMinutes,
                                            FILE* out) {
    detail::Printer& printer = core_->printer;
    printer.setOutput(out);
    // The caller may have changed the level table since the last call.
    core_->decoder.forgetLevels();
    // zlib alone, as the original loop inflated.
    std::unique_ptr<capture::ByteSource> source = capture::openFile(path, capture::Inflater::Zlib);
    if (!source) {
        fprintf(stderr, "File open failed [%s]\n", path.c_str());
        return;
    }
    capture::PcapReader pcap(*source, true);
    auto dataError = [&source]() {
        fprintf(stderr, "Warning: capture data error: %s after %llu bytes\n",
                source->error().c_str(), static_cast<unsigned long long>(source->errorOffset()));
    };
    switch (pcap.open()) {
        case capture::ReadResult::Ok:
            break;
        case capture::ReadResult::DataError:
            dataError();
            return;
        default:
            fprintf(stderr, "No global header found\n");
            return;
    }
    const std::uint32_t linkType = pcap.linkType();
    if (linkType != capture::kLinkEthernet && linkType != capture::kLinkBinLog) {
        fprintf(stderr, "Invalid link type %d found. Not a valid log pcap file\n",
                static_cast<int>(linkType));
        return;
    }

    detail::RecordOrigin origin;
    origin.capture = path;
    capture::RawRecord raw;
    for (;;) {
        const capture::ReadResult result = pcap.next(raw);
        if (result == capture::ReadResult::Record && linkType == capture::kLinkBinLog) {
            // The record is the binary log itself.
            origin.number = raw.number;
            origin.offset = raw.offset;
            core_->dispatch(raw.header, detail::readBinLogHeader(raw.data, 0),
                            raw.data.from(sizeof(BinLogHeader)), raw.header.storageLength, out,
                            utcOffsetMinutes, origin);
            continue;
        }
        if (result == capture::ReadResult::Record) {
            const capture::Unframed frame =
                capture::unframe(linkType, raw.header, raw.data, udpPort, true);
            if (frame.status == capture::FrameStatus::Ok) {
                origin.number = raw.number;
                origin.offset = raw.offset;
                core_->dispatch(frame.pcapHeader, frame.binLogHeader, frame.payload,
                                frame.statsLength, out, utcOffsetMinutes, origin);
            }
            continue;
        }
        printer.flush();
        switch (result) {
            case capture::ReadResult::Oversized:
                fprintf(stderr, "pHdr storageLength %d is more thanMAX_BINLOG_LENGTH\n",
                        static_cast<int>(pcap.oversizedLength()));
                return;
            case capture::ReadResult::Truncated:
                fprintf(stderr,
                        "Warning: Possibly truncated file. Actual payloadBytes :%d Expected "
                        "payloadBytes :%d\n",
                        static_cast<int>(pcap.truncatedGot()),
                        static_cast<int>(pcap.truncatedExpected()));
                return;
            case capture::ReadResult::DataError:
                dataError();
                return;
            case capture::ReadResult::ReadError:
                if (pcap.truncatedExpected() != 0) {
                    // The read of the record's data failed.
                    fprintf(stderr,
                            "Warning: Possibly truncated file. Actual payloadBytes :%d Expected "
                            "payloadBytes :%d\n",
                            -1, static_cast<int>(pcap.truncatedExpected()));
                    return;
                }
                break;  // a record header that cannot be read ends the file
            default:
                break;
        }
        // The normal end of the file.
        source.reset();
        if (statsEnabled) {
            statsCollector.printStats(out);
        }
        return;
    }
}

}  // namespace Tav
