// Contextual variable elimination: a bag of confactors over a network's atoms
// and the order in which the atoms are eliminated from it.
#ifndef CPLOGIC_CVE_H
#define CPLOGIC_CVE_H

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "atom.h"
#include "confactor.h"

// The confactors of an engine, each under the id of every atom it has an
// entry for; entries under one id come in insertion order. Removing a
// confactor retires all its entries at once: they are dropped when their id
// is next read, or when retired entries outnumber live ones. Entering and
// removing thus cost O(1) per entry; an ordered multimap made a tree node per
// entry, which dominated elimination on theories whose contexts are long.
class FactorIndex {
 public:
  // Enters c under each atom of c. REQUIRES: c is not entered.
  void insert(Confactor* c);
  // Retires c's entries; false when c is not entered.
  bool erase(const Confactor* c);
  // The confactors entered under id, in insertion order.
  std::vector<Confactor*> under(int id);
  // Live (atom id, confactor) entries.
  size_t size() const { return entries_; }
  bool empty() const { return live_.empty(); }
  // The distinct confactors entered, in no particular order.
  std::vector<Confactor*> confactors() const;
  void clear();

 private:
  struct Entry {
    Confactor* confactor;
    size_t stamp;  // the insert that made it; live while alive_[stamp]
  };
  struct Record {
    size_t stamp;
    size_t entries;
  };
  void compact(std::vector<Entry>* entries);
  // The list of id, made when missing.
  std::vector<Entry>& listOf(int id);
  void forgetLists();

  std::unordered_map<int, std::vector<Entry>> lists_;
  // A direct-mapped cache in front of lists_: the confactors of one
  // elimination share most of their atoms, and a hash lookup per entry was a
  // tenth of a long query. Lists never move while they exist, so a slot
  // stays valid until its list is erased.
  struct Slot {
    int id;
    std::vector<Entry>* list;  // null: empty slot
  };
  static constexpr size_t kSlots = 1024;
  std::array<Slot, kSlots> slots_{};
  std::unordered_map<const Confactor*, Record> live_;
  std::vector<char> alive_;
  size_t entries_ = 0;
  size_t retired_ = 0;
};

// The elimination engine. Fill it with addFactor and addAtom, query once
// (query, or queryWithSuspend step by step), read the answer with createCPT.
// Not reentrant: elimination rewrites the weights of the atoms involved and
// the confactor algebra uses shared scratch data.
class CVE {
 public:
  // The confactors, under the id of every atom they have an entry for; the
  // engine owns them.
  FactorIndex factors_;
  std::vector<Atom*> elim_order_;  // atoms not owned, except auxiliary_atoms_
  // Atoms that only this engine's confactors use (chains that decompose a
  // conjunction or a disjunction); owned, and entered in elim_order_.
  std::vector<std::unique_ptr<Atom>> auxiliary_atoms_;
  // Rank of the next auxiliary atom: ranks order the entries of confactors
  // and must differ from those of the network's atoms.
  int next_auxiliary_rank_;
  // query sorts elim_order_ by rank first; off, the order is used as it is.
  bool sort_elim_order_;
  // query eliminates with eliminate when true, with eliminateNoCST when false.
  bool use_complete_set_tree_;
  int num_factors_;  // distinct confactors in factors_
  // The product of the confactors that lost their last atom: summing every
  // atom out of a network leaves the probability of its evidence here.
  double constant_;
  // Working sets of eliminateNoCST: confactors that only have the atom in
  // their context, and those that are tables for it (plus split residuals).
  // Both are empty again when an elimination ends. g++ names a template in
  // assertion messages as it is first written in a unit; createResiduals'
  // messages quote the deque with its allocator, so it is written so here.
  std::deque<Confactor*, std::allocator<Confactor*>> to_absorb_;
  std::deque<Confactor*> complete_set_;

  CVE();
  CVE(const CVE&) = delete;
  CVE& operator=(const CVE&) = delete;
  // Destroys every confactor still entered.
  ~CVE();

  // Takes ownership of c. A confactor without atom entries is a number: it is
  // multiplied into constant_ and destroyed.
  void addFactor(Confactor* c);
  // Takes c out of the map; destroys it when destroy is true, else c goes
  // back to the caller.
  void removeFactor(Confactor* c, bool destroy);
  void removeFactors(bool destroy);
  // Appends a (not owned) and, when it has one, its prime atom.
  void addAtom(Atom* a);
  // A new atom owned by the engine, appended to the elimination order.
  Atom* newAuxiliaryAtom(const std::string& name, unsigned domainsize);
  void sortElimOrder();
  // Forgets every confactor without destroying it and empties the order.
  void clear();
  // New vector (caller frees) of the tables for a; the engine keeps the confactors.
  std::vector<Confactor*>* getFactorsFor(Atom* a);
  // New set (caller frees) of the distinct confactors; the engine keeps them.
  std::set<Confactor*, ConfactorCmpId>* getConfactorSet() const;

  // Eliminates every atom of the order except q, in rank order.
  void query(Atom* q);
  // One elimination of a query, for step = 0, 1, ...; returns the next step,
  // or -1 when the order is done. Always uses the complete-set variant.
  int queryWithSuspend(Atom* q, unsigned int step);
  // The normalised product of the remaining confactors as one complete table;
  // the caller owns the result.
  Confactor* createCPT();
  // The same product, not normalised and times constant_: after a query on q
  // with evidence entered as observed rows, entry v is P(q = v, evidence).
  // Without confactors left, a table without atoms holding constant_. The
  // caller owns the result.
  Confactor* createJoint();

  // Eliminates a through a complete confactor set.
  void eliminate(Atom* a);
  // Eliminates a by absorption into the tables for a, then summing out.
  void eliminateNoCST(Atom* a);
  // Sums a out of complete_set_ and enters the results; confactors that were
  // cut to a part of a's values are added to their complements first.
  void sumout(Atom* a, Confactor& common);
  // Multiplies c into every overlapping member of complete_set_; c stays the caller's.
  void absorb(Confactor* c);
  // Appends to *out (which takes ownership) the parts of target outside other's
  // context and restricts target to the rest. other is not changed; the copy
  // made of it when copyOther is set is destroyed here.
  void createResiduals(Confactor* target, Confactor* other, std::deque<Confactor*>* out,
                       bool copyOther);
  // Makes the value sets of the atoms the two share (in a context) equal. The
  // values of target outside *other go to copies appended to *out (owned by
  // out). With copyOther, *other is replaced by a copy before it is changed;
  // the caller owns that copy and compares *other with its old value to know.
  void unifySets(Confactor* target, Confactor** other, std::deque<Confactor*>* out, bool copyOther);

  std::string str() const;
  std::string xml() const;
};

std::ostream& operator<<(std::ostream& os, const CVE& cve);

#endif
