// The capture binlog-decode --listen -w writes of what it receives: a pcap
// file (link type 1) with each datagram in an Ethernet, IPv4 or IPv6 and UDP
// frame, plain or gzip-compressed as it is written (deflate streams through
// a fixed buffer: the file is never held in memory), optionally rotated into
// numbered files by size or age. close() leaves every file complete (the
// gzip trailer written).
#ifndef WEXBL_TOOLS_DECODE_LIVE_CAPTURE_H
#define WEXBL_TOOLS_DECODE_LIVE_CAPTURE_H

#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "binlog_synth/Bytes.h"

namespace wexbl_decode {

/// One datagram as received.
struct ReceivedDatagram {
    const unsigned char* data = nullptr;
    std::size_t size = 0;
    /// IPv4 (4-byte addresses) or IPv6 (16-byte ones).
    bool ipv4 = true;
    std::array<std::uint8_t, 16> source{};
    std::array<std::uint8_t, 16> destination{};
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
    /// The receive time.
    std::uint32_t seconds = 0;
    std::uint32_t microseconds = 0;
};

class LiveCapture {
  public:
    /// `path`: the file; with rotation (`rotateBytes` or `rotateSeconds`
    /// not 0) the files are numbered from 1 instead (numberedPath()).
    LiveCapture(std::string path, std::uint64_t rotateBytes, std::uint64_t rotateSeconds);
    ~LiveCapture();
    LiveCapture(const LiveCapture&) = delete;
    LiveCapture& operator=(const LiveCapture&) = delete;

    /// Opens the first file; false with `error` when it cannot be created.
    bool open(std::string& error);
    /// Appends one datagram (starting a new file first when rotation says
    /// so); false with `error` when a write failed.
    bool write(const ReceivedDatagram& datagram, std::string& error);
    /// While nothing arrives: hands what is buffered to the file, so that a
    /// reader of the file sees every datagram written (gzip: at most once a
    /// second, as each flush costs some compression).
    bool idle(std::string& error);
    /// Finishes the file; false with `error` when that failed.
    bool close(std::string& error);

    /// "live.pcap.gz", number 3: "live-000003.pcap.gz". The number goes in
    /// front of ".pcap" (of the file's name), else in front of its last
    /// extension, else at the end.
    static std::string numberedPath(const std::string& path, std::uint64_t number);

    /// The file being written.
    const std::string& currentPath() const { return current_; }
    std::uint64_t filesStarted() const { return files_; }

  private:
    bool openFile(std::string& error);
    bool closeFile(std::string& error);
    /// Writes bytes through the compressor (gzip) or straight to the file.
    bool put(const std::string& bytes, std::string& error);
    bool deflateOut(int flush, std::string& error);
    bool failed(const std::string& what, std::string& error);

    std::string path_;
    std::uint64_t rotateBytes_;
    std::uint64_t rotateSeconds_;
    bool gzip_;
    std::string current_;
    std::unique_ptr<FILE, int (*)(FILE*)> file_{nullptr, fclose};
    z_stream zstream_{};
    bool deflating_ = false;
    std::vector<unsigned char> zbuffer_;
    /// Bytes of the current file (gzip: the compressed bytes produced), and
    /// its datagrams.
    std::uint64_t fileBytes_ = 0;
    std::uint64_t fileRecords_ = 0;
    std::uint64_t files_ = 0;
    /// When the current file was started (seconds, monotonic), and when a
    /// compressed file was last flushed.
    double opened_ = 0;
    double lastSync_ = 0;
    bool dirty_ = false;
    std::uint16_t ipId_ = 1;
    binlog_synth::ByteBuffer scratch_;
    binlog_synth::ByteBuffer frame_;
    std::string payload_;
};

}  // namespace wexbl_decode

#endif
