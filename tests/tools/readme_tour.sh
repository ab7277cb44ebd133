#!/bin/sh
# The five-minute tour of README.md works as it stands there. Usage: readme_tour.sh README VFSCTL DIRECTORY
# The indented lines between the first table and "From a program" are run in an empty directory; the last command loads
# rows that are there already, so the tour ends with status 1.
set -u
readme=$1
PATH=$(dirname "$2"):$PATH
directory=$3

rm -rf "$directory"
mkdir -p "$directory"
cd "$directory" || exit 1
sed -n '/^Make a file from/,/^From a program/s/^    //p' "$readme" >tour
commands=$(grep -c '^vfsctl' tour)
[ "$commands" -ge 10 ] || {
    echo "readme_tour: only $commands commands found in $readme"
    exit 1
}
sh -e tour >output 2>&1
status=$?
if [ "$status" -ne 1 ] || ! grep -q '1 records loaded.*3 rows refused' output; then
    echo "readme_tour: status $status, output:"
    cat output
    exit 1
fi
