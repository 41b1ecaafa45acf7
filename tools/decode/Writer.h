// How binlog-decode writes what it decodes: text lines (optionally with the
// capture's name in front and the level coloured), JSON Lines or CSV, or,
// with --tally, one table at the end.
#ifndef WEXBL_TOOLS_DECODE_WRITER_H
#define WEXBL_TOOLS_DECODE_WRITER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "Options.h"
#include "Output.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace wexbl_decode {

class Writer {
  public:
    Writer(Output& output, const Options& options, bool colour);

    /// Before the first record: the CSV header row.
    void start();
    void record(const Tav::Record& record) {
        // The common case, a plain line for every record, without a call.
        if (linesAsIs_) {
            output_.write(record.text);
            return;
        }
        writeRecord(record);
    }
    /// Appends what record() writes for a record (not with --tally). Only
    /// reads the writer: worker threads render records with it side by side.
    void render(const Tav::Record& record, std::string& out) const;
    /// What render() appends is the record's line as it is (text, without
    /// the capture's name or colours).
    bool rendersLineAsIs() const {
        return options_.format == Format::Text && !options_.withFilename && !colour_;
    }
    /// An event of the output stream (statistics, version and level
    /// messages): its text, or its JSON object.
    void outputEvent(const Tav::Event& event);
    /// An event of the error stream: in JSON, also an object of the output.
    void errorEvent(const Tav::Event& event);
    /// A record of an unknown log id, as a line of its own (--unknown=hex).
    void unknownRecord(const Tav::Event& event);
    /// After the last record: the tally.
    void finish();

  private:
    void writeRecord(const Tav::Record& record);
    void line(const Tav::Record* record, std::string_view text, std::string_view capture);
    void appendLine(std::string& out, const Tav::Record* record, std::string_view text,
                    std::string_view capture) const;

    Output& output_;
    const Options& options_;
    bool colour_;
    /// record() writes each record's line as it is (rendersLineAsIs(), no
    /// tally).
    bool linesAsIs_;
    std::string buffer_;
    /// --tally: (module, log, level) -> records.
    std::map<std::tuple<std::string, std::string, std::string>, std::uint64_t> tally_;
};

/// Appends `text` as one CSV field: as it is, or quoted with its quotes
/// doubled when it holds a comma, a quote or a line break (RFC 4180).
void appendCsvField(std::string& out, std::string_view text);

}  // namespace wexbl_decode

#endif
