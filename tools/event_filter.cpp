// See event_filter.h.
#include "event_filter.h"

#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <ctime>

#include "event_text.h"
#include "utf8.h"

namespace kvadmin {
namespace {

bool read_number(std::string_view text, std::int64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// "5" is 500000: digits behind the point, further ones cut off.
bool read_fraction(std::string_view digits, std::int64_t& microseconds) {
    if (digits.empty() ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    std::string six(digits.substr(0, 6));
    six.resize(6, '0');
    return read_number(six, microseconds);
}

std::int64_t unit_seconds(char unit) {
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return 86400;
        default:
            return 0;
    }
}

// Local time in one of the forms; -1 is a time as well, so the result is told apart.
bool read_date(std::string text, std::int64_t& seconds) {
    std::replace(text.begin(), text.end(), 'T', ' ');
    for (const char* form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm parts{};
        const char* end = strptime(text.c_str(), form, &parts);
        if (end == nullptr || *end != '\0') continue;
        parts.tm_isdst = -1;
        seconds = std::mktime(&parts);
        return true;
    }
    return false;
}

std::optional<uid_t> uid_of(const std::string& user) {
    std::int64_t number = 0;
    if (read_number(user, number))
        return number >= 0 && number <= UINT32_MAX ? std::optional(static_cast<uid_t>(number))
                                                   : std::nullopt;
    const passwd* account = getpwnam(user.c_str());
    return account == nullptr ? std::nullopt : std::optional(account->pw_uid);
}

}  // namespace

std::pair<std::int64_t, std::int64_t> parse_moment(const std::string& text, std::int64_t now) {
    const std::size_t point = text.find('.');
    const std::string whole = text.substr(0, point);
    std::int64_t seconds = 0;
    std::int64_t microseconds = 0;
    const bool fraction_reads =
        point == std::string::npos ||
        read_fraction(std::string_view(text).substr(point + 1), microseconds);
    if (fraction_reads && read_number(whole, seconds)) return {seconds, microseconds};
    const bool may_have_fraction = point == std::string::npos || whole.size() >= 19;
    if (fraction_reads && may_have_fraction && read_date(whole, seconds))
        return {seconds, microseconds};
    const std::int64_t unit = text.empty() ? 0 : unit_seconds(text.back());
    if (unit != 0 && read_number(std::string_view(text).substr(0, text.size() - 1), seconds) &&
        seconds >= 0 && seconds <= INT32_MAX)
        return {now - seconds * unit, 0};
    fail(Exit::kUsage,
         "'{}' is no time; give seconds since 1970, a local time such as '2023-11-14 22:13:20', or "
         "how long ago, such as 90s, 15m, 2h or 3d",
         printable(text));
}

void EventFilter::add_common_options(CLI::App& command) {
    command.add_option("--user", user_, "Only events of this user: an account's name or a uid");
    command.add_option("--path", path_, "Only events on this path and below it");
}

void EventFilter::add_event_options(CLI::App& command) {
    command.add_option("--since", since_text_,
                       "Only events from this time on: seconds since 1970, a local time such as "
                       "'2023-11-14 22:13:20', or how long ago, such as 15m");
    command.add_option("--type", type_texts_, "Only events of these types, such as create,unlink")
        ->delimiter(',');
}

void EventFilter::prepare(bool only_uids) {
    if (!since_text_.empty()) since_ = parse_moment(since_text_, std::time(nullptr));
    if (!user_.empty()) uid_ = uid_of(user_);
    for (const std::string& text : type_texts_) {
        const auto type = parse_event_type(text);
        if (!type)
            fail(Exit::kUsage, "'{}' is no type of event; they are {}", printable(text),
                 event_type_names());
        types_.push_back(*type);
    }
    if (only_uids && !user_.empty() && !uid_)
        fail(Exit::kUsage, "this machine knows no user '{}'; give the uid", printable(user_));
    while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
}

// An account's name in the event counts for more than what this machine makes of the uid.
bool EventFilter::shows_user(const char* name, uid_t uid) const {
    if (user_.empty()) return true;
    if (name != nullptr && user_ == name) return true;
    std::int64_t number = 0;
    if (name != nullptr && !read_number(user_, number)) return false;
    return uid_ == uid;
}

bool EventFilter::shows_path(const char* path) const {
    if (path_.empty()) return true;
    const std::string_view text(path);
    if (!text.starts_with(path_)) return false;
    return text.size() == path_.size() || path_ == "/" || text[path_.size()] == '/';
}

bool EventFilter::shows(const VFSEvent& event) const {
    if (since_ && std::pair<std::int64_t, std::int64_t>(event.time_sec, event.time_usec) < *since_)
        return false;
    if (!types_.empty() &&
        std::find(types_.begin(), types_.end(), static_cast<int>(event.optype)) == types_.end())
        return false;
    return shows_user(event.kavrin_user, event.uid) &&
           (shows_path(event.path) ||
            (event.rename_path != nullptr && shows_path(event.rename_path)));
}

bool EventFilter::shows(const AuditEvent& event) const {
    return shows_user(nullptr, event.uid) && shows_path(event.path);
}

}  // namespace kvadmin
