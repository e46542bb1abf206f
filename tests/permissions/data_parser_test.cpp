// The data file's parser, token by token: the stack that every transition leaves, the records that
// appear with it, and memory that runs out on the way.
#include <gtest/gtest.h>

#include "parser_fixture.h"

namespace kvtest {
namespace {

// Transitions -------------------------------------------------------------------------------------

struct Step {
    const char* token;
    std::vector<State> stack;  // afterwards, bottom first
    e_stelem_type type;        // of the top, and the element it belongs to
    std::uint32_t offset;
    bool has_acl;
};

// One element's ACL array, from its key to its end, as stacks above the element's own map.
void expect_acl_steps(std::vector<Step>& steps, std::uint32_t at) {
    const auto add = [&](const char* token, std::vector<State> more) {
        steps.push_back({token, std::move(more), STELEM_TYPE_FSELEM, at, false});
    };
    const auto add_with_acl = [&](const char* token, std::vector<State> more) {
        more.insert(more.begin(), {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP, END_NUM_GROUP});
        steps.push_back({token, std::move(more), STELEM_TYPE_ACLELEM, 0, true});
    };
    add("k:ACL", {A});
    add("[", {A, ACL_ARRAY});
    add("{", {A, ACL_ARRAY, NUM_USER});
    add("k:NUMUSERS", {A, ACL_ARRAY, NUM_USER, PERMDATA_STATE_NUMUSERS});
    add("n:77", {A, ACL_ARRAY, NUM_USER});
    add("}", {A, ACL_ARRAY, NUM_USER, END_NUM_USER});
    add("{", {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP});
    add("k:NUMGROUPS", {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP, PERMDATA_STATE_NUMGROUPS});
    add("n:88", {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP});
    add("}", {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP, END_NUM_GROUP});
    add_with_acl("{", {USER_MAP});
    add_with_acl("k:USERS", {USER_MAP, PERMDATA_STATE_USERS});
    add_with_acl("{", {USER_MAP, PERMDATA_STATE_USERS, USER_ACL});
    add_with_acl("k:1001", {USER_MAP, PERMDATA_STATE_USERS, USER_ACL, PERMDATA_STATE_USERID});
    add_with_acl("n:7", {USER_MAP, PERMDATA_STATE_USERS, USER_ACL});
    add_with_acl("}", {USER_MAP});
    add_with_acl("}", {USER_MAP, END_USER});
    add_with_acl("{", {USER_MAP, END_USER, GROUP_MAP});
    add_with_acl("k:GROUPS", {USER_MAP, END_USER, GROUP_MAP, PERMDATA_STATE_GROUPS});
    add_with_acl("{", {USER_MAP, END_USER, GROUP_MAP, PERMDATA_STATE_GROUPS, GROUP_ACL});
    add_with_acl("k:1000", {USER_MAP, END_USER, GROUP_MAP, PERMDATA_STATE_GROUPS, GROUP_ACL,
                            PERMDATA_STATE_GROUPID});
    add_with_acl("n:1", {USER_MAP, END_USER, GROUP_MAP, PERMDATA_STATE_GROUPS, GROUP_ACL});
    add_with_acl("}", {USER_MAP, END_USER, GROUP_MAP});
    add_with_acl("}", {USER_MAP});
    add("]", {});
}

// A document with one child, and the whole stack after each of its tokens.
std::vector<Step> document_steps() {
    std::vector<Step> steps = {
        {"[", {ARRAY}, STELEM_TYPE_FSELEM, 0, false},
        {"{", {ARRAY, NUM_CHILD}, STELEM_TYPE_FSELEM, 0, false},
        {"k:NUMCHILDREN", {ARRAY, NUM_CHILD, COUNT}, STELEM_TYPE_FSELEM, 0, false},
        {"n:1", {ARRAY, NUM_CHILD}, STELEM_TYPE_FSELEM, 0, false},
        {"}", {ARRAY, END_NUM_CHILD}, STELEM_TYPE_FSELEM, 0, false},
        {"{", {ARRAY, END_NUM_CHILD, MAP}, STELEM_TYPE_FSELEM, 0, false},
    };
    const auto append = [&](const std::vector<State>& below, const std::vector<Step>& more) {
        for (Step step : more) {
            step.stack.insert(step.stack.begin(), below.begin(), below.end());
            steps.push_back(step);
        }
    };
    const auto of_element = [](const char* name, const char* count, std::uint32_t at) {
        std::vector<Step> more = {{"k:DIR", {PERMDATA_STATE_NAME}, STELEM_TYPE_FSELEM, at, false},
                                  {name, {}, STELEM_TYPE_FSELEM, at, false}};
        expect_acl_steps(more, at);
        more.push_back({"k:CHILDREN", {C}, STELEM_TYPE_FSELEM, at, false});
        more.push_back({"[", {C, ARRAY}, STELEM_TYPE_FSELEM, at, false});
        more.push_back({"{", {C, ARRAY, NUM_CHILD}, STELEM_TYPE_FSELEM, at, false});
        more.push_back(
            {"k:NUMCHILDREN", {C, ARRAY, NUM_CHILD, COUNT}, STELEM_TYPE_FSELEM, at, false});
        more.push_back({count, {C, ARRAY, NUM_CHILD}, STELEM_TYPE_FSELEM, at, false});
        more.push_back({"}", {C, ARRAY, END_NUM_CHILD}, STELEM_TYPE_FSELEM, at, false});
        return more;
    };
    const std::vector<State> root = {ARRAY, END_NUM_CHILD, MAP};
    append(root, of_element("s:/", "n:1", 0));
    append(root, {{"{", {C, ARRAY, END_NUM_CHILD, MAP}, STELEM_TYPE_FSELEM, 24, false}});
    append({ARRAY, END_NUM_CHILD, MAP, C, ARRAY, END_NUM_CHILD, MAP},
           of_element("s:Shared", "n:0", 24));
    append(root, {{"]", {C, ARRAY, END_NUM_CHILD, MAP}, STELEM_TYPE_FSELEM, 24, false},
                  {"}", {C, ARRAY, END_NUM_CHILD}, STELEM_TYPE_FSELEM, 0, false},
                  {"]", {}, STELEM_TYPE_FSELEM, 0, false}});
    append({}, {{"}", {ARRAY, END_NUM_CHILD}, STELEM_TYPE_FSELEM, 0, false},
                {"]", {}, STELEM_TYPE_INVALID, 0, false}});
    return steps;
}

TEST_F(Parser, StackFollowsTheDocument) {
    const CapturedStream out(STDOUT_FILENO);
    int position = 0;
    for (const Step& step : document_steps()) {
        SCOPED_TRACE(std::to_string(position++) + ": " + step.token);
        ASSERT_EQ(play(step.token), 1);
        ASSERT_EQ(stack(), step.stack);
        if (step.stack.empty()) continue;
        EXPECT_EQ(top().stetype, step.type);
        EXPECT_EQ(top().jsonoffset, step.offset);
        EXPECT_EQ(top().data != nullptr, step.has_acl);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Parser, RecordsAreWrittenAsTheirTokensArrive) {
    const CapturedStream out(STDOUT_FILENO);
    const auto play_all = [](std::initializer_list<const char*> tokens) {
        for (const char* token : tokens) ASSERT_EQ(play(token), 1) << token;
    };
    play_all({"["});
    EXPECT_EQ(element(0).signature, FSELEMSIG);
    EXPECT_EQ(element(0).parent_offset, FSELEM_ROOT_OFFSET);
    EXPECT_EQ(element(0).flags, 0u);
    EXPECT_EQ(header().next_free_fselem, 24u);
    play_all({"{", "k:NUMCHILDREN", "n:1"});
    EXPECT_EQ(header().next_free_list, 16u);
    play_all({"}", "{"});
    EXPECT_EQ(element(0).parent_offset, FSELEM_ROOT_OFFSET2);
    EXPECT_EQ(element(0).flags, FSELEM_FLAG_ROOT);
    play_all({"k:DIR", "s:/"});
    EXPECT_EQ(header().next_free_nameelem, 14u);
    EXPECT_EQ(name_of(0), "/");
    play_all({"k:ACL", "[", "{",        "k:NUMUSERS", "n:0", "}",   "{",   "k:NUMGROUPS",
              "n:0",   "}", "{",        "k:USERS",    "{",   "k:5", "n:1", "}",
              "}",     "{", "k:GROUPS", "{",          "}",   "}"});
    EXPECT_EQ(header().next_free_acl, 0u) << "an ACL is written when its array ends";
    play_all({"]"});
    EXPECT_EQ(header().next_free_acl, 20u);
    play_all({"k:CHILDREN", "[", "{", "k:NUMCHILDREN", "n:2"});
    EXPECT_EQ(element(0).clist_offset, 16u) << "the root's own list replaces the first";
    EXPECT_EQ(header().next_free_list, 36u);
    play_all({"}", "{"});
    EXPECT_EQ(header().next_free_fselem, 48u);
    EXPECT_EQ(element(24).parent_offset, 0u);
    EXPECT_EQ(list_word(16, 1), 2u);
    EXPECT_EQ(list_word(16, 2), 1u);
    EXPECT_EQ(list_word(16, 3), 24u);
    drop_all();
}

TEST_F(Parser, MemoryRunningOutCancelsTheParse) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    const CapturedStream out(STDOUT_FILENO);
    int position = 0;
    for (const Step& step : document_steps()) {
        const std::string token = step.token;
        const std::size_t before = stack().size();
        SCOPED_TRACE(std::to_string(position++) + ": " + token);
        // Where an ACL or an ACE is allocated first, that one's refusal is another matter.
        const bool pushes = step.stack.size() > before &&
                            !is_one_of(step.stack.back(),
                                       {USER_MAP, PERMDATA_STATE_USERID, PERMDATA_STATE_GROUPID});
        if (pushes) {
            const ChildResult result = run_child([&] {
                use_up_kept_elements();
                if (token[0] == 'k') {
                    const RefusedAllocation refused(2);  // the first is the test's copy of the key
                    return play(token);
                }
                const RefusedAllocation refused(1);
                return play(token);
            });
            EXPECT_EQ(result.exit_code, 0) << "signal " << result.signal << result.err;
            EXPECT_EQ(result.logged("No memory Cannot allocate memory"), 1);
        }
        ASSERT_EQ(play(token), 1);
    }
}

}  // namespace
}  // namespace kvtest
