// One run of the streaming JSON parser over one file, set up the same way for the size file and the
// data file.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>

#include <cstddef>
#include <string_view>

namespace kavrin {

class JsonSession {
public:
    // Comments are allowed in the document. The generator is the callbacks' context; nothing is
    // written to it.
    explicit JsonSession(const yajl_callbacks& callbacks);
    ~JsonSession();
    JsonSession(const JsonSession&) = delete;
    JsonSession& operator=(const JsonSession&) = delete;

    bool ready() const { return generator_ != nullptr && parser_ != nullptr; }

    // Parses the next piece; false on the first error or when a callback cancelled.
    bool feed(std::string_view piece);

    // Ends the document; the parser's verbose error text goes to standard error.
    void complete();

private:
    yajl_gen generator_;
    yajl_handle parser_;
    std::string_view failed_piece_;  // where the parse stopped; its bytes outlive the session
};

// The value of a number text as strtoull() would read it, base 10, without needing a terminator.
unsigned long long decimal_value(std::string_view text);

}  // namespace kavrin
