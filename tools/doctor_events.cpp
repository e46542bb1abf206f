// Checks of what carries events to the event store: the staging buffer and its semaphore, the files
// of the staging and auditing folders, and the marker that tells of a loss.
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fstream>
#include <thread>

#include "doctor.h"
#include "pending_folder.h"
#include "service_client.h"

namespace kvadmin::doctor {
namespace {

constexpr std::uint32_t kFirstRecord = offsetof(staging_buffer_t, data);
constexpr std::uint32_t kRecordHeader = offsetof(staging_data_t, buffer);
constexpr const char* kMarker = "/kavrin/.conf/kavrin_event_status.dirty";
constexpr std::string_view kTemporaryPrefix = "kvtemp";
constexpr std::string_view kAuditTemporaryPrefix = "adtemp";
constexpr std::size_t kTemporaryName = 12;   // the prefix and six characters
constexpr std::int64_t kPatience = 15 * 60;  // for the event store to take a file away
constexpr std::int64_t kTemporaryAge = 60;   // a flush at work is younger
constexpr std::int64_t kManyFiles = 10'000;
constexpr int kSharedMode = 0666;

constexpr const char* kNoTable = "there is no configuration table";

struct FileAge {
    std::string name;
    std::int64_t seconds = 0;
};

// The files of a folder whose names `choose` takes, the oldest first. Files that vanish meanwhile
// were taken away.
template <typename Choose>
std::vector<FileAge> ages(const std::string& folder, int& error, const Choose& choose) {
    std::vector<FileAge> files;
    const std::time_t now = std::time(nullptr);
    for (const std::string& name : names_in(folder, error)) {
        struct stat status {};
        if (choose(std::string_view(name)) && lstat((folder + "/" + name).c_str(), &status) == 0)
            files.push_back({name, now - status.st_mtime});
    }
    std::sort(files.begin(), files.end(),
              [](const FileAge& a, const FileAge& b) { return a.seconds > b.seconds; });
    return files;
}

bool is_temporary(std::string_view name, std::string_view prefix) {
    return name.size() == kTemporaryName && name.starts_with(prefix);
}

std::string last_user(const SemaphoreState& set) {
    const bool lives = kill(set.last_process, 0) == 0 || errno == EPERM;
    return fmt::format("process {}, which {}", set.last_process, lives ? "lives" : "has ended");
}

// Whether the semaphore is free, or changes hands while it is looked at.
bool is_moving(const SemaphoreState& first) {
    constexpr int kLooks = 15;
    constexpr std::chrono::milliseconds kPause{100};
    for (int look = 0; look < kLooks; ++look) {
        std::this_thread::sleep_for(kPause);
        const SemaphoreState now = staging_semaphore();
        if (now.values.empty() || now.values[0] > 0 || now.last_process != first.last_process ||
            now.status.sem_otime != first.status.sem_otime)
            return true;
    }
    return false;
}

// What is wrong with the records; nothing when the buffer changed on the way.
std::optional<std::string> flaw_of_records(std::span<const std::uint8_t> bytes) {
    const auto header = staging_header(bytes);
    if (!header) return "the segment is too small for a header";
    const auto [records, end] = *header;
    if (end < kFirstRecord || end > bytes.size())
        return fmt::format("the next record would go to byte {}, and the segment has {}", end,
                           bytes.size());
    std::uint64_t at = kFirstRecord;
    std::uint32_t walked = 0;
    std::string flaw;
    while (at < end && flaw.empty()) {
        std::uint32_t size = 0;
        std::uint32_t signature = 0;
        if (end - at >= kRecordHeader) {
            std::memcpy(&size, bytes.data() + at, sizeof size);
            std::memcpy(&signature, bytes.data() + at + 4, sizeof signature);
        }
        if (signature != STAGING_DATA_SIG || end - at < std::uint64_t{size} + kRecordHeader)
            flaw = fmt::format("no record begins at byte {}, where one should", at);
        at += std::uint64_t{size} + kRecordHeader;
        ++walked;
    }
    if (flaw.empty() && walked != records)
        flaw = fmt::format("it counts {} and holds {}", counted(records, "record"), walked);
    if (staging_header(bytes) != header) return std::nullopt;
    return flaw;
}

void tell_many(std::size_t files, const std::string& folder, const char* reader,
               Findings& findings) {
    if (static_cast<std::int64_t>(files) > kManyFiles)
        findings.warning(fmt::format("{} files: {}", files, reader), folder,
                         "see why its reader does not take them away");
}

}  // namespace

void check_staging_segment(const Server& server, Findings& findings) {
    const SegmentState segment = staging_segment();
    if (!segment.exists())
        return findings.error(
            fmt::format("there is none: {}; events are lost", std::strerror(segment.error)), "",
            server.restart());
    const std::string where = fmt::format("segment {}", segment.id);
    const std::string mend =
        fmt::format("kavrinctl events flush; ipcrm -m {}; {}", segment.id, server.restart());
    if ((segment.status.shm_perm.mode & kSharedMode) != kSharedMode)
        findings.error(fmt::format("its mode is {:04o} and should be 0666: users' processes "
                                   "cannot attach it",
                                   segment.status.shm_perm.mode & 0777u),
                       where, mend);
    if (segment.status.shm_perm.uid != 0)
        findings.error(
            fmt::format("it belongs to uid {}, who may remove it", segment.status.shm_perm.uid),
            where, mend);
    if (!server.table) return findings.remark("its size was not compared: there is no table");
    const auto configured =
        static_cast<std::uint64_t>(std::max(0, server.number(PARAM_STAGING_BUFFER_SIZE)));
    if (segment.bytes() < configured)
        findings.error(fmt::format("it has {} bytes and {} are configured, so that nobody can "
                                   "attach it and events are lost",
                                   segment.bytes(), configured),
                       where, fmt::format("ipcrm -m {}; {}", segment.id, server.restart()));
    else if (segment.bytes() > configured)
        findings.warning(fmt::format("it has {} bytes and {} are configured; it is used as far as "
                                     "configured",
                                     segment.bytes(), configured),
                         where, mend);
}

void check_staging_semaphore(const Server& server, Findings& findings) {
    const SemaphoreState set = staging_semaphore();
    if (!set.exists())
        return findings.error(
            fmt::format("there is none: {}; events are lost", std::strerror(set.error)), "",
            server.restart());
    const std::string where = fmt::format("semaphore set {}", set.id);
    const std::string mend = fmt::format("ipcrm -s {}; {}", set.id, server.restart());
    if (set.values.size() != 1)
        return findings.error(
            fmt::format("it has {} semaphores and should have 1", set.values.size()), where, mend);
    if (set.values[0] > 1)
        findings.error(fmt::format("it is {}, so that several processes may be in the buffer at "
                                   "once; changed last by {}",
                                   set.values[0], last_user(set)),
                       where, mend);
    if (set.values[0] == 0 && !is_moving(set))
        findings.error(
            "it is held for longer than a flush takes, and every smbd waits for it; "
            "taken last by " +
                last_user(set),
            where,
            kill(set.last_process, 0) == 0
                ? fmt::format("see what process {0} does ('cat /proc/{0}/stack'); "
                              "ending it gives the semaphore back",
                              set.last_process)
                : mend);
    if ((set.status.sem_perm.mode & kSharedMode) != kSharedMode || set.status.sem_perm.uid != 0)
        findings.error(fmt::format("it is uid {}'s with mode {:04o}, and should be root's with "
                                   "0666",
                                   set.status.sem_perm.uid, set.status.sem_perm.mode & 0777u),
                       where, mend);
}

void check_staging_header(const Server&, Findings& findings) {
    const SegmentState segment = staging_segment();
    if (!segment.exists()) return findings.skip("there is no staging buffer");
    const SegmentView buffer(segment);
    if (!buffer.attached())
        return findings.error(
            fmt::format("it cannot be attached: {}", std::strerror(buffer.error())),
            fmt::format("segment {}", segment.id), "");
    constexpr int kLooks = 20;
    for (int look = 0; look < kLooks; ++look) {
        const auto flaw = flaw_of_records(buffer.bytes());
        if (!flaw) continue;
        if (!flaw->empty())
            findings.error(*flaw + "; the next flush empties the buffer and asks for a rescan",
                           fmt::format("segment {}", segment.id), "kavrinctl events flush");
        return;
    }
    findings.remark("too busy to be looked at");
}

void check_rescan_marker(const Server&, Findings& findings) {
    std::ifstream file(kMarker, std::ios::binary);
    if (!file) return;
    std::string reason;
    std::getline(file, reason, '\0');
    while (!reason.empty() && reason.back() == '\n') reason.pop_back();
    findings.warning(fmt::format("events may have been lost: {}",
                                 reason.empty() ? "no reason is given" : reason),
                     kMarker,
                     "mend the cause; the event store rescans the share and removes the marker");
}

void check_pending_files(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip(kNoTable);
    const std::string folder = server.text(PARAM_STAGING_DIR);
    int error = 0;
    const auto files =
        ages(folder, error, [](std::string_view name) { return name.starts_with(kPendingPrefix); });
    if (error != 0) return findings.skip(fmt::format("{}: {}", folder, std::strerror(error)));
    if (files.empty()) return;
    const std::int64_t oldest = files.front().seconds;
    if (oldest > kPatience)
        findings.warning(fmt::format("{} for the event store, the oldest for {}: it lags, or does "
                                     "not run",
                                     files.size() == 1 ? "1 file waits"
                                                       : fmt::format("{} files wait", files.size()),
                                     duration_text(oldest)),
                         folder + "/" + files.front().name, "see that the event store runs");
    tell_many(files.size(), folder, "the event store lags", findings);
}

void check_temporaries(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip(kNoTable);
    const struct {
        e_kavrin_global_index_t folder;
        std::string_view prefix;
        const char* mend;
    } kKinds[] = {
        {PARAM_STAGING_DIR, kTemporaryPrefix, "kavrinctl events recover"},
        {PARAM_AUDITING_DIR, kAuditTemporaryPrefix,
         "'kavrinctl audit cat FILE' shows what it holds; then remove it"},
    };
    for (const auto& kind : kKinds) {
        const std::string folder = server.text(kind.folder);
        int error = 0;
        const auto files = ages(folder, error, [&kind](std::string_view name) {
            return is_temporary(name, kind.prefix);
        });
        if (files.empty() || files.front().seconds < kTemporaryAge) continue;
        findings.warning(fmt::format("left by a process that died in a flush, {} ago",
                                     duration_text(files.front().seconds)),
                         folder + "/" + files.front().name, kind.mend);
    }
}

void check_audit_files(const Server& server, Findings& findings) {
    if (!server.table) return findings.skip(kNoTable);
    const std::string folder = server.text(PARAM_AUDITING_DIR);
    int error = 0;
    const std::vector<std::string> names = names_in(folder, error);
    const auto files = static_cast<std::size_t>(std::count_if(
        names.begin(), names.end(), [](const std::string& name) { return name.front() != '.'; }));
    if (error != 0) return findings.skip(fmt::format("{}: {}", folder, std::strerror(error)));
    tell_many(files, folder, "nobody takes audit files away", findings);
}

}  // namespace kvadmin::doctor
