// The state behind a capture stream, shared by the streams that decode
// captures and the one that decodes datagrams as they arrive.
#ifndef WEXBL_SRC_STREAM_STREAM_IMPL_H
#define WEXBL_SRC_STREAM_STREAM_IMPL_H

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "capture/Framing.h"
#include "capture/PcapReader.h"
#include "capture/RecordHeaders.h"
#include "capture/Source.h"
#include "capture/Unframe.h"
#include "reader/ReaderCore.h"
#include "records/Decoder.h"

namespace Tav {

namespace detail {

enum class StreamPhase { Open, Read, Done };

inline bool readableLinkType(std::uint32_t linkType) {
    switch (linkType) {
        case capture::kLinkNull:
        case capture::kLinkEthernet:
        case capture::kLinkRaw:
        case capture::kLinkLinuxSll:
        case capture::kLinkBinLog:
        case capture::kLinkIpv4:
        case capture::kLinkIpv6:
        case capture::kLinkLinuxSll2:
            return true;
        default:
            return false;
    }
}

inline const char* formatName(capture::CaptureFormat format) {
    switch (format) {
        case capture::CaptureFormat::PcapNano:
            return "a nanosecond pcap";
        case capture::CaptureFormat::PcapMicroSwapped:
            return "a big-endian pcap";
        case capture::CaptureFormat::PcapNanoSwapped:
            return "a big-endian nanosecond pcap";
        case capture::CaptureFormat::PcapNg:
            return "a pcapng";
        default:
            return "a pcap";
    }
}

}  // namespace detail

/// The decoding state streams of one session share.
struct StreamSession::State : detail::EventSink {
    explicit State(const BinaryLogXmlReader& reader)
        : levelNames(reader.logLevelNames), levels(levelNames), decoder(levels, stats, *this) {
        // The session's statistics are its own: only the decoder counts into
        // them, and they are cleared where the decoder is told.
        decoder.cacheSequences();
    }
    /// Streams set themselves as the sink before they decode.
    void emit(const Event&) override {}

    BinaryLogStatsCollector stats;
    std::map<std::uint16_t, std::string> levelNames;
    detail::LevelTable levels;
    detail::RecordDecoder decoder;
};

struct CaptureStream::Impl : detail::EventSink {
    Impl(const BinaryLogXmlReader& owner, const std::string& captureName,
         const StreamOptions& streamOptions, StreamSession::State* shared)
        : reader(owner),
          plans(detail::ReaderCore::plansOf(owner)),
          options(streamOptions),
          name(captureName),
          own(shared == nullptr ? std::make_unique<StreamSession::State>(owner) : nullptr),
          session(shared != nullptr ? *shared : *own),
          stats(session.stats),
          decoder(session.decoder) {
        settings.utcOffsetMinutes = options.utcOffsetMinutes;
        settings.maxVarBinaryBytes = options.maxVarBinaryBytes;
        settings.stats = options.stats;
        // A filter that compares values needs them, whatever the program asks.
        settings.fields =
            options.values || (options.filter != nullptr && options.filter->usesValues());
        settings.texts = options.texts;
        settings.filter = options.filter;
    }

    // ---- Events ----------------------------------------------------------------------------

    /// Queues an event; its texts are copied, since the item it belongs to
    /// is handed out later.
    void emit(const Event& event) override {
        Queued queued;
        queued.event = event;
        queued.text = store(event.text);
        queued.name = store(event.name);
        queue.push_back(queued);
    }

    struct Span {
        std::size_t offset = 0;
        std::size_t size = 0;
    };
    struct Queued {
        Event event;
        Span text;
        Span name;
    };
    Span store(std::string_view text) {
        Span span{queueText.size(), text.size()};
        queueText.append(text);
        return span;
    }

    /// Queues an event of the stream itself (not of a record) and returns
    /// it, for the caller to fill in its numbers.
    Event& streamEvent(EventKind kind, EventStream stream, const std::string& text,
                       std::string_view detail = std::string_view()) {
        Event event;
        event.kind = kind;
        event.stream = stream;
        event.capture = name;
        event.record = pcap ? pcap->records() : 0;
        event.offset = source ? source->offset() : 0;
        event.name = detail;
        event.text = text;
        emit(event);
        return queue.back().event;
    }

    // ---- Reading ---------------------------------------------------------------------------

    void open() {
        phase = detail::StreamPhase::Done;
        if (!source) {
            const int error = errno;
            damaged = true;
            streamEvent(EventKind::OpenFailed, EventStream::Error,
                        "File open failed [" + name + "]\n", std::strerror(error));
            return;
        }
        // The first bytes, for programs that say what a file holds.
        const std::size_t have = source->ensure(4);
        leading.assign(reinterpret_cast<const char*>(source->data()), have < 4 ? have : 4);
        if (!pcap) {
            pcap = std::make_unique<capture::PcapReader>(*source, options.strict);
        }
        const capture::ReadResult result = pcap->open();
        if (result == capture::ReadResult::Pending) {
            // A capture still being written (or a pipe) without its file
            // header yet: opened later.
            phase = detail::StreamPhase::Open;
            pending = true;
            return;
        }
        if (result != capture::ReadResult::Ok) {
            damaged = true;
            finish(result);
            return;
        }
        const std::uint32_t linkType = pcap->linkType();
        const bool pcapng = pcap->format() == capture::CaptureFormat::PcapNg;
        if (options.strict ? linkType != capture::kLinkEthernet && linkType != capture::kLinkBinLog
                           : !pcapng && !detail::readableLinkType(linkType)) {
            const std::string text = "Invalid link type " +
                                     std::to_string(static_cast<int>(linkType)) +
                                     " found. Not a valid log pcap file\n";
            streamEvent(EventKind::BadLinkType, EventStream::Error, text).length = linkType;
            damaged = true;
            return;
        }
        opened = true;
        if (!options.strict && pcap->format() != capture::CaptureFormat::PcapMicro) {
            note(std::string("Note: ") + detail::formatName(pcap->format()) +
                 " capture, which readBinaryFiledata does not read\n");
        }
        phase = detail::StreamPhase::Read;
    }

    void note(const std::string& text) { streamEvent(EventKind::Note, EventStream::Error, text); }

    /// Ends the capture on `result` (anything but a record).
    void finish(capture::ReadResult result) {
        phase = detail::StreamPhase::Done;
        char text[160];
        switch (result) {
            case capture::ReadResult::End:
                if (extendedFramings != 0) {
                    note("Note: " + std::to_string(extendedFramings) +
                         (extendedFramings == 1 ? " record" : " records") +
                         " in framings that readBinaryFiledata skips\n");
                }
                if (options.stats) {
                    StatsSummary figures;
                    const std::string summary = detail::summaryText(stats, figures);
                    stats.clearStats();
                    decoder.forgetSequences();
                    streamEvent(EventKind::Summary, EventStream::Output, summary).summary = figures;
                }
                return;
            case capture::ReadResult::NoGlobalHeader:
                streamEvent(EventKind::NoGlobalHeader, EventStream::Error,
                            "No global header found\n");
                break;
            case capture::ReadResult::NotACapture: {
                unsigned char magic[4] = {};
                const std::size_t have = source->available() < 4 ? source->available() : 4;
                if (have != 0) {
                    std::memcpy(magic, source->data(), have);
                }
                snprintf(text, sizeof text,
                         "Not a pcap or pcapng file: it starts with %02x %02x %02x %02x\n",
                         magic[0], magic[1], magic[2], magic[3]);
                streamEvent(EventKind::NotACapture, EventStream::Error, text);
                break;
            }
            case capture::ReadResult::Oversized:
                snprintf(text, sizeof text, "pHdr storageLength %d is more thanMAX_BINLOG_LENGTH\n",
                         static_cast<int>(pcap->oversizedLength()));
                streamEvent(EventKind::Oversized, EventStream::Error, text).length =
                    pcap->oversizedLength();
                break;
            case capture::ReadResult::Truncated:
                snprintf(text, sizeof text,
                         "Warning: Possibly truncated file. Actual payloadBytes :%d Expected "
                         "payloadBytes :%d\n",
                         static_cast<int>(pcap->truncatedGot()),
                         static_cast<int>(pcap->truncatedExpected()));
                {
                    Event& event = streamEvent(EventKind::Truncated, EventStream::Error, text);
                    event.length = pcap->truncatedExpected();
                    event.count = pcap->truncatedGot();
                }
                break;
            case capture::ReadResult::DataError:
                snprintf(text, sizeof text, "Warning: capture data error: %s after %llu bytes\n",
                         source->error().c_str(),
                         static_cast<unsigned long long>(source->errorOffset()));
                streamEvent(EventKind::DataError, EventStream::Error, text, source->error()).count =
                    static_cast<std::int64_t>(source->errorOffset());
                break;
            case capture::ReadResult::ReadError:
                snprintf(text, sizeof text, "Warning: capture read error: %s after %llu bytes\n",
                         source->error().c_str(),
                         static_cast<unsigned long long>(source->errorOffset()));
                streamEvent(EventKind::ReadError, EventStream::Error, text, source->error());
                break;
            case capture::ReadResult::BadBlock:
                snprintf(text, sizeof text,
                         "Warning: damaged pcapng block after %llu bytes: the rest is skipped\n",
                         static_cast<unsigned long long>(source->offset()));
                streamEvent(EventKind::Truncated, EventStream::Error, text);
                break;
            default:
                break;
        }
        damaged = true;
        if (options.resync && !options.strict && pcap && pcap->resync(resyncCheck())) {
            phase = detail::StreamPhase::Read;
        }
    }

    /// What a resync scan asks of a record besides a sound header: that it
    /// carries a binary log record of a known packet type, or is a UDP
    /// datagram to another port or another IP packet.
    std::function<bool(const capture::RawRecord&)> resyncCheck() const {
        const std::uint16_t port = options.udpPort;
        return [port](const capture::RawRecord& raw) {
            const auto known = [](const BinLogHeader& header) {
                return header.packetType <= PcapCapture;
            };
            if (raw.linkType == capture::kLinkBinLog) {
                return raw.data.size() >= sizeof(BinLogHeader) &&
                       known(detail::readBinLogHeader(raw.data, 0));
            }
            const capture::Unframed frame =
                capture::unframe(raw.linkType, raw.header, raw.data, port, false);
            return (frame.status == capture::FrameStatus::Ok && known(frame.binLogHeader)) ||
                   frame.status == capture::FrameStatus::OtherPort ||
                   frame.status == capture::FrameStatus::NotUdp;
        };
    }

    /// Reports the end of a resync scan.
    void resynced() {
        const std::uint64_t from = pcap->resyncFrom();
        const std::uint64_t to = pcap->resyncTo();
        const std::uint64_t compressedSkipped = pcap->resyncCompressedSkipped();
        std::string text = pcap->resyncFound()
                               ? "Resynchronised: skipped bytes " + std::to_string(from) + " to " +
                                     std::to_string(to) + " (" + std::to_string(to - from) +
                                     " bytes"
                               : "No record found after the damage: skipped "
                                 "bytes " +
                                     std::to_string(from) + " to " + std::to_string(to) +
                                     ", the end (" + std::to_string(to - from) + " bytes";
        if (compressedSkipped != 0) {
            text += ", and " + std::to_string(compressedSkipped) + " compressed bytes";
        }
        text += ")\n";
        Event& event = streamEvent(EventKind::Resync, EventStream::Error, text);
        event.offset = from;
        event.count = static_cast<std::int64_t>(to - from);
        event.length = pcap->resyncFound() ? 1 : 0;
        event.compressedSkipped = compressedSkipped;
    }

    /// Reads until an item is queued or the capture ends.
    void step() {
        if (phase == detail::StreamPhase::Open) {
            open();
            return;
        }
        // The session's decoder may have served another stream before.
        decoder.setSink(*this);
        decoder.setLineBuffer(nullptr);
        capture::RawRecord raw;
        while (phase == detail::StreamPhase::Read && queue.empty() && !recordReady) {
            if (stop.load(std::memory_order_relaxed)) {
                return;
            }
            const capture::ReadResult result = pcap->next(raw);
            if (result == capture::ReadResult::Pending) {
                pending = true;  // an incremental source has nothing yet
                return;
            }
            if (result == capture::ReadResult::Resynced) {
                resynced();
                continue;
            }
            if (result != capture::ReadResult::Record) {
                finish(result);
                return;
            }
            detail::RecordOrigin origin;
            origin.capture = name;
            origin.number = raw.number;
            origin.offset = raw.offset;
            if (raw.linkType == capture::kLinkBinLog) {
                // The record is the binary log itself.
                const BinLogHeader header = detail::readBinLogHeader(raw.data, 0);
                const ByteReader payload = raw.data.from(sizeof(BinLogHeader));
                keep(raw.header, header, payload, raw.header.storageLength, origin);
                decoder.decode(plans, settings, raw.header, header, payload,
                               raw.header.storageLength, origin);
                recordReady = decoder.produced();
                continue;
            }
            const capture::Unframed frame = capture::unframe(raw.linkType, raw.header, raw.data,
                                                             options.udpPort, options.strict);
            if (frame.status == capture::FrameStatus::Ok ||
                frame.status == capture::FrameStatus::OtherPort) {
                ++ports[frame.udpPort];
            }
            if (frame.status != capture::FrameStatus::Ok) {
                switch (frame.status) {
                    case capture::FrameStatus::NotIp:
                        ++skipped.notIp;
                        break;
                    case capture::FrameStatus::NotUdp:
                        ++skipped.notUdp;
                        break;
                    case capture::FrameStatus::OtherPort:
                        ++skipped.otherPort;
                        break;
                    case capture::FrameStatus::TooShort:
                        ++skipped.tooShort;
                        break;
                    default:
                        ++skipped.otherLinkType;
                        break;
                }
                continue;
            }
            if (!options.strict) {
                // Count the records the original loop would not have read.
                const capture::Unframed fixed =
                    capture::unframe(raw.linkType, raw.header, raw.data, options.udpPort, true);
                if (fixed.status != capture::FrameStatus::Ok ||
                    fixed.udpPayloadOffset != frame.udpPayloadOffset) {
                    ++extendedFramings;
                }
            }
            keep(frame.pcapHeader, frame.binLogHeader, frame.payload, frame.statsLength, origin);
            decoder.decode(plans, settings, frame.pcapHeader, frame.binLogHeader, frame.payload,
                           frame.statsLength, origin);
            recordReady = decoder.produced();
        }
    }

    /// What a record was decoded from, for a second decoding elsewhere (see
    /// ParallelStream): the payload is a view into the capture's bytes, valid
    /// until the stream reads on.
    struct DecodeInputs {
        PcapRecHeader pcap;
        BinLogHeader header;
        ByteReader payload;
        std::uint32_t statsLength = 0;
        std::uint64_t number = 0;
        std::uint64_t offset = 0;
    };

    void keep(const PcapRecHeader& pcapHeader, const BinLogHeader& header,
              const ByteReader& payload, std::uint32_t statsLength,
              const detail::RecordOrigin& origin) {
        if (keepInputs) {
            inputs.pcap = pcapHeader;
            inputs.header = header;
            inputs.payload = payload;
            inputs.statsLength = statsLength;
            inputs.number = origin.number;
            inputs.offset = origin.offset;
        }
    }

    /// Decodes one datagram received live (see DatagramStream).
    void pushDatagram(const ByteReader& datagram, std::uint64_t number) {
        decoder.setSink(*this);
        decoder.setLineBuffer(nullptr);
        const capture::Unframed frame = capture::unframeDatagram(datagram);
        detail::RecordOrigin origin;
        origin.capture = name;
        origin.number = number;
        decoder.decode(plans, settings, frame.pcapHeader, frame.binLogHeader, frame.payload,
                       frame.statsLength, origin);
        recordReady = decoder.produced();
    }

    bool next() {
        item = Item::None;
        waiting = false;
        if (nextQueued < queue.size()) {
            return takeEvent();
        }
        if (!queue.empty()) {
            queue.clear();
            queueText.clear();
            nextQueued = 0;
        }
        if (recordReady) {
            recordReady = false;
            item = Item::Record;
            return true;
        }
        if (stop.load(std::memory_order_relaxed)) {
            return false;
        }
        while (phase != detail::StreamPhase::Done && queue.empty() && !recordReady && !pending) {
            step();
            if (stop.load(std::memory_order_relaxed)) {
                break;
            }
        }
        waiting = pending;
        pending = false;
        if (nextQueued < queue.size()) {
            return takeEvent();
        }
        if (recordReady) {
            recordReady = false;
            item = Item::Record;
            return true;
        }
        return false;
    }

    bool takeEvent() {
        const Queued& queued = queue[nextQueued++];
        current = queued.event;
        current.text = std::string_view(queueText.data() + queued.text.offset, queued.text.size);
        current.name = std::string_view(queueText.data() + queued.name.offset, queued.name.size);
        current.capture = name;
        item = Item::Event;
        return true;
    }

    enum class Item { None, Record, Event };

    const BinaryLogXmlReader& reader;
    const detail::PlanSet& plans;
    StreamOptions options;
    detail::DecodeSettings settings;
    std::string name;
    std::unique_ptr<StreamSession::State> own;
    StreamSession::State& session;
    BinaryLogStatsCollector& stats;
    detail::RecordDecoder& decoder;
    std::unique_ptr<capture::ByteSource> source;
    std::unique_ptr<capture::PcapReader> pcap;

    detail::StreamPhase phase = detail::StreamPhase::Open;
    bool opened = false;
    bool damaged = false;
    bool recordReady = false;
    bool pending = false;
    bool waiting = false;  // the last next() found no bytes yet
    CaptureStream::SkippedFrames skipped;
    std::map<std::uint16_t, std::uint64_t> ports;
    std::string leading;
    std::uint64_t extendedFramings = 0;
    std::vector<Queued> queue;
    std::size_t nextQueued = 0;
    std::string queueText;
    Item item = Item::None;
    Event current;
    std::atomic<bool> stop{false};
    /// Keep each record's DecodeInputs in `inputs`.
    bool keepInputs = false;
    DecodeInputs inputs;
};

}  // namespace Tav

#endif
