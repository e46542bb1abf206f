// See trace.h.
#include "utils/trace.h"

#include <cstdio>
#include <cstdlib>

namespace kavrin {

void assertion_failed(const char* expression, const char* file, int line, const char* function) {
    std::fprintf(stderr, "%s:%d(%s) Assertion `%s' failed.\n", file, line, function, expression);
    std::abort();
}

}  // namespace kavrin
