// The lookup of a path in an image written by hand: what is found, what is only the nearest
// ancestor, how names are compared, and what damage does.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <string>

#include "hand_image.h"
#include "provoke.h"
#include "support.h"

namespace {

using kvtest::expect_in_child;
using kvtest::HandImage;
using kvtest::HandNode;
using kvtest::logged;
using kvtest::logged_part;

struct Found {
    e_membe_shm_err code;
    std::uint32_t offset;
    bool operator==(const Found&) const = default;
};
void PrintTo(const Found& found, std::ostream* out) {
    *out << "code " << found.code << ", offset " << found.offset;
}

Found find(void* image, std::string path) {
    path_array_t* array = nullptr;
    get_path_elem_smb4(path.data(), static_cast<unsigned>(path.size() + 1), &array);
    EXPECT_NE(array, nullptr);
    Found found{SHM_MEMBE_OK, 0};
    found.code = find_fselem_fromname(image, array, &found.offset);
    cleanup_path_array_smb4(&array);
    return found;
}
Found find(HandImage& image, const std::string& path) {
    return find(image.data(), path);
}

HandNode tree() {
    return {
        "/",
        {},
        {{"Shared", {}, {{"Docs", {}, {{"a.txt", {}, {}}, {"b.txt", {}, {}}}}, {"Empty", {}, {}}}},
         {"Private", {}, {{"Café", {}, {{"leaf", {}, {}}}}}}}};
}

class Lookup : public testing::Test {
protected:
    Found exact(const std::string& name) { return {SHM_MEMBE_OK, image_.offset(name)}; }
    Found remapped(const std::string& name) {
        return {SHM_MEMBE_OK_NAMEREMAPPED, image_.offset(name)};
    }
    kvtest::ConfigTable table_{-1};
    HandImage image_{tree()};
};

TEST_F(Lookup, RootItselfIsReportedAsRemapped) {
    EXPECT_EQ(find(image_, "/"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    EXPECT_EQ(find(image_, "///"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    EXPECT_EQ(find(image_, ""), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
}

TEST_F(Lookup, ElementWithChildrenIsFoundExactlyInAnyCase) {
    EXPECT_EQ(find(image_, "/Shared"), exact("Shared"));
    EXPECT_EQ(find(image_, "/Shared/Docs"), exact("Docs"));
    EXPECT_EQ(find(image_, "/shared/DOCS"), exact("Docs"));
    EXPECT_EQ(find(image_, "/SHARED/docs/"), exact("Docs"));
    EXPECT_EQ(find(image_, "/Private"), exact("Private"));
}

TEST_F(Lookup, RelativePathWalksFromTheRootToo) {
    EXPECT_EQ(find(image_, "Shared"), exact("Shared"));
    EXPECT_EQ(find(image_, "Shared/Docs"), exact("Docs"));
    EXPECT_EQ(find(image_, "shared/docs/a.txt"), remapped("a.txt"));
    EXPECT_EQ(find(image_, "new"), remapped("/"));
}

TEST_F(Lookup, UnknownNameGivesItsNearestAncestor) {
    EXPECT_EQ(find(image_, "/Shared/Docs/new.txt"), remapped("Docs"));
    EXPECT_EQ(find(image_, "/Shared/Docs/new/deeper/still"), remapped("Docs"));
    EXPECT_EQ(find(image_, "/Shared/new/a.txt"), remapped("Shared"));
    EXPECT_EQ(find(image_, "/new"), remapped("/"));
    EXPECT_EQ(find(image_, "/Docs"), remapped("/"));
}

TEST_F(Lookup, ChildlessElementIsReportedAsRemapped) {
    EXPECT_EQ(find(image_, "/Shared/Docs/a.txt"), remapped("a.txt"));
    EXPECT_EQ(find(image_, "/Shared/Docs/B.TXT"), remapped("b.txt"));
    EXPECT_EQ(find(image_, "/Shared/Empty"), remapped("Empty"));
}

TEST_F(Lookup, NothingLiesBelowAChildlessElement) {
    EXPECT_EQ(find(image_, "/Shared/Docs/a.txt/x"), remapped("a.txt"));
    EXPECT_EQ(find(image_, "/Shared/Docs/a.txt/b.txt"), remapped("a.txt"));
    EXPECT_EQ(find(image_, "/Shared/Empty/x/y"), remapped("Empty"));
}

TEST_F(Lookup, NameThatIsOnlyAPrefixIsAnotherName) {
    EXPECT_EQ(find(image_, "/Shared/Doc"), remapped("Shared"));
    EXPECT_EQ(find(image_, "/Shared/Docss"), remapped("Shared"));
}

TEST_F(Lookup, HashAndLengthAreAskedBeforeTheText) {
    image_.put32(image_.name_at("Docs") + 8, kvtest::reference_hash("Docs") ^ 1u);
    EXPECT_EQ(find(image_, "/Shared/Docs"), remapped("Shared"));
    image_.put32(image_.name_at("Docs") + 8, kvtest::reference_hash("Docs"));
    EXPECT_EQ(find(image_, "/Shared/Docs"), exact("Docs"));
    image_.put16(image_.name_at("Docs"), 3);
    EXPECT_EQ(find(image_, "/Shared/Docs"), remapped("Shared"));
    // Equal hash and length do not make a match.
    image_.put32(image_.name_at("Private") + 8, kvtest::reference_hash("Another"));
    EXPECT_EQ(find(image_, "/Another"), remapped("/"));
}

TEST_F(Lookup, FirstSlotWinsBetweenNamesThatDifferInCase) {
    HandImage image({"/", {}, {{"docs", {}, {{"x", {}, {}}}}, {"DOCS", {}, {{"y", {}, {}}}}}});
    EXPECT_EQ(find(image, "/DOCS"), (Found{SHM_MEMBE_OK, image.offset("docs")}));
    EXPECT_EQ(find(image, "/docs"), (Found{SHM_MEMBE_OK, image.offset("docs")}));
    EXPECT_EQ(find(image, "/docs/y"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, image.offset("docs")}));
}

TEST_F(Lookup, ForeignLettersAreFoldedBySamba) {
    HandImage image({"/", {}, {{"Ärger", {}, {{"x", {}, {}}}}, {"Örger", {}, {{"y", {}, {}}}}}});
    EXPECT_EQ(find(image, "/äRGER"), (Found{SHM_MEMBE_OK, image.offset("Ärger")}));
    EXPECT_EQ(find(image, "/Ärger"), (Found{SHM_MEMBE_OK, image.offset("Ärger")}));
    EXPECT_EQ(find(image, "/ÖRGER"), (Found{SHM_MEMBE_OK, image.offset("Örger")}));
    EXPECT_EQ(find(image, "/Ürger"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    EXPECT_EQ(find(image_, "/private/CAFÉ"), exact("Café"));
}

TEST_F(Lookup, ForeignNamesOfEqualHashAndLengthAreToldApart) {
    HandImage image({"/", {}, {{"Ä", {}, {{"x", {}, {}}}}, {"Ö", {}, {{"y", {}, {}}}}}});
    ASSERT_EQ(image.get32(image.name_at("Ä") + 8), image.get32(image.name_at("Ö") + 8));
    EXPECT_EQ(find(image, "/ö"), (Found{SHM_MEMBE_OK, image.offset("Ö")}));
    EXPECT_EQ(find(image, "/ä"), (Found{SHM_MEMBE_OK, image.offset("Ä")}));
    EXPECT_EQ(find(image, "/Ü"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
}

TEST_F(Lookup, BytesThatAreNoTextMatchThemselves) {
    HandImage image({"/", {}, {{"\xFF\xFE", {}, {{"x", {}, {}}}}}});
    EXPECT_EQ(find(image, "/\xFF\xFE"), (Found{SHM_MEMBE_OK, image.offset("\xFF\xFE")}));
    EXPECT_EQ(find(image, "/\xFF\xFD"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
}

TEST_F(Lookup, IdenticalBytesMatchWhateverSambaSays) {
    expect_in_child([] {
        kvtest::replace_samba(UNEQUAL_SAMBA);
        const kvtest::ConfigTable table(10);
        HandImage image({"/", {}, {{"Ärger", {}, {{"x", {}, {}}}}}});
        EXPECT_EQ(find(image, "/Ärger"), (Found{SHM_MEMBE_OK, image.offset("Ärger")}));
        EXPECT_EQ(logged("StrnCaseCmp strcmpres 1006"), 1);
        EXPECT_EQ(logged("memcmp strcmpres 0"), 1);
        EXPECT_EQ(logged("Found match cnelem Ärger and pelem Ärger"), 1);
        EXPECT_EQ(find(image, "/ärger"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    });
}

TEST_F(Lookup, SambaIsAskedOnlyWhenBothNamesAreForeignThere) {
    expect_in_child([] {
        kvtest::replace_samba();
        HandImage image({"/", {}, {{"aé", {}, {{"x", {}, {}}}}}});
        ASSERT_EQ(kvtest::reference_hash("aé"), kvtest::reference_hash("éa"));
        EXPECT_EQ(find(image, "/éa"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
        EXPECT_EQ(find(image, "/ab"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    });
    const kvtest::ChildResult without = kvtest::run_child([] {
        kvtest::replace_samba();
        HandImage image({"/", {}, {{"aé", {}, {{"x", {}, {}}}}}});
        find(image, "/aé");
        return 5;
    });
    EXPECT_EQ(without.exit_code, 1);
}

TEST_F(Lookup, ListWithoutSlotsEndsTheWalk) {
    image_.put32(image_.list_at("Docs") + 4, 0);
    EXPECT_EQ(find(image_, "/Shared/Docs/a.txt"), remapped("Docs"));
    EXPECT_EQ(find(image_, "/Shared/Docs"), exact("Docs"));
    HandImage alone({"/", {}, {}});
    EXPECT_EQ(find(alone, "/x"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
    EXPECT_EQ(find(alone, "/"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 0}));
}

TEST_F(Lookup, CapacityBoundsTheScanWhateverIsFilled) {
    image_.put32(image_.list_at("Docs") + 8, 0);  // filled slots are not counted
    EXPECT_EQ(find(image_, "/Shared/Docs/b.txt"), remapped("b.txt"));
    image_.put32(image_.list_at("Docs") + 16, 0);  // an unfilled slot reads as the root
    EXPECT_EQ(find(image_, "/Shared/Docs/b.txt"), remapped("Docs"));
    image_.put32(image_.list_at("Docs") + 4, 1);
    EXPECT_EQ(find(image_, "/Shared/Docs/a.txt"), remapped("a.txt"));
}

TEST_F(Lookup, DeepAndLongNamesAreFound) {
    HandNode node{"leaf", {}, {}};
    std::string path = "leaf";
    for (int depth = 0; depth < 60; ++depth) {
        const std::string name = std::to_string(depth) + std::string(250, 'n');
        path.insert(0, name + "/");
        node = {name, {}, {std::move(node)}};
    }
    HandImage image({"/", {}, {std::move(node)}});
    EXPECT_EQ(find(image, "/" + path), (Found{SHM_MEMBE_OK_NAMEREMAPPED, image.offset("leaf")}));
    EXPECT_EQ(find(image, path.substr(0, path.size() - 5)),
              (Found{SHM_MEMBE_OK, image.offset("0" + std::string(250, 'n'))}));
}

TEST_F(Lookup, LoadedImageIsSearchedTheSameWay) {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this through scripts/sandbox";
    std::vector<std::uint8_t> image =
        kvtest::build_image(kvtest::kExampleSize, kvtest::kExampleData);
    EXPECT_EQ(find(image.data(), "/shared/docs"), (Found{SHM_MEMBE_OK, 48}));
    EXPECT_EQ(find(image.data(), "/Shared/Docs/REPORT.TXT"),
              (Found{SHM_MEMBE_OK_NAMEREMAPPED, 72}));
    EXPECT_EQ(find(image.data(), "/Private/x"), (Found{SHM_MEMBE_OK_NAMEREMAPPED, 96}));
}

TEST_F(Lookup, ImageIsOnlyReadAndNothingAllocated) {
    const std::size_t size = image_.bytes().size();
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    std::memcpy(pages, image_.data(), size);
    ASSERT_EQ(mprotect(pages, size, PROT_READ), 0);
    EXPECT_EQ(find(pages, "/Shared/Docs/a.txt"), remapped("a.txt"));
    EXPECT_EQ(find(pages, "/private/CAFÉ/leaf"), remapped("leaf"));
    char path[] = "/Shared/Docs/new";
    path_array_t* array = nullptr;
    get_path_elem_smb4(path, sizeof path, &array);
    int allocations = 0;
    {
        const kvtest::RefusedAllocation watch(0);
        std::uint32_t offset = 0;
        EXPECT_EQ(find_fselem_fromname(pages, array, &offset), SHM_MEMBE_OK_NAMEREMAPPED);
        allocations = kvtest::RefusedAllocation::count();
    }
    EXPECT_EQ(allocations, 0);
    cleanup_path_array_smb4(&array);
    munmap(pages, size);
}

TEST_F(Lookup, MissingImageIsCorruptionAndMissingPathABadArgument) {
    path_array_t path{};
    std::uint32_t offset = 0;
    table_.set_debug_level(0);
    EXPECT_EQ(find_fselem_fromname(nullptr, &path, &offset), SHM_MEMBE_ERR_MAP_CORRUPTION);
    EXPECT_EQ(logged("NULL perm map"), 1);
    EXPECT_EQ(find_fselem_fromname(image_.data(), nullptr, &offset), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Null file path "), 1);
    EXPECT_EQ(kvtest::log_lines().size(), 2u);
    EXPECT_EQ(find_fselem_fromname(nullptr, nullptr, &offset), SHM_MEMBE_ERR_MAP_CORRUPTION);
    EXPECT_EQ(offset, 0u);
    kvtest::clear_log();
    table_.set_debug_level(-1);
    EXPECT_EQ(find_fselem_fromname(nullptr, &path, &offset), SHM_MEMBE_ERR_MAP_CORRUPTION);
    EXPECT_EQ(find_fselem_fromname(image_.data(), nullptr, &offset), SHM_MEMBE_ERR_BADARGS);
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(Lookup, ImageWithoutItsValidityMarkIsABadArgument) {
    table_.set_debug_level(0);
    for (const std::uint32_t mark : {0u, 0x1EA78EAEu, 0xAF8EA71Eu}) {
        image_.put32(172, mark);
        EXPECT_EQ(find(image_, "/Shared"), (Found{SHM_MEMBE_ERR_BADARGS, 0}));
    }
    EXPECT_EQ(logged("Corrupted map "), 3);
    EXPECT_EQ(kvtest::log_lines().size(), 3u);
    kvtest::clear_log();
    table_.set_debug_level(-1);
    EXPECT_EQ(find(image_, "/Shared"), (Found{SHM_MEMBE_ERR_BADARGS, 0}));
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(Lookup, OffsetMustStartAtZero) {
    const kvtest::ChildResult child = kvtest::run_child_void([&] {
        path_array_t path{};
        std::uint32_t offset = 24;
        find_fselem_fromname(image_.data(), &path, &offset);
    });
    EXPECT_TRUE(child.asserted("*offset == 0")) << child.err;
}

TEST_F(Lookup, DamageAlongTheWayEndsTheProcess) {
    struct Damage {
        const char* what;
        std::uint32_t at;
        std::uint32_t value;
    };
    const Damage damages[] = {
        {"root signature", 176, 0},
        {"unfinished root", 180, 0xFFFFFFFFu},
        {"root with a parent", 180, 0},
        {"root name signature", image_.name_at("/") + 4, 0},
        {"root name", image_.name_at("/") + 12, 'x'},
        {"root list signature", image_.list_at("/"), 0},
        {"child signature", image_.element_at("Shared"), 0},
        {"child name signature", image_.name_at("Shared") + 4, 0},
        {"child list signature", image_.list_at("Shared"), 0},
        {"grandchild signature", image_.element_at("Docs"), 0},
        {"grandchild list signature", image_.list_at("Docs"), 0},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.what);
        const kvtest::ChildResult child = kvtest::run_child_void([&] {
            image_.put32(damage.at, damage.value);
            find(image_, "/Shared/Docs");
        });
        EXPECT_TRUE(child.aborted());
    }
    EXPECT_EQ(find(image_, "/Shared/Docs"), exact("Docs"));
}

TEST_F(Lookup, RootNameLongerThanASlashIsDamage) {
    const kvtest::ChildResult child = kvtest::run_child_void([&] {
        image_.put16(image_.name_at("/"), 2);
        image_.put32(image_.name_at("/") + 12, '/' | 'x' << 8);
        find(image_, "/");
    });
    EXPECT_TRUE(child.aborted());
}

TEST_F(Lookup, EarlierSiblingsAreCheckedLaterOnesAreNot) {
    const std::uint32_t shared = image_.element_at("Shared");
    const std::uint32_t private_folder = image_.element_at("Private");
    const kvtest::ChildResult earlier = kvtest::run_child_void([&] {
        image_.put32(shared, 0);
        find(image_, "/Private");
    });
    EXPECT_TRUE(earlier.aborted());
    image_.put32(private_folder, 0);
    EXPECT_EQ(find(image_, "/Shared"), exact("Shared"));
}

TEST_F(Lookup, TracesTellEachComparisonAtLevelTen) {
    table_.set_debug_level(10);
    EXPECT_EQ(find(image_, "/shared/docs"), exact("Docs"));
    EXPECT_EQ(logged("kavrin_strncasecmp strcmpres 0"), 2);
    EXPECT_EQ(logged("Found match cnelem Shared and pelem shared"), 1);
    EXPECT_EQ(logged("Found match cnelem Docs and pelem docs"), 1);
    EXPECT_EQ(logged("Matched name Docs"), 1);
    EXPECT_EQ(logged_part("StrnCaseCmp"), 0);
    kvtest::clear_log();
    EXPECT_EQ(find(image_, "/"), remapped("/"));
    EXPECT_EQ(logged("Matched name /"), 1);
    kvtest::clear_log();
    EXPECT_EQ(find(image_, "/Shared/new"), remapped("Shared"));
    EXPECT_EQ(logged("Matched name Shared"), 1);
    kvtest::clear_log();
    table_.set_debug_level(9);
    EXPECT_EQ(find(image_, "/shared/docs"), exact("Docs"));
    EXPECT_EQ(find(image_, "/"), remapped("/"));
    EXPECT_TRUE(kvtest::log_lines().empty());
}

TEST_F(Lookup, TracesTellTheForeignComparisons) {
    table_.set_debug_level(10);
    EXPECT_EQ(find(image_, "/Private/CAFÉ"), exact("Café"));
    EXPECT_EQ(logged("kavrin_strncasecmp strcmpres 2"), 1);
    EXPECT_EQ(logged("StrnCaseCmp strcmpres 0"), 1);
    EXPECT_EQ(logged_part("memcmp"), 0);
    kvtest::clear_log();
    EXPECT_EQ(find(image_, "/Private/CAFÈ"), remapped("Private"));
    EXPECT_EQ(kvtest::logged_matching(kvtest::log_lines(), "StrnCaseCmp strcmpres -?[1-9][0-9]*"),
              1);
    EXPECT_EQ(kvtest::logged_matching(kvtest::log_lines(), "memcmp strcmpres -?[1-9][0-9]*"), 1);
    EXPECT_EQ(logged_part("Found match cnelem Café"), 0);
}

}  // namespace
