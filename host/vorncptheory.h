// The theory object that Prolog programs hold: a CPTheory with the table that
// translates ground Prolog terms into theory atoms, the groundings already
// added for each first-order event, and an atom table for tabling on the
// Prolog side.
//
// Every method checks its terms completely before it changes anything, and
// reports a bad term by throwing the Prolog error that names it (stdpelm.h).
// Queries only look atoms up: a query never changes the theory.
#ifndef CPLOGIC_VORNCPTHEORY_H
#define CPLOGIC_VORNCPTHEORY_H

#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "cptheory.h"
#include "stdpelm.h"

// The functor \+/1 of negated body literals; set once when the module loads.
extern PelmFunctorId g_global_not;
// The functor event/3 of events whose body comes as two lists.
extern PelmFunctorId g_split_event;

// Term arguments (long) are slots of the current call (stdpelm.h).
class VornCPTheory : public CPTheory {
 public:
  // First-order event numbers are indices of vectors.
  static const int kMaxFoEvents = 1 << 20;

  // The atom of every ground term added so far, by term key.
  std::unordered_map<std::string, Atom*> term_atoms_;
  // The same for the terms that are atoms, by the atom's identifier (held in
  // held_atoms_): the common literal is found without making its key.
  std::unordered_map<PelmAtomId, Atom*> atom_ids_;
  // Tabling status of a ground atom, as vorn_cp_theory_atom_in_table/3
  // reports it: new (then under evaluation), under evaluation, complete.
  enum TableStatus : int32_t { kNewInTable = 0, kUnderEvaluation = 1, kComplete = 2 };
  // Tabling status of ground atoms, by term key.
  std::unordered_map<std::string, int32_t> atom_table_;
  // Per first-order event: the number of terms of each grounding, -1 while
  // the event is not announced.
  std::vector<int32_t> fo_event_values_;
  // Per first-order event: the keys of the groundings added so far.
  std::vector<std::unordered_set<std::string>> ground_events_;
  // The atoms in the keys above, held until the theory is destroyed.
  PelmAtomHolder held_atoms_;

  VornCPTheory();
  // The term is accepted and not used.
  explicit VornCPTheory(long initTerm);

  // compileFlag != 0 compiles rule bodies into trees; conversion is "cf",
  // "tables", "cpts" or "cfme", elimination "cst" or "absorption" (other
  // words: the defaults). order names a ranking heuristic (rank, degree,
  // degree_d, deficiency, weighted_cf, weighted_cfd); any other atom gives
  // each query its own greedy order. ignored1 is checked and ignored.
  void setSettings(long compileFlag, long ignored1, long conversion, long elimination, long order);
  void compile();
  // P(Query true | Evidence), Evidence a list of e(Atom, 1 | 0). Raises
  // contradictory_evidence(Evidence) when the evidence has probability 0.
  // print writes each evidence element and the query's table on the output.
  double probability(long queryTerm, long evidenceTerm, bool print);
  // Writes the theory, compiled, as rules to the file the atom names.
  void save(long fileTerm);
  // Writes the Graphviz graph; an empty name writes nothing.
  void printGraphviz(long fileTerm);
  // Writes the Hugin network of what the query atom depends on to the file;
  // an empty name writes nothing.
  void printHuginNet(long queryTerm, long fileTerm);
  // The atom's tabling status (0 when new, then marked 1).
  int atomInTable(long term);
  void atomTableSuccess(long term);
  // Unifies result with the elements of the lists in lists, each once in the
  // order of their first occurrence, leaving out the atoms that the atom
  // table marks complete.
  bool newAtoms(long lists, long result);

  // event(HeadList, BodyList): HeadList of h(Atom, Probability), BodyList of
  // atoms and \+ Atom. event(HeadList, Negated, Positive): the body is the
  // atoms of the list Negated negated, then those of Positive.
  void addEvent(long term);
  // Announces first-order event number event with count terms per grounding.
  void addFoEvent(long eventTerm, long countTerm);
  // ground(Event, HeadList, BodyList); a grounding already added is ignored.
  void addGroundEvent(long term);

  std::ostream& Print(std::ostream& os) const;

 private:
  // A head atom or body literal of a rule being read: the term's key, its
  // name when the theory does not know it yet, and its probability or value.
  // A known atom term is found by its identifier: atom is set and the key
  // left empty unless it was asked for.
  struct Literal {
    std::string key;
    std::string name;
    double probability;
    int value;
    Atom* atom;
    bool is_atom;  // the term is an atom, whose identifier is atom_id
    PelmAtomId atom_id;
  };

  // The readers append the atoms in the literals' keys to *atoms; withKeys
  // makes every literal's key.
  void readHead(long list, PelmTermTable& table, std::vector<Literal>* head,
                std::vector<PelmAtomId>* atoms, bool withKeys);
  // Literals are atoms and \+ atoms; with a value of 0 or 1, every element
  // is an atom, read as a literal of that value.
  void readBody(long list, PelmTermTable& table, std::vector<Literal>* body,
                std::vector<PelmAtomId>* atoms, bool withKeys, int value = -1);
  Literal readLiteral(long term, std::vector<PelmAtomId>* atoms, bool withKey);
  void addRule(const std::vector<Literal>& head, const std::vector<Literal>& body);
  // The atom of a key; null when the theory does not know the term.
  Atom* findAtom(const std::string& key) const;
  Atom* registerAtom(const Literal& literal);
  // The atom of the query term, looked up only; null when unknown.
  Atom* queryAtom(long queryTerm);
};

#endif
