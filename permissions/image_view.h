// The one gate between offsets and memory. An offset is a type of its own region, and turning one
// into a record happens here and nowhere else; the checked forms assert the record's signature.
//
// Counts and cursors are trusted: whoever publishes an image has checked it. (kavrinctl's
// image_reader is the reader that trusts nothing.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "mkperms_shm.h"
#include "utils/trace.h"

namespace kavrin {

enum class ElementOffset : std::uint32_t {};
enum class NameOffset : std::uint32_t {};
enum class AclOffset : std::uint32_t {};
enum class ListOffset : std::uint32_t {};

constexpr std::uint32_t raw(ElementOffset offset) {
    return static_cast<std::uint32_t>(offset);
}

inline constexpr ElementOffset kRootElement{0};

class ImageView {
public:
    explicit ImageView(void* image) : base_(static_cast<std::byte*>(image)) {}

    kavrin_be_header_t& header() const { return *reinterpret_cast<kavrin_be_header_t*>(base_); }
    bool has_validity_mark() const { return header().signature == KAVRIN_BE_HEADER_SIGNATURE; }

    // Records as they lie, for the builder that is about to write them.
    fs_elem_t& element_space(ElementOffset offset) const {
        return *at<fs_elem_t>(header().fselem_offset, static_cast<std::uint32_t>(offset));
    }
    name_elem_t& name_space(NameOffset offset) const {
        return *at<name_elem_t>(header().nameelem_offset, static_cast<std::uint32_t>(offset));
    }
    beacl_t& acl_space(AclOffset offset) const {
        return *at<beacl_t>(header().acl_offset, static_cast<std::uint32_t>(offset));
    }
    child_list_t& list_space(ListOffset offset) const {
        return *at<child_list_t>(header().list_offset, static_cast<std::uint32_t>(offset));
    }

    ElementOffset offset_of(const fs_elem_t& element) const {
        return ElementOffset{static_cast<std::uint32_t>(
            reinterpret_cast<const std::byte*>(&element) - base_ - header().fselem_offset)};
    }

    // Records that must be there.
    fs_elem_t& element(ElementOffset offset) const {
        fs_elem_t& found = element_space(offset);
        KV_ASSERT_AS(found.signature == FSELEMSIG, "fselem->signature == FSELEMSIG");
        return found;
    }
    name_elem_t& name_of(const fs_elem_t& element) const {
        name_elem_t& found = name_space(NameOffset{element.name_elem_offset});
        KV_ASSERT_AS(found.signature == NAMESIG, "nameelem->signature == NAMESIG");
        return found;
    }
    child_list_t& children_of(const fs_elem_t& element) const {
        child_list_t& found = list_space(ListOffset{element.clist_offset});
        KV_ASSERT_AS(found.signature == LISTSIG, "clist->signature == LISTSIG");
        return found;
    }
    // An ACL's signature is not asserted: readers have never looked at it.
    beacl_t& acl_of(const fs_elem_t& element) const {
        return acl_space(AclOffset{element.acl_offset});
    }

private:
    template <typename Record>
    Record* at(std::uint32_t region, std::uint32_t offset) const {
        return reinterpret_cast<Record*>(base_ + region + offset);
    }

    std::byte* base_;
};

inline std::string_view text_of(const name_elem_t& name) {
    return {name.name, name.name_len};
}

inline void assert_validity_mark(const ImageView& image) {
    KV_ASSERT_AS(image.has_validity_mark(), "beheader->signature == KAVRIN_BE_HEADER_SIGNATURE");
}

}  // namespace kavrin
