/* The Samba VFS module: it asks the library before an operation of a share, lets the next module
 * work as root, and has the library record what happened. It must be the last of `vfs objects`.
 *
 * The share's folder belongs to root and is closed to everybody else, so this module is the only
 * way in. The library's rules are safe when their caller keeps these promises; the code cites them.
 *
 *  1. A path that climbs above the share's root reaches no hook: refused with EACCES.
 *  2. No link is followed. Opens run with RESOLVE_NO_SYMLINKS, looks at a path with RESOLVE_BENEATH
 *     as well, and links cannot be read or made by clients. So what is reached is what its path
 *     says, and smbd's own way of following links inside of a share ends at its first step.
 *  3. What was opened is changed through the handle that smbd holds.
 *  4. A verdict on a missing object is not kept, and what was kept does not outlive a change of
 *     one's own: each asks for an empty cache. Single entries are never taken out.
 *  5. The process's ids and groups are compared before and after every hook; a difference that
 *     cannot be put right ends the connection.
 *  6. Hooks change the identity of the calling thread only, so smbd's helper threads keep theirs.
 *  7. SIGUSR1 only counts; the flush runs before the next question.
 *  8. Only looks (FSOP_STAT) are answered from the cache, and no operation is asked that ends the
 *     process: file-system statistics are asked of the share's root by its own path.
 *  9. One wish of a client is one verdict and one record: what a create call does to its own object
 *     is not asked again, and only a handle that a client opened leaves a record at its close.
 * 10. Times and attributes are set after a verdict on writing the object.
 * 11. A group map that others could have written, an administrators' or power users' group with id
 *     0, an account that does not exist, one with uid 0, and 'admin users', whom smbd serves as
 *     root, refuse the connection, with one line, as do 'force user' and options that are not
 *     known. A group map that becomes so ends it.
 * 12. The user's standing is known before the first request: a verdict is asked at connect.
 * 13. Notifications name only what their reader may see: smbd looks at each for him, which the
 *     module switches on, since by default it does not.
 * 14. A verdict counts the primary group of the user, never the real group of the process, which is
 *     root's: entries for group root are for nobody by accident.
 * 15. The library's record is about the user who connected. Where smbd acts for another one in the
 *     same process, for whom it removes what he wanted removed, that one is judged by the process's
 *     identity; anything else is refused.
 * 16. A handle holds no right that no question covered, whatever smbd or a module before this one
 *     makes of descriptors. */
#include "kavrin_module.h"

#include "eventstore.h"
#include "kavrin_getgrouplist.h"
#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "lib/substitute.h"
#include "perm_enforcer.h"
#include "processing_functions.h"
#include "regex_parser.h"
#include "smbd/globals.h"
#include "system/passwd.h"

int kavrin_debug_class = DBGC_VFS;

static const char group_map[] = "/etc/kavrin/groupmap_refresh";
static int connected_users;

struct kavrin_connection* kavrin_connection_of(struct vfs_handle_struct* handle) {
    return talloc_get_type_abort(handle->data, struct kavrin_connection);
}

static int free_connection(struct kavrin_connection* connection) {
    if (connection->root_fd >= 0) close(connection->root_fd);
    free(connection->library.groupmap.gids);
    destroy_tlb(&connection->library.vfs_table_cache);
    free(connection->share_root);
    return 0;
}

/* Reasons to refuse a connection; each says its own line. (Note 11.) */

bool kavrin_is_group_map_sound(void) {
    static const char* const reserved[] = {"kavrin-admins", "kavrin-powerusers"};
    struct stat status;
    uint32_t size = 0;
    void* map;
    bool sound = true;

    if (stat(group_map, &status) != 0) return true; /* nobody has groups then */
    if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        DBG_ERR("%s must belong to root and be writable by root only; nobody is served\n",
                group_map);
        return false;
    }
    map = kavrin_mapfile(group_map, &size);
    if (map == NULL || size == 0) return true;
    for (size_t i = 0; i < ARRAY_SIZE(reserved); i++) {
        if (kavrin_reserved_gid(map, size, reserved[i]) != 0) continue;
        if (getgrnam(reserved[i]) == NULL)
            DBG_ERR("there is no group '%s' on this server; nobody is served until it is made\n",
                    reserved[i]);
        else
            DBG_ERR("%s gives group '%s' the id 0; nobody is served\n", group_map, reserved[i]);
        sound = false;
    }
    kavrin_unmap(map, size);
    return sound;
}

static bool is_account_served(struct kavrin_connection* connection, const char* user) {
    const struct passwd* account = getpwnam(user);

    if (account == NULL) {
        DBG_ERR("account '%s' does not exist on this server; connection refused\n", user);
        return false;
    }
    if (account->pw_uid == 0) {
        DBG_ERR("account '%s' is root, whom no verdict binds; connection refused\n", user);
        return false;
    }
    if (is_computer_name(account->pw_name) && connection->library.config.allow_computeracct == 0) {
        DBG_ERR(
            "'%s' is a computer's account, and 'kavrin:allow computer account' is no; "
            "connection refused\n",
            user);
        return false;
    }
    connection->uid = account->pw_uid;
    connection->group = account->pw_gid;
    return true;
}

/* A module behind this one would work unseen, and as root. SMB1 has requests that smbd answers with
 * no handle of a client's, as root where he may not. */
static bool is_fit(const struct vfs_handle_struct* handle) {
    if (handle->next == NULL || handle->next->next != NULL) {
        DBG_ERR("kavrin must be the last of 'vfs objects'; connection refused\n");
        return false;
    }
    if (!handle->conn->sconn->using_smb2) {
        DBG_ERR("only clients of SMB2 and later are served; connection refused\n");
        return false;
    }
    return true;
}

static bool open_share_root(struct vfs_handle_struct* handle,
                            struct kavrin_connection* connection) {
    connection->share_root = realpath(handle->conn->connectpath, NULL);
    if (connection->share_root != NULL)
        connection->root_fd = open(connection->share_root, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (connection->root_fd >= 0) {
        const int probe = kavrin_open_beneath(connection, ".");

        if (probe >= 0) {
            close(probe);
            return true;
        }
    }
    DBG_ERR("'%s' cannot be opened as a share's root: %s; connection refused\n",
            handle->conn->connectpath, strerror(errno));
    return false;
}

/* The record knows whether its user is an administrator once a verdict was asked (note 12). */
static void learn_standing(struct kavrin_connection* connection) {
    const bool became_user = kavrin_user_begin(connection);

    (void)kavrin_may(connection, FSOP_OPENDIR, ".", FSTYPE_FOLDER);
    kavrin_user_end(became_user);
}

static bool prepare(struct vfs_handle_struct* handle, struct kavrin_connection* connection,
                    const char* user) {
    if (read_kavrin_config() != 0) { /* first of all: every message asks it for the level */
        DBG_ERR("no configuration table; is kavrind running? Connection refused\n");
        return false;
    }
    init_private_data(&connection->library);
    if (!is_fit(handle) || !kavrin_read_options(handle, connection) ||
        !kavrin_is_group_map_sound() || !is_account_served(connection, user) ||
        !open_share_root(handle, connection))
        return false;
    connection->library.user_name_as_passed_in = talloc_strdup(connection, user);
    connection->client = talloc_sub_basic(connection, user, "", "%I");
    if (connection->library.user_name_as_passed_in == NULL || connection->client == NULL)
        return false;
    if (!lp_do_parameter(SNUM(handle->conn), "honor change notify privilege", "yes")) {
        DBG_ERR("cannot keep notifications to what their reader may see; connection refused\n");
        return false;
    }
    set_reserved_user_uid();
    read_and_compile_patterns();
    kavrin_note_signals();
    if (connect_preprocess(user, &connection->library, connection->audit, &connected_users) == 0) {
        connection->group_map_seen = connection->library.refresh_creds.groupmap_refresh;
        learn_standing(connection);
        return true;
    }
    DBG_ERR("the library refused the connection of '%s'; is kavrind running?\n", user);
    return false;
}

static int kavrin_connect(struct vfs_handle_struct* handle, const char* service, const char* user) {
    struct kavrin_connection* connection;

    if (SMB_VFS_NEXT_CONNECT(handle, service, user) < 0) return -1;
    connection = talloc_zero(handle->conn, struct kavrin_connection);
    if (connection == NULL) {
        SMB_VFS_NEXT_DISCONNECT(handle);
        errno = ENOMEM;
        return -1;
    }
    connection->events = handle->conn->sconn->ev_ctx;
    connection->root_fd = -1;
    talloc_set_destructor(connection, free_connection);
    if (!prepare(handle, connection, user)) {
        TALLOC_FREE(connection);
        SMB_VFS_NEXT_DISCONNECT(handle);
        errno = EACCES;
        return -1;
    }
    handle->data = connection;
    return 0;
}

static void kavrin_disconnect(struct vfs_handle_struct* handle) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);

    disconnect_preprocess(&connection->library, connection->audit);
    connected_users--;
    SMB_VFS_NEXT_DISCONNECT(handle);
}

static struct vfs_fn_pointers kavrin_functions = {
    .connect_fn = kavrin_connect,
    .disconnect_fn = kavrin_disconnect,
    .disk_free_fn = kavrin_disk_free,
    .get_quota_fn = kavrin_get_quota,
    .set_quota_fn = kavrin_set_quota,
    .statvfs_fn = kavrin_statvfs,

    .readdir_fn = kavrin_readdir,
    .get_real_filename_at_fn = kavrin_get_real_filename_at,
    .mkdirat_fn = kavrin_mkdirat,
    .renameat_fn = kavrin_renameat,
    .unlinkat_fn = kavrin_unlinkat,
    .chdir_fn = kavrin_chdir,

    .openat_fn = kavrin_openat,
    .create_file_fn = kavrin_create_file,
    .close_fn = kavrin_close,
    .durable_disconnect_fn = kavrin_durable_disconnect,
    .pwrite_fn = kavrin_pwrite,
    .pwrite_send_fn = kavrin_pwrite_send,
    .pwrite_recv_fn = kavrin_pwrite_recv,
    .recvfile_fn = kavrin_recvfile,
    .ftruncate_fn = kavrin_ftruncate,
    .fallocate_fn = kavrin_fallocate,
    .offload_write_send_fn = kavrin_offload_write_send,

    .stat_fn = kavrin_stat,
    .lstat_fn = kavrin_lstat,
    .fstatat_fn = kavrin_fstatat,
    .realpath_fn = kavrin_realpath,
    .fntimes_fn = kavrin_fntimes,
    .fchmod_fn = kavrin_fchmod,
    .fchown_fn = kavrin_fchown,
    .lchown_fn = kavrin_lchown,
    .symlinkat_fn = kavrin_symlinkat,
    .readlinkat_fn = kavrin_readlinkat,
    .linkat_fn = kavrin_linkat,
    .mknodat_fn = kavrin_mknodat,
    .fgetxattr_fn = kavrin_fgetxattr,
    .flistxattr_fn = kavrin_flistxattr,
    .fremovexattr_fn = kavrin_fremovexattr,
    .fsetxattr_fn = kavrin_fsetxattr,

    .fget_nt_acl_fn = kavrin_fget_nt_acl,
    .fset_nt_acl_fn = kavrin_fset_nt_acl,
    .sys_acl_set_fd_fn = kavrin_sys_acl_set_fd,
    .sys_acl_delete_def_fd_fn = kavrin_sys_acl_delete_def_fd,
};

/* The one name that smbd looks for in a module it loads. */
_PUBLIC_ NTSTATUS samba_init_module(TALLOC_CTX* context) {
    NTSTATUS status;

    (void)context;
    status = smb_register_vfs(SMB_VFS_INTERFACE_VERSION, "kavrin", &kavrin_functions);
    if (!NT_STATUS_IS_OK(status)) return status;
    kavrin_debug_class = debug_add_class("kavrin");
    if (kavrin_debug_class == -1) {
        kavrin_debug_class = DBGC_VFS;
        DBG_ERR("no debug class of our own; messages go to 'vfs'\n");
    }
    return status;
}
