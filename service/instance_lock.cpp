// See instance_lock.h.
#include "instance_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "failure.h"
#include "whole_file.h"

namespace kvservice {

using kvadmin::Exit;
using kvadmin::fail;

InstanceLock::InstanceLock() {
    kvadmin::make_folder("/run/kavrin", 0755);
    file_ = kvadmin::Descriptor(open(kLockPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    // Root's alone: anybody who may read it could lock it.
    if (!file_.valid() || fchmod(file_.get(), 0600) != 0)
        fail(Exit::kFailure, "cannot open {}: {}", kLockPath, std::strerror(errno));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(file_.get(), F_SETLK, &lock) != 0) {
        if (errno != EAGAIN && errno != EACCES)
            fail(Exit::kFailure, "cannot lock {}: {}", kLockPath, std::strerror(errno));
        fcntl(file_.get(), F_GETLK, &lock);
        fail(
            Exit::kFailure,
            "another kavrind runs: process {} holds {}; 'kavrinctl status' asks it, 'kill {}' ends "
            "it",
            lock.l_pid, kLockPath, lock.l_pid);
    }
    const std::string process = fmt::format("{}\n", getpid());
    if (ftruncate(file_.get(), 0) != 0 ||
        pwrite(file_.get(), process.data(), process.size(), 0) < 0)
        fail(Exit::kFailure, "cannot write {}: {}", kLockPath, std::strerror(errno));
}

}  // namespace kvservice
