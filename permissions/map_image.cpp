// The builder's primitives: each appends one record at its region's cursor, in the order in which
// the data file names things. Nothing is searched for, moved or removed, and no cursor is held
// against its region's size: the counts are trusted, and checking them is the caller's.
#include <cctype>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "perm_utils.h"
#include "permissions/image_view.h"
#include "read_perms.h"

static_assert(sizeof(kavrin_be_header_t) == 176);
static_assert(offsetof(kavrin_be_header_t, mapname) == 0);
static_assert(offsetof(kavrin_be_header_t, version) == 32);
static_assert(offsetof(kavrin_be_header_t, nextmap) == 68);
static_assert(offsetof(kavrin_be_header_t, generationnum) == 100);
static_assert(offsetof(kavrin_be_header_t, timestamp) == 104);
static_assert(offsetof(kavrin_be_header_t, total_fselems) == 112);
static_assert(offsetof(kavrin_be_header_t, total_aces) == 116);
static_assert(offsetof(kavrin_be_header_t, total_lists) == 120);
static_assert(offsetof(kavrin_be_header_t, fselem_offset) == 124);
static_assert(offsetof(kavrin_be_header_t, fselem_size) == 128);
static_assert(offsetof(kavrin_be_header_t, next_free_fselem) == 132);
static_assert(offsetof(kavrin_be_header_t, nameelem_offset) == 136);
static_assert(offsetof(kavrin_be_header_t, nameelem_size) == 140);
static_assert(offsetof(kavrin_be_header_t, next_free_nameelem) == 144);
static_assert(offsetof(kavrin_be_header_t, acl_offset) == 148);
static_assert(offsetof(kavrin_be_header_t, acl_size) == 152);
static_assert(offsetof(kavrin_be_header_t, next_free_acl) == 156);
static_assert(offsetof(kavrin_be_header_t, list_offset) == 160);
static_assert(offsetof(kavrin_be_header_t, list_size) == 164);
static_assert(offsetof(kavrin_be_header_t, next_free_list) == 168);
static_assert(offsetof(kavrin_be_header_t, signature) == 172);

static_assert(sizeof(fs_elem_t) == 24);
static_assert(offsetof(fs_elem_t, signature) == 0);
static_assert(offsetof(fs_elem_t, parent_offset) == 4);
static_assert(offsetof(fs_elem_t, name_elem_offset) == 8);
static_assert(offsetof(fs_elem_t, clist_offset) == 12);
static_assert(offsetof(fs_elem_t, acl_offset) == 16);
static_assert(offsetof(fs_elem_t, flags) == 20);

static_assert(sizeof(name_elem_t) == 12);
static_assert(offsetof(name_elem_t, name_len) == 0);
static_assert(offsetof(name_elem_t, padding) == 2);
static_assert(offsetof(name_elem_t, signature) == 4);
static_assert(offsetof(name_elem_t, hashval) == 8);
static_assert(offsetof(name_elem_t, name) == 12);

static_assert(sizeof(child_list_t) == 12);
static_assert(offsetof(child_list_t, signature) == 0);
static_assert(offsetof(child_list_t, num_children) == 4);
static_assert(offsetof(child_list_t, next_index) == 8);
static_assert(offsetof(child_list_t, children_offsets) == 12);

static_assert(sizeof(beacl_t) == 8);
static_assert(offsetof(beacl_t, signature) == 0);
static_assert(offsetof(beacl_t, num_aces) == 4);
static_assert(offsetof(beacl_t, aces) == 8);

static_assert(sizeof(beace_t) == 12);
static_assert(offsetof(beace_t, idtype) == 0);
static_assert(offsetof(beace_t, id) == 4);
static_assert(offsetof(beace_t, perm_mask) == 8);
static_assert(offsetof(beace_t, padding) == 10);

namespace {

using namespace kavrin;

// The trace of a new name goes to standard output whatever the debug level. A map has millions of
// names, so the line is put together by hand and written with one call.
void trace_name(std::string_view name, std::uint32_t hash) {
    constexpr std::string_view kBefore = "--------> Name ";
    constexpr std::string_view kBetween = " hahsval ";
    constexpr std::string_view kAfter = " \n";
    constexpr std::size_t kUsualName = 255;
    constexpr std::size_t kDigits = 10;
    if (name.size() > kUsualName) {
        std::printf("--------> Name %.*s hahsval %u \n", static_cast<int>(name.size()), name.data(),
                    hash);
        return;
    }
    char line[kBefore.size() + kUsualName + kBetween.size() + kDigits + kAfter.size()];
    char* end = line;
    for (const std::string_view part : {kBefore, name, kBetween}) {
        std::memcpy(end, part.data(), part.size());
        end += part.size();
    }
    end = std::to_chars(end, end + kDigits, hash).ptr;
    std::memcpy(end, kAfter.data(), kAfter.size());
    end += kAfter.size();
    std::fwrite(line, 1, static_cast<std::size_t>(end - line), stdout);
}

void require_summary(const memsummary_t* sum, const jsonstack_t* stelem) {
    if (sum == nullptr) {
        KV_TRACE(kAlways, "Invalid memsummary");
        KV_ASSERT_AS(false, "sum != NULL");
    }
    if (stelem == nullptr) {
        KV_TRACE(kAlways, "Invalid stelem");
        KV_ASSERT_AS(false, "stelem != NULL");
    }
    KV_ASSERT_AS(stelem->stetype == STELEM_TYPE_FSELEM, "stelem->stetype == STELEM_TYPE_FSELEM");
}

}  // namespace

// One-at-a-time hash over upper-cased ASCII. Bytes of multi-byte characters do not contribute, so
// spellings that only Samba can tell to be equal hash equally.
extern "C" uint32_t permbe_fname_hash(const char* name, uint32_t len) {
    KV_ASSERT(len != 0);
    const std::int32_t* const upper = *__ctype_toupper_loc();
    std::uint32_t h = 0;
    for (std::uint32_t i = 0; i < len; ++i) {
        const auto b = static_cast<unsigned char>(name[i]);
        if (b >= 0x80) continue;
        h += static_cast<std::uint32_t>(upper[b]);
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

extern "C" e_membe_shm_err create_fselem(memsummary_t* msum, jsonstack_t* stelem,
                                         uint32_t parent_offset) {
    KV_ASSERT_AS(msum != nullptr, "msum != NULL");
    KV_ASSERT_AS(msum->membuf != nullptr, "msum->membuf != NULL");
    const ImageView image(msum->membuf);
    assert_validity_mark(image);
    if (stelem == nullptr) {
        KV_TRACE(kAlways, "%s(%d): Null stelem ", __func__, __LINE__);
        KV_ASSERT_AS(false, "stelem != NULL");
    }
    kavrin_be_header_t* beheader = &image.header();
    stelem->stetype = STELEM_TYPE_FSELEM;
    stelem->jsonoffset = beheader->next_free_fselem;

    ElementOffset place{beheader->next_free_fselem};
    if (parent_offset == FSELEM_ROOT_OFFSET) {
        place = kRootElement;
    } else {
        image.element(ElementOffset{parent_offset});
    }
    fs_elem_t& element = image.element_space(place);
    element = fs_elem_t{};
    if (parent_offset == FSELEM_ROOT_OFFSET) {
        KV_ASSERT(
            (beheader->next_free_fselem == sizeof(fs_elem_t) || (beheader->next_free_fselem == 0)));
    }
    element.signature = FSELEMSIG;
    element.parent_offset = parent_offset;
    beheader->next_free_fselem += sizeof(fs_elem_t);
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err create_nameelem(memsummary_t* sum, unsigned int namelen, char* name,
                                           jsonstack_t* stelem) {
    if (name == nullptr || namelen == 0) {
        KV_TRACE(kAlways, "%s(%d):Invalid name parameters", __func__, __LINE__);
        KV_ASSERT_AS(false, "name != NULL && namelen != 0");
    }
    if (stelem == nullptr) {
        KV_TRACE(kAlways, "%s(%d): Invalid stelem", __func__, __LINE__);
        KV_ASSERT_AS(false, "stelem != NULL");
    }
    if (sum == nullptr) {
        KV_TRACE(kAlways, "%s(%d): Invalid memsummary", __func__, __LINE__);
        KV_ASSERT_AS(false, "sum != NULL");
    }
    const ImageView image(sum->membuf);
    assert_validity_mark(image);
    kavrin_be_header_t& header = image.header();
    const std::uint32_t cursor = header.next_free_nameelem;
    const std::size_t text_length = strnlen(name, namelen);

    name_elem_t& record = image.name_space(NameOffset{cursor});
    record.name_len = static_cast<std::uint16_t>(namelen);
    record.padding = 0;
    record.signature = NAMESIG;
    record.hashval = permbe_fname_hash(name, namelen);
    trace_name({name, text_length}, record.hashval);
    std::memcpy(record.name, name, text_length);
    std::memset(record.name + text_length, 0, namelen + 1 - text_length);

    KV_ASSERT_AS(stelem->stetype == STELEM_TYPE_FSELEM, "stelem->stetype == STELEM_TYPE_FSELEM");
    fs_elem_t* fselem = &image.element(ElementOffset{stelem->jsonoffset});
    KV_ASSERT(fselem->name_elem_offset == 0);
    fselem->name_elem_offset = cursor;
    header.next_free_nameelem += namelen + 1 + static_cast<std::uint32_t>(sizeof(name_elem_t));
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err create_child_list(memsummary_t* sum, unsigned int numchildren,
                                             jsonstack_t* stelem) {
    require_summary(sum, stelem);
    const ImageView image(sum->membuf);
    assert_validity_mark(image);
    kavrin_be_header_t& header = image.header();
    const std::uint32_t cursor = header.next_free_list;
    const std::size_t slots = std::size_t{numchildren} * sizeof(std::uint32_t);

    child_list_t& list = image.list_space(ListOffset{cursor});
    list.signature = LISTSIG;
    list.num_children = numchildren;
    list.next_index = 0;
    std::memset(list.children_offsets, 0, slots);

    image.element(ElementOffset{stelem->jsonoffset}).clist_offset = cursor;
    header.next_free_list += static_cast<std::uint32_t>(slots + sizeof(child_list_t));
    return SHM_MEMBE_OK;
}

extern "C" e_membe_shm_err add_to_parentlist(memsummary_t* sum, jsonstack_t* child_stelem,
                                             uint32_t parent_offset) {
    require_summary(sum, child_stelem);
    const ImageView image(sum->membuf);
    assert_validity_mark(image);
    const fs_elem_t& parent = image.element(ElementOffset{parent_offset});
    child_list_t& list = image.children_of(parent);
    fs_elem_t& child = image.element(ElementOffset{child_stelem->jsonoffset});
    list.children_offsets[list.next_index] = child_stelem->jsonoffset;
    ++list.next_index;
    child.parent_offset = parent_offset;
    return SHM_MEMBE_OK;
}
