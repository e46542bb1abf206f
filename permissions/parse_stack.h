// The parse stack behind the JSON callbacks of both files. Its elements come back again and again,
// some thirty of them for each folder or file of a map, so popped ones are kept for the next push.
#pragma once

#include "read_perms.h"

namespace kavrin {

// A zero-filled element of type STELEM_TYPE_INVALID, in no stack; null without memory.
jsonstack_t* allocate_stackelem();
void release_stackelem(jsonstack_t* element);

// Puts an element on top; the stack owns it.
e_KvListErr_t push_stackelem(kavrin_stack_head_t& stack, jsonstack_t* element);
// Takes the top off, or null; the caller releases it.
jsonstack_t* pop_stackelem(kavrin_stack_head_t& stack);
// The top, which must be there (asserted "elem != NULL").
jsonstack_t& top_of(const kavrin_stack_head_t& stack);

// Releases whatever an interrupted parse left, and the ACL that it was collecting.
void empty_stack(kavrin_stack_head_t& stack);

// Hands the kept elements back to the heap when a parse is over.
void trim_stackelems();

}  // namespace kavrin
