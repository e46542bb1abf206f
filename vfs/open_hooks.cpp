// Opening and creating files. Whether a file exists is looked at as root, since the user may have
// no rights on the disk; what the user may do is asked as the user.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kavrin_utils.h"
#include "utils/trace.h"
#include "vfs/hook_support.h"

namespace {

using kavrin::kAlways;
using kavrin::kDecision;
using kavrin::kTrace;
using kavrin::may;
using kavrin::refuse;

// Operation and final mode of an open; false for a mode that nobody may use.
bool translate(e_open_mode_t& mode, e_fsop_type_t& op) {
    switch (mode) {
        case OPENMODE_READ:
            op = FSOP_OPEN_READ;
            return true;
        case OPENMODE_WRITE:
            op = FSOP_OPEN_WRITE;
            return true;
        case OPENMODE_CREATE:
            op = FSOP_CREATE;
            break;
        case OPENMODE_CHATTR:
            op = FSOP_OPEN_CHATTR;
            break;
        default:
            return false;
    }
    mode = OPENMODE_WRITE;
    return true;
}

// The status of a file that is to be opened, with the errno of a failed look reported.
bool look_at(const char* function, const char* path, struct stat& status, bool& missing) {
    if (stat(path, &status) == 0) return true;
    missing = errno == ENOENT;
    if (missing)
        KV_TRACE(kTrace, "%s stat of full_path=%s failed with ENOENT.", function, path);
    else
        KV_TRACE(kAlways, "%s stat of full_path=%s failed with error=%d reason=%s", function, path,
                 errno, std::strerror(errno));
    return false;
}

const char* shown(const char* name) {
    return name == nullptr ? "NULL" : name;
}

void give_back(kv_perm_ctx_t*& context) {
    if (context != nullptr) kavrin_vfs_unbecome_root(std::exchange(context, nullptr));
}

// Opening something to delete it: neither the private folders nor, for users, a fixed folder. One
// whose mark cannot be read is no obstacle here.
bool may_be_deleted(const char* base_name, const char* full_path,
                    const kv_connection_private_data_t& connection) {
    if (is_deleteable(base_name) == 0) {
        KV_TRACE(kTrace, "%s:  delete denied requested path=%p nlpath=%p", "open_preprocess",
                 static_cast<const void*>(full_path), static_cast<const void*>(base_name));
        return false;
    }
    if (kavrin::is_bound_by_fixed_folders(connection, base_name) &&
        is_fixed_folder(full_path) == FIXED_FOLDER) {
        KV_TRACE(kDecision, "Fixed folder : delete not allowed for %s for non-admin users.",
                 full_path);
        return false;
    }
    return true;
}

}  // namespace

extern "C" int open_preprocess(const char* connectpath, char* base_name, e_open_mode_t* open_mode,
                               e_fsop_type_t* op, char** full_path, int* newly_created_file,
                               int is_delete_folder_access,
                               kv_connection_private_data_t* private_data, struct stat* st,
                               const char* remote_hostname, kv_perm_ctx_t** perm_ctx,
                               int audit_enabled) {
    if (!translate(*open_mode, *op)) return refuse(EACCES, *full_path);
    if (base_name == nullptr) {
        const int saved_errno = errno;
        std::free(*full_path);
        errno = saved_errno;
        return ENOMEM;  // positive, as callers know it
    }
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways, "%s:  Unable to become root to stat, full_path=%s", __func__, *full_path);
        return refuse(EACCES, *full_path);
    }
    bool missing = false;
    const bool has_status = look_at(__func__, *full_path, *st, missing);
    if (missing) *newly_created_file = 1;
    give_back(*perm_ctx);

    if (is_delete_folder_access != 0 && !may_be_deleted(base_name, *full_path, *private_data))
        return refuse(EACCES, *full_path);
    if (!may(*op, connectpath, base_name, *private_data)) return refuse(EACCES, *full_path);

    if (*open_mode == OPENMODE_READ && audit_enabled != 0 && has_status && S_ISREG(st->st_mode))
        kavrin::record_read(*full_path, remote_hostname, st->st_size, *private_data);
    return 0;
}

extern "C" int open_postprocess(struct stat* st, kv_perm_ctx_t** perm_ctx, char** full_path,
                                int newly_created_file) {
    if (geteuid() != 0) *perm_ctx = kavrin_vfs_become_root();
    const bool has_status = stat(*full_path, st) == 0;
    const int error = errno;
    if (*perm_ctx != nullptr) kavrin_vfs_unbecome_root(*perm_ctx);
    if (has_status && S_ISDIR(st->st_mode)) {
        std::free(*full_path);
        return -1;
    }
    if (!has_status)
        KV_TRACE(kAlways, "stat path=%s reason=%d reason_sz=%s failed", *full_path, error,
                 std::strerror(error));
    if (newly_created_file == 0) return 0;
    kavrin::record_change(*full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_CREATE,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
    KV_TRACE(kTrace, "%s :wrote VFS CREATE EVENT in open for %s", __func__, *full_path);
    return 0;
}

extern "C" int create_file_preprocess(int write_access_requested, char** full_path,
                                      const char* nlpath, const char* base_name,
                                      kv_perm_ctx_t** perm_ctx, int* file_exists,
                                      uint32_t access_mask, uint32_t create_disposition,
                                      uint32_t create_options, const char* connectpath,
                                      kv_connection_private_data_t* private_data) {
    e_fsop_type_t op = FSOP_INVAL;
    e_open_mode_t mode = OPENMODE_INVALID;
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways, "%s failed to allocate perm_ctx", __func__);
        return refuse(EACCES, *full_path);
    }
    struct stat status;
    *file_exists = stat(*full_path, &status) == 0 ? 1 : 0;
    if (*file_exists == 0 && errno != ENOENT)
        KV_TRACE(kAlways, "%s stat of full_path=%s failed with error=%d reason=%s", __func__,
                 *full_path, errno, std::strerror(errno));
    give_back(*perm_ctx);

    _get_op_create_file(nlpath, create_disposition, create_options, *file_exists,
                        write_access_requested, &op, &mode);
    if (!may(op, connectpath, nlpath, *private_data)) {
        KV_TRACE(kDecision,
                 "%s:PERM DENIED path=%s nlpath=%s op=%d create_disposition=0x%0x "
                 "create_options=0x%x access_mask=%u",
                 __func__, *full_path, shown(nlpath), op, create_disposition, create_options,
                 access_mask);
        return refuse(EACCES, *full_path);
    }
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways, "%s failed to allocate perm_ctx,  smb_fname->base_name=%s", __func__,
                 shown(base_name));
        return refuse(EACCES, *full_path);
    }
    return 0;
}

extern "C" void create_file_postprocess(kv_connection_private_data_t* private_data,
                                        char* full_path) {
    kavrin::record_change(full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_CREATE,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
    set_xattr_modifying_user(full_path, private_data->user_name_as_passed_in);
}
