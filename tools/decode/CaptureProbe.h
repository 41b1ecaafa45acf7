// The first look binlog-decode takes at a capture: its first bytes, after
// gzip decompression, tell whether it is a pcap file of the kind the library
// reads, another capture format, or no capture at all.
#ifndef WEXBL_TOOLS_DECODE_CAPTURE_PROBE_H
#define WEXBL_TOOLS_DECODE_CAPTURE_PROBE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace wexbl_decode {

/// Size of a pcap global header.
constexpr std::size_t kPcapGlobalHeaderSize = 24;

struct CaptureProbe {
    enum Kind {
        kOpenFailed,   ///< the file could not be opened (`error`)
        kReadFailed,   ///< the first bytes could not be read (`error`)
        kNotPcap,      ///< no capture magic: `description` tells what it starts with
        kOtherFormat,  ///< a capture format the library does not read (`description`)
        kPcap,         ///< little-endian microsecond pcap: what the library reads
    };
    Kind kind = kOpenFailed;
    /// The reason for kOpenFailed and kReadFailed.
    std::string error;
    /// kNotPcap: "it starts with 64 61 74 61" and the like; kOtherFormat: the
    /// format's name ("pcapng").
    std::string description;
    /// kPcap: whether the whole global header is there, and its link type.
    bool completeHeader = false;
    std::uint32_t linkType = 0;
};

/// Reads the first bytes of the file at `path` (decompressed when it is
/// gzip) and tells what it is. The file is closed again before returning.
CaptureProbe probeCapture(const std::string& path);

}  // namespace wexbl_decode

#endif
