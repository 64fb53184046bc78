#include "confactornetwork.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <sstream>

#include "confactor.h"
#include "cve.h"

ConfactorNetworkBase::ConfactorNetworkBase()
    : needs_update_(false),
      observations_(nullptr),
      weight_heuristic_(kDegreeWeight),
      use_complete_set_(true) {}

ConfactorNetworkBase::~ConfactorNetworkBase() {
  // A prime atom belongs to the atom it was created for, which may come first
  // in name order: decide which atoms to delete before deleting any.
  std::vector<Atom*> owned;
  for (auto& entry : atoms_) {
    if (!entry.second->prime_)
      owned.push_back(entry.second);
  }
  for (Atom* atom : owned)
    delete atom;
}

void ConfactorNetworkBase::initAtom(Atom*) {}

void ConfactorNetworkBase::init() {
  weight_heuristic_ = kDegreeWeight;
  use_complete_set_ = true;
}

Atom* ConfactorNetworkBase::addAtom(std::string name) {
  auto found = atoms_.find(name);
  if (found != atoms_.end())
    return found->second;
  Atom* atom = new Atom(name, 2);
  atoms_[name] = atom;
  needs_update_ = true;
  return atom;
}

Atom* ConfactorNetworkBase::getAtom(std::string name) {
  auto found = atoms_.find(name);
  if (found != atoms_.end())
    return found->second;
  std::cerr << "Requested atom " << name << " does not exists." << std::endl;
  return nullptr;
}

std::vector<Atom*>* ConfactorNetworkBase::getAtoms() {
  auto* result = new std::vector<Atom*>();
  for (auto& entry : atoms_) {
    if (entry.second->event_ == nullptr)
      result->push_back(entry.second);
  }
  return result;
}

std::vector<Atom*>* ConfactorNetworkBase::getAllAtoms() {
  auto* result = new std::vector<Atom*>();
  result->reserve(atoms_.size());
  for (auto& entry : atoms_)
    result->push_back(entry.second);
  return result;
}

std::vector<Atom*>* ConfactorNetworkBase::getTopologicalOrderedAtoms() {
  std::vector<Atom*>* result = getAllAtoms();
  std::sort(result->begin(), result->end(), Atom::Cmp());
  return result;
}

void ConfactorNetworkBase::applyWeightHeuristic(Atom* atom) {
  switch (weight_heuristic_) {
    case kRankWeight:
      atom->setWeightWithRank(false);
      break;
    case kDegreeWeight:
      atom->setWeightWithDegree(false);
      break;
    case kDegreeDWeight:
      atom->setWeightWithDegreeD(false);
      break;
    case kDeficiencyWeight:
      atom->setWeightWithDeficiency(false);
      break;
    case kWeightedCFWeight:
      atom->setWeightWithWeightedCF(false);
      break;
    case kWeightedCFDWeight:
      atom->setWeightWithWeightedCFD(false);
      break;
    case kGreedy:
      break;
  }
}

void ConfactorNetworkBase::updateTopologicalRanking() {
  // Heaviest first; a multiset keeps atoms of equal weight in insertion order.
  std::multiset<Atom*, Atom::CmpWeightInv> ready;
  // initAtom may register further atoms; map iterators survive insertion, so
  // those that sort after the current name are visited in this same pass.
  for (auto& entry : atoms_) {
    Atom* atom = entry.second;
    atom->rank_ = 0;
    initAtom(atom);
    if (atom->in_.empty())
      ready.insert(atom);
  }

  int r = 1;
  while (!ready.empty()) {
    Atom* atom = *ready.begin();
    ready.erase(ready.begin());
    if (atom->rank_ != 0)
      continue;
    int used = atom->setRank(r);
    applyWeightHeuristic(atom);
    r += used;
    for (Atom* child : atom->out_) {
      if (child->rank_ >= r)
        continue;
      bool parentsRanked = std::all_of(child->in_.begin(), child->in_.end(),
                                       [](const Atom* p) { return p->rank_ != 0; });
      if (parentsRanked)
        ready.insert(child);
    }
  }
}

void ConfactorNetworkBase::updateRanking() {
  updateTopologicalRanking();
  std::vector<Atom*>* all = getAllAtoms();
  std::sort(all->begin(), all->end(), Atom::CmpDynamical());
  int rank = 1;
  for (Atom* atom : *all)
    atom->rank_ = rank++;
  delete all;
}

ConfactorNetwork::~ConfactorNetwork() {
  for (Confactor* f : confactors_)
    delete f;
}

void ConfactorNetwork::addConfactor(Confactor* f) {
  confactors_.push_back(f);
  Atom* child = f->getForAtom();
  for (AtomDomStruct* entry : f->atoms_) {
    Atom* atom = entry->atom_;
    if (child != nullptr && atom != child) {
      atom->addOutAtom(child);
      child->addInAtom(atom);
    }
    atom->weight_++;
  }
  needs_update_ = true;
}

void ConfactorNetwork::orderAtomsInConfactors() {
  for (Confactor* f : confactors_) {
    f->orderAtoms();
    f->fillCPTAtRandom();
  }
}

Confactor* ConfactorNetwork::query(Atom* q, AtomBody* observations) {
  CVE cve;
  cve.use_complete_set_tree_ = use_complete_set_;
  if (needs_update_) {
    updateRanking();
    orderAtomsInConfactors();
    needs_update_ = false;
  }
  for (auto& entry : atoms_)
    cve.addAtom(entry.second);
  for (Confactor* f : confactors_)
    cve.addFactor(new Confactor(*f));
  if (observations != nullptr) {
    // Evidence enters as an indicator table on the observed value.
    for (auto& observed : *observations) {
      std::vector<Atom*> scope(1, observed.first);
      std::vector<double> indicator(observed.first->domainsize_, 0.0);
      if (observed.second >= 0 && observed.second < static_cast<int>(indicator.size()))
        indicator[observed.second] = 1.0;
      cve.addFactor(new Confactor(scope, nullptr, indicator));
    }
  }
  cve.query(q);
  return cve.createCPT();
}

std::string ConfactorNetwork::str(bool brief) const {
  std::ostringstream os;
  for (const Confactor* f : confactors_) {
    if (brief) {
      os << f->str("", true) << std::endl;
    } else {
      os << *f << std::endl;
    }
  }
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const ConfactorNetwork& network) {
  return os << network.str(false);
}
