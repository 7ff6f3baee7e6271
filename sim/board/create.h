// Making a new simulated board with sensible defaults.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tvsim {

struct NewBoardOptions {
    std::string usb_medium; // folder copied onto a USB stick in slot sdb, or ""
    std::string sd_medium;  // folder copied onto an inserted SD card, or ""
    // Seed of the board's own device times (board.json records it); drawn afresh when absent.
    std::optional<uint64_t> seed;
};

// Creates the board directory dir; false with a message in *error on failure.
bool create_board(const std::string &dir, const NewBoardOptions &options, std::string *error);

} // namespace tvsim
