// See group_map.h.
#include "group_map.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "groupmap_check.h"
#include "groupmap_source.h"
#include "log.h"

namespace kvservice {
namespace {

using kvadmin::AccountChoice;
using kvadmin::CommandError;
using kvadmin::Exit;
using kvadmin::fail;
using kvadmin::GroupMapContent;
using kvadmin::ServiceKey;

constexpr std::chrono::milliseconds kMoment{300};
constexpr std::chrono::milliseconds kLimit{120'000};
constexpr std::string_view kAccountFiles[] = {"passwd", "group", "nsswitch.conf"};

std::span<const std::uint8_t> as_bytes(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

bool is_there_already(const std::string& bytes) {
    try {
        const std::vector<std::uint8_t> now = kvadmin::read_groupmap(kvadmin::kGroupMapPath);
        return std::equal(now.begin(), now.end(), as_bytes(bytes).begin(), as_bytes(bytes).end());
    } catch (const CommandError&) {
        return false;
    }
}

Json make(const std::string& from, std::uint32_t min_uid) {
    std::vector<std::string> remarks;
    AccountChoice choice;
    choice.min_uid = min_uid;
    choice.reserved = {kvadmin::kAdminsGroup, kvadmin::kPowerUsersGroup};
    const GroupMapContent content = from == "accounts"
                                        ? kvadmin::groupmap_of_accounts(choice, remarks)
                                        : kvadmin::groupmap_of_json(from);
    const std::string bytes = kvadmin::encode_groupmap(content);
    const kvadmin::GroupMapReport report = kvadmin::check_groupmap(as_bytes(bytes));
    if (!report.sound())
        fail(Exit::kFailure, "the group map does not pass its own check: {}",
             kvadmin::first_fault(report));
    const bool known = is_there_already(bytes);
    if (!known) kvadmin::write_groupmap(kvadmin::kGroupMapPath, bytes);
    return {{"users", content.users.size()}, {"written", !known}, {"remarks", remarks}};
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

void GroupMap::set(const kvadmin::Configuration& configuration) {
    from_ = configuration.text(ServiceKey::kGroupMap);
    min_uid_ = static_cast<std::uint32_t>(configuration.number(ServiceKey::kGroupMapMinUid));
    period_.reset();
    source_.reset();
    events_.reset();
    soon_.reset();
    again_ = false;
    state_.error.clear();
    if (from_ == "off") return;
    const std::chrono::seconds period(configuration.number(ServiceKey::kGroupMapPeriod));
    if (period.count() != 0) period_ = loop_.every(period, [this] { begin(); });
    watch();
    begin();
}

// The folder and not the file: accounts are replaced by a rename.
void GroupMap::watch() {
    const std::string folder = from_ == "accounts" ? "/etc" : folder_of(from_);
    events_ = kvadmin::Descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!events_.valid() ||
        inotify_add_watch(events_.get(), folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
        log_warning("cannot watch {}: {}; the group map follows it only every 'group map period'",
                    folder, std::strerror(errno));
        return;
    }
    source_ = loop_.on_ready(events_.get(), EPOLLIN, [this](std::uint32_t) { read_events(); });
}

void GroupMap::read_events() {
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        const ssize_t got = read(events_.get(), buffer, sizeof buffer);
        if (got <= 0) return;
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof *event + event->len);
            const std::string_view name = event->len == 0 ? "" : event->name;
            bool ours = from_ != "accounts" && from_.ends_with("/" + std::string(name));
            for (const std::string_view file : kAccountFiles)
                ours = ours || (from_ == "accounts" && name == file);
            if (ours) look_soon();
        }
    }
}

// Tools that change accounts replace several files one after another.
void GroupMap::look_soon() {
    soon_ = loop_.after(kMoment, [this] { begin(); });
}

void GroupMap::begin() {
    if (from_ == "off") return;  // switched off since this look was due
    again_ = worker_ != nullptr;
    if (again_) return;
    limit_ = loop_.after(kLimit, [this] {
        log_error("the group map took longer than {} seconds to make; does a name service hang?",
                  kLimit.count() / 1000);
        worker_->interrupt();
    });
    try {
        worker_ = std::make_unique<Worker>(
            loop_, "the process that makes the group map",
            [from = from_, min_uid = min_uid_] { return make(from, min_uid); },
            [this](const WorkResult& result) { end(result); });
    } catch (const CommandError& error) {
        log_error("{}", error.message);
    }
}

void GroupMap::end(const WorkResult& result) {
    worker_.reset();
    limit_.reset();
    std::string remarks = result.error;
    if (result.done) {
        state_.users = result.value.value("users", std::uint64_t{0});
        for (const Json& remark : result.value.value("remarks", Json::array()))
            remarks += (remarks.empty() ? "" : "; ") + remark.get<std::string>();
        if (result.value.value("written", false)) {
            state_.written = std::time(nullptr);
            log_info("wrote the group map: {} users", state_.users);
        }
    }
    state_.error = result.error;
    if (!remarks.empty() && remarks != told_) {
        if (result.done)
            log_info("group map: {}", remarks);
        else
            log_error("group map: {}; the old one stays", remarks);
    }
    told_ = remarks;
    if (again_) begin();
}

}  // namespace kvservice
