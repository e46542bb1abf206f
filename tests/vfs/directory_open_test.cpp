// Opening folders by name and by descriptor: what is checked as what, what stands in the way of
// opening to delete, who frees what.
#include "hook_fixture.h"

namespace kvtest {
namespace {

// --- opendir ---------------------------------------------------------------------------------

class OpenFolder : public FolderHooks {
protected:
    int open(const std::string& name, const std::string& cwd) {
        const int result = opendir_preprocess(name.c_str(), cwd.c_str(), share.c_str(), &path_out,
                                              &context, connection.get(), &is_nav);
        if (result == 0) {
            last_path = path_out;
            free(path_out);
            path_out = nullptr;
        } else {
            EXPECT_EQ(path_out, nullptr);
        }
        return result;
    }
    int open(const std::string& name) { return open(name, share); }
};

TEST_F(OpenFolder, AsksForNavigationOnTheFolderAlone) {
    // A stat would ask for navigation on the parent too, making and removing for rights on it.
    for (const std::string& path : {grid(0, 1), grid(0, 7), grid(0, 8), grid(0, 16), file_in(0),
                                    std::string("Shared/P0/x")}) {
        const Outcome outcome = allowed([&] { return open(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
        EXPECT_EQ(last_path, path);
    }
    for (const std::string& path : {grid(7, 0), grid(7, 2), std::string("Private/kvbob")}) {
        path_out = share.data();
        const Outcome outcome = refused(EACCES, [&] { return open(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
    }
}

TEST_F(OpenFolder, TellsThatAccessWasForNavigationOnly) {
    for (const auto& [self, nav] : {std::pair{1, 0}, {7, 0}, {8, 1}, {16, 1}}) {
        const std::string path = grid(1, self);
        allowed([&] { return open(path); });
        EXPECT_EQ(is_nav, nav) << self;
    }
}

TEST_F(OpenFolder, ADotBelowTheShareIsTheWorkingFolder) {
    Outcome outcome = allowed([&] { return open(".", at(grid(0, 1))); });
    EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, grid(0, 1)));
    EXPECT_EQ(last_path, grid(0, 1));
    outcome = refused(EACCES, [&] { return open(".", at(grid(7, 0))); });
    EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, grid(7, 0)));
}

TEST_F(OpenFolder, ADotInTheShareStaysOne) {
    const Outcome outcome = allowed([&] { return open(".", share); });
    EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, "."));
    EXPECT_EQ(last_path, ".");
}

TEST_F(OpenFolder, OtherNamesAreNotReadAgainstTheWorkingFolder) {
    for (const std::string& name : {std::string("./Shared"), std::string("Shared")}) {
        const Outcome outcome = allowed([&] { return open(name, at(grid(7, 0))); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, name));
        EXPECT_EQ(last_path, name);
    }
}

TEST_F(OpenFolder, ComparesTheWorkingFolderByteByByte) {
    // The same folder by another spelling is another folder: what follows the root is opened.
    const Outcome outcome = allowed([&] { return open(".", share + "/."); });
    EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, "."));
    EXPECT_EQ(allowed([&] { return open(".", share + "/Shared/"); }).asked,
              one(FSOP_OPENDIR, "Shared/"));
}

TEST_F(OpenFolder, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return open(grid(1, 1)); });
        refused(EACCES, [&] { return open(grid(1, 0)); });
    }
    become(kRoot);
    allowed([&] { return open(grid(0, 0)); });
}

TEST_F(OpenFolder, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return open(grid(7, 7)); });
}

TEST_F(OpenFolder, WithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return open(".", at("Private/kvalice/sub")); });
        EXPECT_EQ(logged("Failed opendir due to inablity to enforce permissions, fname=., "
                         "nlpath=Private/kvalice/sub"),
                  1);
        EXPECT_EQ(heap_growth([&] { open("Private/kvalice/sub"); }), 0);
    });
}

TEST_F(OpenFolder, WithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string cwd = at("Private/kvalice/sub");
    for (const std::string& name : {std::string("Private/kvalice/sub"), std::string(".")}) {
        const auto outcomes = starve([] {}, [&] { return open(name, cwd); }, [&] { give_back(); });
        ASSERT_GE(outcomes.size(), 3u);
        for (const Starved& starved : outcomes) {
            EXPECT_EQ(starved.result, -1) << starved.nth;
            if (starved.nth > 1) {
                EXPECT_EQ(starved.error, EACCES) << starved.nth;
            }
        }
        EXPECT_EQ(
            outcomes.front().said("opendir_preprocess: unable to allocate full_path, fname=."),
            name == ".");
        EXPECT_TRUE(outcomes.back().said(
            "Failed opendir due to inablity to enforce permissions, fname=" + name +
            ", nlpath=Private/kvalice/sub"));
    }
}

TEST_F(OpenFolder, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(open(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(open(".", at(grid(7, 7))), 0);
                  give_back();
                  ASSERT_EQ(open(grid(7, 0)), -1);
                  ASSERT_EQ(open(".", at(grid(7, 0))), -1);
              }),
              0);
}

// --- fdopendir -------------------------------------------------------------------------------

class OpenFolderByDescriptor : public FolderHooks {
protected:
    int open(const std::string& name, int to_delete = 0) {
        return fdopendir_preprocess(share.c_str(), name.c_str(), to_delete, connection.get(),
                                    &is_nav, &context);
    }
};

TEST_F(OpenFolderByDescriptor, AsksForNavigationOnTheFolderAlone) {
    for (const std::string& path : {grid(0, 1), grid(0, 7), grid(0, 8), grid(0, 16), file_in(0)}) {
        for (const int to_delete : {0, 1}) {
            const Outcome outcome = allowed([&] { return open(path, to_delete); });
            EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
        }
    }
    for (const std::string& path : {grid(7, 0), grid(7, 2)}) {
        const Outcome outcome = refused(EACCES, [&] { return open(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
        EXPECT_EQ(logged("fdopendir_preprocess: EACCESS full_path=" + at(path) + " fname=" + path +
                         " retval=2"),
                  1);
    }
}

TEST_F(OpenFolderByDescriptor, TellsThatAccessWasForNavigationOnly) {
    for (const auto& [self, nav] : {std::pair{1, 0}, {7, 0}, {8, 1}, {16, 1}}) {
        const std::string path = grid(1, self);
        allowed([&] { return open(path); });
        EXPECT_EQ(is_nav, nav) << self;
    }
}

TEST_F(OpenFolderByDescriptor, AFixedFolderIsNotOpenedToDelete) {
    mark_fixed(grid(7, 7));
    allowed([&] { return open(grid(7, 7), 0); });
    const Outcome outcome = refused(EACCES, [&] { return open(grid(7, 7), 1); });
    EXPECT_TRUE(outcome.asked.empty()) << "refused before the verdict";
    EXPECT_EQ(logged("fdopendir_preprocess: Fixed Folder, non admin user for folder " +
                     at(grid(7, 7)) + " Deny Delete"),
              1);
}

TEST_F(OpenFolderByDescriptor, NorIsOneWhoseMarkIsInDoubt) {
    for (const char* value : {"1", "longer"}) {
        mark_fixed(grid(7, 7), value);
        allowed([&] { return open(grid(7, 7), 0); });
        const Outcome outcome = refused(EACCES, [&] { return open(grid(7, 7), 1); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(logged_part("fdopendir_preprocess:"), 0) << "silently";
    }
    refused(EACCES, [&] { return open("Shared/P7/gone", 1); });
}

TEST_F(OpenFolderByDescriptor, FixedFoldersBindOnlyBelowShared) {
    mark_fixed("Private/kvalice/sub");
    mark_fixed(grid(7, 7));
    allowed([&] { return open("Private/kvalice/sub", 1); });
    make_folder("Sharedness");
    mark_fixed("Sharedness");
    EXPECT_TRUE(refused(EACCES, [&] { return open("Sharedness", 1); }).asked.empty());
    make_folder("shared");
    make_folder("shared/P7");
    make_folder("shared/P7/S7");
    mark_fixed("shared/P7/S7");
    EXPECT_EQ(allowed([&] { return open("shared/P7/S7", 1); }).asked,
              one(FSOP_OPENDIR, "shared/P7/S7"));
}

TEST_F(OpenFolderByDescriptor, AnAdministratorOpensFixedFoldersToDelete) {
    serve(kAdmin);
    connection->groupmap.admin = 1;
    mark_fixed(grid(0, 0));
    allowed([&] { return open(grid(0, 0), 1); });
    EXPECT_EQ(logged_matching(log_lines(),
                              "fdopendir_preprocess Allowing delete for admin, "
                              "bypassing the fixed-folder check for .*" +
                                  grid(0, 0)),
              1);
    allowed([&] { return open(grid(0, 0), 0); });
    EXPECT_EQ(logged_part("bypassing"), 0);
}

TEST_F(OpenFolderByDescriptor, ThePrivateRuleIsNotItsBusiness) {
    allowed([&] { return open("Private", 1); });
    allowed([&] { return open("Private/kvalice", 1); });
}

TEST_F(OpenFolderByDescriptor, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return open(grid(1, 1), 1); });
        refused(EACCES, [&] { return open(grid(1, 0), 1); });
    }
    become(kRoot);
    allowed([&] { return open(grid(0, 0)); });
}

TEST_F(OpenFolderByDescriptor, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return open(grid(7, 7)); });
}

TEST_F(OpenFolderByDescriptor, WithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return open("Private/kvalice/sub"); });
        EXPECT_EQ(
            logged("fdopendir_preprocess: EACCESS Failed fdopendir, due to inablity to enforce "
                   "permissions, fname=Private/kvalice/sub"),
            1);
        EXPECT_EQ(heap_growth([&] { open("Private/kvalice/sub"); }), 0);
    });
}

TEST_F(OpenFolderByDescriptor, WithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string name = "Private/kvalice/sub";
    const auto outcomes = starve([] {}, [&] { return open(name); }, [&] { give_back(); });
    ASSERT_GE(outcomes.size(), 3u);
    for (const Starved& starved : outcomes) {
        EXPECT_EQ(starved.result, -1) << starved.nth;
        if (starved.nth > 1) {
            EXPECT_EQ(starved.error, EACCES) << starved.nth;
        }
    }
    EXPECT_TRUE(
        outcomes.front().said("fdopendir_preprocess: unable to allocate full_path, fname=" + name));
    EXPECT_TRUE(
        outcomes.back().said("fdopendir_preprocess: EACCESS Failed fdopendir, due to "
                             "inablity to enforce permissions, fname=" +
                             name));
}

TEST_F(OpenFolderByDescriptor, NothingIsLeftOnTheHeap) {
    mark_fixed(grid(7, 7));
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(open(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(open(grid(7, 1), 1), 0);
                  give_back();
                  ASSERT_EQ(open(grid(7, 0)), -1);
                  ASSERT_EQ(open(grid(7, 7), 1), -1);
              }),
              0);
}

}  // namespace
}  // namespace kvtest
