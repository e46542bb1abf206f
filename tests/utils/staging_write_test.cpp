// Appending a record to the staging buffer: where it lands, when a flush comes first, what is
// refused, and that whatever was refused is told to the event store and leaves the buffer whole.
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::append;
using kvtest::Call;
using kvtest::CallMade;
using kvtest::CallProbe;
using kvtest::frame;
using kvtest::Frame;
using kvtest::held;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::logged_matching;
using kvtest::pending_in;
using kvtest::pending_payloads;
using kvtest::reason;

using Texts = std::vector<std::string>;

constexpr const char* kFlushFailed =
    "failed to flush staging buffer contents to disk\\. errno = -?\\d+\\(.*\\)\n";
constexpr const char* kNoRoom = "no room in the staging buffer\n";

class StagingWrite : public kvtest::StagingTest {
protected:
    // Fills the buffer with one record so that the next one goes to this offset.
    void fill_to(std::uint32_t offset) {
        ASSERT_EQ(initialize_staging_buffer(), 0);
        table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, -1);  // never by itself
        ASSERT_EQ(append(std::string(offset - 16 - 8, 'f')), 0);
        ASSERT_EQ(held().next_offset, offset);
    }
};

TEST_F(StagingWrite, RecordsLieBackToBackAsTheyAre) {
    const std::string odd("o\0dd", 4);
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(append(odd), 0);
    EXPECT_EQ(append("a longer record"), 0);
    const kvtest::Held look = held();
    EXPECT_EQ(look.num_records, 3u);
    EXPECT_EQ(look.next_offset, 16u + 9 + 12 + 23);
    EXPECT_EQ(look.last_flush_time, 0u);
    EXPECT_EQ(look.records(), frame("x") + frame(odd) + frame("a longer record"));
    EXPECT_EQ(look.data.substr(9 + 12 + 23), std::string(kSize - 16 - 44, 0));
    EXPECT_TRUE(pending_in(folder_).empty());
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingWrite, HoldsTheSemaphoreOnceForARecord) {
    CallProbe probe;
    std::vector<long> directions;
    int value_while_attached = -1;
    probe.before = [&](const CallMade& call) {
        if (call.kind == Call::semop) directions.push_back(call.target);
        if (call.kind == Call::shmat) value_while_attached = kvtest::semaphore_value();
        return 0;
    };
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(directions, (std::vector<long>{-1, 1}));
    EXPECT_EQ(value_while_attached, 0);
}

TEST_F(StagingWrite, NullIsRefusedBeforeAnythingIsTaken) {
    CallProbe probe;
    EXPECT_EQ(write_to_staging_buffer(nullptr), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("null staging data\n"), 1);
    EXPECT_EQ(probe.count(Call::semop), 0);
}

TEST_F(StagingWrite, SizesBelowOneAreRefusedBeforeAnythingIsTaken) {
    for (const std::uint32_t size : {0u, 0x80000000u, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(size);
        kvtest::clear_log();
        CallProbe probe;
        EXPECT_EQ(write_to_staging_buffer(Frame::claiming(size).get()), -1);
        EXPECT_EQ(log_lines().size(), 1u);
        EXPECT_EQ(logged("invalid data size\n"), 1);
        EXPECT_EQ(probe.count(Call::semop), 0);
    }
    EXPECT_EQ(held().num_records, 0u);
}

TEST_F(StagingWrite, WithoutSignatureIsWrittenAllTheSame) {
    Frame unsigned_frame("payload", 0x04012011u);
    EXPECT_EQ(write_to_staging_buffer(unsigned_frame.get()), 0);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("writing a buffer without a proper signature\n"), 1);
    EXPECT_EQ(held().num_records, 1u);
    EXPECT_EQ(held().records(), unsigned_frame.text());
}

struct Threshold {
    int size, percent;
    std::uint32_t bytes;  // worked out by hand
};
constexpr Threshold kThresholds[] = {
    {4096, 80, 3276},   {4096, 50, 2048},          {4096, 99, 4055}, {4096, 100, 3276},
    {4096, 150, 3276},  {4097, 33, 1352},          {4096, 3, 122},   {12345, 99, 12221},
    {12345, 101, 9876}, {12345, 2147483647, 9876},
};

TEST_F(StagingWrite, FlushesFirstWhenItWouldReachTheThreshold) {
    for (const Threshold& row : kThresholds) {
        SCOPED_TRACE(std::to_string(row.size) + " bytes, " + std::to_string(row.percent) + " %");
        // A record that would end one byte before the threshold, and one that would end at it.
        for (const bool reaches : {false, true}) {
            configure(row.size, row.percent);
            fill_to(50);
            table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, row.percent);
            const std::size_t before = pending_in(folder_).size();
            const std::string payload(row.bytes - 50 - 8 - (reaches ? 0 : 1), 'p');
            EXPECT_EQ(append(payload), 0);
            EXPECT_EQ(held().num_records, reaches ? 1u : 2u);
            EXPECT_EQ(pending_in(folder_).size(), before + (reaches ? 1 : 0));
            if (reaches) {
                EXPECT_EQ(held().records(), frame(payload));
            }
        }
    }
    EXPECT_TRUE(log_lines().empty());
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingWrite, EveryRecordFlushesAtAThresholdOfNothing) {
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 0);
    for (const char* text : {"one", "two", "three"}) EXPECT_EQ(append(text), 0);
    EXPECT_EQ(pending_in(folder_).size(), 2u);
    EXPECT_EQ(pending_payloads(folder_), (Texts{"one", "two"}));
    EXPECT_EQ(held().records(), frame("three"));
}

TEST_F(StagingWrite, FillsToTheLastByteBelowAThresholdOfNoLimit) {
    for (const int percent : {-1, -80}) {
        SCOPED_TRACE(percent);
        fill_to(100);
        table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, percent);
        const std::string payload(kSize - 100 - 8, 'p');
        EXPECT_EQ(append(payload), 0);
        EXPECT_EQ(held().next_offset, static_cast<std::uint32_t>(kSize));
        EXPECT_EQ(held().num_records, 2u);
        const std::string whole = held().records();
        EXPECT_EQ(append("x"), -1);
        EXPECT_EQ(held().records(), whole);
        EXPECT_EQ(held().num_records, 2u);
        EXPECT_EQ(reason(), kNoRoom);
    }
}

TEST_F(StagingWrite, ProductBeyond32BitsCountsAsTheWholeBuffer) {
    constexpr int kLarge = 22'000'000;
    for (const int percent : {98, 99}) {  // x 97 still fits into 31 bits, x 98 does not
        SCOPED_TRACE(percent);
        configure(kLarge, percent);
        kvtest::set_header(1, kLarge - 100);
        EXPECT_EQ(append(std::string(91, 'p')), 0);
        EXPECT_EQ(held().num_records, 2u);
        EXPECT_EQ(held().next_offset, kLarge - 1u);
        EXPECT_TRUE(pending_in(folder_).empty());
    }
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(pending_in(folder_).size(), 1u);
    EXPECT_EQ(held().records(), frame("x"));

    configure(kSize, 80);
    fill_to(100);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, -2147483647 - 1);
    EXPECT_EQ(append(std::string(kSize - 100 - 8, 'p')), 0);
    EXPECT_EQ(held().num_records, 1u);

    configure(kLarge, 97);
    kvtest::set_header(1, 21'340'000 - 10);
    EXPECT_EQ(append("x"), 0);
    EXPECT_EQ(held().num_records, 2u);
    EXPECT_EQ(append("y"), 0);
    EXPECT_EQ(held().num_records, 1u);
}

TEST_F(StagingWrite, RecordWithoutRoomIsRefusedAfterAFlush) {
    ASSERT_EQ(append("kept"), 0);
    kvtest::clear_log();
    EXPECT_EQ(append(std::string(kSize - 16 - 8 + 1, 'p')), -1);
    EXPECT_EQ(pending_payloads(folder_), Texts{"kept"});
    EXPECT_EQ(held().num_records, 0u);
    EXPECT_EQ(held().next_offset, 16u);
    EXPECT_EQ(held().data, std::string(kSize - 16, 0));
    EXPECT_EQ(reason(), kNoRoom);
    EXPECT_EQ(kvtest::logged_part("no room in the staging buffer"), 1);
}

TEST_F(StagingWrite, RecordOfTheWholeRoomFits) {
    const std::string payload(kSize - 16 - 8, 'p');
    EXPECT_EQ(append(payload), 0);
    EXPECT_EQ(held().records(), frame(payload));
    EXPECT_EQ(held().next_offset, static_cast<std::uint32_t>(kSize));
    EXPECT_EQ(flush_staging_buffer(), 1);
    EXPECT_EQ(pending_payloads(folder_), Texts{payload});
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingWrite, RecordOfAnEndlessSizeIsNeverRead) {
    // The frame claims two gigabytes that are not there.
    EXPECT_EQ(write_to_staging_buffer(Frame::claiming(0x7FFFFFFFu).get()), -1);
    EXPECT_EQ(held().num_records, 0u);
    EXPECT_EQ(reason(), kNoRoom);
}

TEST_F(StagingWrite, WithoutASegmentFailsAndGivesTheSemaphoreBack) {
    ASSERT_EQ(shmctl(kvtest::segment_id(), IPC_RMID, nullptr), 0);
    EXPECT_EQ(append("lost"), -1);
    EXPECT_EQ(logged("cannot access the staging buffer. errno = 2(No such file or directory)\n"),
              1);
    EXPECT_EQ(kvtest::semaphore_value(), 1);
    EXPECT_NE(kvtest::marker(), "(none)") << "an event is lost and nobody is told";
}

TEST_F(StagingWrite, WithoutASemaphoreTouchesNothing) {
    ASSERT_EQ(append("kept"), 0);
    ASSERT_EQ(semctl(kvtest::semaphore_id(), 0, IPC_RMID), 0);
    EXPECT_EQ(append("lost"), -1);
    EXPECT_EQ(held().records(), frame("kept"));
    EXPECT_EQ(reason(), "cannot wait for the staging buffer semaphore\n");
    EXPECT_EQ(kvtest::logged_part("cannot wait for the staging buffer semaphore"), 1);
}

TEST_F(StagingWrite, WithoutASemaphoreAfterTheFlushTouchesNothing) {
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 0);
    ASSERT_EQ(append("first"), 0);
    CallProbe probe;
    int waits = 0;
    probe.before = [&](const CallMade& call) {
        const bool third = call.kind == Call::semop && call.target == -1 && ++waits == 3;
        return third ? EIDRM : 0;
    };
    EXPECT_EQ(append("lost"), -1);
    EXPECT_EQ(waits, 3);
    EXPECT_EQ(pending_payloads(folder_), Texts{"first"});
    EXPECT_EQ(held().num_records, 0u);
    EXPECT_EQ(kvtest::semaphore_value(), 1) << "what was not taken was given back";
    EXPECT_EQ(reason(), "cannot wait for the staging buffer semaphore\n");
}

TEST_F(StagingWrite, SignalsDoNotEndTheWait) {
    kvtest::set_semaphore(0);
    const pid_t writer = fork();
    if (writer == 0) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        _exit(append("patient") == 0 ? 0 : 1);
    }
    for (int i = 0; i < 3; ++i) {
        while (kvtest::waiting_processes() == 0) ASSERT_EQ(waitpid(writer, nullptr, WNOHANG), 0);
        kill(writer, SIGUSR1);
        usleep(2000);
    }
    EXPECT_EQ(held().num_records, 0u);
    kvtest::set_semaphore(1);
    int status = -1;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(held().records(), frame("patient"));
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingWrite, FailedFlushLosesTheRecordAndKeepsTheOthers) {
    const std::string large(2000, 'k');
    ASSERT_EQ(append(large), 0);
    std::filesystem::remove(folder_);
    EXPECT_EQ(append(std::string(2000, 'l')), -1);
    EXPECT_EQ(logged_matching(log_lines(), kFlushFailed), 1);
    EXPECT_EQ(held().records(), frame(large));
    EXPECT_EQ(reason(), "missing staging directory\n");
    EXPECT_EQ(append("small enough"), 0);
    std::filesystem::create_directory(folder_);
    EXPECT_EQ(append(std::string(2000, 'm')), 0);
    EXPECT_EQ(pending_payloads(folder_), (Texts{large, "small enough"}));
    EXPECT_EQ(held().records(), frame(std::string(2000, 'm')));
}

TEST_F(StagingWrite, BufferThatEndsOutsideIsEmptiedAndTold) {
    for (const std::uint32_t offset : {kSize + 1u, 0x10000u, 0x7FFFFFFFu, 0x80000000u}) {
        SCOPED_TRACE(offset);
        std::filesystem::remove(kvtest::kMarker);
        kvtest::clear_log();
        kvtest::set_header(3, offset);
        EXPECT_EQ(append("lost"), -1);
        EXPECT_EQ(logged_matching(log_lines(), kFlushFailed), 1);
        EXPECT_GE(log_lines().size(), 2u) << "the damage itself is logged";
        EXPECT_NE(kvtest::marker(), "(none)");
        EXPECT_EQ(held().num_records, 0u);
        EXPECT_EQ(held().next_offset, 16u);
        EXPECT_TRUE(pending_in(folder_).empty());
        EXPECT_EQ(append("kept"), 0);
        EXPECT_EQ(held().records(), frame("kept"));
    }
}

TEST_F(StagingWrite, NeverWritesOutsideOfTheSegmentWhateverTheHeaderSays) {
    for (const std::uint32_t records : {0u, 5u}) {
        for (const std::uint32_t offset : {0u, 8u, 15u, kSize - 4u, kSize + 0u, kSize + 1u,
                                           0x7FFFFFF0u, 0xFFFFFFE0u, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(std::to_string(records) + " records to " + std::to_string(offset));
            ASSERT_EQ(initialize_staging_buffer(), 0);
            std::filesystem::remove(kvtest::kMarker);
            kvtest::set_header(records, offset);
            // A header that lies about an empty buffer is set right on the way; one that lies about
            // records costs them and this one, and is set right too.
            const bool outside = offset < 16 || offset > kSize;
            const bool refused = records != 0 && outside;
            EXPECT_EQ(append("a record"), refused ? -1 : 0);
            EXPECT_EQ(held().records(), refused ? "" : frame("a record"));
            EXPECT_EQ(held().num_records, refused ? 0u : 1u);
            EXPECT_EQ(kvtest::marker() == "(none)", records != 0 && !outside);
        }
    }
}

TEST_F(StagingWrite, LeavesTheIdentityOfAUserAsItWas) {
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 0);
    kvtest::expect_in_child([] {
        kvtest::become_user(4001, 4002, {5001});
        EXPECT_EQ(append("one"), 0);
        EXPECT_EQ(append("two"), 0);
        uid_t ids[3] = {};
        gid_t groups[3] = {};
        ASSERT_EQ(getresuid(&ids[0], &ids[1], &ids[2]), 0);
        ASSERT_EQ(getresgid(&groups[0], &groups[1], &groups[2]), 0);
        EXPECT_EQ(ids[0], 0u);
        EXPECT_EQ(ids[1], 4001u);
        EXPECT_EQ(ids[2], 0u);
        for (const gid_t group : groups) EXPECT_EQ(group, 4002u);
    });
    EXPECT_EQ(pending_payloads(folder_), Texts{"one"});
    EXPECT_EQ(held().records(), frame("two"));
}

TEST_F(StagingWrite, UserWhoseRecordIsRefusedMarksAsRoot) {
    kvtest::expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        EXPECT_EQ(append(std::string(kSize, 'p')), -1);
        EXPECT_EQ(geteuid(), 4001u);
        EXPECT_EQ(reason(), kNoRoom);
    });
    struct stat status {};
    ASSERT_EQ(stat(kvtest::kMarker, &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
    std::filesystem::remove(kvtest::kMarker);
    ASSERT_EQ(semctl(kvtest::semaphore_id(), 0, IPC_RMID), 0);
    kvtest::expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        EXPECT_EQ(append("x"), -1);
        EXPECT_EQ(geteuid(), 4001u);
        EXPECT_EQ(reason(), "cannot wait for the staging buffer semaphore\n");
    });
}

TEST_F(StagingWrite, FailuresAreSilentBelowLevelZero) {
    table_.set_debug_level(-1);
    EXPECT_EQ(write_to_staging_buffer(nullptr), -1);
    EXPECT_EQ(write_to_staging_buffer(Frame::claiming(0).get()), -1);
    EXPECT_EQ(append(std::string(kSize, 'p')), -1);
    EXPECT_EQ(write_to_staging_buffer(Frame("x", 0).get()), 0);
    std::filesystem::remove(folder_);
    table_.set_int(PARAM_FLUSH_FILL_THRESHOLD, 0);
    EXPECT_EQ(append("x"), -1);
    EXPECT_TRUE(log_lines().empty());
}

}  // namespace
