// What the hooks have in common: the question they ask, the ways they refuse, and the records they
// leave.
#pragma once

#include <cstddef>
#include <cstdlib>

#include "processing_functions.h"
#include "vfs_common.h"

namespace kavrin {

// Refuses an operation: frees a path that would have been the module's after success, sets errno.
int refuse(int error, char* path = nullptr);

// The verdict on the connection's user, not from the cache, and whether it allows. For hooks whose
// caller wants to know of navigation, and for those whose caller does not.
e_vfs_enforce_perms_t verdict_on(e_fsop_type_t op, const char* connectpath, const char* path,
                                 kv_connection_private_data_t& connection, int* is_nav);
e_vfs_enforce_perms_t verdict_on(e_fsop_type_t op, const char* connectpath, const char* path,
                                 kv_connection_private_data_t& connection);
bool may(e_fsop_type_t op, const char* connectpath, const char* path,
         kv_connection_private_data_t& connection, int* is_nav);
bool may(e_fsop_type_t op, const char* connectpath, const char* path,
         kv_connection_private_data_t& connection);

// Whether the connection's user is bound by fixed folders on this path: nobody below "Shared" but
// an administrator moves or deletes them.
bool is_bound_by_fixed_folders(const kv_connection_private_data_t& connection, const char* path);

// Records a change for the event store; `rename_path` may be null.
void record_change(const char* path, const char* rename_path, VFSEvent__OpType op,
                   VFSEvent__FsElemType type);

// Records a read for audit.
void record_read(const char* path, const char* client, off_t size,
                 const kv_connection_private_data_t& connection);

}  // namespace kavrin
