// One service at a time: a record lock, which goes with the process however that ends and does not
// pass to its workers.
#pragma once

#include "descriptor.h"

namespace kvservice {

inline constexpr const char* kLockPath = "/run/kavrin/kavrind.lock";

class InstanceLock {
public:
    InstanceLock();  // fails by CommandError, naming the process that holds it

private:
    kvadmin::Descriptor file_;
};

}  // namespace kvservice
