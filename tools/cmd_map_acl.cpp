// kavrinctl map acl: the rights on one path, its own and those that govern it. The governing ACL
// comes out of the library's own lookup, marks included, so it is what a verdict would see.
#include <fmt/core.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "explain.h"
#include "map_query.h"
#include "map_source.h"
#include "perm_enforcer.h"
#include "utf8.h"

namespace kvadmin {
namespace {

struct Options {
    std::string path;
    std::string file;
    bool json = false;
};

struct ReleaseAcl {
    void operator()(kavrin_acl_t* acl) const {
        free_ACL(acl);
        std::free(acl);
    }
};

std::vector<AclEntry> governing_entries(const MapSource& source, const FoundPath& found) {
    kavrin_acl_t* acl = nullptr;
    std::string path = found.path;
    const e_membe_shm_err result = get_kavrin_acl(source.image(), path.data(), &acl);
    const std::unique_ptr<kavrin_acl_t, ReleaseAcl> owner(acl);
    if (result != SHM_MEMBE_OK || acl == nullptr)
        fail(Exit::kFailure, "the lookup of '{}' failed with code {}", found.path,
             static_cast<int>(result));
    std::vector<AclEntry> entries;
    for (const oneway_list_elem_t* at = acl->ace_list_head.first_elem; at != nullptr;
         at = at->next_elem) {
        const auto* ace = reinterpret_cast<const kavrin_ace_t*>(at);
        entries.push_back({ace->trustee_type == ACE_TYPE_GROUP, ace->trustee.uid, ace->perm_mask,
                           ace->ace_type == 1});
    }
    return entries;
}

struct AclAnswer {
    FoundPath found;
    std::string element_path;
    bool childless;
    std::vector<AclEntry> own;
    std::vector<AclEntry> governing;
    std::string governing_path;
    bool own_governs;  // the path's own ACL is the governing one
};

AclAnswer answer(const MapSource& source, const Options& options) {
    const ImageReader image = source.sound_image();
    AclAnswer result;
    result.found = find_path(source, image, options.path);
    const ElementOffset element = result.found.element;
    result.element_path = image.path_of(element);
    result.childless = (image.element(element)->flags & FSELEM_FLAG_NOCHILDREN) != 0;
    if (result.found.mapped) result.own = own_entries(image, element);
    result.governing = governing_entries(source, result.found);
    const ElementOffset governing = image.governing_element(element);
    result.governing_path = image.path_of(governing);
    result.own_governs = result.found.mapped && governing == element;
    return result;
}

void print_entries(const std::vector<AclEntry>& entries, bool with_marks) {
    for (const AclEntry& entry : entries) {
        const std::string name = trustee_name(entry);
        fmt::print("  {:<6}{:<28}{:<24}{:>8}{}\n", entry.is_group ? "group" : "user",
                   name.empty() ? fmt::format("{}", entry.id)
                                : fmt::format("{} ({})", printable(name), entry.id),
                   mask_words(entry.mask), fmt::format("{:#06x}", entry.mask),
                   !with_marks       ? ""
                   : entry.inherited ? "  inherited"
                                     : "  explicit");
    }
}

void print_text(const AclAnswer& answer) {
    fmt::print("{}\n", printable(answer.found.path));
    if (!answer.found.mapped)
        fmt::print("not in the map; the nearest mapped ancestor is {}\n",
                   printable(answer.element_path));
    else if (answer.childless)
        fmt::print("childless element\n");
    else
        fmt::print("element with children\n");

    if (answer.found.mapped) {
        fmt::print("\nown ACL{}\n", answer.own.empty() ? ": no entries" : "");
        print_entries(answer.own, false);
    }
    fmt::print("\ngoverning ACL: {}{}\n",
               answer.own_governs ? "its own" : "that of " + printable(answer.governing_path),
               answer.governing.empty() ? ", no entries" : "");
    print_entries(answer.governing, true);
    // Verdicts take it for inherited, and that costs every entry that grants navigation.
    if (answer.own_governs && !answer.governing.empty() && answer.governing.front().inherited)
        fmt::print(
            "verdicts take this ACL for inherited, as that of every element without children and "
            "that of the root\n");
}

nlohmann::json entries_document(const std::vector<AclEntry>& entries) {
    nlohmann::json list = nlohmann::json::array();
    for (const AclEntry& entry : entries) list.push_back(to_json(entry));
    return list;
}

void print_document(const AclAnswer& answer) {
    nlohmann::json document = {{"path", answer.found.path},
                               {"mapped", answer.found.mapped},
                               {"element",
                                {{"path", answer.element_path},
                                 {"offset", static_cast<std::uint32_t>(answer.found.element)},
                                 {"childless", answer.childless}}},
                               {"own", nullptr},
                               {"governing",
                                {{"path", answer.governing_path},
                                 {"is_own", answer.own_governs},
                                 {"entries", entries_document(answer.governing)}}}};
    if (answer.found.mapped) {
        document["own"] = nlohmann::json::array();
        for (const AclEntry& entry : answer.own) {
            document["own"].push_back(to_json(entry));
            document["own"].back().erase("inherited");  // a mark of the governing ACL only
        }
    }
    print_json(document);
}

Exit show(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "map acl");
    const AclAnswer result = answer(source, options);
    if (options.json) {
        print_document(result);
    } else {
        print_text(result);
    }
    return Exit::kDone;
}

}  // namespace

void register_map_acl(CLI::App& map) {
    CLI::App* command =
        map.add_subcommand("acl", "Show the ACL of a path and the one that governs it");
    const auto options = std::make_shared<Options>();
    command->add_option("path", options->path, "The path, from the share's root")->required();
    command->add_option("--file", options->file,
                        "Read this map file (default: the live map, as root)");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
