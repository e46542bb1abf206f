/* The group-map file: which groups a user belongs to and which ids the reserved groups have, read in
 * place through a read-only mapping. Messages about a malformed file go to standard error.
 *
 * The readers check what they say and no more: `kavrinctl groupmap lint` checks a whole file. */
#ifndef KAVRIN_GETGROUPLIST_H
#define KAVRIN_GETGROUPLIST_H

#include <stdint.h>
#include <sys/types.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** Start of the file. All offsets are bytes from here. */
struct mapheader {
    uint32_t roffs; /**< the table of reserved groups */
    uint32_t rnum;  /**< its entries */
    uint32_t uoffs; /**< the table of users */
    uint32_t unum;  /**< its entries */
};

/** A reserved group. */
struct ritem {
    uint32_t noffs; /**< its name, terminated */
    uint32_t gid;
};

/** A user. */
struct uitem {
    uint32_t noffs; /**< the name, terminated */
    uint32_t nlen;  /**< its length, used for bounds checks only */
    uint32_t goffs; /**< the group ids, 32 bits each */
    uint32_t glen;  /**< how many */
};

/** A group-map file is no shorter than this, and a multiple of KAVRIN_GROUPMAP_ALIGN long. */
#define KAVRIN_GROUPMAP_MIN_SIZE 8192
#define KAVRIN_GROUPMAP_ALIGN 4096

/**
 * Maps a group-map file.
 * @param mapsize receives the size in bytes; untouched when the file cannot be looked at or opened,
 *                or is no group map by its size
 * @return the mapping, for kavrin_unmap(), or null. A file that the kernel does not map is reported
 *         as MAP_FAILED.
 */
void *kavrin_mapfile(const char *path, uint32_t *mapsize);

/** Takes the mapping back. */
void kavrin_unmap(void *map, uint32_t size);

/** Id of a reserved group, whose name is compared without regard to case; 0 when it is absent or
 *  the table is malformed. */
gid_t kavrin_reserved_gid(const void *map, uint32_t mapsize, const char *groupname);

/**
 * Groups of a user, whose name is compared without regard to case; the first entry wins.
 * @param grouplen receives how many there are; 0 when null is returned
 * @return group ids that the caller frees, or null: unknown user, malformed entry, no memory
 */
gid_t *kavrin_getgrouplist(const void *map, uint32_t mapsize, const char *username,
                           uint32_t *grouplen);

/** Formats to standard error. */
void debug_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));

KV_END_DECLS

#endif
