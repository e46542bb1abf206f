// See json_session.h.
#include "permissions/json_session.h"

#include <climits>
#include <cstdio>

namespace kavrin {

JsonSession::JsonSession(const yajl_callbacks& callbacks)
    : generator_(yajl_gen_alloc(nullptr)), parser_(yajl_alloc(&callbacks, nullptr, generator_)) {
    if (!ready()) return;
    yajl_gen_config(generator_, yajl_gen_beautify, 1);
    yajl_gen_config(generator_, yajl_gen_validate_utf8, 1);
    yajl_config(parser_, yajl_allow_comments, 1);
}

JsonSession::~JsonSession() {
    if (parser_ != nullptr) yajl_free(parser_);
    if (generator_ != nullptr) yajl_gen_free(generator_);
}

bool JsonSession::feed(std::string_view piece) {
    const yajl_status status =
        yajl_parse(parser_, reinterpret_cast<const unsigned char*>(piece.data()), piece.size());
    if (status != yajl_status_ok) failed_piece_ = piece;
    const unsigned char* generated = nullptr;
    std::size_t length = 0;
    yajl_gen_get_buf(generator_, &generated, &length);
    if (length > 0) std::fwrite(generated, 1, length, stdout);
    yajl_gen_clear(generator_);
    return status == yajl_status_ok;
}

void JsonSession::complete() {
    if (yajl_complete_parse(parser_) == yajl_status_ok) return;
    unsigned char* text =
        yajl_get_error(parser_, 1, reinterpret_cast<const unsigned char*>(failed_piece_.data()),
                       failed_piece_.size());
    if (text == nullptr) return;
    std::fprintf(stderr, "%s", reinterpret_cast<const char*>(text));
    yajl_free_error(parser_, text);
}

unsigned long long decimal_value(std::string_view text) {
    const auto is_space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    std::size_t at = 0;
    while (at < text.size() && is_space(text[at])) ++at;
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
    unsigned long long value = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        const auto digit = static_cast<unsigned long long>(text[at] - '0');
        if (value > (ULLONG_MAX - digit) / 10) return ULLONG_MAX;
        value = value * 10 + digit;
    }
    return negative ? 0 - value : value;
}

}  // namespace kavrin
