// The service's state as one set of figures, and as a file for Prometheus' text-file collector.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "builds.h"
#include "flusher.h"
#include "served_map.h"
#include "shared_objects.h"

namespace kvservice {

struct PendingFiles {
    std::uint64_t files = 0;
    std::int64_t oldest_age = 0;  // seconds
};
PendingFiles pending_files(const std::string& folder);

struct Figures {
    std::time_t started = 0;
    BuildCounters builds;
    FlushCounters flushes;
    std::optional<ServedMap> map;
    StagingFill staging;
    PendingFiles pending;
    std::uint64_t halves = 0;
};

// In the text exposition format; no labels, so that no name of a user or a path gets out.
std::string as_metrics(const Figures& figures);

}  // namespace kvservice
