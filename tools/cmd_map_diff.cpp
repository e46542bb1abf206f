// kavrinctl map diff: who gained and who lost which rights between two maps, told once for a whole
// subtree to which the same happened.
#include <fmt/core.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "explain.h"
#include "identity.h"
#include "map_choice.h"
#include "map_diff.h"
#include "terminal.h"
#include "utf8.h"

namespace kvadmin {
namespace {

using Json = nlohmann::ordered_json;

struct Options {
    std::string before;
    std::string after;
    bool fail_on_widen = false;
    bool json = false;
};

// "read, write".
std::string right_words(std::uint32_t bits) {
    constexpr std::pair<std::uint32_t, std::string_view> kBits[] = {
        {1, "read"}, {2, "write"}, {4, "delete"}, {8, "navigate"}, {16, "view"}};
    std::string text;
    const auto add = [&text](std::string_view word) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    };
    for (const auto& [bit, word] : kBits) {
        if ((bits & bit) != 0) add(word);
        bits &= ~bit;
    }
    if (bits != 0) add(fmt::format("0x{:x}", bits));
    return text;
}

std::string_view kind_word(DiffLine::Kind kind) {
    switch (kind) {
        case DiffLine::Kind::kAdded:
            return "added";
        case DiffLine::Kind::kRemoved:
            return "removed";
        case DiffLine::Kind::kChanged:
            break;
    }
    return "changed";
}

// Names out of the account database, each asked for once.
class Names {
public:
    const std::string& of(const TrusteeChange& change) {
        std::string& name = known_[{change.is_group, change.id}];
        if (name.empty())
            name =
                change.is_group ? words_for_group(change.id) : "user " + words_for_user(change.id);
        return name;
    }

private:
    std::map<std::pair<bool, std::uint32_t>, std::string> known_;
};

struct Counts {
    std::uint64_t changed = 0, added = 0, removed = 0;
};

// Elements, those that a line stands for included.
Counts count(const MapDiff& diff) {
    Counts counts;
    for (const DiffLine& line : diff.lines) {
        std::uint64_t& kind = line.kind == DiffLine::Kind::kAdded     ? counts.added
                              : line.kind == DiffLine::Kind::kRemoved ? counts.removed
                                                                      : counts.changed;
        kind += 1 + line.alike;
    }
    return counts;
}

class TextPrinter {
public:
    explicit TextPrinter(const MapDiff& diff) : diff_(diff) {}

    void line(const DiffLine& line) {
        std::string head = fmt::format("{:<8} {}", kind_word(line.kind), printable(line.path));
        if (line.alike != 0)
            head += fmt::format(", and {} {} below alike", line.alike,
                                line.alike == 1 ? "element" : "elements");
        fmt::print("{}\n", head);
        changes(line.changes);
        if (line.below == line.changes) return;
        fmt::print("    below it{}\n", line.below == 0 ? ": no change" : "");
        changes(line.below);
    }

private:
    void changes(std::size_t set) {
        for (const TrusteeChange& change : diff_.sets[set]) {
            const std::string masks =
                fmt::format("{} -> {}", mask_words(change.before), mask_words(change.after));
            fmt::print("    {:<32}{:<24}{}\n", printable(names_.of(change)), masks, effect(change));
        }
    }

    static std::string effect(const TrusteeChange& change) {
        std::string text;
        const auto add = [&text](Colour colour, std::string_view verb, std::uint32_t bits,
                                 std::string_view whence) {
            if (bits == 0) return;
            text += text.empty() ? "" : "; ";
            text +=
                coloured(stdout, colour, fmt::format("{} {}{}", verb, right_words(bits), whence));
        };
        constexpr std::string_view kGroups = " through groups of this ACL";
        add(Colour::kRed, "gains", change.gained, "");
        add(Colour::kRed, "gains", change.gained_from_groups, kGroups);
        add(Colour::kGreen, "loses", change.lost, "");
        add(Colour::kGreen, "loses", change.lost_from_groups, kGroups);
        return text.empty() ? "means the same" : text;
    }

    const MapDiff& diff_;
    Names names_;
};

void print_text(const MapDiff& diff) {
    TextPrinter printer(diff);
    for (const DiffLine& line : diff.lines) printer.line(line);
    if (diff.lines.empty()) {
        fmt::print("the rights are the same everywhere\n");
        return;
    }
    const Counts counts = count(diff);
    fmt::print("{} changed, {} added, {} removed; {}\n", counts.changed, counts.added,
               counts.removed,
               diff.widens() ? coloured(stdout, Colour::kRed, "rights were gained")
                             : "nobody gained a right");
}

Json changes_as_json(const Changes& changes) {
    Json list = Json::array();
    for (const TrusteeChange& change : changes) {
        list.push_back({{"type", change.is_group ? "group" : "user"},
                        {"id", change.id},
                        {"before", mask_words(change.before)},
                        {"after", mask_words(change.after)},
                        {"before_mask", change.before},
                        {"after_mask", change.after},
                        {"gained", right_words(change.gained)},
                        {"lost", right_words(change.lost)},
                        {"gained_from_groups", right_words(change.gained_from_groups)},
                        {"lost_from_groups", right_words(change.lost_from_groups)}});
    }
    return list;
}

void print_json(const MapDiff& diff, const ChosenMap& before, const ChosenMap& after) {
    Json lines = Json::array();
    for (const DiffLine& line : diff.lines) {
        lines.push_back({{"path", line.path},
                         {"kind", kind_word(line.kind)},
                         {"changes", changes_as_json(diff.sets[line.changes])},
                         {"below", changes_as_json(diff.sets[line.below])},
                         {"alike", line.alike}});
    }
    const Counts counts = count(diff);
    const Json document{{"before", {{"map", before.title}, {"elements", before.tree.size()}}},
                        {"after", {{"map", after.title}, {"elements", after.tree.size()}}},
                        {"same", diff.lines.empty()},
                        {"widens", diff.widens()},
                        {"changed", counts.changed},
                        {"added", counts.added},
                        {"removed", counts.removed},
                        {"lines", std::move(lines)}};
    fmt::print("{}\n", document.dump(2, ' ', false, Json::error_handler_t::replace));
}

void tell_left_out(const ChosenMap& map, std::uint64_t count) {
    if (count == 0) return;
    note(
        fmt::format("{}: {} {} left out: no path leads there, because a sibling before it has the "
                    "same name but for letter case, or because no path can hold the name",
                    printable(map.title), count, count == 1 ? "element is" : "elements are"));
}

Exit show(const Options& options) {
    use_library();
    const ChosenMap before = choose_map(options.before, "map diff");
    const ChosenMap after = choose_map(options.after, "map diff");
    const MapDiff diff = compare_maps(before.tree, after.tree);
    if (options.json) {
        print_json(diff, before, after);
    } else {
        print_text(diff);
    }
    tell_left_out(before, diff.unreachable_before);
    tell_left_out(after, diff.unreachable_after);
    return options.fail_on_widen && diff.widens() ? Exit::kDenied : Exit::kDone;
}

}  // namespace

void register_map_diff(CLI::App& map) {
    CLI::App* command =
        map.add_subcommand("diff", "Show who gained and who lost which rights between two maps");
    const auto options = std::make_shared<Options>();
    constexpr const char* kHow =
        "live, persisted, kept:NUMBER, an image file, or a pair of JSON files as SIZE,DATA";
    command->add_option("before", options->before, kHow)->required();
    command->add_option("after", options->after, kHow)->required();
    command->add_flag("--fail-on-widen", options->fail_on_widen,
                      "Exit with 2 when anybody gained any right anywhere");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return show(*options); });
}

}  // namespace kvadmin
