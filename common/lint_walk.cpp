// See lint_walk.h.
#include "lint_walk.h"

#include <algorithm>
#include <iterator>

#include "utf8.h"

namespace kvadmin {
namespace {

// Deeper than any element whose path can be looked up; what is skipped has no grammar to bound it.
constexpr std::size_t kDeepestSkipped = 10'000;

struct FlawText {
    StringFlaw flaw;
    std::string_view text;
};
constexpr FlawText kFlawTexts[] = {
    {StringFlaw::kNotUtf8, "holds bytes that are not UTF-8; write it in UTF-8"},
    {StringFlaw::kControlCharacter,
     "holds a control character as it is; write it as an escape, or remove it"},
    {StringFlaw::kBadEscape,
     "holds an unknown escape; JSON knows \\\" \\\\ \\/ \\b \\f \\n \\r \\t and \\u with four hex "
     "digits"},
    {StringFlaw::kLoneSurrogate, "holds half of a surrogate pair; write both halves"},
};

}  // namespace

void Findings::add_for_file(Severity severity, std::string message) {
    if (++totals_[static_cast<std::size_t>(severity)] > kept_) return;
    list_.push_back({severity, file_, 0, 0, 0, {}, std::move(message)});
}

std::vector<Finding> Findings::take() {
    std::stable_sort(list_.begin(), list_.end(),
                     [](const Finding& a, const Finding& b) { return a.byte < b.byte; });
    return std::move(list_);
}

std::string quoted(std::string_view text, std::size_t shown) {
    std::size_t end = std::min(text.size(), shown);
    while (end > 0 && end < text.size() && (text[end] & 0xC0) == 0x80) --end;
    return fmt::format("\"{}{}\"", printable(text.substr(0, end)), end < text.size() ? "..." : "");
}

std::optional<std::uint64_t> decimal(std::string_view digits, std::uint64_t largest) {
    std::uint64_t value = 0;
    for (const char digit : digits) {
        const auto unit = static_cast<std::uint64_t>(digit - '0');
        if (unit > largest || value > (largest - unit) / 10) return std::nullopt;
        value = value * 10 + unit;
    }
    return value;
}

Token JsonWalk::next() {
    Token token = lexer_.next();
    if (token.kind != TokenKind::kError) return token;
    if (source_.error() != 0) {
        findings_.add_for_file(Severity::kUnreadable, std::string(token.text));
        throw CannotGoOn{};
    }
    stop(token.place, "{}", token.text);
}

void JsonWalk::need_value(const Token& token) {
    constexpr auto kNoValue = [] {
        std::array<bool, static_cast<std::size_t>(TokenKind::kError) + 1> table{};
        for (const TokenKind kind : {TokenKind::kEndObject, TokenKind::kEndArray, TokenKind::kColon,
                                     TokenKind::kComma, TokenKind::kEnd})
            table[static_cast<std::size_t>(kind)] = true;
        return table;
    }();
    if (kNoValue[static_cast<std::size_t>(token.kind)])
        stop(token.place, "expected a value, found {}", name_of(token.kind));
}

Token JsonWalk::begin() {
    if (lexer_.skip_byte_order_mark())
        violation({}, "begins with a byte order mark; save it as UTF-8 without one");
    const Token token = next();
    if (token.kind == TokenKind::kEnd) stop(token.place, "the file is empty");
    need_value(token);
    return token;
}

void JsonWalk::end() {
    const Token token = next();
    if (token.kind != TokenKind::kEnd)
        stop(token.place, "found {} behind the end of the document; remove it",
             name_of(token.kind));
}

bool JsonWalk::next_key(bool& first, Token& key) {
    key = next();
    if (key.kind == TokenKind::kEndObject) return false;
    if (!std::exchange(first, false)) {
        if (key.kind != TokenKind::kComma)
            stop(key.place, "expected ',' or '}}' after a member, found {}", name_of(key.kind));
        key = next();
    }
    if (key.kind != TokenKind::kString)
        stop(key.place, "expected a key in quotes, found {}", name_of(key.kind));
    sound_string(key, "the key");
    return true;
}

Token JsonWalk::value() {
    const Token colon = next();
    if (colon.kind != TokenKind::kColon)
        stop(colon.place, "expected ':' after a key, found {}", name_of(colon.kind));
    Token token = next();
    need_value(token);
    return token;
}

bool JsonWalk::next_item(bool& first, Token& item) {
    item = next();
    if (item.kind == TokenKind::kEndArray) return false;
    if (!std::exchange(first, false)) {
        if (item.kind != TokenKind::kComma)
            stop(item.place, "expected ',' or ']' after an item, found {}", name_of(item.kind));
        item = next();
    }
    need_value(item);
    return true;
}

void JsonWalk::skip(const Token& first) {
    const auto open = [this](const Token& token) {
        if (token.kind == TokenKind::kString) sound_string(token, "the string");
        if (token.kind != TokenKind::kBeginObject && token.kind != TokenKind::kBeginArray) return;
        if (open_.size() == kDeepestSkipped) stop(token.place, "nested too deeply");
        open_.push_back({token.kind, true});
    };
    for (open(first); !open_.empty();) {
        Level& level = open_.back();
        Token token;
        if (level.kind == TokenKind::kBeginArray ? !next_item(level.first, token)
                                                 : !next_key(level.first, token)) {
            open_.pop_back();
            continue;
        }
        if (level.kind == TokenKind::kBeginObject) token = value();
        open(token);
    }
}

bool JsonWalk::expect(const Token& token, TokenKind kind, std::string_view what) {
    if (token.kind == kind) return true;
    violation(token.place, "{} must be {}, not {}", what, name_of(kind), name_of(token.kind));
    skip(token);
    return false;
}

std::optional<std::uint64_t> JsonWalk::number(const Token& token, std::uint64_t largest,
                                              std::string_view what) {
    if (!expect(token, TokenKind::kNumber, what)) return std::nullopt;
    if (!token.plain) {
        violation(
            token.place,
            "{} is {}; write it in decimal digits alone, without sign, leading zero, fraction "
            "or exponent",
            what, quoted(token.text, 24));
        return std::nullopt;
    }
    const std::optional<std::uint64_t> value = decimal(token.text, largest);
    if (!value)
        violation(token.place, "{} is {}, which does not fit; the largest is {}", what,
                  quoted(token.text, 24), largest);
    return value;
}

bool JsonWalk::sound_string(const Token& token, std::string_view what) {
    if (token.flaw == StringFlaw::kNone) return true;
    for (const FlawText& text : kFlawTexts)
        if (text.flaw == token.flaw) violation(lexer_.flaw_place(), "{} {}", what, text.text);
    return false;
}

}  // namespace kvadmin
