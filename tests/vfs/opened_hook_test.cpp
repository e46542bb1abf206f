// After a file was opened: a creation is recorded, a folder told apart, the status taken as root.
#include <sys/stat.h>

#include "hook_fixture.h"

namespace kvtest {
namespace {

class Opened : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    int opened(const std::string& path, int newly_created) {
        full_path = heap(at(path));
        const int result = open_postprocess(&st, &context, &full_path, newly_created);
        if (result == 0) {
            EXPECT_EQ(full_path, at(path)) << "the path stays the module's";
            free(full_path);
        }
        return result;
    }
    // The pointer keeps its value, of no use to anybody.
    Outcome done(const std::string& path, int newly_created, int result) {
        const Ids before = thread_ids();
        Outcome outcome = call([&] { return opened(path, newly_created); });
        EXPECT_EQ(outcome.result, result);
        EXPECT_EQ(outcome.during, before);
        context = nullptr;
        return outcome;
    }

    char* full_path = nullptr;
    struct stat st {};
};

TEST_F(Opened, ANewFileIsRecordedAsCreated) {
    done(file_in(7), 1, 0);
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at(file_in(7)));
    EXPECT_EQ(logged("open_postprocess :wrote VFS CREATE EVENT in open for " + at(file_in(7))), 1);
    EXPECT_EQ(last_modifier(file_in(7)), std::nullopt);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, 7);
}

TEST_F(Opened, AFileThatWasThereIsNotRecorded) {
    done(file_in(7), 0, 0);
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(st.st_size, 7);
}

TEST_F(Opened, AFolderIsToldApartAndItsPathFreed) {
    for (const int newly_created : {0, 1}) {
        done(grid(7, 7), newly_created, -1);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_TRUE(events().empty());
    }
}

TEST_F(Opened, AFailedStatusIsReportedAndTheCreationRecordedAllTheSame) {
    config.set_debug_level(0);
    done("Shared/P7/gone", 0, 0);
    EXPECT_EQ(logged("stat path=" + at("Shared/P7/gone") +
                     " reason=2 reason_sz=No such file or directory failed"),
              1);
    EXPECT_TRUE(events().empty());
    done("Shared/P7/gone", 1, 0);
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at("Shared/P7/gone"));
}

TEST_F(Opened, TheContextIsUsedUpAndThePointerLeft) {
    call([&] { return opened(file_in(7), 0); });
    EXPECT_NE(context, nullptr);
    context = nullptr;
}

TEST_F(Opened, CredentialsOfAModuleThatIsStillRootAreRestored) {
    const Ids before = thread_ids();
    ASSERT_EQ(raise_permissions(&context), 1);
    call([&] { return opened(file_in(7), 1); });
    EXPECT_EQ(thread_ids(), before);
    context = nullptr;
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at(file_in(7)));
}

TEST_F(Opened, RootWithoutCredentialsStaysRootAndLeavesNoEvent) {
    become(kRoot);
    done(file_in(7), 1, 0);
    EXPECT_TRUE(events().empty());
}

TEST_F(Opened, WithoutRootTheStatusIsTheUsers) {
    without_root([&] {
        done("Private/kvalice/doc", 1, 0);
        EXPECT_EQ(st.st_size, 7);
        expect_event(VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                     at("Private/kvalice/doc"));
        done(file_in(7), 0, 0);
        EXPECT_EQ(
            logged("stat path=" + at(file_in(7)) + " reason=13 reason_sz=Permission denied failed"),
            1);
    });
}

TEST_F(Opened, NothingIsLeftOnTheHeapAndNothingFreedTwice) {
    EXPECT_EQ(heap_growth([&] {
                  ASSERT_EQ(opened(file_in(7), 1), 0);
                  ASSERT_EQ(opened(grid(7, 7), 1), -1);
                  ASSERT_EQ(opened("Shared/P7/gone", 0), 0);
              }),
              0);
    context = nullptr;
}

}  // namespace
}  // namespace kvtest
