// The cplogic module: the object type "vorn_cp_theory", the module entry and
// the eleven vorn_cp_theory_* predicates, and cplogic_hugin_net/3.
#include <iostream>
#include <string>

#include "pelmcollectable.h"
#include "stdpelm.h"
#include "vorncptheory.h"

PelmFunctorId g_global_not = 0;

extern pelm_type VornCPTheoryType;
typedef PelmNonExMutCollectable<VornCPTheory, &VornCPTheoryType> VornCPTheoryCollectable;

pelm_type VornCPTheoryType("vorn_cp_theory", DefaultCreateCollectable<VornCPTheoryCollectable>,
                           InitCreateCollectable<VornCPTheoryCollectable>, 0, nullptr);

void cplogic_init() {
  g_global_not = func_lookup("\\+", 1);
}

int pelm_module_init_cplogic_cplogic() {
  cplogic_init();
  PELMRegisterAllTypes();
  return 1;
}

namespace {

const char kInvalidType[] = "Term has invalid type!\n";

// The value of an integer argument; -1 after a message for any other term.
int integerArgument(long term) {
  if (!pelm_is_integer(term)) {
    std::cerr << kInvalidType;
    return -1;
  }
  return pelm_get_integer(term);
}

// Stores an atom argument in *handle; any other term keeps what the handle
// holds (the empty list) after a message.
void atomArgument(long term, PELM_atom* handle) {
  if (!pelm_is_atom(term)) {
    std::cerr << kInvalidType;
    return;
  }
  handle->set(term);
}

// The theory an object-ID argument names, or null after the lookup's message
// and the predicate's own ("<name>/<arity> - arg 1: invalid c object ID ").
VornCPTheory* theoryArgument(PelmMachine* machine, long id, const char* predicate) {
  pelm_global_machine = machine;
  VornCPTheoryCollectable* collectable = HeapGetFromTerm<VornCPTheoryCollectable>(id);
  if (collectable == nullptr) {
    std::cerr << "HeapGetFromTerm returns 0" << std::endl;
  }
  if (collectable == nullptr || collectable->object_ == nullptr) {
    std::cerr << predicate << " - arg 1: invalid c object ID " << std::endl;
    return nullptr;
  }
  return collectable->object_.get();
}

// Calls method on the theory of argument 1; fails when there is none.
template <class Method>
int withTheory(PelmMachine* machine, const char* predicate, Method method) {
  VornCPTheory* theory = theoryArgument(machine, machine->argument(1), predicate);
  return theory != nullptr ? method(theory) : 0;
}

// vorn_cp_theory_set_settings(+Theory, +CompileFlag, +Int, +Conversion,
// +Elimination, +Atom)
int vorn_cp_theory_set_settings(PelmMachine* m) {
  int compileFlag = integerArgument(m->argument(2));
  int ignored1 = integerArgument(m->argument(3));
  PELM_atom conversion(nil_atom);
  PELM_atom elimination(nil_atom);
  PELM_atom ignored2(nil_atom);
  atomArgument(m->argument(4), &conversion);
  atomArgument(m->argument(5), &elimination);
  atomArgument(m->argument(6), &ignored2);
  return withTheory(m, "vorn_cp_theory_set_settings/6", [&](VornCPTheory* t) {
    t->setSettings(compileFlag, ignored1, conversion, elimination, ignored2);
    return 1;
  });
}

// vorn_cp_theory_query_silent(+Theory, +Query, +Evidence, ?Prob)
int vorn_cp_theory_query_silent(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_query_silent/4", [m](VornCPTheory* t) {
    return pelm_unify_float(m->argument(4), t->querySilent(m->argument(2), m->argument(3)));
  });
}

// vorn_cp_theory_print_graphviz(+Theory, +FileAtom)
int vorn_cp_theory_print_graphviz(PelmMachine* m) {
  PELM_atom file(nil_atom);
  atomArgument(m->argument(2), &file);
  return withTheory(m, "vorn_cp_theory_print_graphviz/2", [&](VornCPTheory* t) {
    t->printGraphviz(file);
    return 1;
  });
}

// vorn_cp_theory_query(+Theory, +Query, +Evidence, ?Prob)
int vorn_cp_theory_query(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_query/4", [m](VornCPTheory* t) {
    return pelm_unify_float(m->argument(4), t->query(m->argument(2), m->argument(3)));
  });
}

// vorn_cp_theory_add_ground_event(+Theory, +ground(FoEvent, HeadList, BodyList))
int vorn_cp_theory_add_ground_event(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_add_ground_event/2", [m](VornCPTheory* t) {
    t->addGroundEvent(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_compile(+Theory)
int vorn_cp_theory_compile(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_compile/1", [](VornCPTheory* t) {
    t->compile();
    return 1;
  });
}

// vorn_cp_theory_atom_table_success(+Theory, +Atom)
int vorn_cp_theory_atom_table_success(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_atom_table_success/2", [m](VornCPTheory* t) {
    t->atomTableSuccess(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_save(+Theory, +FileAtom)
int vorn_cp_theory_save(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_save/2", [m](VornCPTheory* t) {
    t->save(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_event(+Theory, +event(HeadList, BodyList))
int vorn_cp_theory_add_event(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_add_event/2", [m](VornCPTheory* t) {
    t->addEvent(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_fo_event(+Theory, +FoEvent, +TermCount)
int vorn_cp_theory_add_fo_event(PelmMachine* m) {
  int event = integerArgument(m->argument(2));
  int count = integerArgument(m->argument(3));
  return withTheory(m, "vorn_cp_theory_add_fo_event/3", [&](VornCPTheory* t) {
    t->addFoEvent(event, count);
    return 1;
  });
}

// vorn_cp_theory_atom_in_table(+Theory, +Atom, ?Status)
int vorn_cp_theory_atom_in_table(PelmMachine* m) {
  return withTheory(m, "vorn_cp_theory_atom_in_table/3", [m](VornCPTheory* t) {
    return pelm_unify_integer(m->argument(3), t->atomInTable(m->argument(2)));
  });
}

// cplogic_hugin_net(+Theory, +Query, +FileAtom): beyond the eleven, for the
// command-line tool.
int cplogic_hugin_net(PelmMachine* m) {
  PELM_atom file(nil_atom);
  atomArgument(m->argument(3), &file);
  return withTheory(m, "cplogic_hugin_net/3", [&](VornCPTheory* t) {
    t->printHuginNet(m->argument(2), file);
    return 1;
  });
}

}  // namespace

const PelmPredicate pelm_module_predicates_cplogic_cplogic[] = {
    {"vorn_cp_theory_set_settings", 6, vorn_cp_theory_set_settings},
    {"vorn_cp_theory_query_silent", 4, vorn_cp_theory_query_silent},
    {"vorn_cp_theory_print_graphviz", 2, vorn_cp_theory_print_graphviz},
    {"vorn_cp_theory_query", 4, vorn_cp_theory_query},
    {"vorn_cp_theory_add_ground_event", 2, vorn_cp_theory_add_ground_event},
    {"vorn_cp_theory_compile", 1, vorn_cp_theory_compile},
    {"vorn_cp_theory_atom_table_success", 2, vorn_cp_theory_atom_table_success},
    {"vorn_cp_theory_save", 2, vorn_cp_theory_save},
    {"vorn_cp_theory_add_event", 2, vorn_cp_theory_add_event},
    {"vorn_cp_theory_add_fo_event", 3, vorn_cp_theory_add_fo_event},
    {"vorn_cp_theory_atom_in_table", 3, vorn_cp_theory_atom_in_table},
    {"cplogic_hugin_net", 3, cplogic_hugin_net},
    {nullptr, 0, nullptr}};
