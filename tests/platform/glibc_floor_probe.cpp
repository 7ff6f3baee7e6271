// Built into each board build with the board programs' binding to their oldest C library, and
// run under qemu-arm on the C library of that build: every entry point the binding replaces must
// still do its job. Prints each failure; exits 0 when all held. Usage: glibc_floor_probe DIR
// (an empty folder, in which the probe makes its files; at exit it leaves DIR/destroyed).
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string folder;
int failures = 0;

void expect(bool held, const char *what) {
    if (!held) {
        printf("failed: %s\n", what);
        ++failures;
    }
}

// The program's own constructor and destructor, which the binding must run, once each.
struct Lifetime {
    int constructions = 0;
    Lifetime() { ++constructions; }
    ~Lifetime() {
        if (FILE *f = fopen((folder + "/destroyed").c_str(), "w"))
            fclose(f);
    }
} lifetime;

void probe_status(const std::string &path, const char *text) {
    FILE *f = fopen(path.c_str(), "w");
    expect(f != nullptr && fputs(text, f) >= 0 && fclose(f) == 0, "writing a file");
    struct stat by_name {};
    expect(stat(path.c_str(), &by_name) == 0 && S_ISREG(by_name.st_mode) &&
               by_name.st_size == static_cast<off_t>(strlen(text)),
           "stat of a file gives its type and size");
    struct stat by_descriptor {};
    int fd = open(path.c_str(), O_RDONLY);
    expect(fd >= 0 && fstat(fd, &by_descriptor) == 0 && by_descriptor.st_ino == by_name.st_ino &&
               by_descriptor.st_size == by_name.st_size,
           "fstat of its descriptor agrees");
    if (fd >= 0)
        close(fd);
}

void probe_node(const std::string &path) {
    struct stat st {};
    expect(mknod(path.c_str(), S_IFIFO | 0600, 0) == 0 && stat(path.c_str(), &st) == 0 &&
               S_ISFIFO(st.st_mode),
           "mknod makes the node it is asked for");
}

void probe_scan(const std::string &path) {
    FILE *f = fopen(path.c_str(), "r");
    int first = 0, second = 0;
    char first_name[16] = "", second_name[16] = "";
    expect(f != nullptr && fscanf(f, "%d %15s", &first, first_name) == 2 &&
               fscanf(f, "%d %15s", &second, second_name) == 2 && fscanf(f, "%d", &first) == EOF,
           "fscanf reads every pair");
    expect(strcmp(first_name, "psaux") == 0 && second == 61 && strcmp(second_name, "spioctl") == 0,
           "fscanf converts the pairs");
    if (f != nullptr)
        fclose(f);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: glibc_floor_probe DIR\n");
        return 2;
    }
    folder = argv[1];
    expect(lifetime.constructions == 1, "the program's constructors ran once before main");
    probe_status(folder + "/list", "  1 psaux\n 61 spioctl\n");
    probe_node(folder + "/fifo");
    probe_scan(folder + "/list");
    return failures == 0 ? 0 : 1;
}
