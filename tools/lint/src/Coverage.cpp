// Coverage: what a set of captures holds, log by log, against a loaded
// dictionary, read through the library's capture streams.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "BinaryLogXmlReader.h"
#include "Lint.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"

namespace wexbl_lint {
namespace {

/// The enumeration a parameter's display format names, or null.
const std::map<std::string, std::string>* enumerationOf(const Tav::BinaryLogXmlReader& reader,
                                                        const std::string& format,
                                                        bool unsigned32) {
    if (format == "DefaultDisplay" || format == "hex" || (format == "SF-SFN" && unsigned32)) {
        return nullptr;
    }
    const auto& formats = reader.displayFormatter.displayFormats;
    const auto found = formats.find(format);
    return found == formats.end() ? nullptr : &found->second;
}

struct EnumParam {
    std::string enumName;
    const std::map<std::string, std::string>* table = nullptr;
};
using EnumParams = std::map<std::string, EnumParam>;

template <typename T>
void addEnums(const Tav::BinaryLogXmlReader& reader, const std::vector<Tav::TavLogParam<T>>& list,
              bool unsigned32, EnumParams& params) {
    for (const auto& param : list) {
        if (const auto* table = enumerationOf(reader, param.displayFormat, unsigned32)) {
            params[param.name] = EnumParam{param.displayFormat, table};
        }
    }
}

EnumParams enumParamsOf(const Tav::BinaryLogXmlReader& reader, const Tav::FlexiParams& p) {
    EnumParams params;
    addEnums(reader, p.uint64Params, false, params);
    addEnums(reader, p.int64Params, false, params);
    addEnums(reader, p.uint32Params, true, params);
    addEnums(reader, p.int32Params, false, params);
    addEnums(reader, p.uint16Params, false, params);
    addEnums(reader, p.int16Params, false, params);
    addEnums(reader, p.uint8Params, false, params);
    addEnums(reader, p.int8Params, false, params);
    return params;
}

void see(Coverage::Seen& seen, std::string_view capture, std::uint64_t record) {
    if (seen.count++ == 0) {
        seen.firstCapture = std::string(capture);
        seen.firstRecord = record;
    }
}

std::string hex(std::uint32_t value, int digits) {
    char text[16];
    snprintf(text, sizeof text, "0x%0*" PRIx32, digits, value);
    return text;
}

std::string times(std::uint64_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string first(const Coverage::Seen& seen) {
    return "first in " + seen.firstCapture + " record " + std::to_string(seen.firstRecord);
}

std::string logName(const Coverage& coverage, std::uint32_t logId) {
    const auto module = coverage.modules.find(static_cast<std::uint16_t>(logId >> 16));
    if (module == coverage.modules.end()) {
        return "";
    }
    const auto log = module->second.logs.find(static_cast<std::uint16_t>(logId & 0xFFFFu));
    return log == module->second.logs.end() ? "" : log->second.name;
}

}  // namespace

Coverage measureCoverage(const Tav::BinaryLogXmlReader& reader,
                         const std::vector<std::string>& captures, std::uint16_t udpPort) {
    Coverage coverage;
    std::map<std::uint16_t, EnumParams> headerEnums;
    std::map<std::uint32_t, EnumParams> logEnums;
    const bool enumsLoaded = reader.displayFormatter.isGood();
    for (const auto& [key, module] : reader.moduleDetailsMap) {
        Coverage::Module& entry = coverage.modules[key];
        entry.subsystem = module.subsystemName;
        entry.module = module.moduleName;
        headerEnums[key] = enumParamsOf(reader, module);
        const auto logs = reader.logDetailsMap.find(key);
        if (logs == reader.logDetailsMap.end()) {
            continue;
        }
        for (const auto& [index, log] : logs->second) {
            entry.logs[index].name = log.logName;
            logEnums[(std::uint32_t{key} << 16) | index] = enumParamsOf(reader, log);
        }
    }
    Tav::StreamOptions options;
    options.udpPort = udpPort;
    options.texts = false;
    for (const std::string& capture : captures) {
        Tav::CaptureStream stream(reader, capture, options);
        while (stream.next()) {
            if (const Tav::Event* event = stream.event()) {
                switch (event->kind) {
                    case Tav::EventKind::UnknownLogId:
                        see(coverage.unknownLogIds[event->logId], event->capture, event->record);
                        break;
                    case Tav::EventKind::VersionMismatch:
                        see(coverage.versionMismatches[event->logId][event->version],
                            event->capture, event->record);
                        break;
                    case Tav::EventKind::LevelOutOfRange:
                        see(coverage.levelsOutOfRange[event->logId][event->level], event->capture,
                            event->record);
                        break;
                    case Tav::EventKind::OpenFailed:
                    case Tav::EventKind::NoGlobalHeader:
                    case Tav::EventKind::BadLinkType:
                    case Tav::EventKind::NotACapture:
                    case Tav::EventKind::Oversized:
                    case Tav::EventKind::Truncated:
                    case Tav::EventKind::DataError:
                    case Tav::EventKind::ReadError: {
                        std::string text(event->text);
                        while (!text.empty() && text.back() == '\n') {
                            text.pop_back();
                        }
                        coverage.problems.push_back(capture + ": " + text);
                        break;
                    }
                    default:
                        break;
                }
                continue;
            }
            const Tav::Record* record = stream.record();
            if (record == nullptr || (record->kind != Tav::RecordKind::BinLog &&
                                      record->kind != Tav::RecordKind::Legacy)) {
                continue;
            }
            ++coverage.records;
            const std::uint32_t logId = (std::uint32_t{record->moduleKey} << 16) | record->logIndex;
            const auto module = coverage.modules.find(record->moduleKey);
            if (module != coverage.modules.end()) {
                ++module->second.logs[record->logIndex].records;
            }
            if (!enumsLoaded) {
                continue;
            }
            auto missing = [&](const Tav::View<Tav::ParamField>& fields, const EnumParams& enums) {
                for (const Tav::ParamField& field : fields) {
                    if (!field.isInteger()) {
                        continue;
                    }
                    const auto param = enums.find(std::string(field.name));
                    if (param == enums.end()) {
                        continue;
                    }
                    const std::string value = field.isSigned() ? std::to_string(field.asSigned())
                                                               : std::to_string(field.raw);
                    if (param->second.table->count(value) != 0) {
                        continue;
                    }
                    Coverage::Missing& entry =
                        coverage.missingEnumValues[logId][std::string(field.name)];
                    entry.enumName = param->second.enumName;
                    see(entry.values[value], record->capture, record->number);
                }
            };
            missing(record->header(), headerEnums[record->moduleKey]);
            missing(record->params(), logEnums[logId]);
        }
    }
    return coverage;
}

std::string formatCoverageText(const Coverage& coverage) {
    std::string out;
    std::size_t logs = 0;
    std::size_t seen = 0;
    for (const auto& [key, module] : coverage.modules) {
        std::uint64_t records = 0;
        std::size_t moduleSeen = 0;
        for (const auto& entry : module.logs) {
            records += entry.second.records;
            moduleSeen += entry.second.records != 0 ? 1 : 0;
        }
        logs += module.logs.size();
        seen += moduleSeen;
        out += "module " + module.subsystem + ":" + module.module + " (key " + hex(key, 4) +
               "): " + times(records, "record", "records") + ", " + std::to_string(moduleSeen) +
               " of " + times(module.logs.size(), "log", "logs") + " seen\n";
        for (const auto& [index, log] : module.logs) {
            out += "  log " + hex((std::uint32_t{key} << 16) | index, 8) + " " + log.name + ": " +
                   (log.records != 0 ? times(log.records, "record", "records")
                                     : std::string("never seen")) +
                   "\n";
        }
    }
    for (const auto& [logId, seenId] : coverage.unknownLogIds) {
        out += "unknown log id " + hex(logId, 8) + ": " + times(seenId.count, "record", "records") +
               ", " + first(seenId) + "\n";
    }
    for (const auto& [logId, versions] : coverage.versionMismatches) {
        for (const auto& [version, seenVersion] : versions) {
            out += "version mismatch: log " + hex(logId, 8) + " " + logName(coverage, logId) +
                   " with version " + std::to_string(version) + ": " +
                   times(seenVersion.count, "record", "records") + ", " + first(seenVersion) + "\n";
        }
    }
    for (const auto& [logId, levels] : coverage.levelsOutOfRange) {
        for (const auto& [level, seenLevel] : levels) {
            out += "level out of range: log " + hex(logId, 8) + " " + logName(coverage, logId) +
                   " with level " + std::to_string(level) + ": " +
                   times(seenLevel.count, "record", "records") + ", " + first(seenLevel) + "\n";
        }
    }
    for (const auto& [logId, params] : coverage.missingEnumValues) {
        for (const auto& [name, missing] : params) {
            for (const auto& [value, seenValue] : missing.values) {
                out += "missing enumeration value: log " + hex(logId, 8) + " " +
                       logName(coverage, logId) + " parameter " + name + " (" + missing.enumName +
                       ") value " + value + ": " + times(seenValue.count, "time", "times") + ", " +
                       first(seenValue) + "\n";
            }
        }
    }
    for (const std::string& problem : coverage.problems) {
        out += "problem: " + problem + "\n";
    }
    out += "total: " + times(coverage.records, "record", "records") + ", " + std::to_string(seen) +
           " of " + times(logs, "log", "logs") + " seen\n";
    return out;
}

namespace {

void appendSeen(std::string& out, const char* countName, const Coverage::Seen& seen) {
    out +=
        std::string(",\"") + countName + "\":" + std::to_string(seen.count) + ",\"firstCapture\":";
    appendJsonString(out, seen.firstCapture);
    out += ",\"firstRecord\":" + std::to_string(seen.firstRecord) + "}\n";
}

void appendLog(std::string& out, const Coverage& coverage, std::uint32_t logId) {
    out += ",\"logId\":\"" + hex(logId, 8) + "\",\"log\":";
    appendJsonString(out, logName(coverage, logId));
}

}  // namespace

std::string formatCoverageJson(const Coverage& coverage) {
    std::string out;
    std::size_t logs = 0;
    std::size_t seen = 0;
    for (const auto& [key, module] : coverage.modules) {
        for (const auto& [index, log] : module.logs) {
            ++logs;
            seen += log.records != 0 ? 1 : 0;
            out += "{\"type\":\"log\",\"module\":";
            appendJsonString(out, module.subsystem + ":" + module.module);
            out += ",\"key\":\"" + hex(key, 4) + "\"";
            appendLog(out, coverage, (std::uint32_t{key} << 16) | index);
            out += ",\"records\":" + std::to_string(log.records) + "}\n";
        }
    }
    for (const auto& [logId, seenId] : coverage.unknownLogIds) {
        out += "{\"type\":\"unknown-log-id\",\"logId\":\"" + hex(logId, 8) + "\"";
        appendSeen(out, "records", seenId);
    }
    for (const auto& [logId, versions] : coverage.versionMismatches) {
        for (const auto& [version, seenVersion] : versions) {
            out += "{\"type\":\"version-mismatch\"";
            appendLog(out, coverage, logId);
            out += ",\"version\":" + std::to_string(version);
            appendSeen(out, "records", seenVersion);
        }
    }
    for (const auto& [logId, levels] : coverage.levelsOutOfRange) {
        for (const auto& [level, seenLevel] : levels) {
            out += "{\"type\":\"level-out-of-range\"";
            appendLog(out, coverage, logId);
            out += ",\"level\":" + std::to_string(level);
            appendSeen(out, "records", seenLevel);
        }
    }
    for (const auto& [logId, params] : coverage.missingEnumValues) {
        for (const auto& [name, missing] : params) {
            for (const auto& [value, seenValue] : missing.values) {
                out += "{\"type\":\"missing-enum-value\"";
                appendLog(out, coverage, logId);
                out += ",\"parameter\":";
                appendJsonString(out, name);
                out += ",\"enum\":";
                appendJsonString(out, missing.enumName);
                out += ",\"value\":";
                appendJsonString(out, value);
                appendSeen(out, "count", seenValue);
            }
        }
    }
    for (const std::string& problem : coverage.problems) {
        out += "{\"type\":\"problem\",\"message\":";
        appendJsonString(out, problem);
        out += "}\n";
    }
    out += "{\"type\":\"total\",\"records\":" + std::to_string(coverage.records) +
           ",\"logs\":" + std::to_string(logs) + ",\"logsSeen\":" + std::to_string(seen) + "}\n";
    return out;
}

std::string formatSummary(const Tav::BinaryLogXmlReader& reader) {
    // Names are copied whole (no fixed-size buffer), padded as "%-Ns" pads.
    auto padded = [](const std::string& text, std::size_t width) {
        return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
    };
    std::string out = std::to_string(reader.binLogFiles.size()) + " binlog file(s), " +
                      std::to_string(reader.binDisplayFiles.size()) + " bindisplay file(s)\n";
    for (const auto& [key, module] : reader.moduleDetailsMap) {
        const auto logs = reader.logDetailsMap.find(key);
        const std::size_t logCount = logs == reader.logDetailsMap.end() ? 0 : logs->second.size();
        out += "module " + hex(key, 4) + " " + module.subsystemName + ":" + module.moduleName +
               " version " + std::to_string(module.binlogVersion) + ", " +
               std::to_string(logCount) + " log(s)" +
               (module.hasModuleHeader ? ", with module header" : "") + "\n";
        if (logs == reader.logDetailsMap.end()) {
            continue;
        }
        for (const auto& [index, log] : logs->second) {
            out += "  log id " + hex((std::uint32_t{key} << 16) | index, 8) + " " +
                   padded(log.logName, 28) + " " + padded(log.category, 10) + " " +
                   std::to_string(log.paramOrder.size()) + " parameter(s)\n";
        }
    }
    for (const auto& [name, table] : reader.displayFormatter.displayFormats) {
        out += "enum " + name + ": " + std::to_string(table.size()) + " value(s)\n";
    }
    return out;
}

}  // namespace wexbl_lint
