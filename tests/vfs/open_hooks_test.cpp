// Opening files: what each mode is checked as, what stands in the way of opening to delete, who the
// process is on each way out, and what an open leaves in the audit and in the event buffer.
#include <sys/stat.h>

#include "hook_fixture.h"

namespace kvtest {
namespace {

class Open : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    int open(const std::string& path, e_open_mode_t asked_mode, int to_delete = 0, int audit = 0) {
        return open_at(path, at(path), asked_mode, to_delete, audit);
    }
    int open_at(const std::string& path, const std::string& full, e_open_mode_t asked_mode,
                int to_delete = 0, int audit = 0) {
        full_path = heap(full);
        mode = asked_mode;
        return ask(path, to_delete, audit);
    }
    int ask(const std::string& path, int to_delete = 0, int audit = 0) {
        base_name = path;
        op = static_cast<e_fsop_type_t>(99);
        created = 77;
        st = {};
        st.st_mode = S_IFREG;  // of a call before
        const int result =
            open_preprocess(share.c_str(), base_name.data(), &mode, &op, &full_path, &created,
                            to_delete, connection.get(), &st, "192.0.2.7", &context, audit);
        if (result == 0) free(full_path);
        return result;
    }
    std::vector<Asked> asked(int wanted, const std::string& path) { return {{wanted, path}}; }

    char* full_path = nullptr;
    std::string base_name;
    e_open_mode_t mode = OPENMODE_INVALID;
    e_fsop_type_t op{};
    int created = 77;
    struct stat st {};
};

struct Case {
    e_open_mode_t mode;
    std::string path;
    bool allowed;
    int op;
    e_open_mode_t mode_after;
};

TEST_F(Open, EachModeIsCheckedAsItsOperation) {
    const std::string new1 = "Shared/P1/new";
    const std::string new3 = "Shared/P3/new";
    const Case cases[] = {
        // A reader's folder, a writer's, one that grants everything but reading.
        {OPENMODE_READ, file_in(1), true, FSOP_OPEN_READ, OPENMODE_READ},
        {OPENMODE_READ, file_in(6), false, FSOP_OPEN_READ, OPENMODE_READ},
        {OPENMODE_READ, grid(0, 0), true, FSOP_OPEN_READ, OPENMODE_READ},
        {OPENMODE_READ, "Shared/P0/new", true, FSOP_OPEN_READ, OPENMODE_READ},
        {OPENMODE_WRITE, file_in(3), true, FSOP_OPEN_WRITE, OPENMODE_WRITE},
        {OPENMODE_WRITE, file_in(1), false, FSOP_OPEN_WRITE, OPENMODE_WRITE},
        {OPENMODE_WRITE, grid(0, 0), true, FSOP_OPEN_WRITE, OPENMODE_WRITE},
        {OPENMODE_WRITE, new1, false, FSOP_OPEN_WRITE, OPENMODE_WRITE},
        {OPENMODE_CREATE, new3, true, FSOP_CREATE, OPENMODE_WRITE},
        {OPENMODE_CREATE, new1, false, FSOP_CREATE, OPENMODE_WRITE},
        {OPENMODE_CREATE, grid(0, 0), false, FSOP_CREATE, OPENMODE_WRITE},
        {OPENMODE_CHATTR, file_in(0), true, FSOP_OPEN_CHATTR, OPENMODE_WRITE},
        {OPENMODE_CHATTR, grid(0, 0), true, FSOP_OPEN_CHATTR, OPENMODE_WRITE},
        {OPENMODE_CHATTR, "Private/kvbob/x", false, FSOP_OPEN_CHATTR, OPENMODE_WRITE},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.path + ", mode " + std::to_string(one.mode));
        const auto hook = [&] { return open(one.path, one.mode); };
        const Outcome outcome = one.allowed ? allowed_as_user(hook) : refused(EACCES, hook);
        EXPECT_EQ(op, one.op);
        EXPECT_EQ(mode, one.mode_after);
        EXPECT_EQ(outcome.asked, asked(one.op, one.path));
    }
}

TEST_F(Open, AnyOtherModeIsRefusedUnasked) {
    for (const int bad : {0, 5, -1, 100}) {
        const Outcome outcome =
            refused(EACCES, [&] { return open(file_in(7), static_cast<e_open_mode_t>(bad)); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(op, 99);
        EXPECT_EQ(mode, bad);
        EXPECT_EQ(created, 77);
    }
}

TEST_F(Open, ANullNameGivesTwelveAndLeavesErrno) {
    const Ids before = thread_ids();
    const Outcome outcome = call([&] {
        full_path = heap(at("x"));
        mode = OPENMODE_CREATE;
        return open_preprocess(share.c_str(), nullptr, &mode, &op, &full_path, &created, 0,
                               connection.get(), &st, "192.0.2.7", &context, 1);
    });
    EXPECT_EQ(outcome.result, 12);
    EXPECT_EQ(outcome.error, kUntouched);
    EXPECT_EQ(outcome.during, before);
    EXPECT_TRUE(outcome.asked.empty());
    EXPECT_EQ(op, FSOP_CREATE) << "the mode is looked at first";
    EXPECT_EQ(mode, OPENMODE_WRITE);
}

TEST_F(Open, ANullNameWithABadModeIsRefusedForTheMode) {
    refused(EACCES, [&] {
        full_path = heap(at("x"));
        mode = OPENMODE_INVALID;
        return open_preprocess(share.c_str(), nullptr, &mode, &op, &full_path, &created, 0,
                               connection.get(), &st, "192.0.2.7", &context, 1);
    });
}

TEST_F(Open, TheStatusIsTakenAsRoot) {
    ASSERT_NE(eaccess(at(file_in(1)).c_str(), F_OK), 0);
    allowed_as_user([&] { return open(file_in(1), OPENMODE_READ); });
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 7);
    EXPECT_EQ(created, 77) << "left alone for a file that is there";
    allowed_as_user([&] { return open(grid(1, 1), OPENMODE_READ); });
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(Open, AMissingFileIsNewlyCreated) {
    allowed_as_user([&] { return open("Shared/P3/new", OPENMODE_CREATE); });
    EXPECT_EQ(created, 1);
    EXPECT_EQ(
        logged("open_preprocess stat of full_path=" + at("Shared/P3/new") + " failed with ENOENT."),
        1);
    refused(EACCES, [&] { return open("Shared/P1/new", OPENMODE_CREATE); });
    EXPECT_EQ(created, 1);
}

TEST_F(Open, AStatusThatFailsForAnotherReasonIsReported) {
    config.set_debug_level(0);
    allowed_as_user(
        [&] { return open_at(file_in(7), at(file_in(7) + "/below"), OPENMODE_READ, 0, 1); });
    EXPECT_EQ(created, 77);
    EXPECT_EQ(logged("open_preprocess stat of full_path=" + at(file_in(7) + "/below") +
                     " failed with error=20 reason=Not a directory"),
              1);
    EXPECT_TRUE(reads().empty());
}

// --- opening to delete -----------------------------------------------------------------------

TEST_F(Open, PrivateFoldersAreNotOpenedToDelete) {
    for (const char* path : {"Private", "Private/kvalice"}) {
        allowed_as_user([&] { return open(path, OPENMODE_READ); });
        const Outcome outcome = refused(EACCES, [&] { return open(path, OPENMODE_READ, 1); });
        EXPECT_TRUE(outcome.asked.empty()) << "refused before the verdict";
        EXPECT_EQ(logged_matching(log_lines(),
                                  "open_preprocess:  delete denied requested path=0x[0-9a-f]+ "
                                  "nlpath=0x[0-9a-f]+"),
                  1);
    }
    allowed_as_user([&] { return open("Private/kvalice/doc", OPENMODE_WRITE, 1); });
    allowed_as_user([&] { return open("Private/", OPENMODE_READ, 1); });
}

TEST_F(Open, AFixedFolderIsNotOpenedToDelete) {
    mark_fixed(grid(7, 7));
    allowed_as_user([&] { return open(grid(7, 7), OPENMODE_WRITE, 0); });
    const Outcome outcome = refused(EACCES, [&] { return open(grid(7, 7), OPENMODE_WRITE, 1); });
    EXPECT_TRUE(outcome.asked.empty()) << "refused before the verdict";
    EXPECT_EQ(
        logged("Fixed folder : delete not allowed for " + at(grid(7, 7)) + " for non-admin users."),
        1);
    allowed_as_user([&] { return open(grid(7, 1), OPENMODE_WRITE, 1); });
}

TEST_F(Open, AFolderWhoseMarkIsInDoubtIsOpenedToDelete) {
    mark_fixed(grid(7, 7), "1");
    allowed_as_user([&] { return open(grid(7, 7), OPENMODE_WRITE, 1); });
    EXPECT_EQ(logged_part("is_fixed_folder : failed to get xattr"), 1);
    mark_fixed(grid(7, 7), "longer");
    allowed_as_user([&] { return open(grid(7, 7), OPENMODE_WRITE, 1); });
    allowed_as_user([&] { return open("Shared/P7/new", OPENMODE_WRITE, 1); });
}

TEST_F(Open, FixedFoldersBindOnlyBelowShared) {
    make_folder("Sharedness");
    mark_fixed("Sharedness");
    mark_fixed("Private/kvalice/sub");
    mark_fixed(grid(7, 7));
    allowed_as_user([&] { return open("Private/kvalice/sub", OPENMODE_WRITE, 1); });
    // The six bytes count, not the folder; and their case does.
    refused(EACCES, [&] { return open("Sharedness", OPENMODE_WRITE, 1); });
    EXPECT_EQ(logged_part("Fixed folder : delete not allowed"), 1);
    allowed_as_user([&] { return open_at("shared/P7/S7", at(grid(7, 7)), OPENMODE_READ, 1); });
}

TEST_F(Open, AnAdministratorOpensFixedFoldersToDelete) {
    serve(kAdmin);
    mark_fixed(grid(7, 7));
    connection->groupmap.admin = 1;
    allowed_as_user([&] { return open(grid(7, 7), OPENMODE_WRITE, 1); });
    refused(EACCES, [&] { return open("Private/kvbob", OPENMODE_READ, 1); });
}

// --- audit -----------------------------------------------------------------------------------

TEST_F(Open, AReadIsAudited) {
    allowed_as_user([&] { return open(file_in(1), OPENMODE_READ, 0, 1); });
    EXPECT_EQ(reads(), (std::vector<Read>{{at(file_in(1)), kAlice.uid, "192.0.2.7", 7}}));
    EXPECT_TRUE(events().empty());
}

TEST_F(Open, TheReadIsTheConnectionsUsers) {
    connection->refresh_creds.euid = 31337;
    allowed_as_user([&] { return open(file_in(1), OPENMODE_READ, 0, -1); });
    ASSERT_EQ(reads().size(), 1u);
    EXPECT_EQ(reads()[0].uid, 31337u);
}

TEST_F(Open, NothingElseIsAudited) {
    allowed_as_user([&] { return open(file_in(1), OPENMODE_READ, 0, 0); });
    allowed_as_user([&] { return open(file_in(3), OPENMODE_WRITE, 0, 1); });
    allowed_as_user([&] { return open(file_in(3), OPENMODE_CREATE, 0, 1); });
    allowed_as_user([&] { return open(file_in(3), OPENMODE_CHATTR, 0, 1); });
    allowed_as_user([&] { return open(grid(7, 7), OPENMODE_READ, 0, 1); });
    allowed_as_user([&] { return open("Shared/P7/new", OPENMODE_READ, 0, 1); });
    refused(EACCES, [&] { return open(file_in(6), OPENMODE_READ, 0, 1); });
    EXPECT_TRUE(reads().empty());
    EXPECT_TRUE(events().empty());
}

// --- identity and memory ---------------------------------------------------------------------

TEST_F(Open, TheVerdictIsAskedAsTheUser) {
    allowed_as_user([&] { return open(file_in(1), OPENMODE_READ); });
    EXPECT_EQ(logged("Enforcing permissions for op 2 root " + share + " path " + file_in(1) +
                     " pid " + std::to_string(getpid()) + " uid " + std::to_string(kAlice.uid)),
              1);
}

TEST_F(Open, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return open(file_in(7), OPENMODE_READ); });
}

TEST_F(Open, EveryIdentityIsGivenBack) {
    for (const Ids& ids :
         {Ids{0, kAlice.uid, 0, 7101, 7101, 7103}, Ids{0, kAlice.uid, kAlice.uid, 7101, 7101, 7101},
          Ids{kAlice.uid, kAlice.uid, 0, 7101, 7101, 7101}}) {
        become(ids);
        allowed_as_user([&] { return open(file_in(7), OPENMODE_READ); });
        refused(EACCES, [&] { return open(file_in(6), OPENMODE_READ); });
    }
}

TEST_F(Open, RootIsAllowedAndStaysRoot) {
    become(kRoot);
    allowed_as_user([&] { return open(file_in(0), OPENMODE_WRITE); });
}

TEST_F(Open, CredentialsFromBeforeAreUsedUp) {
    // Root already: those that the module brings along are restored and the verdict asked with
    // them.
    ASSERT_EQ(raise_permissions(&context), 1);
    const Outcome outcome = call([&] { return open(file_in(6), OPENMODE_READ); });
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.during[1], kAlice.uid);
    EXPECT_EQ(context, nullptr);
}

TEST_F(Open, WithoutRootTheOperationIsRefusedUnasked) {
    without_root([&] {
        config.set_debug_level(1);
        const Outcome outcome =
            refused(EACCES, [&] { return open("Private/kvalice/doc", OPENMODE_READ); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(logged("open_preprocess:  Unable to become root to stat, full_path=" +
                         at("Private/kvalice/doc")),
                  1);
        EXPECT_EQ(heap_growth([&] { open("Private/kvalice/doc", OPENMODE_READ); }), 0);
    });
}

TEST_F(Open, WithoutMemoryTheOperationIsRefusedOrGoesUnaudited) {
    if (!can_refuse_memory()) GTEST_SKIP();
    base_name = "Private/kvalice/doc";
    const auto outcomes = starve(
        [&] {
            full_path = heap(at(base_name));
            mode = OPENMODE_READ;
        },
        [&] {
            return open_preprocess(share.c_str(), base_name.data(), &mode, &op, &full_path,
                                   &created, 0, connection.get(), &st, "192.0.2.7", &context, 1);
        },
        [&] { free(full_path); });
    ASSERT_GE(outcomes.size(), 3u);
    EXPECT_TRUE(outcomes.front().said(
        "open_preprocess:  Unable to become root to stat, full_path=" + at(base_name)));
    int unaudited = 0;
    for (const Starved& one : outcomes) {
        if (one.result == 0)
            ++unaudited;
        else
            EXPECT_EQ(one.error, EACCES) << one.nth;
    }
    EXPECT_EQ(unaudited, 1) << "a lost audit record refuses nothing";
    EXPECT_EQ(reads().size(), 1u) << "of the last, fed open";
}

TEST_F(Open, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    mark_fixed(grid(7, 7));
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(open(file_in(7), OPENMODE_READ, 1, 1), 0);
                  ASSERT_EQ(open(file_in(6), OPENMODE_READ), -1);
                  ASSERT_EQ(open(file_in(6), OPENMODE_INVALID), -1);
                  ASSERT_EQ(open("Private", OPENMODE_READ, 1), -1);
                  ASSERT_EQ(open(grid(7, 7), OPENMODE_READ, 1), -1);
                  full_path = heap(at("x"));
                  open_preprocess(share.c_str(), nullptr, &mode, &op, &full_path, &created, 0,
                                  connection.get(), &st, "", &context, 1);
              }),
              0);
}

}  // namespace
}  // namespace kvtest
