// The capture operands of binlog-decode, turned into the list of what is
// decoded in turn: files, standard input, and the captures of directories
// (taken in byte order of their names), with the notes about what a
// directory held besides its captures.
#ifndef WEXBL_TOOLS_DECODE_CAPTURE_INPUTS_H
#define WEXBL_TOOLS_DECODE_CAPTURE_INPUTS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace wexbl_decode {

struct CaptureInput {
    enum Kind {
        kCapture,        ///< a file to decode (`name`)
        kStandardInput,  ///< "-"
        kNote,           ///< `text` goes to standard error; the exit status stays
        kError,          ///< `text` goes to standard error; the exit status becomes 1
    };
    Kind kind = kCapture;
    /// The capture as the user named it, or as "DIR/ENTRY" for an entry of a
    /// directory operand; "-" for standard input.
    std::string name;
    /// kNote and kError: the message.
    std::string text;
    /// kCapture and kStandardInput: the result of stat (fstat for standard
    /// input): 0, or the errno of the failure.
    int statError = 0;
    bool regular = false;
    dev_t device = 0;
    ino_t inode = 0;
};

/// Whether a directory entry of this name is taken as a capture: its name
/// ends in ".pcap" or contains "pcap.gz".
bool isCaptureName(const std::string& name);

/// Expands the operands in order. A directory gives its regular files whose
/// names are capture names, sorted byte-wise, preceded by a note that counts
/// what it skipped and why and followed by a note when it held no capture.
std::vector<CaptureInput> expandOperands(const std::vector<std::string>& operands);

/// The capture that is the same regular file as the one `fd` is open on
/// (`fd` < 0: the one at `path`), by device and inode; null when that is no
/// regular file, does not exist, or is none of the captures.
const CaptureInput* findSameFile(const std::vector<CaptureInput>& inputs, int fd, const char* path);

}  // namespace wexbl_decode

#endif
