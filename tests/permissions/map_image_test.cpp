// The image's records as every process shares them: the fixed numbers of the layout, one loaded
// image read by its bytes alone, and the name hash.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hand_image.h"
#include "support.h"

namespace {

using kvtest::ChildResult;
using kvtest::reference_hash;

TEST(ImageLayout, HeaderFieldsHaveTheirOffsets) {
    EXPECT_EQ(sizeof(kavrin_be_header_t), 176u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, mapname), 0u);
    EXPECT_EQ(sizeof(kavrin_be_header_t::mapname), 32u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, version), 32u);
    EXPECT_EQ(sizeof(kavrin_be_header_t::version), 36u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, nextmap), 68u);
    EXPECT_EQ(sizeof(kavrin_be_header_t::nextmap), 32u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, generationnum), 100u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, timestamp), 104u);
    EXPECT_EQ(sizeof(kavrin_be_header_t::timestamp), 8u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, total_fselems), 112u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, total_aces), 116u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, total_lists), 120u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, fselem_offset), 124u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, fselem_size), 128u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, next_free_fselem), 132u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, nameelem_offset), 136u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, nameelem_size), 140u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, next_free_nameelem), 144u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, acl_offset), 148u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, acl_size), 152u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, next_free_acl), 156u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, list_offset), 160u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, list_size), 164u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, next_free_list), 168u);
    EXPECT_EQ(offsetof(kavrin_be_header_t, signature), 172u);
}

TEST(ImageLayout, RecordFieldsHaveTheirOffsets) {
    EXPECT_EQ(sizeof(fs_elem_t), 24u);
    EXPECT_EQ(offsetof(fs_elem_t, signature), 0u);
    EXPECT_EQ(offsetof(fs_elem_t, parent_offset), 4u);
    EXPECT_EQ(offsetof(fs_elem_t, name_elem_offset), 8u);
    EXPECT_EQ(offsetof(fs_elem_t, clist_offset), 12u);
    EXPECT_EQ(offsetof(fs_elem_t, acl_offset), 16u);
    EXPECT_EQ(offsetof(fs_elem_t, flags), 20u);
    EXPECT_EQ(sizeof(name_elem_t), 12u);
    EXPECT_EQ(offsetof(name_elem_t, name_len), 0u);
    EXPECT_EQ(sizeof(name_elem_t::name_len), 2u);
    EXPECT_EQ(offsetof(name_elem_t, signature), 4u);
    EXPECT_EQ(offsetof(name_elem_t, hashval), 8u);
    EXPECT_EQ(offsetof(name_elem_t, name), 12u);
    EXPECT_EQ(sizeof(child_list_t), 12u);
    EXPECT_EQ(offsetof(child_list_t, signature), 0u);
    EXPECT_EQ(offsetof(child_list_t, num_children), 4u);
    EXPECT_EQ(offsetof(child_list_t, next_index), 8u);
    EXPECT_EQ(offsetof(child_list_t, children_offsets), 12u);
    EXPECT_EQ(sizeof(beacl_t), 8u);  // an ACL without entries
    EXPECT_EQ(offsetof(beacl_t, signature), 0u);
    EXPECT_EQ(offsetof(beacl_t, num_aces), 4u);
    EXPECT_EQ(offsetof(beacl_t, aces), 8u);
    EXPECT_EQ(sizeof(beace_t), 12u);
    EXPECT_EQ(offsetof(beace_t, idtype), 0u);
    EXPECT_EQ(offsetof(beace_t, id), 4u);
    EXPECT_EQ(offsetof(beace_t, perm_mask), 8u);
    EXPECT_EQ(sizeof(beace_t::perm_mask), 2u);
}

TEST(ImageLayout, SignaturesFlagsAndTypesHaveTheirValues) {
    EXPECT_EQ(KAVRIN_BE_HEADER_SIGNATURE, 0x1EA78EAFu);
    EXPECT_EQ(FSELEMSIG, 0x67896789u);
    EXPECT_EQ(NAMESIG, 0xABCDABCDu);
    EXPECT_EQ(LISTSIG, 0x789A789Au);
    EXPECT_EQ(ACLSIG, 0xCDEFCDEFu);
    EXPECT_EQ(FSELEM_ROOT_OFFSET, 0xFFFFFFFFu);
    EXPECT_EQ(FSELEM_ROOT_OFFSET2, 0xFFFFFFFEu);
    EXPECT_EQ(FSELEM_FLAG_ROOT, 1u);
    EXPECT_EQ(FSELEM_FLAG_NOCHILDREN, 2u);
    EXPECT_EQ(IDTYPE_UID, 1);
    EXPECT_EQ(IDTYPE_GID, 2);
    EXPECT_EQ(STELEM_TYPE_FSELEM, 0);
    EXPECT_EQ(STELEM_TYPE_NAMEELEM, 1);
    EXPECT_EQ(STELEM_TYPE_ACLELEM, 2);
    EXPECT_EQ(STELEM_TYPE_LISTELEM, 3);
    EXPECT_EQ(STELEM_TYPE_INVALID, 4);
}

TEST(ImageLayout, ResultCodesHaveTheirValues) {
    EXPECT_EQ(SHM_MEMBE_OK, 0);
    EXPECT_EQ(SHM_MEMBE_ERR_NOMEM, 1);
    EXPECT_EQ(SHM_MEMBE_ERR_LISTERR, 2);
    EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, 3);
    EXPECT_EQ(SHM_MEMBE_ERR_STATE_MISMATCH, 4);
    EXPECT_EQ(SHM_MEMBE_ERR_VERSION_MISMATCH, 5);
    EXPECT_EQ(SHM_MEMBE_ERR_BAD_ACL, 6);
    EXPECT_EQ(SHM_MEMBE_ERR_NOPERM_SIZE_FILE, 7);
    EXPECT_EQ(SHM_MEMBE_ERR_NOPERM_FILE, 8);
    EXPECT_EQ(SHM_MEMBE_ERR_NOCACHE_FILE, 9);
    EXPECT_EQ(SHM_MEMBE_ERR_MAP_CORRUPTION, 10);
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_WRERR, 11);
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_RDERR, 12);
    EXPECT_EQ(SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL, 13);
    EXPECT_EQ(SHM_MEMBE_OK_NAMEREMAPPED, 14);
}

// One loaded image, read by its bytes alone.
TEST(ImageLayout, LoadedImageFollowsTheLayout) {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this through scripts/sandbox";
    const kvtest::ConfigTable table(-1);
    const std::vector<std::uint8_t> image =
        kvtest::build_image(kvtest::kExampleSize, kvtest::kExampleData);
    const auto word = [&](std::uint32_t at) {
        std::uint32_t value;
        std::memcpy(&value, &image.at(at), sizeof value);
        return value;
    };
    const auto text = [&](std::uint32_t at) {
        return std::string(reinterpret_cast<const char*>(&image.at(at)));
    };
    ASSERT_EQ(image.size(), 33u + 60 * 5 + 12 * 6 + 176);
    EXPECT_EQ(text(0), "perm_map_A");
    EXPECT_EQ(text(32), "2.4.1");
    EXPECT_EQ(word(100), 1187u);
    EXPECT_EQ(word(104), 1700000000u);
    EXPECT_EQ(word(108), 0u);
    const std::uint32_t fields[] = {5,  6,   0,   176, 120, 120, 296, 93,
                                    93, 389, 112, 112, 501, 80,  68,  0x1EA78EAFu};
    for (std::uint32_t i = 0; i < std::size(fields); ++i)
        EXPECT_EQ(word(112 + 4 * i), fields[i]) << "field at " << 112 + 4 * i;
    EXPECT_EQ(word(176), 0x67896789u);
    EXPECT_EQ(word(180), 0xFFFFFFFEu);
    EXPECT_EQ(word(196), 1u);
    EXPECT_EQ(word(296) & 0xFFFFFFFFu, 1u);
    EXPECT_EQ(word(300), 0xABCDABCDu);
    EXPECT_EQ(word(304), 0x5A873501u);
    EXPECT_EQ(text(308), "/");
    EXPECT_EQ(word(389), 0xCDEFCDEFu);
    EXPECT_EQ(word(393), 1u);
    EXPECT_EQ(word(397), 2u);
    EXPECT_EQ(word(401), 1000u);
    EXPECT_EQ(word(405), 8u);
    // The list that the document's own count gave the root is lost space before the live one.
    EXPECT_EQ(word(501), 0x789A789Au);
    EXPECT_EQ(word(505), 1u);
    EXPECT_EQ(word(509), 0u);
    EXPECT_EQ(word(188), 16u);
    EXPECT_EQ(word(517), 0x789A789Au);
    EXPECT_EQ(word(521), 2u);
    EXPECT_EQ(word(525), 2u);
    // The root's children in document order; each says the root is its parent.
    for (const auto& [slot, name] : {std::pair(529u, "Shared"), std::pair(533u, "Private")}) {
        const std::uint32_t element = 176 + word(slot);
        EXPECT_EQ(word(element), 0x67896789u);
        EXPECT_EQ(word(element + 4), 0u);
        EXPECT_EQ(text(296 + word(element + 8) + 12), name);
    }
}

TEST(NameHash, KnownNamesHaveKnownHashes) {
    const std::pair<std::string, std::uint32_t> known[] = {
        {"/", 0x5A873501u},          {"Docs", 0x55EEC20Eu},
        {"Shared", 0x586C9C76u},     {"Private", 0x6BAEEC22u},
        {"report.txt", 0x103A191Fu}, {"a", 0x820103F0u},
        {"z", 0x6E30DC48u},          {std::string("a\0b", 3), 0x8A5B3BEBu},
        {"Café", 0xA608F7D9u},       {std::string(255, 'x'), 0xA85A225Eu},
    };
    for (const auto& [name, hash] : known) {
        EXPECT_EQ(permbe_fname_hash(name.data(), static_cast<std::uint32_t>(name.size())), hash)
            << name;
        EXPECT_EQ(reference_hash(name), hash) << name;
    }
}

TEST(NameHash, AsciiCaseAndForeignBytesDoNotCount) {
    const auto hash = [](std::string_view name) {
        return permbe_fname_hash(name.data(), static_cast<std::uint32_t>(name.size()));
    };
    EXPECT_EQ(hash("Docs"), hash("DOCS"));
    EXPECT_EQ(hash("Docs"), hash("docs"));
    EXPECT_NE(hash("Docs"), hash("Dogs"));
    EXPECT_EQ(hash("Ä"), 0u);
    EXPECT_EQ(hash("Ö"), 0u);
    EXPECT_EQ(hash("Café"), hash("Caf"));
    EXPECT_EQ(hash("\x80 x\xFF"), hash(" x"));
    EXPECT_NE(hash("\x7F"), 0u);
}

TEST(NameHash, EveryByteAndPairOfBytesAgreesWithTheReference) {
    for (unsigned first = 0; first < 256; ++first) {
        for (unsigned second = 0; second < 256; ++second) {
            const char name[] = {static_cast<char>(first), static_cast<char>(second), 'q'};
            for (const std::uint32_t length : {1u, 2u, 3u})
                ASSERT_EQ(permbe_fname_hash(name, length),
                          reference_hash(std::string_view(name, length)))
                    << first << " " << second;
        }
    }
}

TEST(NameHash, LengthZeroIsAnAssertion) {
    const ChildResult child = kvtest::run_child_void([] { permbe_fname_hash("a", 0); });
    EXPECT_TRUE(child.asserted("len != 0")) << child.err;
}

}  // namespace
