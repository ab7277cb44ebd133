#!/bin/sh
# Commands that write a file, ended by a signal at several moments: no half-written file stands under the final name, and
# what was there before is as it was. Usage: vfsctl_interrupted.sh VFSCTL DIRECTORY
# shellcheck source=tests/tools/vfsctl_checks.sh
. "$(dirname "$0")/vfsctl_checks.sh"

seq -f '%06.0f the line of that number' 1 12000 >many
check "a file to work on" 0 "" sh -c "'$vfsctl' load f --lines many --key 0:6 --max 40 >load.out"
cp f f.before
"$vfsctl" dump f >dump.txt

cat >interrupt.py <<'END'
import os, signal, subprocess, sys, time
number, final, *command = sys.argv[1:]
start = time.monotonic()
subprocess.run(command, check=True, capture_output=True)
whole = time.monotonic() - start
complete = open(final, 'rb').read()
os.unlink(final)
ended = 0
for attempt in range(300):
    if attempt >= 5 and ended > 0:
        break
    part = attempt * 0.38 % 1
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(whole * part)
    process.send_signal(int(number))
    status = process.wait()
    ended += status != 0
    if os.path.exists(final): # a late signal finds the work done
        if open(final, 'rb').read() != complete:
            print('after', part, 'of the time', final, 'is there, half-written')
        os.unlink(final)
    left = [name for name in os.listdir('.') if '.vfsctl-' in name or name.endswith('.rejects')]
    if left and int(number) == signal.SIGINT:
        print('after', part, 'eighths there is', left)
    for name in left:
        os.unlink(name)
if ended == 0:
    print('no signal came in time')
END

for signal in 2 9; do
    check "load, signal $signal" 0 "" python3 interrupt.py $signal new "$vfsctl" load new --lines many --key 0:6 --max 40
    check "sorted load, signal $signal" 0 "" python3 interrupt.py $signal new "$vfsctl" load new --lines many --key 0:6 --max 40 --sort
    check "undump, signal $signal" 0 "" python3 interrupt.py $signal new "$vfsctl" undump new dump.txt --key 0:6
    check "rebuild, signal $signal" 0 "" python3 interrupt.py $signal new "$vfsctl" rebuild f --to new
    check "backup, signal $signal" 0 "" python3 interrupt.py $signal new "$vfsctl" backup f --to new
done
check "a page, signal 9" 0 "" python3 interrupt.py 9 new "$vfsctl" map f --to new # too short to ask it to stop
# A compacted file has other bytes than one of which records were deleted: it is the one or the other, and sound.
for signal in 2 9; do
    for part in 1 2 3 4 5 6 7; do
        cp f.before f
        "$vfsctl" delete f 000007 >out
        "$vfsctl" compact f >out 2>stderr &
        sleep "0.$((part * part))"
        kill -s $signal $! 2>stderr
        wait $!
        check "compact, signal $signal after 0.$((part * part)) s" 0 "11999" sh -c "'$vfsctl' scan f --count"
        rm -f f.vfsctl-*
    done
done
check "and the last one is sound" 0 "f: sound, indexed, 1 key, 11999 records" "$vfsctl" check f

[ "$failed" -eq 0 ] && echo "vfsctl: interrupted commands leave nothing"
exit "$failed"
