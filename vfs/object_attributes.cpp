// What kavrin keeps on the files themselves, in extended attributes that root reads and writes:
// which folders are fixed, and who changed a file last.
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "processing_functions.h"
#include "utils/privileges.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;
using kavrin::RootContext;

}  // namespace

extern "C" fixed_folder_res is_fixed_folder(const char* full_path) {
    const RootContext root;
    if (!root) {
        KV_TRACE(kAlways, "%s : failed to allocate perm_ctx", __func__);
        return FOLDER_EACCES;
    }
    // A mark is present and empty: any value is somebody else's.
    char value[1];
    const ssize_t size = getxattr(full_path, XATTR_FIXED_FOLDER, value, sizeof value);
    if (size == 0) return FIXED_FOLDER;
    if (size == -1 && errno == ENODATA) return NOT_FIXED_FOLDER;
    KV_TRACE(kAlways, "%s : failed to get xattr %s of %s folder errno %d", __func__,
             XATTR_FIXED_FOLDER, full_path, errno);
    return FOLDER_EACCES;
}

extern "C" int set_xattr_modifying_user(const char* file_path, const char* user_name) {
    const RootContext root;
    if (!root) {
        KV_TRACE(kAlways, "%s failed to allocate perm_ctx", __func__);
        return -1;
    }
    // Replaced where it is, made where it is not: most files have had a last modifier before.
    int result = -1;
    if (user_name != nullptr) {
        const std::size_t size = std::strlen(user_name);
        result = setxattr(file_path, XATTR_MODIFYING_USER, user_name, size, XATTR_REPLACE);
        if (result != 0 && errno == ENODATA)
            result = setxattr(file_path, XATTR_MODIFYING_USER, user_name, size, XATTR_CREATE);
    } else {
        errno = EINVAL;
    }
    if (result == 0) return 0;
    KV_TRACE(kAlways, "%s username = [%s], path = [%s], res=[%d], errno=[%d]", __func__,
             user_name == nullptr ? "NULL" : user_name, file_path, result, errno);
    return -1;
}
