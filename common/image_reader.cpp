// See image_reader.h.
#include "image_reader.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace kvadmin {
namespace {

static_assert(sizeof(kavrin_be_header_t) == kHeaderSize && sizeof(fs_elem_t) == kElementSize);
static_assert(sizeof(NameHead) == kNameHeadSize && sizeof(AclHead) == kAclHeadSize);
static_assert(sizeof(beace_t) == kAceSize && sizeof(ListHead) == kListHeadSize);

// More of a path than this is never shown, and no lookup takes one that is longer.
constexpr std::size_t kLongestShownPath = 4095;

Extent cut(const Extent& region, std::uint64_t available) {
    const std::uint64_t start = std::min(region.start, available);
    return {start, std::min(region.size, available - start)};
}

constexpr std::uint64_t raw(auto offset) {
    return static_cast<std::uint64_t>(offset);
}

}  // namespace

std::optional<ImageReader> ImageReader::open(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < kHeaderSize) return std::nullopt;
    kavrin_be_header_t header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return ImageReader(bytes, {{header.fselem_offset, header.fselem_size},
                               {header.nameelem_offset, header.nameelem_size},
                               {header.acl_offset, header.acl_size},
                               {header.list_offset, header.list_size}});
}

ImageReader::ImageReader(std::span<const std::uint8_t> bytes, const Layout& layout)
    : bytes_(bytes),
      layout_{cut(layout.elements, bytes.size()), cut(layout.names, bytes.size()),
              cut(layout.acls, bytes.size()), cut(layout.lists, bytes.size())} {
    if (bytes.size() >= sizeof header_) std::memcpy(&header_, bytes.data(), sizeof header_);
}

template <typename Record>
std::optional<Record> ImageReader::read(const Extent& region, std::uint64_t offset) const {
    if (offset > region.size || region.size - offset < sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, bytes_.data() + region.start + offset, sizeof record);
    return record;
}

std::optional<fs_elem_t> ImageReader::element(ElementOffset offset) const {
    if (raw(offset) % kElementSize != 0) return std::nullopt;
    return read<fs_elem_t>(layout_.elements, raw(offset));
}

std::optional<NameHead> ImageReader::name_head(NameOffset offset) const {
    return read<NameHead>(layout_.names, raw(offset));
}

std::optional<AclHead> ImageReader::acl_head(AclOffset offset) const {
    return read<AclHead>(layout_.acls, raw(offset));
}

std::optional<beace_t> ImageReader::ace(AclOffset offset, std::uint64_t index) const {
    if (index > layout_.acls.size) return std::nullopt;  // before the product could overflow
    return read<beace_t>(layout_.acls, raw(offset) + kAclHeadSize + index * kAceSize);
}

std::optional<ListHead> ImageReader::list_head(ListOffset offset) const {
    return read<ListHead>(layout_.lists, raw(offset));
}

std::optional<ElementOffset> ImageReader::slot(ListOffset offset, std::uint64_t index) const {
    if (index > layout_.lists.size) return std::nullopt;
    const auto value =
        read<std::uint32_t>(layout_.lists, raw(offset) + kListHeadSize + index * kSlotSize);
    if (!value) return std::nullopt;
    return ElementOffset{*value};
}

std::optional<std::string_view> ImageReader::name_text(NameOffset offset) const {
    const auto head = name_head(offset);
    if (!head) return std::nullopt;
    const std::uint64_t start = raw(offset) + kNameHeadSize;
    if (layout_.names.size - start < head->length) return std::nullopt;
    const std::uint8_t* text = bytes_.data() + layout_.names.start + start;
    return std::string_view(reinterpret_cast<const char*>(text), head->length);
}

std::optional<std::string_view> ImageReader::name_of(ElementOffset element_offset) const {
    const auto found = element(element_offset);
    if (!found || found->signature != FSELEMSIG) return std::nullopt;
    const NameOffset name{found->name_elem_offset};
    const auto head = name_head(name);
    if (!head || head->signature != NAMESIG) return std::nullopt;
    return name_text(name);
}

std::optional<ElementOffset> ImageReader::parent_of(ElementOffset element_offset) const {
    const auto found = element(element_offset);
    if (!found || found->parent_offset >= raw(element_offset)) return std::nullopt;
    const ElementOffset parent{found->parent_offset};
    if (!element(parent)) return std::nullopt;
    return parent;
}

ElementOffset ImageReader::governing_element(ElementOffset start) const {
    for (ElementOffset at = start;;) {
        const auto here = element(at);
        if (!here || (here->flags & FSELEM_FLAG_ROOT) != 0) return at;
        const auto acl = acl_head(AclOffset{here->acl_offset});
        if (!acl || acl->entries != 0) return at;
        const auto parent = parent_of(at);
        if (!parent) return at;
        at = *parent;
    }
}

std::string ImageReader::path_of(ElementOffset element_offset) const {
    std::vector<std::string_view> names;
    std::size_t length = 0;
    bool cut_off = false;
    for (ElementOffset at = element_offset; at != kRootElement;) {
        const std::string_view name = name_of(at).value_or("?");
        const auto parent = parent_of(at);
        length += name.size() + 1;
        cut_off = length > kLongestShownPath || !parent;
        if (cut_off) break;
        names.push_back(name);
        at = *parent;
    }
    if (names.empty()) return cut_off ? "…" : "/";
    std::string path = cut_off ? "…" : "";
    for (std::size_t i = names.size(); i-- > 0;) path.append("/").append(names[i]);
    return path;
}

std::uint64_t ImageReader::depth_of(ElementOffset element_offset) const {
    std::uint64_t depth = 0;
    for (auto at = parent_of(element_offset); at; at = parent_of(*at)) ++depth;
    return depth;
}

}  // namespace kvadmin
