// See scanned_image.h.
#include "scanned_image.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "kavrin.h"

namespace kvtest {
namespace {

template <typename Record>
Record record_at(const std::vector<std::uint8_t>& image, std::size_t position) {
    Record record;
    EXPECT_LE(position + sizeof record, image.size());
    if (position + sizeof record > image.size()) std::abort();
    std::memcpy(&record, image.data() + position, sizeof record);
    return record;
}

AclText text_of(kavrin_acl_t* acl) {
    std::vector<std::tuple<int, std::uint32_t, std::uint32_t>> entries;
    for (oneway_list_elem_t* link = acl->ace_list_head.first_elem; link != nullptr;
         link = link->next_elem) {
        const auto* ace = reinterpret_cast<const kavrin_ace_t*>(link);
        entries.emplace_back(ace->trustee_type, ace->trustee.uid, ace->perm_mask);
    }
    EXPECT_EQ(entries.size(), acl->num_aces);
    free_ACL(acl);
    std::free(acl);
    std::sort(entries.begin(), entries.end());
    AclText text;
    for (const auto& [type, id, mask] : entries)
        text.push_back((type == ACE_TYPE_USER ? "u" : "g") + std::to_string(id) + ":" +
                       std::to_string(mask));
    return text;
}

struct Pending {
    std::uint32_t offset;
    std::string folder;  // path of the parent, without a trailing slash
};

}  // namespace

std::map<std::string, ImageElement> read_elements(std::vector<std::uint8_t>& image) {
    const auto header = record_at<kavrin_be_header_t>(image, 0);
    EXPECT_EQ(header.next_free_fselem, header.fselem_size);
    EXPECT_EQ(header.next_free_nameelem, header.nameelem_size);
    EXPECT_EQ(header.next_free_acl, header.acl_size);
    EXPECT_LE(header.next_free_list, header.list_size);

    std::map<std::string, ImageElement> elements;
    std::vector<Pending> pending{{0, ""}};
    while (!pending.empty()) {
        const Pending here = std::move(pending.back());
        pending.pop_back();
        const auto element = record_at<fs_elem_t>(image, header.fselem_offset + here.offset);
        const std::size_t name_at = header.nameelem_offset + element.name_elem_offset;
        const auto name_head = record_at<name_elem_t>(image, name_at);
        const std::string name(
            reinterpret_cast<const char*>(image.data() + name_at + sizeof(name_elem_t)),
            name_head.name_len);
        const std::string path = here.folder + (name == "/" ? "" : "/" + name);

        ImageElement found;
        found.offset = here.offset;
        kavrin_acl_t* acl = nullptr;
        EXPECT_EQ(get_kavrinacl_fromfselemoffset(image.data(), here.offset, &acl), SHM_MEMBE_OK);
        found.own = text_of(acl);
        acl = nullptr;
        EXPECT_EQ(get_nonempty_kavrinacl_fromfselemoffset(image.data(), here.offset, &acl),
                  SHM_MEMBE_OK);
        found.governing = text_of(acl);
        found.has_children = (element.flags & FSELEM_FLAG_NOCHILDREN) == 0;
        if (found.has_children) {
            const std::size_t list_at = header.list_offset + element.clist_offset;
            const auto list = record_at<child_list_t>(image, list_at);
            EXPECT_EQ(list.next_index, list.num_children) << path;
            for (std::uint32_t i = 0; i < list.next_index; ++i)
                pending.push_back(
                    {record_at<std::uint32_t>(image, list_at + sizeof(child_list_t) + 4 * i),
                     path});
        }
        EXPECT_TRUE(elements.emplace(path.empty() ? "/" : path, std::move(found)).second) << path;
    }
    return elements;
}

}  // namespace kvtest
