// Compact copies of ground Prolog terms, used as hash keys for the theory's
// atoms and for the groundings of first-order events.
#ifndef CPLOGIC_VORNCPTHEORYTERM_H
#define CPLOGIC_VORNCPTHEORYTERM_H

#include <cstddef>
#include <cstdint>
#include <ostream>

class VornCPTheoryTerm;

// A reference-counted block of terms: the arguments of a structure or the
// elements of a list, stored inline after the header in one allocation.
struct VornCPTheoryTermBlock {
  int32_t share_;  // number of terms sharing the block
  int32_t n_;      // number of terms that follow
  VornCPTheoryTerm* terms();
};

// A ground term. Copies share the argument block; the block is released
// explicitly with deleteRecursive() by whoever holds the copy, never by a
// destructor, so that keys can sit in hash containers without deep copies.
class VornCPTheoryTerm {
 public:
  enum Kind : int32_t { kInvalid = -1, kAtom = 0, kInteger = 1, kStructure = 2, kList = 3 };

  int32_t kind_;                 // a Kind; kInvalid for a term that was refused
  uint32_t value_;               // atom identifier, integer, or functor identifier (kinds 0, 1, 2)
  VornCPTheoryTermBlock* args_;  // kinds 2 and 3 only; shared

  VornCPTheoryTerm() : kind_(kInvalid), value_(0), args_(nullptr) {}
  // Shares other's block (one more share).
  VornCPTheoryTerm(const VornCPTheoryTerm& other) : kind_(kInvalid), value_(0), args_(nullptr) {
    copyFunctor(other);
  }
  VornCPTheoryTerm& operator=(const VornCPTheoryTerm&) = delete;

  // Makes this a structure or list key with a new block of n invalid terms.
  // Exits the process when memory runs out.
  void allocArgs(int32_t kind, uint32_t value, int32_t n);
  int32_t count() const { return args_ != nullptr ? args_->n_ : 0; }
  VornCPTheoryTerm* arg(int32_t i) const { return args_->terms() + i; }

  uint32_t hash() const;
  bool equals(const VornCPTheoryTerm& other) const;
  // The term as an atom name: no blanks, nothing quoted ("p(a,[1,2])").
  void print(std::ostream& os) const;
  // Takes kind and value from other and shares its block.
  void copyFunctor(const VornCPTheoryTerm& other);
  // Gives up this term's share of its block; the last share frees the block
  // and what its terms hold. The term itself is left as it was and must not
  // be read again (it may be a key inside a hash container).
  void deleteRecursive() const;
};

struct VornCPTheoryTermHash {
  size_t operator()(const VornCPTheoryTerm& t) const { return t.hash(); }
};

struct VornCPTheoryTermEquals {
  bool operator()(const VornCPTheoryTerm& a, const VornCPTheoryTerm& b) const {
    return a.equals(b);
  }
};

// One grounding of a first-order event: the keys of its head atoms followed by
// the keys of its body atoms, in a block shared by copies.
class VornCPTheoryGroundEvent {
 public:
  int32_t n_;      // number of terms
  uint32_t hash_;  // set by computeHash()
  struct Block {
    int32_t share_;
  };
  Block* block_;  // share count followed by n_ terms

  // A block of n invalid terms with share count 1. Exits when memory runs out.
  explicit VornCPTheoryGroundEvent(int n);
  VornCPTheoryGroundEvent(const VornCPTheoryGroundEvent& other);
  VornCPTheoryGroundEvent& operator=(const VornCPTheoryGroundEvent&) = delete;
  // The last copy releases the terms and the block.
  ~VornCPTheoryGroundEvent();

  void computeHash();
  // Compares this event's terms with the other's first n_ terms.
  bool equals(const VornCPTheoryGroundEvent& other) const;
  // REQUIRES: 0 <= i < n_ (not checked).
  VornCPTheoryTerm* getTerm(int i) const;
  // True when every term is a valid key.
  bool valid() const;
};

struct VornCPTheoryGroundEventHash {
  size_t operator()(const VornCPTheoryGroundEvent& e) const { return e.hash_; }
};

struct VornCPTheoryGroundEventEquals {
  bool operator()(const VornCPTheoryGroundEvent& a, const VornCPTheoryGroundEvent& b) const {
    return a.equals(b);
  }
};

#endif
