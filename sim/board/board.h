// A simulated TV board: a directory holding board.json (what the board is), state.json (what
// has changed since it was made), trace.jsonl (one line per device-level event) and the board's
// file tree, media, flash volumes and device contents as plain files.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tvsim {

// The board's clock counts nanoseconds.
constexpr uint64_t kNsPerUs = 1000;
constexpr uint64_t kNsPerMs = 1000 * kNsPerUs;
constexpr uint64_t kNsPerSecond = 1000 * kNsPerMs;

using json = nlohmann::json;

// The layout of board.json that this simulator writes and reads.
constexpr int kBoardFormat = 1;

class Device;
class MemoryFile;

// One field of a trace event: its name and a number, a truth value, text or any JSON value.
// Events are written field by field, without building a JSON object first: an update makes
// tens of thousands of them.
class TraceField {
public:
    template <std::integral T>
    TraceField(std::string_view name, T value) : name_(name), kind_(kNumber) {
        if constexpr (std::same_as<T, bool>)
            kind_ = value ? kTrue : kFalse;
        else if constexpr (std::signed_integral<T>)
            text_ = std::to_string(static_cast<long long>(value));
        else
            text_ = std::to_string(static_cast<unsigned long long>(value));
    }
    TraceField(std::string_view name, const char *text)
        : TraceField(name, std::string_view(text)) {}
    TraceField(std::string_view name, const std::string &text)
        : TraceField(name, std::string_view(text)) {}
    TraceField(std::string_view name, std::string_view text)
        : name_(name), kind_(kText), text_(text) {}
    TraceField(std::string_view name, const json &value)
        : name_(name), kind_(kJson), json_(&value) {}

    // Appends ,"name":value to an event's line.
    void append_to(std::string &line) const;

private:
    enum Kind { kNumber, kTrue, kFalse, kText, kJson };
    std::string_view name_;
    Kind kind_;
    std::string text_;
    const json *json_ = nullptr;
};

// Where a board path lands on the host.
struct HostPath {
    std::string path;
    bool read_only = false; // inside a read-only mount
};

class Board {
public:
    // Loads the board in dir (an absolute path). Returns null, with a message in *error, when
    // the directory holds no readable board.
    static std::unique_ptr<Board> load(const std::string &dir, std::string *error);

    // Moves the descriptors the board keeps open to lowest or above, where the process's soft
    // descriptor limit allows it, out of the range that a program on the board gets.
    void keep_descriptors_from(int lowest);

    const std::string &dir() const { return dir_; }
    std::string file(std::string_view relative) const { return dir_ + "/" + std::string(relative); }
    const json &config() const { return config_; }
    // What a model reads out of board.json, made by make once for as long as the board is
    // loaded (board.json does not change meanwhile): the models need it at every event.
    template <typename T> const T &derived(T (*make)(const Board &)) {
        std::shared_ptr<void> &slot = derived_[reinterpret_cast<uintptr_t>(make)];
        if (slot == nullptr)
            slot = std::make_shared<T>(make(*this));
        return *static_cast<const T *>(slot.get());
    }
    json &state() { return state_; }

    // Writes state.json; reload() reads it again after another process (a shell command's
    // stand-in) changed it.
    void save();
    void reload();

    // --- paths --------------------------------------------------------------------------
    // True for paths that belong to the board rather than to the host.
    static bool is_board_path(std::string_view normal_path);
    // Resolves a path as the board sees it: board paths land in the board's file tree or in
    // whatever is mounted there; other paths are returned unchanged.
    HostPath resolve(std::string_view path) const;
    // The board path for a host path inside the file tree, or "" when it lies elsewhere.
    std::string board_path_of(std::string_view host_path) const;
    // Rewrites every board path in a shell command to where it lands on the host.
    std::string translate_command(std::string_view command) const;
    // The first absolute path in an already translated command that lies outside the board
    // and outside the programs a command may name, or "" when there is none.
    std::string foreign_path_in(std::string_view translated) const;

    // The mapping of a device memory file (stored_cells.h), one per path for as long as the
    // board is loaded.
    MemoryFile &memory_file(const std::string &path);

    // --- virtual clock --------------------------------------------------------------------
    // Board time moves on only through these two. advance_ns is time the parts take (bytes on
    // a bus, an erase or write, a reply being made) or a defined wait (a sleep): the next
    // event carries it as "took_ns", ending at its "t". pass_ns is time nothing on the board
    // is busy (a driver's time-out running out); part time not yet carried by an event is
    // written first as a "busy" event.
    uint64_t now_ns() const { return clock_ns_; }
    void advance_ns(uint64_t ns) {
        clock_ns_ += ns;
        took_ns_ += ns;
    }
    void pass_ns(uint64_t ns);
    // Writes the part time no event carries yet as a "busy" event (before the board's state
    // is handed to another process).
    void write_part_time();

    // --- trace --------------------------------------------------------------------------
    // Appends one event ({"t": board time in ns, "ev": kind, ...fields}) to trace.jsonl with
    // one write, so that a program killed at any instant leaves whole lines.
    void trace(std::string_view kind, std::initializer_list<TraceField> fields = {});
    void trace(std::string_view kind, const json &fields);
    // What a program prints on fd, at the board time it prints it: one "output" event per
    // line. A piece without its line end waits for the rest of its line until another event is
    // written, so that a line printed in parts at one instant (puts writes its line feed on its
    // own) stays one event.
    void output(int fd, std::string_view text, bool line_end);

    // --- faults -------------------------------------------------------------------------
    // Returns the first fault of this kind that applies to target (its "target" equals it, or
    // its "match" is part of it, or it names neither) and is due by its "skip" and "times"
    // counts, counting the hit; null when none is due.
    const json *take_fault(std::string_view kind, std::string_view target);

    // --- mounts -------------------------------------------------------------------------
    // Returns 0, or an errno value as the kernel would give it. data holds the file system's
    // options (mount_options.h), or is null.
    int mount(std::string_view source, std::string_view target, std::string_view fstype,
              unsigned long flags, const char *data = nullptr);
    int umount(std::string_view target);
    // sync(): what the file systems hold in their caches goes to the flash.
    void sync_file_systems();

    // Power cycle: what lives in RAM is lost (mounts and the writes their caches hold, /tmp,
    // loaded modules, the SCSI layer's rescans, the board clock since power-on); flash, EEPROMs
    // and media keep their contents.
    void reboot();

    // Brings /sys and /proc files in the file tree up to date with the board's state.
    void refresh_kernel_files();

    // Device nodes made with mknod in the board's file tree (state.json "nodes").
    void add_node(const std::string &normal_path, uint64_t number);
    void remove_node(const std::string &normal_path);
    bool node_at(const std::string &normal_path, uint64_t *number) const;

    // Opens a board device node; null with *err set (ENOENT when the path is no device).
    std::unique_ptr<Device> open_device(std::string_view normal_path, int flags, int *err);
    // The same without the faults injected into opens: which device a node names, for stat.
    std::unique_ptr<Device> find_device(std::string_view normal_path, int flags, int *err);

    // --- power cut (board.json "power_cut", power_cut.cpp) -------------------------------
    // Of count units (bytes, erase blocks) of a write or erase that the next event records,
    // how many are done before the power goes: count, unless a cut strikes in its middle.
    size_t done_before_power_cut(size_t count);
    bool power_was_cut() const;

private:
    uint64_t power_cut_after() const;
    bool power_cut_is_next() const;
    // The number of a counted event while a cut is pending (0 for others); *cut_now when the
    // power goes right after it.
    uint64_t count_for_power_cut(std::string_view kind, bool *cut_now);
    [[noreturn]] void lose_power(const json &event);
    // An event's line up to its fields; write_event ends and writes it.
    std::string event_head(std::string_view kind);
    void write_event(std::string_view kind, std::string &line);
    void write_held_output(bool line_end);
    void end_if_power_cut_since(bool was_cut);
    Board() = default;
    bool read_files(std::string *error);

    std::string dir_;
    std::string root_; // dir_ + "/fs"
    json config_;
    json state_;
    int trace_fd_ = -1;
    uint64_t clock_ns_ = 0; // state.json "clock_ns", kept here between saves: every event reads it
    uint64_t took_ns_ = 0;  // part time since the last event
    struct HeldOutput {
        int fd = -1; // none held
        uint64_t t = 0;
        std::string text;
    } held_output_;
    std::unordered_map<std::string, std::unique_ptr<MemoryFile>> memory_files_;
    std::unordered_map<uintptr_t, std::shared_ptr<void>> derived_;

public:
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;
};

// Lexically normal absolute form of a path ("/a/./b/../c" -> "/a/c"); relative paths are
// returned unchanged.
std::string normal_path(std::string_view path);

// obj[key], or a null value when obj is no object or has no such member.
const json &member(const json &obj, std::string_view key);

// value itself when it is an array, else an empty array: what a loop over a list that may be
// absent walks.
const json &elements(const json &value);

// errno value for a name such as "EIO" (or a number in text); EIO when unknown.
int errno_from_name(const json &value);

// An unsigned number given as a JSON number or as text ("0x07120010", "1048576"); fallback
// when the value is absent or neither.
uint64_t number_from(const json &value, uint64_t fallback);

// Bytes as lower-case hexadecimal digits, two per byte ("3a02215d").
std::string hex_bytes(const uint8_t *bytes, size_t count);

// A number as lower-case hexadecimal digits, at least `digits` of them: hex_digits(0x1a, 4)
// is "001a".
std::string hex_digits(uint64_t value, int digits = 1);

// The same after "0x", as board.json and the record write numbers: hex_text(0x1a, 4) is
// "0x001a".
inline std::string hex_text(uint64_t value, int digits = 1) {
    return "0x" + hex_digits(value, digits);
}

// Reads a whole file; false when it cannot be read.
bool read_file(const std::string &path, std::string *contents);
// Replaces a file's contents; false on failure.
bool write_file(const std::string &path, std::string_view contents);

} // namespace tvsim
