#!/bin/sh
# vfsctl on whole files, as an operator uses it: stats, diff, compact, backup, locks, watch and doctor, with other programs
# at work. Usage: vfsctl_files.sh VFSCTL DIRECTORY
guide=$(realpath "$(dirname "$0")/../../docs/operations.md")
# shellcheck source=tests/tools/vfsctl_checks.sh
. "$(dirname "$0")/vfsctl_checks.sh"

printf '003c3\n001a1\n002b1\n005e2\n004d1\n' >lines
make() {
    check "a file to work on" 0 "" sh -c "rm -f $1; '$vfsctl' load $1 --lines lines --key 0:3 --key 3:1,dup --max 80 >load.out"
}
make f
make g

# ---- stats
check "stats counts records, trees and equal values" 0 "5 5 5" \
    sh -c "'$vfsctl' stats f --json | '$json' '[v[0][\"records\"], v[0][\"trees\"][0][\"values\"], v[0][\"trees\"][1][\"entries\"]]'"
check "stats for people" 0 "  records                    5               240     0.2" sh -c "'$vfsctl' stats f | grep '  records  '"
check "stats of something else" 1 "" "$vfsctl" stats lines
says "stats of something else" "lines: this is no file of the driver"

# ---- map and dump of the structure
check "a deleted record" 0 "f: deleted" "$vfsctl" delete f 005
check "a page for a browser" 0 "" "$vfsctl" map f --to f.html
check "the page needs nothing else and has every byte once" 0 "True True 1" python3 - f.html <<'END'
import json, sys
page = open(sys.argv[1]).read()
data = json.loads(page.split("const data = ", 1)[1].split(";\n", 1)[0])
pieces = data["pieces"]
ends = [0] + [offset + length for _, offset, length, *_ in pieces]
print(page.startswith("<!doctype html>") and "src=" not in page and "http" not in page,
      ends[:-1] == [piece[1] for piece in pieces] and ends[-1] == data["bytes"],
      sum(data["kinds"][piece[0]]["name"] == "deleted" for piece in pieces))
END
check "the page goes to standard output" 0 "" sh -c "'$vfsctl' map f >out && cmp out f.html"
check "a page may be written again" 0 "" "$vfsctl" map f --to f.html
check "nothing else is overwritten" 1 "" "$vfsctl" map f --to f
says "nothing else is overwritten" "f: exists already and is no page"
check "a script in the data stays data" 0 "0" sh -c "cp f 'a</script>b'; '$vfsctl' map 'a</script>b' | grep -c 'a</script>b' || true"
check "the map for a terminal" 0 "           0  HHHHHHHH" sh -c "'$vfsctl' map f --text | sed -n 's/^\(  *0  HHHHHHHH\).*/\1/p'"
check "no colours in a pipe" 0 "0" sh -c "'$vfsctl' map f --text | grep -c '$(printf '\033')' || true"
# Some containers have no pseudo-terminals.
terminal=yes
script -qec true /dev/null >out 2>stderr || terminal=
[ -n "$terminal" ] || echo "vfsctl_files: no pseudo-terminal can be had: what it does on a terminal is not tested"
[ -z "$terminal" ] || check "colours on a terminal" 0 "coloured" sh -c "TERM=xterm script -qec \"'$vfsctl' map f --text\" /dev/null | grep -q '$(printf '\033')' && echo coloured"
check "no colours against the user's wish" 0 "0" sh -c "TERM=xterm NO_COLOR=1 script -qec \"'$vfsctl' map f --text\" /dev/null | grep -c '$(printf '\033')' || true"
check "a map of what the driver refuses" 0 "  ! damage" sh -c "head -c 9000 /dev/zero | tr '\0' x >noise; '$vfsctl' map noise --text | grep -o '  ! damage'"
check "items, a line for each" 0 "4 record 1 deleted" sh -c "'$vfsctl' dump f --items | awk '{ n[\$2]++ } END { print n[\"record\"], \"record\", n[\"deleted\"], \"deleted\" }'"
check "nodes with their entries" 0 "'001' '002' '003' '004' 'a' 'b' 'c' 'd'" \
    sh -c "'$vfsctl' dump f --trees | grep -o \"'.*'\" | xargs -d '\n'"
check "one view at a time" 2 "" "$vfsctl" dump f --items --trees

# ---- check
check "check as JSON" 0 "0 True 4 indexed" sh -c "'$vfsctl' check f --json | '$json' '[v[0][\"status\"], v[0][\"sound\"], v[0][\"records\"], v[0][\"kind\"][:7]]'"
check "a problem as JSON" 4 "header 64" sh -c "cp f bad; printf '\377' | dd of=bad bs=1 seek=64 conv=notrunc 2>out; '$vfsctl' check bad --json >out; status=\$?; '$json' '[v[0][\"problems\"][0][n] for n in (\"area\", \"offset\")]' <out; exit \$status"
check "a fast check" 0 "f: header and trees are sound, indexed, 2 keys, 4 records, which were not looked at" "$vfsctl" check f --fast
check "which clears nothing" 16 "" "$vfsctl" check f --fast --clear
check "a record back" 0 "" sh -c "'$vfsctl' put f 005e2 >out"

# ---- diff
check "equal files" 0 "5 records are in both, 0 only in f, 0 only in g" "$vfsctl" diff f g
check "another order of equal keys is no difference" 0 "" "$vfsctl" diff f g --key 1 --quiet
"$vfsctl" put g 001a7 >change.out
"$vfsctl" delete g 002 >change.out
check "different files" 1 "< 001a1${newline}> 001a7${newline}< 002b1${newline}3 records are in both, 2 only in f, 1 only in g" "$vfsctl" diff f g
check "as JSON" 1 '{"only_in":"f","record":{"record":"001a1"}}' sh -c "'$vfsctl' diff f g --json --limit 1 >out; status=\$?; head -1 out; exit \$status"
check "diff of a missing file is no difference" 2 "" "$vfsctl" diff f missing
check "diff by a key that is not there" 2 "" "$vfsctl" diff f g --key 2
check "files of different kinds" 2 "" sh -c "'$vfsctl' dump f | sed 's/btree/recno/; /^ /d' | '$vfsctl' undump r --organization relative >load.out && '$vfsctl' diff f r"

# ---- compact
for n in 1 2 3 4 5; do
    "$vfsctl" put f "00$n$(printf '%060d' "$n")" >change.out
    "$vfsctl" delete f "00$n" >change.out
    "$vfsctl" put f "00$n x$n" >change.out
done
cp f f.before
chmod 640 f
exec 4<f
check "compact waits for nobody" 1 "" "$vfsctl" compact f
says "compact waits for nobody" "has it open"
exec 4<&-
ln f f.other
check "compact does not part two names" 1 "" "$vfsctl" compact f
says "compact does not part two names" "2 names"
check "compact" 0 "1" sh -c "rm f.other; '$vfsctl' compact f | grep -c '^f: 5 records'"
check "the records are the same" 0 "" "$vfsctl" diff f f.before --quiet
check "nothing is unused" 0 "0" sh -c "'$vfsctl' stats f --json | '$json' 'v[0][\"items\"][\"deleted\"][\"items\"]'"
check "permissions are kept" 0 "640" stat -c %a f
check "the compacted file is sound" 0 "f: sound, indexed, 2 keys, 5 records" "$vfsctl" check f
check "nothing is left behind" 1 "" sh -c "ls | grep vfsctl-"
check "compact by a key that is not there" 2 "" "$vfsctl" compact f --key 7
printf '\377' | dd of=f.before bs=1 seek=64 conv=notrunc 2>stderr
check "records that cannot be read stop it" 1 "" sh -c "printf '\1' | dd of=f.before bs=1 seek=320 conv=notrunc 2>stderr; '$vfsctl' compact f.before"
says "records that cannot be read stop it" "vfsctl check"

# ---- a file made anew in the place of another
printf '700x\n' >other
exec 4<f
check "a file in use is not made anew" 1 "" "$vfsctl" load f --lines other --key 0:3 --force
says "a file in use is not made anew" "has it open"
check "nor made empty" 1 "" "$vfsctl" create f --key 0:3 --max 9 --force
exec 4<&-
cp -p f again && ln -s again link
check "one that nobody uses is" 0 "1 640" \
    sh -c "'$vfsctl' load link --lines other --key 0:3 --force >out && echo \$('$vfsctl' scan again --count) \$(stat -c %a again)"
check "and its symbolic link still leads to it" 0 "again" readlink link
check "without --force nothing is replaced" 1 "" "$vfsctl" load again --lines other --key 0:3
says "without --force nothing is replaced" "again: cannot be made"

# ---- backup, with a program at work
check "backup" 0 "b: 5 records, checked" "$vfsctl" backup f --to b
check "the copy is the same" 0 "" "$vfsctl" diff f b --quiet
check "what was done as JSON" 0 "5 b2 5 0 5 0" sh -c "('$vfsctl' backup f --to b2 --json; '$vfsctl' rebuild b2 --to b3 --json; '$vfsctl' compact b3 --json) |
    '$json' '[v[0][\"records\"], v[0][\"to\"], v[1][\"records\"], v[1][\"rejected\"], v[2][\"records\"], v[2][\"bytes_before\"] - v[2][\"bytes\"]]'"
check "backup overwrites nothing" 1 "" "$vfsctl" backup f --to b
check "a damaged file is not backed up" 1 "" sh -c "cp f bad; printf '\377' | dd of=bad bs=1 seek=64 conv=notrunc 2>stderr; '$vfsctl' backup bad --to bad.b"
check "and no copy is left" 1 "" sh -c "ls | grep 'bad.b\|vfsctl-'"
seq -f '%06.0f the line of that number' 1 30000 >many
head -1 many >one
check "a file to be shared" 0 "" sh -c "'$vfsctl' load s --lines one --key 0:6 --max 40 >load.out"
VFS_LOCK=4 "$vfsctl" load s --lines many >load.out 2>refused &
loading=$!
copies=0
while kill -0 $loading 2>stderr && [ $copies -lt 4 ]; do
    copies=$((copies + 1))
    check "backup while a program writes" 0 "" sh -c "rm -f s.$copies; VFS_LOCK=4 '$vfsctl' backup s --to s.$copies >out"
    check "the copy is sound and closed" 0 "" sh -c "'$vfsctl' check s.$copies >out"
    check "and has the records up to a moment" 0 "" sh -c "'$vfsctl' scan s.$copies >out && head -\$(wc -l <out) many | cmp - out"
done
wait $loading
check "and the program's records are all there" 0 "30000" "$vfsctl" scan s --count

# ---- locks, watch and doctor
mkfifo hold
VFS_LOCK=2 "$vfsctl" load g --lines hold >load.out 2>refused &
exec 5>hold
printf '009z\n' >&5
check "locks of a file that nobody uses" 0 "f: 0 locks held, 0 waited for" "$vfsctl" locks f
exec 5>&-
wait
check "locks names kind and holder" 0 "Record 3 True" python3 - "$vfsctl" <<'END'
import fcntl, json, struct, subprocess, sys
data = open('b', 'rb').read()
slot = data.find(b'003 x3') - 32
length = struct.unpack_from('<Q', data, slot)[0]
file = open('b', 'r+b')
fcntl.fcntl(file, fcntl.F_SETLK, struct.pack('hhqqi', fcntl.F_WRLCK, 0, slot, length, 0))
seen = json.loads(subprocess.run([sys.argv[1], 'locks', 'b', '--json'], capture_output=True, check=True).stdout)
lock = seen['locks'][0]
print(lock['kind'], int(lock['key']), lock['name'].startswith('python') and lock['type'] == 'write' and seen['held'] == 1)
END
check "watch prints lines into a pipe" 0 "2" sh -c "'$vfsctl' watch f --count 2 --interval 0.1 | grep -c '5 records'"
check "or JSON" 0 "[5, 5]" sh -c "'$vfsctl' watch f --count 2 --interval 0.1 --json | '$json' 'str([each[\"records\"] for each in v])'"
[ -z "$terminal" ] || check "watch on a terminal shows one page and gives the old one back" 0 "2 1" \
    sh -c "script -qec \"'$vfsctl' watch f --count 2 --interval 0.1\" /dev/null >out; echo \$(grep -c '^  records  *5 ' out) \$(grep -c '$(printf '\033')\[?1049l' out)"
check "an interrupted watch ends well" 0 "" sh -c "'$vfsctl' watch f --interval 0.1 >out & sleep 0.5; kill -s INT \$!; wait \$!"
check "watch of something else" 1 "" "$vfsctl" watch lines
check "an interval that is none" 2 "" "$vfsctl" watch f --interval 0
check "doctor tries out the folder" 0 "granted, and seen by another process" \
    sh -c "'$vfsctl' doctor --json | '$json' '[c[\"found\"] for c in v[0][\"checks\"] if c[\"what\"] == \"byte-range locks\"]'"
check "a misspelt setting needs attention" 1 "attention  setting: VFS_LOKC" sh -c "VFS_LOKC=4 '$vfsctl' doctor >out; status=\$?; grep LOKC out; exit \$status"
check "doctor leaves nothing behind" 1 "" sh -c "ls | grep doctor"

# Every setting that the operator's guide lists is known, and no other.
# shellcheck disable=SC2016 # the backquotes are the guide's
sed -n 's/^| `\(VFS_[A-Z_]*\)` | .*|.*|.*|$/\1/p' "$guide" | sort -u >listed
echo VFS_EXTFH_TRACE >>listed
sort -u listed -o listed
check "doctor knows the settings of the guide" 0 "" \
    sh -c "'$vfsctl' doctor --json | '$json' '\"\n\".join(sorted(s[\"name\"] for s in v[0][\"settings\"]))' | diff - listed"

[ "$failed" -eq 0 ] && echo "vfsctl: all commands on files behave"
exit "$failed"
