/* The two shared-memory segments that hold images, and the semaphore set that tells which of them
 * is current and whether any has been made available.
 *
 * One builder fills the segment that is not current and then calls swap_maps() and
 * map_initialized(1); readers attach the current one with get_perm_map_addr(), read, and give it
 * back with put_perm_map_addr(). No reader ever waits. */
#ifndef KAVRIN_PERM_MAP_H
#define KAVRIN_PERM_MAP_H

#include <sys/ipc.h>
#include <sys/types.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** This process's hold on the semaphore set. */
struct perm_map_sem_s {
    int sem;                  /**< set id of the last successful open */
    unsigned short sarray[2]; /**< the values a reset writes: both 0 */
};

/** Builder: creates or reopens the set and resets it to table 0, nothing available.
 *  @return 0, or -1 */
int create_perm_map_semaphore(void);

/** Reader: opens the set; a missing one is recreated and reset.
 *  @return 0, or -1 */
int init_perm_map_semaphore(void);

/** Removes the semaphore set; segments stay. */
void destroy_perm_map(void);

/** Key of the segment that is not `current` (0 or 1, asserted). */
key_t get_next_perm_table_key(int current);

/** Segment id of table `current` (0 or 1, asserted); -2 when there is none, -1 on a failure. */
int get_current_perm_table_shmid(int current);

/**
 * Creates and attaches a new segment; never reuses one.
 * @param key   from get_next_perm_table_key()
 * @param size  bytes
 * @param shmid receives the segment id, or -1
 * @return the address, which the caller detaches with put_perm_map_addr(), or null.
 */
void *create_perm_map_shm(key_t key, unsigned int size, int *shmid);

/**
 * With `set` 0: whether a map has been made available (0 or 1), or -1.
 * With another `set`: marks maps available; 0, or -1.
 */
int map_initialized(int set);

/**
 * Switches readers to the other table and removes the old segment.
 * @param current the table readers use now; must be the value that
 *                get_current_perm_table_index_for_fill() gave, another one blocks or breaks the set
 * @return 0, or -1
 */
int swap_maps(int current);

/** Reader: the current table, 0 or 1, looked up by key; or -1. */
int get_current_perm_table_index(void);

/** Builder: the current table through the set opened before, 0 or 1; or -1. */
int get_current_perm_table_index_for_fill(void);

/** Attaches the current image; null when there is none. Give it back with put_perm_map_addr(). */
void *get_perm_map_addr(void);

/** Detaches an image, or leaves it attached for the next reader, see keep_perm_map(); null is ignored. */
void put_perm_map_addr(void *addr);

/**
 * Whether an image stays attached when it is given back. Attaching costs a verdict most of its time,
 * since each page it touches is mapped anew; a caller with many verdicts keeps the image and lets go
 * of it after a moment, since the memory of a map that was replaced is freed only when nobody has it
 * attached. Each get_perm_map_addr() still looks the current table up, and takes the kept image only
 * when it is that table's.
 * @param keep not 0 from now on; 0 (as at first) detaches what is kept and not in use
 */
void keep_perm_map(int keep);

/* In the static library only: */

/** Worker of create_ (1) and init_perm_map_semaphore (0). @return 0, or -1 */
int _init_perm_map_semaphore(int create);

/** Creates the set if it is missing. @return 0, or -1 */
int _recreate_perm_map_semaphore(int *sem, key_t *key);

KV_END_DECLS

#endif
