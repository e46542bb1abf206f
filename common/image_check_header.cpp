// The header's laws. Three counts decide every other field, and each count shows in three fields:
// what two of them agree on is taken for true, so that one damaged field is named alone instead of
// all that it contradicts.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "image_check_parts.h"
#include "utf8.h"

namespace kvadmin::image_check {
namespace {

using Guess = std::optional<std::uint64_t>;

constexpr std::uint64_t kNameBytesPerElement = kNameHeadSize;
constexpr std::uint64_t kAclBytesPerElement = kAclHeadSize;
constexpr std::uint64_t kListBytesPerElement = 16;
constexpr std::uint64_t kLargestImage = 0xFFFFFFFF;

Guess difference(std::uint64_t from, std::uint64_t what) {
    if (from < what) return std::nullopt;
    return from - what;
}

Guess quotient(Guess value, std::uint64_t by) {
    if (!value || *value % by != 0) return std::nullopt;
    return *value / by;
}

// What two of three fields say, else what the first says.
std::uint64_t majority(std::uint64_t first, Guess second, Guess third) {
    if (second && second == third) return *second;
    return first;
}

Counts agreed_counts(const kavrin_be_header_t& header, std::uint64_t size) {
    Counts counts;
    counts.elements = majority(header.total_fselems, quotient(header.fselem_size, kElementSize),
                               quotient(header.list_size, kListBytesPerElement));
    const std::uint64_t acl_heads = kAclBytesPerElement * counts.elements;
    counts.aces =
        majority(header.total_aces, quotient(difference(header.acl_size, acl_heads), kAceSize),
                 quotient(difference(header.list_offset, header.acl_offset + acl_heads), kAceSize));

    const std::uint64_t name_heads = kNameBytesPerElement * counts.elements;
    const Guess by_size = difference(header.nameelem_size, name_heads);
    const Guess by_region = difference(header.acl_offset, header.nameelem_offset + name_heads);
    const Guess by_image = difference(size, counts.image_size());
    counts.name_bytes = majority(by_size.value_or(0), by_region, by_image);
    return counts;
}

struct Field {
    const char* name;
    std::size_t offset;
    std::uint64_t found;
    std::uint64_t expected;
};

void check_fields(const kavrin_be_header_t& header, const Counts& counts, Findings& findings) {
    const Layout layout = counts.layout();
    const Field fields[] = {
#define KV_FIELD(field, expected) \
    Field{#field, offsetof(kavrin_be_header_t, field), header.field, expected}
        KV_FIELD(total_fselems, counts.elements),
        KV_FIELD(total_aces, counts.aces),
        KV_FIELD(total_lists, 0),
        KV_FIELD(fselem_offset, layout.elements.start),
        KV_FIELD(fselem_size, layout.elements.size),
        KV_FIELD(next_free_fselem, layout.elements.size),
        KV_FIELD(nameelem_offset, layout.names.start),
        KV_FIELD(nameelem_size, layout.names.size),
        KV_FIELD(next_free_nameelem, layout.names.size),
        KV_FIELD(acl_offset, layout.acls.start),
        KV_FIELD(acl_size, layout.acls.size),
        KV_FIELD(next_free_acl, layout.acls.size),
        KV_FIELD(list_offset, layout.lists.start),
        KV_FIELD(list_size, layout.lists.size),
#undef KV_FIELD
    };
    for (const Field& field : fields) {
        if (field.found == field.expected) continue;
        findings.add(ImageRecord::kHeader, field.offset, kNobody,
                     "{} is {}, but {} elements, {} ACEs and {} bytes of names make it {}",
                     field.name, field.found, counts.elements, counts.aces, counts.name_bytes,
                     field.expected);
    }
}

// A text field: valid text, then zeros to its end.
void check_text(const char* name, std::size_t offset, std::string_view field, bool may_fill,
                Findings& findings) {
    const std::size_t length = std::min(field.find('\0'), field.size());
    if (length == field.size() && !may_fill)
        findings.add(ImageRecord::kHeader, offset, kNobody, "{} does not end inside its {} bytes",
                     name, field.size());
    if (!is_utf8(field.substr(0, length)))
        findings.add(ImageRecord::kHeader, offset, kNobody, "{} is not valid UTF-8", name);
    if (field.find_first_not_of('\0', length) != std::string_view::npos)
        findings.add(ImageRecord::kHeader, offset, kNobody,
                     "{} is not padded with zeros after its end", name);
}

void check_texts(const kavrin_be_header_t& header, Findings& findings) {
    check_text("mapname", offsetof(kavrin_be_header_t, mapname),
               {header.mapname, sizeof header.mapname}, false, findings);
    check_text("version", offsetof(kavrin_be_header_t, version),
               {header.version, sizeof header.version}, true, findings);
    const std::string_view next(header.nextmap, sizeof header.nextmap);
    if (next.find_first_not_of('\0') != std::string_view::npos)
        findings.add(ImageRecord::kHeader, offsetof(kavrin_be_header_t, nextmap), kNobody,
                     "nextmap is not zero");
}

}  // namespace

Layout Counts::layout() const {
    Layout layout;
    layout.elements = {kHeaderSize, kElementSize * elements};
    layout.names = {layout.elements.start + layout.elements.size,
                    name_bytes + kNameBytesPerElement * elements};
    layout.acls = {layout.names.start + layout.names.size,
                   kAceSize * aces + kAclBytesPerElement * elements};
    layout.lists = {layout.acls.start + layout.acls.size, kListBytesPerElement * elements};
    return layout;
}

std::uint64_t Counts::image_size() const {
    const Layout whole = layout();
    return whole.lists.start + whole.lists.size;
}

std::optional<Counts> check_header(std::span<const std::uint8_t> bytes, Findings& findings) {
    if (bytes.size() < kHeaderSize) {
        findings.add(ImageRecord::kImage, 0, kNobody,
                     "has {} bytes, which is less than the {} of a header", bytes.size(),
                     kHeaderSize);
        return std::nullopt;
    }
    if (bytes.size() > kLargestImage) {
        findings.add(ImageRecord::kImage, 0, kNobody, "has {} bytes, more than offsets can reach",
                     bytes.size());
        return std::nullopt;
    }
    kavrin_be_header_t header;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.signature != KAVRIN_BE_HEADER_SIGNATURE)
        findings.add(ImageRecord::kHeader, offsetof(kavrin_be_header_t, signature), kNobody,
                     "signature is {:#010x}, not {:#010x}: this is no finished permission map",
                     header.signature, KAVRIN_BE_HEADER_SIGNATURE);
    check_texts(header, findings);
    const Counts counts = agreed_counts(header, bytes.size());
    check_fields(header, counts, findings);
    if (counts.elements == 0)
        findings.add(ImageRecord::kImage, 0, kNobody, "has no elements, not even a root");
    if (counts.image_size() != bytes.size())
        findings.add(ImageRecord::kImage, 0, kNobody, "has {} bytes, but its counts make {}",
                     bytes.size(), counts.image_size());
    if (counts.elements == 0 || counts.image_size() > bytes.size()) return std::nullopt;
    return counts;
}

}  // namespace kvadmin::image_check
