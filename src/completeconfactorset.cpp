#include "completeconfactorset.h"

#include <algorithm>
#include <bitset>
#include <cassert>

#include "atom.h"
#include "confactor.h"

// Null checks compare with __null, g++'s own null, so that an assertion
// message reads the same whatever NULL expands to.

namespace {

// Leaves still in the tree were never extracted; nobody else holds them.
void deleteLeaves(CCFSNB* node) {
  if (node == NULL)
    return;
  delete node->leaf_;
  node->leaf_ = NULL;
  if (node->node_ != NULL) {
    for (auto& child : node->node_->children_)
      deleteLeaves(child.second);
  }
}

}  // namespace

CompleteConfactorSetNodeBase::CompleteConfactorSetNodeBase()
    : parent_(NULL), node_(NULL), leaf_(NULL) {}

CompleteConfactorSetNodeBase::CompleteConfactorSetNodeBase(CompleteConfactorSetNodeBase* parent)
    : parent_(parent), node_(NULL), leaf_(NULL) {}

CompleteConfactorSetNodeBase::~CompleteConfactorSetNodeBase() {
  delete node_;
}

CompleteConfactorSetNode::CompleteConfactorSetNode() : atom_(NULL) {}

CompleteConfactorSetNode::~CompleteConfactorSetNode() {
  for (auto& child : children_)
    delete child.second;
}

void CompleteConfactorSetNode::addChild(unsigned int values, CCFSNB* child) {
  children_.push_back(std::make_pair(values, child));
}

CompleteConfactorSet::CompleteConfactorSet() : root_(new CCFSNB()) {}

CompleteConfactorSet::~CompleteConfactorSet() {
  deleteLeaves(root_);
  delete root_;
}

void CompleteConfactorSet::addConfactor(Confactor* confactor) {
  // Sorted as (weight, index) pairs: comparing through the entries' atoms
  // costs three dependent loads per comparison on long contexts.
  thread_local std::vector<std::pair<uint32_t, unsigned int>> keyed;
  keyed.clear();
  for (unsigned int i = 0; i < confactor->atoms_.size(); ++i)
    keyed.emplace_back(confactor->atoms_[i]->atom_->weight_, i);
  std::sort(keyed.begin(), keyed.end());
  std::vector<unsigned int> order(keyed.size());
  for (size_t i = 0; i < keyed.size(); ++i)
    order[i] = keyed[i].second;
  // Entries are placed from the heaviest atom (nearest the root) downwards.
  addConfactorToSubtree(root_, confactor, static_cast<int>(order.size()) - 1, &order);
  delete confactor;
}

void CompleteConfactorSet::addConfactorToSubtree(
    CCFSNB* node, Confactor* confactor, int pos,
    std::vector<unsigned int, std::allocator<unsigned int>>* order) {
  assert(confactor != __null);
  if (pos < 0) {
    if (node->node_ == NULL) {
      multiplyValues(node, confactor);
    } else {
      for (auto& child : node->node_->children_)
        addConfactorToSubtree(child.second, confactor, -1, order);
    }
    return;
  }

  AtomDomStruct* entry = confactor->atoms_[(*order)[pos]];
  Atom* atom = entry->atom_;
  CompleteConfactorSetNode* branch = node->node_;

  if (branch != NULL && branch->atom_->weight_ > atom->weight_) {
    for (auto& child : branch->children_)
      addConfactorToSubtree(child.second, confactor, pos, order);
    return;
  }

  if (branch != NULL && branch->atom_->weight_ == atom->weight_) {
    if (branch->atom_ != atom)
      assert(false);
    const unsigned int full = fullDomainMask(atom->domainsize_);
    // Children split off below are complete already; only the old ones are visited.
    const size_t count = branch->children_.size();
    for (size_t k = 0; k < count; ++k) {
      const unsigned int values = branch->children_[k].first;
      CCFSNB* child = branch->children_[k].second;
      const unsigned int inside = entry->domain_ & values;
      if ((inside & full) == 0)
        continue;
      const unsigned int outside = ~entry->domain_ & values;
      if (outside != 0) {
        CCFSNB* copy = copySubtree(child, atom, inside, outside);
        branch->addChild(outside, copy);
        branch->children_[k].first = inside;
      }
      if ((entry->flags_ & ADS_TABLE) == 0) {
        addConfactorToSubtree(child, confactor, pos - 1, order);
      } else {
        Confactor restricted(*confactor);
        restricted.shrinkAtom(atom, inside, true);
        addConfactorToSubtree(child, &restricted, pos - 1, order);
      }
    }
    return;
  }

  // A leaf position, or a branching on a lighter atom: the entry's atom
  // belongs at this level.
  if ((entry->flags_ & ADS_CONTEXT) == 0) {
    addConfactorToSubtree(node, confactor, pos - 1, order);
    return;
  }
  CCFSNB* below = new CCFSNB(node);
  below->node_ = node->node_;
  below->leaf_ = node->leaf_;
  node->leaf_ = NULL;
  node->node_ = new CompleteConfactorSetNode();
  node->node_->atom_ = atom;
  node->node_->addChild(entry->domain_, below);
  const unsigned int rest = fullDomainMask(atom->domainsize_) & ~entry->domain_;
  node->node_->addChild(rest, copySubtree(below, atom, entry->domain_, rest));
  addConfactorToSubtree(below, confactor, pos - 1, order);
}

CompleteConfactorSetNodeBase* CompleteConfactorSet::copySubtree(CCFSNB* src, Atom* atom,
                                                                unsigned int keep,
                                                                unsigned int moved) {
  CCFSNB* copy = new CCFSNB(src->parent_);
  if (src->node_ != NULL) {
    copy->node_ = new CompleteConfactorSetNode();
    copy->node_->atom_ = src->node_->atom_;
    for (auto& child : src->node_->children_) {
      CCFSNB* childCopy = copySubtree(child.second, atom, keep, moved);
      childCopy->parent_ = copy;
      copy->node_->addChild(child.first, childCopy);
    }
  }
  if (src->leaf_ != NULL) {
    copy->leaf_ = new Confactor(*src->leaf_);
    copy->leaf_->shrinkAtom(atom, moved, true);
    src->leaf_->shrinkAtom(atom, keep, true);
  }
  return copy;
}

void CompleteConfactorSet::multiplyValues(CCFSNB* node, Confactor* confactor) {
  Confactor* product = node->leaf_ == NULL
                           ? new Confactor(*confactor)
                           : new Confactor(node->leaf_, confactor, nullptr, kMultiply, kSumOut);
  // The path already states the context.
  product->removePureContextAtoms();
  delete node->leaf_;
  node->leaf_ = product;
}

Confactor* CompleteConfactorSet::summedLeaf(CCFSNB* position, unsigned int values, Atom* atom) {
  assert(position->node_ == NULL);
  const unsigned int count = std::bitset<32>(values & fullDomainMask(atom->domainsize_)).count();
  if (count == 0) {
    delete position->leaf_;
    position->leaf_ = NULL;
    return nullptr;
  }
  // No confactor holds in this region: the product there is 1 for each value.
  Confactor* leaf = position->leaf_ != NULL ? position->leaf_ : new Confactor(1.0);
  position->leaf_ = NULL;
  if (leaf->atoms_.find(atom) == leaf->atoms_.end()) {
    // A leaf that does not mention the atom holds alike for each value of the region.
    for (double& v : leaf->values_)
      v *= count;
  } else {
    leaf->sumoutAtom(atom, false);
  }
  return leaf;
}

void CompleteConfactorSet::sumout(Atom* atom) {
  sumout(root_, atom);
}

void CompleteConfactorSet::sumout(CCFSNB* node, Atom* atom) {
  CompleteConfactorSetNode* branch = node->node_;
  if (branch != NULL && branch->atom_ != atom) {
    for (auto& child : branch->children_)
      sumout(child.second, atom);
    return;
  }
  if (branch != NULL) {
    // The summed atom is the deepest level: every child is a leaf position,
    // and adding the children's leaves completes the sum over its values.
    Confactor* sum = nullptr;
    for (auto& child : branch->children_) {
      Confactor* part = summedLeaf(child.second, child.first, atom);
      delete child.second;
      child.second = nullptr;
      if (part == nullptr)
        continue;
      if (sum == nullptr) {
        sum = part;
        continue;
      }
      Confactor* both = new Confactor(sum, part, nullptr, kAdd, kSumOut);
      delete sum;
      delete part;
      sum = both;
    }
    delete branch;
    node->node_ = NULL;
    node->leaf_ = sum != nullptr ? sum : new Confactor(0.0);
    return;
  }
  assert(node->leaf_ != __null);
  node->leaf_->sumoutAtom(atom, false);
  if (node->leaf_->isRedundant(nullptr)) {
    delete node->leaf_;
    node->leaf_ = NULL;
  }
}

void CompleteConfactorSet::extractConfactors(std::vector<Confactor*>* out) {
  path_.clear();
  extractConfactorsGoDown(root_, out);
}

void CompleteConfactorSet::extractConfactorsGoDown(CCFSNB* node, std::vector<Confactor*>* out) {
  if (node->node_ == NULL) {
    if (node->leaf_ != NULL) {
      std::vector<AtomDomStruct*> context;
      context.reserve(path_.size());
      for (const auto& step : path_)
        context.push_back(
            new AtomDomStruct(step.first, static_cast<int>(step.second), ADS_CONTEXT));
      node->leaf_->atoms_.insertAll(&context);
      out->push_back(node->leaf_);
    }
    node->leaf_ = NULL;  // the caller owns it now
    return;
  }
  Atom* atom = node->node_->atom_;
  for (auto& child : node->node_->children_) {
    path_.emplace_back(atom, child.first);
    extractConfactorsGoDown(child.second, out);
    path_.pop_back();
  }
}

std::string CompleteConfactorSet::str(std::string indent, bool values) {
  std::ostringstream os;
  os << indent;
  str(&os, root_, indent, values);
  return os.str();
}

void CompleteConfactorSet::str(std::ostringstream* os, CompleteConfactorSetNodeBase* node,
                               std::string& indent, bool values) {
  if (node == NULL) {
    *os << "+ -\n";
    return;
  }
  if (node->node_ != NULL) {
    Atom* atom = node->node_->atom_;
    const unsigned int d = atom->domainsize_;
    *os << "+ " << atom->name_ << "\n";
    const auto& children = node->node_->children_;
    for (size_t k = 0; k < children.size(); ++k) {
      std::string bits;
      for (unsigned int v = 0; v < d; ++v)
        bits += (children[k].first >> v) & 1u ? '1' : '0';
      *os << indent << "|\n" << indent << "+-" << bits << "-";
      std::string below = indent + (k + 1 == children.size() ? " " : "|") + std::string(d + 2, ' ');
      str(os, children[k].second, below, values);
    }
    return;
  }
  Confactor* leaf = node->leaf_;
  if (leaf == NULL) {
    *os << "empty\n";
    return;
  }
  if (leaf->atoms_.empty()) {
    *os << "+ " << leaf->values_[0] << "\n";
    return;
  }
  *os << "+";
  for (const AtomDomStruct* entry : leaf->atoms_) {
    *os << " " << entry->atom_->name_ << "(";
    if (entry->flags_ & ADS_CONTEXT)
      *os << "C";
    if (entry->flags_ & ADS_TABLE)
      *os << "T";
    *os << ")";
  }
  if (values) {
    for (double v : leaf->values_)
      *os << "\n" << indent << "  " << v;
  }
  *os << "\n";
}
