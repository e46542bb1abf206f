// What an image must be before readers are switched to it.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "build_child.h"
#include "lint.h"

namespace kvadmin {

using Image = std::span<const std::uint8_t>;

// Why an image is not one that may be published; empty when it is.
std::string what_is_wrong(Image image);

// Both fail by CommandError. A built image is held against the pair that was checked, too.
void compare_with_persisted(Image image);
void verify_built(Image image, const LintReport& pair, const ChildOutput& output);

}  // namespace kvadmin
