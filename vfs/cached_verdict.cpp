// The verdict with the cache in front of it, for stats and listings.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "perm_enforcer.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kTrace;

bool is_cacheable(e_vfs_enforce_perms_t verdict) {
    return verdict == KVPERMS_NO_PERM || verdict == KVPERMS_HAS_PERMS;
}

// What a path without a canonical form is answered with.
int without_canonical_path(const char* path) {
    const int error = errno;
    if (error == ENOMEM) {
        KV_TRACE(kAlways, "path normalization failed %s: %s", path, std::strerror(error));
        return KVPERMS_MALLOC_ERR;
    }
    if (error == ENOENT) {
        KV_TRACE(kTrace, "returning HAS_PERMS, path normalization returned an unusable path %s: %s",
                 path, std::strerror(error));
        return KVPERMS_HAS_PERMS;
    }
    KV_TRACE(kAlways, "path normalization failed for %s: code=%d (%s)", path, error,
             std::strerror(error));
    KV_ASSERT_AS(false, "0");
    return KVPERMS_UNKNOWN_ERR;
}

// Remembers a verdict where the look-up said: as a new path, or at a known one.
void remember(char* path, e_fsop_type_t op, e_vfs_enforce_perms_t verdict,
              e_vfs_enforce_perms_t looked_up, int index, kv_vfs_table_cache_t& cache) {
    if (looked_up == KVPERMS_NOT_FOUND) {
        KV_TRACE(kTrace, "TLB: Adding entry for %s, op %d, perms %d, slot %d", path, op, verdict,
                 index);
        add_tlb_entry(path, index, op, verdict, &cache);
        return;
    }
    KV_ASSERT_AS(looked_up == KVPERMS_NOT_SET, "0");
    KV_TRACE(kTrace, "TLB: Updating entry for %s, op %d, perms %d, slot %d", path, op, verdict,
             index);
    update_tlb_entry(index, op, verdict, &cache);
}

}  // namespace

extern "C" int check_perms(const char* shareroot, const char* path, e_fsop_type_t op,
                           kv_connection_private_data_t* private_data, int force_path_type) {
    if (private_data->groupmap.is_computer_acct != 0) {
        KV_TRACE(kTrace, "kavrin_%s KVPERMS_NO_PERM", __func__);
        return KVPERMS_NO_PERM;
    }
    if (geteuid() == 0) {
        KV_TRACE(kTrace, "kavrin_%s KVPERMS_HAS_PERMS", __func__);
        return KVPERMS_HAS_PERMS;
    }
    errno = 0;
    const HeapString norm(normalize_path(path));
    if (norm == nullptr) return without_canonical_path(path);

    kv_vfs_table_cache_t& cache = private_data->vfs_table_cache;
    int index = -1;
    const e_vfs_enforce_perms_t cached = check_tlb(norm.get(), op, &index, &cache);
    if (is_cacheable(cached)) {
        KV_TRACE(kTrace, "TLB: Cache hit for %s, op %d, perms %d, slot %d", norm.get(), op, cached,
                 index);
        return cached;
    }
    int is_nav = 0;
    const e_vfs_enforce_perms_t verdict = vfs_enforce_perms(
        shareroot, norm.get(), op, &private_data->groupmap, force_path_type, &is_nav);
    // Errors are not remembered: the next look-up asks again.
    if (is_cacheable(verdict)) remember(norm.get(), op, verdict, cached, index, cache);
    return verdict;
}
