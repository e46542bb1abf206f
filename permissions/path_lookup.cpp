// From a path to the element that governs it: one scan of the parent's children per component. The
// image is only read and nothing is allocated, so any number of processes may look up at once.
#include <algorithm>
#include <cstring>

#include "kavrin_utils.h"
#include "perm_utils.h"
#include "permissions/image_view.h"

namespace {

using namespace kavrin;

constexpr int kBothExtended = 2;

// Whether a child's name is the component, both being of the same hash and length. Names that
// differ outside ASCII are Samba's to judge, and where it sees a difference, identical bytes still
// match.
bool same_name(const name_elem_t& cnelem, const path_elems_t& pelem) {
    const int length = cnelem.name_len;
    int strcmpres = kavrin_strncasecmp(cnelem.name, pelem.name_elem, length);
    KV_TRACE(kTrace, "kavrin_strncasecmp strcmpres %d", strcmpres);
    if (strcmpres == kBothExtended) {
        strcmpres =
            strncasecmp_m_wrapper(cnelem.name, pelem.name_elem, static_cast<std::size_t>(length));
        KV_TRACE(kTrace, "StrnCaseCmp strcmpres %d", strcmpres);
        if (strcmpres != 0) {
            strcmpres = std::memcmp(cnelem.name, pelem.name_elem, static_cast<std::size_t>(length));
            KV_TRACE(kTrace, "memcmp strcmpres %d", strcmpres);
        }
    }
    if (strcmpres != 0) return false;
    KV_TRACE(kTrace, "Found match cnelem %s and pelem %s", cnelem.name, pelem.name_elem);
    return true;
}

// The first child of the list that has the component's name; false when none has. Siblings that
// differ in case only are never both reachable: slot order decides.
bool find_child(const ImageView& image, const child_list_t& list, const path_elems_t& component,
                ElementOffset& found) {
    const std::uint32_t children = list.num_children;
    for (std::uint32_t slot = 0; slot < children; ++slot) {
        const ElementOffset offset{list.children_offsets[slot]};
        const name_elem_t& name = image.name_of(image.element(offset));
        if (name.hashval != component.hashval || name.name_len != component.len) continue;
        if (!same_name(name, component)) continue;
        found = offset;
        return true;
    }
    return false;
}

const child_list_t* root_list(const ImageView& image) {
    const fs_elem_t& root = image.element(kRootElement);
    KV_ASSERT_AS(root.parent_offset == FSELEM_ROOT_OFFSET2,
                 "fselem->parent_offset == FSELEM_ROOT_OFFSET2");
    const name_elem_t& name = image.name_of(root);
    KV_ASSERT_AS(std::strncmp(name.name, "/", name.name_len) == 0,
                 "strncmp(nameelem->name, \"/\", nameelem->name_len) == 0");
    return &image.children_of(root);
}

bool begins_at_root(const path_array_t& path) {
    if (path.num_elems == 0) return false;
    const path_elems_t& first = *path.elems[0];
    return std::strncmp(first.name_elem, "/", std::min<std::size_t>(first.len, 2)) == 0;
}

// Walks as far as the components match; `reached` is the deepest element matched.
e_membe_shm_err walk(const ImageView& image, const path_array_t& path, ElementOffset& reached) {
    const child_list_t* list = root_list(image);
    std::uint32_t i = begins_at_root(path) ? 1 : 0;
    if (i >= path.num_elems) return SHM_MEMBE_OK_NAMEREMAPPED;
    for (; i < path.num_elems; ++i) {
        if (!find_child(image, *list, *path.elems[i], reached)) return SHM_MEMBE_OK_NAMEREMAPPED;
        const fs_elem_t& element = image.element(reached);
        // Callers count on it: an element without children is reported as remapped even when it
        // is the whole path.
        if ((element.flags & FSELEM_FLAG_NOCHILDREN) != 0) return SHM_MEMBE_OK_NAMEREMAPPED;
        list = &image.children_of(element);
    }
    return SHM_MEMBE_OK;
}

}  // namespace

extern "C" e_membe_shm_err find_fselem_fromname(void* perm_map, path_array_t* path,
                                                uint32_t* offset) {
    KV_ASSERT(*offset == 0);
    if (perm_map == nullptr) {
        KV_TRACE(kAlways, "NULL perm map");
        return SHM_MEMBE_ERR_MAP_CORRUPTION;
    }
    if (path == nullptr) {
        KV_TRACE(kAlways, "Null file path ");
        return SHM_MEMBE_ERR_BADARGS;
    }
    const ImageView image(perm_map);
    if (!image.has_validity_mark()) {
        KV_TRACE(kAlways, "Corrupted map ");
        return SHM_MEMBE_ERR_BADARGS;
    }
    ElementOffset reached = kRootElement;
    const e_membe_shm_err result = walk(image, *path, reached);
    *offset = raw(reached);
    KV_TRACE(kTrace, "Matched name %s", image.name_of(image.element(reached)).name);
    return result;
}
