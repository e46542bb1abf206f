/* Looking at objects, their times and attributes; and what clients have no business with: owners,
 * modes, links, devices. */
#include "kavrin_module.h"

#include "kavrin_utils.h"
#include "processing_functions.h"

/* Looks at an object through no link (note 2). */
static int look(const struct kavrin_connection* connection, const char* path, bool follow,
                SMB_STRUCT_STAT* status) {
    const bool root = kavrin_root_begin(false);
    const int file = kavrin_open_beneath(connection, path);
    int result = -1;

    if (file >= 0) {
        result = sys_fstat(file, status, false);
        if (result == 0 && follow && S_ISLNK(status->st_ex_mode)) {
            errno = ELOOP;
            result = -1;
        }
        const int error = errno;
        close(file);
        errno = error;
    }
    kavrin_root_end(root);
    return result;
}

/* The question comes after the look, for its answer is kept only about what is there. */
static int look_if_allowed(struct kavrin_connection* connection, const char* path, bool follow,
                           SMB_STRUCT_STAT* status) {
    const int result = look(connection, path, follow, status);
    const int error = errno;

    if (!kavrin_is_decided(connection, path) &&
        (result == 0 ? kavrin_ask_stat : kavrin_ask_missing)(connection, path) != 0)
        return -1;
    errno = error;
    return result;
}

/* smbd looks where it is before and after each change of folder, and that folder was asked when it
 * was changed to; the share's root is open to everybody. What a client wants to know of them goes
 * through an open. */
static bool is_own_place(const struct kavrin_connection* connection, const char* name) {
    return ISDOT(name) || strcmp(name, connection->share_root) == 0 ||
           (kavrin_folder() != NULL && strcmp(name, kavrin_folder()) == 0);
}

static int look_around(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
    const bool root = kavrin_root_begin(false);
    const int result = SMB_VFS_NEXT_STAT(handle, smb_fname);

    kavrin_root_end(root);
    return result;
}

int kavrin_stat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    char* path;
    int result = -1;

    if (!is_named_stream(smb_fname) && is_own_place(connection, smb_fname->base_name))
        return look_around(handle, smb_fname);
    if (kavrin_is_own_work()) return SMB_VFS_NEXT_STAT(handle, smb_fname);
    path = kavrin_path(talloc_tos(), handle, NULL, smb_fname);
    if (path == NULL) return -1;
    result = look_if_allowed(connection, path, true, &smb_fname->st);
    TALLOC_FREE(path);
    return result;
}

static int ask_lstat(struct kavrin_connection* connection, char* path) {
    kv_perm_ctx_t* context = NULL;
    int result;

    if (kavrin_is_for_another(connection)) return kavrin_ask_missing(connection, path);
    kavrin_hook_begin(connection);
    result = lstat_preprocess(connection->share_root, path, &context, &connection->library);
    kavrin_hook_end(&context);
    return result;
}

int kavrin_lstat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    char* path;
    int result = -1;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_LSTAT(handle, smb_fname);
    path = kavrin_path(talloc_tos(), handle, NULL, smb_fname);
    if (path == NULL) return -1;
    if (kavrin_is_decided(connection, path) || ask_lstat(connection, path) == 0)
        result = look(connection, path, false, &smb_fname->st);
    TALLOC_FREE(path);
    return result;
}

int kavrin_fstatat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, SMB_STRUCT_STAT* sbuf, int flags) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    char* path;
    int result = -1;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_FSTATAT(handle, dirfsp, smb_fname, sbuf, flags);
    path = kavrin_path(talloc_tos(), handle, dirfsp, smb_fname);
    if (path == NULL) return -1;
    result = look_if_allowed(connection, path, (flags & AT_SYMLINK_NOFOLLOW) == 0, sbuf);
    TALLOC_FREE(path);
    return result;
}

/* The size of the disk, which the share's root stands for wherever a client asks (note 8). */
static bool may_see_disk(struct kavrin_connection* connection) {
    kv_perm_ctx_t* context = NULL;
    int result;

    kavrin_hook_begin(connection);
    result = statvfs_preprocess(connection->share_root, connection->share_root,
                                &connection->library, &context);
    kavrin_hook_end(&context);
    return result == 0;
}

uint64_t kavrin_disk_free(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                          uint64_t* bsize, uint64_t* dfree, uint64_t* dsize) {
    uint64_t result;
    bool root;

    if (!kavrin_is_own_work() && !may_see_disk(kavrin_connection_of(handle))) return (uint64_t)-1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_DISK_FREE(handle, smb_fname, bsize, dfree, dsize);
    kavrin_root_end(root);
    return result;
}

int kavrin_statvfs(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                   struct vfs_statvfs_struct* statbuf) {
    bool root;
    int result;

    if (!kavrin_is_own_work() && !may_see_disk(kavrin_connection_of(handle))) return -1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_STATVFS(handle, smb_fname, statbuf);
    kavrin_root_end(root);
    return result;
}

/* Everything on the disk belongs to root, so a user's quota says nothing. */
int kavrin_get_quota(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                     enum SMB_QUOTA_TYPE qtype, unid_t id, SMB_DISK_QUOTA* qt) {
    (void)handle, (void)smb_fname, (void)qtype, (void)id, (void)qt;
    errno = ENOSYS;
    return -1;
}

int kavrin_set_quota(struct vfs_handle_struct* handle, enum SMB_QUOTA_TYPE qtype, unid_t id,
                     SMB_DISK_QUOTA* qt) {
    (void)handle, (void)qtype, (void)id, (void)qt;
    errno = ENOSYS;
    return -1;
}

/* smbd's own look at where a path leads; the answer goes to no client. */
struct smb_filename* kavrin_realpath(struct vfs_handle_struct* handle, TALLOC_CTX* ctx,
                                     const struct smb_filename* smb_fname) {
    const bool root = kavrin_root_begin(false);
    struct smb_filename* result = SMB_VFS_NEXT_REALPATH(handle, ctx, smb_fname);

    kavrin_root_end(root);
    return result;
}

/* Changes of attributes ---------------------------------------------------------------------------
 */

static bool is_folder_fsp(const struct files_struct* fsp) {
    return fsp->fsp_flags.is_directory || S_ISDIR(fsp->fsp_name->st.st_ex_mode);
}

/* Whether the attributes of what an fsp stands for may be changed: a question about writing it.
 * What the create call under way is making was asked already. EACCES otherwise. */
static bool may_change(struct vfs_handle_struct* handle, const struct files_struct* fsp) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    char* path = kavrin_path_of(talloc_tos(), handle, fsp);
    bool may;

    if (path == NULL) return false;
    may = kavrin_is_decided(connection, path) ||
          kavrin_may_write(connection, path, is_folder_fsp(fsp));
    TALLOC_FREE(path);
    if (!may) errno = EACCES;
    return may;
}

static int set_times_as_root(struct vfs_handle_struct* handle, struct files_struct* fsp,
                             struct smb_file_time* ft) {
    const bool root = kavrin_root_begin(false);
    const int result = SMB_VFS_NEXT_FNTIMES(handle, fsp, ft);

    kavrin_root_end(root);
    return result;
}

/* smbd sets times of its own when a file that was written is closed; that is part of the change
 * which the close records. */
static bool is_part_of_write(struct vfs_handle_struct* handle, struct files_struct* fsp) {
    const struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);

    return open != NULL && (open->record.is_modified != 0 || open->created);
}

static bool is_new_time(const struct timespec* now, const struct timespec* before) {
    return !is_omit_timespec(now) && timespec_compare(now, before) != 0;
}

/* smbd sets times twice for one request, the second time with nothing new. Whether a call is to be
 * recorded, and a note of it on the handle. */
static bool is_new_change(struct vfs_handle_struct* handle, struct files_struct* fsp,
                          const struct smb_file_time* ft) {
    struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);
    const bool is_repeated = open != NULL && open->times_recorded &&
                             !is_new_time(&ft->mtime, &open->times.mtime) &&
                             !is_new_time(&ft->atime, &open->times.atime) &&
                             !is_new_time(&ft->create_time, &open->times.create_time);

    if (open == NULL || is_repeated) return !is_repeated;
    open->times_recorded = true;
    open->times = *ft;
    return true;
}

/* The hooks ask nothing, so the module does (note 10). */
int kavrin_fntimes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                   struct smb_file_time* ft) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    kv_perm_ctx_t* context = NULL;
    char* full_path = NULL;
    char* path;
    int result;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_FNTIMES(handle, fsp, ft);
    if (is_part_of_write(handle, fsp)) return set_times_as_root(handle, fsp, ft);
    if (!may_change(handle, fsp)) return -1;
    path = kavrin_path_of(talloc_tos(), handle, fsp);
    if (path == NULL) return -1;
    kavrin_hook_begin(connection);
    if (is_folder_fsp(fsp)) {
        ntimes_dir_preprocess(&context, path);
        result = 0;
    } else {
        result = ntimes_file_preprocess(&full_path, connection->share_root, path, &context);
    }
    kavrin_hook_end(&context);
    TALLOC_FREE(path);
    if (result == 0) result = set_times_as_root(handle, fsp, ft);
    if (result == 0 && full_path != NULL && is_new_change(handle, fsp, ft)) {
        kavrin_hook_begin(connection);
        ntimes_file_postprocess(full_path, &connection->library);
        kavrin_hook_end(NULL);
    }
    const int error = errno;
    free(full_path);
    errno = error;
    return result;
}

static int refuse(void) {
    errno = EPERM;
    return -1;
}

/* smbd gives a new object its mode and owner; clients have no say in them. */
static bool is_being_made(struct vfs_handle_struct* handle, const struct files_struct* fsp) {
    char* path = kavrin_path_of(talloc_tos(), handle, fsp);
    const bool made = path != NULL && kavrin_is_decided(kavrin_connection_of(handle), path);

    TALLOC_FREE(path);
    return made;
}

int kavrin_fchmod(struct vfs_handle_struct* handle, struct files_struct* fsp, mode_t mode) {
    bool root;
    int result;

    if (!kavrin_is_own_work() && !is_being_made(handle, fsp)) return refuse();
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_FCHMOD(handle, fsp, mode);
    kavrin_root_end(root);
    return result;
}

int kavrin_fchown(struct vfs_handle_struct* handle, struct files_struct* fsp, uid_t uid,
                  gid_t gid) {
    bool root;
    int result;

    if (!kavrin_is_own_work() && !is_being_made(handle, fsp)) return refuse();
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_FCHOWN(handle, fsp, uid, gid);
    kavrin_root_end(root);
    return result;
}

int kavrin_lchown(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname, uid_t uid,
                  gid_t gid) {
    return kavrin_is_own_work() ? SMB_VFS_NEXT_LCHOWN(handle, smb_fname, uid, gid) : refuse();
}

int kavrin_symlinkat(struct vfs_handle_struct* handle, const struct smb_filename* link_contents,
                     struct files_struct* dirfsp, const struct smb_filename* new_smb_fname) {
    (void)handle, (void)link_contents, (void)dirfsp, (void)new_smb_fname;
    return refuse();
}

/* A link is nothing that can be followed (note 2); smbd asks whether it is one at all. */
int kavrin_readlinkat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                      const struct smb_filename* smb_fname, char* buf, size_t bufsiz) {
    (void)handle, (void)dirfsp, (void)smb_fname, (void)buf, (void)bufsiz;
    errno = EINVAL;
    return -1;
}

int kavrin_linkat(struct vfs_handle_struct* handle, struct files_struct* srcfsp,
                  const struct smb_filename* old_smb_fname, struct files_struct* dstfsp,
                  const struct smb_filename* new_smb_fname, int flags) {
    (void)handle, (void)srcfsp, (void)old_smb_fname, (void)dstfsp, (void)new_smb_fname, (void)flags;
    return refuse();
}

int kavrin_mknodat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode, SMB_DEV_T dev) {
    (void)handle, (void)dirfsp, (void)smb_fname, (void)mode, (void)dev;
    return refuse();
}

/* Extended attributes -----------------------------------------------------------------------------
 */

/* The marks that verdicts rest on are no client's to see or to change. */
static bool is_own_mark(const char* name) {
    static const char prefix[] = "user.kavrin.";

    return strnequal(name, prefix, sizeof prefix - 1);
}

ssize_t kavrin_fgetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                         const char* name, void* value, size_t size) {
    ssize_t result;

    if (is_own_mark(name)) {
        errno = ENODATA;
        return -1;
    }
    result = SMB_VFS_NEXT_FGETXATTR(handle, fsp, name, value, size);
    if (result < 0 && errno == EACCES) { /* most files can be read by those who reach them */
        const bool root = kavrin_root_begin(false);

        result = SMB_VFS_NEXT_FGETXATTR(handle, fsp, name, value, size);
        kavrin_root_end(root);
    }
    return result;
}

ssize_t kavrin_flistxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, char* list,
                          size_t size) {
    const ssize_t all = SMB_VFS_NEXT_FLISTXATTR(handle, fsp, list, size);
    ssize_t kept = 0;

    if (all <= 0 || size == 0) return all;
    for (ssize_t at = 0; at < all;) {
        const ssize_t length = (ssize_t)strlen(list + at) + 1;

        if (!is_own_mark(list + at)) {
            memmove(list + kept, list + at, (size_t)length);
            kept += length;
        }
        at += length;
    }
    return kept;
}

int kavrin_fremovexattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        const char* name) {
    bool root;
    int result;

    if (is_own_mark(name)) return refuse();
    if (!kavrin_is_own_work() && !may_change(handle, fsp)) return -1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_FREMOVEXATTR(handle, fsp, name);
    kavrin_root_end(root);
    if (result == 0) kavrin_mark_modified(handle, fsp);
    return result;
}

int kavrin_fsetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, const char* name,
                     const void* value, size_t size, int flags) {
    bool root;
    int result;

    if (is_own_mark(name)) return refuse();
    if (!kavrin_is_own_work() && !may_change(handle, fsp)) return -1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_FSETXATTR(handle, fsp, name, value, size, flags);
    kavrin_root_end(root);
    /* smbd keeps its own in one, and changes it when it likes; fntimes tells of clients' wishes. */
    if (result == 0 && !strequal(name, SAMBA_XATTR_DOS_ATTRIB)) kavrin_mark_modified(handle, fsp);
    return result;
}
