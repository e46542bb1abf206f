// Scanning a tree that changes or resists meanwhile: files that vanish, folders that are replaced,
// moved or locked, and the scan's own files in its way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tree_scan_fixture.h"

using kvadmin::DataWriter;
using kvadmin::PendingFile;
using kvadmin::ScanRequest;
using kvadmin::ScanResult;
using kvtest::TreeScanTest;

TEST_F(TreeScanTest, WhatVanishesAfterListingStaysEmptyAsListed) {
    folder("Shared");
    folder("Shared/gone");
    file("Shared/gone/inside");
    file("Shared/zfile");
    folder("Shared/kept");
    file("Shared/kept/inside");
    bool removed = false;
    scan([&](std::uint64_t elements) {
        if (removed || elements < 2) return;  // the folder's listing is taken, its content not
        removed = true;
        unlink(at("Shared/gone/inside").c_str());
        rmdir(at("Shared/gone").c_str());
        unlink(at("Shared/zfile").c_str());
    });
    ASSERT_TRUE(removed);
    EXPECT_EQ(result_.unreadable, 0u);
    EXPECT_TRUE(reports_.empty());
    element("/Shared/zfile");
    element("/Shared/kept/inside");
    element("/Shared/gone");
}

TEST_F(TreeScanTest, FolderReplacedByALinkIsNotFollowed) {
    const std::string outside = kvtest::make_temp_dir();
    kvtest::write_file(outside + "/secret", "x");
    folder("Shared");
    folder("Shared/a");
    folder("Shared/b");
    file("Shared/b/inside");
    bool replaced = false;
    scan([&](std::uint64_t elements) {
        if (replaced || elements != 2) return;  // before the first child of Shared
        replaced = true;
        unlink(at("Shared/b/inside").c_str());
        rmdir(at("Shared/b").c_str());
        ASSERT_EQ(symlink(outside.c_str(), at("Shared/b").c_str()), 0);
    });
    ASSERT_TRUE(replaced);
    EXPECT_EQ(elements_.size(), 4u);
    EXPECT_EQ(elements_.count("/Shared/b/secret"), 0u);
    EXPECT_EQ(result_.unreadable, 0u);
}

TEST_F(TreeScanTest, FolderMovedMeanwhileIsWalkedToItsEnd) {
    folder("Shared");
    folder("Shared/a");
    for (const char* name : {"1", "2", "3"}) folder(std::string("Shared/a/") + name);
    file("Shared/a/3/inside");
    folder("elsewhere");
    bool moved = false;
    scan([&](std::uint64_t elements) {
        if (moved || elements != 5) return;  // inside Shared/a
        moved = true;
        ASSERT_EQ(rename(at("Shared/a").c_str(), at("elsewhere/a").c_str()), 0);
    });
    ASSERT_TRUE(moved);
    element("/Shared/a/3/inside");
}

TEST_F(TreeScanTest, ChurnDuringTheWalkGivesAnHonestPairStill) {
    folder("Shared");
    for (int i = 0; i < 300; ++i) folder("Shared/d" + std::to_string(i));
    std::atomic<bool> stop = false;
    std::thread churn([&] {
        for (int i = 0; !stop; i = (i + 7) % 300) {
            const std::string name = at("Shared/d" + std::to_string(i));
            rmdir(name.c_str());
            kvtest::write_file(name, "now a file");
            unlink(name.c_str());
            mkdir(name.c_str(), 0700);
            close(open((name + "/f").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            unlink((name + "/f").c_str());
        }
    });
    for (int i = 0; i < 20; ++i) scan();  // scan() checks counts and image each time
    stop = true;
    churn.join();
    EXPECT_EQ(result_.unreadable, 0u);
}

TEST_F(TreeScanTest, UnreadableFolderIsReportedAndEmpty) {
    own("", 0755, 0, 0);
    folder("Shared", 0755);
    folder("Shared/locked", 0700, 0, 0);
    file("Shared/locked/inside");
    folder("Shared/unsearchable", 0744, 0, 0);
    file("Shared/unsearchable/inside");
    const std::string pair = kvtest::make_temp_dir();
    ASSERT_EQ(chmod(pair.c_str(), 0777), 0);
    const kvtest::ChildResult child = kvtest::run_child([&] {
        kvtest::become_user(1234, 1234, {});
        PendingFile data_file(pair + "/data.json");
        DataWriter writer(data_file);
        ScanRequest request;
        request.folder = root_;
        request.report = [](std::string_view line) {
            std::fprintf(stderr, "%s\n", std::string(line).c_str());
        };
        const ScanResult result = scan_tree(request, writer);
        return static_cast<int>(10 * result.unreadable + writer.counts().elements);
    });
    EXPECT_EQ(child.exit_code, 24) << child.err;  // two unreadable, four elements
    EXPECT_EQ(child.err, "cannot read folder " + root_ +
                             "/Shared/locked: Permission denied\n"
                             "cannot read entry " +
                             root_ + "/Shared/unsearchable/inside: Permission denied\n");
}

TEST_F(TreeScanTest, OwnTemporariesAreNotInTheMap) {
    file("Shared");
    PendingFile size_file(at("size.json"));
    PendingFile data_file(at("data.json"));
    DataWriter writer(data_file);
    ScanRequest request;
    request.folder = root_;
    request.leave_out = {&size_file, &data_file};
    EXPECT_EQ(scan_tree(request, writer).files, 1u);
}
