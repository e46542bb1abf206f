// The parser's stack by itself: pushing, peeking and popping, and the states' numbers.
#include <gtest/gtest.h>

#include "parser_fixture.h"

namespace kvtest {
namespace {

// The stack by itself -----------------------------------------------------------------------------

class ParseStack : public Parser {};

TEST_F(ParseStack, PushKeepsEveryValue) {
    int data = 0;
    EXPECT_EQ(push_stackelem_wstatedata(summary_.get(), MAP, 48, &data, STELEM_TYPE_NAMEELEM),
              SHM_MEMBE_OK);
    EXPECT_EQ(push_stackelem_wstatedata(summary_.get(), C, 0, nullptr, STELEM_TYPE_INVALID),
              SHM_MEMBE_OK);
    EXPECT_EQ(stack(), (std::vector<State>{MAP, C}));
    EXPECT_EQ(pop_if_state(C), SHM_MEMBE_OK);
    EXPECT_EQ(top().state, MAP);
    EXPECT_EQ(top().jsonoffset, 48u);
    EXPECT_EQ(top().data, &data);
    EXPECT_EQ(top().stetype, STELEM_TYPE_NAMEELEM);
    EXPECT_EQ(pop_if_state(MAP), SHM_MEMBE_OK);
    EXPECT_TRUE(STACK_EMPTY(&summary_->sth));
    EXPECT_EQ(summary_->sth.totalelems, 0u);
}

TEST_F(ParseStack, PushWorksOnTheGivenSummary) {
    Summary other = empty_summary();
    EXPECT_EQ(push_stackelem_wstatedata(other.get(), MAP, 0, nullptr, STELEM_TYPE_FSELEM),
              SHM_MEMBE_OK);
    EXPECT_EQ(other->sth.totalelems, 1u);
    EXPECT_EQ(get_cur_state(&other->sth), MAP);
    EXPECT_TRUE(stack().empty());
}

TEST_F(ParseStack, PushNeedsASummary) {
    const auto push_nowhere = [] {
        push_stackelem_wstatedata(nullptr, MAP, 0, nullptr, STELEM_TYPE_FSELEM);
    };
    const ChildResult result = run_child_void(push_nowhere);
    EXPECT_TRUE(result.aborted());
    EXPECT_EQ(result.logged("Null summary "), 1);
    config_.set_debug_level(-1);
    const ChildResult quiet = run_child_void(push_nowhere);
    EXPECT_TRUE(quiet.aborted());
    EXPECT_TRUE(quiet.log.empty());
}

TEST_F(ParseStack, PushWithoutMemoryEndsTheProcess) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    const ChildResult result = run_child_void([&] {
        use_up_kept_elements();
        const RefusedAllocation refused(1);
        push_stackelem_wstatedata(summary_.get(), MAP, 0, nullptr, STELEM_TYPE_FSELEM);
    });
    EXPECT_TRUE(result.aborted());
}

TEST_F(ParseStack, PeekTellsTheTopAndLeavesIt) {
    int data = 0;
    push(ARRAY);
    push(MAP, STELEM_TYPE_ACLELEM, &data, 72);
    for (int round = 0; round < 2; ++round) {
        std::uint32_t offset = 0;
        void* found = nullptr;
        e_stelem_type type = STELEM_TYPE_FSELEM;
        EXPECT_EQ(get_cur_statewdata(&summary_->sth, &offset, &found, &type), MAP);
        EXPECT_EQ(offset, 72u);
        EXPECT_EQ(found, &data);
        EXPECT_EQ(type, STELEM_TYPE_ACLELEM);
        EXPECT_EQ(get_cur_state(&summary_->sth), MAP);
        EXPECT_EQ(stack(), (std::vector<State>{ARRAY, MAP}));
    }
    drop_all();
}

TEST_F(ParseStack, PeekWantsItsOutputsZero) {
    push(MAP);
    const auto peek = [&](std::uint32_t offset, void* data, e_stelem_type type) {
        return run_child([&] {
            std::uint32_t in_offset = offset;
            void* in_data = data;
            e_stelem_type in_type = type;
            get_cur_statewdata(&summary_->sth, &in_offset, &in_data, &in_type);
            return 0;
        });
    };
    int data = 0;
    EXPECT_TRUE(peek(0, nullptr, STELEM_TYPE_FSELEM).exited);
    EXPECT_TRUE(peek(1, nullptr, STELEM_TYPE_FSELEM).aborted());
    EXPECT_TRUE(peek(0, &data, STELEM_TYPE_FSELEM).aborted());
    EXPECT_TRUE(peek(0, nullptr, STELEM_TYPE_INVALID).aborted());
    drop_all();
}

TEST_F(ParseStack, EmptyStackHasNoTop) {
    EXPECT_TRUE(run_child_void([&] { get_cur_state(&summary_->sth); }).asserted("elem != NULL"));
    EXPECT_TRUE(run_child_void([&] {
                    std::uint32_t offset = 0;
                    void* data = nullptr;
                    e_stelem_type type = STELEM_TYPE_FSELEM;
                    get_cur_statewdata(&summary_->sth, &offset, &data, &type);
                }).asserted("elem != NULL"));
    EXPECT_TRUE(run_child_void([] { pop_if_state(MAP); }).aborted());
}

TEST_F(ParseStack, CountWithoutElementsEndsTheProcess) {
    const auto corrupt = [&](const std::function<void()>& body) {
        return run_child_void([&] {
            summary_->sth.totalelems = 1;
            body();
        });
    };
    EXPECT_TRUE(corrupt([&] {
                    std::uint32_t offset = 0;
                    void* data = nullptr;
                    e_stelem_type type = STELEM_TYPE_FSELEM;
                    get_cur_statewdata(&summary_->sth, &offset, &data, &type);
                }).asserted("head->totalelems == 0"));
    EXPECT_TRUE(corrupt([&] { get_cur_state(&summary_->sth); }).aborted());
    EXPECT_TRUE(corrupt([] { pop_if_state(MAP); }).aborted());
}

TEST_F(ParseStack, PopTakesOnlyTheStateAskedFor) {
    push(ARRAY);
    push(MAP, STELEM_TYPE_FSELEM, nullptr, 24);
    for (const State state : all_states()) {
        if (state == MAP) continue;
        EXPECT_EQ(pop_if_state(state), SHM_MEMBE_ERR_STATE_MISMATCH);
    }
    EXPECT_EQ(stack(), (std::vector<State>{ARRAY, MAP}));
    EXPECT_EQ(top().jsonoffset, 24u);
    EXPECT_EQ(pop_if_state(MAP), SHM_MEMBE_OK);
    EXPECT_EQ(stack(), std::vector<State>{ARRAY});
    drop_all();
}

TEST_F(ParseStack, MismatchIsTracedFromLevel8) {
    push(MAP);
    config_.set_debug_level(7);
    EXPECT_EQ(pop_if_state(C), SHM_MEMBE_ERR_STATE_MISMATCH);
    EXPECT_TRUE(log_lines().empty());
    config_.set_debug_level(8);
    EXPECT_EQ(pop_if_state(C), SHM_MEMBE_ERR_STATE_MISMATCH);
    EXPECT_EQ(logged("state mismatch asked 17 given 1"), 1);
    drop_all();
}

TEST_F(ParseStack, StatesHaveTheirNumbers) {
    EXPECT_EQ(PERMDATA_STATE_STCHILDARRAY, 0);
    EXPECT_EQ(PERMDATA_STATE_STGROUPACLMAP, 13);
    EXPECT_EQ(PERMDATA_STATE_ENDNUMCHILDRENMAP, 16);
    EXPECT_EQ(PERMDATA_STATE_CHILDREN, 17);
    EXPECT_EQ(PERMDATA_STATE_NUMCHILDREN, 18);
    EXPECT_EQ(PERMDATA_STATE_NAME, 21);
    EXPECT_EQ(PERMDATA_STATE_ACL, 23);
    EXPECT_EQ(PERMDATA_STATE_USERID, 24);
    EXPECT_EQ(PERMDATA_STATE_GROUPS, 25);
    EXPECT_EQ(PERMDATA_STATE_GROUPID, 26);
    EXPECT_EQ(PERMDATA_STATE_INVAL, 27);
    EXPECT_EQ(SHMMAPSZ_STATE_MAPNAME, 2);
    EXPECT_EQ(SHMMAPSZ_STATE_INVAL, 9);
}

}  // namespace
}  // namespace kvtest
