// One verdict on its way: what it was asked, what it found out, and the steps. The steps that every
// path takes are in verdict.cpp, the rules of the trees of a share in namespace_rules.cpp.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <optional>

#include "perm_enforcer.h"
#include "permissions/caller.h"
#include "permissions/masks.h"
#include "permissions/verdict_trail.h"
#include "utils/owners.h"
#include "utils/privileges.h"

namespace kavrin {

// Longest full path and its terminator.
inline constexpr std::size_t kFullPathSize = 4096;

struct AclRelease {
    void operator()(kavrin_acl_t* acl) const {
        free_ACL(acl);
        std::free(acl);
    }
};
using AclOwner = std::unique_ptr<kavrin_acl_t, AclRelease>;

// stat() as root: the share's folders are closed to everybody else. errno is stat's.
int stat_as_root(const char* path, struct stat& st);

class Enforcement {
public:
    Enforcement(const char* share_root, const char* in_path, e_fsop_type_t op,
                process_trustees_t* in_pts, int force_path_type, int* is_nav, VerdictTrail* trail)
        : share_root_(share_root),
          in_path_(in_path),
          op_(op),
          type_(static_cast<e_file_type_t>(force_path_type)),
          is_nav_(is_nav),
          caller_(in_pts),
          trail_(trail) {}

    e_vfs_enforce_perms_t run();

private:
    // The steps, in their order; each answers with a verdict.
    e_vfs_enforce_perms_t unusable_path() const;
    e_vfs_enforce_perms_t judge();
    e_vfs_enforce_perms_t judge_identified();
    e_vfs_enforce_perms_t judge_private();
    e_vfs_enforce_perms_t judge_own_private(const char* folder, bool own_folder,
                                            bool last_component);
    e_vfs_enforce_perms_t judge_shared();
    e_vfs_enforce_perms_t judge_top_level();

    // What they need. Each false leaves `failure_` as the verdict.
    bool find_type();
    bool find_parent();
    bool read_acls();
    void find_masks();

    // How they end.
    e_vfs_enforce_perms_t decide(std::uint32_t path_mask, std::uint32_t parent_mask);
    e_vfs_enforce_perms_t conclude(e_vfs_enforce_perms_t verdict);
    e_vfs_enforce_perms_t conclude_with_nav(e_vfs_enforce_perms_t verdict);
    e_vfs_enforce_perms_t deny() { return conclude(KVPERMS_NO_PERM); }
    void give_map_back();

    void rule(const char* sentence) {
        if (trail_ != nullptr) trail_->rule = sentence;
    }

    const char* share_root_;
    const char* in_path_;
    e_fsop_type_t op_;
    e_file_type_t type_;
    int* is_nav_;
    Caller caller_;
    VerdictTrail* trail_;
    std::optional<RootIdentity> root_;  // while the process is root for the disk and the map

    HeapString real_path_;
    HeapString real_root_;
    HeapString real_parent_;
    void* map_ = nullptr;
    AclOwner acl_;
    AclOwner parent_acl_;
    CallerMask path_mask_;
    CallerMask parent_mask_;
    e_vfs_enforce_perms_t failure_ = KVPERMS_SYSTEM_ERR;
};

}  // namespace kavrin
