// Wire layouts of the dictionary's logs.
#include "binlog_synth/Dictionary.h"

#include <algorithm>
#include <cstdio>

#include "binlog_synth/Text.h"

namespace binlog_synth {

namespace {

template <typename T>
void addIntFields(std::vector<Field>& fields, FieldKind kind,
                  const std::vector<Tav::TavLogParam<T>>& params, bool header,
                  const Tav::BinaryLogDisplayFormatter* formatter) {
    for (const auto& p : params) {
        Field f;
        f.kind = kind;
        f.header = header;
        f.name = p.name;
        f.length = p.length;
        f.displayFormat = p.displayFormat;
        f.enumValues = enumValuesFor(formatter, p.displayFormat, kind);
        fields.push_back(std::move(f));
    }
}

void addStringFields(std::vector<Field>& fields, FieldKind kind,
                     const std::vector<Tav::TavLogParam<std::string>>& params, bool header) {
    for (const auto& p : params) {
        Field f;
        f.kind = kind;
        f.header = header;
        f.name = p.name;
        f.length = p.length;
        fields.push_back(std::move(f));
    }
}

/// Appends the fields of the ten (header) or eleven (log) lists in group order.
void addGroups(std::vector<Field>& fields, const Tav::FlexiParams& p, bool header,
               const Tav::BinaryLogDisplayFormatter* formatter) {
    addIntFields(fields, FieldKind::U64, p.uint64Params, header, formatter);
    addIntFields(fields, FieldKind::I64, p.int64Params, header, formatter);
    addIntFields(fields, FieldKind::U32, p.uint32Params, header, formatter);
    addIntFields(fields, FieldKind::I32, p.int32Params, header, formatter);
    addIntFields(fields, FieldKind::U16, p.uint16Params, header, formatter);
    addIntFields(fields, FieldKind::I16, p.int16Params, header, formatter);
    addIntFields(fields, FieldKind::U8, p.uint8Params, header, formatter);
    addIntFields(fields, FieldKind::I8, p.int8Params, header, formatter);
    addStringFields(fields, FieldKind::String, p.stringParams, header);
    addStringFields(fields, FieldKind::BinaryString, p.binaryStringParams, header);
    if (!header) {
        // The decoder never reads var binary strings of a module header.
        addStringFields(fields, FieldKind::VarBinaryString, p.varBinaryStringParams, header);
    }
}

/// The value of `text` when it is exactly the decimal text the decoder
/// prints for some value of `kind`.
bool canonicalDecimal(const std::string& text, FieldKind kind, std::uint64_t& bits) {
    const bool negative = !text.empty() && text[0] == '-';
    const std::size_t digits = negative ? 1 : 0;
    if (text.size() <= digits || (negative && !isSignedKind(kind))) {
        return false;
    }
    for (std::size_t i = digits; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    if (text[digits] == '0' && (text.size() > digits + 1 || negative)) {
        return false;  // leading zero, or "-0"
    }
    std::uint64_t v = 0;
    if (!parseIntegerBits(text, static_cast<unsigned>(elementSize(kind)), v)) {
        return false;
    }
    if (isSignedKind(kind) && !negative) {
        // A positive text must fit the signed range: 255 is not an int8 value.
        const unsigned width = static_cast<unsigned>(elementSize(kind)) * 8;
        if (v >> (width - 1) != 0) {
            return false;
        }
    }
    bits = v;
    return true;
}

}  // namespace

std::size_t elementSize(FieldKind kind) {
    switch (kind) {
        case FieldKind::U64:
        case FieldKind::I64:
            return 8;
        case FieldKind::U32:
        case FieldKind::I32:
            return 4;
        case FieldKind::U16:
        case FieldKind::I16:
            return 2;
        case FieldKind::U8:
        case FieldKind::I8:
            return 1;
        default:
            return 0;
    }
}

bool isIntegerKind(FieldKind kind) {
    return elementSize(kind) != 0;
}

bool isSignedKind(FieldKind kind) {
    return kind == FieldKind::I64 || kind == FieldKind::I32 || kind == FieldKind::I16 ||
           kind == FieldKind::I8;
}

const char* kindName(FieldKind kind) {
    switch (kind) {
        case FieldKind::U64:
            return "TavUint64_t";
        case FieldKind::I64:
            return "TavInt64_t";
        case FieldKind::U32:
            return "TavUint32_t";
        case FieldKind::I32:
            return "TavInt32_t";
        case FieldKind::U16:
            return "TavUint16_t";
        case FieldKind::I16:
            return "TavInt16_t";
        case FieldKind::U8:
            return "TavUint8_t";
        case FieldKind::I8:
            return "TavInt8_t";
        case FieldKind::String:
            return "string";
        case FieldKind::BinaryString:
            return "binarystring";
        case FieldKind::VarBinaryString:
            return "varbinarystring";
        case FieldKind::Padding:
            return "padding";
    }
    return "?";
}

std::vector<std::uint64_t> enumValuesFor(const Tav::BinaryLogDisplayFormatter* formatter,
                                         const std::string& format, FieldKind kind) {
    std::vector<std::uint64_t> values;
    if (formatter == nullptr || !isIntegerKind(kind) || format == Tav::kFormatHex ||
        format == Tav::kFormatDefault || (kind == FieldKind::U32 && format == Tav::kFormatSfSfn)) {
        return values;
    }
    const auto found = formatter->displayFormats.find(format);
    if (found == formatter->displayFormats.end()) {
        return values;
    }
    for (const auto& entry : found->second) {
        std::uint64_t bits = 0;
        if (canonicalDecimal(entry.first, kind, bits)) {
            values.push_back(bits);
        }
    }
    std::sort(values.begin(), values.end());
    return values;
}

LogLayout buildLayout(const Tav::ModuleDetails& module, const Tav::LogDetails& log,
                      std::uint16_t moduleKey, const Tav::BinaryLogDisplayFormatter* formatter) {
    LogLayout layout;
    layout.moduleKey = moduleKey;
    layout.logIndex = log.logIndex;
    layout.logId = (static_cast<std::uint32_t>(moduleKey) << 16) | log.logIndex;
    layout.version = module.binlogVersion;
    layout.moduleLabel = module.subsystemName + ":" + module.moduleName;
    layout.logName = log.logName;
    layout.category = log.category;
    layout.module = &module;
    layout.log = &log;
    if (module.hasModuleHeader) {
        addGroups(layout.fields, module, true, formatter);
        if (module.headerPadding != 0) {
            Field padding;
            padding.kind = FieldKind::Padding;
            padding.header = true;
            padding.length = module.headerPadding;
            layout.fields.push_back(padding);
        }
    }
    addGroups(layout.fields, log, false, formatter);
    for (const Field& f : layout.fields) {
        if (isIntegerKind(f.kind)) {
            layout.fixedSize += f.elements() * elementSize(f.kind);
        } else if (f.kind == FieldKind::VarBinaryString) {
            layout.fixedSize += 2;
        } else {
            layout.fixedSize += f.length;
        }
    }
    return layout;
}

bool Dictionary::load(const std::string& directory, std::string& error) {
    std::string path = directory;
    if (path.empty()) {
        error = "no dictionary directory given";
        return false;
    }
    if (path.back() != '/') {
        path.push_back('/');
    }
    owned_.reset(new Tav::BinaryLogXmlReader(path, false, 0, 0));
    if (!owned_->isGood()) {
        fputc('\n', stderr);  // the library's last message may lack a line feed
        error = "the dictionary in " + directory + " did not load";
        owned_.reset();
        return false;
    }
    reader_ = owned_.get();
    index();
    return true;
}

void Dictionary::attach(const Tav::BinaryLogXmlReader& reader) {
    owned_.reset();
    reader_ = &reader;
    index();
}

void Dictionary::index() {
    layouts_.clear();
    for (const auto& moduleEntry : reader_->moduleDetailsMap) {
        const auto logs = reader_->logDetailsMap.find(moduleEntry.first);
        if (logs == reader_->logDetailsMap.end()) {
            continue;
        }
        for (const auto& logEntry : logs->second) {
            LogLayout layout = buildLayout(moduleEntry.second, logEntry.second, moduleEntry.first,
                                           &reader_->displayFormatter);
            // The decoder finds a log by its key in the map.
            layout.logIndex = logEntry.first;
            layout.logId = (static_cast<std::uint32_t>(moduleEntry.first) << 16) | logEntry.first;
            layouts_.push_back(std::move(layout));
        }
    }
}

bool Dictionary::findModule(const std::string& text, std::uint16_t& key, std::string& error) const {
    if (reader_ == nullptr) {
        error = "no dictionary loaded (use --dict)";
        return false;
    }
    std::uint64_t number = 0;
    if (text.find(':') == std::string::npos && parseUnsigned(text, 0xFFFF, number)) {
        if (reader_->moduleDetailsMap.count(static_cast<std::uint16_t>(number)) == 0) {
            char buf[64];
            snprintf(buf, sizeof buf, "no module has the key 0x%04x",
                     static_cast<unsigned>(number));
            error = buf;
            return false;
        }
        key = static_cast<std::uint16_t>(number);
        return true;
    }
    std::vector<std::uint16_t> matches;
    std::string known;
    for (const auto& m : reader_->moduleDetailsMap) {
        const std::string label = m.second.subsystemName + ":" + m.second.moduleName;
        if (label == text) {
            matches.push_back(m.first);
        }
        known += (known.empty() ? "" : ", ") + label;
    }
    if (matches.empty()) {
        error = "unknown module " + text + " (known: " + known + ")";
        return false;
    }
    if (matches.size() > 1) {
        error = "module name " + text + " is ambiguous; give its numeric key";
        return false;
    }
    key = matches.front();
    return true;
}

const LogLayout* Dictionary::findLog(std::uint16_t key, const std::string& text,
                                     std::string& error) const {
    std::uint64_t index = 0;
    // "@N"; "#N" is the older spelling, which a script can only write quoted
    // ('#' starts a comment there).
    const bool byIndex = text.size() > 1 && (text[0] == '@' || text[0] == '#');
    if (byIndex && !parseUnsigned(text.substr(1), 0xFFFF, index)) {
        error = "bad log index " + text;
        return nullptr;
    }
    std::string label;
    for (const LogLayout& layout : layouts_) {
        if (layout.moduleKey != key) {
            continue;
        }
        label = layout.moduleLabel;
        if (byIndex ? layout.logIndex == index : layout.logName == text) {
            return &layout;
        }
    }
    if (label.empty()) {
        char buf[64];
        snprintf(buf, sizeof buf, "module 0x%04x has no logs", key);
        error = buf;
    } else {
        error = "module " + label + " has no log " + (byIndex ? "with index " : "named ") +
                (byIndex ? text.substr(1) : text);
    }
    return nullptr;
}

}  // namespace binlog_synth
