// Walks a real tree and tells a DataWriter what it finds: folders and regular files, each with its
// permissions folded into ACEs. It never follows a link, crosses mount points (a share may be put
// together from several), and needs /proc to read access ACLs of what it cannot open.
//
// Memory is bounded by the entries of the folders between the root and where the walk stands, and
// each of these folders keeps one descriptor: a folder that is moved meanwhile is walked to its
// end where it went. What vanishes after it was listed stays in the map as listed, empty.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "pair_writer.h"

namespace kvadmin {

struct ScanRequest {
    std::string folder;
    // The pair being written, which may lie in the tree.
    std::vector<const PendingFile*> leave_out;
    // Called before each element is written, with the number written so far; may throw to stop.
    std::function<void(std::uint64_t)> progress = [](std::uint64_t) {};
    // Receives one line for each thing an administrator has to know of.
    std::function<void(std::string_view)> report = [](std::string_view) {};
};

// Of the siblings that differ only by letter case, so many are told one by one.
inline constexpr std::uint64_t kReportedTwins = 5;

struct ScanResult {
    std::uint64_t folders = 0;  // the root included
    std::uint64_t files = 0;
    std::uint64_t links = 0;    // left out: symbolic links,
    std::uint64_t special = 0;  // devices, sockets and fifos,
    std::uint64_t names = 0;    // names no map can hold
    std::uint64_t twins = 0;    // names that differ from a sibling's only by letter case
    std::uint64_t unreadable = 0;
    bool has_shared = false;  // a top-level folder that verdicts know
};

// Why a map cannot hold this name, or null when it can.
const char* name_problem(std::string_view name);

// Fails when the folder itself cannot be read; whatever is unreadable below is reported, counted
// and treated as empty.
ScanResult scan_tree(const ScanRequest& request, DataWriter& writer);

}  // namespace kvadmin
