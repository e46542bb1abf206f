// See groupmap_file.h. The file is
//
//   header | reserved groups | users | names | group ids | zeros
//
// The order is what makes every user readable: the reader wants noffs + 4 * glen inside the file.
// All of a user's ids lie behind all names, so the file is longer than that by construction.
#include "groupmap_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "descriptor.h"
#include "failure.h"

namespace kvadmin {
namespace {

std::uint64_t rounded_up(std::uint64_t number, std::uint64_t unit) {
    return (number + unit - 1) / unit * unit;
}

struct Layout {
    std::uint64_t users = 0;  // first byte of each part
    std::uint64_t names = 0;
    std::uint64_t gids = 0;
    std::uint64_t size = 0;
};

Layout layout_of(const GroupMapContent& content) {
    Layout layout;
    layout.users = sizeof(mapheader) + content.reserved.size() * sizeof(ritem);
    layout.names = layout.users + content.users.size() * sizeof(uitem);
    std::uint64_t names_end = layout.names;
    std::uint64_t gids = 0;
    for (const GroupMapReserved& group : content.reserved) names_end += group.name.size() + 1;
    for (const GroupMapUser& user : content.users) {
        names_end += user.name.size() + 1;
        gids += user.gids.size();
    }
    layout.gids = rounded_up(names_end, sizeof(gid_t));
    const std::uint64_t end = layout.gids + gids * sizeof(gid_t);
    layout.size =
        std::max<std::uint64_t>(rounded_up(end, KAVRIN_GROUPMAP_ALIGN), KAVRIN_GROUPMAP_MIN_SIZE);
    return layout;
}

// Puts records one after another from a place on; the bytes are there already, zero.
class Part {
public:
    Part(std::string& bytes, std::uint64_t start) : bytes_(bytes), next_(start) {}

    std::uint32_t offset() const { return static_cast<std::uint32_t>(next_); }

    void put(const void* record, std::size_t size) {
        if (size != 0) std::memcpy(bytes_.data() + next_, record, size);
        next_ += size;
    }
    template <typename Record>
    void put(const Record& record) {
        put(&record, sizeof record);
    }
    void put_name(const std::string& name) { put(name.c_str(), name.size() + 1); }

private:
    std::string& bytes_;
    std::uint64_t next_;
};

// A temporary beside the target, removed unless it was put in its place.
class Replacement {
public:
    explicit Replacement(const std::string& target) : target_(target), path_(target + ".XXXXXX") {
        file_ = Descriptor(mkostemp(path_.data(), O_CLOEXEC));
        if (file_.valid()) return;
        const int error = errno;
        path_.clear();
        fail(Exit::kFailure, "cannot create a file beside '{}': {}", target_, strerror(error));
    }
    ~Replacement() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(file_.get(), bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) continue;
            require(written >= 0, "write");
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    // Everything about it is right before anybody can open it by the target's name.
    void complete() {
        require(fchmod(file_.get(), 0644) == 0, "set the mode of");
        if (geteuid() == 0) require(fchown(file_.get(), 0, 0) == 0, "give to root");
        require(fsync(file_.get()) == 0, "write");
    }

    void put_in_place() {
        if (rename(path_.c_str(), target_.c_str()) != 0)
            fail(Exit::kFailure, "cannot put '{}' in place: {}; what was there before is as it was",
                 target_, strerror(errno));
        path_.clear();
        announce();
    }

private:
    void require(bool done, const char* what) {
        if (!done)
            fail(Exit::kFailure, "cannot {} '{}': {}; '{}' is as it was", what, path_,
                 strerror(errno), target_);
    }

    // Connections compare the time in whole seconds with that of their last look, and one that
    // looked at the old file may have done so within this second. So the time is the next second,
    // and it is set when nobody can open the old file any more.
    void announce() {
        const timespec next{std::time(nullptr) + 1, 0};
        const timespec times[] = {next, next};
        if (futimens(file_.get(), times) != 0)
            fail(Exit::kFailure,
                 "'{}' is in place, but its time cannot be set: {}; 'touch' it, or connections may "
                 "not notice it",
                 target_, strerror(errno));
        const std::size_t slash = target_.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : target_.substr(0, slash + 1);
        const Descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (fsync(file_.get()) != 0 || !opened.valid() || fsync(opened.get()) != 0)
            fail(Exit::kFailure, "'{}' is in place, but whether it is on the disk is not known: {}",
                 target_, strerror(errno));
    }

    std::string target_;
    std::string path_;
    Descriptor file_;
};

}  // namespace

std::string_view flaw_of_name(std::string_view name) {
    if (name.empty()) return "is empty";
    if (name.size() > kLongestAccountName) return "is longer than 1,024 bytes";
    const auto is_control = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    };
    if (std::any_of(name.begin(), name.end(), is_control)) return "holds a control character";
    return {};
}

std::string folded_name(std::string_view name) {
    std::string folded(name);
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return folded;
}

std::string encode_groupmap(const GroupMapContent& content, std::uint64_t largest) {
    const Layout layout = layout_of(content);
    if (layout.size > largest)
        fail(Exit::kFailure,
             "the group map would have {} bytes, and no more than {} can be read; leave users out; "
             "nothing was written",
             layout.size, largest);
    std::string bytes(layout.size, '\0');
    Part records(bytes, 0);
    Part names(bytes, layout.names);
    Part gids(bytes, layout.gids);
    records.put(mapheader{sizeof(mapheader), static_cast<std::uint32_t>(content.reserved.size()),
                          static_cast<std::uint32_t>(layout.users),
                          static_cast<std::uint32_t>(content.users.size())});
    for (const GroupMapReserved& group : content.reserved) {
        records.put(ritem{names.offset(), group.gid});
        names.put_name(group.name);
    }
    for (const GroupMapUser& user : content.users) {
        records.put(uitem{names.offset(), static_cast<std::uint32_t>(user.name.size()),
                          gids.offset(), static_cast<std::uint32_t>(user.gids.size())});
        names.put_name(user.name);
        gids.put(user.gids.data(), user.gids.size() * sizeof(gid_t));
    }
    return bytes;
}

void write_groupmap(const std::string& path, std::string_view bytes) {
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        fail(Exit::kFailure, "'{}' is a folder; name the file to write", path);
    Replacement file(path);
    file.write(bytes);
    file.complete();
    file.put_in_place();
}

}  // namespace kvadmin
