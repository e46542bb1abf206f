// Closing a file: the moment at which a change becomes an event, and a read an audit record. The
// file's name is asked of the kernel, since it may have been renamed while it was open.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavrin_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"
#include "vfs/hook_support.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kTrace;

constexpr std::size_t kLongestPath = 4096;
constexpr int kUnchanged = 3;

constexpr const char* kFunction = "close_preprocess";

HeapString path_buffer() {
    return HeapString(static_cast<char*>(std::calloc(kLongestPath + 1, 1)));
}

// Reads, as root, which path a descriptor stands for, into zero-filled buffers.
bool read_name(int descriptor, char* path, char* link) {
    std::snprintf(link, kLongestPath, "/proc/%d/fd/%d", static_cast<int>(getpid()), descriptor);
    kv_perm_ctx_t* context = nullptr;
    if (raise_permissions(&context) == 0)
        KV_TRACE(kAlways, "Could not get root access for readlink in close, mpath=%s, proc_path=%s",
                 path, link);
    const ssize_t size = readlink(link, path, kLongestPath);
    const int error = errno;
    if (context != nullptr) kavrin_vfs_unbecome_root(context);
    if (size >= 1) return true;
    KV_TRACE(kAlways, "Readlink operation on %s failed %s", link, std::strerror(error));
    return false;
}

// Chooses the record of the file: the connection's, else the module's. Null: nothing is recorded.
modify_file_evt_s_t* choose_record(const kv_connection_private_data_t& connection,
                                   modify_file_evt_s_t** pmodify, int connection_valid) {
    if (connection.pmodify != nullptr) *pmodify = connection.pmodify;
    return connection_valid != 0 ? *pmodify : nullptr;
}

}  // namespace

extern "C" void close_preprocess(int audit_enabled, int closefd,
                                 kv_connection_private_data_t* private_data,
                                 modify_file_evt_s_t** pmodify, int connection_valid,
                                 const char* remote_hostname) {
    if (closefd <= 0) {
        KV_TRACE(kAlways, "invalid file descriptor %d in fsp", closefd);
        return;
    }
    const HeapString mpath = path_buffer();
    if (mpath == nullptr) {
        KV_TRACE(kAlways, "Cannot allocate memory");
        return;
    }
    const HeapString proc_path = path_buffer();
    if (proc_path == nullptr) {
        KV_TRACE(kAlways, "Cannot allocate memory, mpath=%s", mpath.get());
        return;
    }
    if (!read_name(closefd, mpath.get(), proc_path.get())) return;

    struct stat status;
    const bool has_status = fstat(closefd, &status) == 0;
    if (has_status && S_ISDIR(status.st_mode)) {
        KV_TRACE(kTrace, "stat path=%s is a directory will not write to events file", mpath.get());
        return;
    }
    if (!has_status)
        KV_TRACE(kAlways, "%s(%d) stat path=%s failed", kFunction, __LINE__, mpath.get());

    modify_file_evt_s_t* const record = choose_record(*private_data, pmodify, connection_valid);
    if (record == nullptr) {
        KV_TRACE(kUnchanged, "%s(%d):VFS event close  %s NOT modified pmodified=%p", kFunction,
                 __LINE__, mpath.get(), static_cast<void*>(*pmodify));
        return;
    }
    if (record->is_modified == 1) {
        // The event store knows a changed file as one that was opened.
        kavrin::record_change(mpath.get(), nullptr, VFSEVENT__OP_TYPE__OPTYPE_OPEN,
                              VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE);
        set_xattr_modifying_user(mpath.get(), private_data->user_name_as_passed_in);
        record->is_modified = 0;
    } else if (record->is_modified == 0) {
        if (audit_enabled != 0 && has_status && S_ISREG(status.st_mode))
            kavrin::record_read(mpath.get(), remote_hostname, status.st_size, *private_data);
    } else {
        KV_TRACE(kUnchanged,
                 "%s(%d):VFS event close  %s was NOT modified pmodify->modified=%d (should not be "
                 "seen)",
                 kFunction, __LINE__, mpath.get(), record->is_modified);
    }
}
