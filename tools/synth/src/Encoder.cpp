// Payload encoding and random parameter values.
#include "binlog_synth/Encoder.h"

#include <cstdio>

#include "binlog_synth/Text.h"

namespace binlog_synth {

namespace {

std::uint64_t maskOf(FieldKind kind) {
    const std::size_t width = elementSize(kind) * 8;
    return width >= 64 ? UINT64_MAX : ((std::uint64_t{1} << width) - 1);
}

std::vector<std::string> splitCommas(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = text.find(',', start);
        parts.push_back(
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) {
            return parts;
        }
        start = comma + 1;
    }
}

/// The value an enumeration names `text`.
bool lookupEnumName(const Field& field, const std::string& text, const Displays* displays,
                    std::uint64_t& bits) {
    if (displays == nullptr || field.enumValues.empty()) {
        return false;
    }
    const auto table = displays->enums.find(field.displayFormat);
    if (table == displays->enums.end()) {
        return false;
    }
    const std::vector<std::uint64_t> usable =
        enumValuesFor(displays, field.displayFormat, field.kind);
    for (const auto& entry : table->second) {
        if (entry.second != text) {
            continue;
        }
        std::uint64_t v = 0;
        if (parseIntegerBits(entry.first, static_cast<unsigned>(elementSize(field.kind)), v)) {
            for (const std::uint64_t u : usable) {
                if (u == v) {
                    bits = v;
                    return true;
                }
            }
        }
    }
    return false;
}

std::uint64_t randomInteger(const Field& field, SplitMix64& rng,
                            const RandomValueOptions& options) {
    const std::uint64_t mask = maskOf(field.kind);
    if (!field.enumValues.empty() && rng.chance(options.enumHitPercent, 100)) {
        return field.enumValues[rng.below(static_cast<std::uint32_t>(field.enumValues.size()))];
    }
    if (field.kind == FieldKind::U32 && field.displayFormat == kFormatSfSfn) {
        return static_cast<std::uint64_t>(rng.below(1024)) * 10 + rng.below(10);
    }
    if (field.displayFormat == kFormatHex) {
        return rng.next() & mask;
    }
    std::uint64_t magnitude = 0;
    const std::uint32_t pick = rng.below(100);
    if (pick < 40) {
        magnitude = rng.below(10);
    } else if (pick < 70) {
        magnitude = rng.below(1000);
    } else if (pick < 90) {
        magnitude = rng.below(65536);
    } else {
        return rng.next() & mask;
    }
    if (isSignedKind(field.kind) && rng.chance(1, 4)) {
        magnitude = ~magnitude + 1;  // negative
    }
    return magnitude & mask;
}

void appendRandomText(std::string& out, std::size_t n, SplitMix64& rng) {
    static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (std::size_t i = 0; i < n; ++i) {
        out.push_back(kAlphabet[rng.below(sizeof kAlphabet - 1)]);
    }
}

void appendRandomBytes(std::string& out, std::size_t n, SplitMix64& rng) {
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (i % 8 == 0) {
            word = rng.next();
        }
        out.push_back(static_cast<char>(word & 0xFF));
        word >>= 8;
    }
}

std::size_t randomTextLength(const Field& field, SplitMix64& rng) {
    const std::uint32_t most = field.length < 12 ? field.length : 12;
    return most == 0 ? 0 : rng.between(1, most);
}

std::size_t randomVarLength(const Field& field, SplitMix64& rng,
                            const RandomValueOptions& options) {
    std::uint32_t most =
        field.length < options.maxVarBinaryBytes ? field.length : options.maxVarBinaryBytes;
    if (most > 0xFFFF) {
        most = 0xFFFF;
    }
    return rng.below(most + 1);
}

/// "FFFF-SS" as the decoder shows the SF-SFN value `bits`.
std::string shownFrameStamp(std::uint64_t bits) {
    char text[32];
    snprintf(text, sizeof text, "%04u-%02u", static_cast<unsigned>((bits / 10) & 0x3FF),
             static_cast<unsigned>(bits % 10));
    return text;
}

std::string hexOf(std::uint64_t bits) {
    char text[32];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(bits));
    return text;
}

}  // namespace

bool parseSfSfn(const std::string& text, std::uint64_t& bits, std::string& reason) {
    reason.clear();
    if (text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        return parseIntegerBits(text, 4, bits);
    }
    if (!text.empty() && text[0] == '-') {
        reason = "a frame stamp is not negative";
        return false;
    }
    const std::size_t dash = text.find('-');
    std::uint64_t frame = 0, subframe = 0, value = 0;
    if (dash != std::string::npos) {
        if (!parseUnsigned(text.substr(0, dash), 0xFFFFFFFFULL, frame) ||
            !parseUnsigned(text.substr(dash + 1), 0xFFFFFFFFULL, subframe) ||
            text.find_first_of("xX") != std::string::npos) {
            return false;
        }
        if (subframe > kLargestSubframe) {
            reason = "subframe " + std::to_string(subframe) + " is above " +
                     std::to_string(kLargestSubframe);
            return false;
        }
        value = frame * 10 + subframe;
    } else {
        if (!parseUnsigned(text, 0xFFFFFFFFULL, value)) {
            return false;
        }
        frame = value / 10;
    }
    if (frame > kLargestFrame) {
        reason = dash != std::string::npos ? "frame " + std::to_string(frame) + " is above " +
                                                 std::to_string(kLargestFrame)
                                           : text + " is frame " + std::to_string(frame) +
                                                 ", above " + std::to_string(kLargestFrame);
        if (value <= 0xFFFFFFFFULL) {
            reason += " (it would show as " + shownFrameStamp(value) + "; write " + hexOf(value) +
                      " to store it anyway)";
        }
        return false;
    }
    bits = value;
    return true;
}

bool parseFieldValue(const Field& field, const std::string& text, const Displays* displays,
                     ParamValue& value, std::string& error) {
    value = ParamValue();
    const std::string what = std::string(kindName(field.kind)) + " parameter " + field.name;
    if (isIntegerKind(field.kind)) {
        const std::vector<std::string> parts = splitCommas(text);
        if (parts.size() != field.elements()) {
            error = what +
                    (field.length == 0
                         ? " takes one value"
                         : " takes " + std::to_string(field.length) + " comma-separated values") +
                    ", got " + std::to_string(parts.size());
            return false;
        }
        for (const std::string& part : parts) {
            std::uint64_t bits = 0;
            if (field.kind == FieldKind::U32 && field.displayFormat == kFormatSfSfn) {
                std::string reason;
                if (!parseSfSfn(part, bits, reason)) {
                    error = "bad value \"" + part + "\" for " + what +
                            (reason.empty() ? std::string(kSfSfnForms) : ": " + reason);
                    return false;
                }
                value.ints.push_back(bits);
                continue;
            }
            const bool ok =
                parseIntegerBits(part, static_cast<unsigned>(elementSize(field.kind)), bits) ||
                lookupEnumName(field, part, displays, bits);
            if (!ok) {
                error = "bad value \"" + part + "\" for " + what;
                if (!field.enumValues.empty()) {
                    error += " (a number or a name of enumeration " + field.displayFormat + ")";
                }
                return false;
            }
            value.ints.push_back(bits);
        }
        return true;
    }
    switch (field.kind) {
        case FieldKind::String:
            if (text.size() > field.length) {
                error = what + " holds at most " + std::to_string(field.length) + " bytes, got " +
                        std::to_string(text.size());
                return false;
            }
            value.bytes = text;
            return true;
        case FieldKind::BinaryString:
            if (!parseHexBytes(text, value.bytes)) {
                error = "bad hex bytes \"" + text + "\" for " + what;
                return false;
            }
            if (value.bytes.size() > field.length) {
                error = what + " holds " + std::to_string(field.length) + " bytes, got " +
                        std::to_string(value.bytes.size());
                return false;
            }
            return true;
        case FieldKind::VarBinaryString: {
            const std::size_t hash = text.find('#');
            std::string hex = text;
            if (hash != std::string::npos) {
                std::uint64_t count = 0;
                if (!parseUnsigned(text.substr(0, hash), 0xFFFF, count)) {
                    error = "bad byte count in \"" + text + "\" for " + what +
                            " (COUNT#HEX, COUNT at most 65535)";
                    return false;
                }
                value.countOverride = true;
                value.count = static_cast<std::uint16_t>(count);
                hex = text.substr(hash + 1);
            }
            if (!parseHexBytes(hex, value.bytes)) {
                error = "bad hex bytes \"" + hex + "\" for " + what;
                return false;
            }
            if (!value.countOverride && value.bytes.size() > field.length) {
                error = what + " holds at most " + std::to_string(field.length) + " bytes, got " +
                        std::to_string(value.bytes.size()) + " (write COUNT#HEX to force a count)";
                return false;
            }
            if (value.bytes.size() > 0xFFFF) {
                error = what + " cannot carry more than 65535 bytes";
                return false;
            }
            return true;
        }
        default:
            error = "padding takes no value";
            return false;
    }
}

void encodeField(const Field& field, const ParamValue* value, ByteBuffer& out) {
    if (isIntegerKind(field.kind)) {
        const std::size_t width = elementSize(field.kind);
        const std::uint64_t n = field.elements();
        for (std::uint64_t i = 0; i < n; ++i) {
            const std::uint64_t v = value != nullptr && i < value->ints.size()
                                        ? value->ints[static_cast<std::size_t>(i)]
                                        : 0;
            out.uintN(v, width);
        }
        return;
    }
    static const std::string kEmpty;
    const std::string& bytes = value != nullptr ? value->bytes : kEmpty;
    switch (field.kind) {
        case FieldKind::String:
        case FieldKind::BinaryString:
            out.fixed(bytes, field.length);
            break;
        case FieldKind::VarBinaryString:
            out.u16(value != nullptr && value->countOverride
                        ? value->count
                        : static_cast<std::uint16_t>(bytes.size()));
            out.bytes(bytes);
            break;
        case FieldKind::Padding:
            out.zeros(field.length);
            break;
        default:
            break;
    }
}

void encodeBinLogPayload(const LogLayout& layout, const RecordValues& values, ByteBuffer& out) {
    for (const Field& field : layout.fields) {
        const auto& map = field.header ? values.header : values.log;
        const auto found = map.find(field.name);
        encodeField(field, found == map.end() ? nullptr : &found->second, out);
    }
}

void randomValue(const Field& field, SplitMix64& rng, const RandomValueOptions& options,
                 ParamValue& value) {
    value = ParamValue();
    if (isIntegerKind(field.kind)) {
        const std::uint64_t n = field.elements();
        for (std::uint64_t i = 0; i < n; ++i) {
            value.ints.push_back(randomInteger(field, rng, options));
        }
        return;
    }
    switch (field.kind) {
        case FieldKind::String:
            appendRandomText(value.bytes, randomTextLength(field, rng), rng);
            break;
        case FieldKind::BinaryString:
            appendRandomBytes(value.bytes, field.length, rng);
            break;
        case FieldKind::VarBinaryString:
            appendRandomBytes(value.bytes, randomVarLength(field, rng, options), rng);
            break;
        default:
            break;
    }
}

void appendRandomField(const Field& field, SplitMix64& rng, const RandomValueOptions& options,
                       ByteBuffer& out) {
    if (isIntegerKind(field.kind)) {
        const std::size_t width = elementSize(field.kind);
        const std::uint64_t n = field.elements();
        for (std::uint64_t i = 0; i < n; ++i) {
            out.uintN(randomInteger(field, rng, options), width);
        }
        return;
    }
    std::string& s = out.str();
    switch (field.kind) {
        case FieldKind::String: {
            const std::size_t n = randomTextLength(field, rng);
            appendRandomText(s, n, rng);
            s.append(field.length - n, '\0');
            break;
        }
        case FieldKind::BinaryString:
            appendRandomBytes(s, field.length, rng);
            break;
        case FieldKind::VarBinaryString: {
            const std::size_t n = randomVarLength(field, rng, options);
            out.u16(static_cast<std::uint16_t>(n));
            appendRandomBytes(s, n, rng);
            break;
        }
        case FieldKind::Padding:
            out.zeros(field.length);
            break;
        default:
            break;
    }
}

void appendLegacyPayload(ByteBuffer& out, const LegacyValues& values) {
    out.u32(values.frameTiming);
    for (const std::uint32_t v : values.u32) {
        out.u32(v);
    }
    for (const std::uint8_t v : values.u8) {
        out.u8(v);
    }
    out.fixed(values.text[0], kLegacyTextSize);
    out.fixed(values.text[1], kLegacyTextSize);
}

void appendSyslogPayload(ByteBuffer& out, const std::string& tag, const std::string& message) {
    out.fixed(tag, kSyslogTagSize);
    out.bytes(message);
}

}  // namespace binlog_synth
