#include "service/service.h"

int main(int argc, char **argv) {
    return service_main(argc, argv);
}
