// Paths as text: the canonical form that every verdict starts from, the parent of a path, and the
// names that clients keep for themselves.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "kavrin_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::HeapString;

HeapString zeroed_text(std::size_t size) {
    return HeapString(static_cast<char*>(std::calloc(size, 1)));
}

// The canonical path while it grows, component by component, in a buffer as long as the input.
class CanonicalPath {
public:
    CanonicalPath(char* out, bool absolute) : out_(out), absolute_(absolute) {
        if (absolute_) out_[length_++] = '/';
    }

    // Takes the next component; false when a relative path climbs above its start.
    bool take(std::string_view component) {
        const bool first = std::exchange(first_, false);
        if (component == ".") {
            if (first && !absolute_) out_[length_++] = '.';
            return true;
        }
        if (component == "..") return climb();
        if (length_ > 0 && out_[length_ - 1] != '/') out_[length_++] = '/';
        std::memcpy(out_ + length_, component.data(), component.size());
        length_ += component.size();
        return true;
    }

    // Ends the text; a leading "./" was only a marker of where the path starts.
    void finish() {
        if (text().starts_with("./")) {
            length_ -= 2;
            std::memmove(out_, out_ + 2, length_);
        }
        out_[length_] = 0;
    }

private:
    std::string_view text() const { return {out_, length_}; }

    bool climb() {
        if (!absolute_ && (length_ == 0 || text() == ".")) return false;
        const std::size_t slash = text().rfind('/');
        if (slash == std::string_view::npos) {
            length_ = 0;
        } else {
            length_ = absolute_ && slash == 0 ? 1 : slash;
        }
        return true;
    }

    char* out_;
    std::size_t length_ = 0;
    bool absolute_;
    bool first_ = true;
};

// Client-side housekeeping names, always allowed: by prefix without regard to case, and by exact
// substring.
constexpr const char* kSpecialFolderFilePath[] = {
    ".TemporaryItems", ".DS_Store",        "._.DS_Store",      "._.TemporaryItems",
    ".Trash",          "Shared/.DS_Store", "Private/.DS_Store"};
constexpr const char* kWildCardSearches[] = {".sb-"};

bool begins_with_special_name(const char* path) {
    for (const char* entry : kSpecialFolderFilePath) {
        const std::size_t length = std::strlen(entry);
        if (std::strlen(path) < length) {
            KV_TRACE(kavrin::kTrace, "NOT comparing SPECIAL_FOLDER_FILE_PATH=%s with path=%s",
                     entry, path);
        } else if (__kavrin_strncasecmp(entry, path, static_cast<int>(length)) == 0) {
            KV_TRACE(kavrin::kTrace, "FOUND SPECIAL_FOLDER_FILE_PATH=%s with path=%s", entry, path);
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" char* normalize_path(const char* path) {
    if (path == nullptr) return nullptr;
    const std::string_view input(path);
    HeapString out = zeroed_text(input.size() + 1);
    if (out == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    CanonicalPath canonical(out.get(), input.starts_with('/'));
    for (std::size_t at = 0; at < input.size();) {
        const std::size_t begin = input.find_first_not_of('/', at);
        if (begin == std::string_view::npos) break;
        const std::size_t end = std::min(input.find('/', begin), input.size());
        if (!canonical.take(input.substr(begin, end - begin))) {
            out.reset();
            errno = ENOENT;
            return nullptr;
        }
        at = end;
    }
    canonical.finish();
    return out.release();
}

extern "C" char* parent_dir_from_path(const char* path) {
    if (path == nullptr) return nullptr;
    const std::string_view input(path);
    // One byte more than the input, so that the "/" of an all-slash path always fits.
    HeapString out = zeroed_text(input.size() + 1);
    if (out == nullptr || input.empty()) return out.release();

    const auto without_trailing_slashes = [](std::string_view text) {
        return text.substr(0, text.find_last_not_of('/') + 1);
    };
    std::string_view parent = without_trailing_slashes(input);
    if (parent.empty()) {
        parent = "/";
    } else if (const std::size_t slash = parent.rfind('/'); slash == std::string_view::npos) {
        parent = "";
    } else {
        parent = without_trailing_slashes(parent.substr(0, slash + 1));
        if (parent.empty()) parent = "/";
    }
    std::memcpy(out.get(), parent.data(), parent.size());
    return out.release();
}

extern "C" int is_special_folder_file(const char* path) {
    bool special = begins_with_special_name(path);
    for (const char* wild_card : kWildCardSearches) {
        if (special || std::strlen(path) < std::strlen(wild_card)) break;
        if (std::strstr(path, wild_card) == nullptr) continue;
        KV_TRACE(kavrin::kTrace, "ENFORCE_PERMS \n%s: FOUND WILD_CARD=%s with path=%s", __func__,
                 wild_card, path);
        special = true;
    }
    KV_TRACE(kavrin::kTrace, "%s: path=%s is_special=%d", __func__, path, special ? 1 : 0);
    return special ? 1 : 0;
}
