// The host interface the cplogic module is written against: the terms of the
// current call, atom and functor identifiers, atom handles, unification of
// output arguments, managed objects in the host heap, and the loading of a
// module. It is implemented over SWI-Prolog's foreign interface in stdpelm.cpp,
// the only file that includes the SWI-Prolog headers.
//
// Every foreign call runs under one process-wide lock and with std::cout and
// std::cerr sent to Prolog's current output and user_error streams, so that the
// module's text interleaves with Prolog's own output. A call that waits for the
// lock handles its signals while it waits, so a time limit or Ctrl-C reaches
// it; a call made from a signal handler while a call of the same thread is in
// progress raises a permission error instead of entering the core twice. No
// C++ exception leaves a call: the standard exceptions become Prolog
// exceptions, std::bad_alloc and std::length_error resource_error(memory).
#ifndef CPLOGIC_STDPELM_H
#define CPLOGIC_STDPELM_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <unordered_set>
#include <vector>

// ---- Terms ----------------------------------------------------------------
// A term is named by a long: a slot of the current call's argument term table
// (PelmMachine::argument) or of a PelmTermTable. Access follows variable
// bindings to the end of the chain, so every slot reads as dereferenced.

// An atom, the empty list included.
bool pelm_is_atom(long term);
// An integer that fits in 32 bits (the host's small integers).
bool pelm_is_integer(long term);
// A compound term other than a list cell.
bool pelm_is_structure(long term);
bool pelm_is_var(long term);
// REQUIRES: pelm_is_integer(term).
int32_t pelm_get_integer(long term);
// The value of any number (integer, rational or float) as a double; false for
// any other term.
bool pelm_get_number(long term, double* value);

// The key of a ground term: two terms get the same key exactly when they are
// identical (==); floats by their bits, texts by their code points, atoms and
// functors by identifier. Keys of terms are prefix-free, so keys written one
// after the other still tell the terms apart. Every list cell's tail counts
// at the level of the cell, so long lists are fine; any other argument is a
// level deeper, and terms deeper than maxDepth are refused. Throws the
// Prolog error (instantiation, cycle, depth, blob or dict) for a refused term.
// The identifiers of the atoms in the key are appended to *atoms (when not
// null): whoever keeps the key beyond the call must hold them
// (PelmAtomHolder).
void pelm_term_key(long term, int maxDepth, std::string* key,
                   std::vector<uintptr_t>* atoms = nullptr);
// An atom (the empty list included), whose key is its identifier: *atom is
// set to the identifier. False for any other term.
bool pelm_get_atom_id(long term, uintptr_t* atom);
// A predicate indicator: a name (an atom identifier) and an arity.
struct PelmIndicator {
  uintptr_t name;
  int arity;
  bool operator==(const PelmIndicator& o) const { return name == o.name && arity == o.arity; }
};

// The literals of a ground rule body written as a conjunction (',', true,
// \+ and not) of atoms and compound terms that are not control constructs
// (',' ';' '->' '*->' ':-' \+ ':') and hold no compound without arguments:
// unifies negated and positive with the atoms of the negative and of the
// positive literals, in the body's order, and appends the indicator of each
// literal's atom to *called. *disjoint is true when no atom is both negated
// and positive, false when that is not known. False, with nothing unified,
// for any other body.
bool pelm_literal_body(long body, long negated, long positive, bool* disjoint,
                       std::vector<PelmIndicator>* called);
// Unifies list with the indicators as Name/Arity terms.
bool pelm_unify_indicators(long list, const std::vector<PelmIndicator>& indicators);
// Holds or releases an atom identifier (PelmAtomHolder holds sets of them).
void pelm_hold_atom(uintptr_t atom);
void pelm_release_atom(uintptr_t atom);

// The term as quoted Prolog text that reads back as the term, bracketed as an
// operand of priority 199 (the left side of ":"), and bracketed as well when
// it starts or ends with a symbol character.
std::string pelm_term_text(long term);

// Identifiers of atoms and of functors (name with arity): the host's own
// handles. A functor's identifier and its name stay valid for the life of the
// process; an atom's identifier only while the atom is held, by a term of the
// call in progress or by a PelmAtomHolder. Once released, the host may
// collect the atom and give its handle to another.
typedef uintptr_t PelmAtomId;
typedef uintptr_t PelmFunctorId;

// REQUIRES: pelm_is_structure(term), or the term is a list cell.
PelmFunctorId pelm_functor_id(long term);
std::string pelm_functor_name(PelmFunctorId functor);
int pelm_functor_arity(PelmFunctorId functor);
// The identifier of name/arity.
PelmFunctorId func_lookup(const char* name, int arity);

// Holds atoms alive, each once, until it is destroyed: an object that keeps
// keys of terms (pelm_term_key) holds the atoms in them, so that the host
// neither collects them nor gives their handles to other atoms while the
// keys exist, and releases them with the object.
class PelmAtomHolder {
 public:
  PelmAtomHolder() = default;
  PelmAtomHolder(const PelmAtomHolder&) = delete;
  PelmAtomHolder& operator=(const PelmAtomHolder&) = delete;
  ~PelmAtomHolder();

  void hold(const std::vector<PelmAtomId>& atoms);

 private:
  std::unordered_set<PelmAtomId> atoms_;
};

// A scratch table of term slots. Slots taken from it, and any taken after it
// was created, are given back when it is destroyed; tables nest like scopes.
class PelmTermTable {
 public:
  PelmTermTable();
  PelmTermTable(const PelmTermTable&) = delete;
  PelmTermTable& operator=(const PelmTermTable&) = delete;
  ~PelmTermTable();

  // A new slot naming the same term.
  long copy(long term);
  // A new slot holding argument i (from 1) of a structure, or 0 when the term
  // has no such argument.
  long arg(long term, int i);
  // Slots taken after mark() are given back by release(mark).
  long mark();
  void release(long mark);

 private:
  uintptr_t frame_;
};

// Walks the elements of a list front to back without recursion. The walk
// visits each list cell once: it stops at the first tail that is not a list
// cell (an unbound tail included) and where a cyclic list would come back to a
// cell already visited.
class PelmListWalk {
 public:
  PelmListWalk(PelmTermTable& table, long list);
  // Moves to the next element; false when the walk is over.
  bool next();
  // The number of elements the walk visits.
  size_t size() const { return length_; }
  // The current element. REQUIRES: the last next() returned true.
  long head() const { return head_; }

 private:
  long cursor_;
  long head_;
  size_t length_;
  size_t visited_;
};

// ---- Atom handles ---------------------------------------------------------

// Holds a host atom alive for the life of the handle.
class PELM_atom {
 public:
  // Throws instantiation_error or type_error(atom, Term) unless the term is
  // an atom.
  explicit PELM_atom(long term);
  PELM_atom(const PELM_atom&) = delete;
  PELM_atom& operator=(const PELM_atom&) = delete;
  ~PELM_atom();

  std::string text() const;

 private:
  uintptr_t atom_;
};

// ---- Calls ----------------------------------------------------------------

// The state of one foreign call: its argument term table.
class PelmMachine {
 public:
  PelmMachine(uintptr_t firstArgument, int arity) : first_(firstArgument), arity_(arity) {}
  // The slot of argument n (from 1) of the call. REQUIRES: 1 <= n <= arity.
  long argument(int n) const;
  int arity() const { return arity_; }

 private:
  uintptr_t first_;
  int arity_;
};

// Unifies an output argument with a float or an integer: binds an unbound
// variable, compares a bound number of the same kind, fails otherwise. A
// unification that fails for lack of space leaves SWI-Prolog's resource
// error pending, which the failing call then raises.
bool pelm_unify_float(long term, double value);
bool pelm_unify_integer(long term, long value);
bool pelm_unify_atom(long term, const char* text);

// Unifies an output argument with a list, element by element from the front:
// add() and close() fail as soon as the list cannot be unified.
class PelmListUnifier {
 public:
  explicit PelmListUnifier(long list);
  bool add(long element);
  // Ends the list.
  bool close();

 private:
  uintptr_t tail_;
  uintptr_t head_;
};

// ---- Errors ---------------------------------------------------------------
// The functions below build an ISO error term error(Formal, context(Name/Arity,
// Message)) for the call in progress and throw PelmError; the call then
// raises the term in Prolog. Message is the text when one is given, else
// unbound. Culprit terms are copied into the error as it is built, so the
// slots may belong to scratch tables that unwinding closes.

class PelmError : public std::exception {
 public:
  const char* what() const noexcept override { return "Prolog error"; }
};

[[noreturn]] void pelm_instantiation_error(const std::string& message = "");
[[noreturn]] void pelm_type_error(const char* type, long culprit, const std::string& message = "");
[[noreturn]] void pelm_domain_error(const char* domain, long culprit,
                                    const std::string& message = "");
[[noreturn]] void pelm_domain_error(const char* domain, double culprit,
                                    const std::string& message = "");
[[noreturn]] void pelm_existence_error(const char* type, long culprit,
                                       const std::string& message = "");
[[noreturn]] void pelm_permission_error(const char* action, const char* type, long culprit,
                                        const std::string& message = "");
[[noreturn]] void pelm_representation_error(const char* what, const std::string& message = "");
// error(evaluation_error(What), Context), as arithmetic raises it.
[[noreturn]] void pelm_evaluation_error(const char* what, const std::string& message);
// error(cplogic_error(Name(Culprit), Where), Context): the module's own errors.
[[noreturn]] void pelm_cplogic_error(const char* name, long culprit, const char* where);
// The same with a list of the atoms named (their display texts) as culprit.
[[noreturn]] void pelm_cplogic_error_names(const char* name, const std::vector<std::string>& names,
                                           const char* where);

// error(resource_error(Resource), Context).
[[noreturn]] void pelm_resource_error(const char* resource, const std::string& message);
// error(io_error(Action, Culprit), Context): Culprit names the file.
[[noreturn]] void pelm_io_error(const char* action, long culprit, const std::string& message);

// Runs the host's pending signal handlers (the alarm of a time limit, Ctrl-C).
// True when one of them left an exception pending: the call must then end
// with pelm_raise_pending().
bool pelm_handle_signals();
// Ends the call with the exception the host has pending, unchanged.
[[noreturn]] void pelm_raise_pending();

// The error for an argument that is not of its type: instantiation_error
// when it is unbound, type_error(type, Term) otherwise.
[[noreturn]] void pelm_wrong_type(const char* type, long term);
// Throws instantiation_error for a partial list and type_error(list, Term)
// for anything else that is not a proper list (a cyclic list included).
void pelm_must_be_list(long term);
// Throw instantiation_error for an unbound term and type_error(atom, Term) or
// type_error(integer, Term) for a term of another type.
void pelm_must_be_atom(long term);
int64_t pelm_must_be_integer(long term);

// ---- Managed objects ------------------------------------------------------

// Base class of the objects that live in the host heap. The host constructs
// them in slots of PELM_SLOT_SIZE bytes and destroys them once Prolog no
// longer refers to them.
class Collectable {
 public:
  Collectable() = default;
  Collectable(const Collectable&) = delete;
  Collectable& operator=(const Collectable&) = delete;
  virtual ~Collectable() = default;

  virtual const char* type_name() const { return "collectable"; }
  // Releases what the object holds; the object stays in the heap, no longer
  // live.
  virtual void do_free() {}
  // False once freed: the object's handle then names nothing.
  virtual bool live() const { return true; }
  virtual std::ostream& Print(std::ostream& os) const;
  // Takes over the state of the live object source; false when source is of
  // another class.
  virtual bool Copy(const Collectable&) { return false; }
};

constexpr size_t PELM_SLOT_SIZE = 64;

// Creation functions of a type: construct the object in slot (raw memory of
// PELM_SLOT_SIZE bytes) and return 1, or return 0 and leave the slot raw.
typedef int (*PelmCreateFunction)(Collectable* slot);
typedef int (*PelmInitCreateFunction)(Collectable* slot, long initTerm);

// A type of managed objects. Constructed statically by a module; registered
// with the host by PELMRegisterAllTypes().
class pelm_type {
 public:
  pelm_type(const char* name, PelmCreateFunction create, PelmInitCreateFunction initCreate);
  pelm_type(const pelm_type&) = delete;
  pelm_type& operator=(const pelm_type&) = delete;
  ~pelm_type();

  std::string name_;
  PelmCreateFunction create_;
  PelmInitCreateFunction init_create_;
  int type_id_;  // assigned at registration; -1 before
};

// Registers every pelm_type constructed so far; returns 1.
int PELMRegisterAllTypes();

// The live collectable an object-ID term names. Only the handle that
// pelm_new returned names an object, never a number, so an object is reached
// only by whoever holds its handle and garbage collection sees every holder.
// Throws instantiation_error for an unbound term, type_error(Type, Term) for
// a term that is not an object handle, and existence_error(Type, Term) for
// the handle of an object that was freed, Type being typeName (or the
// handle's own type).
Collectable* PelmHeapLookup(long term, const char* typeName = "pelm_object");

// ---- Loading --------------------------------------------------------------

typedef int (*PelmForeignFunction)(PelmMachine* machine);

// A predicate exported by a module: fails with 0, succeeds with non-zero.
struct PelmPredicate {
  const char* name;
  int arity;
  PelmForeignFunction function;
};

// What the cplogic module provides for loading: its entry point (returns 1
// when the module is ready) and its predicates, ended by a null name.
int pelm_module_init_cplogic_cplogic();
extern const PelmPredicate pelm_module_predicates_cplogic_cplogic[];

#endif
