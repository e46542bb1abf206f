// Creating and opening files through the SMB create call: what each disposition is checked as, who
// the process is on each way out, and the creation's event and last modifier.
#include "hook_fixture.h"

namespace kvtest {
namespace {

class CreateFile : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    // The hook on a full path of its own, which is only ours to free when it was allowed.
    int create(const std::string& path, std::uint32_t disposition, int writes = 0) {
        full_path = heap(at(path));
        return create_at(path, disposition, writes);
    }
    int create_at(const std::string& path, std::uint32_t disposition, int writes = 0) {
        const int result =
            create_file_preprocess(writes, &full_path, path.c_str(), "BASE", &context, &file_exists,
                                   0x12019f, disposition, 0x44, share.c_str(), connection.get());
        if (result == 0) free(full_path);
        return result;
    }
    char* full_path = nullptr;
    int file_exists = 77;
};

struct Case {
    std::string path;
    std::uint32_t disposition;
    int writes;
    int op;
    int exists;
    bool allowed;
};

TEST_F(CreateFile, EachDispositionIsCheckedAsItsOperation) {
    const std::string missing3 = "Shared/P3/new";
    const std::string missing1 = "Shared/P1/new";
    const std::string missing6 = "Shared/P6/new";
    const Case cases[] = {
        {file_in(3), 0, 0, FSOP_OPEN_WRITE, 1, true},
        {file_in(1), 0, 0, FSOP_OPEN_WRITE, 1, false},
        {missing3, 0, 0, FSOP_CREATE, 0, true},
        {missing1, 0, 0, FSOP_CREATE, 0, false},
        {file_in(1), 1, 0, FSOP_OPEN_READ, 1, true},
        {file_in(6), 1, 0, FSOP_OPEN_READ, 1, false},
        {missing6, 1, 0, FSOP_OPEN_READ, 0, true},
        {file_in(3), 1, 1, FSOP_OPEN_WRITE, 1, true},
        {file_in(1), 1, 1, FSOP_OPEN_WRITE, 1, false},
        {missing1, 1, 1, FSOP_OPEN_WRITE, 0, false},
        {file_in(3), 2, 0, FSOP_CREATE, 1, true},
        {file_in(1), 2, 0, FSOP_CREATE, 1, false},
        {missing6, 2, 1, FSOP_CREATE, 0, false},
        {file_in(3), 3, 0, FSOP_OPEN_WRITE, 1, true},
        {file_in(1), 3, 0, FSOP_OPEN_WRITE, 1, false},
        {missing3, 3, 0, FSOP_CREATE, 0, true},
        {missing1, 3, 1, FSOP_CREATE, 0, false},
        {file_in(3), 4, 0, FSOP_OPEN_WRITE, 1, true},
        {file_in(1), 4, 0, FSOP_OPEN_WRITE, 1, false},
        {missing3, 4, 1, FSOP_INVAL, 0, false},
        {file_in(3), 5, 1, FSOP_OPEN_WRITE, 1, true},
        {missing3, 5, 0, FSOP_CREATE, 0, true},
        {missing1, 5, 0, FSOP_CREATE, 0, false},
        {file_in(3), 6, 1, FSOP_INVAL, 1, false},
        // On a folder a write is always allowed, a creation asks for rights on the parent.
        {grid(1, 0), 3, 1, FSOP_OPEN_WRITE, 1, true},
        {grid(1, 0), 2, 1, FSOP_CREATE, 1, false},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.path + ", disposition " + std::to_string(one.disposition));
        const auto hook = [&] { return create(one.path, one.disposition, one.writes); };
        file_exists = 77;
        const Outcome outcome = one.allowed ? allowed(hook) : refused(EACCES, hook);
        EXPECT_EQ(outcome.asked, (std::vector<Asked>{{one.op, one.path}}));
        EXPECT_EQ(file_exists, one.exists);
    }
}

TEST_F(CreateFile, AFileDirectlyInSharedIsNotCreatedByAnAdministratorEither) {
    // Which only a creation is refused: making a folder there is not.
    serve(kAdmin);
    refused(EACCES, [&] { return create("Shared/new", 2); });
    allowed([&] { return create("Shared/P0/new", 2); });
}

TEST_F(CreateFile, ARefusalSaysWhatWasAskedFor) {
    refused(EACCES, [&] { return create(file_in(1), 5, 1); });
    EXPECT_EQ(logged("create_file_preprocess:PERM DENIED path=" + at(file_in(1)) +
                     " nlpath=" + file_in(1) +
                     " op=3 create_disposition=0x5 create_options=0x44 access_mask=1180063"),
              1);
}

TEST_F(CreateFile, AStatusThatFailsForAnotherReasonIsReported) {
    config.set_debug_level(0);
    full_path = heap(at(file_in(7) + "/below"));
    allowed([&] { return create_at("Private/kvalice/new", 2); });
    EXPECT_EQ(file_exists, 0);
    EXPECT_EQ(logged("create_file_preprocess stat of full_path=" + at(file_in(7) + "/below") +
                     " failed with error=20 reason=Not a directory"),
              1);
    allowed([&] { return create("Private/kvalice/new", 2); });
    EXPECT_EQ(file_exists, 0);
    EXPECT_EQ(logged_part("stat of full_path"), 0) << "a missing file is nothing to report";
}

TEST_F(CreateFile, TheExistenceIsLookedAtAsRootAndTheVerdictAskedAsTheUser) {
    ASSERT_NE(eaccess(at(file_in(3)).c_str(), F_OK), 0);
    allowed([&] { return create(file_in(3), 1, 1); });
    EXPECT_EQ(file_exists, 1);
    const std::string uid = " uid " + std::to_string(kAlice.uid);
    EXPECT_EQ(logged_part("Enforcing permissions for op 3 root " + share + " path " + file_in(3) +
                          " pid " + std::to_string(getpid()) + uid),
              1);
}

TEST_F(CreateFile, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.euid = kBob.uid;
    refused(EACCES, [&] { return create("Shared/P7/new", 2); });
    connection->groupmap.euid = kAlice.uid;
    allowed([&] { return create("Shared/P7/new", 2); });
}

TEST_F(CreateFile, EveryIdentityIsGivenBack) {
    for (const Ids& ids :
         {Ids{0, kAlice.uid, 0, 7101, 7101, 7103}, Ids{0, kAlice.uid, kAlice.uid, 7101, 7101, 7101},
          Ids{kAlice.uid, kAlice.uid, 0, 7101, 7101, 7101}}) {
        become(ids);
        allowed([&] { return create("Shared/P7/new", 2); });
        refused(EACCES, [&] { return create("Shared/P1/new", 2); });
    }
}

TEST_F(CreateFile, RootIsAllowedAndStaysRoot) {
    become(kRoot);
    const Outcome outcome = allowed([&] { return create(file_in(0), 5); });
    EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, file_in(0)}}));
    refused(EACCES, [&] { return create("Shared/P7/new", 4); });
}

TEST_F(CreateFile, WithoutRootNothingIsAskedAndTheOperationRefused) {
    without_root([&] {
        config.set_debug_level(1);
        const Outcome outcome = refused(EACCES, [&] { return create("Private/kvalice/new", 2); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(file_exists, 77);
        EXPECT_EQ(logged("create_file_preprocess failed to allocate perm_ctx"), 1);
        EXPECT_EQ(heap_growth([&] { create("Private/kvalice/new", 2); }), 0);
    });
}

TEST_F(CreateFile, WithoutMemoryTheOperationIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string path = "Private/kvalice/new";
    const auto outcomes = starve([&] { full_path = heap(at(path)); },
                                 [&] { return create_at(path, 2); }, [&] { give_back(); });
    ASSERT_GE(outcomes.size(), 3u);
    for (const Starved& one : outcomes) {
        EXPECT_EQ(one.result, -1) << one.nth;
        EXPECT_EQ(one.error, EACCES) << one.nth;
    }
    EXPECT_TRUE(outcomes.front().said("create_file_preprocess failed to allocate perm_ctx"));
    EXPECT_TRUE(outcomes.back().said(
        "create_file_preprocess failed to allocate perm_ctx,  smb_fname->base_name=BASE"));
}

TEST_F(CreateFile, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(create("Shared/P7/new", 2), 0);
                  give_back();
                  ASSERT_EQ(create("Shared/P1/new", 2), -1);
                  ASSERT_EQ(create("Shared/P7/new", 4), -1);
              }),
              0);
}

TEST_F(CreateFile, ACreationIsRecordedWithItsLastModifier) {
    record([&] { create_file_postprocess(connection.get(), at(file_in(7)).data()); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at(file_in(7)));
    EXPECT_EQ(last_modifier(file_in(7)), "KvAlice");
}

TEST_F(CreateFile, ACreationByRootLeavesNoEvent) {
    become(kRoot);
    record([&] { create_file_postprocess(connection.get(), at(file_in(7)).data()); });
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(last_modifier(file_in(7)), "KvAlice");
}

TEST_F(CreateFile, AVanishedFileIsStillRecorded) {
    record([&] { create_file_postprocess(connection.get(), at("Shared/P7/gone").data()); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at("Shared/P7/gone"));
}

}  // namespace
}  // namespace kvtest
