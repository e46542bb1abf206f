// Checks of the map: the two segments, the semaphores that say which of them is served, the
// persisted copy, and what the kernel leaves for the next build.
//
// A build may be at work during a look: what is odd then is asked again, and is not told as long as
// somebody holds the build's lock.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include "descriptor.h"
#include "doctor.h"
#include "failure.h"
#include "image_check.h"
#include "logging.h"
#include "map_tables.h"
#include "persisted_copy.h"
#include "service_client.h"

namespace kvadmin::doctor {
namespace {

constexpr const char* kLoadLog = "/var/log/kavrin_perms.log";
constexpr const char* kBuilding = "a build is at work; ask again when it is done";
constexpr int kLooks = 3;
constexpr std::chrono::milliseconds kPause{100};
constexpr const char* kNeverServed =
    "no map was ever served here; deliver a pair, or build one with 'kavrinctl map build'";

// "00:3f:1", as /proc/locks names a file: the device of its file system, which stat() does not tell
// of every one, and its inode. Empty when it cannot be told.
std::string name_in_locks(const char* path) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0) return "";
    std::ifstream descriptor(fmt::format("/proc/self/fdinfo/{}", file.get()));
    std::string mount;
    for (std::string word; descriptor >> word;)
        if (word == "mnt_id:") descriptor >> mount;
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        unsigned major = 0;
        unsigned minor = 0;
        char colon = 0;
        fields >> id >> parent >> major >> colon >> minor;
        if (id == mount) return fmt::format("{:02x}:{:02x}:{}", major, minor, status.st_ino);
    }
    return "";
}

// Whether somebody holds the lock of a build. Looked up, not tried: a try would be in the way.
bool is_build_running() {
    const std::string name = name_in_locks(kBuildLockPath);
    std::ifstream locks("/proc/locks");
    for (std::string line; !name.empty() && std::getline(locks, line);)
        if (line.find(" FLOCK ") != std::string::npos &&
            line.find(" " + name + " ") != std::string::npos)
            return true;
    return false;
}

struct MapObjects {
    SemaphoreState set;
    SegmentState segments[2];

    // The table that readers use; nothing when the set does not say.
    std::optional<int> current() const {
        if (set.values.size() != 2 || set.values[0] < 0 || set.values[0] > 1) return std::nullopt;
        return set.values[0];
    }
    bool is_odd() const {
        const auto table = current();
        return table && (!segments[*table].exists() || segments[1 - *table].exists());
    }
};

MapObjects look_at_map() {
    MapObjects objects;
    for (int look = 0; look < kLooks; ++look) {
        if (look > 0) std::this_thread::sleep_for(kPause);
        objects = {map_semaphores(), {map_segment(0), map_segment(1)}};
        if (!objects.is_odd()) break;
    }
    return objects;
}

std::string segment_name(const SegmentState& segment, int table) {
    return fmt::format("table {}, segment {}", table, segment.id);
}

// The segment that is served; tells nothing when there is none.
const SegmentState* served(const MapObjects& objects) {
    const auto table = objects.current();
    return table && objects.segments[*table].exists() ? &objects.segments[*table] : nullptr;
}

std::optional<std::uint64_t> kernel_value(const char* name) {
    std::ifstream file(std::string("/proc/sys/kernel/") + name);
    std::uint64_t value = 0;
    if (!(file >> value)) return std::nullopt;
    return value;
}

// Lines of the log; a text may hold newlines, so a line begins where its time does.
std::string last_record(const std::string& path) {
    std::ifstream file(path);
    std::string last;
    for (std::string line; std::getline(file, line);) {
        const std::size_t digits = line.find_first_not_of("0123456789");
        if (digits != 0 && digits != std::string::npos && line[digits] == ',')
            last = line;
        else if (!last.empty())
            last += " " + line;
    }
    return last;
}

}  // namespace

void check_map_semaphores(const Server& server, Findings& findings) {
    const SemaphoreState set = map_semaphores();
    if (!set.exists())
        return findings.error(
            fmt::format("there is no map semaphore set: {}", std::strerror(set.error)), "",
            server.restart());
    const std::string where = fmt::format("semaphore set {}", set.id);
    const std::string mend = fmt::format("ipcrm -s {}; {}", set.id, server.restart());
    if (set.values.size() != 2)
        return findings.error(
            fmt::format("it has {} semaphores and should have 2", set.values.size()), where, mend);
    for (std::size_t i = 0; i < set.values.size(); ++i)
        if (set.values[i] != 0 && set.values[i] != 1)
            findings.error(fmt::format("semaphore {} is {}, which is neither 0 nor 1: every smbd "
                                       "that looks at it ends",
                                       i, set.values[i]),
                           where, mend);
    if (set.status.sem_perm.uid != 0)
        findings.error(
            fmt::format("it belongs to uid {}, who may remove it", set.status.sem_perm.uid), where,
            mend);
}

void check_live_map(const Server& server, Findings& findings) {
    const MapObjects objects = look_at_map();
    const auto table = objects.current();
    if (!table) return findings.skip("the semaphore set does not say which table is served");
    const SegmentState& segment = objects.segments[*table];
    if (!segment.exists()) {
        if (!server.map_expected)
            return findings.warning(kNeverServed, "", "kavrinctl map apply SIZE DATA");
        return findings.error(
            fmt::format("there is none: {}; every access is refused", std::strerror(segment.error)),
            fmt::format("table {}", *table), server.reload_map());
    }
    const std::string where = segment_name(segment, *table);
    const ipc_perm& owner = segment.status.shm_perm;
    const std::string again = server.reload_map() + ", which makes a new segment";
    if (owner.uid != 0)
        findings.error(
            fmt::format("it belongs to uid {}, who may change every right in it", owner.uid), where,
            again);
    if ((owner.mode & 0777) != 0)
        findings.error(fmt::format("its mode is {:04o} and should be 0000: others than root may "
                                   "attach it",
                                   owner.mode & 0777u),
                       where, again);
    const SegmentView view(segment);
    if (!view.attached())
        return findings.error(fmt::format("it cannot be attached: {}", std::strerror(view.error())),
                              where, server.reload_map());
    const ImageReport report = check_image(view.bytes());
    if (!report.sound())
        return findings.error("the image is damaged: " + report.first_line(), where,
                              "kavrinctl map verify; then " + server.reload_map());
    findings.remark(
        fmt::format("{}, {}, {}", counted(static_cast<std::int64_t>(report.elements), "element"),
                    counted(static_cast<std::int64_t>(view.bytes().size()), "byte"), where));
}

void check_map_mark(const Server& server, Findings& findings) {
    const MapObjects objects = look_at_map();
    if (objects.set.values.size() != 2)
        return findings.skip("there is no map semaphore set of two");
    if (objects.set.values[1] == 0 && served(objects) != nullptr && !is_build_running())
        findings.error(
            "it is not set, though a map is served: the next switch would leave the old "
            "segment behind",
            fmt::format("semaphore set {}", objects.set.id), server.reload_map());
}

void check_stale_segment(const Server&, Findings& findings) {
    const MapObjects objects = look_at_map();
    const auto table = objects.current();
    if (!table) return findings.skip("the semaphore set does not say which table is served");
    const SegmentState& other = objects.segments[1 - *table];
    if (!other.exists()) return;
    if (is_build_running()) return findings.skip(kBuilding);
    findings.warning(fmt::format("{} that an interrupted build left; the next one removes them",
                                 counted(static_cast<std::int64_t>(other.bytes()), "byte")),
                     segment_name(other, 1 - *table), fmt::format("ipcrm -m {}", other.id));
}

void check_persisted_map(const Server& server, Findings& findings) {
    const std::string path = persisted_map_path();
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno;
        if (!server.map_expected) return findings.skip("no map was ever served here");
        return findings.error(
            fmt::format("{}: readers trust no segment without it, and every access is refused",
                        std::strerror(error)),
            path, server.restart() + ", which writes it anew from the map that is served");
    }
    check_root_owns(path, status, findings);
    for (int look = 0; look < kLooks; ++look) {
        if (look > 0) std::this_thread::sleep_for(kPause);
        const MapObjects objects = look_at_map();
        const SegmentState* segment = served(objects);
        if (segment == nullptr) return findings.skip("no map is served that it could be equal to");
        const SegmentView live(*segment);
        const MappedFile file(path);
        if (live.attached() && std::ranges::equal(live.bytes(), file.bytes())) return;
    }
    if (is_build_running()) return findings.skip(kBuilding);
    findings.error(
        "it differs from the map that is served, and takes its place when this machine "
        "starts again",
        path, server.restart() + ", which makes it equal to the map that is served");
}

void check_load_log(const Server& server, Findings& findings) {
    if (access(kLoadLog, R_OK) != 0)
        return findings.skip(server.map_expected ? "there is no log; it was rotated, perhaps"
                                                 : "nothing was ever loaded here");
    const std::string line = last_record(kLoadLog);
    if (line.empty()) return findings.skip("the log holds no line");
    // Time, date, severity, text, class of the outcome; the text may hold commas itself.
    std::istringstream fields(line);
    std::string time;
    std::string date;
    std::getline(fields, time, ',');
    std::getline(fields, date, ',');
    if (line.substr(line.rfind(',') + 1) == std::to_string(PERMISSION_MAP_SUCCESS)) return;
    findings.error(fmt::format("the last load failed on {}: \"{}\"", date, line), kLoadLog,
                   "deliver a sound pair, or " + server.reload_map());
}

void check_shared_memory_limits(const Server& server, Findings& findings) {
    if (server.map_bytes == 0) return findings.skip("no map is served whose size would tell");
    const auto largest = kernel_value("shmmax");
    const auto pages = kernel_value("shmall");
    const auto count = kernel_value("shmmni");
    shm_info used{};
    if (!largest || !pages || !count || shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&used)) < 0)
        return findings.skip("the kernel does not tell its limits");
    const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const std::uint64_t needed = (server.map_bytes + page - 1) / page;
    if (*largest < server.map_bytes)
        findings.error(fmt::format("a segment may have {} bytes, and the served map has {}",
                                   *largest, server.map_bytes),
                       "kernel.shmmax",
                       fmt::format("sysctl -w kernel.shmmax={}", 4 * server.map_bytes));
    if (*pages < used.shm_tot + needed)
        findings.error(fmt::format("{} pages are allowed and {} in use; a second map of the size "
                                   "of the served one takes {}",
                                   *pages, used.shm_tot, needed),
                       "kernel.shmall",
                       fmt::format("sysctl -w kernel.shmall={}", used.shm_tot + 4 * needed));
    if (*count <= static_cast<std::uint64_t>(used.used_ids))
        findings.error(
            fmt::format("{} segments are allowed and as many in use; a build makes one", *count),
            "kernel.shmmni", fmt::format("sysctl -w kernel.shmmni={}", *count + 64));
}

}  // namespace kvadmin::doctor
