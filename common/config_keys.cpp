// See config_keys.h.
#include "config_keys.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <vector>

#include "failure.h"

namespace kvadmin {
namespace {

constexpr auto kInteger = PARAM_VAL_TYPE_INT;
constexpr auto kText = PARAM_VAL_TYPE_STRING;
constexpr auto kBoolean = PARAM_VAL_TYPE_BOOLEAN;

constexpr ConfigKey kKeys[] = {
    {PARAM_DEFAULT_USER_ID, "VFS:default user", kInteger},
    {PARAM_DEFAULT_GROUP_ID, "VFS:default group", kInteger},
    {PARAM_REGEX_FILE_NAME, "VFS:exception pattern file", kText},
    {PARAM_DISABLE_SWEEPER_FLUSH, "SWEEPER:disable sweeper flush", kBoolean},
    {PARAM_STAGING_BUFFER_SIZE, "SWEEPER:staging buffer size", kInteger},
    {PARAM_FLUSH_PERIOD, "SWEEPER:flush period", kInteger},
    {PARAM_STAGING_DIR, "SWEEPER:staging dir", kText},
    {PARAM_FLUSH_FILL_THRESHOLD, "SWEEPER:flush fill threshold pct", kInteger},
    {PARAM_SOCKET_BACKLOG, "MESSENGER:socket backlog", kInteger},
    {PARAM_SOCKET_MESSAGE_SIZE, "MESSENGER:socket message size", kInteger},
    {PARAM_SOCKET_PATH, "MESSENGER:socket path", kText},
    {PARAM_CHECK_REGEX_UNLINK, "VFS:check regex unlink", kInteger},
    {PARAM_DEBUG_LEVEL, "VFS:debug level", kInteger},
    {PARAM_ENABLE_FORBIDDEN_RMDIR, "VFS:enable forbidden rmdir", kBoolean},
    {PARAM_AUDITING_DIR, "SWEEPER:auditing dir", kText},
    {PARAM_AUDITING_BUFFER_SIZE, "SWEEPER:auditing buffer size", kInteger},
    {PARAM_AUDITING_FLUSH_INTERVAL, "SWEEPER:auditing flush interval", kInteger},
};
static_assert(std::size(kKeys) == PARAM_MAX_INDEX - 2);

struct BooleanWord {
    std::string_view word;
    std::int32_t value;
};
constexpr BooleanWord kBooleans[] = {{"yes", 1}, {"true", 1},  {"1", 1},
                                     {"no", 0},  {"false", 0}, {"0", 0}};

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::int32_t parse_integer(const ConfigKey& key, std::string_view value) {
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error == std::errc::result_out_of_range)
        fail(Exit::kUsage, "'{}' takes an integer from {} to {}, not '{}'", key.name, INT32_MIN,
             INT32_MAX, value);
    if (error != std::errc{} || end != value.data() + value.size())
        fail(Exit::kUsage, "'{}' takes an integer, not '{}'", key.name, value);
    return number;
}

std::int32_t parse_boolean(const ConfigKey& key, std::string_view value) {
    for (const BooleanWord& known : kBooleans)
        if (value == known.word) return known.value;
    fail(Exit::kUsage, "'{}' takes yes or no, true or false, 1 or 0, not '{}'", key.name, value);
}

}  // namespace

std::size_t distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    for (std::size_t j = 0; j <= to.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t change = diagonal + (lower(from[i - 1]) == lower(to[j - 1]) ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
        }
    }
    return row[to.size()];
}

std::span<const ConfigKey> config_keys() {
    return kKeys;
}

const ConfigKey* find_config_key(std::string_view name) {
    for (const ConfigKey& key : kKeys)
        if (key.name == name) return &key;
    return nullptr;
}

std::string_view nearest_config_key(std::string_view name) {
    return std::min_element(std::begin(kKeys), std::end(kKeys),
                            [name](const ConfigKey& a, const ConfigKey& b) {
                                return distance(name, a.name) < distance(name, b.name);
                            })
        ->name;
}

std::string_view type_name(e_param_val_type_t type) {
    switch (type) {
        case PARAM_VAL_TYPE_INT:
            return "integer";
        case PARAM_VAL_TYPE_STRING:
            return "text";
        case PARAM_VAL_TYPE_BOOLEAN:
            return "boolean";
        default:
            return "none";
    }
}

ConfigSetting parse_setting(std::string_view argument) {
    const std::size_t equals = argument.find('=');
    if (equals == std::string_view::npos)
        fail(Exit::kUsage, "--set takes NAME=VALUE, and '{}' has no '='", argument);
    const std::string_view name = argument.substr(0, equals);
    const std::string_view value = argument.substr(equals + 1);
    const ConfigKey* key = find_config_key(name);
    if (key == nullptr)
        fail(Exit::kUsage, "no parameter is named '{}'; did you mean '{}'?", name,
             nearest_config_key(name));
    switch (key->type) {
        case PARAM_VAL_TYPE_INT:
            return {key, parse_integer(*key, value), {}};
        case PARAM_VAL_TYPE_BOOLEAN:
            return {key, parse_boolean(*key, value), {}};
        default:
            if (value.size() >= KAVRIN_PARAM_STRLEN)
                fail(Exit::kUsage, "'{}' takes a text of fewer than {} bytes, not one of {}", name,
                     KAVRIN_PARAM_STRLEN, value.size());
            return {key, 0, std::string(value)};
    }
}

void apply_setting(global_param_t* table, const ConfigSetting& setting) {
    global_param_t& slot = table[setting.key->slot];
    if (setting.key->type != PARAM_VAL_TYPE_STRING) {
        slot.value.intval = setting.number;
        return;
    }
    // The rest of the value is zero, so a reader in the middle of this still finds an end.
    std::memcpy(slot.value.strval, setting.text.data(), setting.text.size());
    slot.value.strval[setting.text.size()] = 0;
}

}  // namespace kvadmin
