// Confactors: contextual factors, the tables over atoms that hold only within
// a context, with their per-atom domain entries, their algebra and their text
// forms.
//
// Table layout, relied on by every indexing loop of the system: the table
// atoms (entries with ADS_TABLE) are taken in ascending rank; the first has
// stride 1 and each next one the product of the value counts of those before
// it, so the table atom of lowest rank varies fastest. An atom's index along
// its dimension is the position of its value in its domain, i.e. the number
// of domain values smaller than it. Atoms without ADS_TABLE add nothing to an
// index and have stride 1.
#ifndef CPLOGIC_CONFACTOR_H
#define CPLOGIC_CONFACTOR_H

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "atom.h"

// Role bits of AtomDomStruct::flags_.
// The confactor holds only when the atom's value lies in the entry's domain.
constexpr unsigned ADS_CONTEXT = 1;
// The table has a dimension for the atom, indexed over the entry's domain.
constexpr unsigned ADS_TABLE = 2;
// The atom is the child of a conditional probability table (at most one entry).
constexpr unsigned ADS_FORATOM = 4;

// The add argument of the combining constructor.
constexpr int kMultiply = 0;
constexpr int kAdd = 1;
// Its value argument when the atom (if any) is summed out, not restricted.
constexpr int kSumOut = -1;

// One atom of a confactor: the values the confactor speaks about (a bit set,
// bit v = value v, at most 32 values), their count, the role bits and the
// atom's stride in the table. Only bits below the atom's domain size count.
struct AtomDomStruct {
  // Orders entries by the rank of their atoms (never by id or name).
  struct Cmp {
    bool operator()(const AtomDomStruct* a, const AtomDomStruct* b) const {
      return a->atom_->rank_ < b->atom_->rank_;
    }
  };

  Atom* atom_;  // not owned
  uint32_t domain_;
  uint32_t count_;
  uint32_t flags_;
  int32_t block_;  // written only by Confactor::updateSize

  // Entries come and go by the million in an elimination: freed ones are
  // kept for reuse by the thread that freed them.
  static void* operator new(std::size_t size);
  static void operator delete(void* p);

  AtomDomStruct();
  AtomDomStruct(const AtomDomStruct& other) = default;
  AtomDomStruct& operator=(const AtomDomStruct& other) = default;
  // Full domain of the atom.
  AtomDomStruct(Atom* atom, unsigned flags);
  // The given domain; flags are taken exactly as given.
  AtomDomStruct(Atom* atom, int domain, unsigned flags);

  // Sets the domain and recounts it. A restricted domain makes the atom a
  // context atom and a single value stops it from being a table dimension;
  // neither is ever undone here.
  void setDomain(unsigned domain);
  // Off also clears every bit above ADS_TABLE.
  void setForAtom(bool on);
  // Equal domains on the atom's meaningful bits.
  bool sameDomain(const AtomDomStruct& other) const;
  // Bits 0 .. domain size - 1.
  uint32_t fullMask() const;
  // Number of domain values below value: the value's index in its dimension.
  unsigned position(unsigned value) const;
  bool hasValue(unsigned value) const;
};

// The entries of one confactor, sorted by ascending atom rank, at most one per
// atom. Owns its entries; ranks must be unique among the atoms it holds.
class ConfactorAtoms : public std::vector<AtomDomStruct*> {
 public:
  ConfactorAtoms() = default;
  // n null slots; the caller fills every slot before any other use.
  explicit ConfactorAtoms(unsigned n);
  // Copies the pointers, not the entries, and sorts the copy: both containers
  // then own the same entries, so the caller must release one set of pointers
  // (clear()) before either is destroyed.
  explicit ConfactorAtoms(const ConfactorAtoms& other);
  ConfactorAtoms& operator=(const ConfactorAtoms&) = delete;
  ~ConfactorAtoms();

  // The entry of atom, or end().
  iterator find(const Atom* atom);
  const_iterator find(const Atom* atom) const;
  // Takes ownership of entry when the result's bool is true; when the atom is
  // present already, returns (its entry, false) and entry stays the caller's.
  std::pair<iterator, bool> insert(AtomDomStruct* entry);
  // Takes ownership of every entry of fresh; those whose atom is present
  // already are deleted. One merge, where inserting one by one would move
  // the tail of the vector for each.
  void insertAll(std::vector<AtomDomStruct*>* fresh);
  // Deletes the entry; returns the position of the next one.
  iterator erase(iterator it);
  // Restores the rank order after the atoms' ranks changed.
  void sort();

 private:
  iterator lowerBound(const Atom* atom);
  const_iterator lowerBound(const Atom* atom) const;
};

class Confactor;
class ConfactorScope;

// Links a confactor into the list of the ConfactorScope open on its thread
// when it was made, and out again when it is destroyed.
class LiveLink {
 public:
  explicit LiveLink(Confactor* owner);
  ~LiveLink();
  LiveLink(const LiveLink&) = delete;
  LiveLink& operator=(const LiveLink&) = delete;

 private:
  friend class ConfactorScope;
  Confactor* owner_;
  ConfactorScope* scope_;
  LiveLink* prev_;
  LiveLink* next_;
};

// While a scope is open, the confactors that this thread makes are linked
// into it. A scope left by an exception destroys those still alive: a query
// stopped half-way (a table too large, an interrupt) then leaves nothing
// behind, whichever container or local held them. One scope per thread at
// a time.
class ConfactorScope {
 public:
  ConfactorScope();
  ~ConfactorScope();
  ConfactorScope(const ConfactorScope&) = delete;
  ConfactorScope& operator=(const ConfactorScope&) = delete;

 private:
  friend class LiveLink;
  LiveLink* head_;
  int uncaught_;
};

// Entries of one complete table over all the atoms of the confactors
// (saturated at SIZE_MAX).
std::size_t tableEntriesOver(const std::vector<Confactor*>& confactors);
// The product of the confactors, each made complete (1 outside its
// context), as one new table; null for none. The confactors stay the
// caller's. A result over the table bound fails before any product is built.
Confactor* productOfCompleteTables(const std::vector<Confactor*>& confactors);

// A contextual factor: a table of doubles over its table atoms (layout at the
// top of this file) that holds only where every context atom takes a value of
// its domain. Constructors and operations that return a new Confactor* hand
// it to the caller; Atom pointers are never owned.
class Confactor {
 public:
  LiveLink live_{this};  // first: made before and destroyed after the rest
  std::vector<double> values_;
  int32_t id_;
  ConfactorAtoms atoms_;

  static int32_t next_unique_id_;
  // Scratch index map of the product constructor, reused across products (so
  // products are not reentrant).
  static std::vector<unsigned> i_value;

  // No atoms, the one entry v.
  explicit Confactor(double v);
  // A table atom over the full domain per atom (repeats ignored); forAtom's
  // entry is the for-atom. Every entry is fill.
  Confactor(std::vector<Atom*>& atoms, Atom* forAtom, double fill);
  // As above with the table given in table order, padded with 1.0 or cut.
  Confactor(std::vector<Atom*>& atoms, Atom* forAtom, std::vector<double>& values);
  // Copies of the given entries (roles and domains kept).
  Confactor(ConfactorAtoms& atoms, std::vector<double>& values);
  Confactor(ConfactorAtoms& atoms, double fill);
  // A copy with a fresh id.
  Confactor(const Confactor& other);
  // The product of a and b (their sum when add is kAdd) over the union of
  // their entries; then, when atom is not null, value kSumOut sums atom out
  // and any other value restricts atom to that value and drops it. a and b
  // are only read and stay the caller's.
  Confactor(Confactor* a, Confactor* b, Atom* atom, int add, int value);
  Confactor& operator=(const Confactor&) = delete;
  ~Confactor();

  // Fresh id, then updateSize(fill).
  void init(double fill);
  // Recomputes the strides and resizes the table to the product of the table
  // atoms' counts: growing appends fill, shrinking cuts the end; values never
  // move.
  void updateSize(double fill);

  // One value per entry, in atoms_ order. -1 when the assignment is not
  // covered (a context value outside its domain, or a table value without a
  // slot), else the table index.
  int getPos(const std::vector<unsigned>& values) const;
  // REQUIRES: one value per entry. def when not covered.
  double getValue(const std::vector<unsigned>& indices, double def) const;
  // Writes v at every entry matching indices, where -1 stands for every value
  // of a table atom. Nothing is written when a context atom's value (-1
  // included) lies outside its domain.
  // REQUIRES: one pair per entry, every atom of indices an entry.
  void setValue(const AtomBody& indices, double v);
  // Adds other's table entry by entry. REQUIRES: equal scopes and sizes.
  void addToValues(Confactor* other);
  // Divides by the sum unless that is 0.
  void normalize();
  bool allOnes() const;
  // A single entry of 1.0: the confactor only states its context.
  bool isConstraint() const;
  // An empty table or all ones; the atom is not consulted.
  bool isRedundant(const Atom* atom) const;

  // The for-atom, or null.
  Atom* getForAtom() const;
  ConfactorAtoms::iterator getForAtomIterator();
  // The entry's domain, 0 when absent.
  unsigned getAtomDomain(Atom& atom) const;
  // The entry's role bits, 0 when absent.
  unsigned hasAtom(Atom& atom) const;
  bool isForAtom(Atom& atom) const;

  // Elimination weights belong to the atoms; a confactor adds its share when
  // it enters a set and takes it away when it leaves.
  void resetWeights();

  // Full self-check; reports a failure on the error stream and returns false.
  bool checkInvariant() const;
  // Random conditional probability table for the for-atom, normalised per
  // child value over the whole table. Seeds rand() with the time.
  void fillCPTAtRandom();

  // --- Algebra. All reshaping is in place on values_. ---

  // Fills this (empty) confactor's entries with the union of a's and b's;
  // common atoms get the intersection of the domains and the union of roles.
  void initAtoms(Confactor* a, Confactor* b);
  // Same atoms, masked domains and role bits, position by position.
  bool isMergeable(const Confactor* other) const;

  // False when a common context atom has disjoint domains.
  bool isCompatibleOrOverlapping(const Confactor& other) const;

  // Context editing; none of these touches the table or the strides.
  // addAtom(atom, flags, domain, 1, -1) for each context entry of other.
  void includeAtomsFromContext(Confactor& other);
  void removePureContextAtoms();
  // Re-sorts the entries after the atoms' ranks changed.
  void orderAtoms();

  // Adds atom with the given role bits over domain (-1: all values). A table
  // atom enters with the single value initValue (-1: the smallest of domain),
  // so that the existing table becomes that value's slice, and is then widened
  // to domain with fill; a present atom is widened instead. Returns the
  // insertion's result, as ConfactorAtoms::insert.
  std::pair<ConfactorAtoms::iterator, bool> addAtom(Atom* atom, unsigned flags, int domain,
                                                    int fill, int initValue);
  // Widens the entry to domain; new slices get fill.
  // REQUIRES: domain is the values 0 .. k-1 for some k.
  ConfactorAtoms::iterator growAtom(ConfactorAtoms::iterator& it, unsigned domain, double fill);
  ConfactorAtoms::iterator growAtom(Atom* atom, unsigned domain, double fill);
  // Narrows the entry to domain, dropping the removed values' slices. A
  // single value without keep erases the entry (it becomes end()); with keep
  // it stays as a context atom. REQUIRES: domain is a subset of the old one.
  ConfactorAtoms::iterator shrinkAtom(ConfactorAtoms::iterator& it, unsigned domain, bool keep);
  ConfactorAtoms::iterator shrinkAtom(Atom* atom, unsigned domain, bool keep);
  // Sums the table over atom. A context table atom with keep stays as a pure
  // context atom; otherwise the entry goes.
  void sumoutAtom(Atom* atom, bool keep);
  // A complete table over all atoms of this one (full domains, same order),
  // fill outside this confactor's context. Caller owns the result.
  Confactor* convertToCPT(int fill) const;

  // --- Text forms. ---

  // Entries in entry notation, " (c)" for a constraint, then unless noTable
  // one line per table entry and "BREAKS INVARIANT" when the self-check fails.
  std::string str(const std::string& indent = "", bool noTable = false) const;
  // One '1' or '0' per value of the atom, value 0 first.
  std::string formatDomain(const AtomDomStruct& entry) const;
  std::string xml(std::string comment) const;
  // The Hugin potential block. REQUIRES: a for-atom.
  std::string strHuginNet() const;

 private:
  std::string strEntry(const AtomDomStruct& entry) const;
  // Index map of one operand of the product into i_value.
  void mapOperand(const Confactor& operand);
};

std::ostream& operator<<(std::ostream& os, const Confactor& c);

// Fewest atom entries first.
struct ConfactorCmpLength {
  bool operator()(const Confactor* a, const Confactor* b) const {
    return a->atoms_.size() < b->atoms_.size();
  }
};

// By id: the order of sets of distinct confactors.
struct ConfactorCmpId {
  bool operator()(const Confactor* a, const Confactor* b) const { return a->id_ < b->id_; }
};

#endif
