// After a denial: what is missing, and the smallest change that would have allowed the operation,
// as sentences a person can act on. A change of groups is tried out on the enforcement itself, and
// a grant on the decision table, so no sentence promises what would not happen.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "explain.h"

namespace kvadmin {

// The same question asked again by the same user, in these supplementary groups.
using AskInGroups = std::function<Answer(const Question&, const std::vector<gid_t>&)>;

// Empty for anything but a denial.
std::vector<std::string> nearest_grant(const Answer& answer, const ExplainContext& context,
                                       const AskInGroups& ask);

}  // namespace kvadmin
