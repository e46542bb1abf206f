/* Opening and creating. smbd opens an object several times for one wish of a client: path
 * references to find it, then the create call, and inside of that the real open. The create call is
 * the wish: it is asked, and what it does to that very object is not asked again (note 9). */
#include "kavrin_module.h"

#include "kavrin_perms.h"
#include "kavrin_vfs_utils.h"
#include "libcli/security/access_check.h"
#include "processing_functions.h"

extern const struct generic_mapping file_generic_mapping; /* declared in no header of Samba's */

/* What counts as changing a file: its contents, its attributes, its name. */
static const uint32_t writing_access =
    SEC_FILE_WRITE_DATA | SEC_FILE_APPEND_DATA | SEC_FILE_WRITE_EA | SEC_FILE_WRITE_ATTRIBUTE |
    SEC_STD_DELETE | SEC_STD_WRITE_DAC | SEC_STD_WRITE_OWNER | SEC_GENERIC_WRITE | SEC_GENERIC_ALL;

static bool is_reopen(const struct smb_filename* name) {
    return strncmp(name->base_name, "/proc/self/fd/", 14) == 0;
}

/* An open that no create call asked for: a durable handle that comes back, and whatever a later
 * smbd thinks of. */
static int ask_open(struct kavrin_connection* connection, const char* path, int flags) {
    e_open_mode_t mode = mode2kavrinmode(flags);
    e_fsop_type_t op = FSOP_INVAL;
    char* full_path = get_full_path(connection->share_root, path);
    kv_perm_ctx_t* context = NULL;
    struct stat status;
    int is_new = 0;
    int result;

    ZERO_STRUCT(status);
    if (kavrin_is_for_another(connection)) {
        free(full_path);
        errno = EACCES;
        return -1;
    }
    if (full_path == NULL) {
        errno = ENOMEM;
        return -1;
    }
    kavrin_hook_begin(connection);
    result =
        open_preprocess(connection->share_root, discard_const_p(char, path), &mode, &op, &full_path,
                        &is_new, 0, &connection->library, &status, connection->client, &context, 0);
    kavrin_hook_end(&context);
    if (result == 0) {
        const int error = errno;
        free(full_path);
        errno = error;
    }
    return result == 0 ? 0 : -1;
}

/* A client's listing refers to each entry right after it was asked and shown (note 9). */
static bool is_just_listed(struct vfs_handle_struct* handle, const struct files_struct* folder,
                           const char* name) {
    struct kavrin_open* listing = VFS_FETCH_FSP_EXTENSION(handle, folder);
    bool listed;

    if (listing == NULL || listing->listed == NULL) return false;
    listed = strcmp(listing->listed, name) == 0;
    TALLOC_FREE(listing->listed);
    return listed;
}

/* Opens of smbd's that no create call asked for. */
static bool is_allowed(struct kavrin_connection* connection, const char* path,
                       const struct vfs_open_how* how) {
    if (kavrin_is_decided(connection, path)) return true;
    if (connection->is_scanning) return kavrin_ask_stat(connection, path) == 0;
    if ((how->flags & O_DIRECTORY) == 0) return ask_open(connection, path, how->flags) == 0;
    /* smbd looks whether a folder is empty that a client wants removed, and that is the moment to
     * refuse: a refusal when the handle is closed would reach nobody. */
    if (kavrin_may(connection, FSOP_RMDIR, path, FSTYPE_FOLDER)) return true;
    errno = EACCES;
    return false;
}

/* The record of what was opened, for its writes and its close. */
static struct kavrin_open* add_record(struct vfs_handle_struct* handle, files_struct* fsp,
                                      const char* path) {
    struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);

    if (open != NULL) return open;
    open = VFS_ADD_FSP_EXTENSION(handle, fsp, struct kavrin_open, NULL);
    if (open == NULL) return NULL;
    open->record.path = talloc_strdup(VFS_MEMCTX_FSP_EXTENSION(handle, fsp), path);
    return open;
}

static void remember_late_open(struct vfs_handle_struct* handle, files_struct* fsp,
                               const char* path, int flags) {
    struct kavrin_open* open = add_record(handle, fsp, path);

    if (open != NULL) open->reads = (flags & O_ACCMODE) != O_WRONLY;
}

static int open_as_root(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                        const struct smb_filename* smb_fname, struct files_struct* fsp,
                        const struct vfs_open_how* how) {
    struct vfs_open_how strict = *how;
    bool root;
    int result;

    if (!is_reopen(smb_fname)) { /* note 2; a reopened handle was opened so before */
        strict.resolve |= VFS_OPEN_HOW_RESOLVE_NO_SYMLINKS;
        if ((strict.flags & O_CREAT) == 0) strict.mode = 0; /* as openat2(2) wants it */
    }
    root = kavrin_root_begin((how->flags & O_CREAT) != 0);
    result = SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, &strict);
    kavrin_root_end(root);
    return result;
}

/* A path reference gives nothing but the object's status, so it is opened first, and what is asked
 * is the object that was found. The share's root by its own path is open to everybody; what a
 * client wants there is asked. */
static int refer(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                 const struct smb_filename* smb_fname, struct files_struct* fsp,
                 const struct vfs_open_how* how, const char* path) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const bool is_root = strcmp(path, ".") == 0;
    int result = open_as_root(handle, dirfsp, smb_fname, fsp, how);
    int error = errno;

    if (!is_root && !kavrin_is_decided(connection, path) &&
        (result >= 0 ? kavrin_ask_stat : kavrin_ask_missing)(connection, path) != 0) {
        error = errno;
        if (result >= 0) close(result);
        result = -1;
    }
    if (result >= 0 && !is_root) connection->referred = fsp;
    errno = error;
    return result;
}

int kavrin_openat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                  const struct smb_filename* smb_fname, struct files_struct* fsp,
                  const struct vfs_open_how* how) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const bool is_reference = fsp->fsp_flags.is_pathref || (how->flags & O_PATH) != 0;
    bool is_late; /* without a create call */
    char* path;
    int result = -1;

    if (kavrin_is_own_work()) return SMB_VFS_NEXT_OPENAT(handle, dirfsp, smb_fname, fsp, how);
    connection->referred = NULL;
    if (is_reference && is_just_listed(handle, dirfsp, smb_fname->base_name))
        return open_as_root(handle, dirfsp, smb_fname, fsp, how);
    path = is_reopen(smb_fname) ? kavrin_path_of(talloc_tos(), handle, fsp)
                                : kavrin_path(talloc_tos(), handle, dirfsp, smb_fname);
    if (path == NULL) return -1;
    is_late = !is_reference && (how->flags & O_DIRECTORY) == 0 && connection->deciding == NULL;
    if (is_reference)
        result = refer(handle, dirfsp, smb_fname, fsp, how, path);
    else if (is_allowed(connection, path, how))
        result = open_as_root(handle, dirfsp, smb_fname, fsp, how);
    if (result >= 0 && is_late) remember_late_open(handle, fsp, path, how->flags);
    TALLOC_FREE(path);
    return result;
}

/* Creating files and folders ---------------------------------------------------------------------
 */

struct wish {
    const char* path;
    const struct files_struct* reference; /* smbd's own to it, made for this request */
    bool is_folder;
    bool exists;
    uint32_t access_mask;
    uint32_t disposition;
    uint32_t options;
};

/* What a look at an object takes, and the listing of a folder. */
static const uint32_t looking_access =
    SEC_FILE_READ_ATTRIBUTE | SEC_STD_READ_CONTROL | SEC_STD_SYNCHRONIZE;
static const uint32_t listing_access =
    SEC_RIGHTS_DIR_READ | SEC_DIR_TRAVERSE | SEC_FLAG_MAXIMUM_ALLOWED;

static bool is_making(const struct wish* wish) {
    return !wish->exists && wish->disposition != FILE_OPEN && wish->disposition != FILE_OVERWRITE;
}

static bool is_look(const struct wish* wish) {
    return wish->exists && wish->disposition == FILE_OPEN &&
           (wish->access_mask & ~looking_access) == 0 &&
           (wish->options & FILE_DELETE_ON_CLOSE) == 0;
}

/* smbd has just referred to it by its path, and that asked the same. */
static int ask_look(struct kavrin_connection* connection, const struct wish* wish) {
    if (wish->reference != NULL && wish->reference == connection->referred) return 0;
    if (kavrin_ask_stat(connection, wish->path) == 0) return 0;
    errno = EACCES;
    return -1;
}

/* A handle on a folder that can do more than list it. Whether it may be renamed depends on the new
 * name, so that is asked when it comes, as is its removal. */
static int ask_folder_rights(struct kavrin_connection* connection, const struct wish* wish) {
    const uint32_t beyond = wish->access_mask & ~(listing_access | SEC_STD_DELETE);

    if (beyond == 0 || kavrin_has_rights(connection, wish->path, beyond)) return 0;
    errno = EACCES;
    return -1;
}

/* A folder that is opened to delete it is asked for its marks, too; one that goes away with this
 * handle, whether it may be removed. */
static int ask_folder_deletion(struct kavrin_connection* connection, const struct wish* wish) {
    kv_perm_ctx_t* context = NULL;
    int is_nav = 0;
    int result;

    kavrin_hook_begin(connection);
    result = fdopendir_preprocess(connection->share_root, wish->path, 1, &connection->library,
                                  &is_nav, &context);
    kavrin_hook_end(&context);
    if (result != 0) return -1;
    if ((wish->options & FILE_DELETE_ON_CLOSE) == 0 ||
        kavrin_may(connection, FSOP_RMDIR, wish->path, FSTYPE_FOLDER))
        return 0;
    errno = EACCES;
    return -1;
}

static int ask_folder(struct kavrin_connection* connection, const struct wish* wish,
                      char** full_path) {
    const bool deletes =
        (wish->access_mask & SEC_STD_DELETE) != 0 || (wish->options & FILE_DELETE_ON_CLOSE) != 0;
    kv_perm_ctx_t* context = NULL;
    int result;

    kavrin_hook_begin(connection);
    result = create_dir_preprocess(deletes ? 1 : 0, wish->path, full_path, is_making(wish) ? 1 : 0,
                                   connection->share_root, &connection->library, &context);
    kavrin_hook_end(&context);
    if (result != 0) {
        *full_path = NULL; /* freed by the hook */
        return -1;
    }
    if (!wish->exists) return 0;
    if (ask_folder_rights(connection, wish) != 0) return -1;
    return deletes ? ask_folder_deletion(connection, wish) : 0;
}

static int ask_file(struct kavrin_connection* connection, const struct wish* wish,
                    char** full_path) {
    kv_perm_ctx_t* context = NULL;
    int exists = 0;
    int result;

    kavrin_hook_begin(connection);
    result = create_file_preprocess(
        (wish->access_mask & writing_access) != 0 || (wish->options & FILE_DELETE_ON_CLOSE) != 0,
        full_path, wish->path, wish->path, &context, &exists, wish->access_mask, wish->disposition,
        wish->options, connection->share_root, &connection->library);
    kavrin_hook_end(&context);
    if (result == 0) return 0;
    *full_path = NULL; /* freed by the hook */
    return -1;
}

static void record_creation(struct kavrin_connection* connection, const struct wish* wish,
                            char* full_path) {
    kavrin_changed(connection);
    kavrin_hook_begin(connection);
    if (wish->is_folder)
        create_dir_postprocess(full_path, &connection->library);
    else
        create_file_postprocess(&connection->library, full_path);
    kavrin_hook_end(NULL);
}

static bool remember_open(struct vfs_handle_struct* handle, files_struct* fsp, const char* path,
                          int info) {
    struct kavrin_open* open = add_record(handle, fsp, path);

    if (open == NULL) return false;
    open->record.is_modified = info == FILE_WAS_OVERWRITTEN || info == FILE_WAS_SUPERSEDED;
    open->reads = (fsp->access_mask & (SEC_FILE_READ_DATA | SEC_FILE_EXECUTE)) != 0;
    open->created = info == FILE_WAS_CREATED;
    return open->record.path != NULL;
}

static bool is_asked_to_write(const struct wish* wish) {
    return (wish->access_mask & writing_access) != 0 || wish->disposition != FILE_OPEN ||
           (wish->options & FILE_DELETE_ON_CLOSE) != 0;
}

/* Who asks for whatever rights there are gets what smbd reads out of descriptors, which need not be
 * ours (note 16). */
static void hold_to_questions(struct kavrin_connection* connection, const struct wish* wish,
                              struct files_struct* fsp) {
    const uint32_t unasked = fsp->access_mask & ~wish->access_mask;

    if (wish->is_folder) {
        const uint32_t beyond = unasked & ~listing_access;

        if (beyond != 0 && !kavrin_has_rights(connection, wish->path, beyond))
            fsp->access_mask &= ~beyond;
    } else if ((unasked & writing_access) != 0 && !is_asked_to_write(wish) &&
               !kavrin_may(connection, FSOP_OPEN_WRITE, wish->path, FSTYPE_FILE)) {
        fsp->access_mask &= ~writing_access;
        fsp->fsp_flags.can_write = false;
    }
}

/* The one question of a create call (note 9). */
static int ask(struct kavrin_connection* connection, const struct wish* wish, char** full_path) {
    if (is_look(wish)) return ask_look(connection, wish);
    return (wish->is_folder ? ask_folder : ask_file)(connection, wish, full_path);
}

NTSTATUS kavrin_create_file(struct vfs_handle_struct* handle, struct smb_request* req,
                            struct files_struct* dirfsp, struct smb_filename* smb_fname,
                            uint32_t access_mask, uint32_t share_access,
                            uint32_t create_disposition, uint32_t create_options,
                            uint32_t file_attributes, uint32_t oplock_request,
                            const struct smb2_lease* lease, uint64_t allocation_size,
                            uint32_t private_flags, struct security_descriptor* sd,
                            struct ea_list* ea_list, files_struct** result, int* pinfo,
                            const struct smb2_create_blobs* in_context_blobs,
                            struct smb2_create_blobs* out_context_blobs) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const char* outer = connection->deciding;
    const bool outer_wants_maximum = connection->wants_maximum;
    struct wish wish = {
        .reference = smb_fname->fsp,
        .exists = VALID_STAT(smb_fname->st),
        .access_mask = access_mask,
        .disposition = create_disposition,
        .options = create_options,
    };
    const bool is_root = kavrin_is_own_work();
    char* path = NULL;
    char* full_path = NULL;
    int info = 0;
    NTSTATUS status = NT_STATUS_OK;

    if (is_named_stream(smb_fname)) return NT_STATUS_OBJECT_NAME_INVALID;
    if (!is_root && kavrin_is_for_another(connection)) return NT_STATUS_ACCESS_DENIED;
    /* Whatever the folder is, the name is the one within the share. */
    path = kavrin_path(talloc_tos(), handle, NULL, smb_fname);
    if (path == NULL) return map_nt_error_from_unix(errno);
    wish.path = path;
    se_map_generic(&wish.access_mask, &file_generic_mapping);
    wish.is_folder = (create_options & FILE_DIRECTORY_FILE) != 0 ||
                     (wish.exists && S_ISDIR(smb_fname->st.st_ex_mode));
    if (!is_root) {
        full_path = get_full_path(connection->share_root, path);
        if (full_path == NULL)
            status = NT_STATUS_NO_MEMORY;
        else if (ask(connection, &wish, &full_path) != 0)
            status = map_nt_error_from_unix(errno);
    }
    if (!wish.exists) sd = NULL; /* rights come with the map; smbd would refuse what it has made */
    if (NT_STATUS_IS_OK(status)) {
        connection->deciding = path;
        connection->wants_maximum = (wish.access_mask & SEC_FLAG_MAXIMUM_ALLOWED) != 0;
        status = SMB_VFS_NEXT_CREATE_FILE(
            handle, req, dirfsp, smb_fname, access_mask, share_access, create_disposition,
            create_options, file_attributes, oplock_request, lease, allocation_size, private_flags,
            sd, ea_list, result, &info, in_context_blobs, out_context_blobs);
        connection->deciding = outer;
        connection->wants_maximum = outer_wants_maximum;
    }
    if (NT_STATUS_IS_OK(status)) {
        if (pinfo != NULL) *pinfo = info;
        if (!is_root && info == FILE_WAS_CREATED) record_creation(connection, &wish, full_path);
        if (!is_root && info != FILE_WAS_CREATED && *result != NULL)
            hold_to_questions(connection, &wish, *result);
        if (*result != NULL && !remember_open(handle, *result, path, info))
            DBG_ERR("%s: no memory to record what happens to it\n", path);
    }
    free(full_path);
    TALLOC_FREE(path);
    return status;
}
