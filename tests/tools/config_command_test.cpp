// kavrinctl config, against the real shared table: what each command makes, shows and removes, and
// every message it refuses with.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "config_keys.h"
#include "tool_run.h"

namespace {

using kvtest::ChildResult;
using kvtest::run_tool;

constexpr std::size_t kTableBytes = 19760;

int table_id() {
    return shmget(ftok("/dev/null", 3456), 0, 0);
}

// The table's bytes as they are now; removes nothing.
class Table {
public:
    Table() : slots_(static_cast<global_param_t*>(shmat(table_id(), nullptr, 0))) {
        if (slots_ == reinterpret_cast<global_param_t*>(-1)) std::abort();
    }
    ~Table() { shmdt(slots_); }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    global_param_t& operator[](int slot) { return slots_[slot]; }

private:
    global_param_t* slots_;
};

void make_raw_segment(std::size_t bytes) {
    ASSERT_NE(shmget(ftok("/dev/null", 3456), bytes, IPC_CREAT | IPC_EXCL | 0666), -1);
}

void expect_refused(const ChildResult& result, int code, const std::string& message) {
    EXPECT_EQ(result.exit_code, code) << result.err;
    EXPECT_EQ(result.err, "kavrinctl: " + message + "\n");
    EXPECT_EQ(result.out, "");
}

void expect_bad_setting(const std::string& setting, const std::string& message) {
    expect_refused(run_tool({"config", "create", "--set", setting}), 64, message);
    EXPECT_EQ(table_id(), -1) << "a refused create must leave nothing";
}

}  // namespace

TEST(ConfigKeys, AgreeWithTheTableThatTheLibraryMakes) {
    const ChildResult result = kvtest::run_child([] {
        kvadmin::use_library();
        if (create_config_buffer() != 0) return 2;
        std::size_t keyed = 0;
        for (int slot = 0; slot < PARAM_MAX_INDEX; ++slot)
            keyed += global_params[slot].varname != nullptr ? 1 : 0;
        for (const kvadmin::ConfigKey& key : kvadmin::config_keys()) {
            const global_param_t& slot = global_params[key.slot];
            if (slot.varname == nullptr || slot.varname != key.name) return 3;
            if (slot.type != static_cast<std::uint32_t>(key.type)) return 4;
        }
        return keyed == kvadmin::config_keys().size() ? 0 : 5;
    });
    EXPECT_EQ(result.exit_code, 0);
}

TEST(ConfigKeys, NearestNameIgnoresLetterCase) {
    EXPECT_EQ(kvadmin::nearest_config_key("vfs:DEBUG LEVEL"), "VFS:debug level");
    EXPECT_EQ(kvadmin::nearest_config_key("debuglevel"), "VFS:debug level");
    EXPECT_EQ(kvadmin::nearest_config_key("SWEEPER:stagingdir"), "SWEEPER:staging dir");
    for (const kvadmin::ConfigKey& key : kvadmin::config_keys())
        EXPECT_EQ(kvadmin::nearest_config_key(key.name), key.name);
}

TEST(ConfigCreate, MakesAZeroTable) {
    const ChildResult result = run_tool({"config", "create"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_EQ(result.err,
              "kavrinctl: created the configuration table with 0 of its 17 parameters set\n");
    Table table;
    for (const kvadmin::ConfigKey& key : kvadmin::config_keys()) {
        EXPECT_EQ(table[key.slot].type, static_cast<std::uint32_t>(key.type)) << key.name;
        const std::string zero(KAVRIN_PARAM_STRLEN, '\0');
        EXPECT_EQ(std::string(table[key.slot].value.strval, KAVRIN_PARAM_STRLEN), zero) << key.name;
    }
}

TEST(ConfigCreate, SetsValuesOfEveryType) {
    const ChildResult result =
        run_tool({"config", "create", "--set", "VFS:debug level=-3", "--set",
                  "SWEEPER:staging dir=/kavrin/a=b", "VFS:enable forbidden rmdir=yes", "--set",
                  "SWEEPER:staging buffer size=2147483647", "--set", "VFS:default user=-2147483648",
                  "--set", "SWEEPER:disable sweeper flush=false", "--set",
                  "MESSENGER:socket path=" + std::string(1023, 'p')});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.err.find("with 7 of its 17 parameters set"), std::string::npos);
    Table table;
    EXPECT_EQ(table[PARAM_DEBUG_LEVEL].value.intval, -3);
    EXPECT_STREQ(table[PARAM_STAGING_DIR].value.strval, "/kavrin/a=b");
    EXPECT_EQ(table[PARAM_ENABLE_FORBIDDEN_RMDIR].value.intval, 1);
    EXPECT_EQ(table[PARAM_STAGING_BUFFER_SIZE].value.intval, INT32_MAX);
    EXPECT_EQ(table[PARAM_DEFAULT_USER_ID].value.intval, INT32_MIN);
    EXPECT_EQ(table[PARAM_DISABLE_SWEEPER_FLUSH].value.intval, 0);
    EXPECT_EQ(std::string(table[PARAM_SOCKET_PATH].value.strval), std::string(1023, 'p'));
    EXPECT_EQ(table[PARAM_PERMISSION_MAP_PATH].type, 0u);
}

TEST(ConfigCreate, TakesEveryBooleanWord) {
    for (const auto& [word, value] :
         {std::pair{"yes", 1}, {"true", 1}, {"1", 1}, {"no", 0}, {"false", 0}, {"0", 0}}) {
        const kvadmin::ConfigSetting setting =
            kvadmin::parse_setting(std::string("VFS:enable forbidden rmdir=") + word);
        EXPECT_EQ(setting.number, value) << word;
    }
}

TEST(ConfigCreate, RefusesAnUnknownNameAndSuggestsTheNearest) {
    expect_bad_setting("VFS:debuglevel=2",
                       "no parameter is named 'VFS:debuglevel'; did you mean 'VFS:debug level'?");
    expect_bad_setting("vfs:debug level=2",
                       "no parameter is named 'vfs:debug level'; did you mean 'VFS:debug level'?");
}

TEST(ConfigCreate, RefusesASettingWithoutEquals) {
    expect_bad_setting("VFS:debug level",
                       "--set takes NAME=VALUE, and 'VFS:debug level' has no '='");
}

TEST(ConfigCreate, RefusesWhatIsNoInteger) {
    for (const char* value : {"", "two", "2x", " 2", "0x10", "1.5", "+1"})
        expect_bad_setting(std::string("VFS:debug level=") + value,
                           std::string("'VFS:debug level' takes an integer, not '") + value + "'");
}

TEST(ConfigCreate, RefusesAnIntegerOfMoreThan32Bits) {
    for (const char* value : {"2147483648", "-2147483649", "99999999999999999999"})
        expect_bad_setting(std::string("VFS:debug level=") + value,
                           std::string("'VFS:debug level' takes an integer from -2147483648 to "
                                       "2147483647, not '") +
                               value + "'");
}

TEST(ConfigCreate, RefusesWhatIsNoBoolean) {
    for (const char* value : {"", "on", "YES", "2"})
        expect_bad_setting(std::string("VFS:enable forbidden rmdir=") + value,
                           std::string("'VFS:enable forbidden rmdir' takes yes or no, true or "
                                       "false, 1 or 0, not '") +
                               value + "'");
}

TEST(ConfigCreate, RefusesATextThatDoesNotFit) {
    expect_bad_setting("SWEEPER:staging dir=" + std::string(1024, 'd'),
                       "'SWEEPER:staging dir' takes a text of fewer than 1024 bytes, not one of "
                       "1024");
}

TEST(ConfigCreate, RefusesANameSetTwice) {
    expect_refused(
        run_tool({"config", "create", "--set", "VFS:debug level=1", "--set", "VFS:debug level=2"}),
        64, "'VFS:debug level' is set twice");
    EXPECT_EQ(table_id(), -1);
}

TEST(ConfigCreate, LeavesAnExistingTableAlone) {
    ASSERT_EQ(run_tool({"config", "create", "--set", "VFS:debug level=4"}).exit_code, 0);
    const int before = table_id();
    const ChildResult result = run_tool({"config", "create", "--set", "VFS:debug level=9"});
    expect_refused(result, 1,
                   "a configuration table exists, made by uid 0 and attached 0 times; --replace "
                   "removes it first");
    EXPECT_EQ(table_id(), before);
    EXPECT_EQ(Table()[PARAM_DEBUG_LEVEL].value.intval, 4);
}

TEST(ConfigCreate, ReplaceMakesAFreshTable) {
    ASSERT_EQ(run_tool({"config", "create", "--set", "VFS:debug level=4"}).exit_code, 0);
    const int before = table_id();
    const ChildResult result =
        run_tool({"config", "create", "--replace", "--set", "VFS:default user=7"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.err.find("replacing the configuration table takes two seconds\n"),
              std::string::npos);
    EXPECT_NE(table_id(), before);
    Table table;
    EXPECT_EQ(table[PARAM_DEBUG_LEVEL].value.intval, 0);
    EXPECT_EQ(table[PARAM_DEFAULT_USER_ID].value.intval, 7);
}

TEST(ConfigCreate, AnyoneMayMakeATableButNotReplaceAnothers) {
    const ChildResult made = kvtest::run_child([] {
        if (setresgid(3001, 3001, 3001) != 0 || setresuid(3001, 3001, 3001) != 0) return 99;
        const char* words[] = {"kavrinctl", "config", "create"};
        return kvadmin::run(3, words);
    });
    ASSERT_EQ(made.exit_code, 0) << made.err;
    for (const char* command : {"create", "remove"}) {
        const ChildResult result = kvtest::run_child([&] {
            if (setresgid(3002, 3002, 3002) != 0 || setresuid(3002, 3002, 3002) != 0) return 99;
            const char* words[] = {"kavrinctl", "config", command, "--replace"};
            return kvadmin::run(std::strcmp(command, "create") == 0 ? 4 : 3, words);
        });
        expect_refused(result, 1,
                       "the configuration table belongs to uid 3001; only that user and root may "
                       "remove it");
    }
    EXPECT_NE(table_id(), -1);
    EXPECT_EQ(run_tool({"config", "remove"}).exit_code, 0) << "root may";
}

TEST(ConfigShow, NeverMakesATable) {
    expect_refused(run_tool({"config", "show"}), 1,
                   "there is no configuration table; start the service that owns it, or make one "
                   "with 'kavrinctl config create'");
    EXPECT_EQ(table_id(), -1);
}

TEST(ConfigShow, PrintsEveryParameter) {
    ASSERT_EQ(run_tool({"config", "create", "--set", "VFS:debug level=2",
                        "SWEEPER:staging dir=/kavrin/\x1b[31m", "VFS:enable forbidden rmdir=1"})
                  .exit_code,
              0);
    const ChildResult result = run_tool({"config", "show"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 17);
    EXPECT_NE(result.out.find("VFS:debug level                   integer  2\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("SWEEPER:staging dir               text     \"/kavrin/\\x1b[31m\"\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("VFS:enable forbidden rmdir        boolean  yes\n"),
              std::string::npos);
    EXPECT_NE(result.out.find("SWEEPER:disable sweeper flush     boolean  no\n"),
              std::string::npos);
}

TEST(ConfigShow, PrintsJson) {
    ASSERT_EQ(run_tool({"config", "create", "--set", "VFS:debug level=2",
                        "SWEEPER:staging dir=/kavrin/s", "VFS:enable forbidden rmdir=1"})
                  .exit_code,
              0);
    const ChildResult result = run_tool({"config", "show", "--json"});
    EXPECT_EQ(result.exit_code, 0);
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["typed"], true);
    EXPECT_EQ(document["parameters"].size(), 17u);
    EXPECT_EQ(document["parameters"]["VFS:debug level"], 2);
    EXPECT_EQ(document["parameters"]["SWEEPER:staging dir"], "/kavrin/s");
    EXPECT_EQ(document["parameters"]["VFS:enable forbidden rmdir"], true);
    EXPECT_EQ(document["parameters"]["SWEEPER:disable sweeper flush"], false);
}

TEST(ConfigShow, DoesNotFollowTheKeysOfItsMaker) {
    ASSERT_EQ(run_tool({"config", "create"}).exit_code, 0);
    Table table;
    for (int slot = 0; slot < PARAM_MAX_INDEX; ++slot)
        table[slot].varname = reinterpret_cast<const char*>(std::uintptr_t{8});
    EXPECT_EQ(run_tool({"config", "show"}).exit_code, 0);
}

TEST(ConfigShow, ReadsATextWithoutAnEnd) {
    ASSERT_EQ(run_tool({"config", "create"}).exit_code, 0);
    std::memset(Table()[PARAM_AUDITING_DIR].value.strval, 'z', KAVRIN_PARAM_STRLEN);
    const ChildResult result = run_tool({"config", "show", "--json"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(nlohmann::json::parse(result.out)["parameters"]["SWEEPER:auditing dir"],
              std::string(KAVRIN_PARAM_STRLEN, 'z'));
}

TEST(ConfigShow, SaysWhenAReaderMadeTheTable) {
    make_raw_segment(kTableBytes);
    const ChildResult result = run_tool({"config", "show"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err,
              "kavrinctl: the table has no types: a reader made it before the service did, and "
              "readers run on zeros; fill it with 'kavrinctl config create --replace'\n");
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 17);
}

TEST(ConfigShow, RefusesADamagedType) {
    ASSERT_EQ(run_tool({"config", "create"}).exit_code, 0);
    Table()[PARAM_STAGING_DIR].type = 7;
    expect_refused(run_tool({"config", "show"}), 3,
                   "the table is damaged: 'SWEEPER:staging dir' is of type 7 and should be 2 "
                   "(text); make a new one with 'kavrinctl config create --replace'");
}

TEST(ConfigCommands, RefuseASegmentThatIsTooSmall) {
    make_raw_segment(100);
    const std::string message =
        "the segment at the table's key has 100 bytes and a table has 19760: it is no "
        "configuration table; remove it with 'ipcrm -m " +
        std::to_string(table_id()) + "'";
    expect_refused(run_tool({"config", "show"}), 3, message);
    expect_refused(run_tool({"config", "create", "--replace"}), 3, message);
    expect_refused(run_tool({"config", "remove"}), 3, message);
    EXPECT_NE(table_id(), -1);
}

TEST(ConfigRemove, RemovesTheTable) {
    ASSERT_EQ(run_tool({"config", "create"}).exit_code, 0);
    const ChildResult result = run_tool({"config", "remove"});
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.err,
              "kavrinctl: removed the configuration table; processes keep the copies they have\n");
    EXPECT_EQ(table_id(), -1);
    expect_refused(run_tool({"config", "remove"}), 1, "there is no configuration table to remove");
}

TEST(ConfigRemove, RemovesATableThatSomebodyIsAttachedTo) {
    ASSERT_EQ(run_tool({"config", "create"}).exit_code, 0);
    const Table attached;
    EXPECT_EQ(run_tool({"config", "remove"}).exit_code, 0);
    EXPECT_EQ(table_id(), -1);
}

TEST(ConfigCommands, NeedASubCommand) {
    const ChildResult result = run_tool({"config"});
    EXPECT_EQ(result.exit_code, 64);
    EXPECT_EQ(run_tool({"config", "create", "--set"}).exit_code, 64);
    EXPECT_EQ(run_tool({"config", "show", "extra"}).exit_code, 64);
}
