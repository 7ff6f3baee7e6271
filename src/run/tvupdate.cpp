#include "run/main.h"

int main(int argc, char **argv) {
    return run_update(argc, argv);
}
