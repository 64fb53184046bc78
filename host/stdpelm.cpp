// The host interface over SWI-Prolog's foreign interface.
#include "stdpelm.h"

#include <SWI-Prolog.h>
#include <SWI-Stream.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>
#include <new>
#include <streambuf>
#include <unordered_set>
#include <utility>
#include <vector>

static_assert(sizeof(term_t) <= sizeof(long), "a term slot must fit in a long");
static_assert(sizeof(atom_t) == sizeof(uintptr_t), "atoms are held as uintptr_t");

namespace {

// The empty list, a reserved symbol without text of its own in SWI-Prolog 7+.
atom_t nil_atom = 0;

// The core is not reentrant: one call at a time in the whole process, and
// none from a signal handler that runs inside a call of the same thread.
std::timed_mutex g_call_lock;
thread_local bool t_in_call = false;

std::string atom_text(atom_t a) {
  if (a == nil_atom) {
    return "[]";
  }
  size_t len = 0;
  char* s = nullptr;
  if (!PL_atom_mbchars(a, &len, &s, REP_UTF8)) {
    return std::string();
  }
  return std::string(s, len);
}

// ---- Output -----------------------------------------------------------------

// Writes through to a Prolog stream, so that the module's text lands in the
// same buffer as Prolog's own output. The module writes UTF-8; the stream
// gets code points and encodes them its own way.
class PrologStreamBuf : public std::streambuf {
 public:
  explicit PrologStreamBuf(bool error) : error_(error), written_(false), code_(0), pending_(0) {}
  bool written() const { return written_; }

 protected:
  int overflow(int c) override {
    if (c != traits_type::eof()) {
      char ch = static_cast<char>(c);
      put(&ch, 1);
    }
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    put(s, static_cast<size_t>(n));
    return n;
  }
  int sync() override {
    IOSTREAM* s = stream();
    if (s != nullptr) {
      Sflush(s);
    }
    return 0;
  }

 private:
  IOSTREAM* stream() const { return error_ ? Suser_error : Scurrent_output; }

  void put(const char* data, size_t n) {
    written_ = true;
    IOSTREAM* s = stream();
    if (s == nullptr) {
      std::fwrite(data, 1, n, error_ ? stderr : stdout);
      return;
    }
    Slock(s);
    for (size_t i = 0; i < n; ++i) {
      decode(static_cast<unsigned char>(data[i]), s);
    }
    Sunlock(s);
  }

  // One byte of UTF-8; a malformed sequence comes out byte by byte.
  void decode(unsigned char byte, IOSTREAM* s) {
    if (pending_ > 0 && (byte & 0xC0) == 0x80) {
      code_ = (code_ << 6) | (byte & 0x3F);
      if (--pending_ == 0) {
        Sputcode(code_, s);
      }
      return;
    }
    pending_ = 0;
    if (byte >= 0xC0 && byte < 0xF8) {
      pending_ = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : 1;
      code_ = byte & (0x3F >> pending_);
      return;
    }
    Sputcode(byte, s);
  }

  bool error_;
  bool written_;
  int code_;     // code point being decoded
  int pending_;  // continuation bytes still expected
};

// Sends std::cout and std::cerr to Prolog's streams for the time of a call.
class OutputRedirect {
 public:
  OutputRedirect() : out_(false), err_(true) {
    saved_out_ = std::cout.rdbuf(&out_);
    saved_err_ = std::cerr.rdbuf(&err_);
  }
  OutputRedirect(const OutputRedirect&) = delete;
  OutputRedirect& operator=(const OutputRedirect&) = delete;
  ~OutputRedirect() {
    if (out_.written()) {
      std::cout.flush();
    }
    if (err_.written()) {
      std::cerr.flush();
    }
    std::cout.rdbuf(saved_out_);
    std::cerr.rdbuf(saved_err_);
  }

 private:
  PrologStreamBuf out_;
  PrologStreamBuf err_;
  std::streambuf* saved_out_;
  std::streambuf* saved_err_;
};

// ---- Heap and object handles ------------------------------------------------

std::vector<Collectable*> g_heap;
// Indices whose handles were collected, for new objects. An index is given
// to a new object only once the handle of the object that had it has been
// collected: no term can name the old object any more, so a handle never
// reaches another object.
std::vector<int> g_free_indices;

// Blobs are released by SWI's atom garbage collector, possibly in another
// thread and while a call holds g_call_lock: the release hook only queues the
// index, and the next call frees the object.
std::mutex g_released_lock;
std::vector<int> g_released;

struct ObjectHandle {
  int index;
  const pelm_type* type;
};

void destroy_collectable(int index) {
  Collectable* c = g_heap[index];
  g_heap[index] = nullptr;
  c->~Collectable();
  ::operator delete(static_cast<void*>(c));
}

// Reserved beforehand, so that pushing an index cannot throw.
void reserve_free_index() {
  g_free_indices.reserve(g_heap.size());
}

// REQUIRES: g_call_lock held.
void free_released_objects() {
  std::vector<int> released;
  {
    std::lock_guard<std::mutex> lock(g_released_lock);
    released.swap(g_released);
  }
  reserve_free_index();
  for (int index : released) {
    if (g_heap[index] != nullptr) {
      destroy_collectable(index);
      g_free_indices.push_back(index);
    }
  }
}

int release_handle(atom_t a) {
  auto* handle = static_cast<ObjectHandle*>(PL_blob_data(a, nullptr, nullptr));
  std::lock_guard<std::mutex> lock(g_released_lock);
  g_released.push_back(handle->index);
  return TRUE;
}

int write_handle(IOSTREAM* s, atom_t a, int) {
  auto* handle = static_cast<ObjectHandle*>(PL_blob_data(a, nullptr, nullptr));
  Sfprintf(s, "<%s>(%d)", handle->type->name_.c_str(), handle->index);
  return TRUE;
}

PL_blob_t make_handle_blob() {
  PL_blob_t b{};
  b.magic = PL_BLOB_MAGIC;
  b.name = "pelm_object";
  b.release = release_handle;
  b.write = write_handle;
  return b;
}

PL_blob_t g_handle_blob = make_handle_blob();

// At halt, for leak checkers. A halt from a signal handler inside a call, or
// while another thread's call does not end, leaves the objects to the exit.
int free_all_objects(int, void*) {
  std::unique_lock<std::timed_mutex> lock(g_call_lock, std::defer_lock);
  if (t_in_call || !lock.try_lock_for(std::chrono::seconds(1))) {
    return 0;
  }
  for (size_t i = 0; i < g_heap.size(); ++i) {
    if (g_heap[i] != nullptr) {
      destroy_collectable(static_cast<int>(i));
    }
  }
  return 0;
}

// The registered types, found by name.
std::vector<pelm_type*>& constructed_types() {
  static std::vector<pelm_type*> types;
  return types;
}

const pelm_type* find_type(const std::string& name) {
  for (const pelm_type* t : constructed_types()) {
    if (t->type_id_ >= 0 && t->name_ == name) {
      return t;
    }
  }
  return nullptr;
}

// ---- Host predicates ----------------------------------------------------------

// pelm_new(+TypeName, -Object) and pelm_new(+TypeName, +InitTerm, -Object).
int pelm_new(PelmMachine* m) {
  long name_term = m->argument(1);
  const pelm_type* type = find_type(PELM_atom(name_term).text());
  if (type == nullptr) {
    return PL_existence_error("pelm_type", name_term);
  }
  // Nothing may throw once the object exists.
  g_heap.reserve(g_heap.size() + 1);
  reserve_free_index();
  void* memory = ::operator new(PELM_SLOT_SIZE);
  Collectable* slot = static_cast<Collectable*>(memory);
  int made = 0;
  try {
    made = m->arity() == 2 ? type->create_(slot) : type->init_create_(slot, m->argument(2));
  } catch (...) {
    ::operator delete(memory);
    throw;
  }
  if (!made) {
    ::operator delete(memory);
    return 0;
  }
  ObjectHandle handle{static_cast<int>(g_heap.size()), type};
  if (g_free_indices.empty()) {
    g_heap.push_back(slot);
  } else {
    handle.index = g_free_indices.back();
    g_free_indices.pop_back();
    g_heap[handle.index] = slot;
  }
  return PL_unify_blob(m->argument(m->arity()), &handle, sizeof handle, &g_handle_blob);
}

// pelm_free(+Object): releases the object's state; the handle then names
// nothing.
int pelm_free(PelmMachine* m) {
  PelmHeapLookup(m->argument(1))->do_free();
  return 1;
}

// pelm_copy(+Target, +Source): Target takes over Source's state. Both must be
// live: a freed target stays freed.
int pelm_copy(PelmMachine* m) {
  Collectable* target = PelmHeapLookup(m->argument(1));
  Collectable* source = PelmHeapLookup(m->argument(2), target->type_name());
  if (!target->Copy(*source)) {
    pelm_type_error(target->type_name(), m->argument(2));
  }
  return 1;
}

// pelm_print(+Object): the object's text on the current output.
int pelm_print(PelmMachine* m) {
  PelmHeapLookup(m->argument(1))->Print(std::cout);
  return 1;
}

const PelmPredicate kHostPredicates[] = {{"pelm_new", 2, pelm_new},
                                         {"pelm_new", 3, pelm_new},
                                         {"pelm_free", 1, pelm_free},
                                         {"pelm_copy", 2, pelm_copy},
                                         {"pelm_print", 1, pelm_print}};

// ---- Calls --------------------------------------------------------------------

// The predicate in progress and the slot its error term is built in; the
// slot is taken before the predicate runs, so it outlives the scratch tables
// that unwinding closes.
const PelmPredicate* g_current = nullptr;
term_t g_error = 0;

// error(pelm_error(Text), context(Name/Arity, _)): an exception of the core
// that is not one of the host's errors.
foreign_t raise_error(const PelmPredicate& p, const char* text) {
  term_t ex = PL_new_term_ref();
  int built = PL_unify_term(ex, PL_FUNCTOR_CHARS, "error", 2, PL_FUNCTOR_CHARS, "pelm_error", 1,
                            PL_UTF8_CHARS, text, PL_FUNCTOR_CHARS, "context", 2, PL_FUNCTOR_CHARS,
                            "/", 2, PL_CHARS, p.name, PL_INT, p.arity, PL_VARIABLE);
  return built ? PL_raise_exception(ex) : FALSE;
}

// Raises error(Formal, context(Name/Arity, Text)) for predicate p; false when
// the term could not be built (SWI's own error is then pending).
bool raise_formal(const PelmPredicate& p, term_t formal, const char* text) {
  term_t ex = PL_new_term_ref();
  if (ex == 0 || !PL_unify_term(ex, PL_FUNCTOR_CHARS, "error", 2, PL_TERM, formal, PL_FUNCTOR_CHARS,
                                "context", 2, PL_FUNCTOR_CHARS, "/", 2, PL_CHARS, p.name, PL_INT,
                                p.arity, PL_UTF8_CHARS, text)) {
    return false;
  }
  PL_raise_exception(ex);
  return true;
}

foreign_t raise_memory_error(const PelmPredicate& p) {
  term_t formal = PL_new_term_ref();
  bool raised = formal != 0 &&
                PL_unify_term(formal, PL_FUNCTOR_CHARS, "resource_error", 1, PL_CHARS, "memory") &&
                raise_formal(p, formal, "a table or a term does not fit in memory");
  if (!raised && !PL_exception(0)) {
    PL_resource_error("memory");
  }
  return FALSE;
}

foreign_t raise_reentered(const PelmPredicate& p) {
  term_t formal = PL_new_term_ref();
  if (formal != 0 &&
      PL_unify_term(formal, PL_FUNCTOR_CHARS, "permission_error", 3, PL_CHARS, "enter", PL_CHARS,
                    "cplogic", PL_FUNCTOR_CHARS, "/", 2, PL_CHARS, p.name, PL_INT, p.arity)) {
    raise_formal(p, formal, "called from a signal handler while a call of the same thread runs");
  }
  return FALSE;
}

class InCall {
 public:
  InCall() { t_in_call = true; }
  InCall(const InCall&) = delete;
  InCall& operator=(const InCall&) = delete;
  ~InCall() { t_in_call = false; }
};

// Takes the call lock; while another thread holds it, this thread's signals
// are handled, so that a time limit or Ctrl-C reaches a waiting call. False
// when a handler left an exception pending.
bool acquire(std::unique_lock<std::timed_mutex>& lock) {
  while (!lock.try_lock_for(std::chrono::milliseconds(20))) {
    if (PL_handle_signals() < 0) {
      return false;
    }
  }
  return true;
}

foreign_t call_predicate(const PelmPredicate& p, term_t a0, int arity) {
  if (t_in_call) {
    return raise_reentered(p);
  }
  std::unique_lock<std::timed_mutex> lock(g_call_lock, std::defer_lock);
  if (!acquire(lock)) {
    return FALSE;
  }
  InCall inCall;
  g_current = &p;
  g_error = PL_new_term_ref();
  if (g_error == 0) {
    return FALSE;
  }
  try {
    free_released_objects();
    OutputRedirect redirect;
    PelmMachine machine(a0, arity);
    return p.function(&machine) ? TRUE : FALSE;
  } catch (const PelmError&) {
    // A term that could not be built leaves SWI's own resource error pending.
    return PL_is_variable(g_error) ? FALSE : PL_raise_exception(g_error);
  } catch (const std::bad_alloc&) {
    return raise_memory_error(p);
  } catch (const std::length_error&) {  // a size beyond what a vector can hold
    return raise_memory_error(p);
  } catch (const std::exception& e) {
    return raise_error(p, e.what());
  } catch (...) {
    return raise_error(p, "unknown C++ exception");
  }
}

// A failed SWI call leaves its exception pending: the call fails with it.
void check(int ok) {
  if (!ok) {
    throw PelmError();
  }
}

// Unifies g_error with error(Formal, context(Name/Arity, Message)) where
// formal holds Formal, then throws.
[[noreturn]] void throw_error(term_t formal, const std::string& message) {
  term_t context = PL_new_term_ref();
  bool built =
      message.empty()
          ? PL_unify_term(context, PL_FUNCTOR_CHARS, "context", 2, PL_FUNCTOR_CHARS, "/", 2,
                          PL_CHARS, g_current->name, PL_INT, g_current->arity, PL_VARIABLE)
          : PL_unify_term(context, PL_FUNCTOR_CHARS, "context", 2, PL_FUNCTOR_CHARS, "/", 2,
                          PL_CHARS, g_current->name, PL_INT, g_current->arity, PL_UTF8_STRING,
                          message.c_str());
  check(built);
  check(PL_unify_term(g_error, PL_FUNCTOR_CHARS, "error", 2, PL_TERM, formal, PL_TERM, context));
  throw PelmError();
}

[[noreturn]] void throw_formal(const char* name, const char* first, term_t culprit,
                               const std::string& message) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, name, 2, PL_CHARS, first, PL_TERM, culprit));
  throw_error(formal, message);
}

// SWI hands a foreign function only its arguments, so each registered
// predicate gets a trampoline of its own that knows its table entry.
constexpr size_t kMaxPredicates = 32;
std::vector<PelmPredicate> g_predicates;

template <size_t I>
foreign_t trampoline(term_t a0, int arity, control_t) {
  return call_predicate(g_predicates[I], a0, arity);
}

template <size_t... I>
constexpr std::array<pl_function_t, sizeof...(I)> make_trampolines(std::index_sequence<I...>) {
  return {{reinterpret_cast<pl_function_t>(&trampoline<I>)...}};
}

const auto kTrampolines = make_trampolines(std::make_index_sequence<kMaxPredicates>());

bool register_predicate(const PelmPredicate& p) {
  if (g_predicates.size() == kMaxPredicates) {
    return false;
  }
  g_predicates.push_back(p);
  return PL_register_foreign(p.name, p.arity, kTrampolines[g_predicates.size() - 1], PL_FA_VARARGS);
}

}  // namespace

// ---- Terms ----------------------------------------------------------------------

bool pelm_is_atom(long term) {
  int type = PL_term_type(term);
  return type == PL_ATOM || type == PL_NIL;
}
bool pelm_is_integer(long term) {
  int64_t v;
  return PL_term_type(term) == PL_INTEGER && PL_get_int64(term, &v) && v >= INT32_MIN &&
         v <= INT32_MAX;
}
bool pelm_is_structure(long term) {
  return PL_term_type(term) == PL_TERM;
}
bool pelm_is_var(long term) {
  return PL_is_variable(term);
}

int32_t pelm_get_integer(long term) {
  int64_t v = 0;
  if (!PL_get_int64(term, &v)) {
    return 0;
  }
  return static_cast<int32_t>(v);
}

bool pelm_get_number(long term, double* value) {
  if (!PL_is_number(term)) {
    return false;
  }
  if (PL_get_float(term, value)) {
    return true;
  }
  // Rationals and integers beyond a double: Prolog's own float/1.
  term_t args = PL_new_term_refs(2);
  static predicate_t is = PL_predicate("is", 2, "system");
  return PL_unify_term(args + 1, PL_FUNCTOR_CHARS, "float", 1, PL_TERM,
                       static_cast<term_t>(term)) &&
         PL_call_predicate(nullptr, PL_Q_CATCH_EXCEPTION, is, args) && PL_get_float(args, value);
}

namespace {

void append_bytes(std::string* key, const void* data, size_t n) {
  key->append(static_cast<const char*>(data), n);
}

void append_text(std::string* key, char tag, const char* text, size_t n) {
  uint64_t length = n;
  key->push_back(tag);
  append_bytes(key, &length, sizeof length);
  key->append(text, n);
}

// Text of a term through PL_get_nchars, for terms whose text is their value.
void append_nchars(std::string* key, char tag, term_t t, unsigned flags) {
  size_t n = 0;
  char* s = nullptr;
  if (!PL_get_nchars(t, &n, &s, flags | BUF_STACK | REP_UTF8 | CVT_EXCEPTION)) {
    throw PelmError();
  }
  append_text(key, tag, s, n);
}

}  // namespace

void pelm_term_key(long term, int maxDepth, std::string* key, std::vector<uintptr_t>* atoms) {
  term_t whole = static_cast<term_t>(term);
  if (!PL_is_acyclic(whole)) {
    pelm_type_error("acyclic_term", term);
  }
  // Depth-first over the term, one level per compound being visited. The
  // arguments of the compound at level j are fetched into slots[j], which is
  // where the compound at level j + 1 then sits, so the slots taken are bounded
  // by the depth. The tail of a list cell replaces the cell at its level, so
  // a list is walked in a loop.
  struct Level {
    term_t term;
    size_t next;  // next argument, from 1
    size_t arity;
  };
  fid_t frame = PL_open_foreign_frame();
  std::vector<Level> levels;
  std::vector<term_t> slots;
  term_t current = PL_copy_term_ref(whole);
  try {
    while (true) {
      switch (PL_term_type(current)) {
        case PL_VARIABLE:
          pelm_instantiation_error("a term of a theory must be ground");
        case PL_ATOM:
        case PL_NIL: {
          atom_t a;
          check(PL_get_atom(current, &a));
          key->push_back('a');
          append_bytes(key, &a, sizeof a);
          if (atoms != nullptr) {
            atoms->push_back(a);
          }
          break;
        }
        case PL_INTEGER: {
          int64_t v;
          if (PL_get_int64(current, &v)) {
            key->push_back('i');
            append_bytes(key, &v, sizeof v);
          } else {
            append_nchars(key, 'I', current, CVT_INTEGER);
          }
          break;
        }
        case PL_RATIONAL:
          append_nchars(key, 'R', current, CVT_WRITEQ);
          break;
        case PL_FLOAT: {
          double v = 0.0;
          check(PL_get_float(current, &v));
          key->push_back('f');
          append_bytes(key, &v, sizeof v);
          break;
        }
        case PL_STRING:
          append_nchars(key, 's', current, CVT_STRING);
          break;
        case PL_TERM:
        case PL_LIST_PAIR: {
          if (static_cast<int>(levels.size()) >= maxDepth) {
            pelm_representation_error(
                "max_term_depth",
                "terms of a theory are at most " + std::to_string(maxDepth) + " levels deep");
          }
          // Functors, and so their names, live as long as the process.
          functor_t f;
          check(PL_get_functor(current, &f));
          key->push_back('c');
          append_bytes(key, &f, sizeof f);
          levels.push_back(Level{current, 1, PL_functor_arity(f)});
          break;
        }
        default:  // blobs and dicts have no text that reads back as them
          pelm_type_error("cplogic_atom", term);
      }
      while (!levels.empty() && levels.back().next > levels.back().arity) {
        levels.pop_back();
      }
      if (levels.empty()) {
        break;
      }
      Level& top = levels.back();
      size_t i = top.next++;
      if (i == 2 && top.arity == 2 && PL_is_pair(top.term)) {
        current = top.term;
        check(PL_get_arg(2, current, current));
        levels.pop_back();
        continue;
      }
      size_t j = levels.size() - 1;
      if (slots.size() <= j) {
        slots.push_back(PL_new_term_ref());
      }
      current = slots[j];
      check(PL_get_arg(i, top.term, current));
    }
  } catch (...) {
    PL_close_foreign_frame(frame);
    throw;
  }
  PL_close_foreign_frame(frame);
}

bool pelm_get_atom_id(long term, uintptr_t* atom) {
  term_t t = static_cast<term_t>(term);
  int type = PL_term_type(t);
  atom_t a;
  if ((type != PL_ATOM && type != PL_NIL) || !PL_get_atom(t, &a)) {
    return false;
  }
  *atom = a;
  return true;
}

namespace {

// A body atom as pelm_literal_body takes it: ground, not a control construct,
// and no compound in it without arguments. *indicator is set.
bool literal_atom(term_t t, PelmIndicator* indicator) {
  static const functor_t control[] = {
      PL_new_functor(PL_new_atom(","), 2),  PL_new_functor(PL_new_atom(";"), 2),
      PL_new_functor(PL_new_atom("->"), 2), PL_new_functor(PL_new_atom("*->"), 2),
      PL_new_functor(PL_new_atom(":-"), 2), PL_new_functor(PL_new_atom("\\+"), 1),
      PL_new_functor(PL_new_atom(":"), 2)};
  atom_t name;
  size_t arity;
  switch (PL_term_type(t)) {
    case PL_ATOM:
      if (!PL_get_atom(t, &name)) {
        return false;
      }
      *indicator = PelmIndicator{name, 0};
      return true;
    case PL_TERM:
      break;
    default:
      return false;
  }
  functor_t f;
  if (!PL_get_functor(t, &f) || !PL_is_ground(t)) {
    return false;
  }
  for (functor_t c : control) {
    if (f == c) {
      return false;
    }
  }
  if (!PL_get_name_arity(t, &name, &arity) || arity == 0) {
    return false;
  }
  // Compounds without arguments anywhere inside are left to the checks
  // that name them.
  std::vector<term_t> pending{PL_copy_term_ref(t)};
  while (!pending.empty()) {
    term_t u = pending.back();
    pending.pop_back();
    size_t n = 0;
    atom_t uname;
    if (PL_get_name_arity(u, &uname, &n)) {
      if (PL_is_compound(u)) {
        if (n == 0) {
          return false;
        }
        for (size_t i = 1; i <= n; ++i) {
          term_t a = PL_new_term_ref();
          if (!PL_get_arg(i, u, a)) {
            return false;
          }
          if (PL_is_compound(a)) {
            pending.push_back(a);
          }
        }
      }
    }
  }
  *indicator = PelmIndicator{name, static_cast<int>(arity)};
  return true;
}

bool unify_list(term_t list, const std::vector<term_t>& terms) {
  term_t tail = PL_copy_term_ref(list);
  term_t head = PL_new_term_ref();
  for (term_t t : terms) {
    if (!PL_unify_list(tail, head, tail) || !PL_unify(head, t)) {
      return false;
    }
  }
  return PL_unify_nil(tail);
}

}  // namespace

bool pelm_literal_body(long body, long negated, long positive, bool* disjoint,
                       std::vector<PelmIndicator>* called) {
  static const functor_t conjunction = PL_new_functor(PL_new_atom(","), 2);
  static const functor_t negation = PL_new_functor(PL_new_atom("\\+"), 1);
  static const functor_t notCall = PL_new_functor(PL_new_atom("not"), 1);
  static const atom_t trueAtom = PL_new_atom("true");
  fid_t frame = PL_open_foreign_frame();
  std::vector<term_t> negs;
  std::vector<term_t> poss;
  std::vector<term_t> rest;  // right-hand sides of conjunctions still to walk
  size_t firstCalled = called->size();
  // One slot per literal: a literal's slot is where its atom is kept, and a
  // conjunction's slot is reused for its right-hand side.
  auto literal = [&](term_t t) {
    atom_t a;
    if (PL_get_atom(t, &a) && a == trueAtom) {
      return true;
    }
    PelmIndicator indicator;
    if (PL_is_functor(t, negation) || PL_is_functor(t, notCall)) {
      if (!PL_get_arg(1, t, t) || !literal_atom(t, &indicator)) {
        return false;
      }
      negs.push_back(t);
    } else {
      if (!literal_atom(t, &indicator)) {
        return false;
      }
      poss.push_back(t);
    }
    called->push_back(indicator);
    return true;
  };
  term_t current = PL_copy_term_ref(static_cast<term_t>(body));
  bool ok = true;
  while (ok) {
    if (PL_is_functor(current, conjunction)) {
      term_t left = PL_new_term_ref();
      ok = PL_get_arg(1, current, left);
      if (ok && PL_is_functor(left, conjunction)) {
        term_t right = PL_new_term_ref();
        ok = PL_get_arg(2, current, right);
        rest.push_back(right);
        current = left;
      } else if (ok) {
        ok = literal(left) && PL_get_arg(2, current, current);
      }
      continue;
    }
    ok = literal(current);
    if (rest.empty()) {
      break;
    }
    current = rest.back();
    rest.pop_back();
  }
  ok = ok && unify_list(static_cast<term_t>(negated), negs) &&
       unify_list(static_cast<term_t>(positive), poss);
  // An atom both negated and not is ruled out here when the literals are
  // atoms.
  *disjoint = false;
  if (ok && (negs.empty() || poss.empty())) {
    *disjoint = true;
  } else if (ok) {
    std::unordered_set<atom_t> negated_atoms;
    atom_t a;
    bool atoms = true;
    for (size_t i = 0; i < negs.size() && atoms; ++i) {
      atoms = PL_get_atom(negs[i], &a);
      negated_atoms.insert(a);
    }
    for (size_t i = 0; i < poss.size() && atoms; ++i) {
      atoms = PL_get_atom(poss[i], &a) && negated_atoms.count(a) == 0;
    }
    *disjoint = atoms;
  }
  if (!ok) {
    called->resize(firstCalled);
    PL_discard_foreign_frame(frame);
    return false;
  }
  PL_close_foreign_frame(frame);
  return true;
}

bool pelm_unify_indicators(long list, const std::vector<PelmIndicator>& indicators) {
  term_t tail = PL_copy_term_ref(static_cast<term_t>(list));
  term_t head = PL_new_term_ref();
  for (const PelmIndicator& i : indicators) {
    if (!PL_unify_list(tail, head, tail) ||
        !PL_unify_term(head, PL_FUNCTOR_CHARS, "/", 2, PL_ATOM, i.name, PL_INT, i.arity)) {
      return false;
    }
  }
  return PL_unify_nil(tail);
}

void pelm_hold_atom(uintptr_t atom) {
  PL_register_atom(atom);
}

void pelm_release_atom(uintptr_t atom) {
  PL_unregister_atom(atom);
}

std::string pelm_term_text(long term) {
  char* buffer = nullptr;
  size_t size = 0;
  IOSTREAM* s = Sopenmem(&buffer, &size, "w");
  if (s == nullptr) {
    throw std::bad_alloc();
  }
  s->encoding = ENC_UTF8;
  bool written = PL_write_term(s, static_cast<term_t>(term), 199, PL_WRT_QUOTED);
  Sflush(s);
  std::string text = written ? std::string(buffer, size) : std::string();
  Sclose(s);
  Sfree(buffer);
  if (!written) {
    throw PelmError();  // the writer's exception (out of stack) is pending
  }
  // Symbol characters at either end would glue to the ":" after a head atom
  // or the "\\+" before a negated one (\\+- is one token): bracket them.
  const char* symbols = "#$&*+-./:<=>?@^~\\";
  if (!text.empty() && (std::strchr(symbols, text.front()) || std::strchr(symbols, text.back()))) {
    text = "(" + text + ")";
  }
  return text;
}

// ---- Errors ---------------------------------------------------------------------

void pelm_instantiation_error(const std::string& message) {
  term_t formal = PL_new_term_ref();
  PL_put_atom_chars(formal, "instantiation_error");
  throw_error(formal, message);
}

void pelm_type_error(const char* type, long culprit, const std::string& message) {
  throw_formal("type_error", type, static_cast<term_t>(culprit), message);
}

void pelm_domain_error(const char* domain, long culprit, const std::string& message) {
  throw_formal("domain_error", domain, static_cast<term_t>(culprit), message);
}

void pelm_domain_error(const char* domain, double culprit, const std::string& message) {
  term_t t = PL_new_term_ref();
  check(PL_put_float(t, culprit));
  throw_formal("domain_error", domain, t, message);
}

void pelm_existence_error(const char* type, long culprit, const std::string& message) {
  throw_formal("existence_error", type, static_cast<term_t>(culprit), message);
}

void pelm_permission_error(const char* action, const char* type, long culprit,
                           const std::string& message) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "permission_error", 3, PL_CHARS, action, PL_CHARS,
                      type, PL_TERM, static_cast<term_t>(culprit)));
  throw_error(formal, message);
}

void pelm_representation_error(const char* what, const std::string& message) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "representation_error", 1, PL_CHARS, what));
  throw_error(formal, message);
}

void pelm_evaluation_error(const char* what, const std::string& message) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "evaluation_error", 1, PL_CHARS, what));
  throw_error(formal, message);
}

void pelm_cplogic_error(const char* name, long culprit, const char* where) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "cplogic_error", 2, PL_FUNCTOR_CHARS, name, 1,
                      PL_TERM, static_cast<term_t>(culprit), PL_CHARS, where));
  throw_error(formal, "");
}

void pelm_cplogic_error_names(const char* name, const std::vector<std::string>& names,
                              const char* where) {
  term_t list = PL_new_term_ref();
  term_t head = PL_new_term_ref();
  PL_put_nil(list);
  for (auto it = names.rbegin(); it != names.rend(); ++it) {
    check(PL_put_atom_chars(head, it->c_str()));
    check(PL_cons_list(list, head, list));
  }
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "cplogic_error", 2, PL_FUNCTOR_CHARS, name, 1,
                      PL_TERM, list, PL_CHARS, where));
  throw_error(formal, "");
}

void pelm_resource_error(const char* resource, const std::string& message) {
  term_t formal = PL_new_term_ref();
  check(PL_unify_term(formal, PL_FUNCTOR_CHARS, "resource_error", 1, PL_CHARS, resource));
  throw_error(formal, message);
}

void pelm_io_error(const char* action, long culprit, const std::string& message) {
  throw_formal("io_error", action, static_cast<term_t>(culprit), message);
}

bool pelm_handle_signals() {
  return PL_handle_signals() < 0;
}

void pelm_raise_pending() {
  if (PL_exception(0) == 0) {
    throw std::runtime_error("interrupted without an exception");
  }
  throw PelmError();  // g_error stays unbound: the pending exception is raised
}

void pelm_must_be_list(long term) {
  size_t length = 0;
  switch (PL_skip_list(term, 0, &length)) {
    case PL_LIST:
      return;
    case PL_PARTIAL_LIST:
      pelm_instantiation_error("a list must end in []");
    default:
      pelm_type_error("list", term);
  }
}

void pelm_wrong_type(const char* type, long term) {
  if (PL_is_variable(term)) {
    pelm_instantiation_error();
  }
  pelm_type_error(type, term);
}

void pelm_must_be_atom(long term) {
  if (!PL_is_atom(term)) {
    pelm_wrong_type("atom", term);
  }
}

int64_t pelm_must_be_integer(long term) {
  int64_t v = 0;
  if (!PL_is_integer(term)) {
    pelm_wrong_type("integer", term);
  }
  if (!PL_get_int64(term, &v)) {
    pelm_representation_error("int64_t");
  }
  return v;
}

PelmFunctorId pelm_functor_id(long term) {
  functor_t f;
  return PL_get_functor(term, &f) ? f : 0;
}

std::string pelm_functor_name(PelmFunctorId functor) {
  return atom_text(PL_functor_name(functor));
}

int pelm_functor_arity(PelmFunctorId functor) {
  return static_cast<int>(PL_functor_arity(functor));
}

PelmFunctorId func_lookup(const char* name, int arity) {
  atom_t a = PL_new_atom(name);
  functor_t f = PL_new_functor(a, arity);
  PL_unregister_atom(a);  // the functor keeps its name
  return f;
}

PelmAtomHolder::~PelmAtomHolder() {
  for (PelmAtomId a : atoms_) {
    PL_unregister_atom(a);
  }
}

void PelmAtomHolder::hold(const std::vector<PelmAtomId>& atoms) {
  for (PelmAtomId a : atoms) {
    if (atoms_.insert(a).second) {
      PL_register_atom(a);
    }
  }
}

PelmTermTable::PelmTermTable() : frame_(PL_open_foreign_frame()) {}

PelmTermTable::~PelmTermTable() {
  PL_close_foreign_frame(static_cast<fid_t>(frame_));
}

long PelmTermTable::copy(long term) {
  return PL_copy_term_ref(term);
}

long PelmTermTable::arg(long term, int i) {
  term_t slot = PL_new_term_ref();
  return i >= 1 && PL_get_arg(i, term, slot) ? static_cast<long>(slot) : 0;
}

long PelmTermTable::mark() {
  return PL_new_term_ref();
}

void PelmTermTable::release(long mark) {
  PL_reset_term_refs(mark);
}

// Number of distinct list cells reachable from list before a tail that is not
// a list cell or before a cycle closes.
static size_t list_cells(term_t list) {
  size_t length = 0;
  if (PL_skip_list(list, 0, &length) != PL_CYCLIC_TERM) {
    return length;
  }
  // Brent's cycle detection: the cycle length lam, then the prefix length mu.
  term_t tortoise = PL_copy_term_ref(list);
  term_t hare = PL_copy_term_ref(list);
  if (!PL_get_tail(hare, hare)) {
    return 0;
  }
  size_t power = 1;
  size_t lam = 1;
  while (!PL_same_compound(tortoise, hare)) {
    if (power == lam) {
      if (!PL_put_term(tortoise, hare)) {
        return 0;
      }
      power *= 2;
      lam = 0;
    }
    if (!PL_get_tail(hare, hare)) {
      return 0;
    }
    ++lam;
  }
  if (!PL_put_term(tortoise, list) || !PL_put_term(hare, list)) {
    return 0;
  }
  for (size_t i = 0; i < lam; ++i) {
    if (!PL_get_tail(hare, hare)) {
      return 0;
    }
  }
  size_t mu = 0;
  while (!PL_same_compound(tortoise, hare)) {
    if (!PL_get_tail(tortoise, tortoise) || !PL_get_tail(hare, hare)) {
      return 0;
    }
    ++mu;
  }
  return mu + lam;
}

PelmListWalk::PelmListWalk(PelmTermTable& table, long list)
    : cursor_(table.copy(list)), head_(table.mark()), length_(0), visited_(0) {
  length_ = list_cells(static_cast<term_t>(cursor_));
}

bool PelmListWalk::next() {
  if (visited_ == length_ || !PL_get_list(cursor_, head_, cursor_)) {
    return false;
  }
  ++visited_;
  return true;
}

// ---- Atom handles -----------------------------------------------------------

PELM_atom::PELM_atom(long term) : atom_(0) {
  pelm_must_be_atom(term);
  atom_t a;
  if (!PL_get_atom(term, &a)) {
    pelm_type_error("atom", term);
  }
  atom_ = a;
  PL_register_atom(atom_);
}

PELM_atom::~PELM_atom() {
  PL_unregister_atom(atom_);
}

std::string PELM_atom::text() const {
  return atom_text(atom_);
}

// ---- Calls ------------------------------------------------------------------

long PelmMachine::argument(int n) const {
  return static_cast<long>(first_ + n - 1);
}

bool pelm_unify_float(long term, double value) {
  return PL_unify_float(term, value);
}

bool pelm_unify_integer(long term, long value) {
  return PL_unify_int64(term, value);
}

bool pelm_unify_atom(long term, const char* text) {
  return PL_unify_atom_chars(term, text);
}

PelmListUnifier::PelmListUnifier(long list)
    : tail_(PL_copy_term_ref(static_cast<term_t>(list))), head_(PL_new_term_ref()) {}

bool PelmListUnifier::add(long element) {
  return PL_unify_list(tail_, head_, tail_) && PL_unify(head_, static_cast<term_t>(element));
}

bool PelmListUnifier::close() {
  return PL_unify_nil(tail_);
}

// ---- Managed objects ----------------------------------------------------------

std::ostream& Collectable::Print(std::ostream& os) const {
  return os << '<' << type_name() << '>';
}

pelm_type::pelm_type(const char* name, PelmCreateFunction create, PelmInitCreateFunction initCreate)
    : name_(name), create_(create), init_create_(initCreate), type_id_(-1) {
  constructed_types().push_back(this);
}

pelm_type::~pelm_type() {
  std::vector<pelm_type*>& types = constructed_types();
  for (size_t i = 0; i < types.size(); ++i) {
    if (types[i] == this) {
      types.erase(types.begin() + static_cast<long>(i));
      break;
    }
  }
}

int PELMRegisterAllTypes() {
  std::vector<pelm_type*>& types = constructed_types();
  for (size_t i = 0; i < types.size(); ++i) {
    types[i]->type_id_ = static_cast<int>(i);
  }
  return 1;
}

Collectable* PelmHeapLookup(long term, const char* typeName) {
  void* data;
  PL_blob_t* type;
  if (!PL_get_blob(term, &data, nullptr, &type) || type != &g_handle_blob) {
    pelm_wrong_type(typeName, term);
  }
  auto* handle = static_cast<ObjectHandle*>(data);
  Collectable* c = g_heap[handle->index];
  if (c == nullptr || !c->live()) {
    pelm_existence_error(handle->type->name_.c_str(), term);
  }
  return c;
}

// ---- Loading ------------------------------------------------------------------

extern "C" install_t install_cplogic() {
  std::lock_guard<std::timed_mutex> lock(g_call_lock);
  term_t nil = PL_new_term_ref();
  atom_t a;
  if (!PL_put_nil(nil) || !PL_get_atom(nil, &a)) {
    PL_warning("cplogic: cannot find the empty list atom");
    return;
  }
  nil_atom = a;
  PL_register_blob_type(&g_handle_blob);
  PL_on_halt(free_all_objects, nullptr);
  if (!pelm_module_init_cplogic_cplogic()) {
    PL_warning("cplogic: module initialisation failed");
    return;
  }
  for (const PelmPredicate* p = pelm_module_predicates_cplogic_cplogic; p->name != nullptr; ++p) {
    register_predicate(*p);
  }
  for (const PelmPredicate& p : kHostPredicates) {
    register_predicate(p);
  }
}
