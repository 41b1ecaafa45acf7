// The tokens of a filter expression.
//
// Words are runs of letters, digits, bytes above 0x7F and the characters
// _ . : - + [ ] * ? /, so that field names (rssi[2]), module names (L2:mac),
// capture names (a.pcap.gz), numbers (-5, 0x1F), times
// (2024-05-01T12:00:00+02:00) and glob patterns (L2:*) need no quotes. What
// a word means is decided by the parser from where it stands.
#ifndef WEXBL_SRC_FILTER_LEXER_H
#define WEXBL_SRC_FILTER_LEXER_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tav {
namespace detail {
namespace filter {

enum class TokenType {
    End,
    Word,
    String,  ///< a quoted string; `text` holds it unquoted
    LeftParen,
    RightParen,
    Not,
    And,
    Or,
    Equal,
    NotEqual,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
    Glob,
    Error,  ///< what cannot be read; `text` says why
};

struct Token {
    TokenType type = TokenType::End;
    /// Offset and length of the token in the expression.
    std::size_t position = 0;
    std::size_t length = 0;
    /// Word: its spelling. String: its text without quotes and escapes.
    /// Error: the message.
    std::string text;
};

/// The tokens of `expression`, ending with an End token, or with an Error
/// token at the first thing that is not a token.
std::vector<Token> tokenize(std::string_view expression);

/// How an error message names a token: 'word', '"quoted"', '&&', or
/// "the end".
std::string describe(const Token& token, std::string_view expression);

}  // namespace filter
}  // namespace detail
}  // namespace Tav

#endif
