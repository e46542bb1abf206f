// Reads an image back as a list of paths, straight from its records, and checks on the way that
// the counts it was sized by were exact: each region of elements, names and ACLs is full to the
// byte.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kvtest {

// "u1001:7" and "g2000:1": users before groups, each sorted by id.
using AclText = std::vector<std::string>;

struct ImageElement {
    std::uint32_t offset = 0;
    bool has_children = false;
    AclText own;
    AclText governing;
};

// By path, "/" and "/Shared/Docs".
std::map<std::string, ImageElement> read_elements(std::vector<std::uint8_t>& image);

}  // namespace kvtest
