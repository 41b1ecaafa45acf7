// Syslog records and plain capture records.
//
// Syslog payload: a 16-byte tag, then the message (storageLength - 32
// bytes: the record less its binary log header and the tag).
//   [time] [syslog] [tag] [level] [seqNo] [message]
// Plain capture records show their header only:
//   [time] [wireshark] [length=N] [seqNo=N]
#include <cstdio>
#include <cstring>

#include "records/Decoder.h"

namespace Tav {
namespace detail {

int RecordDecoder::decodeSyslog(const ByteReader& payload) {
    constexpr std::uint32_t kHeaderBytes = kSyslogHeaderBytes;
    const std::uint32_t storageLength = pcap_.storageLength;
    if (storageLength < kHeaderBytes) {
        Event event;
        event.kind = EventKind::SyslogTooShort;
        event.length = storageLength;
        char text[96];
        const int length = snprintf(
            text, sizeof text,
            "Syslog record skipped: storageLength %u is shorter than its %u header bytes\n",
            storageLength, kHeaderBytes);
        emit(event, std::string_view(text, static_cast<std::size_t>(length)));
        return -1;
    }
    arena_.clear();
    char* tag = arena_.grow(16);
    payload.copy(0, tag, 16);
    const std::string_view tagText = printed(arena_.view(0, 16));
    // The message never takes more than the record really holds.
    const std::size_t declared = storageLength - kHeaderBytes;
    const std::size_t have = payload.available(16);
    const std::size_t take = declared < have ? declared : have;
    const std::string_view message(
        take == 0 ? "" : reinterpret_cast<const char*>(payload.data()) + 16, take);

    record_.kind = RecordKind::Syslog;
    record_.syslogTag = tagText;
    record_.syslogMessage = message;
    const LevelTable::Level& level = levels_->get(header_.logLevel);
    record_.levelName = *level.name;
    if (!filterKeeps()) {
        return 0;
    }
    produced_ = true;
    if (!settings_.texts) {
        return 0;
    }
    startLine(pcap_);
    appendLiteral(*line_, "] [syslog] [");
    appendPadded(*line_, tagText, 16);
    appendLiteral(*line_, "] [");
    line_->append(level.padded);
    appendLiteral(*line_, "] [");
    appendDecimal(*line_, header_.seqNo);
    appendLiteral(*line_, "] [");
    // Line feeds show as "\n" so that the record stays on one line; the
    // message is printed up to its first NUL.
    const std::size_t messageStart = line_->size();
    for (const char c : printed(message)) {
        if (c == '\n') {
            appendLiteral(*line_, "\\n");
        } else {
            line_->push_back(c);
        }
    }
    const std::size_t messageEnd = line_->size();
    appendLiteral(*line_, "]\n");
    record_.text = line_->view(lineStart_, line_->size() - lineStart_);
    record_.message = line_->view(messageStart, messageEnd - messageStart);
    return 0;
}

void RecordDecoder::decodeCapture() {
    record_.kind = RecordKind::Capture;
    if (!filterKeeps()) {
        return;
    }
    produced_ = true;
    if (!settings_.texts) {
        return;
    }
    startLine(pcap_);
    appendLiteral(*line_, "] [wireshark] [length=");
    appendDecimal(*line_, static_cast<int>(pcap_.storageLength));
    appendLiteral(*line_, "] [seqNo=");
    appendDecimalPadded(*line_, static_cast<int>(header_.seqNo), 10);
    appendLiteral(*line_, "]\n");
    record_.text = line_->view(lineStart_, line_->size() - lineStart_);
}

}  // namespace detail
}  // namespace Tav
