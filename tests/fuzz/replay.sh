#!/bin/sh
# Runs a fuzz target built with the runner on its kept inputs and on changes of them. Usage: replay.sh PROGRAM CORPUS SECONDS SEED
set -eu

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/inputs"
tar -xJf "$2" -C "$work/inputs"
# Of what the driver says of damaged files nothing is shown, unless it ends badly.
if ! "$1" "$work/inputs" "$3" "$4" "$work/last" 2>"$work/said"; then
    tail -n 60 "$work/said"
    cp "$work/last" "$(basename "$1").last"
    echo "$(basename "$1"): seed $4; the input is kept as $PWD/$(basename "$1").last"
    exit 1
fi
