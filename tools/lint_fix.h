// A size file that says what the check counted.
#pragma once

#include "lint.h"

namespace kvadmin {

// Replaces the size file by one with the true counts and its other values, in one step: whoever
// reads the path finds the old file or the new one. Needs report.fixable. Fails by CommandError.
void write_fixed_size_file(const LintReport& report);

}  // namespace kvadmin
