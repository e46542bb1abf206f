// The switch to root and back: around the privileged look-ups of a verdict, and with credentials
// saved in a context for the hooks and for the files of events.
//
// Raw system calls change the calling thread only. The C library's wrappers would signal every
// thread of the process, which is slow in a server with helper threads and would change their
// identity in the middle of their work.
#include "utils/privileges.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;

constexpr uid_t kUnchanged = static_cast<uid_t>(-1);

// The saved effective ids, -1 while nothing is saved.
int save_uid = -1;
int save_gid = -1;

int set_uids(uid_t real, uid_t effective, uid_t saved) {
    return static_cast<int>(syscall(SYS_setresuid, real, effective, saved));
}
void set_effective_uid(int uid) {
    set_uids(kUnchanged, static_cast<uid_t>(uid), kUnchanged);
}
void set_effective_gid(int gid) {
    syscall(SYS_setresgid, -1, gid, -1);
}

}  // namespace

extern "C" void _change_id(int which) {
    if (which == 5) {
        KV_ASSERT(save_uid == -1 && save_gid == -1);
        save_uid = static_cast<int>(geteuid());
        save_gid = static_cast<int>(getegid());
        set_effective_uid(0);
        set_effective_gid(0);
        return;
    }
    KV_ASSERT(save_uid != -1 && save_gid != -1);
    // The uid goes first, so a process that is not root afterwards may be refused its gid; results
    // are not looked at. Callers count on the ids exactly as these steps leave them.
    set_effective_uid(save_uid);
    set_effective_gid(save_gid);
    save_uid = -1;
    save_gid = -1;
}

extern "C" int kavrin_become_root(kv_perm_ctx_t** perm_ctx) {
    if (*perm_ctx == nullptr) *perm_ctx = kavrin::allocate_zeroed<kv_perm_ctx_t>().release();
    kv_perm_ctx_t* const context = *perm_ctx;
    if (context == nullptr) {
        KV_TRACE(kAlways, "Cannot allocate memory");
        return -1;
    }
    if (getresuid(&context->real_uid, &context->effective_uid, &context->saved_uid) != 0) {
        KV_TRACE(kAlways, "getresuid failed. Cannot change to root");
        return -1;
    }
    if (context->effective_uid == 0) return 0;
    if (getresgid(&context->real_gid, &context->effective_gid, &context->saved_gid) != 0) {
        KV_TRACE(kAlways, "getresgid failed. Cannot change to root");
        return -1;
    }
    if (set_uids(0, 0, kUnchanged) != 0) {
        KV_TRACE(kAlways, "setresuid failed. Cannot change to root");
        return -1;
    }
    return 0;
}

extern "C" int kavrin_unbecome_root(kv_perm_ctx_t* perm_ctx) {
    if (perm_ctx == nullptr) {
        KV_TRACE(kAlways, "No permission context");
        return -1;
    }
    // The gids were never changed.
    if (set_uids(perm_ctx->real_uid, perm_ctx->effective_uid, perm_ctx->saved_uid) != 0) {
        KV_TRACE(kAlways, "Could not switch uids");
        return -1;
    }
    return 0;
}

extern "C" kv_perm_ctx_t* kavrin_vfs_become_root(void) {
    auto context = kavrin::allocate_zeroed<kv_perm_ctx_t>();
    if (context == nullptr) {
        KV_TRACE(kAlways, "Could not allocate memory for permission context");
        return nullptr;
    }
    kv_perm_ctx_t* filled = context.get();
    if (kavrin_become_root(&filled) != 0) {
        KV_TRACE(kAlways, "Could not switch to root");
        return nullptr;
    }
    return context.release();
}

extern "C" int kavrin_vfs_unbecome_root(kv_perm_ctx_t* perm_ctx) {
    if (perm_ctx == nullptr) return -1;
    const kavrin::HeapOwner<kv_perm_ctx_t> context(perm_ctx);
    return kavrin_unbecome_root(perm_ctx);
}

extern "C" int raise_permissions(kv_perm_ctx_t** perm_ctx) {
    if (geteuid() == 0) return 1;
    *perm_ctx = kavrin_vfs_become_root();
    if (*perm_ctx != nullptr) return 1;
    errno = EACCES;
    return 0;
}
