#include "atom.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

namespace {

// Both directions of a parent -> child edge, as the network makes them.
void link(Atom* parent, Atom* child) {
  child->addInAtom(parent);
  parent->addOutAtom(child);
}

std::vector<std::string> names(const std::set<Atom*, Atom::CmpId>& atoms) {
  std::vector<std::string> result;
  for (const Atom* a : atoms)
    result.push_back(a->name_);
  return result;
}

TEST(AtomEdges, NewEdgeRaisesBothWeightsOnceAndKeepsIdOrder) {
  Atom c("c", 2), a("a", 2), b("b", 2);
  link(&b, &c);
  link(&a, &c);
  link(&a, &c);  // repeated: no second entry, no second weight
  ASSERT_EQ(c.in_.size(), 2u);
  EXPECT_LT(c.in_[0]->id_, c.in_[1]->id_);
  // c took one weight per new in-edge and one per addOutAtom on the parent.
  EXPECT_EQ(c.weight_, 4u);
  EXPECT_EQ(a.weight_, 2u);
  EXPECT_EQ(b.weight_, 2u);
}

TEST(AtomEdges, SiblingsNeverDuplicateParentsOrChildren) {
  Atom x("x", 2), p("p", 2), s("s", 2);
  link(&p, &x);
  x.addSiblingAtom(&p);  // already a parent: refused
  x.addSiblingAtom(&s);
  x.addSiblingAtom(&s);
  EXPECT_EQ(x.sibling_, std::vector<Atom*>{&s});
  uint32_t before = x.weight_;
  link(&x, &s);  // the sibling becomes a child and leaves the sibling list
  EXPECT_TRUE(x.sibling_.empty());
  EXPECT_EQ(x.out_, std::vector<Atom*>{&s});
  EXPECT_EQ(x.weight_, before + 2);
}

TEST(AtomIdentity, IdsCopiesAndInit) {
  Atom a("a", 3);
  Atom b("b", 2);
  EXPECT_EQ(b.id_, a.id_ + 1);
  link(&a, &b);
  Atom copy(b);
  EXPECT_EQ(copy.name_, "b");
  EXPECT_EQ(copy.domainsize_, 2u);
  EXPECT_GT(copy.id_, b.id_);
  EXPECT_TRUE(copy.in_.empty());
  EXPECT_EQ(copy.weight_, 0u);
  Atom untitled;
  EXPECT_EQ(untitled.name_, "untitledAtom");
  EXPECT_EQ(untitled.domainsize_, 0u);
  int old = untitled.id_;
  untitled.init();
  EXPECT_GT(untitled.id_, old);
  EXPECT_TRUE(a.isSame(&a));
  EXPECT_FALSE(a.isSame(&copy));
}

TEST(AtomPrime, CreatedOnceWithNameDomainAndLinks) {
  Atom a("a", 3);
  a.rank_ = 4;
  a.weight_ = 7;
  Atom* prime = a.createPrimeAtom();
  EXPECT_EQ(prime, a.createPrimeAtom());
  EXPECT_EQ(prime->name_, "a'");
  EXPECT_EQ(prime->domainsize_, 3u);  // a ground atom's prime keeps its domain
  EXPECT_TRUE(prime->prime_);
  EXPECT_EQ(prime->in_, std::vector<Atom*>{&a});
  EXPECT_EQ(prime->out_, std::vector<Atom*>{&a});
  EXPECT_EQ(prime->rank_, 4);
  EXPECT_EQ(prime->weight_, 7u);
  EXPECT_TRUE(a.in_.empty());  // no reverse edges on the owner
}

TEST(AtomNeighbours, ThreeCases) {
  Atom p("p", 2), x("x", 2), c1("c1", 2), c2("c2", 2), s("s", 2);
  link(&p, &x);
  link(&x, &c1);
  link(&x, &c2);
  x.addSiblingAtom(&s);
  Atom* c1prime = c1.createPrimeAtom();

  std::set<Atom*, Atom::CmpId> plain;
  x.getNeighbours(&plain, true);  // no prime: the flag does not matter
  EXPECT_EQ(names(plain), (std::vector<std::string>{"p", "c1", "c2", "s"}));

  x.createPrimeAtom();
  std::set<Atom*, Atom::CmpId> parents;
  x.getNeighbours(&parents, true);
  EXPECT_EQ(names(parents), (std::vector<std::string>{"p", "x"}));

  std::set<Atom*, Atom::CmpId> children;
  children.insert(&p);  // the caller's set is not cleared
  x.getNeighbours(&children, false);
  EXPECT_EQ(children.size(), 4u);
  EXPECT_TRUE(children.count(c1prime));
  EXPECT_FALSE(children.count(&c1));
  EXPECT_TRUE(children.count(&c2));
  EXPECT_TRUE(children.count(&s));
}

TEST(AtomRank, PrimeRanksDirectlyBeforeItsOwner) {
  Atom a("a", 2), b("b", 2);
  EXPECT_EQ(b.setRank(3), 1);
  EXPECT_EQ(b.rank_, 3);
  Atom* prime = a.createPrimeAtom();
  EXPECT_EQ(a.setRank(5), 2);
  EXPECT_EQ(prime->rank_, 5);
  EXPECT_EQ(a.rank_, 6);
}

TEST(AtomWeights, RankDegreeAndAccumulatedHeuristics) {
  Atom p1("p1", 2), p2("p2", 2), x("x", 2), y("y", 2), lonely("lonely", 2);
  link(&p1, &x);
  link(&p2, &x);
  link(&x, &y);
  x.rank_ = 9;

  lonely.setWeightWithDegree(false);
  EXPECT_EQ(lonely.weight_, 0u);
  lonely.setWeightWithDegreeD(false);
  EXPECT_EQ(lonely.weight_, 0u);

  x.setWeightWithRank(false);
  EXPECT_EQ(x.weight_, 9u);
  x.setWeightWithDegree(false);
  EXPECT_EQ(x.weight_, 3u);

  // Heavier parents count only for an atom split through a prime.
  p1.weight_ = 20;
  x.setWeightWithDegreeD(false);
  EXPECT_EQ(x.weight_, 3u);
  Atom* prime = x.createPrimeAtom();
  x.setWeightWithDegreeD(false);
  EXPECT_EQ(x.weight_, 20u);
  EXPECT_EQ(prime->weight_, 20u);

  x.weight_ = 4;
  x.setWeightWithWeightedCF(false);
  EXPECT_EQ(x.weight_, 4u);
  EXPECT_EQ(prime->weight_, 4u);
  x.setWeightWithWeightedCFD(false);
  EXPECT_EQ(x.weight_, 20u);

  prime->rank_ = 2;
  x.setWeightWithRank(false);
  EXPECT_EQ(prime->weight_, 2u);
  EXPECT_EQ(x.weight_, 9u);

  // A prime atom's weight is its owner's business.
  prime->weight_ = 11;
  prime->setWeightWithRank(false);
  prime->setWeightWithDegree(false);
  prime->setWeightWithDegreeD(false);
  prime->setWeightWithWeightedCFD(false);
  EXPECT_EQ(prime->weight_, 11u);
  testing::internal::CaptureStdout();
  prime->setWeightWithDeficiency(false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Skip x'\n");
  EXPECT_EQ(prime->weight_, 11u);
  EXPECT_EQ(x.rank_, 9);
}

TEST(AtomDeficiency, ConnectedAndUnconnectedNeighbours) {
  Atom x("x", 2), a("a", 2), b("b", 2), c("c", 2);
  link(&a, &x);
  link(&b, &x);
  link(&x, &c);
  x.setWeightWithDeficiency(false);
  EXPECT_EQ(x.weight_, 3u);
  link(&a, &b);
  link(&b, &c);
  link(&a, &c);
  x.setWeightWithDeficiency(false);
  EXPECT_EQ(x.weight_, 0u);
}

// Without prime atoms the deficiency is the number of unordered pairs of
// neighbours that share no edge: checked on random graphs.
TEST(AtomDeficiency, MatchesFillInCountOnRandomGraphs) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 200; ++round) {
    int n = 3 + rng() % 7;
    std::vector<std::unique_ptr<Atom>> atoms;
    for (int i = 0; i < n; ++i)
      atoms.emplace_back(new Atom("v" + std::to_string(i), 2));
    std::set<std::pair<int, int>> edges;
    for (int i = 0; i < n; ++i) {
      for (int j = i + 1; j < n; ++j) {
        int kind = rng() % 4;
        if (kind == 0)
          continue;
        edges.insert({i, j});
        if (kind == 1) {
          link(atoms[i].get(), atoms[j].get());
        } else if (kind == 2) {
          link(atoms[j].get(), atoms[i].get());
        } else {
          atoms[i]->addSiblingAtom(atoms[j].get());
          atoms[j]->addSiblingAtom(atoms[i].get());
        }
      }
    }
    auto adjacent = [&](int i, int j) { return edges.count({std::min(i, j), std::max(i, j)}) > 0; };
    for (int x = 0; x < n; ++x) {
      std::vector<int> nb;
      for (int v = 0; v < n; ++v)
        if (v != x && adjacent(x, v))
          nb.push_back(v);
      unsigned expected = 0;
      for (size_t i = 0; i < nb.size(); ++i)
        for (size_t j = i + 1; j < nb.size(); ++j)
          expected += !adjacent(nb[i], nb[j]);
      atoms[x]->setWeightWithDeficiency(false);
      ASSERT_EQ(atoms[x]->weight_, expected) << "round " << round << " atom " << x;
    }
  }
}

// With a prime atom the prime takes the parents for its own count, the atom
// counts its children and siblings, and the sibling lists end up exchanged.
TEST(AtomDeficiency, PrimeAtomExchangesParentsAndSiblings) {
  Atom p1("p1", 2), p2("p2", 2), x("x", 2), y("y", 2), s("s", 2);
  link(&p1, &x);
  link(&p2, &x);
  link(&x, &y);
  x.addSiblingAtom(&s);
  Atom* prime = x.createPrimeAtom();
  std::vector<Atom*> parents = x.in_;

  x.setWeightWithDeficiency(false);
  // Prime's keys p1, p2, x: only p1-p2 lacks an edge.
  EXPECT_EQ(prime->weight_, 1u);
  // Owner's keys x, y, s: x's set is {x}, y's is {x}: three missing edges.
  EXPECT_EQ(x.weight_, 3u);
  EXPECT_EQ(x.in_, parents);
  EXPECT_EQ(prime->in_, std::vector<Atom*>{&x});
  EXPECT_TRUE(x.sibling_.empty());
  EXPECT_EQ(prime->sibling_, std::vector<Atom*>{&s});
}

TEST(AtomText, BriefFullXmlAndBodies) {
  Atom a("a", 2);
  a.rank_ = 3;
  a.weight_ = 2;
  std::string id = std::to_string(a.id_);
  EXPECT_EQ(a.str(true), "a");
  EXPECT_EQ(a.str(false), "a(d:2,i:" + id + ",r:3,w:2)");
  std::ostringstream os;
  os << a;
  EXPECT_EQ(os.str(), a.str(false));
  EXPECT_EQ(a.xml(), "<atom id='" + id + "' domainsize='2' rank='3' weight='2' >a</atom>");

  Atom b("b<", 3);
  AtomBody body;
  EXPECT_EQ(AtomBodyOps::str(body), "[ ]");
  body[&b] = 2;
  body[&a] = 0;
  EXPECT_EQ(AtomBodyOps::str(body), "[ " + a.str(false) + "=0 " + b.str(false) + "=2 ]");
}

TEST(AtomOrders, ComparatorsAndDynamicalOrder) {
  Atom a("a", 2), b("b", 2);
  a.rank_ = 1;
  b.rank_ = 2;
  a.weight_ = 5;
  b.weight_ = 5;
  EXPECT_TRUE(Atom::Cmp()(&a, &b));
  EXPECT_TRUE(Atom::CmpInv()(&b, &a));
  EXPECT_TRUE(a.isLessDynamical(&b));
  EXPECT_TRUE(b.isMoreDynamical(&a));
  EXPECT_FALSE(Atom::CmpWeight()(&a, &b));
  EXPECT_FALSE(Atom::CmpWeightInv()(&a, &b));
  b.weight_ = 0xFFFFFFFFu;  // weights compare unsigned
  EXPECT_TRUE(Atom::CmpWeight()(&a, &b));
  EXPECT_TRUE(Atom::CmpWeightInv()(&b, &a));
  EXPECT_TRUE(Atom::CmpDynamical()(&a, &b));
  a.rank_ = -1;  // ranks compare signed
  EXPECT_TRUE(Atom::Cmp()(&a, &b));
}

TEST(AtomMultFactorizable, GroundAtomNeedsSeveralParents) {
  Atom x("x", 2), p("p", 2), q("q", 2);
  link(&p, &x);
  EXPECT_FALSE(x.isMultFactorizable());
  link(&q, &x);
  EXPECT_TRUE(x.isMultFactorizable());
}

TEST(AtomDeathTest, MultFactorizableWithoutParentsAborts) {
  Atom orphan("orphan", 2);
  EXPECT_DEATH(orphan.isMultFactorizable(),
               "src/atom\\.cpp:[0-9]+: bool Atom::isMultFactorizable\\(\\) const: "
               "Assertion `in_.size\\(\\) != 0' failed");
}

TEST(RandomNumber, StaysWithinRange) {
  srand(7);
  for (int i = 0; i < 2000; ++i) {
    EXPECT_EQ(randomNumber(0), 0);
    int r = randomNumber(10);
    EXPECT_GE(r, 0);
    EXPECT_LE(r, 10);
  }
}

}  // namespace
