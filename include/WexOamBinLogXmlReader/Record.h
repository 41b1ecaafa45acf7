// Decoded records and events as values.
//
// A capture stream (CaptureStream.h) hands out, in capture order, the records
// of a capture and the events around them: every diagnostic and statistic the
// reader prints, with its numbers and its exact text. The values are views:
// everything a Record or Event refers to stays valid until the stream's next
// call, so a warm stream decodes without allocating.
#ifndef WEX_OAM_BINLOG_RECORD_H
#define WEX_OAM_BINLOG_RECORD_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "../BinLogRecordHeaders.h"
#include "../WexOamBinLogXmlReaderExport.h"

namespace Tav {

namespace detail {
class RecordDecoder;
}  // namespace detail

/// A read-only run of `size` values.
template <typename T>
class View {
  public:
    View() = default;
    View(const T* data, std::size_t size) : data_(data), size_(size) {}
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }
    const T& operator[](std::size_t i) const { return data_[i]; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

  private:
    const T* data_ = nullptr;
    std::size_t size_ = 0;
};

/// What a record is, from the packet type of its binary log header.
enum class RecordKind : std::uint8_t {
    BinLog,   ///< a binary log message described by the dictionary
    Legacy,   ///< a legacy log record with its fixed payload layout
    Syslog,   ///< a syslog text record
    Capture,  ///< a plain captured packet: only its header is shown
};

/// The wire type of a parameter, in the order the payload groups them.
enum class ParamType : std::uint8_t {
    Uint64,
    Int64,
    Uint32,
    Int32,
    Uint16,
    Int16,
    Uint8,
    Int8,
    String,           ///< NUL-padded text of a fixed size
    BinaryString,     ///< raw bytes of a fixed size
    VarBinaryString,  ///< a 16-bit count, then that many raw bytes
};

/// The dictionary's name of a type ("TavUint32_t", "string", ...).
WEXBL_API const char* paramTypeName(ParamType type);

/// One decoded value: a scalar parameter, one element of an array parameter,
/// or a string kind.
struct ParamField {
    std::string_view name;
    ParamType type = ParamType::Uint8;
    /// The element's index for an element of an array parameter, else -1.
    std::int32_t index = -1;
    /// Integer kinds: the value as read; signed kinds sign-extended.
    std::uint64_t raw = 0;
    /// String: the text (up to its first NUL). Binary strings: the raw bytes.
    /// Var binary strings: the bytes its count covers (up to the declared
    /// size). Bytes that lie beyond the record read as zero bytes.
    std::string_view bytes;
    /// The display text, exactly as the line shows the value (for an array
    /// element: the element's text). Empty when the stream was opened
    /// without texts.
    std::string_view text;
    /// The enumeration whose name gave the text; empty otherwise.
    std::string_view enumName;

    bool isSigned() const {
        return type == ParamType::Int64 || type == ParamType::Int32 || type == ParamType::Int16 ||
               type == ParamType::Int8;
    }
    bool isInteger() const { return type < ParamType::String; }
    std::int64_t asSigned() const { return static_cast<std::int64_t>(raw); }
};

/// One decoded record.
struct Record {
    RecordKind kind = RecordKind::BinLog;
    /// The capture's name as given when the stream was opened.
    std::string_view capture;
    /// 1-based number of the record in its capture (every pcap record counts,
    /// also those that carry no log).
    std::uint64_t number = 0;
    /// Offset of the record's pcap header in the uncompressed capture.
    std::uint64_t offset = 0;
    /// The record time as shown: the sender's time plus the UTC offset
    /// (pcapHeader holds the sender's time itself).
    std::uint32_t seconds = 0;
    std::uint32_t microseconds = 0;
    /// The offset the stream adds, in minutes.
    std::int32_t utcOffsetMinutes = 0;
    /// The headers the record was decoded from (for UDP framings the sender's
    /// embedded record header).
    PcapRecHeader pcapHeader;
    BinLogHeader binLogHeader;
    /// Binary log and legacy records: the two halves of the log id.
    std::uint16_t moduleKey = 0;
    std::uint16_t logIndex = 0;
    std::string_view subsystem;
    std::string_view module;
    std::string_view log;
    std::uint16_t level = 0;
    std::string_view levelName;
    std::string_view category;
    std::uint32_t seqNo = 0;
    /// Binary log records: the module header's values and the log's own, in
    /// declaration order (array elements one by one). Legacy records (no
    /// header): the first five unsigned 32-bit parameters, the first four
    /// unsigned 8-bit ones and the first two strings that the fixed layout
    /// fills. The values are decoded when first asked for, so a program that
    /// does not look at them does not pay for them; empty when the stream
    /// was opened without values.
    WEXBL_API View<ParamField> header() const;
    WEXBL_API View<ParamField> params() const;
    /// Legacy records: frame number x 10 + subframe.
    std::uint32_t frameTiming = 0;
    /// Syslog records: the 16-byte tag up to its first NUL, and the message
    /// as received (line feeds kept).
    std::string_view syslogTag;
    std::string_view syslogMessage;
    /// The exact line the reader prints for this record, line feed included.
    /// Empty when the stream was opened without texts.
    std::string_view text;
    /// The message part of the line: for a binary log record its last field
    /// (the log string with its values), for a legacy record the log string
    /// and the values after it, for a syslog record the message as the line
    /// shows it; empty for a plain capture record and without texts.
    std::string_view message;

    /// The decoder that gives the values (the library's own).
    const detail::RecordDecoder* source = nullptr;
};

/// What an event reports.
enum class EventKind : std::uint8_t {
    // Before the first record of a capture.
    OpenFailed,      ///< the capture cannot be opened
    NoGlobalHeader,  ///< shorter than a pcap file header
    BadLinkType,     ///< a link type that carries no log records
    NotACapture,     ///< not a pcap or pcapng file (streams that read more formats)
    // Ends of a capture other than the normal one.
    Oversized,  ///< a record longer than 25000 bytes: the rest is skipped
    Truncated,  ///< the capture ends inside a record
    DataError,  ///< corrupt compressed data after the records before it
    ReadError,  ///< the system failed to read the capture
    // Records that are not printed, and messages about values.
    UnknownLogId,        ///< no dictionary entry for the log id
    VersionMismatch,     ///< the record's version differs from its module's
    LevelOutOfRange,     ///< a level above the level table's size
    InvalidPacketType,   ///< a packet type the reader does not know
    SyslogTooShort,      ///< a syslog record shorter than its two headers
    VarBinaryTooLong,    ///< a var binary count above its declared size
    DisplayNotFound,     ///< a display format that names no enumeration
    DisplayUnavailable,  ///< the enumerations did not load
    TimestampFailed,     ///< the record time cannot be converted
    // Statistics (streams with statistics on).
    Gap,      ///< sequence numbers were skipped
    Reorder,  ///< a record arrived after a higher sequence number
    Summary,  ///< the end-of-capture statistics
    // Streams that read more than the original formats.
    Note,  ///< information about the capture (format, framing) on standard error
    /// Streams that resynchronise after damage: the bytes skipped.
    Resync,
};

/// Where the reader prints an event's text.
enum class EventStream : std::uint8_t { Output, Error };

/// The end-of-capture statistics.
struct StatsSummary {
    std::uint32_t totalRecords = 0;
    std::uint32_t missingRecords = 0;
    std::uint32_t outOfOrderRecords = 0;
    std::uint64_t totalRecordBytes = 0;
    bool ratesShown = false;
    double receivedPerMs = 0;
    double generatedPerMs = 0;
};

/// One diagnostic or statistic. The numeric fields that do not apply to the
/// event's kind are zero.
struct Event {
    EventKind kind = EventKind::Note;
    EventStream stream = EventStream::Error;
    std::string_view capture;
    /// The record it concerns (0 before the first record) and its offset.
    std::uint64_t record = 0;
    std::uint64_t offset = 0;
    /// UnknownLogId, VersionMismatch, LevelOutOfRange, InvalidPacketType.
    std::uint32_t logId = 0;
    std::uint32_t packetType = 0;
    std::uint16_t level = 0;
    std::uint16_t version = 0;
    std::uint16_t expectedVersion = 0;
    /// Gap, Reorder: the module (high half of the log id) and the numbers.
    std::uint32_t module = 0;
    std::int32_t lastSeqNo = 0;
    std::int32_t seqNo = 0;
    /// Gap: numbers skipped; missing records counted before this gap.
    std::int32_t missing = 0;
    std::int32_t missingBefore = 0;
    /// BadLinkType: the link type. Oversized: the record length.
    /// Truncated: bytes expected. Resync: 1 when a record followed the
    /// skipped bytes, 0 when the capture ended in them. VarBinaryTooLong: the declared size.
    /// SyslogTooShort: the storage length.
    std::uint32_t length = 0;
    /// Truncated: bytes present (-1 after a read error). VarBinaryTooLong:
    /// the count in the payload. DataError: uncompressed bytes before it.
    /// Resync: uncompressed bytes skipped (`offset` is the first of them).
    std::int64_t count = 0;
    /// Resync: compressed bytes of the file skipped to resume inflating.
    std::uint64_t compressedSkipped = 0;
    /// VersionMismatch, LevelOutOfRange: the log's name. DisplayNotFound: the
    /// display format. DataError, ReadError, OpenFailed: the system's or
    /// zlib's message.
    std::string_view name;
    /// UnknownLogId, VersionMismatch, LevelOutOfRange, InvalidPacketType: the
    /// headers and payload of the record that was not printed.
    PcapRecHeader pcapHeader;
    BinLogHeader binLogHeader;
    std::string_view payload;
    /// Summary only.
    StatsSummary summary;
    /// The exact text the reader prints (line feed included where it has one).
    std::string_view text;
};

}  // namespace Tav

#endif
