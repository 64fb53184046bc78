#!/usr/bin/env python3
"""Reachability over graphs with cycles through bin/cplogic, against exact
references computed here.

    python3 bench/graphs.py [ladder:N[:left] | random:N:SEED ...]   (after the README's build)

ladder:N   a 2 x N ladder of undirected probabilistic edges (rungs and rails
           0.5, 0.6, ..., 0.9 in turn); query path(t1, bN); ladder:N:left
           writes path/2 left-recursive. Reference: a
           frontier dynamic program over the columns (connectivity of the
           last column's two nodes and the start), exact in fractions.
random:N:SEED  N nodes n1..nN and 2N distinct directed edges drawn with
           random.Random(SEED) (probabilities 0.5 ... 0.9); query
           path(n1, nN). Reference: a search that reveals the out-edges of
           one reached node at a time, memoised on (reached, revealed);
           exponential, so only up to N = 30.

Each program is written in the P::H notation with a query/1 fact and run as
`bin/cplogic FILE` under `ulimit -v 4000000`; the table shows the wall
seconds of the whole command, its answer and the reference.
"""
import os
import random
import subprocess
import sys
import tempfile
import time
from fractions import Fraction
from functools import lru_cache

HERE = os.path.dirname(os.path.abspath(__file__))
CPLOGIC = os.path.join(HERE, "..", "bin", "cplogic")
RULES = "path(X,Y) :- edge(X,Y).\npath(X,Y) :- edge(X,Z), path(Z,Y).\n"
LEFT = "path(X,Y) :- edge(X,Y).\npath(X,Y) :- path(X,Z), edge(Z,Y).\n"


def ladder(n):
    edges = []
    for i in range(1, n + 1):
        edges.append((f"t{i}", f"b{i}"))
        if i < n:
            edges.append((f"t{i}", f"t{i + 1}"))
            edges.append((f"b{i}", f"b{i + 1}"))
    return [(a, b, Fraction(5 + k % 5, 10)) for k, (a, b) in enumerate(edges)]


def ladder_program(n, rules):
    facts = "".join(f"{float(p)}::link({a},{b}).\n" for a, b, p in ladder(n))
    return (facts + "edge(X,Y) :- link(X,Y).\nedge(X,Y) :- link(Y,X).\n" + rules
            + f"query(path(t1,b{n})).\n")


def ladder_reference(n):
    """Frontier DP: edges in order; a state is the partition of the live
    nodes, the start marked 'S'; a node leaves after its last edge."""
    edges = ladder(n)
    target = f"b{n}"
    last = {}
    for i, (a, b, _) in enumerate(edges):
        last[a] = last[b] = i
    states = {frozenset([frozenset(["S", "t1"])]): Fraction(1)}
    for i, (a, b, p) in enumerate(edges):
        new = {}
        for state, w in states.items():
            for present, pw in ((True, p), (False, 1 - p)):
                blocks = [set(x) for x in state]
                for v in (a, b):
                    if not any(v in x for x in blocks):
                        blocks.append({v})
                if present:
                    ba = next(x for x in blocks if a in x)
                    bb = next(x for x in blocks if b in x)
                    if ba is not bb:
                        ba |= bb
                        blocks.remove(bb)
                kept = frozenset(frozenset(v for v in x if v in ("S", target) or last[v] > i)
                                 for x in blocks)
                kept = frozenset(x for x in kept if x)
                new[kept] = new.get(kept, 0) + w * pw
        states = new
    return sum(w for s, w in states.items() if any("S" in x and target in x for x in s))


def random_graph(n, seed):
    rnd = random.Random(seed)
    edges = set()
    while len(edges) < 2 * n:
        a, b = rnd.randrange(1, n + 1), rnd.randrange(1, n + 1)
        if a != b:
            edges.add((a, b))
    return [(f"n{a}", f"n{b}", Fraction(rnd.choice([5, 6, 7, 8, 9]), 10))
            for a, b in sorted(edges)]


def random_program(n, seed):
    facts = "".join(f"{float(p)}::edge({a},{b}).\n" for a, b, p in random_graph(n, seed))
    return facts + RULES + f"query(path(n1,n{n})).\n"


def random_reference(n, seed):
    out = {}
    for a, b, p in random_graph(n, seed):
        out.setdefault(a, []).append((b, p))
    target = f"n{n}"

    @lru_cache(maxsize=None)
    def prob(reached, revealed):
        if target in reached:
            return Fraction(1)
        todo = sorted(reached - revealed)
        if not todo:
            return Fraction(0)
        u = todo[0]
        outs = [(v, p) for v, p in out.get(u, []) if v not in reached]
        total = Fraction(0)
        for mask in range(1 << len(outs)):
            w, new = Fraction(1), set()
            for k, (v, p) in enumerate(outs):
                if mask >> k & 1:
                    w *= p
                    new.add(v)
                else:
                    w *= 1 - p
            total += w * prob(reached | frozenset(new), revealed | {u})
        return total

    return prob(frozenset(["n1"]), frozenset())


def run(run_name, scratch):
    kind, *args = run_name.split(":")
    if kind == "ladder":
        n = int(args[0])
        rules = LEFT if args[1:] == ["left"] else RULES
        text, reference = ladder_program(n, rules), ladder_reference
        ref_args = (n,)
    else:
        n, seed = int(args[0]), int(args[1])
        text, reference = random_program(n, seed), random_reference
        ref_args = (n, seed)
    path = os.path.join(scratch, run_name.replace(":", "_") + ".pl")
    with open(path, "w") as f:
        f.write(text)
    start = time.perf_counter()
    proc = subprocess.run(["sh", "-c", 'ulimit -v 4000000; exec "$0" "$1"', CPLOGIC, path],
                          capture_output=True, text=True)
    seconds = time.perf_counter() - start
    answer = proc.stdout.strip().rsplit(" ", 1)[-1] if proc.returncode == 0 else \
        proc.stderr.strip().splitlines()[-1][:60]
    if kind == "random" and n > 30:
        expected = "-"
    else:
        expected = f"{float(reference(*ref_args)):.6g}"
    return f"| {run_name} | {seconds:.2f} | {answer} | {expected} |"


def main():
    runs = sys.argv[1:] or ["ladder:10", "ladder:100", "ladder:400", "ladder:1000",
                             "ladder:100:left"] + \
        [f"random:20:{s}" for s in (2, 3, 4, 5, 6, 9)] + \
        ["random:30:3", "random:30:4", "random:40:3", "random:40:4", "random:40:5"]
    print("| program | cplogic (s) | cplogic answer | reference |\n|---|---:|---:|---:|")
    with tempfile.TemporaryDirectory() as scratch:
        for run_name in runs:
            print(run(run_name, scratch), flush=True)


if __name__ == "__main__":
    main()
