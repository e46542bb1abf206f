/* The counted stack that a streaming JSON parse keeps its states on: a one-way list pushed and
 * popped at its head. */
#ifndef KAVRIN_STACK_H
#define KAVRIN_STACK_H

#include <stdint.h>

#include "kavrin_lists.h"

KV_BEGIN_DECLS

/** Head of a stack; zero-filled means empty. */
typedef struct kavrin_stack_head_s {
    uint32_t totalelems;       /**< elements on the stack */
    oneway_list_head_t sthead; /**< the elements, top first */
} kavrin_stack_head_t;

/** True when nothing is on the stack. */
#define STACK_EMPTY(head) ((head)->sthead.first_elem == NULL)

KV_END_DECLS

#endif
