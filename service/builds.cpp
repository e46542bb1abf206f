// See builds.h.
#include "builds.h"

#include <algorithm>
#include <utility>

#include "log.h"
#include "map_publish.h"

namespace kvservice {
namespace {

using kvadmin::CommandError;
using kvadmin::Configuration;
using kvadmin::PublishedMap;
using kvadmin::ServiceKey;
using std::chrono::seconds;

constexpr unsigned kMostAttempts = 3;
constexpr std::uint64_t kSpareMiB = 256;
constexpr seconds kPatience{60};

// An explicit limit, or what filling an image was ever seen to need and far more.
std::uint64_t memory_for(const Configuration& configuration, const std::string& data) {
    const std::int32_t given = configuration.number(ServiceKey::kBuildMemory);
    if (given != 0) return static_cast<std::uint64_t>(given);
    struct stat st {};
    const bool known = !data.empty() && stat(data.c_str(), &st) == 0;
    return kSpareMiB + (known ? 2 * (static_cast<std::uint64_t>(st.st_size) >> 20) : 0);
}

void take_options(kvadmin::PublishOptions& options, const Configuration& configuration,
                  const std::string& data) {
    options.limits.memory_mib = memory_for(configuration, data);
    options.limits.seconds = static_cast<unsigned>(configuration.number(ServiceKey::kBuildTime));
    options.patience = kPatience;
    options.built_by = "kavrind";
    options.kept = static_cast<unsigned>(configuration.number(ServiceKey::kKeptMaps));
}

Json as_json(const PublishedMap& map) {
    Json json = kvadmin::as_json(map.record);
    json["table"] = map.table;
    json["segment"] = map.segment;
    json["remarks"] = map.remarks;
    return json;
}

Json take_over_maps(const kvadmin::PublishOptions& options) {
    const kvadmin::Takeover takeover = kvadmin::take_over(options);
    Json json{{"adopted", takeover.adopted}, {"map", nullptr}, {"remarks", takeover.remarks}};
    if (takeover.map) {
        json["map"] = as_json(*takeover.map);
        for (const std::string& remark : takeover.map->remarks) json["remarks"].push_back(remark);
    }
    return json;
}

Json build(const kvadmin::PublishOptions& options, const std::string& size, const std::string& data,
           const std::string& source) {
    kvadmin::BuildRequest request;
    static_cast<kvadmin::PublishOptions&>(request) = options;
    request.size_path = size;
    request.data_path = data;
    request.source = source;
    request.keep = true;  // the service removes what it took, and only that
    return {{"map", as_json(kvadmin::build_map(request))}};
}

bool is_same(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

void look_at(const Job& job, struct stat (&seen)[2]) {
    const std::string paths[] = {job.pair.size_path(), job.pair.data_path()};
    for (const int i : {0, 1})
        if (stat(paths[i].c_str(), &seen[i]) != 0) seen[i] = {};
}

}  // namespace

std::string_view name_of(JobKind kind) {
    switch (kind) {
        case JobKind::kStart:
            return "start";
        case JobKind::kLoad:
            return "load";
        case JobKind::kReload:
            return "reload";
        case JobKind::kRollback:
            return "rollback";
        case JobKind::kPair:
            break;
    }
    return "pair";
}

Builds::Builds(EventLoop& loop, PairStore& store, const Configuration& configuration,
               std::function<void()> on_change)
    : loop_(loop), store_(store), configuration_(configuration), on_change_(std::move(on_change)) {}

std::string Builds::source_of(const Job& job) const {
    switch (job.kind) {
        case JobKind::kLoad:
            return job.data;
        case JobKind::kRollback:
            return kvadmin::kept_image_path(job.to);
        case JobKind::kPair:
            return job.pair.source(store_.incoming());
        default:
            return "/etc/kavrin/.permbe_map";
    }
}

unsigned Builds::add(Job job) {
    job.number = ++number_;
    job.since = std::time(nullptr);
    // Behind what was asked for before, in front of what arrived by itself.
    const auto place = std::find_if(queue_.begin(), queue_.end(),
                                    [](const Job& other) { return other.kind == JobKind::kPair; });
    queue_.insert(job.kind == JobKind::kPair ? queue_.end() : place, std::move(job));
    next_ = loop_.after({}, [this] { begin_next(); });
    return number_;
}

void Builds::add_pair(const TakenPair& pair) {
    if (pair.turn < newest_) {
        log_info("{} is superseded by a pair that came later", pair.source(store_.incoming()));
        store_.remove(pair);
        ++counters_.superseded;
        return;
    }
    newest_ = pair.turn;
    std::erase_if(queue_, [this, &pair](const Job& older) {
        if (older.kind != JobKind::kPair) return false;
        log_info("{} is superseded by {}", source_of(older), data_name(pair.name));
        if (older.pair.folder != pair.folder) store_.remove(older.pair);
        ++counters_.superseded;
        return true;
    });
    Job job;
    job.pair = pair;
    add(std::move(job));
}

void Builds::stop(std::function<void()> on_idle) {
    stopping_ = true;
    on_idle_ = std::move(on_idle);
    WorkResult ended;
    ended.error = "the service is ending; nothing was done";
    for (const Job& job : std::exchange(queue_, {}))
        if (job.on_end) job.on_end(ended);
    if (worker_ == nullptr) return on_idle_();
    worker_->interrupt();
}

void Builds::begin_next() {
    if (worker_ != nullptr || stopping_ || queue_.empty()) return;
    Job job = std::move(queue_.front());
    queue_.pop_front();
    begin(std::move(job));
}

void Builds::begin(Job job) {
    running_ = std::move(job);
    began_ = std::chrono::steady_clock::now();
    try {
        if (running_->kind == JobKind::kPair) {
            look_at(*running_, seen_);
            const unsigned attempts = store_.count_attempt(running_->pair);
            if (attempts > kMostAttempts)
                kvadmin::fail(kvadmin::Exit::kFailure,
                              "it was tried {} times, and each time the service or its worker "
                              "ended, or the files were "
                              "still written to",
                              attempts - 1);
        }
        worker_ = std::make_unique<Worker>(
            loop_, fmt::format("the process of job {}", running_->number), work_of(*running_),
            [this](const WorkResult& result) { end(result); });
    } catch (const CommandError& error) {
        WorkResult result;
        result.code = error.code;
        result.error = error.message;
        return end(result);
    }
    log_info("job {}: {} {}", running_->number, name_of(running_->kind), source_of(*running_));
    on_change_();
}

Worker::Work Builds::work_of(const Job& job) const {
    const std::string data = job.kind == JobKind::kPair ? job.pair.data_path() : job.data;
    const std::string size = job.kind == JobKind::kPair ? job.pair.size_path() : job.size;
    kvadmin::PublishOptions options;
    take_options(options, configuration_, data);
    switch (job.kind) {
        case JobKind::kStart:
            return [options] { return take_over_maps(options); };
        case JobKind::kReload:
            return [options] { return Json{{"map", as_json(kvadmin::load_map(options))}}; };
        case JobKind::kRollback:
            return [options, to = job.to] {
                return Json{{"map", as_json(kvadmin::restore_map(to, options))}};
            };
        default:
            break;
    }
    const std::string source = job.kind == JobKind::kPair ? source_of(job) : std::string();
    return [options, size, data, source] { return build(options, size, data, source); };
}

void Builds::end(const WorkResult& result) {
    worker_.reset();
    const Job job = *std::exchange(running_, std::nullopt);
    counters_.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    const bool again = !result.done && retry(job, result);
    if (result.done)
        succeed(job, result);
    else if (!again)
        fail_job(job, result);
    if (result.died && job.kind != JobKind::kStart && !stopping_) clear_up();
    if (job.on_end && !again) job.on_end(result);
    on_change_();
    if (stopping_)
        on_idle_();
    else
        next_ = loop_.after({}, [this] { begin_next(); });
}

// Who died undid nothing: a segment may be left, and the persisted map be another than the live
// one.
void Builds::clear_up() {
    Job job;
    job.kind = JobKind::kStart;
    add(std::move(job));
}

// What somebody else's build kept from beginning is tried again, if nobody waits for the answer. So
// is a pair whose worker died, as often as its attempts allow; one that was still being written;
// and one that the end of the service interrupted.
bool Builds::retry(const Job& job, const WorkResult& result) {
    const bool asked = job.kind != JobKind::kPair && job.kind != JobKind::kStart;
    if (result.busy && !asked && !stopping_) {
        log_warning("job {}: {}", job.number, result.error);
        if (job.kind == JobKind::kPair) store_.forget_attempts(job.pair);
        queue_.push_front(job);
        return true;
    }
    if (job.kind == JobKind::kStart && result.died && !stopping_ &&
        ++deaths_at_start_ < kMostAttempts) {
        log_warning("job {}: {}; it is tried again", job.number, result.error);
        queue_.push_front(job);
        return true;
    }
    if (job.kind != JobKind::kPair) return false;
    if (result.died && !stopping_) {
        log_warning("job {}: {}; {} is tried again", job.number, result.error, source_of(job));
        try_again(job);
        return true;
    }
    if (stopping_) {
        store_.forget_attempts(job.pair);
        log_info("job {}: {}; {} waits for the next start", job.number, result.error,
                 source_of(job));
        return true;
    }
    struct stat now[2] = {};
    look_at(job, now);
    if (is_same(seen_[0], now[0]) && is_same(seen_[1], now[1])) return false;
    log_info("job {}: {} was written to meanwhile and is looked at again", job.number,
             source_of(job));
    try_again(job);
    return true;
}

void Builds::try_again(const Job& job) {
    const bool newer = std::any_of(queue_.begin(), queue_.end(),
                                   [](const Job& other) { return other.kind == JobKind::kPair; });
    if (newer) {
        store_.remove(job.pair);
        ++counters_.superseded;
    } else {
        add_pair(job.pair);
    }
}

void Builds::succeed(const Job& job, const WorkResult& result) {
    for (const Json& remark : result.value.value("remarks", Json::array()))
        log_info("job {}: {}", job.number, remark.get<std::string>());
    const Json map = result.value.value("map", Json());
    if (map.is_object()) {
        last_map_ = map;
        for (const Json& remark : map.value("remarks", Json::array()))
            if (job.kind != JobKind::kStart)
                log_info("job {}: {}", job.number, remark.get<std::string>());
        log_info("job {}: {} \"{}\", generation {}, map {}, {} elements, {:.2f} s", job.number,
                 result.value.value("adopted", false) ? "went on serving" : "serves",
                 map.value("name", ""), map.value("generation", 0U), map.value("number", 0U),
                 map.value("elements", 0U), counters_.seconds);
    } else {
        log_info("job {}: there is no map to serve yet", job.number);
    }
    if (job.kind == JobKind::kPair) store_.remove(job.pair);
    if (job.kind == JobKind::kStart) return;
    ++counters_.builds;
    counters_.last_succeeded = true;
}

// Names the files of a pair as they lie beside the reason, not where they were while it was tried.
std::string Builds::in_quarantine(const Job& job, std::string text) const {
    if (job.kind != JobKind::kPair) return text;
    const std::string folder = job.pair.folder + "/";
    for (std::size_t at; (at = text.find(folder)) != std::string::npos;)
        text.erase(at, folder.size());
    return text;
}

void Builds::fail_job(const Job& job, const WorkResult& result) {
    ++counters_.failures;
    counters_.last_succeeded = false;
    last_failure_ =
        Failure{std::time(nullptr), source_of(job), in_quarantine(job, result.error), ""};
    if (job.kind == JobKind::kPair) last_failure_->quarantine = quarantine(job, result);
    log_error("job {}: {} {}: {}{}{}; what was served is served on", job.number, name_of(job.kind),
              source_of(job), last_failure_->error,
              last_failure_->quarantine.empty() ? "" : "; both files are in ",
              last_failure_->quarantine);
}

std::string Builds::quarantine(const Job& job, const WorkResult& result) {
    const std::string reason = in_quarantine(
        job,
        fmt::format("{}\n{}{}", result.error, result.output.empty() ? "" : "\n", result.output));
    try {
        return store_.quarantine(
            job.pair, reason,
            static_cast<unsigned>(configuration_.number(ServiceKey::kKeptFailures)));
    } catch (const CommandError& error) {
        log_error("{}", error.message);
        return {};
    }
}

}  // namespace kvservice
