// A permission map image as bytes that nobody vouches for: a read-only view that checks every
// access against the bytes it has, copies fields out instead of pointing at them (names, ACLs and
// child lists lie at any alignment), and follows no count. The checker reads through it, and so do
// the commands that print maps.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "mkperms_shm.h"

namespace kvadmin {

inline constexpr std::uint64_t kHeaderSize = 176;
inline constexpr std::uint64_t kElementSize = 24;
inline constexpr std::uint64_t kNameHeadSize = 12;
inline constexpr std::uint64_t kAclHeadSize = 8;
inline constexpr std::uint64_t kAceSize = 12;
inline constexpr std::uint64_t kListHeadSize = 12;
inline constexpr std::uint64_t kSlotSize = 4;

// Offsets count from the start of their own region and are types of their own, so that none is
// taken for another's.
enum class ElementOffset : std::uint32_t {};
enum class NameOffset : std::uint32_t {};
enum class AclOffset : std::uint32_t {};
enum class ListOffset : std::uint32_t {};

inline constexpr ElementOffset kRootElement{0};

struct NameHead {
    std::uint16_t length;
    std::uint16_t padding;
    std::uint32_t signature;
    std::uint32_t hash;
};
struct AclHead {
    std::uint32_t signature;
    std::uint32_t entries;
};
struct ListHead {
    std::uint32_t signature;
    std::uint32_t capacity;
    std::uint32_t filled;
};

// Bytes of the image.
struct Extent {
    std::uint64_t start = 0;
    std::uint64_t size = 0;
};
struct Layout {
    Extent elements, names, acls, lists;
};

class ImageReader {
public:
    // Regions as the header gives them, cut to the bytes that are there; nothing without a header.
    static std::optional<ImageReader> open(std::span<const std::uint8_t> bytes);

    // Regions as somebody else worked them out, cut in the same way.
    ImageReader(std::span<const std::uint8_t> bytes, const Layout& layout);

    const kavrin_be_header_t& header() const { return header_; }
    const Layout& layout() const { return layout_; }
    std::span<const std::uint8_t> bytes() const { return bytes_; }
    std::uint64_t element_count() const { return layout_.elements.size / kElementSize; }

    // Records as they lie, whatever their signatures; nothing when one leaves its region.
    std::optional<fs_elem_t> element(ElementOffset offset) const;
    std::optional<NameHead> name_head(NameOffset offset) const;
    std::optional<AclHead> acl_head(AclOffset offset) const;
    std::optional<beace_t> ace(AclOffset offset, std::uint64_t index) const;
    std::optional<ListHead> list_head(ListOffset offset) const;
    std::optional<ElementOffset> slot(ListOffset offset, std::uint64_t index) const;

    // The bytes of a name as long as its head says, when they lie in the region.
    std::optional<std::string_view> name_text(NameOffset offset) const;

    // What readers follow, each nothing when the way is broken. A parent lies before its children,
    // so a climb always ends.
    std::optional<std::string_view> name_of(ElementOffset element) const;
    std::optional<ElementOffset> parent_of(ElementOffset element) const;

    // The element whose ACL governs: itself, or the nearest ancestor that has entries.
    ElementOffset governing_element(ElementOffset element) const;

    // "/Shared/Docs"; what lies too deep to be shown is cut off in front as "…/".
    std::string path_of(ElementOffset element) const;
    // Names on the way from the root, which counts none.
    std::uint64_t depth_of(ElementOffset element) const;

private:
    template <typename Record>
    std::optional<Record> read(const Extent& region, std::uint64_t offset) const;

    std::span<const std::uint8_t> bytes_;
    Layout layout_;
    kavrin_be_header_t header_{};
};

}  // namespace kvadmin
