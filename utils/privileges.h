// Root's identity for a scope. See privileges.cpp for what exactly changes.
#pragma once

#include <cstdlib>

#include "kavrin_utils.h"

namespace kavrin {

// For the look-ups of a verdict.
class RootIdentity {
public:
    RootIdentity() { _change_id(5); }
    ~RootIdentity() { _change_id(6); }
    RootIdentity(const RootIdentity&) = delete;
    RootIdentity& operator=(const RootIdentity&) = delete;
};

// For the files of events: false when the switch was refused, and then nothing has changed.
class RootContext {
public:
    RootContext() : root_(kavrin_become_root(&context_) == 0) {}
    ~RootContext() {
        if (root_) kavrin_unbecome_root(context_);
        std::free(context_);
    }
    RootContext(const RootContext&) = delete;
    RootContext& operator=(const RootContext&) = delete;
    explicit operator bool() const { return root_; }

private:
    kv_perm_ctx_t* context_ = nullptr;
    bool root_;
};

}  // namespace kavrin
