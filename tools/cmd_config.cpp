// kavrinctl config: shows, makes and removes the shared configuration table that every other
// process copies before it does anything else.
//
// Anyone may make or show the table; the kernel lets only its maker, its owner and root remove it.
// Showing never makes one, and never follows the key addresses in it: they belong to its maker.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "command.h"
#include "config_keys.h"
#include "eventstore.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr int kProject = 3456;
constexpr std::size_t kTableBytes = PARAM_MAX_INDEX * sizeof(global_param_t);

struct Segment {
    int id;
    shmid_ds status;
};

// The segment at the table's key, whatever it is; nothing when there is none.
std::optional<Segment> find_segment() {
    const key_t key = ftok("/dev/null", kProject);
    if (key == -1) fail(Exit::kFailure, "cannot work out the table's key: {}", strerror(errno));
    Segment segment{shmget(key, 0, 0), {}};
    if (segment.id == -1 && errno == ENOENT) return std::nullopt;
    if (segment.id == -1 || shmctl(segment.id, IPC_STAT, &segment.status) != 0)
        fail(Exit::kFailure, "cannot look at the configuration table: {}", strerror(errno));
    return segment;
}

// Refuses a segment that is too small to be a table. The library finds tables by their size.
void require_table(const Segment& segment) {
    if (segment.status.shm_segsz < kTableBytes)
        fail(Exit::kInvalidInput,
             "the segment at the table's key has {} bytes and a table has {}: it is no "
             "configuration table; remove it with 'ipcrm -m {}'",
             segment.status.shm_segsz, kTableBytes, segment.id);
}

void require_right_to_remove(const Segment& segment) {
    const uid_t user = geteuid();
    const ipc_perm& owner = segment.status.shm_perm;
    if (user != 0 && user != owner.uid && user != owner.cuid)
        fail(Exit::kFailure,
             "the configuration table belongs to uid {}; only that user and root may remove it",
             owner.uid);
}

// Attached for reading while one lives.
class TableView {
public:
    explicit TableView(const Segment& segment)
        : table_(static_cast<const global_param_t*>(shmat(segment.id, nullptr, SHM_RDONLY))) {
        if (table_ == reinterpret_cast<const global_param_t*>(-1))
            fail(Exit::kFailure, "cannot attach the configuration table: {}", strerror(errno));
    }
    ~TableView() { shmdt(table_); }
    TableView(const TableView&) = delete;
    TableView& operator=(const TableView&) = delete;
    const global_param_t& slot(const ConfigKey& key) const { return table_[key.slot]; }

private:
    const global_param_t* table_;
};

std::string_view text_of(const global_param_t& slot) {
    return {slot.value.strval, strnlen(slot.value.strval, KAVRIN_PARAM_STRLEN)};
}

std::string value_as_text(const ConfigKey& key, const global_param_t& slot) {
    if (key.type == PARAM_VAL_TYPE_STRING) return fmt::format("\"{}\"", printable(text_of(slot)));
    if (key.type == PARAM_VAL_TYPE_BOOLEAN) return slot.value.intval != 0 ? "yes" : "no";
    return std::to_string(slot.value.intval);
}

nlohmann::json value_as_json(const ConfigKey& key, const global_param_t& slot) {
    if (key.type == PARAM_VAL_TYPE_STRING) return std::string(text_of(slot));
    if (key.type == PARAM_VAL_TYPE_BOOLEAN) return slot.value.intval != 0;
    return slot.value.intval;
}

// False for a table that no create made: a reader that came too early leaves one without types.
bool has_types(const TableView& table) {
    for (const ConfigKey& key : config_keys()) {
        const global_param_t& slot = table.slot(key);
        if (slot.type != PARAM_VAL_TYPE_UNDEF && slot.type != static_cast<std::uint32_t>(key.type))
            fail(Exit::kInvalidInput,
                 "the table is damaged: '{}' is of type {} and should be {} ({}); make a new one "
                 "with 'kavrinctl config create --replace'",
                 key.name, slot.type, static_cast<int>(key.type), type_name(key.type));
    }
    return table.slot(config_keys().front()).type != PARAM_VAL_TYPE_UNDEF;
}

void print_text(const TableView& table) {
    for (const ConfigKey& key : config_keys())
        fmt::print("{:<33} {:<8} {}\n", key.name, type_name(key.type),
                   value_as_text(key, table.slot(key)));
}

void print_json(const TableView& table, bool types) {
    nlohmann::ordered_json parameters;
    for (const ConfigKey& key : config_keys())
        parameters[std::string(key.name)] = value_as_json(key, table.slot(key));
    const nlohmann::ordered_json document = {{"typed", types}, {"parameters", parameters}};
    fmt::print("{}\n",
               document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

Exit show(bool json) {
    const std::optional<Segment> segment = find_segment();
    if (!segment)
        fail(Exit::kFailure,
             "there is no configuration table; start the service that owns it, or make one with "
             "'kavrinctl config create'");
    require_table(*segment);
    const TableView table(*segment);
    const bool types = has_types(table);
    if (!types)
        note(
            "the table has no types: a reader made it before the service did, and readers run on "
            "zeros; fill it with 'kavrinctl config create --replace'");
    if (json)
        print_json(table, types);
    else
        print_text(table);
    return Exit::kDone;
}

std::vector<ConfigSetting> parse_settings(const std::vector<std::string>& arguments) {
    std::vector<ConfigSetting> settings;
    for (const std::string& argument : arguments) {
        ConfigSetting setting = parse_setting(argument);
        for (const ConfigSetting& earlier : settings)
            if (earlier.key == setting.key)
                fail(Exit::kUsage, "'{}' is set twice", setting.key->name);
        settings.push_back(std::move(setting));
    }
    return settings;
}

Exit create(const std::vector<std::string>& arguments, bool replace) {
    const std::vector<ConfigSetting> settings = parse_settings(arguments);
    if (const std::optional<Segment> old = find_segment()) {
        if (!replace)
            fail(Exit::kFailure,
                 "a configuration table exists, made by uid {} and attached {} times; --replace "
                 "removes it first",
                 old->status.shm_perm.cuid, old->status.shm_nattch);
        require_table(*old);
        require_right_to_remove(*old);
        note("replacing the configuration table takes two seconds");
    }
    use_library();
    if (create_config_buffer() != 0)
        fail(Exit::kFailure, "cannot create the configuration table: {}", strerror(errno));
    for (const ConfigSetting& setting : settings) apply_setting(global_params, setting);
    note(fmt::format("created the configuration table with {} of its {} parameters set",
                     settings.size(), config_keys().size()));
    return Exit::kDone;
}

Exit remove() {
    const std::optional<Segment> segment = find_segment();
    if (!segment) fail(Exit::kFailure, "there is no configuration table to remove");
    require_table(*segment);
    require_right_to_remove(*segment);
    use_library();
    // The library does not look at how removing it went.
    if (remove_config_buffer() != 0)
        fail(Exit::kFailure, "cannot remove the configuration table: {}", strerror(errno));
    const std::optional<Segment> left = find_segment();
    if (left && left->id == segment->id)
        fail(Exit::kFailure, "the configuration table is still there; remove it as root");
    note("removed the configuration table; processes keep the copies they have");
    return Exit::kDone;
}

}  // namespace

void register_config(CLI::App& app) {
    CLI::App* config =
        app.add_subcommand("config", "Show, make or remove the shared configuration table");
    config->require_subcommand(1);

    CLI::App* show_command = config->add_subcommand("show", "Print every parameter");
    const auto json = std::make_shared<bool>(false);
    add_json_option(*show_command, *json);
    on_run(*show_command, [json] { return show(*json); });

    CLI::App* create_command = config->add_subcommand(
        "create",
        "Make the table; a parameter that is not set is 0, no or empty. Anyone may make it.");
    const auto settings = std::make_shared<std::vector<std::string>>();
    const auto replace = std::make_shared<bool>(false);
    create_command->add_option("--set", *settings,
                               "NAME=VALUE, as often as needed; for example --set "
                               "'VFS:debug level=2'");
    create_command->add_flag("--replace", *replace,
                             "Remove a table that exists first; takes two seconds");
    on_run(*create_command, [settings, replace] { return create(*settings, *replace); });

    CLI::App* remove_command = config->add_subcommand(
        "remove", "Remove the table; only the user who made it and root may");
    on_run(*remove_command, [] { return remove(); });
}

}  // namespace kvadmin
