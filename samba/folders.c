/* Listing, making, renaming and removing; change of folder. A name that is made or removed is
 * looked at in the folder that smbd holds open; clients cannot make links, so the way to it is what
 * its path says (note 2). */
#include "kavrin_module.h"

#include "kavrin_perms.h"
#include "kavrin_vfs_utils.h"
#include "perm_enforcer.h"
#include "processing_functions.h"

static int refuse(void) {
    errno = EACCES;
    return -1;
}

/* Whether an entry of a listing is shown. */
static bool is_shown(struct kavrin_connection* connection, char* folder, const char* name) {
    modify_file_evt_s_t listing = {.path = folder};
    modify_file_evt_s_t* record = NULL;
    const size_t size = strlen(folder) + strlen(name) + 2;
    char* path = talloc_array(talloc_tos(), char, size);
    char* base = NULL;
    int verdict = KVPERMS_NO_PERM;

    if (path == NULL || kavrin_is_for_another(connection)) return false;
    kavrin_hook_begin(connection);
    connection->library.pmodify = &listing;
    if (readdir_preprocess(&record, &base, &connection->library) == 0)
        readir_postprocess(&verdict, name, base, path, (int)size, connection->share_root,
                           &connection->library);
    connection->library.pmodify = NULL;
    kavrin_hook_end(NULL);
    TALLOC_FREE(path);
    return verdict == KVPERMS_HAS_PERMS;
}

/* The next entry and, since the next module looks at it, its status. */
static struct dirent* read_entry(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                                 DIR* dirp, SMB_STRUCT_STAT* sbuf) {
    const bool root = kavrin_root_begin(false);
    struct dirent* entry;

    errno = 0;
    entry = SMB_VFS_NEXT_READDIR(handle, dirfsp, dirp, sbuf);
    kavrin_root_end(root);
    return entry;
}

static bool is_dots(const struct dirent* entry) {
    return ISDOT(entry->d_name) || ISDOTDOT(entry->d_name);
}

/* What a client's listing shows, smbd refers to next. */
static void note_shown(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                       struct kavrin_open* listing, const struct dirent* entry) {
    if (listing == NULL) return;
    TALLOC_FREE(listing->listed);
    if (entry != NULL && !is_dots(entry)) /* which nobody asked about */
        listing->listed = talloc_strdup(VFS_MEMCTX_FSP_EXTENSION(handle, dirfsp), entry->d_name);
}

/* A handle may list a folder again and again, or for long, with nothing asked but its entries: each
 * time begins with a look at the markers, and at whether the handle's name still leads to the
 * folder, since entries are asked by it; and so does each second of it. */
static bool may_go_on(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                      const char* folder) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    struct stat there, here;
    int named;
    bool root;
    bool same;

    if (!kavrin_is_for_another(connection)) {
        kavrin_hook_begin(connection);
        kavrin_refresh(connection);
        kavrin_hook_end(NULL);
    }
    root = kavrin_root_begin(false);
    named = kavrin_open_beneath(connection, folder);
    same = named >= 0 && fstat(named, &there) == 0 && fstat(fsp_get_io_fd(dirfsp), &here) == 0 &&
           there.st_ino == here.st_ino && there.st_dev == here.st_dev;
    if (named >= 0) close(named);
    kavrin_root_end(root);
    errno = ENOENT;
    return same;
}

static bool is_time_to_look(struct kavrin_open* listing, const struct dirent* entry) {
    const time_t now = time(NULL);
    const bool is_time = ISDOT(entry->d_name) || (listing != NULL && listing->looked != now);

    if (is_time && listing != NULL) listing->looked = now;
    return is_time;
}

struct dirent* kavrin_readdir(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                              DIR* dirp, SMB_STRUCT_STAT* sbuf) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    struct kavrin_open* listing;
    char* made = NULL;
    char* folder;
    struct dirent* entry;

    if (connection->is_scanning || kavrin_is_own_work())
        return SMB_VFS_NEXT_READDIR(handle, dirfsp, dirp, sbuf);
    listing = VFS_FETCH_FSP_EXTENSION(handle, dirfsp);
    if (listing != NULL && listing->record.path != NULL &&
        strcmp(listing->record.path, dirfsp->fsp_name->base_name) == 0) {
        folder = listing->record.path;
    } else {
        folder = made = kavrin_path_of(talloc_tos(), handle, dirfsp);
        if (folder == NULL) return NULL;
    }
    do {
        entry = read_entry(handle, dirfsp, dirp, sbuf);
        if (entry != NULL && is_time_to_look(listing, entry) && !may_go_on(handle, dirfsp, folder))
            entry = NULL;
    } while (entry != NULL && !is_dots(entry) && !is_shown(connection, folder, entry->d_name));
    TALLOC_FREE(made);
    note_shown(handle, dirfsp, listing, entry);
    return entry;
}

/* The name as it is on the disk. smbd reads the whole folder for that, which is no listing of a
 * client's. What it found it refers to next, and that is asked: a name that the user may not see is
 * refused as in its own letters. Were it not found, smbd would make a second one beside it. */
NTSTATUS kavrin_get_real_filename_at(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                                     const char* name, TALLOC_CTX* mem_ctx, char** found_name) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const bool outer = connection->is_scanning;
    NTSTATUS status;

    connection->is_scanning = true;
    status = get_real_filename_full_scan_at(dirfsp, name, false, mem_ctx, found_name);
    connection->is_scanning = outer;
    return status;
}

int kavrin_mkdirat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    kv_perm_ctx_t* context = NULL;
    char* full_path = NULL;
    char* path;
    bool root;
    bool is_decided;
    int result = 0;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_MKDIRAT(handle, dirfsp, smb_fname, mode);
    if (kavrin_is_for_another(connection)) return refuse();
    path = kavrin_path(talloc_tos(), handle, dirfsp, smb_fname);
    if (path == NULL) return -1;
    is_decided = kavrin_is_decided(connection, path);
    if (!is_decided) {
        kavrin_hook_begin(connection);
        result = mkdir_preprocess(connection->share_root, path, &full_path, &connection->library,
                                  &context);
        kavrin_hook_end(&context);
    }
    TALLOC_FREE(path);
    if (result != 0) return -1;
    root = kavrin_root_begin(true);
    result = SMB_VFS_NEXT_MKDIRAT(handle, dirfsp, smb_fname, mode);
    kavrin_root_end(root);
    kavrin_changed(connection);
    if (is_decided) return result;
    if (result != 0) {
        const int error = errno;
        free(full_path);
        errno = error;
        return -1;
    }
    kavrin_hook_begin(connection);
    mkdir_postprocess(&connection->library, &full_path); /* frees it */
    kavrin_hook_end(NULL);
    return 0;
}

int kavrin_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    kv_perm_ctx_t* context = NULL;
    char *from, *to;
    char *old_full_path = NULL, *new_full_path = NULL;
    int is_folder = 0, is_nav = 0;
    bool root;
    int result;

    if (kavrin_is_own_work())
        return SMB_VFS_NEXT_RENAMEAT(handle, srcdir_fsp, smb_fname_src, dstdir_fsp, smb_fname_dst);
    if (kavrin_is_for_another(connection)) return refuse();
    from = kavrin_path(talloc_tos(), handle, srcdir_fsp, smb_fname_src);
    to = from == NULL ? NULL : kavrin_path(talloc_tos(), handle, dstdir_fsp, smb_fname_dst);
    if (to == NULL) {
        TALLOC_FREE(from);
        return -1;
    }
    kavrin_hook_begin(connection);
    result = rename_preprocess(from, to, connection->share_root, &context, &is_folder,
                               &connection->library, &is_nav, &old_full_path, &new_full_path);
    if (result != 0) context = NULL; /* used up by the hook */
    kavrin_hook_end(&context);
    TALLOC_FREE(from);
    TALLOC_FREE(to);
    if (result != 0) return -1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_RENAMEAT(handle, srcdir_fsp, smb_fname_src, dstdir_fsp, smb_fname_dst);
    kavrin_root_end(root);
    kavrin_changed(connection);
    if (result == 0) {
        kavrin_hook_begin(connection);
        rename_postprocess(new_full_path, old_full_path, is_folder, &connection->library);
        kavrin_hook_end(NULL);
    }
    const int error = errno;
    free(old_full_path);
    free(new_full_path);
    errno = error;
    return result;
}

static int ask_removal(struct kavrin_connection* connection, char* path, bool is_folder,
                       char** full_path) {
    kv_perm_ctx_t* context = NULL;
    int result;

    if (kavrin_is_for_another(connection)) {
        if (!kavrin_may(connection, is_folder ? FSOP_RMDIR : FSOP_OPEN_WRITE, path, 0))
            return refuse();
        *full_path = get_full_path(connection->share_root, path);
        return *full_path == NULL ? -1 : 0;
    }
    kavrin_hook_begin(connection);
    result = is_folder ? rmdir_preprocess(full_path, connection->share_root, path,
                                          &connection->library, &context)
                       : unlink_preprocess(connection->share_root, path, full_path,
                                           &connection->library, &context);
    kavrin_hook_end(&context);
    return result;
}

int kavrin_unlinkat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                    const struct smb_filename* smb_fname, int flags) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const bool is_folder = (flags & AT_REMOVEDIR) != 0;
    char* full_path = NULL;
    char* path;
    bool root;
    int result;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_UNLINKAT(handle, dirfsp, smb_fname, flags);
    path = kavrin_path(talloc_tos(), handle, dirfsp, smb_fname);
    if (path == NULL) return -1;
    result = ask_removal(connection, path, is_folder, &full_path);
    TALLOC_FREE(path);
    if (result != 0) return -1;
    root = kavrin_root_begin(false);
    result = SMB_VFS_NEXT_UNLINKAT(handle, dirfsp, smb_fname, flags);
    kavrin_root_end(root);
    kavrin_changed(connection);
    if (result == 0) {
        kavrin_hook_begin(connection);
        (is_folder ? rmdir_postprocess : unlink_postprocess)(full_path);
        kavrin_hook_end(NULL);
    }
    const int error = errno;
    free(full_path);
    errno = error;
    return result;
}

/* Whether the way to a folder is free of links (note 2). Asked as root. */
static bool is_straight(const struct kavrin_connection* connection, const char* path) {
    const int folder = kavrin_open_beneath(connection, path);
    struct stat status;
    bool straight = folder >= 0 && fstat(folder, &status) == 0;

    if (straight && S_ISLNK(status.st_mode)) {
        errno = ELOOP;
        straight = false;
    }
    if (folder >= 0) {
        const int error = errno;
        close(folder);
        errno = error;
    }
    return straight;
}

static bool may_enter(struct kavrin_connection* connection, char* path) {
    kv_perm_ctx_t* context = NULL;
    int result;

    if (kavrin_is_for_another(connection))
        return kavrin_may(connection, FSOP_CHDIR, path, FSTYPE_FOLDER) || refuse() == 0;

    kavrin_hook_begin(connection);
    result = chdir_preprocess(path, connection->share_root, &connection->library, &context);
    kavrin_hook_end(&context);
    return result == 0;
}

/* The share's root is open to everybody, and not asked: smbd returns to it all the time. It leaves
 * the share as root when a connection ends. */
int kavrin_chdir(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const bool is_user = !kavrin_is_own_work();
    char* path = NULL;
    bool is_below = false;
    bool root;
    char* target;
    int result = -1;

    if (is_user) {
        path = kavrin_path(talloc_tos(), handle, NULL, smb_fname);
        if (path == NULL) return -1;
        is_below = strcmp(path, ".") != 0;
        if (is_below && !may_enter(connection, path)) {
            TALLOC_FREE(path);
            return -1;
        }
    }
    target = smb_fname->base_name[0] == '/' || kavrin_folder() == NULL
                 ? talloc_strdup(talloc_tos(), smb_fname->base_name)
                 : talloc_asprintf(talloc_tos(), "%s/%s", kavrin_folder(), smb_fname->base_name);
    root = kavrin_root_begin(false);
    if (target == NULL)
        errno = ENOMEM;
    else if (!is_below || is_straight(connection, path))
        result = SMB_VFS_NEXT_CHDIR(handle, smb_fname);
    kavrin_root_end(root);
    if (result == 0 && !kavrin_set_folder(target)) {
        errno = ENOMEM;
        result = -1;
    }
    TALLOC_FREE(path);
    TALLOC_FREE(target);
    return result;
}
