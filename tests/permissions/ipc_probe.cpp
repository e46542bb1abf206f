// The intercepted calls are defined here, so the whole test process, library included, comes by;
// the C library's own are found behind them.
#include "ipc_probe.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

namespace kvtest {
namespace {

IpcProbe* probe = nullptr;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// True when the call may go on; otherwise errno tells why not.
bool admitted(const IpcCall& call) {
    const int error = probe == nullptr ? 0 : probe->admit(call);
    if (error != 0) errno = error;
    return error == 0;
}

void remove_everything() {
    for (const key_t key : kTableKey) {
        const int id = shmget(key, 0, 0);
        if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    }
    const int set = semget(ftok("/dev/null", 7065), 0, 0);
    if (set >= 0) semctl(set, 0, IPC_RMID);
}

}  // namespace

IpcProbe::IpcProbe() {
    probe = this;
}
IpcProbe::~IpcProbe() {
    probe = nullptr;
}

int IpcProbe::count(Ipc kind) const {
    int found = 0;
    for (const IpcCall& call : calls_) found += call.kind == kind ? 1 : 0;
    return found;
}

IpcCall IpcProbe::last(Ipc kind) const {
    const auto found = std::find_if(calls_.rbegin(), calls_.rend(),
                                    [=](const IpcCall& call) { return call.kind == kind; });
    EXPECT_NE(found, calls_.rend());
    return *found;
}

int IpcProbe::admit(IpcCall call) {
    if (inside_) return 0;
    inside_ = true;
    call.nth = count(call.kind) + 1;
    calls_.push_back(call);
    const int saved = errno;
    const int error = before(call);
    errno = saved;
    inside_ = false;
    return error;
}

std::function<int(const IpcCall&)> refuse(Ipc kind, int error, int nth) {
    return [=](const IpcCall& call) {
        return call.kind == kind && (nth == 0 || call.nth == nth) ? error : 0;
    };
}

void SegmentTest::SetUp() {
    ASSERT_NE(std::getenv("KAVRIN_SANDBOX"), nullptr) << "run this below scripts/sandbox";
    remove_everything();
}
void SegmentTest::TearDown() {
    if (std::getenv("KAVRIN_SANDBOX") != nullptr) remove_everything();
}

key_t SegmentTest::set_key() {
    // What ftok() makes of project id 7065, whose low byte is 0x99, by the C library's description.
    struct stat st {};
    EXPECT_EQ(stat("/dev/null", &st), 0);
    return static_cast<key_t>((0x99u << 24) | ((static_cast<unsigned>(st.st_dev) & 0xFF) << 16) |
                              (static_cast<unsigned>(st.st_ino) & 0xFFFF));
}
int SegmentTest::set_id() {
    return semget(set_key(), 0, 0);
}
int SegmentTest::value(int semaphore) {
    return semctl(set_id(), semaphore, GETVAL);
}
void SegmentTest::set_value(int semaphore, int to) {
    ASSERT_EQ(semctl(set_id(), semaphore, SETVAL, to), 0);
}
int SegmentTest::segment(int table) {
    return shmget(kTableKey[table], 0, 0);
}
int SegmentTest::attached(int id) {
    shmid_ds status{};
    return shmctl(id, IPC_STAT, &status) == 0 ? static_cast<int>(status.shm_nattch) : -1;
}
int SegmentTest::make_table(int table, std::string_view content) {
    const int id = shmget(kTableKey[table], content.size() + 1, IPC_CREAT | IPC_EXCL);
    EXPECT_GE(id, 0);
    void* address = shmat(id, nullptr, 0);
    std::memcpy(address, content.data(), content.size());
    shmdt(address);
    return id;
}
std::string SegmentTest::content_of(const void* address) {
    return address == nullptr ? "(null)" : static_cast<const char*>(address);
}
void SegmentTest::publish_text(std::string_view content) {
    const int current = get_current_perm_table_index_for_fill();
    ASSERT_GE(current, 0);
    int id = -1;
    void* address = create_perm_map_shm(get_next_perm_table_key(current),
                                        static_cast<unsigned>(content.size() + 1), &id);
    ASSERT_NE(address, nullptr);
    std::memcpy(address, content.data(), content.size());
    ASSERT_EQ(swap_maps(current), 0);
    ASSERT_EQ(map_initialized(1), 0);
    put_perm_map_addr(address);
}

void SwapTest::SetUp() {
    SegmentTest::SetUp();
    write_file(kMapFile, "there");
    ASSERT_EQ(create_perm_map_semaphore(), 0);
}

}  // namespace kvtest

using kvtest::admitted;
using kvtest::Ipc;
using kvtest::real;

extern "C" {

key_t ftok(const char* path, int project) noexcept {
    static auto* const next = real<key_t(const char*, int)>("ftok");
    return admitted({Ipc::ftok, 0, project}) ? next(path, project) : -1;
}
int shmget(key_t key, size_t size, int flags) noexcept {
    static auto* const next = real<int(key_t, size_t, int)>("shmget");
    const bool pass = admitted({Ipc::shmget, 0, key, static_cast<long>(size), 0, flags});
    return pass ? next(key, size, flags) : -1;
}
void* shmat(int id, const void* address, int flags) noexcept {
    static auto* const next = real<void*(int, const void*, int)>("shmat");
    const bool pass = admitted({Ipc::shmat, 0, id, reinterpret_cast<long>(address), 0, flags});
    return pass ? next(id, address, flags) : reinterpret_cast<void*>(-1);
}
int shmdt(const void* address) noexcept {
    static auto* const next = real<int(const void*)>("shmdt");
    return admitted({Ipc::shmdt, 0, 0, reinterpret_cast<long>(address)}) ? next(address) : -1;
}
int shmctl(int id, int command, shmid_ds* status) noexcept {
    static auto* const next = real<int(int, int, shmid_ds*)>("shmctl");
    return admitted({Ipc::shmctl, 0, id, command}) ? next(id, command, status) : -1;
}
int semget(key_t key, int count, int flags) noexcept {
    static auto* const next = real<int(key_t, int, int)>("semget");
    return admitted({Ipc::semget, 0, key, count, 0, flags}) ? next(key, count, flags) : -1;
}
int semop(int id, sembuf* operations, size_t count) noexcept {
    static auto* const next = real<int(int, sembuf*, size_t)>("semop");
    const bool pass = admitted(
        {Ipc::semop, 0, id, operations->sem_num, operations->sem_op, operations->sem_flg, count});
    return pass ? next(id, operations, count) : -1;
}
int semctl(int id, int semaphore, int command, ...) noexcept {
    static auto* const next = real<int(int, int, int, ...)>("semctl");
    va_list arguments;
    va_start(arguments, command);
    const unsigned long argument = va_arg(arguments, unsigned long);
    va_end(arguments);
    const bool pass = admitted({Ipc::semctl, 0, id, semaphore, command});
    return pass ? next(id, semaphore, command, argument) : -1;
}
}
