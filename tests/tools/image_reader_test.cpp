// The view over images that nobody vouches for: what it gives for a sound one, and that no offset,
// count or size makes it read a byte that it does not have.
#include "image_reader.h"

#include <gtest/gtest.h>

#include <random>

#include "image_bytes.h"

using namespace kvadmin;
using namespace kvtest;

namespace {

ElementOffset element(std::size_t index) {
    return ElementOffset{static_cast<std::uint32_t>(24 * index)};
}

class ImageReaderTest : public testing::Test {
protected:
    ConfigTable config_{-1};
    Image image_ = example_image();
    ImageReader reader() const { return *ImageReader::open(image_); }
};

// Asks for everything that can be asked, at offsets of every kind.
std::uint64_t read_all(const ImageReader& reader) {
    std::uint64_t sum = 0;
    const auto offsets = {0u, 1u, 12u, 16u, 24u, 48u, 96u, 119u, 4096u, 0x7FFFFFFFu, 0xFFFFFFFFu};
    const auto indexes = {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0xFFFFFFFF},
                          ~std::uint64_t{0}, ~std::uint64_t{0} / 12};
    for (const std::uint32_t offset : offsets) {
        sum += reader.element(ElementOffset{offset}).value_or(fs_elem_t{}).flags;
        sum += reader.name_head(NameOffset{offset}).value_or(NameHead{}).length;
        sum += reader.acl_head(AclOffset{offset}).value_or(AclHead{}).entries;
        sum += reader.list_head(ListOffset{offset}).value_or(ListHead{}).filled;
        if (const auto text = reader.name_text(NameOffset{offset}))
            for (const char c : *text) sum += static_cast<unsigned char>(c);
        for (const std::uint64_t index : indexes) {
            if (const auto ace = reader.ace(AclOffset{offset}, index)) sum += ace->perm_mask;
            if (const auto slot = reader.slot(ListOffset{offset}, index))
                sum += static_cast<std::uint32_t>(*slot);
        }
        sum += reader.path_of(ElementOffset{offset}).size();
        sum += reader.depth_of(ElementOffset{offset});
        sum += static_cast<std::uint32_t>(reader.governing_element(ElementOffset{offset}));
    }
    return sum;
}

}  // namespace

TEST_F(ImageReaderTest, RecordsAreReadAsTheyLie) {
    const ImageReader image = reader();
    EXPECT_EQ(image.element_count(), 5u);
    EXPECT_EQ(image.header().generationnum, 1187u);
    EXPECT_EQ(image.name_of(kRootElement), "/");
    EXPECT_EQ(image.name_of(element(kReport)), "report.txt");
    EXPECT_EQ(image.parent_of(element(kDocs)), element(kShared));
    EXPECT_EQ(image.parent_of(kRootElement), std::nullopt);
    const AclOffset acl{image.element(element(kPrivate))->acl_offset};
    ASSERT_EQ(image.acl_head(acl)->entries, 2u);
    EXPECT_EQ(std::uint32_t{image.ace(acl, 0)->id}, 1002u);
    EXPECT_EQ(std::uint16_t{image.ace(acl, 1)->perm_mask}, 7u);
    const ListOffset list{image.element(kRootElement)->clist_offset};
    ASSERT_EQ(image.list_head(list)->filled, 2u);
    EXPECT_EQ(image.slot(list, 1), element(kPrivate));
}

TEST_F(ImageReaderTest, PathDepthAndGoverningElementFollowTheParents) {
    const ImageReader image = reader();
    EXPECT_EQ(image.path_of(kRootElement), "/");
    EXPECT_EQ(image.path_of(element(kReport)), "/Shared/Docs/report.txt");
    EXPECT_EQ(image.depth_of(kRootElement), 0u);
    EXPECT_EQ(image.depth_of(element(kReport)), 3u);
    EXPECT_EQ(image.governing_element(element(kReport)), element(kDocs));
    EXPECT_EQ(image.governing_element(element(kDocs)), element(kDocs));
    EXPECT_EQ(image.governing_element(kRootElement), kRootElement);
}

TEST_F(ImageReaderTest, NoHeaderMeansNoReader) {
    for (std::size_t size = 0; size < kHeaderSize; ++size)
        EXPECT_FALSE(ImageReader::open(std::span(image_).first(size)));
    EXPECT_TRUE(ImageReader::open(std::span(image_).first(kHeaderSize)));
}

TEST_F(ImageReaderTest, RecordsThatLeaveTheirRegionAreNotThere) {
    const ImageReader image = reader();
    const std::uint32_t names = image.header().nameelem_size;
    EXPECT_TRUE(image.name_head(NameOffset{names - 12}));
    EXPECT_FALSE(image.name_head(NameOffset{names - 11}));
    EXPECT_FALSE(image.name_head(NameOffset{0xFFFFFFFF}));
    EXPECT_TRUE(image.element(element(4)));
    EXPECT_FALSE(image.element(element(5)));
    EXPECT_FALSE(image.element(ElementOffset{12}));
    const std::uint32_t acls = image.header().acl_size;
    EXPECT_TRUE(image.acl_head(AclOffset{acls - 8}));
    EXPECT_FALSE(image.ace(AclOffset{acls - 8}, 0));
    EXPECT_FALSE(image.ace(AclOffset{0}, ~std::uint64_t{0} / 12));
    EXPECT_FALSE(image.slot(ListOffset{0}, ~std::uint64_t{0} / 4 - 2));
}

TEST_F(ImageReaderTest, NameTextEndsInsideItsRegion) {
    put16(image_, name_at(image_, kPrivate), 8);  // it has 7 and one zero behind, at the very end
    EXPECT_TRUE(reader().name_text(NameOffset{get32(image_, element_at(kPrivate) + 8)}));
    put16(image_, name_at(image_, kPrivate), 9);
    EXPECT_FALSE(reader().name_text(NameOffset{get32(image_, element_at(kPrivate) + 8)}));
}

TEST_F(ImageReaderTest, RegionsBehindTheBytesAreEmpty) {
    put32(image_, 124, 0xFFFFFFF0);
    put32(image_, 128, 0xFFFFFFF0);
    EXPECT_EQ(reader().element_count(), 0u);
    EXPECT_FALSE(reader().element(kRootElement));
}

TEST_F(ImageReaderTest, ACycleOfParentsEndsEveryClimb) {
    put32(image_, element_at(kShared) + 4, 24 * kDocs);  // a parent behind its child
    EXPECT_EQ(reader().parent_of(element(kShared)), std::nullopt);
    EXPECT_EQ(reader().depth_of(element(kReport)), 2u);
    EXPECT_EQ(reader().path_of(element(kReport)), "…/Docs/report.txt");
    put32(image_, element_at(kShared) + 4, 24 * kShared);  // its own parent
    EXPECT_EQ(reader().parent_of(element(kShared)), std::nullopt);
}

TEST_F(ImageReaderTest, AFinishedPathIsCutOffWhereNoLookupCouldFollow) {
    Node leaf{"leaf", {}, {}, {}};
    for (int i = 0; i < 30; ++i) {
        Node folder{std::string(200, static_cast<char>('a' + i % 26)), {}, {}, {}};
        folder.children.push_back(std::move(leaf));
        leaf = std::move(folder);
    }
    Node root{"/", {}, {}, {}};
    root.children.push_back(std::move(leaf));
    const Image deep = build_image(root);
    const ImageReader image = *ImageReader::open(deep);
    const std::string path = image.path_of(element(31));
    EXPECT_TRUE(path.starts_with("…/"));
    EXPECT_TRUE(path.ends_with("/leaf"));
    EXPECT_LE(path.size(), 4095u + std::string("…").size());
    EXPECT_GT(path.size(), 3800u);
}

TEST_F(ImageReaderTest, DamagedBytesAreReadWithoutLeavingThem) {
    std::mt19937 random(20240611);
    std::uint64_t sum = 0;
    for (int round = 0; round < 3000; ++round) {
        // On the heap and of its exact size, so that a sanitizer sees one byte too many.
        Image damaged = image_;
        damaged.resize(std::uniform_int_distribution<std::size_t>(0, image_.size())(random));
        damaged.shrink_to_fit();
        for (int i = 0; i < 8 && !damaged.empty(); ++i)
            damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
        if (const auto image = ImageReader::open(damaged)) sum += read_all(*image);
    }
    EXPECT_GT(sum, 0u);
}
