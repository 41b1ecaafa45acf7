// binlog-decode --report FILE: one self-contained HTML page (inline CSS and
// SVG, no script, nothing fetched) of what the summary counted: overview,
// records per module over time with the gaps and reorders marked, levels per
// module, the most frequent logs, ERROR and CRITICAL records over time, and
// the module, capture, unknown log id and dictionary coverage tables. Every
// chart has its numbers in a table beside it. Its size depends on the
// modules, logs and time buckets, never on the number of records.
#ifndef WEXBL_TOOLS_DECODE_REPORT_H
#define WEXBL_TOOLS_DECODE_REPORT_H

#include <string>

#include "BinaryLogXmlReader.h"
#include "Options.h"
#include "Summary.h"

namespace wexbl_decode {

/// The page.
std::string renderReport(const Summary& summary, const Tav::BinaryLogXmlReader& reader,
                         const Options& options);

/// Writes the page to `path`; false with errno set when it cannot.
bool writeReport(const char* path, const Summary& summary, const Tav::BinaryLogXmlReader& reader,
                 const Options& options);

/// `text` for HTML text and attribute values: & < > " ' escaped, bytes
/// that are not well-formed UTF-8 as the characters U+0080 to U+00FF of
/// their value, control characters as their control pictures (U+2400...).
void appendHtml(std::string& out, std::string_view text);

}  // namespace wexbl_decode

#endif
