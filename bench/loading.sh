#!/bin/sh
# Loading and grounding of generated programs, end to end and step by step.
#
#   bench/loading.sh [FAMILY:N ...]      (after the README's build)
#
# For each program (default: the list below) gen_families.py writes it into
# a scratch directory; then
#   - bin/cplogic FILE QUERY runs RUNS times (default 5): the least wall
#     time and the largest peak resident memory (/usr/bin/time);
#   - bench/load_steps.pl times lpad_load/2, the grounding (lpad_ground/2),
#     the first prob/3 (the core's query) and a repeated one, in CPU
#     seconds of the thread.
# Every run is limited to 6 GB of address space (ulimit -v).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
gen=${GEN_FAMILIES:-/work/shared/bench/gen_families.py}
runs=${RUNS:-5}
programs=${*:-"noisy_or:10000 chain:10000 growing_negated_body:200 growing_negated_body:300"}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

printf '| program | file MB | cplogic wall s (least of %s) | peak MB | answer |\n|---|---:|---:|---:|---:|\n' "$runs"
files=""
for p in $programs; do
    family=${p%%:*}
    n=${p#*:}
    python3 "$gen" "$family" "$n" --out "$scratch" > /dev/null
    prog="$scratch/${family}_$n.pl"
    files="$files $prog"
    args=$(python3 -c '
import json, shlex, sys
s = json.load(open(sys.argv[1]))
a = [s["query"]]
for atom, value in s["evidence"]:
    a += ["--given", atom if value else "\\+" + atom]
print(" ".join(shlex.quote(x) for x in a))' "$scratch/${family}_$n.json")
    best="" peak=0 answer=""
    i=0
    while [ $i -lt "$runs" ]; do
        answer=$( (ulimit -v 6000000; eval "/usr/bin/time -f '%e %M' -o '$scratch/time' \"$here/bin/cplogic\" \"\$prog\" $args") 2>&1 | tail -1) || true
        set -- $(tail -1 "$scratch/time")
        best=$(awk -v a="${best:-$1}" -v b="$1" 'BEGIN { print (b < a ? b : a) }')
        [ "$2" -gt "$peak" ] && peak=$2
        i=$((i + 1))
    done
    printf '| %s_%s | %.1f | %s | %d | %s |\n' "$family" "$n" \
        "$(awk -v b="$(wc -c < "$prog")" 'BEGIN { print b / 1e6 }')" "$best" $((peak / 1024)) "${answer##*= }"
done
echo
(ulimit -v 6000000; swipl "$here/bench/load_steps.pl" -- $files)
