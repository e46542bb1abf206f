/* The in-process ACL: permission masks, trustees, and the conversions between an ACL and its
 * record in a permission map image. */
#ifndef KAVRIN_PERMS_H
#define KAVRIN_PERMS_H

#include <stdint.h>
#include <sys/types.h>

#include "kavrin_lists.h"
#include "mkperms_shm.h"

KV_BEGIN_DECLS

/** Permission masks. Bit 0 reads, bit 1 writes, bit 2 deletes, bit 3 navigates, bit 4 views. */
#define KAVRIN_PERM_MASK_NOPERM 0u
#define KAVRIN_PERM_MASK_RDONLY 1u
#define KAVRIN_PERM_MASK_RDWR 3u
#define KAVRIN_PERM_MASK_RDWRDEL 7u
#define KAVRIN_PERM_MASK_NAVIGATE 8u
#define KAVRIN_PERM_MASK_VIEWER_ONLY 16u

/** The only version of kavrin_acl_t and kavrin_ace_t. */
#define KAVRIN_ACL_VERSION 0u

/** Who an ACE speaks of; only users and groups have a form in the image. */
typedef enum e_ace_type KV_INT_ENUM {
    ACE_TYPE_MIN = 1,
    ACE_TYPE_USER = 1,
    ACE_TYPE_GROUP = 2,
    ACE_TYPE_ALL = 3,
    ACE_TYPE_UNDEF = 4,
    ACE_TYPE_MAX = 4
} e_ace_type_t;

/** What a path leads to, as the enforcement sees it. */
typedef enum e_file_type KV_INT_ENUM {
    FSTYPE_FILE = 1,
    FSTYPE_FOLDER = 2,
    FSTYPE_DOES_NOT_EXIST = 3,
    FSTYPE_INVAL = 4
} e_file_type_t;

/** An ACL. Whoever obtained it frees its ACEs with free_kavrin_acl() or free_ACL(), then the
 *  record itself with free(). */
typedef struct kavrin_acl_s {
    uint32_t version;                 /**< KAVRIN_ACL_VERSION */
    uint32_t num_aces;                /**< number of ACEs in the list */
    oneway_list_head_t ace_list_head; /**< the ACEs, most recently inserted first */
} kavrin_acl_t;

/** One entry of an ACL. */
typedef struct kavrin_ace_s {
    oneway_list_elem_t ace_list; /**< links; first, so that a link is the ACE */
    uint32_t version;            /**< always 0 */
    uint32_t ace_type;           /**< 0 explicit, 1 inherited */
    e_ace_type_t trustee_type;   /**< ACE_TYPE_USER or ACE_TYPE_GROUP */
    union {
        uid_t uid;
        gid_t gid;
    } trustee;          /**< the user or group id */
    uint32_t perm_mask; /**< KAVRIN_PERM_MASK_* bits */
    kavrin_acl_t *acl;  /**< reserved for a back reference; null */
} kavrin_ace_t;

/**
 * Allocates an ACL without entries.
 * @param eacl where to store it; *eacl must be null (asserted). The caller owns the ACL.
 * @return SHM_MEMBE_OK; running out of memory is an assertion.
 */
e_membe_shm_err create_empty_acl(kavrin_acl_t **eacl);

/**
 * Puts a new ACE with mask 0 in front of the ACL's list. The ACL owns it.
 * @param acl  the ACL (asserted non-null)
 * @param type ACE_TYPE_USER or ACE_TYPE_GROUP
 * @param id   the uid or gid
 * @return SHM_MEMBE_OK; running out of memory is an assertion.
 */
e_membe_shm_err add_ace_to_acl(kavrin_acl_t *acl, e_ace_type_t type, uid_t id);

/**
 * Sets the mask of the first ACE, in list order, of that trustee; such an ACE must exist
 * (asserted).
 * @return SHM_MEMBE_OK
 */
e_membe_shm_err add_ace_mask(kavrin_acl_t *acl, e_ace_type_t type, uid_t id, unsigned int mask);

/** Frees every ACE and leaves the list empty; the caller frees the ACL itself. Null is ignored. */
void free_kavrin_acl(kavrin_acl_t *acl);

/**
 * Marks every ACE explicit (0) or inherited (1).
 * @return SHM_MEMBE_OK; SHM_MEMBE_ERR_BADARGS for another value, SHM_MEMBE_ERR_LISTERR for a
 *         null ACL, nothing changed in either case.
 */
e_membe_shm_err set_inheritance_flag(kavrin_acl_t *acl, unsigned int inheritance);

/**
 * Converts an ACL to its image record; entries keep the list's order.
 * @param acl  the ACL, borrowed; null yields a null record and leaves *size alone
 * @param bacl receives a heap record that the caller frees
 * @param size receives the record's size in bytes
 * @return SHM_MEMBE_OK; a wrong version or trustee type is an assertion.
 */
e_membe_shm_err ACL_2_membuf(kavrin_acl_t *acl, beacl_t **bacl, unsigned int *size);

/**
 * Converts an image record to an ACL; entries come out in reverse record order.
 * @param bacl        the record, borrowed
 * @param version     must be KAVRIN_ACL_VERSION
 * @param inheritance given to every ACE: 0 explicit, 1 inherited
 * @param acl         receives the ACL (*acl must be null, asserted); the caller owns it
 * @return SHM_MEMBE_OK, or SHM_MEMBE_ERR_VERSION_MISMATCH with nothing allocated.
 */
e_membe_shm_err membuf_2_ACL(beacl_t *bacl, unsigned int version, unsigned int inheritance,
                             kavrin_acl_t **acl);

/**
 * Finds the ACL record of one element, in place.
 * @param perm_map the image (asserted, with its header signature)
 * @param offset   offset of the element in the fs-element region (signature asserted)
 * @param beacl    receives the record inside the image; *beacl must be null (asserted)
 * @return SHM_MEMBE_OK
 */
e_membe_shm_err get_bacl_fromfselem(void *perm_map, uint32_t offset, beacl_t **beacl);

/**
 * The element's own ACL, explicit and possibly empty.
 * @param eacl receives the ACL (*eacl must be null, asserted); the caller owns it
 * @return SHM_MEMBE_OK
 */
e_membe_shm_err get_kavrinacl_fromfselemoffset(void *perm_map, uint32_t offset,
                                               kavrin_acl_t **eacl);

/**
 * The ACL that governs an element: its own, or the nearest ancestor's that has entries, marked
 * inherited exactly when it came from an ancestor. The root's is used even when it is empty.
 * @param eacl receives the ACL; the caller owns it
 * @return SHM_MEMBE_OK, or SHM_MEMBE_ERR_BADARGS for a null image.
 */
e_membe_shm_err get_nonempty_kavrinacl_fromfselemoffset(void *perm_map, uint32_t offset,
                                                        kavrin_acl_t **eacl);

/** Dumps an ACL to standard output. */
void print_acl(kavrin_acl_t *acl);

/** Dumps an image ACL record to standard output; null prints "Null ACL". */
void print_bacl(beacl_t *acl);

KV_END_DECLS

#endif
