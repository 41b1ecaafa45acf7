#include "BenchSupport.h"

#include <stdlib.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "binlog_synth/Capture.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/RandomMix.h"

namespace wexbl_bench {

TempDir::TempDir(const char* tag) {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/wexbl-bench-" + tag + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::writeFile(const std::string& name, const std::string& text) const {
    const std::string file = path_ + "/" + name;
    FILE* f = fopen(file.c_str(), "wb");
    if (f == nullptr || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0) {
        perror(file.c_str());
        abort();
    }
}

namespace {

/// One kind of parameter declaration of the generated logs.
struct Declaration {
    const char* type;
    const char* nameList;
    const char* placeholder;  // a name of nameList
    const char* count;        // nullptr: no attribute
    const char* size;
    const char* displayFormat;  // "@" : an enumeration of the dictionary
};

// Twelve declarations; a log takes 3 to 7 of them, starting at a different
// one each time, so every kind and every combination of neighbours occurs.
const Declaration kDeclarations[] = {
    {"TavUint32_t", "ueId,bearer", "ueId", nullptr, nullptr, nullptr},
    {"TavUint16_t", "rnti", "rnti", nullptr, nullptr, nullptr},
    {"TavUint16_t", "cause", "cause", nullptr, nullptr, "@"},
    {"TavInt32_t", "offset", "offset", nullptr, nullptr, "hex"},
    {"TavUint32_t", "sfn", "sfn", nullptr, nullptr, "SF-SFN"},
    {"TavInt16_t", "rssi", "rssi", "4", nullptr, nullptr},
    {"TavUint64_t", "imsi", "imsi", nullptr, nullptr, nullptr},
    {"TavInt8_t", "power", "power", nullptr, nullptr, nullptr},
    {"TavInt64_t", "delayNs", "delayNs", nullptr, nullptr, nullptr},
    {"string", "tag", "tag", nullptr, "16", nullptr},
    {"binarystring", "pdu", "pdu", nullptr, "8", nullptr},
    {"varbinarystring", "raw", "raw", nullptr, "64", nullptr},
};
constexpr std::size_t kDeclarationCount = sizeof kDeclarations / sizeof kDeclarations[0];

std::string enumName(std::size_t index) {
    return "Enum" + std::to_string(index);
}

void appendDeclaration(std::string& xml, const Declaration& d, const std::string& enumeration) {
    xml += "    <param type=\"";
    xml += d.type;
    xml += "\" nameList=\"";
    xml += d.nameList;
    xml += '"';
    if (d.count != nullptr) {
        xml += " count=\"";
        xml += d.count;
        xml += '"';
    }
    if (d.size != nullptr) {
        xml += " size=\"";
        xml += d.size;
        xml += '"';
    }
    if (d.displayFormat != nullptr) {
        xml += " displayFormat=\"";
        xml += d.displayFormat[0] == '@' ? enumeration : std::string(d.displayFormat);
        xml += '"';
    }
    xml += "/>\n";
}

std::string generatedBinlogFile(std::size_t module, const DictionaryShape& shape) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    const std::size_t subsystemId = module / 250 + 1;
    const std::size_t moduleId = module % 250;
    xml += "<LoggingSubSystem subsystem=\"SS" + std::to_string(subsystemId) + "\" subsystemId=\"" +
           std::to_string(subsystemId) + "\" module=\"mod" + std::to_string(module) +
           "\" moduleid=\"" + std::to_string(moduleId) + "\" binlogversion=\"" +
           std::to_string(1 + module % 3) + "\">\n";
    if (module % 5 != 4) {
        xml += "  <ModuleHeader>\n";
        if (module % 3 == 1) {
            xml += "    <param type=\"TavUint64_t\" nameList=\"frameNs\"/>\n";
        }
        xml += "    <param type=\"TavUint32_t\" nameList=\"cellId\"/>\n";
        xml += "    <param type=\"TavUint16_t\" nameList=\"carrier\"/>\n";
        xml += "    <param type=\"TavUint8_t\" nameList=\"state\" displayFormat=\"" +
               enumName(module % shape.enums) + "\"/>\n";
        xml += "  </ModuleHeader>\n";
    }
    for (std::size_t log = 1; log <= shape.logsPerModule; ++log) {
        const std::size_t g = module * shape.logsPerModule + log;
        const std::string name = "Log" + std::to_string(module) + "_" + std::to_string(log);
        if (log == 1) {
            // The fixed layout of legacy records: five u32, four u8 (the last
            // one is the CID), two 14-byte texts.
            xml += "  <LogId name=\"Legacy" + name +
                   "\" category=\"legacy\" logString=\"legacy trace of module " +
                   std::to_string(module) + "\">\n";
            xml += "    <param type=\"TavUint32_t\" nameList=\"ueId,rnti,lcid,bytes,rbs\"/>\n";
            xml += "    <param type=\"TavUint8_t\" nameList=\"mcs,rank,harq,cid\"/>\n";
            xml += "    <param type=\"string\" nameList=\"tag,detail\"/>\n";
            xml += "  </LogId>\n";
            continue;
        }
        const std::size_t declarations = 3 + g % 5;
        std::vector<const Declaration*> chosen;
        for (std::size_t j = 0; j < declarations; ++j) {
            chosen.push_back(&kDeclarations[(g + 5 * j) % kDeclarationCount]);
        }
        std::string logString;
        if (g % 4 == 3) {
            logString = "event " + name + " without placeholders";
        } else {
            logString = "event " + name + ":";
            for (std::size_t j = 0; j < chosen.size() && j < 4; ++j) {
                logString +=
                    std::string(" ") + chosen[j]->placeholder + " {" + chosen[j]->placeholder + "}";
            }
            logString += " done";
        }
        xml += "  <LogId name=\"" + name + "\" category=\"CAT" + std::to_string(g % 7) +
               ",extra\" logString=\"" + logString + "\">\n";
        for (const Declaration* d : chosen) {
            appendDeclaration(xml, *d, enumName(g % shape.enums));
        }
        xml += "  </LogId>\n";
    }
    xml += "</LoggingSubSystem>\n";
    return xml;
}

std::string generatedDisplayFile(const DictionaryShape& shape) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<displays>\n";
    for (std::size_t e = 0; e < shape.enums; ++e) {
        xml += "  <enum name=\"" + enumName(e) + "\">\n";
        for (std::size_t v = 0; v < shape.valuesPerEnum; ++v) {
            const std::string value = std::to_string(v);
            xml += "    <entry value=\"" + value + "\" text=\"" + enumName(e) + "_value" + value +
                   "\"/>\n";
        }
        xml += "  </enum>\n";
    }
    xml += "</displays>\n";
    return xml;
}

const char kRecordCellBinlog[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<LoggingSubSystem subsystem="L1" subsystemId="1" module="cell" moduleid="2" binlogversion="3">
  <ModuleHeader>
    <param type="TavUint32_t" nameList="cellId"/>
    <param type="TavUint16_t" nameList="carrier"/>
    <param type="TavUint8_t" nameList="state" displayFormat="CellState"/>
  </ModuleHeader>
  <LogId name="CellReport" category="RRM"
         logString="UE {ueId} rnti {rnti} at {sfn} cause {cause} rssi {rssi} tag {tag}">
    <param type="TavUint64_t" nameList="imsi"/>
    <param type="TavInt64_t" nameList="delayNs"/>
    <param type="TavUint32_t" nameList="ueId"/>
    <param type="TavUint32_t" nameList="sfn" displayFormat="SF-SFN"/>
    <param type="TavInt32_t" nameList="offset" displayFormat="hex"/>
    <param type="TavUint16_t" nameList="rnti"/>
    <param type="TavInt16_t" nameList="rssi" count="4"/>
    <param type="TavUint8_t" nameList="cause" displayFormat="Cause"/>
    <param type="TavInt8_t" nameList="power"/>
    <param type="string" nameList="tag" size="16"/>
    <param type="binarystring" nameList="pdu" size="8"/>
    <param type="varbinarystring" nameList="raw" size="64"/>
  </LogId>
  <LogId name="CellStats" category="STATS" logString="Cell statistics">
    <param type="TavUint32_t" nameList="rxBytes,txBytes,rxPackets,txPackets"/>
    <param type="TavUint16_t" nameList="users,bearers"/>
  </LogId>
  <LogId name="LegacyTrace" category="legacy" logString="legacy scheduler trace">
    <param type="TavUint32_t" nameList="ueId,rnti,lcid,bytes,rbs"/>
    <param type="TavUint8_t" nameList="mcs,rank,harq,cid"/>
    <param type="string" nameList="tag,detail"/>
  </LogId>
</LoggingSubSystem>
)";

const char kRecordOamBinlog[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<LoggingSubSystem subsystem="OAM" subsystemId="9" module="sys" moduleid="1" binlogversion="1">
  <LogId name="FanAlarm" category="ALARM" logString="Fan {fan} speed {rpm} severity {severity}">
    <param type="TavUint8_t" nameList="fan"/>
    <param type="TavUint32_t" nameList="rpm"/>
    <param type="TavUint8_t" nameList="severity" displayFormat="Severity"/>
  </LogId>
</LoggingSubSystem>
)";

const char kRecordDisplay[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<displays>
  <enum name="CellState">
    <entry value="0" text="IDLE"/>
    <entry value="1" text="CONFIGURED"/>
    <entry value="2" text="ACTIVE"/>
    <entry value="3" text="BLOCKED"/>
  </enum>
  <enum name="Cause">
    <entry value="0" text="emergency"/>
    <entry value="1" text="highPriorityAccess"/>
    <entry value="2" text="mt-Access"/>
    <entry value="3" text="mo-Signalling"/>
    <entry value="4" text="mo-Data"/>
    <entry value="5" text="mo-VoiceCall"/>
    <entry value="6" text="mo-VideoCall"/>
    <entry value="7" text="mo-SMS"/>
    <entry value="8" text="mps-PriorityAccess"/>
    <entry value="9" text="mcs-PriorityAccess"/>
    <entry value="10" text="spare6"/>
    <entry value="11" text="spare5"/>
    <entry value="12" text="spare4"/>
    <entry value="13" text="spare3"/>
    <entry value="14" text="spare2"/>
    <entry value="15" text="spare1"/>
  </enum>
  <enum name="Severity">
    <entry value="1" text="CRITICAL"/>
    <entry value="2" text="MAJOR"/>
    <entry value="3" text="MINOR"/>
    <entry value="4" text="WARNING"/>
  </enum>
</displays>
)";

}  // namespace

void writeGeneratedDictionary(const TempDir& dir, const DictionaryShape& shape) {
    if (shape.enums == 0) {
        throw std::invalid_argument("a generated dictionary needs at least one enumeration");
    }
    for (std::size_t module = 0; module < shape.modules; ++module) {
        char name[64];
        snprintf(name, sizeof name, "m%04zu_binlog.xml", module);
        dir.writeFile(name, generatedBinlogFile(module, shape));
    }
    dir.writeFile("generated_bindisplay.xml", generatedDisplayFile(shape));
}

std::size_t countLogs(const Tav::BinaryLogXmlReader& reader) {
    std::size_t logs = 0;
    for (const auto& module : reader.logDetailsMap) {
        logs += module.second.size();
    }
    return logs;
}

void writeRecordDictionary(const TempDir& dir) {
    dir.writeFile("l1_cell_binlog.xml", kRecordCellBinlog);
    dir.writeFile("oam_sys_binlog.xml", kRecordOamBinlog);
    dir.writeFile("records_bindisplay.xml", kRecordDisplay);
}

bool writeRandomCaptureFile(const std::string& dictionaryDir, const std::string& path,
                            std::uint64_t records, std::string& error) {
    binlog_synth::Dictionary dictionary;
    if (!dictionary.load(dictionaryDir, error)) {
        return false;
    }
    binlog_synth::OutputSink sink;
    if (!sink.open(path, true, error, 1)) {
        return false;
    }
    binlog_synth::CaptureWriter writer(sink, binlog_synth::Framing());
    binlog_synth::RandomOptions options;
    options.records = records;
    options.seed = 1;
    if (!binlog_synth::writeRandomCapture(dictionary, options, writer, error) || !writer.finish()) {
        std::string ignored;
        sink.close(ignored);
        return false;
    }
    return sink.close(error);
}

long peakRssKib() {
    // VmHWM is the high-water mark of this process image's own memory. The
    // rusage figure is not used when available: Linux carries ru_maxrss over
    // an exec, so a process started by a larger one would report the
    // starter's peak.
    FILE* status = fopen("/proc/self/status", "r");
    if (status != nullptr) {
        char line[256];
        long kib = -1;
        while (fgets(line, sizeof line, status) != nullptr) {
            if (std::strncmp(line, "VmHWM:", 6) == 0) {
                kib = std::strtol(line + 6, nullptr, 10);
                break;
            }
        }
        fclose(status);
        if (kib >= 0) {
            return kib;
        }
    }
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace wexbl_bench
