#!/bin/sh
# The synopses of the manual pages have the commands and options that vfsctl lists. Usage: manual_page.sh FOLDER VFSCTL
set -u
folder=$1
vfsctl=$2
failed=0

synopses() {
    sed -n '/^\.Sh SYNOPSIS/,/^\.Sh DESCRIPTION/p' "$folder"/vfsctl-*.1
}
# The long options of a command: as the program lists them, and as the synopsis shows them.
listed() {
    "$vfsctl" "$1" --help | sed -nE '/^Options:/,/^$/s/^  (-[a-z],)?--([a-z]*).*/\2/p' | grep -vx help | sort -u | xargs
}
shown() {
    synopses |
        awk -v command=".Cm $1" '/^\.Nm/ { in_it = 0 } $0 == command { in_it = 1 } in_it' |
        grep -o ' -[a-z]*' | sed 's/^ -//' | sort -u | xargs
}

commands=$("$vfsctl" --help | sed -n '/^Subcommands/,/^$/s/^  \([a-z]*\) .*/\1/p' | sort)
[ "$(echo "$commands" | wc -l)" -ge 7 ] || {
    echo "manual_page: vfsctl lists only these commands: $commands"
    exit 1
}
if [ "$commands" != "$(synopses | sed -n 's/^\.Cm \([a-z]*\)$/\1/p' | sort)" ]; then
    printf 'manual_page: the synopsis does not have the commands\n%s\n' "$commands"
    failed=1
fi
for command in $commands; do
    if [ "$(listed "$command")" != "$(shown "$command")" ]; then
        printf 'manual_page: %s lists: %s; the synopsis shows: %s\n' "$command" "$(listed "$command")" "$(shown "$command")"
        failed=1
    fi
done
exit "$failed"
