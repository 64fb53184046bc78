// The cplogic module: the object type "vorn_cp_theory", the module entry and
// the eleven vorn_cp_theory_* predicates, cplogic_hugin_net/3 and
// cplogic_prob/4.

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

// The live theory an object-ID argument names; throws the Prolog error that
// names the argument otherwise.
VornCPTheory* theoryArgument(PelmMachine* machine, long id) {
  pelm_global_machine = machine;
  return HeapGetFromTerm<VornCPTheoryCollectable>(id, "vorn_cp_theory")->object_.get();
}

// Calls method on the theory of argument 1.
template <class Method>
int withTheory(PelmMachine* machine, Method method) {
  return method(theoryArgument(machine, machine->argument(1)));
}

// vorn_cp_theory_set_settings(+Theory, +CompileFlag, +Int, +Conversion,
// +Elimination, +Atom)
int vorn_cp_theory_set_settings(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->setSettings(m->argument(2), m->argument(3), m->argument(4), m->argument(5), m->argument(6));
    return 1;
  });
}

// A query predicate (+Theory, +Query, +Evidence, ?Prob).
int queryPredicate(PelmMachine* m, bool print) {
  return withTheory(m, [m, print](VornCPTheory* t) {
    return pelm_unify_float(m->argument(4), t->probability(m->argument(2), m->argument(3), print));
  });
}

// cplogic_prob(+Theory, +Query, +Evidence, -Prob)
int cplogic_prob(PelmMachine* m) {
  return queryPredicate(m, false);
}

// vorn_cp_theory_query_silent(+Theory, +Query, +Evidence, ?Prob)
int vorn_cp_theory_query_silent(PelmMachine* m) {
  return queryPredicate(m, false);
}

// vorn_cp_theory_query(+Theory, +Query, +Evidence, ?Prob)
int vorn_cp_theory_query(PelmMachine* m) {
  return queryPredicate(m, true);
}

// vorn_cp_theory_print_graphviz(+Theory, +FileAtom)
int vorn_cp_theory_print_graphviz(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->printGraphviz(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_ground_event(+Theory, +ground(FoEvent, HeadList, BodyList))
int vorn_cp_theory_add_ground_event(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->addGroundEvent(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_compile(+Theory)
int vorn_cp_theory_compile(PelmMachine* m) {
  return withTheory(m, [](VornCPTheory* t) {
    t->compile();
    return 1;
  });
}

// vorn_cp_theory_atom_table_success(+Theory, +Atom)
int vorn_cp_theory_atom_table_success(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->atomTableSuccess(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_save(+Theory, +FileAtom)
int vorn_cp_theory_save(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->save(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_event(+Theory, +event(HeadList, BodyList))
int vorn_cp_theory_add_event(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->addEvent(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_fo_event(+Theory, +FoEvent, +TermCount)
int vorn_cp_theory_add_fo_event(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->addFoEvent(m->argument(2), m->argument(3));
    return 1;
  });
}

// vorn_cp_theory_atom_in_table(+Theory, +Atom, ?Status)
int vorn_cp_theory_atom_in_table(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    return pelm_unify_integer(m->argument(3), t->atomInTable(m->argument(2)));
  });
}

// cplogic_hugin_net(+Theory, +Query, +FileAtom): for the command-line tool.
int cplogic_hugin_net(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->printHuginNet(m->argument(2), m->argument(3));
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
    {"cplogic_prob", 4, cplogic_prob},
    {nullptr, 0, nullptr}};
