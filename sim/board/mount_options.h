// The data argument of a mount, read as the kernel reads it for the board's two file systems:
// comma-separated options, each known to the file system (or one of the flags every file system
// takes), with a value where the option needs one. Anything else fails the mount with EINVAL.
#pragma once

#include <string>
#include <string_view>

namespace tvsim {

struct MountOptions {
    unsigned long flags = 0; // the mount's flags with those the options set or clear
    std::string shown;       // as the mount table shows them: "ro,shortname=winnt"
};

// Reads data (null or empty: no options) for fstype ("vfat" or "ubifs") on top of flags;
// 0, or EINVAL for an option the file system does not know or a value it does not take.
int read_mount_options(std::string_view fstype, const char *data, unsigned long flags,
                       MountOptions *out);

} // namespace tvsim
