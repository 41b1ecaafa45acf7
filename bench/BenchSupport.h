// Shared by the benchmarks and the memory probe: temporary directories, the
// dictionaries they load (written as XML at start-up) and the captures they
// decode (written with the capture writer library).
#ifndef WEXBL_BENCH_SUPPORT_H
#define WEXBL_BENCH_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "BinaryLogXmlReader.h"

namespace wexbl_bench {

/// A fresh directory under $TMPDIR (or /tmp), removed with its contents on
/// destruction.
class TempDir {
  public:
    explicit TempDir(const char* tag);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The directory without a trailing "/".
    const std::string& path() const { return path_; }
    /// The directory with a trailing "/", as the reader wants it.
    std::string dictionaryPath() const { return path_ + "/"; }
    /// Writes `text` to `name` inside the directory; aborts on failure.
    void writeFile(const std::string& name, const std::string& text) const;

  private:
    std::string path_;
};

/// The shape of a generated dictionary.
struct DictionaryShape {
    /// Binlog files, one module each.
    std::size_t modules = 10;
    /// Logs per binlog file; the first of every file is a legacy log.
    std::size_t logsPerModule = 5;
    /// Enumerations in the one bindisplay file, and entries per enumeration
    /// (value texts 0, 1, 2 ...). At least one enumeration.
    std::size_t enums = 8;
    std::size_t valuesPerEnum = 32;
};

/// Writes a dictionary of `shape` into `dir`: binlog files mixing every
/// parameter kind (scalars, arrays, hex, SF-SFN and enumeration formats,
/// strings, binary and var binary strings), module headers on four modules
/// in five (some with 64-bit fields, so both paddings occur), placeholders in
/// three logs out of four, and one bindisplay file.
void writeGeneratedDictionary(const TempDir& dir, const DictionaryShape& shape);

/// Number of log descriptions a reader holds.
std::size_t countLogs(const Tav::BinaryLogXmlReader& reader);

/// Writes the small hand-written dictionary of the per-record benchmarks:
///  - "L1:cell" (key 0x0102, version 3) with a module header
///    (u32 cellId, u16 carrier, u8 state as CellState):
///    #1 CellReport: every parameter kind, six placeholders;
///    #2 CellStats: no placeholders (the parameter list is appended);
///    #3 LegacyTrace: five u32, four u8 (the last is the CID), two strings;
///  - "OAM:sys" (key 0x0901, version 1) without module header:
///    #1 FanAlarm: three placeholders, one of them an enumeration;
///  - the enumerations CellState (0-3), Cause (0-15) and Severity (1-4).
void writeRecordDictionary(const TempDir& dir);

/// Writes a random capture of `records` records (gzip level 1, link type
/// 150, seed 1) for the dictionary in `dictionaryDir` to `path`. False with
/// `error` on failure.
bool writeRandomCaptureFile(const std::string& dictionaryDir, const std::string& path,
                            std::uint64_t records, std::string& error);

/// The process's peak resident set size so far, in KiB: VmHWM of
/// /proc/self/status, or getrusage's ru_maxrss where that is missing.
long peakRssKib();

}  // namespace wexbl_bench

#endif
