// The in-process ACL: how it is put together, what misuse does, and its conversions in both
// directions against record bytes.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "acl_owner.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::Ace;
using kvtest::aces;
using kvtest::Acl;
using kvtest::ChildResult;
using kvtest::entries;
using kvtest::logged;
using kvtest::run_child_void;

constexpr std::uint8_t kTwoEntries[] = {
    0xEF, 0xCD, 0xEF, 0xCD, 2,    0,    0, 0,              // signature, entries
    1,    0,    0,    0,    0xEA, 0x03, 0, 0, 8, 0, 0, 0,  // uid 1002, navigate
    2,    0,    0,    0,    0xE8, 0x03, 0, 0, 7, 0, 0, 0,  // gid 1000, read, write and delete
};

std::string record_bytes(kavrin_acl_t* acl) {
    beacl_t* record = nullptr;
    unsigned size = 0;
    EXPECT_EQ(ACL_2_membuf(acl, &record, &size), SHM_MEMBE_OK);
    const std::string bytes(reinterpret_cast<const char*>(record), size);
    std::free(record);
    return bytes;
}

// A record at an odd address, as records in an image may lie.
class Record {
public:
    explicit Record(const void* bytes, std::size_t size) : memory_(size + 1) {
        std::memcpy(&memory_[1], bytes, size);
    }
    beacl_t* get() { return reinterpret_cast<beacl_t*>(&memory_[1]); }
    void put(std::size_t at, std::uint8_t value) { memory_.at(1 + at) = value; }

private:
    std::vector<std::uint8_t> memory_;
};

class AclTest : public testing::Test {
protected:
    kvtest::ConfigTable table_{0};
};

TEST(AclLayout, ConstantsHaveTheirValues) {
    EXPECT_EQ(KAVRIN_PERM_MASK_NOPERM, 0u);
    EXPECT_EQ(KAVRIN_PERM_MASK_RDONLY, 1u);
    EXPECT_EQ(KAVRIN_PERM_MASK_RDWR, 3u);
    EXPECT_EQ(KAVRIN_PERM_MASK_RDWRDEL, 7u);
    EXPECT_EQ(KAVRIN_PERM_MASK_NAVIGATE, 8u);
    EXPECT_EQ(KAVRIN_PERM_MASK_VIEWER_ONLY, 16u);
    EXPECT_EQ(KAVRIN_ACL_VERSION, 0u);
    EXPECT_EQ(ACE_TYPE_MIN, 1);
    EXPECT_EQ(ACE_TYPE_USER, 1);
    EXPECT_EQ(ACE_TYPE_GROUP, 2);
    EXPECT_EQ(ACE_TYPE_ALL, 3);
    EXPECT_EQ(ACE_TYPE_UNDEF, 4);
    EXPECT_EQ(ACE_TYPE_MAX, 4);
    EXPECT_EQ(FSTYPE_FILE, 1);
    EXPECT_EQ(FSTYPE_FOLDER, 2);
    EXPECT_EQ(FSTYPE_DOES_NOT_EXIST, 3);
    EXPECT_EQ(FSTYPE_INVAL, 4);
    EXPECT_EQ(offsetof(kavrin_ace_t, ace_list), 0u);
}

TEST_F(AclTest, EmptyAclHasVersionZeroAndNoAces) {
    const Acl acl = Acl::empty();
    ASSERT_NE(acl.get(), nullptr);
    EXPECT_EQ(acl->version, 0u);
    EXPECT_EQ(acl->num_aces, 0u);
    EXPECT_EQ(acl->ace_list_head.first_elem, nullptr);
}

TEST_F(AclTest, OccupiedPlaceForANewAclIsAnAssertion) {
    const ChildResult child = run_child_void([] {
        kavrin_acl_t occupied{};
        kavrin_acl_t* acl = &occupied;
        create_empty_acl(&acl);
    });
    EXPECT_TRUE(child.asserted("*eacl == NULL")) << child.err;
}

TEST_F(AclTest, ExhaustedMemoryEndsTheProcess) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    const auto create = [] {
        kavrin_acl_t* acl = nullptr;
        const kvtest::RefusedAllocation first(1);
        create_empty_acl(&acl);
    };
    const ChildResult told = run_child_void(create);
    EXPECT_TRUE(told.aborted());
    EXPECT_EQ(told.logged("malloc failure "), 1);
    table_.set_debug_level(-1);
    const ChildResult silent = run_child_void(create);
    EXPECT_TRUE(silent.aborted());
    EXPECT_TRUE(silent.log.empty());
    table_.set_debug_level(0);
    const ChildResult ace = run_child_void([] {
        kavrin_acl_t acl{};
        const kvtest::RefusedAllocation first(1);
        add_ace_to_acl(&acl, ACE_TYPE_USER, 1);
    });
    EXPECT_TRUE(ace.aborted());
}

TEST_F(AclTest, AcesAreInsertedInFrontWithMaskZero) {
    const Acl acl = Acl::empty();
    EXPECT_EQ(add_ace_to_acl(acl.get(), ACE_TYPE_USER, 1001), SHM_MEMBE_OK);
    EXPECT_EQ(add_ace_to_acl(acl.get(), ACE_TYPE_GROUP, 4294967295u), SHM_MEMBE_OK);
    EXPECT_EQ(add_ace_to_acl(acl.get(), ACE_TYPE_USER, 0), SHM_MEMBE_OK);
    EXPECT_EQ(acl->num_aces, 3u);
    const std::vector<kavrin_ace_t*> list = entries(acl.get());
    ASSERT_EQ(list.size(), 3u);
    const std::pair<e_ace_type_t, unsigned> expected[] = {
        {ACE_TYPE_USER, 0}, {ACE_TYPE_GROUP, 4294967295u}, {ACE_TYPE_USER, 1001}};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i]->version, 0u);
        EXPECT_EQ(list[i]->trustee_type, expected[i].first);
        EXPECT_EQ(list[i]->trustee.uid, expected[i].second);
        EXPECT_EQ(list[i]->perm_mask, 0u);
    }
    EXPECT_EQ(list[1]->ace_list.ptr2prev, &list[0]->ace_list.next_elem);
}

TEST_F(AclTest, AceForNoAclIsAnAssertion) {
    EXPECT_TRUE(run_child_void([] { add_ace_to_acl(nullptr, ACE_TYPE_USER, 1); }).aborted());
}

TEST_F(AclTest, MaskGoesToTheFirstAceOfThatTrustee) {
    Acl acl = Acl::empty();
    for (const e_ace_type_t type : {ACE_TYPE_USER, ACE_TYPE_GROUP, ACE_TYPE_USER})
        add_ace_to_acl(acl.get(), type, 1001);
    EXPECT_EQ(add_ace_mask(acl.get(), ACE_TYPE_USER, 1001, 7), SHM_MEMBE_OK);
    const std::vector<kavrin_ace_t*> list = entries(acl.get());
    EXPECT_EQ(list[0]->perm_mask, 7u);  // the user inserted last
    EXPECT_EQ(list[1]->perm_mask, 0u);
    EXPECT_EQ(list[2]->perm_mask, 0u);
    EXPECT_EQ(add_ace_mask(acl.get(), ACE_TYPE_GROUP, 1001, 0x10007), SHM_MEMBE_OK);
    EXPECT_EQ(list[1]->perm_mask, 0x10007u);
    EXPECT_EQ(add_ace_mask(acl.get(), ACE_TYPE_USER, 1001, 1), SHM_MEMBE_OK);
    EXPECT_EQ(list[0]->perm_mask, 1u);
    EXPECT_EQ(list[2]->perm_mask, 0u);
}

TEST_F(AclTest, MaskForAnUnknownTrusteeIsAnAssertion) {
    Acl acl = Acl::empty();
    add_ace_to_acl(acl.get(), ACE_TYPE_USER, 1001);
    const ChildResult kind =
        run_child_void([&] { add_ace_mask(acl.get(), ACE_TYPE_GROUP, 1001, 7); });
    EXPECT_TRUE(kind.asserted("found == 1")) << kind.err;
    const ChildResult id = run_child_void([&] { add_ace_mask(acl.get(), ACE_TYPE_USER, 1002, 7); });
    EXPECT_TRUE(id.asserted("found == 1")) << id.err;
}

TEST_F(AclTest, MaskForNoAclIsToldAndAsserted) {
    const auto misuse = [] { add_ace_mask(nullptr, ACE_TYPE_USER, 1, 7); };
    const ChildResult told = run_child_void(misuse);
    EXPECT_TRUE(told.aborted());
    EXPECT_EQ(told.logged("Null ACL "), 1);
    table_.set_debug_level(-1);
    const ChildResult silent = run_child_void(misuse);
    EXPECT_TRUE(silent.aborted());
    EXPECT_TRUE(silent.log.empty());
}

TEST_F(AclTest, FreeingLeavesTheListEmpty) {
    free_kavrin_acl(nullptr);
    Acl acl = Acl::empty();
    free_kavrin_acl(acl.get());
    for (unsigned id = 0; id < 5; ++id) acl.add(ACE_TYPE_USER, id, 1);
    free_kavrin_acl(acl.get());
    EXPECT_EQ(acl->ace_list_head.first_elem, nullptr);
}

TEST_F(AclTest, InheritanceIsSetOnEveryAceOrNone) {
    Acl acl = Acl::empty();
    acl.add(ACE_TYPE_USER, 1001, 7);
    acl.add(ACE_TYPE_GROUP, 1000, 1);
    EXPECT_EQ(set_inheritance_flag(acl.get(), 1), SHM_MEMBE_OK);
    EXPECT_EQ(aces(acl.get()), (std::vector<Ace>{{2, 1000, 1, 1}, {1, 1001, 7, 1}}));
    EXPECT_EQ(set_inheritance_flag(acl.get(), 2), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(set_inheritance_flag(acl.get(), 4294967295u), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(aces(acl.get()), (std::vector<Ace>{{2, 1000, 1, 1}, {1, 1001, 7, 1}}));
    EXPECT_EQ(set_inheritance_flag(acl.get(), 0), SHM_MEMBE_OK);
    EXPECT_EQ(aces(acl.get()), (std::vector<Ace>{{2, 1000, 1, 0}, {1, 1001, 7, 0}}));
    EXPECT_EQ(set_inheritance_flag(nullptr, 1), SHM_MEMBE_ERR_LISTERR);
    EXPECT_EQ(set_inheritance_flag(nullptr, 2), SHM_MEMBE_ERR_BADARGS);
    const Acl empty = Acl::empty();
    EXPECT_EQ(set_inheritance_flag(empty.get(), 1), SHM_MEMBE_OK);
}

TEST_F(AclTest, RecordHoldsTheListInListOrder) {
    Acl acl = Acl::empty();
    acl.add(ACE_TYPE_GROUP, 1000, 7);
    acl.add(ACE_TYPE_USER, 1002, 8);
    EXPECT_EQ(record_bytes(acl.get()),
              std::string(reinterpret_cast<const char*>(kTwoEntries), sizeof kTwoEntries));
}

TEST_F(AclTest, RecordWithoutEntriesIsEightBytes) {
    const Acl acl = Acl::empty();
    EXPECT_EQ(record_bytes(acl.get()), std::string("\xEF\xCD\xEF\xCD\0\0\0\0", 8));
}

TEST_F(AclTest, MaskIsCutToSixteenBitsInTheRecord) {
    Acl acl = Acl::empty();
    acl.add(ACE_TYPE_USER, 1, 0x10007);
    acl.add(ACE_TYPE_USER, 2, 0xFFFFFFFFu);
    const std::string bytes = record_bytes(acl.get());
    EXPECT_EQ(bytes.substr(8 + 8, 4), std::string("\xFF\xFF\0\0", 4));
    EXPECT_EQ(bytes.substr(20 + 8, 4), std::string("\x07\0\0\0", 4));
}

TEST_F(AclTest, NoAclMakesNoRecord) {
    std::uint32_t unused[2] = {};
    auto* record = reinterpret_cast<beacl_t*>(unused);
    unsigned size = 1234;
    EXPECT_EQ(ACL_2_membuf(nullptr, &record, &size), SHM_MEMBE_OK);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(size, 1234u);
}

TEST_F(AclTest, UnknownVersionMakesNoRecord) {
    const ChildResult child = run_child_void([] {
        kavrin_acl_t acl{};
        acl.version = 1;
        beacl_t* record = nullptr;
        unsigned size = 0;
        ACL_2_membuf(&acl, &record, &size);
    });
    EXPECT_TRUE(child.asserted("acl->version == KAVRIN_ACL_VERSION")) << child.err;
}

TEST_F(AclTest, OnlyUsersAndGroupsHaveARecord) {
    for (const e_ace_type_t type : {ACE_TYPE_ALL, ACE_TYPE_UNDEF}) {
        const auto misuse = [type] {
            Acl acl = Acl::empty();
            add_ace_to_acl(acl.get(), type, 1);
            record_bytes(acl.get());
        };
        const ChildResult told = run_child_void(misuse);
        EXPECT_TRUE(told.aborted());
        EXPECT_EQ(told.logged("Invalid trustee type " + std::to_string(type)), 1);
        table_.set_debug_level(-1);
        EXPECT_TRUE(run_child_void(misuse).log.empty());
        table_.set_debug_level(0);
    }
}

TEST_F(AclTest, RecordBecomesAListInReverseOrder) {
    Record record(kTwoEntries, sizeof kTwoEntries);
    for (const unsigned inheritance : {0u, 1u}) {
        Acl acl;
        ASSERT_EQ(membuf_2_ACL(record.get(), 0, inheritance, acl.slot()), SHM_MEMBE_OK);
        EXPECT_EQ(acl->version, 0u);
        EXPECT_EQ(acl->num_aces, 2u);
        EXPECT_EQ(aces(acl.get()),
                  (std::vector<Ace>{{2, 1000, 7, inheritance}, {1, 1002, 8, inheritance}}));
    }
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(AclTest, EmptyRecordBecomesAnEmptyAcl) {
    Record record("\xEF\xCD\xEF\xCD\0\0\0\0", 8);
    Acl acl;
    ASSERT_EQ(membuf_2_ACL(record.get(), 0, 0, acl.slot()), SHM_MEMBE_OK);
    EXPECT_EQ(acl->num_aces, 0u);
    EXPECT_EQ(acl->ace_list_head.first_elem, nullptr);
}

TEST_F(AclTest, RoundTripKeepsTheOrderOfTheDataFile) {
    Acl parsed = Acl::empty();
    parsed.add(ACE_TYPE_USER, 1001, 7);
    parsed.add(ACE_TYPE_USER, 1002, 8);
    const std::string bytes = record_bytes(parsed.get());
    EXPECT_EQ(bytes.substr(12, 4), std::string("\xEA\x03\0\0", 4));  // 1002 first
    EXPECT_EQ(bytes.substr(24, 4), std::string("\xE9\x03\0\0", 4));
    Record record(bytes.data(), bytes.size());
    Acl acl;
    ASSERT_EQ(membuf_2_ACL(record.get(), 0, 0, acl.slot()), SHM_MEMBE_OK);
    EXPECT_EQ(aces(acl.get()), (std::vector<Ace>{{1, 1001, 7, 0}, {1, 1002, 8, 0}}));
}

TEST_F(AclTest, UnknownVersionOfARecordIsAMismatch) {
    Record record(kTwoEntries, sizeof kTwoEntries);
    kavrin_acl_t* acl = nullptr;
    int allocations = 0;
    {
        const kvtest::RefusedAllocation watch(0);
        EXPECT_EQ(membuf_2_ACL(record.get(), 1, 0, &acl), SHM_MEMBE_ERR_VERSION_MISMATCH);
        allocations = kvtest::RefusedAllocation::count();
    }
    EXPECT_EQ(acl, nullptr);
    EXPECT_EQ(allocations, 0);
}

TEST_F(AclTest, StrangeInheritanceIsToldAndUsed) {
    Record record(kTwoEntries, sizeof kTwoEntries);
    Acl acl;
    EXPECT_EQ(membuf_2_ACL(record.get(), 0, 7, acl.slot()), SHM_MEMBE_OK);
    EXPECT_EQ(logged("Invalid inheritance type 7"), 1);
    EXPECT_EQ(aces(acl.get()), (std::vector<Ace>{{2, 1000, 7, 7}, {1, 1002, 8, 7}}));
    kvtest::clear_log();
    table_.set_debug_level(-1);
    Acl silent;
    EXPECT_EQ(membuf_2_ACL(record.get(), 0, 2, silent.slot()), SHM_MEMBE_OK);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(AclTest, MissingOrOccupiedContainerIsToldAndAsserted) {
    Record record(kTwoEntries, sizeof kTwoEntries);
    const auto missing = [&] { membuf_2_ACL(record.get(), 0, 0, nullptr); };
    const auto occupied = [&] {
        kavrin_acl_t container{};
        kavrin_acl_t* acl = &container;
        membuf_2_ACL(record.get(), 0, 0, &acl);
    };
    ChildResult child = run_child_void(missing);
    EXPECT_TRUE(child.aborted());
    EXPECT_EQ(child.logged("Empty kavrin_acl container"), 1);
    child = run_child_void(occupied);
    EXPECT_TRUE(child.aborted());
    EXPECT_EQ(child.logged("non empty kavrin_acl_t "), 1);
    table_.set_debug_level(-1);
    for (const std::function<void()>& misuse : {std::function<void()>(missing), {occupied}}) {
        child = run_child_void(misuse);
        EXPECT_TRUE(child.aborted());
        EXPECT_TRUE(child.log.empty());
    }
}

TEST_F(AclTest, UnknownTrusteeInARecordIsToldAndAsserted) {
    for (const std::uint8_t type : {0, 3, 4, 200}) {
        Record record(kTwoEntries, sizeof kTwoEntries);
        record.put(20, type);  // the second entry
        const auto convert = [&] {
            kavrin_acl_t* acl = nullptr;
            membuf_2_ACL(record.get(), 0, 0, &acl);
        };
        const ChildResult told = run_child_void(convert);
        EXPECT_TRUE(told.aborted());
        EXPECT_EQ(told.logged("Invalid trustee type " + std::to_string(type)), 1);
        table_.set_debug_level(-1);
        const ChildResult silent = run_child_void(convert);
        EXPECT_TRUE(silent.aborted());
        EXPECT_TRUE(silent.log.empty());
        table_.set_debug_level(0);
    }
}

TEST_F(AclTest, ConversionWithoutMemoryEndsTheProcess) {
    if (!kvtest::can_refuse_memory()) GTEST_SKIP() << "the sanitizer owns the allocator";
    Record record(kTwoEntries, sizeof kTwoEntries);
    for (const int nth : {1, 2, 3}) {
        const ChildResult child = run_child_void([&] {
            kavrin_acl_t* acl = nullptr;
            const kvtest::RefusedAllocation refused(nth);
            membuf_2_ACL(record.get(), 0, 0, &acl);
        });
        EXPECT_TRUE(child.aborted()) << nth;
        if (nth == 1) {
            EXPECT_EQ(child.logged("malloc failure "), 1);
        }
    }
}

TEST_F(AclTest, EntriesAreTracedAtLevelTen) {
    Record record(kTwoEntries, sizeof kTwoEntries);
    table_.set_debug_level(10);
    {
        Acl acl;
        membuf_2_ACL(record.get(), 0, 0, acl.slot());
    }
    EXPECT_EQ(logged("Bacl version 0 trustee type 1 id 1002 mask 8 "), 1);
    EXPECT_EQ(logged("Bacl version 0 trustee type 2 id 1000 mask 7 "), 1);
    kvtest::clear_log();
    table_.set_debug_level(9);
    {
        Acl acl;
        membuf_2_ACL(record.get(), 0, 0, acl.slot());
    }
    EXPECT_TRUE(kvtest::log_lines().empty());
}

}  // namespace
