#include "vorncptheoryterm.h"

#include <cstdlib>
#include <iostream>
#include <new>

#include "stdpelm.h"

namespace {

// Keys are built while a Prolog call is in progress; running out of memory
// there leaves nothing sensible to return to.
void* allocateOrExit(size_t bytes) {
  void* p = std::malloc(bytes);
  if (p == nullptr) {
    std::cerr << "CPLVE: Memory allocation error" << std::endl;
    std::exit(1);
  }
  return p;
}

void constructInvalid(VornCPTheoryTerm* terms, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    new (terms + i) VornCPTheoryTerm();
  }
}

}  // namespace

VornCPTheoryTerm* VornCPTheoryTermBlock::terms() {
  return reinterpret_cast<VornCPTheoryTerm*>(this + 1);
}

void VornCPTheoryTerm::allocArgs(int32_t kind, uint32_t value, int32_t n) {
  auto* block = static_cast<VornCPTheoryTermBlock*>(
      allocateOrExit(sizeof(VornCPTheoryTermBlock) + sizeof(VornCPTheoryTerm) * n));
  block->share_ = 1;
  block->n_ = n;
  constructInvalid(block->terms(), n);
  kind_ = kind;
  value_ = value;
  args_ = block;
}

uint32_t VornCPTheoryTerm::hash() const {
  uint32_t h;
  switch (kind_) {
    case kAtom:
    case kInteger:
      return value_;
    case kStructure:
      h = (value_ * 17u) ^ static_cast<uint32_t>(count());
      break;
    case kList:
      h = static_cast<uint32_t>(count());
      break;
    default:
      return 0;
  }
  for (int32_t i = 0; i < count(); ++i) {
    h = (h * 17u) ^ arg(i)->hash();
  }
  return h;
}

bool VornCPTheoryTerm::equals(const VornCPTheoryTerm& other) const {
  if (kind_ != other.kind_) {
    return false;
  }
  switch (kind_) {
    case kAtom:
    case kInteger:
      return value_ == other.value_;
    case kStructure:
      if (value_ != other.value_) {
        return false;
      }
      break;
    case kList:
      break;
    default:
      return false;
  }
  if (count() != other.count()) {
    return false;
  }
  for (int32_t i = 0; i < count(); ++i) {
    if (!arg(i)->equals(*other.arg(i))) {
      return false;
    }
  }
  return true;
}

void VornCPTheoryTerm::print(std::ostream& os) const {
  const std::string* text;
  switch (kind_) {
    case kAtom:
      text = pelm_atom_text(value_);
      if (text == nullptr) {
        os.setstate(std::ios::badbit);
        return;
      }
      os << *text;
      return;
    case kInteger:
      os << static_cast<int32_t>(value_);
      return;
    case kStructure:
      text = pelm_functor_name(value_);
      if (text == nullptr) {
        os.setstate(std::ios::badbit);
        return;
      }
      os << *text << '(';
      break;
    case kList:
      os << '[';
      break;
    default:
      return;
  }
  for (int32_t i = 0; i < count(); ++i) {
    if (i > 0) {
      os << ',';
    }
    arg(i)->print(os);
  }
  os << (kind_ == kStructure ? ')' : ']');
}

void VornCPTheoryTerm::copyFunctor(const VornCPTheoryTerm& other) {
  kind_ = other.kind_;
  value_ = other.value_;
  args_ = other.args_;
  if (args_ != nullptr) {
    ++args_->share_;
  }
}

void VornCPTheoryTerm::deleteRecursive() const {
  VornCPTheoryTermBlock* block = args_;
  if (block == nullptr || --block->share_ > 0) {
    return;
  }
  VornCPTheoryTerm* terms = block->terms();
  for (int32_t i = 0; i < block->n_; ++i) {
    terms[i].deleteRecursive();
  }
  std::free(block);
}

// ---- Ground events ----------------------------------------------------------

// The terms start after the share count, aligned for a term.
static constexpr size_t kGroundEventTermsOffset =
    (sizeof(VornCPTheoryGroundEvent::Block) + alignof(VornCPTheoryTerm) - 1) /
    alignof(VornCPTheoryTerm) * alignof(VornCPTheoryTerm);

static VornCPTheoryTerm* groundEventTerms(VornCPTheoryGroundEvent::Block* block) {
  return reinterpret_cast<VornCPTheoryTerm*>(reinterpret_cast<char*>(block) +
                                             kGroundEventTermsOffset);
}

VornCPTheoryGroundEvent::VornCPTheoryGroundEvent(int n) : n_(n < 0 ? 0 : n), hash_(0) {
  block_ =
      static_cast<Block*>(allocateOrExit(kGroundEventTermsOffset + sizeof(VornCPTheoryTerm) * n_));
  block_->share_ = 1;
  constructInvalid(groundEventTerms(block_), n_);
}

VornCPTheoryGroundEvent::VornCPTheoryGroundEvent(const VornCPTheoryGroundEvent& other)
    : n_(other.n_), hash_(other.hash_), block_(other.block_) {
  ++block_->share_;
}

VornCPTheoryGroundEvent::~VornCPTheoryGroundEvent() {
  if (--block_->share_ > 0) {
    return;
  }
  for (int i = 0; i < n_; ++i) {
    getTerm(i)->deleteRecursive();
  }
  std::free(block_);
}

void VornCPTheoryGroundEvent::computeHash() {
  uint32_t h = 0;
  for (int i = 0; i < n_; ++i) {
    h = (h * 17u) ^ getTerm(i)->hash();
  }
  hash_ = h;
}

bool VornCPTheoryGroundEvent::equals(const VornCPTheoryGroundEvent& other) const {
  for (int i = 0; i < n_; ++i) {
    if (!getTerm(i)->equals(*other.getTerm(i))) {
      return false;
    }
  }
  return true;
}

VornCPTheoryTerm* VornCPTheoryGroundEvent::getTerm(int i) const {
  return groundEventTerms(block_) + i;
}

bool VornCPTheoryGroundEvent::valid() const {
  for (int i = 0; i < n_; ++i) {
    if (getTerm(i)->kind_ == VornCPTheoryTerm::kInvalid) {
      return false;
    }
  }
  return true;
}
