// kavrinctl map tree: the tree of a map with the rights on each element, everybody's or one user's.
// Elements are walked in the order in which they lie, with a stack of the open folders, so no depth
// of a tree is too much.
#include <fmt/core.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "command.h"
#include "explain.h"
#include "map_query.h"
#include "map_source.h"
#include "rights_map.h"
#include "terminal.h"
#include "user_options.h"
#include "utf8.h"

namespace kvadmin {
namespace {

// Beyond it, lines are no longer indented but tell their depth: a line's length stays bounded.
constexpr std::size_t kDeepestIndent = 40;
// Longer ACLs are cut off in a line; `map acl` shows them whole.
constexpr std::size_t kShownEntries = 12;

struct Options {
    std::string path = "/";
    std::string file;
    std::uint32_t depth = std::numeric_limits<std::uint32_t>::max();
    UserOptions as;
    bool json = false;
};

// The rights of the user that the tree is shown for.
struct UsersRights {
    UsersRights(const ImageReader& image, const UserOptions& options)
        : user(user_of(options)),
          disk(options.root),
          tree(PermTree::of_image(image)),
          rights(tree, user.caller, disk) {}
    UsersRights(const UsersRights&) = delete;
    UsersRights& operator=(const UsersRights&) = delete;

    static PermTree::Id id(ElementOffset element) {
        return static_cast<PermTree::Id>(static_cast<std::uint32_t>(element) / kElementSize);
    }
    // Nothing for an element that no path leads to.
    std::optional<Rights> at(ElementOffset element) const {
        if (!rights.on_a_path(id(element))) return std::nullopt;
        return rights.at(id(element));
    }

    User user;
    ShareOnDisk disk;
    PermTree tree;
    RightsMap rights;
};

// One element on the way.
struct Visit {
    ElementOffset element;
    std::size_t depth;  // below where the walk began
    bool childless;
    ElementOffset governing;
    const std::vector<bool>& last;  // by depth from 1: whether the element there is the last child
};

class TreeWalk {
public:
    TreeWalk(const ImageReader& image, ElementOffset start, std::uint32_t depth_limit)
        : image_(image), start_(start), depth_limit_(depth_limit) {}

    template <typename Show>
    void run(Show&& show) {
        visit(start_, image_.governing_element(start_), show);
        while (!open_.empty()) {
            Folder& folder = open_.back();
            if (folder.next == folder.children) {
                open_.pop_back();
                if (!last_.empty()) last_.pop_back();
                continue;
            }
            const auto child = image_.slot(folder.list, folder.next++);
            if (!child) continue;
            last_.push_back(folder.next == folder.children);
            const auto record = image_.element(*child);
            const auto acl = record ? image_.acl_head(AclOffset{record->acl_offset}) : std::nullopt;
            const bool has_own = acl && acl->entries != 0;
            visit(*child, has_own ? *child : folder.governing, show);
        }
    }

private:
    struct Folder {
        ListOffset list;
        std::uint32_t next;
        std::uint32_t children;
        ElementOffset governing;
    };

    // Shows an element and, when it is a folder to look into, opens it; else leaves it again.
    template <typename Show>
    void visit(ElementOffset element, ElementOffset governing, Show&& show) {
        const auto record = image_.element(element);
        const bool childless = !record || (record->flags & FSELEM_FLAG_NOCHILDREN) != 0;
        show(Visit{element, open_.size(), childless, governing, last_});
        const auto list = childless || open_.size() >= depth_limit_
                              ? std::nullopt
                              : image_.list_head(ListOffset{record->clist_offset});
        if (list) {
            open_.push_back({ListOffset{record->clist_offset}, 0, list->filled, governing});
        } else if (!last_.empty()) {
            last_.pop_back();
        }
    }

    const ImageReader& image_;
    ElementOffset start_;
    std::uint32_t depth_limit_;
    std::vector<Folder> open_;
    std::vector<bool> last_;
};

std::string indent(const Visit& visit) {
    if (visit.depth > kDeepestIndent) return fmt::format("… depth {}: ", visit.depth);
    std::string text;
    for (std::size_t i = 0; i + 1 < visit.depth; ++i) text += visit.last[i] ? "    " : "│   ";
    if (visit.depth > 0) text += visit.last[visit.depth - 1] ? "└── " : "├── ";
    return text;
}

std::string entries_text(const std::vector<AclEntry>& entries) {
    std::string text;
    for (std::size_t i = 0; i < std::min(entries.size(), kShownEntries); ++i)
        text += fmt::format("{}{} {}", i == 0 ? "" : ", ", trustee(entries[i]),
                            mask_words(entries[i].mask));
    if (entries.size() > kShownEntries)
        text += fmt::format(", and {} more", entries.size() - kShownEntries);
    return text;
}

// Prints lines or, with --json, one object an element.
class Printer {
public:
    Printer(const ImageReader& image, const UsersRights* rights) : image_(image), rights_(rights) {}

    void line(const Visit& visit) {
        const std::string name = visit.depth == 0 ? image_.path_of(visit.element)
                                                  : std::string(*image_.name_of(visit.element));
        fmt::print("{}{}{}  {}\n", indent(visit), printable(name),
                   visit.childless ? " [childless]" : "",
                   coloured(stdout, Colour::kDim,
                            rights_ != nullptr ? users_text(visit) : acl_text(visit)));
    }

    void object(const Visit& visit) {
        nlohmann::json entries = nlohmann::json::array();
        for (const AclEntry& entry : own_entries(image_, visit.governing)) {
            entries.push_back({{"type", entry.is_group ? "group" : "user"},
                               {"id", entry.id},
                               {"mask", entry.mask},
                               {"rights", mask_words(entry.mask)}});
        }
        nlohmann::json element = {{"path", image_.path_of(visit.element)},
                                  {"offset", static_cast<std::uint32_t>(visit.element)},
                                  {"depth", visit.depth},
                                  {"childless", visit.childless},
                                  {"own_aces", own_entries(image_, visit.element).size()},
                                  {"inherited", visit.governing != visit.element},
                                  {"governing", image_.path_of(visit.governing)},
                                  {"entries", entries}};
        if (rights_ != nullptr) {
            const auto rights = rights_->at(visit.element);
            element["may"] = rights ? nlohmann::json(rights_as_json(*rights)) : nlohmann::json();
        }
        fmt::print("{}\n  {}", first_ ? "" : ",",
                   element.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        first_ = false;
    }

private:
    std::string acl_text(const Visit& visit) const {
        const std::vector<AclEntry> own = own_entries(image_, visit.element);
        const bool inherited = visit.governing != visit.element;
        const std::string rights =
            entries_text(inherited ? own_entries(image_, visit.governing) : own);
        return fmt::format("{} {}, {}{}", own.size(), own.size() == 1 ? "ACE" : "ACEs",
                           origin(visit, inherited), rights.empty() ? "" : ": " + rights);
    }

    std::string users_text(const Visit& visit) const {
        const auto rights = rights_->at(visit.element);
        return rights ? rights_words(*rights) : "no path can hold this name";
    }

    std::string origin(const Visit& visit, bool inherited) const {
        if (inherited) return "inherited from " + printable(image_.path_of(visit.governing));
        return "own";
    }

    const ImageReader& image_;
    const UsersRights* rights_;  // null: everybody's are shown
    bool first_ = true;
};

Exit show(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "map tree");
    const ImageReader image = source.sound_image();
    const FoundPath found = find_path(source, image, options.path);
    if (!found.mapped)
        fail(Exit::kFailure, "{} is not in the map; the nearest mapped ancestor is {}",
             printable(found.path), printable(image.path_of(found.element)));
    std::optional<UsersRights> rights;
    if (!options.as.user.empty()) rights.emplace(image, options.as);
    Printer printer(image, rights ? &*rights : nullptr);
    TreeWalk walk(image, found.element, options.depth);
    if (options.json) {
        fmt::print("[");
        walk.run([&](const Visit& visit) { printer.object(visit); });
        fmt::print("\n]\n");
    } else {
        walk.run([&](const Visit& visit) { printer.line(visit); });
    }
    return Exit::kDone;
}

}  // namespace

void register_map_tree(CLI::App& map) {
    CLI::App* command =
        map.add_subcommand("tree", "Show a map's tree with the rights on each element");
    const auto options = std::make_shared<Options>();
    command->add_option("path", options->path, "Begin at this path (default: /)");
    command->add_option("--depth", options->depth, "Show so many levels below it (default: all)");
    add_map_option(*command, options->file);
    CLI::Option* as = command->add_option("--as", options->as.user,
                                          "Show what this user, by name or uid, may do");
    as->type_name("USER");
    add_standing_options(*command, options->as);
    for (const char* option : {"--admin", "--power", "--root"})
        command->get_option(option)->needs(as);
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
