// Renaming, moving and removing. A folder that changes its parent is moved, and checked as such; a
// file never is: it is written at its old place and named at its new one.
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

constexpr const char* kFunction = "rename_preprocess";

int refuse_both(int error, char* old_full_path, char* new_full_path) {
    std::free(old_full_path);
    return refuse(error, new_full_path);
}

// Looks, as root, what the source is. 0, or an errno.
int look_at_source(const char* old_base_name, const char* new_base_name, const char* path,
                   kv_perm_ctx_t*& context, int& isdir) {
    const bool becomes_root = geteuid() != 0;
    if (becomes_root && (context = kavrin_vfs_become_root()) == nullptr) {
        KV_TRACE(kAlways,
                 "Could not become root in rename op to call stat, old_base_name=%s, "
                 "new_base_name=%s",
                 old_base_name, new_base_name == nullptr ? "NULL" : new_base_name);
        return EACCES;
    }
    struct stat status;
    if (stat(path, &status) != 0) {
        KV_TRACE(kAlways, "Rename source %s does not exist err %s", path, std::strerror(errno));
        if (context != nullptr) kavrin_vfs_unbecome_root(std::exchange(context, nullptr));
        return ENOENT;
    }
    isdir = S_ISDIR(status.st_mode) ? 1 : 0;
    // The pointer keeps its value: it is set anew when the rename is allowed.
    if (becomes_root) kavrin_vfs_unbecome_root(context);
    return 0;
}

// The operations that a rename is checked as; false when that cannot be told.
bool choose_operations(char* old_base_name, char* new_base_name, bool is_folder,
                       e_fsop_type_t& source, e_fsop_type_t& target) {
    source = FSOP_OPEN_WRITE;
    target = FSOP_RENAME_DEST;
    if (!is_folder) return true;
    const int is_move = is_amove(old_base_name, new_base_name);
    if (is_move == -1) {
        KV_TRACE(kAlways, "Could not tell whether move or rename %s -> %s , denying...",
                 old_base_name, new_base_name);
        return false;
    }
    if (is_move == 1) {
        source = FSOP_MOVE_SRC;
        target = FSOP_MOVE_DEST;
    }
    return true;
}

}  // namespace

extern "C" int rename_preprocess(char* old_base_name, char* new_base_name, const char* connectpath,
                                 kv_perm_ctx_t** perm_ctx, int* isdir,
                                 kv_connection_private_data_t* private_data, int* is_nav,
                                 char** old_full_path, char** new_full_path) {
    *old_full_path = get_full_path(connectpath, old_base_name);
    if (*old_full_path == nullptr) return refuse(ENOMEM);
    if (const int error =
            look_at_source(old_base_name, new_base_name, *old_full_path, *perm_ctx, *isdir);
        error != 0)
        return refuse(error, *old_full_path);

    // Every folder's mark is read, an administrator's too.
    if (*isdir != 0 && is_fixed_folder(*old_full_path) == FIXED_FOLDER &&
        kavrin::is_bound_by_fixed_folders(*private_data, old_base_name)) {
        KV_TRACE(kDecision,
                 "%s %d: Denying attempt to rename a fixed folder for a non-admin user for path %s",
                 kFunction, __LINE__, *old_full_path);
        return refuse(EACCES, *old_full_path);
    }
    *new_full_path = get_full_path(connectpath, new_base_name);
    if (*new_full_path == nullptr) return refuse(ENOMEM, *old_full_path);

    e_fsop_type_t source;
    e_fsop_type_t target;
    if (!choose_operations(old_base_name, new_base_name, *isdir != 0, source, target))
        return refuse_both(EACCES, *old_full_path, *new_full_path);
    if (!may(source, connectpath, old_base_name, *private_data, is_nav)) {
        KV_TRACE(kTrace, "Permission denied for source %s", old_base_name);
        return refuse_both(EACCES, *old_full_path, *new_full_path);
    }
    if (!may(target, connectpath, new_base_name, *private_data, is_nav))
        return refuse_both(EACCES, *old_full_path, *new_full_path);

    if (geteuid() == 0) return 0;
    *perm_ctx = kavrin_vfs_become_root();
    if (*perm_ctx != nullptr) return 0;
    KV_TRACE(kAlways, "Could not switch to root for rename operations %s -> %s", old_base_name,
             new_base_name);
    return refuse_both(EACCES, *old_full_path, *new_full_path);
}

extern "C" void rename_postprocess(char* new_full_path, char* old_full_path, int isdir,
                                   kv_connection_private_data_t* private_data) {
    kavrin::record_change(old_full_path, new_full_path, VFSEVENT__OP_TYPE__OPTYPE_RENAME,
                          isdir != 0 ? VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR
                                     : VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
    set_xattr_modifying_user(new_full_path, private_data->user_name_as_passed_in);
}

extern "C" int unlink_preprocess(const char* connectpath, char* base_name, char** full_path,
                                 kv_connection_private_data_t* private_data,
                                 kv_perm_ctx_t** perm_ctx) {
    *full_path = get_full_path(connectpath, base_name);
    if (*full_path == nullptr) return refuse(ENOMEM);
    // Whoever may write a file may remove it.
    if (!may(FSOP_OPEN_WRITE, connectpath, base_name, *private_data))
        return refuse(EACCES, *full_path);
    if (raise_permissions(perm_ctx) == 0) {
        KV_TRACE(kAlways,
                 "Cannot elevate to root privileges to enforce unlink permissions, full_path=%s",
                 *full_path);
        return refuse(EACCES, *full_path);
    }
    return 0;
}

extern "C" void unlink_postprocess(char* full_path) {
    kavrin::record_change(full_path, nullptr, VFSEVENT__OP_TYPE__OPTYPE_UNLINK,
                          VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
}
