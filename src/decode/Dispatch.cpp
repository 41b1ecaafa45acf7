// Record dispatch: statistics, routing by packet type, dictionary look-up,
// version and level checks, then decoding: legacy records into per-record
// working copies, binary log records through the record path (RecordPath.cpp),
// which reads the declarations in place and decodes into buffers kept from
// record to record. The dictionary is never written.
//
// A binary log payload is laid out by type groups, not in declaration order:
//   [module header: u64 i64 u32 i32 u16 i16 u8 i8 string binarystring][padding]
//   [log: u64 i64 u32 i32 u16 i16 u8 i8 string binarystring varbinarystring]
#include <cstdio>

#include "BinaryLogXmlReader.h"

namespace Tav {

int BinaryLogXmlReader::getLogDetailsForLogId(const PcapRecHeader& pcapHeader,
                                              const BinLogHeader& binLogHeader,
                                              const ByteReader& payload, unsigned int length,
                                              FILE* out, int utcOffsetMinutes) {
    if (statsEnabled) {
        statsCollector.processStats(out, pcapHeader, static_cast<int>(binLogHeader.logId >> 16),
                                    binLogHeader.packetType, static_cast<int>(binLogHeader.seqNo),
                                    length);
    }
    if (binLogHeader.packetType == Syslog) {
        std::string syslogTag;
        std::string syslogMessage;
        if (decodeSyslogPayLoad(pcapHeader, binLogHeader, payload, syslogTag, syslogMessage) != 0) {
            return -1;
        }
        formatSyslogPayLoad(pcapHeader, binLogHeader, syslogTag, syslogMessage, out,
                            utcOffsetMinutes);
        return 0;
    }
    if (binLogHeader.packetType == PcapCapture) {
        formatPcapCapturePayLoad(pcapHeader, binLogHeader, out, utcOffsetMinutes);
        return 0;
    }

    const std::uint16_t moduleKey = static_cast<std::uint16_t>(binLogHeader.logId >> 16);
    const std::uint16_t logIndex = static_cast<std::uint16_t>(binLogHeader.logId & 0xFFFFu);
    const auto module = moduleDetailsMap.find(moduleKey);
    const auto logs = logDetailsMap.find(moduleKey);
    if (logs == logDetailsMap.end() || module == moduleDetailsMap.end()) {
        fprintf(stderr, "Log id :%x not valid\n", binLogHeader.logId);
        return -1;
    }
    const auto log = logs->second.find(logIndex);
    if (log == logs->second.end()) {
        fprintf(stderr, "Log id :%x not valid\n", binLogHeader.logId);
        return -1;
    }

    // The checks read the dictionary entries themselves.
    if (binLogHeader.logVersion != module->second.binlogVersion) {
        fprintf(out, "Mismatch in version for log [%s] logVersion [%d] xmlVersion [%d] \n",
                log->second.logName.c_str(), binLogHeader.logVersion, module->second.binlogVersion);
        return 0;
    }
    // The bound is the level table's current entry count, not its largest key.
    if (binLogHeader.logLevel > logLevelNames.size()) {
        fprintf(out, "Invalig log level [%d] for log [%s] \n", binLogHeader.logLevel,
                log->second.logName.c_str());
        return 0;
    }

    if (binLogHeader.packetType == Legacy) {
        // Decoding writes only into these copies; the dictionary stays as loaded.
        LogDetails workingLog(log->second);
        ModuleDetails workingModule(module->second);
        decodeLegacyLogPayLoad(binLogHeader, payload, workingLog);
        formatLegacyLogDetails(workingModule, workingLog, pcapHeader, binLogHeader, out,
                               utcOffsetMinutes);
        return 0;
    }
    if (binLogHeader.packetType == BinLog) {
        // The module header decoder never fails; its result is not needed.
        renderBinLogRecord(pcapHeader, binLogHeader, payload, out, utcOffsetMinutes, module->second,
                           log->second);
        return 0;
    }
    fprintf(stderr, "Invalid packetType passed :%d", static_cast<int>(binLogHeader.packetType));
    return -1;
}

int BinaryLogXmlReader::decodeModuleHeaderFromPayLoad(ModuleDetails& module,
                                                      const BinLogHeader& /*binLogHeader*/,
                                                      const ByteReader& payload,
                                                      unsigned int& payloadOffset) {
    unsigned int offset = 0;
    auto& values = module.decodedValues;
    decodeIntParams(payload, module.uint64Params, offset, values);
    decodeIntParams(payload, module.int64Params, offset, values);
    decodeIntParams(payload, module.uint32Params, offset, values);
    decodeIntParams(payload, module.int32Params, offset, values);
    decodeIntParams(payload, module.uint16Params, offset, values);
    decodeIntParams(payload, module.int16Params, offset, values);
    decodeIntParams(payload, module.uint8Params, offset, values);
    decodeIntParams(payload, module.int8Params, offset, values);
    decodeStringParams(payload, module.stringParams, offset, values);
    decodeBinaryStringParams(payload, module.binaryStringParams, offset, values);
    payloadOffset = offset + module.headerPadding;
    return 0;
}

int BinaryLogXmlReader::decodeBinLogPayLoad(const BinLogHeader& /*binLogHeader*/,
                                            const ByteReader& payload, LogDetails& log,
                                            unsigned int payloadOffset) {
    unsigned int offset = payloadOffset;
    auto& values = log.decodedValues;
    decodeIntParams(payload, log.uint64Params, offset, values);
    decodeIntParams(payload, log.int64Params, offset, values);
    decodeIntParams(payload, log.uint32Params, offset, values);
    decodeIntParams(payload, log.int32Params, offset, values);
    decodeIntParams(payload, log.uint16Params, offset, values);
    decodeIntParams(payload, log.int16Params, offset, values);
    decodeIntParams(payload, log.uint8Params, offset, values);
    decodeIntParams(payload, log.int8Params, offset, values);
    decodeStringParams(payload, log.stringParams, offset, values);
    decodeBinaryStringParams(payload, log.binaryStringParams, offset, values);
    decodeVarBinaryStringParam(payload, log.varBinaryStringParams, offset, values);
    return 0;
}

}  // namespace Tav
