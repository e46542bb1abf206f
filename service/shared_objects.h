// The shared objects that the service owns beside the maps: the configuration table, the semaphore
// of the staging buffer and the buffer itself. What is there already may be in use, so it is
// adopted and changed in place; only what is missing or useless is made.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "config_file.h"

namespace kvservice {

// Makes global_params the shared table and writes the configuration into it. Fails by CommandError.
void take_table(const kvadmin::Configuration& configuration);

// Writes it again. While there is a staging buffer the table goes on saying its real size: a
// process that takes a larger one for true could not attach it.
void write_table(kvadmin::Configuration configuration);

// Makes the folders that events and records go to, and the one of the event store's marker.
void make_event_folders(const kvadmin::Configuration& configuration);

// Makes or adopts semaphore and buffer; the table then says the buffer's real size.
void take_staging();

// Gives the buffer the configured size where it has a smaller one, without losing a record; false
// when it is in use at the moment and the call is to be made again. The table says the real size.
bool resize_staging(std::size_t wanted);

// Bytes of the staging segment; 0 when there is none.
std::size_t staging_size();

struct StagingFill {
    bool exists = false;
    std::size_t size = 0;
    std::size_t used = 0;  // bytes of records
    std::size_t records = 0;
};
// Without the semaphore: for people and graphs.
StagingFill staging_fill();

// Removes every shared object: maps, semaphores, buffer, table. Refuses while a process is attached
// to a map, unless forced. The staging buffer is flushed first, if its folder is there.
void tear_down(bool force);

}  // namespace kvservice
