// The tokenizer: every kind of token with its place, the forms it refuses, comments where the
// builder's parser takes them, and the same tokens wherever the read buffer happens to end.
#include "json_lexer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <yajl/yajl_parse.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support.h"

namespace {

using namespace std::string_literals;
using kvadmin::ByteSource;
using kvadmin::JsonLexer;
using kvadmin::Place;
using kvadmin::StringFlaw;
using kvadmin::Token;
using kvadmin::TokenKind;

struct Seen {
    TokenKind kind;
    std::uint64_t line, column, byte;
    std::string text;
    bool operator==(const Seen&) const = default;
};

void PrintTo(const Seen& seen, std::ostream* out) {
    *out << kvadmin::name_of(seen.kind) << " at " << seen.line << ':' << seen.column << " byte "
         << seen.byte << " \"" << seen.text << '"';
}

// Every token up to the end or the error, both included.
std::vector<Seen> tokens(std::string_view text, std::size_t stretch = std::string_view::npos) {
    ByteSource source(text, stretch);
    JsonLexer lexer(source);
    std::vector<Seen> all;
    do {
        const Token token = lexer.next();
        all.push_back({token.kind, token.place.line, token.place.column, token.place.byte,
                       std::string(token.text)});
    } while (all.back().kind != TokenKind::kEnd && all.back().kind != TokenKind::kError);
    return all;
}

// The first token of a text and what the lexer knows of it.
struct First {
    Token token;
    std::string text;
    Place flaw_place;
};
First first(std::string_view text, std::size_t stretch = std::string_view::npos) {
    ByteSource source(text, stretch);
    JsonLexer lexer(source);
    First result;
    result.token = lexer.next();
    result.text = result.token.text;
    result.flaw_place = lexer.flaw_place();
    return result;
}

bool yajl_accepts(std::string_view text) {
    yajl_callbacks callbacks{};
    yajl_handle parser = yajl_alloc(&callbacks, nullptr, nullptr);
    yajl_config(parser, yajl_allow_comments, 1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const bool accepted = yajl_parse(parser, bytes, text.size()) == yajl_status_ok &&
                          yajl_complete_parse(parser) == yajl_status_ok;
    yajl_free(parser);
    return accepted;
}

TEST(JsonLexer, EveryTokenHasItsKindTextAndPlace) {
    const std::vector<Seen> expected = {
        {TokenKind::kBeginArray, 1, 1, 0, ""},   {TokenKind::kBeginObject, 2, 2, 3, ""},
        {TokenKind::kString, 2, 3, 4, "DIR"},    {TokenKind::kColon, 2, 8, 9, ""},
        {TokenKind::kString, 2, 10, 11, "/"},    {TokenKind::kComma, 2, 13, 14, ""},
        {TokenKind::kNumber, 3, 1, 16, "1200"},  {TokenKind::kTrue, 3, 6, 21, "true"},
        {TokenKind::kFalse, 3, 11, 26, "false"}, {TokenKind::kNull, 3, 17, 32, "null"},
        {TokenKind::kEndObject, 3, 21, 36, ""},  {TokenKind::kEndArray, 3, 22, 37, ""},
        {TokenKind::kEnd, 4, 1, 39, ""},
    };
    EXPECT_EQ(tokens("[\n {\"DIR\": \"/\",\n1200 true false null}]\n"), expected);
}

TEST(JsonLexer, AColumnIsACharacterAndNotAByte) {
    const std::vector<Seen> seen = tokens("[\"Ärger 日本 \xF0\x9F\x98\x80\", 1]");
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[1].text, "Ärger 日本 \xF0\x9F\x98\x80");
    EXPECT_EQ(seen[3].column, 16u);
    EXPECT_EQ(seen[3].byte, 23u);
}

TEST(JsonLexer, AllBlanksOfTheBuildersParserAreBlanks) {
    const std::vector<Seen> expected = {{TokenKind::kNumber, 2, 4, 7, "1"},
                                        {TokenKind::kEnd, 2, 5, 8, ""}};
    EXPECT_EQ(tokens(" \t\r\n\v\f\r1"), expected);
    EXPECT_TRUE(yajl_accepts(" \t\r\n\v\f\r1"));
}

TEST(JsonLexer, CommentsAreTakenWhereTheBuildersParserTakesThem) {
    for (const std::string& text :
         {"/**/[1]"s, "[1,/*a*/2]"s, "[1/*a*/,2]"s, "[1//a\n,2]"s, "{\"a\"/*x*/:/*y*/1}"s,
          "[1]/* a **/ "s, "[1]/***/"s, "[1]//x\n//y"s, "[/*a\n//b*/1]"s, "[1]//x\r[2]"s,
          "[1]//no line feed"s, "[/* \xFF\x01 */1]"s, "[\"a/*b*/\"]"s}) {
        EXPECT_TRUE(yajl_accepts(text)) << text;
        EXPECT_EQ(tokens(text).back().kind, TokenKind::kEnd) << text;
    }
    for (const std::string& text : {"[1]/"s, "[1/ /a\n]"s, "[tru/**/e]"s, "[1/x]"s, "#a\n[1]"s}) {
        EXPECT_FALSE(yajl_accepts(text)) << text;
        EXPECT_EQ(tokens(text).back().kind, TokenKind::kError) << text;
    }
}

TEST(JsonLexer, ACommentLeftOpenIsAnErrorWhereItBegins) {
    const std::vector<Seen> seen = tokens("[1]\n /* open *");
    EXPECT_EQ(seen.back(), (Seen{TokenKind::kError, 2, 2, 5,
                                 "the file ends inside a comment; close it with */"}));
}

TEST(JsonLexer, LinesInsideACommentCount) {
    const std::vector<Seen> seen = tokens("/* Ä\nÄÄ */ 7");
    EXPECT_EQ(seen[0], (Seen{TokenKind::kNumber, 2, 7, 14, "7"}));
}

TEST(JsonLexer, EscapesDecodeAsTheBuildersParserDecodesThem) {
    const First found = first(R"("\"\\\/\b\f\n\r\t\u0041\u00e4\u20AC\uD83D\uDE00")");
    EXPECT_EQ(found.token.flaw, StringFlaw::kNone);
    EXPECT_EQ(found.text, "\"\\/\b\f\n\r\tAä€\xF0\x9F\x98\x80");
    EXPECT_EQ(found.token.length, found.text.size());
}

TEST(JsonLexer, AnEscapedNulIsKeptAndTold) {
    const First found = first(R"("a\u0000b")");
    EXPECT_EQ(found.text, "a\0b"s);
    EXPECT_TRUE(found.token.has_nul);
    EXPECT_FALSE(first(R"("a\u0001b")").token.has_nul);
}

TEST(JsonLexer, TheFirstFlawOfAStringIsToldWithItsPlace) {
    struct Case {
        std::string text;
        StringFlaw flaw;
        std::uint64_t column;
    };
    const Case cases[] = {
        {R"("ab\ud800")", StringFlaw::kLoneSurrogate, 4},
        {R"("ab\ud800x")", StringFlaw::kLoneSurrogate, 4},
        {R"("ab\ud800\n")", StringFlaw::kLoneSurrogate, 4},
        {R"("ab\ud800\u0041")", StringFlaw::kLoneSurrogate, 4},
        {R"("\ud800\ud83d\ude00")", StringFlaw::kLoneSurrogate, 2},
        {R"("ab\udc00")", StringFlaw::kLoneSurrogate, 4},
        {R"("\udc00\ud800")", StringFlaw::kLoneSurrogate, 2},
        {R"("a\x")", StringFlaw::kBadEscape, 3},
        {R"("a\u12G4")", StringFlaw::kBadEscape, 3},
        {R"("a\u12")", StringFlaw::kBadEscape, 3},
        {"\"a\tb\"", StringFlaw::kControlCharacter, 3},
        {"\"a\0b\""s, StringFlaw::kControlCharacter, 3},
        {"\"\xC0\x80\"", StringFlaw::kNotUtf8, 2},          // overlong
        {"\"\xE0\x80\xAF\"", StringFlaw::kNotUtf8, 2},      // overlong
        {"\"a\xED\xA0\x80\"", StringFlaw::kNotUtf8, 3},     // a surrogate
        {"\"\xF4\x90\x80\x80\"", StringFlaw::kNotUtf8, 2},  // above U+10FFFF
        {"\"\xF8\x88\x80\x80\x80\"", StringFlaw::kNotUtf8, 2},
        {"\"ab\x80\"", StringFlaw::kNotUtf8, 4},
        {"\"ab\xE2\x82\"", StringFlaw::kNotUtf8, 4},
        {"\"ab\xFF\"", StringFlaw::kNotUtf8, 4},
        {"\"\x7F\"", StringFlaw::kNone, 0},
        {"\"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF\"", StringFlaw::kNone, 0},
    };
    for (const Case& one : cases) {
        const First found = first(one.text);
        EXPECT_EQ(found.token.kind, TokenKind::kString) << one.text;
        EXPECT_EQ(found.token.flaw, one.flaw) << one.text;
        if (one.flaw != StringFlaw::kNone) {
            EXPECT_EQ(found.flaw_place.column, one.column) << one.text;
        }
    }
}

TEST(JsonLexer, OnlyAPlainNumberIsPlain) {
    for (const char* text : {"0", "7", "10", "4294967296", "123456789012345678901234567890"})
        EXPECT_TRUE(first(text).token.plain) << text;
    for (const char* text : {"-1", "-0", "01", "00", "1.0", "1e3", "1E3", "+1", "-", ".5", "1-1"}) {
        EXPECT_EQ(first(text).token.kind, TokenKind::kNumber) << text;
        EXPECT_FALSE(first(text).token.plain) << text;
    }
}

TEST(JsonLexer, WhatJsonDoesNotKnowEndsTheWalk) {
    struct Case {
        std::string text;
        std::uint64_t line, column;
        std::string message;
    };
    const Case cases[] = {
        {"\n nil", 2, 2, "'nil' is no JSON value"},
        {"nullx", 1, 1, "'nullx' is no JSON value"},
        {"True", 1, 1, "'True' is no JSON value"},
        {"  ;", 1, 3, "unexpected character ';'"},
        {"\xFF\xFE[", 1, 1, "unexpected byte 0xff; the file must be UTF-8 text"},
        {"\0"s, 1, 1, "unexpected byte 0x00; the file must be UTF-8 text"},
        {"\"abc", 1, 5, "the file ends inside a string"},
        {"\"abc\\", 1, 6, "the file ends inside a string"},
        {"\"abc\n\"", 1, 5, "a string must be closed on its line; is a '\"' missing?"},
        {" / 1", 1, 2, "a '/' that begins no comment; write // or /* */, or remove it"},
    };
    for (const Case& one : cases) {
        const Seen seen = tokens(one.text).back();
        EXPECT_EQ(seen.kind, TokenKind::kError) << one.text;
        EXPECT_EQ(seen.text, one.message);
        EXPECT_EQ(seen.line, one.line) << one.text;
        EXPECT_EQ(seen.column, one.column) << one.text;
    }
}

TEST(JsonLexer, AByteOrderMarkIsSkippedAndTakesNoColumn) {
    ByteSource source("\xEF\xBB\xBF[");
    JsonLexer lexer(source);
    EXPECT_TRUE(lexer.skip_byte_order_mark());
    EXPECT_EQ(lexer.next().place, (Place{1, 1, 3}));
    ByteSource without("[");
    JsonLexer plain(without);
    EXPECT_FALSE(plain.skip_byte_order_mark());
    EXPECT_EQ(plain.next().place, (Place{1, 1, 0}));
}

TEST(JsonLexer, ALongTextIsCountedWholeAndKeptInPart) {
    const std::string name(1'000'000, 'n');
    const First crossing = first('"' + name + '"', 1000);
    EXPECT_EQ(crossing.token.length, name.size());
    EXPECT_EQ(crossing.text, name.substr(0, JsonLexer::kKeptBytes));
    const First escaped = first("\"\\t" + name + '"');
    EXPECT_EQ(escaped.token.length, name.size() + 1);
}

TEST(JsonLexer, TheTokensDoNotDependOnWhereTheBufferEnds) {
    const std::string pieces[] = {"{",
                                  "}",
                                  "[",
                                  "]",
                                  ":",
                                  ",",
                                  "\"DIR\"",
                                  "1234",
                                  "true",
                                  " ",
                                  "\n",
                                  "/*c\n*/",
                                  "//d\n",
                                  "\"\\u0041\"",
                                  "\"Äб日\"",
                                  "\"\\ud83d\\ude00\"",
                                  "\"\\ud83d\"",
                                  "-1.5e3",
                                  "\"\xE2\x82\"",
                                  "\"\xF0\x9F\"",
                                  "\"\\",
                                  "nul"};
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        for (int i = 0; i < 12; ++i) text += pieces[random() % std::size(pieces)];
        const std::vector<Seen> whole = tokens(text);
        for (const std::size_t stretch : {1, 2, 3, 5, 7})
            ASSERT_EQ(tokens(text, stretch), whole) << text << " in stretches of " << stretch;
    }
}

TEST(JsonLexer, AFileReadsLikeItsText) {
    std::string text = "[";
    for (int i = 0; i < 100'000; ++i) text += "\"name-" + std::to_string(i) + "\",\n";
    text += "1]";
    const std::string path = kvtest::make_temp_dir() + "/text.json";
    kvtest::write_file(path, text);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ByteSource source(fd);
    std::uint64_t told = 0;
    source.on_progress([&](std::uint64_t done) { told = done; });
    JsonLexer lexer(source);
    for (const Seen& expected : tokens(text)) {
        const Token token = lexer.next();
        ASSERT_EQ(token.kind, expected.kind);
        ASSERT_EQ(token.place, (Place{expected.line, expected.column, expected.byte}));
        ASSERT_EQ(token.text, expected.text);
    }
    EXPECT_EQ(told, text.size());
    close(fd);
}

TEST(JsonLexer, AFailedReadIsAnErrorWithItsReason) {
    const int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ByteSource source(folder);
    JsonLexer lexer(source);
    const Token token = lexer.next();
    EXPECT_EQ(token.kind, TokenKind::kError);
    EXPECT_EQ(token.text, "it cannot be read: Is a directory");
    EXPECT_NE(source.error(), 0);
    close(folder);
}

}  // namespace
