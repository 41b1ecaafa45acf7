// The enumeration dictionary of the "bindisplay" files.
//
//   <enum name="CellState">
//     <entry value="0" text="IDLE"/>
//     <entry value="1" text="ACTIVE"/>
//   </enum>
//
// "enum" elements are recognised at any depth; every child with attributes is
// an entry, whatever its element name.
#include "BinaryLogDisplayFormatter.h"

#include <cstdio>

#include "BinLogDictionary.h"
#include "dictionary/XmlUtil.h"

namespace Tav {

using detail::asChars;
using detail::attributeValue;
using detail::nameIs;
using detail::XmlCharOwner;
using detail::XmlDocOwner;

int BinaryLogDisplayFormatter::readDisplayXml(const std::vector<std::string>& files) {
    for (const std::string& path : files) {
        XmlDocOwner doc(xmlReadFile(path.c_str(), nullptr, 0));
        if (!doc) {
            fprintf(stderr, "Error parsing file :%s", path.c_str());
            return -1;
        }
        if (parseDisplayXml(xmlDocGetRootElement(doc.get())) < 0) {
            fprintf(stderr, "Error parseDisplayXml failed for :%s", path.c_str());
            return -1;
        }
        // Freeing the document is enough: libxml2's global state belongs to
        // the whole program, which may use libxml2 itself.
    }
    initialized = true;
    return 0;
}

int BinaryLogDisplayFormatter::parseDisplayXml(xmlNode* node) {
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE && nameIs(node->name, kElemEnum) &&
            parseEnumNodes(node) < 0) {
            fprintf(stderr, "Error in parseEnumNodes");
            return -1;
        }
        if (detail::walkChildren(node) && parseDisplayXml(node->children) < 0) {
            fprintf(stderr, "Error in parseDisplayXml");
            return -1;
        }
    }
    return 0;
}

int BinaryLogDisplayFormatter::parseEnumNodes(xmlNode*& node) {
    if (node->properties == nullptr) {
        fprintf(stderr, "No attributes found on enum node\n");
        return -1;
    }
    std::string name;
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        XmlCharOwner value = attributeValue(node, attr);
        if (value && nameIs(attr->name, kAttrName)) {
            name = asChars(value.get());
        }
    }
    if (name.empty()) {
        fprintf(stderr, "Mandatory params in the Enum node missing\n");
        return -1;
    }
    std::map<std::string, std::string> table;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (parseEnumNodeData(child, table) < 0) {
            fprintf(stderr, "Error in parseEnumNodes\n");
            return -1;
        }
    }
    // A later enumeration of the same name replaces the earlier one whole.
    displayFormats[name] = std::move(table);
    return 0;
}

int BinaryLogDisplayFormatter::parseEnumNodeData(xmlNode*& node,
                                                 std::map<std::string, std::string>& table) {
    if (node->properties == nullptr) {
        return 0;
    }
    std::string value;
    std::string text;
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        XmlCharOwner attrValue = attributeValue(node, attr);
        if (!attrValue) {
            continue;
        }
        if (nameIs(attr->name, kAttrValue)) {
            value = asChars(attrValue.get());
        }
        if (nameIs(attr->name, kAttrText)) {
            text = asChars(attrValue.get());
        }
    }
    table[value] = text;
    return 0;
}

int BinaryLogDisplayFormatter::getDisplay(const std::string& format, const std::string& value,
                                          std::string& out) const {
    if (!initialized) {
        fprintf(stderr, "BinaryLogDisplayFormatter not initialized correctly\n");
        out = value;
        return -1;
    }
    const auto table = displayFormats.find(format);
    if (table == displayFormats.end()) {
        fprintf(stderr, "Displayformat %s not found\n", format.c_str());
        out = value;
        return -1;
    }
    const auto entry = table->second.find(value);
    if (entry == table->second.end()) {
        return -1;
    }
    out = entry->second;
    return 0;
}

}  // namespace Tav
