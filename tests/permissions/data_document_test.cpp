// Whole documents through the JSON parser: the records that a tree turns into, how an ACL is
// committed, what is trusted, and which documents end the process.
#include <gtest/gtest.h>

#include <algorithm>

#include "parser_fixture.h"

namespace kvtest {
namespace {

// Committing an ACL -------------------------------------------------------------------------------

class AclCommit : public Parser {
protected:
    // The stack as an ACL's array ends, with one level replaced.
    void push_open_acl(State replaced, State by, void* data) {
        for (const State state :
             {MAP, A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP, END_NUM_GROUP})
            push(state == replaced ? by : state, STELEM_TYPE_FSELEM);
        push(USER_MAP, STELEM_TYPE_ACLELEM, data);
    }
    static kavrin_acl_t* new_acl() {
        kavrin_acl_t* acl = nullptr;
        EXPECT_EQ(create_empty_acl(&acl), SHM_MEMBE_OK);
        return acl;
    }
};

TEST_F(AclCommit, NeedsAnAcl) {
    const ChildResult result = run_child([&] {
        open_array();
        push_open_acl(PERMDATA_STATE_INVAL, PERMDATA_STATE_INVAL, nullptr);
        return close_array();
    });
    EXPECT_TRUE(result.asserted("eacl != NULL")) << result.err;
}

TEST_F(AclCommit, NeedsAnImage) {
    const ChildResult result = run_child([&] {
        open_array();
        push_open_acl(PERMDATA_STATE_INVAL, PERMDATA_STATE_INVAL, new_acl());
        summary_->membuf = nullptr;
        return close_array();
    });
    EXPECT_TRUE(result.asserted("beheader != NULL")) << result.err;
}

TEST_F(AclCommit, NeedsASignedElement) {
    const ChildResult result = run_child([&] {
        open_array();
        push_open_acl(PERMDATA_STATE_INVAL, PERMDATA_STATE_INVAL, new_acl());
        element(0).signature ^= 1;
        return close_array();
    });
    EXPECT_TRUE(result.aborted());
}

TEST_F(AclCommit, EveryLevelBelowMustBeItsOwn) {
    config_.set_debug_level(8);
    for (const State replaced : {A, ACL_ARRAY, NUM_USER, END_NUM_USER, NUM_GROUP, END_NUM_GROUP}) {
        const ChildResult result = run_child([&] {
            open_array();
            push_open_acl(replaced, PERMDATA_STATE_GROUPID, new_acl());
            return close_array();
        });
        EXPECT_TRUE(result.aborted()) << kStateNames[replaced];
        EXPECT_EQ(result.logged("state mismatch asked " + std::to_string(replaced) + " given 26"),
                  1)
            << kStateNames[replaced];
        EXPECT_EQ(result.logged("State mismatch "), 1) << kStateNames[replaced];
    }
    const ChildResult outside = run_child([&] {
        open_array();
        push_open_acl(MAP, PERMDATA_STATE_GROUPID, new_acl());
        return close_array();
    });
    EXPECT_TRUE(outside.aborted());
}

TEST_F(AclCommit, RecordIsClearedBeforeItIsWritten) {
    open_array();
    std::fill(image_.begin() + header().acl_offset, image_.begin() + header().list_offset, 0xEE);
    kavrin_acl_t* acl = new_acl();
    ASSERT_EQ(add_ace_to_acl(acl, ACE_TYPE_USER, 1001), SHM_MEMBE_OK);
    push_open_acl(PERMDATA_STATE_INVAL, PERMDATA_STATE_INVAL, acl);
    EXPECT_EQ(close_array(), 1);
    EXPECT_EQ(stack(), (std::vector<State>{ARRAY, MAP}));
    EXPECT_EQ(header().next_free_acl, 20u);
    EXPECT_EQ(acl_word(0, 0), ACLSIG);
    EXPECT_EQ(acl_word(0, 1), 1u);
    EXPECT_EQ(acl_word(0, 2), 1u);
    EXPECT_EQ(acl_word(0, 3), 1001u);
    EXPECT_EQ(acl_word(0, 4), 0u) << "mask and padding";
    EXPECT_EQ(acl_word(0, 5), 0xEEEEEEEEu) << "nothing is written behind the record";
    drop_all();
}

// Documents ---------------------------------------------------------------------------------------

// A document whose root has this ACL array and no children.
std::string with_acl(std::string_view acl) {
    return R"([{"NUMCHILDREN": 1}, {"DIR": "/", "ACL": )" + std::string(acl) +
           R"(, "CHILDREN": [{"NUMCHILDREN": 0}]}])";
}
std::string with_ids(std::string_view users, std::string_view groups) {
    return with_acl(R"([{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {)" + std::string(users) +
                    R"(}}, {"GROUPS": {)" + std::string(groups) + "}}]");
}
constexpr const char* kNoAcl =
    R"("ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}])";

TEST_F(Parser, ExampleBuildsItsTree) {
    ASSERT_EQ(parse(kExampleData), yajl_status_ok);
    EXPECT_TRUE(stack().empty());
    EXPECT_EQ(name_of(0), "/");
    EXPECT_EQ(name_of(24), "Shared");
    EXPECT_EQ(name_of(48), "Docs");
    EXPECT_EQ(name_of(72), "report.txt");
    EXPECT_EQ(name_of(96), "Private");
    EXPECT_EQ(list_word(element(0).clist_offset, 3), 24u);
    EXPECT_EQ(list_word(element(0).clist_offset, 4), 96u);
    EXPECT_EQ(list_word(element(24).clist_offset, 3), 48u);
    EXPECT_EQ(list_word(element(48).clist_offset, 3), 72u);
    EXPECT_EQ(element(0).flags, FSELEM_FLAG_ROOT);
    EXPECT_EQ(element(24).flags, 0u);
    EXPECT_EQ(element(48).flags, 0u);
    EXPECT_EQ(element(72).flags, FSELEM_FLAG_NOCHILDREN);
    EXPECT_EQ(element(96).flags, FSELEM_FLAG_NOCHILDREN);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Parser, ListedLastComesFirstInTheImage) {
    ASSERT_EQ(parse(kExampleData), yajl_status_ok);
    const std::uint32_t acl = element(96).acl_offset;
    EXPECT_EQ(acl_word(acl, 1), 2u);
    EXPECT_EQ(acl_word(acl, 3), 1002u);
    EXPECT_EQ(acl_word(acl, 4), 8u);
    EXPECT_EQ(acl_word(acl, 6), 1001u);
    EXPECT_EQ(acl_word(acl, 7), 7u);
}

TEST_F(Parser, EmptyAclIsGovernedByTheFolderAbove) {
    ASSERT_EQ(parse(kExampleData), yajl_status_ok);
    EXPECT_EQ(acl_word(element(72).acl_offset, 1), 0u);
    kavrin_acl_t* acl = nullptr;
    ASSERT_EQ(get_nonempty_kavrinacl_fromfselemoffset(image_.data(), 72, &acl), SHM_MEMBE_OK);
    ASSERT_EQ(acl->num_aces, 1u);
    const auto* ace = reinterpret_cast<const kavrin_ace_t*>(acl->ace_list_head.first_elem);
    EXPECT_EQ(ace->trustee_type, ACE_TYPE_USER);
    EXPECT_EQ(ace->trustee.uid, 1002u);
    EXPECT_EQ(ace->perm_mask, 3u);
    EXPECT_EQ(ace->ace_type, 1u) << "inherited from Docs";
    free_kavrin_acl(acl);
    std::free(acl);
}

TEST_F(Parser, KeysOfAnElementComeInAnyOrder) {
    const std::string acl =
        R"("ACL": [{"NUMUSERS": 1}, {"NUMGROUPS": 0}, {"USERS": {"5": 3}}, {"GROUPS": {}}])";
    const std::string dir = R"("DIR": "x")";
    const std::string children = R"("CHILDREN": [{"NUMCHILDREN": 0}])";
    std::vector<std::string> keys = {acl, children, dir};
    std::sort(keys.begin(), keys.end());
    do {
        std::fill(image_.begin(), image_.end(), 0);
        lay_out();
        const std::string root_children = R"("CHILDREN": [{"NUMCHILDREN": 1}, {)" + keys[0] + ", " +
                                          keys[1] + ", " + keys[2] + "}]";
        ASSERT_EQ(
            parse("[{\"NUMCHILDREN\": 1}, {" + root_children + R"(, "DIR": "/", )" + acl + "}]"),
            yajl_status_ok);
        EXPECT_TRUE(stack().empty());
        EXPECT_EQ(name_of(0), "/");
        EXPECT_EQ(name_of(24), "x");
        EXPECT_EQ(element(24).flags, FSELEM_FLAG_NOCHILDREN);
        EXPECT_EQ(list_word(element(0).clist_offset, 3), 24u);
        for (const std::uint32_t at : {0u, 24u}) {
            EXPECT_EQ(acl_word(element(at).acl_offset, 1), 1u);
            EXPECT_EQ(acl_word(element(at).acl_offset, 3), 5u);
            EXPECT_EQ(acl_word(element(at).acl_offset, 4), 3u);
        }
    } while (std::next_permutation(keys.begin(), keys.end()));
}

TEST_F(Parser, IdsAndMasksAreReadAsUnsignedDecimals) {
    ASSERT_EQ(parse(with_ids(R"("abc": 1, "12x": 2, "4294967297": 3, "-1": 4, "": 5)",
                             R"("1000": 65543, "7": 1.9)")),
              yajl_status_ok);
    // In reverse: kind, id, mask.
    const std::uint32_t expected[][3] = {{2, 7, 1}, {2, 1000, 7}, {1, 0, 5}, {1, 0xFFFFFFFF, 4},
                                         {1, 1, 3}, {1, 12, 2},   {1, 0, 1}};
    EXPECT_EQ(acl_word(0, 1), 7u);
    for (std::uint32_t i = 0; i < 7; ++i) {
        for (std::uint32_t word = 0; word < 3; ++word)
            EXPECT_EQ(acl_word(0, 2 + 3 * i + word), expected[i][word]) << i << " " << word;
    }
}

TEST_F(Parser, RepeatedIdGetsAnEntryEachTime) {
    ASSERT_EQ(parse(with_ids(R"("1001": 7, "1001": 3)", "")), yajl_status_ok);
    EXPECT_EQ(acl_word(0, 1), 2u);
    EXPECT_EQ(acl_word(0, 3), 1001u);
    EXPECT_EQ(acl_word(0, 4), 3u);
    EXPECT_EQ(acl_word(0, 6), 1001u);
    EXPECT_EQ(acl_word(0, 7), 7u);
}

TEST_F(Parser, SecondAclAppendsAndRepoints) {
    const std::string acl = R"([{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {"1": 1}},)"
                            R"( {"GROUPS": {}}], "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0},)"
                            R"( {"USERS": {}}, {"GROUPS": {"2": 2}}])";
    ASSERT_EQ(parse(with_acl(acl)), yajl_status_ok);
    EXPECT_EQ(header().next_free_acl, 40u);
    EXPECT_EQ(element(0).acl_offset, 20u);
    EXPECT_EQ(acl_word(0, 3), 1u) << "the first record stays where it was";
    EXPECT_EQ(acl_word(20, 2), static_cast<std::uint32_t>(IDTYPE_GID));
    EXPECT_EQ(acl_word(20, 3), 2u);
}

TEST_F(Parser, NamesAreKeptAsReceived) {
    const std::string dir = "\\u00c4rger \\\"\\\\\\/ \xc3\xa4";
    ASSERT_EQ(parse("[{\"NUMCHILDREN\": 1}, {\"DIR\": \"" + dir + "\"}]"), yajl_status_ok);
    EXPECT_EQ(name_of(0), "\xc3\x84rger \"\\/ \xc3\xa4") << "in UTF-8, escapes resolved";
    EXPECT_EQ(u32_at(image_.data(), header().nameelem_offset) & 0xFFFF, 13u);
    drop_all();
}

TEST_F(Parser, ElementWithoutChildrenKeyHasNeitherListNorFlag) {
    ASSERT_EQ(parse(std::string(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": )") +
                    R"([{"NUMCHILDREN": 1}, {"DIR": "x", )" + kNoAcl + "}]}]"),
              yajl_status_ok);
    EXPECT_EQ(element(24).clist_offset, 0u);
    EXPECT_EQ(element(24).flags, 0u);
}

TEST_F(Parser, FewerChildrenThanCountedLeaveSlotsFree) {
    ASSERT_EQ(parse(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 3},)"
                    R"( {"DIR": "x", "CHILDREN": [{"NUMCHILDREN": 0}]}]}])"),
              yajl_status_ok);
    const std::uint32_t list = element(0).clist_offset;
    EXPECT_EQ(list_word(list, 1), 3u);
    EXPECT_EQ(list_word(list, 2), 1u);
    EXPECT_EQ(list_word(list, 3), 24u);
    EXPECT_EQ(list_word(list, 4), 0u);
    EXPECT_EQ(list_word(list, 5), 0u);
}

// A count that promises too little is trusted: the slots run on into the free room behind the list.
TEST_F(Parser, MoreChildrenThanCountedAreRecordedAllTheSame) {
    const std::string child = R"({"DIR": "x", "CHILDREN": [{"NUMCHILDREN": 0}]})";
    ASSERT_EQ(parse(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 1}, )" +
                    child + ", " + child + "]}]"),
              yajl_status_ok);
    const std::uint32_t list = element(0).clist_offset;
    EXPECT_EQ(list_word(list, 1), 1u);
    EXPECT_EQ(list_word(list, 2), 2u);
    EXPECT_EQ(list_word(list, 3), 24u);
    EXPECT_EQ(list_word(list, 4), 48u);
    EXPECT_EQ(element(48).parent_offset, 0u);
}

TEST_F(Parser, SecondNameOfAChildEndsTheProcess) {
    const ChildResult result =
        parse_in_child(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 1},)"
                       R"( {"DIR": "x", "DIR": "y"}]}])");
    EXPECT_TRUE(result.asserted("fselem->name_elem_offset == 0")) << result.err;
}

TEST_F(Parser, NumberAsNameEndsTheProcess) {
    EXPECT_TRUE(parse_in_child(R"([{"NUMCHILDREN": 1}, {"DIR": 5}])").aborted());
}

TEST_F(Parser, GroupsBeforeUsersEndTheProcess) {
    const ChildResult result = parse_in_child(
        with_acl(R"([{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"GROUPS": {}}, {"USERS": {}}])"));
    EXPECT_TRUE(result.asserted("curst == PERMDATA_STATE_STGROUPMAP")) << result.err;
}

TEST_F(Parser, ChildBelowAChildlessRootEndsTheProcess) {
    for (const char* child :
         {R"({"DIR": "x"})", R"({"CHILDREN": [{"NUMCHILDREN": 0}], "DIR": "x"})"}) {
        const std::string document =
            R"([{"NUMCHILDREN": 0}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 1}, )" +
            std::string(child) + "]}]";
        EXPECT_TRUE(parse_in_child(document).aborted()) << child;
    }
    // The root object itself opens, and without children of its own it is complete.
    EXPECT_EQ(parse(R"([{"NUMCHILDREN": 0}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 0}]}])"),
              yajl_status_ok);
    EXPECT_EQ(element(0).flags, FSELEM_FLAG_ROOT | FSELEM_FLAG_NOCHILDREN);
}

TEST_F(Parser, ChildBelowAChildlessFolderEndsTheProcess) {
    EXPECT_TRUE(
        parse_in_child(R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 1},)"
                       R"( {"DIR": "a", "CHILDREN": [{"NUMCHILDREN": 0}, {"DIR": "b"}]}]}])")
            .aborted());
}

TEST_F(Parser, SkippedValuesFailTheStructureCheck) {
    const char* const documents[] = {
        R"([{"NUMCHILDREN": null}, {"DIR": "/"}])",
        R"([{"NUMCHILDREN": true}, {"DIR": "/"}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": null}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": false, "CHILDREN": [{"NUMCHILDREN": 0}]}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": null}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "ACL": null}])",
    };
    for (const char* document : documents)
        EXPECT_TRUE(parse_in_child(document).aborted()) << document;
    EXPECT_TRUE(parse_in_child(with_ids(R"("1001": null)", "")).aborted());
    EXPECT_TRUE(parse_in_child(with_ids("", R"("1000": false)")).aborted());
}

TEST_F(Parser, BrokenGrammarEndsTheProcess) {
    const char* const documents[] = {
        "{}",
        R"({"NUMCHILDREN": 1})",
        "[]",
        "[[]]",
        "[5]",
        R"(["text"])",
        R"([{"NUMCHILDREN": [1]}])",
        R"([{"NUMCHILDREN": "1"}])",
        R"([{"DIR": "/"}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "USERS": {}}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": 5}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "CHILDREN": []}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "ACL": []}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "ACL": [{"NUMUSERS": 0}]}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": "/", "ACL": [{"NUMGROUPS": 0}]}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": ["/"]}])",
        R"([{"NUMCHILDREN": 1}, {"DIR": {}}])",
    };
    for (const char* document : documents)
        EXPECT_TRUE(parse_in_child(document).aborted()) << document;
    EXPECT_TRUE(parse_in_child(with_ids(R"("1001": "7")", "")).aborted());
    EXPECT_TRUE(parse_in_child(with_ids(R"("1001": {})", "")).aborted());
    EXPECT_TRUE(parse_in_child(with_ids(R"("1001": [7])", "")).aborted());
    EXPECT_TRUE(parse_in_child(with_ids(R"("USERS": 7)", "")).aborted());
}

}  // namespace
}  // namespace kvtest
