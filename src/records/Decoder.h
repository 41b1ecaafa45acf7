// One decoder for every record: statistics, routing by packet type, the
// dictionary look-up with its version and level checks, decoding into typed
// values and rendering the line. Diagnostics and statistics become events
// handed to a sink, in the order they arise, before the record they belong
// to; the sink of readBinaryFiledata prints them, a capture stream queues
// them.
#ifndef WEXBL_SRC_RECORDS_DECODER_H
#define WEXBL_SRC_RECORDS_DECODER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "BinaryLogStatsCollector.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "WexOamBinLogXmlReader/Record.h"
#include "dictionary/Plan.h"
#include "records/Placeholders.h"
#include "records/Text.h"
#include "stats/StatsCore.h"

namespace Tav {
namespace detail {

class Sink;

/// Receives events as they arise.
class EventSink {
  public:
    virtual ~EventSink() = default;
    /// `event.text` is valid during the call only.
    virtual void emit(const Event& event) = 0;
};

/// The bytes a syslog record holds before its message: its binary log
/// header and its tag.
constexpr std::uint32_t kSyslogHeaderBytes = 32;

/// Per call settings of the decoder.
struct DecodeSettings {
    int utcOffsetMinutes = 0;
    std::uint16_t maxVarBinaryBytes = 0;
    bool stats = false;
    /// Fill the record's value fields (capture streams).
    bool fields = true;
    /// Build the line and the display texts.
    bool texts = true;
    /// Only records this filter keeps come out (their checks, statistics
    /// and level-table growth happen all the same).
    const Filter* filter = nullptr;
    /// The record passed the level check in an earlier decoding, against the
    /// level table as it stood then: a second decoding (in another thread,
    /// with a table of its own) does not check again.
    bool levelChecked = false;
    /// Stop after what the record's header decides, in record order: the
    /// statistics, the log id, version and level checks and the level
    /// table's growth. A record that passes is produced without texts or
    /// values, for a second decoding elsewhere (with levelChecked) that
    /// decodes the payload, applies the filter and reports what the payload
    /// holds.
    bool headerOnly = false;
};

/// A record's shown time in seconds: its time with the UTC offset added,
/// wrapping around in 32 bits.
inline std::uint32_t shownSeconds(const PcapRecHeader& pcap, int utcOffsetMinutes) {
    return pcap.tsSec + 60u * static_cast<std::uint32_t>(utcOffsetMinutes);
}

/// The kind the decoder gives a record of each packet type it hands out
/// (one of another type is reported instead).
inline RecordKind recordKindOf(std::uint32_t packetType) {
    switch (packetType) {
        case Legacy:
            return RecordKind::Legacy;
        case Syslog:
            return RecordKind::Syslog;
        case PcapCapture:
            return RecordKind::Capture;
        default:
            return RecordKind::BinLog;
    }
}

/// Where a record comes from.
struct RecordOrigin {
    std::string_view capture;
    std::uint64_t number = 0;
    std::uint64_t offset = 0;
};

/// The level-name table a stream reads and grows: the reader's own map, or
/// a private copy of it. Names are looked up once per level and kept with
/// their padded form; the cache holds pointers into the map, which stay
/// valid while entries are only added. The reader's own map may be changed
/// by its caller between calls, so its stream forgets the cache at the start
/// of every call (forget()).
class LevelTable {
  public:
    struct Level {
        const std::string* name = nullptr;
        /// The name as "%8s" prints it.
        std::string padded;
        /// The name as a JSON string and `,"level_no":` with the number.
        std::string json;
    };
    explicit LevelTable(std::map<std::uint16_t, std::string>& names) : names_(&names) {}
    std::size_t size() const { return names_->size(); }
    /// The level, adding an empty entry to the table for an unknown one.
    const Level& get(std::uint16_t level) {
        if (level < cache_.size() && cache_[level].name != nullptr) {
            return cache_[level];
        }
        return fill(level);
    }
    void forget() { cache_.clear(); }

  private:
    const Level& fill(std::uint16_t level);
    std::map<std::uint16_t, std::string>* names_;
    std::vector<Level> cache_;
};

/// One decoded parameter value (integer scalar, array, or string kind).
struct DecodedValue {
    /// Integer scalars: the value, sign-extended; and the text an
    /// enumeration gave it (null when none did).
    std::uint64_t raw = 0;
    const std::string* enumText = nullptr;
    /// String kinds: the bytes in the payload (for a string: its text up to
    /// the first NUL); `size` of them exist, bytes past them read as zero.
    const char* bytes = nullptr;
    std::uint32_t size = 0;
    /// Arrays: the first of `rendered` elements in DecodedTable::elements.
    /// Var binary strings: the count (capped by the declared size).
    std::uint32_t first = 0;
    std::uint32_t count = 0;
    /// A string whose text holds a brace.
    bool brace = false;
};

struct DecodedElement {
    std::uint64_t raw;
    const std::string* enumText;
};

/// The decoded values of one parameter table of a record, in wire order.
struct DecodedTable {
    /// Slots that only grow: a record of a smaller table uses the first.
    std::vector<DecodedValue> values;
    std::vector<DecodedElement> elements;
    /// The record's fields (declaration order), when the stream wants them.
    std::vector<ParamField> fields;
    /// The table whose names, types and indexes the fields hold already.
    const void* fieldsOf = nullptr;
};

class RecordDecoder : private SequenceReport {
  public:
    RecordDecoder(LevelTable& levels, BinaryLogStatsCollector& stats, EventSink& sink)
        : levels_(&levels), stats_(&stats), sink_(&sink) {}

    /// Forgets what the decoder keeps from the level table.
    void forgetLevels() { levels_->forget(); }
    /// The statistics collector changes nowhere but in this decoder and in
    /// clearStats() followed by forgetSequences(): where its modules' last
    /// sequence numbers lie is remembered between records.
    void cacheSequences() { cacheSequences_ = true; }
    void forgetSequences() { sequenceSlots_.forget(); }
    /// Events go to `sink` from now on.
    void setSink(EventSink& sink) { sink_ = &sink; }
    /// Lines are appended to `buffer` from now on (null: the decoder's own
    /// buffer, emptied for every record).
    void setLineBuffer(TextBuilder* buffer) { line_ = buffer != nullptr ? buffer : &ownLine_; }

    /// Decodes one record as the dispatcher does. Returns its result: 0 when
    /// the record was rendered or deliberately skipped with a version or
    /// level message, -1 when its log id or packet type is unknown or it
    /// cannot be decoded. produced() tells whether a record came out.
    /// `checked`: for a binlog or legacy record, the plan a header-only
    /// decoding of it found (checkedPlan()): its log, version and level
    /// checks passed there and are not made again.
    int decode(const PlanSet& plans, const DecodeSettings& settings, const PcapRecHeader& pcap,
               const BinLogHeader& header, const ByteReader& payload, std::uint32_t statsLength,
               const RecordOrigin& origin, const LogPlan* checked = nullptr);

    bool produced() const { return produced_; }
    /// After a header-only decoding that produced a binlog or legacy
    /// record: the plan its checks found; else null.
    const LogPlan* checkedPlan() const { return checkedPlan_; }
    /// The values of the record decoded last, decoded now if they were not
    /// yet (without reporting anything again).
    View<ParamField> headerFields() const;
    View<ParamField> paramFields() const;
    /// The record decoded last (valid while produced()).
    /// Whether the records carry display texts (a value's text may still be
    /// empty: an enumeration without the value).
    bool texts() const { return settings_.texts; }
    const Record& record() const { return record_; }
    /// The plan of the record decoded last when `record` is that record and
    /// a binary log record whose values can be written straight from its
    /// payload; else null.
    const LogPlan* directValues(const Record& record) const;
    /// The level of that record as JSON: its name and `,"level_no":` with
    /// its number.
    std::string_view levelJson() const { return levels_->get(header_.logLevel).json; }
    /// Writes `,"header":[...],"params":[...]` of that record as the JSON
    /// of its fields (with their texts when `texts`), from its payload.
    void appendJsonValues(Sink& out, bool texts) const;

    /// Emits an event whose text is `text`, filling in the origin fields.
    void emit(Event& event, std::string_view text);

  private:
    void gap(std::uint32_t module, std::int32_t last, std::int32_t current, std::int32_t missing,
             std::int32_t missingBefore) override;
    void reorder(std::uint32_t module, std::int32_t last, std::int32_t current) override;

    /// False when the filter rejects the record from its header fields;
    /// `verdict` keeps what the header said.
    bool headerPasses(Filter::Verdict& verdict);
    /// Whether the filter keeps the record (header fields, then values).
    bool filterKeeps();
    /// Starts the line with "[time".
    void startLine(const PcapRecHeader& pcap);
    void decodeBinLog(const LogPlan& plan, const ByteReader& payload);
    /// Decodes and fills the values of the record, once.
    void fillValues();
    void decodeTable(const TablePlan& plan, const ByteReader& payload, unsigned int& offset,
                     DecodedTable& table);
    template <typename T>
    void decodeInts(const ParamPlan& param, const ByteReader& payload, unsigned int& offset,
                    DecodedTable& table, DecodedValue& value);
    /// Reports a value whose display format names no enumeration (or whose
    /// enumerations did not load).
    void reportDisplay(const ParamPlan& param);
    /// Appends the text of a parameter as the line shows it.
    template <typename Out>
    void appendText(Out& out, const ParamPlan& param, const DecodedValue& value,
                    const DecodedTable& table) const;
    void appendMessage(const LogPlan& plan);
    /// The line of a log whose values render straight from the payload.
    void renderDirect(const LogPlan& plan, const ByteReader& payload);
    void renderSteps(const LogPlan& plan, const ByteReader& payload);
    /// Writes steps [first, last) of the plan's line at `at`, which has room
    /// for them, and returns where they end; `start` is where the line's
    /// uncommitted text starts (moved by an Other value). Checked: integers
    /// past the payload's end read as zero; else all lie within it.
    template <bool Checked>
    char* renderStepRange(const LogPlan& plan, const ByteReader& payload, std::size_t first,
                          std::size_t last, char* at, char*& start);
    /// Reads the counts of the table's var binary strings (reporting those
    /// above their declared size).
    void scanVarBinaries(const TablePlan& plan, const ByteReader& payload);
    template <typename Out>
    void appendDirect(Out& out, const TablePlan& plan, std::size_t index,
                      const ByteReader& payload) const;
    /// Whether the text of parameter `index` holds a brace.
    bool directBrace(const TablePlan& plan, std::size_t index, const ByteReader& payload) const;
    void appendJsonTable(Sink& out, const TablePlan& plan, bool texts) const;
    /// Where each field's text (and, for bytes past the record, its bytes)
    /// lies in the arena while the fields are filled.
    struct FieldSpan {
        static constexpr std::size_t kNone = ~std::size_t{0};
        std::size_t text = 0;
        std::size_t textSize = 0;
        std::size_t bytes = kNone;
        std::size_t bytesSize = 0;
    };
    /// Fills the table's fields (declaration order) and puts their texts
    /// (and bytes copied for a record cut short) into the arena, noting in
    /// `spans` where; returns whether bytes were copied. takeFieldViews()
    /// then points the fields into the arena, once nothing more goes there.
    bool fillFields(const TablePlan& plan, DecodedTable& table, std::vector<FieldSpan>& spans);
    void takeFieldViews(const TablePlan& plan, DecodedTable& table,
                        const std::vector<FieldSpan>& spans, bool copiedBytes,
                        View<ParamField>& out);
    void decodeLegacy(const LogPlan& plan, const ByteReader& payload);
    int decodeSyslog(const ByteReader& payload);
    void decodeCapture();
    /// A header-only decoding of a binlog or legacy record that passes its
    /// checks, the common case: done without setting up what an event
    /// would carry. False, with nothing done, for any other record.
    bool passesQuietly(const PlanSet& plans, const DecodeSettings& settings,
                       const BinLogHeader& header);
    /// What a header-only decoding does (DecodeSettings::headerOnly).
    int decodeHeaderOnly(const PlanSet& plans, const DecodeSettings& settings,
                         const PcapRecHeader& pcap, const BinLogHeader& header,
                         const ByteReader& payload);
    /// The checks of a binlog or legacy record's header: its log, its
    /// version and its level. Sets `plan` and returns 1 when they pass, else
    /// reports why and returns what decode() returns.
    int checkLog(const PlanSet& plans, const DecodeSettings& settings, const BinLogHeader& header,
                 const LogPlan*& plan);
    /// Reports a packet type that is none of the four.
    int invalidPacketType(const BinLogHeader& header);

    LevelTable* levels_;
    BinaryLogStatsCollector* stats_;
    SequenceSlots sequenceSlots_;
    bool cacheSequences_ = false;
    EventSink* sink_;
    DecodeSettings settings_;
    RecordOrigin origin_;
    ByteReader payload_;

    bool produced_ = false;
    const LogPlan* checkedPlan_ = nullptr;
    Record record_;
    /// The headers of the record being decoded (the record's own copies).
    const PcapRecHeader& pcap_ = record_.pcapHeader;
    const BinLogHeader& header_ = record_.binLogHeader;
    /// What the record's values come from, until they are filled: the plan
    /// and payload of a binary log record (its tables decoded already when
    /// `decoded`), or a legacy record's values.
    const LogPlan* valuesPlan_ = nullptr;
    ByteReader valuesPayload_;
    bool decoded_ = false;
    bool valuesFilled_ = false;
    bool silent_ = false;
    View<ParamField> headerView_;
    View<ParamField> paramsView_;
    /// The line being built: in the stream's own buffer, or appended to a
    /// buffer the caller gave (the reader's output buffer).
    TextBuilder ownLine_;
    TextBuilder* line_ = &ownLine_;
    std::size_t lineStart_ = 0;
    TextBuilder arena_;
    TextBuilder message_;
    TimeTextCache time_;
    DecodedTable headerTable_;
    DecodedTable logTable_;
    PlaceholderScratch placeholders_;
    /// Texts of the general placeholder loop: one per parameter of the log.
    TextBuilder generalTexts_;
    std::vector<std::size_t> generalStarts_;
    std::vector<FieldSpan> headerSpans_;
    std::vector<FieldSpan> fieldSpans_;
    /// The var binary strings of the record being rendered: where their bytes
    /// start and their (capped) counts.
    struct VarBinary {
        std::uint32_t offset;
        std::uint16_t count;
    };
    std::vector<VarBinary> varBinaries_;
    TextBuilder braceScratch_;
    std::vector<ParamField> legacyFields_;
    std::string eventText_;
};

}  // namespace detail
}  // namespace Tav

#endif
