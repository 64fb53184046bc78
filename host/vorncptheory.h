// The theory object that Prolog programs hold: a CPTheory with the tables that
// translate Prolog terms into theory atoms, the groundings already added for
// each first-order event, and an atom table for tabling on the Prolog side.
#ifndef CPLOGIC_VORNCPTHEORY_H
#define CPLOGIC_VORNCPTHEORY_H

#include <cstdint>
#include <ostream>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "cptheory.h"
#include "stdpelm.h"
#include "vorncptheoryterm.h"

// The functor \+/1 of negated body literals; set once when the module loads.
extern PelmFunctorId g_global_not;

// Term arguments (long) are slots of the current call (stdpelm.h).
class VornCPTheory : public CPTheory {
 public:
  typedef std::unordered_map<VornCPTheoryTerm, Atom*, VornCPTheoryTermHash, VornCPTheoryTermEquals>
      TermAtomMap;
  typedef std::unordered_map<VornCPTheoryTerm, int32_t, VornCPTheoryTermHash,
                             VornCPTheoryTermEquals>
      AtomTable;
  typedef std::unordered_set<VornCPTheoryGroundEvent, VornCPTheoryGroundEventHash,
                             VornCPTheoryGroundEventEquals>
      GroundEventSet;

  // Deeper terms are refused: every walk over a key recurses once per level.
  static const int kMaxTermDepth = 10000;
  // First-order event numbers are indices of vectors.
  static const int kMaxFoEvents = 1 << 20;

  // Every distinct ground term translated so far, with its atom. Keys owned.
  TermAtomMap term_atoms_;
  // Tabling status of ground atoms: 1 under evaluation, 2 complete. Keys owned.
  AtomTable atom_table_;
  // Per first-order event: the number of terms of each grounding.
  std::vector<int32_t> fo_event_values_;
  // Per first-order event: the groundings added so far. Owned; null until the
  // event's first grounding.
  std::vector<GroundEventSet*> ground_event_sets_;

  VornCPTheory();
  // The term is accepted and not used.
  explicit VornCPTheory(long initTerm);
  ~VornCPTheory() override;

  // compileFlag != 0 compiles rule bodies into trees; conversion is "cf",
  // "tables", "cpts" or "cfme", elimination "cst" or "absorption". The other
  // two arguments are accepted and ignored.
  void setSettings(int compileFlag, int ignored1, const PELM_atom& conversion,
                   const PELM_atom& elimination, const PELM_atom& ignored2);
  void compile();
  // The probability that the query atom is true given the evidence list, -1.0
  // when there is no answer; query prints the resulting table.
  double query(long queryTerm, long evidenceTerm);
  double querySilent(long queryTerm, long evidenceTerm);
  // Writes the theory as rules to the file the atom names. Throws
  // PelmObjectCreationError when fileTerm is not an atom.
  void save(long fileTerm);
  // Writes the Graphviz graph; an empty name writes nothing.
  void printGraphviz(const PELM_atom& fileName);
  // Writes the Hugin network of what the query atom depends on to the file;
  // an empty name writes nothing.
  void printHuginNet(long queryTerm, const PELM_atom& fileName);
  // The atom's tabling status (0 when new, then marked 1); -1 for an illegal term.
  int atomInTable(long term);
  void atomTableSuccess(long term);

  // event(HeadList, BodyList): HeadList of h(Atom, Probability), BodyList of
  // atoms and \+ Atom.
  void addEvent(long term);
  // Announces first-order event number event with count terms per grounding.
  void addFoEvent(int event, int count);
  // ground(Event, HeadList, BodyList); a grounding already added is ignored.
  void addGroundEvent(long term);

  // Adds the list's e(Atom, Value) pairs to evidence (Value 1 true, else false).
  void processEvidence(long term, AtomBody& evidence, PelmTermTable& table);
  // The atom of a ground term, created when new; null for an illegal term.
  Atom* atomFromTerm(long term, PelmTermTable* table);
  Atom* atomFromTerm(const VornCPTheoryTerm& key);
  // Fills *key (which must hold nothing) from the term; false, with a message
  // and the key left invalid, for an illegal term.
  bool atomFromTermBuildKey(long term, VornCPTheoryTerm* key, PelmTermTable* table);

  std::ostream& Print(std::ostream& os) const;

 private:
  double answer(long queryTerm, long evidenceTerm, bool print);
  bool buildKey(long term, VornCPTheoryTerm* key, PelmTermTable* table, int depth);
  void addRule(AtomDoubles& head, std::vector<AtomValuePair<int>>& body);
};

#endif
