// Small files that others read while they are written: whoever opens one finds the old content or
// the new one, also after a crash.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

namespace kvadmin {

// Puts `content` at `path`: a temporary beside it, synced, renamed. Fails by CommandError; what was
// there then stays.
void write_whole_file(const std::string& path, std::string_view content, mode_t mode = 0644);
void write_whole_file(const std::string& path, std::span<const std::uint8_t> content, mode_t mode);

// Syncs a folder, so that names given or taken in it last. False with errno when that failed.
bool sync_folder(const std::string& path);

// Makes the folder and what is missing above it, each with `mode` and root's. One that is there is
// left as it is. Fails by CommandError.
void make_folder(const std::string& path, mode_t mode);

// The time a marker file is given when it is touched: connections compare it in whole seconds with
// the time of their last look, and one may have looked within this second, so it is the next one.
timespec marker_time();

// Touches the marker that makes connections ask the permission map again. Fails by CommandError.
inline constexpr const char* kMapMarkerPath = "/etc/kavrin/permission_refresh";
void touch_map_marker();

}  // namespace kvadmin
