// Evaluating a compiled filter on a record.
#include "filter/Program.h"
#include "records/Decoder.h"

namespace Tav {
namespace detail {
namespace filter {

namespace {

/// "subsystem:module" without building it.
struct JoinedText {
    std::string_view first;
    std::string_view second;
    std::size_t size() const { return first.size() + 1 + second.size(); }
    char operator[](std::size_t i) const {
        if (i < first.size()) {
            return first[i];
        }
        return i == first.size() ? ':' : second[i - first.size() - 1];
    }
};

struct PlainText {
    std::string_view text;
    std::size_t size() const { return text.size(); }
    char operator[](std::size_t i) const { return text[i]; }
};

/// Byte order (bytes compared as unsigned): -1, 0 or 1.
template <typename Text>
int compareText(const Text& a, std::string_view b) {
    const std::size_t common = a.size() < b.size() ? a.size() : b.size();
    for (std::size_t i = 0; i < common; ++i) {
        const unsigned char x = static_cast<unsigned char>(a[i]);
        const unsigned char y = static_cast<unsigned char>(b[i]);
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

/// Glob match by the usual backtracking to the last '*': at most
/// pattern size x text size steps, whatever the pattern.
template <typename Text>
bool glob(std::string_view pattern, const Text& text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::string_view::npos;
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

/// -1, 0, 1 as a is below, equal to or above b.
int compareNumbers(const Number& a, const Number& b) {
    if (a.negative != b.negative) {
        return a.negative ? -1 : 1;
    }
    if (a.magnitude == b.magnitude) {
        return 0;
    }
    const bool below = a.magnitude < b.magnitude;
    return (below != a.negative) ? -1 : 1;
}

bool holds(Op op, int order) {
    switch (op) {
        case Op::Equal:
            return order == 0;
        case Op::NotEqual:
            return order != 0;
        case Op::Less:
            return order < 0;
        case Op::LessEqual:
            return order <= 0;
        case Op::Greater:
            return order > 0;
        case Op::GreaterEqual:
            return order >= 0;
        case Op::Glob:
            break;
    }
    return false;
}

template <typename Text>
bool textHolds(const Comparison& c, const Text& text) {
    return c.op == Op::Glob ? glob(c.text, text) : holds(c.op, compareText(text, c.text));
}

bool numberHolds(const Comparison& c, const Number& value) {
    return holds(c.op, compareNumbers(value, c.number));
}

Truth truth(bool value) {
    return value ? Truth::True : Truth::False;
}

/// Binary log and legacy records have a subsystem, module, log and category.
bool hasNames(const Record& record) {
    return record.kind == RecordKind::BinLog || record.kind == RecordKind::Legacy;
}

/// Syslog and plain capture records have no values.
bool mayHaveValues(const Record& record) {
    return hasNames(record);
}

bool fieldHolds(const Comparison& c, const ParamField& field, bool texts) {
    if (c.isNumber && field.isInteger()) {
        const Number value = field.isSigned() && field.asSigned() < 0 ? Number{true, 0 - field.raw}
                                                                      : Number{false, field.raw};
        return numberHolds(c, value);
    }
    // A string compares its bytes (there without texts too); every other
    // kind its display text, which a stream without texts does not have.
    if (field.type == ParamType::String) {
        return textHolds(c, PlainText{field.bytes});
    }
    if (!texts) {
        return false;
    }
    return textHolds(c, PlainText{field.text});
}

bool paramHolds(const Comparison& c, View<ParamField> fields, bool texts) {
    for (const ParamField& field : fields) {
        if (field.name == c.name && (c.index < 0 || field.index == c.index) &&
            fieldHolds(c, field, texts)) {
            return true;
        }
    }
    return false;
}

Truth compare(const Comparison& c, const Record& record, bool values) {
    switch (c.field) {
        case Field::Kind:
            return truth((record.kind == c.kind) == (c.op == Op::Equal));
        case Field::Subsystem:
            return truth(hasNames(record) && textHolds(c, PlainText{record.subsystem}));
        case Field::Module:
            if (!hasNames(record)) {
                return Truth::False;
            }
            return truth(c.withSubsystem ? textHolds(c, JoinedText{record.subsystem, record.module})
                                         : textHolds(c, PlainText{record.module}));
        case Field::Log:
            return truth(hasNames(record) && textHolds(c, PlainText{record.log}));
        case Field::Category:
            return truth(hasNames(record) && textHolds(c, PlainText{record.category}));
        case Field::Level:
            return truth(record.kind != RecordKind::Capture &&
                         numberHolds(c, Number{false, record.level}));
        case Field::Seq:
            return truth(numberHolds(c, Number{false, record.seqNo}));
        case Field::Time: {
            // The sender's own time; microseconds past a second carry over.
            const std::int64_t seconds = static_cast<std::int64_t>(record.pcapHeader.tsSec) +
                                         record.pcapHeader.tsUsec / 1000000u;
            const std::uint32_t nanoseconds = record.pcapHeader.tsUsec % 1000000u * 1000u;
            const int order = seconds != c.time.seconds
                                  ? (seconds < c.time.seconds ? -1 : 1)
                                  : (nanoseconds != c.time.nanoseconds
                                         ? (nanoseconds < c.time.nanoseconds ? -1 : 1)
                                         : 0);
            return truth(holds(c.op, order));
        }
        case Field::Capture:
            return truth(textHolds(c, PlainText{record.capture}));
        case Field::Param:
            if (!mayHaveValues(record)) {
                return Truth::False;
            }
            if (!values) {
                return Truth::Unknown;
            }
            {
                // Display texts exist when the stream builds them; a record
                // made by hand has them when it has its line.
                const bool texts =
                    record.source != nullptr ? record.source->texts() : !record.text.empty();
                return truth(paramHolds(c, record.header(), texts) ||
                             paramHolds(c, record.params(), texts));
            }
    }
    return Truth::False;
}

Truth evaluateNode(const Program& program, std::size_t index, const Record& record, bool values) {
    const Node& node = program.nodes[index];
    switch (node.type) {
        case Node::Type::Compare:
            return compare(program.comparisons[node.comparison], record, values);
        case Node::Type::Not: {
            const Truth inner = evaluateNode(program, node.children[0], record, values);
            return inner == Truth::Unknown ? Truth::Unknown : truth(inner == Truth::False);
        }
        case Node::Type::And:
        case Node::Type::Or: {
            // And: one false child decides; Or: one true child.
            const Truth decisive = node.type == Node::Type::And ? Truth::False : Truth::True;
            Truth result = node.type == Node::Type::And ? Truth::True : Truth::False;
            for (const std::size_t child : node.children) {
                const Truth t = evaluateNode(program, child, record, values);
                if (t == decisive) {
                    return decisive;
                }
                if (t == Truth::Unknown) {
                    result = Truth::Unknown;
                }
            }
            return result;
        }
    }
    return Truth::False;
}

}  // namespace

Truth evaluate(const Program& program, const Record& record, bool values) {
    return evaluateNode(program, program.root, record, values);
}

}  // namespace filter
}  // namespace detail
}  // namespace Tav
