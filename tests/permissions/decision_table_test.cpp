// The decision table, asked for every operation, element type and pair of masks, with every message
// it traces; and the three small helpers that find a caller's standing.
#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "model.h"
#include "support.h"

namespace {

using kvtest::ConfigTable;
using kvtest::log_lines;

constexpr int kAborting[] = {FSOP_CHMOD,     FSOP_CHOWN,   FSOP_SET_ACL,  FSOP_GET_ACL,
                             FSOP_READ_LINK, FSOP_CONNECT, FSOP_STATVFS,  FSOP_SEEKDIR,
                             FSOP_REWINDDIR, FSOP_TELLDIR, FSOP_REALPATH, FSOP_GETNTACL,
                             FSOP_FGETNTACL};

int decide(int op, int type, unsigned self, unsigned parent) {
    return enforce_kavrin_permissions(static_cast<e_fsop_type_t>(op),
                                      static_cast<e_file_type_t>(type), self, parent);
}

bool aborting(int op) {
    return std::find(std::begin(kAborting), std::end(kAborting), op) != std::end(kAborting);
}

std::vector<std::string> messages() {
    std::vector<std::string> out;
    for (const kvtest::LogLine& line : log_lines()) out.push_back(line.message);
    return out;
}

TEST(DecisionTable, AgreesWithTheModelForEveryOperationTypeAndPairOfMasks) {
    const ConfigTable config(-1);
    int asked = 0;
    for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
        if (aborting(op)) continue;
        for (int type = FSTYPE_FILE; type <= FSTYPE_DOES_NOT_EXIST; ++type)
            for (unsigned self = 0; self < 32; ++self)
                for (unsigned parent = 0; parent < 32; ++parent) {
                    ASSERT_EQ(decide(op, type, self, parent),
                              kvtest::model::decide(op, type, self, parent))
                        << "op " << op << " type " << type << " self " << self << " parent "
                        << parent;
                    ++asked;
                }
    }
    EXPECT_EQ(asked, 16 * 3 * 32 * 32);
}

TEST(DecisionTable, AnyOtherTypeCountsAsDoesNotExist) {
    const ConfigTable config(-1);
    for (const int type : {0, 4, 5, 99, -1})
        for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
            if (aborting(op)) continue;
            for (unsigned parent = 0; parent < 32; ++parent)
                EXPECT_EQ(decide(op, type, 0, parent), decide(op, FSTYPE_DOES_NOT_EXIST, 0, parent))
                    << "op " << op << " type " << type << " parent " << parent;
        }
}

TEST(DecisionTable, MaskBitsAboveViewerOnlyChangeNothing) {
    const ConfigTable config(-1);
    for (const unsigned high : {0x20u, 0xFFE0u, 0xFFFFFFE0u})
        for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
            if (aborting(op)) continue;
            for (int type = FSTYPE_FILE; type <= FSTYPE_DOES_NOT_EXIST; ++type)
                for (unsigned mask = 0; mask < 32; ++mask)
                    EXPECT_EQ(decide(op, type, mask | high, mask | high),
                              decide(op, type, mask, mask))
                        << "op " << op << " type " << type << " mask " << mask;
        }
}

TEST(DecisionTable, OperationsOutsideTheRangeAreInvalidArguments) {
    const ConfigTable config(-1);
    for (const int op : {0, 30, -1, 31, 1000})
        for (int type = 0; type <= 4; ++type)
            EXPECT_EQ(decide(op, type, 7, 7), KVPERMS_INVALID_ARGS) << op;
}

TEST(DecisionTable, OperationsOutsideTheRangeAreTracedAtEveryLevelButANegativeOne) {
    ConfigTable config(0);
    for (const int op : {0, 30, -1}) {
        kvtest::clear_log();
        decide(op, FSTYPE_FILE, 0, 0);
        EXPECT_EQ(messages(), std::vector<std::string>{"ENFORCE_PERMS Invalid argument op " +
                                                       std::to_string(op)});
    }
    config.set_debug_level(-1);
    kvtest::clear_log();
    decide(30, FSTYPE_FILE, 0, 0);
    EXPECT_TRUE(log_lines().empty());
}

TEST(DecisionTable, OperationsWithoutARuleEndTheProcess) {
    const ConfigTable config(10);
    for (const int op : kAborting)
        for (int type = FSTYPE_FILE; type <= FSTYPE_DOES_NOT_EXIST; ++type) {
            const kvtest::ChildResult child =
                kvtest::run_child([&] { return decide(op, type, 31, 31); });
            EXPECT_TRUE(child.aborted()) << "op " << op << " type " << type;
            EXPECT_TRUE(child.asserted("`0'")) << child.err;
            EXPECT_EQ(child.logged("CHOWN op trapped, but code is not in place"),
                      op == FSOP_CHOWN ? 1 : 0);
        }
}

TEST(DecisionTable, ChownIsTracedAtLevelTenOnly) {
    const ConfigTable config(9);
    const kvtest::ChildResult child =
        kvtest::run_child([] { return decide(FSOP_CHOWN, FSTYPE_FILE, 7, 7); });
    EXPECT_TRUE(child.aborted());
    EXPECT_TRUE(child.log.empty());
}

// --- messages --------------------------------------------------------------------------------

constexpr const char* kAnyPermission = "Allow op for any permission";
constexpr const char* kMissing = "Allow for non-existent file";
constexpr const char* kParentRw = "Allow for Read/Write on parent";
constexpr const char* kNoParentRw = "Deny due to no Read/Write on parent";

struct Row {
    int type;
    std::vector<int> ops;
    const char* allow;  // with every bit on both masks
    const char* deny;   // with none; null: allowed all the same
};

const std::vector<Row>& rows() {
    static const std::vector<Row> all = {
        {FSTYPE_FOLDER, {FSOP_OPEN_READ, FSOP_UNLINK}, kAnyPermission, nullptr},
        {FSTYPE_FOLDER,
         {FSOP_OPEN_WRITE},
         "FSOP_OPEN_WRITE allowed for any user as otherwise it preventsdrive being mapped",
         nullptr},
        {FSTYPE_FOLDER,
         {FSOP_OPENDIR, FSOP_READDIR, FSOP_CHDIR},
         "Allow for Nav on self",
         "Deny due to no NAV on self"},
        {FSTYPE_FOLDER,
         {FSOP_RENAME_SRC, FSOP_MOVE_SRC},
         "Allow for Read/Write/Delete on parent and Read on self",
         "Deny due to no Read/Write/Delete on parent or Read on self"},
        {FSTYPE_FOLDER,
         {FSOP_RENAME_DEST, FSOP_MOVE_DEST},
         "Allow for Read/Write on parent and Read on self",
         "Deny due to no Read/Write on parent or Read on self"},
        {FSTYPE_FOLDER,
         {FSOP_STAT, FSOP_LSTAT},
         "Allow for NAV on self and NAV on parent",
         "Deny due to no NAV on both self and parent"},
        {FSTYPE_FOLDER,
         {FSOP_RMDIR},
         "Allowed for Read/Write/Delete on parent",
         "Deny due to no Read/Write/Delete on parent op=21"},
        {FSTYPE_FILE,
         {FSOP_OPEN_READ, FSOP_STAT, FSOP_LSTAT},
         "Allow for Read on parent",
         "Deny due to no Read on parent"},
        {FSTYPE_FILE,
         {FSOP_OPEN_WRITE, FSOP_RENAME_SRC, FSOP_RENAME_DEST, FSOP_MOVE_DEST},
         kParentRw,
         kNoParentRw},
        {FSTYPE_FILE,
         {FSOP_OPENDIR, FSOP_READDIR, FSOP_RMDIR, FSOP_CHDIR},
         kAnyPermission,
         nullptr},
        {FSTYPE_FILE,
         {FSOP_UNLINK, FSOP_MOVE_SRC},
         "Allow for Read/Write/Delete on parent",
         "Deny due to no Read/Write/Delete on parent"},
        {FSTYPE_DOES_NOT_EXIST,
         {FSOP_OPEN_WRITE, FSOP_RENAME_DEST, FSOP_MOVE_DEST},
         kParentRw,
         kNoParentRw},
        {FSTYPE_DOES_NOT_EXIST,
         {FSOP_OPEN_READ, FSOP_OPENDIR, FSOP_READDIR, FSOP_UNLINK, FSOP_RENAME_SRC, FSOP_MOVE_SRC,
          FSOP_STAT, FSOP_LSTAT, FSOP_RMDIR, FSOP_CHDIR},
         kMissing,
         nullptr},
        {FSTYPE_FILE, {FSOP_CREATE, FSOP_MKDIR}, kParentRw, kNoParentRw},
        {FSTYPE_FOLDER, {FSOP_CREATE, FSOP_MKDIR}, kParentRw, kNoParentRw},
        {FSTYPE_DOES_NOT_EXIST, {FSOP_CREATE, FSOP_MKDIR}, kParentRw, kNoParentRw}};
    return all;
}

void check_messages(ConfigTable& config, int op, int type, unsigned mask, const char* wanted) {
    SCOPED_TRACE("op " + std::to_string(op) + " type " + std::to_string(type) + " mask " +
                 std::to_string(mask));
    config.set_debug_level(1);
    kvtest::clear_log();
    decide(op, type, mask, mask);
    EXPECT_TRUE(log_lines().empty());
    for (const int level : {2, 9}) {
        config.set_debug_level(level);
        kvtest::clear_log();
        decide(op, type, mask, mask);
        EXPECT_EQ(messages(), std::vector<std::string>{wanted});
    }
    ASSERT_FALSE(log_lines().empty());
    EXPECT_EQ(log_lines()[0].priority, LOG_INFO);
    EXPECT_EQ(log_lines()[0].function, "enforce_kavrin_permissions");

    config.set_debug_level(10);
    kvtest::clear_log();
    decide(op, type, mask, mask);
    std::vector<std::string> all = {"Checking op " + std::to_string(op) + " against path perm " +
                                    std::to_string(mask) + " parent perm " + std::to_string(mask)};
    if (op != FSOP_CREATE && op != FSOP_MKDIR && type == FSTYPE_FOLDER)
        all.emplace_back("Checking permission for folder type");
    if (op != FSOP_CREATE && op != FSOP_MKDIR && type == FSTYPE_FILE)
        all.emplace_back("Checking permission for file type");
    all.emplace_back(wanted);
    EXPECT_EQ(messages(), all);
}

TEST(DecisionTable, EveryVerdictIsTracedWithItsReasonFromLevelTwo) {
    ConfigTable config(0);
    for (const Row& row : rows())
        for (const int op : row.ops) {
            check_messages(config, op, row.type, 31, row.allow);
            check_messages(config, op, row.type, 0, row.deny ? row.deny : row.allow);
        }
}

TEST(DecisionTable, TheTracedReasonsCoverEveryOperationWithARule) {
    for (int type = FSTYPE_FILE; type <= FSTYPE_DOES_NOT_EXIST; ++type)
        for (int op = FSOP_MIN; op < FSOP_INVAL; ++op) {
            int found = 0;
            for (const Row& row : rows())
                if (row.type == type) found += std::count(row.ops.begin(), row.ops.end(), op);
            EXPECT_EQ(found, aborting(op) || op == FSOP_OPEN_CHATTR ? 0 : 1)
                << "op " << op << " type " << type;
        }
}

TEST(DecisionTable, ChangingAttributesIsAllowedWithoutAMessage) {
    ConfigTable config(9);
    for (int type = FSTYPE_FILE; type <= FSTYPE_DOES_NOT_EXIST; ++type)
        EXPECT_EQ(decide(FSOP_OPEN_CHATTR, type, 0, 0), KVPERMS_HAS_PERMS);
    EXPECT_TRUE(log_lines().empty());
    config.set_debug_level(10);
    decide(FSOP_OPEN_CHATTR, FSTYPE_FOLDER, 0, 0);
    EXPECT_EQ(messages(),
              std::vector<std::string>{"Checking op 4 against path perm 0 parent perm 0"});
}

// --- the rows that surprise ------------------------------------------------------------------

TEST(DecisionTable, OpeningAFolderForWritingIsAlwaysAllowed) {
    const ConfigTable config(-1);
    EXPECT_EQ(decide(FSOP_OPEN_WRITE, FSTYPE_FOLDER, 0, 0), KVPERMS_HAS_PERMS);
}

TEST(DecisionTable, UnlinkNeedsAllThreeBitsForAFileAndNoneForAFolder) {
    const ConfigTable config(-1);
    EXPECT_EQ(decide(FSOP_UNLINK, FSTYPE_FOLDER, 0, 0), KVPERMS_HAS_PERMS);
    for (unsigned parent = 0; parent < 7; ++parent)
        EXPECT_EQ(decide(FSOP_UNLINK, FSTYPE_FILE, 31, parent), KVPERMS_NO_PERM) << parent;
    EXPECT_EQ(decide(FSOP_UNLINK, FSTYPE_FILE, 0, 7), KVPERMS_HAS_PERMS);
}

TEST(DecisionTable, WriteOrDeleteBitAloneDoesNotOpenAFolder) {
    const ConfigTable config(-1);
    for (const unsigned mask : {1u, 8u, 16u})
        EXPECT_EQ(decide(FSOP_OPENDIR, FSTYPE_FOLDER, mask, 0), KVPERMS_HAS_PERMS) << mask;
    for (const unsigned mask : {0u, 2u, 4u, 6u})
        EXPECT_EQ(decide(FSOP_OPENDIR, FSTYPE_FOLDER, mask, 31), KVPERMS_NO_PERM) << mask;
}

TEST(DecisionTable, NavigatingShowsFoldersButNotFiles) {
    const ConfigTable config(-1);
    EXPECT_EQ(decide(FSOP_STAT, FSTYPE_FILE, 31, 8), KVPERMS_NO_PERM);
    EXPECT_EQ(decide(FSOP_STAT, FSTYPE_FOLDER, 16, 8), KVPERMS_HAS_PERMS);
    EXPECT_EQ(decide(FSOP_STAT, FSTYPE_FOLDER, 2, 8), KVPERMS_NO_PERM);
}

TEST(DecisionTable, WriteAndDeleteWithoutReadIsNoRightOnAParent) {
    const ConfigTable config(-1);
    for (const int op : {FSOP_CREATE, FSOP_OPEN_WRITE, FSOP_UNLINK, FSOP_RENAME_SRC, FSOP_MOVE_SRC,
                         FSOP_RENAME_DEST, FSOP_MOVE_DEST, FSOP_MKDIR})
        EXPECT_EQ(decide(op, FSTYPE_FILE, 31, 6), KVPERMS_NO_PERM) << op;
    EXPECT_EQ(decide(FSOP_RMDIR, FSTYPE_FOLDER, 31, 6), KVPERMS_NO_PERM);
}

TEST(DecisionTable, RenamingAFileAwayNeedsLessThanMovingIt) {
    const ConfigTable config(-1);
    EXPECT_EQ(decide(FSOP_RENAME_SRC, FSTYPE_FILE, 0, 3), KVPERMS_HAS_PERMS);
    EXPECT_EQ(decide(FSOP_MOVE_SRC, FSTYPE_FILE, 0, 3), KVPERMS_NO_PERM);
}

// --- standing --------------------------------------------------------------------------------

TEST(Standing, TheGroupBitIsSetOnlyWhenTheGroupIsAmongTheCountedOnes) {
    const ConfigTable config(-1);
    gid_t gids[] = {10, 20, 30, 20};
    for (const auto& [count, gid, expected] : {std::tuple{4, 10u, 1},
                                               {4, 30u, 1},
                                               {4, 20u, 1},
                                               {4, 40u, 0},
                                               {2, 30u, 0},
                                               {0, 10u, 0},
                                               {-1, 10u, 0}}) {
        int number = count;
        int flag = 7;
        EXPECT_EQ(_set_group_bit(&number, gids, gid, &flag), 0);
        EXPECT_EQ(flag, expected) << count << " of the groups, searching " << gid;
        EXPECT_EQ(number, count);
    }
    int none = 0;
    int flag = 7;
    EXPECT_EQ(_set_group_bit(&none, nullptr, 10, &flag), 0);
    EXPECT_EQ(flag, 0);
}

TEST(Standing, TheSearchIsTracedAtLevelTenAndStopsAtTheFirstMatch) {
    ConfigTable config(9);
    gid_t gids[] = {10, 20, 20};
    int count = 3;
    int flag = 7;
    _set_group_bit(&count, gids, 20, &flag);
    EXPECT_TRUE(log_lines().empty());

    config.set_debug_level(10);
    flag = 7;
    _set_group_bit(&count, gids, 20, &flag);
    EXPECT_EQ(kvtest::logged_part("initialize "), 1);
    EXPECT_EQ(kvtest::logged_part(" indication to 0"), 1);
    EXPECT_EQ(kvtest::logged("gid: 20, user is in 3 groups"), 1);
    EXPECT_EQ(kvtest::logged("comparing user gid 10 against gid 20"), 1);
    EXPECT_EQ(kvtest::logged("comparing user gid 20 against gid 20"), 1);
    EXPECT_EQ(kvtest::logged("Found 20 group in supp group ids, setting indication to 1"), 1);
}

TEST(Standing, AdministratorsAreReadUnchangedAndTracedFromLevelTwo) {
    ConfigTable config(1);
    process_trustees_t trustees{};
    for (const int value : {0, 1, 42, -3}) {
        trustees.admin = value;
        trustees.poweruser = 1234;
        EXPECT_EQ(_is_admin(&trustees), value);
    }
    EXPECT_TRUE(log_lines().empty());
    config.set_debug_level(2);
    EXPECT_EQ(_is_admin(&trustees), -3);
    EXPECT_EQ(messages(),
              std::vector<std::string>{"Checking admin privilege - admin value is: -3"});
}

TEST(Standing, PowerUsersAreReadUnchangedAndTracedAtLevelTen) {
    ConfigTable config(9);
    process_trustees_t trustees{};
    for (const int value : {0, 1, 42, -3}) {
        trustees.poweruser = value;
        trustees.admin = 1234;
        EXPECT_EQ(_is_poweruser(&trustees), value);
    }
    EXPECT_TRUE(log_lines().empty());
    config.set_debug_level(10);
    EXPECT_EQ(_is_poweruser(&trustees), -3);
    EXPECT_EQ(messages(),
              std::vector<std::string>{"Checking power user privilege - power user value is: -3"});
}

}  // namespace
