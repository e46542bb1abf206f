// The audit buffer: audit records of this process, kept on the heap and written to a file of their
// own when they fill it or their time has come. No lock: it belongs to one process.
//
// Losing audit records never fails an operation and marks no rescan: files of reads say nothing
// about the share's state.
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "kavrin_utils.h"
#include "utils/owners.h"
#include "utils/pending_file.h"
#include "utils/privileges.h"
#include "utils/staging_segment.h"
#include "utils/trace.h"
#include "vfs_common.h"

#define TMP_AUDIT_FNAME "/adtempXXXXXX"

staging_buffer_t* global_read_audit_buffer = nullptr;

namespace {

using kavrin::HeapOwner;
using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kEntry;
using kavrin::kFirstRecord;
using kavrin::kRecordHeader;
using kavrin::kTrace;

constexpr int kFiles = 3;
constexpr int kFill = 8;

std::int32_t buffer_size() {
    return global_params[PARAM_AUDITING_BUFFER_SIZE].value.intval;
}

// Fill from which a write flushes first. The percentage is the staging buffer's; what stands in for
// one that is no fraction is this buffer's own.
std::int32_t write_threshold() {
    const std::int32_t percent = global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval;
    return percent <= 99 ? kavrin::share_of(buffer_size(), percent) : buffer_size() / 2;
}

// The configured size may have grown since the buffer was made.
bool fits(staging_buffer_t& buffer, const staging_data_t& record) {
    const std::size_t size =
        std::min(static_cast<std::size_t>(buffer_size()), malloc_usable_size(&buffer));
    return std::size_t{buffer.next_offset} + record.size + kRecordHeader <= size;
}

// Writes the records under the temporary name; whatever fails leaves the file and the buffer.
bool write_records(int fd, const char* temporary, const char* name) {
    const std::uint32_t size = global_read_audit_buffer->next_offset - kFirstRecord;
    KV_TRACE(kFiles, "%s: writing to %s would rename to filename %s size %d \n",
             "flush_audit_buffer", temporary, name, static_cast<int>(size));
    const ssize_t written = write(fd, global_read_audit_buffer->data, size);
    if (written == static_cast<ssize_t>(size)) return true;
    KV_TRACE(kTrace, "staging buffer could not finish write\n");
    return false;
}

// The flush as root, with records to write.
int flush_records() {
    const char* const folder = global_params[PARAM_AUDITING_DIR].value.strval;
    if (!kavrin::is_folder(folder)) {
        KV_TRACE(kAlways, "missing auditing directory %s\n", folder);
        return -1;
    }
    const HeapString temporary = kavrin::temporary_name(folder, TMP_AUDIT_FNAME);
    if (temporary == nullptr) {
        KV_TRACE(kAlways, "Out of memory for creating tmpfname\n");
        return -1;
    }
    kavrin::FileDescriptor file(mkstemp(temporary.get()));
    if (!file.valid()) {
        KV_TRACE(kAlways, "cannot openfile %s. errno = %d(%s)\n", temporary.get(), errno,
                 std::strerror(errno));
        return -1;
    }
    HeapString name(get_dumpfname(folder));
    if (name == nullptr) return -1;
    if (kavrin::file_exists(name.get())) {
        KV_TRACE(kAlways, "dump file %s already exists.\n", name.get());
        return -1;
    }
    if (!write_records(file.get(), temporary.get(), name.get())) return -1;
    file = kavrin::FileDescriptor();

    std::free(std::exchange(global_read_audit_buffer, nullptr));
    init_audit_buffer();
    if (!kavrin::rename_to_pending(temporary.get(), name, folder)) {
        KV_TRACE(kAlways, "cannot rename %s to %s, errno = %d\n", temporary.get(), name.get(),
                 errno);
        unlink(temporary.get());
    }
    return 0;
}

// Flushes when the buffer is full enough, when its time has come, or when the record would not fit.
void make_room(const staging_data_t& record) {
    staging_buffer_t& buffer = *global_read_audit_buffer;
    const std::int32_t threshold = write_threshold();
    const std::int32_t interval = global_params[PARAM_AUDITING_FLUSH_INTERVAL].value.intval;
    const std::time_t now = std::time(nullptr);
    const auto flushed = static_cast<std::time_t>(buffer.last_flush_time);
    KV_TRACE(kFill,
             "audit: last flush time %d, flush interval %d, current time %d, current offset %d, "
             "data size %d, write threshold %d\n",
             static_cast<int>(flushed), interval, static_cast<int>(now),
             static_cast<int>(buffer.next_offset), static_cast<int>(record.size), threshold);
    const bool due = buffer.next_offset >= static_cast<std::uint32_t>(threshold) ||
                     flushed + interval < now || !fits(buffer, record);
    if (due && flush_audit_buffer() < 0)
        KV_TRACE(kAlways, "Failed to flush audit buffer. errno = %d(%s)\n", errno,
                 std::strerror(errno));
}

}  // namespace

extern "C" void init_audit_buffer(void) {
    const std::int32_t size = buffer_size();
    KV_TRACE(kEntry, "Allocating %d for audit buffer\n", size);
    if (global_read_audit_buffer != nullptr) {
        if (global_read_audit_buffer->next_offset > kFirstRecord) {
            KV_TRACE(kEntry, "Got an init force flush temp_offset %d, flush_time %d\n",
                     static_cast<int>(global_read_audit_buffer->next_offset),
                     static_cast<int>(global_read_audit_buffer->last_flush_time));
            flush_audit_buffer();
            if (global_read_audit_buffer == nullptr) return;  // as the flush has said
        } else {
            KV_TRACE(kEntry, "Got an init but nothing in the buffer\n");
        }
    } else if (size >= static_cast<std::int32_t>(kFirstRecord)) {
        global_read_audit_buffer =
            static_cast<staging_buffer_t*>(std::calloc(1, static_cast<std::size_t>(size)));
    }
    if (global_read_audit_buffer == nullptr) {
        KV_TRACE(kAlways, "Unable to allocate buffer for auditing\n");
        return;
    }
    // Also after a failed flush: the connection that begins here starts with an empty buffer. The
    // count is left as it is.
    global_read_audit_buffer->last_flush_time = static_cast<std::uint64_t>(std::time(nullptr));
    global_read_audit_buffer->next_offset = kFirstRecord;
    KV_TRACE(kEntry, "Finished  allocating %d for audit buffer flush time %d\n", size,
             static_cast<int>(global_read_audit_buffer->last_flush_time));
}

extern "C" int write_to_audit_buffer(staging_data_t* data) {
    if (data == nullptr) {
        KV_TRACE(kAlways, "null staging data\n");
        return -1;
    }
    if (static_cast<std::int32_t>(data->size) < 1) {
        KV_TRACE(kAlways, "invalid data size\n");
        return -1;
    }
    if (global_read_audit_buffer == nullptr) {
        KV_TRACE(kAlways, "Auditing buffer is NULL\n");
        return -1;
    }
    if (data->sig != STAGING_DATA_SIG)
        KV_TRACE(kAlways, "Writing to audit buffer without a proper signature\n");
    make_room(*data);

    // A flush replaces the buffer, and may find no memory for the new one.
    if (global_read_audit_buffer == nullptr) {
        KV_TRACE(kAlways, "Auditing buffer is NULL\n");
        return -1;
    }
    if (!fits(*global_read_audit_buffer, *data)) {
        KV_TRACE(kAlways, "no room in the audit buffer. record size = %u next_offset = %u\n",
                 data->size + kRecordHeader, global_read_audit_buffer->next_offset);
        return -1;
    }
    kavrin::append_record(*global_read_audit_buffer, *data);
    return 0;
}

extern "C" int flush_audit_buffer(void) {
    if (global_read_audit_buffer == nullptr) {
        KV_TRACE(kAlways, "cannot access staging buffer.\n");
        return -1;
    }
    if (global_read_audit_buffer->num_records == 0) return 1;
    const kavrin::RootContext root;
    return root ? flush_records() : -1;
}

extern "C" int send_audit_vfs_event(AuditEvent* ae, uid_t uid) {
    KV_TRACE(kEntry, "%s: send audit event\n", __func__);
    if (ae != nullptr) ae->uid = uid;
    const HeapOwner<staging_data_t> record(create_audit_data_buf(ae));
    if (record == nullptr) return -1;
    write_to_audit_buffer(record.get());
    return 0;
}
