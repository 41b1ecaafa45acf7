// Encoding of record payloads: binary log payloads from a log's layout and
// parameter values, the fixed legacy layout, syslog and capture payloads.
#ifndef BINLOG_SYNTH_ENCODER_H
#define BINLOG_SYNTH_ENCODER_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

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

/// The frame stamps an "SF-SFN" value (frame * 10 + subframe in an unsigned
/// 32-bit field) can carry: the decoder shows the frame modulo 1024, so a
/// larger frame would show as another one.
constexpr std::uint64_t kLargestFrame = 1023;
constexpr std::uint64_t kLargestSubframe = 9;

/// What parseSfSfn accepts, for messages.
constexpr const char* kSfSfnForms =
    " (FRAME-SUBFRAME up to 1023-9, FRAME*10+SUBFRAME up to 10239, or 0x bits)";

/// An "SF-SFN" value: FRAME-SUBFRAME (frame 0-1023, subframe 0-9) or the
/// decimal number FRAME*10+SUBFRAME (0-10239); or a 0x hexadecimal number,
/// written as the bits given whatever they mean (to see how a decoder shows
/// a value no sender writes). False on anything else, with `reason` saying
/// why a well-formed value is refused (empty for malformed text).
bool parseSfSfn(const std::string& text, std::uint64_t& bits, std::string& reason);

/// Parses the script text of a value for `field`:
/// - integers: decimal (negative allowed) or 0x hexadecimal; arrays as a
///   comma list with exactly as many values as the field's count; a field
///   whose display format is an enumeration also takes the enumeration's
///   names; an unsigned 32-bit "SF-SFN" field takes what parseSfSfn does
///   (512-3 is 5123);
/// - "string": the text, at most the declared size;
/// - "binarystring": hex bytes, at most the declared size (zero-padded);
/// - "varbinarystring": hex bytes, at most the declared size; COUNT#HEX
///   writes COUNT as the byte count whatever the bytes and the declaration.
bool parseFieldValue(const Field& field, const std::string& text, const Displays* displays,
                     ParamValue& value, std::string& error);

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
