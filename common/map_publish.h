// From a pair of files, the persisted map or a kept one to the map that readers use, so that no way
// of failing or dying on the way leaves them without one.
//
// The order is what makes it safe. A lock on the fixed folder keeps builds apart; the input is
// checked; whatever an earlier build left under the next key goes away; a child fills the new
// segment (build_child.h) while the persisted map lies beside itself a second time
// (persisted_copy.h); the image is walked and held against what was announced; it is kept for a way
// back (kept_maps.h); only then do readers switch, and only then do the two files go away. Every
// failure before the switch undoes all of it. A process killed at any point leaves what the next
// build clears: the lock goes with the process, a segment under the next key is in nobody's use,
// and the copy tells what the persisted map was.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "build_child.h"
#include "kept_maps.h"
#include "lint.h"

namespace kvadmin {

// What every way to a map takes.
struct PublishOptions {
    BuildLimits limits;
    StepObserver on_step;             // called in the child, too
    std::chrono::seconds patience{};  // how long to wait for another build to end
    std::string built_by;             // the program, for the record
    unsigned kept = kDefaultKeptMaps;
    bool announce = true;  // touch the marker that makes connections ask again
};

struct BuildRequest : PublishOptions {
    std::string size_path;
    std::string data_path;
    std::string source;  // what the record says the map came from; empty: the data file's path
    bool keep = false;   // leave both files after success, too
    std::function<void(std::uint64_t)> on_checked_bytes;
};

struct PublishedMap {
    MapRecord record;  // its number is 0 when it could not be kept
    int table = 0;
    int segment = -1;
    std::vector<std::string> remarks;  // what was out of the ordinary, already told with note()
};

// All fail by CommandError: kInvalidInput for input that breaks its format (the report's first
// lines then are on standard error), kFailure for everything else. After any failure the map that
// was current still is, with its persisted file, and no source file was touched.
PublishedMap build_map(const BuildRequest& request);
PublishedMap load_map(const PublishOptions& options);
PublishedMap restore_map(unsigned number, const PublishOptions& options);

// The service's start: adopts the map that readers use when it is whole, and makes the persisted
// map equal to it; else loads the persisted map, and if that is not sound the newest kept one that
// is. Makes or repairs the semaphore set, and removes what a killed build left.
struct Takeover {
    bool adopted = false;             // readers use it since before
    std::optional<PublishedMap> map;  // nothing: there is no map to serve yet
    std::vector<std::string> remarks;
};
Takeover take_over(const PublishOptions& options);

}  // namespace kvadmin
