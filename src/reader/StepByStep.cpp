// The step-by-step decoding and rendering members: they decode into a copy
// of a module or log description (its parameters' value and displayValue,
// its decodedValues map) and print from such a copy. Records themselves are
// decoded through the plans (records/Decoder.h); these members keep their
// own results for callers that work on descriptions, and share every value
// and text primitive with the decoder, so both give the same characters.
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "BinaryLogXmlReader.h"
#include "dictionary/WireOrder.h"
#include "reader/ReaderCore.h"
#include "records/Placeholders.h"
#include "records/Values.h"

namespace Tav {

namespace {

/// Sets `text` to the display text of one integer value: "hex", "SF-SFN"
/// (unsigned 32-bit only), "DefaultDisplay", or else the enumeration named by
/// the format, through getDisplay (which may leave `text` as it was).
template <typename T>
void formatIntValue(const BinaryLogDisplayFormatter& formatter, const std::string& format, T value,
                    std::string& text) {
    if (format == kFormatHex) {
        text.clear();
        detail::appendHex(text, value);
    } else if (std::is_same<T, std::uint32_t>::value && format == kFormatSfSfn) {
        text.clear();
        detail::appendFrameStamp(text, static_cast<std::uint32_t>(value));
    } else if (format == kFormatDefault) {
        text.clear();
        detail::appendDecimal(text, value);
    } else {
        std::string decimal;
        detail::appendDecimal(decimal, value);
        formatter.getDisplay(format, decimal, text);
    }
}

/// Looks names up in a decodedValues map.
auto mapLookup(const std::map<std::string, std::string>& values) {
    return [&values](std::string_view key, std::string_view& name, std::string_view& value) {
        const auto found = values.find(std::string(key));
        if (found == values.end()) {
            return false;
        }
        name = found->first;
        value = found->second;
        return true;
    };
}

std::size_t longestKey(const std::map<std::string, std::string>& values) {
    std::size_t longest = 0;
    for (const auto& entry : values) {
        longest = entry.first.size() > longest ? entry.first.size() : longest;
    }
    return longest;
}

/// Appends "name=text " for every name of `order` that `values` holds.
void appendParamList(std::string& out, const std::vector<std::string>& order,
                     const std::map<std::string, std::string>& values) {
    for (const std::string& name : order) {
        const auto found = values.find(name);
        if (found != values.end()) {
            out += name;
            out += '=';
            out += found->second;
            out += ' ';
        }
    }
}

/// The time text of a record as every formatter shows it; empty, with the
/// message, when the time cannot be converted.
std::string timeTextOf(BinaryLogXmlReader& reader, const PcapRecHeader& pcapHeader,
                       int utcOffsetMinutes) {
    std::string text;
    std::uint32_t seconds = pcapHeader.tsSec + 60u * static_cast<std::uint32_t>(utcOffsetMinutes);
    std::uint32_t usec = pcapHeader.tsUsec;
    reader.outputTimeStamp(text, &seconds, &usec);
    return text;
}

/// Decodes every list of `params` in wire order; a module header leaves its
/// var binary strings alone.
void decodeGroups(BinaryLogXmlReader& reader, const ByteReader& payload, FlexiParams& params,
                  unsigned int& offset, std::map<std::string, std::string>& values,
                  bool moduleHeader) {
    detail::forEachGroup(params, [&](auto& list, ParamType type) {
        using Param = typename std::decay_t<decltype(list)>::value_type;
        if constexpr (std::is_same<Param, TavLogParam<std::string>>::value) {
            if (type == ParamType::String) {
                reader.decodeStringParams(payload, list, offset, values);
            } else if (type == ParamType::BinaryString) {
                reader.decodeBinaryStringParams(payload, list, offset, values);
            } else if (!moduleHeader) {
                reader.decodeVarBinaryStringParam(payload, list, offset, values);
            }
        } else {
            reader.decodeIntParams(payload, list, offset, values);
        }
    });
}

}  // namespace

// ---- Decoding into copies ----------------------------------------------------------------

int BinaryLogXmlReader::decodeModuleHeaderFromPayLoad(ModuleDetails& module,
                                                      const BinLogHeader& /*binLogHeader*/,
                                                      const ByteReader& payload,
                                                      unsigned int& payloadOffset) {
    unsigned int offset = 0;
    decodeGroups(*this, payload, module, offset, module.decodedValues, true);
    payloadOffset = offset + module.headerPadding;
    return 0;
}

int BinaryLogXmlReader::decodeBinLogPayLoad(const BinLogHeader& /*binLogHeader*/,
                                            const ByteReader& payload, LogDetails& log,
                                            unsigned int payloadOffset) {
    unsigned int offset = payloadOffset;
    decodeGroups(*this, payload, log, offset, log.decodedValues, false);
    return 0;
}

template <typename T>
void BinaryLogXmlReader::convertType(const std::string& displayFormat, T value,
                                     const std::string& name, std::string& text,
                                     std::map<std::string, std::string>& values) {
    formatIntValue(displayFormatter, displayFormat, value, text);
    values[name] = text;
}

template <typename ParamT>
int BinaryLogXmlReader::decodeIntParams(const ByteReader& payload, std::vector<ParamT>& params,
                                        unsigned int& payloadOffset,
                                        std::map<std::string, std::string>& decodedValues) {
    using T = decltype(ParamT::value);
    for (ParamT& param : params) {
        if (param.length == 0) {
            param.value = detail::readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += sizeof(T);
            convertType<T>(param.displayFormat, param.value, param.name, param.displayValue,
                           decodedValues);
            continue;
        }
        // An array: "[name[0]=..,name[1]=..]". The element text is shared by
        // the whole array; `value` ends up holding the last element read and
        // `displayValue` is left alone.
        const std::uint32_t count = param.length;
        const std::uint32_t rendered =
            count < detail::kMaxRenderedElements ? count : detail::kMaxRenderedElements;
        std::string text = "[";
        std::string element;
        for (std::uint32_t i = 0; i < rendered; ++i) {
            param.value = detail::readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += sizeof(T);
            formatIntValue(displayFormatter, param.displayFormat, param.value, element);
            detail::appendLabel(text, param.name, i);
            text += element;
            if (i + 1 < count) {
                text += ',';
            }
        }
        if (rendered < count) {
            // Everything past here lies beyond any record and reads as zero.
            payloadOffset += static_cast<unsigned int>((count - rendered) * sizeof(T) - sizeof(T));
            param.value = detail::readLittleEndian<T>(payload, payloadOffset);
            payloadOffset += sizeof(T);
            text += "...";
        }
        text += ']';
        decodedValues[param.name] = text;
    }
    return 0;
}

#define WEXBL_INSTANTIATE_INT_DECODER(T)                                        \
    template WEXBL_API void BinaryLogXmlReader::convertType<T>(                 \
        const std::string&, T, const std::string&, std::string&,                \
        std::map<std::string, std::string>&);                                   \
    template WEXBL_API int BinaryLogXmlReader::decodeIntParams<TavLogParam<T>>( \
        const ByteReader&, std::vector<TavLogParam<T>>&, unsigned int&,         \
        std::map<std::string, std::string>&);

WEXBL_INSTANTIATE_INT_DECODER(std::uint64_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int64_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint32_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int32_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint16_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int16_t)
WEXBL_INSTANTIATE_INT_DECODER(std::uint8_t)
WEXBL_INSTANTIATE_INT_DECODER(std::int8_t)

#undef WEXBL_INSTANTIATE_INT_DECODER

int BinaryLogXmlReader::decodeStringParams(const ByteReader& payload,
                                           std::vector<TavLogParam<std::string>>& params,
                                           unsigned int& payloadOffset,
                                           std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        // The text up to its first NUL; bytes past the record read as NULs.
        const std::size_t have = payload.available(payloadOffset);
        const std::size_t span = param.length < have ? param.length : have;
        const char* at = reinterpret_cast<const char*>(payload.data()) + payloadOffset;
        const void* nul = span != 0 ? std::memchr(at, '\0', span) : nullptr;
        param.value.assign(
            span != 0 ? at : "",
            nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - at) : span);
        param.displayValue = param.value;
        payloadOffset += param.length;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

int BinaryLogXmlReader::decodeBinaryStringParams(
    const ByteReader& payload, std::vector<TavLogParam<std::string>>& params,
    unsigned int& payloadOffset, std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        detail::appendHexBytes(param.displayValue, payload, payloadOffset, param.length);
        param.value = param.displayValue;
        payloadOffset += param.length;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

int BinaryLogXmlReader::decodeVarBinaryStringParam(
    const ByteReader& payload, std::vector<TavLogParam<std::string>>& params,
    unsigned int& payloadOffset, std::map<std::string, std::string>& decodedValues) {
    for (TavLogParam<std::string>& param : params) {
        std::uint16_t count = payload.get_u16le(payloadOffset);
        payloadOffset += 2;
        if (count > param.length) {
            fprintf(stderr, "Variable length:%d in payload is greater thanthe definition %d\n",
                    static_cast<int>(count), static_cast<int>(param.length));
            count = static_cast<std::uint16_t>(param.length);
        }
        param.displayValue += "payload size:";
        detail::appendDecimal(param.displayValue, static_cast<unsigned int>(count));
        param.displayValue += ' ';
        detail::appendHexBytes(param.displayValue, payload, payloadOffset,
                               count < maxVarBinaryBytes ? count : maxVarBinaryBytes);
        // The capped count: bytes the payload's own count still covers are
        // read as the following parameters.
        payloadOffset += count;
        param.value = param.displayValue;
        decodedValues[param.name] = param.displayValue;
    }
    return 0;
}

//  0      4                        24         28             42             56
//  +------+------------------------+----------+--------------+--------------+
//  |frame | five u32 values        | four u8  | text (14)    | text (14)    |
//  +------+------------------------+----------+--------------+--------------+
int BinaryLogXmlReader::decodeLegacyLogPayLoad(const BinLogHeader& /*binLogHeader*/,
                                               const ByteReader& payload, LogDetails& log) {
    log.frameTiming = payload.get_u32le(0);
    for (std::size_t i = 0; i < 5 && i < log.uint32Params.size(); ++i) {
        log.uint32Params[i].value = payload.get_u32le(4 + 4 * i);
    }
    for (std::size_t i = 0; i < 4 && i < log.uint8Params.size(); ++i) {
        log.uint8Params[i].value = payload.get_u8(24 + i);
    }
    for (std::size_t i = 0; i < 2 && i < log.stringParams.size(); ++i) {
        char text[14];
        payload.copy(28 + 14 * i, text, sizeof text);
        log.stringParams[i].value.assign(text, strnlen(text, sizeof text));
    }
    return 0;
}

//  0                16                               storageLength - 16
//  +----------------+--------------------------------+
//  | tag (16 bytes) | message text                   |
//  +----------------+--------------------------------+
int BinaryLogXmlReader::decodeSyslogPayLoad(const PcapRecHeader& pcapHeader,
                                            const BinLogHeader& /*binLogHeader*/,
                                            const ByteReader& payload, std::string& syslogTag,
                                            std::string& syslogMessage) {
    constexpr std::uint32_t kHeaderBytes = 32;  // BinLogHeader and tag
    if (pcapHeader.storageLength < kHeaderBytes) {
        fprintf(stderr,
                "Syslog record skipped: storageLength %u is shorter than its %u header bytes\n",
                pcapHeader.storageLength, kHeaderBytes);
        return -1;
    }
    char tag[16];
    payload.copy(0, tag, sizeof tag);
    syslogTag.assign(tag, sizeof tag);
    // The message never takes more than the record really holds.
    const std::size_t declared = pcapHeader.storageLength - kHeaderBytes;
    const std::size_t have = payload.available(16);
    const std::size_t take = declared < have ? declared : have;
    if (take == 0) {
        syslogMessage.clear();
    } else {
        syslogMessage.assign(reinterpret_cast<const char*>(payload.data()) + 16, take);
    }
    return 0;
}

// ---- Rendering from copies ----------------------------------------------------------------

void BinaryLogXmlReader::outputTimeStamp(std::string& out, void* seconds, void* microseconds) {
    if (seconds == nullptr || microseconds == nullptr) {
        return;
    }
    std::uint32_t shown;
    std::int32_t usec;
    std::memcpy(&shown, seconds, sizeof shown);
    std::memcpy(&usec, microseconds, sizeof usec);
    detail::TextBuilder text;
    if (!detail::appendTimeText(text, core_->time, shown, usec)) {
        fprintf(stderr, "timestamp decoding failed\n");
        return;
    }
    out.assign(text.data(), text.size());
}

void BinaryLogXmlReader::computeDisplayDataForLog(const PcapRecHeader& /*pcapHeader*/,
                                                  const BinLogHeader& /*binLogHeader*/,
                                                  const ModuleDetails& module,
                                                  const LogDetails& log,
                                                  std::string& moduleHeaderText,
                                                  std::string& messageText) {
    if (module.hasModuleHeader) {
        appendParamList(moduleHeaderText, module.paramOrder, module.decodedValues);
    }
    const std::string& text = log.logString;
    if (text.find('{') == std::string::npos || text.find('}') == std::string::npos) {
        // No placeholders: the text, a blank and the parameter list.
        messageText = text;
        messageText += ' ';
        appendParamList(messageText, log.paramOrder, log.decodedValues);
        return;
    }
    messageText.clear();
    detail::PlaceholderScratch scratch;
    detail::substitutePlaceholders(messageText, text, mapLookup(log.decodedValues),
                                   longestKey(log.decodedValues), scratch);
}

int BinaryLogXmlReader::displayBinLog(const PcapRecHeader& pcapHeader,
                                      const BinLogHeader& binLogHeader, FILE* out,
                                      int utcOffsetMinutes, const ModuleDetails& module,
                                      const LogDetails& log) {
    const std::string timeText = timeTextOf(*this, pcapHeader, utcOffsetMinutes);
    std::string moduleHeaderText;
    std::string messageText;
    computeDisplayDataForLog(pcapHeader, binLogHeader, module, log, moduleHeaderText, messageText);
    std::string line = "[" + timeText + "] [";
    detail::appendPadded(line, detail::printed(module.subsystemName + ":" + module.moduleName), 10);
    line += "] [";
    detail::appendPadded(line, detail::printed(log.logName), 25);
    line += "] [";
    detail::appendPadded(line, detail::printed(logLevelNames[binLogHeader.logLevel]), 8);
    line += "] [";
    detail::appendPadded(line, detail::printed(log.category), 10);
    line += "] [";
    detail::appendDecimal(line, binLogHeader.seqNo);
    line += "] [";
    if (!moduleHeaderText.empty()) {
        line += detail::printed(moduleHeaderText);
        line += "] [";
    }
    line += detail::printed(messageText);
    line += "] \n";
    fwrite(line.data(), 1, line.size(), out);
    return 0;
}

void BinaryLogXmlReader::formatLegacyLogDetails(ModuleDetails& module, LogDetails& log,
                                                const PcapRecHeader& pcapHeader,
                                                const BinLogHeader& binLogHeader, FILE* out,
                                                int utcOffsetMinutes) {
    const std::string timeText = timeTextOf(*this, pcapHeader, utcOffsetMinutes);
    const std::string source = module.subsystemName + ":" + module.moduleName;
    const std::string& level = logLevelNames[binLogHeader.logLevel];
    fprintf(out, "[%s] [%10s] [%25s] [%8s] [%10s] [%u] [%04u-%02u] ", timeText.c_str(),
            source.c_str(), log.logName.c_str(), level.c_str(), log.category.c_str(),
            binLogHeader.seqNo, (log.frameTiming / 10) & 0x3FFu, log.frameTiming % 10);

    // One string parameter is the tag; with two, the second is a trailer.
    const std::vector<TavLogParam<std::string>> strings = log.stringParams;
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
    const std::string timeText = timeTextOf(*this, pcapHeader, utcOffsetMinutes);
    // Keep the record on one output line.
    replaceString(syslogMessage, "\n", "\\n");
    const std::string& level = logLevelNames[binLogHeader.logLevel];
    fprintf(out, "[%s] [syslog] [%16s] [%8s] [%u] [%s]\n", timeText.c_str(), syslogTag.c_str(),
            level.c_str(), binLogHeader.seqNo, syslogMessage.c_str());
}

void BinaryLogXmlReader::formatPcapCapturePayLoad(const PcapRecHeader& pcapHeader,
                                                  const BinLogHeader& binLogHeader, FILE* out,
                                                  int utcOffsetMinutes) {
    const std::string timeText = timeTextOf(*this, pcapHeader, utcOffsetMinutes);
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
