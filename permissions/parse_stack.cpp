// See parse_stack.h, and read_perms.h for the public operations.
#include "permissions/parse_stack.h"

#include <cstdlib>

#include "kavrin_perms.h"
#include "utils/trace.h"

memsummary_t* memsummary = nullptr;

namespace kavrin {
namespace {

// Released elements, linked through `links`. Parsing is single-threaded by contract.
oneway_list_elem_t* kept = nullptr;

jsonstack_t* element_of(oneway_list_elem_t* links) {
    return reinterpret_cast<jsonstack_t*>(links);  // the links are its first member
}

}  // namespace

jsonstack_t* allocate_stackelem() {
    jsonstack_t* element = nullptr;
    if (kept != nullptr) {
        element = element_of(kept);
        kept = kept->next_elem;
        *element = jsonstack_t{};
    } else {
        element = static_cast<jsonstack_t*>(std::calloc(1, sizeof(jsonstack_t)));
        if (element == nullptr) return nullptr;
    }
    element->stetype = STELEM_TYPE_INVALID;
    return element;
}

void release_stackelem(jsonstack_t* element) {
    element->links.next_elem = kept;
    kept = &element->links;
}

void trim_stackelems() {
    while (kept != nullptr) {
        oneway_list_elem_t* element = kept;
        kept = kept->next_elem;
        std::free(element_of(element));
    }
}

e_KvListErr_t push_stackelem(kavrin_stack_head_t& stack, jsonstack_t* element) {
    const e_KvListErr_t result = oneway_list_push(&stack.sthead, &element->links);
    if (result == KVLIST_ERR_OK) ++stack.totalelems;
    return result;
}

jsonstack_t* pop_stackelem(kavrin_stack_head_t& stack) {
    kavrin_stack_head_t* head = &stack;
    if (STACK_EMPTY(head)) {
        KV_ASSERT(head->totalelems == 0);
        return nullptr;
    }
    oneway_list_elem_t* top = head->sthead.first_elem;
    oneway_list_remove(&head->sthead, top);
    --head->totalelems;
    return element_of(top);
}

jsonstack_t& top_of(const kavrin_stack_head_t& stack) {
    KV_ASSERT_AS(stack.sthead.first_elem != nullptr, "elem != NULL");
    return *element_of(stack.sthead.first_elem);
}

void empty_stack(kavrin_stack_head_t& stack) {
    while (jsonstack_t* element = pop_stackelem(stack)) {
        // Of the elements that refer to an ACL under construction, this state's is the first.
        if (element->state == PERMDATA_STATE_STUSERMAP && element->data != nullptr) {
            auto* acl = static_cast<kavrin_acl_t*>(element->data);
            free_kavrin_acl(acl);
            std::free(acl);
        }
        release_stackelem(element);
    }
    trim_stackelems();
}

}  // namespace kavrin

using namespace kavrin;

extern "C" e_membe_shm_err push_stackelem_wstatedata(memsummary_t* msum,
                                                     e_json_permdata_states state, uint32_t offset,
                                                     void* data, e_stelem_type stelemtype) {
    if (msum == nullptr) {
        KV_TRACE(kAlways, "Null summary ");
        KV_ASSERT_AS(false, "msum != NULL");
    }
    jsonstack_t* elem = allocate_stackelem();
    KV_ASSERT_AS(elem != nullptr, "elem != NULL");
    elem->state = state;
    elem->stetype = stelemtype;
    elem->jsonoffset = offset;
    elem->data = data;
    if (push_stackelem(msum->sth, elem) != KVLIST_ERR_OK) {
        KV_TRACE(kAlways, "List error ");
        release_stackelem(elem);
        return SHM_MEMBE_ERR_LISTERR;
    }
    return SHM_MEMBE_OK;
}

extern "C" e_json_permdata_states get_cur_statewdata(kavrin_stack_head_t* sth, uint32_t* offset,
                                                     void** data, e_stelem_type* stelem_type) {
    KV_ASSERT(*offset == 0);
    KV_ASSERT_AS(*data == nullptr, "*data == NULL");
    KV_ASSERT_AS(*stelem_type == STELEM_TYPE_FSELEM, "*stelem_type == 0");
    jsonstack_t* elem = pop_stackelem(*sth);
    KV_ASSERT_AS(elem != nullptr, "elem != NULL");
    const e_json_permdata_states curstate = elem->state;
    *offset = elem->jsonoffset;
    *data = elem->data;
    *stelem_type = elem->stetype;
    if (push_stackelem(*sth, elem) != KVLIST_ERR_OK) {
        KV_TRACE(kAlways, "Could not push element to stack curstate %d", curstate);
        release_stackelem(elem);
        return PERMDATA_STATE_INVAL;
    }
    return curstate;
}

extern "C" e_json_permdata_states get_cur_state(kavrin_stack_head_t* sth) {
    return top_of(*sth).state;
}

extern "C" e_membe_shm_err pop_if_state(e_json_permdata_states st) {
    const e_json_permdata_states current = top_of(memsummary->sth).state;
    if (current != st) {
        KV_TRACE(8, "state mismatch asked %d given %d", st, current);
        return SHM_MEMBE_ERR_STATE_MISMATCH;
    }
    release_stackelem(pop_stackelem(memsummary->sth));
    return SHM_MEMBE_OK;
}
