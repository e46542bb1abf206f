// The ACL that governs a path, looked up in an image, with the way to it.
#pragma once

#include "kavrin_perms.h"
#include "permissions/verdict_trail.h"

namespace kavrin {

// get_kavrin_acl() with a trail; null writes none down.
e_membe_shm_err acl_for_path(void* membuf, const char* path, kavrin_acl_t** acl, AclTrail* trail);

}  // namespace kavrin
