// Confactor tests: the algebra against a dense reference that expands a
// confactor into a full table over a small world of atoms (NaN where it does
// not hold), plus a hand-worked case for the product's shifted domain and
// the text of a failed check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "confactor.h"

namespace {

const double kNA = std::nan("");

unsigned bits(uint32_t d) {
  return __builtin_popcount(d);
}

// Atom i's value in world x is digit i of x, atom 0 fastest.
struct World {
  std::vector<std::unique_ptr<Atom>> atoms;
  Atom* add(int domainsize, int rank, std::string name = "") {
    atoms.emplace_back(
        new Atom(name.empty() ? "x" + std::to_string(atoms.size()) : name, domainsize));
    atoms.back()->rank_ = rank;
    return atoms.back().get();
  }
  size_t size() const {
    size_t n = 1;
    for (auto& a : atoms)
      n *= a->domainsize_;
    return n;
  }
  std::vector<unsigned> decode(size_t x) const {
    std::vector<unsigned> v;
    for (auto& a : atoms) {
      v.push_back(x % a->domainsize_);
      x /= a->domainsize_;
    }
    return v;
  }
  size_t encode(const std::vector<unsigned>& v) const {
    size_t x = 0;
    for (size_t i = atoms.size(); i-- > 0;)
      x = x * atoms[i]->domainsize_ + v[i];
    return x;
  }
  size_t index(const Atom* a) const {
    return std::find_if(atoms.begin(), atoms.end(), [a](auto& p) { return p.get() == a; }) -
           atoms.begin();
  }
};

typedef std::vector<double> Dense;

// The table layout, written out independently of the code under test.
Dense expand(const Confactor& c, const World& w) {
  std::vector<const AtomDomStruct*> entries(c.atoms_.begin(), c.atoms_.end());
  std::sort(entries.begin(), entries.end(),
            [](auto a, auto b) { return a->atom_->rank_ < b->atom_->rank_; });
  Dense d(w.size());
  for (size_t x = 0; x < d.size(); ++x) {
    std::vector<unsigned> v = w.decode(x);
    size_t index = 0, stride = 1;
    d[x] = kNA;
    for (const AtomDomStruct* e : entries) {
      unsigned val = v[w.index(e->atom_)];
      bool in = e->domain_ >> val & 1;
      if ((e->flags_ & (ADS_CONTEXT | ADS_TABLE)) && !in)
        goto next;
      if (e->flags_ & ADS_TABLE) {
        index += bits(e->domain_ & ((1u << val) - 1)) * stride;
        stride *= bits(e->domain_ & ((1u << e->atom_->domainsize_) - 1));
      }
    }
    d[x] = index < c.values_.size() ? c.values_[index] : INFINITY;
  next:;
  }
  return d;
}

// Sum over atom i where defined; NaN when nowhere defined.
Dense denseSumout(const Dense& d, const World& w, size_t i) {
  Dense out(d.size());
  for (size_t x = 0; x < d.size(); ++x) {
    std::vector<unsigned> v = w.decode(x);
    double sum = kNA;
    for (v[i] = 0; v[i] < w.atoms[i]->domainsize_; ++v[i]) {
      double y = d[w.encode(v)];
      if (!std::isnan(y))
        sum = std::isnan(sum) ? y : sum + y;
    }
    out[x] = sum;
  }
  return out;
}

// Atom i restricted to the values of s; with drop, s is one value and the
// result no longer depends on atom i.
Dense denseRestrict(const Dense& d, const World& w, size_t i, uint32_t s, bool drop) {
  Dense out(d.size());
  for (size_t x = 0; x < d.size(); ++x) {
    std::vector<unsigned> v = w.decode(x);
    if (drop)
      v[i] = __builtin_ctz(s);
    out[x] = (s >> v[i] & 1) ? d[w.encode(v)] : kNA;
  }
  return out;
}

void expectSame(const Dense& got, const Dense& want, const std::string& what) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t x = 0; x < got.size(); ++x) {
    if (std::isnan(want[x])) {
      ASSERT_TRUE(std::isnan(got[x])) << what << " at " << x;
    } else {
      ASSERT_NEAR(got[x], want[x], 1e-9 * (1 + std::fabs(want[x]))) << what << " at " << x;
    }
  }
}

struct Entry {
  Atom* atom;
  uint32_t domain;
  unsigned flags;
};

std::unique_ptr<Confactor> make(const std::vector<Entry>& entries, std::vector<double> values) {
  ConfactorAtoms atoms;
  for (const Entry& e : entries)
    atoms.insert(new AtomDomStruct(e.atom, int(e.domain), e.flags));
  return std::make_unique<Confactor>(atoms, values);
}

struct Random {
  std::mt19937 rng;
  explicit Random(unsigned seed) : rng(seed) {}
  unsigned below(unsigned n) { return rng() % n; }
  uint32_t subset(unsigned n, unsigned minCount) {
    for (;;) {
      uint32_t s = rng() & ((1u << n) - 1);
      if (bits(s) >= minCount)
        return s;
    }
  }
  // Atoms with shuffled distinct ranks: id order and rank order differ.
  void world(World& w, unsigned n, bool binary) {
    std::vector<int> ranks;
    for (unsigned i = 0; i < n; ++i)
      ranks.push_back(10 * i + 3);
    std::shuffle(ranks.begin(), ranks.end(), rng);
    for (unsigned i = 0; i < n; ++i)
      w.add(binary ? 2 : 2 + below(4), ranks[i]);
  }
  // Each atom absent, a full table atom, a restricted table atom or a pure
  // context atom; random table entries.
  std::unique_ptr<Confactor> confactor(const World& w) {
    std::vector<Entry> entries;
    for (auto& a : w.atoms) {
      unsigned n = a->domainsize_;
      switch (below(4)) {
        case 1:
          entries.push_back({a.get(), (1u << n) - 1, ADS_TABLE});
          break;
        case 2:
          entries.push_back({a.get(), subset(n, 2), ADS_CONTEXT | ADS_TABLE});
          break;
        case 3:
          entries.push_back({a.get(), subset(n, 1), ADS_CONTEXT});
          break;
      }
    }
    auto c = make(entries, {});
    for (double& v : c->values_)
      v = 0.1 + (rng() % 1000) / 500.0;
    return c;
  }
};

// The product's index map is exact for an operand's table atom with domain o
// and result domain d when the values of o up to max(d) are d itself or, if d
// lacks value 0, d plus one value below min(d). The shifted-domain shortcut
// misreads everything else, e.g. any table atom over {1, 2}.
bool mapExact(uint32_t d, uint32_t o) {
  if (bits(d) <= 1)
    return true;
  uint32_t extra = o & ((2u << (31 - __builtin_clz(d))) - 1) & ~d;
  return (d & 1) ? extra == 0 : bits(extra) == 1 && extra < (d & -d);
}

bool operandExact(const Confactor& op, const Confactor& other) {
  for (const AtomDomStruct* e : op.atoms_) {
    auto it = other.atoms_.find(e->atom_);
    uint32_t d = e->domain_ & (it == other.atoms_.end() ? ~0u : (*it)->domain_);
    if ((e->flags_ & ADS_TABLE) && !mapExact(d, e->domain_))
      return false;
  }
  return true;
}

TEST(ConfactorAlgebra, ProductSumAndEliminationMatchDenseReference) {
  Random r(20240611);
  int exact = 0;
  for (int round = 0; round < 600; ++round) {
    World w;
    r.world(w, 4, round % 2 == 0);
    auto a = r.confactor(w), b = r.confactor(w);
    Dense da = expand(*a, w), db = expand(*b, w);
    bool overlap = false;
    for (size_t x = 0; x < da.size(); ++x)
      overlap |= !std::isnan(da[x]) && !std::isnan(db[x]);
    EXPECT_EQ(a->isCompatibleOrOverlapping(*b), overlap);
    if (!operandExact(*a, *b) || !operandExact(*b, *a))
      continue;
    ++exact;
    int add = r.below(2);
    Dense want(da.size());
    for (size_t x = 0; x < da.size(); ++x)
      want[x] = add ? da[x] + db[x] : da[x] * db[x];
    Confactor p(a.get(), b.get(), nullptr, add, -1);
    expectSame(expand(p, w), want, "product");
    if (p.values_.empty())
      continue;
    // Eliminating in the same step: sum out, or restrict and drop.
    const AtomDomStruct* e = p.atoms_[r.below(p.atoms_.size())];
    size_t i = w.index(e->atom_);
    if (!(e->flags_ & ADS_TABLE))
      continue;
    int value = r.below(2) ? -1 : int(__builtin_ctz(e->domain_));
    Confactor q(a.get(), b.get(), e->atom_, add, value);
    expectSame(expand(q, w),
               value == -1 ? denseSumout(want, w, i) : denseRestrict(want, w, i, 1u << value, true),
               "eliminated");
    EXPECT_TRUE(q.atoms_.find(e->atom_) == q.atoms_.end());
  }
  EXPECT_GT(exact, 300);
}

TEST(ConfactorAlgebra, ReshapingMatchesDenseReference) {
  Random r(77);
  for (int round = 0; round < 800; ++round) {
    World w;
    r.world(w, 4, round % 3 == 0);
    auto c = r.confactor(w);
    Dense d = expand(*c, w);
    size_t i = r.below(4);
    Atom* x = w.atoms[i].get();
    unsigned n = x->domainsize_;
    auto it = c->atoms_.find(x);
    const AtomDomStruct* e = it == c->atoms_.end() ? nullptr : *it;
    Dense want;
    double fill = r.below(4);
    switch (round % 5) {
      case 0:  // sum out; a context table atom kept stays a restriction
        if (!e || !(e->flags_ & ADS_TABLE))
          continue;
        {
          bool keep = r.below(2), stays = keep && (e->flags_ & ADS_CONTEXT);
          want = denseSumout(d, w, i);
          if (stays)
            want = denseRestrict(want, w, i, e->domain_, false);
          c->sumoutAtom(x, keep);
          EXPECT_EQ(c->atoms_.find(x) != c->atoms_.end(), stays);
        }
        break;
      case 1:  // narrow to a non-empty subset
        if (!e)
          continue;
        {
          uint32_t s = 0;
          while (bits(s) == 0)
            s = r.subset(n, 1) & e->domain_;
          bool keep = r.below(2), drop = bits(s) == 1 && !keep && s != e->domain_;
          want = denseRestrict(d, w, i, s, drop);
          c->shrinkAtom(x, s, keep);
        }
        break;
      case 2:  // widen a table atom to its full domain
        if (!e || !(e->flags_ & ADS_TABLE))
          continue;
        {
          uint32_t old = e->domain_;
          Dense covered = denseRestrict(d, w, i, 1u << __builtin_ctz(old), true);
          want = d;
          for (size_t k = 0; k < d.size(); ++k)
            if (!(old >> w.decode(k)[i] & 1))
              want[k] = std::isnan(covered[k]) ? kNA : fill;
          c->growAtom(x, (1u << n) - 1, fill);
        }
        break;
      case 3:  // add a new atom, as a table over a prefix or as a context
        if (e)
          continue;
        {
          bool table = r.below(2);
          uint32_t s = table ? (1u << (2 + r.below(n - 1))) - 1 : r.subset(n, 1);
          unsigned start = table ? r.below(bits(s)) : 0;
          want = denseRestrict(d, w, i, s, false);
          for (size_t k = 0; k < d.size(); ++k)
            if (table && w.decode(k)[i] != start && !std::isnan(want[k]))
              want[k] = fill;
          auto res = c->addAtom(x, table ? ADS_TABLE : ADS_CONTEXT, s, int(fill), start);
          EXPECT_TRUE(res.second);
        }
        break;
      case 4:  // complete table
      {
        want = d;
        for (double& v : want)
          v = std::isnan(v) ? fill : v;
        std::unique_ptr<Confactor> t(c->convertToCPT(int(fill)));
        for (const AtomDomStruct* te : t->atoms_)
          EXPECT_EQ(te->flags_ & ~ADS_FORATOM, ADS_TABLE);
        expectSame(expand(*t, w), want, "convertToCPT");
        continue;
      }
    }
    expectSame(expand(*c, w), want, "reshaped");
  }
}

// The product's shifted domain, a deliberate shortcut: the restricted operand
// {1,2} has m = 0, so its value at x = 1 serves both slices.
TEST(ConfactorAlgebra, ShiftedProductDomainOnAHandWorkedCase) {
  World w;
  Atom* x = w.add(3, 1);
  auto full = make({{x, 7, ADS_TABLE}}, {2, 3, 5});
  auto part = make({{x, 6, ADS_CONTEXT | ADS_TABLE}}, {7, 11});
  Confactor p(full.get(), part.get(), nullptr, 0, -1);
  EXPECT_EQ(p.values_, (std::vector<double>{21, 35}));
}

// Entries freed by a thread that ends are handed on, not freed: the next
// thread short of entries takes them. Every entry it then holds must be
// distinct and keep what was written into it.
TEST(ConfactorEntries, FreedEntriesOfAnEndedThreadServeTheNext) {
  Atom atom("x", 2);
  std::thread([&] {
    std::vector<AtomDomStruct*> made;
    for (int i = 0; i < 5000; ++i)
      made.push_back(new AtomDomStruct(&atom, 0));
    for (AtomDomStruct* e : made)
      delete e;
  }).join();
  std::thread([&] {
    std::vector<AtomDomStruct*> made;
    for (int i = 0; i < 12000; ++i) {
      made.push_back(new AtomDomStruct(&atom, 0));
      made.back()->flags_ = static_cast<uint32_t>(i);
    }
    std::set<AtomDomStruct*> distinct(made.begin(), made.end());
    EXPECT_EQ(distinct.size(), made.size());
    for (size_t i = 0; i < made.size(); ++i) {
      EXPECT_EQ(made[i]->flags_, i);
      EXPECT_EQ(made[i]->atom_, &atom);
      delete made[i];
    }
  }).join();
}

TEST(ConfactorDeathTest, AssertionTexts) {
  World w;
  Atom *a = w.add(2, 1), *b = w.add(2, 2);
  auto f = make({{a, 3, ADS_TABLE}}, {1, 2});
  EXPECT_DEATH(f->getValue({0, 1}, 0),
               "src/confactor.cpp.*indices.size\\(\\) == atoms_.size\\(\\)");
  EXPECT_DEATH(f->setValue({{b, 0}}, 0), "src/confactor.cpp.*it_ads != atoms_.end\\(\\)");
}

}  // namespace
