// Identities a process can start from, the ids of a thread as the kernel tells them, and a kernel
// that refuses a call from here on. All of it for children: an identity is taken for good.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <iterator>
#include <string>

#include "provoke.h"
#include "support.h"

namespace kvtest {

constexpr uid_t kUser = 4001;
constexpr gid_t kGroup = 4002;

constexpr const char* kNoUids = "getresuid failed. Cannot change to root";
constexpr const char* kNoGids = "getresgid failed. Cannot change to root";
constexpr const char* kNoSwitch = "setresuid failed. Cannot change to root";
constexpr const char* kNoRoot = "Could not switch to root";

// Real, effective and saved user ids, then group ids, of the calling thread.
using Ids = std::array<unsigned, 6>;

inline Ids thread_ids() {
    Ids ids{};
    syscall(SYS_getresuid, &ids[0], &ids[1], &ids[2]);
    syscall(SYS_getresgid, &ids[3], &ids[4], &ids[5]);
    return ids;
}

inline Ids ids_of(const kv_perm_ctx_t& context) {
    return {context.real_uid, context.effective_uid, context.saved_uid,
            context.real_gid, context.effective_gid, context.saved_gid};
}

inline void take_ids(const Ids& ids) {
    ASSERT_EQ(setgroups(0, nullptr), 0);
    ASSERT_EQ(setresgid(ids[3], ids[4], ids[5]), 0);
    ASSERT_EQ(setresuid(ids[0], ids[1], ids[2]), 0);
    ASSERT_EQ(thread_ids(), ids);
}

constexpr Ids kConnection = {0, kUser, 0, kGroup, kGroup, kGroup};
constexpr Ids kStranger = {kUser, kUser, kUser, kGroup, kGroup, kGroup};  // no way to root

// An identity, and what it is while root.
struct Way {
    Ids before;
    Ids during;
};
constexpr Way kWays[] = {
    {kConnection, {0, 0, 0, kGroup, kGroup, kGroup}},
    {{0, kUser, kUser, kGroup, kGroup, kGroup}, {0, 0, kUser, kGroup, kGroup, kGroup}},
    {{kUser, kUser, 0, kGroup, kGroup, kGroup}, {0, 0, 0, kGroup, kGroup, kGroup}},
    {{0, kUser, 4009, 4003, 4004, 4005}, {0, 0, 4009, 4003, 4004, 4005}},
};

// Makes the kernel refuse a system call of this process from here on.
inline void refuse_call(unsigned number, unsigned error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{.len = std::size(program), .filter = program};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0), 0);
}

// The real thing: ids that the process itself can no longer read are read from the kernel's file.
inline std::string status_line(const char* key) {
    const std::string status = kvtest::read_file("/proc/thread-self/status");
    const std::size_t start = status.find(key);
    return status.substr(start, status.find('\n', start) - start);
}

}  // namespace kvtest
