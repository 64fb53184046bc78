#include "cpevent.h"

#include <algorithm>
#include <cassert>
#include <iostream>
#include <sstream>

#include "confactor.h"
#include "cptheory.h"
#include "cve.h"
#include "querylimits.h"

bool eventFactorizes(const CPEvent& event) {
  return !event.emptyBody() && event.countParsedEvents() == 1;
}

int32_t CPEvent::next_unique_id_ = 0;

// ---------------------------------------------------------------------------
// Helpers shared with the theory.

Confactor* completeTable(std::vector<Atom*> atoms, std::vector<Atom*> forAtoms,
                         const std::function<double(const AtomBody&)>& value) {
  Confactor* table = tableGiven(atoms, nullptr, nullptr, value);
  for (Atom* forAtom : forAtoms)
    (*table->atoms_.find(forAtom))->setForAtom(true);
  return table;
}

Confactor* tableGiven(const std::vector<Atom*>& atoms, Atom* forAtom, const AtomBody* evidence,
                      const std::function<double(const AtomBody&)>& value) {
  AtomBody assignment;
  std::vector<Atom*> free;
  for (Atom* atom : atoms) {
    auto observed = evidence != nullptr ? evidence->find(atom) : AtomBody::const_iterator();
    if (evidence != nullptr && observed != evidence->end()) {
      assignment[atom] = observed->second;
    } else {
      assignment[atom] = 0;
      free.push_back(atom);
    }
  }
  if (free.empty())
    return new Confactor(value(assignment));
  Confactor* table = new Confactor(free, nullptr, 0.0);
  if (forAtom != nullptr && table->atoms_.find(forAtom) != table->atoms_.end())
    (*table->atoms_.find(forAtom))->setForAtom(true);
  AtomBody slot;
  for (Atom* atom : free)
    slot[atom] = 0;
  while (true) {
    table->setValue(slot, value(assignment));
    size_t i = 0;
    for (; i < free.size(); ++i) {
      int& v = slot[free[i]];
      ++v;
      assignment[free[i]] = v;
      if (v < static_cast<int>(free[i]->domainsize_))
        break;
      v = 0;
      assignment[free[i]] = 0;
    }
    if (i == free.size())
      break;
  }
  return table;
}

Confactor* mergeIntoTable(Confactors& list) {
  assert(!list.empty());
  Confactor* merged = list.size() == 1 ? list[0] : productOfCompleteTables(list);
  if (list.size() > 1)
    for (Confactor* piece : list)
      delete piece;
  list.clear();
  return merged;
}

// ---------------------------------------------------------------------------

CPBodyAtom::~CPBodyAtom() {
  // A body of a million literals is a path a million nodes deep: the
  // descendants are taken over and freed from a list, each with no children
  // left, so that no destructor recurses.
  std::vector<CPBodyAtom*> pending;
  pending.swap(children_);
  while (!pending.empty()) {
    CPBodyAtom* node = pending.back();
    pending.pop_back();
    if (node == nullptr)
      continue;
    pending.insert(pending.end(), node->children_.begin(), node->children_.end());
    node->children_.clear();
    delete node;
  }
  delete probabilities_;
}

CPEvent::CPEvent(CPTheory* theory)
    : id_(0),
      body_tree_(nullptr),
      tree_depth_(0),
      rule_count_(0),
      theory_(theory),
      choice_atom_(nullptr),
      held_repeats_atom_(false),
      exclusion_checks_(0) {
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

bool CPEvent::excludesHeldBodies(const std::vector<AtomValuePair<int>>& body) {
  // Rules placed directly are not held, so nothing shows they exclude it.
  if (size_t(rule_count_) != parsed_events_.size())
    return false;
  const size_t held = parsed_events_.size();
  if (held == 0)
    return true;
  if (held_repeats_atom_)
    return excludesHeldBodiesSorted(body);
  if (++exclusion_checks_ == 0) {
    // The counter wrapped: old marks could look current.
    std::fill(excluded_in_.begin(), excluded_in_.end(), 0);
    for (auto& entry : held_atoms_)
      entry.second.check = 0;
    exclusion_checks_ = 1;
  }
  const uint32_t check = exclusion_checks_;
  // When no held body repeats an atom, a held body is excluded exactly when
  // it has an atom of this body with another value: each literal marks the
  // held rules it contradicts, and the test ends once all are marked.
  size_t excluded = 0;
  for (const auto& literal : body) {
    auto found = held_atoms_.find(literal.atom_);
    if (found == held_atoms_.end())
      continue;
    HeldAtom& entry = found->second;
    // Only the first literal on an atom counts, as in a merge of the bodies
    // sorted by atom id (stably).
    if (entry.check == check)
      continue;
    entry.check = check;
    for (const auto& byValue : entry.rules_by_value) {
      if (byValue.first == literal.value_)
        continue;
      for (int32_t rule : byValue.second) {
        if (excluded_in_[rule] != check) {
          excluded_in_[rule] = check;
          if (++excluded == held)
            return true;
        }
      }
    }
  }
  return false;
}

bool CPEvent::excludesHeldBodiesSorted(const std::vector<AtomValuePair<int>>& body) const {
  // Both bodies sorted by atom id and merged: the first pair of literals on
  // one atom with different values excludes them.
  std::vector<AtomValuePair<int>> sorted(body);
  std::stable_sort(sorted.begin(), sorted.end(), AtomValuePair<int>::CmpId());
  for (const auto& rule : parsed_events_) {
    std::vector<AtomValuePair<int>> held(rule.body_);
    std::stable_sort(held.begin(), held.end(), AtomValuePair<int>::CmpId());
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

void CPEvent::holdBody(const std::vector<AtomValuePair<int>>& body, int32_t rule) {
  for (const auto& literal : body) {
    HeldAtom& entry = held_atoms_.try_emplace(literal.atom_, HeldAtom{0, {}}).first->second;
    std::vector<int32_t>* rules = nullptr;
    for (auto& byValue : entry.rules_by_value) {
      if (!byValue.second.empty() && byValue.second.back() == rule)
        held_repeats_atom_ = true;  // this rule's literals came before
      if (byValue.first == literal.value_)
        rules = &byValue.second;
    }
    if (rules == nullptr) {
      entry.rules_by_value.emplace_back(literal.value_, std::vector<int32_t>());
      rules = &entry.rules_by_value.back().second;
    }
    rules->push_back(rule);
  }
  excluded_in_.push_back(0);
}

bool CPEvent::addParsedEvent(AtomDoubles& head, std::vector<AtomValuePair<int>>& body,
                             bool direct) {
  if (!head_atoms_.empty()) {
    // Rules share an event only with exactly the same head atoms: any other
    // rule is an independent cause.
    if (head.size() != head_atoms_.size())
      return false;
    for (size_t i = 0; i < head_atoms_.size(); ++i) {
      if (head[i].atom_ != head_atoms_[i])
        return false;
    }
  }
  if (!excludesHeldBodies(body))
    return false;

  ++rule_count_;
  bool first = head_atoms_.empty();
  if (first)
    setHead(head);
  if (direct) {
    addEventToTree(head, body);
  } else {
    holdBody(body, static_cast<int32_t>(parsed_events_.size()));
    parsed_events_.emplace_back(head, body);
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
    if (!direct)
      ++literal_counts_[b];
  }
  if (!first && body.size() > 1) {
    // Linking every pair of a body costs its square; only the rankings that
    // count siblings need the links, so they are made when one of them runs.
    std::vector<Atom*> atoms;
    atoms.reserve(body.size());
    for (const auto& literal : body)
      atoms.push_back(literal.atom_);
    theory_->deferSiblings(std::move(atoms));
  }
}

void CPEvent::compileParsedEvents() {
  // Rules put in directly are not held: their tree is all there is.
  if (parsed_events_.empty())
    return;
  // Built anew, so that a rule added after an earlier compile takes part.
  delete body_tree_;
  body_tree_ = nullptr;
  tree_depth_ = 0;
  std::vector<size_t> order(parsed_events_.size());
  for (size_t i = 0; i < order.size(); ++i)
    order[i] = i;
  std::sort(order.begin(), order.end(), [this](size_t a, size_t b) {
    return ParsedCPEvent::CmpLength()(parsed_events_[a], parsed_events_[b]);
  });
  for (size_t i : order)
    addEventToTree(parsed_events_[i].head_, parsed_events_[i].body_);
}

std::vector<double> CPEvent::leafProbabilities(const AtomDoubles& head) {
  std::vector<double> probabilities(head.size() + 1, 0.0);
  double sum = 0.0;
  for (size_t i = 0; i < head.size(); ++i) {
    probabilities[i + 1] = head[i].value_;
    sum += head[i].value_;
  }
  // A head may sum to a hair above 1; nothing is left for "none" then.
  probabilities[0] = sum < 1.0 ? 1.0 - sum : 0.0;
  return probabilities;
}

int CPEvent::addEventToTree(AtomDoubles& head, std::vector<AtomValuePair<int>>& body) {
  std::vector<AtomValuePair<int>> sorted(body);
  std::sort(sorted.begin(), sorted.end(), AtomValuePair<int>::CmpId());
  const std::vector<double> probabilities = leafProbabilities(head);
  if (body_tree_ == nullptr)
    body_tree_ = new CPBodyAtom(nullptr);

  // Every path the body is consistent with gets the rule: a node testing an
  // atom the body does not mention passes the rule to all its values. The
  // walk keeps its own stack, since bodies can be very long.
  struct Step {
    CPBodyAtom* node;
    std::vector<AtomValuePair<int>> rest;  // literals not tested yet, by atom id
    int depth;
  };
  std::vector<Step> work;
  work.push_back(Step{body_tree_, sorted, 0});
  int placed = 0;
  while (!work.empty()) {
    Step step = std::move(work.back());
    work.pop_back();
    CPBodyAtom* node = step.node;
    if (node->atom_ != nullptr) {
      Atom* tested = node->atom_;
      auto it = std::lower_bound(
          step.rest.begin(), step.rest.end(), tested,
          [](const AtomValuePair<int>& l, const Atom* a) { return l.atom_->id_ < a->id_; });
      const bool mentioned = it != step.rest.end() && it->atom_ == tested;
      size_t first = 0, last = tested->domainsize_;
      if (mentioned) {
        first = static_cast<size_t>(it->value_);
        last = first + 1;
        step.rest.erase(it);
      }
      if (node->children_.size() < last)
        node->children_.resize(last, nullptr);
      for (size_t v = first; v < last; ++v) {
        if (node->children_[v] == nullptr)
          node->children_[v] = new CPBodyAtom(node);
        work.push_back(Step{node->children_[v], step.rest, step.depth + 1});
      }
      continue;
    }
    if (node->probabilities_ != nullptr) {
      if (step.rest.empty())
        continue;  // the region is another rule's: the bodies overlap
      // An earlier rule's leaf that this body narrows: the leaf becomes a
      // test of one more atom, each value keeping the earlier probabilities.
      const AtomValuePair<int> literal = step.rest.front();
      std::vector<double>* earlier = node->probabilities_;
      node->probabilities_ = nullptr;
      node->atom_ = literal.atom_;
      node->children_.assign(literal.atom_->domainsize_, nullptr);
      for (size_t v = 0; v < node->children_.size(); ++v) {
        node->children_[v] = new CPBodyAtom(node);
        if (static_cast<int>(v) != literal.value_)
          node->children_[v]->probabilities_ = new std::vector<double>(*earlier);
      }
      delete earlier;
      work.push_back(Step{node, step.rest, step.depth});
      continue;
    }
    // A fresh node: the remaining literals become a path, the most shared first.
    std::sort(step.rest.begin(), step.rest.end(), AtomValuePair<int>::CmpWithCnt(&literal_counts_));
    int depth = step.depth;
    for (const auto& literal : step.rest) {
      size_t value = static_cast<size_t>(literal.value_);
      node->atom_ = literal.atom_;
      if (node->children_.size() <= value)
        node->children_.resize(value + 1, nullptr);
      CPBodyAtom* child = new CPBodyAtom(node);
      node->children_[value] = child;
      ++depth;
      node = child;
    }
    if (depth > tree_depth_)
      tree_depth_ = depth;
    node->probabilities_ = new std::vector<double>(probabilities);
    placed = 1;
  }
  return placed;
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

int CPEvent::convertToConfactors(Confactors* out, CVE* engine, bool tables,
                                 const AtomBody* evidence, Atom* as) {
  if (rule_count_ == 1 && !emptyBody()) {
    confactorsAsConjunctionChain(out, engine, evidence, as != nullptr ? as : choice_atom_);
    return 1;
  }
  return convertToConfactorsAsTree(out, engine, tables, evidence, as);
}

void CPEvent::confactorsAsConjunctionChain(Confactors* out, CVE* engine, const AtomBody* evidence,
                                           Atom* choice) {
  // The one rule's body is the path to the tree's only leaf.
  std::vector<AtomValuePair<int>> body;
  const CPBodyAtom* node = body_tree_;
  while (node != nullptr && node->atom_ != nullptr) {
    const CPBodyAtom* next = nullptr;
    for (size_t v = 0; v < node->children_.size() && next == nullptr; ++v) {
      if (node->children_[v] != nullptr) {
        body.emplace_back(node->atom_, static_cast<int>(v));
        next = node->children_[v];
      }
    }
    node = next;
  }
  const std::vector<double> p = node != nullptr && node->probabilities_ != nullptr
                                    ? *node->probabilities_
                                    : std::vector<double>{1.0};
  Atom* c = choice;
  auto leaf = [&p, c](const AtomBody& x, bool holds) {
    size_t cv = static_cast<size_t>(x.at(c));
    if (!holds)
      return cv == 0 ? 1.0 : 0.0;
    return cv < p.size() ? p[cv] : 0.0;
  };
  // Observed literals are decided now; the others are chained.
  std::vector<AtomValuePair<int>> open;
  for (const auto& literal : body) {
    auto observed =
        evidence != nullptr ? evidence->find(literal.atom_) : AtomBody::const_iterator();
    if (evidence != nullptr && observed != evidence->end()) {
      if (observed->second != literal.value_) {
        out->push_back(
            tableGiven({c}, c, evidence, [&](const AtomBody& x) { return leaf(x, false); }));
        return;
      }
      continue;
    }
    open.push_back(literal);
  }
  if (open.empty()) {
    out->push_back(tableGiven({c}, c, evidence, [&](const AtomBody& x) { return leaf(x, true); }));
    return;
  }
  // held is an atom that is 1 exactly when the literals so far hold: the
  // first literal's atom read against its value, then auxiliary atoms. No
  // entry is negative and nothing is subtracted, so small probabilities
  // keep their precision.
  Atom* held = open[0].atom_;
  int heldValue = open[0].value_;
  for (size_t i = 1; i < open.size(); ++i) {
    Atom* b = open[i].atom_;
    int bv = open[i].value_;
    Atom* u = engine->newAuxiliaryAtom(choice_atom_->name_ + "and" + std::to_string(i), 2);
    out->push_back(tableGiven({held, b, u}, u, nullptr, [=](const AtomBody& x) {
      bool both = x.at(held) == heldValue && x.at(b) == bv;
      return (x.at(u) == 1) == both ? 1.0 : 0.0;
    }));
    held = u;
    heldValue = 1;
  }
  out->push_back(tableGiven({held, c}, c, nullptr, [&, held, heldValue](const AtomBody& x) {
    return leaf(x, x.at(held) == heldValue);
  }));
}

int CPEvent::convertToConfactorsAsTree(Confactors* out, CVE*, bool tables, const AtomBody* evidence,
                                       Atom* as) {
  std::vector<Atom*> path(1, as != nullptr ? as : choice_atom_);
  std::vector<double> defaults(head_atoms_.size() + 1, 0.0);
  defaults[0] = 1.0;
  Confactors list;
  int count = confactorsFromSubtree(&list, body_tree_, path, defaults, evidence);
  if (!tables) {
    out->insert(out->end(), list.begin(), list.end());
    return count;
  }
  out->push_back(mergeIntoTable(list));
  return 1;
}

int CPEvent::confactorsFromSubtree(Confactors* out, CPBodyAtom* node, std::vector<Atom*>& path,
                                   std::vector<double>& defaults, const AtomBody* evidence) {
  // Depth first with an explicit stack: a body of a million literals is a
  // path a million nodes deep. A frame visits its node's values in turn; the
  // count of the frame above receives each finished subtree's count.
  struct Frame {
    CPBodyAtom* node;
    int observed;
    int next;  // the value to visit next
    std::vector<size_t> start;
    std::vector<int> count;
    int total;
  };
  int result = 0;
  size_t context_entries = 0;
  std::vector<Frame> stack;
  // Enters a subtree: a leaf is done at once (its count goes to *done);
  // an inner node gets a frame.
  auto enter = [&](CPBodyAtom* n, int* done) {
    if (n == nullptr || n->atom_ == nullptr) {
      // A tree without leaves leaves the choice at "no head atom".
      std::vector<double>& values =
          (n != nullptr && n->probabilities_ != nullptr) ? *n->probabilities_ : defaults;
      out->push_back(new Confactor(path, path[0], values));
      *done = 1;
      return;
    }
    int observed = -1;
    if (evidence != nullptr) {
      auto found = evidence->find(n->atom_);
      if (found != evidence->end())
        observed = found->second;
    }
    const size_t values = n->atom_->domainsize_;
    stack.push_back(
        Frame{n, observed, 0, std::vector<size_t>(values, 0), std::vector<int>(values, 0), 0});
  };
  enter(node, &result);
  while (!stack.empty()) {
    Frame& f = stack.back();
    const int n = static_cast<int>(f.node->atom_->domainsize_);
    // Every value of the atom, also those beyond the child slots: a value no
    // rule covers must still give the choice variable a distribution.
    if (f.next < n) {
      const int v = f.next++;
      f.start[v] = out->size();
      if (f.observed != -1 && v != f.observed)
        continue;
      CPBodyAtom* child =
          static_cast<size_t>(v) < f.node->children_.size() ? f.node->children_[v] : nullptr;
      if (child != nullptr) {
        enter(child, &f.count[v]);  // may grow the stack: f is not used after
      } else {
        out->push_back(new Confactor(path, path[0], defaults));
        f.count[v] = 1;
      }
      continue;
    }
    Frame done = std::move(stack.back());
    stack.pop_back();
    const int total = finishSubtree(out, done.node->atom_, done.observed, done.start, done.count);
    // Each leaf carries its whole path as context, so a long path with many
    // leaves makes a quadratic number of entries: bounded like a table.
    context_entries += static_cast<size_t>(total);
    checkTableSize(context_entries);
    if (stack.empty()) {
      result = total;
    } else {
      Frame& parent = stack.back();
      parent.count[parent.next - 1] = total;
    }
  }
  return result;
}

int CPEvent::finishSubtree(Confactors* out, Atom* b, int observed, const std::vector<size_t>& start,
                           const std::vector<int>& count) {
  const int n = static_cast<int>(b->domainsize_);
  int total = 0;
  for (int v = 0; v < n; ++v)
    total += count[v];
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

std::ostream& operator<<(std::ostream& os, const CPEvent& event) {
  return os << event.str();
}
