// Decoding log records as they arrive over UDP, one datagram at a time.
//
//   Tav::DatagramStream stream(reader, "udp:5000", options);
//   for (;;) {
//       ssize_t n = recv(fd, buffer, sizeof buffer, 0);
//       stream.push(buffer, n);
//       while (stream.next()) {
//           if (const Tav::Record* record = stream.record()) { ... }
//           if (const Tav::Event* event = stream.event()) { ... }
//       }
//   }
//
// A datagram holds one record exactly as Ethernet captures carry it in their
// UDP payload: the sender's 16-byte record header, the 16-byte binary log
// header and the payload. It is decoded through the same path as a captured
// record, so the lines and values are those the same datagram gives when it
// is read from a capture; records are numbered by datagram, from 1. The
// stream keeps its statistics and level table across datagrams, as a capture
// stream does across records.
#ifndef WEX_OAM_BINLOG_DATAGRAM_STREAM_H
#define WEX_OAM_BINLOG_DATAGRAM_STREAM_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "../WexOamBinLogXmlReaderExport.h"
#include "CaptureStream.h"
#include "Record.h"

namespace Tav {

class BinaryLogXmlReader;

class WEXBL_API DatagramStream {
  public:
    /// The two record headers.
    static constexpr std::size_t kMinDatagramBytes = 32;
    /// The largest datagram whose Ethernet, IPv6 and UDP frame (62 bytes of
    /// headers) stays within a capture record's limit of 25000 bytes: what is
    /// received can always be written to a capture that reads back.
    static constexpr std::size_t kMaxDatagramBytes = 25000 - 62;

    /// What push() made of a datagram.
    enum class Result {
        Decoded,   ///< a record was decoded (next() hands out it and its events)
        TooShort,  ///< fewer than kMinDatagramBytes: not decoded
        TooLong,   ///< more than kMaxDatagramBytes: not decoded
    };

    /// `name` names the source in records and events ("udp:5000"). Of the
    /// options, udpPort, strict and resync play no part.
    DatagramStream(const BinaryLogXmlReader& reader, const std::string& name,
                   const StreamOptions& options);
    ~DatagramStream();
    DatagramStream(const DatagramStream&) = delete;
    DatagramStream& operator=(const DatagramStream&) = delete;

    /// Decodes one datagram. The record and events of the previous one must
    /// have been taken with next() first: they are replaced.
    Result push(const unsigned char* data, std::size_t size);
    /// Moves to the next event or record of the last datagram; false when
    /// there is none left.
    bool next();
    /// The current record, or null when the current item is an event.
    const Record* record() const;
    /// The current event, or null when the current item is a record.
    const Event* event() const;

    /// Datagrams pushed, and how many of them were not decoded (too short or
    /// too long).
    std::uint64_t datagrams() const;
    std::uint64_t malformed() const;
    /// The statistics summary so far (with statistics on; empty otherwise).
    std::string statisticsSoFar() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Tav

#endif
