#!/bin/sh
# One seeded sequence on both platforms has to print the same: differential.sh NATIVE_PROGRAM EMULATOR WINDOWS_PROGRAM
set -eu
native=$1
shift
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
export QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE
cd "$place" # a name without a directory is one on both
for seed in 1 2 3 4 5; do
  QXBRENVOLE_TRACE_FILE=native.csv "$native" $seed 4000 >native.txt
  QXBRENVOLE_TRACE_FILE=windows.csv "$@" $seed 4000 2>errors.txt | tr -d '\r' >windows.txt
  [ "$(wc -l <native.txt)" -gt 50000 ] || { echo "seed $seed: too little came of it"; exit 1; }
  if ! cmp native.txt windows.txt; then
    diff native.txt windows.txt | head -n 20
    tail -n 5 errors.txt
    exit 1
  fi
  echo "seed $seed: $(wc -l <native.txt) lines, $(grep -c '^"' native.txt) of them rows of the trace, are the same"
done
