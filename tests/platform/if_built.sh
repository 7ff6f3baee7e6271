#!/bin/sh
# Runs a test of a board build's file only when that build is there: without it the test is
# skipped (exit 77), as the scenarios of that build are, unless TVSIM_REQUIRE_BOARD_BUILDS is
# set (make check), where a missing build is a failure.
# Usage: if_built.sh FILE COMMAND [ARGS...]
file=$1
shift
if [ ! -e "$file" ]; then
    if [ -n "${TVSIM_REQUIRE_BOARD_BUILDS:-}" ]; then
        echo "no board build at $file" >&2
        exit 1
    fi
    echo "skipped: no board build at $file (make armhf or make armel builds it)"
    exit 77
fi
exec "$@"
