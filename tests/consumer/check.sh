#!/bin/sh
# Installs a build and uses the installed copy as others do: check.sh BUILD_DIRECTORY SOURCE_DIRECTORY
set -eu
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }
runs() { "$@" >"$work/log" 2>&1 && grep -qx 'consumer ok' "$work/log" || { echo "$*"; cat "$work/log"; exit 1; }; }
quietly cmake --install "$build" --prefix "$work/prefix"
libraries=$(dirname "$(find "$work/prefix" -name libbrenvole.so)")
export PKG_CONFIG_PATH="$libraries/pkgconfig"

quietly cmake -G Ninja -S "$source" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/cmake"
for program in cmake_c cmake_cpp cmake_c_static cmake_cpp_static; do
  runs "$work/cmake/$program"
done

# shellcheck disable=SC2046  # the flags are words
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$source/consumer.c" -o "$work/c" $(pkg-config --cflags --libs brenvole)
# shellcheck disable=SC2046
c++ -std=c++20 -Wall -Wextra -Wpedantic -Werror "$source/consumer.cpp" -o "$work/cpp" $(pkg-config --cflags --libs brenvole)
# shellcheck disable=SC2046
cc -std=c11 "$source/consumer.c" -o "$work/static" $(pkg-config --cflags brenvole) \
  "$libraries/libbrenvole.a" "$libraries/libqxutil.a" -lstdc++ -pthread
for program in c cpp static; do
  runs env LD_LIBRARY_PATH="$libraries" "$work/$program"
done
ldd "$work/static" | grep brenvole && exit 1
echo "installed copy: 7 consumers ok"

tool=$work/prefix/bin/brenvole-trace # needs nothing of the library
if [ -e "$tool" ]; then
  QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE=$work/frames.csv LD_LIBRARY_PATH=$libraries "$work/c" >/dev/null 2>&1
  "$tool" summary "$work/frames.csv" | grep -q 'Nothing is outstanding'
  [ -e "$work/prefix/share/man/man1/brenvole-trace.1" ]
  echo "installed copy: brenvole-trace ok"
fi
