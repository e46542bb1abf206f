// See lint.h. The data file is read first, so that the size file's counts can be held against it
// where they stand.
#include "lint.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "descriptor.h"
#include "lint_data.h"
#include "lint_size.h"
#include "lint_walk.h"

namespace kvadmin {
namespace {

// The bytes of an image, without overflow whatever the counts.
std::uint64_t image_bytes(const LintCounts& counts) {
    constexpr std::uint64_t kMost = UINT64_MAX / 128;
    if (counts.elements > kMost || counts.aces > kMost || counts.name_bytes > kMost)
        return UINT64_MAX;
    return counts.name_bytes + 60 * counts.elements + 12 * counts.aces + 176;
}

// Where the bytes of one file come from, or why they do not.
struct Input {
    ByteSource* source = nullptr;
    Severity severity = Severity::kUnreadable;
    std::string problem;
};

class OpenedFile {
public:
    // Takes an open file, or opens `path` when `fd` is none.
    OpenedFile(int fd, const std::string& path) {
        if (fd < 0) {
            // Not waiting: the path may name a pipe that nobody writes to.
            owned_ = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
            fd = owned_.get();
        }
        struct stat status;
        if (fd < 0 || fstat(fd, &status) != 0)
            input_.problem = fmt::format("cannot be opened: {}", strerror(errno));
        else if (!S_ISREG(status.st_mode))
            input_ = {nullptr, Severity::kViolation, "is not a regular file; name the file itself"};
        else
            input_.source = &source_.emplace(fd);
    }

    const Input& input() const { return input_; }

private:
    Descriptor owned_;
    std::optional<ByteSource> source_;
    Input input_;
};

void collect(LintReport& report, Findings& findings) {
    for (Finding& finding : findings.take()) report.findings.push_back(std::move(finding));
    report.violations += findings.total(Severity::kViolation);
    report.warnings += findings.total(Severity::kWarning);
    report.unreadable += findings.total(Severity::kUnreadable);
}

void check_image_size(const LintCounts& counts, std::uint64_t largest, Findings& findings) {
    const std::uint64_t bytes = image_bytes(counts);
    if (bytes > largest)
        findings.add_for_file(
            Severity::kViolation,
            fmt::format("makes an image of {} bytes; at most {} are possible: split the map", bytes,
                        largest));
}

LintReport lint_inputs(const Input& size, const Input& data, const LintOptions& options) {
    LintReport report;
    Findings size_findings(PairFile::kSize, options.kept_findings);
    Findings data_findings(PairFile::kData, options.kept_findings);
    DataResult result;
    if (data.source != nullptr) {
        if (options.on_progress) data.source->on_progress(options.on_progress);
        result = lint_data(*data.source, data_findings);
        report.counts = result.counts;
        report.counted = result.complete;
        check_image_size(report.counts, options.largest_image, data_findings);
    } else {
        data_findings.add_for_file(data.severity, data.problem);
    }
    if (size.source != nullptr)
        lint_size(*size.source, size_findings, result, report);
    else
        size_findings.add_for_file(size.severity, size.problem);
    collect(report, size_findings);
    const std::uint64_t of_size_file = report.violations;
    collect(report, data_findings);
    report.fixable = report.fixable && report.counted && report.violations == of_size_file;
    if (report.clean()) report.image_size = static_cast<std::uint32_t>(image_bytes(report.counts));
    return report;
}

}  // namespace

LintReport lint_descriptors(int size_fd, const std::string& size_path, int data_fd,
                            const std::string& data_path, const LintOptions& options) {
    const OpenedFile size(size_fd, size_path);
    const OpenedFile data(data_fd, data_path);
    LintReport report = lint_inputs(size.input(), data.input(), options);
    report.size_path = size_path;
    report.data_path = data_path;
    return report;
}

LintReport lint_pair(const std::string& size_path, const std::string& data_path,
                     const LintOptions& options) {
    return lint_descriptors(-1, size_path, -1, data_path, options);
}

LintReport lint_texts(std::string_view size_text, std::string_view data_text,
                      const LintOptions& options) {
    ByteSource size(size_text);
    ByteSource data(data_text);
    LintReport report = lint_inputs({&size, {}, {}}, {&data, {}, {}}, options);
    report.size_path = "size file";
    report.data_path = "data file";
    return report;
}

}  // namespace kvadmin
