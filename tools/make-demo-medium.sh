#!/bin/sh
# Writes a sample update medium for model MODEL into DIR: an image list that selects the
# application, every data directory, the TV microcontroller's EEPROM and firmware and the boot
# loader, the Pelto and KOLMA EEPROMs, the three FPGA configuration ROMs, both FPGA EEPROMs, and
# the files each of them needs.
# Usage: make-demo-medium.sh [--rom-bytes N] DIR MODEL
#   --rom-bytes N  FPGA configuration ROM images of N bytes (real ones are about 2 MiB):
#                  the sync word, then random bytes (the same on every run)
set -eu
rom_bytes=
if [ "${1:-}" = --rom-bytes ]; then
    rom_bytes=$2
    shift 2
fi
dir=$1
model=$2
top="$dir/$model"
data="$top/writedata"
mkdir -p "$data"
cat > "$top/flashimg.lst" <<LIST
# Sample image list for $model
pelto_eeprom
qvxbin
app_data NF
app_data/factory N
model_data N
jpeg_user
jpeg_factory
bitmap
other
tvm_eeprom
tvm_hex
uboot
kolma_eeprom
fpga_sam_1
fpga_sam_2
fpga_sam_3
fpga_eeprom
fpga_tr6_eeprom
LIST
printf 'mode=full\nmodel=%s\n' "$model" > "$top/update_mode.conf"
for d in app_data/dpdc app_data/factory model_data jpeg_user jpeg_factory bitmap other; do
    mkdir -p "$data/$d"
    printf 'sample %s data for %s\n' "$d" "$model" > "$data/$d/$(basename "$d").dat"
done
printf 'P1\n2 2\n1 0\n0 1\n' > "$data/bitmap/logo.pbm"

# The TV microcontroller's EEPROM: a version line, address/data lines, the checksum line.
{
    printf 'Version 1.00 for %s\r\n' "$model"
    i=0
    while [ $i -lt 200 ]; do
        printf '%04X %02X\r\n' $i $(((i * 7 + 3) % 256))
        i=$((i + 1))
    done
    printf 'CheckSum 0000\r\n'
} > "$data/TVM_DATA_demo.txt"

# Its firmware: a section per flash bank (at the simulated board's bank addresses), version
# 11 for microcontroller ID 21, S-records made by srec_cat. The firmware keeps its version
# byte 0x100 bytes into its bank, where the running microcontroller reports it from.
for bank in 1 2; do
    base=$((bank == 1 ? 0x10000 : 0x30000))
    printf 'TVM_BANK%d\nVERSION 11\nMICRO ID 21\nS-records of bank %d follow\n' $bank $bank
    srec_cat -generate $base $((base + 24576)) -repeat-string "$model firmware, bank $bank. " \
        -exclude $((base + 0x100)) $((base + 0x101)) \
        -generate $((base + 0x100)) $((base + 0x101)) -constant 0x11 \
        -o - -motorola -execution-start-address=$base
done > "$data/tvm.mot"

# The boot loader for the board's SPI flash (the simulated board boots from SPI).
{
    printf 'U-Boot for %s\n' "$model"
    i=0
    while [ $i -lt 4096 ]; do
        printf 'boot loader of %s, line %04d\n' "$model" $i
        i=$((i + 1))
    done
} > "$data/boot-$model.bin"

# The Pelto EEPROM: single bytes, in any address order.
printf '0010 5A\r\n0011 A5\r\n0000 01\r\n0200 3C\r\n' > "$data/PELTO_DATA_demo.txt"

# Both KOLMA EEPROMs: 256 bytes, four 64-byte blocks.
i=0
while [ $i -lt 256 ]; do
    printf '%04X %02X\n' $i $(((i * 13 + 5) % 256))
    i=$((i + 1))
done > "$data/kolma_eep_demo.txt"

# The FPGA configuration ROM images: padding, the sync word AA 99 55 66, then configuration data.
for rom in fpga_config_sum_tr1 fpga_config_sum_tr5 fpga_config_lgd_tr6; do
    {
        printf '\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\252\231\125\146'
        if [ -n "$rom_bytes" ]; then
            python3 -c 'import random, sys
random.seed(sys.argv[1])
sys.stdout.buffer.write(random.randbytes(int(sys.argv[2]) - 20))' "$rom" "$rom_bytes"
        else
            i=0
            while [ $i -lt 1500 ]; do
                printf '%s configuration frame %04d\n' "$rom" $i
                i=$((i + 1))
            done
        fi
    } > "$data/$rom.bin"
done

# The FPGA EEPROMs (TR5 and TR6): 256 bytes each, eight 32-byte blocks.
for fpga in tr5 tr6; do
    i=0
    while [ $i -lt 256 ]; do
        printf '%04X %02X\n' $i $(((i * 17 + ${fpga#tr} * 5) % 256))
        i=$((i + 1))
    done > "$data/${fpga}_eep_demo.txt"
done
