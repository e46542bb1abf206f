// The parse stack behind the JSON callbacks of both files. A map pushes and pops some thirty
// elements for each folder or file in it, so popped ones are kept for the next push and the
// operations are inline: they are a good part of what a load costs beside the JSON parser.
#pragma once

#include "read_perms.h"
#include "utils/trace.h"

namespace kavrin {

// Elements that were popped, linked through `links`. Parsing is single-threaded by contract.
inline oneway_list_elem_t* kept_stackelems = nullptr;

// The links are an element's first member.
inline jsonstack_t* stackelem_of(oneway_list_elem_t* links) {
    return reinterpret_cast<jsonstack_t*>(links);
}

// An element from the heap, or null.
jsonstack_t* allocate_from_heap();

// A zero-filled element of type STELEM_TYPE_INVALID, in no stack; null without memory.
inline jsonstack_t* allocate_stackelem() {
    if (kept_stackelems == nullptr) return allocate_from_heap();
    jsonstack_t* element = stackelem_of(kept_stackelems);
    kept_stackelems = kept_stackelems->next_elem;
    *element = jsonstack_t{
        {nullptr, nullptr}, PERMDATA_STATE_STCHILDARRAY, STELEM_TYPE_INVALID, 0, nullptr};
    return element;
}

inline void release_stackelem(jsonstack_t* element) {
    element->links.next_elem = kept_stackelems;
    kept_stackelems = &element->links;
}

// Puts an element on top; the stack owns it.
inline e_KvListErr_t push_stackelem(kavrin_stack_head_t& stack, jsonstack_t* element) {
    const e_KvListErr_t result = oneway_list_push(&stack.sthead, &element->links);
    if (result == KVLIST_ERR_OK) ++stack.totalelems;
    return result;
}

// Takes the top off, or null; the caller releases it.
inline jsonstack_t* pop_stackelem(kavrin_stack_head_t& stack) {
    kavrin_stack_head_t* head = &stack;
    if (STACK_EMPTY(head)) {
        KV_ASSERT(head->totalelems == 0);
        return nullptr;
    }
    oneway_list_elem_t* top = head->sthead.first_elem;
    oneway_list_remove(&head->sthead, top);
    --head->totalelems;
    return stackelem_of(top);
}

// The top, which must be there (asserted "elem != NULL").
inline jsonstack_t& top_of(const kavrin_stack_head_t& stack) {
    KV_ASSERT_AS(stack.sthead.first_elem != nullptr, "elem != NULL");
    return *stackelem_of(stack.sthead.first_elem);
}

// Releases whatever an interrupted parse left, the ACL that it was collecting too, and hands the
// kept elements back to the heap.
void empty_stack(kavrin_stack_head_t& stack);

}  // namespace kavrin
