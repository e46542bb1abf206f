// Opening, listing, making and removing folders.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "eventstore.h"
#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"
#include "vfs/hook_support.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kDecision;
using kavrin::kTrace;
using kavrin::may;
using kavrin::refuse;

constexpr int kWritten = 5;

// What opening `fname` is checked as: "." below the share root is the folder that the client is in.
// Null without memory, reported for the working folder.
char* checked_name(const char* fname, const char* cwd, const char* connectpath) {
    if (std::strcmp(fname, ".") != 0 || std::strcmp(cwd, connectpath) == 0) return strdup(fname);
    const std::size_t root = std::strlen(connectpath) + 1;
    char* const name = std::strlen(cwd) < root ? strdup("") : strdup(cwd + root);
    if (name == nullptr)
        KV_TRACE(kAlways, "%s: unable to allocate full_path, fname=%s", "opendir_preprocess",
                 fname);
    return name;
}

// Whether a folder may be opened to delete it: not a fixed one, nor one whose mark is in doubt.
bool may_be_deleted(const char* full_path, const char* fname,
                    const kv_connection_private_data_t& connection) {
    constexpr const char* kFunction = "fdopendir_preprocess";
    if (!kavrin::is_bound_by_fixed_folders(connection, fname)) {
        if (connection.groupmap.admin == 1)
            KV_TRACE(kTrace,
                     "%s Allowing delete for admin, bypassing the fixed-folder check for %s",
                     kFunction, full_path);
        return true;
    }
    const fixed_folder_res result = is_fixed_folder(full_path);
    if (result == FIXED_FOLDER)
        KV_TRACE(kDecision, "%s: Fixed Folder, non admin user for folder %s Deny Delete", kFunction,
                 full_path);
    return result == NOT_FIXED_FOLDER;
}

// The check of a removal. The parameter chooses the words of its traces, nothing else.
e_vfs_enforce_perms_t enforce_rmdir(const char* connectpath, const char* path,
                                    kv_connection_private_data_t& connection) {
    constexpr const char* kFunction = "rmdir_preprocess";
    const bool enabled = global_params[PARAM_ENABLE_FORBIDDEN_RMDIR].value.intval != 0;
    if (enabled) {
        KV_TRACE(kTrace, "(%s:%d) kavrin_rmdir: path: %s allowing RW->RWD", kFunction, __LINE__,
                 path);
    } else {
        KV_TRACE(kTrace, "(%s:%d) kavrin_rmdir: path: %s NO RW->RWD", kFunction, __LINE__, path);
        KV_TRACE(kTrace, "(%s:%d) kavrin_rmdir: path: %s enforcing perms", kFunction, __LINE__,
                 path);
    }
    const auto verdict = kavrin::verdict_on(FSOP_RMDIR, connectpath, path, connection);
    if (enabled)
        // Printed as the operation that readers of the trace know, not as the one checked.
        KV_TRACE(kTrace, "%s:  calls vfs_enforce_perms op=%d result=%d", kFunction, FSOP_MKDIR,
                 verdict);
    return verdict;
}

}  // namespace

extern "C" int opendir_preprocess(const char* fname, const char* cwd, const char* connectpath,
                                  char** nlpath, kv_perm_ctx_t** perm_ctx,
                                  kv_connection_private_data_t* private_data, int* is_nav) {
    *nlpath = nullptr;
    if (fname == nullptr) return refuse(ENOMEM);
    HeapString name(checked_name(fname, cwd, connectpath));
    if (name == nullptr) return -1;
    if (!may(FSOP_OPENDIR, connectpath, name.get(), *private_data, is_nav)) return refuse(EACCES);
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways,
                 "Failed opendir due to inablity to enforce permissions, fname=%s, nlpath=%s",
                 fname, name.get());
        return refuse(EACCES);
    }
    *nlpath = name.release();
    return 0;
}

extern "C" int fdopendir_preprocess(const char* connectpath, const char* fname, int delete_access,
                                    kv_connection_private_data_t* private_data, int* is_nav,
                                    kv_perm_ctx_t** perm_ctx) {
    if (fname == nullptr) return refuse(ENOMEM);
    const HeapString full_path(get_full_path(connectpath, fname));
    if (full_path == nullptr) {
        KV_TRACE(kAlways, "%s: unable to allocate full_path, fname=%s", __func__, fname);
        return -1;
    }
    if (delete_access != 0 && !may_be_deleted(full_path.get(), fname, *private_data))
        return refuse(EACCES);
    if (const auto verdict =
            kavrin::verdict_on(FSOP_OPENDIR, connectpath, fname, *private_data, is_nav);
        verdict != KVPERMS_HAS_PERMS) {
        KV_TRACE(kDecision, "%s: EACCESS full_path=%s fname=%s retval=%d", __func__,
                 full_path.get(), fname, verdict);
        return refuse(EACCES);
    }
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways,
                 "%s: EACCESS Failed fdopendir, due to inablity to enforce permissions, fname=%s",
                 __func__, fname);
        return refuse(EACCES);
    }
    return 0;
}

extern "C" int readdir_preprocess(modify_file_evt_s_t** pmodify, char** base,
                                  kv_connection_private_data_t* private_data) {
    *pmodify = private_data->pmodify;
    if (*pmodify != nullptr) *base = (*pmodify)->path;
    if (*base != nullptr) return 0;
    KV_TRACE(kAlways, "%s: unexpected base pointer is NULL", __func__);
    return -1;
}

extern "C" void readir_postprocess(int* allowed, const char* nlpath, const char* base,
                                   char* full_path, int full_path_size, const char* connectpath,
                                   kv_connection_private_data_t* private_data) {
    std::memset(full_path, 0, static_cast<std::size_t>(full_path_size));
    // The caller has made room for both names.
    char* const end = stpcpy(full_path, base);
    *end = '/';
    std::strcpy(end + 1, nlpath);
    *allowed = check_perms(connectpath, full_path, FSOP_STAT, private_data, 0);
}

extern "C" int mkdir_preprocess(const char* connectpath, const char* path, char** full_path,
                                kv_connection_private_data_t* private_data,
                                kv_perm_ctx_t** perm_ctx) {
    *full_path = get_full_path(connectpath, path);
    if (*full_path == nullptr) return refuse(ENOMEM);
    if (!may(FSOP_MKDIR, connectpath, path, *private_data)) return refuse(EACCES, *full_path);
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways,
                 "Failed operation mkdir due to inablity to enforce permissions, full_path=%s",
                 *full_path);
        return refuse(EACCES, *full_path);
    }
    return 0;
}

extern "C" void mkdir_postprocess(kv_connection_private_data_t* private_data, char** full_path) {
    const HeapString path(*full_path);
    kavrin::record_change(path.get(), nullptr, VFSEVENT__OP_TYPE__OPTYPE_MKDIR,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR);
    set_xattr_modifying_user(path.get(), private_data->user_name_as_passed_in);
    KV_TRACE(kWritten, "%s(%d):wrote VFS event mkdir   %s", __func__, __LINE__, path.get());
}

extern "C" int rmdir_preprocess(char** full_path, const char* connectpath, const char* path,
                                kv_connection_private_data_t* private_data,
                                kv_perm_ctx_t** perm_ctx) {
    *full_path = get_full_path(connectpath, path);
    if (*full_path == nullptr) return refuse(ENOMEM);
    if (enforce_rmdir(connectpath, path, *private_data) != KVPERMS_HAS_PERMS) {
        KV_TRACE(kTrace, "%s:  EPERM for %s", __func__, *full_path);
        return refuse(EPERM, *full_path);
    }
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways,
                 "Failed operation rmdir due to inablity to enforce permissions, full_path=%s",
                 *full_path);
        return refuse(EPERM, *full_path);
    }
    return 0;
}

extern "C" void rmdir_postprocess(char* full_path) {
    kavrin::record_change(full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_RMDIR,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR);
    KV_TRACE(kWritten, "%s(%d):wrote VFS event rmdir  %s", __func__, __LINE__, full_path);
}

extern "C" int create_dir_preprocess(int is_delete_access, const char* nlpath, char** full_path,
                                     int create_dir, const char* connectpath,
                                     kv_connection_private_data_t* private_data,
                                     kv_perm_ctx_t** perm_ctx) {
    if (is_delete_access != 0 && is_deleteable(nlpath) == 0) {
        KV_TRACE(kDecision, "%s: delete denied requested path=%p nlpath=%p", __func__,
                 static_cast<void*>(*full_path), static_cast<const void*>(nlpath));
        return refuse(EACCES, *full_path);
    }
    if (!may(create_dir != 0 ? FSOP_MKDIR : FSOP_OPENDIR, connectpath, nlpath, *private_data)) {
        KV_TRACE(kDecision, "%s: PERMISSION DENIED for directory path=%s", __func__, *full_path);
        return refuse(EACCES, *full_path);
    }
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways, "%s failed to allocate perm_ctx, full_path=%s", __func__, *full_path);
        return refuse(ENOMEM, *full_path);
    }
    return 0;
}

extern "C" void create_dir_postprocess(char* full_path,
                                       kv_connection_private_data_t* private_data) {
    kavrin::record_change(full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_MKDIR,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR);
    set_xattr_modifying_user(full_path, private_data->user_name_as_passed_in);
}
