// The decision at the bottom of every verdict, as three tables of rows and one short walk. A file's
// own mask is never consulted: every file row asks for rights on the folder around it.
#include "permissions/decision_table.h"

#include <array>

#include "perm_enforcer.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

constexpr int kLastOperation = FSOP_FGETNTACL;  // 29; FSOP_INVAL is no operation
using Table = std::array<DecisionRow, kLastOperation + 1>;

constexpr bool has_rule(int op) {
    switch (op) {
        case FSOP_CHMOD:
        case FSOP_CHOWN:
        case FSOP_SET_ACL:
        case FSOP_GET_ACL:
        case FSOP_READ_LINK:
        case FSOP_CONNECT:
        case FSOP_STATVFS:
        case FSOP_SEEKDIR:
        case FSOP_REWINDDIR:
        case FSOP_TELLDIR:
        case FSOP_REALPATH:
        case FSOP_GETNTACL:
        case FSOP_FGETNTACL:
            return false;
        default:
            return op >= FSOP_CREATE && op <= kLastOperation;
    }
}

constexpr DecisionRow kParentRead{Need::kParentRead, "Allow for Read on parent",
                                  "Deny due to no Read on parent"};
constexpr DecisionRow kParentReadWrite{Need::kParentReadWrite, "Allow for Read/Write on parent",
                                       "Deny due to no Read/Write on parent"};
constexpr DecisionRow kParentReadWriteDelete{Need::kParentReadWriteDelete,
                                             "Allow for Read/Write/Delete on parent",
                                             "Deny due to no Read/Write/Delete on parent"};
constexpr DecisionRow kAnyPermission{Need::kAlways, "Allow op for any permission", nullptr};
constexpr DecisionRow kSelfNav{Need::kSelfNav, "Allow for Nav on self",
                               "Deny due to no NAV on self"};
constexpr DecisionRow kLeaveFolder{Need::kSelfReadAndParentReadWriteDelete,
                                   "Allow for Read/Write/Delete on parent and Read on self",
                                   "Deny due to no Read/Write/Delete on parent or Read on self"};
constexpr DecisionRow kEnterFolder{Need::kSelfReadAndParentReadWrite,
                                   "Allow for Read/Write on parent and Read on self",
                                   "Deny due to no Read/Write on parent or Read on self"};
constexpr DecisionRow kStatFolder{Need::kSelfNavAndParentNav,
                                  "Allow for NAV on self and NAV on parent",
                                  "Deny due to no NAV on both self and parent"};

// What every table starts from: operations decided before the element type is looked at, those
// that nobody may ask for, and the given row for the rest.
constexpr Table table_with(const DecisionRow& rest) {
    Table table{};
    for (int op = 0; op <= kLastOperation; ++op)
        table[op] = has_rule(op) ? rest : DecisionRow{Need::kProgrammingError, nullptr, nullptr};
    table[FSOP_CREATE] = kParentReadWrite;
    table[FSOP_MKDIR] = kParentReadWrite;
    table[FSOP_OPEN_CHATTR] = DecisionRow{Need::kAlways, nullptr, nullptr};
    return table;
}

constexpr Table folder_table() {
    Table table = table_with({Need::kAlways, "Allow op in all cases", nullptr});
    table[FSOP_OPEN_READ] = kAnyPermission;
    table[FSOP_UNLINK] = kAnyPermission;
    table[FSOP_OPEN_WRITE] = {
        Need::kAlways,
        "FSOP_OPEN_WRITE allowed for any user as otherwise it preventsdrive being mapped", nullptr};
    table[FSOP_OPENDIR] = kSelfNav;
    table[FSOP_READDIR] = kSelfNav;
    table[FSOP_CHDIR] = kSelfNav;
    table[FSOP_RENAME_SRC] = kLeaveFolder;
    table[FSOP_MOVE_SRC] = kLeaveFolder;
    table[FSOP_RENAME_DEST] = kEnterFolder;
    table[FSOP_MOVE_DEST] = kEnterFolder;
    table[FSOP_STAT] = kStatFolder;
    table[FSOP_LSTAT] = kStatFolder;
    table[FSOP_RMDIR] = {Need::kParentReadWriteDelete, "Allowed for Read/Write/Delete on parent",
                         "Deny due to no Read/Write/Delete on parent op=21"};
    return table;
}

// Renaming a file away needs less than moving it away: kept so on purpose.
constexpr Table file_table() {
    Table table = table_with({Need::kAlways, "Allow op in all cases", nullptr});
    table[FSOP_OPEN_READ] = kParentRead;
    table[FSOP_STAT] = kParentRead;
    table[FSOP_LSTAT] = kParentRead;
    table[FSOP_OPEN_WRITE] = kParentReadWrite;
    table[FSOP_RENAME_SRC] = kParentReadWrite;
    table[FSOP_RENAME_DEST] = kParentReadWrite;
    table[FSOP_MOVE_DEST] = kParentReadWrite;
    table[FSOP_OPENDIR] = kAnyPermission;
    table[FSOP_READDIR] = kAnyPermission;
    table[FSOP_RMDIR] = kAnyPermission;
    table[FSOP_CHDIR] = kAnyPermission;
    table[FSOP_UNLINK] = kParentReadWriteDelete;
    table[FSOP_MOVE_SRC] = kParentReadWriteDelete;
    return table;
}

constexpr Table missing_table() {
    Table table = table_with({Need::kAlways, "Allow for non-existent file", nullptr});
    table[FSOP_OPEN_WRITE] = kParentReadWrite;
    table[FSOP_RENAME_DEST] = kParentReadWrite;
    table[FSOP_MOVE_DEST] = kParentReadWrite;
    return table;
}

constexpr Table kFolder = folder_table();
constexpr Table kFile = file_table();
constexpr Table kMissing = missing_table();

constexpr bool reads(std::uint32_t mask) {
    return (mask & KAVRIN_PERM_MASK_RDONLY) != 0;
}
constexpr bool reads_writes(std::uint32_t mask) {
    return (mask & KAVRIN_PERM_MASK_RDWR) == KAVRIN_PERM_MASK_RDWR;
}
constexpr bool reads_writes_deletes(std::uint32_t mask) {
    return (mask & KAVRIN_PERM_MASK_RDWRDEL) == KAVRIN_PERM_MASK_RDWRDEL;
}
constexpr bool navigates(std::uint32_t mask) {
    return (mask & (KAVRIN_PERM_MASK_RDONLY | KAVRIN_PERM_MASK_NAVIGATE |
                    KAVRIN_PERM_MASK_VIEWER_ONLY)) != 0;
}

void trace_table(e_fsop_type_t op, e_file_type_t path_type) {
    if (op == FSOP_CREATE || op == FSOP_MKDIR || op == FSOP_OPEN_CHATTR) return;
    if (path_type == FSTYPE_FOLDER) KV_TRACE(kTrace, "Checking permission for folder type");
    if (path_type == FSTYPE_FILE) KV_TRACE(kTrace, "Checking permission for file type");
}

}  // namespace

const DecisionRow& decision_row(e_fsop_type_t op, e_file_type_t path_type) {
    switch (path_type) {
        case FSTYPE_FOLDER:
            return kFolder[op];
        case FSTYPE_FILE:
            return kFile[op];
        default:
            return kMissing[op];
    }
}

bool meets(Need need, std::uint32_t path_perm, std::uint32_t parent_perm) {
    switch (need) {
        case Need::kAlways:
            return true;
        case Need::kParentRead:
            return reads(parent_perm);
        case Need::kParentReadWrite:
            return reads_writes(parent_perm);
        case Need::kParentReadWriteDelete:
            return reads_writes_deletes(parent_perm);
        case Need::kSelfNav:
            return navigates(path_perm);
        case Need::kSelfNavAndParentNav:
            return navigates(path_perm) && navigates(parent_perm);
        case Need::kSelfReadAndParentReadWrite:
            return reads(path_perm) && reads_writes(parent_perm);
        case Need::kSelfReadAndParentReadWriteDelete:
            return reads(path_perm) && reads_writes_deletes(parent_perm);
        case Need::kProgrammingError:
            break;
    }
    KV_ASSERT(0);
    return false;
}

}  // namespace kavrin

using namespace kavrin;

extern "C" e_vfs_enforce_perms_t enforce_kavrin_permissions(e_fsop_type_t op,
                                                            e_file_type_t path_type,
                                                            uint32_t path_perm,
                                                            uint32_t parent_perm) {
    KV_TRACE(kTrace, "Checking op %d against path perm %d parent perm %d", static_cast<int>(op),
             static_cast<int>(path_perm), static_cast<int>(parent_perm));
    if (static_cast<int>(op) < FSOP_MIN || static_cast<int>(op) > kLastOperation) {
        KV_TRACE(kAlways, "ENFORCE_PERMS Invalid argument op %d", static_cast<int>(op));
        return KVPERMS_INVALID_ARGS;
    }
    const DecisionRow& row = decision_row(op, path_type);
    if (row.need == Need::kProgrammingError) {
        if (op == FSOP_CHOWN) KV_TRACE(kTrace, "CHOWN op trapped, but code is not in place");
        KV_ASSERT(0);
    }
    trace_table(op, path_type);
    const bool allowed = meets(row.need, path_perm, parent_perm);
    const char* message = allowed ? row.allow : row.deny;
    if (message != nullptr) KV_TRACE(kDecision, "%s", message);
    return allowed ? KVPERMS_HAS_PERMS : KVPERMS_NO_PERM;
}

extern "C" int _set_group_bit(int* num_gids, gid_t* gids, gid_t gid, int* out_flag) {
    KV_TRACE(kTrace, "initialize %d indication to 0", static_cast<int>(gid));
    *out_flag = 0;
    KV_TRACE(kTrace, "gid: %d, user is in %d groups", static_cast<int>(gid), *num_gids);
    for (int i = 0; i < *num_gids; ++i) {
        KV_TRACE(kTrace, "comparing user gid %d against gid %d", static_cast<int>(gids[i]),
                 static_cast<int>(gid));
        if (gids[i] != gid) continue;
        KV_TRACE(kTrace, "Found %d group in supp group ids, setting indication to 1",
                 static_cast<int>(gid));
        *out_flag = 1;
        break;
    }
    return 0;
}

extern "C" int _is_admin(process_trustees_t* trustees) {
    KV_TRACE(kDecision, "Checking admin privilege - admin value is: %d", trustees->admin);
    return trustees->admin;
}

extern "C" int _is_poweruser(process_trustees_t* trustees) {
    KV_TRACE(kTrace, "Checking power user privilege - power user value is: %d",
             trustees->poweruser);
    return trustees->poweruser;
}
