// The stage of the verdict tests: a share on disk with real owners, a published map, and callers
// with real effective ids. Every question is asked in a process of its own, which also proves that
// it leaves identity, attachments and the caller's record as they have to be left.
#pragma once

#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support.h"

namespace kvtest {

constexpr gid_t kAdmins = 7001;
constexpr gid_t kPowers = 7002;
constexpr gid_t kStaff = 7003;
constexpr gid_t kSales = 7004;
constexpr gid_t kPrimary = 7100;
constexpr uid_t kAlice = 2001;
constexpr uid_t kBob = 2002;

struct Who {
    uid_t uid = kAlice;
    gid_t gid = kPrimary;
    std::vector<gid_t> groups = {kPowers};
    bool hand_over = false;  // pass the identity instead of letting the process be asked
};

inline Who power_user(uid_t uid = kAlice, std::vector<gid_t> more = {}) {
    more.push_back(kPowers);
    return {uid, kPrimary, more, false};
}
inline Who admin(uid_t uid = kAlice) {
    return {uid, kPrimary, {kStaff, kAdmins}, false};
}
inline Who standard_user(uid_t uid = kAlice) {
    return {uid, kPrimary, {kStaff}, false};
}
inline Who handing_over(Who who) {
    who.hand_over = true;
    return who;
}

// Attachments of both map segments, whoever holds them. Works under any effective uid whose
// process may become root again.
inline unsigned long attachments() {
    const uid_t euid = geteuid();
    EXPECT_EQ(seteuid(0), 0);
    unsigned long count = 0;
    for (const key_t key : {0x70657269, 0x7065726A}) {
        shmid_ds segment{};
        const int id = shmget(key, 0, 0);
        if (id >= 0 && shmctl(id, IPC_STAT, &segment) == 0) count += segment.shm_nattch;
    }
    EXPECT_EQ(seteuid(euid), 0);
    return count;
}

struct Ids {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    bool operator==(const Ids&) const = default;
};
inline Ids current_ids() {
    Ids ids;
    EXPECT_EQ(getresuid(&ids.ruid, &ids.euid, &ids.suid), 0);
    EXPECT_EQ(getresgid(&ids.rgid, &ids.egid, &ids.sgid), 0);
    return ids;
}

struct Reply {
    int verdict = -1;
    int nav = -1;
    ChildResult child;
    // The message, to the letter, in the trace of this question.
    bool said(std::string_view message) const { return child.logged(message) > 0; }
};

inline std::ostream& operator<<(std::ostream& out, const Reply& reply) {
    return out << "verdict " << reply.verdict << " nav " << reply.nav << " exit "
               << reply.child.exit_code << " signal " << reply.child.signal << "\n"
               << reply.child.err;
}

class VerdictTest : public testing::Test {
protected:
    static constexpr int kBroken = 200;  // exit codes from here on: something was left changed

    VerdictTest() : share(make_temp_dir()) {
        make_folder("Shared");
        make_folder("Private");
    }

    void make_folder(const std::string& path, uid_t owner = 0) {
        const std::string full = share + "/" + path;
        ASSERT_EQ(mkdir(full.c_str(), 0755), 0) << full;
        ASSERT_EQ(chown(full.c_str(), owner, kPrimary), 0) << full;
    }
    void make_file(const std::string& path, uid_t owner = 0) {
        const std::string full = share + "/" + path;
        write_file(full, "content");
        ASSERT_EQ(chown(full.c_str(), owner, kPrimary), 0) << full;
    }

    // Asks in the calling process, which has the caller's identity already.
    static int ask_here(const std::string& root, const Who& who, const std::string& path, int op,
                        int type) {
        process_trustees_t trustees{};
        std::vector<gid_t> groups = who.groups;
        trustees.euid = who.uid;
        trustees.egid = who.gid;
        trustees.num_sup_gids = static_cast<int32_t>(groups.size());
        trustees.gids = groups.empty() ? nullptr : groups.data();
        trustees.is_global_map_in_use = 5;
        const Ids before = current_ids();
        const unsigned long attached = attachments();
        int nav = 77;
        const int verdict =
            vfs_enforce_perms(root.c_str(), path.c_str(), static_cast<e_fsop_type_t>(op),
                              who.hand_over ? &trustees : nullptr, type, &nav);
        if (!(current_ids() == before)) return kBroken;
        if (attachments() != attached) return kBroken + 1;
        if (who.hand_over && trustees.is_global_map_in_use != 0) return kBroken + 2;
        if (nav != 0 && nav != 1) return kBroken + 3;
        return verdict + 16 * nav;
    }

    Reply ask(const Who& who, const std::string& path, int op, int type = 0) {
        return ask_at(share, who, path, op, type);
    }
    Reply ask_at(const std::string& root, const Who& who, const std::string& path, int op,
                 int type = 0) {
        Reply reply;
        reply.child = run_child([&] {
            vfs_set_admins_powerusers(kAdmins, kPowers);
            become_user(who.uid, who.gid, who.groups);
            return ask_here(root, who, path, op, type);
        });
        EXPECT_LT(reply.child.exit_code, kBroken)
            << (reply.child.exit_code == kBroken       ? "the identity changed"
                : reply.child.exit_code == kBroken + 1 ? "the map is still attached"
                : reply.child.exit_code == kBroken + 2 ? "the caller's record is still in use"
                                                       : "is_nav is neither 0 nor 1");
        if (reply.child.exited && reply.child.exit_code < kBroken) {
            reply.verdict = reply.child.exit_code % 16;
            reply.nav = reply.child.exit_code / 16;
        }
        return reply;
    }
    // The verdict alone, asked for twice: with the process's identity and with the same handed
    // over.
    int verdict(const Who& who, const std::string& path, int op, int type = 0) {
        const Reply own = ask(who, path, op, type);
        const Reply given = ask(handing_over(who), path, op, type);
        EXPECT_EQ(own.verdict, given.verdict) << path << ": " << own << given;
        EXPECT_EQ(own.nav, given.nav) << path;
        return own.verdict;
    }

    ConfigTable config{0};
    std::string share;
};

// Shared holds a folder for each way a right can come about; a folder that nobody must see as
// childless has a child named "inside".
inline Node folder(const std::string& name, decltype(Node::users) users,
                   decltype(Node::groups) groups) {
    return {name, std::move(users), std::move(groups), {{"inside", {}, {}, {}}}};
}

inline Node shared_tree() {
    Node shared{"Shared", {}, {{kStaff, 8}}, {}};
    shared.children = {
        folder("Projects", {{kAlice, 7}}, {{kStaff, 1}}),
        folder("Reading", {{kAlice, 1}}, {{kStaff, 7}}),
        folder("Closed", {{kAlice, 0}}, {}),
        folder("Widened", {{kAlice, 0}}, {{kStaff, 1}, {kSales, 2}}),
        folder("Walked", {{kAlice, 8}}, {{kSales, 1}}),
        folder("Viewed", {{kAlice, 16}}, {{kStaff, 7}}),
        folder("Grouped", {}, {{kStaff, 1}, {kSales, 6}}),
        folder("Primary", {}, {{kPrimary, 7}}),
        folder("Both", {{kAlice, 24}}, {}),
        folder("Twice", {{kAlice, 1}, {kAlice, 7}}, {}),
        {"Leaf", {{kAlice, 8}}, {{kSales, 1}}, {}},
        {"Outer", {{kAlice, 8}}, {{kStaff, 1}}, {{"Inner", {}, {}, {{"inside", {}, {}, {}}}}}},
    };
    return {"/", {}, {{kStaff, 8}}, {shared, {"Private", {}, {}, {}}}};
}

class Verdict : public VerdictTest {
protected:
    void SetUp() override {
        publish(shared_tree());
        for (const char* name : {"Projects", "Reading", "Closed", "Widened", "Walked", "Viewed",
                                 "Grouped", "Primary", "Both", "Twice", "Leaf", "Outer"})
            make_folder(std::string("Shared/") + name);
        make_folder("Shared/Projects/inside");
        make_folder("Shared/Outer/Inner");
        make_file("Shared/Projects/plan.txt");
    }
};

// Without any map: what is decided before the map is asked for, or never asks for it.
class VerdictWithoutMap : public VerdictTest {};

}  // namespace kvtest
