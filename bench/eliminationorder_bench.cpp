// Greedy elimination orders of chains, pedigree-like grids and stars of
// binary atoms, every atom eliminated. "per_atom" is the time per atom.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "eliminationorder.h"

namespace {

struct Graph {
  std::vector<std::unique_ptr<Atom>> atoms;
  std::vector<Atom*> all;
  std::vector<std::vector<Atom*>> scopes;

  explicit Graph(int n) {
    for (int i = 0; i < n; ++i) {
      atoms.emplace_back(new Atom("x" + std::to_string(i), 2));
      all.push_back(atoms.back().get());
    }
  }
};

Graph chain(int n) {
  Graph g(n);
  for (int i = 1; i < n; ++i)
    g.scopes.push_back({g.all[i], g.all[i - 1]});
  return g;
}

// k x n atoms in column-major order, each scoped with its left and upper
// atom, as a child with its two parents.
Graph grid(int k, int n) {
  Graph g(k * n);
  for (int c = 0; c < n; ++c) {
    for (int r = 0; r < k; ++r) {
      std::vector<Atom*> s{g.all[c * k + r]};
      if (c > 0)
        s.push_back(g.all[(c - 1) * k + r]);
      if (r > 0)
        s.push_back(g.all[c * k + r - 1]);
      g.scopes.push_back(s);
    }
  }
  return g;
}

// One hub in a scope with each leaf; `hubs` = 2 puts a second hub in every
// scope too.
Graph star(int leaves, int hubs) {
  Graph g(leaves + hubs);
  for (int i = hubs; i < leaves + hubs; ++i) {
    g.scopes.push_back({g.all[0], g.all[i]});
    if (hubs == 2)
      g.scopes.back().push_back(g.all[1]);
  }
  return g;
}

void order(benchmark::State& state, const Graph& g) {
  for (auto _ : state) {
    std::vector<Atom*> o = greedyEliminationOrder(g.scopes, g.all);
    benchmark::DoNotOptimize(o.data());
  }
  state.counters["per_atom"] = benchmark::Counter(
      static_cast<double>(g.all.size()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Chain(benchmark::State& s) {
  order(s, chain(s.range(0)));
}
void BM_Grid(benchmark::State& s) {
  order(s, grid(s.range(0), s.range(1)));
}
void BM_Star(benchmark::State& s) {
  order(s, star(s.range(0), s.range(1)));
}

BENCHMARK(BM_Chain)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Grid)
    ->Args({3, 10000})
    ->Args({3, 333333})
    ->Args({20, 50000})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Star)
    ->Args({10000, 1})
    ->Args({10000, 2})
    ->Args({1000000, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace
