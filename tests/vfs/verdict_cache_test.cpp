// The verdict cache itself: how it begins and ends, how paths are looked up in it, the order of
// use, and what a check answers. What goes in and out is in verdict_cache_entries_test.cpp.
#include <climits>

#include "verdict_cache_fixture.h"

namespace kvtest {
namespace {

// Making and emptying -----------------------------------------------------------------------------

TEST_F(VerdictCache, MakingSetsTheArraysAndNotTheFlush) {
    std::memset(static_cast<void*>(cache_), 0xA5, sizeof *cache_);
    cache_->flush_tlb = 21;
    init_tlb(cache_);
    expect_blank();
    EXPECT_EQ(cache_->flush_tlb, 21);
}

TEST_F(VerdictCache, EmptyingFreesThePaths) {
    fill();
    cache_->flush_tlb = 21;
    destroy_tlb(cache_);
    expect_blank();
    EXPECT_EQ(cache_->flush_tlb, 21);
    EXPECT_LT(heap_growth(10,
                          [&] {
                              for (int i = 0; i < 100; ++i)
                                  add(std::string(2000, 'p') + std::to_string(i));
                              destroy_tlb(cache_);
                          }),
              200000u)
        << "a round takes 200 kB";
}

TEST_F(VerdictCache, EmptyingLooksAtEverySlotNotOnlyAtThoseInUse) {
    EXPECT_LT(heap_growth(10,
                          [&] {
                              for (int i = 0; i < 100; ++i)
                                  add(std::string(2000, 'p') + std::to_string(i));
                              cache_->vfs_tlb_end = 0;
                              destroy_tlb(cache_);
                          }),
              200000u);
}

// Looking up --------------------------------------------------------------------------------------

TEST_F(VerdictCache, EmptyCacheKnowsNoPath) {
    EXPECT_EQ(position("a"), -1);
    cache_->vfs_tlb_end = -3;
    EXPECT_EQ(position("a"), -1);
    EXPECT_EQ(check("a"), KVPERMS_NOT_FOUND);
    EXPECT_EQ(index, -1);
    cache_->vfs_tlb_end = 0;
}

TEST_F(VerdictCache, PathsAreFoundByTheirBytes) {
    add("Shared/a");
    add("");
    add("b");
    EXPECT_EQ(position("b"), 0);
    EXPECT_EQ(position(""), 1);
    EXPECT_EQ(position("Shared/a"), 2);
    for (const char* path : {"shared/a", "Shared/A", "Shared/", "Shared/a/", "B", "bb"})
        EXPECT_EQ(position(path), -1) << path;
}

TEST_F(VerdictCache, OnlyPositionsInUseAreLookedAt) {
    add("a");
    add("b");
    cache_->vfs_tlb_end = 1;
    EXPECT_EQ(position("b"), 0);
    EXPECT_EQ(position("a"), -1);
    cache_->vfs_tlb_end = 2;
}

TEST_F(VerdictCache, FirstOfEqualPathsIsFound) {
    add("a", FSOP_STAT, kYes);
    add("b");
    add("a", FSOP_STAT, kNo);
    EXPECT_EQ(position("a"), 0);
    EXPECT_EQ(check("a"), kNo);
}

TEST_F(VerdictCache, ComparisonEndsAfter4096Characters) {
    const std::string same(4096, 'x');
    add(same + "one");
    EXPECT_EQ(position(same + "two"), 0);
    EXPECT_EQ(position(same), 0);
    EXPECT_EQ(position(std::string(4095, 'x')), -1);
    EXPECT_EQ(position(std::string(4095, 'x') + "y"), -1);
    EXPECT_STREQ(cache_->tlb_paths[0], (same + "one").c_str()) << "kept whole";
}

// Moving to the front -----------------------------------------------------------------------------

TEST_F(VerdictCache, MovingToTheFrontShiftsThoseBefore) {
    for (const char* path : {"a", "b", "c", "d"}) add(path);
    ASSERT_EQ(order(), (std::vector{3, 2, 1, 0}));
    EXPECT_EQ(_update_tlb_hit(2, cache_), 0);
    EXPECT_EQ(order(), (std::vector{1, 3, 2, 0}));
    EXPECT_EQ(_update_tlb_hit(0, cache_), 0);
    EXPECT_EQ(order(), (std::vector{1, 3, 2, 0}));
    EXPECT_EQ(_update_tlb_hit(3, cache_), 0);
    EXPECT_EQ(order(), (std::vector{0, 1, 3, 2}));
    expect_free_from(4);
}

TEST_F(VerdictCache, MovingToTheFrontIsTraced) {
    add("a");
    config.set_debug_level(9);
    clear_log();
    _update_tlb_hit(0, cache_);
    EXPECT_TRUE(log_lines().empty());
    config.set_debug_level(10);
    _update_tlb_hit(0, cache_);
    EXPECT_EQ(logged("TLB: Updating slot 0"), 1);
}

// Checking ----------------------------------------------------------------------------------------

TEST_F(VerdictCache, VerdictsComeBackForTheOperationTheyWereGivenFor) {
    add("a", FSOP_STAT, kNo);
    add("b", FSOP_STAT, kYes);
    EXPECT_EQ(check("a", FSOP_STAT), kNo);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(check("b", FSOP_STAT), kYes);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(check("a", FSOP_OPENDIR), KVPERMS_NOT_SET);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(check("c", FSOP_STAT), KVPERMS_NOT_FOUND);
    EXPECT_EQ(index, -1);
}

TEST_F(VerdictCache, OnlyAVerdictCountsAsUse) {
    for (const char* path : {"a", "b", "c"}) add(path);
    EXPECT_EQ(check("a", FSOP_OPENDIR), KVPERMS_NOT_SET);
    EXPECT_EQ(index, 2);
    EXPECT_EQ(order(), (std::vector{2, 1, 0}));
    EXPECT_EQ(check("b"), kYes);
    EXPECT_EQ(order(), (std::vector{1, 2, 0}));
    EXPECT_EQ(check("nowhere"), KVPERMS_NOT_FOUND);
    EXPECT_EQ(order(), (std::vector{1, 2, 0}));
}

TEST_F(VerdictCache, EveryOperationHasABitOfItsOwn) {
    for (int op = 1; op < 64; ++op) {
        add("a", op, op % 3 == 0 ? kYes : kNo, position("a"));
        EXPECT_EQ(check("a", op), op % 3 == 0 ? kYes : kNo) << op;
        if (op < 63) {
            EXPECT_EQ(check("a", op + 1), KVPERMS_NOT_SET) << op;
        }
    }
    EXPECT_EQ(cache_->tlb_perms[0].set[0], 0xFFFFFFFEu);
    EXPECT_EQ(cache_->tlb_perms[0].set[1], 0xFFFFFFFFu) << "codes from 32 on";
    EXPECT_EQ(cache_->tlb_perms[0].value[0], 0x49249248u);
    EXPECT_EQ(cache_->tlb_perms[0].value[1], 0x92492492u);
}

TEST_F(VerdictCache, FlushEmptiesTheCacheAtTheNextCheck) {
    add("a");
    add("b");
    check("a");
    cache_->flush_tlb = 21;
    EXPECT_EQ(position("a"), 0) << "a look-up alone does not";
    EXPECT_EQ(check("a"), KVPERMS_NOT_FOUND);
    EXPECT_EQ(index, -1);
    expect_blank();
    EXPECT_EQ(cache_->flush_tlb, 9);
    add("a");
    EXPECT_EQ(check("a"), kYes) << "once";
}

TEST_F(VerdictCache, OnlyOneNumberAsksForAFlush) {
    add("a");
    for (const int number : {0, 1, 8, 9, 10, 20, 22, -21, INT_MAX}) {
        cache_->flush_tlb = number;
        EXPECT_EQ(check("a"), kYes) << number;
        EXPECT_EQ(cache_->flush_tlb, number);
    }
}

TEST_F(VerdictCache, FlushFreesThePathsAndIsTraced) {
    EXPECT_LT(heap_growth(10,
                          [&] {
                              for (int i = 0; i < 100; ++i)
                                  add(std::string(2000, 'p') + std::to_string(i));
                              cache_->flush_tlb = 21;
                              check("a");
                          }),
              200000u)
        << "a round takes 200 kB";
    for (const int level : {9, 10}) {
        config.set_debug_level(level);
        clear_log();
        cache_->flush_tlb = 21;
        check("a");
        EXPECT_EQ(logged("Flushing and rebuilding tlb "), level == 10 ? 1 : 0);
    }
}

}  // namespace
}  // namespace kvtest
