// The checker's entry point, the shared helpers of the check families and
// the two output forms of a finding.
#include "Lint.h"

#include <algorithm>
#include <cstdio>
#include <tuple>

#include "Model.h"

namespace wexbl_lint {
namespace detail {

const std::string* Element::find(const std::string& name) const {
    for (const Attribute& attribute : attributes) {
        if (attribute.name == name) {
            return &attribute.value;
        }
    }
    return nullptr;
}

std::string Element::value(const std::string& name) const {
    const std::string* found = find(name);
    return found != nullptr ? *found : std::string();
}

void Sink::add(const std::string& file, long line, Severity severity, const char* check,
               std::string message) {
    Finding finding;
    finding.file = file;
    finding.line = line;
    finding.severity = severity;
    finding.check = check;
    finding.message = std::move(message);
    findings_.push_back(std::move(finding));
}

unsigned integerWidth(const std::string& type) {
    if (type == "TavUint64_t" || type == "TavInt64_t") {
        return 8;
    }
    if (type == "TavUint32_t" || type == "TavInt32_t") {
        return 4;
    }
    if (type == "TavUint16_t" || type == "TavInt16_t") {
        return 2;
    }
    if (type == "TavUint8_t" || type == "TavInt8_t") {
        return 1;
    }
    return 0;
}

bool knownType(const std::string& type) {
    return integerWidth(type) != 0 || type == "string" || type == "binarystring" ||
           type == "varbinarystring";
}

std::vector<std::string> splitNames(const std::string& nameList) {
    std::vector<std::string> names;
    std::size_t start = 0;
    while (start <= nameList.size()) {
        std::size_t comma = nameList.find(',', start);
        if (comma == std::string::npos) {
            comma = nameList.size();
        }
        if (comma > start) {
            names.emplace_back(nameList, start, comma - start);
        }
        start = comma + 1;
    }
    return names;
}

Element readElement(xmlNode* node) {
    Element element;
    element.line = xmlGetLineNo(node);
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        xmlChar* value = xmlGetProp(node, attr->name);
        Attribute attribute;
        attribute.name = reinterpret_cast<const char*>(attr->name);
        if (value != nullptr) {
            attribute.value = reinterpret_cast<const char*>(value);
            xmlFree(value);
        }
        element.attributes.push_back(std::move(attribute));
    }
    return element;
}

}  // namespace detail

const char* severityName(Severity severity) {
    return severity == Severity::Error ? "error" : "warning";
}

bool hasErrors(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& f) { return f.severity == Severity::Error; });
}

std::vector<Finding> lintDictionary(const std::string& dir) {
    detail::Dictionary dict;
    dict.dir = dir;
    while (dict.dir.size() > 1 && dict.dir.back() == '/') {
        dict.dir.pop_back();
    }
    detail::Sink sink;
    detail::scanDirectory(dict, sink);
    detail::checkBinlogFiles(dict, sink);
    detail::checkDisplayFiles(dict, sink);
    detail::checkDisplayFormats(dict, sink);
    detail::checkPlaceholders(dict, sink);
    detail::checkSizes(dict, sink);
    detail::checkModuleKeys(dict, sink);
    std::vector<Finding> findings = std::move(sink.findings());
    std::stable_sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) {
        return std::tie(a.file, a.line) < std::tie(b.file, b.line);
    });
    return findings;
}

std::string formatText(const Finding& finding) {
    std::string text = finding.file;
    if (finding.line > 0) {
        text += ':' + std::to_string(finding.line);
    }
    text += ": ";
    text += severityName(finding.severity);
    text += ": " + finding.message + " [" + finding.check + "]";
    return text;
}

void appendJsonString(std::string& out, const std::string& text) {
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (byte < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

std::string formatJson(const Finding& finding) {
    std::string out = "{\"file\":";
    appendJsonString(out, finding.file);
    out += ",\"line\":" + std::to_string(finding.line) + ",\"severity\":\"";
    out += severityName(finding.severity);
    out += "\",\"check\":";
    appendJsonString(out, finding.check);
    out += ",\"message\":";
    appendJsonString(out, finding.message);
    out += '}';
    return out;
}

}  // namespace wexbl_lint
