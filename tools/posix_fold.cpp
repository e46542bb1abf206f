// See posix_fold.h.
#include "posix_fold.h"

#include <acl/libacl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>

#include "kavrin_perms.h"

namespace kvadmin {
namespace {

constexpr std::uint32_t kNone = KAVRIN_PERM_MASK_NOPERM;
constexpr std::uint32_t kRead = KAVRIN_PERM_MASK_RDONLY;
constexpr std::uint32_t kWrite = KAVRIN_PERM_MASK_RDWR;
constexpr std::uint32_t kDelete = KAVRIN_PERM_MASK_RDWRDEL;
constexpr std::uint32_t kNavigate = KAVRIN_PERM_MASK_NAVIGATE;

// By triple. A folder's mask decides about the files in it, so reading takes both r (their names)
// and x (reaching them); either one alone shows the way and no contents. Writing creates and
// removes entries and takes all three.
//                                                     ---    --x        -w-    -wx
constexpr std::array<std::uint32_t, 8> kFolderMasks = {kNone, kNavigate, kNone, kNavigate,
                                                       // r--      r-x    rw-        rwx
                                                       kNavigate, kRead, kNavigate, kDelete};
// A file holds no entries, so nothing in it navigates or deletes.
constexpr std::array<std::uint32_t, 8> kFileMasks = {kNone, kNone, kNone,  kNone,
                                                     kRead, kRead, kWrite, kWrite};

// Adds a mask to a trustee's entry. Reading includes finding the way, so a trustee who got both
// from two entries keeps the reading alone: the navigating bit would be lost on inheritance.
void merge(std::vector<FoldedAce>& aces, std::uint32_t id, std::uint32_t mask) {
    auto ace = std::find_if(aces.begin(), aces.end(), [id](const auto& a) { return a.id == id; });
    if (ace == aces.end()) {
        aces.push_back({id, mask});
        return;
    }
    ace->mask |= mask;
    if ((ace->mask & kRead) != 0) ace->mask &= ~kNavigate;
}

void sort_by_id(std::vector<FoldedAce>& aces) {
    std::sort(aces.begin(), aces.end(),
              [](const FoldedAce& a, const FoldedAce& b) { return a.id < b.id; });
}

// The id of a named entry; false when libacl cannot give it.
bool qualifier(acl_entry_t entry, std::uint32_t& id) {
    void* value = acl_get_qualifier(entry);
    if (value == nullptr) return false;
    id = *static_cast<const std::uint32_t*>(value);
    acl_free(value);
    return true;
}

bool add_entry(acl_entry_t entry, PosixEntries& entries) {
    static_assert(sizeof(uid_t) == sizeof(std::uint32_t) && sizeof(gid_t) == sizeof(uid_t));
    acl_tag_t tag = ACL_UNDEFINED_TAG;
    acl_permset_t permissions = nullptr;
    if (acl_get_tag_type(entry, &tag) != 0 || acl_get_permset(entry, &permissions) != 0)
        return false;
    const unsigned bits = (acl_get_perm(permissions, ACL_READ) == 1 ? 4u : 0u) |
                          (acl_get_perm(permissions, ACL_WRITE) == 1 ? 2u : 0u) |
                          (acl_get_perm(permissions, ACL_EXECUTE) == 1 ? 1u : 0u);
    std::uint32_t id = 0;
    switch (tag) {
        case ACL_USER_OBJ:
            entries.owner_bits = bits;
            return true;
        case ACL_GROUP_OBJ:
            entries.group_bits = bits;
            return true;
        case ACL_MASK:
            entries.limit = bits;
            return true;
        case ACL_USER:
            if (!qualifier(entry, id)) return false;
            entries.users.push_back({id, bits});
            return true;
        case ACL_GROUP:
            if (!qualifier(entry, id)) return false;
            entries.groups.push_back({id, bits});
            return true;
        default:  // others: no trustee of a map stands for them
            return true;
    }
}

}  // namespace

std::uint32_t fold_bits(ElementKind kind, unsigned bits, bool may_delete) {
    if (kind == ElementKind::kFile) return kFileMasks[bits & 7];
    const std::uint32_t mask = kFolderMasks[bits & 7];
    return mask == kDelete && !may_delete ? kWrite : mask;
}

bool FoldedAcl::navigates() const {
    const auto has_bit = [](const FoldedAce& ace) { return (ace.mask & kNavigate) != 0; };
    return std::any_of(users.begin(), users.end(), has_bit) ||
           std::any_of(groups.begin(), groups.end(), has_bit);
}

PosixEntries entries_of_mode(const FileStatus& status) {
    PosixEntries entries;
    entries.owner = status.owner;
    entries.group = status.group;
    entries.owner_bits = (status.mode >> 6) & 7;
    entries.group_bits = (status.mode >> 3) & 7;
    entries.sticky = (status.mode & S_ISVTX) != 0;
    return entries;
}

bool entries_of_acl(const FileStatus& status, acl_t acl, PosixEntries& entries) {
    entries = entries_of_mode(status);
    entries.group_bits = 0;  // the mode holds the mask entry there; the ACL knows the group
    acl_entry_t entry = nullptr;
    int more = acl_get_entry(acl, ACL_FIRST_ENTRY, &entry);
    while (more == 1) {
        if (!add_entry(entry, entries)) return false;
        more = acl_get_entry(acl, ACL_NEXT_ENTRY, &entry);
    }
    return more == 0;
}

FoldedAcl fold(ElementKind kind, const PosixEntries& entries) {
    const bool may_delete = !entries.sticky;
    FoldedAcl acl;
    acl.users.reserve(1 + entries.users.size());
    acl.groups.reserve(1 + entries.groups.size());
    acl.users.push_back({entries.owner, fold_bits(kind, entries.owner_bits, true)});
    for (const NamedEntry& user : entries.users) {
        // POSIX asks the owner's entry first and looks no further.
        if (user.id == entries.owner) continue;
        merge(acl.users, user.id, fold_bits(kind, user.bits & entries.limit, may_delete));
    }
    merge(acl.groups, entries.group,
          fold_bits(kind, entries.group_bits & entries.limit, may_delete));
    for (const NamedEntry& group : entries.groups)
        merge(acl.groups, group.id, fold_bits(kind, group.bits & entries.limit, may_delete));
    sort_by_id(acl.users);
    sort_by_id(acl.groups);
    return acl;
}

}  // namespace kvadmin
