// The collectable that makes a module's object a managed object of the host
// heap, the creation functions the host calls for its type, and the lookup
// from an object-ID term to the object.
#ifndef CPLOGIC_PELMCOLLECTABLE_H
#define CPLOGIC_PELMCOLLECTABLE_H

#include <memory>
#include <new>
#include <utility>

#include "stdpelm.h"

// Holds an object of class T for the host type *Type. The object is shared
// with the collectables that copied it (Copy) and freed with the last of them.
template <class T, pelm_type* Type>
class PelmCollectable : public Collectable {
 public:
  typedef T object_type;

  std::shared_ptr<T> object_;  // null once freed

  explicit PelmCollectable(std::shared_ptr<T> object) : object_(std::move(object)) {}

  const char* type_name() const override { return Type->name_.c_str(); }
  void do_free() override { object_.reset(); }
  bool live() const override { return object_ != nullptr; }
  std::ostream& Print(std::ostream& os) const override {
    if (object_ != nullptr) {
      object_->Print(os);
    }
    return os;
  }
  // Shares source's object; this collectable's own object is released (freed
  // unless another collectable shares it).
  bool Copy(const Collectable& source) override {
    auto* other = dynamic_cast<const PelmCollectable*>(&source);
    if (other == nullptr) {
      return false;
    }
    object_ = other->object_;
    return true;
  }
};

// Creates C's object with make() and constructs C in slot (when not null);
// returns 1. What construction throws (std::bad_alloc) goes to the caller.
template <class C, class Make>
int CreateCollectable(Collectable* slot, Make make) {
  static_assert(sizeof(C) <= PELM_SLOT_SIZE, "the host slot is too small");
  std::shared_ptr<typename C::object_type> object(make());
  if (slot != nullptr) {
    new (slot) C(std::move(object));
  }
  return 1;
}

template <class C>
int DefaultCreateCollectable(Collectable* slot) {
  return CreateCollectable<C>(slot, [] { return new typename C::object_type(); });
}

template <class C>
int InitCreateCollectable(Collectable* slot, long initTerm) {
  return CreateCollectable<C>(slot, [initTerm] { return new typename C::object_type(initTerm); });
}

// The live collectable of class C that an object-ID term names; throws the
// errors of PelmHeapLookup, with C's type name, and type_error for the
// handle of an object of another class.
template <class C>
C* HeapGetFromTerm(long term, const char* typeName) {
  C* c = dynamic_cast<C*>(PelmHeapLookup(term, typeName));
  if (c == nullptr) {
    pelm_type_error(typeName, term);
  }
  return c;
}

#endif
