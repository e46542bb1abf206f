// The library's first call, for everybody who reads the configuration table and does not own it.
#pragma once

namespace kvadmin {

// Makes the library usable: a copy of the shared configuration table when there is one, else a
// private table with every value zero. Never creates a System V object. `debug_level` replaces the
// table's level, so that a command traces only when it is told to.
void use_library(int debug_level = -1);

}  // namespace kvadmin
