// See map_source.h.
#include "map_source.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "descriptor.h"
#include "failure.h"
#include "image_check.h"
#include "manage_perms.h"
#include "perm_map.h"

namespace kvadmin {
namespace {

constexpr int kMapProject = 7065;
constexpr int kIndexSemaphore = 0;
constexpr int kInitializedSemaphore = 1;
constexpr std::uint64_t kLargestImage = 0xFFFFFFFF;
constexpr const char* kLoadHint = "load one with 'kavrinctl map build' or 'kavrinctl map load'";

// The set's value, judged here because the library stops the process over one it cannot be.
int semaphore_value(int set, int number) {
    const int value = semctl(set, number, GETVAL);
    if (value < 0)
        fail(Exit::kFailure, "cannot read the map semaphore set: {}", std::strerror(errno));
    if (value > 1)
        fail(Exit::kFailure,
             "semaphore {} of the map's set is {}, which is neither 0 nor 1: the set is damaged; "
             "restart the service that builds maps",
             number, value);
    return value;
}

struct SetValues {
    int table;
    bool initialised;
};

SetValues read_set() {
    const key_t key = ftok("/dev/null", kMapProject);
    const int set = semget(key, 0, 0);
    if (set < 0)
        fail(Exit::kFailure, "no map is loaded: there is no map semaphore set ({}); {}",
             std::strerror(errno), kLoadHint);
    return {semaphore_value(set, kIndexSemaphore),
            semaphore_value(set, kInitializedSemaphore) == 1};
}

[[noreturn]] void fail_without_map(int table) {
    const std::unique_ptr<char, decltype(&std::free)> persisted(get_permbe_map_location(),
                                                                &std::free);
    struct stat st;
    if (persisted != nullptr && stat(persisted.get(), &st) != 0)
        fail(Exit::kFailure,
             "no map is served: readers trust no segment without the persisted map {} ({}); {}",
             persisted.get(), std::strerror(errno), kLoadHint);
    fail(Exit::kFailure, "no map is loaded: table {} is current and has no segment; {}", table,
         kLoadHint);
}

}  // namespace

MapSource MapSource::open(const std::string& path, std::string_view command) {
    return path.empty() ? attach_live(command) : read_file(path);
}

// The library attaches the current segment but does not tell which one it was. Ids are not used
// again soon, so the same table with the same id before and after is the one that was attached.
MapSource MapSource::attach_live(std::string_view command) {
    require_root(command);
    MapSource source;
    while (true) {
        const SetValues before = read_set();
        const int id = get_current_perm_table_shmid(before.table);
        if (id < 0) fail_without_map(before.table);
        void* image = get_perm_map_addr();
        if (image == nullptr) fail_without_map(before.table);
        source.live_ = Live{before.table, get_next_perm_table_key(1 - before.table), id, 0,
                            before.initialised};
        source.bytes_ = {static_cast<const std::uint8_t*>(image), std::size_t{0}};
        shmid_ds state{};
        const bool known = shmctl(id, IPC_STAT, &state) == 0;
        if (known && read_set().table == before.table &&
            get_current_perm_table_shmid(before.table) == id) {
            source.live_->readers = state.shm_nattch - 1;
            source.bytes_ = {static_cast<const std::uint8_t*>(image), state.shm_segsz};
            return source;
        }
        put_perm_map_addr(image);
        source.bytes_ = {};
        source.live_.reset();
    }
}

MapSource MapSource::read_file(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!file.valid() || fstat(file.get(), &st) != 0)
        fail(Exit::kFailure, "cannot open {}: {}", path, std::strerror(errno));
    if (!S_ISREG(st.st_mode)) fail(Exit::kFailure, "{} is not a regular file", path);
    const auto size = static_cast<std::uint64_t>(st.st_size);
    if (size > kLargestImage)
        fail(Exit::kInvalidInput, "{} has {} bytes, more than a permission map can have", path,
             size);
    MapSource source;
    source.file_ = File{path, st.st_mtime};
    source.content_.resize(size);
    std::size_t done = 0;
    while (done < source.content_.size()) {
        const ssize_t got = read(file.get(), &source.content_[done], source.content_.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(Exit::kFailure, "cannot read {}: {}", path, std::strerror(errno));
        if (got == 0) break;  // it shrank meanwhile; what is left is judged
        done += static_cast<std::size_t>(got);
    }
    source.content_.resize(done);
    source.bytes_ = source.content_;
    return source;
}

MapSource::MapSource(MapSource&& other) noexcept
    : live_(std::exchange(other.live_, std::nullopt)),
      file_(std::move(other.file_)),
      content_(std::move(other.content_)),
      bytes_(std::exchange(other.bytes_, {})) {}

MapSource::~MapSource() {
    if (live_) put_perm_map_addr(image());
}

std::string MapSource::name() const {
    return live_ ? fmt::format("the live map (table {})", live_->table) : file_->path;
}

std::string MapSource::verify_command() const {
    return live_ ? "kavrinctl map verify" : "kavrinctl map verify " + file_->path;
}

ImageReader MapSource::sound_image() const {
    const ImageReport report = check_image(bytes_);
    if (!report.sound())
        fail(Exit::kInvalidInput, "{} is damaged: {}; see '{}'", name(), report.first_line(),
             verify_command());
    return *ImageReader::open(bytes_);
}

}  // namespace kvadmin
