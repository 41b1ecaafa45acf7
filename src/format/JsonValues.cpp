// The values of a binary log record as JSON, written straight from its
// payload by the plan that rendered its line: no decoded tables, no fields,
// no texts kept in between. What it writes is what the formats write from
// the record's fields (Record::header(), Record::params()): the same values,
// read by the same rules, shown by the same routines as the line.
#include <cstring>

#include "format/Json.h"
#include "records/Decoder.h"
#include "records/Values.h"

namespace Tav {
namespace detail {

namespace {

/// The hex digits of `count` bytes at `offset` (bytes past the payload are
/// zeros), as a JSON string.
void writeHexValue(Sink& out, const ByteReader& payload, std::uint32_t offset,
                   std::uint32_t count) {
    static const char kDigits[] = "0123456789abcdef";
    char* at = out.room(2 * static_cast<std::size_t>(count) + 2);
    *at++ = '"';
    const std::size_t have = payload.available(offset);
    const unsigned char* from = have != 0 ? payload.data() + offset : nullptr;
    for (std::uint32_t i = 0; i < count; ++i) {
        const unsigned char byte = i < have ? from[i] : 0;
        at[0] = kDigits[byte >> 4];
        at[1] = kDigits[byte & 0x0F];
        at += 2;
    }
    *at = '"';
    out.advance(2 * static_cast<std::size_t>(count) + 2);
}

/// `,"text":` and a copy of the `size` characters written at `start`.
void repeatAsText(Sink& out, std::size_t start, std::size_t size) {
    appendLiteral(out, ",\"text\":");
    char* const to = out.room(size);
    std::memcpy(to, out.at(start), size);
    out.advance(size);
}

/// The start of a field: its plan's constant head, without the comma for
/// the first field of the table.
std::string_view headOf(const ParamPlan& param, bool& first) {
    const std::string_view head = std::string_view(param.jsonHead).substr(first ? 1 : 0);
    first = false;
    return head;
}

/// An integer field from `head` on (what comes before its value): its
/// value, its text as the line shows it, and the enumeration that gave the
/// text. `previous` is the text of the last element of the array whose
/// enumeration knew its value.
template <typename T>
void writeOtherInt(Sink& out, std::string_view head, const ParamPlan& param, T value,
                   const std::string*& previous, bool texts);

template <typename T>
inline void writeInt(Sink& out, std::string_view head, const ParamPlan& param,
                     const ByteReader& payload, std::uint32_t offset, const std::string*& previous,
                     bool texts) {
    const T value = readLittleEndian<T>(payload, offset);
    std::uint64_t magnitude;
    bool negative;
    signAndMagnitude(value, negative, magnitude);
    if (magnitude <= kMaxSafeInteger && param.display == DisplayKind::Decimal) {
        const std::size_t length = decimalDigits(magnitude) + (negative ? 1u : 0u);
        // The most frequent field: the decimal text is the value's digits,
        // and the whole rest of the field is written in one piece.
        char* const field = out.room(head.size() + 2 * length + 11);
        copyPiece(field, head);
        char* const at = field + head.size();
        writeDigitsBackwards(at + length, magnitude);
        if (negative) {
            at[0] = '-';
        }
        char* to = at + length;
        if (texts) {
            std::memcpy(to, ",\"text\":\"", 9);
            to += 9;
            for (std::size_t i = 0; i < length; ++i) {
                to[i] = at[i];
            }
            to += length;
            *to++ = '"';
        }
        *to++ = '}';
        out.advance(static_cast<std::size_t>(to - field));
        return;
    }
    writeOtherInt(out, head, param, value, previous, texts);
}

/// The other integer fields: enumerated, in hex, frame stamps, and values
/// too wide for a JSON number.
template <typename T>
__attribute__((noinline)) void writeOtherInt(Sink& out, std::string_view head,
                                             const ParamPlan& param, T value,
                                             const std::string*& previous, bool texts) {
    std::uint64_t magnitude;
    bool negative;
    signAndMagnitude(value, negative, magnitude);
    // The value: a number while a double holds it exactly, else a string.
    const bool safe = magnitude <= kMaxSafeInteger;
    const std::size_t length = decimalDigits(magnitude) + (negative ? 1u : 0u);
    appendPiece(out, head);
    const std::size_t start = out.size();
    {
        const std::size_t quoted = length + (safe ? 0u : 2u);
        char* const at = out.room(quoted);
        char* end = at + quoted;
        if (!safe) {
            *at = '"';
            *--end = '"';
        }
        writeDigitsBackwards(end, magnitude);
        if (negative) {
            at[safe ? 0 : 1] = '-';
        }
        out.advance(quoted);
    }
    const std::size_t valueLength = out.size() - start;
    const std::string* enumText = nullptr;
    if (param.display == DisplayKind::Enum) {
        enumText = param.enumTable->find(negative, magnitude);
        if (enumText != nullptr) {
            previous = enumText;
        }
    }
    if (texts) {
        switch (param.display) {
            case DisplayKind::Enum:
                appendLiteral(out, ",\"text\":");
                appendJsonString(
                    out, previous != nullptr ? std::string_view(*previous) : std::string_view());
                break;
            case DisplayKind::Hex:
                appendLiteral(out, ",\"text\":\"");
                appendHex(out, value);
                out.push_back('"');
                break;
            case DisplayKind::FrameStamp:
                appendLiteral(out, ",\"text\":\"");
                appendFrameStamp(out, static_cast<std::uint32_t>(value));
                out.push_back('"');
                break;
            default:
                // A decimal text too wide for a number: the string of the value.
                repeatAsText(out, start, valueLength);
                break;
        }
    }
    if (enumText != nullptr) {
        appendPiece(out, param.jsonEnum);
    }
    out.push_back('}');
}

template <typename T>
void writeInts(Sink& out, const ParamPlan& param, const ByteReader& payload, bool texts,
               bool& first) {
    const std::string* previous = nullptr;
    if (param.length == 0) {
        writeInt<T>(out, headOf(param, first), param, payload, param.offset, previous, texts);
        return;
    }
    const std::string_view typeKeys = jsonTypeAndValueKeys(param.type);
    std::uint32_t offset = param.offset;
    for (std::uint32_t i = 0; i < param.fieldCount; ++i) {
        appendPiece(out, headOf(param, first));
        appendUnsigned(out, i);
        writeInt<T>(out, typeKeys, param, payload, offset, previous, texts);
        offset += static_cast<std::uint32_t>(sizeof(T));
    }
}

}  // namespace

const LogPlan* RecordDecoder::directValues(const Record& record) const {
    if (&record != &record_ || record_.kind != RecordKind::BinLog || valuesPlan_ == nullptr ||
        !valuesPlan_->direct || !settings_.fields) {
        return nullptr;
    }
    return valuesPlan_;
}

void RecordDecoder::appendJsonTable(Sink& out, const TablePlan& plan, bool texts) const {
    const ByteReader& payload = valuesPayload_;
    out.push_back('[');
    bool first = true;
    for (const std::uint32_t index : plan.fieldOrder) {
        const ParamPlan& param = plan.params[index];
        if (withIntegerType(param.type, [&](auto zero) {
                writeInts<decltype(zero)>(out, param, payload, texts, first);
            })) {
            continue;
        }
        appendPiece(out, headOf(param, first));
        switch (param.type) {
            case ParamType::String: {
                const std::string_view text = payloadString(payload, param.offset, param.length);
                const std::size_t start = out.size();
                appendJsonString(out, text);
                if (texts) {
                    repeatAsText(out, start, out.size() - start);
                }
                break;
            }
            case ParamType::BinaryString: {
                const std::uint32_t kept =
                    param.length < kMaxRenderedElements ? param.length : kMaxRenderedElements;
                writeHexValue(out, payload, param.offset, kept);
                if (texts) {
                    appendLiteral(out, ",\"text\":\"");
                    appendHexBytes(out, payload, param.offset, param.length);
                    out.push_back('"');
                }
                break;
            }
            default: {  // a var binary string
                const VarBinary& var =
                    varBinaries_[index - static_cast<std::size_t>(plan.firstVarBinary)];
                const std::uint32_t kept =
                    var.count < kMaxRenderedElements ? var.count : kMaxRenderedElements;
                writeHexValue(out, payload, var.offset, kept);
                if (texts) {
                    appendLiteral(out, ",\"text\":\"payload size:");
                    appendUnsigned(out, var.count);
                    out.push_back(' ');
                    appendHexBytes(out, payload, var.offset,
                                   var.count < settings_.maxVarBinaryBytes
                                       ? var.count
                                       : settings_.maxVarBinaryBytes);
                    out.push_back('"');
                }
                break;
            }
        }
        out.push_back('}');
    }
    out.push_back(']');
}

void RecordDecoder::appendJsonValues(Sink& out, bool texts) const {
    const LogPlan& plan = *valuesPlan_;
    appendLiteral(out, ",\"header\":");
    if (plan.module->hasHeader) {
        appendJsonTable(out, plan.module->header, texts);
    } else {
        appendLiteral(out, "[]");
    }
    appendLiteral(out, ",\"params\":");
    appendJsonTable(out, plan.params, texts);
}

}  // namespace detail
}  // namespace Tav
