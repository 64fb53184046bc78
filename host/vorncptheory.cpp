#include "vorncptheory.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "confactor.h"

namespace {

const char kInvalidType[] = "Term has invalid type!\n";
const char kMissingArgument[] = "Not that many arguments in functor\n";

// A choice variable's domain (head atoms + 1) must fit a 32-value domain set.
const size_t kMaxHeadAtoms = 31;

// Argument i of a structure, or 0 after a message when it has fewer.
long argumentOf(long term, int i, PelmTermTable& table) {
  long a = table.arg(term, i);
  if (a == 0) {
    std::cerr << kMissingArgument;
  }
  return a;
}

int integerOr(long term, int fallback) {
  if (!pelm_is_integer(term)) {
    std::cerr << kInvalidType;
    return fallback;
  }
  return pelm_get_integer(term);
}

// Calls f on each element of a list; slots taken by f are given back after
// each element, so that long lists need no more slots than short ones. term 0
// (a missing argument) is an empty list.
template <class F>
void forEachElement(long list, PelmTermTable& table, F f) {
  if (list == 0) {
    return;
  }
  PelmTermType type = pelm_term_type(list);
  if (type != PELM_LIST_CELL && type != PELM_NIL) {
    std::cerr << kInvalidType;
    return;
  }
  PelmListWalk walk(table, list);
  while (walk.next()) {
    long mark = table.mark();
    f(walk.head());
    table.release(mark);
  }
}

// Calls f(atomTerm, element) for each h(Atom, Probability) element; atomTerm
// is 0 for an element that is not a structure.
template <class F>
void forEachHeadElement(long list, PelmTermTable& table, F f) {
  forEachElement(list, table, [&](long element) {
    if (!pelm_is_structure(element)) {
      std::cerr << kInvalidType;
      f(0, element);
      return;
    }
    f(table.arg(element, 1), element);
  });
}

// The probability of a head element; -1.0 when it has none.
double headProbability(long element, PelmTermTable& table) {
  if (!pelm_is_structure(element)) {
    return -1.0;
  }
  long p = argumentOf(element, 2, table);
  if (p == 0) {
    return -1.0;
  }
  if (!pelm_is_float(p)) {
    std::cerr << kInvalidType;
    return -1.0;
  }
  return pelm_get_float(p);
}

// Calls f(atomTerm, value) for each body literal: value 0 for \+ Atom, 1 for
// any other element, which is then the atom itself.
template <class F>
void forEachBodyElement(long list, PelmTermTable& table, F f) {
  forEachElement(list, table, [&](long element) {
    PelmTermType type = pelm_term_type(element);
    if (type != PELM_ATOM && type != PELM_NIL && type != PELM_STRUCTURE) {
      std::cerr << "Term is not an atom nor a structure\n";
    } else if (type == PELM_STRUCTURE && pelm_functor_id(element) == g_global_not) {
      f(table.arg(element, 1), 0);
      return;
    }
    f(element, 1);
  });
}

// Names the theory gives its own atoms: choice variables "C<number>" and
// prime atoms (a name followed by an apostrophe).
bool isReservedName(const std::string& name) {
  if (!name.empty() && name.back() == '\'') {
    return true;
  }
  if (name.size() < 2 || name[0] != 'C') {
    return false;
  }
  return name.find_first_not_of("0123456789", 1) == std::string::npos;
}

template <class Map>
void releaseKeys(Map& map) {
  for (const auto& entry : map) {
    entry.first.deleteRecursive();
  }
  map.clear();
}

}  // namespace

VornCPTheory::VornCPTheory() : CPTheory(""), term_atoms_(10), atom_table_(10) {}

VornCPTheory::VornCPTheory(long) : VornCPTheory() {}

VornCPTheory::~VornCPTheory() {
  for (GroundEventSet* groundings : ground_event_sets_) {
    delete groundings;
  }
  ground_event_sets_.clear();
  fo_event_values_.clear();
  releaseKeys(atom_table_);
  releaseKeys(term_atoms_);
}

void VornCPTheory::setSettings(int compileFlag, int, const PELM_atom& conversion,
                               const PELM_atom& elimination, const PELM_atom&) {
  CPTheory::setSettings(compileFlag != 0, conversion.text(), elimination.text());
}

void VornCPTheory::compile() {
  CPTheory::compile();
}

double VornCPTheory::query(long queryTerm, long evidenceTerm) {
  return answer(queryTerm, evidenceTerm, true);
}

double VornCPTheory::querySilent(long queryTerm, long evidenceTerm) {
  return answer(queryTerm, evidenceTerm, false);
}

double VornCPTheory::answer(long queryTerm, long evidenceTerm, bool print) {
  PelmTermTable table;
  AtomBody evidence;
  processEvidence(evidenceTerm, evidence, table);
  Atom* atom = atomFromTerm(queryTerm, &table);
  Confactor* result = CPTheory::query(atom, &evidence);
  if (result == nullptr) {
    return -1.0;
  }
  double p = result->values_.size() > 1 ? result->values_[1] : -1.0;
  if (print) {
    std::cout << "Result of query: " << *result;
  }
  delete result;
  return p;
}

void VornCPTheory::save(long fileTerm) {
  PELM_atom file(fileTerm);
  std::string name = file.text();
  std::ofstream out(name, std::ios::out | std::ios::trunc);
  out << "% " << name << "\n\n" << static_cast<const CPTheory&>(*this) << "\n";
}

void VornCPTheory::printGraphviz(const PELM_atom& fileName) {
  std::string name = fileName.text();
  if (name.empty()) {
    return;
  }
  std::ofstream out(name, std::ios::out | std::ios::trunc);
  out << strGraphviz(false);
}

void VornCPTheory::printHuginNet(long queryTerm, const PELM_atom& fileName) {
  std::string name = fileName.text();
  if (name.empty()) {
    return;
  }
  PelmTermTable table;
  Atom* atom = atomFromTerm(queryTerm, &table);
  if (atom == nullptr) {
    return;
  }
  std::ofstream out(name, std::ios::out | std::ios::trunc);
  out << strHuginNet(atom);
}

int VornCPTheory::atomInTable(long term) {
  PelmTermTable table;
  VornCPTheoryTerm key;
  if (!atomFromTermBuildKey(term, &key, &table)) {
    return -1;
  }
  int status = 0;
  auto found = atom_table_.find(key);
  if (found != atom_table_.end()) {
    status = found->second;
  } else {
    atom_table_.emplace(key, 1);
  }
  key.deleteRecursive();
  return status;
}

void VornCPTheory::atomTableSuccess(long term) {
  PelmTermTable table;
  VornCPTheoryTerm key;
  if (!atomFromTermBuildKey(term, &key, &table)) {
    return;
  }
  auto found = atom_table_.find(key);
  if (found != atom_table_.end()) {
    found->second = 2;
  } else {
    atom_table_.emplace(key, 2);
  }
  key.deleteRecursive();
}

void VornCPTheory::addEvent(long term) {
  PelmTermTable table;
  if (!pelm_is_structure(term)) {
    std::cerr << kInvalidType;
    return;
  }
  long headList = argumentOf(term, 1, table);
  long bodyList = argumentOf(term, 2, table);
  AtomDoubles head;
  std::vector<AtomValuePair<int>> body;
  forEachHeadElement(headList, table, [&](long atomTerm, long element) {
    Atom* atom = atomTerm != 0 ? atomFromTerm(atomTerm, &table) : nullptr;
    double p = headProbability(element, table);
    if (atom != nullptr) {
      head.emplace_back(atom, p);
    }
  });
  forEachBodyElement(bodyList, table, [&](long atomTerm, int value) {
    Atom* atom = atomTerm != 0 ? atomFromTerm(atomTerm, &table) : nullptr;
    if (atom != nullptr) {
      body.emplace_back(atom, value);
    }
  });
  addRule(head, body);
}

void VornCPTheory::addFoEvent(int event, int count) {
  if (event < 0 || event >= kMaxFoEvents || count < 0) {
    std::cerr << "Invalid first-order event " << event << " with " << count << " terms\n";
    return;
  }
  if (static_cast<size_t>(event) < fo_event_values_.size() && fo_event_values_[event] != count &&
      ground_event_sets_[event] != nullptr && !ground_event_sets_[event]->empty()) {
    std::cerr << "First-order event " << event << " already has groundings of "
              << fo_event_values_[event] << " terms\n";
    return;
  }
  while (fo_event_values_.size() <= static_cast<size_t>(event)) {
    fo_event_values_.push_back(0);
    ground_event_sets_.push_back(nullptr);
  }
  fo_event_values_[event] = count;
}

void VornCPTheory::addGroundEvent(long term) {
  PelmTermTable table;
  if (!pelm_is_structure(term)) {
    std::cerr << kInvalidType;
    return;
  }
  long numberTerm = argumentOf(term, 1, table);
  int event = numberTerm != 0 ? integerOr(numberTerm, -1) : -1;
  if (event < 0 || static_cast<size_t>(event) >= fo_event_values_.size()) {
    std::cerr << "First-order event " << event << " was not announced\n";
    return;
  }
  long headList = argumentOf(term, 2, table);
  long bodyList = argumentOf(term, 3, table);
  size_t heads = headList != 0 ? PelmListWalk(table, headList).length() : 0;
  size_t bodies = bodyList != 0 ? PelmListWalk(table, bodyList).length() : 0;
  int n = fo_event_values_[event];
  if (heads + bodies != static_cast<size_t>(n)) {
    std::cerr << "Grounding of first-order event " << event << " has " << heads + bodies
              << " terms instead of " << n << "\n";
    return;
  }

  VornCPTheoryGroundEvent grounding(n);
  std::vector<double> probabilities;
  std::vector<int> values;
  int i = 0;
  forEachHeadElement(headList, table, [&](long atomTerm, long element) {
    if (atomTerm != 0) {
      atomFromTermBuildKey(atomTerm, grounding.getTerm(i), &table);
    }
    probabilities.push_back(headProbability(element, table));
    ++i;
  });
  forEachBodyElement(bodyList, table, [&](long atomTerm, int value) {
    if (atomTerm != 0) {
      atomFromTermBuildKey(atomTerm, grounding.getTerm(i), &table);
    }
    values.push_back(value);
    ++i;
  });
  if (i != n) {  // a list walked differently the second time cannot happen
    return;
  }
  grounding.computeHash();
  GroundEventSet*& groundings = ground_event_sets_[event];
  if (groundings == nullptr) {
    groundings = new GroundEventSet(10);
  }
  // A grounding with a refused term cannot be compared; it is not recorded.
  if (grounding.valid()) {
    if (groundings->count(grounding) != 0) {
      return;
    }
    groundings->insert(grounding);
  }

  AtomDoubles head;
  std::vector<AtomValuePair<int>> body;
  for (size_t h = 0; h < probabilities.size(); ++h) {
    Atom* atom = atomFromTerm(*grounding.getTerm(static_cast<int>(h)));
    if (atom != nullptr) {
      head.emplace_back(atom, probabilities[h]);
    }
  }
  for (size_t b = 0; b < values.size(); ++b) {
    Atom* atom = atomFromTerm(*grounding.getTerm(static_cast<int>(probabilities.size() + b)));
    if (atom != nullptr) {
      body.emplace_back(atom, values[b]);
    }
  }
  addRule(head, body);
}

void VornCPTheory::addRule(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  // A rule without head atoms causes nothing.
  if (head.empty()) {
    return;
  }
  if (head.size() > kMaxHeadAtoms) {
    std::cerr << "Event with " << head.size() << " head atoms ignored: at most " << kMaxHeadAtoms
              << " are allowed\n";
    return;
  }
  CPTheory::addParsedEvent(head, body);
}

void VornCPTheory::processEvidence(long term, AtomBody& evidence, PelmTermTable& table) {
  PelmListWalk walk(table, term);
  while (walk.next()) {
    std::cout << "** adding evidence atom **\n";
    long mark = table.mark();
    long element = walk.head();
    if (!pelm_is_structure(element)) {
      std::cerr << kInvalidType;
    } else {
      long atomTerm = argumentOf(element, 1, table);
      Atom* atom = atomFromTerm(atomTerm, &table);
      long valueTerm = argumentOf(element, 2, table);
      int value = valueTerm != 0 ? integerOr(valueTerm, 0) : 0;
      if (atom != nullptr) {
        evidence[atom] = value == 1 ? 1 : 0;
      }
    }
    table.release(mark);
  }
}

Atom* VornCPTheory::atomFromTerm(long term, PelmTermTable* table) {
  VornCPTheoryTerm key;
  if (!atomFromTermBuildKey(term, &key, table)) {
    return nullptr;
  }
  Atom* atom = atomFromTerm(key);
  key.deleteRecursive();
  return atom;
}

Atom* VornCPTheory::atomFromTerm(const VornCPTheoryTerm& key) {
  if (key.kind_ == VornCPTheoryTerm::kInvalid) {
    return nullptr;
  }
  auto found = term_atoms_.find(key);
  if (found != term_atoms_.end()) {
    return found->second;
  }
  std::ostringstream name;
  key.print(name);
  if (isReservedName(name.str())) {
    std::cerr << "VornCPTheory::atomFromTerm(): " << name.str()
              << " is the name of an atom of the theory itself" << std::endl;
    return nullptr;
  }
  Atom* atom = addAtom(name.str());
  term_atoms_.emplace(key, atom);
  return atom;
}

bool VornCPTheory::atomFromTermBuildKey(long term, VornCPTheoryTerm* key, PelmTermTable* table) {
  if (!pelm_is_acyclic(term)) {
    std::cerr << "VornCPTheory::atomFromTermBuildKey(): illegal term" << std::endl;
    return false;
  }
  if (!buildKey(term, key, table, 0)) {
    key->deleteRecursive();  // the part built before the refused subterm
    key->kind_ = VornCPTheoryTerm::kInvalid;
    key->args_ = nullptr;
    return false;
  }
  return true;
}

// Recursion is bounded by kMaxTermDepth; list tails are walked in a loop.
bool VornCPTheory::buildKey(long term, VornCPTheoryTerm* key, PelmTermTable* table, int depth) {
  PelmTermType type = pelm_term_type(term);
  if (depth > kMaxTermDepth) {
    type = PELM_OTHER;
  }
  switch (type) {
    case PELM_ATOM:
    case PELM_NIL:
      key->kind_ = VornCPTheoryTerm::kAtom;
      key->value_ = pelm_atom_id(term);
      return true;
    case PELM_INTEGER:
      key->kind_ = VornCPTheoryTerm::kInteger;
      key->value_ = static_cast<uint32_t>(pelm_get_integer(term));
      return true;
    case PELM_LIST_CELL: {
      PelmListWalk walk(*table, term);
      key->allocArgs(VornCPTheoryTerm::kList, 0, static_cast<int32_t>(walk.length()));
      for (int32_t i = 0; walk.next(); ++i) {
        long mark = table->mark();
        bool built = buildKey(walk.head(), key->arg(i), table, depth + 1);
        table->release(mark);
        if (!built) {
          return false;
        }
      }
      return true;
    }
    case PELM_STRUCTURE: {
      PelmFunctorId functor = pelm_functor_id(term);
      int arity = pelm_functor_arity(functor);
      key->allocArgs(VornCPTheoryTerm::kStructure, functor, arity);
      long slot = table->mark();
      for (int i = 1; i <= arity; ++i) {
        long mark = table->mark();
        bool built =
            table->getArg(term, i, slot) && buildKey(slot, key->arg(i - 1), table, depth + 1);
        table->release(mark);
        if (!built) {
          return false;
        }
      }
      return true;
    }
    default:
      std::cerr << "VornCPTheory::atomFromTermBuildKey(): illegal term" << std::endl;
      return false;
  }
}

std::ostream& VornCPTheory::Print(std::ostream& os) const {
  return os << static_cast<const CPTheory&>(*this);
}
