// Files of events on their way to another process: written under a temporary name, and given the
// pending name, which is what the reader looks for, only when they are complete.
#pragma once

#include <cstdint>

#include "utils/owners.h"

namespace kavrin {

// So many percent of a buffer's size; a product beyond 32 bits counts as all of it.
std::int32_t share_of(std::int32_t buffer_size, std::int32_t percent);

bool file_exists(const char* path);
bool is_folder(const char* path);

// The folder with a template for mkstemp(), which begins with "/", behind it; or null.
HeapString temporary_name(const char* folder, const char* name_template);

// Gives a complete temporary file its pending name, and never takes the place of another file: when
// the name is taken in the meantime a new one is made in `folder`, and left in `name`. False with
// errno.
bool rename_to_pending(const char* temporary, HeapString& name, const char* folder);

}  // namespace kavrin
