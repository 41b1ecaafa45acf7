// Records and events as JSON Lines and CSV.
//
// JSON: one object per record or event, on one line (no line feed added).
// Every output is valid JSON for any input. Strings keep valid UTF-8 as it
// is; every byte that is not part of a well-formed UTF-8 sequence (stray
// continuation bytes, overlong forms, surrogates, code points above
// U+10FFFF, cut-short sequences) is written as the character of the same
// value, \u0080 .. \u00ff, one escape per byte; control characters and DEL
// as \u00XX (line feed, carriage return and tab as \n \r \t), the quote and
// the backslash as \" and \\. Integers whose magnitude is 2^53 or more
// (which a double does not hold exactly) are written as strings of their
// decimal digits.
//
// A record, keys in this order:
//   "capture"   the capture's name
//   "record"    the record's number in its capture (1-based)
//   "kind"      "binlog", "legacy", "syslog" or "capture"
//   "time"      the shown time (the sender's time plus the stream's offset)
//               in ISO 8601 with milliseconds and that offset:
//               "2024-05-01T14:00:00.020+02:00", "...-05:30", "...Z" for 0;
//               the milliseconds are those of the line (microseconds / 1000,
//               truncated; a count of a million or more shows as the line
//               shows it, ".1500")
//   "epoch_us"  the sender's time in microseconds since 1970:
//               pcapHeader.tsSec * 1000000 + pcapHeader.tsUsec
//   binlog and legacy:
//     "subsystem", "module", "log", "level" (the level's name),
//     "level_no" (its number), "category"
//   syslog:
//     "level", "level_no", "tag", "message" (the message as received, line
//     feeds kept, up to the end of the record)
//   "seq"       the sequence number
//   binlog:
//     "header", "params": the module header's values and the log's own, in
//     declaration order, each {"name", "index" (array elements only), "type"
//     (the dictionary's type name), "value", "text", "enum" (only when an
//     enumeration gave the text: its name)}. "value" is a number for the
//     integer types (negative for negative values of the signed types), a
//     string of lower-case hex digits of the bytes for binarystring and
//     varbinarystring, a string for string.
//   legacy:
//     "frame" ("FFFF-SS" as the line shows it), "params" (as above)
//   capture:
//     "length"  the record's storage length
//   "text"      the line the text format prints, without its line feed
// "text" (of the record and of every value) is absent when the stream was
// opened without texts; "header" and "params" are empty arrays when it was
// opened without values.
//
// An event: {"event": its name (eventName()), "capture", "record" (the
// record it concerns, 0 before the first), "offset", then what applies to
// the kind, then "message": the text the reader prints, without its last
// line feed (the summary's inner line feeds kept as \n)}. Log ids and
// modules are strings in the hex the messages use ("0x1020009", "0x102");
// everything else is a number unless said otherwise:
//   open-failed, read-error   "error" (the system's message, a string)
//   data-error                "error", "uncompressed_bytes" (before it)
//   bad-link-type             "link_type"
//   oversized                 "length"
//   truncated                 "expected", "present" (bytes of the record; -1
//                             present after a read error; both absent for a
//                             damaged pcapng block)
//   unknown-log-id,
//   invalid-packet-type       "log_id", "packet_type", "epoch_us", "level_no",
//                             "seq", "payload" (the payload in hex)
//   version-mismatch          "log_id", "log" (its name), "version",
//                             "expected_version"
//   level-out-of-range        "log_id", "log", "level_no"
//   syslog-too-short          "length" (the storage length)
//   var-binary-too-long       "size" (declared), "count" (in the payload)
//   display-not-found         "display" (the display format, a string)
//   gap                       "module", "last_seq", "seq", "missing",
//                             "missing_before"
//   reorder                   "module", "last_seq", "seq"
//   summary                   "total", "missing", "out_of_order", "bytes",
//                             and "received_per_ms", "generated_per_ms" when
//                             the summary shows rates
//   resync                    "skipped" (uncompressed bytes, from "offset"),
//                             "compressed_skipped", "found" (true when a
//                             record followed, false when the capture ended)
//   no-global-header, not-a-capture, display-unavailable, timestamp-failed,
//   note                      nothing more
//
// CSV (RFC 4180, rows end in CR LF): the header row of csvHeader(), then
// one row per record:
//   capture,record,kind,time,subsystem,module,log,level,category,seq,message,params
// time as in JSON; level is the level's name; a syslog record has its tag
// in the log column; message is the message part of the line; params is
// "name=text" for every value of the header and then of the log, separated
// by blanks, array elements as "name[i]=text" (without texts: the value,
// integers in decimal, binary strings in hex). A field is quoted when it
// holds a comma, a quote, a line feed or a carriage return, its quotes
// doubled. Bytes are written as they are (no re-encoding).
//
// The functions append to the string; should one throw (out of memory), the
// string is left as it was.
#ifndef WEX_OAM_BINLOG_FORMAT_H
#define WEX_OAM_BINLOG_FORMAT_H

#include <string>
#include <string_view>

#include "../WexOamBinLogXmlReaderExport.h"
#include "Record.h"

namespace Tav {

/// Appends the JSON object of a record (keys above).
WEXBL_API void appendJson(std::string& out, const Record& record);
/// Appends `text` as a JSON string, quotes included, escaped as above.
WEXBL_API void appendJsonString(std::string& out, std::string_view text);
/// Appends the JSON object of an event ("event": "gap", "unknown-log-id", ...).
WEXBL_API void appendJson(std::string& out, const Event& event);
/// The event's name in JSON ("gap", "reorder", "summary", "unknown-log-id", ...).
WEXBL_API const char* eventName(EventKind kind);
/// The CSV header row, CR LF included.
WEXBL_API const char* csvHeader();
/// Appends the CSV row of a record, CR LF included.
WEXBL_API void appendCsv(std::string& out, const Record& record);
/// The record time as ISO 8601 with milliseconds and the stream's offset
/// ("2024-05-01T14:00:00.020+02:00", "...Z" for offset 0).
WEXBL_API void appendIsoTime(std::string& out, const Record& record);

}  // namespace Tav

#endif
