// Where the contents of a group map come from: the machine's accounts, or a JSON file.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "groupmap_file.h"

namespace kvadmin {

struct AccountChoice {
    std::vector<std::string> users;     // these accounts; all that can be listed when empty
    uid_t min_uid = 0;                  // of the listed ones, those from this uid on
    std::vector<std::string> reserved;  // names of the reserved groups
};

// The accounts with the groups that this machine knows for them. What is left out is told in
// `remarks`. Fails when an account that was asked for is not there, when no account is left, and
// when a reserved group has an id that the reader would not see.
GroupMapContent groupmap_of_accounts(const AccountChoice& choice,
                                     std::vector<std::string>& remarks);

// The JSON file's own words; docs/kavrinctl.md shows the form. Fails with the place of the first
// thing that is wrong.
GroupMapContent groupmap_of_json(const std::string& path);

}  // namespace kvadmin
