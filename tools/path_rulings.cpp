// See path_rulings.h.
#include "path_rulings.h"

#include <algorithm>

#include "kavrin_utils.h"

namespace kvadmin {

PathRulings::PathRulings(const MapSource& source, const ImageReader& image, const ShareOnDisk& disk,
                         const Question& question)
    : disk_(disk), question_(question) {
    path_ = find_path(source, image, question.path).path;
    zone_ = zone_of(share_path());
    const std::size_t slash = path_.rfind('/');
    own_ = acl_for(source, image, path_);
    parent_ = acl_for(source, image, slash == 0 ? "/" : path_.substr(0, slash));
    for (const Acl* acl : asked()) {
        for (const PermTree::Entry& entry : acl->entries) {
            const bool known =
                std::any_of(trustees_.begin(), trustees_.end(), [&entry](const AclEntry& other) {
                    return other.is_group == entry.is_group && other.id == entry.id;
                });
            if (!known) trustees_.push_back({entry.is_group, entry.id, entry.mask, false});
        }
    }
}

PathRulings::Acl PathRulings::acl_for(const MapSource& source, const ImageReader& image,
                                      const std::string& path) {
    const FoundPath found = find_path(source, image, path);
    const ElementOffset governing = image.governing_element(found.element);
    Acl acl;
    for (const AclEntry& entry : own_entries(image, governing))
        acl.entries.push_back({entry.is_group, entry.id, entry.mask});
    const auto record = image.element(found.element);
    // An element without children and the root are never found as exact matches.
    acl.inherited = !found.mapped || governing != found.element || found.element == kRootElement ||
                    !record || (record->flags & FSELEM_FLAG_NOCHILDREN) != 0;
    acl.path = image.path_of(governing);
    return acl;
}

std::string PathRulings::share_path() const {
    return path_ == "/" ? "." : path_.substr(1);
}

// The ACLs that have a say in the zone.
std::vector<const PathRulings::Acl*> PathRulings::asked() const {
    std::vector<const Acl*> asked;
    const bool shared = zone_ == Zone::kInShared || zone_ == Zone::kBelowShared;
    if (shared && question_.force_type == FSTYPE_FOLDER) asked.push_back(&own_);
    if (zone_ == Zone::kBelowShared) asked.push_back(&parent_);
    return asked;
}

Ruling PathRulings::of(const Caller& caller) const {
    Situation at;
    at.zone = zone_;
    at.type = static_cast<e_file_type_t>(question_.force_type);
    const std::string path = share_path();
    at.special = is_special_folder_file(path.c_str()) != 0;
    at.wild_card = path == "*" || path.ends_with("/*");
    at.mask = mask_of(own_.entries, own_.inherited, caller);
    at.parent_mask = mask_of(parent_.entries, parent_.inherited, caller);
    if (in_private(zone_)) at.ownership = disk_.ownership(path, caller);
    return ruling(caller, at, question_.op);
}

std::vector<CountedEntry> PathRulings::counted(const Caller& caller) const {
    std::vector<CountedEntry> counted;
    if (!of(caller).by_masks) return counted;
    for (const Acl* acl : asked()) {
        const auto add = [&](const PermTree::Entry& entry) {
            const bool known =
                std::any_of(counted.begin(), counted.end(), [&](const CountedEntry& other) {
                    return other.entry.is_group == entry.is_group && other.entry.id == entry.id &&
                           other.path == acl->path;
                });
            if (!known)
                counted.push_back({{entry.is_group, entry.id, entry.mask, false}, acl->path});
        };
        Caller alone = caller;
        alone.groups.clear();
        alone.gid = 0xFFFFFFFF;
        const std::uint32_t own = mask_of(acl->entries, acl->inherited, alone);
        for (const PermTree::Entry& entry : acl->entries) {
            if (is_skipped(entry, acl->inherited)) continue;
            const bool mine = !entry.is_group && entry.id == caller.uid && own == entry.mask;
            const bool of_group =
                entry.is_group && groups_are_asked(own) &&
                (entry.id == caller.gid || std::find(caller.groups.begin(), caller.groups.end(),
                                                     entry.id) != caller.groups.end());
            if ((mine && own != 0) || of_group) add(entry);
        }
    }
    return counted;
}

}  // namespace kvadmin
