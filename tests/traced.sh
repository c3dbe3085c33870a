#!/bin/sh
# The model of all commands once more with the trace on, and its file played back: every row's number and count, every
# allocation's begin and end, every list of what is alive. brenvole-trace, where there is one, has to come to the same
# figures, in 100 MB: traced.sh PROGRAM [BRENVOLE_TRACE]
set -eu
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkfifo "$place/rows" "$place/copy" # the file would have some 400 MB
export QXUTIL_LOG=/dev/null QXBRENVOLE_TRACE=1 QXBRENVOLE_TRACE_FILE=$place/rows
{
  exec 3>"$place/rows" # waits for the reader, without whom the trace wouldn't open the pipe
  "$1" --gtest_filter='FrameModel.*' --gtest_brief=1 || touch "$place/failed"
} &
if [ $# -gt 1 ]; then
  (ulimit -v 100000 && exec "$2" summary --json "$place/copy" >"$place/summary") &
else
  cat "$place/copy" >/dev/null &
fi
tee "$place/copy" <"$place/rows" | awk -F, '
function bad(what) { print "row " NR ": " what ": " $0; if (++faults > 9) exit }
function listEnds() { if (listing && listed != alive) bad("a list of " listed " of " alive) ; listing = 0 }
NR == 1 { if (NF != 17 || $1 != "record") bad("header"); next }
$2 != NR - 1 { bad("number") }
$1 == "\"active\"" { ++listed; if (!($7 in live)) bad("listed, not alive"); next }
{ listEnds() }
$1 == "\"summary\"" { listing = 1; listed = 0 }
$4 == "\"alloc\"" && $5 == "\"ok\"" && !($7 in live) { if ($7 <= last) bad("an old number"); live[last = $7]; ++alive }
$7 != 0 && !($7 in live) { bad("not alive") }
$16 != alive { bad("count " alive) }
$5 == "\"release\"" { delete live[$7]; --alive; ++ended }
END {
  listEnds()
  if (faults == 0 && (NR < 50000 || ended < 1000)) bad("too little came of it")
  print NR - 1 " rows, " last " made, " ended " released, " alive + 0 " alive"
  exit faults != 0
}' >"$place/counted" || { cat "$place/counted"; exit 1; }
wait
cat "$place/counted"
[ ! -e "$place/failed" ]
[ $# -gt 1 ] || exit 0
awk -F'[:,]' '
/"events"/ { events = $2 + 0 }
/"all"/ { all = 1 }
all && /"(made|released|count)"/ { figure[$1] = $2 + 0 }
all && /}/ { exit }
function of(name,   key) { for (key in figure) if (index(key, "\"" name "\"")) return figure[key] }
END { print events " rows, " of("made") " made, " of("released") " released, " of("count") " alive" }
' "$place/summary" | diff "$place/counted" -
