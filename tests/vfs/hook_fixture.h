// The stage of the hook tests: a share on disk that its users cannot read, a published map,
// accounts and their group map, a connection, and both event buffers. The test process itself takes
// the user's identity, as smbd does, so that what a hook leaves behind is seen where it happens.
//
// Below "Shared" lies a grid: Shared/P7/S1 is a folder on which the user has mask 1, in one on
// which he has mask 7; each P folder holds a file. His own processes' groups are empty, so that
// only the connection's record can give him rights.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "provoke.h"
#include "support.h"
#include "tests/utils/identity_fixture.h"

namespace kvtest {

struct Account {
    const char* name;     // as the system knows it
    const char* session;  // as the client presents it
    uid_t uid;
};
constexpr Account kAlice = {"kvalice", "KvAlice", 2001};         // power user with rights
constexpr Account kBob = {"kvbob", "KvBob", 2002};               // power user without
constexpr Account kAdmin = {"kvadmin", "KvAdmin", 2003};         // administrator
constexpr Account kStandard = {"kvstandard", "KvStd", 2004};     // neither
constexpr Account kComputer = {"kvcomputer$", "KvComp$", 2005};  // a computer account
constexpr gid_t kPrimary = 7100;
// Ways in which a process serves a user, and root itself.
constexpr Ids kIdentities[] = {{0, kAlice.uid, 0, 7101, 7101, 7103},
                               {0, kAlice.uid, kAlice.uid, 7101, 7101, 7101},
                               {kAlice.uid, kAlice.uid, 0, 7101, 7101, 7101}};
constexpr Ids kRoot = {0, 0, 0, kPrimary, kPrimary, kPrimary};
constexpr int kUntouched = 4242;  // errno before every call

// A verdict that was asked for: operation code and path.
struct Asked {
    int op;
    std::string path;
    bool operator==(const Asked&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Asked& asked);

struct Outcome {
    int result = 77;
    int error = 0;
    Ids during{};
    std::vector<Asked> asked;
};

// A call with one allocation refused.
struct Starved {
    int nth = 0;
    int result = 77;
    int error = 0;
    std::vector<std::string> messages;
    bool said(const std::string& message) const;
};

struct Event {
    int op = -1;
    int type = -1;
    std::string path;
    std::optional<std::string> rename_path;
    bool operator==(const Event&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Event& event);

struct Read {
    std::string path;
    uid_t uid = 0;
    std::string client;
    std::uint64_t size = 0;
    bool operator==(const Read&) const = default;
};

std::string grid(int parent, int self);
std::string file_in(int parent);  // a file in a folder with this mask, 7 bytes long

class HookTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Connects this account and takes its identity.
    void serve(const Account& account, int audit_enabled = 1);
    void become(const Ids& ids);

    std::string at(const std::string& path) const { return share + "/" + path; }

    // Runs a hook and tells what it did. No message of the call before is left.
    Outcome call(const std::function<int()>& hook);
    // ... which must let the operation proceed, as root; gives the credentials back.
    Outcome allowed(const std::function<int()>& hook);
    // ... which must let the operation proceed as the user.
    Outcome allowed_as_user(const std::function<int()>& hook);
    // ... which must refuse and leave identity, disk and buffers as they were.
    Outcome refused(int error, const std::function<int()>& hook);
    // ... which has no result and must leave the identity as it was.
    void record(const std::function<void()>& hook);
    void give_back();

    // Runs `body` in a child that has no way to become root, on an unchanged disk.
    ChildResult without_root(const std::function<void()>& body);

    // Runs a hook with its first, second, ... allocation refused until it needs no more. `prepare`
    // runs before each, `after` when it was allowed. Each refusal must leave the identity alone.
    std::vector<Starved> starve(const std::function<void()>& prepare,
                                const std::function<int()>& hook,
                                const std::function<void()>& after);
    // Heap that each of 100 silent calls leaves behind, in 16 bytes. A sanitizer counts for itself.
    long heap_growth(const std::function<void()>& call);

    std::vector<Event> events();
    std::vector<Read> reads();
    // Exactly this one was recorded, by this user and process, just now.
    void expect_event(int op, int type, const std::string& path,
                      const std::optional<std::string>& rename_path = std::nullopt);

    void make_folder(const std::string& path, uid_t owner = 0, mode_t mode = 0755);
    void make_file(const std::string& path, uid_t owner = 0);
    void mark_fixed(const std::string& path, const std::string& value = "");
    void remove_attribute(const std::string& path, const char* name);
    std::optional<std::string> attribute(const std::string& path, const char* name);
    std::optional<std::string> last_modifier(const std::string& path);
    std::map<std::string, std::string> disk();

    ConfigTable config{10};
    std::string share;
    std::unique_ptr<kv_connection_private_data_t> connection;
    kv_perm_ctx_t* context = nullptr;
    const Account* account = nullptr;

private:
    void prepare_accounts();
    void prepare_share();
};

// Serves the user with rights; what the hooks of folders have in common.
class FolderHooks : public HookTest {
protected:
    void SetUp() override {
        HookTest::SetUp();
        serve(kAlice);
    }
    static std::vector<Asked> one(int op, const std::string& path) { return {{op, path}}; }

    char* path_out = nullptr;
    std::string last_path = std::string(256, ' ');  // room, so that later texts need no memory
    int is_nav = 77;
};

// Effective root for a while, in a process that has it in its saved uid.
class AsRoot {
public:
    AsRoot() : before_(geteuid()) { EXPECT_EQ(seteuid(0), 0); }
    ~AsRoot() { EXPECT_EQ(seteuid(before_), 0); }
    AsRoot(const AsRoot&) = delete;
    AsRoot& operator=(const AsRoot&) = delete;

private:
    uid_t before_;
};

// Heap strings for hooks that free what they are given.
inline char* heap(const std::string& text) {
    return strdup(text.c_str());
}

}  // namespace kvtest
