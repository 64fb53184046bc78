#!/bin/sh
# Reads and loads large programs; prints time and peak memory.
#
#   bench/large_program.sh [MEGABYTES [RULES]]   (after the README's build;
#                                                 50 and 1000000 by default)
#
# Writes MEGABYTES of facts "p(cN, dN):0.5." into a scratch directory under
# /tmp, then runs each of these in a fresh swipl (default stack limit, 1 GB)
# under ulimit -v 4000000, timed by /usr/bin/time:
#   - read_program/3 (prolog/cplogic_read.pl) counting the clauses;
#   - read_program/3 with check_clause/3 on every clause;
#   - read_program/3 asserting every clause, as a loader that keeps them does;
#   - lpad_load/1, then prob/2 of the first and the last fact.
# Then three programs of RULES rules or literals, each loaded with
# lpad_load/1 and queried with prob/2, under ulimit -v 6000000:
#   - a chain "a0:0.5.", "aI:0.9 :- aJ." (J = I - 1), query the last atom
#     (0.5 * 0.9^(RULES-1), which underflows to the smallest float);
#   - one rule "a:0.5 :- \+c1, ..., \+cRULES." (no ci has a clause): 0.5;
#   - one rule "a:0.5 :- b1, ..., bRULES." after the facts "bI.": 0.5.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
mb=${1:-50}
rules=${2:-1000000}
scratch=$(mktemp -d /tmp/cplogic_large.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
prog=$scratch/facts.pl
awk -v bytes=$((mb * 1000000)) 'BEGIN {
    for (i = 0; n < bytes; i++) { line = sprintf("p(c%d, d%d):0.5.", i, i); print line; n += length(line) + 1 }
}' > "$prog"
clauses=$(wc -l < "$prog")
last=$((clauses - 1))
echo "$(wc -c < "$prog") bytes, $clauses clauses in $prog"
awk -v n="$rules" 'BEGIN { print "a0:0.5."; for (i = 1; i < n; i++) printf "a%d:0.9 :- a%d.\n", i, i - 1 }' > "$scratch/chain.pl"
awk -v n="$rules" 'BEGIN { printf "a:0.5 :- \\+c1"; for (i = 2; i <= n; i++) printf ", \\+c%d", i; print "." }' > "$scratch/negbody.pl"
awk -v n="$rules" 'BEGIN { for (i = 1; i <= n; i++) printf "b%d.\n", i;
                          printf "a:0.5 :- b1"; for (i = 2; i <= n; i++) printf ", b%d", i; print "." }' > "$scratch/posbody.pl"

reader="use_module('$here/prolog/cplogic_read')"
count="read_program('$prog', [_, _]>>flag(n, N, N + 1), []), flag(n, C, C), format('~d clauses~n', [C])"
check="read_program('$prog', [T, W, Ns]>>check_clause(T, W, Ns), [variable_names(true)]), writeln(checked)"
keep="read_program('$prog', [T, W]>>assertz(kept(T, W)), []), predicate_property(kept(_, _), number_of_clauses(C)), format('~d clauses~n', [C])"
lib="use_module('$here/prolog/cplogic')"
load="$lib, lpad_load('$prog'), prob(p(c0, d0), P), prob(p(c$last, d$last), Q), format('P = ~w, ~w~n', [P, Q])"

printf '| run | wall s | CPU s | peak memory (MB) | result |\n|---|---:|---:|---:|---|\n'
run() {
    if ( ulimit -v "$1"; /usr/bin/time -f '%e %U %S %M' -o "$scratch/time" \
             swipl -q -g "catch(($3), E, (print_message(error, E), halt(1)))" -t halt \
                 > "$scratch/out" 2> "$scratch/err" ); then
        result=$(tr '\n' ' ' < "$scratch/out")
    else
        result="failed: $(grep -v '^Warning' "$scratch/err" | head -2 | tr '\n' ' ')"
    fi
    set -- "$2" $(tail -1 "$scratch/time")
    printf '| %s | %s | %s | %d | %s |\n' "$1" "$2" "$(awk "BEGIN { printf \"%.2f\", $3 + $4 }")" $(($5 / 1024)) "$result"
}
run 4000000 "read_program/3" "$reader, $count"
run 4000000 "read_program/3 + check_clause/3" "$reader, $check"
run 4000000 "read_program/3 + assertz/1" "$reader, $keep"
run 4000000 "lpad_load/1 + prob/2, $mb MB of facts" "$load"
run 6000000 "chain of $rules rules" "$lib, lpad_load('$scratch/chain.pl'), prob(a$((rules - 1)), P), format('P = ~w~n', [P])"
run 6000000 "rule with $rules negated body literals" "$lib, lpad_load('$scratch/negbody.pl'), prob(a, P), format('P = ~w~n', [P])"
run 6000000 "rule with $rules body atoms, $rules facts" "$lib, lpad_load('$scratch/posbody.pl'), prob(a, P), format('P = ~w~n', [P])"
