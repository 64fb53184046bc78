// The complete confactor set: the value tree in which one elimination step
// multiplies every confactor that mentions the atom being eliminated, context
// by context, before summing the atom out.
#ifndef CPLOGIC_COMPLETECONFACTORSET_H
#define CPLOGIC_COMPLETECONFACTORSET_H

#include <sstream>
#include <string>
#include <utility>
#include <vector>

class Atom;
class Confactor;
class CompleteConfactorSetNode;

// One position of the tree. It either branches (node_ set) or is a leaf
// position holding the confactor valid for the context spelled by its path
// (leaf_; null while no confactor has reached it).
class CompleteConfactorSetNodeBase {
 public:
  CompleteConfactorSetNodeBase* parent_;  // position above; null at the root; not owned
  CompleteConfactorSetNode* node_;        // owned; null for a leaf position
  Confactor* leaf_;  // owned by the set until extracted; a position never frees it

  CompleteConfactorSetNodeBase();
  explicit CompleteConfactorSetNodeBase(CompleteConfactorSetNodeBase* parent);
  CompleteConfactorSetNodeBase(const CompleteConfactorSetNodeBase&) = delete;
  CompleteConfactorSetNodeBase& operator=(const CompleteConfactorSetNodeBase&) = delete;
  // Destroys node_ and the positions below it, never a leaf.
  ~CompleteConfactorSetNodeBase();
};

// Short name used in the set's assertion texts.
typedef CompleteConfactorSetNodeBase CCFSNB;

// The branching of one position on the values of atom_. The children's value
// sets are pairwise disjoint and cover the atom's domain; they are kept in
// creation order.
class CompleteConfactorSetNode {
 public:
  // (value set as a bit mask over atom_'s values, child position); the
  // positions are owned, a null position is one already summed away.
  std::vector<std::pair<unsigned int, CCFSNB*>> children_;
  Atom* atom_;  // not owned

  CompleteConfactorSetNode();
  CompleteConfactorSetNode(const CompleteConfactorSetNode&) = delete;
  CompleteConfactorSetNode& operator=(const CompleteConfactorSetNode&) = delete;
  // Frees every child position (and their subtrees), never a leaf.
  ~CompleteConfactorSetNode();

  // Takes ownership of child.
  void addChild(unsigned int values, CCFSNB* child);
};

// The tree of one elimination step. Atoms of higher weight branch nearer the
// root; the atom being eliminated has the lowest weight, so every node that
// branches on it has only leaf positions below it. Use: addConfactor for each
// confactor, sumout once, extractConfactors once, destroy.
class CompleteConfactorSet {
 public:
  CCFSNB* root_;  // owned

  CompleteConfactorSet();
  CompleteConfactorSet(const CompleteConfactorSet&) = delete;
  CompleteConfactorSet& operator=(const CompleteConfactorSet&) = delete;
  // Frees the positions and the leaves that were not extracted.
  ~CompleteConfactorSet();

  // Multiplies confactor into every leaf whose context it overlaps, splitting
  // positions where its context cuts across them. Takes ownership of
  // confactor and destroys it before returning.
  void addConfactor(Confactor* confactor);
  // Places the entries order[pos], order[pos-1], ... of confactor below node.
  // Does not take ownership of confactor.
  // g++ names a template in assertion messages as it is first written in a
  // unit, and this header comes first in its unit (it includes no confactor
  // header for that reason): the messages quote the vector with its allocator.
  void addConfactorToSubtree(CCFSNB* node, Confactor* confactor, int pos,
                             std::vector<unsigned int, std::allocator<unsigned int>>* order);
  // Deep copy of src whose leaves are restricted on atom to moved, while the
  // leaves of src itself are restricted to keep. The copy is owned by the
  // caller (normally attached as a new child).
  CompleteConfactorSetNodeBase* copySubtree(CCFSNB* src, Atom* atom, unsigned int keep,
                                            unsigned int moved);
  // Multiplies a copy of confactor into node's leaf; confactor stays the caller's.
  void multiplyValues(CCFSNB* node, Confactor* confactor);

  // Sums atom out of every leaf; siblings that differ only in atom's value
  // are added into one leaf. Leaves that become all ones are dropped.
  void sumout(Atom* atom);
  void sumout(CCFSNB* node, Atom* atom);
  // The leaf of a child (value set values of atom) summed over those values:
  // a region without a leaf is a product of no confactor, 1 for each value.
  // Null for an empty value set. Takes the leaf out of the position; the
  // caller owns the result.
  Confactor* summedLeaf(CCFSNB* position, unsigned int values, Atom* atom);

  // Appends the leaves to *out, each with its path added as context entries,
  // and takes them out of the tree. The caller owns the appended confactors;
  // the set must then only be destroyed.
  void extractConfactors(std::vector<Confactor*>* out);
  void extractConfactorsGoDown(CCFSNB* node, std::vector<Confactor*>* out);

  // The branches from the root to the position extractConfactorsGoDown is at.
  std::vector<std::pair<Atom*, unsigned int>> path_;

  // Indented text dump of the tree; values adds every leaf's table values.
  std::string str(std::string indent, bool values);
  void str(std::ostringstream* os, CompleteConfactorSetNodeBase* node, std::string& indent,
           bool values);
};

#endif
