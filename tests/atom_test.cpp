#include "atom.h"

#include <gtest/gtest.h>

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

TEST(AtomEdges, EdgesAreUniqueWeightedAndKeptInIdOrder) {
  Atom c("c", 2), a("a", 2), b("b", 2), s("s", 2);
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
  EXPECT_EQ(c.out_, std::vector<Atom*>{&s});
  EXPECT_EQ(c.weight_, 6u);
}

TEST(AtomIdentity, CopiesAndPrimesAreNewAtoms) {
  Atom a("a", 3);
  Atom b("b", 2);
  EXPECT_EQ(b.id_, a.id_ + 1);
  link(&a, &b);
  Atom copy(b);  // same name and domain, fresh id, no edges
  EXPECT_EQ(copy.name_ + std::to_string(copy.domainsize_), "b2");
  EXPECT_TRUE(copy.id_ > b.id_ && copy.in_.empty() && copy.weight_ == 0);
  int old = copy.id_;
  copy.init();  // a new id
  EXPECT_GT(copy.id_, old);
  EXPECT_EQ(Atom().name_, "untitledAtom");
  a.weight_ = 7;
  Atom* prime = a.createPrimeAtom();
  EXPECT_EQ(prime, a.createPrimeAtom());
  EXPECT_EQ(prime->name_, "a'");
  EXPECT_EQ(prime->domainsize_, 3u);  // a ground atom's prime keeps its domain
  EXPECT_TRUE(prime->prime_);
  EXPECT_EQ(prime->in_, std::vector<Atom*>{&a});
  EXPECT_EQ(prime->out_, std::vector<Atom*>{&a});
  EXPECT_EQ(prime->weight_, 7u);
  EXPECT_TRUE(a.in_.empty());  // no reverse edges on the owner
  // The prime ranks directly before its owner.
  EXPECT_EQ(b.setRank(3), 1);
  EXPECT_EQ(a.setRank(5), 2);
  EXPECT_EQ(prime->rank_, 5);
  EXPECT_EQ(a.rank_, 6);
}

TEST(AtomNeighbours, PlainPrimeSplitParentsAndPrimeSplitChildren) {
  Atom p("p", 2), x("x", 2), c1("c1", 2), c2("c2", 2), s("s", 2);
  link(&p, &x);
  link(&x, &c1);
  link(&x, &c2);
  x.addSiblingAtom(&s);
  Atom* c1prime = c1.createPrimeAtom();
  typedef std::set<Atom*, Atom::CmpId> Set;
  Set plain;
  x.getNeighbours(&plain, true);  // no prime: the flag does not matter
  EXPECT_EQ(plain, (Set{&p, &c1, &c2, &s}));
  x.createPrimeAtom();
  Set parents;
  x.getNeighbours(&parents, true);
  EXPECT_EQ(parents, (Set{&p, &x}));
  Set children{&p};  // the caller's set is not cleared
  x.getNeighbours(&children, false);
  EXPECT_EQ(children, (Set{&p, c1prime, &c2, &s}));
}

// x has parents p1 (weight 20) and p2, child y, rank 9 and weight 4 from
// before; its prime ranks 2. Each heuristic's weight for x without and with a
// prime, and the prime's; a prime's own weight is its owner's business.
TEST(AtomWeights, HeuristicsWithAndWithoutPrime) {
  struct Case {
    void (Atom::*set)(bool);
    uint32_t plain, split, prime;
  };
  for (const Case& c : std::vector<Case>{{&Atom::setWeightWithRank, 9, 9, 2},
                                         {&Atom::setWeightWithDegree, 3, 3, 3},
                                         {&Atom::setWeightWithDegreeD, 3, 20, 20},
                                         {&Atom::setWeightWithWeightedCF, 4, 4, 4},
                                         {&Atom::setWeightWithWeightedCFD, 4, 20, 20}}) {
    for (bool split : {false, true}) {
      Atom p1("p1", 2), p2("p2", 2), x("x", 2), y("y", 2);
      link(&p1, &x);
      link(&p2, &x);
      link(&x, &y);
      x.rank_ = 9;
      x.weight_ = 4;
      p1.weight_ = 20;
      Atom* prime = split ? x.createPrimeAtom() : nullptr;
      if (split)
        prime->rank_ = 2;
      (x.*c.set)(false);
      EXPECT_EQ(x.weight_, split ? c.split : c.plain);
      if (split) {
        EXPECT_EQ(prime->weight_, c.prime);
        prime->weight_ = 11;
        (prime->*c.set)(false);
        EXPECT_EQ(prime->weight_, 11u);
      }
    }
  }
  Atom x("x", 2);
  testing::internal::CaptureStdout();
  x.createPrimeAtom()->setWeightWithDeficiency(false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Skip x'\n");
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
  Atom a("a", 2), b("b<", 3);
  a.rank_ = 3;
  a.weight_ = 2;
  std::string id = std::to_string(a.id_);
  EXPECT_EQ(a.str(true), "a");
  EXPECT_EQ(a.str(false), "a(d:2,i:" + id + ",r:3,w:2)");
  EXPECT_EQ(a.xml(), "<atom id='" + id + "' domainsize='2' rank='3' weight='2' >a</atom>");
  AtomBody body;
  EXPECT_EQ(AtomBodyOps::str(body), "[ ]");
  body[&b] = 2;
  body[&a] = 0;
  EXPECT_EQ(AtomBodyOps::str(body), "[ " + a.str(false) + "=0 " + b.str(false) + "=2 ]");
}

// Weight first, ties by rank.
TEST(AtomOrders, DynamicalOrder) {
  Atom a("a", 2), b("b", 2);
  a.rank_ = -1;
  b.rank_ = 2;
  a.weight_ = b.weight_ = 5;
  EXPECT_TRUE(a.isLessDynamical(&b) && b.isMoreDynamical(&a) && !a.isMoreDynamical(&b));
  a.weight_ = 6;
  EXPECT_TRUE(b.isLessDynamical(&a) && a.isMoreDynamical(&b));
}

TEST(AtomDeathTest, MultFactorizableNeedsSeveralParents) {
  Atom x("x", 2), p("p", 2), q("q", 2);
  link(&p, &x);
  EXPECT_FALSE(x.isMultFactorizable());
  link(&q, &x);
  EXPECT_TRUE(x.isMultFactorizable());
  EXPECT_DEATH(p.isMultFactorizable(),
               "src/atom\\.cpp:[0-9]+: bool Atom::isMultFactorizable\\(\\) const: "
               "Assertion `in_.size\\(\\) != 0' failed");
}

TEST(RandomNumber, StaysWithinRange) {
  srand(7);
  for (int i = 0; i < 2000; ++i) {
    int r = randomNumber(10);
    ASSERT_TRUE(randomNumber(0) == 0 && r >= 0 && r <= 10) << r;
  }
}

}  // namespace
