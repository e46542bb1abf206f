// The parameters of the configuration table by name: slot, key and type of each, and what a value
// given as text becomes. The keys in a table are addresses of the process that made it, so whoever
// else reads one names its slots from here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "eventstore.h"

namespace kvadmin {

struct ConfigKey {
    e_kavrin_global_index_t slot;
    std::string_view name;
    e_param_val_type_t type;
};

// In slot order. Two slots of the table have neither key nor type and are not here.
std::span<const ConfigKey> config_keys();

// The parameter of exactly that name, or null.
const ConfigKey* find_config_key(std::string_view name);

// The known name that needs the fewest changes to become `name`, letter case aside.
std::string_view nearest_config_key(std::string_view name);

// Changes, insertions and deletions that make one text the other, letter case aside.
std::size_t distance(std::string_view from, std::string_view to);

// "integer", "text", "boolean".
std::string_view type_name(e_param_val_type_t type);

// A value for one parameter, from text.
struct ConfigSetting {
    const ConfigKey* key;
    std::int32_t number;  // integers and booleans
    std::string text;
};

// Reads "NAME=VALUE"; fails as a usage error when the name is unknown or the value is none of its
// type.
ConfigSetting parse_setting(std::string_view argument);

// Writes the setting into a table of PARAM_MAX_INDEX slots.
void apply_setting(global_param_t* table, const ConfigSetting& setting);

}  // namespace kvadmin
