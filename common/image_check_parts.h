// What the parts of the image checker share: where records begin, who refers to them, what was
// found. The parts run in one order: header (which settles the layout), references (what elements
// claim), regions (where records really lie), tree (who lists whom, and in which order).
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "image_check.h"
#include "image_reader.h"

namespace kvadmin::image_check {

// A set of places of a region, one bit each.
class Bits {
public:
    explicit Bits(std::uint64_t size) : size_(size), words_((size + 63) / 64) {}

    bool test(std::uint64_t at) const {
        return at < size_ && ((words_[at / 64] >> (at % 64)) & 1) != 0;
    }
    void set(std::uint64_t at) { words_[at / 64] |= std::uint64_t{1} << (at % 64); }
    void clear(std::uint64_t at) { words_[at / 64] &= ~(std::uint64_t{1} << (at % 64)); }
    // The first member that is at least `from` and less than `end`.
    std::optional<std::uint64_t> next(std::uint64_t from, std::uint64_t end) const;

private:
    std::uint64_t size_;
    std::vector<std::uint64_t> words_;
};

// One region of records of different lengths.
struct RegionMap {
    ImageRecord record;
    Extent extent;
    std::uint64_t alignment;  // every record begins at a multiple of it
    std::uint32_t cursor;     // bytes used, as the header says
    const char* region_name;
    Bits referenced;         // some element claims that a record begins here
    Bits starts;             // a record does begin here
    std::uint64_t used = 0;  // where the last record ends

    RegionMap(ImageRecord kind, const Extent& bytes, std::uint64_t step, std::uint32_t next_free,
              const char* name)
        : record(kind),
          extent(bytes),
          alignment(step),
          cursor(next_free),
          region_name(name),
          referenced(bytes.size / step),
          starts(bytes.size / step) {}

    bool is_place(std::uint64_t offset) const {
        return offset % alignment == 0 && offset / alignment < extent.size / alignment;
    }
    bool is_start(std::uint64_t offset) const {
        return is_place(offset) && starts.test(offset / alignment);
    }
    bool is_referenced(std::uint64_t offset) const {
        return is_place(offset) && referenced.test(offset / alignment);
    }
    // Bytes from this start to the next one, or to the end of the last record.
    std::uint64_t bytes_of(std::uint64_t start) const;
};

inline constexpr std::uint32_t kNobody = 0xFFFFFFFF;

// Everything found so far. Texts are made only for the findings that are kept.
class Findings {
public:
    template <typename... Args>
    void add(ImageRecord record, std::uint64_t region_offset, std::uint32_t element,
             fmt::format_string<Args...> format, Args&&... args) {
        ++total_;
        if (kept_.size() >= ImageReport::kKeptFindings) return;
        kept_.push_back({record, region_offset, element, kNobody,
                         fmt::format(format, std::forward<Args>(args)...)});
    }
    // A record that an element claims after another one did; which one is found out at the end.
    void add_shared(ImageRecord record, std::uint64_t region_offset, std::uint32_t second) {
        add(record, region_offset, kNobody, "");
        if (total_ <= ImageReport::kKeptFindings) kept_.back().second = second;
    }
    struct Kept {
        ImageRecord record;
        std::uint64_t region_offset;
        std::uint32_t element;  // index of the element it belongs to, or kNobody
        std::uint32_t second;   // of one that claims it, too
        std::string message;
    };
    std::uint64_t total() const { return total_; }
    std::vector<Kept>& kept() { return kept_; }

private:
    std::uint64_t total_ = 0;
    std::vector<Kept> kept_;
};

// The counts that the whole layout follows from: elements, ACEs, bytes of names.
struct Counts {
    std::uint64_t elements = 0;
    std::uint64_t aces = 0;
    std::uint64_t name_bytes = 0;

    Layout layout() const;
    std::uint64_t image_size() const;
};

struct Check {
    Check(const ImageReader& reader, const Counts& announced);

    ImageReader image;
    Counts counts;
    RegionMap names;
    RegionMap acls;
    RegionMap lists;
    std::vector<std::uint32_t> parents;  // index of each element's parent by the child lists
    Findings findings;

    std::uint32_t element_count() const { return static_cast<std::uint32_t>(counts.elements); }
    fs_elem_t element(std::uint32_t index) const;
};

// No record that the builder made is all zero: the count says more elements than it made.
bool was_never_made(const fs_elem_t& element);

inline constexpr std::uint32_t offset_of(std::uint32_t index) {
    return index * static_cast<std::uint32_t>(kElementSize);
}

// The first child list of every image belongs to the document's top level and not to an element.
inline constexpr std::uint32_t kTopLevelList = 0;

// Judges the header's fields against each other and against the bytes; the counts that most of them
// agree on come back, or nothing when no layout they give lies inside the bytes.
std::optional<Counts> check_header(std::span<const std::uint8_t> bytes, Findings& findings);

void check_references(Check& check);  // elements: their own fields, and what they refer to
void check_names(Check& check);
void check_acls(Check& check);
void check_lists(Check& check);
void check_tree(Check& check);  // needs all of the above

}  // namespace kvadmin::image_check
