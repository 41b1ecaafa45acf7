// Per-log decoding plans, compiled once from the loaded dictionary.
//
// A plan holds what every record of a log needs and what the dictionary text
// would otherwise make each record work out again: the padded constant parts
// of its line, each parameter's wire type, element count, display class and
// enumeration table, where each value goes in declaration order, which value
// each name of the parameter list shows (the last one decoded under it), and
// the message template split into literal pieces and placeholder slots.
//
// Plans point into the reader's dictionary maps and display formatter: they
// are built at the end of loading and again by rebuildPlans(), and only read
// while records are decoded, by any number of streams at once.
#ifndef WEXBL_SRC_DICTIONARY_PLAN_H
#define WEXBL_SRC_DICTIONARY_PLAN_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "BinLogDictionary.h"
#include "BinaryLogDisplayFormatter.h"
#include "WexOamBinLogXmlReader/Record.h"
#include "dictionary/WireOrder.h"

namespace Tav {
namespace detail {

/// No record holds more than 25000 bytes, so an integer array or binary
/// string declared longer than that can only run past the end of the record,
/// where every element reads as zero. Rendering stops after this many
/// elements (the text then ends in "..."); offsets still advance by the
/// declared size.
constexpr std::uint32_t kMaxRenderedElements = 25000;

/// How an integer value becomes text.
enum class DisplayKind : std::uint8_t {
    Decimal,
    Hex,
    FrameStamp,   ///< "SF-SFN" on an unsigned 32-bit parameter
    Enum,         ///< a known enumeration
    UnknownEnum,  ///< a format that names no enumeration: message, decimal
    NoEnums,      ///< the enumerations did not load: message, decimal
};

/// An enumeration ready for look-ups by value: its entries whose value text
/// is the decimal text of some integer (the only ones a value can match),
/// sorted by that integer.
struct EnumTable {
    struct Entry {
        bool negative;
        std::uint64_t magnitude;
        const std::string* text;
    };
    std::vector<Entry> entries;
    /// True when some text holds a brace: such a text can take part in
    /// placeholder substitution.
    bool textWithBrace = false;
    /// Texts of the values 0 .. dense.size() - 1, when every entry is such a
    /// value (most enumerations): found by index rather than by search.
    std::vector<const std::string*> dense;
    bool denseOnly = false;
    /// The text of `value`, or null when the enumeration lacks it.
    const std::string* find(bool negative, std::uint64_t magnitude) const {
        if (denseOnly) {
            return !negative && magnitude < dense.size() ? dense[magnitude] : nullptr;
        }
        return search(negative, magnitude);
    }
    const std::string* search(bool negative, std::uint64_t magnitude) const;
};

/// Classifies display formats and keeps one EnumTable per enumeration used.
class EnumTables {
  public:
    explicit EnumTables(const BinaryLogDisplayFormatter& formatter) : formatter_(&formatter) {}
    /// The display class of `format` on a parameter of `type`, and its table.
    DisplayKind classify(const std::string& format, ParamType type, const EnumTable*& table);

  private:
    const BinaryLogDisplayFormatter* formatter_;
    std::map<std::string, std::unique_ptr<EnumTable>> tables_;
};

/// One declared parameter, in wire order.
struct ParamPlan {
    const std::string* name = nullptr;
    ParamType type = ParamType::Uint8;
    /// Element count (integer kinds; 0 for a scalar) or byte size (string
    /// kinds), as declared.
    std::uint32_t length = 0;
    DisplayKind display = DisplayKind::Decimal;
    const EnumTable* enumTable = nullptr;
    /// The display format as declared (for messages and the enumeration's
    /// name).
    const std::string* format = nullptr;
    /// Index of its first field in the record's declaration-ordered fields,
    /// and how many fields it has (array elements are rendered up to
    /// kMaxRenderedElements).
    std::uint32_t firstField = 0;
    std::uint32_t fieldCount = 1;
    /// Its text may hold a brace (strings, enumerations with such texts,
    /// arrays whose name or element texts may).
    bool textMayHaveBrace = false;
    /// Where its bytes start in the payload, in the decoder's unsigned 32-bit
    /// arithmetic (for a var binary string after the first: where the one
    /// before it starts; the counts in the payload decide the rest).
    std::uint32_t offset = 0;
    /// The constant start of its JSON field, behind the comma that separates
    /// it from the field before: `,{"name":NAME,"type":"TYPE","value":` for
    /// a scalar or a string, `,{"name":NAME,"index":` for an array element;
    /// and `,"enum":FORMAT` for an enumerated one.
    std::string jsonHead;
    std::string jsonEnum;
};

/// The parameters of a module header or of a log.
struct TablePlan {
    std::vector<ParamPlan> params;
    /// For each name of the declaration's parameter list: the index of the
    /// parameter whose text it shows (the last one decoded under that name),
    /// or -1 when no parameter of that name is decoded; and "name=".
    std::vector<std::int32_t> listed;
    std::vector<std::string> listedLead;
    /// Fields of a record of this table.
    std::uint32_t fieldCount = 0;
    /// The longest parameter name (bounds a placeholder key worth looking up).
    std::size_t longestName = 0;
    /// Bytes of the fixed-size parameters (all but var binary strings).
    std::uint32_t fixedSize = 0;
    /// Every value can be rendered straight from the payload: no display
    /// format reports anything while it is decoded.
    bool direct = true;
    /// The first var binary string, or -1.
    std::int32_t firstVarBinary = -1;
    /// Indexes into `params` in the order of their fields (declaration
    /// order).
    std::vector<std::uint32_t> fieldOrder;
    /// The index of the parameter whose text `name` shows, or -1.
    std::int32_t lookup(std::string_view name) const;
};

/// One piece of a message template: literal text and "name=", then the text
/// of the parameter in `slot`.
struct MessagePiece {
    std::string lead;
    std::int32_t slot = -1;
};

/// How one step of a line shows its value: integers (an array's elements
/// are steps of their own), byte strings, strings and var binary strings are
/// written in place; Other values (long arrays, strings and var binary
/// strings, enumerated arrays) through the general value writer.
enum class StepValue : std::uint8_t {
    None,
    Decimal,
    Hex,
    FrameStamp,
    Enum,
    Bytes,  ///< a byte string, `length` bytes in hex
    Text,   ///< a string, up to `length` bytes and its first NUL
    Other,
    VarBytes,  ///< a var binary string of the log's own parameters, "payload size:N " and hex
};

/// What a var binary string's text starts with, before its count.
constexpr char kVarBytesLead[] = "payload size:";

/// A step's value kind and integer type in one code, so that a step takes
/// one dispatch: the integer kinds (Decimal, Hex, FrameStamp, Enum), eight
/// codes each, one for every integer type in ParamType's order; then None,
/// Bytes, Text, Other and VarBytes (for which the type does not count).
constexpr std::uint8_t kStepIntegerTypes = 8;
constexpr std::uint8_t kStepCodeNone = 4 * kStepIntegerTypes;
constexpr std::uint8_t stepCode(StepValue value, ParamType type = ParamType::Uint64) {
    const unsigned kind = static_cast<unsigned>(value);
    if (value == StepValue::None) {
        return kStepCodeNone;
    }
    if (value < StepValue::Bytes) {
        return static_cast<std::uint8_t>((kind - 1u) * kStepIntegerTypes +
                                         static_cast<unsigned>(type));
    }
    return static_cast<std::uint8_t>(kStepCodeNone + 1u + kind -
                                     static_cast<unsigned>(StepValue::Bytes));
}

/// The spare bytes after a plan's step texts, and the room a line's steps
/// take beyond their bound: a step's text is copied 32 bytes at a time, so
/// that most take a fixed copy and no loop.
constexpr std::size_t kStepTextSlack = 32;

/// One step of a line: constant text, then the text of one value (or none).
struct LineStep {
    std::uint32_t textStart = 0;  ///< in LogPlan::lineText
    std::uint32_t textLength = 0;
    StepValue value = StepValue::None;
    ParamType type = ParamType::Uint8;
    std::uint8_t code = kStepCodeNone;  ///< stepCode(value, type)
    /// Where the value's bytes start in the payload, and their count (Bytes
    /// and Text).
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    const EnumTable* enumTable = nullptr;
    /// The parameter, for Other values.
    const TablePlan* table = nullptr;
    std::uint32_t index = 0;
};

enum class MessageShape : std::uint8_t {
    List,      ///< no placeholders: the log string, a blank, the parameter list
    Template,  ///< placeholders substituted from left to right
    General,   ///< braces that need the general substitution loop
};

struct ModulePlan {
    const ModuleDetails* module = nullptr;
    std::uint16_t key = 0;
    bool hasHeader = false;
    std::uint32_t headerPadding = 0;
    TablePlan header;
    /// "subsystem:module" as "%10s" prints it.
    std::string source;
};

struct LogPlan {
    const LogDetails* log = nullptr;
    const ModulePlan* module = nullptr;
    std::uint16_t logIndex = 0;
    /// What every record of the log needs first, kept here rather than
    /// behind the module's and the log's details: the version its header
    /// must carry, and the names a record carries.
    std::uint16_t binlogVersion = 0;
    std::string_view subsystemName;
    std::string_view moduleName;
    std::string_view logName;
    std::string_view categoryName;
    TablePlan params;
    /// The log name as "%25s" prints it, and the category as "%10s" does.
    std::string paddedName;
    std::string paddedCategory;
    /// The constant parts of the line: "] [source] [name] [" after the time,
    /// and "] [category] [" after the level.
    std::string lineHead;
    std::string lineCategory;
    /// The log name, category and source as "%s" prints them.
    std::string_view name;
    std::string_view category;
    MessageShape shape = MessageShape::List;
    std::vector<MessagePiece> pieces;
    /// The text of some piece's value may hold a brace (and then take part
    /// in the substitution).
    bool piecesMayHaveBrace = false;
    /// Text after the last piece (Template), and where substitution stopped
    /// at a placeholder without a value (it and all after it are literal).
    std::string_view tail;
    /// Some text of the line may hold a NUL byte ("%s" stops there).
    bool mayHaveNul = false;
    /// The line can be rendered straight from the payload (see TablePlan).
    bool direct = false;
    /// A direct log's line after its sequence number, in steps (see
    /// planLineSteps()); empty when it is written piece by piece (text that
    /// may hold a NUL, or a message that needs the general substitution).
    /// The texts of the steps lie in `lineText`, followed by kStepTextSlack
    /// spare bytes so that they can be copied that many at a time. The
    /// message starts `messageOffset` characters into the text of step
    /// `messageStep`.
    std::vector<LineStep> lineSteps;
    std::string lineText;
    std::uint32_t messageStep = 0;
    std::uint32_t messageOffset = 0;
    /// The most characters the steps write, Other values left out.
    std::size_t lineBound = 0;
    /// The payload size from which every integer a step reads lies within
    /// the payload (so that none reads past its end as zero).
    std::uint64_t stepsPayloadBound = 0;
    /// The constant parts of a record's JSON: `,"subsystem":..,"module":..,
    /// "log":..,"level":` and `,"category":..`.
    std::string jsonNames;
    std::string jsonCategory;
};

/// Plans of every log of the dictionary, with a flat look-up by log id.
class PlanSet {
  public:
    /// Compiles the plans of the dictionary as it stands.
    void build(const std::map<std::uint16_t, ModuleDetails>& modules,
               const std::map<std::uint16_t, std::map<std::uint16_t, LogDetails>>& logs,
               const BinaryLogDisplayFormatter& formatter);
    /// The plan of a log id, or null when the dictionary has no such log (or
    /// its module has no description).
    const LogPlan* find(std::uint32_t logId) const {
        const std::uint32_t module = moduleSlot_.empty() ? 0 : moduleSlot_[logId >> 16];
        if (module == 0) {
            return nullptr;
        }
        const std::vector<const LogPlan*>& logs = byIndex_[module - 1];
        const std::uint32_t index = logId & 0xFFFFu;
        return index < logs.size() ? logs[index] : nullptr;
    }
    std::size_t logCount() const { return logs_.size(); }
    /// Drops the line steps of every log, so that every line is written
    /// piece by piece; returns how many logs had steps. Lets tests compare
    /// the two ways of writing a line (inline: the library exports nothing
    /// of its internals).
    std::size_t dropLineSteps() {
        std::size_t dropped = 0;
        for (const std::unique_ptr<LogPlan>& plan : logs_) {
            dropped += plan->lineSteps.empty() ? 0 : 1;
            plan->lineSteps.clear();
        }
        return dropped;
    }

  private:
    std::unique_ptr<EnumTables> enums_;
    std::vector<std::unique_ptr<ModulePlan>> modules_;
    std::vector<std::unique_ptr<LogPlan>> logs_;
    /// Module key -> 1 + index into byIndex_, 0 for none.
    std::vector<std::uint32_t> moduleSlot_;
    std::vector<std::vector<const LogPlan*>> byIndex_;
};

}  // namespace detail
}  // namespace Tav

#endif
