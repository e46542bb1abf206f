// Cuts a JSON text into tokens and knows the line, column and byte of each. It takes what the
// builder's parser takes (comments between tokens included) and is stricter where that parser is
// lax: strings are well-formed UTF-8 without lone surrogates.
//
// Memory is constant whatever the text holds: one read buffer, and one token's text up to
// kKeptBytes. A string's flaws do not end the walk, so that a checker can go on and find the next
// one; after a kError token nothing that follows means anything.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "byte_source.h"

namespace kvadmin {

// Where a token begins. Lines and columns count from 1; a column is a character, not a byte.
struct Place {
    std::uint64_t line = 1;
    std::uint64_t column = 1;
    std::uint64_t byte = 0;
    bool operator==(const Place&) const = default;
};

enum class TokenKind : std::uint8_t {
    kBeginObject,
    kEndObject,
    kBeginArray,
    kEndArray,
    kColon,
    kComma,
    kString,
    kNumber,
    kTrue,
    kFalse,
    kNull,
    kEnd,   // of the text
    kError  // a lexical error or a failed read; `text` says what is wrong
};

// What makes a string unfit although its end was found.
enum class StringFlaw : std::uint8_t {
    kNone,
    kNotUtf8,
    kControlCharacter,
    kBadEscape,
    kLoneSurrogate
};

struct Token {
    TokenKind kind = TokenKind::kEnd;
    StringFlaw flaw = StringFlaw::kNone;  // of a string: its first flaw,
    bool has_nul = false;                 // whether it decodes to a NUL somewhere
    bool plain = false;                   // of a number: decimal digits alone
    Place place;
    std::uint64_t length = 0;  // bytes of the whole text, decoded
    // Decoded text of a string, digits of a number, message of an error: at least the first
    // kKeptBytes of it. Valid until the next token is asked for.
    std::string_view text;
};

// "a string", "null", "the end of the file": what a message calls a token.
std::string_view name_of(TokenKind kind);

class JsonLexer {
public:
    static constexpr std::size_t kKeptBytes = 65'536;

    explicit JsonLexer(ByteSource& source) : source_(source) {}

    // True when the text begins with a byte order mark, which is then behind us. Ask once, first.
    bool skip_byte_order_mark();
    Token next();
    // Where the first flaw of the string just returned is.
    const Place& flaw_place() const { return flaw_place_; }

private:
    int peek();  // the next byte, or -1 at the end
    bool refill();
    void new_line();
    Place here() const;
    bool skip_blanks(Token& error);
    bool skip_comment(Token& error);
    void fail(Token& token, std::string message);

    void keep(Token& token, const char* from, const char* to);
    void keep_run(Token& token, const std::array<bool, 256>& table);
    void lex_string(Token& token);
    void lex_string_slowly(Token& token);
    void lex_number(Token& token);
    void lex_word(Token& token);
    void take_character(Token& token);
    void take_escape(Token& token);
    void take_unicode_escape(Token& token, const Place& place);
    void settle_surrogate(Token& token);
    void keep_code_point(Token& token, std::uint32_t code_point);
    void mark(Token& token, StringFlaw flaw, const Place& place);

    ByteSource& source_;
    const char* begin_ = nullptr;
    const char* cursor_ = nullptr;
    const char* end_ = nullptr;
    std::uint64_t base_ = 0;  // offset of begin_ in the text
    std::uint64_t line_ = 1;
    std::uint64_t line_start_ = 0;      // offset of the line's first byte
    std::uint64_t continuations_ = 0;   // bytes of the line that begin no character
    std::uint32_t high_surrogate_ = 0;  // waiting for its second half
    Place high_place_;
    Place flaw_place_;
    std::string kept_;  // text of a token that is not one stretch of the buffer
};

}  // namespace kvadmin
