/* From smbd's names to paths within the share, and the questions about a path that many operations
 * share. smbd names things relative to a folder it holds open, or to the process's working folder,
 * which it changes in the middle of an open. */
#include "kavrin_module.h"

#include <linux/openat2.h>
#include <sys/syscall.h>

#include "kavrin_vfs_utils.h"
#include "perm_enforcer.h"
#include "processing_functions.h"

/* The process's working folder as the last change of it said. smbd asks for its name, and looks at
 * it, before its own record of it is up to date. */
static char* working_folder;

bool kavrin_set_folder(const char* path) {
    char* copy = strdup(path);

    if (copy == NULL) return false;
    free(working_folder);
    working_folder = copy;
    return true;
}

const char* kavrin_folder(void) {
    return working_folder;
}

char* kavrin_join(TALLOC_CTX* memory, const char* folder, const char* name) {
    if (strcmp(folder, ".") == 0) return talloc_strdup(memory, name);
    return talloc_asprintf(memory, "%s/%s", folder, name);
}

/* Takes "." and ".." out of a relative path, in place; false for one that climbs above its start
 * (note 1). The share's root is ".". */
static bool simplify(char* path) {
    char* end = path; /* of what is kept */
    const char* at = path;

    while (*at != '\0') {
        const size_t length = strcspn(at, "/");

        if (length == 2 && at[0] == '.' && at[1] == '.') {
            if (end == path) return false;
            while (end > path && end[-1] != '/') end--;
            if (end > path) end--;
        } else if (length > 0 && !(length == 1 && at[0] == '.')) {
            if (end > path) *end++ = '/';
            memmove(end, at, length);
            end += length;
        }
        at += length;
        at += strspn(at, "/");
    }
    if (end == path) *end++ = '.'; /* there was room for at least "/" or "." */
    *end = '\0';
    return true;
}

/* The part of an absolute path below the share's root; null for what lies outside. */
static const char* below_root(const struct kavrin_connection* connection, const char* path) {
    const size_t length = strlen(connection->share_root);

    if (strcmp(connection->share_root, "/") == 0) return path;
    if (strncmp(path, connection->share_root, length) != 0) return NULL;
    return path[length] == '/' || path[length] == '\0' ? path + length : NULL;
}

static char* from_absolute(TALLOC_CTX* memory, const struct kavrin_connection* connection,
                           const char* path) {
    const char* rest = below_root(connection, path);
    char* relative = rest == NULL ? NULL : talloc_asprintf(memory, "./%s", rest);

    if (relative != NULL && simplify(relative)) return relative;
    TALLOC_FREE(relative);
    errno = EACCES;
    return NULL;
}

/* The same of a path that was made for it, which is freed; null is what an allocation left. */
static char* from_made(TALLOC_CTX* memory, const struct kavrin_connection* connection, char* path) {
    char* result;

    if (path == NULL) {
        errno = ENOMEM;
        return NULL;
    }
    result = from_absolute(memory, connection, path);
    TALLOC_FREE(path);
    return result;
}

/* The path of `name` in `folder` within the share; null with errno set for what is outside of it,
 * and for streams, which are not served. */
char* kavrin_path(TALLOC_CTX* memory, struct vfs_handle_struct* handle,
                  const struct files_struct* folder, const struct smb_filename* name) {
    const struct kavrin_connection* connection = kavrin_connection_of(handle);
    const char* base = name->base_name;
    char* path;

    if (is_named_stream(name)) {
        errno = ENOENT;
        return NULL;
    }
    if (base[0] == '/') return from_absolute(memory, connection, base);
    if (folder == NULL || folder == handle->conn->cwd_fsp || folder->fsp_name == NULL) {
        if (working_folder == NULL) {
            errno = EACCES;
            return NULL;
        }
        path = talloc_asprintf(memory, "%s/%s", working_folder, base);
    } else if (folder->fsp_name->base_name[0] == '/') {
        path = talloc_asprintf(memory, "%s/%s", folder->fsp_name->base_name, base);
    } else {
        path = talloc_asprintf(memory, "%s/%s/%s", connection->share_root,
                               folder->fsp_name->base_name, base);
    }
    return from_made(memory, connection, path);
}

/* The path of what an fsp stands for, whose name is relative to the share's root. */
char* kavrin_path_of(TALLOC_CTX* memory, struct vfs_handle_struct* handle,
                     const struct files_struct* fsp) {
    const struct kavrin_connection* connection = kavrin_connection_of(handle);
    char* path;

    if (is_named_stream(fsp->fsp_name)) {
        errno = ENOENT;
        return NULL;
    }
    if (fsp->fsp_name->base_name[0] == '/')
        return from_absolute(memory, connection, fsp->fsp_name->base_name);
    path = talloc_asprintf(memory, "%s/%s", connection->share_root, fsp->fsp_name->base_name);
    return from_made(memory, connection, path);
}

/* A path reference to an object below the share's root, through no link (note 2). */
int kavrin_open_beneath(const struct kavrin_connection* connection, const char* path) {
    const struct open_how how = {
        .flags = O_PATH | O_NOFOLLOW | O_CLOEXEC,
        .resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS,
    };

    return (int)syscall(SYS_openat2, connection->root_fd, path, &how, sizeof how);
}

/* May the user see it? From the cache (note 8). This is what the stat hook asks; the hook would
 * become root besides, for a look that its caller makes, and smbd has often none to make. */
int kavrin_ask_stat(struct kavrin_connection* connection, const char* path) {
    e_vfs_enforce_perms_t verdict;

    if (kavrin_is_for_another(connection)) return kavrin_ask_missing(connection, path);
    kavrin_hook_begin(connection);
    kavrin_refresh(connection);
    verdict = check_perms(connection->share_root, path, FSOP_STAT, &connection->library, 0);
    kavrin_hook_end(NULL);
    if (verdict == KVPERMS_HAS_PERMS) return 0;
    errno = EPERM;
    return -1;
}

/* The same of what was not found: somebody may make it the next moment, so the answer is not kept
 * (note 4). */
int kavrin_ask_missing(struct kavrin_connection* connection, const char* path) {
    if (kavrin_may(connection, FSOP_STAT, path, 0)) return 0;
    errno = EPERM;
    return -1;
}

/* For questions that no hook asks. Only codes that the decision table knows are passed (note 8).
 * For another than the connection's user the library takes the process's identity, which smbd has
 * made his (note 15). */
bool kavrin_may(struct kavrin_connection* connection, e_fsop_type_t op, const char* path,
                int force_type) {
    process_trustees_t* const user =
        kavrin_is_for_another(connection) ? NULL : &connection->library.groupmap;
    int is_nav = 0;
    e_vfs_enforce_perms_t verdict;

    kavrin_hook_begin(connection);
    verdict = vfs_enforce_perms(connection->share_root, path, op, user, force_type, &is_nav);
    kavrin_hook_end(NULL);
    return verdict == KVPERMS_HAS_PERMS;
}

/* Whether the contents may be changed: those of a folder are its entries. The name below it is
 * never looked at on the disk. */
bool kavrin_may_write(struct kavrin_connection* connection, const char* path, bool is_folder) {
    char* entry;
    bool may;

    if (!is_folder) return kavrin_may(connection, FSOP_OPEN_WRITE, path, FSTYPE_FILE);
    entry = kavrin_join(NULL, path, "new entry");
    may = entry != NULL && kavrin_may(connection, FSOP_CREATE, entry, FSTYPE_DOES_NOT_EXIST);
    TALLOC_FREE(entry);
    return may;
}

/* Whether the create call under way has asked already (note 9). */
bool kavrin_is_decided(const struct kavrin_connection* connection, const char* path) {
    return connection->deciding != NULL && strcmp(connection->deciding, path) == 0;
}

/* After a change of one's own: what was missing may be there now, and the other way round
 * (note 4). */
void kavrin_changed(struct kavrin_connection* connection) {
    connection->library.vfs_table_cache.flush_tlb = KAVRIN_TLB_FLUSH;
}
