// A path as an array of hashed components, the form in which the lookup walks the image.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "perm_utils.h"
#include "utils/owners.h"
#include "utils/trace.h"

namespace {

using namespace kavrin;

struct PathElementDeleter {
    void operator()(path_elems_t* element) const {
        std::free(element->name_elem);
        std::free(element);
    }
};

struct PathArrayDeleter {
    void operator()(path_array_t* array) const { cleanup_path_array_smb4(&array); }
};
using PathArrayOwner = std::unique_ptr<path_array_t, PathArrayDeleter>;

// Appends one component; its name buffer has the size of the whole path. False without memory.
bool append(path_array_t& array, std::string_view name, std::size_t buffer_size) {
    KV_ASSERT_AS(!name.empty(), "*namelen != 0");
    std::unique_ptr<path_elems_t, PathElementDeleter> element(
        static_cast<path_elems_t*>(std::calloc(1, sizeof(path_elems_t))));
    if (element == nullptr) return false;
    element->name_elem = static_cast<char*>(std::calloc(buffer_size, 1));
    if (element->name_elem == nullptr) return false;
    auto** grown = static_cast<path_elems_t**>(
        std::realloc(array.elems, (std::size_t{array.num_elems} + 1) * sizeof(path_elems_t*)));
    if (grown == nullptr) return false;
    array.elems = grown;
    element->len = static_cast<std::uint32_t>(name.size());
    element->index = array.num_elems;
    element->hashval = permbe_fname_hash(name.data(), element->len);
    std::memcpy(element->name_elem, name.data(), name.size());
    array.elems[array.num_elems++] = element.release();
    return true;
}

// Appends the components of path[start .. end), which neither begins nor ends with a slash.
bool append_components(path_array_t& array, std::string_view path, std::size_t start,
                       std::size_t buffer_size) {
    const std::size_t last = path.size() - 1;
    for (std::size_t at = start; at <= last;) {
        if (path[at] == '/') {
            if (!append(array, path.substr(start, at - start), buffer_size)) return false;
            start = path.find_first_not_of('/', at);
            // Behind a run of slashes the scan goes on one byte further, so that a final component
            // of one byte is passed over. Callers pass normalised paths and never see it.
            at = start > at + 1 ? start + 1 : start;
        } else if (at == last) {
            return append(array, path.substr(start), buffer_size);
        } else {
            ++at;
        }
    }
    return true;
}

bool split(path_array_t& array, const char* path, std::size_t len) {
    std::string_view text(path, len);
    // Zero bytes, then slashes, do not count at the end.
    text = text.substr(0, text.find_last_not_of('\0') + 1);
    if (text.starts_with('/') && !append(array, "/", len)) return false;
    text = text.substr(0, text.find_last_not_of('/') + 1);
    const std::size_t start = text.find_first_not_of('/');
    if (start == std::string_view::npos) return true;
    return append_components(array, text, start, len);
}

}  // namespace

extern "C" void cleanup_path_array_smb4(path_array_t** array) {
    if (array == nullptr || *array == nullptr) return;
    for (std::uint32_t i = 0; i < (*array)->num_elems; ++i)
        PathElementDeleter()((*array)->elems[i]);
    std::free((*array)->elems);
    std::free(*array);
    *array = nullptr;
}

extern "C" void get_path_elem_smb4(char* path, unsigned int len, path_array_t** array) {
    if (array == nullptr || len == 0 || path == nullptr) return;
    *array = nullptr;
    PathArrayOwner built(static_cast<path_array_t*>(std::calloc(1, sizeof(path_array_t))));
    if (built == nullptr || !split(*built, path, len)) {
        KV_TRACE(kAlways, "Could not allocate memory for path array ");
        return;
    }
    *array = built.release();
}
