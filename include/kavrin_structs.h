/* What the hooks pass to the enforcement and what it answers: operation codes, verdicts, the
 * caller's identity; the credentials put aside while a hook works as root; and the record of an SMB
 * connection with its verdict cache. */
#ifndef KAVRIN_STRUCTS_H
#define KAVRIN_STRUCTS_H

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** Operations a verdict can be asked for. */
typedef enum e_fsop_type KV_INT_ENUM {
    FSOP_MIN = 1,
    FSOP_CREATE = 1,
    FSOP_OPEN_READ = 2,
    FSOP_OPEN_WRITE = 3,
    FSOP_OPEN_CHATTR = 4,
    FSOP_OPENDIR = 5,
    FSOP_READDIR = 6,
    FSOP_UNLINK = 7,
    FSOP_RENAME_SRC = 8,
    FSOP_RENAME_DEST = 9,
    FSOP_MOVE_SRC = 10,
    FSOP_MOVE_DEST = 11,
    FSOP_CHMOD = 12,
    FSOP_CHOWN = 13,
    FSOP_SET_ACL = 14,
    FSOP_GET_ACL = 15,
    FSOP_STAT = 16,
    FSOP_LSTAT = 17,
    FSOP_READ_LINK = 18,
    FSOP_CONNECT = 19,
    FSOP_MKDIR = 20,
    FSOP_RMDIR = 21,
    FSOP_STATVFS = 22,
    FSOP_SEEKDIR = 23,
    FSOP_REWINDDIR = 24,
    FSOP_TELLDIR = 25,
    FSOP_CHDIR = 26,
    FSOP_REALPATH = 27,
    FSOP_GETNTACL = 28,
    FSOP_FGETNTACL = 29,
    FSOP_INVAL = 30,
    FSOP_MAX = 30
} e_fsop_type_t;

/** Verdicts; only KVPERMS_HAS_PERMS allows an operation. */
typedef enum e_vfs_enforce_perms {
    KVPERMS_MIN = 1,
    KVPERMS_NO_PERM = 2,      /**< denied */
    KVPERMS_HAS_PERMS = 3,    /**< allowed */
    KVPERMS_INVALID_ARGS = 4, /**< bad arguments or trustees */
    KVPERMS_MALLOC_ERR = 5,   /**< out of memory */
    KVPERMS_ACLREAD_ERR = 6,
    KVPERMS_PERM_ERR = 7,
    KVPERMS_UNKNOWN_ERR = 8,
    KVPERMS_ACLBUF_ERR = 9,  /**< the permission map or an ACL is not obtainable */
    KVPERMS_SYSTEM_ERR = 10, /**< a system call or a small allocation failed */
    KVPERMS_NOT_FOUND = 11,  /**< verdict cache: no entry */
    KVPERMS_NOT_SET = 12,    /**< verdict cache: entry without a verdict */
    KVPERMS_MAX = 8 /* stays 8 although codes run to 12: callers compare against it */
} e_vfs_enforce_perms_t;

/** Identity of a caller. Whoever allocates one owns it and its `gids`. */
typedef struct process_trustees_s {
    uid_t euid;
    gid_t egid;
    int32_t num_sup_gids; /**< entries in `gids`; negative is invalid */
    gid_t *gids;          /**< supplementary groups; may be null only when there are none */
    int32_t admin;        /**< 1 when the administrators' group is among `gids` */
    int32_t poweruser;    /**< 1 when the power users' group is among `gids` */
    int32_t is_computer_acct;
    int32_t is_global_map_in_use; /**< 1 while a verdict is being worked out with this record */
} process_trustees_t;

/** Credentials saved while the thread runs as root; kavrin_vfs_become_root() makes one. */
typedef struct kv_perm_ctx_s {
    uint32_t real_uid;
    uint32_t effective_uid;
    uint32_t saved_uid;
    uint32_t real_gid; /**< the gids are not read when the thread was root already */
    uint32_t effective_gid;
    uint32_t saved_gid;
} kv_perm_ctx_t;

/** Slots of a verdict cache. */
#define KAVRIN_TLB_SLOTS 1024

/** Values of a verdict cache's `flush_tlb`. */
#define KAVRIN_TLB_NO_FLUSH 9
#define KAVRIN_TLB_FLUSH 21

/** Verdicts cached for one path: the bit of operation `op` is bit `op & 31` of word `op / 32`. */
typedef struct tlb_perms_s {
    uint32_t set[2];   /**< a verdict is cached */
    uint32_t value[2]; /**< 1: KVPERMS_HAS_PERMS, 0: KVPERMS_NO_PERM */
} tlb_perms_t;

/** The verdict cache of a connection. */
typedef struct kv_vfs_table_cache_s {
    tlb_perms_t tlb_perms[KAVRIN_TLB_SLOTS];
    char *tlb_paths[KAVRIN_TLB_SLOTS];         /**< owned; null for a free slot */
    int32_t tlb_index_table[KAVRIN_TLB_SLOTS]; /**< slots, the most recently used first; from
                                                    vfs_tlb_end on, the free ones */
    int32_t flush_tlb;   /**< KAVRIN_TLB_FLUSH: the next look-up empties the cache */
    int32_t vfs_tlb_end; /**< positions in use */
} kv_vfs_table_cache_t;

/** Options of the module; the library never reads them. */
typedef struct kavrin_config_s {
    int32_t allow_computeracct;
} kavrin_config;

/** What a connection knows of the refresh markers, and whose rights it enforces. */
typedef struct refresh_crendetials_s {
    time_t permmap_refresh;  /**< when the map's marker was last taken notice of */
    time_t groupmap_refresh; /**< when the group map was */
    uid_t euid;              /**< all bits set until the connection has a user */
    uid_t tlb_owner;         /**< for whom the cache was last flushed; diagnostic only */
} refresh_crendetials_t;

/** The module's record of an open file or a listed directory. */
typedef struct modify_file_evt_s_s {
    char *path;
    int32_t is_modified;  /**< 1 when the file was written during this open */
    int32_t is_nav_cache; /**< carried, not read */
} modify_file_evt_s_t;

/** One SMB connection. The module allocates it zero-filled and frees it, and with it the last
 *  `groupmap.gids`, which each reset replaces; the cache's paths are given back by disconnect. */
typedef struct kv_connection_private_data_s {
    char *user_name_as_passed_in; /**< the session's user; written by the module */
    kavrin_config config;
    refresh_crendetials_t refresh_creds;
    process_trustees_t groupmap;
    kv_vfs_table_cache_t vfs_table_cache;
    modify_file_evt_s_t *pmodify; /**< the module's */
} kv_connection_private_data_t;

KV_END_DECLS

#endif
