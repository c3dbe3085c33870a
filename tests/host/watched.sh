#!/bin/sh
# What memory tools see through the libraries, which aren't built for them: 
# watched.sh LIB_DIRECTORY SOURCE_DIRECTORY WORK TOOL...
set -u
lib=$1 source=$2 work=$3
shift 3
errors=10 # of watched.c; the last one, a lost frame of the pool, is found after the library's own end only
export QXUTIL_LOG=/dev/null LD_LIBRARY_PATH="$lib" ASAN_OPTIONS=exitcode=99:detect_leaks=1
mkdir -p "$work"
bad=0

# Every error ends with the tool's exit code, and the program without one with 0.
try() {
  tool=$1
  shift
  for error in $(seq 0 $errors); do
    "$@" "$error" >"$work/output" 2>&1
    status=$?
    expected=99
    case "$error$tool" in 0* | 10*sanitize*) expected=0 ;; esac
    if [ $status -ne $expected ]; then
      echo "$tool: error $error ends with $status"
      tail -n 30 "$work/output"
      bad=1
    fi
  done
}

for tool in "$@"; do
  case $tool in
  valgrind)
    cc -g -I "$source/include" "$source/tests/host/watched.c" -L "$lib" -lbrenvole -lqxutil -o "$work/plain" || exit 1
    try valgrind valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite "$work/plain"
    ;;
  *)
    $tool -g -fsanitize=address -I "$source/include" "$source/tests/host/watched.c" -L "$lib" -lbrenvole -lqxutil \
      -o "$work/$tool" || exit 1
    try "$tool -fsanitize=address" "$work/$tool"
    ;;
  esac
done
exit $bad
