/* A connection's state: who it serves, when that is looked up again, and the verdicts it remembers.
 *
 * A connection is served by one thread. The module zero-fills the record, calls
 * init_private_data(), sets the user's name and calls connect_preprocess(). */
#ifndef KAVRIN_VFS_UTILS_H
#define KAVRIN_VFS_UTILS_H

#include <stdint.h>

#include "kavrin_structs.h"

KV_BEGIN_DECLS

/** The mapping of the group-map file, one for all connections of the process; null and 0 without. */
extern void *g_kavrin_grouplist_map;
extern uint32_t g_kavrin_grouplist_map_size;

/** Gives a zero-filled record its starting values. */
void init_private_data(kv_connection_private_data_t *private_data);

/**
 * Starts a connection: empties the cache, opens the map's semaphore, resolves the user, creates the
 * audit buffer when auditing is on, loads groups.
 * @param user                      the account; one that does not exist is accepted with uid -1,
 *                                  which no rule matches
 * @param number_of_connected_users counted up
 * @return 0, or -1: the connection must be refused
 */
int connect_preprocess(const char *user, kv_connection_private_data_t *private_data,
                       int audit_enabled, int *number_of_connected_users);

/** Ends a connection: frees the cache's paths, flushes the staging buffer and, when auditing is on,
 *  the audit buffer. The user count is the module's to lower. */
void disconnect_preprocess(kv_connection_private_data_t *private_data, int audit_enabled);

/** Looks at the refresh markers and the effective uid, and reloads groups and empties the cache when
 *  one of them has changed. Runs at every stat. */
void refresh_credentials(kv_connection_private_data_t *private_data);

/** Fills the record's identity from the account, maps the group-map file anew and loads the user's
 *  groups. @return 0, also when there is no group map or no user name; -1: nothing but euid and
 *  egid was changed */
int reset_groupmap(kv_connection_private_data_t *private_data);

/** Reloads groups and asks for an empty cache (not for a computer account). Call it between hooks:
 *  it takes memory and replaces what a verdict under way reads, so a handler of the signal only notes
 *  that it came.
 *  @param signal_number SIGUSR1; others are reported and ignored */
void flush_perms_handler(int signal_number, kv_connection_private_data_t *private_data);

/** Learns the uid of the reserved service account; without the account it stays as it is. */
void set_reserved_user_uid(void);

/** 1 for a computer account, whose name ends in "$", else 0. */
int is_computer_name(const char *user_name);

/** The same, traced. */
int _check_if_special_user(const char *account_name);

/** Makes an empty cache; paths it may hold are not freed. */
void init_tlb(kv_vfs_table_cache_t *c);

/** Frees the cache's paths and makes it empty. */
void destroy_tlb(kv_vfs_table_cache_t *c);

/**
 * Looks a verdict up, first emptying the cache when that was asked for.
 * @param index receives the position of the path; 0 with a verdict, -1 with KVPERMS_NOT_FOUND
 * @return KVPERMS_HAS_PERMS, KVPERMS_NO_PERM, KVPERMS_NOT_SET, or KVPERMS_NOT_FOUND
 */
e_vfs_enforce_perms_t check_tlb(char *path, e_fsop_type_t op, int *index, kv_vfs_table_cache_t *c);

/** Adds a verdict and makes its path the most recently used. A full cache gives up the path that was
 *  not used for longest. @param slot -1 for a new path, else its position */
void add_tlb_entry(char *path, int slot, e_fsop_type_t op, e_vfs_enforce_perms_t value,
                   kv_vfs_table_cache_t *c);

/** Sets a verdict of a slot, by the slot's own number (not a position). */
void update_tlb_entry(int slot, e_fsop_type_t op, e_vfs_enforce_perms_t value,
                      kv_vfs_table_cache_t *c);

/** Forgets a path. A new path may only be added after the last position was forgotten: otherwise
 *  that addition ends the process. */
void del_tlb_entry(char *path, kv_vfs_table_cache_t *c);

/**
 * The verdict, from the cache or else from vfs_enforce_perms(). Root is allowed everything, a
 * computer account nothing, a path that climbs above its start is allowed; none of these is cached.
 * @return an e_vfs_enforce_perms_t
 */
int check_perms(const char *shareroot, const char *path, e_fsop_type_t op,
                kv_connection_private_data_t *private_data, int force_path_type);

/* In the static library only: */

/** Position of a path, or -1. */
int _tlb_lookup_path(char *path, kv_vfs_table_cache_t *c);

/** Makes a position's slot the most recently used. @return 0 */
int _update_tlb_hit(int position, kv_vfs_table_cache_t *c);

KV_END_DECLS

#endif
