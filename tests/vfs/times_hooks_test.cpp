// Setting times: done as root without a check, for a file recorded as an open.
#include "hook_fixture.h"

namespace kvtest {
namespace {

class TimesHooks : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
};

TEST_F(TimesHooks, AFoldersTimesAreSetAsRootWithoutACheck) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        const Outcome outcome = call([&] {
            ntimes_dir_preprocess(&context, grid(0, 0).c_str());
            return 0;
        });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(outcome.during[0], 0u);
        EXPECT_EQ(outcome.during[1], 0u);
        ASSERT_NE(context, nullptr);
        EXPECT_EQ(ids_of(*context), ids);
        ntimes_dir_postprocess(context);
        context = nullptr;
        EXPECT_EQ(thread_ids(), ids) << "restored by the hook itself";
    }
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(last_modifier(grid(0, 0)), std::nullopt);
}

TEST_F(TimesHooks, RootSetsAFoldersTimesWithoutAContext) {
    become(kRoot);
    record([&] { ntimes_dir_preprocess(&context, "Shared"); });
    EXPECT_EQ(context, nullptr);
    record([&] { ntimes_dir_postprocess(nullptr); });
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(TimesHooks, WithoutRootAFoldersTimesAreOnlyReported) {
    without_root([&] {
        config.set_debug_level(0);
        record([&] { ntimes_dir_preprocess(&context, "Shared"); });
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(logged("Cannot elevate perms to enforce ntimes, smb_fname->base_name=Shared"), 1);
    });
}

TEST_F(TimesHooks, AFilesTimesAreSetAsRootWithoutACheck) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        char* full_path = nullptr;
        const Outcome outcome = allowed([&] {
            return ntimes_file_preprocess(&full_path, share.c_str(), "Private/kvbob/x", &context);
        });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(std::string(full_path), at("Private/kvbob/x"));
        free(full_path);
    }
    become(kRoot);
    char* full_path = nullptr;
    allowed([&] { return ntimes_file_preprocess(&full_path, share.c_str(), "Shared", &context); });
    free(full_path);
}

TEST_F(TimesHooks, WithoutRootAFilesTimesAreReportedAndAllowed) {
    without_root([&] {
        config.set_debug_level(0);
        char* full_path = nullptr;
        allowed_as_user([&] {
            return ntimes_file_preprocess(&full_path, share.c_str(), "Shared/a", &context);
        });
        EXPECT_EQ(logged("Cannot elevate perms to enforce ntimes, full_path=" + at("Shared/a")), 1);
        free(full_path);
    });
}

TEST_F(TimesHooks, WithoutMemoryAFilesTimesAreRefusedForThePathOnly) {
    if (!can_refuse_memory()) GTEST_SKIP();
    char* full_path = nullptr;
    const auto outcomes = starve(
        [] {},
        [&] { return ntimes_file_preprocess(&full_path, share.c_str(), "Shared", &context); },
        [&] {
            free(full_path);
            if (context != nullptr) give_back();
        });
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(outcomes[0].result, -1);
    EXPECT_EQ(outcomes[0].error, ENOMEM);
    EXPECT_EQ(outcomes[1].result, 0);
    EXPECT_TRUE(
        outcomes[1].said("Cannot elevate perms to enforce ntimes, full_path=" + at("Shared")));
    refused(ENOMEM,
            [&] { return ntimes_file_preprocess(&full_path, share.c_str(), nullptr, &context); });
}

TEST_F(TimesHooks, AFilesTimesAreRecordedAsAnOpenWithItsLastModifier) {
    std::string path = at(file_in(7));
    record([&] { ntimes_file_postprocess(path.data(), connection.get()); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE, path);
    EXPECT_EQ(last_modifier(file_in(7)), "KvAlice");
    const std::string pattern =
        "ntimes_file_postprocess\\([0-9]+\\):wrote VFS event ntimes " + path;
    EXPECT_EQ(logged_matching(log_lines(), pattern), 1);
    config.set_debug_level(9);
    record([&] { ntimes_file_postprocess(path.data(), connection.get()); });
    EXPECT_EQ(logged_part("wrote VFS event"), 0);
}

}  // namespace
}  // namespace kvtest
