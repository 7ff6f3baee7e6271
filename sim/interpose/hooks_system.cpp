// Kernel facilities: mounts act on the board's mount table, shell commands run on the host
// with board paths translated and the board's stand-in tools first on the path, and time is
// the board's virtual clock. With no board, mounts, clock changes and shell commands are
// refused rather than handed to the host.
#include "interpose/session.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

using tvsim::json;
using tvsim::kNsPerSecond;
using tvsim::interpose::Hook;
using tvsim::interpose::or_io_error;

namespace {

int refuse() {
    errno = EPERM;
    return -1;
}

// Runs fn on the board, or refuses when there is none; fn returns 0 or an errno value.
template <typename Fn> int on_board_only(Fn fn) {
    Hook hook;
    if (!hook.active())
        return refuse();
    return or_io_error([&] {
        int err = fn(hook.board());
        if (err == 0)
            return 0;
        errno = err;
        return -1;
    });
}

// The environment of a shell command: the host's programs, the board's stand-ins first on
// the path, the board they act on, and no preloaded simulator.
std::vector<std::string> command_environment(const tvsim::Board &board) {
    std::vector<std::string> env;
    std::string path = "PATH=" + board.file("fs/sbin");
    env.push_back("TVSIM_BOARD=" + board.dir());
    for (char **e = environ; *e != nullptr; ++e) {
        std::string_view entry = *e;
        if (entry.starts_with("LD_PRELOAD=") || entry.starts_with("TVSIM_BOARD="))
            continue;
        if (entry.starts_with("PATH="))
            path += ":" + std::string(entry.substr(5));
        else
            env.emplace_back(entry);
    }
    if (path.find(':') == std::string::npos)
        path += ":/usr/bin:/bin";
    env.push_back(path);
    return env;
}

int spawn_shell(const tvsim::Board &board, const std::string &command) {
    std::vector<std::string> env_text = command_environment(board);
    std::vector<char *> envp;
    for (std::string &e : env_text)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    char sh[] = "sh", dash_c[] = "-c";
    std::string text = command;
    char *argv[] = {sh, dash_c, text.data(), nullptr};
    pid_t pid;
    if (int err = posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, envp.data()); err != 0) {
        errno = err; // posix_spawn returns its error; system reports it in errno
        return -1;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// What the shell really runs: the command with board paths translated, or the outcome of an
// injected fault.
std::string command_to_run(tvsim::Board &board, const std::string &command) {
    if (const json *fault = board.take_fault("command", command)) {
        if (fault->contains("signal"))
            return "kill -" + fault->value("signal", std::string("KILL")) + " $$";
        return "exit " + std::to_string(fault->value("exit", 1));
    }
    return board.translate_command(command);
}

void advance_clock(uint64_t ns, const char *call) {
    Hook hook;
    if (!hook.active())
        return;
    hook.board().advance_ns(ns);
    hook.board().trace("sleep", {{"call", call}, {"ns", ns}});
}

bool on_board() {
    Hook hook;
    return hook.active();
}

// A span the kernel sleeps: no negative part, and less than a second of nanoseconds.
bool sleepable(const timespec &span) {
    return span.tv_sec >= 0 && span.tv_nsec >= 0 &&
           static_cast<uint64_t>(span.tv_nsec) < kNsPerSecond;
}

uint64_t span_ns(const timespec &span) {
    return static_cast<uint64_t>(span.tv_sec) * kNsPerSecond + static_cast<uint64_t>(span.tv_nsec);
}

int set_board_time(int64_t sec, int64_t usec) {
    return on_board_only([&](tvsim::Board &board) {
        board.state()["wall_clock"] = {
            {"set_to_s", sec}, {"set_to_us", usec}, {"at_clock_ns", board.now_ns()}};
        board.trace("settimeofday", {{"sec", sec}, {"usec", usec}});
        return 0;
    });
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int mount(const char *source, const char *target, const char *fstype, unsigned long flags,
          const void *data) {
    return on_board_only([&](tvsim::Board &board) {
        return board.mount(source ? source : "", target ? target : "", fstype ? fstype : "", flags,
                           static_cast<const char *>(data));
    });
}

int umount(const char *target) {
    return on_board_only([&](tvsim::Board &board) { return board.umount(target ? target : ""); });
}

int umount2(const char *target, int) {
    return umount(target);
}

int system(const char *command) {
    Hook hook;
    if (!hook.active())
        return refuse();
    if (command == nullptr)
        return 1; // a shell is available
    return or_io_error([&] {
        tvsim::Board &board = hook.board();
        std::string run = command_to_run(board, command);
        std::string foreign = board.foreign_path_in(run);
        if (!foreign.empty()) {
            fprintf(stderr, "tvsim: refused shell command naming %s, outside the board: %s\n",
                    foreign.c_str(), command);
            board.trace("shell", {{"command", command}, {"refused", foreign}});
            return refuse();
        }
        board.write_part_time();
        board.save();
        int status = spawn_shell(board, run);
        int spawn_error = errno;
        board.reload();
        board.trace("shell", {{"command", command}, {"run", run}, {"status", status}});
        if (status == -1)
            errno = spawn_error; // a shell that could not be started or waited for
        return status;
    });
}

unsigned int sleep(unsigned int seconds) {
    if (!on_board())
        return TVSIM_REAL(sleep)(seconds);
    advance_clock(seconds * kNsPerSecond, "sleep");
    return 0;
}

int usleep(useconds_t usec) {
    if (!on_board())
        return TVSIM_REAL(usleep)(usec);
    advance_clock(static_cast<uint64_t>(usec) * 1000, "usleep");
    return 0;
}

int nanosleep(const struct timespec *req, struct timespec *rem) {
    if (!on_board())
        return TVSIM_REAL(nanosleep)(req, rem);
    if (!sleepable(*req)) {
        errno = EINVAL;
        return -1;
    }
    advance_clock(span_ns(*req), "nanosleep");
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *req, struct timespec *rem) {
    if (!on_board() || flags != 0)
        return TVSIM_REAL(clock_nanosleep)(clock, flags, req, rem);
    if (!sleepable(*req))
        return EINVAL; // returned, not set in errno
    advance_clock(span_ns(*req), "clock_nanosleep");
    return 0;
}

int settimeofday(const struct timeval *tv, const struct timezone *) {
    if (tv == nullptr)
        return on_board_only([](tvsim::Board &) { return 0; });
    return set_board_time(tv->tv_sec, tv->tv_usec);
}

// Writes out what the board's file systems hold in their caches.
void sync() {
    Hook hook;
    if (!hook.active())
        return TVSIM_REAL(sync)();
    try {
        hook.board().sync_file_systems();
    } catch (...) {
        // sync reports nothing
    }
}

} // extern "C"
#pragma GCC visibility pop
