// Names, ACLs and child lists: each region is walked from its start, record by record, and every
// byte must belong to one record or to the zeros behind the last.
//
// A record says itself where the next one begins, so one damaged count would make garbage of all
// that follows. What elements refer to is the second opinion: where a record's length leads to no
// record, the walk names that record and goes on at the next place that an element refers to and
// that bears the right signature. It never goes back, so it is linear whatever the bytes are.
#include <algorithm>
#include <cstddef>

#include "image_check_parts.h"
#include "perm_utils.h"
#include "utf8.h"

namespace kvadmin::image_check {
namespace {

bool is_ascii(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

// What the walk asks of each kind of record. `bytes_by_head` is the record's size by its own count,
// `vouches` whether its content supports that count, and `inspect` judges the record itself, which
// has `extent` bytes.
class Names {
public:
    static constexpr std::uint64_t kHead = kNameHeadSize;
    explicit Names(Check& check) : check_(check) {}
    RegionMap& map() { return check_.names; }

    bool is_signed(std::uint64_t at) const {
        const auto head = check_.image.name_head(offset(at));
        return head && head->signature == NAMESIG;
    }
    std::uint64_t bytes_by_head(std::uint64_t at) const {
        return kNameHeadSize + check_.image.name_head(offset(at))->length + 1;
    }
    bool vouches(std::uint64_t at) const {
        const auto text = check_.image.name_text(offset(at));
        return text && !text->empty() && check_.image.name_head(offset(at))->hash == hash(*text);
    }
    bool may_stand_alone(std::uint64_t) const { return false; }

    void inspect(std::uint64_t at, std::uint64_t extent) {
        const NameHead head = *check_.image.name_head(offset(at));
        if (head.signature != NAMESIG)
            find(at, "its signature is {:#010x}, not {:#010x}", head.signature, NAMESIG);
        if (head.padding != 0) find(at, "its padding is {:#06x}, not zero", head.padding);
        if (head.length == 0) find(at, "it is empty");
        const auto text = check_.image.name_text(offset(at));
        if (!text || text->empty() || extent < bytes_by_head(at)) return;
        inspect_text(at, head, *text);
    }

private:
    static NameOffset offset(std::uint64_t at) {
        return NameOffset{static_cast<std::uint32_t>(at)};
    }
    static std::uint32_t hash(std::string_view text) {
        return permbe_fname_hash(text.data(), static_cast<std::uint32_t>(text.size()));
    }
    template <typename... Args>
    void find(std::uint64_t at, fmt::format_string<Args...> format, Args&&... args) {
        check_.findings.add(ImageRecord::kName, at, kNobody, format, std::forward<Args>(args)...);
    }

    void inspect_text(std::uint64_t at, const NameHead& head, std::string_view text) {
        if (text.data()[text.size()] != 0) find(at, "no zero byte follows its text");
        if (text.find('\0') != std::string_view::npos) find(at, "a zero byte lies in its text");
        if (!is_ascii(text) && !is_utf8(text)) find(at, "its text is not valid UTF-8");
        if (const std::uint32_t expected = hash(text); head.hash != expected)
            find(at, "its hash is {:#010x}, but '{}' hashes to {:#010x}", head.hash,
                 printable(text.substr(0, 80)), expected);
    }

    Check& check_;
};

class Acls {
public:
    static constexpr std::uint64_t kHead = kAclHeadSize;
    explicit Acls(Check& check) : check_(check) {}
    RegionMap& map() { return check_.acls; }
    std::uint64_t entries() const { return entries_; }

    bool is_signed(std::uint64_t at) const {
        const auto head = check_.image.acl_head(offset(at));
        return head && head->signature == ACLSIG;
    }
    std::uint64_t bytes_by_head(std::uint64_t at) const {
        return kAclHeadSize + kAceSize * check_.image.acl_head(offset(at))->entries;
    }
    bool vouches(std::uint64_t) const { return false; }  // nothing in it tells of its count
    bool may_stand_alone(std::uint64_t) const { return false; }

    void inspect(std::uint64_t at, std::uint64_t extent) {
        const AclHead head = *check_.image.acl_head(offset(at));
        if (head.signature != ACLSIG)
            find(at, "its signature is {:#010x}, not {:#010x}", head.signature, ACLSIG);
        const std::uint64_t count = extent < kAclHeadSize ? 0 : (extent - kAclHeadSize) / kAceSize;
        entries_ += count;
        for (std::uint64_t i = 0; i < count; ++i) {
            const beace_t ace = *check_.image.ace(offset(at), i);
            const std::uint32_t type = ace.idtype;
            const unsigned padding = ace.padding;
            if (type != IDTYPE_UID && type != IDTYPE_GID)
                find(at, "entry {} has the type {}, which is neither a user's nor a group's", i,
                     type);
            if (padding != 0) find(at, "entry {} has the padding {:#06x}, not zero", i, padding);
        }
    }

private:
    static AclOffset offset(std::uint64_t at) { return AclOffset{static_cast<std::uint32_t>(at)}; }
    template <typename... Args>
    void find(std::uint64_t at, fmt::format_string<Args...> format, Args&&... args) {
        check_.findings.add(ImageRecord::kAcl, at, kNobody, format, std::forward<Args>(args)...);
    }

    Check& check_;
    std::uint64_t entries_ = 0;
};

class Lists {
public:
    static constexpr std::uint64_t kHead = kListHeadSize;
    explicit Lists(Check& check) : check_(check) {}
    RegionMap& map() { return check_.lists; }

    bool is_signed(std::uint64_t at) const {
        const auto head = check_.image.list_head(offset(at));
        return head && head->signature == LISTSIG;
    }
    std::uint64_t bytes_by_head(std::uint64_t at) const {
        return kListHeadSize + kSlotSize * check_.image.list_head(offset(at))->capacity;
    }
    bool vouches(std::uint64_t at) const {
        const ListHead head = *check_.image.list_head(offset(at));
        return head.capacity != 0 && head.capacity == head.filled;
    }
    bool may_stand_alone(std::uint64_t at) const { return at == kTopLevelList; }

    void inspect(std::uint64_t at, std::uint64_t) {
        const ListHead head = *check_.image.list_head(offset(at));
        if (head.signature != LISTSIG)
            find(at, "its signature is {:#010x}, not {:#010x}", head.signature, LISTSIG);
        if (at == kTopLevelList) return inspect_top_level(head);
        if (head.capacity == 0) find(at, "it has no slots");
        if (head.filled != head.capacity)
            find(at, "{} of its {} slots are filled", head.filled, head.capacity);
    }

private:
    static ListOffset offset(std::uint64_t at) {
        return ListOffset{static_cast<std::uint32_t>(at)};
    }
    template <typename... Args>
    void find(std::uint64_t at, fmt::format_string<Args...> format, Args&&... args) {
        check_.findings.add(ImageRecord::kChildList, at, kNobody, format,
                            std::forward<Args>(args)...);
    }

    // Whatever the tree is, the document's top level has one slot, which no child ever fills: the
    // root is an element before the list is, and the root's own list takes its place.
    void inspect_top_level(const ListHead& head) {
        if (head.capacity != 1)
            find(kTopLevelList, "the list of the top level has {} slots, not 1", head.capacity);
        if (head.filled != 0)
            find(kTopLevelList, "{} slots of the top level's list are filled, not 0", head.filled);
        const auto only = check_.image.slot(offset(kTopLevelList), 0);
        if (only && *only != kRootElement)
            find(kTopLevelList, "the slot of the top level's list is {}, not 0",
                 static_cast<std::uint32_t>(*only));
    }

    Check& check_;
};

template <typename Kind>
class Walk {
public:
    Walk(Check& check, Kind& kind) : check_(check), kind_(kind), map_(kind.map()) {}

    void run() {
        std::uint64_t at = 0;
        while (begin_record(at)) {
            const std::uint64_t next = end_of(at);
            map_.starts.set(at / map_.alignment);
            if (!map_.is_referenced(at) && !kind_.may_stand_alone(at))
                find(at, "no element refers to it");
            kind_.inspect(at, next - at);
            at = next;
        }
        map_.used = at;
        check_tail();
    }

private:
    template <typename... Args>
    void find(std::uint64_t at, fmt::format_string<Args...> format, Args&&... args) {
        check_.findings.add(map_.record, at, kNobody, format, std::forward<Args>(args)...);
    }

    bool has_room(std::uint64_t at) const {
        return map_.is_place(at) && map_.extent.size - at >= Kind::kHead;
    }
    bool is_signed(std::uint64_t at) const { return has_room(at) && kind_.is_signed(at); }
    bool looks_like_start(std::uint64_t at) const {
        if (!has_room(at)) return false;
        return kind_.is_signed(at) || kind_.may_stand_alone(at) ||
               (map_.is_referenced(at) && at < map_.cursor);
    }

    // The next place that both an element and a signature call a record.
    std::optional<std::uint64_t> next_certain(std::uint64_t from, std::uint64_t end) const {
        const std::uint64_t step = map_.alignment;
        std::uint64_t place = (from + step - 1) / step;
        const std::uint64_t last = std::min(end, map_.extent.size) / step;
        while (const auto found = map_.referenced.next(place, last)) {
            if (is_signed(*found * step)) return *found * step;
            place = *found + 1;
        }
        return std::nullopt;
    }

    // Moves `at` to where the next record begins; false behind the last one.
    bool begin_record(std::uint64_t& at) {
        if (looks_like_start(at)) return true;
        const auto next = next_certain(at, map_.extent.size);
        if (!next) return false;
        find(at, "{} bytes belong to no record", *next - at);
        at = *next;
        return true;
    }

    std::uint64_t end_of(std::uint64_t at) {
        const std::uint64_t claimed = at + kind_.bytes_by_head(at);
        auto next = next_certain(at + 1, claimed);
        if (!next && ends_well(at, claimed)) return claimed;
        if (next) {
            find(at, "it claims {} bytes and so reaches over the record at {}", claimed - at,
                 *next);
            return *next;
        }
        find(at, "it claims {} bytes, and no record begins behind them", claimed - at);
        next = next_certain(at + 1, map_.extent.size);
        if (next) return *next;
        const std::uint64_t end = std::min<std::uint64_t>(map_.cursor, map_.extent.size);
        return end >= at + Kind::kHead ? end : map_.extent.size;
    }

    bool ends_well(std::uint64_t at, std::uint64_t end) const {
        if (end > map_.extent.size) return false;
        return end == map_.extent.size || end == map_.cursor || looks_like_start(end) ||
               kind_.vouches(at);
    }

    void check_tail() {
        const std::uint8_t* bytes = check_.image.bytes().data() + map_.extent.start;
        const std::uint8_t* end = bytes + map_.extent.size;
        const std::uint8_t* first =
            std::find_if(bytes + map_.used, end, [](std::uint8_t byte) { return byte != 0; });
        if (first != end)
            find(static_cast<std::uint64_t>(first - bytes),
                 "the byte {:#04x} lies behind the last record, where all is zero", *first);
    }

    Check& check_;
    Kind& kind_;
    RegionMap& map_;
};

// Names and ACLs fill their regions to the last byte.
void require_full(Check& check, const RegionMap& map) {
    if (map.used != map.extent.size)
        check.findings.add(ImageRecord::kImage, 0, kNobody,
                           "has records in {} of the {} bytes of its {} region", map.used,
                           map.extent.size, map.region_name);
}

}  // namespace

std::uint64_t RegionMap::bytes_of(std::uint64_t start) const {
    const auto next = starts.next(start / alignment + 1, extent.size / alignment);
    return (next ? *next * alignment : used) - start;
}

void check_names(Check& check) {
    Names names(check);
    Walk(check, names).run();
    require_full(check, check.names);
}

void check_acls(Check& check) {
    Acls acls(check);
    Walk(check, acls).run();
    require_full(check, check.acls);
    if (acls.entries() != check.counts.aces)
        check.findings.add(ImageRecord::kImage, 0, kNobody,
                           "has {} entries in its ACLs, but its header counts {} ACEs",
                           acls.entries(), check.counts.aces);
}

void check_lists(Check& check) {
    Lists lists(check);
    Walk(check, lists).run();
    if (check.lists.used != check.lists.cursor)
        check.findings.add(ImageRecord::kHeader, offsetof(kavrin_be_header_t, next_free_list),
                           kNobody, "next_free_list is {}, but the child lists end at {}",
                           check.lists.cursor, check.lists.used);
}

}  // namespace kvadmin::image_check
