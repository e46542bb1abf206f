// Verdicts asked for as a file server asks for them: by a process with the user's effective
// identity and root's real and saved one. That process is a child: it can take the identity for
// good, and a damaged map ends it and nothing else.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "explain.h"

namespace kvadmin {

struct VerdictJob {
    ExplainContext context;  // the caller; `image` is found by the child
    std::string root;        // of the share
    std::vector<Question> questions;
    bool explain = false;
};

// One object a question, in their order: "asked", "op", "path", "remark", "verdict" (allowed,
// denied, error), "code" (the verdict's name), "number", "navigation_only", and with `explain`
// "explanation" and "text" (lines). Anything that keeps the child from answering is a CommandError.
nlohmann::ordered_json ask_in_child(const VerdictJob& job);

}  // namespace kvadmin
