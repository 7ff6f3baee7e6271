// Raw access to MTD flash partitions; here the lookup of a partition by name in /proc/mtd.
#pragma once

#include <cstddef>
#include <cstdio>

// Size of a buffer that holds any partition device name check_mtdname hands back: "mtd" and
// up to four digits (mtd0 to mtd9999).
constexpr size_t kMtdDeviceNameSize = 8;

// Looks in /proc/mtd for a partition whose name contains wanted. Returns 1 and writes the
// partition's device name (for example "mtd1") into device (kMtdDeviceNameSize bytes), or 0
// when there is none or /proc/mtd cannot be opened ("open /proc/mtd" through perror).
int check_mtdname(const char *wanted, char *device);

// The search of check_mtdname over an open partition table.
int check_mtdname_in(FILE *proc_mtd, const char *wanted, char *device);
