// The staging buffer's segment as the kernel sees it: key, size, mode, what creating, emptying,
// attaching and removing it do, and what is said when they cannot.
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "call_probe.h"
#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::Call;
using kvtest::CallProbe;
using kvtest::expect_in_child;
using kvtest::held;
using kvtest::log_lines;
using kvtest::logged;
using kvtest::refuse;
using kvtest::segment_id;

shmid_ds status() {
    shmid_ds found{};
    EXPECT_EQ(shmctl(segment_id(), IPC_STAT, &found), 0);
    return found;
}
void remove_segment() {
    ASSERT_EQ(shmctl(segment_id(), IPC_RMID, nullptr), 0);
}
bool all_zero(const std::string& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == 0; });
}
void expect_empty() {
    const kvtest::Held look = held();
    EXPECT_EQ(look.num_records, 0u);
    EXPECT_EQ(look.next_offset, 16u);
    EXPECT_EQ(look.last_flush_time, 0u);
    EXPECT_TRUE(all_zero(look.data));
}

class StagingSegment : public kvtest::StagingTest {};

TEST_F(StagingSegment, HasTheConfiguredSizeAndIsOpenToAll) {
    remove_segment();
    for (const int size : {16384, 4096, 12345}) {
        SCOPED_TRACE(size);
        table_.set_int(PARAM_STAGING_BUFFER_SIZE, size);
        ASSERT_EQ(create_staging_buffer(), 0);
        EXPECT_EQ(status().shm_segsz, static_cast<std::size_t>(size));
        EXPECT_EQ(status().shm_perm.mode & 0777, 0666);
        expect_empty();
        remove_segment();
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSegment, SecondCreationIsRefusedAndHarmsNothing) {
    ASSERT_EQ(kvtest::append("kept"), 0);
    EXPECT_EQ(create_staging_buffer(), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("\ncannot create shared memory for staging buffer, errno = 17\n"), 1);
    EXPECT_EQ(held().records(), kvtest::frame("kept"));
}

TEST_F(StagingSegment, CreationWithoutAKeyIsLogged) {
    remove_segment();
    CallProbe probe;
    probe.before = refuse(Call::ftok, EACCES);
    EXPECT_EQ(create_staging_buffer(), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot create shm key, errno = 13\n"), 1);
    EXPECT_EQ(segment_id(), -1);
}

TEST_F(StagingSegment, CreationWithoutRoomInTheKernelIsLogged) {
    remove_segment();
    const kvtest::KernelSetting largest("/proc/sys/kernel/shmmax", "4000");
    EXPECT_EQ(create_staging_buffer(), -1);
    EXPECT_EQ(logged("\ncannot create shared memory for staging buffer, errno = 22\n"), 1);
}

TEST_F(StagingSegment, CreationThatCannotEmptyTheSegmentFails) {
    remove_segment();
    CallProbe probe;
    probe.before = refuse(Call::shmat, ENOMEM);
    EXPECT_EQ(create_staging_buffer(), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot attach to shm, errno = 12\n"), 1);
}

TEST_F(StagingSegment, InitialisationEmptiesItToTheLastByte) {
    kvtest::fill_segment('x');
    EXPECT_EQ(initialize_staging_buffer(), 0);
    expect_empty();
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSegment, InitialisationClearsAsMuchAsIsConfigured) {
    kvtest::fill_segment('x');
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, 1000);
    EXPECT_EQ(initialize_staging_buffer(), 0);
    const kvtest::Held look = held();
    EXPECT_EQ(look.next_offset, 16u);
    EXPECT_TRUE(all_zero(look.data.substr(0, 1000 - 16)));
    EXPECT_EQ(look.data.substr(1000 - 16), std::string(kSize - 1000, 'x'));
}

TEST_F(StagingSegment, InitialisationOfAMissingSegmentIsLogged) {
    remove_segment();
    EXPECT_EQ(initialize_staging_buffer(), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot access shared memory for staging buffer, errno = 2\n"), 1);
}

TEST_F(StagingSegment, InitialisationOfASmallerSegmentIsRefused) {
    kvtest::fill_segment('x');
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, kSize + 1);
    EXPECT_EQ(initialize_staging_buffer(), -1);
    EXPECT_EQ(logged("cannot access shared memory for staging buffer, errno = 22\n"), 1);
    EXPECT_EQ(held().data, std::string(kSize - 16, 'x'));
}

TEST_F(StagingSegment, InitialisationThatCannotAttachIsLogged) {
    CallProbe probe;
    probe.before = refuse(Call::shmat, EMFILE);
    EXPECT_EQ(initialize_staging_buffer(), -1);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot attach to shm, errno = 24\n"), 1);
}

TEST_F(StagingSegment, AttachedBufferIsTheSegment) {
    staging_buffer_t* const buffer = get_eventstore_staging_buffer();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(kvtest::attachments(), 1);
    EXPECT_EQ(buffer->num_records, 0u);
    EXPECT_EQ(buffer->next_offset, 16u);
    buffer->num_records = 0x01020304;
    buffer->next_offset = 0x05060708;
    buffer->last_flush_time = 0x1122334455667788;
    buffer->data[0] = 0x5a;
    EXPECT_EQ(put_eventstore_staging_buffer(buffer), 0);
    EXPECT_EQ(kvtest::attachments(), 0);
    const kvtest::Held look = held();
    EXPECT_EQ(look.num_records, 0x01020304u);
    EXPECT_EQ(look.next_offset, 0x05060708u);
    EXPECT_EQ(look.last_flush_time, 0x1122334455667788u);
    EXPECT_EQ(look.data[0], 0x5a);
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSegment, AnyUserAttachesItForWriting) {
    expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        staging_buffer_t* const buffer = get_eventstore_staging_buffer();
        ASSERT_NE(buffer, nullptr);
        buffer->data[0] = 7;
        put_eventstore_staging_buffer(buffer);
    });
    EXPECT_EQ(held().data[0], 7);
}

TEST_F(StagingSegment, DetachingWhatIsNotAttachedIsRefused) {
    staging_buffer_t other{};
    EXPECT_EQ(put_eventstore_staging_buffer(&other), -1);
}

TEST_F(StagingSegment, AttachingAMissingSegmentIsLogged) {
    remove_segment();
    EXPECT_EQ(get_eventstore_staging_buffer(), nullptr);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("\ncannot create shared memory for staging buffer. "
                     "errno = 2(No such file or directory)\n"),
              1);
    EXPECT_EQ(segment_id(), -1) << "a reader must not create it";
}

TEST_F(StagingSegment, AttachingASmallerSegmentIsRefused) {
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, kSize + 1);
    EXPECT_EQ(get_eventstore_staging_buffer(), nullptr);
    EXPECT_EQ(logged("\ncannot create shared memory for staging buffer. "
                     "errno = 22(Invalid argument)\n"),
              1);
}

TEST_F(StagingSegment, AttachingWithoutAKeyIsLogged) {
    CallProbe probe;
    probe.before = refuse(Call::ftok, EACCES);
    EXPECT_EQ(get_eventstore_staging_buffer(), nullptr);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot create staging buffer key. errno = 13(Permission denied)\n"), 1);
}

TEST_F(StagingSegment, AttachingThatTheKernelRefusesIsLogged) {
    CallProbe probe;
    probe.before = refuse(Call::shmat, ENOMEM);
    EXPECT_EQ(get_eventstore_staging_buffer(), nullptr);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("cannot attach to shm. errno = 12(Cannot allocate memory)\n"), 1);
}

TEST_F(StagingSegment, IsLookedUpAnewOnEveryUse) {
    ASSERT_EQ(kvtest::append("of the old one"), 0);
    remove_segment();
    ASSERT_EQ(create_staging_buffer(), 0);
    EXPECT_EQ(kvtest::append("of the new one"), 0);
    EXPECT_EQ(held().records(), kvtest::frame("of the new one"));
}

TEST_F(StagingSegment, RemovalFindsSegmentsOfTheFixedSizeAndMore) {
    for (const int size : {20800, 20801, 65536}) {
        SCOPED_TRACE(size);
        remove_segment();
        configure(size, 80);
        table_.set_int(PARAM_STAGING_BUFFER_SIZE, 100);  // is not asked
        EXPECT_EQ(remove_staging_buffers(), 0);
        EXPECT_EQ(segment_id(), -1);
        table_.set_int(PARAM_STAGING_BUFFER_SIZE, kSize);
        ASSERT_EQ(create_staging_buffer(), 0);
    }
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(StagingSegment, RemovalDoesNotFindASmallerOne) {
    remove_segment();
    configure(20799, 80);
    table_.set_int(PARAM_STAGING_BUFFER_SIZE, 30000);
    EXPECT_EQ(remove_staging_buffers(), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Cannot create shared memory for global param\n"), 1);
    EXPECT_GE(segment_id(), 0);
}

TEST_F(StagingSegment, RemovalOfAMissingOneIsLogged) {
    remove_segment();
    EXPECT_EQ(remove_staging_buffers(), -1);
    EXPECT_EQ(logged("Cannot create shared memory for global param\n"), 1);
}

TEST_F(StagingSegment, RemovalWithoutAKeyIsLogged) {
    remove_segment();
    configure(20800, 80);
    {
        CallProbe probe;
        probe.before = refuse(Call::ftok, EACCES);
        EXPECT_EQ(remove_staging_buffers(), -1);
    }
    EXPECT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(logged("Cannot create sema key for shm\n"), 1);
    EXPECT_GE(segment_id(), 0);
}

TEST_F(StagingSegment, RemovalIsNotForUsers) {
    remove_segment();
    configure(20800, 80);
    expect_in_child([] {
        kvtest::become_user(4001, 4002, {});
        EXPECT_EQ(remove_staging_buffers(), -1);
        EXPECT_EQ(errno, EPERM);
    });
    EXPECT_GE(segment_id(), 0);
}

}  // namespace
