// See map_publish.h.
#include "map_publish.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <thread>

#include "failure.h"
#include "image_check.h"
#include "kavrin.h"
#include "persisted_copy.h"
#include "source_pair.h"

namespace kvadmin {
namespace {

constexpr char kFolder[] = "/etc/kavrin";
constexpr int kMapSemaphoreProject = 7065;

// Held by this process and by its child until both are gone.
class BuildLock {
public:
    BuildLock() : folder_(open(kFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!folder_.valid())
            fail(Exit::kFailure, "cannot open {}: {}; it is where the persisted map lies", kFolder,
                 std::strerror(errno));
        if (flock(folder_.get(), LOCK_EX | LOCK_NB) == 0) return;
        if (errno == EWOULDBLOCK)
            fail(Exit::kFailure,
                 "another build or load is running (it holds the lock on {}); try again when it "
                 "has ended",
                 kFolder);
        fail(Exit::kFailure, "cannot lock {}: {}", kFolder, std::strerror(errno));
    }

private:
    Descriptor folder_;
};

// Opens the semaphore set, making it when there is none, without ever resetting a live one. The
// library ends the process on values that cannot be, so they are looked at first.
int open_current_table() {
    if (init_perm_map_semaphore() != 0)
        fail(Exit::kFailure, "cannot open the map's semaphore set: {}", std::strerror(errno));
    const int set = semget(ftok("/dev/null", kMapSemaphoreProject), 0, 0);
    for (const int number : {0, 1}) {
        const int value = set < 0 ? -1 : semctl(set, number, GETVAL);
        if (value == 0 || value == 1) continue;
        fail(Exit::kFailure,
             "semaphore {} of the map's set {} is {} where 0 or 1 belongs; remove the set with "
             "'ipcrm -s {}' and build again",
             number, set, value, set);
    }
    return get_current_perm_table_index_for_fill();
}

void remove_segment(int id) {
    if (shmctl(id, IPC_RMID, nullptr) != 0)
        note(fmt::format("cannot remove shared-memory segment {}: {}", id, std::strerror(errno)));
}

// Keeps the old segment in being for a moment after readers were switched over. A reader that has
// found it but not attached it yet would otherwise meet a segment that is gone and go without a
// map; so it attaches, sees that it came too late, and takes the new one.
class LateReaders {
public:
    explicit LateReaders(key_t old_key) {
        const int old = shmget(old_key, 0, 0);
        if (old >= 0) old_ = shmat(old, nullptr, SHM_RDONLY);
    }
    ~LateReaders() {
        if (old_ == kNothing) return;
        std::this_thread::sleep_until(since_ + kGrace);
        shmdt(old_);
    }
    LateReaders(const LateReaders&) = delete;
    LateReaders& operator=(const LateReaders&) = delete;

private:
    static constexpr std::chrono::milliseconds kGrace{100};
    static inline void* const kNothing = reinterpret_cast<void*>(-1);
    std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
    void* old_ = kNothing;
};

// The place of the new segment: clear when made, clear again unless publish() was reached. Under
// the lock whatever lies there is nobody's, so the key alone tells what to remove, also when the
// child was killed before it could name its segment.
class NextTable {
public:
    NextTable(int current, std::vector<std::string>& remarks)
        : current_(current), key_(get_next_perm_table_key(current)) {
        const int stale = segment();
        if (stale < 0) return;
        remove_segment(stale);
        if (segment() >= 0)
            fail(Exit::kFailure, "shared-memory segment {} is in the way and stays; see 'ipcs -m'",
                 stale);
        remarks.push_back(fmt::format(
            "removed shared-memory segment {} (key 0x{:x}), left by an interrupted build", stale,
            static_cast<std::uint32_t>(key_)));
    }
    ~NextTable() {
        if (!published_ && segment() >= 0) remove_segment(segment());
    }
    NextTable(const NextTable&) = delete;
    NextTable& operator=(const NextTable&) = delete;

    key_t key() const { return key_; }
    int segment() const { return shmget(key_, 0, 0); }
    int table() const { return 1 - current_; }

    // Switches readers over. The switch removes the old segment unless maps were never marked
    // available, which is so when an earlier build was killed between the switch and the mark.
    void publish(std::vector<std::string>& remarks) {
        late_readers_.emplace(get_next_perm_table_key(table()));
        swap_maps(current_);
        published_ = get_current_perm_table_index_for_fill() == table();
        if (!published_)
            fail(Exit::kFailure, "cannot switch readers to the new map: {}", std::strerror(errno));
        const int old = shmget(get_next_perm_table_key(table()), 0, 0);
        if (old < 0) return;
        remove_segment(old);
        remarks.push_back(fmt::format("removed shared-memory segment {} of the old map", old));
    }

private:
    int current_;
    key_t key_;
    bool published_ = false;
    std::optional<LateReaders> late_readers_;
};

// The new segment's bytes, read only.
class AttachedSegment {
public:
    explicit AttachedSegment(int id) {
        shmid_ds status{};
        if (id < 0 || shmctl(id, IPC_STAT, &status) != 0)
            fail(Exit::kFailure, "the new segment is gone: {}", std::strerror(errno));
        void* memory = shmat(id, nullptr, SHM_RDONLY);
        if (memory == reinterpret_cast<void*>(-1))
            fail(Exit::kFailure, "cannot attach the new segment: {}", std::strerror(errno));
        bytes_ = {static_cast<const std::uint8_t*>(memory), status.shm_segsz};
    }
    ~AttachedSegment() { shmdt(bytes_.data()); }
    AttachedSegment(const AttachedSegment&) = delete;
    AttachedSegment& operator=(const AttachedSegment&) = delete;
    std::span<const std::uint8_t> bytes() const { return bytes_; }

private:
    std::span<const std::uint8_t> bytes_;
};

kavrin_be_header_t header_of(std::span<const std::uint8_t> image) {
    kavrin_be_header_t header{};
    if (image.size() >= sizeof header) std::memcpy(&header, image.data(), sizeof header);
    return header;
}

std::string text_field(const char* field, std::size_t size) {
    return {field, strnlen(field, size)};
}

// Why an image is not one that may be published; empty when it is.
std::string what_is_wrong(std::span<const std::uint8_t> image) {
    const ImageReport report = check_image(image);
    if (report.sound()) return {};
    return fmt::format("{}{}", report.first_line(),
                       report.findings_total > 1
                           ? fmt::format(" (and {} more)", report.findings_total - 1)
                           : std::string());
}

void compare_with_persisted(std::span<const std::uint8_t> image) {
    const MappedFile persisted(persisted_map_path());
    if (persisted.bytes().size() == image.size() &&
        std::memcmp(persisted.bytes().data(), image.data(), image.size()) == 0)
        return;
    fail(Exit::kFailure, "{} is not the image that was built; nothing was published",
         persisted_map_path());
}

// The load's own result says little: a document cut short still succeeds. So the image itself is
// asked.
void verify_built(std::span<const std::uint8_t> image, const LintReport& pair,
                  const ChildOutput& output) {
    const auto refuse = [&output](const std::string& what) {
        fail(Exit::kFailure, "the built image is not what was checked: {}{}; nothing was published",
             what, output.error_text.empty() ? "" : "; " + last_words(output.error_text));
    };
    if (image.size() != pair.image_size)
        refuse(fmt::format("{} bytes instead of {}", image.size(), pair.image_size));
    const std::string wrong = what_is_wrong(image);
    if (!wrong.empty()) refuse(wrong);
    const kavrin_be_header_t header = header_of(image);
    if (header.total_fselems != pair.counts.elements || header.total_aces != pair.counts.aces)
        refuse(fmt::format("{} elements and {} ACEs instead of {} and {}", header.total_fselems,
                           header.total_aces, pair.counts.elements, pair.counts.aces));
    if (header.generationnum != pair.identity.generation)
        refuse(fmt::format("generation {} instead of {}", header.generationnum,
                           pair.identity.generation));
    compare_with_persisted(image);
}

PublishedMap describe_map(const kavrin_be_header_t& header, std::size_t bytes) {
    PublishedMap map;
    map.map_name = text_field(header.mapname, sizeof header.mapname);
    map.version = text_field(header.version, sizeof header.version);
    map.generation = header.generationnum;
    map.elements = header.total_fselems;
    map.aces = header.total_aces;
    map.bytes = static_cast<std::uint32_t>(bytes);
    return map;
}

void observe(const StepObserver& on_step, BuildStep step) {
    if (on_step) on_step(step);
}

void remark_all(const std::vector<std::string>& remarks) {
    for (const std::string& remark : remarks) note(remark);
}

// Readers switch here; from here on nothing is undone.
void publish(NextTable& next, PublishedMap& map, const StepObserver& on_step) {
    map.table = next.table();
    map.segment = next.segment();
    next.publish(map.remarks);
    observe(on_step, BuildStep::kSwapped);
    if (map_initialized(1) != 0)
        map.remarks.push_back("maps could not be marked available; readers do not need the mark");
    observe(on_step, BuildStep::kInitialised);
}

void refuse_when_interrupted(const Interruptions& interruptions) {
    if (interruptions.waiting()) fail(Exit::kFailure, "interrupted; nothing was published");
}

}  // namespace

PublishedMap build_map(const BuildRequest& request) {
    const BuildLock lock;
    observe(request.on_step, BuildStep::kLocked);
    std::vector<std::string> remarks = recover_persisted_map();
    const SourcePair pair(request.size_path, request.data_path);
    const LintReport report = pair.check(request.on_checked_bytes);
    observe(request.on_step, BuildStep::kChecked);
    pair.refuse_unless_clean(report);
    if (report.warnings > 0)
        remarks.push_back(fmt::format("the check has {} warnings; 'kavrinctl map lint' lists them",
                                      report.warnings));

    const Interruptions interruptions;
    const int current = open_current_table();
    PersistedCopy copy;
    observe(request.on_step, BuildStep::kCopied);
    NextTable next(current, remarks);
    const PrivateLinks links(pair);
    observe(request.on_step, BuildStep::kCleared);
    pair.refuse_if_changed();
    const ChildOutput output = run_build_child({links.size_path(), links.data_path(), next.key(),
                                                report.image_size, request.limits, request.on_step},
                                               interruptions);
    observe(request.on_step, BuildStep::kBuilt);
    PublishedMap map;
    {
        const AttachedSegment segment(next.segment());
        verify_built(segment.bytes(), report, output);
        map = describe_map(header_of(segment.bytes()), segment.bytes().size());
    }
    pair.refuse_if_changed();
    flush_persisted_map();
    observe(request.on_step, BuildStep::kVerified);
    refuse_when_interrupted(interruptions);

    map.remarks = std::move(remarks);
    publish(next, map, request.on_step);
    if (!copy.drop()) map.remarks.push_back("the copy of the old persisted map is still there");
    observe(request.on_step, BuildStep::kCopyRemoved);
    if (!request.keep) pair.remove(map.remarks);
    observe(request.on_step, BuildStep::kSourcesRemoved);
    remark_all(map.remarks);
    return map;
}

PublishedMap load_map(const BuildLimits& limits, const StepObserver& on_step) {
    const BuildLock lock;
    observe(on_step, BuildStep::kLocked);
    std::vector<std::string> remarks = recover_persisted_map();
    const MappedFile persisted(persisted_map_path(), true);
    if (!persisted.exists())
        fail(Exit::kFailure, "there is no persisted map ({}); build one with 'kavrinctl map build'",
             persisted_map_path());
    const std::string wrong = what_is_wrong(persisted.bytes());
    if (!wrong.empty())
        fail(Exit::kInvalidInput, "{} is damaged: {}; nothing was loaded", persisted_map_path(),
             wrong);
    observe(on_step, BuildStep::kChecked);

    const Interruptions interruptions;
    NextTable next(open_current_table(), remarks);
    observe(on_step, BuildStep::kCleared);
    run_build_child(
        {"", "", next.key(), static_cast<std::uint32_t>(persisted.bytes().size()), limits, on_step},
        interruptions);
    observe(on_step, BuildStep::kBuilt);
    PublishedMap map;
    {
        const AttachedSegment segment(next.segment());
        compare_with_persisted(segment.bytes());
        map = describe_map(header_of(segment.bytes()), segment.bytes().size());
    }
    observe(on_step, BuildStep::kVerified);
    refuse_when_interrupted(interruptions);
    map.remarks = std::move(remarks);
    publish(next, map, on_step);
    remark_all(map.remarks);
    return map;
}

}  // namespace kvadmin
