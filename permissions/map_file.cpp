// See map_file.h. The file is the image byte for byte; the header's validity mark makes it valid.
#include "permissions/map_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "manage_perms.h"
#include "permissions/image_view.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace kavrin {
namespace {

constexpr char kMapFile[] = "/etc/kavrin/.permbe_map";

// Names and rights of everybody are in it: root's eyes only.
constexpr mode_t kMapFileMode = 0600;

// Whether there is a path and an image to work with; the messages are the same both ways.
bool usable(const memsummary_t& summary, const char* path) {
    if (path == nullptr) {
        KV_TRACE(kAlways, "Null perm map file");
        return false;
    }
    if (summary.membuf == nullptr || summary.memsize == 0) {
        KV_TRACE(kAlways, "Empty buffer");
        return false;
    }
    return true;
}

// What an image has for a validity mark; 0 when it is too short for a header.
std::uint32_t mark_of(const memsummary_t& summary) {
    if (summary.memsize < sizeof(kavrin_be_header_t)) return 0;
    return ImageView(summary.membuf).header().signature;
}

bool has_validity_mark(const memsummary_t& summary) {
    return mark_of(summary) == KAVRIN_BE_HEADER_SIGNATURE;
}

}  // namespace

e_membe_shm_err persist_perm_map(const memsummary_t& summary, const char* path) {
    if (!usable(summary, path)) return SHM_MEMBE_ERR_BADARGS;
    if (!has_validity_mark(summary)) {
        KV_TRACE(kAlways, "Invalid or uninitialized buffer");
        return SHM_MEMBE_ERR_BADARGS;
    }
    const FileDescriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMapFileMode));
    // Whatever the umask, and whatever the mode of an older file.
    fchmod(file.get(), kMapFileMode);
    // Descriptor 0 counts as failure: a service whose standard input is closed is not set up right.
    if (file.get() <= 0 ||
        write(file.get(), summary.membuf, summary.memsize) != ssize_t{summary.memsize}) {
        KV_TRACE(kAlways, "Cannot persist permission map");
        return SHM_MEMBE_ERR_PERMMAP_WRERR;
    }
    return SHM_MEMBE_OK;
}

e_membe_shm_err restore_perm_map(const memsummary_t& summary, const char* path) {
    if (!usable(summary, path)) return SHM_MEMBE_ERR_BADARGS;
    struct stat st;
    if (stat(path, &st) != 0) {
        KV_TRACE(kAlways, "perm map fille %s does not exist", path);
        return SHM_MEMBE_ERR_BADARGS;
    }
    if (st.st_size > off_t{summary.memsize}) {
        KV_TRACE(kAlways, "perm map file %s larger than buffer size %d", path,
                 static_cast<int>(summary.memsize));
        return SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL;
    }
    std::memset(summary.membuf, 0, summary.memsize);
    const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (file.get() <= 0 ||
        read(file.get(), summary.membuf, static_cast<std::size_t>(st.st_size)) != st.st_size) {
        KV_TRACE(kAlways, "Cannot read permission map");
        return SHM_MEMBE_ERR_PERMMAP_RDERR;
    }
    if (!has_validity_mark(summary)) {
        KV_TRACE(kAlways, "Invalid buffer %0x", mark_of(summary));
        return SHM_MEMBE_ERR_PERMMAP_RDERR;
    }
    return SHM_MEMBE_OK;
}

}  // namespace kavrin

extern "C" char* get_permbe_map_location(void) {
    char* location = strdup(kavrin::kMapFile);
    if (location == nullptr) KV_TRACE(kavrin::kAlways, "get_permbe_map_location: returns NULL");
    return location;
}
