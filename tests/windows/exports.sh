#!/bin/sh
# The two DLLs export what their lists say, under these names and ordinals, and need the system alone:
# exports.sh DIRECTORY_OF_DLLS DIRECTORY_OF_LISTS
set -eu
bin=$1
lists=$2
fail() {
  echo "$1" >&2
  exit 1
}
about() { x86_64-w64-mingw32-objdump -p "$bin/$1.dll"; }
# `[ 3] NAME` counts from the ordinal base, which is 1.
exports() { about "$1" | sed -n '/Ordinal\/Name Pointer/,$s/^\t\[ *\([0-9]*\)\] \(.*\)$/\1 \2/p'; }

wanted=$(sed -n 's/^ *\([A-Za-z_]*\) @\([0-9]*\)$/\2 \1/p' "$lists/brenvole.def" | sort)
[ "$(echo "$wanted" | wc -l)" -eq 16 ] || fail "the list of Brenvole has 16 names"
about Brenvole | grep -q 'Ordinal Base[[:space:]]*1$' || fail "ordinals begin at 1"
found=$(exports Brenvole | awk '{print $1 + 1, $2}' | sort)
[ "$found" = "$wanted" ] || fail "Brenvole.dll exports
$found"
[ "$(exports QXUtil | awk '{print $2}' | sort)" = "$(sed -n 's/^    \([A-Za-z_]*\)$/\1/p' "$lists/qxutil.def" | sort)" ] ||
  fail "QXUtil.dll exports other names than its list has"
for library in Brenvole QXUtil; do
  foreign=$(about $library | sed -n 's/.*DLL Name: //p' | grep -viE '^(kernel32|msvcrt|qxutil)\.dll$') &&
    fail "$library.dll needs $foreign"
done
echo "exports ok"
