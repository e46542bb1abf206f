// The switch to root and back around privileged look-ups.
//
// Raw system calls change the calling thread only. The C library's wrappers would signal every
// thread of the process, which is slow in a server with helper threads and would change their
// identity in the middle of their work.
#include "utils/privileges.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "utils/trace.h"

namespace {

// The saved effective ids, -1 while nothing is saved.
int save_uid = -1;
int save_gid = -1;

void set_effective_uid(int uid) {
    syscall(SYS_setresuid, -1, uid, -1);
}
void set_effective_gid(int gid) {
    syscall(SYS_setresgid, -1, gid, -1);
}

}  // namespace

extern "C" void _change_id(int which) {
    if (which == 5) {
        KV_ASSERT(save_uid == -1 && save_gid == -1);
        save_uid = static_cast<int>(geteuid());
        save_gid = static_cast<int>(getegid());
        set_effective_uid(0);
        set_effective_gid(0);
        return;
    }
    KV_ASSERT(save_uid != -1 && save_gid != -1);
    // The uid goes first, so a process that is not root afterwards may be refused its gid; results
    // are not looked at. Callers count on the ids exactly as these steps leave them.
    set_effective_uid(save_uid);
    set_effective_gid(save_gid);
    save_uid = -1;
    save_gid = -1;
}
