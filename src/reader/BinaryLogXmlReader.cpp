// The reader object: construction loads every dictionary of one directory
// and compiles the plans records are decoded with.
#include "BinaryLogXmlReader.h"

#include <cstdio>

#include "dictionary/XmlUtil.h"
#include "reader/ReaderCore.h"

namespace Tav {
namespace detail {

void Printer::setOutput(FILE* out) {
    if (out != out_) {
        flush();
        out_ = out;
    }
}

void Printer::emit(const Event& event) {
    if (event.stream == EventStream::Output) {
        line(event.text);
        return;
    }
    flush();
    fwrite(event.text.data(), 1, event.text.size(), stderr);
}

void Printer::line(std::string_view text) {
    buffer_.append(text);
    flushIfFull();
}

void Printer::flushIfFull() {
    if (buffer_.size() >= 64 * 1024) {
        flush();
    }
}

void Printer::flush() {
    if (!buffer_.empty() && out_ != nullptr) {
        fwrite(buffer_.data(), 1, buffer_.size(), out_);
    }
    buffer_.clear();
}

ReaderCore::ReaderCore(BinaryLogXmlReader& owner)
    : reader(owner), levels(owner.logLevelNames), decoder(levels, owner.statsCollector, printer) {}

int ReaderCore::dispatch(const PcapRecHeader& pcap, const BinLogHeader& header,
                         const ByteReader& payload, std::uint32_t length, FILE* out,
                         int utcOffsetMinutes, const RecordOrigin& origin) {
    printer.setOutput(out);
    DecodeSettings settings;
    settings.utcOffsetMinutes = utcOffsetMinutes;
    settings.maxVarBinaryBytes = reader.maxVarBinaryBytes;
    settings.stats = reader.statsEnabled;
    settings.fields = false;
    settings.texts = true;
    // The record's line goes straight into the output buffer.
    decoder.setLineBuffer(&printer.buffer());
    const int result = decoder.decode(plans, settings, pcap, header, payload, length, origin);
    printer.flushIfFull();
    return result;
}

}  // namespace detail

BinaryLogXmlReader::BinaryLogXmlReader(const std::string& xmlPath_, bool statsEnabled_,
                                       unsigned short udpPort_, unsigned short maxVarBinaryBytes_)
    : good(true),
      xmlPath(xmlPath_),
      statsEnabled(statsEnabled_),
      udpPort(udpPort_),
      maxVarBinaryBytes(maxVarBinaryBytes_),
      nextLogIndex(1),
      core_(std::make_unique<detail::ReaderCore>(*this)) {
    if (getBinLogFilesFromDisk() < 0) {
        good = false;
    } else if (readBinLogFileAndLoadData() < 0) {
        good = false;
    } else {
        static const char* const kLevelNames[] = {"",     "CRITICAL", "ERROR", "WARN",  "NOTICE",
                                                  "INFO", "DEBUG",    "DEVEL", "ALWAYS"};
        for (std::uint16_t level = 0; level < 9; ++level) {
            logLevelNames[level] = kLevelNames[level];
        }
    }
    // A failed reader may still read captures against what did load.
    rebuildPlans();
}

BinaryLogXmlReader::~BinaryLogXmlReader() = default;

void BinaryLogXmlReader::rebuildPlans() {
    core_->plans.build(moduleDetailsMap, logDetailsMap, displayFormatter);
}

int BinaryLogXmlReader::readBinLogFileAndLoadData() {
    for (const std::string& path : binLogFiles) {
        detail::XmlDocOwner doc(xmlReadFile(path.c_str(), nullptr, 0));
        if (!doc) {
            fprintf(stderr, "Error parsing file :%s", path.c_str());
            return -1;
        }
        xmlNode* root = xmlDocGetRootElement(doc.get());
        std::uint16_t moduleKey = 0;
        ModuleDetails module;
        std::map<std::uint16_t, LogDetails> logs;
        if (parseBinLogXml(root, moduleKey, module, logs) < 0) {
            fprintf(stderr, "Error parseBinLogXml failed for :%s", path.c_str());
            return -1;
        }
        // A later file with the same key replaces the earlier one whole.
        logDetailsMap[moduleKey] = std::move(logs);
        moduleDetailsMap[moduleKey] = std::move(module);
        nextLogIndex = 1;
        // Freeing the document is enough: libxml2's global state belongs to
        // the whole program, which may use libxml2 itself.
    }
    // Broken enumerations never fail the reader: their values show as numbers.
    displayFormatter.readDisplayXml(binDisplayFiles);
    return 0;
}

}  // namespace Tav
