// One question about one path of a map, ruled on for any caller: the ACLs that are in force for it,
// and which of their entries counted.
#pragma once

#include <string>
#include <vector>

#include "map_query.h"
#include "operations.h"
#include "rights_map.h"

namespace kvadmin {

// An entry that gave a caller rights, and the path of the element whose ACL it stands in.
struct CountedEntry {
    AclEntry entry;
    std::string path;
};

class PathRulings {
public:
    // What `question`, whose type must be forced, is about. All four must outlive this object.
    PathRulings(const MapSource& source, const ImageReader& image, const ShareOnDisk& disk,
                const Question& question);

    Ruling of(const Caller& caller) const;
    // Those that decided; none where the rules of the share did.
    std::vector<CountedEntry> counted(const Caller& caller) const;
    // Everybody whom an ACL that is asked speaks of, in its order, each once.
    const std::vector<AclEntry>& trustees() const { return trustees_; }
    Zone zone() const { return zone_; }

private:
    struct Acl {
        std::vector<PermTree::Entry> entries;
        bool inherited = true;
        std::string path;  // of the element whose it is
    };

    static Acl acl_for(const MapSource& source, const ImageReader& image, const std::string& path);
    std::vector<const Acl*> asked() const;
    std::string share_path() const;

    const ShareOnDisk& disk_;
    const Question& question_;
    std::string path_;  // absolute
    Zone zone_ = Zone::kRoot;
    Acl own_;
    Acl parent_;
    std::vector<AclEntry> trustees_;
};

}  // namespace kvadmin
