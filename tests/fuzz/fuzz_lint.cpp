// Feeds lint hostile pairs. The bytes before the first 0x1E are the size file, the others the data
// file. Beyond crashes it looks for contradictions: a text that reads differently when the read
// buffer ends elsewhere, and a clean pair that the JSON parser rejects or the builder cannot hold.
#include <yajl/yajl_parse.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json_lexer.h"
#include "lint.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void read_in_stretches(std::string_view text) {
    kvadmin::ByteSource whole_source(text);
    kvadmin::ByteSource parts_source(text, 3);
    kvadmin::JsonLexer whole(whole_source);
    kvadmin::JsonLexer parts(parts_source);
    require(whole.skip_byte_order_mark() == parts.skip_byte_order_mark());
    for (;;) {
        const kvadmin::Token a = whole.next();
        const kvadmin::Token b = parts.next();
        require(a.kind == b.kind && a.flaw == b.flaw && a.has_nul == b.has_nul);
        require(a.plain == b.plain && a.place == b.place && a.length == b.length);
        require(a.text == b.text || a.length > kvadmin::JsonLexer::kKeptBytes);
        if (a.kind == kvadmin::TokenKind::kEnd || a.kind == kvadmin::TokenKind::kError) return;
    }
}

bool parser_accepts(std::string_view text) {
    yajl_callbacks callbacks{};
    yajl_handle parser = yajl_alloc(&callbacks, nullptr, nullptr);
    yajl_config(parser, yajl_allow_comments, 1);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const bool accepted = yajl_parse(parser, bytes, text.size()) == yajl_status_ok &&
                          yajl_complete_parse(parser) == yajl_status_ok;
    yajl_free(parser);
    return accepted;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(bytes), size);
    const std::size_t border = input.find('\x1E');
    const std::string_view size_text = input.substr(0, border);
    const std::string_view data_text =
        border == std::string_view::npos ? std::string_view{} : input.substr(border + 1);
    read_in_stretches(data_text);

    kvadmin::LintOptions options;
    options.kept_findings = 4;
    const kvadmin::LintReport report = kvadmin::lint_texts(size_text, data_text, options);
    for (const kvadmin::Finding& finding : report.findings)
        require(!kvadmin::describe(report, finding).empty());
    require(!kvadmin::report_as_json(report).empty());
    if (!report.clean()) return 0;
    require(parser_accepts(size_text) && parser_accepts(data_text));
    require(report.counts.elements >= 1 && report.counts.elements == report.announced.elements);
    require(report.counts.aces == report.announced.aces);
    require(report.counts.name_bytes == report.announced.name_bytes);
    require(report.image_size ==
            report.counts.name_bytes + 60 * report.counts.elements + 12 * report.counts.aces + 176);
    return 0;
}
