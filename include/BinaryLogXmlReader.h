// libWexOamBinLogXmlReader: turns binary log captures into text lines using
// the XML dictionaries of one directory.
//
// Typical use:
//
//   Tav::BinaryLogXmlReader reader("/path/to/dictionaries/", false, 0, 64);
//   if (!reader.isGood()) { /* the dictionaries did not load */ }
//   std::vector<std::string> files;
//   reader.getFileList({"/path/to/captures"}, files);
//   for (const auto& file : files) reader.readBinaryFiledata(file, 0, stdout);
//
// Records as values rather than lines, and captures read by several threads
// at once: WexOamBinLogXmlReader/CaptureStream.h.
//
// One reader is used by one thread at a time (capture streams only read it).
// Loading frees every XML document it parses and leaves libxml2's global
// state alone: other libxml2 users in the process are not disturbed; a
// program that wants libxml2's memory back calls xmlCleanupParser itself
// when no libxml2 user is left.
#ifndef WEX_OAM_BINARY_LOG_XML_READER_H
#define WEX_OAM_BINARY_LOG_XML_READER_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BinLogDictionary.h"
#include "BinLogRecordHeaders.h"
#include "BinaryLogDisplayFormatter.h"
#include "BinaryLogStatsCollector.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "WexOamBinLogXmlReaderExport.h"

namespace Tav {

/// The largest record (`storageLength`) a capture may hold, in bytes.
constexpr std::uint32_t MAX_BINLOG_LENGTH = 25000;

namespace detail {
class ReaderCore;
}  // namespace detail

class WEXBL_API BinaryLogXmlReader {
  public:
    bool good = true;
    /// The dictionary directory as given; also the literal prefix of every
    /// dictionary path (no separator is inserted), so pass it with a "/".
    std::string xmlPath;
    bool statsEnabled = false;
    /// UDP destination port that an Ethernet-framed record must carry.
    std::uint16_t udpPort = 0;
    /// Most bytes of a "varbinarystring" parameter that are shown.
    std::uint16_t maxVarBinaryBytes = 0;
    std::vector<std::string> binLogFiles;
    std::vector<std::string> binDisplayFiles;
    /// Module key -> (log index -> log description).
    std::map<std::uint16_t, std::map<std::uint16_t, LogDetails>> logDetailsMap;
    /// Module key -> module description.
    std::map<std::uint16_t, ModuleDetails> moduleDetailsMap;
    /// Level number -> level name. Rendering a record of an unknown level adds
    /// an empty entry; the level check compares against the entry count.
    std::map<std::uint16_t, std::string> logLevelNames;
    BinaryLogDisplayFormatter displayFormatter;
    /// Index given to the next log description of the file being loaded.
    std::uint16_t nextLogIndex = 1;
    BinaryLogStatsCollector statsCollector;

    /// Finds and loads every dictionary of `xmlPath`; never throws on bad
    /// input: a failure clears the flag that isGood() reports.
    BinaryLogXmlReader(const std::string& xmlPath, bool statsEnabled, unsigned short udpPort,
                       unsigned short maxVarBinaryBytes);
    ~BinaryLogXmlReader();
    BinaryLogXmlReader(const BinaryLogXmlReader&) = delete;
    BinaryLogXmlReader& operator=(const BinaryLogXmlReader&) = delete;

    /// Records are decoded through plans compiled from logDetailsMap,
    /// moduleDetailsMap and displayFormatter at the end of loading. A caller
    /// that changes any of the three afterwards calls rebuildPlans() before
    /// decoding again (capture streams open after the change see it too).
    /// logLevelNames needs no rebuild: it is read for every record.
    void rebuildPlans();

    bool isGood() const { return good; }

    // ---- Discovery -------------------------------------------------------

    /// Sorts the ".xml" files of `xmlPath` into binLogFiles and binDisplayFiles.
    int getBinLogFilesFromDisk();
    /// Expands directories to their "pcap.gz" entries; other paths pass through.
    /// Appends to `files`; always 0.
    int getFileList(const std::vector<std::string>& inputs, std::vector<std::string>& files);

    // ---- Loading ---------------------------------------------------------

    /// Loads every binlog file, then the display enumerations.
    int readBinLogFileAndLoadData();
    int parseBinLogXml(xmlNode* node, std::uint16_t& moduleKey, ModuleDetails& module,
                       std::map<std::uint16_t, LogDetails>& logs);
    int parseLoggingSubsystemNode(xmlNode*& node, std::uint16_t& moduleKey,
                                  std::string& subsystemName, std::string& moduleName,
                                  std::uint16_t& binlogVersion);
    int parseModuleHeaderNode(xmlNode*& node, const std::uint16_t& moduleKey,
                              ModuleDetails& module);
    int parseModuleHeaderParamNode(xmlNode*& node, ModuleDetails& module);
    int parseLogIdNode(xmlNode*& node, const std::uint16_t& moduleKey,
                       std::map<std::uint16_t, LogDetails>& logs);
    int parseLogParamNode(xmlNode*& node, LogDetails& log);
    /// Turns one parameter declaration into typed entries of `params` and
    /// appends every name to `paramOrder`.
    int tokenizeAndPushToList(const std::string& nameList, const std::string& type,
                              const std::string& count, const std::string& size,
                              const std::string& displayFormat, FlexiParams& params,
                              std::vector<std::string>& paramOrder);

    // ---- Capture reading ---------------------------------------------------

    /// Reads one capture file (pcap, gzip-compressed or not) and prints one line
    /// per record on `out`; messages about the file go to standard error.
    void readBinaryFiledata(const std::string& path, int utcOffsetMinutes, FILE* out);

    // ---- Record decoding ---------------------------------------------------

    /// Decodes and prints one record. `payload` is the record data after the
    /// BinLogHeader (only its bytes are ever read); `length` is the record
    /// length handed to the statistics.
    int getLogDetailsForLogId(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                              const ByteReader& payload, unsigned int length, FILE* out,
                              int utcOffsetMinutes);
    int decodeModuleHeaderFromPayLoad(ModuleDetails& module, const BinLogHeader& binLogHeader,
                                      const ByteReader& payload, unsigned int& payloadOffset);
    int decodeBinLogPayLoad(const BinLogHeader& binLogHeader, const ByteReader& payload,
                            LogDetails& log, unsigned int payloadOffset);

    /// Decodes a list of integer parameters (ParamT is TavLogParam<T> for one of
    /// the eight integer types T).
    template <typename ParamT>
    int decodeIntParams(const ByteReader& payload, std::vector<ParamT>& params,
                        unsigned int& payloadOffset,
                        std::map<std::string, std::string>& decodedValues);
    /// Builds the display text of one integer value into `text` and enters it
    /// into `values` under `name`.
    template <typename T>
    void convertType(const std::string& displayFormat, T value, const std::string& name,
                     std::string& text, std::map<std::string, std::string>& values);
    int decodeStringParams(const ByteReader& payload, std::vector<TavLogParam<std::string>>& params,
                           unsigned int& payloadOffset,
                           std::map<std::string, std::string>& decodedValues);
    int decodeBinaryStringParams(const ByteReader& payload,
                                 std::vector<TavLogParam<std::string>>& params,
                                 unsigned int& payloadOffset,
                                 std::map<std::string, std::string>& decodedValues);
    int decodeVarBinaryStringParam(const ByteReader& payload,
                                   std::vector<TavLogParam<std::string>>& params,
                                   unsigned int& payloadOffset,
                                   std::map<std::string, std::string>& decodedValues);
    int decodeLegacyLogPayLoad(const BinLogHeader& binLogHeader, const ByteReader& payload,
                               LogDetails& log);
    /// Splits a syslog payload into its 16-byte tag and its message. Returns -1
    /// (with a message on standard error) for a record whose storageLength
    /// cannot even hold the two headers; nothing is decoded then.
    int decodeSyslogPayLoad(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                            const ByteReader& payload, std::string& syslogTag,
                            std::string& syslogMessage);

    // ---- Rendering -----------------------------------------------------------

    void outputTimeStamp(std::string& out, void* seconds, void* microseconds);
    void computeDisplayDataForLog(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                                  const ModuleDetails& module, const LogDetails& log,
                                  std::string& moduleHeaderText, std::string& messageText);
    int displayBinLog(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader, FILE* out,
                      int utcOffsetMinutes, const ModuleDetails& module, const LogDetails& log);
    void formatLegacyLogDetails(ModuleDetails& module, LogDetails& log,
                                const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                                FILE* out, int utcOffsetMinutes);
    void formatSyslogPayLoad(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                             const std::string& syslogTag, std::string& syslogMessage, FILE* out,
                             int utcOffsetMinutes);
    void formatPcapCapturePayLoad(const PcapRecHeader& pcapHeader, const BinLogHeader& binLogHeader,
                                  FILE* out, int utcOffsetMinutes);
    void replaceString(std::string& text, const std::string& from, const std::string& to);

  private:
    friend class detail::ReaderCore;
    /// Plans, decoding state and output buffer of the reader's own stream.
    std::unique_ptr<detail::ReaderCore> core_;
};

}  // namespace Tav

#endif
