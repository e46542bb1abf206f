/* The permission map image: every record as it lies in shared memory and in the persisted map
 * file, the signatures that guard the records, the loader's summary of one map, and the result
 * codes of all map code. docs/formats.md shows the same records as byte tables.
 *
 * Nothing in an image is a pointer. A record is named by its unsigned 32-bit offset from the start
 * of its region, and each region's start is an offset from the start of the image. Integers are
 * little-endian. Only the header and the fs-elements are aligned; names, ACLs and child lists start
 * at whatever byte the record before them ended. */
#ifndef KAVRIN_MKPERMS_SHM_H
#define KAVRIN_MKPERMS_SHM_H

#include <stdint.h>

#include "kavrin_stack.h"

KV_BEGIN_DECLS

/** Record signatures. The header's is the validity mark of the whole image. */
#define KAVRIN_BE_HEADER_SIGNATURE 0x1EA78EAFu
#define FSELEMSIG 0x67896789u
#define NAMESIG 0xABCDABCDu
#define LISTSIG 0x789A789Au
#define ACLSIG 0xCDEFCDEFu

/** `parent_offset` of a root that is created but not yet opened, and of a finished one. */
#define FSELEM_ROOT_OFFSET 0xFFFFFFFFu
#define FSELEM_ROOT_OFFSET2 0xFFFFFFFEu

/** Bits of fs_elem_t.flags. */
#define FSELEM_FLAG_ROOT 1u
#define FSELEM_FLAG_NOCHILDREN 2u

/** Sizes of the header's text fields; a map name is shorter, a version may fill its field. */
#define MAXMAP_NAMELEN 32
#define MAXMAP_VERSION_NAMELEN 36

/** Result codes of all permission map code. */
typedef enum e_membe_shm_err {
    SHM_MEMBE_OK = 0,                       /**< success */
    SHM_MEMBE_ERR_NOMEM = 1,                /**< allocation failed, or no persisted map location */
    SHM_MEMBE_ERR_LISTERR = 2,              /**< list or stack link error, null ACL */
    SHM_MEMBE_ERR_BADARGS = 3,              /**< bad argument, missing file, unusable buffer */
    SHM_MEMBE_ERR_STATE_MISMATCH = 4,       /**< parser stack top is not the expected state */
    SHM_MEMBE_ERR_VERSION_MISMATCH = 5,     /**< unknown ACL version requested */
    SHM_MEMBE_ERR_BAD_ACL = 6,              /**< bad ACL */
    SHM_MEMBE_ERR_NOPERM_SIZE_FILE = 7,     /**< size file missing */
    SHM_MEMBE_ERR_NOPERM_FILE = 8,          /**< data file missing */
    SHM_MEMBE_ERR_NOCACHE_FILE = 9,         /**< persisted map file missing */
    SHM_MEMBE_ERR_MAP_CORRUPTION = 10,      /**< null image given to path lookup */
    SHM_MEMBE_ERR_PERMMAP_WRERR = 11,       /**< persisting the image failed */
    SHM_MEMBE_ERR_PERMMAP_RDERR = 12,       /**< reading the persisted image failed, or invalid */
    SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL = 13, /**< persisted image larger than the buffer */
    SHM_MEMBE_OK_NAMEREMAPPED = 14 /**< success, but not an exact, full match of the path */
} e_membe_shm_err;

/** Trustee kinds of an ACE in the image. */
typedef enum e_idtype { IDTYPE_UID = 1, IDTYPE_GID = 2 } e_idtype;

/** What a parse-stack element refers to. */
typedef enum e_stelem_type {
    STELEM_TYPE_FSELEM = 0,
    STELEM_TYPE_NAMEELEM = 1,
    STELEM_TYPE_ACLELEM = 2,
    STELEM_TYPE_LISTELEM = 3,
    STELEM_TYPE_INVALID = 4
} e_stelem_type;

KV_BEGIN_FLEXIBLE_RECORDS

/** Image header, 176 bytes at offset 0. */
typedef struct kavrin_be_header_s {
    char mapname[MAXMAP_NAMELEN];         /**< zero padded */
    char version[MAXMAP_VERSION_NAMELEN]; /**< zero padded; 36 characters fill it unterminated */
    char nextmap[MAXMAP_NAMELEN];         /**< always zero */
    uint32_t generationnum;
    int64_t timestamp;       /**< seconds */
    uint32_t total_fselems;  /**< F: all elements, the root included */
    uint32_t total_aces;     /**< A: all ACEs */
    uint32_t total_lists;    /**< always 0 */
    uint32_t fselem_offset;  /**< always 176 */
    uint32_t fselem_size;    /**< 24 F */
    uint32_t next_free_fselem; /**< cursors: bytes used of a region */
    uint32_t nameelem_offset;
    uint32_t nameelem_size; /**< N + 12 F */
    uint32_t next_free_nameelem;
    uint32_t acl_offset;
    uint32_t acl_size; /**< 12 A + 8 F */
    uint32_t next_free_acl;
    uint32_t list_offset;
    uint32_t list_size; /**< 16 F */
    uint32_t next_free_list;
    uint32_t signature; /**< KAVRIN_BE_HEADER_SIGNATURE */
} kavrin_be_header_t;

/** One folder or file, 24 bytes; the root is at offset 0 of the region. */
typedef struct fs_elem_s {
    uint32_t signature;        /**< FSELEMSIG */
    uint32_t parent_offset;    /**< the parent, or FSELEM_ROOT_OFFSET / FSELEM_ROOT_OFFSET2 */
    uint32_t name_elem_offset; /**< in the name region */
    uint32_t clist_offset;     /**< in the child-list region */
    uint32_t acl_offset;       /**< in the ACL region */
    uint32_t flags;            /**< FSELEM_FLAG_* */
} fs_elem_t;

/** Head of a name, 12 bytes, followed by the name's bytes and one zero byte. */
typedef struct KV_PACKED name_elem_s {
    uint16_t name_len; /**< bytes, without the terminator */
    uint16_t padding;  /**< zero */
    uint32_t signature; /**< NAMESIG */
    uint32_t hashval;   /**< permbe_fname_hash() of the name */
    char name[]; /**< as received, case preserved */
} name_elem_t;

/** Head of a child list, 12 bytes, followed by its slots. */
typedef struct KV_PACKED child_list_s {
    uint32_t signature;    /**< LISTSIG */
    uint32_t num_children; /**< capacity */
    uint32_t next_index;   /**< slots filled */
    uint32_t children_offsets[]; /**< elements, in the data file's order */
} child_list_t;

/** One ACE of an image ACL, 12 bytes. */
typedef struct KV_PACKED beace_s {
    uint32_t idtype;    /**< e_idtype */
    uint32_t id;        /**< uid or gid */
    uint16_t perm_mask; /**< KAVRIN_PERM_MASK_* bits */
    uint16_t padding;   /**< zero */
} beace_t;

/** Head of an image ACL, 8 bytes, followed by its entries. */
typedef struct KV_PACKED beacl_s {
    uint32_t signature; /**< ACLSIG */
    uint32_t num_aces;
    beace_t aces[];
} beacl_t;

KV_END_FLEXIBLE_RECORDS

/** The loader's working summary of one map. get_permbe_shmsize() allocates it; the caller owns it
 *  and its two path copies, sets `membuf`, and frees all three when done. */
typedef struct memsummary_s {
    kavrin_stack_head_t sth;     /**< parse stack, empty between loads */
    char mapname[MAXMAP_NAMELEN];
    char *perm_map_name_size;    /**< heap copy of the size file's path */
    char *perm_map_name_data;    /**< heap copy of the data file's path; null: persisted map */
    char version[MAXMAP_VERSION_NAMELEN];
    uint32_t generationnum;
    int64_t timestamp;
    uint32_t total_fselems;  /**< F */
    uint32_t total_aces;     /**< A */
    uint32_t total_namelen;  /**< N: names and their terminators */
    uint32_t fselem_offset;  /**< zero; the live values are in the image header */
    uint32_t nameelem_offset;
    uint32_t acl_offset;
    uint32_t list_offset;
    uint32_t memsize; /**< bytes the image needs, or the persisted map file's size */
    void *membuf;     /**< the image, borrowed from the caller */
} memsummary_t;

struct jsonstack_s;

/**
 * Appends one fs_elem_t and makes the stack element refer to it.
 * @param msum          summary whose `membuf` is the image (asserted valid)
 * @param stelem        receives type STELEM_TYPE_FSELEM and the new offset (asserted non-null)
 * @param parent_offset the parent, or FSELEM_ROOT_OFFSET for the root
 * @return SHM_MEMBE_OK; misuse is an assertion.
 */
e_membe_shm_err create_fselem(memsummary_t *msum, struct jsonstack_s *stelem,
                              uint32_t parent_offset);

/**
 * Appends one name and attaches it to the element of `stelem`, which must not have one yet.
 * @param sum     summary with the image
 * @param namelen bytes of the name, at least 1
 * @param name    the name, borrowed; need not be terminated, a zero byte ends the copy
 * @return SHM_MEMBE_OK; misuse is an assertion.
 */
e_membe_shm_err create_nameelem(memsummary_t *sum, unsigned int namelen, char *name,
                                struct jsonstack_s *stelem);

/**
 * Appends an empty child list of that capacity and attaches it to the element of `stelem`; a list
 * it had before is lost space.
 * @return SHM_MEMBE_OK; misuse is an assertion.
 */
e_membe_shm_err create_child_list(memsummary_t *sum, unsigned int numchildren,
                                  struct jsonstack_s *stelem);

/**
 * Records a child in the next free slot of its parent's list and the parent in the child. The
 * list's capacity is trusted.
 * @return SHM_MEMBE_OK; misuse is an assertion.
 */
e_membe_shm_err add_to_parentlist(memsummary_t *sum, struct jsonstack_s *child_stelem,
                                  uint32_t parent_offset);

KV_END_DECLS

#endif
