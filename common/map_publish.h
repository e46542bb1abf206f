// From a pair of files, or from the persisted map, to the map that readers use, so that no way of
// failing or dying on the way leaves them without one.
//
// The order is what makes it safe. A lock on the fixed folder keeps builds apart; the input is
// checked; whatever an earlier build left under the next key goes away; a child fills the new
// segment (build_child.h) while the persisted map lies beside itself a second time
// (persisted_copy.h); the image is walked and held against what was announced; only then do readers
// switch, and only then do the two files go away. Every failure before the switch undoes all of it.
// A process killed at any point leaves what the next build clears: the lock goes with the process,
// a segment under the next key is in nobody's use, and the copy tells what the persisted map was.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "build_child.h"
#include "lint.h"

namespace kvadmin {

struct BuildRequest {
    std::string size_path;
    std::string data_path;
    bool keep = false;  // leave both files after success, too
    BuildLimits limits;
    StepObserver on_step;  // called in the child, too
    std::function<void(std::uint64_t)> on_checked_bytes;
};

struct PublishedMap {
    std::string map_name;
    std::string version;
    std::uint32_t generation = 0;
    std::uint32_t elements = 0;
    std::uint32_t aces = 0;
    std::uint32_t bytes = 0;
    int table = 0;
    int segment = -1;
    std::vector<std::string> remarks;  // what was out of the ordinary, already told with note()
};

// Both fail by CommandError: kInvalidInput for input that breaks its format (the report's first
// lines then are on standard error), kFailure for everything else. After any failure the map that
// was current still is, with its persisted file, and no source file was touched.
PublishedMap build_map(const BuildRequest& request);
PublishedMap load_map(const BuildLimits& limits, const StepObserver& on_step = {});

}  // namespace kvadmin
