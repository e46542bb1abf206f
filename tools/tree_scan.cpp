// See tree_scan.h.
#include "tree_scan.h"

#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "failure.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr std::size_t kLongestName = UINT16_MAX;  // an image counts a name's bytes in 16 bits

struct Entry {
    std::string name;
    FileStatus status;
};

FileStatus status_of(const struct stat& status) {
    return {status.st_uid, status.st_gid, status.st_mode};
}

struct Folder {
    Descriptor fd;  // invalid: could not be opened
    std::vector<Entry> entries;
    std::size_t next = 0;
    FoldedAcl acl;  // what governs the children that carry none
};

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

struct FreeAcl {
    void operator()(void* acl) const { acl_free(acl); }
};
using OwnedAcl = std::unique_ptr<std::remove_pointer_t<acl_t>, FreeAcl>;

// The thing is gone, or another kind of thing has taken its name.
bool vanished(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

// No access ACL here: the file system has none, or this file has none.
bool no_acl(int error) {
    return error == EOPNOTSUPP || error == ENODATA || error == ENOSYS;
}

std::string descriptor_path(int fd) {
    return fmt::format("/proc/self/fd/{}", fd);
}

class TreeScan {
public:
    TreeScan(const ScanRequest& request, DataWriter& writer) : request_(request), writer_(writer) {}

    ScanResult run() {
        open_root();
        while (!open_.empty()) {
            Folder& folder = open_.back();
            if (folder.next < folder.entries.size()) {
                visit(folder.entries[folder.next++]);
            } else {
                writer_.close_element();
                open_.pop_back();
            }
        }
        return result_;
    }

private:
    void open_root();
    void visit(const Entry& entry);
    void write_folder(std::string_view name, const FoldedAcl& written, Folder&& folder);
    void list(Folder& folder);
    void take(int folder, const char* name, std::vector<Entry>& entries);
    void report_twins(const std::vector<Entry>& entries);
    FoldedAcl acl_of(int folder, const Entry& entry);
    bool read_acl(const std::string& path, const FileStatus& status, PosixEntries& entries);
    Descriptor open_folder(int parent, const Entry& entry);
    void unreadable(std::string_view what, std::string_view name, int error);
    std::string path_of(std::string_view name) const;

    const ScanRequest& request_;
    DataWriter& writer_;
    ScanResult result_;
    std::vector<Folder> open_;  // from the root to where the walk stands
};

void TreeScan::open_root() {
    Folder root;
    root.fd = Descriptor(open(request_.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!root.fd.valid() || fstat(root.fd.get(), &status) != 0)
        fail(Exit::kFailure, "cannot read folder '{}': {}", printable(request_.folder),
             strerror(errno));
    const std::string path = descriptor_path(root.fd.get());
    if (access(path.c_str(), F_OK) != 0)
        fail(Exit::kFailure, "access ACLs are read through /proc/self/fd; mount /proc first");
    PosixEntries entries = entries_of_mode(status_of(status));
    if (!read_acl(path, status_of(status), entries))
        fail(Exit::kFailure, "cannot read the ACL of '{}': {}", printable(request_.folder),
             strerror(errno));
    root.acl = fold(ElementKind::kFolder, entries);
    const FoldedAcl own = root.acl;
    write_folder("/", own, std::move(root));
}

void TreeScan::visit(const Entry& entry) {
    const Folder& parent = open_.back();
    const bool is_folder = S_ISDIR(entry.status.mode);
    FoldedAcl acl = acl_of(parent.fd.get(), entry);
    const bool inherits = acl == parent.acl && !acl.navigates();
    static const FoldedAcl nothing;
    const FoldedAcl& written = inherits ? nothing : acl;
    if (!is_folder) {
        ++result_.files;
        request_.progress(writer_.counts().elements);
        writer_.open_element(entry.name, written, 0);
        writer_.close_element();
        return;
    }
    if (open_.size() == 1 && strcasecmp(entry.name.c_str(), "shared") == 0)
        result_.has_shared = true;
    Folder folder;
    folder.fd = open_folder(parent.fd.get(), entry);
    folder.acl = acl;
    write_folder(entry.name, written, std::move(folder));
}

// Lists the folder and opens its element; its children come with the next turns of the walk.
void TreeScan::write_folder(std::string_view name, const FoldedAcl& written, Folder&& folder) {
    ++result_.folders;
    request_.progress(writer_.counts().elements);
    open_.push_back(std::move(folder));  // moves folders, but not the entries they hold
    list(open_.back());
    writer_.open_element(name, written, open_.back().entries.size());
}

Descriptor TreeScan::open_folder(int parent, const Entry& entry) {
    Descriptor fd(openat(parent, entry.name.c_str(),
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid() && !vanished(errno)) unreadable("folder", path_of(entry.name), errno);
    return fd;
}

void TreeScan::list(Folder& folder) {
    if (!folder.fd.valid()) return;
    const int copy = fcntl(folder.fd.get(), F_DUPFD_CLOEXEC, 0);
    const OpenFolder stream(copy < 0 ? nullptr : fdopendir(copy));
    if (stream == nullptr) {
        const int error = errno;
        if (copy >= 0) close(copy);
        return unreadable("folder", path_of(""), error);
    }
    errno = 0;
    while (const dirent* found = readdir(stream.get())) {
        if (std::strcmp(found->d_name, ".") != 0 && std::strcmp(found->d_name, "..") != 0)
            take(folder.fd.get(), found->d_name, folder.entries);
        errno = 0;
    }
    if (errno != 0 && !vanished(errno)) unreadable("folder", path_of(""), errno);
    std::sort(folder.entries.begin(), folder.entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
    report_twins(folder.entries);
}

// Adds one directory entry, or counts why it is left out.
void TreeScan::take(int folder, const char* name, std::vector<Entry>& entries) {
    struct stat status;
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
        if (!vanished(errno)) unreadable("entry", path_of(name), errno);
        return;
    }
    if (S_ISLNK(status.st_mode)) {
        ++result_.links;
    } else if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        ++result_.special;
    } else if (const char* problem = name_problem(name); problem != nullptr) {
        ++result_.names;
        request_.report(fmt::format("left out {}: its name {}", printable(path_of(name)), problem));
    } else if (std::none_of(request_.leave_out.begin(), request_.leave_out.end(),
                            [&](const PendingFile* file) { return file->is(status); })) {
        entries.push_back({name, status_of(status)});
    }
}

// A share knows no letter case, so of two such names only the first one is ever found, and its ACL
// stands for both.
void TreeScan::report_twins(const std::vector<Entry>& entries) {
    std::unordered_set<std::string> seen;
    seen.reserve(entries.size());
    std::string folded;
    for (const Entry& entry : entries) {
        folded = entry.name;
        for (char& c : folded)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (seen.insert(folded).second) continue;
        if (++result_.twins > kReportedTwins) continue;
        request_.report(
            fmt::format("{} differs from a sibling only by letter case: the first one "
                        "in byte order governs both",
                        printable(path_of(entry.name))));
    }
}

// The folded permissions of an entry. When its ACL cannot be read only the owner's triple is known
// for certain; the mode's group triple may be the ACL's mask instead.
FoldedAcl TreeScan::acl_of(int folder, const Entry& entry) {
    const ElementKind kind = S_ISDIR(entry.status.mode) ? ElementKind::kFolder : ElementKind::kFile;
    PosixEntries entries = entries_of_mode(entry.status);
    const std::string name = descriptor_path(folder) + '/' + entry.name;
    const int extended = acl_extended_file_nofollow(name.c_str());
    if (extended == 0 || (extended < 0 && no_acl(errno))) return fold(kind, entries);
    const Descriptor fd(openat(folder, entry.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat now;
    if (fd.valid() && fstat(fd.get(), &now) == 0) {
        if ((now.st_mode & S_IFMT) != (entry.status.mode & S_IFMT))
            errno = ENOENT;  // something else has taken the name
        else if (read_acl(descriptor_path(fd.get()), status_of(now), entries))
            return fold(kind, entries);
    }
    if (!vanished(errno)) unreadable("the ACL of", path_of(entry.name), errno);
    entries = entries_of_mode(entry.status);
    entries.group_bits = 0;
    return fold(kind, entries);
}

// The access ACL of what `path` names, links followed. False with errno when there is one that
// cannot be read; an ACL that does not exist leaves `entries` alone.
bool TreeScan::read_acl(const std::string& path, const FileStatus& status, PosixEntries& entries) {
    const OwnedAcl acl(acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (acl == nullptr) return no_acl(errno);
    return entries_of_acl(status, acl.get(), entries);
}

void TreeScan::unreadable(std::string_view what, std::string_view name, int error) {
    ++result_.unreadable;
    request_.report(fmt::format("cannot read {} {}: {}", what, printable(name), strerror(error)));
}

// The path of an entry of the innermost open folder; of that folder itself for an empty name.
std::string TreeScan::path_of(std::string_view name) const {
    std::string path = request_.folder;
    while (!path.empty() && path.back() == '/') path.pop_back();
    for (std::size_t i = 0; i + 1 < open_.size(); ++i)
        path.append("/").append(open_[i].entries[open_[i].next - 1].name);
    if (!name.empty()) path.append("/").append(name);
    return path.empty() ? "/" : path;
}

}  // namespace

const char* name_problem(std::string_view name) {
    if (name.size() > kLongestName) return "is longer than 65,535 bytes";
    return is_utf8(name) ? nullptr : "is not valid UTF-8";
}

ScanResult scan_tree(const ScanRequest& request, DataWriter& writer) {
    return TreeScan(request, writer).run();
}

}  // namespace kvadmin
