#include "cve.h"

#include <algorithm>
#include <cassert>
#include <iostream>
#include <sstream>

#include "completeconfactorset.h"
#include "querylimits.h"

void FactorIndex::insert(Confactor* c) {
  const size_t stamp = alive_.size();
  const bool fresh = live_.emplace(c, Record{stamp, c->atoms_.size()}).second;
  assert(fresh);
  (void)fresh;
  alive_.push_back(1);
  for (const AtomDomStruct* entry : c->atoms_)
    listOf(static_cast<int>(entry->atom_->id_)).push_back(Entry{c, stamp});
  entries_ += c->atoms_.size();
}

bool FactorIndex::erase(const Confactor* c) {
  auto found = live_.find(c);
  if (found == live_.end())
    return false;
  alive_[found->second.stamp] = 0;
  entries_ -= found->second.entries;
  retired_ += found->second.entries;
  live_.erase(found);
  if (live_.empty()) {
    clear();
  } else if (retired_ > entries_ + 4096) {
    for (auto it = lists_.begin(); it != lists_.end();) {
      compact(&it->second);
      it = it->second.empty() ? lists_.erase(it) : std::next(it);
    }
    forgetLists();
    retired_ = 0;
  }
  return true;
}

void FactorIndex::compact(std::vector<Entry>* entries) {
  const size_t before = entries->size();
  entries->erase(std::remove_if(entries->begin(), entries->end(),
                                [this](const Entry& e) { return !alive_[e.stamp]; }),
                 entries->end());
  retired_ -= std::min(retired_, before - entries->size());
}

std::vector<Confactor*> FactorIndex::under(int id) {
  std::vector<Confactor*> result;
  auto list = lists_.find(id);
  if (list == lists_.end())
    return result;
  compact(&list->second);
  result.reserve(list->second.size());
  for (const Entry& e : list->second)
    result.push_back(e.confactor);
  return result;
}

std::vector<Confactor*> FactorIndex::confactors() const {
  std::vector<Confactor*> result;
  result.reserve(live_.size());
  for (const auto& entry : live_)
    result.push_back(const_cast<Confactor*>(entry.first));
  return result;
}

std::vector<FactorIndex::Entry>& FactorIndex::listOf(int id) {
  Slot& slot = slots_[static_cast<size_t>(id) % kSlots];
  if (slot.list == nullptr || slot.id != id)
    slot = Slot{id, &lists_[id]};
  return *slot.list;
}

void FactorIndex::forgetLists() {
  slots_.fill(Slot{0, nullptr});
}

void FactorIndex::clear() {
  lists_.clear();
  forgetLists();
  live_.clear();
  alive_.clear();
  entries_ = 0;
  retired_ = 0;
}

CVE::CVE()
    : next_auxiliary_rank_(0),
      sort_elim_order_(true),
      use_complete_set_tree_(true),
      num_factors_(0),
      constant_(1.0) {}

CVE::~CVE() {
  const std::vector<Confactor*> all = factors_.confactors();
  factors_.clear();
  for (Confactor* c : all)
    delete c;
}

void CVE::addFactor(Confactor* c) {
  if (c->atoms_.empty()) {
    constant_ *= c->values_.empty() ? 1.0 : c->values_[0];
    delete c;
    return;
  }
  factors_.insert(c);
  ++num_factors_;
}

void CVE::removeFactor(Confactor* c, bool destroy) {
  factors_.erase(c);
  if (destroy)
    delete c;
  --num_factors_;
}

void CVE::removeFactors(bool destroy) {
  for (Confactor* c : factors_.confactors())
    removeFactor(c, destroy);
}

void CVE::addAtom(Atom* a) {
  elim_order_.push_back(a);
  if (a->atomp_ != NULL)
    elim_order_.push_back(a->atomp_);
}

Atom* CVE::newAuxiliaryAtom(const std::string& name, unsigned domainsize) {
  auxiliary_atoms_.emplace_back(new Atom(name, static_cast<int>(domainsize)));
  Atom* atom = auxiliary_atoms_.back().get();
  atom->rank_ = next_auxiliary_rank_++;
  elim_order_.push_back(atom);
  return atom;
}

void CVE::sortElimOrder() {
  std::sort(elim_order_.begin(), elim_order_.end(), Atom::Cmp());
}

void CVE::clear() {
  removeFactors(false);
  elim_order_.clear();
}

std::vector<Confactor*>* CVE::getFactorsFor(Atom* a) {
  auto* result = new std::vector<Confactor*>();
  for (Confactor* c : factors_.under(a->id_)) {
    if (c->isForAtom(*a))
      result->push_back(c);
  }
  return result;
}

std::set<Confactor*, ConfactorCmpId>* CVE::getConfactorSet() const {
  auto* result = new std::set<Confactor*, ConfactorCmpId>();
  for (Confactor* c : factors_.confactors())
    result->insert(c);
  return result;
}

void CVE::query(Atom* q) {
  if (sort_elim_order_)
    sortElimOrder();
  const size_t n = elim_order_.size();
  for (size_t i = 0; i < n; ++i) {
    if (elim_order_[i] == q)
      continue;
    if (use_complete_set_tree_) {
      eliminate(elim_order_[i]);
    } else {
      eliminateNoCST(elim_order_[i]);
    }
    queryProgress("eliminating", i + 1, n);
  }
}

int CVE::queryWithSuspend(Atom* q, unsigned int step) {
  // Sorting again later could reorder atoms whose weights the eliminations rewrote.
  if (step == 0)
    sortElimOrder();
  if (step >= elim_order_.size())
    return -1;
  if (elim_order_[step] != q)
    eliminate(elim_order_[step]);
  return static_cast<int>(step) + 1;
}

Confactor* CVE::createCPT() {
  if (factors_.empty())
    return new Confactor(0.0);
  Confactor* result = createJoint();
  result->normalize();
  return result;
}

Confactor* CVE::createJoint() {
  std::unique_ptr<std::set<Confactor*, ConfactorCmpId>> all(getConfactorSet());
  // Outside its context a confactor multiplies by 1, also when it is alone.
  Confactor* result = productOfCompleteTables(std::vector<Confactor*>(all->begin(), all->end()));
  if (result == nullptr)
    return new Confactor(constant_);
  for (double& v : result->values_)
    v *= constant_;
  return result;
}

void CVE::eliminate(Atom* a) {
  std::vector<Confactor*> found = factors_.under(a->id_);
  for (Confactor* c : found)
    c->resetWeights();

  // Weights become distinct ranks of the atoms' occurrence counts, with a
  // lowest: the set branches on frequent atoms at the root and on a deepest.
  std::vector<Atom*> involved;
  for (Confactor* c : found) {
    for (AtomDomStruct* entry : c->atoms_) {
      if (entry->atom_->weight_++ == 0)
        involved.push_back(entry->atom_);
    }
  }
  a->weight_ = 0;
  std::sort(involved.begin(), involved.end(), [](const Atom* x, const Atom* y) {
    return x->weight_ != y->weight_ ? x->weight_ < y->weight_ : x->id_ < y->id_;
  });
  unsigned int counter = 1;
  for (Atom* atom : involved)
    atom->weight_ = counter++;
  if (found.empty())
    return;
  // Without contexts the product is one table over every atom involved: one
  // that exceeds the bound fails before anything is multiplied.
  const bool contextFree = std::none_of(found.begin(), found.end(), [](const Confactor* c) {
    return std::any_of(c->atoms_.begin(), c->atoms_.end(),
                       [](const AtomDomStruct* e) { return (e->flags_ & ADS_CONTEXT) != 0; });
  });
  if (contextFree)
    checkTableSize(tableEntriesOver(found));

  std::sort(found.begin(), found.end(), ConfactorCmpLength());
  CompleteConfactorSet set;
  for (Confactor* c : found) {
    removeFactor(c, false);
    set.addConfactor(c);
  }
  set.sumout(a);
  std::vector<Confactor*> results;
  set.extractConfactors(&results);
  for (Confactor* r : results)
    addFactor(r);
}

void CVE::eliminateNoCST(Atom* a) {
  to_absorb_.clear();
  complete_set_.clear();
  for (Confactor* c : factors_.under(a->id_)) {
    if (c->isForAtom(*a)) {
      complete_set_.push_back(c);
    } else {
      to_absorb_.push_back(c);
    }
  }
  // Absorption multiplies each confactor into the tables for a that overlap
  // it, and sums the tables' pieces, so a region that no table covers would
  // be lost. That cannot happen when a single table for a holds everywhere;
  // otherwise the complete confactor set, which covers every region,
  // eliminates a.
  const bool covered =
      complete_set_.size() == 1 &&
      std::none_of(complete_set_[0]->atoms_.begin(), complete_set_[0]->atoms_.end(),
                   [](const AtomDomStruct* e) { return (e->flags_ & ADS_CONTEXT) != 0; });
  if (!covered) {
    to_absorb_.clear();
    complete_set_.clear();
    eliminate(a);
    return;
  }
  for (Confactor* c : complete_set_)
    removeFactor(c, false);
  for (Confactor* c : to_absorb_)
    removeFactor(c, false);
  std::sort(to_absorb_.begin(), to_absorb_.end(), ConfactorCmpLength());

  // No context is factored out of the products: the results take none back.
  Confactor common(0.0);
  while (!to_absorb_.empty()) {
    Confactor* c = to_absorb_.front();
    to_absorb_.pop_front();
    absorb(c);
    delete c;
  }
  sumout(a, common);
}

void CVE::absorb(Confactor* c) {
  const size_t n = complete_set_.size();
  for (size_t i = 0; i < n; ++i) {
    Confactor* e = complete_set_[i];
    if (!e->isCompatibleOrOverlapping(*c))
      continue;
    createResiduals(e, c, &complete_set_, true);
    complete_set_[i] = new Confactor(e, c, nullptr, kMultiply, kSumOut);
    delete e;
  }
}

void CVE::unifySets(Confactor* target, Confactor** other, std::deque<Confactor*>* out,
                    bool copyOther) {
  bool copied = false;
  int cursor = static_cast<int>(target->atoms_.size()) - 1;
  for (int j = static_cast<int>((*other)->atoms_.size()) - 1; j >= 0; --j) {
    Atom* atom = (*other)->atoms_[j]->atom_;
    while (cursor >= 0 && target->atoms_[cursor]->atom_->rank_ > atom->rank_)
      --cursor;
    if (cursor < 0)
      break;
    AtomDomStruct* mine = target->atoms_[cursor];
    AtomDomStruct* theirs = (*other)->atoms_[j];
    if (mine->atom_ != atom)
      continue;
    if (((theirs->flags_ | mine->flags_) & ADS_CONTEXT) == 0)
      continue;
    const unsigned int full = fullDomainMask(atom->domainsize_);
    if (((theirs->domain_ ^ mine->domain_) & full) == 0)
      continue;

    const unsigned int onlyTheirs = theirs->domain_ & ~mine->domain_ & full;
    if (onlyTheirs != 0) {
      if (copyOther && !copied) {
        *other = new Confactor(**other);
        copied = true;
        theirs = (*other)->atoms_[j];
      }
      (*other)->shrinkAtom(atom, theirs->domain_ & ~onlyTheirs, true);
    }
    const unsigned int onlyMine = mine->domain_ & ~theirs->domain_ & full;
    if (onlyMine != 0) {
      Confactor* residual = new Confactor(*target);
      residual->shrinkAtom(atom, onlyMine, true);
      out->push_back(residual);
      target->shrinkAtom(atom, mine->domain_ & ~onlyMine, true);
    }
  }
}

void CVE::createResiduals(Confactor* target, Confactor* other, std::deque<Confactor*>* out,
                          bool copyOther) {
  Confactor* o = other;
  unifySets(target, &o, out, copyOther);
  Confactor adjusted_factor(*target);
  int i_adfac = static_cast<int>(adjusted_factor.atoms_.size()) - 1;
  for (int j = static_cast<int>(o->atoms_.size()) - 1; j >= 0; --j) {
    AtomDomStruct* it_con = o->atoms_[j];
    if ((it_con->flags_ & ADS_CONTEXT) == 0)
      continue;
    Atom* atom = it_con->atom_;
    while (i_adfac >= 0 && adjusted_factor.atoms_[i_adfac]->atom_->rank_ > atom->rank_)
      --i_adfac;
    if (i_adfac >= 0 && adjusted_factor.atoms_[i_adfac]->atom_ == atom) {
      if ((adjusted_factor.atoms_[i_adfac]->flags_ & ADS_CONTEXT) == 0) {
        std::cerr << "Does this ever happen???" << std::endl;
        assert(false);
      }
      assert(adjusted_factor.atoms_[i_adfac]->sameDomain(*it_con));
      continue;
    }
    // The part of target where other's context fails on this atom is a
    // residual; the working copy continues inside other's context. The new
    // entry lands above the cursor, so the cursor stays valid.
    auto added = adjusted_factor.addAtom(
        atom, ADS_CONTEXT, fullDomainMask(atom->domainsize_) & ~it_con->domain_, 1, -1);
    out->push_back(new Confactor(adjusted_factor));
    (*added.first)->setDomain(it_con->domain_);
  }
  if (o != other)
    delete o;
}

void CVE::sumout(Atom* a, Confactor& common) {
  // Pieces cut to part of a's values, keyed by that value set.
  std::multimap<unsigned int, Confactor*> partial;
  std::deque<Confactor*> residuals;
  for (Confactor* c : complete_set_) {
    auto entry = c->atoms_.find(a);
    if (entry != c->atoms_.end() && ((*entry)->flags_ & ADS_CONTEXT)) {
      const unsigned int values = (*entry)->domain_;
      c->sumoutAtom(a, false);
      partial.insert(std::make_pair(values, c));
      continue;
    }
    c->sumoutAtom(a, false);
    if (c->isRedundant(nullptr)) {
      delete c;
      continue;
    }
    c->includeAtomsFromContext(common);
    addFactor(c);
  }
  // The members now live in factors_ or are gone.
  complete_set_.clear();

  const unsigned int full = fullDomainMask(a->domainsize_);
  while (!partial.empty()) {
    const unsigned int values1 = partial.begin()->first;
    Confactor* c1 = partial.begin()->second;
    partial.erase(partial.begin());
    auto match = partial.begin();
    while (match != partial.end() &&
           ((values1 & match->first & full) != 0 || !c1->isCompatibleOrOverlapping(*match->second)))
      ++match;
    if (match == partial.end()) {
      if (c1->isRedundant(nullptr)) {
        delete c1;
      } else {
        addFactor(c1);
      }
      continue;
    }
    const unsigned int values2 = match->first;
    Confactor* c2 = match->second;
    partial.erase(match);
    const unsigned int values = values1 | values2;
    residuals.clear();
    createResiduals(c2, c1, &residuals, true);
    for (Confactor* r : residuals)
      partial.insert(std::make_pair(values2, r));
    residuals.clear();
    createResiduals(c1, c2, &residuals, true);
    for (Confactor* r : residuals)
      partial.insert(std::make_pair(values1, r));
    Confactor* sum = new Confactor(c1, c2, nullptr, kAdd, kSumOut);
    if ((values & full) != full) {
      sum->shrinkAtom(a, values, true);
      partial.insert(std::make_pair(values, sum));
    } else if (sum->isRedundant(nullptr)) {
      delete sum;
    } else {
      sum->includeAtomsFromContext(common);
      addFactor(sum);
    }
    delete c1;
    delete c2;
  }
}

std::string CVE::str() const {
  std::ostringstream os;
  os << "# CVE Current State:\n\n";
  os << "## ElimOrder:\n\n";
  for (const Atom* atom : elim_order_)
    os << "* " << *atom << "\n";
  os << "\n## Factors:\n\n";
  std::set<Confactor*, ConfactorCmpId>* all = getConfactorSet();
  for (const Confactor* c : *all)
    os << c->str("    ", false) << "\n";
  delete all;
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const CVE& cve) {
  return os << cve.str();
}

std::string CVE::xml() const {
  std::ostringstream os;
  os << "<cve>\n<elimorder>";
  for (const Atom* atom : elim_order_)
    os << atom->xml() << " ";
  os << "</elimorder>\n";
  std::set<Confactor*, ConfactorCmpId>* all = getConfactorSet();
  for (const Confactor* c : *all)
    os << c->xml("");
  delete all;
  os << "</cve>\n";
  return os.str();
}
