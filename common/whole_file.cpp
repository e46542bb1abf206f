// See whole_file.h.
#include "whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "descriptor.h"
#include "failure.h"
#include "kavrin_utils.h"

namespace kvadmin {
namespace {

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

void write_whole_file(const std::string& path, std::span<const std::uint8_t> content, mode_t mode) {
    const std::string temporary = path + ".tmp";
    Descriptor file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
    const bool written =
        file.valid() && fchmod(file.get(), mode) == 0 &&
        (content.empty() || write_all(file.get(), content.data(), content.size()) > 0) &&
        fsync(file.get()) == 0 && file.reset() && rename(temporary.c_str(), path.c_str()) == 0 &&
        sync_folder(folder_of(path));
    if (written) return;
    const int error = errno;
    unlink(temporary.c_str());
    fail(Exit::kFailure, "cannot write {}: {}", path, std::strerror(error));
}

void write_whole_file(const std::string& path, std::string_view content, mode_t mode) {
    write_whole_file(
        path, std::span(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()),
        mode);
}

bool sync_folder(const std::string& path) {
    const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.valid() && fsync(folder.get()) == 0;
}

void make_folder(const std::string& path, mode_t mode) {
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        struct stat st {};
        const bool made = mkdir(part.c_str(), mode) == 0;
        if ((!made && errno != EEXIST) || (made && chmod(part.c_str(), mode) != 0))
            fail(Exit::kFailure, "cannot make the folder {}: {}", part, std::strerror(errno));
        if (stat(part.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            fail(Exit::kFailure, "{} is no folder, and must be one", part);
        if (slash == std::string::npos) return;
    }
}

timespec marker_time() {
    return {std::time(nullptr) + 1, 0};
}

void touch_map_marker() {
    const Descriptor file(open(kMapMarkerPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    const timespec times[] = {marker_time(), marker_time()};
    if (file.valid() && fchmod(file.get(), 0644) == 0 && futimens(file.get(), times) == 0) return;
    fail(Exit::kFailure,
         "cannot touch {}: {}; connections may go on with verdicts of the old map until they end",
         kMapMarkerPath, std::strerror(errno));
}

}  // namespace kvadmin
