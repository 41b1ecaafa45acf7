// Compiling a filter expression: a recursive descent over the tokens
//
//   or         := and ( '||' and )*
//   and        := unary ( '&&' unary )*
//   unary      := '!'* ( '(' or ')' | comparison )
//   comparison := operand operator operand
//
// where one operand of a comparison names a field and the other is its
// literal. Each literal is converted to what its field compares with here,
// so that a literal that cannot mean anything for its field is an error of
// the expression, not a comparison that never holds.
#include <utility>

#include "filter/Lexer.h"
#include "filter/Program.h"

namespace Tav {
namespace detail {
namespace filter {

namespace {

/// Parentheses nest at most this deep (the parser recurses on them).
constexpr int kMaxDepth = 256;

struct NamedField {
    const char* name;
    Field field;
};

const NamedField kFields[] = {
    {"kind", Field::Kind}, {"subsystem", Field::Subsystem}, {"module", Field::Module},
    {"log", Field::Log},   {"level", Field::Level},         {"category", Field::Category},
    {"seq", Field::Seq},   {"time", Field::Time},           {"capture", Field::Capture},
};

struct NamedKind {
    const char* name;
    RecordKind kind;
};

const NamedKind kKinds[] = {
    {"binlog", RecordKind::BinLog},
    {"legacy", RecordKind::Legacy},
    {"syslog", RecordKind::Syslog},
    {"capture", RecordKind::Capture},
};

const char* const kLevelNames[] = {"CRITICAL", "ERROR", "WARN",  "NOTICE",
                                   "INFO",     "DEBUG", "DEVEL", "ALWAYS"};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        x = (x >= 'A' && x <= 'Z') ? static_cast<char>(x - 'A' + 'a') : x;
        y = (y >= 'A' && y <= 'Z') ? static_cast<char>(y - 'A' + 'a') : y;
        if (x != y) {
            return false;
        }
    }
    return true;
}

bool builtinField(std::string_view name, Field& field) {
    for (const NamedField& named : kFields) {
        if (name == named.name) {
            field = named.field;
            return true;
        }
    }
    return false;
}

bool isBuiltin(std::string_view name) {
    Field field = Field::Param;
    return builtinField(name, field);
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

enum class NumberSyntax { NotANumber, Number, OutOfRange };

/// A decimal or 0x hexadecimal integer with an optional leading '-'.
NumberSyntax parseNumber(std::string_view s, Number& number) {
    bool negative = false;
    if (!s.empty() && s[0] == '-') {
        negative = true;
        s.remove_prefix(1);
    }
    unsigned base = 10;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        base = 16;
        s.remove_prefix(2);
    }
    if (s.empty()) {
        return NumberSyntax::NotANumber;
    }
    std::uint64_t value = 0;
    bool overflow = false;
    for (const char c : s) {
        const int digit = base == 16 ? hexDigit(c) : (isDigit(c) ? c - '0' : -1);
        if (digit < 0) {
            return NumberSyntax::NotANumber;
        }
        const std::uint64_t d = static_cast<std::uint64_t>(digit);
        if (value > (UINT64_MAX - d) / base) {
            overflow = true;
        } else {
            value = value * base + d;
        }
    }
    if (overflow || (negative && value > (std::uint64_t{1} << 63))) {
        return NumberSyntax::OutOfRange;
    }
    number.negative = negative && value != 0;
    number.magnitude = value;
    return NumberSyntax::Number;
}

/// Reads `count` digits at `at` into `value`.
bool readDigits(std::string_view s, std::size_t at, std::size_t count, int& value) {
    if (at + count > s.size()) {
        return false;
    }
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (!isDigit(s[i])) {
            return false;
        }
        value = value * 10 + (s[i] - '0');
    }
    return true;
}

/// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    const std::int64_t yearOfEra = year - era * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

/// YYYY-MM-DDTHH:MM:SS, then up to nine digits of fraction after a '.',
/// then Z or an offset +HH:MM / -HH:MM.
bool parseTime(std::string_view s, TimePoint& time) {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (!readDigits(s, 0, 4, year) || s.size() < 19 || s[4] != '-' || !readDigits(s, 5, 2, month) ||
        s[7] != '-' || !readDigits(s, 8, 2, day) || s[10] != 'T' || !readDigits(s, 11, 2, hour) ||
        s[13] != ':' || !readDigits(s, 14, 2, minute) || s[16] != ':' ||
        !readDigits(s, 17, 2, second)) {
        return false;
    }
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 ||
        day > kDays[month - 1] + (month == 2 && isLeapYear(year) ? 1 : 0) || hour > 23 ||
        minute > 59 || second > 59) {
        return false;
    }
    std::size_t at = 19;
    std::uint32_t nanoseconds = 0;
    if (at < s.size() && s[at] == '.') {
        ++at;
        std::uint32_t scale = 100000000;
        const std::size_t start = at;
        while (at < s.size() && isDigit(s[at])) {
            if (at - start == 9) {
                return false;
            }
            nanoseconds += static_cast<std::uint32_t>(s[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == start) {
            return false;
        }
    }
    std::int64_t offsetSeconds = 0;
    if (at < s.size() && s[at] == 'Z') {
        ++at;
    } else if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
        int offsetHours = 0;
        int offsetMinutes = 0;
        if (!readDigits(s, at + 1, 2, offsetHours) || at + 3 >= s.size() || s[at + 3] != ':' ||
            !readDigits(s, at + 4, 2, offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) {
            return false;
        }
        offsetSeconds = (s[at] == '+' ? 1 : -1) * (offsetHours * 3600 + offsetMinutes * 60);
        at += 6;
    } else {
        return false;
    }
    if (at != s.size()) {
        return false;
    }
    time.seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second -
                   offsetSeconds;
    time.nanoseconds = nanoseconds;
    return true;
}

/// A word read as a field name: a name of letters, digits and _ . : -
/// (not starting with a digit, '.', ':' or '-'), then maybe [index].
struct FieldName {
    bool valid = false;
    /// Looks like a name, but what follows '[' is no index.
    bool badIndex = false;
    std::string base;
    std::int32_t index = -1;
};

FieldName readFieldName(const Token& token) {
    FieldName name;
    if (token.type != TokenType::Word) {
        return name;
    }
    const std::string& s = token.text;
    const char first = s[0];
    if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z') || first == '_')) {
        return name;
    }
    std::size_t i = 0;
    while (i < s.size() && s[i] != '[') {
        const char c = s[i];
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '_' ||
              c == '.' || c == ':' || c == '-')) {
            return name;
        }
        ++i;
    }
    name.base = s.substr(0, i);
    if (i == s.size()) {
        name.valid = true;
        return name;
    }
    // An index: one or more digits, then ']' at the end.
    std::size_t at = i + 1;
    std::int64_t index = 0;
    while (at < s.size() && isDigit(s[at]) && index <= INT32_MAX) {
        index = index * 10 + (s[at] - '0');
        ++at;
    }
    if (at == i + 1 || index > INT32_MAX || at + 1 != s.size() || s[at] != ']') {
        name.badIndex = true;
        return name;
    }
    name.index = static_cast<std::int32_t>(index);
    name.valid = true;
    return name;
}

bool isComparisonOperator(TokenType type) {
    switch (type) {
        case TokenType::Equal:
        case TokenType::NotEqual:
        case TokenType::Less:
        case TokenType::LessEqual:
        case TokenType::Greater:
        case TokenType::GreaterEqual:
        case TokenType::Glob:
            return true;
        default:
            return false;
    }
}

Op toOp(TokenType type) {
    switch (type) {
        case TokenType::NotEqual:
            return Op::NotEqual;
        case TokenType::Less:
            return Op::Less;
        case TokenType::LessEqual:
            return Op::LessEqual;
        case TokenType::Greater:
            return Op::Greater;
        case TokenType::GreaterEqual:
            return Op::GreaterEqual;
        case TokenType::Glob:
            return Op::Glob;
        default:
            return Op::Equal;
    }
}

/// The operator with its sides swapped: `5 < seq` is `seq > 5`.
Op mirrored(Op op) {
    switch (op) {
        case Op::Less:
            return Op::Greater;
        case Op::LessEqual:
            return Op::GreaterEqual;
        case Op::Greater:
            return Op::Less;
        case Op::GreaterEqual:
            return Op::LessEqual;
        default:
            return op;
    }
}

const char* fieldName(Field field) {
    for (const NamedField& named : kFields) {
        if (named.field == field) {
            return named.name;
        }
    }
    return "";
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

class Parser {
  public:
    Parser(std::string_view expression, Program& program)
        : expression_(expression), tokens_(tokenize(expression)), program_(program) {}

    bool run(std::string& error, std::size_t& position) {
        std::size_t root = 0;
        bool ok = parseOr(root, 0);
        if (ok && peek().type != TokenType::End) {
            const Token& extra = peek();
            ok = extra.type == TokenType::RightParen
                     ? fail(extra.position, "unmatched ')'")
                     : unexpected(extra,
                                  "expected '&&' or '||', found " + describe(extra, expression_));
        }
        if (!ok) {
            error = error_;
            position = position_;
            return false;
        }
        program_.root = root;
        return true;
    }

  private:
    const Token& peek() const { return tokens_[next_]; }
    const Token& take() { return tokens_[next_++]; }

    bool fail(std::size_t position, std::string message) {
        error_ = std::move(message);
        position_ = position;
        return false;
    }
    /// An error about the token found: its own when it is a lexical error.
    bool unexpected(const Token& token, std::string message) {
        return token.type == TokenType::Error ? fail(token.position, token.text)
                                              : fail(token.position, std::move(message));
    }

    std::size_t addNode(Node node) {
        program_.nodes.push_back(std::move(node));
        return program_.nodes.size() - 1;
    }

    bool parseOr(std::size_t& node, int depth) { return parseChain(node, depth, Node::Type::Or); }
    bool parseAnd(std::size_t& node, int depth) { return parseChain(node, depth, Node::Type::And); }
    /// The operands of an || chain are && chains; those of an && chain are
    /// unary expressions.
    bool parseOperand(Node::Type chain, std::size_t& node, int depth) {
        return chain == Node::Type::Or ? parseAnd(node, depth) : parseUnary(node, depth);
    }

    /// Operands joined by || (or &&), kept as one node with every operand.
    bool parseChain(std::size_t& node, int depth, Node::Type type) {
        const TokenType separator = type == Node::Type::Or ? TokenType::Or : TokenType::And;
        std::size_t first = 0;
        if (!parseOperand(type, first, depth)) {
            return false;
        }
        if (peek().type != separator) {
            node = first;
            return true;
        }
        Node chain;
        chain.type = type;
        chain.children.push_back(first);
        while (peek().type == separator) {
            take();
            std::size_t next = 0;
            if (!parseOperand(type, next, depth)) {
                return false;
            }
            chain.children.push_back(next);
        }
        node = addNode(std::move(chain));
        return true;
    }

    bool parseUnary(std::size_t& node, int depth) {
        bool negate = false;
        while (peek().type == TokenType::Not) {
            take();
            negate = !negate;
        }
        std::size_t inner = 0;
        if (peek().type == TokenType::LeftParen) {
            const Token& open = take();
            if (depth == kMaxDepth) {
                return fail(open.position, "too many nested parentheses");
            }
            if (!parseOr(inner, depth + 1)) {
                return false;
            }
            if (peek().type != TokenType::RightParen) {
                return unexpected(peek(), "expected ')'");
            }
            take();
        } else if (!parseComparison(inner)) {
            return false;
        }
        if (negate) {
            Node negation;
            negation.type = Node::Type::Not;
            negation.children.push_back(inner);
            inner = addNode(std::move(negation));
        }
        node = inner;
        return true;
    }

    static bool isOperand(const Token& token) {
        return token.type == TokenType::Word || token.type == TokenType::String;
    }

    bool parseComparison(std::size_t& node) {
        const Token& left = peek();
        if (!isOperand(left)) {
            return unexpected(left, "expected a field name, found " + describe(left, expression_));
        }
        take();
        const Token& op = peek();
        if (!isComparisonOperator(op.type)) {
            return unexpected(op, "expected an operator after " + describe(left, expression_));
        }
        take();
        const Token& right = peek();
        if (!isOperand(right)) {
            return unexpected(right, "expected a value after " + describe(op, expression_));
        }
        take();

        // The field is on the left, unless only the right names a field,
        // or the right names one of the record's own fields and the left
        // does not (`WARN >= level`).
        const FieldName leftName = readFieldName(left);
        const FieldName rightName = readFieldName(right);
        if (leftName.badIndex) {
            return fail(left.position, "bad array index in " + quoted(left.text));
        }
        const bool leftBuiltin = leftName.valid && isBuiltin(leftName.base);
        const bool rightBuiltin = rightName.valid && isBuiltin(rightName.base);
        const Op oper = toOp(op.type);
        if (leftName.valid && !(rightBuiltin && !leftBuiltin)) {
            return addComparison(node, left, leftName, oper, op, right);
        }
        if (rightName.badIndex) {
            return fail(right.position, "bad array index in " + quoted(right.text));
        }
        if (!rightName.valid) {
            return fail(left.position,
                        "expected a field name, found " + describe(left, expression_));
        }
        return addComparison(node, right, rightName, mirrored(oper), op, left);
    }

    bool addComparison(std::size_t& node, const Token& fieldToken, const FieldName& name, Op op,
                       const Token& opToken, const Token& literal) {
        Comparison c;
        c.op = op;
        c.text = literal.text;
        c.field = Field::Param;
        if (builtinField(name.base, c.field) && name.index >= 0) {
            return fail(fieldToken.position, name.base + " has no elements");
        }
        const std::string& text = literal.text;
        const bool bare = literal.type == TokenType::Word;
        if (op == Op::Glob &&
            (c.field == Field::Level || c.field == Field::Seq || c.field == Field::Time)) {
            return fail(opToken.position,
                        std::string("'~' does not apply to ") + fieldName(c.field));
        }
        switch (c.field) {
            case Field::Kind: {
                if (op != Op::Equal && op != Op::NotEqual) {
                    return fail(opToken.position, "kind compares with == or != only");
                }
                bool known = false;
                for (const NamedKind& kind : kKinds) {
                    if (equalsIgnoringCase(text, kind.name)) {
                        c.kind = kind.kind;
                        known = true;
                    }
                }
                if (!known) {
                    return fail(literal.position, "unknown kind " + quoted(text));
                }
                break;
            }
            case Field::Level: {
                const NumberSyntax syntax = parseNumber(text, c.number);
                if (syntax == NumberSyntax::OutOfRange) {
                    return fail(literal.position, "number out of range " + quoted(text));
                }
                if (syntax == NumberSyntax::NotANumber) {
                    bool known = false;
                    for (std::size_t i = 0; i < sizeof kLevelNames / sizeof kLevelNames[0]; ++i) {
                        if (equalsIgnoringCase(text, kLevelNames[i])) {
                            c.number = Number{false, i + 1};
                            known = true;
                        }
                    }
                    if (!known) {
                        return fail(literal.position, "unknown level name " + quoted(text));
                    }
                }
                c.isNumber = true;
                break;
            }
            case Field::Seq: {
                const NumberSyntax syntax = parseNumber(text, c.number);
                if (syntax == NumberSyntax::OutOfRange) {
                    return fail(literal.position, "number out of range " + quoted(text));
                }
                if (syntax == NumberSyntax::NotANumber) {
                    return fail(literal.position,
                                "seq needs a number, found " + describe(literal, expression_));
                }
                c.isNumber = true;
                break;
            }
            case Field::Time:
                if (!parseTime(text, c.time)) {
                    return fail(literal.position,
                                "time needs a time literal like 2024-05-01T12:00:00Z");
                }
                break;
            case Field::Module:
                c.withSubsystem = text.find(':') != std::string::npos;
                break;
            case Field::Param: {
                c.name = name.base;
                c.index = name.index;
                program_.usesValues = true;
                if (bare && op != Op::Glob) {
                    const NumberSyntax syntax = parseNumber(text, c.number);
                    if (syntax == NumberSyntax::OutOfRange) {
                        return fail(literal.position, "number out of range " + quoted(text));
                    }
                    c.isNumber = syntax == NumberSyntax::Number;
                }
                break;
            }
            case Field::Subsystem:
            case Field::Log:
            case Field::Category:
            case Field::Capture:
                break;
        }
        program_.comparisons.push_back(std::move(c));
        Node compare;
        compare.type = Node::Type::Compare;
        compare.comparison = program_.comparisons.size() - 1;
        node = addNode(std::move(compare));
        return true;
    }

    std::string_view expression_;
    std::vector<Token> tokens_;
    std::size_t next_ = 0;
    Program& program_;
    std::string error_;
    std::size_t position_ = 0;
};

}  // namespace

bool compileProgram(std::string_view expression, Program& program, std::string& error,
                    std::size_t& position) {
    return Parser(expression, program).run(error, position);
}

}  // namespace filter
}  // namespace detail
}  // namespace Tav
