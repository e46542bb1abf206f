// The way to a verdict, written down by the code that gives it. vfs_enforce_perms() passes no trail
// and pays one test a note; `kavrinctl check --explain` passes one, so an explanation can never
// tell another story than the verdict.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kavrin_perms.h"
#include "kavrin_structs.h"

namespace kavrin {

// What became of one ACE while a mask was worked out.
enum class AceUse : std::uint8_t {
    kUser,                      // the caller's own: gave the mask
    kGroup,                     // one of the caller's groups: added to the mask
    kOtherTrustee,              // speaks of somebody else
    kSkippedInheritedNavigate,  // the caller's, but navigation is not inherited
    kLaterUser,                 // the caller's again, behind the one that counted
    kGroupNotAsked              // a group's, and the user's own right settled it before
};

struct AceNote {
    e_ace_type_t trustee_type;
    std::uint32_t id;
    std::uint32_t mask;
    bool inherited;
    AceUse use;
};

// One ACL on the way: the element's own or its parent's.
struct AclTrail {
    bool read = false;            // taken from the map
    std::string path;             // the path it was looked up for
    std::uint32_t element = 0;    // offset of the deepest element matched
    bool remapped = false;        // that element is not an exact match with children of its own
    std::uint32_t governing = 0;  // offset of the element whose ACL it is
    std::vector<AceNote> aces;    // in the order they were walked
    bool user_found = false;
    std::uint32_t mask = 0;  // the caller's mask
};

struct VerdictTrail {
    std::string real_path;  // normalised
    std::string real_root;
    std::string real_parent;
    std::string full_path;  // what was looked at on disk
    int type = 0;           // e_file_type, 0 before it was known
    uid_t euid = 0;
    gid_t egid = 0;
    std::vector<gid_t> gids;
    bool standing_known = false;
    bool admin = false;
    bool poweruser = false;
    AclTrail self;
    AclTrail parent;
    std::string rule;          // the rule of the namespace that applied, one sentence
    bool table_asked = false;  // the decision table was asked, with these:
    e_fsop_type_t table_op = FSOP_INVAL;
    std::uint32_t table_path_mask = 0;
    std::uint32_t table_parent_mask = 0;
    bool special_path = false;  // a denial was overturned for a name that clients keep
};

// vfs_enforce_perms() with a trail; null writes none down.
e_vfs_enforce_perms_t enforce_with_trail(const char* share_root, const char* in_path,
                                         e_fsop_type_t op, process_trustees_t* in_pts,
                                         int force_path_type, int* is_nav, VerdictTrail* trail);

}  // namespace kavrin
