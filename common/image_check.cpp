// See image_check.h. Here the parts are put in their order, and findings get their paths: most
// records do not know whose they are, so that is looked up once at the end, for those that are
// kept.
#include "image_check.h"

#include <algorithm>
#include <cstddef>

#include "image_check_parts.h"
#include "utf8.h"

namespace kvadmin {
namespace image_check {

std::optional<std::uint64_t> Bits::next(std::uint64_t from, std::uint64_t end) const {
    end = std::min(end, size_);
    if (from >= end) return std::nullopt;
    std::uint64_t word = from / 64;
    std::uint64_t rest = words_[word] & (~std::uint64_t{0} << (from % 64));
    while (rest == 0) {
        if (++word * 64 >= end) return std::nullopt;
        rest = words_[word];
    }
    const std::uint64_t found = word * 64 + static_cast<std::uint64_t>(__builtin_ctzll(rest));
    if (found >= end) return std::nullopt;
    return found;
}

Check::Check(const ImageReader& reader, const Counts& announced)
    : image(reader),
      counts(announced),
      names(ImageRecord::kName, reader.layout().names, 1, reader.header().next_free_nameelem,
            "name"),
      acls(ImageRecord::kAcl, reader.layout().acls, 4, reader.header().next_free_acl, "ACL"),
      lists(ImageRecord::kChildList, reader.layout().lists, 4, reader.header().next_free_list,
            "child-list"),
      parents(announced.elements, kNobody) {}

fs_elem_t Check::element(std::uint32_t index) const {
    return image.element(ElementOffset{offset_of(index)}).value_or(fs_elem_t{});
}

namespace {

constexpr std::size_t kLongestShownPath = 4095;

std::uint64_t region_start(const Layout& layout, ImageRecord record) {
    switch (record) {
        case ImageRecord::kElement:
            return layout.elements.start;
        case ImageRecord::kName:
            return layout.names.start;
        case ImageRecord::kAcl:
            return layout.acls.start;
        case ImageRecord::kChildList:
            return layout.lists.start;
        case ImageRecord::kImage:
        case ImageRecord::kHeader:
            break;
    }
    return 0;
}

std::string_view shown_name(const Check& check, std::uint32_t index) {
    const std::uint32_t name = check.element(index).name_elem_offset;
    if (!check.names.is_start(name)) return "?";
    return check.image.name_text(NameOffset{name}).value_or("?");
}

// The path by the child lists, which the parts have found to lead upwards only.
std::string path_of(const Check& check, std::uint32_t index) {
    std::vector<std::string_view> names;
    std::size_t length = 0;
    std::string path;
    while (index != 0) {
        names.push_back(shown_name(check, index));
        length += names.back().size() + 1;
        index = check.parents[index];
        if (index == kNobody || length > kLongestShownPath) {
            path = "…";
            break;
        }
    }
    for (std::size_t i = names.size(); i-- > 0;) path.append("/").append(names[i]);
    return path.empty() ? "/" : path;
}

// Finds, in one pass over the elements, the first one that refers to each record.
void find_owners(const Check& check, std::vector<Findings::Kept>& kept) {
    std::unordered_map<std::uint64_t, std::uint32_t> owners[3];
    const auto slot_of = [](ImageRecord record) {
        return static_cast<std::size_t>(record) - static_cast<std::size_t>(ImageRecord::kName);
    };
    const auto has_owner = [](const Findings::Kept& finding) {
        return finding.record >= ImageRecord::kName && finding.element == kNobody;
    };
    bool any = false;
    for (const Findings::Kept& finding : kept) {
        if (!has_owner(finding)) continue;
        owners[slot_of(finding.record)].emplace(finding.region_offset, kNobody);
        any = true;
    }
    if (!any) return;
    for (std::uint32_t index = 0; index < check.element_count(); ++index) {
        const fs_elem_t element = check.element(index);
        if (was_never_made(element)) continue;
        const std::uint32_t offsets[] = {element.name_elem_offset, element.acl_offset,
                                         element.clist_offset};
        for (std::size_t i = 0; i < std::size(offsets); ++i) {
            if (i == 2 && offsets[i] == kTopLevelList) continue;
            const auto found = owners[i].find(offsets[i]);
            if (found != owners[i].end() && found->second == kNobody) found->second = index;
        }
    }
    for (Findings::Kept& finding : kept) {
        if (!has_owner(finding)) continue;
        finding.element = owners[slot_of(finding.record)].at(finding.region_offset);
        if (finding.second != kNobody && finding.element != kNobody)
            finding.message =
                fmt::format("the elements at {} and {} both refer to it; a record belongs to one",
                            offset_of(finding.element), offset_of(finding.second));
    }
}

void report_regions(Check& check, ImageReport& report) {
    check_references(check);
    check_names(check);
    check_acls(check);
    check_lists(check);
    check_tree(check);
    find_owners(check, check.findings.kept());
    report.walked = true;
}

}  // namespace
}  // namespace image_check

std::string_view word_for(ImageRecord record) {
    switch (record) {
        case ImageRecord::kImage:
            return "image";
        case ImageRecord::kHeader:
            return "header";
        case ImageRecord::kElement:
            return "element";
        case ImageRecord::kName:
            return "name";
        case ImageRecord::kAcl:
            return "ACL";
        case ImageRecord::kChildList:
            return "child list";
    }
    return "record";
}

std::string line_for(const ImageFinding& finding) {
    if (finding.record == ImageRecord::kImage) return fmt::format("image: it {}", finding.message);
    if (finding.record == ImageRecord::kHeader)
        return fmt::format("header, byte {}: {}", finding.file_offset, finding.message);
    const std::string of = finding.path.empty() ? "" : " of " + printable(finding.path);
    return fmt::format("{} {} (byte {}){}: {}", word_for(finding.record), finding.region_offset,
                       finding.file_offset, of, finding.message);
}

std::string ImageReport::first_line() const {
    return findings.empty() ? std::string() : line_for(findings.front());
}

ImageReport check_image(std::span<const std::uint8_t> bytes) {
    using namespace image_check;
    ImageReport report;
    Findings header_findings;
    const auto counts = check_header(bytes, header_findings);
    const Layout layout = counts ? counts->layout() : Layout{};
    Check check(ImageReader(bytes, layout), counts.value_or(Counts{}));
    check.findings = std::move(header_findings);
    if (counts) {
        report.elements = counts->elements;
        report.aces = counts->aces;
        report_regions(check, report);
    }
    report.findings_total = check.findings.total();
    for (Findings::Kept& kept : check.findings.kept()) {
        ImageFinding finding{kept.record, kept.region_offset,
                             region_start(layout, kept.record) + kept.region_offset, "",
                             std::move(kept.message)};
        if (kept.element != kNobody) finding.path = path_of(check, kept.element);
        report.findings.push_back(std::move(finding));
    }
    return report;
}

}  // namespace kvadmin
