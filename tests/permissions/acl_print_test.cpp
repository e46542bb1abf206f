// The dumps of an ACL and of its record on standard output, character by character.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support.h"

namespace {

std::string pointer_text(const void* pointer) {
    char text[64];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

// What a dump of one ACE with this mask says, on a table that silences every trace.
std::string dump_of_mask(unsigned mask) {
    const kvtest::ConfigTable table(-1);
    kavrin_ace_t ace{};
    ace.trustee_type = ACE_TYPE_USER;
    ace.trustee.uid = 1001;
    ace.perm_mask = mask;
    kavrin_acl_t acl{};
    acl.num_aces = 1;
    acl.ace_list_head.first_elem = &ace.ace_list;
    return kvtest::run_child_void([&] { print_acl(&acl); }).out;
}

std::string dump_around(const std::string& mask_lines) {
    return "ACL Version 0 Num ACES 1\n"
           "ACE Number: 0\n"
           "ACE version: 0\n"
           "ACE Type: Explicit"
           "ACE trustee_type: USER\n"
           "ACE uid: 1001\n" +
           mask_lines +
           "ACE Container ACL (nil):\n"
           "ACE next (nil):\n\n";
}

std::string line(const char* name) {
    return std::string("ACE perm mask: ") + name + "\n";
}

TEST(PrintAcl, WholeDumpOfSeveralAces) {
    const kvtest::ConfigTable table(-1);
    kavrin_acl_t acl{};
    kavrin_ace_t first{}, second{}, third{};
    acl.num_aces = 3;
    acl.ace_list_head.first_elem = &first.ace_list;
    first.ace_list.next_elem = &second.ace_list;
    first.trustee_type = ACE_TYPE_USER;
    first.trustee.uid = 4294967295u;
    first.perm_mask = 7;
    first.acl = &acl;
    second.ace_list.next_elem = &third.ace_list;
    second.version = 3;
    second.ace_type = 1;
    second.trustee_type = ACE_TYPE_GROUP;
    second.trustee.gid = 1000;
    second.perm_mask = 9;
    third.trustee_type = ACE_TYPE_ALL;
    third.trustee.uid = 5;
    const kvtest::ChildResult child = kvtest::run_child_void([&] { print_acl(&acl); });
    EXPECT_EQ(child.out,
              "ACL Version 0 Num ACES 3\n"
              "ACE Number: 0\n"
              "ACE version: 0\n"
              "ACE Type: Explicit"
              "ACE trustee_type: USER\n"
              "ACE uid: 4294967295\n"
              "ACE perm mask: RDWRDEL\n"
              "ACE Container ACL " +
                  pointer_text(&acl) + ":\nACE next " + pointer_text(&second) +
                  ":\n\n"
                  "ACE Number: 1\n"
                  "ACE version: 3\n"
                  "ACE Type: Inherited"
                  "ACE trustee_type: GROUP\n"
                  "ACE gid: 1000\n"
                  "ACE perm mask: RDONLY\n"
                  "ACE perm mask: NAVIGATE\n"
                  "ACE Container ACL (nil):\nACE next " +
                  pointer_text(&third) +
                  ":\n\n"
                  "ACE Number: 2\n"
                  "ACE version: 0\n"
                  "ACE Type: Explicit"
                  "ACE trustee_type: ALL\n"
                  "ACE perm mask: NOPERM\n"
                  "ACE Container ACL (nil):\nACE next (nil):\n\n");
    EXPECT_TRUE(child.exited);
}

TEST(PrintAcl, EmptyAclIsOneLine) {
    const kvtest::ConfigTable table(10);
    kavrin_acl_t acl{};
    acl.version = 2;
    const kvtest::ChildResult child = kvtest::run_child_void([&] { print_acl(&acl); });
    EXPECT_EQ(child.out, "ACL Version 2 Num ACES 0\n");
}

TEST(PrintAcl, MaskLinesNameTheWidestAccess) {
    const std::string rdwrdel = line("RDWRDEL"), rdwr = line("RDWR"), rdonly = line("RDONLY"),
                      viewer = line("VIEWER_ONLY"), navigate = line("NAVIGATE");
    const std::pair<unsigned, std::string> masks[] = {
        {0, line("NOPERM")},
        {1, rdonly},
        {2, ""},
        {3, rdwr},
        {4, ""},
        {5, rdonly},
        {6, ""},
        {7, rdwrdel},
        {8, navigate},
        {16, viewer},
        {9, rdonly + navigate},
        {10, navigate},
        {11, rdwr + navigate},
        {15, rdwrdel + navigate},
        {17, rdonly},
        {19, rdwr},
        {23, rdwrdel},
        {24, viewer + navigate},
        {31, rdwrdel + navigate},
        {18, viewer},
        {20, viewer},
        {32, ""},
        {0x10007, rdwrdel},
    };
    for (const auto& [mask, lines] : masks)
        EXPECT_EQ(dump_of_mask(mask), dump_around(lines)) << mask;
}

TEST(PrintBacl, WholeDumpOfARecord) {
    const std::uint8_t bytes[] = {
        0,                                                                 // records start anywhere
        0xEF, 0xCD, 0xEF, 0xCD, 3,    0,    0,    0,                       // signature, entries
        1,    0,    0,    0,    0xEA, 0x03, 0,    0,    0x1F, 0,    0, 0,  // uid 1002
        2,    0,    0,    0,    0xE8, 0x03, 0,    0,    0,    0,    0, 0,  // gid 1000
        1,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xCD, 0xAB, 0, 0};
    std::vector<std::uint8_t> copy(bytes, bytes + sizeof bytes);
    for (const int level : {-1, 10}) {
        const kvtest::ConfigTable table(level);
        const kvtest::ChildResult child =
            kvtest::run_child_void([&] { print_bacl(reinterpret_cast<beacl_t*>(&copy[1])); });
        EXPECT_EQ(child.out,
                  "Acl numaces 3\n"
                  "Ace Type: 1 id 1002 maks 1f\n"
                  "Ace Type: 2 id 1000 maks 0\n"
                  "Ace Type: 1 id -1 maks abcd\n");
    }
}

TEST(PrintBacl, EmptyAndMissingRecord) {
    std::uint32_t empty[] = {ACLSIG, 0};
    EXPECT_EQ(kvtest::run_child_void([&] { print_bacl(reinterpret_cast<beacl_t*>(empty)); }).out,
              "Acl numaces 0\n");
    EXPECT_EQ(kvtest::run_child_void([] { print_bacl(nullptr); }).out, "Null ACL");
}

}  // namespace
