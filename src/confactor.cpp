#include "confactor.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>

#include "querylimits.h"

namespace {

uint32_t countBits(uint32_t domain, uint32_t domainsize) {
  uint32_t count = 0;
  for (uint32_t v = 0; v < domainsize && v < 32; ++v) {
    if (domain & (1u << v)) {
      ++count;
    }
  }
  return count;
}

// Smallest value of a non-empty domain.
unsigned lowestValue(uint32_t domain) {
  unsigned v = 0;
  while (v < 31 && !(domain & (1u << v))) {
    ++v;
  }
  return v;
}

// The walk shared by the compatibility tests: visits every pair of entries of
// a and b that refer to the same atom, in rank order, until visit says stop.
template <typename Visit>
bool walkCommon(const ConfactorAtoms& a, const ConfactorAtoms& b, Visit visit) {
  auto ia = a.begin();
  auto ib = b.begin();
  while (ia != a.end() && ib != b.end()) {
    if ((*ia)->atom_ == (*ib)->atom_) {
      if (!visit(**ia, **ib)) {
        return false;
      }
      ++ia;
      ++ib;
    } else if ((*ia)->atom_->rank_ < (*ib)->atom_->rank_) {
      ++ia;
    } else {
      ++ib;
    }
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// AtomDomStruct

namespace {

struct Block {
  Block* next;
};
static_assert(sizeof(Block) <= sizeof(AtomDomStruct), "an entry holds a link");

// Freed entries of threads that ended. Freeing millions of scattered blocks
// one by one took a third of a second when a large query's thread (or the
// process) ended; handing the list on costs nothing, and the next thread
// that runs short takes it. Never destroyed: a thread may end after the
// process's statics are gone.
struct Reserve {
  std::mutex mutex;
  std::vector<std::pair<Block*, Block*>> lists;  // first and last block
  std::atomic<bool> filled{false};
};
Reserve& reserve() {
  static Reserve* r = new Reserve;
  return *r;
}

// A thread's freed entries, each block the size of one entry, linked
// through its first bytes. AddressSanitizer builds use the general
// allocator, so that it sees every entry's life.
class EntryPool {
 public:
  EntryPool() = default;
  EntryPool(const EntryPool&) = delete;
  EntryPool& operator=(const EntryPool&) = delete;
  ~EntryPool() {
    if (free_ == nullptr)
      return;
    Reserve& r = reserve();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.lists.emplace_back(free_, last_);
    r.filled.store(true, std::memory_order_relaxed);
  }
  void* take() {
    if (free_ == nullptr && !adopt())
      return ::operator new(sizeof(AtomDomStruct));
    Block* b = free_;
    free_ = b->next;
    return b;
  }
  void give(void* p) {
    Block* b = static_cast<Block*>(p);
    if (free_ == nullptr)
      last_ = b;
    b->next = free_;
    free_ = b;
  }

 private:
  // Takes one list of the reserve, when there is one.
  bool adopt() {
    Reserve& r = reserve();
    if (!r.filled.load(std::memory_order_relaxed))
      return false;
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.lists.empty())
      return false;
    free_ = r.lists.back().first;
    last_ = r.lists.back().second;
    r.lists.pop_back();
    r.filled.store(!r.lists.empty(), std::memory_order_relaxed);
    return true;
  }

  Block* free_ = nullptr;
  Block* last_ = nullptr;  // the last block of free_'s list
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

thread_local EntryPool entryPool;

}  // namespace

void* AtomDomStruct::operator new(std::size_t size) {
  assert(size == sizeof(AtomDomStruct));
  return kPooled ? entryPool.take() : ::operator new(size);
}

void AtomDomStruct::operator delete(void* p) {
  if (p == nullptr)
    return;
  if (kPooled)
    entryPool.give(p);
  else
    ::operator delete(p);
}

AtomDomStruct::AtomDomStruct() : atom_(nullptr), domain_(0), count_(0), flags_(0), block_(1) {}

AtomDomStruct::AtomDomStruct(Atom* atom, unsigned flags)
    : atom_(atom),
      domain_(fullDomainMask(atom->domainsize_)),
      count_(atom->domainsize_),
      flags_(flags),
      block_(1) {}

AtomDomStruct::AtomDomStruct(Atom* atom, int domain, unsigned flags)
    : atom_(atom),
      domain_(static_cast<uint32_t>(domain)),
      count_(countBits(static_cast<uint32_t>(domain), atom->domainsize_)),
      flags_(flags),
      block_(1) {}

void AtomDomStruct::setDomain(unsigned domain) {
  domain_ = domain;
  count_ = countBits(domain, atom_->domainsize_);
  if (count_ < atom_->domainsize_) {
    flags_ |= ADS_CONTEXT;
  }
  if (count_ == 1) {
    flags_ &= ~ADS_TABLE;
  }
}

void AtomDomStruct::setForAtom(bool on) {
  if (on) {
    flags_ |= ADS_FORATOM;
  } else {
    flags_ &= ADS_CONTEXT | ADS_TABLE;
  }
}

bool AtomDomStruct::sameDomain(const AtomDomStruct& other) const {
  uint32_t mask = fullMask();
  return (domain_ & mask) == (other.domain_ & mask);
}

uint32_t AtomDomStruct::fullMask() const {
  return fullDomainMask(atom_->domainsize_);
}

unsigned AtomDomStruct::position(unsigned value) const {
  return countBits(domain_ & fullDomainMask(value), 32);
}

bool AtomDomStruct::hasValue(unsigned value) const {
  return value < atom_->domainsize_ && value < 32 && (domain_ & (1u << value));
}

// ---------------------------------------------------------------------------
// ConfactorAtoms

ConfactorAtoms::ConfactorAtoms(unsigned n) : std::vector<AtomDomStruct*>(n, nullptr) {}

ConfactorAtoms::ConfactorAtoms(const ConfactorAtoms& other) : std::vector<AtomDomStruct*>(other) {
  sort();
}

ConfactorAtoms::~ConfactorAtoms() {
  for (AtomDomStruct* entry : *this) {
    delete entry;
  }
}

namespace {

// Contexts grow one atom at a time from a body tree's leaves to its root,
// which mostly lands at one end: those are tried before the binary search.
template <typename It>
It lowerBoundByRank(It first, It last, const Atom* atom) {
  if (first == last || (*(last - 1))->atom_->rank_ < atom->rank_)
    return last;
  if (atom->rank_ <= (*first)->atom_->rank_)
    return first;
  return std::lower_bound(first, last, atom, [](const AtomDomStruct* e, const Atom* a) {
    return e->atom_->rank_ < a->rank_;
  });
}

}  // namespace

ConfactorAtoms::iterator ConfactorAtoms::lowerBound(const Atom* atom) {
  return lowerBoundByRank(begin(), end(), atom);
}

ConfactorAtoms::const_iterator ConfactorAtoms::lowerBound(const Atom* atom) const {
  return lowerBoundByRank(begin(), end(), atom);
}

ConfactorAtoms::iterator ConfactorAtoms::find(const Atom* atom) {
  iterator it = lowerBound(atom);
  return it != end() && (*it)->atom_ == atom ? it : end();
}

ConfactorAtoms::const_iterator ConfactorAtoms::find(const Atom* atom) const {
  const_iterator it = lowerBound(atom);
  return it != end() && (*it)->atom_ == atom ? it : end();
}

std::pair<ConfactorAtoms::iterator, bool> ConfactorAtoms::insert(AtomDomStruct* entry) {
  iterator it = lowerBound(entry->atom_);
  if (it != end() && (*it)->atom_ == entry->atom_) {
    return {it, false};
  }
  return {std::vector<AtomDomStruct*>::insert(it, entry), true};
}

void ConfactorAtoms::insertAll(std::vector<AtomDomStruct*>* fresh) {
  const size_t old = size();
  for (AtomDomStruct* entry : *fresh) {
    const Atom* atom = entry->atom_;
    iterator it = std::lower_bound(
        begin(), begin() + old, atom,
        [](const AtomDomStruct* e, const Atom* a) { return e->atom_->rank_ < a->rank_; });
    if (it != begin() + old && (*it)->atom_ == atom)
      delete entry;
    else
      push_back(entry);
  }
  fresh->clear();
  std::sort(begin() + old, end(), AtomDomStruct::Cmp());
  std::inplace_merge(begin(), begin() + old, end(), AtomDomStruct::Cmp());
}

ConfactorAtoms::iterator ConfactorAtoms::erase(iterator it) {
  delete *it;
  return std::vector<AtomDomStruct*>::erase(it);
}

void ConfactorAtoms::sort() {
  std::sort(begin(), end(), AtomDomStruct::Cmp());
}

// ---------------------------------------------------------------------------
// Confactors alive in a scope

namespace {
thread_local ConfactorScope* g_open_scope = nullptr;
}  // namespace

LiveLink::LiveLink(Confactor* owner)
    : owner_(owner), scope_(g_open_scope), prev_(nullptr), next_(nullptr) {
  if (scope_ == nullptr)
    return;
  next_ = scope_->head_;
  if (next_ != nullptr)
    next_->prev_ = this;
  scope_->head_ = this;
}

LiveLink::~LiveLink() {
  if (scope_ == nullptr)
    return;
  if (prev_ != nullptr)
    prev_->next_ = next_;
  else
    scope_->head_ = next_;
  if (next_ != nullptr)
    next_->prev_ = prev_;
}

ConfactorScope::ConfactorScope() : head_(nullptr), uncaught_(std::uncaught_exceptions()) {
  assert(g_open_scope == nullptr);
  g_open_scope = this;
}

ConfactorScope::~ConfactorScope() {
  g_open_scope = nullptr;
  const bool unwinding = std::uncaught_exceptions() > uncaught_;
  while (head_ != nullptr) {
    if (unwinding) {
      delete head_->owner_;  // unlinks itself
    } else {
      head_->scope_ = nullptr;
      head_ = head_->next_;
    }
  }
}

std::size_t tableEntriesOver(const std::vector<Confactor*>& confactors) {
  std::vector<Atom*> atoms;
  for (const Confactor* c : confactors)
    for (const AtomDomStruct* entry : c->atoms_)
      atoms.push_back(entry->atom_);
  std::sort(atoms.begin(), atoms.end());
  atoms.erase(std::unique(atoms.begin(), atoms.end()), atoms.end());
  std::size_t size = 1;
  for (const Atom* atom : atoms) {
    const std::size_t count = atom->domainsize_;
    size = count != 0 && size > SIZE_MAX / count ? SIZE_MAX : size * count;
  }
  return size;
}

Confactor* productOfCompleteTables(const std::vector<Confactor*>& confactors) {
  if (confactors.empty())
    return nullptr;
  checkTableSize(tableEntriesOver(confactors));
  std::unique_ptr<Confactor> acc;
  for (const Confactor* c : confactors) {
    std::unique_ptr<Confactor> complete(c->convertToCPT(1));
    acc.reset(acc == nullptr
                  ? complete.release()
                  : new Confactor(acc.get(), complete.get(), nullptr, kMultiply, kSumOut));
  }
  return acc.release();
}

// ---------------------------------------------------------------------------
// Confactor: construction, lookups and updates

int32_t Confactor::next_unique_id_ = 0;
std::vector<unsigned> Confactor::i_value;
Confactor::Confactor(double v) : values_(1, v), id_(next_unique_id_++) {
  updateSize(1.0);
}

Confactor::Confactor(std::vector<Atom*>& atoms, Atom* forAtom, double fill)
    : id_(next_unique_id_++) {
  for (Atom* atom : atoms) {
    AtomDomStruct* entry = new AtomDomStruct(atom, ADS_TABLE);
    if (atom == forAtom) {
      entry->setForAtom(true);
    }
    if (!atoms_.insert(entry).second) {
      delete entry;
    }
  }
  updateSize(fill);
}

Confactor::Confactor(std::vector<Atom*>& atoms, Atom* forAtom, std::vector<double>& values)
    : Confactor(atoms, forAtom, 1.0) {
  values_ = values;
  updateSize(1.0);
}

Confactor::Confactor(ConfactorAtoms& atoms, std::vector<double>& values)
    : values_(values), id_(next_unique_id_++) {
  for (const AtomDomStruct* entry : atoms) {
    AtomDomStruct* copy = new AtomDomStruct(*entry);
    if (!atoms_.insert(copy).second) {
      delete copy;
    }
  }
  updateSize(1.0);
}

Confactor::Confactor(ConfactorAtoms& atoms, double fill) : id_(next_unique_id_++) {
  for (const AtomDomStruct* entry : atoms) {
    AtomDomStruct* copy = new AtomDomStruct(*entry);
    if (!atoms_.insert(copy).second) {
      delete copy;
    }
  }
  updateSize(fill);
}

Confactor::Confactor(const Confactor& other) : values_(other.values_), id_(next_unique_id_++) {
  atoms_.reserve(other.atoms_.size());
  for (const AtomDomStruct* entry : other.atoms_) {
    atoms_.push_back(new AtomDomStruct(*entry));
  }
  updateSize(1.0);
}

Confactor::~Confactor() = default;

void Confactor::init(double fill) {
  id_ = next_unique_id_++;
  updateSize(fill);
}

void Confactor::updateSize(double fill) {
  // Saturates instead of wrapping, so that the size check sees any overflow.
  size_t size = 1;
  for (AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_TABLE) {
      entry->block_ = static_cast<int32_t>(size);
      const size_t count = entry->count_;
      size = count != 0 && size > SIZE_MAX / count ? SIZE_MAX : size * count;
    } else {
      entry->block_ = 1;
    }
  }
  checkTableSize(size);
  values_.resize(size, fill);
}

int Confactor::getPos(const std::vector<unsigned>& values) const {
  int pos = 0;
  for (size_t i = 0; i < atoms_.size(); ++i) {
    const AtomDomStruct& entry = *atoms_[i];
    unsigned value = values[i];
    if (!(entry.flags_ & (ADS_CONTEXT | ADS_TABLE))) {
      continue;
    }
    if (!entry.hasValue(value)) {
      return -1;
    }
    if (entry.flags_ & ADS_TABLE) {
      pos += static_cast<int>(entry.position(value)) * entry.block_;
    }
  }
  return pos;
}

double Confactor::getValue(const std::vector<unsigned>& indices, double def) const {
  assert(indices.size() == atoms_.size());
  if (atoms_.empty()) {
    return values_[0];
  }
  int pos = getPos(indices);
  return pos == -1 ? def : values_[pos];
}

void Confactor::setValue(const AtomBody& indices, double v) {
  assert(indices.size() == atoms_.size());
  std::vector<size_t> targets(1, 0);
  for (const auto& pair : indices) {
    ConfactorAtoms::iterator it_ads = atoms_.find(pair.first);
    assert(it_ads != atoms_.end());
    const AtomDomStruct& entry = **it_ads;
    int value = pair.second;
    bool inDomain = value >= 0 && entry.hasValue(static_cast<unsigned>(value));
    if ((entry.flags_ & ADS_CONTEXT) && !inDomain) {
      return;
    }
    if (!(entry.flags_ & ADS_TABLE)) {
      continue;
    }
    if (value != -1) {
      if (!inDomain) {
        return;  // no slot for this value
      }
      size_t offset = entry.position(static_cast<unsigned>(value)) * entry.block_;
      for (size_t& t : targets) {
        t += offset;
      }
    } else {
      size_t n = targets.size();
      targets.resize(n * entry.count_);
      for (size_t k = 1; k < entry.count_; ++k) {
        for (size_t t = 0; t < n; ++t) {
          targets[k * n + t] = targets[t] + k * entry.block_;
        }
      }
    }
  }
  for (size_t t : targets) {
    values_[t] = v;
  }
}

void Confactor::addToValues(Confactor* other) {
  for (size_t i = 0; i < values_.size(); ++i) {
    values_[i] += other->values_[i];
  }
}

void Confactor::normalize() {
  if (values_.empty()) {
    return;
  }
  double sum = 0.0;
  for (double v : values_) {
    sum += v;
  }
  if (sum == 0.0) {
    return;
  }
  for (double& v : values_) {
    v /= sum;
  }
}

bool Confactor::allOnes() const {
  return std::all_of(values_.begin(), values_.end(), [](double v) { return v == 1.0; });
}

bool Confactor::isConstraint() const {
  return values_.size() == 1 && values_[0] == 1.0;
}

bool Confactor::isRedundant(const Atom* /*atom*/) const {
  return allOnes();
}

Atom* Confactor::getForAtom() const {
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_FORATOM) {
      return entry->atom_;
    }
  }
  return nullptr;
}

ConfactorAtoms::iterator Confactor::getForAtomIterator() {
  return std::find_if(atoms_.begin(), atoms_.end(),
                      [](const AtomDomStruct* e) { return e->flags_ & ADS_FORATOM; });
}

unsigned Confactor::getAtomDomain(Atom& atom) const {
  auto it = atoms_.find(&atom);
  return it == atoms_.end() ? 0 : (*it)->domain_;
}

unsigned Confactor::hasAtom(Atom& atom) const {
  auto it = atoms_.find(&atom);
  return it == atoms_.end() ? 0 : (*it)->flags_;
}

bool Confactor::isForAtom(Atom& atom) const {
  return hasAtom(atom) & ADS_FORATOM;
}

void Confactor::resetWeights() {
  for (AtomDomStruct* entry : atoms_) {
    entry->atom_->weight_ = 0;
  }
}

bool Confactor::checkInvariant() const {
  size_t size = 1;
  bool primed = false;
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_TABLE) {
      size *= entry->count_;
    }
    if (entry->atom_->name_.find('\'') != std::string::npos) {
      primed = true;
    }
  }
  if (size != values_.size()) {
    std::cerr << "FAILED INVARIANT: table size not consistent with atoms" << std::endl;
    return false;
  }
  // Tables through prime atoms hold negative entries; their sums mean nothing.
  if (primed || values_.empty()) {
    return true;
  }
  double sum = 0.0;
  for (double v : values_) {
    sum += v;
  }
  double d = sum - std::trunc(sum + 0.5);
  if (d >= -0.0001 && d <= 0.0001) {
    return true;
  }
  std::cerr << "POSSIBLE FAILED INVARIANT: sum not an integer (" << sum << "," << d << ")"
            << std::endl;
  return false;
}

void Confactor::fillCPTAtRandom() {
  updateSize(1.0);
  ConfactorAtoms::iterator it = getForAtomIterator();
  if (it == atoms_.end()) {
    return;
  }
  const AtomDomStruct& child = **it;
  if (!(child.flags_ & ADS_TABLE) || child.count_ != child.atom_->domainsize_) {
    return;
  }
  const size_t k = child.count_;
  const size_t s = child.block_;
  // Totals per child value over the whole table, not per parent configuration.
  std::vector<long> totals(k, 0);
  for (size_t i = 0; i < values_.size(); ++i) {
    int r = randomNumber(1000);
    values_[i] = r / 1000.0;
    totals[(i / s) % k] += r;
  }
  for (size_t i = 0; i < values_.size(); ++i) {
    long total = totals[(i / s) % k];
    if (total != 0) {
      values_[i] /= total / 1000.0;
    }
  }
}

// ---------------------------------------------------------------------------
// Confactor: algebra

Confactor::Confactor(Confactor* a, Confactor* b, Atom* atom, int add, int value) : id_(0) {
  initAtoms(a, b);
  updateSize(add ? 0.0 : 1.0);
  i_value.resize(values_.size());

  mapOperand(*a);
  for (size_t k = 0; k < values_.size(); ++k) {
    values_[k] = a->values_[i_value[k]];
  }
  mapOperand(*b);
  if (add) {
    for (size_t k = 0; k < values_.size(); ++k) {
      values_[k] += b->values_[i_value[k]];
    }
  } else {
    for (size_t k = 0; k < values_.size(); ++k) {
      values_[k] *= b->values_[i_value[k]];
    }
  }

  if (atom != nullptr) {
    if (value == -1) {
      sumoutAtom(atom, false);
    } else {
      shrinkAtom(atom, 1u << value, false);
    }
  }
  init(1.0);
}

// For each entry k of this table, i_value[k] becomes the position of the
// matching entry in operand's table. The list grows one result entry at a
// time: a dimension the operand shares appends shifted copies of the list so
// far, one the operand lacks repeats it unchanged.
void Confactor::mapOperand(const Confactor& operand) {
  std::vector<unsigned>& map = i_value;
  if (map.empty()) {
    return;
  }
  size_t len = 1;
  map[0] = 0;
  size_t top = 0;  // largest operand position in the map so far
  auto op = operand.atoms_.begin();
  for (const AtomDomStruct* result : atoms_) {
    bool shared = op != operand.atoms_.end() && (*op)->atom_ == result->atom_;
    const size_t base = len;
    if (shared && ((*op)->flags_ & ADS_TABLE)) {
      const AtomDomStruct& mine = **op;
      const unsigned s = mine.block_;
      const uint32_t d = result->domain_;
      unsigned offset = s;
      unsigned start = 1;
      if (!(d & 1u)) {
        // The list enters at the slot of the smallest value f (m operand
        // values lie below it) and the offset goes on from m * s, not from
        // there: exact only when m is 1. As the offset advances once per
        // value of d, a gap of d that the operand's domain fills is misread
        // too. Both are kept deliberately.
        unsigned f = lowestValue(d);
        unsigned m = mine.position(f);
        for (size_t t = 0; t < base; ++t) {
          map[t] += m * s;
        }
        top += m * s;
        offset = m * s;
        start = f + 1;
      }
      const size_t baseTop = top;
      for (unsigned v = start; v < result->atom_->domainsize_ && v < 32; ++v) {
        if (!(d & (1u << v))) {
          continue;
        }
        if (mine.domain_ & (1u << v)) {
          assert(len + base <= map.size());
          for (size_t t = 0; t < base; ++t) {
            map[len++] = map[t] + offset;
          }
          top = baseTop + offset;
        }
        offset += s;
      }
    } else if ((result->flags_ & ADS_TABLE) && result->count_ > 1) {
      assert(base * result->count_ <= map.size());
      for (unsigned c = 1; c < result->count_; ++c) {
        for (size_t t = 0; t < base; ++t) {
          map[len++] = map[t];
        }
      }
    }
    if (shared) {
      ++op;
    }
  }
  assert(len == map.size());
  // Shifted domains can carry the map past the operand's table.
  assert(top < operand.values_.size());
}

void Confactor::initAtoms(Confactor* a, Confactor* b) {
  auto ia = a->atoms_.begin();
  auto ib = b->atoms_.begin();
  while (ia != a->atoms_.end() || ib != b->atoms_.end()) {
    AtomDomStruct* copy;
    if (ia != a->atoms_.end() && ib != b->atoms_.end() && (*ia)->atom_ == (*ib)->atom_) {
      const AtomDomStruct& ea = **ia;
      const AtomDomStruct& eb = **ib;
      copy = new AtomDomStruct(ea);
      if (ea.flags_ != eb.flags_) {
        copy->flags_ = ea.flags_ | eb.flags_;
        copy->setDomain(ea.domain_ & eb.domain_);
      } else if (ea.domain_ != eb.domain_) {
        copy->setDomain(ea.domain_ & eb.domain_);
      }
      ++ia;
      ++ib;
    } else if (ib == b->atoms_.end() ||
               (ia != a->atoms_.end() && (*ia)->atom_->rank_ < (*ib)->atom_->rank_)) {
      copy = new AtomDomStruct(**ia);
      ++ia;
    } else {
      copy = new AtomDomStruct(**ib);
      ++ib;
    }
    if (!atoms_.insert(copy).second) {
      delete copy;
    }
  }
}

bool Confactor::isMergeable(const Confactor* other) const {
  if (atoms_.size() != other->atoms_.size()) {
    return false;
  }
  for (size_t i = 0; i < atoms_.size(); ++i) {
    const AtomDomStruct& e = *atoms_[i];
    const AtomDomStruct& o = *other->atoms_[i];
    if (e.atom_ != o.atom_ || !e.sameDomain(o) || e.flags_ != o.flags_) {
      return false;
    }
  }
  return true;
}

bool Confactor::isCompatibleOrOverlapping(const Confactor& other) const {
  return walkCommon(atoms_, other.atoms_, [](const AtomDomStruct& a, const AtomDomStruct& b) {
    return !((a.flags_ & ADS_CONTEXT) && (b.flags_ & ADS_CONTEXT) &&
             (a.domain_ & b.domain_ & a.fullMask()) == 0);
  });
}

void Confactor::includeAtomsFromContext(Confactor& other) {
  for (const AtomDomStruct* entry : other.atoms_) {
    if (entry->flags_ & ADS_CONTEXT) {
      addAtom(entry->atom_, entry->flags_, static_cast<int>(entry->domain_), 1, -1);
    }
  }
}

void Confactor::removePureContextAtoms() {
  for (auto it = atoms_.begin(); it != atoms_.end();) {
    it = ((*it)->flags_ & ADS_TABLE) ? it + 1 : atoms_.erase(it);
  }
}

void Confactor::orderAtoms() {
  atoms_.sort();
}

std::pair<ConfactorAtoms::iterator, bool> Confactor::addAtom(Atom* atom, unsigned flags, int domain,
                                                             int fill, int initValue) {
  const uint32_t dom =
      domain == -1 ? fullDomainMask(atom->domainsize_) : static_cast<uint32_t>(domain);
  if (!(flags & ADS_TABLE)) {
    AtomDomStruct* entry = new AtomDomStruct(atom, static_cast<int>(dom), flags);
    auto result = atoms_.insert(entry);
    if (!result.second) {
      delete entry;
    }
    return result;
  }
  const unsigned start = initValue == -1 ? lowestValue(dom) : static_cast<unsigned>(initValue);
  AtomDomStruct* entry = new AtomDomStruct(atom, static_cast<int>(1u << start), flags);
  auto result = atoms_.insert(entry);
  if (!result.second) {
    delete entry;
  }
  if (dom == (1u << start)) {
    updateSize(fill);
  } else {
    ConfactorAtoms::iterator it = result.first;
    growAtom(it, dom, fill);
  }
  return result;
}

ConfactorAtoms::iterator Confactor::growAtom(ConfactorAtoms::iterator& it, unsigned domain,
                                             double fill) {
  AtomDomStruct& entry = **it;
  const uint32_t mask = entry.fullMask();
  if ((domain & mask) == (entry.domain_ & mask)) {
    return it;
  }
  const uint32_t oldDomain = entry.domain_;
  const long oldSize = static_cast<long>(values_.size());
  entry.setDomain(domain);
  updateSize(fill);
  if (!(entry.flags_ & ADS_TABLE)) {
    return it;
  }
  // Backwards, so that every old value is read before its slot is written.
  const long b = entry.block_;
  const int top = static_cast<int>(entry.count_) - 1;
  long r = oldSize - 1;
  long w = static_cast<long>(values_.size()) - 1;
  int v = top;
  // A domain that is not a prefix of the values may never reach the old
  // slices; stopping at the front keeps the writes inside the table.
  while (r >= 0 && w >= 0) {
    const uint32_t bit = 1u << v;
    if ((domain & bit) && (oldDomain & bit)) {
      for (long j = 0; j < b; ++j) {
        values_[w--] = values_[r--];
      }
    } else if (domain & bit) {
      for (long j = 0; j < b; ++j) {
        values_[w--] = fill;
      }
    }
    v = v == 0 ? top : v - 1;
  }
  while (w >= 0) {
    values_[w--] = fill;
  }
  return it;
}

ConfactorAtoms::iterator Confactor::growAtom(Atom* atom, unsigned domain, double fill) {
  ConfactorAtoms::iterator it = atoms_.find(atom);
  return it == atoms_.end() ? it : growAtom(it, domain, fill);
}

ConfactorAtoms::iterator Confactor::shrinkAtom(ConfactorAtoms::iterator& it, unsigned domain,
                                               bool keep) {
  AtomDomStruct& entry = **it;
  const uint32_t mask = entry.fullMask();
  if ((domain & mask) == (entry.domain_ & mask)) {
    return it;
  }
  if (entry.flags_ & ADS_TABLE) {
    // Forwards, so that every kept value moves towards the front.
    const size_t b = entry.block_;
    const size_t size = values_.size();
    const unsigned n = entry.atom_->domainsize_;
    size_t r = 0;
    size_t w = 0;
    unsigned v = 0;
    while (r < size) {
      const uint32_t bit = 1u << v;
      if (domain & bit) {
        for (size_t j = 0; j < b; ++j) {
          values_[w++] = values_[r++];
        }
      } else if (entry.domain_ & bit) {
        r += b;
      }
      v = v + 1 == n ? 0 : v + 1;
    }
  }
  entry.setDomain(domain);
  if (entry.count_ == 1 && !keep) {
    atoms_.erase(it);
    it = atoms_.end();
  }
  updateSize(1.0);
  return it;
}

ConfactorAtoms::iterator Confactor::shrinkAtom(Atom* atom, unsigned domain, bool keep) {
  ConfactorAtoms::iterator it = atoms_.find(atom);
  return it == atoms_.end() ? it : shrinkAtom(it, domain, keep);
}

void Confactor::sumoutAtom(Atom* atom, bool keep) {
  ConfactorAtoms::iterator it = atoms_.find(atom);
  if (it == atoms_.end()) {
    return;
  }
  AtomDomStruct& entry = **it;
  if (!(entry.flags_ & ADS_TABLE)) {
    if (!keep) {
      atoms_.erase(it);
    }
    return;
  }
  const int blocka = entry.block_;
  assert(blocka != -1);
  // Accumulate into slots already consumed: every output index lies below the
  // index it reads.
  const size_t b = blocka;
  const size_t c = entry.count_;
  const size_t run = b * c;
  const size_t size = values_.size();
  const size_t outSize = c == 0 ? 0 : size / c;
  // Equivalent to visiting i = b .. size - 1 in order with output index
  // (i / run) * b + i % b, without the divisions.
  size_t out = 0;
  for (size_t start = 0; start < size; start += run, out += b) {
    for (size_t i = start == 0 ? b : start; i < start + run && i + b <= size; i += b) {
      for (size_t j = 0; j < b; ++j) {
        values_[out + j] += values_[i + j];
        if (i + j < outSize) {
          values_[i + j] = 0.0;
        }
      }
    }
  }
  values_.resize(outSize, 0.0);
  if ((entry.flags_ & ADS_CONTEXT) && keep) {
    entry.flags_ &= ~ADS_TABLE;
  } else {
    atoms_.erase(it);
  }
  updateSize(1.0);
}

Confactor* Confactor::convertToCPT(int fill) const {
  Confactor* c = new Confactor(static_cast<double>(fill));
  for (const AtomDomStruct* entry : atoms_) {
    unsigned flags = ADS_TABLE | (entry->flags_ & ADS_FORATOM);
    c->addAtom(entry->atom_, flags, -1, fill, -1);
  }
  std::vector<unsigned> counter(c->atoms_.size(), 0);
  for (size_t k = 0; k < c->values_.size(); ++k) {
    c->values_[k] = getValue(counter, fill);
    for (size_t i = 0; i < counter.size(); ++i) {
      if (++counter[i] < c->atoms_[i]->atom_->domainsize_) {
        break;
      }
      counter[i] = 0;
    }
  }
  return c;
}

// ---------------------------------------------------------------------------
// Confactor: text forms

std::string Confactor::formatDomain(const AtomDomStruct& entry) const {
  std::string digits;
  for (unsigned v = 0; v < entry.atom_->domainsize_; ++v) {
    digits += v < 32 && (entry.domain_ & (1u << v)) ? '1' : '0';
  }
  return digits;
}

std::string Confactor::strEntry(const AtomDomStruct& entry) const {
  std::string s;
  if (entry.flags_ & ADS_FORATOM) {
    s += "*";
  }
  s += entry.atom_->name_ + "={" + formatDomain(entry) + "|";
  if (entry.flags_ & ADS_CONTEXT) {
    s += "C";
  }
  if (entry.flags_ & ADS_TABLE) {
    s += "T";
  }
  return s + "}, ";
}

namespace {

// Per table entry k, the index of each table atom along its dimension.
void writeTablePositions(std::ostream& os, const ConfactorAtoms& atoms, size_t k,
                         const char* before, const char* after) {
  for (const AtomDomStruct* entry : atoms) {
    if (entry->flags_ & ADS_TABLE) {
      os << before << (k / entry->block_) % entry->count_ << after;
    }
  }
}

}  // namespace

std::string Confactor::str(const std::string& indent, bool noTable) const {
  std::ostringstream os;
  os << indent;
  for (const AtomDomStruct* entry : atoms_) {
    os << strEntry(*entry);
  }
  if (isConstraint()) {
    os << " (c)";
  }
  os << "\n";
  if (noTable) {
    return os.str();
  }
  for (size_t k = 0; k < values_.size(); ++k) {
    os << indent;
    writeTablePositions(os, atoms_, k, "", "\t");
    os << values_[k] << "\n";
  }
  if (!checkInvariant()) {
    os << indent << "BREAKS INVARIANT\n";
  }
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const Confactor& c) {
  return os << c.str("", false);
}

std::string Confactor::xml(std::string comment) const {
  std::ostringstream os;
  os << "<confactor>\n<foratom>";
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_FORATOM) {
      os << entry->atom_->name_ << " ";
    }
  }
  os << "</foratom>\n<comment>" << comment << "</comment>\n<context>\n";
  if (atoms_.empty()) {
    os << "empty";
  }
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_CONTEXT) {
      os << "<atomvalue>" << entry->atom_->xml() << "<value>" << formatDomain(*entry)
         << "</value></atomvalue>";
    }
  }
  os << "</context>\n<factor_cpt>\n<table><tr>";
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->flags_ & ADS_TABLE) {
      os << "<th>" << entry->atom_->xml() << "</th>";
    }
  }
  os << "<th>Values</th></tr>\n";
  for (size_t k = 0; k < values_.size(); ++k) {
    os << "<tr>";
    writeTablePositions(os, atoms_, k, "<td>", "</td>");
    os << "<td>" << values_[k] << "</td></tr>\n";
  }
  os << "</table>\n</factor_cpt>\n</confactor>\n";
  return os.str();
}

std::string Confactor::strHuginNet() const {
  std::ostringstream os;
  Atom* child = getForAtom();
  os << "potential ( " << (child != nullptr ? child->name_ : "");
  size_t s = 1;
  size_t k = 1;
  if (!atoms_.empty()) {
    os << " | ";
  }
  for (const AtomDomStruct* entry : atoms_) {
    if (entry->atom_ == child) {
      s = entry->block_;
      k = entry->count_ > 0 ? entry->count_ : 1;
    } else {
      os << entry->atom_->name_ << " ";
    }
    if (!(entry->flags_ & ADS_TABLE)) {
      std::cerr << "Confactor is not a complete factor! Cannot convert to BN.";
    }
  }
  os << " )\n{\n\tdata = (\n";
  for (size_t base = 0; base < values_.size(); base += s * k) {
    for (size_t j = 0; j < s; ++j) {
      os << "\t\t";
      for (size_t v = 0; v < k; ++v) {
        size_t i = base + j + v * s;
        if (i < values_.size()) {
          os << values_[i];
        }
        os << "\t";
      }
      os << "\n";
    }
  }
  os << "\t\t);\n}";
  return os.str();
}
