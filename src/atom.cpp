#include "atom.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>

int32_t Atom::next_unique_id_ = 0;

Atom::Atom(const std::string& name, int domainsize)
    : name_(name),
      domainsize_(domainsize),
      id_(next_unique_id_++),
      rank_(0),
      weight_(0),
      event_(nullptr),
      prime_(false),
      atomp_(nullptr) {}

Atom::Atom(Atom& other) : Atom(other.name_, other.domainsize_) {}

Atom::Atom() : Atom("untitledAtom", 0) {}

Atom::~Atom() {
  delete atomp_;
}

namespace {

// Inserts a into the id-sorted vector; false when it was already there.
bool insertSorted(std::vector<Atom*>& atoms, Atom* a) {
  auto pos = std::lower_bound(atoms.begin(), atoms.end(), a, Atom::CmpId());
  if (pos != atoms.end() && *pos == a)
    return false;
  atoms.insert(pos, a);
  return true;
}

bool containsSorted(const std::vector<Atom*>& atoms, Atom* a) {
  auto pos = std::lower_bound(atoms.begin(), atoms.end(), a, Atom::CmpId());
  return pos != atoms.end() && *pos == a;
}

void eraseSorted(std::vector<Atom*>& atoms, Atom* a) {
  auto pos = std::lower_bound(atoms.begin(), atoms.end(), a, Atom::CmpId());
  if (pos != atoms.end() && *pos == a)
    atoms.erase(pos);
}

}  // namespace

void Atom::addInAtom(Atom* a) {
  if (insertSorted(in_, a)) {
    weight_++;
    a->weight_++;
  }
  eraseSorted(sibling_, a);
}

void Atom::addOutAtom(Atom* a) {
  if (insertSorted(out_, a)) {
    weight_++;
    a->weight_++;
  }
  eraseSorted(sibling_, a);
}

void Atom::addSiblingAtom(Atom* a) {
  if (containsSorted(in_, a) || containsSorted(out_, a))
    return;
  insertSorted(sibling_, a);
}

void Atom::getNeighbours(std::set<Atom*, CmpId>* out, bool flag) {
  if (atomp_ == nullptr) {
    out->insert(in_.begin(), in_.end());
    out->insert(out_.begin(), out_.end());
    out->insert(sibling_.begin(), sibling_.end());
  } else if (flag) {
    out->insert(in_.begin(), in_.end());
    out->insert(this);
  } else {
    for (Atom* child : out_)
      out->insert(child->atomp_ != nullptr ? child->atomp_ : child);
    out->insert(sibling_.begin(), sibling_.end());
  }
}

Atom* Atom::createPrimeAtom() {
  if (atomp_ != nullptr)
    return atomp_;
  atomp_ = new Atom(name_ + "'", event_ != nullptr ? 2 : domainsize_);
  atomp_->in_.push_back(this);
  atomp_->out_.push_back(this);
  atomp_->prime_ = true;
  atomp_->weight_ = weight_;
  atomp_->rank_ = rank_;
  return atomp_;
}

bool Atom::isMultFactorizable() const {
  if (event_ != nullptr)
    return eventFactorizes(*event_);
  assert(in_.size() != 0);
  return in_.size() > 1;
}

bool Atom::isLessDynamical(const Atom* b) const {
  if (weight_ != b->weight_)
    return weight_ < b->weight_;
  return rank_ < b->rank_;
}

int Atom::setRank(int r) {
  if (atomp_ == nullptr) {
    rank_ = r;
    return 1;
  }
  atomp_->rank_ = r;
  rank_ = r + 1;
  return 2;
}

uint32_t Atom::degree() const {
  return in_.size() + out_.size() + sibling_.size();
}

void Atom::setWeightWithRank(bool) {
  if (prime_)
    return;
  if (atomp_ != nullptr)
    atomp_->weight_ = atomp_->rank_;
  weight_ = rank_;
}

void Atom::setWeightWithDegree(bool) {
  if (prime_)
    return;
  weight_ = degree();
  if (atomp_ != nullptr)
    atomp_->weight_ = weight_;
}

void Atom::setWeightWithDegreeD(bool) {
  if (prime_)
    return;
  weight_ = degree();
  // Only atoms split through a prime inherit their parents' weight.
  if (atomp_ == nullptr)
    return;
  for (Atom* p : in_)
    weight_ = std::max(weight_, p->weight_);
  atomp_->weight_ = weight_;
}

void Atom::setWeightWithWeightedCF(bool) {
  if (prime_)
    return;
  if (atomp_ != nullptr)
    atomp_->weight_ = weight_;
}

void Atom::setWeightWithWeightedCFD(bool) {
  if (prime_ || atomp_ == nullptr)
    return;
  for (Atom* p : in_)
    weight_ = std::max(weight_, p->weight_);
  atomp_->weight_ = weight_;
}

void Atom::setWeightWithDeficiency(bool forPrime) {
  if (prime_ && !forPrime) {
    std::cout << "Skip " << name_ << std::endl;
    return;
  }
  // After the noisy-or split the prime carries the parents: let it see them.
  if (atomp_ != nullptr) {
    std::swap(in_, atomp_->in_);
    atomp_->setWeightWithDeficiency(true);
  }

  std::map<Atom*, std::set<Atom*, CmpId>, CmpId> neighbourhood;
  if (atomp_ == nullptr) {
    for (Atom* p : in_) {
      auto& set = neighbourhood[p];
      p->getNeighbours(&set, false);
      if (prime_)
        set.insert(this);
    }
  } else if (!in_.empty()) {
    in_.front()->getNeighbours(&neighbourhood[in_.front()], true);
  }
  if (!prime_) {
    for (Atom* c : out_) {
      Atom* key = c->atomp_ != nullptr ? c->atomp_ : c;
      c->getNeighbours(&neighbourhood[key], true);
    }
  } else if (!out_.empty()) {
    out_.front()->getNeighbours(&neighbourhood[out_.front()], false);
  }
  for (Atom* s : sibling_)
    s->getNeighbours(&neighbourhood[s], false);

  // Count the pairs of neighbours that are not neighbours of each other.
  uint32_t total = 0;
  uint32_t remaining = neighbourhood.empty() ? 0 : neighbourhood.size() - 1;
  for (auto key = neighbourhood.begin(); key != neighbourhood.end(); ++key) {
    const auto& links = key->second;
    uint32_t connected = 0;
    auto later = std::next(key);
    auto link = links.upper_bound(key->first);
    while (later != neighbourhood.end() && link != links.end()) {
      if ((*link)->id_ < later->first->id_) {
        ++link;
      } else if (later->first->id_ < (*link)->id_) {
        ++later;
      } else {
        ++connected;
        ++link;
        ++later;
      }
    }
    total += remaining - connected;
    remaining--;
  }
  weight_ = total;

  if (atomp_ != nullptr) {
    std::swap(in_, atomp_->in_);
    std::swap(sibling_, atomp_->sibling_);
  }
}

std::string Atom::str(bool brief) const {
  if (brief)
    return name_;
  std::ostringstream os;
  os << name_ << "(d:" << domainsize_ << ",i:" << id_ << ",r:" << rank_ << ",w:" << weight_ << ")";
  return os.str();
}

std::string Atom::xml() const {
  std::ostringstream os;
  os << "<atom id='" << id_ << "' domainsize='" << domainsize_ << "' rank='" << rank_
     << "' weight='" << weight_ << "' >" << name_ << "</atom>";
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const Atom& atom) {
  return os << atom.str(false);
}

std::string AtomBodyOps::str(const AtomBody& body) {
  std::ostringstream os;
  os << "[ ";
  for (const auto& entry : body)
    os << entry.first->str(false) << "=" << entry.second << " ";
  os << "]";
  return os.str();
}

namespace {

std::mt19937& generator() {
  thread_local std::mt19937 g(
      static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  return g;
}

}  // namespace

int randomNumber(int n) {
  const int32_t draw = static_cast<int32_t>(generator()() >> 1);  // 0 .. 2^31 - 1
  int r = static_cast<int>(draw * 4.656613e-10f * (n + 1));
  return r > n ? 0 : r;
}

void seedRandom(uint32_t seed) {
  generator().seed(seed);
}
