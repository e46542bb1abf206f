// See pair_writer.h.
#include "pair_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "failure.h"

namespace kvadmin {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 18;
constexpr std::uint64_t kLargestImage = UINT32_MAX;

void append_ids(std::string& out, const std::vector<FoldedAce>& aces) {
    const char* separator = "";
    for (const FoldedAce& ace : aces) {
        fmt::format_to(std::back_inserter(out), "{}\"{}\":{}", separator, ace.id, ace.mask);
        separator = ",";
    }
}

}  // namespace

PendingFile::PendingFile(std::string target)
    : target_(std::move(target)), path_(target_ + ".XXXXXX") {
    struct stat status;
    if (stat(target_.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        fail(Exit::kFailure, "'{}' is a folder; name the file to write", target_);
    file_ = Descriptor(mkostemp(path_.data(), O_CLOEXEC));
    if (!file_.valid())
        fail(Exit::kFailure, "cannot create a file beside '{}': {}", target_, strerror(errno));
    if (fstat(file_.get(), &identity_) != 0) {
        const int error = errno;
        unlink(path_.c_str());
        fail(Exit::kFailure, "cannot look at '{}': {}", path_, strerror(error));
    }
    buffer_.reserve(kBufferSize);
}

PendingFile::~PendingFile() {
    if (!path_.empty()) unlink(path_.c_str());
}

void PendingFile::write(std::string_view text) {
    if (buffer_.size() + text.size() > kBufferSize) flush();
    buffer_ += text;
    bytes_ += text.size();
}

void PendingFile::flush() {
    std::string_view rest = buffer_;
    while (!rest.empty()) {
        const ssize_t written = ::write(file_.get(), rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) fail(Exit::kFailure, "cannot write '{}': {}", path_, strerror(errno));
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    buffer_.clear();
}

void PendingFile::complete() {
    flush();
    if (fdatasync(file_.get()) != 0 || !file_.reset())
        fail(Exit::kFailure, "cannot write '{}': {}", path_, strerror(errno));
}

void PendingFile::put_in_place() {
    if (rename(path_.c_str(), target_.c_str()) != 0)
        fail(Exit::kFailure, "cannot put '{}' in place: {}", target_, strerror(errno));
    path_.clear();
}

bool PendingFile::is(const struct stat& status) const {
    return status.st_ino == identity_.st_ino && status.st_dev == identity_.st_dev;
}

void append_json_string(std::string& out, std::string_view text) {
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
        } else {
            out += c;
        }
    }
    out += '"';
}

DataWriter::DataWriter(PendingFile& file) : file_(file) {
    file_.write("[{\"NUMCHILDREN\":1}");
}

void DataWriter::open_element(std::string_view name, const FoldedAcl& acl, std::size_t children) {
    ++counts_.elements;
    counts_.aces += acl.size();
    counts_.name_bytes += name.size() + 1;
    if (counts_.image_bytes() > kLargestImage)
        fail(Exit::kFailure,
             "the tree does not fit one map: after {} elements its image passes 4 GiB",
             counts_.elements);
    text_ = ",\n{\"DIR\":";
    append_json_string(text_, name);
    fmt::format_to(std::back_inserter(text_),
                   ",\"ACL\":[{{\"NUMUSERS\":{}}},{{\"NUMGROUPS\":{}}},{{\"USERS\":{{",
                   acl.users.size(), acl.groups.size());
    append_ids(text_, acl.users);
    text_ += "}},{\"GROUPS\":{";
    append_ids(text_, acl.groups);
    fmt::format_to(std::back_inserter(text_), "}}}}],\"CHILDREN\":[{{\"NUMCHILDREN\":{}}}",
                   children);
    file_.write(text_);
}

void DataWriter::close_element() {
    file_.write("]}");
}

void DataWriter::end_document() {
    file_.write("]\n");
}

void write_size_file(PendingFile& file, const MapIdentity& identity, const PairCounts& counts) {
    std::string name;
    append_json_string(name, identity.name);
    file.write(
        fmt::format("{{\n"
                    "  \"MAPNAME\": {},\n"
                    "  \"VERSION\": \"1\",\n"
                    "  \"GENERATIONNUM\": {},\n"
                    "  \"TIMESTAMP\": {},\n"
                    "  \"TOTALFSELEMS\": {},\n"
                    "  \"TOTALACES\": {},\n"
                    "  \"TOTALNAMELEN\": {}\n"
                    "}}\n",
                    name, identity.generation, identity.timestamp, counts.elements, counts.aces,
                    counts.name_bytes));
}

}  // namespace kvadmin
