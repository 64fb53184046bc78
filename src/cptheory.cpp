#include "cptheory.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <sstream>

#include "confactor.h"
#include "cve.h"

namespace {

// Choice value of curAtom's event that selects curAtom.
int choiceValueOf(Atom* choice, Atom* curAtom) {
  int position = choice->event_->headAtomPosition(*curAtom);
  assert(position >= 0);
  return position + 1;
}

unsigned fullMask(const Atom* atom) {
  return (1u << atom->domainsize_) - 1u;
}

// A confactor over a alone (for-atom a) holding values.
Confactor* tableOver(Atom* a, std::vector<double> values) {
  std::vector<Atom*> atoms{a};
  return new Confactor(atoms, a, values);
}

}  // namespace

CPTheory::CPTheory(const std::string& name)
    : use_confactors_(true),
      name_(name),
      use_tables_(false),
      factor_context_(false),
      compile_bodies_(true) {
  ConfactorNetworkBase::init();
}

CPTheory::~CPTheory() {
  for (CPEvent* event : events_)
    delete event;
}

void CPTheory::init() {
  ConfactorNetworkBase::init();
  use_tables_ = false;
  compile_bodies_ = true;
  factor_context_ = false;
  use_confactors_ = true;
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
                           const std::string& elimination) {
  compile_bodies_ = compileBodies;
  setMethod(method);
  setElimination(elimination);
  weight_heuristic_ = 2;
}

CPEvent* CPTheory::addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  if (compile_bodies_ && !body.empty() && !head.empty()) {
    // The events whose head holds the first head atom are its parents.
    std::vector<Atom*> parents = head[0].atom_->in_;
    for (Atom* parent : parents) {
      if (parent->event_ != nullptr && parent->event_->addParsedEvent(head, body, false))
        return parent->event_;
    }
  }
  CPEvent* event = new CPEvent(this);
  event->addParsedEvent(head, body, !compile_bodies_);
  events_.push_back(event);
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
  updateRanking();
  if (compile_bodies_)
    compileBodies();
  srand(static_cast<unsigned>(time(0)));
  needs_update_ = false;
}

void CPTheory::compileBodies() {
  for (CPEvent* event : events_)
    event->compileParsedEvents();
}

int CPTheory::getObservedValue(Atom& atom) const {
  if (observations_ == nullptr)
    return -1;
  auto found = observations_->find(&atom);
  return found == observations_->end() ? -1 : found->second;
}

std::string CPTheory::strObservations() const {
  return observations_ == nullptr ? std::string() : AtomBodyOps::str(*observations_);
}

AtomBody* CPTheory::sample() {
  return new AtomBody();
}

// ---------------------------------------------------------------------------
// Queries.

Confactor* CPTheory::query(Atom* a) {
  if (a == nullptr) {
    std::cerr << "Query atom does not exist" << std::endl;
    return nullptr;
  }
  int observed = getObservedValue(*a);
  if (observed == -1)
    return queryUnconditioned(a, -1);
  // The query atom's own observation decides it; the rest of the evidence is
  // still worked through so that the engine runs as for any other query.
  AtomBody* all = observations_;
  AtomBody others(*all);
  others.erase(a);
  observations_ = &others;
  Confactor* result = queryUnconditioned(a, observed);
  observations_ = all;
  return result;
}

Confactor* CPTheory::queryUnconditioned(Atom* a, int observed) {
  CVE* engine = createCVE(a);
  engine->query(a);
  Confactor* result = engine->createCPT();
  delete engine;
  if (observed != -1) {
    delete result;
    std::vector<double> values(a->domainsize_, 0.0);
    values[observed] = 1.0;
    result = tableOver(a, values);
  }
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

CVE* CPTheory::createCVE(Atom* q) {
  CVE* engine = new CVE();
  engine->factor_context_ = factor_context_;
  engine->use_complete_set_tree_ = use_complete_set_;
  compile();

  std::vector<Atom*> stack{q};
  std::vector<Atom*> pending;
  AtomMarks marks;
  while (true) {
    while (!stack.empty()) {
      Atom* a = stack.back();
      stack.pop_back();
      int& mark = marks[a->id_];
      if (mark == 2)
        continue;
      mark = 2;
      int v = getObservedValue(*a);
      if (a->event_ != nullptr)
        queryChoiceNode(a, engine, &stack, &pending, &marks);
      else if (use_confactors_)
        queryAtomNode(a, engine, &stack, &pending, v);
      else
        queryAtomNodeAsTree(a, engine, &stack, &pending, v);
      if (v == -1)
        engine->addAtom(a);
      else if (use_confactors_ && a->atomp_ != nullptr)
        engine->addAtom(a->atomp_);  // an observed atom's prime is still summed out
    }
    if (pending.empty())
      break;
    queryCheck(&stack, &pending, &marks);
    if (stack.empty())
      break;
  }
  return engine;
}

void CPTheory::queryCheck(std::vector<Atom*>* stack, std::vector<Atom*>* pending,
                          AtomMarks* marks) {
  while (stack->empty() && !pending->empty()) {
    Atom* a = pending->back();
    pending->pop_back();
    int& mark = (*marks)[a->id_];
    if (mark != 0)
      continue;
    if (getObservedValue(*a) != -1) {
      stack->push_back(a);
      return;
    }
    // Explored once: an atom reached along many paths is not expanded again.
    mark = 1;
    pending->insert(pending->end(), a->out_.begin(), a->out_.end());
  }
}

void CPTheory::queryChoiceNode(Atom* c, CVE* engine, std::vector<Atom*>* stack,
                               std::vector<Atom*>* pending, AtomMarks* marks) {
  Confactors list;
  if (use_confactors_)
    c->event_->convertToConfactors(&list, engine, use_tables_);
  else
    c->event_->convertToConfactorsAsTree(&list, engine, use_tables_);
  enterChoice(c, list, engine, stack, pending, marks);
}

void CPTheory::enterChoice(Atom* c, Confactors& list, CVE* engine, std::vector<Atom*>* stack,
                           std::vector<Atom*>* pending, AtomMarks* marks) {
  for (Confactor* f : list)
    engine->addFactor(f);
  for (Atom* parent : c->in_) {
    if ((*marks)[parent->id_] != 2)
      stack->push_back(parent);
  }
  if (observations_ != nullptr)
    pending->insert(pending->end(), c->out_.begin(), c->out_.end());
}

void CPTheory::queryAtomNode(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                             std::vector<Atom*>* pending, int v) {
  if (!curAtom->isMultFactorizable()) {
    assert(curAtom->in_.size() == 1);
    Atom* c = curAtom->in_[0];
    stack->push_back(c);
    int k = choiceValueOf(c, curAtom);
    if (v != -1) {
      // The observed row: the choice selects curAtom exactly when it is true.
      engine->addFactor(completeTable({c}, {}, [c, k, v](const AtomBody& x) {
        return ((x.at(c) == k) == (v == 1)) ? 1.0 : 0.0;
      }));
    } else if (c->event_->countHeadAtoms() == 1) {
      engine->addFactor(completeTable({c, curAtom}, {curAtom}, [c, curAtom](const AtomBody& x) {
        return x.at(c) == x.at(curAtom) ? 1.0 : 0.0;
      }));
    } else {
      Confactors list;
      list.push_back(tableOver(curAtom, {0.0, 1.0}));
      list.back()->addAtom(c, ADS_CONTEXT, 1 << k, 1, -1);
      list.push_back(tableOver(curAtom, {1.0, 0.0}));
      list.back()->addAtom(c, ADS_CONTEXT, fullMask(c) & ~(1u << k), 1, -1);
      if (use_tables_) {
        engine->addFactor(mergeIntoTable(list));
      } else {
        for (Confactor* f : list)
          engine->addFactor(f);
      }
    }
  } else {
    assert(curAtom->atomp_ != __null);
    Atom* prime = curAtom->atomp_;
    // Noisy-or: each cause alone can make the prime true ... The link (or
    // the observed row) is the only table for the prime, so that the
    // elimination by absorption multiplies the per-cause factors into it.
    for (Atom* c : curAtom->in_) {
      stack->push_back(c);
      int k = choiceValueOf(c, curAtom);
      if (c->event_->countHeadAtoms() == 1 || use_tables_) {
        engine->addFactor(completeTable({c, prime}, {}, [c, prime, k](const AtomBody& x) {
          return (x.at(c) == k && x.at(prime) == 0) ? 0.0 : 1.0;
        }));
      } else {
        // The complementary context would only multiply by 1.
        Confactor* f = completeTable(
            {prime}, {}, [prime](const AtomBody& x) { return x.at(prime) == 1 ? 1.0 : 0.0; });
        f->addAtom(c, ADS_CONTEXT, 1 << k, 1, -1);
        engine->addFactor(f);
      }
    }
    // ... and the signed link turns the product into 1 - prod(no cause fired).
    if (v == -1) {
      engine->addFactor(
          completeTable({prime, curAtom}, {prime, curAtom}, [prime, curAtom](const AtomBody& x) {
            static const double link[2][2] = {{1.0, 0.0}, {-1.0, 1.0}};  // [atom][prime]
            return link[x.at(curAtom)][x.at(prime)];
          }));
    } else if (v == 1) {
      engine->addFactor(tableOver(prime, {-1.0, 1.0}));
    } else {
      engine->addFactor(tableOver(prime, {1.0, 0.0}));
    }
  }
  if (v == -1)
    pending->insert(pending->end(), curAtom->out_.begin(), curAtom->out_.end());
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
      f->addAtom(causes[j], ADS_CONTEXT, fullMask(causes[j]) & ~(1u << k), 1, -1);
    }
    if (i < causes.size())
      f->addAtom(causes[i], ADS_CONTEXT, 1 << choiceValueOf(causes[i], a), 1, -1);
    out->push_back(f);
  }
}

void CPTheory::queryAtomNodeAsTree(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                                   std::vector<Atom*>* pending, int v) {
  stack->insert(stack->end(), curAtom->in_.begin(), curAtom->in_.end());
  Confactors list;
  orConfactors(curAtom, v, &list);
  // One complete table whatever the tables flag: pieces that hold a cause
  // only in their context can leave a value of that cause without any
  // confactor when it is eliminated, which the complete set does not allow.
  engine->addFactor(mergeIntoTable(list));
  if (v == -1)
    pending->insert(pending->end(), curAtom->out_.begin(), curAtom->out_.end());
}

void CPTheory::queryAtomNodeUseTable(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                                     std::vector<Atom*>* pending, int v) {
  queryAtomNodeAsTree(curAtom, engine, stack, pending, v);
}

void CPTheory::queryChoiceNodeUseTable(Atom* c, CVE* engine, std::vector<Atom*>* stack,
                                       std::vector<Atom*>* pending, AtomMarks* marks) {
  Confactors list;
  c->event_->convertToFactors(&list);
  enterChoice(c, list, engine, stack, pending, marks);
}

// ---------------------------------------------------------------------------
// Text forms.

std::string CPTheory::str(bool nameOnly) const {
  if (nameOnly)
    return name_;
  std::ostringstream os;
  for (const CPEvent* event : events_)
    os << event->str();
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const CPTheory& theory) {
  return os << theory.str(false);
}

std::string CPTheory::strRanking() const {
  std::ostringstream os;
  os << "RANKING: " << std::endl;
  for (const auto& entry : atoms_)
    os << entry.second->name_ << "-" << entry.second->rank_ << std::endl;
  os << std::endl;
  return os.str();
}

void CPTheory::printStatus() const {
  std::cout << "Status of " << name_ << ":" << std::endl;
  std::cout << "Nb of events: " << static_cast<unsigned>(events_.size()) << std::endl;
}

void CPTheory::printBetas() const {
  for (const CPEvent* event : events_) {
    event->printBeta();
    std::string text = event->str();
    std::fflush(stdout);
    std::printf(" -%s-> %s\n", event->getAtomRepresentation()->name_.c_str(), text.c_str());
  }
  std::fflush(stdout);
}

std::string CPTheory::cppCode() const {
  std::ostringstream os;
  os << "void test" << name_ << "()\n";
  os << "{\n";
  os << "CPTheory* cpt = new CPTheory(\"" << name_ << "\");\n";
  os << "AtomHead head;\n";
  os << "AtomBody body;\n";
  os << "\n";
  os << "// Atoms\n";
  for (const auto& entry : atoms_) {
    const Atom* atom = entry.second;
    if (atom->event_ != nullptr)
      continue;
    os << "Atom* " << atom->name_ << " = cpt->addAtom(\"" << atom->name_ << "\");\n";
  }
  os << "\n";
  for (const CPEvent* event : events_)
    os << "// CP-event\n" << event->cppCode();
  os << "\n";
  os << "cout << *cpt;\n";
  os << "cpt->compile();\n";
  os << "cout << *cpt;\n";
  return os.str();
}

std::string CPTheory::strHuginNet(Atom* query) {
  bool savedTables = use_tables_;
  use_tables_ = true;
  CVE* engine = createCVE(query);
  std::ostringstream nodes;
  std::ostringstream potentials;
  for (const auto& entry : atoms_) {
    Atom* atom = entry.second;
    nodes << "node " << atom->name_ << "\n{\n";
    nodes << "\tstates = (";
    for (unsigned v = 0; v < atom->domainsize_; ++v)
      nodes << "\"" << v << "\" ";
    nodes << ");\n";
    nodes << "\tlabel = \"" << atom->name_ << "\";\n";
    nodes << "}\n";
    std::vector<Confactor*>* tables = engine->getFactorsFor(atom);
    for (Confactor* f : *tables)
      potentials << "\n" << f->strHuginNet() << "\n";
    delete tables;
  }
  use_tables_ = savedTables;
  delete engine;
  return nodes.str() + "\n" + potentials.str();
}

std::string CPTheory::strHuginNet(Atom* query, AtomBody*) {
  return strHuginNet(query);
}

std::string CPTheory::strGraphviz(bool compact) {
  compile();
  std::ostringstream os;
  os << "digraph \""
     << "cptheory"
     << "\" {\n";
  os << "\tedge [style=\"setlinewidth(3)\", arrowsize=1.5];\n";
  for (const auto& entry : atoms_) {
    const Atom* atom = entry.second;
    if (atom->prime_)
      continue;
    os << "\t" << atom->id_;
    if (compact) {
      if (atom->event_ != nullptr)
        os << " [label=\"\", height=0.4, width=0.4, color=black, style=filled];\n";
      else
        os << " [label=\"\", height=0.4, width=0.4];\n";
      continue;
    }
    os << " [label=\"";
    if (atom->atomp_ != nullptr) {
      const Atom* prime = atom->atomp_;
      os << prime->name_ << " (" << prime->weight_ << "," << prime->rank_ << ")\\n";
    }
    os << atom->name_ << " (" << atom->weight_ << "," << atom->rank_ << ")\"";
    if (use_confactors_ && atom->isMultFactorizable())
      os << ", shape=box";
    os << "];\n";
  }
  for (const auto& entry : atoms_) {
    const Atom* atom = entry.second;
    if (atom->prime_)
      continue;
    for (const Atom* parent : atom->in_)
      os << "\t" << parent->id_ << " -> " << atom->id_ << ";\n";
  }
  if (!compact) {
    os << "\tsubgraph cluster0 {\n";
    os << "\t\tnode [fontsize = 8, height = 0.2];\n";
    os << "\t\tfontsize = 10;\n";
    os << "\t\tlabel = \"legend\";\n";
    os << "\t\tstyle = filled;\n";
    os << "\t\tcolor = grey;\n";
    os << "\t\tl1 [label=\"Mult Fact Variable\", shape=box];\n";
    os << "\t\tl2 [label=\"Variable\"];\n";
    os << "\t}\n";
  }
  os << "}\n";
  return os.str();
}
