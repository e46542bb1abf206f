// The service as a whole: what is made at the start and in which order, what signals and requests
// do, and how it ends.
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "builds.h"
#include "config_file.h"
#include "control_socket.h"
#include "event_loop.h"
#include "flusher.h"
#include "group_map.h"
#include "incoming.h"
#include "instance_lock.h"
#include "metrics.h"
#include "pair_folder.h"
#include "served_map.h"

namespace kvservice {

struct ServiceOptions {
    std::string config_path;
    std::string metrics_path;        // empty: none
    std::function<void()> on_ready;  // once the start is over; may be empty
};

class Service {
public:
    // Takes the lock and the shared objects. Fails by CommandError.
    Service(ServiceOptions options, kvadmin::ConfigFile config);
    // Until a signal ends it; false when it could not start.
    bool run();

private:
    void take_signals();
    void begin_start();
    void become_ready();
    void reload();
    void apply();
    bool resize_now();
    void resize_until_done();
    void stop();
    void answer(const Json& request, const ControlSocket::Reply& reply);
    void answer_load(const Json& request, const ControlSocket::Reply& reply);
    void answer_rollback(const Json& request, const ControlSocket::Reply& reply);
    void answer_flush(const ControlSocket::Reply& reply);
    void answer_debug_level(const Json& request, const ControlSocket::Reply& reply);
    void add_job(Job job, bool wait, const ControlSocket::Reply& reply);
    Figures figures();
    Json status();
    void write_metrics();
    std::string state() const;

    ServiceOptions options_;
    kvadmin::ConfigFile file_;
    kvadmin::Configuration& configuration_;
    InstanceLock lock_;
    EventLoop loop_;
    PairStore store_;
    std::time_t started_ = std::time(nullptr);
    bool ready_ = false;
    bool stopping_ = false;
    bool failed_ = false;
    ServedMaps served_;
    Builds builds_;
    Flusher flusher_;
    GroupMap group_map_;
    std::unique_ptr<Incoming> incoming_;
    std::unique_ptr<ControlSocket> socket_;
    std::vector<Source> sources_;
    Source resize_;
    Source last_call_;
    Source metrics_soon_;
};

}  // namespace kvservice
