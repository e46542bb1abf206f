// See sim_connection.h. The connection itself, and the operations that look at things.
#include "sim_connection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "record_file.h"

namespace kvadmin {
namespace {

constexpr std::uint32_t kFirstRecord = offsetof(staging_buffer_t, data);

// The audit buffer's end. A flush makes a new, empty buffer.
std::uint32_t audit_mark() {
    return global_read_audit_buffer != nullptr ? global_read_audit_buffer->next_offset
                                               : kFirstRecord;
}

// The audit records made since the buffer ended at `mark`.
std::vector<SimAudit> audits_since(std::uint32_t mark) {
    std::vector<SimAudit> audits;
    if (global_read_audit_buffer == nullptr) return audits;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(global_read_audit_buffer);
    const std::uint32_t end = global_read_audit_buffer->next_offset;
    for (std::uint32_t at = mark <= end ? mark : kFirstRecord; at < end;) {
        staging_data_t head{};
        std::memcpy(&head, bytes + at, sizeof head);
        const auto event = unpack<AuditEvent>({bytes + at + sizeof head, head.size});
        if (event != nullptr)
            audits.push_back({event->path, event->size, event->uid, event->time_sec});
        at += static_cast<std::uint32_t>(sizeof head) + head.size;
    }
    return audits;
}

SimOutcome say(std::string line) {
    SimOutcome outcome;
    outcome.lines.push_back(std::move(line));
    return outcome;
}

}  // namespace

SimOutcome refused_by(const char* hook) {
    SimOutcome outcome;
    outcome.error = errno;
    outcome.verdict = SimOutcome::Verdict::kRefused;
    outcome.hook = hook;
    return outcome;
}

SimOutcome allowed_and(int result) {
    SimOutcome outcome;
    outcome.disk = disk_words(result);
    outcome.verdict = SimOutcome::Verdict::kAllowed;
    return outcome;
}

void give_back(kv_perm_ctx_t*& context) {
    const int error = errno;
    if (context != nullptr) kavrin_vfs_unbecome_root(std::exchange(context, nullptr));
    errno = error;
}

SimConnection::SimConnection(std::string user, std::string share, bool audit)
    : data_(std::make_unique<kv_connection_private_data_t>()),
      user_(std::move(user)),
      share_(std::move(share)),
      cwd_(share_),
      audit_(audit) {
    std::memset(data_.get(), 0, sizeof *data_);
}

SimConnection::~SimConnection() {
    std::free(data_->groupmap.gids);
    destroy_tlb(&data_->vfs_table_cache);
}

SimOutcome SimConnection::connect() {
    set_reserved_user_uid();
    read_and_compile_patterns();
    init_private_data(data_.get());
    data_->user_name_as_passed_in = user_.data();
    int users = 0;
    if (connect_preprocess(user_.c_str(), data_.get(), audit_ ? 1 : 0, &users) != 0)
        return refused_by("connect_preprocess");
    connected_ = true;
    SimOutcome outcome;
    outcome.verdict = SimOutcome::Verdict::kAllowed;
    std::string groups;
    for (int i = 0; i < data_->groupmap.num_sup_gids; ++i)
        groups += fmt::format("{}{}", i == 0 ? "" : ", ", data_->groupmap.gids[i]);
    outcome.lines.push_back(groups.empty() ? "groups: none" : "groups: " + groups);
    if (data_->groupmap.is_computer_acct != 0) outcome.lines.push_back("a computer's account");
    return outcome;
}

SimOutcome SimConnection::perform(const SimStatement& statement) {
    const std::uint32_t mark = audit_mark();
    SimOutcome outcome = run(statement);
    outcome.audits = audits_since(mark);
    return outcome;
}

SimOutcome SimConnection::run(const SimStatement& statement) {
    const std::string& name = statement.name;
    switch (statement.kind) {
        case SimKind::kDisconnect:
            return disconnect();
        case SimKind::kCache:
            return cache();
        case SimKind::kMkdir:
            return make_folder(name);
        case SimKind::kCreateFolder:
            return create_folder(name);
        case SimKind::kOpenFolder:
            return open_folder(name, false);
        case SimKind::kDeleteOpen:
            return delete_open(name);
        case SimKind::kRmdir:
            return remove_folder(name);
        case SimKind::kLs:
            return list(name, statement.choice);
        case SimKind::kStat:
        case SimKind::kLstat:
            return look(name, statement.kind == SimKind::kStat);
        case SimKind::kCd:
            return change_folder(name);
        case SimKind::kStatvfs:
            return statistics(name);
        case SimKind::kTouch:
            return set_times(name);
        case SimKind::kOpen:
            return open_file(statement);
        case SimKind::kRename:
            return rename_path(name, statement.second);
        case SimKind::kUnlink:
            return unlink_file(name);
        case SimKind::kDeletable:
            return deletable(name);
        default:
            return create_as(statement);
    }
}

SimOutcome SimConnection::disconnect() {
    disconnect_preprocess(data_.get(), audit_ ? 1 : 0);
    return {};
}

SimOutcome SimConnection::cache() const {
    const kv_vfs_table_cache_t& cache = data_->vfs_table_cache;
    return say(
        fmt::format("verdict cache: {} paths{}", cache.vfs_tlb_end,
                    cache.flush_tlb == KAVRIN_TLB_FLUSH ? ", to be emptied at the next look" : ""));
}

SimOutcome SimConnection::look(const std::string& path, bool follow) {
    std::string name = path;
    kv_perm_ctx_t* context = nullptr;
    const int hook = follow ? stat_preprocess(data_.get(), name.data(), root(), &context)
                            : lstat_preprocess(root(), name.data(), &context, data_.get());
    if (hook != 0) return refused_by(follow ? "stat_preprocess" : "lstat_preprocess");
    struct stat status {};
    const std::string target = full(path);
    SimOutcome outcome =
        allowed_and(follow ? stat(target.c_str(), &status) : lstat(target.c_str(), &status));
    give_back(context);
    if (is_done(outcome))
        outcome.disk = S_ISDIR(status.st_mode) ? "a folder"
                                               : fmt::format("a file of {} bytes", status.st_size);
    return outcome;
}

SimOutcome SimConnection::change_folder(std::string path) {
    kv_perm_ctx_t* context = nullptr;
    if (chdir_preprocess(path.data(), root(), data_.get(), &context) != 0)
        return refused_by("chdir_preprocess");
    const std::string target = path == "." ? share_ : full(path);
    SimOutcome outcome = allowed_and(chdir(target.c_str()));
    give_back(context);
    if (is_done(outcome)) cwd_ = target;
    return outcome;
}

SimOutcome SimConnection::statistics(std::string path) {
    kv_perm_ctx_t* context = nullptr;
    if (statvfs_preprocess(root(), path.data(), data_.get(), &context) != 0)
        return refused_by("statvfs_preprocess");
    struct statvfs status {};
    SimOutcome outcome =
        allowed_and(statvfs(path.starts_with('/') ? path.c_str() : full(path).c_str(), &status));
    give_back(context);
    return outcome;
}

SimOutcome SimConnection::set_times(const std::string& path) {
    const timespec times[] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    kv_perm_ctx_t* context = nullptr;
    if (is_folder(path)) {
        ntimes_dir_preprocess(&context, path.c_str());
        SimOutcome outcome = allowed_and(utimensat(AT_FDCWD, full(path).c_str(), times, 0));
        ntimes_dir_postprocess(context);
        return outcome;
    }
    char* target = nullptr;
    if (ntimes_file_preprocess(&target, root(), path.c_str(), &context) != 0)
        return refused_by("ntimes_file_preprocess");
    SimOutcome outcome = allowed_and(utimensat(AT_FDCWD, target, times, 0));
    give_back(context);
    if (is_done(outcome)) ntimes_file_postprocess(target, data_.get());
    std::free(target);
    return outcome;
}

SimOutcome SimConnection::deletable(std::string path) const {
    return say(is_deletable_file(path.data()) != 0 ? "matches an exception pattern"
                                                   : "matches no exception pattern");
}

// What smbd knows of an object from its own look at it, which is root's.
bool SimConnection::is_folder(const std::string& path) const {
    kv_perm_ctx_t* context = kavrin_vfs_become_root();
    struct stat status {};
    const bool folder = stat(full(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    give_back(context);
    return folder;
}

}  // namespace kvadmin
