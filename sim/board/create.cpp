#include "board/create.h"

#include "board/board.h"
#include "board/config_roms.h"
#include "board/i2c.h"
#include "board/media.h"
#include "board/microcontroller.h"
#include "board/mtd.h"
#include "board/registers.h"

#include <filesystem>
#include <random>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

// The board's volume tools and module tools hand over to the simulator.
std::string stand_in(const char *tool) {
    return std::string("#!/bin/sh\nexec \"$TVSIM_EXE\" --board \"$TVSIM_BOARD\" standin ") + tool +
           " \"$@\"\n";
}

// The board's application installer: records the mode file it was run with.
constexpr const char *kApplicationScript = R"(#!/bin/sh
# Application installer of the simulated board: installs the application named by the mode
# file; here it keeps a copy of that file beside itself.
here=$(dirname "$0")
if [ ! -r "$1" ]; then
    echo "update_tool: cannot read $1"
    exit 1
fi
cp "$1" "$here/last_update_mode.conf" && echo "update_tool: application installed"
)";

json default_ubi() {
    return json::array({{{"number", 4},
                         {"node", "/dev/ubi1"},
                         {"volumes",
                          {{{"id", 0}, {"name", "app_data"}, {"size", "24MiB"}},
                           {{"id", 1}, {"name", "model_data"}, {"size", "12MiB"}},
                           {{"id", 2}, {"name", "jpeg_user"}, {"size", "20MiB"}},
                           {{"id", 3}, {"name", "jpeg_factory"}, {"size", "2MiB"}},
                           {{"id", 4}, {"name", "bitmap"}, {"size", "14MiB"}}}}},
                        {{"number", 5},
                         {"node", "/dev/ubi2"},
                         {"volumes", {{{"id", 0}, {"name", "other"}, {"size", "8MiB"}}}}}});
}

json default_config(const NewBoardOptions &options) {
    json usb = json::array();
    if (!options.usb_medium.empty())
        usb.push_back({{"disk", "b"},
                       {"medium", "media/usb"},
                       {"filesystem", "vfat"},
                       {"sectors", kDefaultStickSectors}});
    json sd = {{"slot", options.sd_medium.empty() ? "remove" : "insert"},
               {"medium", "media/sd"},
               {"filesystem", "vfat"},
               {"block_device_after_seconds", 0}};
    return json{{"format", kBoardFormat},
                {"media", {{"usb", usb}, {"sd", sd}}},
                {"ubi", default_ubi()},
                {"soc", default_soc_config()},
                {"mtd", default_mtd_config()},
                {"microcontroller", default_microcontroller_config()},
                {"i2c", default_i2c_config()},
                {"spi", default_spi_config(options.seed ? *options.seed : std::random_device()())},
                {"faults", json::array()}};
}

bool write_executable(const fs::path &path, const std::string &text) {
    return write_file(path.string(), text) && chmod(path.c_str(), 0755) == 0;
}

} // namespace

bool create_board(const std::string &dir, const NewBoardOptions &options, std::string *error) {
    std::error_code ec;
    fs::path board(dir);
    if (fs::exists(board / "board.json", ec)) {
        *error = dir + " already holds a board";
        return false;
    }
    bool ok = true; // every folder and file made so far
    auto make_folder = [&ok](const fs::path &path) {
        std::error_code failed;
        fs::create_directories(path, failed);
        ok = ok && !failed;
    };
    fs::path root = board / "fs";
    for (const char *d :
         {"tmp", "mnt/sdcard", "mnt/flash/app_data", "mnt/flash/model_data", "mnt/flash/jpeg_user",
          "mnt/flash/jpeg_factory", "mnt/flash/bitmap", "mnt/flash/other", "update", "sbin",
          "modules", "sys/class/scsi_device", "sys/block", "proc", "dev"})
        make_folder(root / d);
    json config = default_config(options);
    for (const json &dev : config["ubi"]) {
        for (const json &vol : dev["volumes"]) {
            make_folder(board / "flash" /
                        ("ubi" + std::to_string(dev["number"].get<int>()) + "_" +
                         std::to_string(vol["id"].get<int>())));
        }
    }
    make_folder(board / "flash/ubi4_0/dpdc");
    make_folder(board / "flash/ubi4_0/factory");
    make_folder(board / "media/usb");
    make_folder(board / "media/sd");

    for (const char *tool : {"ubimkvol", "ubirmvol"})
        ok = ok && write_executable(root / "update" / tool, stand_in(tool));
    for (const char *tool : {"insmod", "rmmod", "modprobe"})
        ok = ok && write_executable(root / "sbin" / tool, stand_in(tool));
    ok = ok && write_executable(root / "update/update_tool.sh", kApplicationScript);
    for (const char *module : {"ubi.ko", "ubifs.ko", "zpl7ndfmc.ko"})
        ok = ok && write_file((root / "modules" / module).string(), "simulated kernel module\n");
    for (const std::string &module : mtd_driver_modules(config["mtd"]))
        ok = ok && write_file((root / "modules" / module).string(), "simulated kernel module\n");
    ok = ok && create_microcontroller_files(board.string(), config["microcontroller"]);
    ok = ok && create_i2c_files(board.string(), config["i2c"]);
    ok = ok && write_file((board / "board.json").string(), config.dump(2) + "\n");
    if (!ok) {
        *error = "cannot write the board into " + dir;
        return false;
    }
    std::error_code copy_failed;
    auto copy_medium = [&](const std::string &from, const char *to) {
        if (!from.empty() && !copy_failed) // the first failure is the one reported
            fs::copy(from, board / to, fs::copy_options::recursive, copy_failed);
    };
    copy_medium(options.usb_medium, "media/usb");
    copy_medium(options.sd_medium, "media/sd");
    if (copy_failed) {
        *error = "cannot copy the medium: " + copy_failed.message();
        return false;
    }
    return true;
}

} // namespace tvsim
