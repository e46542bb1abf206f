// See metrics.h.
#include "metrics.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "pending_folder.h"

namespace kvservice {
namespace {

enum class Kind { kCounter, kGauge };

void add(std::string& text, std::string_view name, Kind kind, std::string_view help, double value) {
    text += fmt::format("# HELP kavrin_{} {}\n# TYPE kavrin_{} {}\nkavrin_{} {}\n", name, help,
                        name, kind == Kind::kCounter ? "counter" : "gauge", name, value);
}

void add_map(std::string& text, const ServedMap& map) {
    const kvadmin::MapRecord& record = map.record;
    const double age =
        record.published == 0 ? 0 : static_cast<double>(std::time(nullptr) - record.published);
    add(text, "map_elements", Kind::kGauge, "Elements of the map that is served.", record.elements);
    add(text, "map_generation", Kind::kGauge, "Its generation.", record.generation);
    add(text, "map_bytes", Kind::kGauge, "Bytes of its image.", record.bytes);
    add(text, "map_age_seconds", Kind::kGauge, "Time since readers were switched to it.", age);
    add(text, "map_readers", Kind::kGauge, "Processes that are attached to it.",
        static_cast<double>(map.readers));
}

}  // namespace

PendingFiles pending_files(const std::string& folder) {
    PendingFiles found;
    int error = 0;
    std::time_t oldest = std::time(nullptr);
    const std::time_t now = oldest;
    for (const std::string& name : kvadmin::names_in(folder, error)) {
        struct stat st {};
        if (!name.starts_with(kvadmin::kPendingPrefix)) continue;
        if (stat((folder + "/" + name).c_str(), &st) != 0) continue;
        ++found.files;
        oldest = std::min(oldest, st.st_mtime);
    }
    found.oldest_age = now - oldest;
    return found;
}

std::string as_metrics(const Figures& figures) {
    std::string text;
    const auto counter = [&text](std::string_view name, std::string_view help, auto value) {
        add(text, name, Kind::kCounter, help, static_cast<double>(value));
    };
    const auto gauge = [&text](std::string_view name, std::string_view help, auto value) {
        add(text, name, Kind::kGauge, help, static_cast<double>(value));
    };
    counter("builds_total", "Maps that were built or loaded and then served.",
            figures.builds.builds);
    counter("build_failures_total", "Builds and loads that failed.", figures.builds.failures);
    counter("pairs_superseded_total", "Pairs that a newer one came before.",
            figures.builds.superseded);
    gauge("build_seconds", "What the last build took.", figures.builds.seconds);
    gauge("last_build_success", "1 when the last build succeeded, 0 when it failed.",
          figures.builds.last_succeeded ? 1 : 0);
    gauge("map_served", "1 while there is a map.", figures.map ? 1 : 0);
    if (figures.map) add_map(text, *figures.map);
    counter("flushes_total", "Flushes by the service that found events.", figures.flushes.flushes);
    counter("flush_failures_total", "Flushes by the service that failed.",
            figures.flushes.failures);
    counter("events_flushed_total", "Events in those flushes.", figures.flushes.events);
    gauge("pending_files", "Files that wait for the event store.", figures.pending.files);
    gauge("pending_oldest_age_seconds", "Age of the oldest of them.", figures.pending.oldest_age);
    gauge("staging_records", "Events in the staging buffer.", figures.staging.records);
    gauge("staging_bytes", "Bytes of them.", figures.staging.used);
    gauge("staging_size_bytes", "Bytes of the staging buffer.", figures.staging.size);
    gauge("halves_waiting", "Files of the incoming folder that make no pair yet.", figures.halves);
    gauge("service_start_time_seconds", "When the service was started.", figures.started);
    return text;
}

}  // namespace kvservice
