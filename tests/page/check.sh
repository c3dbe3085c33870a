#!/bin/sh
# Opens reports of real traces in a browser: check.sh BRENVOLE_TRACE SCENARIO PLACE, which keeps the browser's driver
set -eu
tool=$1
scenario=$2
place=$3
source=$(dirname "$0")
mkdir -p "$place"
for file in package.json package-lock.json .npmrc check.mjs; do
  cmp -s "$source/$file" "$place/$file" || { cp "$source/$file" "$place/$file"; rm -rf "$place/node_modules"; }
done
cd "$place"
[ -d node_modules ] || npm ci --ignore-scripts --no-audit --no-fund --loglevel=error >npm.log 2>&1 || { cat npm.log; exit 1; }
pages=
for word in clean leak overwrite hostile heaps random; do
  QXUTIL_LOG=/dev/null QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE=$word.csv "$scenario" "$word"
  "$tool" report $word.csv -o $word.html >/dev/null
  pages="$pages $word.html"
done
head -c 5000000 random.csv >cut.csv
"$tool" report cut.csv -o cut.html >/dev/null 2>&1
# shellcheck disable=SC2086  # the pages are several
CHROMIUM=${CHROMIUM:-$(command -v chromium)} node check.mjs $pages cut.html
