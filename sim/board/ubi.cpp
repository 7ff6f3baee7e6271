#include "board/ubi.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/mount.h>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

constexpr uint64_t kLebSize = 126976; // logical erase block of the board's NAND

json *device_by_number(Board &board, int number) {
    for (json &dev : board.state()["ubi"]) {
        if (dev.value("number", -1) == number)
            return &dev;
    }
    return nullptr;
}

json *device_by_node(Board &board, const std::string &node) {
    for (json &dev : board.state()["ubi"]) {
        if (dev.value("node", "") == node)
            return &dev;
    }
    return nullptr;
}

std::string volume_dir(Board &board, const json &dev, int id) {
    return board.file("flash/ubi" + std::to_string(dev.value("number", 0)) + "_" +
                      std::to_string(id));
}

// Size option text ("24MiB", "512KiB", "1000") in bytes; 0 when unreadable.
uint64_t parse_size(const std::string &text) {
    char *end = nullptr;
    uint64_t n = strtoull(text.c_str(), &end, 10);
    std::string unit = end;
    if (unit == "KiB")
        return n << 10;
    if (unit == "MiB")
        return n << 20;
    if (unit == "GiB")
        return n << 30;
    return unit.empty() ? n : 0;
}

struct VolumeToolArgs {
    std::string node;
    int id = -1;
    std::string size;
    std::string name;
};

bool parse_args(const std::vector<std::string> &args, VolumeToolArgs *out) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        bool has_value = i + 1 < args.size();
        if (a == "-n" && has_value)
            out->id = atoi(args[++i].c_str());
        else if (a == "-s" && has_value)
            out->size = args[++i];
        else if (a == "-N" && has_value)
            out->name = args[++i];
        else if (a[0] != '-' && out->node.empty())
            out->node = a;
        else
            return false;
    }
    return !out->node.empty();
}

int tool_error(const char *tool, const char *what, int err) {
    fprintf(stderr, "%s: error!: %s\n           error %d (%s)\n", tool, what, err, strerror(err));
    return 1;
}

// A byte count as the UBI tools print it: the exact count, then the largest unit it exceeds
// with one decimal, cut off rather than rounded: "25268224 bytes, 24.0 MiB", or in brackets
// "126976 bytes (124.0 KiB)".
std::string tool_bytes(uint64_t bytes, bool bracket) {
    std::string text = std::to_string(bytes) + " bytes";
    for (auto [unit, name] : {std::pair<uint64_t, const char *>{1ull << 30, "GiB"},
                              {1ull << 20, "MiB"},
                              {1ull << 10, "KiB"}}) {
        if (bytes > unit)
            return text + (bracket ? " (" : ", ") + std::to_string(bytes / unit) + "." +
                   std::to_string(bytes % unit / (unit / 10)) + " " + name + (bracket ? ")" : "");
    }
    return text;
}

bool volume_mounted(Board &board, const std::string &dir) {
    for (const json &m : board.state()["mounts"]) {
        if (m.value("host", "") == dir)
            return true;
    }
    return false;
}

// Where the flash's copy of a cached volume is kept, by the volume's folder name.
std::string flash_copy_of(Board &board, const json &mount) {
    return board.file("ubifs-cache/" + fs::path(mount.value("host", "")).filename().string());
}

void copy_volume(const std::string &from, const std::string &to) {
    std::error_code ec;
    fs::remove_all(to, ec);
    fs::create_directories(to, ec);
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
}

} // namespace

void ubi_start_write_cache(Board &board, json &mount) {
    if ((mount.value("flags", 0ul) & MS_SYNCHRONOUS) != 0)
        return; // written through at once
    mount["flash_copy"] = flash_copy_of(board, mount);
    copy_volume(mount["host"], mount["flash_copy"]);
}

void ubi_write_back_cache(Board &board, json &mount, bool unmounting) {
    if (!mount.contains("flash_copy"))
        return;
    std::error_code ec;
    if (unmounting)
        fs::remove_all(mount.value("flash_copy", ""), ec);
    else
        copy_volume(mount["host"], mount["flash_copy"]);
    board.trace("ubifs_write_back", {{"target", mount.value("target", "")}});
}

void ubi_lose_write_cache(Board &board, json &mount) {
    if (!mount.contains("flash_copy"))
        return;
    copy_volume(mount["flash_copy"], mount["host"]);
    std::error_code ec;
    fs::remove_all(mount.value("flash_copy", ""), ec);
    board.trace("ubifs_cache_lost", {{"target", mount.value("target", "")}});
}

int ubi_mount_source(Board &board, std::string_view source, std::string *host) {
    std::string text(source.substr(0, 5) == "/dev/" ? source.substr(5) : source);
    if (text.substr(0, 3) != "ubi")
        return ENODEV;
    char *end = nullptr;
    long number = strtol(text.c_str() + 3, &end, 10);
    json *dev =
        end != text.c_str() + 3 ? device_by_number(board, static_cast<int>(number)) : nullptr;
    if (dev == nullptr || (*end != '_' && *end != ':'))
        return ENODEV;
    bool by_id = *end == '_';
    std::string key = end + 1;
    for (const json &vol : (*dev)["volumes"]) {
        if (by_id ? std::to_string(vol.value("id", -1)) == key : vol.value("name", "") == key) {
            *host = volume_dir(board, *dev, vol.value("id", -1));
            return 0;
        }
    }
    return ENODEV;
}

int ubi_make_volume(Board &board, const std::vector<std::string> &args) {
    VolumeToolArgs a;
    if (!parse_args(args, &a) || a.name.empty() || a.size.empty())
        return tool_error("ubimkvol", "bad arguments", EINVAL);
    json *dev = device_by_node(board, board.board_path_of(a.node));
    if (dev == nullptr)
        return tool_error("ubimkvol", ("cannot get information about \"" + a.node + "\"").c_str(),
                          ENODEV);
    for (const json &vol : (*dev)["volumes"]) {
        if (vol.value("id", -1) == a.id || vol.value("name", "") == a.name)
            return tool_error("ubimkvol", "cannot UBI create volume", EEXIST);
    }
    uint64_t bytes = parse_size(a.size);
    if (bytes == 0)
        return tool_error("ubimkvol", "bad volume size", EINVAL);
    if (a.id < 0) { // the kernel gives the lowest number no volume of the device has
        auto taken = [&](int id) {
            return std::ranges::any_of((*dev)["volumes"],
                                       [&](const json &vol) { return vol.value("id", -1) == id; });
        };
        a.id = 0;
        while (taken(a.id))
            ++a.id;
    }
    uint64_t lebs = (bytes + kLebSize - 1) / kLebSize;
    std::error_code ec;
    fs::create_directories(volume_dir(board, *dev, a.id), ec);
    (*dev)["volumes"].push_back({{"id", a.id}, {"name", a.name}, {"size", a.size}});
    board.trace("ubimkvol",
                {{"node", board.board_path_of(a.node)}, {"id", a.id}, {"name", a.name}});
    printf("Volume ID %d, size %llu LEBs (%s), LEB size %s, dynamic, name \"%s\", alignment 1\n",
           a.id, static_cast<unsigned long long>(lebs), tool_bytes(lebs * kLebSize, false).c_str(),
           tool_bytes(kLebSize, true).c_str(), a.name.c_str());
    return 0;
}

int ubi_remove_volume(Board &board, const std::vector<std::string> &args) {
    VolumeToolArgs a;
    if (!parse_args(args, &a) || a.id < 0)
        return tool_error("ubirmvol", "bad arguments", EINVAL);
    json *dev = device_by_node(board, board.board_path_of(a.node));
    if (dev == nullptr)
        return tool_error("ubirmvol", ("cannot get information about \"" + a.node + "\"").c_str(),
                          ENODEV);
    json &volumes = (*dev)["volumes"];
    for (size_t i = 0; i < volumes.size(); ++i) {
        if (volumes[i].value("id", -1) != a.id)
            continue;
        std::string dir = volume_dir(board, *dev, a.id);
        if (volume_mounted(board, dir))
            return tool_error("ubirmvol", "cannot UBI remove volume", EBUSY);
        std::error_code ec;
        fs::remove_all(dir, ec);
        volumes.erase(i);
        board.trace("ubirmvol", {{"node", board.board_path_of(a.node)}, {"id", a.id}});
        return 0;
    }
    return tool_error("ubirmvol", "cannot UBI remove volume", EINVAL);
}

} // namespace tvsim
