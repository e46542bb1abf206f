// The primitives that append records: the bytes of every record written over garbage, the cursors,
// and each misuse that ends the builder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "hand_image.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::ChildResult;
using kvtest::logged_matching;
using kvtest::reference_hash;

constexpr std::uint32_t kElements = 8;
constexpr std::uint32_t kAces = 8;
constexpr std::uint32_t kNameBytes = 70000;
constexpr std::uint8_t kGarbage = 0xEE;

// An image as the loader leaves it before the first record, but with garbage in its regions, so
// that every byte a primitive must write is seen to be written.
class Builder : public testing::Test {
protected:
    void SetUp() override {
        bytes_.assign(kNameBytes + 60 * kElements + 12 * kAces + 176, kGarbage);
        std::fill_n(bytes_.begin(), 176, std::uint8_t{0});
        put32(112, kElements);
        put32(116, kAces);
        put32(124, 176);
        put32(128, 24 * kElements);
        put32(136, kNames);
        put32(140, kNameBytes + 12 * kElements);
        put32(148, kAcls);
        put32(152, 12 * kAces + 8 * kElements);
        put32(160, kLists);
        put32(164, 16 * kElements);
        put32(172, 0x1EA78EAFu);
        summary_.membuf = bytes_.data();
        element_.stetype = STELEM_TYPE_INVALID;
    }

    static constexpr std::uint32_t kNames = 176 + 24 * kElements;
    static constexpr std::uint32_t kAcls = kNames + kNameBytes + 12 * kElements;
    static constexpr std::uint32_t kLists = kAcls + 12 * kAces + 8 * kElements;

    std::uint32_t get32(std::uint32_t at) const {
        std::uint32_t value;
        std::memcpy(&value, &bytes_.at(at), sizeof value);
        return value;
    }
    void put32(std::uint32_t at, std::uint32_t value) {
        std::memcpy(&bytes_.at(at), &value, sizeof value);
    }
    std::vector<std::uint32_t> words(std::uint32_t at, std::size_t count) const {
        std::vector<std::uint32_t> found(count);
        std::memcpy(found.data(), &bytes_.at(at), 4 * count);
        return found;
    }
    bool garbage(std::uint32_t at, std::uint32_t size) const {
        for (std::uint32_t i = at; i < at + size; ++i) {
            if (bytes_.at(i) != kGarbage) return false;
        }
        return true;
    }
    std::uint32_t element_cursor() const { return get32(132); }
    std::uint32_t name_cursor() const { return get32(144); }
    std::uint32_t acl_cursor() const { return get32(156); }
    std::uint32_t list_cursor() const { return get32(168); }

    // The root, and children of it, each referred to by an element of its own.
    jsonstack_t make_root() {
        jsonstack_t root{};
        root.stetype = STELEM_TYPE_INVALID;
        EXPECT_EQ(create_fselem(&summary_, &root, FSELEM_ROOT_OFFSET), SHM_MEMBE_OK);
        return root;
    }
    jsonstack_t make_child(std::uint32_t parent) {
        jsonstack_t child{};
        child.stetype = STELEM_TYPE_INVALID;
        EXPECT_EQ(create_fselem(&summary_, &child, parent), SHM_MEMBE_OK);
        return child;
    }
    void name(jsonstack_t& element, std::string text) {
        EXPECT_EQ(
            create_nameelem(&summary_, static_cast<unsigned>(text.size()), text.data(), &element),
            SHM_MEMBE_OK);
    }

    // What `misuse` does to a child process at this debug level.
    template <typename Misuse>
    static ChildResult child_at(int level, const Misuse& misuse) {
        return kvtest::run_child_void([&] {
            const kvtest::ConfigTable table(level);
            misuse();
        });
    }
    // The misuse ends the process; its message shows at level 0 and not below.
    template <typename Misuse>
    static void expect_told_and_asserted(const std::string& pattern, const Misuse& misuse) {
        SCOPED_TRACE(pattern);
        const ChildResult told = child_at(0, misuse);
        EXPECT_TRUE(told.aborted());
        EXPECT_EQ(logged_matching(told.log, pattern), 1);
        EXPECT_EQ(told.log.size(), 1u);
        const ChildResult silent = child_at(-1, misuse);
        EXPECT_TRUE(silent.aborted());
        EXPECT_TRUE(silent.log.empty());
    }
    template <typename Misuse>
    static void expect_asserted(const Misuse& misuse) {
        EXPECT_TRUE(child_at(0, misuse).aborted());
    }

    kvtest::ConfigTable table_{0};
    std::vector<std::uint8_t> bytes_;
    memsummary_t summary_{};
    jsonstack_t element_{};
};

TEST_F(Builder, RootIsWrittenAtTheStartOfItsRegion) {
    EXPECT_EQ(create_fselem(&summary_, &element_, FSELEM_ROOT_OFFSET), SHM_MEMBE_OK);
    EXPECT_EQ(element_.stetype, STELEM_TYPE_FSELEM);
    EXPECT_EQ(element_.jsonoffset, 0u);
    EXPECT_EQ(words(176, 6), (std::vector<std::uint32_t>{0x67896789u, 0xFFFFFFFFu, 0, 0, 0, 0}));
    EXPECT_EQ(element_cursor(), 24u);
    EXPECT_TRUE(garbage(200, static_cast<std::uint32_t>(bytes_.size()) - 200));
}

TEST_F(Builder, SecondRootIsWrittenOverTheFirstThoughTheCursorMoves) {
    make_root();
    EXPECT_EQ(create_fselem(&summary_, &element_, FSELEM_ROOT_OFFSET), SHM_MEMBE_OK);
    EXPECT_EQ(element_.jsonoffset, 24u);
    EXPECT_EQ(words(176, 6), (std::vector<std::uint32_t>{0x67896789u, 0xFFFFFFFFu, 0, 0, 0, 0}));
    EXPECT_TRUE(garbage(200, 24));
    EXPECT_EQ(element_cursor(), 48u);
}

TEST_F(Builder, RootBehindOtherElementsIsAnAssertion) {
    make_root();
    make_child(0);
    ASSERT_EQ(element_cursor(), 48u);
    const ChildResult child =
        child_at(0, [&] { create_fselem(&summary_, &element_, FSELEM_ROOT_OFFSET); });
    EXPECT_TRUE(
        child.asserted("(beheader->next_free_fselem == sizeof(fs_elem_t) || "
                       "(beheader->next_free_fselem == 0))"))
        << child.err;
}

TEST_F(Builder, ChildrenAreAppendedAtTheCursor) {
    make_root();
    EXPECT_EQ(create_fselem(&summary_, &element_, 0), SHM_MEMBE_OK);
    EXPECT_EQ(element_.stetype, STELEM_TYPE_FSELEM);
    EXPECT_EQ(element_.jsonoffset, 24u);
    EXPECT_EQ(words(200, 6), (std::vector<std::uint32_t>{0x67896789u, 0, 0, 0, 0, 0}));
    const jsonstack_t grandchild = make_child(24);
    EXPECT_EQ(grandchild.jsonoffset, 48u);
    EXPECT_EQ(words(224, 6), (std::vector<std::uint32_t>{0x67896789u, 24, 0, 0, 0, 0}));
    EXPECT_EQ(element_cursor(), 72u);
    EXPECT_TRUE(garbage(248, 24));
}

TEST_F(Builder, ElementWithoutAPlaceIsToldAndAsserted) {
    expect_told_and_asserted("[^ ]+\\([0-9]+\\): Null stelem ",
                             [&] { create_fselem(&summary_, nullptr, FSELEM_ROOT_OFFSET); });
    expect_asserted([&] { create_fselem(nullptr, &element_, FSELEM_ROOT_OFFSET); });
    expect_asserted([&] {
        summary_.membuf = nullptr;
        create_fselem(&summary_, &element_, FSELEM_ROOT_OFFSET);
    });
}

TEST_F(Builder, ChildOfADamagedParentIsAnAssertion) {
    make_root();
    put32(176, 0x67896788u);
    expect_asserted([&] { create_fselem(&summary_, &element_, 0); });
    put32(176, FSELEMSIG);
    expect_asserted([&] { create_fselem(&summary_, &element_, 24); });
}

TEST_F(Builder, ImageWithoutItsValidityMarkIsAnAssertion) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    create_child_list(&summary_, 1, &root);
    put32(172, 0x1EA78EAEu);
    expect_asserted([&] { create_fselem(&summary_, &element_, FSELEM_ROOT_OFFSET); });
    expect_asserted([&] { create_fselem(&summary_, &element_, 0); });
    expect_asserted([&] { name(root, "/"); });
    expect_asserted([&] { create_child_list(&summary_, 1, &root); });
    expect_asserted([&] { add_to_parentlist(&summary_, &child, 0); });
}

TEST_F(Builder, NamesArePackedWithTheirHashAndTerminator) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    name(root, "/");
    EXPECT_EQ(get32(176 + 8), 0u);
    EXPECT_EQ(name_cursor(), 14u);
    name(child, "Café");
    EXPECT_EQ(get32(200 + 8), 14u);
    EXPECT_EQ(name_cursor(), 14u + 5 + 13);
    const std::uint8_t expected[] = {
        1, 0, 0,    0,    0xCD, 0xAB, 0xCD, 0xAB, 0x01, 0x35, 0x87, 0x5A, '/', 0,    5,    0,
        0, 0, 0xCD, 0xAB, 0xCD, 0xAB, 0xD9, 0xF7, 0x08, 0xA6, 'C',  'a',  'f', 0xC3, 0xA9, 0};
    EXPECT_EQ(std::memcmp(&bytes_[kNames], expected, sizeof expected), 0);
    EXPECT_TRUE(garbage(kNames + sizeof expected, 100));
}

TEST_F(Builder, NameOf255BytesTakes268) {
    jsonstack_t root = make_root();
    name(root, std::string(255, 'x'));
    EXPECT_EQ(name_cursor(), 268u);
    EXPECT_EQ(words(kNames, 3), (std::vector<std::uint32_t>{255, 0xABCDABCDu, 0xA85A225Eu}));
    EXPECT_EQ(bytes_[kNames + 12 + 254], 'x');
    EXPECT_EQ(bytes_[kNames + 12 + 255], 0);
    EXPECT_EQ(bytes_[kNames + 12 + 256], kGarbage);
}

TEST_F(Builder, NameLengthIsCutToSixteenBitsButTheNameIsWhole) {
    jsonstack_t root = make_root();
    const std::string text(65536 + 3, 'n');
    name(root, text);
    EXPECT_EQ(get32(kNames), 3u);
    EXPECT_EQ(get32(kNames + 8), reference_hash(text));
    EXPECT_EQ(name_cursor(), 65536u + 3 + 13);
    EXPECT_EQ(std::memcmp(&bytes_[kNames + 12], text.data(), text.size()), 0);
    EXPECT_EQ(bytes_[kNames + 12 + text.size()], 0);
}

TEST_F(Builder, ZeroByteEndsTheCopyButNotTheRecord) {
    jsonstack_t root = make_root();
    const std::string text("ab\0cd", 5);
    name(root, text);
    EXPECT_EQ(get32(kNames), 5u);
    EXPECT_EQ(get32(kNames + 8), reference_hash(text));
    EXPECT_EQ(name_cursor(), 18u);
    const std::uint8_t copied[] = {'a', 'b', 0, 0, 0, 0, kGarbage};
    EXPECT_EQ(std::memcmp(&bytes_[kNames + 12], copied, sizeof copied), 0);
}

TEST_F(Builder, EveryNameIsTracedToStandardOutput) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    for (const int level : {-1, 10}) {
        const ChildResult traced = child_at(level, [&] {
            name(root, "/");
            name(child, "Docs");
        });
        EXPECT_EQ(
            traced.out,
            "--------> Name / hahsval 1518810369 \n--------> Name Docs hahsval 1441710606 \n");
        EXPECT_TRUE(traced.exited);
    }
}

TEST_F(Builder, TraceShowsTheNamesOwnBytesOnly) {
    jsonstack_t root = make_root();
    const ChildResult traced = child_at(-1, [&] {
        char document[] = {'D', 'o', 'c', 's', '"', ':', 'x', 0};
        create_nameelem(&summary_, 4, document, &root);
    });
    EXPECT_EQ(traced.out, "--------> Name Docs hahsval 1441710606 \n");
    const ChildResult exact = child_at(-1, [&] {
        const std::vector<char> name_alone(70, 'y');  // nothing readable behind it
        std::vector<char> copy(name_alone);
        copy.shrink_to_fit();
        create_nameelem(&summary_, 70, copy.data(), &root);
    });
    EXPECT_EQ(exact.out, "--------> Name " + std::string(70, 'y') + " hahsval " +
                             std::to_string(reference_hash(std::string(70, 'y'))) + " \n");
}

TEST_F(Builder, NameMisuseIsToldAndAsserted) {
    jsonstack_t root = make_root();
    char text[] = "x";
    expect_told_and_asserted("[^ ]+\\([0-9]+\\):Invalid name parameters",
                             [&] { create_nameelem(&summary_, 1, nullptr, &root); });
    expect_told_and_asserted("[^ ]+\\([0-9]+\\):Invalid name parameters",
                             [&] { create_nameelem(&summary_, 0, text, &root); });
    expect_told_and_asserted("[^ ]+\\([0-9]+\\): Invalid stelem",
                             [&] { create_nameelem(&summary_, 1, text, nullptr); });
    expect_told_and_asserted("[^ ]+\\([0-9]+\\): Invalid memsummary",
                             [&] { create_nameelem(nullptr, 1, text, &root); });
}

TEST_F(Builder, ElementIsNamedOnce) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    name(root, "/");
    name(child, "Docs");
    const ChildResult again = child_at(0, [&] { name(child, "Docs"); });
    EXPECT_TRUE(again.asserted("fselem->name_elem_offset == 0")) << again.err;
}

TEST_F(Builder, NameOfWhatIsNoElementIsAnAssertion) {
    jsonstack_t root = make_root();
    for (const e_stelem_type type :
         {STELEM_TYPE_NAMEELEM, STELEM_TYPE_ACLELEM, STELEM_TYPE_LISTELEM, STELEM_TYPE_INVALID}) {
        jsonstack_t other = root;
        other.stetype = type;
        expect_asserted([&] { name(other, "x"); });
        expect_asserted([&] { create_child_list(&summary_, 1, &other); });
    }
    put32(176, 0);
    expect_asserted([&] { name(root, "x"); });
    expect_asserted([&] { create_child_list(&summary_, 1, &root); });
}

TEST_F(Builder, ChildListIsEmptyAndZeroed) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    EXPECT_EQ(create_child_list(&summary_, 3, &root), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists, 6), (std::vector<std::uint32_t>{0x789A789Au, 3, 0, 0, 0, 0}));
    EXPECT_EQ(get32(176 + 12), 0u);
    EXPECT_EQ(list_cursor(), 24u);
    EXPECT_TRUE(garbage(kLists + 24, 20));
    EXPECT_EQ(create_child_list(&summary_, 1, &child), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists + 24, 4), (std::vector<std::uint32_t>{0x789A789Au, 1, 0, 0}));
    EXPECT_EQ(get32(200 + 12), 24u);
    EXPECT_EQ(list_cursor(), 40u);
}

TEST_F(Builder, SecondListReplacesTheFirstAndItsSpaceIsLost) {
    jsonstack_t root = make_root();
    create_child_list(&summary_, 2, &root);
    EXPECT_EQ(create_child_list(&summary_, 1, &root), SHM_MEMBE_OK);
    EXPECT_EQ(get32(176 + 12), 20u);
    EXPECT_EQ(list_cursor(), 36u);
    EXPECT_EQ(words(kLists, 3), (std::vector<std::uint32_t>{0x789A789Au, 2, 0}));
}

TEST_F(Builder, ListMisuseIsToldAndAsserted) {
    jsonstack_t root = make_root();
    jsonstack_t child = make_child(0);
    create_child_list(&summary_, 1, &root);
    expect_told_and_asserted("Invalid memsummary", [&] { create_child_list(nullptr, 1, &root); });
    expect_told_and_asserted("Invalid stelem", [&] { create_child_list(&summary_, 1, nullptr); });
    expect_told_and_asserted("Invalid memsummary", [&] { add_to_parentlist(nullptr, &child, 0); });
    expect_told_and_asserted("Invalid stelem", [&] { add_to_parentlist(&summary_, nullptr, 0); });
}

TEST_F(Builder, ChildrenFillTheirParentsListInOrder) {
    jsonstack_t root = make_root();
    create_child_list(&summary_, 2, &root);
    jsonstack_t first = make_child(0);
    jsonstack_t second = make_child(0);
    jsonstack_t below = make_child(24);
    put32(224 + 4, 0x11111111u);  // whatever parent the second named until now
    EXPECT_EQ(add_to_parentlist(&summary_, &first, 0), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists, 5), (std::vector<std::uint32_t>{0x789A789Au, 2, 1, 24, 0}));
    EXPECT_EQ(add_to_parentlist(&summary_, &second, 0), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists, 5), (std::vector<std::uint32_t>{0x789A789Au, 2, 2, 24, 48}));
    EXPECT_EQ(get32(200 + 4), 0u);
    EXPECT_EQ(get32(224 + 4), 0u);
    create_child_list(&summary_, 1, &first);
    EXPECT_EQ(add_to_parentlist(&summary_, &below, 24), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists + 20, 4), (std::vector<std::uint32_t>{0x789A789Au, 1, 1, 72}));
    EXPECT_EQ(get32(248 + 4), 24u);
    EXPECT_EQ(get32(176 + 4), 0xFFFFFFFFu);
}

TEST_F(Builder, CapacityOfAListIsTrusted) {
    jsonstack_t root = make_root();
    create_child_list(&summary_, 1, &root);
    jsonstack_t first = make_child(0);
    jsonstack_t second = make_child(0);
    add_to_parentlist(&summary_, &first, 0);
    EXPECT_EQ(add_to_parentlist(&summary_, &second, 0), SHM_MEMBE_OK);
    EXPECT_EQ(words(kLists, 5), (std::vector<std::uint32_t>{0x789A789Au, 1, 2, 24, 48}));
}

TEST_F(Builder, DamageInAParentOrChildIsAnAssertion) {
    jsonstack_t root = make_root();
    create_child_list(&summary_, 2, &root);
    jsonstack_t child = make_child(0);
    jsonstack_t other = child;
    other.stetype = STELEM_TYPE_LISTELEM;
    expect_asserted([&] { add_to_parentlist(&summary_, &other, 0); });
    for (const std::uint32_t signature_at : {176u, kLists, 200u}) {
        const std::uint32_t signature = get32(signature_at);
        put32(signature_at, signature ^ 1u);
        expect_asserted([&] { add_to_parentlist(&summary_, &child, 0); });
        put32(signature_at, signature);
    }
    EXPECT_EQ(add_to_parentlist(&summary_, &child, 0), SHM_MEMBE_OK);
}

TEST_F(Builder, PrimitivesLeaveTheRestOfTheHeaderAlone) {
    const std::vector<std::uint8_t> before(bytes_.begin(), bytes_.begin() + 176);
    jsonstack_t root = make_root();
    name(root, "/");
    create_child_list(&summary_, 1, &root);
    jsonstack_t child = make_child(0);
    add_to_parentlist(&summary_, &child, 0);
    EXPECT_EQ(acl_cursor(), 0u);
    for (std::uint32_t i = 0; i < 176; ++i) {
        const bool cursor = (i >= 132 && i < 136) || (i >= 144 && i < 148) || (i >= 168 && i < 172);
        if (!cursor) {
            ASSERT_EQ(bytes_[i], before[i]) << i;
        }
    }
}

}  // namespace
