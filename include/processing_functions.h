/* The hooks around file-system operations.
 *
 * A *_preprocess hook returns 0 to let the operation run and -1 to refuse it with errno set. On 0 it
 * usually leaves the thread running as root and hands the credentials back in *perm_ctx, which must be
 * null before: after the operation, and before the *_postprocess hook, the module restores them with
 * kavrin_vfs_unbecome_root() (but for ntimes_dir_postprocess(), which does it itself). On -1 the
 * thread's uids are as they were, its effective gid as vfs_enforce_perms() leaves it, and *perm_ctx
 * must not be used. A *_postprocess hook records the operation after it succeeded; it is called as
 * the user, since events of root are dropped.
 *
 * Paths: `connectpath` is the share's root folder; base names are relative to it. *full_path is a
 * heap string; a refusing hook frees it (the pointer keeps its value), after success it is the
 * module's, to hand to the postprocess hook and to free. */
#ifndef KAVRIN_PROCESSING_FUNCTIONS_H
#define KAVRIN_PROCESSING_FUNCTIONS_H

#include <stdint.h>
#include <sys/stat.h>

#include "kavrin_structs.h"

KV_BEGIN_DECLS

/** How a file is opened. */
typedef enum e_open_mode KV_INT_ENUM {
    OPENMODE_INVALID = 0,
    OPENMODE_READ = 1,
    OPENMODE_WRITE = 2,
    OPENMODE_CREATE = 3,
    OPENMODE_CHATTR = 4
} e_open_mode_t;

/** Whether a folder is fixed: not to be deleted or renamed by users. */
typedef enum fixed_folder_res_e {
    NOT_FIXED_FOLDER = 0,
    FIXED_FOLDER = 1,
    FOLDER_EACCES = 2 /**< its attribute cannot be read, or is no mark */
} fixed_folder_res;

/** Present and empty on a fixed folder. */
#define XATTR_FIXED_FOLDER "user.kavrin.fixed_folder"

/** The user who last changed a file, without a terminator. */
#define XATTR_MODIFYING_USER "user.kavrin.last_smb_accessed_by"

/* Files ------------------------------------------------------------------------------------------- */

/**
 * Before a file is opened. The open itself runs as the user, who needs rights on the disk.
 * @param open_mode          what for; CREATE and CHATTR become WRITE
 * @param op                 receives the operation checked
 * @param full_path          in: the module's; freed on refusal
 * @param newly_created_file set to 1 when the file does not exist, else left alone
 * @param is_delete_folder_access non-zero when a folder is opened to delete it
 * @param st                 receives the file's status, when it has one
 * @param remote_hostname    the client, for the audit record of a read
 * @return 0; -1 with EACCES; 12, errno untouched, for a null base name
 */
int open_preprocess(const char *connectpath, char *base_name, e_open_mode_t *open_mode,
                    e_fsop_type_t *op, char **full_path, int *newly_created_file,
                    int is_delete_folder_access, kv_connection_private_data_t *private_data,
                    struct stat *st, const char *remote_hostname, kv_perm_ctx_t **perm_ctx,
                    int audit_enabled);

/** After it: records a creation. @return 0; -1 for a folder, with *full_path freed. *perm_ctx is
 *  used up on the way and must not be restored. */
int open_postprocess(struct stat *st, kv_perm_ctx_t **perm_ctx, char **full_path,
                     int newly_created_file);

/**
 * Before a file is created or opened through the SMB create call.
 * @param file_exists        receives 1 or 0
 * @param create_disposition FILE_SUPERSEDE 0 to FILE_OVERWRITE_IF 5
 * @return 0, as root; -1 with EACCES
 */
int create_file_preprocess(int write_access_requested, char **full_path, const char *nlpath,
                           const char *base_name, kv_perm_ctx_t **perm_ctx, int *file_exists,
                           uint32_t access_mask, uint32_t create_disposition,
                           uint32_t create_options, const char *connectpath,
                           kv_connection_private_data_t *private_data);

/** After it: records the creation and the last modifier. */
void create_file_postprocess(kv_connection_private_data_t *private_data, char *full_path);

/**
 * Before a file is closed: records a change, or audits a read.
 * @param closefd          its descriptor
 * @param pmodify          in: the module's record of the file, used when the connection has none;
 *                         out: the one used
 * @param connection_valid 0: nothing is recorded
 */
void close_preprocess(int audit_enabled, int closefd, kv_connection_private_data_t *private_data,
                      modify_file_evt_s_t **pmodify, int connection_valid,
                      const char *remote_hostname);

/**
 * Before a file or folder is renamed or moved.
 * @param isdir  receives 1 for a folder, else 0
 * @param is_nav receives 1 when access was granted for navigation or viewing only
 * @return 0, as root; -1 with EACCES, ENOENT (no source) or ENOMEM
 */
int rename_preprocess(char *old_base_name, char *new_base_name, const char *connectpath,
                      kv_perm_ctx_t **perm_ctx, int *isdir,
                      kv_connection_private_data_t *private_data, int *is_nav,
                      char **old_full_path, char **new_full_path);

/** After it: records the rename, and the last modifier on the new path. */
void rename_postprocess(char *new_full_path, char *old_full_path, int isdir,
                        kv_connection_private_data_t *private_data);

/** Before a file is removed. @return 0, as root; -1 with EACCES or ENOMEM */
int unlink_preprocess(const char *connectpath, char *base_name, char **full_path,
                      kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** After it: records the removal. */
void unlink_postprocess(char *full_path);

/* Folders ----------------------------------------------------------------------------------------- */

/** Before a folder is opened by name. @param nlpath receives the path checked, the module's to free;
 *  null after a refusal. @return 0, as root; -1 with EACCES, or ENOMEM for a null name or when a
 *  copy failed */
int opendir_preprocess(const char *fname, const char *cwd, const char *connectpath, char **nlpath,
                       kv_perm_ctx_t **perm_ctx, kv_connection_private_data_t *private_data,
                       int *is_nav);

/** Before a folder is opened by descriptor. @param delete_access non-zero when it is opened to
 *  delete it. @return 0, as root; -1 with EACCES, or ENOMEM for a null name or without memory */
int fdopendir_preprocess(const char *connectpath, const char *fname, int delete_access,
                         kv_connection_private_data_t *private_data, int *is_nav,
                         kv_perm_ctx_t **perm_ctx);

/** Before a folder is listed. @param base receives the folder; in: what stands when the connection
 *  has no record. @return 0, or -1 without a folder */
int readdir_preprocess(modify_file_evt_s_t **pmodify, char **base,
                       kv_connection_private_data_t *private_data);

/** For each entry of a listing. @param allowed receives the verdict: KVPERMS_HAS_PERMS shows the
 *  entry. @param full_path a buffer with room for base, "/", the name and a terminator, whatever
 *  `full_path_size` (the bytes cleared first) says */
void readir_postprocess(int *allowed, const char *nlpath, const char *base, char *full_path,
                        int full_path_size, const char *connectpath,
                        kv_connection_private_data_t *private_data);

/** Before a folder is made. @return 0, as root; -1 with EACCES or ENOMEM */
int mkdir_preprocess(const char *connectpath, const char *path, char **full_path,
                     kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** After it: records it and the last modifier, and frees *full_path. */
void mkdir_postprocess(kv_connection_private_data_t *private_data, char **full_path);

/** Before a folder is removed. @return 0, as root; -1 with EPERM or ENOMEM */
int rmdir_preprocess(char **full_path, const char *connectpath, const char *path,
                     kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** After it: records it. */
void rmdir_postprocess(char *full_path);

/** Before a folder is made or opened through the SMB create call. @param full_path the module's;
 *  freed on refusal. @return 0, as root; -1 with EACCES, or ENOMEM without root */
int create_dir_preprocess(int is_delete_access, const char *nlpath, char **full_path,
                          int create_dir, const char *connectpath,
                          kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** After it: records it and the last modifier. */
void create_dir_postprocess(char *full_path, kv_connection_private_data_t *private_data);

/* Metadata ---------------------------------------------------------------------------------------- */

/** Before a stat; refreshes the credentials first. @return 0, as root; -1 with EPERM, or ENOMEM for a
 *  null name */
int stat_preprocess(kv_connection_private_data_t *private_data, char *base_name,
                    const char *connectpath, kv_perm_ctx_t **perm_ctx);

/** Before an lstat. @return 0, as root; -1 with EACCES or ENOMEM */
int lstat_preprocess(const char *connectpath, char *base_name, kv_perm_ctx_t **perm_ctx,
                     kv_connection_private_data_t *private_data);

/** Before a change of folder. @return 0, as root; -1 with EACCES, or ENOMEM for a null path */
int chdir_preprocess(char *path, const char *connectpath,
                     kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** Before file-system statistics. Ask for the share root only: elsewhere a path that no earlier rule
 *  decides ends the process. @return 0, as root; -1 with EACCES or ENOMEM */
int statvfs_preprocess(const char *connectpath, char *path,
                       kv_connection_private_data_t *private_data, kv_perm_ctx_t **perm_ctx);

/** Before a folder's times are set: becomes root, without a check. */
void ntimes_dir_preprocess(kv_perm_ctx_t **perm_ctx, const char *base_name);

/** After it: restores and frees a context. */
void ntimes_dir_postprocess(kv_perm_ctx_t *perm_ctx);

/** Before a file's times are set: becomes root, without a check. @return 0, also when root could not
 *  be taken; -1 with ENOMEM */
int ntimes_file_preprocess(char **full_path, const char *connectpath, const char *base_name,
                           kv_perm_ctx_t **perm_ctx);

/** After it: records a change and the last modifier. */
void ntimes_file_postprocess(char *full_path, kv_connection_private_data_t *private_data);

/* Shared by hooks and module ---------------------------------------------------------------------- */

/** "FOLDER/PATH", which the caller frees, or null without memory or for a null argument. */
char *get_full_path(const char *folder, const char *path);

/** What open(2) flags ask for. */
e_open_mode_t mode2kavrinmode(int flags);

/** 1 when the paths' parents differ (a move), 0 when not (a rename), -1 when that cannot be told. */
int is_amove(char *src_fsobj, char *dst_fsobj);

/** 0 for "Private" and a user's own folder below it, which nobody deletes, else 1. */
int is_deleteable(const char *path_to_delete);

/** 1 when an exception pattern matches, else 0. */
int is_deletable_file(char *fname);

/** The last component of a path, which the caller frees; null for null. */
char *child_from_path(const char *path);

/** Reads a folder's mark, as root. */
fixed_folder_res is_fixed_folder(const char *full_path);

/** Writes the last modifier of a file, as root. @return 0, or -1 */
int set_xattr_modifying_user(const char *file_path, const char *user_name);

/* In the static library only: */

/** Operation and mode of an SMB create disposition; what it does not decide is left alone.
 *  @param create_options traced only */
void _get_op_create_file(const char *nlpath, uint32_t create_disposition, uint32_t create_options,
                         int file_exists, int write_access_requested, e_fsop_type_t *op,
                         e_open_mode_t *open_mode);

KV_END_DECLS

#endif
