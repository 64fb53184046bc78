// Atoms and the network's ranking, on hand-worked graphs: edges, prime
// atoms and the ranking orders; and the core's random numbers. Of the weight
// heuristics only the degree, a theory's default until its settings choose
// the greedy order, is reached.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <vector>

#include "atom.h"
#include "confactornetwork.h"

namespace {

// Both directions of a parent -> child edge, as the network makes them.
void link(Atom* parent, Atom* child) {
  child->addInAtom(parent);
  parent->addOutAtom(child);
}

// Edges are entered once and kept in id order; siblings exclude parents and
// children. A prime is made once, keeps its owner's domain and weight, and
// ranks directly before its owner.
TEST(Atom, EdgesSiblingsAndPrimes) {
  Atom c("c", 3), a("a", 2), b("b", 2), s("s", 2);
  link(&b, &c);
  link(&a, &c);
  link(&a, &c);  // repeated: no second entry, no second weight
  // Id order (a was created before b). c took one weight per new in-edge and
  // one per addOutAtom on the parent.
  EXPECT_EQ(c.in_, (std::vector<Atom*>{&a, &b}));
  EXPECT_EQ(c.weight_, 4u);
  EXPECT_EQ(a.weight_, 2u);
  c.addSiblingAtom(&a);  // already a parent: refused
  c.addSiblingAtom(&s);
  c.addSiblingAtom(&s);
  EXPECT_EQ(c.sibling_, std::vector<Atom*>{&s});
  link(&c, &s);  // the sibling becomes a child and leaves the sibling list
  EXPECT_TRUE(c.sibling_.empty());
  // Only an atom with several parents is factorised through a prime.
  EXPECT_TRUE(c.isMultFactorizable());
  EXPECT_FALSE(s.isMultFactorizable());
  Atom* prime = c.createPrimeAtom();
  EXPECT_EQ(prime, c.createPrimeAtom());
  EXPECT_EQ(prime->name_ + std::to_string(prime->domainsize_), "c'3");
  EXPECT_TRUE(prime->prime_);
  EXPECT_EQ(prime->out_, std::vector<Atom*>{&c});
  EXPECT_EQ(prime->weight_, 6u);
  EXPECT_EQ(s.setRank(3), 1);
  EXPECT_EQ(c.setRank(5), 2);
  EXPECT_EQ(prime->rank_, 5);
  EXPECT_EQ(c.rank_, 6);
}

std::map<std::string, int> ranks(ConfactorNetworkBase& net) {
  std::map<std::string, int> result;
  for (auto& entry : net.atoms_)
    result[entry.first] = entry.second->rank_;
  return result;
}

TEST(NetworkRanking, ReadySetHeaviestFirstTiesInInsertionOrder) {
  ConfactorNetworkBase net;
  net.weight_heuristic_ = kDegreeWeight;
  std::map<std::string, Atom*> x;
  for (const char* name : {"a", "b", "z", "m", "n", "c"})
    x[name] = net.addAtom(name);
  // z has two children, so it outweighs the roots a and b, which tie and keep
  // name order. Once b is ranked, c (weight 4 from its edges) overtakes z's
  // children m and n, which joined the ready set earlier with weight 2.
  link(x["z"], x["m"]);
  link(x["z"], x["n"]);
  link(x["a"], x["c"]);
  link(x["b"], x["c"]);
  net.updateTopologicalRanking();
  EXPECT_EQ(ranks(net), (std::map<std::string, int>{
                            {"z", 1}, {"a", 2}, {"b", 3}, {"c", 4}, {"m", 5}, {"n", 6}}));
  EXPECT_EQ(x["z"]->weight_, 2u);  // degree heuristic applied while ranking
  // Final order: weight ascending, ties by topological rank.
  net.updateRanking();
  EXPECT_EQ(ranks(net), (std::map<std::string, int>{
                            {"a", 1}, {"b", 2}, {"m", 3}, {"n", 4}, {"z", 5}, {"c", 6}}));
}

// A seed repeats the core's draws, and the core leaves the host's rand()
// sequence alone, however many numbers it draws.
TEST(RandomNumbers, SeededDrawsRepeatAndRandIsUntouched) {
  auto draws = [](uint32_t seed) {
    seedRandom(seed);
    std::vector<int> out;
    for (int i = 0; i < 1000; ++i)
      out.push_back(randomNumber(999));
    return out;
  };
  std::srand(1);
  const int expected = std::rand();
  std::srand(1);
  const std::vector<int> first = draws(42);
  EXPECT_EQ(draws(42), first);
  EXPECT_NE(draws(43), first);
  EXPECT_EQ(std::rand(), expected);
}

}  // namespace
