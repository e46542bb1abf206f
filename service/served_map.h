// The map that readers use at this moment, whoever built it, with what is on record of it.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>

#include "kept_maps.h"

namespace kvservice {

struct ServedMap {
    kvadmin::MapRecord record;  // number 0: not on record; then only what the image says
    int table = 0;
    int segment = -1;
    unsigned long readers = 0;
};

// Looks again at each call, but reads an image through only when it is another one.
class ServedMaps {
public:
    std::optional<ServedMap> now();
    // What a build of ours told of the map it published, so that nobody has to read it through.
    void learn(const nlohmann::ordered_json& map);

private:
    int segment_ = -1;
    std::time_t since_ = 0;  // of the segment's making: ids are used again
    kvadmin::MapRecord record_;
};

}  // namespace kvservice
