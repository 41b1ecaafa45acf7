// Payload sizes: the largest payload of each log (its module header
// included) against what a 25000-byte record can hold, and the module keys
// that several files share.
#include <cstdio>
#include <map>
#include <string>

#include "Model.h"

namespace wexbl_lint {
namespace detail {
namespace {

constexpr std::uint64_t kRecordLimit = 25000;
constexpr std::uint64_t kLogHeader = 16;

bool plainNumber(const std::string& text) {
    if (text.empty() || text.size() > 10) {
        return false;
    }
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return std::stoull(text) <= 2147483647ULL;
}

/// Bytes of one declaration (per name) in a record; false when its count or
/// size is not a plain number (reported elsewhere).
bool declarationBytes(const Declaration& declaration, bool header, std::uint64_t& bytes) {
    const Element& element = declaration.element;
    const std::string type = element.value("type");
    const unsigned width = integerWidth(type);
    if (width != 0) {
        const std::string count = element.value("count");
        if (count.empty()) {
            bytes = width;
            return true;
        }
        if (!plainNumber(count)) {
            return false;
        }
        const std::uint64_t n = std::stoull(count);
        bytes = width * (n == 0 ? 1 : n);
        return true;
    }
    const std::string size = element.value("size");
    if (type == "string" && size.empty()) {
        bytes = 14;
        return true;
    }
    if (type == "string" || type == "binarystring" || type == "varbinarystring") {
        if (!plainNumber(size)) {
            return false;
        }
        bytes = std::stoull(size);
        if (type == "varbinarystring") {
            // A module header's var binary string reads nothing.
            bytes = header ? 0 : bytes + 2;
        }
        return true;
    }
    bytes = 0;  // unknown types take no bytes
    return true;
}

/// The declarations' total, with the module header's padding; false when
/// some size is not a plain number.
bool totalBytes(const std::vector<Declaration>& declarations, bool header, std::uint64_t& total) {
    total = 0;
    bool wide = false;
    for (const Declaration& declaration : declarations) {
        std::uint64_t bytes = 0;
        if (!declarationBytes(declaration, header, bytes)) {
            return false;
        }
        if (bytes > kRecordLimit - kLogHeader) {
            return false;  // reported by huge-count
        }
        total += bytes * declaration.names.size();
        if (integerWidth(declaration.element.value("type")) == 8 && !declaration.names.empty()) {
            wide = true;
        }
    }
    if (header) {
        const std::uint64_t align = wide ? 8 : 4;
        total += (align - total % align) % align;
    }
    return true;
}

}  // namespace

void checkSizes(const Dictionary& dict, Sink& sink) {
    for (const BinlogFile& file : dict.binlogs) {
        std::uint64_t header = 0;
        if (!totalBytes(file.headerDeclarations, true, header)) {
            continue;
        }
        for (const Log& log : file.logs) {
            std::uint64_t own = 0;
            if (!totalBytes(log.declarations, false, own)) {
                continue;
            }
            const std::uint64_t payload = header + own;
            if (payload + kLogHeader > kRecordLimit) {
                sink.add(file.path, log.element.line, Severity::Error, "record-too-large",
                         "the largest payload of log \"" + log.element.value("name") + "\" is " +
                             std::to_string(payload) +
                             " bytes (module header included): beyond the " +
                             std::to_string(kRecordLimit - kLogHeader) +
                             " bytes a 25000-byte record holds after its 16-byte header");
            }
        }
    }
}

void checkModuleKeys(const Dictionary& dict, Sink& sink) {
    std::map<std::uint16_t, std::pair<std::string, long>> keys;
    for (const BinlogFile& file : dict.binlogs) {
        if (file.subsystems.empty()) {
            continue;
        }
        const Element& subsystem = file.subsystems.back();
        const std::string subsystemId = subsystem.value("subsystemId");
        const std::string moduleId = subsystem.value("moduleid");
        if (subsystemId.empty() || moduleId.empty()) {
            continue;
        }
        const auto sid = static_cast<std::uint32_t>(parseDecimal32(subsystemId));
        const auto mid = static_cast<std::uint32_t>(parseDecimal32(moduleId));
        const auto key = static_cast<std::uint16_t>(((sid & 0xFFFFu) << 8) | mid);
        const auto inserted = keys.emplace(key, std::make_pair(file.name, subsystem.line));
        if (!inserted.second) {
            char hex[8];
            snprintf(hex, sizeof hex, "0x%04x", key);
            sink.add(file.path, subsystem.line, Severity::Error, "duplicate-module-key",
                     std::string("module key ") + hex + " is also the key of " +
                         inserted.first->second.first + " (line " +
                         std::to_string(inserted.first->second.second) +
                         "): this file is read after it in directory order and replaces it "
                         "whole");
            inserted.first->second = std::make_pair(file.name, subsystem.line);
        }
    }
}

}  // namespace detail
}  // namespace wexbl_lint
