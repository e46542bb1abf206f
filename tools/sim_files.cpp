// See sim_connection.h. Operations on files.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "sim_connection.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr const char* kClient = "192.0.2.1";
constexpr std::size_t kShownBytes = 200;

struct Disposition {
    std::string_view name;
    std::uint32_t number;
    int flags;  // of open(2)
};
constexpr std::array kDispositions{
    Disposition{"supersede", 0, O_CREAT | O_TRUNC},
    Disposition{"open", 1, 0},
    Disposition{"create", 2, O_CREAT | O_EXCL},
    Disposition{"open-if", 3, O_CREAT},
    Disposition{"overwrite", 4, O_TRUNC},
    Disposition{"overwrite-if", 5, O_CREAT | O_TRUNC},
};

constexpr std::uint32_t kOverwriteIf = 5;
constexpr std::uint32_t kReadAccess = 0x120089;  // what clients ask for
constexpr std::uint32_t kWriteAccess = 0x12019F;

e_open_mode_t mode_of(const std::string& word) {
    if (word == "write") return OPENMODE_WRITE;
    if (word == "create") return OPENMODE_CREATE;
    return word == "chattr" ? OPENMODE_CHATTR : OPENMODE_READ;
}

int flags_of(e_open_mode_t mode) {
    if (mode == OPENMODE_READ) return O_RDONLY;
    return mode == OPENMODE_CREATE ? O_RDWR | O_CREAT : O_RDWR;
}

std::string content_of(int file) {
    std::string text(kShownBytes, '\0');
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

}  // namespace

// The statements that are an SMB create call with something done to the file after it.
SimOutcome SimConnection::create_as(const SimStatement& statement) {
    Create create;
    create.path = statement.name;
    create.text = statement.second;
    switch (statement.kind) {
        case SimKind::kPut:
            create.disposition = kOverwriteIf;
            create.writes = true;
            create.work = Work::kWrite;
            break;
        case SimKind::kAppend:
            create.writes = true;
            create.flags = O_APPEND;
            create.work = Work::kWrite;
            break;
        case SimKind::kRead:
            create.work = Work::kRead;
            break;
        default:
            for (const Disposition& known : kDispositions)
                if (known.name == statement.choice) create.disposition = known.number;
            create.writes = statement.writes;
    }
    return create_file(create);
}

SimOutcome SimConnection::create_file(const Create& create) {
    char* target = get_full_path(root(), create.path.c_str());
    kv_perm_ctx_t* context = nullptr;
    int existed = 0;
    if (create_file_preprocess(create.writes ? 1 : 0, &target, create.path.c_str(),
                               create.path.c_str(), &context, &existed,
                               create.writes ? kWriteAccess : kReadAccess, create.disposition, 0,
                               root(), data_.get()) != 0)
        return refused_by("create_file_preprocess");
    const int flags = create.flags | kDispositions.at(create.disposition).flags |
                      (create.writes || create.disposition != 1 ? O_RDWR : O_RDONLY);
    SimOutcome outcome;
    const int file =
        open_through_hooks(create.path, flags, mode2kavrinmode(flags), create.to_delete, outcome);
    give_back(context);
    if (file >= 0 && existed == 0) create_file_postprocess(data_.get(), target);
    std::free(target);
    if (file >= 0) work_and_close(file, create, outcome);
    return outcome;
}

// The open hooks around open(2), under whatever identity the process has.
int SimConnection::open_through_hooks(const std::string& path, int flags, e_open_mode_t mode,
                                      bool to_delete, SimOutcome& outcome) {
    char* target = get_full_path(root(), path.c_str());
    std::string name = path;
    e_fsop_type_t op = FSOP_INVAL;
    int is_new = 0;
    struct stat status {};
    kv_perm_ctx_t* context = nullptr;
    if (open_preprocess(root(), name.data(), &mode, &op, &target, &is_new, to_delete ? 1 : 0,
                        data_.get(), &status, kClient, &context, audit_ ? 1 : 0) != 0) {
        outcome = refused_by("open_preprocess");
        return -1;
    }
    const int file = open(target, flags | O_CLOEXEC, 0644);
    outcome = allowed_and(file);
    // A folder's path is freed by the hook itself.
    if (file < 0 || open_postprocess(&status, &context, &target, is_new) == 0) std::free(target);
    return file;
}

// What a client does with an open file, and its close.
void SimConnection::work_and_close(int file, const Create& create, SimOutcome& outcome) {
    std::string path = create.path;
    modify_file_evt_s_t record{path.data(), 0, 0};
    data_->pmodify = &record;
    if (create.work == Work::kWrite) {
        outcome.disk = disk_words(write(file, create.text.data(), create.text.size()) < 0 ? -1 : 0);
        if (is_done(outcome)) record.is_modified = 1;
    }
    if (create.work == Work::kRead)
        outcome.lines.push_back(fmt::format("content: \"{}\"", printable(content_of(file))));
    modify_file_evt_s_t* used = &record;
    close_preprocess(audit_ ? 1 : 0, file, data_.get(), &used, 1, kClient);
    close(file);
    data_->pmodify = nullptr;
}

SimOutcome SimConnection::open_file(const SimStatement& statement) {
    const e_open_mode_t mode = mode_of(statement.choice);
    SimOutcome outcome;
    const int file = open_through_hooks(statement.name, flags_of(mode), mode, false, outcome);
    if (file >= 0) work_and_close(file, {}, outcome);
    return outcome;
}

// Opening something to delete it, as the first step of a client's delete.
SimOutcome SimConnection::delete_open(const std::string& path) {
    if (is_folder(path)) return open_folder(path, true);
    Create create;
    create.path = path;
    create.writes = true;
    create.to_delete = true;
    return create_file(create);
}

SimOutcome SimConnection::rename_path(std::string from, std::string to) {
    char* old_path = nullptr;
    char* new_path = nullptr;
    kv_perm_ctx_t* context = nullptr;
    int is_folder_renamed = 0;
    int is_nav = 0;
    if (rename_preprocess(from.data(), to.data(), root(), &context, &is_folder_renamed, data_.get(),
                          &is_nav, &old_path, &new_path) != 0)
        return refused_by("rename_preprocess");  // the context is used up
    SimOutcome outcome = allowed_and(rename(old_path, new_path));
    give_back(context);
    if (is_done(outcome)) rename_postprocess(new_path, old_path, is_folder_renamed, data_.get());
    std::free(old_path);
    std::free(new_path);
    return outcome;
}

SimOutcome SimConnection::unlink_file(std::string path) {
    char* target = nullptr;
    kv_perm_ctx_t* context = nullptr;
    if (unlink_preprocess(root(), path.data(), &target, data_.get(), &context) != 0)
        return refused_by("unlink_preprocess");
    SimOutcome outcome = allowed_and(unlink(target));
    give_back(context);
    if (is_done(outcome)) unlink_postprocess(target);
    std::free(target);
    return outcome;
}

}  // namespace kvadmin
