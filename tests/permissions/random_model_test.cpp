// Random trees, callers and questions, each answered twice: by the library and by the independent
// model. The seeds are fixed, so a failure printed here can be had again.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <sstream>

#include "chance.h"
#include "model.h"
#include "verdict_fixture.h"

namespace kvtest {
namespace {

constexpr unsigned kTrees = 30;
constexpr unsigned kLookupsPerTree = 400;
constexpr unsigned kCallersPerTree = 12;
constexpr unsigned kQuestionsPerCaller = 40;

// Few enough that siblings meet, paths hit, and hashes of names that differ outside ASCII collide.
const std::vector<std::string> kNames = {
    "Docs",        "docs2",        "Plan",         "a",    "A b", "report.txt", "2024", "x.y.z",
    "Caf\xc3\xa9", "\xc3\x84rger", "na\xc3\xafve", "deep", "_",   "Z"};
const std::vector<std::uint32_t> kUsers = {2001, 2002, 2003, 2004};
const std::vector<std::uint32_t> kGroups = {7003, 7004, 7005, 7100, 7101};
const std::vector<std::uint32_t> kMasks = {0,  1, 3,  7, 7, 8, 8,  8,       16,     16,
                                           16, 9, 24, 2, 4, 6, 31, 0x10007, 0x10008};

void fill_acl(Chance& chance, Node& node) {
    if (chance.one_in(3)) return;
    for (unsigned n = chance.below(4); n > 0; --n)
        node.users.emplace_back(chance.of(kUsers), chance.of(kMasks));
    for (unsigned n = chance.below(4); n > 0; --n)
        node.groups.emplace_back(chance.of(kGroups), chance.of(kMasks));
}

void fill_children(Chance& chance, Node& node, unsigned depth, unsigned most) {
    if (depth == 0) return;
    for (unsigned n = chance.below(most + 1); n > 0; --n) {
        Node child{chance.recased(chance.of(kNames)), {}, {}, {}};
        // Siblings may differ in letter case alone, never in nothing.
        const bool taken = std::any_of(node.children.begin(), node.children.end(),
                                       [&](const Node& other) { return other.name == child.name; });
        if (taken) continue;
        fill_acl(chance, child);
        fill_children(chance, child, depth - 1, most);
        node.children.push_back(std::move(child));
    }
}

Node random_tree(Chance& chance) {
    Node root{"/", {}, {}, {}};
    fill_acl(chance, root);
    for (const char* name : {"Shared", "Private"}) {
        if (chance.one_in(8)) continue;
        Node top{chance.recased(name), {}, {}, {}};
        fill_acl(chance, top);
        fill_children(chance, top, 2 + chance.below(3), 2 + chance.below(4));
        root.children.push_back(std::move(top));
    }
    fill_children(chance, root, 1, 2);
    return root;
}

// A normalised path: mostly along the tree, with letter cases of its own and sometimes astray.
std::string random_path(Chance& chance, const Node& root) {
    std::string path;
    const Node* here = &root;
    for (unsigned step = 1 + chance.below(5); step > 0; --step) {
        std::string name;
        if (here != nullptr && !here->children.empty() && !chance.one_in(6)) {
            here = &chance.of(here->children);
            name = here->name;
        } else {
            here = nullptr;
            name = chance.of(kNames);
        }
        if (chance.one_in(3)) name = chance.recased(name);
        path += (path.empty() ? "" : "/") + name;
    }
    return path;
}

// The same path as a client might send it.
std::string untidy(Chance& chance, const std::string& path) {
    std::string out;
    if (chance.one_in(4)) out = "./";
    for (const char c : path) {
        out += c;
        if (c == '/' && chance.one_in(4))
            out += chance.of(std::vector<std::string>{"/", "./", "x/../", "//.//"});
    }
    if (path.find('/') != std::string::npos && chance.one_in(4)) out += "/";
    return out;
}

// --- reading an image ------------------------------------------------------------------------

template <typename Record>
Record record_at(const std::vector<std::uint8_t>& image, std::size_t offset) {
    Record record;
    EXPECT_LE(offset + sizeof record, image.size());
    std::memcpy(&record, image.data() + offset, sizeof record);
    return record;
}

// The names from the root down to an element, as the image spells them.
std::string spelled(const std::vector<std::uint8_t>& image, std::uint32_t element) {
    const auto header = record_at<kavrin_be_header_t>(image, 0);
    std::string path;
    while (true) {
        const auto record = record_at<fs_elem_t>(image, header.fselem_offset + element);
        if (record.flags & FSELEM_FLAG_ROOT) return path.empty() ? "/" : path;
        const std::size_t name_at = header.nameelem_offset + record.name_elem_offset;
        std::uint16_t length = 0;
        std::memcpy(&length, image.data() + name_at, sizeof length);
        path.insert(0, "/" + std::string(reinterpret_cast<const char*>(image.data()) + name_at + 12,
                                         length));
        element = record.parent_offset;
    }
}

std::string shown(const std::vector<model::Grant>& grants) {
    std::ostringstream out;
    for (const model::Grant& g : grants)
        out << (g.user ? "user " : "group ") << g.id << "=" << g.mask << (g.inherited ? "i " : " ");
    return out.str();
}

std::vector<model::Grant> library_grants(std::vector<std::uint8_t>& image, std::string path) {
    kavrin_acl_t* acl = nullptr;
    EXPECT_EQ(get_kavrin_acl(image.data(), path.data(), &acl), SHM_MEMBE_OK);
    std::vector<model::Grant> grants;
    if (acl == nullptr) return grants;
    for (const oneway_list_elem_t* e = acl->ace_list_head.first_elem; e; e = e->next_elem) {
        const auto* ace = reinterpret_cast<const kavrin_ace_t*>(e);
        grants.push_back({ace->trustee_type == ACE_TYPE_USER, ace->trustee.uid, ace->perm_mask,
                          ace->ace_type == 1});
    }
    free_ACL(acl);
    free(acl);
    return grants;
}

TEST(RandomModel, LookupsFindTheElementTheModelFinds) {
    const ConfigTable config(-1);
    unsigned exact = 0;
    unsigned remapped = 0;
    for (unsigned seed = 1; seed <= kTrees; ++seed) {
        Chance chance(seed);
        const Node root = random_tree(chance);
        std::vector<std::uint8_t> image = build_image(root);
        for (unsigned i = 0; i < kLookupsPerTree; ++i) {
            std::string path = random_path(chance, root);
            if (chance.one_in(2)) path.insert(0, "/");
            SCOPED_TRACE("seed " + std::to_string(seed) + " path " + path);
            const model::Place place = model::locate(root, path);

            path_array_t* array = nullptr;
            get_path_elem_smb4(path.data(), static_cast<unsigned>(path.size() + 1), &array);
            ASSERT_NE(array, nullptr);
            std::uint32_t offset = 0;
            const int result = find_fselem_fromname(image.data(), array, &offset);
            cleanup_path_array_smb4(&array);
            EXPECT_EQ(result, place.exact ? SHM_MEMBE_OK : SHM_MEMBE_OK_NAMEREMAPPED);
            ASSERT_EQ(spelled(image, offset), place.spelled());
            ++(place.exact ? exact : remapped);
        }
    }
    EXPECT_GT(exact, 2000u) << "the questions must not all be of one kind";
    EXPECT_GT(remapped, 2000u);
}

TEST(RandomModel, GoverningAclsAreTheModels) {
    const ConfigTable config(-1);
    unsigned explicit_entries = 0;
    unsigned inherited_entries = 0;
    for (unsigned seed = 101; seed < 101 + kTrees; ++seed) {
        Chance chance(seed);
        const Node root = random_tree(chance);
        std::vector<std::uint8_t> image = build_image(root);
        for (unsigned i = 0; i < kLookupsPerTree; ++i) {
            std::string path = random_path(chance, root);
            if (chance.one_in(2)) path.insert(0, "/");
            const std::vector<model::Grant> expected = model::governing(root, path);
            ASSERT_EQ(shown(library_grants(image, path)), shown(expected))
                << "seed " << seed << " path " << path;
            for (const model::Grant& g : expected)
                ++(g.inherited ? inherited_entries : explicit_entries);
        }
    }
    EXPECT_GT(explicit_entries, 2000u);
    EXPECT_GT(inherited_entries, 2000u);
}

// --- verdicts --------------------------------------------------------------------------------

// Asked more often than the others: these tell navigation from reading.
const std::vector<int> kLooking = {FSOP_OPENDIR, FSOP_READDIR, FSOP_CHDIR, FSOP_STAT, FSOP_LSTAT};

struct Tally {
    unsigned asked = 0, allowed = 0, denied = 0, nav = 0, avoided = 0;
};

Who random_caller(Chance& chance) {
    Who who;
    who.uid = chance.of(kUsers);
    who.gid = chance.of(std::vector<gid_t>{7100, 7101, 7003});
    who.groups.clear();
    for (unsigned n = chance.below(4); n > 0; --n) who.groups.push_back(chance.of(kGroups));
    if (!chance.one_in(8)) who.groups.push_back(chance.one_in(4) ? kAdmins : kPowers);
    std::shuffle(who.groups.begin(), who.groups.end(), std::mt19937(chance.below(1000)));
    return who;
}

std::string random_question_path(Chance& chance, const Node& root) {
    static const std::vector<std::string> special = {".",
                                                     "Shared",
                                                     "private",
                                                     "*",
                                                     "Shared/*",
                                                     ".DS_Store",
                                                     "shared/.ds_store",
                                                     "Shared/.sb-1",
                                                     "Private/u2001",
                                                     "Private/u2002",
                                                     "Private/u2001/x",
                                                     "Private/u2002/x/y",
                                                     "Private/gone",
                                                     "Private/gone/x",
                                                     ".Trash-9/x",
                                                     "Other/x",
                                                     "Private/*",
                                                     "Private/u2001/*"};
    if (chance.one_in(3)) return chance.of(special);
    return random_path(chance, root);
}

// One caller's questions, asked in this process; a mismatch is printed and counted.
int ask_random(Chance chance, unsigned seed, const std::string& share, const Node& root,
               const model::World& world, const Who& who, Tally& tally,
               const std::function<int(const std::string&)>& kind_on_disk) {
    int wrong = 0;
    std::vector<gid_t> groups = who.groups;
    const model::Caller caller{who.uid, who.gid, {groups.begin(), groups.end()}};
    for (unsigned i = 0; i < kQuestionsPerCaller; ++i) {
        const std::string path = random_question_path(chance, root);
        const int op =
            chance.one_in(3) ? chance.of(kLooking) : 1 + static_cast<int>(chance.below(29));
        const int kinds = chance.one_in(3) ? model::kFolder : 1 + static_cast<int>(chance.below(3));
        const int forced = kind_on_disk ? 0 : kinds;
        const int kind = forced != 0 ? forced : kind_on_disk(path);
        const bool give = chance.one_in(2);
        const std::string sent = untidy(chance, path);
        const model::Answer expected = model::verdict(world, caller, path, op, kind);
        if (expected.outcome == model::kEndsProcess) {
            ++tally.avoided;
            continue;
        }
        process_trustees_t trustees{who.uid,
                                    who.gid,
                                    static_cast<int32_t>(groups.size()),
                                    groups.empty() ? nullptr : groups.data(),
                                    0,
                                    0,
                                    0,
                                    0};
        int nav = 77;
        const int verdict =
            vfs_enforce_perms(share.c_str(), sent.c_str(), static_cast<e_fsop_type_t>(op),
                              give ? &trustees : nullptr, forced, &nav);
        ++tally.asked;
        ++(expected.outcome == model::kAllowed ? tally.allowed : tally.denied);
        tally.nav += expected.nav;
        if (verdict == expected.outcome && nav == static_cast<int>(expected.nav)) continue;
        ++wrong;
        std::printf("seed %u uid %u gid %u groups", seed, who.uid, who.gid);
        for (const gid_t g : groups) std::printf(" %u", g);
        std::printf(": %s (sent %s) op %d kind %d: verdict %d nav %d, the model says %d nav %d\n",
                    path.c_str(), sent.c_str(), op, kind, verdict, nav, expected.outcome,
                    expected.nav);
    }
    return wrong;
}

class RandomVerdicts : public VerdictTest {
protected:
    RandomVerdicts() { config.set_debug_level(-1); }

    void SetUp() override {
        for (const char* name : {"u2001", "u2002", "u2003"})
            make_folder(std::string("Private/") + name,
                        static_cast<uid_t>(std::stoul(std::string(name).substr(1))));
    }

    // Who owns what lies in a folder called Private, in whatever letter case.
    model::World world_of(const Node& root) const {
        model::World world{&root, kAdmins, kPowers, {}};
        for (const auto& top : std::filesystem::directory_iterator(share)) {
            const std::string name = top.path().filename();
            if (!model::same(name, "private")) continue;
            for (const auto& entry : std::filesystem::directory_iterator(top.path())) {
                struct stat found {};
                EXPECT_EQ(stat(entry.path().c_str(), &found), 0);
                world.owners[name + "/" + entry.path().filename().string()] = found.st_uid;
            }
        }
        return world;
    }

    // All callers of one tree, in one process that takes each identity in turn.
    Tally ask_all(unsigned seed, const Node& root,
                  const std::function<int(const std::string&)>& kind_on_disk = nullptr) {
        publish(root);
        Tally tally;
        const ChildResult child = run_child([&] {
            Chance chance(seed);
            vfs_set_admins_powerusers(kAdmins, kPowers);
            const model::World world = world_of(root);
            int wrong = 0;
            for (unsigned n = 0; n < kCallersPerTree; ++n) {
                const Who who = random_caller(chance);
                if (seteuid(0) != 0) return 99;
                become_user(who.uid, who.gid, who.groups);
                wrong += ask_random(Chance(seed * 1000 + n), seed, share, root, world, who, tally,
                                    kind_on_disk);
            }
            std::printf("tally %u %u %u %u %u\n", tally.asked, tally.allowed, tally.denied,
                        tally.nav, tally.avoided);
            return std::min(wrong, 90);
        });
        EXPECT_EQ(child.exit_code, 0) << child.out << child.err;
        const std::size_t at = child.out.rfind("tally ");
        if (at != std::string::npos)
            std::sscanf(child.out.c_str() + at, "tally %u %u %u %u %u", &tally.asked,
                        &tally.allowed, &tally.denied, &tally.nav, &tally.avoided);
        return tally;
    }
};

void show(const Tally& sum) {
    std::printf("%u questions: %u allowed (%u to navigate), %u denied; %u have no rule\n",
                sum.asked, sum.allowed, sum.nav, sum.denied, sum.avoided);
}

void add(Tally& sum, const Tally& one) {
    sum.asked += one.asked;
    sum.allowed += one.allowed;
    sum.denied += one.denied;
    sum.nav += one.nav;
    sum.avoided += one.avoided;
}

TEST_F(RandomVerdicts, AreTheModelsForElementsOfAForcedType) {
    Tally sum;
    for (unsigned seed = 201; seed < 201 + kTrees; ++seed) {
        Chance chance(seed);
        add(sum, ask_all(seed, random_tree(chance)));
        if (HasFailure()) break;
    }
    show(sum);
    EXPECT_GT(sum.asked, 7000u);
    EXPECT_GT(sum.allowed, 1500u);
    EXPECT_GT(sum.denied, 1500u);
    EXPECT_GT(sum.nav, 50u);
}

// The tree on disk: an element with children is a folder, one without is a folder or a file, and
// some are not there.
void lay_out(Chance& chance, const std::string& where, const Node& node, bool top) {
    for (const Node& child : node.children) {
        const std::string path = where + "/" + child.name;
        if (!top && chance.one_in(6)) continue;
        if (!top && child.children.empty() && chance.one_in(2)) {
            write_file(path, "content");
        } else {
            std::filesystem::create_directory(path);
            lay_out(chance, path, child, false);
        }
    }
}

TEST_F(RandomVerdicts, AreTheModelsForElementsFoundOnDisk) {
    Tally sum;
    for (unsigned seed = 301; seed < 301 + kTrees; ++seed) {
        Chance chance(seed);
        const Node root = random_tree(chance);
        share = make_temp_dir();
        make_folder("Shared");
        make_folder("Private");
        SetUp();
        lay_out(chance, share, root, true);
        const auto kind = [this](const std::string& path) -> int {
            std::error_code ignored;
            const std::filesystem::path full = share + "/" + path;
            if (std::filesystem::is_directory(full, ignored)) return model::kFolder;
            return std::filesystem::exists(full, ignored) ? model::kFile : model::kMissing;
        };
        add(sum, ask_all(seed, root, kind));
        if (HasFailure()) break;
    }
    show(sum);
    EXPECT_GT(sum.asked, 7000u);
    EXPECT_GT(sum.allowed, 1500u);
    EXPECT_GT(sum.denied, 1500u);
}

}  // namespace
}  // namespace kvtest
