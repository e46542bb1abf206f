// See service.h.
#include "service.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "kavrin.h"
#include "log.h"
#include "shared_objects.h"
#include "whole_file.h"

namespace kvservice {
namespace {

using kvadmin::CommandError;
using kvadmin::ConfigFile;
using kvadmin::Configuration;
using kvadmin::Exit;
using kvadmin::fail;
using kvadmin::ServiceKey;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kMetricsPeriod{15'000};
constexpr milliseconds kResizePeriod{500};
constexpr milliseconds kLastCall{10'000};

ControlSocket::Limits limits_of(const Configuration& configuration) {
    return {configuration.number(PARAM_SOCKET_BACKLOG),
            static_cast<std::size_t>(configuration.number(PARAM_SOCKET_MESSAGE_SIZE))};
}

std::size_t wanted_staging(const Configuration& configuration) {
    return static_cast<std::size_t>(configuration.number(PARAM_STAGING_BUFFER_SIZE));
}

void notify(const std::string& state) {
    sd_notify(0, state.c_str());
}

Json text_or_null(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json time_or_null(std::int64_t time) {
    return time == 0 ? Json() : Json(time);
}

Json as_json(const ServedMap& map) {
    Json json = kvadmin::as_json(map.record);
    if (map.record.number == 0) json["number"] = json["seconds"] = nullptr;
    json["source"] = text_or_null(map.record.source);
    json["built_by"] = text_or_null(map.record.built_by);
    json["built"] = time_or_null(map.record.built);
    json["published"] = time_or_null(map.record.published);
    json["table"] = map.table;
    json["segment"] = map.segment;
    json["readers"] = map.readers;
    return json;
}

// A member of a request; fails as usage when it is missing or of another type.
template <typename Value>
Value member(const Json& request, const char* name, const char* type) {
    const auto found = request.find(name);
    if (found == request.end())
        fail(Exit::kUsage, "'{}' needs a member \"{}\"", request.value("command", ""), name);
    try {
        return found->template get<Value>();
    } catch (const nlohmann::json::exception&) {
        fail(Exit::kUsage, "\"{}\" must be {}", name, type);
    }
}

std::string path_member(const Json& request, const char* name) {
    const std::string path = member<std::string>(request, name, "a path");
    if (!path.starts_with('/'))
        fail(Exit::kUsage, "\"{}\" must be an absolute path, not '{}'", name, path);
    return path;
}

std::int64_t number_member(const Json& request, const char* name, std::int64_t min,
                           std::int64_t max) {
    const auto found = request.find(name);
    bool whole = found != request.end() && found->is_number_integer();
    if (whole && found->is_number_unsigned()) whole = found->get<std::uint64_t>() <= INT64_MAX;
    const std::int64_t number = whole ? found->get<std::int64_t>() : 0;
    if (!whole || number < min || number > max)
        fail(Exit::kUsage, "\"{}\" must be an integer from {} to {}", name, min, max);
    return number;
}

// The first line of what the check told, for who asked for it.
std::string first_finding(const std::string& output) {
    const std::string line = output.substr(0, output.find('\n'));
    return line.empty() ? line : "; the first finding: " + line;
}

bool waits(const Json& request) {
    return request.contains("wait") && member<bool>(request, "wait", "true or false");
}

}  // namespace

Service::Service(ServiceOptions options, ConfigFile config)
    : options_(std::move(options)),
      file_(std::move(config)),
      configuration_(file_.configuration),
      store_(configuration_.text(ServiceKey::kIncomingDir)),
      builds_(loop_, store_, configuration_,
              [this] {
                  if (const Json& map = builds_.last_map(); map.is_object()) served_.learn(map);
                  if (!options_.metrics_path.empty())
                      metrics_soon_ = loop_.after({}, [this] { write_metrics(); });
              }),
      flusher_(loop_),
      group_map_(loop_) {
    kvadmin::make_folder("/etc/kavrin", 0755);
    take_table(configuration_);
    make_event_folders(configuration_);
    take_staging();
    take_signals();
    socket_ = std::make_unique<ControlSocket>(
        loop_, configuration_.text(PARAM_SOCKET_PATH), limits_of(configuration_),
        [this](const Json& request, const ControlSocket::Reply& reply) { answer(request, reply); });
    if (!options_.metrics_path.empty())
        sources_.push_back(loop_.every(kMetricsPeriod, [this] { write_metrics(); }));
}

void Service::take_signals() {
    for (const int number : {SIGTERM, SIGINT})
        sources_.push_back(loop_.on_signal(number, [this] { stop(); }));
    sources_.push_back(loop_.on_signal(SIGHUP, [this] { reload(); }));
    sources_.push_back(
        loop_.on_signal(SIGUSR1, [this] { flusher_.flush([](const WorkResult&) {}); }));
}

bool Service::run() {
    loop_.watch_over();
    begin_start();
    loop_.run();
    incoming_.reset();
    socket_.reset();
    log_info("ended; shared objects stay for smbd");
    return !failed_;
}

void Service::begin_start() {
    log_info("version {} started as process {}", KAVRIN_VERSION, getpid());
    Job start;
    start.kind = JobKind::kStart;
    start.on_end = [this](const WorkResult&) {
        if (stopping_) return;
        try {
            become_ready();
        } catch (const CommandError& error) {
            log_error("{}", error.message);
            failed_ = true;
            loop_.stop();
        }
    };
    builds_.add(std::move(start));
}

// Pairs come last: nothing is built before it is known what is served.
void Service::become_ready() {
    apply();
    store_.make_folders();
    for (const TakenPair& pair : store_.left_over()) builds_.add_pair(pair);
    incoming_ = std::make_unique<Incoming>(
        loop_, store_, seconds(configuration_.number(ServiceKey::kStaleHalf)),
        [this](const TakenPair& pair) { builds_.add_pair(pair); });
    incoming_->look();
    ready_ = true;
    write_metrics();
    notify(fmt::format("READY=1\nSTATUS=takes pairs from {}", store_.incoming()));
    if (options_.on_ready) options_.on_ready();
    log_info("ready; takes pairs from {}", store_.incoming());
}

// What a new configuration changes while the service runs.
void Service::apply() {
    const bool disabled = configuration_.number(PARAM_DISABLE_SWEEPER_FLUSH) != 0;
    flusher_.set(seconds(disabled ? 0 : configuration_.number(PARAM_FLUSH_PERIOD)),
                 configuration_.text(PARAM_STAGING_DIR));
    group_map_.set(configuration_);
    socket_->set_limits(limits_of(configuration_));
    if (incoming_)
        incoming_->set_stale_after(seconds(configuration_.number(ServiceKey::kStaleHalf)));
    resize_until_done();
}

// True when there is nothing to be tried again.
bool Service::resize_now() {
    try {
        return resize_staging(wanted_staging(configuration_));
    } catch (const CommandError& error) {
        log_error("{}", error.message);
        return true;
    }
}

// A buffer is exchanged while it is empty, as it is right after a flush, if ever at a busy share.
// Even there that may take more than one try.
void Service::resize_until_done() {
    if (resize_now()) return;
    flusher_.flush([this](const WorkResult&) {
        if (resize_now()) resize_.reset();
    });
    resize_ = loop_.after(kResizePeriod, [this] { resize_until_done(); });
}

void Service::reload() {
    notify("RELOADING=1");
    try {
        ConfigFile fresh = kvadmin::read_config_file(options_.config_path);
        for (const kvadmin::ConfigProblem& problem : fresh.problems)
            log_error("{}", line_for(fresh, problem));
        if (!fresh.problems.empty()) fail(Exit::kInvalidInput, "the configuration stays as it was");
        if (!fresh.exists && file_.exists)
            fail(Exit::kFailure, "there is no {}; the configuration stays as it was", fresh.path);
        make_event_folders(fresh.configuration);
        if (fresh.configuration.text(PARAM_SOCKET_PATH) != socket_->path() ||
            fresh.configuration.text(ServiceKey::kIncomingDir) != store_.incoming())
            log_warning("a new socket path or incoming dir takes effect at the next start");
        // Whoever looks into the table for the socket must find the one that is there.
        fresh.configuration.set_text(PARAM_SOCKET_PATH, socket_->path());
        file_ = std::move(fresh);
        write_table(configuration_);
        if (ready_) apply();
        log_info("read {} again", options_.config_path);
    } catch (const CommandError& error) {
        log_error("{}", error.message);
    }
    if (ready_) notify("READY=1");
}

void Service::stop() {
    if (std::exchange(stopping_, true)) return loop_.stop();
    notify("STOPPING=1\nSTATUS=ending");
    log_info("ending");
    last_call_ = loop_.after(kLastCall, [this] {
        log_warning("gives up waiting after {} seconds", kLastCall.count() / 1000);
        loop_.stop();
    });
    builds_.stop([this] {
        if (configuration_.number(PARAM_DISABLE_SWEEPER_FLUSH) != 0) return loop_.stop();
        flusher_.flush([this](const WorkResult&) { loop_.stop(); });
    });
}

// Requests
// ------------------------------------------------------------------------------------------

void Service::answer(const Json& request, const ControlSocket::Reply& reply) {
    const std::string command = request["command"];
    try {
        if (command == "status") return reply(success(status()));
        if (stopping_) fail(Exit::kFailure, "the service is ending");
        if (command == "load") return answer_load(request, reply);
        if (command == "rollback") return answer_rollback(request, reply);
        if (command == "flush") return answer_flush(reply);
        if (command == "set-debug-level") return answer_debug_level(request, reply);
        if (command != "reload")
            fail(Exit::kUsage,
                 "no command is named '{}'; there are status, load, reload, rollback, flush and "
                 "set-debug-level",
                 command);
        Job job;
        job.kind = JobKind::kReload;
        add_job(std::move(job), true, reply);
    } catch (const CommandError& error) {
        reply(refusal(error.code, error.message));
    } catch (const std::exception& error) {
        reply(refusal(Exit::kFailure, error.what()));
    }
}

void Service::add_job(Job job, bool wait, const ControlSocket::Reply& reply) {
    const auto number = std::make_shared<unsigned>(0);
    if (wait)
        job.on_end = [reply, number](const WorkResult& result) {
            if (result.done)
                reply(success({{"job", *number}, {"map", result.value["map"]}}));
            else
                reply(refusal(result.code, result.error + first_finding(result.output)));
        };
    *number = builds_.add(std::move(job));
    if (!wait) reply(success({{"job", *number}}));
}

void Service::answer_load(const Json& request, const ControlSocket::Reply& reply) {
    Job job;
    job.kind = JobKind::kLoad;
    job.size = path_member(request, "size");
    job.data = path_member(request, "data");
    add_job(std::move(job), waits(request), reply);
}

// The newest one older than the served one, when none is named.
void Service::answer_rollback(const Json& request, const ControlSocket::Reply& reply) {
    Job job;
    job.kind = JobKind::kRollback;
    const auto given = request.find("to");
    if (given != request.end() && !given->is_null()) {
        job.to = static_cast<unsigned>(number_member(request, "to", 1, INT32_MAX));
        const std::vector<kvadmin::MapRecord> kept = kvadmin::kept_maps();
        if (std::none_of(kept.begin(), kept.end(),
                         [&job](const auto& record) { return record.number == job.to; }))
            fail(Exit::kUsage, "there is no kept map {}; 'kavrinctl map history' lists them",
                 job.to);
        return add_job(std::move(job), true, reply);
    }
    const std::optional<ServedMap> served = served_.now();
    for (const kvadmin::MapRecord& record : kvadmin::kept_maps()) {
        const bool older =
            !served || served->record.number == 0 || record.number < served->record.number;
        const bool same = served && record.sha256 == served->record.sha256;
        if (!older || same || record.published == 0) continue;
        job.to = record.number;
        return add_job(std::move(job), true, reply);
    }
    fail(Exit::kFailure,
         "there is no kept map older than the one that is served; 'kavrinctl map history' lists "
         "them");
}

void Service::answer_flush(const ControlSocket::Reply& reply) {
    flusher_.flush([reply](const WorkResult& result) {
        if (result.done)
            reply(success({{"records", result.value["records"]}}));
        else
            reply(refusal(result.code, result.error));
    });
}

void Service::answer_debug_level(const Json& request, const ControlSocket::Reply& reply) {
    const std::int64_t level = number_member(request, "level", -1, 100);
    global_params[PARAM_DEBUG_LEVEL].value.intval = static_cast<std::int32_t>(level);
    log_info("debug level {}", level);
    reply(success({{"level", level}}));
}

// State
// ---------------------------------------------------------------------------------------------

std::string Service::state() const {
    return stopping_ ? "stopping" : !ready_ ? "starting" : builds_.running() ? "building" : "idle";
}

Figures Service::figures() {
    Figures figures;
    figures.started = started_;
    figures.builds = builds_.counters();
    figures.flushes = flusher_.counters();
    figures.map = served_.now();
    figures.staging = staging_fill();
    figures.pending = pending_files(configuration_.text(PARAM_STAGING_DIR));
    figures.halves = incoming_ ? incoming_->waiting().size() : 0;
    return figures;
}

Json Service::status() {
    const Figures now = figures();
    Json job;
    if (const Job* running = builds_.running())
        job = {{"number", running->number},
               {"kind", name_of(running->kind)},
               {"source", builds_.source_of(*running)},
               {"since", running->since}};
    Json failure;
    if (const std::optional<Failure>& last = builds_.last_failure())
        failure = {{"time", last->time},
                   {"source", last->source},
                   {"error", last->error},
                   {"quarantine", text_or_null(last->quarantine)}};
    Json halves = Json::array();
    for (const WaitingFile& file : incoming_ ? incoming_->waiting() : std::vector<WaitingFile>())
        halves.push_back(
            {{"file", file.file}, {"since", file.since}, {"stale", file.stale}, {"why", file.why}});
    return {{"service",
             {{"pid", getpid()},
              {"version", KAVRIN_VERSION},
              {"started", started_},
              {"config", options_.config_path},
              {"state", state()},
              {"job", job},
              {"queued", builds_.queued()}}},
            {"map", now.map ? as_json(*now.map) : Json()},
            {"last_failure", failure},
            {"counters",
             {{"builds", now.builds.builds},
              {"build_failures", now.builds.failures},
              {"superseded", now.builds.superseded},
              {"flushes", now.flushes.flushes},
              {"flush_failures", now.flushes.failures},
              {"events_flushed", now.flushes.events},
              {"build_seconds", now.builds.seconds}}},
            {"staging",
             {{"records", now.staging.records},
              {"used", now.staging.used},
              {"size", now.staging.size},
              {"folder", configuration_.text(PARAM_STAGING_DIR)}}},
            {"pending", {{"files", now.pending.files}, {"oldest_age", now.pending.oldest_age}}},
            {"halves", halves},
            {"group_map",
             {{"users", group_map_.state().users},
              {"written", time_or_null(group_map_.state().written)},
              {"error", text_or_null(group_map_.state().error)}}}};
}

void Service::write_metrics() {
    if (options_.metrics_path.empty()) return;
    try {
        kvadmin::write_whole_file(options_.metrics_path, as_metrics(figures()));
    } catch (const CommandError& error) {
        log_error("{}", error.message);
    }
}

}  // namespace kvservice
