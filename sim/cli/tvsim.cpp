// tvsim: runs programs on a simulated TV board.
//
//   tvsim new DIR [--usb MEDIUM_DIR | --sd MEDIUM_DIR] [--seed N]   (N: the device times' draw)
//   tvsim --board DIR [--preload LIB] -- PROGRAM ARGS...
//   tvsim --board DIR reboot                    (power cycle: mounts, /tmp and modules go)
//   tvsim --board DIR standin TOOL ARGS...      (the board's volume and module tools)
//   tvsim --board DIR report [--trace-json FILE] [--svg FILE]
//                                               (board time of the last run, per component)
#include "board/board.h"
#include "board/create.h"
#include "board/modules.h"
#include "board/power_cut.h"
#include "board/ubi.h"
#include "report.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace fs = std::filesystem;

namespace {

constexpr const char *kQemu = "qemu-arm";

int usage() {
    fprintf(stderr, "usage: tvsim new DIR [--usb MEDIUM_DIR | --sd MEDIUM_DIR] [--seed N]\n"
                    "       tvsim --board DIR [--preload LIB] -- PROGRAM ARGS...\n"
                    "       tvsim --board DIR reboot\n"
                    "       tvsim --board DIR report [--trace-json FILE] [--svg FILE]\n");
    return 2;
}

std::string self_path() {
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? "tvsim" : exe.string();
}

std::string absolute(const std::string &path) {
    std::error_code ec;
    fs::path p = fs::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

// A program named without a slash is looked up on PATH, as a shell would.
std::string find_program(const std::string &name) {
    if (name.find('/') != std::string::npos)
        return absolute(name);
    const char *path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return name;
}

// For a 32-bit ARM ELF executable, which runs under qemu-arm, the C library it runs with: Debian's
// cross C library of its float ABI. "" for any other program.
std::string arm_sysroot(const std::string &path) {
    unsigned char header[40] = {};
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    ssize_t n = read(fd, header, sizeof header);
    close(fd);
    constexpr unsigned kMachineArm = 40;
    constexpr uint32_t kHardFloat = 0x400; // EF_ARM_ABI_FLOAT_HARD in e_flags
    if (n != static_cast<ssize_t>(sizeof header) || memcmp(header, "\177ELF", 4) != 0 ||
        header[4] != 1 || (header[18] | header[19] << 8) != kMachineArm)
        return "";
    uint32_t flags = header[36] | header[37] << 8 | header[38] << 16 | uint32_t{header[39]} << 24;
    return (flags & kHardFloat) != 0 ? "/usr/arm-linux-gnueabihf" : "/usr/arm-linux-gnueabi";
}

bool write_proc_file(const char *path, const std::string &text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && ok;
}

// A second wall of safety: in a user namespace of its own, a call that escaped the simulator
// fails with a permission error instead of mounting or setting the clock on the host.
bool enter_user_namespace() {
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER) != 0)
        return false;
    return write_proc_file("/proc/self/setgroups", "deny") &&
           write_proc_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
           write_proc_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

int run_program(const std::string &board_dir, std::string preload, char **program_argv) {
    std::string error;
    std::unique_ptr<tvsim::Board> board = tvsim::Board::load(board_dir, &error);
    if (!board) {
        fprintf(stderr, "tvsim: %s\n", error.c_str());
        return 2;
    }
    if (preload.empty()) {
        const char *from_env = getenv("TVSIM_PRELOAD");
        preload = from_env != nullptr && from_env[0] != '\0'
                      ? from_env
                      : (fs::path(self_path()).parent_path() / "libtvsim.so").string();
    }
    preload = absolute(preload);
    std::string program = find_program(program_argv[0]);

    std::vector<std::string> env;
    const char *asan = getenv("ASAN_OPTIONS");
    for (char **e = environ; *e != nullptr; ++e) {
        std::string_view variable = *e;
        if (!variable.starts_with("LD_PRELOAD=") && !variable.starts_with("TVSIM_BOARD=") &&
            !variable.starts_with("TVSIM_EXE=") && !variable.starts_with("ASAN_OPTIONS="))
            env.emplace_back(*e);
    }
    env.push_back("TVSIM_BOARD=" + board->dir());
    env.push_back("TVSIM_EXE=" + self_path());
    // The simulator is preloaded ahead of a sanitized program's runtime.
    env.push_back(std::string("ASAN_OPTIONS=") + (asan ? asan : "") + (asan ? ":" : "") +
                  "verify_asan_link_order=0");

    std::vector<std::string> args;
    if (std::string sysroot = arm_sysroot(program); !sysroot.empty()) {
        args = {kQemu, "-L", sysroot, "-E", "LD_PRELOAD=" + preload, program};
    } else {
        args = {program};
        env.push_back("LD_PRELOAD=" + preload);
    }
    for (char **a = program_argv + 1; *a != nullptr; ++a)
        args.emplace_back(*a);

    if (!enter_user_namespace())
        fprintf(stderr, "tvsim: warning: no user namespace (%s); running without it\n",
                strerror(errno));
    if (chdir(board->file("fs").c_str()) != 0) {
        fprintf(stderr, "tvsim: cannot enter the board's root: %s\n", strerror(errno));
        return 2;
    }
    std::vector<char *> argv, envp;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    for (std::string &e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    board.reset();
    std::string exe = argv[0] == std::string(kQemu) ? find_program(kQemu) : program;
    execve(exe.c_str(), argv.data(), envp.data());
    fprintf(stderr, "tvsim: cannot run %s: %s\n", exe.c_str(), strerror(errno));
    return 127;
}

int run_stand_in(const std::string &board_dir, const std::string &tool,
                 const std::vector<std::string> &args) {
    tvsim::power_cut_ends_caller();
    std::string error;
    std::unique_ptr<tvsim::Board> board = tvsim::Board::load(board_dir, &error);
    if (!board) {
        fprintf(stderr, "%s: %s\n", tool.c_str(), error.c_str());
        return 1;
    }
    using Tool = int (*)(tvsim::Board &, const std::vector<std::string> &);
    static const struct {
        const char *name;
        Tool run;
    } kTools[] = {{"ubimkvol", tvsim::ubi_make_volume},
                  {"ubirmvol", tvsim::ubi_remove_volume},
                  {"insmod", tvsim::module_insmod},
                  {"rmmod", tvsim::module_rmmod},
                  {"modprobe", tvsim::module_modprobe}};
    for (const auto &t : kTools) {
        if (tool == t.name) {
            int status = t.run(*board, args);
            board->save();
            return status;
        }
    }
    fprintf(stderr, "tvsim: no stand-in for %s\n", tool.c_str());
    return 127;
}

int reboot_board(const std::string &board_dir) {
    std::string error;
    std::unique_ptr<tvsim::Board> board = tvsim::Board::load(board_dir, &error);
    if (!board) {
        fprintf(stderr, "tvsim: %s\n", error.c_str());
        return 1;
    }
    board->reboot();
    board->save();
    return 0;
}

// report [--trace-json FILE] [--svg FILE]
int report(const std::string &board_dir, int argc, char **argv) {
    std::string trace_json;
    std::string svg;
    for (int i = 0; i < argc; i += 2) {
        if (i + 1 >= argc)
            return usage();
        if (strcmp(argv[i], "--trace-json") == 0)
            trace_json = argv[i + 1];
        else if (strcmp(argv[i], "--svg") == 0)
            svg = argv[i + 1];
        else
            return usage();
    }
    return board_time_report(board_dir, trace_json, svg, stdout);
}

// A seed given in decimal; false for anything else.
bool parse_seed(const char *text, std::optional<uint64_t> *seed) {
    char *end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || *text == '-')
        return false;
    *seed = value;
    return true;
}

int new_board(int argc, char **argv) {
    if (argc < 3)
        return usage();
    tvsim::NewBoardOptions options;
    for (int i = 3; i < argc; ++i) {
        std::string opt = argv[i];
        if ((opt == "--usb" || opt == "--sd") && i + 1 < argc)
            (opt == "--usb" ? options.usb_medium : options.sd_medium) = argv[++i];
        else if (opt == "--seed" && i + 1 < argc && parse_seed(argv[++i], &options.seed))
            continue;
        else
            return usage();
    }
    std::string error;
    if (!tvsim::create_board(absolute(argv[2]), options, &error)) {
        fprintf(stderr, "tvsim: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && strcmp(argv[1], "new") == 0)
        return new_board(argc, argv);
    std::string board_dir, preload;
    int i = 1;
    for (; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--board") == 0)
            board_dir = absolute(argv[i + 1]);
        else if (strcmp(argv[i], "--preload") == 0)
            preload = argv[i + 1];
        else
            break;
    }
    if (board_dir.empty() || i >= argc)
        return usage();
    if (strcmp(argv[i], "--") == 0 && i + 1 < argc)
        return run_program(board_dir, preload, argv + i + 1);
    if (strcmp(argv[i], "reboot") == 0 && i + 1 == argc)
        return reboot_board(board_dir);
    if (strcmp(argv[i], "report") == 0)
        return report(board_dir, argc - i - 1, argv + i + 1);
    if (strcmp(argv[i], "standin") == 0 && i + 1 < argc)
        return run_stand_in(board_dir, argv[i + 1],
                            std::vector<std::string>(argv + i + 2, argv + argc));
    return usage();
}
