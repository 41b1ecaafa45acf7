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
