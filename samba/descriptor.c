/* What Windows shows on the security page: a descriptor made of verdicts on this one user. It is
 * for reading; rights are changed where the map is made. smbd checks with descriptors, too, but the
 * module does not lean on that: what smbd does was or will be asked, and its own look finds a
 * descriptor that stands in nobody's way. */
#include "kavrin_module.h"

#include "kavrin_perms.h"
#include "libcli/security/dom_sid.h"
#include "libcli/security/secace.h"
#include "libcli/security/secacl.h"
#include "libcli/security/secdesc.h"
#include "librpc/gen_ndr/security.h"
#include "processing_functions.h"

/* Whoever sees an object may see these. */
static const uint32_t always = SEC_STD_READ_CONTROL | SEC_STD_SYNCHRONIZE | SEC_FILE_READ_ATTRIBUTE;

static bool is_fixed(const struct kavrin_connection* connection, const char* path) {
    char* full_path;
    fixed_folder_res result;

    if (connection->library.groupmap.admin != 0 || strncmp(path, "Shared", 6) != 0) return false;
    full_path = get_full_path(connection->share_root, path);
    if (full_path == NULL) return true;
    result = is_fixed_folder(full_path);
    free(full_path);
    return result != NOT_FIXED_FOLDER;
}

/* SMB knows one right for removing a folder and for renaming it; the operation itself is asked when
 * it comes. */
static bool may_move_folder(struct kavrin_connection* connection, const char* path) {
    bool fixed;

    if (strcmp(path, ".") == 0 || is_deleteable(path) == 0) return false;
    kavrin_hook_begin(connection);
    fixed = is_fixed(connection, path);
    kavrin_hook_end(NULL);
    return !fixed && (kavrin_may(connection, FSOP_RMDIR, path, FSTYPE_FOLDER) ||
                      kavrin_may(connection, FSOP_MKDIR, path, FSTYPE_FOLDER));
}

static uint32_t rights_on_folder(struct kavrin_connection* connection, const char* path,
                                 uint32_t wanted) {
    static const uint32_t adding = SEC_DIR_ADD_FILE | SEC_DIR_WRITE_ATTRIBUTE | SEC_DIR_WRITE_EA;
    uint32_t rights = always | SEC_DIR_TRAVERSE;
    char* entry = kavrin_join(talloc_tos(), path, "new entry");

    if (entry == NULL) return rights;
    if ((wanted & SEC_RIGHTS_DIR_READ & ~always) != 0 &&
        kavrin_may(connection, FSOP_OPENDIR, path, FSTYPE_FOLDER))
        rights |= SEC_RIGHTS_DIR_READ;
    if ((wanted & adding) != 0 && kavrin_may(connection, FSOP_CREATE, entry, FSTYPE_DOES_NOT_EXIST))
        rights |= adding;
    if ((wanted & SEC_DIR_ADD_SUBDIR) != 0 &&
        kavrin_may(connection, FSOP_MKDIR, entry, FSTYPE_DOES_NOT_EXIST))
        rights |= SEC_DIR_ADD_SUBDIR;
    if ((wanted & SEC_STD_DELETE) != 0 && may_move_folder(connection, path))
        rights |= SEC_STD_DELETE;
    TALLOC_FREE(entry);
    return rights;
}

static uint32_t rights_on_file(struct kavrin_connection* connection, const char* path) {
    uint32_t rights = always;

    if (kavrin_may(connection, FSOP_OPEN_READ, path, FSTYPE_FILE))
        rights |= SEC_RIGHTS_FILE_READ | SEC_RIGHTS_FILE_EXECUTE;
    if (kavrin_may(connection, FSOP_OPEN_WRITE, path, FSTYPE_FILE))
        rights |= SEC_RIGHTS_FILE_WRITE | SEC_STD_DELETE;
    return rights;
}

/* Whether the user may have a handle on a folder with these rights. Clients ask for full control by
 * habit; who may write gets a handle, and the change of rights itself is refused. */
bool kavrin_has_rights(struct kavrin_connection* connection, const char* path, uint32_t wanted) {
    static const uint32_t by_habit = SEC_STD_WRITE_DAC | SEC_STD_WRITE_OWNER | SEC_DIR_DELETE_CHILD;

    if ((wanted & by_habit) != 0) wanted = (wanted & ~by_habit) | SEC_DIR_ADD_FILE;
    return (wanted & ~rights_on_folder(connection, path, wanted)) == 0;
}

/* Whether a client will see the descriptor, or is given what it grants. It sees it through a handle
 * of its own; smbd looks through path references. */
static bool is_for_client(struct vfs_handle_struct* handle, const struct files_struct* fsp,
                          const char* path) {
    const struct kavrin_connection* connection = kavrin_connection_of(handle);

    if (VFS_FETCH_FSP_EXTENSION(handle, fsp) != NULL) return true;
    return connection->wants_maximum && kavrin_is_decided(connection, path);
}

NTSTATUS kavrin_fget_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info, TALLOC_CTX* mem_ctx,
                            struct security_descriptor** ppdesc) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    const struct security_token* token = get_current_nttok(handle->conn);
    const bool is_folder = fsp->fsp_flags.is_directory || S_ISDIR(fsp->fsp_name->st.st_ex_mode);
    const int error = errno;
    struct dom_sid owner, group;
    struct security_ace entry;
    struct security_acl* acl = NULL;
    size_t size = 0;
    uint32_t rights = SEC_RIGHTS_FILE_ALL;
    char* path = kavrin_path_of(talloc_tos(), handle, fsp);

    if (path == NULL) return map_nt_error_from_unix(errno);
    /* The right to remove what is in a folder would be one on each object in it. */
    if (is_folder && !kavrin_is_decided(connection, path)) rights &= ~SEC_DIR_DELETE_CHILD;
    if (is_for_client(handle, fsp, path))
        rights = is_folder ? rights_on_folder(connection, path, rights)
                           : rights_on_file(connection, path);
    TALLOC_FREE(path);
    /* An owner would be granted the change of rights, so nobody is one but root. */
    dom_sid_parse("S-1-22-1-0", &owner); /* Unix user and group of that number */
    dom_sid_parse("S-1-22-2-0", &group);
    init_sec_ace(&entry, &token->sids[0], SEC_ACE_TYPE_ACCESS_ALLOWED, rights, 0);
    acl = make_sec_acl(talloc_tos(), NT4_ACL_REVISION, 1, &entry);
    if (acl == NULL) return NT_STATUS_NO_MEMORY;
    *ppdesc = make_sec_desc(mem_ctx, SECURITY_DESCRIPTOR_REVISION_1,
                            SEC_DESC_SELF_RELATIVE | SEC_DESC_DACL_PRESENT,
                            (security_info & SECINFO_OWNER) != 0 ? &owner : NULL,
                            (security_info & SECINFO_GROUP) != 0 ? &group : NULL, NULL,
                            (security_info & SECINFO_DACL) != 0 ? acl : NULL, &size);
    TALLOC_FREE(acl);
    errno = error;
    return *ppdesc == NULL ? NT_STATUS_NO_MEMORY : NT_STATUS_OK;
}

NTSTATUS kavrin_fset_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info_sent, const struct security_descriptor* psd) {
    (void)handle, (void)security_info_sent, (void)psd;
    DBG_NOTICE("%s: rights are not changed here; they come with the permission map\n",
               fsp_str_dbg(fsp));
    return NT_STATUS_ACCESS_DENIED;
}

int kavrin_sys_acl_set_fd(struct vfs_handle_struct* handle, struct files_struct* fsp,
                          SMB_ACL_TYPE_T type, SMB_ACL_T theacl) {
    (void)handle, (void)fsp, (void)type, (void)theacl;
    errno = EPERM;
    return -1;
}

int kavrin_sys_acl_delete_def_fd(struct vfs_handle_struct* handle, struct files_struct* fsp) {
    (void)handle, (void)fsp;
    errno = EPERM;
    return -1;
}
