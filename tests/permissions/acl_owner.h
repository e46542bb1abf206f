// An ACL that a test owns, and what a test says about its entries.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "kavrin.h"

namespace kvtest {

// Trustee type, id, mask, explicit or inherited: what a test says about an ACE.
using Ace = std::tuple<int, unsigned, unsigned, unsigned>;

inline std::vector<kavrin_ace_t*> entries(const kavrin_acl_t* acl) {
    std::vector<kavrin_ace_t*> found;
    for (oneway_list_elem_t* link = acl->ace_list_head.first_elem; link; link = link->next_elem)
        found.push_back(reinterpret_cast<kavrin_ace_t*>(link));
    return found;
}

inline std::vector<Ace> aces(const kavrin_acl_t* acl) {
    std::vector<Ace> found;
    for (const kavrin_ace_t* ace : entries(acl)) {
        EXPECT_EQ(ace->version, 0u);
        found.emplace_back(ace->trustee_type, ace->trustee.uid, ace->perm_mask, ace->ace_type);
    }
    return found;
}

// Owns an ACL for a test.
class Acl {
public:
    explicit Acl(kavrin_acl_t* acl = nullptr) : acl_(acl) {}
    ~Acl() {
        free_kavrin_acl(acl_);
        std::free(acl_);
    }
    Acl(const Acl&) = delete;
    Acl& operator=(const Acl&) = delete;
    kavrin_acl_t** slot() { return &acl_; }
    kavrin_acl_t* get() const { return acl_; }
    kavrin_acl_t* operator->() const { return acl_; }
    void add(e_ace_type_t type, unsigned id, unsigned mask) {
        EXPECT_EQ(add_ace_to_acl(acl_, type, id), SHM_MEMBE_OK);
        EXPECT_EQ(add_ace_mask(acl_, type, id, mask), SHM_MEMBE_OK);
    }
    static Acl empty() {
        kavrin_acl_t* acl = nullptr;
        EXPECT_EQ(create_empty_acl(&acl), SHM_MEMBE_OK);
        return Acl(acl);
    }

private:
    kavrin_acl_t* acl_;
};

}  // namespace kvtest
