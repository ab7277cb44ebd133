#!/bin/sh
# One COBOL program with the statuses that it expects: compiled with the bridge, and, where the runtime's own handling has
# to answer alike, without it, then also with the bridge loaded for other programs' sake; run in an empty directory. Usage: run.sh BUILD PROGRAM SCRATCH [bridge | both]
set -eu
build=$1 program=$2 scratch=$3 handlings=${4:-both}
here=$(cd "$(dirname "$0")" && pwd)
[ "$handlings" = both ] && handlings="own beside bridge"

# Whatever the caller's programs are told, these are not.
for variable in $(env | sed -n 's/^\(COB_[A-Z_]*\|DD_[A-Za-z_]*\|VFS_[A-Z_]*\)=.*/\1/p'); do unset "$variable"; done
for handling in $handlings; do
    rm -rf "${scratch:?}/$handling"
    mkdir -p "$scratch/$handling"
    (
        cd "$scratch/$handling"
        answers=$handling
        preload=${SANITIZER_RUNTIME:-}
        if [ "$handling" = beside ]; then
            cp ../own/program .
            answers=own
            preload="$preload $build/libvfs_extfh.so"
        elif [ "$handling" = own ]; then
            cobc -x -free -o program "$here/$program.cob" "$here/expect.cob"
        else
            cobc -x -free -fcallfh=vfs_extfh -Q "-L$build -lvfs_extfh -Wl,-rpath,$build" -o program \
                "$here/$program.cob" "$here/expect.cob"
        fi
        LD_PRELOAD=$preload HANDLING=$answers ./program >output 2>&1 || echo "not as expected: it ended with status $?" >>output
        if grep "not as expected" output >&2; then
            echo "$program with $handling handling failed; all that it said is in $PWD/output" >&2
            exit 1
        fi
    )
done
