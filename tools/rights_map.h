// What one user may do at every path of a map: read, write, delete and list, in the meaning that
// `check` gives these words. `access` and `map tree --as` show it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "caller_masks.h"
#include "rights_law.h"

namespace kvadmin {

// The four words of one path.
struct Rights {
    enum Word : std::uint8_t { kRead = 1, kWrite = 2, kDelete = 4, kList = 8 };
    std::uint8_t may = 0;
    std::uint8_t owner_decides = 0;  // of the others: those that depend on whose the folder is
    bool navigation_only = false;    // read and list, but for navigation or viewing only
    bool operator==(const Rights&) const = default;
};

// "read, write, list", "navigate, delete", "nothing", "as owner: read, list".
std::string rights_words(const Rights& rights);
nlohmann::ordered_json rights_as_json(const Rights& rights);

// The share's folder on this machine, when it is known: what is a file there, and whose the
// folders in Private are.
class ShareOnDisk {
public:
    ShareOnDisk() = default;  // not known
    explicit ShareOnDisk(const std::string& root);

    bool known() const { return !root_.empty(); }
    const std::string& root() const { return root_; }
    // Paths are relative to the share. What is not there is FSTYPE_DOES_NOT_EXIST.
    e_file_type_t type(const std::string& path) const;
    // Of a path in the zones of Private: whose its folder in Private is.
    Ownership ownership(const std::string& path, const Caller& caller) const;

private:
    std::string root_;
};

class RightsMap {
public:
    // All three must outlive this object.
    RightsMap(const PermTree& tree, const Caller& caller, const ShareOnDisk& disk);

    Rights at(PermTree::Id id) const;
    // Of files in the folder, wherever the map has none.
    Rights files_in(PermTree::Id folder) const;
    bool on_a_path(PermTree::Id id) const { return masks_.on_a_path(id); }
    // What the disk says; without it, what has children and what lies at the top is a folder.
    e_file_type_t type(PermTree::Id id) const;

    // The situation of an element's path; and of a thing in the folder that has a name of its own
    // and no element.
    Situation situation(PermTree::Id id) const;
    Situation inside(PermTree::Id folder, e_file_type_t type) const;

private:
    struct Node {
        Zone zone = Zone::kRoot;
        bool special = false;
        Ownership ownership = Ownership::kUnknown;
    };

    Node node_of(PermTree::Id id) const;
    std::string share_path(PermTree::Id id) const;
    Rights rights(const Situation& at, const Situation* inside) const;

    const PermTree& tree_;
    const Caller& caller_;
    const ShareOnDisk& disk_;
    CallerMasks masks_;
    std::vector<Node> nodes_;
};

}  // namespace kvadmin
