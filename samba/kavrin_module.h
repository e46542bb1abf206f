/* What the parts of the module share: the record of a connection and of an open object, and the few
 * helpers that every operation goes through. One part a concern: vfs_kavrin.c (connections and the
 * table), options.c, identity.c, paths.c, opens.c, writes.c, folders.c, metadata.c,
 * descriptor.c. */
#ifndef KAVRIN_MODULE_H
#define KAVRIN_MODULE_H

#include "includes.h"
#include "smbd/smbd.h"

#include "kavrin_structs.h"

/* Messages go to the class that vfs_kavrin.c registers. */
extern int kavrin_debug_class;
#undef DBGC_CLASS
#define DBGC_CLASS kavrin_debug_class

/* One tree connection; the handle's data. */
struct kavrin_connection {
    kv_connection_private_data_t library;
    struct tevent_context* events;
    char* share_root; /* its real path */
    int root_fd;      /* a path reference to it */
    uid_t uid;        /* the user's */
    gid_t group;      /* and his own group */
    int audit;
    const char* client;   /* its address, for audit records */
    const char* deciding; /* what the create call under way was allowed; null outside of one */
    bool wants_maximum;   /* that call asks for whatever rights there are */
    const struct files_struct* referred; /* what the last path reference, which was asked, is for */
    bool is_scanning;                    /* smbd looks for a name in another letter case */
    sig_atomic_t signals;                /* SIGUSR1s that were answered */
    time_t group_map_seen; /* when the library last read the group map, as far as is known here */
};

/* What a user opened; an extension of its fsp. Path references have none. */
struct kavrin_open {
    modify_file_evt_s_t record;
    char* listed;  /* the entry that its listing showed last, which smbd opens next */
    time_t looked; /* when its listing last looked at the markers */
    bool reads;    /* may read the contents */
    bool created;  /* by this very open, which is recorded already */
    bool times_recorded;
    struct smb_file_time times; /* the last that were recorded */
};

struct kavrin_connection* kavrin_connection_of(struct vfs_handle_struct* handle);

/* vfs_kavrin.c: says what is wrong with the group map when it answers false. */
bool kavrin_is_group_map_sound(void);

/* options.c */
bool kavrin_read_options(struct vfs_handle_struct* handle, struct kavrin_connection* connection);

/* identity.c. None of these changes errno. */
void kavrin_note_signals(void);
void kavrin_hook_begin(struct kavrin_connection* connection);
void kavrin_hook_end(kv_perm_ctx_t** context);
void kavrin_refresh(struct kavrin_connection* connection);
bool kavrin_is_for_another(const struct kavrin_connection* connection);
bool kavrin_root_begin(bool makes);
void kavrin_root_end(bool began);
bool kavrin_is_own_work(void);
bool kavrin_user_begin(const struct kavrin_connection* connection);
void kavrin_user_end(bool became_user);

/* paths.c */
bool kavrin_set_folder(const char* path);
const char* kavrin_folder(void);
char* kavrin_path(TALLOC_CTX* memory, struct vfs_handle_struct* handle,
                  const struct files_struct* folder, const struct smb_filename* name);
char* kavrin_path_of(TALLOC_CTX* memory, struct vfs_handle_struct* handle,
                     const struct files_struct* fsp);
char* kavrin_join(TALLOC_CTX* memory, const char* folder, const char* name);
int kavrin_open_beneath(const struct kavrin_connection* connection, const char* path);

/* Questions. All of them are asked as the user. */
int kavrin_ask_stat(struct kavrin_connection* connection, const char* path);
int kavrin_ask_missing(struct kavrin_connection* connection, const char* path);
bool kavrin_may(struct kavrin_connection* connection, e_fsop_type_t op, const char* path,
                int force_type);
bool kavrin_may_write(struct kavrin_connection* connection, const char* path, bool is_folder);
bool kavrin_is_decided(const struct kavrin_connection* connection, const char* path);
void kavrin_changed(struct kavrin_connection* connection);

/* opens.c */
int kavrin_openat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                  const struct smb_filename* smb_fname, struct files_struct* fsp,
                  const struct vfs_open_how* how);
NTSTATUS kavrin_create_file(struct vfs_handle_struct* handle, struct smb_request* req,
                            struct files_struct* dirfsp, struct smb_filename* smb_fname,
                            uint32_t access_mask, uint32_t share_access,
                            uint32_t create_disposition, uint32_t create_options,
                            uint32_t file_attributes, uint32_t oplock_request,
                            const struct smb2_lease* lease, uint64_t allocation_size,
                            uint32_t private_flags, struct security_descriptor* sd,
                            struct ea_list* ea_list, files_struct** result, int* pinfo,
                            const struct smb2_create_blobs* in_context_blobs,
                            struct smb2_create_blobs* out_context_blobs);

/* writes.c */
void kavrin_mark_modified(struct vfs_handle_struct* handle, struct files_struct* fsp);
int kavrin_close(struct vfs_handle_struct* handle, struct files_struct* fsp);
NTSTATUS kavrin_durable_disconnect(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                   const DATA_BLOB old_cookie, TALLOC_CTX* mem_ctx,
                                   DATA_BLOB* new_cookie);
ssize_t kavrin_pwrite(struct vfs_handle_struct* handle, struct files_struct* fsp, const void* data,
                      size_t n, off_t offset);
struct tevent_req* kavrin_pwrite_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                      struct tevent_context* ev, struct files_struct* fsp,
                                      const void* data, size_t n, off_t offset);
ssize_t kavrin_pwrite_recv(struct tevent_req* req, struct vfs_aio_state* state);
ssize_t kavrin_recvfile(struct vfs_handle_struct* handle, int fromfd, files_struct* tofsp,
                        off_t offset, size_t count);
int kavrin_ftruncate(struct vfs_handle_struct* handle, struct files_struct* fsp, off_t offset);
int kavrin_fallocate(struct vfs_handle_struct* handle, struct files_struct* fsp, uint32_t mode,
                     off_t offset, off_t len);
struct tevent_req* kavrin_offload_write_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                             struct tevent_context* ev, uint32_t fsctl,
                                             DATA_BLOB* token, off_t transfer_offset,
                                             struct files_struct* dest_fsp, off_t dest_off,
                                             off_t to_copy);

/* folders.c */
struct dirent* kavrin_readdir(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                              DIR* dirp, SMB_STRUCT_STAT* sbuf);
NTSTATUS kavrin_get_real_filename_at(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                                     const char* name, TALLOC_CTX* mem_ctx, char** found_name);
int kavrin_mkdirat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode);
int kavrin_renameat(struct vfs_handle_struct* handle, struct files_struct* srcdir_fsp,
                    const struct smb_filename* smb_fname_src, struct files_struct* dstdir_fsp,
                    const struct smb_filename* smb_fname_dst);
int kavrin_unlinkat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                    const struct smb_filename* smb_fname, int flags);
int kavrin_chdir(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname);

/* metadata.c */
int kavrin_stat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname);
int kavrin_lstat(struct vfs_handle_struct* handle, struct smb_filename* smb_fname);
int kavrin_fstatat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, SMB_STRUCT_STAT* sbuf, int flags);
uint64_t kavrin_disk_free(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                          uint64_t* bsize, uint64_t* dfree, uint64_t* dsize);
int kavrin_statvfs(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                   struct vfs_statvfs_struct* statbuf);
int kavrin_get_quota(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname,
                     enum SMB_QUOTA_TYPE qtype, unid_t id, SMB_DISK_QUOTA* qt);
int kavrin_set_quota(struct vfs_handle_struct* handle, enum SMB_QUOTA_TYPE qtype, unid_t id,
                     SMB_DISK_QUOTA* qt);
struct smb_filename* kavrin_realpath(struct vfs_handle_struct* handle, TALLOC_CTX* ctx,
                                     const struct smb_filename* smb_fname);
int kavrin_fntimes(struct vfs_handle_struct* handle, struct files_struct* fsp,
                   struct smb_file_time* ft);
int kavrin_fchmod(struct vfs_handle_struct* handle, struct files_struct* fsp, mode_t mode);
int kavrin_fchown(struct vfs_handle_struct* handle, struct files_struct* fsp, uid_t uid, gid_t gid);
int kavrin_lchown(struct vfs_handle_struct* handle, const struct smb_filename* smb_fname, uid_t uid,
                  gid_t gid);
int kavrin_symlinkat(struct vfs_handle_struct* handle, const struct smb_filename* link_contents,
                     struct files_struct* dirfsp, const struct smb_filename* new_smb_fname);
int kavrin_readlinkat(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                      const struct smb_filename* smb_fname, char* buf, size_t bufsiz);
int kavrin_linkat(struct vfs_handle_struct* handle, struct files_struct* srcfsp,
                  const struct smb_filename* old_smb_fname, struct files_struct* dstfsp,
                  const struct smb_filename* new_smb_fname, int flags);
int kavrin_mknodat(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                   const struct smb_filename* smb_fname, mode_t mode, SMB_DEV_T dev);
ssize_t kavrin_fgetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                         const char* name, void* value, size_t size);
ssize_t kavrin_flistxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, char* list,
                          size_t size);
int kavrin_fremovexattr(struct vfs_handle_struct* handle, struct files_struct* fsp,
                        const char* name);
int kavrin_fsetxattr(struct vfs_handle_struct* handle, struct files_struct* fsp, const char* name,
                     const void* value, size_t size, int flags);

/* descriptor.c */
bool kavrin_has_rights(struct kavrin_connection* connection, const char* path, uint32_t wanted);
NTSTATUS kavrin_fget_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info, TALLOC_CTX* mem_ctx,
                            struct security_descriptor** ppdesc);
NTSTATUS kavrin_fset_nt_acl(struct vfs_handle_struct* handle, struct files_struct* fsp,
                            uint32_t security_info_sent, const struct security_descriptor* psd);
int kavrin_sys_acl_set_fd(struct vfs_handle_struct* handle, struct files_struct* fsp,
                          SMB_ACL_TYPE_T type, SMB_ACL_T theacl);
int kavrin_sys_acl_delete_def_fd(struct vfs_handle_struct* handle, struct files_struct* fsp);

#endif
