#include "Writer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "WexOamBinLogXmlReader/Format.h"

namespace wexbl_decode {

namespace {

const char* const kReset = "\033[0m";

/// The colour of a level's name, as journalctl colours priorities.
const char* levelColour(std::string_view level) {
    // The field is padded on the left.
    while (!level.empty() && level.front() == ' ') {
        level.remove_prefix(1);
    }
    if (level == "CRITICAL" || level == "ERROR") {
        return "\033[31m";  // red
    }
    if (level == "WARN") {
        return "\033[33m";  // yellow
    }
    if (level == "NOTICE") {
        return "\033[1m";  // bold
    }
    return nullptr;
}

/// The bounds of the `n`th bracketed field of a line ("[...]"), or false.
bool field(std::string_view text, int n, std::size_t& begin, std::size_t& end) {
    std::size_t at = 0;
    for (int i = 0; i < n; ++i) {
        at = text.find('[', at);
        if (at == std::string_view::npos) {
            return false;
        }
        const std::size_t close = text.find(']', at);
        if (close == std::string_view::npos) {
            return false;
        }
        begin = at + 1;
        end = close;
        at = close + 1;
    }
    return true;
}

const char* const kLevelNames[] = {"",     "CRITICAL", "ERROR", "WARN",  "NOTICE",
                                   "INFO", "DEBUG",    "DEVEL", "ALWAYS"};

}  // namespace

/// CSV quoting (RFC 4180).
void appendCsvField(std::string& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out.append(text.data(), text.size());
        return;
    }
    out += '"';
    for (const char c : text) {
        if (c == '"') {
            out += '"';
        }
        out += c;
    }
    out += '"';
}

Writer::Writer(Output& output, const Options& options, bool colour)
    : output_(output),
      options_(options),
      colour_(colour),
      linesAsIs_(rendersLineAsIs() && !options.tally) {}

void Writer::start() {
    if (options_.format == Format::Csv && !options_.tally) {
        output_.write(Tav::csvHeader());
    }
}

void Writer::line(const Tav::Record* record, std::string_view text, std::string_view capture) {
    if (!options_.withFilename && !colour_) {
        output_.write(text);
        return;
    }
    buffer_.clear();
    appendLine(buffer_, record, text, capture);
    output_.write(buffer_);
}

void Writer::appendLine(std::string& out, const Tav::Record* record, std::string_view text,
                        std::string_view capture) const {
    if (options_.withFilename) {
        out.append(capture);
        out += ':';
    }
    // The level is the fourth field of binary log, legacy and syslog lines.
    std::size_t begin = 0;
    std::size_t end = 0;
    const char* colour = nullptr;
    if (colour_ && record != nullptr && record->kind != Tav::RecordKind::Capture &&
        field(text, 4, begin, end)) {
        colour = levelColour(text.substr(begin, end - begin));
    }
    if (colour == nullptr) {
        out.append(text);
        return;
    }
    out.append(text.substr(0, begin));
    out.append(colour);
    out.append(text.substr(begin, end - begin));
    out.append(kReset);
    out.append(text.substr(end));
}

void Writer::render(const Tav::Record& record, std::string& out) const {
    switch (options_.format) {
        case Format::Text:
            appendLine(out, &record, record.text, record.capture);
            break;
        case Format::Json:
            Tav::appendJson(out, record);
            out += '\n';
            break;
        case Format::Csv:
            Tav::appendCsv(out, record);
            break;
    }
}

void Writer::writeRecord(const Tav::Record& record) {
    if (options_.tally) {
        std::string module;
        std::string log;
        switch (record.kind) {
            case Tav::RecordKind::Syslog:
                module = "syslog";
                log = std::string(record.syslogTag);
                break;
            case Tav::RecordKind::Capture:
                module = "capture";
                break;
            default:
                module = std::string(record.subsystem) + ":" + std::string(record.module);
                log = std::string(record.log);
                break;
        }
        ++tally_[std::make_tuple(module, log, std::string(record.levelName))];
        return;
    }
    if (options_.format == Format::Text) {
        line(&record, record.text, record.capture);
        return;
    }
    buffer_.clear();
    render(record, buffer_);
    output_.write(buffer_);
}

void Writer::outputEvent(const Tav::Event& event) {
    if (options_.tally) {
        return;
    }
    switch (options_.format) {
        case Format::Text: {
            // Line by line (the summary has several): each gets the
            // capture's name, and each statistics line is dimmed on its own.
            std::string_view text = event.text;
            while (!text.empty()) {
                const std::size_t end = text.find('\n');
                const std::size_t length = end == std::string_view::npos ? text.size() : end;
                const std::string_view one = text.substr(0, length);
                if (colour_ && one.compare(0, 2, ">>") == 0) {
                    if (options_.withFilename) {
                        output_.write(event.capture);
                        output_.write(":");
                    }
                    output_.write("\033[2m");
                    output_.write(one);
                    output_.write(kReset);
                } else {
                    line(nullptr, one, event.capture);
                }
                if (end == std::string_view::npos) {
                    break;
                }
                output_.write("\n");
                text.remove_prefix(end + 1);
            }
            break;
        }
        case Format::Json:
            buffer_.clear();
            Tav::appendJson(buffer_, event);
            buffer_ += '\n';
            output_.write(buffer_);
            break;
        case Format::Csv:
            // A CSV file holds records only: the statistics go to standard
            // error.
            output_.flush();
            fwrite(event.text.data(), 1, event.text.size(), stderr);
            break;
    }
}

void Writer::errorEvent(const Tav::Event& event) {
    if (options_.format == Format::Json && !options_.tally) {
        buffer_.clear();
        Tav::appendJson(buffer_, event);
        buffer_ += '\n';
        output_.write(buffer_);
    }
}

void Writer::unknownRecord(const Tav::Event& event) {
    if (options_.tally || options_.format != Format::Text) {
        return;
    }
    // Laid out as a binary log line: time, "unknown", the log id where the
    // name goes, the level, an empty category, the sequence number, the
    // payload in hex.
    const std::uint32_t seconds =
        event.pcapHeader.tsSec + 60u * static_cast<std::uint32_t>(options_.utcOffset);
    const std::time_t when = static_cast<std::time_t>(seconds);
    struct tm parts;
    char time[64] = "";
    if (gmtime_r(&when, &parts) != nullptr) {
        snprintf(time, sizeof time, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900,
                 parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                 static_cast<std::int32_t>(event.pcapHeader.tsUsec) / 1000);
    }
    const std::uint16_t level = event.binLogHeader.logLevel;
    char logId[32];
    snprintf(logId, sizeof logId, "log id 0x%x", event.binLogHeader.logId);
    std::string text = std::string("[") + time + "] [   unknown] [";
    char padded[160];
    snprintf(padded, sizeof padded, "%25s] [%8s] [%10s] [%u] [", logId,
             level < 9 ? kLevelNames[level] : "", "", event.binLogHeader.seqNo);
    text += padded;
    static const char kDigits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < event.payload.size(); ++i) {
        const unsigned char byte = static_cast<unsigned char>(event.payload[i]);
        if (i != 0) {
            text += ':';
        }
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0f];
    }
    text += "]\n";
    line(nullptr, text, event.capture);
}

void Writer::finish() {
    if (!options_.tally) {
        return;
    }
    using Row = std::pair<std::tuple<std::string, std::string, std::string>, std::uint64_t>;
    std::vector<Row> rows(tally_.begin(), tally_.end());
    // Most frequent first; the names break ties.
    std::stable_sort(rows.begin(), rows.end(),
                     [](const Row& a, const Row& b) { return a.second > b.second; });
    std::string out;
    switch (options_.format) {
        case Format::Text: {
            std::size_t moduleWidth = 6;
            std::size_t logWidth = 3;
            for (const Row& row : rows) {
                moduleWidth = std::max(moduleWidth, std::get<0>(row.first).size());
                logWidth = std::max(logWidth, std::get<1>(row.first).size());
            }
            // Columns padded to their widest name; no blanks at the end of
            // a row (a plain capture record has no log and no level).
            auto row = [&](const std::string& count, const std::string& module,
                           const std::string& log, const std::string& level) {
                std::string text(count.size() < 12 ? 12 - count.size() : 0, ' ');
                text += count + "  " + module;
                text.append(moduleWidth - module.size(), ' ');
                text += "  " + log;
                text.append(logWidth - log.size(), ' ');
                text += "  " + level;
                while (!text.empty() && text.back() == ' ') {
                    text.pop_back();
                }
                out += text + "\n";
            };
            row("records", "module", "log", "level");
            for (const Row& one : rows) {
                row(std::to_string(one.second), std::get<0>(one.first), std::get<1>(one.first),
                    std::get<2>(one.first));
            }
            break;
        }
        case Format::Json:
            for (const Row& row : rows) {
                out += "{\"module\":";
                Tav::appendJsonString(out, std::get<0>(row.first));
                out += ",\"log\":";
                Tav::appendJsonString(out, std::get<1>(row.first));
                out += ",\"level\":";
                Tav::appendJsonString(out, std::get<2>(row.first));
                out += ",\"records\":" + std::to_string(row.second) + "}\n";
            }
            break;
        case Format::Csv:
            out += "module,log,level,records\r\n";
            for (const Row& row : rows) {
                appendCsvField(out, std::get<0>(row.first));
                out += ',';
                appendCsvField(out, std::get<1>(row.first));
                out += ',';
                appendCsvField(out, std::get<2>(row.first));
                out += ',' + std::to_string(row.second) + "\r\n";
            }
            break;
    }
    output_.write(out);
}

}  // namespace wexbl_decode
