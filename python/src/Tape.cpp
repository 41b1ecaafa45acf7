#include "Tape.h"

#include "WexOamBinLogXmlReader/Format.h"

namespace wexbl_python {

const char* const kKeyNames[kKeyCount] = {
    "capture",
    "record",
    "kind",
    "time",
    "epoch_us",
    "subsystem",
    "module",
    "log",
    "level",
    "level_no",
    "category",
    "tag",
    "message",
    "seq",
    "header",
    "params",
    "frame",
    "length",
    "text",
    "name",
    "index",
    "type",
    "value",
    "enum",
    "event",
    "offset",
    "error",
    "uncompressed_bytes",
    "link_type",
    "expected",
    "present",
    "log_id",
    "packet_type",
    "payload",
    "skipped",
    "compressed_skipped",
    "found",
    "version",
    "expected_version",
    "size",
    "count",
    "display",
    "last_seq",
    "missing",
    "missing_before",
    "total",
    "out_of_order",
    "bytes",
    "received_per_ms",
    "generated_per_ms",
};

namespace {

/// The largest magnitude a double holds exactly (2^53 - 1): what the JSON
/// output writes as a number.
constexpr std::uint64_t kMaxSafeInteger = (std::uint64_t{1} << 53) - 1;

const char kHexDigits[] = "0123456789abcdef";

std::string_view kindName(Tav::RecordKind kind) {
    switch (kind) {
        case Tav::RecordKind::BinLog:
            return "binlog";
        case Tav::RecordKind::Legacy:
            return "legacy";
        case Tav::RecordKind::Syslog:
            return "syslog";
        case Tav::RecordKind::Capture:
            return "capture";
    }
    return "";
}

/// The line without its line feed.
std::string_view withoutLineFeed(std::string_view text) {
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

void TapeWriter::unsignedValue(std::uint64_t value) {
    if (value > kMaxSafeInteger) {
        string(std::to_string(value));
        return;
    }
    raw8(kUnsigned, &value);
}

void TapeWriter::signedValue(std::int64_t value) {
    if (value > static_cast<std::int64_t>(kMaxSafeInteger) ||
        value < -static_cast<std::int64_t>(kMaxSafeInteger)) {
        string(std::to_string(value));
        return;
    }
    raw8(kSigned, &value);
}

void TapeWriter::hexNumber(std::uint32_t value) {
    char buf[10];
    char* const end = buf + sizeof buf;
    char* at = end;
    do {
        *--at = kHexDigits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    *--at = 'x';
    *--at = '0';
    string(std::string_view(at, static_cast<std::size_t>(end - at)));
}

void TapeWriter::hexBytes(std::string_view bytes) {
    const std::size_t start = startString();
    tape_.resize(start + 2 * bytes.size());
    char* at = &tape_[start];
    for (const char byte : bytes) {
        const auto c = static_cast<unsigned char>(byte);
        at[0] = kHexDigits[c >> 4];
        at[1] = kHexDigits[c & 0xF];
        at += 2;
    }
    finishString(start);
}

void TapeWriter::fields(Tav::View<Tav::ParamField> values, bool texts) {
    op(kListBegin);
    for (const Tav::ParamField& field : values) {
        op(kDictBegin);
        key(kName);
        cached(field.name);
        if (field.index >= 0) {
            key(kIndex);
            signedValue(field.index);
        }
        key(kType);
        cached(Tav::paramTypeName(field.type));
        key(kValue);
        if (field.isInteger()) {
            if (field.isSigned()) {
                signedValue(field.asSigned());
            } else {
                unsignedValue(field.raw);
            }
        } else if (field.type == Tav::ParamType::String) {
            string(field.bytes);
        } else {
            hexBytes(field.bytes);
        }
        if (texts) {
            key(kText);
            string(field.text);
        }
        if (!field.enumName.empty()) {
            key(kEnum);
            cached(field.enumName);
        }
        op(kEnd);
    }
    op(kEnd);
}

void TapeWriter::record(const Tav::Record& record) {
    const bool texts = !record.text.empty();
    op(kDictBegin);
    key(kCapture);
    cached(record.capture);
    key(kRecord);
    unsignedValue(record.number);
    key(kKind);
    cached(kindName(record.kind));
    key(kTime);
    const std::size_t time = startString();
    Tav::appendIsoTime(tape_, record);
    finishString(time);
    key(kEpochUs);
    unsignedValue(std::uint64_t{record.pcapHeader.tsSec} * 1000000u + record.pcapHeader.tsUsec);
    switch (record.kind) {
        case Tav::RecordKind::BinLog:
        case Tav::RecordKind::Legacy:
            key(kSubsystem);
            cached(record.subsystem);
            key(kModule);
            cached(record.module);
            key(kLog);
            cached(record.log);
            key(kLevel);
            cached(record.levelName);
            key(kLevelNo);
            unsignedValue(record.level);
            key(kCategory);
            cached(record.category);
            break;
        case Tav::RecordKind::Syslog:
            key(kLevel);
            cached(record.levelName);
            key(kLevelNo);
            unsignedValue(record.level);
            key(kTag);
            string(record.syslogTag);
            key(kMessage);
            string(record.syslogMessage);
            break;
        case Tav::RecordKind::Capture:
            break;
    }
    key(kSeq);
    unsignedValue(record.seqNo);
    switch (record.kind) {
        case Tav::RecordKind::BinLog:
            key(kHeader);
            fields(record.header(), texts);
            key(kParams);
            fields(record.params(), texts);
            break;
        case Tav::RecordKind::Legacy: {
            key(kFrame);
            // "FFFF-SS": the frame number (10 bits of the stamp / 10) and the
            // subframe, as the line shows them.
            const std::uint32_t stamp = record.frameTiming;
            const std::uint32_t frame = (stamp / 10) & 0x3FFu;
            const char text[7] = {static_cast<char>('0' + frame / 1000),
                                  static_cast<char>('0' + frame / 100 % 10),
                                  static_cast<char>('0' + frame / 10 % 10),
                                  static_cast<char>('0' + frame % 10),
                                  '-',
                                  '0',
                                  static_cast<char>('0' + stamp % 10)};
            string(std::string_view(text, sizeof text));
            key(kParams);
            fields(record.params(), texts);
            break;
        }
        case Tav::RecordKind::Syslog:
            break;
        case Tav::RecordKind::Capture:
            key(kLength);
            unsignedValue(record.pcapHeader.storageLength);
            break;
    }
    if (texts) {
        key(kText);
        string(withoutLineFeed(record.text));
    }
    op(kEnd);
}

void TapeWriter::event(const Tav::Event& event) {
    using Tav::EventKind;
    op(kDictBegin);
    key(kEvent);
    cached(Tav::eventName(event.kind));
    key(kCapture);
    cached(event.capture);
    key(kRecord);
    unsignedValue(event.record);
    key(kOffset);
    unsignedValue(event.offset);
    switch (event.kind) {
        case EventKind::OpenFailed:
        case EventKind::ReadError:
            key(kError);
            string(event.name);
            break;
        case EventKind::DataError:
            key(kError);
            string(event.name);
            key(kUncompressedBytes);
            signedValue(event.count);
            break;
        case EventKind::BadLinkType:
            key(kLinkType);
            unsignedValue(event.length);
            break;
        case EventKind::Oversized:
        case EventKind::SyslogTooShort:
            key(kLength);
            unsignedValue(event.length);
            break;
        case EventKind::Truncated:
            // A damaged pcapng block has no record length to tell.
            if (event.length != 0) {
                key(kExpected);
                unsignedValue(event.length);
                key(kPresent);
                signedValue(event.count);
            }
            break;
        case EventKind::UnknownLogId:
        case EventKind::InvalidPacketType:
            key(kLogId);
            hexNumber(event.logId);
            key(kPacketType);
            unsignedValue(event.packetType);
            key(kEpochUs);
            unsignedValue(std::uint64_t{event.pcapHeader.tsSec} * 1000000u +
                          event.pcapHeader.tsUsec);
            key(kLevelNo);
            unsignedValue(event.binLogHeader.logLevel);
            key(kSeq);
            unsignedValue(event.binLogHeader.seqNo);
            key(kPayload);
            hexBytes(event.payload);
            break;
        case EventKind::Resync:
            key(kSkipped);
            signedValue(event.count);
            key(kCompressedSkipped);
            unsignedValue(event.compressedSkipped);
            key(kFound);
            op(event.length != 0 ? kTrue : kFalse);
            break;
        case EventKind::VersionMismatch:
            key(kLogId);
            hexNumber(event.logId);
            key(kLog);
            string(event.name);
            key(kVersion);
            unsignedValue(event.version);
            key(kExpectedVersion);
            unsignedValue(event.expectedVersion);
            break;
        case EventKind::LevelOutOfRange:
            key(kLogId);
            hexNumber(event.logId);
            key(kLog);
            string(event.name);
            key(kLevelNo);
            unsignedValue(event.level);
            break;
        case EventKind::VarBinaryTooLong:
            key(kSize);
            unsignedValue(event.length);
            key(kCount);
            signedValue(event.count);
            break;
        case EventKind::DisplayNotFound:
            key(kDisplay);
            string(event.name);
            break;
        case EventKind::Gap:
        case EventKind::Reorder:
            key(kModule);
            hexNumber(event.module);
            key(kLastSeq);
            signedValue(event.lastSeqNo);
            key(kSeq);
            signedValue(event.seqNo);
            if (event.kind == EventKind::Gap) {
                key(kMissing);
                signedValue(event.missing);
                key(kMissingBefore);
                signedValue(event.missingBefore);
            }
            break;
        case EventKind::Summary:
            key(kTotal);
            unsignedValue(event.summary.totalRecords);
            key(kMissing);
            unsignedValue(event.summary.missingRecords);
            key(kOutOfOrder);
            unsignedValue(event.summary.outOfOrderRecords);
            key(kBytes);
            unsignedValue(event.summary.totalRecordBytes);
            if (event.summary.ratesShown) {
                key(kReceivedPerMs);
                raw8(kDouble, &event.summary.receivedPerMs);
                key(kGeneratedPerMs);
                raw8(kDouble, &event.summary.generatedPerMs);
            }
            break;
        case EventKind::NoGlobalHeader:
        case EventKind::NotACapture:
        case EventKind::DisplayUnavailable:
        case EventKind::TimestampFailed:
        case EventKind::Note:
            break;
    }
    key(kMessage);
    string(withoutLineFeed(event.text));
    op(kEnd);
}

}  // namespace wexbl_python
