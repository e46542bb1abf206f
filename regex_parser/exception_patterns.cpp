// The exception pattern file, compiled once for the life of a process. Reading it again starts over
// at the first slot; what the slots held stays allocated, since a match may be under way.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eventstore.h"
#include "regex_parser.h"
#include "utils/owners.h"
#include "utils/trace.h"

pattern_buf_t g_kavrin_pattern_buf;

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kDecision;

constexpr std::size_t kLineSize = 1024;

// Compiles a line without its last character, the newline, into a slot. False leaves the slot
// empty.
bool compile_into(regex_list_elem_t& slot, const char* line) {
    slot = {};
    const std::size_t length = std::strlen(line);
    HeapString pattern(static_cast<char*>(std::calloc(length + 1, 1)));
    if (pattern == nullptr) return false;
    if (length > 0) std::memcpy(pattern.get(), line, length - 1);
    if (get_regex_matchbuf(pattern.get(), &slot.compiled_pattern) != REGEX_TRUE) {
        std::free(slot.compiled_pattern);
        slot.compiled_pattern = nullptr;
        return false;
    }
    slot.pattern = pattern.release();
    KV_TRACE(kDecision, "read pattern %s\n", slot.pattern);
    return true;
}

}  // namespace

extern "C" int read_and_compile_patterns(void) {
    const char* const name = global_params[PARAM_REGEX_FILE_NAME].value.strval;
    if (name[0] == '\0') {
        KV_TRACE(kAlways, "no regex file specified\n");
        return -1;
    }
    if (access(name, F_OK) != 0) {
        KV_TRACE(kAlways, "regular expression file does not exist\n");
        return -1;
    }
    // Stays open, as long as the table it has filled stays in use.
    std::FILE* const file = std::fopen(name, "re");
    if (file == nullptr) {
        KV_TRACE(kAlways, "cannot open regular expression file\n");
        return -1;
    }
    std::size_t size = kLineSize;
    char* line = static_cast<char*>(std::calloc(size, 1));
    pattern_buf_t& patterns = g_kavrin_pattern_buf;
    patterns.num_elems = 0;
    // Lines beyond the last slot are counted all the same.
    while (getline(&line, &size, file) > 0) {
        if (patterns.num_elems >= KAVRIN_MAX_PATTERNS ||
            compile_into(patterns.elems[patterns.num_elems], line))
            ++patterns.num_elems;
    }
    std::free(line);
    return 0;
}
