// What the checker reads of a dictionary directory: the files the loader
// would pick, and of each parsed file the elements the loader looks at, with
// their lines. Shared by the check families (one source file each).
#ifndef WEXBL_TOOLS_LINT_MODEL_H
#define WEXBL_TOOLS_LINT_MODEL_H

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BinLogDictionary.h"
#include "Lint.h"

namespace wexbl_lint {
namespace detail {

struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
/// Owns one parsed document.
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocFree>;

/// One attribute as the loader reads it (xmlGetProp's value).
struct Attribute {
    std::string name;
    std::string value;
};

/// An element with its line and attributes in document order.
struct Element {
    long line = 0;
    std::vector<Attribute> attributes;
    /// The value of the attribute `name`, or null when absent.
    const std::string* find(const std::string& name) const;
    /// The value of `name`, empty when absent.
    std::string value(const std::string& name) const;
};

/// One parameter declaration (a child element with attributes).
struct Declaration {
    Element element;
    /// The names of nameList split as the loader splits them.
    std::vector<std::string> names;
};

struct Log {
    Element element;
    std::vector<Declaration> declarations;
};

struct BinlogFile {
    std::string path;  ///< as findings show it
    std::string name;  ///< the directory entry's name
    bool parsed = false;
    std::vector<Element> subsystems;  ///< LoggingSubSystem elements
    std::vector<Element> moduleHeaders;
    std::vector<Declaration> headerDeclarations;
    std::vector<Log> logs;
};

struct EnumEntry {
    Element element;
};

struct Enumeration {
    Element element;
    std::string name;
    std::vector<EnumEntry> entries;
};

struct DisplayFile {
    std::string path;
    std::string name;
    bool parsed = false;
    std::vector<Enumeration> enums;
};

struct Dictionary {
    std::string dir;  ///< as given, without trailing "/"
    /// In directory order, as the loader reads them.
    std::vector<BinlogFile> binlogs;
    std::vector<DisplayFile> displays;
};

/// Collects findings.
class Sink {
  public:
    void add(const std::string& file, long line, Severity severity, const char* check,
             std::string message);
    std::vector<Finding>& findings() { return findings_; }

  private:
    std::vector<Finding> findings_;
};

/// The loader's reading of a decimal attribute (strtol with a 32-bit long).
using Tav::parseDecimal32;

/// Integer types' widths in bytes (0: not an integer type).
unsigned integerWidth(const std::string& type);
/// True for the eleven type names.
bool knownType(const std::string& type);

/// Splits a name list at every "," as the loader does.
std::vector<std::string> splitNames(const std::string& nameList);

/// Parses a file with libxml2 (no network); on failure reports
/// xml-not-well-formed with libxml2's message and line and returns null.
XmlDoc parseFile(const std::string& path, const std::string& kind, Sink& sink);

/// Reads the element's line and attributes.
Element readElement(xmlNode* node);

// The check families.
/// The directory scan: fills the file lists; file-name checks.
void scanDirectory(Dictionary& dict, Sink& sink);
/// Parses the binlog files and checks each on its own.
void checkBinlogFiles(Dictionary& dict, Sink& sink);
/// Parses the bindisplay files and checks the enumerations.
void checkDisplayFiles(Dictionary& dict, Sink& sink);
/// Display formats against the enumerations defined.
void checkDisplayFormats(const Dictionary& dict, Sink& sink);
/// Placeholders of the log strings.
void checkPlaceholders(const Dictionary& dict, Sink& sink);
/// Payload sizes against the record limit.
void checkSizes(const Dictionary& dict, Sink& sink);
/// Module keys shared by several files.
void checkModuleKeys(const Dictionary& dict, Sink& sink);

}  // namespace detail
}  // namespace wexbl_lint

#endif
