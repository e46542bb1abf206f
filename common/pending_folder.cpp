// See pending_folder.h.
#include "pending_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "use_library.h"
#include "utf8.h"

namespace kvadmin {
namespace {

std::optional<std::int64_t> whole_number(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

bool is_folder(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::optional<PendingTime> time_of_pending(std::string_view name) {
    if (!name.starts_with(kPendingPrefix)) return std::nullopt;
    name.remove_prefix(kPendingPrefix.size());
    const std::size_t dot = name.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const auto seconds = whole_number(name.substr(0, dot));
    const auto microseconds = whole_number(name.substr(dot + 1));
    if (!seconds || !microseconds) return std::nullopt;
    return PendingTime{*seconds, *microseconds};
}

bool pending_before(const std::string& left, const std::string& right) {
    const auto left_time = time_of_pending(left);
    const auto right_time = time_of_pending(right);
    if (left_time.has_value() != right_time.has_value()) return left_time.has_value();
    return left_time == right_time ? left < right : left_time < right_time;
}

std::string staging_folder(const std::string& given) {
    use_library();
    if (!given.empty()) return given;
    const char* const configured = global_params[PARAM_STAGING_DIR].value.strval;
    const std::string folder(configured, strnlen(configured, KAVRIN_PARAM_STRLEN));
    if (folder.empty())
        fail(Exit::kFailure,
             "no staging folder is configured; name a folder, or set 'SWEEPER:staging dir' with "
             "'kavrinctl config create'");
    return folder;
}

std::vector<std::string> names_in(const std::string& folder, int& error) {
    std::vector<std::string> names;
    error = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    if (open == nullptr) {
        error = errno;
        return names;
    }
    errno = 0;
    while (const dirent* entry = readdir(open.get())) names.emplace_back(entry->d_name);
    error = errno;
    return names;
}

std::vector<std::string> pending_names(const std::string& folder) {
    int error = 0;
    std::vector<std::string> names = names_in(folder, error);
    if (error != 0)
        fail(Exit::kFailure, "cannot read the folder {}: {}", printable(folder), strerror(error));
    std::erase_if(names, [](const std::string& name) { return !name.starts_with(kPendingPrefix); });
    std::sort(names.begin(), names.end(), pending_before);
    return names;
}

Descriptor open_record_file(const std::string& path) {
    // Without waiting: a named pipe would wait for its writer before it could be refused.
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file.valid() || fstat(file.get(), &status) != 0) return Descriptor();
    if (S_ISREG(status.st_mode)) return file;
    file.reset();
    errno = EINVAL;
    return file;
}

std::string line_for(const std::string& path, const RecordDamage& damage) {
    return fmt::format("{}: byte {}: {}", printable(path), damage.offset, damage.what);
}

std::vector<RecordPath> RecordInput::files(const std::vector<std::string>& arguments) {
    std::vector<RecordPath> paths;
    for (const std::string& argument : arguments) {
        if (!is_folder(argument)) {
            paths.push_back({argument, false});
            continue;
        }
        for (const std::string& name : pending_names(argument))
            paths.push_back({argument + "/" + name, true});
    }
    return paths;
}

Descriptor RecordInput::open(const RecordPath& file) {
    Descriptor descriptor = open_record_file(file.path);
    if (descriptor.valid() || (file.listed && errno == ENOENT)) return descriptor;
    unreadable_ = true;
    note(fmt::format("cannot read {}: {}", printable(file.path),
                     errno == EINVAL ? "it is no regular file" : strerror(errno)));
    return descriptor;
}

void RecordInput::tell(const std::string& path, const RecordWalk& walk) {
    if (walk.whole()) return;
    std::fflush(stdout);  // what was read stands before what was not
    if (walk.damage) {
        ++damaged_;
        note(line_for(path, *walk.damage));
        return;
    }
    unreadable_ = true;
    note(fmt::format("cannot read {} beyond byte {}: {}", printable(path), walk.end,
                     strerror(walk.error)));
}

Exit RecordInput::exit() const {
    if (damaged_ > 0) return Exit::kInvalidInput;
    return unreadable_ ? Exit::kFailure : Exit::kDone;
}

}  // namespace kvadmin
