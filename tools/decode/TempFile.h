// Temporary files of binlog-decode: captures that cannot be opened twice
// (standard input, pipes, devices) are copied into one and decoded from there.
// Every such file is removed when its owner goes away, and also when SIGINT,
// SIGTERM, SIGPIPE or SIGHUP ends the process.
#ifndef WEXBL_TOOLS_DECODE_TEMP_FILE_H
#define WEXBL_TOOLS_DECODE_TEMP_FILE_H

#include <string>

namespace wexbl_decode {

/// Installs the handlers that remove the temporary files on SIGINT, SIGTERM,
/// SIGPIPE and SIGHUP and then end the process by the same signal, as if no
/// handler had been there. A signal that was ignored when the program started
/// stays ignored.
void installCleanupHandlers();

/// One temporary file in $TMPDIR (/tmp when unset or empty), removed on
/// destruction. At most a few exist at once.
class TempFile {
  public:
    TempFile() = default;
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    /// Creates the file and copies everything that can be read from `fd`
    /// into it. On failure returns false with a message in `error`, which
    /// names the source as `source` ("standard input", "'fifo'"); the file,
    /// if made, is removed.
    bool copyFrom(int fd, const std::string& source, std::string& error);
    /// The file's path; empty before copyFrom succeeded.
    const std::string& path() const { return path_; }
    /// Removes the file now.
    void remove();

  private:
    /// Makes the file and returns its open descriptor, or -1 with a
    /// message in `error`.
    int create(std::string& error);

    int slot_ = -1;
    std::string path_;
};

}  // namespace wexbl_decode

#endif
