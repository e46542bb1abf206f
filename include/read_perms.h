/* The streaming parser of the permission data file: its states, its stack, and the callbacks that
 * the JSON parser calls. The callbacks work on one process-wide summary, `memsummary`. */
#ifndef KAVRIN_READ_PERMS_H
#define KAVRIN_READ_PERMS_H

#include <stddef.h>
#include <stdint.h>

#include "mkperms_shm.h"

KV_BEGIN_DECLS

/** Where in the data file's grammar the parser is. */
typedef enum e_json_permdata_states {
    PERMDATA_STATE_STCHILDARRAY = 0,
    PERMDATA_STATE_STCHILDMAP = 1,
    PERMDATA_STATE_STACLARRAY = 2,
    PERMDATA_STATE_STUSERMAP = 3,
    PERMDATA_STATE_ENDUSERMAP = 4,
    PERMDATA_STATE_STGROUPMAP = 5,
    PERMDATA_STATE_ENDGROUPMAP = 6, /**< unused */
    PERMDATA_STATE_STNUMUSERMAP = 7,
    PERMDATA_STATE_ENDNUMUSERMAP = 8,
    PERMDATA_STATE_STNUMGROUPMAP = 9,
    PERMDATA_STATE_ENDNUMGROUPMAP = 10,
    PERMDATA_STATE_STUSERACLMAP = 11,
    PERMDATA_STATE_ENDUSERACLMAP = 12, /**< unused */
    PERMDATA_STATE_STGROUPACLMAP = 13,
    PERMDATA_STATE_ENDGROUPACLMAP = 14, /**< unused */
    PERMDATA_STATE_STNUMCHILDRENMAP = 15,
    PERMDATA_STATE_ENDNUMCHILDRENMAP = 16,
    PERMDATA_STATE_CHILDREN = 17,
    PERMDATA_STATE_NUMCHILDREN = 18,
    PERMDATA_STATE_NUMUSERS = 19,
    PERMDATA_STATE_NUMGROUPS = 20,
    PERMDATA_STATE_NAME = 21,
    PERMDATA_STATE_USERS = 22,
    PERMDATA_STATE_ACL = 23,
    PERMDATA_STATE_USERID = 24,
    PERMDATA_STATE_GROUPS = 25,
    PERMDATA_STATE_GROUPID = 26,
    PERMDATA_STATE_INVAL = 27
} e_json_permdata_states;

/** States of the size file's parser. */
typedef enum json_mapsize_states {
    SHMMAPSZ_STATE_STARTMAP = 0,
    SHMMAPSZ_STATE_ENDMAP = 1,
    SHMMAPSZ_STATE_MAPNAME = 2,
    SHMMAPSZ_STATE_VERSION = 3,
    SHMMAPSZ_STATE_GENERATIONNUM = 4,
    SHMMAPSZ_STATE_TIMESTAMP = 5,
    SHMMAPSZ_STATE_TOTALFSELEMS = 6,
    SHMMAPSZ_STATE_TOTALACES = 7,
    SHMMAPSZ_STATE_TOTALNAMELEN = 8,
    SHMMAPSZ_STATE_INVAL = 9
} json_mapsize_states;

/** One element of the parse stack, heap allocated and zero filled but for its type. */
typedef struct jsonstack_s {
    oneway_list_elem_t links;
    e_json_permdata_states state;
    e_stelem_type stetype; /**< STELEM_TYPE_INVALID until it names something */
    uint32_t jsonoffset;   /**< offset of the fs_elem_t that this context belongs to */
    void *data;            /**< the kavrin_acl_t being collected, or null; not owned */
} jsonstack_t;

/** The summary that the data-file callbacks fill; process_permmap() sets it. */
extern memsummary_t *memsummary;

/**
 * Pushes a new element with these values.
 * @param msum summary whose stack grows (asserted non-null); it owns the element until a pop
 * @return SHM_MEMBE_OK or SHM_MEMBE_ERR_LISTERR; running out of memory is an assertion.
 */
e_membe_shm_err push_stackelem_wstatedata(memsummary_t *msum, e_json_permdata_states state,
                                          uint32_t offset, void *data, e_stelem_type stelemtype);

/**
 * Looks at the top of a stack, which must not be empty (asserted). The outputs must be zero on
 * entry (asserted; STELEM_TYPE_FSELEM is the zero type).
 * @return the top state, or PERMDATA_STATE_INVAL when the element could not be put back.
 */
e_json_permdata_states get_cur_statewdata(kavrin_stack_head_t *sth, uint32_t *offset, void **data,
                                          e_stelem_type *stelem_type);

/** The state on top of a stack, which must not be empty (asserted). */
e_json_permdata_states get_cur_state(kavrin_stack_head_t *sth);

/**
 * Pops and frees the top of the current summary's stack if it has that state.
 * @return SHM_MEMBE_OK, or SHM_MEMBE_ERR_STATE_MISMATCH with nothing popped.
 */
e_membe_shm_err pop_if_state(e_json_permdata_states st);

/** Callbacks in the JSON parser's form: 1 continues, 0 cancels. Texts are borrowed and not
 *  terminated. `ctx` is unused. A document that breaks the grammar is an assertion. */
int readperm_number(void *ctx, const char *number, size_t length);
int readperm_string(void *ctx, const unsigned char *text, size_t length);
int readperm_start_map(void *ctx);
int readperm_map_key(void *ctx, const unsigned char *key, size_t length);
int readperm_end_map(void *ctx);
int readperm_start_array(void *ctx);
int readperm_end_array(void *ctx);

KV_END_DECLS

#endif
