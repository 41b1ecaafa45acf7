// Helpers shared by the tests: capturing what the library prints, temporary
// directories and files, and in-memory XML documents.
#ifndef WEXBL_TEST_SUPPORT_H
#define WEXBL_TEST_SUPPORT_H

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace wexbl_test {

/// A FILE* that writes into memory; text() flushes and returns what was written.
class MemoryStream {
  public:
    MemoryStream();
    ~MemoryStream();
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;

    FILE* file() const { return file_; }
    std::string text();

  private:
    FILE* file_ = nullptr;
    char* buffer_ = nullptr;
    size_t size_ = 0;
};

/// Captures everything written to standard error (file descriptor 2) between
/// construction and stop().
class StderrCapture {
  public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    /// Stops capturing (once) and returns the captured text.
    std::string stop();

  private:
    int savedFd_ = -1;
    FILE* tmp_ = nullptr;
    std::string text_;
    bool stopped_ = false;
};

/// A fresh temporary directory, removed with its contents on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The directory path without a trailing "/".
    const std::string& path() const { return path_; }
    /// The directory path with a trailing "/".
    std::string slash() const { return path_ + "/"; }
    /// Writes `content` into the file `name` inside the directory; returns its path.
    std::string writeFile(const std::string& name, const std::string& content) const;
    /// Creates the subdirectory `name`; returns its path.
    std::string makeDir(const std::string& name) const;

  private:
    std::string path_;
};

/// Owns an xmlDoc parsed from memory.
struct XmlDocFree {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, XmlDocFree>;

/// Parses `xml` (well-formed, or the test fails at the caller's ASSERT).
XmlDocPtr parseXml(const std::string& xml);

/// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::string& path);

/// The entries of a directory listing, in the order readdir yields them.
std::vector<std::string> listDirectory(const std::string& path);

}  // namespace wexbl_test

#endif
