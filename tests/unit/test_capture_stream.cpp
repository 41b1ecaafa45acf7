// The pull API: records and events of a capture stream against what
// readBinaryFiledata prints for the same captures, the values of decoded
// records, sessions across captures, stopping, and concurrent streams on
// one reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BinaryLogXmlReader.h"
#include "CaptureBytes.h"
#include "TestSupport.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/DatagramStream.h"
#include "WexOamBinLogXmlReader/Format.h"
#include "WexOamBinLogXmlReader/ParallelStream.h"
#include "dictionary/Plan.h"
#include "reader/ReaderCore.h"

namespace {

using wexbl_test::MemoryStream;
using wexbl_test::StderrCapture;
using wexbl_test::TempDir;

/// A small deterministic generator (splitmix64).
struct Random {
    std::uint64_t state;
    std::uint64_t next() {
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(next() % n); }
    template <typename T, std::size_t N>
    const T& pick(const T (&items)[N]) {
        return items[below(N)];
    }
};

// ---- Building captures byte by byte ---------------------------------------------------------

void putU16(std::string& out, std::uint16_t v) {
    out.push_back(static_cast<char>(v & 0xFF));
    out.push_back(static_cast<char>(v >> 8));
}
void putU32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}
void putU16Be(std::string& out, std::uint16_t v) {
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v & 0xFF));
}

/// A pcap file header: little-endian microsecond magic, link type `link`.
std::string pcapHeader(std::uint32_t link) {
    std::string out;
    putU32(out, 0xA1B2C3D4u);
    putU16(out, 2);
    putU16(out, 4);
    putU32(out, 0);
    putU32(out, 0);
    putU32(out, 65535);
    putU32(out, link);
    return out;
}

struct LogRecord {
    std::uint32_t tsSec = 1700000000;
    std::uint32_t tsUsec = 0;
    std::uint32_t packetType = 0;
    std::uint32_t logId = 0;
    std::uint16_t level = 5;
    std::uint16_t version = 1;
    std::uint32_t seqNo = 0;
    std::string payload;
};

/// The 32 bytes of the two record headers a log record starts with, then its
/// payload (`storage` is the storage length written in the embedded header).
std::string logBytes(const LogRecord& r, std::uint32_t storage) {
    std::string out;
    putU32(out, r.packetType);
    putU32(out, r.logId);
    putU16(out, r.level);
    putU16(out, r.version);
    putU32(out, r.seqNo);
    out += r.payload;
    (void)storage;
    return out;
}

/// Appends a link type 150 record.
void appendLink150(std::string& file, const LogRecord& r) {
    const std::string data = logBytes(r, 0);
    putU32(file, r.tsSec);
    putU32(file, r.tsUsec);
    putU32(file, static_cast<std::uint32_t>(data.size()));
    putU32(file, static_cast<std::uint32_t>(data.size()));
    file += data;
}

/// Appends an Ethernet IPv4 UDP frame to `port` carrying the record.
void appendEthernet(std::string& file, const LogRecord& r, std::uint16_t port) {
    const std::string log = logBytes(r, 0);
    std::string udpPayload;
    putU32(udpPayload, r.tsSec);
    putU32(udpPayload, r.tsUsec);
    putU32(udpPayload, static_cast<std::uint32_t>(log.size()));
    putU32(udpPayload, static_cast<std::uint32_t>(log.size()));
    udpPayload += log;
    std::string frame(12, '\x02');
    putU16Be(frame, 0x0800);
    frame += std::string("\x45\x00", 2);
    putU16Be(frame, static_cast<std::uint16_t>(20 + 8 + udpPayload.size()));
    frame += std::string("\x00\x01\x00\x00\x40\x11\x00\x00", 8);
    frame += std::string("\xc0\x00\x02\x01\xc0\x00\x02\x02", 8);
    putU16Be(frame, 40000);
    putU16Be(frame, port);
    putU16Be(frame, static_cast<std::uint16_t>(8 + udpPayload.size()));
    putU16Be(frame, 0);
    frame += udpPayload;
    putU32(file, r.tsSec - 100);
    putU32(file, 0);
    putU32(file, static_cast<std::uint32_t>(frame.size()));
    putU32(file, static_cast<std::uint32_t>(frame.size()));
    file += frame;
}

// ---- Random dictionaries ---------------------------------------------------------------------

const char* const kTypes[] = {"TavUint64_t", "TavInt64_t",   "TavUint32_t",     "TavInt32_t",
                              "TavUint16_t", "TavInt16_t",   "TavUint8_t",      "TavInt8_t",
                              "string",      "binarystring", "varbinarystring", "float"};
const char* const kFormats[] = {"", "hex", "SF-SFN", "Colour", "Colour", "Missing", "Braced"};
const char* const kNames[] = {"a", "b", "c", "dup", "x{", "cell"};

std::string randomDeclaration(Random& random, bool header) {
    const std::string type = random.pick(kTypes);
    if (header && type == "varbinarystring") {
        return "";
    }
    std::string decl = "<p type=\"" + type + "\" nameList=\"" + random.pick(kNames);
    if (random.below(3) == 0) {
        decl += std::string(",") + random.pick(kNames);
    }
    decl += "\"";
    if (type.compare(0, 3, "Tav") == 0) {
        if (random.below(3) == 0) {
            decl += " count=\"" + std::to_string(random.below(4)) + "\"";
        }
        const std::string format = random.pick(kFormats);
        if (!format.empty()) {
            decl += " displayFormat=\"" + format + "\"";
        }
    } else if (type != "float") {
        decl += " size=\"" + std::to_string(random.below(type == "string" ? 20 : 8)) + "\"";
    }
    return decl + "/>";
}

const char* const kLogStrings[] = {
    "plain text",      "value {a} and {b}", "{c}",         "t }{a",       "a}{b}c",
    "{nope} then {a}", "only {a",           "{dup} {dup}", "x { y } {b}", "{x{}",
};

/// A dictionary directory of `modules` random modules (keys 0x0101 ...).
void writeRandomDictionary(const TempDir& dir, Random& random, int modules) {
    for (int m = 1; m <= modules; ++m) {
        std::string xml = "<?xml version=\"1.0\"?>\n<LoggingSubSystem subsystem=\"S" +
                          std::to_string(m) + "\" subsystemId=\"1\" module=\"m" +
                          std::to_string(m) + "\" moduleid=\"" + std::to_string(m) +
                          "\" binlogversion=\"" + std::to_string(m) + "\">\n";
        if (random.below(2) == 0) {
            xml += "<ModuleHeader>";
            for (std::uint32_t i = random.below(4); i > 0; --i) {
                xml += randomDeclaration(random, true);
            }
            xml += "</ModuleHeader>\n";
        }
        for (int l = 1; l <= 5; ++l) {
            xml += std::string("<LogId name=\"L") + std::to_string(l) + "\" category=\"C" +
                   std::to_string(l) + ",x\" logString=\"" + random.pick(kLogStrings) + "\">";
            for (std::uint32_t i = random.below(6); i > 0; --i) {
                xml += randomDeclaration(random, false);
            }
            xml += "</LogId>\n";
        }
        xml += "</LoggingSubSystem>\n";
        dir.writeFile("m" + std::to_string(m) + "_binlog.xml", xml);
    }
    dir.writeFile("enums_bindisplay.xml",
                  "<?xml version=\"1.0\"?>\n<d><enum name=\"Colour\"><e value=\"0\" text=\"RED\"/>"
                  "<e value=\"1\" text=\"GREEN\"/><e value=\"-1\" text=\"MINUS\"/></enum>"
                  "<enum name=\"Braced\"><e value=\"2\" text=\"{a}\"/><e value=\"3\" "
                  "text=\"}{b\"/></enum></d>\n");
}

/// A random capture for a dictionary of `modules` modules.
/// (Cut short at a random point, now and then, unless `mayCut` is false.)
std::string randomCapture(Random& random, int modules, bool ethernet, bool mayCut = true) {
    std::string file = pcapHeader(ethernet ? 1 : 150);
    const int records = 1 + static_cast<int>(random.below(60));
    std::uint32_t seq = random.below(5);
    for (int i = 0; i < records; ++i) {
        LogRecord r;
        r.tsSec = 1700000000 + random.below(5);
        r.tsUsec = random.below(1000000);
        const std::uint32_t kind = random.below(20);
        r.packetType = kind < 14 ? 0 : kind < 16 ? 1 : kind < 18 ? 2 : kind == 18 ? 3 : 7;
        const std::uint32_t module = 1 + random.below(static_cast<std::uint32_t>(modules) + 1);
        r.logId = (0x0100u | module) << 16 | (random.below(7));
        r.version = static_cast<std::uint16_t>(random.below(8) == 0 ? 9 : module);
        r.level = static_cast<std::uint16_t>(random.below(12));
        seq += random.below(6) == 0 ? random.below(4) : 1;
        r.seqNo = random.below(15) == 0 ? seq - 3 : seq;
        const std::uint32_t size = random.below(70);
        for (std::uint32_t b = 0; b < size; ++b) {
            static const char kBytes[] = {0, 1, 2, 3, '{', '}', 'a', 'b', '\n', '\xff'};
            r.payload.push_back(random.below(3) == 0 ? static_cast<char>(random.next())
                                                     : random.pick(kBytes));
        }
        if (ethernet) {
            appendEthernet(file, r, random.below(8) == 0 ? 4000 : 5000);
        } else {
            appendLink150(file, r);
        }
    }
    if (random.below(6) == 0 && mayCut) {
        file.resize(file.size() - random.below(static_cast<std::uint32_t>(file.size() - 24)));
    }
    return file;
}

// ---- The two routes --------------------------------------------------------------------------

struct Printed {
    std::string out;
    std::string err;
};

Printed readWithReader(Tav::BinaryLogXmlReader& reader, const std::vector<std::string>& paths) {
    MemoryStream out;
    StderrCapture err;
    for (const std::string& path : paths) {
        reader.readBinaryFiledata(path, 30, out.file());
    }
    return {out.text(), err.stop()};
}

/// The options of the reader's constructor, a UTC offset, and a session.
Tav::StreamOptions streamOptionsOf(const Tav::BinaryLogXmlReader& reader, bool strict,
                                   Tav::StreamSession& session) {
    Tav::StreamOptions options;
    options.udpPort = reader.udpPort;
    options.maxVarBinaryBytes = reader.maxVarBinaryBytes;
    options.stats = reader.statsEnabled;
    options.utcOffsetMinutes = 30;
    options.strict = strict;
    options.session = &session;
    return options;
}

Printed readWithStreams(const Tav::BinaryLogXmlReader& reader,
                        const std::vector<std::string>& paths, bool strict,
                        bool inflateThread = false, bool fastInflate = true) {
    Printed printed;
    Tav::StreamSession session(reader);
    for (const std::string& path : paths) {
        Tav::StreamOptions options = streamOptionsOf(reader, strict, session);
        options.inflateThread = inflateThread;
        options.fastInflate = fastInflate;
        Tav::CaptureStream stream(reader, path, options);
        while (stream.next()) {
            if (const Tav::Record* record = stream.record()) {
                printed.out.append(record->text.data(), record->text.size());
            } else {
                const Tav::Event* event = stream.event();
                (event->stream == Tav::EventStream::Output ? printed.out : printed.err)
                    .append(event->text.data(), event->text.size());
            }
        }
    }
    return printed;
}

/// Every record of the captures as JSON twice: the record the stream hands
/// out (whose decoder may write its values straight from the payload) and
/// a copy of it (written from its fields, Record::header() and params()).
/// Returns how many binary log records were compared.
int compareJsonRoutes(const Tav::BinaryLogXmlReader& reader, const std::vector<std::string>& paths,
                      bool texts) {
    int compared = 0;
    Tav::StreamSession session(reader);
    for (const std::string& path : paths) {
        Tav::StreamOptions options = streamOptionsOf(reader, false, session);
        options.texts = texts;
        Tav::CaptureStream stream(reader, path, options);
        while (stream.next()) {
            const Tav::Record* record = stream.record();
            if (record == nullptr) {
                continue;
            }
            std::string own;
            Tav::appendJson(own, *record);
            const Tav::Record copy = *record;
            std::string fromFields;
            Tav::appendJson(fromFields, copy);
            EXPECT_EQ(own, fromFields) << path << " record " << record->number;
            compared += record->kind == Tav::RecordKind::BinLog ? 1 : 0;
        }
    }
    return compared;
}

/// What a worker saw of a record, handed on behind its line.
struct SeenHeaders {
    std::uint64_t number;
    Tav::PcapRecHeader pcap;
    Tav::BinLogHeader header;
    std::uint32_t seconds;
    Tav::RecordKind kind;
};

/// The same captures through ParallelStream: `jobs` workers (and the calling
/// thread) render each record's line; events come from the capture stream in
/// the calling thread.
/// The headers and number handed out with a record are those its worker saw.
/// The renderings of a run are still in place when its last item is out
/// (`runs` counts the runs).
/// Without `render` (`linesOnly`), the renderings are the lines the workers
/// wrote in place, and only the headers' presence is checked.
/// `inflateThread`: the capture is read in a thread of its own, which renders
/// batches too. `moreLines`: the lines in place that follow a record's are
/// taken with it, in one piece.
Printed readInParallel(const Tav::BinaryLogXmlReader& reader, const std::vector<std::string>& paths,
                       unsigned jobs, bool strict, std::size_t* runs = nullptr,
                       bool linesOnly = false, bool inflateThread = false, bool moreLines = false) {
    Printed printed;
    std::vector<std::pair<std::string_view, std::string>> inRun;
    Tav::StreamSession session(reader);
    for (const std::string& path : paths) {
        Tav::StreamOptions options = streamOptionsOf(reader, strict, session);
        options.inflateThread = inflateThread;
        Tav::CaptureStream stream(reader, path, options);
        Tav::ParallelStream::Render render;
        if (!linesOnly) {
            render = [](const Tav::Record& record, std::string& out) {
                out.append(record.text.data(), record.text.size());
                const SeenHeaders seen{record.number, record.pcapHeader, record.binLogHeader,
                                       record.seconds, record.kind};
                out.append(reinterpret_cast<const char*>(&seen), sizeof seen);
            };
        }
        Tav::ParallelStream parallel(stream, jobs, std::move(render));
        std::uint64_t records = 0;
        while (parallel.next()) {
            std::uint64_t following = 0;
            if (parallel.isRecord()) {
                ++records;
            }
            if (parallel.isRecord() && linesOnly) {
                EXPECT_EQ(parallel.event(), nullptr);
                EXPECT_NE(parallel.headers(), nullptr);
                const std::string_view line = parallel.rendered();
                inRun.emplace_back(line, std::string(line));
                printed.out.append(line.data(), line.size());
                if (moreLines) {
                    const std::string_view lines = parallel.moreLines(following);
                    // Right behind the record's own line.
                    EXPECT_EQ(following == 0 ? nullptr : lines.data(),
                              following == 0 ? nullptr : line.data() + line.size());
                    EXPECT_EQ(lines.empty(), following == 0);
                    inRun.emplace_back(lines, std::string(lines));
                    printed.out.append(lines.data(), lines.size());
                    records += following;
                    EXPECT_TRUE(parallel.isRecord());
                }
            } else if (parallel.isRecord()) {
                std::uint64_t none = 1;
                EXPECT_TRUE(parallel.moreLines(none).empty()) << "a render function's renderings";
                EXPECT_EQ(none, 0u);
                EXPECT_EQ(parallel.event(), nullptr);
                std::string_view rendered = parallel.rendered();
                SeenHeaders seen;
                if (rendered.size() < sizeof seen) {
                    ADD_FAILURE() << "a rendering without the headers behind it";
                    return printed;
                }
                inRun.emplace_back(rendered, std::string(rendered));
                rendered.remove_suffix(sizeof seen);
                std::memcpy(&seen, rendered.data() + rendered.size(), sizeof seen);
                printed.out.append(rendered.data(), rendered.size());
                const Tav::ParallelStream::RecordHeaders* headers = parallel.headers();
                if (headers == nullptr) {
                    ADD_FAILURE() << "a record without its headers";
                    return printed;
                }
                const Tav::PcapRecHeader* pcap = &headers->pcap;
                const Tav::BinLogHeader* header = &headers->header;
                EXPECT_EQ(headers->number, seen.number);
                EXPECT_EQ(headers->seconds, seen.seconds);
                EXPECT_EQ(headers->kind, seen.kind);
                EXPECT_EQ(pcap->tsSec, seen.pcap.tsSec);
                EXPECT_EQ(pcap->tsUsec, seen.pcap.tsUsec);
                EXPECT_EQ(pcap->capturedLength, seen.pcap.capturedLength);
                EXPECT_EQ(pcap->storageLength, seen.pcap.storageLength);
                EXPECT_EQ(header->packetType, seen.header.packetType);
                EXPECT_EQ(header->logId, seen.header.logId);
                EXPECT_EQ(header->logLevel, seen.header.logLevel);
                EXPECT_EQ(header->logVersion, seen.header.logVersion);
                EXPECT_EQ(header->seqNo, seen.header.seqNo);
            } else {
                EXPECT_EQ(parallel.headers(), nullptr);
                const Tav::Event* event = parallel.event();
                (event->stream == Tav::EventStream::Output ? printed.out : printed.err)
                    .append(event->text.data(), event->text.size());
            }
            if (parallel.runEnds()) {
                for (const auto& [view, copy] : inRun) {
                    EXPECT_EQ(view, copy) << "a rendering moved before its run ended";
                }
                inRun.clear();
                if (runs != nullptr) {
                    ++*runs;
                }
            }
        }
        EXPECT_TRUE(inRun.empty()) << "the capture ended inside a run";
        inRun.clear();
        EXPECT_EQ(parallel.records(), records);
    }
    return printed;
}

TEST(CaptureStreamDifferential, RandomDictionariesAndCapturesPrintAsReadBinaryFiledata) {
    Random random{20261124};
    int compared = 0;
    int withRecords = 0;
    int jsonRecords = 0;
    std::size_t stepped = 0;
    for (int round = 0; round < 150; ++round) {
        TempDir dir;
        const int modules = 1 + static_cast<int>(random.below(3));
        TempDir dict;
        writeRandomDictionary(dict, random, modules);
        const bool ethernet = random.below(3) == 0;
        std::vector<std::string> paths;
        for (int c = 1 + static_cast<int>(random.below(3)); c > 0; --c) {
            std::string bytes = randomCapture(random, modules, ethernet);
            if (random.below(3) == 0) {
                // gzip-compressed, sometimes cut inside the compressed data.
                const capture_test::Bytes packed =
                    capture_test::gzip(capture_test::Bytes(bytes.begin(), bytes.end()));
                bytes.assign(packed.begin(), packed.end());
                if (random.below(3) == 0) {
                    bytes.resize(bytes.size() - 1 -
                                 random.below(static_cast<std::uint32_t>(bytes.size() / 2)));
                }
            }
            paths.push_back(dir.writeFile("c" + std::to_string(c) + ".pcap", bytes));
        }
        const bool stats = random.below(2) == 0;
        StderrCapture loading;
        Tav::BinaryLogXmlReader reader(dict.slash(), stats, 5000,
                                       static_cast<unsigned short>(random.below(6)));
        loading.stop();
        ASSERT_TRUE(reader.isGood()) << "round " << round;
        const Printed expected = readWithReader(reader, paths);
        // A reader of its own for the streams: readBinaryFiledata grew the
        // first one's level table.
        StderrCapture loadingAgain;
        Tav::BinaryLogXmlReader fresh(dict.slash(), stats, 5000, reader.maxVarBinaryBytes);
        loadingAgain.stop();
        for (const bool strict : {true, false}) {
            const Printed actual = readWithStreams(fresh, paths, strict);
            ASSERT_EQ(actual.out, expected.out) << "round " << round << " strict " << strict;
            ASSERT_EQ(actual.err, expected.err) << "round " << round << " strict " << strict;
            ++compared;
        }
        // Inflating in a thread of its own, and with zlib alone.
        const Printed piped = readWithStreams(fresh, paths, round % 2 == 0, true, round % 3 != 0);
        ASSERT_EQ(piped.out, expected.out) << "round " << round << " inflating in a thread";
        ASSERT_EQ(piped.err, expected.err) << "round " << round << " inflating in a thread";
        // Decoded again by no to four workers, the capture read in a thread
        // of its own (which renders too) or not.
        const unsigned jobs = static_cast<unsigned>(round % 5);
        const Printed parallel =
            readInParallel(fresh, paths, jobs, round % 2 == 1, nullptr, false, round % 3 == 0);
        ASSERT_EQ(parallel.out, expected.out)
            << "round " << round << " with " << jobs << " workers";
        ASSERT_EQ(parallel.err, expected.err)
            << "round " << round << " with " << jobs << " workers";
        // The lines written in place by the workers, without a render.
        const Printed lines = readInParallel(fresh, paths, jobs % 3, round % 2 == 0, nullptr, true,
                                             round % 3 == 1, round % 4 != 0);
        ASSERT_EQ(lines.out, expected.out) << "round " << round << " lines in place";
        ASSERT_EQ(lines.err, expected.err) << "round " << round << " lines in place";
        // Every line written piece by piece rather than in steps.
        StderrCapture loadingOnceMore;
        Tav::BinaryLogXmlReader pieces(dict.slash(), stats, 5000, reader.maxVarBinaryBytes);
        loadingOnceMore.stop();
        stepped += const_cast<Tav::detail::PlanSet&>(Tav::detail::ReaderCore::plansOf(pieces))
                       .dropLineSteps();
        const Printed byPieces = readWithStreams(pieces, paths, round % 2 == 0);
        ASSERT_EQ(byPieces.out, expected.out) << "round " << round << " piece by piece";
        ASSERT_EQ(byPieces.err, expected.err) << "round " << round << " piece by piece";
        withRecords += expected.out.find("] \n") != std::string::npos ? 1 : 0;
        // JSON written from the payload and from the fields.
        jsonRecords += compareJsonRoutes(fresh, paths, round % 5 != 0);
    }
    EXPECT_EQ(compared, 300);
    EXPECT_GT(withRecords, 100);
    EXPECT_GT(jsonRecords, 1000);
    EXPECT_GT(stepped, 300u);
}

TEST(CaptureStreamDifferential, ManyModulesCountTheirSequencesAsReadBinaryFiledata) {
    // Far more modules than the stream remembers places for, interleaved,
    // binary log and syslog numbers of the same keys, over three captures
    // of one session (the statistics start afresh after each): every gap
    // and reorder line as the reader prints them.
    Random random{20261124};
    TempDir dict;
    writeRandomDictionary(dict, random, 1);
    TempDir dir;
    std::vector<std::string> paths;
    int gapsAndReorders = 0;
    for (int c = 0; c < 3; ++c) {
        std::string file = pcapHeader(150);
        std::map<std::uint32_t, std::uint32_t> next;
        for (int i = 0; i < 3000; ++i) {
            LogRecord r;
            r.tsSec = 1700000000 + static_cast<std::uint32_t>(i / 100);
            r.tsUsec = static_cast<std::uint32_t>(i % 100) * 1000;
            r.packetType = random.below(8) == 0 ? 2 : 0;
            const std::uint32_t module =
                random.below(10) == 0 ? 0x8000u | random.below(4) : 1 + random.below(300);
            r.logId = module << 16 | random.below(7);
            r.version = 1;
            r.level = static_cast<std::uint16_t>(random.below(8));
            std::uint32_t& seq = next[module << 1 | (r.packetType == 2 ? 1u : 0u)];
            seq += random.below(9) == 0 ? 2 + random.below(3) : 1;
            r.seqNo = random.below(12) == 0 ? seq - 2 : seq;
            appendLink150(file, r);
        }
        paths.push_back(dir.writeFile("many" + std::to_string(c) + ".pcap", file));
    }
    StderrCapture loading;
    Tav::BinaryLogXmlReader reader(dict.slash(), true, 5000, 4);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    const Printed expected = readWithReader(reader, paths);
    StderrCapture loadingAgain;
    Tav::BinaryLogXmlReader fresh(dict.slash(), true, 5000, 4);
    loadingAgain.stop();
    const Printed actual = readWithStreams(fresh, paths, false);
    EXPECT_EQ(actual.out, expected.out);
    EXPECT_EQ(actual.err, expected.err);
    for (std::size_t at = 0; (at = expected.out.find("\n>>", at)) != std::string::npos; ++at) {
        ++gapsAndReorders;
    }
    EXPECT_GT(gapsAndReorders, 1000);
}

// ---- Datagrams received live -------------------------------------------------------------------

/// The UDP payloads to port 5000 of a capture written by appendEthernet
/// (Ethernet 14, IPv4 20 and UDP 8 header bytes before each payload).
std::vector<std::string> datagramsOf(const std::string& capture) {
    std::vector<std::string> datagrams;
    std::size_t at = 24;
    while (at + 16 <= capture.size()) {
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(capture[i]); };
        const std::size_t length = byte(at + 12) | byte(at + 13) << 8 | byte(at + 14) << 16 |
                                   static_cast<std::size_t>(byte(at + 15)) << 24;
        if (at + 16 + length > capture.size()) {
            break;  // a capture cut short
        }
        const std::string frame = capture.substr(at + 16, length);
        at += 16 + length;
        const unsigned port =
            static_cast<unsigned char>(frame[36]) << 8 | static_cast<unsigned char>(frame[37]);
        if (port == 5000) {
            datagrams.push_back(frame.substr(42));
        }
    }
    return datagrams;
}

TEST(DatagramStreamDifferential, DatagramsDecodeAsTheCaptureThatCarriesThem) {
    Random random{20261125};
    int withRecords = 0;
    for (int round = 0; round < 60; ++round) {
        const int modules = 1 + static_cast<int>(random.below(3));
        TempDir dict;
        writeRandomDictionary(dict, random, modules);
        std::string capture = randomCapture(random, modules, true);
        // Whole records only: a capture cut short has no datagram to match.
        TempDir dir;
        const bool stats = random.below(2) == 0;
        StderrCapture loading;
        Tav::BinaryLogXmlReader reader(dict.slash(), stats, 5000, 4);
        loading.stop();
        ASSERT_TRUE(reader.isGood());
        Tav::StreamOptions options;
        options.udpPort = 5000;
        options.maxVarBinaryBytes = 4;
        options.stats = stats;
        options.utcOffsetMinutes = 45;
        const std::vector<std::string> datagrams = datagramsOf(capture);
        // The capture as far as its whole records go.
        std::string expected;
        std::string expectedSummary;
        {
            Tav::CaptureStream stream(reader, dir.writeFile("c.pcap", capture), options);
            while (stream.next()) {
                if (const Tav::Record* record = stream.record()) {
                    expected.append(record->text.data(), record->text.size());
                } else if (stream.event()->kind == Tav::EventKind::Summary) {
                    expectedSummary = std::string(stream.event()->text);
                } else if (stream.event()->kind != Tav::EventKind::Truncated &&
                           stream.event()->kind != Tav::EventKind::Note) {
                    expected.append(stream.event()->text.data(), stream.event()->text.size());
                }
            }
            if (stream.damaged()) {
                continue;  // cut short: the last datagram would differ
            }
        }
        std::string actual;
        Tav::DatagramStream live(reader, "udp", options);
        std::uint64_t number = 0;
        for (const std::string& datagram : datagrams) {
            ++number;
            const auto result =
                live.push(reinterpret_cast<const unsigned char*>(datagram.data()), datagram.size());
            ASSERT_EQ(result, datagram.size() < 32 ? Tav::DatagramStream::Result::TooShort
                                                   : Tav::DatagramStream::Result::Decoded);
            while (live.next()) {
                if (const Tav::Record* record = live.record()) {
                    EXPECT_EQ(record->number, number);
                    EXPECT_EQ(record->capture, "udp");
                    actual.append(record->text.data(), record->text.size());
                } else {
                    EXPECT_EQ(live.event()->capture, "udp");
                    actual.append(live.event()->text.data(), live.event()->text.size());
                }
            }
        }
        ASSERT_EQ(actual, expected) << "round " << round;
        EXPECT_EQ(live.datagrams(), datagrams.size());
        EXPECT_EQ(live.statisticsSoFar(), expectedSummary) << "round " << round;
        withRecords += expected.find("] \n") != std::string::npos ? 1 : 0;
    }
    EXPECT_GT(withRecords, 20);
}

TEST(DatagramStream, ShortAndLongDatagramsAreCountedNotDecoded) {
    TempDir dict;
    dict.writeFile("a_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="CORE" subsystemId="1" module="sched" moduleid="2" binlogversion="1">
  <LogId name="Ping" logString="ping {n}" category="DIAG">
    <p type="TavUint32_t" nameList="n"/>
  </LogId>
</LoggingSubSystem>
)");
    Tav::BinaryLogXmlReader reader(dict.slash(), false, 0, 64);
    ASSERT_TRUE(reader.isGood());
    Tav::DatagramStream live(reader, "udp:5000", Tav::StreamOptions());
    const std::string tooShort(31, '\0');
    const std::string tooLong(Tav::DatagramStream::kMaxDatagramBytes + 1, '\0');
    EXPECT_EQ(live.push(reinterpret_cast<const unsigned char*>(tooShort.data()), tooShort.size()),
              Tav::DatagramStream::Result::TooShort);
    EXPECT_FALSE(live.next());
    EXPECT_EQ(live.push(reinterpret_cast<const unsigned char*>(tooLong.data()), tooLong.size()),
              Tav::DatagramStream::Result::TooLong);
    EXPECT_FALSE(live.next());
    // The largest datagram is decoded: a Ping whose payload runs on.
    LogRecord r;
    r.tsSec = 1700000000;
    r.logId = 0x01020001;
    r.seqNo = 9;
    putU32(r.payload, 77);
    std::string datagram;
    putU32(datagram, r.tsSec);
    putU32(datagram, 0);
    putU32(datagram, 0);
    putU32(datagram, 0);
    datagram += logBytes(r, 0);
    datagram.resize(Tav::DatagramStream::kMaxDatagramBytes, 'x');
    EXPECT_EQ(live.push(reinterpret_cast<const unsigned char*>(datagram.data()), datagram.size()),
              Tav::DatagramStream::Result::Decoded);
    ASSERT_TRUE(live.next());
    ASSERT_NE(live.record(), nullptr);
    EXPECT_EQ(live.record()->number, 3u);
    EXPECT_EQ(live.record()->text,
              "[2023-11-14T22:13:20.000Z] [CORE:sched] [                     Ping] [    INFO] "
              "[      DIAG] [9] [ping n=77] \n");
    EXPECT_FALSE(live.next());
    EXPECT_EQ(live.datagrams(), 3u);
    EXPECT_EQ(live.malformed(), 2u);
    EXPECT_EQ(live.statisticsSoFar(), "");
}

// ---- Values of records -------------------------------------------------------------------------

class CaptureStreamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dict_.writeFile("core_binlog.xml", R"(<?xml version="1.0"?>
<LoggingSubSystem subsystem="CORE" subsystemId="1" module="sched" moduleid="2" binlogversion="3">
  <ModuleHeader>
    <p type="TavUint16_t" nameList="cell"/>
    <p type="TavUint8_t" nameList="carrier"/>
  </ModuleHeader>
  <LogId name="Grant" logString="ue {ue} got {bytes} in {state}" category="SCHED,x">
    <p type="TavUint8_t" nameList="mcs" displayFormat="hex"/>
    <p type="TavUint32_t" nameList="ue,bytes"/>
    <p type="TavInt16_t" nameList="rssi" count="3" displayFormat="Colour"/>
    <p type="string" nameList="state" size="6"/>
    <p type="varbinarystring" nameList="raw" size="4"/>
  </LogId>
</LoggingSubSystem>
)");
        dict_.writeFile("colours_bindisplay.xml",
                        "<d><enum name=\"Colour\"><e value=\"-1\" text=\"MINUS\"/>"
                        "<e value=\"2\" text=\"TWO\"/></enum></d>");
        reader_ = std::make_unique<Tav::BinaryLogXmlReader>(dict_.slash(), false, 0, 2);
        ASSERT_TRUE(reader_->isGood());
    }

    /// One Grant record: header cell 7, carrier 1 (padding 1), then u32 ue
    /// 17, bytes 1024, i16 rssi -1,5,2, u8 mcs 9, string "ok", var binary
    /// 3 bytes aa bb cc.
    std::string grantCapture() {
        LogRecord r;
        r.tsSec = 1700000000;
        r.tsUsec = 250000;
        r.logId = 0x01020001;
        r.version = 3;
        r.seqNo = 41;
        putU16(r.payload, 7);
        r.payload.push_back(1);
        r.payload.push_back(0);
        putU32(r.payload, 17);
        putU32(r.payload, 1024);
        putU16(r.payload, 0xFFFF);
        putU16(r.payload, 5);
        putU16(r.payload, 2);
        r.payload.push_back(9);
        r.payload += std::string("ok\0\0\0\0", 6);
        putU16(r.payload, 3);
        r.payload += "\xaa\xbb\xcc";
        std::string file = pcapHeader(150);
        appendLink150(file, r);
        return file;
    }

    TempDir dict_;
    std::unique_ptr<Tav::BinaryLogXmlReader> reader_;
};

TEST_F(CaptureStreamTest, ARecordCarriesItsValuesInDeclarationOrder) {
    const std::string bytes = grantCapture();
    Tav::StreamOptions options;
    options.maxVarBinaryBytes = 2;
    options.utcOffsetMinutes = 60;
    Tav::CaptureStream stream(*reader_, "mem.pcap",
                              reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                              options);
    ASSERT_TRUE(stream.next());
    const Tav::Record* record = stream.record();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->kind, Tav::RecordKind::BinLog);
    EXPECT_EQ(record->capture, "mem.pcap");
    EXPECT_EQ(record->number, 1u);
    EXPECT_EQ(record->offset, 24u);
    EXPECT_EQ(record->seconds, 1700000000u + 3600u);
    EXPECT_EQ(record->microseconds, 250000u);
    EXPECT_EQ(record->moduleKey, 0x0102);
    EXPECT_EQ(record->logIndex, 1);
    EXPECT_EQ(record->subsystem, "CORE");
    EXPECT_EQ(record->module, "sched");
    EXPECT_EQ(record->log, "Grant");
    EXPECT_EQ(record->levelName, "INFO");
    EXPECT_EQ(record->category, "SCHED");
    EXPECT_EQ(record->seqNo, 41u);

    ASSERT_EQ(record->header().size(), 2u);
    EXPECT_EQ(record->header()[0].name, "cell");
    EXPECT_EQ(record->header()[0].raw, 7u);
    EXPECT_EQ(record->header()[0].text, "7");
    EXPECT_EQ(record->header()[1].name, "carrier");
    EXPECT_EQ(record->header()[1].type, Tav::ParamType::Uint8);

    // Declaration order: mcs, ue, bytes, rssi[0..2], state, raw.
    const Tav::View<Tav::ParamField> p = record->params();
    ASSERT_EQ(p.size(), 8u);
    EXPECT_EQ(p[0].name, "mcs");
    EXPECT_EQ(p[0].text, "0x9");
    EXPECT_EQ(p[1].name, "ue");
    EXPECT_EQ(p[1].raw, 17u);
    EXPECT_EQ(p[2].name, "bytes");
    EXPECT_EQ(p[2].text, "1024");
    EXPECT_EQ(p[3].name, "rssi");
    EXPECT_EQ(p[3].index, 0);
    EXPECT_TRUE(p[3].isSigned());
    EXPECT_EQ(p[3].asSigned(), -1);
    EXPECT_EQ(p[3].text, "MINUS");
    EXPECT_EQ(p[3].enumName, "Colour");
    // 5 is not in the enumeration: the element repeats the text before it.
    EXPECT_EQ(p[4].index, 1);
    EXPECT_EQ(p[4].text, "MINUS");
    EXPECT_EQ(p[4].enumName, "");
    EXPECT_EQ(p[5].text, "TWO");
    EXPECT_EQ(p[6].name, "state");
    EXPECT_EQ(p[6].type, Tav::ParamType::String);
    EXPECT_EQ(p[6].bytes, "ok");
    EXPECT_EQ(p[7].name, "raw");
    EXPECT_EQ(p[7].bytes, "\xaa\xbb\xcc");
    EXPECT_EQ(p[7].text, "payload size:3 aa:bb");

    EXPECT_EQ(record->text,
              "[2023-11-14T23:13:20.250Z] [CORE:sched] [                    Grant] [    INFO] "
              "[     SCHED] [41] [cell=7 carrier=1 ] [ue ue=17 got bytes=1024 in state=ok] \n");
    EXPECT_EQ(record->message, "ue ue=17 got bytes=1024 in state=ok");
    EXPECT_EQ(record->utcOffsetMinutes, 60);
    EXPECT_EQ(record->pcapHeader.tsSec, 1700000000u);
    EXPECT_FALSE(stream.next());
    EXPECT_FALSE(stream.damaged());
    EXPECT_TRUE(stream.opened());
    EXPECT_EQ(stream.recordsRead(), 1u);
}

TEST_F(CaptureStreamTest, WithoutTextsRecordsCarryValuesOnly) {
    const std::string bytes = grantCapture();
    Tav::StreamOptions options;
    options.texts = false;
    Tav::CaptureStream stream(*reader_, "mem", reinterpret_cast<const unsigned char*>(bytes.data()),
                              bytes.size(), options);
    ASSERT_TRUE(stream.next());
    const Tav::Record* record = stream.record();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->text, "");
    ASSERT_EQ(record->params().size(), 8u);
    EXPECT_EQ(record->params()[2].raw, 1024u);
    EXPECT_EQ(record->params()[2].text, "");
    EXPECT_EQ(record->params()[3].enumName, "Colour");
    EXPECT_EQ(record->params()[6].bytes, "ok");
}

TEST_F(CaptureStreamTest, EventsComeBeforeTheRecordTheyBelongTo) {
    // An unknown log id, then a record with a var binary count above its
    // size, with statistics: the gap comes first, then the count message.
    LogRecord unknown;
    unknown.logId = 0x01020009;
    unknown.version = 3;
    unknown.seqNo = 1;
    std::string file = pcapHeader(150);
    appendLink150(file, unknown);
    std::string grant = grantCapture().substr(24);
    // seqNo 41 -> gap after 1; var binary count 3 -> 9 (above the size 4).
    const std::size_t countAt = 16 + 16 + 4 + 8 + 6 + 1 + 6;
    grant[countAt] = 9;
    file += grant;
    Tav::StreamOptions options;
    options.stats = true;
    Tav::CaptureStream stream(*reader_, "ev", reinterpret_cast<const unsigned char*>(file.data()),
                              file.size(), options);
    std::vector<std::string> items;
    const Tav::Event* gap = nullptr;
    Tav::Event gapCopy;
    std::uint32_t unknownLogId = 0;
    while (stream.next()) {
        if (const Tav::Event* event = stream.event()) {
            items.push_back(
                std::string(event->stream == Tav::EventStream::Output ? "out " : "err ") +
                std::string(event->text));
            if (event->kind == Tav::EventKind::UnknownLogId) {
                unknownLogId = event->binLogHeader.logId;
                EXPECT_EQ(event->payload.size(), 0u);
            }
            if (event->kind == Tav::EventKind::Gap) {
                gap = event;
                gapCopy = *event;
            }
        } else {
            // Its values are decoded now; what that reports was reported.
            EXPECT_EQ(stream.record()->params().size(), 8u);
            items.push_back("record " + std::to_string(stream.record()->seqNo));
        }
    }
    ASSERT_NE(gap, nullptr);
    EXPECT_EQ(gapCopy.module, 0x0102u);
    EXPECT_EQ(gapCopy.lastSeqNo, 1);
    EXPECT_EQ(gapCopy.seqNo, 41);
    EXPECT_EQ(gapCopy.missing, 39);
    EXPECT_EQ(gapCopy.record, 2u);
    ASSERT_EQ(items.size(), 5u);
    EXPECT_EQ(items[0], "err Log id :1020009 not valid\n");
    EXPECT_EQ(unknownLogId, 0x01020009u);
    EXPECT_EQ(items[1],
              "out >>possibly missing packets: module=0x102,lastSeqNo=1,curSeqNo=41: "
              "diff=39,missingRecords_=0\n");
    EXPECT_EQ(items[2], "err Variable length:9 in payload is greater thanthe definition 4\n");
    EXPECT_EQ(items[3], "record 41");
    EXPECT_EQ(items[4].compare(0, 26, "out >>totalRecords =  2\n>>"), 0) << items[4];
}

TEST_F(CaptureStreamTest, CaptureProblemsAreEvents) {
    TempDir dir;
    struct Case {
        std::string bytes;
        Tav::EventKind kind;
        std::string text;
    };
    const std::string grant = grantCapture();
    std::string oversized = pcapHeader(150);
    putU32(oversized, 0);
    putU32(oversized, 0);
    putU32(oversized, 25001);
    putU32(oversized, 25001);
    const Case cases[] = {
        {"", Tav::EventKind::NoGlobalHeader, "No global header found\n"},
        {pcapHeader(7), Tav::EventKind::BadLinkType,
         "Invalid link type 7 found. Not a valid log pcap file\n"},
        {grant.substr(0, grant.size() - 5), Tav::EventKind::Truncated,
         "Warning: Possibly truncated file. Actual payloadBytes :" +
             std::to_string(grant.size() - 24 - 16 - 5) +
             " Expected payloadBytes :" + std::to_string(grant.size() - 24 - 16) + "\n"},
        {oversized, Tav::EventKind::Oversized,
         "pHdr storageLength 25001 is more thanMAX_BINLOG_LENGTH\n"},
    };
    for (const Case& c : cases) {
        const std::string path = dir.writeFile("case.pcap", c.bytes);
        Tav::StreamOptions options;
        options.strict = true;
        Tav::CaptureStream stream(*reader_, path, options);
        std::vector<Tav::EventKind> kinds;
        std::string text;
        while (stream.next()) {
            if (const Tav::Event* event = stream.event()) {
                kinds.push_back(event->kind);
                text += std::string(event->text);
            }
        }
        ASSERT_FALSE(kinds.empty()) << c.text;
        EXPECT_EQ(kinds.back(), c.kind) << c.text;
        EXPECT_EQ(text, c.text);
        EXPECT_TRUE(stream.damaged()) << c.text;
    }
    Tav::CaptureStream missing(*reader_, dir.path() + "/none.pcap", Tav::StreamOptions());
    ASSERT_TRUE(missing.next());
    ASSERT_NE(missing.event(), nullptr);
    EXPECT_EQ(missing.event()->kind, Tav::EventKind::OpenFailed);
    EXPECT_EQ(missing.event()->name, std::strerror(ENOENT));
    EXPECT_EQ(missing.event()->text, "File open failed [" + dir.path() + "/none.pcap]\n");
    EXPECT_FALSE(missing.next());
}

TEST_F(CaptureStreamTest, APipeIsReadAsItsBytesArrive) {
    const std::string bytes = grantCapture() + grantCapture().substr(24);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::thread writer([&bytes, fds] {
        // In two pieces that split a record.
        const std::size_t half = bytes.size() / 2;
        EXPECT_EQ(write(fds[1], bytes.data(), half), static_cast<ssize_t>(half));
        EXPECT_EQ(write(fds[1], bytes.data() + half, bytes.size() - half),
                  static_cast<ssize_t>(bytes.size() - half));
        close(fds[1]);
    });
    Tav::CaptureStream stream(*reader_, "pipe", fds[0], true, Tav::StreamOptions());
    int records = 0;
    while (stream.next()) {
        records += stream.record() != nullptr ? 1 : 0;
    }
    writer.join();
    EXPECT_EQ(records, 2);
    EXPECT_FALSE(stream.damaged());
}

TEST_F(CaptureStreamTest, AFollowedCaptureIsReadAsItGrows) {
    // Five records, appended in pieces of 7 bytes (which split the file
    // header and every record), plain and gzip-compressed.
    std::string whole = pcapHeader(150);
    for (int i = 0; i < 5; ++i) {
        whole += grantCapture().substr(24);
    }
    std::string expected;
    {
        Tav::CaptureStream complete(*reader_, "whole",
                                    reinterpret_cast<const unsigned char*>(whole.data()),
                                    whole.size(), Tav::StreamOptions());
        while (complete.next()) {
            ASSERT_NE(complete.record(), nullptr);
            expected += std::string(complete.record()->text);
        }
        EXPECT_FALSE(complete.waiting());
    }
    ASSERT_EQ(std::count(expected.begin(), expected.end(), '\n'), 5);
    for (const bool compressed : {false, true}) {
        TempDir dir;
        const std::string path = dir.writeFile("growing.pcap", "");
        const capture_test::Bytes packed =
            capture_test::gzip(capture_test::Bytes(whole.begin(), whole.end()));
        const std::string bytes = compressed ? std::string(packed.begin(), packed.end()) : whole;
        Tav::StreamOptions options;
        options.follow = true;
        Tav::CaptureStream stream(*reader_, path, options);
        std::string text;
        int waits = 0;
        for (std::size_t at = 0; at < bytes.size(); at += 7) {
            {
                std::FILE* file = std::fopen(path.c_str(), "ab");
                ASSERT_NE(file, nullptr);
                std::fwrite(bytes.data() + at, 1, std::min<std::size_t>(7, bytes.size() - at),
                            file);
                std::fclose(file);
            }
            while (stream.next()) {
                ASSERT_NE(stream.record(), nullptr) << std::string(stream.event()->text);
                text += std::string(stream.record()->text);
            }
            EXPECT_TRUE(stream.waiting());
            ++waits;
        }
        EXPECT_EQ(text, expected) << "compressed " << compressed;
        EXPECT_GT(waits, 5);
        EXPECT_FALSE(stream.damaged());
        EXPECT_TRUE(stream.opened());
    }
}

TEST_F(CaptureStreamTest, RequestStopEndsTheStream) {
    std::string file = pcapHeader(150);
    const std::string record = grantCapture().substr(24);
    for (int i = 0; i < 10; ++i) {
        file += record;
    }
    Tav::CaptureStream stream(*reader_, "stop", reinterpret_cast<const unsigned char*>(file.data()),
                              file.size(), Tav::StreamOptions());
    ASSERT_TRUE(stream.next());
    ASSERT_TRUE(stream.next());
    stream.requestStop();
    EXPECT_FALSE(stream.next());
    EXPECT_FALSE(stream.next());
}

// ---- Concurrent streams on one reader -----------------------------------------------------------

TEST(CaptureStreamThreads, TwoThreadsDecodeAsOneAfterTheOther) {
    Random random{77};
    TempDir dict;
    writeRandomDictionary(dict, random, 3);
    TempDir dir;
    std::vector<std::string> paths;
    for (int c = 0; c < 2; ++c) {
        std::string file = pcapHeader(150);
        for (int i = 0; i < 200; ++i) {
            const std::string one = randomCapture(random, 3, false);
            file += one.substr(24);
        }
        paths.push_back(dir.writeFile("t" + std::to_string(c) + ".pcap", file));
    }
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), true, 5000, 8);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    auto decode = [&reader](const std::string& path) {
        return readWithStreams(reader, {path}, false);
    };
    const Printed first = decode(paths[0]);
    const Printed second = decode(paths[1]);
    ASSERT_FALSE(first.out.empty());
    for (int round = 0; round < 5; ++round) {
        Printed parallelFirst;
        Printed parallelSecond;
        std::thread a([&] { parallelFirst = decode(paths[0]); });
        std::thread b([&] { parallelSecond = decode(paths[1]); });
        a.join();
        b.join();
        EXPECT_EQ(parallelFirst.out, first.out);
        EXPECT_EQ(parallelFirst.err, first.err);
        EXPECT_EQ(parallelSecond.out, second.out);
        EXPECT_EQ(parallelSecond.err, second.err);
    }
}

TEST(CaptureStreamThreads, WorkersPrintWhatOneThreadPrints) {
    Random random{78};
    TempDir dict;
    writeRandomDictionary(dict, random, 3);
    TempDir dir;
    // Long enough for many batches of records, with damage at the end of
    // the second capture.
    std::vector<std::string> paths;
    for (int c = 0; c < 2; ++c) {
        std::string file = pcapHeader(150);
        for (int i = 0; i < 400; ++i) {
            file += randomCapture(random, 3, false, false).substr(24);
        }
        if (c == 1) {
            file.resize(file.size() - 7);
        }
        paths.push_back(dir.writeFile("w" + std::to_string(c) + ".pcap", file));
    }
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), true, 5000, 8);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    const Printed serial = readWithStreams(reader, paths, false);
    ASSERT_GT(std::count(serial.out.begin(), serial.out.end(), '\n'), 5000);
    for (const unsigned jobs : {0u, 1u, 2u, 3u, 4u}) {
        std::size_t runs = 0;
        const Printed parallel =
            readInParallel(reader, paths, jobs, false, &runs, false, jobs % 2 == 0);
        EXPECT_EQ(parallel.out, serial.out) << jobs << " workers";
        EXPECT_EQ(parallel.err, serial.err) << jobs << " workers";
        // Several runs in each capture.
        EXPECT_GT(runs, 2 * paths.size()) << jobs << " workers";
        // The lines written in place, and unmoved until their run ends.
        runs = 0;
        const Printed lines =
            readInParallel(reader, paths, jobs, false, &runs, true, jobs % 2 == 1, jobs != 3);
        EXPECT_EQ(lines.out, serial.out) << jobs << " workers, lines in place";
        EXPECT_EQ(lines.err, serial.err) << jobs << " workers, lines in place";
        EXPECT_GT(runs, 2 * paths.size()) << jobs << " workers, lines in place";
    }
}

TEST(CaptureStreamThreads, WithoutWorkersTheCallingAndTheReadingThreadsRender) {
    // Larger than the bytes the reading thread may hold: it waits for room,
    // and renders batches meanwhile.
    Random random{83};
    TempDir dict;
    writeRandomDictionary(dict, random, 3);
    TempDir dir;
    std::string file = pcapHeader(150);
    while (file.size() < 6u * 1024 * 1024) {
        file += randomCapture(random, 3, false, false).substr(24);
    }
    const std::vector<std::string> paths{dir.writeFile("big.pcap", file)};
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), true, 5000, 8);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    const Printed serial = readWithStreams(reader, paths, false);
    ASSERT_GT(std::count(serial.out.begin(), serial.out.end(), '\n'), 20000);

    // The threads that rendered, as each rendering names its own.
    auto renderers = [&](bool inflateThread, Printed& printed) {
        std::mutex mutex;
        std::set<std::thread::id> threads;
        Tav::StreamSession session(reader);
        Tav::StreamOptions options = streamOptionsOf(reader, false, session);
        options.inflateThread = inflateThread;
        Tav::CaptureStream stream(reader, paths[0], options);
        Tav::ParallelStream parallel(stream, 0, [&](const Tav::Record& record, std::string& out) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                threads.insert(std::this_thread::get_id());
            }
            out.append(record.text.data(), record.text.size());
        });
        while (parallel.next()) {
            if (parallel.isRecord()) {
                printed.out.append(parallel.rendered().data(), parallel.rendered().size());
            } else {
                const Tav::Event* event = parallel.event();
                (event->stream == Tav::EventStream::Output ? printed.out : printed.err)
                    .append(event->text.data(), event->text.size());
            }
        }
        return threads;
    };
    Printed alone;
    const std::set<std::thread::id> one = renderers(false, alone);
    EXPECT_EQ(alone.out, serial.out);
    EXPECT_EQ(alone.err, serial.err);
    EXPECT_EQ(one, std::set<std::thread::id>{std::this_thread::get_id()});
    // With a reading thread: it renders too, and no third thread does (how
    // the batches fall to the two threads is up to the machine: asked up to
    // three times, as a busy one may let the calling thread render them all;
    // the reading thread, done reading, may as well render them all).
    std::set<std::thread::id> two;
    const auto others = [&two] { return two.size() - two.count(std::this_thread::get_id()); };
    for (int run = 0; run < 3 && others() == 0; ++run) {
        Printed helped;
        two = renderers(true, helped);
        EXPECT_EQ(helped.out, serial.out) << "run " << run;
        EXPECT_EQ(helped.err, serial.err) << "run " << run;
    }
    EXPECT_LE(two.size(), 2u);
    EXPECT_EQ(others(), 1u);
}

TEST(CaptureStreamThreads, EventsAloneAreCutIntoBatchesToo) {
    // Records of a log id the dictionary lacks are events, not records:
    // batches that counted only records held the whole capture at once.
    Random random{79};
    TempDir dict;
    writeRandomDictionary(dict, random, 1);
    TempDir dir;
    std::string file = pcapHeader(150);
    LogRecord unknown;
    unknown.logId = 0x7F7F0001;
    for (std::uint32_t i = 0; i < 10000; ++i) {
        unknown.seqNo = i;
        unknown.tsUsec = i % 1000000;
        appendLink150(file, unknown);
    }
    const std::vector<std::string> paths{dir.writeFile("unknown.pcap", file)};
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), false, 5000, 8);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    const Printed serial = readWithStreams(reader, paths, true);
    ASSERT_EQ(std::count(serial.err.begin(), serial.err.end(), '\n'), 10000);
    for (const unsigned jobs : {1u, 2u}) {
        std::size_t runs = 0;
        const Printed parallel = readInParallel(reader, paths, jobs, true, &runs);
        EXPECT_EQ(parallel.out, serial.out) << jobs << " workers";
        EXPECT_EQ(parallel.err, serial.err) << jobs << " workers";
        EXPECT_GE(runs, 10000u / 2048u) << jobs << " workers";
    }
}

TEST(CaptureStreamThreads, AStopEndsTheWorkersAtTheItemHandedOut) {
    Random random{79};
    TempDir dict;
    writeRandomDictionary(dict, random, 2);
    TempDir dir;
    std::string file = pcapHeader(150);
    for (int i = 0; i < 300; ++i) {
        file += randomCapture(random, 2, false, false).substr(24);
    }
    const std::string path = dir.writeFile("s.pcap", file);
    StderrCapture loading;
    const Tav::BinaryLogXmlReader reader(dict.slash(), false, 5000, 8);
    loading.stop();
    ASSERT_TRUE(reader.isGood());
    const Printed serial = readWithStreams(reader, {path}, false);
    Tav::StreamOptions options;
    options.utcOffsetMinutes = 30;
    options.texts = false;
    options.values = false;
    Tav::CaptureStream stream(reader, path, options);
    Tav::ParallelStream parallel(stream, 2, [](const Tav::Record& record, std::string& out) {
        out.append(record.text.data(), record.text.size());
    });
    // Stopped after the 1500th record: nothing after it comes out, although
    // the workers have rendered records beyond it.
    std::string out;
    while (parallel.next()) {
        if (parallel.isRecord()) {
            out.append(parallel.rendered().data(), parallel.rendered().size());
            if (parallel.records() == 1500) {
                stream.requestStop();
            }
        } else if (parallel.event()->stream == Tav::EventStream::Output) {
            out.append(parallel.event()->text.data(), parallel.event()->text.size());
        }
    }
    EXPECT_EQ(parallel.records(), 1500u);
    ASSERT_LT(out.size(), serial.out.size());
    EXPECT_EQ(out, serial.out.substr(0, out.size()));
}

}  // namespace
