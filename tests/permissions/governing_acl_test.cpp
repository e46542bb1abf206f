// From an element to the ACL that governs it: the record in place, the element's own ACL, and the
// climb to the nearest ancestor that has entries, in images written by hand.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "acl_owner.h"
#include "hand_image.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::Ace;
using kvtest::aces;
using kvtest::Acl;
using kvtest::ChildResult;
using kvtest::entries;
using kvtest::HandImage;
using kvtest::logged;
using kvtest::logged_matching;
using kvtest::run_child_void;

// "/" has two entries, "Shared" none, "Docs" one, "a.txt" and "Deep" none.
HandImage example() {
    return HandImage(
        {"/",
         {{1, 1002, 8}, {2, 1000, 7}},
         {{"Shared",
           {},
           {{"Docs", {{1, 1003, 3}}, {{"a.txt", {}, {}}, {"Sub", {}, {{"Deep", {}, {}}}}}}}}}});
}

class Governing : public testing::Test {
protected:
    std::vector<Ace> governing(const std::string& name) {
        Acl acl;
        EXPECT_EQ(
            get_nonempty_kavrinacl_fromfselemoffset(image_.data(), image_.offset(name), acl.slot()),
            SHM_MEMBE_OK);
        if (acl.get() == nullptr) return {};
        EXPECT_EQ(acl->num_aces, entries(acl.get()).size());
        return aces(acl.get());
    }
    void expect_damage(std::uint32_t at, const char* name) {
        const ChildResult child = run_child_void([&] {
            image_.put32(at, 0x12345678u);
            governing(name);
        });
        EXPECT_TRUE(child.aborted()) << at << " " << name;
    }
    kvtest::ConfigTable table_{0};
    HandImage image_ = example();
};

TEST_F(Governing, RecordOfAnElementIsFoundInPlace) {
    for (const char* name : {"/", "Shared", "Docs", "a.txt", "Deep"}) {
        beacl_t* record = nullptr;
        ASSERT_EQ(get_bacl_fromfselem(image_.data(), image_.offset(name), &record), SHM_MEMBE_OK);
        EXPECT_EQ(reinterpret_cast<std::uint8_t*>(record),
                  static_cast<std::uint8_t*>(image_.data()) + image_.acl_at(name));
    }
    image_.put32(image_.acl_at("Docs"), 0);  // the record's own signature is not looked at
    beacl_t* record = nullptr;
    EXPECT_EQ(get_bacl_fromfselem(image_.data(), image_.offset("Docs"), &record), SHM_MEMBE_OK);
    EXPECT_NE(record, nullptr);
}

TEST_F(Governing, MisuseOfTheRecordSearchIsAnAssertion) {
    ChildResult child = run_child_void([] {
        beacl_t* record = nullptr;
        get_bacl_fromfselem(nullptr, 0, &record);
    });
    EXPECT_TRUE(child.asserted("perm_map != NULL")) << child.err;
    child = run_child_void([&] {
        std::uint32_t occupied[2] = {};
        auto* record = reinterpret_cast<beacl_t*>(occupied);
        get_bacl_fromfselem(image_.data(), 0, &record);
    });
    EXPECT_TRUE(child.aborted());
    for (const std::uint32_t at : {172u, image_.element_at("Docs")}) {
        child = run_child_void([&] {
            image_.put32(at, 0);
            beacl_t* record = nullptr;
            get_bacl_fromfselem(image_.data(), image_.offset("Docs"), &record);
        });
        EXPECT_TRUE(child.aborted()) << at;
    }
}

TEST_F(Governing, OwnAclIsExplicitAndMayBeEmpty) {
    Acl docs;
    ASSERT_EQ(get_kavrinacl_fromfselemoffset(image_.data(), image_.offset("Docs"), docs.slot()),
              SHM_MEMBE_OK);
    EXPECT_EQ(aces(docs.get()), (std::vector<Ace>{{1, 1003, 3, 0}}));
    Acl shared;
    ASSERT_EQ(get_kavrinacl_fromfselemoffset(image_.data(), image_.offset("Shared"), shared.slot()),
              SHM_MEMBE_OK);
    ASSERT_NE(shared.get(), nullptr);
    EXPECT_EQ(shared->num_aces, 0u);
    EXPECT_TRUE(aces(shared.get()).empty());
    const ChildResult child = run_child_void([&] {
        kavrin_acl_t occupied{};
        kavrin_acl_t* acl = &occupied;
        get_kavrinacl_fromfselemoffset(image_.data(), 0, &acl);
    });
    EXPECT_TRUE(child.aborted());
}

TEST_F(Governing, OwnEntriesAreExplicit) {
    EXPECT_EQ(governing("Docs"), (std::vector<Ace>{{1, 1003, 3, 0}}));
    EXPECT_EQ(governing("/"), (std::vector<Ace>{{2, 1000, 7, 0}, {1, 1002, 8, 0}}));
}

TEST_F(Governing, NearestAncestorsEntriesAreInherited) {
    EXPECT_EQ(governing("Shared"), (std::vector<Ace>{{2, 1000, 7, 1}, {1, 1002, 8, 1}}));
    EXPECT_EQ(governing("a.txt"), (std::vector<Ace>{{1, 1003, 3, 1}}));
    EXPECT_EQ(governing("Deep"), (std::vector<Ace>{{1, 1003, 3, 1}}));
}

TEST_F(Governing, EmptyRootGovernsWithAnEmptyAcl) {
    HandImage image({"/", {}, {{"Shared", {}, {{"x", {}, {}}}}}});
    for (const char* name : {"/", "Shared", "x"}) {
        Acl acl;
        ASSERT_EQ(
            get_nonempty_kavrinacl_fromfselemoffset(image.data(), image.offset(name), acl.slot()),
            SHM_MEMBE_OK);
        ASSERT_NE(acl.get(), nullptr);
        EXPECT_EQ(acl->num_aces, 0u);
        EXPECT_TRUE(aces(acl.get()).empty());
    }
}

TEST_F(Governing, RootIsKnownByItsFlagAlone) {
    image_.put32(image_.element_at("Shared") + 20, 1);
    EXPECT_EQ(governing("Shared"), std::vector<Ace>{});
    image_.put32(image_.element_at("Shared") + 20, 0);
    image_.put32(image_.element_at("a.txt") + 20, 3);
    EXPECT_EQ(governing("a.txt"), std::vector<Ace>{});
}

TEST_F(Governing, MissingImageIsABadArgument) {
    kavrin_acl_t* acl = nullptr;
    EXPECT_EQ(get_nonempty_kavrinacl_fromfselemoffset(nullptr, 0, &acl), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(acl, nullptr);
    EXPECT_EQ(logged("Invalid perm map"), 1);
    kvtest::clear_log();
    table_.set_debug_level(-1);
    EXPECT_EQ(get_nonempty_kavrinacl_fromfselemoffset(nullptr, 0, &acl), SHM_MEMBE_ERR_BADARGS);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(Governing, DamageOnTheClimbEndsTheProcess) {
    expect_damage(172, "Docs");
    expect_damage(image_.element_at("Docs"), "Docs");
    expect_damage(image_.element_at("Docs"), "a.txt");
    expect_damage(image_.element_at("/"), "Shared");
    image_.put32(image_.element_at("/"), 0);
    EXPECT_EQ(governing("a.txt"), (std::vector<Ace>{{1, 1003, 3, 1}}));  // the climb ends before
}

TEST_F(Governing, ClimbIsTracedAtLevelTwo) {
    table_.set_debug_level(2);
    governing("Deep");
    EXPECT_EQ(logged_matching(kvtest::log_lines(), "[^ ]+\\([0-9]+\\) : num_aces 1"), 1);
    EXPECT_EQ(logged_matching(kvtest::log_lines(), ".*reached root"), 0);
    kvtest::clear_log();
    governing("Shared");
    EXPECT_EQ(logged_matching(kvtest::log_lines(), "[^ ]+\\([0-9]+\\) : reached root"), 1);
    EXPECT_EQ(logged_matching(kvtest::log_lines(), ".*num_aces.*"), 0);
    kvtest::clear_log();
    table_.set_debug_level(1);
    governing("Deep");
    governing("Shared");
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(Governing, LoadedImageKeepsTheOrderOfTheDataFile) {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this through scripts/sandbox";
    std::vector<std::uint8_t> image =
        kvtest::build_image(kvtest::kExampleSize, kvtest::kExampleData);
    const auto at = [&](std::uint32_t offset) {
        Acl acl;
        EXPECT_EQ(get_nonempty_kavrinacl_fromfselemoffset(image.data(), offset, acl.slot()),
                  SHM_MEMBE_OK);
        return aces(acl.get());
    };
    EXPECT_EQ(at(0), (std::vector<Ace>{{2, 1000, 8, 0}}));
    EXPECT_EQ(at(24), (std::vector<Ace>{{1, 1001, 7, 0}, {2, 1000, 1, 0}}));
    EXPECT_EQ(at(48), (std::vector<Ace>{{1, 1002, 3, 0}}));
    EXPECT_EQ(at(72), (std::vector<Ace>{{1, 1002, 3, 1}}));
    EXPECT_EQ(at(96), (std::vector<Ace>{{1, 1001, 7, 0}, {1, 1002, 8, 0}}));
}

}  // namespace
