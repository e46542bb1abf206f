// An image that stays attached between readers: looked up as ever, attached once, never a stale
// one, and let go of when nobody wants it.
#include <gtest/gtest.h>

#include "ipc_probe.h"

namespace kvtest {
namespace {

class KeptMap : public SwapTest {
protected:
    void SetUp() override {
        SwapTest::SetUp();
        keep_perm_map(1);
    }
    void TearDown() override {
        keep_perm_map(0);
        SwapTest::TearDown();
    }
    static std::string read_map() {
        void* address = get_perm_map_addr();
        const std::string content = content_of(address);
        put_perm_map_addr(address);
        return content;
    }
    static int current() { return segment(value(0)); }
};

TEST_F(KeptMap, IsAttachedOnceAndLookedUpEachTime) {
    publish_text("kept");
    IpcProbe probe;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(read_map(), "kept");
    EXPECT_EQ(probe.count(Ipc::shmat), 1);
    EXPECT_EQ(probe.count(Ipc::shmdt), 0);
    EXPECT_EQ(probe.count(Ipc::shmget), 3);
    EXPECT_EQ(attached(current()), 1);
}

TEST_F(KeptMap, IsGivenUpForTheNextTable) {
    for (const char* content : {"first", "second", "third"}) {
        const int before = current();
        publish_text(content);
        EXPECT_EQ(read_map(), content);
        EXPECT_EQ(attached(before), -1) << "the kernel has taken the retired one back";
    }
}

TEST_F(KeptMap, IsLetGoOfWhenNobodyWantsIt) {
    publish_text("kept");
    EXPECT_EQ(read_map(), "kept");
    keep_perm_map(0);
    EXPECT_EQ(attached(current()), 0);
    EXPECT_EQ(read_map(), "kept");
    EXPECT_EQ(attached(current()), 0) << "and from then on each reader detaches";
}

TEST_F(KeptMap, StaysForAReaderWhoHasItWhenItIsNotWantedAnyMore) {
    publish_text("kept");
    void* address = get_perm_map_addr();
    keep_perm_map(0);
    EXPECT_EQ(content_of(address), "kept");
    put_perm_map_addr(address);
    EXPECT_EQ(attached(current()), 0);
}

TEST_F(KeptMap, SecondReaderAtOnceHasAnAttachmentOfHisOwn) {
    publish_text("first");
    void* first = get_perm_map_addr();
    const int retired = current();
    void* beside = get_perm_map_addr();
    EXPECT_NE(first, beside);
    publish_text("second");
    void* next = get_perm_map_addr();
    EXPECT_EQ(content_of(first), "first");
    EXPECT_EQ(content_of(next), "second");
    put_perm_map_addr(beside);
    put_perm_map_addr(next);
    EXPECT_EQ(attached(retired), 1);
    put_perm_map_addr(first);
    EXPECT_EQ(read_map(), "second");
    EXPECT_EQ(attached(retired), -1);
}

TEST_F(KeptMap, IsNotTrustedWithoutAPersistedMap) {
    publish_text("kept");
    EXPECT_EQ(read_map(), "kept");
    unlink(kMapFile);
    EXPECT_EQ(get_perm_map_addr(), nullptr);
}

TEST_F(KeptMap, IsNotTakenForATableThatIsGone) {
    publish_text("kept");
    EXPECT_EQ(read_map(), "kept");
    shmctl(current(), IPC_RMID, nullptr);
    EXPECT_EQ(get_perm_map_addr(), nullptr);
}

}  // namespace
}  // namespace kvtest
