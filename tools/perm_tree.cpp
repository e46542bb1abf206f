// See perm_tree.h. An image has been verified as a whole before, so a record that cannot be read
// here is one that changed since.
#include "perm_tree.h"

#include <utility>

#include "failure.h"

namespace kvadmin {
namespace {

template <typename Record>
Record readable(const std::optional<Record>& record) {
    if (!record)
        fail(Exit::kInvalidInput,
             "the map changed while it was read; check it with 'kavrinctl map verify'");
    return *record;
}

ElementOffset offset_of(PermTree::Id id) {
    return ElementOffset{static_cast<std::uint32_t>(id * kElementSize)};
}

PermTree::Id id_of(std::uint32_t offset) {
    return static_cast<PermTree::Id>(offset / kElementSize);
}

}  // namespace

PermTree PermTree::of_image(const ImageReader& image) {
    PermTree tree;
    const auto count = static_cast<Id>(image.element_count());
    tree.elements_.reserve(count);
    tree.entries_.reserve(image.layout().acls.size / kAceSize);
    tree.names_.reserve(image.layout().names.size);
    tree.children_.reserve(count);
    for (Id id = 0; id < count; ++id) tree.add_image_element(image, id);
    for (Id id = 0; id < count; ++id) tree.add_image_children(image, id);
    if (count == 0) fail(Exit::kInvalidInput, "the map has no elements");
    return tree;
}

void PermTree::add_image_element(const ImageReader& image, Id id) {
    const fs_elem_t record = readable(image.element(offset_of(id)));
    const Id parent = id == kRoot ? kNone : id_of(record.parent_offset);
    if (parent != kNone && parent >= id) readable(std::optional<int>());
    add(parent);
    set_name(id, readable(image.name_of(offset_of(id))));
    Element& element = elements_[id];
    element.childless = (record.flags & FSELEM_FLAG_NOCHILDREN) != 0;
    const AclOffset acl{record.acl_offset};
    element.acl = entries_.size();
    element.acl_length = readable(image.acl_head(acl)).entries;
    // The builder writes an ACL's entries in reverse.
    for (std::uint64_t i = element.acl_length; i-- > 0;) {
        const beace_t ace = readable(image.ace(acl, i));
        entries_.push_back({ace.idtype == IDTYPE_GID, ace.id, ace.perm_mask});
    }
}

void PermTree::add_image_children(const ImageReader& image, Id id) {
    Element& element = elements_[id];
    element.children = children_.size();
    if (element.childless) return;
    const ListOffset list{readable(image.element(offset_of(id))).clist_offset};
    element.children_length = readable(image.list_head(list)).filled;
    for (std::uint32_t i = 0; i < element.children_length; ++i) {
        const Id child = id_of(static_cast<std::uint32_t>(readable(image.slot(list, i))));
        if (child >= size()) readable(std::optional<int>());
        children_.push_back(child);
    }
}

PermTree::Id PermTree::add(Id parent) {
    Element element;
    element.parent = parent;
    element.depth = parent == kNone ? 0 : elements_[parent].depth + 1;
    elements_.push_back(element);
    return size() - 1;
}

void PermTree::set_name(Id id, std::string_view name) {
    elements_[id].name = names_.size();
    elements_[id].name_length = static_cast<std::uint32_t>(name.size());
    names_ += name;
}

void PermTree::list_children() {
    for (Id id = 1; id < size(); ++id) ++elements_[elements_[id].parent].children_length;
    std::size_t next = 0;
    for (Element& element : elements_) {
        element.children = next;
        element.childless = element.children_length == 0;
        next += std::exchange(element.children_length, 0);
    }
    children_.resize(next);
    for (Id id = 1; id < size(); ++id) {
        Element& parent = elements_[elements_[id].parent];
        children_[parent.children + parent.children_length++] = id;
    }
}

std::string PermTree::path(Id id) const {
    if (id == kRoot) return "/";
    std::vector<Id> way;
    for (; id != kRoot; id = parent(id)) way.push_back(id);
    std::string path;
    for (std::size_t i = way.size(); i-- > 0;) path.append("/").append(name(way[i]));
    return path;
}

}  // namespace kvadmin
