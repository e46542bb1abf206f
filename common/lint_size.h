// The grammar of the size file: one object of known keys, and the counts in it against those of the
// data file.
#pragma once

#include "lint.h"
#include "lint_data.h"
#include "lint_walk.h"

namespace kvadmin {

// Fills the report's announced counts, identity, size_read and fixable.
void lint_size(ByteSource& source, Findings& findings, const DataResult& data, LintReport& report);

}  // namespace kvadmin
