#include "cpevent.h"

#include <algorithm>
#include <cassert>
#include <iostream>
#include <sstream>

#include "confactor.h"
#include "cptheory.h"

int32_t CPEvent::next_unique_id_ = 0;

namespace {

// Probabilities this close to zero are rounding residue of a head that sums to 1.
const double kNoChoiceEpsilon = 1e-7;

}  // namespace

// ---------------------------------------------------------------------------
// Helpers shared with the theory.

Confactor* completeTable(std::vector<Atom*> atoms, std::vector<Atom*> forAtoms,
                         const std::function<double(const AtomBody&)>& value) {
  Confactor* table = new Confactor(atoms, nullptr, 0.0);
  for (Atom* forAtom : forAtoms)
    (*table->atoms_.find(forAtom))->setForAtom(true);
  AtomBody assignment;
  for (Atom* atom : atoms)
    assignment[atom] = 0;
  // Odometer over all assignments; setValue finds each one's slot.
  while (true) {
    table->setValue(assignment, value(assignment));
    size_t i = 0;
    for (; i < atoms.size(); ++i) {
      int& v = assignment[atoms[i]];
      if (++v < static_cast<int>(atoms[i]->domainsize_))
        break;
      v = 0;
    }
    if (i == atoms.size())
      break;
  }
  return table;
}

Confactor* mergeIntoTable(Confactors& list) {
  assert(!list.empty());
  if (list.size() == 1) {
    Confactor* only = list[0];
    list.clear();
    return only;
  }
  Confactor* acc = nullptr;
  for (Confactor* piece : list) {
    Confactor* complete = piece->convertToCPT(1);
    delete piece;
    if (acc == nullptr) {
      acc = complete;
      continue;
    }
    Confactor* product = new Confactor(acc, complete, nullptr, 0, -1);
    delete acc;
    delete complete;
    acc = product;
  }
  list.clear();
  return acc;
}

// ---------------------------------------------------------------------------

CPBodyAtom::~CPBodyAtom() {
  for (CPBodyAtom* child : children_)
    delete child;
  delete probabilities_;
}

std::string ParsedCPEvent::cppCode() const {
  std::ostringstream os;
  for (const auto& h : head_)
    os << "head[" << h.atom_->name_ << "] = " << h.value_ << ";\n";
  for (const auto& b : body_)
    os << "body[" << b.atom_->name_ << "] = " << b.value_ << ";\n";
  os << "cpt->addParsedEvent(head, body);\n";
  os << "head.clear();\n";
  os << "body.clear();\n";
  return os.str();
}

CPEvent::CPEvent(CPTheory* theory)
    : id_(0),
      body_tree_(nullptr),
      tree_depth_(0),
      rule_count_(0),
      theory_(theory),
      choice_atom_(nullptr) {
  init();
}

CPEvent::~CPEvent() {
  delete body_tree_;
  // Without a theory nobody else holds the choice variable.
  if (theory_ == nullptr)
    delete choice_atom_;
}

void CPEvent::init() {
  id_ = next_unique_id_++;
  std::string name = "C" + std::to_string(id_);
  choice_atom_ = new Atom(name, 1);
  choice_atom_->event_ = this;
  if (theory_ == nullptr)
    return;
  // A user atom may already carry the name; the choice variable then gets a
  // distinct one rather than replacing it.
  while (theory_->atoms_.count(name) != 0)
    name += "_";
  choice_atom_->name_ = name;
  theory_->atoms_[name] = choice_atom_;
  theory_->needs_update_ = true;
}

void CPEvent::setHead(AtomDoubles& head) {
  assert(theory_ != __null);
  for (const auto& h : head)
    head_atoms_.push_back(h.atom_);
  choice_atom_->set_domainsize(static_cast<unsigned>(head_atoms_.size() + 1));
}

bool CPEvent::excludesHeldBodies(const std::vector<AtomValuePair<int>>& sorted) const {
  for (const auto& held : sorted_bodies_) {
    bool excluded = false;
    size_t i = 0, j = 0;
    while (i < held.size() && j < sorted.size()) {
      int a = held[i].atom_->id_, b = sorted[j].atom_->id_;
      if (a < b) {
        ++i;
      } else if (b < a) {
        ++j;
      } else if (held[i].value_ != sorted[j].value_) {
        excluded = true;
        break;
      } else {
        ++i;
        ++j;
      }
    }
    if (!excluded)
      return false;
  }
  return true;
}

bool CPEvent::addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body,
                             bool direct) {
  if (!head_atoms_.empty()) {
    // Only the stored head is compared: a longer head that starts with it joins.
    if (head.size() < head_atoms_.size())
      return false;
    for (size_t i = 0; i < head_atoms_.size(); ++i) {
      if (head[i].atom_->id_ != head_atoms_[i]->id_)
        return false;
    }
  }
  std::vector<AtomValuePair<int>> sorted(body);
  std::stable_sort(sorted.begin(), sorted.end(), AtomValuePair<int>::CmpId());
  if (!excludesHeldBodies(sorted))
    return false;

  ++rule_count_;
  bool first = head_atoms_.empty();
  if (first)
    setHead(head);
  if (direct) {
    addEventToTree(head, body);
  } else {
    parsed_events_.emplace_back(head, body);
    sorted_bodies_.push_back(sorted);
  }
  addEdges(body, first, direct);
  return true;
}

void CPEvent::addEdges(const std::vector<AtomValuePair<int>>& body, bool first, bool direct) {
  for (Atom* h : head_atoms_) {
    choice_atom_->addOutAtom(h);
    h->addInAtom(choice_atom_);
  }
  for (const auto& literal : body) {
    Atom* b = literal.atom_;
    choice_atom_->addInAtom(b);
    b->addOutAtom(choice_atom_);
    if (!first) {
      for (const auto& other : body) {
        if (other.atom_ != b)
          b->addSiblingAtom(other.atom_);
      }
    }
    if (!direct)
      ++literal_counts_[b];
  }
}

void CPEvent::compileParsedEvents() {
  std::vector<size_t> order(parsed_events_.size());
  for (size_t i = 0; i < order.size(); ++i)
    order[i] = i;
  std::sort(order.begin(), order.end(), [this](size_t a, size_t b) {
    return ParsedCPEvent::CmpLength()(parsed_events_[a], parsed_events_[b]);
  });
  for (size_t i : order)
    addEventToTree(parsed_events_[i].head_, parsed_events_[i].body_);
}

int CPEvent::addEventToTree(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  std::vector<AtomValuePair<int>> rest(body);
  std::sort(rest.begin(), rest.end(), AtomValuePair<int>::CmpId());
  int steps = 0;
  CPBodyAtom* node = nullptr;
  if (body_tree_ == nullptr) {
    body_tree_ = new CPBodyAtom(nullptr);
    node = body_tree_;
  } else {
    node = body_tree_;
    while (true) {
      if (node->atom_ == nullptr)
        return 0;  // the path ends in an existing leaf
      Atom* tested = node->atom_;
      auto it = std::lower_bound(
          rest.begin(), rest.end(), tested,
          [](const AtomValuePair<int>& l, const Atom* a) { return l.atom_->id_ < a->id_; });
      if (it == rest.end() || it->atom_ != tested)
        return 0;  // the node tests an atom this rule does not mention
      size_t value = static_cast<size_t>(it->value_);
      rest.erase(it);
      ++steps;
      CPBodyAtom* child = value < node->children_.size() ? node->children_[value] : nullptr;
      if (child == nullptr) {
        if (node->children_.size() <= value)
          node->children_.resize(value + 1, nullptr);
        child = new CPBodyAtom(node);
        node->children_[value] = child;
        node = child;
        break;
      }
      node = child;
    }
  }

  std::sort(rest.begin(), rest.end(), AtomValuePair<int>::CmpWithCnt(&literal_counts_));
  for (const auto& literal : rest) {
    size_t value = static_cast<size_t>(literal.value_);
    node->atom_ = literal.atom_;
    if (node->children_.size() <= value)
      node->children_.resize(value + 1, nullptr);
    CPBodyAtom* child = new CPBodyAtom(node);
    node->children_[value] = child;
    ++steps;
    node = child;
  }
  if (steps > tree_depth_)
    tree_depth_ = steps;

  auto* probabilities = new std::vector<double>(head.size() + 1, 0.0);
  double sum = 0.0;
  for (size_t i = 0; i < head.size(); ++i) {
    (*probabilities)[i + 1] = head[i].value_;
    sum += head[i].value_;
  }
  double none = 1.0 - sum;
  (*probabilities)[0] = none < kNoChoiceEpsilon ? 0.0 : none;
  node->probabilities_ = probabilities;
  return 1;
}

bool CPEvent::emptyBody() const {
  if (body_tree_ != nullptr)
    return body_tree_->probabilities_ != nullptr;
  if (rule_count_ > 1)
    return false;
  if (rule_count_ == 1)
    return parsed_events_.empty() || parsed_events_[0].body_.empty();
  return true;
}

int CPEvent::headAtomPosition(const Atom& atom) const {
  for (size_t i = 0; i < head_atoms_.size(); ++i) {
    if (head_atoms_[i] == &atom)
      return static_cast<int>(i);
  }
  return -1;
}

// ---------------------------------------------------------------------------
// Conversion to confactors.

int CPEvent::convertToConfactors(Confactors* out, CVE* engine, bool tables) {
  if (rule_count_ == 1 && !emptyBody()) {
    assert(getAtomRepresentation()->atomp_ != __null);
    confactorsAsNoisyMinFactorization(out, body_tree_, choice_atom_->atomp_, tables);
    return 1;
  }
  return convertToConfactorsAsTree(out, engine, tables);
}

int CPEvent::convertToConfactorsAsTree(Confactors* out, CVE*, bool tables) {
  std::vector<Atom*> path(1, choice_atom_);
  std::vector<double> defaults(head_atoms_.size() + 1, 0.0);
  defaults[0] = 1.0;
  Confactors list;
  int count = confactorsFromSubtree(&list, body_tree_, path, defaults);
  if (!tables) {
    out->insert(out->end(), list.begin(), list.end());
    return count;
  }
  out->push_back(mergeIntoTable(list));
  return 1;
}

int CPEvent::confactorsFromSubtree(Confactors* out, CPBodyAtom* node, std::vector<Atom*>& path,
                                   std::vector<double>& defaults) {
  if (node == nullptr || node->atom_ == nullptr) {
    // A tree without leaves leaves the choice at "no head atom".
    std::vector<double>& values =
        (node != nullptr && node->probabilities_ != nullptr) ? *node->probabilities_ : defaults;
    out->push_back(new Confactor(path, choice_atom_, values));
    return 1;
  }
  Atom* b = node->atom_;
  int observed = theory_ != nullptr ? theory_->getObservedValue(*b) : -1;
  const int n = static_cast<int>(b->domainsize_);
  std::vector<size_t> start(n, 0);
  std::vector<int> count(n, 0);
  int total = 0;
  // Every value of b, also those beyond the child slots: a value no rule
  // covers must still give the choice variable a distribution.
  for (int v = 0; v < n; ++v) {
    start[v] = out->size();
    if (observed != -1 && v != observed)
      continue;
    CPBodyAtom* child =
        static_cast<size_t>(v) < node->children_.size() ? node->children_[v] : nullptr;
    if (child != nullptr) {
      count[v] = confactorsFromSubtree(out, child, path, defaults);
    } else {
      out->push_back(new Confactor(path, choice_atom_, defaults));
      count[v] = 1;
    }
    total += count[v];
  }

  bool single = observed == -1;
  for (int v = 0; v < n && single; ++v)
    single = count[v] == 1;
  if (single) {
    Confactor* first = (*out)[start[0]];
    for (int v = 1; v < n && single; ++v)
      single = first->isMergeable((*out)[start[v]]);
  }
  if (single) {
    // Equal shapes below every value: one confactor with b as a table atom.
    Confactor* first = (*out)[start[0]];
    first->addAtom(b, ADS_TABLE, -1, 0, 0);
    for (int v = n - 1; v >= 1; --v) {
      Confactor* other = (*out)[start[v]];
      other->addAtom(b, ADS_TABLE, -1, 0, v);
      first->addToValues(other);
      delete other;
      out->erase(out->begin() + start[v]);
    }
    return 1;
  }
  if (observed != -1)
    return total;
  for (int v = 0; v < n; ++v) {
    for (int k = 0; k < count[v]; ++k)
      (*out)[start[v] + k]->addAtom(b, ADS_CONTEXT, 1 << v, 1, -1);
  }
  return total;
}

void CPEvent::confactorsAsNoisyMinFactorization(Confactors* out, CPBodyAtom* node, Atom* prime,
                                                bool tables) {
  if (node == nullptr)
    return;
  if (node->atom_ != nullptr) {
    Atom* b = node->atom_;
    int observed = theory_ != nullptr ? theory_->getObservedValue(*b) : -1;
    // The literal's sign is not consulted: the factor lets the rule fire only
    // where b is true.
    if (observed == -1) {
      out->push_back(completeTable({b, prime}, {}, [b, prime](const AtomBody& x) {
        return (x.at(b) == 0 && x.at(prime) == 1) ? 0.0 : 1.0;
      }));
    } else if (observed == 0) {
      // The row of the observed value; for b = 1 it is all ones and adds nothing.
      out->push_back(completeTable(
          {prime}, {}, [prime](const AtomBody& x) { return x.at(prime) == 0 ? 1.0 : 0.0; }));
    }
    for (CPBodyAtom* child : node->children_) {
      if (child != nullptr)
        confactorsAsNoisyMinFactorization(out, child, prime, tables);
    }
    return;
  }
  const std::vector<double> p =
      node->probabilities_ != nullptr ? *node->probabilities_ : std::vector<double>{1.0};
  Atom* c = choice_atom_;
  // The only table for the prime: the factors of the body atoms are
  // multiplied into it. With the prime false the choice is "none"; with it true, the leaf's
  // distribution minus that same "none", so that summing the prime out leaves
  // the leaf where every body atom is true and "none" elsewhere.
  out->push_back(completeTable({prime, c}, {prime, c}, [&p, prime, c](const AtomBody& x) {
    int cv = x.at(c);
    if (x.at(prime) == 0)
      return cv == 0 ? 1.0 : 0.0;
    double pc = static_cast<size_t>(cv) < p.size() ? p[cv] : 0.0;
    return cv == 0 ? pc - 1.0 : pc;
  }));
}

int CPEvent::convertToFactors(Confactors* out) {
  std::vector<Atom*> path(1, choice_atom_);
  std::vector<double> defaults(head_atoms_.size() + 1, 0.0);
  defaults[0] = 1.0;
  Confactors list;
  factorsFromSubtree(&list, body_tree_, path, defaults);
  out->push_back(mergeIntoTable(list));
  return 1;
}

int CPEvent::factorsFromSubtree(Confactors* out, CPBodyAtom* node, std::vector<Atom*>& path,
                                std::vector<double>& defaults) {
  Confactors list;
  int count = confactorsFromSubtree(&list, node, path, defaults);
  for (Confactor* piece : list) {
    out->push_back(piece->convertToCPT(1));
    delete piece;
  }
  return count;
}

// ---------------------------------------------------------------------------
// Text forms.

std::string CPEvent::status() const {
  std::ostringstream os;
  os << "CP-event " << id_ << " (" << choice_atom_->name_ << "): " << head_atoms_.size()
     << " head atoms, " << rule_count_ << " rules, " << parsed_events_.size()
     << " held, tree depth " << tree_depth_ << "\n";
  return os.str();
}

std::string CPEvent::strParsedBody() const {
  std::ostringstream os;
  for (const ParsedCPEvent& rule : parsed_events_) {
    os << "(p) ";
    for (size_t i = 0; i < rule.head_.size(); ++i) {
      if (i > 0)
        os << " ; ";
      os << rule.head_[i].atom_->name_ << ":" << std::left << rule.head_[i].value_;
    }
    os << " :- ";
    if (rule.body_.empty())
      os << "true";
    for (size_t i = 0; i < rule.body_.size(); ++i) {
      if (i > 0)
        os << ", ";
      if (rule.body_[i].value_ == 0)
        os << "\\+";
      os << rule.body_[i].atom_->name_;
    }
    os << "." << std::endl;
  }
  return os.str();
}

void CPEvent::strLeaves(std::ostream& os, const CPBodyAtom* node,
                        std::vector<AtomValuePair<int>>* path, bool* first) const {
  if (node->atom_ != nullptr) {
    bool any = false;
    for (size_t v = 0; v < node->children_.size(); ++v) {
      if (node->children_[v] == nullptr)
        continue;
      any = true;
      path->emplace_back(node->atom_, static_cast<int>(v));
      strLeaves(os, node->children_[v], path, first);
      path->pop_back();
    }
    if (!any)
      std::cerr << "All edges in bodytree are empty" << std::endl;
    return;
  }
  if (node->probabilities_ == nullptr)
    return;
  const std::vector<double>& p = *node->probabilities_;
  for (size_t i = 0; i < head_atoms_.size(); ++i) {
    if (!*first)
      os << " ; ";
    os << head_atoms_[i]->name_ << ":" << std::left << (i + 1 < p.size() ? p[i + 1] : 0.0);
    *first = false;
  }
  os << " :- ";
  if (path->empty()) {
    os << "true";
    *first = true;
  } else {
    *first = true;
    for (const auto& literal : *path) {
      if (!*first)
        os << ", ";
      *first = false;
      if (literal.atom_->domainsize_ != 2)
        os << literal.atom_->name_ << "=" << literal.value_;
      else if (literal.value_ == 0)
        os << "\\+" << literal.atom_->name_;
      else
        os << " " << literal.atom_->name_;
    }
  }
  os << "." << std::endl;
}

std::string CPEvent::strBody() const {
  std::ostringstream os;
  if (body_tree_ == nullptr)
    return os.str();
  std::vector<AtomValuePair<int>> path;
  bool first = true;
  strLeaves(os, body_tree_, &path, &first);
  return os.str();
}

std::string CPEvent::str() const {
  return body_tree_ == nullptr ? strParsedBody() : strBody();
}

std::string CPEvent::cppCode() const {
  std::ostringstream os;
  for (const ParsedCPEvent& rule : parsed_events_)
    os << rule.cppCode();
  os << "\n";
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const CPEvent& event) {
  return os << event.str();
}
