#!/bin/sh
# Reads and loads a large program of facts; prints time and peak memory.
#
#   bench/large_program.sh [MEGABYTES]        (after the README's build; 50 by default)
#
# Writes MEGABYTES of facts "p(cN, dN):0.5." into a scratch directory under
# /tmp, then runs each of these in a fresh swipl (default stack limit, 1 GB)
# under ulimit -v 4000000, timed by /usr/bin/time:
#   - read_program/3 (prolog/cplogic_read.pl) counting the clauses;
#   - read_program/3 with check_clause/3 on every clause;
#   - read_program/3 asserting every clause, as a loader that keeps them does;
#   - lpad_load/1, then prob/2 of the first fact.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
mb=${1:-50}
scratch=$(mktemp -d /tmp/cplogic_large.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
prog=$scratch/facts.pl
awk -v bytes=$((mb * 1000000)) 'BEGIN {
    for (i = 0; n < bytes; i++) { line = sprintf("p(c%d, d%d):0.5.", i, i); print line; n += length(line) + 1 }
}' > "$prog"
echo "$(wc -c < "$prog") bytes, $(wc -l < "$prog") clauses in $prog"

reader="use_module('$here/prolog/cplogic_read')"
count="read_program('$prog', [_, _]>>flag(n, N, N + 1), []), flag(n, C, C), format('~d clauses~n', [C])"
check="read_program('$prog', [T, W, Ns]>>check_clause(T, W, Ns), [variable_names(true)]), writeln(checked)"
keep="read_program('$prog', [T, W]>>assertz(kept(T, W)), []), predicate_property(kept(_, _), number_of_clauses(C)), format('~d clauses~n', [C])"
load="use_module('$here/prolog/cplogic'), lpad_load('$prog'), prob(p(c0, d0), P), format('P = ~w~n', [P])"

printf '| run | wall s | CPU s | peak memory (MB) | result |\n|---|---:|---:|---:|---|\n'
run() {
    if ( ulimit -v 4000000; /usr/bin/time -f '%e %U %S %M' -o "$scratch/time" \
             swipl -q -g "catch(($2), E, (print_message(error, E), halt(1)))" -t halt \
                 > "$scratch/out" 2> "$scratch/err" ); then
        result=$(tr '\n' ' ' < "$scratch/out")
    else
        result="failed: $(head -1 "$scratch/err")"
    fi
    set -- "$1" $(tail -1 "$scratch/time")
    printf '| %s | %s | %s | %d | %s |\n' "$1" "$2" "$(awk "BEGIN { printf \"%.2f\", $3 + $4 }")" $(($5 / 1024)) "$result"
}
run "read_program/3" "$reader, $count"
run "read_program/3 + check_clause/3" "$reader, $check"
run "read_program/3 + assertz/1" "$reader, $keep"
run "lpad_load/1 + prob/2" "$load"
