#!/bin/sh
# An indexed file that the runtime keeps becomes one of the driver as the guide says, and the program finds its records there.
# Usage: moving_in.sh BUILD SCRATCH
set -eu
build=$1 scratch=$2
source=$(cd "$(dirname "$0")/../../bench/cobol" && pwd)/indexed.cob
rm -rf "$scratch"
mkdir -p "$scratch/own" "$scratch/bridge"
cobc -x -free -o "$scratch/own/program" "$source"
cobc -x -free -fcallfh=vfs_extfh -Q "-L$build -lvfs_extfh -Wl,-rpath,$build" -o "$scratch/bridge/program" "$source"
cd "$scratch/own"
./program load-random 3000 100
db5.3_dump people.dat | "$build/vfsctl" undump ../bridge/people.dat --key 0:9 --key 9:6,dup --fixed 100
cd ../bridge
for job in scan-forward read-primary read-alternate rewrite; do ./program "$job" 3000 500; done
"$build/vfsctl" check people.dat
