// The configuration file: its parameters as one table of names, defaults and ranges, and what a
// file gives for them. The first three sections are the slots of the shared table; KAVRIND is the
// service's own.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "eventstore.h"

namespace kvadmin {

inline constexpr const char* kConfigPath = "/etc/kavrin/kavrin.conf";

// The service's own parameters.
enum class ServiceKey {
    kIncomingDir,
    kKeptMaps,
    kKeptFailures,
    kBuildMemory,
    kBuildTime,
    kStaleHalf,
    kGroupMap,
    kGroupMapMinUid,
    kGroupMapPeriod
};

enum class TextRule { kAny, kPath, kPathOrEmpty, kGroupMap };

struct ConfigRow {
    std::string_view name;  // "SECTION:name"
    e_param_val_type_t type;
    std::string_view fallback;
    std::int64_t min;  // of a number; of a text the fewest bytes
    std::int64_t max;
    TextRule rule;
    int slot;  // of the shared table, else -1
};

// All parameters: those of the shared table first, then the service's own in the order of their
// enumerators.
std::span<const ConfigRow> config_rows();

struct ConfigValue {
    std::int32_t number = 0;  // integers and booleans
    std::string text;
    bool operator==(const ConfigValue&) const = default;
};

struct ConfigProblem {
    unsigned line = 0;  // 0: of the file as a whole
    std::string message;
};

class Configuration {
public:
    Configuration();  // every default

    std::int32_t number(e_kavrin_global_index_t slot) const;
    const std::string& text(e_kavrin_global_index_t slot) const;
    std::int32_t number(ServiceKey key) const;
    const std::string& text(ServiceKey key) const;

    void set_number(e_kavrin_global_index_t slot, std::int32_t number);
    void set_text(e_kavrin_global_index_t slot, const std::string& text);

    // Writes all values into a shared table, each number in one store, each text so that a reader
    // in the middle of it finds an end.
    void write_to(global_param_t* table) const;

    std::vector<ConfigValue> values;  // one a row

private:
    const ConfigValue& at(int slot) const;
};

struct ConfigFile {
    std::string path;
    bool exists = false;
    Configuration configuration;          // defaults where the file says nothing usable
    std::vector<ConfigProblem> problems;  // in the order of their lines
};

// Reads the file; a missing one gives every default. Fails by CommandError when it cannot be read.
ConfigFile read_config_file(const std::string& path);

// "kavrin.conf:12: what is wrong".
std::string line_for(const ConfigFile& file, const ConfigProblem& problem);

// The known name that needs the fewest changes to become `name`.
std::string_view nearest_config_row(std::string_view name);

}  // namespace kvadmin
