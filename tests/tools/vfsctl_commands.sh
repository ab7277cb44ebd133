#!/bin/sh
# vfsctl as an operator uses it: each command, its output, its exit status. Usage: vfsctl_commands.sh VFSCTL DIRECTORY
# shellcheck source=tests/tools/vfsctl_checks.sh
. "$(dirname "$0")/vfsctl_checks.sh"

# ---- create and info
check "create" 0 "f: made, 2 keys, records of 7 to 40 bytes" "$vfsctl" create f --key 0:3 --key 3:4,dup --max 40
check "create does not overwrite" 1 "" "$vfsctl" create f --key 0:3 --max 40
says "create does not overwrite" "force"
check "create --force overwrites" 0 "f: made, 2 keys, records of 7 to 40 bytes" \
    "$vfsctl" create f --key 0:3 --key 3:4,dup --max 40 --force
check "keys must fit the record" 2 "" "$vfsctl" create g --key 0:3 --max 2
check "a bad key is explained" 2 "" "$vfsctl" create g --key 3 --max 20
says "a bad key is explained" "offset:length"
check "info of a missing file" 1 "" "$vfsctl" info missing
says "info of a missing file" "missing.*No such file"
check "no empty file appears by looking" 1 "" test -e missing
check "info" 0 "0:3 3:4,dup" sh -c "'$vfsctl' info f --json | sed -n 's/.*\"key\": \"\\(.*\\)\".*/\\1/p' | xargs"

# ---- put, get, delete
check "put adds" 0 "f: added" "$vfsctl" put f "001blueone"
check "put --add refuses an existing key" 1 "" "$vfsctl" put f --add "001bluetwo"
check "put replaces" 0 "f: replaced" "$vfsctl" put f "001blueONE"
check "put --replace needs a record" 1 "" "$vfsctl" put f --replace "002blue"
check "put pads a short record" 0 "f: added" "$vfsctl" put f "002red"
check "get" 0 "001blueONE" "$vfsctl" get f 001
check "get by the other key pads the value" 0 "002red " "$vfsctl" get f red --by 1
check "get --hex" 0 "001blueONE" "$vfsctl" get f --hex 303031
check "get finds nothing" 1 "" "$vfsctl" get f 999
says "get finds nothing" "no record"
check "get by a key that is not there" 2 "" "$vfsctl" get f 001 --by 7
check "get with a value too long" 2 "" "$vfsctl" get f 0011
check "delete by a key with duplicates" 2 "" "$vfsctl" delete f red --by 1
check "delete" 0 "f: deleted" "$vfsctl" delete f 002
check "delete again" 1 "" "$vfsctl" delete f 002
check "the deleted record is gone from every key" 1 "" "$vfsctl" get f red --by 1

# ---- load lines and scan
printf '005red five\n003bluethree\n004red four\n003redagain\n006g\n' >lines
check "load reports refused rows" 1 "" sh -c "'$vfsctl' load f --lines lines --rejects rejects >load.out"
check "refused rows have their line" 0 "lines:4: a record with this key is there already: 003redagain" cat rejects
check "scan by the primary key" 0 "001blueONE${newline}003bluethree${newline}004red four${newline}005red five${newline}006g   " \
    "$vfsctl" scan f
check "scan by the other key, equal ones in order of arrival" 0 \
    "001blueONE${newline}003bluethree${newline}006g   ${newline}005red five${newline}004red four" "$vfsctl" scan f --by 1
check "scan --reverse" 0 "006g   ${newline}005red five" "$vfsctl" scan f --reverse --limit 2
check "scan by the other key against the order" 0 "004red four${newline}005red five" "$vfsctl" scan f --by 1 --reverse --limit 2
check "scan a range" 0 "003bluethree${newline}004red four" "$vfsctl" scan f --from 002 --to 004
check "scan a range against the order" 0 "004red four${newline}003bluethree" "$vfsctl" scan f --from 002 --to 004 --reverse
check "scan a prefix" 0 "2" "$vfsctl" scan f --by 1 --prefix r --count
check "scan an empty range" 1 "0" "$vfsctl" scan f --from 1 --count
check "scan --raw" 0 "001blueONE003bluethree" "$vfsctl" scan f --raw --limit 2

# ---- load CSV, by layout and without
printf 'id,name,note\n7,"Seven, Ltd.","say ""hi"""\n12,Dozen,\n3,Three,x\n' >table.csv
check "load CSV" 0 "layout: id:2,name:11,note:*" sh -c "'$vfsctl' load t table.csv --key id --key name,dup --sort | head -1"
check "CSV comes back" 0 "id,name,note${newline}12,Dozen,${newline}3,Three,x${newline}7,\"Seven, Ltd.\",\"say \"\"hi\"\"\"" \
    "$vfsctl" scan t --layout "id:2,name:11,note:*"
check "get by a column" 0 "name,id${newline}Dozen,12" sh -c "'$vfsctl' get t Dozen --by name --layout 'id:2,name:11,note:*' | cut -d, -f2,1 | awk -F, '{print \$2 \",\" \$1}'"
check "put a CSV row" 0 "t: replaced" "$vfsctl" put t --layout "id:2,name:11,note:*" '12,Twelve,"a,b"'
check "the CSV row arrived" 0 "12Twelve     a,b" "$vfsctl" get t 12
check "put a value that is too wide" 2 "" "$vfsctl" put t --layout "id:2,name:11,note:*" '123,x,y'
check "load does not overwrite" 1 "" "$vfsctl" load t table.csv --key id
check "the file that was not overwritten is whole" 0 "3" "$vfsctl" scan t --count
printf 'id,name\n1,"open\n' >broken.csv
check "broken CSV stops with its line" 1 "" "$vfsctl" load u broken.csv --key id
says "broken CSV stops with its line" "broken.csv: line 2"
check "and makes no file" 1 "" test -e u

# ---- bytes of fixed length
printf 'bb22aa11cc33' >bytes
check "load fixed" 0 "3" sh -c "'$vfsctl' load x --fixed 4 bytes --key 0:2 >/dev/null && '$vfsctl' scan x --count"
check "fixed records come back in key order" 0 "aa11bb22cc33" "$vfsctl" scan x --raw
check "a record of another length is refused" 1 "" "$vfsctl" put x dd445

# ---- a schema, and lines of JSON
cat >schema.json <<'END'
{"fields": [{"name": "number", "type": "digits", "bytes": 4}, {"name": "name", "bytes": 8},
            {"name": "balance", "type": "packed", "bytes": 4, "decimals": 2}, {"name": "note"}],
 "keys": ["number", "name,dup"], "max": 60}
END
printf '{"number": 9, "name": "Zoe", "balance": -2.5}\n{"number": 4, "name": "Ann", "note": "x"}\n' >good.json
check "load JSON by a schema" 0 "" sh -c "'$vfsctl' load j --json good.json --schema schema.json --sort >load.out"
check "JSON comes back" 0 '{"number":9,"name":"Zoe","balance":-2.5,"note":""}' "$vfsctl" get j Zoe --by name --json --schema schema.json
check "and as CSV" 0 "number,name,balance,note${newline}4,Ann,0.00,x" "$vfsctl" scan j --schema schema.json --limit 1
check "put JSON" 0 "j: added" "$vfsctl" put j --json --schema schema.json '{"number": 5, "name": "Bob"}'
printf '{"number": 4, "name": "Two"}\n{"nummer": 6}\n{"number": 6}\n' >bad.json
check "a row that makes no record is refused, the others are loaded" 1 "bad.json:2: there is no column 'nummer': {\"nummer\"
bad.json:1: a record with this key is there already" \
    sh -c "'$vfsctl' load j --json bad.json --schema schema.json --rejects rejects >load.out; status=\$?; cut -d: -f1-4 rejects | sed 's/: 0004Two.*//'; exit \$status"
check "standard input can be a pipe" 0 "4" sh -c "'$vfsctl' scan j --json --schema schema.json | '$vfsctl' load j2 --json - --schema schema.json >load.out && '$vfsctl' scan j2 --count"
check "create by a schema" 0 "j3: made, 2 keys, records of 12 to 60 bytes" "$vfsctl" create j3 --schema schema.json
printf '{"fields": 3}' >broken.json
check "a broken schema is wrong usage" 2 "" "$vfsctl" create j4 --schema broken.json
says "a broken schema is wrong usage" "broken.json: 'fields' is a list"

# ---- dump and undump
check "dump" 0 "VERSION=3${newline}format=print${newline}type=btree${newline}HEADER=END${newline} 001${newline} 001blueONE" \
    sh -c "'$vfsctl' dump -p f | head -6"
check "undump makes the same file" 0 "" sh -c "'$vfsctl' dump f | '$vfsctl' undump f2 --key 0:3 --key 3:4,dup >load.out && '$vfsctl' scan f --raw >1 && '$vfsctl' scan f2 --raw >2 && cmp 1 2"
check "a key that came with a record has to be the record's" 0 "1 rows refused" \
    sh -c "'$vfsctl' dump -p f2 | sed 's/^ 004$/ 014/; s/^ 00\(.[a-z]\)/ 00\1/' | '$vfsctl' undump f3 --key 0:3 2>refused | sed 's/.*, //'; grep -q 'primary key' refused"
printf 'VERSION=3\nformat=print\ntype=recno\nkeys=1\nHEADER=END\n 3\n c\n 1\n a\nDATA=END\n' >numbers
check "record numbers become a relative file" 0 "a${newline}c" sh -c "'$vfsctl' undump n --organization relative numbers >load.out && '$vfsctl' scan n"
check "and back" 0 " 31${newline} 61${newline} 33${newline} 63${newline}DATA=END" sh -c "'$vfsctl' dump n | tail -5"
printf 'number,name\n4,Ann\n5\n' >one.csv
check "what was done as JSON" 0 "2 4 1 1 number:3,name:3 added deleted 2 0" sh -c "(
    '$vfsctl' create r --key 0:2 --key 2:1,dup --fixed 4 --json
    '$vfsctl' load r2 one.csv --key 0:3 --layout number:3,name:auto --rejects refused --json-result
    '$vfsctl' put r abcd --json-result
    '$vfsctl' delete r ab --json
    '$vfsctl' undump r3 --organization relative numbers --json) |
    '$json' '[str(each.get(n)) for each, names in zip(v, (\"keys max\", \"records refused layout\", \"result\", \"result\", \"records refused\")) for n in names.split()]'"
check "an indexed file needs keys" 2 "" "$vfsctl" undump n2 --organization indexed numbers
check "a dump that is cut off makes no file" 1 "" sh -c "head -7 numbers | '$vfsctl' undump n3 --organization relative"
check "and leaves none" 1 "" test -e n3
if command -v db5.3_load mdb_load >/dev/null; then
    check "the stock tools read it" 0 "" sh -c "'$vfsctl' dump f | db5.3_load f.db && '$vfsctl' dump n | db5.3_load n.db &&
        mkdir f.mdb && '$vfsctl' dump -p f | mdb_load f.mdb"
    for tool in "db5.3_dump f.db" "db5.3_dump -p f.db" "mdb_dump f.mdb" "mdb_dump -p f.mdb"; do
        check "and $tool comes back" 0 "" sh -c "rm -f f4; $tool | '$vfsctl' undump f4 --key 0:3 --key 3:4,dup >load.out && '$vfsctl' scan f4 --raw >2 && cmp 1 2"
    done
fi

# ---- check and rebuild
check "check" 0 "x: sound, indexed, 1 key, 3 records" "$vfsctl" check x
check "rebuild" 0 "y: 3 records kept, 0 places rejected" "$vfsctl" rebuild x --to y
check "the new file has the records" 0 "aa11bb22cc33" "$vfsctl" scan y --raw
check "rebuild overwrites nothing" 1 "" "$vfsctl" rebuild x --to y
says "rebuild overwrites nothing" "y: exists already"
cp x z
printf '\377' | dd of=z bs=1 seek=64 conv=notrunc 2>stderr # the number of records
check "check says where the damage is" 4 "z: 0x40: number of records: 255 stands here, 3 is right" \
    sh -c "'$vfsctl' check z >check.out; status=\$?; head -1 check.out; exit \$status"
check "the driver's word for an unclosed file leads to check" 1 "" sh -c "printf '\001' | dd of=y bs=1 seek=320 conv=notrunc 2>stderr && '$vfsctl' scan y"
says "the driver's word for an unclosed file leads to check" "vfsctl check"
check "a sound file that was not closed" 4 "" sh -c "'$vfsctl' check y >check.out"
check "is cleared" 1 "" sh -c "'$vfsctl' check --clear y >check.out"
check "and can be used again" 0 "3" "$vfsctl" scan y --count
check "check of a missing file" 8 "" "$vfsctl" check missing
check "check without a file" 16 "" "$vfsctl" check

# ---- interruption
# The command is stopped while it waits for its input, or else with all of it read and none of it stored.
printf 'aa11\n' >lines
check "a file to be interrupted in" 0 "" sh -c "'$vfsctl' load i --lines lines --key 0:2 >/dev/null"
mkfifo pipe
"$vfsctl" load i --lines pipe >load.out 2>stderr &
loading=$!
exec 3>pipe
printf 'bb22\n' >&3
kill -TERM "$loading"
exec 3>&-
wait "$loading"
check "an interrupted load says so" 130 "" sh -c "exit $?"
check "and has closed the file in order" 0 "aa11" "$vfsctl" scan i

# ---- what is no file of ours
printf 'this is a text, not a data file, whatever its name says; it is long enough to have a header%s\n' "$newline" >text
check "a foreign file is refused" 1 "" "$vfsctl" scan text
says "a foreign file is refused" "text: cannot open it"
check "and left alone" 0 "this is a text" sh -c "head -c 14 text"
check "unknown commands" 2 "" "$vfsctl" frobnicate

# ---- completion
"$vfsctl" completion bash >complete.bash
"$vfsctl" completion zsh >complete.zsh
completes() {
    # shellcheck disable=SC2016,SC2317 # bash expands it; check calls it
    bash -c '. ./complete.bash; COMP_WORDS=(vfsctl "$@"); COMP_CWORD=$#; _vfsctl; echo "${COMPREPLY[*]}"' bash "$@"
}
check "commands are completed" 0 "compact completion" completes comp
check "options of a command are completed" 0 "--fast" completes check --f
check "words that an option allows are completed" 0 "sequential" completes undump --organization s
check "files are left to the shell" 0 "" completes load --layout co
check "arguments with few words are completed" 0 "zsh" completes completion z
check "both scripts can be read by their shells" 0 "" sh -c "bash -n complete.bash && zsh -n complete.zsh"
check "an unknown shell" 2 "" "$vfsctl" completion fish

[ "$failed" -eq 0 ] && echo "vfsctl: all commands behave"
exit "$failed"
