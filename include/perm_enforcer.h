/* The verdict: may this caller perform this operation on this path. */
#ifndef KAVRIN_PERM_ENFORCER_H
#define KAVRIN_PERM_ENFORCER_H

#include <stdint.h>
#include <sys/types.h>

#include "kavrin_perms.h"
#include "kavrin_structs.h"

KV_BEGIN_DECLS

/**
 * Works out the verdict for one operation on one path.
 *
 * The process needs uid 0 as real or saved uid unless it runs as root (then everything is
 * allowed). A call leaves the effective uid as it was; where the kernel refuses to give the
 * effective gid back, it stays 0.
 *
 * @param share_root      absolute path of the share
 * @param in_path         path relative to it
 * @param op              an FSOP_* code; codes without a rule are assertions once an element is
 *                        judged
 * @param in_pts          the caller's identity, borrowed, its standing filled in; null: the
 *                        process's own
 * @param force_path_type 0 to look at the disk, or an e_file_type to use without looking
 * @param is_nav          receives 1 when access was granted for navigation or viewing only, else 0
 * @return KVPERMS_HAS_PERMS, KVPERMS_NO_PERM, or an error verdict.
 */
e_vfs_enforce_perms_t vfs_enforce_perms(const char *share_root, const char *in_path,
                                        e_fsop_type_t op, process_trustees_t *in_pts,
                                        int force_path_type, int *is_nav);

/** Sets the administrators' and power users' group ids for all later verdicts; both start as 0. */
void vfs_set_admins_powerusers(gid_t admin_gid, gid_t power_gid);

/**
 * The ACL that governs a path in an image.
 * @param membuf the image
 * @param path   path relative to the share root, or absolute
 * @param acl    receives the ACL, its ACEs marked inherited unless the path itself carries it; the
 *               caller frees it with free_ACL() and free()
 * @return SHM_MEMBE_OK, or SHM_MEMBE_ERR_BADARGS for a null image or an empty path; a null path
 *         and a damaged image are assertions.
 */
e_membe_shm_err get_kavrin_acl(void *membuf, char *path, kavrin_acl_t **acl);

/** Frees every ACE of an ACL; the caller frees the ACL itself. Null is ignored. */
void free_ACL(kavrin_acl_t *acl);

/**
 * The decision for an operation, an element type and the caller's masks on the element and on its
 * parent folder. Looks at nothing else.
 * @return KVPERMS_HAS_PERMS, KVPERMS_NO_PERM, or KVPERMS_INVALID_ARGS for a code outside 1 to 29;
 *         codes that have no rule are assertions.
 */
e_vfs_enforce_perms_t enforce_kavrin_permissions(e_fsop_type_t op, e_file_type_t path_type,
                                                 uint32_t path_perm, uint32_t parent_perm);

/* In the static library only: */

/** Sets *out_flag to whether `gid` is among the first *num_gids of `gids`. @return 0 */
int _set_group_bit(int *num_gids, gid_t *gids, gid_t gid, int *out_flag);

/** The `admin` and `poweruser` fields, traced. */
int _is_admin(process_trustees_t *trustees);
int _is_poweruser(process_trustees_t *trustees);

/** Traces an ACL at debug level 10. */
void _d_print_acl(kavrin_acl_t *acl);

KV_END_DECLS

#endif
