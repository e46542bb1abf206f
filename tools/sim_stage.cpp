// See sim_stage.h.
#include "sim_stage.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <utility>

#include "failure.h"
#include "groupmap_file.h"
#include "kavrin.h"
#include "map_publish.h"
#include "processing_functions.h"
#include "sim_accounts.h"
#include "use_library.h"

namespace kvadmin {
namespace {

namespace fs = std::filesystem;

constexpr const char* kMapMarker = "/etc/kavrin/permission_refresh";
constexpr const char* kRescanFolder = "/kavrin/.conf";
constexpr std::time_t kLongAgo = 946'684'800;  // the year 2000
constexpr int kBufferSize = 1 << 20;

[[noreturn]] void cannot(const char* what, const std::string& path) {
    fail(Exit::kFailure, "cannot {} {}: {}", what, path, std::strerror(errno));
}

void write_file(const std::string& path, std::string_view content, std::ios::openmode mode = {}) {
    std::ofstream out(path, std::ios::binary | mode);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (out.fail()) cannot("write", path);
}

void date(const std::string& path, std::time_t time) {
    const timespec times[] = {{time, 0}, {time, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) cannot("set the time of", path);
}

void make_folder(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) cannot("make the folder", path);
}

void set_int(int slot, int value) {
    global_params[slot].value.intval = value;
}

void set_text(int slot, const std::string& value) {
    if (value.size() >= KAVRIN_PARAM_STRLEN)
        fail(Exit::kFailure, "{} is too long a path; set TMPDIR to a shorter one", value);
    std::strcpy(global_params[slot].value.strval, value.c_str());
}

// A private table with every value zero, for this process and those it starts.
void make_table() {
    global_params =
        static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, sizeof(global_param_t)));
    if (global_params == nullptr) fail(Exit::kFailure, "out of memory");
    set_int(PARAM_DEBUG_LEVEL, -1);
    set_int(PARAM_STAGING_BUFFER_SIZE, kBufferSize);
    set_int(PARAM_AUDITING_BUFFER_SIZE, kBufferSize);
    set_int(PARAM_FLUSH_FILL_THRESHOLD, 80);
    set_int(PARAM_AUDITING_FLUSH_INTERVAL, 86'400);
}

std::string temporary_folder() {
    const char* base = std::getenv("TMPDIR");
    std::string name =
        std::string(base != nullptr && *base == '/' ? base : "/tmp") + "/kavrin-sim-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) cannot("make a folder like", name);
    if (chmod(name.c_str(), 0755) != 0) cannot("open up the folder", name);
    return name;
}

}  // namespace

SimStage::SimStage(const SimSettings& settings) : settings_(settings), folder_(temporary_folder()) {
    share_ = settings_.share.empty() ? folder_ + "/share" : settings_.share;
    if (settings_.sandboxed) {
        make_sandbox();
    } else {
        use_library(-1);
    }
    if (settings_.share.empty()) make_folder(share_);
}

SimStage::~SimStage() {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

void SimStage::make_sandbox() {
    make_table();
    staging_ = folder_ + "/staging";
    const std::string auditing = folder_ + "/auditing";
    for (const std::string& path : {staging_, auditing, std::string("/etc/kavrin"),
                                    std::string("/kavrin"), std::string(kRescanFolder)})
        make_folder(path);
    set_text(PARAM_STAGING_DIR, staging_);
    set_text(PARAM_AUDITING_DIR, auditing);
    create_eventstore_staging_semaphore();
    if (create_staging_buffer() != 0) {
        if (errno == EEXIST)
            fail(Exit::kFailure, "this sandbox was used before; take a new one for each run");
        cannot("create", "the staging buffer");
    }
    write_file(kMapMarker, "");
    date(kMapMarker, kLongAgo);
}

void SimStage::prepare(const SimStatement& statement) {
    switch (statement.kind) {
        case SimKind::kShare:
            share_ = statement.name;
            if (settings_.sandboxed) make_folder(share_);
            break;
        case SimKind::kAdministrators:
            reserved_.emplace_back(kAdminsGroup, statement.id);
            break;
        case SimKind::kPowerUsers:
            reserved_.emplace_back(kPowerUsersGroup, statement.id);
            break;
        case SimKind::kUser:
        case SimKind::kComputer:
            add_account(statement);
            group_map_written_ = false;
            break;
        case SimKind::kGroups:
            users_.at(statement.name).groups = statement.groups;
            if (group_map_written_) write_group_map();
            break;
        case SimKind::kAcl:
            map_.set(statement.name, statement.aces);
            break;
        case SimKind::kPublish:
            publish();
            break;
        case SimKind::kPatterns:
            write_patterns(statement.words);
            break;
        case SimKind::kTouchMarker:
            touch(statement);
            break;
        case SimKind::kFolder:
        case SimKind::kFixedFolder:
        case SimKind::kFile:
            lay_out(statement);
            break;
        default:
            break;
    }
}

void SimStage::complete() {
    if (!settings_.sandboxed) return;
    if (!group_map_written_ && !(users_.empty() && reserved_.empty())) {
        write_group_map();
        group_map_written_ = true;
    }
    if (!published_ && !map_.empty()) publish();
}

SimCaller SimStage::caller(const std::string& name) const {
    if (const auto known = users_.find(name); known != users_.end()) return known->second;
    return caller_of_account(name);
}

void SimStage::lay_out(const SimStatement& statement) {
    const std::string path = share_ + "/" + statement.name;
    if (statement.kind == SimKind::kFile) {
        fs::create_directories(fs::path(path).parent_path());
        write_file(path, statement.second);
    } else {
        fs::create_directories(path);
    }
    const uid_t owner = statement.owner.value_or(0);
    if (chown(path.c_str(), owner, owner) != 0) cannot("give away", path);
    if (statement.kind == SimKind::kFixedFolder &&
        setxattr(path.c_str(), XATTR_FIXED_FOLDER, "", 0, 0) != 0)
        cannot("mark (set TMPDIR to a disk with extended attributes) the folder", path);
}

void SimStage::add_account(const SimStatement& statement) {
    SimCaller user{statement.name, statement.id, statement.id, statement.groups};
    if (getpwnam(user.name.c_str()) != nullptr || getpwuid(user.uid) != nullptr)
        fail(Exit::kFailure,
             "line {}: this machine has an account named {} or with the id {} already",
             statement.line, user.name, user.uid);
    write_file(
        "/etc/passwd",
        fmt::format("{}:x:{}:{}::/nonexistent:/usr/sbin/nologin\n", user.name, user.uid, user.gid),
        std::ios::app);
    users_[user.name] = std::move(user);
}

void SimStage::write_group_map() const {
    GroupMapContent content;
    for (const auto& [name, gid] : reserved_) content.reserved.push_back({name, gid});
    for (const auto& [name, user] : users_) content.users.push_back({name, user.groups});
    const std::string next = std::string(kGroupMapPath) + ".next";
    write_file(next, encode_groupmap(content));
    date(next, kLongAgo);
    if (rename(next.c_str(), kGroupMapPath) != 0) cannot("put in place", kGroupMapPath);
}

void SimStage::write_patterns(const std::vector<std::string>& patterns) const {
    std::string text;
    for (const std::string& pattern : patterns) text += pattern + "\n";
    const std::string path = folder_ + "/patterns";
    write_file(path, text);
    set_text(PARAM_REGEX_FILE_NAME, path);
}

void SimStage::publish() {
    const SimMap::Pair pair = map_.pair();
    BuildRequest request;
    request.size_path = folder_ + "/size.json";
    request.data_path = folder_ + "/data.json";
    request.announce = false;  // a script says itself when connections are told
    write_file(request.size_path, pair.size_json);
    write_file(request.data_path, pair.data_json);
    build_map(request);
    published_ = true;
}

// "now" is the first moment that is later, in whole seconds, than everything before it, so that
// whoever looks from here on sees one change.
void SimStage::touch(const SimStatement& statement) {
    const std::string path = statement.name == "permission" ? kMapMarker : kGroupMapPath;
    std::time_t time = kLongAgo;
    if (statement.choice == "future") time = std::time(nullptr) + 86'400;
    if (statement.choice == "now") {
        time = std::time(nullptr) + 1;
        while (std::time(nullptr) < time) usleep(5'000);
    }
    date(path, time);
}

}  // namespace kvadmin
