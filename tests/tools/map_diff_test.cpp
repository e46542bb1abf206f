// map diff: what is told about two maps, held against an independent model of what the maps give
// to callers; and the command end to end.
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "image_reader.h"
#include "map_diff.h"
#include "random_maps.h"
#include "tests/permissions/model.h"
#include "tool_run.h"

namespace kvtest {
namespace {

using kvadmin::compare_maps;
using kvadmin::DiffLine;
using kvadmin::ImageReader;
using kvadmin::MapDiff;
using kvadmin::PermTree;
using kvadmin::TrusteeChange;
using Kind = DiffLine::Kind;

constexpr int kWidened = 2;
constexpr int kUsage = 64;

MapDiff diff_of(const Node& before, const Node& after) {
    const std::vector<std::uint8_t> a = build_image(before);
    const std::vector<std::uint8_t> b = build_image(after);
    return compare_maps(PermTree::of_image(*ImageReader::open(a)),
                        PermTree::of_image(*ImageReader::open(b)));
}

// One line as text: "changed /Shared +2: u1001 1>3 +2".
std::string told(const std::vector<TrusteeChange>& changes) {
    std::string text;
    for (const TrusteeChange& c : changes) {
        text += std::string(c.is_group ? " g" : " u") + std::to_string(c.id) + " " +
                std::to_string(c.before) + ">" + std::to_string(c.after);
        if (c.gained != 0) text += " +" + std::to_string(c.gained);
        if (c.lost != 0) text += " -" + std::to_string(c.lost);
        if (c.gained_from_groups != 0) text += " +g" + std::to_string(c.gained_from_groups);
        if (c.lost_from_groups != 0) text += " -g" + std::to_string(c.lost_from_groups);
    }
    return text;
}
std::vector<std::string> lines(const MapDiff& diff) {
    std::vector<std::string> all;
    for (const DiffLine& line : diff.lines) {
        std::string text = line.kind == Kind::kAdded     ? "added "
                           : line.kind == Kind::kRemoved ? "removed "
                                                         : "changed ";
        text += line.path + " (" + std::to_string(line.alike) + ")" + told(diff.sets[line.changes]);
        if (line.below != line.changes) text += " below:" + told(diff.sets[line.below]);
        all.push_back(text);
    }
    return all;
}
using Lines = std::vector<std::string>;

Node leaf(const std::string& name) {
    return {name, {}, {}, {}};
}
// /Shared/Docs holds two files and a folder with one.
Node docs(decltype(Node::users) users, decltype(Node::groups) groups) {
    return {"/",
            {},
            {{1000, 1}},
            {{"Shared",
              {},
              {},
              {{"Docs",
                std::move(users),
                std::move(groups),
                {leaf("a.txt"), leaf("b.txt"), {"Plans", {}, {}, {leaf("c.txt")}}}}}}}};
}

class MapDiffTest : public testing::Test {
protected:
    ConfigTable config_{-1};
};

TEST_F(MapDiffTest, TheSameMapHasNoLines) {
    const MapDiff diff = diff_of(docs({{1001, 3}}, {}), docs({{1001, 3}}, {}));
    EXPECT_EQ(lines(diff), Lines{});
    EXPECT_FALSE(diff.widens());
}

TEST_F(MapDiffTest, AChangeIsToldOnceForAllThatInheritsIt) {
    const MapDiff diff = diff_of(docs({{1001, 1}}, {{2000, 7}}), docs({{1001, 3}}, {{2000, 1}}));
    EXPECT_EQ(lines(diff), (Lines{"changed /Shared/Docs (4) u1001 1>3 +2 g2000 7>1 -6"}));
    EXPECT_TRUE(diff.widens());
}

TEST_F(MapDiffTest, ADescendantWithAnAclOfItsOwnDoesNotFollow) {
    Node before = docs({{1001, 1}}, {});
    Node after = docs({{1001, 3}}, {});
    for (Node* map : {&before, &after})
        map->children[0].children[0].children[2].users = {{1005, 1}};
    EXPECT_EQ(lines(diff_of(before, after)), (Lines{"changed /Shared/Docs (2) u1001 1>3 +2"}));
}

TEST_F(MapDiffTest, NavigationIsChangedWhereItStandsAndNotBelow) {
    EXPECT_EQ(lines(diff_of(docs({}, {{1000, 1}}), docs({}, {{1000, 1}, {2000, 8}}))),
              (Lines{"changed /Shared/Docs (0) g2000 0>8 +8 below:"}));
    // An entry with navigation counts for nothing below, so taking it out of a mask widens there.
    EXPECT_EQ(lines(diff_of(docs({}, {{2000, 9}}), docs({}, {{2000, 1}}))),
              (Lines{"changed /Shared/Docs (4) g2000 9>1 below: g2000 0>1 +1"}));
}

TEST_F(MapDiffTest, LosingTheEntryThatShutTheGroupsOutIsAGain) {
    const MapDiff diff = diff_of(docs({{1001, 1}}, {{2000, 7}}), docs({}, {{2000, 7}}));
    EXPECT_EQ(lines(diff), (Lines{"changed /Shared/Docs (4) u1001 1>0 -1 +g6"}));
    EXPECT_TRUE(diff.widens());
    // With no group that has more there is nothing to gain.
    EXPECT_FALSE(diff_of(docs({{1001, 3}}, {{2000, 1}}), docs({}, {{2000, 1}})).widens());
}

TEST_F(MapDiffTest, AVanishedPathWhoseAncestorGivesTheSameIsOnlyRemoved) {
    const Node before = docs({{1001, 3}}, {});
    Node after = before;
    after.children[0].children[0].children.pop_back();
    const MapDiff diff = diff_of(before, after);
    EXPECT_EQ(lines(diff), (Lines{"removed /Shared/Docs/Plans (1)"}));
    EXPECT_FALSE(diff.widens());
    EXPECT_EQ(lines(diff_of(after, before)), (Lines{"added /Shared/Docs/Plans (1)"}));
}

TEST_F(MapDiffTest, AVanishedPathFallsToItsAncestor) {
    Node before = docs({{1001, 7}}, {});
    before.children[0].children[0].children[2].users = {{1001, 1}};
    Node after = docs({{1001, 7}}, {});
    after.children[0].children[0].children.pop_back();
    const MapDiff diff = diff_of(before, after);
    EXPECT_EQ(lines(diff), (Lines{"removed /Shared/Docs/Plans (1) u1001 1>7 +6"}));
    EXPECT_TRUE(diff.widens());
}

TEST_F(MapDiffTest, NamesAreComparedAsTheShareDoes) {
    const Node before = docs({{1001, 3}}, {});
    Node after = before;
    after.children[0].name = "SHARED";
    after.children[0].children[0].name = "dOCS";
    EXPECT_EQ(lines(diff_of(before, after)), Lines{});
    // Of siblings that differ in letter case only the first is found; the other one is left out.
    Node twins = before;
    twins.children[0].children.push_back({"DOCS", {{1009, 7}}, {}, {leaf("x")}});
    const MapDiff diff = diff_of(before, twins);
    EXPECT_EQ(lines(diff), Lines{});
    EXPECT_EQ(diff.unreachable_after, 2u);
}

// --- held against the model ------------------------------------------------------------------

// A map that has something in common with the first one.
void mutate(Chance& dice, Node& node) {
    if (dice.one_in(8)) fill_random_acl(dice, node);
    if (dice.one_in(12) && !node.children.empty())
        node.children.erase(node.children.begin() +
                            dice.below(static_cast<unsigned>(node.children.size())));
    if (dice.one_in(12)) add_random_children(dice, node, 1, 1);
    if (dice.one_in(12)) node.name = node.name == "/" ? "/" : dice.recased(node.name);
    for (Node& child : node.children) mutate(dice, child);
}

void collect(const Node& node, const std::string& path, std::set<std::string>& paths) {
    for (const Node& child : node.children) {
        const std::string here = path.empty() ? child.name : path + "/" + child.name;
        paths.insert(model::lowered(here));
        paths.insert(model::lowered(here) + "/nobody's");
        collect(child, here, paths);
    }
}

// Everybody that can be told apart: each user and a stranger, in no group or in one.
std::vector<model::Caller> everybody() {
    std::vector<model::Caller> all;
    std::vector<std::uint32_t> users = kMapUsers;
    users.push_back(9999);
    for (const std::uint32_t user : users) {
        all.push_back({user, 9998, {}});
        for (const std::uint32_t group : kMapGroups) all.push_back({user, 9998, {group}});
    }
    return all;
}

bool gains(std::uint32_t before, std::uint32_t after) {
    const std::uint32_t covered = (before & 25) != 0 ? before | 24 : before;
    return (after & ~covered) != 0;
}

TEST_F(MapDiffTest, ItWidensExactlyWhenTheModelFindsSomebodyWhoGains) {
    unsigned widened = 0;
    unsigned kept = 0;
    const std::vector<model::Caller> callers = everybody();
    for (unsigned seed = 1; seed <= 150; ++seed) {
        Chance dice(seed);
        const Node before = random_map(dice);
        Node after = before;
        if (dice.one_in(3)) {
            mutate(dice, after);
        } else {
            // One small change, so that maps without a gain come up, too.
            Node* at = &after;
            while (!at->children.empty() && !dice.one_in(3))
                at = &at->children[dice.below(static_cast<unsigned>(at->children.size()))];
            if (dice.one_in(2))
                at->children.clear();
            else
                fill_random_acl(dice, *at);
        }
        std::set<std::string> paths = {".", "nobody's"};
        collect(before, "", paths);
        collect(after, "", paths);
        std::string gain;
        std::set<std::string> differing;
        for (const std::string& path : paths) {
            const auto was = model::governing(before, path);
            const auto is = model::governing(after, path);
            for (const model::Caller& caller : callers) {
                const std::uint32_t a = model::mask_of(was, caller);
                const std::uint32_t b = model::mask_of(is, caller);
                if (a != b) differing.insert(path);
                if (gains(a, b)) gain = path + " uid " + std::to_string(caller.uid);
            }
        }
        const MapDiff diff = diff_of(before, after);
        EXPECT_EQ(diff.widens(), !gain.empty()) << "seed " << seed << ": " << gain;
        std::uint64_t changed = 0;
        for (const DiffLine& line : diff.lines)
            if (line.changes != 0 || line.below != 0) changed += 1 + line.alike;
        EXPECT_EQ(changed == 0, differing.empty()) << "seed " << seed;
        ++(gain.empty() ? kept : widened);
        if (HasFailure()) break;
    }
    EXPECT_GT(widened, 30u);
    EXPECT_GT(kept, 30u) << "the pairs must not all be of one kind";
}

// --- the command -----------------------------------------------------------------------------

class MapDiffCommand : public MapDiffTest {
protected:
    std::string image(const Node& root, const std::string& name) const {
        const std::vector<std::uint8_t> bytes = build_image(root);
        write_file(folder_ + "/" + name,
                   {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        return folder_ + "/" + name;
    }
    std::string pair(const Node& root, const std::string& name) const {
        const Pair texts = to_pair(root);
        write_file(folder_ + "/" + name + ".s", texts.size_json);
        write_file(folder_ + "/" + name + ".d", texts.data_json);
        return folder_ + "/" + name + ".s," + folder_ + "/" + name + ".d";
    }
    std::string folder_ = make_temp_dir();
    Node before_ = docs({{1001, 1}}, {{2000, 7}});
    Node after_ = docs({{1001, 3}}, {{2000, 1}});
};

TEST_F(MapDiffCommand, TellsWhoGainedAndWhoLostInWords) {
    const ChildResult run = run_tool({"map", "diff", image(before_, "a"), pair(after_, "b")});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out,
              "changed  /Shared/Docs, and 4 elements below alike\n"
              "    user uid 1001                   RDONLY -> RDWR          gains write\n"
              "    group 2000                      RDWRDEL -> RDONLY       loses write, delete\n"
              "5 changed, 0 added, 0 removed; rights were gained\n");
    EXPECT_EQ(run.err, "");
}

TEST_F(MapDiffCommand, FailOnWidenEndsWithTwoForAGainOnly) {
    const std::string a = image(before_, "a");
    const std::string more = pair(after_, "b");
    const std::string less = image(docs({{1001, 1}}, {{2000, 1}}), "c");
    EXPECT_EQ(run_tool({"map", "diff", a, more, "--fail-on-widen"}).exit_code, kWidened);
    EXPECT_EQ(run_tool({"map", "diff", a, more}).exit_code, 0);
    EXPECT_EQ(run_tool({"map", "diff", a, less, "--fail-on-widen"}).exit_code, 0);
    EXPECT_EQ(run_tool({"map", "diff", a, a, "--fail-on-widen"}).exit_code, 0);
}

TEST_F(MapDiffCommand, GivesOneDocument) {
    const ChildResult run =
        run_tool({"map", "diff", pair(before_, "a"), image(after_, "b"), "--json"});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    const auto document = nlohmann::json::parse(run.out);
    EXPECT_EQ(document["widens"], true);
    EXPECT_EQ(document["changed"], 5);
    EXPECT_EQ(document["before"]["elements"], 7);
    ASSERT_EQ(document["lines"].size(), 1u);
    const auto& line = document["lines"][0];
    EXPECT_EQ(line["path"], "/Shared/Docs");
    EXPECT_EQ(line["alike"], 4);
    EXPECT_EQ(line["changes"][0]["gained"], "write");
    EXPECT_EQ(line["changes"][1]["lost"], "write, delete");
}

TEST_F(MapDiffCommand, ComparesLivePersistedAndKeptMaps) {
    publish(before_);
    const std::string now = pair(after_, "b");
    const ChildResult live = run_tool({"map", "diff", "live", now});
    EXPECT_EQ(live.exit_code, 0) << live.err;
    EXPECT_NE(live.out.find("5 changed"), std::string::npos) << live.out;
    EXPECT_EQ(run_tool({"map", "diff", "persisted", now}).out, live.out);
    EXPECT_EQ(run_tool({"map", "diff", "live", "persisted"}).out,
              "the rights are the same everywhere\n");
    ASSERT_EQ(std::system("mkdir -p /var/lib/kavrin/maps"), 0);
    ASSERT_EQ(std::system(("cp " + image(after_, "x") + " /var/lib/kavrin/maps/12.map").c_str()),
              0);
    EXPECT_EQ(run_tool({"map", "diff", "live", "kept:12"}).out, live.out);
    EXPECT_EQ(run_tool({"map", "diff", "live", "kept:13"}).exit_code, 1);
}

TEST_F(MapDiffCommand, APairIsReadAndLeftAlone) {
    const std::string both = pair(after_, "b");
    EXPECT_EQ(run_tool({"map", "diff", both, both}).exit_code, 0);
    EXPECT_EQ(read_file(folder_ + "/b.d"), to_pair(after_).data_json);
    EXPECT_FALSE(file_exists("/etc/kavrin/.permbe_map"));
}

TEST_F(MapDiffCommand, WhatIsNoMapIsRefused) {
    const std::string sound = image(before_, "a");
    EXPECT_EQ(run_tool({"map", "diff", sound, "kept:"}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound, "kept:-1"}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound, "a,b,c"}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound, ","}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound, ""}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound}).exit_code, kUsage);
    EXPECT_EQ(run_tool({"map", "diff", sound, folder_ + "/gone"}).exit_code, 1);
    Pair broken = to_pair(before_);
    broken.data_json.resize(broken.data_json.size() / 2);
    write_file(folder_ + "/s", broken.size_json);
    write_file(folder_ + "/d", broken.data_json);
    const ChildResult run = run_tool({"map", "diff", sound, folder_ + "/s," + folder_ + "/d"});
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_NE(run.err.find("do not pass the check"), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    write_file(folder_ + "/damaged", std::string(581, 'x'));
    EXPECT_EQ(run_tool({"map", "diff", sound, folder_ + "/damaged"}).exit_code, 3);
}

}  // namespace
}  // namespace kvtest
