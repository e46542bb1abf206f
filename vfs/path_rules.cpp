// Rules that look at nothing but paths and flags: joined paths, what open flags ask for, move or
// rename, what in the private tree nobody deletes.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kavrin_utils.h"
#include "perm_utils.h"
#include "processing_functions.h"
#include "regex_parser.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using kavrin::HeapString;
using kavrin::kAlways;
using kavrin::kDecision;
using kavrin::kTrace;

struct PathArrayDeleter {
    void operator()(path_array_t* array) const { cleanup_path_array_smb4(&array); }
};
using PathArray = std::unique_ptr<path_array_t, PathArrayDeleter>;

PathArray split(char* path) {
    path_array_t* array = nullptr;
    get_path_elem_smb4(path, static_cast<unsigned>(std::strlen(path)) + 1, &array);
    return PathArray(array);
}

// Names count as equal by length and hash.
bool same_folder(const path_array_t& one, const path_array_t& other) {
    return std::equal(one.elems, one.elems + one.num_elems, other.elems,
                      other.elems + other.num_elems,
                      [](const path_elems_t* a, const path_elems_t* b) {
                          return a->len == b->len && a->hashval == b->hashval;
                      });
}

const char* shown(const char* text) {
    return text == nullptr ? "NULL" : text;
}

}  // namespace

extern "C" char* get_full_path(const char* folder, const char* path) {
    if (folder == nullptr || path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const std::size_t size = std::strlen(folder) + std::strlen(path) + 2;
    HeapString full(static_cast<char*>(std::calloc(size, 1)));
    if (full == nullptr) {
        KV_TRACE(kAlways, "calloc failed. errno = %d(%s)", errno, std::strerror(errno));
        return nullptr;
    }
    std::snprintf(full.get(), size, "%s/%s", folder, path);
    return full.release();
}

extern "C" e_open_mode_t mode2kavrinmode(int flags) {
    if ((flags & O_TRUNC) != 0) {
        KV_TRACE(kTrace, "mode2kavrinmode O_TRUNC set returning OPENMODE_WRITE");
        return OPENMODE_WRITE;
    }
    if ((flags & O_CREAT) != 0) return OPENMODE_CREATE;
    return (flags & (O_WRONLY | O_RDWR | O_APPEND)) != 0 ? OPENMODE_WRITE : OPENMODE_READ;
}

extern "C" int is_amove(char* src_fsobj, char* dst_fsobj) {
    if (src_fsobj == nullptr || dst_fsobj == nullptr) {
        KV_TRACE(kAlways, "Invalid src or dest name, src %s dst %s", shown(src_fsobj),
                 shown(dst_fsobj));
        return -1;
    }
    const HeapString source_parent(parent_dir_from_path(src_fsobj));
    if (source_parent == nullptr) {
        KV_TRACE(kAlways, "Invalid parent src %s", src_fsobj);
        return -1;
    }
    const HeapString target_parent(parent_dir_from_path(dst_fsobj));
    if (target_parent == nullptr) {
        KV_TRACE(kAlways, "Invalid parent dst %s", dst_fsobj);
        return -1;
    }
    const PathArray source = split(source_parent.get());
    if (source == nullptr) {
        KV_TRACE(kAlways, "Could not convert src path %s", source_parent.get());
        return -1;
    }
    const PathArray target = split(target_parent.get());
    if (target == nullptr) {
        KV_TRACE(kAlways, "Could not convert dst path %s", target_parent.get());
        return -1;
    }
    return same_folder(*source, *target) ? 0 : 1;
}

extern "C" int is_deleteable(const char* path_to_delete) {
    if (path_to_delete == nullptr) return 1;
    constexpr std::string_view kTree = "Private/";
    const std::string_view path(path_to_delete);
    if (path == "Private") return 0;
    if (!path.starts_with(kTree) || path.size() == kTree.size()) return 1;
    if (path.substr(kTree.size()).find('/') != std::string_view::npos) return 1;
    KV_TRACE(kDecision, "%s:  path_to_delete=%s not allowed", __func__, path_to_delete);
    return 0;
}

extern "C" int is_deletable_file(char* fname) {
    const int count = std::min(g_kavrin_pattern_buf.num_elems, KAVRIN_MAX_PATTERNS);
    for (int i = 0; i < count; ++i) {
        if (match_string_with_regex_buf(fname, g_kavrin_pattern_buf.elems[i].compiled_pattern) !=
            REGEX_TRUE)
            continue;
        KV_TRACE(kDecision, "Found deletable file %s\n", fname);
        return 1;
    }
    return 0;
}

extern "C" char* child_from_path(const char* path) {
    if (path == nullptr) return nullptr;
    std::string_view text(path);
    if (text.find('/') != std::string_view::npos) {
        text = text.substr(0, text.find_last_not_of('/') + 1);
        text = text.substr(text.rfind('/') + 1);  // npos + 1 is the start
    }
    return strndup(text.data(), text.size());
}
