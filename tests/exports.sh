#!/bin/sh
# What leaves the two libraries, and what the memory library takes from the other: exports.sh LIB_DIRECTORY SOURCE_DIRECTORY
set -eu
lib=$1
source=$2
fail() {
  echo "$1" >&2
  exit 1
}
exports() { nm -D --defined-only "$1" | awk '{print $3}' | sort; }
listed() { sed -n 's/^ *\([A-Za-z_][A-Za-z_0-9]*\);$/\1/p' "$source/cmake/$1.map" | sort; }

[ "$(listed brenvole | wc -l)" -eq 16 ] || fail "the list of exports has 16 names"
extra=$(exports "$lib/libbrenvole.so" | grep -vxF "$(listed brenvole)") && fail "libbrenvole exports beyond its list: $extra"
exports "$lib/libbrenvole.so" | grep -qx DFrameMem || fail "libbrenvole exports no DFrameMem"

# Every function that qxutil.h declares is exported by libqxutil, and nothing else.
declared=$(grep -oE '\b(ErrOut|ErrFmtOut|ErrMsgOut|QXAlloc|QXFree|CopyMemoryFast|qx[A-Z]+[A-Za-z]*|d_List[A-Za-z]*)\(' \
  "$source/src/util/qxutil.h" | tr -d '(' | sort -u)
[ "$(exports "$lib/libqxutil.so")" = "$declared" ] || fail "libqxutil exports other names than qxutil.h declares"
for library in brenvole qxutil; do
  readelf -d "$lib/lib$library.so" | grep -q "SONAME.*lib$library.so.0" || fail "lib$library.so has no soname"
  needed=$(readelf -d "$lib/lib$library.so" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' |
    grep -vE '^(libqxutil|libstdc\+\+|libgcc_s|libm|libc|ld-linux-x86-64|lib[a-z]*san)\.so') && fail "lib$library.so needs $needed"
done
foreign=$(nm -D --undefined-only "$lib/libbrenvole.so" | awk '{print $2}' | grep -E '^(qx|QX|Err|d_List|Copy)' |
  grep -vxF "$declared") && fail "libbrenvole takes names that are no contract: $foreign"

# Loading runs no code but the compiler's own, and what checks a whole heap is for tests.
if ! nm -D "$lib/libbrenvole.so" | grep -qE '__(asan|tsan|ubsan)_'; then
  for library in brenvole qxutil; do
    [ "$(readelf -SW "$lib/lib$library.so" | sed -n 's/.* INIT_ARRAY *[0-9a-f]* [0-9a-f]* \([0-9a-f]*\) .*/\1/p')" = 000008 ] ||
      fail "lib$library.so runs code when it is loaded"
  done
  nm "$lib/libbrenvole.so" | grep -E '_DFHEAP_Check|freeIndexSound' && fail "libbrenvole checks whole heaps"
fi
echo "exports ok"
