// See caller.h. Standing is membership of the supplementary groups only; the primary group does not
// count for it.
#include "permissions/caller.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "perm_enforcer.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

std::uint32_t kavrin_admins_gid = 0;
std::uint32_t kavrin_powerusers_gid = 0;

}  // namespace

extern "C" void vfs_set_admins_powerusers(gid_t admin_gid, gid_t power_gid) {
    kavrin_admins_gid = admin_gid;
    kavrin_powerusers_gid = power_gid;
    KV_TRACE(kavrin::kTrace, "\n%s: kavrin_admins_gid=%u kavrin_powerusers_gid=%u", __func__,
             kavrin_admins_gid, kavrin_powerusers_gid);
}

namespace kavrin {

Caller::~Caller() {
    if (given_ != nullptr || trustees_ == nullptr) return;
    std::free(trustees_->gids);
    std::free(trustees_);
}

e_vfs_enforce_perms_t Caller::take_given() {
    given_->is_global_map_in_use = 1;
    if (given_->num_sup_gids < 0 || (given_->num_sup_gids > 0 && given_->gids == nullptr)) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Invalid argument pts->num_sup_gids %d pts->gids %p",
                 given_->num_sup_gids, static_cast<void*>(given_->gids));
        return KVPERMS_INVALID_ARGS;
    }
    KV_TRACE(kDecision, "Number of supplementary gids = %d", given_->num_sup_gids);
    KV_TRACE(kDecision, "GIDs: ");
    for (std::int32_t i = 0; i < given_->num_sup_gids; ++i)
        KV_TRACE(kDecision, "%d ", static_cast<int>(given_->gids[i]));
    trustees_ = given_;
    return KVPERMS_HAS_PERMS;
}

e_vfs_enforce_perms_t Caller::take_own() {
    trustees_ = allocate_zeroed<process_trustees_t>().release();
    if (trustees_ == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS malloc of trustee struct %s failed", std::strerror(errno));
        return KVPERMS_MALLOC_ERR;
    }
    trustees_->euid = geteuid();
    trustees_->egid = getegid();
    trustees_->num_sup_gids = getgroups(0, nullptr);
    if (trustees_->num_sup_gids == -1) {
        KV_TRACE(kAlways, "ENFORCE_PERMS getgroups call failed");
        return KVPERMS_SYSTEM_ERR;
    }
    if (trustees_->num_sup_gids == 0) return KVPERMS_HAS_PERMS;
    trustees_->gids = static_cast<gid_t*>(
        std::calloc(static_cast<std::size_t>(trustees_->num_sup_gids), sizeof(gid_t)));
    if (trustees_->gids == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot allocate memory for gids: %s",
                 std::strerror(errno));
        return KVPERMS_MALLOC_ERR;
    }
    if (getgroups(trustees_->num_sup_gids, trustees_->gids) == -1) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot get user's group list%s", std::strerror(errno));
        return KVPERMS_SYSTEM_ERR;
    }
    return KVPERMS_HAS_PERMS;
}

e_vfs_enforce_perms_t Caller::identify() {
    const e_vfs_enforce_perms_t taken = given_ != nullptr ? take_given() : take_own();
    if (taken != KVPERMS_HAS_PERMS) return taken;
    process_trustees_t& pts = *trustees_;
    if (_set_group_bit(&pts.num_sup_gids, pts.gids, kavrin_admins_gid, &pts.admin) == -1 ||
        _set_group_bit(&pts.num_sup_gids, pts.gids, kavrin_powerusers_gid, &pts.poweruser) == -1)
        return KVPERMS_SYSTEM_ERR;
    KV_TRACE(kTrace, "%s: admin=%d power_user=%d", "vfs_enforce_perms", pts.admin, pts.poweruser);
    return KVPERMS_HAS_PERMS;
}

bool Caller::is_admin() const {
    return _is_admin(trustees_) != 0;
}
bool Caller::is_poweruser() const {
    return _is_poweruser(trustees_) != 0;
}

}  // namespace kavrin
