// The greedy (min-fill) elimination order against a naive min-fill and, on
// graphs too large for it, against orders without fill.
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

struct Induced {
  size_t width = 0;  // most live neighbours of an atom when it goes
  size_t fill = 0;   // edges added
};

Induced simulate(const Net& net, const std::vector<Atom*>& order) {
  Graph g = interactions(net);
  Induced r;
  for (Atom* a : order) {
    r.width = std::max(r.width, g[a].size());
    r.fill += eliminate(g, a);
  }
  return r;
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

TEST(GreedyEliminationOrder, MatchesNaiveMinFill) {
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
  }
}

// Min-fill eliminates a chordal graph without fill: checked where the naive
// version is too slow, on random chordal graphs and on a star whose hub has
// 10,000 leaves (kept or eliminated last).
TEST(GreedyEliminationOrder, FindsPerfectOrdersOfLargeChordalGraphs) {
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    // Each new atom joins part of an earlier clique: the graph is chordal.
    Net net(300);
    std::vector<std::vector<int>> cliques{{0}};
    for (int v = 1; v < 300; ++v) {
      std::vector<int> c = cliques[rng() % cliques.size()];
      std::shuffle(c.begin(), c.end(), rng);
      c.resize(1 + rng() % std::min<size_t>(c.size(), 5));
      c.push_back(v);
      net.scope(c);
      cliques.push_back(c);
    }
    std::vector<Atom*> elim = net.all();
    std::shuffle(elim.begin(), elim.end(), rng);
    EXPECT_EQ(simulate(net, greedyEliminationOrder(net.scopes, elim)).fill, 0u) << round;
  }
  Net star(10001);
  for (int i = 1; i <= 10000; ++i)
    star.scope({0, i});
  const Induced all = simulate(star, greedyEliminationOrder(star.scopes, star.all()));
  EXPECT_EQ(all.fill, 0u);
  EXPECT_EQ(all.width, 1u);
  std::vector<Atom*> leaves = star.all();
  leaves.erase(leaves.begin());
  EXPECT_EQ(simulate(star, greedyEliminationOrder(star.scopes, leaves)).fill, 0u);
}

TEST(GreedyEliminationOrder, TiesGoToSmallerTablesThenToPosition) {
  Net net(14);
  const unsigned doms[] = {4, 2, 3, 2};
  for (int i = 0; i < 4; ++i) {
    net[i + 1]->set_domainsize(doms[i]);
    net.scope({0, i + 1});
  }
  // Tables far beyond 64 bits: 2^150 for atom 5 and 2^154 for atom 10.
  net.scope({5, 6, 7, 8, 9});
  net.scope({10, 11, 12, 13, 9});
  for (int i = 5; i <= 9; ++i)
    net[i]->set_domainsize(1u << 30);
  for (int i = 10; i <= 13; ++i)
    net[i]->set_domainsize(1u << 31);
  EXPECT_EQ(greedyEliminationOrder(net.scopes, {net[1], net[2], net[3], net[4]}),
            (std::vector<Atom*>{net[2], net[4], net[3], net[1]}));
  EXPECT_EQ(greedyEliminationOrder(net.scopes, {net[10], net[5]}),
            (std::vector<Atom*>{net[5], net[10]}));
}

}  // namespace
