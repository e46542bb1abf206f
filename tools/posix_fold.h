// What a POSIX permission says, in the words of a permission map: owner, owning group and the
// entries of an access ACL become user and group ACEs. Looks at no file; reading them is
// tree_scan's concern.
//
// The law: a mask never opens contents that its triple keeps shut. What a map cannot say (the
// rights of "others", default ACLs) is left out rather than rounded up; docs/kavrinctl.md lists it.
#pragma once

#include <sys/acl.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace kvadmin {

enum class ElementKind { kFolder, kFile };

// The mask of a triple of POSIX bits (read 4, write 2, execute 1). In a folder whose sticky bit is
// set only its owner may remove what others made, so `may_delete` is false for everyone else.
std::uint32_t fold_bits(ElementKind kind, unsigned bits, bool may_delete);

// One user or group and what it is given.
struct FoldedAce {
    std::uint32_t id;
    std::uint32_t mask;
    bool operator==(const FoldedAce&) const = default;
};

// An ACL as the data file lists it: each trustee once, sorted by id.
struct FoldedAcl {
    std::vector<FoldedAce> users;
    std::vector<FoldedAce> groups;

    std::size_t size() const { return users.size() + groups.size(); }
    // An inherited entry that navigates is not counted by the enforcement, an explicit one is: an
    // ACL with one says the same to a child only when the child carries it itself.
    bool navigates() const;
    bool operator==(const FoldedAcl&) const = default;
};

// A named entry of an access ACL.
struct NamedEntry {
    std::uint32_t id;
    unsigned bits;
};

// Everything POSIX keeps about one file or folder that a map can say.
struct PosixEntries {
    std::uint32_t owner = 0;
    std::uint32_t group = 0;
    unsigned owner_bits = 0;
    unsigned group_bits = 0;
    unsigned limit = 7;  // the ACL's mask entry: caps everyone but the owner
    bool sticky = false;
    std::vector<NamedEntry> users;
    std::vector<NamedEntry> groups;
};

// Who owns a file and its mode.
struct FileStatus {
    std::uint32_t owner;
    std::uint32_t group;
    mode_t mode;
};

// Without an access ACL: the mode is all there is.
PosixEntries entries_of_mode(const FileStatus& status);

// With one. False when an entry cannot be read.
bool entries_of_acl(const FileStatus& status, acl_t acl, PosixEntries& entries);

FoldedAcl fold(ElementKind kind, const PosixEntries& entries);

}  // namespace kvadmin
