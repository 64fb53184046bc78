#include "cptheory.h"

#include <algorithm>
#include <cassert>
#include <cfenv>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include "confactor.h"
#include "cve.h"
#include "eliminationorder.h"
#include "querylimits.h"

namespace {

// Choice value of curAtom's event that selects curAtom.
int choiceValueOf(Atom* choice, Atom* curAtom) {
  int position = choice->event_->headAtomPosition(*curAtom);
  assert(position >= 0);
  return position + 1;
}

// A confactor over a alone (for-atom a) holding values.
Confactor* tableOver(Atom* a, std::vector<double> values) {
  std::vector<Atom*> atoms{a};
  return new Confactor(atoms, a, values);
}

}  // namespace

CPTheory::CPTheory(const std::string& name)
    : use_confactors_(true), name_(name), use_tables_(false), compile_bodies_(true), max_rank_(0) {
  ConfactorNetworkBase::init();
  // Each query's own greedy order unless a ranking heuristic is chosen.
  weight_heuristic_ = kGreedy;
}

CPTheory::~CPTheory() {
  for (CPEvent* event : events_)
    delete event;
}

void CPTheory::setMethod(const std::string& method) {
  bool confactors = true;
  bool tables = false;
  if (method == "tables") {
    tables = true;
  } else if (method == "cpts") {
    confactors = false;
    tables = true;
  } else if (method == "cfme") {
    confactors = false;
  }
  // Prime atoms are made while compiling: turning factorisation on needs a
  // new compile.
  if (confactors && !use_confactors_)
    needs_update_ = true;
  use_confactors_ = confactors;
  use_tables_ = tables;
}

void CPTheory::setElimination(const std::string& elimination) {
  use_complete_set_ = elimination != "absorption";
}

void CPTheory::setSettings(bool compileBodies, const std::string& method,
                           const std::string& elimination, WeightHeuristic heuristic) {
  compile_bodies_ = compileBodies;
  setMethod(method);
  setElimination(elimination);
  weight_heuristic_ = heuristic;
}

CPEvent* CPTheory::addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  // A rule added after a compile changes what the compile made.
  needs_update_ = true;
  if (head.size() > kMaxEventHead)
    return addSplitEvent(head, body);
  if (compile_bodies_ && !body.empty() && !head.empty()) {
    // An event can take the rule only if every body it holds excludes this
    // one, so it tests an atom of this body: its choice atom is a child of
    // one of the body atoms and a parent of the first head atom. Looking
    // there instead of at all the head atom's causes keeps adding n causes
    // of one atom linear.
    Atom* first = head[0].atom_;
    std::vector<Atom*> candidates;
    size_t bodyChildren = 0;
    for (const auto& literal : body)
      bodyChildren += literal.atom_->out_.size();
    if (first->in_.size() * body.size() < bodyChildren) {
      // Body atoms that many events test (long bodies over shared atoms):
      // the few causes of the head atom are looked up among their children.
      for (Atom* parent : first->in_) {
        if (parent->event_ == nullptr)
          continue;
        for (const auto& literal : body) {
          const std::vector<Atom*>& children = literal.atom_->out_;
          if (std::binary_search(children.begin(), children.end(), parent, Atom::CmpId())) {
            candidates.push_back(parent);
            break;
          }
        }
      }
    } else {
      for (const auto& literal : body) {
        for (Atom* child : literal.atom_->out_) {
          if (child->event_ != nullptr &&
              std::binary_search(first->in_.begin(), first->in_.end(), child, Atom::CmpId()))
            candidates.push_back(child);
        }
      }
    }
    std::sort(candidates.begin(), candidates.end(), Atom::CmpId());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    for (Atom* parent : candidates) {
      if (parent->event_->addParsedEvent(head, body, false))
        return parent->event_;
    }
  }
  CPEvent* event = new CPEvent(this);
  event->addParsedEvent(head, body, !compile_bodies_);
  events_.push_back(event);
  return event;
}

CPEvent* CPTheory::addSplitEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  // The choice among n atoms becomes a choice among at most kMaxEventHead
  // groups, each an auxiliary atom that only this choice causes, followed by
  // a choice within the chosen group with probabilities relative to the
  // group's. Exactly one group atom holds when the first choice picks a
  // group, so the product of the two choices is the original one.
  const size_t groups = kMaxEventHead;
  const size_t size = (head.size() + groups - 1) / groups;
  AtomDoubles first;
  std::vector<AtomDoubles> within;
  for (size_t start = 0; start < head.size(); start += size) {
    AtomDoubles group(head.begin() + start, head.begin() + std::min(head.size(), start + size));
    double mass = 0.0;
    for (const auto& h : group)
      mass += h.value_;
    for (auto& h : group)
      h.value_ = mass > 0.0 ? std::min(1.0, h.value_ / mass) : 0.0;
    std::string name = "C" + std::to_string(Atom::next_unique_id_) + "group";
    while (atoms_.count(name) != 0)
      name += "_";
    Atom* atom = addAtom(name);
    first.emplace_back(atom, mass);
    within.push_back(group);
  }
  CPEvent* event = addParsedEvent(first, body);
  for (size_t g = 0; g < within.size(); ++g) {
    std::vector<AtomValuePair<int>> groupBody{AtomValuePair<int>(first[g].atom_, 1)};
    addParsedEvent(within[g], groupBody);
  }
  return event;
}

CPEvent* CPTheory::addParsedEvent(std::map<Atom*, double, Atom::CmpId>& head,
                                  std::map<Atom*, int, Atom::CmpId>& body) {
  AtomDoubles headPairs;
  for (const auto& h : head)
    headPairs.emplace_back(h.first, h.second);
  std::vector<AtomValuePair<int>> bodyPairs;
  for (const auto& b : body)
    bodyPairs.emplace_back(b.first, b.second);
  return addParsedEvent(headPairs, bodyPairs);
}

void CPTheory::initAtom(Atom* a) {
  if (a->event_ == nullptr && !a->prime_ && a->in_.empty()) {
    AtomDoubles head{AtomValuePair<double>(a, 0.0)};
    std::vector<AtomValuePair<int>> body;
    addParsedEvent(head, body);
  }
  if (use_confactors_ && a->isMultFactorizable()) {
    Atom* prime = a->createPrimeAtom();
    atoms_.emplace(prime->name_, prime);
  }
}

void CPTheory::compile() {
  if (!needs_update_)
    return;
  // Uncaused atoms get their cause before the ranking starts, so that its
  // choice variable ("C…" sorts before most names) is ranked as well.
  std::vector<Atom*>* uncaused = getAtoms();
  for (Atom* atom : *uncaused) {
    if (!atom->prime_ && atom->in_.empty())
      initAtom(atom);
  }
  delete uncaused;
  checkAcyclic();
  if (weight_heuristic_ != kRankWeight && weight_heuristic_ != kGreedy)
    linkSiblings();
  updateRanking();
  // Rules held while bodies were compiled stay held after the switch is
  // turned off; they are placed all the same.
  compileBodies();
  max_rank_ = 0;
  for (const auto& entry : atoms_)
    max_rank_ = std::max(max_rank_, entry.second->rank_);
  needs_update_ = false;
}

CyclicTheory::CyclicTheory(std::vector<std::string> atoms)
    : std::runtime_error("the rules form a cycle"), atoms_(std::move(atoms)) {}

void CPTheory::checkAcyclic() const {
  // Depth first along the causes (in_, which every kind of atom keeps),
  // with an explicit stack: a cause met again while it is still open closes
  // a cycle, and the open path from it back to here is that cycle.
  enum Mark { kOpen = 1, kDone = 2 };
  std::unordered_map<const Atom*, int> mark;
  std::vector<std::pair<const Atom*, size_t>> path;  // atom, next cause to visit
  for (const auto& entry : atoms_) {
    if (mark.count(entry.second))
      continue;
    path.emplace_back(entry.second, 0);
    mark[entry.second] = kOpen;
    while (!path.empty()) {
      const Atom* a = path.back().first;
      size_t& next = path.back().second;
      if (next == a->in_.size()) {
        mark[a] = kDone;
        path.pop_back();
        continue;
      }
      const Atom* cause = a->in_[next++];
      auto found = mark.find(cause);
      if (found == mark.end()) {
        mark[cause] = kOpen;
        path.emplace_back(cause, 0);
      } else if (found->second == kOpen) {
        std::vector<std::string> names;
        for (auto it = path.rbegin(); it != path.rend(); ++it) {
          if (it->first->event_ == nullptr && !it->first->prime_ && names.size() < 8)
            names.push_back(it->first->name_);
          if (it->first == cause)
            break;
        }
        throw CyclicTheory(names);
      }
    }
  }
}

void CPTheory::deferSiblings(std::vector<Atom*> body) {
  unlinked_siblings_.push_back(std::move(body));
}

void CPTheory::linkSiblings() {
  for (const std::vector<Atom*>& body : unlinked_siblings_)
    for (Atom* b : body)
      for (Atom* other : body)
        if (other != b)
          b->addSiblingAtom(other);
  unlinked_siblings_.clear();
}

void CPTheory::compileBodies() {
  // An interruption between events leaves needs_update_ set, and every
  // event's tree is rebuilt from its rules at the next compile.
  for (size_t i = 0; i < events_.size(); ++i) {
    events_[i]->compileParsedEvents();
    queryProgress("compiling", i + 1, events_.size());
  }
}

// ---------------------------------------------------------------------------
// Queries.

namespace {

// Restores the weights of the network's atoms: the elimination engine writes
// them as it goes, and a query must leave the theory as it found it.
class WeightSnapshot {
 public:
  explicit WeightSnapshot(const std::map<std::string, Atom*>& atoms) {
    saved_.reserve(atoms.size());
    for (const auto& entry : atoms)
      saved_.emplace_back(entry.second, entry.second->weight_);
  }
  ~WeightSnapshot() {
    for (const auto& entry : saved_)
      entry.first->weight_ = entry.second;
  }

 private:
  std::vector<std::pair<Atom*, uint32_t>> saved_;
};

}  // namespace

Confactor* CPTheory::query(Atom* a) {
  if (a == nullptr) {
    std::cerr << "Query atom does not exist" << std::endl;
    return nullptr;
  }
  static const AtomBody none;
  std::vector<double> joint =
      jointProbabilities(a, observations_ != nullptr ? *observations_ : none);
  Confactor* result = tableOver(a, joint);
  result->normalize();
  return result;
}

Confactor* CPTheory::query(Atom* a, AtomBody* observations) {
  setObservations(observations);
  Confactor* result = query(a);
  clearObservations();
  return result;
}

Confactor* CPTheory::query(std::string name) {
  Atom* atom = getAtom(name);
  if (atom == nullptr) {
    std::cerr << "Query atom " << name << " does not exist" << std::endl;
    return nullptr;
  }
  return query(atom);
}

std::vector<double> CPTheory::jointProbabilities(Atom* q, const AtomBody& evidence) {
  compile();
  std::feclearexcept(FE_UNDERFLOW);
  std::vector<double> joint = jointProbabilitiesOf(q, evidence);
  // A product that left the range of double became a denormal with few
  // exact bits, or 0. Such values are only known to be below the smallest
  // normal double; 0 is their nearest reading. When nothing above remains,
  // the evidence's probability is unknown, not 0.
  if (std::fetestexcept(FE_UNDERFLOW)) {
    bool kept = false;
    for (double& v : joint) {
      if (v < std::numeric_limits<double>::min())
        v = 0.0;
      else
        kept = true;
    }
    if (!kept)
      throw ProbabilityUnderflow();
  }
  return joint;
}

std::vector<double> CPTheory::jointProbabilitiesOf(Atom* q, const AtomBody& evidence) {
  WeightSnapshot weights(atoms_);
  // An observed query atom is decided by the evidence: only P(evidence) is
  // computed, and no elimination runs for the query atom itself.
  int observedQuery = -1;
  if (q != nullptr) {
    auto found = evidence.find(q);
    if (found != evidence.end())
      observedQuery = found->second;
  }
  Atom* target = observedQuery == -1 ? q : nullptr;
  // Declared before the engine, so that a query stopped by an exception
  // first lets the engine free what it holds, then frees the rest.
  ConfactorScope scope;
  std::unique_ptr<CVE> engine(buildEngine(target, evidence, true));
  if (weight_heuristic_ == kGreedy || !engine->auxiliary_atoms_.empty())
    orderGreedily(engine.get(), target);
  engine->query(target);
  std::unique_ptr<Confactor> joint(engine->createJoint());
  std::vector<double> result;
  if (target != nullptr) {
    result.assign(target->domainsize_, 0.0);
    if (joint->atoms_.empty()) {
      // Nothing constrains the query atom: every value has the whole mass.
      for (double& v : result)
        v = joint->values_[0];
    } else {
      assert(joint->atoms_.size() == 1 && joint->values_.size() == target->domainsize_);
      result = joint->values_;
    }
    return result;
  }
  assert(joint->atoms_.empty());
  double evidenceProbability = joint->values_.empty() ? 0.0 : joint->values_[0];
  if (q == nullptr)
    return {evidenceProbability};
  result.assign(q->domainsize_, 0.0);
  if (observedQuery >= 0 && observedQuery < static_cast<int>(q->domainsize_))
    result[observedQuery] = evidenceProbability;
  return result;
}

void CPTheory::orderGreedily(CVE* engine, Atom* q) {
  // In creation order, where one event's confactors come together.
  std::vector<Confactor*> confactors = engine->factors_.confactors();
  std::sort(confactors.begin(), confactors.end(), ConfactorCmpId());
  // Ties go to the atom that the walk from the query reached last, then to
  // the chains' auxiliary atoms. Only speed changes: bloodtype 1,000 4.1 ->
  // 2.9 s and growing_negated_body 300 3.3 -> 2.1 s against the walk's own
  // order, but small pedigree queries about a quarter slower.
  std::vector<Atom*> eliminate;
  eliminate.reserve(engine->elim_order_.size());
  for (auto it = engine->elim_order_.rbegin(); it != engine->elim_order_.rend(); ++it) {
    if (*it != q)
      eliminate.push_back(*it);
  }
  engine->elim_order_ = greedyEliminationOrder(confactorScopes(confactors), eliminate);
  engine->sort_elim_order_ = false;
}

CVE* CPTheory::createCVE(Atom* q) {
  static const AtomBody none;
  return buildEngine(q, observations_ != nullptr ? *observations_ : none);
}

CVE* CPTheory::buildEngine(Atom* q, const AtomBody& evidence, bool standIns) {
  compile();
  std::unique_ptr<CVE> engine(new CVE());
  engine->use_complete_set_tree_ = use_complete_set_;
  engine->next_auxiliary_rank_ = max_rank_ + 1;

  // What the query and the evidence depend on: their ancestors. Atoms that
  // are not ancestors sum out to 1 and are left out.
  std::vector<Atom*> stack;
  if (q != nullptr)
    stack.push_back(q);
  for (const auto& observed : evidence)
    stack.push_back(observed.first);
  std::unordered_set<int> seen;
  std::vector<Atom*> variables;
  while (!stack.empty()) {
    Atom* a = stack.back();
    stack.pop_back();
    if (!seen.insert(a->id_).second)
      continue;
    stack.insert(stack.end(), a->in_.begin(), a->in_.end());
    bool variable = evidence.find(a) == evidence.end();
    if (a->event_ != nullptr) {
      Atom* as = standIns ? standIn(a, q, evidence) : nullptr;
      queryChoiceNode(a, engine.get(), evidence, as);
      variable = variable && as == nullptr;
    } else if (!standIns || a->in_.size() != 1 || standIn(a->in_[0], q, evidence) != a) {
      queryAtomNode(a, engine.get(), evidence);
    }
    if (variable)
      variables.push_back(a);
    queryProgress("converting", seen.size(), seen.size() + stack.size());
  }
  // The chains' auxiliary atoms were entered first.
  engine->elim_order_.insert(engine->elim_order_.end(), variables.begin(), variables.end());
  return engine.release();
}

Atom* CPTheory::standIn(Atom* c, Atom* q, const AtomBody& evidence) {
  if (c == q || c->out_.size() != 1 || evidence.count(c) != 0)
    return nullptr;
  Atom* h = c->out_[0];
  if (h->in_.size() != 1 || h->domainsize_ != 2 || c->domainsize_ != 2 ||
      choiceValueOf(c, h) != 1 || evidence.count(h) != 0)
    return nullptr;
  return h;
}

void CPTheory::queryChoiceNode(Atom* c, CVE* engine, const AtomBody& evidence, Atom* as) {
  Confactors list;
  if (use_confactors_)
    c->event_->convertToConfactors(&list, engine, use_tables_, &evidence, as);
  else
    c->event_->convertToConfactorsAsTree(&list, engine, use_tables_, &evidence, as);
  for (Confactor* f : list)
    engine->addFactor(f);
}

void CPTheory::queryAtomNode(Atom* a, CVE* engine, const AtomBody& evidence) {
  if (!use_confactors_) {
    queryAtomNodeAsTree(a, engine, evidence);
    return;
  }
  // a is true exactly when one of its causes chose it: a disjunction, chained
  // through auxiliary atoms so that every table stays small. No entry is
  // negative and nothing is subtracted.
  const std::vector<Atom*>& causes = a->in_;
  assert(!causes.empty());
  Atom* c0 = causes[0];
  const int k0 = choiceValueOf(c0, a);
  if (causes.size() == 1) {
    engine->addFactor(tableGiven({c0, a}, a, &evidence, [=](const AtomBody& x) {
      return (x.at(a) == 1) == (x.at(c0) == k0) ? 1.0 : 0.0;
    }));
    return;
  }
  // any: an atom, and the value at which it says that a cause so far chose a.
  Atom* any = c0;
  int anyValue = k0;
  for (size_t i = 1; i < causes.size(); ++i) {
    Atom* c = causes[i];
    const int k = choiceValueOf(c, a);
    const bool last = i + 1 == causes.size();
    Atom* next = last ? a : engine->newAuxiliaryAtom(a->name_ + "or" + std::to_string(i), 2);
    const bool singleValued = any->event_ != nullptr;  // a choice: one value says "chose a"
    engine->addFactor(
        tableGiven({any, c, next}, next, last ? &evidence : nullptr, [=](const AtomBody& x) {
          bool before = singleValued ? x.at(any) == anyValue : x.at(any) == 1;
          bool chosen = before || x.at(c) == k;
          return (x.at(next) == 1) == chosen ? 1.0 : 0.0;
        }));
    any = next;
    anyValue = 1;
  }
}

void CPTheory::orConfactors(Atom* a, int v, Confactors* out) {
  const std::vector<Atom*>& causes = a->in_;
  if (v == 0) {
    // No cause may select a: a product of one factor per cause.
    for (Atom* c : causes) {
      int k = choiceValueOf(c, a);
      out->push_back(
          completeTable({c}, {}, [c, k](const AtomBody& x) { return x.at(c) == k ? 0.0 : 1.0; }));
    }
    return;
  }
  // A decision list: the i-th piece holds where causes before i do not select
  // a and cause i does; the last where none does.
  auto piece = [this, a, v](bool selected) {
    if (v == -1)
      return selected ? tableOver(a, {0.0, 1.0}) : tableOver(a, {1.0, 0.0});
    return new Confactor(selected ? 1.0 : 0.0);
  };
  for (size_t i = 0; i <= causes.size(); ++i) {
    Confactor* f = piece(i < causes.size());
    for (size_t j = 0; j < i && j < causes.size(); ++j) {
      int k = choiceValueOf(causes[j], a);
      f->addAtom(causes[j], ADS_CONTEXT, fullDomainMask(causes[j]->domainsize_) & ~(1u << k), 1,
                 -1);
    }
    if (i < causes.size())
      f->addAtom(causes[i], ADS_CONTEXT, 1u << choiceValueOf(causes[i], a), 1, -1);
    out->push_back(f);
  }
}

void CPTheory::queryAtomNodeAsTree(Atom* a, CVE* engine, const AtomBody& evidence) {
  auto observed = evidence.find(a);
  int v = observed == evidence.end() ? -1 : observed->second;
  Confactors list;
  orConfactors(a, v, &list);
  // One complete table whatever the tables flag: pieces that hold a cause
  // only in their context can leave a value of that cause without any
  // confactor when it is eliminated, which the complete set does not allow.
  engine->addFactor(mergeIntoTable(list));
}
