// Scanning real trees: real owners, modes and access ACLs, odd names, deep and wide trees. The
// measure is the round trip: an image built from the pair holds the tree on the disk and nothing
// else, and its regions are filled to the byte.
#include <acl/libacl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tree_scan_fixture.h"

using kvtest::AclText;
using kvtest::TreeScanTest;

TEST_F(TreeScanTest, OwnersGroupsAndModesBecomeAces) {
    own("", 0750, 1000, 2000);
    folder("Shared", 0770, 1001, 2001);
    folder("Shared/Docs", 0710, 1002, 2002);
    file("Shared/Docs/a.txt", 0640, 1003, 2003);
    folder("Private", 0700, 0, 0);
    scan();
    EXPECT_EQ(element("/").own, (AclText{"u1000:7", "g2000:1"}));
    EXPECT_EQ(element("/Shared").own, (AclText{"u1001:7", "g2001:7"}));
    EXPECT_EQ(element("/Shared/Docs").own, (AclText{"u1002:7", "g2002:8"}));
    EXPECT_EQ(element("/Shared/Docs/a.txt").own, (AclText{"u1003:3", "g2003:1"}));
    EXPECT_EQ(element("/Private").own, (AclText{"u0:7", "g0:0"}));
    EXPECT_EQ(elements_.size(), 5u);
    EXPECT_TRUE(result_.has_shared);
    EXPECT_EQ(result_.folders, 4u);
    EXPECT_EQ(result_.files, 1u);
    EXPECT_TRUE(reports_.empty());
}

TEST_F(TreeScanTest, NamedUsersAndGroupsComeFromTheAccessAcl) {
    folder("Shared", 0770, 1001, 2001);
    acl("Shared", "u::rwx,u:1005:rwx,u:1006:---,g::r-x,g:2005:--x,m::r-x,o::rwx");
    file("Shared/f", 0600, 1001, 2001);
    acl("Shared/f", "u::rw-,u:1005:rw-,g::---,m::rw-,o::r--");
    scan();
    EXPECT_EQ(element("/Shared").own,
              (AclText{"u1001:7", "u1005:1", "u1006:0", "g2001:1", "g2005:8"}));
    EXPECT_EQ(element("/Shared/f").own, (AclText{"u1001:3", "u1005:3", "g2001:0"}));
}

TEST_F(TreeScanTest, DefaultAclGivesNothing) {
    folder("Shared", 0750, 1001, 2001);
    acl("Shared", "u::rwx,u:1005:rwx,g::rwx,m::rwx,o::---", ACL_TYPE_DEFAULT);
    scan();
    EXPECT_EQ(element("/Shared").own, (AclText{"u1001:7", "g2001:1"}));
}

TEST_F(TreeScanTest, RootTakesItsAccessAcl) {
    own("", 0750, 1000, 2000);
    acl("", "u::rwx,u:1005:r-x,g::r-x,m::rwx,o::---");
    scan();
    EXPECT_EQ(element("/").own, (AclText{"u1000:7", "u1005:1", "g2000:1"}));
}

TEST_F(TreeScanTest, AclEqualToTheParentsIsLeftEmpty) {
    own("", 0770, 1000, 2000);
    folder("Shared", 0770);
    folder("Shared/a", 0770);
    folder("Shared/a/b", 0750);
    folder("Shared/a/b/c", 0750);
    scan();
    EXPECT_EQ(element("/").own.size(), 2u);
    EXPECT_TRUE(element("/Shared").own.empty());
    EXPECT_TRUE(element("/Shared/a").own.empty());
    EXPECT_EQ(element("/Shared/a/b").own, (AclText{"u1000:7", "g2000:1"}));
    EXPECT_TRUE(element("/Shared/a/b/c").own.empty());
    EXPECT_EQ(element("/Shared/a").governing, (AclText{"u1000:7", "g2000:7"}));
    EXPECT_EQ(element("/Shared/a/b/c").governing, (AclText{"u1000:7", "g2000:1"}));
    EXPECT_EQ(counts_.aces, 4u);
}

TEST_F(TreeScanTest, AclThatNavigatesIsNeverLeftEmpty) {
    own("", 0710, 1000, 2000);
    folder("Shared", 0710);
    folder("Shared/a", 0710);
    scan();
    for (const char* path : {"/", "/Shared", "/Shared/a"})
        EXPECT_EQ(element(path).own, (AclText{"u1000:7", "g2000:8"})) << path;
}

TEST_F(TreeScanTest, EmptyFolderIsARootOfItsOwn) {
    scan();
    EXPECT_EQ(elements_.size(), 1u);
    EXPECT_FALSE(result_.has_shared);
}

TEST_F(TreeScanTest, LinksAndSpecialFilesAreLeftOut) {
    folder("Shared");
    file("Shared/kept");
    ASSERT_EQ(symlink("/etc", at("Shared/link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", at("Shared/dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(at("Shared/fifo").c_str(), 0600), 0);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, at("Shared/socket").c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
    scan();
    EXPECT_EQ(elements_.size(), 3u);
    EXPECT_EQ(result_.links, 2u);
    EXPECT_EQ(result_.special, 2u);
    EXPECT_EQ(result_.unreadable, 0u);
}

TEST_F(TreeScanTest, OddNamesComeThroughUnchanged) {
    folder("Shared");
    const std::vector<std::string> names = {
        "\"quoted\"",        "back\\slash", "new\nline", "tab\tand\x01", "\x7f",
        " leading",          "trailing. ",  "Ärger",     "日本語",       "😀",
        "combining e\u0301", "{\"DIR\":1}", "%s%n",      "\\u0041",      std::string(255, 'n')};
    for (const std::string& name : names) file("Shared/" + name);
    scan();
    for (const std::string& name : names) element("/Shared/" + name);
    EXPECT_EQ(elements_.size(), 2 + names.size());
}

TEST_F(TreeScanTest, NamesThatAreNoUtf8AreLeftOutAndNamed) {
    folder("Shared");
    for (const char* name : {"\xff",
                             "a\x80"
                             "b",
                             "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "cut\xe2\x82"})
        file(std::string("Shared/") + name);
    folder("Shared/bad\xfe");
    file("Shared/bad\xfe/inside");
    file("Shared/kept");
    scan();
    EXPECT_EQ(elements_.size(), 3u);
    EXPECT_EQ(result_.names, 7u);
    ASSERT_EQ(reports_.size(), 7u);
    EXPECT_EQ(std::count(reports_.begin(), reports_.end(),
                         "left out " + root_ + "/Shared/bad\\xfe: its name is not valid UTF-8"),
              1);
    EXPECT_EQ(std::count(reports_.begin(), reports_.end(),
                         "left out " + root_ + "/Shared/a\\x80b: its name is not valid UTF-8"),
              1);
}

TEST(NameProblem, KnowsTheLengthThatAnImageCounts) {
    EXPECT_EQ(kvadmin::name_problem(std::string(65535, 'x')), nullptr);
    EXPECT_STREQ(kvadmin::name_problem(std::string(65536, 'x')), "is longer than 65,535 bytes");
}

TEST_F(TreeScanTest, NamesThatDifferOnlyByLetterCaseAreReported) {
    folder("Shared");
    folder("Shared/Docs");
    folder("Shared/docs");
    file("Shared/readme");
    scan();
    EXPECT_EQ(elements_.size(), 5u);
    EXPECT_EQ(result_.twins, 1u);
    ASSERT_EQ(reports_.size(), 1u);
    EXPECT_EQ(reports_[0], root_ +
                               "/Shared/docs differs from a sibling only by letter case: the first "
                               "one in byte order governs both");
}

TEST_F(TreeScanTest, ChildrenAreSortedByByte) {
    for (const char* name : {"b", "B", "a", "_", "\xc3\xa4", "Shared", "~"}) file(name);
    scan();
    std::vector<std::string> order;
    for (const auto& [path, found] : elements_)
        if (path != "/") order.push_back(path);
    std::sort(order.begin(), order.end(), [this](const std::string& a, const std::string& b) {
        return elements_.at(a).offset < elements_.at(b).offset;
    });
    EXPECT_EQ(order,
              (std::vector<std::string>{"/B", "/Shared", "/_", "/a", "/b", "/~", "/\xc3\xa4"}));
    const std::string first = data_json_;
    scan();
    EXPECT_EQ(data_json_, first);
}

TEST_F(TreeScanTest, TreeOf1500LevelsIsWalked) {
    struct rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    constexpr int kLevels = 1500;
    int fd = open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < kLevels; ++i) {
        ASSERT_EQ(mkdirat(fd, "level", 0750), 0);
        const int next = openat(fd, "level", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(next, 0);
        close(fd);
        fd = next;
    }
    close(openat(fd, "bottom", O_CREAT | O_WRONLY | O_CLOEXEC, 0640));
    close(fd);
    scan();
    EXPECT_EQ(elements_.size(), kLevels + 2u);
    EXPECT_EQ(result_.unreadable, 0u);
    std::string bottom;
    for (int i = 0; i < kLevels; ++i) bottom += "/level";
    element(bottom + "/bottom");
}

TEST_F(TreeScanTest, FolderOf10000EntriesIsWalked) {
    folder("Shared");
    for (int i = 0; i < 10000; ++i) {
        const std::string name = "Shared/" + std::to_string(i);
        close(open(at(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0640));
    }
    scan();
    EXPECT_EQ(elements_.size(), 10002u);
    element("/Shared/9999");
}

TEST_F(TreeScanTest, MountPointsAreCrossed) {
    folder("Shared");
    folder("Shared/mounted");
    ASSERT_EQ(mount("scan", at("Shared/mounted").c_str(), "tmpfs", 0, "mode=0750,uid=1234"), 0)
        << std::strerror(errno);
    file("Shared/mounted/inside");
    scan();
    EXPECT_EQ(umount(at("Shared/mounted").c_str()), 0);
    element("/Shared/mounted/inside");
    EXPECT_EQ(element("/Shared/mounted").own, (AclText{"u1234:7", "g0:1"}));
}

TEST_F(TreeScanTest, FileSystemWithoutAclsGivesItsModes) {
    folder("Shared");
    folder("Shared/mounted");
    ASSERT_EQ(mount("scan", at("Shared/mounted").c_str(), "ramfs", 0, "mode=0750"), 0)
        << std::strerror(errno);
    file("Shared/mounted/inside", 0640, 1001, 2001);
    ASSERT_EQ(acl_extended_file_nofollow(at("Shared/mounted/inside").c_str()), -1);
    ASSERT_EQ(errno, EOPNOTSUPP) << "not the file system that this test needs";
    scan();
    EXPECT_EQ(umount(at("Shared/mounted").c_str()), 0);
    EXPECT_EQ(element("/Shared/mounted/inside").own, (AclText{"u1001:3", "g2001:1"}));
    EXPECT_EQ(result_.unreadable, 0u);
}

TEST_F(TreeScanTest, SizeFileAnnouncesTheCounts) {
    folder("Shared");
    file("Shared/abc");
    scan();
    EXPECT_EQ(size_json_,
              "{\n  \"MAPNAME\": \"tree\",\n  \"VERSION\": \"1\",\n  \"GENERATIONNUM\": 3,\n"
              "  \"TIMESTAMP\": 1700000000,\n  \"TOTALFSELEMS\": 3,\n  \"TOTALACES\": " +
                  std::to_string(counts_.aces) + ",\n  \"TOTALNAMELEN\": 13\n}\n");
}
