// Record kinds with a fixed payload layout: legacy logs and syslog text.
#include <cstdio>
#include <cstring>

#include "BinaryLogXmlReader.h"

namespace Tav {
namespace {

/// Bytes of each of the two NUL-padded legacy text fields.
constexpr std::size_t kLegacyTextBytes = 14;

/// The legacy text field at `offset`: the text up to its first NUL, all 14
/// characters when there is none.
std::string legacyText(const ByteReader& payload, std::uint64_t offset) {
    char buf[kLegacyTextBytes];
    payload.copy(offset, buf, sizeof buf);
    return std::string(buf, strnlen(buf, sizeof buf));
}

/// Assigns `values` to the `value`s of the first entries of `params`, until
/// either runs out.
template <typename Param, typename Value, std::size_t N>
void assignLeading(std::vector<Param>& params, const Value (&values)[N]) {
    for (std::size_t i = 0; i < N && i < params.size(); ++i) {
        params[i].value = values[i];
    }
}

}  // namespace

//  0      4                        24         28             42             56
//  +------+------------------------+----------+--------------+--------------+
//  |frame | five u32 values        | four u8  | text (14)    | text (14)    |
//  +------+------------------------+----------+--------------+--------------+
int BinaryLogXmlReader::decodeLegacyLogPayLoad(const BinLogHeader& /*binLogHeader*/,
                                               const ByteReader& payload, LogDetails& log) {
    log.frameTiming = payload.get_u32le(0);
    std::uint32_t words[5];
    for (std::size_t i = 0; i < 5; ++i) {
        words[i] = payload.get_u32le(4 + 4 * i);
    }
    assignLeading(log.uint32Params, words);
    std::uint8_t bytes[4];
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[i] = payload.get_u8(24 + i);
    }
    assignLeading(log.uint8Params, bytes);
    const std::string texts[2] = {legacyText(payload, 28), legacyText(payload, 42)};
    assignLeading(log.stringParams, texts);
    return 0;
}

//  0                16                               storageLength - 16
//  +----------------+--------------------------------+
//  | tag (16 bytes) | message text                   |
//  +----------------+--------------------------------+
int BinaryLogXmlReader::decodeSyslogPayLoad(const PcapRecHeader& pcapHeader,
                                            const BinLogHeader& /*binLogHeader*/,
                                            const ByteReader& payload, std::string& syslogTag,
                                            std::string& syslogMessage) {
    constexpr std::uint32_t kHeaderBytes = 32;  // BinLogHeader and tag
    if (pcapHeader.storageLength < kHeaderBytes) {
        fprintf(stderr,
                "Syslog record skipped: storageLength %u is shorter than its %u header bytes\n",
                pcapHeader.storageLength, kHeaderBytes);
        return -1;
    }
    char tag[16];
    payload.copy(0, tag, sizeof tag);
    syslogTag.assign(tag, sizeof tag);
    // The message never takes more than the record really holds.
    const std::size_t declared = pcapHeader.storageLength - kHeaderBytes;
    const std::size_t have = payload.available(16);
    const std::size_t take = declared < have ? declared : have;
    if (take == 0) {
        syslogMessage.clear();
    } else {
        syslogMessage.assign(reinterpret_cast<const char*>(payload.data()) + 16, take);
    }
    return 0;
}

}  // namespace Tav
