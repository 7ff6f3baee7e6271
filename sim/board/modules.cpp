#include "board/modules.h"

#include <cstdio>
#include <filesystem>

namespace fs = std::filesystem;

namespace tvsim {

namespace {

// "ubi.ko", "/modules/ubi.ko" -> "ubi"
std::string module_name(std::string_view text) {
    std::string name = fs::path(text).filename().string();
    if (name.size() > 3 && name.substr(name.size() - 3) == ".ko")
        name.resize(name.size() - 3);
    return name;
}

std::string join(const std::vector<std::string> &args, size_t from) {
    std::string out;
    for (size_t i = from; i < args.size(); ++i)
        out += (out.empty() ? "" : " ") + args[i];
    return out;
}

int load(Board &board, const std::string &board_file, const std::string &params) {
    std::string name = module_name(board_file);
    if (!fs::is_regular_file(board.resolve(board_file).path)) {
        fprintf(stderr, "insmod: can't insert '%s': No such file or directory\n",
                board_file.c_str());
        return 1;
    }
    if (module_loaded(board, name)) {
        fprintf(stderr, "insmod: can't insert '%s': File exists\n", board_file.c_str());
        return 1;
    }
    board.state()["modules"].push_back({{"name", name}, {"params", params}});
    board.trace("insmod", {{"module", name}, {"params", params}});
    return 0;
}

} // namespace

bool module_loaded(Board &board, std::string_view name) {
    for (const json &m : board.state()["modules"]) {
        if (m.value("name", "") == name)
            return true;
    }
    return false;
}

int module_insmod(Board &board, const std::vector<std::string> &args) {
    if (args.empty()) {
        fprintf(stderr, "insmod: missing module file\n");
        return 1;
    }
    std::string board_file = board.board_path_of(args[0]);
    return load(board, board_file.empty() ? args[0] : board_file, join(args, 1));
}

int module_modprobe(Board &board, const std::vector<std::string> &args) {
    if (args.empty()) {
        fprintf(stderr, "modprobe: missing module name\n");
        return 1;
    }
    if (module_loaded(board, module_name(args[0])))
        return 0; // as modprobe: a module already loaded is no error
    return load(board, "/modules/" + module_name(args[0]) + ".ko", join(args, 1));
}

int module_rmmod(Board &board, const std::vector<std::string> &args) {
    if (args.empty()) {
        fprintf(stderr, "rmmod: missing module name\n");
        return 1;
    }
    std::string name = module_name(args[0]);
    json &modules = board.state()["modules"];
    for (size_t i = 0; i < modules.size(); ++i) {
        if (modules[i].value("name", "") == name) {
            modules.erase(i);
            board.trace("rmmod", {{"module", name}});
            return 0;
        }
    }
    fprintf(stderr, "rmmod: can't unload module '%s': No such file or directory\n", name.c_str());
    return 1;
}

} // namespace tvsim
