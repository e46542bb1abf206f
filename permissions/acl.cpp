// The in-process ACL and its image record, in both directions. ACEs are put in front of the list,
// so the image holds them in reverse order of the data file, and a list read back from the image
// has the data file's order again.
#include "permissions/acl.h"

#include <cstdlib>
#include <cstring>

#include "utils/owners.h"

namespace {

using namespace kavrin;

// What the messages of the walk to the governing ACL name themselves with.
constexpr char kWalk[] = "get_nonempty_kavrinacl_fromfselemoffset";

struct AclDeleter {
    void operator()(kavrin_acl_t* acl) const {
        free_kavrin_acl(acl);
        std::free(acl);
    }
};
using AclOwner = std::unique_ptr<kavrin_acl_t, AclDeleter>;

AclOwner allocate_acl() {
    AclOwner acl(static_cast<kavrin_acl_t*>(std::calloc(1, sizeof(kavrin_acl_t))));
    if (acl == nullptr) {
        KV_TRACE(kAlways, "malloc failure ");
        KV_ASSERT_AS(acl != nullptr, "acl != NULL");
    }
    acl->version = KAVRIN_ACL_VERSION;
    return acl;
}

std::uint32_t id_of(const kavrin_ace_t& ace) {
    return ace.trustee_type == ACE_TYPE_GROUP ? ace.trustee.gid : ace.trustee.uid;
}

beace_t to_record(const kavrin_ace_t& ace) {
    beace_t record{};
    switch (ace.trustee_type) {
        case ACE_TYPE_USER:
            record.idtype = IDTYPE_UID;
            break;
        case ACE_TYPE_GROUP:
            record.idtype = IDTYPE_GID;
            break;
        default:
            KV_TRACE(kAlways, "Invalid trustee type %d", static_cast<int>(ace.trustee_type));
            KV_ASSERT_AS(false, "0");
    }
    record.id = id_of(ace);
    record.perm_mask = static_cast<std::uint16_t>(ace.perm_mask);
    return record;
}

e_ace_type_t trustee_type_of(const beace_t& record) {
    switch (record.idtype) {
        case IDTYPE_UID:
            return ACE_TYPE_USER;
        case IDTYPE_GID:
            return ACE_TYPE_GROUP;
        default:
            return ACE_TYPE_UNDEF;
    }
}

}  // namespace

namespace kavrin {

std::uint32_t record_size(const kavrin_acl_t& acl) {
    return static_cast<std::uint32_t>(sizeof(beacl_t) + sizeof(beace_t) * acl.num_aces);
}

void write_record(const kavrin_acl_t& acl_to_write, beacl_t& record) {
    const kavrin_acl_t* acl = &acl_to_write;
    KV_ASSERT(acl->version == KAVRIN_ACL_VERSION);
    record.signature = ACLSIG;
    record.num_aces = acl->num_aces;
    std::size_t entry = 0;
    for (const kavrin_ace_t& ace : AceRange(*acl)) record.aces[entry++] = to_record(ace);
}

ElementOffset governing_element(const ImageView& image, ElementOffset offset) {
    for (;;) {
        const fs_elem_t& element = image.element(offset);
        beacl_t* bacl = nullptr;
        const e_membe_shm_err ret = get_bacl_fromfselem(&image.header(), raw(offset), &bacl);
        KV_ASSERT(ret == SHM_MEMBE_OK);
        if ((element.flags & FSELEM_FLAG_ROOT) != 0) {
            KV_TRACE(kDecision, "%s(%d) : reached root", kWalk, __LINE__);
            return offset;
        }
        if (bacl->num_aces != 0) {
            KV_TRACE(kDecision, "%s(%d) : num_aces %d", kWalk, __LINE__,
                     static_cast<int>(bacl->num_aces));
            return offset;
        }
        offset = ElementOffset{element.parent_offset};
    }
}

}  // namespace kavrin

extern "C" e_membe_shm_err create_empty_acl(kavrin_acl_t** eacl) {
    KV_ASSERT_AS(*eacl == nullptr, "*eacl == NULL");
    *eacl = allocate_acl().release();
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err add_ace_to_acl(kavrin_acl_t* acl, e_ace_type_t type, uid_t id) {
    KV_ASSERT_AS(acl != nullptr, "acl != NULL");
    auto* ace = static_cast<kavrin_ace_t*>(std::calloc(1, sizeof(kavrin_ace_t)));
    KV_ASSERT_AS(ace != nullptr, "ace != NULL");
    ace->trustee_type = type;
    ace->trustee.uid = id;
    oneway_list_push(&acl->ace_list_head, &ace->ace_list);
    ++acl->num_aces;
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err add_ace_mask(kavrin_acl_t* acl, e_ace_type_t type, uid_t id,
                                        unsigned int mask) {
    if (acl == nullptr) {
        KV_TRACE(kAlways, "Null ACL ");
        KV_ASSERT_AS(acl != nullptr, "acl != NULL");
    }
    int found = 0;
    for (kavrin_ace_t& ace : AceRange(*acl)) {
        if (ace.trustee_type != type || id_of(ace) != id) continue;
        ace.perm_mask = mask;
        found = 1;
        break;
    }
    KV_ASSERT(found == 1);
    return SHM_MEMBE_OK;
}

extern "C" void free_kavrin_acl(kavrin_acl_t* acl) {
    if (acl == nullptr) return;
    while (oneway_list_elem_t* ace = acl->ace_list_head.first_elem) {
        oneway_list_remove(&acl->ace_list_head, ace);
        std::free(ace);
    }
}

extern "C" e_membe_shm_err set_inheritance_flag(kavrin_acl_t* acl, unsigned int inheritance) {
    if (inheritance > 1) return SHM_MEMBE_ERR_BADARGS;
    if (acl == nullptr) return SHM_MEMBE_ERR_LISTERR;
    for (kavrin_ace_t& ace : AceRange(*acl)) ace.ace_type = inheritance;
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err ACL_2_membuf(kavrin_acl_t* acl, beacl_t** bacl, unsigned int* size) {
    *bacl = nullptr;
    if (acl == nullptr) return SHM_MEMBE_OK;
    *size = record_size(*acl);
    HeapOwner<beacl_t> record(static_cast<beacl_t*>(std::calloc(1, *size)));
    if (record == nullptr) return SHM_MEMBE_ERR_NOMEM;
    write_record(*acl, *record);
    *bacl = record.release();
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err membuf_2_ACL(beacl_t* bacl, unsigned int version,
                                        unsigned int inheritance, kavrin_acl_t** acl) {
    if (acl == nullptr) {
        KV_TRACE(kAlways, "Empty kavrin_acl container");
        KV_ASSERT_AS(acl != nullptr, "acl != NULL");
    }
    if (*acl != nullptr) {
        KV_TRACE(kAlways, "non empty kavrin_acl_t ");
        KV_ASSERT_AS(*acl == nullptr, "*acl == NULL");
    }
    if (inheritance > 1)
        KV_TRACE(kAlways, "Invalid inheritance type %d", static_cast<int>(inheritance));
    if (version != KAVRIN_ACL_VERSION) return SHM_MEMBE_ERR_VERSION_MISMATCH;

    AclOwner built = allocate_acl();
    built->num_aces = bacl->num_aces;
    for (std::uint32_t i = 0; i < bacl->num_aces; ++i) {
        const beace_t record = bacl->aces[i];
        const e_ace_type_t type = trustee_type_of(record);
        if (type == ACE_TYPE_UNDEF) {
            KV_TRACE(kAlways, "Invalid trustee type %d", static_cast<int>(record.idtype));
            built.reset();
            KV_ASSERT_AS(false, "0");
        }
        auto* ace = static_cast<kavrin_ace_t*>(std::calloc(1, sizeof(kavrin_ace_t)));
        if (ace == nullptr) {
            built.reset();
            KV_ASSERT_AS(ace != nullptr, "ace != NULL");
        }
        ace->ace_type = inheritance;
        ace->trustee_type = type;
        ace->trustee.uid = record.id;
        ace->perm_mask = record.perm_mask;
        oneway_list_push(&built->ace_list_head, &ace->ace_list);
        KV_TRACE(kTrace, "Bacl version %d trustee type %d id %d mask %d ",
                 static_cast<int>(version), static_cast<int>(type), static_cast<int>(record.id),
                 static_cast<int>(record.perm_mask));
    }
    *acl = built.release();
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err get_bacl_fromfselem(void* perm_map, uint32_t offset, beacl_t** beacl) {
    KV_ASSERT_AS(perm_map != nullptr, "perm_map != NULL");
    KV_ASSERT_AS(*beacl == nullptr, "*beacl == NULL");
    const ImageView image(perm_map);
    assert_validity_mark(image);
    *beacl = &image.acl_of(image.element(ElementOffset{offset}));
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err get_kavrinacl_fromfselemoffset(void* perm_map, uint32_t offset,
                                                          kavrin_acl_t** eacl) {
    KV_ASSERT_AS(*eacl == nullptr, "*eacl == NULL");
    beacl_t* bacl = nullptr;
    const e_membe_shm_err ret = get_bacl_fromfselem(perm_map, offset, &bacl);
    if (ret != SHM_MEMBE_OK) return ret;
    return membuf_2_ACL(bacl, KAVRIN_ACL_VERSION, 0, eacl);
}

extern "C" e_membe_shm_err get_nonempty_kavrinacl_fromfselemoffset(void* perm_map, uint32_t offset,
                                                                   kavrin_acl_t** eacl) {
    if (perm_map == nullptr) {
        KV_TRACE(kAlways, "Invalid perm map");
        return SHM_MEMBE_ERR_BADARGS;
    }
    const ImageView image(perm_map);
    assert_validity_mark(image);
    const ElementOffset start{offset};
    const ElementOffset governing = governing_element(image, start);
    const unsigned int inherited = governing == start ? 0 : 1;
    const e_membe_shm_err ret =
        membuf_2_ACL(&image.acl_of(image.element(governing)), KAVRIN_ACL_VERSION, inherited, eacl);
    KV_ASSERT_AS(ret != SHM_MEMBE_OK || *eacl != nullptr, "*eacl != NULL");
    return ret;
}
