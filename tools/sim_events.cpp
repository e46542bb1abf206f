// See sim_events.h.
#include "sim_events.h"

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "event_text.h"
#include "failure.h"
#include "kavrin_utils.h"
#include "pending_folder.h"
#include "staging_snapshot.h"

namespace kvadmin {
namespace {

constexpr std::size_t kMostBytes = 64U << 20;
constexpr const char* kRescanMarker = "/kavrin/.conf/kavrin_event_status.dirty";

// Gives every event of that process in the buffer to `use`; their number.
template <typename Use>
std::size_t walk(pid_t process, Use&& use) {
    const StagingSnapshot snapshot = snapshot_staging(kMostBytes);
    const std::vector<std::uint8_t>& bytes = snapshot.records;
    std::size_t count = 0;
    for (std::size_t at = 0; at + sizeof(staging_data_t) <= bytes.size();) {
        staging_data_t head{};
        std::memcpy(&head, bytes.data() + at, sizeof head);
        at += sizeof head;
        if (head.sig != STAGING_DATA_SIG || head.size > bytes.size() - at) break;
        const auto event = unpack<VFSEvent>({bytes.data() + at, head.size});
        if (event != nullptr && event->client_pid == process) use(count++, *event);
        at += head.size;
    }
    return count;
}

}  // namespace

void SimEvents::look(pid_t process) {
    seen_[process] = walk(process, [](std::size_t, const VFSEvent&) {});
}

// When the buffer was flushed since, all that it holds is new.
void SimEvents::print_new(pid_t process, const SimPrinter& printer) {
    const std::size_t before = seen_[process];
    const std::size_t now = walk(process, [](std::size_t, const VFSEvent&) {});
    const std::size_t from = now < before ? 0 : before;
    walk(process, [&](std::size_t number, const VFSEvent& event) {
        if (number >= from) printer.print_event(event);
    });
    seen_[process] = now;
}

void SimEvents::print_pending(const std::string& folder, const SimPrinter& printer) {
    if (flush_staging_buffer() != 1) print_text_line("  the events could not be flushed");
    std::size_t events = 0;
    for (const std::string& name : pending_names(folder)) {
        const std::string path = folder + "/" + name;
        const Descriptor file = open_record_file(path);
        events += walk_records<VFSEvent>(file.get(), 0, [&printer](const VFSEvent& event) {
                      printer.print_event(event);
                  }).records;
        unlink(path.c_str());
    }
    if (events == 0) print_text_line("  no pending events");
    std::ifstream marker(kRescanMarker, std::ios::binary);
    if (!marker.is_open()) return;
    const std::string reason{std::istreambuf_iterator<char>(marker), {}};
    print_text_line("  the event store must rescan: " +
                    reason.substr(0, reason.find_first_of(std::string_view("\n\0", 2))));
}

}  // namespace kvadmin
