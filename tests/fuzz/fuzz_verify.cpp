// Feeds the image checker hostile images. An input is an image as it is, or, when it begins with
// 'P', a list of changes to an honest one: five bytes each, place, kind of change, value. So damage
// reaches every record without the fuzzer having to guess signatures and hashes first.
//
// Beyond crashes it looks for contradictions: an image that is called sound is read by the library,
// which trusts it, and every path that leads to an element must be found again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "image_check.h"
#include "image_reader.h"
#include "kavrin.h"
#include "tests/permissions/hand_image.h"

using namespace kvadmin;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// A configuration table that silences the library.
void silence_library() {
    static global_param_t table[PARAM_MAX_INDEX] = {};
    table[PARAM_DEBUG_LEVEL].type = PARAM_VAL_TYPE_INT;
    table[PARAM_DEBUG_LEVEL].value.intval = -1;
    global_params = table;
}

void put(std::vector<std::uint8_t>& image, std::size_t at, std::uint32_t value, std::size_t size) {
    for (std::size_t i = 0; i < size && at + i < image.size(); ++i)
        image[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t get32(const std::vector<std::uint8_t>& image, std::size_t at) {
    std::uint32_t value;
    std::memcpy(&value, &image.at(at), sizeof value);
    return value;
}

// Images written by hand lack the list of the document's top level; the builder makes it before all
// others.
void insert_top_level_list(std::vector<std::uint8_t>& image) {
    constexpr std::uint32_t kBytes = 16;
    const std::uint32_t elements = get32(image, 112);
    const auto lists = image.begin() + get32(image, 160);
    std::rotate(lists, image.end() - kBytes, image.end());
    put(image, get32(image, 160), LISTSIG, 4);
    put(image, get32(image, 160) + 4, 1, 4);
    put(image, 168, get32(image, 168) + kBytes, 4);
    for (std::size_t at = 176; at < 176 + 24 * std::size_t{elements}; at += 24)
        if ((get32(image, at + 20) & FSELEM_FLAG_NOCHILDREN) == 0)
            put(image, at + 12, get32(image, at + 12) + kBytes, 4);
}

const std::vector<std::uint8_t>& honest_image() {
    static const std::vector<std::uint8_t> image = [] {
        using kvtest::HandNode;
        const HandNode report{"report.txt", {}, {}};
        const HandNode docs{"Docs", {{1, 1002, 3}, {2, 1000, 1}}, {report, {"a", {}, {}}}};
        const HandNode shared{"Shared", {{1, 1001, 7}}, {docs, {"Ärger", {{2, 7, 8}}, {}}}};
        const HandNode root{"/", {{2, 1000, 8}}, {shared, {"Private", {{1, 1002, 8}}, {}}}};
        std::vector<std::uint8_t> bytes = kvtest::HandImage(root).bytes();
        insert_top_level_list(bytes);
        require(check_image(bytes).sound());
        return bytes;
    }();
    return image;
}

std::vector<std::uint8_t> changed_image(const std::uint8_t* changes, std::size_t size) {
    std::vector<std::uint8_t> image = honest_image();
    for (std::size_t i = 0; i + 5 <= size && !image.empty(); i += 5) {
        const std::size_t at = (changes[i] + 256u * changes[i + 1]) % image.size();
        const std::uint32_t value = changes[i + 3] + 256u * changes[i + 4];
        switch (changes[i + 2] % 8) {
            case 0:
                image[at] ^= static_cast<std::uint8_t>(1u << value % 8);
                break;
            case 1:
                put(image, at, value, 1);
                break;
            case 2:
                put(image, at, value, 2);
                break;
            case 3:
                put(image, at / 4 * 4, value, 4);
                break;
            case 4:  // a field moves by a little
                put(image, at / 4 * 4, image[at / 4 * 4] + value % 64 * 4, 1);
                break;
            case 5:  // one place is copied to another
                for (std::size_t k = 0; k < 4; ++k)
                    image[(at / 4 * 4 + k) % image.size()] =
                        image[(value / 4 * 4 + k) % image.size()];
                break;
            case 6:
                put(image, at / 4 * 4, ~value, 4);
                break;
            case 7:
                image.resize(value % 16 == 0 ? at : image.size() + value % 16);
                break;
        }
    }
    return image;
}

bool is_ascii(const std::string& text) {
    for (const char c : text)
        if ((c & 0x80) != 0) return false;
    return true;
}

// What the library makes of an element's path; outside ASCII it would ask Samba.
void look_up(std::vector<std::uint8_t>& image, std::string path) {
    if (!is_ascii(path)) return;
    path_array_t* components = nullptr;
    get_path_elem_smb4(path.data(), static_cast<unsigned>(path.size() + 1), &components);
    require(components != nullptr);
    std::uint32_t offset = 0;
    const e_membe_shm_err result = find_fselem_fromname(image.data(), components, &offset);
    require(result == SHM_MEMBE_OK || result == SHM_MEMBE_OK_NAMEREMAPPED);
    cleanup_path_array_smb4(&components);
    kavrin_acl_t* acl = nullptr;
    require(get_kavrin_acl(image.data(), path.data(), &acl) == SHM_MEMBE_OK && acl != nullptr);
    free_ACL(acl);
    std::free(acl);
}

std::uint64_t read(std::vector<std::uint8_t>& bytes, bool sound) {
    const auto image = ImageReader::open(bytes);
    if (!image) return 0;
    std::uint64_t sum = 0;
    for (std::uint32_t i = 0; i < image->element_count() && i < 64; ++i) {
        const ElementOffset element{i * static_cast<std::uint32_t>(kElementSize)};
        const std::string path = image->path_of(element);
        sum += path.size() + image->depth_of(element);
        const ElementOffset governing = image->governing_element(element);
        const auto record = image->element(governing);
        for (std::uint64_t k = 0; record && k < 8; ++k) {
            sum += image->ace(AclOffset{record->acl_offset}, k).has_value();
            sum += image->slot(ListOffset{record->clist_offset}, k).has_value();
        }
        if (sound) look_up(bytes, path);
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    silence_library();
    std::vector<std::uint8_t> image(bytes, bytes + size);
    if (size > 0 && bytes[0] == 'P') image = changed_image(bytes + 1, size - 1);
    image.shrink_to_fit();

    const ImageReport report = check_image(image);
    require(report.sound() == (report.findings_total == 0));
    require(report.findings.size() ==
            std::min<std::uint64_t>(report.findings_total, ImageReport::kKeptFindings));
    require(report.walked || !report.sound());
    for (const ImageFinding& finding : report.findings) {
        require(!line_for(finding).empty() && !finding.message.empty());
        require(finding.file_offset >= finding.region_offset);
    }
    require(read(image, report.sound()) > 0 || image.size() < kHeaderSize || !report.sound());
    return 0;
}
