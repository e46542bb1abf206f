// The staging buffer: every smbd appends its events, and whoever finds it full moves all of them
// into a pending file for the event store.
//
// Concurrency: the semaphore is the only lock. It covers the attached buffer, and in a flush also
// the write and the fdatasync(); never the switch to root, the making of names, or the rename.
//   A writer dies        before it publishes: its record is not there, the buffer as it was.
//   A flusher dies       before the buffer is emptied: the records stay, a temporary file is left;
//                        after that: the temporary file holds the records and lacks its name, which
//                        `kavrinctl events recover` gives it.
// In each case the kernel gives the semaphore back. A pending name is given only to a file that is
// complete and synced, and never takes the place of another file.
//
// Whatever may lose events leaves a reason in the rescan marker. The buffer's header lies in memory
// that every process can write, so it is not believed when it points outside of the segment: a
// flush then says so and starts over.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "utils/pending_file.h"
#include "utils/privileges.h"
#include "utils/staging_segment.h"
#include "utils/trace.h"

namespace {

using kavrin::AttachedStaging;
using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kFirstRecord;
using kavrin::kRecordHeader;
using kavrin::StagingSemaphore;

constexpr const char* kTemporaryTemplate = "/kvtempXXXXXX";

// Fill that makes a process flush before it writes.
std::uint32_t flush_threshold() {
    const std::int32_t percent = global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval;
    const std::int32_t size = global_params[PARAM_STAGING_BUFFER_SIZE].value.intval;
    return static_cast<std::uint32_t>(kavrin::share_of(size, percent <= 99 ? percent : 80));
}

// Whether the header points into this much of a buffer.
bool points_inside(const staging_buffer_t& buffer, std::size_t size) {
    return buffer.next_offset >= kFirstRecord && buffer.next_offset <= size;
}

std::size_t configured_size() {
    return static_cast<std::size_t>(global_params[PARAM_STAGING_BUFFER_SIZE].value.intval);
}

// The segment as it was attached: no smaller than configured, larger when it was made by an older
// configuration.
std::size_t largest_size() {
    return std::max(configured_size(), kavrin::staging_segment_size());
}

bool has_room(const staging_buffer_t& buffer, std::uint32_t needed) {
    return points_inside(buffer, configured_size()) &&
           needed <= configured_size() - buffer.next_offset;
}

// The marker's folder is root's; a writer is not.
void mark_as_root(const char* reason) {
    const kavrin::RootContext root;
    mark_event_db_as_rescan_needed(reason);
}

bool wait_for(StagingSemaphore& semaphore) {
    if (semaphore.wait()) return true;
    KV_TRACE(kAlways, "cannot wait for the staging buffer semaphore. errno = %d(%s)\n", errno,
             std::strerror(errno));
    mark_as_root("cannot wait for the staging buffer semaphore\n");
    return false;
}

// A temporary file, gone again unless it was renamed.
class TemporaryFile {
public:
    explicit TemporaryFile(HeapString name) : name_(std::move(name)), fd_(mkstemp(name_.get())) {}
    ~TemporaryFile() {
        if (fd_ < 0) return;
        const kavrin::KeptErrno kept;
        discard();
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    bool valid() const { return fd_ >= 0; }
    int descriptor() const { return fd_; }
    const char* name() const { return name_.get(); }
    void close_descriptor() {
        if (open_) close(fd_);
        open_ = false;
    }
    void discard() {
        close_descriptor();
        if (!gone_) unlink(name_.get());
        gone_ = true;
    }
    bool rename(HeapString& to, const char* folder) {
        gone_ = kavrin::rename_to_pending(name(), to, folder);
        return gone_;
    }

private:
    HeapString name_;
    int fd_;
    bool open_ = true;
    bool gone_ = false;
};

enum class Attempt { kDone, kFailed, kInterrupted };

// Writes what the locked buffer holds, and empties it when that is safe on disk.
Attempt write_records(staging_buffer_t& buffer, TemporaryFile& file, bool first) {
    kavrin::map_pages(buffer);
    const std::uint32_t size = buffer.next_offset - kFirstRecord;
    const ssize_t written = write_all(file.descriptor(), buffer.data, size);
    if (written != static_cast<ssize_t>(size)) {
        if (first) {
            KV_TRACE(kAlways,
                     "staging buffer could not finish write, perhaps interrupted by a signal. "
                     "retrying errno = %d(%s)\n",
                     errno, std::strerror(errno));
            return Attempt::kInterrupted;
        }
        KV_TRACE(kAlways, "staging buffer write failed sizewr = %d size = %d. errno = %d(%s)\n",
                 static_cast<int>(written), static_cast<int>(size), errno, std::strerror(errno));
        mark_event_db_as_rescan_needed("staging buffer write error\n");
        return Attempt::kFailed;
    }
    if (fdatasync(file.descriptor()) != 0) {
        KV_TRACE(kAlways, "staging buffer fdatasync error. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        mark_event_db_as_rescan_needed("staging buffer fdatasync error\n");
        return Attempt::kFailed;
    }
    file.close_descriptor();
    kavrin::empty_buffer(buffer);
    return Attempt::kDone;
}

// Moves the buffer's records into the file; `empty` tells that there were none. Holds the semaphore
// from the first look at the buffer to the last.
Attempt move_records(TemporaryFile& file, bool first, bool& empty) {
    StagingSemaphore semaphore;
    if (!wait_for(semaphore)) return Attempt::kFailed;
    const AttachedStaging buffer;
    if (!buffer) {
        KV_TRACE(kAlways, "cannot access staging buffer.\n");
        mark_event_db_as_rescan_needed("cannot access staging buffer\n");
        file.discard();
        return Attempt::kFailed;
    }
    empty = buffer->num_records == 0;
    const bool damaged =
        empty ? buffer->next_offset != kFirstRecord
              : buffer->next_offset == kFirstRecord || !points_inside(*buffer, largest_size());
    if (damaged) {
        KV_TRACE(kAlways, "staging buffer header is damaged. num_records = %u next_offset = %u\n",
                 buffer->num_records, buffer->next_offset);
        mark_event_db_as_rescan_needed("staging buffer header is damaged\n");
        kavrin::empty_buffer(*buffer);
    }
    const Attempt result = empty     ? Attempt::kDone
                           : damaged ? Attempt::kFailed
                                     : write_records(*buffer, file, first);
    // Before the next process may flush: a full disk has room again.
    if (empty || result != Attempt::kDone) file.discard();
    return result;
}

// One attempt at a flush, as root.
Attempt flush_once(bool first) {
    const char* const folder = global_params[PARAM_STAGING_DIR].value.strval;
    HeapString name(get_dumpfname(folder));
    if (name == nullptr) {
        KV_TRACE(kAlways, "get_dumpfname failed\n");
        mark_event_db_as_rescan_needed("get_dumpfname failed\n");
        return Attempt::kFailed;
    }
    if (kavrin::file_exists(name.get())) {
        KV_TRACE(kAlways, "tmp file %s already exists.\n", name.get());
        mark_event_db_as_rescan_needed("tmp file already exists\n");
        return Attempt::kFailed;
    }
    if (!kavrin::is_folder(folder)) {
        KV_TRACE(kAlways, "missing staging directory %s\n", folder);
        mark_event_db_as_rescan_needed("missing staging directory\n");
        return Attempt::kFailed;
    }
    HeapString temporary = kavrin::temporary_name(folder, kTemporaryTemplate);
    if (temporary == nullptr) {
        KV_TRACE(kAlways, "out of memory creating tempfile name\n");
        mark_event_db_as_rescan_needed("out of memory creating tempfile name\n");
        return Attempt::kFailed;
    }
    TemporaryFile file(std::move(temporary));
    if (!file.valid()) {
        KV_TRACE(kAlways, "cannot openfile %s. errno = %d(%s)\n", file.name(), errno,
                 std::strerror(errno));
        mark_event_db_as_rescan_needed("cannot open tmpfile\n");
        return Attempt::kFailed;
    }
    bool empty = false;
    const Attempt moved = move_records(file, first, empty);
    if (moved != Attempt::kDone || empty) return moved;
    if (!file.rename(name, folder)) {
        KV_TRACE(kAlways, "cannot rename %s to %s. errno = %d(%s)\n", file.name(), name.get(),
                 errno, std::strerror(errno));
        mark_event_db_as_rescan_needed("cannot rename tempfile to the actual dump file name\n");
        return Attempt::kFailed;
    }
    return Attempt::kDone;
}

}  // namespace

extern "C" int write_to_staging_buffer(staging_data_t* data) {
    if (data == nullptr) {
        KV_TRACE(kAlways, "null staging data\n");
        return -1;
    }
    if (static_cast<std::int32_t>(data->size) < 1) {
        KV_TRACE(kAlways, "invalid data size\n");
        return -1;
    }
    const std::uint32_t needed = data->size + kRecordHeader;

    StagingSemaphore semaphore;
    if (!wait_for(semaphore)) return -1;
    const AttachedStaging buffer;
    if (!buffer) {
        KV_TRACE(kAlways, "cannot access the staging buffer. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        semaphore.post();
        mark_as_root("cannot access staging buffer\n");
        return -1;
    }
    if (buffer->next_offset + needed >= flush_threshold() ||
        !points_inside(*buffer, configured_size())) {
        semaphore.post();
        if (flush_staging_buffer() != 1) {
            KV_TRACE(kAlways, "failed to flush staging buffer contents to disk. errno = %d(%s)\n",
                     errno, std::strerror(errno));
            return -1;
        }
        if (!wait_for(semaphore)) return -1;
    }
    if (!has_room(*buffer, needed)) {
        KV_TRACE(kAlways, "no room in the staging buffer. record size = %u next_offset = %u\n",
                 needed, buffer->next_offset);
        semaphore.post();
        mark_as_root("no room in the staging buffer\n");
        return -1;
    }
    if (data->sig != STAGING_DATA_SIG)
        KV_TRACE(kAlways, "writing a buffer without a proper signature\n");
    kavrin::append_record(*buffer, *data);
    semaphore.post();
    return 0;
}

extern "C" int flush_staging_buffer(void) {
    const kavrin::RootContext root;
    if (!root) return -1;
    Attempt attempt = flush_once(true);
    if (attempt == Attempt::kInterrupted) attempt = flush_once(false);
    return attempt == Attempt::kDone ? 1 : -1;
}
