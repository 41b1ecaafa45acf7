// Binary log records: the module header and the log's parameters decoded by
// their plans into typed values, and the line rendered from those values.
//
//   [time] [subsystem:module] [log name] [level] [category] [seqNo] [header values] [message]
//
// The header values field is there only when the module declares a header
// and some header value was decoded.
//
// Decoding reads every value and reports what a value's display format
// cannot show; rendering formats the values straight into the line. Texts
// are built once more, into the arena, only for streams that want each
// value's text as a field of the record.
#include <cstdio>
#include <cstring>

#include "records/Decoder.h"
#include "records/Values.h"

namespace Tav {
namespace detail {

namespace {

template <typename T>
constexpr ParamType typeOf() {
    if constexpr (std::is_same<T, std::uint64_t>::value) {
        return ParamType::Uint64;
    } else if constexpr (std::is_same<T, std::int64_t>::value) {
        return ParamType::Int64;
    } else if constexpr (std::is_same<T, std::uint32_t>::value) {
        return ParamType::Uint32;
    } else if constexpr (std::is_same<T, std::int32_t>::value) {
        return ParamType::Int32;
    } else if constexpr (std::is_same<T, std::uint16_t>::value) {
        return ParamType::Uint16;
    } else if constexpr (std::is_same<T, std::int16_t>::value) {
        return ParamType::Int16;
    } else if constexpr (std::is_same<T, std::uint8_t>::value) {
        return ParamType::Uint8;
    } else {
        return ParamType::Int8;
    }
}

template <typename T>
std::uint64_t rawOf(T value) {
    if constexpr (std::is_signed<T>::value) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
    } else {
        return static_cast<std::uint64_t>(value);
    }
}

/// The text of one integer value held as `raw`, as its display kind shows
/// it (an enumeration's text is passed in: null shows nothing).
template <typename Out>
void appendIntText(Out& out, ParamType type, DisplayKind display, std::uint64_t raw,
                   const std::string* enumText) {
    switch (display) {
        case DisplayKind::Enum:
            if (enumText != nullptr) {
                out.append(enumText->data(), enumText->size());
            }
            return;
        case DisplayKind::FrameStamp:
            appendFrameStamp(out, static_cast<std::uint32_t>(raw));
            return;
        default:
            break;
    }
    const DisplayKind plain = display == DisplayKind::Hex ? DisplayKind::Hex : DisplayKind::Decimal;
    switch (type) {
        case ParamType::Uint64:
            appendPlainInt(out, plain, raw);
            break;
        case ParamType::Int64:
            appendPlainInt(out, plain, static_cast<std::int64_t>(raw));
            break;
        case ParamType::Uint32:
            appendPlainInt(out, plain, static_cast<std::uint32_t>(raw));
            break;
        case ParamType::Int32:
            appendPlainInt(out, plain, static_cast<std::int32_t>(raw));
            break;
        case ParamType::Uint16:
            appendPlainInt(out, plain, static_cast<std::uint16_t>(raw));
            break;
        case ParamType::Int16:
            appendPlainInt(out, plain, static_cast<std::int16_t>(raw));
            break;
        case ParamType::Uint8:
            appendPlainInt(out, plain, static_cast<std::uint8_t>(raw));
            break;
        default:
            appendPlainInt(out, plain, static_cast<std::int8_t>(raw));
            break;
    }
}

/// Appends `count` bytes as hex, the first `size` from `bytes` and the rest
/// zero, as appendHexBytes does on the payload.
template <typename Out>
void appendStoredHex(Out& out, const char* bytes, std::uint32_t size, std::uint32_t count) {
    const ByteReader reader(reinterpret_cast<const unsigned char*>(bytes), size);
    appendHexBytes(out, reader, 0, count);
}

bool hasBrace(const char* text, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        if (text[i] == '{' || text[i] == '}') {
            return true;
        }
    }
    return false;
}

/// Texts are printed up to their first NUL: cuts the line there, if the part
/// from `start` on holds one.
void cutAtNul(TextBuilder& line, std::size_t start) {
    const void* nul = std::memchr(line.data() + start, '\0', line.size() - start);
    if (nul != nullptr) {
        line.truncate(static_cast<std::size_t>(static_cast<const char*>(nul) - line.data()));
    }
}

}  // namespace

void RecordDecoder::reportDisplay(const ParamPlan& param) {
    Event event;
    if (param.display == DisplayKind::UnknownEnum) {
        event.kind = EventKind::DisplayNotFound;
        event.name = *param.format;
        eventText_ = "Displayformat ";
        eventText_.append(printed(*param.format));
        eventText_ += " not found\n";
        emit(event, eventText_);
    } else {
        event.kind = EventKind::DisplayUnavailable;
        emit(event, "BinaryLogDisplayFormatter not initialized correctly\n");
    }
}

template <typename T>
void RecordDecoder::decodeInts(const ParamPlan& param, const ByteReader& payload,
                               unsigned int& offset, DecodedTable& table, DecodedValue& value) {
    const bool enumerated = param.display == DisplayKind::Enum;
    const bool reported =
        param.display == DisplayKind::UnknownEnum || param.display == DisplayKind::NoEnums;
    auto lookUp = [&param](T v) {
        bool negative;
        std::uint64_t magnitude;
        signAndMagnitude(v, negative, magnitude);
        return param.enumTable->find(negative, magnitude);
    };
    if (param.length == 0) {
        const T v = readLittleEndian<T>(payload, offset);
        offset += sizeof(T);
        value.raw = rawOf(v);
        value.enumText = enumerated ? lookUp(v) : nullptr;
        if (reported) {
            reportDisplay(param);
        }
        return;
    }
    // An array: its elements up to the rendering limit; the declared count
    // moves the offset.
    const std::uint32_t count = param.length;
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    value.first = static_cast<std::uint32_t>(table.elements.size());
    value.size = rendered;
    for (std::uint32_t i = 0; i < rendered; ++i) {
        const T v = readLittleEndian<T>(payload, offset);
        offset += sizeof(T);
        table.elements.push_back(DecodedElement{rawOf(v), enumerated ? lookUp(v) : nullptr});
        if (reported) {
            reportDisplay(param);
        }
    }
    if (rendered < count) {
        // Everything past here lies beyond any record and reads as zero.
        offset += static_cast<unsigned int>((count - rendered) * sizeof(T));
    }
}

void RecordDecoder::decodeTable(const TablePlan& plan, const ByteReader& payload,
                                unsigned int& offset, DecodedTable& table) {
    const std::size_t count = plan.params.size();
    if (table.values.size() < count) {
        table.values.resize(count);
    }
    table.elements.clear();
    for (std::size_t i = 0; i < count; ++i) {
        const ParamPlan& param = plan.params[i];
        DecodedValue& value = table.values[i];
        if (withIntegerType(param.type, [&](auto zero) {
                decodeInts<decltype(zero)>(param, payload, offset, table, value);
            })) {
            continue;
        }
        switch (param.type) {
            case ParamType::String: {
                const std::string_view text = payloadString(payload, offset, param.length);
                value.bytes = text.empty() ? "" : text.data();
                value.size = static_cast<std::uint32_t>(text.size());
                value.brace = hasBrace(value.bytes, value.size);
                offset += param.length;
                break;
            }
            case ParamType::BinaryString:
            case ParamType::VarBinaryString: {
                std::uint32_t length = param.length;
                if (param.type == ParamType::VarBinaryString) {
                    std::uint16_t varCount = payload.get_u16le(offset);
                    offset += 2;
                    if (varCount > param.length) {
                        Event event;
                        event.kind = EventKind::VarBinaryTooLong;
                        event.count = varCount;
                        event.length = param.length;
                        char text[96];
                        const int size =
                            snprintf(text, sizeof text,
                                     "Variable length:%d in payload is greater thanthe "
                                     "definition %d\n",
                                     static_cast<int>(varCount), static_cast<int>(param.length));
                        emit(event, std::string_view(text, static_cast<std::size_t>(size)));
                        varCount = static_cast<std::uint16_t>(param.length);
                    }
                    value.count = varCount;
                    length = varCount;
                }
                const std::size_t have = payload.available(offset);
                value.bytes =
                    have != 0 ? reinterpret_cast<const char*>(payload.data()) + offset : "";
                value.size = static_cast<std::uint32_t>(length < have ? length : have);
                // A var binary string moves on by its capped count: bytes the
                // payload's own count still covers are read as the following
                // parameters.
                offset += length;
                break;
            }
            default:
                break;  // the integers, above
        }
    }
}

template <typename Out>
void RecordDecoder::appendText(Out& out, const ParamPlan& param, const DecodedValue& value,
                               const DecodedTable& table) const {
    switch (param.type) {
        case ParamType::String:
            out.append(value.bytes, value.size);
            return;
        case ParamType::BinaryString:
            appendStoredHex(out, value.bytes, value.size, param.length);
            return;
        case ParamType::VarBinaryString: {
            appendLiteral(out, "payload size:");
            appendDecimal(out, value.count);
            out.push_back(' ');
            const std::uint32_t shown = value.count < settings_.maxVarBinaryBytes
                                            ? value.count
                                            : settings_.maxVarBinaryBytes;
            appendStoredHex(out, value.bytes, value.size, shown);
            return;
        }
        default:
            break;
    }
    if (param.length == 0) {
        appendIntText(out, param.type, param.display, value.raw, value.enumText);
        return;
    }
    // "[name[0]=text,name[1]=text,...]". The element text is shared by the
    // whole array: an element whose enumeration lacks its value shows the
    // text of the element before it.
    out.push_back('[');
    const std::string* previous = nullptr;
    for (std::uint32_t i = 0; i < value.size; ++i) {
        const DecodedElement& element = table.elements[value.first + i];
        appendLabel(out, *param.name, i);
        if (param.display == DisplayKind::Enum) {
            if (element.enumText != nullptr) {
                previous = element.enumText;
            }
            appendIntText(out, param.type, param.display, element.raw, previous);
        } else {
            appendIntText(out, param.type, param.display, element.raw, nullptr);
        }
        if (i + 1 < param.length) {
            out.push_back(',');
        }
    }
    if (value.size < param.length) {
        appendLiteral(out, "...");
    }
    out.push_back(']');
}

void RecordDecoder::appendMessage(const LogPlan& plan) {
    const DecodedTable& table = logTable_;
    const std::vector<ParamPlan>& params = plan.params.params;
    auto text = [&](std::int32_t slot) {
        const std::size_t index = static_cast<std::size_t>(slot);
        appendText(*line_, params[index], table.values[index], table);
    };
    MessageShape shape = plan.shape;
    if (shape == MessageShape::Template) {
        // A value that holds a brace takes part in the substitution itself.
        for (const MessagePiece& piece : plan.pieces) {
            const std::size_t index = static_cast<std::size_t>(piece.slot);
            const ParamPlan& param = params[index];
            if (!param.textMayHaveBrace) {
                continue;
            }
            const DecodedValue& value = table.values[index];
            const bool brace = param.type == ParamType::String ? value.brace
                               : param.length == 0
                                   ? value.enumText != nullptr &&
                                         hasBrace(value.enumText->data(), value.enumText->size())
                                   : true;
            if (brace) {
                shape = MessageShape::General;
                break;
            }
        }
    }
    switch (shape) {
        case MessageShape::List: {
            // No placeholders: the text, a blank and the parameter list.
            line_->append(plan.log->logString);
            line_->push_back(' ');
            const TablePlan& list = plan.params;
            for (std::size_t i = 0; i < list.listed.size(); ++i) {
                if (list.listed[i] >= 0) {
                    line_->append(list.listedLead[i]);
                    text(list.listed[i]);
                    line_->push_back(' ');
                }
            }
            break;
        }
        case MessageShape::Template:
            for (const MessagePiece& piece : plan.pieces) {
                line_->append(piece.lead);
                text(piece.slot);
            }
            line_->append(plan.tail);
            break;
        case MessageShape::General: {
            // Every text first, then the loop over them.
            TextBuilder& texts = generalTexts_;
            texts.clear();
            std::vector<std::size_t>& starts = generalStarts_;
            starts.clear();
            for (std::size_t i = 0; i < params.size(); ++i) {
                starts.push_back(texts.size());
                appendText(texts, params[i], table.values[i], table);
            }
            starts.push_back(texts.size());
            substitutePlaceholders(
                *line_, plan.log->logString,
                [&](std::string_view key, std::string_view& name, std::string_view& value) {
                    const std::int32_t slot = plan.params.lookup(key);
                    if (slot < 0) {
                        return false;
                    }
                    const std::size_t index = static_cast<std::size_t>(slot);
                    name = *params[index].name;
                    value = texts.view(starts[index], starts[index + 1] - starts[index]);
                    return true;
                },
                plan.params.longestName, placeholders_);
            break;
        }
    }
}

bool RecordDecoder::fillFields(const TablePlan& plan, DecodedTable& table,
                               std::vector<FieldSpan>& spans) {
    // The field slots only grow: a record of a smaller log uses the first.
    // Names, types and indexes stay from the last record of the same table.
    if (table.fields.size() < plan.fieldCount) {
        table.fields.resize(plan.fieldCount);
        table.fieldsOf = nullptr;
    }
    ParamField* const fields = table.fields.data();
    const bool sameTable = table.fieldsOf == &plan;
    table.fieldsOf = &plan;
    const bool texts = settings_.texts;
    // Texts (and bytes copied for a record cut short) go to the arena; the
    // views are taken once the arena no longer grows (takeFieldViews()).
    if (texts && spans.size() < plan.fieldCount) {
        spans.resize(plan.fieldCount);
    }
    bool copiedBytes = false;
    for (std::size_t i = 0; i < plan.params.size(); ++i) {
        const ParamPlan& param = plan.params[i];
        const DecodedValue& value = table.values[i];
        ParamField& field = fields[param.firstField];
        if (!sameTable) {
            field.name = *param.name;
            field.type = param.type;
            field.index = -1;
        }
        field.enumName = std::string_view();
        field.text = std::string_view();
        if (param.type >= ParamType::String) {
            field.raw = param.type == ParamType::VarBinaryString ? value.count : 0;
            if (texts) {
                FieldSpan& span = spans[param.firstField];
                span.text = arena_.size();
                appendText(arena_, param, value, table);
                span.textSize = arena_.size() - span.text;
                span.bytes = FieldSpan::kNone;
            }
            if (param.type == ParamType::String) {
                field.bytes = std::string_view(value.bytes, value.size);
                continue;
            }
            // The raw bytes, those past the record as zeros.
            const std::uint32_t wanted =
                param.type == ParamType::VarBinaryString ? value.count : param.length;
            const std::uint32_t kept =
                wanted < kMaxRenderedElements ? wanted : kMaxRenderedElements;
            if (value.size >= kept) {
                field.bytes = std::string_view(value.bytes, kept);
                continue;
            }
            if (!texts && !copiedBytes) {
                // Without texts the spans hold nothing of this record yet.
                if (spans.size() < plan.fieldCount) {
                    spans.resize(plan.fieldCount);
                }
                for (std::size_t f = 0; f < plan.fieldCount; ++f) {
                    spans[f].bytes = FieldSpan::kNone;
                }
            }
            FieldSpan& span = spans[param.firstField];
            span.bytes = arena_.size();
            span.bytesSize = kept;
            char* to = arena_.grow(kept);
            std::memcpy(to, value.bytes, value.size);
            std::memset(to + value.size, 0, kept - value.size);
            field.bytes = std::string_view();
            copiedBytes = true;
            continue;
        }
        field.bytes = std::string_view();
        if (param.length == 0) {
            field.raw = value.raw;
            if (value.enumText != nullptr) {
                field.enumName = *param.format;
            }
            if (texts) {
                FieldSpan& span = spans[param.firstField];
                span.text = arena_.size();
                appendIntText(arena_, param.type, param.display, value.raw, value.enumText);
                span.textSize = arena_.size() - span.text;
                span.bytes = FieldSpan::kNone;
            }
            continue;
        }
        const std::string* previous = nullptr;
        for (std::uint32_t e = 0; e < value.size; ++e) {
            const DecodedElement& element = table.elements[value.first + e];
            ParamField& item = fields[param.firstField + e];
            if (!sameTable) {
                item.name = *param.name;
                item.type = param.type;
                item.index = static_cast<std::int32_t>(e);
            }
            item.bytes = std::string_view();
            item.enumName = std::string_view();
            item.text = std::string_view();
            item.raw = element.raw;
            if (element.enumText != nullptr) {
                item.enumName = *param.format;
                previous = element.enumText;
            }
            if (texts) {
                FieldSpan& span = spans[param.firstField + e];
                span.text = arena_.size();
                appendIntText(arena_, param.type, param.display, element.raw,
                              param.display == DisplayKind::Enum ? previous : nullptr);
                span.textSize = arena_.size() - span.text;
                span.bytes = FieldSpan::kNone;
            }
        }
    }
    return copiedBytes;
}

void RecordDecoder::takeFieldViews(const TablePlan& plan, DecodedTable& table,
                                   const std::vector<FieldSpan>& spans, bool copiedBytes,
                                   View<ParamField>& out) {
    ParamField* const fields = table.fields.data();
    const bool texts = settings_.texts;
    if (texts || copiedBytes) {
        for (std::size_t i = 0; i < plan.fieldCount; ++i) {
            const FieldSpan& span = spans[i];
            if (texts) {
                fields[i].text = arena_.view(span.text, span.textSize);
            }
            if (copiedBytes && span.bytes != FieldSpan::kNone) {
                fields[i].bytes = arena_.view(span.bytes, span.bytesSize);
            }
        }
    }
    out = View<ParamField>(fields, plan.fieldCount);
}

void RecordDecoder::scanVarBinaries(const TablePlan& plan, const ByteReader& payload) {
    varBinaries_.clear();
    if (plan.firstVarBinary < 0) {
        return;
    }
    // Var binary strings are the last group: each starts where the one before
    // it ends.
    unsigned int offset = plan.params[static_cast<std::size_t>(plan.firstVarBinary)].offset;
    for (std::size_t i = static_cast<std::size_t>(plan.firstVarBinary); i < plan.params.size();
         ++i) {
        const ParamPlan& param = plan.params[i];
        std::uint16_t count = payload.get_u16le(offset);
        offset += 2;
        if (count > param.length) {
            Event event;
            event.kind = EventKind::VarBinaryTooLong;
            event.count = count;
            event.length = param.length;
            char text[96];
            const int size = snprintf(text, sizeof text,
                                      "Variable length:%d in payload is greater thanthe "
                                      "definition %d\n",
                                      static_cast<int>(count), static_cast<int>(param.length));
            emit(event, std::string_view(text, static_cast<std::size_t>(size)));
            count = static_cast<std::uint16_t>(param.length);
        }
        varBinaries_.push_back(VarBinary{offset, count});
        offset += count;
    }
}

namespace {

/// The text of the integer of type T at `offset`, as `param` shows it.
template <typename T, typename Out>
void appendDirectInt(Out& out, const ParamPlan& param, const ByteReader& payload,
                     std::uint32_t offset, const std::string*& previous) {
    const T value = readLittleEndian<T>(payload, offset);
    if (param.display == DisplayKind::Enum) {
        bool negative;
        std::uint64_t magnitude;
        signAndMagnitude(value, negative, magnitude);
        const std::string* text = param.enumTable->find(negative, magnitude);
        // An element the enumeration lacks shows the text before it.
        if (text != nullptr) {
            previous = text;
        }
        if (previous != nullptr) {
            out.append(previous->data(), previous->size());
        }
        return;
    }
    appendPlainInt(out, param.display, value);
}

template <typename T, typename Out>
void appendDirectInts(Out& out, const ParamPlan& param, const ByteReader& payload) {
    const std::string* previous = nullptr;
    if (param.length == 0) {
        appendDirectInt<T>(out, param, payload, param.offset, previous);
        return;
    }
    const std::uint32_t count = param.length;
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    out.push_back('[');
    std::uint32_t offset = param.offset;
    for (std::uint32_t i = 0; i < rendered; ++i) {
        appendLabel(out, *param.name, i);
        appendDirectInt<T>(out, param, payload, offset, previous);
        offset += static_cast<std::uint32_t>(sizeof(T));
        if (i + 1 < count) {
            out.push_back(',');
        }
    }
    if (rendered < count) {
        appendLiteral(out, "...");
    }
    out.push_back(']');
}

}  // namespace

template <typename Out>
void RecordDecoder::appendDirect(Out& out, const TablePlan& plan, std::size_t index,
                                 const ByteReader& payload) const {
    const ParamPlan& param = plan.params[index];
    if (withIntegerType(param.type, [&](auto zero) {
            appendDirectInts<decltype(zero)>(out, param, payload);
        })) {
        return;
    }
    switch (param.type) {
        case ParamType::String: {
            const std::string_view text = payloadString(payload, param.offset, param.length);
            out.append(text.data(), text.size());
            return;
        }
        case ParamType::BinaryString:
            appendHexBytes(out, payload, param.offset, param.length);
            return;
        case ParamType::VarBinaryString: {
            const VarBinary& var =
                varBinaries_[index - static_cast<std::size_t>(plan.firstVarBinary)];
            appendLiteral(out, "payload size:");
            appendDecimal(out, static_cast<unsigned int>(var.count));
            out.push_back(' ');
            appendHexBytes(
                out, payload, var.offset,
                var.count < settings_.maxVarBinaryBytes ? var.count : settings_.maxVarBinaryBytes);
            return;
        }
        default:
            return;  // the integers, above
    }
}

bool RecordDecoder::directBrace(const TablePlan& plan, std::size_t index,
                                const ByteReader& payload) const {
    const ParamPlan& param = plan.params[index];
    if (!param.textMayHaveBrace) {
        return false;
    }
    if (param.type == ParamType::String) {
        const std::string_view text = payloadString(payload, param.offset, param.length);
        return hasBrace(text.data(), text.size());
    }
    // An enumeration text or an array: look at the text itself.
    TextBuilder& text = const_cast<TextBuilder&>(braceScratch_);
    text.clear();
    appendDirect(text, plan, index, payload);
    return hasBrace(text.data(), text.size());
}

namespace {

/// Copies `n` characters of a plan's step texts, which are followed by
/// kStepTextSlack spare bytes, to `to`, which has as many spare bytes of
/// room: 32 at a time, texts up to 32 characters (most) without a branch.
inline char* copyStepText(char* to, const char* from, std::size_t n) {
    static_assert(kStepTextSlack == 32, "one copy is 32 bytes");
    std::memcpy(to, from, 16);
    std::memcpy(to + 16, from + 16, 16);
    for (std::size_t i = 32; i < n; i += 32) {
        std::memcpy(to + i, from + i, 16);
        std::memcpy(to + i + 16, from + i + 16, 16);
    }
    return to + n;
}

/// Copies a text of any length without reading or writing past either end.
inline char* copyText(char* to, const std::string& text) {
    const std::size_t n = text.size();
    if (n >= 16) {
        std::size_t i = 0;
        for (; i + 16 < n; i += 16) {
            std::memcpy(to + i, text.data() + i, 16);
        }
        std::memcpy(to + n - 16, text.data() + n - 16, 16);
    } else if (n != 0) {
        std::memcpy(to, text.data(), n);
    }
    return to + n;
}

/// The little-endian integer of type T at `offset`. Checked: bytes past the
/// end of the payload read as zero. Unchecked: the caller knows the integer
/// lies within the payload (LogPlan::stepsPayloadBound).
template <typename T, bool Checked>
inline __attribute__((always_inline)) T stepInteger(const ByteReader& payload,
                                                    std::uint32_t offset) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if constexpr (!Checked) {
        T value;
        std::memcpy(&value, payload.data() + offset, sizeof value);
        return value;
    }
#endif
    return readLittleEndian<T>(payload, offset);
}

/// Writes the integer of type T at the step's offset as its kind shows it.
template <StepValue Kind, typename T, bool Checked>
inline __attribute__((always_inline)) char* writeScalar(char* at, const LineStep& step,
                                                        const ByteReader& payload) {
    const T value = stepInteger<T, Checked>(payload, step.offset);
    if constexpr (Kind == StepValue::Decimal) {
        return writeDecimal(at, value);
    } else if constexpr (Kind == StepValue::Hex) {
        return writeHex(at, value);
    } else if constexpr (Kind == StepValue::FrameStamp) {
        return writeFrameStamp(at, static_cast<std::uint32_t>(value));
    } else {
        bool negative;
        std::uint64_t magnitude;
        signAndMagnitude(value, negative, magnitude);
        // A value the enumeration lacks shows nothing.
        const std::string* text = step.enumTable->find(negative, magnitude);
        return text != nullptr ? copyText(at, *text) : at;
    }
}

}  // namespace

template <bool Checked>
char* RecordDecoder::renderStepRange(const LogPlan& plan, const ByteReader& payload,
                                     std::size_t first, std::size_t last, char* at, char*& start) {
    TextBuilder& line = *line_;
    const char* const texts = plan.lineText.data();
    const LineStep* const steps = plan.lineSteps.data();
    for (std::size_t i = first; i < last; ++i) {
        const LineStep& step = steps[i];
        at = copyStepText(at, texts + step.textStart, step.textLength);
        switch (step.code) {
// One case for each integer type of a kind, in ParamType's order.
#define WEXBL_STEP_CASES(KIND)                                             \
    case stepCode(KIND, ParamType::Uint64):                                \
        at = writeScalar<KIND, std::uint64_t, Checked>(at, step, payload); \
        break;                                                             \
    case stepCode(KIND, ParamType::Int64):                                 \
        at = writeScalar<KIND, std::int64_t, Checked>(at, step, payload);  \
        break;                                                             \
    case stepCode(KIND, ParamType::Uint32):                                \
        at = writeScalar<KIND, std::uint32_t, Checked>(at, step, payload); \
        break;                                                             \
    case stepCode(KIND, ParamType::Int32):                                 \
        at = writeScalar<KIND, std::int32_t, Checked>(at, step, payload);  \
        break;                                                             \
    case stepCode(KIND, ParamType::Uint16):                                \
        at = writeScalar<KIND, std::uint16_t, Checked>(at, step, payload); \
        break;                                                             \
    case stepCode(KIND, ParamType::Int16):                                 \
        at = writeScalar<KIND, std::int16_t, Checked>(at, step, payload);  \
        break;                                                             \
    case stepCode(KIND, ParamType::Uint8):                                 \
        at = writeScalar<KIND, std::uint8_t, Checked>(at, step, payload);  \
        break;                                                             \
    case stepCode(KIND, ParamType::Int8):                                  \
        at = writeScalar<KIND, std::int8_t, Checked>(at, step, payload);   \
        break;
            WEXBL_STEP_CASES(StepValue::Decimal)
            WEXBL_STEP_CASES(StepValue::Hex)
            WEXBL_STEP_CASES(StepValue::FrameStamp)
            WEXBL_STEP_CASES(StepValue::Enum)
#undef WEXBL_STEP_CASES
            case stepCode(StepValue::Bytes):
                at = writeHexBytes(at, payload, step.offset, step.length);
                break;
            case stepCode(StepValue::Text): {
                const std::string_view text = payloadString(payload, step.offset, step.length);
                if (!text.empty()) {
                    std::memcpy(at, text.data(), text.size());
                    at += text.size();
                }
                break;
            }
            case stepCode(StepValue::VarBytes): {  // counted when the record was decoded
                const VarBinary& var =
                    varBinaries_[step.index - static_cast<std::size_t>(step.table->firstVarBinary)];
                std::memcpy(at, kVarBytesLead, sizeof kVarBytesLead - 1);
                at = writeDecimal(at + sizeof kVarBytesLead - 1,
                                  static_cast<unsigned int>(var.count));
                *at++ = ' ';
                const std::uint32_t shown = var.count < settings_.maxVarBinaryBytes
                                                ? var.count
                                                : settings_.maxVarBinaryBytes;
                if (shown != 0) {
                    at = writeHexBytes(at, payload, var.offset, shown);
                }
                break;
            }
            case stepCode(StepValue::Other):
                line.commit(static_cast<std::size_t>(at - start));
                appendDirect(line, *step.table, step.index, payload);
                start = line.reserveTail(plan.lineBound + kStepTextSlack);
                at = start;
                break;
            default:  // None
                break;
        }
    }
    return at;
}

void RecordDecoder::renderSteps(const LogPlan& plan, const ByteReader& payload) {
    // One room check for the whole line but the Other values, which are
    // appended through the line's own checks; the room is taken again
    // after each of them.
    TextBuilder& line = *line_;
    const std::string& level = levels_->get(header_.logLevel).padded;
    char* start = line.reserveTail(plan.lineHead.size() + level.size() + plan.lineCategory.size() +
                                   10 + plan.lineBound + kStepTextSlack);
    char* at = copyText(start, plan.lineHead);
    at = copyText(at, level);
    at = copyText(at, plan.lineCategory);
    at = writeDecimal(at, header_.seqNo);
    // The steps before the message, then the message's: where it starts is
    // known once the steps before it are written.
    const std::size_t messageStep = plan.messageStep;
    const std::size_t count = plan.lineSteps.size();
    std::size_t messageStart = 0;
    if (payload.size() >= plan.stepsPayloadBound) {
        at = renderStepRange<false>(plan, payload, 0, messageStep, at, start);
        messageStart = line.size() + static_cast<std::size_t>(at - start) + plan.messageOffset;
        at = renderStepRange<false>(plan, payload, messageStep, count, at, start);
    } else {
        at = renderStepRange<true>(plan, payload, 0, messageStep, at, start);
        messageStart = line.size() + static_cast<std::size_t>(at - start) + plan.messageOffset;
        at = renderStepRange<true>(plan, payload, messageStep, count, at, start);
    }
    line.commit(static_cast<std::size_t>(at - start));
    record_.text = line.view(lineStart_, line.size() - lineStart_);
    // The line ends with "] \n".
    record_.message = line.view(messageStart, line.size() - 3 - messageStart);
}

void RecordDecoder::renderDirect(const LogPlan& plan, const ByteReader& payload) {
    const ModulePlan& module = *plan.module;
    const TablePlan& params = plan.params;
    MessageShape shape = plan.shape;
    if (shape == MessageShape::Template && plan.piecesMayHaveBrace) {
        // A value whose text holds a brace takes part in the substitution.
        for (const MessagePiece& piece : plan.pieces) {
            if (directBrace(params, static_cast<std::size_t>(piece.slot), payload)) {
                shape = MessageShape::General;
                break;
            }
        }
    }
    if (shape != MessageShape::General && !plan.lineSteps.empty()) {
        renderSteps(plan, payload);
        return;
    }
    line_->append(plan.lineHead);
    line_->append(levels_->get(header_.logLevel).padded);
    line_->append(plan.lineCategory);
    appendDecimal(*line_, header_.seqNo);
    appendLiteral(*line_, "] [");
    if (module.hasHeader) {
        const std::size_t start = line_->size();
        const TablePlan& header = module.header;
        for (std::size_t i = 0; i < header.listed.size(); ++i) {
            const std::int32_t slot = header.listed[i];
            if (slot >= 0) {
                line_->append(header.listedLead[i]);
                appendDirect(*line_, header, static_cast<std::size_t>(slot), payload);
                line_->push_back(' ');
            }
        }
        if (line_->size() != start) {
            if (plan.mayHaveNul) {
                cutAtNul(*line_, start);
            }
            appendLiteral(*line_, "] [");
        }
    }
    const std::size_t messageStart = line_->size();
    switch (shape) {
        case MessageShape::List:
            line_->append(plan.log->logString);
            line_->push_back(' ');
            for (std::size_t i = 0; i < params.listed.size(); ++i) {
                if (params.listed[i] >= 0) {
                    line_->append(params.listedLead[i]);
                    appendDirect(*line_, params, static_cast<std::size_t>(params.listed[i]),
                                 payload);
                    line_->push_back(' ');
                }
            }
            break;
        case MessageShape::Template:
            for (const MessagePiece& piece : plan.pieces) {
                line_->append(piece.lead);
                appendDirect(*line_, params, static_cast<std::size_t>(piece.slot), payload);
            }
            line_->append(plan.tail);
            break;
        case MessageShape::General: {
            TextBuilder& texts = generalTexts_;
            texts.clear();
            std::vector<std::size_t>& starts = generalStarts_;
            starts.clear();
            for (std::size_t i = 0; i < params.params.size(); ++i) {
                starts.push_back(texts.size());
                appendDirect(texts, params, i, payload);
            }
            starts.push_back(texts.size());
            substitutePlaceholders(
                *line_, plan.log->logString,
                [&](std::string_view key, std::string_view& name, std::string_view& value) {
                    const std::int32_t slot = params.lookup(key);
                    if (slot < 0) {
                        return false;
                    }
                    const std::size_t index = static_cast<std::size_t>(slot);
                    name = *params.params[index].name;
                    value = texts.view(starts[index], starts[index + 1] - starts[index]);
                    return true;
                },
                params.longestName, placeholders_);
            break;
        }
    }
    if (plan.mayHaveNul) {
        cutAtNul(*line_, messageStart);
    }
    const std::size_t messageEnd = line_->size();
    appendLiteral(*line_, "] \n");
    record_.text = line_->view(lineStart_, line_->size() - lineStart_);
    record_.message = line_->view(messageStart, messageEnd - messageStart);
}

void RecordDecoder::fillValues() {
    if (valuesFilled_) {
        return;
    }
    valuesFilled_ = true;
    if (valuesPlan_ == nullptr || !settings_.fields) {
        return;  // no values, or a legacy record's, filled already
    }
    const LogPlan& plan = *valuesPlan_;
    const ModulePlan& module = *plan.module;
    if (!decoded_) {
        // Decoded now for the values alone: what it reports was reported
        // when the record was read.
        silent_ = true;
        unsigned int offset = 0;
        if (module.hasHeader) {
            decodeTable(module.header, valuesPayload_, offset, headerTable_);
            offset += module.headerPadding;
        }
        decodeTable(plan.params, valuesPayload_, offset, logTable_);
        silent_ = false;
        decoded_ = true;
    }
    // Both tables' texts go into the arena before any view into it is
    // taken: the log's texts may make it grow, and move the header's.
    arena_.clear();
    bool headerCopied = false;
    if (module.hasHeader) {
        headerCopied = fillFields(module.header, headerTable_, headerSpans_);
    }
    const bool paramsCopied = fillFields(plan.params, logTable_, fieldSpans_);
    if (module.hasHeader) {
        takeFieldViews(module.header, headerTable_, headerSpans_, headerCopied, headerView_);
    }
    takeFieldViews(plan.params, logTable_, fieldSpans_, paramsCopied, paramsView_);
}

void RecordDecoder::decodeBinLog(const LogPlan& plan, const ByteReader& payload) {
    const ModulePlan& module = *plan.module;
    record_.kind = RecordKind::BinLog;
    record_.subsystem = plan.subsystemName;
    record_.module = plan.moduleName;
    record_.log = plan.logName;
    record_.category = plan.categoryName;
    valuesPlan_ = &plan;
    valuesPayload_ = payload;
    const LevelTable::Level& level = levels_->get(header_.logLevel);
    record_.levelName = *level.name;
    Filter::Verdict verdict;
    if (!headerPasses(verdict)) {
        return;  // not decoded at all
    }
    if (plan.direct) {
        // Nothing of the values needs reporting but var binary counts: the
        // line comes straight from the payload, the values when asked for.
        if (plan.params.firstVarBinary >= 0) {
            scanVarBinaries(plan.params, payload);
        }
    } else {
        // Display formats that report what they cannot show: decoded now,
        // in order, with their messages.
        unsigned int offset = 0;
        if (module.hasHeader) {
            decodeTable(module.header, payload, offset, headerTable_);
            offset += module.headerPadding;
        }
        decodeTable(plan.params, payload, offset, logTable_);
        decoded_ = true;
    }
    if (verdict == Filter::Verdict::Values && !settings_.filter->matches(record_)) {
        return;
    }
    produced_ = true;
    if (!settings_.texts) {
        return;
    }
    if (plan.direct) {
        startLine(pcap_);
        renderDirect(plan, payload);
        return;
    }

    startLine(pcap_);
    line_->append(plan.lineHead);
    line_->append(level.padded);
    line_->append(plan.lineCategory);
    appendDecimal(*line_, header_.seqNo);
    appendLiteral(*line_, "] [");
    if (module.hasHeader) {
        // The header values go straight into the line; their field is
        // dropped again when no value was found.
        const std::size_t start = line_->size();
        const TablePlan& header = module.header;
        for (std::size_t i = 0; i < header.listed.size(); ++i) {
            const std::int32_t slot = header.listed[i];
            if (slot >= 0) {
                const std::size_t index = static_cast<std::size_t>(slot);
                line_->append(header.listedLead[i]);
                appendText(*line_, header.params[index], headerTable_.values[index], headerTable_);
                line_->push_back(' ');
            }
        }
        if (line_->size() != start) {
            if (plan.mayHaveNul) {
                cutAtNul(*line_, start);
            }
            appendLiteral(*line_, "] [");
        }
    }
    const std::size_t messageStart = line_->size();
    appendMessage(plan);
    if (plan.mayHaveNul) {
        cutAtNul(*line_, messageStart);
    }
    const std::size_t messageEnd = line_->size();
    appendLiteral(*line_, "] \n");
    record_.text = line_->view(lineStart_, line_->size() - lineStart_);
    record_.message = line_->view(messageStart, messageEnd - messageStart);
}

}  // namespace detail
}  // namespace Tav
