#!/bin/sh
# build → check → srec_cat and tvsim: what tvmedium build writes checks clean, converts back to
# the input bytes with srec_cat, and lands on a simulated board as exactly those bytes.
# Usage: roundtrip.sh TVMEDIUM TVSIM TVUPDATE WORK_DIR
set -eu
tvmedium=$1 tvsim=$2 tvupdate=$3 work=$4
rm -rf "$work"
mkdir -p "$work"
cd "$work"

# Inputs: two firmware images (one full, one short) and an EEPROM image, not blank anywhere.
srec_cat -generate 0 0x18000 -repeat-string "bank one image " -o bank1.bin -binary
srec_cat -generate 0 5000 -repeat-string "second bank, shorter. " -o bank2.bin -binary
srec_cat -generate 0 700 -repeat-data 0x12 0x34 0x56 0x78 0x9A -o eep.bin -binary
cat > medium.txt <<DESC
model RT-TV
list tvm_eeprom
list tvm_hex
mode mode=full
firmware-version 42
firmware-id 21
bank1 bank1.bin 0x10000
bank2 bank2.bin 0x30000
eeprom tvm_eeprom eep.bin 1.0 round trip
DESC
"$tvmedium" build medium.txt medium
"$tvmedium" check medium RT-TV > check.txt || { cat check.txt; echo "check not clean"; exit 1; }

# srec_cat reads each section's records back to the input bytes.
for bank in 1 2; do
    base=$((bank == 1 ? 0x10000 : 0x30000))
    awk -v want="TVM_BANK$bank" '/^TVM_BANK/ { on = ($0 == want); next } on && /^S[0-9]/' \
        medium/RT-TV/writedata/tvm.mot > bank$bank.srec
    srec_cat bank$bank.srec -motorola -offset -$base -o back$bank.bin -binary
    cmp bank$bank.bin back$bank.bin
done
# The EEPROM text file's data lines, through srec_cat's ASCII-hex reader, give the input too.
{
    printf '\002$A0000,\n'
    awk '/^[0-9A-F][0-9A-F][0-9A-F][0-9A-F] / { printf "%s ", substr($2, 1, 2) }' \
        medium/RT-TV/writedata/TVM_DATA.txt
    printf '\003\n'
} > eep.hex
srec_cat eep.hex -ascii-hex -o eepback.bin -binary
cmp eep.bin eepback.bin

# The board takes the medium: the bank that is not running (bank 2) and the EEPROM hold the
# input bytes, the rest of the bank is erased.
"$tvsim" new board --usb medium > /dev/null
"$tvsim" --board board -- "$tvupdate" RT-TV > run.txt || { cat run.txt; exit 1; }
grep -q "TVM Eeprom updating is finished.$" run.txt
grep -q "TVM Hex updating is finished.$" run.txt
size=$(wc -c < bank2.bin)
cmp -n "$size" bank2.bin board/tvm/bank2.bin
test "$(tail -c +$((size + 1)) board/tvm/bank2.bin | head -c $((0x18000 - size)) | tr -d '\377' | wc -c)" -eq 0
cmp -n "$(wc -c < eep.bin)" eep.bin board/tvm/eeprom.bin
# The board time report: both components succeeded, and their times add up to the run's.
"$tvsim" --board board report > report.txt
grep -q '^TVM Eeprom .* ok$' report.txt
grep -q '^TVM Hex .* ok$' report.txt
awk 'NR > 1 { ns = substr($0, 26, 14) + 0 } $1 == "run" { run = ns; next } NR > 1 { sum += ns }
     END { if (run == 0 || sum != run) { print "components " sum " != run " run; exit 1 } }' report.txt
echo "round trip: tvm.mot and TVM_DATA.txt load to the input bytes (srec_cat, tvsim)"
