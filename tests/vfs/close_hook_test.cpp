// Closing files: which changes become events and which reads audit records, with the name that the
// kernel knows the file by.
#include <fcntl.h>
#include <sys/stat.h>

#include "hook_fixture.h"

namespace {
bool refuse_status = false;
}

extern "C" int fstat(int fd, struct stat* st) noexcept {
    if (refuse_status) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fstat, fd, st));
}

namespace kvtest {
namespace {

class Close : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    void TearDown() override {
        if (fd > 0) ::close(fd);
        HookTest::TearDown();
    }
    void open(const std::string& path, int flags = O_RDONLY) {
        const AsRoot root;
        fd = ::open(at(path).c_str(), flags | O_CLOEXEC);
        ASSERT_GT(fd, 0) << path;
    }
    void close(int audit = 1, int valid = 1) {
        record([&] { close_here(audit, valid); });
    }
    void close_here(int audit = 1, int valid = 1) {
        close_preprocess(audit, fd, connection.get(), &chosen, valid, "192.0.2.7");
    }
    void expect_change(const std::string& path) {
        expect_event(VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                     at(path));
        EXPECT_EQ(last_modifier(path), "KvAlice");
    }
    void expect_nothing() {
        EXPECT_TRUE(events().empty());
        EXPECT_TRUE(reads().empty());
    }
    std::vector<Read> one_read(const std::string& path) {
        return {{at(path), kAlice.uid, "192.0.2.7", 7}};
    }

    int fd = -1;
    char name[8] = "a name";
    modify_file_evt_s_t connections{name, 1, 0};
    modify_file_evt_s_t modules{name, 1, 0};
    modify_file_evt_s_t* chosen = &modules;
};

TEST_F(Close, AChangedFileIsRecordedAsOpenedUnderTheDescriptorsName) {
    open(file_in(7));
    connection->pmodify = &connections;
    close();
    expect_change(file_in(7));
    EXPECT_TRUE(reads().empty());
    EXPECT_EQ(chosen, &connections);
    EXPECT_EQ(connections.is_modified, 0);
    EXPECT_EQ(modules.is_modified, 1) << "not the one in use";
}

TEST_F(Close, TheNameIsTheOneTheFileHasNow) {
    open(file_in(7));
    {
        const AsRoot root;
        ASSERT_EQ(rename(at(file_in(7)).c_str(), at("Shared/P7/renamed").c_str()), 0);
    }
    close();
    expect_change("Shared/P7/renamed");
}

TEST_F(Close, ALengthyNameIsReadWhole) {
    // 3,900 bytes and more in components of 200.
    std::string path = "Shared/P7";
    const int top = ::open("/", O_PATH | O_CLOEXEC);
    {
        const AsRoot root;
        ASSERT_EQ(chdir(at(path).c_str()), 0);
        for (int i = 0; i < 19; ++i) {
            const std::string component(200, static_cast<char>('a' + i));
            ASSERT_EQ(mkdir(component.c_str(), 0755), 0);
            ASSERT_EQ(chdir(component.c_str()), 0);
            path += "/" + component;
        }
        fd = ::open("f", O_CREAT | O_RDWR | O_CLOEXEC, 0644);
        ASSERT_GT(fd, 0);
        ASSERT_EQ(fchdir(top), 0);
    }
    ::close(top);
    close();
    expect_change(path + "/f");
}

TEST_F(Close, WithoutAConnectionsRecordTheModulesIsUsed) {
    open(file_in(7));
    close();
    expect_change(file_in(7));
    EXPECT_EQ(chosen, &modules);
    EXPECT_EQ(modules.is_modified, 0);
}

TEST_F(Close, AnInvalidConnectionRecordsNothing) {
    open(file_in(7));
    connection->pmodify = &connections;
    close(1, 0);
    expect_nothing();
    EXPECT_EQ(chosen, &connections) << "handed over all the same";
    EXPECT_EQ(connections.is_modified, 1);
    EXPECT_EQ(
        logged_matching(log_lines(), "close_preprocess\\([0-9]+\\):VFS event close  " +
                                         at(file_in(7)) + " NOT modified pmodified=0x[0-9a-f]+"),
        1);
    connection->pmodify = nullptr;
    chosen = &modules;
    close(1, 0);
    expect_nothing();
    EXPECT_EQ(modules.is_modified, 1);
    EXPECT_EQ(last_modifier(file_in(7)), std::nullopt);
}

TEST_F(Close, WithoutAnyRecordNothingIsRecorded) {
    open(file_in(7));
    chosen = nullptr;
    config.set_debug_level(3);
    close();
    expect_nothing();
    EXPECT_EQ(logged_matching(log_lines(), "close_preprocess\\([0-9]+\\):VFS event close  " +
                                               at(file_in(7)) + " NOT modified pmodified=.*"),
              1);
    config.set_debug_level(2);
    close();
    EXPECT_EQ(logged_part("VFS event close"), 0);
}

TEST_F(Close, AFileThatWasOnlyReadIsAudited) {
    open(file_in(7));
    modules.is_modified = 0;
    close();
    EXPECT_TRUE(events().empty());
    EXPECT_EQ(reads(), one_read(file_in(7)));
    EXPECT_EQ(last_modifier(file_in(7)), std::nullopt);
    EXPECT_EQ(modules.is_modified, 0);
}

TEST_F(Close, TheReadIsTheConnectionsUsers) {
    open(file_in(7));
    modules.is_modified = 0;
    connection->refresh_creds.euid = 31337;
    close();
    ASSERT_EQ(reads().size(), 1u);
    EXPECT_EQ(reads()[0].uid, 31337u);
}

TEST_F(Close, WithoutAuditingAReadIsNotRecorded) {
    open(file_in(7));
    modules.is_modified = 0;
    close(0);
    expect_nothing();
}

TEST_F(Close, WhatIsNoRegularFileIsNotAudited) {
    {
        const AsRoot root;
        ASSERT_EQ(mkfifo(at("Shared/P7/pipe").c_str(), 0644), 0);
    }
    open("Shared/P7/pipe", O_RDWR);
    modules.is_modified = 0;
    close();
    expect_nothing();
    modules.is_modified = 1;
    close();
    expect_event(VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                 at("Shared/P7/pipe"));
}

TEST_F(Close, AnyOtherMarkOfChangeIsOnlyTraced) {
    open(file_in(7));
    for (const int mark : {2, -1, 100}) {
        modules.is_modified = mark;
        config.set_debug_level(3);
        close();
        expect_nothing();
        EXPECT_EQ(modules.is_modified, mark);
        EXPECT_EQ(logged_matching(log_lines(),
                                  "close_preprocess\\([0-9]+\\):VFS event close  " +
                                      at(file_in(7)) + " was NOT modified pmodify->modified=" +
                                      std::to_string(mark) + " \\(should not be seen\\)"),
                  1);
        config.set_debug_level(2);
        close();
        EXPECT_EQ(logged_part("VFS event close"), 0);
    }
}

TEST_F(Close, AFolderIsLeftAlone) {
    open(grid(7, 7), O_RDONLY | O_DIRECTORY);
    chosen = nullptr;
    connection->pmodify = &connections;
    close();
    expect_nothing();
    EXPECT_EQ(chosen, nullptr) << "returned before a record is chosen";
    EXPECT_EQ(connections.is_modified, 1);
    EXPECT_EQ(
        logged("stat path=" + at(grid(7, 7)) + " is a directory will not write to events file"), 1);
}

TEST_F(Close, DescriptorsBelowOneAreInvalid) {
    connection->pmodify = &connections;
    config.set_debug_level(0);
    for (const int invalid : {0, -1, -1000}) {
        fd = invalid;
        close();
        expect_nothing();
        EXPECT_EQ(logged("invalid file descriptor " + std::to_string(invalid) + " in fsp"), 1);
        EXPECT_EQ(log_lines().size(), 1u);
    }
    EXPECT_EQ(chosen, &modules);
    fd = -1;
}

TEST_F(Close, AClosedDescriptorHasNoName) {
    config.set_debug_level(0);
    fd = 1000;
    close();
    expect_nothing();
    EXPECT_EQ(logged("Readlink operation on /proc/" + std::to_string(getpid()) +
                     "/fd/1000 failed No such file or directory"),
              1);
    EXPECT_EQ(modules.is_modified, 1);
    fd = -1;
}

TEST_F(Close, AFailedStatusIsReportedAndTheChangeRecordedAllTheSame) {
    open(file_in(7));
    expect_in_child([&] {
        config.set_debug_level(0);
        refuse_status = true;
        close();
        const std::string pattern =
            "close_preprocess\\([0-9]+\\) stat path=" + at(file_in(7)) + " failed";
        EXPECT_EQ(logged_matching(log_lines(), pattern), 1);
        expect_event(VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                     at(file_in(7)));
        EXPECT_EQ(modules.is_modified, 0);
        close();
        EXPECT_TRUE(reads().empty()) << "without a status nothing is a regular file";
    });
}

TEST_F(Close, WithoutRootTheNameIsStillReadWhereTheProcessMay) {
    make_file("Private/kvalice/mine", kAlice.uid);
    open("Private/kvalice/mine", O_RDWR);
    const ChildResult child = expect_in_child([&] {
        ASSERT_EQ(syscall(SYS_setresuid, kAlice.uid, kAlice.uid, kAlice.uid), 0);
        config.set_debug_level(0);
        close();
        expect_event(VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE,
                     at("Private/kvalice/mine"));
        EXPECT_EQ(modules.is_modified, 0);
        EXPECT_EQ(
            logged("Could not get root access for readlink in close, mpath=, proc_path=/proc/" +
                   std::to_string(getpid()) + "/fd/" + std::to_string(fd)),
            1);
        EXPECT_EQ(logged("set_xattr_modifying_user failed to allocate perm_ctx"), 1);
    });
    EXPECT_EQ(last_modifier("Private/kvalice/mine"), std::nullopt);
}

TEST_F(Close, WithoutMemoryNothingIsRecorded) {
    if (!can_refuse_memory()) GTEST_SKIP();
    open(file_in(7));
    config.set_debug_level(0);
    for (const auto& [nth, message] :
         {std::pair{1, "Cannot allocate memory"}, {2, "Cannot allocate memory, mpath="}}) {
        clear_log();
        {
            RefusedAllocation refused(nth);
            close_here();
        }
        EXPECT_EQ(logged(message), 1);
        EXPECT_EQ(log_lines().size(), 1u);
        expect_nothing();
        EXPECT_EQ(modules.is_modified, 1);
    }
}

TEST_F(Close, ARecordThatCannotBeMadeDoesNotKeepTheFileChanged) {
    open(file_in(7));
    become(kRoot);
    close();
    expect_nothing();
    EXPECT_EQ(last_modifier(file_in(7)), "KvAlice");
    EXPECT_EQ(modules.is_modified, 0);
}

TEST_F(Close, NothingIsLeftOnTheHeap) {
    open(file_in(7));
    EXPECT_EQ(heap_growth([&] {
                  modules.is_modified = 1;
                  close_here();
                  close_here();
                  close_here(1, 0);
                  close_preprocess(1, 0, connection.get(), &chosen, 1, "");
                  close_preprocess(1, 1000, connection.get(), &chosen, 1, "");
              }),
              0);
}

}  // namespace
}  // namespace kvtest
