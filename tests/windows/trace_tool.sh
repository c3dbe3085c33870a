#!/bin/sh
# brenvole-trace.exe tells of a trace, to the byte, what the program of this platform does:
# trace_tool.sh NATIVE_DIRECTORY EMULATOR WINDOWS_PROGRAM
set -eu
native=$1
shift
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
cd "$place"
QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE=whole.csv "$native/differential" 1 4000 >/dev/null 2>&1
head -c 300000 whole.csv >cut.csv
for words in 'summary whole.csv' 'summary cut.csv' 'leaks cut.csv --json' 'problems whole.csv' 'life whole.csv 1' \
  'summary none.csv' 'report whole.csv -o page.html'; do
  rm -f page.html
  code=0 windows_code=0
  # shellcheck disable=SC2086  # the words are several
  "$native/brenvole-trace" $words >native.txt 2>native_errors.txt || code=$?
  [ ! -e page.html ] || mv page.html native.html
  # shellcheck disable=SC2086
  "$@" $words >windows.txt 2>windows_errors.txt || windows_code=$?
  [ "$code" = "$windows_code" ] || { echo "$words: $code here, $windows_code there"; cat windows_errors.txt; exit 1; }
  cmp native.txt windows.txt
done
cmp native.html page.html
cp whole.csv 'Jörg 日本.csv' # the system's own character set has neither
"$@" summary 'Jörg 日本.csv' >windows.txt || [ $? = 1 ]
grep -q '^Jörg 日本.csv: ' windows.txt
echo "8 calls gave the same, and a page of $(wc -c <page.html) bytes"
