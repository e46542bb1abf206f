// From a message to a framed record: stamping, the filter that keeps the service's own work out of
// the event store, packing.
//
// The two kinds of message differ in type and words only: they share the filter and the frame.
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "kavrin_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"
#include "vfs_common.h"

uid_t reserved_user_uid = 0;

namespace {

using kavrin::HeapOwner;
using kavrin::kAlways;
using kavrin::kTrace;

constexpr int kDropped = 5;

constexpr std::size_t kRecordHeader = sizeof(staging_data_t);

const char* printable(const char* path) {
    return path == nullptr ? "" : path;
}

// Work of root and of the reserved user is the service's own.
bool is_dropped(uid_t uid, const char* path) {
    if (uid != reserved_user_uid && uid != 0) return false;
    KV_TRACE(kDropped, "Ignoring reserved user events [%s] pid %d\n", printable(path),
             static_cast<int>(getpid()));
    return true;
}

// A record for `size` bytes, with the payload's size in its frame; null with errno.
HeapOwner<staging_data_t> make_frame(std::size_t size) {
    if (size > INT_MAX) {
        errno = ENOMEM;
        return nullptr;
    }
    HeapOwner<staging_data_t> record(alloc_staging_data(static_cast<int>(size)));
    if (record != nullptr) record->size = static_cast<std::uint32_t>(size);
    return record;
}

}  // namespace

extern "C" staging_data_t* alloc_staging_data(int size) {
    if (size < 1) return nullptr;
    const std::size_t whole = static_cast<std::size_t>(size) + kRecordHeader;
    auto* const record = static_cast<staging_data_t*>(std::calloc(1, whole));
    if (record == nullptr) return nullptr;
    record->size = static_cast<std::uint32_t>(whole);
    record->sig = STAGING_DATA_SIG;
    return record;
}

extern "C" staging_data_t* create_staging_data_buf(VFSEvent* ve) {
    if (ve == nullptr) {
        KV_TRACE(kAlways, "vfsevent is null\n");
        return nullptr;
    }
    if (is_dropped(ve->uid, ve->path)) return nullptr;
    auto record = make_frame(vfsevent__get_packed_size(ve));
    if (record == nullptr) {
        KV_TRACE(kAlways, "could not allocate event staging data. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return nullptr;
    }
    vfsevent__pack(ve, record->buffer);
    KV_TRACE(kTrace, "event %d [%s]\n", static_cast<int>(record->size), printable(ve->path));
    return record.release();
}

extern "C" staging_data_t* create_audit_data_buf(AuditEvent* ae) {
    if (ae == nullptr) {
        KV_TRACE(kAlways, "vfsevent is null\n");
        return nullptr;
    }
    if (is_dropped(ae->uid, ae->path)) return nullptr;
    auto record = make_frame(audit_event__get_packed_size(ae));
    if (record == nullptr) {
        KV_TRACE(kAlways, "could not allocate audit staging data. errno = %d(%s)\n", errno,
                 std::strerror(errno));
        return nullptr;
    }
    audit_event__pack(ae, record->buffer);
    KV_TRACE(kTrace, "audit %d [%s]\n", static_cast<int>(record->size), printable(ae->path));
    return record.release();
}

extern "C" int pop_vfs_event(VFSEvent* ve) {
    ve->client_pid = static_cast<std::int32_t>(getpid());
    ve->uid = geteuid();
    timeval now{};
    gettimeofday(&now, nullptr);
    ve->time_sec = static_cast<std::int32_t>(now.tv_sec);
    ve->time_usec = static_cast<std::int32_t>(now.tv_usec);
    // "msecs" are microseconds: readers of the trace know the line as it is.
    KV_TRACE(kTrace, "%s: Time stamp=%lu(secs) %lu(msecs) uid=%d path=%s\n", __func__,
             static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_usec),
             static_cast<int>(ve->uid), printable(ve->path));
    return 0;
}

extern "C" int pop_audit_event(AuditEvent* ae) {
    const std::time_t now = std::time(nullptr);
    ae->time_sec = static_cast<std::int32_t>(now);
    KV_TRACE(kTrace, "%s: Time stamp=%lu(secs) uid=%d path=%s\n", __func__,
             static_cast<unsigned long>(now), static_cast<int>(ae->uid), printable(ae->path));
    return 0;
}

extern "C" int send_modify_vfs_event(VFSEvent* ve) {
    const HeapOwner<staging_data_t> record(create_staging_data_buf(ve));
    if (record == nullptr) return -1;
    write_to_staging_buffer(record.get());
    return 0;
}
