#!/bin/sh
# The COBOL program of README.md, compiled and run as it stands there. Usage: readme.sh README BUILD SCRATCH
set -eu
readme=$1 build=$2 scratch=$3
rm -rf "$scratch"
mkdir -p "$scratch"
cd "$scratch"
sed -n '/^## COBOL programs/,/^Several programs may/s/^    //p' "$readme" >tour
PATH=$build:$PATH sh -eu tour >output
grep -qx 'found Grace *' output
"$build/vfsctl" check people
