// Puts the true counts into a size file: a new file with its other values takes its place.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "failure.h"
#include "lint_fix.h"
#include "pair_writer.h"

namespace kvadmin {
namespace {

std::string in_quotes(std::string_view text) {
    std::string out;
    append_json_string(out, text);
    return out;
}

std::string fixed_size_text(const LintReport& report) {
    const LintReport::Identity& identity = report.identity;
    std::string text = "{";
    const auto add = [&](std::string_view key, std::string_view value) {
        fmt::format_to(std::back_inserter(text), "{}\n  \"{}\": {}", text.size() == 1 ? "" : ",",
                       key, value);
    };
    if (identity.has_map_name) add("MAPNAME", in_quotes(identity.map_name));
    if (identity.has_version) add("VERSION", in_quotes(identity.version));
    if (identity.has_generation) add("GENERATIONNUM", std::to_string(identity.generation));
    if (identity.has_timestamp) add("TIMESTAMP", std::to_string(identity.timestamp));
    add("TOTALFSELEMS", std::to_string(report.counts.elements));
    add("TOTALACES", std::to_string(report.counts.aces));
    add("TOTALNAMELEN", std::to_string(report.counts.name_bytes));
    return text + "\n}\n";
}

}  // namespace

void write_fixed_size_file(const LintReport& report) {
    if (!report.fixable)
        fail(Exit::kInvalidInput, "new counts alone would not make '{}' right", report.size_path);
    // What a link leads to is replaced, not the link.
    const std::unique_ptr<char, void (*)(void*)> path(realpath(report.size_path.c_str(), nullptr),
                                                      std::free);
    struct stat before;
    if (path == nullptr || stat(path.get(), &before) != 0)
        fail(Exit::kFailure, "cannot find '{}': {}", report.size_path, strerror(errno));
    PendingFile file(path.get());
    file.write(fixed_size_text(report));
    file.complete();
    file.put_in_place();
    // Only now, because the new file has no other name: until here it is its owner's alone.
    const bool owned = chown(path.get(), before.st_uid, before.st_gid) == 0 || geteuid() != 0;
    if (!owned || chmod(path.get(), before.st_mode & 07777) != 0)
        fail(Exit::kFailure, "'{}' is fixed, but its owner or mode could not be kept: {}",
             report.size_path, strerror(errno));
}

}  // namespace kvadmin
