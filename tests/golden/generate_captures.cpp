// Writes the capture files of the golden cases into the directory given as the
// only argument. Each capture is described below as the records it holds, with
// payloads laid out as the dictionaries in dict/main declare them; the expected
// outputs in expected/ are derived from these descriptions.
#include <cstdint>
#include <cstdio>
#include <string>

#include "PcapWriter.h"

using namespace wexbl_test;

namespace {

// ---- Times ----------------------------------------------------------------------

constexpr std::uint32_t kT0 = 1700000000;  // 2023-11-14T22:13:20Z
// Ethernet captures: the capturing host's clock, which the reader must not show.
constexpr std::uint32_t kCaptureHostTime = 1600000000;  // 2020-09-13T12:26:40Z

// ---- Levels ---------------------------------------------------------------------

constexpr std::uint16_t kError = 2;
constexpr std::uint16_t kWarn = 3;
constexpr std::uint16_t kNotice = 4;
constexpr std::uint16_t kInfo = 5;
constexpr std::uint16_t kDebug = 6;

// ---- Module CORE:SCHED (key 0x0102, binlogversion 3, with module header) --------

constexpr std::uint16_t kSchedVersion = 3;
constexpr std::uint32_t kUeAttach = 0x01020001;
constexpr std::uint32_t kAllKinds = 0x01020002;
constexpr std::uint32_t kStates = 0x01020003;

// Module header: u16 cellId, u8 ueIndex, one padding byte.
std::string schedHeader(std::uint16_t cellId, std::uint8_t ueIndex) {
    return ByteBuilder().u16(cellId).u8(ueIndex).zeros(1).str();
}

// UeAttach: u32 tti (SF-SFN), u16 state (CellState), u8 ue.
std::string ueAttach(std::uint16_t cellId, std::uint8_t ueIndex, std::uint8_t ue, std::uint32_t tti,
                     std::uint16_t state) {
    return schedHeader(cellId, ueIndex) + ByteBuilder().u32(tti).u16(state).u8(ue).str();
}

struct AllKindsValues {
    std::uint64_t big;
    std::int64_t delta;
    std::uint32_t mask;
    std::int32_t offset;
    std::uint16_t rssi[3];
    std::int16_t temp;
    std::int16_t code;
    std::uint8_t flags;
    std::int8_t level;
    std::string name;  // cut or padded to 8 bytes
    std::string mac;   // 4 bytes
    std::uint16_t blobCount;
    std::string blob;
};

// AllKinds: the type groups in their fixed order.
std::string allKinds(std::uint16_t cellId, std::uint8_t ueIndex, const AllKindsValues& v) {
    return schedHeader(cellId, ueIndex) + ByteBuilder()
                                              .u64(v.big)
                                              .i64(v.delta)
                                              .u32(v.mask)
                                              .i32(v.offset)
                                              .u16(v.rssi[0])
                                              .u16(v.rssi[1])
                                              .u16(v.rssi[2])
                                              .i16(v.temp)
                                              .i16(v.code)
                                              .u8(v.flags)
                                              .i8(v.level)
                                              .fixedString(v.name, 8)
                                              .fixedString(v.mac, 4)
                                              .varBinary(v.blobCount, v.blob)
                                              .str();
}

// States: u16 current (CellState), u16 frame ("SF-SFN" enum), u8 states[3] (CellState).
std::string states(std::uint16_t cellId, std::uint8_t ueIndex, std::uint16_t current,
                   std::uint16_t frame, std::uint8_t s0, std::uint8_t s1, std::uint8_t s2) {
    return schedHeader(cellId, ueIndex) +
           ByteBuilder().u16(current).u16(frame).u8(s0).u8(s1).u8(s2).str();
}

// ---- Module RADIO:PHY (key 0x0201, binlogversion 1, no module header) -----------

constexpr std::uint16_t kPhyVersion = 1;
constexpr std::uint32_t kLegacyTrace = 0x02010001;
constexpr std::uint32_t kRxPower = 0x02010002;

// RxPower: i16 power, u8 antenna (19-byte record with its header).
std::string rxPower(std::int16_t power, std::uint8_t antenna) {
    return ByteBuilder().i16(power).u8(antenna).str();
}

// The fixed 56-byte legacy payload.
std::string legacy(std::uint32_t frameTiming, const std::uint32_t (&words)[5],
                   const std::uint8_t (&bytes)[4], const std::string& tag,
                   const std::string& trailer) {
    ByteBuilder b;
    b.u32(frameTiming);
    for (std::uint32_t w : words) {
        b.u32(w);
    }
    for (std::uint8_t x : bytes) {
        b.u8(x);
    }
    return b.fixedString(tag, 14).fixedString(trailer, 14).str();
}

// ---- Records without a dictionary entry -------------------------------------------

// Syslog: 16-byte tag, then the message text.
std::string syslog(const std::string& tag, const std::string& message) {
    return ByteBuilder().fixedString(tag, 16).bytes(message).str();
}

Tav::BinLogHeader header(std::uint32_t packetType, std::uint32_t logId, std::uint16_t level,
                         std::uint16_t version, std::uint32_t seqNo) {
    return makeBinLogHeader(packetType, logId, level, version, seqNo);
}

Tav::BinLogHeader sched(std::uint32_t logId, std::uint16_t level, std::uint32_t seqNo) {
    return header(Tav::BinLog, logId, level, kSchedVersion, seqNo);
}

Tav::BinLogHeader phy(std::uint32_t logId, std::uint16_t level, std::uint32_t seqNo) {
    return header(Tav::BinLog, logId, level, kPhyVersion, seqNo);
}

// A record header that announces `storageLength` bytes, followed by `data`.
Tav::PcapRecHeader announced(std::uint32_t tsSec, std::uint32_t tsUsec,
                             std::uint32_t storageLength) {
    Tav::PcapRecHeader h;
    h.tsSec = tsSec;
    h.tsUsec = tsUsec;
    h.capturedLength = storageLength;
    h.storageLength = storageLength;
    return h;
}

// ---- Writing ------------------------------------------------------------------------

std::string gOutDir;
int gFailures = 0;

void save(const std::string& name, const PcapWriter& writer) {
    const std::string path = gOutDir + "/" + name;
    if (!writer.write(path)) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        ++gFailures;
    }
}

// ---- The captures ---------------------------------------------------------------------

// Every record kind on link type 150.
void recordsLink150() {
    PcapWriter w(kLinkTypeBinLog);
    w.log(kT0, 1000, sched(kUeAttach, kInfo, 100), ueAttach(17, 4, 7, 12345, 1));
    w.log(kT0, 2000, sched(kAllKinds, kDebug, 101),
          allKinds(17, 5,
                   {18446744073709551615ull,
                    -5,
                    0xDEADBEEF,
                    -100000,
                    {1, 2, 3},
                    -40,
                    -1,
                    0x0A,
                    -3,
                    "eNB1",
                    "\x0A\x1B\x2C\xFF",
                    5,
                    "\x01\x02\x03\x04\x05"}));
    w.log(kT0, 3000, sched(kStates, kInfo, 102), states(18, 0, 9, 10243, 2, 7, 0));
    w.log(kT0, 4000, phy(kRxPower, kNotice, 7), rxPower(-40, 2));
    w.log(kT0, 5000, header(Tav::Legacy, kLegacyTrace, kWarn, kPhyVersion, 8),
          legacy(12345, {11, 22, 33, 44, 55}, {12, 0, 0, 0}, "TAG", "tail"));
    w.log(kT0, 6000, header(Tav::Legacy, kLegacyTrace, kWarn, kPhyVersion, 9),
          legacy(10243, {1, 2, 3, 4, 5}, {0, 0, 0, 0}, "", "x"));
    w.log(kT0, 7000, header(Tav::Syslog, 0, kInfo, 0, 1), syslog("sshd", "login ok\nuser=root"));
    w.log(kT0, 8000, header(Tav::PcapCapture, 0, 0, 0, 42), std::string(10, '\x55'));
    save("records_link150.pcap.gz", w);
}

// The dispatcher's checks, record by record.
void dispatchChecks() {
    PcapWriter w(kLinkTypeBinLog);
    w.log(kT0, 1000, sched(0x01020009, kInfo, 1), "");                   // no log 9
    w.log(kT0, 2000, header(Tav::BinLog, 0x07070001, kInfo, 1, 2), "");  // no module 0x0707
    w.log(kT0, 3000, header(Tav::BinLog, kUeAttach, kInfo, 2, 3),
          ueAttach(1, 1, 1, 10, 0));                        // version 2, dictionary 3
    w.log(kT0, 4000, phy(kRxPower, 10, 4), rxPower(1, 1));  // 10 levels are not known yet
    w.log(kT0, 5000, phy(kRxPower, 9, 4), rxPower(1, 1));   // 9 passes, adds a tenth level
    w.log(kT0, 6000, phy(kRxPower, 10, 5), rxPower(1, 1));  // so 10 passes now
    w.log(kT0, 7000, header(7, kRxPower, 1, kPhyVersion, 6), rxPower(1, 1));  // packet type 7
    w.log(kT0, 8000, header(Tav::Syslog, 0x0BAD0BAD, 12, 99, 6), syslog("t", "m"));
    w.log(kT0, 9000, sched(0x01020009, kInfo, 7), "");
    save("dispatch_checks.pcap", w);
}

// Link type 1, IPv4: log records behind the sender's header, and frames to skip.
void ethernetIpv4() {
    const UdpFraming udp{IpVersion::V4, 5000};
    UdpFraming arp = udp;
    arp.etherType = kEtherTypeArp;
    UdpFraming tcp = udp;
    tcp.protocol = kProtocolTcp;
    const UdpFraming otherPort{IpVersion::V4, 5001};

    auto send = [](PcapWriter& w, const UdpFraming& framing, std::uint32_t usec,
                   const Tav::BinLogHeader& h, const std::string& payload) {
        const std::string record = makeLogRecord(h, payload);
        w.ethernetLog(kCaptureHostTime, 0, framing, makeSenderHeader(kT0, usec, record), record);
    };

    PcapWriter w(kLinkTypeEthernet);
    send(w, udp, 10000, sched(kUeAttach, kInfo, 200), ueAttach(1, 2, 3, 10239, 2));
    send(w, arp, 11000, phy(kRxPower, kInfo, 900), rxPower(1, 1));
    send(w, tcp, 12000, phy(kRxPower, kInfo, 901), rxPower(1, 1));
    send(w, otherPort, 13000, phy(kRxPower, kInfo, 902), rxPower(1, 1));
    send(w, udp, 20000, header(Tav::Syslog, 0, kNotice, 0, 3), syslog("kernel", "eth0 up"));
    send(w, udp, 30000, header(Tav::PcapCapture, 0, 0, 0, 5), std::string(8, '\x00'));
    send(w, udp, 40000, header(Tav::Legacy, kLegacyTrace, kWarn, kPhyVersion, 9),
         legacy(5, {100, 200, 300, 400, 500}, {0, 0, 0, 0}, "L1TAG", ""));
    save("ethernet_ipv4.pcap.gz", w);
}

// Link type 1, IPv6.
void ethernetIpv6() {
    const UdpFraming udp{IpVersion::V6, 5000};
    UdpFraming tcp = udp;
    tcp.protocol = kProtocolTcp;
    const UdpFraming otherPort{IpVersion::V6, 53};

    auto send = [](PcapWriter& w, const UdpFraming& framing, std::uint32_t usec,
                   const Tav::BinLogHeader& h, const std::string& payload) {
        const std::string record = makeLogRecord(h, payload);
        w.ethernetLog(kCaptureHostTime, 0, framing, makeSenderHeader(kT0, usec, record), record);
    };

    std::string twentyBytes;
    for (int i = 0; i < 20; ++i) {
        twentyBytes.push_back(static_cast<char>(i));
    }
    PcapWriter w(kLinkTypeEthernet);
    send(w, udp, 50000, sched(kAllKinds, kDebug, 300),
         allKinds(65535, 255,
                  {1,
                   INT64_MIN,
                   0,
                   2147483647,
                   {65535, 0, 7},
                   -32768,
                   0x1234,
                   0xFF,
                   -128,
                   "ABCDEFGHIJ",
                   "\xDE\xAD\xBE\xEF",
                   20,
                   twentyBytes}));
    send(w, tcp, 51000, phy(kRxPower, kInfo, 903), rxPower(1, 1));
    send(w, otherPort, 52000, phy(kRxPower, kInfo, 904), rxPower(1, 1));
    send(w, udp, 60000, phy(kRxPower, kError, 10), rxPower(12, 0));
    save("ethernet_ipv6.pcap", w);
}

// Statistics over several files read by one reader.
void statistics() {
    // A: gap, reorder, repeat, a syslog and a plain capture record; ends normally.
    PcapWriter a(kLinkTypeBinLog);
    a.log(kT0, 100000, sched(kUeAttach, kInfo, 10), ueAttach(1, 1, 1, 10, 0));
    a.log(kT0, 200000, sched(kUeAttach, kInfo, 13), ueAttach(1, 1, 1, 10, 0));
    a.log(kT0, 300000, sched(kUeAttach, kInfo, 12), ueAttach(1, 1, 1, 10, 0));
    a.log(kT0, 400000, sched(kUeAttach, kInfo, 13), ueAttach(1, 1, 1, 10, 0));
    a.log(kT0, 500000, header(Tav::Syslog, 0x01020000, kInfo, 0, 5), syslog("app", "hello"));
    a.log(kT0, 600000, header(Tav::PcapCapture, 0, 0, 0, 77), "\x01\x02\x03\x04");
    save("stats_a.pcap.gz", a);

    // B: one record, then a record cut short: abandoned.
    PcapWriter b(kLinkTypeBinLog);
    b.log(kT0 + 1, 100000, sched(kUeAttach, kInfo, 15), ueAttach(1, 1, 1, 10, 0));
    b.record(announced(kT0 + 1, 200000, 27), std::string(10, '\x00'));
    save("stats_b.pcap", b);

    // C: continues B's numbering with a gap; ends normally.
    PcapWriter c(kLinkTypeBinLog);
    c.log(kT0 + 1, 300000, sched(kUeAttach, kInfo, 17), ueAttach(1, 1, 1, 10, 0));
    c.log(kT0 + 1, 500000, phy(kRxPower, kInfo, 1), rxPower(-1, 3));
    save("stats_c.pcap.gz", c);

    // D: starts afresh after C's normal end.
    PcapWriter d(kLinkTypeBinLog);
    d.log(kT0 + 2, 500, sched(kUeAttach, kInfo, 30), ueAttach(1, 1, 1, 10, 0));
    save("stats_d.pcap.gz", d);

    save("header_only.pcap", PcapWriter(kLinkTypeBinLog));

    // Times from 1970 make the per-second lines unusable for the reader's life.
    PcapWriter early(kLinkTypeBinLog);
    early.log(86400, 0, header(Tav::PcapCapture, 0, 0, 0, 1), "");
    save("early_times.pcap", early);
    PcapWriter late(kLinkTypeBinLog);
    late.log(kT0, 1000, header(Tav::PcapCapture, 0, 0, 0, 2), "");
    save("late_times.pcap.gz", late);
}

// Files the loop rejects before their records.
void brokenFiles() {
    save("empty.pcap", PcapWriter::headerless());
    save("short_header.pcap.gz",
         PcapWriter::headerless().raw(encodeGlobalHeader(kLinkTypeBinLog).substr(0, 20)));
    PcapWriter wrongLink(101);
    wrongLink.log(kT0, 1000, phy(kRxPower, kInfo, 1), rxPower(1, 1));
    save("wrong_linktype.pcap", wrongLink);
}

// The 25000-byte bound.
void recordBounds() {
    PcapWriter max(kLinkTypeBinLog);
    max.log(kT0, 1000, header(Tav::PcapCapture, 0, 0, 0, 1), std::string(25000 - 16, 'm'));
    max.log(kT0, 1000, phy(kRxPower, kInfo, 2), rxPower(0, 0));
    save("max_record.pcap.gz", max);

    PcapWriter over(kLinkTypeBinLog);
    over.log(kT0, 2000, phy(kRxPower, kInfo, 3), rxPower(0, 0));
    over.log(kT0, 3000, header(Tav::PcapCapture, 0, 0, 0, 4), std::string(25001 - 16, 'o'));
    over.log(kT0, 4000, phy(kRxPower, kInfo, 5), rxPower(0, 0));
    save("oversized_record.pcap.gz", over);
}

// Files that end inside a record or inside a record header.
void truncation() {
    PcapWriter data(kLinkTypeBinLog);
    data.log(kT0, 1000, phy(kRxPower, kInfo, 1), rxPower(7, 7));
    data.record(announced(kT0, 2000, 19), std::string(7, '\x00'));
    save("truncated_data.pcap", data);

    PcapWriter recordHeader(kLinkTypeBinLog);
    recordHeader.log(kT0, 3000, phy(kRxPower, kInfo, 2), rxPower(8, 8));
    recordHeader.raw(encodePcapRecHeader(announced(kT0, 4000, 19)).substr(0, 9));
    save("truncated_header.pcap.gz", recordHeader);
}

// Shown times with an offset of minutes.
void utcOffset() {
    PcapWriter w(kLinkTypeBinLog);
    w.log(kT0, 123456, phy(kRxPower, kInfo, 1), rxPower(5, 1));
    w.log(kT0, 999999, header(Tav::PcapCapture, 0, 0, 0, 2), "");
    save("offset.pcap", w);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    gOutDir = argv[1];
    recordsLink150();
    dispatchChecks();
    ethernetIpv4();
    ethernetIpv6();
    statistics();
    brokenFiles();
    recordBounds();
    truncation();
    utcOffset();
    return gFailures == 0 ? 0 : 1;
}
