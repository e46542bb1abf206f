// Events handed to the staging buffer: packed and framed as a reader unpacks them, dropped when
// they are not anybody's, and never the caller's trouble.
#include <sys/shm.h>
#include <unistd.h>

#include <cstdint>

#include "provoke.h"
#include "staging_fixture.h"

namespace {

using kvtest::held;
using kvtest::payloads;

class StagingEvents : public kvtest::StagingTest {
protected:
    static VFSEvent event(std::string& path) {
        VFSEvent made = VFSEVENT__INIT;
        made.client_pid = 17;
        made.path = path.data();
        made.uid = 4001;
        made.optype = VFSEVENT__OP_TYPE__OPTYPE_MKDIR;
        made.time_sec = 1700000000;
        made.time_usec = 42;
        made.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
        return made;
    }
};

TEST_F(StagingEvents, EventTravelsAsAPackedRecord) {
    std::string path = "/Shared/Docs";
    VFSEvent sent = event(path);
    EXPECT_EQ(send_modify_vfs_event(&sent), 0);
    EXPECT_EQ(held().num_records, 1u);
    const auto found = payloads(held().records());
    ASSERT_TRUE(found.has_value());
    ASSERT_EQ(found->size(), 1u);
    const std::string& packed = found->front();
    VFSEvent* const read = vfsevent__unpack(nullptr, packed.size(),
                                            reinterpret_cast<const std::uint8_t*>(packed.data()));
    ASSERT_NE(read, nullptr);
    EXPECT_STREQ(read->path, path.c_str());
    EXPECT_EQ(read->client_pid, 17);
    EXPECT_EQ(read->uid, 4001u);
    EXPECT_EQ(read->optype, VFSEVENT__OP_TYPE__OPTYPE_MKDIR);
    EXPECT_EQ(read->fselem_type, VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR);
    EXPECT_EQ(read->time_sec, 1700000000);
    EXPECT_EQ(read->time_usec, 42);
    EXPECT_EQ(read->rename_path, nullptr);
    EXPECT_EQ(read->kavrin_user, nullptr);
    vfsevent__free_unpacked(read, nullptr);
}

TEST_F(StagingEvents, NoEventMakesNoRecord) {
    EXPECT_EQ(send_modify_vfs_event(nullptr), -1);
    EXPECT_EQ(held().num_records, 0u);
}

TEST_F(StagingEvents, EventsOfRootAndOfTheReservedUserMakeNoRecord) {
    std::string path = "/Shared";
    for (const uid_t uid : {0u, 4009u}) {
        reserved_user_uid = 4009;
        VFSEvent sent = event(path);
        sent.uid = uid;
        EXPECT_EQ(send_modify_vfs_event(&sent), -1);
    }
    reserved_user_uid = 0;
    EXPECT_EQ(held().num_records, 0u);
    EXPECT_EQ(kvtest::marker(), "(none)");
}

TEST_F(StagingEvents, LossInTheBufferIsNotTheCallersTrouble) {
    std::string path = "/Shared";
    VFSEvent sent = event(path);
    ASSERT_EQ(shmctl(kvtest::segment_id(), IPC_RMID, nullptr), 0);
    EXPECT_EQ(send_modify_vfs_event(&sent), 0);
    EXPECT_EQ(kvtest::logged_part("cannot access the staging buffer."), 1);
}

}  // namespace
