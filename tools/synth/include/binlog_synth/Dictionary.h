// The dictionary as the capture writer sees it: every log of every module
// laid out as the sequence of fields its payload carries on the wire.
//
// The dictionary is loaded through the decoding library itself, so captures
// are written for exactly the descriptions the decoder will use.
#ifndef BINLOG_SYNTH_DICTIONARY_H
#define BINLOG_SYNTH_DICTIONARY_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinaryLogXmlReader.h"

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
    const Tav::ModuleDetails* module = nullptr;
    const Tav::LogDetails* log = nullptr;
};

/// The numeric values an enumeration of `formatter` names for an integer of
/// `kind` (keys that are the exact decimal text of a value of that kind).
std::vector<std::uint64_t> enumValuesFor(const Tav::BinaryLogDisplayFormatter* formatter,
                                         const std::string& format, FieldKind kind);

/// Lays out the payload of `log` in module `module`: the module header's
/// lists in group order (u64, i64, u32, i32, u16, i16, u8, i8, string,
/// binarystring; no var binary strings) and `headerPadding` zero bytes when
/// the module declares a header, then the log's eleven lists in group order.
/// `formatter` (may be null) supplies the enumeration values.
LogLayout buildLayout(const Tav::ModuleDetails& module, const Tav::LogDetails& log,
                      std::uint16_t moduleKey, const Tav::BinaryLogDisplayFormatter* formatter);

/// The loaded dictionary with the layout of every log.
class Dictionary {
  public:
    Dictionary() = default;
    Dictionary(const Dictionary&) = delete;
    Dictionary& operator=(const Dictionary&) = delete;

    /// Loads the dictionary directory (a missing trailing "/" is added).
    /// False with a message when the library reports a failed load.
    bool load(const std::string& directory, std::string& error);
    /// Uses a reader loaded by the caller (which must outlive this object).
    void attach(const Tav::BinaryLogXmlReader& reader);

    const Tav::BinaryLogXmlReader* reader() const { return reader_; }
    const std::vector<LogLayout>& layouts() const { return layouts_; }

    /// A module by "subsystem:module" name or by numeric key (decimal or 0x).
    bool findModule(const std::string& text, std::uint16_t& key, std::string& error) const;
    /// A log of module `key` by name, or by its 1-based index in its file
    /// written "@N" (or "#N").
    const LogLayout* findLog(std::uint16_t key, const std::string& text, std::string& error) const;

  private:
    void index();

    std::unique_ptr<Tav::BinaryLogXmlReader> owned_;
    const Tav::BinaryLogXmlReader* reader_ = nullptr;
    std::vector<LogLayout> layouts_;
};

}  // namespace binlog_synth

#endif
