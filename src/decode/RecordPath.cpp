// The dispatcher's path for binary log records.
//
// It prints exactly what copying the module and log descriptions, decoding
// them step by step (decodeModuleHeaderFromPayLoad, decodeBinLogPayLoad) and
// calling displayBinLog prints, but reads the declarations straight from the
// dictionary and decodes into buffers that live from record to record: no
// copies of the descriptions, no maps, no allocation once the buffers have
// grown. The decoded texts of one table are kept in decode order; a name's
// value is the last text decoded under it, as in a decodedValues map.
#include <cstdio>
#include <cstring>

#include "BinaryLogXmlReader.h"
#include "decode/ValueText.h"
#include "render/LineText.h"

namespace Tav {

namespace detail {

std::string& DecodedTexts::add(const std::string& name) {
    if (count == entries.size()) {
        entries.emplace_back();
    }
    DecodedText& entry = entries[count++];
    entry.name = &name;
    entry.text.clear();
    return entry.text;
}

const std::string* DecodedTexts::find(const char* name, std::size_t size) const {
    for (std::size_t i = count; i-- > 0;) {
        const std::string& candidate = *entries[i].name;
        // Most names differ in length or in their first character.
        if (candidate.size() == size && (size == 0 || candidate[0] == name[0]) &&
            std::memcmp(candidate.data(), name, size) == 0) {
            return &entries[i].text;
        }
    }
    return nullptr;
}

}  // namespace detail

namespace {

template <typename T>
void decodeIntList(const BinaryLogDisplayFormatter& formatter,
                   const std::vector<TavLogParam<T>>& params, const ByteReader& payload,
                   unsigned int& offset, detail::DecodedTexts& texts,
                   detail::RecordScratch& scratch) {
    for (const TavLogParam<T>& param : params) {
        std::string& text = texts.add(param.name);
        if (param.length == 0) {
            const T value = detail::readLittleEndian<T>(payload, offset);
            offset += sizeof(T);
            // An enumeration that lacks the value leaves the text as it was:
            // empty, as a fresh copy's displayValue.
            detail::formatIntValue(formatter, param.displayFormat, value, text, scratch.decimal);
        } else {
            detail::appendIntArray(formatter, param, payload, offset, text, scratch.element,
                                   scratch.decimal);
        }
    }
}

/// The fixed-size groups, in the order their bytes follow each other.
void decodeFixedGroups(const BinaryLogDisplayFormatter& formatter, const FlexiParams& params,
                       const ByteReader& payload, unsigned int& offset, detail::DecodedTexts& texts,
                       detail::RecordScratch& scratch) {
    decodeIntList(formatter, params.uint64Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.int64Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.uint32Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.int32Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.uint16Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.int16Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.uint8Params, payload, offset, texts, scratch);
    decodeIntList(formatter, params.int8Params, payload, offset, texts, scratch);
    for (const TavLogParam<std::string>& param : params.stringParams) {
        detail::decodeStringText(payload, offset, param.length, texts.add(param.name));
        offset += param.length;
    }
    for (const TavLogParam<std::string>& param : params.binaryStringParams) {
        detail::appendHexBytes(texts.add(param.name), payload, offset, param.length);
        offset += param.length;
    }
}

/// Texts are printed up to their first NUL: cuts the line there, if the part
/// from `start` on holds one.
void cutAtNul(detail::TextBuilder& line, std::size_t start) {
    const void* nul = std::memchr(line.data() + start, '\0', line.size() - start);
    if (nul != nullptr) {
        line.truncate(static_cast<std::size_t>(static_cast<const char*>(nul) - line.data()));
    }
}

auto textsLookup(const detail::DecodedTexts& texts) {
    return [&texts](const char* name, std::size_t size) { return texts.find(name, size); };
}

bool hasBrace(std::string_view text) {
    for (const char c : text) {
        if (c == '{' || c == '}') {
            return true;
        }
    }
    return false;
}

/// Appends `logString` with its placeholders substituted, as
/// substitutePlaceholders does, in one pass from left to right: as long as
/// neither the keys nor their texts hold a brace and every "}" follows its
/// "{", everything before the current position is brace-free and a restart
/// from the beginning would find the next placeholder right there. Otherwise
/// the text built so far goes through the general loop.
void appendSubstituted(detail::TextBuilder& line, std::size_t messageStart,
                       const std::string& logString, const detail::DecodedTexts& texts,
                       detail::RecordScratch& scratch) {
    const std::string_view text(logString);
    std::size_t position = 0;
    for (int substitutions = 0;; ++substitutions) {
        const std::size_t open = text.find('{', position);
        const std::size_t close = text.find('}', position);
        if (open == std::string_view::npos || close == std::string_view::npos ||
            substitutions == detail::kMaxSubstitutions) {
            break;
        }
        const std::size_t keyLength = close > open ? close - open - 1 : text.size() - open - 1;
        const std::string_view key = text.substr(open + 1, keyLength);
        const std::string* value = texts.find(key.data(), key.size());
        if (value == nullptr) {
            break;
        }
        if (close < open || hasBrace(key) || hasBrace(*value)) {
            std::string& message = scratch.messageText;
            message.assign(line.data() + messageStart, line.size() - messageStart);
            message.append(text.substr(position));
            detail::substitutePlaceholders(message, textsLookup(texts), scratch.work,
                                           detail::kMaxSubstitutions - substitutions);
            line.truncate(messageStart);
            line.append(message.data(), message.size());
            return;
        }
        line.append(text.data() + position, open - position);
        line.append(key.data(), key.size());
        line.push_back('=');
        line.append(value->data(), value->size());
        position = close + 1;
    }
    line.append(text.data() + position, text.size() - position);
}

}  // namespace

void BinaryLogXmlReader::renderBinLogRecord(const PcapRecHeader& pcapHeader,
                                            const BinLogHeader& binLogHeader,
                                            const ByteReader& payload, FILE* out,
                                            int utcOffsetMinutes, const ModuleDetails& module,
                                            const LogDetails& log) {
    detail::RecordScratch& s = scratch;
    s.moduleTexts.clear();
    s.logTexts.clear();

    unsigned int offset = 0;
    if (module.hasModuleHeader) {
        decodeFixedGroups(displayFormatter, module, payload, offset, s.moduleTexts, s);
        offset += module.headerPadding;
    }
    decodeFixedGroups(displayFormatter, log, payload, offset, s.logTexts, s);
    for (const TavLogParam<std::string>& param : log.varBinaryStringParams) {
        detail::appendVarBinary(payload, offset, param.length, maxVarBinaryBytes,
                                s.logTexts.add(param.name));
    }

    s.timeText.clear();
    if (!detail::appendTimeText(s.timeText, s.time,
                                detail::shownSeconds(pcapHeader, utcOffsetMinutes),
                                static_cast<std::int32_t>(pcapHeader.tsUsec))) {
        fprintf(stderr, "timestamp decoding failed\n");
    }
    detail::TextBuilder& line = s.line;
    line.clear();
    detail::appendBinLogLineStart(line, s.timeText, module, log,
                                  logLevelNames[binLogHeader.logLevel], binLogHeader.seqNo);
    // The module header text goes straight into the line; its field is
    // dropped again when no value was found.
    if (module.hasModuleHeader) {
        const std::size_t start = line.size();
        detail::appendParamList(line, module.paramOrder, textsLookup(s.moduleTexts));
        if (line.size() != start) {
            cutAtNul(line, start);
            detail::appendLiteral(line, "] [");
        }
    }
    const std::size_t messageStart = line.size();
    const std::string& logString = log.logString;
    if (logString.find('{') == std::string::npos || logString.find('}') == std::string::npos) {
        // No placeholders: the text, a blank and the parameter list.
        line.append(logString.data(), logString.size());
        line.push_back(' ');
        detail::appendParamList(line, log.paramOrder, textsLookup(s.logTexts));
    } else {
        appendSubstituted(line, messageStart, logString, s.logTexts, s);
    }
    cutAtNul(line, messageStart);
    detail::appendLiteral(line, "] \n");
    fwrite(s.line.data(), 1, s.line.size(), out);
}

}  // namespace Tav
