// See rights_map.h.
#include "rights_map.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "kavrin_utils.h"
#include "operations.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Word {
    const char* text;
    Rights::Word bit;
    e_fsop_type_t of_folder;
    e_fsop_type_t of_other;
};

// What `check` asks for each word.
const std::array<Word, 4>& words() {
    static const std::array<Word, 4> table = [] {
        std::array<Word, 4> made = {{{"read", Rights::kRead, FSOP_INVAL, FSOP_INVAL},
                                     {"write", Rights::kWrite, FSOP_INVAL, FSOP_INVAL},
                                     {"delete", Rights::kDelete, FSOP_INVAL, FSOP_INVAL},
                                     {"list", Rights::kList, FSOP_INVAL, FSOP_INVAL}}};
        for (Word& word : made) {
            word.of_folder = question_for(word.text, "x", FSTYPE_FOLDER, 0).op;
            word.of_other = question_for(word.text, "x", FSTYPE_FILE, 0).op;
        }
        return made;
    }();
    return table;
}

std::string words_of(std::uint8_t bits, bool navigation_only) {
    std::string text;
    const auto add = [&text](const char* word) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    };
    constexpr std::uint8_t kLooking = Rights::kRead | Rights::kList;
    const bool navigates = navigation_only && (bits & kLooking) != 0;
    if (navigates) add("navigate");
    for (const Word& word : words()) {
        if ((bits & word.bit) != 0 && !(navigates && (word.bit & kLooking) != 0)) add(word.text);
    }
    return text;
}

}  // namespace

std::string rights_words(const Rights& rights) {
    std::string text = words_of(rights.may, rights.navigation_only);
    if (rights.owner_decides != 0)
        text +=
            (text.empty() ? "as owner: " : "; as owner: ") + words_of(rights.owner_decides, false);
    return text.empty() ? "nothing" : text;
}

nlohmann::ordered_json rights_as_json(const Rights& rights) {
    nlohmann::ordered_json document;
    for (const Word& word : words()) {
        if ((rights.owner_decides & word.bit) != 0) {
            document[word.text] = nullptr;
        } else {
            document[word.text] = (rights.may & word.bit) != 0;
        }
    }
    document["navigation_only"] = rights.navigation_only;
    return document;
}

ShareOnDisk::ShareOnDisk(const std::string& root) : root_(root) {
    if (root.empty()) return;
    struct stat st {};
    if (stat(root.c_str(), &st) != 0)
        fail(Exit::kFailure, "cannot look at the share {}: {}", root, std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) fail(Exit::kFailure, "the share {} is not a folder", root);
}

e_file_type_t ShareOnDisk::type(const std::string& path) const {
    struct stat st {};
    if (stat((root_ + "/" + path).c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? FSTYPE_FOLDER : FSTYPE_FILE;
    if (errno != ENOENT && errno != ENOTDIR)
        fail(Exit::kFailure, "cannot look at {}/{}: {}", root_, printable(path),
             std::strerror(errno));
    return FSTYPE_DOES_NOT_EXIST;
}

Ownership ShareOnDisk::ownership(const std::string& path, const Caller& caller) const {
    if (!known()) return Ownership::kUnknown;
    const std::size_t name = path.find('/') + 1;
    const std::string folder = path.substr(0, path.find('/', name));
    struct stat st {};
    if (stat((root_ + "/" + folder).c_str(), &st) != 0) {
        if (errno == ENOENT) return Ownership::kMissing;
        fail(Exit::kFailure, "cannot look at {}/{}: {}", root_, printable(folder),
             std::strerror(errno));
    }
    return st.st_uid == caller.uid ? Ownership::kCallers : Ownership::kSomebodyElses;
}

RightsMap::RightsMap(const PermTree& tree, const Caller& caller, const ShareOnDisk& disk)
    : tree_(tree), caller_(caller), disk_(disk), masks_(tree, caller) {
    nodes_.reserve(tree.size());
    for (PermTree::Id id = 0; id < tree.size(); ++id) nodes_.push_back(node_of(id));
}

std::string RightsMap::share_path(PermTree::Id id) const {
    return id == PermTree::kRoot ? "." : tree_.path(id).substr(1);
}

RightsMap::Node RightsMap::node_of(PermTree::Id id) const {
    if (id == PermTree::kRoot) return {};
    const Node& above = nodes_[tree_.parent(id)];
    Node node{zone_of_child(above.zone, tree_.name(id)), above.special, above.ownership};
    if (!node.special) {
        // The names that clients keep are two components long at most; deeper, only what a
        // component holds counts.
        constexpr std::uint32_t kLongest = 2;
        const std::string path =
            tree_.depth(id) <= kLongest ? share_path(id) : "-/" + std::string(tree_.name(id));
        node.special = is_special_folder_file(path.c_str()) != 0;
    }
    if (node.zone == Zone::kInPrivate) node.ownership = disk_.ownership(share_path(id), caller_);
    return node;
}

e_file_type_t RightsMap::type(PermTree::Id id) const {
    constexpr std::uint32_t kFoldersOnly = 2;  // the top level, Shared and Private hold no files
    if (disk_.known()) {
        const e_file_type_t found = disk_.type(share_path(id));
        if (found != FSTYPE_DOES_NOT_EXIST) return found;
    }
    return !tree_.childless(id) || tree_.depth(id) <= kFoldersOnly ? FSTYPE_FOLDER : FSTYPE_FILE;
}

Situation RightsMap::situation(PermTree::Id id) const {
    const Node& node = nodes_[id];
    const PermTree::Id parent = id == PermTree::kRoot ? id : tree_.parent(id);
    return {node.zone,     type(id),          node.special,  tree_.name(id) == "*",
            masks_.at(id), masks_.at(parent), node.ownership};
}

Situation RightsMap::inside(PermTree::Id folder, e_file_type_t type) const {
    const Node& node = nodes_[folder];
    const Zone zone = zone_of_child(node.zone, "new");
    Ownership ownership = node.ownership;
    if (zone == Zone::kInPrivate) ownership = Ownership::kMissing;
    return {zone, type, node.special, false, masks_.below(folder), masks_.at(folder), ownership};
}

// A folder is written to by creating a file in it, which is a question about that file.
Rights RightsMap::rights(const Situation& at, const Situation* inside) const {
    Rights rights;
    for (const Word& word : words()) {
        const e_fsop_type_t op = at.type == FSTYPE_FOLDER ? word.of_folder : word.of_other;
        const bool about_inside = op == FSOP_CREATE && inside != nullptr;
        const Ruling found = ruling(caller_, about_inside ? *inside : at, op);
        if (found.allowed()) rights.may |= word.bit;
        if (found.answer == Ruling::Answer::kOwnerDecides) rights.owner_decides |= word.bit;
        if (word.bit == Rights::kRead) rights.navigation_only = found.navigation_only;
    }
    return rights;
}

Rights RightsMap::at(PermTree::Id id) const {
    const Situation here = situation(id);
    if (here.type != FSTYPE_FOLDER) return rights(here, nullptr);
    const Situation within = inside(id, FSTYPE_DOES_NOT_EXIST);
    return rights(here, &within);
}

Rights RightsMap::files_in(PermTree::Id folder) const {
    return rights(inside(folder, FSTYPE_FILE), nullptr);
}

}  // namespace kvadmin
