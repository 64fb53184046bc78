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
  EXPECT_TRUE(net.needs_update_);
  Atom* a = net.addAtom("a");
  EXPECT_EQ(net.addAtom("b"), b);
  EXPECT_EQ(net.atoms_.size(), 2u);
  EXPECT_EQ(b->domainsize_, 2u);
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

  std::unique_ptr<std::vector<Atom*>> ground(net.getAtoms());
  EXPECT_EQ(*ground, (std::vector<Atom*>{a, prime, b}));
  std::unique_ptr<std::vector<Atom*>> all(net.getAllAtoms());
  EXPECT_EQ(*all, (std::vector<Atom*>{choice, a, prime, b}));
}

TEST(NetworkRanking, ReadySetHeaviestFirstTiesInInsertionOrder) {
  ConfactorNetworkBase net;
  net.weight_heuristic_ = 1;
  Atom* a = net.addAtom("a");
  Atom* b = net.addAtom("b");
  Atom* z = net.addAtom("z");
  Atom* m = net.addAtom("m");
  Atom* n = net.addAtom("n");
  Atom* c = net.addAtom("c");
  // z has two children, so it outweighs the roots a and b, which tie and keep
  // name order. Once b is ranked, c (weight 4 from its edges) overtakes z's
  // children m and n, which joined the ready set earlier with weight 2.
  link(z, m);
  link(z, n);
  link(a, c);
  link(b, c);
  net.updateTopologicalRanking();
  EXPECT_EQ(ranks(net), (std::map<std::string, int>{
                            {"z", 1}, {"a", 2}, {"b", 3}, {"c", 4}, {"m", 5}, {"n", 6}}));
  EXPECT_EQ(z->weight_, 2u);  // degree heuristic applied while ranking
  EXPECT_EQ(m->weight_, 1u);

  // Final order: weight ascending, ties by topological rank.
  net.updateRanking();
  EXPECT_EQ(ranks(net), (std::map<std::string, int>{
                            {"a", 1}, {"b", 2}, {"m", 3}, {"n", 4}, {"z", 5}, {"c", 6}}));
}

TEST(NetworkRanking, PrimeAtomRanksBeforeItsOwner) {
  ConfactorNetworkBase net;
  Atom* p = net.addAtom("p");
  Atom* q = net.addAtom("q");
  Atom* x = net.addAtom("x");
  link(p, x);
  link(q, x);
  Atom* prime = x->createPrimeAtom();
  net.atoms_[prime->name_] = prime;
  net.updateTopologicalRanking();
  EXPECT_EQ(p->rank_, 1);
  EXPECT_EQ(q->rank_, 2);
  EXPECT_EQ(prime->rank_, 3);
  EXPECT_EQ(x->rank_, 4);
}

TEST(NetworkRanking, CycleKeepsRankZeroUntilFinalNumbering) {
  ConfactorNetworkBase net;
  Atom* r = net.addAtom("r");
  Atom* p = net.addAtom("p");
  Atom* q = net.addAtom("q");
  link(r, p);
  link(p, q);
  link(q, p);
  net.updateTopologicalRanking();
  EXPECT_EQ(r->rank_, 1);
  EXPECT_EQ(p->rank_, 0);
  EXPECT_EQ(q->rank_, 0);
  net.updateRanking();
  std::vector<int> all = {r->rank_, p->rank_, q->rank_};
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<int>{1, 2, 3}));
}

TEST(NetworkRanking, HeuristicSelectorChoosesTheWeightFunction) {
  for (int heuristic : {0, 1, 2, 3, 4, 5, 6}) {
    ConfactorNetworkBase net;
    net.weight_heuristic_ = heuristic;
    Atom* a = net.addAtom("a");
    Atom* b = net.addAtom("b");
    Atom* c = net.addAtom("c");
    link(a, c);
    link(b, c);
    c->weight_ = 40;  // stands for weight accumulated before ranking
    net.updateTopologicalRanking();
    // c: rank 3, degree 2, and one missing edge (a-b) between its neighbours.
    const uint32_t expected[] = {3, 2, 2, 1, 40, 40, 40};
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
  ASSERT_NE(net.atoms_.find("b_extra"), net.atoms_.end());
  std::vector<int> all;
  for (auto& entry : net.atoms_)
    all.push_back(entry.second->rank_);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<int>{1, 2, 3}));
  std::unique_ptr<std::vector<Atom*>> ordered(net.getTopologicalOrderedAtoms());
  for (size_t i = 0; i < ordered->size(); ++i)
    EXPECT_EQ((*ordered)[i]->rank_, int(i) + 1);
}

}  // namespace
