// The load: a data file into the image, the image to its persisted copy, and the JSON files away;
// or the persisted copy back into the image.
//
// The image being filled is not the one that readers use; whoever called publishes it afterwards.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "logging.h"
#include "manage_perms.h"
#include "permissions/data_parser.h"
#include "permissions/json_session.h"
#include "permissions/load_report.h"
#include "permissions/map_file.h"
#include "permissions/parse_stack.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

// A zeroed buffer for the whole data file, from the kernel in large pages where it has them: half
// of a load's page faults would be here.
class ReadBuffer {
public:
    explicit ReadBuffer(std::size_t size) : size_(size) {
        void* memory =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) return;
        madvise(memory, size_, MADV_HUGEPAGE);
        data_ = static_cast<char*>(memory);
    }
    ~ReadBuffer() {
        if (data_ != nullptr) munmap(data_, size_);
    }
    ReadBuffer(const ReadBuffer&) = delete;
    ReadBuffer& operator=(const ReadBuffer&) = delete;
    char* data() const { return data_; }

private:
    std::size_t size_;
    char* data_ = nullptr;
};

// Room behind the file's bytes for their terminator.
constexpr std::size_t kBufferSlack = 100;

// Feeds the whole file to the parser, in one request unless it grows meanwhile.
void parse_data_file(int file, std::size_t size, const ReadBuffer& buffer, JsonSession& session) {
    for (;;) {
        const ssize_t got = read(file, buffer.data(), size);
        if (got < 0) std::fprintf(stderr, "error on file read.\n");
        if (got <= 0) break;
        buffer.data()[got] = 0;
        if (!session.feed({buffer.data(), static_cast<std::size_t>(got)})) break;
    }
    session.complete();
}

void remove_file(const char* path, const char* which) {
    if (path != nullptr && unlink(path) == 0) return;
    const int error = path == nullptr ? EFAULT : errno;
    const char* name = path == nullptr ? "" : path;
    report(CANNOT_UNLINK_JSON_FILES, SWEEPER_LOGSEV_WARN, "Could not unlink %s file %s errno %d",
           which, name, error);
    KV_TRACE(kAlways, "Could not unlink %s file %s errno %d", which, name, error);
}

// Parses the data file into the image. A rejected document leaves what was built until then.
e_membe_shm_err parse_into_image(const char* path) {
    struct stat st;
    if (stat(path, &st) != 0) {
        KV_TRACE(kAlways, "No such file %s", path);
        return report_failure(SHM_MEMBE_ERR_BADARGS, MISSING_JSON_FILES, "No such file %s", path);
    }
    const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        KV_TRACE(kAlways, "cannot open file %s", path);
        return report_failure(SHM_MEMBE_ERR_BADARGS, CANNOT_READ_JSON_FILE, "cannot open file %s",
                              path);
    }
    JsonSession session(kDataFileCallbacks);
    const auto size = static_cast<std::size_t>(st.st_size);
    const ReadBuffer buffer(size + kBufferSlack);
    if (!session.ready() || buffer.data() == nullptr) {
        KV_TRACE(kAlways, "No memory %s", std::strerror(ENOMEM));
        return report_failure(SHM_MEMBE_ERR_NOMEM, OUT_OF_MEMORY, "No memory %s",
                              std::strerror(ENOMEM));
    }
    parse_data_file(file.get(), size, buffer, session);
    return SHM_MEMBE_OK;
}

e_membe_shm_err load_from_data_file(memsummary_t& summary) {
    memsummary = &summary;
    empty_stack(summary.sth);
    const e_membe_shm_err parsed = parse_into_image(summary.perm_map_name_data);
    empty_stack(summary.sth);
    if (parsed != SHM_MEMBE_OK) return parsed;

    HeapString location(get_permbe_map_location());
    const e_membe_shm_err persisted = persist_perm_map(summary, location.get());
    location.reset();
    remove_file(summary.perm_map_name_data, "data");
    remove_file(summary.perm_map_name_size, "size");
    return persisted;
}

e_membe_shm_err load_from_persisted_map(const memsummary_t& summary) {
    HeapString location(get_permbe_map_location());
    const e_membe_shm_err result = restore_perm_map(summary, location.get());
    location.reset();
    // The entry says so whatever the result: the return code tells failures.
    log_perm_error("Successfully read the permission map", PERMISSION_MAP_SUCCESS,
                   SWEEPER_LOGSEV_INFO);
    return result;
}

}  // namespace
}  // namespace kavrin

extern "C" e_membe_shm_err process_permmap(memsummary_t* msum) {
    if (msum == nullptr) {
        KV_TRACE(kavrin::kAlways, "Null summary ");
        return SHM_MEMBE_ERR_BADARGS;
    }
    if (msum->perm_map_name_data != nullptr) return kavrin::load_from_data_file(*msum);
    return kavrin::load_from_persisted_map(*msum);
}
