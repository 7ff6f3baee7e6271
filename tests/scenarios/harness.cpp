#include "scenarios/harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace fs = std::filesystem;

namespace scenario {

namespace {

// The board build under test (TVSIM_VARIANT armhf or armel), or "" for the host build.
std::string board_build_dir() {
    const char *v = getenv("TVSIM_VARIANT");
    std::string variant = v != nullptr ? v : "";
    if (variant == "armhf")
        return TVSIM_ARMHF_DIR;
    if (variant == "armel")
        return TVSIM_ARMEL_DIR;
    return "";
}

// The tool under test and the simulator library for its architecture.
std::string tool_binary() {
    std::string board = board_build_dir();
    return board.empty() ? TVSIM_HOST_TOOL : board + "/tvupdate";
}

std::string preload_library() {
    std::string board = board_build_dir();
    return board.empty() ? TVSIM_HOST_PRELOAD : board + "/libtvsim.so";
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_text(const std::string &path, const std::string &contents) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

// A pipe, or a raw pseudo-terminal: [0] is the end the output is read from.
bool open_screen(Screen screen, int fds[2]) {
    if (screen != Screen::terminal)
        return pipe(fds) == 0;
    termios raw{};
    cfmakeraw(&raw);
    return openpty(&fds[0], &fds[1], nullptr, &raw, nullptr) == 0;
}

// Runs argv with output captured; the exit status, or -1 when it did not exit.
RunResult capture(const std::vector<std::string> &args, Screen screen = Screen::pipe) {
    RunResult result;
    int pipe_fds[2];
    if (!open_screen(screen, pipe_fds))
        return result;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 2);
    posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
    if (screen == Screen::no_input)
        posix_spawn_file_actions_addclose(&actions, 0);
    else
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_fds[1]);
    char buf[4096];
    ssize_t n; // a terminal's reads end with EIO once no program has it open
    while ((n = read(pipe_fds[0], buf, sizeof buf)) > 0)
        result.output.append(buf, static_cast<size_t>(n));
    close(pipe_fds[0]);
    int status = 0;
    if (spawned == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        result.exit_status = WEXITSTATUS(status);
    return result;
}

// "Suite.Test" of the running test.
std::string test_name() {
    const testing::TestInfo *info = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name();
}

} // namespace

SimBoard::SimBoard() {
    std::string name = test_name();
    std::replace(name.begin(), name.end(), '/', '_');
    root_ = std::string(TVSIM_WORK_DIR) + "/" + name + "." + std::to_string(getpid());
    fs::remove_all(root_);
    fs::create_directories(medium());
}

SimBoard::~SimBoard() {
    // A failed test leaves its board for inspection.
    if (!testing::Test::HasFailure())
        fs::remove_all(root_);
}

void SimBoard::medium_file(const std::string &relative, const std::string &contents) const {
    write_text(medium() + "/" + relative, contents);
}

void SimBoard::medium_list(const std::string &model, const std::string &list) const {
    medium_file(model + "/flashimg.lst", list);
    medium_file(model + "/update_mode.conf", "mode=full\n");
}

void SimBoard::demo_medium(const std::string &model) const {
    fs::path script =
        fs::path(__FILE__).parent_path().parent_path().parent_path() / "tools/make-demo-medium.sh";
    ASSERT_EQ(std::system((script.string() + " " + medium() + " " + model).c_str()), 0);
}

void SimBoard::make(const std::string &slot) {
    slot_ = slot;
    // Device times drawn from the test's name: each test's board has times of its own, the
    // same on every run.
    std::vector<std::string> args = {TVSIM_CLI, "new", dir(), "--seed",
                                     std::to_string(std::hash<std::string>{}(test_name()))};
    if (!slot.empty()) {
        args.push_back(slot);
        args.push_back(medium());
    }
    RunResult made = capture(args);
    ASSERT_EQ(made.exit_status, 0) << made.output;
}

void SimBoard::remake(const json &sections) {
    fs::remove_all(dir());
    make(slot_);
    change_config([&](json &c) { c.update(sections); });
}

void SimBoard::reboot() const {
    RunResult r = capture({TVSIM_CLI, "--board", dir(), "reboot"});
    ASSERT_EQ(r.exit_status, 0) << r.output;
}

void SimBoard::change_config(const std::function<void(json &)> &change) const {
    json config = json::parse(slurp(path("board.json")));
    change(config);
    write_text(path("board.json"), config.dump(2) + "\n");
}

RunResult SimBoard::run(const std::vector<std::string> &args, Screen screen) const {
    std::vector<std::string> argv = {TVSIM_CLI,   "--board",         dir(),
                                     "--preload", preload_library(), "--"};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult result = capture(argv, screen);
    // Shell commands report host paths; the operator sees board paths.
    replace_all(result.output, dir() + "/fs/", "/");
    replace_all(result.output, dir() + "/", "<board>/");
    return result;
}

RunResult SimBoard::tool(const std::string &name, const std::vector<std::string> &args,
                         Screen screen) const {
    std::vector<std::string> argv = {fs::path(tool_binary()).replace_filename(name).string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, screen);
}

bool SimBoard::exists(const std::string &relative) const {
    std::error_code ec;
    return fs::exists(path(relative), ec);
}

void SimBoard::write(const std::string &relative, const std::string &bytes) const {
    write_text(path(relative), bytes);
}

std::string SimBoard::read(const std::string &relative) const {
    return slurp(path(relative));
}

std::string SimBoard::listing(const std::string &relative) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(path(relative), ec))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    std::string out;
    for (const std::string &n : names)
        out += (out.empty() ? "" : " ") + n;
    return out;
}

std::vector<json> SimBoard::trace(const std::string &kind) const {
    std::vector<json> events;
    std::istringstream lines(read("trace.jsonl"));
    for (std::string line; std::getline(lines, line);) {
        json e = json::parse(line);
        if (kind.empty() || e.value("ev", "") == kind)
            events.push_back(std::move(e));
    }
    return events;
}

std::map<std::string, int> SimBoard::uart_frames() const {
    std::map<std::string, int> taken;
    for (const json &e : trace("uart_frame"))
        ++taken[e.value("cmd", "")];
    return taken;
}

double SimBoard::board_seconds() const {
    return state().value("clock_ns", uint64_t{0}) / 1e9;
}

void Scenario::SetUp() {
    std::string tool = tool_binary();
    if (fs::exists(tool))
        return;
    if (getenv("TVSIM_REQUIRE_BOARD_BUILDS") != nullptr)
        FAIL() << "no tvupdate binary at " << tool;
    GTEST_SKIP() << "no board build at " << tool << " (make armhf or make armel builds it)";
}

bool on_host() {
    return board_build_dir().empty();
}

void expect_run(const RunResult &run, int exit_status, const std::string &output,
                std::source_location at) {
    testing::ScopedTrace trace(at.file_name(), static_cast<int>(at.line()), "this run");
    EXPECT_EQ(run.output, output);
    EXPECT_EQ(run.exit_status, exit_status);
}

std::string format(const char *fmt, unsigned a, unsigned b) {
    char text[128];
    snprintf(text, sizeof text, fmt, a, b);
    return text;
}

std::string repeated(const std::string &text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

std::string pattern(size_t length, unsigned seed) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        seed = seed * 1103515245u + 12345u;
        bytes[i] = static_cast<char>(seed >> 16);
    }
    return bytes;
}

std::string run_prologue(const std::string &model) {
    return "----- searching media cards -----\n"
           "ln -s /tmp/" +
           model + " /tmp/boot\n----- Find flashimg.lst file on /tmp/" + model +
           "/writedata. -----\n";
}

std::string run_epilogue() {
    return "----- Updating is finished. -----\nRemove Media Card and reboot the system.\n";
}

} // namespace scenario
