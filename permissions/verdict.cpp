// The verdict: may the caller perform this operation on this path. Fixed rules of the namespace
// come first (share root, wild cards, standing), then the rules of the tree the path is in; what is
// left goes to the decision table with the masks that the permission map gives the caller.
//
// Every way out but the two for unusable arguments and paths passes the common exit, which gives
// the map back, with root's identity, whether or not one was taken.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kavrin_utils.h"
#include "perm_enforcer.h"
#include "perm_map.h"
#include "permissions/effective_acl.h"
#include "permissions/enforcement.h"
#include "permissions/map_semaphore.h"
#include "utils/privileges.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

constexpr mode_t kDirectoryBit = 0x4000;
constexpr char kPrivatePrefix[] = "private/";
constexpr char kSharedPrefix[] = "shared/";

bool begins_with(const char* path, const char* prefix) {
    return _paths_match_len(path, prefix, static_cast<int>(std::strlen(prefix))) == 1;
}

}  // namespace

int stat_as_root(const char* path, struct stat& st) {
    int result = 0;
    int error = 0;
    {
        const RootIdentity root;
        result = stat(path, &st);
        error = errno;
    }
    errno = error;
    return result;
}

e_vfs_enforce_perms_t Enforcement::run() {
    const uid_t uid = geteuid();
    KV_TRACE(kEntry, "Enforcing permissions for op %d root %s path %s pid %d uid %d",
             static_cast<int>(op_), share_root_ != nullptr ? share_root_ : "NULL",
             in_path_ != nullptr ? in_path_ : "NULL", getpid(), static_cast<int>(uid));
    if (in_path_ == nullptr || op_ < FSOP_MIN || op_ >= FSOP_INVAL || is_nav_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Invalid argument path %s acl %d",
                 in_path_ != nullptr ? in_path_ : "NULL", static_cast<int>(op_));
        return KVPERMS_INVALID_ARGS;
    }
    *is_nav_ = 0;
    e_vfs_enforce_perms_t verdict = KVPERMS_HAS_PERMS;
    if (uid == 0) {
        KV_TRACE(kDecision, "Running as root, allow operation");
        rule("root may do everything");
    } else {
        real_path_.reset(normalize_path(in_path_));
        if (real_path_ == nullptr) return unusable_path();
        verdict = judge();
        root_.reset();
    }
    give_map_back();
    caller_.leave();
    KV_TRACE(kTrace, "ENFORCE_PERMS Returning verdict %d path=%s in_path=%s",
             static_cast<int>(verdict), real_path_ != nullptr ? real_path_.get() : "(null)",
             in_path_);
    return verdict;
}

e_vfs_enforce_perms_t Enforcement::unusable_path() const {
    const int error = errno;
    if (error == ENOMEM) {
        KV_TRACE(kAlways, "ENFORCE_PERMS path normalization failed %s: %s", in_path_,
                 std::strerror(error));
        return KVPERMS_MALLOC_ERR;
    }
    if (error != ENOENT) {
        KV_TRACE(kAlways, "ENFORCE_PERMS path normalization failed for %s: code=%d (%s)", in_path_,
                 error, std::strerror(error));
        KV_ASSERT(0);
    }
    KV_TRACE(kTrace, "returning HAS_PERMS, path normalization returned an unusable path %s: %s",
             in_path_, std::strerror(error));
    if (trail_ != nullptr) trail_->rule = "a path that climbs above its start is left to others";
    return KVPERMS_HAS_PERMS;
}

e_vfs_enforce_perms_t Enforcement::judge() {
    if (*real_path_ == 0) real_path_.reset(strdup("."));
    if (real_path_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS malloc real_path failed");
        return KVPERMS_SYSTEM_ERR;
    }
    real_root_.reset(normalize_path(share_root_));
    if (real_root_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS normalize(%s) failed for root: %s",
                 share_root_ != nullptr ? share_root_ : "NULL", std::strerror(errno));
        return KVPERMS_SYSTEM_ERR;
    }
    if (trail_ != nullptr) {
        trail_->real_path = real_path_.get();
        trail_->real_root = real_root_.get();
    }
    if (_paths_match(real_path_.get(), real_root_.get()) == 1) {
        KV_TRACE(kDecision, "ENFORCE_PERMS Kavrin path matches root (%s), return HAS_PERMS",
                 real_root_.get());
        rule("the share's root itself is open to everybody");
        return KVPERMS_HAS_PERMS;
    }
    if (!find_type()) return failure_;

    const std::string_view path = real_path_.get();
    if (op_ == FSOP_STAT || op_ == FSOP_LSTAT) {
        if (path == "*" || path.ends_with("/*")) {
            KV_TRACE(kDecision, "Allow for stat of * component: %s", real_path_.get());
            rule("a wild-card search is always allowed");
            return KVPERMS_HAS_PERMS;
        }
    } else if (op_ == FSOP_OPEN_READ && type_ == FSTYPE_FOLDER) {
        KV_TRACE(kDecision, "OPEN_READ on a folder, returning HAS_PERMS");
        rule("opening a folder for reading is always allowed");
        return KVPERMS_HAS_PERMS;
    }
    if (!caller_.is_given()) root_.reset();  // its identity is the process's
    const e_vfs_enforce_perms_t identified = caller_.identify();
    if (identified != KVPERMS_HAS_PERMS) return identified;
    return judge_identified();
}

// What kind of element the path leads to, from the disk unless the caller knows.
bool Enforcement::find_type() {
    char full_path[kFullPathSize];
    const int length =
        std::snprintf(full_path, sizeof full_path, "%s/%s", share_root_, real_path_.get());
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof full_path) {
        KV_TRACE(kAlways, "ENFORCE_PERMS path of %d bytes is too long: %.64s...", length,
                 full_path);
        return false;
    }
    if (trail_ != nullptr) trail_->full_path = full_path;
    if (type_ == 0) {
        struct stat st;
        root_.emplace();  // for the map as well: each switch costs as much as ten other calls
        if (stat(full_path, &st) == 0) {
            type_ = (st.st_mode & kDirectoryBit) != 0 ? FSTYPE_FOLDER : FSTYPE_FILE;
        } else if (errno == ENOENT || errno == ESRCH || errno == ENOTDIR) {
            KV_TRACE(kTrace, "stat(%s) returned %d, does not exist", full_path, errno);
            type_ = FSTYPE_DOES_NOT_EXIST;
        } else {
            KV_TRACE(kAlways, "ENFORCE_PERMS stat(%s) failed, code=%d (%s)", full_path, errno,
                     std::strerror(errno));
            return false;
        }
    }
    if (trail_ != nullptr) trail_->type = type_;
    return true;
}

e_vfs_enforce_perms_t Enforcement::judge_identified() {
    const bool admin = caller_.is_admin();
    const bool poweruser = caller_.is_poweruser();
    if (trail_ != nullptr) {
        const process_trustees_t& pts = caller_.trustees();
        trail_->euid = pts.euid;
        trail_->egid = pts.egid;
        trail_->gids.assign(pts.gids, pts.gids + pts.num_sup_gids);
        trail_->standing_known = true;
        trail_->admin = admin;
        trail_->poweruser = poweruser;
    }
    if (!admin && !poweruser) {
        KV_TRACE(kAlways, "ENFORCE_PERMS standard users always have no permission");
        rule("a standard user never has permission");
        return deny();
    }
    if (!find_parent()) return failure_;
    if (begins_with(real_path_.get(), kPrivatePrefix)) {
        root_.reset();
        return judge_private();
    }
    const bool has_acls = read_acls();
    root_.reset();
    if (!has_acls) return failure_;
    find_masks();
    if (begins_with(real_path_.get(), kSharedPrefix)) return judge_shared();
    return judge_top_level();
}

bool Enforcement::find_parent() {
    real_parent_.reset(parent_dir_from_path(real_path_.get()));
    if (real_parent_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS malloc failed getting parent of %s", real_path_.get());
        return false;
    }
    if (*real_parent_ == 0) real_parent_.reset(strdup("/"));
    if (real_parent_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS malloc real_parent failed");
        return false;
    }
    KV_TRACE(kTrace, "Real parent '%s' of real path '%s'", real_parent_.get(), real_path_.get());
    if (trail_ != nullptr) trail_->real_parent = real_parent_.get();
    return true;
}

// The ACLs of the path (folders only) and of its parent, out of the current map.
bool Enforcement::read_acls() {
    if (!root_.has_value()) root_.emplace();
    failure_ = KVPERMS_ACLBUF_ERR;
    map_ = get_perm_map_addr();
    if (map_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot access the permission map");
        return false;
    }
    const auto read = [this](const char* path, AclOwner& owner, AclTrail* trail) {
        kavrin_acl_t* acl = nullptr;
        const e_membe_shm_err ret = acl_for_path(map_, path, &acl, trail);
        owner.reset(acl);
        return ret == SHM_MEMBE_OK && acl != nullptr;
    };
    if (type_ == FSTYPE_FOLDER &&
        !read(real_path_.get(), acl_, trail_ != nullptr ? &trail_->self : nullptr)) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot read kavrin ACL");
        return false;
    }
    if (!read(real_parent_.get(), parent_acl_, trail_ != nullptr ? &trail_->parent : nullptr)) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot read parent kavrin ACL");
        return false;
    }
    _d_print_acl(acl_.get());
    _d_print_acl(parent_acl_.get());
    return true;
}

void Enforcement::find_masks() {
    const process_trustees_t& pts = caller_.trustees();
    if (type_ == FSTYPE_DOES_NOT_EXIST) {
        KV_TRACE(kTrace, "Setting permissions to RWD for non-existent path");
        path_mask_.mask = KAVRIN_PERM_MASK_RDWRDEL;
    }
    if (acl_ != nullptr) path_mask_ = mask_of_user(*acl_, pts, MaskOf::kPath);
    parent_mask_ = mask_of_user(*parent_acl_, pts, MaskOf::kParent);
    const CallerMask user_mask = path_mask_;
    const CallerMask parent_user_mask = parent_mask_;
    if (acl_ != nullptr) add_groups(*acl_, pts, MaskOf::kPath, path_mask_);
    add_groups(*parent_acl_, pts, MaskOf::kParent, parent_mask_);

    if (trail_ == nullptr) return;
    trail_->self.mask = path_mask_.mask;
    if (acl_ != nullptr) note_aces(*acl_, pts, user_mask, path_mask_, trail_->self);
    note_aces(*parent_acl_, pts, parent_user_mask, parent_mask_, trail_->parent);
}

e_vfs_enforce_perms_t Enforcement::decide(std::uint32_t path_mask, std::uint32_t parent_mask) {
    if (trail_ != nullptr) {
        trail_->table_asked = true;
        trail_->table_op = op_;
        trail_->table_path_mask = path_mask;
        trail_->table_parent_mask = parent_mask;
    }
    return enforce_kavrin_permissions(op_, type_, path_mask, parent_mask);
}

// Names that clients keep for themselves overturn a denial.
e_vfs_enforce_perms_t Enforcement::conclude(e_vfs_enforce_perms_t verdict) {
    if (verdict != KVPERMS_NO_PERM || is_special_folder_file(real_path_.get()) == 0) return verdict;
    KV_TRACE(kAlways, "ENFORCE_PERMS got NO PERM but path is a special path so overturn verdict");
    if (trail_ != nullptr) trail_->special_path = true;
    return KVPERMS_HAS_PERMS;
}

e_vfs_enforce_perms_t Enforcement::conclude_with_nav(e_vfs_enforce_perms_t verdict) {
    if (verdict == KVPERMS_HAS_PERMS) {
        *is_nav_ = path_mask_.mask == KAVRIN_PERM_MASK_NAVIGATE ||
                   path_mask_.mask == KAVRIN_PERM_MASK_VIEWER_ONLY;
    }
    return conclude(verdict);
}

void Enforcement::give_map_back() {
    if (is_perm_map_kept(map_)) {  // nothing to be root for
        put_perm_map_addr(map_);
        return;
    }
    const RootIdentity root;
    put_perm_map_addr(map_);
}

e_vfs_enforce_perms_t enforce_with_trail(const char* share_root, const char* in_path,
                                         e_fsop_type_t op, process_trustees_t* in_pts,
                                         int force_path_type, int* is_nav, VerdictTrail* trail) {
    return Enforcement(share_root, in_path, op, in_pts, force_path_type, is_nav, trail).run();
}

}  // namespace kavrin

extern "C" e_vfs_enforce_perms_t vfs_enforce_perms(const char* share_root, const char* in_path,
                                                   e_fsop_type_t op, process_trustees_t* in_pts,
                                                   int force_path_type, int* is_nav) {
    return kavrin::enforce_with_trail(share_root, in_path, op, in_pts, force_path_type, is_nav,
                                      nullptr);
}
