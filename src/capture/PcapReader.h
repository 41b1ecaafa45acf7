// Records of a capture: the file header, then one record after another, each
// handed out as a view into the source's window (no copy).
//
// Strict mode reads the original capture format exactly as the original loop
// did: a 24-byte file header whose magic is not examined, the link type as the
// little-endian u32 at offset 20, then little-endian 16-byte record headers
// whose 4th field (storageLength) counts the record bytes that follow.
//
// Otherwise the first four bytes decide:
//   d4 c3 b2 a1  pcap, microseconds, little-endian      PcapMicro
//   4d 3c b2 a1  pcap, nanoseconds, little-endian       PcapNano
//   a1 b2 c3 d4  pcap, microseconds, big-endian         PcapMicroSwapped
//   a1 b2 3c 4d  pcap, nanoseconds, big-endian          PcapNanoSwapped
//   0a 0d 0d 0a  pcapng                                 PcapNg
//   anything else                                       NotACapture
// ("Swapped" is the byte order opposite to the little-endian one the original
// format uses.) pcap records keep the original rule that the 4th header field
// is the byte count; header fields are converted to host order and
// nanoseconds to microseconds (truncated).
//
// pcapng (PcapNgReader.cpp): sections (SHB) in either byte order, one after
// another; interfaces (IDB) with their own link type, if_tsresol (power of 10
// or of 2; default microseconds) and if_tsoffset (seconds added); packets from
// EPB, SPB (interface 0, no time stamp: time 0) and the obsolete PB; every
// other block is skipped. A packet's RawRecord header has
//   storageLength  = captured length (the bytes present, = data.size())
//   capturedLength = original length on the wire
// so that storageLength is the record byte count as in the pcap formats.
// Structure errors are BadBlock: a block length below the block's minimum,
// not a multiple of 4, above ByteSource::kWindowLimit (for the blocks that are
// read: SHB, IDB, EPB, SPB, PB) or different in the trailer; an unknown byte
// order mark or a major version other than 1; a packet whose captured length
// does not fit its block, or that names an interface not described (yet); more
// than kMaxInterfaces interfaces in a section. Options are read within their
// block only: an option whose length runs past the options ends the reading
// of options (what was read stays in force).
//
// Results are sticky: after End or any failure next() returns the same result
// again, unless resync() is called. Pending is not a failure: an incremental source has no more
// bytes yet, nothing of the unfinished record or header was consumed (only a pcapng block being
// skipped may be partly consumed; the skipping resumes), and next() (or open()) may be called again
// later.
#ifndef WEXBL_SRC_CAPTURE_PCAP_READER_H
#define WEXBL_SRC_CAPTURE_PCAP_READER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "BinLogRecordHeaders.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "capture/Source.h"

namespace Tav {
namespace capture {

enum class CaptureFormat {
    Unknown,
    PcapMicro,
    PcapNano,
    PcapMicroSwapped,
    PcapNanoSwapped,
    PcapNg
};

/// One record.
struct RawRecord {
    // `offset` and `number` lie apart: the reader writes each on its own,
    // and a caller copying both would otherwise load them at once, which
    // stalls until both stores are done rather than taking them from the
    // stores.
    PcapRecHeader header;        // host-order fields, time in microseconds
    std::uint64_t offset = 0;    // uncompressed stream offset of the record header (pcapng:
                                 // of the block)
    std::uint32_t linkType = 0;  // of this record (pcapng: its interface's)
    ByteReader data;             // exactly header.storageLength bytes; a view into the source's
                                 // window, valid until the next call on the reader or the source
    std::uint64_t number = 0;    // 1-based record number in the capture
};

enum class ReadResult {
    Ok,              // open(): the file header was read; records may follow
    Record,          // next(): a record
    End,             // no further record: clean end (a partial record header or
                     // pcapng block header at the end is a clean end too)
    Pending,         // incremental source: no more bytes yet, try again later
    NoGlobalHeader,  // open(): the stream is shorter than the file header
    Truncated,       // the stream ended inside a record (or pcapng block)
    Oversized,       // a record longer than kMaxRecordLength
    DataError,       // corrupt compressed data (source().error(), errorOffset())
    ReadError,       // read() failed (source().error())
    NotACapture,     // open(), not strict: an unknown magic; or a pcapng stream
                     // whose first block is not a section header
    BadBlock,        // pcapng structure error (see above)
    Resynced,        // next() after resync(): the scan ended (resyncFound(), resyncFrom/To())
};

/// Resynchronisation after damage: resync() turns a reader that stopped on
/// Oversized, Truncated, DataError or BadBlock into one that scans forward,
/// byte by byte, for the next plausible record, and reads on from there.
///
/// pcap: a 16-byte record header is plausible when both length fields are
/// at most kMaxRecordLength, the microseconds are below 10^6 (nanoseconds
/// below 10^9), the seconds lie within kResyncWindowSeconds of the last good
/// record's (when there was one), the header that follows the record is
/// plausible by the same length and fraction rules or the capture ends right
/// after the record, and the caller's `plausible` accepts the record (the
/// stream checks for a known packet type).
/// pcapng: a block is plausible when its type is a section header, an
/// interface description, a packet or an interface statistics block, its
/// length is a multiple of 4 within bounds and repeated in its trailer, a
/// packet names a known interface, and the block that follows is plausible
/// the same way or the capture ends right after it.
/// A DataError is first handed to the source's recover(); when the compressed
/// data cannot be resumed, the scan ends there.
constexpr std::uint32_t kResyncWindowSeconds = 86400;

class PcapReader {
  public:
    /// Most interfaces one pcapng section may describe.
    static constexpr std::size_t kMaxInterfaces = 65536;

    PcapReader(ByteSource& source, bool strict);
    PcapReader(const PcapReader&) = delete;
    PcapReader& operator=(const PcapReader&) = delete;

    /// Reads the file header: Ok, NoGlobalHeader (fewer than 24 bytes in
    /// strict mode; fewer than the header needs otherwise: 4 bytes to see the
    /// magic, 24 for pcap, the section header block for pcapng), NotACapture,
    /// BadBlock (a malformed first section header), DataError/ReadError from
    /// the source (even when fewer than 24 bytes came before the error), or
    /// Pending. For pcapng it also reads on through the blocks that carry no
    /// packet up to the first interface description, so that linkType() is
    /// known; it stops without consuming at anything else.
    ReadResult open();
    /// The format the magic names; in strict mode for diagnostics only (the
    /// reading ignores it).
    CaptureFormat format() const { return format_; }
    /// The file header's link type; pcapng: the first interface's, or 0 while
    /// no interface description was read.
    std::uint32_t linkType() const { return linkType_; }
    /// The next record: Record, or End / Pending / a failure. Before open()
    /// returned Ok it returns open()'s last result (End when open() was not
    /// called; Pending means open() is to be called again).
    ReadResult next(RawRecord& record);

    /// After Truncated: the record (pcap) or block (pcapng) bytes present,
    /// -1 when a DataError or ReadError cut the record; and how many were
    /// expected (the storageLength, or the pcapng block length).
    long truncatedGot() const { return truncatedGot_; }
    std::uint32_t truncatedExpected() const { return truncatedExpected_; }
    /// After Oversized: the record length.
    std::uint32_t oversizedLength() const { return oversizedLength_; }
    /// Starts a scan for the next plausible record after a failure; false
    /// (nothing changes) when the last result was no failure that allows one.
    /// next() then scans and returns Resynced once the scan ended, Pending
    /// while an incremental source has no bytes yet, and then the records
    /// from the one found on (End when none was found).
    bool resync(std::function<bool(const RawRecord&)> plausible);
    /// After Resynced: whether a record was found, the uncompressed offsets of
    /// the first byte skipped and of the first byte read again (the end of
    /// what was read when none was found), and the compressed bytes skipped
    /// by the source's recovery.
    bool resyncFound() const { return resyncFound_; }
    std::uint64_t resyncFrom() const { return resyncFrom_; }
    std::uint64_t resyncTo() const { return resyncTo_; }
    std::uint64_t resyncCompressedSkipped() const { return resyncCompressed_; }
    /// Records handed out so far.
    std::uint64_t records() const { return records_; }
    ByteSource& source() const { return source_; }

  private:
    struct Interface {
        std::uint32_t linkType = 0;
        std::uint32_t snapLength = 0;
        std::uint8_t tsResolution = 6;  // if_tsresol: 10^-6 s
        std::int64_t tsOffset = 0;      // if_tsoffset: seconds
    };

    /// The result for a stream that came back short: the source's failure,
    /// Pending, or `otherwise`.
    ReadResult shortResult(ReadResult otherwise) const;
    ReadResult openPcap();
    ReadResult nextPcap(RawRecord& record);
    ReadResult openNg();
    ReadResult nextNg(RawRecord& record);
    /// Reads one pcapng block. Ok: a block without a packet was consumed.
    /// Record: a packet; with `record` null the block is left unconsumed.
    ReadResult ngBlock(RawRecord* record);
    ReadResult ngSectionHeader(bool first);
    ReadResult ngInterface(const ByteReader& block);
    ReadResult ngPacket(std::uint32_t type, std::uint32_t length, RawRecord& record);
    ReadResult ngSkip();
    /// One step of a resync scan.
    ReadResult scan();
    bool pcapHeaderPlausible(const unsigned char* bytes, PcapRecHeader& header) const;
    bool ngBlockPlausible(const unsigned char* bytes, std::size_t have, bool atEnd,
                          bool& needMore) const;
    /// A block cut short after `have` of its `expected` bytes.
    ReadResult ngShort(std::size_t have, std::uint32_t expected);
    std::uint32_t u32(const ByteReader& bytes, std::uint64_t offset) const;
    std::uint16_t u16(const ByteReader& bytes, std::uint64_t offset) const;

    ByteSource& source_;
    bool strict_;
    CaptureFormat format_ = CaptureFormat::Unknown;
    std::uint32_t linkType_ = 0;
    bool opened_ = false;
    bool bigEndian_ = false;  // header fields (not strict)
    bool nanoseconds_ = false;
    ReadResult openResult_ = ReadResult::End;
    bool finished_ = false;
    ReadResult finalResult_ = ReadResult::End;
    long truncatedGot_ = 0;
    std::uint32_t truncatedExpected_ = 0;
    std::uint32_t oversizedLength_ = 0;
    std::uint64_t records_ = 0;
    std::uint32_t lastSeconds_ = 0;  // of the last record handed out
    bool haveLastSeconds_ = false;

    // resync
    bool scanning_ = false;
    std::function<bool(const RawRecord&)> plausible_;
    bool resyncFound_ = false;
    std::uint64_t resyncFrom_ = 0;
    std::uint64_t resyncTo_ = 0;
    std::uint64_t resyncCompressed_ = 0;

    // pcapng
    std::vector<Interface> interfaces_;
    bool sawInterface_ = false;
    std::uint64_t skipRemaining_ = 0;  // bytes of a skipped block still to consume
    std::uint32_t skipLength_ = 0;     // its total length
};

}  // namespace capture
}  // namespace Tav

#endif
