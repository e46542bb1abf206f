// The permission check with the cache in front of it: who is answered without any look-up, when the
// enforcement is asked and with what, and what is remembered of its answers. Every question is
// asked by a user with a real identity, against a published map.
#include "connection_fixture.h"
#include "tests/permissions/verdict_fixture.h"

namespace kvtest {
namespace {

constexpr int kYes = KVPERMS_HAS_PERMS;
constexpr int kNo = KVPERMS_NO_PERM;

// Questions of one connection, asked in a child that has become its user.
template <typename Base>
class Cached : public Base {
protected:
    using Base::config;
    using Base::share;

    Cached() : record(ready_connection(name, kAlice)) {
        record->groupmap.euid = kAlice;
        record->groupmap.egid = kPrimary;
        record->groupmap.gids = static_cast<gid_t*>(std::calloc(1, sizeof(gid_t)));
        record->groupmap.gids[0] = kPowers;
        record->groupmap.num_sup_gids = 1;
    }

    void as_alice(const std::function<void()>& body) {
        expect_in_child([&] {
            vfs_set_admins_powerusers(kAdmins, kPowers);
            become_user(kAlice, kPrimary, {});
            const Ids ids = current_ids();
            config.set_debug_level(10);
            clear_log();
            body();
            EXPECT_TRUE(current_ids() == ids);
        });
    }
    int check(const char* path, int op = FSOP_STAT, int type = 0) {
        return check_perms(share.c_str(), path, static_cast<e_fsop_type_t>(op), record.get(), type);
    }
    // How often the enforcement was asked since the last call of this, and by which words.
    static int asked(const std::string& words = "") {
        const int count = logged_part("Enforcing permissions for op " + words);
        clear_log();
        return count;
    }
    kv_vfs_table_cache_t& cache() { return record->vfs_table_cache; }
    void expect_nothing_cached() {
        EXPECT_EQ(cache().vfs_tlb_end, 0);
        for (const char* path : cache().tlb_paths) ASSERT_EQ(path, nullptr);
    }

    std::string name = "alice";
    Connection record;
};

class CachedVerdict : public Cached<Verdict> {};
class CachedVerdictWithoutMap : public Cached<VerdictWithoutMap> {
protected:
    // Other cases of this binary may have published a map.
    void SetUp() override {
        for (const key_t key : {0x70657269, 0x7065726A})
            if (const int id = shmget(key, 0, 0); id >= 0) shmctl(id, IPC_RMID, nullptr);
    }
};

// Answers without a look-up ----------------------------------------------------------------------

TEST_F(CachedVerdict, ComputerAccountMayNothing) {
    cache().flush_tlb = 21;
    for (const int mark : {1, -1, 5}) {
        record->groupmap.is_computer_acct = mark;
        EXPECT_EQ(check("Shared/Projects"), kNo) << "not even as root";
        as_alice([&] {
            for (const char* path : {"Shared/Projects", "../x", ".DS_Store"}) {
                clear_log();
                EXPECT_EQ(check(path), kNo);
                EXPECT_EQ(logged("kavrin_check_perms KVPERMS_NO_PERM"), 1);
                EXPECT_EQ(log_lines().size(), 1u);
            }
            config.set_debug_level(9);
            clear_log();
            check("Shared/Projects");
            EXPECT_TRUE(log_lines().empty());
            EXPECT_EQ(cache().flush_tlb, 21);
            expect_nothing_cached();
        });
    }
}

TEST_F(CachedVerdict, RootMayEverythingAndLeavesTheCacheAlone) {
    add_tlb_entry(std::string("Shared/Closed").data(), -1, FSOP_STAT, KVPERMS_NO_PERM, &cache());
    cache().flush_tlb = 21;
    const std::vector<char> before = bytes_of(*record);
    config.set_debug_level(10);
    for (const char* path : {"Shared/Closed", "Shared/Projects", "../x", "Elsewhere"}) {
        clear_log();
        EXPECT_EQ(check(path), kYes) << path;
        EXPECT_EQ(logged("kavrin_check_perms KVPERMS_HAS_PERMS"), 1);
        EXPECT_EQ(log_lines().size(), 1u);
    }
    EXPECT_TRUE(bytes_of(*record) == before);
    config.set_debug_level(9);
    clear_log();
    check("Shared/Projects");
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(CachedVerdict, PathThatClimbsAboveItsStartIsAllowedAndNotCached) {
    cache().flush_tlb = 21;
    as_alice([&] {
        for (const char* path : {"../Shared/Closed", "..", "a/../../b", "./.."}) {
            clear_log();
            EXPECT_EQ(check(path), kYes) << path;
            EXPECT_EQ(logged(std::string("returning HAS_PERMS, path normalization returned an "
                                         "unusable path ") +
                             path + ": No such file or directory"),
                      1);
            EXPECT_EQ(asked(), 0);
        }
        config.set_debug_level(9);
        check("..");
        EXPECT_TRUE(log_lines().empty());
        EXPECT_EQ(cache().flush_tlb, 21);
        expect_nothing_cached();
    });
}

TEST_F(CachedVerdict, WithoutMemoryForThePathThereIsNoVerdict) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    as_alice([&] {
        for (const int level : {-1, 0}) {
            config.set_debug_level(level);
            clear_log();
            int verdict = 0;
            {
                const RefusedAllocation refused(1);
                verdict = check("Shared/Projects");
            }
            EXPECT_EQ(verdict, KVPERMS_MALLOC_ERR);
            EXPECT_EQ(logged("path normalization failed Shared/Projects: Cannot allocate memory"),
                      level == 0 ? 1 : 0);
            expect_nothing_cached();
        }
    });
}

TEST_F(CachedVerdict, PathThatCannotBeNormalisedOtherwiseEndsTheProcess) {
    // Whatever failed before this call: a path that is not there at all is never allowed.
    for (const int stale : {0, ENOENT, ENOMEM, EACCES}) {
        const ChildResult child = run_child_void([&] {
            vfs_set_admins_powerusers(kAdmins, kPowers);
            become_user(kAlice, kPrimary, {});
            errno = stale;
            check(nullptr);
        });
        EXPECT_TRUE(child.asserted("`0'")) << stale << child.err;
        EXPECT_EQ(
            logged_matching(child.log, "path normalization failed for .*: code=\\d+ \\(.*\\)"), 1);
    }
}

// Asking and remembering --------------------------------------------------------------------------

TEST_F(CachedVerdict, VerdictIsAskedForOnceAndRemembered) {
    as_alice([&] {
        const std::string question = "16 root " + share + " path Shared/Projects pid ";
        EXPECT_EQ(check("Shared/Projects"), kYes);
        EXPECT_EQ(asked(question), 1);
        EXPECT_EQ(check("Shared/Projects"), kYes);
        EXPECT_EQ(asked(), 0);
        EXPECT_EQ(check("Elsewhere"), kNo);
        EXPECT_EQ(asked(), 1);
        EXPECT_EQ(check("Elsewhere"), kNo);
        EXPECT_EQ(asked(), 0);
        EXPECT_EQ(cache().vfs_tlb_end, 2);
        EXPECT_STREQ(cache().tlb_paths[0], "Shared/Projects");
        EXPECT_STREQ(cache().tlb_paths[1], "Elsewhere");
    });
}

TEST_F(CachedVerdict, RememberedVerdictOutlivesTheRightsUntilAFlush) {
    as_alice([&] {
        EXPECT_EQ(check("Shared/Projects"), kYes);
        EXPECT_EQ(check("Shared/Closed/x", FSOP_MKDIR), kNo);
        record->groupmap.gids[0] = kAdmins;
        EXPECT_EQ(check("Shared/Closed/x", FSOP_MKDIR), kNo);
        record->groupmap.num_sup_gids = 0;
        EXPECT_EQ(check("Shared/Projects"), kYes);
        cache().flush_tlb = 21;
        EXPECT_EQ(check("Shared/Projects"), kNo);
        EXPECT_EQ(cache().flush_tlb, 9);
        EXPECT_EQ(cache().vfs_tlb_end, 1);
        record->groupmap.num_sup_gids = 1;
        EXPECT_EQ(check("Shared/Closed/x", FSOP_MKDIR), kYes);
    });
}

TEST_F(CachedVerdict, PathIsKnownByItsCanonicalForm) {
    as_alice([&] {
        EXPECT_EQ(check("./Shared//Closed/../Projects/"), kYes);
        EXPECT_EQ(asked("16 root " + share + " path Shared/Projects pid "), 1);
        EXPECT_EQ(check("Shared/Projects"), kYes);
        EXPECT_EQ(check("Shared/./Projects"), kYes);
        EXPECT_EQ(asked(), 0);
        EXPECT_EQ(cache().vfs_tlb_end, 1);
        EXPECT_EQ(check("shared/projects"), kYes);
        EXPECT_EQ(asked(), 1) << "letter case makes another path";
        EXPECT_EQ(cache().vfs_tlb_end, 2);
    });
}

TEST_F(CachedVerdict, EveryOperationIsAskedForItself) {
    as_alice([&] {
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT), kYes);
        EXPECT_EQ(check("Shared/Projects", FSOP_RMDIR), kNo);
        EXPECT_EQ(asked(), 2);
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT), kYes);
        EXPECT_EQ(check("Shared/Projects", FSOP_RMDIR), kNo);
        EXPECT_EQ(check("Shared/Projects", FSOP_OPENDIR), kYes);
        EXPECT_EQ(asked(), 1);
        EXPECT_EQ(cache().vfs_tlb_end, 1);
    });
}

TEST_F(CachedVerdict, FurtherOperationIsPutDownUnderTheNumberOfThePosition) {
    as_alice([&] {
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT), kYes);  // slot 0
        EXPECT_EQ(check("Elsewhere", FSOP_STAT), kNo);         // slot 1, now at position 0
        asked();
        // Found at position 1, so slot 1 receives it, which is the other path's.
        EXPECT_EQ(check("Shared/Projects", FSOP_OPENDIR), kYes);
        EXPECT_EQ(cache().tlb_perms[0].set[0], 1u << FSOP_STAT);
        EXPECT_EQ(cache().tlb_perms[1].set[0], 1u << FSOP_STAT | 1u << FSOP_OPENDIR);
        EXPECT_EQ(cache().tlb_perms[1].value[0], 1u << FSOP_OPENDIR);
        EXPECT_EQ(cache().tlb_index_table[0], 1) << "nor does it count as use";
        EXPECT_EQ(check("Shared/Projects", FSOP_OPENDIR), kYes);
        EXPECT_EQ(asked(), 2);
        EXPECT_EQ(check("Elsewhere", FSOP_OPENDIR), kYes);
        EXPECT_EQ(asked(), 0);
    });
}

TEST_F(CachedVerdict, QuestionIsPutForTheRecordsIdentity) {
    as_alice([&] {
        record->groupmap.euid = kBob;
        EXPECT_EQ(check("Shared/Reading/free/x", FSOP_MKDIR, FSTYPE_FOLDER), kNo);
        record->groupmap.euid = kAlice;
        EXPECT_EQ(check("Shared/Projects/free/x", FSOP_MKDIR, FSTYPE_FOLDER), kYes);
        EXPECT_EQ(check("Shared/Reading/free/y", FSOP_MKDIR, FSTYPE_FOLDER), kNo);
        record->groupmap.gids[0] = kAdmins;
        EXPECT_EQ(check("Shared/Reading/free/z", FSOP_MKDIR, FSTYPE_FOLDER), kYes);
        record->groupmap.gids[0] = kStaff;
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT), kNo) << "no standing";
        EXPECT_EQ(record->groupmap.is_global_map_in_use, 0);
        EXPECT_EQ(record->groupmap.admin, 0);
    });
}

TEST_F(CachedVerdict, TypeIsHandedOnAndNoPartOfTheEntry) {
    as_alice([&] {
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT, FSTYPE_FILE), kNo) << "no files there";
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT, FSTYPE_FOLDER), kNo) << "remembered";
        EXPECT_EQ(check("Shared/Projects", FSOP_OPENDIR, FSTYPE_FOLDER), kYes);
        EXPECT_EQ(check("Shared/Reading", FSOP_STAT), kYes) << "looked at on the disk";
    });
}

TEST_F(CachedVerdict, RootOfTheShareIsHandedOn) {
    const std::string other = make_temp_dir();
    ASSERT_EQ(mkdir((other + "/Shared").c_str(), 0755), 0);
    write_file(other + "/Shared/Projects", "a file, which may not lie there");
    as_alice([&] {
        EXPECT_EQ(check_perms(other.c_str(), "Shared/Projects", FSOP_STAT, record.get(), 0), kNo);
        EXPECT_EQ(asked("16 root " + other + " path Shared/Projects pid "), 1);
        cache().flush_tlb = 21;
        EXPECT_EQ(check("Shared/Projects"), kYes);
    });
}

TEST_F(CachedVerdict, ManyPathsPushTheOldestOut) {
    as_alice([&] {
        config.set_debug_level(1);
        for (int i = 0; i < 1025; ++i)
            ASSERT_EQ(check(("Elsewhere/" + std::to_string(i)).c_str(), FSOP_STAT, FSTYPE_FOLDER),
                      kNo);
        EXPECT_EQ(asked(), 1025);
        EXPECT_EQ(cache().vfs_tlb_end, 1024);
        EXPECT_EQ(check("Elsewhere/1", FSOP_STAT, FSTYPE_FOLDER), kNo);
        EXPECT_EQ(asked(), 0);
        EXPECT_EQ(check("Elsewhere/0", FSOP_STAT, FSTYPE_FOLDER), kNo);
        EXPECT_EQ(asked(), 1);
    });
}

TEST_F(CachedVerdict, CourseIsTraced) {
    as_alice([&] {
        check("Shared/Projects", FSOP_STAT);
        EXPECT_EQ(logged("TLB: Adding entry for Shared/Projects, op 16, perms 3, slot -1"), 1);
        clear_log();
        check("Shared/Projects", FSOP_STAT);
        EXPECT_EQ(logged("TLB: Cache hit for Shared/Projects, op 16, perms 3, slot 0"), 1);
        clear_log();
        check("Shared/Projects", FSOP_RMDIR);
        EXPECT_EQ(logged("TLB: Updating entry for Shared/Projects, op 21, perms 2, slot 0"), 1);
        EXPECT_EQ(logged_part("TLB: Adding"), 0);
        config.set_debug_level(9);
        clear_log();
        check("Shared/Reading", FSOP_STAT);
        check("Shared/Reading", FSOP_STAT);
        check("Shared/Reading", FSOP_RMDIR);
        EXPECT_EQ(logged_part("TLB: "), 0);
    });
}

TEST_F(CachedVerdict, NoWayOutKeepsMemory) {
    std::string deep = "Shared/Projects";
    for (int i = 0; i < 20; ++i) deep += '/' + std::string(200, 'd');  // 4 kB
    as_alice([&] {
        config.set_debug_level(-1);
        const std::string first_of_many = "Shared/Projects/" + deep;
        EXPECT_LT(heap_growth(300, [&] { check(deep.c_str(), FSOP_STAT, FSTYPE_FOLDER); }), 100000u)
            << "a remembered verdict";
        int op = 0;
        EXPECT_LT(heap_growth(300,
                              [&] {
                                  cache().tlb_perms[0].set[0] = 0;
                                  check(deep.c_str(), 1 + ++op % 2, FSTYPE_FOLDER);
                              }),
                  100000u)
            << "a further operation";
        EXPECT_LT(heap_growth(300, [&] { check(deep.c_str(), FSOP_INVAL, FSTYPE_FOLDER); }),
                  100000u)
            << "an error";
    });
}

// Errors ------------------------------------------------------------------------------------------

TEST_F(CachedVerdictWithoutMap, ErrorsAreHandedBackAndNeverCached) {
    as_alice([&] {
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(check("Shared/Projects"), KVPERMS_ACLBUF_ERR);
            EXPECT_EQ(asked(), 1);
            expect_nothing_cached();
        }
        EXPECT_EQ(check("Shared/Projects", FSOP_INVAL), KVPERMS_INVALID_ARGS);
        record->groupmap.num_sup_gids = -1;
        EXPECT_EQ(check("Shared/Projects"), KVPERMS_INVALID_ARGS);
        expect_nothing_cached();
    });
}

TEST_F(CachedVerdictWithoutMap, ErrorsAreNotAddedToAKnownPathEither) {
    as_alice([&] {
        add_tlb_entry(std::string("Shared/Projects").data(), -1, FSOP_STAT, KVPERMS_HAS_PERMS,
                      &cache());
        EXPECT_EQ(check("Shared/Projects", FSOP_STAT), kYes);
        EXPECT_EQ(check("Shared/Projects", FSOP_OPENDIR), KVPERMS_ACLBUF_ERR);
        EXPECT_EQ(cache().tlb_perms[0].set[0], 1u << FSOP_STAT);
        EXPECT_EQ(cache().vfs_tlb_end, 1);
    });
}

}  // namespace
}  // namespace kvtest
