// Encoding of record payloads: binary log payloads from a log's layout and
// parameter values, the fixed legacy layout, syslog and capture payloads.
#ifndef BINLOG_SYNTH_ENCODER_H
#define BINLOG_SYNTH_ENCODER_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "BinaryLogDisplayFormatter.h"
#include "binlog_synth/Bytes.h"
#include "binlog_synth/Dictionary.h"
#include "binlog_synth/Prng.h"

namespace binlog_synth {

/// The value of one parameter.
struct ParamValue {
    /// Integer kinds: one bit pattern per element (one for a single value).
    std::vector<std::uint64_t> ints;
    /// String kinds: the text or the raw bytes.
    std::string bytes;
    /// Var binary strings: the count written in front of the bytes, when it
    /// must differ from the number of bytes.
    bool countOverride = false;
    std::uint16_t count = 0;
};

/// Parameter values by name, for the module header and for the log.
struct RecordValues {
    std::map<std::string, ParamValue> header;
    std::map<std::string, ParamValue> log;
};

/// Parses the script text of a value for `field`:
/// - integers: decimal (negative allowed) or 0x hexadecimal; arrays as a
///   comma list with exactly as many values as the field's count; a field
///   whose display format is an enumeration also takes the enumeration's
///   names; an unsigned 32-bit "SF-SFN" field also takes FRAME-SUBFRAME
///   (1024-3 is 10243);
/// - "string": the text, at most the declared size;
/// - "binarystring": hex bytes, at most the declared size (zero-padded);
/// - "varbinarystring": hex bytes, at most the declared size; COUNT#HEX
///   writes COUNT as the byte count whatever the bytes and the declaration.
bool parseFieldValue(const Field& field, const std::string& text,
                     const Tav::BinaryLogDisplayFormatter* formatter, ParamValue& value,
                     std::string& error);

/// Appends the wire bytes of `field` with `value`; a null value writes zeros
/// (integers, "string", "binarystring") or an empty var binary string.
void encodeField(const Field& field, const ParamValue* value, ByteBuffer& out);

/// Appends the payload of a binary log record of `layout`: every field in
/// wire order, each with its value from `values` (header fields from
/// `values.header`, log fields from `values.log`) or its zero value.
void encodeBinLogPayload(const LogLayout& layout, const RecordValues& values, ByteBuffer& out);

/// Knobs of the random values.
struct RandomValueOptions {
    /// Largest var binary string written (also bounded by the declaration).
    std::uint32_t maxVarBinaryBytes = 48;
    /// Out of 100: how often an enumeration-formatted value is one the
    /// enumeration names.
    std::uint32_t enumHitPercent = 90;
};

/// A random value for `field`: small and large numbers, mostly enumeration
/// values for enumeration-formatted fields, valid frame numbers for "SF-SFN",
/// printable text, random bytes.
void randomValue(const Field& field, SplitMix64& rng, const RandomValueOptions& options,
                 ParamValue& value);

/// Appends `field` with a random value (as randomValue, without building a
/// ParamValue).
void appendRandomField(const Field& field, SplitMix64& rng, const RandomValueOptions& options,
                       ByteBuffer& out);

/// The fixed 56-byte legacy payload.
struct LegacyValues {
    std::uint32_t frameTiming = 0;
    std::array<std::uint32_t, 5> u32{};
    std::array<std::uint8_t, 4> u8{};
    std::array<std::string, 2> text;  // each at most 14 bytes
};
constexpr std::size_t kLegacyPayloadSize = 56;
constexpr std::size_t kLegacyTextSize = 14;
void appendLegacyPayload(ByteBuffer& out, const LegacyValues& values);

/// A syslog payload: the tag NUL-padded to 16 bytes, then the message.
constexpr std::size_t kSyslogTagSize = 16;
void appendSyslogPayload(ByteBuffer& out, const std::string& tag, const std::string& message);

}  // namespace binlog_synth

#endif
