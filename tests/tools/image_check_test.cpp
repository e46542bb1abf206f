// The verifier: honest images are sound, every bit that a law covers is guarded, and damage of
// every kind is named at the record that has it.
#include "image_check.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "image_bytes.h"

using namespace kvadmin;
using namespace kvtest;

namespace {

class ImageCheckTest : public testing::Test {
protected:
    ConfigTable config_{-1};
    Image image_ = example_image();
    ImageReport report() const { return check_image(image_); }
};

// Whether one of the findings is about this record and says this.
testing::AssertionResult names(const ImageReport& report, ImageRecord record,
                               std::uint64_t file_offset, std::string_view path,
                               std::string_view part) {
    for (const ImageFinding& finding : report.findings) {
        if (finding.record == record && finding.file_offset == file_offset &&
            finding.path == path && finding.message.find(part) != std::string::npos)
            return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "no such finding among:\n" << all_lines(report);
}

std::string random_name(std::mt19937& random, std::size_t index) {
    static const char* const kParts[] = {"a",  "B",  "report", "Ä", "ß",  "日本", "𝛑",
                                         " x", ".e", "-",      "é", "OK", "~",    "0"};
    std::string name;
    const std::size_t parts = 1 + random() % 5;
    for (std::size_t i = 0; i < parts; ++i) name += kParts[random() % std::size(kParts)];
    return name + std::to_string(index);
}

void random_entries(std::mt19937& random,
                    std::vector<std::pair<std::uint32_t, std::uint32_t>>& out) {
    for (std::uint32_t i = random() % 4; i > 0; --i)
        out.emplace_back(1000 + i * 7, random() % 3 == 0 ? random() % 65536 : random() % 32);
}

// A tree of about that many elements, deep or wide by chance.
Node random_tree(std::mt19937& random, std::size_t elements) {
    Node root{"/", {}, {}, {}};
    std::vector<std::vector<std::size_t>> ways{{}};
    for (std::size_t i = 1; i < elements; ++i) {
        std::vector<std::size_t> way =
            ways[random() % 3 == 0 ? ways.size() - 1 : random() % ways.size()];
        Node* at = &root;
        for (const std::size_t step : way) at = &at->children[step];
        Node child{random_name(random, i), {}, {}, {}};
        random_entries(random, child.users);
        random_entries(random, child.groups);
        way.push_back(at->children.size());
        at->children.push_back(std::move(child));
        ways.push_back(std::move(way));
    }
    return root;
}

}  // namespace

TEST_F(ImageCheckTest, TheExampleImageIsSound) {
    EXPECT_TRUE(report().sound()) << all_lines(report());
    EXPECT_TRUE(report().walked);
    EXPECT_EQ(report().elements, 5u);
    EXPECT_EQ(report().aces, 6u);
}

TEST_F(ImageCheckTest, AChildlessRootIsSound) {
    image_ = build_image(Node{"/", {{1001, 7}}, {}, {}});
    EXPECT_TRUE(report().sound()) << all_lines(report());
}

TEST_F(ImageCheckTest, KeysOfAnElementInAnyOrderAreSound) {
    image_ = build_image(
        R"({"VERSION": "123456789012345678901234567890123456", "TOTALFSELEMS": 4, "TOTALACES": 1,
            "TOTALNAMELEN": 8})",
        R"([{"NUMCHILDREN": 1},
            {"CHILDREN": [{"NUMCHILDREN": 2},
               {"ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}],
                "CHILDREN": [{"NUMCHILDREN": 1},
                  {"CHILDREN": [{"NUMCHILDREN": 0}], "DIR": "x",
                   "ACL": [{"NUMUSERS": 1}, {"NUMGROUPS": 0}, {"USERS": {"5": 3}}, {"GROUPS": {}}]}],
                "DIR": "a"},
               {"DIR": "b", "CHILDREN": [{"NUMCHILDREN": 0}],
                "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}]}],
             "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}],
             "DIR": "/"}])");
    EXPECT_TRUE(report().sound()) << all_lines(report());
}

TEST_F(ImageCheckTest, RandomHonestImagesAreSound) {
    std::mt19937 random(7);
    std::size_t elements = 0;
    for (int round = 0; round < 150; ++round) {
        image_ = build_image(random_tree(random, 1 + random() % 60));
        ASSERT_TRUE(report().sound()) << "round " << round << "\n" << all_lines(report());
        elements += report().elements;
    }
    EXPECT_GT(elements, 3000u);
}

TEST_F(ImageCheckTest, EveryTruncationIsFound) {
    for (std::size_t size = 0; size < image_.size(); ++size)
        ASSERT_FALSE(check_image(std::span(image_).first(size)).sound()) << size << " bytes";
}

TEST_F(ImageCheckTest, AByteTooManyIsFoundAndTheRestStillWalked) {
    image_.push_back(0);
    EXPECT_TRUE(
        names(report(), ImageRecord::kImage, 0, "", "has 582 bytes, but its counts make 581"));
    EXPECT_TRUE(report().walked);
    EXPECT_EQ(report().findings_total, 1u);
}

TEST_F(ImageCheckTest, AnImageOfAHeaderAloneHasNoRoot) {
    image_.assign(176, 0);
    put32(image_, 124, 176);
    for (const std::size_t start : {136, 148, 160}) put32(image_, start, 176);
    put32(image_, 172, KAVRIN_BE_HEADER_SIGNATURE);
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
    EXPECT_TRUE(names(report(), ImageRecord::kImage, 0, "", "has no elements"));
    EXPECT_FALSE(report().walked);
}

TEST_F(ImageCheckTest, GarbageIsNeverSound) {
    std::mt19937 random(11);
    for (int round = 0; round < 2000; ++round) {
        Image garbage(random() % 2000);
        for (std::uint8_t& byte : garbage) byte = static_cast<std::uint8_t>(random());
        if (garbage.size() > 176 && round % 2 == 0)  // a header that leads on to the records
            std::copy(image_.begin(), image_.begin() + 176, garbage.begin());
        if (garbage.size() > 581 && round % 4 == 0) garbage.resize(581);
        ASSERT_FALSE(check_image(garbage).sound());
    }
}

TEST_F(ImageCheckTest, FindingsAreCappedAndCounted) {
    Node root{"/", {}, {}, {}};
    for (int i = 0; i < 300; ++i) root.children.push_back({"f" + std::to_string(i), {}, {}, {}});
    image_ = build_image(root);
    for (std::size_t i = 1; i <= 300; ++i) put32(image_, element_at(i), 0);
    EXPECT_EQ(report().findings_total, 300u);
    EXPECT_EQ(report().findings.size(), ImageReport::kKeptFindings);
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(1), "/f0", "signature"));
}

TEST_F(ImageCheckTest, AFindingIsOneLineWithRecordPlaceAndPath) {
    put32(image_, acl_at(image_, kDocs), 0);
    const std::uint64_t offset = get32(image_, element_at(kDocs) + 16);
    EXPECT_EQ(report().first_line(),
              "ACL " + std::to_string(offset) + " (byte " + std::to_string(acl_at(image_, kDocs)) +
                  ") of /Shared/Docs: its signature is 0x00000000, not 0xcdefcdef");
}

// Header ------------------------------------------------------------------------------------------

TEST_F(ImageCheckTest, ADamagedCountIsNamedAloneByWhatTheOthersAgreeOn) {
    for (const std::size_t field : {112u, 116u, 120u, 124u, 128u, 132u, 136u, 140u, 144u, 148u,
                                    152u, 156u, 160u, 164u, 168u, 172u}) {
        Image damaged = image_;
        put32(damaged, field, get32(damaged, field) + 12);
        const ImageReport found = check_image(damaged);
        ASSERT_EQ(found.findings_total, 1u) << "field at " << field << "\n" << all_lines(found);
        EXPECT_EQ(found.findings[0].record, ImageRecord::kHeader);
        EXPECT_EQ(found.findings[0].file_offset, field);
        EXPECT_TRUE(found.walked);
    }
}

TEST_F(ImageCheckTest, CountsBeyondTheBytesAreFoundWithoutReadingThere) {
    for (const std::size_t field : {112u, 128u, 132u, 140u, 152u, 164u}) put32(image_, field, ~0u);
    EXPECT_FALSE(report().sound());
    EXPECT_FALSE(report().walked);
}

TEST_F(ImageCheckTest, TextFieldsArePaddedAndValid) {
    std::copy_n("abc", 3, image_.begin() + 20);
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 0, "", "mapname is not padded"));
    std::fill_n(image_.begin(), 32, 'x');
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 0, "", "mapname does not end"));
    image_[1] = 0xC3;
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 0, "", "mapname is not valid UTF-8"));
    image_[40] = 0xFF;
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 32, "", "version"));
    image_[99] = 1;
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 68, "", "nextmap is not zero"));
}

TEST_F(ImageCheckTest, CountsThatSayMoreThanWasBuiltAreFound) {
    image_ =
        build_image(R"({"TOTALFSELEMS": 6, "TOTALACES": 7, "TOTALNAMELEN": 40})", kExampleData);
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 132, "", "next_free_fselem is 120"));
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 144, "", "next_free_nameelem"));
    EXPECT_TRUE(names(report(), ImageRecord::kHeader, 156, "", "next_free_acl"));
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(5), "", "all zero"));
    EXPECT_TRUE(names(report(), ImageRecord::kImage, 0, "", "has 6 entries in its ACLs"));
}

// Elements ----------------------------------------------------------------------------------------

TEST_F(ImageCheckTest, ASharedAclIsNamedWithBothElements) {
    put32(image_, element_at(kDocs) + 16, get32(image_, element_at(kShared) + 16));
    EXPECT_TRUE(names(report(), ImageRecord::kAcl, acl_at(image_, kShared), "/Shared",
                      "the elements at 24 and 48 both refer to it"));
    const ImageFinding* orphan = nullptr;
    const ImageReport found = report();
    for (const ImageFinding& finding : found.findings)
        if (finding.message == "no element refers to it") orphan = &finding;
    ASSERT_NE(orphan, nullptr);
    EXPECT_EQ(orphan->record, ImageRecord::kAcl);
    EXPECT_EQ(found.findings_total, 2u) << all_lines(found);
}

TEST_F(ImageCheckTest, ASharedNameAndASharedListAreNamed) {
    Image shared_name = image_;
    put32(shared_name, element_at(kPrivate) + 8, get32(image_, element_at(kReport) + 8));
    EXPECT_TRUE(names(check_image(shared_name), ImageRecord::kName, name_at(image_, kReport),
                      "/Shared/Docs/report.txt", "the elements at 72 and 96 both"));
    put32(image_, element_at(kDocs) + 12, get32(image_, element_at(kShared) + 12));
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kShared), "/Shared",
                      "the elements at 24 and 48 both"));
}

TEST_F(ImageCheckTest, ACycleOfParentsIsNamedAndEnds) {
    put32(image_, element_at(kShared) + 4, 24 * kDocs);
    put32(image_, element_at(kDocs) + 4, 24 * kShared);
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(kShared), "/Shared",
                      "parent_offset is 48, but the element at 0 lists it"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, ACycleOfListsIsNamedAndEnds) {
    put32(image_, list_at(image_, kDocs) + 12, 24 * kShared);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kDocs), "/Shared/Docs",
                      "slot 0 names the element at 24, which is not behind its folder"));
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(kReport),
                      "/Shared/Docs/report.txt", "no child list names it"));
}

TEST_F(ImageCheckTest, OnlyTheRootIsFlaggedAsOneAndHasTheRootsParent) {
    Image flagged = image_;
    put32(flagged, element_at(kReport) + 20, 3);
    EXPECT_TRUE(names(check_image(flagged), ImageRecord::kElement, element_at(kReport),
                      "/Shared/Docs/report.txt", "is not the root and is flagged"));
    put32(image_, element_at(kRoot) + 20, 0);
    put32(image_, element_at(kRoot) + 4, FSELEM_ROOT_OFFSET);
    EXPECT_TRUE(names(report(), ImageRecord::kElement, 176, "/", "not flagged as such"));
    EXPECT_TRUE(names(report(), ImageRecord::kElement, 176, "/", "0xffffffff, not 0xfffffffe"));
}

TEST_F(ImageCheckTest, ARootOfAnotherNameIsNamed) {
    image_ = build_image(Node{"x", {}, {}, {}});
    EXPECT_TRUE(names(report(), ImageRecord::kName, name_at(image_, kRoot), "/",
                      "the root's name is not '/'"));
    EXPECT_EQ(report().findings_total, 1u);
}

TEST_F(ImageCheckTest, ChildlessElementsHaveNoListAndOthersHaveOne) {
    Image childless = image_;
    put32(childless, element_at(kDocs) + 20, FSELEM_FLAG_NOCHILDREN);
    EXPECT_TRUE(names(check_image(childless), ImageRecord::kElement, element_at(kDocs),
                      "/Shared/Docs", "marked childless and refers to the child list"));
    put32(image_, element_at(kReport) + 20, 0);
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(kReport),
                      "/Shared/Docs/report.txt", "has no child list and is not marked"));
    EXPECT_EQ(report().findings_total, 1u);
}

TEST_F(ImageCheckTest, OffsetsThatHitNoRecordAreNamed) {
    put32(image_, element_at(kDocs) + 8, get32(image_, element_at(kDocs) + 8) + 1);
    put32(image_, element_at(kDocs) + 16, 0x80000000);
    put32(image_, element_at(kDocs) + 12, 2);
    for (const char* part :
         {"name_elem_offset is", "outside of the ACL region", "no child list begins"})
        EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(kDocs), "/Shared/?", part));
}

TEST_F(ImageCheckTest, ChildrenStandInTheOrderOfTheirFolder) {
    const std::size_t slots = list_at(image_, kRoot) + 12;
    put32(image_, slots, 24 * kPrivate);
    put32(image_, slots + 4, 24 * kShared);
    EXPECT_TRUE(
        names(report(), ImageRecord::kChildList, list_at(image_, kRoot), "/",
              "slot 1 names the element at 24, which is not behind that of the slot before"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

// Two folders' elements mixed: every list, parent and reference is right, only the order is not.
TEST_F(ImageCheckTest, AFoldersElementsStandTogether) {
    image_ =
        build_image(Node{"/", {}, {}, {{"a", {}, {}, {{"x", {}, {}, {}}}}, {"b", {}, {}, {}}}});
    ASSERT_TRUE(report().sound());
    put32(image_, list_at(image_, 0) + 16, 24 * 2);
    put32(image_, list_at(image_, 1) + 12, 24 * 3);
    put32(image_, element_at(2) + 4, 0);
    put32(image_, element_at(3) + 4, 24);
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(3), "/a/b",
                      "it does not stand below its parent"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, AnElementThatTwoListsNameIsNamed) {
    put32(image_, list_at(image_, kDocs) + 12, 24 * kPrivate);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kDocs), "/Shared/Docs",
                      "slot 0 names the element at 96, which a slot at"));
    EXPECT_TRUE(names(report(), ImageRecord::kElement, element_at(kReport),
                      "/Shared/Docs/report.txt", "no child list names it"));
}

// Names, ACLs, lists ------------------------------------------------------------------------------

TEST_F(ImageCheckTest, ANameThatReachesTooFarIsNamedAndTheNextOnesAreFound) {
    put16(image_, name_at(image_, kShared), 60000);
    EXPECT_TRUE(names(report(), ImageRecord::kName, name_at(image_, kShared), "/?",
                      "it claims 60013 bytes"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, ALengthThatIsTooShortIsNamedAtItsRecord) {
    put16(image_, name_at(image_, kShared), 3);
    EXPECT_TRUE(names(report(), ImageRecord::kName, name_at(image_, kShared), "/Sha",
                      "no record begins behind them"));
    // What its text is then judged by, terminator and hash, is named at the same record.
    const ImageReport found = report();
    for (const ImageFinding& finding : found.findings)
        EXPECT_EQ(finding.file_offset, name_at(image_, kShared)) << line_for(finding);
    EXPECT_EQ(report().findings_total, 3u) << all_lines(report());
    image_ = example_image();
    put32(image_, acl_at(image_, kShared) + 4, 1);
    EXPECT_TRUE(names(report(), ImageRecord::kAcl, acl_at(image_, kShared), "/Shared",
                      "it claims 20 bytes, and no record begins behind them"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, ANameKeepsItsOwnLaws) {
    const std::size_t at = name_at(image_, kDocs);
    const auto says = [&](std::string_view part) {
        const ImageReport found = report();
        for (const ImageFinding& finding : found.findings)
            if (finding.record == ImageRecord::kName && finding.file_offset == at &&
                finding.message.find(part) != std::string::npos)
                return true;
        return false;
    };
    put16(image_, at + 2, 1);
    EXPECT_TRUE(says("padding"));
    put32(image_, at + 4, 0);
    EXPECT_TRUE(says("signature"));
    put32(image_, at + 8, 5);
    EXPECT_TRUE(says("hash is 0x00000005, but 'Docs' hashes to"));
    image_[at + 16] = 'x';
    EXPECT_TRUE(says("no zero byte follows"));
    image_[at + 13] = 0;
    EXPECT_TRUE(says("a zero byte lies in its text"));
    image_[at + 14] = 0xC3;
    EXPECT_TRUE(says("not valid UTF-8"));
}

TEST_F(ImageCheckTest, AnAclOfFourBillionEntriesIsNamedAlone) {
    put32(image_, acl_at(image_, kDocs) + 4, 0xFFFFFFFF);
    EXPECT_TRUE(names(report(), ImageRecord::kAcl, acl_at(image_, kDocs), "/Shared/Docs",
                      "it claims 51539607548 bytes and so reaches over the record at"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, AnEntrysTypeAndPaddingAreChecked) {
    put32(image_, acl_at(image_, kDocs) + 8, 3);
    put16(image_, acl_at(image_, kPrivate) + 8 + 12 + 10, 1);
    EXPECT_TRUE(names(report(), ImageRecord::kAcl, acl_at(image_, kDocs), "/Shared/Docs",
                      "entry 0 has the type 3"));
    EXPECT_TRUE(names(report(), ImageRecord::kAcl, acl_at(image_, kPrivate), "/Private",
                      "entry 1 has the padding"));
}

TEST_F(ImageCheckTest, AListOfFourBillionChildrenIsNamed) {
    put32(image_, list_at(image_, kShared) + 4, 0xFFFFFFFF);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kShared), "/Shared",
                      "it claims 17179869192 bytes"));
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kShared), "/Shared",
                      "1 of its 4294967295 slots are filled"));
    EXPECT_EQ(report().findings_total, 2u) << all_lines(report());
}

TEST_F(ImageCheckTest, ASlotThatIsNoElementIsNamed) {
    put32(image_, list_at(image_, kShared) + 12, 50);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, list_at(image_, kShared), "/Shared",
                      "slot 0 is 50, where no element is"));
}

TEST_F(ImageCheckTest, TheListOfTheTopLevelStaysAsItWasMade) {
    const std::size_t at = header_of(image_).list_offset;
    Image damaged = image_;
    put32(damaged, at, 0);
    EXPECT_TRUE(names(check_image(damaged), ImageRecord::kChildList, at, "", "signature"));
    put32(image_, at + 8, 1);
    put32(image_, at + 12, 24);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, at, "", "1 slots of the top level"));
    EXPECT_TRUE(
        names(report(), ImageRecord::kChildList, at, "", "slot of the top level's list is 24"));
}

TEST_F(ImageCheckTest, ARecordThatNobodyRefersToIsLostSpace) {
    image_ = build_image(R"({"TOTALFSELEMS": 2, "TOTALACES": 1, "TOTALNAMELEN": 4})",
                         R"([{"NUMCHILDREN": 1},
            {"DIR": "/", "CHILDREN": [{"NUMCHILDREN": 1},
               {"DIR": "a", "CHILDREN": [{"NUMCHILDREN": 0}],
                "ACL": [{"NUMUSERS": 1}, {"NUMGROUPS": 0}, {"USERS": {"5": 3}}, {"GROUPS": {}}]}],
             "ACL": [{"NUMUSERS": 0}, {"NUMGROUPS": 0}, {"USERS": {}}, {"GROUPS": {}}]}])");
    ASSERT_TRUE(report().sound()) << all_lines(report());
    // Another list in the unused space, complete but nobody's.
    const std::size_t free = header_of(image_).list_offset + header_of(image_).next_free_list;
    ASSERT_EQ(free, image_.size());
    image_ =
        build_image(Node{"/", {}, {}, {{"a", {}, {}, {}}, {"b", {}, {}, {}}, {"c", {}, {}, {}}}});
    const std::size_t tail = header_of(image_).list_offset + header_of(image_).next_free_list;
    ASSERT_GE(image_.size(), tail + 16);
    put32(image_, tail, LISTSIG);
    put32(image_, tail + 4, 1);
    put32(image_, tail + 8, 1);
    put32(image_, tail + 12, 24);
    put32(image_, 168, header_of(image_).next_free_list + 16);
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, tail, "", "no element refers to it"));
    EXPECT_EQ(report().findings_total, 1u) << all_lines(report());
}

TEST_F(ImageCheckTest, WhatLiesBehindTheLastRecordIsZero) {
    image_.back() = 9;
    EXPECT_TRUE(names(report(), ImageRecord::kChildList, image_.size() - 1, "",
                      "the byte 0x09 lies behind the last record"));
}

// Hostile sizes -----------------------------------------------------------------------------------

// Every element refers to one list that lists them all, and to one name and one ACL: whatever is
// done again for each reference would take 10^10 steps.
TEST_F(ImageCheckTest, ManyReferencesToOneRecordCostNoMoreThanTheirNumber) {
    constexpr std::uint32_t kElements = 100000;
    Node root{"/", {}, {}, {}};
    for (std::uint32_t i = 1; i < kElements; ++i)
        root.children.push_back({"f" + std::to_string(i), {}, {}, {}});
    image_ = build_image(root);
    for (std::uint32_t i = 1; i < kElements; ++i) {
        put32(image_, element_at(i) + 4, 24 * (i - 1));
        put32(image_, element_at(i) + 8, 0);
        put32(image_, element_at(i) + 12, 16);
        put32(image_, element_at(i) + 16, 0);
        put32(image_, element_at(i) + 20, 0);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_GT(report().findings_total, 3u * (kElements - 1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

// Lists that overlap at every fourth byte, each claiming all that follows.
TEST_F(ImageCheckTest, OverlappingListsCostNoMoreThanTheirBytes) {
    constexpr std::uint32_t kElements = 50000;
    Node root{"/", {}, {}, {}};
    for (std::uint32_t i = 1; i < kElements; ++i) root.children.push_back({"f", {}, {}, {}});
    image_ = build_image(root);
    const kavrin_be_header_t header = header_of(image_);
    for (std::uint32_t at = 0; at + 4 <= header.list_size; at += 4)
        put32(image_, header.list_offset + at, LISTSIG);
    for (std::uint32_t i = 0; i < kElements; ++i) {
        put32(image_, element_at(i) + 12, 16 + 4 * i);
        put32(image_, element_at(i) + 20, i == 0 ? 1 : 0);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(report().sound());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}
