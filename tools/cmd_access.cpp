// kavrinctl access: what one user may do at a path and below it, in as few lines as that takes. A
// folder stands for all below it that is alike, so a line is about a change.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "map_query.h"
#include "map_source.h"
#include "operations.h"
#include "rights_map.h"
#include "user_options.h"
#include "utf8.h"

namespace kvadmin {
namespace {

using Id = PermTree::Id;

struct Options {
    UserOptions user;
    std::string path = "/";
    std::string file;
    bool json = false;
};

// One folder or file whose rights are not what the line above it lets expect.
struct Line {
    Id element;
    e_file_type_t type;
    Rights rights;
    Rights files;             // of files in a folder
    std::uint64_t alike = 0;  // elements below that need no line of their own
};

class Summary {
public:
    Summary(const PermTree& tree, const RightsMap& rights) : tree_(tree), rights_(rights) {}

    std::vector<Line> of(Id start) {
        open_.push_back({start, kNoLine});
        while (!open_.empty()) {
            const Pending at = open_.back();
            open_.pop_back();
            const std::size_t line = visit(at);
            const auto children = tree_.children(at.element);
            for (std::size_t i = children.size(); i-- > 0;) open_.push_back({children[i], line});
        }
        return std::move(lines_);
    }

    std::uint64_t unreachable() const { return unreachable_; }

private:
    static constexpr std::size_t kNoLine = static_cast<std::size_t>(-1);
    struct Pending {
        Id element;
        std::size_t line;  // the one that stands for its parent
    };

    // The line that stands for the element: its own, or the one above.
    std::size_t visit(const Pending& at) {
        if (!rights_.on_a_path(at.element)) {
            ++unreachable_;
            return at.line;
        }
        Line line{at.element, rights_.type(at.element), rights_.at(at.element), {}, 0};
        const bool folder = line.type == FSTYPE_FOLDER;
        if (folder) line.files = rights_.files_in(at.element);
        if (at.line != kNoLine) {
            Line& above = lines_[at.line];
            const bool alike = folder ? line.rights == above.rights && line.files == above.files
                                      : line.rights == above.files;
            if (alike) {
                ++above.alike;
                return at.line;
            }
        }
        lines_.push_back(line);
        return lines_.size() - 1;
    }

    const PermTree& tree_;
    const RightsMap& rights_;
    std::vector<Pending> open_;
    std::vector<Line> lines_;
    std::uint64_t unreachable_ = 0;
};

void print_text(const PermTree& tree, const User& user, const std::vector<Line>& lines) {
    const auto files = [](const Line& line) {
        return line.type == FSTYPE_FOLDER ? rights_words(line.files) : "-";
    };
    std::size_t first = 25;  // as wide as all four words
    std::size_t second = first;
    for (const Line& line : lines) {
        first = std::max(first, rights_words(line.rights).size());
        second = std::max(second, files(line).size());
    }
    fmt::print("{}\n", user_line(user));
    fmt::print("{:<{}}  {:<{}}{:>9}  {}\n", "MAY", first, "FILES IN IT", second, "ALIKE", "PATH");
    for (const Line& line : lines) {
        fmt::print("{:<{}}  {:<{}}{:>9}  {}\n", rights_words(line.rights), first, files(line),
                   second, line.alike, printable(tree.path(line.element)));
    }
}

void print_document(const PermTree& tree, const User& user, const std::vector<Line>& lines) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Line& line : lines) {
        const bool folder = line.type == FSTYPE_FOLDER;
        list.push_back({{"path", tree.path(line.element)},
                        {"type", type_name(line.type)},
                        {"rights", rights_as_json(line.rights)},
                        {"files", folder ? rights_as_json(line.files) : nullptr},
                        {"alike", line.alike}});
    }
    const nlohmann::ordered_json document{{"user", user.who.name},
                                          {"uid", user.who.uid},
                                          {"gid", user.who.gid},
                                          {"groups", user.who.groups},
                                          {"standing", standing_name(user.caller)},
                                          {"lines", list}};
    fmt::print("{}\n",
               document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

Exit show(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "access");
    const ImageReader image = source.sound_image();
    const FoundPath found = find_path(source, image, options.path);
    if (!found.mapped)
        fail(Exit::kFailure, "{} is not in the map; the nearest mapped ancestor is {}",
             printable(found.path), printable(image.path_of(found.element)));
    const User user = user_of(options.user);
    const ShareOnDisk disk(options.user.root);
    const PermTree tree = PermTree::of_image(image);
    const RightsMap rights(tree, user.caller, disk);
    Summary summary(tree, rights);
    const auto start = static_cast<Id>(static_cast<std::uint32_t>(found.element) / kElementSize);
    const std::vector<Line> lines = summary.of(start);
    if (options.json) {
        print_document(tree, user, lines);
    } else {
        print_text(tree, user, lines);
    }
    if (summary.unreachable() != 0)
        note(fmt::format("{} elements are left out: no path can hold their names",
                         summary.unreachable()));
    return Exit::kDone;
}

}  // namespace

void register_access(CLI::App& app) {
    CLI::App* command =
        app.add_subcommand("access", "Show what a user may do at a path and below it");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user.user, "The user, by name or by uid")->required();
    command->add_option("path", options->path, "Begin at this path (default: /)");
    add_map_option(*command, options->file);
    add_standing_options(*command, options->user);
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
