// The in-memory records of the binlog dictionary.
//
// Each binlog XML file yields one ModuleDetails (names, version and the module
// header that precedes every log of the module) and one map of LogDetails (one
// per log message). Both carry their typed parameter declarations in a
// FlexiParams: eleven lists, one per wire type. The dictionary is filled once
// while the reader is constructed and only read afterwards. The decodedValues
// maps and the parameters' value fields stay empty in the dictionary; the
// step-by-step decoding members fill them in copies that a caller makes, which
// is why every record has plain value semantics.
#ifndef WEX_OAM_BINLOG_DICTIONARY_H
#define WEX_OAM_BINLOG_DICTIONARY_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "WexOamBinLogXmlReaderExport.h"

namespace Tav {

/// One declared parameter of wire type T.
///
/// For the integer instantiations `length` is the element count (0: a single
/// value, N: an array of N values) and `displayFormat` the conversion of the
/// value. For the string instantiation (used by "string", "binarystring" and
/// "varbinarystring") `length` is the size in bytes and `displayFormat` is
/// always empty.
template <typename T>
struct TavLogParam {
    std::string name;
    T value{};
    std::uint32_t length = 0;
    std::string displayFormat;
    std::string displayValue;
};

/// The eleven typed parameter lists. The member order is binding: it is the
/// order in which the bytes of a payload are grouped and consumed.
struct FlexiParams {
    std::vector<TavLogParam<std::uint64_t>> uint64Params;
    std::vector<TavLogParam<std::int64_t>> int64Params;
    std::vector<TavLogParam<std::uint32_t>> uint32Params;
    std::vector<TavLogParam<std::int32_t>> int32Params;
    std::vector<TavLogParam<std::uint16_t>> uint16Params;
    std::vector<TavLogParam<std::int16_t>> int16Params;
    std::vector<TavLogParam<std::uint8_t>> uint8Params;
    std::vector<TavLogParam<std::int8_t>> int8Params;
    std::vector<TavLogParam<std::string>> stringParams;
    std::vector<TavLogParam<std::string>> binaryStringParams;
    std::vector<TavLogParam<std::string>> varBinaryStringParams;
};

/// The description of one module (one binlog file): its names, its format
/// version and the declaration of its module header.
struct ModuleDetails : public FlexiParams {
    /// Bytes skipped after the module header's fixed part (0-3, or 0-7 when the
    /// header has 64-bit parameters).
    std::uint32_t headerPadding = 0;
    bool hasModuleHeader = false;
    /// The module header's parameter names in declaration order.
    std::vector<std::string> paramOrder;
    /// Empty in the dictionary; a decoded copy's parameter name -> text.
    std::map<std::string, std::string> decodedValues;
    std::string subsystemName;
    std::string moduleName;
    std::uint16_t binlogVersion = 0;
};

/// The description of one log message.
struct LogDetails : public FlexiParams {
    /// Legacy records only: frame number x 10 + subframe.
    std::uint32_t frameTiming = 0;
    /// 1-based number of the log within its binlog file.
    std::uint16_t logIndex = 0;
    std::string logName;
    std::string category;
    std::string logString;
    /// The log's parameter names in declaration order.
    std::vector<std::string> paramOrder;
    /// Empty in the dictionary; a decoded copy's parameter name -> text.
    std::map<std::string, std::string> decodedValues;
};

/// Names used in the XML dictionaries, built once at library load.
/// Element names:
WEXBL_API extern const std::string kElemLoggingSubSystem;  // "LoggingSubSystem"
WEXBL_API extern const std::string kElemModuleHeader;      // "ModuleHeader"
WEXBL_API extern const std::string kElemLogId;             // "LogId"
WEXBL_API extern const std::string kElemEnum;              // "enum"
/// Attribute names:
WEXBL_API extern const std::string kAttrSubsystem;      // "subsystem"
WEXBL_API extern const std::string kAttrSubsystemId;    // "subsystemId"
WEXBL_API extern const std::string kAttrModule;         // "module"
WEXBL_API extern const std::string kAttrModuleId;       // "moduleid"
WEXBL_API extern const std::string kAttrBinlogVersion;  // "binlogversion"
WEXBL_API extern const std::string kAttrName;           // "name"
WEXBL_API extern const std::string kAttrLogString;      // "logString"
WEXBL_API extern const std::string kAttrCategory;       // "category"
WEXBL_API extern const std::string kAttrType;           // "type"
WEXBL_API extern const std::string kAttrNameList;       // "nameList"
WEXBL_API extern const std::string kAttrSize;           // "size"
WEXBL_API extern const std::string kAttrCount;          // "count"
WEXBL_API extern const std::string kAttrDisplayFormat;  // "displayFormat"
WEXBL_API extern const std::string kAttrValue;          // "value"
WEXBL_API extern const std::string kAttrText;           // "text"
/// Display formats:
WEXBL_API extern const std::string kFormatDefault;  // "DefaultDisplay"
WEXBL_API extern const std::string kFormatHex;      // "hex"
WEXBL_API extern const std::string kFormatSfSfn;    // "SF-SFN"
/// Parameter type names:
WEXBL_API extern const std::string kTypeUint64;           // "TavUint64_t"
WEXBL_API extern const std::string kTypeInt64;            // "TavInt64_t"
WEXBL_API extern const std::string kTypeUint32;           // "TavUint32_t"
WEXBL_API extern const std::string kTypeInt32;            // "TavInt32_t"
WEXBL_API extern const std::string kTypeUint16;           // "TavUint16_t"
WEXBL_API extern const std::string kTypeInt16;            // "TavInt16_t"
WEXBL_API extern const std::string kTypeUint8;            // "TavUint8_t"
WEXBL_API extern const std::string kTypeInt8;             // "TavInt8_t"
WEXBL_API extern const std::string kTypeString;           // "string"
WEXBL_API extern const std::string kTypeBinaryString;     // "binarystring"
WEXBL_API extern const std::string kTypeVarBinaryString;  // "varbinarystring"

/// Reads a decimal number the way strtol(text, NULL, 10) does with a 32-bit
/// long: leading white space and a sign are accepted, reading stops at the
/// first non-digit, text without digits gives 0, and values saturate at
/// -2147483648 and 2147483647. The same on every platform.
WEXBL_API std::int32_t parseDecimal32(const std::string& text);

}  // namespace Tav

#endif
