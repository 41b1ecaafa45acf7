// Splitting a filter expression into tokens.
#include "filter/Lexer.h"

#include <cstdio>

namespace Tav {
namespace detail {
namespace filter {

namespace {

bool isWordByte(unsigned char c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c >= 0x80) {
        return true;
    }
    switch (c) {
        case '_':
        case '.':
        case ':':
        case '-':
        case '+':
        case '[':
        case ']':
        case '*':
        case '?':
        case '/':
            return true;
        default:
            return false;
    }
}

bool isSpace(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

/// A character as a message shows it: 'c' when printable, '\xNN' otherwise.
std::string quoteCharacter(unsigned char c) {
    if (c >= 0x20 && c < 0x7F) {
        return std::string("'") + static_cast<char>(c) + "'";
    }
    char text[8];
    snprintf(text, sizeof text, "'\\x%02X'", static_cast<unsigned int>(c));
    return text;
}

Token makeToken(TokenType type, std::size_t position, std::size_t length,
                std::string text = std::string()) {
    Token token;
    token.type = type;
    token.position = position;
    token.length = length;
    token.text = std::move(text);
    return token;
}

/// The operator at `at` (one or two characters), or an Error token.
Token readOperator(std::string_view s, std::size_t at) {
    const char c = s[at];
    const char next = at + 1 < s.size() ? s[at + 1] : '\0';
    switch (c) {
        case '(':
            return makeToken(TokenType::LeftParen, at, 1);
        case ')':
            return makeToken(TokenType::RightParen, at, 1);
        case '~':
            return makeToken(TokenType::Glob, at, 1);
        case '!':
            return next == '=' ? makeToken(TokenType::NotEqual, at, 2)
                               : makeToken(TokenType::Not, at, 1);
        case '<':
            return next == '=' ? makeToken(TokenType::LessEqual, at, 2)
                               : makeToken(TokenType::Less, at, 1);
        case '>':
            return next == '=' ? makeToken(TokenType::GreaterEqual, at, 2)
                               : makeToken(TokenType::Greater, at, 1);
        case '=':
            return next == '=' ? makeToken(TokenType::Equal, at, 2)
                               : makeToken(TokenType::Error, at, 1, "expected '==', found '='");
        case '&':
            return next == '&' ? makeToken(TokenType::And, at, 2)
                               : makeToken(TokenType::Error, at, 1, "expected '&&', found '&'");
        case '|':
            return next == '|' ? makeToken(TokenType::Or, at, 2)
                               : makeToken(TokenType::Error, at, 1, "expected '||', found '|'");
        default:
            return makeToken(
                TokenType::Error, at, 1,
                "unexpected character " + quoteCharacter(static_cast<unsigned char>(c)));
    }
}

/// The quoted string that opens at `at`, or an Error token.
Token readString(std::string_view s, std::size_t at) {
    std::string text;
    std::size_t i = at + 1;
    while (i < s.size()) {
        const char c = s[i];
        if (c == '"') {
            return makeToken(TokenType::String, at, i + 1 - at, std::move(text));
        }
        if (c == '\\') {
            if (i + 1 >= s.size()) {
                break;
            }
            const char escaped = s[i + 1];
            if (escaped != '"' && escaped != '\\') {
                return makeToken(TokenType::Error, i, 2,
                                 "unknown escape '\\" + std::string(1, escaped) + "'");
            }
            text.push_back(escaped);
            i += 2;
            continue;
        }
        text.push_back(c);
        ++i;
    }
    return makeToken(TokenType::Error, at, s.size() - at, "unterminated string");
}

}  // namespace

std::vector<Token> tokenize(std::string_view expression) {
    std::vector<Token> tokens;
    std::size_t i = 0;
    for (;;) {
        while (i < expression.size() && isSpace(static_cast<unsigned char>(expression[i]))) {
            ++i;
        }
        if (i == expression.size()) {
            tokens.push_back(makeToken(TokenType::End, i, 0));
            return tokens;
        }
        const unsigned char c = static_cast<unsigned char>(expression[i]);
        Token token;
        if (isWordByte(c)) {
            std::size_t end = i + 1;
            while (end < expression.size() &&
                   isWordByte(static_cast<unsigned char>(expression[end]))) {
                ++end;
            }
            token =
                makeToken(TokenType::Word, i, end - i, std::string(expression.substr(i, end - i)));
        } else if (c == '"') {
            token = readString(expression, i);
        } else {
            token = readOperator(expression, i);
        }
        i += token.length;
        const bool error = token.type == TokenType::Error;
        tokens.push_back(std::move(token));
        if (error) {
            return tokens;
        }
    }
}

std::string describe(const Token& token, std::string_view expression) {
    if (token.type == TokenType::End) {
        return "the end";
    }
    return "'" + std::string(expression.substr(token.position, token.length)) + "'";
}

}  // namespace filter
}  // namespace detail
}  // namespace Tav
