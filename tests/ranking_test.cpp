#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>

#include "confactornetwork.h"

namespace {

void link(Atom* parent, Atom* child) {
  child->addInAtom(parent);
  parent->addOutAtom(child);
}

std::map<std::string, int> ranks(ConfactorNetworkBase& net) {
  std::map<std::string, int> result;
  for (auto& entry : net.atoms_)
    result[entry.first] = entry.second->rank_;
  return result;
}

TEST(NetworkRegistry, AddGetAndListings) {
  ConfactorNetworkBase net;
  EXPECT_EQ(net.getFirstAtom(), nullptr);
  Atom* b = net.addAtom("b");
  Atom* a = net.addAtom("a");
  EXPECT_EQ(net.addAtom("b"), b);
  EXPECT_EQ(net.getFirstAtom(), a);
  EXPECT_EQ(net.getAtom("a"), a);
  testing::internal::CaptureStderr();
  EXPECT_EQ(net.getAtom("zz"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Requested atom zz does not exists.\n");
  // A choice variable and a prime atom: listed by getAllAtoms only; the prime
  // is deleted by its owner, not by the registry.
  Atom* choice = net.addAtom("C0");
  int anyEvent = 0;
  choice->event_ = reinterpret_cast<CPEvent*>(&anyEvent);
  Atom* prime = a->createPrimeAtom();
  net.atoms_[prime->name_] = prime;
  std::unique_ptr<std::vector<Atom*>> ground(net.getAtoms()), all(net.getAllAtoms());
  EXPECT_EQ(*ground, (std::vector<Atom*>{a, prime, b}));
  EXPECT_EQ(*all, (std::vector<Atom*>{choice, a, prime, b}));
}

TEST(NetworkRanking, ReadySetHeaviestFirstTiesInInsertionOrder) {
  ConfactorNetworkBase net;
  net.weight_heuristic_ = 1;
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

// A prime ranks directly before its owner; atoms on a cycle keep rank 0
// until the final numbering.
TEST(NetworkRanking, PrimesAndCycles) {
  ConfactorNetworkBase net;
  Atom* p = net.addAtom("p");
  Atom* q = net.addAtom("q");
  Atom* x = net.addAtom("x");
  Atom* y = net.addAtom("y");
  Atom* z = net.addAtom("z");
  link(p, x);
  link(q, x);
  link(x, y);
  link(y, z);
  link(z, y);
  Atom* prime = x->createPrimeAtom();
  net.atoms_[prime->name_] = prime;
  net.updateTopologicalRanking();
  EXPECT_EQ(ranks(net), (std::map<std::string, int>{
                            {"p", 1}, {"q", 2}, {"x'", 3}, {"x", 4}, {"y", 0}, {"z", 0}}));
  net.updateRanking();
  std::vector<int> all;
  for (auto& entry : ranks(net))
    all.push_back(entry.second);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<int>{1, 2, 3, 4, 5, 6}));
}

TEST(NetworkRanking, HeuristicSelectorChoosesTheWeightFunction) {
  // c: rank 3, degree 2, and one missing edge (a-b) between its neighbours.
  const uint32_t expected[] = {3, 2, 2, 1, 40, 40, 40};
  for (int heuristic = 0; heuristic < 7; ++heuristic) {
    ConfactorNetworkBase net;
    net.weight_heuristic_ = heuristic;
    Atom* a = net.addAtom("a");
    Atom* b = net.addAtom("b");
    Atom* c = net.addAtom("c");
    link(a, c);
    link(b, c);
    c->weight_ = 40;  // stands for weight accumulated before ranking
    net.updateTopologicalRanking();
    EXPECT_EQ(c->weight_, expected[heuristic]) << "heuristic " << heuristic;
  }
}

// A network whose ranking hook registers atoms, as a theory does.
class GrowingNetwork : public ConfactorNetworkBase {
 public:
  void initAtom(Atom* atom) override {
    if (atom->name_ == "a")
      addAtom("b_extra");
  }
};

TEST(NetworkRanking, AtomsRegisteredWhileRankingAreRanked) {
  GrowingNetwork net;
  net.addAtom("a");
  net.addAtom("z");
  net.updateRanking();
  ASSERT_EQ(net.atoms_.size(), 3u);
  std::unique_ptr<std::vector<Atom*>> ordered(net.getTopologicalOrderedAtoms());
  for (size_t i = 0; i < ordered->size(); ++i)
    EXPECT_EQ((*ordered)[i]->rank_, int(i) + 1);
}

}  // namespace
