// The rights that are worked out for a whole map, held against the enforcement: every element of
// random maps, every operation that may be asked for, every kind of element, asked by a process
// with the caller's real identity. One difference is a wrong answer to an administrator.
#include <algorithm>
#include <cstdio>

#include "image_reader.h"
#include "operations.h"
#include "permissions/decision_table.h"
#include "random_maps.h"
#include "rights_map.h"
#include "tests/permissions/verdict_fixture.h"
#include "user_options.h"

namespace kvtest {
namespace {

using kvadmin::Caller;
using kvadmin::ImageReader;
using kvadmin::PermTree;
using kvadmin::Rights;
using kvadmin::RightsMap;
using kvadmin::Ruling;
using kvadmin::ShareOnDisk;
using kvadmin::Situation;

constexpr unsigned kTrees = 24;
constexpr unsigned kCallers = 8;

Who random_who(Chance& dice) {
    Who who;
    who.uid = dice.one_in(12) ? 0 : dice.of(kMapUsers);
    who.gid = dice.of(std::vector<gid_t>{7100, 7003, 7999});
    who.groups.clear();
    for (unsigned n = dice.below(4); n > 0; --n) who.groups.push_back(dice.of(kMapGroups));
    if (!dice.one_in(8)) who.groups.push_back(dice.one_in(5) ? kAdmins : kPowers);
    return who;
}

Caller caller_for(const Who& who) {
    kvadmin::Identity identity;
    identity.uid = who.uid;
    identity.gid = who.gid;
    identity.groups = who.groups;
    return kvadmin::caller_of(identity, kAdmins, kPowers);
}

std::vector<e_fsop_type_t> operations() {
    std::vector<e_fsop_type_t> all;
    for (int op = FSOP_MIN; op <= FSOP_FGETNTACL; ++op) {
        const auto& row = kavrin::decision_row(static_cast<e_fsop_type_t>(op), FSTYPE_FOLDER);
        if (row.need != kavrin::Need::kProgrammingError)
            all.push_back(static_cast<e_fsop_type_t>(op));
    }
    return all;
}

struct Tally {
    unsigned asked = 0, allowed = 0, nav = 0, hidden = 0, wrong = 0;
};

// What a question is to be answered with, asked of the enforcement by this process.
class Questions {
public:
    Questions(const std::string& share, const PermTree& tree, const RightsMap& rights,
              const Caller& caller, Tally& tally)
        : share_(share), tree_(tree), rights_(rights), caller_(caller), tally_(tally) {}

    void ask_everything() {
        for (PermTree::Id id = 0; id < tree_.size(); ++id) {
            if (!rights_.on_a_path(id)) {
                ++tally_.hidden;
                continue;
            }
            const std::string path = id == PermTree::kRoot ? "." : tree_.path(id).substr(1);
            for (const e_file_type_t type : {FSTYPE_FILE, FSTYPE_FOLDER, FSTYPE_DOES_NOT_EXIST}) {
                Situation at = rights_.situation(id);
                at.type = type;
                ask_all(path, at);
                ask_all(id == PermTree::kRoot ? "nobody's" : path + "/nobody's",
                        rights_.inside(id, type));
            }
            ask_words(id, path);
        }
    }

private:
    void ask_all(const std::string& path, const Situation& at) {
        for (const e_fsop_type_t op : operations()) {
            const Ruling ruled = kvadmin::ruling(caller_, at, op);
            compare(path, op, at.type, ruled.allowed(), ruled.navigation_only ? 1 : 0);
        }
    }

    // The four words as `check` asks them.
    void ask_words(PermTree::Id id, const std::string& path) {
        const Rights rights = rights_.at(id);
        EXPECT_EQ(rights.owner_decides, 0) << "the share is known";
        const e_file_type_t type = rights_.type(id);
        for (const auto& [word, bit] : {std::pair{"read", Rights::kRead},
                                        {"write", Rights::kWrite},
                                        {"delete", Rights::kDelete},
                                        {"list", Rights::kList}}) {
            const kvadmin::Question question = kvadmin::question_for(word, path, type, type);
            const bool looks = bit == Rights::kRead || bit == Rights::kList;
            const bool allowed = (rights.may & bit) != 0;
            compare(question.path, question.op, static_cast<e_file_type_t>(question.force_type),
                    allowed,
                    !looks                              ? kAnyNav
                    : allowed && rights.navigation_only ? 1
                                                        : 0);
        }
    }

    static constexpr int kAnyNav = 2;  // not told for this word

    void compare(const std::string& path, e_fsop_type_t op, e_file_type_t type, bool allowed,
                 int nav) {
        int is_nav = 0;
        const int verdict =
            vfs_enforce_perms(share_.c_str(), path.c_str(), op, nullptr, type, &is_nav);
        ++tally_.asked;
        tally_.allowed += allowed ? 1 : 0;
        tally_.nav += nav == 1 ? 1 : 0;
        if (verdict == (allowed ? KVPERMS_HAS_PERMS : KVPERMS_NO_PERM) &&
            (nav == kAnyNav || is_nav == nav))
            return;
        if (++tally_.wrong > 5) return;
        std::printf(
            "uid %u gid %u on %s, op %d, type %d: the enforcement says %d nav %d, worked "
            "out is %d nav %d\n",
            caller_.uid, caller_.gid, path.c_str(), static_cast<int>(op), static_cast<int>(type),
            verdict, is_nav, allowed ? 1 : 0, nav);
    }

    const std::string& share_;
    const PermTree& tree_;
    const RightsMap& rights_;
    const Caller& caller_;
    Tally& tally_;
};

class RightsLaw : public VerdictTest {
protected:
    RightsLaw() { config.set_debug_level(-1); }
    void SetUp() override {
        make_folder("Private/u2001", 2001);
        make_folder("Private/u2002", 2002);
        make_folder("PRIVATE");
        make_folder("PRIVATE/U2001", 2001);
    }

    void compare_tree(unsigned seed, Tally& sum) {
        Chance dice(seed);
        const Node root = random_map(dice);
        publish(root);
        const std::vector<std::uint8_t> image = build_image(root);
        const PermTree tree = PermTree::of_image(*ImageReader::open(image));
        const ShareOnDisk disk(share);
        const ChildResult child = run_child([&] {
            vfs_set_admins_powerusers(kAdmins, kPowers);
            Tally tally;
            for (unsigned n = 0; n < kCallers; ++n) {
                const Who who = random_who(dice);
                const Caller caller = caller_for(who);
                if (seteuid(0) != 0) return 99;
                const RightsMap rights(tree, caller, disk);
                become_user(who.uid, who.gid, who.groups);
                Questions(share, tree, rights, caller, tally).ask_everything();
            }
            std::printf("tally %u %u %u %u\n", tally.asked, tally.allowed, tally.nav, tally.hidden);
            return static_cast<int>(std::min(tally.wrong, 90u));
        });
        EXPECT_EQ(child.exit_code, 0) << "seed " << seed << "\n" << child.out << child.err;
        Tally one;
        const std::size_t at = child.out.rfind("tally ");
        if (at != std::string::npos)
            std::sscanf(child.out.c_str() + at, "tally %u %u %u %u", &one.asked, &one.allowed,
                        &one.nav, &one.hidden);
        sum.asked += one.asked;
        sum.allowed += one.allowed;
        sum.nav += one.nav;
        sum.hidden += one.hidden;
    }
};

TEST_F(RightsLaw, IsTheEnforcementsForEveryElementOfRandomMaps) {
    Tally sum;
    for (unsigned seed = 1; seed <= kTrees && !HasFailure(); ++seed) compare_tree(seed, sum);
    std::printf("%u questions: %u allowed, %u of them to navigate; %u elements on no path\n",
                sum.asked, sum.allowed, sum.nav, sum.hidden);
    EXPECT_GT(sum.asked, 200000u);
    EXPECT_GT(sum.allowed, 50000u);
    EXPECT_GT(sum.asked - sum.allowed, 50000u);
    EXPECT_GT(sum.nav, 1000u) << "the questions must not all be of one kind";
}

TEST_F(RightsLaw, ElementsWhoseNamesNoPathHoldsAreToldApart) {
    const Node root{
        "/",
        {},
        {{kStaff, 1}},
        {{"Shared", {}, {}, {{"a/b", {}, {}, {{"in", {}, {}, {}}}}, {"ok", {}, {}, {}}}}}};
    const std::vector<std::uint8_t> image = build_image(root);
    const PermTree tree = PermTree::of_image(*ImageReader::open(image));
    const kvadmin::CallerMasks masks(tree, caller_for(power_user()));
    std::vector<std::string> left_out;
    for (PermTree::Id id = 0; id < tree.size(); ++id)
        if (!masks.on_a_path(id)) left_out.emplace_back(tree.name(id));
    EXPECT_EQ(left_out, (std::vector<std::string>{"a/b", "in"}));
}

TEST_F(RightsLaw, ATreeOfAPairIsTheTreeOfTheImageThatALoadBuilds) {
    for (unsigned seed = 500; seed < 540; ++seed) {
        Chance dice(seed);
        Node root = random_map(dice);
        // The check refuses a trustee that is given twice.
        const auto once = [](auto& entries) {
            std::sort(entries.begin(), entries.end());
            entries.erase(
                std::unique(entries.begin(), entries.end(),
                            [](const auto& a, const auto& b) { return a.first == b.first; }),
                entries.end());
        };
        const std::function<void(Node&)> clean = [&](Node& node) {
            once(node.users);
            once(node.groups);
            for (Node& child : node.children) clean(child);
        };
        clean(root);
        const Pair pair = to_pair(root);
        const std::string folder = make_temp_dir();
        write_file(folder + "/s", pair.size_json);
        write_file(folder + "/d", pair.data_json);
        const std::vector<std::uint8_t> image = build_image(root);
        const PermTree built = PermTree::of_image(*ImageReader::open(image));
        const PermTree read = PermTree::of_pair(folder + "/s", folder + "/d");
        ASSERT_EQ(read.size(), built.size());
        for (PermTree::Id id = 0; id < built.size(); ++id) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " " + built.path(id));
            ASSERT_EQ(read.path(id), built.path(id));
            ASSERT_EQ(read.parent(id), built.parent(id));
            ASSERT_EQ(read.depth(id), built.depth(id));
            ASSERT_EQ(read.childless(id), built.childless(id));
            ASSERT_TRUE(std::ranges::equal(read.children(id), built.children(id)));
            ASSERT_TRUE(
                std::ranges::equal(read.acl(id), built.acl(id), [](const auto& a, const auto& b) {
                    return a.is_group == b.is_group && a.id == b.id && a.mask == b.mask;
                }));
        }
        EXPECT_TRUE(file_exists(folder + "/s") && file_exists(folder + "/d"));
    }
}

}  // namespace
}  // namespace kvtest
