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

const char* const kLinkForms =
    "150, ipv4, ipv6, or a link layer and an IP version: ethernet|sll|sll2|raw|null "
    "ipv4|ipv6, 228, 229; the layers also by link type number: 1, 113, 276, 101, 0";

/// The first word(s) of a link line: the framing and how many words it took.
bool parseLinkWords(const std::vector<Token>& tokens, Framing& f, std::size_t& used,
                    std::string& error) {
    const std::string kind = lower(tokens[1].key);
    used = 2;
    if (kind == "150") {
        f.kind = LinkKind::Raw150;
        return true;
    }
    if (kind == "ipv4" || kind == "ipv6") {
        f.kind = kind == "ipv4" ? LinkKind::Ipv4 : LinkKind::Ipv6;
        f.layer = LinkLayer::Ethernet;
        return true;
    }
    if (kind == "228" || kind == "229") {
        f.kind = kind == "228" ? LinkKind::Ipv4 : LinkKind::Ipv6;
        f.layer = LinkLayer::RawIpOnly;
        if (tokens.size() > 2 && !tokens[2].hasValue) {
            if (lower(tokens[2].key) != (kind == "228" ? "ipv4" : "ipv6")) {
                error = "link " + kind + " is " + (kind == "228" ? "IPv4" : "IPv6") + " only";
                return false;
            }
            used = 3;
        }
        return true;
    }
    if (kind == "ethernet" || kind == "1") {
        f.layer = LinkLayer::Ethernet;
    } else if (kind == "sll" || kind == "113") {
        f.layer = LinkLayer::LinuxSll;
    } else if (kind == "sll2" || kind == "276") {
        f.layer = LinkLayer::LinuxSll2;
    } else if (kind == "raw" || kind == "101") {
        f.layer = LinkLayer::RawIp;
    } else if (kind == "null" || kind == "0") {
        f.layer = LinkLayer::Loopback;
    } else {
        error = "unknown framing " + tokens[1].key + " (" + kLinkForms + ")";
        return false;
    }
    const std::string ip = tokens.size() > 2 && !tokens[2].hasValue ? lower(tokens[2].key) : "";
    if (ip != "ipv4" && ip != "ipv6") {
        error = "link " + tokens[1].key + " needs an IP version: ipv4 or ipv6";
        return false;
    }
    f.kind = ip == "ipv4" ? LinkKind::Ipv4 : LinkKind::Ipv6;
    used = 3;
    return true;
}

bool parseLink(const std::vector<Token>& tokens, Framing& framing, std::string& error) {
    if (tokens.size() < 2 || tokens[1].hasValue) {
        error = std::string("link needs a framing: ") + kLinkForms;
        return false;
    }
    Framing f;
    std::size_t used = 0;
    if (!parseLinkWords(tokens, f, used, error)) {
        return false;
    }
    for (std::size_t i = used; i < tokens.size(); ++i) {
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
        } else if (t.key == "vlan") {
            if (f.layer != LinkLayer::Ethernet && f.layer != LinkLayer::LinuxSll &&
                f.layer != LinkLayer::LinuxSll2) {
                error = "vlan= needs Ethernet or a Linux cooked header";
                return false;
            }
            f.vlans.clear();
            std::size_t at = 0;
            while (t.hasValue) {
                const std::size_t comma = t.value.find(',', at);
                const std::string part =
                    t.value.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
                if (!parseUnsigned(part, 4095, n) || f.vlans.size() >= 8) {
                    error = "vlan= takes one to eight VLAN IDs (0-4095), outermost first";
                    return false;
                }
                f.vlans.push_back(static_cast<std::uint16_t>(n));
                if (comma == std::string::npos) {
                    break;
                }
                at = comma + 1;
            }
            if (f.vlans.empty()) {
                error = "vlan= takes one to eight VLAN IDs (0-4095), outermost first";
                return false;
            }
        } else if (t.key == "ipoptions") {
            if (v6) {
                error = "ipoptions= applies to IPv4";
                return false;
            }
            if (!t.hasValue || !parseUnsigned(t.value, 40, n) || n % 4 != 0 || n == 0) {
                error = "ipoptions= takes a number of option bytes: 4, 8, ... 40";
                return false;
            }
            f.ipv4OptionWords = static_cast<std::uint8_t>(n / 4);
        } else if (t.key == "family") {
            if (f.layer != LinkLayer::Loopback) {
                error = "family= applies to link null";
                return false;
            }
            if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                return false;
            }
            f.loopbackFamily = static_cast<std::int64_t>(n);
        } else {
            error = "unknown link option " + t.key +
                    " (port=, srcport=, src=, dst=, vlan=, ipoptions=, family=)";
            return false;
        }
    }
    framing = f;
    return true;
}

bool parseFormat(const std::vector<Token>& tokens, GlobalHeaderSettings& h, std::string& error) {
    const char* const usage = "format takes pcap, pcap-ns or pcapng [interfaces=N] [tsresol=6|9]";
    if (tokens.size() < 2 || tokens[1].hasValue) {
        error = usage;
        return false;
    }
    const std::string word = lower(tokens[1].key);
    if (word == "pcap" || word == "pcap-ns") {
        if (tokens.size() != 2) {
            error = usage;
            return false;
        }
        h.format = word == "pcap" ? FileFormat::Pcap : FileFormat::PcapNano;
        return true;
    }
    if (word != "pcapng") {
        error = usage;
        return false;
    }
    h.format = FileFormat::PcapNg;
    for (std::size_t i = 2; i < tokens.size(); ++i) {
        const Token& t = tokens[i];
        std::uint64_t n = 0;
        if (t.key == "interfaces" && t.hasValue && parseUnsigned(t.value, 16, n) && n >= 1) {
            h.interfaces = static_cast<std::uint32_t>(n);
        } else if (t.key == "tsresol" && t.hasValue && parseUnsigned(t.value, 9, n) &&
                   (n == 6 || n == 9)) {
            h.tsResolution = static_cast<std::uint8_t>(n);
        } else {
            error = std::string(usage) + " (interfaces from 1 to 16)";
            return false;
        }
    }
    return true;
}

bool parseGzip(const std::vector<Token>& tokens, GzipDamage& damage, std::string& error) {
    const char* const usage = "gzip takes: stored, crc=bad, length=bad, corrupt-at=N, cut=N";
    for (std::size_t i = 1; i < tokens.size(); ++i) {
        const Token& t = tokens[i];
        std::uint64_t n = 0;
        if (!t.hasValue && t.key == "stored") {
            damage.stored = true;
        } else if (t.key == "crc" && t.value == "bad") {
            damage.badCrc = true;
        } else if (t.key == "length" && t.value == "bad") {
            damage.badLength = true;
        } else if ((t.key == "corrupt-at" || t.key == "cut") && t.hasValue &&
                   parseUnsigned(t.value, 0xFFFFFFFFULL, n)) {
            (t.key == "cut" ? damage.cut : damage.corruptAt) = static_cast<std::int64_t>(n);
        } else {
            error = usage;
            return false;
        }
    }
    return true;
}

/// Applies one file setting line; false with `error` when it is malformed.
/// `handled` is false when the line is not a file setting.
bool applySetting(const std::vector<Token>& tokens, ScriptSettings& s, bool& handled,
                  std::string& error) {
    handled = true;
    const std::string& word = tokens[0].key;
    std::uint64_t n = 0;
    if (word == "plain") {
        if (tokens.size() != 1) {
            error = word + " takes no arguments";
            return false;
        }
        s.gzipSet = true;
        s.gzip = false;
        return true;
    }
    if (word == "gzip") {
        s.gzipSet = true;
        s.gzip = true;
        return parseGzip(tokens, s.gzipDamage, error);
    }
    if (word == "format") {
        return parseFormat(tokens, s.header, error);
    }
    if (word == "byteorder") {
        if (tokens.size() != 2 || tokens[1].hasValue ||
            (tokens[1].key != "little" && tokens[1].key != "big")) {
            error = "byteorder takes little or big";
            return false;
        }
        s.header.bigEndian = tokens[1].key == "big";
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
        "seq",      "level",      "version", "logid",     "packettype",   "time", "tssec",
        "tsusec",   "storagelen", "caplen",  "senderlen", "sendercaplen", "cut",  "headercut",
        "filetime", "ethertype",  "proto",   "port",      "interface"};
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
        } else if (word != "start" && word != "step" && word != "seed" && word != "section") {
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
    if (word == "section") {
        if (tokens.size() != 1) {
            error = "section takes no arguments";
            return false;
        }
        if (writer.settings().format != FileFormat::PcapNg) {
            error = "section needs format pcapng";
            return false;
        }
        if (!writer.startSection()) {
            error = "write failed";
            return false;
        }
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
    const Framing& framing = writer.framing();
    const bool udp = framing.kind != LinkKind::Raw150;
    const char* const needsUdp = "= needs a UDP framing (any link but 150)";

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
                if (!udp && (k == "senderlen" || k == "sendercaplen")) {
                    error = k + needsUdp;
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
            } else if (k == "interface") {
                if (writer.settings().format != FileFormat::PcapNg) {
                    error = "interface= needs format pcapng";
                    return false;
                }
                if (!parseNumberToken(t, 0xFFFFFFFFULL, n, error)) {
                    return false;
                }
                options.interfaceId = static_cast<std::uint32_t>(n);
            } else {  // ethertype, proto, port
                if (!udp) {
                    error = k + needsUdp;
                    return false;
                }
                if (k == "ethertype" && framing.layer != LinkLayer::Ethernet &&
                    framing.layer != LinkLayer::LinuxSll && framing.layer != LinkLayer::LinuxSll2) {
                    error = "ethertype= needs Ethernet or a Linux cooked header";
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
    options.tsNsec = tsUsecGiven ? -1 : static_cast<std::int64_t>(clockNs_ % 1000000000ULL);
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
