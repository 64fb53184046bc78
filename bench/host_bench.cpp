// The noisy-or query of bench/host_bench.pl made directly in C++, to measure
// what the Prolog host adds to a query.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "confactor.h"
#include "cptheory.h"

namespace {

// The noisy-or family of theory_bench.cpp (q with n causes, the rules q:p_i
// with an empty body), built in the order the Prolog benchmark adds them and
// with the host's settings.
void BM_NoisyOrQuery(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  CPTheory theory("");
  theory.setSettings(true, "cf", "cst");
  Atom* q = theory.addAtom("q");
  for (int i = 0; i < n; ++i) {
    AtomDoubles head{AtomValuePair<double>(q, 0.01 + 0.3 * ((i * 7919) % 100) / 100.0)};
    std::vector<AtomValuePair<int>> body;
    theory.addParsedEvent(head, body);
  }
  theory.compile();
  AtomBody evidence;
  for (auto _ : state) {
    Confactor* result = theory.query(q, &evidence);
    benchmark::DoNotOptimize(result->values_[1]);
    delete result;
  }
}

BENCHMARK(BM_NoisyOrQuery)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
