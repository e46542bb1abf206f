// Elements: what each says of itself, that nothing it refers to belongs to another, and that the
// child lists make one tree of them in the order of the document.
//
// Who an element's parent is stands in two places, its own record and its parent's list. The lists
// are believed; they only count where they name a later element, so that following parents ends,
// whatever the bytes are.
#include <algorithm>
#include <cstring>

#include "image_check_parts.h"

namespace kvadmin::image_check {
namespace {

constexpr std::uint32_t kKnownFlags = FSELEM_FLAG_ROOT | FSELEM_FLAG_NOCHILDREN;

template <typename... Args>
void find(Check& check, std::uint32_t index, fmt::format_string<Args...> format, Args&&... args) {
    check.findings.add(ImageRecord::kElement, offset_of(index), index, format,
                       std::forward<Args>(args)...);
}

bool is_childless(const fs_elem_t& element) {
    return (element.flags & FSELEM_FLAG_NOCHILDREN) != 0;
}

void check_own_fields(Check& check, std::uint32_t index, const fs_elem_t& element) {
    if (element.signature != FSELEMSIG)
        find(check, index, "its signature is {:#010x}, not {:#010x}", element.signature, FSELEMSIG);
    if ((element.flags & ~kKnownFlags) != 0)
        find(check, index, "its flags are {:#x}; only {:#x} have a meaning", element.flags,
             kKnownFlags);
    const bool says_root = (element.flags & FSELEM_FLAG_ROOT) != 0;
    if (index == 0 && !says_root) find(check, index, "it is the root and is not flagged as such");
    if (index != 0 && says_root) find(check, index, "it is not the root and is flagged as such");
    if (index == 0 && element.parent_offset != FSELEM_ROOT_OFFSET2)
        find(check, index, "the root's parent_offset is {:#010x}, not {:#010x}",
             element.parent_offset, FSELEM_ROOT_OFFSET2);
}

// Notes that the element claims the record at `offset`; a record belongs to one element only.
void claim(Check& check, RegionMap& map, std::uint32_t index, std::uint32_t offset) {
    if (!map.is_place(offset)) return;  // check_targets() says so
    if (map.is_referenced(offset)) return check.findings.add_shared(map.record, offset, index);
    map.referenced.set(offset / map.alignment);
}

void check_list_field(Check& check, std::uint32_t index, const fs_elem_t& element) {
    if (is_childless(element)) {
        if (element.clist_offset != 0)
            find(check, index, "it is marked childless and refers to the child list at {}",
                 element.clist_offset);
    } else if (element.clist_offset == kTopLevelList) {
        find(check, index, "it has no child list and is not marked childless");
    }
    if (element.clist_offset != kTopLevelList)
        claim(check, check.lists, index, element.clist_offset);
}

void check_target(Check& check, const RegionMap& map, std::uint32_t index, const char* field,
                  std::uint32_t offset) {
    if (map.is_start(offset)) return;
    if (offset >= map.extent.size) {
        find(check, index, "its {} is {}, outside of the {} region of {} bytes", field, offset,
             map.region_name, map.extent.size);
    } else {
        find(check, index, "its {} is {}, where no {} begins", field, offset, word_for(map.record));
    }
}

void check_targets(Check& check) {
    for (std::uint32_t index = 0; index < check.element_count(); ++index) {
        const fs_elem_t element = check.element(index);
        if (was_never_made(element)) continue;
        check_target(check, check.names, index, "name_elem_offset", element.name_elem_offset);
        check_target(check, check.acls, index, "acl_offset", element.acl_offset);
        if (element.clist_offset != kTopLevelList)
            check_target(check, check.lists, index, "clist_offset", element.clist_offset);
    }
}

void check_root_name(Check& check) {
    const NameOffset name{check.element(0).name_elem_offset};
    const auto text = check.image.name_text(name);
    if (check.names.is_start(static_cast<std::uint32_t>(name)) && text != "/")
        check.findings.add(ImageRecord::kName, static_cast<std::uint32_t>(name), 0,
                           "the root's name is not '/'");
}

// One list's slots. `index` is its element.
class SlotReader {
public:
    SlotReader(Check& check, std::uint32_t index, std::uint32_t list)
        : check_(check), index_(index), list_(list) {}

    void run() {
        const std::uint64_t bytes = check_.lists.bytes_of(list_);
        if (bytes < kListHeadSize) return;
        const std::uint64_t slots = (bytes - kListHeadSize) / kSlotSize;
        for (std::uint64_t i = 0; i < slots; ++i)
            take(i, static_cast<std::uint32_t>(*check_.image.slot(ListOffset{list_}, i)));
    }

private:
    template <typename... Args>
    void find_in_list(fmt::format_string<Args...> format, Args&&... args) {
        check_.findings.add(ImageRecord::kChildList, list_, index_, format,
                            std::forward<Args>(args)...);
    }

    void take(std::uint64_t slot, std::uint32_t offset) {
        const std::uint32_t child = offset / static_cast<std::uint32_t>(kElementSize);
        if (offset % kElementSize != 0 || child >= check_.element_count())
            return find_in_list("slot {} is {}, where no element is", slot, offset);
        if (child <= index_)
            return find_in_list("slot {} names the element at {}, which is not behind its folder",
                                slot, offset);
        if (offset <= last_)
            find_in_list(
                "slot {} names the element at {}, which is not behind that of the slot "
                "before",
                slot, offset);
        last_ = offset;
        std::uint32_t& parent = check_.parents[child];
        if (parent != kNobody) {
            find_in_list("slot {} names the element at {}, which a slot at {} names, too", slot,
                         offset, check_.element(parent).clist_offset);
            // Of two that list it, the one that the element itself names is the better guess.
            if (check_.element(child).parent_offset != offset_of(index_)) return;
        }
        parent = index_;
    }

    Check& check_;
    std::uint32_t index_;
    std::uint32_t list_;
    std::uint32_t last_ = 0;
};

void read_lists(Check& check) {
    for (std::uint32_t index = 0; index < check.element_count(); ++index) {
        const fs_elem_t element = check.element(index);
        const std::uint32_t list = element.clist_offset;
        if (list == kTopLevelList || !check.lists.is_start(list)) continue;
        // A list is read for the first element that claims it, and once.
        if (!check.lists.is_referenced(list)) continue;
        check.lists.referenced.clear(list / check.lists.alignment);
        SlotReader(check, index, list).run();
    }
}

// Every element but the root is listed by its parent; one that nobody lists is given the parent it
// names itself, if that can be.
void check_parents(Check& check) {
    for (std::uint32_t index = 1; index < check.element_count(); ++index) {
        const fs_elem_t element = check.element(index);
        if (was_never_made(element)) continue;
        std::uint32_t& parent = check.parents[index];
        if (parent == kNobody) {
            find(check, index, "no child list names it");
            if (element.parent_offset % kElementSize == 0 &&
                element.parent_offset < offset_of(index))
                parent = element.parent_offset / static_cast<std::uint32_t>(kElementSize);
        } else if (element.parent_offset != offset_of(parent)) {
            find(check, index, "its parent_offset is {}, but the element at {} lists it",
                 element.parent_offset, offset_of(parent));
        }
    }
}

// Elements stand in the order in which the document opens them: each behind its parent, with
// nothing between them but what lies below the parent.
void check_order(Check& check) {
    std::vector<std::uint32_t> way{0};  // the folders that are open
    Bits open(check.element_count());
    open.set(0);
    for (std::uint32_t index = 1; index < check.element_count(); ++index) {
        const std::uint32_t parent = check.parents[index];
        if (parent == kNobody) continue;
        if (open.test(parent)) {
            for (; way.back() != parent; way.pop_back()) open.clear(way.back());
        } else {
            find(check, index,
                 "it does not stand below its parent: elements of another folder "
                 "lie between them");
        }
        way.push_back(index);
        open.set(index);
    }
}

}  // namespace

bool was_never_made(const fs_elem_t& element) {
    static constexpr fs_elem_t kNothing{};
    return std::memcmp(&element, &kNothing, sizeof element) == 0;
}

void check_references(Check& check) {
    for (std::uint32_t index = 0; index < check.element_count(); ++index) {
        const fs_elem_t element = check.element(index);
        if (was_never_made(element)) {
            check.findings.add(ImageRecord::kElement, offset_of(index), kNobody,
                               "it is all zero: no element was made here");
            continue;
        }
        check_own_fields(check, index, element);
        claim(check, check.names, index, element.name_elem_offset);
        claim(check, check.acls, index, element.acl_offset);
        check_list_field(check, index, element);
    }
}

void check_tree(Check& check) {
    check_targets(check);
    check_root_name(check);
    read_lists(check);
    check_parents(check);
    check_order(check);
}

}  // namespace kvadmin::image_check
