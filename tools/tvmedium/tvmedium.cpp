// tvmedium: checks and builds update media on the PC that prepares them.
//   tvmedium check [--json] MEDIUM_DIR [MODEL]   exit 0 clean, 1 warnings, 2 errors
//   tvmedium build DESCRIPTION OUT_DIR           exit 0, or 2 when the medium was not made
#include "medium_build.h"
#include "medium_check.h"

#include <cstdio>
#include <cstring>

namespace {

int usage() {
    fputs("usage: tvmedium check [--json] MEDIUM_DIR [MODEL]\n"
          "       tvmedium build DESCRIPTION OUT_DIR\n",
          stderr);
    return 2;
}

int run_check(int argc, char **argv) {
    bool json = false;
    const char *positional[2] = {nullptr, nullptr};
    int count = 0;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0)
            json = true;
        else if (count < 2)
            positional[count++] = argv[i];
        else
            return usage();
    }
    if (count == 0)
        return usage();
    CheckReport report = check_medium(positional[0], positional[1] ? positional[1] : "");
    if (json)
        print_report_json(report, stdout);
    else
        print_report_text(report, stdout);
    return report.exit_status();
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && strcmp(argv[1], "check") == 0)
        return run_check(argc - 2, argv + 2);
    if (argc == 4 && strcmp(argv[1], "build") == 0)
        return build_medium(argv[2], argv[3]) == 0 ? 0 : 2;
    return usage();
}
