// Every token in every state it does not belong to, pushed straight onto the parser's stack: most
// end the process, with the text that tells why; an unknown key cancels.
#include <gtest/gtest.h>

#include "parser_fixture.h"

namespace kvtest {
namespace {

// Keys --------------------------------------------------------------------------------------------

struct KeyRule {
    const char* key;
    State pushed;
    State allowed;
};
constexpr KeyRule kKeys[] = {
    {"CHILDREN", PERMDATA_STATE_CHILDREN, PERMDATA_STATE_STCHILDMAP},
    {"NUMCHILDREN", PERMDATA_STATE_NUMCHILDREN, PERMDATA_STATE_STNUMCHILDRENMAP},
    {"NUMUSERS", PERMDATA_STATE_NUMUSERS, PERMDATA_STATE_STNUMUSERMAP},
    {"NUMGROUPS", PERMDATA_STATE_NUMGROUPS, PERMDATA_STATE_STNUMGROUPMAP},
    {"DIR", PERMDATA_STATE_NAME, PERMDATA_STATE_STCHILDMAP},
    {"USERS", PERMDATA_STATE_USERS, PERMDATA_STATE_STUSERMAP},
    {"ACL", PERMDATA_STATE_ACL, PERMDATA_STATE_STCHILDMAP},
    {"GROUPS", PERMDATA_STATE_GROUPS, PERMDATA_STATE_STGROUPMAP},
};

TEST_F(Parser, KeyPushesItsStateAndCopiesTheTop) {
    int data = 0;
    for (const KeyRule& rule : kKeys) {
        push(rule.allowed, STELEM_TYPE_LISTELEM, &data, 72);
        EXPECT_EQ(key(rule.key), 1) << rule.key;
        EXPECT_EQ(stack(), (std::vector<State>{rule.allowed, rule.pushed})) << rule.key;
        EXPECT_EQ(top().stetype, STELEM_TYPE_LISTELEM);
        EXPECT_EQ(top().jsonoffset, 72u);
        EXPECT_EQ(top().data, &data);
        drop_all();
    }
}

TEST_F(Parser, KeyInTheWrongStateEndsTheProcess) {
    for (const KeyRule& rule : kKeys) {
        const std::string expected = std::string("curst == ") + kStateNames[rule.allowed];
        for (const State state : all_states()) {
            if (state == rule.allowed) continue;
            const ChildResult result = with_stack({state}, [&] { return key(rule.key); });
            EXPECT_TRUE(result.asserted(expected))
                << rule.key << " in " << kStateNames[state] << ": " << result.err;
        }
    }
}

TEST_F(Parser, UnknownKeyCancelsTheParse) {
    for (const State state : all_states()) {
        if (is_one_of(state, {USER_ACL, GROUP_ACL})) continue;
        clear_log();
        push(state);
        EXPECT_EQ(key("FOO"), 0) << kStateNames[state];
        EXPECT_EQ(logged("Invalid state FOO state 27 curst " + std::to_string(state)), 1);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_EQ(stack(), std::vector<State>{state});
        drop_all();
    }
}

TEST_F(Parser, KeysAreComparedExactly) {
    for (const char* name : {"dir", "DI", "DIRS", "", "1001"}) {
        clear_log();
        push(MAP);
        EXPECT_EQ(key(name), 0) << name;
        EXPECT_EQ(logged(std::string("Invalid state ") + name + " state 27 curst 1"), 1) << name;
        drop_all();
    }
}

TEST_F(Parser, NegativeLevelSilencesTheUnknownKey) {
    config_.set_debug_level(-1);
    push(MAP);
    EXPECT_EQ(key("FOO"), 0);
    EXPECT_TRUE(log_lines().empty());
    drop_all();
}

TEST_F(Parser, UnknownKeyCancelsAWholeDocument) {
    EXPECT_EQ(parse(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "OWNER": 5}])"),
              yajl_status_client_canceled);
    EXPECT_EQ(name_of(0), "/") << "what was built stays";
    drop_all();
}

// Strings and numbers -----------------------------------------------------------------------------

TEST_F(Parser, StringOutsideANameEndsTheProcess) {
    for (const State state : all_states()) {
        if (state == PERMDATA_STATE_NAME) continue;
        const ChildResult result = with_stack({state}, [] { return text("x"); });
        EXPECT_TRUE(result.aborted()) << kStateNames[state];
        EXPECT_EQ(result.logged("Invalid state " + std::to_string(state)), 1);
    }
}

TEST_F(Parser, NumberInTheWrongStateEndsTheProcess) {
    for (const State state : all_states()) {
        if (is_one_of(state, {COUNT, PERMDATA_STATE_NUMUSERS, PERMDATA_STATE_NUMGROUPS,
                              PERMDATA_STATE_USERID, PERMDATA_STATE_GROUPID}))
            continue;
        config_.set_debug_level(7);
        const ChildResult traced = with_stack({state}, [] { return number("1"); });
        EXPECT_TRUE(traced.aborted()) << kStateNames[state];
        EXPECT_EQ(traced.logged("case default"), 1) << kStateNames[state];
        config_.set_debug_level(6);
        const ChildResult quiet = with_stack({state}, [] { return number("1"); });
        EXPECT_TRUE(quiet.aborted()) << kStateNames[state];
        EXPECT_EQ(quiet.logged_part("case default"), 0);
    }
}

TEST_F(Parser, CountsOfUsersAndGroupsAreIgnored) {
    for (const State state : {PERMDATA_STATE_NUMUSERS, PERMDATA_STATE_NUMGROUPS}) {
        const Bytes before = image_;
        push(ACL_ARRAY);
        push(state);
        EXPECT_EQ(number("4000000000"), 1);
        EXPECT_EQ(stack(), std::vector<State>{ACL_ARRAY});
        EXPECT_EQ(image_, before);
        drop_all();
    }
}

TEST_F(Parser, ChildCountNeedsAnElement) {
    for (const e_stelem_type type : {STELEM_TYPE_INVALID, STELEM_TYPE_ACLELEM}) {
        const ChildResult result = run_child([&] {
            open_array();
            push(COUNT, type);
            return number("1");
        });
        EXPECT_TRUE(result.aborted());
    }
    const ChildResult unsigned_element = run_child([&] {
        push(COUNT, STELEM_TYPE_FSELEM);  // no element carries its signature yet
        return number("0");
    });
    EXPECT_TRUE(unsigned_element.aborted());
    const ChildResult no_header = run_child([&] {
        open_array();
        push(COUNT, STELEM_TYPE_FSELEM);
        image_[172] ^= 1;
        return number("1");
    });
    EXPECT_TRUE(no_header.aborted());
}

TEST_F(Parser, ChildCountIsTruncatedTo32Bits) {
    open_array();
    push(COUNT, STELEM_TYPE_FSELEM);
    EXPECT_EQ(number("4294967298"), 1);
    EXPECT_EQ(list_word(0, 1), 2u);
    EXPECT_EQ(header().next_free_list, 20u);
    push(COUNT, STELEM_TYPE_FSELEM);
    EXPECT_EQ(number("4294967296"), 1);
    EXPECT_EQ(element(0).flags, FSELEM_FLAG_NOCHILDREN);
    EXPECT_EQ(header().next_free_list, 20u) << "no list for zero children";
    drop_all();
}

TEST_F(Parser, NameNeedsAnElement) {
    const ChildResult result = run_child([&] {
        open_array();
        push(PERMDATA_STATE_NAME);
        return text("name");
    });
    EXPECT_TRUE(result.aborted());
}

TEST_F(Parser, EmptyNameEndsTheProcess) {
    const ChildResult result = parse_in_child(R"([{"NUMCHILDREN": 1}, {"DIR": ""}])");
    EXPECT_TRUE(result.aborted());
    EXPECT_EQ(result.logged_part("Invalid name parameters"), 1);
}

// Maps and arrays ---------------------------------------------------------------------------------

TEST_F(Parser, MapInAnUnlistedStateIsAcceptedAndPushesNothing) {
    for (const State state : all_states()) {
        if (is_one_of(state, {ARRAY, END_NUM_CHILD, ACL_ARRAY, END_NUM_USER, END_NUM_GROUP,
                              PERMDATA_STATE_USERS, END_USER, PERMDATA_STATE_GROUPS}))
            continue;
        push(state);
        EXPECT_EQ(open_map(), 1) << kStateNames[state];
        EXPECT_EQ(stack(), std::vector<State>{state});
        drop_all();
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Parser, MapEndingInTheWrongStateEndsTheProcess) {
    const std::initializer_list<State> allowed = {MAP,       USER_MAP, GROUP_MAP, NUM_USER,
                                                  NUM_GROUP, USER_ACL, GROUP_ACL, NUM_CHILD};
    for (const State state : all_states()) {
        if (is_one_of(state, allowed)) continue;
        const ChildResult result = with_stack({state}, close_map);
        EXPECT_TRUE(result.aborted()) << kStateNames[state];
        for (const State name : allowed)
            EXPECT_NE(result.err.find(kStateNames[name]), std::string::npos) << result.err;
    }
}

TEST_F(Parser, ChildCountMapNeedsAnElement) {
    for (const e_stelem_type type : {STELEM_TYPE_INVALID, STELEM_TYPE_ACLELEM}) {
        const ChildResult result = run_child([&] {
            push(NUM_CHILD, type);
            return close_map();
        });
        EXPECT_TRUE(result.asserted("stetype == STELEM_TYPE_FSELEM")) << result.err;
    }
}

TEST_F(Parser, ElementMapMustLieInAChildArray) {
    const ChildResult result = with_stack({ARRAY, MAP}, close_map);
    EXPECT_TRUE(result.aborted());
    push(END_NUM_CHILD);
    push(MAP);
    EXPECT_EQ(close_map(), 1);
    EXPECT_EQ(stack(), std::vector<State>{END_NUM_CHILD});
    drop_all();
}

TEST_F(Parser, IdMapsMustLieInTheirOwners) {
    const std::vector<State> stacks[] = {{PERMDATA_STATE_GROUPS, USER_ACL},
                                         {PERMDATA_STATE_USERS, GROUP_ACL},
                                         {USER_MAP, GROUP_MAP}};
    for (const std::vector<State>& states : stacks) {
        const ChildResult result = with_stack(states, close_map);
        EXPECT_TRUE(result.aborted()) << kStateNames[states[1]];
        EXPECT_EQ(result.logged("pop error 4 "), 1) << kStateNames[states[1]];
    }
}

TEST_F(Parser, ArrayInAnUnexpectedStateEndsTheProcess) {
    for (const State state : all_states()) {
        if (is_one_of(state, {C, A})) continue;
        const ChildResult result = with_stack({state}, open_array);
        EXPECT_TRUE(result.aborted()) << kStateNames[state];
        EXPECT_EQ(result.logged("Invalid state " + std::to_string(state)), 1);
    }
}

TEST_F(Parser, ArrayEndingInTheWrongStateEndsTheProcess) {
    for (const State state : all_states()) {
        if (is_one_of(state, {USER_MAP, END_NUM_CHILD})) continue;
        const ChildResult result = with_stack({ARRAY, state}, close_array);
        EXPECT_TRUE(result.aborted()) << kStateNames[state];
        EXPECT_EQ(result.logged("Invalid state " + std::to_string(state)), 1);
    }
}

TEST_F(Parser, ChildArrayMustCloseWhatItOpened) {
    config_.set_debug_level(8);
    const ChildResult inner = with_stack({PERMDATA_STATE_NUMUSERS, END_NUM_CHILD}, close_array);
    EXPECT_TRUE(inner.aborted());
    EXPECT_EQ(inner.logged("state mismatch asked 0 given 19"), 1);
    EXPECT_EQ(inner.logged("State mismatch "), 1);
    const ChildResult outer = with_stack({MAP, A, ARRAY, END_NUM_CHILD}, close_array);
    EXPECT_TRUE(outer.aborted());
    EXPECT_EQ(outer.logged("state mismatch asked 17 given 23"), 1);
    EXPECT_EQ(outer.logged("State mismatch "), 1);
    EXPECT_TRUE(with_stack({ARRAY, C, ARRAY, END_NUM_CHILD}, close_array).aborted());

    config_.set_debug_level(0);
    const ChildResult quiet = with_stack({PERMDATA_STATE_NUMUSERS, END_NUM_CHILD}, close_array);
    EXPECT_EQ(quiet.logged_part("state mismatch asked"), 0);
    EXPECT_EQ(quiet.logged("State mismatch "), 1);

    for (const State state : {MAP, C, ARRAY, END_NUM_CHILD}) push(state);
    EXPECT_EQ(close_array(), 1);
    EXPECT_EQ(stack(), std::vector<State>{MAP});
    drop_all();
    for (const State state : {ARRAY, END_NUM_CHILD}) push(state);
    EXPECT_EQ(close_array(), 1);
    EXPECT_TRUE(stack().empty());
}

TEST_F(Parser, TokenBeforeTheOutermostArrayEndsTheProcess) {
    EXPECT_TRUE(run_child(open_map).asserted("elem != NULL"));
    EXPECT_TRUE(run_child([] { return key("DIR"); }).aborted());
    EXPECT_TRUE(run_child([] { return text("x"); }).aborted());
    EXPECT_TRUE(run_child([] { return number("1"); }).aborted());
    EXPECT_TRUE(run_child(close_map).aborted());
    EXPECT_TRUE(run_child(close_array).aborted());
}

}  // namespace
}  // namespace kvtest
