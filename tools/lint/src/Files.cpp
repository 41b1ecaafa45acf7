// The files of a dictionary directory: which the loader reads, names that
// look like leftovers, files it would ignore, and parsing with libxml2.
#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "Model.h"

namespace wexbl_lint {
namespace detail {
namespace {

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirOwner = std::unique_ptr<DIR, DirClose>;

char asciiUpper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool containsIgnoringCase(const std::string& text, const std::string& word) {
    for (std::size_t start = 0; start + word.size() <= text.size(); ++start) {
        std::size_t i = 0;
        while (i < word.size() && asciiUpper(text[start + i]) == asciiUpper(word[i])) {
            ++i;
        }
        if (i == word.size()) {
            return true;
        }
    }
    return false;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

/// Collects the first error libxml2 reports while one file is parsed.
struct FirstError {
    bool seen = false;
    std::string message;
    long line = 0;
};

void collectError(void* context, xmlErrorPtr error) {
    auto* first = static_cast<FirstError*>(context);
    if (first->seen || error == nullptr || error->level < XML_ERR_ERROR) {
        return;
    }
    first->seen = true;
    first->message = error->message != nullptr ? error->message : "unknown error";
    while (!first->message.empty() &&
           (first->message.back() == '\n' || first->message.back() == ' ')) {
        first->message.pop_back();
    }
    first->line = error->line;
}

/// Routes libxml2's structured errors to a collector for one scope and
/// restores whatever handler was set before.
class ErrorScope {
  public:
    explicit ErrorScope(FirstError& first)
        : savedHandler_(xmlStructuredError), savedContext_(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(&first, collectError);
    }
    ~ErrorScope() { xmlSetStructuredErrorFunc(savedContext_, savedHandler_); }
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;

  private:
    xmlStructuredErrorFunc savedHandler_;
    void* savedContext_;
};

}  // namespace

XmlDoc parseFile(const std::string& path, const std::string& kind, Sink& sink) {
    FirstError first;
    XmlDoc doc;
    {
        ErrorScope scope(first);
        doc.reset(xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET));
    }
    if (!doc) {
        const std::string consequence =
            kind == "binlog" ? "the dictionary does not load" : "no enumeration is applied";
        const std::string reason = first.seen ? first.message : std::string("cannot be read");
        sink.add(path, first.seen ? first.line : 0, Severity::Error, "xml-not-well-formed",
                 "not well-formed XML: " + reason + "; " + consequence);
    }
    return doc;
}

void scanDirectory(Dictionary& dict, Sink& sink) {
    DirOwner dir(opendir(dict.dir.c_str()));
    if (!dir) {
        sink.add(dict.dir, 0, Severity::Error, "unreadable-file",
                 std::string("cannot open the dictionary directory: ") + strerror(errno));
        return;
    }
    while (const struct dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        const std::string path = dict.dir + "/" + name;
        const bool binlog = containsIgnoringCase(name, "binlog");
        const bool display = !binlog && containsIgnoringCase(name, "bindisplay");
        if (!binlog && !display) {
            continue;
        }
        const char* kind = binlog ? "binlog" : "bindisplay";
        if (name.find(".xml") == std::string::npos) {
            if (containsIgnoringCase(name, ".xml")) {
                sink.add(path, 0, Severity::Warning, "ignored-file",
                         std::string("the loader ignores this ") + kind +
                             " file: its name holds \".xml\" only in another case");
            }
            continue;
        }
        if (name[0] == '.' || !endsWith(name, ".xml")) {
            sink.add(path, 0, Severity::Warning, "leftover-file",
                     std::string("the name looks like a leftover copy, yet the loader reads it as "
                                 "a ") +
                         kind + " file (it takes every name that holds \".xml\" and \"" + kind +
                         "\")");
        }
        struct stat info;
        if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            sink.add(path, 0, Severity::Error, "unreadable-file",
                     std::string("a directory whose name makes the loader read it as a ") + kind +
                         " file: " +
                         (binlog ? "the dictionary does not load" : "no enumeration is applied"));
            continue;
        }
        if (binlog) {
            BinlogFile file;
            file.path = path;
            file.name = name;
            dict.binlogs.push_back(std::move(file));
        } else {
            DisplayFile file;
            file.path = path;
            file.name = name;
            dict.displays.push_back(std::move(file));
        }
    }
    if (dict.binlogs.empty()) {
        sink.add(dict.dir, 0, Severity::Error, "missing-file",
                 "no binlog file (a name holding \".xml\" and \"binlog\"): the dictionary does not "
                 "load");
    }
}

}  // namespace detail
}  // namespace wexbl_lint
