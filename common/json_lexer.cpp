// See json_lexer.h. The common token lies whole in the read buffer and is handed out from there;
// what crosses the buffer's end or needs decoding is gathered in kept_.
#include "json_lexer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "utf8.h"

namespace kvadmin {
namespace {

using ByteTable = std::array<bool, 256>;

constexpr ByteTable table_of(std::string_view members) {
    ByteTable table{};
    for (const char c : members) table[static_cast<unsigned char>(c)] = true;
    return table;
}

// The builder's parser takes vertical tabs and form feeds for blanks, too.
constexpr ByteTable kBlank = table_of(" \t\r\n\v\f");
constexpr ByteTable kNumberByte = table_of("0123456789+-.eE");
constexpr ByteTable kWordByte =
    table_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_");

// Bytes of a string that stand for themselves.
constexpr ByteTable kOrdinary = [] {
    ByteTable table{};
    for (int c = 0x20; c < 0x80; ++c) table[static_cast<std::size_t>(c)] = c != '"' && c != '\\';
    return table;
}();

// The kind of a token of one character, and kError for every other byte.
constexpr std::array<TokenKind, 256> kPunctuation = [] {
    std::array<TokenKind, 256> table{};
    table.fill(TokenKind::kError);
    table['{'] = TokenKind::kBeginObject;
    table['}'] = TokenKind::kEndObject;
    table['['] = TokenKind::kBeginArray;
    table[']'] = TokenKind::kEndArray;
    table[':'] = TokenKind::kColon;
    table[','] = TokenKind::kComma;
    return table;
}();

// In the order of TokenKind.
constexpr std::string_view kKindNames[] = {"an object",
                                           "'}'",
                                           "an array",
                                           "']'",
                                           "':'",
                                           "','",
                                           "a string",
                                           "a number",
                                           "true",
                                           "false",
                                           "null",
                                           "the end of the file",
                                           "nothing that JSON knows"};
static_assert(std::size(kKindNames) == static_cast<std::size_t>(TokenKind::kError) + 1);

struct Word {
    std::string_view text;
    TokenKind kind;
};
constexpr Word kWords[] = {
    {"true", TokenKind::kTrue}, {"false", TokenKind::kFalse}, {"null", TokenKind::kNull}};

struct Escape {
    char letter;
    char meaning;
};
constexpr Escape kEscapes[] = {{'"', '"'},  {'\\', '\\'}, {'/', '/'},  {'b', '\b'},
                               {'f', '\f'}, {'n', '\n'},  {'r', '\r'}, {'t', '\t'}};

bool in(const ByteTable& table, int byte) {
    return byte >= 0 && table[static_cast<std::size_t>(byte)];
}

bool is_continuation(int byte) {
    return byte >= 0 && (byte & 0xC0) == 0x80;
}

int hex_value(int byte) {
    if (byte >= '0' && byte <= '9') return byte - '0';
    if (byte >= 'a' && byte <= 'f') return byte - 'a' + 10;
    if (byte >= 'A' && byte <= 'F') return byte - 'A' + 10;
    return -1;
}

bool is_plain_decimal(std::string_view digits) {
    if (digits.empty() || (digits.size() > 1 && digits.front() == '0')) return false;
    return std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::string_view name_of(TokenKind kind) {
    return kKindNames[static_cast<std::size_t>(kind)];
}

bool JsonLexer::refill() {
    base_ += static_cast<std::uint64_t>(end_ - begin_);
    const std::string_view stretch = source_.next();
    begin_ = cursor_ = stretch.data();
    end_ = begin_ + stretch.size();
    return !stretch.empty();
}

int JsonLexer::peek() {
    if (cursor_ == end_ && !refill()) return -1;
    return static_cast<unsigned char>(*cursor_);
}

Place JsonLexer::here() const {
    const std::uint64_t byte = base_ + static_cast<std::uint64_t>(cursor_ - begin_);
    return {line_, byte - line_start_ - continuations_ + 1, byte};
}

// The cursor has just passed a line feed.
void JsonLexer::new_line() {
    ++line_;
    line_start_ = base_ + static_cast<std::uint64_t>(cursor_ - begin_);
    continuations_ = 0;
}

void JsonLexer::fail(Token& token, std::string message) {
    token.kind = TokenKind::kError;
    token.place = here();
    kept_ = source_.error() != 0 ? std::string("it cannot be read: ") + strerror(source_.error())
                                 : std::move(message);
    token.text = kept_;
    token.length = kept_.size();
}

bool JsonLexer::skip_byte_order_mark() {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    peek();
    if (!std::string_view(cursor_, static_cast<std::size_t>(end_ - cursor_)).starts_with(kMark))
        return false;
    cursor_ += kMark.size();
    continuations_ = kMark.size();  // the mark takes no column
    return true;
}

bool JsonLexer::skip_blanks(Token& error) {
    for (;;) {
        while (cursor_ != end_ && kBlank[static_cast<unsigned char>(*cursor_)])
            if (*cursor_++ == '\n') new_line();
        const int byte = peek();
        if (byte == '/') {
            if (!skip_comment(error)) return false;
        } else if (!in(kBlank, byte)) {
            return true;
        }
    }
}

bool JsonLexer::skip_comment(Token& error) {
    const Place start = here();
    ++cursor_;
    const int form = peek();
    if (form != '/' && form != '*') {
        fail(error, "a '/' that begins no comment; write // or /* */, or remove it");
        error.place = start;
        return false;
    }
    ++cursor_;
    for (int last = 0, byte = peek(); byte >= 0; last = byte, byte = peek()) {
        ++cursor_;
        if (byte == '\n') new_line();
        if (is_continuation(byte)) ++continuations_;
        if (form == '/' && byte == '\n') return true;
        if (form == '*' && last == '*' && byte == '/') return true;
    }
    if (form == '/' && source_.error() == 0) return true;  // the text's last line needs no end
    fail(error, "the file ends inside a comment; close it with */");
    error.place = start;
    return false;
}

Token JsonLexer::next() {
    Token token;
    if (!skip_blanks(token)) return token;
    token.place = here();
    const int byte = peek();
    if (byte < 0) {
        if (source_.error() != 0) fail(token, {});
        return token;
    }
    token.kind = kPunctuation[static_cast<std::size_t>(byte)];
    if (token.kind != TokenKind::kError) {
        ++cursor_;
        return token;
    }
    if (byte == '"') {
        lex_string(token);
    } else if (in(kNumberByte, byte) && byte != 'e' && byte != 'E') {
        lex_number(token);
    } else if (in(kWordByte, byte)) {
        lex_word(token);
    } else if (byte > 0x20 && byte < 0x7F) {
        fail(token, fmt::format("unexpected character '{}'", static_cast<char>(byte)));
    } else {
        fail(token, fmt::format("unexpected byte 0x{:02x}; the file must be UTF-8 text", byte));
    }
    return token;
}

void JsonLexer::keep(Token& token, const char* from, const char* to) {
    const auto size = static_cast<std::size_t>(to - from);
    token.length += size;
    if (kept_.size() < kKeptBytes) kept_.append(from, std::min(size, kKeptBytes - kept_.size()));
}

// Takes bytes of `table` as they are. Stops at another byte, or at the end of the text.
void JsonLexer::keep_run(Token& token, const ByteTable& table) {
    while (in(table, peek())) {
        const char* from = cursor_;
        while (cursor_ != end_ && table[static_cast<unsigned char>(*cursor_)]) ++cursor_;
        keep(token, from, cursor_);
    }
}

void JsonLexer::lex_number(Token& token) {
    token.kind = TokenKind::kNumber;
    const char* from = cursor_;
    while (cursor_ != end_ && kNumberByte[static_cast<unsigned char>(*cursor_)]) ++cursor_;
    if (cursor_ != end_) {
        token.text = {from, static_cast<std::size_t>(cursor_ - from)};
        token.length = token.text.size();
    } else {
        kept_.clear();
        keep(token, from, cursor_);
        keep_run(token, kNumberByte);
        token.text = kept_;
    }
    token.plain = is_plain_decimal(token.text);
}

void JsonLexer::lex_word(Token& token) {
    const Place start = here();
    kept_.clear();
    keep_run(token, kWordByte);
    for (const Word& word : kWords) {
        if (kept_ != word.text) continue;
        token.kind = word.kind;
        token.text = word.text;
        return;
    }
    constexpr std::size_t kShown = 40;
    fail(token, fmt::format("'{}{}' is no JSON value", kept_.substr(0, kShown),
                            token.length > kShown ? "..." : ""));
    token.place = start;
}

void JsonLexer::lex_string(Token& token) {
    token.kind = TokenKind::kString;
    ++cursor_;
    const char* from = cursor_;
    while (cursor_ != end_ && kOrdinary[static_cast<unsigned char>(*cursor_)]) ++cursor_;
    if (cursor_ != end_ && *cursor_ == '"') {
        token.text = {from, static_cast<std::size_t>(cursor_ - from)};
        token.length = token.text.size();
        ++cursor_;
        return;
    }
    kept_.clear();
    keep(token, from, cursor_);
    lex_string_slowly(token);
}

void JsonLexer::lex_string_slowly(Token& token) {
    for (high_surrogate_ = 0;;) {
        const int byte = peek();
        if (byte != '\\') settle_surrogate(token);
        if (byte < 0) return fail(token, "the file ends inside a string");
        if (byte == '\n')
            return fail(token, "a string must be closed on its line; is a '\"' missing?");
        if (byte == '"') break;
        if (byte == '\\') {
            take_escape(token);
        } else if (in(kOrdinary, byte)) {
            keep_run(token, kOrdinary);
        } else if (byte < 0x20) {
            mark(token, StringFlaw::kControlCharacter, here());
            if (byte == 0) token.has_nul = true;
            keep(token, cursor_, cursor_ + 1);
            ++cursor_;
        } else {
            take_character(token);
        }
    }
    ++cursor_;
    token.text = kept_;
}

void JsonLexer::mark(Token& token, StringFlaw flaw, const Place& place) {
    if (token.flaw != StringFlaw::kNone) return;
    token.flaw = flaw;
    flaw_place_ = place;
}

// One character of several bytes; the buffer may end between them.
void JsonLexer::take_character(Token& token) {
    const Place place = here();
    char bytes[4];
    std::size_t size = 0;
    const int first = peek();
    const std::size_t wanted = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    do {
        if (is_continuation(peek()) && size > 0) ++continuations_;
        bytes[size++] = *cursor_++;
    } while (size < wanted && is_continuation(peek()));
    if (utf8_length({bytes, size}) != size) mark(token, StringFlaw::kNotUtf8, place);
    keep(token, bytes, bytes + size);
}

void JsonLexer::take_escape(Token& token) {
    const Place place = here();
    ++cursor_;
    const int letter = peek();
    if (letter == 'u') {
        ++cursor_;
        return take_unicode_escape(token, place);
    }
    settle_surrogate(token);
    for (const Escape& escape : kEscapes) {
        if (letter != escape.letter) continue;
        ++cursor_;
        return keep(token, &escape.meaning, &escape.meaning + 1);
    }
    mark(token, StringFlaw::kBadEscape, place);
    if (letter >= 0 && in(kOrdinary, letter)) ++cursor_;
}

void JsonLexer::take_unicode_escape(Token& token, const Place& place) {
    std::uint32_t code_unit = 0;
    for (int digit = 0; digit < 4; ++digit) {
        const int value = hex_value(peek());
        if (value < 0) {
            settle_surrogate(token);
            return mark(token, StringFlaw::kBadEscape, place);
        }
        ++cursor_;
        code_unit = code_unit << 4 | static_cast<std::uint32_t>(value);
    }
    const bool low = (code_unit & 0xFC00) == 0xDC00;
    if (low && high_surrogate_ != 0) {
        const std::uint32_t high = std::exchange(high_surrogate_, 0);
        return keep_code_point(token, 0x10000 + ((high & 0x3FF) << 10) + (code_unit & 0x3FF));
    }
    settle_surrogate(token);
    if ((code_unit & 0xFC00) == 0xD800) {
        high_surrogate_ = code_unit;
        high_place_ = place;
        return;
    }
    if (low) mark(token, StringFlaw::kLoneSurrogate, place);
    if (code_unit == 0) token.has_nul = true;
    keep_code_point(token, code_unit);
}

// Whatever comes next is no second half for the first half before it.
void JsonLexer::settle_surrogate(Token& token) {
    if (std::exchange(high_surrogate_, 0) == 0) return;
    mark(token, StringFlaw::kLoneSurrogate, high_place_);
    constexpr char kDecodedAs = '?';  // by the builder's parser, too
    keep(token, &kDecodedAs, &kDecodedAs + 1);
}

void JsonLexer::keep_code_point(Token& token, std::uint32_t code_point) {
    char bytes[4];
    std::size_t size = 0;
    const auto put = [&](std::uint32_t byte) { bytes[size++] = static_cast<char>(byte); };
    if (code_point < 0x80) {
        put(code_point);
    } else if (code_point < 0x800) {
        put(0xC0 | code_point >> 6);
        put(0x80 | (code_point & 0x3F));
    } else {
        if (code_point < 0x10000) {
            put(0xE0 | code_point >> 12);
        } else {
            put(0xF0 | code_point >> 18);
            put(0x80 | (code_point >> 12 & 0x3F));
        }
        put(0x80 | (code_point >> 6 & 0x3F));
        put(0x80 | (code_point & 0x3F));
    }
    keep(token, bytes, bytes + size);
}

}  // namespace kvadmin
