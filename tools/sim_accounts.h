// The machine's accounts as callers of a script.
#pragma once

#include <string>

#include "sim_stage.h"

namespace kvadmin {

// An account with all groups that the machine knows; one that does not exist connects as nobody.
SimCaller caller_of_account(const std::string& name);

// "alice", or "uid 2001".
std::string user_words(uid_t uid);

}  // namespace kvadmin
