// A permission map as a tree of plain values: what the commands that judge a whole map work on,
// whether it came from an image or straight from a pair of JSON files. Nothing of the machine is
// touched to make one.
//
// Elements are numbered so that a parent comes before its children; of an image, an element's
// number is its offset divided by the size of a record. Children stand in the order in which a
// lookup tries them, ACL entries in the order in which a verdict looks at them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "image_reader.h"

namespace kvadmin {

class PermTree {
public:
    using Id = std::uint32_t;
    static constexpr Id kRoot = 0;
    static constexpr Id kNone = 0xFFFFFFFF;

    struct Entry {
        bool is_group = false;
        std::uint32_t id = 0;
        std::uint32_t mask = 0;
    };

    // A sound image's tree.
    static PermTree of_image(const ImageReader& image);
    // The tree that a load would build from these files. They are checked as `map lint` does;
    // findings go to standard error, and a pair that is not clean is a CommandError.
    static PermTree of_pair(const std::string& size_path, const std::string& data_path);

    Id size() const { return static_cast<Id>(elements_.size()); }
    Id parent(Id id) const { return elements_[id].parent; }  // kNone: the root's
    std::uint32_t depth(Id id) const { return elements_[id].depth; }
    bool childless(Id id) const { return elements_[id].childless; }
    std::string_view name(Id id) const {
        return {names_.data() + elements_[id].name, elements_[id].name_length};
    }
    std::span<const Entry> acl(Id id) const {
        return {entries_.data() + elements_[id].acl, elements_[id].acl_length};
    }
    // Empty for a childless one.
    std::span<const Id> children(Id id) const {
        return {children_.data() + elements_[id].children, elements_[id].children_length};
    }
    // "/Shared/Docs"; "/" for the root.
    std::string path(Id id) const;

private:
    friend class PairTreeReader;

    struct Element {
        Id parent = kNone;
        std::uint32_t depth = 0;
        std::size_t name = 0;
        std::uint32_t name_length = 0;
        bool childless = true;
        std::size_t acl = 0;
        std::uint32_t acl_length = 0;
        std::size_t children = 0;
        std::uint32_t children_length = 0;
    };

    Id add(Id parent);
    void set_name(Id id, std::string_view name);
    void add_image_element(const ImageReader& image, Id id);
    void add_image_children(const ImageReader& image, Id id);
    // Children in the order in which they were added.
    void list_children();

    std::vector<Element> elements_;
    std::vector<Entry> entries_;
    std::vector<Id> children_;
    std::string names_;
};

}  // namespace kvadmin
