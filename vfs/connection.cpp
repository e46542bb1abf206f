// A connection from its record to its end, and the accounts that are special to it.
#include <pwd.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "perm_map.h"
#include "utils/trace.h"
#include "vfs_common.h"

namespace {

using kavrin::kAlways;
using kavrin::kEntry;
using kavrin::kTrace;

constexpr const char* kReservedUser = "kavrin_smb_admin_reserved";
constexpr uid_t kNobody = static_cast<uid_t>(-1);

constexpr int kSpecialUser = 3;

// The account's uid, kNobody when there is none; false when that cannot be told. `Size` bytes of
// buffer are what the look-up is given.
template <std::size_t Size>
bool find_uid(const char* user, uid_t& uid) {
    char buffer[Size];
    passwd entry;
    passwd* found = nullptr;
    if (user == nullptr || getpwnam_r(user, &entry, buffer, sizeof buffer, &found) != 0)
        return false;
    uid = found == nullptr ? kNobody : found->pw_uid;
    return true;
}

}  // namespace

extern "C" void init_private_data(kv_connection_private_data_t* private_data) {
    private_data->user_name_as_passed_in = nullptr;
    private_data->refresh_creds.euid = kNobody;
    private_data->vfs_table_cache.flush_tlb = KAVRIN_TLB_NO_FLUSH;
    private_data->vfs_table_cache.vfs_tlb_end = 0;
    private_data->pmodify = nullptr;
}

extern "C" int connect_preprocess(const char* user, kv_connection_private_data_t* private_data,
                                  int audit_enabled, int* number_of_connected_users) {
    destroy_tlb(&private_data->vfs_table_cache);
    if (init_perm_map_semaphore() == -1) {
        KV_TRACE(kAlways, "init_perm_map_semaphore FAILED ");
        return -1;
    }
    const std::time_t now = std::time(nullptr);
    uid_t uid = kNobody;
    if (!find_uid<4096>(user, uid)) {
        KV_TRACE(kAlways, "Error: cound not resolve user %s", user == nullptr ? "NULL" : user);
        return -1;
    }
    KV_TRACE(kEntry, "audit level is %d", audit_enabled);
    if (audit_enabled != 0) init_audit_buffer();

    ++*number_of_connected_users;
    KV_TRACE(kEntry, "kavrin_connect: pid=%d (user=%s) current number of connected users=%d",
             static_cast<int>(getpid()), user, *number_of_connected_users);
    private_data->refresh_creds.permmap_refresh = now;
    private_data->refresh_creds.groupmap_refresh = now;
    private_data->refresh_creds.euid = uid;
    reset_groupmap(private_data);
    return 0;
}

extern "C" void disconnect_preprocess(kv_connection_private_data_t* private_data,
                                      int audit_enabled) {
    destroy_tlb(&private_data->vfs_table_cache);
    flush_staging_buffer();
    if (audit_enabled != 0) flush_audit_buffer();
}

extern "C" void set_reserved_user_uid(void) {
    uid_t uid = kNobody;
    if (find_uid<512>(kReservedUser, uid) && uid != kNobody) {
        reserved_user_uid = uid;
        return;
    }
    KV_TRACE(kAlways, "Error: Could not determine kavrin reserved user %s info", kReservedUser);
}

extern "C" int is_computer_name(const char* user_name) {
    if (user_name == nullptr || user_name[0] == '\0') return 0;
    return user_name[std::strlen(user_name) - 1] == '$' ? 1 : 0;
}

extern "C" int _check_if_special_user(const char* account_name) {
    const int is_computer = is_computer_name(account_name);
    const char* const shown = account_name == nullptr ? "NULL" : account_name;
    if (is_computer != 0)
        KV_TRACE(kSpecialUser, "%s: account_name=%s is a computer acct", __func__, shown);
    else
        KV_TRACE(kTrace, "%s: account_name=%s is NOT a computer acct", __func__, shown);
    return is_computer;
}
