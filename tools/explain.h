// The way to a verdict, told: the trail that the enforcement wrote down, with ids and offsets
// turned into the names that people know. Nothing is judged here; nearest_grant.h says what would
// have helped.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "identity.h"
#include "image_reader.h"
#include "operations.h"
#include "permissions/verdict_trail.h"

namespace kvadmin {

// One question and what the enforcement answered.
struct Answer {
    Question question;
    e_vfs_enforce_perms_t verdict = KVPERMS_UNKNOWN_ERR;
    bool nav = false;  // allowed for navigation or viewing only
    kavrin::VerdictTrail trail;
};

// What the words of an explanation need beside the trail.
struct ExplainContext {
    Identity caller;
    ReservedGroup admins;
    ReservedGroup powerusers;
    const ImageReader* image = nullptr;  // the map that the verdict was taken from; null: none
};

// "RDWR", "NAVIGATE+RDONLY", "NOPERM".
std::string mask_words(std::uint32_t mask);
// "KVPERMS_NO_PERM" and so on.
std::string verdict_name(e_vfs_enforce_perms_t verdict);
// "allowed", "denied", or "error".
std::string_view verdict_word(e_vfs_enforce_perms_t verdict);
// What an error verdict means and what to do about it.
std::string_view error_words(e_vfs_enforce_perms_t verdict);

// "/Shared/Docs" of the element an ACL was looked up at, and of the one whose ACL it is.
std::string element_path(const kavrin::AclTrail& acl, const ExplainContext& context);
std::string governing_path(const kavrin::AclTrail& acl, const ExplainContext& context);

// "alice" or "group staff (1000)": the trustee of an ACE.
std::string trustee_words(const kavrin::AceNote& ace);

// `advice` is nearest_grant()'s.
std::vector<std::string> explanation_as_text(const Answer& answer, const ExplainContext& context,
                                             const std::vector<std::string>& advice);
nlohmann::ordered_json explanation_as_json(const Answer& answer, const ExplainContext& context,
                                           const std::vector<std::string>& advice);

}  // namespace kvadmin
