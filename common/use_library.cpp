// See use_library.h.
#include "use_library.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdlib>

#include "eventstore.h"
#include "failure.h"

namespace kvadmin {

void use_library(int debug_level) {
    const key_t key = ftok("/dev/null", 3456);
    const bool shared = shmget(key, PARAM_MAX_INDEX * sizeof(global_param_t), 0) >= 0;
    if (!shared || read_kavrin_config() != 0) {
        std::free(global_params);
        global_params =
            static_cast<global_param_t*>(std::calloc(PARAM_MAX_INDEX, sizeof(global_param_t)));
        if (global_params == nullptr) fail(Exit::kFailure, "out of memory");
    }
    global_params[PARAM_DEBUG_LEVEL].value.intval = debug_level;
}

}  // namespace kvadmin
