// Renaming and moving: which codes are asked for files and for folders, what fixed folders forbid,
// what becomes of both paths on each way out, and the event.
#include <sys/stat.h>

#include <cstring>

#include "hook_fixture.h"

namespace kvtest {
namespace {

class Rename : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    int move(const std::string& from, const std::string& to) {
        std::string old_name = from;
        std::string new_name = to;
        const int result = move_names(old_name.data(), new_name.data());
        EXPECT_EQ(old_name, from);
        EXPECT_EQ(new_name, to);
        return result;
    }
    int move_names(char* old_name, char* new_name) {
        const int result = rename_preprocess(old_name, new_name, share.c_str(), &context, &isdir,
                                             connection.get(), &is_nav, &old_path, &new_path);
        if (result == 0) {
            last_old = old_path;
            last_new = new_path;
            free(old_path);
            free(new_path);
        }
        return result;
    }

    int isdir = 77;
    int is_nav = 77;
    char* old_path = nullptr;
    char* new_path = nullptr;
    std::string last_old = std::string(256, ' ');  // room, so that later texts need no memory
    std::string last_new = std::string(256, ' ');
};

TEST_F(Rename, AFileIsWrittenAtItsOldPlaceAndNamedAtItsNewOne) {
    const std::string targets[] = {"Shared/P7/new", "Shared/P3/new", file_in(7)};
    for (const std::string& target : targets) {
        const Outcome outcome = allowed([&] { return move(file_in(3), target); });
        EXPECT_EQ(outcome.asked,
                  (std::vector<Asked>{{FSOP_OPEN_WRITE, file_in(3)}, {FSOP_RENAME_DEST, target}}));
        EXPECT_EQ(isdir, 0);
        EXPECT_EQ(is_nav, 0);
        EXPECT_EQ(last_old, at(file_in(3)));
        EXPECT_EQ(last_new, at(target));
    }
}

TEST_F(Rename, AFileNeedsReadAndWriteOnBothFolders) {
    Outcome outcome = refused(EACCES, [&] { return move(file_in(1), "Shared/P3/new"); });
    EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, file_in(1)}}));
    EXPECT_EQ(logged("Permission denied for source " + file_in(1)), 1);
    outcome = refused(EACCES, [&] { return move(file_in(3), "Shared/P1/new"); });
    EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, file_in(3)},
                                                 {FSOP_RENAME_DEST, "Shared/P1/new"}}));
    EXPECT_EQ(logged_part("Permission denied for source"), 0);
    refused(EACCES, [&] { return move(file_in(6), "Shared/P3/new"); });
}

TEST_F(Rename, AFolderRenamedInPlaceIsWrittenThere) {
    // Renaming it away would ask for rights that the user does not have on it.
    Outcome outcome = allowed([&] { return move(grid(3, 0), "Shared/P3/new"); });
    EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_OPEN_WRITE, grid(3, 0)},
                                                 {FSOP_RENAME_DEST, "Shared/P3/new"}}));
    EXPECT_EQ(isdir, 1);
    outcome = refused(EACCES, [&] { return move(grid(1, 7), "Shared/P1/new"); });
    EXPECT_EQ(outcome.asked.size(), 2u);
    // A target that is there counts with the rights on itself.
    allowed([&] { return move(grid(3, 0), grid(3, 1)); });
    refused(EACCES, [&] { return move(grid(3, 0), grid(3, 8)); });
}

TEST_F(Rename, NavigationOnlyIsToldOfTheTarget) {
    allowed([&] { return move(grid(3, 8), "Shared/P3/new"); });
    EXPECT_EQ(is_nav, 0) << "the source's answer was 1";
    refused(EACCES, [&] { return move(grid(8, 8), "Shared/P8/new"); });
    EXPECT_EQ(is_nav, 0);
}

TEST_F(Rename, AFolderThatChangesItsParentIsMoved) {
    Outcome outcome = allowed([&] { return move(grid(7, 1), "Shared/P3/new"); });
    EXPECT_EQ(outcome.asked,
              (std::vector<Asked>{{FSOP_MOVE_SRC, grid(7, 1)}, {FSOP_MOVE_DEST, "Shared/P3/new"}}));
    EXPECT_EQ(isdir, 1);
    for (const std::string& source : {grid(3, 7), grid(7, 0), grid(7, 8), grid(7, 2)}) {
        outcome = refused(EACCES, [&] { return move(source, "Shared/P1/S7/new"); });
        EXPECT_EQ(outcome.asked, (std::vector<Asked>{{FSOP_MOVE_SRC, source}}));
        EXPECT_EQ(logged("Permission denied for source " + source), 1);
    }
    outcome = refused(EACCES, [&] { return move(grid(7, 1), "Shared/P1/new"); });
    EXPECT_EQ(outcome.asked,
              (std::vector<Asked>{{FSOP_MOVE_SRC, grid(7, 1)}, {FSOP_MOVE_DEST, "Shared/P1/new"}}));
}

TEST_F(Rename, RunsAsRootWhereTheUserCannotGetHimself) {
    ASSERT_NE(eaccess(at(file_in(3)).c_str(), F_OK), 0);
    std::string from = file_in(3);
    std::string to = "Shared/P3/new";
    ASSERT_EQ(rename_preprocess(from.data(), to.data(), share.c_str(), &context, &isdir,
                                connection.get(), &is_nav, &old_path, &new_path),
              0);
    EXPECT_EQ(::rename(old_path, new_path), 0);
    give_back();
    record([&] { rename_postprocess(new_path, old_path, isdir, connection.get()); });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_RENAME, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at(from), at(to));
    EXPECT_EQ(last_modifier(to), "KvAlice");
    EXPECT_EQ(std::string(old_path), at(from)) << "the paths stay the module's";
    EXPECT_EQ(std::string(new_path), at(to));
    free(old_path);
    free(new_path);
}

TEST_F(Rename, AFolderIsRecordedAsOne) {
    record([&] {
        rename_postprocess(at(grid(7, 7)).data(), at(grid(7, 1)).data(), 1, connection.get());
    });
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_RENAME, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR,
                 at(grid(7, 1)), at(grid(7, 7)));
    EXPECT_EQ(last_modifier(grid(7, 7)), "KvAlice");
    EXPECT_EQ(last_modifier(grid(7, 1)), std::nullopt);
}

TEST_F(Rename, AMissingSourceIsToldApart) {
    config.set_debug_level(1);
    const Outcome outcome = refused(ENOENT, [&] { return move("Shared/P7/gone", "Shared/P7/x"); });
    EXPECT_TRUE(outcome.asked.empty());
    EXPECT_EQ(logged("Rename source " + at("Shared/P7/gone") +
                     " does not exist err No such file or directory"),
              1);
    refused(ENOENT, [&] { return move(file_in(7) + "/below", "Shared/P7/x"); });
    EXPECT_EQ(logged_part(" does not exist err Not a directory"), 1);
}

TEST_F(Rename, AMissingSourceLeavesNoContext) {
    std::string from = "Shared/P7/gone";
    std::string to = "Shared/P7/x";
    EXPECT_EQ(move_names(from.data(), to.data()), -1);
    EXPECT_EQ(context, nullptr);
}

TEST_F(Rename, ALaterRefusalLeavesTheContextsPointer) {
    EXPECT_EQ(move(file_in(1), "Shared/P7/new"), -1);
    EXPECT_NE(context, nullptr) << "used up, not cleared";
    context = nullptr;
}

// --- fixed folders ---------------------------------------------------------------------------

TEST_F(Rename, AFixedFolderKeepsItsName) {
    mark_fixed(grid(7, 7));
    const Outcome outcome = refused(EACCES, [&] { return move(grid(7, 7), "Shared/P7/new"); });
    EXPECT_TRUE(outcome.asked.empty());
    EXPECT_EQ(isdir, 1);
    EXPECT_EQ(logged_matching(log_lines(),
                              "rename_preprocess [0-9]+: Denying attempt to rename a "
                              "fixed folder for a non-admin user for path " +
                                  at(grid(7, 7))),
              1);
    refused(EACCES, [&] { return move(grid(7, 7), "Shared/P3/new"); });
}

TEST_F(Rename, AFolderWhoseMarkIsInDoubtIsRenamed) {
    mark_fixed(grid(7, 7), "1");
    allowed([&] { return move(grid(7, 7), "Shared/P7/new"); });
}

TEST_F(Rename, AMarkedFileIsRenamed) {
    mark_fixed(file_in(7));
    allowed([&] { return move(file_in(7), "Shared/P7/new"); });
}

TEST_F(Rename, FixedFoldersBindOnlyBelowShared) {
    mark_fixed("Private/kvalice/sub");
    allowed([&] { return move("Private/kvalice/sub", "Private/kvalice/new"); });
    make_folder("Sharedness");
    mark_fixed("Sharedness");
    const Outcome outcome = refused(EACCES, [&] { return move("Sharedness", "Sharedness2"); });
    EXPECT_TRUE(outcome.asked.empty()) << "the six bytes count, not the folder";
    make_folder("shared");
    make_folder("shared/P7");
    make_folder("shared/P7/S7");
    mark_fixed("shared/P7/S7");
    allowed([&] { return move("shared/P7/S7", "shared/P7/new"); });
}

TEST_F(Rename, AnAdministratorRenamesFixedFoldersWhoseMarkIsReadAllTheSame) {
    serve(kAdmin);
    connection->groupmap.admin = 1;
    mark_fixed(grid(0, 0));
    allowed([&] { return move(grid(0, 0), "Shared/P0/new"); });
    mark_fixed(grid(0, 0), "odd value");
    allowed([&] { return move(grid(0, 0), "Shared/P0/new"); });
    EXPECT_EQ(logged_part("is_fixed_folder : failed to get xattr"), 1);
}

// --- names, identity, memory -----------------------------------------------------------------

TEST_F(Rename, NullNamesAreOutOfMemory) {
    std::string name = file_in(7);
    Outcome outcome = refused(ENOMEM, [&] { return move_names(nullptr, name.data()); });
    EXPECT_TRUE(outcome.asked.empty());
    outcome = refused(ENOMEM, [&] { return move_names(name.data(), nullptr); });
    EXPECT_TRUE(outcome.asked.empty());
    refused(ENOMEM, [&] { return move_names(nullptr, nullptr); });
}

TEST_F(Rename, OnlyTheConnectionsRecordGivesRights) {
    connection->groupmap.num_sup_gids = 0;
    refused(EACCES, [&] { return move(file_in(7), "Shared/P7/new"); });
}

TEST_F(Rename, EveryIdentityIsGivenBack) {
    for (const Ids& ids :
         {Ids{0, kAlice.uid, 0, 7101, 7101, 7103}, Ids{0, kAlice.uid, kAlice.uid, 7101, 7101, 7101},
          Ids{kAlice.uid, kAlice.uid, 0, 7101, 7101, 7101}}) {
        become(ids);
        allowed([&] { return move(file_in(7), "Shared/P7/new"); });
        refused(EACCES, [&] { return move(file_in(6), "Shared/P7/new"); });
        refused(ENOENT, [&] { return move("Shared/P7/gone", "Shared/P7/new"); });
    }
}

TEST_F(Rename, RootIsAllowedAndStaysRoot) {
    become(kRoot);
    allowed([&] { return move(file_in(0), "Shared/P0/new"); });
    refused(ENOENT, [&] { return move("Shared/P7/gone", "Shared/P7/new"); });
}

TEST_F(Rename, WithoutRootTheOperationIsRefusedUnasked) {
    without_root([&] {
        config.set_debug_level(1);
        const Outcome outcome =
            refused(EACCES, [&] { return move("Private/kvalice/doc", "Private/kvalice/new"); });
        EXPECT_TRUE(outcome.asked.empty());
        EXPECT_EQ(logged("Could not become root in rename op to call stat, "
                         "old_base_name=Private/kvalice/doc, new_base_name=Private/kvalice/new"),
                  1);
        EXPECT_EQ(heap_growth([&] { move("Private/kvalice/doc", "Private/kvalice/new"); }), 0);
    });
}

TEST_F(Rename, WithoutMemoryTheOperationIsRefused) {
    if (!can_refuse_memory()) GTEST_SKIP();
    std::string from = "Private/kvalice/sub";
    std::string to = "Private/kvalice/new";
    const auto outcomes =
        starve([] {},
               [&] {
                   return rename_preprocess(from.data(), to.data(), share.c_str(), &context, &isdir,
                                            connection.get(), &is_nav, &old_path, &new_path);
               },
               [&] {
                   free(old_path);
                   free(new_path);
                   give_back();
               });
    ASSERT_GE(outcomes.size(), 6u);
    int no_mark = 0;
    int no_path = 0;
    int cannot_tell = 0;
    for (const Starved& one : outcomes) {
        SCOPED_TRACE(one.nth);
        if (one.said("is_fixed_folder : failed to allocate perm_ctx")) {
            EXPECT_EQ(one.result, 0) << "a mark in doubt refuses no rename";
            ++no_mark;
            continue;
        }
        EXPECT_EQ(one.result, -1);
        if (one.said("calloc failed. errno = 12(Cannot allocate memory)")) {
            EXPECT_EQ(one.error, ENOMEM);
            ++no_path;
        } else {
            EXPECT_EQ(one.error, EACCES);
        }
        if (one.said("Could not tell whether move or rename Private/kvalice/sub -> "
                     "Private/kvalice/new , denying..."))
            ++cannot_tell;
    }
    EXPECT_EQ(no_path, 2) << "of the old path and of the new one";
    EXPECT_EQ(no_mark, 1);
    EXPECT_GE(cannot_tell, 4);
    EXPECT_TRUE(outcomes[1].said("Could not become root in rename op to call stat, old_base_name=" +
                                 from + ", new_base_name=" + to));
    EXPECT_TRUE(outcomes.back().said("Could not switch to root for rename operations " + from +
                                     " -> " + to));
}

TEST_F(Rename, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    mark_fixed(grid(7, 7));
    std::string name = file_in(7);
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(move(file_in(7), "Shared/P7/new"), 0);
                  give_back();
                  ASSERT_EQ(move(grid(7, 1), "Shared/P3/new"), 0);
                  give_back();
                  ASSERT_EQ(move(file_in(1), "Shared/P7/new"), -1);
                  ASSERT_EQ(move(file_in(7), "Shared/P1/new"), -1);
                  ASSERT_EQ(move("Shared/P7/gone", "Shared/P7/new"), -1);
                  ASSERT_EQ(move(grid(7, 7), "Shared/P7/new"), -1);
                  ASSERT_EQ(move_names(name.data(), nullptr), -1);
              }),
              0);
    context = nullptr;
}

}  // namespace
}  // namespace kvtest
