// Records and events as JSON Lines and CSV.
//
// JSON: one object per record or event, on one line (no line feed added).
// Every output is valid JSON for any input: bytes of names, strings and
// messages that are not valid UTF-8 are written as the characters U+0080 to
// U+00FF of the same value (\u0080 .. \u00ff), control characters as \u00XX
// escapes; 64-bit integers outside +/-2^53 are written as strings.
//
// CSV (RFC 4180): the header row of csvHeader(), then one row per record:
// capture,record,kind,time,subsystem,module,log,level,category,seq,message,params
// where params is "name=text" pairs separated by blanks; fields are quoted
// when they hold a comma, a quote, a line feed or a carriage return, quotes
// doubled.
#ifndef WEX_OAM_BINLOG_FORMAT_H
#define WEX_OAM_BINLOG_FORMAT_H

#include <string>

#include "../WexOamBinLogXmlReaderExport.h"
#include "Record.h"

namespace Tav {

/// Appends the JSON object of a record (see README for the schema).
WEXBL_API void appendJson(std::string& out, const Record& record);
/// Appends the JSON object of an event ("event": "gap", "unknown-log-id", ...).
WEXBL_API void appendJson(std::string& out, const Event& event);
/// The event's name in JSON ("gap", "reorder", "summary", "unknown-log-id", ...).
WEXBL_API const char* eventName(EventKind kind);
/// The CSV header row, line feed included.
WEXBL_API const char* csvHeader();
/// Appends the CSV row of a record, line feed included.
WEXBL_API void appendCsv(std::string& out, const Record& record);
/// The record time as ISO 8601 with milliseconds and the stream's offset
/// ("2024-05-01T14:00:00.020+02:00", "...Z" for offset 0).
WEXBL_API void appendIsoTime(std::string& out, const Record& record);

}  // namespace Tav

#endif
