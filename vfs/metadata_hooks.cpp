// Status, change of folder, file-system statistics, times. A stat is also where the connection's
// credentials are refreshed: clients stat all the time, and nothing else is called as often.
#include <unistd.h>

#include <cerrno>

#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"
#include "vfs/hook_support.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kTrace;
using kavrin::may;
using kavrin::refuse;

constexpr int kWritten = 10;

// 0 when a full path could be made of a name that is there, else ENOMEM.
int check_name(const char* connectpath, const char* base_name) {
    const HeapString full_path(get_full_path(connectpath, base_name));
    return full_path == nullptr ? ENOMEM : 0;
}

// Takes root unless it is there already.
bool take_root(kv_perm_ctx_t** perm_ctx) {
    if (geteuid() == 0) return true;
    *perm_ctx = kavrin_vfs_become_root();
    return *perm_ctx != nullptr;
}

}  // namespace

extern "C" int stat_preprocess(kv_connection_private_data_t* private_data, char* base_name,
                               const char* connectpath, kv_perm_ctx_t** perm_ctx) {
    refresh_credentials(private_data);
    if (base_name == nullptr) {
        KV_TRACE(kAlways, "%s: base_name null", __func__);
        return refuse(ENOMEM);
    }
    if (check_perms(connectpath, base_name, FSOP_STAT, private_data, 0) != KVPERMS_HAS_PERMS) {
        KV_TRACE(kTrace, "%s: EPERM", __func__);
        return refuse(EPERM);
    }
    if (take_root(perm_ctx)) return 0;
    KV_TRACE(kAlways, "Could not switch to root for stat operation for nlpath=%s", base_name);
    return refuse(EPERM);
}

extern "C" int lstat_preprocess(const char* connectpath, char* base_name, kv_perm_ctx_t** perm_ctx,
                                kv_connection_private_data_t* private_data) {
    if (const int error = check_name(connectpath, base_name); error != 0) return refuse(error);
    if (!may(FSOP_LSTAT, connectpath, base_name, *private_data)) return refuse(EACCES);
    if (raise_permissions(perm_ctx) != 0) return 0;
    KV_TRACE(kAlways, "Could not switch to root for lstat operation, base_name=%s", base_name);
    return refuse(EACCES);
}

extern "C" int chdir_preprocess(char* path, const char* connectpath,
                                kv_connection_private_data_t* private_data,
                                kv_perm_ctx_t** perm_ctx) {
    if (path == nullptr) return refuse(ENOMEM);
    if (!may(FSOP_CHDIR, connectpath, path, *private_data)) return refuse(EACCES);
    KV_TRACE(kTrace, "Enabled chdir for '%s'", path);
    if (raise_permissions(perm_ctx) != 0) return 0;
    KV_TRACE(kAlways, "Cannot elevate to root privileges to enforce chdir");
    return refuse(EACCES);
}

extern "C" int statvfs_preprocess(const char* connectpath, char* path,
                                  kv_connection_private_data_t* private_data,
                                  kv_perm_ctx_t** perm_ctx) {
    if (const int error = check_name(connectpath, path); error != 0) return refuse(error);
    if (!may(FSOP_STATVFS, connectpath, path, *private_data)) return refuse(EACCES);
    KV_TRACE(kTrace, "Enabled statvfs for %s", path);
    if (raise_permissions(perm_ctx) != 0) return 0;
    KV_TRACE(kAlways, "Cannot elevate to root privileges to enforce statvfs permissions, path=%s",
             path);
    return refuse(EACCES);
}

extern "C" void ntimes_dir_preprocess(kv_perm_ctx_t** perm_ctx, const char* base_name) {
    if (take_root(perm_ctx)) return;
    KV_TRACE(kAlways, "Cannot elevate perms to enforce ntimes, smb_fname->base_name=%s",
             base_name == nullptr ? "NULL" : base_name);
}

extern "C" void ntimes_dir_postprocess(kv_perm_ctx_t* perm_ctx) {
    if (perm_ctx != nullptr) kavrin_vfs_unbecome_root(perm_ctx);
}

extern "C" int ntimes_file_preprocess(char** full_path, const char* connectpath,
                                      const char* base_name, kv_perm_ctx_t** perm_ctx) {
    *full_path = get_full_path(connectpath, base_name);
    if (*full_path == nullptr) return refuse(ENOMEM);
    if (!take_root(perm_ctx))
        KV_TRACE(kAlways, "Cannot elevate perms to enforce ntimes, full_path=%s", *full_path);
    return 0;
}

extern "C" void ntimes_file_postprocess(char* full_path,
                                        kv_connection_private_data_t* private_data) {
    // The event store knows a changed file as one that was opened.
    kavrin::record_change(full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_OPEN,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
    set_xattr_modifying_user(full_path, private_data->user_name_as_passed_in);
    KV_TRACE(kWritten, "%s(%d):wrote VFS event ntimes %s", __func__, __LINE__, full_path);
}
