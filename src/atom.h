// Atoms: the discrete random variables of a network, with their edges,
// ranks, heuristic weights and prime atoms.
#ifndef CPLOGIC_ATOM_H
#define CPLOGIC_ATOM_H

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

class CPEvent;

// A random variable. Ground atoms have domain size 2 (0 false, 1 true); an
// event's choice variable has one value per head atom plus value 0 for "no
// head atom chosen". The network that created an atom owns it; an atom owns
// only its prime atom.
class Atom {
 public:
  // Strict weak orders on Atom*. None breaks ties, so only CmpId may key a set.
  struct CmpId {
    bool operator()(const Atom* a, const Atom* b) const { return a->id_ < b->id_; }
  };
  struct Cmp {
    bool operator()(const Atom* a, const Atom* b) const { return a->rank_ < b->rank_; }
  };
  struct CmpInv {
    bool operator()(const Atom* a, const Atom* b) const { return a->rank_ > b->rank_; }
  };
  struct CmpWeight {
    bool operator()(const Atom* a, const Atom* b) const { return a->weight_ < b->weight_; }
  };
  struct CmpWeightInv {
    bool operator()(const Atom* a, const Atom* b) const { return a->weight_ > b->weight_; }
  };
  struct CmpDynamical {
    bool operator()(const Atom* a, const Atom* b) const { return a->isLessDynamical(b); }
  };

  std::string name_;
  uint32_t domainsize_;
  int32_t id_;
  int32_t rank_;
  uint32_t weight_;
  CPEvent* event_;  // the event whose choice this atom is; not owned
  bool prime_;
  Atom* atomp_;                 // the prime atom; owned
  std::vector<Atom*> in_;       // parents, sorted by id
  std::vector<Atom*> out_;      // children, sorted by id
  std::vector<Atom*> sibling_;  // sorted by id, disjoint from in_ and out_

  static int32_t next_unique_id_;

  Atom(const std::string& name, int domainsize);
  // Copies only the name and the domain size; the copy gets a fresh id.
  Atom(Atom& other);
  Atom();
  Atom& operator=(const Atom&) = delete;
  ~Atom();

  void set_domainsize(unsigned int domainsize) { domainsize_ = domainsize; }
  // Pointer identity.
  bool isSame(const Atom* other) const { return this == other; }

  // Edge insertion keeps the vectors sorted by id and ignores duplicates.
  // A new parent or child raises the weight of both atoms by one and leaves
  // the sibling list. The caller adds the reverse edge itself.
  void addInAtom(Atom* a);
  void addOutAtom(Atom* a);
  void addSiblingAtom(Atom* a);
  // Inserts the neighbours into *out (not cleared). With a prime atom, flag
  // true gives the parents and this atom (the prime's view), flag false the
  // children (their primes where they have one) and the siblings.
  void getNeighbours(std::set<Atom*, CmpId>* out, bool flag);

  // Returns the prime atom, creating it on first use; this atom owns it.
  Atom* createPrimeAtom();
  // Whether the atom's distribution factorises through a prime atom.
  // REQUIRES: a ground atom has at least one parent.
  bool isMultFactorizable() const;
  bool isLessDynamical(const Atom* b) const;

  // Assigns rank r (r to the prime and r + 1 to this atom when there is a
  // prime); returns how many ranks were used.
  int setRank(int r);
  void setWeightWithRank(bool forPrime);
  void setWeightWithDegree(bool forPrime);
  void setWeightWithDegreeD(bool forPrime);
  void setWeightWithWeightedCF(bool forPrime);
  void setWeightWithWeightedCFD(bool forPrime);
  // Fill-in count of eliminating this atom; forPrime marks the call a prime
  // atom receives on behalf of its owner.
  void setWeightWithDeficiency(bool forPrime);

  std::string str(bool brief) const;
  std::string xml() const;

 private:
  uint32_t degree() const;
};

std::ostream& operator<<(std::ostream& os, const Atom& atom);

// An assignment of values to atoms (evidence, observations, contexts).
typedef std::map<Atom*, int, Atom::CmpId> AtomBody;

// The most values a domain can have: domains are bit sets of 32 bits.
constexpr unsigned kMaxDomainSize = 32;
// The bit set of all values 0 .. domainsize - 1. REQUIRES: domainsize <= 32.
inline uint32_t fullDomainMask(unsigned domainsize) {
  return domainsize >= kMaxDomainSize ? ~0u : (1u << domainsize) - 1u;
}

struct AtomBodyOps {
  static std::string str(const AtomBody& body);
};

// Whether the choice variable of event factorises through a prime atom: a
// single rule with a body does. Defined with the events (src/cpevent.cpp),
// so that atoms do not depend on the layer above them.
bool eventFactorizes(const CPEvent& event);

// Pseudo-random integer in 0..n from the core's own generator (a draw in
// 0 .. 2^31 - 1 scaled by 2^-31 (n + 1)); a result above n gives 0. The core
// never touches the C library's rand(), which belongs to its host.
int randomNumber(int n);
// Restarts this thread's generator at seed, so that draws repeat. Unseeded,
// a thread's generator starts from the clock.
void seedRandom(uint32_t seed);

#endif
