// Keeping a connection's identity and verdicts in step with the files they come from. Two marker
// files tell by their modification time that something has changed: the group map, which is its own
// marker, and the permission map's marker.
//
// The group map's mapping is the process's: whichever connection resets first replaces it for all,
// which is safe because a connection keeps a copy of its groups and never a pointer into it.
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "kavrin_getgrouplist.h"
#include "kavrin_vfs_utils.h"
#include "perm_enforcer.h"
#include "utils/owners.h"
#include "utils/trace.h"

void* g_kavrin_grouplist_map = nullptr;
std::uint32_t g_kavrin_grouplist_map_size = 0;

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kEntry;

constexpr const char* kGroupMap = "/etc/kavrin/groupmap_refresh";
constexpr const char* kMapMarker = "/etc/kavrin/permission_refresh";
constexpr const char* kAdmins = "kavrin-admins";
constexpr const char* kPowerUsers = "kavrin-powerusers";
static_assert(SIGUSR1 == 10);

constexpr int kMapping = 5;
constexpr int kOwners = 3;

// Whether the system knows the uid; if so, sets whether it is a computer's account.
bool look_up_account(uid_t uid, process_trustees_t& identity) {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    if (size == -1) size = 16384;
    const HeapString buffer(static_cast<char*>(std::calloc(static_cast<std::size_t>(size), 1)));
    if (buffer == nullptr) {
        KV_TRACE(kAlways, "Cannot allocate memory of size %d", static_cast<int>(size));
        return false;
    }
    passwd entry;
    passwd* found = nullptr;
    const int error = getpwuid_r(uid, &entry, buffer.get(), static_cast<std::size_t>(size), &found);
    if (error != 0) {
        KV_TRACE(kAlways, "Cannot get username for uid %d to update user's groups: %s",
                 static_cast<int>(uid), std::strerror(error));
        return false;
    }
    if (found == nullptr) {
        KV_TRACE(kAlways, "%s: No user with uid %u", "reset_groupmap", uid);
        return false;
    }
    identity.is_computer_acct = is_computer_name(found->pw_name);
    return true;
}

void replace_mapping() {
    if (g_kavrin_grouplist_map != nullptr && g_kavrin_grouplist_map_size != 0)
        kavrin_unmap(std::exchange(g_kavrin_grouplist_map, nullptr),
                     std::exchange(g_kavrin_grouplist_map_size, 0));
    g_kavrin_grouplist_map = kavrin_mapfile(kGroupMap, &g_kavrin_grouplist_map_size);
    if (g_kavrin_grouplist_map == MAP_FAILED) {
        g_kavrin_grouplist_map = nullptr;
        g_kavrin_grouplist_map_size = 0;
    }
    KV_TRACE(kMapping, "New mapping %p %d", g_kavrin_grouplist_map,
             static_cast<int>(g_kavrin_grouplist_map_size));
}

// Takes the connection's groups from the mapping, if there is one.
void load_groups(kv_connection_private_data_t& connection) {
    const void* const map = g_kavrin_grouplist_map;
    const std::uint32_t size = g_kavrin_grouplist_map_size;
    if (map == nullptr || size == 0) return;
    const gid_t power_gid = kavrin_reserved_gid(map, size, kPowerUsers);
    const gid_t admin_gid = kavrin_reserved_gid(map, size, kAdmins);
    vfs_set_admins_powerusers(admin_gid, power_gid);

    std::uint32_t count = 0;
    connection.groupmap.gids =
        kavrin_getgrouplist(map, size, connection.user_name_as_passed_in, &count);
    connection.groupmap.num_sup_gids = static_cast<std::int32_t>(count);
    KV_TRACE(kEntry, "Loaded %d groups at %p", connection.groupmap.num_sup_gids,
             static_cast<void*>(connection.groupmap.gids));
}

// Whether a marker was touched after `noticed`, which then becomes the time of this look, not the
// marker's: one from the future counts as touched until the clock has passed it.
bool marker_changed(const char* path, std::time_t& noticed, bool& missing) {
    struct stat status;
    missing = stat(path, &status) != 0;
    if (missing || status.st_mtime <= noticed) return false;
    noticed = std::time(nullptr);
    return true;
}

}  // namespace

extern "C" int reset_groupmap(kv_connection_private_data_t* private_data) {
    if (private_data->user_name_as_passed_in == nullptr) {
        KV_TRACE(kAlways, "%s: user_name is NULL will not continue with reset_groupmap", __func__);
        return 0;
    }
    process_trustees_t& identity = private_data->groupmap;
    identity.egid = getgid();
    identity.euid = private_data->refresh_creds.euid;
    if (!look_up_account(private_data->refresh_creds.euid, identity)) return -1;

    if (identity.is_global_map_in_use != 0)
        KV_TRACE(kAlways, "%s: groups are replaced while a verdict reads them", __func__);
    std::free(std::exchange(identity.gids, nullptr));
    identity.num_sup_gids = 0;
    replace_mapping();
    load_groups(*private_data);
    return 0;
}

extern "C" void refresh_credentials(kv_connection_private_data_t* private_data) {
    refresh_crendetials_t& creds = private_data->refresh_creds;
    const uid_t current = geteuid();
    bool missing = false;

    const bool groups_changed = marker_changed(kGroupMap, creds.groupmap_refresh, missing);
    if (missing) KV_TRACE(kAlways, "Error: Group map refresh file %s is missing", kGroupMap);
    if (groups_changed)
        KV_TRACE(kEntry, "Kavrin Group map will be refreshed  for process %d %u for pid %d ",
                 static_cast<int>(getpid()), current, static_cast<int>(getpid()));

    const bool map_changed = marker_changed(kMapMarker, creds.permmap_refresh, missing);
    if (missing) KV_TRACE(kAlways, "Error: Permission map refresh file %s is missing", kMapMarker);
    if (map_changed)
        KV_TRACE(kEntry, "Kavrin Permissions map will be refreshed for process %d %u for pid %d ",
                 static_cast<int>(getpid()), current, static_cast<int>(getpid()));

    const bool user_changed = current != 0 && current != creds.euid;
    if (user_changed) creds.euid = current;
    if (user_changed || groups_changed || map_changed) flush_perms_handler(SIGUSR1, private_data);
}

extern "C" void flush_perms_handler(int signal_number, kv_connection_private_data_t* private_data) {
    const int pid = static_cast<int>(getpid());
    KV_TRACE(kEntry, "Resetting Kavrin permission caches and group maps for process %d", pid);
    if (signal_number != SIGUSR1) {
        KV_TRACE(kAlways, "Unexpected signal %d caught ", signal_number);
        return;
    }
    if (reset_groupmap(private_data) != 0)
        KV_TRACE(kAlways, "Could not reset global groupmap. Permissions are stale");
    KV_TRACE(kEntry, "Kavrin permission caches and group maps for process %d was reset.", pid);

    if (private_data->groupmap.is_computer_acct != 0) return;
    refresh_crendetials_t& creds = private_data->refresh_creds;
    // The cache is emptied by its next look-up.
    private_data->vfs_table_cache.flush_tlb = KAVRIN_TLB_FLUSH;
    KV_TRACE(kOwners,
             "Flushing from tlb owner %d to new owner %d permissions for %d, flush_tlb: %d, "
             "flush_tlb addr: %p",
             static_cast<int>(creds.tlb_owner), static_cast<int>(creds.euid), pid,
             private_data->vfs_table_cache.flush_tlb,
             static_cast<void*>(&private_data->vfs_table_cache.flush_tlb));
    creds.tlb_owner = creds.euid;
}
