// See config_file.h. The INI parser gives values and no places, so a second look at the file finds
// the line of each name, names that stand twice, and lines that are nothing.
#include "config_file.h"

#include <fcntl.h>
#include <iniparser/iniparser.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

#include "config_keys.h"
#include "descriptor.h"
#include "failure.h"
#include "kavrin_utils.h"
#include "utf8.h"

namespace kvadmin {
namespace {

constexpr auto kInteger = PARAM_VAL_TYPE_INT;
constexpr auto kText = PARAM_VAL_TYPE_STRING;
constexpr auto kBoolean = PARAM_VAL_TYPE_BOOLEAN;
constexpr std::int64_t kLargest = INT32_MAX;
constexpr std::int64_t kGigabyte = 1'073'741'824;
constexpr TextRule kNone = TextRule::kAny;

// A folder's name goes into 256 bytes together with a file's; a socket's into 108.
constexpr ConfigRow kRows[] = {
    {"VFS:default user", kInteger, "65534", 0, kLargest, kNone, PARAM_DEFAULT_USER_ID},
    {"VFS:default group", kInteger, "65534", 0, kLargest, kNone, PARAM_DEFAULT_GROUP_ID},
    {"VFS:exception pattern file", kText, "", 0, KAVRIN_PARAM_STRLEN - 1, TextRule::kPathOrEmpty,
     PARAM_REGEX_FILE_NAME},
    {"SWEEPER:disable sweeper flush", kBoolean, "no", 0, 1, kNone, PARAM_DISABLE_SWEEPER_FLUSH},
    {"SWEEPER:staging buffer size", kInteger, "1048576", 4096, kGigabyte, kNone,
     PARAM_STAGING_BUFFER_SIZE},
    {"SWEEPER:flush period", kInteger, "10", 1, 86'400, kNone, PARAM_FLUSH_PERIOD},
    {"SWEEPER:staging dir", kText, "/kavrin/staging", 2, 200, TextRule::kPath, PARAM_STAGING_DIR},
    {"SWEEPER:flush fill threshold pct", kInteger, "80", 1, 100, kNone, PARAM_FLUSH_FILL_THRESHOLD},
    {"MESSENGER:socket backlog", kInteger, "16", 1, 128, kNone, PARAM_SOCKET_BACKLOG},
    {"MESSENGER:socket message size", kInteger, "65536", 1024, 1'048'576, kNone,
     PARAM_SOCKET_MESSAGE_SIZE},
    {"MESSENGER:socket path", kText, "/run/kavrin/kavrind.sock", 2, 107, TextRule::kPath,
     PARAM_SOCKET_PATH},
    {"VFS:check regex unlink", kInteger, "0", 0, 1, kNone, PARAM_CHECK_REGEX_UNLINK},
    {"VFS:debug level", kInteger, "0", -1, 100, kNone, PARAM_DEBUG_LEVEL},
    {"VFS:enable forbidden rmdir", kBoolean, "no", 0, 1, kNone, PARAM_ENABLE_FORBIDDEN_RMDIR},
    {"SWEEPER:auditing dir", kText, "/kavrin/auditing", 2, 200, TextRule::kPath,
     PARAM_AUDITING_DIR},
    {"SWEEPER:auditing buffer size", kInteger, "65536", 1024, kGigabyte, kNone,
     PARAM_AUDITING_BUFFER_SIZE},
    {"SWEEPER:auditing flush interval", kInteger, "60", 1, 86'400, kNone,
     PARAM_AUDITING_FLUSH_INTERVAL},
    {"KAVRIND:incoming dir", kText, "/var/lib/kavrin/incoming", 2, 200, TextRule::kPath, -1},
    {"KAVRIND:kept maps", kInteger, "5", 1, 100, kNone, -1},
    {"KAVRIND:kept failures", kInteger, "20", 1, 1000, kNone, -1},
    {"KAVRIND:build memory limit", kInteger, "0", 0, 1'048'576, kNone, -1},
    {"KAVRIND:build time limit", kInteger, "600", 0, 86'400, kNone, -1},
    {"KAVRIND:stale half after", kInteger, "600", 1, 86'400, kNone, -1},
    {"KAVRIND:group map", kText, "accounts", 1, 200, TextRule::kGroupMap, -1},
    {"KAVRIND:group map min uid", kInteger, "0", 0, kLargest, kNone, -1},
    {"KAVRIND:group map period", kInteger, "300", 0, 86'400, kNone, -1},
};
constexpr std::size_t kTableRows = PARAM_MAX_INDEX - 2;
static_assert(std::size(kRows) ==
              kTableRows + static_cast<std::size_t>(ServiceKey::kGroupMapPeriod) + 1);

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::size_t kLongestLine = 1000;  // the parser's buffer has 1,024

std::string lower(std::string_view text) {
    std::string folded(text);
    for (char& c : folded)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return folded;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The value, or what is wrong with it as the end of a sentence.
std::string flaw_of_number(const ConfigRow& row, std::string_view text, std::int32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    if (whole && number >= row.min && number <= row.max) return {};
    return fmt::format("takes an integer from {} to {}, not '{}'", row.min, row.max,
                       printable(text));
}

std::string flaw_of_boolean(std::string_view text, std::int32_t& number) {
    const std::string word = lower(text);
    for (const std::string_view yes : {"yes", "true", "1", "on"})
        if (word == yes) return number = 1, std::string();
    for (const std::string_view no : {"no", "false", "0", "off"})
        if (word == no) return number = 0, std::string();
    return fmt::format("takes yes or no, not '{}'", printable(text));
}

std::string flaw_of_text(const ConfigRow& row, std::string_view text) {
    const bool keyword = row.rule == TextRule::kGroupMap && (text == "accounts" || text == "off");
    const bool empty = row.rule == TextRule::kPathOrEmpty && text.empty();
    if (row.rule == TextRule::kAny || keyword || empty) return {};
    if (text == "/") return "takes a path below /, not / itself";
    if (!text.starts_with('/'))
        return fmt::format("takes {}an absolute path, not '{}'",
                           row.rule == TextRule::kGroupMap ? "'accounts', 'off' or " : "",
                           printable(text));
    if (static_cast<std::int64_t>(text.size()) > row.max)
        return fmt::format("takes at most {} bytes, and this has {}", row.max, text.size());
    return {};
}

std::string flaw_of(const ConfigRow& row, std::string_view text, ConfigValue& value) {
    if (row.type == kInteger) return flaw_of_number(row, text, value.number);
    if (row.type == kBoolean) return flaw_of_boolean(text, value.number);
    value.text = text;
    return flaw_of_text(row, text);
}

const ConfigRow* find_row(std::string_view folded) {
    for (const ConfigRow& row : kRows)
        if (lower(row.name) == folded) return &row;
    return nullptr;
}

// Where the names of a file stand.
class Places {
public:
    Places(const std::string& path, std::vector<ConfigProblem>& problems) : problems_(problems) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            const std::size_t before = problems.size();
            take(++line_, line);
            if (problems.size() == before) usable_ += line;
            usable_ += '\n';
        }
    }
    // The file without the lines that have problems of their own.
    const std::string& usable() const { return usable_; }
    unsigned line_of(const std::string& folded) const {
        const auto found = lines_.find(folded);
        return found == lines_.end() ? 0 : found->second;
    }

private:
    void take(unsigned number, std::string_view line) {
        const bool continued = std::exchange(continues_, trimmed(line).ends_with('\\'));
        if (line.size() > kLongestLine)
            problems_.push_back({number, fmt::format("the line has {} bytes; {} is the most",
                                                     line.size(), kLongestLine)});
        if (line.find('\0') != std::string_view::npos)
            problems_.push_back({number, "the line holds a zero byte; is this a text file?"});
        const std::string_view text = trimmed(line);
        if (continued || text.empty() || text.front() == '#' || text.front() == ';') return;
        if (text.front() == '[') return take_section(number, text);
        const std::size_t equals = text.find('=');
        if (equals == 0 || equals == std::string_view::npos) {
            problems_.push_back({number, "neither a [section], nor 'name = value', nor a comment"});
            return;
        }
        take_name(number, trimmed(text.substr(0, equals)));
    }

    void take_section(unsigned number, std::string_view text) {
        const std::size_t end = text.find(']');
        if (end == std::string_view::npos)
            problems_.push_back({number, "the section's name does not end in ']'"});
        else
            section_ = lower(trimmed(text.substr(1, end - 1)));
    }

    void take_name(unsigned number, std::string_view name) {
        const std::string full = section_ + ":" + lower(name);
        const auto [place, fresh] = lines_.try_emplace(full, number);
        if (!fresh)
            problems_.push_back({number, fmt::format("'{}' stands on line {} already; remove one",
                                                     printable(name), place->second)});
    }

    std::vector<ConfigProblem>& problems_;
    std::map<std::string, unsigned> lines_;
    std::string section_;
    std::string usable_;
    unsigned line_ = 0;
    bool continues_ = false;
};

int be_silent(const char*, ...) {
    return 0;
}

void take_value(ConfigFile& file, const Places& places, const char* key, const char* value) {
    const unsigned line = places.line_of(key);
    const ConfigRow* row = find_row(key);
    if (row == nullptr) {
        file.problems.push_back(
            {line, fmt::format("no parameter is named '{}'; did you mean '{}'?",
                               printable(std::string_view(key).starts_with(':') ? key + 1 : key),
                               nearest_config_row(key))});
        return;
    }
    const std::size_t index = static_cast<std::size_t>(row - kRows);
    ConfigValue read;
    const std::string flaw = flaw_of(*row, value, read);
    if (flaw.empty())
        file.configuration.values[index] = std::move(read);
    else
        file.problems.push_back({line, fmt::format("'{}' {}", row->name, flaw)});
}

using Entries = std::unique_ptr<dictionary, void (*)(dictionary*)>;

// The parser takes nothing but a path, and gives up on the first line that is nothing.
Entries parse(const std::string& text) {
    const Descriptor file(memfd_create("kavrin.conf", MFD_CLOEXEC));
    const std::string path = fmt::format("/proc/self/fd/{}", file.get());
    const bool written = file.valid() && write_all(file.get(), text.data(), text.size()) > 0;
    iniparser_set_error_callback(be_silent);
    return Entries(written ? iniparser_load(path.c_str()) : nullptr, iniparser_freedict);
}

// Errno of the file that cannot be read; 0 for one that can, and for a missing one with `missing`.
int look_at(const std::string& path, bool& missing) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    missing = !file.valid() && errno == ENOENT;
    struct stat st {};
    if (missing) return 0;
    if (!file.valid() || fstat(file.get(), &st) != 0) return errno;
    return S_ISDIR(st.st_mode) ? EISDIR : 0;
}

}  // namespace

std::span<const ConfigRow> config_rows() {
    return kRows;
}

Configuration::Configuration() : values(std::size(kRows)) {
    for (std::size_t i = 0; i < values.size(); ++i) flaw_of(kRows[i], kRows[i].fallback, values[i]);
}

const ConfigValue& Configuration::at(int slot) const {
    for (std::size_t i = 0; i < kTableRows; ++i)
        if (kRows[i].slot == slot) return values[i];
    fail(Exit::kFailure, "slot {} of the table has no name", slot);
}

std::int32_t Configuration::number(e_kavrin_global_index_t slot) const {
    return at(slot).number;
}

const std::string& Configuration::text(e_kavrin_global_index_t slot) const {
    return at(slot).text;
}

std::int32_t Configuration::number(ServiceKey key) const {
    return values[kTableRows + static_cast<std::size_t>(key)].number;
}

const std::string& Configuration::text(ServiceKey key) const {
    return values[kTableRows + static_cast<std::size_t>(key)].text;
}

void Configuration::set_number(e_kavrin_global_index_t slot, std::int32_t number) {
    for (std::size_t i = 0; i < kTableRows; ++i)
        if (kRows[i].slot == slot) values[i].number = number;
}

void Configuration::set_text(e_kavrin_global_index_t slot, const std::string& text) {
    for (std::size_t i = 0; i < kTableRows; ++i)
        if (kRows[i].slot == slot) values[i].text = text;
}

void Configuration::write_to(global_param_t* table) const {
    for (std::size_t i = 0; i < kTableRows; ++i) {
        const ConfigKey* key = find_config_key(kRows[i].name);
        global_param_t& slot = table[kRows[i].slot];
        slot.type = kRows[i].type;
        slot.varname = key->name.data();
        if (kRows[i].type != kText) slot.value.intval = values[i].number;
        if (kRows[i].type != kText || values[i].text == slot.value.strval) continue;
        std::memset(slot.value.strval, 0, sizeof slot.value.strval);
        apply_setting(table, {key, 0, values[i].text});
    }
}

ConfigFile read_config_file(const std::string& path) {
    ConfigFile file;
    file.path = path;
    bool missing = false;
    if (const int error = look_at(path, missing); error != 0)
        fail(Exit::kFailure, "cannot read {}: {}", path, std::strerror(error));
    if (missing) return file;
    file.exists = true;
    const Places places(path, file.problems);
    const Entries entries = parse(places.usable() + "\n");
    if (entries == nullptr && file.problems.empty())
        file.problems.push_back({0, "the file cannot be parsed"});
    for (int i = 0; entries != nullptr && i < entries->size; ++i) {
        const bool setting = entries->key[i] != nullptr && entries->val[i] != nullptr;
        if (setting) take_value(file, places, entries->key[i], entries->val[i]);
    }
    std::stable_sort(
        file.problems.begin(), file.problems.end(),
        [](const ConfigProblem& a, const ConfigProblem& b) { return a.line < b.line; });
    return file;
}

std::string line_for(const ConfigFile& file, const ConfigProblem& problem) {
    return problem.line == 0 ? fmt::format("{}: {}", file.path, problem.message)
                             : fmt::format("{}:{}: {}", file.path, problem.line, problem.message);
}

std::string_view nearest_config_row(std::string_view name) {
    return std::min_element(std::begin(kRows), std::end(kRows),
                            [name](const ConfigRow& a, const ConfigRow& b) {
                                return distance(name, a.name) < distance(name, b.name);
                            })
        ->name;
}

}  // namespace kvadmin
