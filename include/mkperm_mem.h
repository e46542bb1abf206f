/* The two calls of a load: size the image from the size file, then lay it out and fill it. */
#ifndef KAVRIN_MKPERM_MEM_H
#define KAVRIN_MKPERM_MEM_H

#include "mkperms_shm.h"

KV_BEGIN_DECLS

/**
 * Finds out how many bytes the image needs.
 *
 * With both paths: parses the size file, allocates a summary into *msum and sets its `memsize`.
 * A size file that breaks its grammar cancels the parse (the counts read so far are used) or is
 * an assertion. With both paths null: *msum must point to a summary, whose `memsize` becomes the
 * size of the persisted map file.
 *
 * @param perm_size_file path of the size file, borrowed and copied
 * @param perm_file_data path of the data file, borrowed and copied
 * @param msum           the summary; the caller owns it and its path copies
 * @return SHM_MEMBE_OK, or SHM_MEMBE_ERR_BADARGS, _NOMEM, _NOPERM_SIZE_FILE, _NOPERM_FILE or
 *         _NOCACHE_FILE, each reported in the permission-load log.
 */
e_membe_shm_err get_permbe_shmsize(char *perm_size_file, char *perm_file_data,
                                   memsummary_t **msum);

/**
 * Clears the segment, writes the image header and loads the map with process_permmap().
 * @param perm_be_shm summary with `membuf` set to at least `memsize` writable bytes
 * @return the load's result; SHM_MEMBE_ERR_BADARGS for a null summary or segment.
 */
e_membe_shm_err init_permbe_shm(memsummary_t *perm_be_shm);

KV_END_DECLS

#endif
