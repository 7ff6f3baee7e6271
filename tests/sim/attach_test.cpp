// A test program attached to a board runs the tool's functions on it, in-process.
#include "nor/nvlock.h"
#include "run/flashimg.h"
#include "support/board_fixture.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>

namespace {

using AttachedBoard = testsupport::BoardFixture;

// Calls that name a path, each as (result, errno). The C library reads a directory's path
// itself before the kernel sees it, so only the other calls can be made without a path.
std::pair<int, int> outcome(int result) {
    return {result, result == -1 ? errno : 0};
}
const struct {
    const char *name;
    std::function<int(const char *path)> call;
    bool kernel_checks_path = true;
} kPathCalls[] = {
    {"open",
     [](const char *p) {
         int fd = open(p, O_RDONLY);
         return fd < 0 ? fd : close(fd);
     }},
    {"creat",
     [](const char *p) {
         int fd = creat(p, 0644);
         return fd < 0 ? fd : close(fd);
     }},
    {"fopen",
     [](const char *p) {
         FILE *f = fopen(p, "r");
         return f == nullptr ? -1 : fclose(f);
     }},
    {"stat",
     [](const char *p) {
         struct stat st;
         return stat(p, &st);
     }},
    {"access", [](const char *p) { return access(p, F_OK); }},
    {"mkdir", [](const char *p) { return mkdir(p, 0755); }},
    {"unlink", [](const char *p) { return unlink(p); }},
    {"mknod", [](const char *p) { return mknod(p, S_IFCHR | 0600, makedev(90, 0)); }},
    {"symlink", [](const char *p) { return symlink("/tmp", p); }},
    {"rename", [](const char *p) { return rename("/tmp", p); }},
    {"mkfifo", [](const char *p) { return mkfifo(p, 0644); }},
    {"scandir",
     [](const char *p) {
         dirent **list = nullptr;
         int n = scandir(p, &list, nullptr, nullptr);
         for (int i = 0; i < n; ++i)
             free(list[i]);
         free(list);
         return n < 0 ? n : 0;
     },
     false},
};

TEST_F(AttachedBoard, ToolFunctionsRunOnTheBoardAndNowhereElse) {
    std::filesystem::path medium = dir_.string() + ".medium";
    std::filesystem::create_directories(medium / "M1");
    make_board({medium.string(), "", {}});

    // Off the board, the tool's mounts and shell commands are refused.
    EXPECT_EQ(do_mount_media('b', 1), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(system("true"), -1);

    EXPECT_EQ(tvsim_attach((dir_ / "no-board").c_str()), -1);
    // Started without standard input, as a service may be: the program's opens may get
    // descriptor 0.
    testsupport::StandardInputClosed without_input;
    attach();
    EXPECT_EQ(tvsim_attach(dir_.c_str()), -1); // one board at a time
    const char *mount_point = nullptr;
    EXPECT_EQ(search_usb_media(&mount_point), 0);
    EXPECT_STREQ(mount_point, "/tmp/usb");
    EXPECT_EQ(system("echo on-board > /tmp/marker"), 0);
    // Started without a PATH, a command still finds the host's programs after the board's.
    const char *path = getenv("PATH");
    const std::string host_path = path != nullptr ? path : "/usr/bin:/bin";
    unsetenv("PATH");
    const int without_path = system("cat /tmp/marker > /dev/null");
    setenv("PATH", host_path.c_str(), 1);
    ASSERT_EQ(system("echo \"$PATH\" > /tmp/path"), 0); // the board's stand-ins, then the host's
    // With SIGCHLD ignored the shell is gone before it can be waited for: the C library's system
    // fails with ECHILD.
    sighandler_t children = signal(SIGCHLD, SIG_IGN);
    const std::pair<int, int> unwaited{system("true"), errno};
    signal(SIGCHLD, children);
    // The stick is mounted read-only: writes fail, an existing name is reported first. A
    // refused call returns -1, as the kernel's calls do.
    auto error_of = [](bool failed) { return failed ? errno : 0; };
    const std::pair<int, int> writes[] = {
        {error_of(open("/tmp/usb/new.txt", O_WRONLY | O_CREAT, 0644) == -1), EROFS},
        {error_of(umount("/tmp/usb/M1") == -1), EINVAL}, // not a mount point
        {error_of(mkdir("/tmp/usb/newdir", 0755) != 0), EROFS},
        {error_of(mkdir("/tmp/usb/M1", 0755) != 0), EEXIST},
        {error_of(fopen("/tmp/usb/M1/x", "a") == nullptr), EROFS},
        {error_of(unlink("/tmp/usb/M1") != 0), EROFS}, // before the name is looked at
    };
    // An unnamed temporary file (in the board's /tmp) reads back what was written to it.
    std::string unnamed_back(3, '-');
    if (FILE *unnamed = tmpfile()) {
        fputs("abc", unnamed);
        rewind(unnamed);
        unnamed_back.resize(fread(unnamed_back.data(), 1, 3, unnamed));
        fclose(unnamed);
    }
    // Every entry point that makes a name lands on the board, and the stick refuses it: each
    // call returns 0, or -1 with EROFS.
    auto closed = [](int fd) { return fd < 0 ? fd : close(fd); };
    // A call given a descriptor of /tmp, closed after it.
    auto beside_tmp = [](const std::function<int(int tmp)> &call) {
        int tmp = open("/tmp", O_RDONLY | O_DIRECTORY);
        int result = call(tmp);
        close(tmp);
        return result;
    };
    const struct {
        const char *name;
        std::function<int(const char *path)> make;
    } makers[] = {
        {"creat", [&](const char *p) { return closed(creat(p, 0644)); }},
        {"openat",
         [&](const char *p) { return closed(openat(AT_FDCWD, p, O_CREAT | O_RDWR, 0600)); }},
        {"openat-beside", // a name of its own beside a directory's descriptor
         [&](const char *p) {
             return beside_tmp(
                 [&](int tmp) { return closed(openat(tmp, p, O_CREAT | O_RDWR, 0600)); });
         }},
        {"freopen",
         [](const char *p) {
             FILE *file = freopen(p, "w", tmpfile());
             return file == nullptr ? -1 : fclose(file);
         }},
        {"mkfifo", [](const char *p) { return mkfifo(p, 0644); }},
        {"mknod", [](const char *p) { return mknod(p, S_IFIFO | 0644, 0); }},
        {"mkdirat", [](const char *p) { return mkdirat(AT_FDCWD, p, 0755); }},
        {"symlink", [](const char *p) { return symlink("/tmp/marker", p); }},
        {"link", [](const char *p) { return link("/tmp/marker", p); }},
        {"rename", [](const char *p) { return rename("/tmp/marker.copy", p); }},
        {"renameat", // from a name under a directory's descriptor to a name of its own
         [&](const char *p) {
             return beside_tmp([&](int tmp) { return renameat(tmp, "marker.copy", AT_FDCWD, p); });
         }},
        {"mkstemp",
         [&](const char *p) {
             std::string name = std::string(p) + "XXXXXX";
             int result = closed(mkstemp(name.data()));
             return result == 0 ? rename(name.c_str(), p) : result;
         }},
        {"mkstemps", // the letters before a suffix
         [&](const char *p) {
             std::string name = std::string(p) + "XXXXXX.tmp";
             int result = closed(mkstemps(name.data(), 4));
             return result == 0 ? rename(name.c_str(), p) : result;
         }},
        {"mkdtemp",
         [](const char *p) {
             std::string name = std::string(p) + "XXXXXX";
             const char *made = mkdtemp(name.data());
             return made == name.data() ? rename(made, p) : -1;
         }},
    };
    std::vector<std::pair<std::pair<int, int>, std::pair<int, int>>> made;
    for (const auto &maker : makers) {
        ASSERT_EQ(system("cp /tmp/marker /tmp/marker.copy"), 0);
        std::string name = std::string("/tmp/made-by-") + maker.name;
        made.push_back({outcome(maker.make(name.c_str())),
                        outcome(maker.make(("/tmp/usb/M1/" + std::string(maker.name)).c_str()))});
    }
    detach();
    without_input.restore();
    EXPECT_EQ(trace("mount").size(), 1u);
    EXPECT_EQ(unwaited, std::pair(-1, ECHILD));
    EXPECT_EQ(without_path, 0);
    EXPECT_EQ(read_file("fs/tmp/path"), (dir_ / "fs/sbin").string() + ":" + host_path + "\n");
    EXPECT_EQ(unnamed_back, "abc");
    for (const auto &write : writes)
        EXPECT_EQ(write.first, write.second) << "write " << &write - writes;
    for (size_t i = 0; i < made.size(); ++i) {
        std::string name = std::string("made-by-") + makers[i].name;
        EXPECT_EQ(made[i].first, std::pair(0, 0)) << name;
        EXPECT_EQ(made[i].second, std::pair(-1, EROFS)) << name;
        EXPECT_TRUE(std::filesystem::exists(dir_ / "fs/tmp" / name) ||
                    std::filesystem::is_symlink(dir_ / "fs/tmp" / name))
            << name;
        EXPECT_FALSE(std::filesystem::exists("/tmp/" + name)) << name;
        std::filesystem::remove("/tmp/" + name); // what a call gone astray left on the host
    }
    EXPECT_EQ(read_file("fs/tmp/made-by-symlink"), "on-board\n"); // the link stays on the board
    EXPECT_TRUE(std::filesystem::is_fifo(dir_ / "fs/tmp/made-by-mknod"));
    EXPECT_EQ(std::filesystem::status(dir_ / "fs/tmp/made-by-openat").permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    nlohmann::json mounts = read_json("state.json")["mounts"];
    ASSERT_EQ(mounts.size(), 1u);
    EXPECT_EQ(mounts[0]["source"], "/dev/sdb1");
    EXPECT_EQ(read_file("fs/tmp/marker"), "on-board\n");
    std::filesystem::remove_all(medium);
}

// A call without a path fails with EFAULT on the board as off it, from the kernel.
TEST_F(AttachedBoard, ACallWithoutAPathFailsAsTheKernelFailsIt) {
    const char *volatile none = nullptr; // out of the compiler's sight
    for (bool on_board : {false, true}) {
        if (on_board)
            attach();
        for (const auto &c : kPathCalls) {
            if (!c.kernel_checks_path)
                continue;
            EXPECT_EQ(outcome(c.call(none)), std::pair(-1, EFAULT)) << c.name << on_board;
        }
    }
}

// A board record the simulator cannot read (a mount's flags as text) fails every call that
// needs it with EIO, as a failing disk would; the program goes on.
TEST_F(AttachedBoard, ADamagedBoardRecordFailsCallsWithIoError) {
    attach();
    detach();
    nlohmann::json state = read_json("state.json");
    state["mounts"] = {
        {{"source", "/dev/sda1"}, {"target", "/tmp"}, {"host", dir_ / "fs/tmp"}, {"flags", "rw"}}};
    std::ofstream(dir_ / "state.json") << state.dump();
    attach();
    for (const auto &c : kPathCalls)
        EXPECT_EQ(outcome(c.call("/tmp/damaged")), std::pair(-1, EIO)) << c.name;
    EXPECT_EQ(outcome(system("ls /tmp")), std::pair(-1, EIO));
    EXPECT_EQ(outcome(mount("/dev/sda1", "/tmp/usb", "vfat", 0, nullptr)), std::pair(-1, EIO));
}

// The kernel's files are there whenever a program looks, whatever the board's folder holds.
TEST_F(AttachedBoard, KernelFilesAreThereWheneverAProgramLooks) {
    attach();
    for (std::string_view name : {"stat", "access", "open", "fopen"}) {
        const auto &c = *std::find_if(std::begin(kPathCalls), std::end(kPathCalls),
                                      [&](const auto &call) { return call.name == name; });
        for (const char *file : {"/proc/mtd", "/proc/misc", "/proc/sdcard/ctrl"}) {
            std::filesystem::remove_all(dir_ / "fs/proc");
            EXPECT_EQ(outcome(c.call(file)), std::pair(0, 0)) << name << " " << file;
        }
    }
    // The MTD table as the kernel prints it: sizes in eight hexadecimal digits.
    std::ifstream mtd("/proc/mtd");
    std::string header, first;
    std::getline(mtd, header);
    std::getline(mtd, first);
    EXPECT_EQ(header + "\n" + first,
              "dev:    size   erasesize  name\nmtd0: 00100000 00020000 \"nand_boot\"");
}

// Once a program has mapped a register window, a fault or trap that is not a window access
// still reaches the program's own handler, or ends the program by its signal as it would off
// the simulator.
TEST_F(AttachedBoard, SignalsThatAreNotWindowAccessesReachTheProgramAsBefore) {
    attach();
    const struct {
        const char *what;
        int signal;
        bool own_handler;
    } cases[] = {
        {"a stray access, with the program's handler", SIGSEGV, true},
        {"a trap, with none", SIGTRAP, false},
    };
    for (const auto &c : cases) {
        pid_t child = fork();
        if (child == 0) {
            if (c.own_handler)
                signal(c.signal, [](int) { _exit(42); });
            if (map_regs() != 0)
                _exit(3);
            volatile uintptr_t below_every_mapping = 8;
            if (c.signal == SIGSEGV)
                *reinterpret_cast<volatile int *>(below_every_mapping) = 1;
            else
                raise(c.signal);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child) << c.what;
        if (c.own_handler)
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << c.what << " " << status;
        else
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.signal)
                << c.what << " " << status;
    }
}

// A character node made with mknod is a node of its number and opens the device of that number,
// until it is unlinked.
TEST_F(AttachedBoard, ANodeMadeWithMknodIsItsDeviceUntilUnlinked) {
    attach();
    struct stat device {};
    ASSERT_EQ(stat("/dev/spioctl", &device), 0);
    ASSERT_EQ(mknod("/tmp/spioctl", S_IFCHR | 0600, device.st_rdev), 0);
    EXPECT_EQ(outcome(mknod("/tmp/spioctl", S_IFCHR | 0600, device.st_rdev)),
              std::pair(-1, EEXIST));
    struct stat node {};
    ASSERT_EQ(stat("/tmp/spioctl", &node), 0);
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(node.st_rdev, device.st_rdev);
    int fd = open("/tmp/spioctl", O_RDWR);
    EXPECT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(unlink("/tmp/spioctl"), 0);
    EXPECT_EQ(outcome(open("/tmp/spioctl", O_RDWR)), std::pair(-1, ENOENT));
}

// Relative sleeps pass at once on the board's clock; a wait for a moment already past returns
// at once on any clock and is no board sleep.
TEST_F(AttachedBoard, SleepsAdvanceTheBoardClockAtOnce) {
    attach();
    const timespec one_and_a_half{1, 500000000}, two{2, 0}, epoch{0, 0};
    EXPECT_EQ(nanosleep(&one_and_a_half, nullptr), 0);
    EXPECT_EQ(usleep(250000), 0);
    EXPECT_EQ(sleep(1), 0u);
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &two, nullptr), 0);
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &epoch, nullptr), 0);
    // A span the kernel refuses is no sleep.
    for (const timespec &refused : {timespec{-1, 0}, timespec{0, -1}, timespec{0, 1000000000}}) {
        EXPECT_EQ(outcome(nanosleep(&refused, nullptr)), std::pair(-1, EINVAL));
        EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &refused, nullptr), EINVAL);
    }
    EXPECT_EQ(system(nullptr), 1); // a shell is there for commands
    const timeval new_year{946684800, 0};
    EXPECT_EQ(settimeofday(&new_year, nullptr), 0); // the board's clock, not the host's
    EXPECT_EQ(settimeofday(nullptr, nullptr), 0);   // sets nothing
    detach();
    EXPECT_EQ(trace("settimeofday").size(), 1u);
    std::vector<nlohmann::json> sleeps = trace("sleep");
    ASSERT_EQ(sleeps.size(), 4u);
    const std::pair<const char *, uint64_t> expected[] = {{"nanosleep", 1500000000u},
                                                          {"usleep", 250000000u},
                                                          {"sleep", 1000000000u},
                                                          {"clock_nanosleep", 2000000000u}};
    for (size_t i = 0; i < sleeps.size(); ++i) {
        EXPECT_EQ(sleeps[i]["call"], expected[i].first);
        EXPECT_EQ(sleeps[i]["ns"], expected[i].second);
    }
}

} // namespace
