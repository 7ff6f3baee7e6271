#!/bin/sh
# Writes a sample update medium for model MODEL into DIR: an image list that selects the
# application and every data directory, and the files each of them needs.
# Usage: make-demo-medium.sh DIR MODEL
set -eu
dir=$1
model=$2
top="$dir/$model"
data="$top/writedata"
mkdir -p "$data"
cat > "$top/flashimg.lst" <<LIST
# Sample image list for $model
qvxbin
app_data NF
app_data/factory N
model_data N
jpeg_user
jpeg_factory
bitmap
other
LIST
printf 'mode=full\nmodel=%s\n' "$model" > "$top/update_mode.conf"
for d in app_data/dpdc app_data/factory model_data jpeg_user jpeg_factory bitmap other; do
    mkdir -p "$data/$d"
    printf 'sample %s data for %s\n' "$d" "$model" > "$data/$d/$(basename "$d").dat"
done
printf 'P1\n2 2\n1 0\n0 1\n' > "$data/bitmap/logo.pbm"
