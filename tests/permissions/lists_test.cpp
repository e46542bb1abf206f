// The one-way list that ACEs and parse states are kept on: where insertion puts an element, which
// elements it leaves alone, and what removal does to the neighbours.
#include <gtest/gtest.h>

#include "kavrin.h"

namespace {

TEST(OnewayList, ResultsHaveTheirValues) {
    EXPECT_EQ(KVLIST_ERR_OK, 0);
    EXPECT_EQ(KVLIST_ERR_LIST_EMPTY, 1);
    EXPECT_EQ(KVLIST_ERR_NULL_HEAD, 2);
    EXPECT_EQ(KVLIST_ERR_UNITIALIZED_ELEM, 3);
    EXPECT_EQ(KVLIST_ERR_NULLELEM, 4);
    EXPECT_EQ(KVLIST_ERR_UNDEFINED, 5);
    EXPECT_EQ(KVLIST_ERR_MAX, 5);
}

TEST(OnewayList, InsertionIsAtTheHead) {
    oneway_list_head_t head{};
    oneway_list_elem_t a{}, b{}, c{};
    EXPECT_EQ(oneway_list_push(&head, &a), KVLIST_ERR_OK);
    EXPECT_EQ(head.first_elem, &a);
    EXPECT_EQ(a.next_elem, nullptr);
    EXPECT_EQ(a.ptr2prev, nullptr);
    EXPECT_EQ(oneway_list_push(&head, &b), KVLIST_ERR_OK);
    EXPECT_EQ(oneway_list_push(&head, &c), KVLIST_ERR_OK);
    EXPECT_EQ(head.first_elem, &c);
    EXPECT_EQ(c.next_elem, &b);
    EXPECT_EQ(b.next_elem, &a);
    EXPECT_EQ(c.ptr2prev, nullptr);
    EXPECT_EQ(b.ptr2prev, &c.next_elem);
    EXPECT_EQ(a.ptr2prev, &b.next_elem);
}

TEST(OnewayList, LinkedElementIsNotInsertedAgain) {
    oneway_list_head_t head{}, other{};
    oneway_list_elem_t a{}, b{};
    oneway_list_push(&head, &a);
    oneway_list_push(&head, &b);
    EXPECT_EQ(oneway_list_push(&other, &a), KVLIST_ERR_OK);
    EXPECT_EQ(oneway_list_push(&other, &b), KVLIST_ERR_OK);
    EXPECT_EQ(other.first_elem, nullptr);
    EXPECT_EQ(head.first_elem, &b);
    EXPECT_EQ(b.next_elem, &a);
}

TEST(OnewayList, RemovalRewritesTheNeighbours) {
    for (int removed = 0; removed < 3; ++removed) {
        oneway_list_head_t head{};
        oneway_list_elem_t e[3] = {};
        for (int i = 2; i >= 0; --i) oneway_list_push(&head, &e[i]);
        EXPECT_EQ(oneway_list_remove(&head, &e[removed]), KVLIST_ERR_OK);
        EXPECT_EQ(e[removed].next_elem, nullptr);
        EXPECT_EQ(e[removed].ptr2prev, nullptr);
        oneway_list_elem_t& first = e[removed == 0 ? 1 : 0];
        oneway_list_elem_t& last = e[removed == 2 ? 1 : 2];
        EXPECT_EQ(head.first_elem, &first);
        EXPECT_EQ(first.ptr2prev, nullptr);
        EXPECT_EQ(first.next_elem, &last);
        EXPECT_EQ(last.ptr2prev, &first.next_elem);
        EXPECT_EQ(last.next_elem, nullptr);
    }
}

TEST(OnewayList, RemovalFromNothingIsRefused) {
    oneway_list_head_t head{};
    oneway_list_elem_t a{}, stranger{};
    EXPECT_EQ(oneway_list_remove(&head, &a), KVLIST_ERR_LIST_EMPTY);
    EXPECT_EQ(oneway_list_remove(nullptr, &a), KVLIST_ERR_NULL_HEAD);
    EXPECT_EQ(oneway_list_push(nullptr, &a), KVLIST_ERR_NULL_HEAD);
    EXPECT_EQ(oneway_list_push(&head, nullptr), KVLIST_ERR_NULLELEM);
    oneway_list_push(&head, &a);
    EXPECT_EQ(oneway_list_remove(&head, nullptr), KVLIST_ERR_NULLELEM);
    EXPECT_EQ(oneway_list_remove(&head, &stranger), KVLIST_ERR_UNITIALIZED_ELEM);
    EXPECT_EQ(oneway_list_remove(&head, &a), KVLIST_ERR_OK);
    EXPECT_EQ(head.first_elem, nullptr);
}

}  // namespace
