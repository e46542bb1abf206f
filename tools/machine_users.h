// Every account that this machine can name, with its groups.
#pragma once

#include <vector>

#include "identity.h"

namespace kvadmin {

// The listed accounts, the members of these groups, and these uids' accounts where there are any:
// a directory may know accounts that it does not list. By uid, then by name.
std::vector<Identity> machine_users(const std::vector<gid_t>& groups,
                                    const std::vector<uid_t>& uids);

}  // namespace kvadmin
