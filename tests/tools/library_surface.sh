#!/bin/sh
# What the shared library shows to the world: one symbol, no needs but the C library, and a program of its own.
# Usage: library_surface.sh LIBRARY [--no-program]
set -eu
library=$1

complain() {
    echo "library_surface: $*" >&2
    exit 1
}

exported=$(nm -D --defined-only "$library" | awk '$2 != "A" {print $3}')
[ "$exported" = "vfs@@VFS_1.0" ] || complain "exports '$exported', expected only vfs@@VFS_1.0"

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | grep -v -e '^libc\.so\.' -e '^ld-linux' || true)
[ -z "$needed" ] || complain "needs more than the C library: $needed"

[ "${2:-}" != --no-program ] || exit 0
output=$("$library" 2>&1 >/dev/null) || complain "run as a program it ends with status $?"
case $output in
*"@(#) Version: 01.01.0000.0000"*) ;;
*) complain "run as a program it prints '$output'" ;;
esac
