// The ACL of one path, as a verdict reads it out of an image: explicit or inherited, and what bad
// arguments come to.
#include <gtest/gtest.h>

#include <cstring>

#include "support.h"

namespace kvtest {
namespace {

struct Entry {
    int trustee;
    unsigned id, mask, inherited;
    bool operator==(const Entry&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Entry& e) {
    return out << "{" << e.trustee << " " << e.id << " " << e.mask << " " << e.inherited << "}";
}

std::vector<Entry> acl_of(std::vector<std::uint8_t>& image, std::string path) {
    kavrin_acl_t* acl = nullptr;
    EXPECT_EQ(get_kavrin_acl(image.data(), path.data(), &acl), SHM_MEMBE_OK);
    if (acl == nullptr) return {{-1, 0, 0, 0}};
    std::vector<Entry> entries;
    for (const oneway_list_elem_t* e = acl->ace_list_head.first_elem; e; e = e->next_elem) {
        const auto* ace = reinterpret_cast<const kavrin_ace_t*>(e);
        entries.push_back({ace->trustee_type, ace->trustee.uid, ace->perm_mask, ace->ace_type});
    }
    EXPECT_EQ(entries.size(), acl->num_aces);
    free_ACL(acl);
    EXPECT_EQ(acl->ace_list_head.first_elem, nullptr);
    free(acl);
    return entries;
}

TEST(AclOfAPath, IsExplicitOnlyForAnExactMatchWithChildren) {
    const ConfigTable config(-1);
    std::vector<std::uint8_t> image = build_image(kExampleSize, kExampleData);
    const Entry docs{ACE_TYPE_USER, 1002, 3, 0};
    const Entry docs_inherited{ACE_TYPE_USER, 1002, 3, 1};
    EXPECT_EQ(acl_of(image, "Shared"),
              (std::vector<Entry>{{ACE_TYPE_USER, 1001, 7, 0}, {ACE_TYPE_GROUP, 1000, 1, 0}}));
    EXPECT_EQ(acl_of(image, "Shared/Docs"), (std::vector<Entry>{docs}));
    EXPECT_EQ(acl_of(image, "/SHARED/docs/"), (std::vector<Entry>{docs}));
    EXPECT_EQ(acl_of(image, "Shared/Docs/new"), (std::vector<Entry>{docs_inherited}));
    EXPECT_EQ(acl_of(image, "Shared/Docs/report.txt"), (std::vector<Entry>{docs_inherited}));
    EXPECT_EQ(acl_of(image, "Shared/Docs/report.txt/x"), (std::vector<Entry>{docs_inherited}));
    EXPECT_EQ(acl_of(image, "Private"),
              (std::vector<Entry>{{ACE_TYPE_USER, 1001, 7, 1}, {ACE_TYPE_USER, 1002, 8, 1}}))
        << "it has no children";
    const std::vector<Entry> root = {{ACE_TYPE_GROUP, 1000, 8, 1}};
    for (const char* path : {"/", ".", "elsewhere", "elsewhere/deeper", "///"})
        EXPECT_EQ(acl_of(image, path), root) << path;
}

TEST(AclOfAPath, MayBeEmptyWhenNobodyHasARight) {
    const ConfigTable config(-1);
    std::vector<std::uint8_t> image =
        build_image(Node{"/", {}, {}, {{"Shared", {}, {}, {{"x", {}, {}, {}}}}}});
    EXPECT_TRUE(acl_of(image, "Shared").empty());
}

TEST(AclOfAPath, BadArgumentsAreCodesAndANullPathEndsTheProcess) {
    const ConfigTable config(0);
    std::vector<std::uint8_t> image = build_image(kExampleSize, kExampleData);
    char path[] = "Shared";
    char empty[] = "";
    kavrin_acl_t* acl = nullptr;
    clear_log();
    EXPECT_EQ(get_kavrin_acl(nullptr, path, &acl), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("ENFORCE_PERMS Null membuf"), 1);
    EXPECT_EQ(get_kavrin_acl(image.data(), empty, &acl), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("ENFORCE_PERMS Empty path"), 1);
    EXPECT_EQ(acl, nullptr);
    const ChildResult child =
        run_child([&] { return get_kavrin_acl(image.data(), nullptr, &acl); });
    EXPECT_TRUE(child.aborted());
    EXPECT_EQ(child.logged("ENFORCE_PERMS Null path"), 1);
}

TEST(AclOfAPath, AnImageWithoutItsValidityMarkEndsTheProcess) {
    const ConfigTable config(0);
    std::vector<std::uint8_t> image = build_image(kExampleSize, kExampleData);
    std::memset(image.data() + 172, 0, 4);
    char path[] = "Shared";
    kavrin_acl_t* acl = nullptr;
    const ChildResult child = run_child([&] { return get_kavrin_acl(image.data(), path, &acl); });
    EXPECT_TRUE(child.aborted());
    EXPECT_EQ(child.logged("ENFORCE_PERMS Cannot find path in permission map 3"), 1);
}

TEST(AclOfAPath, ReleasingNothingIsFine) {
    const ConfigTable config(-1);
    free_ACL(nullptr);
    kavrin_acl_t* acl = nullptr;
    ASSERT_EQ(create_empty_acl(&acl), SHM_MEMBE_OK);
    for (uid_t id = 1; id <= 5; ++id) add_ace_to_acl(acl, ACE_TYPE_USER, id);
    free_ACL(acl);
    EXPECT_EQ(acl->ace_list_head.first_elem, nullptr);
    free(acl);
}

}  // namespace
}  // namespace kvtest
