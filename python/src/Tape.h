// Decoded records and events as a compact tape of typed values, written
// without the interpreter (the GIL released) and turned into Python objects
// afterwards. The layout of every object is that of the JSON Lines format
// (WexOamBinLogXmlReader/Format.h): the same keys in the same order, with the
// same values.
#ifndef WEXBL_PYTHON_TAPE_H
#define WEXBL_PYTHON_TAPE_H

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "WexOamBinLogXmlReader/Record.h"

namespace wexbl_python {

/// The keys of the objects, in one table (names in Keys.cpp's kKeyNames).
enum Key : std::uint8_t {
    kCapture,
    kRecord,
    kKind,
    kTime,
    kEpochUs,
    kSubsystem,
    kModule,
    kLog,
    kLevel,
    kLevelNo,
    kCategory,
    kTag,
    kMessage,
    kSeq,
    kHeader,
    kParams,
    kFrame,
    kLength,
    kText,
    kName,
    kIndex,
    kType,
    kValue,
    kEnum,
    kEvent,
    kOffset,
    kError,
    kUncompressedBytes,
    kLinkType,
    kExpected,
    kPresent,
    kLogId,
    kPacketType,
    kPayload,
    kSkipped,
    kCompressedSkipped,
    kFound,
    kVersion,
    kExpectedVersion,
    kSize,
    kCount,
    kDisplay,
    kLastSeq,
    kMissing,
    kMissingBefore,
    kTotal,
    kOutOfOrder,
    kBytes,
    kReceivedPerMs,
    kGeneratedPerMs,
    kKeyCount
};

extern const char* const kKeyNames[kKeyCount];

/// What each entry of the tape is: one byte, then its operands.
enum Op : char {
    kDictBegin = 'D',
    kListBegin = 'L',
    kEnd = 'E',
    kKeyOp = 'K',     ///< a key (1 byte)
    kString = 'S',    ///< a string (4-byte length, bytes)
    kCached = 'C',    ///< a string that repeats (names from the dictionary)
    kUnsigned = 'U',  ///< 8 bytes
    kSigned = 'I',    ///< 8 bytes
    kDouble = 'F',    ///< 8 bytes
    kTrue = 'T',
    kFalse = 'N',
    kNull = 'Z',
};

/// Appends records and events to a tape (allocates nothing but the tape's
/// growth: worker threads write records with it side by side, each into a
/// string of its own).
class TapeWriter {
  public:
    explicit TapeWriter(std::string& tape) : tape_(tape) {}
    void record(const Tav::Record& record);
    void event(const Tav::Event& event);

  private:
    void op(Op code) { tape_.push_back(static_cast<char>(code)); }
    void key(Key k) {
        const char bytes[2] = {static_cast<char>(kKeyOp), static_cast<char>(k)};
        tape_.append(bytes, 2);
    }
    /// Starts a string whose bytes the caller appends; finishString() sets
    /// its length.
    std::size_t startString() {
        const char head[5] = {static_cast<char>(kString), 0, 0, 0, 0};
        tape_.append(head, 5);
        return tape_.size();
    }
    void finishString(std::size_t start) {
        const auto length = static_cast<std::uint32_t>(tape_.size() - start);
        std::memcpy(&tape_[start - 4], &length, 4);
    }
    void string(std::string_view text, Op code = kString) {
        char head[5];
        head[0] = static_cast<char>(code);
        const auto length = static_cast<std::uint32_t>(text.size());
        std::memcpy(head + 1, &length, 4);
        tape_.append(head, 5);
        tape_.append(text.data(), text.size());
    }
    void cached(std::string_view text) { string(text, kCached); }
    void raw8(Op code, const void* value) {
        char bytes[9];
        bytes[0] = static_cast<char>(code);
        std::memcpy(bytes + 1, value, 8);
        tape_.append(bytes, 9);
    }
    /// Integers whose magnitude is 2^53 or more as strings of their digits.
    void unsignedValue(std::uint64_t value);
    void signedValue(std::int64_t value);
    void hexNumber(std::uint32_t value);
    void hexBytes(std::string_view bytes);
    void fields(Tav::View<Tav::ParamField> fields, bool texts);

    std::string& tape_;
};

}  // namespace wexbl_python

#endif
