// kavrinctl: see command.h.
#include "command.h"

int main(int argc, char** argv) {
    return kavrinctl::run(argc, argv);
}
