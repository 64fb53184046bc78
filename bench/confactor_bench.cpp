// Cost per table entry of the two operations that dominate elimination: the
// product of two confactors and summing an atom out.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "confactor.h"

namespace {

// k binary atoms with ranks 0 .. k-1.
struct Atoms {
  std::vector<std::unique_ptr<Atom>> owned;
  std::vector<Atom*> all;
  explicit Atoms(int k) {
    for (int i = 0; i < k; ++i) {
      owned.emplace_back(new Atom("a" + std::to_string(i), 2));
      owned.back()->rank_ = i;
      all.push_back(owned.back().get());
    }
  }
};

void fillRamp(Confactor& c) {
  for (size_t i = 0; i < c.values_.size(); ++i) {
    c.values_[i] = 0.5 + (i % 7) * 0.1;
  }
}

// A table over all k atoms times one over every other atom: 2^k entries out.
void BM_Product(benchmark::State& state) {
  const int k = state.range(0);
  Atoms atoms(k);
  std::vector<Atom*> half;
  for (int i = 0; i < k; i += 2) {
    half.push_back(atoms.all[i]);
  }
  Confactor a(atoms.all, nullptr, 1.0), b(half, nullptr, 1.0);
  fillRamp(a);
  fillRamp(b);
  for (auto _ : state) {
    Confactor p(&a, &b, nullptr, 0, -1);
    benchmark::DoNotOptimize(p.values_.data());
  }
  state.counters["time_per_entry"] =
      benchmark::Counter(double(a.values_.size()), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

// Sums the middle atom out of a 2^k table. Copies are made in batches
// outside the timed region, since the operation consumes its table.
void BM_Sumout(benchmark::State& state) {
  const int k = state.range(0);
  Atoms atoms(k);
  Atom* middle = atoms.all[k / 2];
  Confactor source(atoms.all, nullptr, 1.0);
  fillRamp(source);
  const size_t batch = std::max<size_t>(1, (size_t(1) << 14) / source.values_.size());
  std::vector<std::unique_ptr<Confactor>> copies;
  size_t next = batch;
  for (auto _ : state) {
    if (next == batch) {
      state.PauseTiming();
      copies.clear();
      for (size_t i = 0; i < batch; ++i) {
        copies.emplace_back(new Confactor(source));
      }
      next = 0;
      state.ResumeTiming();
    }
    copies[next++]->sumoutAtom(middle, false);
  }
  state.counters["time_per_entry"] = benchmark::Counter(
      double(source.values_.size()),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_Product)->DenseRange(4, 16, 2);
BENCHMARK(BM_Sumout)->DenseRange(4, 16, 2);

}  // namespace
