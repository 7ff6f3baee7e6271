// The board's service tool: the operations no step of the update run calls (NAND raw block
// I/O, NOR sector protection, the EEPROMs the run never writes, a dry look at an image list),
// as subcommands in the manner of mtd-utils and i2c-tools.
#pragma once

#include <cstdint>

// Exit statuses.
constexpr int SERVICE_OK = 0;
constexpr int SERVICE_FAILED = 1;
constexpr int SERVICE_USAGE = 2;

// Runs the command line (argv[0] is the program name): 0 on success, 1 when the operation
// failed, 2 for a usage error (with the reason and a pointer to --help on standard error).
int service_main(int argc, char **argv);

// A number as the operator writes it: decimal, or hexadecimal with 0x. False for anything
// else, a sign, trailing text or a value above 0xFFFFFFFF.
bool parse_u32(const char *text, uint32_t *value);

// The MTD character device of a partition given by number ("3", "mtd3") or exact name
// ("kernel"): false when there is no such partition.
bool partition_device(const char *part, char *path, unsigned path_size);
