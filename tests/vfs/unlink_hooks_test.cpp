// Removing files: asked for as a write, done as root, recorded without a last modifier.
#include "hook_fixture.h"

namespace kvtest {
namespace {

class Unlink : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    int remove(const std::string& path) {
        std::string base_name = path;
        const int result = unlink_preprocess(share.c_str(), base_name.data(), &full_path,
                                             connection.get(), &context);
        if (result == 0) {
            last_path = full_path;
            free(full_path);
        }
        EXPECT_EQ(base_name, path);
        return result;
    }
    char* full_path = nullptr;
    std::string last_path = std::string(256, ' ');
};

TEST_F(Unlink, IsCheckedAsAWrite) {
    // A removal would ask for 7 on the parent, and for nothing where there is no file; a rename's
    // codes would ask for rights on a folder.
    for (const std::string& path :
         {file_in(3), file_in(7), std::string("Shared/P3/new"), grid(0, 0)}) {
        const Outcome outcome = allowed([&] { return remove(path); });
        EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, path}}));
        EXPECT_EQ(last_path, at(path));
    }
    for (const std::string& path : {file_in(1), file_in(6), file_in(0),
                                    std::string("Shared/P1/new"), std::string("Private/kvbob/x")}) {
        const Outcome outcome = refused(EACCES, [&] { return remove(path); });
        EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, path}}));
    }
}

TEST_F(Unlink, RunsAsRootWhereTheUserCannotGetHimself) {
    std::string base_name = file_in(3);
    ASSERT_EQ(::unlink(at(base_name).c_str()), -1);
    ASSERT_EQ(
        unlink_preprocess(share.c_str(), base_name.data(), &full_path, connection.get(), &context),
        0);
    EXPECT_EQ(::unlink(full_path), 0);
    give_back();
    record([&] { unlink_postprocess(full_path); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_UNLINK, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at(base_name));
    EXPECT_EQ(std::string(full_path), at(base_name)) << "the path stays the module's";
    free(full_path);
}

TEST_F(Unlink, TheEventLeavesNoLastModifier) {
    record([&] { unlink_postprocess(at(file_in(7)).data()); });
    EXPECT_EQ(last_modifier(file_in(7)), std::nullopt);
}

TEST_F(Unlink, ANullNameIsOutOfMemory) {
    const Outcome outcome = refused(ENOMEM, [&] {
        return unlink_preprocess(share.c_str(), nullptr, &full_path, connection.get(), &context);
    });
    EXPECT_TRUE(outcome.asked.empty());
}

TEST_F(Unlink, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return remove(file_in(7)); });
}

TEST_F(Unlink, RootIsAllowedAndStaysRoot) {
    become(kRoot);
    allowed([&] { return remove(file_in(0)); });
}

TEST_F(Unlink, WithoutRootTheOperationIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return remove("Private/kvalice/doc"); });
        EXPECT_EQ(logged("Cannot elevate to root privileges to enforce unlink permissions, "
                         "full_path=" +
                         at("Private/kvalice/doc")),
                  1);
        EXPECT_EQ(heap_growth([&] { remove("Private/kvalice/doc"); }), 0);
    });
}

TEST_F(Unlink, WithoutMemoryTheOperationIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    std::string base_name = "Private/kvalice/doc";
    const auto outcomes =
        starve([] {},
               [&] {
                   return unlink_preprocess(share.c_str(), base_name.data(), &full_path,
                                            connection.get(), &context);
               },
               [&] {
                   free(full_path);
                   give_back();
               });
    ASSERT_GE(outcomes.size(), 3u);
    for (const Starved& one : outcomes) {
        EXPECT_EQ(one.result, -1) << one.nth;
        EXPECT_EQ(one.error, one.nth == 1 ? ENOMEM : EACCES) << one.nth;
    }
    EXPECT_TRUE(outcomes.front().said("calloc failed. errno = 12(Cannot allocate memory)"));
    EXPECT_TRUE(outcomes.back().said(
        "Cannot elevate to root privileges to enforce unlink permissions, full_path=" +
        at(base_name)));
}

TEST_F(Unlink, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(remove(file_in(7)), 0);
                  give_back();
                  ASSERT_EQ(remove(file_in(1)), -1);
                  unlink_preprocess(share.c_str(), nullptr, &full_path, connection.get(), &context);
              }),
              0);
}

}  // namespace
}  // namespace kvtest
