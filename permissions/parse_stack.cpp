// See parse_stack.h, and read_perms.h for the public operations.
#include "permissions/parse_stack.h"

#include <cstdlib>

#include "kavrin_perms.h"
#include "utils/trace.h"

memsummary_t* memsummary = nullptr;

namespace kavrin {
namespace {

void trim_kept_stackelems() {
    while (kept_stackelems != nullptr) {
        oneway_list_elem_t* links = kept_stackelems;
        kept_stackelems = kept_stackelems->next_elem;
        std::free(stackelem_of(links));
    }
}

}  // namespace

jsonstack_t* allocate_from_heap() {
    auto* element = static_cast<jsonstack_t*>(std::calloc(1, sizeof(jsonstack_t)));
    if (element != nullptr) element->stetype = STELEM_TYPE_INVALID;
    return element;
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
    trim_kept_stackelems();
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
