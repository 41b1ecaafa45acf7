// A compiled filter expression: its comparisons, each with its literal
// already converted to what the field compares with, and the tree of
// && || ! over them.
#ifndef WEXBL_SRC_FILTER_PROGRAM_H
#define WEXBL_SRC_FILTER_PROGRAM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "WexOamBinLogXmlReader/Record.h"

namespace Tav {
namespace detail {
namespace filter {

enum class Field : std::uint8_t {
    Kind,
    Subsystem,
    Module,
    Log,
    Level,
    Category,
    Seq,
    Time,
    Capture,
    Param,  ///< a module header or log parameter, by name
};

enum class Op : std::uint8_t { Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual, Glob };

/// An integer of either sign, exactly: -2^63 .. 2^64-1.
struct Number {
    bool negative = false;  ///< never set for zero
    std::uint64_t magnitude = 0;
};

/// A point in time: seconds since 1970-01-01T00:00:00Z and nanoseconds.
struct TimePoint {
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;
};

struct Comparison {
    Field field = Field::Kind;
    Op op = Op::Equal;
    /// Param: the name, and the element index (-1: every value of the name).
    std::string name;
    std::int32_t index = -1;
    /// The literal as text (text fields, string comparisons of parameters,
    /// glob patterns).
    std::string text;
    /// Seq, Level and parameters: the literal as a number, when it is one.
    bool isNumber = false;
    Number number;
    /// Time: the literal.
    TimePoint time;
    /// Kind: the kind named.
    RecordKind kind = RecordKind::BinLog;
    /// Module: the literal has a ':', so it compares with "subsystem:module".
    bool withSubsystem = false;
};

struct Node {
    enum class Type : std::uint8_t { Compare, Not, And, Or };
    Type type = Type::Compare;
    /// Compare: the comparison's index.
    std::size_t comparison = 0;
    /// Not: one child; And, Or: two or more (chains are kept flat, so the
    /// depth of the tree is that of the parentheses and ! only).
    std::vector<std::size_t> children;
};

struct Program {
    std::vector<Comparison> comparisons;
    std::vector<Node> nodes;
    std::size_t root = 0;
    bool usesValues = false;
};

/// Compiles `expression`. On an error returns false with the message and
/// the offset of the token it is about.
bool compileProgram(std::string_view expression, Program& program, std::string& error,
                    std::size_t& position);

/// Three-valued truth: Unknown stands for what the record's values decide.
enum class Truth : std::uint8_t { False, True, Unknown };

/// Evaluates the program on `record`. Without `values`, comparisons of
/// parameters are Unknown (for records that can have values) and the
/// operators follow Kleene's logic; with them, the result is never Unknown.
Truth evaluate(const Program& program, const Record& record, bool values);

}  // namespace filter
}  // namespace detail
}  // namespace Tav

#endif
