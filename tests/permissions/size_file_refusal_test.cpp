// Sizings that are refused, each with its trace, its line in the permission-load log and its
// result: files that are missing or cannot be opened, a persisted map that is not there, memory
// that is out.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>

#include <filesystem>

#include "load_fixture.h"

namespace kvtest {
namespace {

class SizeFileRefusal : public LoadTest {
protected:
    // The result of one call and what it reported at level 0; at a negative level the traces are
    // gone and the load log is written all the same.
    void expect(char* size, char* data, e_membe_shm_err result, const std::string& trace,
                const Report& report) {
        memsummary_t* summary = nullptr;
        EXPECT_EQ(get_permbe_shmsize(size, data, &summary), result);
        EXPECT_EQ(logged(trace), 1) << trace;
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_EQ(reports(), Reports{report});
        EXPECT_EQ(summary, nullptr);
        config_.set_debug_level(-1);
        clear_log();
        EXPECT_EQ(get_permbe_shmsize(size, data, &summary), result);
        EXPECT_TRUE(log_lines().empty());
        EXPECT_EQ(reports(), (Reports{report, report}));
    }
    PairFiles files_;
};

TEST_F(SizeFileRefusal, SizePathAloneIsNotEnough) {
    expect(files_.size.data(), nullptr, SHM_MEMBE_ERR_BADARGS, "perm be size file is blank ",
           {"perm be JSON files are not given", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL});
}

TEST_F(SizeFileRefusal, DataPathAloneIsNotEnough) {
    expect(nullptr, files_.data.data(), SHM_MEMBE_ERR_BADARGS, "perm be size file is blank ",
           {"perm be JSON files are not given", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL});
}

TEST_F(SizeFileRefusal, SizeFileIsMissing) {
    unlink(files_.size.c_str());
    unlink(files_.data.c_str());
    expect(files_.size.data(), files_.data.data(), SHM_MEMBE_ERR_NOPERM_SIZE_FILE,
           "perm be size file " + files_.size + " is missing ",
           {"Missing JSON size file", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL});
}

TEST_F(SizeFileRefusal, MissingDataFileIsTracedWithTheSizeFilesPath) {
    unlink(files_.data.c_str());
    expect(files_.size.data(), files_.data.data(), SHM_MEMBE_ERR_NOPERM_FILE,
           "perm be data file " + files_.size + " is missing ",
           {"Missing JSON data file", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL});
}

TEST_F(SizeFileRefusal, MissingDataFileComesBeforeTheKindOfTheSizeFile) {
    unlink(files_.data.c_str());
    std::string folder = files_.folder;
    expect(folder.data(), files_.data.data(), SHM_MEMBE_ERR_NOPERM_FILE,
           "perm be data file " + folder + " is missing ",
           {"Missing JSON data file", MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL});
}

TEST_F(SizeFileRefusal, SizeFileCannotBeOpened) {
    ASSERT_EQ(chmod(files_.size.c_str(), 0), 0);
    write_file(kLoadLog, "");
    ASSERT_EQ(chmod(kLoadLog, 0666), 0);
    expect_in_child([&] {
        become_user(1001, 1001, {});
        expect(files_.size.data(), files_.data.data(), SHM_MEMBE_ERR_BADARGS,
               "Cannot open perm size file " + files_.size,
               {"Cannot open perm size file " + files_.size, MISSING_JSON_FILES,
                SWEEPER_LOGSEV_FATAL});
    });
}

TEST_F(SizeFileRefusal, SizeFileThatIsNoRegularFileEndsTheProcess) {
    unlink(files_.size.c_str());
    ASSERT_EQ(mkfifo(files_.size.c_str(), 0600), 0);
    for (std::string path : {files_.size, files_.folder}) {
        const ChildResult result = run_child([&] {
            memsummary_t* summary = nullptr;
            return static_cast<int>(get_permbe_shmsize(path.data(), files_.data.data(), &summary));
        });
        EXPECT_TRUE(result.asserted("S_ISREG(st.st_mode)")) << path << result.err;
    }
}

TEST_F(SizeFileRefusal, BlankSizesThePersistedMapThatIsMissing) {
    Summary summary = empty_summary();
    memsummary_t* given = summary.get();
    EXPECT_EQ(get_permbe_shmsize(nullptr, nullptr, &given), SHM_MEMBE_ERR_NOCACHE_FILE);
    EXPECT_EQ(given, summary.get());
    EXPECT_EQ(logged("Perm map does not exist /etc/kavrin/.permbe_map"), 1);
    EXPECT_EQ(reports(), Reports({{"Perm map location does not exist /etc/kavrin/.permbe_map",
                                   CONFIG_FILE_ERROR, SWEEPER_LOGSEV_FATAL}}));
}

TEST_F(SizeFileRefusal, BlankSizesThePersistedMapThatIsThere) {
    write_file(kMapFile, std::string(12345, 'x'));
    Summary summary = empty_summary();
    memsummary_t* given = summary.get();
    EXPECT_EQ(get_permbe_shmsize(nullptr, nullptr, &given), SHM_MEMBE_OK);
    EXPECT_EQ(given, summary.get());
    EXPECT_EQ(summary->memsize, 12345u);
    EXPECT_EQ(summary->perm_map_name_size, nullptr);
    EXPECT_EQ(summary->perm_map_name_data, nullptr);
    EXPECT_EQ(summary->membuf, nullptr);
    EXPECT_TRUE(reports().empty());
    EXPECT_TRUE(log_lines().empty());
}

std::size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Refuses each allocation of the sizing in turn, in a child each. The three that the summary needs
// are reported, each in its way, and leave neither memory nor descriptors behind.
TEST_F(SizeFileRefusal, MemoryRunsOut) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    constexpr int kRounds = 200;
    int summary_refused = 0;
    int path_refused = 0;
    for (int nth = 1; nth < 60; ++nth) {
        unlink(kLoadLog);
        const ChildResult result = run_child([&] {
            std::size_t descriptors = 0;
            std::size_t heap = 0;
            int code = 0;
            for (int round = 0; round < kRounds; ++round) {
                if (round == kRounds / 2) {  // caches are warm by now
                    descriptors = open_descriptors();
                    heap = mallinfo2().uordblks;
                }
                memsummary_t* summary = nullptr;
                {
                    const RefusedAllocation refused(nth);
                    code = get_permbe_shmsize(files_.size.data(), files_.data.data(), &summary);
                }
                if (code != SHM_MEMBE_ERR_NOMEM) return code;
                clear_log();
            }
            EXPECT_EQ(open_descriptors(), descriptors);
            // The smallest block is 32 bytes; half of that is what caching may shift.
            EXPECT_LT(mallinfo2().uordblks, heap + kRounds / 2 * 16) << "memory left behind";
            return testing::Test::HasFailure() ? 100 : code;
        });
        ASSERT_NE(result.exit_code, 100) << "allocation " << nth << "\n" << result.out;
        if (!result.exited || result.exit_code != SHM_MEMBE_ERR_NOMEM) continue;
        if (result.log.empty()) {  // the JSON parser's own
            EXPECT_TRUE(reports().empty());
            continue;
        }
        const std::string of_summary =
            "Cannot allocate mem summary retval 1 err Cannot allocate memory";
        const std::string of_path =
            "Cannot allocate mem summary size path retval 0 err Cannot allocate memory";
        if (result.logged("Could not allocate memory for memory summary") == kRounds) {
            ++summary_refused;
            EXPECT_EQ(result.logged(of_summary), kRounds);
            EXPECT_EQ(reports(),
                      Reports(kRounds, {of_summary, OUT_OF_MEMORY, SWEEPER_LOGSEV_FATAL}));
        } else {
            ++path_refused;
            EXPECT_EQ(result.logged(of_path), kRounds) << "allocation " << nth;
            EXPECT_EQ(reports(), Reports(kRounds, {of_path, OUT_OF_MEMORY, SWEEPER_LOGSEV_FATAL}));
        }
    }
    EXPECT_EQ(summary_refused, 1);
    EXPECT_EQ(path_refused, 2);
}

TEST_F(SizeFileRefusal, LocationOfThePersistedMapCannotBeTold) {
    if (!can_refuse_memory()) GTEST_SKIP() << "the allocator is the sanitizer's";
    write_file(kMapFile, text_of(example_image()));
    Summary summary = empty_summary();
    memsummary_t* given = summary.get();
    e_membe_shm_err result;
    {
        const RefusedAllocation refused(1);
        result = get_permbe_shmsize(nullptr, nullptr, &given);
    }
    EXPECT_EQ(result, SHM_MEMBE_ERR_NOMEM);
    EXPECT_EQ(logged("get_permbe_map_location: returns NULL"), 1);
    EXPECT_EQ(logged("Error getting permbe map location"), 1);
    EXPECT_EQ(
        reports(),
        Reports({{"Error getting permbe map location", CONFIG_FILE_ERROR, SWEEPER_LOGSEV_FATAL}}));
}

}  // namespace
}  // namespace kvtest
