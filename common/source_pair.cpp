// See source_pair.h.
#include "source_pair.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "failure.h"

namespace kvadmin {
namespace {

constexpr std::size_t kShownFindings = 10;
constexpr char kLinkFolder[] = "/etc/kavrin/.map_build";

bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool same_file(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Every write moves the change time, and nobody can set it back.
bool same_content(const struct stat& a, const struct stat& b) {
    return same_file(a, b) && a.st_size == b.st_size && same_time(a.st_mtim, b.st_mtim) &&
           same_time(a.st_ctim, b.st_ctim);
}

std::string link_path(const char* name) {
    return fmt::format("{}/{}", kLinkFolder, name);
}

bool clear_links() {
    unlink(link_path("size.json").c_str());
    unlink(link_path("data.json").c_str());
    return rmdir(kLinkFolder) == 0 || errno == ENOENT;
}

}  // namespace

SourcePair::Source SourcePair::open_source(const std::string& path) {
    Source source{path, {}, Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), {}};
    if (!source.file.valid() || fstat(source.file.get(), &source.seen) != 0)
        fail(Exit::kFailure, "cannot open {}: {}", path, std::strerror(errno));
    if (!S_ISREG(source.seen.st_mode)) fail(Exit::kFailure, "{} is not a regular file", path);
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
    if (real == nullptr) fail(Exit::kFailure, "cannot resolve {}: {}", path, std::strerror(errno));
    source.real_path = real.get();
    return source;
}

SourcePair::SourcePair(const std::string& size_path, const std::string& data_path)
    : size_(open_source(size_path)), data_(open_source(data_path)) {
    if (same_file(size_.seen, data_.seen))
        fail(Exit::kUsage, "{} and {} are the same file; a map needs a size file and a data file",
             size_path, data_path);
}

LintReport SourcePair::check(const std::function<void(std::uint64_t)>& on_progress) const {
    LintOptions options;
    options.on_progress = on_progress;
    return lint_descriptors(size_.file.get(), size_.path, data_.file.get(), data_.path, options);
}

void SourcePair::refuse_unless_clean(const LintReport& report) const {
    if (report.clean()) return;
    print_report(stderr, report, kShownFindings);
    if (report.unreadable > 0)
        fail(Exit::kFailure, "{} or {} cannot be read; nothing was built", size_.path, data_.path);
    fail(Exit::kInvalidInput,
         "{} and {} do not pass the check; nothing was built and neither was touched. "
         "'kavrinctl map lint' shows the whole report",
         size_.path, data_.path);
}

bool SourcePair::is_changed(const Source& source) {
    struct stat open_file {};
    struct stat at_path {};
    return fstat(source.file.get(), &open_file) != 0 ||
           stat(source.real_path.c_str(), &at_path) != 0 || !same_content(source.seen, open_file) ||
           !same_content(source.seen, at_path);
}

void SourcePair::refuse_if_changed() const {
    for (const Source* source : {&size_, &data_}) {
        if (is_changed(*source))
            fail(Exit::kFailure,
                 "{} was changed while the map was built from it; nothing was published. Build "
                 "again when both files are complete",
                 source->path);
    }
}

void SourcePair::remove(const Source& source, std::vector<std::string>& remarks) {
    struct stat there {};
    if (stat(source.path.c_str(), &there) != 0 || !same_file(source.seen, there)) {
        remarks.push_back(fmt::format("left {} alone: it is another file by now", source.path));
    } else if (unlink(source.path.c_str()) != 0) {
        remarks.push_back(fmt::format("cannot remove {}: {}", source.path, std::strerror(errno)));
    }
}

// The data file first, as the library does: a size file alone is easily seen to be a left-over.
void SourcePair::remove(std::vector<std::string>& remarks) const {
    remove(data_, remarks);
    remove(size_, remarks);
}

PrivateLinks::PrivateLinks(const SourcePair& pair) {
    const bool made = clear_links() && mkdir(kLinkFolder, 0700) == 0 &&
                      symlink(pair.real_size_path().c_str(), size_path().c_str()) == 0 &&
                      symlink(pair.real_data_path().c_str(), data_path().c_str()) == 0;
    if (made) return;
    const int error = errno;
    clear_links();
    fail(Exit::kFailure, "cannot make {}: {}", kLinkFolder, std::strerror(error));
}

PrivateLinks::~PrivateLinks() {
    clear_links();
}

void PrivateLinks::clear_left() {
    if (!clear_links())
        note(fmt::format("cannot remove {}: {}", kLinkFolder, std::strerror(errno)));
}

std::string PrivateLinks::size_path() const {
    return link_path("size.json");
}

std::string PrivateLinks::data_path() const {
    return link_path("data.json");
}

}  // namespace kvadmin
