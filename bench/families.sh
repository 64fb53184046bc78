#!/bin/sh
# Runs the generated benchmark families end to end and prints their times.
#
#   bench/families.sh [FAMILY:N ...]      (after the README's build)
#
# For each program (default: the list below) gen_families.py writes it into
# a scratch directory; then
#   - bin/cplogic answers its query: wall seconds of the whole command, load
#     and first query included;
#   - bench/lpad_bench.pl loads it and times load, grounding, first query and
#     a repeated query in CPU seconds.
# Every run is limited to 4 GB of address space (ulimit -v).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
gen=${GEN_FAMILIES:-/work/shared/bench/gen_families.py}
runs=${*:-"noisy_or:1000 noisy_or:10000 chain:1000 chain:10000 chain_ev:10000
bloodtype:1000 smokers:1000 growing_head:100 growing_negated_body:20
growing_negated_body:40"}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

printf '| program | cplogic (s) | cplogic answer | expected |\n|---|---:|---:|---:|\n'
files=""
for run in $runs; do
    family=${run%%:*}
    n=${run#*:}
    python3 "$gen" "$family" "$n" --out "$scratch" > /dev/null
    prog="$scratch/${family}_$n.pl"
    files="$files $prog"
    # the query and --given arguments from the program's JSON
    args=$(python3 -c '
import json, shlex, sys
s = json.load(open(sys.argv[1]))
a = [s["query"]]
for atom, value in s["evidence"]:
    a += ["--given", atom if value else "\\+" + atom]
print(" ".join(shlex.quote(x) for x in a))
expected = s["expected"]
print(expected, file=sys.stderr)' "$scratch/${family}_$n.json" 2> "$scratch/expected")
    start=$(date +%s.%N)
    answer=$( (ulimit -v 4000000; eval "\"$here/bin/cplogic\" \"\$prog\" $args") 2>&1 | tail -1) || true
    end=$(date +%s.%N)
    printf '| %s_%s | %.3f | %s | %s |\n' "$family" "$n" "$(echo "$end - $start" | bc)" \
        "${answer##*= }" "$(cat "$scratch/expected")"
done
echo
(ulimit -v 4000000; swipl "$here/bench/lpad_bench.pl" -- $files)
