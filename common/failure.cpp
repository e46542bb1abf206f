// See failure.h.
#include "failure.h"

#include <unistd.h>

namespace kvadmin {

void note(std::string_view message) {
    fmt::print(stderr, "{}: {}\n", program_name, message);
}

void require_root(std::string_view who) {
    if (geteuid() != 0)
        fail(Exit::kFailure,
             "{} works on objects that belong to root; run it as root (you are uid {})", who,
             geteuid());
}

}  // namespace kvadmin
