// kavrinctl events recover: every kind of leftover, and real flushers that are killed at each step
// between making their temporary file and giving it its name.
#include "event_recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>

#include "descriptor.h"
#include "event_files.h"
#include "tool_run.h"

namespace {

enum class Step { kNone, kSync, kRename, kNoNames };
Step die_at = Step::kNone;

}  // namespace

// In the place of the system's: a process dies here, or finds a file system without such renames.
extern "C" int renameat2(int from_folder, const char* from, int to_folder, const char* to,
                         unsigned int flags) noexcept {
    if (die_at == Step::kRename) kill(getpid(), SIGKILL);
    if (die_at == Step::kNoNames) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_renameat2, from_folder, from, to_folder, to, flags));
}

extern "C" int fdatasync(int file) {
    if (die_at == Step::kSync) kill(getpid(), SIGKILL);
    return static_cast<int>(syscall(SYS_fdatasync, file));
}

namespace {

using kvtest::ChildResult;
using kvtest::frame;
using kvtest::numbered_event;
using kvtest::numbered_file;
using kvtest::run_tool;
using Names = std::vector<std::string>;

constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";
constexpr std::time_t kThen = 1700000000;

class Recover : public ::testing::Test {
protected:
    Recover() { std::filesystem::create_directory("/kavrin/.conf"); }

    // A leftover that was written long ago.
    void leave(const std::string& name, const std::string& bytes, std::time_t seconds = kThen,
               long nanoseconds = 42000) {
        kvtest::write_file(path(name), bytes);
        set_time(name, seconds, nanoseconds);
    }
    void set_time(const std::string& name, std::time_t seconds, long nanoseconds) {
        const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0);
    }
    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    Names names() const {
        Names found;
        for (const auto& entry : std::filesystem::directory_iterator(folder_))
            found.push_back(entry.path().filename());
        std::sort(found.begin(), found.end());
        return found;
    }
    ChildResult recover(std::vector<std::string> more = {}) const {
        std::vector<std::string> words{"events", "recover", folder_};
        words.insert(words.end(), more.begin(), more.end());
        return run_tool(words);
    }
    static bool marked() { return kvtest::file_exists(kMarker); }

    // The shared objects, for this table and for the tool's.
    void make_staging(int size = 8192) {
        table_.set_string(PARAM_STAGING_DIR, folder_);
        table_.set_int(PARAM_STAGING_BUFFER_SIZE, size);
        table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 90);
        ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
        ASSERT_EQ(create_staging_buffer(), 0);
    }
    static void stage(const std::string& records) {
        for (std::size_t at = 0; at < records.size();) {
            std::uint32_t size = 0;
            std::memcpy(&size, records.data() + at, sizeof size);
            std::vector<char> record(records.begin() + static_cast<std::ptrdiff_t>(at),
                                     records.begin() + static_cast<std::ptrdiff_t>(at + 8 + size));
            ASSERT_EQ(write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())), 0);
            at += 8 + size;
        }
    }
    // A flush in a child that dies at this step; its leftover made old.
    void die_in_flush(Step step) {
        const Names before = names();
        const ChildResult result = kvtest::run_child([&] {
            die_at = step;
            return flush_staging_buffer();
        });
        EXPECT_EQ(result.signal, SIGKILL);
        for (const std::string& name : names())
            if (std::find(before.begin(), before.end(), name) == before.end())
                set_time(name, kThen + static_cast<std::time_t>(before.size()), 7000);
    }
    // All events that a reader of the folder gets, by path.
    std::vector<std::string> events() const {
        std::vector<std::string> found;
        const ChildResult result = run_tool({"events", "cat", "--json", folder_});
        EXPECT_EQ(result.exit_code, 0) << result.err;
        for (const std::string& line : kvtest::lines_of(result.out))
            found.push_back(nlohmann::json::parse(line)["path"]);
        return found;
    }
    static std::vector<std::string> numbered_paths(int first, int count) {
        std::vector<std::string> paths;
        for (int i = 0; i < count; ++i) paths.push_back(numbered_event(first + i).path);
        return paths;
    }

    kvtest::ConfigTable table_{-1};
    const std::string folder_ = kvtest::make_temp_dir();
};

}  // namespace

TEST_F(Recover, PublishesAWholeFileUnderTheTimeItWasWritten) {
    const std::string bytes = numbered_file(0, 3);
    leave("kvtempAbCdEf", bytes);
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.out, "kvtempAbCdEf: 3 records, published as pending_1700000000.000042\n");
    EXPECT_EQ(names(), Names{"pending_1700000000.000042"});
    EXPECT_EQ(kvtest::read_file(path("pending_1700000000.000042")), bytes);
    EXPECT_FALSE(marked());
}

TEST_F(Recover, TakesTheNextMicrosecondWhenTheNameIsTaken) {
    leave("pending_1700000000.999999", numbered_file(10, 1));
    leave("pending_1700000001.000000", numbered_file(11, 1));
    leave("kvtempAbCdEf", numbered_file(0, 1), kThen, 999999999);
    EXPECT_EQ(recover().exit_code, 0);
    EXPECT_EQ(names(), (Names{"pending_1700000000.999999", "pending_1700000001.000000",
                              "pending_1700000001.000001"}));
    EXPECT_EQ(events(), (std::vector<std::string>{numbered_event(10).path, numbered_event(11).path,
                                                  numbered_event(0).path}));
}

TEST_F(Recover, WorksWhereTheFileSystemHasNoSafeRename) {
    leave("pending_1700000000.000042", numbered_file(10, 1));
    leave("kvtempAbCdEf", numbered_file(0, 1));
    leave("kvtempTornTo", "torn");
    const ChildResult result = kvtest::run_child([&] {
        die_at = Step::kNoNames;
        const char* words[] = {"kavrinctl", "events", "recover", folder_.c_str()};
        return kvadmin::run(4, words);
    });
    EXPECT_EQ(result.exit_code, 3) << result.err;
    EXPECT_EQ(names(),
              (Names{"pending_1700000000.000042", "pending_1700000000.000043", "torn_TornTo"}));
    EXPECT_EQ(kvtest::read_file(path("pending_1700000000.000042")), numbered_file(10, 1));
}

TEST_F(Recover, LeavesYoungFilesAlone) {
    kvtest::write_file(path("kvtempAbCdEf"), numbered_file(0, 1));
    leave("kvtempFuture", numbered_file(1, 1), std::time(nullptr) + 1000);
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              "kvtempAbCdEf: left alone: it was written less than 10 seconds ago\n"
              "kvtempFuture: left alone: it was written less than 10 seconds ago\n");
    EXPECT_EQ(names(), (Names{"kvtempAbCdEf", "kvtempFuture"}));
    set_time("kvtempAbCdEf", std::time(nullptr) - 5, 0);
    EXPECT_EQ(recover({"--older-than", "60"}).exit_code, 0);
    EXPECT_EQ(names().size(), 2u);
    EXPECT_EQ(recover({"--older-than", "3"}).exit_code, 0);
    EXPECT_EQ(names()[0], "kvtempFuture");
    EXPECT_EQ(recover({"--older-than", "0"}).exit_code, 0);
    EXPECT_EQ(events().size(), 2u);
}

TEST_F(Recover, LeavesAFileAloneThatAProcessIsWriting) {
    leave("kvtempAbCdEf", numbered_file(0, 1));
    leave("kvtempEmptyX", "");
    const kvadmin::Descriptor one(open(path("kvtempAbCdEf").c_str(), O_RDWR | O_CLOEXEC));
    const kvadmin::Descriptor two(open(path("kvtempEmptyX").c_str(), O_WRONLY | O_CLOEXEC));
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out,
              "kvtempAbCdEf: left alone: a process has it open for writing\n"
              "kvtempEmptyX: left alone: a process has it open for writing\n");
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(Recover, RemovesEmptyFiles) {
    leave("kvtempAbCdEf", "");
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "kvtempAbCdEf: empty; removed\n");
    EXPECT_EQ(names(), Names{});
    EXPECT_FALSE(marked());
}

TEST_F(Recover, SetsATornFileAsideAndMarksARescan) {
    const std::string whole = numbered_file(0, 2);
    leave("kvtempAbCdEf", whole + "abc");
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 3);
    EXPECT_EQ(result.out,
              "kvtempAbCdEf: torn at byte " + std::to_string(whole.size()) +
                  ": the record is cut off: 3 of the 8 bytes of its header are there; set aside as "
                  "torn_AbCdEf with 2 whole records, and the event store was told to rescan\n");
    EXPECT_EQ(names(), Names{"torn_AbCdEf"});
    EXPECT_EQ(kvtest::read_file(kMarker), std::string("torn temporary event file found\n") + '\0');
    EXPECT_EQ(recover().exit_code, 0) << "the next one finds nothing";
    const ChildResult cat = run_tool({"events", "cat", "--json", path("torn_AbCdEf")});
    EXPECT_EQ(cat.exit_code, 3);
    EXPECT_EQ(kvtest::lines_of(cat.out).size(), 2u);
}

TEST_F(Recover, TakesEveryKindOfDamageForTorn) {
    leave("kvtempSignat", kvtest::raw_frame(3, 7, "abc"));
    leave("kvtempSizeNo", numbered_file(0, 1) + kvtest::raw_frame(0, STAGING_DATA_SIG, ""));
    leave("kvtempAudits", frame(kvtest::AuditFields{}));
    leave("kvtempLength", kvtest::raw_frame(1000, STAGING_DATA_SIG, "abc"));
    leave("torn_Signat", "from an earlier time");
    EXPECT_EQ(recover().exit_code, 3);
    EXPECT_EQ(names(),
              (Names{"torn_Audits", "torn_Length", "torn_Signat", "torn_Signat.2", "torn_SizeNo"}));
    EXPECT_EQ(kvtest::read_file(path("torn_Signat")), "from an earlier time");
}

TEST_F(Recover, LeavesATornFileWhenTheRescanCannotBeMarked) {
    std::filesystem::remove("/kavrin/.conf");
    leave("kvtempAbCdEf", "abc");
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(result.out.find("cannot write the marker /kavrin/.conf/kavrin_event_status.dirty"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(names(), Names{"kvtempAbCdEf"});
}

TEST_F(Recover, RemovesACopyOfWhatThePendingFileHolds) {
    leave("pending_1700000000.000001", numbered_file(0, 5));
    leave("kvtempWholeX", numbered_file(0, 3));
    leave("kvtempEquals", numbered_file(0, 5));
    leave("kvtempTornTo", numbered_file(0, 4).substr(0, numbered_file(0, 3).size() + 5));
    leave("kvtempOthers", numbered_file(1, 3));
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0) << result.out;
    EXPECT_NE(result.out.find("kvtempWholeX: 3 records, all of them in pending_1700000000.000001 "
                              "already; removed\n"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(names(), (Names{"pending_1700000000.000001", "pending_1700000000.000042"}));
    EXPECT_FALSE(marked());
}

TEST_F(Recover, ATornPieceOfARecordIsNoCopy) {
    leave("pending_1700000000.000001", numbered_file(0, 5));
    leave("kvtempAbCdEf", numbered_file(0, 1).substr(0, 20));
    EXPECT_EQ(recover().exit_code, 3);
    EXPECT_TRUE(marked());
}

TEST_F(Recover, RemovesACopyOfWhatTheStagingBufferHolds) {
    make_staging();
    stage(numbered_file(0, 5));
    leave("kvtempWholeX", numbered_file(0, 3));
    leave("kvtempBeyond", numbered_file(0, 6));
    leave("kvtempOthers", numbered_file(1, 3));
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.out.find("kvtempWholeX: 3 records, all of them in the staging buffer already; "
                              "removed\n"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(names(), (Names{"pending_1700000000.000042", "pending_1700000000.000043"}));
}

TEST_F(Recover, DoesNotBelieveADamagedBuffer) {
    make_staging();
    stage(numbered_file(0, 2));
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    for (const std::uint32_t offset : {0U, 15U, 8193U, 0xffffffffU}) {
        buffer->next_offset = offset;
        leave("kvtempAbCdEf", numbered_file(0, 2));
        const ChildResult result = recover();
        EXPECT_EQ(result.exit_code, 0) << offset << result.err;
        EXPECT_EQ(names(), Names{"pending_1700000000.000042"}) << offset;
        std::filesystem::remove(path("pending_1700000000.000042"));
    }
    put_eventstore_staging_buffer(buffer);
}

TEST_F(Recover, LeavesRecordsAloneWhenTheBufferCannotBeLookedAt) {
    make_staging(4096);
    ASSERT_EQ(
        run_tool({"config", "create", "--set", "SWEEPER:staging buffer size=100000"}).exit_code, 0);
    leave("kvtempAbCdEf", numbered_file(0, 2));
    leave("kvtempTornTo", numbered_file(0, 2) + "abc");
    leave("kvtempEmptyX", "");
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_NE(
        result.out.find(
            "kvtempAbCdEf: left as it is: cannot attach the staging buffer: Invalid argument; "
            "it has 4096 bytes, compare 'SWEEPER:staging buffer size' of 'kavrinctl config "
            "show'\n"),
        std::string::npos)
        << result.out;
    EXPECT_EQ(names(), (Names{"kvtempAbCdEf", "kvtempTornTo"}));
}

TEST_F(Recover, OneOfTwoEqualFilesIsPublished) {
    leave("kvtempFirstX", numbered_file(0, 3));
    leave("kvtempSecond", numbered_file(0, 3), kThen + 5);
    leave("kvtempThirdX", numbered_file(0, 7), kThen + 9);
    EXPECT_EQ(recover().exit_code, 0);
    EXPECT_EQ(names(), Names{"pending_1700000009.000042"});
    EXPECT_EQ(events(), numbered_paths(0, 7));
}

TEST_F(Recover, ATornFileIsNoOriginal) {
    leave("kvtempWholeX", numbered_file(0, 3));
    leave("kvtempTornTo", numbered_file(0, 3) + "abc", kThen + 5);
    EXPECT_EQ(recover().exit_code, 3);
    EXPECT_EQ(names(), (Names{"pending_1700000000.000042", "torn_TornTo"}));
}

TEST_F(Recover, ADryRunTellsTheSameAndTouchesNothing) {
    leave("kvtempEmptyX", "");
    leave("kvtempTornTo", "abc");
    leave("kvtempFirstX", numbered_file(0, 2));
    leave("kvtempSecond", numbered_file(0, 2), kThen + 1);
    leave("kvtempThirdX", numbered_file(5, 2), kThen + 1);
    const Names before = names();
    const ChildResult dry = recover({"--dry-run", "--json"});
    EXPECT_EQ(dry.exit_code, 3);
    EXPECT_EQ(names(), before);
    EXPECT_FALSE(marked());
    const ChildResult text = recover({"--dry-run"});
    EXPECT_NE(text.out.find("kvtempSecond: 2 records, would be published as "
                            "pending_1700000001.000042\n"),
              std::string::npos)
        << text.out;
    const ChildResult real = recover({"--json"});
    auto told = nlohmann::json::parse(dry.out);
    EXPECT_EQ(told["dry_run"], true);
    EXPECT_EQ(told["files"], nlohmann::json::parse(real.out)["files"]);
    EXPECT_EQ(names(),
              (Names{"pending_1700000001.000042", "pending_1700000001.000043", "torn_TornTo"}));
}

TEST_F(Recover, TouchesOnlyTemporaryFilesOfEvents) {
    const Names others = {"adtempAbCdEf",  "kvtempAbCdE",
                          "kvtempAbCdEfg", "pending_1700000009.000042",
                          "torn_XXXXXX",   "xkvtempAbCdE"};
    for (const std::string& name : others) leave(name, "whatever");
    std::filesystem::create_directory(path("kvtempFolder"));
    std::filesystem::create_symlink(path("adtempAbCdEf"), path("kvtempLinked"));
    const ChildResult result = recover();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.out, "no temporary files of events in " + folder_ + "\n");
    EXPECT_EQ(names().size(), others.size() + 2);
}

TEST_F(Recover, NeedsRootAndAFolder) {
    const ChildResult user = kvtest::run_child([&] {
        if (setresuid(3001, 3001, 3001) != 0) return 99;
        const char* words[] = {"kavrinctl", "events", "recover", folder_.c_str()};
        return kvadmin::run(4, words);
    });
    EXPECT_EQ(user.exit_code, 1);
    EXPECT_NE(user.err.find("events recover works on objects that belong to root"),
              std::string::npos);
    EXPECT_EQ(run_tool({"events", "recover", folder_ + "/none"}).exit_code, 1);
    EXPECT_EQ(run_tool({"events", "recover", folder_, "--older-than", "-1"}).exit_code, 64);
}

TEST_F(Recover, AFlusherThatDiedBeforeTheRenameLosesNothing) {
    make_staging();
    stage(numbered_file(0, 4));
    die_in_flush(Step::kRename);
    stage(numbered_file(4, 2));  // the buffer had been emptied
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(recover().exit_code, 0);
    std::vector<std::string> found = events();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, numbered_paths(0, 6));
    EXPECT_FALSE(marked());
}

TEST_F(Recover, AFlusherThatDiedBeforeItEmptiedTheBufferDoublesNothing) {
    make_staging();
    stage(numbered_file(0, 4));
    die_in_flush(Step::kSync);
    ASSERT_EQ(names().size(), 1u);
    ASSERT_EQ(kvtest::read_file(path(names()[0])), numbered_file(0, 4)) << "it was all written";

    EXPECT_EQ(recover().exit_code, 0);  // the buffer has them
    EXPECT_EQ(names(), Names{});
    stage(numbered_file(4, 2));
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(events(), numbered_paths(0, 6));
}

TEST_F(Recover, SeveralDeadFlushersDoubleNothing) {
    make_staging();
    stage(numbered_file(0, 4));
    die_in_flush(Step::kSync);
    stage(numbered_file(4, 1));
    die_in_flush(Step::kSync);
    stage(numbered_file(5, 1));
    die_in_flush(Step::kRename);
    ASSERT_EQ(names().size(), 3u);
    EXPECT_EQ(recover().exit_code, 0);
    EXPECT_EQ(events(), numbered_paths(0, 6));
    EXPECT_EQ(names().size(), 1u);
    EXPECT_FALSE(marked());
}

// Writers flush all the time, some flushes die, and recover runs beside them without waiting for
// files to be old: every event that the library took is there once.
TEST_F(Recover, NothingIsLostOrDoubledBesideWorkingFlushers) {
    constexpr int kWriters = 2;
    constexpr int kEvents = 400;
    make_staging();
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 8);
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(fork());
        if (writers.back() != 0) continue;
        std::string taken;
        for (int i = 0; i < kEvents; ++i) {
            kvtest::EventFields fields = numbered_event(i);
            fields.path = "/w" + std::to_string(writer) + "/" + std::to_string(i);
            std::string record = frame(fields);
            if (write_to_staging_buffer(reinterpret_cast<staging_data_t*>(record.data())) == 0)
                taken += fields.path + "\n";
            if (i % 20 != 0) continue;
            const pid_t dying = fork();
            if (dying == 0) {
                die_at = i % 40 == 0 ? Step::kRename : Step::kSync;
                flush_staging_buffer();
                _exit(0);
            }
            waitpid(dying, nullptr, 0);
        }
        kvtest::write_file(path("taken" + std::to_string(writer)), taken);
        _exit(0);
    }
    const auto recover_now = [&] {
        for (const kvadmin::TemporaryFile& file :
             kvadmin::recover_events(folder_, {std::chrono::seconds(0), false}).files)
            EXPECT_NE(file.fate, kvadmin::TemporaryFate::kTorn) << file.name << file.remark;
    };
    for (int ended = 0; ended < kWriters;) {
        recover_now();
        ended += waitpid(-1, nullptr, WNOHANG) > 0;
    }
    EXPECT_EQ(flush_staging_buffer(), 1);
    recover_now();
    std::multiset<std::string> taken;
    for (int writer = 0; writer < kWriters; ++writer)
        for (const std::string& line :
             kvtest::lines_of(kvtest::read_file(path("taken" + std::to_string(writer)))))
            taken.insert(line);
    const std::vector<std::string> found = events();
    EXPECT_EQ(std::multiset<std::string>(found.begin(), found.end()), taken);
    EXPECT_GT(taken.size(), std::size_t{kEvents});
}
