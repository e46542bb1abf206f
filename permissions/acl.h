// ACEs of an in-process ACL as a range, and the walk to the element whose ACL governs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "kavrin_perms.h"
#include "permissions/image_view.h"

namespace kavrin {

class AceIterator {
public:
    using value_type = kavrin_ace_t;
    using difference_type = std::ptrdiff_t;

    explicit AceIterator(oneway_list_elem_t* at = nullptr) : at_(at) {}
    // The links are an ACE's first member.
    kavrin_ace_t& operator*() const { return *reinterpret_cast<kavrin_ace_t*>(at_); }
    kavrin_ace_t* operator->() const { return &**this; }
    AceIterator& operator++() {
        at_ = at_->next_elem;
        return *this;
    }
    bool operator==(const AceIterator&) const = default;

private:
    oneway_list_elem_t* at_;
};

// The ACEs in list order.
class AceRange {
public:
    explicit AceRange(const kavrin_acl_t& acl) : first_(acl.ace_list_head.first_elem) {}
    AceIterator begin() const { return AceIterator(first_); }
    AceIterator end() const { return AceIterator(); }

private:
    oneway_list_elem_t* first_;
};

// The element whose ACL governs the one at `offset`: itself or the nearest ancestor with entries,
// the root at the latest.
ElementOffset governing_element(const ImageView& image, ElementOffset offset);

// Bytes of an ACL's image record, and the record itself into memory of that size.
std::uint32_t record_size(const kavrin_acl_t& acl);
void write_record(const kavrin_acl_t& acl, beacl_t& record);

}  // namespace kavrin
