// The caller's identity and standing, as a verdict needs them.
#pragma once

#include "kavrin_structs.h"

namespace kavrin {

// The identity that one verdict works with: the one that was passed, marked as in use, or the
// process's own, which goes away with this object.
class Caller {
public:
    explicit Caller(process_trustees_t* given) : given_(given) {}
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    // Ends the use of a passed identity.
    void leave() {
        if (given_ != nullptr) given_->is_global_map_in_use = 0;
    }

    // Takes the identity in and finds its standing. KVPERMS_HAS_PERMS, or the error verdict.
    e_vfs_enforce_perms_t identify();

    bool is_given() const { return given_ != nullptr; }
    const process_trustees_t& trustees() const { return *trustees_; }
    bool known() const { return trustees_ != nullptr; }
    // Traced on every question.
    bool is_admin() const;
    bool is_poweruser() const;

private:
    e_vfs_enforce_perms_t take_given();
    e_vfs_enforce_perms_t take_own();

    process_trustees_t* given_;
    process_trustees_t* trustees_ = nullptr;
};

}  // namespace kavrin
