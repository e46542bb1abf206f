// What the hook tests stand on is made through the public calls and plain files only. What hooks
// recorded is read in hook_records.cpp.
#include "hook_fixture.h"

#include <malloc.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace kvtest {
namespace {

constexpr gid_t kAdmins = 7001;
constexpr gid_t kPowers = 7002;
constexpr gid_t kStaff = 7003;
constexpr int kParents[] = {7, 6, 3, 1, 8, 16, 0};
constexpr int kSelves[] = {7, 1, 2, 8, 16, 0};

struct Member {
    const Account& account;
    gid_t group;
};
constexpr Member kMembers[] = {{kAlice, kPowers},
                               {kBob, kPowers},
                               {kAdmin, kAdmins},
                               {kStandard, kStaff},
                               {kComputer, kPowers}};

void set_word(std::string& bytes, std::size_t offset, std::uint32_t value) {
    std::memcpy(bytes.data() + offset, &value, sizeof value);
}
void set_text(std::string& bytes, std::size_t offset, const char* text) {
    std::memcpy(bytes.data() + offset, text, std::strlen(text) + 1);
}

// Two reserved groups, then the users by the names that their sessions use.
std::string group_map() {
    std::string bytes(8192, '\0');
    const std::uint32_t header[] = {16, 2, 32, static_cast<std::uint32_t>(std::size(kMembers))};
    std::memcpy(bytes.data(), header, sizeof header);
    set_word(bytes, 16, 1024);
    set_word(bytes, 20, kAdmins);
    set_word(bytes, 24, 1056);
    set_word(bytes, 28, kPowers);
    set_text(bytes, 1024, "kavrin-admins");
    set_text(bytes, 1056, "kavrin-powerusers");
    std::size_t i = 0;
    for (const Member& member : kMembers) {
        const auto name = static_cast<std::uint32_t>(2048 + 64 * i);
        const auto gids = static_cast<std::uint32_t>(4096 + 64 * i);
        set_word(bytes, 32 + 16 * i, name);
        set_word(bytes, 36 + 16 * i, static_cast<std::uint32_t>(std::strlen(member.account.name)));
        set_word(bytes, 40 + 16 * i, gids);
        set_word(bytes, 44 + 16 * i, 2);
        set_text(bytes, name, member.account.session);
        set_word(bytes, gids, 7999);
        set_word(bytes, gids + 4, member.group);
        ++i;
    }
    return bytes;
}

Node element(const std::string& name, std::uint32_t mask, std::vector<Node> children) {
    // A childless element would count as one that is not in the map.
    if (children.empty()) children.push_back({"inside", {}, {}, {}});
    return {name, {{kAlice.uid, mask}}, {}, std::move(children)};
}

Node permission_tree() {
    Node shared{"Shared", {}, {{kStaff, 8}}, {}};
    for (const int parent : kParents) {
        std::vector<Node> children;
        for (const int self : kSelves)
            children.push_back(
                element("S" + std::to_string(self), static_cast<std::uint32_t>(self), {}));
        shared.children.push_back(element("P" + std::to_string(parent),
                                          static_cast<std::uint32_t>(parent), std::move(children)));
    }
    return {"/", {}, {{kStaff, 8}}, {shared, {"Private", {}, {}, {}}}};
}

std::vector<Asked> asked_verdicts(const std::string& share) {
    std::vector<Asked> asked;
    const std::string start = "Enforcing permissions for op ";
    const std::string root = " root " + share + " path ";
    for (const LogLine& line : log_lines()) {
        if (!line.message.starts_with(start)) continue;
        const std::size_t where = line.message.find(root);
        EXPECT_NE(where, std::string::npos) << line.message;
        if (where == std::string::npos) continue;
        const std::string rest = line.message.substr(where + root.size());
        asked.push_back(
            {std::atoi(line.message.c_str() + start.size()), rest.substr(0, rest.find(" pid "))});
    }
    return asked;
}

std::string attributes_of(const std::string& path) {
    char names[4096];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    std::string text;
    for (const char* name = names; size > 0 && name < names + size; name += std::strlen(name) + 1) {
        char value[4096];
        const ssize_t length = lgetxattr(path.c_str(), name, value, sizeof value);
        text += std::string(name) + "=" +
                std::string(value, length > 0 ? static_cast<std::size_t>(length) : 0) + ";";
    }
    return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Asked& asked) {
    return out << "operation " << asked.op << " on " << asked.path;
}
std::string grid(int parent, int self) {
    return "Shared/P" + std::to_string(parent) + "/S" + std::to_string(self);
}
std::string file_in(int parent) {
    return "Shared/P" + std::to_string(parent) + "/file";
}

bool Starved::said(const std::string& message) const {
    for (const std::string& one : messages)
        if (one == message) return true;
    return false;
}

void HookTest::SetUp() {
    ASSERT_NE(getenv("KAVRIN_SANDBOX"), nullptr) << "run this inside scripts/sandbox";
    config.set_int(PARAM_STAGING_BUFFER_SIZE, 1 << 20);
    config.set_int(PARAM_FLUSH_FILL_THRESHOLD, 90);
    config.set_int(PARAM_AUDITING_BUFFER_SIZE, 1 << 20);
    config.set_int(PARAM_AUDITING_FLUSH_INTERVAL, 3600);
    config.set_string(PARAM_STAGING_DIR, make_temp_dir());
    config.set_string(PARAM_AUDITING_DIR, make_temp_dir());
    reserved_user_uid = 0;
    prepare_accounts();
    publish(permission_tree());
    prepare_share();
    ASSERT_EQ(create_eventstore_staging_semaphore(), 1);
    ASSERT_EQ(create_staging_buffer(), 0);
    connection = std::make_unique<kv_connection_private_data_t>();
}

void HookTest::TearDown() {
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    ASSERT_EQ(setresgid(0, 0, 0), 0);
    EXPECT_EQ(context, nullptr) << "a test keeps credentials";
    if (connection != nullptr) {
        destroy_tlb(&connection->vfs_table_cache);
        free(connection->groupmap.gids);
    }
    free(std::exchange(global_read_audit_buffer, nullptr));
    remove_staging_buffers();
    destroy_eventstore_staging_buffer_semaphore();
}

void HookTest::prepare_accounts() {
    const std::string passwd = read_file("/etc/passwd");
    std::string lines;
    for (const Member& member : kMembers) {
        const std::string line = std::string(member.account.name) +
                                 ":x:" + std::to_string(member.account.uid) + ":" +
                                 std::to_string(kPrimary) + "::/:/bin/false\n";
        if (passwd.find("\n" + line) == std::string::npos) lines += line;
    }
    if (!lines.empty()) write_file("/etc/passwd", passwd + lines);
    write_file("/etc/kavrin/groupmap_refresh", group_map());
    write_file("/etc/kavrin/permission_refresh", "");
}

void HookTest::prepare_share() {
    share = make_temp_dir() + "/share";
    ASSERT_EQ(mkdir(share.c_str(), 0755), 0);
    make_folder("Shared", 0, 0700);
    for (const int parent : kParents) {
        make_folder("Shared/P" + std::to_string(parent));
        make_file(file_in(parent));
        for (const int self : kSelves) make_folder(grid(parent, self));
    }
    make_folder("Private");
    make_folder("Private/kvalice", kAlice.uid, 0700);
    make_folder("Private/kvalice/sub", kAlice.uid);
    make_file("Private/kvalice/doc", kAlice.uid);
    make_folder("Private/kvbob", kBob.uid, 0700);
}

void HookTest::serve(const Account& who, int audit_enabled) {
    account = &who;
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    become_user(who.uid, kPrimary, {});
    init_private_data(connection.get());
    connection->user_name_as_passed_in = const_cast<char*>(who.session);
    int users = 0;
    ASSERT_EQ(connect_preprocess(who.name, connection.get(), audit_enabled, &users), 0);
    ASSERT_EQ(connection->refresh_creds.euid, who.uid);
    ASSERT_EQ(connection->groupmap.num_sup_gids, 2);
}

void HookTest::become(const Ids& ids) {
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_EQ(syscall(SYS_setresgid, ids[3], ids[4], ids[5]), 0);
    ASSERT_EQ(syscall(SYS_setresuid, ids[0], ids[1], ids[2]), 0);
}

Outcome HookTest::call(const std::function<int()>& hook) {
    Outcome outcome;
    clear_log();
    errno = kUntouched;
    outcome.result = hook();
    outcome.error = errno;
    outcome.during = thread_ids();
    outcome.asked = asked_verdicts(share);
    return outcome;
}

Outcome HookTest::allowed(const std::function<int()>& hook) {
    const Ids before = thread_ids();
    Outcome outcome = call(hook);
    EXPECT_EQ(outcome.result, 0);
    if (outcome.result != 0) {
        context = nullptr;
        return outcome;
    }
    Ids during = before;
    if (before[1] != 0) during[0] = during[1] = 0;
    EXPECT_EQ(outcome.during, during) << "the operation runs as root";
    if (before[1] != 0) {
        EXPECT_NE(context, nullptr);
        if (context != nullptr) {
            EXPECT_EQ(ids_of(*context), before);
        }
    } else {
        EXPECT_EQ(context, nullptr) << "nothing to give back";
    }
    if (context != nullptr) give_back();
    EXPECT_EQ(thread_ids(), before) << "the credentials are the ones from before";
    return outcome;
}

Outcome HookTest::allowed_as_user(const std::function<int()>& hook) {
    const Ids before = thread_ids();
    Outcome outcome = call(hook);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.during, before) << "the operation runs as the user";
    EXPECT_EQ(context, nullptr);
    return outcome;
}

Outcome HookTest::refused(int error, const std::function<int()>& hook) {
    const bool can_look = thread_ids()[2] == 0 || thread_ids()[0] == 0;
    const Ids before = thread_ids();
    const std::vector<Event> events_before = events();
    const std::vector<Read> reads_before = reads();
    const auto disk_before = can_look ? disk() : std::map<std::string, std::string>();
    Outcome outcome = call(hook);
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.error, error);
    EXPECT_EQ(outcome.during, before) << "a refusal leaves the process as it was";
    EXPECT_EQ(thread_ids(), before);
    EXPECT_EQ(events(), events_before);
    EXPECT_EQ(reads(), reads_before);
    if (can_look) {
        EXPECT_EQ(disk(), disk_before);
    }
    context = nullptr;  // worthless after a refusal
    return outcome;
}

void HookTest::record(const std::function<void()>& hook) {
    const Ids before = thread_ids();
    clear_log();
    hook();
    EXPECT_EQ(thread_ids(), before);
}

void HookTest::give_back() {
    EXPECT_EQ(kavrin_vfs_unbecome_root(std::exchange(context, nullptr)), 0);
}

ChildResult HookTest::without_root(const std::function<void()>& body) {
    const auto before = disk();
    ChildResult result = expect_in_child([&] {
        const uid_t uid = account->uid;
        ASSERT_EQ(syscall(SYS_setresuid, uid, uid, uid), 0);
        body();
    });
    EXPECT_EQ(disk(), before);
    return result;
}

std::vector<Starved> HookTest::starve(const std::function<void()>& prepare,
                                      const std::function<int()>& hook,
                                      const std::function<void()>& after) {
    std::vector<Starved> outcomes;
    config.set_debug_level(0);
    const Ids before = thread_ids();
    for (bool refused = true; refused && outcomes.size() < 100;) {
        Starved one;
        one.nth = static_cast<int>(outcomes.size()) + 1;
        prepare();
        clear_log();
        {
            RefusedAllocation watch(one.nth);
            errno = kUntouched;
            one.result = hook();
            one.error = errno;
            refused = RefusedAllocation::count() >= one.nth;
        }
        for (const LogLine& line : log_lines()) one.messages.push_back(line.message);
        if (one.result == 0)
            after();
        else
            context = nullptr;
        EXPECT_EQ(thread_ids(), before) << "allocation " << one.nth;
        if (refused) outcomes.push_back(one);
    }
    config.set_debug_level(10);
    return outcomes;
}

long HookTest::heap_growth(const std::function<void()>& call) {
    config.set_debug_level(-1);
    for (int i = 0; i < 30; ++i) call();
    const auto before = mallinfo2();
    for (int i = 0; i < 100; ++i) call();
    const auto after = mallinfo2();
    config.set_debug_level(10);
    const long growth = static_cast<long>(after.uordblks + after.hblkhd) -
                        static_cast<long>(before.uordblks + before.hblkhd);
    return growth / 100 / 16;  // less than the smallest block per call is the allocator's own
}

void HookTest::make_folder(const std::string& path, uid_t owner, mode_t mode) {
    const AsRoot root;
    ASSERT_EQ(mkdir(at(path).c_str(), mode), 0) << path;
    ASSERT_EQ(chown(at(path).c_str(), owner, kPrimary), 0) << path;
}
void HookTest::make_file(const std::string& path, uid_t owner) {
    const AsRoot root;
    write_file(at(path), "content");
    ASSERT_EQ(chown(at(path).c_str(), owner, kPrimary), 0) << path;
}
void HookTest::mark_fixed(const std::string& path, const std::string& value) {
    const AsRoot root;
    ASSERT_EQ(setxattr(at(path).c_str(), "user.kavrin.fixed_folder", value.data(), value.size(), 0),
              0)
        << path << ": " << std::strerror(errno);
}
void HookTest::remove_attribute(const std::string& path, const char* name) {
    const AsRoot root;
    ASSERT_EQ(removexattr(at(path).c_str(), name), 0) << path;
}
std::optional<std::string> HookTest::attribute(const std::string& path, const char* name) {
    const AsRoot root;
    char value[256];
    const ssize_t size = getxattr(at(path).c_str(), name, value, sizeof value);
    if (size < 0) return std::nullopt;
    return std::string(value, static_cast<std::size_t>(size));
}
std::optional<std::string> HookTest::last_modifier(const std::string& path) {
    return attribute(path, "user.kavrin.last_smb_accessed_by");
}

std::map<std::string, std::string> HookTest::disk() {
    const AsRoot root;
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(share)) {
        const std::string path = entry.path();
        struct stat st;
        EXPECT_EQ(lstat(path.c_str(), &st), 0);
        entries[path] = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + " " +
                        std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
                        std::to_string(st.st_mtim.tv_nsec) + " " + attributes_of(path);
    }
    return entries;
}

}  // namespace kvtest
