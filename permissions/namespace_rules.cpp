// The rules of a share's trees: Shared, governed by ACLs; Private, governed by ownership; and the
// top level, which holds nothing else.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kavrin_utils.h"
#include "permissions/enforcement.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

constexpr std::size_t kPrivatePrefixLength = sizeof "private/" - 1;

}  // namespace

e_vfs_enforce_perms_t Enforcement::judge_shared() {
    const bool top_level_folder = _paths_match(real_parent_.get(), "shared") == 1;
    if (top_level_folder && (type_ == FSTYPE_FILE || op_ == FSOP_CREATE)) {
        KV_TRACE(kDecision, "ENFORCE_PERMS Deny, no files allowed in Shared, type: %d, op: %d",
                 static_cast<int>(type_), static_cast<int>(op_));
        rule("Shared itself holds folders only: no files in it");
        return deny();
    }
    if (caller_.is_admin()) {
        rule("an administrator has RDWRDEL everywhere below Shared");
        return conclude(decide(KAVRIN_PERM_MASK_RDWRDEL, KAVRIN_PERM_MASK_RDWRDEL));
    }
    if (top_level_folder) {
        rule("for a folder directly in Shared, the parent counts as NAVIGATE");
        return conclude_with_nav(decide(path_mask_.mask, KAVRIN_PERM_MASK_NAVIGATE));
    }
    rule("below Shared the caller's own masks decide");
    return conclude_with_nav(decide(path_mask_.mask, parent_mask_.mask));
}

// Paths in neither tree: Shared and Private themselves, and what must not be.
e_vfs_enforce_perms_t Enforcement::judge_top_level() {
    KV_TRACE(kTrace, "path is neither in /Shared nor /Private");
    const char* path = real_path_.get();
    if (_paths_match(real_parent_.get(), "") != 1 && _paths_match(real_parent_.get(), "/") != 1) {
        KV_TRACE(kDecision, "Invalid Kavrin path '%s'", path);
        rule("the share holds nothing but Shared and Private");
        return deny();
    }
    if (op_ == FSOP_CREATE || type_ == FSTYPE_FILE) {
        KV_TRACE(kDecision, "Deny due to file or file operation in Kavrin root, type: %d, op: %d",
                 static_cast<int>(type_), static_cast<int>(op_));
        rule("the share's top level holds no files");
        return deny();
    }
    const auto read_only = [this] {
        return conclude_with_nav(decide(KAVRIN_PERM_MASK_RDONLY, KAVRIN_PERM_MASK_RDONLY));
    };
    if (_paths_match(path, "private") == 1) {
        if (!caller_.is_admin() && !caller_.is_poweruser()) {
            KV_TRACE(kDecision,
                     "ENFORCE_PERMS non-(admin|power user) has no permission for /Private");
            return deny();
        }
        KV_TRACE(kDecision, "admin and power users have R/R permission for /Private");
        rule("administrators and power users have RDONLY on Private");
        return read_only();
    }
    if (_paths_match(path, "shared") == 1) {
        KV_TRACE(kDecision, "everyone has R/R permission for /Shared");
        rule("everyone has RDONLY on Shared");
        return read_only();
    }
    if (_paths_match(path, ".") == 1) {
        KV_TRACE(kDecision, "everyone has R/R permission for '.'");
        rule("everyone has RDONLY on the top level");
        return read_only();
    }
    KV_TRACE(kDecision, "Invalid Kavrin path '%s' under root", path);
    rule("the share holds nothing but Shared and Private");
    return deny();
}

// Private/<name> and below: ownership decides, no ACL is looked at.
e_vfs_enforce_perms_t Enforcement::judge_private() {
    const bool own_folder = _paths_match(real_parent_.get(), "private") == 1;
    if (own_folder) {
        KV_TRACE(kTrace, "ENFORCE_PERMS disallow file operations in Private");
        if (type_ == FSTYPE_FILE || op_ == FSOP_CREATE) {
            rule("Private itself holds folders only: no files in it");
            return deny();
        }
        if (caller_.is_admin()) {
            KV_TRACE(kDecision, "admin, enforce for R/R");
            rule("an administrator has RDONLY on the folders in Private");
            return conclude(decide(KAVRIN_PERM_MASK_RDONLY, KAVRIN_PERM_MASK_RDONLY));
        }
    }
    const std::string_view path = real_path_.get();
    const std::size_t end = std::min(path.find('/', kPrivatePrefixLength), path.size());
    // The full path was found to fit; this is its beginning, cut behind the user's component.
    char folder[kFullPathSize];
    std::snprintf(folder, std::strlen(share_root_) + 1 + end + 1, "%s/%s", share_root_,
                  real_path_.get());
    KV_TRACE(kTrace, "Built full private path: '%s'", folder);
    return judge_own_private(folder, own_folder, end == path.size());
}

e_vfs_enforce_perms_t Enforcement::judge_own_private(const char* folder, bool own_folder,
                                                     bool last_component) {
    struct stat st;
    if (stat_as_root(folder, st) != 0) {
        if (errno != ENOENT) {
            KV_TRACE(kAlways, "ENFORCE_PERMS stat(%s) failed: %s", folder, std::strerror(errno));
            return KVPERMS_SYSTEM_ERR;
        }
        KV_TRACE(kDecision, "Private subdir '%s' does not exist", folder);
        rule("that user's folder in Private does not exist");
        return deny();
    }
    if (caller_.is_admin()) {
        KV_TRACE(kDecision, "admin, enforce for RWD/RWD");
        rule("an administrator has RDWRDEL below the folders in Private");
        return conclude(decide(KAVRIN_PERM_MASK_RDWRDEL, KAVRIN_PERM_MASK_RDWRDEL));
    }
    const uid_t euid = caller_.trustees().euid;
    if (st.st_uid != euid) {
        KV_TRACE(kDecision, "ENFORCE_PERMS UID %d does not match %d for path %s in /Private",
                 static_cast<int>(euid), static_cast<int>(st.st_uid), real_path_.get());
        rule("a folder in Private is open to its owner and to administrators only");
        return deny();
    }
    if (own_folder) {
        KV_TRACE(kDecision, "parent is /Private, enforce for R/R");
        rule("a power user has RDONLY on his own folder in Private");
        return conclude(decide(KAVRIN_PERM_MASK_RDONLY, KAVRIN_PERM_MASK_RDONLY));
    }
    const bool modifies = op_ == FSOP_UNLINK || op_ == FSOP_RENAME_SRC || op_ == FSOP_RENAME_DEST ||
                          op_ == FSOP_MKDIR || op_ == FSOP_RMDIR;
    if (last_component && modifies) {
        KV_TRACE(kDecision, "ENFORCE_PERMS deny for modify op on Private/subdir");
        rule("a folder in Private is neither made, renamed nor removed");
        return deny();
    }
    KV_TRACE(kDecision, "allow for user's own Private subdir");
    rule("a power user may do everything below his own folder in Private");
    return KVPERMS_HAS_PERMS;
}

}  // namespace kavrin
