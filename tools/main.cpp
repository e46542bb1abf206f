// kavrinctl: see command.h.
#include "command.h"

int main(int argc, char** argv) {
    return kvadmin::run(argc, argv);
}
