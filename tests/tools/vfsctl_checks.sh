# shellcheck shell=sh
# For the tests of vfsctl's commands, which source it with the program and an empty directory as their arguments: what
# a command prints and how it ends.
set -u
vfsctl=$1
directory=$2
failed=0

rm -rf "$directory"
mkdir -p "$directory"
cd "$directory" || exit 1

# check NAME STATUS EXPECTED_OUTPUT command...: the exit status and standard output must be these.
check() {
    name=$1 status=$2 wanted=$3
    shift 3
    got=$("$@" 2>stderr)
    code=$?
    if [ "$code" -ne "$status" ] || [ "$got" != "$wanted" ]; then
        printf 'FAILED %s: %s\n  status %s, expected %s\n  got:      %s\n  expected: %s\n' "$name" "$*" "$code" "$status" \
            "$got" "$wanted"
        sed 's/^/  stderr: /' stderr
        failed=1
    fi
}

# says NAME PATTERN: the standard error of the last command matches.
says() {
    grep -q -e "$2" stderr && return
    echo "FAILED $1: standard error does not say '$2':"
    sed 's/^/  stderr: /' stderr
    failed=1
}

newline='
'
