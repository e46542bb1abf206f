// From the data file's tokens to image records, in one forward pass. The callbacks see one token at
// a time; where the parse is in the grammar lies on an explicit stack of states, and the tables
// below say what may follow what. A record is written as soon as its token arrives; only one ACL is
// ever collected before it is written.
//
// The parser is strict but not complete: most of what the grammar does not allow ends the building
// process, while a document cut short or cancelled leaves what was built until then. Whoever
// publishes checks the pair before and the image after, as kavrinctl does.
#include "permissions/data_parser.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "permissions/acl.h"
#include "permissions/image_view.h"
#include "permissions/json_session.h"
#include "permissions/parse_stack.h"

namespace {

using namespace kavrin;

constexpr int kContinue = 1;
constexpr int kCancel = 0;

// Keys with a meaning of their own: the state they push and the only state they may come in.
struct Key {
    std::string_view text;
    e_json_permdata_states pushed;
    e_json_permdata_states required;
    const char* assertion;
};
constexpr Key kKeys[] = {
    {"CHILDREN", PERMDATA_STATE_CHILDREN, PERMDATA_STATE_STCHILDMAP,
     "curst == PERMDATA_STATE_STCHILDMAP"},
    {"NUMCHILDREN", PERMDATA_STATE_NUMCHILDREN, PERMDATA_STATE_STNUMCHILDRENMAP,
     "curst == PERMDATA_STATE_STNUMCHILDRENMAP"},
    {"NUMUSERS", PERMDATA_STATE_NUMUSERS, PERMDATA_STATE_STNUMUSERMAP,
     "curst == PERMDATA_STATE_STNUMUSERMAP"},
    {"NUMGROUPS", PERMDATA_STATE_NUMGROUPS, PERMDATA_STATE_STNUMGROUPMAP,
     "curst == PERMDATA_STATE_STNUMGROUPMAP"},
    {"DIR", PERMDATA_STATE_NAME, PERMDATA_STATE_STCHILDMAP, "curst == PERMDATA_STATE_STCHILDMAP"},
    {"USERS", PERMDATA_STATE_USERS, PERMDATA_STATE_STUSERMAP, "curst == PERMDATA_STATE_STUSERMAP"},
    {"ACL", PERMDATA_STATE_ACL, PERMDATA_STATE_STCHILDMAP, "curst == PERMDATA_STATE_STCHILDMAP"},
    {"GROUPS", PERMDATA_STATE_GROUPS, PERMDATA_STATE_STGROUPMAP,
     "curst == PERMDATA_STATE_STGROUPMAP"},
};

// What the start of an object pushes, by the state on top; PERMDATA_STATE_INVAL pushes nothing. The
// two states that do more than push are handled on their own.
constexpr auto kMapStarts = [] {
    std::array<e_json_permdata_states, PERMDATA_STATE_INVAL + 1> pushed{};
    pushed.fill(PERMDATA_STATE_INVAL);
    pushed[PERMDATA_STATE_STCHILDARRAY] = PERMDATA_STATE_STNUMCHILDRENMAP;
    pushed[PERMDATA_STATE_STACLARRAY] = PERMDATA_STATE_STNUMUSERMAP;
    pushed[PERMDATA_STATE_ENDNUMUSERMAP] = PERMDATA_STATE_STNUMGROUPMAP;
    pushed[PERMDATA_STATE_USERS] = PERMDATA_STATE_STUSERACLMAP;
    pushed[PERMDATA_STATE_ENDUSERMAP] = PERMDATA_STATE_STGROUPMAP;
    pushed[PERMDATA_STATE_GROUPS] = PERMDATA_STATE_STGROUPACLMAP;
    return pushed;
}();

jsonstack_t& top() {
    return top_of(memsummary->sth);
}

// An element for the stack; null after the message when there is no memory.
jsonstack_t* new_element() {
    jsonstack_t* element = allocate_stackelem();
    if (element == nullptr) KV_TRACE(kAlways, "No memory %s", std::strerror(errno));
    return element;
}

int push(jsonstack_t* element) {
    const e_KvListErr_t error = push_stackelem(memsummary->sth, element);
    if (error == KVLIST_ERR_OK) return kContinue;
    KV_TRACE(kAlways, "Push failure %d", 1);
    release_stackelem(element);
    return kCancel;
}

// Pushes a state that belongs to the same element and ACL as the top.
int push_state(e_json_permdata_states state) {
    jsonstack_t* element = new_element();
    if (element == nullptr) return kCancel;
    const jsonstack_t& current = top();
    element->state = state;
    element->stetype = current.stetype;
    element->jsonoffset = current.jsonoffset;
    element->data = current.data;
    return push(element);
}

void pop() {
    release_stackelem(pop_stackelem(memsummary->sth));
}

// Pops a state that ended an array; another one on top breaks the grammar.
void pop_in_array(e_json_permdata_states state) {
    if (top().state == state) return pop();
    pop_if_state(state);  // for its trace
    KV_TRACE(kAlways, "State mismatch ");
    KV_ASSERT_AS(false, "ret == SHM_MEMBE_OK");
}

// Pops a state that ended an object of users or groups.
void pop_in_acl_map(e_json_permdata_states state) {
    if (top().state == state) return pop();
    const e_membe_shm_err ret = pop_if_state(state);
    KV_TRACE(kAlways, "pop error %d ", static_cast<int>(ret));
    KV_ASSERT(ret == SHM_MEMBE_OK);
}

ImageView current_image() {
    KV_ASSERT_AS(memsummary != nullptr, "memsummary != NULL");
    KV_ASSERT_AS(memsummary->membuf != nullptr, "memsummary->membuf != NULL");
    const ImageView image(memsummary->membuf);
    assert_validity_mark(image);
    return image;
}

// The top level of the document: makes the root and the state that its list belongs to.
int open_document() {
    jsonstack_t* element = new_element();
    if (element == nullptr) return kCancel;
    if (create_fselem(memsummary, element, FSELEM_ROOT_OFFSET) != SHM_MEMBE_OK) {
        KV_TRACE(kAlways, "Error creating fselem ");
        release_stackelem(element);
        return kCancel;
    }
    element->state = PERMDATA_STATE_STCHILDARRAY;
    return push(element);
}

// An object where an element may stand: the root itself, or a child of the element on top.
int open_element() {
    jsonstack_t* element = new_element();
    if (element == nullptr) return kCancel;
    element->state = PERMDATA_STATE_STCHILDMAP;
    const ImageView image = current_image();
    const ElementOffset parent_offset{top().jsonoffset};
    fs_elem_t& parent = image.element_space(parent_offset);

    if (parent_offset == kRootElement && parent.parent_offset == FSELEM_ROOT_OFFSET) {
        parent.parent_offset = FSELEM_ROOT_OFFSET2;
        parent.flags |= FSELEM_FLAG_ROOT;
        element->stetype = STELEM_TYPE_FSELEM;
        element->jsonoffset = raw(kRootElement);
        return push(element);
    }
    // A child under a childless element refers to nothing; its name will not be taken.
    if ((parent.flags & FSELEM_FLAG_NOCHILDREN) != 0) return push(element);
    if (create_fselem(memsummary, element, raw(parent_offset)) != SHM_MEMBE_OK) {
        KV_TRACE(kAlways, "Error creating fselem ");
        release_stackelem(element);
        return kCancel;
    }
    add_to_parentlist(memsummary, element, raw(parent_offset));
    return push(element);
}

int open_acl() {
    kavrin_acl_t* acl = nullptr;
    create_empty_acl(&acl);
    jsonstack_t* element = new_element();
    if (element == nullptr) {
        std::free(acl);
        return kCancel;
    }
    element->state = PERMDATA_STATE_STUSERMAP;
    element->stetype = STELEM_TYPE_ACLELEM;
    element->data = acl;
    return push(element);
}

void set_number_of_children(std::uint32_t count) {
    jsonstack_t& current = top();
    const e_stelem_type stetype = current.stetype;
    KV_ASSERT(stetype == STELEM_TYPE_FSELEM);
    fs_elem_t& element = current_image().element(ElementOffset{current.jsonoffset});
    if (count > 0) {
        create_child_list(memsummary, count, &current);
    } else {
        element.flags |= FSELEM_FLAG_NOCHILDREN;
    }
}

// Starts an ACE for the id that an ACL's key names; its mask follows.
int open_ace(e_ace_type_t type, e_json_permdata_states state, std::string_view key) {
    auto* acl = static_cast<kavrin_acl_t*>(top().data);
    add_ace_to_acl(acl, type, static_cast<uid_t>(decimal_value(key)));
    return push_state(state);
}

// Gives the ACE that was just opened, which is the first of its ACL, its mask.
void set_mask(e_ace_type_t type, std::uint32_t mask) {
    auto* acl = static_cast<kavrin_acl_t*>(top().data);
    KV_ASSERT_AS(acl != nullptr && acl->ace_list_head.first_elem != nullptr, "ace != NULL");
    // The links are an ACE's first member.
    const auto* ace = reinterpret_cast<const kavrin_ace_t*>(acl->ace_list_head.first_elem);
    add_ace_mask(acl, type, ace->trustee.uid, mask);
}

// Writes the collected ACL at the ACL region's cursor and points the element at it. The element is
// named by the state below.
void commit_acl(kavrin_acl_t* eacl) {
    KV_ASSERT_AS(eacl != nullptr, "eacl != NULL");
    const jsonstack_t& below = top();
    if (below.state != PERMDATA_STATE_ENDNUMGROUPMAP) {
        KV_TRACE(8, "state mismatch asked %d given %d", PERMDATA_STATE_ENDNUMGROUPMAP, below.state);
        KV_TRACE(kAlways, "State mismatch ");
        KV_ASSERT_AS(false, "ret == SHM_MEMBE_OK");
    }
    const ElementOffset offset{below.jsonoffset};
    pop();

    KV_ASSERT_AS(memsummary->membuf != nullptr, "beheader != NULL");
    const ImageView image(memsummary->membuf);
    kavrin_be_header_t& header = image.header();
    fs_elem_t* fselemx1 = &image.element(offset);
    KV_ASSERT_AS(fselemx1 != nullptr, "fselemx1 != NULL");
    fselemx1->acl_offset = header.next_free_acl;
    write_record(*eacl, image.acl_space(AclOffset{header.next_free_acl}));
    header.next_free_acl += record_size(*eacl);

    free_kavrin_acl(eacl);
    std::free(eacl);
}

void require_top(e_json_permdata_states expected, const char* assertion) {
    KV_ASSERT_AS(top().state == expected, assertion);
}

// The end of an "ACL" array, its state already popped with the collected ACL.
void close_acl_array(kavrin_acl_t* acl) {
    commit_acl(acl);
    for (const e_json_permdata_states state :
         {PERMDATA_STATE_STNUMGROUPMAP, PERMDATA_STATE_ENDNUMUSERMAP, PERMDATA_STATE_STNUMUSERMAP,
          PERMDATA_STATE_STACLARRAY, PERMDATA_STATE_ACL})
        pop_in_array(state);
    require_top(PERMDATA_STATE_STCHILDMAP, "curst == PERMDATA_STATE_STCHILDMAP");
}

// The end of a "CHILDREN" array, or of the document.
void close_child_array() {
    pop_in_array(PERMDATA_STATE_STCHILDARRAY);
    if (STACK_EMPTY(&memsummary->sth)) return;
    pop_in_array(PERMDATA_STATE_CHILDREN);
    require_top(PERMDATA_STATE_STCHILDMAP, "curst == PERMDATA_STATE_STCHILDMAP");
}

const Key* find_key(std::string_view text) {
    for (const Key& key : kKeys) {
        // Seven keys an element: the cheap tests first.
        if (key.text.size() == text.size() && key.text.front() == text.front() && key.text == text)
            return &key;
    }
    return nullptr;
}

}  // namespace

extern "C" int readperm_number(void*, const char* number, size_t length) {
    const auto value = static_cast<std::uint32_t>(decimal_value({number, length}));
    switch (top().state) {
        case PERMDATA_STATE_NUMCHILDREN:
            set_number_of_children(value);
            break;
        case PERMDATA_STATE_NUMUSERS:
        case PERMDATA_STATE_NUMGROUPS:
            break;
        case PERMDATA_STATE_USERID:
            set_mask(ACE_TYPE_USER, value);
            break;
        case PERMDATA_STATE_GROUPID:
            set_mask(ACE_TYPE_GROUP, value);
            break;
        default:
            KV_TRACE(7, "case default");
            KV_ASSERT(0);
    }
    pop();
    return kContinue;
}

extern "C" int readperm_string(void*, const unsigned char* text, size_t length) {
    jsonstack_t& current = top();
    if (current.state != PERMDATA_STATE_NAME) {
        KV_TRACE(kAlways, "Invalid state %d", current.state);
        KV_ASSERT(0);
    }
    const e_stelem_type stetype = current.stetype;
    KV_ASSERT(stetype == STELEM_TYPE_FSELEM);
    create_nameelem(memsummary, static_cast<unsigned int>(length),
                    const_cast<char*>(reinterpret_cast<const char*>(text)), &current);
    pop();
    return kContinue;
}

extern "C" int readperm_start_map(void*) {
    const e_json_permdata_states state = top().state;
    if (state == PERMDATA_STATE_ENDNUMCHILDRENMAP) return open_element();
    if (state == PERMDATA_STATE_ENDNUMGROUPMAP) return open_acl();
    const e_json_permdata_states pushed = kMapStarts[state];
    return pushed == PERMDATA_STATE_INVAL ? kContinue : push_state(pushed);
}

extern "C" int readperm_map_key(void*, const unsigned char* key, size_t length) {
    const std::string_view text(reinterpret_cast<const char*>(key), length);
    const e_json_permdata_states curst = top().state;
    if (const Key* known = find_key(text); known != nullptr) {
        KV_ASSERT_AS(curst == known->required, known->assertion);
        return push_state(known->pushed);
    }
    if (curst == PERMDATA_STATE_STUSERACLMAP)
        return open_ace(ACE_TYPE_USER, PERMDATA_STATE_USERID, text);
    if (curst == PERMDATA_STATE_STGROUPACLMAP)
        return open_ace(ACE_TYPE_GROUP, PERMDATA_STATE_GROUPID, text);
    KV_TRACE(kAlways, "Invalid state %.*s state %d curst %d", static_cast<int>(length), text.data(),
             PERMDATA_STATE_INVAL, curst);
    return kCancel;
}

extern "C" int readperm_end_map(void*) {
    const e_json_permdata_states curst = top().state;
    switch (curst) {
        case PERMDATA_STATE_STCHILDMAP:
            pop();
            require_top(PERMDATA_STATE_ENDNUMCHILDRENMAP,
                        "curst == PERMDATA_STATE_ENDNUMCHILDRENMAP");
            return kContinue;
        case PERMDATA_STATE_STUSERMAP:
            return push_state(PERMDATA_STATE_ENDUSERMAP);
        case PERMDATA_STATE_STGROUPMAP:
            pop_in_acl_map(PERMDATA_STATE_STGROUPMAP);
            pop_in_acl_map(PERMDATA_STATE_ENDUSERMAP);
            return kContinue;
        case PERMDATA_STATE_STNUMUSERMAP:
            return push_state(PERMDATA_STATE_ENDNUMUSERMAP);
        case PERMDATA_STATE_STNUMGROUPMAP:
            return push_state(PERMDATA_STATE_ENDNUMGROUPMAP);
        case PERMDATA_STATE_STUSERACLMAP:
            pop_in_acl_map(PERMDATA_STATE_STUSERACLMAP);
            pop_in_acl_map(PERMDATA_STATE_USERS);
            return kContinue;
        case PERMDATA_STATE_STGROUPACLMAP:
            pop_in_acl_map(PERMDATA_STATE_STGROUPACLMAP);
            pop_in_acl_map(PERMDATA_STATE_GROUPS);
            return kContinue;
        case PERMDATA_STATE_STNUMCHILDRENMAP: {
            const e_stelem_type stetype = top().stetype;
            KV_ASSERT(stetype == STELEM_TYPE_FSELEM);
            top().state = PERMDATA_STATE_ENDNUMCHILDRENMAP;
            return kContinue;
        }
        default:
            break;
    }
    KV_ASSERT_AS(false,
                 "curst == PERMDATA_STATE_STCHILDMAP || curst == PERMDATA_STATE_STUSERMAP || "
                 "curst == PERMDATA_STATE_STGROUPMAP || curst == PERMDATA_STATE_STNUMUSERMAP || "
                 "curst == PERMDATA_STATE_STNUMGROUPMAP || curst == PERMDATA_STATE_STUSERACLMAP || "
                 "curst == PERMDATA_STATE_STGROUPACLMAP || "
                 "curst == PERMDATA_STATE_STNUMCHILDRENMAP");
    return kCancel;
}

extern "C" int readperm_start_array(void*) {
    if (STACK_EMPTY(&memsummary->sth)) return open_document();
    const e_json_permdata_states state = top().state;
    if (state == PERMDATA_STATE_CHILDREN) return push_state(PERMDATA_STATE_STCHILDARRAY);
    if (state == PERMDATA_STATE_ACL) return push_state(PERMDATA_STATE_STACLARRAY);
    KV_TRACE(kAlways, "Invalid state %d", state);
    KV_ASSERT(0);
    return kCancel;
}

extern "C" int readperm_end_array(void*) {
    const e_json_permdata_states state = top().state;
    auto* acl = static_cast<kavrin_acl_t*>(top().data);
    pop();
    switch (state) {
        case PERMDATA_STATE_STUSERMAP:
            close_acl_array(acl);
            return kContinue;
        case PERMDATA_STATE_ENDNUMCHILDRENMAP:
            close_child_array();
            return kContinue;
        default:
            KV_TRACE(kAlways, "Invalid state %d", state);
            KV_ASSERT(0);
    }
    return kCancel;
}

namespace kavrin {

// null, booleans and plain integer or floating-point values have no callback of their own.
const yajl_callbacks kDataFileCallbacks = {nullptr,
                                           nullptr,
                                           nullptr,
                                           nullptr,
                                           readperm_number,
                                           readperm_string,
                                           readperm_start_map,
                                           readperm_map_key,
                                           readperm_end_map,
                                           readperm_start_array,
                                           readperm_end_array};

}  // namespace kavrin
