#include "Report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

namespace wexbl_decode {

namespace {

/// Modules drawn on their own in the timeline; the rest are summed up.
constexpr std::size_t kTimelineModules = 11;
/// Rows at most in the long tables (the rest are counted).
constexpr std::size_t kMaxTableRows = 500;
constexpr std::size_t kTopLogs = 20;
/// Capture names in the overview.
constexpr std::size_t kOverviewCaptures = 20;

/// Colours that stay apart for the common forms of colour blindness.
const char* const kColours[] = {"#4477aa", "#ee6677", "#228833", "#ccbb44", "#66ccee", "#aa3377",
                                "#bbbbbb", "#332288", "#117733", "#882255", "#999933", "#555555"};

const char* const kStyle =
    "body{font-family:system-ui,sans-serif;margin:1.5em;color:#222;background:#fff}"
    "h1{font-size:1.5em}h2{font-size:1.2em;margin-top:2em;border-bottom:1px solid #ccc}"
    "table{border-collapse:collapse;font-size:.85em;margin:.5em 0}"
    "th,td{border:1px solid #ccc;padding:2px 6px;vertical-align:top}"
    "th{background:#f0f0f0;text-align:left}td.n{text-align:right;font-variant-numeric:"
    "tabular-nums}"
    ".chart{display:flex;flex-wrap:wrap;gap:1.5em;align-items:flex-start}"
    ".scroll{max-height:28em;overflow:auto}"
    "svg text{font-size:11px;fill:#222}.legend span{display:inline-block;margin-right:1em}"
    ".swatch{display:inline-block;width:.9em;height:.9em;margin-right:.3em;vertical-align:middle}"
    ".note{color:#555;font-size:.85em}"
    "@media print{.scroll{max-height:none;overflow:visible}}";

/// Six labels or so on a time axis of `buckets`.
std::size_t axisStep(std::size_t buckets) {
    return std::max<std::size_t>(1, (buckets + 5) / 6);
}

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

class Page {
  public:
    Page(const Summary& summary, const Tav::BinaryLogXmlReader& reader, const Options& options)
        : s_(summary), reader_(reader), options_(options) {}

    std::string render();

  private:
    void text(std::string_view value) { appendHtml(out_, value); }
    void raw(std::string_view value) { out_.append(value.data(), value.size()); }
    void cell(std::string_view value, bool numeric = false) {
        raw(numeric ? "<td class=\"n\">" : "<td>");
        text(value);
        raw("</td>");
    }
    void head(std::initializer_list<const char*> names) {
        raw("<tr>");
        for (const char* name : names) {
            raw("<th>");
            raw(name);
            raw("</th>");
        }
        raw("</tr>");
    }
    std::string bucketStart(std::size_t i) const {
        const std::int64_t at = s_.bucketOrigin() + static_cast<std::int64_t>(i) * s_.bucketWidth();
        ShownTime time;
        time.seconds = static_cast<std::uint32_t>(at / 1000000);
        time.microseconds = static_cast<std::uint32_t>(at % 1000000);
        return s_.formatTime(time);
    }
    /// A short axis label of a bucket's start.
    std::string axisLabel(std::size_t i) const {
        const std::string full = bucketStart(i);  // YYYY-MM-DDTHH:MM:SS.mmm...
        const std::int64_t span = s_.bucketWidth() * static_cast<std::int64_t>(Summary::kBuckets);
        if (span >= 86400LL * 1000000) {
            return full.substr(5, 5) + " " + full.substr(11, 5);
        }
        if (s_.bucketWidth() < 1000000) {
            return full.substr(11, 12);
        }
        return full.substr(11, 8);
    }
    /// The buckets drawn: up to the last one that holds a record.
    std::size_t used() const {
        std::size_t last = 0;
        for (const auto& buckets : s_.rowBuckets()) {
            for (std::size_t b = 0; b < buckets.size(); ++b) {
                if (buckets[b] != 0) {
                    last = std::max(last, b);
                }
            }
        }
        return last + 1;
    }
    std::string levelName(std::uint16_t level) const {
        const auto found = s_.levelNames().find(level);
        if (found != s_.levelNames().end() && !found->second.empty()) {
            return found->second;
        }
        return "level " + std::to_string(level);
    }

    void overview();
    void timeline();
    void levels();
    void topLogs();
    void errorsOverTime();
    void moduleTable();
    void captureTable();
    void unknownTable();
    void coverageTable();

    const Summary& s_;
    const Tav::BinaryLogXmlReader& reader_;
    const Options& options_;
    std::string out_;
};

void Page::overview() {
    const Counts total = s_.totals();
    const TimeSpan span = s_.span();
    std::size_t damaged = 0;
    for (const CaptureRow& row : s_.captures()) {
        damaged += row.damage.empty() ? 0 : 1;
    }
    raw("<table id=\"overview\">");
    raw("<tr><th>Captures</th><td>");
    bool first = true;
    std::size_t listed = 0;
    for (const std::string& name : s_.captureNames()) {
        if (!first) {
            raw("<br>");
        }
        first = false;
        if (++listed > kOverviewCaptures) {
            raw("and ");
            raw(number(s_.captureNames().size() - kOverviewCaptures));
            raw(" more (see the captures table)");
            break;
        }
        text(name);
    }
    raw("</td></tr><tr><th>Dictionary</th>");
    cell(options_.dictionary != nullptr ? options_.dictionary : "");
    raw("</tr><tr><th>Filter</th><td id=\"filter\">");
    if (options_.filters.empty() && options_.windows.empty()) {
        raw("none: every record");
    } else {
        first = true;
        for (const auto* list : {&options_.filters, &options_.windows}) {
            for (const std::string& expression : *list) {
                if (!first) {
                    raw(" <b>and</b> ");
                }
                first = false;
                raw("<code>");
                text(expression);
                raw("</code>");
            }
        }
    }
    raw("</td></tr><tr><th>Time span</th><td>");
    if (span.any) {
        text(s_.formatTime(span.first));
        raw(" &ndash; ");
        text(s_.formatTime(span.last));
        char seconds[64];
        snprintf(seconds, sizeof seconds, " (%.3f s)",
                 static_cast<double>(span.last.micros() - span.first.micros()) / 1e6);
        raw(seconds);
    } else {
        raw("no records");
    }
    raw("</td></tr>");
    auto row = [&](const char* name, const char* id, std::uint64_t value) {
        raw("<tr><th>");
        raw(name);
        raw("</th><td class=\"n\" id=\"");
        raw(id);
        raw("\">");
        raw(number(value));
        raw("</td></tr>");
    };
    row("Records", "total-records", total.records);
    row("Missing", "total-missing", total.missing);
    row("Reorders", "total-reorders", total.reorders);
    row("Unknown log ids", "total-unknown-ids", total.unknownIds);
    row("Damaged captures", "damaged-captures", damaged);
    raw("</table>");
}

void Page::timeline() {
    // The busiest modules on their own, the others summed up.
    std::vector<std::size_t> order(s_.rows().size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return s_.rows()[a].counts.records > s_.rows()[b].counts.records;
    });
    struct Series {
        std::string name;
        std::vector<std::uint64_t> buckets;
    };
    std::vector<Series> series;
    Series other{"(other modules)", std::vector<std::uint64_t>(Summary::kBuckets, 0)};
    bool hasOther = false;
    for (std::size_t i = 0; i < order.size(); ++i) {
        const ModuleRow& row = s_.rows()[order[i]];
        if (row.counts.records == 0) {
            continue;
        }
        if (series.size() < kTimelineModules) {
            series.push_back({row.name, s_.rowBuckets()[order[i]]});
        } else {
            hasOther = true;
            for (std::size_t b = 0; b < Summary::kBuckets; ++b) {
                other.buckets[b] += s_.rowBuckets()[order[i]][b];
            }
        }
    }
    if (hasOther) {
        series.push_back(other);
    }
    std::vector<std::uint64_t> totals(Summary::kBuckets, 0);
    for (const Series& one : series) {
        for (std::size_t b = 0; b < Summary::kBuckets; ++b) {
            totals[b] += one.buckets[b];
        }
    }
    const std::uint64_t highest =
        std::max<std::uint64_t>(1, *std::max_element(totals.begin(), totals.end()));
    const double left = 60, top = 24, plotWidth = 860, plotHeight = 200;
    const std::size_t drawn = used();
    const double barWidth = plotWidth / static_cast<double>(drawn);
    char buffer[512];
    raw("<div class=\"chart\"><div><svg id=\"timeline\" role=\"img\" width=\"960\" "
        "height=\"270\" viewBox=\"0 0 960 270\" xmlns=\"http://www.w3.org/2000/svg\">"
        "<title>Records per module over time</title>");
    snprintf(buffer, sizeof buffer,
             "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#888\"/>"
             "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%llu</text>"
             "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">0</text>",
             left, top + plotHeight, left + plotWidth, top + plotHeight, left - 4, top + 8,
             static_cast<unsigned long long>(highest), left - 4, top + plotHeight);
    raw(buffer);
    for (std::size_t b = 0; b < drawn; ++b) {
        double y = top + plotHeight;
        for (std::size_t k = 0; k < series.size(); ++k) {
            const std::uint64_t count = series[k].buckets[b];
            if (count == 0) {
                continue;
            }
            const double h = plotHeight * static_cast<double>(count) / static_cast<double>(highest);
            y -= h;
            snprintf(buffer, sizeof buffer,
                     "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\">",
                     left + barWidth * static_cast<double>(b), y, barWidth, h,
                     kColours[k % (sizeof kColours / sizeof kColours[0])]);
            raw(buffer);
            raw("<title>");
            text(series[k].name);
            raw(": ");
            raw(number(count));
            raw(" records from ");
            text(bucketStart(b));
            raw("</title></rect>");
        }
    }
    // The time axis: a label every 20 buckets.
    for (std::size_t b = 0; b <= drawn; b += axisStep(drawn)) {
        const double x = left + barWidth * static_cast<double>(b);
        snprintf(buffer, sizeof buffer,
                 "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#888\"/>"
                 "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">",
                 x, top + plotHeight, x, top + plotHeight + 5, x, top + plotHeight + 18);
        raw(buffer);
        text(axisLabel(b));
        raw("</text>");
    }
    // The gaps and reorders above the bars: hovering one tells what it is.
    const double span = static_cast<double>(s_.bucketWidth()) * static_cast<double>(drawn);
    for (const Mark& mark : s_.marks()) {
        if (!mark.timed) {
            continue;
        }
        // (A record reported instead of printed may lie outside the buckets.)
        const double x =
            left + plotWidth * std::min(1.0, std::max(0.0, static_cast<double>(mark.time.micros() -
                                                                               s_.bucketOrigin()) /
                                                               span));
        if (mark.gap) {
            snprintf(buffer, sizeof buffer,
                     "<path class=\"mark gap\" d=\"M%.1f %.1fl-4 -8h8z\" fill=\"#cc3311\">", x,
                     top - 2);
        } else {
            snprintf(buffer, sizeof buffer,
                     "<path class=\"mark reorder\" d=\"M%.1f %.1fl4 -4l-4 -4l-4 4z\" "
                     "fill=\"#ee7733\">",
                     x, top - 12);
        }
        raw(buffer);
        raw("<title>");
        text(s_.rows()[mark.row].name);
        raw(mark.gap ? ": gap, sequence " : ": reorder, sequence ");
        raw(std::to_string(mark.seqNo));
        raw(" after ");
        raw(std::to_string(mark.lastSeqNo));
        if (mark.gap) {
            raw(" (");
            raw(std::to_string(mark.missing));
            raw(" missing)");
        }
        raw(" at ");
        text(s_.formatTime(mark.time));
        raw("</title></path>");
    }
    raw("</svg><div class=\"legend\">");
    for (std::size_t k = 0; k < series.size(); ++k) {
        raw("<span><span class=\"swatch\" style=\"background:");
        raw(kColours[k % (sizeof kColours / sizeof kColours[0])]);
        raw("\"></span>");
        text(series[k].name);
        raw("</span>");
    }
    raw("<span><span class=\"swatch\" style=\"background:#cc3311\"></span>gap</span>"
        "<span><span class=\"swatch\" style=\"background:#ee7733\"></span>reorder</span>");
    raw("</div><p class=\"note\">Bucket width ");
    raw(number(static_cast<std::uint64_t>(s_.bucketWidth() / 1000)));
    raw(" ms. Table: the buckets that hold records.</p></div>");
    raw("<div class=\"scroll\"><table id=\"timeline-table\"><tr><th>from</th>");
    for (const Series& one : series) {
        raw("<th>");
        text(one.name);
        raw("</th>");
    }
    raw("<th>total</th></tr>");
    for (std::size_t b = 0; b < Summary::kBuckets; ++b) {
        if (totals[b] == 0) {
            continue;
        }
        raw("<tr>");
        cell(bucketStart(b));
        for (const Series& one : series) {
            cell(number(one.buckets[b]), true);
        }
        cell(number(totals[b]), true);
        raw("</tr>");
    }
    raw("</table></div></div>");

    raw("<h3>Gaps and reorders</h3><div class=\"scroll\"><table id=\"marks-table\">");
    head({"time", "module", "what", "last seq", "seq", "missing"});
    for (const Mark& mark : s_.marks()) {
        raw("<tr>");
        cell(mark.timed ? s_.formatTime(mark.time) : "-");
        cell(s_.rows()[mark.row].name);
        cell(mark.gap ? "gap" : "reorder");
        cell(std::to_string(mark.lastSeqNo), true);
        cell(std::to_string(mark.seqNo), true);
        cell(mark.gap ? std::to_string(mark.missing) : "", true);
        raw("</tr>");
    }
    raw("</table></div>");
    if (s_.marksStride() != 1) {
        raw("<p class=\"note\">");
        raw(number(s_.marks().size()));
        raw(" of ");
        raw(number(s_.marksSeen()));
        raw(" gaps and reorders are marked and listed (one in ");
        raw(number(s_.marksStride()));
        raw("); the tables count them all.</p>");
    }
}

void Page::levels() {
    std::vector<std::uint16_t> seen;
    for (const ModuleRow& row : s_.rows()) {
        for (const auto& [level, count] : row.levels()) {
            (void)count;
            if (std::find(seen.begin(), seen.end(), level) == seen.end()) {
                seen.push_back(level);
            }
        }
    }
    std::sort(seen.begin(), seen.end());
    const std::vector<const ModuleRow*> rows = s_.sortedRows();
    char buffer[256];
    raw("<div class=\"chart\"><svg id=\"levels\" role=\"img\" width=\"480\" height=\"");
    const double barHeight = 16;
    const double height = 20 + barHeight * 1.5 * static_cast<double>(rows.size());
    raw(std::to_string(static_cast<int>(height)));
    raw("\" xmlns=\"http://www.w3.org/2000/svg\"><title>Levels per module</title>");
    double y = 10;
    for (const ModuleRow* row : rows) {
        const auto levels = row->levels();
        std::uint64_t sum = 0;
        for (const auto& entry : levels) {
            sum += entry.second;
        }
        snprintf(buffer, sizeof buffer, "<text x=\"150\" y=\"%.1f\" text-anchor=\"end\">", y + 12);
        raw(buffer);
        text(row->name);
        raw("</text>");
        double x = 155;
        for (std::size_t k = 0; k < seen.size() && sum != 0; ++k) {
            const auto found = levels.find(seen[k]);
            if (found == levels.end()) {
                continue;
            }
            const double w = 310.0 * static_cast<double>(found->second) / static_cast<double>(sum);
            snprintf(buffer, sizeof buffer,
                     "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\">", x,
                     y, w, barHeight, kColours[k % (sizeof kColours / sizeof kColours[0])]);
            raw(buffer);
            raw("<title>");
            text(row->name);
            raw(" ");
            text(levelName(seen[k]));
            raw(": ");
            raw(number(found->second));
            raw("</title></rect>");
            x += w;
        }
        y += barHeight * 1.5;
    }
    raw("</svg><table id=\"levels-table\"><tr><th>module</th>");
    for (std::size_t k = 0; k < seen.size(); ++k) {
        raw("<th><span class=\"swatch\" style=\"background:");
        raw(kColours[k % (sizeof kColours / sizeof kColours[0])]);
        raw("\"></span>");
        text(levelName(seen[k]));
        raw("</th>");
    }
    raw("</tr>");
    for (const ModuleRow* row : rows) {
        const auto levels = row->levels();
        raw("<tr>");
        cell(row->name);
        for (const std::uint16_t level : seen) {
            const auto found = levels.find(level);
            cell(number(found == levels.end() ? 0 : found->second), true);
        }
        raw("</tr>");
    }
    raw("</table></div>");
}

void Page::topLogs() {
    using Entry = std::pair<const std::pair<std::size_t, std::string>*, std::uint64_t>;
    std::vector<Entry> entries;
    const auto logs = s_.logs();
    for (const auto& entry : logs) {
        entries.emplace_back(&entry.first, entry.second);
    }
    // Most records first; ties by module and log name.
    std::stable_sort(entries.begin(), entries.end(), [&](const Entry& a, const Entry& b) {
        if (a.second != b.second) {
            return a.second > b.second;
        }
        const std::string& ma = s_.rows()[a.first->first].name;
        const std::string& mb = s_.rows()[b.first->first].name;
        return ma != mb ? ma < mb : a.first->second < b.first->second;
    });
    if (entries.size() > kTopLogs) {
        entries.resize(kTopLogs);
    }
    const std::uint64_t highest = entries.empty() ? 1 : entries.front().second;
    char buffer[256];
    raw("<div class=\"chart\"><svg id=\"top-logs\" role=\"img\" width=\"480\" height=\"");
    raw(std::to_string(20 + 18 * entries.size()));
    raw("\" xmlns=\"http://www.w3.org/2000/svg\"><title>Top logs</title>");
    double y = 10;
    for (const Entry& entry : entries) {
        const double w = 300.0 * static_cast<double>(entry.second) / static_cast<double>(highest);
        snprintf(buffer, sizeof buffer,
                 "<rect x=\"170\" y=\"%.1f\" width=\"%.1f\" height=\"14\" fill=\"#4477aa\">", y, w);
        raw(buffer);
        raw("<title>");
        text(s_.rows()[entry.first->first].name);
        raw(" ");
        text(entry.first->second);
        raw(": ");
        raw(number(entry.second));
        raw("</title></rect>");
        snprintf(buffer, sizeof buffer, "<text x=\"165\" y=\"%.1f\" text-anchor=\"end\">", y + 11);
        raw(buffer);
        text(entry.first->second.empty() ? std::string("(no name)") : entry.first->second);
        raw("</text>");
        y += 18;
    }
    raw("</svg><table id=\"top-logs-table\">");
    head({"#", "module", "log", "records"});
    std::size_t rank = 0;
    for (const Entry& entry : entries) {
        raw("<tr>");
        cell(std::to_string(++rank), true);
        cell(s_.rows()[entry.first->first].name);
        cell(entry.first->second);
        cell(number(entry.second), true);
        raw("</tr>");
    }
    raw("</table></div>");
}

void Page::errorsOverTime() {
    const auto& critical = s_.criticalBuckets();
    const auto& error = s_.errorBuckets();
    std::uint64_t highest = 1;
    for (std::size_t b = 0; b < Summary::kBuckets; ++b) {
        highest = std::max(highest, critical[b] + error[b]);
    }
    const double left = 60, top = 10, plotWidth = 860, plotHeight = 120;
    const std::size_t drawn = used();
    const double barWidth = plotWidth / static_cast<double>(drawn);
    char buffer[512];
    raw("<div class=\"chart\"><div><svg id=\"errors\" role=\"img\" width=\"960\" height=\"160\" "
        "xmlns=\"http://www.w3.org/2000/svg\"><title>ERROR and CRITICAL records over "
        "time</title>");
    snprintf(buffer, sizeof buffer,
             "<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#888\"/>"
             "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%llu</text>",
             left, top + plotHeight, left + plotWidth, top + plotHeight, left - 4, top + 8,
             static_cast<unsigned long long>(highest));
    raw(buffer);
    for (std::size_t b = 0; b < drawn; ++b) {
        double y = top + plotHeight;
        const std::uint64_t counts[2] = {critical[b], error[b]};
        const char* const colours[2] = {"#882255", "#ee6677"};
        const char* const names[2] = {"CRITICAL", "ERROR"};
        for (int k = 0; k < 2; ++k) {
            if (counts[k] == 0) {
                continue;
            }
            const double h =
                plotHeight * static_cast<double>(counts[k]) / static_cast<double>(highest);
            y -= h;
            snprintf(buffer, sizeof buffer,
                     "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\">",
                     left + barWidth * static_cast<double>(b), y, barWidth, h, colours[k]);
            raw(buffer);
            raw("<title>");
            raw(names[k]);
            raw(": ");
            raw(number(counts[k]));
            raw(" from ");
            text(bucketStart(b));
            raw("</title></rect>");
        }
    }
    for (std::size_t b = 0; b <= drawn; b += axisStep(drawn)) {
        const double x = left + barWidth * static_cast<double>(b);
        snprintf(buffer, sizeof buffer, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">", x,
                 top + plotHeight + 16);
        raw(buffer);
        text(axisLabel(b));
        raw("</text>");
    }
    raw("</svg><div class=\"legend\"><span><span class=\"swatch\" "
        "style=\"background:#882255\"></span>CRITICAL</span><span><span class=\"swatch\" "
        "style=\"background:#ee6677\"></span>ERROR</span></div></div>");
    raw("<div class=\"scroll\"><table id=\"errors-table\">");
    head({"from", "CRITICAL", "ERROR"});
    for (std::size_t b = 0; b < Summary::kBuckets; ++b) {
        if (critical[b] + error[b] == 0) {
            continue;
        }
        raw("<tr>");
        cell(bucketStart(b));
        cell(number(critical[b]), true);
        cell(number(error[b]), true);
        raw("</tr>");
    }
    raw("</table></div></div>");
}

void appendCounts(std::string& out, const Counts& counts) {
    for (const std::uint64_t value :
         {counts.records, counts.gaps, counts.missing, counts.reorders, counts.duplicates,
          counts.unknownIds, counts.versionMismatches, counts.levelErrors, counts.malformed}) {
        out += "<td class=\"n\">" + std::to_string(value) + "</td>";
    }
}

void Page::moduleTable() {
    raw("<table id=\"summary-table\">");
    head({"module", "first", "last", "records", "gaps", "missing", "reorders", "duplicates",
          "unknown_ids", "version_mismatches", "level_errors", "malformed"});
    auto line = [&](const std::string& name, const Counts& counts, const TimeSpan& span) {
        raw("<tr>");
        cell(name);
        cell(span.any ? s_.formatTime(span.first) : "-");
        cell(span.any ? s_.formatTime(span.last) : "-");
        appendCounts(out_, counts);
        raw("</tr>");
    };
    for (const ModuleRow* row : s_.sortedRows()) {
        line(row->name, row->counts, row->span);
    }
    line("(total)", s_.totals(), s_.span());
    raw("</table>");
}

void Page::captureTable() {
    raw("<table id=\"capture-table\">");
    head({"capture", "first", "last", "records", "gaps", "missing", "reorders", "duplicates",
          "unknown_ids", "version_mismatches", "level_errors", "malformed", "damage"});
    std::size_t listed = 0;
    for (const CaptureRow& row : s_.captures()) {
        // Damaged captures are always listed.
        if (row.damage.empty() && ++listed > kMaxTableRows) {
            continue;
        }
        raw("<tr>");
        cell(row.name);
        cell(row.span.any ? s_.formatTime(row.span.first) : "-");
        cell(row.span.any ? s_.formatTime(row.span.last) : "-");
        appendCounts(out_, row.counts);
        cell(row.damage);
        raw("</tr>");
    }
    raw("</table>");
    if (listed > kMaxTableRows) {
        raw("<p class=\"note\">");
        raw(number(listed - kMaxTableRows));
        raw(" more undamaged captures are counted in the totals but not listed.</p>");
    }
}

void Page::unknownTable() {
    raw("<table id=\"unknown-table\">");
    head({"log id", "module", "records", "first capture", "first record"});
    std::size_t shown = 0;
    for (const auto& [logId, id] : s_.unknownIds()) {
        if (++shown > kMaxTableRows) {
            break;
        }
        char hex[16];
        snprintf(hex, sizeof hex, "0x%x", logId);
        raw("<tr>");
        cell(hex);
        cell(s_.moduleName(static_cast<std::uint16_t>(logId >> 16)));
        cell(number(id.count), true);
        cell(id.capture);
        cell(number(id.record), true);
        raw("</tr>");
    }
    raw("</table>");
    if (shown > kMaxTableRows || s_.unknownIdsDropped() != 0) {
        raw("<p class=\"note\">More unknown log ids were seen than are listed.</p>");
    }
}

void Page::coverageTable() {
    raw("<table id=\"coverage-table\">");
    head({"module", "log id", "log"});
    std::size_t unseen = 0;
    std::size_t total = 0;
    for (const auto& [key, logs] : reader_.logDetailsMap) {
        for (const auto& [index, log] : logs) {
            ++total;
            const std::uint32_t id = static_cast<std::uint32_t>(key) << 16 | index;
            if (s_.seenLogId(id)) {
                continue;
            }
            if (++unseen > kMaxTableRows) {
                continue;
            }
            char hex[16];
            snprintf(hex, sizeof hex, "0x%x", id);
            raw("<tr>");
            cell(s_.moduleName(key));
            cell(hex);
            cell(log.logName);
            raw("</tr>");
        }
    }
    raw("</table><p class=\"note\" id=\"coverage-note\">");
    raw(number(unseen));
    raw(" of the dictionary's ");
    raw(number(total));
    raw(" logs were never seen");
    if (unseen > kMaxTableRows) {
        raw(" (the first ");
        raw(number(kMaxTableRows));
        raw(" listed)");
    }
    raw(".</p>");
}

std::string Page::render() {
    raw("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width\">"
        "<title>Binary log report</title><style>");
    raw(kStyle);
    raw("</style></head><body><h1>Binary log report</h1>");
    overview();
    raw("<h2>Records per module over time</h2>");
    timeline();
    raw("<h2>Levels per module</h2>");
    levels();
    raw("<h2>Top ");
    raw(number(kTopLogs));
    raw(" logs</h2>");
    topLogs();
    raw("<h2>ERROR and CRITICAL records over time</h2>");
    errorsOverTime();
    raw("<h2>Modules</h2>");
    moduleTable();
    raw("<h2>Captures</h2>");
    captureTable();
    raw("<h2>Unknown log ids</h2>");
    unknownTable();
    raw("<h2>Dictionary coverage: logs never seen</h2>");
    coverageTable();
    raw("</body></html>\n");
    return out_;
}

}  // namespace

void appendHtml(std::string& out, std::string_view text) {
    auto byteChar = [&out](unsigned char byte) {
        char ref[16];
        snprintf(ref, sizeof ref, "&#x%X;", static_cast<unsigned>(byte));
        out += ref;
    };
    std::size_t i = 0;
    while (i < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            switch (c) {
                case '&':
                    out += "&amp;";
                    break;
                case '<':
                    out += "&lt;";
                    break;
                case '>':
                    out += "&gt;";
                    break;
                case '"':
                    out += "&quot;";
                    break;
                case '\'':
                    out += "&#39;";
                    break;
                default:
                    if (c < 0x20 || c == 0x7f) {
                        // The control picture of the character.
                        char ref[16];
                        snprintf(ref, sizeof ref, "&#x%X;",
                                 c == 0x7f ? 0x2421u : 0x2400u + static_cast<unsigned>(c));
                        out += ref;
                    } else {
                        out += static_cast<char>(c);
                    }
                    break;
            }
            ++i;
            continue;
        }
        // A well-formed UTF-8 sequence is copied; any other byte is written
        // as the character of its value.
        std::size_t length = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xbf;
        if (c >= 0xc2 && c <= 0xdf) {
            length = 2;
        } else if (c >= 0xe0 && c <= 0xef) {
            length = 3;
            low = c == 0xe0 ? 0xa0 : 0x80;
            high = c == 0xed ? 0x9f : 0xbf;
        } else if (c >= 0xf0 && c <= 0xf4) {
            length = 4;
            low = c == 0xf0 ? 0x90 : 0x80;
            high = c == 0xf4 ? 0x8f : 0xbf;
        }
        bool valid = length != 0 && i + length <= text.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const unsigned char next = static_cast<unsigned char>(text[i + k]);
            valid = k == 1 ? next >= low && next <= high : next >= 0x80 && next <= 0xbf;
        }
        if (valid) {
            out.append(text.data() + i, length);
            i += length;
        } else {
            byteChar(c);
            ++i;
        }
    }
}

std::string renderReport(const Summary& summary, const Tav::BinaryLogXmlReader& reader,
                         const Options& options) {
    return Page(summary, reader, options).render();
}

bool writeReport(const char* path, const Summary& summary, const Tav::BinaryLogXmlReader& reader,
                 const Options& options) {
    const std::string page = renderReport(summary, reader, options);
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path, "w"), fclose);
    if (!file) {
        return false;
    }
    if (fwrite(page.data(), 1, page.size(), file.get()) != page.size() || fflush(file.get()) != 0) {
        return false;
    }
    return fclose(file.release()) == 0;
}

}  // namespace wexbl_decode
