// The group-map file, read in place: a refreshed file costs one mmap(), a look-up a linear walk.
//
// The reader trusts its writer where it says so: neither the place of the user table nor that of a
// user's group ids is checked, and a user's group ids are bounded by the name's offset. Writers
// lay files out so that this holds; `kavrinctl groupmap lint` checks what is not checked here.
#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kavrin_getgrouplist.h"
#include "utils/owners.h"

namespace {

static_assert(sizeof(mapheader) == 16 && offsetof(mapheader, rnum) == 4 &&
              offsetof(mapheader, uoffs) == 8 && offsetof(mapheader, unum) == 12);
static_assert(sizeof(ritem) == 8 && offsetof(ritem, gid) == 4);
static_assert(sizeof(uitem) == 16 && offsetof(uitem, nlen) == 4 && offsetof(uitem, goffs) == 8 &&
              offsetof(uitem, glen) == 12);

// The one gate from offsets to memory. Nothing says that a table is aligned, so records are copied.
class GroupMap {
public:
    GroupMap(const void* map, std::uint32_t size)
        : start_(static_cast<const char*>(map)), size_(size) {}

    mapheader header() const { return read<mapheader>(0); }

    template <typename Record>
    Record read(std::size_t offset) const {
        Record record;
        std::memcpy(&record, start_ + offset, sizeof record);
        return record;
    }

    const char* at(std::size_t offset) const { return start_ + offset; }

    // Whether the name at this offset, which lies inside, is `name` but for case. A name without a
    // terminator inside the map is nobody's.
    bool is_named(std::uint32_t offset, std::string_view name) const {
        const std::size_t room = size_ - offset;
        return name.size() < room && strncasecmp(at(offset), name.data(), name.size() + 1) == 0;
    }

private:
    const char* start_;
    std::uint32_t size_;
};

// Whether the map has the smallest size there is; says so when not.
bool is_long_enough(std::uint32_t mapsize) {
    if (mapsize >= KAVRIN_GROUPMAP_MIN_SIZE) return true;
    debug_printf("map too short, bail\n");
    return false;
}

void print_list(const char* username, const gid_t* gids, std::uint32_t count) {
    debug_printf("New gid list begins for user %s = 0x%x\n", username, count);
    for (std::uint32_t i = 0; i < count; ++i)
        debug_printf("gid[%d] = %u\t", static_cast<int>(i), gids[i]);
    debug_printf("\nEnd of Gid List\n");
}

}  // namespace

extern "C" void debug_printf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

extern "C" void* kavrin_mapfile(const char* path, std::uint32_t* mapsize) {
    struct stat status;
    if (stat(path, &status) != 0) return nullptr;
    if (status.st_size < KAVRIN_GROUPMAP_MIN_SIZE) {
        debug_printf("File too short\n");
        return nullptr;
    }
    if (status.st_size % KAVRIN_GROUPMAP_ALIGN != 0) {
        debug_printf("File not aligned\n");
        return nullptr;
    }
    const kavrin::FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        debug_printf("Failed to open %s: %s", path, std::strerror(errno));
        return nullptr;
    }
    void* const map = mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_SHARED,
                           file.get(), 0);
    // MAP_FAILED passes: callers are known to be handed it, with the file's size.
    if (map == nullptr) {
        debug_printf("Failed to mmap %s: %s", path, std::strerror(errno));
        *mapsize = 0;
        return nullptr;
    }
    *mapsize = static_cast<std::uint32_t>(status.st_size);
    return map;
}

extern "C" void kavrin_unmap(void* map, std::uint32_t size) {
    if (munmap(map, size) != 0) debug_printf("unmapping group map %s", std::strerror(errno));
}

extern "C" gid_t kavrin_reserved_gid(const void* map, std::uint32_t mapsize,
                                     const char* groupname) {
    if (!is_long_enough(mapsize)) return 0;
    const GroupMap groups(map, mapsize);
    const mapheader header = groups.header();
    if (header.roffs > mapsize || header.rnum > (mapsize - header.roffs) / sizeof(ritem)) {
        debug_printf("reserved group table beyond map, bail\n");
        return 0;
    }
    if (header.rnum == 0) return 0;
    const std::string_view name(groupname);
    for (std::uint32_t i = 0; i < header.rnum; ++i) {
        const auto item = groups.read<ritem>(header.roffs + std::size_t{i} * sizeof(ritem));
        if (item.noffs > mapsize - 1) {
            debug_printf("reserved group item %u beyond map, bail\n", i);
            return 0;
        }
        if (groups.is_named(item.noffs, name)) return item.gid;
    }
    return 0;
}

extern "C" gid_t* kavrin_getgrouplist(const void* map, std::uint32_t mapsize, const char* username,
                                      std::uint32_t* grouplen) {
    *grouplen = 0;
    if (!is_long_enough(mapsize)) return nullptr;
    const GroupMap groups(map, mapsize);
    const mapheader header = groups.header();
    const std::uint32_t limit = mapsize - 1;
    if (header.unum == 0) return nullptr;
    const std::string_view name(username);
    for (std::uint32_t i = 0; i < header.unum; ++i) {
        const auto item = groups.read<uitem>(header.uoffs + std::size_t{i} * sizeof(uitem));
        // The sums wrap at 32 bits, and the second starts from the name: writers allow for both.
        if (item.noffs > limit || item.noffs + item.nlen > limit) {
            debug_printf("user item %u name beyond map, bail\n", i);
            return nullptr;
        }
        if (item.noffs + 4 * item.glen > limit) {
            debug_printf("group item %u name beyond map, bail\n", i);
            return nullptr;
        }
        if (!groups.is_named(item.noffs, name)) continue;

        auto* const gids = static_cast<gid_t*>(std::calloc(item.glen, sizeof(gid_t)));
        if (gids == nullptr) return nullptr;
        std::memcpy(gids, groups.at(item.goffs), std::size_t{item.glen} * sizeof(gid_t));
        *grouplen = item.glen;
        print_list(username, gids, item.glen);
        return gids;
    }
    return nullptr;
}
