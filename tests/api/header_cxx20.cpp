// The umbrella header is C++20, warning-free, and everything in it has C linkage.
#include <type_traits>

#include "kavrin.h"

// A second declaration with C linkage is an error where the first had C++ linkage.
extern "C" {
decltype(vfs_enforce_perms) vfs_enforce_perms;
decltype(read_kavrin_config) read_kavrin_config;
decltype(normalize_path) normalize_path;
decltype(log_perm_error) log_perm_error;
}

static_assert(std::is_trivially_copyable_v<kavrin_be_header_t>);
static_assert(std::is_trivially_copyable_v<process_trustees_t>);
static_assert(sizeof(kavrin_be_header_t) == 176 && sizeof(beace_t) == 12);
