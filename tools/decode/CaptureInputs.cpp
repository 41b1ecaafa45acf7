#include "CaptureInputs.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

namespace wexbl_decode {
namespace {

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool endsWith(const std::string& text, const char* suffix) {
    const std::size_t length = std::strlen(suffix);
    return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

/// A capture named `name`; `info` is what stat said of it (following links),
/// or null when stat failed with `error`.
CaptureInput captureOf(const std::string& name, const struct stat* info, int error) {
    CaptureInput input;
    input.kind = CaptureInput::kCapture;
    input.name = name;
    if (info == nullptr) {
        input.statError = error;
        return input;
    }
    input.regular = S_ISREG(info->st_mode);
    input.device = info->st_dev;
    input.inode = info->st_ino;
    return input;
}

CaptureInput message(CaptureInput::Kind kind, std::string text) {
    CaptureInput input;
    input.kind = kind;
    input.text = std::move(text);
    return input;
}

/// Appends the captures of directory `operand` to `inputs`, with its notes.
void expandDirectory(const std::string& operand, std::vector<CaptureInput>& inputs) {
    std::unique_ptr<DIR, DirClose> dir(opendir(operand.c_str()));
    if (!dir) {
        const int error = errno;
        inputs.push_back(message(CaptureInput::kError, "cannot read the directory '" + operand +
                                                           "': " + strerror(error)));
        return;
    }
    const std::string prefix = operand.back() == '/' ? operand : operand + "/";
    std::vector<CaptureInput> captures;
    std::size_t notCaptureNames = 0;
    std::size_t subdirectories = 0;
    std::size_t notRegular = 0;
    for (;;) {
        errno = 0;
        const struct dirent* entry = readdir(dir.get());
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string path = prefix + name;
        struct stat info;
        const bool known = stat(path.c_str(), &info) == 0;
        const int statError = errno;
        if (known && S_ISDIR(info.st_mode)) {
            ++subdirectories;
        } else if (!isCaptureName(name)) {
            ++notCaptureNames;
        } else if (known && !S_ISREG(info.st_mode)) {
            // A pipe or a device inside a directory is not read: opening it
            // could wait for a writer forever.
            ++notRegular;
        } else {
            // A name that stat cannot resolve (a dangling link) is kept: its
            // turn reports why it cannot be opened.
            captures.push_back(captureOf(path, known ? &info : nullptr, statError));
        }
    }
    const int readError = errno;

    // Every name has the same prefix, and std::string compares characters as
    // unsigned char: this is the byte order of the entry names.
    std::sort(captures.begin(), captures.end(),
              [](const CaptureInput& a, const CaptureInput& b) { return a.name < b.name; });
    const std::size_t skipped = notCaptureNames + subdirectories + notRegular;
    if (skipped != 0) {
        std::string text = operand + ": skipped " + std::to_string(skipped) +
                           (skipped == 1 ? " entry (" : " entries (");
        const char* separator = "";
        const auto add = [&](std::size_t count, const char* reason) {
            if (count != 0) {
                text += separator;
                text += reason;
                text += ": " + std::to_string(count);
                separator = ", ";
            }
        };
        add(notCaptureNames, "not .pcap or .pcap.gz");
        add(subdirectories, "subdirectory");
        add(notRegular, "not a regular file");
        text += ')';
        inputs.push_back(message(CaptureInput::kNote, text));
    }
    if (readError != 0) {
        inputs.push_back(message(CaptureInput::kError, "cannot read the directory '" + operand +
                                                           "': " + strerror(readError)));
    }
    const bool none = captures.empty();
    inputs.insert(inputs.end(), std::make_move_iterator(captures.begin()),
                  std::make_move_iterator(captures.end()));
    if (none && readError == 0) {
        inputs.push_back(message(CaptureInput::kNote, operand + ": no captures found"));
    }
}

}  // namespace

bool isCaptureName(const std::string& name) {
    return endsWith(name, ".pcap") || name.find("pcap.gz") != std::string::npos;
}

std::vector<CaptureInput> expandOperands(const std::vector<std::string>& operands) {
    std::vector<CaptureInput> inputs;
    for (const std::string& operand : operands) {
        struct stat info;
        if (operand == "-") {
            const bool known = fstat(STDIN_FILENO, &info) == 0;
            CaptureInput input = captureOf(operand, known ? &info : nullptr, errno);
            input.kind = CaptureInput::kStandardInput;
            inputs.push_back(input);
            continue;
        }
        const bool known = stat(operand.c_str(), &info) == 0;
        if (known && S_ISDIR(info.st_mode)) {
            expandDirectory(operand, inputs);
            continue;
        }
        inputs.push_back(captureOf(operand, known ? &info : nullptr, errno));
    }
    return inputs;
}

const CaptureInput* findSameFile(const std::vector<CaptureInput>& inputs, int fd,
                                 const char* path) {
    struct stat info;
    const int result = fd >= 0 ? fstat(fd, &info) : stat(path, &info);
    if (result != 0 || !S_ISREG(info.st_mode)) {
        return nullptr;
    }
    for (const CaptureInput& input : inputs) {
        if ((input.kind == CaptureInput::kCapture || input.kind == CaptureInput::kStandardInput) &&
            input.statError == 0 && input.regular && input.device == info.st_dev &&
            input.inode == info.st_ino) {
            return &input;
        }
    }
    return nullptr;
}

}  // namespace wexbl_decode
