// See sibling_names.h.
#include "sibling_names.h"

#include <algorithm>
#include <tuple>

#include "asking_samba.h"
#include "kavrin_utils.h"
#include "perm_utils.h"

namespace kvadmin {
namespace {

constexpr int kBothExtended = 2;

bool same_to_samba(const std::string& a, const std::string& b) {
    const AskingSamba asking;
    return strncasecmp_m_wrapper(a.c_str(), b.c_str(), a.size()) == 0;
}

// For names of the same hash and length, as the lookup compares them.
bool same_name(std::string_view a, std::string_view b) {
    if (a == b) return true;
    const int compared = kavrin_strncasecmp(a.data(), b.data(), static_cast<int>(a.size()));
    return compared == 0 ||
           (compared == kBothExtended && same_to_samba(std::string(a), std::string(b)));
}

}  // namespace

bool SiblingIndex::before(const Key& a, const Key& b) {
    return std::tie(a.hash, a.length) < std::tie(b.hash, b.length);
}

SiblingIndex::SiblingIndex(const PermTree& tree, PermTree::Id folder) : tree_(tree) {
    keys_.reserve(tree.children(folder).size());
    for (const PermTree::Id child : tree.children(folder)) {
        const std::string_view name = tree.name(child);
        if (!can_be_in_a_path(name)) continue;
        const auto length = static_cast<std::uint32_t>(name.size());
        keys_.push_back({permbe_fname_hash(name.data(), length), length, child});
    }
    std::stable_sort(keys_.begin(), keys_.end(), before);
}

PermTree::Id SiblingIndex::find(std::string_view name) const {
    if (!can_be_in_a_path(name)) return PermTree::kNone;
    const auto length = static_cast<std::uint32_t>(name.size());
    const Key wanted{permbe_fname_hash(name.data(), length), length, 0};
    const auto [first, end] = std::equal_range(keys_.begin(), keys_.end(), wanted, before);
    const auto found = std::find_if(
        first, end, [&](const Key& key) { return same_name(tree_.name(key.child), name); });
    return found == end ? PermTree::kNone : found->child;
}

bool can_be_in_a_path(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

std::vector<PermTree::Id> first_siblings(const PermTree& tree) {
    std::vector<PermTree::Id> first(tree.size(), PermTree::kNone);
    first[PermTree::kRoot] = PermTree::kRoot;
    for (PermTree::Id folder = 0; folder < tree.size(); ++folder) {
        if (tree.children(folder).empty()) continue;
        const SiblingIndex index(tree, folder);
        for (std::size_t i = 0; i < index.keys_.size(); ++i) {
            const SiblingIndex::Key& key = index.keys_[i];
            PermTree::Id found = key.child;
            // Earlier keys of the same hash and length; the nearest that fits leads to the first.
            for (std::size_t k = i; k-- > 0 && !SiblingIndex::before(index.keys_[k], key);) {
                if (!same_name(tree.name(index.keys_[k].child), tree.name(key.child))) continue;
                found = first[index.keys_[k].child];
                break;
            }
            first[key.child] = found;
        }
    }
    return first;
}

}  // namespace kvadmin
