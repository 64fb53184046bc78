// CP-logic theories: a network of atoms with the events that cause them,
// answered by contextual variable elimination.
#ifndef CPLOGIC_CPTHEORY_H
#define CPLOGIC_CPTHEORY_H

#include <map>
#include <ostream>
#include <stdexcept>
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
// The ground rules depend on themselves through the atoms named (at most a
// few of them): such a theory has no rank order, and answering it as if it
// had one would give wrong numbers.
class CyclicTheory : public std::runtime_error {
 public:
  explicit CyclicTheory(std::vector<std::string> atoms);
  std::vector<std::string> atoms_;
};

class CPTheory : public ConfactorNetworkBase {
 public:
  // Atoms with several causes go through a prime atom and single-rule events
  // are factorised; off, the tree forms are used for both.
  bool use_confactors_;
  std::string name_;
  std::vector<CPEvent*> events_;  // owned
  // Merge the confactors of one atom or event into one complete table.
  bool use_tables_;
  // Hold rules per event and compile them into body trees; off, every rule
  // is an event of its own.
  bool compile_bodies_;
  // The highest rank given by the last compile; auxiliary atoms rank above.
  int max_rank_;
  // Rule bodies whose atoms are not yet linked as siblings.
  std::vector<std::vector<Atom*>> unlinked_siblings_;
  // Events hold at most this many head atoms: a choice variable has one
  // value more, and domains hold 32 values.
  static const size_t kMaxEventHead = kMaxDomainSize - 1;

  explicit CPTheory(const std::string& name);
  ~CPTheory() override;

  // Settings as the host names them. A method word: "cf" (default; also for
  // unknown words), "tables", "cpts", "cfme". An elimination word:
  // "absorption", anything else the complete confactor set ("cst").
  void setMethod(const std::string& method);
  void setElimination(const std::string& elimination);
  // Both words, the compile-bodies switch, and the weight heuristic (by
  // default each query's own greedy order).
  void setSettings(bool compileBodies, const std::string& method, const std::string& elimination,
                   WeightHeuristic heuristic = kGreedy);

  // Gives the rule to an event of its head that accepts it, or to a new
  // event; returns that event (owned by the theory). Atoms must be
  // registered. A head longer than kMaxEventHead is split into nested
  // choices through auxiliary atoms; the event of the first choice is
  // returned.
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
  void resetAllBetaParams() {}
  void updateProbabilitiesFromBeta(double) {}
  void updateBetaParams(AtomBody*) {}

  // The distribution of a (a table over a, owned by the caller) given the
  // observations set, or null after a message when a is null or unknown.
  // observations is not owned.
  Confactor* query(Atom* a);
  Confactor* query(Atom* a, AtomBody* observations);
  Confactor* query(std::string name);
  // Entry v is P(q = v, evidence) for every value v of q; with q null, one
  // entry: P(evidence). No entry is negative, and their sum is 0 exactly
  // when the evidence is impossible. An entry below the smallest normal
  // double is 0; throws ProbabilityUnderflow when all are. The theory is
  // left as it was: no atom
  // is registered, no weight, rank or setting changes.
  // REQUIRES: q (when not null) and the atoms of evidence belong to this theory.
  std::vector<double> jointProbabilities(Atom* q, const AtomBody& evidence);

  // Atoms of one rule body, to be made siblings of each other before a
  // ranking that counts siblings runs (linkSiblings).
  void deferSiblings(std::vector<Atom*> body);
  // Throws CyclicTheory when the atoms and choices depend on themselves.
  void checkAcyclic() const;
  void linkSiblings();

  // A new engine (owned by the caller) for q given the observations set: the
  // confactors of the atoms and events that q and the observations depend
  // on, with the unobserved ones as its variables.
  CVE* createCVE(Atom* q);
  // The same for explicit evidence (not owned); q may be null. With
  // standIns, events whose head atom stands in for their choice (standIn)
  // are put over that atom: the same answers from fewer atoms, but not the
  // network's own shape, which createCVE keeps for its readers.
  CVE* buildEngine(Atom* q, const AtomBody& evidence, bool standIns = false);
  // Replaces the engine's order by a greedy min-fill order of its variables
  // other than q over the engine's confactors.
  void orderGreedily(CVE* engine, Atom* q);
  // An atom that only c's event causes, and that is its only head atom, is
  // true exactly when the event chose it: the event's confactors can be put
  // over that atom, with no choice atom and no table between the two. That
  // atom, or null (also when either is observed, or c is the query q).
  static Atom* standIn(Atom* c, Atom* q, const AtomBody& evidence);
  // Enters the confactors of c's event, over `as` instead of c when given.
  void queryChoiceNode(Atom* c, CVE* engine, const AtomBody& evidence, Atom* as = nullptr);
  // Enters a as the disjunction of its causes (a chain through auxiliary
  // atoms the engine owns), or, with use-confactors off, as one table.
  void queryAtomNode(Atom* a, CVE* engine, const AtomBody& evidence);
  // The deterministic OR of a's causes as one complete table.
  void queryAtomNodeAsTree(Atom* a, CVE* engine, const AtomBody& evidence);

  // --- Text forms (src/cptheorytext.cpp). ---
  // The name alone, or every event as rules.
  std::string str(bool nameOnly) const;
  // A Hugin network of the confactors relevant to query, as complete tables.
  std::string strHuginNet(Atom* query);
  // A Graphviz digraph of the atoms; compiles first when needed.
  std::string strGraphviz(bool compact);

 private:
  std::vector<double> jointProbabilitiesOf(Atom* q, const AtomBody& evidence);
  // Confactors of the OR of the causes of a (restricted to row v when v is
  // not -1), as a decision list over the causes.
  void orConfactors(Atom* a, int v, Confactors* out);
  CPEvent* addSplitEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body);
};

std::ostream& operator<<(std::ostream& os, const CPTheory& theory);

#endif
