#include "dictionary/Plan.h"

#include <algorithm>
#include <cstring>

#include "dictionary/WireOrder.h"
#include "format/Json.h"
#include "records/Text.h"
#include "records/Values.h"

namespace Tav {
namespace detail {

namespace {

/// Reads `text` as the decimal text of an integer exactly as a value would
/// print: an optional "-", no leading zeros (except "0" itself), no sign on
/// zero, within 64 bits. Anything else no value can ever match.
bool parseCanonical(const std::string& text, bool& negative, std::uint64_t& magnitude) {
    std::size_t i = 0;
    negative = !text.empty() && text[0] == '-';
    if (negative) {
        i = 1;
    }
    const std::size_t digits = text.size() - i;
    if (digits == 0 || digits > 20 || (text[i] == '0' && digits > 1)) {
        return false;
    }
    std::uint64_t value = 0;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') {
            return false;
        }
        const std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    if (negative && (value == 0 || value > (std::uint64_t{1} << 63))) {
        return false;
    }
    magnitude = value;
    return true;
}

bool hasBrace(std::string_view text) {
    return text.find_first_of("{}") != std::string_view::npos;
}

bool hasNul(std::string_view text) {
    return std::memchr(text.data(), '\0', text.size()) != nullptr;
}

}  // namespace

const std::string* EnumTable::search(bool negative, std::uint64_t magnitude) const {
    const auto at = std::lower_bound(
        entries.begin(), entries.end(), Entry{negative, magnitude, {}},
        [](const Entry& a, const Entry& b) {
            return a.negative != b.negative
                       ? a.negative
                       : (a.negative ? a.magnitude > b.magnitude : a.magnitude < b.magnitude);
        });
    if (at == entries.end() || at->negative != negative || at->magnitude != magnitude) {
        return nullptr;
    }
    return at->text;
}

DisplayKind EnumTables::classify(const std::string& format, ParamType type,
                                 const EnumTable*& table) {
    table = nullptr;
    if (format == kFormatHex) {
        return DisplayKind::Hex;
    }
    if (type == ParamType::Uint32 && format == kFormatSfSfn) {
        return DisplayKind::FrameStamp;
    }
    if (format == kFormatDefault) {
        return DisplayKind::Decimal;
    }
    // The enumeration look-up tests the dictionary's state first, then the
    // format's name.
    if (!formatter_->initialized) {
        return DisplayKind::NoEnums;
    }
    const auto found = formatter_->displayFormats.find(format);
    if (found == formatter_->displayFormats.end()) {
        return DisplayKind::UnknownEnum;
    }
    std::unique_ptr<EnumTable>& slot = tables_[format];
    if (!slot) {
        slot = std::make_unique<EnumTable>();
        for (const auto& [value, text] : found->second) {
            EnumTable::Entry entry{false, 0, &text};
            if (parseCanonical(value, entry.negative, entry.magnitude)) {
                slot->entries.push_back(entry);
            }
            slot->textWithBrace = slot->textWithBrace || hasBrace(text);
        }
        std::sort(slot->entries.begin(), slot->entries.end(),
                  [](const EnumTable::Entry& a, const EnumTable::Entry& b) {
                      return a.negative != b.negative ? a.negative
                                                      : (a.negative ? a.magnitude > b.magnitude
                                                                    : a.magnitude < b.magnitude);
                  });
        // Small non-negative values only: a table indexed by value.
        constexpr std::uint64_t kDenseLimit = 4096;
        bool dense = true;
        for (const EnumTable::Entry& entry : slot->entries) {
            dense = dense && !entry.negative && entry.magnitude < kDenseLimit;
        }
        if (dense) {
            for (const EnumTable::Entry& entry : slot->entries) {
                if (slot->dense.size() <= entry.magnitude) {
                    slot->dense.resize(static_cast<std::size_t>(entry.magnitude) + 1, nullptr);
                }
                slot->dense[static_cast<std::size_t>(entry.magnitude)] = entry.text;
            }
            slot->denseOnly = true;
        }
    }
    table = slot.get();
    return DisplayKind::Enum;
}

std::int32_t TablePlan::lookup(std::string_view name) const {
    // The last parameter decoded under a name is the one its text comes from.
    for (std::size_t i = params.size(); i-- > 0;) {
        if (*params[i].name == name) {
            return static_cast<std::int32_t>(i);
        }
    }
    return -1;
}

namespace {

/// The plan of the parameters of `params`: wire order, display classes,
/// declaration-ordered field positions, and the list of shown names.
void planTable(const FlexiParams& params, const std::vector<std::string>& paramOrder,
               bool moduleHeader, EnumTables& enums, TablePlan& plan, bool& mayHaveNul) {
    forEachGroup(params, [&](const auto& list, ParamType type) {
        // A module header's var binary strings are never decoded.
        if (moduleHeader && type == ParamType::VarBinaryString) {
            return;
        }
        for (const auto& param : list) {
            ParamPlan p;
            p.name = &param.name;
            p.type = type;
            p.length = param.length;
            p.format = &param.displayFormat;
            mayHaveNul = mayHaveNul || hasNul(param.name);
            if (type < ParamType::String) {
                p.display = enums.classify(param.displayFormat, type, p.enumTable);
                const bool elementBrace = p.enumTable != nullptr && p.enumTable->textWithBrace;
                if (param.length == 0) {
                    p.fieldCount = 1;
                    p.textMayHaveBrace = elementBrace;
                } else {
                    p.fieldCount = std::min(param.length, kMaxRenderedElements);
                    p.textMayHaveBrace = elementBrace || hasBrace(param.name);
                }
                if (p.enumTable != nullptr) {
                    for (const EnumTable::Entry& entry : p.enumTable->entries) {
                        mayHaveNul = mayHaveNul || hasNul(*entry.text);
                    }
                }
            } else {
                p.fieldCount = 1;
                p.textMayHaveBrace = type == ParamType::String;
            }
            plan.longestName = std::max(plan.longestName, param.name.size());
            // Offsets run as the decoder's do: unsigned 32-bit, wrapping.
            p.offset = plan.fixedSize;
            if (type == ParamType::VarBinaryString) {
                if (plan.firstVarBinary < 0) {
                    plan.firstVarBinary = static_cast<std::int32_t>(plan.params.size());
                }
            } else if (type < ParamType::String) {
                const std::uint32_t size = elementSize(type);
                plan.fixedSize += param.length == 0 ? size : size * param.length;
            } else {
                plan.fixedSize += param.length;
            }
            plan.direct = plan.direct && p.display != DisplayKind::UnknownEnum &&
                          p.display != DisplayKind::NoEnums;
            plan.params.push_back(p);
        }
    });

    // Declaration order: each listed name takes the first parameter of that
    // name not taken yet; parameters no name lists (a dictionary changed by
    // hand) follow in wire order.
    std::vector<bool> taken(plan.params.size(), false);
    std::uint32_t field = 0;
    auto place = [&](std::size_t i) {
        taken[i] = true;
        plan.params[i].firstField = field;
        field += plan.params[i].fieldCount;
    };
    for (const std::string& name : paramOrder) {
        for (std::size_t i = 0; i < plan.params.size(); ++i) {
            if (!taken[i] && *plan.params[i].name == name) {
                place(i);
                break;
            }
        }
    }
    for (std::size_t i = 0; i < plan.params.size(); ++i) {
        if (!taken[i]) {
            place(i);
        }
    }
    plan.fieldCount = field;
    plan.fieldOrder.resize(plan.params.size());
    for (std::uint32_t i = 0; i < plan.fieldOrder.size(); ++i) {
        plan.fieldOrder[i] = i;
    }
    std::sort(plan.fieldOrder.begin(), plan.fieldOrder.end(),
              [&](std::uint32_t a, std::uint32_t b) {
                  return plan.params[a].firstField < plan.params[b].firstField;
              });
    for (ParamPlan& p : plan.params) {
        p.jsonHead = ",{\"name\":";
        appendJsonString(p.jsonHead, *p.name);
        if (p.type < ParamType::String && p.length != 0) {
            p.jsonHead += ",\"index\":";
        } else {
            p.jsonHead += jsonTypeAndValueKeys(p.type);
        }
        if (p.display == DisplayKind::Enum) {
            p.jsonEnum = ",\"enum\":";
            appendJsonString(p.jsonEnum, *p.format);
        }
    }

    plan.listed.reserve(paramOrder.size());
    for (const std::string& name : paramOrder) {
        const std::int32_t slot = plan.lookup(name);
        plan.listed.push_back(slot);
        plan.listedLead.push_back(slot < 0 ? std::string() : name + "=");
    }
}

/// Splits the log string into literal pieces and placeholder slots where
/// substituting from left to right gives what the restart-from-the-start
/// loop gives; otherwise marks the log for the general loop.
void planMessage(LogPlan& plan) {
    const std::string& text = plan.log->logString;
    if (text.find('{') == std::string::npos || text.find('}') == std::string::npos) {
        plan.shape = MessageShape::List;
        return;
    }
    plan.shape = MessageShape::Template;
    std::size_t position = 0;
    const std::string_view whole(text);
    for (;;) {
        const std::size_t open = whole.find('{', position);
        const std::size_t close = whole.find('}', position);
        if (open == std::string_view::npos || close == std::string_view::npos ||
            plan.pieces.size() == 1000) {
            break;
        }
        const std::string_view key = whole.substr(open + 1, close - open - 1);
        if (close < open || key.find('{') != std::string_view::npos) {
            // A "}" before its "{", or a key that holds a "{".
            plan.shape = MessageShape::General;
            plan.pieces.clear();
            return;
        }
        const std::int32_t slot = plan.params.lookup(key);
        if (slot < 0) {
            // Substitution stops here: the rest stays as it is.
            break;
        }
        plan.piecesMayHaveBrace =
            plan.piecesMayHaveBrace ||
            plan.params.params[static_cast<std::size_t>(slot)].textMayHaveBrace;
        MessagePiece piece;
        piece.lead = std::string(whole.substr(position, open - position));
        piece.lead += key;
        piece.lead += '=';
        piece.slot = slot;
        plan.pieces.push_back(std::move(piece));
        position = close + 1;
    }
    plan.tail = whole.substr(position);
}

/// Cuts a direct log's line after its sequence number into steps: the
/// constant text before each value, merged, then the value. A log whose text
/// may hold a NUL or whose message needs the general substitution keeps no
/// steps.
void planLineSteps(LogPlan& plan) {
    if (!plan.direct || plan.mayHaveNul || plan.shape == MessageShape::General) {
        return;
    }
    std::string texts;
    std::string pending = "] [";
    std::size_t bound = 0;
    // Arrays of up to this many elements, and byte strings and strings of up
    // to this many bytes, are written in steps.
    constexpr std::uint32_t kStepArray = 64;
    constexpr std::uint32_t kStepBytes = 4096;
    auto addStep = [&](LineStep step, std::size_t width) {
        step.textStart = static_cast<std::uint32_t>(texts.size());
        step.textLength = static_cast<std::uint32_t>(pending.size());
        texts += pending;
        pending.clear();
        bound += step.textLength + width;
        step.code = stepCode(step.value, step.type);
        if (step.code < kStepCodeNone) {
            plan.stepsPayloadBound = std::max<std::uint64_t>(
                plan.stepsPayloadBound, std::uint64_t{step.offset} + elementSize(step.type));
        }
        plan.lineSteps.push_back(step);
    };
    auto addValue = [&](const TablePlan& table, std::size_t index) {
        const ParamPlan& param = table.params[index];
        LineStep step;
        step.type = param.type;
        step.offset = param.offset;
        step.table = &table;
        step.index = static_cast<std::uint32_t>(index);
        step.value = StepValue::Other;
        if (param.type == ParamType::BinaryString && param.length <= kStepBytes) {
            step.value = param.length == 0 ? StepValue::None : StepValue::Bytes;
            step.length = param.length;
            addStep(step, 3 * std::size_t{param.length});
            return;
        }
        if (param.type == ParamType::String && param.length <= kStepBytes) {
            step.value = StepValue::Text;
            step.length = param.length;
            addStep(step, param.length);
            return;
        }
        if (param.type == ParamType::VarBinaryString && &table == &plan.params &&
            param.length <= kStepBytes) {
            // The counts are read when the record is decoded (of the log's
            // own parameters only: a module header's are never decoded).
            step.value = StepValue::VarBytes;
            addStep(step, sizeof kVarBytesLead - 1 + 5 + 1 + 3 * std::size_t{param.length});
            return;
        }
        if (param.type < ParamType::String && param.length != 0 && param.length <= kStepArray &&
            param.display != DisplayKind::Enum) {
            // "[name[0]=v0,name[1]=v1,...]": one step an element.
            step.value = param.display == DisplayKind::Hex          ? StepValue::Hex
                         : param.display == DisplayKind::FrameStamp ? StepValue::FrameStamp
                                                                    : StepValue::Decimal;
            const std::size_t width = step.value == StepValue::FrameStamp ? 7 : 21;
            pending += '[';
            for (std::uint32_t i = 0; i < param.length; ++i) {
                if (i != 0) {
                    pending += ',';
                }
                appendLabel(pending, *param.name, i);
                addStep(step, width);
                step.offset += elementSize(param.type);  // unsigned 32-bit, wrapping
            }
            pending += ']';
            return;
        }
        std::size_t width = 0;
        if (param.type < ParamType::String && param.length == 0) {
            switch (param.display) {
                case DisplayKind::Decimal:
                    step.value = StepValue::Decimal;
                    width = 21;
                    break;
                case DisplayKind::Hex:
                    step.value = StepValue::Hex;
                    width = 18;
                    break;
                case DisplayKind::FrameStamp:
                    step.value = StepValue::FrameStamp;
                    width = 7;
                    break;
                case DisplayKind::Enum:
                    step.value = StepValue::Enum;
                    step.enumTable = param.enumTable;
                    for (const EnumTable::Entry& entry : param.enumTable->entries) {
                        width = std::max(width, entry.text->size());
                    }
                    break;
                default:
                    break;  // not direct
            }
        }
        addStep(step, width);
    };

    const ModulePlan& module = *plan.module;
    if (module.hasHeader) {
        const TablePlan& header = module.header;
        bool any = false;
        for (std::size_t i = 0; i < header.listed.size(); ++i) {
            if (header.listed[i] >= 0) {
                pending += header.listedLead[i];
                addValue(header, static_cast<std::size_t>(header.listed[i]));
                pending += ' ';
                any = true;
            }
        }
        if (any) {
            pending += "] [";
        }
    }
    plan.messageStep = static_cast<std::uint32_t>(plan.lineSteps.size());
    plan.messageOffset = static_cast<std::uint32_t>(pending.size());
    const TablePlan& params = plan.params;
    if (plan.shape == MessageShape::List) {
        pending += plan.log->logString;
        pending += ' ';
        for (std::size_t i = 0; i < params.listed.size(); ++i) {
            if (params.listed[i] >= 0) {
                pending += params.listedLead[i];
                addValue(params, static_cast<std::size_t>(params.listed[i]));
                pending += ' ';
            }
        }
    } else {
        for (const MessagePiece& piece : plan.pieces) {
            pending += piece.lead;
            addValue(params, static_cast<std::size_t>(piece.slot));
        }
        pending += plan.tail;
    }
    pending += "] \n";
    LineStep last;
    last.textStart = static_cast<std::uint32_t>(texts.size());
    last.textLength = static_cast<std::uint32_t>(pending.size());
    texts += pending;
    bound += pending.size();
    plan.lineSteps.push_back(last);
    plan.lineText = std::move(texts);
    plan.lineText.append(kStepTextSlack, '\0');
    plan.lineBound = bound;
}

std::string padded(std::string_view text, std::size_t width) {
    std::string out;
    appendPadded(out, printed(text), width);
    return out;
}

}  // namespace

void PlanSet::build(const std::map<std::uint16_t, ModuleDetails>& modules,
                    const std::map<std::uint16_t, std::map<std::uint16_t, LogDetails>>& logs,
                    const BinaryLogDisplayFormatter& formatter) {
    enums_ = std::make_unique<EnumTables>(formatter);
    modules_.clear();
    logs_.clear();
    byIndex_.clear();
    moduleSlot_.assign(65536, 0);

    for (const auto& [key, logTable] : logs) {
        const auto module = modules.find(key);
        if (module == modules.end()) {
            continue;  // a log id of this module is not valid
        }
        auto modulePlan = std::make_unique<ModulePlan>();
        modulePlan->module = &module->second;
        modulePlan->key = key;
        modulePlan->hasHeader = module->second.hasModuleHeader;
        modulePlan->headerPadding = module->second.headerPadding;
        bool moduleNul = hasNul(module->second.subsystemName) || hasNul(module->second.moduleName);
        if (modulePlan->hasHeader) {
            planTable(module->second, module->second.paramOrder, true, *enums_, modulePlan->header,
                      moduleNul);
        }
        modulePlan->source =
            padded(module->second.subsystemName + ":" + module->second.moduleName, 10);

        std::vector<const LogPlan*> byIndex;
        for (const auto& [index, log] : logTable) {
            auto plan = std::make_unique<LogPlan>();
            plan->log = &log;
            plan->module = modulePlan.get();
            plan->logIndex = index;
            plan->binlogVersion = module->second.binlogVersion;
            plan->subsystemName = module->second.subsystemName;
            plan->moduleName = module->second.moduleName;
            plan->logName = log.logName;
            plan->categoryName = log.category;
            plan->mayHaveNul =
                moduleNul || hasNul(log.logString) || hasNul(log.logName) || hasNul(log.category);
            planTable(log, log.paramOrder, false, *enums_, plan->params, plan->mayHaveNul);
            // The log's parameters follow the module header and its padding.
            const std::uint32_t base =
                modulePlan->hasHeader ? modulePlan->header.fixedSize + modulePlan->headerPadding
                                      : 0;
            for (ParamPlan& param : plan->params.params) {
                param.offset += base;
            }
            plan->direct =
                plan->params.direct && (!modulePlan->hasHeader || modulePlan->header.direct);
            plan->paddedName = padded(log.logName, 25);
            plan->paddedCategory = padded(log.category, 10);
            plan->lineHead = "] [" + modulePlan->source + "] [" + plan->paddedName + "] [";
            plan->lineCategory = "] [" + plan->paddedCategory + "] [";
            plan->name = printed(log.logName);
            plan->category = printed(log.category);
            plan->jsonNames = ",\"subsystem\":";
            appendJsonString(plan->jsonNames, module->second.subsystemName);
            plan->jsonNames += ",\"module\":";
            appendJsonString(plan->jsonNames, module->second.moduleName);
            plan->jsonNames += ",\"log\":";
            appendJsonString(plan->jsonNames, log.logName);
            plan->jsonNames += ",\"level\":";
            plan->jsonCategory = ",\"category\":";
            appendJsonString(plan->jsonCategory, log.category);
            planMessage(*plan);
            planLineSteps(*plan);
            if (byIndex.size() <= index) {
                byIndex.resize(static_cast<std::size_t>(index) + 1, nullptr);
            }
            byIndex[index] = plan.get();
            logs_.push_back(std::move(plan));
        }
        byIndex_.push_back(std::move(byIndex));
        moduleSlot_[key] = static_cast<std::uint32_t>(byIndex_.size());
        modules_.push_back(std::move(modulePlan));
    }
}

}  // namespace detail
}  // namespace Tav
