// Loading and unloading the UBI, UBIFS and NAND controller modules on an attached board.
#include "board/create.h"
#include "interpose/control.h"
#include "run/flashimg.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string loaded_modules(const fs::path &board) {
    std::ifstream in(board / "state.json");
    const nlohmann::json state = nlohmann::json::parse(in);
    std::string names;
    for (const auto &m : state["modules"])
        names += m["name"].get<std::string>() + "(" + m["params"].get<std::string>() + ") ";
    return names;
}

TEST(ModuleOperations, LoadAndUnloadInOrderWithVerdicts) {
    fs::path dir = fs::temp_directory_path() / ("tvsim-modules-test." + std::to_string(getpid()));
    fs::remove_all(dir);
    std::string error;
    ASSERT_TRUE(tvsim::create_board(dir.string(), {}, &error)) << error;
    setenv("TVSIM_EXE", TVSIM_CLI, 1);

    struct Step {
        void (*operation)();
        const char *output;
        const char *loaded_after;
    } steps[] = {
        {insmod_ubifs_drivers,
         "... /sbin/insmod /modules/ubi.ko mtd=5 : OK.\n... /sbin/insmod /modules/ubifs.ko: OK.\n",
         "ubi(mtd=5) ubifs() "},
        {insmod_ubifs_drivers,
         "... /sbin/insmod /modules/ubi.ko mtd=5 : NG.\n... /sbin/insmod /modules/ubifs.ko: NG.\n",
         "ubi(mtd=5) ubifs() "},
        {insmod_mtd_nand_driver, "... /sbin/insmod /modules/zpl7ndfmc.ko: OK.\n",
         "ubi(mtd=5) ubifs() zpl7ndfmc() "},
        {rmmod_ubifs_drivers, "... /sbin/rmmod ubifs.ko: OK.\n... /sbin/rmmod ubi.ko: OK.\n",
         "zpl7ndfmc() "},
        {rmmod_mtd_nand_driver, "... /sbin/rmmod zpl7ndfmc.ko: OK.\n", ""},
        {rmmod_mtd_nand_driver, "... /sbin/rmmod zpl7ndfmc.ko: NG.\n", ""},
    };
    for (const Step &step : steps) {
        // Captured off the board: the capture's own files are in the host's /tmp.
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr(); // the module tools' own complaints
        ASSERT_EQ(tvsim_attach(dir.c_str()), 0);
        step.operation();
        fflush(stdout);
        tvsim_detach();
        std::string said = testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(said, step.output);
        EXPECT_EQ(loaded_modules(dir), step.loaded_after) << step.output;
    }
    fs::remove_all(dir);
}

} // namespace
