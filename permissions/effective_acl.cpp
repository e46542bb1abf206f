// See effective_acl.h. States that a published image cannot be in end the process: a verdict must
// never come out of a damaged map.
#include "permissions/effective_acl.h"

#include <cstdlib>
#include <cstring>

#include "perm_enforcer.h"
#include "perm_utils.h"
#include "permissions/acl.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

// The element that a path leads to; `inherited` when it is not the path's own.
std::uint32_t element_for_path(void* membuf, const char* path, bool& inherited) {
    path_array_t* parr = nullptr;
    get_path_elem_smb4(const_cast<char*>(path), static_cast<unsigned>(std::strlen(path) + 1),
                       &parr);
    KV_ASSERT_AS(parr != nullptr, "parr != NULL");
    std::uint32_t offset = 0;
    const e_membe_shm_err ret = find_fselem_fromname(membuf, parr, &offset);
    inherited = ret == SHM_MEMBE_OK_NAMEREMAPPED;
    if (inherited) {
        KV_TRACE(kTrace, "setting inherited as ret is SHM_MEMBE_OK_NAMEREMAPPED");
    } else if (ret != SHM_MEMBE_OK) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot find path in permission map %d",
                 static_cast<int>(ret));
        KV_ASSERT_AS(false, "ret == SHM_MEMBE_OK || ret == SHM_MEMBE_OK_NAMEREMAPPED");
    }
    cleanup_path_array_smb4(&parr);
    return offset;
}

}  // namespace

e_membe_shm_err acl_for_path(void* membuf, const char* path, kavrin_acl_t** acl, AclTrail* trail) {
    if (membuf == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Null membuf");
        return SHM_MEMBE_ERR_BADARGS;
    }
    if (path == nullptr) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Null path");
        KV_ASSERT_AS(false, "path != NULL");
    }
    if (*path == 0) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Empty path");
        return SHM_MEMBE_ERR_BADARGS;
    }
    bool inherited = false;
    const std::uint32_t offset = element_for_path(membuf, path, inherited);

    kavrin_acl_t* eacl = nullptr;
    const e_membe_shm_err ret = get_nonempty_kavrinacl_fromfselemoffset(membuf, offset, &eacl);
    if (ret != SHM_MEMBE_OK) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Cannot get Kavrin ACL %d", static_cast<int>(ret));
        KV_ASSERT_AS(false, "ret == SHM_MEMBE_OK");
    }
    if (inherited) {
        KV_TRACE(kTrace, "Setting INHERITED flag %s(%d)", "get_kavrin_acl", __LINE__);
        set_inheritance_flag(eacl, 1);
    }
    KV_ASSERT_AS(eacl != nullptr, "eacl != NULL");
    *acl = eacl;
    if (trail != nullptr) {
        trail->read = true;
        trail->path = path;
        trail->element = offset;
        trail->remapped = inherited;
        trail->governing = raw(governing_element(ImageView(membuf), ElementOffset{offset}));
    }
    return SHM_MEMBE_OK;
}

}  // namespace kavrin

extern "C" e_membe_shm_err get_kavrin_acl(void* membuf, char* path, kavrin_acl_t** acl) {
    return kavrin::acl_for_path(membuf, path, acl, nullptr);
}

extern "C" void free_ACL(kavrin_acl_t* acl) {
    free_kavrin_acl(acl);
}
