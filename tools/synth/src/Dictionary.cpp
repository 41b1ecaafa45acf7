// The writer's own reading of the dictionary directory (plain libxml2) and
// its own statement of the payload layout.
#include "binlog_synth/Dictionary.h"

#include <dirent.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "binlog_synth/Text.h"

namespace binlog_synth {

const FieldKind kGroupOrder[11] = {FieldKind::U64,
                                   FieldKind::I64,
                                   FieldKind::U32,
                                   FieldKind::I32,
                                   FieldKind::U16,
                                   FieldKind::I16,
                                   FieldKind::U8,
                                   FieldKind::I8,
                                   FieldKind::String,
                                   FieldKind::BinaryString,
                                   FieldKind::VarBinaryString};

namespace {

// ---- XML ---------------------------------------------------------------------------------

struct DocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocFree>;

DocPtr parseXml(const std::string& xml, const std::string& name) {
    if (xml.size() > 0x7FFFFFFF) {
        return DocPtr();
    }
    return DocPtr(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), name.c_str(), nullptr,
                                XML_PARSE_NONET));
}

bool isElement(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE &&
           xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

struct XmlCharFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};

/// The attribute's value, empty when it is missing.
std::string attribute(xmlNode* node, const char* name) {
    const std::unique_ptr<xmlChar, XmlCharFree> value(
        xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)));
    return value ? std::string(reinterpret_cast<const char*>(value.get())) : std::string();
}

bool hasAttributes(const xmlNode* node) {
    return node->type == XML_ELEMENT_NODE && node->properties != nullptr;
}

/// The names of a nameList: split at every comma, empty pieces skipped,
/// blanks kept.
std::vector<std::string> splitNames(const std::string& list) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start <= list.size()) {
        std::size_t comma = list.find(',', start);
        if (comma == std::string::npos) {
            comma = list.size();
        }
        if (comma > start) {
            names.push_back(list.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return names;
}

/// The declarations of the element children of `parent` that have
/// attributes (whatever their element name).
void readDeclarations(xmlNode* parent, std::vector<ParamDecl>& out) {
    for (xmlNode* child = parent->children; child != nullptr; child = child->next) {
        if (!hasAttributes(child)) {
            continue;
        }
        FieldKind kind;
        if (!kindOfTypeName(attribute(child, "type"), kind)) {
            continue;  // an unknown type takes no bytes and shows nothing
        }
        const std::string size = attribute(child, "size");
        ParamDecl decl;
        decl.kind = kind;
        decl.count = static_cast<std::uint32_t>(dictionaryNumber(attribute(child, "count")));
        if (isIntegerKind(kind)) {
            decl.size = 0;
        } else if (size.empty()) {
            if (kind != FieldKind::String) {
                continue;  // a binary string needs its size: the decoder drops it
            }
            decl.size = 14;
        } else {
            decl.size = static_cast<std::uint32_t>(dictionaryNumber(size));
        }
        const std::string format = attribute(child, "displayFormat");
        decl.displayFormat = format.empty() ? kFormatDefault : format;
        for (const std::string& name : splitNames(attribute(child, "nameList"))) {
            decl.name = name;
            out.push_back(decl);
        }
    }
}

/// "line N: " for an element, to put before what is wrong with it.
std::string lineOf(const xmlNode* node) {
    return "line " + std::to_string(xmlGetLineNo(node)) + ": ";
}

/// Depth-first, document order: LoggingSubSystem, ModuleHeader and LogId
/// wherever they stand.
bool walkBinlog(xmlNode* node, ModuleDecl& module, std::string& error) {
    for (; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (isElement(node, "LoggingSubSystem")) {
            const std::string subsystem = attribute(node, "subsystem");
            const std::string subsystemId = attribute(node, "subsystemId");
            const std::string moduleName = attribute(node, "module");
            const std::string moduleId = attribute(node, "moduleid");
            const std::string version = attribute(node, "binlogversion");
            if (subsystem.empty() || subsystemId.empty() || moduleName.empty() ||
                moduleId.empty() || version.empty()) {
                error = lineOf(node) +
                        "LoggingSubSystem needs subsystem, subsystemId, module, moduleid and "
                        "binlogversion";
                return false;
            }
            const auto high = static_cast<std::uint32_t>(dictionaryNumber(subsystemId)) & 0xFFFFU;
            const auto low = static_cast<std::uint32_t>(dictionaryNumber(moduleId));
            module.key = static_cast<std::uint16_t>((high << 8) | low);
            module.subsystem = subsystem;
            module.module = moduleName;
            module.version = static_cast<std::uint16_t>(dictionaryNumber(version));
        } else if (isElement(node, "ModuleHeader")) {
            module.hasHeader = true;
            readDeclarations(node, module.header);
        } else if (isElement(node, "LogId")) {
            LogDecl log;
            log.name = attribute(node, "name");
            log.logString = attribute(node, "logString");
            log.category = attribute(node, "category");
            if (log.name.empty() || log.logString.empty() || log.category.empty()) {
                error = lineOf(node) + "a LogId needs name, logString and category";
                return false;
            }
            if (module.logs.size() >= 0xFFFF) {
                error = lineOf(node) + "more than 65535 logs";
                return false;
            }
            log.index = static_cast<std::uint16_t>(module.logs.size() + 1);
            readDeclarations(node, log.params);
            module.logs.push_back(std::move(log));
        }
        if (!walkBinlog(node->children, module, error)) {
            return false;
        }
    }
    return true;
}

bool walkDisplays(xmlNode* node, Displays& displays, std::string& error) {
    for (; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE) {
            continue;
        }
        if (isElement(node, "enum")) {
            const std::string name = attribute(node, "name");
            if (name.empty()) {
                error = lineOf(node) + "an enum needs a name";
                return false;
            }
            std::map<std::string, std::string> table;
            for (xmlNode* entry = node->children; entry != nullptr; entry = entry->next) {
                if (hasAttributes(entry)) {
                    table[attribute(entry, "value")] = attribute(entry, "text");
                }
            }
            displays.enums[name] = std::move(table);
        }
        if (!walkDisplays(node->children, displays, error)) {
            return false;
        }
    }
    return true;
}

bool containsNoCase(const std::string& text, const std::string& word) {
    return lower(text).find(word) != std::string::npos;
}

bool readWholeFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) {
        return false;
    }
    text = buffer.str();
    return true;
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

std::uint64_t fieldBytes(FieldKind kind, std::uint32_t count, std::uint32_t size) {
    if (isIntegerKind(kind)) {
        return (count == 0 ? 1 : static_cast<std::uint64_t>(count)) * elementSize(kind);
    }
    if (kind == FieldKind::VarBinaryString) {
        return 2;  // the count; the bytes vary
    }
    return size;
}

}  // namespace

// ---- Kinds and numbers -------------------------------------------------------------------

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

bool kindOfTypeName(const std::string& type, FieldKind& kind) {
    for (const FieldKind k : kGroupOrder) {
        if (type == kindName(k)) {
            kind = k;
            return true;
        }
    }
    return false;
}

std::int32_t dictionaryNumber(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) {
        ++at;
    }
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        negative = text[at] == '-';
        ++at;
    }
    std::int64_t magnitude = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        magnitude = magnitude * 10 + (text[at] - '0');
        if (magnitude > 2147483648LL) {
            magnitude = 2147483648LL;  // beyond either limit: stays beyond it
        }
    }
    const std::int64_t value = negative ? -magnitude : magnitude;
    if (value > 2147483647LL) {
        return 2147483647;
    }
    return static_cast<std::int32_t>(value);
}

// ---- Files -------------------------------------------------------------------------------

bool readBinlogXml(const std::string& xml, const std::string& name, ModuleDecl& module,
                   std::string& error) {
    module = ModuleDecl();
    const DocPtr doc = parseXml(xml, name);
    if (!doc) {
        error = name + " is not well-formed XML";
        return false;
    }
    std::string why;
    if (!walkBinlog(xmlDocGetRootElement(doc.get()), module, why)) {
        error = name + ": " + why;
        return false;
    }
    return true;
}

bool readDisplayXml(const std::string& xml, const std::string& name, Displays& displays,
                    std::string& error) {
    const DocPtr doc = parseXml(xml, name);
    if (!doc) {
        error = name + " is not well-formed XML";
        return false;
    }
    std::string why;
    if (!walkDisplays(xmlDocGetRootElement(doc.get()), displays, why)) {
        error = name + ": " + why;
        return false;
    }
    return true;
}

DictionaryFile dictionaryFileKind(const std::string& name) {
    if (name.find(".xml") == std::string::npos) {
        return DictionaryFile::Other;
    }
    if (containsNoCase(name, "binlog")) {
        return DictionaryFile::Binlog;
    }
    if (containsNoCase(name, "bindisplay")) {
        return DictionaryFile::Bindisplay;
    }
    return DictionaryFile::Other;
}

// ---- Layout ------------------------------------------------------------------------------

std::uint64_t headerBytes(const std::vector<ParamDecl>& header) {
    std::uint64_t bytes = 0;
    for (const ParamDecl& p : header) {
        if (p.kind != FieldKind::VarBinaryString) {
            bytes += fieldBytes(p.kind, p.count, p.size);
        }
    }
    return bytes;
}

std::uint32_t headerPadding(const std::vector<ParamDecl>& header) {
    std::uint64_t align = 4;
    for (const ParamDecl& p : header) {
        if (p.kind == FieldKind::U64 || p.kind == FieldKind::I64) {
            align = 8;
        }
    }
    return static_cast<std::uint32_t>((align - headerBytes(header) % align) % align);
}

std::vector<std::uint64_t> enumValuesFor(const Displays* displays, const std::string& format,
                                         FieldKind kind) {
    std::vector<std::uint64_t> values;
    if (displays == nullptr || !isIntegerKind(kind) || format == kFormatHex ||
        format == kFormatDefault || (kind == FieldKind::U32 && format == kFormatSfSfn)) {
        return values;
    }
    const auto found = displays->enums.find(format);
    if (found == displays->enums.end()) {
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

namespace {

void addGroups(std::vector<Field>& fields, const std::vector<ParamDecl>& params, bool header,
               const Displays* displays) {
    for (const FieldKind kind : kGroupOrder) {
        if (header && kind == FieldKind::VarBinaryString) {
            continue;  // never part of a module header on the wire
        }
        for (const ParamDecl& p : params) {
            if (p.kind != kind) {
                continue;
            }
            Field f;
            f.kind = kind;
            f.header = header;
            f.name = p.name;
            f.length = isIntegerKind(kind) ? p.count : p.size;
            f.displayFormat = p.displayFormat;
            f.enumValues = enumValuesFor(displays, p.displayFormat, kind);
            fields.push_back(std::move(f));
        }
    }
}

}  // namespace

LogLayout layoutOf(const ModuleDecl& module, const LogDecl& log, const Displays* displays) {
    LogLayout layout;
    layout.moduleKey = module.key;
    layout.logIndex = log.index;
    layout.logId = (static_cast<std::uint32_t>(module.key) << 16) | log.index;
    layout.version = module.version;
    layout.moduleLabel = module.subsystem + ":" + module.module;
    layout.logName = log.name;
    layout.category = log.category;
    layout.module = &module;
    layout.log = &log;
    if (module.hasHeader) {
        addGroups(layout.fields, module.header, true, displays);
        const std::uint32_t padding = headerPadding(module.header);
        if (padding != 0) {
            Field f;
            f.kind = FieldKind::Padding;
            f.header = true;
            f.length = padding;
            layout.fields.push_back(f);
        }
    }
    addGroups(layout.fields, log.params, false, displays);
    for (const Field& f : layout.fields) {
        layout.fixedSize +=
            f.kind == FieldKind::Padding ? f.length : fieldBytes(f.kind, f.length, f.length);
    }
    return layout;
}

std::vector<std::string> firstNamesOf(const LogDecl& log, FieldKind kind, std::size_t most) {
    std::vector<std::string> names;
    for (const ParamDecl& p : log.params) {
        if (p.kind == kind && names.size() < most) {
            names.push_back(p.name);
        }
    }
    return names;
}

// ---- Dictionary --------------------------------------------------------------------------

bool Dictionary::load(const std::string& directory, std::string& error) {
    if (directory.empty()) {
        error = "no dictionary directory given";
        return false;
    }
    std::string path = directory;
    if (path.back() != '/') {
        path.push_back('/');
    }
    const std::string failed = "the dictionary in " + directory + " did not load: ";
    std::vector<std::string> binlogFiles, displayFiles;
    {
        const std::unique_ptr<DIR, DirClose> dir(opendir(path.c_str()));
        if (!dir) {
            error = failed + "cannot read the directory";
            return false;
        }
        while (const dirent* entry = readdir(dir.get())) {
            const DictionaryFile kind = dictionaryFileKind(entry->d_name);
            if (kind == DictionaryFile::Binlog) {
                binlogFiles.push_back(path + entry->d_name);
            } else if (kind == DictionaryFile::Bindisplay) {
                displayFiles.push_back(path + entry->d_name);
            }
        }
    }
    if (binlogFiles.empty()) {
        error = failed + "no binlog file in it";
        return false;
    }
    std::map<std::uint16_t, ModuleDecl> byKey;
    for (const std::string& file : binlogFiles) {
        std::string xml;
        ModuleDecl module;
        if (!readWholeFile(file, xml)) {
            error = failed + "cannot read " + file;
            return false;
        }
        if (!readBinlogXml(xml, file, module, error)) {
            error = failed + error;
            return false;
        }
        byKey[module.key] = std::move(module);  // a later file replaces an earlier one
    }
    Displays displays;
    for (const std::string& file : displayFiles) {
        std::string xml, why;
        if (!readWholeFile(file, xml) || !readDisplayXml(xml, file, displays, why)) {
            displays = Displays();  // the decoder switches every enumeration off
            break;
        }
    }
    std::vector<ModuleDecl> modules;
    for (auto& entry : byKey) {
        modules.push_back(std::move(entry.second));
    }
    assign(std::move(modules), std::move(displays));
    return true;
}

void Dictionary::assign(std::vector<ModuleDecl> modules, Displays displays) {
    modules_ = std::move(modules);
    std::stable_sort(modules_.begin(), modules_.end(),
                     [](const ModuleDecl& a, const ModuleDecl& b) { return a.key < b.key; });
    displays_ = std::move(displays);
    loaded_ = true;
    index();
}

void Dictionary::index() {
    layouts_.clear();
    for (const ModuleDecl& module : modules_) {
        for (const LogDecl& log : module.logs) {
            layouts_.push_back(layoutOf(module, log, &displays_));
        }
    }
}

bool Dictionary::findModule(const std::string& text, std::uint16_t& key, std::string& error) const {
    if (!loaded_) {
        error = "no dictionary loaded (use --dict)";
        return false;
    }
    std::uint64_t number = 0;
    if (text.find(':') == std::string::npos && parseUnsigned(text, 0xFFFF, number)) {
        for (const ModuleDecl& module : modules_) {
            if (module.key == number) {
                key = module.key;
                return true;
            }
        }
        char buf[64];
        snprintf(buf, sizeof buf, "no module has the key 0x%04x", static_cast<unsigned>(number));
        error = buf;
        return false;
    }
    std::vector<std::uint16_t> matches;
    std::string known;
    for (const ModuleDecl& module : modules_) {
        const std::string label = module.subsystem + ":" + module.module;
        if (label == text) {
            matches.push_back(module.key);
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
