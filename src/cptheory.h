// CP-logic theories: a network of atoms with the events that cause them,
// answered by contextual variable elimination.
#ifndef CPLOGIC_CPTHEORY_H
#define CPLOGIC_CPTHEORY_H

#include <map>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "atom.h"
#include "confactornetwork.h"
#include "cpevent.h"

class Confactor;
class CVE;

// A theory: the atom registry (owning the atoms, choice variables and prime
// atoms) and the events (owned). Every query builds its own engine from the
// atoms and events that bear on the query and the observations.
class CPTheory : public ConfactorNetworkBase {
 public:
  // Marks of the relevance walk of createCVE, by atom id.
  typedef std::unordered_map<int, int> AtomMarks;

  // Atoms with several causes go through a prime atom and single-rule events
  // are factorised; off, the tree forms are used for both.
  bool use_confactors_;
  std::string name_;
  std::vector<CPEvent*> events_;  // owned
  // Merge the confactors of one atom or event into one complete table.
  bool use_tables_;
  // Copied into every engine (factor out the shared context in absorption).
  bool factor_context_;
  // Hold rules per event and compile them into body trees; off, every rule
  // is an event of its own.
  bool compile_bodies_;

  explicit CPTheory(const std::string& name);
  ~CPTheory() override;

  void init();

  // Settings as the host names them. A method word: "cf" (default; also for
  // unknown words), "tables", "cpts", "cfme". An elimination word:
  // "absorption", anything else the complete confactor set ("cst").
  void setMethod(const std::string& method);
  void setElimination(const std::string& elimination);
  // Both words, the compile-bodies switch, and weight heuristic 2.
  void setSettings(bool compileBodies, const std::string& method, const std::string& elimination);

  // Gives the rule to an event of its head that accepts it, or to a new
  // event; returns that event (owned by the theory). Atoms must be registered.
  CPEvent* addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body);
  CPEvent* addParsedEvent(std::map<Atom*, double, Atom::CmpId>& head,
                          std::map<Atom*, int, Atom::CmpId>& body);
  // Gives an uncaused ground atom a cause of probability 0 and creates the
  // prime atom of an atom that factorises.
  void initAtom(Atom* a) override;
  // Ranks, compiles the body trees; only when atoms were registered since.
  void compile();
  void compileBodies();

  // observations is not owned and must outlive its use.
  void setObservations(AtomBody* observations) { observations_ = observations; }
  void clearObservations() { observations_ = nullptr; }
  // The observed value, -1 when unobserved.
  int getObservedValue(Atom& atom) const;
  std::string strObservations() const;
  // A new, empty assignment owned by the caller.
  AtomBody* sample();
  void resetAllBetaParams() {}
  void updateProbabilitiesFromBeta(double) {}
  void updateBetaParams(AtomBody*) {}

  // The distribution of a (a table over a, owned by the caller), or null
  // after a message when a is null or unknown. observations is not owned.
  Confactor* query(Atom* a);
  Confactor* query(Atom* a, AtomBody* observations);
  Confactor* query(std::string name);

  // A new engine (owned by the caller) holding the confactors of the atoms
  // and events relevant to q, with the unobserved ones as its variables.
  CVE* createCVE(Atom* q);
  // Moves the next pending atom with an observation on the stack.
  void queryCheck(std::vector<Atom*>* stack, std::vector<Atom*>* pending, AtomMarks* marks);
  void queryChoiceNode(Atom* c, CVE* engine, std::vector<Atom*>* stack, std::vector<Atom*>* pending,
                       AtomMarks* marks);
  // The atom as a deterministic function of its cause, or as a noisy-or of
  // its causes through its prime atom; v is its observed value or -1.
  void queryAtomNode(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                     std::vector<Atom*>* pending, int v);
  // The deterministic OR of the causes without a prime atom, as one complete
  // table over the atom and its causes.
  void queryAtomNodeAsTree(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                           std::vector<Atom*>* pending, int v);
  // Variants that enter only complete tables; the query does not use them.
  void queryAtomNodeUseTable(Atom* curAtom, CVE* engine, std::vector<Atom*>* stack,
                             std::vector<Atom*>* pending, int v);
  void queryChoiceNodeUseTable(Atom* c, CVE* engine, std::vector<Atom*>* stack,
                               std::vector<Atom*>* pending, AtomMarks* marks);

  // --- Text forms. ---
  // The name alone, or every event as rules.
  std::string str(bool nameOnly) const;
  std::string strRanking() const;
  void printStatus() const;
  void printBetas() const;
  // A C++ fragment that rebuilds the theory (without its closing brace).
  std::string cppCode() const;
  // A Hugin network of the confactors relevant to query, as complete tables.
  std::string strHuginNet(Atom* query);
  std::string strHuginNet(Atom* query, AtomBody* observations);
  // A Graphviz digraph of the atoms; compiles first when needed.
  std::string strGraphviz(bool compact);

 private:
  // Confactors of the OR of the causes of a (restricted to row v when v is
  // not -1), as a decision list over the causes.
  void orConfactors(Atom* a, int v, Confactors* out);
  Confactor* queryUnconditioned(Atom* a, int v);
  // Enters an event's confactors (list, handed to engine) and queues its
  // body atoms and, with observations, its head atoms.
  void enterChoice(Atom* c, Confactors& list, CVE* engine, std::vector<Atom*>* stack,
                   std::vector<Atom*>* pending, AtomMarks* marks);
};

std::ostream& operator<<(std::ostream& os, const CPTheory& theory);

#endif
