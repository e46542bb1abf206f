// A look between the map segments' code and the kernel: the System V calls of this process pass
// through here, are counted, and can be refused or preceded by something of a test's choosing. What
// is let pass reaches the kernel unchanged.
#pragma once

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <functional>
#include <vector>

#include "load_fixture.h"

namespace kvtest {

enum class Ipc { ftok, shmget, shmat, shmdt, shmctl, semget, semctl, semop };

struct IpcCall {
    Ipc kind;
    int nth;                // of its kind since the probe began, from 1
    long target;            // key or id; the project id of ftok
    long first = 0;         // size, number of semaphores, semaphore, address, or command of shmctl
    long second = 0;        // command of semctl, operation of semop
    long flags = 0;         // as passed
    std::size_t count = 0;  // operations of semop
};

// Watches while it lives; one at a time. A child inherits its parent's.
class IpcProbe {
public:
    IpcProbe();
    ~IpcProbe();
    IpcProbe(const IpcProbe&) = delete;
    IpcProbe& operator=(const IpcProbe&) = delete;
    // Asked before each call: an errno refuses it, 0 lets it pass. Its own calls are not watched.
    std::function<int(const IpcCall&)> before = [](const IpcCall&) { return 0; };
    const std::vector<IpcCall>& calls() const { return calls_; }
    int count(Ipc kind) const;
    IpcCall last(Ipc kind) const;  // there must be one
    void forget() { calls_.clear(); }
    int admit(IpcCall call);  // of the intercepted calls

private:
    std::vector<IpcCall> calls_;
    bool inside_ = false;
};

// Refuses every call of that kind, or only the nth.
std::function<int(const IpcCall&)> refuse(Ipc kind, int error, int nth = 0);

constexpr key_t kTableKey[] = {0x70657269, 0x7065726A};

// Each test starts without the semaphore set, segments, map file or log, and leaves none behind.
class SegmentTest : public LoadTest {
protected:
    void SetUp() override;
    void TearDown() override;

    static key_t set_key();  // worked out without the library
    static int set_id();     // -1 when there is no set
    static int value(int semaphore);
    static void set_value(int semaphore, int to);
    static int segment(int table);  // id, -1 when there is none
    static int attached(int id);    // how many attachments it has, -1 when it is gone
    // A segment of this table with this content, as a builder leaves it.
    static int make_table(int table, std::string_view content);
    static std::string content_of(const void* address);
    // What the builder does with a new image, through the public calls.
    static void publish_text(std::string_view content);
};

// As a builder and its readers meet: an open set, and a persisted map file that lets readers in.
class SwapTest : public SegmentTest {
protected:
    void SetUp() override;
};

}  // namespace kvtest
