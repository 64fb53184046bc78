// The greedy (min-fill) elimination order against a naive min-fill on small
// random graphs.
#include "eliminationorder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

struct Net {
  std::vector<std::unique_ptr<Atom>> atoms;
  std::vector<std::vector<Atom*>> scopes;

  explicit Net(int n) {
    for (int i = 0; i < n; ++i)
      atoms.emplace_back(new Atom("a" + std::to_string(i), 2));
  }
  Atom* operator[](int i) const { return atoms[i].get(); }
  void scope(const std::vector<int>& members) {
    scopes.emplace_back();
    for (int i : members)
      scopes.back().push_back(atoms[i].get());
  }
  std::vector<Atom*> all() const {
    std::vector<Atom*> out;
    for (const auto& a : atoms)
      out.push_back(a.get());
    return out;
  }
};

typedef std::map<Atom*, std::set<Atom*>> Graph;

Graph interactions(const Net& net) {
  Graph g;
  for (const auto& s : net.scopes)
    for (Atom* x : s)
      for (Atom* y : s)
        if (x != y)
          g[x].insert(y);
  return g;
}

// Removes a from g, joining its neighbours; returns the edges added.
size_t eliminate(Graph& g, Atom* a) {
  const std::set<Atom*> nb = g[a];
  size_t fill = 0;
  for (Atom* x : nb) {
    g[x].erase(a);
    for (Atom* y : nb)
      if (x < y && g[x].insert(y).second) {
        g[y].insert(x);
        ++fill;
      }
  }
  g.erase(a);
  return fill;
}

// The edges the order adds.
size_t fill(const Net& net, const std::vector<Atom*>& order) {
  Graph g = interactions(net);
  size_t added = 0;
  for (Atom* a : order)
    added += eliminate(g, a);
  return added;
}

// Min-fill the slow way: every score recomputed at every step, ties to the
// smaller degree, then to the earlier place in the list.
std::vector<Atom*> naiveMinFill(const Net& net, const std::vector<Atom*>& elim) {
  Graph g = interactions(net);
  std::vector<Atom*> left = elim, order;
  while (!left.empty()) {
    size_t best = 0, bestFill = SIZE_MAX, bestDeg = 0;
    for (size_t i = 0; i < left.size(); ++i) {
      const std::set<Atom*>& nb = g[left[i]];
      size_t fill = 0;
      for (Atom* x : nb)
        for (Atom* y : nb)
          fill += x < y && !g[x].count(y);
      if (fill < bestFill || (fill == bestFill && nb.size() < bestDeg))
        best = i, bestFill = fill, bestDeg = nb.size();
    }
    order.push_back(left[best]);
    left.erase(left.begin() + best);
    eliminate(g, order.back());
  }
  return order;
}

// Where the naive version is too slow, min-fill must still eliminate a
// chordal graph without fill: random ones, and a star whose hub has 10,000
// leaves (kept or eliminated last). Ties go to smaller tables, counted
// beyond 64 bits, then to the place in the list.
TEST(GreedyEliminationOrder, MinFillOnSmallGraphsNoFillOnChordalOnes) {
  std::mt19937 rng(13);
  for (int round = 0; round < 30; ++round) {
    Net net(60);
    for (int s = 0; s < 50; ++s) {
      std::vector<int> members;
      for (int k = 1 + rng() % 3; k > 0; --k)
        members.push_back(rng() % 55);  // atoms 55.. are in no scope
      net.scope(members);
    }
    std::vector<Atom*> elim = net.all();
    std::shuffle(elim.begin(), elim.end(), rng);
    elim.resize(40 + rng() % 21);
    const std::vector<Atom*> order = greedyEliminationOrder(net.scopes, elim);
    EXPECT_EQ(order, naiveMinFill(net, elim)) << round;
    // Atoms listed twice go once; atoms sharing an id take another path to
    // the same order.
    std::vector<Atom*> twice = elim;
    twice.insert(twice.end(), elim.begin(), elim.begin() + 10);
    EXPECT_EQ(greedyEliminationOrder(net.scopes, twice), order) << round;
    net[7]->id_ = net[8]->id_;
    EXPECT_EQ(greedyEliminationOrder(net.scopes, elim), order) << round;
    // Each new atom joins part of an earlier clique: the graph is chordal.
    Net chordal(300);
    std::vector<std::vector<int>> cliques{{0}};
    for (int v = 1; v < 300; ++v) {
      std::vector<int> c = cliques[rng() % cliques.size()];
      std::shuffle(c.begin(), c.end(), rng);
      c.resize(1 + rng() % std::min<size_t>(c.size(), 5));
      c.push_back(v);
      chordal.scope(c);
      cliques.push_back(c);
    }
    elim = chordal.all();
    std::shuffle(elim.begin(), elim.end(), rng);
    EXPECT_EQ(fill(chordal, greedyEliminationOrder(chordal.scopes, elim)), 0u) << round;
  }
  Net star(10001);
  for (int i = 1; i <= 10000; ++i)
    star.scope({0, i});
  std::vector<Atom*> all = star.all();
  EXPECT_EQ(fill(star, greedyEliminationOrder(star.scopes, all)), 0u);
  all.erase(all.begin());
  EXPECT_EQ(fill(star, greedyEliminationOrder(star.scopes, all)), 0u);
  Net ties(14);
  const unsigned doms[] = {4, 2, 3, 2};
  for (int i = 0; i < 4; ++i) {
    ties[i + 1]->set_domainsize(doms[i]);
    ties.scope({0, i + 1});
  }
  ties.scope({5, 6, 7, 8, 9});  // 2^150 entries for atom 5, 2^154 for atom 10
  ties.scope({10, 11, 12, 13, 9});
  for (int i = 5; i <= 13; ++i)
    ties[i]->set_domainsize(i < 10 ? 1u << 30 : 1u << 31);
  EXPECT_EQ(greedyEliminationOrder(ties.scopes, {ties[1], ties[2], ties[3], ties[4]}),
            (std::vector<Atom*>{ties[2], ties[4], ties[3], ties[1]}));
  EXPECT_EQ(greedyEliminationOrder(ties.scopes, {ties[10], ties[5]}),
            (std::vector<Atom*>{ties[5], ties[10]}));
}

}  // namespace
