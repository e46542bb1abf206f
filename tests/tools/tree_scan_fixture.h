// A folder tree of its own for each scan test, and what a scan of it gave: the pair, the image
// built from it, and the image's elements read back.
#pragma once

#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "scanned_image.h"
#include "support.h"
#include "tree_scan.h"

namespace kvtest {

// A folder tree of its own and what a scan of it gave.
class TreeScanTest : public testing::Test {
protected:
    std::string at(const std::string& path) const { return root_ + "/" + path; }

    void folder(const std::string& path, mode_t mode = 0750, uid_t uid = 1000, gid_t gid = 2000) {
        ASSERT_EQ(mkdir(at(path).c_str(), 0700), 0) << path;
        own(path, mode, uid, gid);
    }
    void file(const std::string& path, mode_t mode = 0640, uid_t uid = 1000, gid_t gid = 2000) {
        write_file(at(path), "x");
        own(path, mode, uid, gid);
    }
    void own(const std::string& path, mode_t mode, uid_t uid, gid_t gid) {
        ASSERT_EQ(chown(at(path).c_str(), uid, gid), 0) << path;
        ASSERT_EQ(chmod(at(path).c_str(), mode), 0) << path;
    }
    void acl(const std::string& path, const char* text, acl_type_t type = ACL_TYPE_ACCESS) {
        const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> parsed(
            acl_from_text(text), acl_free);
        ASSERT_EQ(acl_set_file(at(path).c_str(), type, parsed.get()), 0)
            << path << ": " << std::strerror(errno);
    }

    // Scans the tree, builds the image and reads it back.
    void scan(std::function<void(std::uint64_t)> progress = [](std::uint64_t) {}) {
        const std::string pair = make_temp_dir();
        kvadmin::PendingFile size_file(pair + "/size.json");
        kvadmin::PendingFile data_file(pair + "/data.json");
        kvadmin::DataWriter writer(data_file);
        kvadmin::ScanRequest request;
        request.folder = root_;
        request.progress = std::move(progress);
        request.report = [this](std::string_view line) { reports_.emplace_back(line); };
        result_ = scan_tree(request, writer);
        writer.end_document();
        write_size_file(size_file, {"tree", 3, 1700000000}, writer.counts());
        data_file.complete();
        size_file.complete();
        data_file.put_in_place();
        size_file.put_in_place();
        counts_ = writer.counts();
        size_json_ = read_file(pair + "/size.json");
        data_json_ = read_file(pair + "/data.json");
        image_ = build_image(size_json_, data_json_);
        elements_ = read_elements(image_);
        EXPECT_EQ(elements_.size(), counts_.elements);
        EXPECT_EQ(image_.size(), counts_.image_bytes());
        EXPECT_EQ(result_.folders + result_.files, counts_.elements);
    }

    const ImageElement& element(const std::string& path) const {
        static const ImageElement none{};
        const auto found = elements_.find(path);
        EXPECT_NE(found, elements_.end()) << path;
        return found == elements_.end() ? none : found->second;
    }

    ConfigTable table_;
    std::string root_ = make_temp_dir();
    kvadmin::ScanResult result_;
    kvadmin::PairCounts counts_;
    std::vector<std::string> reports_;
    std::string size_json_;
    std::string data_json_;
    std::vector<std::uint8_t> image_;
    std::map<std::string, ImageElement> elements_;
};

}  // namespace kvtest
