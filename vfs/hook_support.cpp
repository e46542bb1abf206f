// The hooks' common steps. Every event is built, stamped and sent here and nowhere else.
#include "vfs/hook_support.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "perm_enforcer.h"

namespace kavrin {

int refuse(int error, char* path) {
    std::free(path);
    errno = error;
    return -1;
}

e_vfs_enforce_perms_t verdict_on(e_fsop_type_t op, const char* connectpath, const char* path,
                                 kv_connection_private_data_t& connection, int* is_nav) {
    return vfs_enforce_perms(connectpath, path, op, &connection.groupmap, 0, is_nav);
}

e_vfs_enforce_perms_t verdict_on(e_fsop_type_t op, const char* connectpath, const char* path,
                                 kv_connection_private_data_t& connection) {
    int unused = 0;
    return verdict_on(op, connectpath, path, connection, &unused);
}

bool may(e_fsop_type_t op, const char* connectpath, const char* path,
         kv_connection_private_data_t& connection, int* is_nav) {
    return verdict_on(op, connectpath, path, connection, is_nav) == KVPERMS_HAS_PERMS;
}

bool may(e_fsop_type_t op, const char* connectpath, const char* path,
         kv_connection_private_data_t& connection) {
    return verdict_on(op, connectpath, path, connection) == KVPERMS_HAS_PERMS;
}

bool is_bound_by_fixed_folders(const kv_connection_private_data_t& connection, const char* path) {
    return connection.groupmap.admin == 0 && std::strncmp(path, "Shared", 6) == 0;
}

void record_change(const char* path, const char* rename_path, VFSEvent__OpType op,
                   VFSEvent__FsElemType type) {
    VFSEvent event;
    vfsevent__init(&event);
    // The messages borrow the texts, although their fields are not const.
    event.path = const_cast<char*>(path);
    event.rename_path = const_cast<char*>(rename_path);
    pop_vfs_event(&event);
    event.optype = op;
    event.fselem_type = type;
    send_modify_vfs_event(&event);
}

void record_read(const char* path, const char* client, off_t size,
                 const kv_connection_private_data_t& connection) {
    AuditEvent event;
    audit_event__init(&event);
    event.path = const_cast<char*>(path);
    event.ip_address = const_cast<char*>(client);
    event.size = static_cast<std::uint64_t>(size);
    pop_audit_event(&event);
    send_audit_vfs_event(&event, connection.refresh_creds.euid);
}

}  // namespace kavrin
