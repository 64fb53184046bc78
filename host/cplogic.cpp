// The cplogic module: the object types "vorn_cp_theory" and
// "cplogic_called_set", the module entry and the vorn_cp_theory_*
// predicates, cplogic_hugin_net/3, cplogic_prob/4,5 and the loader's helpers
// cplogic_literal_body/5 and cplogic_called/2.

#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "pelmcollectable.h"
#include "querylimits.h"
#include "stdpelm.h"
#include "vorncptheory.h"

PelmFunctorId g_global_not = 0;
PelmFunctorId g_split_event = 0;

extern pelm_type VornCPTheoryType;
typedef PelmCollectable<VornCPTheory, &VornCPTheoryType> VornCPTheoryCollectable;

pelm_type VornCPTheoryType("vorn_cp_theory", DefaultCreateCollectable<VornCPTheoryCollectable>,
                           InitCreateCollectable<VornCPTheoryCollectable>);

namespace {

// The predicates that the rule bodies of a program being read call, each
// once in the order first met: the loader stores such rules as it reads
// them and checks the predicates once, when the program is complete.
class CalledSet {
 public:
  CalledSet() = default;
  explicit CalledSet(long) {}
  CalledSet(const CalledSet&) = delete;
  CalledSet& operator=(const CalledSet&) = delete;
  ~CalledSet() {
    for (const PelmIndicator& i : order_) {
      pelm_release_atom(i.name);
    }
  }

  void add(const std::vector<PelmIndicator>& called) {
    for (const PelmIndicator& i : called) {
      if (seen_.insert(i).second) {
        pelm_hold_atom(i.name);
        order_.push_back(i);
      }
    }
  }
  std::ostream& Print(std::ostream& os) const {
    return os << "<" << order_.size() << " predicates called>";
  }

  std::vector<PelmIndicator> order_;

 private:
  struct Hash {
    size_t operator()(const PelmIndicator& i) const {
      return std::hash<uintptr_t>()(i.name) * 31 + static_cast<size_t>(i.arity);
    }
  };
  std::unordered_set<PelmIndicator, Hash> seen_;
};

}  // namespace

extern pelm_type CalledSetType;
typedef PelmCollectable<CalledSet, &CalledSetType> CalledSetCollectable;

pelm_type CalledSetType("cplogic_called_set", DefaultCreateCollectable<CalledSetCollectable>,
                        InitCreateCollectable<CalledSetCollectable>);

int pelm_module_init_cplogic_cplogic() {
  g_global_not = func_lookup("\\+", 1);
  g_split_event = func_lookup("event", 3);
  PELMRegisterAllTypes();
  return 1;
}

namespace {

// The largest table a call may build unless its options say otherwise:
// 2^24 entries (128 MB of doubles), so that one query cannot take the
// machine.
constexpr std::size_t kDefaultMaxTableEntries = std::size_t(1) << 24;

struct CallOptions {
  std::size_t max_table_entries = kDefaultMaxTableEntries;  // 0: no bound
  bool progress = false;
};

// One line on user_error per report, the first once the call has run for a
// second, then at most four a second.
class ProgressLines {
 public:
  ProgressLines() : next_(std::chrono::steady_clock::now() + std::chrono::seconds(1)) {}

  void operator()(const char* phase, std::size_t done, std::size_t total) {
    auto now = std::chrono::steady_clock::now();
    if (now < next_) {
      return;
    }
    next_ = now + std::chrono::milliseconds(250);
    std::cerr << "% cplogic: " << phase << " " << done << "/" << total << std::endl;
  }

 private:
  std::chrono::steady_clock::time_point next_;
};

std::string tableTooLargeMessage(const TableTooLarge& e) {
  std::string size =
      e.entries_ == SIZE_MAX ? "more than " + std::to_string(SIZE_MAX) : std::to_string(e.entries_);
  return "the query needs a table of " + size + " entries, more than max_table_entries(" +
         std::to_string(e.limit_) + ")";
}

// Calls method on the theory of argument 1 with the call's limits installed:
// a table larger than the bound raises resource_error(table_entries), and a
// signal handler's exception (a time limit, Ctrl-C) ends the call unchanged.
template <class Method>
int withTheory(PelmMachine* machine, Method method, const CallOptions& options = CallOptions()) {
  VornCPTheory* theory =
      HeapGetFromTerm<VornCPTheoryCollectable>(machine->argument(1), "vorn_cp_theory")
          ->object_.get();
  QueryLimits limits;
  limits.max_table_entries = options.max_table_entries;
  limits.interrupted = pelm_handle_signals;
  if (options.progress) {
    limits.progress = ProgressLines();
  }
  ScopedQueryLimits installed(limits);
  try {
    return method(theory);
  } catch (const TableTooLarge& e) {
    pelm_resource_error("table_entries", tableTooLargeMessage(e));
  } catch (const QueryInterrupted&) {
    pelm_raise_pending();
  } catch (const ProbabilityUnderflow& e) {
    pelm_evaluation_error("underflow", e.what());
  } catch (const CyclicTheory& e) {
    pelm_cplogic_error_names("cycle", e.atoms_, "theory");
  }
}

// vorn_cp_theory_set_settings(+Theory, +CompileFlag, +Int, +Conversion,
// +Elimination, +Atom)
int vorn_cp_theory_set_settings(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->setSettings(m->argument(2), m->argument(3), m->argument(4), m->argument(5), m->argument(6));
    return 1;
  });
}

// Option Name(Value) or Name = Value: its name, and its value in *value.
std::string optionName(long option, PelmTermTable& table, long* value) {
  if (pelm_is_var(option)) {
    pelm_instantiation_error();
  }
  static const PelmFunctorId equals = func_lookup("=", 2);
  if (pelm_is_structure(option)) {
    PelmFunctorId f = pelm_functor_id(option);
    if (pelm_functor_arity(f) == 1) {
      *value = table.arg(option, 1);
      return pelm_functor_name(f);
    }
    if (f == equals) {
      long name = table.arg(option, 1);
      *value = table.arg(option, 2);
      return PELM_atom(name).text();
    }
  }
  pelm_domain_error("cplogic_option", option);
}

// max_table_entries(N), N a positive integer or inf (no bound), and
// progress(Bool); other options are left to the callers that share the list.
CallOptions readOptions(long list) {
  pelm_must_be_list(list);
  CallOptions options;
  PelmTermTable table;
  PelmListWalk walk(table, list);
  while (walk.next()) {
    long value = 0;
    std::string name = optionName(walk.head(), table, &value);
    if (name == "max_table_entries") {
      if (pelm_is_atom(value) && PELM_atom(value).text() == "inf") {
        options.max_table_entries = 0;
        continue;
      }
      int64_t n = pelm_must_be_integer(value);
      if (n < 1) {
        pelm_domain_error("max_table_entries", value, "a positive integer or inf");
      }
      options.max_table_entries = static_cast<std::size_t>(n);
    } else if (name == "progress") {
      std::string b = pelm_is_atom(value) ? PELM_atom(value).text() : "";
      if (b != "true" && b != "false") {
        pelm_wrong_type("bool", value);
      }
      options.progress = b == "true";
    }
  }
  return options;
}

// A query predicate (+Theory, +Query, +Evidence, ?Prob).
int queryPredicate(PelmMachine* m, bool print, const CallOptions& options = CallOptions()) {
  return withTheory(
      m,
      [m, print](VornCPTheory* t) {
        double p = t->probability(m->argument(2), m->argument(3), print);
        return pelm_unify_float(m->argument(4), p);
      },
      options);
}

// cplogic_prob(+Theory, +Query, +Evidence, -Prob) and
// cplogic_prob(+Theory, +Query, +Evidence, -Prob, +Options)
int cplogic_prob(PelmMachine* m) {
  return queryPredicate(m, false, m->arity() == 5 ? readOptions(m->argument(5)) : CallOptions());
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

// vorn_cp_theory_new_atoms(+Theory, +Lists, ?Atoms): for the LPAD walk.
int vorn_cp_theory_new_atoms(PelmMachine* m) {
  return withTheory(
      m, [m](VornCPTheory* t) { return t->newAtoms(m->argument(2), m->argument(3)) ? 1 : 0; });
}

// vorn_cp_theory_save(+Theory, +FileAtom)
int vorn_cp_theory_save(PelmMachine* m) {
  return withTheory(m, [m](VornCPTheory* t) {
    t->save(m->argument(2));
    return 1;
  });
}

// vorn_cp_theory_add_event(+Theory, +event(HeadList, BodyList)) or
// +event(HeadList, Negated, Positive)
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

// cplogic_literal_body(+CalledSet, +Body, -Negated, -Positive, -Disjoint):
// see pelm_literal_body, Disjoint true or maybe; the predicates the body
// calls join the set.
int cplogic_literal_body(PelmMachine* m) {
  CalledSet* set =
      HeapGetFromTerm<CalledSetCollectable>(m->argument(1), "cplogic_called_set")->object_.get();
  std::vector<PelmIndicator> called;
  bool disjoint = false;
  if (!pelm_literal_body(m->argument(2), m->argument(3), m->argument(4), &disjoint, &called)) {
    return 0;
  }
  set->add(called);
  return pelm_unify_atom(m->argument(5), disjoint ? "true" : "maybe") ? 1 : 0;
}

// cplogic_called(+CalledSet, ?Indicators): the set's predicates as Name/Arity.
int cplogic_called(PelmMachine* m) {
  CalledSet* set =
      HeapGetFromTerm<CalledSetCollectable>(m->argument(1), "cplogic_called_set")->object_.get();
  return pelm_unify_indicators(m->argument(2), set->order_) ? 1 : 0;
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
    {"vorn_cp_theory_new_atoms", 3, vorn_cp_theory_new_atoms},
    {"cplogic_hugin_net", 3, cplogic_hugin_net},
    {"cplogic_literal_body", 5, cplogic_literal_body},
    {"cplogic_called", 2, cplogic_called},
    {"cplogic_prob", 4, cplogic_prob},
    {"cplogic_prob", 5, cplogic_prob},
    {nullptr, 0, nullptr}};
