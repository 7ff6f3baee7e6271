#include "interpose/session.h"

#include "interpose/control.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sys/resource.h>
#include <unistd.h>

namespace tvsim::interpose {

namespace {

__thread int hook_depth = 0;

// The board's kernel gives a process 1024 descriptors (its default soft limit): a program that
// leaks descriptors runs out of them there, and so it does here.
constexpr int kMaxDeviceFd = 1024;
Device *g_devices[kMaxDeviceFd];
int g_open_devices = 0;
rlimit g_host_files{};
bool g_files_limited = false;

// Lowers the process's descriptor limit to the board's while it runs on the board. The board's
// own descriptors go above that limit first (under the hard limit), so that the program's
// descriptors are numbered as on the TV: started without standard input, its first open gets 0.
void limit_files(Board &board) {
    rlimit limit{};
    if (g_files_limited || getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    g_host_files = limit;
    g_files_limited = true;
    rlimit widest = limit;
    widest.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &widest);
    board.keep_descriptors_from(kMaxDeviceFd);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, kMaxDeviceFd); // RLIM_INFINITY is the largest
    setrlimit(RLIMIT_NOFILE, &limit);
}

void restore_files() {
    if (g_files_limited)
        setrlimit(RLIMIT_NOFILE, &g_host_files);
    g_files_limited = false;
}

// Plain pointer state: hooks may run before constructors and after destructors.
Board *g_board = nullptr;
bool g_board_loaded = false;

Board *current_board() {
    if (!g_board_loaded) {
        g_board_loaded = true;
        const char *dir = getenv("TVSIM_BOARD");
        if (dir != nullptr && dir[0] != '\0') {
            std::string error;
            try {
                g_board = Board::load(dir, &error).release();
            } catch (...) {
                error = "unreadable board description";
            }
            if (g_board == nullptr)
                fprintf(stderr, "tvsim: %s\n", error.c_str());
            else
                limit_files(*g_board);
        }
    }
    return g_board;
}

} // namespace

Hook::Hook() : saved_errno_(errno) {
    if (hook_depth++ == 0)
        board_ = current_board();
}

Hook::~Hook() {
    --hook_depth;
}

Device *device_at(int fd) {
    return fd >= 0 && fd < kMaxDeviceFd ? g_devices[fd] : nullptr;
}

bool attach_device(int fd, std::unique_ptr<Device> device) {
    if (fd < 0 || fd >= kMaxDeviceFd)
        return false;
    delete g_devices[fd];
    g_devices[fd] = device.release();
    ++g_open_devices;
    return true;
}

std::unique_ptr<Device> detach_device(int fd) {
    Device *d = device_at(fd);
    if (d == nullptr)
        return nullptr;
    g_devices[fd] = nullptr;
    --g_open_devices;
    return std::unique_ptr<Device>(d);
}

bool any_device_open() {
    return g_open_devices > 0;
}

bool no_path(const char *path) {
    return path == nullptr;
}

bool is_kernel_file(const std::string &normal) {
    return normal.rfind("/sys/", 0) == 0 || normal.rfind("/proc/", 0) == 0;
}

HostPath resolve_for_access(const Hook &hook, const char *path) {
    std::string normal = normal_path(path);
    if (Board::is_board_path(normal) && is_kernel_file(normal))
        hook.board().refresh_kernel_files();
    return hook.board().resolve(path);
}

} // namespace tvsim::interpose

using tvsim::interpose::Hook;

extern "C" {

// Control interface for test programs that call the tool's functions in-process: puts the
// process on the board in dir (loading it now), or takes it off (saving its state).
__attribute__((visibility("default"))) int tvsim_attach(const char *dir) {
    Hook hook;
    if (tvsim::interpose::g_board != nullptr)
        return -1;
    std::string error;
    tvsim::interpose::g_board_loaded = true;
    try {
        tvsim::interpose::g_board = tvsim::Board::load(dir, &error).release();
    } catch (...) {
    }
    if (tvsim::interpose::g_board == nullptr)
        return -1;
    tvsim::interpose::limit_files(*tvsim::interpose::g_board);
    return 0;
}

__attribute__((visibility("default"))) void tvsim_detach() {
    Hook hook;
    if (tvsim::interpose::g_board == nullptr)
        return;
    tvsim::interpose::g_board->save();
    delete tvsim::interpose::g_board;
    tvsim::interpose::g_board = nullptr;
    tvsim::interpose::restore_files();
}
}

namespace {

// The program's output keeps the buffering the C library gives it, as on the board.
__attribute__((constructor)) void start_on_board() {
    Hook hook;
    if (hook.active()) {
        hook.board().trace("start", {{"pid", getpid()}});
    }
}

__attribute__((destructor)) void stop_on_board() {
    Hook hook;
    if (hook.active()) {
        try {
            hook.board().trace("exit", {{"pid", getpid()}});
            hook.board().save();
        } catch (...) {
        }
    }
}

} // namespace
