// The stage of the connection tests: accounts of their own in the system's list, a real group map
// and real markers at the fixed places, and a zero-filled record as the module hands it in. The
// sandbox throws all of it away; a test run as part of the whole binary puts it back itself.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "provoke.h"
#include "support.h"

namespace kvtest {

constexpr const char* kGroupMapFile = "/etc/kavrin/groupmap_refresh";
constexpr const char* kMapMarkerFile = "/etc/kavrin/permission_refresh";

constexpr uid_t kAnna = 4101;
constexpr uid_t kBoris = 4102;
constexpr uid_t kHost = 4103;
constexpr uid_t kStrangerUid = 4999;  // of no account
constexpr gid_t kAdminsGid = 7001;
constexpr gid_t kPowersGid = 7002;

using GidList = std::vector<gid_t>;

struct MapUser {
    std::string name;
    GidList gids;
};
struct MapGroup {
    std::string name;
    gid_t gid;
};

// A group map as its writer lays it out.
inline std::string group_map(const std::vector<MapUser>& users,
                             const std::vector<MapGroup>& reserved =
                                 {{"kavrin-powerusers", kPowersGid}, {"kavrin-admins", kAdminsGid}},
                             std::size_t size = 8192) {
    std::string bytes(size, '\0');
    const auto word = [&](std::size_t offset, std::size_t value) {
        const auto number = static_cast<std::uint32_t>(value);
        std::memcpy(bytes.data() + offset, &number, sizeof number);
    };
    std::size_t names = 1024;
    std::size_t ids = 4096;
    const auto name = [&](std::size_t offset, const std::string& text) {
        word(offset, names);
        std::memcpy(bytes.data() + names, text.c_str(), text.size() + 1);
        names += text.size() + 1;
    };
    const std::size_t groups_at = 16;
    const std::size_t users_at = groups_at + 8 * reserved.size();
    word(0, groups_at);
    word(4, reserved.size());
    word(8, users_at);
    word(12, users.size());
    for (std::size_t i = 0; i < reserved.size(); ++i) {
        name(groups_at + 8 * i, reserved[i].name);
        word(groups_at + 8 * i + 4, reserved[i].gid);
    }
    for (std::size_t i = 0; i < users.size(); ++i) {
        const std::size_t at = users_at + 16 * i;
        name(at, users[i].name);
        word(at + 4, users[i].name.size());
        word(at + 8, ids);
        word(at + 12, users[i].gids.size());
        for (const gid_t gid : users[i].gids) {
            word(ids, gid);
            ids += 4;
        }
    }
    return bytes;
}

// Replaces a file as its writer does, by a new one under the same name: mappings of the old stay.
inline void replace_file(const std::string& path, std::string_view content) {
    write_file(path + ".new", content);
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
}

inline void set_time(const char* path, std::time_t seconds, long nanoseconds = 0) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path, times, 0), 0) << path;
}

// How often this process maps a file of that path, replaced ones included.
inline int mappings_of(const std::string& path) {
    const std::string maps = read_file("/proc/self/maps");
    int count = 0;
    for (std::size_t at = 0; (at = maps.find(path, at)) != std::string::npos; ++at) ++count;
    return count;
}

// A text as a pattern that matches it and nothing else.
inline std::string literal(std::string_view text) {
    std::string pattern;
    for (const char c : text) {
        if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) pattern += '\\';
        pattern += c;
    }
    return pattern;
}

inline std::string pointer_text(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

// The captured messages that hold one of these parts, in their order.
inline std::vector<std::string> logged_in_order(const std::vector<std::string>& parts) {
    std::vector<std::string> found;
    for (const LogLine& line : log_lines())
        for (const std::string& part : parts)
            if (line.message.find(part) != std::string::npos) found.push_back(part);
    return found;
}

// Heap growth of a body that must give back all it takes: far below what one leak in it adds up to.
template <typename Body>
std::size_t heap_growth(int rounds, Body body) {
    for (int i = 0; i < 20; ++i) body();
    clear_log();
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < rounds; ++i) body();
    const std::size_t after = mallinfo2().uordblks;
    return after > before ? after - before : 0;
}

struct FreeRecord {
    void operator()(kv_connection_private_data_t* record) const {
        for (char* path : record->vfs_table_cache.tlb_paths) std::free(path);
        std::free(record->groupmap.gids);
        std::free(record);
    }
};
using Connection = std::unique_ptr<kv_connection_private_data_t, FreeRecord>;

// A record as the module allocates and prepares it.
inline Connection new_connection(std::string& user) {
    Connection record(static_cast<kv_connection_private_data_t*>(
        std::calloc(1, sizeof(kv_connection_private_data_t))));
    init_private_data(record.get());
    record->user_name_as_passed_in = user.data();
    return record;
}

// The same with arrays as connect leaves them and an identity, without connecting.
inline Connection ready_connection(std::string& user, uid_t uid) {
    Connection record = new_connection(user);
    init_tlb(&record->vfs_table_cache);
    record->refresh_creds.euid = uid;
    return record;
}

// Three entries, the first of them used last.
inline void fill_cache(kv_vfs_table_cache_t& cache, std::size_t length = 1) {
    for (const char name : {'c', 'b', 'a'})
        add_tlb_entry(std::string(length, name).data(), -1, FSOP_STAT, KVPERMS_HAS_PERMS, &cache);
}

// No path, no verdict, and every slot free in its first place.
inline void expect_empty(const kv_vfs_table_cache_t& cache) {
    EXPECT_EQ(cache.vfs_tlb_end, 0);
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(cache.tlb_paths[i], nullptr) << i;
        ASSERT_EQ(cache.tlb_index_table[i], i);
        const tlb_perms_t& perms = cache.tlb_perms[i];
        ASSERT_EQ(perms.set[0] | perms.set[1] | perms.value[0] | perms.value[1], 0u) << i;
    }
}

inline std::vector<char> bytes_of(const kv_connection_private_data_t& record) {
    std::vector<char> bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

inline GidList gids_of(const kv_connection_private_data_t& record) {
    const process_trustees_t& identity = record.groupmap;
    if (identity.gids == nullptr) return {};
    return {identity.gids, identity.gids + identity.num_sup_gids};
}

class ConnectionTest : public testing::Test {
protected:
    ConnectionTest() {
        if (std::getenv("KAVRIN_SANDBOX") == nullptr) {
            std::fputs("these tests add accounts: run them in scripts/sandbox\n", stderr);
            std::abort();
        }
        write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
        add_account("anna", kAnna);
        add_account("boris", kBoris);
        add_account("host$", kHost);
    }
    ~ConnectionTest() override {
        write_file("/etc/passwd", accounts_before_);
        unlink(kGroupMapFile);
        unlink(kMapMarkerFile);
        if (g_kavrin_grouplist_map != nullptr)
            kavrin_unmap(g_kavrin_grouplist_map, g_kavrin_grouplist_map_size);
        g_kavrin_grouplist_map = nullptr;
        g_kavrin_grouplist_map_size = 0;
        std::free(global_read_audit_buffer);
        global_read_audit_buffer = nullptr;
        reserved_user_uid = 0;
        vfs_set_admins_powerusers(0, 0);
    }

    // The comment makes the account's entry as long as it has to be.
    void add_account(const std::string& name, uid_t uid, std::size_t comment = 0) {
        const std::string number = std::to_string(uid);
        accounts_ += name + ":x:" + number + ":" + number + ":" + std::string(comment, 'c') +
                     ":/nonexistent:/usr/sbin/nologin\n";
        write_file("/etc/passwd", accounts_);
    }

    void write_markers(std::string_view map) {
        replace_file(kGroupMapFile, map);
        write_file(kMapMarkerFile, "");
    }
    void write_default_markers() {
        write_markers(group_map({{"anna", {5001, 5002}}, {"boris", {5003}}, {"host$", {5004}}}));
    }

    // Expects one message of this pattern from this debug level on, and none below.
    template <typename Body>
    void expect_logged_from(int level, const std::string& pattern, Body body) {
        for (const int at : {level - 1, level, level + 1}) {
            config.set_debug_level(at);
            clear_log();
            body();
            EXPECT_EQ(logged_matching(log_lines(), pattern), at < level ? 0 : 1)
                << "at level " << at << ": " << pattern;
        }
        for (const LogLine& line : log_lines()) EXPECT_EQ(line.priority, 6);
        config.set_debug_level(0);
    }

    ConfigTable config;
    std::string anna = "anna";
    std::string boris = "boris";

private:
    std::string accounts_before_ = read_file("/etc/passwd");
    std::string accounts_ = accounts_before_;
};

}  // namespace kvtest
