// Binary log records: the module header and the log's parameters decoded by
// their plans into typed values and texts, and the line built from them.
//
//   [time] [subsystem:module] [log name] [level] [category] [seqNo] [header values] [message]
//
// The header values field is there only when the module declares a header
// and some header value was decoded.
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

bool textHasBrace(const TextBuilder& arena, const DecodedTable::Ref& ref) {
    const char* text = arena.data() + ref.offset;
    for (std::uint32_t i = 0; i < ref.size; ++i) {
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

template <typename T>
void RecordDecoder::decodeInts(const ParamPlan& param, const ByteReader& payload,
                               unsigned int& offset, DecodedTable& table, std::size_t index) {
    const bool fields = settings_.fields;
    const bool texts = settings_.texts;
    const std::uint32_t start = static_cast<std::uint32_t>(arena_.size());
    // The enumeration's text of `value`, or null: the text is then left as
    // it was. A format that is no enumeration (or enumerations that did not
    // load) gives the decimal text, with a message each time.
    auto enumText = [&](T value, bool& replaced) -> const std::string* {
        replaced = true;
        if (param.display == DisplayKind::Enum) {
            bool negative;
            std::uint64_t magnitude;
            signAndMagnitude(value, negative, magnitude);
            const std::string* text = param.enumTable->find(negative, magnitude);
            replaced = text != nullptr;
            return text;
        }
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
        return nullptr;
    };
    const bool plain = param.display == DisplayKind::Decimal || param.display == DisplayKind::Hex ||
                       param.display == DisplayKind::FrameStamp;

    if (param.length == 0) {
        const T value = readLittleEndian<T>(payload, offset);
        offset += sizeof(T);
        const std::string* name = nullptr;
        if (plain) {
            if (texts) {
                appendPlainInt(arena_, param.display, value);
            }
        } else {
            bool replaced;
            name = enumText(value, replaced);
            if (texts) {
                if (name != nullptr) {
                    arena_.append(*name);
                } else if (replaced) {
                    appendDecimal(arena_, value);
                }
            }
        }
        const DecodedTable::Ref ref{start, static_cast<std::uint32_t>(arena_.size() - start)};
        table.text[index] = ref;
        table.brace[index] = param.textMayHaveBrace && texts && textHasBrace(arena_, ref);
        if (fields) {
            ParamField& field = table.fields[param.firstField];
            field = ParamField();
            field.name = *param.name;
            field.type = typeOf<T>();
            field.raw = rawOf(value);
            if (name != nullptr) {
                field.enumName = *param.format;
            }
            table.fieldText[param.firstField] = ref;
        }
        return;
    }

    // An array: "[name[0]=text,name[1]=text,...]". The element text is shared
    // by the whole array, so an element whose enumeration lacks its value
    // shows the text of the element before it.
    const std::uint32_t count = param.length;
    const std::uint32_t rendered = count < kMaxRenderedElements ? count : kMaxRenderedElements;
    DecodedTable::Ref element{0, 0};
    if (texts) {
        arena_.push_back('[');
    }
    for (std::uint32_t i = 0; i < rendered; ++i) {
        const T value = readLittleEndian<T>(payload, offset);
        offset += sizeof(T);
        const std::string* name = nullptr;
        bool replaced = true;
        if (!plain) {
            name = enumText(value, replaced);
        }
        if (texts) {
            appendLabel(arena_, *param.name, i);
            const std::uint32_t at = static_cast<std::uint32_t>(arena_.size());
            if (plain) {
                appendPlainInt(arena_, param.display, value);
            } else if (name != nullptr) {
                arena_.append(*name);
            } else if (replaced) {
                appendDecimal(arena_, value);
            } else if (element.size != 0) {
                char* to = arena_.grow(element.size);
                std::memmove(to, arena_.data() + element.offset, element.size);
            }
            element = DecodedTable::Ref{at, static_cast<std::uint32_t>(arena_.size() - at)};
            if (i + 1 < count) {
                arena_.push_back(',');
            }
        }
        if (fields) {
            ParamField& field = table.fields[param.firstField + i];
            field = ParamField();
            field.name = *param.name;
            field.type = typeOf<T>();
            field.index = static_cast<std::int32_t>(i);
            field.raw = rawOf(value);
            if (name != nullptr) {
                field.enumName = *param.format;
            }
            table.fieldText[param.firstField + i] = element;
        }
    }
    if (rendered < count) {
        // Everything past here lies beyond any record and reads as zero.
        offset += static_cast<unsigned int>((count - rendered) * sizeof(T));
        if (texts) {
            appendLiteral(arena_, "...");
        }
    }
    if (texts) {
        arena_.push_back(']');
    }
    const DecodedTable::Ref ref{start, static_cast<std::uint32_t>(arena_.size() - start)};
    table.text[index] = ref;
    table.brace[index] = param.textMayHaveBrace && texts && textHasBrace(arena_, ref);
}

void RecordDecoder::decodeTable(const TablePlan& plan, const ByteReader& payload,
                                unsigned int& offset, DecodedTable& table) {
    const std::size_t count = plan.params.size();
    table.text.resize(count);
    table.brace.resize(count);
    if (settings_.fields) {
        table.fields.resize(plan.fieldCount);
        table.fieldText.resize(plan.fieldCount);
        table.fieldBytes.resize(plan.fieldCount);
        table.bytesInArena.assign(plan.fieldCount, false);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const ParamPlan& param = plan.params[i];
        switch (param.type) {
            case ParamType::Uint64:
                decodeInts<std::uint64_t>(param, payload, offset, table, i);
                break;
            case ParamType::Int64:
                decodeInts<std::int64_t>(param, payload, offset, table, i);
                break;
            case ParamType::Uint32:
                decodeInts<std::uint32_t>(param, payload, offset, table, i);
                break;
            case ParamType::Int32:
                decodeInts<std::int32_t>(param, payload, offset, table, i);
                break;
            case ParamType::Uint16:
                decodeInts<std::uint16_t>(param, payload, offset, table, i);
                break;
            case ParamType::Int16:
                decodeInts<std::int16_t>(param, payload, offset, table, i);
                break;
            case ParamType::Uint8:
                decodeInts<std::uint8_t>(param, payload, offset, table, i);
                break;
            case ParamType::Int8:
                decodeInts<std::int8_t>(param, payload, offset, table, i);
                break;
            case ParamType::String:
            case ParamType::BinaryString:
            case ParamType::VarBinaryString: {
                const std::uint32_t start = static_cast<std::uint32_t>(arena_.size());
                std::uint32_t size = param.length;  // bytes of the value
                std::uint64_t from = offset;
                if (param.type == ParamType::String) {
                    // The text up to its first NUL; bytes past the record are NULs.
                    const std::size_t have = payload.available(offset);
                    const std::size_t span = size < have ? size : have;
                    const char* at = reinterpret_cast<const char*>(payload.data()) + offset;
                    const void* nul = span != 0 ? std::memchr(at, '\0', span) : nullptr;
                    const std::size_t length =
                        nul ? static_cast<std::size_t>(static_cast<const char*>(nul) - at) : span;
                    arena_.append(at, length);
                    offset += param.length;
                } else if (param.type == ParamType::BinaryString) {
                    if (settings_.texts) {
                        appendHexBytes(arena_, payload, offset, param.length);
                    }
                    offset += param.length;
                } else {
                    std::uint16_t varCount = payload.get_u16le(offset);
                    offset += 2;
                    from = offset;
                    if (varCount > param.length) {
                        Event event;
                        event.kind = EventKind::VarBinaryTooLong;
                        event.count = varCount;
                        event.length = param.length;
                        char text[96];
                        const int length =
                            snprintf(text, sizeof text,
                                     "Variable length:%d in payload is greater thanthe "
                                     "definition %d\n",
                                     static_cast<int>(varCount), static_cast<int>(param.length));
                        emit(event, std::string_view(text, static_cast<std::size_t>(length)));
                        varCount = static_cast<std::uint16_t>(param.length);
                    }
                    size = varCount;
                    if (settings_.texts) {
                        appendLiteral(arena_, "payload size:");
                        appendDecimal(arena_, static_cast<unsigned int>(varCount));
                        arena_.push_back(' ');
                        const std::uint16_t shown = varCount < settings_.maxVarBinaryBytes
                                                        ? varCount
                                                        : settings_.maxVarBinaryBytes;
                        appendHexBytes(arena_, payload, offset, shown);
                    }
                    // The capped count: bytes the payload's own count still
                    // covers are read as the following parameters.
                    offset += varCount;
                }
                const DecodedTable::Ref ref{start,
                                            static_cast<std::uint32_t>(arena_.size() - start)};
                table.text[i] = ref;
                table.brace[i] = param.type == ParamType::String && textHasBrace(arena_, ref);
                if (settings_.fields) {
                    ParamField& field = table.fields[param.firstField];
                    field = ParamField();
                    field.name = *param.name;
                    field.type = param.type;
                    table.fieldText[param.firstField] = ref;
                    if (param.type == ParamType::String) {
                        table.fieldBytes[param.firstField] = ref;
                        table.bytesInArena[param.firstField] = true;
                    } else {
                        // The raw bytes; those past the record read as zero.
                        const std::uint32_t kept =
                            size < kMaxRenderedElements ? size : kMaxRenderedElements;
                        if (payload.available(from) >= kept) {
                            field.bytes = std::string_view(
                                reinterpret_cast<const char*>(payload.data()) + from, kept);
                        } else {
                            const std::uint32_t at = static_cast<std::uint32_t>(arena_.size());
                            payload.copy(from, arena_.grow(kept), kept);
                            table.fieldBytes[param.firstField] = DecodedTable::Ref{at, kept};
                            table.bytesInArena[param.firstField] = true;
                        }
                    }
                }
                break;
            }
        }
    }
}

void RecordDecoder::finishFields(DecodedTable& table, View<ParamField>& out) {
    for (std::size_t i = 0; i < table.fields.size(); ++i) {
        ParamField& field = table.fields[i];
        const DecodedTable::Ref text = table.fieldText[i];
        field.text = settings_.texts ? arena_.view(text.offset, text.size) : std::string_view();
        if (table.bytesInArena[i]) {
            const DecodedTable::Ref bytes = table.fieldBytes[i];
            field.bytes = arena_.view(bytes.offset, bytes.size);
        }
    }
    out = View<ParamField>(table.fields.data(), table.fields.size());
}

void RecordDecoder::appendMessage(const LogPlan& plan) {
    const DecodedTable& table = logTable_;
    const std::vector<ParamPlan>& params = plan.params.params;
    const std::string& logString = plan.log->logString;
    auto appendText = [&](std::int32_t slot) {
        const DecodedTable::Ref ref = table.text[static_cast<std::size_t>(slot)];
        line_.append(arena_.data() + ref.offset, ref.size);
    };
    MessageShape shape = plan.shape;
    if (shape == MessageShape::Template) {
        for (const MessagePiece& piece : plan.pieces) {
            if (table.brace[static_cast<std::size_t>(piece.slot)]) {
                shape = MessageShape::General;  // a value that holds a brace
                break;
            }
        }
    }
    switch (shape) {
        case MessageShape::List:
            // No placeholders: the text, a blank and the parameter list.
            line_.append(logString.data(), logString.size());
            line_.push_back(' ');
            for (std::size_t i = 0; i < plan.params.listed.size(); ++i) {
                const std::int32_t slot = plan.params.listed[i];
                if (slot >= 0) {
                    line_.append(*params[static_cast<std::size_t>(slot)].name);
                    line_.push_back('=');
                    appendText(slot);
                    line_.push_back(' ');
                }
            }
            break;
        case MessageShape::Template:
            for (const MessagePiece& piece : plan.pieces) {
                line_.append(piece.literal);
                line_.append(*params[static_cast<std::size_t>(piece.slot)].name);
                line_.push_back('=');
                appendText(piece.slot);
            }
            line_.append(plan.tail);
            break;
        case MessageShape::General:
            substitutePlaceholders(
                line_, logString,
                [&](std::string_view key, std::string_view& name, std::string_view& value) {
                    const std::int32_t slot = plan.params.lookup(key);
                    if (slot < 0) {
                        return false;
                    }
                    name = *params[static_cast<std::size_t>(slot)].name;
                    const DecodedTable::Ref ref = table.text[static_cast<std::size_t>(slot)];
                    value = arena_.view(ref.offset, ref.size);
                    return true;
                },
                plan.params.longestName, placeholders_);
            break;
    }
}

void RecordDecoder::decodeBinLog(const LogPlan& plan, const ByteReader& payload) {
    arena_.clear();
    const ModulePlan& module = *plan.module;
    unsigned int offset = 0;
    if (module.hasHeader) {
        decodeTable(module.header, payload, offset, headerTable_);
        offset += module.headerPadding;
    }
    decodeTable(plan.params, payload, offset, logTable_);

    record_.kind = RecordKind::BinLog;
    record_.subsystem = module.module->subsystemName;
    record_.module = module.module->moduleName;
    record_.log = plan.log->logName;
    record_.category = plan.log->category;
    const std::string& level = levels_->name(header_.logLevel);
    record_.levelName = level;
    if (settings_.fields) {
        if (module.hasHeader) {
            finishFields(headerTable_, record_.header);
        }
        finishFields(logTable_, record_.params);
    }
    produced_ = true;
    if (!settings_.texts) {
        return;
    }

    startLine(pcap_);
    line_.append(module.source);
    appendLiteral(line_, "] [");
    line_.append(plan.paddedName);
    appendLiteral(line_, "] [");
    appendPadded(line_, printed(level), 8);
    appendLiteral(line_, "] [");
    line_.append(plan.paddedCategory);
    appendLiteral(line_, "] [");
    appendDecimal(line_, header_.seqNo);
    appendLiteral(line_, "] [");
    if (module.hasHeader) {
        // The header values go straight into the line; their field is
        // dropped again when no value was found.
        const std::size_t start = line_.size();
        const std::vector<ParamPlan>& params = module.header.params;
        for (const std::int32_t slot : module.header.listed) {
            if (slot >= 0) {
                line_.append(*params[static_cast<std::size_t>(slot)].name);
                line_.push_back('=');
                const DecodedTable::Ref ref = headerTable_.text[static_cast<std::size_t>(slot)];
                line_.append(arena_.data() + ref.offset, ref.size);
                line_.push_back(' ');
            }
        }
        if (line_.size() != start) {
            if (plan.mayHaveNul) {
                cutAtNul(line_, start);
            }
            appendLiteral(line_, "] [");
        }
    }
    const std::size_t messageStart = line_.size();
    appendMessage(plan);
    if (plan.mayHaveNul) {
        cutAtNul(line_, messageStart);
    }
    appendLiteral(line_, "] \n");
    record_.text = line_.view();
}

}  // namespace detail
}  // namespace Tav
