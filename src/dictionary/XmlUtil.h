// Small helpers around libxml2 shared by the dictionary loaders.
#ifndef WEXBL_SRC_DICTIONARY_XML_UTIL_H
#define WEXBL_SRC_DICTIONARY_XML_UTIL_H

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>
#include <string>

namespace Tav {
namespace detail {

/// Owns one parsed document; freed on every exit path.
struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDocOwner = std::unique_ptr<xmlDoc, XmlDocFree>;

/// Owns a string returned by xmlGetProp.
struct XmlCharFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlCharOwner = std::unique_ptr<xmlChar, XmlCharFree>;

inline const char* asChars(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

/// True when the node's name equals `name` exactly.
inline bool nameIs(const xmlChar* nodeName, const std::string& name) {
    return nodeName != nullptr &&
           xmlStrcmp(nodeName, reinterpret_cast<const xmlChar*>(name.c_str())) == 0;
}

/// The value of the attribute `attr` of `node` as the XML library resolves it
/// (null when it returns none).
inline XmlCharOwner attributeValue(xmlNode* node, const xmlAttr* attr) {
    return XmlCharOwner(xmlGetProp(node, attr->name));
}

/// Entity references point into the document type declaration, whose sibling
/// chains can lead back to the same reference; the walks never follow them.
inline bool walkChildren(const xmlNode* node) {
    return node->type != XML_ENTITY_REF_NODE;
}

}  // namespace detail
}  // namespace Tav

#endif
