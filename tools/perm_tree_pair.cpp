// A tree straight from a pair of JSON files. The load itself is not asked: it would remove its
// input and replace the persisted map. What it would build is known without it, for a pair that the
// check finds clean has one meaning only, and both read it with the same lexer's rules.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "failure.h"
#include "json_lexer.h"
#include "lint.h"
#include "perm_tree.h"

namespace kvadmin {
namespace {

constexpr std::size_t kShownFindings = 10;

Descriptor open_file(const std::string& path) {
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) fail(Exit::kFailure, "cannot open {}: {}", path, std::strerror(errno));
    return file;
}

}  // namespace

// Reads a data file that was found clean. Whatever does not fit now was changed since.
class PairTreeReader {
public:
    PairTreeReader(ByteSource& source, const std::string& path) : lexer_(source), path_(path) {}

    PermTree read() {
        lexer_.skip_byte_order_mark();
        expect(TokenKind::kBeginArray);
        read_children(PermTree::kNone);
        expect(TokenKind::kEnd);
        tree_.list_children();
        return std::move(tree_);
    }

private:
    [[noreturn]] void changed() {
        fail(Exit::kFailure, "{} was changed while it was read; try again when it is complete",
             path_);
    }
    Token next() {
        const Token token = lexer_.next();
        if (token.kind == TokenKind::kError) changed();
        return token;
    }
    void expect(TokenKind kind) {
        if (next().kind != kind) changed();
    }
    // True at a comma, false at the closing bracket.
    bool more(TokenKind closing) {
        const TokenKind kind = next().kind;
        if (kind != TokenKind::kComma && kind != closing) changed();
        return kind == TokenKind::kComma;
    }
    std::uint32_t number(const Token& token) {
        std::uint64_t value = 0;
        for (const char digit : token.text)
            value = value * 10 + static_cast<std::uint64_t>(digit - '0');
        return static_cast<std::uint32_t>(value);
    }

    // Behind the '[': one object that counts, then the elements.
    void read_children(PermTree::Id parent) {
        do {
            expect(TokenKind::kBeginObject);
            const Token key = next();
            if (key.kind != TokenKind::kString) changed();
            if (key.text != "NUMCHILDREN") {
                read_element(parent, key);
                continue;
            }
            expect(TokenKind::kColon);
            expect(TokenKind::kNumber);
            expect(TokenKind::kEndObject);
        } while (more(TokenKind::kEndArray));
    }

    void read_element(PermTree::Id parent, Token key) {
        if (parent == PermTree::kNone && tree_.size() != 0) changed();
        const PermTree::Id id = tree_.add(parent);
        for (;; key = next()) {
            const char what = key.text.empty() ? '?' : key.text.front();
            expect(TokenKind::kColon);
            const Token value = next();
            if (what == 'D' && value.kind == TokenKind::kString) {
                tree_.set_name(id, value.text);
            } else if (what == 'A' && value.kind == TokenKind::kBeginArray) {
                read_acl(id);
            } else if (what == 'C' && value.kind == TokenKind::kBeginArray) {
                read_children(id);
            } else {
                changed();
            }
            if (!more(TokenKind::kEndObject)) return;
        }
    }

    void read_acl(PermTree::Id id) {
        tree_.elements_[id].acl = tree_.entries_.size();
        do {
            expect(TokenKind::kBeginObject);
            const bool groups = next().text == "GROUPS";
            expect(TokenKind::kColon);
            const Token value = next();
            if (value.kind == TokenKind::kBeginObject) read_trustees(groups);
            expect(TokenKind::kEndObject);
        } while (more(TokenKind::kEndArray));
        tree_.elements_[id].acl_length =
            static_cast<std::uint32_t>(tree_.entries_.size() - tree_.elements_[id].acl);
    }

    void read_trustees(bool groups) {
        Token key = next();
        if (key.kind == TokenKind::kEndObject) return;
        for (;; key = next()) {
            const std::uint32_t id = number(key);
            expect(TokenKind::kColon);
            const Token mask = next();
            if (mask.kind != TokenKind::kNumber) changed();
            tree_.entries_.push_back({groups, id, number(mask) & UINT16_MAX});
            if (!more(TokenKind::kEndObject)) return;
        }
    }

    JsonLexer lexer_;
    const std::string& path_;
    PermTree tree_;
};

PermTree PermTree::of_pair(const std::string& size_path, const std::string& data_path) {
    const Descriptor size = open_file(size_path);
    const Descriptor data = open_file(data_path);
    const LintReport report = lint_descriptors(size.get(), size_path, data.get(), data_path);
    if (!report.clean()) {
        print_report(stderr, report, kShownFindings);
        fail(report.unreadable > 0 ? Exit::kFailure : Exit::kInvalidInput,
             "{} and {} do not pass the check; 'kavrinctl map lint' shows the whole report",
             size_path, data_path);
    }
    if (lseek(data.get(), 0, SEEK_SET) != 0)
        fail(Exit::kFailure, "cannot read {} a second time: {}", data_path, std::strerror(errno));
    ByteSource source(data.get());
    PermTree tree = PairTreeReader(source, data_path).read();
    if (tree.size() != report.counts.elements || tree.entries_.size() != report.counts.aces)
        fail(Exit::kFailure, "{} was changed while it was read; try again when it is complete",
             data_path);
    return tree;
}

}  // namespace kvadmin
