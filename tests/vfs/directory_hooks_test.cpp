// Making and removing folders, also through the SMB create call: which code each hook asks, what it
// refuses with, who frees what, and the events.
#include <sys/stat.h>

#include "hook_fixture.h"

namespace kvtest {
namespace {

constexpr auto kDir = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;

// --- mkdir -----------------------------------------------------------------------------------

class MakeFolder : public FolderHooks {
protected:
    int make(const std::string& path) {
        const int result =
            mkdir_preprocess(share.c_str(), path.c_str(), &path_out, connection.get(), &context);
        if (result == 0) {
            last_path = path_out;
            free(path_out);
        }
        return result;
    }
};

TEST_F(MakeFolder, AsksForReadAndWriteOnTheParent) {
    // Whatever is there already: a removal would ask for more, a write for nothing on a folder.
    for (const std::string& path :
         {std::string("Shared/P3/new"), grid(3, 0), file_in(3), std::string("Shared/P7/new")}) {
        const Outcome outcome = allowed([&] { return make(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_MKDIR, path));
        EXPECT_EQ(last_path, at(path));
    }
    for (const std::string& path :
         {std::string("Shared/P1/new"), grid(1, 7), file_in(1), std::string("Shared/P6/new"),
          std::string("Shared/new"), std::string("Private/new")}) {
        const Outcome outcome = refused(EACCES, [&] { return make(path); });
        EXPECT_EQ(outcome.asked, one(FSOP_MKDIR, path));
    }
}

TEST_F(MakeFolder, AnAdministratorMakesFoldersDirectlyInShared) {
    serve(kAdmin);
    allowed([&] { return make("Shared/new"); });
}

TEST_F(MakeFolder, RunsAsRootAndIsRecordedWithItsLastModifier) {
    ASSERT_EQ(
        mkdir_preprocess(share.c_str(), "Shared/P3/new", &path_out, connection.get(), &context), 0);
    EXPECT_EQ(mkdir(path_out, 0755), 0);
    give_back();
    config.set_debug_level(5);
    record([&] { mkdir_postprocess(connection.get(), &path_out); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_MKDIR, kDir, at("Shared/P3/new"));
    EXPECT_EQ(last_modifier("Shared/P3/new"), "KvAlice");
    EXPECT_EQ(
        logged_matching(log_lines(), "mkdir_postprocess\\([0-9]+\\):wrote VFS event mkdir   " +
                                         at("Shared/P3/new")),
        1);
}

TEST_F(MakeFolder, TheTraceIsOneForLevelsAboveFour) {
    config.set_debug_level(4);
    path_out = heap(at(grid(7, 7)));
    record([&] { mkdir_postprocess(connection.get(), &path_out); });
    EXPECT_EQ(logged_part("wrote VFS event"), 0);
}

TEST_F(MakeFolder, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return make("Shared/P3/new"); });
        refused(EACCES, [&] { return make("Shared/P1/new"); });
    }
    become(kRoot);
    allowed([&] { return make("Shared/P0/new"); });
}

TEST_F(MakeFolder, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return make("Shared/P7/new"); });
}

TEST_F(MakeFolder, WithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EACCES, [&] { return make("Private/kvalice/new"); });
        EXPECT_EQ(logged("Failed operation mkdir due to inablity to enforce permissions, "
                         "full_path=" +
                         at("Private/kvalice/new")),
                  1);
        EXPECT_EQ(heap_growth([&] { make("Private/kvalice/new"); }), 0);
    });
}

TEST_F(MakeFolder, WithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string path = "Private/kvalice/new";
    const auto outcomes = starve([] {}, [&] { return make(path); }, [&] { give_back(); });
    ASSERT_GE(outcomes.size(), 3u);
    for (const Starved& starved : outcomes) {
        EXPECT_EQ(starved.result, -1) << starved.nth;
        EXPECT_EQ(starved.error, starved.nth == 1 ? ENOMEM : EACCES) << starved.nth;
    }
    EXPECT_TRUE(outcomes.back().said(
        "Failed operation mkdir due to inablity to enforce permissions, full_path=" + at(path)));
}

TEST_F(MakeFolder, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(make("Shared/P7/new"), 0);
                  give_back();
                  ASSERT_EQ(make("Shared/P1/new"), -1);
                  path_out = heap(at(grid(7, 7)));
                  mkdir_postprocess(connection.get(), &path_out);
              }),
              0);
}

// --- rmdir -----------------------------------------------------------------------------------

class RemoveFolder : public FolderHooks {
protected:
    int remove(const std::string& path) {
        const int result =
            rmdir_preprocess(&path_out, share.c_str(), path.c_str(), connection.get(), &context);
        if (result == 0) {
            last_path = path_out;
            free(path_out);
        }
        return result;
    }
};

TEST_F(RemoveFolder, AsksForAllRightsOnTheParentWhateverTheParameterSays) {
    // Making a folder would ask for less, renaming one away for reading on itself too, unlinking
    // for nothing on a folder and for the same on a file.
    for (const int forbidden : {0, 1, -5}) {
        config.set_int(PARAM_ENABLE_FORBIDDEN_RMDIR, forbidden);
        for (const std::string& path :
             {grid(7, 0), grid(7, 7), file_in(0), std::string("Shared/P0/gone")}) {
            const Outcome outcome = allowed([&] { return remove(path); });
            EXPECT_EQ(outcome.asked, one(FSOP_RMDIR, path));
            EXPECT_EQ(last_path, at(path));
        }
        for (const std::string& path : {grid(3, 7), grid(6, 7), grid(1, 7),
                                        std::string("Shared/P7"), std::string("Private/kvalice")}) {
            const Outcome outcome = refused(EPERM, [&] { return remove(path); });
            EXPECT_EQ(outcome.asked, one(FSOP_RMDIR, path));
            EXPECT_EQ(logged("rmdir_preprocess:  EPERM for " + at(path)), 1);
        }
    }
}

TEST_F(RemoveFolder, TheParameterChoosesTheTraces) {
    const std::string lead = "\\([^:]*:[0-9]+\\) kavrin_rmdir: path: " + grid(7, 7);
    config.set_int(PARAM_ENABLE_FORBIDDEN_RMDIR, 1);
    allowed([&] { return remove(grid(7, 7)); });
    EXPECT_EQ(logged_matching(log_lines(), lead + " allowing RW->RWD"), 1);
    EXPECT_EQ(logged("rmdir_preprocess:  calls vfs_enforce_perms op=20 result=3"), 1);
    EXPECT_EQ(logged_matching(log_lines(), lead + ".*"), 1);

    config.set_int(PARAM_ENABLE_FORBIDDEN_RMDIR, 0);
    allowed([&] { return remove(grid(7, 7)); });
    EXPECT_EQ(logged_matching(log_lines(), lead + " NO RW->RWD"), 1);
    EXPECT_EQ(logged_matching(log_lines(), lead + " enforcing perms"), 1);
    EXPECT_EQ(logged_matching(log_lines(), lead + ".*"), 2);
    EXPECT_EQ(logged_part("calls vfs_enforce_perms"), 0);
}

TEST_F(RemoveFolder, RunsAsRootAndIsRecordedWithoutALastModifier) {
    ASSERT_EQ(
        rmdir_preprocess(&path_out, share.c_str(), "Shared/P7/S0", connection.get(), &context), 0);
    EXPECT_EQ(rmdir(path_out), 0);
    give_back();
    record([&] { rmdir_postprocess(path_out); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_RMDIR, kDir, at("Shared/P7/S0"));
    EXPECT_EQ(logged_matching(log_lines(), "rmdir_postprocess\\([0-9]+\\):wrote VFS event rmdir  " +
                                               at("Shared/P7/S0")),
              1);
    EXPECT_EQ(std::string(path_out), at("Shared/P7/S0")) << "the path stays the module's";
    free(path_out);
    record([&] { rmdir_postprocess(at(grid(7, 7)).data()); });
    EXPECT_EQ(last_modifier(grid(7, 7)), std::nullopt);
}

TEST_F(RemoveFolder, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return remove(grid(7, 7)); });
        refused(EPERM, [&] { return remove(grid(3, 7)); });
    }
    become(kRoot);
    allowed([&] { return remove(grid(0, 0)); });
}

TEST_F(RemoveFolder, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EPERM, [&] { return remove(grid(7, 7)); });
}

TEST_F(RemoveFolder, WithoutRootIsRefused) {
    without_root([&] {
        config.set_debug_level(0);
        refused(EPERM, [&] { return remove("Private/kvalice/sub"); });
        EXPECT_EQ(logged("Failed operation rmdir due to inablity to enforce permissions, "
                         "full_path=" +
                         at("Private/kvalice/sub")),
                  1);
        EXPECT_EQ(heap_growth([&] { remove("Private/kvalice/sub"); }), 0);
    });
}

TEST_F(RemoveFolder, WithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string path = "Private/kvalice/sub";
    const auto outcomes = starve([] {}, [&] { return remove(path); }, [&] { give_back(); });
    ASSERT_GE(outcomes.size(), 3u);
    for (const Starved& starved : outcomes) {
        EXPECT_EQ(starved.result, -1) << starved.nth;
        EXPECT_EQ(starved.error, starved.nth == 1 ? ENOMEM : EPERM) << starved.nth;
    }
    EXPECT_TRUE(outcomes.back().said(
        "Failed operation rmdir due to inablity to enforce permissions, full_path=" + at(path)));
}

TEST_F(RemoveFolder, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(remove(grid(7, 7)), 0);
                  give_back();
                  ASSERT_EQ(remove(grid(3, 7)), -1);
              }),
              0);
}

// --- the create call -------------------------------------------------------------------------

class CreateFolder : public FolderHooks {
protected:
    int create(const std::string& path, int make, int to_delete = 0) {
        path_out = heap(at(path));
        return create_here(path, make, to_delete);
    }
    int create_here(const std::string& path, int make, int to_delete = 0) {
        const int result = create_dir_preprocess(to_delete, path.c_str(), &path_out, make,
                                                 share.c_str(), connection.get(), &context);
        if (result == 0) free(path_out);
        return result;
    }
};

TEST_F(CreateFolder, IsCheckedAsMakingOrAsOpening) {
    for (const std::string& path : {std::string("Shared/P3/new"), grid(3, 0)}) {
        const Outcome outcome = allowed([&] { return create(path, 1); });
        EXPECT_EQ(outcome.asked, one(FSOP_MKDIR, path));
    }
    for (const std::string& path : {grid(1, 7), std::string("Shared/P1/new")}) {
        const Outcome outcome = refused(EACCES, [&] { return create(path, 1); });
        EXPECT_EQ(outcome.asked, one(FSOP_MKDIR, path));
        EXPECT_EQ(logged_matching(
                      log_lines(),
                      "create_dir_preprocess: PERMISSION DENIED for directory path=.*" + path),
                  1);
    }
    for (const std::string& path : {grid(0, 1), grid(0, 8), std::string("Shared/P1/new")}) {
        const Outcome outcome = allowed([&] { return create(path, 0); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
    }
    for (const std::string& path : {grid(7, 0), grid(7, 2)}) {
        const Outcome outcome = refused(EACCES, [&] { return create(path, 0); });
        EXPECT_EQ(outcome.asked, one(FSOP_OPENDIR, path));
    }
    EXPECT_EQ(allowed([&] { return create(grid(3, 0), -1); }).asked, one(FSOP_MKDIR, grid(3, 0)));
}

TEST_F(CreateFolder, PrivateFoldersAreNotOpenedToDelete) {
    for (const std::string& path : {std::string("Private"), std::string("Private/kvalice")}) {
        allowed([&] { return create(path, 0, 0); });
        const Outcome outcome = refused(EACCES, [&] { return create(path, 0, 1); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(logged_matching(log_lines(),
                                  "create_dir_preprocess: delete denied requested path=0x[0-9a-f]+ "
                                  "nlpath=0x[0-9a-f]+"),
                  1);
    }
    allowed([&] { return create("Private/kvalice/sub", 0, 1); });
}

TEST_F(CreateFolder, FixedFoldersAreNotItsBusiness) {
    mark_fixed(grid(7, 7));
    allowed([&] { return create(grid(7, 7), 0, 1); });
}

TEST_F(CreateFolder, IsRecordedAsMadeWithItsLastModifier) {
    record([&] { create_dir_postprocess(at(grid(7, 7)).data(), connection.get()); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_MKDIR, kDir, at(grid(7, 7)));
    EXPECT_EQ(last_modifier(grid(7, 7)), "KvAlice");
}

TEST_F(CreateFolder, EveryIdentityIsGivenBack) {
    for (const Ids& ids : kIdentities) {
        become(ids);
        allowed([&] { return create("Shared/P3/new", 1); });
        refused(EACCES, [&] { return create("Shared/P1/new", 1); });
        refused(EACCES, [&] { return create("Private", 1, 1); });
    }
    become(kRoot);
    allowed([&] { return create("Shared/P0/new", 1); });
}

TEST_F(CreateFolder, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return create("Shared/P7/new", 1); });
}

TEST_F(CreateFolder, WithoutRootIsOutOfMemory) {
    without_root([&] {
        config.set_debug_level(0);
        refused(ENOMEM, [&] { return create("Private/kvalice/new", 1); });
        EXPECT_EQ(logged("create_dir_preprocess failed to allocate perm_ctx, full_path=" +
                         at("Private/kvalice/new")),
                  1);
        EXPECT_EQ(heap_growth([&] { create("Private/kvalice/new", 1); }), 0);
    });
}

TEST_F(CreateFolder, WithoutMemoryIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    const std::string path = "Private/kvalice/new";
    const auto outcomes = starve([&] { path_out = heap(at(path)); },
                                 [&] { return create_here(path, 1); }, [&] { give_back(); });
    ASSERT_GE(outcomes.size(), 2u);
    for (const Starved& starved : outcomes) {
        EXPECT_EQ(starved.result, -1) << starved.nth;
        EXPECT_EQ(starved.error, &starved == &outcomes.back() ? ENOMEM : EACCES) << starved.nth;
    }
    EXPECT_TRUE(outcomes.back().said(
        "create_dir_preprocess failed to allocate perm_ctx, full_path=" + at(path)));
}

TEST_F(CreateFolder, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(create("Shared/P7/new", 1), 0);
                  give_back();
                  ASSERT_EQ(create("Shared/P1/new", 1), -1);
                  ASSERT_EQ(create("Private", 0, 1), -1);
                  create_dir_postprocess(at(grid(7, 7)).data(), connection.get());
              }),
              0);
}

}  // namespace
}  // namespace kvtest
