// What the checkers of both files share: the list of findings, and a walk over the structure of a
// JSON text that reports whatever breaks JSON itself. Grammar is the checkers' business.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "json_lexer.h"
#include "lint.h"

namespace kvadmin {

// Findings of one file. Keeps the first of each severity, counts all; a message is only formatted
// when it is kept, so that a file with a million violations costs no more than a clean one.
class Findings {
public:
    Findings(PairFile file, std::size_t kept) : file_(file), kept_(kept) {}

    template <typename... Args>
    void add(Severity severity, const Place& place, std::string_view path,
             fmt::format_string<Args...> format, Args&&... args) {
        if (++totals_[static_cast<std::size_t>(severity)] > kept_) return;
        list_.push_back({severity, file_, place.line, place.column, place.byte, std::string(path),
                         fmt::format(format, std::forward<Args>(args)...)});
    }

    // About the file as a whole.
    void add_for_file(Severity severity, std::string message);

    std::uint64_t total(Severity severity) const {
        return totals_[static_cast<std::size_t>(severity)];
    }
    // Hands over the kept ones in the order of their places.
    std::vector<Finding> take();

private:
    PairFile file_;
    std::size_t kept_;
    std::array<std::uint64_t, 3> totals_{};
    std::vector<Finding> list_;
};

// Thrown when the rest of a file cannot be understood; the reason is already reported.
struct CannotGoOn {};

// `text` in quotes as a message shows it: at most so many bytes, none of which moves a cursor.
std::string quoted(std::string_view text, std::size_t shown = 64);

class JsonWalk {
public:
    JsonWalk(ByteSource& source, Findings& findings)
        : source_(source), lexer_(source), findings_(findings) {}

    // The path that findings of this walk carry; the checker keeps it current.
    std::string path;

    // The first token of the document: a byte order mark and an empty file are reported here.
    Token begin();
    // Reports what follows the document.
    void end();

    // Members of an object whose '{' was read. `first` starts true and belongs to this loop. False
    // at the '}'. A key's flaws are reported here; its value is asked for by value().
    bool next_key(bool& first, Token& key);
    Token value();
    // Items of an array whose '[' was read; `item` is the first token of each.
    bool next_item(bool& first, Token& item);

    // Passes the value that begins with `first`, whatever it is.
    void skip(const Token& first);

    // Reports a value of the wrong kind and passes it; true when the kind is right.
    bool expect(const Token& token, TokenKind kind, std::string_view what);
    // The number when it is plain and at most `largest`; else reports, and passes the value.
    std::optional<std::uint64_t> number(const Token& token, std::uint64_t largest,
                                        std::string_view what);
    // Reports the first flaw of a string; true when it has none.
    bool sound_string(const Token& token, std::string_view what);

    template <typename... Args>
    [[gnu::noinline]] void violation(const Place& place, fmt::format_string<Args...> format,
                                     Args&&... args) {
        findings_.add(Severity::kViolation, place, path, format, std::forward<Args>(args)...);
    }
    template <typename... Args>
    void warning(const Place& place, fmt::format_string<Args...> format, Args&&... args) {
        findings_.add(Severity::kWarning, place, path, format, std::forward<Args>(args)...);
    }
    // Reports and leaves this file.
    template <typename... Args>
    [[noreturn]] void stop(const Place& place, fmt::format_string<Args...> format, Args&&... args) {
        violation(place, "{}; the rest of the file was not checked",
                  fmt::format(format, std::forward<Args>(args)...));
        throw CannotGoOn{};
    }

private:
    struct Level {
        TokenKind kind;
        bool first;
    };

    Token next();
    void need_value(const Token& token);  // leaves the file unless a value begins here

    ByteSource& source_;
    JsonLexer lexer_;
    Findings& findings_;
    std::vector<Level> open_;  // brackets of a value that is skipped
};

// Where `key` stands in a table of keys, or the table's size.
template <std::size_t N>
std::size_t index_of(const std::string_view (&table)[N], std::string_view key) {
    return static_cast<std::size_t>(std::find(table, table + N, key) - table);
}

// The number that decimal digits give, or nothing when it exceeds `largest`.
std::optional<std::uint64_t> decimal(std::string_view digits, std::uint64_t largest);

}  // namespace kvadmin
