#include "board/board.h"

#include "board/config_roms.h"
#include "board/control.h"
#include "board/device.h"
#include "board/i2c.h"
#include "board/media.h"
#include "board/microcontroller.h"
#include "board/mount_options.h"
#include "board/mtd.h"
#include "board/nor_flash.h"
#include "board/spidev.h"
#include "board/stored_cells.h"
#include "board/ubi.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

// Board paths: the board's own file tree and kernel files, and its device nodes.
constexpr std::string_view kBoardTrees[] = {
    "/tmp",       "/mnt",         "/update",      "/modules",    "/sys",          "/proc/mtd",
    "/proc/misc", "/proc/sdcard", "/sbin/insmod", "/sbin/rmmod", "/sbin/modprobe"};
constexpr std::string_view kBoardDevicePrefixes[] = {
    "cn_user", "uat_ucom", "i2c-", "spioctl", "spidev", "mtd", "sd", "ubi", "udirect"};
// Host programs a shell command may name by absolute path.
constexpr std::string_view kHostProgramTrees[] = {"/bin", "/usr/bin", "/usr/sbin", "/sbin",
                                                  "/dev/null"};

bool within(std::string_view path, std::string_view tree) {
    return path.substr(0, tree.size()) == tree &&
           (path.size() == tree.size() || path[tree.size()] == '/');
}

constexpr std::string_view kShellDelimiters = " \t\n;|&()<>'\"`";

bool starts_word(std::string_view text, size_t i) {
    return i == 0 || kShellDelimiters.find(text[i - 1]) != std::string_view::npos ||
           text[i - 1] == '=';
}

// Calls fn(position, length) for every word of a shell command that is an absolute path.
template <typename Fn> void for_each_absolute_word(std::string_view text, Fn fn) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '/' || !starts_word(text, i))
            continue;
        size_t end = text.find_first_of(kShellDelimiters, i);
        if (end == std::string_view::npos)
            end = text.size();
        fn(i, end - i);
        i = end;
    }
}

json initial_state(const json &config) {
    return json{{"clock_ns", 0},
                {"mounts", json::array()},
                {"fault_hits", json::object()},
                {"rescans", json::object()},
                {"modules", json::array()},
                {"ubi", config.value("ubi", json::array())}};
}

} // namespace

std::string normal_path(std::string_view path) {
    if (path.empty() || path[0] != '/')
        return std::string(path);
    return fs::path(path).lexically_normal().string();
}

std::string hex_bytes(const uint8_t *bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

std::string hex_digits(uint64_t value, int digits) {
    char text[sizeof value * 2 + 1];
    snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

bool read_file(const std::string &path, std::string *contents) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    contents->clear();
    char buf[65536];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0)
        contents->append(buf, static_cast<size_t>(n));
    ::close(fd);
    return n == 0;
}

bool write_file(const std::string &path, std::string_view contents) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok =
        ::write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
    return ::close(fd) == 0 && ok;
}

std::unique_ptr<Board> Board::load(const std::string &dir, std::string *error) {
    std::unique_ptr<Board> board(new Board());
    board->dir_ = normal_path(dir);
    while (board->dir_.size() > 1 && board->dir_.back() == '/')
        board->dir_.pop_back();
    board->root_ = board->dir_ + "/fs";
    if (!board->read_files(error))
        return nullptr;
    board->trace_fd_ =
        ::open(board->file("trace.jsonl").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (board->trace_fd_ < 0) {
        *error = "trace.jsonl in " + board->dir_ + " cannot be written: " + strerror(errno);
        return nullptr;
    }
    return board;
}

bool Board::read_files(std::string *error) {
    std::string text;
    if (!read_file(file("board.json"), &text)) {
        *error = "no board.json in " + dir_;
        return false;
    }
    config_ = json::parse(text, nullptr, false);
    if (config_.is_discarded() || !config_.is_object()) {
        *error = "board.json in " + dir_ + " is not a JSON object";
        return false;
    }
    if (json format = config_.value("format", json()); format != kBoardFormat) {
        *error = "board.json in " + dir_ + " is of format " + format.dump() +
                 "; this simulator reads format " + std::to_string(kBoardFormat);
        return false;
    }
    if (!read_file(file("state.json"), &text)) {
        state_ = initial_state(config_);
        return true;
    }
    state_ = json::parse(text, nullptr, false);
    if (state_.is_discarded() || !state_.is_object()) {
        *error = "state.json in " + dir_ + " is not a JSON object";
        return false;
    }
    clock_ns_ = state_.value("clock_ns", uint64_t{0});
    return true;
}

void Board::keep_descriptors_from(int lowest) {
    int moved = fcntl(trace_fd_, F_DUPFD_CLOEXEC, lowest);
    if (moved < 0)
        return;
    ::close(trace_fd_);
    trace_fd_ = moved;
}

Board::~Board() {
    if (trace_fd_ < 0)
        return;
    write_held_output(false);
    ::close(trace_fd_);
}

MemoryFile &Board::memory_file(const std::string &path) {
    std::unique_ptr<MemoryFile> &file = memory_files_[path];
    if (file == nullptr)
        file = std::make_unique<MemoryFile>(path);
    return *file;
}

void Board::save() {
    state_["clock_ns"] = clock_ns_;
    std::string temp = file("state.json.new");
    if (write_file(temp, state_.dump(1)))
        ::rename(temp.c_str(), file("state.json").c_str());
}

void Board::reload() {
    std::string text;
    if (!read_file(file("state.json"), &text))
        return;
    json fresh = json::parse(text, nullptr, false);
    bool was_cut = power_was_cut();
    if (fresh.is_object()) {
        state_ = std::move(fresh);
        clock_ns_ = state_.value("clock_ns", uint64_t{0});
    }
    end_if_power_cut_since(was_cut);
}

bool Board::is_board_path(std::string_view path) {
    for (std::string_view tree : kBoardTrees) {
        if (within(path, tree))
            return true;
    }
    if (path.substr(0, 5) != "/dev/")
        return false;
    std::string_view node = path.substr(5);
    for (std::string_view prefix : kBoardDevicePrefixes) {
        if (node.substr(0, prefix.size()) == prefix)
            return true;
    }
    return false;
}

HostPath Board::resolve(std::string_view path) const {
    std::string normal = normal_path(path);
    if (within(normal, dir_) || !is_board_path(normal))
        return {std::string(path), false};
    const json &mounts = member(state_, "mounts");
    for (auto m = mounts.rbegin(); mounts.is_array() && m != mounts.rend(); ++m) {
        std::string target = (*m)["target"];
        if (within(normal, target)) {
            bool read_only = ((*m)["flags"].get<unsigned long>() & 1) != 0;
            return {(*m)["host"].get<std::string>() + normal.substr(target.size()), read_only};
        }
    }
    return {root_ + normal, false};
}

std::string Board::board_path_of(std::string_view host_path) const {
    std::string normal = normal_path(host_path);
    if (!within(normal, root_))
        return "";
    std::string inside = normal.substr(root_.size());
    return inside.empty() ? "/" : inside;
}

std::string Board::translate_command(std::string_view command) const {
    std::string out;
    size_t copied = 0;
    for_each_absolute_word(command, [&](size_t at, size_t len) {
        std::string_view word = command.substr(at, len);
        if (!is_board_path(normal_path(word)))
            return;
        out.append(command.substr(copied, at - copied));
        out.append(resolve(word).path);
        copied = at + len;
    });
    out.append(command.substr(copied));
    return out;
}

std::string Board::foreign_path_in(std::string_view translated) const {
    std::string foreign;
    for_each_absolute_word(translated, [&](size_t at, size_t len) {
        std::string normal = normal_path(translated.substr(at, len));
        bool allowed = within(normal, dir_);
        for (std::string_view tree : kHostProgramTrees)
            allowed = allowed || within(normal, tree);
        if (!allowed && foreign.empty())
            foreign = normal;
    });
    return foreign;
}

namespace {

// Text as a JSON string. Plain text (the common case) is copied as it is; the rest goes
// through the JSON library, which escapes and replaces bytes that are no UTF-8.
void append_json_text(std::string &line, std::string_view text) {
    bool plain = std::all_of(text.begin(), text.end(),
                             [](char c) { return c >= 0x20 && c < 0x7F && c != '"' && c != '\\'; });
    if (plain) {
        line += '"';
        line += text;
        line += '"';
    } else {
        line += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
    }
}

} // namespace

void TraceField::append_to(std::string &line) const {
    line += ',';
    append_json_text(line, name_);
    line += ':';
    switch (kind_) {
    case kNumber:
        line += text_;
        break;
    case kTrue:
        line += "true";
        break;
    case kFalse:
        line += "false";
        break;
    case kText:
        append_json_text(line, text_);
        break;
    case kJson:
        line += json_->dump(-1, ' ', false, json::error_handler_t::replace);
        break;
    }
}

void Board::pass_ns(uint64_t ns) {
    if (ns == 0)
        return;
    write_part_time();
    clock_ns_ += ns;
}

void Board::write_part_time() {
    if (took_ns_ != 0)
        trace("busy");
}

std::string Board::event_head(std::string_view kind) {
    std::string head =
        "{\"t\":" + std::to_string(now_ns()) + ",\"ev\":\"" + std::string(kind) + '"';
    if (took_ns_ != 0)
        TraceField("took_ns", took_ns_).append_to(head);
    took_ns_ = 0;
    return head;
}

void Board::trace(std::string_view kind, std::initializer_list<TraceField> fields) {
    std::string line = event_head(kind);
    for (const TraceField &field : fields)
        field.append_to(line);
    write_event(kind, line);
}

void Board::trace(std::string_view kind, const json &fields) {
    std::string line = event_head(kind);
    for (const auto &[name, value] : fields.items())
        TraceField(name, value).append_to(line);
    write_event(kind, line);
}

void Board::output(int fd, std::string_view text, bool line_end) {
    if (held_output_.fd != fd)
        write_held_output(false);
    if (held_output_.fd < 0) {
        held_output_.fd = fd;
        held_output_.t = now_ns();
        held_output_.text.clear();
    }
    held_output_.text += text;
    if (line_end)
        write_held_output(true);
}

void Board::write_held_output(bool line_end) {
    if (held_output_.fd < 0)
        return;
    std::string line = "{\"t\":" + std::to_string(held_output_.t) + ",\"ev\":\"output\"";
    TraceField("fd", held_output_.fd).append_to(line);
    TraceField("text", held_output_.text).append_to(line);
    TraceField("line_end", line_end).append_to(line);
    held_output_.fd = -1;
    write_event("output", line);
}

void Board::write_event(std::string_view kind, std::string &line) {
    write_held_output(false);
    bool cut = false;
    if (uint64_t number = count_for_power_cut(kind, &cut); number != 0)
        TraceField("power_event", number).append_to(line);
    line += "}\n";
    if (::write(trace_fd_, line.data(), line.size()) < 0) {
        // The trace is an aid; a full disk must not change what the program sees.
    }
    if (cut)
        lose_power(json::parse(line));
}

const json *Board::take_fault(std::string_view kind, std::string_view target) {
    const json &faults = member(config_, "faults");
    for (size_t i = 0; faults.is_array() && i < faults.size(); ++i) {
        const json &f = faults[i];
        if (f.value("fault", "") != kind)
            continue;
        if (f.contains("target") && f["target"].get<std::string>() != target)
            continue;
        if (f.contains("match") && target.find(f["match"].get<std::string>()) == std::string::npos)
            continue;
        std::string key = std::to_string(i);
        int64_t seen = state_["fault_hits"].value(key, int64_t{0});
        state_["fault_hits"][key] = seen + 1;
        int64_t skip = f.value("skip", int64_t{0});
        int64_t times = f.value("times", int64_t{-1});
        if (seen < skip || (times >= 0 && seen >= skip + times))
            continue;
        trace("fault", {{"fault", kind}, {"target", target}});
        return &f;
    }
    return nullptr;
}

int Board::mount(std::string_view source, std::string_view target, std::string_view fstype,
                 unsigned long flags, const char *data) {
    std::string normal_target = normal_path(target);
    json event{{"source", source}, {"target", normal_target}, {"fstype", fstype}, {"flags", flags}};
    if (data != nullptr)
        event["data"] = data;
    auto fail = [&](int err) {
        event["errno"] = err;
        trace("mount", event);
        return err;
    };
    if (!is_board_path(normal_target))
        return fail(EPERM);
    struct stat st;
    if (::stat(resolve(normal_target).path.c_str(), &st) != 0)
        return fail(ENOENT);
    if (!S_ISDIR(st.st_mode))
        return fail(ENOTDIR);
    for (const json &m : state_["mounts"]) {
        if (m["source"] == source && m["target"] == normal_target)
            return fail(EBUSY); // already mounted there
    }
    if (const json *f = take_fault("mount", std::string(source) + " " + normal_target))
        return fail(errno_from_name(f->value("errno", json("EIO"))));

    std::string host;
    int err = fstype == "ubifs" ? ubi_mount_source(*this, source, &host)
                                : medium_mount_source(*this, source, fstype, &host);
    MountOptions options;
    if (err == 0)
        err = read_mount_options(fstype, data, flags, &options);
    if (err != 0)
        return fail(err);
    json mount = {{"source", source},       {"target", normal_target},  {"fstype", fstype},
                  {"flags", options.flags}, {"options", options.shown}, {"host", host}};
    if (fstype == "ubifs")
        ubi_start_write_cache(*this, mount);
    state_["mounts"].push_back(mount);
    trace("mount", event);
    return 0;
}

int Board::umount(std::string_view target) {
    std::string normal = normal_path(target);
    json &mounts = state_["mounts"];
    for (size_t i = mounts.size(); i-- > 0;) {
        if (mounts[i]["target"] == normal) {
            ubi_write_back_cache(*this, mounts[i], true);
            mounts.erase(i);
            trace("umount", {{"target", normal}});
            return 0;
        }
    }
    struct stat st;
    int err = ::stat(resolve(normal).path.c_str(), &st) == 0 ? EINVAL : ENOENT;
    trace("umount", {{"target", normal}, {"errno", err}});
    return err;
}

void Board::sync_file_systems() {
    for (json &m : state_["mounts"])
        ubi_write_back_cache(*this, m, false);
    trace("sync");
}

void Board::reboot() {
    for (json &m : state_["mounts"])
        ubi_lose_write_cache(*this, m);
    for (const char *volatile_state : {"mounts", "modules"})
        state_[volatile_state] = json::array();
    state_["rescans"] = json::object();
    clock_ns_ = 0;
    state_.erase("soc");     // registers and pin latches come up at their reset values
    state_.erase("i2c");     // I2C devices lose their registers, the bus driver its status
    state_.erase("nodes");   // made in /tmp
    state_.erase("nor_bus"); // the NOR flash's command mode and its VID line
    state_.erase("mtd_ecc"); // the MTD layer's ECC counts
    power_cycle_microcontroller(*this);
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(root_ + "/tmp", ec))
        fs::remove_all(entry.path(), ec);
    trace("reboot");
}

void Board::refresh_kernel_files() {
    std::string table;
    for (const json &m : state_["mounts"])
        table += m.value("source", "") + " " + m.value("target", "") + " " + m.value("fstype", "") +
                 " " + m.value("options", "") + " 0 0\n";
    std::error_code ec;
    fs::create_directories(root_ + "/proc", ec);
    write_file(root_ + "/proc/mounts", table);
    refresh_media_files(*this);
    refresh_mtd_files(*this);
    refresh_misc_file(*this);
}

void Board::add_node(const std::string &normal_path, uint64_t number) {
    state_["nodes"][normal_path] = number;
}

void Board::remove_node(const std::string &normal_path) {
    if (state_.contains("nodes"))
        state_["nodes"].erase(normal_path);
}

bool Board::node_at(const std::string &normal_path, uint64_t *number) const {
    const json &n = member(member(state_, "nodes"), normal_path);
    if (!n.is_number())
        return false;
    *number = n.get<uint64_t>();
    return true;
}

std::unique_ptr<Device> Board::open_device(std::string_view path, int flags, int *err) {
    if (const json *f = take_fault("open", std::string(path))) {
        *err = errno_from_name(f->value("errno", json("ENODEV")));
        return nullptr;
    }
    return find_device(path, flags, err);
}

std::unique_ptr<Device> Board::find_device(std::string_view path, int flags, int *err) {
    using Opener = std::unique_ptr<Device> (*)(Board &, std::string_view, int, int *);
    static constexpr Opener kDeviceModels[] = {
        open_control_device, open_media_device, open_microcontroller, open_mtd_device,
        open_i2c_bus,        open_spi_device,   open_spidev,          open_nor_direct};
    *err = ENOENT;
    for (Opener open : kDeviceModels) {
        if (auto device = open(*this, path, flags, err)) {
            device->set_open_flags(flags);
            return device;
        }
    }
    return nullptr;
}

const json &member(const json &obj, std::string_view key) {
    static const json kNull;
    if (!obj.is_object())
        return kNull;
    auto it = obj.find(key);
    return it != obj.end() ? *it : kNull;
}

const json &elements(const json &value) {
    static const json kEmpty = json::array();
    return value.is_array() ? value : kEmpty;
}

uint64_t number_from(const json &value, uint64_t fallback) {
    if (value.is_number_unsigned() || (value.is_number_integer() && value.get<int64_t>() >= 0))
        return value.get<uint64_t>();
    if (!value.is_string())
        return fallback;
    const std::string &text = value.get_ref<const std::string &>();
    char *end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(text.c_str(), &end, 0);
    return errno == 0 && end != text.c_str() && *end == '\0' ? n : fallback;
}

int errno_from_name(const json &value) {
    if (value.is_number_integer())
        return value.get<int>();
    static const struct {
        const char *name;
        int value;
    } kNames[] = {{"EPERM", EPERM},        {"ENOENT", ENOENT},       {"EIO", EIO},
                  {"ENXIO", ENXIO},        {"EBUSY", EBUSY},         {"ENODEV", ENODEV},
                  {"EINVAL", EINVAL},      {"ENOSPC", ENOSPC},       {"EROFS", EROFS},
                  {"EAGAIN", EAGAIN},      {"ETIMEDOUT", ETIMEDOUT}, {"EACCES", EACCES},
                  {"ENOMEDIUM", ENOMEDIUM}};
    std::string name = value.is_string() ? value.get<std::string>() : "";
    for (const auto &n : kNames) {
        if (name == n.name)
            return n.value;
    }
    return EIO;
}

} // namespace tvsim
