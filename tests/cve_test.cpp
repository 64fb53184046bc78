// The elimination engine and its complete confactor set against enumeration
// of all worlds of random networks, and on hand-built cases they do not draw.
#include "cve.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>

#include "completeconfactorset.h"
#include "confactor.h"

namespace {

// A random Bayesian network written as contextual tables. Every atom's
// conditional table is a context tree over its parents; each leaf ("piece")
// holds a table over the child and the parents that still matter there. The
// reference evaluates the pieces on full assignments, with no engine class.
struct Piece {
  int child;
  std::vector<std::pair<int, unsigned>> context;  // (atom, allowed value set)
  std::vector<int> scope;                         // child first, then parents
  std::vector<double> table;                      // first scope atom fastest
};

struct Model {
  std::vector<unsigned> dom;
  std::vector<Piece> pieces;
  std::vector<std::vector<double>> marginal;  // by atom, by value
};

bool holds(const Piece& p, const std::vector<unsigned>& x) {
  for (auto& c : p.context)
    if (!((c.second >> x[c.first]) & 1u))
      return false;
  return true;
}

double lookup(const Model& m, const Piece& p, const std::vector<unsigned>& x) {
  size_t index = 0, stride = 1;
  for (int a : p.scope) {
    index += x[a] * stride;
    stride *= m.dom[a];
  }
  return p.table[index];
}

// Splits the child's table on a parent not yet on the path (up to two
// levels deep), or ends the path in a piece over some of the other parents.
// Three-valued atoms are split {0,1} | {2} only: the confactor product maps
// a restricted table dimension exactly when its values start at 0 without
// gaps or are a single value, and a split {0} | {1,2} would multiply tables
// restricted to {1,2} (see ThreeWayContextSplit for single values).
void growPieces(Model& m, std::mt19937& rng, int child, const std::vector<int>& parents,
                std::vector<std::pair<int, unsigned>> path, bool contextual) {
  std::vector<int> free;
  for (int p : parents)
    if (std::none_of(path.begin(), path.end(), [p](auto& c) { return c.first == p; }))
      free.push_back(p);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  if (contextual && !free.empty() && path.size() < 2 && u(rng) < 0.7) {
    int c = free[rng() % free.size()];
    for (unsigned part :
         m.dom[c] == 2 ? std::vector<unsigned>{1, 2} : std::vector<unsigned>{3, 4}) {
      path.push_back({c, part});
      growPieces(m, rng, child, parents, path, contextual);
      path.pop_back();
    }
    return;
  }
  Piece p{child, path, {child}, {}};
  for (int q : free)
    if (!contextual || u(rng) < 0.6)
      p.scope.push_back(q);
  for (auto& c : path)
    if (c.second == 3)
      p.scope.push_back(c.first);  // still varies inside {0,1}
  size_t size = 1;
  for (int a : p.scope)
    size *= m.dom[a];
  p.table.resize(size);
  for (size_t base = 0; base < size; base += m.dom[child]) {
    double sum = 0;
    for (unsigned v = 0; v < m.dom[child]; ++v)
      sum += p.table[base + v] = 0.05 + u(rng);
    for (unsigned v = 0; v < m.dom[child]; ++v)
      p.table[base + v] /= sum;
  }
  m.pieces.push_back(p);
}

// The unnormalised marginals of every atom, by summing over every world.
void enumerate(Model& m) {
  const int n = m.dom.size();
  m.marginal.assign(n, {});
  for (int i = 0; i < n; ++i)
    m.marginal[i].assign(m.dom[i], 0.0);
  std::vector<unsigned> x(n, 0);
  for (int k = 0; k < n;) {
    double p = 1.0;
    for (auto& piece : m.pieces)
      if (holds(piece, x))
        p *= lookup(m, piece, x);
    for (int i = 0; i < n; ++i)
      m.marginal[i][x[i]] += p;
    for (k = 0; k < n && ++x[k] == m.dom[k]; ++k)
      x[k] = 0;
  }
}

Model randomModel(unsigned seed, bool contextual) {
  std::mt19937 rng(seed);
  Model m;
  const int n = 5 + rng() % 8;
  for (int i = 0; i < n; ++i)
    m.dom.push_back(rng() % 4 == 0 ? 3 : 2);
  for (int i = 0; i < n; ++i) {
    std::vector<int> parents;
    for (int j = 0; j < i; ++j)
      if (parents.size() < 3 && rng() % 3 == 0)
        parents.push_back(j);
    growPieces(m, rng, i, parents, {}, contextual);
  }
  enumerate(m);
  return m;
}

std::vector<int> shuffledRanks(size_t n, unsigned seed) {
  std::vector<int> ranks(n);
  std::iota(ranks.begin(), ranks.end(), 1);
  std::shuffle(ranks.begin(), ranks.end(), std::mt19937(seed));
  return ranks;
}

// The model's atoms, ranked by a permutation, and its pieces as confactors.
struct EngineModel {
  std::vector<std::unique_ptr<Atom>> atoms;
  std::vector<std::unique_ptr<Confactor>> confactors;  // an engine gets copies

  // ranks[i] is atom i's rank, and so its place in the elimination order.
  EngineModel(const Model& m, const std::vector<int>& ranks) {
    for (size_t i = 0; i < m.dom.size(); ++i) {
      atoms.emplace_back(new Atom("x" + std::to_string(i), m.dom[i]));
      atoms.back()->rank_ = ranks[i];  // before any confactor sorts its entries
    }
    for (const Piece& p : m.pieces)
      confactors.emplace_back(build(m, p));
  }

  Confactor* build(const Model& m, const Piece& p) {
    std::vector<int> scope = p.scope;
    for (auto& c : p.context)
      if (std::find(scope.begin(), scope.end(), c.first) == scope.end())
        scope.push_back(c.first);
    std::sort(scope.begin(), scope.end(),
              [this](int a, int b) { return atoms[a]->rank_ < atoms[b]->rank_; });
    std::vector<Atom*> list;
    size_t size = 1;
    for (int a : scope) {
      list.push_back(atoms[a].get());
      size *= m.dom[a];
    }
    // Values in the engine's layout: lowest rank fastest.
    std::vector<double> values(size);
    std::vector<unsigned> x(m.dom.size(), 0);
    for (size_t k = 0; k < size; ++k) {
      size_t rest = k;
      for (int a : scope) {
        x[a] = rest % m.dom[a];
        rest /= m.dom[a];
      }
      values[k] = lookup(m, p, x);
    }
    Confactor* c = new Confactor(list, atoms[p.child].get(), values);
    for (auto& ctx : p.context)
      c->shrinkAtom(atoms[ctx.first].get(), ctx.second, true);
    return c;
  }

  // The joint of atom q, as the theory asks for it.
  std::vector<double> run(int q, bool tree) {
    CVE cve;
    cve.use_complete_set_tree_ = tree;
    for (auto& c : confactors)
      cve.addFactor(new Confactor(*c));
    for (auto& a : atoms)
      cve.addAtom(a.get());
    cve.query(atoms[q].get());
    std::unique_ptr<Confactor> joint(cve.createJoint());
    EXPECT_EQ(joint->atoms_.size(), 1u);
    return joint->values_;
  }
};

// got and want as distributions.
// got and want as distributions.
void expectMarginal(const std::vector<double>& got, const std::vector<double>& want) {
  ASSERT_EQ(got.size(), want.size());
  double g = 0, w = 0;
  for (size_t v = 0; v < want.size(); ++v)
    g += got[v], w += want[v];
  for (size_t v = 0; v < got.size(); ++v)
    EXPECT_NEAR(got[v] / g, want[v] / w, 1e-9) << v;
}

// Both variants, three elimination orders and a third of the atoms as
// queries per network, against enumeration of all worlds.
TEST(CVEReference, MarginalsMatchEnumeration) {
  for (bool contextual : {false, true}) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
      Model m = randomModel(seed, contextual);
      for (unsigned order = 0; order < 3; ++order) {
        EngineModel e(m, shuffledRanks(m.dom.size(), seed * 7 + order));
        for (unsigned q = order; q < m.dom.size(); q += 3) {
          SCOPED_TRACE(::testing::Message() << "ctx " << contextual << " seed " << seed << " order "
                                            << order << " query " << q);
          expectMarginal(e.run(q, true), m.marginal[q]);
          expectMarginal(e.run(q, false), m.marginal[q]);
        }
      }
    }
  }
}

// One three-valued atom split three ways: the tree splits a child it made
// for the complement of the first context, and the list variant adds the
// pieces of the eliminated atom's values pairwise up to its whole domain.
TEST(CVEReference, ThreeWayContextSplit) {
  Model m;
  m.dom = {3, 2, 2};
  std::mt19937 rng(5);
  growPieces(m, rng, 0, {}, {}, false);
  for (unsigned part : {1u, 2u, 4u})
    growPieces(m, rng, 1, {}, {{0, part}}, false);
  growPieces(m, rng, 2, {0, 1}, {}, false);
  enumerate(m);
  std::vector<int> ranks{1, 2, 3};
  unsigned order = 0;
  do {
    EngineModel e(m, ranks);
    for (int q = 0; q < 3; ++q) {
      SCOPED_TRACE(::testing::Message() << "order " << order << " query " << q);
      expectMarginal(e.run(q, true), m.marginal[q]);
      expectMarginal(e.run(q, false), m.marginal[q]);
    }
    ++order;
  } while (std::next_permutation(ranks.begin(), ranks.end()));
}

// --- Small hand-built engines and sets ---

// Atoms ranked a < b < c and weighted as an elimination of a weighs them:
// a lightest (deepest in a complete set), b heaviest.
struct Fixture {
  Atom a{"a", 2}, b{"b", 2}, c{"c", 3};
  Fixture() {
    a.rank_ = 1, b.rank_ = 2, c.rank_ = 3;
    a.weight_ = 1, c.weight_ = 2, b.weight_ = 3;
  }
  // A table for atoms[0], restricted to the given (atom, value set) contexts.
  Confactor* table(std::vector<Atom*> atoms, std::vector<double> values,
                   std::vector<std::pair<Atom*, unsigned>> contexts = {}) {
    Confactor* f = new Confactor(atoms, atoms[0], values);
    for (auto& ctx : contexts)
      f->shrinkAtom(ctx.first, ctx.second, true);
    return f;
  }
};

// Where no confactor holds, the product is 1 (the random networks hold a
// table everywhere): with b = 1 only the second confactor holds, and only for
// a = 1, so summing a out gives its value + 1.
TEST(CVE, RegionsWithoutATableMultiplyByOne) {
  Fixture t;
  for (bool tree : {true, false}) {
    CVE cve;
    cve.use_complete_set_tree_ = tree;
    cve.addFactor(t.table({&t.a, &t.b}, {0.3, 0.5, 0.6, 0.4}, {{&t.b, 1}}));     // b = 0
    cve.addFactor(t.table({&t.b, &t.a}, {2, 5, 3, 7}, {{&t.a, 2}, {&t.b, 2}}));  // b = 1, a = 1
    cve.addAtom(&t.a);
    cve.query(&t.b);
    std::unique_ptr<Confactor> joint(cve.createJoint());
    EXPECT_NEAR(joint->values_.at(0), 0.8, 1e-12) << tree;
    EXPECT_NEAR(joint->values_.at(1), 7 + 1.0, 1e-12) << tree;
  }
}

// The set's splits: b's context splits the tree; tables over b are cut per
// child; a context on c over its whole domain still splits, and a narrower
// one splits a child in two; summing a adds sibling leaves; extraction puts
// each leaf's path back as its context.
TEST(CompleteConfactorSet, SplitsSumsAndExtracts) {
  Fixture t;
  CompleteConfactorSet set;
  set.addConfactor(t.table({&t.a, &t.b}, {9, 9, 0.5, 0.5}, {{&t.b, 2}}));
  set.addConfactor(t.table({&t.a, &t.b}, {1, 2, 3, 4}));
  Confactor* everyC = t.table({&t.a}, {1, 1});
  everyC->addAtom(&t.c, ADS_CONTEXT, 7, 1, -1);
  set.addConfactor(everyC);
  Confactor* c0 = t.table({&t.a}, {2, 2});
  c0->addAtom(&t.c, ADS_CONTEXT, 1, 1, -1);
  set.addConfactor(c0);
  set.addConfactor(t.table({&t.b}, {10, 100}));  // all placed above the c levels
  set.sumout(&t.a);
  std::vector<Confactor*> out;
  set.extractConfactors(&out);
  const std::vector<double> sums{700, 350, 350, 60, 30, 30};
  const std::vector<unsigned> bs{2, 2, 2, 1, 1, 1}, cs{1, 0, 6, 1, 0, 6};
  ASSERT_EQ(out.size(), sums.size());
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(out[i]->values_, std::vector<double>{sums[i]}) << i;
    EXPECT_EQ(out[i]->getAtomDomain(t.b), bs[i]);
    EXPECT_EQ(out[i]->getAtomDomain(t.c), cs[i]);
    delete out[i];
  }
}

}  // namespace
