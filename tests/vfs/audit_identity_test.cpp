// Audit files are root's, whoever the connection's user is; and the user is back afterwards,
// however the flush ended.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include "audit_fixture.h"

namespace {

using namespace kvtest;

constexpr uid_t kUser = 4001;
constexpr gid_t kGroup = 4002;

// Real, effective and saved user ids, then group ids.
using Ids = std::array<unsigned, 6>;
constexpr Ids kConnection = {0, kUser, 0, kGroup, kGroup, kGroup};

Ids thread_ids() {
    Ids ids{};
    syscall(SYS_getresuid, &ids[0], &ids[1], &ids[2]);
    syscall(SYS_getresgid, &ids[3], &ids[4], &ids[5]);
    return ids;
}

// Looks into the folder, which is closed to the user, as root.
template <typename Look>
auto as_root(Look look) {
    kv_perm_ctx_t* const context = kavrin_vfs_become_root();
    auto seen = look();
    kavrin_vfs_unbecome_root(context);
    return seen;
}

class AuditIdentity : public AuditFlush {
protected:
    AuditIdentity() { EXPECT_EQ(chmod(folder.c_str(), 0700), 0); }

    // Runs `body` as a connection's user and expects that user afterwards.
    template <typename Body>
    void as_user(Body body) {
        expect_in_child([&] {
            become_user(kUser, kGroup, {5001});
            ASSERT_EQ(thread_ids(), kConnection);
            ASSERT_NE(access((folder + "/x").c_str(), F_OK), 0);
            body();
            EXPECT_EQ(thread_ids(), kConnection);
            EXPECT_NE(mkdir((folder + "/x").c_str(), 0755), 0);
        });
    }
    std::vector<std::string> names_as_root() {
        return as_root([&] { return names(); });
    }
};

TEST_F(AuditIdentity, FileBelongsToRoot) {
    as_user([&] {
        EXPECT_EQ(flush_audit_buffer(), 0);
        EXPECT_EQ(thread_ids(), kConnection);
        const auto owner = as_root([&] {
            struct stat status {};
            EXPECT_EQ(stat((folder + "/" + kName).c_str(), &status), 0);
            return status;
        });
        EXPECT_EQ(owner.st_uid, 0u);
        EXPECT_EQ(owner.st_mode & 077, 0u);  // nobody else reads who read what
        EXPECT_EQ(owner.st_size, static_cast<off_t>(record.size()));
        expect_empty();
    });
}

TEST_F(AuditIdentity, WriteThatFlushesComesBackToTheUser) {
    as_user([&] {
        clock.set(kNow + 1000);
        EXPECT_EQ(write_record(framed("later")), 0);
        EXPECT_EQ(names_as_root(), std::vector<std::string>{"pending_1700001000.000042"});
        EXPECT_EQ(held(), framed("later"));
    });
}

TEST_F(AuditIdentity, InitThatFlushesComesBackToTheUser) {
    as_user([&] {
        init_audit_buffer();
        EXPECT_EQ(names_as_root(), std::vector<std::string>{kName});
    });
}

TEST_F(AuditIdentity, FlushOfNothingComesBackToTheUser) {
    EXPECT_EQ(flush_audit_buffer(), 0);
    as_user([&] { EXPECT_EQ(flush_audit_buffer(), 1); });
}

TEST_F(AuditIdentity, EveryFailureComesBackToTheUser) {
    as_user([&] {
        config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
        EXPECT_EQ(flush_audit_buffer(), -1);
    });
    as_user([&] {
        as_root([&] { return (write_file(folder + "/" + kName, "x"), 0); });
        EXPECT_EQ(flush_audit_buffer(), -1);
        expect_kept();
    });
    std::filesystem::remove_all(folder + "/" + kName);
    as_user([&] {
        WriteProbe probe("adtemp");
        probe.answer = [](std::size_t) { return 3; };
        EXPECT_EQ(flush_audit_buffer(), -1);
        EXPECT_EQ(probe.sizes.size(), 1u);
        expect_kept();
    });
}

TEST_F(AuditIdentity, LostRenameComesBackToTheUser) {
    as_user([&] {
        WriteProbe probe("adtemp");
        probe.answer = [&](std::size_t asked) {
            write_file(folder + "/" + kName, "of another process");
            return static_cast<ssize_t>(asked);
        };
        EXPECT_EQ(flush_audit_buffer(), 0);
        expect_empty();
    });
}

TEST_F(AuditIdentity, ProcessWithoutAWayToRootKeepsItsRecords) {
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    expect_in_child([&] {
        ASSERT_EQ(setresgid(kGroup, kGroup, kGroup), 0);
        ASSERT_EQ(setresuid(kUser, kUser, kUser), 0);
        EXPECT_EQ(flush_audit_buffer(), -1);
        EXPECT_EQ(logged("setresuid failed. Cannot change to root"), 1);
        EXPECT_EQ(names().size(), 0u);
        expect_kept();
        clear_log();
        clock.set(kNow + 1000);
        EXPECT_EQ(write_record(framed("later")), 0);
        EXPECT_EQ(logged_part("Failed to flush audit buffer. errno = 1("), 1);
        EXPECT_EQ(held(), record + framed("later"));
        EXPECT_EQ(thread_ids(), (Ids{kUser, kUser, kUser, kGroup, kGroup, kGroup}));
    });
}

TEST_F(AuditIdentity, WithoutMemoryForTheSwitchNothingChanges) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    as_user([&] {
        int result = 0;
        {
            const RefusedAllocation refused(1);
            result = flush_audit_buffer();
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(logged("Cannot allocate memory"), 1);
        expect_kept();
        EXPECT_TRUE(names_as_root().empty());
    });
}

TEST_F(AuditIdentity, NoFailureAsksForARescan) {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this below scripts/sandbox";
    ASSERT_TRUE(std::filesystem::create_directories("/kavrin/.conf"));
    config.set_string(PARAM_AUDITING_DIR, folder + "/nothing");
    EXPECT_EQ(flush_audit_buffer(), -1);
    config.set_string(PARAM_AUDITING_DIR, folder);
    write_file(folder + "/" + kName, "x");
    EXPECT_EQ(flush_audit_buffer(), -1);
    clock.set(kNow, 43);
    {
        WriteProbe probe("adtemp");
        probe.answer = [](std::size_t) { return 3; };
        EXPECT_EQ(flush_audit_buffer(), -1);
        probe.answer = [&](std::size_t asked) {
            write_file(folder + "/pending_1700000000.000043", "x");
            return static_cast<ssize_t>(asked);
        };
        EXPECT_EQ(flush_audit_buffer(), 0);
    }
    EXPECT_EQ(write_record(framed(std::string(2000, 'x'))), -1);
    EXPECT_FALSE(file_exists("/kavrin/.conf/kavrin_event_status.dirty"));
    std::filesystem::remove_all("/kavrin/.conf");
}

}  // namespace
