// Keeps the group-map file in step with the machine's accounts, or with a JSON file: on a change of
// either, and every period for accounts that no file of this machine lists. The file is written
// only when it would be another one, since writing it makes every connection load its groups again.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "config_file.h"
#include "descriptor.h"
#include "worker.h"

namespace kvservice {

struct GroupMapState {
    std::uint64_t users = 0;
    std::time_t written = 0;
    std::string error;  // of the last attempt; empty when it went well
};

class GroupMap {
public:
    explicit GroupMap(EventLoop& loop) : loop_(loop) {}

    // Takes the settings and makes a first look.
    void set(const kvadmin::Configuration& configuration);

    const GroupMapState& state() const { return state_; }

private:
    void watch();
    void read_events();
    void look_soon();
    void begin();
    void end(const WorkResult& result);

    EventLoop& loop_;
    std::string from_;  // "accounts", "off", or a JSON file
    std::uint32_t min_uid_ = 0;
    GroupMapState state_;
    std::string told_;  // remarks that are in the log already
    bool again_ = false;
    kvadmin::Descriptor events_;
    std::unique_ptr<Worker> worker_;
    Source source_;
    Source soon_;
    Source limit_;
    Source period_;
};

}  // namespace kvservice
