// Networks of atoms: the registry of atoms by name with the ranking that fixes
// the elimination order.
#ifndef CPLOGIC_CONFACTORNETWORK_H
#define CPLOGIC_CONFACTORNETWORK_H

#include <map>
#include <string>
#include <vector>

#include "atom.h"

// How atoms are weighted as they are ranked (the Atom::setWeightWith...
// functions), or, as kGreedy, that each query orders its eliminations by
// min-fill over the confactors it needs and ranks with no weight function.
enum WeightHeuristic : int32_t {
  kRankWeight = 0,
  kDegreeWeight = 1,
  kDegreeDWeight = 2,
  kDeficiencyWeight = 3,
  kWeightedCFWeight = 4,
  kWeightedCFDWeight = 5,
  kGreedy = 6,
};

// Registry of a network's atoms by name; owns them. Ranks the atoms in
// topological order refined by a weight heuristic.
class ConfactorNetworkBase {
 public:
  bool needs_update_;                   // set when an atom or confactor is added
  std::map<std::string, Atom*> atoms_;  // by name; owned
  AtomBody* observations_;              // not owned
  WeightHeuristic weight_heuristic_;    // which Atom::setWeightWith... the ranking applies
  bool use_complete_set_;               // handed to every elimination engine

  ConfactorNetworkBase();
  ConfactorNetworkBase(const ConfactorNetworkBase&) = delete;
  ConfactorNetworkBase& operator=(const ConfactorNetworkBase&) = delete;
  // Hook called for every atom as the ranking starts; may register atoms.
  virtual void initAtom(Atom* atom);
  virtual ~ConfactorNetworkBase();

  void init();

  // The registered atom of that name, creating a binary one when absent.
  Atom* addAtom(std::string name);
  // The registered atom of that name, or null after a message on stderr.
  Atom* getAtom(std::string name);
  // New vectors owned by the caller, in name order. getAtoms leaves out
  // choice variables.
  std::vector<Atom*>* getAtoms();
  std::vector<Atom*>* getAllAtoms();
  // All atoms by ascending rank; owned by the caller.
  std::vector<Atom*>* getTopologicalOrderedAtoms();

  void updateTopologicalRanking();
  // Topological ranking, then final ranks 1..n by Atom::CmpDynamical.
  void updateRanking();

 private:
  void applyWeightHeuristic(Atom* atom);
};

class Confactor;

// A network of plain conditional probability tables over registered atoms,
// queried by eliminating copies of its tables. The tables are refilled at
// random whenever the network is ranked again.
class ConfactorNetwork : public ConfactorNetworkBase {
 public:
  std::vector<Confactor*> confactors_;  // in the order added; owned

  ConfactorNetwork() = default;
  ~ConfactorNetwork() override;

  // Takes ownership of f, a table for its for-atom over registered atoms; its
  // other atoms become the for-atom's parents.
  void addConfactor(Confactor* f);
  // Re-sorts every table after re-ranking and refills it at random.
  void orderAtomsInConfactors();
  // The normalised distribution of q (owned by the caller), computed on
  // copies of the tables. Ranks again and refills the tables first when
  // atoms or tables were added. Each observed atom (observations may be
  // null; not owned) is held at its value.
  Confactor* query(Atom* q, AtomBody* observations);
  // Every table followed by a line end; brief leaves out the table values.
  std::string str(bool brief) const;
};

std::ostream& operator<<(std::ostream& os, const ConfactorNetwork& network);

#endif
