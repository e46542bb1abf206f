// See event_recovery.h.
#include "event_recovery.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <span>
#include <tuple>

#include "descriptor.h"
#include "kavrin_utils.h"
#include "pending_folder.h"
#include "record_file.h"
#include "staging_snapshot.h"

namespace kvadmin {
namespace {

constexpr std::string_view kTemporaryPrefix = "kvtemp";
constexpr std::size_t kRandomCharacters = 6;
constexpr const char* kTornPrefix = "torn_";
constexpr const char* kReason = "torn temporary event file found\n";
constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";
constexpr const char* kStagingBuffer = "the staging buffer";
constexpr int kNameTries = 1000;

bool is_temporary(std::string_view name) {
    return name.starts_with(kTemporaryPrefix) &&
           name.size() == kTemporaryPrefix.size() + kRandomCharacters;
}

// Bytes that two files, or a file and a buffer, are compared by at a time.
using Chunk = std::array<std::uint8_t, 64 << 10>;

// Fills as much of `into` as the file has from there on.
std::size_t read_at(int file, std::uint64_t offset, std::span<std::uint8_t> into) {
    std::size_t filled = 0;
    while (filled < into.size()) {
        const ssize_t got = pread(file, into.data() + filled, into.size() - filled,
                                  static_cast<off_t>(offset + filled));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        filled += static_cast<std::size_t>(got);
    }
    return filled;
}

bool begins_with_file(std::span<const std::uint8_t> bytes, int file, std::uint64_t size) {
    if (size > bytes.size()) return false;
    Chunk chunk;
    for (std::uint64_t at = 0; at < size;) {
        const std::size_t wanted = std::min<std::uint64_t>(chunk.size(), size - at);
        if (read_at(file, at, std::span(chunk).first(wanted)) != wanted) return false;
        if (std::memcmp(chunk.data(), bytes.data() + at, wanted) != 0) return false;
        at += wanted;
    }
    return true;
}

bool begins_with_file(int other, int file, std::uint64_t size) {
    Chunk left;
    Chunk right;
    // Most files differ in their first record's time, so a small piece comes first.
    std::size_t piece = 256;
    for (std::uint64_t at = 0; at < size; piece = left.size()) {
        const std::size_t wanted = std::min<std::uint64_t>(piece, size - at);
        if (read_at(file, at, std::span(left).first(wanted)) != wanted) return false;
        if (read_at(other, at, std::span(right).first(wanted)) != wanted) return false;
        if (std::memcmp(left.data(), right.data(), wanted) != 0) return false;
        at += wanted;
    }
    return true;
}

// True while some process has the file open for writing. Where the file system knows no leases the
// file's age alone decides.
bool is_being_written(int file) {
    // The kernel tells a holder of a lease by a signal when somebody wants to write; this one is
    // ignored by default.
    fcntl(file, F_SETSIG, SIGURG);
    if (fcntl(file, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
    fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
}

// Gives a file another name that nobody has. False with errno, EEXIST when somebody has it.
bool rename_to_free_name(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (link(from.c_str(), to.c_str()) != 0) return false;
    unlink(from.c_str());  // a first name that stays is a copy for the next recovery
    return true;
}

bool name_is_free(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) != 0;
}

// The event store must know before the file is out of sight.
bool mark_rescan() {
    mark_event_db_as_rescan_needed(kReason);
    std::ifstream marker(kMarker, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(marker), {}};
    return content.starts_with(kReason);
}

struct Candidate {
    std::string name;
    timespec modified{};
};

class Recovery {
public:
    Recovery(const std::string& folder, const RecoveryOptions& options)
        : folder_(folder), options_(options) {}

    RecoveryReport run() {
        for (const Candidate& candidate : find()) deal_with(candidate);
        return report_;
    }

private:
    std::string path_of(const std::string& name) const { return folder_ + "/" + name; }

    std::vector<Candidate> find() {
        int error = 0;
        std::vector<Candidate> candidates;
        for (const std::string& name : names_in(folder_, error)) {
            struct stat status;
            if (!is_temporary(name) || lstat(path_of(name).c_str(), &status) != 0) continue;
            if (!S_ISREG(status.st_mode)) continue;
            candidates.push_back({name, status.st_mtim});
        }
        if (error != 0)
            report_.error = fmt::format("cannot read the folder {}: {}", folder_, strerror(error));
        std::sort(candidates.begin(), candidates.end(), [](const auto& left, const auto& right) {
            return std::tuple(left.modified.tv_sec, left.modified.tv_nsec, left.name) <
                   std::tuple(right.modified.tv_sec, right.modified.tv_nsec, right.name);
        });
        return candidates;
    }

    void deal_with(const Candidate& candidate) {
        TemporaryFile file;
        file.name = candidate.name;
        const Descriptor descriptor = open_record_file(path_of(candidate.name));
        if (!descriptor.valid()) {
            if (errno == ENOENT) return;  // its process was at work, and is done
            file.remark = fmt::format("cannot open it: {}", strerror(errno));
        } else {
            decide(descriptor.get(), file);
        }
        // Its process was at work, and was faster.
        if (file.fate == TemporaryFate::kFailed && name_is_free(path_of(file.name))) return;
        if (file.fate == TemporaryFate::kDuplicate || file.fate == TemporaryFate::kEmpty)
            gone_.insert(file.name);
        report_.files.push_back(std::move(file));
    }

    void decide(int descriptor, TemporaryFile& file) {
        struct stat status;
        if (fstat(descriptor, &status) != 0) {
            file.remark = strerror(errno);
            return;
        }
        file.bytes = static_cast<std::uint64_t>(status.st_size);
        if (is_young(status.st_mtim)) {
            file.fate = TemporaryFate::kYoung;
        } else if (is_being_written(descriptor)) {
            file.fate = TemporaryFate::kOpen;
        } else if (file.bytes == 0) {
            remove(file, TemporaryFate::kEmpty);
        } else {
            decide_on_records(descriptor, status.st_mtim, file);
        }
    }

    void decide_on_records(int descriptor, const timespec& modified, TemporaryFile& file) {
        const RecordWalk walk =
            walk_records<VFSEvent>(descriptor, 0, [](const VFSEvent&) { /* it is one */ });
        file.records = walk.records;
        if (walk.error != 0) {
            file.remark = fmt::format("cannot read it: {}", strerror(walk.error));
            return;
        }
        // A piece of a record would be found in many places.
        if (walk.records > 0 && !find_original(descriptor, file)) return;
        if (!file.other.empty())
            remove(file, TemporaryFate::kDuplicate);
        else if (walk.whole())
            publish(descriptor, modified, file);
        else
            set_aside(*walk.damage, file);
    }

    // Times in the future count as young, too.
    bool is_young(const timespec& modified) const {
        if (options_.older_than.count() <= 0) return false;
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const std::int64_t age = now.tv_sec - modified.tv_sec;
        return age < options_.older_than.count();
    }

    // Names in `other` what holds the records of a file already, if anything does. The buffer is
    // looked at when the file is known to be complete, and the folder after that. False when the
    // buffer cannot be looked at.
    bool find_original(int descriptor, TemporaryFile& file) {
        const StagingSnapshot staging = snapshot_staging(file.bytes);
        file.remark = staging.error;
        if (!staging.error.empty()) return false;
        if (begins_with_file(staging.records, descriptor, file.bytes))
            file.other = kStagingBuffer;
        else
            file.other = original_in_folder(descriptor, file);
        return file.remark.empty();
    }

    // Empty when there is none; with a remark when the folder could not be looked through.
    std::string original_in_folder(int descriptor, TemporaryFile& file) {
        // A temporary file that becomes a pending one between the listing and the look is found
        // under its new name.
        constexpr int kListings = 8;
        for (int listing = 0; listing < kListings; ++listing) {
            int error = 0;
            bool complete = true;
            for (const std::string& name : names_in(folder_, error)) {
                if (name == file.name || gone_.contains(name)) continue;
                const bool temporary = is_temporary(name);
                if (!temporary && !name.starts_with(kPendingPrefix)) continue;
                const Descriptor other = open_record_file(path_of(name));
                if (!other.valid()) {
                    if (errno != ENOENT && errno != EINVAL)
                        file.remark = fmt::format("cannot open {}: {}", name, strerror(errno));
                    complete = complete && !temporary;
                } else if (begins_with_file(other.get(), descriptor, file.bytes) &&
                           (!temporary || is_whole(other.get()))) {
                    return name;
                }
            }
            if (error != 0)
                file.remark = fmt::format("cannot read the folder: {}", strerror(error));
            if (complete || !file.remark.empty()) break;
        }
        return "";
    }

    static bool is_whole(int file) {
        return walk_records<VFSEvent>(file, 0, [](const VFSEvent&) { /* it is one */ }).whole();
    }

    void remove(TemporaryFile& file, TemporaryFate fate) {
        if (!options_.dry_run && unlink(path_of(file.name).c_str()) != 0) {
            file.remark = fmt::format("cannot remove it: {}", strerror(errno));
            return;
        }
        file.fate = fate;
    }

    // Renames to the first name of `name_for`(0), (1), … that is free.
    template <typename NameFor>
    bool rename(TemporaryFile& file, NameFor&& name_for) {
        errno = EEXIST;
        for (int attempt = 0; attempt < kNameTries && errno == EEXIST; ++attempt) {
            file.other = name_for(attempt);
            const std::string path = path_of(file.other);
            if (options_.dry_run ? name_is_free(path) && !promised_.contains(file.other)
                                 : rename_to_free_name(path_of(file.name), path)) {
                promised_.insert(file.other);
                return true;
            }
            if (options_.dry_run) errno = EEXIST;
        }
        file.remark = fmt::format("cannot rename it to {}: {}", file.other, strerror(errno));
        file.other.clear();
        return false;
    }

    void publish(int descriptor, const timespec& modified, TemporaryFile& file) {
        if (!options_.dry_run && fdatasync(descriptor) != 0) {
            file.remark = fmt::format("cannot sync it: {}", strerror(errno));
            return;
        }
        const bool renamed = rename(file, [&](int attempt) {
            const std::int64_t microseconds = modified.tv_nsec / 1000 + attempt;
            return fmt::format("{}{}.{:06}", kPendingPrefix,
                               modified.tv_sec + microseconds / 1000000, microseconds % 1000000);
        });
        if (renamed) file.fate = TemporaryFate::kPublished;
    }

    void set_aside(const RecordDamage& damage, TemporaryFile& file) {
        const std::string where = fmt::format("byte {}: {}", damage.offset, damage.what);
        if (!options_.dry_run && !mark_rescan()) {
            file.remark = fmt::format("torn at {}; cannot write the marker {}", where, kMarker);
            return;
        }
        const std::string random = file.name.substr(kTemporaryPrefix.size());
        const bool renamed = rename(file, [&](int attempt) {
            return kTornPrefix + random + (attempt == 0 ? "" : fmt::format(".{}", attempt + 1));
        });
        if (!renamed) return;
        file.fate = TemporaryFate::kTorn;
        file.remark = where;
    }

    const std::string& folder_;
    const RecoveryOptions& options_;
    std::set<std::string> gone_;      // removed, or in a dry run to be removed
    std::set<std::string> promised_;  // new names given in this run
    RecoveryReport report_;
};

}  // namespace

RecoveryReport recover_events(const std::string& folder, const RecoveryOptions& options) {
    return Recovery(folder, options).run();
}

const char* fate_name(TemporaryFate fate) {
    switch (fate) {
        case TemporaryFate::kPublished:
            return "published";
        case TemporaryFate::kDuplicate:
            return "duplicate";
        case TemporaryFate::kEmpty:
            return "empty";
        case TemporaryFate::kTorn:
            return "torn";
        case TemporaryFate::kYoung:
            return "young";
        case TemporaryFate::kOpen:
            return "open";
        case TemporaryFate::kFailed:
            break;
    }
    return "failed";
}

}  // namespace kvadmin
