// Filling an image from its data file: what is built, persisted, removed and reported, each with
// real files, and what the folder of the persisted map can do to a load.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>

#include "load_fixture.h"

namespace kvtest {
namespace {

std::string persisted() {
    return file_exists(kMapFile) ? read_file(kMapFile) : "(no file)";
}

class LoadDriver : public LoadTest {
protected:
    // An image of the example's counts with only its header, and the summary that belongs to it.
    struct Prepared {
        Summary summary = empty_summary();
        Bytes image = Bytes(581);
    };
    Prepared prepare(const PairFiles& files) {
        Prepared prepared;
        std::copy_n(kExampleImage.begin(), 176, prepared.image.begin());
        for (const std::size_t cursor : {132, 144, 156, 168})
            std::fill_n(prepared.image.begin() + static_cast<std::ptrdiff_t>(cursor), 4, 0);
        prepared.summary->membuf = prepared.image.data();
        prepared.summary->memsize = 581;
        prepared.summary->perm_map_name_size = strdup(files.size.c_str());
        prepared.summary->perm_map_name_data = strdup(files.data.c_str());
        return prepared;
    }
    e_membe_shm_err process(memsummary_t* summary) {
        const CapturedStream out(STDOUT_FILENO);
        const CapturedStream err(STDERR_FILENO);
        const e_membe_shm_err result = process_permmap(summary);
        out_ = out.text();
        err_ = err.text();
        return result;
    }
    static void expect_removed(const PairFiles& files) {
        EXPECT_FALSE(file_exists(files.data));
        EXPECT_FALSE(file_exists(files.size));
    }
    std::string out_;
    std::string err_;
};

TEST_F(LoadDriver, NullSummaryIsRefused) {
    EXPECT_EQ(process_permmap(nullptr), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Null summary "), 1);
    EXPECT_TRUE(reports().empty());
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(process_permmap(nullptr), SHM_MEMBE_ERR_BADARGS);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(LoadDriver, ExampleIsBuiltPersistedAndItsFilesRemoved) {
    PairFiles files;
    Prepared prepared = prepare(files);
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_EQ(prepared.image, example_image());
    EXPECT_EQ(persisted(), text_of(example_image()));
    expect_removed(files);
    EXPECT_TRUE(reports().empty()) << "the outcome is reported by the caller";
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(STACK_EMPTY(&prepared.summary->sth));
    EXPECT_EQ(prepared.summary->sth.totalelems, 0u);
}

TEST_F(LoadDriver, EveryNameIsTracedToStandardOutput) {
    config_.set_debug_level(-1);
    PairFiles files;
    Prepared prepared = prepare(files);
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_EQ(out_,
              "--------> Name / hahsval 1518810369 \n"
              "--------> Name Shared hahsval 1483512950 \n"
              "--------> Name Docs hahsval 1441710606 \n"
              "--------> Name report.txt hahsval 272242975 \n"
              "--------> Name Private hahsval 1806625826 \n");
}

TEST_F(LoadDriver, SummaryBecomesCurrentAndStartsWithAnEmptyStack) {
    PairFiles files;
    Prepared prepared = prepare(files);
    for (const e_json_permdata_states state : {PERMDATA_STATE_CHILDREN, PERMDATA_STATE_NAME}) {
        ASSERT_EQ(push_stackelem_wstatedata(prepared.summary.get(), state, 0, nullptr,
                                            STELEM_TYPE_INVALID),
                  SHM_MEMBE_OK);
    }
    memsummary = nullptr;
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_EQ(memsummary, prepared.summary.get());
    EXPECT_EQ(prepared.image, example_image());
}

TEST_F(LoadDriver, CommentsAreAllowed) {
    PairFiles files(kExampleSize, "/* the tree */" + std::string(kExampleData) + "// the end\n");
    Prepared prepared = prepare(files);
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_EQ(prepared.image, example_image());
    EXPECT_EQ(err_, "");
}

TEST_F(LoadDriver, MapFileIsPrivateToRootWhateverTheMask) {
    for (const mode_t mask : {000, 022, 077, 0177, 0377, 0777}) {
        unlink(kMapFile);
        PairFiles files;
        Prepared prepared = prepare(files);
        const mode_t previous = umask(mask);
        EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
        umask(previous);
        struct stat st {};
        ASSERT_EQ(stat(kMapFile, &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << "umask " << std::oct << mask;
    }
}

TEST_F(LoadDriver, OlderLargerMapFileIsReplaced) {
    write_file(kMapFile, std::string(5000, 'x'));
    PairFiles files;
    Prepared prepared = prepare(files);
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_EQ(persisted(), text_of(example_image()));
}

TEST_F(LoadDriver, UnusedTailIsPersistedToo) {
    PairFiles files(
        R"({"MAPNAME":"perm_map_A","VERSION":"2.4.1","GENERATIONNUM":1187,"TIMESTAMP":1700000000,)"
        R"("TOTALFSELEMS":9,"TOTALACES":9,"TOTALNAMELEN":100})",
        kExampleData);
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    EXPECT_EQ(loading.image.size(), 924u);
    EXPECT_EQ(persisted(), text_of(loading.image));
    EXPECT_EQ(u32_at(loading.image.data(), 168), 68u);
}

TEST_F(LoadDriver, LargeDocumentIsReadAtOnce) {
    Node root{"/", {}, {{1000, 8}}, {}};
    for (int folder = 0; folder < 40; ++folder) {
        Node child{"folder " + std::to_string(folder), {{1001, 7}}, {}, {}};
        for (int file = 0; file < 50; ++file)
            child.children.push_back({"file number " + std::to_string(file), {}, {}, {}});
        root.children.push_back(child);
    }
    const Pair pair = to_pair(root);
    ASSERT_GT(pair.data_json.size(), 200000u);
    PairFiles files(pair.size_json, pair.data_json);
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    EXPECT_EQ(loading.err, "");
    EXPECT_EQ(u32_at(loading.image.data(), 132), 24u * 2041) << "every element is there";
    EXPECT_EQ(u32_at(loading.image.data(), 144), u32_at(loading.image.data(), 140))
        << "names fill their region";
    EXPECT_EQ(u32_at(loading.image.data(), 156), u32_at(loading.image.data(), 152))
        << "ACLs fill their region";
    EXPECT_EQ(persisted(), text_of(loading.image));
}

// Documents that the parser gives up --------------------------------------------------------------

TEST_F(LoadDriver, SyntaxErrorHalfwayPersistsWhatWasBuilt) {
    std::string half = kExampleData;
    half.resize(half.find("\"DIR\": \"report.txt\""));
    half += "]";
    PairFiles files(kExampleSize, half);
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
    expect_removed(files);
    EXPECT_EQ(persisted(), text_of(loading.image));
    EXPECT_EQ(reports(), Reports{kLoaded});

    // report.txt was opened but neither named nor given an ACL; Private never came.
    Bytes wanted = example_image();
    const auto clear = [&](std::ptrdiff_t offset, int size) {
        std::fill_n(wanted.begin() + offset, size, 0);
    };
    const auto cursor = [&](std::ptrdiff_t offset, std::uint8_t used) {
        wanted[static_cast<std::size_t>(offset)] = used;
    };
    cursor(132, 96);
    cursor(144, 50);
    cursor(156, 72);
    cursor(168, 68);
    clear(176 + 72 + 8, 16);
    clear(176 + 96, 24);
    clear(296 + 50, 43);
    clear(389 + 72, 40);
    clear(501 + 16 + 16, 4);
    wanted[501 + 16 + 8] = 1;
    EXPECT_EQ(loading.image, wanted);
}

TEST_F(LoadDriver, UnknownKeyHalfwayPersistsWhatWasBuilt) {
    PairFiles files(kExampleSize, R"([{"NUMCHILDREN": 1}, {"DIR": "/", "OWNER": 1}])");
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
    EXPECT_EQ(logged("Invalid state OWNER state 27 curst 1"), 1);
    EXPECT_EQ(u32_at(loading.image.data(), 132), 24u);
    EXPECT_EQ(u32_at(loading.image.data(), 144), 14u);
    EXPECT_EQ(persisted(), text_of(loading.image));
    expect_removed(files);
}

TEST_F(LoadDriver, DocumentThatEndsEarlyIsAnErrorOfTheParserAlone) {
    for (const char* document : {"", " ", "[", R"([{"NUMCHILDREN": 1)"}) {
        PairFiles files(kExampleSize, document);
        const Loading loading = load(files);
        EXPECT_EQ(loading.result, SHM_MEMBE_OK) << document;
        EXPECT_NE(loading.err.find("parse error"), std::string::npos) << document << loading.err;
        EXPECT_EQ(persisted(), text_of(loading.image)) << document;
        expect_removed(files);
    }
}

TEST_F(LoadDriver, WhatFollowsTheDocumentIsAnErrorOfTheParserAlone) {
    PairFiles files(kExampleSize, std::string(kExampleData) + "]");
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    EXPECT_NE(loading.err.find("parse error"), std::string::npos) << loading.err;
    EXPECT_EQ(loading.image, example_image());
}

TEST_F(LoadDriver, BrokenGrammarLeavesNoMapFile) {
    PairFiles files(kExampleSize, R"([{"NUMCHILDREN": 1}, {"DIR": 5}])");
    Prepared prepared = prepare(files);
    const ChildResult result =
        run_child([&] { return static_cast<int>(process_permmap(prepared.summary.get())); });
    EXPECT_TRUE(result.aborted());
    EXPECT_EQ(persisted(), "(no file)");
    EXPECT_TRUE(file_exists(files.data));
}

// Files that cannot be read -----------------------------------------------------------------------

TEST_F(LoadDriver, MissingDataFileIsReportedAndTheSizeFileStays) {
    PairFiles files;
    Prepared prepared = prepare(files);
    unlink(files.data.c_str());
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("No such file " + files.data), 1);
    EXPECT_EQ(reports(),
              Reports({{"No such file " + files.data, MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL}}));
    EXPECT_TRUE(file_exists(files.size));
    EXPECT_EQ(persisted(), "(no file)");
    config_.set_debug_level(-1);
    clear_log();
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(reports().size(), 2u);
}

TEST_F(LoadDriver, UnreadableDataFileIsReportedAndBothFilesStay) {
    PairFiles files;
    Prepared prepared = prepare(files);
    ASSERT_EQ(chmod(files.data.c_str(), 0), 0);
    write_file(kLoadLog, "");
    ASSERT_EQ(chmod(kLoadLog, 0666), 0);
    const ChildResult child = expect_in_child([&] {
        become_user(1001, 1001, {});
        EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_ERR_BADARGS);
    });
    EXPECT_EQ(child.logged("cannot open file " + files.data), 1);
    EXPECT_EQ(
        reports(),
        Reports({{"cannot open file " + files.data, CANNOT_READ_JSON_FILE, SWEEPER_LOGSEV_FATAL}}));
    EXPECT_TRUE(file_exists(files.data));
    EXPECT_TRUE(file_exists(files.size));
    EXPECT_EQ(persisted(), "(no file)");
}

TEST_F(LoadDriver, FailingReadEndsTheParseAndFailingUnlinkIsReported) {
    PairFiles files;
    unlink(files.data.c_str());
    ASSERT_EQ(mkdir(files.data.c_str(), 0755), 0);  // opens, but cannot be read nor unlinked
    Prepared prepared = prepare(files);
    const Bytes header = prepared.image;
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_OK);
    EXPECT_NE(err_.find("error on file read.\n"), std::string::npos) << err_;
    EXPECT_EQ(persisted(), text_of(header));
    const std::string text = "Could not unlink data file " + files.data + " errno 21";
    EXPECT_EQ(logged(text), 1);
    EXPECT_EQ(reports(), Reports({{text, CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN}}));
    EXPECT_FALSE(file_exists(files.size));
}

TEST_F(LoadDriver, GoodReadWritesNoReadError) {
    PairFiles files;
    Prepared prepared = prepare(files);
    process(prepared.summary.get());
    EXPECT_EQ(err_.find("error on file read."), std::string::npos);
}

// Files that cannot be removed --------------------------------------------------------------------

TEST_F(LoadDriver, PairInAReadOnlyPlaceIsLoadedAndStays) {
    PairFiles files;
    const ChildResult child = expect_in_child([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        const char* folder = files.folder.c_str();
        ASSERT_EQ(mount(folder, folder, nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(mount("none", folder, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
        const Loading loading = load(files);
        EXPECT_EQ(loading.result, SHM_MEMBE_OK);
        EXPECT_EQ(loading.image, example_image());
    });
    const std::string data = "Could not unlink data file " + files.data + " errno 30";
    const std::string size = "Could not unlink size file " + files.size + " errno 30";
    EXPECT_EQ(child.logged(data), 1);
    EXPECT_EQ(child.logged(size), 1);
    EXPECT_EQ(reports(), (Reports{{data, CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN},
                                  {size, CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN},
                                  kLoaded}));
    EXPECT_TRUE(file_exists(files.data));
    EXPECT_TRUE(file_exists(files.size));
    EXPECT_EQ(persisted(), text_of(example_image()));
}

TEST_F(LoadDriver, VanishedSizeFileIsReported) {
    PairFiles files;
    Loading loading = size_pair(files);
    unlink(files.size.c_str());
    fill(loading);
    EXPECT_EQ(loading.result, SHM_MEMBE_OK);
    const std::string text = "Could not unlink size file " + files.size + " errno 2";
    EXPECT_EQ(logged(text), 1);
    EXPECT_EQ(reports(), (Reports{{text, CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN}, kLoaded}));
    EXPECT_FALSE(file_exists(files.data));
}

// A map file that cannot be written ---------------------------------------------------------------

class MapFolder : public LoadDriver {
protected:
    // Loads a pair in a child that mounts something over a folder first.
    void load_below(const char* folder, unsigned long flags, const char* options, Pair pair) {
        PairFiles files(pair.size_json, pair.data_json);
        const ChildResult child = expect_in_child([&] {
            ASSERT_EQ(unshare(CLONE_NEWNS), 0);
            ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
            ASSERT_EQ(mount("other", folder, "tmpfs", flags, options), 0);
            const Loading loading = load(files);
            EXPECT_EQ(loading.result, SHM_MEMBE_ERR_PERMMAP_WRERR);
        });
        EXPECT_EQ(child.logged("Cannot persist permission map"), 1);
        EXPECT_EQ(reports(), Reports{kNotLoaded});
        expect_removed(files);
    }
    const Pair example_{kExampleSize, kExampleData};
};

TEST_F(MapFolder, Missing) {
    load_below("/etc", 0, "mode=0755", example_);
}
TEST_F(MapFolder, ReadOnly) {
    load_below("/etc/kavrin", MS_RDONLY, "mode=0755", example_);
}
TEST_F(MapFolder, Full) {
    Node root{"/", {}, {}, {}};
    for (int i = 0; i < 100; ++i) root.children.push_back({"a file's name", {{1, 1}}, {}, {}});
    load_below("/etc/kavrin", 0, "mode=0755,size=4096", to_pair(root));
}

TEST_F(MapFolder, TakenByAFolderOfTheMapsName) {
    ASSERT_EQ(mkdir(kMapFile, 0755), 0);
    PairFiles files;
    const Loading loading = load(files);
    EXPECT_EQ(loading.result, SHM_MEMBE_ERR_PERMMAP_WRERR);
    EXPECT_EQ(logged("Cannot persist permission map"), 1);
    EXPECT_EQ(reports(), Reports{kNotLoaded});
    expect_removed(files);
    ASSERT_EQ(rmdir(kMapFile), 0);
}

TEST_F(MapFolder, NegativeLevelSilencesTheTrace) {
    config_.set_debug_level(-1);
    ASSERT_EQ(mkdir(kMapFile, 0755), 0);
    PairFiles files;
    EXPECT_EQ(load(files).result, SHM_MEMBE_ERR_PERMMAP_WRERR);
    EXPECT_TRUE(log_lines().empty());
    ASSERT_EQ(rmdir(kMapFile), 0);
}

// A process without standard input gets descriptor 0 for its map file, which is taken for a
// failure.
TEST_F(LoadDriver, DescriptorZeroCountsAsFailure) {
    PairFiles files;
    const ChildResult child = expect_in_child([&] {
        const Loading loading = size_pair(files);
        Bytes image(loading.summary->memsize);
        loading.summary->membuf = image.data();
        close(STDIN_FILENO);
        EXPECT_EQ(init_permbe_shm(loading.summary.get()), SHM_MEMBE_ERR_PERMMAP_WRERR);
        EXPECT_EQ(image, example_image()) << "the data file itself may be descriptor 0";
    });
    EXPECT_EQ(child.logged("Cannot persist permission map"), 1);
    expect_removed(files);
    EXPECT_EQ(reports(), Reports{kNotLoaded});
}

TEST_F(LoadDriver, ImageWithoutItsMarkIsNotPersisted) {
    PairFiles files(kExampleSize, "");
    Prepared prepared = prepare(files);
    prepared.image[172] ^= 1;
    EXPECT_EQ(process(prepared.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Invalid or uninitialized buffer"), 1);
    EXPECT_EQ(persisted(), "(no file)");
    expect_removed(files);
}

TEST_F(LoadDriver, EmptyBufferIsNotPersisted) {
    PairFiles no_image(kExampleSize, "");
    Prepared without = prepare(no_image);
    without.summary->membuf = nullptr;
    EXPECT_EQ(process(without.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Empty buffer"), 1);
    expect_removed(no_image);

    PairFiles no_size(kExampleSize, "");
    Prepared empty = prepare(no_size);
    empty.summary->memsize = 0;
    EXPECT_EQ(process(empty.summary.get()), SHM_MEMBE_ERR_BADARGS);
    EXPECT_EQ(logged("Empty buffer"), 2);
    expect_removed(no_size);
    EXPECT_EQ(persisted(), "(no file)");
}

// The location's allocation is found by refusing each in turn.
TEST_F(LoadDriver, WithoutALocationNothingIsPersisted) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    int found = 0;
    for (int nth = 1; nth < 60; ++nth) {
        PairFiles files(kExampleSize, "");
        Prepared prepared = prepare(files);
        const ChildResult result = run_child([&] {
            const RefusedAllocation refused(nth);
            return static_cast<int>(process_permmap(prepared.summary.get()));
        });
        if (result.logged("get_permbe_map_location: returns NULL") == 0) continue;
        ++found;
        EXPECT_EQ(result.logged("Null perm map file"), 1);
        EXPECT_EQ(result.exit_code, SHM_MEMBE_ERR_BADARGS);
        expect_removed(files);
    }
    EXPECT_EQ(found, 1);
}

}  // namespace
}  // namespace kvtest
