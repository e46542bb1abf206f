// The kept maps: what is on record, under which number, and what is pruned; and what they are made
// with: digests, files that are whole, and the marker.
#include "kept_maps.h"

#include <sys/mount.h>

#include "build_fixture.h"
#include "digest.h"
#include "failure.h"
#include "whole_file.h"

namespace kvtest {
namespace {

namespace fs = std::filesystem;
using kvadmin::CommandError;
using kvadmin::kept_image_path;
using kvadmin::kept_maps;
using kvadmin::MapRecord;

std::vector<std::uint8_t> bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string record_path(unsigned number) {
    return std::string(kvadmin::kKeptFolder) + "/" + std::to_string(number) + ".json";
}

std::vector<unsigned> kept_numbers() {
    std::vector<unsigned> numbers;
    for (const MapRecord& record : kept_maps()) numbers.push_back(record.number);
    return numbers;
}

MapRecord record_named(const std::string& sha256, std::int64_t published = 0) {
    MapRecord record;
    record.sha256 = sha256;
    record.published = published;
    return record;
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

// Digests and whole files
// ---------------------------------------------------------------------------------------------

TEST(Digest, IsTheKnownOneOfKnownBytes) {
    EXPECT_EQ(kvadmin::sha256_of({}),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(kvadmin::sha256_of(bytes_of("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(kvadmin::sha256_of(std::vector<std::uint8_t>(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(WholeFile, HasItsContentAndItsModeWhateverTheMaskIs) {
    const std::string path = make_temp_dir() + "/file";
    const mode_t mask = umask(077);
    kvadmin::write_whole_file(path, std::string_view("first"), 0644);
    EXPECT_EQ(read_file(path), "first");
    EXPECT_EQ(mode_of(path), 0644U);
    kvadmin::write_whole_file(path, std::string_view(""), 0600);
    EXPECT_EQ(read_file(path), "");
    EXPECT_EQ(mode_of(path), 0600U);
    EXPECT_FALSE(file_exists(path + ".tmp"));
    umask(mask);
}

TEST(WholeFile, StaysAsItWasWhenThereIsNoRoom) {
    const std::string folder = make_temp_dir();
    ASSERT_EQ(mount("small", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
    kvadmin::write_whole_file(folder + "/file", std::string_view("first"));
    try {
        kvadmin::write_whole_file(folder + "/file", std::string(200'000, 'x'));
        ADD_FAILURE() << "there was room";
    } catch (const CommandError& error) {
        EXPECT_EQ(error.code, Exit::kFailure);
        EXPECT_TRUE(contains(error.message, folder + "/file")) << error.message;
        EXPECT_TRUE(contains(error.message, "No space left")) << error.message;
    }
    EXPECT_EQ(read_file(folder + "/file"), "first");
    EXPECT_FALSE(file_exists(folder + "/file.tmp"));
    umount(folder.c_str());
}

TEST(WholeFile, IsNotWrittenThroughALinkThatLiesInItsWay) {
    const std::string folder = make_temp_dir();
    write_file(folder + "/victim", "precious");
    ASSERT_EQ(symlink("victim", (folder + "/file.tmp").c_str()), 0);
    EXPECT_THROW(kvadmin::write_whole_file(folder + "/file", std::string_view("x")), CommandError);
    EXPECT_EQ(read_file(folder + "/victim"), "precious");
}

TEST(WholeFile, IsOldOrNewForWhoeverReadsMeanwhile) {
    const std::string path = make_temp_dir() + "/file";
    const std::string contents[] = {std::string(50'000, 'a'), std::string(30'000, 'b')};
    kvadmin::write_whole_file(path, contents[0]);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) kvadmin::write_whole_file(path, contents[i % 2]);
        done = true;
    });
    while (!done) {
        const std::string seen = read_file(path);
        EXPECT_TRUE(seen == contents[0] || seen == contents[1]) << seen.size();
    }
    writer.join();
}

TEST(WholeFile, FoldersAreMadeWithTheirModeWhateverTheMaskIs) {
    const std::string base = make_temp_dir();
    const mode_t mask = umask(077);
    kvadmin::make_folder(base + "/one/two", 0755);
    umask(mask);
    EXPECT_EQ(mode_of(base + "/one"), 0755U);
    EXPECT_EQ(mode_of(base + "/one/two"), 0755U);
    chmod((base + "/one").c_str(), 0711);
    kvadmin::make_folder(base + "/one/two", 0700);
    EXPECT_EQ(mode_of(base + "/one"), 0711U) << "what is there is left as it is";
    EXPECT_EQ(mode_of(base + "/one/two"), 0755U);
    write_file(base + "/file", "");
    EXPECT_THROW(kvadmin::make_folder(base + "/file", 0755), CommandError);
    EXPECT_THROW(kvadmin::make_folder(base + "/file/below", 0755), CommandError);
}

TEST(MapMarker, IsNewerThanThisSecondAndNeverALink) {
    const std::time_t before = std::time(nullptr);
    kvadmin::touch_map_marker();
    struct stat st {};
    ASSERT_EQ(stat(kvadmin::kMapMarkerPath, &st), 0);
    EXPECT_GT(st.st_mtim.tv_sec, before);
    EXPECT_LE(st.st_mtim.tv_sec, std::time(nullptr) + 1);
    fs::remove(kvadmin::kMapMarkerPath);
    write_file("/etc/kavrin/victim", "");
    fs::create_symlink("victim", kvadmin::kMapMarkerPath);
    EXPECT_THROW(kvadmin::touch_map_marker(), CommandError);
}

// The kept maps
// ---------------------------------------------------------------------------------------------

TEST(KeptMaps, CountUpFromOneAndAreWhatWasGiven) {
    EXPECT_TRUE(kept_maps().empty());
    MapRecord record;
    record.name = "a map, \"quoted\"";
    record.version = "1.2";
    record.generation = 4'000'000'000;
    record.sha256 = "ab";
    record.source = "/somewhere/data.json";
    record.built = 1'764'000'001;
    record.built_by = "a test";
    record.elements = 5;
    record.aces = 6;
    record.bytes = 3;
    record.seconds = 0.25;
    EXPECT_EQ(kvadmin::keep_map(record, bytes_of("one")), 1U);
    EXPECT_EQ(kvadmin::keep_map({}, bytes_of("two")), 2U);
    const std::vector<MapRecord> kept = kept_maps();
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].number, 2U) << "the highest comes first";
    record.number = 1;
    EXPECT_EQ(kvadmin::as_json(kept[1]), kvadmin::as_json(record));
    EXPECT_EQ(read_file(kept_image_path(1)), "one");
    EXPECT_EQ(mode_of(kept_image_path(1)), 0600U);
    EXPECT_EQ(mode_of(record_path(1)), 0600U);
    EXPECT_EQ(mode_of(kvadmin::kKeptFolder), 0700U);
}

TEST(KeptMaps, ANumberWithAnythingLeftOfItIsNotGivenAgain) {
    kvadmin::keep_map(record_named("aa"), bytes_of("one"));
    kvadmin::keep_map(record_named("bb"), bytes_of("two"));
    fs::remove(record_path(2));
    EXPECT_EQ(kvadmin::keep_map(record_named("cc"), bytes_of("three")), 3U);
    write_file(std::string(kvadmin::kKeptFolder) + "/7.json.tmp", "");
    EXPECT_EQ(kvadmin::keep_map(record_named("dd"), bytes_of("eight")), 8U);
}

// Somebody who delivers the same map every hour fills the folder with nothing.
TEST(KeptMaps, AnImageEqualToTheNewestTakesItsPlace) {
    kvadmin::keep_map(record_named("aa", 20), bytes_of("one"));
    kvadmin::keep_map(record_named("bb", 30), bytes_of("two"));
    MapRecord again = record_named("bb");
    again.source = "/another/data.json";
    write_file(kept_image_path(2), "damaged");
    EXPECT_EQ(kvadmin::keep_map(again, bytes_of("two")), 2U);
    ASSERT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1}));
    EXPECT_EQ(kept_maps()[0].source, "/another/data.json");
    EXPECT_EQ(kept_maps()[0].published, 30);
    EXPECT_EQ(read_file(kept_image_path(2)), "two") << "whatever lay there";
    EXPECT_EQ(kvadmin::keep_map(record_named("aa"), bytes_of("one")), 3U) << "not the newest";
}

TEST(KeptMaps, WhatIsNoRecordIsNoMap) {
    kvadmin::keep_map({}, bytes_of("one"));
    const std::string sound = read_file(record_path(1));
    write_file(record_path(2), sound.substr(0, sound.size() / 2));
    write_file(record_path(3), "[]");
    write_file(record_path(4), "{\"name\": 5}");
    write_file(record_path(5), "");
    for (const char* name : {"x.json", "0.json", "1.json.tmp", "6.map", "-1.json", "9x.json"})
        write_file(std::string(kvadmin::kKeptFolder) + "/" + name, sound);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{1}));
}

TEST(KeptMaps, OfTheSameBytesTheOnePublishedLastIsMeant) {
    kvadmin::keep_map(record_named("aa", 20), bytes_of("1"));
    kvadmin::keep_map(record_named("bb", 30), bytes_of("2"));
    kvadmin::keep_map(record_named("aa", 10), bytes_of("1"));
    ASSERT_TRUE(kvadmin::record_of("aa").has_value());
    EXPECT_EQ(kvadmin::record_of("aa")->number, 1U);
    kvadmin::mark_published(3);
    EXPECT_EQ(kvadmin::record_of("aa")->number, 3U);
    EXPECT_NEAR(static_cast<double>(kvadmin::record_of("aa")->published),
                static_cast<double>(std::time(nullptr)), 5);
    EXPECT_FALSE(kvadmin::record_of("cc").has_value());
}

TEST(KeptMaps, PruningKeepsTheHighestAndTheServedOneAndClearsWhatWritersLeft) {
    for (int i = 0; i < 6; ++i) kvadmin::keep_map(record_named(std::to_string(i)), bytes_of("x"));
    const std::string folder = kvadmin::kKeptFolder;
    for (const char* name : {"/9.map", "/3.json.tmp", "/8.map.tmp", "/notes.txt"})
        write_file(folder + name, "");
    kvadmin::prune_kept_maps(2, 3);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{6, 5, 3}));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"3.json", "3.map", "5.json", "5.map", "6.json",
                                               "6.map", "notes.txt"}));
    kvadmin::prune_kept_maps(1, 6);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{6}));
}

TEST(KeptMaps, ThoseThatWereNeverPublishedAreDroppedButTheServedOne) {
    kvadmin::keep_map(record_named("a", 5), bytes_of("x"));
    kvadmin::keep_map(record_named("b"), bytes_of("x"));
    kvadmin::keep_map(record_named("c"), bytes_of("x"));
    kvadmin::drop_unpublished_maps(2);
    EXPECT_EQ(kept_numbers(), (std::vector<unsigned>{2, 1}));
    EXPECT_FALSE(file_exists(kept_image_path(3)));
}

}  // namespace
}  // namespace kvtest
