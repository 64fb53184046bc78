// The theory object's methods: reading events and evidence from Prolog
// terms, the keys and names of ground terms, and the files it writes.
#include "vorncptheory.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

namespace {

// A head may round to a little over 1; more is a mistake in the program.
const double kHeadSumTolerance = 1e-9;

// Deeper terms are refused; list cells count as one level (stdpelm.h).
constexpr int kMaxTermDepth = 10000;

// The key of a ground term: equal keys exactly for identical terms (==), so
// that 'p(1)' and p(1), 1 and 1.0, "a" and a are told apart. Keys are
// prefix-free: the keys of several terms written one after the other are the
// key of the sequence. Throws the Prolog error that names a refused term
// (unbound, cyclic, too deep, a blob or a dict). The atoms in the key are
// appended to *atoms when it is not null; a key kept beyond the call needs
// them held (PelmAtomHolder).
std::string termKey(long term, std::vector<PelmAtomId>* atoms = nullptr) {
  std::string key;
  pelm_term_key(term, kMaxTermDepth, &key, atoms);
  return key;
}

// The name under which a term's atom is registered in the theory: the term as
// quoted Prolog text, so that saved theories read back and distinct terms get
// distinct names.
std::string termName(long term) {
  return pelm_term_text(term);
}

// Calls f on each element of a proper list; slots taken by f are given back
// after each element, so that long lists need no more slots than short ones.
template <class F>
void forEachElement(long list, PelmTermTable& table, F f, size_t* length = nullptr) {
  pelm_must_be_list(list);
  PelmListWalk walk(table, list);
  if (length != nullptr) {
    *length = walk.size();
  }
  while (walk.next()) {
    long mark = table.mark();
    f(walk.head());
    table.release(mark);
  }
}

// Argument i of a compound of the given arity; throws the Prolog error that
// names the term (as a type_error(type, Term)) for any other term.
long argumentOf(long term, int i, int arity, const char* type, PelmTermTable& table) {
  if (!pelm_is_structure(term) || pelm_functor_arity(pelm_functor_id(term)) != arity) {
    pelm_wrong_type(type, term);
  }
  return table.arg(term, i);
}

// A head probability: a number in [0, 1], integers and rationals included.
double probabilityOf(long term) {
  double p = 0.0;
  if (!pelm_get_number(term, &p)) {
    pelm_wrong_type("probability", term);
  }
  if (!(p >= 0.0 && p <= 1.0)) {  // NaN fails both
    pelm_domain_error("probability", term);
  }
  return p;
}

// The error for a file that could not be opened or written (error is the
// errno): a missing folder is an existence error, a refusal a permission
// error, anything else (a full disk, an I/O error) an I/O error; the message
// is the system's reason.
[[noreturn]] void fileError(long fileTerm, bool opening, int error) {
  std::string reason = error != 0 ? std::strerror(error) : "unknown reason";
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      pelm_existence_error("source_sink", fileTerm, reason);
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY:
      pelm_permission_error(opening ? "open" : "output", "source_sink", fileTerm, reason);
    default:
      pelm_io_error(opening ? "open" : "write", fileTerm, reason);
  }
}

// Writes text to the file name (the atom fileTerm), all of it, or raises the
// error that names the file and the reason.
void writeFile(long fileTerm, const std::string& name, const std::string& text) {
  errno = 0;
  std::FILE* out = std::fopen(name.c_str(), "wb");
  if (out == nullptr) {
    fileError(fileTerm, true, errno);
  }
  errno = 0;
  bool ok = std::fwrite(text.data(), 1, text.size(), out) == text.size() && std::fflush(out) == 0;
  int error = ok ? 0 : errno != 0 ? errno : EIO;
  // Some file systems report a failed write only when the file is closed.
  if (std::fclose(out) != 0 && error == 0) {
    error = errno != 0 ? errno : EIO;
  }
  if (error != 0) {
    fileError(fileTerm, false, error);
  }
}

}  // namespace

VornCPTheory::VornCPTheory() : CPTheory("") {}

VornCPTheory::VornCPTheory(long) : VornCPTheory() {}

void VornCPTheory::setSettings(long compileFlag, long ignored1, long conversion, long elimination,
                               long order) {
  bool compileBodies = pelm_must_be_integer(compileFlag) != 0;
  pelm_must_be_integer(ignored1);
  PELM_atom method(conversion);
  PELM_atom variant(elimination);
  // The last argument names a ranking heuristic; any other atom leaves each
  // query its own greedy order.
  static const std::map<std::string, WeightHeuristic> heuristics{
      {"rank", kRankWeight},
      {"degree", kDegreeWeight},
      {"degree_d", kDegreeDWeight},
      {"deficiency", kDeficiencyWeight},
      {"weighted_cf", kWeightedCFWeight},
      {"weighted_cfd", kWeightedCFDWeight}};
  auto chosen = heuristics.find(PELM_atom(order).text());
  CPTheory::setSettings(compileBodies, method.text(), variant.text(),
                        chosen == heuristics.end() ? kGreedy : chosen->second);
}

void VornCPTheory::compile() {
  CPTheory::compile();
}

double VornCPTheory::probability(long queryTerm, long evidenceTerm, bool print) {
  PelmTermTable table;
  Atom* query = queryAtom(queryTerm);
  // Evidence on an atom that nothing causes: false is certain and says
  // nothing, true is impossible. Two values for one atom are impossible too.
  AtomBody evidence;
  bool impossible = false;
  forEachElement(evidenceTerm, table, [&](long element) {
    if (print) {
      std::cout << "** adding evidence atom **\n";
    }
    long atomTerm = argumentOf(element, 1, 2, "evidence_element", table);
    long valueTerm = argumentOf(element, 2, 2, "evidence_element", table);
    Atom* atom = findAtom(termKey(atomTerm));
    if (pelm_is_var(valueTerm)) {
      pelm_instantiation_error();
    }
    if (!pelm_is_integer(valueTerm) ||
        (pelm_get_integer(valueTerm) != 0 && pelm_get_integer(valueTerm) != 1)) {
      pelm_domain_error("evidence_value", valueTerm);
    }
    int value = pelm_get_integer(valueTerm);
    if (atom == nullptr) {
      impossible = impossible || value == 1;
      return;
    }
    auto placed = evidence.emplace(atom, value);
    impossible = impossible || placed.first->second != value;
  });
  std::vector<double> joint;
  double total = 0.0;
  if (!impossible) {
    joint = jointProbabilities(query, evidence);
    for (double p : joint) {
      total += p;
    }
  }
  // Exactly zero: evidence of any probability above it is evidence.
  if (impossible || total == 0.0) {
    pelm_cplogic_error("contradictory_evidence", evidenceTerm, "evidence");
  }
  if (query == nullptr) {
    joint = {total, 0.0};
  }
  if (print) {
    std::cout << "Result of query: " << (query != nullptr ? query->name_ : termName(queryTerm))
              << "\n";
    for (size_t v = 0; v < joint.size(); ++v) {
      std::cout << v << "\t" << joint[v] / total << "\n";
    }
  }
  return joint.size() > 1 ? joint[1] / total : 0.0;
}

void VornCPTheory::save(long fileTerm) {
  PELM_atom file(fileTerm);
  std::string name = file.text();
  // Compiled first, so that the text does not depend on the queries asked
  // before.
  compile();
  std::ostringstream text;
  text << "% " << name << "\n\n" << static_cast<const CPTheory&>(*this) << "\n";
  writeFile(fileTerm, name, text.str());
}

void VornCPTheory::printGraphviz(long fileTerm) {
  PELM_atom file(fileTerm);
  std::string name = file.text();
  if (name.empty()) {
    return;
  }
  writeFile(fileTerm, name, strGraphviz(false));
}

void VornCPTheory::printHuginNet(long queryTerm, long fileTerm) {
  PELM_atom file(fileTerm);
  std::string name = file.text();
  PelmTermTable table;
  Atom* atom = queryAtom(queryTerm);
  if (name.empty()) {
    return;
  }
  if (atom == nullptr) {
    pelm_existence_error("theory_atom", queryTerm);
  }
  writeFile(fileTerm, name, strHuginNet(atom));
}

int VornCPTheory::atomInTable(long term) {
  std::vector<PelmAtomId> atoms;
  std::string key = termKey(term, &atoms);
  held_atoms_.hold(atoms);
  auto placed = atom_table_.emplace(std::move(key), kUnderEvaluation);
  return placed.second ? kNewInTable : placed.first->second;
}

void VornCPTheory::atomTableSuccess(long term) {
  std::vector<PelmAtomId> atoms;
  std::string key = termKey(term, &atoms);
  held_atoms_.hold(atoms);
  atom_table_[std::move(key)] = kComplete;
}

bool VornCPTheory::newAtoms(long lists, long result) {
  PelmTermTable table;
  PelmListUnifier out(result);
  std::unordered_set<PelmAtomId> seenAtoms;
  std::unordered_set<std::string> seenKeys;
  bool unified = true;
  forEachElement(lists, table, [&](long list) {
    forEachElement(list, table, [&](long element) {
      PelmAtomId id;
      std::string key;
      if (pelm_get_atom_id(element, &id)) {
        if (!seenAtoms.insert(id).second) {
          return;
        }
        key = termKey(element);
      } else {
        key = termKey(element);
        if (!seenKeys.insert(key).second) {
          return;
        }
      }
      auto status = atom_table_.find(key);
      if (unified && (status == atom_table_.end() || status->second != kComplete)) {
        unified = out.add(element);
      }
    });
  });
  return unified && out.close();
}

void VornCPTheory::addEvent(long term) {
  PelmTermTable table;
  bool split = pelm_is_structure(term) && pelm_functor_id(term) == g_split_event;
  int arity = split ? 3 : 2;
  long headList = argumentOf(term, 1, arity, "event", table);
  std::vector<Literal> head;
  std::vector<Literal> body;
  std::vector<PelmAtomId> atoms;
  readHead(headList, table, &head, &atoms, false);
  if (split) {
    readBody(argumentOf(term, 2, arity, "event", table), table, &body, &atoms, false, 0);
    readBody(argumentOf(term, 3, arity, "event", table), table, &body, &atoms, false, 1);
  } else {
    readBody(argumentOf(term, 2, arity, "event", table), table, &body, &atoms, false);
  }
  held_atoms_.hold(atoms);
  addRule(head, body);
}

void VornCPTheory::addFoEvent(long eventTerm, long countTerm) {
  int64_t event = pelm_must_be_integer(eventTerm);
  int64_t count = pelm_must_be_integer(countTerm);
  std::string what = "Invalid first-order event " + std::to_string(event) + " with " +
                     std::to_string(count) + " terms";
  if (event < 0 || event >= kMaxFoEvents) {
    pelm_domain_error("fo_event", eventTerm, what);
  }
  if (count < 0 || count > INT32_MAX) {
    pelm_domain_error("fo_event_term_count", countTerm, what);
  }
  size_t e = static_cast<size_t>(event);
  if (e < fo_event_values_.size() && fo_event_values_[e] != count && !ground_events_[e].empty()) {
    pelm_permission_error("modify", "fo_event", eventTerm,
                          "First-order event " + std::to_string(event) +
                              " already has groundings of " + std::to_string(fo_event_values_[e]) +
                              " terms");
  }
  if (fo_event_values_.size() <= e) {
    fo_event_values_.resize(e + 1, -1);
    ground_events_.resize(e + 1);
  }
  fo_event_values_[e] = static_cast<int32_t>(count);
}

void VornCPTheory::addGroundEvent(long term) {
  PelmTermTable table;
  long eventTerm = argumentOf(term, 1, 3, "ground_event", table);
  long headList = argumentOf(term, 2, 3, "ground_event", table);
  long bodyList = argumentOf(term, 3, 3, "ground_event", table);
  int64_t event = pelm_must_be_integer(eventTerm);
  if (event < 0 || static_cast<uint64_t>(event) >= fo_event_values_.size() ||
      fo_event_values_[event] < 0) {
    pelm_existence_error("fo_event", eventTerm,
                         "First-order event " + std::to_string(event) + " was not announced");
  }
  std::vector<Literal> head;
  std::vector<Literal> body;
  std::vector<PelmAtomId> atoms;
  readHead(headList, table, &head, &atoms, true);
  readBody(bodyList, table, &body, &atoms, true);
  size_t n = static_cast<size_t>(fo_event_values_[event]);
  if (head.size() + body.size() != n) {
    pelm_domain_error("fo_event_grounding", term,
                      "Grounding of first-order event " + std::to_string(event) + " has " +
                          std::to_string(head.size() + body.size()) + " terms instead of " +
                          std::to_string(n));
  }
  // The terms alone identify a grounding of the event.
  std::string grounding;
  for (const Literal& l : head) {
    grounding += l.key;
  }
  for (const Literal& l : body) {
    grounding += l.key;
  }
  std::unordered_set<std::string>& groundings = ground_events_[event];
  if (groundings.count(grounding) != 0) {
    return;
  }
  held_atoms_.hold(atoms);
  addRule(head, body);
  groundings.insert(std::move(grounding));
}

void VornCPTheory::readHead(long list, PelmTermTable& table, std::vector<Literal>* head,
                            std::vector<PelmAtomId>* atoms, bool withKeys) {
  double sum = 0.0;
  forEachElement(list, table, [&](long element) {
    long atomTerm = argumentOf(element, 1, 2, "head_element", table);
    long probabilityTerm = argumentOf(element, 2, 2, "head_element", table);
    Literal literal = readLiteral(atomTerm, atoms, withKeys);
    literal.probability = probabilityOf(probabilityTerm);
    sum += literal.probability;
    head->push_back(std::move(literal));
  });
  if (sum > 1.0 + kHeadSumTolerance) {
    pelm_domain_error("head_probability_sum", sum);
  }
}

void VornCPTheory::readBody(long list, PelmTermTable& table, std::vector<Literal>* body,
                            std::vector<PelmAtomId>* atoms, bool withKeys, int value) {
  // Room for the whole list at the first element: literals are large.
  size_t length = 0;
  forEachElement(
      list, table,
      [&](long element) {
        if (length != 0) {
          body->reserve(body->size() + length);
          length = 0;
        }
        if (pelm_is_var(element)) {
          pelm_instantiation_error();
        }
        bool negated =
            value == -1 && pelm_is_structure(element) && pelm_functor_id(element) == g_global_not;
        Literal literal = readLiteral(negated ? table.arg(element, 1) : element, atoms, withKeys);
        literal.value = value != -1 ? value : negated ? 0 : 1;
        body->push_back(std::move(literal));
      },
      &length);
}

VornCPTheory::Literal VornCPTheory::readLiteral(long term, std::vector<PelmAtomId>* atoms,
                                                bool withKey) {
  Literal literal{std::string(), std::string(), 0.0, 1, nullptr, false, 0};
  literal.is_atom = pelm_get_atom_id(term, &literal.atom_id);
  if (literal.is_atom) {
    auto known = atom_ids_.find(literal.atom_id);
    if (known != atom_ids_.end()) {
      literal.atom = known->second;
      if (!withKey) {
        return literal;
      }
    }
  }
  literal.key = termKey(term, atoms);
  if (literal.atom == nullptr) {
    literal.atom = findAtom(literal.key);
  }
  if (literal.atom == nullptr) {
    literal.name = termName(term);
  }
  return literal;
}

void VornCPTheory::addRule(const std::vector<Literal>& head, const std::vector<Literal>& body) {
  // A rule without head atoms causes nothing.
  if (head.empty()) {
    return;
  }
  AtomDoubles headAtoms;
  std::vector<AtomValuePair<int>> bodyAtoms;
  for (const Literal& l : head) {
    headAtoms.emplace_back(registerAtom(l), l.probability);
  }
  for (const Literal& l : body) {
    bodyAtoms.emplace_back(registerAtom(l), l.value);
  }
  CPTheory::addParsedEvent(headAtoms, bodyAtoms);
}

Atom* VornCPTheory::findAtom(const std::string& key) const {
  auto found = term_atoms_.find(key);
  return found != term_atoms_.end() ? found->second : nullptr;
}

Atom* VornCPTheory::registerAtom(const Literal& literal) {
  // A rule may name a new atom twice: the second time it is known by now.
  Atom* atom = literal.atom != nullptr ? literal.atom : findAtom(literal.key);
  if (atom == nullptr) {
    // Quoted names never look like the theory's own atoms (C12, a', C3_x),
    // but a name already taken must not merge two atoms.
    std::string name = literal.name;
    while (atoms_.count(name) != 0) {
      name += "_";
    }
    atom = addAtom(name);
    term_atoms_.emplace(literal.key, atom);
  }
  if (literal.is_atom) {
    atom_ids_.try_emplace(literal.atom_id, atom);
  }
  return atom;
}

Atom* VornCPTheory::queryAtom(long queryTerm) {
  return findAtom(termKey(queryTerm));
}

std::ostream& VornCPTheory::Print(std::ostream& os) const {
  return os << static_cast<const CPTheory&>(*this);
}
