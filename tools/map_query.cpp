// See map_query.h.
#include "map_query.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "asking_samba.h"
#include "explain.h"
#include "failure.h"
#include "kavrin_perms.h"
#include "kavrin_utils.h"
#include "perm_utils.h"

namespace kvadmin {
namespace {

constexpr std::size_t kLongestPath = 4095;

void require_samba_for(const std::string& path) {
    if (std::all_of(path.begin(), path.end(), [](char c) { return (c & 0x80) == 0; })) return;
    const AskingSamba asking;
    init_samba_lib_handle();
}

std::string normalised(const std::string& path) {
    if (path.size() > kLongestPath)
        fail(Exit::kUsage, "the path has {} bytes; no path of a share has more than {}",
             path.size(), kLongestPath);
    if (path.empty()) fail(Exit::kUsage, "the path is empty; the share's root is '/'");
    const std::unique_ptr<char, decltype(&std::free)> text(normalize_path(path.c_str()),
                                                           &std::free);
    if (text == nullptr) fail(Exit::kUsage, "'{}' leads out of the share", path);
    return *text == '/' ? std::string(text.get()) : "/" + std::string(text.get());
}

struct ReleasePath {
    void operator()(path_array_t* components) const { cleanup_path_array_smb4(&components); }
};

}  // namespace

FoundPath find_path(const MapSource& source, const ImageReader& image, const std::string& path) {
    FoundPath found;
    found.path = normalised(path);
    require_samba_for(found.path);
    path_array_t* components = nullptr;
    get_path_elem_smb4(found.path.data(), static_cast<unsigned>(found.path.size() + 1),
                       &components);
    const std::unique_ptr<path_array_t, ReleasePath> owner(components);
    if (components == nullptr) fail(Exit::kFailure, "out of memory");
    std::uint32_t offset = 0;
    const e_membe_shm_err result = find_fselem_fromname(source.image(), components, &offset);
    if (result != SHM_MEMBE_OK && result != SHM_MEMBE_OK_NAMEREMAPPED)
        fail(Exit::kFailure, "the lookup of '{}' failed with code {}", found.path,
             static_cast<int>(result));
    found.element = ElementOffset{offset};
    // The lookup's own code does not tell a match without children from a missing one.
    found.mapped = image.depth_of(found.element) + 1 == components->num_elems;
    return found;
}

std::vector<AclEntry> own_entries(const ImageReader& image, ElementOffset element) {
    std::vector<AclEntry> entries;
    const auto record = image.element(element);
    if (!record) return entries;
    const AclOffset acl{record->acl_offset};
    const auto head = image.acl_head(acl);
    // The builder writes an ACL's entries in reverse.
    for (std::uint64_t i = head ? head->entries : 0; i-- > 0;) {
        const auto ace = image.ace(acl, i);
        if (!ace) return {};
        entries.push_back({ace->idtype == IDTYPE_GID, ace->id, ace->perm_mask, false});
    }
    return entries;
}

std::string trustee(const AclEntry& entry) {
    return fmt::format("{} {}", entry.is_group ? "group" : "user", entry.id);
}

std::string trustee_name(const AclEntry& entry) {
    if (entry.is_group) {
        const group* found = getgrgid(entry.id);
        return found == nullptr ? "" : found->gr_name;
    }
    const passwd* found = getpwuid(entry.id);
    return found == nullptr ? "" : found->pw_name;
}

nlohmann::json to_json(const AclEntry& entry) {
    return {{"type", entry.is_group ? "group" : "user"},
            {"id", entry.id},
            {"name", trustee_name(entry)},
            {"mask", entry.mask},
            {"rights", mask_words(entry.mask)},
            {"inherited", entry.inherited}};
}

void print_json(const nlohmann::json& document) {
    fmt::print("{}\n", document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace kvadmin
