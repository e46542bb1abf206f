// The rescan marker: whoever may have lost events leaves the reason here, and the event store
// rescans the share as long as the file exists.
//
// The file is never truncated, so that no moment exists in which it says nothing: the terminator
// ends the reason, and what follows it is left of an earlier, longer one.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "kavrin_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::kAlways;

constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";

}  // namespace

extern "C" void mark_event_db_as_rescan_needed(const char* reason) {
    // What is told next is why there is a mark, not how the marking went.
    const kavrin::KeptErrno kept;
    const int fd = open(kMarker, O_WRONLY | O_CREAT | O_CLOEXEC, 0744);
    if (fd < 0) {
        KV_TRACE(kAlways,
                 "Cannot open event status file '%s' to mark rescan needed (-1). errno = %d(%s)\n",
                 kMarker, errno, std::strerror(errno));
        return;
    }
    const std::size_t size = std::strlen(reason) + 1;
    if (write(fd, reason, size) != static_cast<ssize_t>(size)) {
        KV_TRACE(kAlways,
                 "Cannot write event status file '%s' to mark rescan needed (-1). errno = %d(%s)\n",
                 kMarker, errno, std::strerror(errno));
        return;  // and the descriptor stays open: only a whole marker is closed
    }
    if (close(fd) != 0)
        KV_TRACE(kAlways, "Close of event status file '%s' failed. errno = %d(%s)\n", kMarker,
                 errno, std::strerror(errno));
}
