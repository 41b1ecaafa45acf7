// Pulling records and events out of a capture, one at a time.
//
//   Tav::BinaryLogXmlReader reader("/etc/dictionaries/", false, 0, 64);
//   Tav::StreamOptions options;
//   options.udpPort = 5000;
//   Tav::CaptureStream stream(reader, "capture.pcap.gz", options);
//   while (stream.next()) {
//       if (const Tav::Record* record = stream.record()) { ... record->params ... }
//       if (const Tav::Event* event = stream.event()) { ... event->text ... }
//   }
//
// A stream reads its own state (statistics, level table, buffers) and only
// reads the reader's dictionary, so several streams may decode at the same
// time in different threads against one loaded reader, as long as nothing
// changes the reader meanwhile. One stream is used by one thread at a time;
// requestStop() may be called from any thread or from a signal handler.
#ifndef WEX_OAM_BINLOG_CAPTURE_STREAM_H
#define WEX_OAM_BINLOG_CAPTURE_STREAM_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../WexOamBinLogXmlReaderExport.h"
#include "Record.h"

namespace Tav {

class BinaryLogXmlReader;
class StreamSession;
class Filter;

/// What kind of capture file a stream reads.
enum class CaptureFormat : std::uint8_t {
    Unknown,                   ///< not opened (yet), or no capture
    Pcap,                      ///< pcap, microseconds, little-endian
    PcapNanoseconds,           ///< pcap, nanoseconds, little-endian
    PcapBigEndian,             ///< pcap, microseconds, big-endian
    PcapNanosecondsBigEndian,  ///< pcap, nanoseconds, big-endian
    PcapNg,                    ///< pcapng
};

/// The options of the reader's constructor and of readBinaryFiledata, per
/// stream.
struct StreamOptions {
    /// UDP destination port of the log datagrams in Ethernet-framed captures.
    std::uint16_t udpPort = 0;
    /// Most bytes of a var binary string shown.
    std::uint16_t maxVarBinaryBytes = 65535;
    /// Report sequence gaps and reorders, and a summary at the end.
    bool stats = false;
    /// Minutes added to every record time.
    int utcOffsetMinutes = 0;
    /// Build each record's line and each value's display text. Without them
    /// records carry their values only, which is faster.
    bool texts = true;
    /// Fill each record's header and params. Without them records carry
    /// their line only (with texts), which is faster.
    bool values = true;
    /// Read only what readBinaryFiledata reads: pcap files whose header is
    /// not examined, link types 150 and 1 with the fixed Ethernet framing.
    /// Otherwise pcapng, nanosecond and big-endian pcap, VLAN tags, IPv4
    /// options, Linux cooked captures, raw IP and BSD loopback are read too.
    bool strict = false;
    /// After damage (an oversized or implausible record, a truncated record,
    /// corrupt compressed data, a damaged pcapng block), look for the next
    /// plausible record and read on from it, with a Resync event that tells
    /// the bytes skipped, instead of ending the capture. Not with strict.
    bool resync = false;
    /// The capture is still being written (a file opened by path): its end
    /// is not the end of the stream. next() returns false with waiting()
    /// true when it has read everything there is so far, and reads on when
    /// called again after more was appended, as `tail -f` does.
    bool follow = false;
    /// Inflate gzip with the fastest inflater built in (ISA-L, where the
    /// capture can be read again: a file or memory); false: zlib alone. Intact
    /// compressed data gives the same bytes, records and messages either way.
    /// ISA-L checks corrupt deflate data less strictly than zlib: where zlib
    /// reports a data error at once, it may first inflate some bytes, so a
    /// damaged capture can give other records or messages before its error.
    bool fastInflate = true;
    /// Read and inflate the capture in a thread of its own, beside the
    /// decoding (files and memory; not with follow): on two cores a run takes
    /// about as long as the slower of the two. Off by default: the library
    /// starts no thread unless asked.
    bool inflateThread = false;
    /// Only records this filter keeps come out (it must outlive the stream).
    /// A record the filter rejects from its header fields is not decoded;
    /// statistics and the checks of every record happen all the same.
    const Filter* filter = nullptr;
    /// Captures read one after the other in one session share its
    /// statistics and level table (see StreamSession); null: the stream has
    /// its own.
    StreamSession* session = nullptr;
};

/// What consecutive captures of one run share, as readBinaryFiledata's calls
/// on one reader do: the statistics (the counts and sequence numbers of a
/// capture that ended on damage carry into the next capture, and are printed
/// with it) and the level table (a level first seen in one capture stays in
/// the table for the next). The streams of one session are read one after
/// the other, never at the same time; the session outlives them.
class WEXBL_API StreamSession {
  public:
    explicit StreamSession(const BinaryLogXmlReader& reader);
    ~StreamSession();
    StreamSession(const StreamSession&) = delete;
    StreamSession& operator=(const StreamSession&) = delete;

  private:
    friend class CaptureStream;
    struct State;
    std::unique_ptr<State> state_;
};

class WEXBL_API CaptureStream {
  public:
    /// Opens a capture file, gzip-compressed or not; "-" is standard input.
    CaptureStream(const BinaryLogXmlReader& reader, const std::string& path,
                  const StreamOptions& options);
    /// Reads a capture held in memory (not copied: it must outlive the
    /// stream). `name` names it in records and events.
    CaptureStream(const BinaryLogXmlReader& reader, const std::string& name,
                  const unsigned char* data, std::size_t size, const StreamOptions& options);
    /// Reads an open file descriptor as its bytes arrive (a pipe, a socket,
    /// standard input). With `own`, it is closed with the stream.
    CaptureStream(const BinaryLogXmlReader& reader, const std::string& name, int fd, bool own,
                  const StreamOptions& options);
    ~CaptureStream();
    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

    /// Moves to the next record or event; false at the end of the capture
    /// (after its last event) or after requestStop().
    bool next();
    /// The current record, or null when the current item is an event.
    const Record* record() const;
    /// The current event, or null when the current item is a record.
    const Event* event() const;

    /// Makes next() return false from its next call on. Safe from any thread
    /// and from a signal handler.
    void requestStop() noexcept;

    /// The gzip inflaters built into the library: "ISA-L (zlib 1.2.13 as the
    /// fallback)" or "zlib 1.2.13".
    static const char* inflaterName();

    /// True when the last next() returned false only because no more bytes
    /// were there yet (a capture followed while it grows, a non-blocking
    /// descriptor): a later next() may go on. False at the real end.
    bool waiting() const;

    /// Opens the capture and reads its header, if that was not done yet
    /// (next() does it too); what it finds comes as events from next().
    /// Returns opened().
    bool open();
    /// True once the capture was opened and its header read without error.
    bool opened() const;
    /// The capture's format and link type (pcapng: its first interface's),
    /// once opened.
    CaptureFormat format() const;
    std::uint32_t linkType() const;
    /// The capture's first bytes (up to 4, after decompression), and whether
    /// it is gzip-compressed: what a program needs to say what a file that
    /// is no capture holds.
    std::string firstBytes() const;
    bool compressed() const;
    /// True when the capture ended on damage (truncated, oversized record,
    /// compressed data error, read error) or could not be read at all.
    bool damaged() const;
    /// Records read from the capture so far, and uncompressed bytes.
    std::uint64_t recordsRead() const;
    std::uint64_t bytesRead() const;
    /// Bytes of the file read so far (compressed bytes for gzip): against
    /// the file's size, how far a run has come.
    std::uint64_t inputBytesRead() const;

    /// The statistics summary of what was read so far (with statistics on;
    /// empty otherwise), as the end of a capture prints it: for a program
    /// stopped before the end.
    std::string statisticsSoFar() const;

    /// Capture records that carried no binary log record, by reason.
    struct SkippedFrames {
        std::uint64_t notIp = 0;          ///< the link layer carries something else
        std::uint64_t notUdp = 0;         ///< an IP packet of another protocol
        std::uint64_t otherPort = 0;      ///< a UDP datagram to another port
        std::uint64_t tooShort = 0;       ///< ends inside its headers
        std::uint64_t otherLinkType = 0;  ///< an interface of a link type not read
        std::uint64_t total() const {
            return notIp + notUdp + otherPort + tooShort + otherLinkType;
        }
    };
    SkippedFrames skippedFrames() const;
    /// The UDP destination ports of the datagrams seen so far, with how many
    /// datagrams went to each, in port order (the chosen port included).
    std::vector<std::pair<std::uint16_t, std::uint64_t>> udpPorts() const;

  private:
    friend class DatagramStream;
    friend class ParallelStream;
    struct Impl;
    static StreamSession::State* sessionState(const StreamOptions& options);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tav

#endif
