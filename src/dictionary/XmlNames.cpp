// Names of the XML dictionaries' elements, attributes, display formats and
// parameter types, built once when the library is loaded.
#include "BinLogDictionary.h"
#include "WexOamBinLogXmlReader/Record.h"

namespace Tav {

const std::string kElemLoggingSubSystem = "LoggingSubSystem";
const std::string kElemModuleHeader = "ModuleHeader";
const std::string kElemLogId = "LogId";
const std::string kElemEnum = "enum";

const std::string kAttrSubsystem = "subsystem";
const std::string kAttrSubsystemId = "subsystemId";
const std::string kAttrModule = "module";
const std::string kAttrModuleId = "moduleid";
const std::string kAttrBinlogVersion = "binlogversion";
const std::string kAttrName = "name";
const std::string kAttrLogString = "logString";
const std::string kAttrCategory = "category";
const std::string kAttrType = "type";
const std::string kAttrNameList = "nameList";
const std::string kAttrSize = "size";
const std::string kAttrCount = "count";
const std::string kAttrDisplayFormat = "displayFormat";
const std::string kAttrValue = "value";
const std::string kAttrText = "text";

const std::string kFormatDefault = "DefaultDisplay";
const std::string kFormatHex = "hex";
const std::string kFormatSfSfn = "SF-SFN";

const std::string kTypeUint64 = "TavUint64_t";
const std::string kTypeInt64 = "TavInt64_t";
const std::string kTypeUint32 = "TavUint32_t";
const std::string kTypeInt32 = "TavInt32_t";
const std::string kTypeUint16 = "TavUint16_t";
const std::string kTypeInt16 = "TavInt16_t";
const std::string kTypeUint8 = "TavUint8_t";
const std::string kTypeInt8 = "TavInt8_t";
const std::string kTypeString = "string";
const std::string kTypeBinaryString = "binarystring";
const std::string kTypeVarBinaryString = "varbinarystring";

}  // namespace Tav

namespace Tav {

const char* paramTypeName(ParamType type) {
    switch (type) {
        case ParamType::Uint64:
            return "TavUint64_t";
        case ParamType::Int64:
            return "TavInt64_t";
        case ParamType::Uint32:
            return "TavUint32_t";
        case ParamType::Int32:
            return "TavInt32_t";
        case ParamType::Uint16:
            return "TavUint16_t";
        case ParamType::Int16:
            return "TavInt16_t";
        case ParamType::Uint8:
            return "TavUint8_t";
        case ParamType::Int8:
            return "TavInt8_t";
        case ParamType::String:
            return "string";
        case ParamType::BinaryString:
            return "binarystring";
        case ParamType::VarBinaryString:
            return "varbinarystring";
    }
    return "";
}

}  // namespace Tav
