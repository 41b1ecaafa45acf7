// The dictionary as the capture writer sees it: every log of every module
// laid out as the sequence of fields its payload carries on the wire.
//
// The writer reads the XML dictionaries itself, with plain libxml2, and
// states the payload layout itself (layoutOf below). It shares no code with
// the decoding library on purpose: it is a second, independent reading of the
// dictionary format, so that a layout mistake in either one shows up as a
// difference between what is written and what is decoded, instead of being
// written and read back the same way.
#ifndef BINLOG_SYNTH_DICTIONARY_H
#define BINLOG_SYNTH_DICTIONARY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace binlog_synth {

/// The wire kinds of a payload field, in the order their groups appear.
enum class FieldKind : std::uint8_t {
    U64,
    I64,
    U32,
    I32,
    U16,
    I16,
    U8,
    I8,
    String,
    BinaryString,
    VarBinaryString,
    Padding,
};

/// Bytes of one element of an integer kind (0 for the others).
std::size_t elementSize(FieldKind kind);
bool isIntegerKind(FieldKind kind);
bool isSignedKind(FieldKind kind);
/// The dictionary's type name ("TavUint16_t", "string", ...; "padding").
const char* kindName(FieldKind kind);
/// The kind a dictionary type name declares; false for any other text
/// (compared exactly: "TavUInt32_t" and "String" are not types).
bool kindOfTypeName(const std::string& type, FieldKind& kind);

/// Display formats with a meaning of their own; any other name is an
/// enumeration's.
constexpr const char* kFormatDefault = "DefaultDisplay";
constexpr const char* kFormatHex = "hex";
constexpr const char* kFormatSfSfn = "SF-SFN";

/// A number attribute read as C's strtol(text, NULL, 10) reads it with a
/// 32-bit long: leading white space, an optional sign, the decimal digits up
/// to the first other character; no digits is 0; beyond the 32-bit range it
/// stops at the limit.
std::int32_t dictionaryNumber(const std::string& text);

/// One parameter as declared: one name of a declaration's nameList.
struct ParamDecl {
    FieldKind kind = FieldKind::U8;
    std::string name;
    /// Integer kinds: 0 for a single value, N for an array of N.
    std::uint32_t count = 0;
    /// String kinds: the size in bytes.
    std::uint32_t size = 0;
    /// Never empty: a missing or empty displayFormat is DefaultDisplay.
    std::string displayFormat = kFormatDefault;
};

/// One LogId element.
struct LogDecl {
    /// 1-based position among the file's LogId elements in document order.
    std::uint16_t index = 0;
    std::string name;
    std::string category;
    std::string logString;
    /// Declaration order; parameters of unknown types are left out (they
    /// take no bytes).
    std::vector<ParamDecl> params;
};

/// One binlog file.
struct ModuleDecl {
    /// ((subsystemId & 0xFFFF) << 8) | moduleid, cut to 16 bits.
    std::uint16_t key = 0;
    std::string subsystem;
    std::string module;
    std::uint16_t version = 0;
    /// The file has a ModuleHeader element (even an empty one).
    bool hasHeader = false;
    /// Every ModuleHeader's declarations, in document order.
    std::vector<ParamDecl> header;
    std::vector<LogDecl> logs;
};

/// The enumerations of the bindisplay files: for each name, the text of
/// each value key (keys are exact strings).
struct Displays {
    std::map<std::string, std::map<std::string, std::string>> enums;
};

/// Reads one binlog file's XML. False with `error` when it is not
/// well-formed or lacks a mandatory attribute.
bool readBinlogXml(const std::string& xml, const std::string& name, ModuleDecl& module,
                   std::string& error);
/// Reads one bindisplay file's XML into `displays` (an enumeration defined
/// again replaces the earlier one whole). False with `error` when it is not
/// well-formed or an enum has no name.
bool readDisplayXml(const std::string& xml, const std::string& name, Displays& displays,
                    std::string& error);

/// What a dictionary directory entry is, by its name alone: a name with
/// ".xml" (exactly so) and "binlog" in any case is a binlog file; else one
/// with ".xml" and "bindisplay" in any case a bindisplay file.
enum class DictionaryFile { Other, Binlog, Bindisplay };
DictionaryFile dictionaryFileKind(const std::string& name);

/// One field of a payload in wire order.
struct Field {
    FieldKind kind = FieldKind::U8;
    /// True for the module header's fields (and its padding).
    bool header = false;
    std::string name;
    /// Integer kinds: element count (0 for a single value). String kinds: the
    /// declared size in bytes. Padding: the number of zero bytes.
    std::uint32_t length = 0;
    std::string displayFormat;
    /// Integer kinds whose display format names a known display enumeration:
    /// the values (bit patterns) that the enumeration names, ascending.
    std::vector<std::uint64_t> enumValues;
    /// Number of elements an integer field carries (1 for a single value).
    std::uint64_t elements() const { return length == 0 ? 1 : length; }
};

/// Where a log's records go and how their payload is laid out.
struct LogLayout {
    std::uint16_t moduleKey = 0;
    std::uint16_t logIndex = 0;
    std::uint32_t logId = 0;
    std::uint16_t version = 0;
    /// subsystem ":" module, as the decoder prints it.
    std::string moduleLabel;
    std::string logName;
    std::string category;
    /// Module header fields in group order, the padding, then the log's
    /// fields in group order.
    std::vector<Field> fields;
    /// Payload bytes when every var binary string is empty.
    std::uint64_t fixedSize = 0;
    const ModuleDecl* module = nullptr;
    const LogDecl* log = nullptr;
};

/// The group order of a payload: u64, i64, u32, i32, u16, i16, u8, i8,
/// string, binarystring, varbinarystring.
extern const FieldKind kGroupOrder[11];

/// Bytes of a module header's values (var binary strings take none).
std::uint64_t headerBytes(const std::vector<ParamDecl>& header);
/// Zero bytes after a module header of `header`: up to a multiple of 8 when
/// it has a 64-bit parameter, else of 4.
std::uint32_t headerPadding(const std::vector<ParamDecl>& header);

/// The numeric values an enumeration of `displays` (may be null) names for an
/// integer of `kind` (keys that are the exact decimal text of a value of that
/// kind), ascending.
std::vector<std::uint64_t> enumValuesFor(const Displays* displays, const std::string& format,
                                         FieldKind kind);

/// Lays out the payload of `log` in `module`: when the module has a header,
/// its parameters in group order (no var binary strings) and the padding;
/// then the log's parameters in group order, declaration order within a
/// group. `displays` (may be null) supplies the enumeration values.
LogLayout layoutOf(const ModuleDecl& module, const LogDecl& log, const Displays* displays);

/// The names of the first `most` parameters of `kind` in `log`, in
/// declaration order (the slots of a legacy record).
std::vector<std::string> firstNamesOf(const LogDecl& log, FieldKind kind, std::size_t most);

/// A loaded dictionary directory with the layout of every log.
class Dictionary {
  public:
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;

    /// Loads the dictionary directory: its binlog and bindisplay files in the
    /// order the directory lists them (a later binlog file with the same
    /// module key replaces the earlier one). False with a message when the
    /// directory cannot be read, holds no binlog file, or a binlog file does
    /// not load. A bindisplay file that does not load switches every
    /// enumeration off, as for the decoder.
    bool load(const std::string& directory, std::string& error);
    /// Uses the modules and enumerations given (for tests).
    void assign(std::vector<ModuleDecl> modules, Displays displays);

    bool loaded() const { return loaded_; }
    const Displays& displays() const { return displays_; }
    const std::vector<ModuleDecl>& modules() const { return modules_; }
    const std::vector<LogLayout>& layouts() const { return layouts_; }

    /// A module by "subsystem:module" name or by numeric key (decimal or 0x).
    bool findModule(const std::string& text, std::uint16_t& key, std::string& error) const;
    /// A log of module `key` by name, or by its 1-based index in its file
    /// written "@N" (or "#N").
    const LogLayout* findLog(std::uint16_t key, const std::string& text, std::string& error) const;

  private:
    void index();

    bool loaded_ = false;
    std::vector<ModuleDecl> modules_;  // ascending module key
    Displays displays_;
    std::vector<LogLayout> layouts_;
};

}  // namespace binlog_synth

#endif
