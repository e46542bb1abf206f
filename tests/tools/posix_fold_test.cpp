// POSIX permissions in the words of a map: every triple, the access ACL's rules for who an entry
// stands for, and the cap of its mask entry. ACLs come from texts; no file is touched.
#include "posix_fold.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

namespace {

using kvadmin::ElementKind;
using kvadmin::FoldedAce;
using kvadmin::FoldedAcl;
using kvadmin::PosixEntries;
using Aces = std::vector<FoldedAce>;

PosixEntries of_text(const char* text, mode_t mode = S_IFDIR | 0770, std::uint32_t owner = 1000,
                     std::uint32_t group = 2000) {
    const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> acl(acl_from_text(text),
                                                                            acl_free);
    EXPECT_NE(acl, nullptr) << text;
    PosixEntries entries;
    EXPECT_TRUE(kvadmin::entries_of_acl({owner, group, mode}, acl.get(), entries)) << text;
    return entries;
}

FoldedAcl folder(const PosixEntries& entries) {
    return fold(ElementKind::kFolder, entries);
}

}  // namespace

TEST(PosixFold, EveryTripleOfAFolderHasItsMask) {
    // ---, --x, -w-, -wx, r--, r-x, rw-, rwx
    constexpr std::uint32_t kExpected[] = {0, 8, 0, 8, 8, 1, 8, 7};
    for (unsigned bits = 0; bits < 8; ++bits)
        EXPECT_EQ(fold_bits(ElementKind::kFolder, bits, true), kExpected[bits]) << bits;
}

TEST(PosixFold, EveryTripleOfAFileHasItsMask) {
    constexpr std::uint32_t kExpected[] = {0, 0, 0, 0, 1, 1, 3, 3};
    for (unsigned bits = 0; bits < 8; ++bits)
        EXPECT_EQ(fold_bits(ElementKind::kFile, bits, true), kExpected[bits]) << bits;
}

TEST(PosixFold, NoMaskOpensContentsThatTheTripleKeepsShut) {
    for (unsigned bits = 0; bits < 8; ++bits) {
        const bool reads = (bits & 5) == 5;
        const bool writes = (bits & 7) == 7;
        const std::uint32_t mask = fold_bits(ElementKind::kFolder, bits, true);
        EXPECT_EQ((mask & 1) != 0, reads) << bits;
        EXPECT_EQ((mask & 6) != 0, writes) << bits;
        const std::uint32_t file = fold_bits(ElementKind::kFile, bits, true);
        EXPECT_EQ((file & 1) != 0, (bits & 4) != 0) << bits;
        EXPECT_EQ((file & 2) != 0, (bits & 6) == 6) << bits;
        EXPECT_EQ(file & 0x1c, 0u) << bits;
    }
}

TEST(PosixFold, ModeGivesOwnerAndOwningGroup) {
    const FoldedAcl acl = folder(kvadmin::entries_of_mode({1000, 2000, S_IFDIR | 0750}));
    EXPECT_EQ(acl.users, (Aces{{1000, 7}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 1}}));
}

TEST(PosixFold, OthersHaveNoEntry) {
    const FoldedAcl acl = folder(kvadmin::entries_of_mode({1000, 2000, S_IFDIR | 0007}));
    EXPECT_EQ(acl.users, (Aces{{1000, 0}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 0}}));
}

TEST(PosixFold, EntriesThatGiveNothingAreKept) {
    const FoldedAcl acl = folder(of_text("u::---,u:1001:---,g::---,g:2001:---,m::rwx,o::rwx"));
    EXPECT_EQ(acl.users, (Aces{{1000, 0}, {1001, 0}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 0}, {2001, 0}}));
}

TEST(PosixFold, MaskEntryCapsEveryoneButTheOwner) {
    const FoldedAcl acl = folder(of_text("u::rwx,u:1001:rwx,g::rwx,g:2001:r-x,m::r-x,o::---"));
    EXPECT_EQ(acl.users, (Aces{{1000, 7}, {1001, 1}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 1}, {2001, 1}}));
}

TEST(PosixFold, OwningGroupComesFromTheAclAndNotFromTheMode) {
    // The mode's group triple shows the mask entry.
    const FoldedAcl acl = folder(of_text("u::rwx,u:1001:rwx,g::---,m::rwx,o::---", S_IFDIR | 0770));
    EXPECT_EQ(acl.groups, (Aces{{2000, 0}}));
}

TEST(PosixFold, AclThatDoesNotNameTheGroupGivesItNothing) {
    EXPECT_EQ(folder(of_text("u::rwx", S_IFDIR | 0770)).groups, (Aces{{2000, 0}}));
}

TEST(PosixFold, OwnerEntryWinsWhenTheOwnerIsNamedToo) {
    const FoldedAcl acl = folder(of_text("u::r-x,u:1000:rwx,g::---,m::rwx,o::---"));
    EXPECT_EQ(acl.users, (Aces{{1000, 1}}));
}

TEST(PosixFold, OwningGroupNamedTooAddsUp) {
    const FoldedAcl acl = folder(of_text("u::rwx,g::r-x,g:2000:rwx,m::rwx,o::---"));
    EXPECT_EQ(acl.groups, (Aces{{2000, 7}}));
}

TEST(PosixFold, ReadingSwallowsNavigatingOfTheSameGroup) {
    const FoldedAcl acl = folder(of_text("u::rwx,g::--x,g:2000:r-x,m::rwx,o::---"));
    EXPECT_EQ(acl.groups, (Aces{{2000, 1}}));
    EXPECT_FALSE(acl.navigates());
}

TEST(PosixFold, NavigatesTellsOfAnyEntry) {
    EXPECT_TRUE(folder(of_text("u::--x,g::rwx,o::---")).navigates());
    EXPECT_TRUE(folder(of_text("u::rwx,g::--x,o::---")).navigates());
    EXPECT_FALSE(folder(of_text("u::rwx,g::r-x,o::--x")).navigates());
}

TEST(PosixFold, UsersAndGroupsAreSortedById) {
    const FoldedAcl acl =
        folder(of_text("u::rwx,u:7:r-x,u:4000000000:r-x,g::rwx,g:9:r-x,g:3000:r-x,m::rwx,o::---"));
    EXPECT_EQ(acl.users, (Aces{{7, 1}, {1000, 7}, {4000000000, 1}}));
    EXPECT_EQ(acl.groups, (Aces{{9, 1}, {2000, 7}, {3000, 1}}));
    EXPECT_EQ(acl.size(), 6u);
}

TEST(PosixFold, StickyFolderLetsOnlyItsOwnerDelete) {
    const FoldedAcl acl =
        folder(of_text("u::rwx,u:1001:rwx,g::rwx,g:2001:r-x,m::rwx,o::---", S_IFDIR | 01770));
    EXPECT_EQ(acl.users, (Aces{{1000, 7}, {1001, 3}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 3}, {2001, 1}}));
}

TEST(PosixFold, FileNeverNavigatesOrDeletes) {
    const FoldedAcl acl =
        fold(ElementKind::kFile, of_text("u::rwx,u:1001:--x,g::r--,m::rwx,o::---", S_IFREG | 0674));
    EXPECT_EQ(acl.users, (Aces{{1000, 3}, {1001, 0}}));
    EXPECT_EQ(acl.groups, (Aces{{2000, 1}}));
}

TEST(PosixFold, AclWithoutMaskEntryIsNotCapped) {
    const FoldedAcl acl = folder(of_text("u::rwx,g::rwx,o::---"));
    EXPECT_EQ(acl.groups, (Aces{{2000, 7}}));
}
