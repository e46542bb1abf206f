// See asking_samba.h.
#include "asking_samba.h"

#include <cstdio>
#include <cstdlib>

namespace kvadmin {
namespace {

bool asking = false;

void explain_missing_samba() {
    if (asking)
        std::fputs(
            "kavrinctl: comparing names outside ASCII needs Samba's libraries; install the package "
            "samba-libs\n",
            stderr);
}

}  // namespace

AskingSamba::AskingSamba() {
    static const bool watched = std::atexit(explain_missing_samba) == 0;
    asking = watched;
}

AskingSamba::~AskingSamba() {
    asking = false;
}

}  // namespace kvadmin
