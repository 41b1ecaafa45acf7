// Legacy log records: a fixed 56-byte payload spread over the first
// parameters of the log's description, printed in their own layout.
//
//  0      4                        24         28             42             56
//  +------+------------------------+----------+--------------+--------------+
//  |frame | five u32 values        | four u8  | text (14)    | text (14)    |
//  +------+------------------------+----------+--------------+--------------+
//
//  [time] [source] [log name] [level] [category] [seqNo] [FFFF-SS] [tag]  [CID=n] text a=1 ...
//  trailer=x
#include <cstring>

#include "records/Decoder.h"
#include "records/Values.h"

namespace Tav {
namespace detail {

namespace {

/// Bytes of each of the two NUL-padded text fields.
constexpr std::size_t kLegacyTextBytes = 14;

/// The text field at `offset`: the text up to its first NUL, all 14
/// characters when there is none.
std::string_view legacyText(const ByteReader& payload, std::uint64_t offset, char (&buf)[14]) {
    payload.copy(offset, buf, sizeof buf);
    return std::string_view(buf, strnlen(buf, sizeof buf));
}

}  // namespace

void RecordDecoder::decodeLegacy(const LogPlan& plan, const ByteReader& payload) {
    const LogDetails& log = *plan.log;
    const ModulePlan& module = *plan.module;
    arena_.clear();

    const std::uint32_t frameTiming = payload.get_u32le(0);
    std::uint32_t words[5];
    for (std::size_t i = 0; i < 5; ++i) {
        words[i] = payload.get_u32le(4 + 4 * i);
    }
    std::uint8_t bytes[4];
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[i] = payload.get_u8(24 + i);
    }
    char buffers[2][kLegacyTextBytes];
    const std::string_view texts[2] = {legacyText(payload, 28, buffers[0]),
                                       legacyText(payload, 42, buffers[1])};
    // The values land on the first five, four and two parameters of the
    // three lists; the others keep the values the dictionary holds.
    auto wordOf = [&](std::size_t i) { return i < 5 ? words[i] : log.uint32Params[i].value; };
    auto byteOf = [&](std::size_t i) { return i < 4 ? bytes[i] : log.uint8Params[i].value; };
    auto textOf = [&](std::size_t i) -> std::string_view {
        return i < 2 ? texts[i] : std::string_view(log.stringParams[i].value);
    };

    record_.kind = RecordKind::Legacy;
    record_.subsystem = module.module->subsystemName;
    record_.module = module.module->moduleName;
    record_.log = log.logName;
    record_.category = log.category;
    record_.frameTiming = frameTiming;
    const LevelTable::Level& level = levels_->get(header_.logLevel);
    record_.levelName = *level.name;

    if (settings_.fields) {
        // The first five, four and two parameters carry the payload's values.
        legacyFields_.clear();
        auto add = [&](const std::string& name, ParamType type, std::uint64_t raw) {
            ParamField field;
            field.name = name;
            field.type = type;
            field.raw = raw;
            legacyFields_.push_back(field);
        };
        for (std::size_t i = 0; i < log.uint32Params.size() && i < 5; ++i) {
            add(log.uint32Params[i].name, ParamType::Uint32, words[i]);
        }
        for (std::size_t i = 0; i < log.uint8Params.size() && i < 4; ++i) {
            add(log.uint8Params[i].name, ParamType::Uint8, bytes[i]);
        }
        for (std::size_t i = 0; i < log.stringParams.size() && i < 2; ++i) {
            add(log.stringParams[i].name, ParamType::String, 0);
        }
        // Texts and bytes go to the arena; views are taken once it is full.
        FieldSpan refs[11];
        std::size_t textIndex = 0;
        for (std::size_t i = 0; i < legacyFields_.size(); ++i) {
            const std::size_t at = arena_.size();
            if (legacyFields_[i].type == ParamType::String) {
                arena_.append(texts[textIndex++]);
            } else {
                appendDecimal(arena_, legacyFields_[i].raw);
            }
            refs[i].text = at;
            refs[i].textSize = arena_.size() - at;
        }
        for (std::size_t i = 0; i < legacyFields_.size(); ++i) {
            ParamField& field = legacyFields_[i];
            const std::string_view text = arena_.view(refs[i].text, refs[i].textSize);
            if (field.type == ParamType::String) {
                field.bytes = text;
            }
            if (settings_.texts) {
                field.text = text;
            }
        }
        paramsView_ = View<ParamField>(legacyFields_.data(), legacyFields_.size());
    }
    valuesFilled_ = true;
    if (!filterKeeps()) {
        return;
    }
    produced_ = true;
    if (!settings_.texts) {
        return;
    }

    startLine(pcap_);
    appendLiteral(*line_, "] [");
    line_->append(module.source);
    appendLiteral(*line_, "] [");
    line_->append(plan.paddedName);
    appendLiteral(*line_, "] [");
    line_->append(level.padded);
    appendLiteral(*line_, "] [");
    line_->append(plan.paddedCategory);
    appendLiteral(*line_, "] [");
    appendDecimal(*line_, header_.seqNo);
    appendLiteral(*line_, "] [");
    appendFrameStamp(*line_, frameTiming);
    appendLiteral(*line_, "] ");

    // One string parameter is the tag; with two, the second is a trailer.
    const std::size_t strings = log.stringParams.size();
    const bool hasTag = strings == 1 || strings == 2;
    if (hasTag && !log.stringParams[0].name.empty()) {
        line_->push_back('[');
        appendPadded(*line_, printed(textOf(0)), 14);
        appendLiteral(*line_, "] ");
    }
    const std::string_view logString = printed(log.logString);
    const std::size_t byteParams = log.uint8Params.size();
    const std::uint8_t cid = byteParams == 0 ? 0 : byteOf(byteParams - 1);
    if (cid != 0) {
        appendLiteral(*line_, " [CID=");
        appendDecimal(*line_, cid);
        appendLiteral(*line_, "] ");
    } else {
        line_->push_back(' ');
    }
    const std::size_t messageStart = line_->size();
    line_->append(logString);
    line_->push_back(' ');
    for (std::size_t i = 0; i < log.uint32Params.size(); ++i) {
        line_->append(printed(log.uint32Params[i].name));
        line_->push_back('=');
        appendDecimal(*line_, wordOf(i));
        line_->push_back(' ');
    }
    if (strings == 2 && !log.stringParams[1].name.empty()) {
        line_->append(printed(log.stringParams[1].name));
        line_->push_back('=');
        line_->append(printed(textOf(1)));
        line_->push_back(' ');
    }
    const std::size_t messageEnd = line_->size();
    line_->push_back('\n');
    record_.text = line_->view(lineStart_, line_->size() - lineStart_);
    record_.message = line_->view(messageStart, messageEnd - messageStart);
}

}  // namespace detail
}  // namespace Tav
