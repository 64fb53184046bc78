// CP-logic events: rules gathered by head, compiled into body trees, and
// converted into confactors over the event's choice variable.
#ifndef CPLOGIC_CPEVENT_H
#define CPLOGIC_CPEVENT_H

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "atom.h"

class Confactor;
class CPTheory;
class CVE;

// An atom with a value: with int a body literal (atom = value), with double a
// head atom with its probability. The atom is not owned.
template <typename T>
struct AtomValuePair {
  // Ascending atom id: the order in which bodies are compared.
  struct CmpId {
    bool operator()(const AtomValuePair& a, const AtomValuePair& b) const {
      return a.atom_->id_ < b.atom_->id_;
    }
  };
  // Literals whose atom occurs in more rules of the event first, then higher
  // rank first: the order in which a new branch of a body tree tests them.
  // Looks up counts in *counts (not owned), entering missing atoms with 0.
  struct CmpWithCnt {
    std::map<Atom*, int, Atom::CmpId>* counts_;
    explicit CmpWithCnt(std::map<Atom*, int, Atom::CmpId>* counts) : counts_(counts) {}
    bool operator()(const AtomValuePair& a, const AtomValuePair& b) const {
      int ca = (*counts_)[a.atom_];
      int cb = (*counts_)[b.atom_];
      if (ca != cb)
        return ca > cb;
      return a.atom_->rank_ > b.atom_->rank_;
    }
  };

  Atom* atom_;
  T value_;

  AtomValuePair() : atom_(nullptr), value_() {}
  AtomValuePair(Atom* atom, T value) : atom_(atom), value_(value) {}
};

// A head: atoms with their probabilities, in the rule's order.
typedef std::vector<AtomValuePair<double>> AtomDoubles;
// A head as generated code writes it: atom -> probability, by atom id.
typedef std::map<Atom*, double, Atom::CmpId> AtomHead;
// AtomBody (atom -> value, by atom id) is declared in atom.h.
// Confactors produced by a conversion; whoever holds the list owns them.
typedef std::vector<Confactor*> Confactors;

// One rule as it was handed in.
class ParsedCPEvent {
 public:
  // Fewer body literals first; no tie-break.
  struct CmpLength {
    bool operator()(const ParsedCPEvent& a, const ParsedCPEvent& b) const {
      return a.body_.size() < b.body_.size();
    }
  };

  AtomDoubles head_;
  std::vector<AtomValuePair<int>> body_;

  ParsedCPEvent() = default;
  ParsedCPEvent(const AtomDoubles& head, const std::vector<AtomValuePair<int>>& body)
      : head_(head), body_(body) {}
};

// A node of a body tree. An inner node tests atom_ and has one child slot per
// value (null where no rule continues); a leaf holds the head probabilities.
// Owns its children and its probabilities.
class CPBodyAtom {
 public:
  std::vector<CPBodyAtom*> children_;
  CPBodyAtom* parent_;  // not owned; null at the root
  // Leaf only: entry 0 no head atom chosen, entry i the head atom i - 1.
  std::vector<double>* probabilities_;
  Atom* atom_;  // null at a leaf and at a fresh root; not owned

  explicit CPBodyAtom(CPBodyAtom* parent)
      : parent_(parent), probabilities_(nullptr), atom_(nullptr) {}
  CPBodyAtom(const CPBodyAtom&) = delete;
  CPBodyAtom& operator=(const CPBodyAtom&) = delete;
  ~CPBodyAtom();
};

// One event: the rules that share a head, whose bodies pairwise exclude each
// other, with one choice variable (value 0: no head atom chosen, value i + 1:
// head atom i). Owns its rules and body tree; atoms belong to the theory.
class CPEvent {
 public:
  int32_t id_;
  std::vector<Atom*> head_atoms_;             // fixed by the first accepted rule
  CPBodyAtom* body_tree_;                     // owned; null until a rule enters it
  std::vector<ParsedCPEvent> parsed_events_;  // held until compileParsedEvents
  // For each body atom, the number of held rules it occurs in.
  std::map<Atom*, int, Atom::CmpId> literal_counts_;
  int32_t tree_depth_;
  int32_t rule_count_;  // accepted rules, held or placed directly
  CPTheory* theory_;    // not owned
  Atom* choice_atom_;   // not owned; registered in the theory
  // The held rules (indices into parsed_events_) that test each body atom,
  // by the value they test: the exclusivity test of a new body visits only
  // the rules that one of its literals contradicts.
  struct HeldAtom {
    uint32_t check;  // the last exclusivity test that met the atom
    std::vector<std::pair<int, std::vector<int32_t>>> rules_by_value;
  };
  std::unordered_map<const Atom*, HeldAtom> held_atoms_;
  // A held body names an atom twice: the test then compares sorted bodies.
  bool held_repeats_atom_;
  // Per held rule, the last exclusivity test that found it excluded.
  std::vector<uint32_t> excluded_in_;
  uint32_t exclusion_checks_;

  static int32_t next_unique_id_;

  // theory is not owned; the choice variable is registered in it.
  explicit CPEvent(CPTheory* theory);
  CPEvent(const CPEvent&) = delete;
  CPEvent& operator=(const CPEvent&) = delete;
  ~CPEvent();

  // Takes an id and creates and registers the choice variable "C<id>".
  void init();
  // REQUIRES: a theory.
  void setHead(AtomDoubles& head);
  // Accepts the rule when its head atoms are this event's, in the same order,
  // and its body excludes the body of every held rule. direct puts it straight
  // into the body tree instead of holding it.
  bool addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body, bool direct);
  // Builds the body tree anew from the held rules, shortest bodies first.
  void compileParsedEvents();
  // Gives the rule a leaf on every path of the tree its body is consistent
  // with (a node testing an atom the body does not mention passes it to all
  // values). 1 when it got a leaf, 0 when its region was another rule's.
  int addEventToTree(AtomDoubles& head, std::vector<AtomValuePair<int>>& body);
  // A leaf's vector for the head: entry 0 the rest of the probability mass.
  static std::vector<double> leafProbabilities(const AtomDoubles& head);
  bool emptyBody() const;
  // Number of accepted rules.
  int countParsedEvents() const { return rule_count_; }
  // Index of atom among the head atoms, -1 when absent.
  int headAtomPosition(const Atom& atom) const;
  int countHeadAtoms() const { return static_cast<int>(head_atoms_.size()); }
  Atom* getAtomRepresentation() const { return choice_atom_; }

  // Learning hooks; they do nothing.
  void resetBetaParams() {}
  void addCount(unsigned int, double) {}
  void updateProbabilitiesFromBeta(double) {}

  // --- Conversion to confactors. Confactors are appended to *out, whose
  // holder owns them. evidence (may be null; not owned) holds observed
  // atoms: they are not variables of the result, only their observed values
  // are kept. ---

  // A single rule with a body: the conjunction of its literals as a chain of
  // auxiliary atoms that engine creates and owns; otherwise
  // convertToConfactorsAsTree. The confactors are over the choice atom, or
  // over `as` when given: an atom of the same domain that stands for it.
  int convertToConfactors(Confactors* out, CVE* engine, bool tables, const AtomBody* evidence,
                          Atom* as = nullptr);
  // One confactor per leaf (and per uncovered value), with the path as
  // context; tables merges them into one complete table.
  int convertToConfactorsAsTree(Confactors* out, CVE* engine, bool tables, const AtomBody* evidence,
                                Atom* as = nullptr);
  int confactorsFromSubtree(Confactors* out, CPBodyAtom* node, std::vector<Atom*>& path,
                            std::vector<double>& defaults, const AtomBody* evidence);
  // Ends a node of confactorsFromSubtree once every value's subtree is done:
  // merges equal shapes into a table over b, else puts b in their contexts.
  int finishSubtree(Confactors* out, Atom* b, int observed, const std::vector<size_t>& start,
                    const std::vector<int>& count);
  void confactorsAsConjunctionChain(Confactors* out, CVE* engine, const AtomBody* evidence,
                                    Atom* choice);

  // --- Text forms. ---
  std::string status() const;
  // The held rules, one line each, "(p) " first.
  std::string strParsedBody() const;
  // One line per leaf of the body tree.
  std::string strBody() const;
  // strBody once compiled, strParsedBody before.
  std::string str() const;

 private:
  bool excludesHeldBodies(const std::vector<AtomValuePair<int>>& body);
  bool excludesHeldBodiesSorted(const std::vector<AtomValuePair<int>>& body) const;
  void holdBody(const std::vector<AtomValuePair<int>>& body, int32_t rule);
  void addEdges(const std::vector<AtomValuePair<int>>& body, bool first, bool direct);
  void strLeaves(std::ostream& os, const CPBodyAtom* node, std::vector<AtomValuePair<int>>* path,
                 bool* first) const;
};

std::ostream& operator<<(std::ostream& os, const CPEvent& event);

// A complete table over atoms whose entry for each assignment is
// value(assignment); the atoms of forAtoms are marked as its for-atoms (the
// elimination by absorption multiplies every other confactor of an atom into
// the tables for it). The caller owns the result.
Confactor* completeTable(std::vector<Atom*> atoms, std::vector<Atom*> forAtoms,
                         const std::function<double(const AtomBody&)>& value);
// A complete table over the atoms that evidence (may be null) does not
// observe, whose entry for each assignment is value(that assignment with the
// observed values added). forAtom, when among them, is marked the for-atom.
// Without unobserved atoms, a table without atoms holding the one value. The
// caller owns the result.
Confactor* tableGiven(const std::vector<Atom*>& atoms, Atom* forAtom, const AtomBody* evidence,
                      const std::function<double(const AtomBody&)>& value);
// One complete table that is the product of the complete forms of list's
// confactors (1 outside each one's context); a single confactor is returned
// as it is. Takes ownership of the list's confactors and empties the list;
// the caller owns the result. REQUIRES: list is not empty.
Confactor* mergeIntoTable(Confactors& list);

#endif
