// The binlog files on their own: required elements and attributes, types,
// numbers, duplicate names and repeated elements.
#include <map>
#include <string>

#include "Model.h"

namespace wexbl_lint {
namespace detail {
namespace {

bool nameIs(const xmlNode* node, const char* name) {
    return xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

std::vector<Declaration> readDeclarations(xmlNode* parent) {
    std::vector<Declaration> declarations;
    for (xmlNode* child = parent->children; child != nullptr; child = child->next) {
        if (child->properties == nullptr) {
            continue;
        }
        Declaration declaration;
        declaration.element = readElement(child);
        const std::string* nameList = declaration.element.find("nameList");
        if (nameList != nullptr) {
            declaration.names = splitNames(*nameList);
        }
        declarations.push_back(std::move(declaration));
    }
    return declarations;
}

/// The same walk as the loader's: every node, depth first, in document
/// order, without following entity references.
void walk(xmlNode* node, BinlogFile& file) {
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE) {
            if (nameIs(node, "LoggingSubSystem")) {
                file.subsystems.push_back(readElement(node));
            } else if (nameIs(node, "LogId")) {
                Log log;
                log.element = readElement(node);
                log.declarations = readDeclarations(node);
                file.logs.push_back(std::move(log));
            } else if (nameIs(node, "ModuleHeader")) {
                file.moduleHeaders.push_back(readElement(node));
                for (Declaration& declaration : readDeclarations(node)) {
                    file.headerDeclarations.push_back(std::move(declaration));
                }
            }
        }
        if (node->type != XML_ENTITY_REF_NODE) {
            walk(node->children, file);
        }
    }
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

/// " (there is "namelist": attribute names are case-sensitive)" when an
/// attribute differs from `name` in case only.
std::string caseHint(const Element& element, const std::string& name) {
    for (const Attribute& attribute : element.attributes) {
        if (attribute.name != name && lower(attribute.name) == lower(name)) {
            return " (there is \"" + attribute.name + "\": attribute names are case-sensitive)";
        }
    }
    return "";
}

/// Reports a required attribute that is absent or empty; true when present.
bool requireAttribute(Sink& sink, const std::string& path, const Element& element, const char* what,
                      const std::string& name, const std::string& consequence) {
    const std::string* value = element.find(name);
    if (value != nullptr && !value->empty()) {
        return true;
    }
    std::string message = std::string(what) +
                          (value == nullptr ? " has no \"" : " has an empty \"") + name + "\"" +
                          caseHint(element, name) + ": " + consequence;
    sink.add(path, element.line, Severity::Error, "missing-attribute", std::move(message));
    return false;
}

bool allDigits(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

/// Checks a number attribute; true when it is a plain decimal number within
/// the 32-bit range.
bool checkNumber(Sink& sink, const std::string& path, long line, const std::string& name,
                 const std::string& text) {
    const std::int32_t read = parseDecimal32(text);
    std::string message;
    if (text.size() > 1 && text[0] == '-' && allDigits(text.substr(1))) {
        message =
            name + " \"" + text + "\" is negative: the loader reads it as " + std::to_string(read);
        if (name == "count" || name == "size") {
            message += ", that is " + std::to_string(static_cast<std::uint32_t>(read)) +
                       " as an unsigned 32-bit length";
        }
    } else if (!allDigits(text)) {
        message = name + " \"" + text + "\" is not a decimal number: the loader reads it as " +
                  std::to_string(read);
    } else if (text.size() > 10 || std::stoull(text) > 2147483647ULL) {
        message = name + " \"" + text + "\" saturates: the loader reads it as 2147483647";
    } else {
        return true;
    }
    sink.add(path, line, Severity::Error, "bad-number", std::move(message));
    return false;
}

const char* const kTypes[] = {"TavUint64_t", "TavInt64_t",   "TavUint32_t",    "TavInt32_t",
                              "TavUint16_t", "TavInt16_t",   "TavUint8_t",     "TavInt8_t",
                              "string",      "binarystring", "varbinarystring"};

std::string typeHint(const std::string& type) {
    std::string trimmed = type;
    while (!trimmed.empty() && (trimmed.back() == ' ' || trimmed.back() == '\t')) {
        trimmed.pop_back();
    }
    while (!trimmed.empty() && (trimmed[0] == ' ' || trimmed[0] == '\t')) {
        trimmed.erase(0, 1);
    }
    for (const char* known : kTypes) {
        if (lower(trimmed) == lower(known)) {
            return std::string(" (did you mean \"") + known + "\"?)";
        }
    }
    return "";
}

constexpr std::uint64_t kMaxPayload = 25000 - 16;

void checkDeclaration(Sink& sink, const std::string& path, const Declaration& declaration) {
    const Element& element = declaration.element;
    requireAttribute(sink, path, element, "the declaration", "nameList", "it declares nothing");
    const std::string type = element.value("type");
    if (!requireAttribute(sink, path, element, "the declaration", "type",
                          "its parameters take no bytes and show no value")) {
        return;
    }
    if (!knownType(type)) {
        sink.add(path, element.line, Severity::Error, "unknown-type",
                 "unknown type \"" + type + "\"" + typeHint(type) +
                     ": its parameters take no bytes and show no value");
        return;
    }
    const unsigned width = integerWidth(type);
    if (width != 0) {
        const std::string count = element.value("count");
        if (!count.empty() && checkNumber(sink, path, element.line, "count", count)) {
            const std::uint64_t bytes = std::stoull(count) * width;
            if (bytes > kMaxPayload) {
                sink.add(path, element.line, Severity::Error, "huge-count",
                         "count " + count + " makes each " + type + " array " +
                             std::to_string(bytes) + " bytes, more than a record can hold (" +
                             std::to_string(kMaxPayload) + " bytes of payload)");
            }
        }
        return;
    }
    if (type != "string" &&
        !requireAttribute(sink, path, element, ("the " + type + " declaration").c_str(), "size",
                          "the loader drops it, and the parameters after it are read at other "
                          "offsets")) {
        return;
    }
    const std::string size = element.value("size");
    if (!size.empty() && checkNumber(sink, path, element.line, "size", size)) {
        const std::uint64_t bytes = std::stoull(size) + (type == "varbinarystring" ? 2 : 0);
        if (bytes > kMaxPayload) {
            sink.add(path, element.line, Severity::Error, "huge-count",
                     "size " + size + " makes each " + type + " " + std::to_string(bytes) +
                         " bytes, more than a record can hold (" + std::to_string(kMaxPayload) +
                         " bytes of payload)");
        }
    }
}

/// Duplicate parameter names among declarations of one log or header.
void checkDuplicateNames(Sink& sink, const std::string& path,
                         const std::vector<Declaration>& declarations, const std::string& owner) {
    std::map<std::string, long> seen;
    for (const Declaration& declaration : declarations) {
        for (const std::string& name : declaration.names) {
            const auto inserted = seen.emplace(name, declaration.element.line);
            if (!inserted.second) {
                sink.add(path, declaration.element.line, Severity::Error, "duplicate-parameter",
                         "parameter \"" + name + "\" is declared again in " + owner +
                             " (first at line " + std::to_string(inserted.first->second) +
                             "): both take their bytes, and the value decoded last shows for "
                             "both");
            }
        }
    }
}

void checkFile(Sink& sink, const BinlogFile& file) {
    const std::string& path = file.path;
    const std::string fails = "the dictionary does not load";
    if (file.subsystems.empty()) {
        sink.add(path, 0, Severity::Error, "missing-element",
                 "no LoggingSubSystem element: the file's logs are filed under module key 0 "
                 "with empty names");
    }
    for (std::size_t i = 0; i < file.subsystems.size(); ++i) {
        const Element& subsystem = file.subsystems[i];
        if (i > 0) {
            sink.add(path, subsystem.line, Severity::Error, "duplicate-subsystem",
                     "a second LoggingSubSystem (first at line " +
                         std::to_string(file.subsystems[0].line) +
                         "): the last one sets the module key and version of the whole file");
        }
        for (const char* name :
             {"subsystem", "subsystemId", "module", "moduleid", "binlogversion"}) {
            if (!requireAttribute(sink, path, subsystem, "LoggingSubSystem", name, fails)) {
                continue;
            }
            const std::string text = subsystem.value(name);
            const std::string attribute = name;
            if (attribute == "subsystem" || attribute == "module" ||
                !checkNumber(sink, path, subsystem.line, attribute, text)) {
                continue;
            }
            const std::uint64_t value = std::stoull(text);
            if (attribute == "subsystemId" && value > 255) {
                sink.add(path, subsystem.line, Severity::Error, "bad-number",
                         "subsystemId " + text +
                             " is above 255: its high bits are lost from "
                             "the module key");
            } else if (attribute == "moduleid" && value > 255) {
                sink.add(path, subsystem.line, Severity::Error, "bad-number",
                         "moduleid " + text +
                             " is above 255: it overlaps the subsystemId bits "
                             "of the module key");
            } else if (attribute == "binlogversion" && value > 65535) {
                sink.add(path, subsystem.line, Severity::Error, "bad-number",
                         "binlogversion " + text + " is above 65535: the loader keeps " +
                             std::to_string(value & 0xFFFFu));
            }
        }
    }
    for (std::size_t i = 1; i < file.moduleHeaders.size(); ++i) {
        sink.add(path, file.moduleHeaders[i].line, Severity::Warning, "duplicate-module-header",
                 "a second ModuleHeader (first at line " +
                     std::to_string(file.moduleHeaders[0].line) +
                     "): its declarations are appended to the first one's");
    }
    for (const Declaration& declaration : file.headerDeclarations) {
        checkDeclaration(sink, path, declaration);
    }
    checkDuplicateNames(sink, path, file.headerDeclarations, "the module header");
    std::map<std::string, long> logNames;
    for (const Log& log : file.logs) {
        const Element& element = log.element;
        if (element.attributes.empty()) {
            sink.add(path, element.line, Severity::Error, "missing-attribute",
                     "LogId has no attributes: " + fails);
        } else {
            for (const char* name : {"name", "logString", "category"}) {
                requireAttribute(sink, path, element, "LogId", name, fails);
            }
        }
        const std::string name = element.value("name");
        if (!name.empty()) {
            const auto inserted = logNames.emplace(name, element.line);
            if (!inserted.second) {
                sink.add(path, element.line, Severity::Warning, "duplicate-log-name",
                         "log name \"" + name + "\" is used again in this module (first at line " +
                             std::to_string(inserted.first->second) + ")");
            }
        }
        for (const Declaration& declaration : log.declarations) {
            checkDeclaration(sink, path, declaration);
        }
        checkDuplicateNames(sink, path, log.declarations, "log \"" + name + "\"");
    }
}

}  // namespace

void checkBinlogFiles(Dictionary& dict, Sink& sink) {
    for (BinlogFile& file : dict.binlogs) {
        XmlDoc doc = parseFile(file.path, "binlog", sink);
        if (!doc) {
            continue;
        }
        file.parsed = true;
        walk(xmlDocGetRootElement(doc.get()), file);
        checkFile(sink, file);
    }
}

}  // namespace detail
}  // namespace wexbl_lint
