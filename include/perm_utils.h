/* Paths as hashed components, the name hash, and the lookup of a path in an image. */
#ifndef KAVRIN_PERM_UTILS_H
#define KAVRIN_PERM_UTILS_H

#include <stdint.h>

#include "mkperms_shm.h"

KV_BEGIN_DECLS

/** One component of a path. */
typedef struct path_elems_s {
    uint32_t len;     /**< bytes of the component */
    uint32_t index;   /**< its position, from 0 */
    uint32_t hashval; /**< permbe_fname_hash() of the component */
    char *name_elem;  /**< terminated copy, owned by the array */
} path_elems_t;

/** A path split into components; cleanup_path_array_smb4() frees it. */
typedef struct path_array_s {
    uint32_t num_elems;
    path_elems_t **elems;
} path_array_t;

/**
 * Hashes a name without regard to ASCII letter case; bytes from 0x80 up do not contribute.
 * @param name bytes of the name, borrowed
 * @param len  their number, not 0 (asserted)
 */
uint32_t permbe_fname_hash(const char *name, uint32_t len);

/**
 * Splits a path. A leading "/" is a component of its own; trailing slashes are ignored.
 * @param path  the path, borrowed
 * @param len   its length with the terminating zero
 * @param array receives the components, or null when memory ran out; left alone for a null
 *              argument or a zero length. Free it with cleanup_path_array_smb4().
 */
void get_path_elem_smb4(char *path, unsigned int len, path_array_t **array);

/** Frees the components and the array and sets *array to null. */
void cleanup_path_array_smb4(path_array_t **array);

/**
 * Walks the image from the root as far as the components match.
 * @param perm_map the image, read only
 * @param path     the components, borrowed
 * @param offset   must be 0 on entry (asserted); receives the offset of the deepest match
 * @return SHM_MEMBE_OK for an exact match on an element with children,
 *         SHM_MEMBE_OK_NAMEREMAPPED when *offset is an element without children, the root, or the
 *         nearest mapped ancestor; SHM_MEMBE_ERR_MAP_CORRUPTION for a null image,
 *         SHM_MEMBE_ERR_BADARGS for a null path or a header without the validity mark. A damaged
 *         record is an assertion.
 */
e_membe_shm_err find_fselem_fromname(void *perm_map, path_array_t *path, uint32_t *offset);

KV_END_DECLS

#endif
