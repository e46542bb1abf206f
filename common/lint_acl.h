// The grammar of an element's "ACL": four objects in a fixed order, two of them with the trustees.
#pragma once

#include <cstddef>

#include "id_set.h"
#include "lint.h"
#include "lint_walk.h"

namespace kvadmin {

class AclLint {
public:
    AclLint(JsonWalk& walk, LintCounts& counts) : walk_(walk), counts_(counts) {}

    // Checks the array that begins with `open` and counts its entries.
    void check(const Token& open);

private:
    struct State;

    void object(const Token& open, std::size_t position, State& state);
    void member(std::size_t key, const Token& value, State& state);
    void trustees(bool groups, State& state);
    void trustee(bool groups, const Token& key);
    void check_announced(const State& state);

    JsonWalk& walk_;
    LintCounts& counts_;
    IdSet ids_;
};

}  // namespace kvadmin
