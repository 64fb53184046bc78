// Elimination of chains and grids of binary atoms with both variants of the
// engine. Each model is eliminated down to its last atom; "per_atom" is the
// time per eliminated atom.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "confactor.h"
#include "cve.h"

namespace {

// Atoms ranked in creation order, with one conditional table per atom given
// by its parents. Contextual tables are split on the first parent: one
// confactor per value of it, each a table over the child and the other parents.
struct Model {
  std::vector<std::unique_ptr<Atom>> atoms;
  std::vector<std::vector<int>> parents;
  bool contextual;

  Model(int n, bool contextual) : parents(n), contextual(contextual) {
    for (int i = 0; i < n; ++i) {
      atoms.emplace_back(new Atom("x" + std::to_string(i), 2));
      atoms.back()->rank_ = i + 1;
    }
  }

  void fill(CVE* cve, std::mt19937& rng) {
    std::uniform_real_distribution<double> u(0.1, 1.0);
    for (size_t i = 0; i < atoms.size(); ++i) {
      std::vector<Atom*> scope{atoms[i].get()};
      for (int p : parents[i])
        scope.push_back(atoms[p].get());
      const int splits = contextual && !parents[i].empty() ? 2 : 1;
      for (int value = 0; value < splits; ++value) {
        std::vector<double> values(size_t(1) << scope.size());
        for (double& v : values)
          v = u(rng);
        Confactor* c = new Confactor(scope, atoms[i].get(), values);
        if (splits == 2)
          c->shrinkAtom(atoms[parents[i][0]].get(), 1u << value, true);
        cve->addFactor(c);
      }
      cve->addAtom(atoms[i].get());
    }
  }
};

Model chain(int n, bool contextual) {
  Model m(n, contextual);
  for (int i = 1; i < n; ++i)
    m.parents[i] = {i - 1};
  return m;
}

// k x k atoms in row-major order, each with its upper and left neighbours
// as parents: elimination in rank order keeps a frontier of k atoms.
Model grid(int k, bool contextual) {
  Model m(k * k, contextual);
  for (int r = 0; r < k; ++r) {
    for (int c = 0; c < k; ++c) {
      if (r > 0)
        m.parents[r * k + c].push_back((r - 1) * k + c);
      if (c > 0)
        m.parents[r * k + c].push_back(r * k + c - 1);
    }
  }
  return m;
}

void eliminate(benchmark::State& state, Model model, bool tree) {
  std::mt19937 rng(7);
  for (auto _ : state) {
    state.PauseTiming();
    auto cve = std::make_unique<CVE>();
    cve->use_complete_set_tree_ = tree;
    model.fill(cve.get(), rng);
    state.ResumeTiming();
    cve->query(model.atoms.back().get());
    std::unique_ptr<Confactor> cpt(cve->createCPT());
    benchmark::DoNotOptimize(cpt->values_.data());
    state.PauseTiming();
    cve.reset();
    state.ResumeTiming();
  }
  state.counters["per_atom"] = benchmark::Counter(
      static_cast<double>(model.atoms.size() - 1),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_ChainTree(benchmark::State& s) {
  eliminate(s, chain(s.range(0), s.range(1)), true);
}
void BM_ChainNoCST(benchmark::State& s) {
  eliminate(s, chain(s.range(0), s.range(1)), false);
}
void BM_GridTree(benchmark::State& s) {
  eliminate(s, grid(s.range(0), s.range(1)), true);
}
void BM_GridNoCST(benchmark::State& s) {
  eliminate(s, grid(s.range(0), s.range(1)), false);
}

// Second argument: 0 full tables, 1 tables split on a context.
BENCHMARK(BM_ChainTree)->ArgsProduct({{100, 1000, 10000}, {0, 1}})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ChainNoCST)->ArgsProduct({{100, 1000, 10000}, {0, 1}})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GridTree)->ArgsProduct({{3, 5, 7, 9}, {0, 1}})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GridNoCST)->ArgsProduct({{3, 5, 7, 9}, {0, 1}})->Unit(benchmark::kMicrosecond);

}  // namespace
