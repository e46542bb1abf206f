/* One-way list: the links that every listed object embeds as its first member. ACLs list their
 * ACEs with it and the JSON parser its state stack.
 *
 * A head points to the first element; an element points to its successor and remembers where the
 * pointer to itself is kept, so that it can be unlinked without a walk. The first element keeps a
 * null `ptr2prev`, hence the only element of a list looks like an unlinked one. */
#ifndef KAVRIN_LISTS_H
#define KAVRIN_LISTS_H

#include <stddef.h>

#include "kavrin_cdefs.h"

KV_BEGIN_DECLS

/** Results of the list functions. */
typedef enum e_KvListErr {
    KVLIST_ERR_OK = 0,
    KVLIST_ERR_LIST_EMPTY = 1,
    KVLIST_ERR_NULL_HEAD = 2,
    KVLIST_ERR_UNITIALIZED_ELEM = 3,
    KVLIST_ERR_NULLELEM = 4,
    KVLIST_ERR_UNDEFINED = 5,
    KVLIST_ERR_MAX = 5
} e_KvListErr_t;

/** Links of one element; zero-filled means unlinked. */
typedef struct oneway_list_elem_s {
    struct oneway_list_elem_s *next_elem; /**< next element, or null */
    struct oneway_list_elem_s **ptr2prev; /**< the previous one's `next_elem`; null when first */
} oneway_list_elem_t;

/** Head of a list; zero-filled means empty. */
typedef struct oneway_list_head_s {
    oneway_list_elem_t *first_elem;
} oneway_list_head_t;

/**
 * Puts an element in front of the list. The list does not take ownership.
 * An element that is already linked is left where it is.
 * @return KVLIST_ERR_OK, KVLIST_ERR_NULL_HEAD or KVLIST_ERR_NULLELEM.
 */
static inline e_KvListErr_t oneway_list_push(oneway_list_head_t *head, oneway_list_elem_t *elem) {
    if (head == NULL) return KVLIST_ERR_NULL_HEAD;
    if (elem == NULL) return KVLIST_ERR_NULLELEM;
    if (elem->next_elem != NULL || elem->ptr2prev != NULL) return KVLIST_ERR_OK;
    elem->next_elem = head->first_elem;
    if (elem->next_elem != NULL) elem->next_elem->ptr2prev = &elem->next_elem;
    head->first_elem = elem;
    return KVLIST_ERR_OK;
}

/**
 * Takes an element out of the list it is in and resets its links. The caller owns it as before.
 * @return KVLIST_ERR_OK, KVLIST_ERR_NULL_HEAD, KVLIST_ERR_NULLELEM, KVLIST_ERR_LIST_EMPTY, or
 *         KVLIST_ERR_UNITIALIZED_ELEM for an element that is in no list.
 */
static inline e_KvListErr_t oneway_list_remove(oneway_list_head_t *head, oneway_list_elem_t *elem) {
    if (head == NULL) return KVLIST_ERR_NULL_HEAD;
    if (elem == NULL) return KVLIST_ERR_NULLELEM;
    if (head->first_elem == NULL) return KVLIST_ERR_LIST_EMPTY;
    if (head->first_elem == elem) {
        head->first_elem = elem->next_elem;
        if (elem->next_elem != NULL) elem->next_elem->ptr2prev = NULL;
    } else {
        if (elem->ptr2prev == NULL) return KVLIST_ERR_UNITIALIZED_ELEM;
        *elem->ptr2prev = elem->next_elem;
        if (elem->next_elem != NULL) elem->next_elem->ptr2prev = elem->ptr2prev;
    }
    elem->next_elem = NULL;
    elem->ptr2prev = NULL;
    return KVLIST_ERR_OK;
}

KV_END_DECLS

#endif
