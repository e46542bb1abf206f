// Diagnostic dumps of ACLs: to standard output for a person, to the trace for a log.
#include <cstdio>

#include "perm_enforcer.h"
#include "permissions/acl.h"
#include "utils/trace.h"

namespace {

using namespace kavrin;

const char* trustee_word(const kavrin_ace_t& ace) {
    switch (ace.trustee_type) {
        case ACE_TYPE_USER:
            return "USER";
        case ACE_TYPE_GROUP:
            return "GROUP";
        default:
            return "ALL";
    }
}

bool has_all(std::uint32_t mask, std::uint32_t bits) {
    return (mask & bits) == bits;
}

// The strongest right of a mask, navigation apart; null when it has none.
const char* right_word(std::uint32_t mask, const char* viewer_only) {
    if (has_all(mask, KAVRIN_PERM_MASK_RDWRDEL)) return "RDWRDEL";
    if (has_all(mask, KAVRIN_PERM_MASK_RDWR)) return "RDWR";
    if (has_all(mask, KAVRIN_PERM_MASK_RDONLY)) return "RDONLY";
    if (has_all(mask, KAVRIN_PERM_MASK_VIEWER_ONLY)) return viewer_only;
    return nullptr;
}

void print_mask(std::uint32_t mask) {
    if (const char* word = right_word(mask, "VIEWER_ONLY"); word != nullptr)
        std::printf("ACE perm mask: %s\n", word);
    if (has_all(mask, KAVRIN_PERM_MASK_NAVIGATE)) std::printf("ACE perm mask: %s\n", "NAVIGATE");
    if (mask == KAVRIN_PERM_MASK_NOPERM) std::printf("ACE perm mask: %s\n", "NOPERM");
}

const char* trace_mask_word(std::uint32_t mask) {
    if (const char* word = right_word(mask, "VIEWER ONLY"); word != nullptr) return word;
    return has_all(mask, KAVRIN_PERM_MASK_NAVIGATE) ? "NAVIGATE" : "NOPERM";
}

}  // namespace

extern "C" void print_acl(kavrin_acl_t* acl) {
    std::printf("ACL Version %d Num ACES %d\n", static_cast<int>(acl->version),
                static_cast<int>(acl->num_aces));
    unsigned int number = 0;
    for (const kavrin_ace_t& ace : AceRange(*acl)) {
        std::printf("ACE Number: %u\n", number++);
        std::printf("ACE version: %u\n", ace.version);
        std::fputs(ace.ace_type == 1 ? "ACE Type: Inherited" : "ACE Type: Explicit", stdout);
        std::printf("ACE trustee_type: %s\n", trustee_word(ace));
        if (ace.trustee_type == ACE_TYPE_USER) std::printf("ACE uid: %u\n", ace.trustee.uid);
        if (ace.trustee_type == ACE_TYPE_GROUP) std::printf("ACE gid: %u\n", ace.trustee.gid);
        print_mask(ace.perm_mask);
        std::printf("ACE Container ACL %p:\n", static_cast<void*>(ace.acl));
        std::printf("ACE next %p:\n\n", static_cast<void*>(ace.ace_list.next_elem));
    }
}

extern "C" void print_bacl(beacl_t* acl) {
    if (acl == nullptr) {
        std::printf("Null ACL");
        return;
    }
    std::printf("Acl numaces %d\n", static_cast<int>(acl->num_aces));
    for (std::uint32_t i = 0; i < acl->num_aces; ++i) {
        const beace_t ace = acl->aces[i];
        std::printf("Ace Type: %d id %d maks %0x\n", static_cast<int>(ace.idtype),
                    static_cast<int>(ace.id), static_cast<unsigned int>(ace.perm_mask));
    }
}

extern "C" void _d_print_acl(kavrin_acl_t* acl) {
    if (!trace_enabled(kTrace) || acl == nullptr) return;
    KV_TRACE(kTrace, "ACL version: %u", acl->version);
    KV_TRACE(kTrace, "ACL number of aces: %u", acl->num_aces);
    for (const kavrin_ace_t& ace : AceRange(*acl)) {
        KV_TRACE(kTrace, "ACE trustee_type: %s", trustee_word(ace));
        if (ace.trustee_type == ACE_TYPE_USER) KV_TRACE(kTrace, "ACE uid: %u", ace.trustee.uid);
        if (ace.trustee_type == ACE_TYPE_GROUP) KV_TRACE(kTrace, "ACE gid: %u", ace.trustee.gid);
        KV_TRACE(kTrace, "ACE perm mask: %s", trace_mask_word(ace.perm_mask));
        if (ace.ace_type == 1) {
            KV_TRACE(kTrace, "ACE Type: Inherited");
        } else {
            KV_TRACE(kTrace, "ACE Type: Explicit");
        }
    }
}
