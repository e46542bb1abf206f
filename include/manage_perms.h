/* The load itself: data file or persisted copy into an initialised image. */
#ifndef KAVRIN_MANAGE_PERMS_H
#define KAVRIN_MANAGE_PERMS_H

#include "mkperms_shm.h"

KV_BEGIN_DECLS

/**
 * Fills the image of an initialised summary.
 *
 * With a data file: parses it, persists the image and removes the data and size files, also when
 * the parse or the persisting failed (both stay without memory to read into). A document that the
 * parser rejected still leaves what was built until then; only the persist result is returned.
 * Without one: loads the persisted map.
 *
 * @return SHM_MEMBE_OK; SHM_MEMBE_ERR_BADARGS, _PERMMAP_WRERR, _PERMMAP_RDERR,
 *         _PERMMAP_BUFFER2SMALL or _NOMEM.
 */
e_membe_shm_err process_permmap(memsummary_t *msum);

/** The persisted map file's path as a heap string that the caller frees, or null. */
char *get_permbe_map_location(void);

/** Traces the header's fields (debug level 7) and the tree below the root (debug level 10). */
void print_tree(kavrin_be_header_t *beheader);

/** Traces an element's name and, recursively, its children's. `level` is the element's depth. */
void walk_tree(kavrin_be_header_t *beheader, fs_elem_t *parent, int level);

KV_END_DECLS

#endif
