// The script of 'kavrinctl smb-sim': what each line says, and what is wrong with it. A script is
// read to its end before anything of it runs, so that one with a mistake changes nothing.
//
// One statement a line: a word that names it, then its arguments, divided by blanks. Double quotes
// hold blanks together (\" and \\ inside); from a # that begins a word to the line's end is
// comment.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvadmin {

enum class SimKind : std::uint8_t {
    kShare,
    kGroup,
    kAdministrators,
    kPowerUsers,
    kUser,
    kComputer,
    kGroups,
    kAcl,
    kPublish,
    kPatterns,
    kFolder,
    kFixedFolder,
    kFile,
    kAs,
    kAudit,
    kDisconnect,
    kSignal,
    kTouchMarker,
    kEvents,
    kExpect,
    kCache,
    kMkdir,
    kCreateFolder,
    kOpenFolder,
    kDeleteOpen,
    kRmdir,
    kLs,
    kStat,
    kLstat,
    kCd,
    kStatvfs,
    kTouch,
    kCreate,
    kOpen,
    kPut,
    kAppend,
    kRead,
    kRename,
    kUnlink,
    kDeletable,
};

struct SimAce {
    bool group = false;
    std::uint32_t id = 0;
    std::uint32_t mask = 0;
};

struct SimStatement {
    SimKind kind{};
    std::size_t line = 0;
    std::size_t column = 0;  // of the word that names it
    std::string text;        // as written, without comment
    std::string name;        // the path or the account; a pattern's own list is `words`
    std::string second;      // rename's target, file's or put's text, expect's errno
    std::string choice;      // one of the words that the statement allows, or its default
    bool writes = false;     // create … for-writing
    std::uint32_t id = 0;    // uid or gid
    std::optional<std::uint32_t> owner;
    std::vector<std::uint32_t> groups;
    std::vector<SimAce> aces;
    std::vector<std::string> words;
};

struct SimError {
    std::size_t line = 0;
    std::size_t column = 0;
    std::string message;  // what is wrong, and what is allowed
};

struct SimScript {
    std::vector<SimStatement> statements;
    std::vector<SimError> errors;  // in the order of the lines; nothing may run unless it is empty
};

// What the run may change.
struct SimLimits {
    bool sandboxed = true;     // maps, accounts and groups may be made
    bool own_share = true;     // folders and files may be laid out: the share is a temporary one
    bool share_given = false;  // by the command line
};

SimScript parse_sim_script(std::string_view text, const SimLimits& limits);

// Whether a user's process carries it out, as opposed to the stage.
bool is_sim_operation(SimKind kind);

// "share PATH", … one a line, for the help.
std::string sim_statement_list();

}  // namespace kvadmin
