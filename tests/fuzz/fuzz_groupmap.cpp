// Feeds the check of group-map files hostile bytes, and the tool's JSON reader hostile texts. An
// input that begins with '{' is a text; one that begins with 'P' is a list of changes to an honest
// file, five bytes each: place, kind, value; any other is a file as it is.
//
// Beyond crashes it looks for contradictions: a file that is called sound is read by the library,
// which trusts it, in memory that ends with the file; and a text that is taken makes a sound file
// in which each of its users is found.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "groupmap_check.h"
#include "groupmap_source.h"

namespace {

using kvadmin::GroupMapContent;
using kvadmin::GroupMapReport;
using kvadmin::GroupMapView;
using Bytes = std::vector<std::uint8_t>;

void require(bool condition) {
    if (!condition) std::abort();
}

// The reader lists what it finds on the library's standard error; the fuzzer's own stays.
void silence_reader() {
    static const bool silenced = [] {
        stderr = std::fopen("/dev/null", "w");
        return stderr != nullptr;
    }();
    require(silenced);
}

std::vector<std::uint32_t> look_up(const Bytes& bytes, const std::string& user) {
    std::uint32_t count = 0;
    const std::unique_ptr<gid_t, decltype(&std::free)> gids(
        kavrin_getgrouplist(bytes.data(), static_cast<std::uint32_t>(bytes.size()), user.c_str(),
                            &count),
        &std::free);
    require(gids != nullptr);
    return {gids.get(), gids.get() + count};
}

// What the library finds in a sound file is what the records say.
void read_sound(const Bytes& bytes) {
    const auto map = GroupMapView::open(bytes);
    require(map.has_value());
    for (std::uint32_t i = 0; i < map->header().unum && i < 8; ++i) {
        const auto user = map->user(i);
        require(user.has_value());
        const auto name = map->name_at(user->noffs);
        require(name.has_value() && name->size() == user->nlen);
        if (user->glen > 4'096) continue;  // the reader prints each
        const std::vector<std::uint32_t> gids = look_up(bytes, std::string(*name));
        require(gids.size() == user->glen);
        for (std::uint32_t k = 0; k < gids.size(); ++k) require(map->gid(*user, k) == gids[k]);
    }
    for (std::uint32_t i = 0; i < map->header().rnum && i < 8; ++i) {
        const auto group = map->reserved(i);
        require(group.has_value() && group->gid != 0);
        const auto name = map->name_at(group->noffs);
        require(name.has_value());
        require(kavrin_reserved_gid(bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                                    std::string(*name).c_str()) == group->gid);
    }
}

void check(Bytes bytes) {
    bytes.shrink_to_fit();
    const GroupMapReport report = kvadmin::check_groupmap(bytes);
    require(report.sound() == kvadmin::first_fault(report).empty());
    require(report.findings.size() <= report.faults + report.remarks);
    for (const auto& finding : report.findings) require(!line_for(finding).empty());
    if (report.sound()) read_sound(bytes);
}

const Bytes& honest_file() {
    static const Bytes file = [] {
        const std::string text = kvadmin::encode_groupmap(
            {{{"kavrin-admins", 3001}, {"kavrin-powerusers", 3002}},
             {{"alice", {1000, 3001}}, {"Bob", {}}, {"carol", {1000, 1005, 3002}}, {"root", {0}}}});
        return Bytes(text.begin(), text.end());
    }();
    return file;
}

Bytes changed_file(const std::uint8_t* changes, std::size_t size) {
    Bytes file = honest_file();
    for (std::size_t i = 0; i + 5 <= size; i += 5) {
        const std::size_t kind = changes[i + 2] % 6;
        // Most changes go to the records; the others anywhere.
        const std::size_t place = changes[i] + 256u * changes[i + 1];
        const std::size_t at = place % (kind < 4 ? 192 : file.size() - 4);
        const std::uint32_t value = changes[i + 3] + 256u * changes[i + 4];
        const std::uint32_t words[] = {
            value,       ~value, value << 16,
            value << 28, value,  static_cast<std::uint32_t>(file.size()) - value % 64};
        if (kind == 4)
            file[at] ^= static_cast<std::uint8_t>(1u << value % 8);
        else
            std::memcpy(file.data() + at / 4 * 4, &words[kind], 4);
        if (value == 0xFFFF) file.resize(8192 + place % 3 * 4096);
    }
    return file;
}

void read_text(const std::uint8_t* bytes, std::size_t size) {
    static const int file = memfd_create("groups", MFD_CLOEXEC);
    require(file >= 0 && ftruncate(file, 0) == 0);
    require(pwrite(file, bytes, size, 0) == static_cast<ssize_t>(size));
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    GroupMapContent content;
    try {
        content = kvadmin::groupmap_of_json(path);
    } catch (const kvadmin::CommandError& error) {
        require(error.code == kvadmin::Exit::kInvalidInput && !error.message.empty());
        return;
    }
    const std::string text = kvadmin::encode_groupmap(content);
    const Bytes encoded(text.begin(), text.end());
    require(kvadmin::check_groupmap(encoded).sound());
    for (const auto& user : content.users) require(look_up(encoded, user.name) == user.gids);
    read_sound(encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    silence_reader();
    if (size > 0 && bytes[0] == '{')
        read_text(bytes, size);
    else if (size > 0 && bytes[0] == 'P')
        check(changed_file(bytes + 1, size - 1));
    else
        check(Bytes(bytes, bytes + size));
    return 0;
}
