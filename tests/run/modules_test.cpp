// Loading and unloading the UBI, UBIFS and NAND controller modules on an attached board.
#include "run/flashimg.h"
#include "support/board_fixture.h"

#include <cstdlib>

using testsupport::json;
using testsupport::printed;

namespace {

class ModuleOperations : public testsupport::BoardFixture {
protected:
    std::string loaded_modules() const {
        const json state = read_json("state.json");
        std::string names;
        for (const json &m : state["modules"])
            names += m["name"].get<std::string>() + "(" + m["params"].get<std::string>() + ") ";
        return names;
    }
};

TEST_F(ModuleOperations, LoadAndUnloadInOrderWithVerdicts) {
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
        EXPECT_EQ(printed([&] {
                      attach();
                      step.operation();
                      detach();
                  }),
                  step.output);
        EXPECT_EQ(loaded_modules(), step.loaded_after) << step.output;
    }
}

} // namespace
