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

# json EXPRESSION: prints what a Python expression makes of v, the list of the JSON values on standard input.
json="$PWD/json"
cat >"$json" <<'END'
#!/usr/bin/env python3
import json, sys
text, at, v = sys.stdin.read(), 0, []
while at < len(text):
    value, end = json.JSONDecoder().raw_decode(text, at)
    v.append(value)
    at = end + 1
made = eval(sys.argv[1])
print(*made) if isinstance(made, (list, tuple)) else print(made)
END
chmod +x "$json"
