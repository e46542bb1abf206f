// The statements of a script as data: what each is called, what it needs, how it is written, and
// the words that its arguments may be. sim_script.cpp reads scripts by it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "sim_script.h"

namespace kvadmin::sim_forms {

enum class Needs : std::uint8_t {
    kNothing,
    kSandbox,   // it changes accounts, groups or the map
    kOwnShare,  // it lays out the disk
    kUser,      // somebody is connected
    kResult     // an operation stands above
};

struct Form {
    std::string_view name;
    SimKind kind;
    Needs needs;
    std::size_t least;  // arguments
    std::size_t most;
    std::string_view syntax;  // of the arguments
};

inline constexpr std::size_t kAny = 4096;

inline constexpr std::array kForms{
    Form{"share", SimKind::kShare, Needs::kNothing, 1, 1, "PATH"},
    Form{"group", SimKind::kGroup, Needs::kSandbox, 2, 2, "NAME GID"},
    Form{"administrators", SimKind::kAdministrators, Needs::kSandbox, 1, 1, "GID"},
    Form{"powerusers", SimKind::kPowerUsers, Needs::kSandbox, 1, 1, "GID"},
    Form{"user", SimKind::kUser, Needs::kSandbox, 2, kAny, "NAME UID [groups GROUP…]"},
    Form{"computer", SimKind::kComputer, Needs::kSandbox, 2, kAny, "NAME$ UID [groups GROUP…]"},
    Form{"groups", SimKind::kGroups, Needs::kSandbox, 1, kAny, "USER [GROUP…]"},
    Form{"acl", SimKind::kAcl, Needs::kSandbox, 1, kAny,
         "PATH [user USER RIGHTS | group GROUP RIGHTS]…"},
    Form{"publish", SimKind::kPublish, Needs::kSandbox, 0, 0, ""},
    Form{"patterns", SimKind::kPatterns, Needs::kSandbox, 1, kAny, "REGEX…"},
    Form{"folder", SimKind::kFolder, Needs::kOwnShare, 1, 3, "PATH [owner USER]"},
    Form{"fixed-folder", SimKind::kFixedFolder, Needs::kOwnShare, 1, 3, "PATH [owner USER]"},
    Form{"file", SimKind::kFile, Needs::kOwnShare, 2, 4, "PATH TEXT [owner USER]"},
    Form{"as", SimKind::kAs, Needs::kNothing, 1, 1, "USER"},
    Form{"audit", SimKind::kAudit, Needs::kNothing, 1, 1, "on | off"},
    Form{"disconnect", SimKind::kDisconnect, Needs::kUser, 0, 0, ""},
    Form{"signal", SimKind::kSignal, Needs::kUser, 0, 0, ""},
    Form{"touch-marker", SimKind::kTouchMarker, Needs::kSandbox, 1, 2,
         "permission | groupmap [now | past | future]"},
    Form{"events", SimKind::kEvents, Needs::kSandbox, 0, 0, ""},
    Form{"expect", SimKind::kExpect, Needs::kResult, 1, 2, "allowed | refused [ERRNO] | ended"},
    Form{"cache", SimKind::kCache, Needs::kUser, 0, 0, ""},
    Form{"mkdir", SimKind::kMkdir, Needs::kUser, 1, 1, "PATH"},
    Form{"create-folder", SimKind::kCreateFolder, Needs::kUser, 1, 1, "PATH"},
    Form{"open-folder", SimKind::kOpenFolder, Needs::kUser, 1, 1, "PATH"},
    Form{"delete-open", SimKind::kDeleteOpen, Needs::kUser, 1, 1, "PATH"},
    Form{"rmdir", SimKind::kRmdir, Needs::kUser, 1, 1, "PATH"},
    Form{"ls", SimKind::kLs, Needs::kUser, 1, 2, "PATH [by-descriptor | to-delete]"},
    Form{"stat", SimKind::kStat, Needs::kUser, 1, 1, "PATH"},
    Form{"lstat", SimKind::kLstat, Needs::kUser, 1, 1, "PATH"},
    Form{"cd", SimKind::kCd, Needs::kUser, 1, 1, "PATH"},
    Form{"statvfs", SimKind::kStatvfs, Needs::kUser, 1, 1, "PATH"},
    Form{"touch", SimKind::kTouch, Needs::kUser, 1, 1, "PATH"},
    Form{"create", SimKind::kCreate, Needs::kUser, 1, 3, "PATH [DISPOSITION] [for-writing]"},
    Form{"open", SimKind::kOpen, Needs::kUser, 1, 2, "PATH [read | write | create | chattr]"},
    Form{"put", SimKind::kPut, Needs::kUser, 2, 2, "PATH TEXT"},
    Form{"append", SimKind::kAppend, Needs::kUser, 2, 2, "PATH TEXT"},
    Form{"read", SimKind::kRead, Needs::kUser, 1, 1, "PATH"},
    Form{"rename", SimKind::kRename, Needs::kUser, 2, 2, "FROM TO"},
    Form{"unlink", SimKind::kUnlink, Needs::kUser, 1, 1, "PATH"},
    Form{"deletable", SimKind::kDeletable, Needs::kUser, 1, 1, "PATH"},
};

struct Right {
    std::string_view name;
    std::uint32_t mask;
};
inline constexpr std::array kRights{Right{"none", 0}, Right{"r", 1},   Right{"rw", 3},
                                    Right{"rwd", 7},  Right{"nav", 8}, Right{"view", 16}};

using Choices = std::span<const std::string_view>;
inline constexpr std::array<std::string_view, 2> kSwitch{"on", "off"};
inline constexpr std::array<std::string_view, 2> kMarkers{"permission", "groupmap"};
inline constexpr std::array<std::string_view, 3> kTimes{"now", "past", "future"};
inline constexpr std::array<std::string_view, 3> kResults{"allowed", "refused", "ended"};
inline constexpr std::array<std::string_view, 2> kListings{"by-descriptor", "to-delete"};
inline constexpr std::array<std::string_view, 4> kModes{"read", "write", "create", "chattr"};
inline constexpr std::array<std::string_view, 6> kDispositions{
    "supersede", "open", "create", "open-if", "overwrite", "overwrite-if"};
inline constexpr std::array<std::string_view, 1> kOwner{"owner"};
inline constexpr std::array<std::string_view, 1> kGroupsWord{"groups"};
inline constexpr std::array<std::string_view, 1> kForWriting{"for-writing"};
inline constexpr std::array<std::string_view, 2> kTrustees{"user", "group"};

}  // namespace kvadmin::sim_forms
