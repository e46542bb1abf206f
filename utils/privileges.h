// Root's identity for a scope. See privileges.cpp for what exactly changes.
#pragma once

#include "kavrin_utils.h"

namespace kavrin {

class RootIdentity {
public:
    RootIdentity() { _change_id(5); }
    ~RootIdentity() { _change_id(6); }
    RootIdentity(const RootIdentity&) = delete;
    RootIdentity& operator=(const RootIdentity&) = delete;
};

}  // namespace kavrin
