// The script reader and runner.
#include "binlog_synth/Script.h"

#include <arpa/inet.h>

#include <set>

#include "binlog_synth/Encoder.h"

namespace binlog_synth {

namespace {

const char* const kRecordKinds[] = {"binlog", "legacy", "syslog", "capture", "record"};

bool isRecordKind(const std::string& word) {
    for (const char* kind : kRecordKinds) {
        if (word == kind) {
            return true;
        }
    }
    return word == "repeat" || word == "rawfile";
}

std::string located(const std::string& name, int line, const std::string& message) {
    return name + ":" + std::to_string(line) + ": " + message;
}

bool parseNumberToken(const Token& t, std::uint64_t max, std::uint64_t& value, std::string& error) {
    if (!t.hasValue || !parseUnsigned(t.value, max, value)) {
        error =
            "bad value for " + t.key + "= (a number up to " + std::to_string(max) + " expected)";
        return false;
    }
    return true;
}

bool parseAddress(const std::string& text, bool v6, Framing& framing) {
    if (v6) {
        return inet_pton(AF_INET6, text.c_str(), framing.ipv6Src.data()) == 1;
    }
    return inet_pton(AF_INET, text.c_str(), framing.ipv4Src.data()) == 1;
}

bool parseLink(const std::vector<Token>& tokens, Framing& framing, std::string& error) {
    if (tokens.size() < 2 || tokens[1].hasValue) {
        error = "link needs a framing: link 150 | link ipv4 [port=N] | link ipv6 [port=N]";
        return false;
    }
    const std::string kind = lower(tokens[1].key);
    Framing f;
    if (kind == "150") {
        f.kind = LinkKind::Raw150;
    } else if (kind == "ipv4") {
        f.kind = LinkKind::Ipv4;
    } else if (kind == "ipv6") {
        f.kind = LinkKind::Ipv6;
    } else {
        error = "unknown framing " + tokens[1].key + " (150, ipv4 or ipv6)";
        return false;
    }
    for (std::size_t i = 2; i < tokens.size(); ++i) {
        const Token& t = tokens[i];
        std::uint64_t n = 0;
        if (f.kind == LinkKind::Raw150) {
            error = "link 150 takes no options";
            return false;
        }
        const bool v6 = f.kind == LinkKind::Ipv6;
        if (t.key == "port") {
            if (!parseNumberToken(t, 0xFFFF, n, error)) {
                return false;
            }
            f.dstPort = static_cast<std::uint16_t>(n);
        } else if (t.key == "srcport") {
            if (!parseNumberToken(t, 0xFFFF, n, error)) {
                return false;
            }
            f.srcPort = static_cast<std::uint16_t>(n);
        } else if (t.key == "src" || t.key == "dst") {
            Framing scratch;
            if (!t.hasValue || !parseAddress(t.value, v6, scratch)) {
                error = "bad " + std::string(v6 ? "IPv6" : "IPv4") + " address for " + t.key + "=";
                return false;
            }
            if (t.key == "src") {
                f.ipv4Src = v6 ? f.ipv4Src : scratch.ipv4Src;
                f.ipv6Src = v6 ? scratch.ipv6Src : f.ipv6Src;
            } else {
                f.ipv4Dst = v6 ? f.ipv4Dst : scratch.ipv4Src;
                f.ipv6Dst = v6 ? scratch.ipv6Src : f.ipv6Dst;
            }
        } else {
            error = "unknown link option " + t.key + " (port=, srcport=, src=, dst=)";
            return false;
        }
    }
    framing = f;
    return true;
}

/// Applies one file setting line; false with `error` when it is malformed.
/// `handled` is false when the line is not a file setting.
bool applySetting(const std::vector<Token>& tokens, ScriptSettings& s, bool& handled,
                  std::string& error) {
    handled = true;
    const std::string& word = tokens[0].key;
    std::uint64_t n = 0;
    if (word == "gzip" || word == "plain") {
        if (tokens.size() != 1) {
            error = word + " takes no arguments";
            return false;
        }
        s.gzipSet = true;
        s.gzip = word == "gzip";
        return true;
    }
    if (word == "link") {
        s.framingSet = true;
        return parseLink(tokens, s.framing, error);
    }
    if (word == "linktype" || word == "snaplen") {
        if (tokens.size() != 2 || tokens[1].hasValue ||
            !parseUnsigned(tokens[1].key, 0xFFFFFFFFULL, n)) {
            error = word + " needs one number";
            return false;
        }
        if (word == "linktype") {
            s.header.linkType = static_cast<std::int64_t>(n);
        } else {
            s.header.snapLength = static_cast<std::uint32_t>(n);
        }
        return true;
    }
    if (word == "globalheader") {
        if (tokens.size() != 2) {
            error = "globalheader takes one of: full, none, short=N";
            return false;
        }
        const Token& t = tokens[1];
        if (!t.hasValue && t.key == "full") {
            s.header.mode = GlobalHeaderSettings::Mode::Full;
        } else if (!t.hasValue && t.key == "none") {
            s.header.mode = GlobalHeaderSettings::Mode::None;
        } else if (t.key == "short" && t.hasValue && parseUnsigned(t.value, 23, n)) {
            s.header.mode = GlobalHeaderSettings::Mode::Short;
            s.header.shortLength = static_cast<std::size_t>(n);
        } else {
            error = "globalheader takes one of: full, none, short=N (N below 24)";
            return false;
        }
        return true;
    }
    handled = false;
    return true;
}

const char* const kLevelNames[] = {"",     "CRITICAL", "ERROR", "WARN",  "NOTICE",
                                   "INFO", "DEBUG",    "DEVEL", "ALWAYS"};

bool parseLevel(const std::string& text, std::uint16_t& level) {
    std::uint64_t n = 0;
    if (parseUnsigned(text, 0xFFFF, n)) {
        level = static_cast<std::uint16_t>(n);
        return true;
    }
    for (unsigned i = 1; i < sizeof kLevelNames / sizeof kLevelNames[0]; ++i) {
        if (lower(text) == lower(kLevelNames[i])) {
            level = static_cast<std::uint16_t>(i);
            return true;
        }
    }
    return false;
}

std::uint64_t toNs(std::uint32_t sec, std::uint32_t usec) {
    return static_cast<std::uint64_t>(sec) * 1000000000ULL +
           static_cast<std::uint64_t>(usec) * 1000ULL;
}

/// Record keys every kind understands.
const std::set<std::string>& commonKeys() {
    static const std::set<std::string> keys = {
        "seq",   "level",     "version",    "logid",     "packettype", "time",
        "tssec", "tsusec",    "storagelen", "caplen",    "senderlen",  "sendercaplen",
        "cut",   "headercut", "filetime",   "ethertype", "proto",      "port"};
    return keys;
}

/// Keys of a binlog, legacy or record line that shape the payload.
const std::set<std::string>& payloadKeys() {
    static const std::set<std::string> keys = {"payload", "extra", "trim", "fill"};
    return keys;
}

const std::set<std::string>& legacyKeys() {
    static const std::set<std::string> keys = {"frame", "u32", "u8", "text1", "text2"};
    return keys;
}

constexpr std::uint64_t kLargestPayload = 16U * 1024U * 1024U;

}  // namespace

bool parseScript(const std::string& text, const std::string& name, Script& script,
                 std::string& error) {
    script = Script();
    script.name = name;
    bool recordsSeen = false;
    int number = 0;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        ++number;
        std::vector<Token> tokens;
        std::string message;
        if (!tokenizeLine(line, tokens, message)) {
            error = located(name, number, message);
            return false;
        }
        if (tokens.empty()) {
            continue;
        }
        if (tokens[0].hasValue || tokens[0].quoted) {
            error = located(name, number,
                            "a line starts with a command word, not " + tokens[0].key + "=");
            return false;
        }
        bool handled = false;
        if (!applySetting(tokens, script.settings, handled, message)) {
            error = located(name, number, message);
            return false;
        }
        if (handled) {
            if (recordsSeen) {
                error = located(name, number,
                                tokens[0].key +
                                    " concerns the whole file and must come before "
                                    "the first record");
                return false;
            }
            continue;
        }
        const std::string& word = tokens[0].key;
        if (isRecordKind(word)) {
            recordsSeen = true;
        } else if (word != "start" && word != "step" && word != "seed") {
            error = located(name, number, "unknown command " + word);
            return false;
        }
        ScriptLine kept;
        kept.number = number;
        kept.tokens = std::move(tokens);
        script.lines.push_back(std::move(kept));
    }
    return true;
}

void ScriptRunner::setStart(std::uint32_t sec, std::uint32_t usec) {
    clockNs_ = toNs(sec, usec);
}

bool ScriptRunner::run(const Script& script, CaptureWriter& writer, std::string& error) {
    for (const ScriptLine& line : script.lines) {
        std::string message;
        if (!runLine(line, writer, message)) {
            error = located(script.name, line.number, message);
            return false;
        }
    }
    return true;
}

bool ScriptRunner::runLine(const ScriptLine& line, CaptureWriter& writer, std::string& error) {
    const std::vector<Token>& tokens = line.tokens;
    const std::string& word = tokens[0].key;
    if (word == "start") {
        std::uint32_t sec = 0, usec = 0;
        if (tokens.size() != 2 || tokens[1].hasValue || !parseTime(tokens[1].key, sec, usec)) {
            error = "start needs a time: 2024-05-01T12:00:00.250Z or seconds since 1970";
            return false;
        }
        clockNs_ = toNs(sec, usec);
        return true;
    }
    if (word == "step") {
        if (tokens.size() != 2 || tokens[1].hasValue || !parseDuration(tokens[1].key, stepNs_)) {
            error = "step needs a duration such as 1ms, 250us, 2s or 0";
            return false;
        }
        return true;
    }
    if (word == "seed") {
        std::uint64_t seed = 0;
        if (tokens.size() != 2 || tokens[1].hasValue ||
            !parseUnsigned(tokens[1].key, UINT64_MAX, seed)) {
            error = "seed needs a number";
            return false;
        }
        rng_ = SplitMix64(seed);
        return true;
    }
    if (word == "rawfile") {
        std::string bytes;
        for (std::size_t i = 1; i < tokens.size(); ++i) {
            std::string part;
            if (tokens[i].hasValue || !parseHexBytes(tokens[i].key, part)) {
                error = "rawfile takes hex bytes";
                return false;
            }
            bytes += part;
        }
        if (!writer.writeRaw(bytes)) {
            error = "write failed";
            return false;
        }
        return true;
    }
    if (word == "repeat") {
        std::uint64_t count = 0;
        if (tokens.size() < 3 || tokens[1].hasValue ||
            !parseUnsigned(tokens[1].key, 100000000ULL, count) || tokens[2].hasValue ||
            tokens[2].key == "repeat" || tokens[2].key == "rawfile" ||
            !isRecordKind(tokens[2].key)) {
            error =
                "repeat needs a count and a record: repeat N binlog|legacy|syslog|capture|record "
                "...";
            return false;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            if (!runRecord(tokens[2].key, tokens, 3, i == 0, writer, error)) {
                return false;
            }
        }
        return true;
    }
    return runRecord(word, tokens, 1, true, writer, error);
}

bool ScriptRunner::runRecord(const std::string& kind, const std::vector<Token>& tokens,
                             std::size_t first, bool firstRepeat, CaptureWriter& writer,
                             std::string& error) {
    const bool isBinlog = kind == "binlog";
    const bool isLegacy = kind == "legacy";
    const bool needsLog = isBinlog || isLegacy;

    // Positional words: MODULE LOG for binlog and legacy.
    std::size_t at = first;
    const LogLayout* layout = nullptr;
    if (needsLog) {
        if (tokens.size() < at + 2 || tokens[at].hasValue || tokens[at + 1].hasValue) {
            error =
                kind + " needs a module and a log: " + kind + " SUBSYSTEM:MODULE LOGNAME|@N ...";
            return false;
        }
        if (dictionary_ == nullptr || !dictionary_->loaded()) {
            error = kind + " records need a dictionary (--dict DIR)";
            return false;
        }
        std::uint16_t key = 0;
        if (!dictionary_->findModule(tokens[at].key, key, error)) {
            return false;
        }
        layout = dictionary_->findLog(key, tokens[at + 1].key, error);
        if (layout == nullptr) {
            return false;
        }
        at += 2;
    }

    LogHeader header;
    header.packetType = isBinlog            ? kPacketBinLog
                        : isLegacy          ? kPacketLegacy
                        : kind == "syslog"  ? kPacketSyslog
                        : kind == "capture" ? kPacketCapture
                                            : kPacketBinLog;
    header.logId = layout != nullptr ? layout->logId : 0;
    header.logLevel = (needsLog || kind == "syslog") ? 5 : 0;
    header.logVersion = layout != nullptr ? layout->version : 0;

    RecordOptions options;
    bool seqGiven = false, timeGiven = false;
    std::uint32_t seq = 0, timeSec = 0, timeUsec = 0;
    bool tsSecGiven = false, tsUsecGiven = false;
    std::uint32_t tsSec = 0, tsUsec = 0;

    bool payloadGiven = false, fillRandom = false;
    std::string payload, extra;
    std::uint64_t trim = 0;
    RecordValues values;
    LegacyValues legacy;
    std::set<std::string> legacyNamed;
    std::string tag, text;
    std::uint64_t captureBytes = 0;
    bool captureDataGiven = false;
    const bool ethernet = writer.framing().kind != LinkKind::Raw150;

    for (; at < tokens.size(); ++at) {
        const Token& t = tokens[at];
        if (!t.hasValue) {
            error = "unexpected word " + t.key + " (values are written key=value)";
            return false;
        }
        std::uint64_t n = 0;
        const std::string& k = t.key;
        if (commonKeys().count(k) != 0) {
            if (k == "seq") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                seqGiven = true;
                seq = static_cast<std::uint32_t>(n);
            } else if (k == "level") {
                if (!parseLevel(t.value, header.logLevel)) {
                    error = "bad level " + t.value + " (0-65535 or a level name such as INFO)";
                    return false;
                }
            } else if (k == "version") {
                if (!parseNumberToken(t, 0xFFFF, n, error)) {
                    return false;
                }
                header.logVersion = static_cast<std::uint16_t>(n);
            } else if (k == "logid") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                header.logId = static_cast<std::uint32_t>(n);
            } else if (k == "packettype") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                header.packetType = static_cast<std::uint32_t>(n);
            } else if (k == "time" || k == "filetime") {
                std::uint32_t s = 0, u = 0;
                if (!parseTime(t.value, s, u)) {
                    error =
                        "bad time " + t.value + " (2024-05-01T12:00:00.250Z or seconds since 1970)";
                    return false;
                }
                if (k == "time") {
                    timeGiven = true;
                    timeSec = s;
                    timeUsec = u;
                } else {
                    options.separateFileTime = true;
                    options.fileTsSec = s;
                    options.fileTsUsec = u;
                }
            } else if (k == "tssec" || k == "tsusec") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                (k == "tssec" ? tsSecGiven : tsUsecGiven) = true;
                (k == "tssec" ? tsSec : tsUsec) = static_cast<std::uint32_t>(n);
            } else if (k == "headercut") {
                if (!parseNumberToken(t, 15, n, error)) {
                    return false;
                }
                options.headerCut = static_cast<std::int64_t>(n);
            } else if (k == "storagelen" || k == "caplen" || k == "senderlen" ||
                       k == "sendercaplen" || k == "cut") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                if (!ethernet && (k == "senderlen" || k == "sendercaplen")) {
                    error = k + "= needs Ethernet framing (link ipv4 or link ipv6)";
                    return false;
                }
                const auto v = static_cast<std::int64_t>(n);
                if (k == "storagelen") {
                    options.storageLength = v;
                } else if (k == "caplen") {
                    options.capturedLength = v;
                } else if (k == "senderlen") {
                    options.senderStorageLength = v;
                } else if (k == "sendercaplen") {
                    options.senderCapturedLength = v;
                } else {
                    options.cut = v;
                }
            } else {  // ethertype, proto, port
                if (!ethernet) {
                    error = k + "= needs Ethernet framing (link ipv4 or link ipv6)";
                    return false;
                }
                if (!parseNumberToken(t, k == "proto" ? 0xFF : 0xFFFF, n, error)) {
                    return false;
                }
                (k == "ethertype" ? options.etherType
                 : k == "proto"   ? options.protocol
                                  : options.dstPort) = static_cast<std::int32_t>(n);
            }
            continue;
        }
        if (payloadKeys().count(k) != 0 && kind != "capture") {
            if (k == "payload" || k == "extra") {
                std::string bytes;
                if (!parseHexBytes(t.value, bytes)) {
                    error = "bad hex bytes for " + k + "=";
                    return false;
                }
                if (k == "payload") {
                    payloadGiven = true;
                    payload = bytes;
                } else {
                    extra = bytes;
                }
            } else if (k == "trim") {
                if (!parseNumberToken(t, 0xFFFFFFFFULL, trim, error)) {
                    return false;
                }
            } else {
                if (t.value != "random" && t.value != "zero") {
                    error = "fill= takes random or zero";
                    return false;
                }
                if (!needsLog) {
                    error = "fill= applies to binlog and legacy records";
                    return false;
                }
                fillRandom = t.value == "random";
            }
            continue;
        }
        if (kind == "syslog" && (k == "tag" || k == "text")) {
            if (k == "tag" && t.value.size() > kSyslogTagSize) {
                error = "a syslog tag holds at most 16 bytes";
                return false;
            }
            (k == "tag" ? tag : text) = t.value;
            continue;
        }
        if (kind == "capture" && (k == "bytes" || k == "data")) {
            if (k == "bytes") {
                if (!parseNumberToken(t, 1000000, captureBytes, error)) {
                    return false;
                }
            } else {
                if (!parseHexBytes(t.value, payload)) {
                    error = "bad hex bytes for data=";
                    return false;
                }
                captureDataGiven = true;
            }
            continue;
        }
        if (isLegacy) {
            const std::vector<std::string> u32Names = firstNamesOf(*layout->log, FieldKind::U32, 5);
            const std::vector<std::string> u8Names = firstNamesOf(*layout->log, FieldKind::U8, 4);
            const std::vector<std::string> textNames =
                firstNamesOf(*layout->log, FieldKind::String, 2);
            std::string name = k;
            const bool prefixed = name.compare(0, 4, "log.") == 0;
            if (prefixed) {
                name = name.substr(4);
            }
            if (!prefixed && legacyKeys().count(k) != 0) {
                if (k == "frame") {
                    std::uint64_t bits = 0;
                    std::string reason;
                    if (!parseSfSfn(t.value, bits, reason)) {
                        error = "bad value \"" + t.value + "\" for frame=" +
                                (reason.empty() ? std::string(kSfSfnForms) : ": " + reason);
                        return false;
                    }
                    legacy.frameTiming = static_cast<std::uint32_t>(bits);
                } else if (k == "u32" || k == "u8") {
                    const bool wide = k == "u32";
                    std::size_t slot = 0;
                    std::size_t startAt = 0;
                    const std::string& list = t.value;
                    while (true) {
                        const std::size_t comma = list.find(',', startAt);
                        const std::string part =
                            list.substr(startAt, comma == std::string::npos ? std::string::npos
                                                                            : comma - startAt);
                        std::uint64_t bits = 0;
                        if (slot >= (wide ? 5U : 4U) ||
                            !parseIntegerBits(part, wide ? 4 : 1, bits)) {
                            error = k + "= takes up to " + (wide ? "five" : "four") +
                                    " comma-separated numbers";
                            return false;
                        }
                        if (wide) {
                            legacy.u32[slot] = static_cast<std::uint32_t>(bits);
                        } else {
                            legacy.u8[slot] = static_cast<std::uint8_t>(bits);
                        }
                        ++slot;
                        if (comma == std::string::npos) {
                            break;
                        }
                        startAt = comma + 1;
                    }
                } else {
                    if (t.value.size() > kLegacyTextSize) {
                        error = k + "= holds at most 14 bytes";
                        return false;
                    }
                    legacy.text[k == "text1" ? 0 : 1] = t.value;
                }
                legacyNamed.insert(k);
                continue;
            }
            bool found = false;
            for (std::size_t i = 0; i < u32Names.size() && !found; ++i) {
                if (u32Names[i] == name) {
                    std::uint64_t bits = 0;
                    if (!parseIntegerBits(t.value, 4, bits)) {
                        error = "bad value \"" + t.value + "\" for TavUint32_t parameter " + name;
                        return false;
                    }
                    legacy.u32[i] = static_cast<std::uint32_t>(bits);
                    found = true;
                }
            }
            for (std::size_t i = 0; i < u8Names.size() && !found; ++i) {
                if (u8Names[i] == name) {
                    std::uint64_t bits = 0;
                    if (!parseIntegerBits(t.value, 1, bits)) {
                        error = "bad value \"" + t.value + "\" for TavUint8_t parameter " + name;
                        return false;
                    }
                    legacy.u8[i] = static_cast<std::uint8_t>(bits);
                    found = true;
                }
            }
            for (std::size_t i = 0; i < textNames.size() && !found; ++i) {
                if (textNames[i] == name) {
                    if (t.value.size() > kLegacyTextSize) {
                        error = "string parameter " + name +
                                " holds at most 14 bytes in a legacy "
                                "record";
                        return false;
                    }
                    legacy.text[i] = t.value;
                    found = true;
                }
            }
            if (!found) {
                error = "log " + layout->logName + " has no parameter " + name +
                        " that a legacy record carries (the first five TavUint32_t, four "
                        "TavUint8_t and two string parameters)";
                return false;
            }
            legacyNamed.insert(name);
            continue;
        }
        if (isBinlog) {
            std::string name = k;
            int side = 0;  // 0: either, 1: header, 2: log
            if (name.compare(0, 4, "hdr.") == 0) {
                side = 1;
                name = name.substr(4);
            } else if (name.compare(0, 4, "log.") == 0) {
                side = 2;
                name = name.substr(4);
            }
            bool inHeader = false, inLog = false;
            for (const Field& f : layout->fields) {
                if (f.kind != FieldKind::Padding && f.name == name) {
                    (f.header ? inHeader : inLog) = true;
                }
            }
            if (side == 0 && inHeader && inLog) {
                error = "parameter " + name +
                        " is in both the module header and the log; write "
                        "hdr." +
                        name + "= or log." + name + "=";
                return false;
            }
            const bool toHeader = side == 1 || (side == 0 && inHeader);
            if ((toHeader && !inHeader) || (!toHeader && !inLog)) {
                std::string known;
                for (const Field& f : layout->fields) {
                    if (f.kind != FieldKind::Padding) {
                        known += (known.empty() ? "" : ", ") + f.name;
                    }
                }
                error = std::string(side == 1 ? "the module header" : "log " + layout->logName) +
                        " has no parameter " + name +
                        " (known: " + (known.empty() ? "none" : known) + ")";
                return false;
            }
            ParamValue value;
            bool parsed = false;
            for (const Field& f : layout->fields) {
                if (f.kind == FieldKind::Padding || f.header != toHeader || f.name != name) {
                    continue;
                }
                ParamValue v;
                if (!parseFieldValue(f, t.value, &dictionary_->displays(), v, error)) {
                    return false;
                }
                if (!parsed) {
                    value = v;
                    parsed = true;
                }
            }
            (toHeader ? values.header : values.log)[name] = value;
            continue;
        }
        error = "unknown key " + k + "= for a " + kind + " record";
        return false;
    }

    if (payloadGiven &&
        (!values.header.empty() || !values.log.empty() || !legacyNamed.empty() || fillRandom)) {
        error = "payload= replaces the whole payload; it cannot be combined with parameter values";
        return false;
    }

    // Sequence number: per module (upper half of the log id), in the number
    // space the decoder's statistics use for the packet type.
    const std::uint64_t space = header.packetType == kPacketSyslog    ? 1
                                : header.packetType == kPacketCapture ? 2
                                                                      : 0;
    const std::uint64_t seqKey = (space << 32) | (header.logId >> 16);
    if (seqGiven && firstRepeat) {
        header.seqNo = seq;
    } else {
        const auto found = nextSeq_.find(seqKey);
        header.seqNo = found == nextSeq_.end() ? 1 : found->second;
    }
    nextSeq_[seqKey] = header.seqNo + 1;

    if (timeGiven && firstRepeat) {
        clockNs_ = toNs(timeSec, timeUsec);
    }
    options.tsSec = static_cast<std::uint32_t>(clockNs_ / 1000000000ULL);
    options.tsUsec = static_cast<std::uint32_t>(clockNs_ % 1000000000ULL / 1000ULL);
    if (tsSecGiven) {
        options.tsSec = tsSec;
    }
    if (tsUsecGiven) {
        options.tsUsec = tsUsec;
    }
    clockNs_ += stepNs_;

    ByteBuffer record;
    appendBinLogHeader(record, header);
    if (payloadGiven) {
        record.bytes(payload);
    } else if (isBinlog) {
        if (layout->fixedSize > kLargestPayload) {
            error = "log " + layout->logName + " declares a payload of " +
                    std::to_string(layout->fixedSize) + " bytes; write it with payload=";
            return false;
        }
        if (fillRandom) {
            RandomValueOptions randomOptions;
            for (const Field& f : layout->fields) {
                auto& map = f.header ? values.header : values.log;
                if (f.kind != FieldKind::Padding && map.count(f.name) == 0) {
                    randomValue(f, rng_, randomOptions, map[f.name]);
                }
            }
        }
        encodeBinLogPayload(*layout, values, record);
    } else if (isLegacy) {
        if (fillRandom) {
            LegacyValues r;
            r.frameTiming = rng_.below(1024) * 10 + rng_.below(10);
            for (auto& v : r.u32) {
                v = rng_.below(100000);
            }
            for (auto& v : r.u8) {
                v = static_cast<std::uint8_t>(rng_.below(16));
            }
            static const char* const kWords[] = {"attach", "detach", "handover", "paging",
                                                 "rach",   "rlf",    "reconfig", "release"};
            for (auto& v : r.text) {
                v = kWords[rng_.below(8)];
            }
            // Explicit values win over the random ones.
            if (legacyNamed.count("frame") == 0) {
                legacy.frameTiming = r.frameTiming;
            }
            const std::vector<std::string> u32Names = firstNamesOf(*layout->log, FieldKind::U32, 5);
            const std::vector<std::string> u8Names = firstNamesOf(*layout->log, FieldKind::U8, 4);
            const std::vector<std::string> textNames =
                firstNamesOf(*layout->log, FieldKind::String, 2);
            for (std::size_t i = 0; i < 5; ++i) {
                if (legacyNamed.count("u32") == 0 &&
                    (i >= u32Names.size() || legacyNamed.count(u32Names[i]) == 0)) {
                    legacy.u32[i] = r.u32[i];
                }
            }
            for (std::size_t i = 0; i < 4; ++i) {
                if (legacyNamed.count("u8") == 0 &&
                    (i >= u8Names.size() || legacyNamed.count(u8Names[i]) == 0)) {
                    legacy.u8[i] = r.u8[i];
                }
            }
            for (std::size_t i = 0; i < 2; ++i) {
                const std::string slot = i == 0 ? "text1" : "text2";
                if (legacyNamed.count(slot) == 0 &&
                    (i >= textNames.size() || legacyNamed.count(textNames[i]) == 0)) {
                    legacy.text[i] = r.text[i];
                }
            }
        }
        appendLegacyPayload(record, legacy);
    } else if (kind == "syslog") {
        appendSyslogPayload(record, tag, text);
    } else if (kind == "capture") {
        if (captureDataGiven) {
            record.bytes(payload);
        } else {
            for (std::uint64_t i = 0; i < captureBytes; ++i) {
                record.u8(static_cast<std::uint8_t>(i));
            }
        }
    }
    record.bytes(extra);
    if (trim > 0) {
        const std::size_t payloadSize = record.size() - 16;
        if (trim > payloadSize) {
            error = "trim=" + std::to_string(trim) + " is more than the " +
                    std::to_string(payloadSize) + " payload bytes";
            return false;
        }
        record.str().resize(record.size() - static_cast<std::size_t>(trim));
    }
    if (!writer.writeLogRecord(options, record.str())) {
        error = "write failed";
        return false;
    }
    return true;
}

}  // namespace binlog_synth
