// Query cost of CP-logic theories that grow with n, under every method and
// elimination variant. Each case runs in a child process with a time and
// memory limit, so that a family that blows up under one method stops its own
// ladder without stopping the others. Counters: query_s (per query, after the
// first), first_s (the first query, which compiles), peak_MB (the child's
// peak resident memory), err (|answer - exact value|).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "confactor.h"
#include "cptheory.h"

namespace {

const double kLimitSeconds = 10.0;
const rlim_t kMemoryLimit = rlim_t(8) << 30;

// A theory under construction, with its query and the exact answer.
struct Case {
  std::unique_ptr<CPTheory> theory;
  Atom* query = nullptr;
  AtomBody evidence;
  double exact = 0.0;

  explicit Case(const std::string& method, const std::string& elimination)
      : theory(new CPTheory("bench")) {
    theory->setSettings(true, method, elimination);
  }
  Atom* atom(const std::string& name) { return theory->addAtom(name); }
  void rule(std::vector<std::pair<Atom*, double>> head, std::vector<std::pair<Atom*, int>> body) {
    AtomDoubles h;
    for (auto& p : head)
      h.emplace_back(p.first, p.second);
    std::vector<AtomValuePair<int>> b;
    for (auto& p : body)
      b.emplace_back(p.first, p.second);
    theory->addParsedEvent(h, b);
  }
};

// One atom with n independent causes, each a probabilistic fact.
void noisyOr(Case& c, int n) {
  Atom* q = c.atom("q");
  double none = 1.0;
  for (int i = 0; i < n; ++i) {
    double p = 0.01 + 0.3 * ((i * 7919) % 100) / 100.0;
    c.rule({{q, p}}, {});
    none *= 1 - p;
  }
  c.query = q;
  c.exact = 1 - none;
}

// a_0 :- a_1, and a_0..a_{k-1} each 1/k :- a_k: any true a_k makes a_0 true.
void growingHead(Case& c, int n) {
  std::vector<Atom*> a;
  for (int k = 0; k < n; ++k)
    a.push_back(c.atom("a" + std::to_string(k)));
  for (int k = 1; k < n; ++k)
    c.rule({{a[k], 0.5}}, {});
  if (n > 1)
    c.rule({{a[0], 1.0}}, {{a[1], 1}});
  for (int k = 2; k < n; ++k) {
    std::vector<std::pair<Atom*, double>> head;
    for (int j = 0; j < k; ++j)
      head.emplace_back(a[j], 1.0 / k);
    c.rule(head, {{a[k], 1}});
  }
  c.query = a[0];
  c.exact = 1 - std::pow(0.5, n - 1);
}

// a_i:0.5 :- \+a_{i+1}, ..., \+a_{j-1}, a_j for all i < j: a_0 needs the first
// true atom after it, which exists exactly when a_{n-1} holds.
void growingNegatedBody(Case& c, int n) {
  std::vector<Atom*> a;
  for (int k = 0; k < n; ++k)
    a.push_back(c.atom("a" + std::to_string(k)));
  c.rule({{a[n - 1], 0.5}}, {});
  for (int i = 0; i < n; ++i) {
    for (int j = i + 1; j < n; ++j) {
      std::vector<std::pair<Atom*, int>> body;
      for (int k = i + 1; k < j; ++k)
        body.emplace_back(a[k], 0);
      body.emplace_back(a[j], 1);
      c.rule({{a[i], 0.5}}, body);
    }
  }
  c.query = a[0];
  c.exact = n >= 2 ? 0.25 : 0.5;
}

// a_0:0.5, a_i:0.9 :- a_{i-1}, a_i:0.2 :- \+a_{i-1}; the last given a_0.
void chain(Case& c, int n) {
  std::vector<Atom*> a;
  for (int k = 0; k < n; ++k)
    a.push_back(c.atom("a" + std::to_string(k)));
  c.rule({{a[0], 0.5}}, {});
  double p = 1.0;
  for (int k = 1; k < n; ++k) {
    c.rule({{a[k], 0.9}}, {{a[k - 1], 1}});
    c.rule({{a[k], 0.2}}, {{a[k - 1], 0}});
    p = 0.9 * p + 0.2 * (1 - p);
  }
  c.query = a[n - 1];
  c.evidence[a[0]] = 1;
  c.exact = n > 1 ? p : 1.0;
}

// Blood types over a random family of n persons: every person inherits one
// of the mother's chromosomes and one of the father's (selectors s, t); the
// father is a founder who married in, so the answer follows from the allele
// marginals, computed alongside.
void pedigree(Case& c, int n) {
  const char* alleles[3] = {"a", "b", "o"};
  const double prior[3] = {0.3, 0.2, 0.5};
  struct Person {
    Atom* mc[3];
    Atom* pc[3];
    double pm[3], pp[3];
  };
  std::vector<Person> people;
  std::mt19937 rng(12345);
  auto person = [&](int i) {
    Person p;
    for (int x = 0; x < 3; ++x) {
      p.mc[x] = c.atom("mc(p" + std::to_string(i) + "," + alleles[x] + ")");
      p.pc[x] = c.atom("pc(p" + std::to_string(i) + "," + alleles[x] + ")");
    }
    return p;
  };
  auto founder = [&](int i) {
    Person p = person(i);
    c.rule({{p.mc[0], prior[0]}, {p.mc[1], prior[1]}, {p.mc[2], prior[2]}}, {});
    c.rule({{p.pc[0], prior[0]}, {p.pc[1], prior[1]}, {p.pc[2], prior[2]}}, {});
    for (int x = 0; x < 3; ++x)
      p.pm[x] = p.pp[x] = prior[x];
    return p;
  };
  int count = 0;
  people.push_back(founder(count++));
  int last = 0;
  while (count + 2 <= n) {
    const Person& mother = people[std::uniform_int_distribution<size_t>(0, people.size() - 1)(rng)];
    Person father = founder(count++);
    int id = count++;
    Person child = person(id);
    Atom* s = c.atom("s(p" + std::to_string(id) + ")");
    Atom* t = c.atom("t(p" + std::to_string(id) + ")");
    c.rule({{s, 0.5}}, {});
    c.rule({{t, 0.5}}, {});
    for (int x = 0; x < 3; ++x) {
      c.rule({{child.mc[x], 1.0}}, {{s, 1}, {mother.mc[x], 1}});
      c.rule({{child.mc[x], 1.0}}, {{s, 0}, {mother.pc[x], 1}});
      c.rule({{child.pc[x], 1.0}}, {{t, 1}, {father.mc[x], 1}});
      c.rule({{child.pc[x], 1.0}}, {{t, 0}, {father.pc[x], 1}});
      child.pm[x] = 0.5 * (mother.pm[x] + mother.pp[x]);
      child.pp[x] = 0.5 * (father.pm[x] + father.pp[x]);
    }
    people.push_back(father);
    people.push_back(child);
    last = static_cast<int>(people.size()) - 1;
  }
  // Blood type A of the last person: (a,a), (a,o) or (o,a).
  const Person& p = people[last];
  Atom* bt = c.atom("bt_a");
  c.rule({{bt, 1.0}}, {{p.mc[0], 1}, {p.pc[0], 1}});
  c.rule({{bt, 1.0}}, {{p.mc[0], 1}, {p.pc[2], 1}});
  c.rule({{bt, 1.0}}, {{p.mc[2], 1}, {p.pc[0], 1}});
  c.query = bt;
  c.exact = p.pm[0] * (p.pp[0] + p.pp[2]) + p.pm[2] * p.pp[0];
}

struct Result {
  double buildSeconds, firstSeconds, querySeconds, peakMB, value;
};

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

// Runs in the child: build, first query, then repeated queries.
Result measure(const std::function<void(Case&, int)>& family, int n, const std::string& method,
               const std::string& elimination) {
  Result r{};
  auto start = std::chrono::steady_clock::now();
  Case c(method, elimination);
  family(c, n);
  r.buildSeconds = seconds(start);
  auto ask = [&]() {
    std::unique_ptr<Confactor> answer(c.theory->query(c.query, &c.evidence));
    return answer->values_.size() == 2 ? answer->values_[1] : -1.0;
  };
  start = std::chrono::steady_clock::now();
  r.value = ask();
  r.firstSeconds = seconds(start);
  int reps = 0;
  start = std::chrono::steady_clock::now();
  double budget = std::min(1.0, kLimitSeconds - r.firstSeconds - r.buildSeconds);
  while (reps < 20 && (reps == 0 || seconds(start) < budget)) {
    ask();
    ++reps;
  }
  r.querySeconds = seconds(start) / reps;
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  r.peakMB = usage.ru_maxrss / 1024.0;
  return r;
}

// Ladders stop at the first n that fails or exceeds the limit.
std::map<std::string, bool>& stopped() {
  static std::map<std::string, bool> s;
  return s;
}

void runCase(benchmark::State& state, const std::string& ladder,
             const std::function<void(Case&, int)>& family, int n, const std::string& method,
             const std::string& elimination) {
  for (auto _ : state) {
    if (stopped()[ladder]) {
      state.SkipWithError("a smaller n already exceeded the limit");
      return;
    }
    int fds[2];
    if (pipe(fds) != 0) {
      state.SkipWithError("pipe failed");
      return;
    }
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      struct rlimit limit = {kMemoryLimit, kMemoryLimit};
      setrlimit(RLIMIT_AS, &limit);
      alarm(static_cast<unsigned>(kLimitSeconds) + 2);
      Result r = measure(family, n, method, elimination);
      ssize_t written = write(fds[1], &r, sizeof r);
      _exit(written == sizeof r ? 0 : 1);
    }
    close(fds[1]);
    Result r{};
    ssize_t got = read(fds[0], &r, sizeof r);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    double wall = seconds(start);
    if (got != sizeof r || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      stopped()[ladder] = true;
      state.SkipWithError(("no answer within " + std::to_string(int(kLimitSeconds)) +
                           " s and 8 GB (" + std::to_string(wall) + " s)")
                              .c_str());
      return;
    }
    if (r.buildSeconds + r.firstSeconds > kLimitSeconds)
      stopped()[ladder] = true;
    state.SetIterationTime(r.querySeconds);
    state.counters["build_s"] = r.buildSeconds;
    state.counters["first_s"] = r.firstSeconds;
    state.counters["query_s"] = r.querySeconds;
    state.counters["peak_MB"] = r.peakMB;
    state.counters["value"] = r.value;
  }
}

struct Family {
  const char* name;
  std::function<void(Case&, int)> build;
  std::vector<int> ladder;
};

// The exact value needs the theory, which only the child builds; the child
// reports the value and the family recomputes the exact one here.
double exactValue(const Family& f, int n) {
  Case c("cfme", "cst");
  f.build(c, n);
  return c.exact;
}

int registerAll() {
  static const std::vector<Family> families = {
      {"noisyor", noisyOr, {4, 8, 12, 16, 20, 24, 100, 1000, 10000}},
      {"chain", chain, {10, 100, 1000, 10000}},
      {"growhead", growingHead, {4, 6, 8, 10, 12, 14, 16, 18, 20, 25, 50, 100, 200}},
      {"negbody", growingNegatedBody, {4, 8, 16, 25, 50, 100, 150, 200, 300}},
      {"pedigree", pedigree, {11, 31, 101, 301, 1001, 3001}},
  };
  for (const Family& f : families) {
    for (const char* method : {"cf", "tables", "cpts", "cfme"}) {
      for (const char* elimination : {"cst", "absorption"}) {
        std::string ladder = std::string(f.name) + "/" + method + "/" + elimination;
        for (int n : f.ladder) {
          const Family* family = &f;
          std::string m = method, e = elimination;
          benchmark::RegisterBenchmark((ladder + "/n:" + std::to_string(n)).c_str(),
                                       [family, ladder, n, m, e](benchmark::State& state) {
                                         runCase(state, ladder, family->build, n, m, e);
                                         if (!state.error_occurred()) {
                                           double exact = exactValue(*family, n);
                                           state.counters["err"] =
                                               std::fabs(state.counters["value"] - exact);
                                         }
                                       })
              ->Iterations(1)
              ->UseManualTime()
              ->Unit(benchmark::kMillisecond);
        }
      }
    }
  }
  return 0;
}

const int registered = registerAll();

}  // namespace
