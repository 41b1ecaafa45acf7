// Filter expressions over decoded records.
//
//   std::string error;
//   std::size_t where = 0;
//   auto filter = Tav::Filter::compile("level <= WARN && module == L2:mac && ueId == 17",
//                                      error, where);
//   if (!filter) { /* error says what is wrong, where is its position */ }
//   ...
//   if (filter->matches(*record)) { ... }
//
// The language:
//   fields      kind (binlog, legacy, syslog, capture), subsystem, module (the
//               module's name, or "subsystem:module"), log, level, category,
//               seq, time, capture (the capture's name), and any parameter or
//               module header name (cellId, or rssi[2] for an array element)
//   operators   == != < <= > >= ~ (glob on the text: * any run, ? one
//               character), && || ! and parentheses
//   literals    numbers (decimal, or hex with 0x; a leading - for negative),
//               quoted strings ("..." with \" and \\), bare words, and
//               ISO 8601 times (2024-05-01T12:00:00Z, with fractions and
//               offsets such as +02:00)
// `level` compares level numbers; a level name stands for its number
// (`level <= WARN` is `level <= 3`). A parameter compares its raw value with
// a number, and its enumeration name or text with a string. `time` compares
// the record's time (the sender's, in UTC) with a time. A record without the
// field does not match a comparison on it.
//
// In detail:
// - A comparison is `field operator literal` or `literal operator field`
//   (`5 < seq` is `seq > 5`). The left side is the field, unless only the
//   right side can be one, or the right side is one of the fields above and
//   the left side is not (`WARN >= level`). There is no comparison of two
//   fields and no bare field without an operator.
// - Words: runs of letters, digits, bytes above 0x7F and _ . : - + [ ] * ? /
//   need no quotes (L2:mac, a.pcap.gz, -5, 2024-05-01T12:00:00+02:00, L2:*).
//   A field name starts with a letter or _ and has no * ? + /; an index is
//   decimal. Parameters named like one of the fields above cannot be named.
// - Precedence: ! negates the comparison or parenthesised expression right
//   after it; then && binds tighter than ||. Parentheses nest up to 256 deep.
// - Text fields (subsystem, module, log, category, capture) compare bytes in
//   order (as unsigned); `~` matches the whole text against the glob. A
//   literal with a ':' compares with "subsystem:module", one without with
//   the module's name (`module ~ L2:*`, `module == mac`).
// - `kind` takes == and != with the four kind names; level names are
//   CRITICAL 1, ERROR 2, WARN 3, NOTICE 4, INFO 5, DEBUG 6, DEVEL 7,
//   ALWAYS 8. Both are compared case-insensitively, quoted or not. `seq`
//   (unsigned 32-bit), `level` and `time` have no `~`.
// - A time literal is YYYY-MM-DDTHH:MM:SS, an optional fraction of up to
//   nine digits, and Z or +HH:MM / -HH:MM; it compares to the nanosecond
//   with the sender's time (the pcap header's, not the shown time).
// - Binary log and legacy records have every field; syslog records have no
//   subsystem, module, log, category or values; plain capture records have
//   no level either.
// - A parameter name looks in the module header's values and the log's own.
//   Without an index it holds when any value of that name holds (for an
//   array: any element; `rssi != 5` holds when some element is not 5, while
//   `!(rssi == 5)` holds when none is 5). With an index it looks at that
//   element of an array only.
// - A parameter with a bare number literal compares numbers: an integer
//   value as signed or unsigned 64-bit by its type, exactly. Otherwise (a
//   quoted literal, a word that is no number, `~`, or a value that is no
//   integer) it compares text: a string's own bytes, and for every other
//   value the text the line shows (an enumeration's name, or the number as
//   displayed, e.g. "0x11" with a hex display format). Those texts exist
//   only when the stream builds texts: without them such a comparison is
//   false, as for a missing field.
// - checkHeader treats comparisons of parameters as unknown (false on
//   syslog and plain capture records) and combines with three-valued
//   logic: `false && unknown` rejects, `true || unknown` accepts. An
//   expression of header fields only is always decided by the header.
//
// Errors carry the offset of the token they are about, so that a program
// can print the expression and a caret under it; for example
//   "expected an operator after 'level'", "unknown level name 'WARNING'",
//   "unterminated string", "expected ')'", "unmatched ')'",
//   "time needs a time literal like 2024-05-01T12:00:00Z",
//   "seq needs a number, found 'abc'", "unknown kind 'foo'",
//   "kind compares with == or != only", "'~' does not apply to seq",
//   "number out of range '99999999999999999999'",
//   "bad array index in 'rssi[x]'", "expected a field name, found the end".
#ifndef WEX_OAM_BINLOG_FILTER_H
#define WEX_OAM_BINLOG_FILTER_H

#include <cstddef>
#include <memory>
#include <string>

#include "../WexOamBinLogXmlReaderExport.h"
#include "Record.h"

namespace Tav {

class WEXBL_API Filter {
  public:
    /// What a record's header fields (everything but its values) say.
    enum class Verdict {
        Reject,  ///< the record does not match, whatever its values
        Accept,  ///< the record matches, whatever its values
        Values,  ///< its values decide
    };

    /// Compiles `expression`. On a syntax error returns null, with `error`
    /// saying what was expected and found and `position` the offset in the
    /// expression where it is.
    static std::unique_ptr<Filter> compile(const std::string& expression, std::string& error,
                                           std::size_t& position);
    ~Filter();
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;

    /// The verdict from the record's header fields alone (kind, subsystem,
    /// module, log, level, category, seq, time, capture): a record it
    /// rejects need not be decoded at all.
    Verdict checkHeader(const Record& record) const;
    /// Whether the record matches (asks for its values where needed).
    bool matches(const Record& record) const;
    /// Whether any comparison looks at a parameter's value.
    bool usesValues() const;
    /// The expression as compiled.
    const std::string& expression() const;

  private:
    Filter();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tav

#endif
