// The bindisplay files' enumerations, and the display formats that the
// binlog files' declarations name.
#include <map>
#include <set>
#include <string>

#include "Model.h"

namespace wexbl_lint {
namespace detail {
namespace {

void walk(xmlNode* node, DisplayFile& file) {
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE &&
            xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>("enum")) == 0) {
            Enumeration enumeration;
            enumeration.element = readElement(node);
            enumeration.name = enumeration.element.value("name");
            for (xmlNode* child = node->children; child != nullptr; child = child->next) {
                if (child->properties != nullptr) {
                    enumeration.entries.push_back(EnumEntry{readElement(child)});
                }
            }
            file.enums.push_back(std::move(enumeration));
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

}  // namespace

void checkDisplayFiles(Dictionary& dict, Sink& sink) {
    // Enumeration names over all files, in the order the loader reads them.
    std::map<std::string, std::pair<std::string, long>> names;
    for (DisplayFile& file : dict.displays) {
        XmlDoc doc = parseFile(file.path, "bindisplay", sink);
        if (!doc) {
            continue;
        }
        file.parsed = true;
        walk(xmlDocGetRootElement(doc.get()), file);
        for (const Enumeration& enumeration : file.enums) {
            const Element& element = enumeration.element;
            if (element.attributes.empty()) {
                sink.add(file.path, element.line, Severity::Error, "missing-attribute",
                         "enum has no attributes: no enumeration is applied");
                continue;
            }
            if (enumeration.name.empty()) {
                sink.add(file.path, element.line, Severity::Error, "missing-attribute",
                         std::string("enum has ") +
                             (element.find("name") == nullptr ? "no" : "an empty") +
                             " \"name\": no enumeration is applied");
                continue;
            }
            const auto inserted =
                names.emplace(enumeration.name, std::make_pair(file.name, element.line));
            if (!inserted.second) {
                const auto& first = inserted.first->second;
                sink.add(file.path, element.line, Severity::Warning, "enum-duplicate",
                         "enumeration \"" + enumeration.name + "\" is defined again (first at " +
                             (first.first == file.name ? std::string("line ") : first.first + ":") +
                             std::to_string(first.second) +
                             "): the one read last replaces the other whole");
                inserted.first->second = std::make_pair(file.name, element.line);
            }
            std::map<std::string, long> values;
            std::map<std::string, std::pair<std::string, long>> texts;
            for (const EnumEntry& entry : enumeration.entries) {
                const std::string value = entry.element.value("value");
                const std::string text = entry.element.value("text");
                const auto seenValue = values.emplace(value, entry.element.line);
                if (!seenValue.second) {
                    sink.add(file.path, entry.element.line, Severity::Warning, "enum-duplicate",
                             "value \"" + value + "\" of enumeration \"" + enumeration.name +
                                 "\" is given again (first at line " +
                                 std::to_string(seenValue.first->second) +
                                 "): the later text wins");
                    continue;
                }
                const auto seenText =
                    texts.emplace(text, std::make_pair(value, entry.element.line));
                if (!seenText.second) {
                    sink.add(file.path, entry.element.line, Severity::Warning, "enum-duplicate",
                             "text \"" + text + "\" of enumeration \"" + enumeration.name +
                                 "\" names the values \"" + seenText.first->second.first +
                                 "\" (line " + std::to_string(seenText.first->second.second) +
                                 ") and \"" + value + "\" alike");
                }
            }
        }
    }
}

void checkDisplayFormats(const Dictionary& dict, Sink& sink) {
    std::set<std::string> enums;
    for (const DisplayFile& file : dict.displays) {
        if (!file.parsed) {
            // No enumeration applies at all, which is reported with the
            // file; its names are unknown, so every format would be flagged.
            return;
        }
        for (const Enumeration& enumeration : file.enums) {
            if (!enumeration.name.empty()) {
                enums.insert(enumeration.name);
            }
        }
    }
    auto check = [&](const std::string& path, const Declaration& declaration) {
        const Element& element = declaration.element;
        const std::string type = element.value("type");
        const std::string format = element.value("displayFormat");
        if (integerWidth(type) == 0 || format.empty() || format == "DefaultDisplay" ||
            format == "hex" || (format == "SF-SFN" && type == "TavUint32_t") ||
            enums.count(format) != 0) {
            return;
        }
        std::string message;
        if (format == "SF-SFN") {
            message = "displayFormat \"SF-SFN\" is built in for TavUint32_t only: on " + type +
                      " it names an enumeration, and no bindisplay file defines one";
        } else {
            message = "displayFormat \"" + format +
                      "\" is neither a built-in format (DefaultDisplay, hex, SF-SFN) nor an "
                      "enumeration of a bindisplay file";
            std::string hint;
            for (const char* builtIn : {"DefaultDisplay", "hex", "SF-SFN"}) {
                if (lower(builtIn) == lower(format)) {
                    hint = builtIn;
                }
            }
            for (const std::string& name : enums) {
                if (hint.empty() && lower(name) == lower(format)) {
                    hint = name;
                }
            }
            if (!hint.empty()) {
                message += " (did you mean \"" + hint + "\"?)";
            }
        }
        message += ": its values show as decimal numbers, each with a message";
        sink.add(path, element.line, Severity::Error, "unknown-display-format", std::move(message));
    };
    for (const BinlogFile& file : dict.binlogs) {
        for (const Declaration& declaration : file.headerDeclarations) {
            check(file.path, declaration);
        }
        for (const Log& log : file.logs) {
            for (const Declaration& declaration : log.declarations) {
                check(file.path, declaration);
            }
        }
    }
}

}  // namespace detail
}  // namespace wexbl_lint
