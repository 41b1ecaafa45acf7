// Loading of one parsed "binlog" dictionary document: the module key, the
// module description with its header declaration, and the numbered logs.
//
//   <LoggingSubSystem subsystem=".." subsystemId="1" module=".." moduleid="2"
//                     binlogversion="3">
//     <ModuleHeader> <param type=".." nameList=".." .../> ... </ModuleHeader>
//     <LogId name=".." logString=".." category="..">
//       <param type="TavUint32_t" nameList="a,b" count="0" displayFormat="hex"/>
//     </LogId>
//   </LoggingSubSystem>
//
// Elements are recognised wherever they stand; the walk is depth-first in
// document order, so logs are numbered in document order.
#include <cstdio>
#include <string>

#include "BinaryLogXmlReader.h"
#include "dictionary/WireOrder.h"
#include "dictionary/XmlUtil.h"

namespace Tav {

using detail::asChars;
using detail::attributeValue;
using detail::nameIs;
using detail::XmlCharOwner;

int BinaryLogXmlReader::parseBinLogXml(xmlNode* node, std::uint16_t& moduleKey,
                                       ModuleDetails& module,
                                       std::map<std::uint16_t, LogDetails>& logs) {
    for (; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE) {
            if (nameIs(node->name, kElemLoggingSubSystem) &&
                parseLoggingSubsystemNode(node, moduleKey, module.subsystemName, module.moduleName,
                                          module.binlogVersion) < 0) {
                fprintf(stderr, "Error in parseLoggingSubsystem");
                return -1;
            }
            if (nameIs(node->name, kElemLogId) && parseLogIdNode(node, moduleKey, logs) < 0) {
                fprintf(stderr, "Error in parseLogId");
                return -1;
            }
            if (nameIs(node->name, kElemModuleHeader) &&
                parseModuleHeaderNode(node, moduleKey, module) < 0) {
                fprintf(stderr, "Error in parseModuleHeaderNode");
                return -1;
            }
        }
        if (detail::walkChildren(node) &&
            parseBinLogXml(node->children, moduleKey, module, logs) < 0) {
            fprintf(stderr, "Error in parseBinLogXml");
            return -1;
        }
    }
    return 0;
}

int BinaryLogXmlReader::parseLoggingSubsystemNode(xmlNode*& node, std::uint16_t& moduleKey,
                                                  std::string& subsystemName,
                                                  std::string& moduleName,
                                                  std::uint16_t& binlogVersion) {
    std::string subsystemIdText;
    std::string moduleIdText;
    std::string versionText;
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        XmlCharOwner value = attributeValue(node, attr);
        if (!value) {
            continue;
        }
        const char* text = asChars(value.get());
        if (nameIs(attr->name, kAttrSubsystem)) {
            subsystemName = text;
        }
        if (nameIs(attr->name, kAttrSubsystemId)) {
            subsystemIdText = text;
        }
        if (nameIs(attr->name, kAttrModule)) {
            moduleName = text;
        }
        if (nameIs(attr->name, kAttrModuleId)) {
            moduleIdText = text;
        }
        if (nameIs(attr->name, kAttrBinlogVersion)) {
            versionText = text;
        }
    }
    if (subsystemName.empty() || subsystemIdText.empty() || moduleName.empty() ||
        moduleIdText.empty() || versionText.empty()) {
        fprintf(stderr, "Mandatory params empty\n");
        return -1;
    }
    binlogVersion = static_cast<std::uint16_t>(parseDecimal32(versionText));
    // The module id is not masked: ids above 255 overlap the subsystem bits.
    const std::uint32_t subsystemId = static_cast<std::uint32_t>(parseDecimal32(subsystemIdText));
    const std::uint32_t moduleId = static_cast<std::uint32_t>(parseDecimal32(moduleIdText));
    moduleKey = static_cast<std::uint16_t>(((subsystemId & 0xFFFFu) << 8) | moduleId);
    return 0;
}

namespace {

/// Collects the five attributes of a parameter declaration.
struct Declaration {
    std::string type;
    std::string nameList;
    std::string size;
    std::string count = "0";
    std::string displayFormat;
};

Declaration readDeclaration(xmlNode* node) {
    Declaration decl;
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        XmlCharOwner value = attributeValue(node, attr);
        const std::string text = value ? asChars(value.get()) : "";
        if (nameIs(attr->name, kAttrType)) {
            decl.type = text;
        }
        if (nameIs(attr->name, kAttrNameList)) {
            decl.nameList = text;
        }
        if (nameIs(attr->name, kAttrSize)) {
            decl.size = text;
        }
        if (nameIs(attr->name, kAttrCount)) {
            decl.count = text;
        }
        if (nameIs(attr->name, kAttrDisplayFormat)) {
            decl.displayFormat = text;
        }
    }
    return decl;
}

}  // namespace

int BinaryLogXmlReader::parseModuleHeaderNode(xmlNode*& node, const std::uint16_t& /*moduleKey*/,
                                              ModuleDetails& module) {
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (parseModuleHeaderParamNode(child, module) < 0) {
            fprintf(stderr, "Error in parseModuleHeaderParamNode\n");
            return -1;
        }
    }
    module.headerPadding = detail::headerPaddingOf(module);
    module.hasModuleHeader = true;
    return 0;
}

int BinaryLogXmlReader::parseModuleHeaderParamNode(xmlNode*& node, ModuleDetails& module) {
    if (node->properties == nullptr) {
        return 0;
    }
    const Declaration decl = readDeclaration(node);
    // A rejected declaration has reported itself; the file goes on.
    tokenizeAndPushToList(decl.nameList, decl.type, decl.count, decl.size, decl.displayFormat,
                          module, module.paramOrder);
    return 0;
}

int BinaryLogXmlReader::parseLogParamNode(xmlNode*& node, LogDetails& log) {
    if (node->properties == nullptr) {
        return 0;
    }
    const Declaration decl = readDeclaration(node);
    tokenizeAndPushToList(decl.nameList, decl.type, decl.count, decl.size, decl.displayFormat, log,
                          log.paramOrder);
    return 0;
}

int BinaryLogXmlReader::parseLogIdNode(xmlNode*& node, const std::uint16_t& /*moduleKey*/,
                                       std::map<std::uint16_t, LogDetails>& logs) {
    if (node->properties == nullptr) {
        fprintf(stderr, "No attributes found on LogId node\n");
        return -1;
    }
    std::string name;
    std::string logString;
    std::string category;
    for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
        XmlCharOwner value = attributeValue(node, attr);
        if (!value) {
            continue;
        }
        const char* text = asChars(value.get());
        if (nameIs(attr->name, kAttrName)) {
            name = text;
        }
        if (nameIs(attr->name, kAttrLogString)) {
            logString = text;
        }
        if (nameIs(attr->name, kAttrCategory)) {
            category = text;
        }
    }
    if (name.empty() || logString.empty() || category.empty()) {
        fprintf(stderr, "Mandatory params in the LogId node missing\n");
        return -1;
    }

    LogDetails log;
    log.logString = logString;
    log.category = category.substr(0, category.find(','));
    log.logIndex = nextLogIndex;
    log.logName = name;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (parseLogParamNode(child, log) < 0) {
            fprintf(stderr, "Error in parseLogParamNode\n");
            return -1;
        }
    }
    logs[nextLogIndex] = std::move(log);
    ++nextLogIndex;
    return 0;
}

}  // namespace Tav
