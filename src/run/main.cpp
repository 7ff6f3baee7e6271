#include "run/main.h"

#include "bootloader/update_uboot.h"
#include "common/holders.h"
#include "common/shell.h"
#include "data/update_data.h"
#include "eeprom/eep_update.h"
#include "fpga/update_fpga.h"
#include "run/flashimg.h"
#include "tvmicro/tvm_update.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

int cn_user_fd = -1;

void show_progress(uint32_t total, uint32_t done) {
    printf(" %3d %%\b\b\b\b\b\b", static_cast<int>(done * 100 / total));
    fflush(stdout);
}

namespace {

constexpr const char *kApplicationScript = "./update/update_tool.sh /tmp/boot/update_mode.conf";

// What every updater may be handed.
struct RunContext {
    const char *write_dir;
    const char *model;
    uint32_t *flags;
};

// One component of the run, in the order of kUpdateSteps.
struct UpdateStep {
    int word;
    uint32_t mask;
    const char *start_line;
    int (*update)(const RunContext &);
    const char *failure_line;
    const char *success_line;
    // The start line stays open for the updater's own output; success first completes it.
    bool start_line_continues = false;
    const char *success_completion = nullptr;
};

// The application script succeeds only when the shell exited normally with status 0.
int run_application_script(const RunContext &) {
    int status = run_shell(kApplicationScript);
    if ((status & 0x7f) != 0 || ((status >> 8) & 0xff) != 0)
        return -1;
    return 0;
}

int update_fpga_roms(const RunContext &run) {
    return Update_FPGA(run.write_dir, run.model, run.flags);
}

// The FPGA EEPROM of type 1 (TR5) or 2 (TR6).
template <int Type> int update_fpga_eeprom(const RunContext &run) {
    return Update_FPGAEeprom(run.write_dir, run.model, run.flags, Type);
}

int update_boot_loader(const RunContext &run) {
    return Update_uboot(run.write_dir, run.model);
}

template <int (*Update)(const char *, const uint32_t *)>
int update_data_dir(const RunContext &run) {
    return Update(run.write_dir, run.flags);
}

// The microcontroller's updaters, called for its own EEPROM and with no HDMI upgrade.
template <int (*Update)(const char *, const char *, int)>
int update_microcontroller(const RunContext &run) {
    return Update(run.write_dir, run.model, 0);
}

int update_pelto_eeprom(const RunContext &run) {
    return Update_PeltoEeprom(run.model, run.write_dir);
}

// KOLMA_1, then KOLMA_2 only when the first succeeded; each device has its own lines.
int update_kolma_eeproms(const RunContext &run) {
    int index = 0;
    if (Update_KOLMAEeprom(run.write_dir, run.model, &index) != 0) {
        puts("!!! Unable to update KOLMA_1 EEPROM data. !!!");
        return -1;
    }
    puts("--- KOLMA_1 EEPROM data updating is finished.");
    index = 1;
    if (Update_KOLMAEeprom(run.write_dir, run.model, &index) != 0) {
        puts("!!! Unable to update KOLMA_2 EEPROM data. !!!");
        return -1;
    }
    puts("--- KOLMA_2 EEPROM data updating is finished.");
    puts("KOLMA all EEPROM data updating is finished.");
    return 0;
}

constexpr UpdateStep kUpdateSteps[] = {
    {0, FLAG_PELTO_EEPROM, "Start updating Pelto Eeprom...", update_pelto_eeprom,
     "!!! Unable to update Pelto Eeprom. !!!", "Pelto Eeprom updating is finished."},
    {0, FLAG_QVXBIN, "Start updating Application binary...", run_application_script,
     "!!! Unable to update Binary Image. !!!", "Binary image updating is finished."},
    {0, FLAG_APP_DATA, "Start updating App data directory...", update_data_dir<Update_APPDIR>,
     "!!! Unable to update App data. !!!", "Updating App data is finished."},
    {0, FLAG_FACTORY, "Start updating Factory data directory...",
     update_data_dir<Update_FactoryDIR>, "!!! Unable to update Factory data. !!!",
     "Updating Factory data is finished."},
    {0, FLAG_MODEL_DATA, "Start updating Model data directory...", update_data_dir<Update_ModelDIR>,
     "!!! Unable to update Model data. !!!", "Updating Model data is finished."},
    {0, FLAG_JPEG_USER, "Start updating Jpeg User directory...", update_data_dir<Update_JpgUserDIR>,
     "!!! Unable to update Jpeg User data. !!!", "Updating Jpeg User data is finished."},
    {0, FLAG_JPEG_FACTORY, "Start updating Jpeg Factory directory...",
     update_data_dir<Update_JpgFactoryDIR>, "!!! Unable to update Jpeg Factory data. !!!",
     "Updating Jpeg Factory data is finished."},
    {0, FLAG_BITMAP, "Start updating Bitmap directory...", update_data_dir<Update_BitmapDIR>,
     "!!! Unable to update Bitmap data. !!!", "Updating Bitmap data is finished."},
    {0, FLAG_OTHER, "Start updating Other directory...", update_data_dir<Update_OtherDIR>,
     "!!! Unable to update Other data. !!!", "Updating Other data is finished."},
    {0, FLAG_TVM_EEPROM, "Start updating TVM Eeprom...", update_microcontroller<Update_TVMEeprom>,
     "!!! Unable to update TVM Eeprom. !!!", "TVM Eeprom updating is finished."},
    {0, FLAG_TVM_HEX, "Start updating TVM Hex...", update_microcontroller<Update_TVMHex>,
     "!!! Unable to update TVM HEX. !!!", "TVM Hex updating is finished."},
    {0, FLAG_UBOOT, "Start updating U-boot..........", update_boot_loader,
     "!!! Unable to update uboot. !!!", "uboot updating is finished.", true, "OK     "},
    {1, FLAG1_FPGA_SAM_1 | FLAG1_FPGA_SAM_2 | FLAG1_FPGA_SAM_3,
     "Start updating FPGA config data...", update_fpga_roms,
     "!!! Unable to update FPGA config data. !!!", "FPGA config data updating is finished."},
    {1, FLAG1_FPGA_EEPROM, "Start updating FPGA EEPROM data(TR5)...", update_fpga_eeprom<1>,
     "!!! Unable to update FPGA EEPROM data(TR5). !!!", "FPGA EEPROM data updating is finished."},
    {1, FLAG1_FPGA_TR6_EEPROM, "Start updating FPGA EEPROM data(TR6)...", update_fpga_eeprom<2>,
     "!!! Unable to update FPGA EEPROM data(TR6). !!!", "FPGA EEPROM data updating is finished."},
    // The KOLMA step prints its own result lines.
    {1, FLAG1_KOLMA_EEPROM, "Start updating KOLMA EEPROM data...", update_kolma_eeproms, nullptr,
     nullptr},
};

// Runs every selected step in order; returns -1 when any of them failed.
int run_selected_steps(const RunContext &run) {
    int result = 0;
    for (const UpdateStep &step : kUpdateSteps) {
        if ((run.flags[step.word] & step.mask) == 0)
            continue;
        if (step.start_line_continues)
            fputs(step.start_line, stdout);
        else
            puts(step.start_line);
        if (step.update(run) != 0) {
            result = -1;
            if (step.failure_line != nullptr)
                puts(step.failure_line);
        } else {
            if (step.success_completion != nullptr)
                puts(step.success_completion);
            if (step.success_line != nullptr)
                puts(step.success_line);
        }
    }
    return result;
}

// Argument copies, released in reverse order at the end of the run.
struct ArgumentCopies {
    char *arg[3] = {nullptr, nullptr, nullptr};
    ArgumentCopies(int argc, char **argv) {
        for (int i = 0; i < 3 && i + 1 < argc; ++i)
            arg[i] = strdup(argv[i + 1]);
    }
    ~ArgumentCopies() {
        for (int i = 2; i >= 0; --i)
            free(arg[i]);
    }
    ArgumentCopies(const ArgumentCopies &) = delete;
    ArgumentCopies &operator=(const ArgumentCopies &) = delete;
};

} // namespace

int run_update(int argc, char **argv) {
    int result;
    {
        ArgumentCopies args(argc, argv);
        const char *model = args.arg[0];
        if (check_model_name(model) != 0)
            return -1;

        cn_user_fd = open(kControlDevice, O_RDWR);
        if (cn_user_fd < 0) {
            printf("Cannot open %s, errno=%d\n", kControlDevice, errno);
            return -1;
        }
        puts("----- searching media cards -----");
        char mount_point[kPathBufferSize];
        char write_dir[kPathBufferSize];
        uint32_t update_flags[4] = {0, 0, 0, 0};
        if (search_imglist_file(mount_point, write_dir, model, update_flags) < 0) {
            printf("Unable to find %s file on MediaCard.\n", "flashimg.lst");
            close(cn_user_fd);
            cn_user_fd = -1;
            return -1;
        }
        printf("----- Find %s file on %s. -----\n", "flashimg.lst", write_dir);
        result = run_selected_steps(RunContext{write_dir, model, update_flags});
    }
    close(cn_user_fd);
    cn_user_fd = -1;
    fflush(nullptr);
    sync();
    puts("----- Updating is finished. -----");
    puts("Remove Media Card and reboot the system.");
    return result;
}
