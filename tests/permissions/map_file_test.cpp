// The persisted map file: where it lies, how an image is loaded back from it, every file that must
// not be taken for one, and the dump of an image into the traces.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

#include "load_fixture.h"

namespace kvtest {
namespace {

TEST(MapLocation, IsAFreshString) {
    const ConfigTable config;
    char* first = get_permbe_map_location();
    char* second = get_permbe_map_location();
    EXPECT_STREQ(first, "/etc/kavrin/.permbe_map");
    EXPECT_STREQ(second, "/etc/kavrin/.permbe_map");
    EXPECT_NE(first, second);
    EXPECT_GE(malloc_usable_size(first), 24u);
    std::free(first);
    std::free(second);
    EXPECT_TRUE(log_lines().empty());
}

TEST(MapLocation, IsNullWithoutMemory) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    ConfigTable config;
    for (const int level : {0, -1}) {
        config.set_debug_level(level);
        clear_log();
        const char* location;
        {
            const RefusedAllocation refused(1);
            location = get_permbe_map_location();
        }
        EXPECT_EQ(location, nullptr);
        EXPECT_EQ(logged("get_permbe_map_location: returns NULL"), level == 0 ? 1 : 0);
    }
}

class MapFile : public LoadTest {
protected:
    MapFile() : summary_(empty_summary()) { use(581); }
    void use(std::uint32_t size) {
        image_.assign(size, 0xEE);
        summary_->membuf = image_.data();
        summary_->memsize = size;
    }
    e_membe_shm_err read_back() { return process_permmap(summary_.get()); }
    // A refusal with its trace; the load log tells of a success all the same.
    void expect_refused(e_membe_shm_err result, const std::string& trace) {
        EXPECT_EQ(read_back(), result);
        EXPECT_EQ(logged(trace), 1) << trace;
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_EQ(reports(), Reports{kReread});
        config_.set_debug_level(-1);
        clear_log();
        EXPECT_EQ(read_back(), result);
        EXPECT_TRUE(log_lines().empty());
        EXPECT_EQ(reports(), (Reports{kReread, kReread}));
    }
    Summary summary_;
    Bytes image_;
};

TEST_F(MapFile, IsLoadedBackByteForByte) {
    write_file(kMapFile, text_of(example_image()));
    EXPECT_EQ(read_back(), SHM_MEMBE_OK);
    EXPECT_EQ(image_, example_image());
    EXPECT_EQ(reports(), Reports{kReread});
    EXPECT_TRUE(log_lines().empty());
    EXPECT_TRUE(file_exists(kMapFile));
}

TEST_F(MapFile, IsLoadedBackThroughTheServicesCalls) {
    PairFiles files;
    EXPECT_EQ(load(files).result, SHM_MEMBE_OK);
    unlink(kLoadLog);
    memsummary_t* given = summary_.get();
    EXPECT_EQ(get_permbe_shmsize(nullptr, nullptr, &given), SHM_MEMBE_OK);
    EXPECT_EQ(given->memsize, 581u);
    use(given->memsize);
    EXPECT_EQ(init_permbe_shm(given), SHM_MEMBE_OK);
    EXPECT_EQ(image_, example_image());
    EXPECT_EQ(reports(), (Reports{kReread, kLoaded}));
}

TEST_F(MapFile, FailureIsReportedBehindTheReread) {
    write_file(kMapFile, std::string(581, 'x'));
    EXPECT_EQ(init_permbe_shm(summary_.get()), SHM_MEMBE_ERR_PERMMAP_RDERR);
    EXPECT_EQ(reports(), (Reports{kReread, kNotLoaded}));
}

TEST_F(MapFile, ShorterThanTheBufferLeavesZerosBehindIt) {
    write_file(kMapFile, text_of(example_image()));
    use(1000);
    EXPECT_EQ(read_back(), SHM_MEMBE_OK);
    EXPECT_TRUE(std::equal(kExampleImage.begin(), kExampleImage.end(), image_.begin()));
    EXPECT_EQ(std::count(image_.begin() + 581, image_.end(), 0), 1000 - 581);
}

TEST_F(MapFile, Missing) {
    expect_refused(SHM_MEMBE_ERR_BADARGS, "perm map fille /etc/kavrin/.permbe_map does not exist");
    EXPECT_EQ(std::count(image_.begin(), image_.end(), 0xEE), 581) << "the buffer is left alone";
}

TEST_F(MapFile, NeedsAnImage) {
    write_file(kMapFile, text_of(example_image()));
    summary_->membuf = nullptr;
    expect_refused(SHM_MEMBE_ERR_BADARGS, "Empty buffer");
}

TEST_F(MapFile, NeedsASize) {
    write_file(kMapFile, text_of(example_image()));
    summary_->memsize = 0;
    expect_refused(SHM_MEMBE_ERR_BADARGS, "Empty buffer");
}

TEST_F(MapFile, LargerThanTheBuffer) {
    write_file(kMapFile, std::string(text_of(example_image())) + std::string(19, '\0'));
    expect_refused(SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL,
                   "perm map file /etc/kavrin/.permbe_map larger than buffer size 581");
    EXPECT_EQ(std::count(image_.begin(), image_.end(), 0xEE), 581) << "the buffer is left alone";
}

TEST_F(MapFile, EveryByteOfTheMarkCounts) {
    for (std::size_t byte = 172; byte < 176; ++byte) {
        Bytes damaged = example_image();
        damaged[byte] ^= 0x10;
        write_file(kMapFile, text_of(damaged));
        clear_log();
        EXPECT_EQ(read_back(), SHM_MEMBE_ERR_PERMMAP_RDERR) << byte;
        EXPECT_EQ(logged_part("Invalid buffer "), 1) << byte;
    }
}

TEST_F(MapFile, WrongMarkIsTold) {
    Bytes damaged = example_image();
    const std::uint8_t mark[] = {0xEF, 0xBE, 0xAD, 0xDE};
    std::copy_n(mark, 4, damaged.begin() + 172);
    write_file(kMapFile, text_of(damaged));
    expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Invalid buffer deadbeef");
}

TEST_F(MapFile, Empty) {
    write_file(kMapFile, "");
    expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Invalid buffer 0");
    EXPECT_EQ(std::count(image_.begin(), image_.end(), 0), 581);
}

// Neither the header that a load lays out before reading nor what lies behind the image may pass
// for the mark of a file that is too short to hold one.
TEST_F(MapFile, ShorterThanAHeader) {
    write_file(kMapFile, text_of(example_image()).substr(0, 100));
    use(4096);
    std::copy(kExampleImage.begin(), kExampleImage.end(), image_.begin());
    EXPECT_EQ(read_back(), SHM_MEMBE_ERR_PERMMAP_RDERR);

    memsummary_t* given = summary_.get();
    ASSERT_EQ(get_permbe_shmsize(nullptr, nullptr, &given), SHM_MEMBE_OK);
    ASSERT_EQ(given->memsize, 100u);
    EXPECT_EQ(init_permbe_shm(given), SHM_MEMBE_ERR_PERMMAP_RDERR) << "100 bytes in a page";
}

TEST_F(MapFile, Unreadable) {
    write_file(kMapFile, text_of(example_image()));
    ASSERT_EQ(chmod(kMapFile, 0), 0);
    write_file(kLoadLog, "");
    ASSERT_EQ(chmod(kLoadLog, 0666), 0);
    expect_in_child([&] {
        become_user(1001, 1001, {});
        expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Cannot read permission map");
        EXPECT_EQ(std::count(image_.begin(), image_.end(), 0), 581) << "cleared before the read";
    });
}

TEST_F(MapFile, FolderOfItsNameCannotBeRead) {
    ASSERT_EQ(mkdir(kMapFile, 0755), 0);
    use(8192);
    expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Cannot read permission map");
    ASSERT_EQ(rmdir(kMapFile), 0);
}

// A file of a kernel's folder claims a page and gives fewer bytes.
TEST_F(MapFile, ShortRead) {
    write_file(kMapFile, "");
    const std::string folder = make_temp_dir();
    const ChildResult child = expect_in_child([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("sysfs", folder.c_str(), "sysfs", MS_RDONLY, nullptr), 0);
        const std::string source = folder + "/kernel/fscaps";
        ASSERT_EQ(mount(source.c_str(), kMapFile, nullptr, MS_BIND, nullptr), 0);
        use(8192);
        expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Cannot read permission map");
    });
}

TEST_F(MapFile, DescriptorZeroCountsAsFailure) {
    write_file(kMapFile, text_of(example_image()));
    expect_in_child([&] {
        close(STDIN_FILENO);
        expect_refused(SHM_MEMBE_ERR_PERMMAP_RDERR, "Cannot read permission map");
    });
}

TEST_F(MapFile, WithoutALocationNothingIsLoaded) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    write_file(kMapFile, text_of(example_image()));
    e_membe_shm_err result;
    {
        const RefusedAllocation refused(1);
        result = read_back();
    }
    EXPECT_EQ(result, SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("get_permbe_map_location: returns NULL"), 1);
    EXPECT_EQ(logged("Null perm map file"), 1);
    EXPECT_EQ(reports(), Reports{kReread});
}

// The dump ----------------------------------------------------------------------------------------

class TreeDump : public LoadTest {
protected:
    kavrin_be_header_t* header() { return reinterpret_cast<kavrin_be_header_t*>(image_.data()); }
    fs_elem_t* element(std::size_t offset) {
        return reinterpret_cast<fs_elem_t*>(image_.data() + 176 + offset);
    }
    static std::vector<std::string> messages() {
        std::vector<std::string> found;
        for (const LogLine& line : log_lines()) found.push_back(line.message);
        return found;
    }
    Bytes image_ = example_image();
};

const std::vector<std::string> kHeaderDump = {"Summary",
                                              "Map name perm_map_A",
                                              "next map ",
                                              "Generation number 1187",
                                              "Time stamp 1700000000",
                                              "Total filesystem elems 5",
                                              "Total ACEs 6",
                                              "Total lists 0",
                                              "Fselem offset 176",
                                              "Fselem size 120",
                                              "Next free fselem  120",
                                              "Name elem offser 296",
                                              "Name eleem size 93",
                                              "Next free nameelem 93",
                                              "Acl offset 389",
                                              "ACL size 112",
                                              "Next free ACL 112",
                                              "List offset 501",
                                              "List size 80",
                                              "Next free list 68",
                                              "Signature 514297519"};
const std::vector<std::string> kTreeDump = {"Level 1 Name /", "Level 2 Name Shared",
                                            "Level 3 Name Docs", "Level 4 Name report.txt",
                                            "Level 2 Name Private"};

TEST_F(TreeDump, HeaderIsTracedFromLevel7) {
    config_.set_debug_level(6);
    print_tree(header());
    EXPECT_TRUE(log_lines().empty());
    for (const int level : {7, 9}) {
        config_.set_debug_level(level);
        clear_log();
        print_tree(header());
        EXPECT_EQ(messages(), kHeaderDump);
    }
}

TEST_F(TreeDump, NamesAreTracedFromLevel10) {
    config_.set_debug_level(10);
    print_tree(header());
    std::vector<std::string> wanted = kHeaderDump;
    wanted.insert(wanted.end(), kTreeDump.begin(), kTreeDump.end());
    EXPECT_EQ(messages(), wanted);
    for (const LogLine& line : log_lines()) EXPECT_EQ(line.priority, 6);
}

TEST_F(TreeDump, WalkStartsAnywhere) {
    config_.set_debug_level(10);
    walk_tree(header(), element(48), 7);
    EXPECT_EQ(messages(),
              (std::vector<std::string>{"Level 8 Name Docs", "Level 9 Name report.txt"}));
    clear_log();
    walk_tree(header(), element(96), 0);
    EXPECT_EQ(messages(), std::vector<std::string>{"Level 1 Name Private"});
}

TEST_F(TreeDump, DamagedRecordsEndTheProcess) {
    struct Damage {
        const char* what;
        std::size_t offset;
    };
    const Damage damages[] = {{"header", 172},
                              {"root", 176},
                              {"Shared", 176 + 24},
                              {"report.txt", 176 + 72},
                              {"the root's list", 501 + 16},
                              {"the list of Docs", 501 + 52}};
    for (const Damage& damage : damages) {
        image_ = example_image();
        image_[damage.offset] ^= 1;
        EXPECT_TRUE(run_child_void([&] { walk_tree(header(), element(0), 0); }).aborted())
            << damage.what;
        EXPECT_TRUE(run_child_void([&] { print_tree(header()); }).aborted()) << damage.what;
    }
    image_ = example_image();
    EXPECT_TRUE(run_child_void([&] { print_tree(header()); }).exited);
}

}  // namespace
}  // namespace kvtest
