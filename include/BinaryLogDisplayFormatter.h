// The enumeration dictionary loaded from "bindisplay" XML files: it turns the
// decimal text of a numeric parameter value into a name.
#ifndef WEX_OAM_BINLOG_DISPLAY_FORMATTER_H
#define WEX_OAM_BINLOG_DISPLAY_FORMATTER_H

#include <map>
#include <string>
#include <vector>

#include "WexOamBinLogXmlReaderExport.h"

// libxml2's node type, declared as libxml2 declares it, so that this header
// does not pull in libxml2's own headers.
struct _xmlNode;
typedef struct _xmlNode xmlNode;

namespace Tav {

class WEXBL_API BinaryLogDisplayFormatter {
  public:
    /// True once every file given to readDisplayXml parsed (an empty list too).
    bool initialized = false;
    /// Enumeration name -> (value text -> display text).
    std::map<std::string, std::map<std::string, std::string>> displayFormats;

    BinaryLogDisplayFormatter() = default;

    bool isGood() const { return initialized; }

    /// Loads the files in order; 0 on success, -1 at the first failure (the
    /// tables stored before it stay, later files are not read).
    int readDisplayXml(const std::vector<std::string>& files);
    /// Walks a sibling chain and all descendants, loading every "enum" element.
    int parseDisplayXml(xmlNode* node);
    /// Loads one "enum" element; its table replaces any earlier one of that name.
    int parseEnumNodes(xmlNode*& node);
    /// Adds the entry of one child of an "enum" element; always 0.
    int parseEnumNodeData(xmlNode*& node, std::map<std::string, std::string>& table);
    /// Looks `value` up in enumeration `format`: 0 and `out` = text when found.
    /// Unknown format or unloaded dictionary: a message, `out` = value, -1.
    /// Known format, unknown value: -1 with `out` unchanged and no message.
    int getDisplay(const std::string& format, const std::string& value, std::string& out) const;
};

}  // namespace Tav

#endif
