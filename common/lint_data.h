// The grammar of the data file: the top-level pair, the elements and their ACLs. Goes on after
// everything but broken JSON, so that one run tells all that is wrong.
#pragma once

#include "lint.h"
#include "lint_walk.h"

namespace kvadmin {

struct DataResult {
    LintCounts counts;
    bool complete = false;  // read to the end, so the counts are those of the whole file
};

DataResult lint_data(ByteSource& source, Findings& findings);

}  // namespace kvadmin
