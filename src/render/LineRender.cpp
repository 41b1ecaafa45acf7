// The record lines: binary log (with or without module header values),
// legacy, syslog and plain capture. Each line opens with the time text.
#include <cstdio>

#include "BinaryLogXmlReader.h"
#include "render/LineText.h"

namespace Tav {
namespace {

/// Looks names up in a decodedValues map.
auto mapLookup(const std::map<std::string, std::string>& values) {
    return [&values](const char* name, std::size_t size) -> const std::string* {
        const auto found = values.find(std::string(name, size));
        return found == values.end() ? nullptr : &found->second;
    };
}

}  // namespace

void BinaryLogXmlReader::computeDisplayDataForLog(const PcapRecHeader& /*pcapHeader*/,
                                                  const BinLogHeader& /*binLogHeader*/,
                                                  const ModuleDetails& module,
                                                  const LogDetails& log,
                                                  std::string& moduleHeaderText,
                                                  std::string& messageText) {
    if (module.hasModuleHeader) {
        detail::appendParamList(moduleHeaderText, module.paramOrder,
                                mapLookup(module.decodedValues));
    }
    std::string work;
    detail::buildMessageText(log.logString, log.paramOrder, mapLookup(log.decodedValues),
                             messageText, work);
}

int BinaryLogXmlReader::displayBinLog(const PcapRecHeader& pcapHeader,
                                      const BinLogHeader& binLogHeader, FILE* out,
                                      int utcOffsetMinutes, const ModuleDetails& module,
                                      const LogDetails& log) {
    std::string timeText;
    std::uint32_t seconds = detail::shownSeconds(pcapHeader, utcOffsetMinutes);
    std::uint32_t usec = pcapHeader.tsUsec;
    outputTimeStamp(timeText, &seconds, &usec);
    std::string moduleHeaderText;
    std::string messageText;
    computeDisplayDataForLog(pcapHeader, binLogHeader, module, log, moduleHeaderText, messageText);
    std::string line;
    detail::appendBinLogLineStart(line, timeText, module, log, logLevelNames[binLogHeader.logLevel],
                                  binLogHeader.seqNo);
    if (!moduleHeaderText.empty()) {
        detail::appendAll(line, {detail::printed(moduleHeaderText), "] ["});
    }
    detail::appendAll(line, {detail::printed(messageText), "] \n"});
    fwrite(line.data(), 1, line.size(), out);
    return 0;
}

void BinaryLogXmlReader::formatLegacyLogDetails(ModuleDetails& module, LogDetails& log,
                                                const PcapRecHeader& pcapHeader,
                                                const BinLogHeader& binLogHeader, FILE* out,
                                                int utcOffsetMinutes) {
    std::string timeText;
    std::uint32_t seconds = detail::shownSeconds(pcapHeader, utcOffsetMinutes);
    std::uint32_t usec = pcapHeader.tsUsec;
    outputTimeStamp(timeText, &seconds, &usec);
    const std::string source = module.subsystemName + ":" + module.moduleName;
    const std::string& level = logLevelNames[binLogHeader.logLevel];
    fprintf(out, "[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%04u-%02u] ", timeText.c_str(),
            source.c_str(), log.logName.c_str(), level.c_str(), log.category.c_str(),
            binLogHeader.seqNo, (log.frameTiming / 10) & 0x3FFu, log.frameTiming % 10);

    // One string parameter is the tag; with two, the second is a trailer.
    const std::vector<TavLogParam<std::string>>& strings = log.stringParams;
    const TavLogParam<std::string>* tag = nullptr;
    const TavLogParam<std::string>* trailer = nullptr;
    if (strings.size() == 1 || strings.size() == 2) {
        tag = &strings[0];
    }
    if (strings.size() == 2) {
        trailer = &strings[1];
    }
    if (tag != nullptr && !tag->name.empty()) {
        fprintf(out, "[%14s] ", tag->value.c_str());
    }
    if (!log.uint8Params.empty() && log.uint8Params.back().value != 0) {
        fprintf(out, " [CID=%1d] %s ", log.uint8Params.back().value, log.logString.c_str());
    } else {
        fprintf(out, " %s ", log.logString.c_str());
    }
    for (const TavLogParam<std::uint32_t>& param : log.uint32Params) {
        fprintf(out, "%s=%u ", param.name.c_str(), param.value);
    }
    if (trailer != nullptr && !trailer->name.empty()) {
        fprintf(out, "%s=%s ", trailer->name.c_str(), trailer->value.c_str());
    }
    fprintf(out, "\n");
}

void BinaryLogXmlReader::formatSyslogPayLoad(const PcapRecHeader& pcapHeader,
                                             const BinLogHeader& binLogHeader,
                                             const std::string& syslogTag,
                                             std::string& syslogMessage, FILE* out,
                                             int utcOffsetMinutes) {
    std::string timeText;
    std::uint32_t seconds = detail::shownSeconds(pcapHeader, utcOffsetMinutes);
    std::uint32_t usec = pcapHeader.tsUsec;
    outputTimeStamp(timeText, &seconds, &usec);
    // Keep the record on one output line.
    replaceString(syslogMessage, "\n", "\\n");
    const std::string& level = logLevelNames[binLogHeader.logLevel];
    fprintf(out, "[%s] [syslog] [%16s] [%8s] [%u] [%s]\n", timeText.c_str(), syslogTag.c_str(),
            level.c_str(), binLogHeader.seqNo, syslogMessage.c_str());
}

void BinaryLogXmlReader::formatPcapCapturePayLoad(const PcapRecHeader& pcapHeader,
                                                  const BinLogHeader& binLogHeader, FILE* out,
                                                  int utcOffsetMinutes) {
    std::string timeText;
    std::uint32_t seconds = detail::shownSeconds(pcapHeader, utcOffsetMinutes);
    std::uint32_t usec = pcapHeader.tsUsec;
    outputTimeStamp(timeText, &seconds, &usec);
    fprintf(out, "[%s] [wireshark] [length=%d] [seqNo=%10d]\n", timeText.c_str(),
            static_cast<int>(pcapHeader.storageLength), static_cast<int>(binLogHeader.seqNo));
}

void BinaryLogXmlReader::replaceString(std::string& text, const std::string& from,
                                       const std::string& to) {
    if (from.empty()) {
        return;  // an empty pattern would match forever
    }
    std::size_t position = 0;
    while ((position = text.find(from, position)) != std::string::npos) {
        text.replace(position, from.size(), to);
        position += to.size();
    }
}

}  // namespace Tav
