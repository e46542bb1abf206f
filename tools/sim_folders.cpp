// See sim_connection.h. Operations on folders.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "sim_connection.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + printable(name);
    return text.empty() ? "nothing" : text;
}

std::vector<std::string> names_of(DIR* folder) {
    std::vector<std::string> names;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

SimOutcome SimConnection::make_folder(const std::string& path) {
    char* target = nullptr;
    kv_perm_ctx_t* context = nullptr;
    if (mkdir_preprocess(root(), path.c_str(), &target, data_.get(), &context) != 0)
        return refused_by("mkdir_preprocess");
    SimOutcome outcome = allowed_and(mkdir(target, 0755));
    give_back(context);
    if (is_done(outcome)) {
        mkdir_postprocess(data_.get(), &target);  // frees the path
    } else {
        std::free(target);
    }
    return outcome;
}

SimOutcome SimConnection::remove_folder(const std::string& path) {
    char* target = nullptr;
    kv_perm_ctx_t* context = nullptr;
    if (rmdir_preprocess(&target, root(), path.c_str(), data_.get(), &context) != 0)
        return refused_by("rmdir_preprocess");
    SimOutcome outcome = allowed_and(rmdir(target));
    give_back(context);
    if (is_done(outcome)) rmdir_postprocess(target);
    std::free(target);
    return outcome;
}

// Through the SMB create call, as clients make folders.
SimOutcome SimConnection::create_folder(const std::string& path) {
    char* target = get_full_path(root(), path.c_str());
    kv_perm_ctx_t* context = nullptr;
    if (create_dir_preprocess(0, path.c_str(), &target, 1, root(), data_.get(), &context) != 0)
        return refused_by("create_dir_preprocess");
    SimOutcome outcome = allowed_and(mkdir(target, 0755));
    give_back(context);
    if (is_done(outcome)) create_dir_postprocess(target, data_.get());
    std::free(target);
    return outcome;
}

SimOutcome SimConnection::open_folder(const std::string& path, bool to_delete) {
    char* target = get_full_path(root(), path.c_str());
    kv_perm_ctx_t* context = nullptr;
    if (create_dir_preprocess(to_delete ? 1 : 0, path.c_str(), &target, 0, root(), data_.get(),
                              &context) != 0)
        return refused_by("create_dir_preprocess");
    std::free(target);
    SimOutcome outcome;
    const int folder =
        open_through_hooks(path, O_RDONLY | O_DIRECTORY, OPENMODE_READ, to_delete, outcome);
    give_back(context);
    if (folder >= 0) work_and_close(folder, {}, outcome);
    return outcome;
}

SimOutcome SimConnection::list(const std::string& path, const std::string& way) {
    kv_perm_ctx_t* context = nullptr;
    int is_nav = 0;
    std::string checked = path;
    if (way == "by-name") {
        char* name = nullptr;
        if (opendir_preprocess(path.c_str(), cwd_.c_str(), root(), &name, &context, data_.get(),
                               &is_nav) != 0)
            return refused_by("opendir_preprocess");
        checked = name;
        std::free(name);
    } else if (fdopendir_preprocess(root(), path.c_str(), way == "to-delete" ? 1 : 0, data_.get(),
                                    &is_nav, &context) != 0) {
        return refused_by("fdopendir_preprocess");
    }
    const Folder folder(opendir(full(checked).c_str()));
    SimOutcome opened = allowed_and(folder != nullptr ? 0 : -1);
    give_back(context);
    if (folder == nullptr) return opened;
    SimOutcome outcome = list_entries(checked, folder.get());
    if (is_nav != 0) outcome.lines.emplace_back("open for navigation or viewing only");
    return outcome;
}

// The entries, each with the verdict on a look at it. The listing itself runs as the user: the
// folder is open already.
SimOutcome SimConnection::list_entries(const std::string& path, void* folder) {
    std::string listed = path;
    modify_file_evt_s_t record{listed.data(), 0, 0};
    data_->pmodify = &record;
    modify_file_evt_s_t* used = nullptr;
    char* base = nullptr;
    if (readdir_preprocess(&used, &base, data_.get()) != 0) {
        data_->pmodify = nullptr;
        return refused_by("readdir_preprocess");
    }
    std::vector<std::string> shown;
    std::size_t hidden = 0;
    for (const std::string& name : names_of(static_cast<DIR*>(folder))) {
        std::string room(std::string(base).size() + name.size() + 2, '\0');
        int allowed = 0;
        readir_postprocess(&allowed, name.c_str(), base, room.data(), static_cast<int>(room.size()),
                           root(), data_.get());
        if (allowed == KVPERMS_HAS_PERMS) {
            shown.push_back(name);
        } else {
            ++hidden;
        }
    }
    data_->pmodify = nullptr;
    SimOutcome outcome = allowed_and(0);
    outcome.lines.push_back(fmt::format("shown: {}; hidden: {}", joined(shown), hidden));
    return outcome;
}

}  // namespace kvadmin
