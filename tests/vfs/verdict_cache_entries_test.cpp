// Entries of the verdict cache: adding, updating and deleting them, the two places where a number
// is deliberately not what it seems, and the states that end the process.
#include "verdict_cache_fixture.h"

namespace kvtest {
namespace {

using VerdictCacheEntries = VerdictCache;

// Adding ------------------------------------------------------------------------------------------

TEST_F(VerdictCacheEntries, NewPathTakesTheNextFreeSlotAndTheFront) {
    std::string path = "a";
    add_tlb_entry(path.data(), -1, FSOP_OPENDIR, kYes, cache_);
    path = "z";
    EXPECT_STREQ(cache_->tlb_paths[0], "a") << "a copy";
    EXPECT_EQ(order(), std::vector{0});
    EXPECT_EQ(set_of(0), bit(FSOP_OPENDIR));
    EXPECT_EQ(value_of(0), bit(FSOP_OPENDIR));
    add("b", FSOP_MKDIR, kNo);
    EXPECT_EQ(order(), (std::vector{1, 0}));
    EXPECT_EQ(set_of(1), bit(FSOP_MKDIR));
    EXPECT_EQ(value_of(1), 0u);
    expect_free_from(2);
}

TEST_F(VerdictCacheEntries, NewPathBeginsWithoutVerdicts) {
    cache_->tlb_perms[0] = {{~0u, ~0u}, {~0u, ~0u}};
    add("a", FSOP_STAT, kNo);
    EXPECT_EQ(set_of(0), bit(FSOP_STAT));
    EXPECT_EQ(value_of(0), 0u);
}

TEST_F(VerdictCacheEntries, OnlyHasPermsCountsAsAllowed) {
    for (const int value : {0, 2, 4, 5, 9, 10, 11, 12, -1}) {
        add("path" + std::to_string(value), FSOP_STAT, value);
        EXPECT_EQ(check("path" + std::to_string(value)), kNo) << value;
    }
}

TEST_F(VerdictCacheEntries, FurtherVerdictGoesToThePositionGiven) {
    for (const char* path : {"a", "b", "c"}) add(path);
    add("ignored", FSOP_OPENDIR, kYes, 2);
    EXPECT_EQ(order(), (std::vector{0, 2, 1}));
    EXPECT_EQ(set_of(0), bit(FSOP_STAT) | bit(FSOP_OPENDIR));
    EXPECT_EQ(value_of(0), bit(FSOP_STAT) | bit(FSOP_OPENDIR));
    EXPECT_STREQ(cache_->tlb_paths[0], "a");
    EXPECT_EQ(cache_->vfs_tlb_end, 3);
    EXPECT_EQ(set_of(1), bit(FSOP_STAT));
    EXPECT_EQ(set_of(2), bit(FSOP_STAT));
}

TEST_F(VerdictCacheEntries, AddingNeverTakesAnAllowanceBack) {
    add("a", FSOP_STAT, kYes);
    add("a", FSOP_STAT, kNo, 0);
    EXPECT_EQ(check("a"), kYes);
    add("b", FSOP_STAT, kNo);
    add("b", FSOP_STAT, kYes, 0);
    EXPECT_EQ(check("b"), kYes);
}

TEST_F(VerdictCacheEntries, FullCacheGivesUpThePathNotUsedForLongest) {
    fill();
    ASSERT_EQ(cache_->vfs_tlb_end, kSlots);
    add("path0", FSOP_OPENDIR, kYes, kSlots - 1);
    ASSERT_EQ(check("path2"), kYes);
    // Now path1 is the last, in slot 1.
    ASSERT_EQ(cache_->tlb_index_table[kSlots - 1], 1);
    add("one more", FSOP_MKDIR, kNo);
    EXPECT_EQ(cache_->vfs_tlb_end, kSlots);
    EXPECT_EQ(position("path1"), -1);
    EXPECT_STREQ(cache_->tlb_paths[1], "one more");
    EXPECT_EQ(set_of(1), bit(FSOP_MKDIR));
    EXPECT_EQ(value_of(1), 0u);
    EXPECT_EQ(cache_->tlb_index_table[0], 1);
    EXPECT_EQ(cache_->tlb_index_table[1], 2);
    EXPECT_EQ(cache_->tlb_index_table[2], 0);
    EXPECT_EQ(cache_->tlb_index_table[kSlots - 1], 3) << "path3 is the next to go";
    EXPECT_EQ(check("path0", FSOP_OPENDIR), kYes);
}

TEST_F(VerdictCacheEntries, GivenUpPathsAreFreed) {
    for (int i = 0; i < kSlots; ++i) add(std::string(500, 'p') + std::to_string(i));
    int next = kSlots;
    EXPECT_LT(heap_growth(3000, [&] { add(std::string(500, 'p') + std::to_string(next++)); }),
              200000u)
        << "they take 1.5 MB";
}

TEST_F(VerdictCacheEntries, LastFreeSlotIsTakenBeforeAnythingIsGivenUp) {
    for (int i = 0; i < kSlots - 1; ++i) add("path" + std::to_string(i));
    add("last");
    EXPECT_EQ(cache_->vfs_tlb_end, kSlots);
    EXPECT_STREQ(cache_->tlb_paths[kSlots - 1], "last");
    EXPECT_EQ(position("path0"), kSlots - 1);
}

const char* const kNoMemory = "Cannot create path for TLB cache, out of memory";

TEST_F(VerdictCacheEntries, PathWithoutMemoryKeepsItsPositionAndNoVerdict) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    add("a");
    for (const int level : {-1, 0}) {
        config.set_debug_level(level);
        clear_log();
        std::string path = "b";
        {
            const RefusedAllocation refused(1);
            add_tlb_entry(path.data(), -1, FSOP_STAT, kYes, cache_);
        }
        EXPECT_EQ(logged(kNoMemory), level == 0 ? 1 : 0);
    }
    EXPECT_EQ(cache_->vfs_tlb_end, 3);
    EXPECT_EQ(order(), (std::vector{0, 1, 2})) << "not moved";
    EXPECT_EQ(cache_->tlb_paths[1], nullptr);
    EXPECT_EQ(set_of(1), 0u);
    EXPECT_EQ(check("b"), KVPERMS_NOT_FOUND);
    EXPECT_EQ(check("a"), kYes);
    add("c");
    EXPECT_EQ(order(), (std::vector{3, 0, 1, 2}));
}

TEST_F(VerdictCacheEntries, FullCacheWithoutMemoryForgetsThePathItGaveUp) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    fill();
    std::string path = "one more";
    {
        const RefusedAllocation refused(1);
        add_tlb_entry(path.data(), -1, FSOP_STAT, kYes, cache_);
    }
    EXPECT_EQ(logged(kNoMemory), 1);
    EXPECT_EQ(cache_->vfs_tlb_end, kSlots);
    EXPECT_EQ(cache_->tlb_paths[0], nullptr);
    EXPECT_EQ(position("path0"), -1);
    EXPECT_EQ(position("path1"), kSlots - 2);
    add("one more", FSOP_STAT, kNo);
    EXPECT_STREQ(cache_->tlb_paths[0], "one more");
    EXPECT_EQ(check("one more"), kNo);
}

TEST_F(VerdictCacheEntries, AddingForNoOperationEndsTheProcess) {
    EXPECT_TRUE(run_child_void([&] { add("a", 0); }).asserted("op != 0"));
    add("a");
    EXPECT_TRUE(run_child_void([&] { add("a", 0, kYes, 0); }).asserted("op != 0"));
}

// Updating ----------------------------------------------------------------------------------------

TEST_F(VerdictCacheEntries, UpdatingGoesByTheSlotsOwnNumber) {
    add("a", FSOP_STAT, kYes);
    add("b", FSOP_STAT, kYes);  // position 0 holds slot 1 now
    update(0, FSOP_OPENDIR, kYes);
    EXPECT_EQ(set_of(0), bit(FSOP_STAT) | bit(FSOP_OPENDIR));
    EXPECT_EQ(value_of(0), bit(FSOP_STAT) | bit(FSOP_OPENDIR));
    EXPECT_EQ(set_of(1), bit(FSOP_STAT));
    EXPECT_EQ(order(), (std::vector{1, 0})) << "not moved";
}

TEST_F(VerdictCacheEntries, UpdatingTakesAnAllowanceBack) {
    add("a", FSOP_STAT, kYes);
    add("a", FSOP_OPENDIR, kYes, 0);
    for (const int value : {2, 9, 0}) {
        update(0, FSOP_STAT, kYes);
        EXPECT_EQ(check("a"), kYes);
        update(0, FSOP_STAT, value);
        EXPECT_EQ(check("a"), kNo) << value;
        EXPECT_EQ(check("a", FSOP_OPENDIR), kYes);
    }
    update(0, 40, kYes);
    EXPECT_EQ(cache_->tlb_perms[0].set[1], 1u << 8);
    EXPECT_EQ(cache_->tlb_perms[0].value[1], 1u << 8);
    update(0, 40, kNo);
    EXPECT_EQ(cache_->tlb_perms[0].set[1], 1u << 8);
    EXPECT_EQ(cache_->tlb_perms[0].value[1], 0u);
}

TEST_F(VerdictCacheEntries, UpdatingASlotOutOfRangeEndsTheProcess) {
    add("a");
    add("b");
    for (const int slot : {-1, 2, 1024})
        EXPECT_TRUE(run_child_void([&] {
                        update(slot, FSOP_STAT, kYes);
                    }).asserted("slot >= 0 && slot < tlb_cache->vfs_tlb_end"))
            << slot;
    EXPECT_EQ(run_child_void([&] { update(1, FSOP_STAT, kYes); }).exit_code, 0);
    EXPECT_TRUE(run_child_void([&] { update(0, 0, kYes); }).asserted("op != 0"));
}

// Deleting ----------------------------------------------------------------------------------------

TEST_F(VerdictCacheEntries, DeletingTheLastPositionFreesItsSlot) {
    for (const char* path : {"a", "b", "c"}) add(path);
    remove("a");
    EXPECT_EQ(order(), (std::vector{2, 1}));
    EXPECT_EQ(cache_->tlb_paths[0], nullptr);
    EXPECT_EQ(set_of(0) | value_of(0), 0u);
    EXPECT_EQ(cache_->tlb_index_table[2], 0);
    EXPECT_EQ(check("a"), KVPERMS_NOT_FOUND);
    add("d");
    EXPECT_STREQ(cache_->tlb_paths[0], "d");
    EXPECT_EQ(order(), (std::vector{0, 2, 1}));
}

TEST_F(VerdictCacheEntries, DeletingAnotherLeavesALiveSlotAmongTheFreeOnes) {
    for (const char* path : {"a", "b", "c", "d"}) add(path);
    remove("c");  // at position 1: the order was 3 2 1 0
    EXPECT_EQ(order(), (std::vector{3, 1, 0}));
    EXPECT_EQ(cache_->tlb_index_table[3], 1) << "the slot that followed the deleted one";
    EXPECT_EQ(cache_->tlb_paths[2], nullptr);
    EXPECT_EQ(set_of(2) | value_of(2), 0u);
    EXPECT_EQ(check("b"), kYes);
    EXPECT_TRUE(run_child_void([&] { add("e"); }).asserted("tlb_cache->tlb_paths[index] == NULL"));
    cache_->flush_tlb = 21;
    EXPECT_EQ(check("e"), KVPERMS_NOT_FOUND);
    add("e");
    EXPECT_EQ(check("e"), kYes) << "a flush puts it right";
}

TEST_F(VerdictCacheEntries, DeletingTheFirstPosition) {
    for (const char* path : {"a", "b", "c"}) add(path);
    remove("c");
    EXPECT_EQ(order(), (std::vector{1, 0}));
    EXPECT_EQ(cache_->tlb_index_table[2], 1);
}

TEST_F(VerdictCacheEntries, DeletingTheOnlyPath) {
    add("a");
    remove("a");
    expect_blank();
    add("b");
    EXPECT_EQ(order(), std::vector{0});
}

TEST_F(VerdictCacheEntries, DeletingFromAFullCacheMakesRoomForNoNewPath) {
    fill();
    remove("path5");
    EXPECT_EQ(cache_->vfs_tlb_end, kSlots - 1);
    EXPECT_TRUE(
        run_child_void([&] { add("one more"); }).asserted("tlb_cache->tlb_paths[index] == NULL"));
}

TEST_F(VerdictCacheEntries, DeletedPathsAreFreed) {
    EXPECT_LT(heap_growth(1000,
                          [&] {
                              add(std::string(2000, 'p'));
                              remove(std::string(2000, 'p'));
                          }),
              200000u)
        << "they take 2 MB";
}

TEST_F(VerdictCacheEntries, DeletingAnUnknownPathIsToldAndChangesNothing) {
    add("a");
    for (const int level : {1, 2}) {
        config.set_debug_level(level);
        clear_log();
        remove("b");
        EXPECT_EQ(logged("del_tlb_entry: did not find path b"), level == 2 ? 1 : 0);
    }
    EXPECT_EQ(order(), std::vector{0});
    EXPECT_EQ(check("a"), kYes);
}

}  // namespace
}  // namespace kvtest
