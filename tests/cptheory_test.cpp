#include <gtest/gtest.h>

#include <cmath>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "confactor.h"
#include "cptheory.h"
#include "cve.h"

namespace {

// ---------------------------------------------------------------------------
// Reference semantics, independent of the engine: every ground rule whose body
// holds picks one head atom (or none) on its own; a world is what the picks
// make true. Rules are taken in an order where their body atoms are final.

struct RefRule {
  std::vector<std::pair<int, double>> head;
  std::vector<std::pair<int, int>> body;  // atom, value
};

struct RefTheory {
  int atoms = 0;
  std::vector<RefRule> rules;
};

std::map<unsigned, double> refWorlds(const RefTheory& t) {
  std::vector<int> open(t.atoms, 0);  // unprocessed rules heading each atom
  for (const RefRule& r : t.rules)
    for (auto& h : r.head)
      ++open[h.first];
  std::vector<bool> done(t.rules.size(), false);
  std::map<unsigned, double> worlds{{0u, 1.0}};
  for (size_t step = 0; step < t.rules.size(); ++step) {
    size_t pick = t.rules.size();
    for (size_t i = 0; i < t.rules.size() && pick == t.rules.size(); ++i) {
      bool ready = !done[i];
      for (auto& b : t.rules[i].body)
        ready = ready && open[b.first] == 0;
      if (ready)
        pick = i;
    }
    if (pick == t.rules.size())
      ADD_FAILURE() << "cyclic reference theory";
    const RefRule& r = t.rules[pick];
    done[pick] = true;
    for (auto& h : r.head)
      --open[h.first];
    std::map<unsigned, double> next;
    for (auto& w : worlds) {
      bool holds = true;
      for (auto& b : r.body)
        holds = holds && (((w.first >> b.first) & 1u) == unsigned(b.second));
      if (!holds) {
        next[w.first] += w.second;
        continue;
      }
      double none = 1.0;
      for (auto& h : r.head) {
        next[w.first | (1u << h.first)] += w.second * h.second;
        none -= h.second;
      }
      next[w.first] += w.second * none;
    }
    worlds.swap(next);
  }
  return worlds;
}

// P(q | evidence); *pe receives P(evidence).
double refQuery(const RefTheory& t, int q, const std::vector<std::pair<int, int>>& evidence,
                double* pe = nullptr) {
  double both = 0.0, ev = 0.0;
  for (auto& w : refWorlds(t)) {
    bool consistent = true;
    for (auto& e : evidence)
      consistent = consistent && (((w.first >> e.first) & 1u) == unsigned(e.second));
    if (!consistent)
      continue;
    ev += w.second;
    if ((w.first >> q) & 1u)
      both += w.second;
  }
  if (pe != nullptr)
    *pe = ev;
  return ev > 0 ? both / ev : 0.0;
}

// ---------------------------------------------------------------------------
// The same theory handed to the system.

struct Config {
  const char* method;
  const char* elimination;
  bool compileBodies;
};

// Every method and elimination variant; with withoutBodies also every rule
// as an event of its own.
std::vector<Config> allConfigs(bool withoutBodies = true) {
  std::vector<Config> configs;
  for (bool compile : {true, false})
    for (const char* m : {"cf", "tables", "cpts", "cfme"})
      for (const char* e : {"cst", "absorption"})
        if (compile || withoutBodies)
          configs.push_back({m, e, compile});
  return configs;
}

std::string describe(const Config& c);

void PrintTo(const Config& c, std::ostream* os) {
  *os << describe(c);
}

bool factorises(const Config& c) {
  return std::string(c.method) == "cf" || std::string(c.method) == "tables";
}

std::string describe(const Config& c) {
  return std::string(c.method) + "/" + c.elimination + (c.compileBodies ? "" : "/no-bodies");
}

std::unique_ptr<CPTheory> build(const RefTheory& t, const Config& c,
                                const std::vector<std::string>& names = {}) {
  auto theory = std::make_unique<CPTheory>("T");
  theory->setSettings(c.compileBodies, c.method, c.elimination);
  std::vector<Atom*> atoms;
  for (int i = 0; i < t.atoms; ++i)
    atoms.push_back(theory->addAtom(names.empty() ? "a" + std::to_string(i) : names[i]));
  for (const RefRule& r : t.rules) {
    AtomDoubles head;
    for (auto& h : r.head)
      head.emplace_back(atoms[h.first], h.second);
    std::vector<AtomValuePair<int>> body;
    for (auto& b : r.body)
      body.emplace_back(atoms[b.first], b.second);
    theory->addParsedEvent(head, body);
  }
  return theory;
}

double probTrue(CPTheory& theory, const std::string& q,
                const std::vector<std::pair<std::string, int>>& evidence = {}) {
  AtomBody observations;
  for (auto& e : evidence)
    observations[theory.getAtom(e.first)] = e.second;
  std::unique_ptr<Confactor> result(theory.query(theory.getAtom(q), &observations));
  EXPECT_EQ(result->values_.size(), 2u);
  return result->values_.at(1);
}

// Rules the system gathers and places as the semantics does not (see
// docs/semantics.md); found on the built theory.
struct Deviations {
  bool negatedSingleRule = false;  // factorised single rule with a \+ literal
  bool longerHeadJoined = false;   // a rule whose head extends its event's
  bool ruleNotPlaced = false;      // a rule that found no leaf in the body tree
};

int countLeaves(const CPBodyAtom* node) {
  if (node == nullptr)
    return 0;
  int n = node->probabilities_ != nullptr ? 1 : 0;
  for (const CPBodyAtom* child : node->children_)
    n += countLeaves(child);
  return n;
}

Deviations findDeviations(CPTheory& theory) {
  theory.compile();
  Deviations d;
  for (const CPEvent* e : theory.events_) {
    bool factorised = theory.use_confactors_ && e->rule_count_ == 1 && !e->emptyBody();
    if (factorised && e->parsed_events_.size() == 1)
      for (auto& b : e->parsed_events_[0].body_)
        d.negatedSingleRule |= b.value_ == 0;
    if (factorised && e->parsed_events_.empty() && e->body_tree_ != nullptr) {
      for (const CPBodyAtom* n = e->body_tree_; n->atom_ != nullptr;) {
        size_t v = std::find_if(n->children_.begin(), n->children_.end(),
                                [](CPBodyAtom* c) { return c != nullptr; }) -
                   n->children_.begin();
        d.negatedSingleRule |= v == 0;
        n = n->children_[v];
      }
    }
    for (auto& p : e->parsed_events_)
      d.longerHeadJoined |= p.head_.size() > e->head_atoms_.size();
    d.ruleNotPlaced |= countLeaves(e->body_tree_) < e->rule_count_;
  }
  return d;
}

// ---------------------------------------------------------------------------
// Random acyclic ground theories: a rule's body atoms come after its head atoms.

RefTheory randomTheory(std::mt19937& rng) {
  auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  auto real = [&]() { return std::uniform_real_distribution<double>(0.0, 1.0)(rng); };
  RefTheory t;
  t.atoms = uniform(3, 12);
  auto makeHead = [&](int maxHead) {
    std::vector<int> pool;
    for (int i = 0; i <= maxHead; ++i)
      pool.push_back(i);
    std::shuffle(pool.begin(), pool.end(), rng);
    pool.resize(std::min<int>(pool.size(), uniform(1, 4)));
    double mass = real() < 0.3 ? 1.0 : 0.2 + 0.8 * real();
    std::vector<double> w(pool.size());
    double sum = 0;
    for (double& x : w)
      sum += (x = 0.1 + real());
    std::vector<std::pair<int, double>> head;
    for (size_t i = 0; i < pool.size(); ++i)
      head.emplace_back(pool[i], w[i] / sum * mass);
    return head;
  };
  auto randomBody = [&](int from) {
    std::vector<int> pool;
    for (int i = from; i < t.atoms; ++i)
      pool.push_back(i);
    std::shuffle(pool.begin(), pool.end(), rng);
    pool.resize(std::min<int>(pool.size(), uniform(0, 3)));
    std::vector<std::pair<int, int>> body;
    for (int a : pool)
      body.emplace_back(a, uniform(0, 2) == 0 ? 0 : 1);
    return body;
  };
  auto excludes = [](const std::vector<std::pair<int, int>>& x,
                     const std::vector<std::pair<int, int>>& y) {
    for (auto& a : x)
      for (auto& b : y)
        if (a.first == b.first && a.second != b.second)
          return true;
    return false;
  };

  int groups = uniform(2, 7);
  for (int g = 0; g < groups; ++g) {
    int maxHead = uniform(0, t.atoms - 2);
    auto head = makeHead(maxHead);
    int from = 0;
    for (auto& h : head)
      from = std::max(from, h.first + 1);
    int kind = uniform(0, 9);
    if (kind < 5 || t.atoms - from < 1) {
      t.rules.push_back({head, randomBody(from)});
    } else if (kind < 9) {
      // Rules of one head with pairwise exclusive bodies; sometimes one of
      // them extends the head with a further atom.
      std::vector<std::vector<std::pair<int, int>>> bodies;
      for (int tries = 0; tries < 30 && bodies.size() < 3; ++tries) {
        auto body = randomBody(from);
        bool ok = !body.empty();
        for (auto& other : bodies)
          ok = ok && excludes(body, other);
        if (ok)
          bodies.push_back(body);
      }
      for (size_t i = 0; i < bodies.size(); ++i) {
        auto h = makeHead(maxHead);
        h.resize(std::min(h.size(), head.size()));
        for (size_t j = 0; j < h.size(); ++j)
          h[j].first = head[j].first;
        if (i > 0 && uniform(0, 4) == 0 && h.size() == head.size() && from > 0) {
          int extra = uniform(0, from - 1);
          bool fresh = true;
          for (auto& x : h)
            fresh = fresh && x.first != extra;
          double scale = 0.7;
          for (auto& x : h)
            x.second *= scale;
          if (fresh)
            h.emplace_back(extra, 0.25);
        }
        t.rules.push_back({h, bodies[i]});
      }
    } else if (t.atoms - from >= 3) {
      // Three exclusive rules, each body atom in exactly two of them.
      int x = from + uniform(0, t.atoms - from - 3), y = x + 1, z = x + 2;
      int sx = uniform(0, 1), sy = uniform(0, 1), sz = uniform(0, 1);
      t.rules.push_back({head, {{x, sx}, {y, sy}}});
      t.rules.push_back({makeHead(maxHead), {{x, 1 - sx}, {z, sz}}});
      t.rules.back().head.resize(1);
      t.rules.back().head[0].first = head[0].first;
      t.rules.push_back({{{head[0].first, 0.35}}, {{y, 1 - sy}, {z, 1 - sz}}});
      t.rules[t.rules.size() - 3].head.resize(1);
    }
  }
  return t;
}

TEST(CPTheoryOracle, RandomTheoriesMatchEnumerationUnderEverySetting) {
  std::mt19937 rng(20240611);
  int compared = 0, excluded = 0, zeroAnswers = 0;
  Deviations seen;
  for (int n = 0; n < 120; ++n) {
    RefTheory t = randomTheory(rng);
    std::vector<std::pair<int, int>> evidence;
    double pe = 0.0;
    for (int tries = 0; tries < 20; ++tries) {
      evidence.clear();
      int count = std::uniform_int_distribution<int>(0, 3)(rng);
      for (int i = 0; i < count; ++i) {
        int a = std::uniform_int_distribution<int>(0, t.atoms - 1)(rng);
        bool fresh = true;
        for (auto& e : evidence)
          fresh = fresh && e.first != a;
        if (fresh)
          evidence.emplace_back(a, std::uniform_int_distribution<int>(0, 1)(rng));
      }
      refQuery(t, 0, evidence, &pe);
      if (pe > 1e-6)
        break;
    }
    if (pe <= 1e-6)
      evidence.clear();
    for (const Config& config : allConfigs()) {
      auto theory = build(t, config);
      Deviations d = findDeviations(*theory);
      seen.negatedSingleRule |= d.negatedSingleRule;
      seen.longerHeadJoined |= d.longerHeadJoined;
      seen.ruleNotPlaced |= d.ruleNotPlaced;
      // The three behaviours documented in docs/semantics.md are left out of
      // the comparison (and tested on their own below).
      if (d.negatedSingleRule || d.longerHeadJoined || d.ruleNotPlaced) {
        ++excluded;
        continue;
      }
      ++compared;
      AtomBody observations;
      for (auto& e : evidence)
        observations[theory->getAtom("a" + std::to_string(e.first))] = e.second;
      for (int q = 0; q < t.atoms; ++q) {
        std::unique_ptr<Confactor> result(
            theory->query(theory->getAtom("a" + std::to_string(q)), &observations));
        ASSERT_EQ(result->values_.size(), 2u);
        double expected = refQuery(t, q, evidence);
        // With "cfme" the engine can lose a factor that is one where it is
        // absent (see docs/semantics.md): the answer is then exactly 0.
        if (std::string(config.method) == "cfme" && result->values_[1] == 0.0 && expected > 0) {
          ++zeroAnswers;
          continue;
        }
        EXPECT_NEAR(result->values_[1], expected, 1e-9)
            << "theory " << n << " query a" << q << " under " << describe(config) << " given "
            << AtomBodyOps::str(observations) << "\n"
            << theory->str(false);
      }
    }
  }
  EXPECT_TRUE(seen.negatedSingleRule && seen.longerHeadJoined && seen.ruleNotPlaced);
  // Factorised single rules with a negated literal are common in random
  // theories, so most exclusions are of "cf" and "tables" without bodies.
  std::cout << "compared " << compared << " theory-settings, excluded " << excluded
            << "; cfme answers of 0 left out: " << zeroAnswers << "\n";
  EXPECT_LT(zeroAnswers, 20);
  EXPECT_GT(compared, excluded / 2);
}

// ---------------------------------------------------------------------------
// Classics with hand-worked numbers, under every setting.

class CPTheoryClassics : public testing::TestWithParam<Config> {};

TEST_P(CPTheoryClassics, NoisyOrAlarmWithCalls) {
  // burglary:0.1. earthquake:0.2. alarm:0.9 :- burglary. alarm:0.8 :- earthquake.
  // john:0.8 :- alarm. mary:0.7 :- alarm.
  RefTheory t{5,
              {{{{0, 0.1}}, {}},
               {{{1, 0.2}}, {}},
               {{{2, 0.9}}, {{0, 1}}},
               {{{2, 0.8}}, {{1, 1}}},
               {{{3, 0.8}}, {{2, 1}}},
               {{{4, 0.7}}, {{2, 1}}}}};
  auto theory = build(t, GetParam(), {"burglary", "earthquake", "alarm", "john", "mary"});
  const double alarm = 1 - (1 - 0.09) * (1 - 0.16);  // 0.2356
  EXPECT_NEAR(probTrue(*theory, "alarm"), alarm, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "john"), 0.8 * alarm, 1e-12);
  const double alarmGivenBurglary = 1 - 0.1 * 0.84;
  EXPECT_NEAR(probTrue(*theory, "burglary", {{"john", 1}}),
              0.1 * 0.8 * alarmGivenBurglary / (0.8 * alarm), 1e-12);
  EXPECT_NEAR(probTrue(*theory, "burglary", {{"john", 1}, {"mary", 1}}),
              0.1 * alarmGivenBurglary / alarm, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "earthquake", {{"alarm", 0}}), 0.2 * 0.2 * 0.91 / (1 - alarm),
              1e-12);
}

TEST_P(CPTheoryClassics, Sneezing) {
  // flu:0.3. hay_fever:0.2. sneeze:0.6 ; cough:0.3 :- flu. sneeze:0.8 :- hay_fever.
  RefTheory t{4,
              {{{{0, 0.3}}, {}},
               {{{1, 0.2}}, {}},
               {{{2, 0.6}, {3, 0.3}}, {{0, 1}}},
               {{{2, 0.8}}, {{1, 1}}}}};
  auto theory = build(t, GetParam(), {"flu", "hay_fever", "sneeze", "cough"});
  EXPECT_NEAR(probTrue(*theory, "sneeze"), 1 - 0.82 * 0.84, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "cough"), 0.09, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "flu", {{"sneeze", 1}}), 0.3 * (1 - 0.4 * 0.84) / (1 - 0.82 * 0.84),
              1e-12);
  // A cough rules out a sneeze from the flu, not from hay fever.
  EXPECT_NEAR(probTrue(*theory, "sneeze", {{"cough", 1}}), 0.16, 1e-12);
}

TEST_P(CPTheoryClassics, TwoGenerationInheritance) {
  // mother:0.3. father:0.4. child:0.5 :- mother. child:0.5 :- father.
  // grandchild:0.5 :- child. trait:0.9 :- child. trait:0.05 :- \+child.
  RefTheory t{5,
              {{{{0, 0.3}}, {}},
               {{{1, 0.4}}, {}},
               {{{2, 0.5}}, {{0, 1}}},
               {{{2, 0.5}}, {{1, 1}}},
               {{{3, 0.5}}, {{2, 1}}},
               {{{4, 0.9}}, {{2, 1}}},
               {{{4, 0.05}}, {{2, 0}}}}};
  auto theory = build(t, GetParam(), {"mother", "father", "child", "grandchild", "trait"});
  EXPECT_NEAR(probTrue(*theory, "child"), 0.32, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "grandchild"), 0.16, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "mother", {{"grandchild", 1}}), 0.5625, 1e-12);
  EXPECT_NEAR(probTrue(*theory, "trait"), 0.322, 1e-12);
  // Given the mother, the child has the gene with 0.75 (father) or 0.5.
  EXPECT_NEAR(probTrue(*theory, "father", {{"trait", 0}, {"mother", 1}}),
              0.4 * 0.3125 / (0.4 * 0.3125 + 0.6 * 0.525), 1e-12);
}

// Written as rules that share heads, the classics are exact under every method
// and variant; without compiled bodies "trait:0.05 :- \+child." would be a
// factorised single rule with a negated literal.
INSTANTIATE_TEST_SUITE_P(AllSettings, CPTheoryClassics, testing::ValuesIn(allConfigs(false)),
                         [](const testing::TestParamInfo<Config>& info) {
                           std::string s = describe(info.param);
                           std::replace(s.begin(), s.end(), '/', '_');
                           std::replace(s.begin(), s.end(), '-', '_');
                           return s;
                         });

// ---------------------------------------------------------------------------
// The documented departures from the semantics, each on its own theory.

TEST(CPTheoryDepartures, FactorisedSingleRuleTestsTheAtomTrue) {
  // a:0.4. h:0.5 :- \+a.   semantics 0.3; factorised 0.5 * P(a) = 0.2.
  RefTheory t{2, {{{{0, 0.4}}, {}}, {{{1, 0.5}}, {{0, 0}}}}};
  std::vector<std::string> names{"a", "h"};
  for (const Config& c : allConfigs()) {
    auto theory = build(t, c, names);
    bool factorised = factorises(c);
    EXPECT_NEAR(probTrue(*theory, "h"), factorised ? 0.2 : 0.3, 1e-12) << describe(c);
    EXPECT_NEAR(probTrue(*theory, "h", {{"a", 0}}), factorised ? 0.0 : 0.5, 1e-12) << describe(c);
  }
  // Written with a second rule of probability 0 the event is no longer a
  // single rule and every setting is exact.
  t.rules.push_back({{{1, 0.0}}, {{0, 1}}});
  for (const Config& c : allConfigs()) {
    if (c.compileBodies) {
      EXPECT_NEAR(probTrue(*build(t, c, names), "h"), 0.3, 1e-12) << describe(c);
    }
  }
}

TEST(CPTheoryDepartures, LongerHeadJoinsOnItsPrefix) {
  // a:0.4. h:0.5 :- a. h:0.2 ; g:0.7 :- \+a.
  // The third rule joins the event of head [h]: g is dropped and its leaf is
  // cut to [0.1, 0.2], so the mass 0.4 + 0.6 * 0.3 is renormalised.
  RefTheory t{3, {{{{0, 0.4}}, {}}, {{{1, 0.5}}, {{0, 1}}}, {{{1, 0.2}, {2, 0.7}}, {{0, 0}}}}};
  std::vector<std::string> names{"a", "h", "g"};
  for (const Config& c : allConfigs()) {
    auto theory = build(t, c, names);
    if (c.compileBodies) {
      EXPECT_NEAR(probTrue(*theory, "h"), 0.32 / 0.58, 1e-12) << describe(c);
      EXPECT_NEAR(probTrue(*theory, "g"), 0.0, 1e-12) << describe(c);
    } else if (!factorises(c)) {
      EXPECT_NEAR(probTrue(*theory, "h"), 0.32, 1e-12) << describe(c);
      EXPECT_NEAR(probTrue(*theory, "g"), 0.42, 1e-12) << describe(c);
    }
  }
  // The longer head first: the shorter one is refused and starts its own
  // event. (With "cf" or "tables" that event is a single rule with a negated
  // literal, the departure above.)
  std::swap(t.rules[1], t.rules[2]);
  for (const Config& c : allConfigs()) {
    if (factorises(c))
      continue;
    auto theory = build(t, c, names);
    EXPECT_NEAR(probTrue(*theory, "h"), 0.32, 1e-12) << describe(c);
    EXPECT_NEAR(probTrue(*theory, "g"), 0.42, 1e-12) << describe(c);
  }
}

TEST(CPTheoryDepartures, RuleMeetingAnUnmentionedTestIsNotPlaced) {
  // a:0.3. b:0.6. c:0.7. h:0.2 :- b,c. h:0.3 :- \+b,a. h:0.4 :- \+c,\+a.
  RefTheory t{4,
              {{{{0, 0.3}}, {}},
               {{{1, 0.6}}, {}},
               {{{2, 0.7}}, {}},
               {{{3, 0.2}}, {{1, 1}, {2, 1}}},
               {{{3, 0.3}}, {{1, 0}, {0, 1}}},
               {{{3, 0.4}}, {{2, 0}, {0, 0}}}}};
  std::vector<std::string> names{"a", "b", "c", "h"};
  const double r1 = 0.2 * 0.6 * 0.7, r2 = 0.3 * 0.4 * 0.3, r3 = 0.4 * 0.3 * 0.7;
  for (const Config& c : allConfigs()) {
    auto theory = build(t, c, names);
    if (c.compileBodies) {
      // The root tests the atom of highest rank among those of equal count;
      // the one rule that does not mention it is lost. Which atom that is
      // depends on the ranking, so any one of the three may go.
      double p = probTrue(*theory, "h");
      bool oneLost = std::fabs(p - (r1 + r3)) < 1e-12 || std::fabs(p - (r1 + r2)) < 1e-12 ||
                     std::fabs(p - (r2 + r3)) < 1e-12;
      EXPECT_TRUE(oneLost) << describe(c) << " gives " << p;
    } else if (!factorises(c)) {
      EXPECT_NEAR(probTrue(*theory, "h"), r1 + r2 + r3, 1e-12) << describe(c);
    }
  }
  // The same rules as a decision tree on b are all placed.
  t.rules.pop_back();
  t.rules.push_back({{{3, 0.4}}, {{1, 1}, {2, 0}, {0, 0}}});
  t.rules.push_back({{{3, 0.4}}, {{1, 0}, {2, 0}, {0, 0}}});
  for (const Config& c : allConfigs()) {
    if (c.compileBodies) {
      EXPECT_NEAR(probTrue(*build(t, c, names), "h"), r1 + r2 + r3, 1e-12) << describe(c);
    }
  }
}

// ---------------------------------------------------------------------------
// Events: acceptance, trees and conversion.

struct Fixture {
  CPTheory theory{"T"};
  Atom* a = theory.addAtom("a");
  Atom* b = theory.addAtom("b");
  Atom* h = theory.addAtom("h");
  Atom* g = theory.addAtom("g");
  AtomDoubles head(std::vector<std::pair<Atom*, double>> pairs) {
    AtomDoubles out;
    for (auto& p : pairs)
      out.emplace_back(p.first, p.second);
    return out;
  }
  std::vector<AtomValuePair<int>> body(std::vector<std::pair<Atom*, int>> pairs) {
    std::vector<AtomValuePair<int>> out;
    for (auto& p : pairs)
      out.emplace_back(p.first, p.second);
    return out;
  }
};

TEST(CPEventRules, AcceptanceAndLeaves) {
  Fixture f;
  CPEvent e(&f.theory);
  EXPECT_EQ(e.getAtomRepresentation()->name_, "C" + std::to_string(e.id_));
  auto hd = f.head({{f.h, 0.3}, {f.g, 0.7}});
  auto a1 = f.body({{f.a, 1}}), a0 = f.body({{f.a, 0}}), b1 = f.body({{f.b, 1}});
  EXPECT_TRUE(e.addParsedEvent(hd, a1, false));
  EXPECT_TRUE(e.addParsedEvent(hd, a0, false));
  EXPECT_FALSE(e.addParsedEvent(hd, b1, false));
  EXPECT_FALSE(e.addParsedEvent(hd, a1, false));  // a duplicate
  auto other = f.head({{f.g, 0.3}});
  EXPECT_FALSE(e.addParsedEvent(other, b1, false));
  EXPECT_EQ(e.getAtomRepresentation()->domainsize_, 3u);
  EXPECT_FALSE(e.emptyBody());
  e.compileParsedEvents();
  ASSERT_EQ(e.body_tree_->atom_, f.a);
  EXPECT_EQ(*e.body_tree_->children_[1]->probabilities_, (std::vector<double>{0.0, 0.3, 0.7}));

  CPEvent nearlyOne(&f.theory);
  auto hd2 = f.head({{f.h, 0.3}, {f.g, 0.69999995}});
  auto none = f.body({});
  EXPECT_TRUE(nearlyOne.addParsedEvent(hd2, none, false));
  EXPECT_TRUE(nearlyOne.emptyBody());
  EXPECT_FALSE(nearlyOne.addParsedEvent(hd2, a1, false));  // an empty body holds with anything
  nearlyOne.compileParsedEvents();
  EXPECT_EQ((*nearlyOne.body_tree_->probabilities_)[0], 0.0);

  // Placed directly, a rule that runs into an existing leaf is not placed.
  CPEvent direct(&f.theory);
  auto hh = f.head({{f.h, 0.5}});
  auto a1b0 = f.body({{f.a, 1}, {f.b, 0}});
  EXPECT_TRUE(direct.addParsedEvent(hh, a1, true));
  EXPECT_EQ(direct.addEventToTree(hh, a1b0), 0);
  EXPECT_EQ(countLeaves(direct.body_tree_), 1);
}

TEST(CPEventRules, ConversionShapes) {
  Fixture f;
  CPEvent e(&f.theory);
  auto hh = f.head({{f.h, 0.5}});
  auto a1 = f.body({{f.a, 1}}), a0 = f.body({{f.a, 0}});
  auto hh2 = f.head({{f.h, 0.5}});
  e.addParsedEvent(hh, a1, false);
  e.addParsedEvent(hh2, a0, false);
  f.theory.compile();  // ranks, so that confactors can be built
  e.compileParsedEvents();
  Confactors out;
  // Equal leaves below both values of a collapse into one table over (a, C).
  EXPECT_EQ(e.convertToConfactorsAsTree(&out, nullptr, false), 1);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0]->hasAtom(*f.a), ADS_TABLE);
  delete out[0];
  out.clear();
  // Observed a = 1: only that branch, without a condition on a.
  AtomBody obs{{f.a, 1}};
  f.theory.setObservations(&obs);
  e.convertToConfactorsAsTree(&out, nullptr, false);
  f.theory.clearObservations();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0]->hasAtom(*f.a), 0u);
  EXPECT_EQ(out[0]->values_, (std::vector<double>{0.5, 0.5}));
  delete out[0];
  out.clear();
  // A value of a that no rule covers leaves the choice at "none".
  CPEvent partial(&f.theory);
  partial.addParsedEvent(hh, a1, true);
  f.theory.compile();
  partial.convertToConfactorsAsTree(&out, nullptr, false);
  // Both values give one confactor over C, so they merge into a table over (a, C).
  ASSERT_EQ(out.size(), 1u);
  Atom* choice = partial.getAtomRepresentation();
  auto at = [&](unsigned av, unsigned cv) {
    std::vector<unsigned> index;
    for (AtomDomStruct* entry : out[0]->atoms_)
      index.push_back(entry->atom_ == f.a ? av : cv);
    return out[0]->getValue(index, -1.0);
  };
  EXPECT_EQ(out[0]->hasAtom(*choice) & ADS_TABLE, ADS_TABLE);
  EXPECT_EQ(at(0, 0), 1.0);
  EXPECT_EQ(at(0, 1), 0.0);
  EXPECT_EQ(at(1, 1), 0.5);
  for (Confactor* c : out)
    delete c;
}

// ---------------------------------------------------------------------------
// Theory behaviour.

TEST(CPTheoryQueries, UncausedAtomsObservationsAndRelevance) {
  Fixture f;
  auto ha = f.head({{f.a, 0.25}});
  auto none = f.body({});
  f.theory.addParsedEvent(ha, none);
  std::unique_ptr<Confactor> r(f.theory.query(f.g));
  EXPECT_EQ(r->values_, (std::vector<double>{1.0, 0.0}));

  auto hb = f.head({{f.b, 0.5}});
  auto a1 = f.body({{f.a, 1}});
  f.theory.addParsedEvent(hb, a1);
  EXPECT_NEAR(probTrue(f.theory, "a", {{"b", 1}}), 1.0, 1e-12);
  EXPECT_NEAR(probTrue(f.theory, "a"), 0.25, 1e-12);  // observations were cleared
  EXPECT_NEAR(probTrue(f.theory, "b", {{"b", 1}}), 1.0, 1e-12);

  AtomBody obs{{f.b, 1}};
  f.theory.setObservations(&obs);
  std::unique_ptr<CVE> engine(f.theory.createCVE(f.a));
  f.theory.clearObservations();
  EXPECT_EQ(std::count(engine->elim_order_.begin(), engine->elim_order_.end(), f.b), 0);
  EXPECT_EQ(std::count(engine->elim_order_.begin(), engine->elim_order_.end(), f.a), 1);

  testing::internal::CaptureStderr();
  EXPECT_EQ(f.theory.query(nullptr), nullptr);
  EXPECT_EQ(f.theory.query(std::string("nope")), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Query atom does not exist\nRequested atom nope does not exists.\n"
            "Query atom nope does not exist\n");
}

TEST(CPTheoryQueries, SettingsPrimesAndLateRules) {
  for (const char* method : {"cpts", "cfme", "cf"}) {
    Fixture f;
    f.theory.setSettings(true, method, "absorption");
    EXPECT_FALSE(f.theory.use_complete_set_);
    EXPECT_EQ(f.theory.weight_heuristic_, 2);
    auto h1 = f.head({{f.h, 0.5}}), h2 = f.head({{f.h, 0.5}});
    auto a1 = f.body({{f.a, 1}}), b1 = f.body({{f.b, 1}});
    f.theory.addParsedEvent(h1, a1);
    f.theory.addParsedEvent(h2, b1);
    f.theory.compile();
    EXPECT_EQ(f.h->atomp_ != nullptr, std::string(method) == "cf") << method;
  }
  // A rule that joins an event after compiling stays held until an atom is added.
  Fixture f;
  auto h1 = f.head({{f.h, 0.5}}), h2 = f.head({{f.h, 0.25}});
  auto a1 = f.body({{f.a, 1}}), a0 = f.body({{f.a, 0}});
  CPEvent* e = f.theory.addParsedEvent(h1, a1);
  f.theory.compile();
  EXPECT_EQ(f.theory.addParsedEvent(h2, a0), e);
  EXPECT_FALSE(f.theory.needs_update_);
  EXPECT_EQ(countLeaves(e->body_tree_), 1);
  f.theory.addAtom("z");
  f.theory.compile();
  EXPECT_EQ(countLeaves(e->body_tree_), 2);
}

// ---------------------------------------------------------------------------
// Text outputs.

struct TextTheory {
  CPTheory theory{"T"};
  Atom *a, *b, *c, *g, *h;
  TextTheory() {
    a = theory.addAtom("a");
    b = theory.addAtom("b");
    c = theory.addAtom("c");
    g = theory.addAtom("g");
    h = theory.addAtom("h");
    add({{a, 0.4}}, {});
    add({{c, 0.7}}, {});
    add({{b, 0.5}}, {{a, 1}});
    add({{b, 0.1}}, {{a, 0}, {c, 1}});
    add({{h, 0.3}, {g, 0.6}}, {{b, 0}});
    add({{h, 0.2}}, {{b, 1}});
  }
  void add(std::vector<std::pair<Atom*, double>> hd, std::vector<std::pair<Atom*, int>> bd) {
    AtomDoubles head;
    for (auto& p : hd)
      head.emplace_back(p.first, p.second);
    std::vector<AtomValuePair<int>> body;
    for (auto& p : bd)
      body.emplace_back(p.first, p.second);
    theory.addParsedEvent(head, body);
  }
};

TEST(CPTheoryText, RulesCodeRankingStatus) {
  TextTheory t;
  EXPECT_EQ(t.theory.str(true), "T");
  EXPECT_EQ(t.theory.str(false),
            "(p) a:0.4 :- true.\n(p) c:0.7 :- true.\n(p) b:0.5 :- a.\n(p) b:0.1 :- \\+a, c.\n"
            "(p) h:0.3 ; g:0.6 :- \\+b.\n(p) h:0.2 :- b.\n");
  const std::string event =
      "head[b] = 0.5;\nbody[a] = 1;\ncpt->addParsedEvent(head, body);\n"
      "head.clear();\nbody.clear();\n";
  std::string code = t.theory.cppCode();
  EXPECT_EQ(code.find("void testT()\n{\nCPTheory* cpt = new CPTheory(\"T\");\nAtomHead "
                      "head;\nAtomBody body;\n\n"
                      "// Atoms\nAtom* a = cpt->addAtom(\"a\");\nAtom* b = cpt->addAtom(\"b\");\n"
                      "Atom* c = cpt->addAtom(\"c\");\nAtom* g = cpt->addAtom(\"g\");\n"),
            0u);
  EXPECT_NE(code.find("// CP-event\n" + event + "head[b] = 0.1;\nbody[a] = 0;\nbody[c] = 1;\n"),
            std::string::npos);
  const std::string tail = "body.clear();\n\n\ncout << *cpt;\ncpt->compile();\ncout << *cpt;\n";
  ASSERT_GE(code.size(), tail.size());
  EXPECT_EQ(code.substr(code.size() - tail.size()), tail);

  t.theory.compile();
  // Two blanks before a positive literal, and " ; " opening the line after a
  // line with a non-empty body.
  EXPECT_EQ(t.theory.str(false),
            "a:0.4 :- true.\nc:0.7 :- true.\nb:0.1 :- \\+a,  c.\n ; b:0.5 :-  a.\n"
            "h:0.3 ; g:0.6 :- \\+b.\nh:0.2 :-  b.\n");
  std::ostringstream os;
  os << t.theory;
  EXPECT_EQ(os.str(), t.theory.str(false));
  std::string ranking = "RANKING: \n";
  for (auto& entry : t.theory.atoms_)
    ranking += entry.first + "-" + std::to_string(entry.second->rank_) + "\n";
  EXPECT_EQ(t.theory.strRanking(), ranking + "\n");
  testing::internal::CaptureStdout();
  t.theory.printStatus();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Status of T:\nNb of events: 5\n");
}

std::string expectedGraphviz(CPTheory& theory, bool compact) {
  std::ostringstream os;
  os << "digraph \"cptheory\" {\n\tedge [style=\"setlinewidth(3)\", arrowsize=1.5];\n";
  for (auto& entry : theory.atoms_) {
    Atom* x = entry.second;
    if (x->prime_)
      continue;
    if (compact) {
      os << "\t" << x->id_ << " [label=\"\", height=0.4, width=0.4"
         << (x->event_ ? ", color=black, style=filled" : "") << "];\n";
      continue;
    }
    os << "\t" << x->id_ << " [label=\"";
    if (x->atomp_)
      os << x->atomp_->name_ << " (" << x->atomp_->weight_ << "," << x->atomp_->rank_ << ")\\n";
    os << x->name_ << " (" << x->weight_ << "," << x->rank_ << ")\""
       << (x->isMultFactorizable() ? ", shape=box" : "") << "];\n";
  }
  for (auto& entry : theory.atoms_)
    if (!entry.second->prime_)
      for (Atom* p : entry.second->in_)
        os << "\t" << p->id_ << " -> " << entry.second->id_ << ";\n";
  if (!compact)
    os << "\tsubgraph cluster0 {\n\t\tnode [fontsize = 8, height = 0.2];\n\t\tfontsize = 10;\n"
          "\t\tlabel = \"legend\";\n\t\tstyle = filled;\n\t\tcolor = grey;\n"
          "\t\tl1 [label=\"Mult Fact Variable\", shape=box];\n\t\tl2 [label=\"Variable\"];\n\t}\n";
  os << "}\n";
  return os.str();
}

TEST(CPTheoryText, GraphvizBothFormsAndDotAcceptsThem) {
  TextTheory t;
  std::string full = t.theory.strGraphviz(false);
  ASSERT_NE(t.h->atomp_, nullptr);  // h has two causes
  EXPECT_EQ(full, expectedGraphviz(t.theory, false));
  EXPECT_NE(full.find("h' ("), std::string::npos);
  std::string compact = t.theory.strGraphviz(true);
  EXPECT_EQ(compact, expectedGraphviz(t.theory, true));

  if (std::system("test -x /usr/bin/dot") != 0)
    GTEST_SKIP() << "dot is not installed";
  for (const std::string& text : {full, compact}) {
    std::string path = testing::TempDir() + "cptheory_test.dot";
    std::ofstream(path) << text;
    EXPECT_EQ(std::system(("/usr/bin/dot -Tsvg " + path + " -o /dev/null").c_str()), 0);
    std::remove(path.c_str());
  }
}

TEST(CPTheoryText, HuginNetKeepsTheTablesFlag) {
  TextTheory t;
  EXPECT_FALSE(t.theory.use_tables_);
  std::string net = t.theory.strHuginNet(t.h);
  EXPECT_FALSE(t.theory.use_tables_);
  EXPECT_NE(net.find("node a\n{\n\tstates = (\"0\" \"1\" );\n\tlabel = \"a\";\n}\n"),
            std::string::npos);
  EXPECT_NE(net.find("\n\npotential ( "), std::string::npos);
  EXPECT_NE(net.find("}\n\n\npotential ( "), std::string::npos);
}

}  // namespace

TEST(CPTheoryDepartures, CfmeLosesAFactorThatIsOneWhereAbsent) {
  // a1:.351491 ; a0:.294606 :- \+a4.  a1:.42042 ; a0:.160042 :- a4, a8, a2.
  // a4:.223142 :- a6, \+a5, \+a7.  a0:.105194 ; a3:.261572 ; a2:.113017 ;
  // a1:.307553 :- a4, a7.   P(a0) = 0.294606 (a4 is never true).
  RefTheory absorbed{
      9,
      {{{{1, 0.351491}, {0, 0.294606}}, {{4, 0}}},
       {{{1, 0.42042}, {0, 0.160042}}, {{4, 1}, {8, 1}, {2, 1}}},
       {{{4, 0.223142}}, {{6, 1}, {5, 0}, {7, 0}}},
       {{{0, 0.105194}, {3, 0.261572}, {2, 0.113017}, {1, 0.307553}}, {{4, 1}, {7, 1}}}}};
  // a3:1.  a2:0.46194 :- \+a3, \+a6.  a3:1 :- a4, a6.   P(a3 | \+a2) = 1.
  RefTheory single{
      7, {{{{3, 1.0}}, {}}, {{{2, 0.46194}}, {{3, 0}, {6, 0}}}, {{{3, 1.0}}, {{4, 1}, {6, 1}}}}};
  for (const Config& c : allConfigs(false)) {
    bool cfme = std::string(c.method) == "cfme";
    bool absorption = std::string(c.elimination) == "absorption";
    EXPECT_NEAR(probTrue(*build(absorbed, c), "a0"), cfme && absorption ? 0.0 : 0.294606, 1e-12)
        << describe(c);
    EXPECT_NEAR(probTrue(*build(single, c), "a3", {{"a2", 0}}), cfme ? 0.0 : 1.0, 1e-12)
        << describe(c);
  }
}
